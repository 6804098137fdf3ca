// arbor_test_peer - one peer of the cross-process tests: the engine, the
// socket transport and the sample drivers, in a process of its own. The
// tests start two of them on loopback and read what they print.
//
//   arbor_test_peer serve [lan-options [presence-text]]
//     Registers demo.source, switches the LAN on with the option text
//     (default "listen=127.0.0.1;"), presents itself with presence-text when
//     given (and then prints every LocalData text the engine receives as
//     "heard <text>"), prints "listening <port>", and serves until a line "quit" (or
//     end of input) arrives on standard input. It then waits up to 5 s for
//     every source device to be closed, stops.
//   arbor_test_peer dial <host> <port> <chunks> [source-option] [lan-options]
//     Registers demo.sink, adds the peer at host:port, waits for the link,
//     dials "demo.source -> net. -> demo.sink" on it, waits for <chunks>
//     chunks, prints "received <n> out-of-order <m>", hangs up, waits for
//     the sink to be closed, and stops.
//   arbor_test_peer dial-presence <chunks> <hangup|wait-gone> <lan-options>
//                   <presence-text>
//     Registers demo.sink, switches the LAN on (the options turn presence
//     on), presents itself, and waits for the first peer that presence
//     hears and the engine connected to; prints "found <id> <address>
//     <its presence text>"; dials the chain on it as dial does and waits for
//     <chunks> chunks. hangup: as dial. wait-gone: prints "streaming", waits
//     for presence to declare the peer gone ("gone <id>") and for the sink to
//     be closed, and stops. Every LocalData text the engine receives is
//     printed as "heard <text>".
//
// Both print "clean" after SysExit when nothing of the engine is left: no
// root, no queued command, no thread but main. Exit status 0 when
// everything above held, 1 otherwise; every failure prints one line saying
// which step failed.
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

#include "arbor/device_class.h"
#include "arbor/net.h"
#include "arbor/rsc.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "demo_drivers.h"
#include "peer_common.h"

namespace {

// The AS code of the dial; the serving peer addresses the session's
// messages to it.
constexpr int32_t kDialAsc = 200;
constexpr int kCloseWaitMs = 5000;
// How long a peer may take to be heard by presence, or to be declared gone.
constexpr auto kPresenceLimit = std::chrono::seconds(20);

// Prints the engine's LocalData texts as "heard <text>"; errors (level 0)
// still go to standard error. A log sink: called one line at a time.
void PrintLocalData(void*, int level, const char* line, size_t) {
  const char* text = std::strstr(line, "MainCmd=LocalData;");
  if (text != nullptr) std::printf("heard %s\n", text);
  if (level == 0) std::fprintf(stderr, "%s\n", line);
}

// Shows the LocalData texts the engine receives (it traces them at level 3).
void ShowLocalData() {
  LOG_SetSink(PrintLocalData, nullptr);
  LOG_SetLevel(3);
}

// Presents this peer with text (dictionary text).
void Present(const std::string& text) {
  LanPresent(text.c_str(), static_cast<uint32_t>(text.size()));
}

int Serve(const std::string& lan_options, const char* presence) {
  SysInit(nullptr);
  peer::ObserveSessions();
  SysRegisterDev(demo_source_class());
  if (presence != nullptr) ShowLocalData();
  if (LanNetworking(1, reinterpret_cast<intptr_t>(lan_options.c_str()), 0,
                    0) < 0)
    return peer::Fail("LanNetworking");
  if (presence != nullptr) Present(presence);
  std::printf("listening %d\n", arbor_net_lan_port());
  std::fflush(stdout);
  for (std::string line; std::getline(std::cin, line) && line != "quit";) {
  }
  const bool closed = peer::WaitFor([] {
    const demo_source_totals t = demo_source_snapshot();
    return t.closes == t.opens;
  });
  const bool clean = peer::StopAndCheck();
  LOG_SetSink(nullptr, nullptr);
  if (!closed) return peer::Fail("source still open at quit");
  return clean ? 0 : 1;
}

// Dials "demo.source -> net. -> demo.sink" on peer and waits for chunks.
// The session id, "" when the dial failed; *arrived tells the wait.
std::string DialChain(int peer, uint64_t chunks, const char* option,
                      bool* arrived) {
  char dial[256];
  std::snprintf(dial, sizeof dial,
                "id=%d;ftN0=demo.source;opN0=%s;ftN1=net.;ftN2=demo.sink;"
                "opN2=/dev/null;",
                peer, option);
  char sid[RSC_SID_SLOT] = "";
  RSCDial(kDialAsc, sid, dial, static_cast<const char*>(nullptr));
  if (sid[0] == '\0') return "";
  *arrived =
      demo_sink_wait_chunks(chunks, static_cast<int>(peer::kStepLimit.count() * 1000));
  const demo_sink_totals t = demo_sink_snapshot();
  std::printf("received %llu out-of-order %llu\n",
              static_cast<unsigned long long>(t.chunks),
              static_cast<unsigned long long>(t.out_of_order));
  return sid;
}

int Dial(const char* host, int port, uint64_t chunks, const char* option,
         const std::string& lan_options) {
  SysInit(nullptr);
  peer::ObserveSessions();
  SysRegisterDev(demo_sink_class());
  if (LanNetworking(1, reinterpret_cast<intptr_t>(lan_options.c_str()), 0,
                    0) < 0)
    return peer::Fail("LanNetworking");
  const int16_t peer =
      SysAddLanEP(reinterpret_cast<intptr_t>(host), port, 0, 0);
  if (peer <= 0) return peer::Fail("SysAddLanEP");
  const bool up = peer::WaitFor([peer] {
    arbor_net_peer_info info{};
    return arbor_net_peer_stats(static_cast<uint16_t>(peer), &info) == 0 &&
           info.link_up != 0;
  });
  if (!up) return peer::Fail("link to the serving peer");

  bool arrived = false;
  const std::string sid = DialChain(peer, chunks, option, &arrived);
  if (sid.empty()) return peer::Fail("RSCDial");
  RSCHangup(0, sid.c_str());
  const bool closed = demo_sink_wait_closed(kCloseWaitMs);
  const bool clean = peer::StopAndCheck();
  std::fflush(stdout);
  if (!arrived) return peer::Fail("chunks did not arrive");
  if (!closed) return peer::Fail("sink not closed after the hang-up");
  return clean && demo_sink_snapshot().out_of_order == 0 ? 0 : 1;
}

// The first peer that presence hears and the engine connected to, or 0
// (the peer may have connected to us before we heard it: how it was found
// first does not matter).
uint16_t PresencePeer() {
  uint16_t ids[64];
  const int32_t n = arbor_net_peers(ids, 64);
  for (int32_t i = 0; i < n && i < 64; ++i) {
    arbor_net_peer_info info{};
    if (arbor_net_peer_stats(ids[i], &info) == 0 && info.present &&
        info.link_up)
      return ids[i];
  }
  return 0;
}

int DialPresence(uint64_t chunks, bool hangup, const std::string& lan_options,
                 const std::string& presence) {
  SysInit(nullptr);
  peer::ObserveSessions();
  SysRegisterDev(demo_sink_class());
  ShowLocalData();
  if (LanNetworking(1, reinterpret_cast<intptr_t>(lan_options.c_str()), 0,
                    0) < 0)
    return peer::Fail("LanNetworking");
  Present(presence);
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
  const bool closed = demo_sink_wait_closed(kCloseWaitMs);
  const bool clean = peer::StopAndCheck();
  LOG_SetSink(nullptr, nullptr);
  std::fflush(stdout);
  if (!arrived) return peer::Fail("chunks did not arrive");
  if (!closed) return peer::Fail("sink not closed");
  return clean ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  demo_drivers_set_verbose(1);
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "serve" && argc <= 4)
    return Serve(argc > 2 ? argv[2] : "listen=127.0.0.1;",
                 argc > 3 ? argv[3] : nullptr);
  if (mode == "dial-presence" && argc == 6) {
    const std::string after = argv[3];
    if (after == "hangup" || after == "wait-gone")
      return DialPresence(std::strtoull(argv[2], nullptr, 10),
                          after == "hangup", argv[4], argv[5]);
  }
  if (mode == "dial" && argc >= 5 && argc <= 7) {
    return Dial(argv[2], std::atoi(argv[3]),
                std::strtoull(argv[4], nullptr, 10),
                argc > 5 ? argv[5] : "500/1024",
                argc > 6 ? argv[6] : "listen=127.0.0.1;");
  }
  std::fprintf(stderr,
               "usage: %s serve [lan-options [presence-text]] | dial <host> "
               "<port> <chunks> [source-option] [lan-options] | dial-presence "
               "<chunks> <hangup|wait-gone> <lan-options> <presence-text>\n",
               argv[0]);
  return 2;
}
