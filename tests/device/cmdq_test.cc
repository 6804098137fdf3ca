// The command queue: order under a burst, the payload rules, the exit
// marker, the consumer's scheduling.
#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <thread>

#include "arbor/inband.h"
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

// The consumer's scheduling policy, as the kernel reports it (glibc's own
// view may be stale), in a plain command, in a sink's Write fed a frame,
// and in a thread a plain command starts.
int KernelPolicy() { return sched_getscheduler(0); }
std::atomic<int> command_policy{-1}, frame_policy{-1}, started_policy{-1};

void SeePolicy(uintptr_t, const void*, uint32_t) {
  command_policy = KernelPolicy();
  pthread_t thread;
  auto body = [](void*) -> void* {
    started_policy = KernelPolicy();
    return nullptr;
  };
  if (pthread_create(&thread, nullptr, body, nullptr) == 0) pthread_join(thread, nullptr);
}

cdef policy_sink = [] {
  cdef cls{};
  cls.Write = [](int32_t, const void*, uint32_t size, uint32_t) {
    frame_policy = KernelPolicy();
    return static_cast<int32_t>(size);
  };
  return cls;
}();

// A tree for LAN peer 5 on pipe 1030 down to policy_sink; a frame for it,
// then a command.
void FrameThenCommand() {
  command_policy = frame_policy = started_policy = -1;
  TreeRoot* root = forest_test::Root(get_lan_cdef(), 1030, 5, "net.pipe");
  forest_test::Row(forest_test::Hang(root, &policy_sink, 41), "sid-p", 5);
  forest_link(root);
  InbandRecord head{};
  head.uid = 5;
  head.device = get_lan_cdef();
  head.xfd = 1030;
  head.length = 3;
  const std::string record = std::string(reinterpret_cast<const char*>(&head), sizeof head) + "abc";
  cmdq_push("frame", Tree_inflate, 0, record.data(), static_cast<uint32_t>(record.size()));
  cmdq_push("SeePolicy", SeePolicy, 0, nullptr, 0);
  forest_test::Drain();
}

// A frame must not preempt the thread that pushed it (SCHED_BATCH), but
// every other command runs as the host's threads do, and so do the threads
// it starts (a driver's Open builds pipelines with threads of their own).
TEST_F(CommandQueue, AFrameRunsAsBatchAndEveryOtherCommandAsTheHost) {
  if (KernelPolicy() != SCHED_OTHER) GTEST_SKIP() << "the test runs under another policy than SCHED_OTHER";
  FrameThenCommand();
  EXPECT_EQ(frame_policy.load(), SCHED_BATCH);
  EXPECT_EQ(command_policy.load(), SCHED_OTHER);
  EXPECT_EQ(started_policy.load(), SCHED_OTHER);
}

// A host whose threads run under a real-time policy keeps it on the
// consumer, for frames too.
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
  FrameThenCommand();
  EXPECT_EQ(frame_policy.load(), SCHED_FIFO);
  EXPECT_EQ(command_policy.load(), SCHED_FIFO);
}

}  // namespace
