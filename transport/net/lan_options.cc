// lan_options.cc - parsing of InitLAN's option text through the support
// library's dictionary.
#include "lan_options.h"

#include <cstring>

#include "arbor/support.h"

namespace arbor::net {
namespace {

// Keys of features that this build does not have yet. Accepting them would
// make a host believe the LAN is keyed or announced.
constexpr const char* kNotYetKeys[] = {"key", "presence", "presence_group",
                                       "presence_port", "presence_interval_ms"};

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
  for (const char* key : kNotYetKeys) {
    if (DictGetStr(dict, key) != nullptr) {
      ARBOR_LOG(0, "InitLAN: option %s is not supported by this build yet; remove it", key);
      ok = false;
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
  DictDestroy(dict);
  out->port = static_cast<uint16_t>(port);
  out->io_threads = static_cast<int>(threads);
  out->budget = static_cast<uint32_t>(budget);
  out->version = static_cast<uint16_t>(version);
  out->peer_timeout_ms = static_cast<int>(timeout);
  return ok;
}

}  // namespace arbor::net
