// bench_drivers.cc - bench.source, bench.pass and bench.sink (what each does
// is in bench_drivers.h). Each class is a cdef table written slot by slot
// at the end of its part, as a device maker would write one.
//
// Threads, as the engine calls the slots: Open and Close on the command
// queue's consumer (Close also on the timed queue's worker), Read on the
// root's read thread, Convert and Write on the read thread or the consumer.
// A source device opened "run" or "idle" has a record in a table keyed by
// its descriptor, guarded by a mutex that Read holds only for the look-up;
// descriptors are never reused, so a Read that races its Close finds the
// record closed, never another device's. "fed" sources and sinks keep no
// record at all, so an idle session costs the drivers nothing.
#include "bench_drivers.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "arbor/cdef.h"
#include "arbor/device_class.h"

namespace {

// A count that wakes one waiter when it reaches the waiter's target: no
// lock and no wake-up on the counting side until then.
class Count {
 public:
  void add(uint64_t n = 1) {
    const uint64_t now = value_.fetch_add(n) + n;
    const uint64_t target = target_.load();
    if (now >= target && now - n < target) {
      std::lock_guard hold(mutex_);
      reached_.notify_all();
    }
  }
  uint64_t get() const { return value_.load(std::memory_order_relaxed); }
  bool wait_for(uint64_t target, int ms) {
    std::unique_lock hold(mutex_);
    target_.store(target);
    return reached_.wait_for(hold, std::chrono::milliseconds(ms),
                             [&] { return value_.load() >= target; });
  }

 private:
  std::atomic<uint64_t> value_{0};
  std::atomic<uint64_t> target_{UINT64_MAX};
  std::mutex mutex_;
  std::condition_variable reached_;
};

Count sink_writes, opens, closes;
std::atomic<uint64_t> sink_bytes{0}, source_reads{0};
std::atomic<int32_t> next_xfd{1};

int32_t keep_callback(DeviceCallback) { return 0; }
int32_t no_event(const char*, int32_t, const char*) { return 0; }

// ------------------------------------------------------------ bench.source

enum class Mode { kRun, kIdle };

struct SourceDev {
  Mode mode;
  std::mutex mutex;
  std::condition_variable closed_cv;
  bool closed = false;  // guarded by mutex
};

std::mutex source_table_mutex;
std::unordered_map<int32_t, std::shared_ptr<SourceDev>> source_table;

// What every "run" Read copies: made once, never written again.
const std::string& chunk_pattern() {
  static const std::string pattern(kBenchChunk, 'b');
  return pattern;
}

std::shared_ptr<SourceDev> source_find(int32_t xfd) {
  std::lock_guard hold(source_table_mutex);
  auto it = source_table.find(xfd);
  return it == source_table.end() ? nullptr : it->second;
}

const char* source_retrieve() { return "bench.source"; }
const char* source_info() { return "Type=bench;Role=source;"; }

// Open: the option picks the mode; see bench_drivers.h.
int32_t source_open(const char*, const char* option, uint32_t* threading) {
  const std::string mode = option != nullptr ? option : "";
  const int32_t xfd = next_xfd.fetch_add(1);
  if (mode == "fed") {
    *threading = 0;
  } else if (mode == "run" || mode == "idle") {
    auto dev = std::make_shared<SourceDev>();
    dev->mode = mode == "run" ? Mode::kRun : Mode::kIdle;
    std::lock_guard hold(source_table_mutex);
    source_table.emplace(xfd, std::move(dev));
    *threading = 1;
  } else {
    return -1;
  }
  opens.add();
  return xfd;
}

// Close: wakes a Read that waits, and forgets the device.
int32_t source_close(int32_t xfd) {
  std::shared_ptr<SourceDev> dev;
  {
    std::lock_guard hold(source_table_mutex);
    auto it = source_table.find(xfd);
    if (it != source_table.end()) {
      dev = std::move(it->second);
      source_table.erase(it);
    }
  }
  if (dev != nullptr) {
    std::lock_guard hold(dev->mutex);
    dev->closed = true;
    dev->closed_cv.notify_all();
  }
  closes.add();
  return 0;
}

// Read: "run" copies the chunk at once; "idle" waits for the Close. -1 for
// a closed device, which ends the read thread.
int32_t source_read(int32_t xfd, void* buffer, uint32_t size, uint32_t*) {
  std::shared_ptr<SourceDev> dev = source_find(xfd);
  if (dev == nullptr) return -1;
  if (dev->mode == Mode::kIdle) {
    std::unique_lock hold(dev->mutex);
    dev->closed_cv.wait(hold, [&] { return dev->closed; });
    return -1;
  }
  const uint32_t n = size < kBenchChunk ? size : kBenchChunk;
  std::memcpy(buffer, chunk_pattern().data(), n);
  source_reads.fetch_add(1, std::memory_order_relaxed);
  return static_cast<int32_t>(n);
}

cdef source_class = {
    .Reserved = nullptr,            // not used by the engine
    .SetCallback = keep_callback,   // the callback is not needed
    .Retrieve = source_retrieve,    // "bench.source"
    .GetObjectInfo = source_info,   // Type=bench
    .Open = source_open,            // "run", "idle" or "fed"
    .Close = source_close,          // wakes an idle Read
    .DoEvent = no_event,            // activations and followers: ignored
    .Write = nullptr,               // a source takes no data
    .Read = source_read,            // required: "run" and "idle" are threaded
    .Convert = nullptr,             // not a transform
};

// -------------------------------------------------------------- bench.pass

const char* pass_retrieve() { return "bench.pass"; }
const char* pass_info() { return "Type=bench;Role=transform;"; }

int32_t plain_open(const char*, const char*, uint32_t* threading) {
  *threading = 0;
  opens.add();
  return next_xfd.fetch_add(1);
}

int32_t plain_close(int32_t) {
  closes.add();
  return 0;
}

// Convert: with out null, says that it needs as many bytes as it is given;
// with out, copies the input whole and consumes it all.
int32_t pass_convert(int32_t, const void* in, uint32_t* in_size, void* out,
                     uint32_t* out_size, uint32_t*) {
  if (out == nullptr) {
    *out_size = *in_size;
    return 0;
  }
  const uint32_t n = *in_size < *out_size ? *in_size : *out_size;
  std::memcpy(out, in, n);
  *in_size = n;
  *out_size = n;
  return 0;
}

cdef pass_class = {
    .Reserved = nullptr,          // not used by the engine
    .SetCallback = keep_callback,  // the callback is not needed
    .Retrieve = pass_retrieve,    // "bench.pass"
    .GetObjectInfo = pass_info,   // Type=bench
    .Open = plain_open,           // no read thread, no state
    .Close = plain_close,         // nothing to free
    .DoEvent = no_event,          // ignored
    .Write = nullptr,             // never a leaf in these chains
    .Read = nullptr,              // not a source
    .Convert = pass_convert,      // the transform's one copy
};

// -------------------------------------------------------------- bench.sink

const char* sink_retrieve() { return "bench.sink"; }
const char* sink_info() { return "Type=bench;Role=sink;"; }

// Write: counts, and takes everything.
int32_t sink_write(int32_t, const void*, uint32_t size, uint32_t) {
  sink_bytes.fetch_add(size, std::memory_order_relaxed);
  sink_writes.add();
  return static_cast<int32_t>(size);
}

cdef sink_class = {
    .Reserved = nullptr,          // not used by the engine
    .SetCallback = keep_callback,  // the callback is not needed
    .Retrieve = sink_retrieve,    // "bench.sink"
    .GetObjectInfo = sink_info,   // Type=bench
    .Open = plain_open,           // no read thread, no state
    .Close = plain_close,         // nothing to free
    .DoEvent = no_event,          // ignored
    .Write = sink_write,          // counts
    .Read = nullptr,              // not a source
    .Convert = nullptr,           // passes nothing on
};

}  // namespace

void bench_drivers_register() {
  SysRegisterDev(&source_class);
  SysRegisterDev(&pass_class);
  SysRegisterDev(&sink_class);
}

BenchTotals bench_totals() {
  return {sink_writes.get(), sink_bytes.load(), opens.get(), closes.get(),
          source_reads.load()};
}

bool bench_wait_sink_writes(uint64_t writes, int ms) {
  return sink_writes.wait_for(writes, ms);
}
bool bench_wait_closes(uint64_t n, int ms) { return closes.wait_for(n, ms); }
bool bench_wait_opens(uint64_t n, int ms) { return opens.wait_for(n, ms); }
