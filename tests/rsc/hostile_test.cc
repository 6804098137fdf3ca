// Malformed, truncated, oversized and contradictory input at every door
// that a peer, the service or a driver can reach, while two legitimate
// sessions stream beside it. The process must survive (and, under the
// sanitizers, neither leak nor touch memory it should not), the legitimate
// sessions must keep streaming, and the stop must close every device that
// the junk managed to open.
#include "rsc_fixture.h"

namespace {

using namespace rsc_test;

class Hostile : public RscTest {};

std::vector<std::string> ControlJunk() {
  const std::string sid63(63, 's'), sid64(64, 's'), req = "MainCmd=QV_RES_REQ;";
  std::string hops64 = req + "sidN=h64;", huge;
  for (int i = 0; i < 64; ++i) hops64 += "ftN" + std::to_string(i) + "=enc.1;";
  while (huge.size() < 20000) huge += "k" + std::to_string(huge.size()) + "=v;";
  // clang-format off
  return {
      "", ";", ";;;", "=", "==;", "MainCmd", "MainCmd=;", "\\", "a=b\\", req,
      req + "sidN=;ftN0=cam.1;",
      req + "sidN=" + sid63 + ";ftN0=enc.1;ftN1=sink.1;",
      req + "sidN=" + sid64 + ";ftN0=enc.1;ftN1=sink.1;",
      req + "sidN=g;ftN0=enc.1;ftN2=sink.1;",
      req + "sidN=n;ftN0=net.;ftN1=sink.1;",
      req + "sidN=n2;ftN0=cam.1;ftN1=net.;",
      req + "sidN=u;ftN0=nobody.9;ftN1=net.;ftN2=x;",
      req + "sidN=e;ftN0=;ftN1=net.;ftN2=sink.1;", hops64,
      "MainCmd=SessionCreate;sidN=fd;ftN0=net.;FD0=-5;ftN1=sink.1;",
      "MainCmd=SessionCreate;sidN=fd0;ftN0=net.;FD0=0;ftN1=sink.1;",
      "MainCmd=SessionCreate;sidN=big;ftN0=net.;FD0=99999999999;ftN1=x;",
      "MainCmd=SessionCreate;sidN=keep6;ftN0=net.;FD0=1030;ftN1=sink.1;",
      "MainCmd=SessionCreate;sidN=" + sid64 + ";ftN0=net.;FD0=1;ftN1=a;",
      "MainCmd=SessionCreate;sidN=z;", "MainCmd=SessionStart;sidN=nope;",
      "MainCmd=SessionStart;sidN=" + sid64 + ";FD0=1;ftN0=a;",
      "MainCmd=SessionStart;sidN=z;FD0=abc;ftN0=a;",
      "MainCmd=QVVPipeReady;sidN=nope;", "MainCmd=QVVPipeReady;sidN=;",
      "MainCmd=SessionDelete;sidN=" + sid64 + ";", "MainCmd=RUN_FAIL;sidN=;",
      "MainCmd=Sigoff;", "MainCmd=Nope;sidN=x;", "MainCmd=0;sidN=x;",
      "MainCmd=-3;sidN=x;", "MainCmd=15;", "MainCmd=15;event=;subResource=..;",
      "MainCmd=17;event=x;", "MainCmd=40;ftN=;", "MainCmd=40;ftN=sink.1;FD=-1;",
      "MainCmd=LocalData;", "MainCmd=LocalData;status=abc;",
      "MainCmd=LocalData;status=-7;VERSION=zz;",
      "MainCmd=LocalData;status=1;VERSION=-1;Ip=;",
      "MainCmd=LocalData;status=2;VERSION=2147483648;",
      std::string("MainCmd=Sigoff;\0sidN=x;", 23), huge,
  };
  // clang-format on
}

TEST_F(Hostile, JunkAtEveryDoorLeavesLegitimateSessionsRunning) {
  // The junk is long and every door traces it at level 3; the failures it
  // provokes log at level 0 and 1, which stay on.
  LOG_SetLevel(1);
  // Two sessions that must survive: a local chain, and a source-side
  // session for peer 6.
  char sids[RSC_SID_SLOT];
  RSCDial(300, sids, "ftN0=cam.1;ftN1=enc.1;ftN2=sink.1;", nullptr);
  StartedFrom(6, "keep6");
  ASSERT_TRUE(WaitFor([] { return sink_writes.load() > 0; }));
  ASSERT_TRUE(WaitFor([] { return LanFrames(6, QVTP_RTP) > 0; }));

  for (const std::string& text : ControlJunk()) {
    for (int32_t asc : {0, 100, 555, 999, 65535}) FromPeer(9, asc, text);
    FromService(text);
    // Unterminated: the last byte cut off the size.
    if (!text.empty()) FromPeer(9, 100, text.substr(0, text.size() - 1));
  }
  // Data doors.
  const std::string big(3000, 'x');
  std::string pairs;
  while (pairs.size() < 2100)
    pairs += "key" + std::to_string(pairs.size()) + "=v;";
  for (uint32_t type : {0u, 3u, 4u, 5u, 6u, 255u}) {
    rsc_lan_data_incoming(9, 1030, type, "x", 1);
    rsc_lan_data_incoming(9, 65535, type, "a=b;c", 5);
    rsc_lan_data_incoming(9, 1030, type, nullptr, 0);
    rsc_lan_data_incoming(9, 1030, type, nullptr, 7);
    rsc_lan_data_incoming(9, 1030, type, pairs.data(),
                          static_cast<uint32_t>(pairs.size()));
    rsc_wan_data_incoming(7, type, big.data(),
                          static_cast<uint32_t>(big.size()));
    rsc_wan_data_incoming(0xffffffffu, type, "\0\0\0", 3);
    rsc_wan_data_incoming(7, type, nullptr, 5);
  }
  // A driver that calls back with nonsense.
  DeviceCallback callback = drivers.callback;
  ASSERT_NE(callback, nullptr);
  const std::string long_event = "a=" + std::string(5000, 'v') + ";";
  callback(&cam, "", "x", 1);
  callback(&cam, "=;=", "x", 1);
  callback(&cam, "FD=7;", nullptr, 4);
  callback(&cam, "FD=7;", "x", 0);
  callback(&cam, "FD=-1;Flag=-1;", "x", 1);
  callback(&cam, "MainCmd=1;event=e;subResource=a;FD=999;", long_event.c_str(),
           static_cast<uint32_t>(long_event.size() + 1));
  callback(&cam, "MainCmd=1;event=e;subResource=a;", "not a dict", 11);
  callback(&cam, "MainCmd=1;event=e;subResource=a;", "unterminated=1;", 3);
  callback(&cam, "MainCmd=15;event=e;subResource=a;", "x", 1);
  cdef stranger{};
  callback(&stranger, "MainCmd=15;event=e;subResource=a;", "x", 1);

  // Both legitimate sessions still stream, and the local one still hangs up.
  Drain();
  const uint32_t writes = sink_writes.load();
  const size_t frames = LanFrames(6, QVTP_RTP);
  EXPECT_TRUE(WaitFor([&] { return sink_writes.load() > writes; }));
  EXPECT_TRUE(WaitFor([&] { return LanFrames(6, QVTP_RTP) > frames; }));
  EXPECT_TRUE(Find(LanTexts(6), "SessionDelete").empty());
  EXPECT_NE(RSCHangup(0, sids), 0);
}

}  // namespace
