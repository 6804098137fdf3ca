// Tests of the scripted transport: what it records, the results a test can
// choose, injection into the registered callbacks, waiting and reset. Every
// engine test stands on these, so they pin the exact bytes and counts.
#include "scripted_transport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "test_helpers.h"

extern "C" int scripted_c_smoke(void);

namespace {

struct Delivery {
  uint32_t from, pipe, type;
  std::string bytes;
  bool null_data;
};
std::vector<Delivery> g_wan, g_lan;

std::string Bytes(const void* data, uint32_t size) {
  return data != nullptr ? std::string(static_cast<const char*>(data), size) : "";
}
void wan_cb(uint32_t pipe, uint32_t type, uint32_t size, const void* data) {
  g_wan.push_back({0, pipe, type, Bytes(data, size), data == nullptr});
}
void lan_cb(uint32_t from, uint32_t pipe, uint32_t type, uint32_t size, const void* data) {
  g_lan.push_back({from, pipe, type, Bytes(data, size), data == nullptr});
}

PacketHeader header(uint32_t pipe, uint16_t type, uint16_t boat = 0, uint16_t level = 0) {
  return PacketHeader{0, boat, pipe, type, level};
}

TEST(ScriptedRecording, KeepsHeaderFieldsAndAPayloadCopy) {
  char frame[] = "\x4d\x01k=v;";  // AS code 333, low byte first
  const PacketHeader h = header(0, QVTP_CONTROL, 0x12, 0x34);
  ASSERT_EQ(NetWrite(&h, frame, 6), 6);
  std::memset(frame, 'x', sizeof frame);  // the record must not see this
  const scripted_call c = Recorded(SCRIPTED_NET_WRITE, 0);
  EXPECT_EQ(c.header.nBoatType, 0x12);
  EXPECT_EQ(c.header.nLevel, 0x34);
  EXPECT_EQ(c.header.nPacketType, QVTP_CONTROL);
  EXPECT_EQ(Payload(c), "\x4d\x01k=v;");
  EXPECT_EQ(c.data[6], 0) << "payload copies end in a NUL";
  EXPECT_EQ(c.asc, 333);
  EXPECT_STREQ(c.text, "k=v;");

  const PacketHeader media = header(1030, QVTP_RTP, 1, 2);
  ASSERT_EQ(LANNetWrite(9, &media, "\0\xff\x07", 3), 3);
  const PacketHeader lan_ctl = header(100, QVTP_CONTROL);
  ASSERT_EQ(LANNetWrite(9, &lan_ctl, "a=b;", 4), 4);
  const scripted_call m = Recorded(SCRIPTED_LAN_NET_WRITE, 0);
  EXPECT_EQ(m.peer, 9);
  EXPECT_EQ(m.header.nPipe, 1030u);
  EXPECT_EQ(Payload(m), std::string("\0\xff\x07", 3));
  EXPECT_EQ(m.asc, -1);
  EXPECT_EQ(m.text, nullptr);
  EXPECT_EQ(Recorded(SCRIPTED_LAN_NET_WRITE, 1).asc, 100) << "a LAN AS code travels in nPipe";
}

TEST(ScriptedRecording, FiltersByFunctionInCallOrder) {
  NetOpen();
  for (uint16_t i = 0; i < 3; ++i) {
    const PacketHeader h = header(i, QVTP_RTP);
    NetWrite(&h, &i, sizeof i);
  }
  ConnectTarget t{};
  std::strcpy(t.host, "service.example");
  t.port = 8000;
  t.protocol = QV_PROTOCOL_TCP;
  ConRemoteHostInfo(&t);
  t.zero[511] = 1;
  ConRemoteHostInfo(&t);
  LANReFlash("Name=a;", 8);
  InitLAN(lan_cb, 1, -2, 3);

  EXPECT_EQ(scripted_call_count(SCRIPTED_ANY), 8u);
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 3u);
  EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, 2).header.nPipe, 2u);
  EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, 2).order, 3u);
  EXPECT_EQ(Recorded(SCRIPTED_ANY, 3).fn, SCRIPTED_NET_WRITE);
  scripted_call none{};
  EXPECT_EQ(scripted_call_get(SCRIPTED_NET_WRITE, 3, &none), -1);
  const scripted_call con = Recorded(SCRIPTED_CON_REMOTE_HOST_INFO, 0);
  EXPECT_STREQ(con.host, "service.example");
  EXPECT_EQ(con.port, 8000);
  EXPECT_EQ(con.protocol, QV_PROTOCOL_TCP);
  EXPECT_EQ(con.reserved_zero, 1);
  EXPECT_EQ(Recorded(SCRIPTED_CON_REMOTE_HOST_INFO, 1).reserved_zero, 0);
  EXPECT_STREQ(Recorded(SCRIPTED_LAN_REFLASH, 0).text, "Name=a;");
  EXPECT_EQ(Recorded(SCRIPTED_LAN_REFLASH, 0).size, 8u);
  EXPECT_EQ(Recorded(SCRIPTED_INIT_LAN, 0).lan_callback, &lan_cb);
  EXPECT_EQ(Recorded(SCRIPTED_INIT_LAN, 0).words[1], -2);
}

TEST(ScriptedResults, RunOutInOrderPeerScriptComesFirstAddLanEpCounts) {
  PacketHeader h = header(5, QVTP_RTP);
  ASSERT_EQ(scripted_push_result(SCRIPTED_NET_WRITE, -1, 2), 0);
  ASSERT_EQ(scripted_push_result(SCRIPTED_NET_WRITE, SCRIPTED_DEFAULT, 1), 0);
  ASSERT_EQ(scripted_push_result(SCRIPTED_NET_WRITE, -9, SCRIPTED_ALWAYS), 0);
  std::vector<int32_t> got;
  for (int i = 0; i < 5; ++i) got.push_back(NetWrite(&h, "abcd", 4));
  EXPECT_EQ(got, (std::vector<int32_t>{-1, -1, 4, -9, -9}));
  EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, 0).result, -1) << "records keep the result given";
  scripted_clear_results(SCRIPTED_NET_WRITE);
  EXPECT_EQ(NetWrite(&h, "abcd", 4), 4);
  EXPECT_EQ(NetWrite(nullptr, "abcd", 4), -1) << "a null header is refused";
  EXPECT_EQ(scripted_push_result(SCRIPTED_ANY, -1, 1), -1);
  EXPECT_EQ(scripted_push_result(SCRIPTED_NET_WRITE, -1, 0), -1);

  // A peer's script comes first; AddLANEP counts unless scripted.
  h.nPipe = 1024;
  scripted_push_peer_result(7, -3, SCRIPTED_ALWAYS);
  scripted_push_result(SCRIPTED_LAN_NET_WRITE, -2, 1);
  EXPECT_EQ(LANNetWrite(7, &h, "x", 1), -3);
  EXPECT_EQ(LANNetWrite(8, &h, "x", 1), -2);
  EXPECT_EQ(LANNetWrite(8, &h, "x", 1), 1);
  EXPECT_EQ(LANNetWrite(7, &h, "x", 1), -3);

  scripted_push_result(SCRIPTED_ADD_LANEP, SCRIPTED_DEFAULT, 1);
  scripted_push_result(SCRIPTED_ADD_LANEP, 40, 1);
  EXPECT_EQ(AddLANEP(0, 0, 0, 0), 1);
  EXPECT_EQ(AddLANEP(0, 0, 0, 0), 40);
  EXPECT_EQ(AddLANEP(0, 0, 0, 0), 3);
}

TEST(ScriptedInjection, ControlFrameCarriesAsCodeLowByteFirst) {
  ASSERT_EQ(InitWAN(wan_cb), 0);
  ASSERT_EQ(scripted_wan_control(0x0201, "a=1;", 0), 0);
  ASSERT_EQ(scripted_wan_control(999, "a=1;", 1), 0);
  ASSERT_EQ(scripted_wan_status(QVNETS_SUCCESS), 0);
  ASSERT_EQ(g_wan.size(), 3u);
  EXPECT_EQ(g_wan[0].pipe, 0u);
  EXPECT_EQ(g_wan[0].type, static_cast<uint32_t>(QVTP_CONTROL));
  EXPECT_EQ(g_wan[0].bytes, std::string("\x01\x02" "a=1;", 6));
  EXPECT_EQ(g_wan[1].bytes, std::string("\xe7\x03" "a=1;\0", 7)) << "999 = 0x03E7";
  EXPECT_EQ(g_wan[2].type, static_cast<uint32_t>(QVNETS_SUCCESS));
  EXPECT_TRUE(g_wan[2].null_data);

  ASSERT_EQ(InitLAN(lan_cb, 0, 0, 0), 0);
  ASSERT_EQ(scripted_lan_control(4, 555, "e=1;", 0), 0);
  ASSERT_EQ(scripted_lan_frame(4, 1024, QVTP_INBAND, "ev", 2), 0);
  ASSERT_EQ(scripted_lan_status(4, QVNETS_DISCONNECT), 0);
  ASSERT_EQ(g_lan.size(), 3u);
  EXPECT_EQ(g_lan[0].pipe, 555u);
  EXPECT_EQ(g_lan[0].bytes, "e=1;");
  EXPECT_EQ(g_lan[1].type, static_cast<uint32_t>(QVTP_INBAND));
  EXPECT_EQ(g_lan[2].from, 4u);
  EXPECT_EQ(g_lan[2].pipe, 0u);
}

TEST(ScriptedInjection, WithoutCallbackFailsInsteadOfCalling) {
  scripted_set_result(SCRIPTED_INIT_LAN, -5);
  EXPECT_EQ(InitLAN(lan_cb, 0, 0, 0), -5);  // a failed InitLAN keeps none
  EXPECT_EQ(scripted_lan_status(3, QVNETS_SUCCESS), -1);
  scripted_clear_results(SCRIPTED_ANY);
  EXPECT_EQ(scripted_wan_status(QVNETS_SUCCESS), -1);
  EXPECT_EQ(scripted_wan_control(333, "x", 0), -1);
  EXPECT_EQ(scripted_lan_frame(1, 1024, QVTP_RTP, "x", 1), -1);
  InitWAN(wan_cb);
  UnInitWAN();
  EXPECT_EQ(scripted_wan_frame(1030, QVTP_RTP, "x", 1), -1);
  InitWAN(wan_cb);
  EXPECT_EQ(InitLAN(lan_cb, 0, 0, 0), 0);
  EXPECT_EQ(scripted_has_wan_callback() + scripted_has_lan_callback(), 2);
  NetClose();
  EXPECT_EQ(scripted_has_wan_callback() + scripted_has_lan_callback(), 0)
      << "NetClose ends both links";
  EXPECT_TRUE(g_wan.empty() && g_lan.empty());
}

TEST(ScriptedInjection, CallbackMayWriteThroughTheTransport) {
  InitWAN([](uint32_t, uint32_t type, uint32_t size, const void* data) {
    const PacketHeader h = header(0, static_cast<uint16_t>(type));
    NetWrite(&h, data, static_cast<uint16_t>(size));
  });
  ASSERT_EQ(scripted_wan_frame(1030, QVTP_RTP, "ping", 4), 0);
  ASSERT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 1u);
  EXPECT_EQ(Payload(Recorded(SCRIPTED_NET_WRITE, 0)), "ping");
}

TEST(ScriptedWaiting, ReturnsOnceAnotherThreadWroteAndKeepsEachThreadsOrder) {
  std::vector<std::thread> writers;
  for (uint16_t t = 0; t < 4; ++t) {
    writers.emplace_back([t] {
      for (uint32_t i = 0; i < 100; ++i) {
        const PacketHeader h = header(i, QVTP_RTP);
        LANNetWrite(t, &h, &i, sizeof i);
      }
    });
  }
  EXPECT_EQ(scripted_wait_calls(SCRIPTED_LAN_NET_WRITE, 400, 10000), 1);
  for (std::thread& w : writers) w.join();
  std::vector<uint32_t> next(4, 0);
  for (size_t k = 0; k < 400; ++k) {
    const scripted_call c = Recorded(SCRIPTED_LAN_NET_WRITE, k);
    ASSERT_LT(c.peer, 4);
    EXPECT_EQ(c.header.nPipe, next[c.peer]++);
  }
  EXPECT_EQ(scripted_wait_calls(SCRIPTED_LAN_NET_WRITE, 401, 20), 0) << "time limit";
}

TEST(ScriptedReset, ForgetsRecordsScriptsAndCallbacks) {
  const PacketHeader h = header(1, QVTP_RTP);
  NetWrite(&h, "payload", 7);
  AddLANEP(0, 0, 0, 0);
  InitWAN(wan_cb);
  scripted_set_result(SCRIPTED_NET_WRITE, -1);
  char kept[4] = {};
  EXPECT_EQ(scripted_call_copy_data(SCRIPTED_NET_WRITE, 0, kept, sizeof kept), 7)
      << "full size even when cut";
  scripted_reset();
  EXPECT_EQ(std::string(kept, 4), "payl");
  EXPECT_EQ(scripted_call_count(SCRIPTED_ANY), 0u);
  EXPECT_EQ(scripted_call_copy_data(SCRIPTED_NET_WRITE, 0, kept, sizeof kept), -1);
  EXPECT_EQ(scripted_has_wan_callback(), 0);
  EXPECT_EQ(NetWrite(&h, "payload", 7), 7);
  EXPECT_EQ(AddLANEP(0, 0, 0, 0), 1);
}

TEST(ScriptedCApi, HeaderWorksFromC) { EXPECT_EQ(scripted_c_smoke(), 0); }

}  // namespace
