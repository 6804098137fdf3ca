// The LAN key: peers with the same key link and carry frames; a wrong key,
// a missing key, or a peer that cannot prove the key is closed before any
// of its frames reaches the engine, while a legitimate link beside it goes
// on.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "net_test_util.h"

namespace {

using arbor::net::Transport;
using nettest::Event;
using nettest::Header;
using nettest::Recorder;
using nettest::StartOn;

const std::string kKey = "key=correct horse battery;";

// The number of frames (types 3-5) the engine heard so far.
size_t FramesHeard(Recorder& r) {
  size_t n = 0;
  for (const Event& e : r.Snapshot()) n += e.type >= 3 && e.type <= 5;
  return n;
}

// Dials b from a; the status a's engine hears for that peer.
uint32_t Dial(Transport& a, Recorder& ra, Transport& b) {
  const int32_t id = a.AddPeer("127.0.0.1", b.LanPort());
  EXPECT_EQ(a.ConnectPeer(static_cast<uint16_t>(id)), 0);
  uint32_t status = 0;
  ra.WaitFor([&](const std::vector<Event>& all) {
    for (const Event& e : all)
      if (e.from == static_cast<uint32_t>(id) && e.pipe == 0 && e.data.empty() &&
          e.type >= QVNETS_FAIL)
        status = e.type;
    return status != 0;
  });
  return status;
}

TEST(NetKey, OnlyPeersThatProveTheSameKeyLink) {
  LogCapture log(0);
  Recorder r_home, r_friend, r_stranger, r_open;
  Transport home, friendly, stranger, open;
  StartOn(home, r_home, kKey);
  StartOn(friendly, r_friend, kKey);
  StartOn(stranger, r_stranger, "key=another key entirely;");
  StartOn(open, r_open);

  // Same key: the link is up on both sides and frames flow.
  ASSERT_EQ(Dial(friendly, r_friend, home), static_cast<uint32_t>(QVNETS_SUCCESS));
  const uint32_t friend_at_home = r_home.WaitStatus(QVNETS_SUCCESS);
  ASSERT_NE(friend_at_home, 0u);

  // A wrong key, a dialler without a key and a peer without a key: each a
  // failed connection for the dialler, and nothing at all for home.
  EXPECT_EQ(Dial(stranger, r_stranger, home), static_cast<uint32_t>(QVNETS_FAIL));
  EXPECT_EQ(Dial(open, r_open, home), static_cast<uint32_t>(QVNETS_FAIL));
  EXPECT_EQ(Dial(home, r_home, open), static_cast<uint32_t>(QVNETS_FAIL));
  EXPECT_TRUE(log.Has("failed the LAN key challenge"));
  EXPECT_TRUE(log.Has("has no LAN key"));
  EXPECT_TRUE(log.Has("requires a LAN key and none is set here"));

  const PacketHeader h = Header(100, QVTP_CONTROL);
  ASSERT_EQ(home.LanWrite(static_cast<uint16_t>(friend_at_home), &h, "k=v;", 4), 4);
  EXPECT_EQ(r_friend.WaitFrames(1).at(0).data, "k=v;");
  EXPECT_EQ(Recorder::Count(r_home.Snapshot(), QVNETS_SUCCESS), 1u)
      << "only the friend became a peer of home";
  EXPECT_EQ(FramesHeard(r_home), 0u);
}

// A peer that says it has the key but cannot prove it: its frames, sent
// right behind a made-up proof, never reach the engine.
TEST(NetKey, AFrameBehindAForgedProofNeverReachesTheEngine) {
  Recorder r_home;
  Transport home;
  StartOn(home, r_home, kKey);
  nettest::RawPeer raw(static_cast<uint16_t>(home.LanPort()));
  ASSERT_TRUE(raw.connected());
  const std::string nonce(arbor::net::kNonceSize, 'n'), proof(arbor::net::kProofSize, 'p');
  ASSERT_TRUE(raw.SendHello(0x1234, arbor::net::kHelloFlagKeyRequired));
  ASSERT_TRUE(raw.Send(nonce.data(), nonce.size()));
  arbor::net::FrameHeader frame;
  frame.length = 4;
  frame.pipe = 100;
  frame.type = QVTP_CONTROL;
  ASSERT_TRUE(raw.Send(proof.data(), proof.size()));
  ASSERT_TRUE(raw.SendFrame(frame, "k=v;"));
  EXPECT_TRUE(raw.WaitClosed());
  EXPECT_EQ(FramesHeard(r_home), 0u);
  EXPECT_EQ(Recorder::Count(r_home.Snapshot(), QVNETS_SUCCESS), 0u);
}

}  // namespace
