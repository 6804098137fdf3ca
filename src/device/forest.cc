// device/forest.cc - the forest list and its look-ups: references on roots,
// linking a new root, finding the tree of a sid, and the rule that says
// whether a branch may run at once.
//
// The list holds one entry per opened source (and closed ones until a sweep
// frees them, sweep.cc), so every search is a plain walk under the forest
// mutex. Known cost: a look-up by sid takes each root's lock in turn, O(n)
// in the roots; with thousands of sources open, every session command
// pays for that walk. Roots are linked here and unlinked only
// by the sweeps (sweep.cc).
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "arbor/device_class.h"
#include "arbor/support.h"
#include "device/forest.h"
#include "init/assert.h"

Forest forest_{};

TreeRoot* node_find_root(TreeNode* node) {
  while (node->parent != nullptr) node = node->parent;
  return node_as_root(node);
}

TreeNode* node_new() { return new (std::nothrow) TreeNode{}; }

TreeRoot* root_new() { return new (std::nothrow) TreeRoot{}; }

void node_free(TreeNode* node) { delete node; }

void root_free(TreeRoot* root) { delete root; }

void root_ref(TreeRoot* root) { root->use_count.fetch_add(1); }

void root_unref(TreeRoot* root) {
  const int32_t before = root->use_count.fetch_sub(1);
  ARBOR_ASSERT(before > 0, "root->use_count > 0");
}

int32_t root_use_count(TreeRoot* root) { return root->use_count.load(); }

// The newest root stands first, so of two equal roots a search finds the
// younger.
void forest_link(TreeRoot* root) {
  std::lock_guard<std::mutex> lock(forest_.mutex);
  root->next = forest_.head.next;
  forest_.head.next = root;
  forest_.roots.fetch_add(1, std::memory_order_relaxed);
}

LeafIndexEntry* root_find_leaf_by_sid(TreeRoot* root, const char* sid) {
  for (int32_t i = 0; i < root->leaves_size; ++i) {
    const char* row_sid = root->leaves[i].sid;
    if (row_sid != nullptr && std::strcmp(row_sid, sid) == 0)
      return &root->leaves[i];
  }
  return nullptr;
}

// Lock order: forest mutex, then each root's lock for reading. The
// reference is taken before the root's lock is released, so the root cannot
// be swept between the two.
TreeRoot* forest_ref_tree_by_sid(const char* sid) {
  std::lock_guard<std::mutex> lock(forest_.mutex);
  for (TreeRoot* root = forest_.head.next; root != nullptr;
       root = root->next) {
    QVRLock(&root->lock);
    const bool found = root_find_leaf_by_sid(root, sid) != nullptr;
    if (found) root_ref(root);
    QVXUNLock(&root->lock);
    if (found) return root;
  }
  return nullptr;
}

// A branch from a network root carries what arrives on its pipe, and a
// branch between local devices needs nobody; a branch from a local source
// to the network waits for the far side's word.
int branch_starts_at_once(const TreeRoot* root, const TreeNode* leaf) {
  if (is_network_dev(root->node.device)) return 1;
  return is_network_dev(leaf->device) ? 0 : 1;
}

bool root_row_names(const TreeRoot* root, const TreeNode* node) {
  for (int32_t i = 0; i < root->leaves_size; ++i)
    if (root->leaves[i].leaf == node) return true;
  return false;
}
