// Whole sessions through the control messages, with the test playing the
// far peer or the service: what goes out is read from the scripted
// transport, what comes in is handed to the doors a transport uses.
#include "rsc_fixture.h"

namespace {

using namespace rsc_test;

class Session : public RscTest {};

// Whether LAN peer `peer` has been sent a frame of `type` on `pipe`.
bool SentOnPipe(uint16_t peer, uint16_t type, uint32_t pipe) {
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_LAN_NET_WRITE, i, &call) == 0;
       ++i) {
    if (call.peer == peer && call.header.nPacketType == type &&
        call.header.nPipe == pipe)
      return true;
  }
  return false;
}

// The AS code under which the first control text to `peer` holding needle
// travelled, or -1.
int32_t AscOf(uint16_t peer, const std::string& needle) {
  scripted_call call;
  for (size_t i = 0; scripted_call_get(SCRIPTED_LAN_NET_WRITE, i, &call) == 0;
       ++i) {
    if (call.peer == peer && call.text != nullptr &&
        std::string(call.text, call.text_size).find(needle) !=
            std::string::npos)
      return call.asc;
  }
  return -1;
}

// What the host hears under the AS code of its dials.
std::mutex host_mutex;
std::vector<std::string> host_texts;
int32_t HostHandler(uint32_t, uint32_t size, const char* data) {
  // A host may look at the forest from here: the forest's locks are never
  // held around this call.
  is_free_time();
  std::lock_guard hold(host_mutex);
  host_texts.emplace_back(data, size);
  return 0;
}
std::string HostHeard(const std::string& needle) {
  std::lock_guard hold(host_mutex);
  return Find(host_texts, needle);
}

TEST_F(Session, LocalDialStreamsAThreeHopChainAndHangsUpCleanly) {
  SysRegistASLan(200, nullptr, reinterpret_cast<AsHandler>(HostHandler));
  char sids[RSC_SID_SLOT];
  RSCDial(200, sids, "ftN0=cam.1;ftN1=enc.1;ftN2=sink.1;", nullptr);
  ASSERT_NE(sids[0], '\0');
  // Served here: its SessionStart goes by local dispatch and activates it,
  // and nothing is sent on any network.
  ASSERT_TRUE(WaitFor([] { return sink_writes.load() > 5; }));
  EXPECT_EQ(scripted_call_count(SCRIPTED_LAN_NET_WRITE), 0u);
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 0u);
  EXPECT_EQ(Opens(), 3u);

  EXPECT_NE(HostHeard("MainCmd=SessionStart"), "");

  EXPECT_NE(RSCHangup(0, sids), 0);
  ASSERT_TRUE(WaitFor([] { return Closes() == 3; }));
  const uint32_t after = sink_writes.load();
  Drain();
  EXPECT_EQ(sink_writes.load(), after);
  // The end is told to this host, under the dial's code, not to the service.
  ASSERT_TRUE(WaitFor([] { return !HostHeard("SessionDelete").empty(); }));
  EXPECT_EQ(Key(HostHeard("MainCmd=SessionDelete"), "sidN"), sids);
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 0u);
}

TEST_F(Session, ASourceDriverThatGoesEndsTheSessionAndTellsTheHost) {
  SysRegistASLan(200, nullptr, reinterpret_cast<AsHandler>(HostHandler));
  char sids[RSC_SID_SLOT];
  RSCDial(200, sids, "ftN0=cam.1;ftN1=sink.1;", nullptr);
  ASSERT_TRUE(WaitFor([] { return sink_writes.load() > 0; }));
  // The whole root goes, under the forest mutex and the root's lock.
  cmdq_push("Tree_cleanup_drv", Tree_cleanup_drv,
            reinterpret_cast<uintptr_t>(&cam), nullptr, 0);
  ASSERT_TRUE(WaitFor([] { return !HostHeard("SessionDelete").empty(); }));
  EXPECT_EQ(Key(HostHeard("SessionDelete"), "coz"), "Cleanup_Drv/Wan");
  EXPECT_EQ(Key(HostHeard("SessionDelete"), "sidN"), sids);
}

TEST_F(Session, ALocalChainThatCannotBeBuiltIsReportedToTheHost) {
  SysRegistASLan(200, nullptr, reinterpret_cast<AsHandler>(HostHandler));
  char sids[RSC_SID_SLOT];
  RSCDial(200, sids, "ftN0=cam.1;ftN1=sink.bad;", nullptr);
  ASSERT_TRUE(WaitFor([] { return !HostHeard("RUN_FAIL").empty(); }));
  EXPECT_EQ(Key(HostHeard("RUN_FAIL"), "coz"), "Tree create fail");
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 0u);
  ASSERT_TRUE(WaitFor([] { return Closes() == 1; }));
}

TEST_F(Session, PeerRequestBuildsTheSourceSideAndStreamsAfterSessionStart) {
  const uint32_t pipe = RequestFrom(5, "r1");
  EXPECT_GE(pipe, 1024u);
  const std::string create = Find(LanTexts(5), "SessionCreate");
  EXPECT_EQ(AscOf(5, "SessionCreate"), 100);
  EXPECT_EQ(Key(create, "AsCode"), "200");
  EXPECT_EQ(Key(create, "ftN1"), "sink.1");
  EXPECT_EQ(Key(create, "FD1"), "<none>");
  // Nothing streams before the peer has built its side.
  EXPECT_FALSE(SentOnPipe(5, QVTP_RTP, pipe));

  FromPeer(5, 100,
           "MainCmd=SessionStart;sidN=r1;ftN0=net.;FD0=" +
               std::to_string(pipe) + ";");
  ASSERT_TRUE(WaitFor([&] { return SentOnPipe(5, QVTP_RTP, pipe); }));

  // A driver's event for the source's descriptor goes down the tree in-band.
  DeviceCallback callback = drivers.callback;
  ASSERT_NE(callback, nullptr);
  const std::string var = "MainCmd=1;subResource=cam.1;event=motion;FD=" +
                          std::to_string(FdOf("cam.1")) + ";";
  callback(&cam, var.c_str(), "level=3;", 9);
  ASSERT_TRUE(WaitFor([&] { return SentOnPipe(5, QVTP_INBAND, pipe); }));

  // The peer hangs up: the branch ends and the peer hears why, under the
  // request's AS code.
  FromPeer(5, 100, "MainCmd=SessionDelete;sidN=r1;coz=;");
  ASSERT_TRUE(WaitFor([] { return Closes() == 1; }));
  const std::string reply = Find(LanTexts(5), "MainCmd=SessionDelete");
  EXPECT_EQ(Key(reply, "coz"), "Peer_SessionDelete");
  EXPECT_EQ(AscOf(5, "MainCmd=SessionDelete"), 200);
}

TEST_F(Session, SessionCreateFromPeerBuildsTheFarSideAndFeedsTheSink) {
  FromPeer(5, 100,
           "MainCmd=SessionCreate;sidN=c1;AsCode=200;ftN0=net.;FD0=1030;"
           "ftN1=sink.1;");
  ASSERT_TRUE(WaitFor([] {
    return !Find(LanTexts(5), "MainCmd=SessionStart").empty();
  }));
  const std::string start = Find(LanTexts(5), "MainCmd=SessionStart");
  EXPECT_EQ(Key(start, "sidN"), "c1");
  EXPECT_EQ(AscOf(5, "MainCmd=SessionStart"), 100);

  // Frames from the peer on its pipe reach the sink; a frame on another
  // pipe, or from another peer on that pipe, reaches nothing.
  const char frame[] = "0123456789abcdef";
  rsc_lan_data_incoming(5, 1031, QVTP_RTP, frame, 16);
  rsc_lan_data_incoming(6, 1030, QVTP_RTP, frame, 16);
  rsc_lan_data_incoming(5, 1030, QVTP_RTP, frame, 16);
  ASSERT_TRUE(WaitFor([] { return sink_bytes.load() == 16; }));
  rsc_lan_data_incoming(5, 1030, QVTP_INBAND, "event=e;subResource=a;", 22);
  ASSERT_TRUE(WaitFor([] { return !Events().empty(); }));
  EXPECT_EQ(Key(Events().back().substr(7), "QVID"), "5");

  FromPeer(5, 100, "MainCmd=RUN_FAIL;sidN=c1;coz=x;");
  ASSERT_TRUE(WaitFor([] { return Closes() == 1; }));
  EXPECT_EQ(Key(Find(LanTexts(5), "MainCmd=SessionDelete"), "coz"),
            "Peer_RUN_FAIL");
}

// Each way a peer's sessions end takes exactly that peer's sessions, and
// tells it the reason; a second peer's session on the same source stays.
TEST_F(Session, EachTeardownEndsTheSessionsItShouldWithItsReason) {
  const uint32_t kept = RequestFrom(6, "keep");
  FromPeer(6, 100, "MainCmd=SessionStart;sidN=keep;ftN0=net.;FD0=" +
                       std::to_string(kept) + ";");
  struct Case {
    const char* sid;
    std::string message;  // from peer 5, under AS 100
    const char* reason;
  };
  const Case cases[] = {
      {"d1", "MainCmd=SessionDelete;sidN=d1;", "Peer_SessionDelete"},
      {"f1", "MainCmd=RUN_FAIL;sidN=f1;", "Peer_RUN_FAIL"},
      {"o1", "MainCmd=Sigoff;sidN=any;", "Sigoff"},
      {"p1", "MainCmd=LocalData;status=0;", "Present_0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    RequestFrom(5, c.sid);
    const size_t sent = LanTexts(5).size();
    FromPeer(5, 100, c.message);
    ASSERT_TRUE(WaitFor([&] {
      const std::vector<std::string> texts = LanTexts(5);
      return texts.size() > sent &&
             texts.back().find("SessionDelete") != std::string::npos;
    }));
    const std::string reply = LanTexts(5).back();
    EXPECT_EQ(Key(reply, "sidN"), c.sid);
    EXPECT_EQ(Key(reply, "coz"), c.reason);
  }
  // Only peer 6's peer node is left on the shared source: nothing of the
  // source side was closed, and it still streams to peer 6.
  EXPECT_EQ(Closes(), 0);
  const size_t frames = LanFrames(6, QVTP_RTP);
  EXPECT_TRUE(WaitFor([&] { return LanFrames(6, QVTP_RTP) > frames; }));
  EXPECT_TRUE(Find(LanTexts(6), "SessionDelete").empty());
}

TEST_F(Session, AFailingLanWriteEndsThatPeersSessions) {
  const uint32_t pipe = RequestFrom(5, "w1");
  FromPeer(5, 100, "MainCmd=SessionStart;sidN=w1;ftN0=net.;FD0=" +
                       std::to_string(pipe) + ";");
  ASSERT_TRUE(WaitFor([&] { return SentOnPipe(5, QVTP_RTP, pipe); }));
  scripted_push_peer_result(5, -1, SCRIPTED_ALWAYS);
  ASSERT_TRUE(WaitFor([] { return Closes() == 1; }));
  EXPECT_EQ(Key(Find(LanTexts(5), "MainCmd=SessionDelete"), "coz"),
            "Lan_Write_error");
}

TEST_F(Session, ServiceSessionStreamsOverTheWanOnceThePipeIsReady) {
  FromService(
      "MainCmd=SessionCreate;sidN=v1;ftN0=cam.1;ftN1=net.;FD1=3000;");
  ASSERT_TRUE(WaitFor([] {
    return !Find(WanTexts(), "MainCmd=SessionStart").empty();
  }));
  const std::string start = Find(WanTexts(), "MainCmd=SessionStart");
  EXPECT_EQ(Key(start, "sidN"), "v1");
  // From the WAN the hop keeps its name: no "net.<fd>" rewrite.
  EXPECT_EQ(Key(start, "ftN0"), "net.");

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
  ASSERT_TRUE(WaitFor([] { return Closes() == 1; }));
}

}  // namespace
