// peers.cc - `arbor-peer peers`: listens to presence for a few intervals,
// without announcing itself, and lists the peers it heard.
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "host.h"

namespace arbor_peer {

int RunPeers(const PeersOptions& options) {
  if (options.lan.presence_interface.empty())
    return Error("peers listens to presence, which is off; give the interface to listen on "
                 "with --presence-interface (e.g. eth0)");
  std::string error;
  StartEngine("peers");
  if (!StartLan(options.lan, &error)) {
    StopEngine();
    return Error(error);
  }
  const int interval = options.lan.presence_interval_ms > 0 ? options.lan.presence_interval_ms : 1000;
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds(interval * options.intervals + interval / 2);
  int signal = 0;
  while (signal == 0 && std::chrono::steady_clock::now() < end) signal = WaitSignal(100);
  std::vector<PeerView> heard;
  for (PeerView& peer : ListPeers())
    if (peer.info.present) heard.push_back(std::move(peer));
  StopEngine();

  if (options.json) {
    nlohmann::json list = nlohmann::json::array();
    for (const PeerView& p : heard)
      list.push_back({{"id", p.id},
                      {"address", std::string(p.info.address)},
                      {"port", p.info.listen_port},
                      {"version", p.info.version},
                      {"name", p.name},
                      {"presence", p.presence}});
    std::printf("%s\n", list.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    return kExitOk;
  }
  if (heard.empty()) {
    std::printf("no peer heard on %s in %d interval(s)\n", options.lan.presence_interface.c_str(),
                options.intervals);
    return kExitOk;
  }
  std::printf("%-5s %-22s %-16s %s\n", "ID", "ADDRESS", "NAME", "PRESENCE");
  for (const PeerView& p : heard) {
    const std::string address = PeerAddress(p);
    std::printf("%-5u %-22s %-16s %s\n", p.id, address.c_str(),
                p.name.empty() ? "-" : p.name.c_str(), p.presence.c_str());
  }
  return kExitOk;
}

}  // namespace arbor_peer
