/*
 * device/forest.h - the session forest as the engine sees it: the records
 * of trees, nodes and sessions, the forest list with its two mutexes, and
 * the functions that hold, search, take down and sweep trees.
 *
 * A tree is one opened source (its root) and everything fed from it; a
 * session is one row of its root's leaf index, naming the node where the
 * session's data ends and the peer that owns the session. The forest is a
 * singly linked list of roots, newest first.
 *
 * Lock order, for every path that takes more than one:
 *
 *     forest_.mutex  ->  root->lock (QVRWLock)
 *
 * A root's use_count is an atomic counter, not a lock: it is changed and
 * read at any point of that order. No path takes the forest mutex while it holds a root's lock. A
 * holder of a reference releases the root's lock first and the reference
 * after it, so that a sweep cannot free the lock under its holder. The
 * command queue's mutex, the timed queue, the class mutex and the event lock
 * stand apart: they may be taken under any of these, never the reverse.
 *
 * Who changes what. Trees are built, activated and taken down on the command
 * queue's consumer; Tree_timed_check takes sessions down on the timed
 * queue's worker; read threads only read a tree and count down their own
 * reference. Hence the shape of a tree in the forest (children, nchildren,
 * leaves, leaves_size) changes only with root->lock held for writing, and is
 * read with it held for reading. Words that a read thread reads without the
 * lock (xfd, active, use_thread, exclusive) are atomic.
 *
 * Ownership. Nodes and roots come from node_new / root_new and leave through
 * destroy_branch / _destroy_root (or node_free / root_free for a record that
 * never got further than its allocation). A node owns its name, option,
 * pending and children buffers (malloc family); a leaf row owns its sid.
 */
#ifndef ARBOR_SRC_DEVICE_FOREST_H
#define ARBOR_SRC_DEVICE_FOREST_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <type_traits>

#include "arbor/cdef.h"
#include "arbor/forest.h"
#include "arbor/support.h"

// One node of a tree: an opened device, a pipe, or a peer on a pipe.
//  xfd by kind: a device node holds what Open returned (-1 once closed); a
//  network root and a pipe node hold the pipe; a peer node (network class
//  under the same class) holds the receiving peer's uid, 0 for the service.
struct TreeNode {
  TreeNode* parent;      // null on a root and on the top of a detached chain
  uint32_t nchildren;    // entries in use in children
  TreeNode** children;   // heap, grown by 8, no order; never shrinks
  std::atomic<int32_t> active;  // 0 when made, 1 from active_branch on
  cdef* device;          // the class; never null in a tree
  char* name;            // heap copy of the full name, or null
  char* option;          // heap copy of the option string, or null
  std::atomic<int32_t> xfd;
  int32_t pending_size;  // bytes Convert left over
  void* pending;         // heap buffer of those bytes, or null
  // 1 when xfd is a LAN pipe number that lan_pipe_alloc handed to this node.
  // Only such a number goes back to the pipe table when the node closes: a
  // number that came with a request (FD<i>) may belong to another node.
  int32_t pipe_owned;
  // What passed this node since it was made (device/observe.h): written by
  // the data path under the root's lock for reading, read by snapshots.
  std::atomic<uint64_t> chunks;
  std::atomic<uint64_t> bytes;
};

// One session: where its data ends and who owns it.
struct LeafIndexEntry {
  char* sid;        // heap copy, owned by the index
  TreeNode* leaf;   // several rows may hold one leaf
  uint32_t uid;     // the owner, first argument of sendasc
  int32_t ascode;   // the owner's AS code, second argument of sendasc
  int32_t began;    // 1 once the observer heard "begin"; consumer only
};

// A root: a TreeNode at its start, so a walk along parent ends at one.
//
// use_count (atomic; see root_ref for why no lock guards it) is the sum of
//  - one per node that hangs directly on the root (whoever hangs a node
//    there takes it; _cleanup_sid gives it back when a removal reaches the
//    root),
//  - one while at least one row names the root itself as its leaf (a chain
//    of one hop): the row that makes the root a leaf, while no other row
//    does, takes it; _cleanup_sid gives it back with the last such row,
//  - one for a running read thread, given back as the thread's last act,
//  - one per current holder (forest_ref_tree, forest_ref_tree_by_sid, a
//    builder working on a tree it found).
// A count of 0 frees nothing by itself: only a sweep unlinks and frees.
struct TreeRoot {
  TreeNode node;
  uint32_t uid;                    // owner of the tree, 0: open to all
  std::atomic<int32_t> exclusive;  // non-zero: no branch joins any more
  int32_t leaves_size;             // rows in leaves
  LeafIndexEntry* leaves;          // heap, exactly leaves_size rows; null
                                   // once the root has closed
  std::atomic<int32_t> use_count;  // see above
  // The read thread's state: 0 none, 1 wanted, 2 running, -1 told to end,
  // -111 finished and joinable. Written by several threads; every change
  // moves it towards the end.
  std::atomic<int32_t> use_thread;
  QVRWLock lock;     // the shape of the tree and its leaf index
  pthread_t thread;  // the read thread, valid from use_thread 2 on
  TreeRoot* next;    // the next root of the forest; forest_.mutex
};

static_assert(std::is_standard_layout_v<TreeRoot>,
              "a root must be convertible to and from its node");
static_assert(offsetof(TreeRoot, node) == 0, "TreeRoot starts with a node");

// The forest: head.next is the first root; only next of head is used, so
// unlinking needs no special case for the first root.
struct Forest {
  TreeRoot head;
  std::mutex mutex;  // the list: every next, and unlinking
  // Roots in the list, and roots closed since the last sweep: only the
  // trigger of forest_sweep_closed reads them, so a count that is off by a
  // few sweeps a little early or late, never wrongly.
  std::atomic<int32_t> roots;
  std::atomic<int32_t> closed_unswept;
};

extern Forest forest_;

// Owner of a removed session, filled by _cleanup_sid.
struct LeafOwner {
  uint32_t uid;
  int32_t ascode;
};

// Reasons handed to teardown, as the owners read them in "coz".
// The AS code of session control, and of the service's own sessions.
inline constexpr int32_t kAsSession = 100;

inline constexpr const char* kReasonSysExit = "Sys_Exit";
inline constexpr const char* kReasonThreadTerminated = "Thread_Terminated";
inline constexpr const char* kReasonCleanupDrv = "Cleanup_Drv/Wan";
inline constexpr const char* kReasonTimeOut = "Time out";

// ------------------------------------------------------------ forest.cc

// The node at the start of a root, and the root a node is the start of.
// node_as_root is only for a node known to be a root (parent null, in the
// forest or on its way there).
inline TreeNode* root_node(TreeRoot* root) { return &root->node; }
inline TreeRoot* node_as_root(TreeNode* node) {
  return reinterpret_cast<TreeRoot*>(node);
}

// The root above node: the node reached by following parent to its end.
// node must not be null.
TreeRoot* node_find_root(TreeNode* node);

// Value-initialised records, or null when memory runs out. A root's lock is
// not initialised here: whoever opens the root does that.
TreeNode* node_new();
TreeRoot* root_new();
// Frees the record alone: no device is closed and no member is freed.
// Accept null.
void node_free(TreeNode* node);
void root_free(TreeRoot* root);

// Raise or lower use_count by 1. Lowering a count of 0 is a broken count,
// our own fault (assertion "root->use_count > 0"). After root_unref the
// caller must not touch the root: a sweep may free it at once.
//
// No lock is needed because a count can only rise from 0 where no sweep can
// run beside it: sweeps run on the consumer with the forest mutex held, and
// a reference is taken either by a holder of another one, under the forest
// mutex (the look-ups), or on the consumer (the builders). Lowering is
// sequentially consistent, and so is the sweep's read, so everything a
// holder did to the root happens before the sweep that frees it. The data
// path pays two atomic steps per frame for its reference, not two mutexes.
void root_ref(TreeRoot* root);
void root_unref(TreeRoot* root);
// use_count as it stands.
int32_t root_use_count(TreeRoot* root);

// Makes root the first of the forest, under the forest mutex. Cannot fail.
void forest_link(TreeRoot* root);

// The first root whose leaf index holds sid, with one more reference; null
// when none does. Skips no root for its state and sweeps nothing. Takes the
// forest mutex and each root's lock for reading in turn.
TreeRoot* forest_ref_tree_by_sid(const char* sid);

// The row of sid in root's index, or null. The caller holds root->lock.
LeafIndexEntry* root_find_leaf_by_sid(TreeRoot* root, const char* sid);

// True when a row of root's index names node as its leaf: a longer chain
// may run through another session's leaf, so a removal must stop there.
// The caller holds root->lock.
bool root_row_names(const TreeRoot* root, const TreeNode* node);

// 1 when the branch from root to leaf may run without a word from the far
// side: a network root, or a leaf that is not a network node. Else 0.
int branch_starts_at_once(const TreeRoot* root, const TreeNode* leaf);

// ------------------------------------------------------ node_remove.cc

// Removes leaf and every ancestor that it alone kept, lowest first, never
// past stop and never stop itself; returns the node where it stopped (null
// when a detached chain went up to its top). leaf must not be null
// (assertion "leaf"); a node missing from its parent's children is a broken
// tree (assertion !"error"). The caller holds the root's lock for writing.
TreeNode* destroy_branch(TreeNode* leaf, TreeNode* stop);

// Gives the node's device back by its kind; idempotent. Null is ignored.
void node_close_device(TreeNode* node);

// Frees name, option, pending and children, and clears every field.
void node_free_members(TreeNode* node);

// Brings root to its closed state once no row is left: a running read
// thread is told to end, the device closed, the index freed, exclusive set
// to 1; on the consumer the branches that no row keeps are cut. A sweep
// frees the root later. Root locked for writing.
void root_close(TreeRoot* root);

// Closes and frees every branch under root, lowest first, giving back the
// reference of each node that hung directly on it; returns their number.
// Root locked for writing, or unreachable. Cannot fail.
uint32_t root_prune(TreeRoot* root);

// Frees an unlinked root whose index is empty (assertion
// "root && root->leaves_size == 0"), with whatever nodes still hang on it.
void _destroy_root(TreeRoot* root);

// --------------------------------------------------------- teardown.cc

// Takes the row of sid out of root's index (root locked for writing; sid not
// the index's own string), stores its owner in out (may be null) and
// removes what only that row kept. Returns the node where the removal
// stopped, or null when there was no such row or its leaf stays for another
// row: only a non-null result tells the caller to notify the owner. The
// last row closes the root.
TreeNode* _cleanup_sid(TreeRoot* root, const char* sid, const char* reason,
                       LeafOwner* out);

// Sends a session message to the owner (uid, ascode) of a row by sendasc:
// a LAN peer, or for uid 0 the service's road, which for an AS code of 1 or
// more is the WAN (a failed send logs "send error" and the session is gone
// all the same). The one exception is sendasc's own local delivery (uid 0,
// AS code 0 or less): it would run the local table's handlers, the host's
// among them, under the caller's forest locks, where a handler that calls
// back into the forest deadlocks. That delivery goes the same way, to the
// whole table under AS code 0, but from the timed queue
// (forest_dispatch_local).
void forest_send_owner(uint32_t uid, int32_t ascode, const char* text,
                       uint32_t size);

// Offers text to the local table under ascode, as from this peer, on the
// timed queue's worker (at once when there is no queue): never under the
// caller's locks.
void forest_dispatch_local(int32_t ascode, const char* text, uint32_t size);

// Tells the owner "SessionDelete" with reason (null: empty "coz").
void usync_closing(uint32_t uid, int32_t ascode, const char* sid,
                   const char* reason);

// Tells the owner "RUN_FAIL" with reason, and with uid not 0 also the local
// dispatch, so that the local side tears down through the same handler. A
// null sid does nothing.
void raise_link_fail(uint32_t uid, int32_t ascode, const char* sid,
                     const char* reason);

// Ends every session of root, telling each owner; root locked for writing.
void root_drain_leaves(TreeRoot* root, const char* reason);

// Hands the formatted text (cut at 1023 bytes) to the node's DoEvent, and
// with event not null posts the event for node's name on the timed queue.
void root_notify(TreeNode* node, const char* event, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Timed-queue handler: ends the session argv[0] with "RUN_FAIL" ("Time out")
// when its row still names leaf (arg) and a node from leaf up is inactive.
void Tree_timed_check(int32_t elapsed, uintptr_t leaf, int32_t argc,
                      char** argv);

// One level-3 line: the session and its nodes from leaf up to the root.
void Tree_BRANCH_DBG_PRINT(const char* sid, uint32_t uid, int32_t ascode,
                           const TreeNode* leaf);

// ------------------------------------------------------------ sweep.cc

// The live root keyed (device, uid, xfd) with one more reference, or null;
// sweeps dead roots on the way. Consumer thread only.
TreeRoot* forest_ref_tree(const cdef* device, uint32_t uid, int32_t xfd);

// The consumer's last work: ends every session and frees every root, in
// passes 100000 us apart, until the forest is empty.
void forest_make_clean();

// Sweeps as forest_ref_tree does, finding nothing, once the roots closed
// since the last sweep are an eighth of the forest. Run by the consumer
// between its batches of commands, so that a host that only dials and hangs
// up (no data path, hence no forest_ref_tree) does not keep every closed
// root, and its finished read thread, until the stop. Consumer thread only.
void forest_sweep_closed();

// ------------------------------------------------------------- cmdq.cc

// Payload bytes held by queued commands, and commands queued now. For the
// stop's checks and tests; both cannot fail.
uint32_t cmdq_cached_total();
uint32_t cmdq_queued();
// 1 while a consumer thread exists (from device_start to its end), else 0.
int cmdq_running();
// True on the consumer thread, the one thread that builds trees.
bool cmdq_on_consumer();

// Test seams, never called by the engine: the next device_start fails to
// start its thread; and after `after` more successful allocations of items
// or payload copies, every further one fails (negative: none fails).
void cmdq_test_fail_next_start();
void cmdq_test_fail_allocs(int32_t after);

#endif  // ARBOR_SRC_DEVICE_FOREST_H
