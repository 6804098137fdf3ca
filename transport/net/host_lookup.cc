// host_lookup.cc - getaddrinfo on a detached thread; see host_lookup.h.
#include "host_lookup.h"

#include <netdb.h>
#include <sys/socket.h>

#include <cstring>
#include <thread>
#include <utility>

#include "arbor/support.h"

namespace arbor::net {

std::error_code lookup_error(int eai) {
  switch (eai) {
    case EAI_AGAIN:
      return asio::error::host_not_found_try_again;
    case EAI_NONAME:
#ifdef EAI_NODATA
    case EAI_NODATA:
#endif
      return asio::error::host_not_found;
    case EAI_MEMORY:
      return asio::error::no_memory;
    default:
      return asio::error::no_recovery;
  }
}

namespace {

HostLookup::Endpoints endpoints_of(const addrinfo* list, uint16_t port) {
  HostLookup::Endpoints found;
  for (const addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    asio::ip::tcp::endpoint endpoint;
    if (ai->ai_family == AF_INET && ai->ai_addrlen >= sizeof(sockaddr_in)) {
      std::memcpy(endpoint.data(), ai->ai_addr, sizeof(sockaddr_in));
    } else if (ai->ai_family == AF_INET6 && ai->ai_addrlen >= sizeof(sockaddr_in6)) {
      std::memcpy(endpoint.data(), ai->ai_addr, sizeof(sockaddr_in6));
    } else {
      continue;
    }
    endpoint.port(port);
    found.push_back(endpoint);
  }
  return found;
}

}  // namespace

std::shared_ptr<HostLookup> HostLookup::Start(const std::string& host, uint16_t port,
                                              Executor executor, Done done) {
  auto lookup = std::make_shared<HostLookup>(executor, std::move(done));
  std::error_code ec;
  const asio::ip::address literal = asio::ip::make_address(host, ec);
  if (!ec) {
    lookup->Finish({}, Endpoints{asio::ip::tcp::endpoint(literal, port)});
    return lookup;
  }
  try {
    std::thread([lookup, host, port] {
      addrinfo hints{};
      hints.ai_family = AF_UNSPEC;
      hints.ai_socktype = SOCK_STREAM;
      // No AI_ADDRCONFIG: on a device whose only configured interface is
      // loopback it hides "localhost" itself.
      addrinfo* list = nullptr;
      const int rc = getaddrinfo(host.c_str(), nullptr, &hints, &list);
      if (rc != 0) {
        lookup->Finish(lookup_error(rc), {});
        return;
      }
      Endpoints found = endpoints_of(list, port);
      freeaddrinfo(list);
      const std::error_code outcome =
          found.empty() ? std::error_code(asio::error::host_not_found) : std::error_code();
      lookup->Finish(outcome, std::move(found));
    }).detach();
  } catch (const std::system_error& e) {
    ARBOR_LOG(0, "looking up %s: no thread for it: %s", host.c_str(), e.what());
    return nullptr;
  }
  return lookup;
}

void HostLookup::Finish(std::error_code ec, Endpoints found) {
  std::lock_guard lock(mutex_);
  if (!done_ || !executor_) return;  // cancelled
  // Posted under the mutex: Cancel, which the owner calls before its
  // io_context goes, cannot slip between the check and the post.
  asio::post(*executor_, [done = std::move(done_), ec, found = std::move(found)]() mutable {
    done(ec, std::move(found));
  });
  done_ = nullptr;
  executor_.reset();  // while the io_context surely lives
}

void HostLookup::Cancel() {
  Done dropped;
  {
    std::lock_guard lock(mutex_);
    dropped = std::move(done_);
    done_ = nullptr;
    executor_.reset();  // the owner's io_context still lives here
  }
  // dropped (and the connection it may hold) goes here, outside the mutex.
}

}  // namespace arbor::net
