// The LAN side (switching, peers' statuses, the road a frame takes by its
// pipe, the presence text, peers added by hand) and the edges of the
// resource announcement.
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "arbor/asc.h"
#include "init/link.h"
#include "link_fixture.h"

namespace link_test {
namespace {

// What the two handlers of the local table were offered.
struct Offer {
  char who;  // 'a': sees all traffic, 'p': the entry of code 100
  uint32_t from;
  int32_t code;
  std::string data;
};
std::mutex offers_mutex;
std::vector<Offer> offers;

int32_t AnyHandler(uint32_t from, int32_t code, const char* data,
                   uint32_t size) {
  std::lock_guard hold(offers_mutex);
  offers.push_back({'a', from, code, std::string(data, size)});
  return 0;
}
int32_t PeerHandler(uint32_t from, uint32_t size, const char* data) {
  std::lock_guard hold(offers_mutex);
  offers.push_back({'p', from, 100, std::string(data, size)});
  return 0;
}
std::vector<Offer> TakeOffers() {
  std::lock_guard hold(offers_mutex);
  std::vector<Offer> taken;
  taken.swap(offers);
  return taken;
}

using Lan = LinkTest;

TEST_F(Lan, SwitchingOffAlwaysUninitsAndAFailedStartStaysOff) {
  EXPECT_EQ(LanNetworking(0, 1, 2, 3), -1);
  ASSERT_EQ(scripted_call_count(SCRIPTED_UNINIT_LAN), 1u);
  const scripted_call off = Recorded(SCRIPTED_UNINIT_LAN, 0);
  EXPECT_EQ(off.words[0], 1);
  EXPECT_EQ(off.words[2], 3);
  EXPECT_EQ(off.lan_callback, &on_lan_callback);

  scripted_push_result(SCRIPTED_INIT_LAN, -5, 1);
  EXPECT_EQ(LanNetworking(1, 4, 5, 6), -5);
  EXPECT_TRUE(log_.HasAt(0, "InitLAN error: -5"));
  EXPECT_EQ(sys_.lan_state.load(), -5);
  EXPECT_EQ(LanNetworking(1, 4, 5, 6), 0);
  EXPECT_EQ(Recorded(SCRIPTED_INIT_LAN, 1).words[1], 5);

  SysRegistASLan_0(0, nullptr, reinterpret_cast<AsHandler>(AnyHandler));
  EXPECT_EQ(LanNetworking(0, 0, 0, 0), -1);
  // A late report finds the LAN off.
  on_lan_callback(12, 100, QVTP_CONTROL, 4, "a=1;");
  EXPECT_TRUE(log_.HasAt(0, "on_lan_callback: lan not avaliable"));
  EXPECT_TRUE(TakeOffers().empty());
}

TEST_F(Lan, StatusesAndFramesTakeTheirRoads) {
  ASSERT_EQ(LanNetworking(1, 0, 0, 0), 0);
  SysRegistASLan_0(200, nullptr, reinterpret_cast<AsHandler>(AnyHandler));
  SysRegistASLan(100, nullptr, reinterpret_cast<AsHandler>(PeerHandler));

  // A lost peer is told to every entry, the size counting the NUL.
  for (uint32_t status : {QVNETS_DISCONNECT, QVNETS_FAIL, QVNETS_UNREACHABLE}) {
    ASSERT_EQ(scripted_lan_status(12, status), 0);
    const std::string text = "MainCmd=LocalData;status=10;QVID=12;ErrorCode=" +
                             std::to_string(status) + ";";
    const std::vector<Offer> got = TakeOffers();
    ASSERT_EQ(got.size(), 2u) << status;
    for (const Offer& offer : got) {
      EXPECT_EQ(offer.from, 12u);
      EXPECT_EQ(offer.data, text + std::string(1, '\0'));
    }
    EXPECT_EQ(got[0].who, 'p');  // the last registered is offered first
    EXPECT_EQ(got[1].code, 0);
  }
  EXPECT_TRUE(log_.HasAt(
      0, "lan-QVNETS: QVNETS_FAIL/QVNETS_DISCONNECT:type=7: qvid=12"));

  ASSERT_EQ(scripted_lan_status(12, QVNETS_SUCCESS), 0);
  EXPECT_TRUE(log_.HasAt(3, "lan-QVNETS: QVNETS_SUCCESS: connect ok."));
  EXPECT_TRUE(TakeOffers().empty());

  // Below 1024 the pipe is the AS code.
  ASSERT_EQ(scripted_lan_frame(5, 100, QVTP_CONTROL, "a=1;", 4), 0);
  std::vector<Offer> got = TakeOffers();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].who, 'p');
  EXPECT_EQ(got[0].from, 5u);
  EXPECT_EQ(got[0].data, "a=1;");
  EXPECT_EQ(got[1].code, 100);
  EXPECT_TRUE(
      log_.Has("on_lan_callback(type=3, from=5, pipe=100, size=4: a=1;)"));
  // From 1024 on it is a session's data pipe.
  ASSERT_EQ(scripted_lan_frame(5, 1024, QVTP_CONTROL, "a=1;", 4), 0);
  EXPECT_TRUE(TakeOffers().empty());
  EXPECT_TRUE(log_.HasAt(0, "rsc_lan_data_incoming(qvid=5, pipe=1024): 3"));
  // Nothing to carry: ignored.
  ASSERT_EQ(scripted_lan_frame(5, 100, QVTP_CONTROL, "", 0), 0);
  ASSERT_EQ(scripted_lan_frame(5, 100, 10, nullptr, 0), 0);
  EXPECT_TRUE(TakeOffers().empty());
}

TEST_F(Lan, PresenceGoesOutInTheOlderEncodingWithThePasswordDigest) {
  const char with_psw[] = "name=cam;Psw=secret;";
  scripted_push_result(SCRIPTED_LAN_REFLASH, 7, 1);
  EXPECT_EQ(LanPresent(with_psw, sizeof with_psw - 1), 7);
  ASSERT_EQ(scripted_call_count(SCRIPTED_LAN_REFLASH), 1u);
  scripted_call call = Recorded(SCRIPTED_LAN_REFLASH, 0);
  EXPECT_EQ(call.size, strlen(call.text) + 1);  // the older encoding counts NUL
  EXPECT_EQ(Keys(call.text, {"name", "Psw"}), std::string("cam|") + kMd5Secret);

  const char plain[] = "name=cam;";
  LanPresent(plain, sizeof plain - 1);
  call = Recorded(SCRIPTED_LAN_REFLASH, 1);
  EXPECT_STREQ(call.text, "name=cam;");
  EXPECT_EQ(call.size, sizeof plain);

  // Not dictionary text, or not writable without escapes: nothing goes out.
  const char garbage[] = "novalue";
  const char escaped[] = "name=a\\;b;";
  EXPECT_EQ(LanPresent(garbage, sizeof garbage - 1), -1);
  EXPECT_EQ(LanPresent(escaped, sizeof escaped - 1), -1);
  EXPECT_EQ(scripted_call_count(SCRIPTED_LAN_REFLASH), 2u);
}

TEST_F(Lan, AddedPeerIsConnectedByTheTransportsId) {
  scripted_push_result(SCRIPTED_ADD_LANEP, 42, 1);
  scripted_push_result(SCRIPTED_ADD_LANEP, -2, 1);
  EXPECT_EQ(SysAddLanEP(1, 2, 3, 4), 42);
  const scripted_call added = Recorded(SCRIPTED_ADD_LANEP, 0);
  EXPECT_EQ(added.words[0], 1);
  EXPECT_EQ(added.words[3], 4);
  EXPECT_EQ(Recorded(SCRIPTED_LAN_CON_REMOTE_HOST_INFO, 0).peer, 42);
  // A failed add goes on all the same; the caller reads the sign.
  EXPECT_EQ(SysAddLanEP(0, 0, 0, 0), -2);
  EXPECT_EQ(Recorded(SCRIPTED_LAN_CON_REMOTE_HOST_INFO, 1).peer, 0xfffe);
}

// Classes for the announcement, in registration order.
const std::string type127(127, 't');
const std::string type128(128, 'T');
const std::string info127 = "Type=" + type127 + ";";
const std::string info128 = "Type=" + type128 + ";";

cdef classes[] = {
    Class([] { return "x=1;"; }, [] { return "n.1"; }),  // no Type
    Class([] { return ""; }, [] { return "n.2"; }),
    Class([] { return "Type=e;"; }, [] { return ""; }),
    Class([] { return "Type=n;"; }, []() -> const char* { return nullptr; }),
    Class([] { return "Type=c;"; }, [] { return "c.1,c=;x,"; }),
    Class([] { return info128.c_str(); }, [] { return "T.1"; }),
    Class([] { return info127.c_str(); }, [] { return "t.1"; }),
};

using Announce = LinkTest;

TEST_F(Announce, ClassesWithoutUsableTypeSendNothingListsGiveOneEachName) {
  for (cdef& cls : classes) SysRegisterDev(&cls);
  ASSERT_EQ(SysLogin("u", "", "", "h", 7000, nullptr), 0);
  ASSERT_EQ(scripted_wan_control(334, "SEQ=0;", 0), 0);
  std::vector<std::string> sent;
  for (const std::string& text : WanTexts(100))
    sent.push_back(Keys(text, {"subResource", "resouce"}));
  const std::string t = type127;
  EXPECT_EQ(sent, (std::vector<std::string>{"e|-", "e|", "n|-", "c|-", "c|c.1",
                                            "c|", t + "|-", t + "|t.1"}));
  // A Type of 128 characters is refused, not cut; a name that would add
  // keys to the message is refused.
  EXPECT_TRUE(log_.HasAt(0, "Type of 128 characters or more"));
  EXPECT_TRUE(log_.HasAt(0, "resource 'c=;x' of c refused"));
}

TEST(MacAddress, LoopbackHasTheZeroAddressAndAnUnknownInterfaceNone) {
  const char* text = get_mac_address("lo");
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, "0:0:0:0:0:0");
  EXPECT_EQ(get_mac_address("no-such-if0"), nullptr);
  EXPECT_EQ(get_mac_address(nullptr), nullptr);
}

}  // namespace
}  // namespace link_test
