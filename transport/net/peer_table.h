// peer_table.h - the LAN peers this transport knows and the ids it gave them.
//
// Ids are 16 bits and never 0. They are handed out round-robin: the next id
// after the last one handed out, skipping ids in use, so an id that was freed
// is given again as late as possible and a departed peer's late frames cannot
// be mistaken for a newcomer's. An entry keeps its id while it is known; a
// peer that reconnects (same instance id) finds its entry again.
//
// Presence. An announcement makes or finds the entry of its instance and
// says what the engine is to hear: status 1 the first time (or the first
// time after the peer was declared gone), status 2 when the text or the
// announced version changed, nothing otherwise. A peer heard by presence
// whose announcements stop for the presence time-out (or that said bye) is
// declared gone: the engine hears status 0, its link and dial are closed
// without a status 7 (the status 0 said it all), and an entry that presence
// itself made is forgotten; one added by hand or by an accepted connection
// stays, with its id, and can be dialled again.
//
// Not thread-safe: LanSide guards it with its mutex. Entries live in a
// std::map, so a Peer* stays valid until that entry is removed.
#ifndef ARBOR_NET_PEER_TABLE_H
#define ARBOR_NET_PEER_TABLE_H

#include <chrono>
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

// How an entry came to be; the values of arbor_net_peer_info.found.
enum class Found : uint8_t { kAdded = 1, kAccepted = 2, kPresence = 3 };

struct Peer {
  uint16_t id = 0;
  Found found = Found::kAdded;
  std::string host;      // dial address: the host text given, or the remote address
  uint16_t port = 0;     // dial port: as given, or the listen port of its hello; 0: cannot dial
  uint64_t instance = 0; // remote instance id, 0 until a hello tells it
  uint16_t version = 0;  // VERSION its hello or its presence announced
  bool ever_linked = false;
  std::shared_ptr<Connection> link;  // the open connection, or null
  std::shared_ptr<Connection> dial;  // a dial in progress, or null
  std::shared_ptr<PeerCounters> counters = std::make_shared<PeerCounters>();
  // Presence: whether the engine was told it is present (status 1 or 2) and
  // not since that it left; what it announced; when it was last heard.
  bool present = false;
  std::string presence_text;  // up to its first NUL, at most kMaxPresenceText bytes
  std::chrono::steady_clock::time_point last_heard{};
};

// What one announcement means for the engine.
struct Heard {
  uint16_t id = 0;   // 0: no entry (the table is full)
  int status = -1;   // LocalData status to report: 1, 2, or -1 for none
  std::string host;  // the peer's address, for the report
  uint16_t version = 0;
};

// A peer presence declared gone: its id for the status 0, and its link and
// dial, taken out of the entry, for the caller to close outside the lock.
struct Gone {
  uint16_t id = 0;
  std::shared_ptr<Connection> link;
  std::shared_ptr<Connection> dial;
};

class PeerTable {
 public:
  // A new entry with the next free id, or null when kMaxPeers are known.
  Peer* Add(std::string host, uint16_t port, Found found = Found::kAdded);
  // Lookups; null when absent.
  Peer* Find(uint16_t id);
  Peer* FindByAddress(const std::string& host, uint16_t port);
  Peer* FindByInstance(uint64_t instance);
  // Every entry, by id.
  std::map<uint16_t, Peer>& all() { return peers_; }
  size_t size() const { return peers_.size(); }

  // Applies one announcement from instance a.instance heard from host at
  // now (see the file comment). Never fails: a full table gives id 0.
  Heard OnAnnouncement(const Announcement& a, const std::string& host,
                       std::chrono::steady_clock::time_point now);
  // Declares gone every present peer last heard before now - timeout, or
  // only the one of instance `bye` when it is non-zero; returns them. With
  // keep_linked, a peer whose link is up is never declared gone: on a keyed
  // LAN that link proved the key, and datagrams, which anyone can forge,
  // must not end it (its loss is reported as the link's own status).
  std::vector<Gone> ExpirePresence(std::chrono::steady_clock::time_point now,
                                   std::chrono::milliseconds timeout, uint64_t bye = 0,
                                   bool keep_linked = false);

 private:
  std::map<uint16_t, Peer> peers_;
  uint16_t last_id_ = 0;
};

}  // namespace arbor::net

#endif  // ARBOR_NET_PEER_TABLE_H
