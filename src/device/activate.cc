// device/activate.cc - marking a branch active: the step at which a source
// starts to flow. The branch is marked from the leaf up to its first active
// ancestor; when that walk reaches the root and the root's driver asked for
// a read thread, the thread starts here; the root's driver hears "MainCmd
// 24" on every activation.
//
// Threads and locks: everything here runs on the consumer. active_branch
// runs with the root's lock held (for reading from Tree_active_branch, for
// writing from tree_build), or on a root nobody else can reach yet; `active`
// and `use_thread` are atomic words that a read thread reads without the
// lock. Lock order of Tree_active_branch: forest_ref_tree_by_sid takes and
// releases the forest mutex, then root->lock for reading; the lock is
// released before the reference.
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "arbor/forest.h"
#include "arbor/support.h"
#include "device/build.h"
#include "device/datapath.h"
#include "device/observe.h"
#include "init/assert.h"

namespace {

// The MainCmd code that tells a root's driver its branch is running.
constexpr int32_t kMainCmdActive = 24;

std::atomic<bool> fail_next_thread{false};

// The read thread's stack. A read thread runs the source's Read and the
// walk (Convert and Write of the devices below, the deferred network
// writes), none of which needs deep frames, and glibc keeps up to 40 MiB of
// freed thread stacks for reuse: at 256 KiB a host that opens and closes
// sources quickly (a session per source, each with its thread) reuses up to
// 160 stacks instead of mapping, guarding and unmapping 8 MiB for each
// thread, which took a fifth of the CPU of such churn. Drivers learn the
// size from arbor/cdef.h (ARBOR_READ_THREAD_STACK).
constexpr size_t kReadThreadStack = ARBOR_READ_THREAD_STACK;

}  // namespace

void activate_test_fail_next_thread() { fail_next_thread = true; }

TreeNode* active_branch(TreeRoot* root, TreeNode* leaf) {
  if (leaf == nullptr) return nullptr;
  TreeNode* top = leaf;
  top->active = 1;
  while (top->parent != nullptr && top->parent->active == 0) {
    top = top->parent;
    top->active = 1;
  }
  ARBOR_LOG(3, "%s(%s,%d, hint=%d)", "active_branch",
            top->name != nullptr ? top->name : "", top->xfd.load(), 1);
  if (top == root_node(root) && root->use_thread == 1 &&
      tree_confirm_threading(root) != 0) {
    ARBOR_LOG(0, "%s: threading fail.", "active_branch");
  }
  root_notify(root_node(root), nullptr, "MainCmd=%d;", kMainCmdActive);
  return top;
}

// A failed start gives the thread's reference back and leaves use_thread at
// 1 ("wanted"): the root is already active, so no later activation retries,
// and the root carries no data from its own source until its sessions end;
// teardown and the sweeps treat a root in state 1 as one without a thread.
int32_t tree_confirm_threading(TreeRoot* root) {
  ARBOR_ASSERT(root->use_thread == 1, "root->use_thread == 1");
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) {
    ARBOR_LOG(0, "%s", "tree_confirm_threading");
    return -1;
  }
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
  // Fails only below PTHREAD_STACK_MIN, which the size is far above; the
  // default stack would then stay, which is harmless.
  pthread_attr_setstacksize(&attr, kReadThreadStack);
  root_ref(root);  // the thread's reference
  int rc = EAGAIN;
  if (!fail_next_thread.exchange(false))
    rc = pthread_create(&root->thread, &attr, thread_read_root, root);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    root_unref(root);
    ARBOR_LOG(0, "%s: pthread_create: %s", "tree_confirm_threading",
              std::strerror(rc));
    return -1;
  }
  ARBOR_LOG(3, "thread-created: %s, func=%s(%p) ...", "&root->thread",
            "thread_read_root", static_cast<void*>(root));
  // 1 -> 2 only: a thread that has already ended (-111), or a root told to
  // end (-1), keeps its later state so that the sweep still joins it.
  int32_t wanted = 1;
  root->use_thread.compare_exchange_strong(wanted, 2);
  return 0;
}

void Tree_active_branch(uintptr_t, const void* payload, uint32_t size) {
  const auto* sid = static_cast<const char*>(payload);
  const int length =
      sid != nullptr ? static_cast<int>(strnlen(sid, size)) : 0;
  ARBOR_LOG(3, "%s(%.*s)", "Tree_active_branch", length,
            sid != nullptr ? sid : "");
  // The sid comes from a peer's message: one without its NUL is dropped.
  if (sid == nullptr || size == 0 || size >= TREE_SID_SIZE ||
      static_cast<uint32_t>(length) == size) {
    return;
  }
  TreeRoot* root = forest_ref_tree_by_sid(sid);
  if (root == nullptr) {
    ARBOR_LOG(0, "%s(%s):forest_ref_tree_by_sid: NOT found",
              "Tree_active_branch", sid);
    return;
  }
  QVRLock(&root->lock);
  const LeafIndexEntry* row = root_find_leaf_by_sid(root, sid);
  if (row != nullptr) {
    active_branch(root, row->leaf);
    observe_rows_began(root);
    ARBOR_LOG(2, "branch(sid=%s) vpipe-IO ready, actived.", sid);
  } else {
    ARBOR_LOG(0, "%s(%s):root_find_leaf_by_sid: NOT found",
              "Tree_active_branch", sid);
  }
  QVXUNLock(&root->lock);
  root_unref(root);
}
