/*
 * arbor/timedq.h - the timed queue, a worker thread that runs calls at a
 * given time, and response lists, calls deferred within one thread.
 *
 * Audience: engine internals: exported because the engine's design exports
 * them; hosts and drivers do not call them.
 *
 * Conventions:
 *  1. Strings handed to a post are copied into the entry before the call
 *     returns; the poster may reuse its buffers at once. A handler's argv and
 *     its strings belong to the queue and are valid only during the call.
 *     The word arg is never looked at: whatever it points to stays the
 *     poster's business, and the handler is where it is usually freed.
 *  2. Every entry the queue accepts runs exactly once, on the queue's worker
 *     thread: at its time (elapsed 0 or negative), or earlier when flushed
 *     by tq_destroy or cancelled by tq_cancel_if (elapsed positive).
 *     Handlers of one queue run one after another, never at the same time,
 *     and never with a lock of the queue held, so they may post.
 *  3. tq_post and tq_post_v never block beyond a short lock. tq_send,
 *     tq_cancel_if and tq_destroy block until the worker has done their
 *     work: never call them from a handler of the same queue, which would
 *     wait for itself.
 *  4. Any thread may post to a live queue. A post to a queue that tq_destroy
 *     is closing is dropped: its handler never runs, yet the result is
 *     non-null. Results of posts are truth values only; the entry may be run
 *     and freed before the call returns.
 *  5. Times come from gettimeofday and are kept in signed 32-bit seconds:
 *     the queue, like the rest of the engine, does not outlive 2038.
 *  6. A ResponseList belongs to one thread and has no lock.
 */
#ifndef ARBOR_TIMEDQ_H
#define ARBOR_TIMEDQ_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "arbor/export.h"
#include "arbor/handles.h"

ARBOR_BEGIN_DECLS

/* ---------------------------------------------------------- Timed queue */

/* TimedQueue (arbor/handles.h): opaque handle of one queue and its worker. */

/* Opaque: one posted call, its strings included, in one heap block. */
typedef struct TqExec TqExec;

/*
 * A posted call; runs on the worker. elapsed is the entry's due time minus
 * the time of running, in milliseconds: 0 or negative, the entry is that
 * late; positive, it is flushed or cancelled before its time, and a handler
 * that must not act then returns at once (after freeing what arg owns).
 * argv holds argc strings and a null word behind them.
 */
typedef void (*TqHandler)(int32_t elapsed, uintptr_t arg, int32_t argc,
                          char** argv);

/*
 * The predicate of tq_cancel_if: fn, arg, argc and argv are those of one
 * pending entry; non-zero cancels it. Runs on the worker with the queue's
 * lock held: it must not post, and must not block.
 */
typedef int (*TqFilter)(uintptr_t filter_arg, TqHandler fn, uintptr_t arg,
                        int32_t argc, char** argv);

/*
 * Creates a queue and starts its worker. Null when memory runs out or the
 * thread cannot be started; that is logged at level 0 and nothing is left
 * behind.
 */
ARBOR_EXPORT TimedQueue* tq_create(void);

/*
 * Closes q, runs at once what is due, flushes every later entry in time
 * order (elapsed positive), waits for the worker to end and frees q. Blocks.
 * Accepts null. Cannot fail.
 */
ARBOR_EXPORT void tq_destroy(TimedQueue* q);

/*
 * Posts fn(arg, argv[0..argc)) to run delay milliseconds from now; the
 * strings are copied. Non-null once queued (see convention 4). Null, with
 * nothing queued, when fn is null, argc is negative, argv or one of its
 * first argc strings is null while argc > 0, or memory runs out. q must be
 * a live queue (assertion "q").
 */
ARBOR_EXPORT void* tq_post(TimedQueue* q, uint32_t delay, TqHandler fn,
                           uintptr_t arg, int32_t argc,
                           const char* const* argv);

/*
 * tq_post with the strings as arguments, ended by (const char*)0: a null
 * string ends the list early, which is how trailing ones are left out.
 * Same result and assertion.
 */
ARBOR_EXPORT void* tq_post_v(TimedQueue* q, uint32_t delay, TqHandler fn,
                             uintptr_t arg, ...);

/*
 * Builds an unposted entry from the strings of va up to the first null,
 * with fn and arg. Call it with index 0 and size 0; va is consumed. Null
 * when memory runs out. The block is one allocation: outside the library
 * the only thing to do with it is free().
 */
ARBOR_EXPORT TqExec* newexc_v(TqHandler fn, uintptr_t arg, int32_t index,
                              size_t size, va_list va);

/*
 * tq_post_v that returns only after fn has run on the worker (also when it
 * ran flushed, with elapsed positive). Non-null once fn has run, as a truth
 * value only. Null when fn is null, when memory runs out, or when q is
 * closing: then fn has not run and never will. Blocks; see convention 3.
 * Assertion "q".
 */
ARBOR_EXPORT void* tq_send(TimedQueue* q, uint32_t delay, TqHandler fn,
                           uintptr_t arg, ...);

/*
 * Removes every pending entry for which filter gives non-zero and runs them
 * at once, in time order, with elapsed positive. Entries already due and
 * being run are out of its reach. Returns when done: non-null then, null
 * when filter is null, memory runs out or q is closing (nothing cancelled;
 * a closing queue flushes everything anyway). Blocks; see convention 3.
 * Assertion "q".
 */
ARBOR_EXPORT void* tq_cancel_if(TimedQueue* q, TqFilter filter,
                                uintptr_t filter_arg);

/* ------------------------------------------------------- Response lists */

/* A deferred call; payload is its three words, valid during the call. */
typedef void (*ResponseFn)(uintptr_t* payload);

typedef struct ResponseEntry {
  ResponseFn fn;
  uintptr_t payload[3];
} ResponseEntry;

/*
 * A plain value, usually a local variable: all-zero is the empty list and
 * nothing else sets it up. The array's capacity is count rounded up to a
 * multiple of 8; an empty list has no array.
 */
typedef struct ResponseList {
  uint32_t count;
  ResponseEntry* entries;
} ResponseList;

/*
 * Appends fn with a copy of the three words at payload (null: three zero
 * words). Returns the new entry's index, which is 0 for the first entry too;
 * 0 with nothing added when fn is null; -1 with the list unchanged when the
 * array cannot grow, and then the caller still owns what payload names.
 * respr must not be null (assertion "respr").
 */
ARBOR_EXPORT int32_t append_response(ResponseList* respr, ResponseFn fn,
                                     const uintptr_t* payload);

/*
 * Runs every entry in the order of appending, including those appended by
 * the calls themselves, then frees the array and leaves the list all-zero.
 * Returns the number run, 0 for an empty list. Cannot fail. respr must not
 * be null (assertion "respr").
 */
ARBOR_EXPORT uint32_t respond(ResponseList* respr);

ARBOR_END_DECLS

#endif /* ARBOR_TIMEDQ_H */
