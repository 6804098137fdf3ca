// peer_table.cc - round-robin peer ids and the lookups of the peer table.
// Lookups by address and instance are linear: the table holds at most
// kMaxPeers entries and they run on connects, never per frame.
#include "peer_table.h"

#include <cstring>
#include <utility>

namespace arbor::net {

Peer* PeerTable::Add(std::string host, uint16_t port, Found found) {
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
  peer.found = found;
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

Heard PeerTable::OnAnnouncement(const Announcement& a, const std::string& host,
                                std::chrono::steady_clock::time_point now) {
  Heard heard;
  Peer* peer = FindByInstance(a.instance);
  if (peer == nullptr) {
    // Added by hand at this address and never connected: the same peer.
    peer = FindByAddress(host, a.listen_port);
    if (peer != nullptr && peer->instance != 0) peer = nullptr;
  }
  if (peer == nullptr) peer = Add(host, a.listen_port, Found::kPresence);
  if (peer == nullptr) return heard;
  peer->instance = a.instance;
  if (peer->port == 0) peer->port = a.listen_port;
  // Text up to its first NUL: the engine's text comes with its terminator.
  const size_t length = a.text_size > 0 ? strnlen(a.text, a.text_size) : 0;
  const bool changed = peer->version != a.version ||
                       peer->presence_text.compare(0, std::string::npos, a.text, length) != 0;
  if (!peer->present) {
    heard.status = 1;
  } else if (changed) {
    heard.status = 2;
  }
  peer->present = true;
  peer->version = a.version;
  if (changed) peer->presence_text.assign(a.text, length);
  peer->last_heard = now;
  heard.id = peer->id;
  heard.host = host;
  heard.version = a.version;
  return heard;
}

std::vector<Gone> PeerTable::ExpirePresence(std::chrono::steady_clock::time_point now,
                                            std::chrono::milliseconds timeout, uint64_t bye,
                                            bool keep_linked) {
  std::vector<Gone> gone;
  for (auto it = peers_.begin(); it != peers_.end();) {
    Peer& peer = it->second;
    const bool leaves = peer.present && (bye != 0 ? peer.instance == bye
                                                  : now - peer.last_heard > timeout);
    if (!leaves || (keep_linked && peer.link != nullptr)) {
      ++it;
      continue;
    }
    gone.push_back(Gone{peer.id, std::move(peer.link), std::move(peer.dial)});
    peer.link.reset();
    peer.dial.reset();
    peer.present = false;
    it = peer.found == Found::kPresence ? peers_.erase(it) : std::next(it);
  }
  return gone;
}

}  // namespace arbor::net
