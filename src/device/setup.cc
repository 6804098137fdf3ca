// device/setup.cc - the two commands that turn a session request into a
// branch and a row of its root's leaf index: Tree_new_request, for a chain
// that goes on at another peer after a LAN net hop ("SessionCreate" to that
// peer), and Tree_new_partial, for a chain that is built whole here
// ("SessionStart" to the owner). Each posts Tree_timed_check, which ends the
// session if its branch is not active in time.
//
// A request comes from a peer's message through the command queue, so
// nothing in it is trusted: a payload shorter than its hops, more than
// TREE_MAX_HOPS hops, an empty or unterminated sid are refused; the hop
// strings the payload holds are freed on every path.
//
// Locks: tree_build hands the root over locked for writing with a
// reference; the peer node, the row and the "Follower" notice are made
// under that lock. Messages leave after it is released: the row made here
// keeps the nodes they describe, and only this thread (and, for its own
// row, Tree_timed_check much later) removes nodes.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/forest.h"
#include "arbor/send.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "device/build.h"
#include "device/observe.h"
#include "init/sys_state.h"

namespace {

constexpr int32_t kMainCmdFollower = 17;
// The most bytes "SessionCreate" may take.
constexpr int32_t kCreateTextSize = 2048;
// How long a new branch has to become active.
constexpr uint32_t kRequestCheckMs = 30000;
constexpr uint32_t kPartialCheckMs = 60000;

constexpr const char* kFollowerText =
    "MainCmd=%d;event=Follower;Status=Joining;To=%.*s;sidN=%s;";

// Checks a request from the queue. Returns it when it may be used, else
// null (logged at level 0 but for an overlong sid, which is dropped
// silently). *owned gets the number of hops whose strings lie inside the
// payload: those are freed by the caller on every path.
const TreeRequest* request_accept(const void* payload, uint32_t size,
                                  const char* who, uint32_t* owned) {
  *owned = 0;
  if (payload == nullptr) return nullptr;
  if (size < sizeof(TreeRequest)) {
    ARBOR_LOG(0, "%s: request of %u bytes refused.", who, size);
    return nullptr;
  }
  const auto* dx = static_cast<const TreeRequest*>(payload);
  const uint32_t room =
      static_cast<uint32_t>((size - offsetof(TreeRequest, nodes)) /
                            sizeof(MNodeInfo));
  *owned = dx->length < room ? dx->length : room;
  if (dx->length == 0) return nullptr;
  if (dx->length > TREE_MAX_HOPS ||
      sizeof(*dx) + sizeof(MNodeInfo) * dx->length > size) {
    ARBOR_LOG(0, "%s: %s: refused.", who,
              "sizeof(*dx) + sizeof(MNodeInfo) * dx->length <= size");
    return nullptr;
  }
  const size_t sid_length = strnlen(dx->sid, TREE_SID_SIZE);
  if (sid_length >= TREE_SID_SIZE) return nullptr;
  if (sid_length == 0) {
    // A row with an empty sid could never be named by a teardown.
    ARBOR_LOG(0, "%s: empty sid refused.", who);
    return nullptr;
  }
  return dx;
}

void request_free(const void* payload, uint32_t owned) {
  if (payload == nullptr) return;
  const auto* dx = static_cast<const TreeRequest*>(payload);
  for (uint32_t i = 0; i < owned; ++i) {
    std::free(dx->nodes[i].name);
    std::free(dx->nodes[i].option);
  }
}

int peer_length(const TreeRequest* dx) {
  return static_cast<int>(strnlen(dx->peer, TREE_PEER_SIZE));
}

// A new peer node under parent; one that hangs directly on the root takes
// the root's reference for its branch.
TreeNode* peer_node(TreeRoot* root, TreeNode* parent, const MNodeInfo* hop,
                    uint32_t uid) {
  MNodeInfo copy = *hop;
  copy.fd = static_cast<int32_t>(uid);
  TreeNode* peer = create_node(parent, &copy);
  if (peer != nullptr && parent == root_node(root)) root_ref(root);
  return peer;
}

// Removes the branch ending in node when no row keeps it: node and the
// ancestors that only it kept, never a node that a row names or that has
// other children, never the root. A branch of a failed session would
// otherwise pin its root until the stop. Root locked for writing.
void prune_unkept(TreeRoot* root, TreeNode* node) {
  if (node == root_node(root) || node->nchildren != 0 ||
      root_row_names(root, node))
    return;
  TreeNode* stop = node->parent;
  while (stop != root_node(root) && stop->nchildren == 1 &&
         !root_row_names(root, stop)) {
    stop = stop->parent;
  }
  if (destroy_branch(node, stop) != root_node(root)) return;
  root_unref(root);
  if (root->node.nchildren == 0 && root->leaves_size == 0) {
    // The root had nothing but this branch: it closes as after its last
    // session, and a sweep frees it.
    root_close(root);
  }
}

// Encodes "SessionCreate" for the hops from hop to the end, hop's FD being
// the pipe; 0 (nothing to send) when a hop has no name or the text is over
// kCreateTextSize bytes.
int32_t encode_create(char* text, const TreeRequest* dx, const MNodeInfo* hop,
                      int32_t pipe) {
  Dict dict = DictCreate(nullptr, 0);
  if (dict == nullptr) return 0;
  DictSetStr(dict, "MainCmd", "SessionCreate");
  DictSetStr(dict, "sidN", dx->sid);
  DictSetInt(dict, "AsCode", dx->ascode);
  bool whole = true;
  const MNodeInfo* end = dx->nodes + dx->length;
  char key[16];
  for (int32_t i = 0; hop + i < end; ++i) {
    const MNodeInfo& h = hop[i];
    if (h.name == nullptr) {
      whole = false;
      break;
    }
    std::snprintf(key, sizeof key, "ftN%d", i);
    DictSetStr(dict, key, h.name);
    const int32_t fd = i == 0 ? pipe : h.fd;
    std::snprintf(key, sizeof key, "FD%d", i);
    if (fd != 0) DictSetInt(dict, key, fd);
    std::snprintf(key, sizeof key, "opN%d", i);
    if (h.option != nullptr) DictSetStr(dict, key, h.option);
  }
  int32_t length = 0;
  const int32_t need = DictEncodedSize(dict);
  if (whole && need > 0 && need <= kCreateTextSize)
    length = DictEncode(text, kCreateTextSize, dict);
  DictDestroy(dict);
  return length;
}

// True when every node from node up to its root is active. A node, once
// active, stays so until it is freed, and it is freed only with the last
// row that keeps it: a time-out check of such a branch can only find it
// active and end nothing. Such a branch is therefore posted no check, which
// departs from posting one for every partial branch on purpose: each entry
// holds its sid for a minute, so a peer that opens and closes sessions as
// fast as it can (25,000 a second here) would pin about 120 bytes per
// session, some 180 MB, for nothing. A branch that waits for a peer's word
// still gets its check. The root's lock is held.
bool branch_runs(const TreeNode* node) {
  for (; node != nullptr; node = node->parent)
    if (node->active == 0) return false;
  return true;
}

void post_check(uint32_t delay, const TreeNode* leaf, const char* sid) {
  const char* argv[] = {sid, nullptr};
  sys_post_timed(delay, Tree_timed_check, reinterpret_cast<uintptr_t>(leaf), 1,
                 argv);
}

// Iterative form of the walk from node to the root; keys ftN<i>, FD<i>.
int32_t usync_node_list(Dict dict, int32_t index, const TreeNode* node) {
  char key[16];
  for (; node != nullptr; node = node->parent, ++index) {
    if (node->name != nullptr) {
      std::snprintf(key, sizeof key, "ftN%d", index);
      DictSetStr(dict, key, node->name);
    }
    const int32_t fd = node->xfd;
    if (fd > 0) {
      std::snprintf(key, sizeof key, "FD%d", index);
      DictSetInt(dict, key, fd);
    }
  }
  return index;
}

void usync_link_result(uint32_t uid, int32_t ascode, const char* sid,
                       const TreeNode* node) {
  Dict dict = DictCreate(nullptr, 0);
  if (dict == nullptr) return;
  DictSetStr(dict, "MainCmd", "SessionStart");
  DictSetStr(dict, "sidN", sid);
  const int32_t need =
      usync_node_list(dict, 0, node) > 0 ? DictEncodedSize(dict) : 0;
  char* text = need > 0 ? static_cast<char*>(std::malloc(need + 1)) : nullptr;
  if (text != nullptr) {
    const int32_t length = DictEncode(text, need + 1, dict);
    ARBOR_LOG(3, "*** Tree_ok: %.*s.", length, text);
    // A session this host dialled (uid 0, not the service's AS code) hears
    // its start through the local table, where rsc_main activates it.
    if (uid != 0 || ascode == kAsSession) {
      forest_send_owner(uid, ascode, text, static_cast<uint32_t>(length));
    } else {
      forest_dispatch_local(ascode, text, static_cast<uint32_t>(length));
    }
    std::free(text);
  }
  DictDestroy(dict);
}

// Prunes the branch of a session that got no row (memory ran out in
// forest_index_leaf), after its messages went out: the owner is told
// nothing, as for any request whose row could not be made, but a branch
// that no row keeps would pin its root until the stop.
void drop_unindexed(TreeRoot* root, TreeNode* end, const char* sid,
                    const char* who) {
  ARBOR_LOG(0, "%s: sid=%s: no row for the session (out of memory)", who,
            sid);
  QVWLock(&root->lock);
  prune_unkept(root, end);
  QVXUNLock(&root->lock);
}

}  // namespace

const MNodeInfo* find_netornil(const MNodeInfo* nodes, uint32_t n) {
  if (nodes == nullptr) return nullptr;
  for (uint32_t i = 0; i < n; ++i) {
    const MNodeInfo* hop = &nodes[i];
    if (hop->device == nullptr || hop->name == nullptr ||
        std::strncmp(hop->name, "net.", 4) == 0) {
      return hop;
    }
  }
  return nullptr;
}

bool forest_index_leaf(uint32_t uid, int32_t ascode, const char* sid,
                       TreeNode* leaf) {
  TreeRoot* root = node_find_root(leaf);
  void* grown = nullptr;
  if (build_grow_allowed()) {
    grown = std::realloc(root->leaves,
                         (root->leaves_size + 1) * sizeof(LeafIndexEntry));
  }
  if (grown == nullptr) return false;
  root->leaves = static_cast<LeafIndexEntry*>(grown);
  char* copy = stringdup(sid);
  if (copy == nullptr) return false;
  if (leaf == root_node(root) && !root_row_names(root, leaf)) root_ref(root);
  root->leaves[root->leaves_size++] = {copy, leaf, uid, ascode, 0};
  observe_rows_began(root);
  ARBOR_LOG(3, "add sid leaf idx: %s, %p", sid, static_cast<void*>(leaf));
  return true;
}

// A peer node that cannot be made ends the request as a failed tree, and
// what was built for it alone is taken down again.
void Tree_new_request(uintptr_t, const void* payload, uint32_t size) {
  uint32_t owned = 0;
  const TreeRequest* dx =
      request_accept(payload, size, "Tree_new_request", &owned);
  if (dx == nullptr) {
    request_free(payload, owned);
    return;
  }
  const MNodeInfo* hop = find_netornil(dx->nodes, dx->length);
  TreeRoot* root = nullptr;
  TreeNode* leaf = nullptr;
  TreeNode* peer = nullptr;
  if (hop != nullptr && hop->device == get_lan_cdef()) {
    const auto n = static_cast<uint32_t>(hop - dx->nodes) + 1;
    leaf = tree_build(0, dx->sid, dx->exclusive, dx->nodes, n, &root);
  }
  if (leaf != nullptr) {
    for (uint32_t i = 0; i < leaf->nchildren && peer == nullptr; ++i) {
      TreeNode* child = leaf->children[i];
      if (child->device == hop->device &&
          child->xfd == static_cast<int32_t>(dx->uid)) {
        peer = child;
      }
    }
    bool fresh = false;
    if (peer == nullptr) {
      peer = peer_node(root, leaf, hop, dx->uid);
      fresh = peer != nullptr;
    }
    if (peer == nullptr) {
      prune_unkept(root, leaf);
      tree_release(root);
      leaf = nullptr;
    } else {
      const bool indexed =
          forest_index_leaf(dx->uid, dx->ascode, dx->sid, peer);
      if (fresh && indexed) {
        ARBOR_LOG(3, "%s:Tree_timed_check", "Tree_new_request");
        post_check(kRequestCheckMs, peer, dx->sid);
      }
      // The peer is asked first, then the source's driver and the event
      // tree hear of the new follower. The message goes out with the lock
      // released; the reference keeps the root (and its own fields, which
      // root_notify reads) until the end.
      const int32_t pipe = leaf->xfd;
      QVXUNLock(&root->lock);
      char text[kCreateTextSize];
      const int32_t length = encode_create(text, dx, hop, pipe);
      ARBOR_LOG(2, "%s: %.*s", "Tree_new_request", length, text);
      sendasc(dx->uid, kAsSession, text, static_cast<uint32_t>(length),
              ARBOR_SEND_CONTROL);
      root_notify(root_node(root), "Follower", kFollowerText,
                  kMainCmdFollower, peer_length(dx), dx->peer, dx->sid);
      if (!indexed) drop_unindexed(root, peer, dx->sid, "Tree_new_request");
      root_unref(root);
    }
  }
  if (leaf == nullptr) {
    observe_request_failed(dx->uid, dx->ascode, dx->sid, dx->nodes, dx->length,
                           "Tree request fail");
    raise_link_fail(dx->uid, dx->ascode, dx->sid, "Tree request fail");
  }
  request_free(payload, owned);
}

void Tree_new_partial(uintptr_t, const void* payload, uint32_t size) {
  uint32_t owned = 0;
  const TreeRequest* dx =
      request_accept(payload, size, "Tree_new_partial", &owned);
  if (dx == nullptr) {
    request_free(payload, owned);
    return;
  }
  TreeRoot* root = nullptr;
  TreeNode* leaf = tree_build(dx->uid, dx->sid, dx->exclusive, dx->nodes,
                              dx->length, &root);
  if (leaf != nullptr) {
    TreeNode* end = leaf;
    const bool to_peer = is_network_dev(leaf->device) != 0;
    if (to_peer) end = peer_node(root, leaf, &dx->nodes[dx->length - 1],
                                 dx->uid);
    if (end == nullptr) {
      prune_unkept(root, leaf);
      tree_release(root);
      leaf = nullptr;
    } else {
      const bool indexed = forest_index_leaf(dx->uid, dx->ascode, dx->sid, end);
      const bool waits = !branch_runs(end);  // read under the lock
      // "SessionStart" first, then the Follower notice, as for a request;
      // both with the lock released and the reference held.
      QVXUNLock(&root->lock);
      usync_link_result(dx->uid, dx->ascode, dx->sid,
                        to_peer ? end->parent : end);
      if (to_peer) {
        root_notify(root_node(root), "Follower", kFollowerText,
                    kMainCmdFollower, peer_length(dx), dx->peer, dx->sid);
      }
      if (indexed && waits) {
        ARBOR_LOG(3, "%s:Tree_timed_check", "Tree_new_partial");
        post_check(kPartialCheckMs, end, dx->sid);
      } else if (!indexed) {
        drop_unindexed(root, end, dx->sid, "Tree_new_partial");
      }
      root_unref(root);
    }
  }
  if (leaf == nullptr) {
    observe_request_failed(dx->uid, dx->ascode, dx->sid, dx->nodes, dx->length,
                           "Tree create fail");
    raise_link_fail(dx->uid, dx->ascode, dx->sid, "Tree create fail");
  }
  request_free(payload, owned);
}
