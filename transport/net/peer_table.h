// peer_table.h - the LAN peers this transport knows and the ids it gave them.
//
// Ids are 16 bits and never 0. They are handed out round-robin: the next id
// after the last one handed out, skipping ids in use, so an id that was freed
// is given again as late as possible and a departed peer's late frames cannot
// be mistaken for a newcomer's. An entry keeps its id while it is known; a
// peer that reconnects (same instance id) finds its entry again.
//
// Not thread-safe: LanSide guards it with its mutex. Entries live in a
// std::map, so a Peer* stays valid until that entry is removed.
#ifndef ARBOR_NET_PEER_TABLE_H
#define ARBOR_NET_PEER_TABLE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "connection.h"

namespace arbor::net {

// Most peers one transport knows at once. Accepted connections from unknown
// instances add entries, so this bounds the memory strangers can take.
inline constexpr size_t kMaxPeers = 1024;

struct Peer {
  uint16_t id = 0;
  std::string host;      // dial address: the host text given, or the remote address
  uint16_t port = 0;     // dial port: as given, or the listen port of its hello; 0: cannot dial
  uint64_t instance = 0; // remote instance id, 0 until a hello tells it
  uint16_t version = 0;  // VERSION its hello announced
  bool ever_linked = false;
  std::shared_ptr<Connection> link;  // the open connection, or null
  std::shared_ptr<Connection> dial;  // a dial in progress, or null
  std::shared_ptr<PeerCounters> counters = std::make_shared<PeerCounters>();
};

class PeerTable {
 public:
  // A new entry with the next free id, or null when kMaxPeers are known.
  Peer* Add(std::string host, uint16_t port);
  // Lookups; null when absent.
  Peer* Find(uint16_t id);
  Peer* FindByAddress(const std::string& host, uint16_t port);
  Peer* FindByInstance(uint64_t instance);
  // Every entry, by id.
  std::map<uint16_t, Peer>& all() { return peers_; }
  size_t size() const { return peers_.size(); }

 private:
  std::map<uint16_t, Peer> peers_;
  uint16_t last_id_ = 0;
};

}  // namespace arbor::net

#endif  // ARBOR_NET_PEER_TABLE_H
