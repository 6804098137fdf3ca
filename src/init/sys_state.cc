// init/sys_state.cc - start and stop of the library, and the host callback.
//
// SysInit brings the subsystems up in a fixed order and creates the timed
// queue last, so that nothing which posts to it can run before it exists.
// SysExit takes them down in the reverse sense: the timed queue first (its
// pending entries run, flushed, while every table they might touch is still
// in place), the transport last. Each step of the stop is announced by a
// level-2 line "SysExit:<step>" so that a hung stop shows where it hangs.
#include "init/link.h"
#include "init/sys_state.h"

#include <cstring>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "arbor/rsevents.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "arbor/timedq.h"
#include "arbor/transport.h"

SysState sys_ = {
    .host_callback = nullptr,
    .wan_state = -1,
    .lan_state = -1,
    .verNum = {},
    .userType = {},
    .login_seq = 0,
    .login_text = {},
    .event_lock = PTHREAD_MUTEX_INITIALIZER,
};

TimedQueue* timedq_ = nullptr;

namespace {
// Guards the pointer timedq_ (not the queue): posts hold it shared while they
// use the queue, SysExit holds it exclusive to take the queue away. Statically
// initialised and never destroyed, like the event lock.
pthread_rwlock_t timedq_guard = PTHREAD_RWLOCK_INITIALIZER;
}  // namespace

namespace {

// Stands in for a host that gave no callback: its events are dropped.
void no_host_callback(int32_t, const char*, int32_t) {}

// Copies exactly 32 bytes, padding with NULs; a 32-character value keeps no
// terminator, which is what the sign-in text expects of these fields.
void copy_version_field(char (&field)[32], const char* value) {
  std::size_t n = value ? strnlen(value, sizeof field) : 0;
  std::memcpy(field, value ? value : "", n);
  std::memset(field + n, 0, sizeof field - n);
}

}  // namespace

void* sys_post_timed(uint32_t delay, TqHandler fn, uintptr_t arg,
                     int32_t argc, const char* const* argv) {
  pthread_rwlock_rdlock(&timedq_guard);
  void* posted = timedq_ != nullptr
                     ? tq_post(timedq_, delay, fn, arg, argc, argv)
                     : nullptr;
  pthread_rwlock_unlock(&timedq_guard);
  return posted;
}

void sys_notify_host(int32_t code, const char* text, int32_t length) {
  sys_.host_callback.load(std::memory_order_relaxed)(code, text, length);
}

int evt_lock(void) { return pthread_mutex_lock(&sys_.event_lock); }

int evt_unlock(void) { return pthread_mutex_unlock(&sys_.event_lock); }

extern "C" ARBOR_EXPORT int32_t SysInit(HostCallback callback) {
  sys_.wan_state.store(-1, std::memory_order_relaxed);
  sys_.lan_state.store(-1, std::memory_order_relaxed);
  sys_.host_callback.store(callback ? callback : no_host_callback,
                           std::memory_order_relaxed);
  ARBOR_LOG(3, "START initialize.");

  // The event lock is statically initialised (see sys_state.h).
  evt_init(evt_lock, evt_unlock, evt_deliver);

  ARBOR_LOG(2, "load 'dev' directory: %s", "dev");
  cdef_init("dev");

  // The forest and the command queue's consumer thread.
  rsc_init();

  asc_init();
  NetOpen();

  // Last: everything that posts to the timed queue may run from here on.
  TimedQueue* q = tq_create();
  pthread_rwlock_wrlock(&timedq_guard);
  timedq_ = q;
  pthread_rwlock_unlock(&timedq_guard);
  return 0;
}

extern "C" ARBOR_EXPORT int32_t SysExit(void) {
  // The queue is taken away before it is destroyed, so that a command still
  // running on the consumer finds no queue rather than a freed one. Entries
  // still pending run now, flushed, while every table is in place.
  pthread_rwlock_wrlock(&timedq_guard);
  TimedQueue* q = timedq_;
  timedq_ = nullptr;
  pthread_rwlock_unlock(&timedq_guard);
  if (q != nullptr) {
    ARBOR_LOG(2, "%s:tq_destroy", __func__);
    tq_destroy(q);
  }

  // Before the forest stops, so a command that dispatches from here on finds
  // no handler.
  ARBOR_LOG(2, "%s:asc_uninit", __func__);
  asc_uninit();

  // Every command accepted so far runs; then the forest is swept empty and
  // the owners of sessions still open are told.
  ARBOR_LOG(2, "%s:rsc_uninit", __func__);
  rsc_uninit();

  if (sys_.lan_state.load(std::memory_order_relaxed) >= 0) {
    // Off before the transport hears of it, so a late callback finds the
    // LAN unavailable and only logs.
    sys_.lan_state.store(-1, std::memory_order_relaxed);
    ARBOR_LOG(2, "%s:UnInitLAN", __func__);
    UnInitLAN(on_lan_callback, 0, 0, 0);
  }

  ARBOR_LOG(2, "%s:NetClose", __func__);
  NetClose();

  ARBOR_LOG(2, "%s:cdef_uninit", __func__);
  cdef_uninit();
  return 0;
}

extern "C" ARBOR_EXPORT int32_t SysVer(const char* verNum,
                                       const char* userType) {
  copy_version_field(sys_.verNum, verNum);
  copy_version_field(sys_.userType, userType);
  return 0;
}
