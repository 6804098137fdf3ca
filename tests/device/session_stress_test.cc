// A bounded stress of whole sessions: several threads push requests,
// activations and hang-ups of local chains that share one threaded source
// while its read thread streams. Under ThreadSanitizer this checks that
// building, activation, teardown and the walk keep out of each other's way;
// in every build each device opened must be closed exactly once.
#include <thread>

#include "build_fakes.h"

namespace {

using namespace forest_test;
using namespace build_test;

class SessionStress : public ForestTest {};

constexpr int kThreads = 3, kSessions = 40;

TEST_F(SessionStress, SessionsComeAndGoWhileTheSourceStreams) {
  opener.threading = 1;
  // One session that stays: its read thread streams for the whole test.
  Request keeper = MakeRequest(
      0, "keep", {Hop(&stream, "cam.1"), Hop(&stream, "enc.1"),
                  Hop(&stream, "sink.keep")});
  PushRequest(Tree_new_partial, keeper);
  cmdq_push("Tree_active_branch", Tree_active_branch, 0, "keep", 5);
  ASSERT_TRUE(WaitFor([] { return written.load() > 0; }));

  std::vector<std::thread> pushers;
  for (int t = 0; t < kThreads; ++t) {
    pushers.emplace_back([t] {
      for (int i = 0; i < kSessions; ++i) {
        const std::string sid = "s" + std::to_string(t) + "_" +
                                std::to_string(i);
        const std::string sink = "sink." + sid;
        Request r = MakeRequest(0, sid, {Hop(&stream, "cam.1"),
                                         Hop(&stream, "enc.1"),
                                         Hop(&stream, sink.c_str())});
        PushRequest(Tree_new_partial, r);
        cmdq_push("Tree_active_branch", Tree_active_branch, 0, sid.c_str(),
                  static_cast<uint32_t>(sid.size() + 1));
        // Every other session is hung up at once; the rest stay for the
        // stop to end.
        if (i % 2 == 0)
          cmdq_push("Tree_destroy_branch", Tree_destroy_branch, 0,
                    sid.c_str(), static_cast<uint32_t>(sid.size() + 1));
      }
    });
  }
  for (std::thread& pusher : pushers) pusher.join();

  // The tree keeps streaming to the sessions that stayed.
  const uint32_t before = written.load();
  EXPECT_TRUE(WaitFor([before] { return written.load() > before; }));

  device_stop();
  device_exit();
  started_ = false;
  // The source and the shared transform once, and one sink per session.
  EXPECT_EQ(Opens().size(), Closes().size());
  EXPECT_EQ(Opens().size(), 3u + kThreads * kSessions);
}

}  // namespace
