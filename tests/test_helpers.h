// Helpers shared by the engine tests: the log lines a case produced
// (log_capture.h), a bounded wait for a condition, and the calls that the
// scripted transport recorded.
#ifndef ARBOR_TESTS_TEST_HELPERS_H
#define ARBOR_TESTS_TEST_HELPERS_H

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "arbor/support.h"
#include "log_capture.h"
#include "arbor/scripted_transport.h"

// Polls cond every millisecond until it holds or `limit` passes; whether it
// held.
inline bool WaitFor(const std::function<bool()>& cond,
                    std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// The index-th recorded call of fn, which must exist.
inline scripted_call Recorded(scripted_fn fn, size_t index) {
  scripted_call call{};
  EXPECT_EQ(scripted_call_get(fn, index, &call), 0)
      << scripted_fn_name(fn) << " #" << index;
  return call;
}

inline std::string Payload(const scripted_call& call) {
  return std::string(reinterpret_cast<const char*>(call.data), call.size);
}

// Every control text the scripted transport carried to the service (under
// AS code asc, unless it is -1), in order.
inline std::vector<std::string> WanTexts(int32_t asc = -1) {
  std::vector<std::string> texts;
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_NET_WRITE, i, &call) == 0; ++i)
    if (call.text != nullptr && (asc == -1 || call.asc == asc))
      texts.emplace_back(call.text, call.text_size);
  return texts;
}

// The value of key in a dictionary text, or "<none>".
inline std::string Key(const std::string& text, const char* key) {
  Dict dict = DictCreate(text.c_str(), static_cast<int32_t>(text.size()));
  const char* value = dict != nullptr ? DictGetStr(dict, key) : nullptr;
  std::string out = value != nullptr ? value : "<none>";
  DictDestroy(dict);
  return out;
}

#endif  // ARBOR_TESTS_TEST_HELPERS_H
