// LOG_Print: the threshold, the line's shape, long messages, and whole lines
// from many threads, both through a sink and on standard error.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "arbor/support.h"

namespace {

struct Capture {
  std::vector<std::string> lines;
  std::vector<int> levels;
  std::atomic<int> inside{0};
  bool overlapped = false;
  Capture() { LOG_SetSink(&Capture::Sink, this); }
  ~Capture() { LOG_SetSink(nullptr, nullptr); }

  static void Sink(void* context, int level, const char* line, size_t len) {
    auto* self = static_cast<Capture*>(context);
    if (self->inside.fetch_add(1) != 0) self->overlapped = true;
    self->lines.emplace_back(line, len);
    self->levels.push_back(level);
    self->inside.fetch_sub(1);
  }
};

const std::regex kLineShape(
    R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} L(\d+) \[(\d+)\] )"
    R"(log_test\.cc:\d+ (\S+): (.*)$)");
// Long enough that a line needs the heap.
const std::string kPad(3000, 'p');

// Logs 100 padded lines from each of four threads.
void LogFromThreads() {
  std::vector<std::thread> workers;
  for (int t = 0; t < 4; ++t) {
    workers.emplace_back([t] {
      for (int i = 0; i < 100; ++i)
        ARBOR_LOG(0, "t%d n%d %s", t, i, kPad.c_str());
    });
  }
  for (auto& w : workers) w.join();
}

// Every line is one whole line of LogFromThreads. std::regex recurses per
// byte, so the head is matched and the padding compared.
void ExpectWholeLines(const std::vector<std::string>& lines) {
  ASSERT_EQ(lines.size(), 400u);
  for (const std::string& line : lines) {
    ASSERT_GT(line.size(), kPad.size());
    const size_t head = line.size() - kPad.size();
    ASSERT_EQ(line.compare(head, kPad.size(), kPad), 0) << line.substr(0, 99);
    const std::string front = line.substr(0, head);
    ASSERT_TRUE(std::regex_match(front, kLineShape)) << front;
  }
}

}  // namespace

// Relies on a fresh process, as each case gets under CTest: the variable is
// read at the first call that needs the threshold.
TEST(Log, EnvironmentSetsThresholdOnceAndLinesCarryTimeLevelThreadPlace) {
  ASSERT_EQ(setenv("ARBOR_LOG_LEVEL", "2", 1), 0);
  EXPECT_EQ(LOG_GetLevel(), 2);
  ASSERT_EQ(setenv("ARBOR_LOG_LEVEL", "3", 1), 0);
  EXPECT_EQ(LOG_GetLevel(), 2);
  Capture cap;
  EXPECT_EQ(LOG_SetLevel(1), 2);
  EXPECT_EQ(ARBOR_LOG(2, "dropped"), 0);
  EXPECT_EQ(ARBOR_LOG(1, "kept"), 1);
  EXPECT_EQ(cap.levels, (std::vector<int>{1}));
  // The line's shape; no extra line end, and a long text whole.
  cap.lines.clear();
  ARBOR_LOG(0, "hello %d %.*s\n", 5, 3, "abcdef");
  const std::string tail = std::string(100000, 'z') + "|end";
  ARBOR_LOG(0, "%s", tail.c_str());
  ASSERT_EQ(cap.lines.size(), 2u);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(cap.lines[0], m, kLineShape)) << cap.lines[0];
  EXPECT_EQ(m[1], "0");
  EXPECT_EQ(m[2], std::to_string(syscall(SYS_gettid)));
  EXPECT_EQ(m[3], "TestBody");
  EXPECT_EQ(m[4], "hello 5 abc");
  ASSERT_GT(cap.lines[1].size(), tail.size());
  EXPECT_EQ(cap.lines[1].substr(cap.lines[1].size() - tail.size()), tail);
}

TEST(Log, ConcurrentLinesReachSinkOneAtATimeAndStandardErrorWhole) {
  {
    Capture cap;
    LogFromThreads();
    EXPECT_FALSE(cap.overlapped);
    ExpectWholeLines(cap.lines);
  }
  testing::internal::CaptureStderr();
  LogFromThreads();
  const std::string all = testing::internal::GetCapturedStderr();
  ASSERT_EQ(all.back(), '\n');  // the last line ended too
  std::istringstream in(all);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ExpectWholeLines(lines);
}
