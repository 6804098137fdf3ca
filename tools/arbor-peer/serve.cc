// serve.cc - `arbor-peer serve`: a peer that offers its named devices on
// the LAN, says which peers come and go and which sessions begin and end,
// answers `top` on its control socket, and stops cleanly on SIGINT or
// SIGTERM.
#include <cstdio>
#include <map>

#include "arbor/net.h"
#include "arbor/observe.h"
#include "commands.h"
#include "control_socket.h"
#include "devices.h"
#include "host.h"
#include "sessions.h"
#include "snapshot_json.h"

namespace arbor_peer {

namespace {

// How often the main thread looks at peers and session events.
constexpr int kTickMs = 200;

// Peers as last seen: whether each was here (linked or heard).
using PeerStates = std::map<uint16_t, std::string>;

void PrintPeerChanges(PeerStates* seen) {
  PeerStates now;
  for (const PeerView& peer : ListPeers())
    if (peer.info.link_up || peer.info.present) now[peer.id] = PeerLabel(peer);
  for (const auto& [id, label] : now)
    if (seen->count(id) == 0) std::printf("peer %u up %s\n", id, label.c_str());
  for (const auto& [id, label] : *seen)
    if (now.count(id) == 0) std::printf("peer %u down %s\n", id, label.c_str());
  *seen = std::move(now);
}

void PrintSessionEvents(uint64_t* sessions_begun) {
  uint64_t dropped = 0;
  for (const SessionEvent& e : TakeSessionEvents(&dropped)) {
    const std::string owner = e.uid == 0 ? "this host" : "peer " + std::to_string(e.uid);
    if (e.kind == ARBOR_SESSION_BEGIN) {
      ++*sessions_begun;
      std::printf("session begin %s for %s: %s\n", e.sid.c_str(), owner.c_str(), e.chain.c_str());
    } else {
      // An empty reason is a hang-up made on this host.
      std::printf("session %s %s for %s: reason \"%s\"\n", SessionKindName(e.kind), e.sid.c_str(),
                  owner.c_str(), e.reason.empty() ? "hung up here" : e.reason.c_str());
    }
  }
  if (dropped != 0)
    std::printf("(%llu session events were lost: too many at once)\n",
                static_cast<unsigned long long>(dropped));
}

std::string DeviceList() {
  std::string text;
  for (const DeviceSpec& spec : Devices())
    text += (text.empty() ? "" : ", ") + spec.name + " (" + spec.kind + " " + RoleName(spec.role) +
            ")";
  return text;
}

}  // namespace

int RunServe(const ServeOptions& options) {
  std::string error;
  std::vector<DeviceSpec> devices = options.devices;
  if (devices.empty()) devices.push_back(DeviceSpec{Role::kSource, "test", "demo", ""});
  for (const DeviceSpec& spec : devices)
    if (!AddDevice(spec, &error)) return Error(error);

  StartEngine(options.name);
  if (!StartLan(options.lan, &error)) {
    StopEngine();
    return Error(error);
  }
  const int port = arbor_net_lan_port();
  const bool presence = !options.lan.presence_interface.empty();
  if (presence) Announce(options.name);

  ControlServer control;
  std::string control_path;
  if (!options.no_control) {
    control_path = options.control_socket;
    if (control_path.empty()) {
      control_path = DefaultControlPath(port);
      if (!PrepareControlDir(DefaultControlDir(), &error)) {
        StopEngine();
        return Error(error);
      }
    }
    const std::string name = options.name;
    if (!control.Start(
            control_path,
            [name, port](const std::string& request) {
              return request == "snapshot"
                         ? SnapshotJson(name, port)
                         : std::string("{\"error\":\"unknown request; ask \\\"snapshot\\\"\"}");
            },
            &error)) {
      StopEngine();
      return Error(error);
    }
  }

  std::printf("serving %s on %s:%d\n", options.name.c_str(), options.lan.listen.c_str(), port);
  std::printf("listening %d\n", port);
  std::printf("devices: %s\n", DeviceList().c_str());
  if (presence)
    std::printf("presence on %s as %s\n", options.lan.presence_interface.c_str(),
                options.name.c_str());
  if (!control_path.empty()) std::printf("control %s\n", control_path.c_str());
  std::printf("ready; stop with Ctrl-C\n");
  std::fflush(stdout);

  PeerStates peers;
  uint64_t begun = 0;
  int signal = 0;
  while (signal == 0) {
    signal = WaitSignal(kTickMs);
    PrintPeerChanges(&peers);
    PrintSessionEvents(&begun);
    std::fflush(stdout);
  }

  std::printf("stopping (%s): ending %u session(s)\n", SignalName(signal), OpenSessionCount());
  std::fflush(stdout);
  control.Stop();
  StopEngine();
  PrintSessionEvents(&begun);
  std::printf("stopped: %llu session(s) served\n", static_cast<unsigned long long>(begun));
  return kExitOk;
}

}  // namespace arbor_peer
