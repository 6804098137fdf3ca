// init/sys_subscribe.cc - the host's event subscriptions.
//
// A host thread must not wait on the event lock, and a subscription made from
// the host callback must not re-enter it: SysSubscribe therefore only copies
// its arguments into a timed-queue entry, and the subscription itself is made
// on the queue's worker. The entry's strings are, in order: the user id ("0",
// this host), the AS code, the resource, the event, the extra number and the
// optional text.
#include <cstdio>

#include "arbor/rsevents.h"
#include "arbor/sys.h"
#include "arbor/timedq.h"
#include "init/sys_state.h"

namespace {

// Queues handler with the host's subscription strings; 1 once queued.
int32_t post_subscription(TqHandler handler, int32_t asc, const char* resource,
                          const char* event, int32_t extra, const char* text) {
  if (resource == nullptr || event == nullptr || asc < 1) return 0;
  char asc_text[12];
  char extra_text[12];
  std::snprintf(asc_text, sizeof asc_text, "%d", asc);
  std::snprintf(extra_text, sizeof extra_text, "%d", extra);
  const char* argv[] = {"0", asc_text, resource, event, extra_text, text};
  int32_t argc = text != nullptr ? 6 : 5;  // the text is optional
  // Refused like any bad argument when the library is not running.
  return sys_post_timed(0, handler, 0, argc, argv) != nullptr ? 1 : 0;
}

}  // namespace

extern "C" ARBOR_EXPORT int32_t SysSubscribe(int32_t asc, const char* resource,
                                             const char* event, int32_t extra,
                                             const char* text) {
  return post_subscription(event_subscribe, asc, resource, event, extra, text);
}

extern "C" ARBOR_EXPORT int32_t SysUnsubscribe(int32_t asc,
                                               const char* resource,
                                               const char* event,
                                               int32_t extra) {
  return post_subscription(event_unsubscribe, asc, resource, event, extra,
                           nullptr);
}
