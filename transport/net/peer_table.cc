// peer_table.cc - round-robin peer ids and the lookups of the peer table.
// Lookups by address and instance are linear: the table holds at most
// kMaxPeers entries and they run on connects, never per frame.
#include "peer_table.h"

#include <utility>

namespace arbor::net {

Peer* PeerTable::Add(std::string host, uint16_t port) {
  if (peers_.size() >= kMaxPeers) return nullptr;
  uint16_t id = last_id_;
  do {
    id = static_cast<uint16_t>(id == UINT16_MAX ? 1 : id + 1);
  } while (peers_.count(id) != 0);  // ends: kMaxPeers < 65535 ids are in use
  last_id_ = id;
  Peer& peer = peers_[id];
  peer.id = id;
  peer.host = std::move(host);
  peer.port = port;
  return &peer;
}

Peer* PeerTable::Find(uint16_t id) {
  auto it = peers_.find(id);
  return it == peers_.end() ? nullptr : &it->second;
}

Peer* PeerTable::FindByAddress(const std::string& host, uint16_t port) {
  for (auto& [id, peer] : peers_)
    if (peer.port == port && peer.host == host) return &peer;
  return nullptr;
}

Peer* PeerTable::FindByInstance(uint64_t instance) {
  for (auto& [id, peer] : peers_)
    if (peer.instance == instance) return &peer;
  return nullptr;
}

}  // namespace arbor::net
