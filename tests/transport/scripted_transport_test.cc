// Tests of the scripted transport: what it records, the results a test can
// choose, injection into the registered callbacks, and waiting. Every
// engine test stands on these behaviours.
#include "arbor/scripted_transport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "test_helpers.h"

extern "C" int scripted_c_smoke(void);

namespace {

std::vector<std::string> g_seen;  // "from/pipe/type/bytes" of each delivery

void wan_cb(uint32_t pipe, uint32_t type, uint32_t size, const void* data) {
  g_seen.push_back("0/" + std::to_string(pipe) + "/" + std::to_string(type) + "/" +
                   (data != nullptr ? std::string(static_cast<const char*>(data), size)
                                    : "<null>"));
}
void lan_cb(uint32_t from, uint32_t pipe, uint32_t type, uint32_t size, const void* data) {
  g_seen.push_back(std::to_string(from) + "/" + std::to_string(pipe) + "/" +
                   std::to_string(type) + "/" +
                   std::string(static_cast<const char*>(data), data ? size : 0));
}

PacketHeader header(uint32_t pipe, uint16_t type) { return PacketHeader{0, 0, pipe, type, 0}; }

TEST(ScriptedRecording, KeepsHeaderPayloadCopyAndAsCodeInCallOrder) {
  char frame[] = "\x4d\x01k=v;";  // AS code 333, low byte first
  const PacketHeader h{0, 0x12, 0, QVTP_CONTROL, 0x34};
  ASSERT_EQ(NetWrite(&h, frame, 6), 6);
  std::memset(frame, 'x', sizeof frame);  // the record must not see this
  const PacketHeader lan_ctl = header(100, QVTP_CONTROL);
  ASSERT_EQ(LANNetWrite(9, &lan_ctl, "a=b;", 4), 4);

  EXPECT_EQ(scripted_call_count(SCRIPTED_ANY), 2u);
  const scripted_call c = Recorded(SCRIPTED_NET_WRITE, 0);
  EXPECT_EQ(c.header.nBoatType, 0x12);
  EXPECT_EQ(c.header.nLevel, 0x34);
  EXPECT_EQ(Payload(c), "\x4d\x01k=v;");
  EXPECT_EQ(c.asc, 333);
  EXPECT_STREQ(c.text, "k=v;");
  const scripted_call m = Recorded(SCRIPTED_LAN_NET_WRITE, 0);
  EXPECT_EQ(m.peer, 9);
  EXPECT_EQ(m.asc, 100) << "a LAN AS code travels in nPipe";
  EXPECT_EQ(Recorded(SCRIPTED_ANY, 1).order, 1u);
  scripted_call none{};
  EXPECT_EQ(scripted_call_get(SCRIPTED_NET_WRITE, 1, &none), -1);
}

TEST(ScriptedResults, RunOutInOrderAndAPeerScriptComesFirst) {
  PacketHeader h = header(5, QVTP_RTP);
  scripted_push_result(SCRIPTED_NET_WRITE, -1, 2);
  scripted_push_result(SCRIPTED_NET_WRITE, SCRIPTED_DEFAULT, 1);
  scripted_push_result(SCRIPTED_NET_WRITE, -9, SCRIPTED_ALWAYS);
  std::vector<int32_t> got;
  for (int i = 0; i < 5; ++i) got.push_back(NetWrite(&h, "abcd", 4));
  EXPECT_EQ(got, (std::vector<int32_t>{-1, -1, 4, -9, -9}));
  scripted_clear_results(SCRIPTED_NET_WRITE);
  EXPECT_EQ(NetWrite(&h, "abcd", 4), 4);

  scripted_push_peer_result(7, -3, SCRIPTED_ALWAYS);
  scripted_push_result(SCRIPTED_LAN_NET_WRITE, -2, 1);
  EXPECT_EQ(LANNetWrite(7, &h, "x", 1), -3);
  EXPECT_EQ(LANNetWrite(8, &h, "x", 1), -2);
  EXPECT_EQ(LANNetWrite(8, &h, "x", 1), 1);
}

TEST(ScriptedInjection, ReachesRegisteredCallbacksOnlyWhileTheyStand) {
  EXPECT_EQ(scripted_wan_status(QVNETS_SUCCESS), -1);
  ASSERT_EQ(InitWAN(wan_cb), 0);
  ASSERT_EQ(scripted_wan_control(999, "a=1;", 1), 0);
  ASSERT_EQ(scripted_wan_status(QVNETS_SUCCESS), 0);
  scripted_set_result(SCRIPTED_INIT_LAN, -5);
  EXPECT_EQ(InitLAN(lan_cb, 0, 0, 0), -5);  // a failed InitLAN keeps none
  EXPECT_EQ(scripted_lan_status(3, QVNETS_SUCCESS), -1);
  scripted_clear_results(SCRIPTED_ANY);
  ASSERT_EQ(InitLAN(lan_cb, 0, 0, 0), 0);
  ASSERT_EQ(scripted_lan_control(4, 555, "e=1;", 0), 0);
  ASSERT_EQ(scripted_lan_frame(4, 1024, QVTP_INBAND, "ev", 2), 0);
  const std::string ctl = std::to_string(QVTP_CONTROL);
  EXPECT_EQ(g_seen, (std::vector<std::string>{
                        "0/0/" + ctl + std::string("/\xe7\x03" "a=1;\0", 8),
                        "0/0/" + std::to_string(QVNETS_SUCCESS) + "/<null>",
                        "4/555/" + ctl + "/e=1;",
                        "4/1024/" + std::to_string(QVTP_INBAND) + "/ev"}));
  NetClose();
  EXPECT_EQ(scripted_has_wan_callback() + scripted_has_lan_callback(), 0)
      << "NetClose ends both links";
}

TEST(ScriptedWaiting, ReturnsOnceAnotherThreadWroteAndKeepsEachThreadsOrder) {
  std::vector<std::thread> writers;
  for (uint16_t t = 0; t < 4; ++t)
    writers.emplace_back([t] {
      for (PacketHeader h = header(0, QVTP_RTP); h.nPipe < 100; ++h.nPipe)
        LANNetWrite(t, &h, &h.nPipe, sizeof h.nPipe);
    });
  EXPECT_EQ(scripted_wait_calls(SCRIPTED_LAN_NET_WRITE, 400, 10000), 1);
  for (std::thread& w : writers) w.join();
  std::vector<uint32_t> next(4, 0);
  for (size_t k = 0; k < 400; ++k) {
    const scripted_call c = Recorded(SCRIPTED_LAN_NET_WRITE, k);
    EXPECT_EQ(c.header.nPipe, next.at(static_cast<size_t>(c.peer))++);
  }
  EXPECT_EQ(scripted_wait_calls(SCRIPTED_LAN_NET_WRITE, 401, 20), 0) << "time limit";
}

TEST(ScriptedCApi, HeaderWorksFromC) { EXPECT_EQ(scripted_c_smoke(), 0); }

}  // namespace
