// net_api.cc - the C functions of arbor/transport.h and arbor/net.h over one
// process-wide Transport.
//
// Each function converts its arguments, forwards, and converts the result;
// no exception crosses: anything thrown inside (out of memory) becomes -1
// with a level-0 line. The instance is made on first use and never
// destroyed, so no function finds it gone during the process's exit;
// NetClose stops everything it runs instead.
//
// The WAN functions live in wan_api.cc, over their own link.
#include <exception>

#include "arbor/net.h"
#include "arbor/support.h"
#include "arbor/transport.h"
#include "arbor/version.h"
#include "c_boundary.h"
#include "net_transport.h"
#include "wan_api.h"
#include "wire_codec.h"

namespace {

using arbor::net::guarded;

using arbor::net::Transport;

Transport& instance() {
  static Transport* const transport = new Transport();  // never destroyed: see above
  return *transport;
}


}  // namespace

ARBOR_BEGIN_DECLS

int32_t NetOpen(void) {
  return guarded("NetOpen", [] {
    instance();
    return 0;
  });
}

int32_t NetClose(void) {
  return guarded("NetClose", [] {
    const int32_t wan = arbor::net::wan_close();
    return instance().UninitLan() < 0 ? -1 : wan;
  });
}

int32_t InitLAN(LanCallback callback, intptr_t a, intptr_t b, intptr_t c) {
  (void)b;
  (void)c;
  return guarded("InitLAN", [callback, a] {
    if (callback == nullptr) {
      ARBOR_LOG(0, "InitLAN: null callback");
      return -1;
    }
    return instance().InitLan(callback, reinterpret_cast<const char*>(a));
  });
}

int32_t UnInitLAN(LanCallback callback, intptr_t a, intptr_t b, intptr_t c) {
  (void)callback;
  (void)a;
  (void)b;
  (void)c;
  return guarded("UnInitLAN", [] { return instance().UninitLan(); });
}

int32_t LANNetWrite(uint16_t peer, const PacketHeader* header, const void* data, uint16_t size) {
  return guarded("LANNetWrite",
                 [=] { return instance().LanWrite(peer, header, data, size); });
}

int32_t LANReFlash(const char* text, uint16_t size) {
  return guarded("LANReFlash", [=] { return instance().SetPresence(text, size); });
}

int32_t AddLANEP(intptr_t a, intptr_t b, intptr_t c, intptr_t d) {
  (void)c;
  (void)d;
  return guarded("AddLANEP",
                 [=] { return instance().AddPeer(reinterpret_cast<const char*>(a), b); });
}

int32_t LANConRemoteHostInfo(uint16_t peer) {
  return guarded("LANConRemoteHostInfo", [=] { return instance().ConnectPeer(peer); });
}

static_assert(arbor::net::kWireVersion == 1, "arbor_net_version names the wire version");
const char* arbor_net_version(void) { return "arbor-net " ARBOR_VERSION_STRING " wire 1"; }

int32_t arbor_net_lan_port(void) {
  return guarded("arbor_net_lan_port", [] { return instance().LanPort(); });
}

int32_t arbor_net_peer_stats(uint16_t id, arbor_net_peer_info* out) {
  return guarded("arbor_net_peer_stats", [=] { return instance().PeerStats(id, out); });
}

int32_t arbor_net_peers(uint16_t* ids, int32_t capacity) {
  return guarded("arbor_net_peers", [=] { return instance().Peers(ids, capacity); });
}

int32_t arbor_net_peer_presence(uint16_t id, char* text, size_t capacity) {
  return guarded("arbor_net_peer_presence",
                 [=] { return instance().PeerPresence(id, text, capacity); });
}

int64_t arbor_net_presence_dropped(void) {
  try {
    return instance().PresenceDropped();
  } catch (...) {
    return -1;  // cannot throw: a load and a lock
  }
}

ARBOR_END_DECLS
