// top.cc - `arbor-peer top`: the forest of a serving peer, read from its
// control socket: each root as a tree with the sessions that end in it and
// the chunks and bytes per second through every node (the difference of
// two snapshots), refreshed every interval; or one snapshot as JSON.
//
// What the socket answers comes from another process: every field is read
// with a type check and a default, and an answer that is not JSON ends top
// with an error line, never a crash.
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "control_socket.h"
#include "host.h"

namespace arbor_peer {

namespace {

using nlohmann::json;

constexpr int kRequestTimeoutMs = 3000;
constexpr int kLabelWidth = 44;

// The control socket to ask: given, found from the port, or the only live
// one in the default directory.
bool FindSocket(const TopOptions& options, std::string* path, std::string* error) {
  if (!options.control_socket.empty()) {
    *path = options.control_socket;
    return true;
  }
  if (options.port > 0) {
    *path = DefaultControlPath(options.port);
    return true;
  }
  const std::string dir = DefaultControlDir();
  std::vector<std::string> live;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* entry = readdir(d)) {
      const std::string name = entry->d_name;
      if (name.starts_with("serve-") && name.ends_with(".sock") &&
          ControlSocketAnswers(dir + "/" + name))
        live.push_back(name);
    }
    closedir(d);
  }
  if (live.size() == 1) {
    *path = dir + "/" + live.front();
    return true;
  }
  if (live.empty()) {
    *error = "no arbor-peer serve found in " + dir +
             "; start one, or name its socket with --control-socket";
  } else {
    std::string names;
    for (const std::string& n : live) names += (names.empty() ? "" : ", ") + n;
    *error = "several serving peers in " + dir + " (" + names +
             "); pick one with --port or --control-socket";
  }
  return false;
}

template <typename T>
T Get(const json& object, const char* key, T fallback) {
  if (!object.is_object()) return fallback;
  const auto it = object.find(key);
  if (it == object.end()) return fallback;
  if constexpr (std::is_same_v<T, std::string>) {
    return it->is_string() ? it->template get<std::string>() : fallback;
  } else if constexpr (std::is_same_v<T, bool>) {
    return it->is_boolean() ? it->template get<bool>() : fallback;
  } else {
    return it->is_number() ? it->template get<T>() : fallback;
  }
}

const json& Array(const json& object, const char* key) {
  static const json kEmpty = json::array();
  if (!object.is_object()) return kEmpty;
  const auto it = object.find(key);
  return it != object.end() && it->is_array() ? *it : kEmpty;
}

std::string Rate(double bytes_per_second) {
  char text[32];
  if (bytes_per_second >= 1e6)
    std::snprintf(text, sizeof text, "%.2f MB/s", bytes_per_second / 1e6);
  else
    std::snprintf(text, sizeof text, "%.1f kB/s", bytes_per_second / 1e3);
  return text;
}

// Counters of one node in the previous snapshot, by its path from the root.
struct Previous {
  uint64_t taken_ns = 0;
  std::map<std::string, std::pair<uint64_t, uint64_t>> by_path;  // chunks, bytes
};

// A device by its name; a network hop as the pipe it sends on (or, for a
// root, receives from) or, under a pipe, as the peer it feeds.
std::string NodeLabel(const json& node, const json* parent,
                      const std::map<int64_t, std::string>& peer_labels) {
  const int64_t descriptor = Get<int64_t>(node, "descriptor", -1);
  if (!Get<bool>(node, "net", false)) {
    const std::string name = Get<std::string>(node, "name", "");
    return name.empty() ? "(unnamed)" : name;
  }
  if (parent != nullptr && Get<bool>(*parent, "net", false)) {
    const auto it = peer_labels.find(descriptor);
    return "to peer " + std::to_string(descriptor) +
           (it != peer_labels.end() ? " " + it->second : std::string());
  }
  std::string label = "net pipe " + std::to_string(descriptor);
  if (parent == nullptr) {
    const int64_t uid = Get<int64_t>(node, "uid", 0);
    const auto it = peer_labels.find(uid);
    label += " from peer " + std::to_string(uid) +
             (it != peer_labels.end() ? " " + it->second : std::string());
  }
  return label;
}

void Render(const json& shot, Previous* previous, bool clear) {
  const json& nodes = Array(shot, "nodes");
  const json& sessions = Array(shot, "sessions");
  const json& peers = Array(shot, "peers");
  const json peer_info = shot.is_object() && shot.contains("peer") ? shot["peer"] : json::object();
  const uint64_t taken = Get<uint64_t>(shot, "taken_ns", 0);
  const double dt = previous->taken_ns != 0 && taken > previous->taken_ns
                        ? static_cast<double>(taken - previous->taken_ns) / 1e9
                        : 0;

  std::map<int64_t, std::string> peer_labels;
  size_t linked = 0;
  for (const json& p : peers) {
    std::string label = Get<std::string>(p, "address", "?");
    const int port = Get<int>(p, "port", 0);
    if (port != 0) label += ":" + std::to_string(port);
    const std::string name = Get<std::string>(p, "name", "");
    if (!name.empty()) label += " (" + name + ")";
    peer_labels[Get<int64_t>(p, "id", 0)] = label;
    linked += Get<bool>(p, "link_up", false) ? 1 : 0;
  }
  size_t roots = 0;
  for (const json& n : nodes) roots += Get<int>(n, "parent", -1) < 0 ? 1 : 0;

  if (clear) std::printf("\033[H\033[2J");
  std::printf("%s on port %d (pid %d): %zu root(s), %u session(s), %zu peer(s) linked\n",
              Get<std::string>(peer_info, "name", "?").c_str(), Get<int>(peer_info, "port", 0),
              Get<int>(peer_info, "pid", 0), roots, Get<unsigned>(shot, "session_count", 0),
              linked);
  if (nodes.empty()) std::printf("  (no sessions)\n");

  std::vector<std::string> paths(nodes.size());
  Previous next;
  next.taken_ns = taken;
  for (size_t i = 0; i < nodes.size(); ++i) {
    const json& n = nodes[i];
    const int parent = Get<int>(n, "parent", -1);
    const int depth = std::max(0, std::min(Get<int>(n, "depth", 0), 32));
    const bool has_parent = parent >= 0 && static_cast<size_t>(parent) < i;
    const std::string label = NodeLabel(n, has_parent ? &nodes[parent] : nullptr, peer_labels);
    paths[i] = (has_parent ? paths[parent] : std::string()) +
               "/" + label + "#" + std::to_string(Get<int64_t>(n, "descriptor", -1));
    const uint64_t chunks = Get<uint64_t>(n, "chunks", 0), bytes = Get<uint64_t>(n, "bytes", 0);
    next.by_path[paths[i]] = {chunks, bytes};
    std::string rates = "       -";
    const auto before = previous->by_path.find(paths[i]);
    if (dt > 0 && before != previous->by_path.end() && chunks >= before->second.first &&
        bytes >= before->second.second) {
      char text[64];
      std::snprintf(text, sizeof text, "%8.1f chunks/s  %12s",
                    static_cast<double>(chunks - before->second.first) / dt,
                    Rate(static_cast<double>(bytes - before->second.second) / dt).c_str());
      rates = text;
    }
    std::string line = std::string(static_cast<size_t>(depth) * 2, ' ') +
                       (depth > 0 ? "└ " : "") + label +
                       (Get<bool>(n, "active", false) ? "" : " (not active)");
    if (line.size() < kLabelWidth) line.resize(kLabelWidth, ' ');
    std::printf("%s %s  total %llu B\n", line.c_str(), rates.c_str(),
                static_cast<unsigned long long>(bytes));
    for (const json& s : sessions) {
      if (Get<int64_t>(s, "node", -1) != static_cast<int64_t>(i)) continue;
      const int64_t uid = Get<int64_t>(s, "uid", 0);
      std::printf("%s  session %s for %s (AS %d)\n", std::string(static_cast<size_t>(depth) * 2 + 2, ' ').c_str(),
                  Get<std::string>(s, "sid", "?").c_str(),
                  uid == 0 ? "this host" : ("peer " + std::to_string(uid)).c_str(),
                  Get<int>(s, "ascode", 0));
    }
  }
  if (!peers.empty()) std::printf("peers:\n");
  for (const json& p : peers) {
    std::printf("  %-4lld %-36s %-5s in %llu B  out %llu B  dropped %llu\n",
                static_cast<long long>(Get<int64_t>(p, "id", 0)),
                peer_labels[Get<int64_t>(p, "id", 0)].c_str(),
                Get<bool>(p, "link_up", false) ? "up" : "down",
                static_cast<unsigned long long>(Get<uint64_t>(p, "bytes_in", 0)),
                static_cast<unsigned long long>(Get<uint64_t>(p, "bytes_out", 0)),
                static_cast<unsigned long long>(Get<uint64_t>(p, "media_dropped", 0)));
  }
  std::fflush(stdout);
  *previous = std::move(next);
}

}  // namespace

int RunTop(const TopOptions& options) {
  std::string path, error, reply;
  if (!FindSocket(options, &path, &error)) return Error(error);
  const bool clear = !options.json && isatty(STDOUT_FILENO);
  Previous previous;
  for (int round = 0; options.iterations == 0 || round < options.iterations; ++round) {
    if (round > 0 && WaitSignal(static_cast<int>(options.interval * 1000)) != 0) break;
    if (!ControlRequest(path, "snapshot", kRequestTimeoutMs, &reply, &error)) return Error(error);
    const json shot = json::parse(reply, nullptr, false);
    if (shot.is_discarded() || !shot.is_object())
      return Error("the serving peer on " + path + " answered something that is not JSON");
    if (shot.contains("error") && shot["error"].is_string())
      return Error("the serving peer on " + path + " says: " + shot["error"].get<std::string>());
    if (options.json) {
      std::printf("%s\n", reply.c_str());
      return kExitOk;
    }
    if (!clear && round > 0) std::printf("\n");
    Render(shot, &previous, clear);
  }
  return kExitOk;
}

}  // namespace arbor_peer
