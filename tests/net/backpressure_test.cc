// A peer that stops reading: media over the budget is dropped and counted,
// control and in-band frames still queue up to the hard limit, past which
// the peer is declared gone; the writer never blocks.
#include <gtest/gtest.h>

#include <future>
#include <string>

#include "net_test_util.h"

namespace {

using arbor::net::kControlReserve;
using arbor::net::Transport;
using nettest::Header;
using nettest::Recorder;

constexpr uint32_t kBudget = 262144;

// A transport with a small budget and a raw peer that completed the hello and
// will never read; the peer's id at the transport.
struct StalledPeer {
  Recorder r;  // outlives the transport that calls it
  Transport t;
  std::unique_ptr<nettest::RawPeer> raw;
  uint16_t id = 0;

  // The default peer time-out is far beyond the test: only the budget acts.
  void Start(const std::string& timeout = "peer_timeout_ms=600000;") {
    nettest::StartOn(t, r, "budget=" + std::to_string(kBudget) + ";" + timeout);
    raw = std::make_unique<nettest::RawPeer>(static_cast<uint16_t>(t.LanPort()), 4096);
    ASSERT_TRUE(raw->connected());
    ASSERT_TRUE(raw->SendHello(0xbeef));
    arbor::net::Hello theirs;
    ASSERT_TRUE(raw->ReadHello(&theirs));
    id = static_cast<uint16_t>(r.WaitStatus(QVNETS_SUCCESS));
    ASSERT_NE(id, 0);
  }
  arbor_net_peer_info Info() {
    arbor_net_peer_info info{};
    EXPECT_EQ(t.PeerStats(id, &info), 0);
    return info;
  }
};

TEST(NetBackPressure, MediaOverBudgetIsDroppedAndCountedWhileControlStillQueues) {
  StalledPeer s;
  s.Start();
  const std::string chunk(60000, 'c');
  const PacketHeader media = Header(1024, QVTP_RTP);
  // Far more media than the kernel's buffers and the budget hold together.
  auto writer = std::async(std::launch::async, [&] {
    for (int i = 0; i < 2000; ++i)
      if (s.t.LanWrite(s.id, &media, chunk.data(), 60000) != 60000) return false;
    return true;
  });
  ASSERT_EQ(writer.wait_for(nettest::kLimit), std::future_status::ready) << "a write blocked";
  EXPECT_TRUE(writer.get()) << "a dropped media frame is still a successful write";
  arbor_net_peer_info info = s.Info();
  EXPECT_GT(info.media_dropped, 0u);
  EXPECT_EQ(info.frames_out + info.media_dropped, 2000u);
  EXPECT_LE(info.queue_bytes, kBudget);
  EXPECT_GT(info.queue_bytes, 0u);

  const PacketHeader control = Header(100, QVTP_CONTROL);
  const PacketHeader inband = Header(1024, QVTP_INBAND);
  const uint64_t before = info.queue_bytes;
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(s.t.LanWrite(s.id, &control, chunk.data(), 60000), 60000);
    ASSERT_EQ(s.t.LanWrite(s.id, &inband, chunk.data(), 60000), 60000);
  }
  info = s.Info();
  EXPECT_EQ(info.queue_bytes, before + 8 * (60000 + 12)) << "never dropped, queued whole";
  EXPECT_GT(info.queue_bytes, kBudget);
  EXPECT_EQ(s.t.LanWrite(s.id, &media, chunk.data(), 60000), 60000);
  EXPECT_EQ(s.Info().media_dropped, info.media_dropped + 1);
}

TEST(NetBackPressure, ControlPastTheHardLimitDeclaresThePeerGone) {
  StalledPeer s;
  s.Start();
  const std::string chunk(60000, 'c');
  const PacketHeader control = Header(100, QVTP_CONTROL);
  constexpr int kMostWrites = static_cast<int>((kBudget + kControlReserve) / 60000) + 200;
  int refused_at = -1;
  for (int i = 0; i < kMostWrites && refused_at < 0; ++i) {
    if (s.t.LanWrite(s.id, &control, chunk.data(), 60000) < 0) refused_at = i;
    else EXPECT_LE(s.Info().queue_bytes, kBudget + kControlReserve);
  }
  ASSERT_GE(refused_at, 0) << "the hard limit was never reached";
  EXPECT_EQ(s.r.WaitStatus(QVNETS_DISCONNECT), s.id);
  EXPECT_TRUE(s.raw->WaitClosed());
  EXPECT_EQ(s.Info().queue_bytes, 0u) << "the queue is freed with the connection";
}

TEST(NetBackPressure, APeerThatTakesNothingForThePeerTimeOutIsGone) {
  StalledPeer s;
  s.Start("peer_timeout_ms=200;");
  const std::string chunk(60000, 'c');
  const PacketHeader inband = Header(1024, QVTP_INBAND);
  // Enough to fill the kernel's buffers, so that something stays queued.
  for (int i = 0; i < 200 && s.Info().queue_bytes == 0; ++i)
    ASSERT_EQ(s.t.LanWrite(s.id, &inband, chunk.data(), 60000), 60000);
  ASSERT_GT(s.Info().queue_bytes, 0u);
  EXPECT_EQ(s.r.WaitStatus(QVNETS_DISCONNECT), s.id);
  EXPECT_TRUE(s.raw->WaitClosed());
}

}  // namespace
