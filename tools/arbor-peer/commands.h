// commands.h - the subcommands of arbor-peer, each in a file of its own
// (serve.cc, dial.cc, peers.cc, top.cc), with what main.cc parses for them.
// Each Run function returns the process's exit status (host.h).
#ifndef ARBOR_TOOLS_PEER_COMMANDS_H
#define ARBOR_TOOLS_PEER_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "options.h"

namespace arbor_peer {

// The AS code of this tool's dials: the serving peer addresses the
// session's notices (RUN_FAIL, SessionDelete) to it.
inline constexpr int32_t kDialAsc = 200;
// The LAN port serve listens on unless told otherwise.
inline constexpr int kDefaultServePort = 7000;

struct ServeOptions {
  LanConfig lan;
  std::string name;            // presence and catalogue name
  std::vector<DeviceSpec> devices;
  std::string control_socket;  // "": the default path for the port
  bool no_control = false;
};

struct DialOptions {
  LanConfig lan;
  std::string name;       // this side's catalogue name
  std::string peer_name;  // --peer: found by presence
  std::string to;         // --to host:port
  std::string chain;
  std::vector<DeviceSpec> sinks;
  double seconds = 5;     // of streaming; 0: until a signal
  double wait = 10;       // for the peer to be found and connected
  double setup = 10;      // from the dial to the first chunk
  bool progress = true;
};

struct PeersOptions {
  LanConfig lan;
  int intervals = 3;  // presence intervals to listen for
  bool json = false;
};

struct TopOptions {
  std::string control_socket;  // "": found from port, or the only one there
  int port = 0;
  bool json = false;
  int iterations = 0;  // 0: until a signal
  double interval = 1;
};

int RunServe(const ServeOptions& options);
int RunDial(const DialOptions& options);
int RunPeers(const PeersOptions& options);
int RunTop(const TopOptions& options);

}  // namespace arbor_peer

#endif  // ARBOR_TOOLS_PEER_COMMANDS_H
