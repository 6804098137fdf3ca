// connection_open.cc - how a connection opens: dial or accept, the TLS
// handshake when asked, the hellos, and with a LAN key the proof on both
// sides (rules in connection.h). Only then does its owner hear of it and
// may frames flow; the read loop and the output queue are connection.cc's.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "arbor/support.h"
#include "arbor/transport.h"
#include "connection.h"

namespace arbor::net {

void Connection::Dial(std::string host, uint16_t port) {
  asio::post(strand_, [self = shared_from_this(), host = std::move(host), port] {
    if (self->phase_ != Phase::kIdle) return;
    self->phase_ = Phase::kConnecting;
    self->deadline_.expires_after(kConnectTimeout);
    self->deadline_.async_wait([self](std::error_code ec) {
      if (ec || self->phase_ != Phase::kConnecting) return;
      ARBOR_LOG(0, "%s peer %u: no connection within %lld ms", self->name(), self->peer(),
                static_cast<long long>(kConnectTimeout.count()));
      self->Fail(QVNETS_UNREACHABLE);
    });
    auto resolved = [self, host](std::error_code ec, HostLookup::Endpoints found) {
      if (self->phase_ != Phase::kConnecting) return;
      if (ec) {
        ARBOR_LOG(0, "%s peer %u: cannot resolve %s: %s", self->name(), self->peer(), host.c_str(),
                  ec.message().c_str());
        self->Fail(QVNETS_UNREACHABLE);
        return;
      }
      asio::async_connect(self->socket_, found,
                          [self, host](std::error_code cec, const asio::ip::tcp::endpoint&) {
                            if (self->phase_ != Phase::kConnecting) return;
                            if (!cec) {
                              self->OnConnected();
                              return;
                            }
                            ARBOR_LOG(0, "%s peer %u: cannot connect to %s: %s", self->name(),
                                      self->peer(), host.c_str(), cec.message().c_str());
                            self->Fail(cec == asio::error::connection_refused ? QVNETS_FAIL
                                                                             : QVNETS_UNREACHABLE);
                          });
    };
    self->lookup_ = HostLookup::Start(host, port, self->strand_, std::move(resolved));
    if (self->lookup_ == nullptr) self->Fail(QVNETS_UNREACHABLE);
  });
}

void Connection::UseTls(std::shared_ptr<asio::ssl::context> ctx, std::string verify_host) {
  tls_ctx_ = std::move(ctx);
  verify_host_ = std::move(verify_host);
  tls_ = std::make_unique<asio::ssl::stream<asio::ip::tcp::socket&>>(socket_, *tls_ctx_);
  if (!verify_host_.empty()) {
    // The name goes out as SNI and is what the certificate must carry.
    // SSL_set_tlsext_host_name, without the macro's C cast.
    SSL_ctrl(tls_->native_handle(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
             const_cast<char*>(verify_host_.c_str()));
    tls_->set_verify_mode(asio::ssl::verify_peer);
    tls_->set_verify_callback(asio::ssl::host_name_verification(verify_host_));
  }
}

void Connection::Accept() {
  asio::post(strand_, [self = shared_from_this()] {
    if (self->phase_ != Phase::kIdle) return;
    if (self->tls_)
      self->StartHandshake();
    else
      self->StartHello();
  });
}

void Connection::OnConnected() {
  deadline_.cancel();
  if (tls_)
    StartHandshake();
  else
    StartHello();
}

// A failed handshake is a failed connection (status 6), never a fall-back
// to plain text: the reason, such as a certificate that does not verify,
// goes to the log.
void Connection::StartHandshake() {
  phase_ = Phase::kHandshake;
  std::error_code ec;
  const auto remote = socket_.remote_endpoint(ec);
  remote_address_ = ec ? std::string("?") : remote.address().to_string();
  deadline_.expires_after(kHelloTimeout);
  deadline_.async_wait([self = shared_from_this()](std::error_code wec) {
    if (wec || self->phase_ != Phase::kHandshake) return;
    ARBOR_LOG(0, "%s connection %s: no TLS handshake within %lld ms", self->name(),
              self->remote_address_.c_str(), static_cast<long long>(kHelloTimeout.count()));
    self->Fail(QVNETS_FAIL);
  });
  const auto role = verify_host_.empty() ? asio::ssl::stream_base::server
                                         : asio::ssl::stream_base::client;
  tls_->async_handshake(role, [self = shared_from_this()](std::error_code hec) {
    if (self->phase_ != Phase::kHandshake) return;
    if (hec) {
      ARBOR_LOG(0, "%s connection %s: TLS handshake failed: %s", self->name(),
                self->remote_address_.c_str(), hec.message().c_str());
      self->Fail(QVNETS_FAIL);
      return;
    }
    self->deadline_.cancel();
    self->StartHello();
  });
}

// Sends our hello, arms the hello time-out and starts reading. Strand.
void Connection::StartHello() {
  phase_ = Phase::kHello;
  std::error_code ec;
  const auto remote = socket_.remote_endpoint(ec);
  remote_address_ = ec ? std::string("?") : remote.address().to_string();
  socket_.set_option(asio::ip::tcp::no_delay(true), ec);  // frames are whole writes
  if (owner_.settings().keepalive) SetKeepalive();

  const bool keyed = !owner_.settings().key.empty();
  Hello mine;
  mine.instance = owner_.settings().instance;
  mine.listen_port = owner_.settings().listen_port;
  mine.version = owner_.settings().version;
  if (keyed) {
    mine.flags |= kHelloFlagKeyRequired;
    if (RAND_bytes(my_nonce_, sizeof my_nonce_) != 1) {
      ARBOR_LOG(0, "%s connection %s: no random bytes for the key exchange", name(),
                remote_address_.c_str());
      Fail(QVNETS_FAIL);
      return;
    }
  }
  uint8_t bytes[kHelloSize];
  hello_encode(mine, bytes);
  {
    std::unique_lock lock(out_mutex_);
    if (closed_) return;
    if (!SubmitLocked(lock, bytes, sizeof bytes, keyed ? my_nonce_ : nullptr,
                      keyed ? sizeof my_nonce_ : 0))
      return;
  }

  deadline_.expires_after(kHelloTimeout);
  deadline_.async_wait([self = shared_from_this()](std::error_code wec) {
    if (wec || (self->phase_ != Phase::kHello && self->phase_ != Phase::kProof)) return;
    ARBOR_LOG(0, "%s connection %s: no hello within %lld ms", self->name(), self->remote_address_.c_str(),
              static_cast<long long>(kHelloTimeout.count()));
    self->Fail(QVNETS_FAIL);
  });
  StartRead();
}

// Failures only weaken the bound, so they are logged and the link goes on.
void Connection::SetKeepalive() {
  const int fd = socket_.native_handle();
  const int on = 1;
  const int idle = static_cast<int>(kKeepaliveIdle.count());
  const int interval = static_cast<int>(kKeepaliveInterval.count());
  const int probes = kKeepaliveProbes;
  const unsigned user_timeout_ms =
      static_cast<unsigned>(std::chrono::milliseconds(kDeadLinkBound).count());
  if (setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0 ||
      setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle) != 0 ||
      setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval) != 0 ||
      setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes) != 0 ||
      setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &user_timeout_ms, sizeof user_timeout_ms) != 0)
    ARBOR_LOG(0, "%s connection %s: keepalive: %s", name(), remote_address_.c_str(),
              std::strerror(errno));
}

ptrdiff_t Connection::TakeHello() {
  const Verdict v = hello_decode(rbuf_.get(), rfill_, &theirs_);
  if (v == Verdict::kShort) return 0;
  if (v != Verdict::kOk) {
    ARBOR_LOG(0, "%s connection %s: hello refused: %s", name(), remote_address_.c_str(),
              verdict_text(v));
    Fail(QVNETS_FAIL);
    return -1;
  }
  // Our own instance id is a connection to ourselves, or our hello sent
  // back: refused before any proof of ours goes out.
  if (theirs_.instance == owner_.settings().instance) {
    ARBOR_LOG(0, "%s connection %s: the peer speaks with our own instance id; closing", name(),
              remote_address_.c_str());
    Fail(QVNETS_FAIL);
    return -1;
  }
  const bool keyed = !owner_.settings().key.empty();
  const bool asks = (theirs_.flags & kHelloFlagKeyRequired) != 0;
  if (keyed != asks) {
    ARBOR_LOG(0, "%s connection %s: %s; closing", name(), remote_address_.c_str(),
              keyed ? "the peer has no LAN key and this side requires one"
                    : "the peer requires a LAN key and none is set here");
    Fail(QVNETS_FAIL);
    return -1;
  }
  if (!keyed) return static_cast<ptrdiff_t>(kHelloSize);
  if (rfill_ < kHelloSize + kNonceSize) return 0;
  std::memcpy(their_nonce_, rbuf_.get() + kHelloSize, kNonceSize);
  if (CRYPTO_memcmp(their_nonce_, my_nonce_, kNonceSize) == 0) {
    ARBOR_LOG(0, "%s connection %s: the peer sent our own nonce back; closing", name(),
              remote_address_.c_str());
    Fail(QVNETS_FAIL);
    return -1;
  }
  uint8_t proof[kProofSize];
  Proof(owner_.settings().instance, theirs_.instance, their_nonce_, my_nonce_, proof);
  {
    std::unique_lock lock(out_mutex_);
    if (closed_ || !SubmitLocked(lock, proof, sizeof proof, nullptr, 0)) return -1;
  }
  return static_cast<ptrdiff_t>(kHelloSize + kNonceSize);
}

// The peer must have used the key on our nonce: a recorded proof of an
// earlier connection, or ours sent back, does not match.
ptrdiff_t Connection::TakeProof() {
  if (rfill_ < kProofSize) return 0;
  uint8_t expected[kProofSize];
  Proof(theirs_.instance, owner_.settings().instance, my_nonce_, their_nonce_, expected);
  if (CRYPTO_memcmp(expected, rbuf_.get(), kProofSize) != 0) {
    ARBOR_LOG(0, "%s connection %s: the peer failed the LAN key challenge; closing", name(),
              remote_address_.c_str());
    Fail(QVNETS_FAIL);
    return -1;
  }
  return static_cast<ptrdiff_t>(kProofSize);
}

void Connection::Proof(uint64_t from, uint64_t to, const uint8_t* nonce_a, const uint8_t* nonce_b,
                       uint8_t out[kProofSize]) const {
  static constexpr char kLabel[] = "arbor lan key proof 1";
  uint8_t message[sizeof kLabel + 16 + 2 * kNonceSize];
  uint8_t* at = message;
  std::memcpy(at, kLabel, sizeof kLabel);
  at += sizeof kLabel;
  for (const uint64_t id : {from, to})
    for (int shift = 56; shift >= 0; shift -= 8) *at++ = static_cast<uint8_t>(id >> shift);
  std::memcpy(at, nonce_a, kNonceSize);
  std::memcpy(at + kNonceSize, nonce_b, kNonceSize);
  const std::string& key = owner_.settings().key;
  unsigned int length = kProofSize;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), message, sizeof message, out,
       &length);
}

bool Connection::Open() {
  if (!owner_.OnHello(shared_from_this(), theirs_)) return false;
  deadline_.cancel();
  phase_ = Phase::kOpen;
  return true;
}

}  // namespace arbor::net
