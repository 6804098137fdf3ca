/*
 * arbor/sys.h - start and stop of the library, version strings, and the
 * host's event subscriptions.
 *
 * Conventions:
 *  1. SysVer may come before SysInit; everything else comes after SysInit
 *     and before SysExit. SysExit is the last call, made once, from a host
 *     thread of its own while no other host thread calls in: it joins the
 *     library's threads, so it must never be called from the host callback,
 *     a timed-queue handler, a command or a driver operation.
 *  2. Strings passed in are copied before the call returns; the caller may
 *     reuse its buffers at once.
 *  3. SysInit and SysExit block while threads start and stop; the other
 *     calls here do not block.
 */
#ifndef ARBOR_SYS_H
#define ARBOR_SYS_H

#include <stdint.h>

#include "arbor/export.h"
#include "arbor/host_callback.h"

ARBOR_BEGIN_DECLS

typedef struct TimedQueue TimedQueue;

/*
 * The library's one timed queue: null before SysInit has finished and again
 * from SysExit on. Written only by SysInit and SysExit.
 */
ARBOR_EXPORT extern TimedQueue* timedq_;

/*
 * Starts the library: installs callback (null: the host hears nothing),
 * brings the subsystems up in order and creates the timed queue last.
 * Returns 0; no start step reports a failure.
 */
ARBOR_EXPORT int32_t SysInit(HostCallback callback);

/*
 * Stops the library: destroys the timed queue (pending entries run at once,
 * flushed), then takes the subsystems down in order, ending with the
 * transport. Does not sign out: call SysLogout first. Returns 0.
 */
ARBOR_EXPORT int32_t SysExit(void);

/*
 * Sets the version strings that every later sign-in text carries as
 * "verNum" and "userType". Each is copied into 32 bytes, padded with NULs: a
 * value of 32 characters or more loses its terminator, so keep each to 31.
 * Returns 0.
 */
ARBOR_EXPORT int32_t SysVer(const char* verNum, const char* userType);

/*
 * Subscribes the host (user 0) to event at resource, under AS code asc: the
 * subscription is made on the timed queue's worker. Returns 1 once queued,
 * 0 when refused (null resource or event, asc below 1, library not running)
 * or when the queue could not take it; a refusal logs nothing.
 */
ARBOR_EXPORT int32_t SysSubscribe(int32_t asc, const char* resource,
                                  const char* event, int32_t extra,
                                  const char* text);

/* The counterpart of SysSubscribe, with the same guards and result. */
ARBOR_EXPORT int32_t SysUnsubscribe(int32_t asc, const char* resource,
                                    const char* event, int32_t extra);

ARBOR_END_DECLS

#endif /* ARBOR_SYS_H */
