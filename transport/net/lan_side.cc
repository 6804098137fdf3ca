// lan_side.cc - start and stop of the LAN side, the accept loop, the peer
// table's rules (which connection a peer keeps, which status to report) and
// the write road from the engine to a peer's connection.
#include "lan_side.h"

#include <cstdio>
#include <cstring>
#include <random>
#include <utility>

#include "arbor/support.h"

namespace arbor::net {
namespace {

// A random instance id, never 0: a peer that reconnects is told from a new
// one by it, and the lower one decides between crossed connections.
uint64_t make_instance_id() {
  std::random_device rd;
  uint64_t id = 0;
  while (id == 0) id = (static_cast<uint64_t>(rd()) << 32) ^ rd();
  return id;
}

}  // namespace

LanSide::LanSide(const LanOptions& options, Handler handler)
    : options_(options), handler_(std::move(handler)), instance_(make_instance_id()),
      work_(asio::make_work_guard(io_)), accept_strand_(asio::make_strand(io_)),
      acceptor_(accept_strand_) {}

LanSide::~LanSide() { Stop(); }

std::unique_ptr<LanSide> LanSide::Start(const LanOptions& options, Handler handler) {
  std::unique_ptr<LanSide> side(new LanSide(options, std::move(handler)));
  if (!side->Listen()) return nullptr;  // no thread started yet
  side->AcceptNext();
  for (int i = 0; i < options.io_threads; ++i) side->threads_.emplace_back([s = side.get()] { s->RunIo(); });
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
  return true;
}

void LanSide::RunIo() {
  for (;;) {
    try {
      io_.run();
      return;
    } catch (const std::exception& e) {
      // A handler threw (out of memory, or the engine's handler in C++ form):
      // log it and keep the loop, so the other connections live on.
      ARBOR_LOG(0, "LAN I/O thread: %s", e.what());
    }
  }
}

// One accept at a time, on accept_strand_; each new socket gets a strand.
void LanSide::AcceptNext() {
  auto strand = asio::make_strand(io_);
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
      ARBOR_LOG(0, "LAN accept: %s", ec.message().c_str());
    }
    AcceptNext();
  });
}

bool LanSide::Stop() {
  for (const std::thread& t : threads_) {
    if (t.get_id() == std::this_thread::get_id()) {
      ARBOR_LOG(0, "UnInitLAN: called on a transport thread (inside a callback); call it from "
                   "another thread");
      return false;
    }
  }
  std::lock_guard stop_lock(stop_mutex_);
  if (stopped_) return true;
  stopped_ = true;
  stopping_.store(true);
  work_.reset();
  io_.stop();
  for (std::thread& t : threads_) t.join();
  threads_.clear();
  // No I/O thread runs now: sockets may be closed from here.
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
      asio::post(io_, [this, id] { Deliver(id, 0, QVNETS_SUCCESS, 0, nullptr); });
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
    conn = std::make_shared<Connection>(*this, asio::make_strand(io_), id);
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
  if ((hello.flags & kHelloFlagKeyRequired) != 0) {
    ARBOR_LOG(0, "LAN connection %s: the peer requires a LAN key and none is set here",
              conn->remote_address().c_str());
    conn->Fail(QVNETS_FAIL);
    return false;
  }
  std::shared_ptr<Connection> loser;
  bool report = false;
  uint16_t id = 0;
  {
    std::lock_guard lock(mutex_);
    Peer* peer = nullptr;
    if (conn->dialled()) {
      peer = peers_.Find(conn->peer());
      if (peer != nullptr && peer->dial == conn) peer->dial.reset();
    } else {
      // Known by its instance; or added by address and never connected yet
      // (it dialled us while our dial to it is still under way); or new.
      peer = peers_.FindByInstance(hello.instance);
      if (peer == nullptr) {
        peer = peers_.FindByAddress(conn->remote_address(), hello.listen_port);
        if (peer != nullptr && peer->instance != 0) peer = nullptr;
      }
      if (peer == nullptr) peer = peers_.Add(conn->remote_address(), hello.listen_port);
      if (peer != nullptr && peer->port == 0) peer->port = hello.listen_port;
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
  FrameHeader frame;
  frame.length = size;
  frame.boat = header.nBoatType;
  frame.pipe = header.nPipe;
  frame.type = header.nPacketType;
  frame.level = header.nLevel;
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
  std::shared_ptr<Connection> link;
  {
    std::lock_guard lock(mutex_);
    if (Peer* peer = peers_.Find(id)) link = peer->link;
  }
  if (link == nullptr) return -1;
  return link->Write(frame, data) == Connection::WriteResult::kRefused ? -1 : size;
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
  return true;
}

std::vector<uint16_t> LanSide::PeerIds() {
  std::lock_guard lock(mutex_);
  std::vector<uint16_t> ids;
  ids.reserve(peers_.size());
  for (const auto& [id, peer] : peers_.all()) ids.push_back(id);
  return ids;
}

}  // namespace arbor::net
