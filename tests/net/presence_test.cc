// Presence without a network: the datagram's layout and what a receiver
// drops (docs/wire.md, section 4), the presence options, and the peer
// table's rules for announcements and time-outs.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>

#include "lan_options.h"
#include "peer_table.h"
#include "wire_codec.h"

namespace {

using namespace arbor::net;
using namespace std::chrono_literals;

Announcement Make(uint64_t instance, const char* text, uint16_t version = 100) {
  Announcement a;
  a.instance = instance;
  a.listen_port = 4100;
  a.version = version;
  a.text = text;
  a.text_size = static_cast<uint16_t>(std::strlen(text));
  return a;
}

TEST(NetPresenceCodec, DatagramRoundTripsBigEndianAtItsOffsets) {
  Announcement a = Make(0x1122334455667788ull, "Name=cam;", 79);
  a.flags = kPresenceFlagBye;
  uint8_t b[kMaxPresenceDatagram];
  const size_t n = presence_encode(a, b);
  ASSERT_EQ(n, kPresenceHeaderSize + 9);
  EXPECT_EQ(std::memcmp(b, "ARBP\x00\x01\x00\x01\x11\x22\x33\x44\x55\x66\x77\x88\x10\x04\x00\x4f"
                           "\x00\x09Name=cam;", n), 0);
  Announcement back;
  ASSERT_EQ(presence_decode(b, n, &back), Verdict::kOk);
  EXPECT_EQ(back.flags, kPresenceFlagBye);
  EXPECT_EQ(back.instance, a.instance);
  EXPECT_EQ(back.listen_port, 4100);
  EXPECT_EQ(back.version, 79);
  EXPECT_EQ(std::string(back.text, back.text_size), "Name=cam;");
  // The largest text fits exactly.
  const std::string full(kMaxPresenceText, 'x');
  a.text = full.data();
  a.text_size = static_cast<uint16_t>(full.size());
  ASSERT_EQ(presence_encode(a, b), kMaxPresenceDatagram);
  EXPECT_EQ(presence_decode(b, kMaxPresenceDatagram, &back), Verdict::kOk);
}

TEST(NetPresenceCodec, DropsEveryDatagramThatBreaksTheLayout) {
  uint8_t good[kMaxPresenceDatagram + 1] = {};
  const size_t n = presence_encode(Make(7, "a=b;"), good);
  Announcement out;
  out.instance = 99;
  uint8_t b[kMaxPresenceDatagram + 1];
  auto with = [&](size_t at, uint8_t value) {
    std::memcpy(b, good, sizeof b);
    b[at] = value;
    return presence_decode(b, n, &out);
  };
  EXPECT_EQ(presence_decode(good, kPresenceHeaderSize - 1, &out), Verdict::kShort);
  EXPECT_EQ(presence_decode(good, n - 1, &out), Verdict::kBadLength) << "truncated text";
  EXPECT_EQ(presence_decode(good, n + 1, &out), Verdict::kBadLength) << "trailing bytes";
  EXPECT_EQ(with(3, '1'), Verdict::kBadMagic) << "a hello is no datagram";
  EXPECT_EQ(with(5, 2), Verdict::kBadVersion);
  std::memcpy(b, good, sizeof b);
  std::memset(b + 8, 0, 8);
  EXPECT_EQ(presence_decode(b, n, &out), Verdict::kBadInstance);
  // A text length over the limit, with as many bytes behind it as it says.
  std::memcpy(b, good, sizeof b);
  b[20] = (kMaxPresenceText + 1) >> 8;
  b[21] = (kMaxPresenceText + 1) & 0xff;
  EXPECT_EQ(presence_decode(b, kMaxPresenceDatagram + 1, &out), Verdict::kBadLength);
  EXPECT_EQ(out.instance, 99u) << "a dropped datagram leaves the output alone";
}

TEST(NetPresenceOptions, OffByDefaultAndReadsEveryKeyWithItsBounds) {
  LanOptions o;
  ASSERT_TRUE(lan_options_parse(nullptr, &o));
  EXPECT_TRUE(o.presence_interface.empty()) << "presence is off unless asked for";
  EXPECT_EQ(o.presence_group, kDefaultPresenceGroup);
  EXPECT_EQ(o.presence_port, kDefaultPresencePort);
  EXPECT_EQ(o.presence_timeout_ms, 3500);
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
  for (const char* bad : {"presence=;", "presence=a;presence_group=10.0.0.1;",
                          "presence=a;presence_group=ff02::1;", "presence=a;presence_port=0;",
                          "presence=a;presence_interval_ms=10;",
                          "presence=a;presence_interval_ms=500;presence_timeout_ms=900;"})
    EXPECT_FALSE(lan_options_parse(bad, &o)) << bad;
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
  const uint16_t third = t.OnAnnouncement(Make(3, "a=3;"), "10.0.0.7", start).id;
  t.OnAnnouncement(Make(3, "a=3;"), "10.0.0.7", start + 900ms);

  EXPECT_TRUE(t.ExpirePresence(start + 1000ms, 1000ms).empty()) << "not yet past the time-out";
  const std::vector<Gone> gone = t.ExpirePresence(start + 1001ms, 1000ms);
  ASSERT_EQ(gone.size(), 2u);
  EXPECT_EQ(t.Find(heard), nullptr) << "presence made it: forgotten";
  ASSERT_NE(t.Find(hand), nullptr) << "added by hand: kept, with its id";
  EXPECT_FALSE(t.Find(hand)->present);
  EXPECT_TRUE(t.ExpirePresence(start + 5000ms, 1000ms, 0).size() == 1) << "the third, later";
  EXPECT_EQ(t.OnAnnouncement(Make(2, "a=2;"), "10.0.0.6", start).status, 1)
      << "back after it was gone: present again";

  const uint16_t fourth = t.OnAnnouncement(Make(4, "a=4;"), "10.0.0.8", start).id;
  const std::vector<Gone> bye = t.ExpirePresence(start, 1000ms, 4);
  ASSERT_EQ(bye.size(), 1u) << "a bye ends only its sender, at once";
  EXPECT_EQ(bye[0].id, fourth);
  EXPECT_NE(t.Find(hand), nullptr);
  (void)third;
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
