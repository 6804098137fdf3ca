/*
 * arbor/host_callback.h - the one callback through which the host hears how
 * the service link is doing and what the service answered.
 *
 * Audience: hosts.
 *
 * Conventions:
 *  1. The callback is called from two threads: the timed queue's worker (W)
 *     and the transport thread that is inside the WAN callback (T). It may be
 *     entered from both at once, so it must be reentrant or lock for itself.
 *  2. It must return quickly: on W it holds up every timed job, on T the
 *     link. It may send (the sendasc family), issue account commands and post
 *     to the timed queue. It must not call SysExit.
 *  3. text is valid only during the call; a host that needs it longer copies
 *     it. length counts the bytes of text without a terminator. Text given on
 *     W (codes 0, 3 and 14) is NUL-terminated; text given on T is a slice of
 *     the received frame and need not be.
 *  4. The result is ignored.
 */
#ifndef ARBOR_HOST_CALLBACK_H
#define ARBOR_HOST_CALLBACK_H

#include <stdint.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

typedef void (*HostCallback)(int32_t code, const char* text, int32_t length);

/*
 * The codes. Every code the library passes is listed here; "reply" is the
 * dictionary text the service sent, without its two-byte AS code.
 *
 *  code  text            thread  when
 *  0     reply (copied)  W       sign-in accepted, for the current attempt
 *  0     reply           T       account reply, MainCmd 30 or 31, Flag set
 *  1,2,8,9,10  reply     T       sign-in refused with this very "errorcod"
 *  3     sign-in text    W       connection attempt failed (status 6 or 8)
 *  3     null, 0         W       link down (status 7)
 *  4     reply           T       account reply, MainCmd 25, Flag set
 *  5     reply           T       account reply, MainCmd 25, Flag zero/absent
 *  6     null, 0         T       link connected (status 9)
 *  7     reply           T       account reply, MainCmd 26
 *  9     reply           T       account reply, MainCmd 30, Flag zero/absent
 *  11    reply           T       account reply, MainCmd 28, Flag set
 *  12    reply           T       account reply, MainCmd 28, Flag zero/absent
 *  14    sign-in text    W       180 s after a sign-in attempt with no newer one
 *  any   reply           T       account reply, MainCmd 31, Flag zero/absent:
 *                                the reply's "errorcod" itself is the code
 */
enum {
  ARBOR_HOST_OK = 0,
  ARBOR_HOST_LINK_FAILED = 3,
  ARBOR_HOST_LINK_UP = 6,
  ARBOR_HOST_SIGNIN_TIMEOUT = 14
};

ARBOR_END_DECLS

#endif /* ARBOR_HOST_CALLBACK_H */
