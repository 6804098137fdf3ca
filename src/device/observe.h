/*
 * device/observe.h - the forest's side of the session observer
 * (arbor/observe.h): the calls the forest makes where a session begins,
 * ends or fails, and the per-node counters of the data path.
 *
 * Every call here is cheap when no observer is set (one atomic load) and
 * may be made with forest locks held: it only copies texts into an event
 * and queues it for the observer's own thread. Nothing here takes a forest
 * lock, so the lock order of device/forest.h is untouched.
 */
#ifndef ARBOR_SRC_DEVICE_OBSERVE_H
#define ARBOR_SRC_DEVICE_OBSERVE_H

#include <atomic>
#include <cstdint>

#include "arbor/forest.h"
#include "arbor/observe.h"
#include "device/forest.h"

// A session's row was added with its leaf already active, or its branch
// became active: "begin", once per row (the row's `began` word).
// Root's lock held (for reading on the consumer is enough: only the
// consumer writes `began`).
void observe_rows_began(TreeRoot* root);

// A row is being taken out of its index (its leaf not yet freed): "end"
// with reason when it had begun, else "fail". Root's lock held for writing.
void observe_row_removed(const LeafIndexEntry& row, const char* reason);

// A request that got no row (its tree could not be built): "fail", with the
// chain of the request's hops.
void observe_request_failed(uint32_t uid, int32_t ascode, const char* sid,
                            const MNodeInfo* hops, uint32_t length,
                            const char* reason);

// What passed a node, counted by the data path under the root's lock for
// reading. A plain load and store, not a locked add: the data path pays no
// bus lock per node and chunk. The rare case of two walkers on one node at
// once (a read thread and an in-band injection) may lose a count; the
// figures are for people watching, not for accounting.
inline void observe_count(TreeNode* node, uint32_t bytes) {
  node->chunks.store(node->chunks.load(std::memory_order_relaxed) + 1,
                     std::memory_order_relaxed);
  node->bytes.store(node->bytes.load(std::memory_order_relaxed) + bytes,
                    std::memory_order_relaxed);
}

#endif  // ARBOR_SRC_DEVICE_OBSERVE_H
