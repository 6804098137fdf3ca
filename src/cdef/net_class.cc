// cdef/net_class.cc - the slots that make the two networks look like devices
// to the session forest (DoEvent and Write of the WAN and LAN classes), and
// the two helpers they and the device callback share: bemerge, which merges
// a formatted text over a dictionary text, and net_emit_event, which turns a
// dictionary text into a local resource event.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "arbor/device_class.h"
#include "arbor/rsevents.h"
#include "arbor/send.h"
#include "arbor/support.h"
#include "strutils/wire_text.h"

namespace {

// Bits 16 to 23 of a sendasc flags word: the packet type.
constexpr uint32_t kFlagsTypeMask = 0x00ff0000;
// Packet type 4, media.
constexpr uint32_t kFlagsTypeMedia = 0x00040000;

}  // namespace

extern "C" {

// A formatted text that does not fit in the buffer is refused, never cut:
// a cut dictionary text either fails to parse or, cut just behind a ';',
// parses to fewer pairs, so the merged text would silently keep the base's
// values for the keys that were cut off (an event going out with the
// driver's own MainCmd instead of 17). The length handed to DictUpdate is
// therefore always below size. Failures give 0 with buffer holding at most
// the cut format output; so does a formatted text that does not parse.
ARBOR_EXPORT int32_t bemerge(char* buffer, uint32_t size, const char* base,
                             const char* format, ...) {
  if (buffer == nullptr || size == 0 || format == nullptr) return 0;
  if (size > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())) {
    size = static_cast<uint32_t>(std::numeric_limits<int32_t>::max());
  }
  Dict dict = dict_of(base);
  if (dict == nullptr) {
    ARBOR_LOG(0, "DictCreate: %s", base != nullptr ? base : "(null)");
    return 0;
  }
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(buffer, size, format, args);
  va_end(args);
  int32_t result = 0;
  if (length > 0 && static_cast<uint32_t>(length) >= size) {
    ARBOR_LOG(0, "formatted text of %d bytes does not fit in %u", length,
              size);
  } else if (length > 0) {
    // A formatted text that does not parse would leave the base alone,
    // without the overrides the caller asked for: refuse it.
    if (DictUpdate(dict, buffer, length) < 0) {
      ARBOR_LOG(0, "DictUpdate: %.*s", length, buffer);
    } else {
      result = DictEncode(buffer, static_cast<int32_t>(size), dict);
      // A merged text that fills the buffer exactly has no NUL behind it,
      // and every caller reads the result as a C string: refuse it too.
      if (result >= static_cast<int32_t>(size)) {
        ARBOR_LOG(0, "merged text of %d bytes does not fit in %u", result,
                  size);
        buffer[0] = '\0';
        result = 0;
      }
    }
  }
  DictDestroy(dict);
  return result;
}

// cls is not used: an event carries its own place (subResource).
ARBOR_EXPORT int32_t net_emit_event(const cdef* /*cls*/, const char* text) {
  Dict dict = dict_of(text);
  if (dict == nullptr) return 0;
  const char* path = DictGetStr(dict, "subResource");
  const char* event = DictGetStr(dict, "event");
  int32_t result = 0;
  if (path != nullptr && event != nullptr && !wire_event_text(dict)) {
    // In-band texts come from the far end of a pipe.
    ARBOR_LOG(0, "in-band event refused: MainCmd is not %d",
              kWireMainCmdEvent);
  } else if (path != nullptr && event != nullptr) {
    result = RsEmitEvent(path, event, text, nullptr, nullptr);
  }
  DictDestroy(dict);
  return result;
}

// An in-band event that reaches a WAN node (a tree rooted in a pipe) becomes
// a local resource event. name and xfd are not used. Cannot fail.
ARBOR_EXPORT int32_t wan_do_event(const char* /*name*/, int32_t /*xfd*/,
                                  const char* text) {
  net_emit_event(get_wan_cdef(), text);
  return 0;
}

// As wan_do_event, for a LAN node.
ARBOR_EXPORT int32_t lan_do_event(const char* /*name*/, int32_t /*xfd*/,
                                  const char* text) {
  net_emit_event(get_lan_cdef(), text);
  return 0;
}

// uid 0 sends over the WAN, and xfd, the pipe, takes the AS code's place.
ARBOR_EXPORT int32_t wan_write(int32_t xfd, const void* data, uint32_t size,
                               uint32_t flags) {
  if ((flags & kFlagsTypeMask) == 0) flags |= kFlagsTypeMedia;
  return sendasc(0, xfd, data, size, flags);
}

// LAN data has its own road: the data path copies a chunk once into a
// record and sends it to each peer of the pipe node with sendasc, and
// in-band text does the same. Nothing can be sent to "the LAN" as a device,
// since a LAN write needs a peer that this slot is not given. A call here is
// a fault in the engine, and carrying on would lose data unseen.
ARBOR_EXPORT int32_t lan_write(int32_t xfd, const void* /*data*/,
                               uint32_t size, uint32_t flags) {
  ARBOR_LOG(0, "the LAN class has no Write (xfd=%d, size=%u, flags=%#x)", xfd,
            size, flags);
  std::abort();
}

}  // extern "C"
