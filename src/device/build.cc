// device/build.cc - turning a chain of hops into nodes: opening devices by
// the rule of their class, making roots and nodes, building a detached
// chain, and tree_build, which finds or opens the root of a chain, reuses
// what the rules allow and joins the rest.
//
// Sharing. A chain that is not exclusive shares the youngest root with the
// same class, owner and name, and reuses existing nodes from the root down
// as long as class and name match, except that the last hop is always
// opened anew beside an equal node (the edge rule), and that the walk stops
// at a network node: nothing under a pipe is shared.
//
// Lock order (device/forest.h): forest_.mutex for the search, which takes
// the reference before it lets go; the forest mutex is released
// before root->lock is taken, and root->lock is held for writing over the
// whole work on an existing root (see device/build.h for why). Open never
// runs under the forest mutex. Consumer thread only.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "arbor/device_class.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "device/build.h"
#include "init/assert.h"

namespace {

// Children arrays grow by this many entries.
constexpr uint32_t kChildStep = 8;

// Growths left before the test seam fails them; negative: no seam.
std::atomic<int32_t> grow_budget{-1};

const char* text_or_empty(const char* text) {
  return text != nullptr ? text : "";
}

// Names compare by strcmp; a missing name equals only a missing name.
bool names_equal(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return std::strcmp(a, b) == 0;
}

bool node_matches(const TreeNode* node, const MNodeInfo* hop) {
  return node->device == hop->device && names_equal(node->name, hop->name);
}

// True when node_init lost a string that the hop had: memory ran out.
bool node_copy_failed(const TreeNode* node, const MNodeInfo* hop) {
  return (hop->name != nullptr && node->name == nullptr) ||
         (hop->option != nullptr && node->option == nullptr);
}

TreeNode* chain_top(TreeNode* node) {
  while (node->parent != nullptr) node = node->parent;
  return node;
}

// Closes and frees a detached chain from its lowest node up. The top hangs
// nowhere, so node_close_device cannot tell a pipe node there from a peer
// node: a pipe number it took is given back here.
void chain_discard(TreeNode* leaf) {
  TreeNode* top = chain_top(leaf);
  const int32_t pipe = top->xfd;
  if (top->device == get_lan_cdef() && top->pipe_owned != 0 && pipe > 0) {
    top->pipe_owned = 0;
    lan_pipe_free(static_cast<uint32_t>(pipe));
  }
  destroy_branch(leaf, nullptr);
}

// create_node, but the node's kind is judged as if it hung under `above`
// (the node the chain will join), while it is joined to parent.
TreeNode* create_node_under(TreeNode* parent, const TreeNode* above,
                            const MNodeInfo* hop) {
  TreeNode* node = node_new();
  if (node == nullptr) return nullptr;
  node_init(node, hop);
  // The parent is set before the open: a peer node is known by its parent.
  node->parent = const_cast<TreeNode*>(above);
  if (node_copy_failed(node, hop) || node_open_device(node, nullptr) == -1) {
    node_free_members(node);
    node_free(node);
    return nullptr;
  }
  node->parent = parent;
  if (parent != nullptr && node_append_child(parent, node) == nullptr) {
    node_close_device(node);
    node_free_members(node);
    node_free(node);
    return nullptr;
  }
  return node;
}

// tree_create_branch whose first node is judged as hanging under above.
TreeNode* chain_build(const TreeNode* above, const MNodeInfo* hops,
                      uint32_t count) {
  TreeNode* previous = nullptr;
  for (uint32_t i = 0; i < count; ++i) {
    const MNodeInfo* hop = &hops[i];
    TreeNode* node = create_node_under(
        previous, previous != nullptr ? previous : above, hop);
    if (node == nullptr) {
      ARBOR_LOG(0, "create_node(%s,%s) error", text_or_empty(hop->name),
                text_or_empty(hop->option));
      if (previous != nullptr) chain_discard(previous);
      return nullptr;
    }
    ARBOR_LOG(3, "node(%s,%d)", text_or_empty(node->name), node->xfd.load());
    previous = node;
  }
  return previous;
}

// The youngest shareable root for hop under uid, with one more reference;
// null when there is none.
TreeRoot* forest_find_shared(uint32_t uid, const MNodeInfo* hop) {
  std::lock_guard hold(forest_.mutex);
  for (TreeRoot* root = forest_.head.next; root != nullptr;
       root = root->next) {
    if (root->exclusive != 0) continue;
    if (root->uid == uid && node_matches(root_node(root), hop)) {
      root_ref(root);
      return root;
    }
  }
  return nullptr;
}

TreeNode* find_child(TreeNode* cur, const MNodeInfo* hop) {
  for (uint32_t i = 0; i < cur->nchildren; ++i) {
    TreeNode* child = cur->children[i];
    ARBOR_LOG(3, "%s: drv=%p?%p, %s?%s", "find_child",
              static_cast<void*>(child->device),
              static_cast<void*>(hop->device), text_or_empty(child->name),
              text_or_empty(hop->name));
    if (node_matches(child, hop)) return child;
  }
  return nullptr;
}

// The node under which the rest of the chain goes, and in *depth the number
// of hops that the tree covers (nodes from there up to the root).
TreeNode* maxdepth_reuse_except_edge(TreeRoot* root, const MNodeInfo* hops,
                                     uint32_t size, uint32_t* depth) {
  TreeNode* cur = root_node(root);
  uint32_t i = 1;
  for (;;) {
    TreeNode* child = nullptr;
    if (i != size && cur->nchildren != 0) child = find_child(cur, &hops[i]);
    if (child == nullptr) {
      ARBOR_LOG(3, "%s: %s, %u", "maxdepth_reuse_except_edge",
                text_or_empty(cur->name),
                static_cast<uint32_t>(cur->xfd.load()));
      *depth = i;
      return cur;
    }
    if (is_network_dev(hops[i].device)) {
      *depth = i + 1;
      return child;
    }
    if (i == size - 1) {
      *depth = i;
      return cur;
    }
    cur = child;
    ++i;
  }
}

TreeNode* tree_build_new(uint32_t uid, int32_t exclusive,
                         const MNodeInfo* hops, uint32_t size,
                         TreeRoot** held) {
  TreeRoot* root = _create_root(uid, &hops[0]);
  if (root == nullptr) return nullptr;
  if (exclusive != 0) root->exclusive = exclusive;
  TreeNode* leaf = do_tree_create_new(root, root_node(root), hops + 1,
                                      size - 1);
  if (leaf == nullptr) {
    node_close_device(root_node(root));
    _destroy_root(root);
    return nullptr;
  }
  forest_link(root);
  if (branch_starts_at_once(root, leaf)) active_branch(root, leaf);
  if (held != nullptr) {
    // No row names the new root yet, so no other thread changes it: taking
    // the lock after the link loses nothing.
    root_ref(root);
    QVWLock(&root->lock);
    *held = root;
  }
  return leaf;
}

}  // namespace

void build_test_fail_grows(int32_t after) { grow_budget = after; }

bool build_grow_allowed() {
  int32_t left = grow_budget.load();
  while (left >= 0) {
    if (left == 0) return false;
    if (grow_budget.compare_exchange_weak(left, left - 1)) return true;
  }
  return true;
}

TreeNode* node_init(TreeNode* node, const MNodeInfo* hop) {
  node_free_members(node);  // clears every field; the record holds nothing
  node->device = hop->device;
  if (hop->name != nullptr) node->name = stringdup(hop->name);
  if (hop->option != nullptr) node->option = stringdup(hop->option);
  node->xfd = hop->fd;
  return node;
}

// A failed growth leaves the children as they were: the caller gives up the
// child, and the tree does not change.
TreeNode* node_append_child(TreeNode* parent, TreeNode* child) {
  if (parent->nchildren % kChildStep == 0) {
    void* grown = nullptr;
    if (build_grow_allowed()) {
      grown = std::realloc(parent->children,
                           (parent->nchildren + kChildStep) * sizeof(TreeNode*));
    }
    if (grown == nullptr) {
      ARBOR_LOG(0, "%s: no memory for %u children.", "node_append_child",
                parent->nchildren + kChildStep);
      return nullptr;
    }
    parent->children = static_cast<TreeNode**>(grown);
  }
  parent->children[parent->nchildren++] = child;
  return child;
}

// Network nodes: what a pipe or peer number may be is settled here, since
// such numbers come in messages (FD<i>) and must never stop the process; a
// number that cannot be used fails the hop.
int32_t node_open_device(TreeNode* node, uint32_t* threading) {
  const char* name = text_or_empty(node->name);
  const char* option = text_or_empty(node->option);
  if (node->device == nullptr) {
    ARBOR_LOG(0, "%s: %s: drv not exist.", "node_open_device", name);
    return -1;
  }
  ARBOR_LOG(3, "%s(%s, %s).", "node_open_device", name, option);
  if (is_network_dev(node->device)) {
    const int32_t fd = node->xfd;
    const bool lan = node->device == get_lan_cdef();
    const TreeNode* parent = node->parent;
    if (parent != nullptr && parent->device == node->device) return fd;
    if (fd < 0 || (lan && threading != nullptr && fd == 0)) {
      ARBOR_LOG(0, "%s(%s, %s): bad pipe %d.", "node_open_device", name,
                option, fd);
      return -1;
    }
    if (lan && fd == 0) {
      const uint32_t pipe = lan_pipe_alloc();
      if (pipe == 0 || pipe > static_cast<uint32_t>(INT32_MAX)) {
        ARBOR_LOG(0, "%s(%s, %s): no pipe number.", "node_open_device", name,
                  option);
        if (pipe != 0) lan_pipe_free(pipe);
        return -1;
      }
      node->xfd = static_cast<int32_t>(pipe);
      node->pipe_owned = 1;
    }
    return node->xfd;
  }
  uint32_t local = 0;
  uint32_t* flag = threading != nullptr ? threading : &local;
  *flag = 0;
  if (node->device->Open == nullptr) {
    ARBOR_LOG(0, "%s(%s, %s, ...): %d.", "node_open_device", name, option, -1);
    return -1;
  }
  const int32_t fd = node->device->Open(node->name, node->option, flag);
  node->xfd = fd;
  ARBOR_LOG(3, "%s(%s, %s): %d. threading=%d.", "node_open_device", name,
            option, fd, static_cast<int32_t>(*flag));
  if (fd == -1 || fd == 0) {
    ARBOR_LOG(0, "%s(%s, %s, ...): %d.", "node_open_device", name, option, fd);
    return -1;
  }
  return fd;
}

TreeNode* create_node(TreeNode* parent, const MNodeInfo* hop) {
  return create_node_under(parent, parent, hop);
}

TreeNode* tree_create_branch(const MNodeInfo* hops, uint32_t count) {
  return chain_build(nullptr, hops, count);
}

TreeNode* do_tree_create_new(TreeRoot* root, TreeNode* attach,
                             const MNodeInfo* hops, uint32_t count) {
  TreeNode* leaf = chain_build(attach, hops, count);
  if (leaf != nullptr) {
    TreeNode* top = chain_top(leaf);
    top->parent = attach;
    if (node_append_child(attach, top) != nullptr) {
      if (attach == root_node(root)) root_ref(root);
      return leaf;
    }
    top->parent = nullptr;
    chain_discard(leaf);
  }
  ARBOR_LOG(0, "%s len=%d.", "do_tree_create_new", static_cast<int32_t>(count));
  return nullptr;
}

TreeRoot* _create_root(uint32_t uid, const MNodeInfo* hop) {
  TreeRoot* root = root_new();
  if (root == nullptr) return nullptr;
  root->uid = uid;
  node_init(root_node(root), hop);
  root->use_thread = 0;
  uint32_t threading = 0;
  if (node_copy_failed(root_node(root), hop) ||
      node_open_device(root_node(root), &threading) == -1) {
    ARBOR_LOG(0, "%s", "_create_root");
    node_free_members(root_node(root));
    root_free(root);
    return nullptr;
  }
  QVInitRWLock(&root->lock);
  if (threading != 0) root->use_thread = 1;
  return root;
}

TreeNode* tree_build(uint32_t uid, const char* sid, int32_t exclusive,
                     const MNodeInfo* hops, uint32_t size, TreeRoot** held) {
  ARBOR_ASSERT(sid && size > 0, "sid && size > 0");
  TreeRoot* root = exclusive != 0 ? nullptr : forest_find_shared(uid, hops);
  if (root == nullptr) return tree_build_new(uid, exclusive, hops, size, held);
  // Lock order: the forest mutex is no longer held; the reference taken
  // under it keeps the root until tree_release or the unref below.
  QVWLock(&root->lock);
  if (root->exclusive != 0) {
    // Closed between the search and the lock (Tree_timed_check on the timed
    // queue's worker can end its last session): a closed root only waits
    // for its sweep, so the chain gets a tree of its own.
    tree_release(root);
    return tree_build_new(uid, exclusive, hops, size, held);
  }
  uint32_t depth = 0;
  TreeNode* attach = maxdepth_reuse_except_edge(root, hops, size, &depth);
  TreeNode* leaf = attach;
  if (size > depth) {
    leaf = do_tree_create_new(root, attach, hops + depth, size - depth);
    if (leaf != nullptr && branch_starts_at_once(root, leaf))
      active_branch(root, leaf);
  }
  if (leaf != nullptr && held != nullptr) {
    *held = root;
    return leaf;
  }
  tree_release(root);
  return leaf;
}

TreeNode* tree_new_branch(uint32_t uid, const char* sid, int32_t exclusive,
                          const MNodeInfo* hops, uint32_t size) {
  return tree_build(uid, sid, exclusive, hops, size, nullptr);
}

void tree_release(TreeRoot* root) {
  QVXUNLock(&root->lock);
  root_unref(root);
}
