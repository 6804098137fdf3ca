// arbor_test_wan_peer - one peer of the cross-process WAN tests: the engine,
// the socket transport and a sample driver, signing in to the service
// stand-in (arbor_test_service) and serving the session it relays.
//
//   arbor_test_wan_peer source <host> <port> <login> [ca-file]
//     Registers demo.source and signs in (TLS 1.3 checked against ca-file
//     when one is given, plain TCP otherwise). Serves until "quit" arrives
//     on standard input; then signs out, waits for its source to be closed
//     and stops.
//   arbor_test_wan_peer sink <host> <port> <login> <chunks> [ca-file]
//     Registers demo.sink, signs in, waits for <chunks> chunks of the
//     session the service relays to it, prints "received <n> out-of-order
//     <m>", hangs the session up (sid kServiceSid), waits for the sink to be
//     closed, signs out and stops.
//
// Every call of the host callback prints "host code <n>". Both print
// "clean" after SysExit when nothing of the engine is left. Exit status 0
// when every step held; each failure prints one line naming the step.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "arbor/device_class.h"
#include "arbor/net.h"
#include "arbor/rsc.h"
#include "arbor/sys.h"
#include "demo_drivers.h"
#include "peer_common.h"

namespace {

// The sid the stand-in gives the session it relays.
constexpr char kServiceSid[] = "v1";
constexpr int kCloseWaitMs = 10000;

std::atomic<int> sign_ins{0};

void OnHost(int32_t code, const char*, int32_t) {
  if (code == 0) ++sign_ins;
  std::printf("host code %d\n", code);
}

// Starts the library with one driver and signs in; false (with the failed
// step printed) when the sign-in does not come.
bool StartAndSignIn(cdef* driver, const char* host, int port, const char* login,
                    const char* ca) {
  SysInit(OnHost);
  peer::ObserveSessions();
  SysRegisterDev(driver);
  if (ca != nullptr) {
    const std::string options = std::string("ca_file=") + ca + ";";
    if (arbor_net_wan_options(options.c_str()) != 0) return peer::Fail("arbor_net_wan_options");
  }
  if (SysLogin(login, "", "", host, port, ca != nullptr ? nullptr : "Protocol=TCP;") < 0)
    return peer::Fail("SysLogin");
  if (!peer::WaitFor([] { return sign_ins.load() > 0; })) return peer::Fail("sign-in");
  std::printf("signed in\n");
  return true;
}

int Source(const char* host, int port, const char* login, const char* ca) {
  if (!StartAndSignIn(demo_source_class(), host, port, login, ca)) return 1;
  for (std::string line; std::getline(std::cin, line) && line != "quit";) {
  }
  SysLogout();
  const bool closed = peer::WaitFor([] {
    const demo_source_totals t = demo_source_snapshot();
    return t.closes == t.opens;
  });
  const bool clean = peer::StopAndCheck();
  if (!closed) return peer::Fail("source still open at quit");
  return clean ? 0 : 1;
}

int Sink(const char* host, int port, const char* login, uint64_t chunks, const char* ca) {
  if (!StartAndSignIn(demo_sink_class(), host, port, login, ca)) return 1;
  const bool arrived = demo_sink_wait_chunks(
      chunks, static_cast<int>(std::chrono::milliseconds(peer::kStepLimit).count()));
  const demo_sink_totals t = demo_sink_snapshot();
  std::printf("received %llu out-of-order %llu\n", static_cast<unsigned long long>(t.chunks),
              static_cast<unsigned long long>(t.out_of_order));
  // The sink closes before "SessionDelete" leaves: sign out only once the
  // link has carried it, or the service would never hear of the hang-up.
  arbor_net_peer_info before{};
  arbor_net_wan_stats(&before);
  RSCHangup(0, kServiceSid);
  const bool closed = demo_sink_wait_closed(kCloseWaitMs);
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
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "source" && (argc == 5 || argc == 6))
    return Source(argv[2], std::atoi(argv[3]), argv[4], argc == 6 ? argv[5] : nullptr);
  if (mode == "sink" && (argc == 6 || argc == 7))
    return Sink(argv[2], std::atoi(argv[3]), argv[4], std::strtoull(argv[5], nullptr, 10),
                argc == 7 ? argv[6] : nullptr);
  std::fprintf(stderr,
               "usage: %s source <host> <port> <login> [ca-file] | "
               "sink <host> <port> <login> <chunks> [ca-file]\n",
               argv[0]);
  return 2;
}
