// The link to the service (sign-in, refusals, stale replies and the
// time-out, link failures, sign-out, account commands) and the LAN side
// (switching, statuses, frames' roads, presence, added peers, announcement),
// over the scripted transport with a recording host callback.
#include "init/link.h"


#include <chrono>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <thread>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/sys.h"
#include "arbor/timedq.h"
#include "init/sys_state.h"
#include "test_helpers.h"

namespace {

// MD5 digests (32 lower-case hex digits) of the passwords the cases use.
constexpr char kMd5Pw[] = "8fe4c11451281c094a6578e6ddbf5eed";
constexpr char kMd5Secret[] = "5ebe2294ecd0e0f08eab7690d2a6ee69";
constexpr char kMd5Old[] = "149603e6c03516362a8da23f624db945";
constexpr char kMd5New[] = "22af645d1859cb5ca6da0c484f1f37ea";

// Each call of the host callback, with the thread that made it.
struct HostCall {
  int32_t code;
  bool has_text;
  std::string text;
  std::thread::id thread;
};
std::mutex host_mutex;
std::vector<HostCall> host_calls;
void HostCallback(int32_t code, const char* text, int32_t length) {
  std::lock_guard hold(host_mutex);
  host_calls.push_back(
      {code, text != nullptr,
       text != nullptr ? std::string(text, static_cast<size_t>(length)) : "",
       std::this_thread::get_id()});
}
std::vector<HostCall> HostCalls() {
  std::lock_guard hold(host_mutex);
  return host_calls;
}
// Waits up to 10 s for the n-th call with code; a failure and code -1 when
// it did not come.
HostCall AwaitHost(int32_t code, size_t n = 1) {
  HostCall found{-1, false, "", {}};
  const bool came = WaitFor([&] {
    size_t seen = 0;
    for (const HostCall& call : HostCalls())
      if (call.code == code && ++seen == n) found = call;
    return found.code != -1;
  });
  EXPECT_TRUE(came) << "no host call " << code << " #" << n;
  return found;
}

// Returns once the worker has run every job posted before with delay 0.
void DrainWorker() {
  ASSERT_NE(tq_send(
                timedq_, 0, [](int32_t, uintptr_t, int32_t, char**) {}, 0,
                static_cast<const char*>(nullptr)),
            nullptr);
}

// The values of keys in a dictionary text, joined by '|'; "-" for an
// absent key.
std::string Keys(const std::string& text,
                 std::initializer_list<const char*> keys) {
  std::string out;
  for (const char* key : keys) {
    const std::string value = Key(text, key);
    out += (out.empty() ? "" : "|") + (value == "<none>" ? "-" : value);
  }
  return out;
}

// How often text was logged.
size_t Lines(LogCapture& log, const std::string& text) {
  const std::string all = log.Dump();
  size_t n = 0;
  for (size_t at = all.find(text); at != std::string::npos;
       at = all.find(text, at + 1))
    ++n;
  return n;
}

// A driver class that only describes itself.
cdef Class(const char* (*info)(), const char* (*list)()) {
  cdef cls{};
  cls.SetCallback = [](DeviceCallback) { return 0; };
  cls.GetObjectInfo = info;
  cls.Retrieve = list;
  return cls;
}

// The library running with the recording host callback.
class LinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(SysInit(&HostCallback), 0);
    seq_ = sys_.login_seq.load();
  }
  void TearDown() override {
    SysExit();
    if (HasFailure()) std::fputs(log_.Dump().c_str(), stderr);
  }
  // The "SEQ" of the n-th sign-in attempt of this case.
  std::string Seq(uint32_t n) const { return std::to_string(seq_ + n); }

  LogCapture log_{3};
  uint32_t seq_ = 0;
};

// ------------------------------------------------------------- sign-in

// One row of a sign-in reply: dictionary text nested as a value.
std::string Row(int type, int code, const std::string& name) {
  return "AsType\\=" + std::to_string(type) +
         "\\;AsCode\\=" + std::to_string(code) + "\\;AsName\\=" + name + "\\;";
}

// The line of the command that ends every session over the WAN, written
// when it is queued.
constexpr char kCleanWan[] = "q: Tree_cleanup_drv";

cdef cam = Class([] { return "Type=cam;x=1;"; }, [] { return "cam.1,cam.2"; });

using SignIn = LinkTest;

TEST_F(SignIn, WholeSignInConnectsSendsTextNamesRowsReportsAndAnnounces) {
  SysRegisterDev(&cam);
  SysVer("2.5", "ipc");
  scripted_push_result(SCRIPTED_CON_REMOTE_HOST_INFO, 5, 1);
  EXPECT_EQ(SysLogin("u", "pw", "k=v;", "host", 7000, "Protocol=TCP;"), 5);
  EXPECT_EQ(Recorded(SCRIPTED_CON_REMOTE_HOST_INFO, 0).protocol,
            QV_PROTOCOL_TCP);

  // Connected: code 6 at once, on the thread that plays the transport.
  ASSERT_EQ(scripted_wan_status(QVNETS_SUCCESS), 0);
  const HostCall up = AwaitHost(ARBOR_HOST_LINK_UP);
  EXPECT_EQ(up.thread, std::this_thread::get_id());
  EXPECT_FALSE(up.has_text);
  ASSERT_TRUE(scripted_wait_calls(SCRIPTED_NET_WRITE, 1, 10000));
  ASSERT_EQ(WanTexts(333).size(), 1u);
  EXPECT_EQ(
      Keys(WanTexts(333)[0], {"userType", "verNum", "id", "SEQ", "Psw", "k"}),
      "ipc|2.5|u|" + Seq(1) + "|" + kMd5Pw + "|v");

  // Accepted: a row with AsCode 0 is skipped, rows behind it still read, a
  // gap in the numbers ends the list.
  const std::string reply = "SEQ=" + Seq(1) + ";ValueN0=" + Row(5, 77, "svc") +
                            ";ValueN1=" + Row(6, 0, "zero") +
                            ";ValueN2=" + Row(7, 78, "after") +
                            ";ValueN4=" + Row(8, 79, "gap") + ";";
  ASSERT_EQ(scripted_wan_control(334, reply.c_str(), 1), 0);
  const ServiceRow* row = asc_get_byname("svc");
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->AsType * 1000 + row->AsCode, 5077);
  EXPECT_NE(asc_get_byname("after"), nullptr);
  EXPECT_EQ(asc_get_byname("zero"), asc_get_byname("gap"));  // both absent
  const HostCall ok = AwaitHost(ARBOR_HOST_OK);
  EXPECT_NE(ok.thread, std::this_thread::get_id());
  EXPECT_EQ(ok.text, reply);  // the frame's NUL is not counted
  // Announced before the injection returned: the class, then each name.
  const std::vector<std::string> announced = WanTexts(100);
  ASSERT_EQ(announced.size(), 3u);
  EXPECT_EQ(Keys(announced[0], {"MainCmd", "event", "subResource", "x"}),
            "17|eventResOnline|cam|1");
}

// Each refusal returns -3 with a line and starts nothing; the rows beside
// them are the accepted edges.
TEST_F(SignIn, RefusedCallsReturnMinus3WithLineAndStartNothing) {
  const std::string host256(256, 'h'), host255(255, 'h');
  const std::string big_params = "p=" + std::string(200, 'x') + ";";
  // clang-format off
  struct {
    const char *host, *params;
    int32_t port;
  } cases[] = {
      {"", "", 7000}, {nullptr, "", 7000}, {host256.c_str(), "", 7000},
      {"h", "", -1}, {"h", "", 65535}, {"h", "novalue", 7000},
      {"h", big_params.c_str(), 7000}};
  // clang-format on
  for (const auto& c : cases) {
    LogCapture lines(0);
    EXPECT_EQ(SysLogin("u", "pw", c.params, c.host, c.port, nullptr), -3)
        << c.port << " " << c.params;
    EXPECT_TRUE(lines.HasAt(0, "SysLogin"));
  }
  // The WAN is up, but nothing was connected or posted.
  EXPECT_EQ(scripted_call_count(SCRIPTED_INIT_WAN), 1u);
  EXPECT_EQ(scripted_call_count(SCRIPTED_CON_REMOTE_HOST_INFO), 0u);
  DrainWorker();
  EXPECT_EQ(sys_.login_seq.load(), seq_);

  // Only an exact "Protocol=TCP" picks TCP; an empty password sends no Psw.
  EXPECT_EQ(SysLogin("u", "", "", host255.c_str(), 65534, "Protocol=tcp;"), 0);
  EXPECT_EQ(SysLogin("u", nullptr, nullptr, "h", 0, "Protocol"), 0);
  const scripted_call first = Recorded(SCRIPTED_CON_REMOTE_HOST_INFO, 0);
  EXPECT_EQ(first.host + (":" + std::to_string(first.port)),
            host255 + ":65534");
  for (size_t i : {0u, 1u})
    EXPECT_EQ(Recorded(SCRIPTED_CON_REMOTE_HOST_INFO, i).protocol,
              QV_PROTOCOL_DEFAULT);
  DrainWorker();
  scripted_wan_status(QVNETS_SUCCESS);
  ASSERT_TRUE(scripted_wait_calls(SCRIPTED_NET_WRITE, 1, 10000));
  EXPECT_EQ(Keys(WanTexts(333).at(0), {"id", "SEQ", "Psw"}),
            "u|" + Seq(2) + "|-");
}

TEST_F(SignIn, RefusalReachesHostOnlyWithDefinedCodesDataPipesNever) {
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  for (int code : {1, 2, 3, 8, 10, 0, 11}) {
    const std::string text = "errorcod=" + std::to_string(code) + ";SEQ=9;";
    ASSERT_EQ(scripted_wan_control(335, text.c_str(), 1), 0);
  }
  // A status on a data pipe is a session's frame, and a frame shorter
  // than its AS code is nothing: neither reaches the host.
  ASSERT_EQ(scripted_wan_frame(5, QVNETS_SUCCESS, "x", 1), 0);
  ASSERT_EQ(scripted_wan_frame(5, QVNETS_FAIL, "x", 1), 0);
  ASSERT_EQ(scripted_wan_frame(0, QVTP_CONTROL, "\x4f", 1), 0);
  EXPECT_EQ(sys_.wan_state.load(), QVNETS_DISCONNECT);
  DrainWorker();
  std::string codes;
  for (const HostCall& call : HostCalls()) {
    codes += std::to_string(call.code) + " ";
    EXPECT_EQ(call.thread, std::this_thread::get_id());
    // The length stops at the NUL the frame carried.
    EXPECT_EQ(call.text, "errorcod=" + std::to_string(call.code) + ";SEQ=9;");
  }
  EXPECT_EQ(codes, "1 2 8 10 ");
}

TEST_F(SignIn, StaleReplyNamesRowsButIsSilentAndOnlyNewestAttemptTimesOut) {
  SysRegisterDev(&cam);
  sys_test_set_login_timeout(300);
  ASSERT_EQ(SysLogin("first", "", "", "h", 7000, nullptr), 0);
  ASSERT_EQ(SysLogin("second", "", "", "h", 7000, nullptr), 0);
  EXPECT_EQ(scripted_call_count(SCRIPTED_INIT_WAN), 1u);
  DrainWorker();
  const std::string stale =
      "SEQ=" + Seq(1) + ";ValueN0=" + Row(5, 90, "old") + ";";
  ASSERT_EQ(scripted_wan_control(334, stale.c_str(), 0), 0);
  EXPECT_NE(asc_get_byname("old"), nullptr);
  EXPECT_EQ(WanTexts(100).size(), 3u);  // announced all the same

  const HostCall timeout = AwaitHost(ARBOR_HOST_SIGNIN_TIMEOUT);
  EXPECT_NE(timeout.thread, std::this_thread::get_id());
  EXPECT_EQ(Keys(timeout.text, {"id", "SEQ"}), "second|" + Seq(2));
  // The first attempt's entry was due earlier and has run, silent.
  DrainWorker();
  EXPECT_EQ(HostCalls().size(), 1u);
}

TEST_F(SignIn, FailedConnectReportsTextAndCleansLinkDownReportsNothingElse) {
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  DrainWorker();
  size_t n = 0;
  for (uint32_t status : {QVNETS_FAIL, QVNETS_UNREACHABLE}) {
    ASSERT_EQ(scripted_wan_status(status), 0);
    const HostCall failed = AwaitHost(ARBOR_HOST_LINK_FAILED, ++n);
    EXPECT_NE(failed.thread, std::this_thread::get_id());
    EXPECT_EQ(Keys(failed.text, {"SEQ", "Psw"}), Seq(1) + "|" + kMd5Pw);
    EXPECT_EQ(Lines(log_, kCleanWan), n);
  }
  ASSERT_EQ(scripted_wan_status(QVNETS_DISCONNECT), 0);
  EXPECT_FALSE(AwaitHost(ARBOR_HOST_LINK_FAILED, 3).has_text);
  EXPECT_EQ(Lines(log_, kCleanWan), 2u);  // sessions stay on a link down

  SysLogout();
  // A status that comes after the sign-out only logs.
  on_wan_callback(0, QVNETS_SUCCESS, 0, nullptr);
  EXPECT_TRUE(log_.HasAt(0, "on_wan_callback: wan not avaliable"));
  DrainWorker();
  EXPECT_EQ(HostCalls().size(), 3u);
}

using SignOut = LinkTest;

TEST_F(SignOut, SendsSigoffThenLoginNameAndShutsWanDown) {
  // With the WAN never up it only cleans.
  SysLogout();
  EXPECT_EQ(scripted_call_count(SCRIPTED_UNINIT_WAN), 0u);
  EXPECT_EQ(Lines(log_, kCleanWan), 1u);

  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  unsetenv("LOGNAME");
  SysLogout();
  EXPECT_EQ(WanTexts(100), std::vector<std::string>{"MainCmd=Sigoff;"});
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 1u);
  EXPECT_EQ(scripted_call_count(SCRIPTED_UNINIT_WAN), 1u);
  // Up again (InitWAN once more), signed out with a login name, which is
  // cut to the 255 bytes of the buffer when it does not fit.
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  EXPECT_EQ(scripted_call_count(SCRIPTED_INIT_WAN), 2u);
  setenv("LOGNAME", "alice", 1);
  SysLogout();
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  setenv("LOGNAME", std::string(300, 'n').c_str(), 1);
  SysLogout();
  EXPECT_EQ(WanTexts(100).size(), 3u);
  EXPECT_EQ(WanTexts(999), (std::vector<std::string>{
                               "MainCmd=33;id=alice;",
                               "MainCmd=33;id=" + std::string(241, 'n')}));
}

using Account = LinkTest;

TEST_F(Account, CommandsSendTheirKeysUnder999) {
  // Before the WAN is up a command is lost with a line.
  DoAddMoneyCard("me", "card9");
  EXPECT_TRUE(log_.HasAt(0, "send error"));
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 0u);

  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  DoActivationAccounts("dev1", "secret", nullptr);  // nothing
  DoApplicationAccounts("me", "pw", "novalue");     // nothing, logged
  EXPECT_TRUE(log_.HasAt(0, "DoApplicationAccounts"));
  DoSysUpdatePc();
  DoActivationAccounts("dev1", "secret", "a@b.c");
  DoApplicationAccounts("me", "pw", "id=other;extra=1;");
  DoAddMoneyCard("me", "card9");
  DoSysUpdatePasswd("me", "old", "new");
  const std::vector<std::string> sent = WanTexts(999);
  ASSERT_EQ(sent.size(), 5u);
  EXPECT_EQ(sent[0], "MainCmd=26;");
  EXPECT_EQ(sent[1], "MainCmd=31;devid=dev1;Psw=secret;email=a@b.c;");
  EXPECT_EQ(Keys(sent[2], {"MainCmd", "id", "extra", "Psw"}),
            std::string("30|me|1|") + kMd5Pw);
  EXPECT_EQ(sent[3], "MainCmd=28;id=me;moneycard=card9;");
  EXPECT_EQ(Keys(sent[4], {"MainCmd", "id", "Psw", "OldPsw"}),
            std::string("25|me|") + kMd5New + "|" + kMd5Old);
}

int32_t service_999_calls = 0;

TEST_F(Account, RepliesReachHostWithTheirCodesAndThe999Row) {
  SysRegistAS(999, [](uint32_t, const char*) { return ++service_999_calls; });
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  constexpr int32_t kNone = -100;
  const std::pair<const char*, int32_t> replies[] = {
      // clang-format off
      {"MainCmd=25;Flag=1;", 4},  {"MainCmd=25;Flag=0;", 5},
      {"MainCmd=25;", 5},         {"MainCmd=26;Flag=1;", 7},
      {"MainCmd=28;Flag=2;", 11}, {"MainCmd=28;", 12},
      {"MainCmd=30;Flag=1;", 0},  {"MainCmd=30;", 9},
      {"MainCmd=31;Flag=1;errorcod=5;", 0}, {"MainCmd=31;errorcod=42;", 42},
      {"MainCmd=27;Flag=1;", kNone}};
  // clang-format on
  for (const auto& [text, code] : replies) {
    const size_t before = HostCalls().size();
    ASSERT_EQ(scripted_wan_control(999, text, 0), 0);
    const std::vector<HostCall> seen = HostCalls();
    ASSERT_EQ(seen.size(), before + (code != kNone)) << text;
    if (code == kNone) continue;
    EXPECT_EQ(seen.back().code, code) << text;
    EXPECT_EQ(seen.back().text, text);
    EXPECT_EQ(seen.back().thread, std::this_thread::get_id());
  }
  EXPECT_EQ(service_999_calls, 11);
}

// ----------------------------------------------------------------- LAN

// What the local table's entries were offered, as "who:from:code:data":
// 'a' sees all traffic, 'p' is the entry of code 100.
std::mutex offers_mutex;
std::vector<std::string> offers;
int32_t Offer(char who, uint32_t from, int32_t code, const char* data,
              uint32_t size) {
  std::lock_guard hold(offers_mutex);
  offers.push_back(std::string(1, who) + ":" + std::to_string(from) + ":" +
                   std::to_string(code) + ":" + std::string(data, size));
  return 0;
}
int32_t AnyHandler(uint32_t from, int32_t code, const char* data,
                   uint32_t size) {
  return Offer('a', from, code, data, size);
}
int32_t PeerHandler(uint32_t from, uint32_t size, const char* data) {
  return Offer('p', from, 100, data, size);
}
std::vector<std::string> TakeOffers() {
  std::lock_guard hold(offers_mutex);
  return std::exchange(offers, {});
}

using Lan = LinkTest;

TEST_F(Lan, SwitchingOffAlwaysUninitsAndAFailedStartStaysOff) {
  EXPECT_EQ(LanNetworking(0, 1, 2, 3), -1);
  EXPECT_EQ(Recorded(SCRIPTED_UNINIT_LAN, 0).words[2], 3);

  scripted_push_result(SCRIPTED_INIT_LAN, -5, 1);
  EXPECT_EQ(LanNetworking(1, 4, 5, 6), -5);
  EXPECT_TRUE(log_.HasAt(0, "InitLAN error: -5"));
  EXPECT_EQ(sys_.lan_state.load(), -5);
  EXPECT_EQ(LanNetworking(1, 4, 5, 6), 0);

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

  // A lost peer is told to every entry, the last registered first, the
  // size counting the NUL; a connected one is not.
  for (uint32_t status : {QVNETS_DISCONNECT, QVNETS_FAIL, QVNETS_UNREACHABLE}) {
    ASSERT_EQ(scripted_lan_status(12, status), 0);
    const std::string text = ":MainCmd=LocalData;status=10;QVID=12;ErrorCode=" +
                             std::to_string(status) + ";" +
                             std::string(1, '\0');
    EXPECT_EQ(TakeOffers(),
              (std::vector<std::string>{"p:12:100" + text, "a:12:0" + text}));
  }
  ASSERT_EQ(scripted_lan_status(12, QVNETS_SUCCESS), 0);
  EXPECT_TRUE(TakeOffers().empty());

  // Below 1024 the pipe is the AS code; from 1024 on it is a session's data
  // pipe; a frame with nothing to carry is ignored.
  ASSERT_EQ(scripted_lan_frame(5, 100, QVTP_CONTROL, "a=1;", 4), 0);
  EXPECT_EQ(TakeOffers(),
            (std::vector<std::string>{"p:5:100:a=1;", "a:5:100:a=1;"}));
  ASSERT_EQ(scripted_lan_frame(5, 1024, QVTP_CONTROL, "a=1;", 4), 0);
  EXPECT_TRUE(log_.HasAt(0, "rsc_lan_data_incoming(qvid=5, pipe=1024): 3"));
  ASSERT_EQ(scripted_lan_frame(5, 100, QVTP_CONTROL, "", 0), 0);
  ASSERT_EQ(scripted_lan_frame(5, 100, 10, nullptr, 0), 0);
  EXPECT_TRUE(TakeOffers().empty());
}

TEST_F(Lan, PresenceGoesOutInTheOlderEncodingWithThePasswordDigest) {
  const char with_psw[] = "name=cam;Psw=secret;";
  scripted_push_result(SCRIPTED_LAN_REFLASH, 7, 1);
  EXPECT_EQ(LanPresent(with_psw, sizeof with_psw - 1), 7);
  const scripted_call call = Recorded(SCRIPTED_LAN_REFLASH, 0);
  EXPECT_EQ(call.size, strlen(call.text) + 1);  // the older encoding counts NUL
  EXPECT_EQ(Keys(call.text, {"name", "Psw"}), std::string("cam|") + kMd5Secret);
  // Not dictionary text, or not writable without escapes: nothing goes out.
  EXPECT_EQ(LanPresent("novalue", 7), -1);
  EXPECT_EQ(LanPresent("name=a\\;b;", 10), -1);
  EXPECT_EQ(scripted_call_count(SCRIPTED_LAN_REFLASH), 1u);
}

TEST_F(Lan, AddedPeerIsConnectedByTheTransportsId) {
  scripted_push_result(SCRIPTED_ADD_LANEP, 42, 1);
  scripted_push_result(SCRIPTED_ADD_LANEP, -2, 1);
  EXPECT_EQ(SysAddLanEP(1, 2, 3, 4), 42);
  EXPECT_EQ(Recorded(SCRIPTED_LAN_CON_REMOTE_HOST_INFO, 0).peer, 42);
  // A failed add goes on all the same; the caller reads the sign.
  EXPECT_EQ(SysAddLanEP(0, 0, 0, 0), -2);
  EXPECT_EQ(Recorded(SCRIPTED_LAN_CON_REMOTE_HOST_INFO, 1).peer, 0xfffe);
}

// Classes for the announcement, in registration order.
const std::string type127(127, 't');
const std::string info127 = "Type=" + type127 + ";";
const std::string info128 = "Type=" + std::string(128, 'T') + ";";
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
  EXPECT_STREQ(get_mac_address("lo"), "0:0:0:0:0:0");
  EXPECT_EQ(get_mac_address("no-such-if0"), nullptr);
  EXPECT_EQ(get_mac_address(nullptr), nullptr);
}

}  // namespace
