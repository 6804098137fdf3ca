// The log lines a case produced, for every test that links the support
// library (the engine's and the socket transport's alike).
#ifndef ARBOR_TESTS_LOG_CAPTURE_H
#define ARBOR_TESTS_LOG_CAPTURE_H

#include <mutex>
#include <string>
#include <vector>

#include "arbor/support.h"

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

#endif  // ARBOR_TESTS_LOG_CAPTURE_H
