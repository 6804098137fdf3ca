// Helpers shared by the engine tests: the log lines a case produced, and the
// calls that the scripted transport recorded.
#ifndef ARBOR_TESTS_TEST_HELPERS_H
#define ARBOR_TESTS_TEST_HELPERS_H

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "arbor/support.h"
#include "scripted_transport.h"

// Collects every log line up to `level` while it lives.
class LogCapture {
 public:
  explicit LogCapture(int level = 3) : previous_(LOG_SetLevel(level)) {
    LOG_SetSink(&LogCapture::Sink, this);
  }
  ~LogCapture() {
    LOG_SetSink(nullptr, nullptr);
    LOG_SetLevel(previous_);
  }
  size_t Count() {
    std::lock_guard hold(mutex_);
    return lines_.size();
  }
  // Index of the first line containing text, or -1.
  int Find(const std::string& text) {
    std::lock_guard hold(mutex_);
    for (size_t i = 0; i < lines_.size(); ++i)
      if (lines_[i].find(text) != std::string::npos) return static_cast<int>(i);
    return -1;
  }
  bool Has(const std::string& text) { return Find(text) >= 0; }
  // Whether a line of exactly `level` contains text: some faults differ
  // from correct behaviour only in the level of a line.
  bool HasAt(int level, const std::string& text) {
    std::lock_guard hold(mutex_);
    for (size_t i = 0; i < lines_.size(); ++i)
      if (levels_[i] == level && lines_[i].find(text) != std::string::npos)
        return true;
    return false;
  }
  // Every line caught, for a failing case's output.
  std::string Dump() {
    std::lock_guard hold(mutex_);
    std::string all;
    for (const std::string& line : lines_) all += line + "\n";
    return all;
  }

 private:
  static void Sink(void* self, int level, const char* line, size_t length) {
    auto* capture = static_cast<LogCapture*>(self);
    std::lock_guard hold(capture->mutex_);
    capture->lines_.emplace_back(line, length);
    capture->levels_.push_back(level);
  }
  int previous_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::vector<int> levels_;
};

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

// Every control text the scripted transport carried to the service, in
// order.
inline std::vector<std::string> WanTexts() {
  std::vector<std::string> texts;
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_NET_WRITE, i, &call) == 0; ++i)
    if (call.text != nullptr) texts.emplace_back(call.text, call.text_size);
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
