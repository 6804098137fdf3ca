// connection.h - one TCP connection to another instance (a LAN peer, or the
// service on the WAN), optionally under TLS: its opening exchange, its read
// loop and its output queue. Its owner (link_owner.h) gives the settings and
// hears the hello, every frame and the close.
//
// WHAT IS NEVER DROPPED. Control frames (type 3) and in-band frames (type 5)
// are never dropped: when the output queue is over its budget they queue
// anyway, up to the hard limit budget + kControlReserve; a write that would
// pass even that declares the peer gone (connection closed, status 7), so a
// peer is cut off rather than silently missing a control text. Only media
// frames (type 4) are dropped, and only when they would take the queue past
// the budget; each drop is counted and the write still succeeds. A frame is
// always queued whole or not at all, and the tail of a frame that the kernel
// took in part is always queued.
//
// Writes never wait. Write() may be called from any thread, also from inside
// the engine's callback. With an empty queue the caller's thread writes the
// header and the payload in one gathered non-blocking sendmsg, without a
// copy; only what the kernel did not take is copied into the queue, and a
// drain on the connection's strand sends the rest when the socket is
// writable. While the queue is not empty, frames are copied behind it, so
// they leave in the order their writes returned. A peer whose queue is not
// empty and that takes no byte for the peer time-out is declared gone.
//
// THE LAN KEY. With a key in the owner's settings the hello says so (flag
// bit 0) and is followed at once by a fresh random nonce; each side then
// sends a proof, HMAC-SHA-256 over the key of both instance ids and both
// nonces (its own id first, the peer's nonce first), and checks the peer's
// in constant time. The owner hears the hello, and the engine any frame,
// only after the peer's proof checked out. A side with a key refuses a
// peer without one, and a side without a key a peer that asks for one.
//
// Reads are serialised: one read at a time per connection, on its strand, so
// one peer's frames reach the engine in order. Every connection reads into
// one buffer of kReadBuffer bytes allocated when it is made; nothing is
// allocated from a length read off the wire.
//
// Lock: out_mutex_ guards the output queue, closed_/retiring_ and every use
// of the socket's descriptor by a writer; it is never held across a callback
// and nothing else is taken while it is held. Everything else of the
// connection belongs to its strand.
#ifndef ARBOR_NET_CONNECTION_H
#define ARBOR_NET_CONNECTION_H

#include <asio.hpp>
#include <asio/ssl.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "arbor/transport.h"
#include "host_lookup.h"
#include "link_owner.h"
#include "wire_codec.h"

namespace arbor::net {

// A connection's read buffer: room for whole frames and the start of the
// next, so that a stream of large frames takes about one read per two
// frames rather than two reads per frame. Less than a whole frame is left
// after each parse and moved to the front.
inline constexpr size_t kReadBuffer = 2 * kMaxFrame;

// How far past its budget a connection's queue may grow with frames that are
// never dropped (control and in-band) before the peer is declared gone.
inline constexpr size_t kControlReserve = 1u << 20;
// Longest wait for a TCP connection to be made; past it the peer counts as
// not reached (status 8).
inline constexpr std::chrono::milliseconds kConnectTimeout{5000};
// Longest wait for the peer's hello once TCP is up; past it the connection
// is closed (status 6 for the dialler).
inline constexpr std::chrono::milliseconds kHelloTimeout{5000};
// Longest life of a connection retired for another one to the same peer:
// by then both sides have moved to the survivor. One the peer retired and
// this side did not is then what the peer left, and counts as dropped.
inline constexpr std::chrono::milliseconds kRetireLimit{5000};

// Per-peer counters, shared by the peer entry and its connections; relaxed
// atomics, cheap enough to leave on.
struct PeerCounters {
  std::atomic<uint64_t> frames_in{0};
  std::atomic<uint64_t> bytes_in{0};
  std::atomic<uint64_t> frames_out{0};
  std::atomic<uint64_t> bytes_out{0};
  std::atomic<uint64_t> media_dropped{0};
  std::atomic<uint64_t> reconnects{0};
};

// The frame header of one write of the engine: its PacketHeader's fields
// and the payload's size.
inline FrameHeader frame_header_for(const PacketHeader& header, uint16_t size) {
  FrameHeader frame;
  frame.length = size;
  frame.boat = header.nBoatType;
  frame.pipe = header.nPipe;
  frame.type = header.nPacketType;
  frame.level = header.nLevel;
  return frame;
}

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Strand = asio::strand<asio::io_context::executor_type>;
  enum class WriteResult { kAccepted, kDropped, kRefused };

  // A connection to dial (socket not yet open) for peer `peer`.
  Connection(LinkOwner& owner, Strand strand, uint16_t peer);
  // An accepted connection; socket must run on strand.
  Connection(LinkOwner& owner, Strand strand, asio::ip::tcp::socket socket);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Puts the connection under TLS: before Dial (client: the peer's
  // certificate is checked against ctx's trust store and its name against
  // verify_host) or Accept (server: verify_host empty). A TLS connection
  // never writes from the caller's thread: the TLS stream belongs to the
  // strand, so every frame is copied into the queue (encryption copies it
  // anyway) and the strand sends it. Strand or before the first use.
  void UseTls(std::shared_ptr<asio::ssl::context> ctx, std::string verify_host);

  // Starts resolving and connecting to host:port, then the hello exchange.
  // Any thread; returns at once. The outcome reaches the owner's OnHello or
  // OnClosed on the strand.
  void Dial(std::string host, uint16_t port);
  // Starts the hello exchange of an accepted connection. Any thread.
  void Accept();

  // Sends one frame (see the file comment). Any thread, never blocks.
  // kAccepted: sent or queued whole. kDropped: a media frame over the budget,
  // counted. kRefused: the connection is closed or closing, or this frame
  // passed the hard limit and closed it.
  WriteResult Write(const FrameHeader& header, const void* payload);

  // Declares the connection over: writes are refused from now on, the queue
  // is freed and the socket is closed on the strand, which then tells
  // the owner's OnClosed with status (0: report nothing). Any thread; only the
  // first call counts.
  void Fail(int status);
  // Stops taking writes, sends what is queued and then the moved notice, and
  // shuts down the sending side; reading goes on to the end of the stream.
  // Once both directions have ended the connection closes quietly. For the
  // losing one of two connections to the same peer. Any thread.
  void Retire();
  // Closes the socket at once, reporting nothing. Only while no I/O thread
  // runs (the transport's stop).
  void CloseNow();
  // Waits up to limit until everything queued has left (or the connection
  // closed): for an orderly stop, so that the last frames, such as a
  // sign-off, are not lost. true when the queue is empty. Never on the I/O
  // thread, which is the one that drains it.
  bool WaitDrained(std::chrono::milliseconds limit);

  // Called by the owner under its lock before the connection becomes a peer's
  // link: the peer id to report and the counters to bump.
  void Bind(uint16_t peer, std::shared_ptr<PeerCounters> counters);

  bool dialled() const { return dialled_; }
  // "LAN" or "WAN", for log lines.
  const char* name() const { return owner_.settings().name; }
  uint16_t peer() const { return peer_.load(std::memory_order_relaxed); }
  // Bytes waiting in the output queue. Any thread.
  uint64_t queue_bytes() const { return queue_bytes_.load(std::memory_order_relaxed); }
  // Remote address as text, set once TCP is up; strand only.
  const std::string& remote_address() const { return remote_address_; }

 private:
  enum class Phase { kIdle, kConnecting, kHandshake, kHello, kProof, kOpen, kClosed };

  void OnConnected();
  // Turns on the keepalive probes and user time-out of link_owner.h. Strand.
  void SetKeepalive();
  // TLS only: the handshake, then the hello. Strand.
  void StartHandshake();
  // TLS only: sends from the queue with the TLS stream, one write at a
  // time. Strand.
  void DrainTls();
  void StartHello();
  void StartRead();
  void OnRead(std::error_code ec, size_t n);
  // Parses the hello and then every whole frame in the read buffer and
  // delivers them. Returns false when the connection was failed.
  bool ParseBuffer();
  // The hello (and with a key, the nonce) at the buffer's start. The bytes
  // it used, 0 while more must arrive, or -1 when the connection failed.
  ptrdiff_t TakeHello();
  // The peer's proof at the buffer's start, checked: as TakeHello.
  ptrdiff_t TakeProof();
  // Hands the peer's hello to the owner and opens the connection for
  // frames. false when the owner refused it (and failed it).
  bool Open();
  // HMAC-SHA-256 over the key of (from, to, nonce_a, nonce_b).
  void Proof(uint64_t from, uint64_t to, const uint8_t* nonce_a, const uint8_t* nonce_b,
             uint8_t out[kProofSize]) const;
  bool SubmitLocked(std::unique_lock<std::mutex>& lock, const void* head, size_t head_size,
                    const void* body, size_t body_size);
  void Drain();
  void ArmStall();
  void OnStall();
  void CloseOnStrand(int status);
  // Shuts down our sending side once a retired connection's queue is empty,
  // and closes it when the peer's side has ended too. Strand.
  void FinishRetiring();
  // Fails the connection with status if it is still open kRetireLimit from
  // now. Strand.
  void ArmRetireLimit(int status);

  LinkOwner& owner_;
  Strand strand_;
  asio::ip::tcp::socket socket_;
  // Set by UseTls; then every read and write goes through it (strand only).
  std::shared_ptr<asio::ssl::context> tls_ctx_;
  std::unique_ptr<asio::ssl::stream<asio::ip::tcp::socket&>> tls_;
  std::string verify_host_;
  bool tls_writing_ = false;  // strand only: a TLS write is in flight
  // Strand only: the frames of the TLS write in flight, moved out of the
  // queue so that Fail (any thread) cannot free them under the write.
  std::vector<std::vector<uint8_t>> tls_inflight_;
  std::shared_ptr<HostLookup> lookup_;  // strand only (and CloseNow once threads are stopped)
  asio::steady_timer deadline_;  // connect and hello time-out
  asio::steady_timer stall_;     // peer time-out while the queue is not empty
  const bool dialled_;
  std::atomic<uint16_t> peer_;
  std::shared_ptr<PeerCounters> counters_;  // set by Bind before any frame

  // Strand only.
  Phase phase_ = Phase::kIdle;
  bool stall_armed_ = false;
  bool moved_ = false;     // the peer sent the moved notice: its end of stream is no failure
  bool read_ended_ = false;  // the peer's end of stream arrived after a moved notice
  bool sent_ended_ = false;  // our sending side is shut down after retiring
  std::string remote_address_;
  std::unique_ptr<uint8_t[]> rbuf_;  // kReadBuffer bytes
  Hello theirs_;                     // the peer's hello, kept through the proof
  uint8_t my_nonce_[kNonceSize] = {};
  uint8_t their_nonce_[kNonceSize] = {};
  size_t rfill_ = 0;

  std::mutex out_mutex_;
  bool closed_ = false;    // guarded by out_mutex_
  bool retiring_ = false;  // guarded by out_mutex_
  std::deque<std::vector<uint8_t>> queue_;  // guarded by out_mutex_
  size_t front_offset_ = 0;                 // guarded by out_mutex_: sent part of queue_.front()
  size_t queued_ = 0;                       // guarded by out_mutex_: unsent bytes in queue_
                                            // (and in tls_inflight_)
  std::chrono::steady_clock::time_point last_progress_;  // guarded by out_mutex_
  std::atomic<uint64_t> queue_bytes_{0};    // mirror of queued_ for statistics
  std::condition_variable drained_;         // with out_mutex_: queued_ fell to 0, or closed
};

}  // namespace arbor::net

#endif  // ARBOR_NET_CONNECTION_H
