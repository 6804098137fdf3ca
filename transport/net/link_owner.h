// link_owner.h - what a Connection needs of the side that owns it (the LAN
// side, the WAN link, or a test's stand-in for the service): the settings
// it runs with and the three events of its life.
//
// Every event is called on the connection's strand, with no lock of the
// connection held. An owner outlives every connection it owns.
#ifndef ARBOR_NET_LINK_OWNER_H
#define ARBOR_NET_LINK_OWNER_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "wire_codec.h"

namespace arbor::net {

class Connection;

// The settings a connection reads; fixed for the owner's life.
struct LinkSettings {
  const char* name = "LAN";     // for log lines: "LAN" or "WAN"
  uint64_t instance = 0;        // our instance id, sent in the hello
  uint16_t listen_port = 0;     // sent in the hello; 0 when not listening
  uint16_t version = 100;       // the engine VERSION sent in the hello
  size_t budget = 4u << 20;     // output queue bytes before media is dropped
  int32_t peer_timeout_ms = 10000;  // no byte taken this long: the peer is gone
  bool keepalive = false;       // probe an idle link (see kDeadLinkBound)
  // The LAN key; empty: none. With a key, a connection proves it on both
  // sides (connection.h) before its owner hears the hello.
  std::string key;
};

// How a link with keepalive on notices a far end that went away without a
// word: the kernel probes after kKeepaliveIdle of silence, every
// kKeepaliveInterval, and gives up after kKeepaliveProbes unanswered
// probes; data it sent that stays unacknowledged for kDeadLinkBound ends
// the link too (TCP_USER_TIMEOUT). Either way the link is declared down
// within kDeadLinkBound.
inline constexpr std::chrono::seconds kKeepaliveIdle{5};
inline constexpr std::chrono::seconds kKeepaliveInterval{2};
inline constexpr int kKeepaliveProbes = 3;
inline constexpr std::chrono::seconds kDeadLinkBound =
    kKeepaliveIdle + kKeepaliveInterval * kKeepaliveProbes;

// A random instance id, never 0: a peer that reconnects is told from a new
// one by it, and the lower one decides between crossed connections.
inline uint64_t new_instance_id() {
  std::random_device rd;
  uint64_t id = 0;
  while (id == 0) id = (static_cast<uint64_t>(rd()) << 32) ^ rd();
  return id;
}

class LinkOwner {
 public:
  virtual ~LinkOwner() = default;

  virtual const LinkSettings& settings() const = 0;
  // The peer's hello arrived whole and valid. true lets the connection go
  // on to frames; false when it must not (the owner has then failed it).
  virtual bool OnHello(const std::shared_ptr<Connection>& conn, const Hello& hello) = 0;
  // The connection closed with status (0: nothing to report; else a link
  // status of transport.h as the connection judged it).
  virtual void OnClosed(const std::shared_ptr<Connection>& conn, int status) = 0;
  // One whole frame. data is valid during the call only.
  virtual void Deliver(uint32_t from, uint32_t pipe, uint32_t type, uint32_t size,
                       const void* data) = 0;
};

}  // namespace arbor::net

#endif  // ARBOR_NET_LINK_OWNER_H
