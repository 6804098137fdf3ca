// The link tests' fixture: the library started with a recording host
// callback and the scripted transport, and helpers to read what went out.
#ifndef ARBOR_TESTS_LINK_LINK_FIXTURE_H
#define ARBOR_TESTS_LINK_LINK_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "arbor/device_class.h"
#include "arbor/sys.h"
#include "arbor/timedq.h"
#include "init/sys_state.h"
#include "test_helpers.h"

namespace link_test {

// MD5 digests (32 lower-case hex digits) of the passwords the cases use.
constexpr char kMd5Pw[] = "8fe4c11451281c094a6578e6ddbf5eed";
constexpr char kMd5Secret[] = "5ebe2294ecd0e0f08eab7690d2a6ee69";
constexpr char kMd5Old[] = "149603e6c03516362a8da23f624db945";
constexpr char kMd5New[] = "22af645d1859cb5ca6da0c484f1f37ea";

// One call of the host callback, with the thread that made it.
struct HostCall {
  int32_t code;
  bool has_text;
  std::string text;
  int32_t length;
  std::thread::id thread;
};

struct HostRecorder {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<HostCall> calls;

  static void Callback(int32_t code, const char* text, int32_t length);
  // Waits up to 10 s for the n-th call with code; false at the limit.
  bool WaitFor(int32_t code, HostCall* out = nullptr, size_t n = 1) {
    std::unique_lock hold(mutex);
    return changed.wait_for(hold, std::chrono::seconds(10), [&] {
      size_t seen = 0;
      for (const HostCall& call : calls)
        if (call.code == code && ++seen == n) {
          if (out != nullptr) *out = call;
          return true;
        }
      return false;
    });
  }
  std::vector<HostCall> Calls() {
    std::lock_guard hold(mutex);
    return calls;
  }
  size_t Count(int32_t code) {
    size_t n = 0;
    for (const HostCall& call : Calls()) n += call.code == code;
    return n;
  }
};
inline HostRecorder host;
inline void HostRecorder::Callback(int32_t code, const char* text,
                                   int32_t length) {
  std::lock_guard hold(host.mutex);
  host.calls.push_back(
      {code, text != nullptr,
       text != nullptr ? std::string(text, static_cast<size_t>(length)) : "",
       length, std::this_thread::get_id()});
  host.changed.notify_all();
}

// Returns once the worker has run every job posted before with delay 0.
inline void DrainWorker() {
  ASSERT_NE(tq_send(timedq_, 0, [](int32_t, uintptr_t, int32_t, char**) {}, 0,
                    static_cast<const char*>(nullptr)),
            nullptr);
}

// Control texts written to the service under asc, in order.
inline std::vector<std::string> WanTexts(int32_t asc) {
  std::vector<std::string> texts;
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_NET_WRITE, i, &call) == 0; ++i)
    if (call.text != nullptr && call.asc == asc)
      texts.emplace_back(call.text, call.text_size);
  return texts;
}

// The values of keys in a dictionary text, joined by '|'; "-" for an
// absent key, "<bad>" for text that does not parse.
inline std::string Keys(const std::string& text,
                        std::initializer_list<const char*> keys) {
  Dict dict = DictCreate(text.c_str(), static_cast<int32_t>(text.size()));
  if (dict == nullptr) return "<bad>";
  std::string out;
  for (const char* key : keys) {
    const char* value = DictGetStr(dict, key);
    out += (out.empty() ? "" : "|") + std::string(value ? value : "-");
  }
  DictDestroy(dict);
  return out;
}

// Lines of the capture that contain text.
inline size_t Lines(LogCapture& log, const std::string& text) {
  std::istringstream all(log.Dump());
  size_t n = 0;
  for (std::string line; std::getline(all, line);)
    n += line.find(text) != std::string::npos;
  return n;
}

// A driver class that only describes itself.
inline cdef Class(const char* (*info)(), const char* (*list)()) {
  cdef cls{};
  cls.SetCallback = [](DeviceCallback) { return 0; };
  cls.GetObjectInfo = info;
  cls.Retrieve = list;
  return cls;
}

// The library running with the recording host callback.
class LinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(SysInit(&HostRecorder::Callback), 0);
    seq_ = sys_.login_seq.load();
  }
  void TearDown() override {
    SysExit();
    if (HasFailure()) std::fputs(log_.Dump().c_str(), stderr);
  }
  // The "SEQ" of the n-th sign-in attempt of this case.
  std::string Seq(uint32_t n) const { return std::to_string(seq_ + n); }

  LogCapture log_{3};
  uint32_t seq_ = 0;
};

}  // namespace link_test

#endif  // ARBOR_TESTS_LINK_LINK_FIXTURE_H
