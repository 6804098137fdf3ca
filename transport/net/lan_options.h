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

// Presence (announcing this peer by UDP multicast and hearing others).
// Default group: in 239.255.0.0/16, the administratively scoped block meant
// for one site, so it is never routed to the Internet.
inline constexpr const char* kDefaultPresenceGroup = "239.255.77.77";
// Default UDP port of the presence group.
inline constexpr uint16_t kDefaultPresencePort = 47477;
// Default time between two announcements. A new peer is heard within one.
inline constexpr int kDefaultPresenceIntervalMs = 1000;
// Bounds of the interval: faster floods the LAN with datagrams, slower makes
// a newcomer wait too long to be seen.
inline constexpr int kMinPresenceIntervalMs = 50;
inline constexpr int kMaxPresenceIntervalMs = 60 * 1000;
// A peer is declared gone when none of its announcements arrived for the
// presence time-out. Default: three lost announcements in a row, plus a
// margin for the jitter of a busy sender.
inline constexpr int kPresenceLostAnnouncements = 3;
inline constexpr int kPresenceTimeoutMarginMs = 500;
// The time-out must cover at least two intervals, so that one lost
// datagram never makes a live peer leave; and it has the peer time-out's
// upper bound.
inline constexpr int kMinPresenceIntervalsPerTimeout = 2;

// Bounds of the LAN key (option "key"): shorter is guessed too easily by
// anyone who reaches the port; longer only costs memory, as HMAC hashes a
// long key down anyway.
inline constexpr size_t kMinKeyLength = 8;
inline constexpr size_t kMaxKeyLength = 256;

struct LanOptions {
  std::string listen = "0.0.0.0";  // a literal IPv4 or IPv6 address
  uint16_t port = 0;               // 0: an ephemeral port
  int io_threads = 1;
  uint32_t budget = kDefaultBudget;
  uint16_t version = kDefaultVersion;
  int peer_timeout_ms = kDefaultPeerTimeoutMs;
  std::string key;  // the LAN key; empty: the LAN is open
  // Presence: off while presence_interface is empty.
  std::string presence_interface;  // an interface name or a local IPv4 address
  std::string presence_group = kDefaultPresenceGroup;  // an IPv4 multicast address
  uint16_t presence_port = kDefaultPresencePort;
  int presence_interval_ms = kDefaultPresenceIntervalMs;
  int presence_timeout_ms = kDefaultPresenceIntervalMs * kPresenceLostAnnouncements +
                            kPresenceTimeoutMarginMs;
};

// Reads option text (null for all defaults) into *out. Returns true, or false
// with a level-0 line naming the key and what to do, *out then unspecified.
// Unknown keys are ignored (the dictionary offers no way to list them); a
// key of the wrong length is refused, so that a host never believes the
// LAN is keyed when it is not. Presence keys are checked for form only
// here; whether the interface exists is known when presence starts.
bool lan_options_parse(const char* text, LanOptions* out);

}  // namespace arbor::net

#endif  // ARBOR_NET_LAN_OPTIONS_H
