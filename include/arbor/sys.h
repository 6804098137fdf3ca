/*
 * arbor/sys.h - start and stop of the library, version strings, the host's
 * event subscriptions, sign-in to the service, the LAN side, and the
 * account commands.
 *
 * Audience: hosts. timedq_ alone is an engine internal, marked where it is
 * declared.
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
 *     calls here do not block: what they start (a connection, a sign-in, a
 *     command to the service) reports later through the host callback, with
 *     the codes of host_callback.h.
 *  4. Every call but SysInit and SysExit may be made from any thread,
 *     the host callback included.
 */
#ifndef ARBOR_SYS_H
#define ARBOR_SYS_H

#include <stdint.h>

#include "arbor/export.h"
#include "arbor/handles.h"
#include "arbor/host_callback.h"

ARBOR_BEGIN_DECLS

/*
 * The library's one timed queue: null before SysInit has finished and again
 * from SysExit on. Written only by SysInit and SysExit.
 */
/* Engine internal: hosts do not call. */
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

/* --------------------------------------------------------------- Sign-in */

/*
 * Connects to the service at host:port and signs in as id. password (its
 * digest is sent, never the password) may be empty; params is a dictionary
 * text of further keys for the sign-in text; options a dictionary text for
 * the connection, whose key "Protocol" with the value "TCP" asks the
 * transport for TCP. Null strings count as empty. The first call initialises
 * the WAN side of the transport. Returns what the transport's connect
 * returned, or -3, with a level-0 log line and nothing started, when the
 * WAN cannot be initialised, the host is empty or of 256 characters or
 * more, the port is outside 0..65534, params is not dictionary text, or the
 * sign-in text would not fit its 255 bytes. The outcome comes later, through
 * the host callback: 6 connected, 0 signed in, a refusal code, 3 connect
 * failed or link down, 14 the attempt's time-out (180 s, sent for every
 * attempt no newer one has replaced, even an answered one).
 */
ARBOR_EXPORT int32_t SysLogin(const char* id, const char* password,
                              const char* params, const char* host,
                              int32_t port, const char* options);

/*
 * Signs out: tells the service (and, when LOGNAME is set, signs off that
 * login name), shuts the WAN side of the transport down, and ends every
 * session over the WAN. Safe when not signed in. Returns 0.
 */
ARBOR_EXPORT int32_t SysLogout(void);

/* -------------------------------------------------------------- LAN side */

/*
 * Switches LAN networking on (on non-zero) or off. a, b and c go to the
 * transport unseen. Returns the new LAN state: what the transport's start
 * returned when switching on (negative: failed, logged "InitLAN error: %d",
 * and the LAN stays off), -1 when switching off.
 */
ARBOR_EXPORT int32_t LanNetworking(int32_t on, intptr_t a, intptr_t b,
                                   intptr_t c);

/*
 * Tells the transport how this peer presents itself to other peers: a
 * dictionary text of size bytes, sent in the older encoding, with the value
 * of "Psw" replaced by its digest. Returns the transport's result, or -1
 * (nothing sent) for a text that does not parse or does not fit 2048 bytes
 * in the older encoding.
 */
ARBOR_EXPORT int32_t LanPresent(const char* text, uint32_t size);

/*
 * Adds a LAN peer by hand (a to d go to the transport unseen), asks the
 * transport to connect to it, and returns its id as a signed 16-bit number.
 */
ARBOR_EXPORT int16_t SysAddLanEP(intptr_t a, intptr_t b, intptr_t c,
                                 intptr_t d);

/* ------------------------------------------------------ Account commands */

/*
 * Commands to the service about the account. Each is sent at once under AS
 * code 999 and returns without waiting; the reply reaches the host callback
 * (codes in host_callback.h). With the WAN down the command is lost, logged
 * "send error". Nothing matches replies to commands: two commands of one
 * kind in flight cannot be told apart.
 */
/* Asks for the client's update (reply code 7). */
ARBOR_EXPORT void DoSysUpdatePc(void);
/* Activates an account (0 or the reply's "errorcod"). The password is sent
 * in clear: the service needs it so. Any null argument sends nothing. */
ARBOR_EXPORT void DoActivationAccounts(const char* devid, const char* password,
                                       const char* email);
/* Applies for account id with password (digest) and the further keys of the
 * dictionary text params, which lose to id (0 or 9). Any null argument sends
 * nothing; params that do not parse send nothing (logged). */
ARBOR_EXPORT void DoApplicationAccounts(const char* id, const char* password,
                                        const char* params);
/* Adds a money card to account id (11 or 12). A null argument counts as
 * empty. */
ARBOR_EXPORT void DoAddMoneyCard(const char* id, const char* card);
/* Changes the password of account id (4 or 5). A null argument counts as
 * empty. */
ARBOR_EXPORT void DoSysUpdatePasswd(const char* id, const char* old_password,
                                    const char* new_password);

ARBOR_END_DECLS

#endif /* ARBOR_SYS_H */
