// The timed queue seen from its callers: order, wake-ups, string copies,
// the flush at destroy, cancellation, waiting sends and posts from the
// worker. Handlers record what they were given; the tests wait for records
// with generous time limits and never measure time.
#include "arbor/timedq.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Args = std::vector<uintptr_t>;
using Strings = std::vector<std::string>;
constexpr const char* kEnd = nullptr;  // ends a tq_post_v list

struct Call { int32_t elapsed; uintptr_t arg; Strings argv; bool argv_ends_in_null; };

std::mutex mu;
std::condition_variable cv;
std::vector<Call> runs;
bool gate_open = false;

void Record(int32_t elapsed, uintptr_t arg, int32_t argc, char** argv) {
  Call run{elapsed, arg, {argv, argv + argc}, argv[argc] == nullptr};
  std::lock_guard lock(mu);
  runs.push_back(run);
  cv.notify_all();
}

// Holds the worker until OpenGate, so that posts pile up in the list.
void Block(int32_t, uintptr_t, int32_t, char**) {
  std::unique_lock lock(mu);
  cv.wait_for(lock, 10s, [] { return gate_open; });
}
void OpenGate() {
  std::lock_guard lock(mu);
  gate_open = true;
  cv.notify_all();
}
bool WaitRuns(size_t n) {
  std::unique_lock lock(mu);
  return cv.wait_for(lock, 10s, [n] { return runs.size() >= n; });
}

Args RunArgs() {
  std::lock_guard lock(mu);
  Args args;
  for (const Call& run : runs) args.push_back(run.arg);
  return args;
}

class TimedQueueTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(q_ = tq_create(), nullptr); }
  void TearDown() override { Destroy(); }
  void Destroy() { tq_destroy(std::exchange(q_, nullptr)); }
  void Post(uint32_t delay, uintptr_t tag) { tq_post_v(q_, delay, Record, tag, kEnd); }
  TimedQueue* q_ = nullptr;
};

// newexc_v takes a va_list; this gives it one.
TqExec* MakeEntry(TqHandler fn, uintptr_t arg, ...) {
  va_list va;
  va_start(va, arg);
  TqExec* entry = newexc_v(fn, arg, 0, 0, va);
  va_end(va);
  return entry;
}

TEST(TimedQueueEntry, AnUnpostedEntryIsOneBlockThatFreeReleases) {
  // Under the sanitizers a second allocation would show as a leak.
  TqExec* entry = MakeEntry(Record, 1, "alpha", "", "gamma", kEnd);
  ASSERT_NE(entry, nullptr);
  std::free(entry);
}

TEST_F(TimedQueueTest, EqualDeadlinesRunInPostingOrder) {
  // Back-to-back posts often read the same microsecond from the clock.
  tq_post(q_, 0, Block, 0, 0, nullptr);
  Args expected(200);
  std::iota(expected.begin(), expected.end(), 1);
  for (uintptr_t i : expected) Post(0, i);
  OpenGate();
  ASSERT_TRUE(WaitRuns(200));
  EXPECT_EQ(RunArgs(), expected);
}

TEST_F(TimedQueueTest, DelayZeroPostWakesWorkerWaitingForLaterEntry) {
  Post(60000, 99);
  Post(0, 1);
  ASSERT_TRUE(WaitRuns(1));  // the worker now sleeps until the 60 s entry
  Post(0, 2);
  ASSERT_TRUE(WaitRuns(2));
  EXPECT_LE(runs[1].elapsed, 0);
  Destroy();
  ASSERT_EQ(RunArgs(), (Args{1, 2, 99}));
  EXPECT_EQ(runs[2].elapsed, 1);
}

TEST_F(TimedQueueTest, StringsAreCopiedAndNullTerminated) {
  char buffer[] = "alpha";
  const char* one[] = {buffer};
  tq_post(q_, 0, Block, 0, 0, nullptr);
  tq_post(q_, 0, Record, 1, 1, one);
  tq_post_v(q_, 0, Record, 2, buffer, "", "gamma", kEnd);
  tq_post_v(q_, 0, Record, 3, "a", kEnd, "c", kEnd);  // ends at the first null
  tq_post(q_, 0, Record, 4, 0, nullptr);
  std::strcpy(buffer, "omega");
  OpenGate();
  ASSERT_TRUE(WaitRuns(4));
  EXPECT_EQ(runs[0].argv, Strings{"alpha"});
  EXPECT_EQ(runs[1].argv, (Strings{"alpha", "", "gamma"}));
  EXPECT_EQ(runs[2].argv, Strings{"a"});
  EXPECT_TRUE(runs[3].argv.empty());
  for (const Call& run : runs) EXPECT_TRUE(run.argv_ends_in_null);
}

TEST_F(TimedQueueTest, RefusedPostsQueueNothing) {
  const char* holes[] = {nullptr};
  EXPECT_EQ(tq_send(q_, 0, nullptr, 3, kEnd), nullptr);
  EXPECT_EQ(tq_post(q_, 0, Record, 4, 1, holes), nullptr);
  EXPECT_EQ(tq_post(q_, 0, Record, 5, -1, nullptr), nullptr);
  EXPECT_EQ(tq_cancel_if(q_, nullptr, 0), nullptr);
  ASSERT_NE(tq_send(q_, 0, Record, 6, kEnd), nullptr);
  EXPECT_EQ(RunArgs(), Args{6});
}

void* send_result = &send_result;
void* cancel_result = &cancel_result;
void* post_result = nullptr;

// Flushed while tq_destroy closes the queue: nothing it asks for may run,
// and nothing may wait for the worker (it is this thread).
void OnFlush(int32_t, uintptr_t q, int32_t, char**) {
  auto* queue = reinterpret_cast<TimedQueue*>(q);
  send_result = tq_send(queue, 0, Record, 8, kEnd);
  auto all = [](uintptr_t, TqHandler, uintptr_t, int32_t, char**) { return 1; };
  cancel_result = tq_cancel_if(queue, all, 0);
  post_result = tq_post_v(queue, 0, Record, 9, kEnd);
}

// The flush runs later entries in time order; what they post is dropped.
TEST_F(TimedQueueTest, DestroyFlushesLaterEntriesInTimeOrderClosingTheQueue) {
  Post(180000, 2);
  Post(30000, 1);
  tq_post(q_, 60000, OnFlush, reinterpret_cast<uintptr_t>(q_), 0, nullptr);
  Destroy();
  EXPECT_EQ(send_result, nullptr);
  EXPECT_EQ(cancel_result, nullptr);
  EXPECT_NE(post_result, nullptr);
  ASSERT_EQ(RunArgs(), (Args{1, 2}));
  EXPECT_EQ(runs[0].elapsed, 1);
  EXPECT_GT(runs[1].elapsed, 140000);  // the 150 s between the due times
}

int SelectAllBut(uintptr_t keep, TqHandler fn, uintptr_t arg, int32_t, char**) {
  return fn == Record && arg != keep;
}

// The selected entries run at once, in time order; the rest stay.
TEST_F(TimedQueueTest, CancelIfRunsSelectedEntriesAtOnceInTimeOrder) {
  Post(60000, 3);
  Post(30000, 1);
  Post(45000, 2);
  ASSERT_NE(tq_cancel_if(q_, SelectAllBut, 2), nullptr);
  ASSERT_EQ(RunArgs(), (Args{1, 3}));
  EXPECT_EQ(runs[0].elapsed, 1);
  // New posts find their places among what stayed: one later than all
  // goes last, one earlier than the last goes before it.
  Post(50000, 4);
  Post(40000, 5);
  Destroy();
  EXPECT_EQ(RunArgs(), (Args{1, 3, 5, 2, 4}));
}

// Due 200 ms ahead: a send that didn't wait would return before the run.
// A handler may post to its own queue.
TEST_F(TimedQueueTest, SendReturnsAfterItsHandlerRanAndHandlersMayPost) {
  ASSERT_NE(tq_send(q_, 200, Record, 7, "x", kEnd), nullptr);
  EXPECT_EQ(RunArgs(), Args{7});
  auto post_again = [](int32_t, uintptr_t q, int32_t, char**) {
    tq_post_v(reinterpret_cast<TimedQueue*>(q), 0, Record, 5, "again", kEnd);
  };
  tq_post(q_, 0, post_again, reinterpret_cast<uintptr_t>(q_), 0, nullptr);
  ASSERT_TRUE(WaitRuns(2));
  EXPECT_EQ(runs[1].argv, Strings{"again"});
}

}  // namespace
