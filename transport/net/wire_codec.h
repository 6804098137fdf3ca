// wire_codec.h - the byte layouts of docs/wire.md: the hello that opens a
// connection, the 12-byte frame header and the presence datagram, encoded
// and checked.
//
// Pure functions over caller-owned buffers: no allocation, no socket, no
// lock, so every rule about what a receiver refuses lives here and is tested
// without a network. All integers on the wire are big-endian.
#ifndef ARBOR_NET_WIRE_CODEC_H
#define ARBOR_NET_WIRE_CODEC_H

#include <cstddef>
#include <cstdint>

namespace arbor::net {

// Wire version written in every hello; a hello with any other is refused.
inline constexpr uint16_t kWireVersion = 1;
// Size of a hello on the wire.
inline constexpr size_t kHelloSize = 20;
// Size of a frame header on the wire.
inline constexpr size_t kFrameHeaderSize = 12;
// Largest payload: all that the 16-bit length field can say.
inline constexpr size_t kMaxPayload = 65535;
// Largest frame on the wire; each connection's read buffer has this size.
inline constexpr size_t kMaxFrame = kFrameHeaderSize + kMaxPayload;
// Frame type of the "moved" notice: the last frame a peer sends on a
// connection it retires in favour of another one to the same peer. Never
// reaches the engine, which cannot send it either.
inline constexpr uint16_t kFrameTypeMoved = 16;
// Hello flag: the sender requires the LAN key challenge-response.
inline constexpr uint16_t kHelloFlagKeyRequired = 1u << 0;

// Presence datagram: magic, wire version, flags, instance, listen port,
// announced version and text length, then the text.
inline constexpr size_t kPresenceHeaderSize = 22;
// Longest presence text a datagram carries (and LANReFlash accepts).
inline constexpr size_t kMaxPresenceText = 2048;
// Largest presence datagram; the receive buffer has one byte more, so that
// a longer datagram shows itself instead of being silently cut.
inline constexpr size_t kMaxPresenceDatagram = kPresenceHeaderSize + kMaxPresenceText;
// Presence flag: the sender is leaving (its LAN is stopping); receivers
// treat it as gone at once instead of waiting for the time-out.
inline constexpr uint16_t kPresenceFlagBye = 1u << 0;

// The key exchange after the hellos (docs/wire.md): each side's nonce and
// its proof, raw bytes of these sizes.
inline constexpr size_t kNonceSize = 32;
inline constexpr size_t kProofSize = 32;

struct Hello {
  uint16_t flags = 0;
  uint64_t instance = 0;
  uint16_t listen_port = 0;
  uint16_t version = 0;  // the engine's VERSION this side announces
};

struct FrameHeader {
  uint16_t length = 0;
  uint16_t boat = 0;
  uint32_t pipe = 0;
  uint16_t type = 0;
  uint16_t level = 0;
};

// A presence datagram decoded. text points into the datagram's buffer.
struct Announcement {
  uint16_t flags = 0;
  uint64_t instance = 0;
  uint16_t listen_port = 0;
  uint16_t version = 0;  // the engine's VERSION the sender speaks
  const char* text = nullptr;
  uint16_t text_size = 0;
};

enum class Verdict {
  kOk,
  kShort,        // fewer bytes than the layout needs: read more, or truncated
  kBadMagic,
  kBadVersion,
  kBadInstance,  // instance id 0
  kBadType,      // a frame type other than 3, 4 or 5
  kBadLength,    // a presence datagram whose size is not its header + text length
};

// Text of a verdict for log lines. Cannot fail.
const char* verdict_text(Verdict verdict);

// Writes hello into out (kHelloSize bytes). Cannot fail.
void hello_encode(const Hello& hello, uint8_t out[kHelloSize]);

// Reads a hello from size bytes at in. kOk fills *hello; any other verdict
// leaves it unchanged. Flags are not judged here (the caller knows whether it
// has a key).
Verdict hello_decode(const uint8_t* in, size_t size, Hello* hello);

// Writes header into out (kFrameHeaderSize bytes). Cannot fail.
void frame_header_encode(const FrameHeader& header, uint8_t out[kFrameHeaderSize]);

// Reads a frame header from size bytes at in. kOk (type 3, 4, 5 or
// kFrameTypeMoved) or kBadType fill *header; kShort leaves it unchanged. The
// length needs no check: the field cannot exceed kMaxPayload.
Verdict frame_header_decode(const uint8_t* in, size_t size, FrameHeader* header);

// Writes a presence datagram (kPresenceHeaderSize + text_size bytes, at most
// kMaxPresenceDatagram) into out. text_size must be at most kMaxPresenceText
// (a caller's fault otherwise: asserted). Returns the datagram's size.
size_t presence_encode(const Announcement& a, uint8_t out[kMaxPresenceDatagram]);

// Reads a presence datagram of exactly size bytes. kOk fills *a, whose text
// then points into in; any other verdict (kShort, kBadMagic, kBadVersion,
// kBadInstance, kBadLength) leaves it unchanged. Every length is checked
// against size before anything is read at it.
Verdict presence_decode(const uint8_t* in, size_t size, Announcement* a);

// Whether a frame type is one the engine sends and receives: 3, 4 or 5.
constexpr bool frame_type_valid(uint32_t type) { return type >= 3 && type <= 5; }

}  // namespace arbor::net

#endif  // ARBOR_NET_WIRE_CODEC_H
