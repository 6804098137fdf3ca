// snapshot_json.h - the forest of a serving peer as JSON: what its control
// socket answers to "snapshot", and what `top` reads back.
//
// {"peer": {"name", "port", "pid"}, "taken_ns", "node_count",
//  "session_count", "nodes": [{"index", "parent", "depth", "name",
//  "descriptor", "active", "net", "children", "sessions", "uid", "chunks",
//  "bytes"}], "sessions": [{"sid", "node", "uid", "ascode"}],
//  "peers": [{"id", "address", "port", "link_up", "present", "name",
//  "bytes_in", "bytes_out", "media_dropped"}]}
//
// Nodes come root first, each followed by its subtree, as the engine gives
// them. Counts say how many the forest held; the arrays may hold fewer when
// it held more than kMaxSnapshotNodes.
#ifndef ARBOR_TOOLS_PEER_SNAPSHOT_JSON_H
#define ARBOR_TOOLS_PEER_SNAPSHOT_JSON_H

#include <string>

namespace arbor_peer {

// Nodes and sessions one snapshot holds at most.
inline constexpr unsigned kMaxSnapshotNodes = 16384;

// Takes a snapshot of this process's forest and its LAN peers and writes it
// as one line of JSON. Any thread but a driver's slot.
std::string SnapshotJson(const std::string& peer_name, int port);

// Sessions in this process's forest now; 0 when the engine is not running.
unsigned OpenSessionCount();

}  // namespace arbor_peer

#endif  // ARBOR_TOOLS_PEER_SNAPSHOT_JSON_H
