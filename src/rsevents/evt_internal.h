/*
 * rsevents/evt_internal.h - the subscription tree and the global event list
 * as the engine sees them: the records, the hooks and the lookups that both
 * subscription (evt_tree.cc) and emission use.
 *
 * Every function and record here is read or changed only between the lock
 * and unlock hooks (EvtLockGuard), except split_path, which works on the
 * caller's own copy of a path. Nothing here is ever freed: a pointer to a
 * node stays valid for the life of the process, while a pointer to a slot
 * or to a list entry is valid only until the next subscription, since slot
 * arrays and the list move when they grow.
 */
#ifndef ARBOR_SRC_RSEVENTS_EVT_INTERNAL_H
#define ARBOR_SRC_RSEVENTS_EVT_INTERNAL_H

#include <atomic>
#include <cstdint>

#include "arbor/rsevents.h"

// One subscriber of one slot.
struct Subscriber {
  uint32_t uid;      // a peer's qvid, 0 for this process
  int32_t asc;       // AS code that the message is sent under
  EvtMatchFn match;  // never null: match_any stands in for none
  char* arg;         // the filter's text, owned; may be null
};

// The subscribers of one event name at one place. Subscribers are kept in
// the order they came, in an array grown by 8.
struct EventSlot {
  uint32_t nsubs;
  Subscriber* subs;
  union {
    int32_t evidx;  // in a node's slot: index of the name in evt_l_
    char* name;     // in evt_l_: the event's name, owned
  } un;
};

// One path piece. The root is evt_root_, named "Object"; its name is not a
// path piece, so the path "Object.a" makes a child named "Object" below it.
struct EventNode {
  char* name;        // the piece, owned
  uint32_t nevents;  // slots, grown by 8, in order of first subscription
  EventSlot* events;
  uint32_t nchildren;  // children, in order of creation, grown by 1
  EventNode** children;
  EventNode* parent;  // null at the root
};

// The hooks given to evt_init. Atomic so that a subscription racing with
// evt_init reads a whole pointer; SysInit sets them before other threads use
// the tree, so in practice they change only while nobody looks.
struct EvtHooks {
  std::atomic<EvtLockFn> lock;
  std::atomic<EvtLockFn> unlock;
  std::atomic<EvtSenderFn> sender;
};

extern EvtHooks evt_hooks_;
extern EventNode evt_root_;
// The global event list: the dictionary of all event names (an index, once
// given, stays valid: every node slot's evidx is below n_evt_l_) and the
// slots of the subscribers who gave no path. Grown by 8, never shrunk.
extern EventSlot* evt_l_;
extern uint32_t n_evt_l_;

// Holds the event lock for a scope. It calls the unlock that belongs to the
// lock it took, even if evt_init changes the hooks in between.
class EvtLockGuard {
 public:
  EvtLockGuard() : unlock_(evt_hooks_.unlock.load()) {
    evt_hooks_.lock.load()();
  }
  ~EvtLockGuard() { unlock_(); }
  EvtLockGuard(const EvtLockGuard&) = delete;
  EvtLockGuard& operator=(const EvtLockGuard&) = delete;

 private:
  EvtLockFn unlock_;
};

// Cuts text in place at each '.' into pieces (room for EVT_MAX_PIECES),
// dropping empty pieces and keeping the others in order. Returns the number
// of pieces, 0 for an empty text or dots only. Returns -1 when text has more
// than EVT_MAX_PIECES non-empty pieces; then neither text nor pieces has
// been touched. Needs no lock.
int split_path(char** pieces, char* text);

// The deepest existing node on the way of pieces[0..count): the root when
// count is 0 or when no child of the root is named pieces[0]. Never null.
EventNode* find_deepest_node(char* const* pieces, int count);

// The slot of node for the event evname, or null when node has none. Both
// must be set (assertion "node && evname").
EventSlot* node_get_event(EventNode* node, const char* evname);

// The index of name in evt_l_, -1 when absent.
int32_t evt_find(const char* name);

// Appends an entry for a copy of name to evt_l_ and returns its index; the
// caller has made sure the name is absent. -1 when memory runs out; then the
// list is unchanged.
int32_t evt_add(const char* name);

// Test seam: lets `after` more allocations of the event tree succeed, then
// fails every further one, so that tests can reach the out-of-memory paths;
// a negative value lets them all succeed again. The engine never calls it.
void evt_test_fail_allocs(int32_t after);

#endif  // ARBOR_SRC_RSEVENTS_EVT_INTERNAL_H
