// presence.cc - the presence socket: finding the interface, joining the
// group on it, the announcement timer and the receive loop.
#include "presence.h"

#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cassert>
#include <cstring>

#include "arbor/support.h"

namespace arbor::net {

bool presence_interface_address(const std::string& name, asio::ip::address_v4* out) {
  std::error_code ec;
  const asio::ip::address literal = asio::ip::make_address(name, ec);
  if (!ec && !literal.is_v4()) {
    ARBOR_LOG(0, "InitLAN: presence=%s: presence speaks IPv4; give an IPv4 address or an "
                 "interface name", name.c_str());
    return false;
  }
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) {
    ARBOR_LOG(0, "InitLAN: presence=%s: cannot list the interfaces: %s", name.c_str(),
              std::strerror(errno));
    return false;
  }
  bool found = false;
  for (const ifaddrs* i = all; i != nullptr && !found; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in in;
    std::memcpy(&in, i->ifa_addr, sizeof in);
    const asio::ip::address_v4 address(ntohl(in.sin_addr.s_addr));
    if (ec ? name == i->ifa_name : address == literal.to_v4()) {
      *out = address;
      found = true;
    }
  }
  freeifaddrs(all);
  if (!found)
    ARBOR_LOG(0, "InitLAN: presence=%s is no interface with an IPv4 address and no IPv4 "
                 "address of this host; name the LAN's interface (see `ip -4 addr`)",
              name.c_str());
  return found;
}

Presence::Presence(asio::io_context& io, const LanOptions& options, const Self& self,
                   PresenceListener& listener)
    : self_(self), interval_(options.presence_interval_ms), listener_(listener),
      strand_(asio::make_strand(io)), socket_(strand_), tick_(strand_),
      group_(asio::ip::make_address(options.presence_group), options.presence_port) {}

Presence::~Presence() { Stop(); }

std::unique_ptr<Presence> Presence::Start(asio::io_context& io, const LanOptions& options,
                                          const Self& self, PresenceListener& listener) {
  asio::ip::address_v4 interface;
  if (!presence_interface_address(options.presence_interface, &interface)) return nullptr;
  std::unique_ptr<Presence> presence(new Presence(io, options, self, listener));
  if (!presence->Open(interface)) return nullptr;
  presence->interface_text_ = interface.to_string();
  ARBOR_LOG(2, "LAN presence on %s (%s), group %s:%u, every %d ms, time-out %d ms",
            options.presence_interface.c_str(), presence->interface_text_.c_str(),
            options.presence_group.c_str(), options.presence_port, options.presence_interval_ms,
            options.presence_timeout_ms);
  // Nothing runs io yet: the first operations may be started from here.
  // Heard from the first tick on, not now: the engine takes our callbacks
  // only once InitLAN has returned to it, and a peer's arrival (status=1) is
  // said once. Announcements sent meanwhile wait in the socket's buffer.
  presence->ArmTick();
  return presence;
}

bool Presence::Open(const asio::ip::address_v4& interface) {
  namespace mc = asio::ip::multicast;
  std::error_code ec;
  socket_.open(asio::ip::udp::v4(), ec);
  // Several transports of one host may hear the same group.
  if (!ec) socket_.set_option(asio::ip::udp::socket::reuse_address(true), ec);
  // Hear only the groups this socket joined, on the interface it joined them
  // on: by default Linux hands a socket bound to the group its datagrams
  // from every interface where any socket of the host joined it.
  if (!ec) {
    const int off = 0;
    if (setsockopt(socket_.native_handle(), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off) != 0)
      ec = std::error_code(errno, std::system_category());
  }
  // Bound to the group address: unicast datagrams to the port are not heard.
  if (!ec) socket_.bind(group_, ec);
  if (!ec) socket_.set_option(mc::join_group(group_.address().to_v4(), interface), ec);
  if (!ec) socket_.set_option(mc::outbound_interface(interface), ec);
  if (!ec) socket_.set_option(mc::hops(1), ec);  // never past the first router
  if (!ec) socket_.set_option(mc::enable_loopback(false), ec);
  if (!ec) socket_.non_blocking(true, ec);  // a send never waits: the next interval retries
  if (ec) {
    ARBOR_LOG(0, "InitLAN: presence on %s, group %s:%u: %s; check that the interface is up "
                 "and multicast-capable, or choose another presence_group / presence_port",
              interface.to_string().c_str(), group_.address().to_string().c_str(), group_.port(),
              ec.message().c_str());
    return false;
  }
  return true;
}

void Presence::SetText(const char* text, uint16_t size) {
  assert(size <= kMaxPresenceText && (text != nullptr || size == 0));
  {
    std::lock_guard lock(text_mutex_);
    text_.assign(text != nullptr ? text : "", size);
    has_text_ = true;
  }
  asio::post(strand_, [this] { SendNow(0); });
}

void Presence::SendNow(uint16_t flags) {
  uint8_t datagram[kMaxPresenceDatagram];
  size_t size;
  {
    std::lock_guard lock(text_mutex_);
    if (!has_text_) return;
    Announcement a;
    a.flags = flags;
    a.instance = self_.instance;
    a.listen_port = self_.listen_port;
    a.version = self_.version;
    a.text = text_.data();
    a.text_size = static_cast<uint16_t>(text_.size());
    size = presence_encode(a, datagram);
  }
  std::error_code ec;
  socket_.send_to(asio::buffer(datagram, size), group_, 0, ec);
  if (ec && ec != asio::error::would_block)
    ARBOR_LOG(3, "LAN presence: send: %s", ec.message().c_str());
}

void Presence::ReceiveNext() {
  receiving_ = true;
  socket_.async_receive_from(asio::buffer(rbuf_), sender_,
                             [this](std::error_code ec, size_t size) { OnReceived(ec, size); });
}

void Presence::OnReceived(std::error_code ec, size_t size) {
  if (ec == asio::error::operation_aborted || !socket_.is_open()) return;
  if (ec) {
    // Not the datagram's fault (the socket's): try again at the next tick
    // rather than spin on an error that repeats.
    ARBOR_LOG(0, "LAN presence: receive: %s", ec.message().c_str());
    receiving_ = false;
    return;
  }
  Announcement a;
  const Verdict verdict = presence_decode(rbuf_, size, &a);
  if (verdict != Verdict::kOk) {
    const uint64_t n = dropped_.fetch_add(1, std::memory_order_relaxed) + 1;
    if ((n & (n - 1)) == 0)
      ARBOR_LOG(0, "LAN presence: datagram of %zu bytes from %s dropped (%s); %llu dropped so far",
                size, sender_.address().to_string().c_str(), verdict_text(verdict),
                static_cast<unsigned long long>(n));
  } else if (a.instance != self_.instance) {
    listener_.OnAnnouncement(a, sender_.address().to_string());
  }
  ReceiveNext();
}

void Presence::ArmTick() {
  tick_.expires_after(interval_);
  tick_.async_wait([this](std::error_code ec) {
    if (ec == asio::error::operation_aborted || !socket_.is_open()) return;
    SendNow(0);
    if (!receiving_) ReceiveNext();
    listener_.OnPresenceTick();
    ArmTick();
  });
}

void Presence::Stop() {
  if (stopped_) return;
  stopped_ = true;
  if (socket_.is_open()) SendNow(kPresenceFlagBye);
  std::error_code ec;
  tick_.cancel();
  socket_.close(ec);
}

}  // namespace arbor::net
