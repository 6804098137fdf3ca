// device/node_remove.cc - closing and freeing nodes: a leaf with the
// ancestors that it alone kept, a device given back by the rule of its
// class, and a root record once nothing refers to it.
//
// Every teardown path ends here: session teardown, the failure paths of
// branch building and the sweeps. What a node owns (its device, its pipe
// number, its buffers) goes with it through node_close_device and
// node_free_members, and through nothing else.
//
// All of it runs with the root's lock held for writing, or on records that
// no other thread can reach (a detached chain, an unlinked root).
#include <cstdlib>

#include "arbor/device_class.h"
#include "arbor/support.h"
#include "device/forest.h"
#include "init/assert.h"

namespace {

// Takes child out of parent's children: the last entry moves into its
// place. A child that is not there is a broken tree, our own fault.
void node_unlink_child(TreeNode* parent, TreeNode* child) {
  for (uint32_t i = 0; i < parent->nchildren; ++i) {
    if (parent->children[i] == child) {
      parent->children[i] = parent->children[--parent->nchildren];
      parent->children[parent->nchildren] = nullptr;
      return;
    }
  }
  arbor_assert_fail("!\"error\"", ARBOR_ASSERT_FILE, __func__, __LINE__);
}

void node_close_and_free(TreeNode* node) {
  node_close_device(node);
  node_free_members(node);
  node_free(node);
}

// Closes and frees node's whole subtree, lowest first, and then node.
// Recursion depth is the depth of the tree, at most 63 hops of a chain.
void node_free_subtree(TreeNode* node) {
  while (node->nchildren != 0) {
    TreeNode* child = node->children[--node->nchildren];
    node->children[node->nchildren] = nullptr;
    node_free_subtree(child);
  }
  node_close_and_free(node);
}

}  // namespace

TreeNode* destroy_branch(TreeNode* leaf, TreeNode* stop) {
  ARBOR_ASSERT(leaf, "leaf");
  if (leaf == stop || leaf->nchildren != 0) return leaf;
  TreeNode* cur = leaf;
  for (;;) {
    TreeNode* parent = cur->parent;
    if (parent == nullptr) {
      node_close_and_free(cur);
      return nullptr;
    }
    node_unlink_child(parent, cur);
    node_close_and_free(cur);
    if (parent == stop || parent->nchildren != 0) return parent;
    cur = parent;
  }
}

// By the kind of node:
//  - LAN pipe node (LAN class under another class): its pipe number goes
//    back to the table when this node took it from lan_pipe_alloc
//    (pipe_owned); a number that came with a request, and any number below
//    1, is left alone. xfd keeps its value; pipe_owned is cleared, so a
//    second call gives nothing back twice.
//  - LAN peer node, LAN root, any WAN node: nothing. WAN pipes belong to the
//    transport.
//  - Any other: Close(xfd) once; xfd is -1 from before the call, so a second
//    teardown path, or a read thread, finds nothing to close. A class
//    without a Close slot only loses its descriptor.
void node_close_device(TreeNode* node) {
  if (node == nullptr || node->device == nullptr) return;
  const cdef* lan = get_lan_cdef();
  if (node->device == lan) {
    const TreeNode* parent = node->parent;
    if (parent == nullptr || parent->device == lan) return;
    const int32_t pipe = node->xfd.load();
    if (node->pipe_owned != 0 && pipe > 0) {
      node->pipe_owned = 0;
      lan_pipe_free(static_cast<uint32_t>(pipe));
      ARBOR_LOG(3, "lan_pipe_free(%d) OK.", pipe);
    }
    return;
  }
  if (node->device == get_wan_cdef()) return;
  const int32_t fd = node->xfd.exchange(-1);
  if (fd == -1) return;
  const char* name = node->name != nullptr ? node->name : "";
  ARBOR_LOG(3, "%s:Close@%p(fd=%d): %s.", "node_close_device",
            reinterpret_cast<const void*>(node->device->Close), fd, name);
  if (node->device->Close != nullptr) node->device->Close(fd);
  ARBOR_LOG(3, "%s:Close(fd=%d): %s, OK.", "node_close_device", fd, name);
}

void node_free_members(TreeNode* node) {
  std::free(node->name);
  std::free(node->option);
  std::free(node->pending);
  std::free(node->children);
  node->parent = nullptr;
  node->nchildren = 0;
  node->children = nullptr;
  node->active = 0;
  node->device = nullptr;
  node->name = nullptr;
  node->option = nullptr;
  node->xfd = 0;
  node->pending_size = 0;
  node->pending = nullptr;
  node->pipe_owned = 0;
  node->chunks = 0;
  node->bytes = 0;
}

// Takes every node off root, each subtree closed and freed lowest first, and
// gives back the reference that each node hanging directly on the root
// holds. For branches that no row keeps (a peer node that could not be made
// after its pipe node was), which would otherwise pin the root for ever.
// Returns the number of branches cut. The root is locked for writing or
// unreachable.
uint32_t root_prune(TreeRoot* root) {
  TreeNode* node = root_node(root);
  uint32_t cut = 0;
  while (node->nchildren != 0) {
    TreeNode* child = node->children[--node->nchildren];
    node->children[node->nchildren] = nullptr;
    node_free_subtree(child);
    root_unref(root);
    ++cut;
  }
  return cut;
}

// Nodes still on the root are closed and freed with it; with true counts
// there are none, since each would hold a reference.
void _destroy_root(TreeRoot* root) {
  ARBOR_ASSERT(root && root->leaves_size == 0,
               "root && root->leaves_size == 0");
  TreeNode* node = root_node(root);
  while (node->nchildren != 0) {
    TreeNode* child = node->children[--node->nchildren];
    node->children[node->nchildren] = nullptr;
    node_free_subtree(child);
  }
  std::free(root->leaves);
  root->leaves = nullptr;
  node_free_members(node);
  QVUNInitRWLock(&root->lock);
  root_free(root);
}
