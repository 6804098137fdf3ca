// device/cmdq.cc - the command queue: the one road by which every change
// reaches the session forest, and the start and stop of the forest.
//
// Ordering guarantees that the whole forest builds on:
//  - FIFO. A push links its item at the newest end under the queue's mutex;
//    the consumer takes from the oldest end. Commands run in the order in
//    which their pushes took the mutex, so the commands of one pushing
//    thread run in that thread's order.
//  - One consumer. Only Thread_commandq_consume runs handlers, each to its
//    end before the next, without the queue's mutex held: a handler may
//    push (never the exit marker). What may run at the same time as a
//    handler: pushes from any thread, read threads walking trees, and the
//    timed queue's worker (Tree_timed_check, event_emit); the forest's own
//    locks keep those apart (device/forest.h).
//  - The mutex covers the list, the payload copy and the signal, never a
//    handler. cached_total stands beside it as two atomic counters, bytes
//    added by pushers and bytes taken away by the consumer, each on a cache
//    line of its own, so that the two sides do not trade one line per
//    command; the total is their difference. A push adds before its item
//    becomes visible, so the total never dips below zero. Pushers add
//    only under the mutex, so with a plain load and store, not a locked
//    instruction; cached_size_inc, which any thread may call at any time
//    (a host's log sink under the queue's mutex among them), adds to a
//    third counter of its own with an atomic step and takes no lock.
//  - Items are reused: the consumer hands the items it has run back at its
//    next hold of the mutex (up to kItemKeep kept), and a push takes one
//    from there, so a stream of frames allocates no item per frame. A
//    payload copy lives in its item up to kInlinePayload bytes, and in a
//    block of the frame pool (mque/frame_pool.h) beyond.
//  - Stop. The push of the exit marker (exitq, or a null handler) closes the
//    queue: every later push is refused with "_commandq_push: commandq
//    end.", nothing copied or counted. Everything accepted before the marker
//    runs to its end; then the consumer sweeps the forest empty
//    (forest_make_clean) and ends, and the marker's pusher, which waits in
//    the join, returns. The marker's item is allocated at the start, so the
//    stop needs no memory and cannot fail.
//  - The mutex and condition are never destroyed while a pusher may still
//    come (a late push after the stop locks them to be refused); each
//    device_start destroys and initialises them anew, while nothing pushes.
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "arbor/device_class.h"
#include "arbor/forest.h"
#include "arbor/inband.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "device/forest.h"
#include "mque/frame_pool.h"

namespace {

// An item's next leads to the next older item, its prev to the next newer
// one; the head's next is the newest item, its prev the oldest. An empty
// queue has both pointing at the head.
struct CommandLink {
  CommandLink* next;
  CommandLink* prev;
};

// Payloads up to this size are copied into the item itself: a media frame
// of an Ethernet-sized packet with its record head, a sid, most control
// texts. With items reused, such a command then needs no allocation at
// all, and the two threads do not meet on a pool's mutex once per frame.
// Larger payloads take a block of the frame pool. Known cost: an item is
// about 1.6 KiB, so commands waiting in a long queue take that each.
constexpr uint32_t kInlinePayload = 1536;

struct CommandItem {
  CommandLink link;  // first, so a link converts to its item
  CommandHandler fn;  // never null in a queued item
  uintptr_t arg;      // handed through untouched
  void* payload;      // the queue's copy (inline, or a pool block), or null
  uint32_t size;      // bytes of payload, or the pusher's number
  alignas(16) unsigned char inline_payload[kInlinePayload];
};

const pthread_t kNoThread = static_cast<pthread_t>(-1);

// Spent items kept for reuse (at most 512 x 1.6 KiB = 800 KiB): two
// batches of a busy receiving road.
constexpr uint32_t kItemKeep = 512;

struct CommandQueue {
  CommandLink head;
  // The handler of the latest accepted push; null (no handler) after a
  // start, exitq once closed. Guarded by mutex.
  CommandHandler last_fn;
  pthread_mutex_t mutex;
  pthread_cond_t condiction;  // signalled on each accepted push
  // The consumer; kNoThread when there is none. Guarded by mutex.
  pthread_t commandq_thread_;
  CommandItem* exit_item;  // the marker's item until the marker is pushed
  // Items to reuse, linked by link.next; guarded by mutex.
  CommandItem* free_items;
  uint32_t free_count;
  // Items accepted and not yet handed back: raised by each push and lowered
  // by the consumer for a whole batch at its next hold of the mutex, so the
  // two threads do not trade this word's cache line once per command. Only
  // changed under mutex, so with a plain load and store (queued_add); read
  // without it (cmdq_queued).
  std::atomic<uint32_t> queued;
};

// Closed until the first start, so an early push is refused, not lost.
void exitq(uintptr_t, const void*, uint32_t) {}

CommandQueue queue_ = {
    .head = {&queue_.head, &queue_.head},
    .last_fn = exitq,
    .mutex = PTHREAD_MUTEX_INITIALIZER,
    .condiction = PTHREAD_COND_INITIALIZER,
    .commandq_thread_ = kNoThread,
    .exit_item = nullptr,
    .free_items = nullptr,
    .free_count = 0,
    .queued = 0,
};

struct alignas(64) CachedCount {
  std::atomic<uint32_t> bytes{0};
};
CachedCount cached_added, cached_added_outside, cached_taken;

// The taken side is read first: whatever it counts was added before.
uint32_t cached_now() {
  const uint32_t taken = cached_taken.bytes.load();
  return cached_added.bytes.load() + cached_added_outside.bytes.load() - taken;
}

// Adds to a counter whose every writer holds the queue's mutex: a plain
// load and store, which a reader without the mutex sees whole. The sum is
// modulo 2^32, so the consumer lowers a count by adding its negation.
void add_under_mutex(std::atomic<uint32_t>& word, uint32_t n) {
  word.store(word.load(std::memory_order_relaxed) + n,
             std::memory_order_release);
}

// cached_size_inc and cached_size_dec without a result, for the queue's
// own use: the total (the other side's line) is read only for the trace.
// cached_add: q.mutex held.
void cached_add(uint32_t size, bool tracing) {
  add_under_mutex(cached_added.bytes, size);
  if (tracing) ARBOR_LOG(3, "cached: inc size=%u, total=%u", size, cached_now());
}
void cached_take(uint32_t size, bool tracing) {
  cached_taken.bytes.fetch_add(size);
  if (tracing) ARBOR_LOG(3, "cached: dec size=%u, total=%u", size, cached_now());
}

thread_local bool on_consumer = false;

std::atomic<bool> fail_next_start{false};
std::atomic<int32_t> allocs_left{-1};

// The test seam's verdict on one allocation.
bool cmdq_alloc_allowed() {
  int32_t left = allocs_left.load();
  while (left >= 0) {
    if (left == 0) return false;
    if (allocs_left.compare_exchange_weak(left, left - 1)) return true;
  }
  return true;
}

// An item for a push: a reused one, or a new one. q.mutex held.
CommandItem* cmdq_item_new(CommandQueue& q) {
  if (!cmdq_alloc_allowed()) return nullptr;
  if (CommandItem* item = q.free_items) {
    q.free_items = reinterpret_cast<CommandItem*>(item->link.next);
    --q.free_count;
    return item;
  }
  return new (std::nothrow) CommandItem{};
}

// Frees a chain of items linked by link.next.
void cmdq_items_delete(CommandItem* items) {
  while (items != nullptr) {
    auto* next = reinterpret_cast<CommandItem*>(items->link.next);
    delete items;
    items = next;
  }
}

// Moves spent items onto the free list while it has room; what is left in
// *spent is the caller's to delete, outside the mutex. q.mutex held.
void cmdq_items_keep(CommandQueue& q, CommandItem** spent) {
  while (*spent != nullptr && q.free_count < kItemKeep) {
    CommandItem* item = *spent;
    *spent = reinterpret_cast<CommandItem*>(item->link.next);
    item->link.next = reinterpret_cast<CommandLink*>(q.free_items);
    q.free_items = item;
    ++q.free_count;
  }
}

// The queue's copy of a payload, in item or in a pool block; null when it
// cannot be made.
void* cmdq_payload_copy(CommandItem* item, const void* payload, uint32_t size) {
  if (!cmdq_alloc_allowed()) return nullptr;
  if (size > kInlinePayload) return frame_dup(payload, size);
  std::memcpy(item->inline_payload, payload, size);
  return item->inline_payload;
}

void cmdq_payload_free(CommandItem* item) {
  if (item->payload != item->inline_payload) frame_free(item->payload, item->size);
}

const void* fn_address(CommandHandler fn) {
  return reinterpret_cast<const void*>(fn);
}

unsigned kernel_tid() { return static_cast<unsigned>(syscall(SYS_gettid)); }

// RAII for the queue's pthread mutex.
class QueueLock {
 public:
  explicit QueueLock(pthread_mutex_t* mutex) : mutex_(mutex) {
    pthread_mutex_lock(mutex_);
  }
  ~QueueLock() { pthread_mutex_unlock(mutex_); }
  QueueLock(const QueueLock&) = delete;
  QueueLock& operator=(const QueueLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

// Queues fn; see cmdq_push for the contract. A refusal leaves nothing
// queued: the item and the payload copy are made before anything is linked,
// and dropped together when either fails.
// tracing: whether level-3 lines are written, looked up once by the caller
// for the push's three trace lines, so that a stream of frames makes one
// call into the log per frame, not four.
CommandHandler _commandq_push(CommandHandler fn, uintptr_t arg,
                              const void* payload, uint32_t size,
                              bool tracing) {
  if (fn == nullptr) fn = exitq;
  CommandQueue& q = queue_;
  pthread_t join = kNoThread;
  {
    QueueLock lock(&q.mutex);
    if (q.last_fn == exitq) {
      ARBOR_LOG(0, "%s: commandq end.", "_commandq_push");
      return nullptr;
    }
    CommandItem* item;
    if (fn == exitq) {
      item = q.exit_item;  // made by device_start: the stop cannot fail
      q.exit_item = nullptr;
    } else {
      item = cmdq_item_new(q);
    }
    // The marker carries no payload, so its preallocated item is never
    // lost to a failed copy.
    void* copy = nullptr;
    if (item != nullptr && fn != exitq && size != 0 && payload != nullptr) {
      copy = cmdq_payload_copy(item, payload, size);
      if (copy == nullptr) {
        delete item;
        item = nullptr;
      }
    }
    if (item == nullptr) {
      ARBOR_LOG(0, "%s: no memory, refused %p (%u bytes)", "_commandq_push",
                fn_address(fn), size);
      return nullptr;
    }
    // Field by field: the inline payload is already in place.
    item->link = {q.head.next, &q.head};
    item->fn = fn;
    item->arg = arg;
    item->payload = copy;
    item->size = size;
    q.last_fn = fn;
    if (copy != nullptr) cached_add(size, tracing);
    q.head.next->prev = &item->link;
    q.head.next = &item->link;
    add_under_mutex(q.queued, 1);
    pthread_cond_signal(&q.condiction);
    if (fn == exitq) join = q.commandq_thread_;  // read once, here
  }
  if (tracing) ARBOR_LOG(3, "function:%p", fn_address(fn));
  if (fn == exitq && join != kNoThread) {
    if (pthread_equal(join, pthread_self())) {
      // A handler pushed the marker: joining would wait for ourselves.
      ARBOR_LOG(0, "%s: exit marker pushed by a command; not joined",
                "_commandq_push");
      pthread_detach(join);
    } else {
      ARBOR_LOG(3, "thread-join: %s{ ...", "commandq_thread_");
      pthread_join(join, nullptr);
      ARBOR_LOG(3, "thread-join-return: }%s.", "commandq_thread_");
    }
  }
  return fn;
}

// Runs one command outside the mutex and frees its payload (the item is
// the caller's to keep or free); true for the marker, after which nothing
// more was accepted.
bool run_command(CommandItem* item) {
  const CommandHandler fn = item->fn;
  // One look at the threshold for the three trace lines of a command; a
  // handler that changes it changes the lines of the next command.
  const bool tracing = LOG_GetLevel() >= 3;
  if (tracing)
    ARBOR_LOG(3, "%s: execute function:%p", "Thread_commandq_consume",
              fn_address(fn));
  fn(item->arg, item->payload, item->size);
  if (tracing)
    ARBOR_LOG(3, "%s: execute function:%p, return", "Thread_commandq_consume",
              fn_address(fn));
  if (item->payload != nullptr) {
    cached_take(item->size, tracing);
    cmdq_payload_free(item);
  }
  return fn == exitq;
}

// The consumer's scheduling policy, managed command by command (see
// cmdq_sched_for). Lives on the consumer's stack.
struct ConsumerSched {
  bool managed = false;  // the consumer was started under SCHED_OTHER
  bool batch = false;    // it runs under SCHED_BATCH now
};

// A received frame (Tree_inflate) runs under SCHED_BATCH, every other
// command under SCHED_OTHER, the policy the consumer was started with.
//
// Why frames: a push signals the consumer with the queue's mutex held, and
// under SCHED_OTHER the kernel lets the woken consumer take the pusher's
// CPU at once. On a machine whose cores are all busy, the pusher of a
// stream of frames (the transport's thread) was put aside in the middle of
// its push, the consumer then blocked on the mutex the pusher still held,
// and each frame took two context switches more: about a third of the
// receiving road's throughput in the LAN fan-out benchmark on two cores. A
// consumer that last ran a frame sleeps as a batch thread, and a batch
// thread never preempts on wake-up: it runs at once on an idle core, else
// when the pusher sleeps or its turn comes, with the same share of the CPU
// as before, and takes what was pushed meanwhile in one go. The cost is
// that wait, on a saturated machine only, for the frames and for the first
// command after them.
//
// Why only frames: a thread inherits its creator's policy, and other
// commands call the slots that start threads (a driver's Open building a
// GStreamer pipeline, whose thread pool then serves the whole process; the
// read threads): those must run as the host's threads do. A frame reaches
// only Write and Convert. A stream of frames, or of commands, switches
// nothing; a switch is one system call where the two kinds meet.
//
// Managed only when the consumer starts under SCHED_OTHER, as the kernel
// reports it (glibc's cached policy may be stale): a host under a real-time
// or an idle policy keeps it. Management stops when a switch is refused (a
// sandbox) or when the policy is not the one this code set (someone else
// changed it), leaving the thread as it is.
void cmdq_sched_for(ConsumerSched& s, CommandHandler fn) {
  const bool batch = fn == Tree_inflate;
  if (!s.managed || batch == s.batch) return;
  if (sched_getscheduler(0) != (s.batch ? SCHED_BATCH : SCHED_OTHER)) {
    ARBOR_LOG(1, "%s: scheduling policy changed from outside; left as it is",
              "Thread_commandq_consume");
    s.managed = false;
    return;
  }
  const sched_param param{};
  const int err = pthread_setschedparam(
      pthread_self(), batch ? SCHED_BATCH : SCHED_OTHER, &param);
  if (err != 0) {
    ARBOR_LOG(1, "%s: scheduling policy left as it is (%s)",
              "Thread_commandq_consume", std::strerror(err));
    s.managed = false;
    return;
  }
  s.batch = batch;
}

// The consumer: runs the commands in order; after the marker it sweeps the
// forest and ends. Cannot fail.
void* Thread_commandq_consume(void* arg) {
  auto* q = static_cast<CommandQueue*>(arg);
  on_consumer = true;
  pthread_setname_np(pthread_self(), "arbor-commands");
  ConsumerSched sched;
  sched.managed = sched_getscheduler(0) == SCHED_OTHER;
  ARBOR_LOG(3, "%s running: %#x", "Thread_commandq_consume", kernel_tid());
  bool ended = false;
  CommandItem* spent = nullptr;  // items run since the last hold of the mutex
  uint32_t ran = 0;              // how many
  while (!ended) {
    // Everything queued is taken in one hold of the mutex, so a busy
    // producer and the consumer meet on it once per batch, not per command;
    // the batch then runs oldest first, as one by one would.
    CommandLink* oldest;
    {
      QueueLock lock(&q->mutex);
      add_under_mutex(q->queued, -ran);
      ran = 0;
      cmdq_items_keep(*q, &spent);
      while (q->head.prev == &q->head) {
        pthread_cond_wait(&q->condiction, &q->mutex);
        ARBOR_LOG(3, "cond-wait-return: cond=%s,mutex=%s{.", "q->condiction",
                  "q->mutex");
      }
      oldest = q->head.prev;
      q->head.next->prev = nullptr;  // the newest item ends the batch
      q->head.prev = &q->head;
      q->head.next = &q->head;
    }
    cmdq_items_delete(spent);  // what the free list had no room for
    spent = nullptr;
    for (CommandLink* link = oldest; link != nullptr && !ended;) {
      auto* item = reinterpret_cast<CommandItem*>(link);
      link = link->prev;  // the next newer, read before the item is reused
      cmdq_sched_for(sched, item->fn);
      ended = run_command(item);
      item->link.next = reinterpret_cast<CommandLink*>(spent);
      spent = item;
      ++ran;
    }
    // Housekeeping between batches, not a command: it changes no live
    // tree and so cannot reorder anything the queue delivers.
    if (!ended) forest_sweep_closed();
  }
  forest_make_clean();
  CommandItem* kept;
  {
    // Closed: no push takes an item any more.
    QueueLock lock(&q->mutex);
    q->commandq_thread_ = kNoThread;
    add_under_mutex(q->queued, -ran);
    kept = q->free_items;
    q->free_items = nullptr;
    q->free_count = 0;
  }
  cmdq_items_delete(kept);
  cmdq_items_delete(spent);
  ARBOR_LOG(3, "%s exit: %#x.", "Thread_commandq_consume", kernel_tid());
  return nullptr;
}

}  // namespace

extern "C" {

// The forest's mutexes are std::mutex, constant-initialised: there is
// nothing to initialise and nothing that can fail, so the result without
// DEVICE_PATH is 0.
ARBOR_EXPORT int32_t device_initialize(void) {
  ARBOR_LOG(3, "%s", "device_initialize");
  {
    std::lock_guard<std::mutex> lock(forest_.mutex);
    forest_.head.next = nullptr;
    forest_.roots = 0;
    forest_.closed_unswept = 0;
  }
  const char* path = std::getenv("DEVICE_PATH");
  if (path != nullptr) return cdef_init(path);
  return 0;
}

// A consumer that cannot be started (or a marker item that cannot be
// allocated) leaves the queue closed: a push is then refused at once rather
// than queued for a consumer that never comes, and device_stop returns.
ARBOR_EXPORT int32_t device_start(void) {
  ARBOR_LOG(3, "device_start");
  CommandQueue& q = queue_;
  if (cmdq_running()) {
    ARBOR_LOG(0, "%s: the command queue runs already", "device_start");
    return 0;
  }
  // Statically initialised or left by the last stop; unused either way.
  pthread_cond_destroy(&q.condiction);
  pthread_mutex_destroy(&q.mutex);
  pthread_mutex_init(&q.mutex, nullptr);
  pthread_cond_init(&q.condiction, nullptr);

  QueueLock lock(&q.mutex);
  q.head = {&q.head, &q.head};
  q.commandq_thread_ = kNoThread;
  q.queued = 0;
  q.free_items = nullptr;  // the last consumer freed its items at its end
  q.free_count = 0;
  q.last_fn = exitq;  // closed until the consumer runs
  delete q.exit_item;
  q.exit_item = new (std::nothrow) CommandItem{};
  if (q.exit_item == nullptr) {
    ARBOR_LOG(0, "%s: no memory for the exit marker", "device_start");
    return 0;
  }
  pthread_t thread;
  int err = fail_next_start.exchange(false) ? EAGAIN : 0;
  if (err == 0) {
    err = pthread_create(&thread, nullptr, Thread_commandq_consume, &q);
  }
  if (err != 0) {
    ARBOR_LOG(0, "%s: %s: %s", "device_start", "Thread_commandq_consume",
              std::strerror(err));
    delete q.exit_item;
    q.exit_item = nullptr;
    return 0;
  }
  q.commandq_thread_ = thread;
  q.last_fn = nullptr;  // no handler: open
  ARBOR_LOG(3, "thread-created: %s, func=%s(%p) ...", "&commandq_thread_",
            "Thread_commandq_consume", static_cast<void*>(&q));
  return 0;
}

ARBOR_EXPORT void device_stop(void) {
  cmdq_push("exitq", exitq, 0, nullptr, 0);
  ARBOR_LOG(3, "%s", "device_stop");
}

ARBOR_EXPORT void device_exit(void) {
  ARBOR_LOG(3, "START %s", "device_exit");
  ARBOR_LOG(3, "END %s", "device_exit");
}

ARBOR_EXPORT CommandHandler cmdq_push(const char* name, CommandHandler fn,
                                      uintptr_t arg, const void* payload,
                                      uint32_t size) {
  const bool tracing = LOG_GetLevel() >= 3;
  if (tracing)
    ARBOR_LOG(3, "q: %s:%p", name != nullptr ? name : "", fn_address(fn));
  return _commandq_push(fn, arg, payload, size, tracing);
}

ARBOR_EXPORT uint32_t cached_size_inc(uint32_t size) {
  cached_added_outside.bytes.fetch_add(size);
  const uint32_t total = cached_now();
  ARBOR_LOG(3, "cached: inc size=%u, total=%u", size, total);
  return total;
}

ARBOR_EXPORT uint32_t cached_size_dec(uint32_t size) {
  cached_taken.bytes.fetch_add(size);
  const uint32_t total = cached_now();
  ARBOR_LOG(3, "cached: dec size=%u, total=%u", size, total);
  return total;
}

}  // extern "C"

uint32_t cmdq_cached_total() { return cached_now(); }

uint32_t cmdq_queued() { return queue_.queued.load(std::memory_order_relaxed); }

int cmdq_running() {
  QueueLock lock(&queue_.mutex);
  return queue_.commandq_thread_ != kNoThread ? 1 : 0;
}

bool cmdq_on_consumer() { return on_consumer; }

void cmdq_test_fail_next_start() { fail_next_start.store(true); }

void cmdq_test_fail_allocs(int32_t after) { allocs_left.store(after); }
