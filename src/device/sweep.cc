// device/sweep.cc - the places that unlink roots from the forest and free
// them: forest_ref_tree, the look-up of the data paths, which sweeps dead
// roots as it walks; forest_sweep_closed, the same walk without a key, which
// the consumer runs between batches once enough roots have closed; and
// forest_make_clean, the consumer's last work, which sweeps until the
// forest is empty. All join finished read threads.
//
// Both run on the consumer only, so no two sweeps meet. A root is freed only
// when its use_count is 0: no branch, no read thread and no holder keeps it,
// and the forest mutex, held for the whole walk, keeps new holders away.
// Joins happen with the forest mutex held; a thread that has set -111 takes
// no lock any more (only its reference's atomic step), so it cannot wait
// for us.
#include <pthread.h>
#include <unistd.h>

#include <mutex>

#include "arbor/support.h"
#include "device/forest.h"

namespace {

// Microseconds between two passes of the final sweep.
constexpr useconds_t kMakeCleanPause = 100000;
// forest_sweep_closed walks the forest once the roots closed since the last
// sweep are at least 1/kSweepShare of it: each close then pays a constant
// share of the walk, and closed roots stay at most that share of the list
// (plus those whose read thread had not ended when the walk came by).
constexpr int32_t kSweepShare = 8;

void root_join_thread(TreeRoot* root) {
  ARBOR_LOG(3, "thread-join: %s{ ...", "root->thread");
  pthread_join(root->thread, nullptr);
  ARBOR_LOG(3, "thread-join-return: }%s.", "root->thread");
  root->use_thread = 0;
}

// Takes root out of the list behind prev and frees it.
void forest_unlink_free(TreeRoot* prev, TreeRoot* root) {
  prev->next = root->next;
  forest_.roots.fetch_sub(1, std::memory_order_relaxed);
  _destroy_root(root);
}

// One pass of the final sweep over the whole forest; the forest mutex is
// held. Every root is told to end its thread, closed and drained; a root
// without references goes, the others wait for the next pass.
void forest_clean_pass() {
  TreeRoot* prev = &forest_.head;
  TreeRoot* root = prev->next;
  while (root != nullptr) {
    int32_t state = root->use_thread;
    while (state > 0 && !root->use_thread.compare_exchange_weak(state, -1)) {
    }
    if (root->node.xfd != -1) node_close_device(root_node(root));
    QVWLock(&root->lock);
    root_drain_leaves(root, kReasonSysExit);
    root_prune(root);
    QVXUNLock(&root->lock);
    ARBOR_LOG(3, "%s: use_count=%d, use_thread=%d",
              root->node.name != nullptr ? root->node.name : "",
              root_use_count(root), root->use_thread.load());
    // The count first: a thread that gave its reference back had set -111
    // before, so reading the state after a count of 0 cannot miss the join
    // (read the other way round, a thread ending in between would be freed
    // with its root and never joined).
    const bool unused = root_use_count(root) == 0;
    if (root->use_thread < -1) root_join_thread(root);
    if (unused) {
      forest_unlink_free(prev, root);
    } else {
      prev = root;
    }
    root = prev->next;
  }
}

// The walk of forest_ref_tree; with a null device it finds nothing (a
// linked root always has a class) and only sweeps.
TreeRoot* sweep_walk(const cdef* device, uint32_t uid, int32_t xfd) {
  std::lock_guard<std::mutex> lock(forest_.mutex);
  TreeRoot* prev = &forest_.head;
  TreeRoot* root = prev->next;
  while (root != nullptr) {
    // The count before the state, as in forest_clean_pass: a count of 0
    // then guarantees that a thread's -111 is seen and the thread joined.
    const int32_t count = root_use_count(root);
    const int32_t state = root->use_thread;
    if (count != 0 && state >= -1) {
      if (root->uid == uid && root->node.device == device &&
          root->node.xfd == xfd) {
        root_ref(root);
        return root;
      }
      prev = root;
    } else {
      if (state < -1) {
        QVWLock(&root->lock);
        root_drain_leaves(root, kReasonThreadTerminated);
        QVXUNLock(&root->lock);
        root_join_thread(root);
      }
      if (root_use_count(root) == 0) forest_unlink_free(prev, root);
    }
    root = prev->next;
  }
  return nullptr;
}

}  // namespace

// Three compares per live root. A dead root (no references, or a finished
// read thread) is dealt with where it stands: its sessions end with
// "Thread_Terminated", its thread is joined, and without references it is
// unlinked and freed; a root that a holder still keeps is looked at again
// as a live one. Never returns a root whose thread has finished.
TreeRoot* forest_ref_tree(const cdef* device, uint32_t uid, int32_t xfd) {
  return sweep_walk(device, uid, xfd);
}

void forest_sweep_closed() {
  const int32_t closed = forest_.closed_unswept.load(std::memory_order_relaxed);
  if (closed <= 0 ||
      closed * kSweepShare < forest_.roots.load(std::memory_order_relaxed)) {
    return;
  }
  forest_.closed_unswept.fetch_sub(closed, std::memory_order_relaxed);
  sweep_walk(nullptr, 0, 0);
}

// Passes repeat, each ending with a pause, until the forest is empty; an
// empty forest returns at once. There is no limit on the passes: a read
// thread that never leaves its Read keeps the stop waiting, which the
// level-3 line of each pass shows.
void forest_make_clean() {
  ARBOR_LOG(3, "%s", "forest_make_clean");
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(forest_.mutex);
      if (forest_.head.next == nullptr) return;
      forest_clean_pass();
    }
    usleep(kMakeCleanPause);
  }
}
