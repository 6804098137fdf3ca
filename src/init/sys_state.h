/*
 * init/sys_state.h - the library-wide state record and the internal calls of
 * the system frame.
 *
 * SysState's words are read on every send and written from the transport's
 * thread and host threads without a lock: a link that changes just after a
 * test shows up as a failed write, which every caller handles. They are
 * std::atomic with relaxed order so that those unlocked accesses are well
 * defined; the record has one instance for the whole library.
 */
#ifndef ARBOR_SRC_INIT_SYS_STATE_H
#define ARBOR_SRC_INIT_SYS_STATE_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "arbor/host_callback.h"
#include "arbor/timedq.h"

struct SysState {
  // Never null after SysInit: no_host_callback stands in for a null one.
  std::atomic<HostCallback> host_callback;
  // Negative: WAN not initialised (-1 after SysInit); else the last status.
  std::atomic<int32_t> wan_state;
  // Negative: LAN off (-1 after SysInit); else what InitLAN returned.
  std::atomic<int32_t> lan_state;
  // SysVer's values, padded with NULs; SysInit leaves them alone.
  char verNum[32];
  char userType[32];
  // Sign-in sequence number; counts from library load, not from SysInit.
  std::atomic<uint32_t> login_seq;
  // The encoded sign-in dictionary of the latest attempt.
  char login_text[256];
  // The event lock. Statically initialised and never destroyed: the event
  // tree it guards outlives SysExit, and a later SysInit finds it ready.
  pthread_mutex_t event_lock;
};

extern SysState sys_;

// Posts to the library's timed queue: tq_post on timedq_, unless there is no
// queue (before SysInit, and from SysExit on), which gives null. SysExit
// cannot free the queue while a post is under way, so the library's own
// threads post through here rather than reading timedq_.
void* sys_post_timed(uint32_t delay, TqHandler fn, uintptr_t arg,
                     int32_t argc, const char* const* argv);

// Calls the installed host callback. Safe from any thread.
void sys_notify_host(int32_t code, const char* text, int32_t length);

// The event lock's hooks for the event tree. Both return 0.
int evt_lock(void);
int evt_unlock(void);

#endif  // ARBOR_SRC_INIT_SYS_STATE_H
