// wan_api.cc - the WAN functions of arbor/transport.h (InitWAN, UnInitWAN,
// ConRemoteHostInfo, NetWrite) and of arbor/net.h over one process-wide
// WanLink, which lives from InitWAN to UnInitWAN (or NetClose).
//
// Each function converts its arguments, forwards and converts the result;
// no exception crosses (anything thrown becomes -1 with a level-0 line).
// wan_mutex_ guards the pointer and the options only: a call takes its own
// reference and releases the mutex before any work, so a NetWrite never
// waits for another, nor for a callback.
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "arbor/net.h"
#include "arbor/support.h"
#include "arbor/transport.h"
#include "c_boundary.h"
#include "wan_api.h"
#include "wan_link.h"

namespace {

using arbor::net::guarded;

using arbor::net::WanLink;
using arbor::net::WanOptions;

std::mutex wan_mutex_;
std::shared_ptr<WanLink> wan_;  // guarded by wan_mutex_
WanOptions wan_options_;        // guarded by wan_mutex_

std::shared_ptr<WanLink> wan() {
  std::lock_guard lock(wan_mutex_);
  return wan_;
}


// Stops and forgets the link; -1 (logged, nothing changed) when called on
// the link's own thread.
int32_t stop_wan() {
  std::shared_ptr<WanLink> link = wan();
  if (link == nullptr) return 0;
  if (!link->Stop()) return -1;
  std::lock_guard lock(wan_mutex_);
  if (wan_ == link) wan_.reset();
  return 0;
}

}  // namespace

namespace arbor::net {

int32_t wan_close() { return stop_wan(); }

}  // namespace arbor::net

ARBOR_BEGIN_DECLS

// A second InitWAN while the link exists keeps it (the engine calls InitWAN
// only while its WAN state is negative, so this is a host's own call).
int32_t InitWAN(WanCallback callback) {
  return guarded("InitWAN", [callback] {
    if (callback == nullptr) {
      ARBOR_LOG(0, "InitWAN: null callback");
      return -1;
    }
    std::lock_guard lock(wan_mutex_);
    if (wan_ != nullptr) return 0;
    wan_ = WanLink::Start(
        [callback](uint32_t pipe, uint32_t type, uint32_t size, const void* data) {
          callback(pipe, type, size, data);
        },
        wan_options_);
    return 0;
  });
}

int32_t UnInitWAN(void) { return guarded("UnInitWAN", [] { return stop_wan(); }); }

// Protocol 3 is plain TCP, for development against a local service only;
// 14, the default, is TLS 1.3 with the service's certificate checked
// against the trusted CAs (arbor_net_wan_options) and its name against
// the host.
int32_t ConRemoteHostInfo(const ConnectTarget* target) {
  return guarded("ConRemoteHostInfo", [target] {
    if (target == nullptr) return -1;
    std::shared_ptr<WanLink> link = wan();
    if (link == nullptr) {
      ARBOR_LOG(0, "ConRemoteHostInfo: the WAN is not initialised; call InitWAN first");
      return -1;
    }
    const size_t length = strnlen(target->host, sizeof target->host);
    if (length == sizeof target->host) {
      ARBOR_LOG(0, "ConRemoteHostInfo: host text is not terminated within %zu bytes",
                sizeof target->host);
      return -1;
    }
    if (target->protocol != QV_PROTOCOL_TCP && target->protocol != QV_PROTOCOL_DEFAULT) {
      ARBOR_LOG(0, "ConRemoteHostInfo: protocol %u is neither 3 (TCP) nor 14 (TLS)",
                target->protocol);
      return -1;
    }
    return link->Connect(std::string(target->host, length), target->port,
                         target->protocol == QV_PROTOCOL_DEFAULT);
  });
}

int32_t NetWrite(const PacketHeader* header, const void* data, uint16_t size) {
  return guarded("NetWrite", [=] {
    std::shared_ptr<WanLink> link = wan();
    if (link == nullptr || header == nullptr) return -1;
    return link->Write(*header, data, size);
  });
}

int32_t arbor_net_wan_options(const char* text) {
  return guarded("arbor_net_wan_options", [text] {
    WanOptions options;
    if (text != nullptr) {
      Dict dict = DictCreate(text, static_cast<int32_t>(strnlen(text, INT32_MAX)));
      if (dict == nullptr) {
        ARBOR_LOG(0, "arbor_net_wan_options: \"%s\" is not \"key=value;\" text", text);
        return -1;
      }
      if (const char* file = DictGetStr(dict, "ca_file")) options.ca_file = file;
      if (const char* path = DictGetStr(dict, "ca_path")) options.ca_path = path;
      DictDestroy(dict);
    }
    std::lock_guard lock(wan_mutex_);
    wan_options_ = options;
    return 0;
  });
}

int32_t arbor_net_wan_stats(arbor_net_peer_info* out) {
  return guarded("arbor_net_wan_stats", [out] {
    std::shared_ptr<WanLink> link = wan();
    if (link == nullptr || out == nullptr) return -1;
    link->Stats(out);
    return 0;
  });
}

ARBOR_END_DECLS
