// Byte streams that break the wire: each one closes its own connection with
// a level-0 line, the engine never sees the bad frame, and a legitimate link
// beside them keeps working.
#include <gtest/gtest.h>

#include <string>

#include "net_test_util.h"

namespace {

using arbor::net::FrameHeader;
using arbor::net::Transport;
using nettest::Event;
using nettest::Header;
using nettest::RawPeer;
using nettest::Recorder;

TEST(NetMalformed, BadStreamsCloseOnlyTheirConnection) {
  LogCapture log(0);
  Recorder ra, rb;  // outlives the transports that call it
  Transport a, b;
  nettest::StartOn(a, ra);
  nettest::StartOn(b, rb);
  const uint16_t port = static_cast<uint16_t>(a.LanPort());
  const int32_t to_a = b.AddPeer("127.0.0.1", port);
  ASSERT_EQ(b.ConnectPeer(static_cast<uint16_t>(to_a)), 0);
  const uint32_t b_at_a = ra.WaitStatus(QVNETS_SUCCESS);
  ASSERT_NE(b_at_a, 0u);
  ASSERT_EQ(rb.WaitStatus(QVNETS_SUCCESS), static_cast<uint32_t>(to_a));

  // A stream that ends before any hello never became a peer: nothing to say.
  RawPeer silent(port);
  silent.ShutdownWrite();
  EXPECT_TRUE(silent.WaitClosed());

  RawPeer garbage(port);
  ASSERT_TRUE(garbage.Send("GET / HTTP/1.1\r\nHost: x\r\n\r\n", 27));
  EXPECT_TRUE(garbage.WaitClosed());
  EXPECT_TRUE(log.Has("hello refused: bad magic"));

  RawPeer old_version(port);
  uint8_t hello[arbor::net::kHelloSize];
  arbor::net::Hello h;
  h.instance = 77;
  arbor::net::hello_encode(h, hello);
  hello[5] = 9;  // wire version 9
  ASSERT_TRUE(old_version.Send(hello, sizeof hello));
  EXPECT_TRUE(old_version.WaitClosed());
  EXPECT_TRUE(log.Has("unknown wire version"));

  // A hello, then a frame whose type could pass for a link status.
  RawPeer bad_type(port);
  ASSERT_TRUE(bad_type.SendHello(0x1001));
  FrameHeader f;
  f.type = QVNETS_SUCCESS;
  f.length = 3;
  ASSERT_TRUE(bad_type.SendFrame(f, "abc"));
  EXPECT_TRUE(bad_type.WaitClosed());
  EXPECT_TRUE(log.Has("bad frame type 9"));

  // A hello, then half a frame and the end of the stream.
  RawPeer truncated(port);
  ASSERT_TRUE(truncated.SendHello(0x1002));
  f.type = QVTP_CONTROL;
  f.length = 100;
  f.pipe = 100;
  ASSERT_TRUE(truncated.SendFrame(f, std::string(50, 't')));
  truncated.ShutdownWrite();
  EXPECT_TRUE(truncated.WaitClosed());
  EXPECT_TRUE(log.Has("stream ends inside a frame"));

  // The engine saw the two that said hello come and go, never one of
  // their frames.
  ASSERT_TRUE(ra.WaitCount(QVNETS_DISCONNECT, 2));
  EXPECT_EQ(Recorder::Count(ra.Snapshot(), QVNETS_DISCONNECT), 2u);
  EXPECT_EQ(Recorder::Count(ra.Snapshot(), QVNETS_SUCCESS), 3u);
  for (const Event& e : ra.Snapshot()) {
    EXPECT_NE(e.type, QVTP_CONTROL) << "no frame from a broken stream";
    EXPECT_FALSE(e.from == b_at_a && e.type != QVNETS_SUCCESS);
  }

  // The legitimate link still carries frames both ways.
  const PacketHeader ctl = Header(100, QVTP_CONTROL);
  ASSERT_EQ(b.LanWrite(static_cast<uint16_t>(to_a), &ctl, "ok=1;", 5), 5);
  EXPECT_EQ(ra.WaitFrames(1).at(0).from, b_at_a);
  ASSERT_EQ(a.LanWrite(static_cast<uint16_t>(b_at_a), &ctl, "ok=2;", 5), 5);
  EXPECT_EQ(rb.WaitFrames(1).at(0).data, "ok=2;");
  EXPECT_EQ(Recorder::Count(rb.Snapshot(), QVNETS_DISCONNECT), 0u);
}

}  // namespace
