// cdef/device_callback.cc - local_device_callback, the one function through
// which drivers speak to the engine: subscriptions to resource events, the
// driver's own events, and media of devices that the engine does not read
// itself.
//
// The callback runs on whatever thread the driver calls it from, also from
// inside SetCallback (the class mutex then held by that very thread), Read
// or DoEvent. So it takes no lock of the class table: the class's number is
// looked up lock-free (cdef_class_index). Everything it is given is copied
// before it returns; an event costs the dictionary and a 4096-byte buffer on
// this stack, nothing more. Media and events for a tree (FD above 0) are
// only pushed on the command queue: the tree opened on (class, FD) with uid
// 0 gets them on the consumer, in the order of this thread's callbacks.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "arbor/cdef.h"
#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "arbor/rsevents.h"
#include "arbor/support.h"
#include "cdef/cdef_internal.h"
#include "strutils/wire_text.h"

namespace {

// MainCmd of a subscription, and of the events this callback emits.
constexpr int32_t kCdefMainCmdSubscribe = 15;
constexpr int32_t kCdefMainCmdEvent = 17;
// Room for one event text: the driver's text with the three keys merged in.
constexpr uint32_t kCdefEventBuffer = 4096;

// Subscribes cls, under its local code, to event at path. A class that is
// not in the table subscribes nothing.
void cdef_subscribe(const cdef* cls, const char* path, const char* event) {
  const int32_t n = cdef_class_index(cls);
  if (n < 0) return;
  RsSubscribeEvent(0, kCdefLocalAscBase + n, path, event, nullptr, nullptr);
}

// Emits the driver's event text at path, with event, MainCmd 17 and
// subResource merged over its own keys, and posts the merged text in-band
// to the tree of (cls, fd) when fd is above 0. data is the driver's
// NUL-terminated dictionary text and is read to its NUL, whatever size
// says: size only tells that the call carries something (a driver passes
// strlen(text) as often as strlen(text) + 1). A text that does not parse
// is dropped by bemerge with "DictCreate: %s".
void cdef_emit(const cdef* cls, const void* data, const char* path,
               const char* event, int32_t fd, uint32_t flag) {
  const char* base = static_cast<const char*>(data);
  char buffer[kCdefEventBuffer];
  if (bemerge(buffer, sizeof buffer, base,
              "event=%s;MainCmd=%d;subResource=%s;", event, kCdefMainCmdEvent,
              path) <= 0) {
    return;
  }
  RsEmitEvent(path, event, buffer, nullptr, nullptr);
  if (fd > 0) rsc_post_event(cls, fd, buffer, flag);
}

}  // namespace

// Refused without effect: a null cls or var (logged at level 0), null data
// or size 0, a var that does not parse (silently), an event text that does
// not parse or does not fit (logged by bemerge).
void local_device_callback(const cdef* cls, const char* var, const void* data,
                           uint32_t size) {
  if (cls == nullptr || var == nullptr) {
    ARBOR_LOG(0, "refused: null class %p or var %p",
              static_cast<const void*>(cls), static_cast<const void*>(var));
    return;
  }
  ARBOR_LOG(3, "%s: %s, ...%u...", "local_device_callback", var, size);
  if (data == nullptr || size == 0) return;
  Dict dict = dict_of(var);
  if (dict == nullptr) return;
  const int32_t main_cmd = DictGetInt(dict, "MainCmd");
  const char* path = DictGetStr(dict, "subResource");
  const char* event = DictGetStr(dict, "event");
  if (main_cmd == kCdefMainCmdSubscribe) {
    if (path != nullptr && event != nullptr) cdef_subscribe(cls, path, event);
  } else {
    const int32_t fd = DictGetInt(dict, "FD");
    const auto flag = static_cast<uint32_t>(DictGetInt(dict, "Flag"));
    if (path != nullptr && event != nullptr) {
      cdef_emit(cls, data, path, event, fd, flag);
    } else if (fd > 0) {
      rsc_post_data(cls, fd, data, size, flag);
    }
  }
  DictDestroy(dict);
}
