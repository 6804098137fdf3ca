// lan_side.cc - start and stop of the LAN side, the accept loop, the peer
// table's rules (which connection a peer keeps, which status to report) and
// the write road from the engine to a peer's connection.
#include "lan_side.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "arbor/support.h"

namespace arbor::net {

LanSide::LanSide(const LanOptions& options, Handler handler)
    : options_(options), handler_(std::move(handler)), instance_(new_instance_id()),
      accept_strand_(asio::make_strand(io())), accept_retry_(accept_strand_),
      acceptor_(accept_strand_) {
  settings_.name = "LAN";
  settings_.instance = instance_;
  settings_.version = options_.version;
  settings_.budget = options_.budget;
  settings_.peer_timeout_ms = options_.peer_timeout_ms;
  settings_.key = options_.key;
  // An idle peer that lost power says nothing: probe, as on the WAN.
  settings_.keepalive = true;
}

LanSide::~LanSide() { Stop(); }

std::unique_ptr<LanSide> LanSide::Start(const LanOptions& options, Handler handler) {
  std::unique_ptr<LanSide> side(new LanSide(options, std::move(handler)));
  if (!side->Listen()) return nullptr;  // no thread started yet
  if (!options.presence_interface.empty()) {
    const Presence::Self self{side->instance_, side->port_, options.version};
    side->presence_ = Presence::Start(side->io(), options, self, *side);
    if (side->presence_ == nullptr) return nullptr;
  }
  side->AcceptNext();
  side->io_threads_.Start(options.io_threads);
  ARBOR_LOG(2, "LAN on: listening on %s:%u, %d I/O thread(s), instance %016llx",
            options.listen.c_str(), side->port_, options.io_threads,
            static_cast<unsigned long long>(side->instance_));
  return side;
}

bool LanSide::Listen() {
  std::error_code ec;
  const asio::ip::address address = asio::ip::make_address(options_.listen, ec);
  if (ec) {
    ARBOR_LOG(0, "InitLAN: listen=%s is not an IP address; give a literal address such as 0.0.0.0",
              options_.listen.c_str());
    return false;
  }
  const asio::ip::tcp::endpoint endpoint(address, options_.port);
  acceptor_.open(endpoint.protocol(), ec);
  if (!ec) acceptor_.set_option(asio::ip::tcp::acceptor::reuse_address(true), ec);
  if (!ec) acceptor_.bind(endpoint, ec);
  if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    ARBOR_LOG(0, "InitLAN: cannot listen on %s:%u: %s; choose another port= or listen=, or free it",
              options_.listen.c_str(), options_.port, ec.message().c_str());
    return false;
  }
  port_ = acceptor_.local_endpoint(ec).port();
  settings_.listen_port = port_;
  return true;
}

// One accept at a time, on accept_strand_; each new socket gets a strand.
void LanSide::AcceptNext() {
  auto strand = asio::make_strand(io());
  acceptor_.async_accept(strand, [this, strand](std::error_code ec, asio::ip::tcp::socket socket) {
    if (ec == asio::error::operation_aborted || stopping_.load()) return;
    if (!ec) {
      auto conn = std::make_shared<Connection>(*this, strand, std::move(socket));
      bool room;
      {
        std::lock_guard lock(mutex_);
        room = all_.size() < kMaxConnections;
        if (room) all_.insert(conn);
      }
      if (room) {
        conn->Accept();
      } else {
        ARBOR_LOG(0, "LAN: %zu connections open; refusing one more", kMaxConnections);
        conn->Fail(0);
      }
    } else {
      // Out of descriptors or memory: wait before the next try, or the loop
      // would spin on the error and flood the log.
      ARBOR_LOG(0, "LAN accept: %s; trying again in %lld ms", ec.message().c_str(),
                static_cast<long long>(kAcceptRetry.count()));
      accept_retry_.expires_after(kAcceptRetry);
      accept_retry_.async_wait([this](std::error_code wec) {
        if (!wec && !stopping_.load()) AcceptNext();
      });
      return;
    }
    AcceptNext();
  });
}

bool LanSide::Stop() {
  if (!io_threads_.MayStopFrom("UnInitLAN")) return false;
  std::lock_guard stop_lock(stop_mutex_);
  if (stopped_) return true;
  stopped_ = true;
  stopping_.store(true);
  io_threads_.Stop();
  // No I/O thread runs now: sockets may be closed from here.
  if (presence_ != nullptr) presence_->Stop();
  std::error_code ec;
  acceptor_.close(ec);
  std::lock_guard lock(mutex_);
  for (const auto& conn : all_) conn->CloseNow();
  all_.clear();
  for (auto& [id, peer] : peers_.all()) {
    peer.link.reset();
    peer.dial.reset();
  }
  ARBOR_LOG(2, "LAN off (port %u)", port_);
  return true;
}

// ------------------------------------------------------------ peers

int32_t LanSide::AddPeer(const std::string& host, uint16_t port) {
  std::lock_guard lock(mutex_);
  if (stopping_.load()) return -1;
  if (Peer* known = peers_.FindByAddress(host, port)) return known->id;
  Peer* peer = peers_.Add(host, port);
  if (peer == nullptr) {
    ARBOR_LOG(0, "AddLANEP(%s, %u): %zu peers known already", host.c_str(), port, kMaxPeers);
    return -1;
  }
  return peer->id;
}

int32_t LanSide::Connect(uint16_t id) {
  std::shared_ptr<Connection> conn;
  std::string host;
  uint16_t port;
  {
    std::lock_guard lock(mutex_);
    if (stopping_.load()) return -1;
    Peer* peer = peers_.Find(id);
    if (peer == nullptr) {
      ARBOR_LOG(0, "LANConRemoteHostInfo(%u): no such peer; add it with AddLANEP first", id);
      return -1;
    }
    if (peer->link != nullptr) {
      // Said again only if still true when delivered (a 9 after a 7 would
      // have the engine count a dead link as up).
      asio::post(io(), [this, id] {
        bool still_up = false;
        {
          std::lock_guard relock(mutex_);
          const Peer* p = peers_.Find(id);
          still_up = p != nullptr && p->link != nullptr;
        }
        if (still_up) Deliver(id, 0, QVNETS_SUCCESS, 0, nullptr);
      });
      return 0;
    }
    if (peer->dial != nullptr) return 0;  // its outcome will be reported
    if (peer->port == 0) {
      ARBOR_LOG(0, "LANConRemoteHostInfo(%u): the peer's listen port is unknown", id);
      return -1;
    }
    if (all_.size() >= kMaxConnections) {
      ARBOR_LOG(0, "LANConRemoteHostInfo(%u): %zu connections open already", id, kMaxConnections);
      return -1;
    }
    conn = std::make_shared<Connection>(*this, asio::make_strand(io()), id);
    peer->dial = conn;
    all_.insert(conn);
    host = peer->host;
    port = peer->port;
  }
  conn->Dial(std::move(host), port);
  return 0;
}

bool LanSide::OnHello(const std::shared_ptr<Connection>& conn, const Hello& hello) {
  if (hello.instance == instance_) {
    ARBOR_LOG(0, "LAN connection %s: it is this transport itself; not a peer",
              conn->remote_address().c_str());
    conn->Fail(QVNETS_FAIL);
    return false;
  }
  std::shared_ptr<Connection> loser;
  bool report = false;
  bool dropped_dial = false;
  uint16_t id = 0;
  {
    std::lock_guard lock(mutex_);
    Peer* peer = nullptr;
    if (conn->dialled()) {
      // A dial its entry let go of (presence declared the peer gone while
      // it was under way) is over: the engine has heard status 0 for it, and
      // a link now would stand beside a peer it counts as gone.
      peer = peers_.Find(conn->peer());
      if (peer == nullptr || peer->dial != conn) {
        dropped_dial = true;
      } else {
        peer->dial.reset();
      }
    } else {
      // Known by its instance; or added by address and never connected yet
      // (it dialled us while our dial to it is still under way); or new.
      // An entry at that address whose instance has no link and no dial
      // under way is taken over: that instance is gone (a restart), its
      // connection closed, so no late frame of it can arrive under the id.
      // Otherwise peers that restart would fill the table for good.
      peer = peers_.FindByInstance(hello.instance);
      if (peer == nullptr) {
        peer = peers_.FindByAddress(conn->remote_address(), hello.listen_port);
        if (peer != nullptr && peer->instance != 0 &&
            (peer->link != nullptr || peer->dial != nullptr))
          peer = nullptr;
      }
      if (peer == nullptr)
        peer = peers_.Add(conn->remote_address(), hello.listen_port, Found::kAccepted);
      if (peer != nullptr && peer->port == 0) peer->port = hello.listen_port;
    }
    if (dropped_dial) {
      conn->Fail(0);
      return false;
    }
    if (peer == nullptr) {
      ARBOR_LOG(0, "LAN connection %s: %zu peers known already; closing",
                conn->remote_address().c_str(), kMaxPeers);
      conn->Fail(0);
      return false;
    }
    peer->instance = hello.instance;
    peer->version = hello.version;
    id = peer->id;
    conn->Bind(id, peer->counters);
    if (peer->link == nullptr) {
      if (peer->ever_linked) peer->counters->reconnects.fetch_add(1, std::memory_order_relaxed);
      peer->ever_linked = true;
      peer->link = conn;
      report = true;
    } else {
      // Two connections to one instance: both ends keep the one dialled by
      // the lower instance id; of two dialled by the same end, the newer.
      const uint64_t old_dialler = peer->link->dialled() ? instance_ : hello.instance;
      const uint64_t new_dialler = conn->dialled() ? instance_ : hello.instance;
      if (new_dialler == old_dialler || new_dialler < old_dialler) {
        loser = std::move(peer->link);
        peer->link = conn;
      } else {
        loser = conn;
      }
      report = conn->dialled();  // the dial's outcome: the peer is connected
    }
  }
  if (loser != nullptr) loser->Retire();
  if (report) Deliver(id, 0, QVNETS_SUCCESS, 0, nullptr);
  return true;
}

void LanSide::OnClosed(const std::shared_ptr<Connection>& conn, int status) {
  int report = 0;
  const uint16_t id = conn->peer();
  {
    std::lock_guard lock(mutex_);
    all_.erase(conn);
    if (Peer* peer = peers_.Find(id)) {
      if (peer->link == conn) {
        peer->link.reset();
        report = QVNETS_DISCONNECT;
      } else if (peer->dial == conn) {
        // A dial that ends before its hello completed is a failed connect,
        // whatever broke it; the peer's link (if another came up) stands.
        peer->dial.reset();
        if (peer->link == nullptr) report = status == QVNETS_DISCONNECT ? QVNETS_FAIL : status;
      }
    }
  }
  if (report != 0) Deliver(id, 0, static_cast<uint32_t>(report), 0, nullptr);
}

void LanSide::Deliver(uint32_t from, uint32_t pipe, uint32_t type, uint32_t size,
                      const void* data) {
  if (stopping_.load(std::memory_order_relaxed)) return;
  handler_(from, pipe, type, size, data);
}

// ------------------------------------------------------------ writing

int32_t LanSide::Write(uint16_t id, const PacketHeader& header, const void* data, uint16_t size) {
  if (!frame_type_valid(header.nPacketType)) {
    ARBOR_LOG(0, "LANNetWrite(%u): frame type %u is not 3, 4 or 5", id, header.nPacketType);
    return -1;
  }
  const FrameHeader frame = frame_header_for(header, size);
  if (id == 0) {
    std::vector<std::shared_ptr<Connection>> links;
    {
      std::lock_guard lock(mutex_);
      for (auto& [pid, peer] : peers_.all())
        if (peer.link != nullptr) links.push_back(peer.link);
    }
    for (const auto& link : links) link->Write(frame, data);
    return size;
  }
  // A link may be swapped for its crossed twin between the look-up and the
  // write (the old one then refuses while it retires): one more look-up
  // finds the survivor, so the engine does not take the swap for a failed
  // peer.
  std::shared_ptr<Connection> tried;
  for (int attempt = 0; attempt < 2; ++attempt) {
    std::shared_ptr<Connection> link;
    {
      std::lock_guard lock(mutex_);
      if (Peer* peer = peers_.Find(id)) link = peer->link;
    }
    if (link == nullptr || link == tried) return -1;
    if (link->Write(frame, data) != Connection::WriteResult::kRefused) return size;
    tried = std::move(link);
  }
  return -1;
}

// ------------------------------------------------------------ statistics

bool LanSide::Stats(uint16_t id, arbor_net_peer_info* out) {
  std::lock_guard lock(mutex_);
  Peer* peer = peers_.Find(id);
  if (peer == nullptr) return false;
  std::memset(out, 0, sizeof *out);
  out->id = id;
  out->listen_port = peer->port;
  out->link_up = peer->link != nullptr ? 1 : 0;
  std::snprintf(out->address, sizeof out->address, "%s", peer->host.c_str());
  const PeerCounters& c = *peer->counters;
  out->frames_in = c.frames_in.load(std::memory_order_relaxed);
  out->bytes_in = c.bytes_in.load(std::memory_order_relaxed);
  out->frames_out = c.frames_out.load(std::memory_order_relaxed);
  out->bytes_out = c.bytes_out.load(std::memory_order_relaxed);
  out->media_dropped = c.media_dropped.load(std::memory_order_relaxed);
  out->queue_bytes = peer->link != nullptr ? peer->link->queue_bytes() : 0;
  out->reconnects = c.reconnects.load(std::memory_order_relaxed);
  out->version = peer->version;
  out->found = static_cast<uint8_t>(peer->found);
  out->present = peer->present ? 1 : 0;
  return true;
}

std::vector<uint16_t> LanSide::PeerIds() {
  std::lock_guard lock(mutex_);
  std::vector<uint16_t> ids;
  ids.reserve(peers_.size());
  for (const auto& [id, peer] : peers_.all()) ids.push_back(id);
  return ids;
}

// ------------------------------------------------------------ presence

void LanSide::SetPresenceText(const char* text, uint16_t size) {
  if (presence_ != nullptr) presence_->SetText(text, size);
}

bool LanSide::PresenceText(uint16_t id, std::string* out) {
  std::lock_guard lock(mutex_);
  Peer* peer = peers_.Find(id);
  if (peer == nullptr) return false;
  *out = peer->presence_text;
  return true;
}

int64_t LanSide::PresenceDropped() const {
  return presence_ != nullptr ? static_cast<int64_t>(presence_->dropped()) : -1;
}

void LanSide::OnAnnouncement(const Announcement& a, const std::string& host) {
  const auto now = std::chrono::steady_clock::now();
  Heard heard;
  std::vector<Gone> gone;
  {
    std::lock_guard lock(mutex_);
    if (stopping_.load()) return;
    if ((a.flags & kPresenceFlagBye) != 0) {
      gone = peers_.ExpirePresence(now, std::chrono::milliseconds(options_.presence_timeout_ms),
                                   a.instance, !options_.key.empty());
    } else {
      heard = peers_.OnAnnouncement(a, host, now);
    }
  }
  ReportGone(std::move(gone));
  if (heard.id == 0 && (a.flags & kPresenceFlagBye) == 0) {
    ARBOR_LOG(2, "LAN presence: %s heard, but %zu peers are known already", host.c_str(),
              kMaxPeers);
  }
  if (heard.status > 0) {
    char text[128];
    const int n = std::snprintf(text, sizeof text,
                                "MainCmd=LocalData;status=%d;VERSION=%u;Ip=%s;QVID=%u;",
                                heard.status, heard.version, heard.host.c_str(), heard.id);
    if (n > 0 && static_cast<size_t>(n) < sizeof text)  // the terminator is counted, as the engine does
      Deliver(heard.id, 0, QVTP_CONTROL, static_cast<uint32_t>(n) + 1, text);
  }
}

void LanSide::OnPresenceTick() {
  std::vector<Gone> gone;
  {
    std::lock_guard lock(mutex_);
    if (stopping_.load()) return;
    gone = peers_.ExpirePresence(std::chrono::steady_clock::now(),
                                 std::chrono::milliseconds(options_.presence_timeout_ms), 0,
                                 !options_.key.empty());
  }
  ReportGone(std::move(gone));
}

void LanSide::ReportGone(std::vector<Gone> gone) {
  for (Gone& g : gone) {
    // Out of the entry already, so their close reports nothing more.
    if (g.link != nullptr) g.link->Fail(0);
    if (g.dial != nullptr) g.dial->Fail(0);
    ARBOR_LOG(2, "LAN presence: peer %u silent or leaving; gone", g.id);
    char text[64];
    const int n = std::snprintf(text, sizeof text, "MainCmd=LocalData;status=0;QVID=%u;", g.id);
    Deliver(g.id, 0, QVTP_CONTROL, static_cast<uint32_t>(n) + 1, text);
  }
}

}  // namespace arbor::net
