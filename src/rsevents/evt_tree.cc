// rsevents/evt_tree.cc - the subscription side of resource events: the tree
// of path pieces below "Object", the global list of event names, the hooks,
// and RsSubscribeEvent with its timed-queue front end.
//
// Everything here only grows. Nodes, slots, subscribers and names stay until
// the process ends, which is what lets an emission hold plain pointers and a
// list index stay valid forever. Arrays of slots and subscribers grow by 8
// entries when an entry is added at a count that is a multiple of 8 (0
// included), children by exactly one. All searches are linear strcmp walks:
// the tree is small and subscriptions are rare (known cost: a subscription
// is O(children on the path + slots of the node + subscribers of the slot +
// names in the list)).
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

#include "arbor/rsevents.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "arbor/timedq.h"
#include "init/assert.h"
#include "rsevents/evt_internal.h"

static_assert(std::is_same_v<decltype(&event_subscribe), TqHandler>,
              "event_subscribe is a timed-queue handler");
static_assert(std::is_same_v<decltype(&event_unsubscribe), TqHandler>,
              "event_unsubscribe is a timed-queue handler");
static_assert(std::is_same_v<decltype(&match_any), EvtMatchFn>,
              "match_any is a filter");

namespace {

int evt_nolock() { return 0; }
void evt_nosend(void*, uint32_t, int32_t, const char*) {}

char evt_root_name_[] = "Object";

// Allocations still allowed before they fail; negative: no limit. Only the
// test seam sets it.
std::atomic<int32_t> evt_alloc_budget_{-1};

// True when the test seam says this allocation must fail.
bool evt_alloc_refused() {
  int32_t budget = evt_alloc_budget_.load(std::memory_order_relaxed);
  while (budget > 0 && !evt_alloc_budget_.compare_exchange_weak(
                           budget, budget - 1, std::memory_order_relaxed)) {
  }
  return budget == 0;
}

// realloc that honours the test seam. Null on failure, p left as it was.
void* evt_realloc(void* p, size_t size) {
  return evt_alloc_refused() ? nullptr : std::realloc(p, size);
}

// stringdup that honours the test seam. Null on failure.
char* evt_strdup(const char* s) {
  return evt_alloc_refused() ? nullptr : stringdup(s);
}

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

// Makes room for one more entry of an array that grows by 8: enlarges it to
// count + 8 entries when count is a multiple of 8. False when memory runs
// out; the array and its entries are then as they were.
template <typename T>
bool evt_grow8(T*& array, uint32_t count) {
  if (count % 8 != 0) return true;
  void* grown = evt_realloc(array, (size_t{count} + 8) * sizeof(T));
  if (grown == nullptr) return false;
  array = static_cast<T*>(grown);
  return true;
}

// The number of nodes from node up to the root, both included: 1 at the
// root. Cannot fail.
int get_depth(const EventNode* node) {
  int depth = 0;
  for (; node != nullptr; node = node->parent) ++depth;
  return depth;
}

// Makes a chain of n new nodes below parent, one for each piece, each below
// the one before, and returns the last. When memory runs out creation stops:
// the result is null and the nodes made so far stay in the tree (nothing in
// the tree is freed; a later subscription on the same path finds and reuses
// them). A node that could not be completed is never linked.
EventNode* loc_create_branch(EventNode* parent, char* const* pieces, int n) {
  for (int i = 0; i < n; ++i) {
    // The children array first: once the node exists, linking cannot fail.
    void* grown = evt_realloc(
        parent->children, (size_t{parent->nchildren} + 1) * sizeof(EventNode*));
    if (grown == nullptr) return nullptr;
    parent->children = static_cast<EventNode**>(grown);
    void* raw =
        evt_alloc_refused() ? nullptr : std::calloc(1, sizeof(EventNode));
    if (raw == nullptr) return nullptr;
    auto* node = static_cast<EventNode*>(raw);
    node->name = evt_strdup(pieces[i]);
    if (node->name == nullptr) {
      std::free(node);
      return nullptr;
    }
    node->parent = parent;
    parent->children[parent->nchildren++] = node;
    parent = node;
  }
  return parent;
}

// The node for pieces[0..count), made as far as needed. Null when memory
// runs out on the way (logged; the nodes made so far may stay).
EventNode* evt_reach_node(char* const* pieces, int count) {
  EventNode* node = find_deepest_node(pieces, count);
  const int depth = get_depth(node) - 1;
  if (count > depth) {
    node = loc_create_branch(node, pieces + depth, count - depth);
    if (node == nullptr) {
      ARBOR_LOG(0, "out of memory making the nodes of path piece %d of %d",
                depth + 1, count);
      return nullptr;
    }
  }
  ARBOR_ASSERT(get_depth(node) - 1 == count, "get_depth(node)-1 == depth");
  return node;
}

// The index of evname in the global list, entered if new. -1 when memory
// runs out (logged; nothing changed).
int32_t evt_name_index(const char* evname) {
  int32_t idx = evt_find(evname);
  if (idx < 0) idx = evt_add(evname);
  if (idx < 0) ARBOR_LOG(0, "out of memory entering event name %s", evname);
  return idx;
}

// The slot of evname on node, added if new. Null when memory runs out
// (logged); a name entered in the global list on the way stays there, as
// any known name does.
EventSlot* evt_node_slot(EventNode* node, const char* evname) {
  EventSlot* slot = node_get_event(node, evname);
  if (slot != nullptr) return slot;
  const int32_t idx = evt_name_index(evname);
  if (idx < 0) return nullptr;
  if (!evt_grow8(node->events, node->nevents)) {
    ARBOR_LOG(0, "out of memory adding slot %s to node %s", evname, node->name);
    return nullptr;
  }
  slot = &node->events[node->nevents++];
  *slot = EventSlot{};
  slot->un.evidx = idx;
  return slot;
}

// Adds the subscriber to slot unless one with the same uid, asc and match
// is there (whose arg then stays). When arg cannot be copied or the array
// cannot grow, the subscriber is left out (logged) and slot is unchanged.
void evt_add_subscriber(EventSlot* slot, uint32_t uid, int32_t asc,
                        EvtMatchFn match, const char* arg) {
  for (uint32_t i = 0; i < slot->nsubs; ++i) {
    const Subscriber& sub = slot->subs[i];
    if (sub.uid == uid && sub.asc == asc && sub.match == match) return;
  }
  std::unique_ptr<char, FreeDeleter> arg_copy;
  if (arg != nullptr) {
    arg_copy.reset(evt_strdup(arg));
    if (arg_copy == nullptr) {
      ARBOR_LOG(0, "out of memory copying the argument of %u/%d", uid, asc);
      return;
    }
  }
  if (!evt_grow8(slot->subs, slot->nsubs)) {
    ARBOR_LOG(0, "out of memory adding subscriber %u/%d", uid, asc);
    return;
  }
  slot->subs[slot->nsubs++] = Subscriber{uid, asc, match, arg_copy.release()};
}

// Reads a decimal number the way the queue's posters wrote it.
long evt_number(const char* text) { return std::strtol(text, nullptr, 10); }

}  // namespace

// ---------------------------------------------------------------- state

EvtHooks evt_hooks_{evt_nolock, evt_nolock, evt_nosend};
EventNode evt_root_{evt_root_name_, 0, nullptr, 0, nullptr, nullptr};
EventSlot* evt_l_ = nullptr;
uint32_t n_evt_l_ = 0;

// ------------------------------------------------------------- lookups

// The pieces are counted before anything is cut, so that string_split is
// never handed more pieces than the array holds, and the empty ones are
// squeezed out of the text first. A path of more than EVT_MAX_PIECES real
// pieces is refused as a whole rather than cut short or kept with its tail
// unsplit: either would file the subscription at a place that its path does
// not name.
int split_path(char** pieces, char* text) {
  int count = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p != '.' && (p == text || p[-1] == '.')) ++count;
  }
  if (count > EVT_MAX_PIECES) return -1;
  // Squeeze: drop leading and trailing dots, and runs of dots down to one.
  char* out = text;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p == '.' && (out == text || out[-1] == '.')) continue;
    *out++ = *p;
  }
  if (out != text && out[-1] == '.') --out;
  *out = '\0';
  const int cut = string_split(text, pieces, EVT_MAX_PIECES, '.');
  int kept = 0;
  for (int i = 0; i < cut; ++i) {
    if (pieces[i][0] != '\0') pieces[kept++] = pieces[i];
  }
  return kept;
}

EventNode* find_deepest_node(char* const* pieces, int count) {
  EventNode* node = &evt_root_;
  for (int i = 0; i < count; ++i) {
    EventNode* next = nullptr;
    for (uint32_t c = 0; c < node->nchildren; ++c) {
      if (std::strcmp(node->children[c]->name, pieces[i]) == 0) {
        next = node->children[c];
        break;
      }
    }
    if (next == nullptr) return node;
    node = next;
    if (node->nchildren == 0) return node;
  }
  return node;
}

EventSlot* node_get_event(EventNode* node, const char* evname) {
  ARBOR_ASSERT(node != nullptr && evname != nullptr, "node && evname");
  for (uint32_t i = 0; i < node->nevents; ++i) {
    EventSlot* slot = &node->events[i];
    if (std::strcmp(evt_l_[slot->un.evidx].un.name, evname) == 0) return slot;
  }
  return nullptr;
}

int32_t evt_find(const char* name) {
  for (uint32_t i = 0; i < n_evt_l_; ++i) {
    if (std::strcmp(evt_l_[i].un.name, name) == 0)
      return static_cast<int32_t>(i);
  }
  return -1;
}

int32_t evt_add(const char* name) {
  std::unique_ptr<char, FreeDeleter> copy(evt_strdup(name));
  if (copy == nullptr || !evt_grow8(evt_l_, n_evt_l_)) return -1;
  EventSlot& entry = evt_l_[n_evt_l_];
  entry = EventSlot{};
  entry.un.name = copy.release();
  return static_cast<int32_t>(n_evt_l_++);
}

// ------------------------------------------------------- exported calls

void evt_init(EvtLockFn lock_fn, EvtLockFn unlock_fn, EvtSenderFn sender_fn) {
  evt_hooks_.lock.store(lock_fn != nullptr ? lock_fn : evt_nolock);
  evt_hooks_.unlock.store(unlock_fn != nullptr ? unlock_fn : evt_nolock);
  evt_hooks_.sender.store(sender_fn != nullptr ? sender_fn : evt_nosend);
}

int match_any(const char* const*, const char* const*, const char*) { return 1; }

// One lock and one unlock per call, whatever the outcome: the hooks see a
// subscription as a single step, and the path is copied and split inside
// it, so a hook that counts or times its holds sees all of the work. The
// refusals (no event name, no memory for the copy, more pieces than a path
// may have) release the lock on the way out like a success.
EventSlot* RsSubscribeEvent(uint32_t uid, int32_t asc, const char* path,
                            const char* evname, EvtMatchFn match,
                            const char* arg) {
  if (match == nullptr) match = match_any;
  EvtLockGuard guard;
  if (evname == nullptr) {
    ARBOR_LOG(0, "subscription of %u/%d without an event name refused", uid,
              asc);
    return nullptr;
  }
  const bool global = path == nullptr || path[0] == '\0';
  std::unique_ptr<char, FreeDeleter> copy;
  char* pieces[EVT_MAX_PIECES];
  int count = 0;
  if (!global) {
    copy.reset(evt_strdup(path));
    if (copy == nullptr) {
      ARBOR_LOG(0, "out of memory copying path %s", path);
      return nullptr;
    }
    count = split_path(pieces, copy.get());
    if (count < 0) {
      ARBOR_LOG(0, "path of more than %d pieces refused: %s", EVT_MAX_PIECES,
                path);
      return nullptr;
    }
  }
  ARBOR_LOG(3, "subscribe %u/%d to %s at %s", uid, asc, evname,
            global ? "(anywhere)" : path);

  EventSlot* slot = nullptr;
  if (global) {
    const int32_t idx = evt_name_index(evname);
    if (idx >= 0) slot = &evt_l_[idx];
  } else {
    EventNode* node = evt_reach_node(pieces, count);
    if (node != nullptr) slot = evt_node_slot(node, evname);
  }
  if (slot != nullptr) evt_add_subscriber(slot, uid, asc, match, arg);
  return slot;
}

// Subscriptions live as long as the process: the service's and the drivers'
// outlive a sign-out, and nothing in the engine ever asks for one to go.
// A host's SysUnsubscribe therefore ends here, as a traced no-op.
int32_t RsUnsubscribeEvent(uint32_t uid, int32_t asc, const char* path,
                           const char* evname) {
  ARBOR_LOG(3, "unsubscribe %u/%d from %s at %s: subscriptions are kept", uid,
            asc, evname != nullptr ? evname : "(any)",
            path != nullptr ? path : "(anywhere)");
  return 0;
}

void event_subscribe(int32_t, uintptr_t, int32_t argc, char** argv) {
  if (argc < 4 || argv == nullptr) return;
  for (int i = 0; i < 4; ++i) {
    if (argv[i] == nullptr) return;
  }
  RsSubscribeEvent(static_cast<uint32_t>(evt_number(argv[0])),
                   static_cast<int32_t>(evt_number(argv[1])), argv[2], argv[3],
                   nullptr, nullptr);
}

void event_unsubscribe(int32_t, uintptr_t, int32_t argc, char** argv) {
  if (argc < 3 || argv == nullptr) return;
  for (int i = 0; i < 3; ++i) {
    if (argv[i] == nullptr) return;
  }
  RsUnsubscribeEvent(static_cast<uint32_t>(evt_number(argv[0])),
                     static_cast<int32_t>(evt_number(argv[1])), argv[2],
                     argc > 3 ? argv[3] : nullptr);
}

// ------------------------------------------------------------- test seam

void evt_test_fail_allocs(int32_t after) {
  evt_alloc_budget_.store(after < 0 ? -1 : after, std::memory_order_relaxed);
}
