/*
 * device/datapath.h - how a chunk travels down a tree: the read thread of a
 * threaded root, the walker that hands each node's output to its active
 * children, and the node function transf that writes, converts, or queues
 * the network writes that run once the root's lock is released.
 *
 * Locks. A walk runs under the root's lock held for reading, taken by the
 * caller of walk_tree (the read thread or the Tree_inflate / Tree_inband
 * commands). Network writes never run inside a walk: pipe nodes append a
 * job to the walk's ResponseList, and the caller runs respond() after it
 * has released the lock.
 */
#ifndef ARBOR_SRC_DEVICE_DATAPATH_H
#define ARBOR_SRC_DEVICE_DATAPATH_H

#include <cstdint>

#include "arbor/timedq.h"
#include "device/forest.h"

// The read thread's buffer, and the most one Read may return.
inline constexpr uint32_t kRdSize = 63488;

// Packet types ORed into the flag word: media (4) and in-band text (5).
inline constexpr uint32_t kFlagMedia = 0x40000;
inline constexpr uint32_t kFlagInband = 0x50000;

// A node function: gets what the parent produced (data, size) and returns
// the buffer for the children, its length in *out_size, or null to stop the
// walk below node. A result other than data is a heap buffer that the walker
// frees once every child has used it.
typedef const void* (*NodeFn)(ResponseList* respr, TreeNode* node,
                              uint32_t* out_size, const void* data,
                              uint32_t size, uint32_t flags);

// Applies fn to node, then depth first to each active child (children in
// their array's order, nchildren re-read after each child). node itself is
// not tested for active. Returns the number of descendants on which fn ran.
// The caller holds node's root lock for reading. Cannot fail.
int32_t walk_tree(ResponseList* respr, TreeNode* node, NodeFn fn,
                  const void* data, uint32_t size, uint32_t flags);

// The node function of media: a root passes its input on, a LAN or WAN
// pipe node queues one deferred write, a leaf writes, a device converts or
// passes. Null node or class is our fault (assertion "node && node->device").
const void* transf(ResponseList* respr, TreeNode* node, uint32_t* out_size,
                   const void* data, uint32_t size, uint32_t flags);

// The body of a root's read thread. The starter has taken the thread's
// reference and set use_thread to 2; the thread sets -111 and gives the
// reference back as its last touch of the root, on every way out.
void* thread_read_root(void* root);

#endif  // ARBOR_SRC_DEVICE_DATAPATH_H
