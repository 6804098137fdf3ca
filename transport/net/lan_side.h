// lan_side.h - the LAN side of one transport instance while it is on: the
// listening socket, the I/O threads, the peer table and every connection.
//
// Made by Start (from InitLAN) and ended by Stop (from UnInitLAN); one
// instance per start, so a restart begins with fresh threads and sockets.
// Several may live in one process (tests connect them over 127.0.0.1).
//
// Threads. io_threads threads run the io_context; every handler and every
// call of the engine's handler runs on them. The handler is never called
// with mutex_ (or any other lock of the transport) held, and never after
// Stop has returned. Each connection's handlers run on its strand.
//
// Lock order: mutex_ (peer table, connection set), then a connection's
// out_mutex_. Neither is held across the handler.
#ifndef ARBOR_NET_LAN_SIDE_H
#define ARBOR_NET_LAN_SIDE_H

#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "arbor/net.h"
#include "arbor/transport.h"
#include "connection.h"
#include "io_threads.h"
#include "link_owner.h"
#include "lan_options.h"
#include "peer_table.h"
#include "presence.h"

namespace arbor::net {

// Most connections at once, open or still in their hello. Accepts beyond it
// are closed at once, so strangers cannot take unbounded sockets or memory.
inline constexpr size_t kMaxConnections = 512;
// Wait after a failed accept (no descriptor, no memory) before the next.
inline constexpr std::chrono::milliseconds kAcceptRetry{100};

class LanSide : public LinkOwner, public PresenceListener {
 public:
  // The engine's LAN callback in C++ form: (from, pipe, type, size, data).
  using Handler = std::function<void(uint32_t, uint32_t, uint32_t, uint32_t, const void*)>;

  // Listens and starts the I/O threads. Null, with a level-0 line saying what
  // went wrong and what to do, when the address cannot be used or bound.
  static std::unique_ptr<LanSide> Start(const LanOptions& options, Handler handler);
  ~LanSide();
  LanSide(const LanSide&) = delete;
  LanSide& operator=(const LanSide&) = delete;

  // Closes every connection, joins the I/O threads; no handler call runs
  // after it returns. Idempotent. Refused (false, logged) on an I/O thread,
  // which cannot join itself.
  bool Stop();

  // The entry of host:port, found or added: its id, or -1 (logged) when the
  // table is full or the LAN is stopping. Any thread, never blocks.
  int32_t AddPeer(const std::string& host, uint16_t port);
  // Starts connecting to peer id; the outcome reaches the handler (9, or 6 /
  // 8). With the link already up, 9 is reported again and nothing starts; with
  // a dial under way, nothing new starts. 0, or -1 for an unknown id or a peer
  // that cannot be dialled (its port is unknown). Any thread, never blocks.
  int32_t Connect(uint16_t id);
  // Sends a frame to peer id, or to every connected peer for id 0. size on
  // success (also when a media frame was dropped over the budget, and for id 0
  // whatever the number of peers), -1 for an unknown or unconnected peer, a
  // bad type or a connection that had to be closed. Any thread, never blocks.
  int32_t Write(uint16_t id, const PacketHeader& header, const void* data, uint16_t size);

  uint16_t port() const { return port_; }
  // Fills *out for peer id; false for an unknown id.
  bool Stats(uint16_t id, arbor_net_peer_info* out);
  // Ids of every known peer, increasing.
  std::vector<uint16_t> PeerIds();

  // ---- presence (presence.h); the peer table keeps its rules ----
  // Sets the text presence announces (at most kMaxPresenceText bytes); kept
  // and ignored while presence is off. Any thread, never blocks.
  void SetPresenceText(const char* text, uint16_t size);
  // The text peer id announced last ("" if none); false for an unknown id.
  bool PresenceText(uint16_t id, std::string* out);
  // Malformed presence datagrams dropped, or -1 while presence is off.
  int64_t PresenceDropped() const;
  void OnAnnouncement(const Announcement& a, const std::string& host) override;
  void OnPresenceTick() override;

  // ---- for connections, on their strand ----
  const LanOptions& options() const { return options_; }
  uint64_t instance() const { return instance_; }
  asio::io_context& io() { return io_threads_.io(); }
  const LinkSettings& settings() const override { return settings_; }
  // Binds a connection whose hello (and key proof) arrived to its peer
  // entry. false when the connection must not go on; it has then been failed.
  bool OnHello(const std::shared_ptr<Connection>& conn, const Hello& hello) override;
  // A connection closed; reports 7 (a peer's link) or status (a dial) as due.
  void OnClosed(const std::shared_ptr<Connection>& conn, int status) override;
  // Calls the engine's handler unless the LAN is stopping. No lock held.
  void Deliver(uint32_t from, uint32_t pipe, uint32_t type, uint32_t size,
               const void* data) override;

 private:
  LanSide(const LanOptions& options, Handler handler);
  bool Listen();
  void AcceptNext();
  // Closes the links of peers presence declared gone, quietly, and tells the
  // engine status 0 for each. No lock held.
  void ReportGone(std::vector<Gone> gone);

  const LanOptions options_;
  const Handler handler_;
  const uint64_t instance_;
  LinkSettings settings_;  // fixed once Listen has the port
  IoThreads io_threads_{"LAN", "arbor-lan-io"};  // declared before everything that runs on it
  asio::strand<asio::io_context::executor_type> accept_strand_;
  asio::steady_timer accept_retry_;  // on accept_strand_
  asio::ip::tcp::acceptor acceptor_;
  uint16_t port_ = 0;
  std::unique_ptr<Presence> presence_;  // null while presence is off; made by Start
  std::atomic<bool> stopping_{false};
  std::mutex stop_mutex_;  // one Stop at a time
  bool stopped_ = false;   // guarded by stop_mutex_

  std::mutex mutex_;
  PeerTable peers_;                                 // guarded by mutex_
  std::set<std::shared_ptr<Connection>> all_;       // guarded by mutex_
};

}  // namespace arbor::net

#endif  // ARBOR_NET_LAN_SIDE_H
