// The wire's layouts and what a receiver refuses (docs/wire.md), the option
// text of InitLAN, and the round-robin ids of the peer table. No sockets.
#include "wire_codec.h"

#include <gtest/gtest.h>

#include <cstring>

#include "lan_options.h"
#include "peer_table.h"

namespace {

using namespace arbor::net;

TEST(NetWireCodec, HelloRoundTripsBigEndianAtItsOffsets) {
  Hello h;
  h.flags = 0x0102;
  h.instance = 0x1122334455667788ull;
  h.listen_port = 0xabcd;
  h.version = 79;
  uint8_t b[kHelloSize];
  hello_encode(h, b);
  EXPECT_EQ(std::memcmp(b, "ARB1\x00\x01\x01\x02\x11\x22\x33\x44\x55\x66\x77\x88\xab\xcd\x00\x4f",
                        kHelloSize), 0);
  Hello back;
  ASSERT_EQ(hello_decode(b, sizeof b, &back), Verdict::kOk);
  EXPECT_EQ(back.flags, h.flags);
  EXPECT_EQ(back.instance, h.instance);
  EXPECT_EQ(back.listen_port, h.listen_port);
  EXPECT_EQ(back.version, h.version);
}

TEST(NetWireCodec, HelloRefusesBadMagicUnknownVersionZeroInstanceAndShortInput) {
  Hello h;
  h.instance = 7;
  uint8_t good[kHelloSize];
  hello_encode(h, good);
  Hello out;
  out.instance = 99;
  EXPECT_EQ(hello_decode(good, kHelloSize - 1, &out), Verdict::kShort);
  uint8_t b[kHelloSize];
  std::memcpy(b, good, sizeof b);
  b[3] = '2';
  EXPECT_EQ(hello_decode(b, sizeof b, &out), Verdict::kBadMagic);
  std::memcpy(b, good, sizeof b);
  b[5] = 2;
  EXPECT_EQ(hello_decode(b, sizeof b, &out), Verdict::kBadVersion);
  h.instance = 0;
  hello_encode(h, b);
  EXPECT_EQ(hello_decode(b, sizeof b, &out), Verdict::kBadInstance);
  EXPECT_EQ(out.instance, 99u) << "a refused hello leaves the output alone";
}

TEST(NetWireCodec, FrameHeaderRoundTripsEveryFieldAndTheLargestLength) {
  FrameHeader f;
  f.length = 65535;
  f.boat = 0x0012;
  f.pipe = 0x01020304;
  f.type = 5;
  f.level = 0x0034;
  uint8_t b[kFrameHeaderSize];
  frame_header_encode(f, b);
  EXPECT_EQ(std::memcmp(b, "\xff\xff\x00\x12\x01\x02\x03\x04\x00\x05\x00\x34", sizeof b), 0);
  FrameHeader back;
  ASSERT_EQ(frame_header_decode(b, sizeof b, &back), Verdict::kOk);
  EXPECT_EQ(back.length, 65535);
  EXPECT_EQ(back.boat, 0x12);
  EXPECT_EQ(back.pipe, 0x01020304u);
  EXPECT_EQ(back.type, 5);
  EXPECT_EQ(back.level, 0x34);
  static_assert(kMaxFrame == 12 + 65535, "one read buffer holds the largest frame");
}

TEST(NetWireCodec, FrameHeaderRefusesUnknownTypesAndShortInput) {
  for (uint16_t type : {0, 2, 6, 7, 9, 0xffff}) {
    FrameHeader f;
    f.type = type;
    uint8_t b[kFrameHeaderSize];
    frame_header_encode(f, b);
    FrameHeader back;
    EXPECT_EQ(frame_header_decode(b, sizeof b, &back), Verdict::kBadType) << type;
  }
  FrameHeader back;
  EXPECT_EQ(frame_header_decode(reinterpret_cast<const uint8_t*>("\0\0\0"), 3, &back),
            Verdict::kShort);
  // The moved notice is the transport's own: decoded, never the engine's.
  uint8_t moved[kFrameHeaderSize] = {0, 0, 0, 0, 0, 0, 0, 0, 0, kFrameTypeMoved, 0, 0};
  EXPECT_EQ(frame_header_decode(moved, sizeof moved, &back), Verdict::kOk);
  EXPECT_FALSE(frame_type_valid(kFrameTypeMoved));
}

TEST(NetLanOptions, DefaultsForNullAndEmptyText) {
  LanOptions o;
  ASSERT_TRUE(lan_options_parse(nullptr, &o));
  EXPECT_EQ(o.listen, "0.0.0.0");
  EXPECT_EQ(o.port, 0);
  EXPECT_EQ(o.io_threads, 1);
  EXPECT_EQ(o.budget, kDefaultBudget);
  EXPECT_EQ(o.version, 100);
  EXPECT_EQ(o.peer_timeout_ms, kDefaultPeerTimeoutMs);
  ASSERT_TRUE(lan_options_parse("", &o));
}

TEST(NetLanOptions, ReadsEveryKeyAndRefusesOutOfRangeOrUnbuiltOnes) {
  LanOptions o;
  ASSERT_TRUE(lan_options_parse(
      "listen=127.0.0.1;port=4100;io_threads=3;budget=100000;version=79;peer_timeout_ms=500;", &o));
  EXPECT_EQ(o.listen, "127.0.0.1");
  EXPECT_EQ(o.port, 4100);
  EXPECT_EQ(o.io_threads, 3);
  EXPECT_EQ(o.budget, 100000u);
  EXPECT_EQ(o.version, 79);
  EXPECT_EQ(o.peer_timeout_ms, 500);
  for (const char* bad : {"port=70000;", "port=x;", "io_threads=0;", "budget=1000;",
                          "peer_timeout_ms=-1;", "key=secret;", "port=1"})
    EXPECT_FALSE(lan_options_parse(bad, &o)) << bad;
  ASSERT_TRUE(lan_options_parse("key=12345678;", &o)) << "8 characters is the shortest key";
  EXPECT_EQ(o.key, "12345678");
}

TEST(NetPeerTable, IdsAreRoundRobinNeverZeroAndSkipIdsInUse) {
  PeerTable t;
  EXPECT_EQ(t.Add("a", 1)->id, 1);
  EXPECT_EQ(t.Add("b", 1)->id, 2);
  EXPECT_EQ(t.FindByAddress("b", 1)->id, 2);
  EXPECT_EQ(t.FindByAddress("b", 2), nullptr);
  t.all().erase(1);
  EXPECT_EQ(t.Add("c", 1)->id, 3) << "a freed id comes back as late as possible";
  for (int id = 4; id <= 65535; ++id) {
    Peer* p = t.Add("x", 1);
    ASSERT_EQ(p->id, id);
    t.all().erase(p->id);
  }
  EXPECT_EQ(t.Add("d", 1)->id, 1) << "after 65535 comes 1, never 0";
  EXPECT_EQ(t.Add("e", 1)->id, 4) << "2 and 3 are in use";
}

TEST(NetPeerTable, HoldsAtMostMaxPeers) {
  PeerTable t;
  for (size_t i = 0; i < kMaxPeers; ++i) ASSERT_NE(t.Add("h", 1), nullptr);
  EXPECT_EQ(t.Add("h", 2), nullptr);
}

}  // namespace
