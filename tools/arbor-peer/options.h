// options.h - what the subcommands of arbor-peer are given, and the small
// languages of their arguments: device specs ("name=kind:arg"), chains
// ("test -> net -> null") and endpoints ("host:port"). Parsing is pure: no
// engine call, no I/O, so every rule here can be checked on its own.
//
// Every parse function returns true, or false with *error set to one line
// that says what is wrong and what to write instead.
#ifndef ARBOR_TOOLS_PEER_OPTIONS_H
#define ARBOR_TOOLS_PEER_OPTIONS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace arbor_peer {

// Device names: what a chain calls a device, and the engine's resource name.
inline constexpr size_t kMaxNameLength = 63;
// Device specs a process registers at most.
inline constexpr size_t kMaxDevices = 16;

enum class Role { kSource, kSink, kTransform };

const char* RoleName(Role role);

// One device to register: --source/--sink/--transform "[name=]kind[:arg]".
struct DeviceSpec {
  Role role = Role::kSource;
  std::string name;  // the name chains use; the kind when not given
  std::string kind;  // demo, null, file, gst
  std::string arg;   // the kind's argument; "" when not given
};

bool ParseDeviceSpec(std::string_view text, Role role, DeviceSpec* out, std::string* error);

// A device name is 1..63 of [A-Za-z0-9_.-], and is neither "net" nor begins
// with "net.", which name the network hop.
bool ValidDeviceName(std::string_view name, std::string* error);

// The engine finds a device by any part of its resource name, so no
// registered name may lie inside another ("test" inside "test2").
bool NamesDistinct(const std::vector<DeviceSpec>& specs, std::string* error);

// One hop of a chain: "name" or "name:option". The network hop is "net"
// (written "net." too) and takes no option.
struct Hop {
  std::string name;
  std::string option;
  bool net = false;
};

// "a -> b -> net -> c": exactly one network hop, neither first nor last.
bool ParseChain(std::string_view text, std::vector<Hop>* hops, std::string* error);

// The chain as it reads: "test -> net. -> null".
std::string ChainText(const std::vector<Hop>& hops);

// "host:port", "[v6]:port"; port 1..65535.
struct Endpoint {
  std::string host;
  uint16_t port = 0;
};

bool ParseEndpoint(std::string_view text, Endpoint* out, std::string* error);

// Options of the LAN side that every subcommand shares.
struct LanConfig {
  std::string listen = "127.0.0.1";
  int port = 0;                    // 0: any free port
  std::string presence_interface;  // "": presence off
  int presence_port = 0;           // 0: the transport's default
  int presence_interval_ms = 0;    // 0: the transport's default
  std::string key;                 // "": an open LAN
};

// The option text for LanNetworking: "listen=...;port=...;" and, only when
// an interface is given, the presence keys.
std::string LanOptionText(const LanConfig& lan);

// How long presence takes to forget a silent peer, by the transport's rule
// (three intervals and a half second), for waits that outlast it.
int PresenceTimeoutMs(const LanConfig& lan);

// Text safe inside a dictionary value and a presence name: no ';', '=',
// '\' or control bytes.
bool PlainText(std::string_view text);

}  // namespace arbor_peer

#endif  // ARBOR_TOOLS_PEER_OPTIONS_H
