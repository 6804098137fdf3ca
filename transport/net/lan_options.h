// lan_options.h - the LAN options a host passes to InitLAN as dictionary text
// ("key=value;"), their defaults and their limits.
//
// Every limit is a named constant here; include/arbor/net.h documents the
// same keys for hosts. Parsing only reads: nothing starts until the whole
// text has been accepted.
#ifndef ARBOR_NET_LAN_OPTIONS_H
#define ARBOR_NET_LAN_OPTIONS_H

#include <cstdint>
#include <string>

#include "wire_codec.h"

namespace arbor::net {

// Most I/O threads a host may ask for; more only costs context switches.
inline constexpr int kMaxIoThreads = 16;
// Default byte budget of one connection's output queue (option "budget").
inline constexpr uint32_t kDefaultBudget = 4u << 20;
// Smallest budget: one whole frame must always fit, because the tail of a
// frame that the kernel took only in part is queued whatever the budget.
inline constexpr uint32_t kMinBudget = kMaxFrame;
// Largest budget, so that budget + control reserve stays far from overflow.
inline constexpr uint32_t kMaxBudget = 1u << 30;
// Default of the announced VERSION (option "version").
inline constexpr uint16_t kDefaultVersion = 100;
// Default peer time-out: a peer whose queue is not empty and that takes no
// byte for this long is declared gone (option "peer_timeout_ms").
inline constexpr int kDefaultPeerTimeoutMs = 10000;
// Bounds of peer_timeout_ms: shorter would cut peers off on a busy machine,
// longer keeps a dead peer's queue (and its sessions) for too long.
inline constexpr int kMinPeerTimeoutMs = 100;
inline constexpr int kMaxPeerTimeoutMs = 3600 * 1000;

struct LanOptions {
  std::string listen = "0.0.0.0";  // a literal IPv4 or IPv6 address
  uint16_t port = 0;               // 0: an ephemeral port
  int io_threads = 1;
  uint32_t budget = kDefaultBudget;
  uint16_t version = kDefaultVersion;
  int peer_timeout_ms = kDefaultPeerTimeoutMs;
};

// Reads option text (null for all defaults) into *out. Returns true, or false
// with a level-0 line naming the key and what to do, *out then unspecified.
// Unknown keys are ignored (the dictionary offers no way to list them); keys
// of parts not built yet ("key", "presence...") are refused, so that a host
// never believes the LAN is keyed or announced when it is not.
bool lan_options_parse(const char* text, LanOptions* out);

}  // namespace arbor::net

#endif  // ARBOR_NET_LAN_OPTIONS_H
