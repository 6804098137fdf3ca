// mque/timedq.cc - the timed queue: one worker thread that runs posted calls
// at their time.
//
// This is how work leaves the transport's and the host's threads when it
// needs no forest command: sign-in steps, branch time-outs, event work. Each
// entry is one heap block holding the call, its due time and copies of its
// strings, so posters forget their buffers at once.
//
// Ordering guarantees that callers build on:
//  - Entries sit in one singly linked list sorted by due time; an entry goes
//    before the first one that is strictly later, so entries of equal time
//    run in the order of posting. An entry due no earlier than the last one
//    goes behind it at once: every session posts its time-out check at the
//    same delay, so with thousands of sessions pending the list is long and
//    such posts are the common case. Any other insertion walks the list
//    from the head, O(n); those are posts due at once, which stop at the
//    first pending entry that is later.
//  - One consumer, the worker. It sleeps on the condition until the head is
//    due or a post signals (no polling), then cuts off every due entry as a
//    batch, releases the lock and runs the batch. All entries of a batch are
//    measured against the one clock reading that found them due.
//  - Handlers run one at a time, on the worker, without the lock: they may
//    post, and they need no locks against each other. A slow handler delays
//    every later one; the delay shows as a more negative elapsed.
//  - Every accepted entry runs exactly once and is freed right after: at its
//    time, or earlier with a positive elapsed when cancelled or flushed.
//  - Stop: tq_destroy posts the exit marker, due at once. Entries due before
//    it run as a normal batch; then the worker sees the marker as the last
//    accepted handler, leaves its loop and flushes the rest in time order.
//    From the marker on, posts are dropped (freed, never run).
#include "arbor/timedq.h"

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "arbor/support.h"
#include "init/assert.h"

// One posted call. The block is laid out as this header, then argc + 1
// string pointers (argv points there; the last is a null word), then the
// strings one after the other with their terminators: the header's 6 words
// and argv's argc + 1 make the argc + 7 words of the block.
struct TqExec {
  TqExec* next;  // later entry, null at the end
  int32_t sec;   // due time on the gettimeofday clock
  int32_t nsec;  // below 1,000,000,000
  TqHandler fn;
  uintptr_t arg;  // the poster's word, never looked at here
  int32_t argc;
  char** argv;
};

static_assert(sizeof(TqExec) % alignof(char*) == 0,
              "argv must follow the header aligned");

struct TimedQueue {
  // The handler of the entry accepted last; the exit marker here means
  // closing. Written under mutex; the worker reads it between batches
  // without the lock, hence atomic (release on store, acquire on load, so
  // that seeing the marker also shows the list as it was when it was set).
  std::atomic<TqHandler> last_fn;
  TqExec* head;  // earliest entry, null when empty; guarded by mutex
  TqExec* tail;  // latest entry, null when empty; guarded by mutex
  pthread_mutex_t mutex;
  pthread_cond_t cond;  // signalled on every accepted post
  pthread_t thread;     // the worker, joinable
  // The marker's entry, made by tq_create so that tq_destroy needs no memory
  // and cannot fail. Null once posted.
  TqExec* exit_entry;
};

namespace {

constexpr int32_t kNsecPerSec = 1000000000;
constexpr int32_t kNsecPerMsec = 1000000;

struct TqTime {
  int32_t sec;
  int32_t nsec;
};

// Only its address counts: as last_fn it closes the queue.
void tq_exit_marker(int32_t, uintptr_t, int32_t, char**) {}

TqTime tq_now() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return {static_cast<int32_t>(tv.tv_sec),
          static_cast<int32_t>(tv.tv_usec) * 1000};
}

bool tq_later(const TqExec* e, TqTime t) {
  return e->sec > t.sec || (e->sec == t.sec && e->nsec > t.nsec);
}

// The "now" of a flush or a cancellation: one millisecond before the first
// entry, so that it gets elapsed 1 and later ones more. nsec may go
// negative; no carry is needed, since only tq_elapsed reads it.
TqTime tq_pseudo_now(const TqExec* first) {
  return {first->sec, first->nsec - kNsecPerMsec};
}

// Due time minus now in milliseconds, the sub-second part truncated towards
// zero on its own. Computed in 64 bits and clamped: a delay near the top of
// uint32_t would overflow 32-bit arithmetic.
int32_t tq_elapsed(const TqExec* e, TqTime now) {
  int64_t ms = (int64_t{e->sec} - now.sec) * 1000 +
               (int64_t{e->nsec} - now.nsec) / kNsecPerMsec;
  if (ms > std::numeric_limits<int32_t>::max())
    return std::numeric_limits<int32_t>::max();
  if (ms < std::numeric_limits<int32_t>::min())
    return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(ms);
}

char* tq_strings(TqExec* e) {
  return reinterpret_cast<char*>(e->argv + e->argc + 1);
}

// Allocates a zeroed entry with room for argc strings of size bytes in all,
// terminators included. Null (logged) when memory runs out.
TqExec* newexc(TqHandler fn, uintptr_t arg, int32_t argc, size_t size) {
  size_t bytes =
      sizeof(TqExec) + (static_cast<size_t>(argc) + 1) * sizeof(char*) + size;
  void* block = std::calloc(1, bytes);
  if (block == nullptr) {
    ARBOR_LOG(0, "newexc: no memory for %zu bytes\n", bytes);
    return nullptr;
  }
  auto* e = static_cast<TqExec*>(block);
  e->fn = fn;
  e->arg = arg;
  e->argc = argc;
  e->argv = reinterpret_cast<char**>(static_cast<char*>(block) + sizeof *e);
  return e;
}

// Runs and frees each entry of list in order, all against the one now.
void tq_run_list(TqExec* list, TqTime now) {
  while (list != nullptr) {
    TqExec* next = list->next;
    list->fn(tq_elapsed(list, now), list->arg, list->argc, list->argv);
    std::free(list);
    list = next;
  }
}

// Cuts the entries due at now off the front of *list and returns them, in
// order, ended by null; *list keeps the first entry that is not due. Null
// when nothing is due. Cannot fail.
TqExec* tq_cut_due(TqExec** list, TqTime now) {
  if (*list == nullptr || tq_later(*list, now)) return nullptr;
  TqExec* batch = *list;
  TqExec* last = batch;
  while (last->next != nullptr && !tq_later(last->next, now)) last = last->next;
  *list = last->next;
  last->next = nullptr;
  return batch;
}

enum class TqPosted { kRefused, kLinked, kDropped };

// The common part of all posts, with the outcome told apart for tq_send
// (`_tq_post` below gives the truth-value result). Refused: e null or without handler (e is freed).
// Dropped: the queue is closing; e is freed unrun. Linked: e belongs to the
// queue and may be run and freed before this returns.
TqPosted tq_link(TimedQueue* q, uint32_t delay, TqExec* e) {
  ARBOR_ASSERT(q, "q");
  if (e == nullptr) return TqPosted::kRefused;
  if (e->fn == nullptr) {
    std::free(e);
    return TqPosted::kRefused;
  }
  TqTime t = tq_now();  // outside the lock, so the lock stays short
  e->sec = t.sec + static_cast<int32_t>(delay / 1000);
  e->nsec = t.nsec + static_cast<int32_t>(delay % 1000) * kNsecPerMsec;
  if (e->nsec >= kNsecPerSec) {
    e->nsec -= kNsecPerSec;
    e->sec += 1;
  }

  pthread_mutex_lock(&q->mutex);
  if (q->last_fn.load(std::memory_order_relaxed) == tq_exit_marker) {
    pthread_mutex_unlock(&q->mutex);
    std::free(e);
    return TqPosted::kDropped;
  }
  const TqTime due{e->sec, e->nsec};
  TqExec** link = &q->head;
  if (q->tail != nullptr && !tq_later(q->tail, due)) {
    link = &q->tail->next;
  } else {
    while (*link != nullptr && !tq_later(*link, due)) link = &(*link)->next;
  }
  e->next = *link;
  *link = e;
  if (e->next == nullptr) q->tail = e;
  q->last_fn.store(e->fn, std::memory_order_release);
  pthread_cond_signal(&q->cond);  // also when the head didn't change
  pthread_mutex_unlock(&q->mutex);
  return TqPosted::kLinked;
}

// Result of a post: the entry's address as a truth value, null if refused.
void* _tq_post(TimedQueue* q, uint32_t delay, TqExec* e) {
  return tq_link(q, delay, e) == TqPosted::kRefused ? nullptr : e;
}

// One wait of the worker, untimed when until is null. A failed wait is
// logged and the caller's loop waits again; the worker has no other failure.
void tq_wait(TimedQueue* q, const timespec* until) {
  int rc = until != nullptr ? pthread_cond_timedwait(&q->cond, &q->mutex, until)
                            : pthread_cond_wait(&q->cond, &q->mutex);
  if (rc != 0 && rc != ETIMEDOUT) ARBOR_LOG(0, "pthread_cond_wait: %d\n", rc);
}

void* tq_thread_func(void* param) {
  auto* q = static_cast<TimedQueue*>(param);
  pthread_setname_np(pthread_self(), "arbor-timed");
  while (q->last_fn.load(std::memory_order_acquire) != tq_exit_marker) {
    pthread_mutex_lock(&q->mutex);
    TqTime now{};
    for (;;) {
      while (q->head == nullptr) tq_wait(q, nullptr);
      now = tq_now();
      if (!tq_later(q->head, now)) break;
      // The condition uses CLOCK_REALTIME, the clock of gettimeofday. A post
      // in front of the head signals and the loop looks again.
      timespec until{q->head->sec, q->head->nsec};
      tq_wait(q, &until);
    }
    TqExec* batch = tq_cut_due(&q->head, now);
    if (q->head == nullptr) q->tail = nullptr;
    pthread_mutex_unlock(&q->mutex);
    tq_run_list(batch, now);
  }
  // Flush. Nothing can be linked any more; the lock only orders this read
  // after the last post for the memory model. The closing may have been
  // seen before the marker's own batch ran (marker accepted just before the
  // read above, or before the worker's first look): the marker and what
  // stands before it, all due by the marker's time, then still run as a
  // normal batch. Whatever stands behind the marker is flushed, also an
  // entry that came due while the last batch ran, the first with elapsed 1.
  pthread_mutex_lock(&q->mutex);
  TqExec* rest = q->head;
  q->head = nullptr;
  q->tail = nullptr;
  pthread_mutex_unlock(&q->mutex);
  TqExec* marker = rest;
  while (marker != nullptr && marker->fn != tq_exit_marker)
    marker = marker->next;
  if (marker != nullptr) {
    TqExec* due = rest;
    rest = marker->next;
    marker->next = nullptr;
    tq_run_list(due, tq_now());
  }
  if (rest != nullptr) tq_run_list(rest, tq_pseudo_now(rest));
  return nullptr;
}

// tq_send's one-shot gate: the sender waits until the worker has run the
// entry. The worker opens it under the gate's mutex, so the sender cannot
// see it open, return and destroy the gate before the worker is done with it.
struct TqSendGate {
  TqHandler fn = nullptr;
  uintptr_t arg = 0;
  std::mutex mutex;
  std::condition_variable opened_cond;
  bool opened = false;
};

void tq_send_wrapper(int32_t elapsed, uintptr_t record, int32_t argc,
                     char** argv) {
  auto* gate = reinterpret_cast<TqSendGate*>(record);
  gate->fn(elapsed, gate->arg, argc, argv);
  std::lock_guard<std::mutex> hold(gate->mutex);
  gate->opened = true;
  gate->opened_cond.notify_one();
}

// Posts e (whose arg is gate) and waits until the worker has run it. Null,
// with nothing run, when the queue is closing: the entry was dropped and
// the gate would never open, so the sender must not wait on it.
void* tq_send_entry(TimedQueue* q, uint32_t delay, TqExec* e,
                    TqSendGate* gate) {
  TqPosted posted = tq_link(q, delay, e);
  if (posted != TqPosted::kLinked) return nullptr;
  std::unique_lock<std::mutex> hold(gate->mutex);
  gate->opened_cond.wait(hold, [gate] { return gate->opened; });
  return e;  // a truth value only: the entry is gone by now
}

struct TqCancel {
  TqFilter filter;
  uintptr_t filter_arg;
  TimedQueue* q;
};

// Runs on the worker between batches: unlinks the entries that the filter
// selects, keeping list order, and runs them as a flush would.
void tq_cancel_job(int32_t, uintptr_t record, int32_t, char**) {
  auto* c = reinterpret_cast<TqCancel*>(record);
  TimedQueue* q = c->q;
  TqExec* chain = nullptr;
  TqExec** tail = &chain;
  pthread_mutex_lock(&q->mutex);
  TqExec** link = &q->head;
  TqExec* kept = nullptr;  // the last entry that stays: the new tail
  while (*link != nullptr) {
    TqExec* e = *link;
    if (c->filter(c->filter_arg, e->fn, e->arg, e->argc, e->argv) != 0) {
      *link = e->next;
      e->next = nullptr;
      *tail = e;
      tail = &e->next;
    } else {
      kept = e;
      link = &e->next;
    }
  }
  q->tail = kept;
  pthread_mutex_unlock(&q->mutex);
  if (chain != nullptr) tq_run_list(chain, tq_pseudo_now(chain));
}

}  // namespace

extern "C" ARBOR_EXPORT TimedQueue* tq_create(void) {
  auto* q = new (std::nothrow) TimedQueue{};
  if (q == nullptr) {
    ARBOR_LOG(0, "tq_create: no memory\n");
    return nullptr;
  }
  q->exit_entry = newexc(tq_exit_marker, 0, 0, 0);
  if (q->exit_entry == nullptr) {
    delete q;
    return nullptr;
  }
  int rc = pthread_mutex_init(&q->mutex, nullptr);
  if (rc != 0) {
    ARBOR_LOG(0, "pthread_mutex_init: %d\n", rc);
  } else if ((rc = pthread_cond_init(&q->cond, nullptr)) != 0) {
    ARBOR_LOG(0, "pthread_cond_init: %d\n", rc);
    pthread_mutex_destroy(&q->mutex);
  } else {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    rc = pthread_create(&q->thread, &attr, tq_thread_func, q);
    pthread_attr_destroy(&attr);
    if (rc == 0) return q;
    ARBOR_LOG(0, "pthread_create: %d\n", rc);
    pthread_cond_destroy(&q->cond);
    pthread_mutex_destroy(&q->mutex);
  }
  std::free(q->exit_entry);
  delete q;
  return nullptr;
}

extern "C" ARBOR_EXPORT void tq_destroy(TimedQueue* q) {
  if (q == nullptr) return;
  TqExec* marker = q->exit_entry;
  q->exit_entry = nullptr;
  tq_link(q, 0, marker);
  pthread_join(q->thread, nullptr);
  pthread_cond_destroy(&q->cond);
  pthread_mutex_destroy(&q->mutex);
  delete q;
}

// Walks va by recursion, one level a string: on the way in each level adds
// its string's length to size, the innermost level (at the null) allocates,
// and on the way back each level copies its string to offset size, where it
// follows those of the levels above. Stack depth grows with the number of
// strings, which callers keep to a handful. Null when memory runs out.
extern "C" ARBOR_EXPORT TqExec* newexc_v(TqHandler fn, uintptr_t arg,
                                         int32_t index, size_t size,
                                         va_list va) {
  const char* s = va_arg(va, const char*);
  if (s == nullptr) return newexc(fn, arg, index, size);
  size_t len = std::strlen(s) + 1;
  TqExec* e = newexc_v(fn, arg, index + 1, size + len, va);
  if (e != nullptr) {
    char* place = tq_strings(e) + size;
    std::memcpy(place, s, len);
    e->argv[index] = place;
  }
  return e;
}

extern "C" ARBOR_EXPORT void* tq_post(TimedQueue* q, uint32_t delay,
                                      TqHandler fn, uintptr_t arg, int32_t argc,
                                      const char* const* argv) {
  ARBOR_ASSERT(q, "q");
  if (fn == nullptr || argc < 0 || (argc > 0 && argv == nullptr))
    return nullptr;
  size_t size = 0;
  for (int32_t i = 0; i < argc; ++i) {
    if (argv[i] == nullptr) return nullptr;
    size += std::strlen(argv[i]) + 1;
  }
  TqExec* e = newexc(fn, arg, argc, size);
  if (e == nullptr) return nullptr;
  char* place = tq_strings(e);
  for (int32_t i = 0; i < argc; ++i) {
    size_t len = std::strlen(argv[i]) + 1;
    std::memcpy(place, argv[i], len);
    e->argv[i] = place;
    place += len;
  }
  return _tq_post(q, delay, e);
}

extern "C" ARBOR_EXPORT void* tq_post_v(TimedQueue* q, uint32_t delay,
                                        TqHandler fn, uintptr_t arg, ...) {
  ARBOR_ASSERT(q, "q");
  if (fn == nullptr) return nullptr;
  va_list va;
  va_start(va, arg);
  TqExec* e = newexc_v(fn, arg, 0, 0, va);
  va_end(va);
  return _tq_post(q, delay, e);
}

extern "C" ARBOR_EXPORT void* tq_send(TimedQueue* q, uint32_t delay,
                                      TqHandler fn, uintptr_t arg, ...) {
  ARBOR_ASSERT(q, "q");
  if (fn == nullptr) return nullptr;
  TqSendGate gate;
  gate.fn = fn;
  gate.arg = arg;
  va_list va;
  va_start(va, arg);
  TqExec* e =
      newexc_v(tq_send_wrapper, reinterpret_cast<uintptr_t>(&gate), 0, 0, va);
  va_end(va);
  if (e == nullptr) return nullptr;
  return tq_send_entry(q, delay, e, &gate);
}

// Cancelling runs as a sent job on the worker, between batches, so it never
// races a handler. On a closing queue the job is dropped and the result is
// null; the flush that is under way runs every pending entry anyway.
extern "C" ARBOR_EXPORT void* tq_cancel_if(TimedQueue* q, TqFilter filter,
                                           uintptr_t filter_arg) {
  ARBOR_ASSERT(q, "q");
  if (filter == nullptr) return nullptr;
  TqCancel record{filter, filter_arg, q};
  return tq_send(q, 0, tq_cancel_job, reinterpret_cast<uintptr_t>(&record),
                 static_cast<const char*>(nullptr));
}
