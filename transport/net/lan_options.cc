// lan_options.cc - parsing of InitLAN's option text through the support
// library's dictionary.
#include "lan_options.h"

#include <asio/ip/address.hpp>
#include <cstring>

#include "arbor/support.h"

namespace arbor::net {
namespace {


// Reads an integer option within [low, high] into *out when the key is
// present. Returns false, logged, for a value that is not such a number.
bool read_int(Dict dict, const char* key, int64_t low, int64_t high, int64_t* out) {
  const char* text = DictGetStr(dict, key);
  if (text == nullptr) return true;
  const int32_t value = DictGetInt(dict, key);
  // DictGetInt gives -1 for text that is not a number; no option takes -1.
  if (value < low || value > high) {
    ARBOR_LOG(0, "InitLAN: option %s=%s: give a number from %lld to %lld", key, text,
              static_cast<long long>(low), static_cast<long long>(high));
    return false;
  }
  *out = value;
  return true;
}

// Reads the presence keys into *out. false, logged, for a malformed one.
bool read_presence(Dict dict, LanOptions* out) {
  bool ok = true;
  if (const char* iface = DictGetStr(dict, "presence")) {
    if (iface[0] == '\0') {
      ARBOR_LOG(0, "InitLAN: option presence= is empty; name the interface or local IPv4 "
                   "address to announce on, or leave the key out to keep presence off");
      ok = false;
    }
    out->presence_interface = iface;
  }
  if (const char* group = DictGetStr(dict, "presence_group")) {
    std::error_code ec;
    const asio::ip::address address = asio::ip::make_address(group, ec);
    if (ec || !address.is_v4() || !address.is_multicast()) {
      ARBOR_LOG(0, "InitLAN: option presence_group=%s: give an IPv4 multicast address, best "
                   "in 239.255.0.0/16 (default %s)", group, kDefaultPresenceGroup);
      ok = false;
    }
    out->presence_group = group;
  }
  int64_t port = out->presence_port, interval = out->presence_interval_ms;
  ok = read_int(dict, "presence_port", 1, 65535, &port) && ok;
  ok = read_int(dict, "presence_interval_ms", kMinPresenceIntervalMs, kMaxPresenceIntervalMs,
                &interval) && ok;
  out->presence_port = static_cast<uint16_t>(port);
  out->presence_interval_ms = static_cast<int>(interval);
  // The time-out follows the interval unless it is given.
  int64_t timeout = interval * kPresenceLostAnnouncements + kPresenceTimeoutMarginMs;
  ok = read_int(dict, "presence_timeout_ms", interval * kMinPresenceIntervalsPerTimeout,
                kMaxPeerTimeoutMs, &timeout) && ok;
  out->presence_timeout_ms = static_cast<int>(timeout);
  return ok;
}

}  // namespace

bool lan_options_parse(const char* text, LanOptions* out) {
  *out = LanOptions{};
  if (text == nullptr) return true;
  Dict dict = DictCreate(text, static_cast<int32_t>(strnlen(text, INT32_MAX)));
  if (dict == nullptr) {
    ARBOR_LOG(0, "InitLAN: options \"%s\" are not \"key=value;\" text", text);
    return false;
  }
  bool ok = true;
  if (const char* key = DictGetStr(dict, "key")) {
    const size_t length = std::strlen(key);
    if (length < kMinKeyLength || length > kMaxKeyLength) {
      ARBOR_LOG(0, "InitLAN: option key: give a secret of %zu to %zu characters", kMinKeyLength,
                kMaxKeyLength);
      ok = false;
    } else {
      out->key = key;
    }
  }
  if (const char* listen = DictGetStr(dict, "listen")) out->listen = listen;
  int64_t port = out->port, threads = out->io_threads, budget = out->budget,
          version = out->version, timeout = out->peer_timeout_ms;
  ok = read_int(dict, "port", 0, 65535, &port) && ok;
  ok = read_int(dict, "io_threads", 1, kMaxIoThreads, &threads) && ok;
  // DictGetInt reads 32 bits; kMaxBudget fits in an int32_t.
  ok = read_int(dict, "budget", kMinBudget, kMaxBudget, &budget) && ok;
  ok = read_int(dict, "version", 0, 65535, &version) && ok;
  ok = read_int(dict, "peer_timeout_ms", kMinPeerTimeoutMs, kMaxPeerTimeoutMs, &timeout) && ok;
  ok = read_presence(dict, out) && ok;
  DictDestroy(dict);
  out->port = static_cast<uint16_t>(port);
  out->io_threads = static_cast<int>(threads);
  out->budget = static_cast<uint32_t>(budget);
  out->version = static_cast<uint16_t>(version);
  out->peer_timeout_ms = static_cast<int>(timeout);
  return ok;
}

}  // namespace arbor::net
