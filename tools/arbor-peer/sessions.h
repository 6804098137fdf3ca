// sessions.h - the sessions of this peer as the engine's observer tells
// them (arbor/observe.h): begin, end and fail, each kept in a bounded queue
// until the main thread takes it.
//
// The observer runs on the engine's observer thread, which should not wait
// for a slow standard output, so it only appends under a short lock; past
// kMaxQueuedSessionEvents events are dropped and counted.
#ifndef ARBOR_TOOLS_PEER_SESSIONS_H
#define ARBOR_TOOLS_PEER_SESSIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace arbor_peer {

inline constexpr size_t kMaxQueuedSessionEvents = 1024;

struct SessionEvent {
  uint32_t kind = 0;  // ARBOR_SESSION_BEGIN, _END, _FAIL
  uint32_t uid = 0;   // the owner: 0 for this host, else a peer
  int32_t ascode = 0;
  std::string sid;
  std::string reason;
  std::string chain;
};

// Sets the observer (after SysInit).
void WatchSessions();

// Takes the observer away again, after it delivered what was queued.
void StopWatchingSessions();

// The events since the last call, oldest first; *dropped (when given) gets
// how many were lost on the way, by the engine's queue or by ours.
std::vector<SessionEvent> TakeSessionEvents(uint64_t* dropped = nullptr);

// "begin", "end", "fail".
const char* SessionKindName(uint32_t kind);

}  // namespace arbor_peer

#endif  // ARBOR_TOOLS_PEER_SESSIONS_H
