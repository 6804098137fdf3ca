// wan_link.cc - the link to the service: dialling, TLS, statuses, redialling
// with back-off, and frames both ways (rules in wan_link.h).
#include "wan_link.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <utility>

#include "arbor/support.h"

namespace arbor::net {

WanLink::WanLink(Handler handler, WanOptions options)
    : handler_(std::move(handler)), options_(std::move(options)),
      redial_(io_threads_.io()) {
  settings_.name = "WAN";
  settings_.instance = new_instance_id();
  settings_.budget = options_.budget;
  settings_.keepalive = true;
}

WanLink::~WanLink() { Stop(); }

std::unique_ptr<WanLink> WanLink::Start(Handler handler, WanOptions options) {
  std::unique_ptr<WanLink> link(new WanLink(std::move(handler), std::move(options)));
  link->io_threads_.Start(1);
  return link;
}

bool WanLink::Stop() {
  if (!io_threads_.MayStopFrom("UnInitWAN")) return false;
  std::lock_guard stop_lock(stop_mutex_);
  if (stopped_) return true;
  stopped_ = true;
  std::shared_ptr<Connection> last;
  {
    std::lock_guard lock(mutex_);
    if (up_) last = current_;
  }
  if (last != nullptr && !last->WaitDrained(kStopFlushLimit))
    ARBOR_LOG(0, "WAN: %llu bytes still queued after %lld ms; closing anyway",
              static_cast<unsigned long long>(last->queue_bytes()),
              static_cast<long long>(kStopFlushLimit.count()));
  stopping_.store(true);
  io_threads_.Stop();
  // No I/O thread runs now: the socket may be closed from here.
  std::lock_guard lock(mutex_);
  if (current_ != nullptr) current_->CloseNow();
  current_.reset();
  up_ = false;
  ARBOR_LOG(2, "WAN off");
  return true;
}

// ------------------------------------------------------------ dialling

std::shared_ptr<asio::ssl::context> WanLink::TlsContext() {
  {
    std::lock_guard lock(mutex_);
    if (tls_ctx_ != nullptr) return tls_ctx_;
  }
  auto ctx = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
  // TLS 1.3 only: the service is ours to configure, and older versions
  // bring nothing but ways to downgrade.
  SSL_CTX_set_min_proto_version(ctx->native_handle(), TLS1_3_VERSION);
  std::error_code ec;
  if (!options_.ca_file.empty()) ctx->load_verify_file(options_.ca_file, ec);
  if (!ec && !options_.ca_path.empty()) ctx->add_verify_path(options_.ca_path, ec);
  if (!ec && options_.ca_file.empty() && options_.ca_path.empty()) ctx->set_default_verify_paths(ec);
  if (ec) {
    ARBOR_LOG(0, "WAN: cannot load the trusted CAs (ca_file=%s, ca_path=%s): %s; check "
                 "arbor_net_wan_options",
              options_.ca_file.c_str(), options_.ca_path.c_str(), ec.message().c_str());
    return nullptr;
  }
  return ctx;
}

int32_t WanLink::Connect(const std::string& host, uint16_t port, bool tls) {
  if (host.empty() || port == 0) {
    ARBOR_LOG(0, "ConRemoteHostInfo: no host or port given (host '%s', port %u)", host.c_str(),
              port);
    return -1;
  }
  // The trust store is read from disk before the lock, which writers take.
  std::shared_ptr<asio::ssl::context> tls_ctx;
  if (tls && (tls_ctx = TlsContext()) == nullptr) return -1;
  bool report_up = false;
  {
    std::lock_guard lock(mutex_);
    if (stopping_.load()) return -1;
    if (host == host_ && port == port_ && tls == tls_ && current_ != nullptr) {
      report_up = up_;  // up: say so again; dialling: let that attempt answer
    } else {
      tls_ctx_ = tls_ctx;
      if (current_ != nullptr) current_->Fail(0);  // replaced: quietly
      current_.reset();
      up_ = false;
      redialling_ = false;
      attempt_ = 0;
      redial_.cancel();
      host_ = host;
      port_ = port;
      tls_ = tls;
      DialLocked();
    }
  }
  // Said again only if still true when it is delivered: a 9 after a 7
  // would have the engine sign in on a dead link.
  if (report_up)
    asio::post(io_threads_.io(), [this] {
      bool still_up = false;
      {
        std::lock_guard lock(mutex_);
        still_up = up_;
      }
      if (still_up) Report(QVNETS_SUCCESS);
    });
  return 0;
}

void WanLink::DialLocked() {
  auto conn = std::make_shared<Connection>(*this, asio::make_strand(io_threads_.io()), 0);
  if (tls_) conn->UseTls(tls_ctx_, host_);
  current_ = conn;
  up_ = false;
  ARBOR_LOG(2, "WAN: connecting to %s:%u (%s)", host_.c_str(), port_, tls_ ? "TLS 1.3" : "TCP");
  conn->Dial(host_, port_);
}

void WanLink::ScheduleRedialLocked() {
  const auto ceiling = std::min<std::chrono::milliseconds>(
      kReconnectMax, kReconnectFirst * (1 << std::min(attempt_, 16)));
  ++attempt_;
  thread_local std::minstd_rand random(std::random_device{}());
  const auto delay = std::chrono::milliseconds(
      ceiling.count() / 2 +
      std::uniform_int_distribution<long long>(0, ceiling.count() / 2)(random));
  ARBOR_LOG(2, "WAN: redialling %s:%u in %lld ms", host_.c_str(), port_,
            static_cast<long long>(delay.count()));
  redial_.expires_after(delay);
  redial_.async_wait([this](std::error_code ec) {
    if (ec) return;
    std::lock_guard lock(mutex_);
    if (stopping_.load() || current_ != nullptr || !redialling_) return;
    DialLocked();
  });
}

// ------------------------------------------------------------ the link

bool WanLink::OnHello(const std::shared_ptr<Connection>& conn, const Hello&) {
  {
    std::lock_guard lock(mutex_);
    if (conn != current_ || stopping_.load()) {
      conn->Fail(0);  // replaced while it said hello
      return false;
    }
    conn->Bind(0, counters_);
    if (redialling_) counters_->reconnects.fetch_add(1, std::memory_order_relaxed);
    up_ = true;
    redialling_ = false;
    attempt_ = 0;
  }
  ARBOR_LOG(2, "WAN: link to the service is up");
  Report(QVNETS_SUCCESS);
  return true;
}

void WanLink::OnClosed(const std::shared_ptr<Connection>& conn, int status) {
  int report = 0;
  {
    std::lock_guard lock(mutex_);
    if (conn != current_ || stopping_.load() || status == 0) return;
    current_.reset();
    if (up_) {
      up_ = false;
      redialling_ = true;
      report = QVNETS_DISCONNECT;
      ScheduleRedialLocked();
    } else if (redialling_) {
      ScheduleRedialLocked();  // still down: try again later, silently
    } else {
      // The first attempt failed: the host decides. A link that broke
      // before its hellos is a failed connection, never "the link dropped",
      // which the engine would wait out.
      report = status == QVNETS_DISCONNECT ? QVNETS_FAIL : status;
    }
  }
  if (report != 0) Report(report);
}

void WanLink::Deliver(uint32_t, uint32_t pipe, uint32_t type, uint32_t size, const void* data) {
  if (!stopping_.load()) handler_(pipe, type, size, data);
}

void WanLink::Report(int status) {
  if (!stopping_.load()) handler_(0, static_cast<uint32_t>(status), 0, nullptr);
}

int32_t WanLink::Write(const PacketHeader& header, const void* data, uint16_t size) {
  if (!frame_type_valid(header.nPacketType) || (data == nullptr && size > 0)) return -1;
  std::shared_ptr<Connection> conn;
  {
    std::lock_guard lock(mutex_);
    if (up_) conn = current_;
  }
  if (conn == nullptr) return -1;
  const FrameHeader frame = frame_header_for(header, size);
  return conn->Write(frame, data) == Connection::WriteResult::kRefused ? -1 : size;
}

void WanLink::Stats(arbor_net_peer_info* out) {
  std::lock_guard lock(mutex_);
  *out = arbor_net_peer_info{};
  std::snprintf(out->address, sizeof out->address, "%s", host_.c_str());
  out->listen_port = port_;
  out->link_up = up_ ? 1 : 0;
  out->frames_in = counters_->frames_in.load(std::memory_order_relaxed);
  out->bytes_in = counters_->bytes_in.load(std::memory_order_relaxed);
  out->frames_out = counters_->frames_out.load(std::memory_order_relaxed);
  out->bytes_out = counters_->bytes_out.load(std::memory_order_relaxed);
  out->media_dropped = counters_->media_dropped.load(std::memory_order_relaxed);
  out->reconnects = counters_->reconnects.load(std::memory_order_relaxed);
  out->queue_bytes = current_ != nullptr ? current_->queue_bytes() : 0;
}

}  // namespace arbor::net
