// net_transport.h - one instance of the socket transport: what the twelve
// functions of arbor/transport.h and the functions of arbor/net.h do, in C++.
//
// net_api.cc keeps one process-wide instance and forwards to it; tests make
// several and connect them over 127.0.0.1. The LAN side lives from InitLan
// to UninitLan; the WAN side is not built yet.
//
// Threads: every member may be called from any thread at once. mutex_ only
// guards the pointer to the running LAN side and the presence text; a call
// takes its own reference to the LAN side and releases mutex_ before it does
// any work, so a write never waits for another write, nor for a callback.
// UninitLan swaps the LAN side out and stops it; a write that took its
// reference just before finds every connection closed and fails.
#ifndef ARBOR_NET_NET_TRANSPORT_H
#define ARBOR_NET_NET_TRANSPORT_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "arbor/net.h"
#include "arbor/transport.h"
#include "lan_side.h"

namespace arbor::net {

// Longest host text AddLANEP takes: a DNS name is at most 253 bytes.
inline constexpr size_t kMaxHostText = 255;

class Transport {
 public:
  Transport() = default;
  ~Transport();
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // Parses options (null: defaults), listens and starts the I/O threads.
  // 0, or -1 with a level-0 line that says what to do. Already on: 0, the
  // new options ignored (logged), so the engine's LAN state stays on.
  int32_t InitLan(LanSide::Handler handler, const char* options);
  // Closes every connection and joins the I/O threads; no callback runs
  // after it returns. 0; -1 (logged, nothing changed) on a transport thread.
  int32_t UninitLan();
  // AddLANEP: the id of the peer at host:port, found or added. -1 (logged)
  // for a null or over-long host, a port outside 1..65535, the LAN off or
  // a full table.
  int32_t AddPeer(const char* host, intptr_t port);
  // LANConRemoteHostInfo: see LanSide::Connect. -1 while the LAN is off.
  int32_t ConnectPeer(uint16_t id);
  // LANNetWrite: see LanSide::Write. -1 for a null header, null data with a
  // positive size, or the LAN off.
  int32_t LanWrite(uint16_t id, const PacketHeader* header, const void* data, uint16_t size);
  // LANReFlash: keeps a copy of the text (at most kMaxPresenceText bytes;
  // longer is refused with -1, the old text kept) and hands it to presence,
  // now if the LAN is on, else when it starts. 0.
  int32_t SetPresence(const char* text, uint16_t size);
  std::string presence();

  // arbor/net.h.
  int32_t LanPort();
  int32_t PeerStats(uint16_t id, arbor_net_peer_info* out);
  int32_t Peers(uint16_t* ids, int32_t capacity);
  int32_t PeerPresence(uint16_t id, char* text, size_t capacity);
  int64_t PresenceDropped();

 private:
  std::shared_ptr<LanSide> lan();

  std::mutex mutex_;
  std::shared_ptr<LanSide> lan_;  // guarded by mutex_
  std::string presence_;          // guarded by mutex_
  bool presence_given_ = false;   // guarded by mutex_: LANReFlash was called
};

}  // namespace arbor::net

#endif  // ARBOR_NET_NET_TRANSPORT_H
