// net_transport.cc - argument checks and the lifetime of the LAN side for
// one transport instance.
#include "net_transport.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "arbor/support.h"

namespace arbor::net {

Transport::~Transport() { UninitLan(); }

std::shared_ptr<LanSide> Transport::lan() {
  std::lock_guard lock(mutex_);
  return lan_;
}

int32_t Transport::InitLan(LanSide::Handler handler, const char* options) {
  LanOptions parsed;
  if (!lan_options_parse(options, &parsed)) return -1;
  std::lock_guard lock(mutex_);
  if (lan_ != nullptr) {
    ARBOR_LOG(0, "InitLAN: the LAN is on already (port %u); new options ignored; call UnInitLAN "
                 "first to change them", lan_->port());
    return 0;
  }
  std::unique_ptr<LanSide> side = LanSide::Start(parsed, std::move(handler));
  if (side == nullptr) return -1;
  // A text given before the LAN was on is announced from the start.
  if (presence_given_)
    side->SetPresenceText(presence_.data(), static_cast<uint16_t>(presence_.size()));
  lan_ = std::move(side);
  return 0;
}

int32_t Transport::UninitLan() {
  std::shared_ptr<LanSide> side;
  {
    std::lock_guard lock(mutex_);
    side = lan_;
  }
  if (side == nullptr) return 0;
  if (!side->Stop()) return -1;  // on an I/O thread: nothing changed
  std::lock_guard lock(mutex_);
  if (lan_ == side) lan_.reset();
  return 0;
}

int32_t Transport::AddPeer(const char* host, intptr_t port) {
  if (host == nullptr || port < 1 || port > 65535) {
    ARBOR_LOG(0, "AddLANEP: give a host text and a port from 1 to 65535 (port %lld)",
              static_cast<long long>(port));
    return -1;
  }
  const size_t length = strnlen(host, kMaxHostText + 1);
  if (length == 0 || length > kMaxHostText) {
    ARBOR_LOG(0, "AddLANEP: the host text must have 1 to %zu bytes", kMaxHostText);
    return -1;
  }
  std::shared_ptr<LanSide> side = lan();
  if (side == nullptr) {
    ARBOR_LOG(0, "AddLANEP(%s, %lld): the LAN is off; call LanNetworking first", host,
              static_cast<long long>(port));
    return -1;
  }
  return side->AddPeer(std::string(host, length), static_cast<uint16_t>(port));
}

int32_t Transport::ConnectPeer(uint16_t id) {
  std::shared_ptr<LanSide> side = lan();
  if (side == nullptr) {
    ARBOR_LOG(0, "LANConRemoteHostInfo(%u): the LAN is off", id);
    return -1;
  }
  return side->Connect(id);
}

int32_t Transport::LanWrite(uint16_t id, const PacketHeader* header, const void* data,
                            uint16_t size) {
  if (header == nullptr || (data == nullptr && size > 0)) {
    ARBOR_LOG(0, "LANNetWrite(%u): null header, or null data of size %u", id, size);
    return -1;
  }
  std::shared_ptr<LanSide> side = lan();
  if (side == nullptr) return -1;
  return side->Write(id, *header, data, size);
}

int32_t Transport::SetPresence(const char* text, uint16_t size) {
  if (size > kMaxPresenceText || (text == nullptr && size > 0)) {
    ARBOR_LOG(0, "LANReFlash: %u bytes; a presence text has at most %zu", size, kMaxPresenceText);
    return -1;
  }
  std::lock_guard lock(mutex_);
  presence_.assign(text != nullptr ? text : "", size);
  presence_given_ = true;
  // Under mutex_, so that two calls reach presence in the order they kept
  // the text; SetPresenceText only copies and posts.
  if (lan_ != nullptr) lan_->SetPresenceText(presence_.data(), size);
  return 0;
}

std::string Transport::presence() {
  std::lock_guard lock(mutex_);
  return presence_;
}

int32_t Transport::LanPort() {
  std::shared_ptr<LanSide> side = lan();
  return side == nullptr ? -1 : side->port();
}

int32_t Transport::PeerStats(uint16_t id, arbor_net_peer_info* out) {
  std::shared_ptr<LanSide> side = lan();
  if (side == nullptr || out == nullptr) return -1;
  return side->Stats(id, out) ? 0 : -1;
}

int32_t Transport::PeerPresence(uint16_t id, char* text, size_t capacity) {
  if (text == nullptr && capacity > 0) return -1;
  std::shared_ptr<LanSide> side = lan();
  std::string announced;
  if (side == nullptr || !side->PresenceText(id, &announced)) return -1;
  if (capacity > 0) {
    const size_t n = std::min(announced.size(), capacity - 1);
    std::memcpy(text, announced.data(), n);
    text[n] = '\0';
  }
  return static_cast<int32_t>(announced.size());
}

int64_t Transport::PresenceDropped() {
  std::shared_ptr<LanSide> side = lan();
  return side == nullptr ? -1 : side->PresenceDropped();
}

int32_t Transport::Peers(uint16_t* ids, int32_t capacity) {
  if (ids == nullptr && capacity > 0) return -1;
  std::shared_ptr<LanSide> side = lan();
  if (side == nullptr) return 0;
  const std::vector<uint16_t> all = side->PeerIds();
  const size_t n = capacity > 0 ? std::min(all.size(), static_cast<size_t>(capacity)) : 0;
  std::copy_n(all.begin(), n, ids);
  return static_cast<int32_t>(all.size());
}

}  // namespace arbor::net
