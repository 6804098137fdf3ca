// Fake drivers of the media path: a source whose Read serves queued chunks
// and blocks until one comes or the device is closed, sinks that record
// every Write, and a converter that consumes whole units only, holding the
// rest back. One instance of each, reset by Reset().
#ifndef ARBOR_TESTS_DEVICE_DATAPATH_FAKES_H
#define ARBOR_TESTS_DEVICE_DATAPATH_FAKES_H

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "arbor/cdef.h"
#include "device/datapath.h"
#include "forest_fixture.h"

namespace datapath_test {

struct Source {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::string> chunks;
  bool closed = false;
  int32_t fail_with = 0;  // non-zero: the next Read returns it
  uint32_t empty_reads = 0;  // Reads that return 0 before any chunk
  uint32_t reads = 0;
};
inline Source source;

inline void Feed(const std::string& chunk) {
  std::lock_guard hold(source.mutex);
  source.chunks.push_back(chunk);
  source.cv.notify_all();
}

inline int32_t SourceRead(int32_t, void* buffer, uint32_t size,
                          uint32_t* flags) {
  std::unique_lock hold(source.mutex);
  ++source.reads;
  if (source.empty_reads > 0) {
    --source.empty_reads;
    return 0;
  }
  source.cv.wait(hold, [] {
    return source.closed || !source.chunks.empty() || source.fail_with != 0;
  });
  if (source.fail_with != 0) return source.fail_with;
  if (source.closed) return -1;
  std::string chunk = std::move(source.chunks.front());
  source.chunks.pop_front();
  std::memcpy(buffer, chunk.data(), std::min<size_t>(chunk.size(), size));
  *flags = 0x100;  // a level the driver set; the media type is ORed in
  return static_cast<int32_t>(chunk.size());
}
inline int32_t SourceClose(int32_t) {
  std::lock_guard hold(source.mutex);
  source.closed = true;
  source.cv.notify_all();
  return 0;
}

// Writes by xfd, and Convert's inputs, as the drivers saw them.
struct Sinks {
  std::mutex mutex;
  std::condition_variable cv;
  std::map<int32_t, std::vector<std::string>> writes;
  std::vector<uint32_t> flags;
  std::vector<std::string> convert_inputs;
  std::vector<std::string> events;
  uint32_t unit = 35;  // the converter consumes whole units only
};
inline Sinks sinks;

inline int32_t SinkWrite(int32_t xfd, const void* data, uint32_t size,
                         uint32_t flags) {
  std::lock_guard hold(sinks.mutex);
  sinks.writes[xfd].emplace_back(static_cast<const char*>(data), size);
  sinks.flags.push_back(flags);
  sinks.cv.notify_all();
  return static_cast<int32_t>(size);
}
inline int32_t SinkEvent(const char* name, int32_t, const char* text) {
  std::lock_guard hold(sinks.mutex);
  sinks.events.push_back(std::string(name != nullptr ? name : "") + "|" +
                         text);
  return 0;
}
inline int32_t Convert(int32_t, const void* in, uint32_t* in_size, void* out,
                       uint32_t* out_size, uint32_t* flags) {
  *flags = 0xdead;  // must not reach the children
  const uint32_t take = *in_size / sinks.unit * sinks.unit;
  if (out == nullptr) {
    *out_size = take;
    return 0;
  }
  {
    std::lock_guard hold(sinks.mutex);
    sinks.convert_inputs.emplace_back(static_cast<const char*>(in), *in_size);
  }
  std::memcpy(out, in, take);
  *out_size = take;
  *in_size = take;
  return 0;
}
inline int32_t NopClose(int32_t) { return 0; }

inline cdef MakeClass(bool reads, bool convert) {
  cdef cls{};
  cls.Close = reads ? SourceClose : NopClose;
  cls.DoEvent = SinkEvent;
  cls.Read = reads ? SourceRead : nullptr;
  cls.Write = reads ? nullptr : SinkWrite;
  cls.Convert = convert ? Convert : nullptr;
  return cls;
}
inline cdef source_class = MakeClass(true, false);
inline cdef sink_class = MakeClass(false, false);
inline cdef converter_class = MakeClass(false, true);

// The writes xfd received, once there are at least count (10 s limit).
inline std::vector<std::string> WritesOf(int32_t xfd, size_t count) {
  std::unique_lock hold(sinks.mutex);
  sinks.cv.wait_for(hold, std::chrono::seconds(10),
                    [&] { return sinks.writes[xfd].size() >= count; });
  return sinks.writes[xfd];
}

// Makes root the forest's and starts its read thread as the activation
// does: the thread's reference taken and use_thread 2.
inline void StartThread(TreeRoot* root) {
  forest_link(root);
  root_ref(root);
  root->use_thread = 2;
  pthread_create(&root->thread, nullptr, thread_read_root, root);
}

// Bytes first, first + 1, ... as a chunk of n.
inline std::string Bytes(int first, size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(first + i);
  return s;
}

}  // namespace datapath_test

#endif  // ARBOR_TESTS_DEVICE_DATAPATH_FAKES_H
