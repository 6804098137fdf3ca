/*
 * arbor/rsc.h - remote session control: the layer between control messages
 * and the session forest. It turns an arriving control text into one
 * command on the forest's command queue, dials and hangs up sessions for the
 * host, and hands media and in-band text that arrive from a peer, the
 * service or a driver to the tree they belong to.
 *
 * Audience: hosts (RSCDial, ExecDial, RSCHangup and the notices of convention
 * 6). The other functions are engine internals, each marked where it is
 * declared.
 *
 * Nothing here touches a tree: every change happens later, on the command
 * queue's consumer thread, in the order of the pushes. So a command pushed
 * between two frames of one pipe separates them, and a hang-up that follows
 * a dial on one thread is never served before it.
 *
 * Conventions:
 *  1. rsc_init and rsc_uninit are steps of SysInit and SysExit; a host does
 *     not call them itself. Every other call is safe from any thread once
 *     SysInit has returned; after SysExit the queue refuses every command
 *     and the calls here become no-ops (logged by the queue).
 *  2. rsc_uninit blocks until every command accepted before it has run and
 *     the forest is swept empty; it must not run on the command queue's
 *     consumer thread, a timed-queue handler or a driver operation.
 *  3. Texts are dictionary texts (key=value;...) given with their size; a
 *     text need not end in a NUL inside its size. Nothing a caller passes is
 *     kept: everything is copied before the call returns.
 *  4. A sid is at most 63 characters; its slot holds 64 bytes.
 *  5. Bad input from a peer, the service or a driver is dropped (silently,
 *     or with a log line where that helps whoever runs the device); it is
 *     never fatal.
 *  6. A session served here for this host (a dial without id) reports to
 *     the local table under the dial's AS code: a handler the host enters
 *     with SysRegistASLan(asc, ...) hears "SessionStart", and at the end
 *     "SessionDelete" or "RUN_FAIL" with the reason in coz, on the consumer
 *     or the timed queue's worker, never under a lock of the forest. It may
 *     dial and hang up from there, and should return 0 so that the
 *     library's own handlers see the text too.
 */
#ifndef ARBOR_RSC_H
#define ARBOR_RSC_H

#include <stdint.h>

#include "arbor/cdef.h"
#include "arbor/export.h"
#include "arbor/forest.h"
#include "arbor/support.h"
#include "arbor/transport.h"

ARBOR_BEGIN_DECLS

/* Size of one slot of the sid array that RSCDial fills. */
#define RSC_SID_SLOT 64

/* ------------------------------------------------------------ Lifecycle */

/*
 * Starts the forest and its command queue's consumer thread, then enters
 * the built-in services: the session service on the WAN under type 100,
 * the LAN neighbour handler that sees every LAN message, and the resource
 * event service under local code 555. Returns 0; a failed start is logged,
 * and the queue then refuses every command.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t rsc_init(void);

/*
 * Stops the command queue (every command accepted before runs to its end)
 * and sweeps the forest empty, telling the owner of each session still
 * open. SysExit calls it after the service tables are emptied.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT void rsc_uninit(void);

/*
 * Ends, on the consumer thread and with reason "Cleanup_Drv/Wan", every
 * branch that runs over the WAN. For the loss of the WAN link and for
 * SysLogout. Returns what cmdq_push returned: null when the queue refused.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT CommandHandler rsc_wan_clean(void);

/* --------------------------------------------------------- Control texts */

/*
 * The door of every control text that is not a LAN link report: decodes
 * data (size bytes) and sorts it by MainCmd. A word (MainCmd below 1) goes
 * to rsc_main; 17 with an event under AS code 100 is sent on to the service
 * unchanged; 15 from the WAN subscribes the service to a resource event;
 * any other number with a ftN key is a device command (RSCDoEvent). cls is
 * the network class the text came by (get_wan_cdef or get_lan_cdef), from
 * the sender's qvid (0: the WAN or this peer), asc the AS code it travelled
 * under. A text that does not decode is logged "decode error". Returns 0.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t rsc_callback(cdef* cls, uint32_t from, int32_t asc,
                                  const char* data, uint32_t size);

/*
 * The named session commands: QV_RES_REQ, SessionCreate, SessionStart,
 * QVVPipeReady, SessionDelete, RUN_FAIL and Sigoff. name is the MainCmd
 * word, dict the decoded text, which may be changed (LAN hops with a
 * descriptor are renamed "net.<fd>"). A text without sidN, or any other
 * word, is dropped without a reply. Each accepted command becomes one push
 * on the command queue. Returns 0.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t rsc_main(cdef* cls, uint32_t from, int32_t asc,
                              const char* name, Dict dict);

/*
 * Hands text (size bytes) to the driver whose device full name is ftN, on
 * the consumer thread, with key ftN set to that name and, when fd is not 0,
 * key FD set to fd. A text that does not decode or does not fit in 2048
 * bytes once the keys are set is dropped. Returns 0.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t RSCDoEvent(const char* ftN, int32_t fd, const char* data,
                                uint32_t size);

/*
 * Whether peer from, under AS code asc, may ask this peer to feed a chain.
 * Every peer may: this is the place for a rule, and there is none. Returns 1.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t is_read_access_allow(uint32_t from, int32_t asc);

/* ------------------------------------------------------------------ Dial */

/*
 * Dials one session for each text of the null-ended list text, ... . Each
 * gets a fresh sid, written to sids + RSC_SID_SLOT * k for the k-th text,
 * and goes to ExecDial under asc. When a dial fails, the first byte of its
 * slot is cleared and the texts after it are not tried; the slots before it
 * keep their sids. A first text of null writes nothing.
 *
 * A dial text names a chain with ftN0, ftN1, ... (source first; "net." marks
 * the network hop), optional opN<i> and FD<i>, and with id the qvid of the
 * peer that is to serve it. Without id (or id=0) the chain is served here,
 * with To read as the qvid of the peer the session is for.
 */
ARBOR_EXPORT void RSCDial(int32_t asc, char* sids, const char* text, ...);

/*
 * Dials one session under sid (a zero-terminated text of at most 63
 * characters). The keys sidN, AsCode, MainCmd and user of text are replaced
 * by the request's own. With a non-zero id the request is sent to that
 * peer as QV_RES_REQ under asc, and the result is sendasc's. Without, it is
 * served here: 0 when queued (or set aside because a hop names no driver),
 * -1 when text has no hop or its network hop is first or last. -1 also for
 * a null sid or text and a text that does not decode.
 */
ARBOR_EXPORT int32_t ExecDial(int32_t asc, const char* sid, const char* text);

/*
 * Hangs up the session sid: its branch is taken down on the consumer
 * thread and its peer is told with an empty reason. With a null sid nothing
 * is done and x comes back; otherwise the result is non-zero when the
 * hang-up was queued and 0 when the queue refused it.
 */
ARBOR_EXPORT intptr_t RSCHangup(intptr_t x, const char* sid);

/* --------------------------------------------------------- Incoming data */

/*
 * A data frame from LAN peer qvid on pipe (1024 or more). type QVTP_RTP
 * (transport.h)
 * carries media, which goes to the tree unchanged; type QVTP_INBAND carries
 * a dictionary text, which is encoded again (at most 2028 bytes) with its
 * QVID key set to qvid unless it names a positive QVID of its own. Other
 * types are logged and dropped, and so is a frame without bytes (null data
 * or size 0), on both doors.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT void rsc_lan_data_incoming(uint32_t qvid, uint32_t pipe,
                                        uint32_t type, const void* data,
                                        uint32_t size);

/*
 * A data frame from the service on the WAN data pipe pipe. Media as above;
 * an in-band text is passed on as it came, up to its first NUL, and dropped
 * when size + 64 reaches 2028. Other types are logged ("VPipe input
 * unhandled") and dropped.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT void rsc_wan_data_incoming(uint32_t pipe, uint32_t type,
                                        const void* data, uint32_t size);

/*
 * Media (size bytes) and in-band text (zero-terminated) of a driver, for the
 * tree opened on (cls, fd) with uid 0, with the frame's flags word flag.
 * A frame that cannot be copied is dropped.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT void rsc_post_data(const cdef* cls, int32_t fd, const void* data,
                                uint32_t size, uint32_t flag);
/* Engine internal: hosts do not call. */
ARBOR_EXPORT void rsc_post_event(const cdef* cls, int32_t fd, const char* text,
                                 uint32_t flag);

ARBOR_END_DECLS

#endif /* ARBOR_RSC_H */
