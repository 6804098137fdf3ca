// device/teardown.cc - the end of sessions. All ends of a session come down
// to _cleanup_sid, which takes one row out of a root's leaf index and has
// what only that row kept removed; around it stand the entries by reason:
// one sid (Tree_destroy_branch), one LAN peer (Tree_cleanup_byuid), one
// device class (Tree_cleanup_drv), one root (root_drain_leaves) and a branch
// that did not become active in time (Tree_timed_check). The owners hear
// "SessionDelete" or "RUN_FAIL" through sendasc.
//
// Removal of a root is lazy: the last row only closes the root (device
// closed, index freed, exclusive 1, read thread told to end); a sweep frees
// it later (sweep.cc).
//
// Threads: the commands run on the consumer; Tree_timed_check on the timed
// queue's worker; is_free_time on any thread. They meet on a root only
// through its lock, which every removal holds for writing. Lock order as in
// device/forest.h: forest mutex, then root's lock. Messages are
// sent under the root's lock (and under the forest mutex in the loops over
// the forest); what goes to the local table is posted to the timed queue
// (forest_dispatch_local), so no handler runs under those locks.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/rsevents.h"
#include "arbor/send.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "arbor/timedq.h"
#include "device/forest.h"
#include "device/observe.h"
#include "init/assert.h"
#include "init/sys_state.h"
#include "strutils/wire_text.h"

namespace {

constexpr int32_t kMainCmdFollower = 17;
// How many sids one run of Tree_cleanup_byuid gathers.
constexpr int kByuidMaxSids = 128;

const char* text_or_empty(const char* text) {
  return text != nullptr ? text : "";
}

// Copies sid (null: empty) into a slot of TREE_SID_SIZE bytes, cut to fit.
void sid_copy(char (&slot)[TREE_SID_SIZE], const char* sid) {
  std::snprintf(slot, sizeof slot, "%s", text_or_empty(sid));
}

// Takes row `index` out of root's index: the last row moves into its place.
LeafIndexEntry root_pop_leaf_at(TreeRoot* root, int32_t index) {
  LeafIndexEntry row = root->leaves[index];
  root->leaves[index] = root->leaves[--root->leaves_size];
  return row;
}

// The position of sid in root's index, searched from row 0, or -1.
int32_t root_pop_leaf_index(const TreeRoot* root, const char* sid) {
  ARBOR_LOG(3, "%s: sid=%s, leaves_size=%d ...", "root_pop_leaf_index", sid,
            root->leaves_size);
  for (int32_t i = 0; i < root->leaves_size; ++i) {
    const LeafIndexEntry& row = root->leaves[i];
    ARBOR_LOG(3, "%s: sid=%s, ... [%d]=(%s,%p).", "root_pop_leaf_index", sid,
              i, text_or_empty(row.sid), static_cast<const void*>(row.leaf));
    if (row.sid != nullptr && std::strcmp(row.sid, sid) == 0) return i;
  }
  return -1;
}

// True when another row of root still holds leaf.
bool is_leaf_shared(const TreeRoot* root, const TreeNode* leaf,
                    const char* sid) {
  for (int32_t i = 0; i < root->leaves_size; ++i) {
    if (root->leaves[i].leaf == leaf) {
      ARBOR_LOG(3, "%s: sid=%s, leaves=%d", "_cleanup_sid", sid,
                root->leaves_size);
      return true;
    }
  }
  ARBOR_LOG(3, "%s(%s, %p): False", "is_leaf_shared",
            text_or_empty(leaf->name), static_cast<const void*>(leaf));
  ARBOR_LOG(3, "%s: !is_leaf_shared, %s, %p, erasing ...", "_cleanup_sid",
            sid, static_cast<const void*>(leaf));
  return false;
}


// The removal that follows taking `row` out of the index. The reference
// given back when the removal reaches the root is the branch's, or, for a
// row whose leaf is the root itself, the one that such rows hold together
// (device/forest.h): either way the count stays true.
TreeNode* cleanup_row(TreeRoot* root, const LeafIndexEntry& row,
                      const char* sid, const char* reason, LeafOwner* out) {
  if (out != nullptr) *out = {row.uid, row.ascode};
  observe_row_removed(row, reason);
  std::free(row.sid);
  if (row.leaf == nullptr) {
    if (root->leaves_size == 0) root_close(root);
    return nullptr;
  }
  if (is_leaf_shared(root, row.leaf, sid)) return nullptr;
  // A longer chain may run through another session's leaf: the removal
  // stops at the nearest ancestor that a remaining row names, which keeps
  // that session's leaf (and the reference of its branch) alive.
  TreeNode* stop = root_node(root);
  for (TreeNode* up = row.leaf->parent; up != nullptr && up != stop;
       up = up->parent) {
    if (root_row_names(root, up)) {
      stop = up;
      break;
    }
  }
  TreeNode* stopped = destroy_branch(row.leaf, stop);
  if (stopped != root_node(root)) return stopped;
  root_unref(root);
  if (root->leaves_size == 0) root_close(root);
  return stopped;
}

// Ends the session sid of the forest: the Follower text for a device root,
// the removal, and "SessionDelete" to the owner unless the leaf stays for
// another session. Lock order: forest mutex (inside the look-up), then the
// root's lock; the reference bridges the two and is released last.
void destroy_by_sid(const char* reason, const char* sid) {
  TreeRoot* root = forest_ref_tree_by_sid(sid);
  if (root == nullptr) {
    ARBOR_LOG(3, "%s: %s: cannot leaf.", "Tree_destroy_branch", sid);
    return;
  }
  QVWLock(&root->lock);
  if (!is_network_dev(root->node.device)) {
    root_notify(root_node(root), "Follower",
                "MainCmd=%d;event=Follower;Status=Leaving;sidN=%s;",
                kMainCmdFollower, sid);
  }
  LeafOwner owner{};
  if (_cleanup_sid(root, sid, reason, &owner) != nullptr)
    usync_closing(owner.uid, owner.ascode, sid, reason);
  QVXUNLock(&root->lock);
  root_unref(root);
}

// A LAN peer node of peer uid: the LAN class under the LAN class, its xfd
// the peer's uid.
bool is_lan_peer_leaf(const TreeNode* leaf, uint32_t uid) {
  const cdef* lan = get_lan_cdef();
  return leaf != nullptr && leaf->device == lan && leaf->parent != nullptr &&
         leaf->parent->device == lan &&
         static_cast<uint32_t>(leaf->xfd.load()) == uid;
}

}  // namespace

// The last row is gone: the read thread is told to end (only a running
// one: a wanted thread that never started has nothing to end), the device
// is closed, the index freed, and no branch joins any more. On the consumer
// the branches that no row keeps are cut as well; on the timed queue's
// worker they are left for the stop, since a builder on the consumer may be
// between hanging a node and indexing it.
void root_close(TreeRoot* root) {
  int32_t running = 2;
  root->use_thread.compare_exchange_strong(running, -1);
  node_close_device(root_node(root));
  std::free(root->leaves);
  root->leaves = nullptr;
  root->exclusive = 1;
  forest_.closed_unswept.fetch_add(1, std::memory_order_relaxed);
  if (cmdq_on_consumer()) root_prune(root);
}

TreeNode* _cleanup_sid(TreeRoot* root, const char* sid, const char* reason,
                       LeafOwner* out) {
  const int32_t index = root_pop_leaf_index(root, sid);
  if (index < 0) return nullptr;
  return cleanup_row(root, root_pop_leaf_at(root, index), sid, reason, out);
}

namespace {

// Runs one deferred local dispatch on the timed queue's worker; also when
// flushed at SysExit, while the tables are still in place.
void dispatch_local_job(int32_t, uintptr_t ascode, int32_t argc,
                        char** argv) {
  if (argc < 1 || argv[0] == nullptr) return;
  asdispatch(get_lan_cdef(), 0, static_cast<int32_t>(ascode), argv[0],
             static_cast<uint32_t>(std::strlen(argv[0])));
}

}  // namespace

// The local table's handlers include the host's own, which may call back
// into the forest (is_free_time, a dial, a hang-up); the callers here hold
// a root's lock and sometimes the forest mutex. So the dispatch is posted
// to the timed queue, which keeps the order of the posts, and runs with no
// forest lock held. Without a queue (before SysInit, or from SysExit on,
// when the tables are empty) it runs at once.
void forest_dispatch_local(int32_t ascode, const char* text, uint32_t size) {
  char* copy = string_make(text, text + size);
  const char* argv[1] = {copy};
  const bool posted =
      copy != nullptr &&
      sys_post_timed(0, dispatch_local_job,
                     static_cast<uintptr_t>(static_cast<uint32_t>(ascode)), 1,
                     argv) != nullptr;
  std::free(copy);
  if (!posted) asdispatch(get_lan_cdef(), 0, ascode, text, size);
}

void forest_send_owner(uint32_t uid, int32_t ascode, const char* text,
                       uint32_t size) {
  if (uid == 0 && ascode <= 0) {
    forest_dispatch_local(0, text, size);
  } else {
    sendasc(uid, ascode, text, size, ARBOR_SEND_CONTROL);
  }
}

// The text is built in 128 bytes; the longest reason (18 bytes) and a sid
// of 63 fit. A text that would not fit is not sent cut (a cut dictionary
// would not parse on the far side): it is logged at level 0 and dropped.
void usync_closing(uint32_t uid, int32_t ascode, const char* sid,
                   const char* reason) {
  char text[128];
  const int n = std::snprintf(text, sizeof text, "%s=%s;%s=%s;coz=%s;",
                              "sidN", text_or_empty(sid), "MainCmd",
                              "SessionDelete", text_or_empty(reason));
  if (n < 0 || static_cast<size_t>(n) >= sizeof text) {
    ARBOR_LOG(0, "%s: too long, not sent: %s", "usync_closing", text);
    return;
  }
  ARBOR_LOG(2, "%s", text);
  forest_send_owner(uid, ascode, text, static_cast<uint32_t>(n));
}

// Same rule for a text that does not fit its 192 bytes.
void raise_link_fail(uint32_t uid, int32_t ascode, const char* sid,
                     const char* reason) {
  if (sid == nullptr) return;
  char text[192];
  const int n = std::snprintf(text, sizeof text, "%s=RUN_FAIL;%s=%s;coz=%s;",
                              "MainCmd", "sidN", sid, text_or_empty(reason));
  if (n < 0 || static_cast<size_t>(n) >= sizeof text) {
    ARBOR_LOG(0, "%s: too long, not sent: %s", "raise_link_fail", text);
    return;
  }
  ARBOR_LOG(0, "Tree_%s: %s", "raise_link_fail", text);
  forest_send_owner(uid, ascode, text, static_cast<uint32_t>(n));
  // A LAN peer's session has a local side too: the same text, dispatched
  // here, tears it down through the same handler.
  if (uid != 0) forest_dispatch_local(ascode, text, static_cast<uint32_t>(n));
}

// Always empties the index: a row that the search by its (copied) sid
// cannot find is taken out by its position, so the loop cannot spin.
void root_drain_leaves(TreeRoot* root, const char* reason) {
  while (root->leaves_size > 0) {
    char sid[TREE_SID_SIZE];
    sid_copy(sid, root->leaves[0].sid);
    const int32_t before = root->leaves_size;
    LeafOwner owner{};
    TreeNode* stopped = _cleanup_sid(root, sid, reason, &owner);
    if (root->leaves_size == before) {
      stopped = cleanup_row(root, root_pop_leaf_at(root, 0), sid, reason,
                            &owner);
    }
    if (stopped != nullptr) usync_closing(owner.uid, owner.ascode, sid, reason);
  }
}

// The event is posted only while the timed queue exists: a command that
// runs during the stop, after the timed queue is gone, tells the driver
// alone.
void root_notify(TreeNode* node, const char* event, const char* format, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  if (node->device != nullptr && node->device->DoEvent != nullptr)
    node->device->DoEvent(text_or_empty(node->name), node->xfd, text);
  if (event == nullptr) return;
  const char* argv[] = {text_or_empty(node->name), event, text};
  sys_post_timed(0, event_emit, 0, 3, argv);
}

extern "C" {

// Refused without a message, after the first line: size 0 (also the null
// payload the queue makes of a sid pushed with size 0), 64 bytes or more,
// no NUL inside size. A null sid with a size is our own pusher's fault
// (assertion "sid"). The sid is not known to end inside size before the
// checks, so the first line prints at most size bytes of it.
ARBOR_EXPORT void Tree_destroy_branch(uintptr_t reason, const void* payload,
                                      uint32_t size) {
  const auto* sid = static_cast<const char*>(payload);
  ARBOR_ASSERT(sid != nullptr || size == 0, "sid");
  ARBOR_LOG(3, "%s(%.*s)", "Tree_destroy_branch", log_precision(size),
            text_or_empty(sid));
  if (size == 0 || size >= TREE_SID_SIZE ||
      std::memchr(sid, '\0', size) == nullptr)
    return;
  destroy_by_sid(reinterpret_cast<const char*>(reason), sid);
}

// The sids are copied out first, since ending a session takes the forest
// mutex and the root's lock itself. Each gathered sid is ended as
// Tree_destroy_branch ends it, but without its limit of 63 bytes with the
// NUL: the sids come from our own index, which admits 63 characters, and
// a session of a peer that left must end whatever its sid, or its branch
// and root would live (streaming to nobody) until the stop.
// Matches beyond the 128th stay until the next run. Lock order: forest
// mutex, then each root's lock in turn.
ARBOR_EXPORT void Tree_cleanup_byuid(uintptr_t reason, const void*,
                                     uint32_t uid) {
  ARBOR_LOG(3, "%s: %u", "Tree_cleanup_byuid", uid);
  if (uid == 0) return;
  char sids[kByuidMaxSids][TREE_SID_SIZE];
  int count = 0;
  {
    std::lock_guard<std::mutex> lock(forest_.mutex);
    for (TreeRoot* root = forest_.head.next;
         root != nullptr && count < kByuidMaxSids; root = root->next) {
      QVWLock(&root->lock);
      for (int32_t i = root->leaves_size - 1; i >= 0 && count < kByuidMaxSids;
           --i) {
        if (is_lan_peer_leaf(root->leaves[i].leaf, uid))
          sid_copy(sids[count++], root->leaves[i].sid);
      }
      QVXUNLock(&root->lock);
    }
  }
  for (int k = 0; k < count; ++k)
    destroy_by_sid(reinterpret_cast<const char*>(reason), sids[k]);
}

// Sessions under a root of another class are taken out by their position,
// so a duplicate sid elsewhere in the index is not hit instead. Lock order:
// forest mutex, then each root's lock for writing.
ARBOR_EXPORT void Tree_cleanup_drv(uintptr_t cls_word, const void*,
                                   uint32_t) {
  ARBOR_LOG(2, "%s", "Tree_cleanup_drv");
  const auto* cls = reinterpret_cast<const cdef*>(cls_word);
  if (cls == nullptr) return;
  std::lock_guard<std::mutex> lock(forest_.mutex);
  for (TreeRoot* root = forest_.head.next; root != nullptr;
       root = root->next) {
    QVWLock(&root->lock);
    if (root->node.device == cls) {
      root_drain_leaves(root, kReasonCleanupDrv);
    } else {
      int32_t i = 0;
      while (i < root->leaves_size) {
        const TreeNode* leaf = root->leaves[i].leaf;
        if (leaf != nullptr &&
            (leaf->device == cls ||
             (leaf->parent != nullptr && leaf->parent->device == cls))) {
          char sid[TREE_SID_SIZE];
          sid_copy(sid, root->leaves[i].sid);
          cleanup_row(root, root_pop_leaf_at(root, i), sid, kReasonCleanupDrv,
                      nullptr);
        } else {
          ++i;  // a removal moved another row to i: look at i again
        }
      }
    }
    QVXUNLock(&root->lock);
  }
}

}  // extern "C"

// Runs on the timed queue's worker, concurrently with the consumer. It
// holds a reference from the look-up and the root's lock for writing, so a
// command cannot change the tree or sweep the root meanwhile. leaf may be
// gone: it is only compared with the row's leaf and followed when equal.
// A check flushed at the stop acts like one that came due: a branch that is
// still not active then has not become so in time.
void Tree_timed_check(int32_t /*elapsed*/, uintptr_t leaf_word, int32_t argc,
                      char** argv) {
  if (argc < 1 || argv == nullptr || argv[0] == nullptr) return;
  const char* sid = argv[0];
  TreeRoot* root = forest_ref_tree_by_sid(sid);
  ARBOR_LOG(3, "%s(%s)", "Tree_timed_check", sid);
  if (root == nullptr) return;
  QVWLock(&root->lock);
  const LeafIndexEntry* row = root_find_leaf_by_sid(root, sid);
  auto* leaf = reinterpret_cast<TreeNode*>(leaf_word);
  if (row != nullptr && row->leaf == leaf) {
    for (const TreeNode* node = leaf; node != nullptr; node = node->parent) {
      if (node->active != 0) continue;
      ARBOR_LOG(0, "branch(sid=%s) timeout, destroy now.", sid);
      LeafOwner owner{};
      if (_cleanup_sid(root, sid, kReasonTimeOut, &owner) != nullptr)
        raise_link_fail(owner.uid, owner.ascode, sid, kReasonTimeOut);
      break;
    }
  }
  QVXUNLock(&root->lock);
  root_unref(root);
}

// Lock order: forest mutex, then each root's lock for reading.
extern "C" ARBOR_EXPORT int32_t is_free_time(void) {
  {
    std::lock_guard<std::mutex> lock(forest_.mutex);
    for (TreeRoot* root = forest_.head.next; root != nullptr;
         root = root->next) {
      QVRLock(&root->lock);
      for (int32_t i = 0; i < root->leaves_size; ++i) {
        const TreeNode* leaf = root->leaves[i].leaf;
        if (leaf != nullptr && is_network_dev(leaf->device)) {
          QVXUNLock(&root->lock);
          return 0;
        }
      }
      QVXUNLock(&root->lock);
    }
  }
  std::lock_guard<std::mutex> lock(forest_.mutex);
  for (TreeRoot* root = forest_.head.next; root != nullptr;
       root = root->next) {
    QVRLock(&root->lock);
    for (int32_t i = 0; i < root->leaves_size; ++i) {
      const LeafIndexEntry& row = root->leaves[i];
      Tree_BRANCH_DBG_PRINT(row.sid, row.uid, row.ascode, row.leaf);
    }
    QVXUNLock(&root->lock);
  }
  return 1;
}

// Built only when level 3 is written. A line longer than 2048 bytes is cut.
void Tree_BRANCH_DBG_PRINT(const char* sid, uint32_t uid, int32_t ascode,
                           const TreeNode* leaf) {
  if (LOG_GetLevel() < 3) return;
  char line[2048];
  size_t used = 0;
  int n = std::snprintf(line, sizeof line, "Tree: %s,%u,%d: ",
                        text_or_empty(sid), uid, ascode);
  for (const TreeNode* node = leaf; n >= 0; node = node->parent) {
    used += static_cast<size_t>(n);
    if (used >= sizeof line || node == nullptr) break;
    n = std::snprintf(line + used, sizeof line - used, "(%s,%u)%p",
                      text_or_empty(node->name),
                      static_cast<uint32_t>(node->xfd.load()),
                      static_cast<const void*>(node));
  }
  ARBOR_LOG(3, "%s", line);
}
