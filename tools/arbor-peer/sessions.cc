// sessions.cc - the session observer's queue (sessions.h).
#include "sessions.h"

#include <cstring>
#include <mutex>

#include "arbor/observe.h"

namespace arbor_peer {

namespace {

struct Queue {
  std::mutex mutex;
  std::vector<SessionEvent> events;  // guarded by mutex
  uint64_t dropped = 0;              // guarded by mutex
};

Queue& TheQueue() {
  static Queue* queue = new Queue;  // never destroyed: the observer may outlive main's locals
  return *queue;
}

// A fixed field of the event record, which the engine NUL-terminates; read
// no further than its size all the same.
std::string Field(const char* text, size_t size) { return std::string(text, strnlen(text, size)); }

void OnSessionEvent(const arbor_session_event* event, void*) {
  if (event == nullptr) return;
  SessionEvent copy;
  copy.kind = event->kind;
  copy.uid = event->uid;
  copy.ascode = event->ascode;
  copy.sid = Field(event->sid, sizeof event->sid);
  copy.reason = Field(event->reason, sizeof event->reason);
  copy.chain = Field(event->chain, sizeof event->chain);
  Queue& queue = TheQueue();
  std::lock_guard<std::mutex> lock(queue.mutex);
  queue.dropped += event->dropped;
  if (queue.events.size() >= kMaxQueuedSessionEvents) {
    ++queue.dropped;
    return;
  }
  queue.events.push_back(std::move(copy));
}

}  // namespace

void WatchSessions() { arbor_observe_sessions(OnSessionEvent, nullptr); }

void StopWatchingSessions() { arbor_observe_sessions(nullptr, nullptr); }

std::vector<SessionEvent> TakeSessionEvents(uint64_t* dropped) {
  Queue& queue = TheQueue();
  std::vector<SessionEvent> taken;
  std::lock_guard<std::mutex> lock(queue.mutex);
  taken.swap(queue.events);
  if (dropped != nullptr) *dropped = queue.dropped;
  queue.dropped = 0;
  return taken;
}

const char* SessionKindName(uint32_t kind) {
  switch (kind) {
    case ARBOR_SESSION_BEGIN:
      return "begin";
    case ARBOR_SESSION_END:
      return "end";
    case ARBOR_SESSION_FAIL:
      return "fail";
    default:
      return "event";
  }
}

}  // namespace arbor_peer
