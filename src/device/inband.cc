// device/inband.cc - the two commands through which a tree receives what
// does not come from its own read thread: Tree_inflate (media) and
// Tree_inband (text events), and the node function evt_inband.
//
// Both run on the consumer. Each finds its tree with forest_ref_tree, walks
// it under the root's lock held for reading, releases the lock, runs the
// deferred writes, and only then releases its reference (lock before
// reference, so a sweep never frees a lock under its holder). The record is
// the queue's copy; its flag word is ORed into a local copy, not into it.
//
// The record's fields come from the network or from a driver. The text of
// an in-band event is checked for its NUL here, before the walk, so the
// walk's own requirement of one can never be reached from outside.
#include <cstdlib>
#include <cstring>
#include <string>

#include "arbor/device_class.h"
#include "arbor/inband.h"
#include "arbor/send.h"
#include "arbor/support.h"
#include "device/datapath.h"
#include "init/assert.h"

namespace {

constexpr uint32_t kHead = sizeof(InbandRecord);

// The payload behind the head.
const char* record_payload(const InbandRecord* record) {
  return reinterpret_cast<const char*>(record) + kHead;
}

// The node function of in-band text. Nothing is deferred: devices are told
// at once, and LAN peers and the WAN get the text during the walk; their
// failures are ignored (no clean-up on this path). Requires a NUL within
// size bytes of ev (Tree_inband has checked it).
const void* evt_inband(ResponseList* /*respr*/, TreeNode* node,
                       uint32_t* out_size, const void* data, uint32_t size,
                       uint32_t flags) {
  ARBOR_ASSERT(node != nullptr, "node");
  ARBOR_ASSERT(node->device != nullptr, "node->device");
  ARBOR_ASSERT(std::memchr(data, '\0', size) != nullptr,
               "memchr(ev, '\\0', size)");
  const char* ev = static_cast<const char*>(data);
  *out_size = size;
  cdef* cls = node->device;
  if (node->parent != nullptr && cls == get_wan_cdef()) {
    // Alarms stay local: the service learns of them by its own road.
    if (std::strstr(ev, "event=alarm;") == nullptr && cls->Write != nullptr)
      cls->Write(node->xfd, ev, size, flags);
    return nullptr;
  }
  if (node->parent != nullptr && cls == get_lan_cdef()) {
    if (node->parent->device != cls) return ev;  // a pipe node: on to peers
    sendasc(static_cast<uint32_t>(node->xfd.load()), node->parent->xfd, ev,
            size, flags);
    return nullptr;
  }
  if (cls->DoEvent != nullptr) {
    const char* name = node->name != nullptr ? node->name : "";
    ARBOR_LOG(3, "DoEvent %s: %.*s: %u", name, static_cast<int>(size), ev,
              size);
    cls->DoEvent(node->name, node->xfd, ev);
  }
  return ev;
}

// Walks root with fn under its read lock, then runs what the walk deferred
// with the lock released, then gives back the caller's reference.
void walk_then_respond(TreeRoot* root, NodeFn fn, const void* data,
                       uint32_t size, uint32_t flags) {
  ResponseList list{};
  // Lock order: root->lock only; the reference is released after it.
  QVRLock(&root->lock);
  walk_tree(&list, root_node(root), fn, data, size, flags);
  QVXUNLock(&root->lock);
  respond(&list);
  root_unref(root);
}

}  // namespace

// A refused record is logged with at most the bytes it holds, so the line
// reads nothing behind the record even without a NUL.
extern "C" ARBOR_EXPORT void Tree_inband(uintptr_t /*arg*/,
                                         const void* payload, uint32_t size) {
  if (payload == nullptr || size <= kHead) return;
  const auto* record = static_cast<const InbandRecord*>(payload);
  const uint32_t flags = record->flags | kFlagInband;
  const uint32_t length = record->length;
  const char* text = record_payload(record);
  TreeRoot* root = nullptr;
  if (length != 0 && length <= size - kHead &&
      std::memchr(text, '\0', length) != nullptr)
    root = forest_ref_tree(record->device, record->uid, record->xfd);
  if (root == nullptr) {
    const std::string shown(text, strnlen(text, size - kHead));
    ARBOR_LOG(0, "%s: %u: %s", "Tree_inband", length, shown.c_str());
    return;
  }
  ARBOR_LOG(3, "%s: %u: %s", "Tree_inband", length, text);
  walk_then_respond(root, evt_inband, text, length, flags);
}

extern "C" ARBOR_EXPORT void Tree_inflate(uintptr_t /*arg*/,
                                          const void* payload, uint32_t size) {
  if (payload == nullptr || size < kHead) return;
  const auto* record = static_cast<const InbandRecord*>(payload);
  const uint32_t length = record->length;
  if (length == 0 || length > size - kHead) return;
  TreeRoot* root = forest_ref_tree(record->device, record->uid, record->xfd);
  if (root == nullptr) return;
  walk_then_respond(root, transf, record_payload(record), length,
                    record->flags | kFlagMedia);
}
