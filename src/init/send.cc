// init/send.cc - the one road out: sendasc, its two transport roads, and the
// host's two front ends.
//
// sendasc turns a flags word into a PacketHeader on its own stack and picks
// the road: a peer (lansend), the service (wansend), or the local service
// handlers. Each road has one rule of its own. The service road packs the AS
// code of control text into the payload, since the service's frames carry
// no pipe. The LAN road strips trailing NULs to see whether there is any
// text at all, and re-encodes texts for the peers that only read the old
// encoding of dictionaries.
//
// No lock of ours is taken here but the table of old peers' shared one:
// lan_state and wan_state are read once, unlocked, and a link that goes down
// just after the test shows up as a failed write. Media frames take neither
// an allocation nor a copy on either road; control text to the service
// takes exactly one of each (the packed frame); a text re-encoded for an old
// peer takes the dictionary's allocations and a 4096-byte stack buffer.
#include "arbor/send.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/support.h"
#include "asc/asc_internal.h"
#include "init/assert.h"
#include "init/sys_state.h"
#include "rsc/neigh_table.h"
#include "strutils/wire_text.h"

namespace {

// Room for a dictionary in the old encoding; an old peer reads no more.
constexpr int32_t kSendOldEncodingMax = 4096;

// The transport's widths (see arbor/transport.h): sizes and LAN peer ids are
// cut to their low 16 bits.
uint16_t send_cut16(uint32_t value) { return static_cast<uint16_t>(value); }

// The header that the flags word describes; nPipe is each road's to set.
PacketHeader send_header(uint32_t flags) {
  PacketHeader header{};
  header.nBoatType = static_cast<uint16_t>(flags & 0xFFu);
  header.nLevel = static_cast<uint16_t>((flags >> 8) & 0xFFu);
  uint16_t type = static_cast<uint16_t>((flags >> 16) & 0xFFu);
  header.nPacketType = type == 0 ? uint16_t{QVTP_CONTROL} : type;
  return header;
}

// Media carries no text: its trace line shows the first word and the size.
// A frame shorter than a word shows what it has, the rest zero, rather than
// read past its end.
void send_trace(uint32_t qvid, int32_t asc, const PacketHeader& header,
                const void* data, uint32_t size) {
  if (LOG_GetLevel() < 3) return;  // spares the first-word read below
  if (header.nPacketType == QVTP_RTP) {
    uint32_t first = 0;
    std::memcpy(&first, data, std::min<size_t>(size, sizeof first));
    ARBOR_LOG(3,
              "asc=%d,qvid=%u,nPacketType=%d,nBoatType=%d,nLevel=%d: "
              "%08X...%u...",
              asc, qvid, header.nPacketType, header.nBoatType, header.nLevel,
              first, size);
  } else {
    ARBOR_LOG(3, "asc=%d,qvid=%u,nPacketType=%d,nBoatType=%d,nLevel=%d: %.*s",
              asc, qvid, header.nPacketType, header.nBoatType, header.nLevel,
              log_precision(size), static_cast<const char*>(data));
  }
}

// The LAN road's re-encoding for a peer in the table of old peers. Returns
// LANNetWrite's result, or -1 (logged) when the text does not decode or does
// not fit the old encoding's 4096 bytes; nothing is sent then.
int32_t lansend_old(uint32_t qvid, PacketHeader* header, const char* text,
                    uint32_t size, uint32_t text_size) {
  Dict dict = dict_of(text, text_size);
  if (dict == nullptr) {
    ARBOR_LOG(0, "DictCreate: %.*s", log_precision(size), text);
    return -1;
  }
  char buffer[kSendOldEncodingMax];
  int32_t length = DictEncodeOld(buffer, kSendOldEncodingMax, dict);
  DictDestroy(dict);
  if (length <= 0) {
    ARBOR_LOG(0, "DictEncodeOld: %.*s", log_precision(size), text);
    return -1;
  }
  return LANNetWrite(send_cut16(qvid), header, buffer, send_cut16(
                         static_cast<uint32_t>(length)));
}

}  // namespace

extern "C" ARBOR_EXPORT int32_t sendasc(uint32_t qvid, int32_t asc,
                                        const void* data, uint32_t size,
                                        uint32_t flags) {
  int32_t result = -1;
  if (size != 0 && data != nullptr) {
    PacketHeader header = send_header(flags);
    send_trace(qvid, asc, header, data, size);
    if (qvid != 0) {
      if (sys_.lan_state.load(std::memory_order_relaxed) >= 0)
        result = lansend(qvid, asc, &header, data, size);
    } else if (asc >= 1) {
      // Control text above the limit is refused here, not left to
      // wansend's assertion: the text may hold what a peer sent, and input
      // from outside must never stop the process.
      bool too_long = header.nPacketType == QVTP_CONTROL &&
                      size > ARBOR_SEND_WAN_CONTROL_MAX;
      if (!too_long && sys_.wan_state.load(std::memory_order_relaxed) >= 0)
        result = wansend(qvid, asc, &header, data, size);
    } else {
      // Local delivery: the handlers' answers are theirs; the send succeeded.
      asdispatch(get_lan_cdef(), 0, 0, static_cast<const char*>(data), size);
      return 0;
    }
  }
  if (result < 0)
    ARBOR_LOG(0, "send error: qvid=%u, asc=%u: %d", qvid,
              static_cast<uint32_t>(asc), result);
  return result;
}

// Known cost: the NUL strip walks back over every trailing zero byte, so a
// media frame that ends in a long run of zeros costs that many reads.
extern "C" ARBOR_EXPORT int32_t lansend(uint32_t qvid, int32_t asc,
                                        PacketHeader* header, const void* data,
                                        uint32_t size) {
  ARBOR_ASSERT(header != nullptr, "header");
  const char* text = static_cast<const char*>(data);
  uint32_t end = text != nullptr ? size : 0;
  while (end > 0 && text[end - 1] == '\0') --end;
  if (end == 0) {
    ARBOR_LOG(0, "%.*s", text != nullptr ? log_precision(size) : 0,
              text != nullptr ? text : "");
    return -1;
  }
  header->nPipe = static_cast<uint32_t>(asc);
  if (header->nPacketType != QVTP_RTP) {
    int32_t index = neigh_index(qvid);
    ARBOR_LOG(3, "neigh_index %u: @%d", qvid, index);
    if (index >= 0) return lansend_old(qvid, header, text, size, end);
  }
  return LANNetWrite(send_cut16(qvid), header, data, send_cut16(size));
}

extern "C" ARBOR_EXPORT int32_t wansend(uint32_t /*qvid*/, int32_t asc,
                                        PacketHeader* header, const void* data,
                                        uint32_t size) {
  ARBOR_ASSERT(header != nullptr, "header");
  if (header->nPacketType != QVTP_CONTROL) {
    header->nPipe = static_cast<uint32_t>(asc);
    return NetWrite(header, data, send_cut16(size));
  }
  // Packing. sendasc refuses control text above the limit, so only a direct
  // caller can get here with 65535 bytes or more: that caller's fault.
  ARBOR_ASSERT(size < static_cast<unsigned short>(-1),
               "size < (unsigned short)-1");
  header->nPipe = 0;
  if (size == 0 || data == nullptr) return -1;
  auto* frame = static_cast<unsigned char*>(std::malloc(size_t{size} + 2));
  if (frame == nullptr) return -1;
  frame[0] = static_cast<unsigned char>(static_cast<uint32_t>(asc) & 0xFFu);
  frame[1] =
      static_cast<unsigned char>((static_cast<uint32_t>(asc) >> 8) & 0xFFu);
  std::memcpy(frame + 2, data, size);
  int32_t result = size > ARBOR_SEND_WAN_CONTROL_MAX
                       ? -1
                       : NetWrite(header, frame, send_cut16(size + 2));
  std::free(frame);
  return result;
}

// The row is read as one consistent copy: the sign-in reply may rename rows
// on the transport's thread while a host thread sends.
extern "C" ARBOR_EXPORT int32_t NetSend(const char* name, const void* data,
                                        uint32_t size) {
  ServiceRow row;
  if (!asc_copy_byname(name, &row)) {
    ARBOR_LOG(0, "NetSend error: '%s' not available..",
              name != nullptr ? name : "");
    return -1;
  }
  if (row.handler == nullptr) {
    ARBOR_LOG(0, "NetSend error: '%s' not ready..",
              row.AsName != nullptr ? row.AsName : "");
    return -1;
  }
  return sendasc(0, row.AsCode, data, size, ARBOR_SEND_CONTROL);
}

// An asc of 1000 or more is refused with -1 after its log line: it is not an
// AS code, and passing it on could name a data pipe (those start at 1024).
extern "C" ARBOR_EXPORT int32_t NetSendLan(uint32_t qvid, int32_t asc,
                                           const void* data, uint32_t size) {
  if (sys_.lan_state.load(std::memory_order_relaxed) < 0) return 0;
  if (asc >= 1000) {
    ARBOR_LOG(0, "NetSendLan error: qvAS='%d' invalid.", asc);
    return -1;
  }
  if (qvid != 0) return sendasc(qvid, asc, data, size, ARBOR_SEND_CONTROL);
  if (data == nullptr && size != 0) return -1;
  PacketHeader header{};
  header.nPipe = static_cast<uint32_t>(asc);
  header.nPacketType = QVTP_CONTROL;
  return LANNetWrite(0, &header, data, send_cut16(size));
}
