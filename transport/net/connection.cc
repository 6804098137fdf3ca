// connection.cc - a connection once it is open: the read loop that hands
// whole frames to the owner, the output queue with its budget, and closing
// (rules in connection.h; the opening is connection_open.cc's).
#include "connection.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "arbor/support.h"
#include "arbor/transport.h"

namespace arbor::net {
namespace {

// Most queue entries one drain passes to a single sendmsg.
constexpr int kDrainIov = 16;
using Clock = std::chrono::steady_clock;

// sendmsg without SIGPIPE and without blocking, retried on EINTR. The number
// of bytes taken, or -1 with errno.
ssize_t send_now(int fd, iovec* iov, size_t count) {
  msghdr msg{};
  msg.msg_iov = iov;
  msg.msg_iovlen = count;
  ssize_t n;
  do {
    n = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  return n;
}

bool would_block(int err) { return err == EAGAIN || err == EWOULDBLOCK; }

}  // namespace

Connection::Connection(LinkOwner& owner, Strand strand, uint16_t peer)
    : owner_(owner), strand_(strand), socket_(strand), deadline_(strand),
      stall_(strand), dialled_(true), peer_(peer), rbuf_(new uint8_t[kReadBuffer]) {}

Connection::Connection(LinkOwner& owner, Strand strand, asio::ip::tcp::socket socket)
    : owner_(owner), strand_(strand), socket_(std::move(socket)),
      deadline_(strand), stall_(strand), dialled_(false), peer_(0),
      rbuf_(new uint8_t[kReadBuffer]) {}

void Connection::Bind(uint16_t peer, std::shared_ptr<PeerCounters> counters) {
  peer_.store(peer, std::memory_order_relaxed);
  counters_ = std::move(counters);
}

// ------------------------------------------------------------ reading

void Connection::StartRead() {
  auto into = asio::buffer(rbuf_.get() + rfill_, kReadBuffer - rfill_);
  auto then = [self = shared_from_this()](std::error_code ec, size_t n) { self->OnRead(ec, n); };
  if (tls_)
    tls_->async_read_some(into, std::move(then));
  else
    socket_.async_read_some(into, std::move(then));
}

void Connection::OnRead(std::error_code ec, size_t n) {
  if (phase_ == Phase::kClosed || ec == asio::error::operation_aborted) return;
  const int lost = phase_ == Phase::kOpen ? QVNETS_DISCONNECT : QVNETS_FAIL;
  if (ec == asio::error::eof && moved_ && rfill_ == 0) {
    // The peer retired this connection for another one to us: keep writing
    // here until that one replaces it, then close quietly. If no
    // replacement comes (this side never learned of one), the connection
    // is what the peer left: after kRetireLimit it counts as dropped.
    read_ended_ = true;
    FinishRetiring();
    ArmRetireLimit(QVNETS_DISCONNECT);
    return;
  }
  if (ec) {
    if (ec == asio::error::eof && rfill_ > 0)
      ARBOR_LOG(0, "%s connection %s (peer %u): stream ends inside a %s",
                name(), remote_address_.c_str(), peer(), phase_ == Phase::kOpen ? "frame" : "hello");
    else
      ARBOR_LOG(2, "%s connection %s (peer %u): %s", name(), remote_address_.c_str(), peer(),
                ec.message().c_str());
    Fail(lost);
    return;
  }
  rfill_ += n;
  if (ParseBuffer()) StartRead();
}

bool Connection::ParseBuffer() {
  size_t offset = 0;
  if (phase_ == Phase::kHello) {
    const ptrdiff_t used = TakeHello();
    if (used <= 0) return used == 0;
    offset = static_cast<size_t>(used);
    if (owner_.settings().key.empty()) {
      if (!Open()) return false;
    } else {
      phase_ = Phase::kProof;
    }
  }
  if (phase_ == Phase::kProof) {
    if (offset > 0) {  // what follows the hello starts the buffer
      std::memmove(rbuf_.get(), rbuf_.get() + offset, rfill_ - offset);
      rfill_ -= offset;
      offset = 0;
    }
    const ptrdiff_t used = TakeProof();
    if (used <= 0) return used == 0;
    offset = static_cast<size_t>(used);
    if (!Open()) return false;
  }
  while (phase_ == Phase::kOpen) {
    FrameHeader header;
    const Verdict v = frame_header_decode(rbuf_.get() + offset, rfill_ - offset, &header);
    if (v == Verdict::kShort) break;
    if (v != Verdict::kOk) {
      ARBOR_LOG(0, "%s connection %s (peer %u): frame refused: %s %u; closing",
                name(), remote_address_.c_str(), peer(), verdict_text(v), header.type);
      Fail(QVNETS_DISCONNECT);
      return false;
    }
    const size_t whole = kFrameHeaderSize + header.length;
    if (rfill_ - offset < whole) break;
    if (header.type == kFrameTypeMoved) {
      moved_ = true;
      offset += whole;
      continue;
    }
    counters_->frames_in.fetch_add(1, std::memory_order_relaxed);
    counters_->bytes_in.fetch_add(header.length, std::memory_order_relaxed);
    owner_.Deliver(peer(), header.pipe, header.type, header.length,
                  header.length > 0 ? rbuf_.get() + offset + kFrameHeaderSize : nullptr);
    offset += whole;
  }
  // What is left is less than one whole frame, so it always fits again.
  if (offset > 0) {
    std::memmove(rbuf_.get(), rbuf_.get() + offset, rfill_ - offset);
    rfill_ -= offset;
  }
  return phase_ != Phase::kClosed;
}

// ------------------------------------------------------------ writing

Connection::WriteResult Connection::Write(const FrameHeader& header, const void* payload) {
  uint8_t head[kFrameHeaderSize];
  frame_header_encode(header, head);
  const size_t whole = kFrameHeaderSize + header.length;
  std::unique_lock lock(out_mutex_);
  if (closed_ || retiring_) return WriteResult::kRefused;
  if (queued_ > 0) {
    const size_t budget = owner_.settings().budget;
    if (header.type == QVTP_RTP && queued_ + whole > budget) {
      counters_->media_dropped.fetch_add(1, std::memory_order_relaxed);
      return WriteResult::kDropped;
    }
    if (queued_ + whole > budget + kControlReserve) {
      lock.unlock();
      ARBOR_LOG(0, "%s peer %u: output queue over %zu bytes; the peer is gone", name(), peer(),
                budget + kControlReserve);
      Fail(QVNETS_DISCONNECT);
      return WriteResult::kRefused;
    }
  }
  if (!SubmitLocked(lock, head, sizeof head, payload, header.length))
    return WriteResult::kRefused;
  counters_->frames_out.fetch_add(1, std::memory_order_relaxed);
  counters_->bytes_out.fetch_add(header.length, std::memory_order_relaxed);
  return WriteResult::kAccepted;
}

// Sends head and body at once when the queue is empty, queueing what the
// kernel did not take; copies both behind the queue otherwise. Caller holds
// lock on out_mutex_ and has checked the budget. false when the socket
// failed; the connection is then failed and lock released.
bool Connection::SubmitLocked(std::unique_lock<std::mutex>& lock, const void* head,
                              size_t head_size, const void* body, size_t body_size) {
  size_t taken = 0;
  const bool was_empty = queue_.empty();
  if (was_empty && !tls_) {
    iovec iov[2] = {{const_cast<void*>(head), head_size}, {const_cast<void*>(body), body_size}};
    const ssize_t n = send_now(socket_.native_handle(), iov, body_size > 0 ? 2 : 1);
    if (n < 0 && !would_block(errno)) {
      const int err = errno;
      lock.unlock();
      ARBOR_LOG(2, "%s peer %u: write: %s", name(), peer(), std::strerror(err));
      Fail(QVNETS_DISCONNECT);
      return false;
    }
    taken = n < 0 ? 0 : static_cast<size_t>(n);
    if (taken == head_size + body_size) return true;
  }
  if (was_empty) last_progress_ = Clock::now();  // the peer time-out counts from here
  // Small frames share the last entry, so that what a slow peer costs in
  // memory stays near the bytes the budget counts rather than one
  // allocation per frame. Appending is safe under the lock: no send holds
  // a pointer into the queue beyond it (a TLS write owns its own entries).
  const size_t left = head_size + body_size - taken;
  if (queue_.empty() || queue_.back().size() + left > kMaxFrame) {
    queue_.emplace_back();
    queue_.back().reserve(left);
  }
  std::vector<uint8_t>& rest = queue_.back();
  const auto* h = static_cast<const uint8_t*>(head);
  const auto* b = static_cast<const uint8_t*>(body);
  if (taken < head_size) rest.insert(rest.end(), h + taken, h + head_size);
  const size_t body_from = taken > head_size ? taken - head_size : 0;
  if (body_size > body_from) rest.insert(rest.end(), b + body_from, b + body_size);
  queued_ += left;
  queue_bytes_.store(queued_, std::memory_order_relaxed);
  if (was_empty) asio::post(strand_, [self = shared_from_this()] { self->Drain(); });
  return true;
}

// Sends from the queue until it is empty or the socket is full; then waits
// for the socket to be writable. Strand.
void Connection::Drain() {
  if (tls_) {
    DrainTls();
    return;
  }
  std::unique_lock lock(out_mutex_);
  while (!closed_ && !queue_.empty()) {
    iovec iov[kDrainIov];
    size_t count = 0;
    for (auto it = queue_.begin(); it != queue_.end() && count < kDrainIov; ++it, ++count) {
      const size_t skip = count == 0 ? front_offset_ : 0;
      iov[count] = {it->data() + skip, it->size() - skip};
    }
    const ssize_t n = send_now(socket_.native_handle(), iov, count);
    if (n < 0) {
      if (would_block(errno)) break;
      const int err = errno;
      lock.unlock();
      ARBOR_LOG(2, "%s peer %u: write: %s", name(), peer(), std::strerror(err));
      Fail(QVNETS_DISCONNECT);
      return;
    }
    size_t left = static_cast<size_t>(n);
    queued_ -= left;
    while (left > 0) {
      const size_t in_front = queue_.front().size() - front_offset_;
      if (left < in_front) {
        front_offset_ += left;
        break;
      }
      left -= in_front;
      front_offset_ = 0;
      queue_.pop_front();
    }
    last_progress_ = Clock::now();
  }
  queue_bytes_.store(queued_, std::memory_order_relaxed);
  if (closed_) return;
  if (queue_.empty()) {
    drained_.notify_all();
    lock.unlock();
    FinishRetiring();
    return;
  }
  lock.unlock();
  ArmStall();
  socket_.async_wait(asio::ip::tcp::socket::wait_write,
                     [self = shared_from_this()](std::error_code ec) {
                       if (!ec) self->Drain();
                     });
}

void Connection::DrainTls() {
  if (tls_writing_ || phase_ == Phase::kClosed) return;
  std::vector<asio::const_buffer> buffers;
  {
    std::lock_guard lock(out_mutex_);
    if (closed_ || queue_.empty()) return;
    // Whole frames only: a TLS connection never sends part of one from a
    // caller's thread, so front_offset_ stays 0.
    while (!queue_.empty() && tls_inflight_.size() < kDrainIov) {
      tls_inflight_.push_back(std::move(queue_.front()));
      queue_.pop_front();
      buffers.emplace_back(asio::buffer(tls_inflight_.back()));
    }
  }
  tls_writing_ = true;
  ArmStall();
  asio::async_write(*tls_, buffers, [self = shared_from_this()](std::error_code ec, size_t n) {
    self->tls_writing_ = false;
    self->tls_inflight_.clear();
    if (ec) {
      if (ec != asio::error::operation_aborted) {
        ARBOR_LOG(2, "%s peer %u: write: %s", self->name(), self->peer(), ec.message().c_str());
        self->Fail(QVNETS_DISCONNECT);
      }
      return;
    }
    {
      std::lock_guard lock(self->out_mutex_);
      if (self->closed_) return;
      self->queued_ -= n;
      self->queue_bytes_.store(self->queued_, std::memory_order_relaxed);
      self->last_progress_ = Clock::now();
      if (self->queued_ == 0) self->drained_.notify_all();
    }
    self->DrainTls();
  });
}

void Connection::ArmStall() {
  if (stall_armed_) return;
  stall_armed_ = true;
  stall_.expires_after(std::chrono::milliseconds(owner_.settings().peer_timeout_ms));
  stall_.async_wait([self = shared_from_this()](std::error_code ec) {
    self->stall_armed_ = false;
    if (!ec) self->OnStall();
  });
}

// The stall timer fired: the peer is gone if its queue still waits and no
// byte left for the whole time-out; otherwise look again later. Strand.
void Connection::OnStall() {
  const auto timeout = std::chrono::milliseconds(owner_.settings().peer_timeout_ms);
  {
    std::lock_guard lock(out_mutex_);
    if (closed_ || queued_ == 0) return;
    if (Clock::now() - last_progress_ < timeout) {
      stall_armed_ = true;
      stall_.expires_at(last_progress_ + timeout);
      stall_.async_wait([self = shared_from_this()](std::error_code ec) {
        self->stall_armed_ = false;
        if (!ec) self->OnStall();
      });
      return;
    }
  }
  ARBOR_LOG(0, "%s peer %u: took no byte for %d ms with %zu bytes queued; the peer is gone",
            name(), peer(), owner_.settings().peer_timeout_ms, static_cast<size_t>(queue_bytes()));
  Fail(QVNETS_DISCONNECT);
}

// ------------------------------------------------------------ closing

void Connection::Fail(int status) {
  {
    std::lock_guard lock(out_mutex_);
    if (closed_) return;
    closed_ = true;
    queue_.clear();
    queued_ = 0;
    front_offset_ = 0;
    queue_bytes_.store(0, std::memory_order_relaxed);
    drained_.notify_all();
  }
  asio::post(strand_, [self = shared_from_this(), status] { self->CloseOnStrand(status); });
}

void Connection::Retire() {
  asio::post(strand_, [self = shared_from_this()] {
    {
      std::unique_lock lock(self->out_mutex_);
      if (self->closed_ || self->retiring_) return;
      self->retiring_ = true;
      FrameHeader moved;
      moved.type = kFrameTypeMoved;
      uint8_t head[kFrameHeaderSize];
      frame_header_encode(moved, head);
      if (!self->SubmitLocked(lock, head, sizeof head, nullptr, 0)) return;
    }
    self->FinishRetiring();
    // A peer that never ends its side does not keep this one for ever.
    self->ArmRetireLimit(0);
  });
}

void Connection::ArmRetireLimit(int status) {
  deadline_.expires_after(kRetireLimit);
  deadline_.async_wait([self = shared_from_this(), status](std::error_code ec) {
    if (ec || self->phase_ == Phase::kClosed) return;
    ARBOR_LOG(2, "%s connection %s (peer %u): retired %lld ms ago and still open; closing",
              self->name(), self->remote_address_.c_str(), self->peer(),
              static_cast<long long>(kRetireLimit.count()));
    self->Fail(status);
  });
}

void Connection::FinishRetiring() {
  {
    std::lock_guard lock(out_mutex_);
    if (closed_ || !retiring_ || !queue_.empty()) return;
    if (!sent_ended_) {
      sent_ended_ = true;
      std::error_code ec;
      socket_.shutdown(asio::ip::tcp::socket::shutdown_send, ec);
    }
  }
  if (read_ended_) Fail(0);
}

// Closes the socket (writers stopped using it when closed_ was set) and
// tells the transport. Strand.
void Connection::CloseOnStrand(int status) {
  if (phase_ == Phase::kClosed) return;
  phase_ = Phase::kClosed;
  std::error_code ec;
  if (lookup_ != nullptr) lookup_->Cancel();
  deadline_.cancel();
  stall_.cancel();
  socket_.close(ec);
  owner_.OnClosed(shared_from_this(), status);
}

bool Connection::WaitDrained(std::chrono::milliseconds limit) {
  std::unique_lock lock(out_mutex_);
  return drained_.wait_for(lock, limit, [this] { return closed_ || queued_ == 0; }) &&
         queued_ == 0;
}

void Connection::CloseNow() {
  std::lock_guard lock(out_mutex_);
  closed_ = true;
  queue_.clear();
  queued_ = 0;
  queue_bytes_.store(0, std::memory_order_relaxed);
  phase_ = Phase::kClosed;
  if (lookup_ != nullptr) lookup_->Cancel();
  std::error_code ec;
  socket_.close(ec);
}

}  // namespace arbor::net
