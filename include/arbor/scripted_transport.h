/*
 * arbor/scripted_transport.h - control of the scripted transport, the transport
 * that tests drive by hand.
 *
 * Audience: tests.
 *
 * libarbor-transport-scripted.so defines every function of
 * arbor/transport.h. It sends nothing anywhere: it records each call with its
 * arguments, answers with a result the test chose (or a default), keeps the
 * callbacks that InitWAN and InitLAN registered, and lets the test call them
 * as if frames and statuses had arrived. This header is how a test does that.
 *
 * Conventions:
 *  1. Threads. Every function here, and every transport function, may be
 *     called from any thread at any time; one mutex guards all state. The
 *     injection functions (scripted_wan_*, scripted_lan_*) call the
 *     registered callback on the calling thread, which so plays the
 *     transport's thread, and they hold no lock during the callback: it may
 *     call back into the transport (NetWrite, LANNetWrite, ...) freely.
 *  2. Blocking. scripted_wait_calls blocks up to its time limit; the
 *     injection functions block for as long as the callback runs. Nothing
 *     else blocks beyond the short internal lock.
 *  3. Ownership. Recorded data (payload copies, texts, host names) belongs to
 *     the transport and stays valid and unchanged until scripted_reset, even
 *     while more calls are recorded. A test that needs data past a reset
 *     copies it out with scripted_call_copy_data. Data given to the injection
 *     functions is borrowed for the call only.
 *  4. Indices count from 0, in the order the calls took the transport's lock,
 *     which is the order in which they happened as far as any caller can
 *     observe. "The third NetWrite" is index 2 with SCRIPTED_NET_WRITE.
 *  5. Failures are results: -1 (or 0 for the yes/no functions) with nothing
 *     changed. Bad arguments (an unknown function code, a null out pointer)
 *     are refused, never fatal.
 *  6. Recording costs memory: every call keeps its record and a copy of its
 *     payload until scripted_reset. A long-running test that writes many
 *     frames should reset between phases.
 */
#ifndef ARBOR_SCRIPTED_TRANSPORT_H
#define ARBOR_SCRIPTED_TRANSPORT_H

#include <stddef.h>
#include <stdint.h>

#include "arbor/export.h"
#include "arbor/transport.h"

ARBOR_BEGIN_DECLS

/* The transport functions, as recorded. SCRIPTED_ANY stands for all of them
 * where a function code filters. */
typedef enum scripted_fn {
  SCRIPTED_ANY = 0,
  SCRIPTED_NET_OPEN = 1,
  SCRIPTED_NET_CLOSE = 2,
  SCRIPTED_INIT_WAN = 3,
  SCRIPTED_UNINIT_WAN = 4,
  SCRIPTED_CON_REMOTE_HOST_INFO = 5,
  SCRIPTED_NET_WRITE = 6,
  SCRIPTED_INIT_LAN = 7,
  SCRIPTED_UNINIT_LAN = 8,
  SCRIPTED_LAN_NET_WRITE = 9,
  SCRIPTED_LAN_REFLASH = 10,
  SCRIPTED_ADD_LANEP = 11,
  SCRIPTED_LAN_CON_REMOTE_HOST_INFO = 12,
  SCRIPTED_FN_COUNT = 13
} scripted_fn;

/*
 * One recorded call. Fields that do not apply to the call's function are 0
 * or null. Pointers are owned by the transport (convention 3).
 */
typedef struct scripted_call {
  scripted_fn fn;
  size_t order;   /* index among all calls since the last reset */
  int32_t result; /* what the function returned */

  /* NetWrite, LANNetWrite: a copy of the header; has_header is 0 when the
   * caller passed null (the call was then refused with -1). */
  int has_header;
  PacketHeader header;

  /* LANNetWrite, LANConRemoteHostInfo: the peer id. */
  uint16_t peer;

  /* InitLAN, UnInitLAN: a, b, c in words[0..2]. AddLANEP: a, b, c, d. */
  intptr_t words[4];

  /* InitWAN: the callback given. InitLAN, UnInitLAN: the callback given. */
  WanCallback wan_callback;
  LanCallback lan_callback;

  /*
   * NetWrite, LANNetWrite: a copy of the size bytes of data. LANReFlash: a
   * copy of the text's size bytes. Always followed by one NUL byte that size
   * does not count, so text can be read as a C string. Non-null for these
   * three functions unless the caller passed null data with a non-zero size
   * (refused with -1).
   */
  const unsigned char* data;
  uint32_t size;

  /*
   * Control text, decoded: for a NetWrite of type QVTP_CONTROL with at least
   * two bytes, asc is the AS code from the first two bytes (low byte first)
   * and text the rest; for a LANNetWrite of type QVTP_CONTROL, asc is
   * header.nPipe and text the whole payload; for LANReFlash, text is the
   * payload and asc -1. Otherwise asc is -1 and text null. text points into
   * data, so it is NUL-terminated too.
   */
  int32_t asc;
  const char* text;
  uint32_t text_size;

  /* ConRemoteHostInfo: the host text (cut at 255 bytes when the caller's was
   * not terminated), port and protocol, and 1 when all 512 reserved bytes
   * were zero. host is null when the caller passed no record (refused with
   * -1). */
  const char* host;
  uint16_t port;
  uint16_t protocol;
  int reserved_zero;
} scripted_call;

/* --------------------------------------------------------------- Reading */

/* The number of calls of fn recorded since the last reset (all calls for
 * SCRIPTED_ANY). 0 for an unknown code. */
ARBOR_EXPORT size_t scripted_call_count(scripted_fn fn);

/*
 * Copies the index-th call of fn (of any function for SCRIPTED_ANY) into
 * *out. Returns 0, or -1 with *out unchanged when there is no such call, fn is
 * unknown or out is null.
 */
ARBOR_EXPORT int32_t scripted_call_get(scripted_fn fn, size_t index,
                                       scripted_call* out);

/*
 * Copies at most capacity bytes of the payload of the index-th call of fn
 * into buffer, which then no longer depends on the transport. Returns the
 * payload's full size (more than capacity when it was cut; a null buffer
 * with capacity 0 asks for the size alone), or -1 with nothing written when
 * there is no such call or it has no payload (every function but NetWrite,
 * LANNetWrite and LANReFlash).
 */
ARBOR_EXPORT int32_t scripted_call_copy_data(scripted_fn fn, size_t index,
                                             void* buffer, size_t capacity);

/*
 * Waits until at least count calls of fn have been recorded, or timeout_ms
 * milliseconds have passed. Returns 1 when the count was reached, 0 at the
 * time limit or for an unknown code. Blocks.
 */
ARBOR_EXPORT int scripted_wait_calls(scripted_fn fn, size_t count,
                                     uint32_t timeout_ms);

/* The function's name as in arbor/transport.h ("NetWrite"), "any" for
 * SCRIPTED_ANY, "?" for an unknown code. A static string. */
ARBOR_EXPORT const char* scripted_fn_name(scripted_fn fn);

/* ---------------------------------------------------------------- Results */

/* Stands for "the function's default result" in a scripted run. */
#define SCRIPTED_DEFAULT INT32_MIN
/* As times: the run never runs out. */
#define SCRIPTED_ALWAYS (-1)

/*
 * Defaults, when no script applies: NetWrite and LANNetWrite return the size
 * they were given; AddLANEP returns its ordinal among the AddLANEP calls since
 * the last reset (1 for the first, whether or not earlier ones were
 * scripted); every other function returns 0. A call refused for a null
 * record or null data returns -1 and consumes no script.
 *
 * InitWAN and InitLAN register their callback only when their result is not
 * negative; a failed one leaves the previous registration as it was.
 * UnInitWAN and UnInitLAN clear their callback whatever their arguments and
 * result, and NetClose clears both.
 */

/*
 * Appends a run to fn's script: the next `times` calls of fn, after the runs
 * already queued, return result (SCRIPTED_DEFAULT for the default). times
 * SCRIPTED_ALWAYS makes a run that never ends, so runs appended after it are
 * never reached. Once the script is used up, calls get the default again.
 * Returns 0, or -1 with nothing changed for SCRIPTED_ANY, an unknown code or
 * times 0 or below other than SCRIPTED_ALWAYS.
 */
ARBOR_EXPORT int32_t scripted_push_result(scripted_fn fn, int32_t result,
                                          int32_t times);

/* Replaces fn's script by one run: every call returns result. Returns 0, or
 * -1 with nothing changed for SCRIPTED_ANY or an unknown code. */
ARBOR_EXPORT int32_t scripted_set_result(scripted_fn fn, int32_t result);

/*
 * Appends a run to the script of LANNetWrite calls to one peer, same rules as
 * scripted_push_result. A peer's script is read before the LANNetWrite
 * script; a call that it answers consumes nothing of the latter. Returns 0 or
 * -1 as scripted_push_result.
 */
ARBOR_EXPORT int32_t scripted_push_peer_result(uint16_t peer, int32_t result,
                                               int32_t times);

/* Drops fn's script; SCRIPTED_ANY drops all scripts, the peers' included.
 * Unknown codes are ignored. Cannot fail otherwise. */
ARBOR_EXPORT void scripted_clear_results(scripted_fn fn);

/* ------------------------------------------------------------- Injection */

/*
 * Each of these calls the registered callback on the calling thread and
 * returns 0 once it has returned, or -1 without calling anything when no
 * callback is registered (before InitWAN / InitLAN, after UnInit..., after a
 * reset). A callback that UnInitWAN or UnInitLAN clears while an injection is
 * running still finishes that call, as with a real transport.
 */

/* WAN status: callback(0, status, 0, NULL). */
ARBOR_EXPORT int32_t scripted_wan_status(uint32_t status);

/*
 * WAN control frame: callback(0, QVTP_CONTROL, n, frame), where frame is asc
 * in two bytes, low byte first, then the text, with its terminating NUL when
 * with_nul is non-zero; n counts all of it. A null text counts as "". -1 as
 * well when the frame would not fit in 65535 bytes.
 */
ARBOR_EXPORT int32_t scripted_wan_control(uint16_t asc, const char* text,
                                          int with_nul);

/* Raw WAN frame: callback(pipe, type, size, data). */
ARBOR_EXPORT int32_t scripted_wan_frame(uint32_t pipe, uint32_t type,
                                        const void* data, uint32_t size);

/* LAN status from a peer: callback(from, 0, status, 0, NULL). */
ARBOR_EXPORT int32_t scripted_lan_status(uint32_t from, uint32_t status);

/*
 * LAN control text from a peer: callback(from, asc, QVTP_CONTROL, n, text),
 * n being strlen(text), plus one when with_nul is non-zero. A null text
 * counts as "".
 */
ARBOR_EXPORT int32_t scripted_lan_control(uint32_t from, uint32_t asc,
                                          const char* text, int with_nul);

/* Raw LAN frame: callback(from, pipe, type, size, data). */
ARBOR_EXPORT int32_t scripted_lan_frame(uint32_t from, uint32_t pipe,
                                        uint32_t type, const void* data,
                                        uint32_t size);

/* 1 when a WAN (LAN) callback is registered, else 0. */
ARBOR_EXPORT int scripted_has_wan_callback(void);
ARBOR_EXPORT int scripted_has_lan_callback(void);

/* ------------------------------------------------------------------ Reset */

/*
 * Forgets every record (invalidating every pointer handed out), every script
 * and both callbacks, and restarts the AddLANEP ordinal. Threads waiting in
 * scripted_wait_calls go on waiting for their count from zero. Cannot fail.
 */
ARBOR_EXPORT void scripted_reset(void);

ARBOR_END_DECLS

#endif /* ARBOR_SCRIPTED_TRANSPORT_H */
