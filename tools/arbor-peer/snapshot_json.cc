// snapshot_json.cc - a forest snapshot as JSON (snapshot_json.h).
#include "snapshot_json.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <vector>

#include "arbor/observe.h"
#include "host.h"

namespace arbor_peer {

namespace {

using nlohmann::json;

// Snapshots retried at most when the forest grew between two takes.
constexpr int kSnapshotTries = 4;
constexpr unsigned kFirstCapacity = 64;

std::string Field(const char* text, size_t size) { return std::string(text, strnlen(text, size)); }

// The snapshot, with arrays grown until everything fits (or the limit).
// false when the engine is not running.
bool Take(std::vector<arbor_node_info>* nodes, std::vector<arbor_session_info>* sessions,
          arbor_forest_snapshot* shot) {
  unsigned node_capacity = kFirstCapacity, session_capacity = kFirstCapacity;
  for (int attempt = 0; attempt < kSnapshotTries; ++attempt) {
    nodes->assign(node_capacity, arbor_node_info{});
    sessions->assign(session_capacity, arbor_session_info{});
    *shot = arbor_forest_snapshot{};
    shot->nodes = nodes->data();
    shot->node_capacity = node_capacity;
    shot->sessions = sessions->data();
    shot->session_capacity = session_capacity;
    if (arbor_forest_snapshot_take(shot) != 0) return false;
    const bool fits = shot->node_count <= node_capacity && shot->session_count <= session_capacity;
    if (fits || (node_capacity >= kMaxSnapshotNodes && session_capacity >= kMaxSnapshotNodes))
      break;
    node_capacity = std::min(kMaxSnapshotNodes, std::max(node_capacity, shot->node_count + 16));
    session_capacity =
        std::min(kMaxSnapshotNodes, std::max(session_capacity, shot->session_count + 16));
  }
  nodes->resize(std::min<size_t>(shot->node_count, shot->node_capacity));
  sessions->resize(std::min<size_t>(shot->session_count, shot->session_capacity));
  return true;
}

}  // namespace

unsigned OpenSessionCount() {
  std::vector<arbor_node_info> nodes;
  std::vector<arbor_session_info> sessions;
  arbor_forest_snapshot shot{};
  return Take(&nodes, &sessions, &shot) ? shot.session_count : 0;
}

std::string SnapshotJson(const std::string& peer_name, int port) {
  std::vector<arbor_node_info> nodes;
  std::vector<arbor_session_info> sessions;
  arbor_forest_snapshot shot{};
  json out;
  out["peer"] = {{"name", peer_name}, {"port", port}, {"pid", static_cast<int>(getpid())}};
  if (!Take(&nodes, &sessions, &shot)) {
    out["error"] = "the engine is not running";
    return out.dump(-1, ' ', false, json::error_handler_t::replace);
  }
  out["taken_ns"] = shot.taken_ns;
  out["node_count"] = shot.node_count;
  out["session_count"] = shot.session_count;
  json& node_list = out["nodes"] = json::array();
  for (size_t i = 0; i < nodes.size(); ++i) {
    const arbor_node_info& n = nodes[i];
    node_list.push_back({{"index", i},
                         {"parent", n.parent},
                         {"depth", n.depth},
                         {"name", Field(n.name, sizeof n.name)},
                         {"descriptor", n.descriptor},
                         {"active", n.active != 0},
                         {"net", n.net != 0},
                         {"children", n.children},
                         {"sessions", n.sessions},
                         {"uid", n.uid},
                         {"chunks", n.chunks},
                         {"bytes", n.bytes}});
  }
  json& session_list = out["sessions"] = json::array();
  for (const arbor_session_info& s : sessions)
    session_list.push_back({{"sid", Field(s.sid, sizeof s.sid)},
                            {"node", s.node},
                            {"uid", s.uid},
                            {"ascode", s.ascode}});
  json& peer_list = out["peers"] = json::array();
  for (const PeerView& p : ListPeers())
    peer_list.push_back({{"id", p.id},
                         {"address", Field(p.info.address, sizeof p.info.address)},
                         {"port", p.info.listen_port},
                         {"link_up", p.info.link_up != 0},
                         {"present", p.info.present != 0},
                         {"name", p.name},
                         {"bytes_in", p.info.bytes_in},
                         {"bytes_out", p.info.bytes_out},
                         {"media_dropped", p.info.media_dropped}});
  // Names come from drivers and peers: bytes that are not UTF-8 are
  // replaced rather than refused.
  return out.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace arbor_peer
