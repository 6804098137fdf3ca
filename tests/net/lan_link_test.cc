// Two or three transport instances in one process, joined over 127.0.0.1:
// the statuses each side's engine sees, frames whole and in order, fan-out,
// the outcomes of failed connects, and crossed dials keeping one connection.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "net_test_util.h"

namespace {

using arbor::net::Transport;
using nettest::Event;
using nettest::Header;
using nettest::Recorder;
using nettest::StartOn;

// A dials B; returns A's id for B and B's id for A (0 when either failed).
std::pair<uint32_t, uint32_t> Join(Transport& a, Recorder& ra, Transport& b, Recorder& rb) {
  const int32_t id = a.AddPeer("127.0.0.1", b.LanPort());
  EXPECT_GT(id, 0);
  EXPECT_EQ(a.ConnectPeer(static_cast<uint16_t>(id)), 0);
  const uint32_t at_a = ra.WaitStatus(QVNETS_SUCCESS);
  const uint32_t at_b = rb.WaitStatus(QVNETS_SUCCESS);
  EXPECT_EQ(at_a, static_cast<uint32_t>(id)) << "the dialler sees the id it was given";
  return {at_a, at_b};
}

TEST(NetLink, DialReportsSuccessOnBothSidesAndFramesComeFromTheAcceptorsId) {
  Recorder ra, rb;  // outlives the transports that call it
  Transport a, b;
  StartOn(a, ra);
  StartOn(b, rb);
  const auto [b_at_a, a_at_b] = Join(a, ra, b, rb);
  ASSERT_NE(a_at_b, 0u);
  const PacketHeader h = Header(100, QVTP_CONTROL);
  ASSERT_EQ(a.LanWrite(static_cast<uint16_t>(b_at_a), &h, "k=v;", 4), 4);
  ASSERT_EQ(b.LanWrite(static_cast<uint16_t>(a_at_b), &h, "x=y;", 4), 4);
  const std::vector<Event> at_b = rb.WaitFrames(1);
  ASSERT_EQ(at_b.size(), 1u);
  EXPECT_EQ(at_b[0].from, a_at_b);
  EXPECT_EQ(at_b[0].pipe, 100u);
  EXPECT_EQ(at_b[0].data, "k=v;");
  ASSERT_EQ(ra.WaitFrames(1).at(0).data, "x=y;");

  EXPECT_EQ(a.ConnectPeer(static_cast<uint16_t>(b_at_a)), 0);
  EXPECT_TRUE(ra.WaitCount(QVNETS_SUCCESS, 2)) << "connecting a connected peer reports 9 again";
  arbor_net_peer_info info;
  ASSERT_EQ(a.PeerStats(static_cast<uint16_t>(b_at_a), &info), 0);
  EXPECT_EQ(info.link_up, 1);
  EXPECT_EQ(info.frames_out, 1u);
  EXPECT_EQ(info.frames_in, 1u);
  EXPECT_STREQ(info.address, "127.0.0.1");
}

// Four writers on A, and B answering every control frame from inside its
// callback on its I/O thread: frames of every type and size (none to 65535
// bytes) arrive whole, each writer's in the order written. A's budget is far
// above what is written, so no media frame is dropped.
TEST(NetLink, FramesOfEveryTypeAndSizeFromManyWritersAndCallbacksArriveWholeInOrder) {
  Recorder ra, rb;  // outlive the transports that call them
  Transport a, b;
  StartOn(a, ra, "io_threads=2;budget=1073741824;");
  auto record = rb.handler();
  ASSERT_EQ(b.InitLan(
                [&b, record](uint32_t from, uint32_t pipe, uint32_t type, uint32_t size,
                             const void* data) {
                  record(from, pipe, type, size, data);
                  if (type != QVTP_CONTROL) return;
                  const PacketHeader echo = Header(pipe, QVTP_CONTROL);
                  b.LanWrite(static_cast<uint16_t>(from), &echo, data, static_cast<uint16_t>(size));
                },
                "listen=127.0.0.1;io_threads=2;"),
            0);
  const auto [to_b, from_a] = Join(a, ra, b, rb);
  ASSERT_NE(from_a, 0u);
  // Writer t's frame i goes on pipe 1024 + kEach * t + i, of type 3 + i % 3.
  constexpr int kThreads = 4, kEach = 300;
  auto payload = [](int t, int i) {
    const char fill = static_cast<char>('a' + t);
    return i % 100 == 7 ? std::string(65535, fill)
           : i % 100 == 8 ? std::string()
           : i % 10 == 3  ? std::string(20000, fill)
                          : std::to_string(i);
  };
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&a, to = to_b, t, payload] {
      for (int i = 0; i < kEach; ++i) {
        const std::string text = payload(t, i);
        const PacketHeader h = Header(1024u + static_cast<uint32_t>(kEach * t + i),
                                      static_cast<uint16_t>(3 + i % 3));
        EXPECT_EQ(a.LanWrite(static_cast<uint16_t>(to), &h, text.data(),
                             static_cast<uint16_t>(text.size())),
                  static_cast<int32_t>(text.size()));
      }
    });
  }
  for (std::thread& w : writers) w.join();
  const std::vector<Event> at_b = rb.WaitFrames(kThreads * kEach);
  ASSERT_EQ(at_b.size(), static_cast<size_t>(kThreads * kEach));
  const std::vector<Event> echoes = ra.WaitFrames(kThreads * kEach / 3);
  ASSERT_EQ(echoes.size(), static_cast<size_t>(kThreads * kEach / 3));
  for (const std::vector<Event>* seen : {&at_b, &echoes}) {
    std::vector<int> last(kThreads, -1);
    for (const Event& e : *seen) {
      const int t = static_cast<int>(e.pipe - 1024) / kEach;
      const int i = static_cast<int>(e.pipe - 1024) % kEach;
      ASSERT_TRUE(t >= 0 && t < kThreads) << e.pipe;
      EXPECT_GT(i, last[t]) << "writer " << t << ": out of order";
      last[t] = i;
      EXPECT_EQ(e.from, seen == &at_b ? from_a : to_b);
      EXPECT_EQ(e.type, 3u + static_cast<uint32_t>(i % 3));
      EXPECT_TRUE(e.data == payload(t, i)) << "frame " << i << " of writer " << t;
    }
  }
}

TEST(NetLink, BoatAndLevelTravelAsWrittenOnTheWire) {
  Recorder ra;  // outlives the transport that calls it
  Transport a;
  StartOn(a, ra);
  nettest::RawPeer raw(static_cast<uint16_t>(a.LanPort()));
  ASSERT_TRUE(raw.connected());
  ASSERT_TRUE(raw.SendHello(0x5151));
  arbor::net::Hello theirs;
  ASSERT_TRUE(raw.ReadHello(&theirs));
  EXPECT_EQ(theirs.version, 100);
  const uint32_t id = ra.WaitStatus(QVNETS_SUCCESS);
  ASSERT_NE(id, 0u);
  const PacketHeader h = Header(2048, QVTP_INBAND, 0x12, 0x34);
  ASSERT_EQ(a.LanWrite(static_cast<uint16_t>(id), &h, "ev", 2), 2);
  uint8_t bytes[arbor::net::kFrameHeaderSize + 2];
  ASSERT_TRUE(raw.Read(bytes, sizeof bytes));
  arbor::net::FrameHeader f;
  ASSERT_EQ(arbor::net::frame_header_decode(bytes, sizeof bytes, &f), arbor::net::Verdict::kOk);
  EXPECT_EQ(f.length, 2);
  EXPECT_EQ(f.boat, 0x12);
  EXPECT_EQ(f.level, 0x34);
  EXPECT_EQ(f.pipe, 2048u);
  EXPECT_EQ(f.type, QVTP_INBAND);
}

TEST(NetLink, AnInstanceThatReconnectsKeepsItsIdAndANewOneGetsTheNext) {
  Recorder ra;
  Transport a;
  StartOn(a, ra);
  auto connect_as = [&](uint64_t instance) {
    auto raw = std::make_unique<nettest::RawPeer>(static_cast<uint16_t>(a.LanPort()));
    arbor::net::Hello theirs;
    EXPECT_TRUE(raw->SendHello(instance) && raw->ReadHello(&theirs));
    return raw;
  };
  auto first = connect_as(0xaaaa);
  const uint32_t id = ra.WaitStatus(QVNETS_SUCCESS);
  ASSERT_NE(id, 0u);
  first.reset();
  ASSERT_EQ(ra.WaitStatus(QVNETS_DISCONNECT), id);
  auto again = connect_as(0xaaaa);
  auto other = connect_as(0xbbbb);
  ASSERT_TRUE(ra.WaitCount(QVNETS_SUCCESS, 3));
  std::vector<uint32_t> nines;
  for (const Event& e : ra.Snapshot())
    if (e.type == QVNETS_SUCCESS) nines.push_back(e.from);
  EXPECT_EQ(std::count(nines.begin(), nines.end(), id), 2) << "the same instance, the same id";
  EXPECT_EQ(std::count(nines.begin(), nines.end(), id + 1), 1) << "a new instance, the next id";
  arbor_net_peer_info info;
  ASSERT_EQ(a.PeerStats(static_cast<uint16_t>(id), &info), 0);
  EXPECT_EQ(info.reconnects, 1u);
}

TEST(NetLink, PeerZeroReachesEveryConnectedPeerAddedByAddressOrName) {
  Recorder ra, rb, rc;  // outlives the transports that call it
  Transport a, b, c;
  StartOn(a, ra);
  StartOn(b, rb);
  StartOn(c, rc);
  ASSERT_NE(Join(a, ra, b, rb).second, 0u);
  // C is added by name: "localhost" comes from the hosts file, so the name
  // road (a look-up thread) runs without a query leaving the machine.
  const int32_t to_c = a.AddPeer("localhost", c.LanPort());
  ASSERT_EQ(a.ConnectPeer(static_cast<uint16_t>(to_c)), 0);
  ASSERT_NE(rc.WaitStatus(QVNETS_SUCCESS), 0u);
  ASSERT_TRUE(ra.WaitFor([&](const std::vector<Event>& all) {
    for (const Event& e : all)
      if (e.type == QVNETS_SUCCESS && e.from == static_cast<uint32_t>(to_c)) return true;
    return false;
  }));
  const PacketHeader h = Header(100, QVTP_CONTROL);
  ASSERT_EQ(a.LanWrite(0, &h, "all=1;", 6), 6);
  EXPECT_EQ(rb.WaitFrames(1).at(0).data, "all=1;");
  EXPECT_EQ(rc.WaitFrames(1).at(0).data, "all=1;");
}

TEST(NetLink, FarSideClosingReportsDisconnectAndWritesThenFail) {
  Recorder ra, rb;  // outlives the transports that call it
  Transport a, b;
  StartOn(a, ra);
  StartOn(b, rb);
  const uint32_t to_b = Join(a, ra, b, rb).first;
  ASSERT_EQ(b.UninitLan(), 0);
  EXPECT_EQ(ra.WaitStatus(QVNETS_DISCONNECT), to_b);
  const PacketHeader h = Header(100, QVTP_CONTROL);
  EXPECT_EQ(a.LanWrite(static_cast<uint16_t>(to_b), &h, "k=v;", 4), -1);
  arbor_net_peer_info info;
  ASSERT_EQ(a.PeerStats(static_cast<uint16_t>(to_b), &info), 0);
  EXPECT_EQ(info.link_up, 0) << "the peer stays known with its id";
}

TEST(NetLink, RefusedConnectReportsFailAndUnresolvableNameReportsUnreachable) {
  Recorder ra;  // outlives the transport that calls it
  Transport a;
  StartOn(a, ra);
  // A socket bound but not listening: connects to its port are refused.
  asio::io_context io;
  asio::ip::tcp::socket bound(io);
  bound.open(asio::ip::tcp::v4());
  bound.bind({asio::ip::make_address("127.0.0.1"), 0});
  const int32_t refused = a.AddPeer("127.0.0.1", bound.local_endpoint().port());
  ASSERT_EQ(a.ConnectPeer(static_cast<uint16_t>(refused)), 0);
  EXPECT_EQ(ra.WaitStatus(QVNETS_FAIL), static_cast<uint32_t>(refused));

  const int32_t nowhere = a.AddPeer(nettest::kUnresolvableHost.c_str(), 4000);
  ASSERT_EQ(a.ConnectPeer(static_cast<uint16_t>(nowhere)), 0);
  EXPECT_EQ(ra.WaitStatus(QVNETS_UNREACHABLE), static_cast<uint32_t>(nowhere));
  EXPECT_EQ(a.ConnectPeer(999), -1) << "an unknown id";
  EXPECT_EQ(a.AddPeer(nettest::kUnresolvableHost.c_str(), 4000), nowhere) << "found by host and port";
}

TEST(NetLink, APortInUseFailsInitAndSaysWhatToDo) {
  LogCapture log(0);
  Recorder ra, rb;
  Transport a, b;
  StartOn(a, ra);
  const std::string taken = "listen=127.0.0.1;port=" + std::to_string(a.LanPort()) + ";";
  EXPECT_LT(b.InitLan(rb.handler(), taken.c_str()), 0);
  EXPECT_TRUE(log.Has("choose another port"));
  EXPECT_EQ(b.LanPort(), -1);
}

TEST(NetLink, CrossedDialsKeepOneConnectionAndBothSidesStayConnected) {
  Recorder ra, rb;  // outlives the transports that call it
  Transport a, b;
  StartOn(a, ra, "io_threads=2;");
  StartOn(b, rb, "io_threads=2;");
  const int32_t to_b = a.AddPeer("127.0.0.1", b.LanPort());
  const int32_t to_a = b.AddPeer("127.0.0.1", a.LanPort());
  ASSERT_EQ(a.ConnectPeer(static_cast<uint16_t>(to_b)), 0);
  ASSERT_EQ(b.ConnectPeer(static_cast<uint16_t>(to_a)), 0);
  ASSERT_EQ(ra.WaitStatus(QVNETS_SUCCESS), static_cast<uint32_t>(to_b));
  ASSERT_EQ(rb.WaitStatus(QVNETS_SUCCESS), static_cast<uint32_t>(to_a));
  // Each side knows the other once, under the id it gave when dialling.
  uint16_t ids[4];
  EXPECT_EQ(a.Peers(ids, 4), 1);
  EXPECT_EQ(b.Peers(ids, 4), 1);
  // The link that survives carries frames both ways; the loser reports no 7.
  const PacketHeader h = Header(100, QVTP_CONTROL);
  for (const char* text : {"n=1;", "n=2;", "n=3;"})
    ASSERT_EQ(a.LanWrite(static_cast<uint16_t>(to_b), &h, text, 4), 4);
  ASSERT_EQ(b.LanWrite(static_cast<uint16_t>(to_a), &h, "b=1;", 4), 4);
  ASSERT_GE(rb.WaitFrames(3).size(), 3u);
  ASSERT_GE(ra.WaitFrames(1).size(), 1u);
  for (const Event& e : ra.Snapshot()) EXPECT_NE(e.type, QVNETS_DISCONNECT);
  for (const Event& e : rb.Snapshot()) EXPECT_NE(e.type, QVNETS_DISCONNECT);
}

}  // namespace
