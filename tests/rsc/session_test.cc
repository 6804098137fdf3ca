// Whole sessions through the control messages, with the test playing the
// far peer or the service: what goes out is read from the scripted
// transport, what comes in is handed to the doors a transport uses.
#include "cdef/cdef_internal.h"
#include "rsc_fixture.h"

namespace {

using namespace rsc_test;

class Session : public RscTest {};

// Served here, a chain starts by local dispatch and streams without a byte
// on any network. Its ends take the owner's road like any other session's:
// uid 0 with the dial's AS code is the service's road, so "RUN_FAIL" and
// "SessionDelete" go to the service under that code (or fail to, the WAN
// down), and the local table hears neither.
TEST_F(Session, LocalDialStreamsAThreeHopChainAndItsEndsGoToTheService) {
  SysRegistASLan(200, nullptr, reinterpret_cast<AsHandler>(Hear));
  char sids[RSC_SID_SLOT];
  RSCDial(200, sids, "ftN0=cam.1;ftN1=sink.bad;", nullptr);
  EXPECT_EQ(Key(AwaitText(-1, "RUN_FAIL"), "coz"), "Tree create fail");
  EXPECT_EQ(AscOf(-1, "RUN_FAIL"), 200);
  ASSERT_TRUE(WaitFor([] { return closes == 1; }));

  RSCDial(200, sids, "ftN0=cam.1;ftN1=enc.1;ftN2=sink.1;", nullptr);
  ASSERT_NE(sids[0], '\0');
  ASSERT_TRUE(WaitFor([] { return sink_writes.load() > 5; }));
  EXPECT_EQ(opens.load(), 4u);
  EXPECT_NE(Heard("MainCmd=SessionStart"), "");
  EXPECT_NE(RSCHangup(0, sids), 0);
  ASSERT_TRUE(WaitFor([] { return closes == 4; }));
  const uint32_t after = sink_writes.load();
  Drain();
  EXPECT_EQ(sink_writes.load(), after);
  EXPECT_EQ(Key(AwaitText(-1, "SessionDelete"), "sidN"), sids);
  EXPECT_EQ(AscOf(-1, "SessionDelete"), 200);
  EXPECT_EQ(Heard("RUN_FAIL") + Heard("SessionDelete"), "");
  EXPECT_EQ(scripted_call_count(SCRIPTED_LAN_NET_WRITE), 0u);

  // With the WAN down the same end fails to send, with the send error
  // line, and the session is gone all the same.
  sys_.wan_state = -1;
  const size_t sent = scripted_call_count(SCRIPTED_NET_WRITE);
  RSCDial(200, sids, "ftN0=cam.1;ftN1=sink.1;", nullptr);
  ASSERT_TRUE(WaitFor([after] { return sink_writes.load() > after; }));
  RSCHangup(0, sids);
  ASSERT_TRUE(WaitFor([this] { return log_.HasAt(0, "send error: qvid=0, asc=200: -1"); }));
  ASSERT_TRUE(WaitFor([] { return closes == opens; }));
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), sent);
}

// A dial under AS code 0 owns its session as sendasc's local delivery does:
// its end reaches every entry of the local table. The drain that tells it
// holds the forest mutex and the root's lock, and the host's handler looks
// at the forest: the text must reach it after those locks are released.
TEST_F(Session, ASourceDriverThatGoesEndsALocalSessionAndTellsTheHost) {
  SysRegistASLan(200, nullptr, reinterpret_cast<AsHandler>(Hear));
  char sids[RSC_SID_SLOT];
  RSCDial(0, sids, "ftN0=cam.1;ftN1=sink.1;", nullptr);
  ASSERT_TRUE(WaitFor([] { return sink_writes.load() > 0; }));
  cmdq_push("Tree_cleanup_drv", Tree_cleanup_drv,
            reinterpret_cast<uintptr_t>(&cam), nullptr, 0);
  ASSERT_TRUE(WaitFor([] { return !Heard("SessionDelete").empty(); }));
  EXPECT_EQ(Key(Heard("SessionDelete"), "coz"), "Cleanup_Drv/Wan");
  EXPECT_EQ(Key(Heard("SessionDelete"), "sidN"), sids);
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 0u);
}

TEST_F(Session, PeerRequestBuildsTheSourceSideAndStreamsAfterSessionStart) {
  const uint32_t pipe = RequestFrom(5, "r1");
  EXPECT_GE(pipe, 1024u);
  const std::string create = Find(LanTexts(5), "SessionCreate");
  EXPECT_EQ(AscOf(5, "SessionCreate"), 100);
  EXPECT_EQ(Key(create, "AsCode") + Key(create, "ftN1") + Key(create, "FD1"),
            "200sink.1<none>");
  // Nothing streams before the peer has built its side.
  EXPECT_EQ(LanFrames(5, QVTP_RTP, pipe), 0u);
  FromPeer(5, 100,
           "MainCmd=SessionStart;sidN=r1;ftN0=net.;FD0=" +
               std::to_string(pipe) + ";");
  ASSERT_TRUE(WaitFor([&] { return LanFrames(5, QVTP_RTP, pipe) > 0; }));

  // A driver's event for the source's descriptor (cam.1 was opened first,
  // as 100) goes down the tree in-band.
  // The size a driver gives need not count the text's NUL.
  drivers.callback(&cam, "MainCmd=1;subResource=cam.1;event=motion;FD=100;",
                   "level=3;", 8);
  ASSERT_TRUE(WaitFor([&] { return LanFrames(5, QVTP_INBAND, pipe) > 0; }));

  // The peer hangs up: the branch ends and the peer hears why, under the
  // request's AS code.
  FromPeer(5, 100, "MainCmd=SessionDelete;sidN=r1;coz=;");
  ASSERT_TRUE(WaitFor([] { return closes == 1; }));
  // The reply leaves after the branch is closed: wait for it too.
  EXPECT_EQ(Key(AwaitText(5, "MainCmd=SessionDelete"), "coz"), "Peer_SessionDelete");
  EXPECT_EQ(AscOf(5, "MainCmd=SessionDelete"), 200);
  Drain();
  EXPECT_EQ(lan_pipe_test_count(), 0u);  // the pipe number is free again
}

TEST_F(Session, SessionCreateFromPeerBuildsTheFarSideAndFeedsTheSink) {
  FromPeer(5, 100,
           "MainCmd=SessionCreate;sidN=c1;AsCode=200;ftN0=net.;FD0=1030;"
           "ftN1=sink.1;");
  EXPECT_EQ(Key(AwaitText(5, "MainCmd=SessionStart"), "sidN"), "c1");
  EXPECT_EQ(AscOf(5, "MainCmd=SessionStart"), 100);

  // Frames from the peer on its pipe reach the sink; a frame on another
  // pipe, from another peer, or of an unknown type reaches nothing.
  const char frame[] = "0123456789abcdef";
  rsc_lan_data_incoming(5, 1031, QVTP_RTP, frame, 16);
  rsc_lan_data_incoming(6, 1030, QVTP_RTP, frame, 16);
  rsc_lan_data_incoming(5, 1030, 7, frame, 16);
  rsc_lan_data_incoming(5, 1030, QVTP_RTP, frame, 16);
  ASSERT_TRUE(WaitFor([] { return sink_bytes.load() == 16; }));
  // In-band text names its sender unless it names one other than 0.
  for (const char* text :
       {"event=e;subResource=a;QVID=9;", "event=e;subResource=a;QVID=0;",
        "event=e;subResource=a;"})
    rsc_lan_data_incoming(5, 1030, QVTP_INBAND, text,
                          static_cast<uint32_t>(std::strlen(text)));
  Drain();
  std::string senders;
  for (const std::string& event : Events())
    senders += Key(event.substr(7), "QVID");
  EXPECT_EQ(senders, "955");

  FromPeer(5, 100, "MainCmd=RUN_FAIL;sidN=c1;coz=x;");
  EXPECT_EQ(Key(AwaitText(5, "MainCmd=SessionDelete"), "coz"), "Peer_RUN_FAIL");
  ASSERT_TRUE(WaitFor([] { return closes == 1; }));
  EXPECT_EQ(sink_bytes.load(), 16u);
}

// Each way a peer's sessions end takes exactly that peer's sessions, and
// tells it the reason; a second peer's session on the same source stays.
TEST_F(Session, EachTeardownEndsTheSessionsItShouldWithItsReason) {
  const uint32_t kept = StartedFrom(6, "keep");
  struct Case {
    const char* sid;
    int32_t asc;
    std::string message;  // from peer 5
    const char* reason;
  };
  const Case cases[] = {
      {"d1", 100, "MainCmd=SessionDelete;sidN=d1;", "Peer_SessionDelete"},
      {"f1", 100, "MainCmd=RUN_FAIL;sidN=f1;", "Peer_RUN_FAIL"},
      {"o1", 100, "MainCmd=Sigoff;sidN=any;", "Sigoff"},
      // The peer leaves; 10 is the transport's lost peer, under any code.
      {"p0", 100, "MainCmd=LocalData;status=0;", "Present_0"},
      {"p3", 100, "MainCmd=LocalData;status=3;", "Present_0"},
      {"p10", 0, "MainCmd=LocalData;status=10;QVID=5;", "Present_0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    RequestFrom(5, c.sid);
    const size_t sent = LanTexts(5).size();
    FromPeer(5, c.asc, c.message);
    ASSERT_TRUE(WaitFor([&] {
      const std::vector<std::string> texts = LanTexts(5);
      return texts.size() > sent &&
             texts.back().find("SessionDelete") != std::string::npos;
    }));
    const std::string reply = LanTexts(5).back();
    EXPECT_EQ(Key(reply, "sidN") + "|" + Key(reply, "coz"),
              std::string(c.sid) + "|" + c.reason);
  }
  // A LAN write that fails ends that peer's streaming sessions too.
  const uint32_t pipe = StartedFrom(5, "w1");
  ASSERT_TRUE(WaitFor([&] { return LanFrames(5, QVTP_RTP, pipe) > 0; }));
  scripted_push_peer_result(5, -1, SCRIPTED_ALWAYS);
  ASSERT_TRUE(WaitFor(
      [] { return Key(LanTexts(5).back(), "coz") == "Lan_Write_error"; }));
  // Only peer 6's peer node is left on the shared source: nothing of the
  // source side was closed, and it still streams to peer 6.
  EXPECT_EQ(closes.load(), 0u);
  const size_t frames = LanFrames(6, QVTP_RTP, kept);
  EXPECT_TRUE(WaitFor([&] { return LanFrames(6, QVTP_RTP, kept) > frames; }));
  EXPECT_TRUE(Find(LanTexts(6), "SessionDelete").empty());
}

TEST_F(Session, ServiceSessionStreamsOverTheWanOnceThePipeIsReady) {
  FromService("MainCmd=SessionCreate;sidN=v1;ftN0=cam.1;ftN1=net.;FD1=3000;");
  const std::string start = AwaitText(-1, "MainCmd=SessionStart");
  // From the WAN the hop keeps its name: no "net.<fd>" rewrite.
  EXPECT_EQ(Key(start, "sidN") + Key(start, "ftN0"), "v1net.");

  auto media = [] {
    size_t n = 0;
    scripted_call call;
    for (size_t i = 0; scripted_call_get(SCRIPTED_NET_WRITE, i, &call) == 0;
         ++i)
      n += call.header.nPacketType == QVTP_RTP && call.header.nPipe == 3000;
    return n;
  };
  EXPECT_EQ(media(), 0u);
  FromService("MainCmd=QVVPipeReady;sidN=v1;");
  ASSERT_TRUE(WaitFor([&] { return media() > 0; }));
  // The WAN falls: every branch over it ends.
  ASSERT_NE(rsc_wan_clean(), nullptr);
  ASSERT_TRUE(WaitFor([] { return closes == 1; }));
}

}  // namespace
