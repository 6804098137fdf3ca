// control_socket.cc - the control socket's server and client
// (control_socket.h).
#include "control_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace arbor_peer {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kBusy = "{\"error\":\"busy: too many clients; try again\"}\n";
constexpr const char* kTooLarge = "{\"error\":\"answer too large\"}";
constexpr int kMaxPollMs = 1000;
constexpr size_t kReadChunk = 512;

struct Client {
  int fd = -1;
  std::string in;   // bytes of the next request line
  std::string out;  // the answer being sent
  size_t sent = 0;
  Clock::time_point last;  // last byte taken (sending) or last answer (idle)
};

bool Fail(std::string* error, std::string text) {
  *error = std::move(text);
  return false;
}

bool FillAddress(const std::string& path, sockaddr_un* address, std::string* error) {
  *address = sockaddr_un{};
  address->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address->sun_path)
    return Fail(error, "control socket path \"" + path + "\" must have 1 to " +
                           std::to_string(sizeof address->sun_path - 1) +
                           " characters; give a shorter one with --control-socket");
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

// Whether a server answers at path (a connect succeeds).
bool Answers(const sockaddr_un& address) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const bool up = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return up;
}

int MsUntil(Clock::time_point when) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(when - Clock::now());
  return left.count() < 0 ? 0 : static_cast<int>(std::min<long long>(left.count(), kMaxPollMs));
}

// Sends what it can of c's answer without waiting. false: the client is gone.
bool SendSome(Client& c) {
  while (c.sent < c.out.size()) {
    const ssize_t n =
        send(c.fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      c.sent += static_cast<size_t>(n);
      c.last = Clock::now();
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
    return false;
  }
  c.out.clear();
  c.sent = 0;
  return true;
}

}  // namespace

std::string DefaultControlDir() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && runtime[0] == '/') return std::string(runtime) + "/arbor-peer";
  return "/tmp/arbor-peer-" + std::to_string(getuid());
}

std::string DefaultControlPath(int port) {
  return DefaultControlDir() + "/serve-" + std::to_string(port) + ".sock";
}

bool PrepareControlDir(const std::string& dir, std::string* error) {
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
    return Fail(error, "cannot make " + dir + ": " + std::strerror(errno) +
                           "; give another place with --control-socket");
  struct stat st{};
  if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    return Fail(error, dir + " is not a directory; remove it or give --control-socket");
  if (st.st_uid != getuid() || (st.st_mode & 077) != 0)
    return Fail(error, dir + " is not private to this user; remove it (it is made again "
                             "with mode 0700) or give --control-socket");
  return true;
}

bool ControlServer::Start(const std::string& path, Responder responder, std::string* error) {
  sockaddr_un address{};
  if (!FillAddress(path, &address, error)) return false;
  struct stat st{};
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode))
      return Fail(error, path + " exists and is not a socket; remove it or give another "
                                "--control-socket");
    if (Answers(address))
      return Fail(error, "another arbor-peer answers on " + path +
                             "; stop it, or give this one another --control-socket");
    unlink(path.c_str());  // stale: its server is gone
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return Fail(error, std::string("cannot make the control socket: ") + std::strerror(errno));
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int err = errno;
    close(fd);
    return Fail(error, "cannot bind the control socket " + path + ": " + std::strerror(err) +
                           "; give another with --control-socket");
  }
  // Its directory keeps others out already (0700); the socket says so too.
  if (chmod(path.c_str(), 0600) != 0 || listen(fd, kMaxControlClients) != 0) {
    const int err = errno;
    close(fd);
    unlink(path.c_str());
    return Fail(error, "cannot open the control socket " + path + ": " + std::strerror(err));
  }
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0) {
    close(fd);
    unlink(path.c_str());
    return Fail(error, std::string("cannot make an eventfd: ") + std::strerror(errno));
  }
  listen_fd_ = fd;
  path_ = path;
  responder_ = std::move(responder);
  thread_ = std::thread([this] { Run(); });
  return true;
}

void ControlServer::Stop() {
  if (thread_.joinable()) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(wake_fd_, &one, sizeof one);
    thread_.join();
  }
  if (listen_fd_ >= 0) {
    close(listen_fd_);
    unlink(path_.c_str());
    listen_fd_ = -1;
  }
  if (wake_fd_ >= 0) {
    close(wake_fd_);
    wake_fd_ = -1;
  }
}

void ControlServer::Run() {
  std::vector<Client> clients;
  std::vector<pollfd> fds;
  auto answer = [this](Client& c) {
    // One complete request line at most is served per answer.
    const size_t newline = c.in.find('\n');
    if (newline == std::string::npos || !c.out.empty()) return;
    std::string request = c.in.substr(0, newline);
    c.in.erase(0, newline + 1);
    if (!request.empty() && request.back() == '\r') request.pop_back();
    std::string reply = responder_(request);
    if (reply.size() > kMaxControlReply) reply = kTooLarge;
    c.out = reply + "\n";
    c.sent = 0;
    c.last = Clock::now();
  };
  // Answers the complete request lines buffered for c, one at a time, as
  // long as each answer leaves at once. false: the client is gone.
  auto serve_buffered = [&answer](Client& c) {
    while (c.out.empty() && c.in.find('\n') != std::string::npos) {
      answer(c);
      if (!SendSome(c)) return false;
    }
    return true;
  };
  for (;;) {
    fds.clear();
    fds.push_back({wake_fd_, POLLIN, 0});
    fds.push_back({listen_fd_, POLLIN, 0});
    int timeout = kMaxPollMs;
    for (const Client& c : clients) {
      fds.push_back({c.fd, static_cast<short>(c.out.empty() ? POLLIN : POLLOUT), 0});
      const auto limit = c.out.empty() ? std::chrono::milliseconds(kControlIdleMs)
                                       : std::chrono::milliseconds(kControlStallMs);
      timeout = std::min(timeout, MsUntil(c.last + limit));
    }
    if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) break;
    if (fds[0].revents != 0) break;
    const size_t polled = clients.size();  // a client accepted below has no poll result yet
    if (fds[1].revents & POLLIN) {
      const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd >= 0 && static_cast<int>(clients.size()) >= kMaxControlClients) {
        send(fd, kBusy, std::strlen(kBusy), MSG_NOSIGNAL | MSG_DONTWAIT);
        close(fd);
      } else if (fd >= 0) {
        clients.push_back(Client{fd, {}, {}, 0, Clock::now()});
      }
    }
    const auto now = Clock::now();
    for (size_t i = 0; i < clients.size(); ++i) {
      Client& c = clients[i];
      const short revents = i < polled ? fds[2 + i].revents : 0;
      bool keep = true;
      if (revents & (POLLERR | POLLNVAL)) {
        keep = false;
      } else if (c.out.empty() && (revents & (POLLIN | POLLHUP))) {
        char buffer[kReadChunk];
        const ssize_t n = recv(c.fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n > 0) {
          c.in.append(buffer, static_cast<size_t>(n));
          keep = serve_buffered(c);
          // A request line longer than the limit is no request of ours.
          keep = keep && c.in.size() <= kMaxControlRequest;
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
          keep = false;
        }
      } else if (!c.out.empty() && (revents & (POLLOUT | POLLHUP))) {
        // Then the requests that came while the answer was on its way.
        keep = SendSome(c) && serve_buffered(c);
      }
      const auto limit = c.out.empty() ? std::chrono::milliseconds(kControlIdleMs)
                                       : std::chrono::milliseconds(kControlStallMs);
      if (keep && now - c.last > limit) keep = false;
      if (!keep) {
        close(c.fd);
        c.fd = -1;
      }
    }
    std::erase_if(clients, [](const Client& c) { return c.fd < 0; });
  }
  for (Client& c : clients) close(c.fd);
}

bool ControlSocketAnswers(const std::string& path) {
  sockaddr_un address{};
  std::string unused;
  return FillAddress(path, &address, &unused) && Answers(address);
}

bool ControlRequest(const std::string& path, const std::string& request, int timeout_ms,
                    std::string* reply, std::string* error) {
  sockaddr_un address{};
  if (!FillAddress(path, &address, error)) return false;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Fail(error, std::string("cannot make a socket: ") + std::strerror(errno));
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int err = errno;
    close(fd);
    if (err == ENOENT || err == ECONNREFUSED)
      return Fail(error, "no arbor-peer serve answers on " + path +
                             "; start one, or name its socket with --control-socket");
    return Fail(error, "cannot reach " + path + ": " + std::strerror(err));
  }
  const std::string line = request + "\n";
  if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
    close(fd);
    return Fail(error, "the serving peer on " + path + " closed the connection");
  }
  const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
  std::string in;
  for (;;) {
    const size_t newline = in.find('\n');
    if (newline != std::string::npos) {
      *reply = in.substr(0, newline);
      close(fd);
      return true;
    }
    pollfd p{fd, POLLIN, 0};
    const int ready = poll(&p, 1, MsUntil(end));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0 && Clock::now() < end) continue;
    if (ready == 0) {
      close(fd);
      return Fail(error, "the serving peer on " + path + " did not answer within " +
                             std::to_string(timeout_ms) + " ms");
    }
    char buffer[65536];
    const ssize_t n = ready > 0 ? recv(fd, buffer, sizeof buffer, 0) : -1;
    if (n <= 0 || in.size() + static_cast<size_t>(n) > kMaxControlReply + 1) {
      close(fd);
      return Fail(error, "the serving peer on " + path + " closed the connection");
    }
    in.append(buffer, static_cast<size_t>(n));
  }
}

}  // namespace arbor_peer
