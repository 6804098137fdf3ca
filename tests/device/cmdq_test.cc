// The command queue: order under a burst, the payload rules, the exit
// marker, the consumer's scheduling.
#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <thread>

#include "forest_fixture.h"

namespace {

using forest_test::ForestTest;

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

std::string arrived;
uint32_t cached_at_run = 99;
void Note(uintptr_t, const void* payload, uint32_t size) {
  arrived.assign(static_cast<const char*>(payload), size);
  cached_at_run = cmdq_cached_total();
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
  EXPECT_EQ(cached_size_inc(0), 5u);
  open = true;
  forest_test::Drain();
  EXPECT_EQ(arrived, std::string("abcd", 5));
  EXPECT_EQ(cached_at_run, 5u);  // freed only after the handler
  EXPECT_EQ(cached_size_dec(0), 0u);
}

// The exit marker closes the queue and the stop joins the consumer; pushed
// by a command, it must not wait for the consumer it runs on.
TEST_F(CommandQueue, ExitMarkerPushedByACommandClosesWithoutWaitingForItself) {
  cmdq_push("closer", [](uintptr_t, const void*, uint32_t) {
    EXPECT_NE(cmdq_push("null", nullptr, 0, nullptr, 0), nullptr);
  }, 0, nullptr, 0);
  EXPECT_TRUE(WaitFor([] { return !cmdq_running(); }));
  int v[2] = {0, 0};
  EXPECT_EQ(cmdq_push("Record", Record, 0, v, sizeof v), nullptr);
}

// The scheduling policy of the consumer, and of a thread that a command
// starts with cmdq_thread_sched's attributes, as SeeSched found them.
std::atomic<int> consumer_policy{-1}, started_policy{-1};

int OwnPolicy() {
  int policy = -1;
  sched_param param{};
  pthread_getschedparam(pthread_self(), &policy, &param);
  return policy;
}

void SeeSched(uintptr_t, const void*, uint32_t) {
  consumer_policy = OwnPolicy();
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  cmdq_thread_sched(&attr);
  pthread_t thread;
  auto body = [](void*) -> void* {
    started_policy = OwnPolicy();
    return nullptr;
  };
  if (pthread_create(&thread, &attr, body, nullptr) == 0) pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
}

void PushSeeSched() {
  consumer_policy = started_policy = -1;
  cmdq_push("SeeSched", SeeSched, 0, nullptr, 0);
  forest_test::Drain();
}

// The consumer must not preempt the threads that push to it, but the
// threads it starts (a source's read thread) run as the host's do.
TEST_F(CommandQueue, TheConsumerRunsAsBatchAndTheThreadsItStartsAsTheHost) {
  PushSeeSched();
  EXPECT_EQ(consumer_policy.load(), SCHED_BATCH);
  EXPECT_EQ(started_policy.load(), SCHED_OTHER);
}

// A host whose threads run under a real-time policy keeps it on the
// consumer and on what the consumer starts.
TEST_F(CommandQueue, AHostsRealTimePolicyIsKept) {
  device_stop();
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
  pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
  sched_param param{};
  param.sched_priority = 1;
  pthread_attr_setschedparam(&attr, &param);
  pthread_t starter;
  auto start = [](void*) -> void* {
    device_start();
    return nullptr;
  };
  const int err = pthread_create(&starter, &attr, start, nullptr);
  pthread_attr_destroy(&attr);
  if (err == EPERM) {
    device_start();  // for the fixture's stop
    GTEST_SKIP() << "a real-time policy needs CAP_SYS_NICE, which this process lacks";
  }
  ASSERT_EQ(err, 0);
  pthread_join(starter, nullptr);
  PushSeeSched();
  EXPECT_EQ(consumer_policy.load(), SCHED_FIFO);
  EXPECT_EQ(started_policy.load(), SCHED_FIFO);
}

}  // namespace
