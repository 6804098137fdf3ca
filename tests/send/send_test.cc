// The sending road through the scripted transport: the header that a flags
// word makes, the NUL strip and old encoding of the LAN road, the packing
// and limits of the service road, local delivery, and the two front ends.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "arbor/asc.h"
#include "arbor/send.h"
#include "init/sys_state.h"
#include "rsc/neigh_table.h"
#include "test_helpers.h"

namespace {

void LinksUp() {
  sys_.wan_state = QVNETS_SUCCESS;
  sys_.lan_state = 0;
}

TEST(SendAsc, EmptyOrNullDataFailsWithTheErrorLineOnEveryRoad) {
  LinksUp();
  LogCapture log;
  EXPECT_EQ(sendasc(5, 100, "a=1;", 0, 0), -1);
  EXPECT_EQ(sendasc(0, 0, nullptr, 4, 0), -1);
  EXPECT_TRUE(log.Has("send error: qvid=5, asc=100: -1"));
  EXPECT_TRUE(log.Has("send error: qvid=0, asc=0: -1"));
  EXPECT_EQ(scripted_call_count(SCRIPTED_ANY), 0u);
}

TEST(SendAsc, FlagsWordFillsTheHeaderAndZeroMeansControl) {
  LinksUp();
  ASSERT_EQ(sendasc(0, 100, "a=1;", 4, 0), 6);
  ASSERT_EQ(sendasc(0, 100, "a=1;", 4, 0x30000), 6);
  const PacketHeader plain = Recorded(SCRIPTED_NET_WRITE, 0).header;
  const PacketHeader control = Recorded(SCRIPTED_NET_WRITE, 1).header;
  EXPECT_EQ(std::memcmp(&plain, &control, sizeof plain), 0);
  EXPECT_EQ(plain.nPacketType, QVTP_CONTROL);

  ASSERT_EQ(sendasc(7, 1030, "ev=1;", 5, 0xFF050203), 5);
  PacketHeader lan = Recorded(SCRIPTED_LAN_NET_WRITE, 0).header;
  EXPECT_EQ(lan.nPacketType, QVTP_INBAND);
  EXPECT_EQ(lan.nLevel, 2);
  EXPECT_EQ(lan.nBoatType, 3);
  EXPECT_EQ(lan.nPipe, 1030u);
}

TEST(LanSend, TrailingNulsReachACurrentPeerButNotAnOldOne) {
  LinksUp();
  const char text[] = "a=1;\0";  // two trailing NULs with the terminator
  ASSERT_EQ(sendasc(7, 100, text, sizeof text, 0x30000), 6);
  EXPECT_EQ(Payload(Recorded(SCRIPTED_LAN_NET_WRITE, 0)), std::string(text, 6));

  ASSERT_EQ(neigh_table_add(0x10008), 0);  // cut to peer id 8 on the way
  ASSERT_EQ(sendasc(0x10008, 100, text, sizeof text, 0x30000), 5);
  scripted_call old = Recorded(SCRIPTED_LAN_NET_WRITE, 1);
  EXPECT_EQ(old.peer, 8);
  EXPECT_EQ(Payload(old), std::string("a=1;", 5));  // old encoding keeps one
}

// A frame of NULs only is refused even as media; an old peer gets nothing
// when the text cannot be re-encoded.
TEST(LanSend, RefusesNulOnlyFramesAndTextAnOldPeerCannotRead) {
  LinksUp();
  LogCapture log;
  const char zeros[4] = {};
  EXPECT_EQ(sendasc(7, 1024, zeros, sizeof zeros, 0x40000), -1);
  neigh_table_add(9);
  EXPECT_EQ(sendasc(9, 100, "a=1", 3, 0), -1);  // not dictionary text
  EXPECT_TRUE(log.Has("DictCreate: a=1"));
  EXPECT_EQ(sendasc(9, 100, "a=x\\;y;", 7, 0), -1);  // ';' in a value
  EXPECT_TRUE(log.Has("DictEncodeOld: a=x\\;y;"));
  // Media to the same old peer is not text: it goes out as it came.
  EXPECT_EQ(sendasc(9, 1024, "a=1", 3, 0x40000), 3);
  EXPECT_EQ(scripted_call_count(SCRIPTED_LAN_NET_WRITE), 1u);
}

TEST(WanSend, ControlTextIsPackedBehindItsAsCodeUpToTheLimit) {
  LinksUp();
  std::string text(65533, 'k');
  ASSERT_EQ(sendasc(0, 0x1234, text.data(), 65532, 0), 65534);
  EXPECT_EQ(Payload(Recorded(SCRIPTED_NET_WRITE, 0)), "\x34\x12" + text.substr(0, 65532));

  PacketHeader header{0, 0, 77, QVTP_CONTROL, 0};
  EXPECT_EQ(wansend(0, 100, &header, text.data(), 65533), -1);
  EXPECT_EQ(sendasc(0, 100, text.data(), 65533, 0), -1);
  // Above 65534 sendasc refuses rather than reach wansend's assertion.
  std::string huge(70000, 'k');
  EXPECT_EQ(sendasc(0, 100, huge.data(), 70000, 0), -1);
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 1u);
}

TEST(WanSendDeathTest, ControlTextOf65535BytesIsTheCallersFault) {
  std::string text(65535, 'k');
  PacketHeader header{0, 0, 0, QVTP_CONTROL, 0};
  EXPECT_DEATH(wansend(0, 100, &header, text.data(), 65535),
               "assertion failed: size < .unsigned short.-1");
}

int32_t local_calls = 0;
int32_t CountLocal(uint32_t from, int32_t code, const char*, uint32_t size) {
  if (from == 0 && code == 0 && size == 4) ++local_calls;
  return 0;
}

TEST(SendAsc, WanDownFailsWhileLocalDeliveryStillWorks) {
  sys_.wan_state = -1;
  SysRegistASLan_0(0, nullptr, reinterpret_cast<AsHandler>(&CountLocal));
  EXPECT_EQ(sendasc(0, 100, "a=1;", 4, 0), -1);
  EXPECT_EQ(sendasc(0, 0, "a=1;", 4, 0), 0);
  EXPECT_EQ(local_calls, 1);
  EXPECT_EQ(scripted_call_count(SCRIPTED_ANY), 0u);
}

TEST(NetSendLan, LanOffIsNoErrorAndPeerZeroGetsTheTextAsItCame) {
  EXPECT_EQ(NetSendLan(7, 100, "a=1;", 4), 0);  // LAN off
  LinksUp();
  LogCapture log;
  EXPECT_EQ(NetSendLan(7, 1000, "a=1;", 4), -1);
  EXPECT_TRUE(log.Has("NetSendLan error: qvAS='1000' invalid."));
  EXPECT_EQ(scripted_call_count(SCRIPTED_ANY), 0u);

  ASSERT_EQ(NetSendLan(0, 333, "a=1;", 5), 5);
  const scripted_call call = Recorded(SCRIPTED_LAN_NET_WRITE, 0);
  EXPECT_EQ(call.peer, 0);
  EXPECT_EQ(call.asc, 333);
  EXPECT_EQ(Payload(call), std::string("a=1;", 5));
}

int32_t IgnoreService(uint32_t, const char*) { return 0; }

TEST(NetSend, NameThatTwoRowsBearUsesTheFirstAndNeedsAHandler) {
  LinksUp();
  LogCapture log;
  asc_put_code_name(1, 501, "svc");
  asc_put_code_name(2, 502, "svc");
  EXPECT_EQ(NetSend("svc", "a=1;", 4) + NetSend("nope", "a=1;", 4), -2);
  EXPECT_TRUE(log.Has("NetSend error: 'svc' not ready.."));
  EXPECT_TRUE(log.Has("NetSend error: 'nope' not available.."));

  SysRegistAS(1, &IgnoreService);
  SysRegistAS(2, &IgnoreService);
  ASSERT_EQ(NetSend("svc", "a=1;", 4), 6);
  EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, 0).asc, 501);
}

}  // namespace
