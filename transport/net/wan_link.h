// wan_link.h - the WAN side of the transport: one link to the service, plain
// TCP or TLS, which comes back by itself after it drops.
//
// Made by Start (InitWAN) and ended by Stop (UnInitWAN); one I/O thread runs
// the link, and every call of the engine's handler happens on it, never
// with mutex_ held and never after Stop has returned.
//
// Statuses, as the engine reads them:
//   9  the link (and TLS) is up and the hellos are exchanged;
//   6  the connection attempt was refused, or TLS or the hello failed (a
//      certificate that does not verify is such a failure: there is no
//      fall-back to plain text);
//   8  the host could not be resolved or reached;
//   7  an established link dropped or went silent. From then on the link
//      redials by itself, with exponential back-off and jitter, silently,
//      until it is up again (9) or Stop. A first attempt that fails is
//      reported (6 or 8) and not retried: the host decides whether to sign
//      in again.
// A link that went silent is noticed by TCP keepalive and the user time-out
// within kDeadLinkBound (link_owner.h), or by the connection's stall timer
// while frames wait.
//
// Frames: a frame's payload is the data NetWrite was given, and it arrives
// at the other side's handler exactly so, with its pipe, type, boat and
// level (for control text, pipe 0 and the AS code in the payload's first
// two bytes). Lock: mutex_ guards the target and the current connection;
// nothing else is taken while it is held.
#ifndef ARBOR_NET_WAN_LINK_H
#define ARBOR_NET_WAN_LINK_H

#include <asio.hpp>
#include <asio/ssl.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "arbor/net.h"
#include "arbor/transport.h"
#include "connection.h"
#include "io_threads.h"
#include "link_owner.h"

namespace arbor::net {

// First delay before redialling a link that dropped; doubled after every
// failed attempt up to kReconnectMax. Each delay is drawn at random from
// its upper half, so that many devices that lost the service at once do
// not come back at once.
inline constexpr std::chrono::milliseconds kReconnectFirst{200};
inline constexpr std::chrono::milliseconds kReconnectMax{30000};
// Longest wait in Stop for frames still queued on the link to leave: the
// engine signs off with a text and stops the WAN right after it.
inline constexpr std::chrono::milliseconds kStopFlushLimit{1000};

// What a host may set for the WAN (arbor_net_wan_options).
struct WanOptions {
  std::string ca_file;  // PEM file of trusted CAs; with ca_path empty too:
  std::string ca_path;  // the system's trust store
  uint32_t budget = 4u << 20;
};

class WanLink : public LinkOwner {
 public:
  // The engine's WAN callback in C++ form: (pipe, type, size, data).
  using Handler = std::function<void(uint32_t, uint32_t, uint32_t, const void*)>;

  // Starts the I/O thread. Cannot fail but for lack of threads (throws).
  static std::unique_ptr<WanLink> Start(Handler handler, WanOptions options);
  ~WanLink() override;
  WanLink(const WanLink&) = delete;
  WanLink& operator=(const WanLink&) = delete;

  // Lets what is queued on an up link leave (at most kStopFlushLimit),
  // then closes the link, stops redialling and joins the I/O thread; no
  // handler call runs after it returns. Idempotent. Refused (false, logged) on the
  // I/O thread, which cannot join itself.
  bool Stop();

  // Connects to host:port, over TLS when tls is set (the certificate must
  // verify against the trust store and carry host). Returns at once: 0, or
  // -1 (logged) for an empty host, port 0, or a trust store that cannot be
  // loaded. The same target with the link up reports 9 again; with an
  // attempt under way, nothing new starts. Another target replaces the
  // current link quietly. Any thread.
  int32_t Connect(const std::string& host, uint16_t port, bool tls);

  // Sends one frame. size on success (also when a media frame was dropped
  // over the budget), -1 when the link is not up or had to be closed. Any
  // thread, never blocks.
  int32_t Write(const PacketHeader& header, const void* data, uint16_t size);

  // Statistics of the link, in the record of net.h (id 0, the target).
  void Stats(arbor_net_peer_info* out);

  // ---- LinkOwner, on the connection's strand ----
  const LinkSettings& settings() const override { return settings_; }
  bool OnHello(const std::shared_ptr<Connection>& conn, const Hello& hello) override;
  void OnClosed(const std::shared_ptr<Connection>& conn, int status) override;
  void Deliver(uint32_t from, uint32_t pipe, uint32_t type, uint32_t size,
               const void* data) override;

 private:
  WanLink(Handler handler, WanOptions options);
  // A new connection to the target. Caller holds mutex_.
  void DialLocked();
  // Arms the redial timer for the next attempt. Caller holds mutex_.
  void ScheduleRedialLocked();
  // Calls the handler with a status, unless stopping.
  void Report(int status);
  // The TLS context for the options: the one made before, or a new one.
  // Null (logged) when the trust store cannot be loaded. Takes mutex_
  // only to look; reads files without it.
  std::shared_ptr<asio::ssl::context> TlsContext();

  const Handler handler_;
  const WanOptions options_;
  LinkSettings settings_;
  IoThreads io_threads_{"WAN", "arbor-wan-io"};  // one thread; declared before what runs on it
  asio::steady_timer redial_;
  std::atomic<bool> stopping_{false};
  std::mutex stop_mutex_;  // one Stop at a time
  bool stopped_ = false;   // guarded by stop_mutex_

  std::mutex mutex_;
  std::string host_;                    // guarded by mutex_: the target
  uint16_t port_ = 0;                   // guarded by mutex_
  bool tls_ = false;                    // guarded by mutex_
  std::shared_ptr<Connection> current_; // guarded by mutex_: dialling or up
  bool up_ = false;                     // guarded by mutex_: current_ passed its hello
  bool redialling_ = false;             // guarded by mutex_: after a 7, until up again
  int attempt_ = 0;                     // guarded by mutex_: failed redials in a row
  std::shared_ptr<asio::ssl::context> tls_ctx_;      // guarded by mutex_: the one in use
  std::shared_ptr<PeerCounters> counters_ = std::make_shared<PeerCounters>();
};

}  // namespace arbor::net

#endif  // ARBOR_NET_WAN_LINK_H
