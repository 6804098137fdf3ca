/*
 * arbor/forest.h - the session forest's public face: the records of a
 * session request, the command queue that serialises every change to the
 * forest, and the commands that take sessions down.
 *
 * Audience: engine internals: exported because the engine's design exports
 * them; hosts and drivers do not call them.
 *
 * Every change to the forest is a command: a handler, one word and an
 * optional payload, pushed from any thread and run, one at a time and in
 * the order of pushing, on the queue's one consumer thread.
 *
 * Conventions:
 *  1. Ownership. cmdq_push copies the payload before it returns; the caller
 *     keeps its buffer and may free it at once, also when the push was
 *     refused. The copy is shallow: a TreeRequest's name and option strings
 *     are heap strings made by the pusher (stringdup) and freed by the
 *     handler. The word arg is never copied or freed: a reason text passed
 *     there must be a static string. A handler borrows its payload for the
 *     call and must not free it.
 *  2. Blocking. cmdq_push blocks only for a short lock, but for the exit
 *     marker (a null handler): that push, and so device_stop, returns only
 *     when the consumer has run every accepted command, swept the forest
 *     empty and ended. Never push it, or call device_stop, from a command
 *     handler: the consumer would wait for itself.
 *  3. Threads. cmdq_push, cached_size_inc, cached_size_dec and is_free_time
 *     may be called from any thread. The Tree_ handlers run on the consumer;
 *     calling one directly from another thread races with it. The lifecycle
 *     calls belong to start and stop, in the order device_initialize,
 *     device_start ... device_stop, device_exit, on one thread.
 *  4. Texts: a sid is at most 63 characters and its slot 64 bytes; a
 *     payload that holds a sid counts its NUL in the size.
 *  5. Failures are results: null from a refused push, nothing otherwise.
 *     Bad input (an unterminated or oversized sid, an unknown sid or uid) is
 *     dropped, never fatal.
 */
#ifndef ARBOR_FOREST_H
#define ARBOR_FOREST_H

#include <stddef.h>
#include <stdint.h>

#include "arbor/cdef.h"
#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/* ------------------------------------------------------------ Records */

/* Slots of a sid and of a peer's display name, their NUL included. */
#define TREE_SID_SIZE 64
#define TREE_PEER_SIZE 96
/* The most hops a request may name. */
#define TREE_MAX_HOPS 63

/*
 * One hop of a chain, four words.
 *  device  the class of the hop; null when no class has that name.
 *  name    the hop's full name, a heap string; "net." at its start makes it
 *          a net hop.
 *  option  the option string for Open, a heap string, or null.
 *  fd      from the key FD<i>; on a net hop the pipe.
 */
typedef struct MNodeInfo {
  cdef* device;
  char* name;
  char* option;
  int32_t fd;
} MNodeInfo;

/*
 * A request for a new branch, the payload of Tree_new_request and
 * Tree_new_partial. The record counts one MNodeInfo; a request of n hops is
 * sizeof(TreeRequest) + n * sizeof(MNodeInfo) bytes: n hops and one more
 * entry behind them.
 *  uid        the qvid of the peer that owns the session, 0 the service.
 *  ascode     the AS code of the session's messages.
 *  sid        the session id, NUL-terminated.
 *  peer       the peer's display name, NUL-terminated.
 *  exclusive  non-zero: the session gets a tree of its own.
 *  length     the number of hops, at most TREE_MAX_HOPS.
 */
typedef struct TreeRequest {
  uint32_t uid;
  int32_t ascode;
  char sid[TREE_SID_SIZE];
  char peer[TREE_PEER_SIZE];
  int32_t exclusive;
  uint32_t length;
  MNodeInfo nodes[1];
} TreeRequest;

#define ARBOR_FOREST_WORD(n) ((n) * sizeof(void*))
ARBOR_RECORD_ASSERT(sizeof(MNodeInfo) == ARBOR_FOREST_WORD(4),
                    "MNodeInfo size");
ARBOR_RECORD_ASSERT(offsetof(MNodeInfo, device) == 0, "MNodeInfo.device");
ARBOR_RECORD_ASSERT(offsetof(MNodeInfo, name) == ARBOR_FOREST_WORD(1),
                    "MNodeInfo.name");
ARBOR_RECORD_ASSERT(offsetof(MNodeInfo, option) == ARBOR_FOREST_WORD(2),
                    "MNodeInfo.option");
ARBOR_RECORD_ASSERT(offsetof(MNodeInfo, fd) == ARBOR_FOREST_WORD(3),
                    "MNodeInfo.fd");
#undef ARBOR_FOREST_WORD
ARBOR_RECORD_ASSERT(offsetof(TreeRequest, uid) == 0, "TreeRequest.uid");
ARBOR_RECORD_ASSERT(offsetof(TreeRequest, ascode) == 4, "TreeRequest.ascode");
ARBOR_RECORD_ASSERT(offsetof(TreeRequest, sid) == 8, "TreeRequest.sid");
ARBOR_RECORD_ASSERT(offsetof(TreeRequest, peer) == 72, "TreeRequest.peer");
ARBOR_RECORD_ASSERT(offsetof(TreeRequest, exclusive) == 168,
                    "TreeRequest.exclusive");
ARBOR_RECORD_ASSERT(offsetof(TreeRequest, length) == 172,
                    "TreeRequest.length");
ARBOR_RECORD_ASSERT(offsetof(TreeRequest, nodes) == 176, "TreeRequest.nodes");
ARBOR_RECORD_ASSERT(sizeof(TreeRequest) == 176 + sizeof(MNodeInfo),
                    "TreeRequest size");

/* ------------------------------------------------------ Command queue */

/*
 * A command: handler(arg, payload, size), run on the consumer thread.
 * payload is the queue's copy of the pusher's bytes, or null; where it is
 * null, size is a plain number from the pusher. The result, there is none,
 * and a handler cannot fail towards the queue.
 */
typedef void (*CommandHandler)(uintptr_t arg, const void* payload,
                               uint32_t size);

/*
 * Empties the forest and, when the environment variable DEVICE_PATH is
 * set, calls cdef_init with it and returns that result. Otherwise 0. Runs
 * before device_start, while nothing else touches the forest.
 */
ARBOR_EXPORT int32_t device_initialize(void);

/*
 * Opens the command queue and starts its consumer thread. Returns 0. When
 * the thread cannot be started, that is logged at level 0 and the queue
 * stays closed: every later push is refused, and device_stop returns at
 * once. A second call while the queue runs is refused with a level-0 line.
 */
ARBOR_EXPORT int32_t device_start(void);

/*
 * Closes the command queue and returns when every command accepted before
 * has run, the forest has been swept empty and the consumer has ended.
 * Every session still open is ended, its owner told ("Sys_Exit"). A second
 * call logs the refusal and returns at once. Blocks; never from a handler.
 */
ARBOR_EXPORT void device_stop(void);

/* Does nothing but log; the last step of the stop, after device_stop. */
ARBOR_EXPORT void device_exit(void);

/*
 * Queues fn(arg, copy of payload, size) behind every earlier command; null
 * fn is the exit marker (see device_stop). name is the handler's name, used
 * for the log only. When payload and size are both non-zero the size bytes
 * are copied; otherwise the handler gets a null payload and size as given.
 * Returns the handler queued (the marker's for a null fn), or null when the
 * push was refused: the queue is closed (logged "_commandq_push: commandq
 * end."), or memory ran out (logged at level 0). A refused push leaves
 * nothing queued and nothing counted.
 */
ARBOR_EXPORT CommandHandler cmdq_push(const char* name, CommandHandler fn,
                                      uintptr_t arg, const void* payload,
                                      uint32_t size);

/*
 * Add size to, or take it from, the count of payload bytes held by queued
 * commands, and return the new count. Diagnostic only; cannot fail.
 */
ARBOR_EXPORT uint32_t cached_size_inc(uint32_t size);
ARBOR_EXPORT uint32_t cached_size_dec(uint32_t size);

/* ---------------------------------------------------------- Teardown */

/*
 * Command: ends the session whose sid (a text with its NUL, size bytes, at
 * most 63 with the NUL) is the payload, and tells its owner "SessionDelete"
 * with arg as the reason text ("coz"; 0 for none). A sid of size 0, of 64
 * bytes or more, without a NUL inside size, or empty is dropped silently;
 * an unknown sid is logged at level 3.
 */
ARBOR_EXPORT void Tree_destroy_branch(uintptr_t reason, const void* sid,
                                      uint32_t size);

/*
 * Command: ends the sessions whose leaf is a LAN peer node of peer uid (the
 * size argument; payload unused), at most 128 per run, the last of each
 * index first, each owner told with arg as the reason. uid 0 does nothing.
 */
ARBOR_EXPORT void Tree_cleanup_byuid(uintptr_t reason, const void* payload,
                                     uint32_t uid);

/*
 * Command: ends every session that runs through the class arg (a cdef
 * pointer; null does nothing): the owners of trees rooted in the class are
 * told ("Cleanup_Drv/Wan"), sessions whose leaf or its parent is of the
 * class end silently. payload and size are unused.
 */
ARBOR_EXPORT void Tree_cleanup_drv(uintptr_t cls, const void* payload,
                                   uint32_t size);

/*
 * 1 when no session of the forest ends in a network node (each session is
 * then traced at level 3), else 0. Any thread; blocks on the forest's
 * locks, so never call it while a tree's lock is held.
 */
ARBOR_EXPORT int32_t is_free_time(void);

/* ----------------------------------------------------- Session setup */

/*
 * Command: builds the chain of the TreeRequest payload up to its first LAN
 * net hop (a tree open to every peer), hangs a peer node for dx->uid under
 * the pipe node (reusing one that exists), indexes the session and sends
 * "SessionCreate" with the rest of the chain to dx->uid under AS 100. On
 * failure the owner gets "RUN_FAIL" ("Tree request fail"). size must cover
 * the request's hops; a shorter payload, more than TREE_MAX_HOPS hops or an
 * empty sid is refused with a level-0 line, an unterminated or overlong sid
 * dropped silently. Frees the name and option strings of every hop that
 * the payload holds, on every path. arg is unused.
 */
ARBOR_EXPORT void Tree_new_request(uintptr_t arg, const void* payload,
                                   uint32_t size);

/*
 * Command: builds the whole chain of the TreeRequest payload for its owner
 * dx->uid, with a peer node of its own when the chain ends in a net hop,
 * indexes the session and answers "SessionStart" (to the owner, or to the
 * local services for uid 0 and an AS code other than 100). On failure the
 * owner gets "RUN_FAIL" ("Tree create fail"). Input checks and the freeing
 * of strings as Tree_new_request. arg is unused.
 */
ARBOR_EXPORT void Tree_new_partial(uintptr_t arg, const void* payload,
                                   uint32_t size);

/*
 * The first of the n hops that is a net hop (name beginning "net."), or
 * that cannot be used (no class or no name); null when there is none or
 * nodes is null. Any thread; cannot fail.
 */
ARBOR_EXPORT const MNodeInfo* find_netornil(const MNodeInfo* nodes,
                                            uint32_t n);

/* --------------------------------------------------------- Activation */

/*
 * Command: marks the branch of the session whose sid (a text with its NUL,
 * size bytes, below 64) is the payload active from its leaf up; the root's
 * read thread starts when the root becomes active, and the root's driver
 * gets "MainCmd=24;". A sid without its NUL, of size 0 or of 64 bytes or
 * more is dropped; an unknown sid is logged at level 0. arg is unused.
 */
ARBOR_EXPORT void Tree_active_branch(uintptr_t arg, const void* sid,
                                     uint32_t size);

ARBOR_END_DECLS

#endif /* ARBOR_FOREST_H */
