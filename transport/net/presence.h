// presence.h - announcing this peer on the LAN by UDP multicast and hearing
// the announcements of the others (docs/wire.md, section 4).
//
// Off unless the LAN options name the interface (or local IPv4 address) to
// announce on: a library must not start multicasting on whatever interface
// a host happens to have. When on, one UDP socket is bound to the group and
// port, joined to the group on that interface only, sends on it only, with
// a TTL of 1 (never routed) and without looping its own datagrams back
// (they would be ignored anyway: a datagram with our own instance id is).
//
// What is sent: nothing until the host gave a text (LANReFlash), since a
// host presents itself when it is ready to be found; then the datagram with
// the last text given, every interval, and at once when the text changes.
// When presence stops, one last datagram with the bye flag tells the others
// to drop this peer at once rather than after their time-out.
//
// What is heard: each datagram is decoded by the pure codec into a buffer
// of fixed size; a bad one is dropped and counted (logged at level 0 when
// the count reaches a power of two, so a flood cannot flood the log), and
// nothing is ever allocated from it. A good one from another instance goes
// to the listener, which keeps the peer table.
//
// Threads: everything runs on the LAN's io_context, on a strand of its own;
// the listener is called on it with no lock of presence held. SetText may be
// called from any thread. Stop runs only once no I/O thread runs.
#ifndef ARBOR_NET_PRESENCE_H
#define ARBOR_NET_PRESENCE_H

#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "lan_options.h"
#include "wire_codec.h"

namespace arbor::net {

class PresenceListener {
 public:
  virtual ~PresenceListener() = default;
  // A valid announcement from another instance, sent from host (the
  // datagram's source address). The text is valid during the call only.
  virtual void OnAnnouncement(const Announcement& a, const std::string& host) = 0;
  // Once per interval: the time to declare silent peers gone.
  virtual void OnPresenceTick() = 0;
};

class Presence {
 public:
  // What presence announces about this transport.
  struct Self {
    uint64_t instance = 0;
    uint16_t listen_port = 0;
    uint16_t version = 0;
  };

  // Opens the socket, joins the group on the interface of options and starts
  // hearing and the interval timer on io. Null, with a level-0 line that
  // says what to do, when the interface is unknown or has no IPv4 address,
  // or the socket cannot be made, bound or joined. Nothing is sent yet.
  static std::unique_ptr<Presence> Start(asio::io_context& io, const LanOptions& options,
                                         const Self& self, PresenceListener& listener);
  ~Presence();
  Presence(const Presence&) = delete;
  Presence& operator=(const Presence&) = delete;

  // Sets the announced text (size at most kMaxPresenceText: asserted) and
  // sends it at once. Any thread, never blocks.
  void SetText(const char* text, uint16_t size);
  // Sends the bye datagram and closes the socket. Only while no I/O thread
  // of io runs. Idempotent.
  void Stop();
  // Datagrams dropped as malformed since the start. Any thread.
  uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }
  // The interface address announced on, as text.
  const std::string& interface_address() const { return interface_text_; }

 private:
  using Strand = asio::strand<asio::io_context::executor_type>;
  Presence(asio::io_context& io, const LanOptions& options, const Self& self,
           PresenceListener& listener);
  bool Open(const asio::ip::address_v4& interface);
  void ReceiveNext();
  void OnReceived(std::error_code ec, size_t size);
  void ArmTick();
  // Sends the current datagram if a text was given. Strand (or Stop).
  void SendNow(uint16_t flags);

  const Self self_;
  const std::chrono::milliseconds interval_;
  PresenceListener& listener_;
  Strand strand_;
  asio::ip::udp::socket socket_;
  asio::steady_timer tick_;
  asio::ip::udp::endpoint group_;
  std::string interface_text_;

  // Strand only.
  asio::ip::udp::endpoint sender_;
  bool receiving_ = false;  // a receive is under way; after an error the tick restarts it
  uint8_t rbuf_[kMaxPresenceDatagram + 1];  // one more: a longer datagram shows itself

  std::mutex text_mutex_;
  bool has_text_ = false;  // guarded by text_mutex_
  std::string text_;       // guarded by text_mutex_

  std::atomic<uint64_t> dropped_{0};
  bool stopped_ = false;  // Stop only
};

// The IPv4 address of an interface given by name or as a literal local
// address; false (logged, with what to do) when there is none.
bool presence_interface_address(const std::string& name, asio::ip::address_v4* out);

}  // namespace arbor::net

#endif  // ARBOR_NET_PRESENCE_H
