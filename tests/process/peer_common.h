// What the test peer programs share: bounded waits, and the check after
// SysExit that nothing of the engine is left (no root, no queued command,
// no thread but main). They link the engine statically to see its state.
#ifndef ARBOR_TESTS_PROCESS_PEER_COMMON_H
#define ARBOR_TESTS_PROCESS_PEER_COMMON_H

#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>

#include "arbor/observe.h"
#include "arbor/sys.h"
#include "demo_drivers.h"
#include "device/forest.h"

namespace peer {

// How long each step may take before a peer gives up.
inline constexpr auto kStepLimit = std::chrono::seconds(20);

// Threads a process has of itself: main, and under ThreadSanitizer the
// runtime's background thread, which it may start at any time.
#if defined(__SANITIZE_THREAD__)
inline constexpr int kOwnThreadsMax = 2;
#else
inline constexpr int kOwnThreadsMax = 1;
#endif

inline int Fail(const char* step) {
  std::printf("FAILED: %s\n", step);
  std::fflush(stdout);
  return 1;
}

// Threads of this process, /proc/self/task's entries.
inline int ThreadCount() {
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  int n = 0;
  while (const dirent* entry = readdir(dir))
    if (entry->d_name[0] != '.') ++n;
  closedir(dir);
  return n;
}

// Prints every session event of this peer as "observed <begin|end|fail>
// <reason or -> | <chain>", from the observer's thread.
inline void PrintSessionEvent(const arbor_session_event* e, void*) {
  static const char* const kinds[] = {"?", "begin", "end", "fail"};
  std::printf("observed %s %s | %s\n", kinds[e->kind <= 3 ? e->kind : 0],
              e->reason[0] != '\0' ? e->reason : "-", e->chain);
  std::fflush(stdout);
}

inline void ObserveSessions() { arbor_observe_sessions(PrintSessionEvent, nullptr); }

// Stops the library, prints "clean" or what is left, and says which. The
// observer, when set, hears the stop's own ends before it is cleared.
inline bool StopAndCheck() {
  SysExit();
  arbor_observe_sessions(nullptr, nullptr);
  const bool clean = forest_.head.next == nullptr && cmdq_cached_total() == 0 &&
                     ThreadCount() <= kOwnThreadsMax;
  std::printf("%s\n", clean ? "clean" : "NOT CLEAN");
  if (!clean)
    std::printf("roots %s, queued bytes %u, threads %d\n",
                forest_.head.next != nullptr ? "left" : "none", cmdq_cached_total(),
                ThreadCount());
  std::fflush(stdout);
  return clean;
}

// Polls cond every millisecond up to limit; true when it held.
template <typename Cond>
bool WaitFor(Cond cond, std::chrono::seconds limit = kStepLimit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Returns when a line "quit" (or the end of input) arrives.
inline void ReadUntilQuit() {
  for (std::string line; std::getline(std::cin, line) && line != "quit";) {
  }
}

// Waits for every source device to be closed; false when one stays open.
inline bool SourcesClosed() {
  return WaitFor([] {
    const demo_source_totals t = demo_source_snapshot();
    return t.closes == t.opens;
  });
}

// Prints "received <n> out-of-order <m>" for the sink's chunks so far.
inline demo_sink_totals PrintReceived() {
  const demo_sink_totals t = demo_sink_snapshot();
  std::printf("received %llu out-of-order %llu\n", static_cast<unsigned long long>(t.chunks),
              static_cast<unsigned long long>(t.out_of_order));
  return t;
}

}  // namespace peer

#endif  // ARBOR_TESTS_PROCESS_PEER_COMMON_H
