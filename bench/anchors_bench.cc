// The anchors: what the paths of the suite are measured against, each in
// the same run on the same machine. None of them touches the engine.
//
//  BM_MemcpyHot     one 63,488-byte memcpy between two buffers that stay in
//                   the cache: the fastest this machine makes the copies the
//                   design requires. Copies per second.
//  BM_MemcpyCold    the same copy between buffers walked through 256 MiB,
//                   so that neither side is in the cache. Copies per second.
//  BM_TwoCopyQueue  the design's command queue path, bare: a producer
//                   copies a frame into a record (copy 1), pushes it on a
//                   queue of one mutex and one condition, which copies it
//                   again under the mutex (copy 2) and signals; one
//                   consumer takes everything queued in one hold of the
//                   mutex and hands each frame to a counting sink. Buffers
//                   and items are reused (see TwoCopyQueue), so the heap is
//                   not measured. Batches of 256 frames, as the receiving
//                   path runs. Frames per second, at 188, 1,400 and 63,488
//                   bytes.
//  BM_GstTee        GStreamer, as a user would fan one stream out:
//                   gst-launch-1.0 fakesrc ! tee ! K x (queue ! fakesink)
//                   with 63,488-byte buffers, K = 1, 2, 8; buffers per
//                   second from gst-launch's own "Execution ended after"
//                   time. Reported as not measured when gst-launch-1.0 is
//                   not installed. The child is reaped however it ends.
//
// The raw TCP fan-out anchor is in fanout_bench.cc, beside the engine's
// fan-out that it bounds.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench_common.h"
#include "child_process.h"

namespace {

constexpr size_t kChunk = 63488;

// --------------------------------------------------------------- memcpy

// Copies per second of size bytes from src[i] to dst[i], i walking over
// `slots` pairs, for about `window`.
double memcpy_rate(size_t slots, std::chrono::milliseconds window) {
  const size_t stride = (kChunk + 4095) / 4096 * 4096;
  std::vector<char> src(slots * stride, 's'), dst(slots * stride, 'd');
  uint64_t copies = 0;
  const auto start = BenchClock::now();
  const auto end = start + window;
  size_t i = 0;
  do {
    for (int burst = 0; burst < 64; ++burst) {
      std::memcpy(dst.data() + i * stride, src.data() + i * stride, kChunk);
      benchmark::ClobberMemory();
      if (++i == slots) i = 0;
    }
    copies += 64;
  } while (BenchClock::now() < end);
  return static_cast<double>(copies) / seconds_since(start);
}

void report_rate(benchmark::State& state, double rate, double seconds) {
  for (auto _ : state) state.SetIterationTime(seconds);
  state.counters["value"] = rate;
}

void BM_MemcpyHot(benchmark::State& state) {
  const auto window = std::chrono::milliseconds(bench_scale(500, 20));
  memcpy_rate(1, window / 5);  // warm the cache and the clock
  report_rate(state, memcpy_rate(1, window), window.count() / 1e3);
}

void BM_MemcpyCold(benchmark::State& state) {
  const auto window = std::chrono::milliseconds(bench_scale(500, 20));
  // 2 x 256 MiB: far beyond any cache level of the machines we run on.
  const size_t slots = bench_scale<size_t>(4096, 64);
  report_rate(state, memcpy_rate(slots, window), window.count() / 1e3);
}

// --------------------------------------------------------- two-copy queue

// A free list of equal blocks behind one mutex.
class BlockPool {
 public:
  explicit BlockPool(size_t size) : size_(size) {}
  ~BlockPool() {
    for (void* b : free_) std::free(b);
  }
  void* take() {
    {
      std::lock_guard hold(mutex_);
      if (!free_.empty()) {
        void* b = free_.back();
        free_.pop_back();
        return b;
      }
    }
    return std::malloc(size_);
  }
  void give(void* b) {
    std::lock_guard hold(mutex_);
    free_.push_back(b);
  }

 private:
  size_t size_;
  std::mutex mutex_;
  std::vector<void*> free_;
};

// The leanest form of the design's path, so that it bounds the engine's:
// a small frame's record lives on the producer's stack and its queue copy
// inside the queue's item, items are reused under the queue's own mutex,
// and only frames too large for that take pooled blocks. The engine's
// receiving road makes the same two copies the same way (rsc/incoming.cc,
// device/cmdq.cc); what it adds is the road itself.
constexpr uint32_t kStackRecord = 2028;  // as the engine's record on the stack
constexpr uint32_t kInline = 1536;       // as the engine's command item

struct Item {
  Item* next;
  void* data;  // inline, or a pooled block
  uint32_t size;
  alignas(16) unsigned char inline_data[kInline];
};

class TwoCopyQueue {
 public:
  explicit TwoCopyQueue(uint32_t size) : records_(size), copies_(size) {
    consumer_ = std::thread([this] { consume(); });
  }
  ~TwoCopyQueue() {
    {
      std::lock_guard hold(mutex_);
      stop_ = true;
      cv_.notify_one();
    }
    consumer_.join();
    while (free_ != nullptr) delete std::exchange(free_, free_->next);
  }

  // The producer's side of one frame: both copies.
  void push_frame(const void* frame, uint32_t size) {
    unsigned char small[kStackRecord];
    void* record = size <= kStackRecord ? small : records_.take();
    std::memcpy(record, frame, size);  // copy 1: the record
    {
      std::lock_guard hold(mutex_);
      Item* item = free_ != nullptr ? std::exchange(free_, free_->next) : new Item;
      item->next = nullptr;
      item->data = size <= kInline ? item->inline_data : copies_.take();
      item->size = size;
      std::memcpy(item->data, record, size);  // copy 2: the queue's
      if (tail_ != nullptr) tail_->next = item;
      else head_ = item;
      tail_ = item;
      cv_.notify_one();
    }
    if (record != small) records_.give(record);
  }

  // Blocks until `count` frames in all reached the sink.
  void wait_delivered(uint64_t count) {
    std::unique_lock hold(sink_mutex_);
    target_ = count;
    sink_cv_.wait(hold, [&] { return delivered_.load() >= count; });
  }

 private:
  void consume() {
    Item* spent = nullptr;  // items delivered since the last hold of the mutex
    for (;;) {
      Item* batch;
      {
        std::unique_lock hold(mutex_);
        while (spent != nullptr) {
          Item* item = std::exchange(spent, spent->next);
          item->next = free_;
          free_ = item;
        }
        cv_.wait(hold, [&] { return head_ != nullptr || stop_; });
        if (head_ == nullptr) return;
        batch = head_;
        head_ = tail_ = nullptr;
      }
      while (batch != nullptr) {
        Item* item = std::exchange(batch, batch->next);
        benchmark::DoNotOptimize(item->data);
        if (item->data != item->inline_data) copies_.give(item->data);
        item->next = spent;
        spent = item;
        const uint64_t now = delivered_.fetch_add(1) + 1;
        if (now == target_.load()) {
          std::lock_guard hold(sink_mutex_);
          sink_cv_.notify_all();
        }
      }
    }
  }

  BlockPool records_, copies_;
  std::mutex mutex_;
  std::condition_variable cv_;
  Item* head_ = nullptr;  // oldest; guarded by mutex_
  Item* tail_ = nullptr;  // newest
  Item* free_ = nullptr;  // items to reuse
  bool stop_ = false;
  std::mutex sink_mutex_;
  std::condition_variable sink_cv_;
  std::atomic<uint64_t> delivered_{0};
  std::atomic<uint64_t> target_{UINT64_MAX};
  std::thread consumer_;
};

void BM_TwoCopyQueue(benchmark::State& state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  const auto window = std::chrono::milliseconds(bench_scale(1000, 50));
  constexpr uint64_t kBatch = 256;
  const std::string frame(size, 'f');
  TwoCopyQueue queue(size);
  // Warm-up: the free lists fill up to one batch.
  for (uint64_t i = 0; i < kBatch; ++i) queue.push_frame(frame.data(), size);
  queue.wait_delivered(kBatch);
  uint64_t sent = kBatch, frames = 0;
  const auto start = BenchClock::now();
  const auto end = start + window;
  do {
    for (uint64_t i = 0; i < kBatch; ++i) queue.push_frame(frame.data(), size);
    sent += kBatch;
    frames += kBatch;
    queue.wait_delivered(sent);
  } while (BenchClock::now() < end);
  const double seconds = seconds_since(start);
  report_rate(state, static_cast<double>(frames) / seconds, seconds);
}

// --------------------------------------------------------------- GStreamer

// gst-launch-1.0's full path from PATH, or "".
std::string find_gst_launch() {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::string candidate = dir + "/gst-launch-1.0";
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

// "Execution ended after 0:00:01.234567890" in seconds, or 0.
double execution_seconds(const std::string& line) {
  const size_t at = line.find("after ");
  if (at == std::string::npos) return 0;
  unsigned hours = 0, minutes = 0;
  double secs = 0;
  if (std::sscanf(line.c_str() + at + 6, "%u:%u:%lf", &hours, &minutes, &secs) != 3)
    return 0;
  return hours * 3600.0 + minutes * 60.0 + secs;
}

void BM_GstTee(benchmark::State& state) {
  const auto branches = static_cast<int>(state.range(0));
  const std::string gst = find_gst_launch();
  if (gst.empty()) return bench_fail(state, "skipped: gst-launch-1.0 not installed");
  // About a second each on a 2-core machine; fewer in the smoke run.
  const int buffers = bench_smoke() ? 200 : (branches == 1 ? 200000 : branches == 2 ? 120000 : 30000);
  std::vector<std::string> args = {gst,
                                   "fakesrc",
                                   "num-buffers=" + std::to_string(buffers),
                                   "sizetype=fixed",
                                   "sizemax=" + std::to_string(kChunk),
                                   "!",
                                   "tee",
                                   "name=t"};
  for (int i = 0; i < branches; ++i) {
    for (const char* word : {"t.", "!", "queue", "!", "fakesink"}) args.emplace_back(word);
  }
  ChildProcess child(args);
  if (!child.started()) return bench_fail(state, "gst-launch-1.0 could not be started");
  const std::string line = child.WaitForLine("Execution ended after", std::chrono::seconds(60));
  const int status = child.Wait(std::chrono::seconds(10));
  const double seconds = execution_seconds(line);
  if (seconds <= 0 || status != 0)
    return bench_fail(state, "gst-launch-1.0 failed: " + child.Output());
  report_rate(state, buffers / seconds, seconds);
}

BENCHMARK(BM_MemcpyHot)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemcpyCold)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TwoCopyQueue)
    ->ArgName("bytes")
    ->Arg(188)
    ->Arg(1400)
    ->Arg(63488)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GstTee)
    ->ArgName("branches")
    ->Arg(1)
    ->Arg(2)
    ->Arg(8)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
