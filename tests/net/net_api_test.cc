// The C functions of libarbor-net.so over its one process-wide instance:
// option errors, the LAN's start and stop, a peer that is this transport
// itself, and the WAN functions that are not built yet.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "arbor/net.h"
#include "arbor/transport.h"

extern "C" int net_c_smoke(void);

namespace {

std::mutex g_mutex;
std::condition_variable g_changed;
std::vector<uint32_t> g_statuses;  // "from * 100 + type" of each status

void lan_cb(uint32_t from, uint32_t pipe, uint32_t type, uint32_t size, const void*) {
  if (pipe != 0 || size != 0) return;
  std::lock_guard hold(g_mutex);
  g_statuses.push_back(from * 100 + type);
  g_changed.notify_all();
}

bool WaitStatus(uint32_t code) {
  std::unique_lock hold(g_mutex);
  return g_changed.wait_for(hold, std::chrono::seconds(20), [code] {
    for (uint32_t s : g_statuses)
      if (s == code) return true;
    return false;
  });
}

intptr_t Word(const char* text) { return reinterpret_cast<intptr_t>(text); }

TEST(NetApi, LanStartsFromOptionTextAndStopsWithoutItsArguments) {
  ASSERT_EQ(NetOpen(), 0);
  EXPECT_EQ(net_c_smoke(), 0);
  EXPECT_EQ(arbor_net_lan_port(), -1);
  EXPECT_LT(InitLAN(lan_cb, Word("port=99999;"), 0, 0), 0);
  EXPECT_LT(InitLAN(lan_cb, Word("key=s3cret;"), 0, 0), 0) << "a key too short to trust";
  EXPECT_LT(InitLAN(lan_cb, Word("presence=no-such-if0;"), 0, 0), 0)
      << "presence on an interface this host does not have";
  EXPECT_LT(AddLANEP(Word("127.0.0.1"), 4000, 0, 0), 0) << "the LAN is off";
  ASSERT_EQ(InitLAN(lan_cb, Word("listen=127.0.0.1;io_threads=2;"), 0, 0), 0);
  const int32_t port = arbor_net_lan_port();
  ASSERT_GT(port, 0);
  EXPECT_EQ(InitLAN(lan_cb, 0, 0, 0), 0) << "switching on twice keeps the LAN on";
  EXPECT_EQ(arbor_net_lan_port(), port);

  EXPECT_LT(AddLANEP(0, 4000, 0, 0), 0);
  EXPECT_LT(AddLANEP(Word("127.0.0.1"), 0, 0, 0), 0);
  const int32_t self = AddLANEP(Word("127.0.0.1"), port, 0, 0);
  ASSERT_GT(self, 0);
  ASSERT_EQ(LANConRemoteHostInfo(static_cast<uint16_t>(self)), 0);
  EXPECT_TRUE(WaitStatus(static_cast<uint32_t>(self) * 100 + QVNETS_FAIL))
      << "a connection to this transport itself fails";
  uint16_t ids[4];
  EXPECT_EQ(arbor_net_peers(ids, 4), 1) << "the accepting side never made it a peer";
  EXPECT_EQ(ids[0], self);
  const PacketHeader h{0, 0, 100, QVTP_CONTROL, 0};
  EXPECT_LT(LANNetWrite(static_cast<uint16_t>(self), &h, "k=v;", 4), 0) << "not connected";
  EXPECT_EQ(LANReFlash("Name=cam;", 9), 0);
  EXPECT_EQ(arbor_net_presence_dropped(), -1) << "presence is off without presence=";
  char text[16];
  EXPECT_EQ(arbor_net_peer_presence(static_cast<uint16_t>(self), text, sizeof text), 0);
  EXPECT_STREQ(text, "");
  arbor_net_peer_info info{};
  ASSERT_EQ(arbor_net_peer_stats(static_cast<uint16_t>(self), &info), 0);
  EXPECT_EQ(info.found, ARBOR_NET_FOUND_ADDED);
  EXPECT_EQ(info.present, 0);

  EXPECT_LT(InitWAN(nullptr), 0);
  EXPECT_LT(ConRemoteHostInfo(nullptr), 0);
  EXPECT_EQ(UnInitLAN(nullptr, 0, 0, 0), 0);
  EXPECT_EQ(arbor_net_lan_port(), -1);
  EXPECT_EQ(NetClose(), 0);
}

}  // namespace
