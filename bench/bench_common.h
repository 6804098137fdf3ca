// bench_common.h - what the benchmark programs of the suite share: the
// short mode CI runs, the process's memory, the engine's log lines kept out
// of the figures, and the host's view of its sessions (the SessionStart
// notices of its dials).
//
// Every program of the suite runs each case once per process, as a
// Google Benchmark case of one iteration with the time it measured itself
// (UseManualTime); scripts/bench.sh repeats the process and reads the
// counters. The figure of a case is its counter "value"; a case that
// measures its own anchor in the same process reports it as "anchor".
#ifndef ARBOR_BENCH_BENCH_COMMON_H
#define ARBOR_BENCH_BENCH_COMMON_H

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "arbor/asc.h"
#include "arbor/support.h"

// The AS code the benchmarks dial with: the notices of their sessions come
// back under it, as to any host.
inline constexpr int32_t kBenchAsc = 200;

// ARBOR_BENCH_SMOKE=1: every case runs briefly and at a small scale, to
// show that it builds and runs (CI); its figures mean nothing.
inline bool bench_smoke() {
  const char* v = std::getenv("ARBOR_BENCH_SMOKE");
  return v != nullptr && *v != '\0' && std::strcmp(v, "0") != 0;
}

// A full-run quantity, or the smoke one.
template <typename T>
T bench_scale(T full, T smoke) {
  return bench_smoke() ? smoke : full;
}

using BenchClock = std::chrono::steady_clock;

inline double seconds_since(BenchClock::time_point start) {
  return std::chrono::duration<double>(BenchClock::now() - start).count();
}

// Resident bytes of this process (/proc/self/statm), 0 when unreadable.
inline uint64_t rss_bytes() {
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return 0;
  unsigned long size = 0, resident = 0;
  const int got = std::fscanf(f, "%lu %lu", &size, &resident);
  std::fclose(f);
  return got == 2 ? resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

// Bytes the heap has handed out and not taken back (glibc), mmapped
// blocks included.
inline uint64_t heap_bytes() {
  const struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

// The engine's level-0 lines go to a sink that counts them and keeps the
// first, so a benchmark neither pays for a terminal nor hides a fault: the
// count and the first line are printed when the case ends.
class LogTally {
 public:
  LogTally() {
    LOG_SetLevel(0);
    LOG_SetSink(&LogTally::Sink, this);
  }
  ~LogTally() {
    LOG_SetSink(nullptr, nullptr);
    if (lines_ > 0)
      std::fprintf(stderr, "engine log: %llu level-0 line(s), the first: %s\n",
                   static_cast<unsigned long long>(lines_.load()), first_.c_str());
  }
  LogTally(const LogTally&) = delete;
  LogTally& operator=(const LogTally&) = delete;

 private:
  static void Sink(void* context, int, const char* line, size_t) {
    auto* self = static_cast<LogTally*>(context);
    if (self->lines_.fetch_add(1) == 0) self->first_ = line;
  }
  std::atomic<uint64_t> lines_{0};
  std::string first_;  // written once, by the first line's thread
};

// The host's notices under kBenchAsc: how many sessions have been reported
// started (SessionStart) or failed (RUN_FAIL). The handler returns 0, so
// the engine's own handler still acts on each notice, as for any host.
class SessionNotices {
 public:
  static SessionNotices& get() {
    static SessionNotices notices;
    return notices;
  }
  // Registers the handler; after SysInit, once per SysInit.
  void listen() {
    SysRegistASLan(kBenchAsc, nullptr, reinterpret_cast<AsHandler>(&Heard));
  }
  uint64_t started() const { return started_.load(); }
  uint64_t failed() const { return failed_.load(); }
  // Waits until `count` starts in all were heard; false after ms.
  bool wait_started(uint64_t count, int ms) {
    std::unique_lock hold(mutex_);
    target_.store(count);
    return changed_.wait_for(hold, std::chrono::milliseconds(ms),
                             [&] { return started_.load() >= count; });
  }

 private:
  static int32_t Heard(uint32_t, uint32_t size, const char* data) {
    SessionNotices& self = get();
    const std::string_view text(data, size);
    if (text.find("=SessionStart;") != std::string_view::npos) {
      const uint64_t now = self.started_.fetch_add(1) + 1;
      if (now == self.target_.load()) {
        std::lock_guard hold(self.mutex_);
        self.changed_.notify_all();
      }
    } else if (text.find("=RUN_FAIL;") != std::string_view::npos) {
      self.failed_.fetch_add(1);
    }
    return 0;
  }
  std::atomic<uint64_t> started_{0}, failed_{0};
  std::atomic<uint64_t> target_{UINT64_MAX};
  std::mutex mutex_;
  std::condition_variable changed_;
};

// Ends a case that could not be measured: the reason goes to the report.
inline void bench_fail(benchmark::State& state, const std::string& why) {
  state.SkipWithError(why.c_str());
}

#endif  // ARBOR_BENCH_BENCH_COMMON_H
