// arbor_test_peer - one peer of the cross-process tests: the engine, the
// socket transport and the sample drivers, in a process of its own. The
// tests start two of them on loopback (and, for the WAN, the stand-in for
// the service, arbor_test_service) and read what they print.
//
//   serve [lan-options [presence-text]]
//     demo.source; the LAN on with the options (default "listen=127.0.0.1;")
//     and presented with presence-text when given; prints "listening
//     <port>" and serves until "quit" (or the end of input), then waits up
//     to 5 s for every source to be closed and stops.
//   dial <host> <port> <chunks> [source-option] [lan-options]
//     demo.sink; adds host:port, waits for the link, dials "demo.source ->
//     net. -> demo.sink" on it, waits for <chunks> chunks, prints "received
//     <n> out-of-order <m>", hangs up, waits for the sink to be closed, stops.
//   dial-presence <chunks> <hangup|wait-gone> <lan-options> <presence-text>
//     demo.sink, presented; dials as dial does on the first peer that
//     presence heard and the engine connected to, after printing "found <id>
//     <address> <its presence text>". hangup: as dial. wait-gone: prints
//     "streaming", waits for presence to declare the peer gone ("gone
//     <id>") and for the sink to be closed, and stops.
//   source <host> <port> <login> [ca-file]
//     demo.source, signed in to the service (TLS 1.3 checked against
//     ca-file when one is given, else plain TCP); serves until "quit", then
//     signs out, waits for its source to be closed and stops.
//   sink <host> <port> <login> <chunks> [ca-file]
//     demo.sink, signed in; waits for <chunks> chunks of the session the
//     service relays to it, prints "received ...", hangs the session up (sid
//     kServiceSid), waits for the sink to be closed, signs out and stops.
//
// With presence, every LocalData text the engine receives is printed as
// "heard <text>"; signed in, every call of the host callback as "host code
// <n>". After SysExit each prints "clean" when nothing of the engine is
// left. Exit status 0 when every step held; each failure prints one line
// naming the step.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/net.h"
#include "arbor/rsc.h"
#include "arbor/support.h"
#include "peer_common.h"

namespace {

// The AS code of the dial; the serving peer addresses the session's
// messages to it.
constexpr int32_t kDialAsc = 200;
constexpr int kCloseWaitMs = 5000;
// How long a peer may take to be heard by presence, or to be declared gone.
constexpr auto kPresenceLimit = std::chrono::seconds(20);

// Prints the engine's LocalData texts (traced at level 3) as "heard
// <text>"; errors (level 0) still go to standard error.
void PrintLocalData(void*, int level, const char* line, size_t) {
  const char* text = std::strstr(line, "MainCmd=LocalData;");
  if (text != nullptr) std::printf("heard %s\n", text);
  if (level == 0) std::fprintf(stderr, "%s\n", line);
}

// Starts the library with one driver and the LAN on, presented with
// presence when given; false (the step printed) when the LAN fails.
bool Start(cdef* driver, const std::string& lan_options, const char* presence) {
  SysInit(nullptr);
  peer::ObserveSessions();
  SysRegisterDev(driver);
  if (presence != nullptr) {
    LOG_SetSink(PrintLocalData, nullptr);
    LOG_SetLevel(3);
  }
  if (LanNetworking(1, reinterpret_cast<intptr_t>(lan_options.c_str()), 0, 0) < 0) {
    peer::Fail("LanNetworking");
    return false;
  }
  if (presence != nullptr) LanPresent(presence, static_cast<uint32_t>(std::strlen(presence)));
  return true;
}

int Serve(const std::string& lan_options, const char* presence) {
  if (!Start(demo_source_class(), lan_options, presence)) return 1;
  std::printf("listening %d\n", arbor_net_lan_port());
  std::fflush(stdout);
  peer::ReadUntilQuit();
  const bool closed = peer::SourcesClosed();
  const bool clean = peer::StopAndCheck();
  LOG_SetSink(nullptr, nullptr);
  if (!closed) return peer::Fail("source still open at quit");
  return clean ? 0 : 1;
}

// Whether the far side answered our hang-up: it ends its side and tells
// us "SessionDelete" under the dial's AS code. Only then may this peer
// stop; cut earlier, the link fails under the far side's streaming writes
// and it ends its side for that instead (seen now and then under TSan).
std::atomic<bool> hangup_answered{false};
int32_t OnDialCode(uint32_t, uint32_t size, const char* data) {
  if (memmem(data, size, "MainCmd=SessionDelete", 21) != nullptr) hangup_answered = true;
  return 0;
}

// Dials "demo.source -> net. -> demo.sink" on peer and waits for chunks.
// The session id, "" when the dial failed; *arrived tells the wait.
std::string DialChain(int peer, uint64_t chunks, const char* option, bool* arrived) {
  SysRegistASLan(kDialAsc, nullptr, reinterpret_cast<AsHandler>(OnDialCode));
  char dial[256];
  std::snprintf(dial, sizeof dial,
                "id=%d;ftN0=demo.source;opN0=%s;ftN1=net.;ftN2=demo.sink;opN2=/dev/null;", peer,
                option);
  char sid[RSC_SID_SLOT] = "";
  RSCDial(kDialAsc, sid, dial, static_cast<const char*>(nullptr));
  if (sid[0] == '\0') return "";
  *arrived = demo_sink_wait_chunks(chunks, static_cast<int>(peer::kStepLimit.count() * 1000));
  peer::PrintReceived();
  return sid;
}

// Waits for the sink to be closed (and for the answer to a hang-up) and
// stops: a dialling peer's exit status.
int EndDial(bool arrived, bool hung_up) {
  const bool closed = demo_sink_wait_closed(kCloseWaitMs);
  const bool answered = !hung_up || peer::WaitFor([] { return hangup_answered.load(); });
  const bool clean = peer::StopAndCheck();
  LOG_SetSink(nullptr, nullptr);
  if (!arrived) return peer::Fail("chunks did not arrive");
  if (!closed) return peer::Fail("sink not closed");
  if (!answered) return peer::Fail("no SessionDelete from the peer after the hang-up");
  return clean && demo_sink_snapshot().out_of_order == 0 ? 0 : 1;
}

int Dial(const char* host, int port, uint64_t chunks, const char* option,
         const std::string& lan_options) {
  if (!Start(demo_sink_class(), lan_options, nullptr)) return 1;
  const int16_t peer = SysAddLanEP(reinterpret_cast<intptr_t>(host), port, 0, 0);
  if (peer <= 0) return peer::Fail("SysAddLanEP");
  const bool up = peer::WaitFor([peer] {
    arbor_net_peer_info info{};
    return arbor_net_peer_stats(static_cast<uint16_t>(peer), &info) == 0 && info.link_up != 0;
  });
  if (!up) return peer::Fail("link to the serving peer");
  bool arrived = false;
  const std::string sid = DialChain(peer, chunks, option, &arrived);
  if (sid.empty()) return peer::Fail("RSCDial");
  RSCHangup(0, sid.c_str());
  return EndDial(arrived, true);
}

// The first peer that presence hears and the engine connected to, or 0
// (the peer may have connected to us before we heard it: how it was found
// first does not matter).
uint16_t PresencePeer() {
  uint16_t ids[64];
  const int32_t n = arbor_net_peers(ids, 64);
  for (int32_t i = 0; i < n && i < 64; ++i) {
    arbor_net_peer_info info{};
    if (arbor_net_peer_stats(ids[i], &info) == 0 && info.present && info.link_up) return ids[i];
  }
  return 0;
}

int DialPresence(uint64_t chunks, bool hangup, const std::string& lan_options,
                 const std::string& presence) {
  if (!Start(demo_sink_class(), lan_options, presence.c_str())) return 1;
  uint16_t peer = 0;
  if (!peer::WaitFor([&peer] { return (peer = PresencePeer()) != 0; }, kPresenceLimit))
    return peer::Fail("no peer found by presence");
  arbor_net_peer_info info{};
  char text[2049] = "";
  arbor_net_peer_stats(peer, &info);
  arbor_net_peer_presence(peer, text, sizeof text);
  std::printf("found %u %s %s\n", peer, info.address, text);

  bool arrived = false;
  const std::string sid = DialChain(peer, chunks, "500/1024", &arrived);
  if (sid.empty()) return peer::Fail("RSCDial");
  if (hangup) {
    RSCHangup(0, sid.c_str());
  } else {
    std::printf("streaming\n");
    const bool gone = peer::WaitFor([peer] {
      arbor_net_peer_info now{};
      return arbor_net_peer_stats(peer, &now) != 0 || now.present == 0;
    }, kPresenceLimit);
    if (!gone) return peer::Fail("peer not declared gone");
    std::printf("gone %u\n", peer);
  }
  return EndDial(arrived, hangup);
}

// ---- the WAN road

// The sid the stand-in gives the session it relays.
constexpr char kServiceSid[] = "v1";
std::atomic<int> sign_ins{0};

void OnHost(int32_t code, const char*, int32_t) {
  if (code == 0) ++sign_ins;
  std::printf("host code %d\n", code);
}

// Starts the library with one driver and signs in; false (the step
// printed) when the sign-in does not come.
bool StartAndSignIn(cdef* driver, const char* host, int port, const char* login,
                    const char* ca) {
  SysInit(OnHost);
  peer::ObserveSessions();
  SysRegisterDev(driver);
  const char* failed = nullptr;
  if (ca != nullptr && arbor_net_wan_options((std::string("ca_file=") + ca + ";").c_str()) != 0)
    failed = "arbor_net_wan_options";
  else if (SysLogin(login, "", "", host, port, ca != nullptr ? nullptr : "Protocol=TCP;") < 0)
    failed = "SysLogin";
  else if (!peer::WaitFor([] { return sign_ins.load() > 0; }))
    failed = "sign-in";
  if (failed != nullptr) {
    peer::Fail(failed);  // a failed step stops the peer, it does not carry on
    return false;
  }
  std::printf("signed in\n");
  return true;
}

int Source(const char* host, int port, const char* login, const char* ca) {
  if (!StartAndSignIn(demo_source_class(), host, port, login, ca)) return 1;
  peer::ReadUntilQuit();
  SysLogout();
  const bool closed = peer::SourcesClosed();
  const bool clean = peer::StopAndCheck();
  if (!closed) return peer::Fail("source still open at quit");
  return clean ? 0 : 1;
}

int Sink(const char* host, int port, const char* login, uint64_t chunks, const char* ca) {
  if (!StartAndSignIn(demo_sink_class(), host, port, login, ca)) return 1;
  const bool arrived =
      demo_sink_wait_chunks(chunks, static_cast<int>(peer::kStepLimit.count() * 1000));
  const demo_sink_totals t = peer::PrintReceived();
  // The sink closes before "SessionDelete" leaves: sign out only once the
  // link has carried it, or the service would never hear of the hang-up.
  arbor_net_peer_info before{};
  arbor_net_wan_stats(&before);
  RSCHangup(0, kServiceSid);
  const bool closed = demo_sink_wait_closed(2 * kCloseWaitMs);
  const bool told = peer::WaitFor([&before] {
    arbor_net_peer_info now{};
    return arbor_net_wan_stats(&now) == 0 && now.frames_out > before.frames_out;
  });
  SysLogout();
  const bool clean = peer::StopAndCheck();
  if (!arrived) return peer::Fail("chunks did not arrive");
  if (!closed) return peer::Fail("sink not closed after the hang-up");
  if (!told) return peer::Fail("SessionDelete did not leave");
  return clean && t.out_of_order == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  demo_drivers_set_verbose(1);
  const std::string mode = argc > 1 ? argv[1] : "";
  const std::string after = argc > 3 ? argv[3] : "";
  if (mode == "serve" && argc <= 4)
    return Serve(argc > 2 ? argv[2] : "listen=127.0.0.1;", argc > 3 ? argv[3] : nullptr);
  if (mode == "dial-presence" && argc == 6 && (after == "hangup" || after == "wait-gone"))
    return DialPresence(std::strtoull(argv[2], nullptr, 10), after == "hangup", argv[4], argv[5]);
  if (mode == "dial" && argc >= 5 && argc <= 7)
    return Dial(argv[2], std::atoi(argv[3]), std::strtoull(argv[4], nullptr, 10),
                argc > 5 ? argv[5] : "500/1024", argc > 6 ? argv[6] : "listen=127.0.0.1;");
  if (mode == "source" && (argc == 5 || argc == 6))
    return Source(argv[2], std::atoi(argv[3]), argv[4], argc == 6 ? argv[5] : nullptr);
  if (mode == "sink" && (argc == 6 || argc == 7))
    return Sink(argv[2], std::atoi(argv[3]), argv[4], std::strtoull(argv[5], nullptr, 10),
                argc == 7 ? argv[6] : nullptr);
  std::fprintf(stderr,
               "usage: %s serve [lan-options [presence-text]] | dial <host> <port> <chunks> "
               "[source-option] [lan-options] | dial-presence <chunks> <hangup|wait-gone> "
               "<lan-options> <presence-text> | source <host> <port> <login> [ca-file] | "
               "sink <host> <port> <login> <chunks> [ca-file]\n",
               argv[0]);
  return 2;
}
