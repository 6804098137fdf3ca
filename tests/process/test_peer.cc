// arbor_test_peer - one peer of the cross-process tests: the engine, the
// socket transport and the sample drivers, in a process of its own. The
// tests start two of them on loopback and read what they print.
//
//   arbor_test_peer serve [lan-options]
//     Registers demo.source, switches the LAN on with the option text
//     (default "listen=127.0.0.1;"), prints "listening <port>", and serves
//     until a line "quit" (or end of input) arrives on standard input. It
//     then waits up to 5 s for every source device to be closed, stops.
//   arbor_test_peer dial <host> <port> <chunks> [source-option] [lan-options]
//     Registers demo.sink, adds the peer at host:port, waits for the link,
//     dials "demo.source -> net. -> demo.sink" on it, waits for <chunks>
//     chunks, prints "received <n> out-of-order <m>", hangs up, waits for
//     the sink to be closed, and stops.
//
// Both print "clean" after SysExit when nothing of the engine is left: no
// root, no queued command, no thread but main. Exit status 0 when
// everything above held, 1 otherwise; every failure prints one line saying
// which step failed.
#include <dirent.h>
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
#include "device/forest.h"

namespace {

// The AS code of the dial; the serving peer addresses the session's
// messages to it.
constexpr int32_t kDialAsc = 200;
// How long each step may take before the peer gives up.
constexpr auto kStepLimit = std::chrono::seconds(10);
constexpr int kCloseWaitMs = 5000;

int Fail(const char* step) {
  std::printf("FAILED: %s\n", step);
  std::fflush(stdout);
  return 1;
}

// Threads of this process, /proc/self/task's entries.
int ThreadCount() {
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  int n = 0;
  while (const dirent* entry = readdir(dir))
    if (entry->d_name[0] != '.') ++n;
  closedir(dir);
  return n;
}

// Threads a process has of itself: main, and under ThreadSanitizer the
// runtime's background thread, which it may start at any time.
#if defined(__SANITIZE_THREAD__)
constexpr int kOwnThreadsMax = 2;
#else
constexpr int kOwnThreadsMax = 1;
#endif

// Stops the library and reports whether anything of it is left.
bool StopAndCheck() {
  SysExit();
  const bool clean = forest_.head.next == nullptr &&
                     cmdq_cached_total() == 0 &&
                     ThreadCount() <= kOwnThreadsMax;
  std::printf("%s\n", clean ? "clean" : "NOT CLEAN");
  if (!clean)
    std::printf("roots %s, queued bytes %u, threads %d\n",
                forest_.head.next != nullptr ? "left" : "none",
                cmdq_cached_total(), ThreadCount());
  return clean;
}

// Polls cond every millisecond up to kStepLimit.
template <typename Cond>
bool WaitFor(Cond cond) {
  const auto end = std::chrono::steady_clock::now() + kStepLimit;
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

int Serve(const std::string& lan_options) {
  SysInit(nullptr);
  SysRegisterDev(demo_source_class());
  if (LanNetworking(1, reinterpret_cast<intptr_t>(lan_options.c_str()), 0,
                    0) < 0)
    return Fail("LanNetworking");
  std::printf("listening %d\n", arbor_net_lan_port());
  std::fflush(stdout);
  for (std::string line; std::getline(std::cin, line) && line != "quit";) {
  }
  const bool closed = WaitFor([] {
    const demo_source_totals t = demo_source_snapshot();
    return t.closes == t.opens;
  });
  const bool clean = StopAndCheck();
  if (!closed) return Fail("source still open at quit");
  return clean ? 0 : 1;
}

int Dial(const char* host, int port, uint64_t chunks, const char* option,
         const std::string& lan_options) {
  SysInit(nullptr);
  SysRegisterDev(demo_sink_class());
  if (LanNetworking(1, reinterpret_cast<intptr_t>(lan_options.c_str()), 0,
                    0) < 0)
    return Fail("LanNetworking");
  const int16_t peer =
      SysAddLanEP(reinterpret_cast<intptr_t>(host), port, 0, 0);
  if (peer <= 0) return Fail("SysAddLanEP");
  const bool up = WaitFor([peer] {
    arbor_net_peer_info info{};
    return arbor_net_peer_stats(static_cast<uint16_t>(peer), &info) == 0 &&
           info.link_up != 0;
  });
  if (!up) return Fail("link to the serving peer");

  char dial[256];
  std::snprintf(dial, sizeof dial,
                "id=%d;ftN0=demo.source;opN0=%s;ftN1=net.;ftN2=demo.sink;"
                "opN2=/dev/null;",
                peer, option);
  char sid[RSC_SID_SLOT] = "";
  RSCDial(kDialAsc, sid, dial, static_cast<const char*>(nullptr));
  if (sid[0] == '\0') return Fail("RSCDial");
  const bool arrived =
      demo_sink_wait_chunks(chunks, static_cast<int>(kStepLimit.count() * 1000));
  const demo_sink_totals t = demo_sink_snapshot();
  std::printf("received %llu out-of-order %llu\n",
              static_cast<unsigned long long>(t.chunks),
              static_cast<unsigned long long>(t.out_of_order));
  RSCHangup(0, sid);
  const bool closed = demo_sink_wait_closed(kCloseWaitMs);
  const bool clean = StopAndCheck();
  std::fflush(stdout);
  if (!arrived) return Fail("chunks did not arrive");
  if (!closed) return Fail("sink not closed after the hang-up");
  return clean && t.out_of_order == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  demo_drivers_set_verbose(1);
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "serve" && argc <= 3)
    return Serve(argc > 2 ? argv[2] : "listen=127.0.0.1;");
  if (mode == "dial" && argc >= 5 && argc <= 7) {
    return Dial(argv[2], std::atoi(argv[3]),
                std::strtoull(argv[4], nullptr, 10),
                argc > 5 ? argv[5] : "500/1024",
                argc > 6 ? argv[6] : "listen=127.0.0.1;");
  }
  std::fprintf(stderr,
               "usage: %s serve [lan-options] | dial <host> <port> <chunks> "
               "[source-option] [lan-options]\n",
               argv[0]);
  return 2;
}
