/*
 * device/build.h - making branches: opening the devices of a chain of hops,
 * finding or opening the root that carries it, joining the chain to the
 * tree, and marking a branch active so that its source starts to flow.
 *
 * Everything here runs on the command queue's consumer, the one thread that
 * builds trees. A chain joins a tree only once all of its devices are open,
 * so a failure leaves the tree as it was and a walker never sees half a
 * chain.
 *
 * Shape changes. A read thread may walk a linked tree under the root's lock
 * held for reading while the consumer adds to it. Every change to the shape
 * of a linked tree (children, nchildren, the leaf index) is therefore made
 * with the root's lock held for writing: tree_new_branch holds it for
 * writing over the whole work on an existing root (the search for the
 * attach node, the Open calls and the join). The cost is that the root's
 * read thread waits while the new devices open; the gain is that the attach
 * node cannot go (Tree_timed_check on the worker removes branches) between
 * the search and the join. A new root is built before it is linked, with no
 * lock: nobody can reach it.
 */
#ifndef ARBOR_SRC_DEVICE_BUILD_H
#define ARBOR_SRC_DEVICE_BUILD_H

#include <cstdint>

#include "arbor/forest.h"
#include "device/forest.h"

// --------------------------------------------------------------- build.cc

// Clears node and fills it from hop: device, heap copies of name and option
// (null where the hop has none, or where the copy failed), xfd from fd.
// Returns node.
TreeNode* node_init(TreeNode* node, const MNodeInfo* hop);

// Stores child at the end of parent's children, growing the array by 8 when
// nchildren is a multiple of 8. Returns child; null when the array could
// not grow, and then parent is unchanged.
TreeNode* node_append_child(TreeNode* parent, TreeNode* child);

// Opens node's device and returns its xfd, or -1 on failure (logged at
// level 0). threading is non-null for a root only: it gets the driver's
// wish for a read thread. Network classes call no driver:
//  - a peer node (LAN or WAN under a node of the same class) keeps its xfd,
//    the peer's uid, whatever it is;
//  - a root of a network class must bring its pipe: LAN above 0, WAN 0 or
//    above;
//  - any other LAN node with xfd 0 takes lan_pipe_alloc() and owns it; 0
//    from the table fails; a LAN node with a positive xfd keeps it;
//  - a negative xfd on a network node fails (a request may carry FD<i> -1).
int32_t node_open_device(TreeNode* node, uint32_t* threading);

// A new open node, joined to parent (may be null); null on failure, and then
// nothing was opened, nothing allocated and parent is unchanged.
TreeNode* create_node(TreeNode* parent, const MNodeInfo* hop);

// The end of a new chain that hangs in no tree, all devices open; null for
// count 0 or on failure, and then every device opened for it is closed
// again, lowest first, and its pipe numbers are given back.
TreeNode* tree_create_branch(const MNodeInfo* hops, uint32_t count);

// tree_create_branch, then joins the chain's top under attach (taking a
// reference on root when attach is root). Null on failure, with the tree
// unchanged. attach's root is locked for writing, or not yet linked.
TreeNode* do_tree_create_new(TreeRoot* root, TreeNode* attach,
                             const MNodeInfo* hops, uint32_t count);

// A new root opened from hop, not linked, use_count 0, lock initialised;
// null on failure with nothing left open.
TreeRoot* _create_root(uint32_t uid, const MNodeInfo* hop);

// The node where the chain of size hops ends, or null (logged); shares the
// root and the branch as far as the rules allow and activates what may run
// at once. sid must be given and size above 0 (assertion "sid && size >
// 0"). When held is not null and the result is not null, the call returns
// with *held set to the result's root, locked for writing and with one more
// reference, for the caller to finish the session under the same lock and
// then call tree_release(*held). Consumer thread only.
TreeNode* tree_build(uint32_t uid, const char* sid, int32_t exclusive,
                     const MNodeInfo* hops, uint32_t size, TreeRoot** held);
TreeNode* tree_new_branch(uint32_t uid, const char* sid, int32_t exclusive,
                          const MNodeInfo* hops, uint32_t size);
// Releases what tree_build handed over: the lock, then the reference.
void tree_release(TreeRoot* root);

// Test seam, never called by the engine: after `after` more successful
// growths of a children array or a leaf index, every further one fails
// (negative: none fails).
void build_test_fail_grows(int32_t after);
// True when the seam lets one more growth through; counts it.
bool build_grow_allowed();

// ------------------------------------------------------------ activate.cc

// Marks leaf and its inactive ancestors active, starting the root's read
// thread when the root becomes active with use_thread 1, and hands the
// MainCmd 24 text to the root's driver. Returns the highest node marked (the
// leaf itself when nothing new was), or null for a null leaf. Runs with the
// root's lock held (reading or writing), or on a root not yet linked.
TreeNode* active_branch(TreeRoot* root, TreeNode* leaf);

// Starts the joinable read thread of root (use_thread must be 1, assertion
// "root->use_thread == 1") with the thread's own reference. Returns 0, and
// use_thread is 2; or -1 (logged), and then use_thread is still 1, no
// reference was kept and no thread runs. Test seam: see below.
int32_t tree_confirm_threading(TreeRoot* root);

// Test seam, never called by the engine: the next tree_confirm_threading
// fails as if the thread could not be started.
void activate_test_fail_next_thread();

// --------------------------------------------------------------- setup.cc

// Adds the row (uid, ascode, copy of sid, leaf) to the index of leaf's root,
// taking the root's reference for a row that makes the root itself a leaf.
// Returns true; false when memory ran out, and then nothing changed. The
// root's lock is held for writing, or the root is not linked.
bool forest_index_leaf(uint32_t uid, int32_t ascode, const char* sid,
                       TreeNode* leaf);

#endif  // ARBOR_SRC_DEVICE_BUILD_H
