// Without a network: the wire's layouts and what a receiver refuses
// (docs/wire.md), the option text of InitLAN, and the peer table's ids and
// its rules for announcements and time-outs.
#include "wire_codec.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>

#include "lan_options.h"
#include "peer_table.h"

namespace {

using namespace arbor::net;
using namespace std::chrono_literals;

TEST(NetWireCodec, HelloRoundTripsBigEndianAndRefusesWhatBreaksIt) {
  Hello h;
  h.flags = 0x0102;
  h.instance = 0x1122334455667788ull;
  h.listen_port = 0xabcd;
  h.version = 79;
  uint8_t good[kHelloSize];
  hello_encode(h, good);
  EXPECT_EQ(std::memcmp(good, "ARB1\x00\x01\x01\x02\x11\x22\x33\x44\x55\x66\x77\x88\xab\xcd\x00\x4f",
                        kHelloSize), 0);
  Hello back;
  ASSERT_EQ(hello_decode(good, sizeof good, &back), Verdict::kOk);
  EXPECT_EQ(back.flags, h.flags);
  EXPECT_EQ(back.instance, h.instance);
  EXPECT_EQ(back.listen_port, h.listen_port);
  EXPECT_EQ(back.version, h.version);

  Hello out;
  out.instance = 99;
  auto with = [&](size_t at, uint8_t value) {
    uint8_t b[kHelloSize];
    std::memcpy(b, good, sizeof b);
    b[at] = value;
    return hello_decode(b, sizeof b, &out);
  };
  EXPECT_EQ(hello_decode(good, kHelloSize - 1, &out), Verdict::kShort);
  EXPECT_EQ(with(3, '2'), Verdict::kBadMagic);
  EXPECT_EQ(with(5, 2), Verdict::kBadVersion);
  h.instance = 0;
  hello_encode(h, good);
  EXPECT_EQ(hello_decode(good, sizeof good, &out), Verdict::kBadInstance);
  EXPECT_EQ(out.instance, 99u) << "a refused hello leaves the output alone";
}

TEST(NetWireCodec, FrameHeaderRoundTripsAndRefusesUnknownTypesAndShortInput) {
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

  for (uint16_t type : {0, 2, 6, 7, 9, 0xffff}) {
    f.type = type;
    frame_header_encode(f, b);
    EXPECT_EQ(frame_header_decode(b, sizeof b, &back), Verdict::kBadType) << type;
  }
  EXPECT_EQ(frame_header_decode(b, 3, &back), Verdict::kShort);
  // The moved notice is the transport's own: decoded, never the engine's.
  uint8_t moved[kFrameHeaderSize] = {0, 0, 0, 0, 0, 0, 0, 0, 0, kFrameTypeMoved, 0, 0};
  EXPECT_EQ(frame_header_decode(moved, sizeof moved, &back), Verdict::kOk);
  EXPECT_FALSE(frame_type_valid(kFrameTypeMoved));
}

Announcement Make(uint64_t instance, const char* text, uint16_t version = 100) {
  Announcement a;
  a.instance = instance;
  a.listen_port = 4100;
  a.version = version;
  a.text = text;
  a.text_size = static_cast<uint16_t>(std::strlen(text));
  return a;
}

TEST(NetPresenceCodec, DatagramRoundTripsAtItsOffsetsAndEveryBrokenLayoutIsDropped) {
  Announcement a = Make(0x1122334455667788ull, "Name=cam;", 79);
  a.flags = kPresenceFlagBye;
  uint8_t good[kMaxPresenceDatagram + 1] = {};
  const size_t n = presence_encode(a, good);
  ASSERT_EQ(n, kPresenceHeaderSize + 9);
  EXPECT_EQ(std::memcmp(good, "ARBP\x00\x01\x00\x01\x11\x22\x33\x44\x55\x66\x77\x88\x10\x04\x00\x4f"
                              "\x00\x09Name=cam;", n), 0);
  Announcement back;
  ASSERT_EQ(presence_decode(good, n, &back), Verdict::kOk);
  EXPECT_EQ(back.flags, kPresenceFlagBye);
  EXPECT_EQ(back.instance, a.instance);
  EXPECT_EQ(back.listen_port, 4100);
  EXPECT_EQ(back.version, 79);
  EXPECT_EQ(std::string(back.text, back.text_size), "Name=cam;");
  // The largest text fits exactly.
  const std::string full(kMaxPresenceText, 'x');
  Announcement largest = Make(7, full.c_str());
  uint8_t b[kMaxPresenceDatagram + 1];
  ASSERT_EQ(presence_encode(largest, b), kMaxPresenceDatagram);
  EXPECT_EQ(presence_decode(b, kMaxPresenceDatagram, &back), Verdict::kOk);

  Announcement out;
  out.instance = 99;
  auto with = [&](size_t at, size_t count, uint8_t value) {
    std::memcpy(b, good, sizeof b);
    std::memset(b + at, value, count);
    return presence_decode(b, n, &out);
  };
  EXPECT_EQ(presence_decode(good, kPresenceHeaderSize - 1, &out), Verdict::kShort);
  EXPECT_EQ(presence_decode(good, n - 1, &out), Verdict::kBadLength) << "truncated text";
  EXPECT_EQ(presence_decode(good, n + 1, &out), Verdict::kBadLength) << "trailing bytes";
  EXPECT_EQ(with(3, 1, '1'), Verdict::kBadMagic) << "a hello is no datagram";
  EXPECT_EQ(with(5, 1, 2), Verdict::kBadVersion);
  EXPECT_EQ(with(8, 8, 0), Verdict::kBadInstance);
  // A text length over the limit, with as many bytes behind it as it says.
  std::memcpy(b, good, sizeof b);
  b[20] = (kMaxPresenceText + 1) >> 8;
  b[21] = (kMaxPresenceText + 1) & 0xff;
  EXPECT_EQ(presence_decode(b, kMaxPresenceDatagram + 1, &out), Verdict::kBadLength);
  EXPECT_EQ(out.instance, 99u) << "a dropped datagram leaves the output alone";
}

TEST(NetLanOptions, ReadsEveryKeyRefusesOutOfRangeOnesAndPresenceIsOffByDefault) {
  LanOptions o;
  ASSERT_TRUE(lan_options_parse("", &o));
  ASSERT_TRUE(lan_options_parse(nullptr, &o));
  EXPECT_TRUE(o.presence_interface.empty()) << "presence is off unless asked for";
  ASSERT_TRUE(lan_options_parse(
      "listen=127.0.0.1;port=4100;io_threads=3;budget=100000;version=79;peer_timeout_ms=500;", &o));
  EXPECT_EQ(o.listen, "127.0.0.1");
  EXPECT_EQ(o.port, 4100);
  EXPECT_EQ(o.io_threads, 3);
  EXPECT_EQ(o.budget, 100000u);
  EXPECT_EQ(o.version, 79);
  EXPECT_EQ(o.peer_timeout_ms, 500);
  ASSERT_TRUE(lan_options_parse("key=12345678;", &o)) << "8 characters is the shortest key";
  EXPECT_EQ(o.key, "12345678");
  ASSERT_TRUE(lan_options_parse("presence=eth0;presence_group=239.255.1.2;presence_port=5000;"
                                "presence_interval_ms=200;", &o));
  EXPECT_EQ(o.presence_interface, "eth0");
  EXPECT_EQ(o.presence_group, "239.255.1.2");
  EXPECT_EQ(o.presence_port, 5000);
  EXPECT_EQ(o.presence_interval_ms, 200);
  EXPECT_EQ(o.presence_timeout_ms, 3 * 200 + kPresenceTimeoutMarginMs)
      << "the time-out follows the interval";
  ASSERT_TRUE(lan_options_parse("presence=10.0.0.1;presence_interval_ms=300;presence_timeout_ms=900;", &o));
  EXPECT_EQ(o.presence_timeout_ms, 900);
  for (const char* bad : {"port=70000;", "port=x;", "io_threads=0;", "budget=1000;",
                          "peer_timeout_ms=-1;", "key=secret;", "port=1", "presence=;",
                          "presence=a;presence_group=10.0.0.1;", "presence=a;presence_group=ff02::1;",
                          "presence=a;presence_port=0;", "presence=a;presence_interval_ms=10;",
                          "presence=a;presence_interval_ms=500;presence_timeout_ms=900;"})
    EXPECT_FALSE(lan_options_parse(bad, &o)) << bad;
}

TEST(NetPeerTable, IdsAreRoundRobinNeverZeroSkipIdsInUseAndStopAtMaxPeers) {
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
  while (t.all().size() < kMaxPeers) ASSERT_NE(t.Add("h", 1), nullptr);
  EXPECT_EQ(t.Add("h", 2), nullptr);
}

TEST(NetPresenceTable, NewPeerIsStatus1ChangedTextStatus2AndTheSameNothing) {
  PeerTable t;
  const auto now = std::chrono::steady_clock::now();
  Heard h = t.OnAnnouncement(Make(42, "Name=cam;"), "10.0.0.5", now);
  EXPECT_EQ(h.status, 1);
  ASSERT_NE(h.id, 0);
  EXPECT_EQ(h.host, "10.0.0.5");
  Peer* p = t.Find(h.id);
  EXPECT_EQ(p->found, Found::kPresence);
  EXPECT_EQ(p->port, 4100) << "dialled at the source address and the advertised port";
  EXPECT_EQ(p->instance, 42u);
  EXPECT_EQ(t.OnAnnouncement(Make(42, "Name=cam;"), "10.0.0.5", now).status, -1);
  // The engine's text comes with its NUL: the same text.
  EXPECT_EQ(t.OnAnnouncement(Make(42, "Name=cam;\0", 100), "10.0.0.5", now).status, -1);
  Heard changed = t.OnAnnouncement(Make(42, "Name=door;"), "10.0.0.5", now);
  EXPECT_EQ(changed.status, 2);
  EXPECT_EQ(changed.id, h.id) << "the id stays with the instance";
  EXPECT_EQ(t.OnAnnouncement(Make(42, "Name=door;", 79), "10.0.0.5", now).status, 2)
      << "a new version is a change too";
  EXPECT_EQ(t.Find(h.id)->presence_text, "Name=door;");
}

TEST(NetPresenceTable, SilentOrLeavingPeersAreGoneAndOnlyPresenceEntriesForgotten) {
  PeerTable t;
  const auto start = std::chrono::steady_clock::now();
  Peer* by_hand = t.Add("10.0.0.6", 4100);  // same address and port: the same peer
  const uint16_t heard = t.OnAnnouncement(Make(1, "a=1;"), "10.0.0.5", start).id;
  const uint16_t hand = t.OnAnnouncement(Make(2, "a=2;"), "10.0.0.6", start).id;
  EXPECT_EQ(hand, by_hand->id);
  t.OnAnnouncement(Make(3, "a=3;"), "10.0.0.7", start);
  t.OnAnnouncement(Make(3, "a=3;"), "10.0.0.7", start + 900ms);

  EXPECT_TRUE(t.ExpirePresence(start + 1000ms, 1000ms).empty()) << "not yet past the time-out";
  ASSERT_EQ(t.ExpirePresence(start + 1001ms, 1000ms).size(), 2u);
  EXPECT_EQ(t.Find(heard), nullptr) << "presence made it: forgotten";
  ASSERT_NE(t.Find(hand), nullptr) << "added by hand: kept, with its id";
  EXPECT_FALSE(t.Find(hand)->present);
  EXPECT_EQ(t.ExpirePresence(start + 5000ms, 1000ms, 0).size(), 1u) << "the third, later";
  EXPECT_EQ(t.OnAnnouncement(Make(2, "a=2;"), "10.0.0.6", start).status, 1)
      << "back after it was gone: present again";

  const uint16_t fourth = t.OnAnnouncement(Make(4, "a=4;"), "10.0.0.8", start).id;
  const std::vector<Gone> bye = t.ExpirePresence(start, 1000ms, 4);
  ASSERT_EQ(bye.size(), 1u) << "a bye ends only its sender, at once";
  EXPECT_EQ(bye[0].id, fourth);
  EXPECT_NE(t.Find(hand), nullptr);
}

// On a keyed LAN a peer whose link proved the key outlives datagrams that
// say it left (anyone can send those); one without a link does not.
TEST(NetPresenceTable, DatagramsNeverEndALinkOfAKeyedLan) {
  PeerTable t;
  const auto start = std::chrono::steady_clock::now();
  const uint16_t linked = t.OnAnnouncement(Make(5, "a=5;"), "10.0.0.9", start).id;
  const uint16_t unlinked = t.OnAnnouncement(Make(6, "a=6;"), "10.0.0.10", start).id;
  // The table only asks whether a link is there: a stand-in pointer will do.
  static int stand_in;
  t.Find(linked)->link = std::shared_ptr<arbor::net::Connection>(
      std::shared_ptr<void>(), reinterpret_cast<arbor::net::Connection*>(&stand_in));
  EXPECT_TRUE(t.ExpirePresence(start, 1000ms, 5, true).empty()) << "a forged bye";
  const std::vector<Gone> gone = t.ExpirePresence(start + 5000ms, 1000ms, 0, true);
  ASSERT_EQ(gone.size(), 1u);
  EXPECT_EQ(gone[0].id, unlinked);
  EXPECT_NE(t.Find(linked)->link, nullptr);
  t.Find(linked)->link.reset();
}

}  // namespace
