// rsevents/evt_emit.cc - the emission side of resource events: the walk
// that offers an event to the subscribers a path reaches, its timed-queue
// front end, and the default sender that turns a subscriber into a local
// dispatch or a message to a peer.
//
// Order of delivery, kept here and nowhere else: the tree first, depth
// first from the deepest node that exists on the path, parent before
// children, at each node the exact event's subscribers before those of
// "eventAny", in each slot the order of subscription; the global list's
// slot of the exact name last. A node whose name begins with '$' ends the
// walk below it, unless the walk started on it.
//
// The path is copied into a stack buffer and split before the lock is
// taken; the walk itself allocates nothing, so an emission cannot fail half
// way. The whole delivery runs under the event lock: subscribers cannot
// change under a walk, and senders, filters and the handlers they reach must
// not subscribe or emit. Known cost: every node of the reached subtree is
// searched twice (evname and "eventAny"), linearly.
#include <cstring>
#include <type_traits>

#include "arbor/asc.h"
#include "arbor/rsevents.h"
#include "arbor/send.h"
#include "arbor/support.h"
#include "arbor/timedq.h"
#include "rsevents/evt_internal.h"

static_assert(std::is_same_v<decltype(&event_emit), TqHandler>,
              "event_emit is a timed-queue handler");
static_assert(std::is_same_v<decltype(&evt_deliver), EvtSenderFn>,
              "evt_deliver is a sender");

namespace {

// Longest path an emission accepts, in characters; the stack copy holds it
// and its terminator.
constexpr size_t kEmitPathMax = 255;

// Delivers body to the subscribers of slot (which may be null) whose filter
// accepts it. Returns the number of sender calls. Cannot fail.
int32_t _doemit(const EventSlot* slot, const char* body, EvtSenderFn sender,
                void* ctx) {
  if (slot == nullptr) return 0;
  int32_t count = 0;
  for (uint32_t i = 0; i < slot->nsubs; ++i) {
    const Subscriber& sub = slot->subs[i];
    if (sub.match(&sub.arg, &sub.arg + 1, body) != 0) {
      sender(ctx, sub.uid, sub.asc, body);
      ++count;
    }
  }
  return count;
}

// Delivers evname, then "eventAny", at node (which may be null), then walks
// its children in order unless node's name begins with '$'. Returns the
// number of sender calls. Recursion is bounded by the tree's depth, which a
// path's EVT_MAX_PIECES pieces limit. Cannot fail.
int32_t emit_walk(EventNode* node, const char* evname, const char* body,
                  EvtSenderFn sender, void* ctx) {
  if (node == nullptr) return 0;
  int32_t count = _doemit(node_get_event(node, evname), body, sender, ctx);
  count += _doemit(node_get_event(node, "eventAny"), body, sender, ctx);
  if (node->name[0] != '$') {
    for (uint32_t i = 0; i < node->nchildren; ++i)
      count += emit_walk(node->children[i], evname, body, sender, ctx);
  }
  return count;
}

}  // namespace

// A null body is refused as a whole, before any filter or sender sees it:
// a sender has nothing to deliver, and refusing only some subscribers would
// make the count depend on their filters.
extern "C" ARBOR_EXPORT int32_t RsEmitEvent(const char* path,
                                            const char* evname,
                                            const char* body,
                                            EvtSenderFn sender, void* ctx) {
  if (path == nullptr || evname == nullptr) return 0;
  const size_t length = strnlen(path, kEmitPathMax + 1);
  if (length > kEmitPathMax) {
    ARBOR_LOG(0, "event %s: path of %zu characters or more refused: %.32s...",
              evname, kEmitPathMax + 1, path);
    return 0;
  }
  if (body == nullptr) {
    ARBOR_LOG(0, "event %s at %s without a body refused", evname, path);
    return 0;
  }
  char copy[kEmitPathMax + 1];
  std::memcpy(copy, path, length + 1);
  char* pieces[EVT_MAX_PIECES];
  const int count = split_path(pieces, copy);
  if (count < 0) {
    ARBOR_LOG(0, "event %s: path of more than %d pieces refused: %s", evname,
              EVT_MAX_PIECES, path);
    return 0;
  }
  if (sender == nullptr) sender = evt_hooks_.sender.load();

  EvtLockGuard guard;
  int32_t total = 0;
  if (count > 0) {
    total +=
        emit_walk(find_deepest_node(pieces, count), evname, body, sender, ctx);
  }
  const int32_t idx = evt_find(evname);
  if (idx >= 0) total += _doemit(&evt_l_[idx], body, sender, ctx);
  return total;
}

extern "C" ARBOR_EXPORT void event_emit(int32_t, uintptr_t, int32_t argc,
                                        char** argv) {
  if (argc < 3 || argv == nullptr) return;
  if (argv[0] == nullptr || argv[1] == nullptr || argv[2] == nullptr) return;
  RsEmitEvent(argv[0], argv[1], argv[2], nullptr, nullptr);
}

extern "C" ARBOR_EXPORT void evt_deliver(void* ctx, uint32_t uid, int32_t asc,
                                         const char* body) {
  if (ctx != nullptr) {
    const auto* filter = static_cast<const EvtDeliverFilter*>(ctx);
    if (filter->uid != uid || filter->asc != asc) return;
  }
  if (body == nullptr) {
    ARBOR_LOG(0, "event for %u/%d without a body dropped", uid, asc);
    return;
  }
  const auto length = static_cast<uint32_t>(std::strlen(body));
  if (uid == 0) {
    evt_local_asc(asc, body, length + 1);
  } else {
    sendasc(uid, asc, body, length, 0);
  }
}
