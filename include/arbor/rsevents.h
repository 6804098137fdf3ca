/*
 * arbor/rsevents.h - subscriptions to resource events.
 *
 * Audience: engine internals: exported because the engine's design exports
 * them; hosts and drivers do not call them. Hosts subscribe with SysSubscribe
 * (arbor/sys.h), drivers through their device callback (arbor/cdef.h).
 *
 * Resources have dotted path names ("cam0.video"). A subscriber asks to hear
 * of an event by name, at a path or anywhere, and is not a callback but a
 * pair of numbers (uid, asc) that the sender hook turns into a message when
 * the event is emitted. The engine keeps the subscriptions in a tree of path
 * pieces below a root named "Object", plus a flat list of all event names
 * that also holds the subscribers who gave no path.
 *
 * Conventions:
 *  1. Strings passed in (path, event name, filter argument) are borrowed:
 *     the engine copies what it keeps before the call returns.
 *  2. Subscriptions live as long as the process. Nothing removes a node, a
 *     slot, a subscriber or an event name; RsUnsubscribeEvent removes
 *     nothing either. SysExit leaves them, and a later SysInit finds them.
 *  3. Every read and change of the subscriptions happens between the lock
 *     and unlock hooks given to evt_init; the calls here block only on that
 *     lock. Before evt_init the hooks do nothing, which serves a program
 *     that subscribes from one thread before SysInit.
 *  4. The lock is not re-entrant. A match filter and a sender are called
 *     with it held (during an emission), so they must not subscribe or
 *     emit, nor call anything that does.
 *  5. Any thread may call these functions at any time; evt_init itself is
 *     called by SysInit, before other threads use the subscriptions.
 *  6. A path is cut at each '.'; empty pieces are dropped, so "a..b." names
 *     the same place as "a.b", and "..." names the root itself. A path has
 *     at most EVT_MAX_PIECES pieces (empty ones not counted); a longer one
 *     is refused. Its length is not limited.
 */
#ifndef ARBOR_RSEVENTS_H
#define ARBOR_RSEVENTS_H

#include <stdint.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/* The most pieces a path may have. */
#define EVT_MAX_PIECES 32

/*
 * One event slot: the subscribers of one event name at one place. Opaque to
 * the host; a non-null pointer means the subscription is in place.
 */
typedef struct EventSlot EventSlot;

/*
 * The lock and unlock hooks. Called around every read or change of the
 * subscriptions, on the subscribing or emitting thread. The result is not
 * looked at.
 */
typedef int (*EvtLockFn)(void);

/*
 * A subscriber's filter, called during an emission (with the event lock
 * held) for each subscriber that the event reaches. args_begin is the
 * address of the text the subscriber gave (its `arg`, which may be null) and
 * args_end the address just behind it: a range of one text. body is the
 * emitted text. Returns non-zero to have the event delivered.
 */
typedef int (*EvtMatchFn)(const char* const* args_begin,
                          const char* const* args_end, const char* body);

/*
 * The sender hook: delivers body to subscriber (uid, asc). ctx is the word
 * the emitter gave, passed on unchanged. Called during an emission with the
 * event lock held. A failed delivery is the sender's own business.
 */
typedef void (*EvtSenderFn)(void* ctx, uint32_t uid, int32_t asc,
                            const char* body);

/*
 * Stores the three hooks. A null lock or unlock stands for a function that
 * returns 0 at once, a null sender for one that does nothing. Cannot fail.
 */
ARBOR_EXPORT void evt_init(EvtLockFn lock, EvtLockFn unlock,
                           EvtSenderFn sender);

/*
 * Subscribes (uid, asc) to evname at path. A null or empty path subscribes
 * in the global list: the event is then heard wherever it is emitted. A null
 * match means match_any; arg, which may be null, is copied and given to the
 * filter. A subscriber with the same uid, asc and match already at that slot
 * makes the call a no-op: its arg stays as it was.
 *
 * Returns the slot of the subscription, valid until the next subscription
 * (only as a token: the host cannot look inside). Returns null, with nothing
 * subscribed, for a null evname, a path of more than EVT_MAX_PIECES pieces,
 * or lack of memory while copying the path or making the nodes or the
 * slot; nodes made before memory ran out stay, and a later call on the same
 * path reuses them. When only the subscriber itself cannot be stored
 * (its arg cannot be copied, its array cannot grow), the slot is returned
 * all the same and the subscriber is missing; a level-0 line says so.
 */
ARBOR_EXPORT EventSlot* RsSubscribeEvent(uint32_t uid, int32_t asc,
                                         const char* path, const char* evname,
                                         EvtMatchFn match, const char* arg);

/*
 * Returns 0 and removes nothing: subscriptions live as long as the process
 * (convention 2). The arguments are those of RsSubscribeEvent; evname may
 * be null.
 */
ARBOR_EXPORT int32_t RsUnsubscribeEvent(uint32_t uid, int32_t asc,
                                        const char* path, const char* evname);

/* The default filter: returns 1 whatever its arguments. */
ARBOR_EXPORT int match_any(const char* const* args_begin,
                           const char* const* args_end, const char* body);

/*
 * Timed-queue handler posted by SysSubscribe. argv holds the uid and the AS
 * code in decimal, the path and the event name (further entries are not
 * read). With argc below 4, or a null among those four, it does nothing.
 * Otherwise it calls RsSubscribeEvent(uid, asc, path, event, null, null).
 */
ARBOR_EXPORT void event_subscribe(int32_t elapsed, uintptr_t arg,
                                  int32_t argc, char** argv);

/*
 * Timed-queue handler posted by SysUnsubscribe: argv as for
 * event_subscribe, the event name being optional (argc 3). With argc below
 * 3 it does nothing; otherwise it calls RsUnsubscribeEvent, which removes
 * nothing.
 */
ARBOR_EXPORT void event_unsubscribe(int32_t elapsed, uintptr_t arg,
                                    int32_t argc, char** argv);

/* ------------------------------------------------------------- Emission */

/*
 * The words that evt_deliver reads through its ctx: given as ctx to
 * RsEmitEvent, they pick the one subscriber (uid, asc) that receives the
 * body, while every matching subscriber is still counted.
 */
typedef struct EvtDeliverFilter {
  uint32_t uid;
  int32_t asc;
} EvtDeliverFilter;

/*
 * Emits event evname at path with text body: delivers body to every
 * subscriber of evname (and of "eventAny") in the subtree below the deepest
 * node that exists on path, then to the subscribers of evname in the global
 * list. A path that matches no node starts at the root; an empty path, or
 * dots only, reaches the global list alone. A node whose name begins with
 * '$' hears events itself but is not walked below when the walk reaches it
 * from above. Within the tree the order is depth first, parent before
 * children, at each node evname's subscribers before "eventAny"'s, and in a
 * slot the order of subscription.
 *
 * Each subscriber's match filter is asked first; sender (null: the one
 * given to evt_init) is then called with ctx unchanged, under the event lock
 * (convention 4). Returns the number of sender calls, whatever the senders
 * did with them. Returns 0 with nothing delivered and nothing locked for a
 * null path, evname or body, a path of 256 characters or more, or a path of
 * more than EVT_MAX_PIECES pieces; all but a null path or evname log a
 * level-0 line. Blocks on the event lock; allocates nothing.
 */
ARBOR_EXPORT int32_t RsEmitEvent(const char* path, const char* evname,
                                 const char* body, EvtSenderFn sender,
                                 void* ctx);

/*
 * Timed-queue handler that emits on the worker thread: with argc 3 or more
 * (and none of the three null) it calls RsEmitEvent(argv[0], argv[1],
 * argv[2], null, null), also when flushed; otherwise it does nothing.
 */
ARBOR_EXPORT void event_emit(int32_t elapsed, uintptr_t arg, int32_t argc,
                             char** argv);

/*
 * The default sender, installed by SysInit. ctx is null or points to an
 * EvtDeliverFilter: then only the subscriber it names is served. uid 0
 * hands body, its final NUL counted, to the local service table's handlers
 * of asc (evt_local_asc); any other uid sends body, without the NUL, to that
 * LAN peer (sendasc with flags 0). A failed send is logged by sendasc and
 * not reported. A null body is refused with a level-0 line.
 */
ARBOR_EXPORT void evt_deliver(void* ctx, uint32_t uid, int32_t asc,
                              const char* body);

ARBOR_END_DECLS

#endif /* ARBOR_RSEVENTS_H */
