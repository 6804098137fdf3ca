// host_lookup.h - turning a host text into addresses without ever making a
// stop wait for the name service.
//
// Asio's resolver runs getaddrinfo on a thread that its io_context joins when
// it is destroyed, so UnInitLAN / UnInitWAN would wait out a slow or dead DNS
// server (seconds per attempt). Here each look-up of a name runs on a
// detached thread of its own; Cancel cuts the result off. Finish and Cancel
// both drop the executor (a strand of the owner's io_context) and the
// callback at once, so the thread, which may hold the last reference to
// this object long after the io_context is gone, touches nothing of its
// owner's when it finishes.
// A literal address needs no thread: it is answered through the executor.
//
// Threads at once are bounded by the owner's connections (one look-up per
// dial, and dials are bounded by kMaxConnections on the LAN, one on the WAN).
#ifndef ARBOR_NET_HOST_LOOKUP_H
#define ARBOR_NET_HOST_LOOKUP_H

#include <asio.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace arbor::net {

class HostLookup {
 public:
  using Executor = asio::strand<asio::io_context::executor_type>;
  using Endpoints = std::vector<asio::ip::tcp::endpoint>;
  // Runs on the executor with the addresses found (none on error).
  using Done = std::function<void(std::error_code, Endpoints)>;

  // Starts resolving host:port (TCP); done runs once on executor, unless
  // Cancel is called first. Null, with done never run, when no thread can
  // be made: the caller treats that as a failed look-up.
  static std::shared_ptr<HostLookup> Start(const std::string& host, uint16_t port,
                                           Executor executor, Done done);

  // After it returns, done will not be posted (it may be queued already on
  // the executor: done's own state check decides then). Drops done, and
  // what it holds, at once. Any thread; the executor's io_context must be
  // alive until Cancel has been called or done has been posted.
  void Cancel();

  explicit HostLookup(Executor executor, Done done)
      : executor_(std::move(executor)), done_(std::move(done)) {}

 private:
  void Finish(std::error_code ec, Endpoints found);

  std::mutex mutex_;
  // Both guarded by mutex_, and empty once posted or cancelled.
  std::optional<Executor> executor_;
  Done done_;
};

// The error of a getaddrinfo result (EAI_*), in Asio's netdb terms.
std::error_code lookup_error(int eai);

}  // namespace arbor::net

#endif  // ARBOR_NET_HOST_LOOKUP_H
