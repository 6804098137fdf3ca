// Helpers of the socket transport's tests: a recorder that plays the engine's
// LAN or WAN callback, and a raw TCP peer that speaks (or breaks) the wire by
// hand. Every wait has a time limit; nothing sleeps. Log lines: LogCapture
// (tests/log_capture.h).
#ifndef ARBOR_TESTS_NET_TEST_UTIL_H
#define ARBOR_TESTS_NET_TEST_UTIL_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "lan_side.h"
#include "log_capture.h"
#include "net_transport.h"
#include "wire_codec.h"

namespace nettest {

using namespace std::chrono_literals;
inline constexpr auto kLimit = 20s;  // bound of every wait

// A host name that cannot resolve and whose look-up never leaves this
// machine: a label over 63 characters is refused by the resolver before any
// query is built (a plain ".invalid" name would be asked of the configured
// name server).
inline const std::string kUnresolvableHost = std::string(64, 'a') + ".invalid";

struct Event {
  uint32_t from, pipe, type;
  std::string data;
};

// Records every call of the LAN callback (or the WAN's, as peer 0) and lets
// a test wait for one.
class Recorder {
 public:
  arbor::net::LanSide::Handler handler() {
    return [this](uint32_t from, uint32_t pipe, uint32_t type, uint32_t size, const void* data) {
      std::lock_guard hold(mutex_);
      events_.push_back({from, pipe, type,
                         std::string(static_cast<const char*>(data), data ? size : 0)});
      changed_.notify_all();
    };
  }
  std::function<void(uint32_t, uint32_t, uint32_t, const void*)> wan_handler() {
    return [h = handler()](uint32_t pipe, uint32_t type, uint32_t size, const void* data) {
      h(0, pipe, type, size, data);
    };
  }
  bool WaitFor(const std::function<bool(const std::vector<Event>&)>& done) {
    std::unique_lock hold(mutex_);
    return changed_.wait_for(hold, kLimit, [&] { return done(events_); });
  }
  // Events of this type (a status 6-9 or a frame type 3-5) in all.
  static size_t Count(const std::vector<Event>& all, uint32_t type) {
    size_t n = 0;
    for (const Event& e : all) n += e.type == type;
    return n;
  }
  // Waits until n events of this type have arrived.
  bool WaitCount(uint32_t type, size_t n) {
    return WaitFor([&](const std::vector<Event>& all) { return Count(all, type) >= n; });
  }
  // Waits for a status event of this type; the peer id of the last one, or
  // 0 on time-out.
  uint32_t WaitStatus(uint32_t type) {
    uint32_t from = 0;
    WaitFor([&](const std::vector<Event>& all) {
      for (const Event& e : all)
        if (e.type == type && e.pipe == 0 && e.data.empty()) from = e.from;
      return from != 0;
    });
    return from;
  }
  // Waits until n frames (types 3-5) have arrived; all frames so far.
  std::vector<Event> WaitFrames(size_t n) {
    std::vector<Event> frames;
    WaitFor([&](const std::vector<Event>& all) {
      frames.clear();
      for (const Event& e : all)
        if (e.type >= 3 && e.type <= 5) frames.push_back(e);
      return frames.size() >= n;
    });
    return frames;
  }
  std::vector<Event> Snapshot() {
    std::lock_guard hold(mutex_);
    return events_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
};

inline PacketHeader Header(uint32_t pipe, uint16_t type, uint16_t boat = 0, uint16_t level = 0) {
  return PacketHeader{0, boat, pipe, type, level};
}

// A started transport listening on 127.0.0.1 with extra options.
inline void StartOn(arbor::net::Transport& t, Recorder& r, const std::string& extra = "") {
  const std::string options = "listen=127.0.0.1;" + extra;
  ASSERT_EQ(t.InitLan(r.handler(), options.c_str()), 0);
  ASSERT_GT(t.LanPort(), 0);
}

// A TCP peer driven by hand with blocking POSIX calls bounded by poll.
class RawPeer {
 public:
  // Connects to 127.0.0.1:port; rcvbuf > 0 shrinks the receive buffer first.
  explicit RawPeer(uint16_t port, int rcvbuf = 0) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (rcvbuf > 0) ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
  }
  ~RawPeer() { ::close(fd_); }
  bool connected() const { return connected_; }

  bool Send(const void* bytes, size_t size) {
    return ::send(fd_, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
  }
  bool SendHello(uint64_t instance, uint16_t flags = 0) {
    arbor::net::Hello h;
    h.instance = instance;
    h.flags = flags;
    h.version = 100;
    uint8_t bytes[arbor::net::kHelloSize];
    arbor::net::hello_encode(h, bytes);
    return Send(bytes, sizeof bytes);
  }
  bool SendFrame(const arbor::net::FrameHeader& h, const std::string& payload) {
    uint8_t head[arbor::net::kFrameHeaderSize];
    arbor::net::frame_header_encode(h, head);
    return Send(head, sizeof head) && Send(payload.data(), payload.size());
  }
  void ShutdownWrite() { ::shutdown(fd_, SHUT_WR); }
  // Reads exactly size bytes within the time limit.
  bool Read(void* out, size_t size) {
    auto* p = static_cast<uint8_t*>(out);
    while (size > 0) {
      pollfd pfd{fd_, POLLIN, 0};
      if (::poll(&pfd, 1, static_cast<int>(std::chrono::milliseconds(kLimit).count())) != 1)
        return false;
      const ssize_t n = ::recv(fd_, p, size, 0);
      if (n <= 0) return false;
      p += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }
  bool ReadHello(arbor::net::Hello* h) {
    uint8_t bytes[arbor::net::kHelloSize];
    return Read(bytes, sizeof bytes) &&
           arbor::net::hello_decode(bytes, sizeof bytes, h) == arbor::net::Verdict::kOk;
  }
  // Reads (and throws away) until the other side closes; false on time-out.
  bool WaitClosed() {
    const auto until = std::chrono::steady_clock::now() + kLimit;
    char sink[4096];
    while (std::chrono::steady_clock::now() < until) {
      pollfd pfd{fd_, POLLIN, 0};
      if (::poll(&pfd, 1, 100) < 0) return false;
      if (pfd.revents == 0) continue;
      const ssize_t n = ::recv(fd_, sink, sizeof sink, 0);
      if (n <= 0) return true;
    }
    return false;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
};

}  // namespace nettest

#endif  // ARBOR_TESTS_NET_TEST_UTIL_H
