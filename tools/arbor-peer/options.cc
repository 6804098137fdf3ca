// options.cc - the argument languages of arbor-peer (options.h): device
// specs, chains, endpoints and the LAN option text.
#include "options.h"

#include <algorithm>
#include <charconv>

namespace arbor_peer {

namespace {

// The transport's presence interval when none is given (include/arbor/net.h).
constexpr int kDefaultPresenceIntervalMs = 1000;

std::string_view Trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

bool Fail(std::string* error, std::string text) {
  *error = std::move(text);
  return false;
}

bool IsNetHop(std::string_view name) { return name == "net" || name == "net."; }

}  // namespace

const char* RoleName(Role role) {
  switch (role) {
    case Role::kSource:
      return "source";
    case Role::kSink:
      return "sink";
    case Role::kTransform:
      return "transform";
  }
  return "device";
}

bool PlainText(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) {
    return c == ';' || c == '=' || c == '\\' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
  });
}

bool ValidDeviceName(std::string_view name, std::string* error) {
  if (name.empty() || name.size() > kMaxNameLength)
    return Fail(error, "device name \"" + std::string(name) + "\" must have 1 to " +
                           std::to_string(kMaxNameLength) + " characters");
  const bool plain = std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '_' || c == '.' || c == '-';
  });
  if (!plain)
    return Fail(error, "device name \"" + std::string(name) +
                           "\" may hold only letters, digits, '_', '.' and '-'");
  if (IsNetHop(name) || name.starts_with("net."))
    return Fail(error, "device name \"" + std::string(name) +
                           "\" is taken by the network hop; choose another name");
  return true;
}

bool ParseDeviceSpec(std::string_view text, Role role, DeviceSpec* out, std::string* error) {
  DeviceSpec spec;
  spec.role = role;
  std::string_view head = text;
  const auto colon = text.find(':');
  if (colon != std::string_view::npos) {
    head = text.substr(0, colon);
    spec.arg = std::string(Trim(text.substr(colon + 1)));
  }
  const auto equals = head.find('=');
  if (equals != std::string_view::npos) {
    spec.name = std::string(Trim(head.substr(0, equals)));
    spec.kind = std::string(Trim(head.substr(equals + 1)));
  } else {
    spec.kind = std::string(Trim(head));
    spec.name = spec.kind;
  }
  const std::string flag = std::string("--") + RoleName(role);
  if (spec.kind.empty())
    return Fail(error, flag + " \"" + std::string(text) +
                           "\" names no kind; write [name=]kind[:arg], e.g. test=demo:200/1024");
  if (!ValidDeviceName(spec.name, error)) return false;
  if (colon != std::string_view::npos && spec.arg.empty())
    return Fail(error, flag + " \"" + std::string(text) +
                           "\" has an empty argument after ':'; drop the ':' or give one");
  *out = std::move(spec);
  return true;
}

bool NamesDistinct(const std::vector<DeviceSpec>& specs, std::string* error) {
  for (size_t i = 0; i < specs.size(); ++i) {
    for (size_t j = 0; j < specs.size(); ++j) {
      if (i == j) continue;
      const std::string& a = specs[i].name;
      const std::string& b = specs[j].name;
      if (a == b && i < j)
        return Fail(error, "device name \"" + a + "\" is given twice; give each device its own name");
      if (a != b && b.find(a) != std::string::npos)
        return Fail(error, "device names \"" + a + "\" and \"" + b +
                               "\" overlap (the engine finds a device by any part of its name); "
                               "rename one");
    }
  }
  return true;
}

bool ParseChain(std::string_view text, std::vector<Hop>* hops, std::string* error) {
  std::vector<Hop> chain;
  size_t net_hops = 0;
  for (std::string_view rest = text;;) {
    const auto arrow = rest.find("->");
    const std::string_view piece = Trim(rest.substr(0, arrow));
    if (piece.empty())
      return Fail(error, "chain \"" + std::string(text) +
                             "\" has an empty hop; write it as \"source -> net -> sink\"");
    Hop hop;
    const auto colon = piece.find(':');
    hop.name = std::string(Trim(piece.substr(0, colon)));
    if (colon != std::string_view::npos) hop.option = std::string(Trim(piece.substr(colon + 1)));
    if (IsNetHop(hop.name)) {
      if (!hop.option.empty())
        return Fail(error, "the network hop takes no option; write \"net\" alone");
      hop.net = true;
      hop.name = "net.";
      ++net_hops;
    } else if (!ValidDeviceName(hop.name, error)) {
      return false;
    }
    chain.push_back(std::move(hop));
    if (arrow == std::string_view::npos) break;
    rest = rest.substr(arrow + 2);
  }
  if (net_hops != 1)
    return Fail(error, "chain \"" + std::string(text) +
                           "\" needs exactly one network hop \"net\" between the peer's source "
                           "and this side's sink");
  if (chain.front().net || chain.back().net)
    return Fail(error, "chain \"" + std::string(text) +
                           "\" has the network hop at an end; put \"net\" between a source and a "
                           "sink");
  *hops = std::move(chain);
  return true;
}

std::string ChainText(const std::vector<Hop>& hops) {
  std::string text;
  for (const Hop& hop : hops) {
    if (!text.empty()) text += " -> ";
    text += hop.name;
    if (!hop.option.empty()) text += ":" + hop.option;
  }
  return text;
}

bool ParseEndpoint(std::string_view text, Endpoint* out, std::string* error) {
  std::string_view host;
  std::string_view port;
  if (text.starts_with("[")) {
    const auto close = text.find("]:");
    if (close == std::string_view::npos)
      return Fail(error, "endpoint \"" + std::string(text) + "\": write an IPv6 one as [addr]:port");
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos)
      return Fail(error, "endpoint \"" + std::string(text) +
                             "\" has no port; write host:port, e.g. 127.0.0.1:7000");
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  unsigned value = 0;
  const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), value);
  if (host.empty() || host.size() > 255 || !PlainText(host) || ec != std::errc() ||
      end != port.data() + port.size() || value < 1 || value > 65535)
    return Fail(error, "endpoint \"" + std::string(text) +
                           "\" is not host:port with a port of 1 to 65535");
  out->host = std::string(host);
  out->port = static_cast<uint16_t>(value);
  return true;
}

std::string LanOptionText(const LanConfig& lan) {
  std::string text = "listen=" + lan.listen + ";port=" + std::to_string(lan.port) + ";";
  if (!lan.key.empty()) text += "key=" + lan.key + ";";
  if (!lan.presence_interface.empty()) {
    text += "presence=" + lan.presence_interface + ";";
    if (lan.presence_port > 0) text += "presence_port=" + std::to_string(lan.presence_port) + ";";
    if (lan.presence_interval_ms > 0)
      text += "presence_interval_ms=" + std::to_string(lan.presence_interval_ms) + ";";
  }
  return text;
}

int PresenceTimeoutMs(const LanConfig& lan) {
  const int interval =
      lan.presence_interval_ms > 0 ? lan.presence_interval_ms : kDefaultPresenceIntervalMs;
  return 3 * interval + 500;
}

}  // namespace arbor_peer
