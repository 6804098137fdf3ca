// The device sink the benchmarks measure against: it counts the writes it
// is given, and wakes a waiter once a target count is reached.
#ifndef ARBOR_BENCH_SINK_COUNT_H
#define ARBOR_BENCH_SINK_COUNT_H

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

struct SinkCount {
  std::mutex mutex;
  std::condition_variable cv;
  std::atomic<uint64_t> writes{0};
  std::atomic<uint64_t> target{0};

  // Blocks until `target` writes have been seen.
  void wait_for_target() {
    std::unique_lock hold(mutex);
    cv.wait(hold, [this] { return writes.load() >= target.load(); });
  }
};
inline SinkCount count;

// The Write slot of the sink class.
inline int32_t sink_write(int32_t, const void* data, uint32_t size, uint32_t) {
  benchmark::DoNotOptimize(data);
  if (count.writes.fetch_add(1) + 1 == count.target.load()) {
    std::lock_guard hold(count.mutex);
    count.cv.notify_all();
  }
  return static_cast<int32_t>(size);
}

#endif  // ARBOR_BENCH_SINK_COUNT_H
