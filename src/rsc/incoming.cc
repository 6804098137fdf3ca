// rsc/incoming.cc - media and in-band text on their way into a tree: from a
// LAN peer on a data pipe, from the service on a WAN data pipe, and from a
// local driver through its callback.
//
// Each frame becomes an InbandRecord (head, then payload) pushed on the
// command queue; the consumer finds the tree by the record's three words
// (uid, class, descriptor) and drops a frame that no tree takes. So a frame
// costs one record and the queue's copy of it, and frames of one pipe keep
// the order of their arrival, also against session commands pushed between
// them. The two _incoming functions run on the transport's threads, the two
// posts on whatever thread the driver calls from; they share nothing but
// the queue.
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arbor/device_class.h"
#include "arbor/inband.h"
#include "arbor/rsc.h"
#include "arbor/support.h"
#include "mque/frame_pool.h"
#include "strutils/wire_text.h"

namespace {

constexpr uint32_t kHead = sizeof(InbandRecord);
// Room for an in-band text from a LAN peer once encoded again, NUL included.
constexpr int32_t kLanInbandRoom = 2028;
// An in-band frame from the WAN must leave this much of that room free.
constexpr uint32_t kWanInbandMargin = 64;

// An in-band record that lives on the stack of the function that pushes it.
struct InbandFrame {
  InbandRecord head;
  char text[kLanInbandRoom];
};

// Media frames up to this size are copied into a record on the pusher's
// stack (an InbandFrame): the queue copies the record at once, so it need
// not outlive the push, and a small frame then costs no allocation beyond
// the queue's own. Larger ones take a block of the frame pool.
constexpr uint32_t kStackRecordRoom = sizeof(InbandFrame::text);
static_assert(offsetof(InbandFrame, text) == kHead,
              "the payload follows the record's head");

// The 16-bit word at byte 2 and the 32-bit word at byte 0 of a media frame,
// for the trace: with RTP framing, the sequence number and the first header
// word, read in network order. Bytes past size read as 0.
uint32_t frame_byte(const void* data, uint32_t size, uint32_t at) {
  return at < size ? static_cast<const unsigned char*>(data)[at] : 0u;
}
uint32_t frame_seq(const void* data, uint32_t size) {
  return frame_byte(data, size, 2) << 8 | frame_byte(data, size, 3);
}
uint32_t frame_word(const void* data, uint32_t size) {
  return frame_byte(data, size, 0) << 24 | frame_byte(data, size, 1) << 16 |
         frame_byte(data, size, 2) << 8 | frame_byte(data, size, 3);
}

// The record's class word is only compared, never written through; it is
// not const because the record crosses the C boundary as it is.
//
// Copies a media frame behind a head and queues it for the tree of (uid,
// cls, xfd). A frame that cannot be copied is dropped: the data it carried
// is gone, and the session goes on.
void push_media(uint32_t uid, const cdef* cls, int32_t xfd, uint32_t flags,
                const void* data, uint32_t size) {
  if (data == nullptr || size == 0 || size > UINT32_MAX - kHead) return;
  InbandFrame small;
  auto* record = size <= kStackRecordRoom
                     ? &small.head
                     : static_cast<InbandRecord*>(frame_alloc(kHead + size));
  if (record == nullptr) return;
  *record = InbandRecord{uid, const_cast<cdef*>(cls), xfd, flags, size};
  std::memcpy(record + 1, data, size);
  cmdq_push("Tree_inflate", Tree_inflate, 0, record, kHead + size);
  if (record != &small.head) frame_free(record, kHead + size);
}

// A LAN in-band text, encoded again with its sender named. A text that
// does not fit the room is dropped with a line: a cut text would carry
// other keys than the sender's, and an empty one says nothing.
void lan_inband(uint32_t qvid, uint32_t pipe, const void* data, uint32_t size) {
  Dict dict = dict_of(static_cast<const char*>(data), size);
  if (dict == nullptr) return;
  if (DictGetInt(dict, "QVID") < 1) {
    char sender[16];
    std::snprintf(sender, sizeof sender, "%u", qvid);
    DictSetStr(dict, "QVID", sender);
  }
  InbandFrame frame;
  const int32_t length = DictEncode(frame.text, kLanInbandRoom, dict);
  DictDestroy(dict);
  if (length <= 0 || length >= kLanInbandRoom) {
    ARBOR_LOG(0, "%s(qvid=%u, pipe=%u): in-band text over %d bytes dropped",
              "rsc_lan_data_incoming", qvid, pipe, kLanInbandRoom - 1);
    return;
  }
  const auto total = static_cast<uint32_t>(length) + 1;
  frame.head = InbandRecord{qvid, get_lan_cdef(), static_cast<int32_t>(pipe),
                            0, total};
  cmdq_push("Tree_inband", Tree_inband, 0, &frame, kHead + total);
}

}  // namespace

extern "C" {

ARBOR_EXPORT void rsc_lan_data_incoming(uint32_t qvid, uint32_t pipe,
                                        uint32_t type, const void* data,
                                        uint32_t size) {
  // A frame without bytes carries nothing for any tree.
  if (data == nullptr || size == 0) return;
  if (type == QVTP_INBAND) {
    lan_inband(qvid, pipe, data, size);
  } else if (type == QVTP_RTP) {
    // Looked up first: the line's fields cost a frame more than the look.
    if (LOG_GetLevel() >= 3)
      ARBOR_LOG(3, "%s:%d(qvid=%u, pipe=%u,QVTP_RTP: size=%u, %04x...)",
                "rsc_lan_data_incoming",
                static_cast<int>(frame_seq(data, size)), qvid, pipe, size,
                frame_word(data, size));
    push_media(qvid, get_lan_cdef(), static_cast<int32_t>(pipe), 0, data,
               size);
  } else {
    ARBOR_LOG(0, "%s(qvid=%u, pipe=%u): %u", "rsc_lan_data_incoming", qvid,
              pipe, type);
  }
}

ARBOR_EXPORT void rsc_wan_data_incoming(uint32_t pipe, uint32_t type,
                                        const void* data, uint32_t size) {
  if (data == nullptr || size == 0) return;
  if (type == QVTP_RTP) {
    ARBOR_LOG(2, "%s:QVTP_RTP:%d(%u, %04x...%u...)", "rsc_wan_data_incoming",
              static_cast<int>(frame_seq(data, size)), pipe,
              frame_word(data, size), size);
    push_media(0, get_wan_cdef(), static_cast<int32_t>(pipe), 0, data, size);
  } else if (type == QVTP_INBAND) {
    ARBOR_LOG(3, "%s:QVTP_INBAND(%u, %.*s)", "rsc_wan_data_incoming", pipe,
              log_precision(size), static_cast<const char*>(data));
    if (size >= kLanInbandRoom - kWanInbandMargin) return;
    // The text goes on as it came, up to its first NUL: not decoded, and
    // no sender added (the service names none).
    InbandFrame frame;
    std::memcpy(frame.text, data, size);
    frame.text[size] = '\0';
    const auto total = static_cast<uint32_t>(std::strlen(frame.text)) + 1;
    frame.head = InbandRecord{0, get_wan_cdef(), static_cast<int32_t>(pipe),
                              0, total};
    cmdq_push("Tree_inband", Tree_inband, 0, &frame, kHead + total);
  } else {
    ARBOR_LOG(0, "VPipe input unhandled: pipe=%u, type=%u.", pipe, type);
  }
}

ARBOR_EXPORT void rsc_post_data(const cdef* cls, int32_t fd, const void* data,
                                uint32_t size, uint32_t flag) {
  push_media(0, cls, fd, flag, data, size);
}

ARBOR_EXPORT void rsc_post_event(const cdef* cls, int32_t fd, const char* text,
                                 uint32_t flag) {
  if (text == nullptr) return;
  const size_t length = std::strlen(text);
  if (length >= UINT32_MAX - kHead) return;
  const auto total = static_cast<uint32_t>(length + 1);
  auto* record = static_cast<InbandRecord*>(std::malloc(kHead + total));
  if (record == nullptr) return;
  *record = InbandRecord{0, const_cast<cdef*>(cls), fd, flag, total};
  std::memcpy(record + 1, text, total);
  ARBOR_LOG(3, "%s:Inband: %d, %s", "rsc_post_event",
            log_precision(length), text);
  cmdq_push("Tree_inband", Tree_inband, 0, record, kHead + total);
  std::free(record);
}

}  // extern "C"
