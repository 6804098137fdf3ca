// The link to the service: a whole sign-in, the calls SysLogin turns down,
// refusals, stale replies and the time-out, link failures, signing out and
// the account commands with their replies.
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "arbor/asc.h"
#include "init/link.h"
#include "link_fixture.h"

namespace link_test {
namespace {

// One row of a sign-in reply: dictionary text nested as a value.
std::string Row(int type, int code, const std::string& name) {
  return "AsType\\=" + std::to_string(type) + "\\;AsCode\\=" +
         std::to_string(code) + "\\;AsName\\=" + name + "\\;";
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
  const scripted_call target = Recorded(SCRIPTED_CON_REMOTE_HOST_INFO, 0);
  EXPECT_EQ(std::string(target.host ? target.host : "-"), "host");
  EXPECT_EQ(target.port, 7000);
  EXPECT_EQ(target.protocol, QV_PROTOCOL_TCP);

  // Connected: code 6 at once, on the thread that plays the transport.
  ASSERT_EQ(scripted_wan_status(QVNETS_SUCCESS), 0);
  HostCall up;
  ASSERT_TRUE(host.WaitFor(ARBOR_HOST_LINK_UP, &up));
  EXPECT_EQ(up.thread, std::this_thread::get_id());
  EXPECT_FALSE(up.has_text);

  ASSERT_TRUE(scripted_wait_calls(SCRIPTED_NET_WRITE, 1, 10000));
  const scripted_call write = Recorded(SCRIPTED_NET_WRITE, 0);
  EXPECT_EQ(write.header.nPacketType, QVTP_CONTROL);
  ASSERT_EQ(write.asc, 333);
  EXPECT_EQ(Keys(write.text, {"userType", "verNum", "id", "SEQ", "Psw", "k"}),
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
  EXPECT_EQ(asc_get_byname("zero"), nullptr);
  ASSERT_NE(asc_get_byname("after"), nullptr);
  EXPECT_EQ(asc_get_byname("after")->AsCode, 78);
  EXPECT_EQ(asc_get_byname("gap"), nullptr);

  HostCall ok;
  ASSERT_TRUE(host.WaitFor(ARBOR_HOST_OK, &ok));
  EXPECT_NE(ok.thread, std::this_thread::get_id());
  EXPECT_EQ(ok.text, reply);  // the frame's NUL is not counted

  // Announced before the injection returned, in order.
  const std::vector<std::string> announced = WanTexts(100);
  ASSERT_EQ(announced.size(), 3u);
  EXPECT_EQ(Keys(announced[0], {"MainCmd", "event", "subResource", "x"}),
            "17|eventResOnline|cam|1");
  const std::string head = "MainCmd=17;event=eventResOnline;subResource=cam;";
  EXPECT_EQ(announced[1], head + "resouce=cam.1;");
  EXPECT_EQ(announced[2], head + "resouce=cam.2;");
}

TEST_F(SignIn, EmptyPasswordSendsNoPswAndOnlyExactTcpPicksTcp) {
  EXPECT_EQ(SysLogin("u", "", nullptr, "h", 65534, "Protocol=tcp;"), 0);
  EXPECT_EQ(SysLogin("u", nullptr, "", "h", 0, "Protocol"), 0);
  EXPECT_EQ(SysLogin("u", "", nullptr, "h", 1, nullptr), 0);
  for (size_t i = 0; i < 3; ++i)
    EXPECT_EQ(Recorded(SCRIPTED_CON_REMOTE_HOST_INFO, i).protocol,
              QV_PROTOCOL_DEFAULT);
  EXPECT_EQ(Recorded(SCRIPTED_CON_REMOTE_HOST_INFO, 0).port, 65534);
  EXPECT_EQ(scripted_call_count(SCRIPTED_INIT_WAN), 1u);
  DrainWorker();
  scripted_wan_status(QVNETS_SUCCESS);
  ASSERT_TRUE(scripted_wait_calls(SCRIPTED_NET_WRITE, 1, 10000));
  EXPECT_EQ(Keys(WanTexts(333).at(0), {"id", "SEQ", "Psw"}),
            "u|" + Seq(3) + "|-");
}

TEST_F(SignIn, RefusedCallsReturnMinus3WithLineAndStartNothing) {
  const std::string host256(256, 'h'), host255(255, 'h');
  const std::string big_params = "p=" + std::string(200, 'x') + ";";
  struct {
    const char *host, *params;
    int32_t port;
  } cases[] = {{"", "", 7000},     {nullptr, "", 7000},
               {host256.c_str(), "", 7000},
               {"h", "", -1},      {"h", "", 65535},
               {"h", "novalue", 7000},
               {"h", big_params.c_str(), 7000}};
  for (const auto& c : cases) {
    LogCapture lines(0);
    EXPECT_EQ(SysLogin("u", "pw", c.params, c.host, c.port, nullptr), -3)
        << (c.host ? c.host : "(null)") << ":" << c.port << " " << c.params;
    EXPECT_TRUE(lines.HasAt(0, "SysLogin"));
  }
  // The WAN is up, but nothing was connected or posted.
  EXPECT_EQ(scripted_call_count(SCRIPTED_INIT_WAN), 1u);
  EXPECT_EQ(scripted_call_count(SCRIPTED_CON_REMOTE_HOST_INFO), 0u);
  DrainWorker();
  EXPECT_EQ(sys_.login_seq.load(), seq_);
  // 255 characters still fit the record.
  EXPECT_EQ(SysLogin("u", "pw", "", host255.c_str(), 7000, nullptr), 0);
  EXPECT_EQ(Recorded(SCRIPTED_CON_REMOTE_HOST_INFO, 0).host, host255);
}

TEST_F(SignIn, RefusalReachesHostOnlyWithDefinedCodesDataPipesNever) {
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  for (int code : {1, 2, 3, 8, 9, 10, 0, 11}) {
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
  std::vector<int32_t> codes;
  for (const HostCall& call : host.Calls()) {
    codes.push_back(call.code);
    EXPECT_EQ(call.thread, std::this_thread::get_id());
    // The length stops at the NUL the frame carried.
    EXPECT_EQ(call.text, "errorcod=" + std::to_string(call.code) + ";SEQ=9;");
  }
  EXPECT_EQ(codes, (std::vector<int32_t>{1, 2, 8, 9, 10}));
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

  HostCall timeout;
  ASSERT_TRUE(host.WaitFor(ARBOR_HOST_SIGNIN_TIMEOUT, &timeout));
  EXPECT_NE(timeout.thread, std::this_thread::get_id());
  EXPECT_EQ(Keys(timeout.text, {"id", "SEQ"}), "second|" + Seq(2));
  // The first attempt's entry was due earlier and has run, silent.
  DrainWorker();
  EXPECT_EQ(host.Count(ARBOR_HOST_SIGNIN_TIMEOUT), 1u);
  EXPECT_EQ(host.Count(ARBOR_HOST_OK), 0u);
}

TEST_F(SignIn, FailedConnectReportsTextAndCleansLinkDownReportsNothingElse) {
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  DrainWorker();
  HostCall failed;
  size_t n = 0;
  for (uint32_t status : {QVNETS_FAIL, QVNETS_UNREACHABLE}) {
    ASSERT_EQ(scripted_wan_status(status), 0);
    ASSERT_TRUE(host.WaitFor(ARBOR_HOST_LINK_FAILED, &failed, ++n));
    EXPECT_NE(failed.thread, std::this_thread::get_id());
    EXPECT_EQ(Keys(failed.text, {"SEQ", "Psw"}), Seq(1) + "|" + kMd5Pw);
    EXPECT_EQ(Lines(log_, kCleanWan), n);
  }
  ASSERT_EQ(scripted_wan_status(QVNETS_DISCONNECT), 0);
  ASSERT_TRUE(host.WaitFor(ARBOR_HOST_LINK_FAILED, &failed, 3));
  EXPECT_NE(failed.thread, std::this_thread::get_id());
  EXPECT_FALSE(failed.has_text);
  EXPECT_EQ(failed.length, 0);
  EXPECT_EQ(Lines(log_, kCleanWan), 2u);  // sessions stay on a link down

  SysLogout();
  // A status that comes after the sign-out only logs.
  on_wan_callback(0, QVNETS_SUCCESS, 0, nullptr);
  EXPECT_TRUE(log_.HasAt(0, "on_wan_callback: wan not avaliable"));
  DrainWorker();
  EXPECT_EQ(host.Calls().size(), 3u);
}

using SignOut = LinkTest;

TEST_F(SignOut, SendsSigoffThenLoginNameAndShutsWanDown) {
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  unsetenv("LOGNAME");
  SysLogout();
  EXPECT_EQ(WanTexts(100), std::vector<std::string>{"MainCmd=Sigoff;"});
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 1u);
  EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, 0).header.nPacketType, QVTP_CONTROL);
  EXPECT_EQ(scripted_call_count(SCRIPTED_UNINIT_WAN), 1u);

  // Up again (InitWAN once more), signed out with a login name.
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  EXPECT_EQ(scripted_call_count(SCRIPTED_INIT_WAN), 2u);
  setenv("LOGNAME", "alice", 1);
  SysLogout();
  ASSERT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 3u);
  EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, 1).asc, 100);
  EXPECT_EQ(WanTexts(999), std::vector<std::string>{"MainCmd=33;id=alice;"});

  // A name that does not fit is cut to the 255 bytes of the buffer.
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  setenv("LOGNAME", std::string(300, 'n').c_str(), 1);
  SysLogout();
  EXPECT_EQ(WanTexts(999).at(1), "MainCmd=33;id=" + std::string(241, 'n'));
}

TEST_F(SignOut, WithWanNeverUpOnlyLogsAndCleans) {
  SysLogout();
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 0u);
  EXPECT_EQ(scripted_call_count(SCRIPTED_UNINIT_WAN), 0u);
  EXPECT_TRUE(log_.Has("SysLogout:cleanup wan"));
  EXPECT_FALSE(log_.Has("SysLogout:UnInitWAN"));
  EXPECT_EQ(Lines(log_, kCleanWan), 1u);
}

using Account = LinkTest;

TEST_F(Account, CommandsSendTheirKeysUnder999) {
  // Before the WAN is up a command is lost with a line.
  DoAddMoneyCard("me", "card9");
  EXPECT_TRUE(log_.HasAt(0, "send error"));
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 0u);

  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  DoActivationAccounts("dev1", "secret", nullptr);  // nothing
  DoApplicationAccounts("me", "pw", "novalue");      // nothing, logged
  DoSysUpdatePc();
  DoActivationAccounts("dev1", "secret", "a@b.c");
  DoApplicationAccounts("me", "pw", "id=other;extra=1;");
  DoAddMoneyCard("me", "card9");
  DoSysUpdatePasswd("me", "old", "new");
  EXPECT_TRUE(log_.HasAt(0, "DoApplicationAccounts"));

  const std::vector<std::string> sent = WanTexts(999);
  ASSERT_EQ(sent.size(), 5u);
  EXPECT_EQ(scripted_call_count(SCRIPTED_NET_WRITE), 5u);
  for (size_t i = 0; i < sent.size(); ++i)
    EXPECT_EQ(Recorded(SCRIPTED_NET_WRITE, i).header.nPacketType, QVTP_CONTROL);
  EXPECT_EQ(sent[0], "MainCmd=26;");
  EXPECT_EQ(sent[1], "MainCmd=31;devid=dev1;Psw=secret;email=a@b.c;");
  EXPECT_EQ(Keys(sent[2], {"MainCmd", "id", "extra", "Psw"}),
            std::string("30|me|1|") + kMd5Pw);
  EXPECT_EQ(sent[3], "MainCmd=28;id=me;moneycard=card9;");
  EXPECT_EQ(sent[4].rfind("MainCmd=25;", 0), 0u);
  EXPECT_EQ(Keys(sent[4], {"id", "Psw", "OldPsw"}),
            std::string("me|") + kMd5New + "|" + kMd5Old);
}

int32_t service_999_calls = 0;

TEST_F(Account, RepliesReachHostWithTheirCodesAndThe999Row) {
  SysRegistAS(999, [](uint32_t, const char*) { return ++service_999_calls; });
  ASSERT_EQ(SysLogin("u", "pw", "", "h", 7000, nullptr), 0);
  constexpr int32_t kNone = -100;
  const struct {
    const char* text;
    int32_t code;
  } replies[] = {{"MainCmd=25;Flag=1;", 4},  {"MainCmd=25;Flag=0;", 5},
                 {"MainCmd=25;", 5},         {"MainCmd=26;Flag=1;", 7},
                 {"MainCmd=28;Flag=2;", 11}, {"MainCmd=28;", 12},
                 {"MainCmd=30;Flag=1;", 0},  {"MainCmd=30;", 9},
                 {"MainCmd=31;Flag=1;errorcod=5;", 0},
                 {"MainCmd=31;errorcod=42;", 42},
                 {"MainCmd=27;Flag=1;", kNone}};
  size_t heard = 0;
  for (const auto& reply : replies) {
    ASSERT_EQ(scripted_wan_control(999, reply.text, 0), 0);
    const std::vector<HostCall> seen = host.Calls();
    heard += reply.code != kNone;
    ASSERT_EQ(seen.size(), heard) << reply.text;
    if (reply.code == kNone) continue;
    EXPECT_EQ(seen.back().code, reply.code) << reply.text;
    EXPECT_EQ(seen.back().text, reply.text);
    EXPECT_EQ(seen.back().thread, std::this_thread::get_id());
  }
  EXPECT_EQ(service_999_calls, 11);
}

}  // namespace
}  // namespace link_test
