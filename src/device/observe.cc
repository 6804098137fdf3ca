// device/observe.cc - the session observer and the forest snapshot
// (arbor/observe.h).
//
// Events are made where the forest changes, often under its locks, so they
// are only copied into a bounded queue there; a thread of the observer's
// own calls the host. That thread, not the timed queue's worker, because
// SysExit takes the timed queue down before it sweeps the forest, and the
// host wants to hear those sessions end too ("Sys_Exit"). The thread starts
// with the first observer and ends when the observer is cleared or the
// library is unloaded; it takes no forest lock.
#include "device/observe.h"

#include <pthread.h>
#include <time.h>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "arbor/device_class.h"
#include "arbor/support.h"
#include "device/forest.h"

namespace {

class Observer {
 public:
  ~Observer() { Stop(); }

  bool active() const { return active_.load(std::memory_order_relaxed); }

  // Sets fn (null: none); starts the thread for the first one, stops it for
  // a null one. False when no thread could be made (then nothing is set).
  bool Set(arbor_session_observer fn, void* user) {
    std::unique_lock lock(mutex_);
    if (fn == nullptr) {
      draining_fn_ = fn_;
      draining_user_ = user_;
    }
    fn_ = fn;
    user_ = user;
    active_.store(fn != nullptr, std::memory_order_relaxed);
    if (fn != nullptr && !running_) {
      try {
        thread_ = std::thread([this, gen = ++generation_] { Run(gen); });
      } catch (const std::system_error& e) {
        ARBOR_LOG(0, "arbor_observe_sessions: no thread for the observer: %s", e.what());
        fn_ = nullptr;
        active_.store(false, std::memory_order_relaxed);
        return false;
      }
      running_ = true;
      return true;
    }
    if (fn == nullptr && running_) {
      // The thread delivers what is queued to the observer being cleared,
      // then ends: its generation is over. So a host that clears its
      // observer after SysExit has heard every session end.
      ++generation_;
      running_ = false;
      wake_.notify_all();
      std::thread ending = std::move(thread_);
      if (ending.get_id() == std::this_thread::get_id()) {
        // Cleared from inside the callback: a thread cannot join itself.
        ending.detach();
        return true;
      }
      lock.unlock();
      ending.join();
    }
    return true;
  }

  // Queues e, or counts it dropped when the backlog is full or memory runs
  // out. Any thread, any lock held.
  void Post(const arbor_session_event& e) {
    std::lock_guard lock(mutex_);
    if (fn_ == nullptr) return;
    if (queue_.size() >= ARBOR_OBSERVE_BACKLOG) {
      ++dropped_;
      return;
    }
    try {
      queue_.push_back(e);
      queue_.back().dropped = dropped_;
      dropped_ = 0;
    } catch (const std::bad_alloc&) {
      ++dropped_;
      return;
    }
    wake_.notify_one();
  }

  void Stop() { Set(nullptr, nullptr); }

 private:
  // Delivers while its generation lasts, then what is still queued. An old
  // thread detached from inside its callback may still be draining when a
  // new observer is set; it then hands the new one's first events to the
  // old observer, as if they had been queued before the clear.
  void Run(uint64_t generation) {
    pthread_setname_np(pthread_self(), "arbor-observer");
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [&] { return generation != generation_ || !queue_.empty(); });
      const bool over = generation != generation_;
      if (queue_.empty()) return;  // only when over
      const arbor_session_event e = queue_.front();
      queue_.pop_front();
      const arbor_session_observer fn = over ? draining_fn_ : fn_;
      void* const user = over ? draining_user_ : user_;
      lock.unlock();
      if (fn != nullptr) fn(&e, user);
      lock.lock();
    }
  }

  std::atomic<bool> active_{false};
  std::mutex mutex_;
  std::condition_variable wake_;
  arbor_session_observer fn_ = nullptr;  // guarded by mutex_
  void* user_ = nullptr;                 // guarded by mutex_
  // The observer being cleared, which hears what was queued before.
  arbor_session_observer draining_fn_ = nullptr;  // guarded by mutex_
  void* draining_user_ = nullptr;                 // guarded by mutex_
  std::deque<arbor_session_event> queue_;  // guarded by mutex_
  uint32_t dropped_ = 0;                 // guarded by mutex_
  uint64_t generation_ = 0;              // guarded by mutex_: one per thread started
  bool running_ = false;                 // guarded by mutex_
  std::thread thread_;                   // guarded by mutex_
};

Observer observer_;

void copy_text(char* slot, size_t capacity, const char* text) {
  std::snprintf(slot, capacity, "%s", text != nullptr ? text : "");
}

// Appends " -> name" (or name first) to chain of capacity; when the hop
// does not fit, ends the chain with " ..." and returns false.
bool chain_append(char* chain, size_t capacity, size_t* used, const char* name) {
  const char* sep = *used == 0 ? "" : " -> ";
  const int n = std::snprintf(chain + *used, capacity - *used, "%s%s", sep,
                              name != nullptr && *name != '\0' ? name : "?");
  if (n < 0 || *used + static_cast<size_t>(n) >= capacity - 4) {
    chain[*used] = '\0';
    std::snprintf(chain + *used, capacity - *used, " ...");
    return false;
  }
  *used += static_cast<size_t>(n);
  return true;
}

// The chain from the root down to leaf.
void chain_of(const TreeNode* leaf, char* chain, size_t capacity) {
  const TreeNode* path[TREE_MAX_HOPS + 2];
  int depth = 0;
  for (const TreeNode* n = leaf; n != nullptr && depth < TREE_MAX_HOPS + 2; n = n->parent)
    path[depth++] = n;
  chain[0] = '\0';
  size_t used = 0;
  for (int i = depth - 1; i >= 0; --i)
    if (!chain_append(chain, capacity, &used, path[i]->name)) return;
}

arbor_session_event event_of(uint32_t kind, uint32_t uid, int32_t ascode, const char* sid,
                             const char* reason) {
  arbor_session_event e{};
  e.kind = kind;
  e.uid = uid;
  e.ascode = ascode;
  copy_text(e.sid, sizeof e.sid, sid);
  copy_text(e.reason, sizeof e.reason, reason);
  return e;
}

uint64_t monotonic_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Fills node `index` of the snapshot from node, with the sessions that end
// there, and recurses into its children. Returns the next index; nodes and
// sessions that do not fit are counted all the same.
uint32_t snapshot_node(arbor_forest_snapshot* s, const TreeRoot* root, const TreeNode* node,
                       int32_t parent, int32_t depth, uint32_t index) {
  const bool fits = index < s->node_capacity;
  uint32_t here = 0;
  for (int32_t i = 0; i < root->leaves_size; ++i) {
    const LeafIndexEntry& row = root->leaves[i];
    if (row.leaf != node) continue;
    ++here;
    // Counted always; written only when both it and its node fit.
    if (fits && s->session_count < s->session_capacity) {
      arbor_session_info& out = s->sessions[s->session_count];
      out = arbor_session_info{};
      out.node = static_cast<int32_t>(index);
      out.uid = row.uid;
      out.ascode = row.ascode;
      copy_text(out.sid, sizeof out.sid, row.sid);
    }
    ++s->session_count;
  }
  if (fits) {
    arbor_node_info& out = s->nodes[index];
    out = arbor_node_info{};
    out.parent = parent;
    out.depth = depth;
    out.descriptor = node->xfd.load(std::memory_order_relaxed);
    out.active = node->active.load(std::memory_order_relaxed) != 0 ? 1 : 0;
    out.net = is_network_dev(node->device) != 0 ? 1 : 0;
    out.children = node->nchildren;
    out.sessions = here;
    out.uid = parent < 0 ? root->uid : 0;
    out.chunks = node->chunks.load(std::memory_order_relaxed);
    out.bytes = node->bytes.load(std::memory_order_relaxed);
    copy_text(out.name, sizeof out.name, node->name);
  }
  const uint32_t self = index++;
  if (depth >= TREE_MAX_HOPS) return index;  // a tree is never deeper; stay bounded
  for (uint32_t i = 0; i < node->nchildren; ++i)
    index = snapshot_node(s, root, node->children[i], static_cast<int32_t>(self), depth + 1, index);
  return index;
}

}  // namespace

void observe_rows_began(TreeRoot* root) {
  if (!observer_.active()) return;
  for (int32_t i = 0; i < root->leaves_size; ++i) {
    LeafIndexEntry& row = root->leaves[i];
    if (row.began != 0 || row.leaf == nullptr || row.leaf->active == 0) continue;
    row.began = 1;
    arbor_session_event e = event_of(ARBOR_SESSION_BEGIN, row.uid, row.ascode, row.sid, "");
    chain_of(row.leaf, e.chain, sizeof e.chain);
    observer_.Post(e);
  }
}

void observe_row_removed(const LeafIndexEntry& row, const char* reason) {
  if (!observer_.active()) return;
  arbor_session_event e = event_of(row.began != 0 ? ARBOR_SESSION_END : ARBOR_SESSION_FAIL,
                                   row.uid, row.ascode, row.sid, reason);
  if (row.leaf != nullptr) chain_of(row.leaf, e.chain, sizeof e.chain);
  observer_.Post(e);
}

void observe_request_failed(uint32_t uid, int32_t ascode, const char* sid, const MNodeInfo* hops,
                            uint32_t length, const char* reason) {
  if (!observer_.active()) return;
  arbor_session_event e = event_of(ARBOR_SESSION_FAIL, uid, ascode, sid, reason);
  size_t used = 0;
  for (uint32_t i = 0; hops != nullptr && i < length; ++i)
    if (!chain_append(e.chain, sizeof e.chain, &used, hops[i].name)) break;
  observer_.Post(e);
}

extern "C" {

ARBOR_EXPORT int32_t arbor_observe_sessions(arbor_session_observer observer, void* user) {
  return observer_.Set(observer, user) ? 0 : -1;
}

ARBOR_EXPORT int32_t arbor_forest_snapshot_take(arbor_forest_snapshot* snapshot) {
  if (snapshot == nullptr) return -1;
  snapshot->node_count = 0;
  snapshot->session_count = 0;
  if (snapshot->nodes == nullptr) snapshot->node_capacity = 0;
  if (snapshot->sessions == nullptr) snapshot->session_capacity = 0;
  // Lock order: the forest mutex, then each root's lock for reading.
  std::lock_guard<std::mutex> lock(forest_.mutex);
  uint32_t nodes = 0;
  for (TreeRoot* root = forest_.head.next; root != nullptr; root = root->next) {
    QVRLock(&root->lock);
    nodes = snapshot_node(snapshot, root, root_node(root), -1, 0, nodes);
    QVXUNLock(&root->lock);
  }
  snapshot->node_count = nodes;
  snapshot->taken_ns = monotonic_ns();
  return 0;
}

}  // extern "C"
