// Two peers in two processes, over loopback, each the engine with the
// socket transport and the sample drivers (arbor_test_peer): what a device
// maker's two hosts do, end to end. Each case starts its children itself
// and kills whatever is left of them when it ends.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "child_process.h"

namespace {

using std::chrono::seconds;

const std::string kPeer = ARBOR_TEST_PEER_PATH;

// R dials a chain on S by an explicit endpoint; S's threaded source streams
// timestamped chunks; R's sink gets every one in order; the hang-up ends
// both sides, and both stop with nothing of the engine left.
TEST(CrossProcess, LanSessionStreamsInOrderAndBothSidesEndClean) {
  ChildProcess server({kPeer, "serve"});
  ASSERT_TRUE(server.started());
  const int port = server.ListeningPort();
  ASSERT_GT(port, 0) << server.Output();

  ChildProcess dialler(
      {kPeer, "dial", "127.0.0.1", std::to_string(port), "200"});
  EXPECT_EQ(dialler.Wait(seconds(30)), 0) << dialler.Output();
  const std::string received = dialler.WaitForLine("received ", seconds(0));
  EXPECT_NE(received, "") << dialler.Output();
  EXPECT_NE(received.find("out-of-order 0"), std::string::npos) << received;
  EXPECT_NE(dialler.WaitForLine("clean", seconds(0)), "");

  // The hang-up reached S: its source was closed.
  EXPECT_NE(server.WaitForLine("demo.source: Close(", seconds(10)), "")
      << server.Output();
  // Each side's observer heard its half begin and end: R hung up itself
  // (no coz), S heard it from its peer.
  EXPECT_NE(dialler.WaitForLine("observed begin - | net.", seconds(0)), "") << dialler.Output();
  EXPECT_NE(dialler.WaitForLine("observed end - | net.", seconds(0)), "") << dialler.Output();
  EXPECT_NE(server.WaitForLine("observed begin - | demo.source -> net.", seconds(10)), "");
  EXPECT_NE(server.WaitForLine("observed end Peer_SessionDelete | demo.source -> net.", seconds(10)),
            "")
      << server.Output();
  server.Send("quit");
  EXPECT_EQ(server.Wait(seconds(15)), 0) << server.Output();
  EXPECT_NE(server.WaitForLine("clean", seconds(0)), "") << server.Output();
}

// A peer killed mid-stream: the other side notices the link is gone, ends
// the session (its source is closed) and still stops clean.
TEST(CrossProcess, KilledPeerEndsItsSessionsOnTheOtherSide) {
  ChildProcess server({kPeer, "serve"});
  const int port = server.ListeningPort();
  ASSERT_GT(port, 0) << server.Output();
  ChildProcess dialler(
      {kPeer, "dial", "127.0.0.1", std::to_string(port), "100000000"});
  // Streaming has begun once S's source was told a branch is active.
  ASSERT_NE(server.WaitForLine("MainCmd=24;", seconds(10)), "")
      << server.Output();
  dialler.Kill();
  EXPECT_NE(server.WaitForLine("demo.source: Close(", seconds(20)), "")
      << server.Output();
  const std::string ended = server.WaitForLine("observed end ", seconds(10));
  EXPECT_TRUE(ended.find("Present_0") != std::string::npos ||
              ended.find("Lan_Write_error") != std::string::npos)
      << ended;
  server.Send("quit");
  EXPECT_EQ(server.Wait(seconds(15)), 0) << server.Output();
  EXPECT_NE(server.WaitForLine("clean", seconds(0)), "") << server.Output();
}

}  // namespace
