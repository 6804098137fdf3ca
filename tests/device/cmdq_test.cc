// The command queue: order under a burst, the exit marker and the refusals
// behind it, the payload rules, and the failures of allocation and start.
#include <thread>

#include "forest_fixture.h"

namespace {

using forest_test::ForestTest;
using forest_test::OnConsumer;
using forest_test::WaitFor;

class CommandQueue : public ForestTest {};

std::mutex seen_mutex;
std::vector<std::pair<int, int>> seen;  // (thread, sequence) as run
void Record(uintptr_t, const void* payload, uint32_t) {
  int v[2];
  std::memcpy(v, payload, sizeof v);
  std::lock_guard hold(seen_mutex);
  seen.emplace_back(v[0], v[1]);
}

TEST_F(CommandQueue, BurstFromSeveralThreadsRunsEachThreadsCommandsInOrder) {
  constexpr int kThreads = 4, kEach = 300;
  std::vector<std::thread> pushers;
  for (int t = 0; t < kThreads; ++t) {
    pushers.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) {
        int v[2] = {t, i};
        ASSERT_NE(cmdq_push("Record", Record, 0, v, sizeof v), nullptr);
      }
    });
  }
  for (auto& p : pushers) p.join();
  device_stop();  // returns when every accepted command has run
  ASSERT_EQ(seen.size(), size_t{kThreads * kEach});
  std::vector<int> next(kThreads, 0);
  for (auto [t, i] : seen) EXPECT_EQ(i, next[t]++) << "thread " << t;
}

TEST_F(CommandQueue, NullHandlerClosesAndJoinsAndClosedQueueRefusesPushes) {
  EXPECT_NE(cmdq_push("null", nullptr, 0, nullptr, 0), nullptr);
  EXPECT_FALSE(cmdq_running());  // joined before the push returned
  EXPECT_FALSE(log_.Has("commandq end."));
  int v[2] = {0, 0};
  EXPECT_EQ(cmdq_push("Record", Record, 0, v, sizeof v), nullptr);
  EXPECT_TRUE(log_.Has("_commandq_push: commandq end."));
  device_stop();  // returns at once
  EXPECT_TRUE(seen.empty());
  // A consumer that cannot start leaves the queue closed; a later start works.
  cmdq_test_fail_next_start();
  EXPECT_EQ(device_start(), 0);
  EXPECT_FALSE(cmdq_running());
  EXPECT_EQ(cmdq_push("Record", Record, 0, v, sizeof v), nullptr);
  device_stop();  // returns at once
  EXPECT_EQ(device_start(), 0);
  OnConsumer([] {});
}

struct Arrival {
  const void* payload = reinterpret_cast<const void*>(1);
  uint32_t size = 0;
  uint32_t cached_at_run = 99;
  std::string bytes;
};
Arrival arrival;
void Note(uintptr_t, const void* payload, uint32_t size) {
  arrival = {payload, size, cmdq_cached_total(),
             payload ? std::string(static_cast<const char*>(payload), size)
                     : std::string()};
}

TEST_F(CommandQueue, PayloadIsCopiedAtOnceAndCountedUntilItsCommandRan) {
  std::atomic<bool> open{false};
  auto gate = [](uintptr_t arg, const void*, uint32_t) {
    WaitFor([arg] { return reinterpret_cast<std::atomic<bool>*>(arg)->load(); });
  };
  cmdq_push("gate", gate, reinterpret_cast<uintptr_t>(&open), nullptr, 0);
  char buffer[] = "abcd";
  cmdq_push("Note", Note, 0, buffer, 5);
  std::strcpy(buffer, "wxyz");  // the caller's buffer is free on return
  EXPECT_EQ(cmdq_cached_total(), 5u);
  EXPECT_GE(cmdq_queued(), 1u);
  open = true;
  forest_test::Drain();
  EXPECT_EQ(arrival.bytes, std::string("abcd", 5));
  EXPECT_EQ(arrival.cached_at_run, 5u);  // freed only after the handler
  EXPECT_EQ(cmdq_cached_total(), 0u);
  // A size without a payload is a number; a payload without a size is null.
  cmdq_push("Note", Note, 0, nullptr, 77);
  forest_test::Drain();
  EXPECT_EQ(arrival.payload, nullptr);
  EXPECT_EQ(arrival.size, 77u);
  EXPECT_EQ(arrival.cached_at_run, 0u);  // nothing was counted
  cmdq_push("Note", Note, 0, "abc", 0);
  forest_test::Drain();
  EXPECT_EQ(arrival.payload, nullptr);
  EXPECT_EQ(arrival.size, 0u);
  // The count is a running total that anyone may move.
  EXPECT_EQ(cached_size_inc(10), 10u);
  EXPECT_EQ(cached_size_dec(10), 0u);
}

TEST_F(CommandQueue, FailedAllocationRefusesThePushAndQueuesNothingHalf) {
  cmdq_test_fail_allocs(0);  // the item
  EXPECT_EQ(cmdq_push("Note", Note, 0, "abc", 4), nullptr);
  cmdq_test_fail_allocs(1);  // the item passes, the payload copy fails
  EXPECT_EQ(cmdq_push("Note", Note, 0, "abc", 4), nullptr);
  EXPECT_TRUE(log_.Has("_commandq_push: no memory"));
  EXPECT_EQ(cmdq_queued(), 0u);
  EXPECT_EQ(cmdq_cached_total(), 0u);
  cmdq_test_fail_allocs(-1);
  EXPECT_NE(cmdq_push("Note", Note, 0, "abc", 4), nullptr);
  forest_test::Drain();
  EXPECT_EQ(arrival.size, 4u);
}

TEST_F(CommandQueue, MarkerPushedByACommandClosesWithoutWaitingForItself) {
  cmdq_push("closer", [](uintptr_t, const void*, uint32_t) {
    EXPECT_NE(cmdq_push("null", nullptr, 0, nullptr, 0), nullptr);
  }, 0, nullptr, 0);
  EXPECT_TRUE(WaitFor([] { return !cmdq_running(); }));
  EXPECT_TRUE(log_.Has("exit marker pushed by a command; not joined"));
}

}  // namespace
