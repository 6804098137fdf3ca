// wire_codec.cc - encoding and checking of hellos, frame headers and
// presence datagrams (docs/wire.md). Big-endian by hand, byte by byte: no alignment is assumed
// and the host's byte order does not matter.
#include "wire_codec.h"

#include <cassert>
#include <cstring>

namespace arbor::net {
namespace {

constexpr uint8_t kHelloMagic[4] = {'A', 'R', 'B', '1'};
constexpr uint8_t kPresenceMagic[4] = {'A', 'R', 'B', 'P'};

void put16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
void put32(uint8_t* p, uint32_t v) {
  put16(p, static_cast<uint16_t>(v >> 16));
  put16(p + 2, static_cast<uint16_t>(v));
}
void put64(uint8_t* p, uint64_t v) {
  put32(p, static_cast<uint32_t>(v >> 32));
  put32(p + 4, static_cast<uint32_t>(v));
}
uint16_t get16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
uint32_t get32(const uint8_t* p) {
  return (static_cast<uint32_t>(get16(p)) << 16) | get16(p + 2);
}
uint64_t get64(const uint8_t* p) {
  return (static_cast<uint64_t>(get32(p)) << 32) | get32(p + 4);
}

}  // namespace

const char* verdict_text(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk: return "ok";
    case Verdict::kShort: return "truncated";
    case Verdict::kBadMagic: return "bad magic";
    case Verdict::kBadVersion: return "unknown wire version";
    case Verdict::kBadInstance: return "instance id 0";
    case Verdict::kBadType: return "bad frame type";
    case Verdict::kBadLength: return "size does not match the text length";
  }
  return "?";
}

void hello_encode(const Hello& hello, uint8_t out[kHelloSize]) {
  std::memcpy(out, kHelloMagic, sizeof kHelloMagic);
  put16(out + 4, kWireVersion);
  put16(out + 6, hello.flags);
  put64(out + 8, hello.instance);
  put16(out + 16, hello.listen_port);
  put16(out + 18, hello.version);
}

Verdict hello_decode(const uint8_t* in, size_t size, Hello* hello) {
  if (size < kHelloSize) return Verdict::kShort;
  if (std::memcmp(in, kHelloMagic, sizeof kHelloMagic) != 0) return Verdict::kBadMagic;
  if (get16(in + 4) != kWireVersion) return Verdict::kBadVersion;
  const uint64_t instance = get64(in + 8);
  if (instance == 0) return Verdict::kBadInstance;
  hello->flags = get16(in + 6);
  hello->instance = instance;
  hello->listen_port = get16(in + 16);
  hello->version = get16(in + 18);
  return Verdict::kOk;
}

void frame_header_encode(const FrameHeader& header, uint8_t out[kFrameHeaderSize]) {
  put16(out, header.length);
  put16(out + 2, header.boat);
  put32(out + 4, header.pipe);
  put16(out + 8, header.type);
  put16(out + 10, header.level);
}

Verdict frame_header_decode(const uint8_t* in, size_t size, FrameHeader* header) {
  if (size < kFrameHeaderSize) return Verdict::kShort;
  header->length = get16(in);
  header->boat = get16(in + 2);
  header->pipe = get32(in + 4);
  header->type = get16(in + 8);
  header->level = get16(in + 10);
  const bool known = frame_type_valid(header->type) || header->type == kFrameTypeMoved;
  return known ? Verdict::kOk : Verdict::kBadType;
}

size_t presence_encode(const Announcement& a, uint8_t out[kMaxPresenceDatagram]) {
  assert(a.text_size <= kMaxPresenceText && (a.text != nullptr || a.text_size == 0));
  std::memcpy(out, kPresenceMagic, sizeof kPresenceMagic);
  put16(out + 4, kWireVersion);
  put16(out + 6, a.flags);
  put64(out + 8, a.instance);
  put16(out + 16, a.listen_port);
  put16(out + 18, a.version);
  put16(out + 20, a.text_size);
  if (a.text_size > 0) std::memcpy(out + kPresenceHeaderSize, a.text, a.text_size);
  return kPresenceHeaderSize + a.text_size;
}

Verdict presence_decode(const uint8_t* in, size_t size, Announcement* a) {
  if (size < kPresenceHeaderSize) return Verdict::kShort;
  if (std::memcmp(in, kPresenceMagic, sizeof kPresenceMagic) != 0) return Verdict::kBadMagic;
  if (get16(in + 4) != kWireVersion) return Verdict::kBadVersion;
  const uint64_t instance = get64(in + 8);
  if (instance == 0) return Verdict::kBadInstance;
  const uint16_t text_size = get16(in + 20);
  if (text_size > kMaxPresenceText || size != kPresenceHeaderSize + text_size)
    return Verdict::kBadLength;
  a->flags = get16(in + 6);
  a->instance = instance;
  a->listen_port = get16(in + 16);
  a->version = get16(in + 18);
  a->text = reinterpret_cast<const char*>(in + kPresenceHeaderSize);
  a->text_size = text_size;
  return Verdict::kOk;
}

}  // namespace arbor::net
