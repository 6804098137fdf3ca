// rsc/cb_lan.cc - the LAN neighbour handler: the link reports of LAN peers
// (LocalData), which keep the table of old peers, connect to a peer that
// came up and end the sessions of one that went. Every other text of the
// LAN goes on to rsc_callback.
//
// It is the local table's entry -100, so it sees every message of the LAN
// whatever its AS code, and every local dispatch. It runs on the transport's
// thread and on the threads that dispatch locally; the table it writes has
// its own lock (neigh_table.cc), and the sessions are ended on the consumer.
#include <cstdint>
#include <cstring>

#include "arbor/device_class.h"
#include "arbor/forest.h"
#include "arbor/rsc.h"
#include "arbor/support.h"
#include "arbor/transport.h"
#include "rsc/neigh_table.h"
#include "rsc/rsc_internal.h"
#include "strutils/wire_text.h"

namespace {

// Peers that speak a protocol version below this use the old encoding of
// dictionaries.
constexpr int32_t kCurrentVersion = 80;
// status values of a link report.
constexpr int32_t kStatusUp = 1;
constexpr int32_t kStatusUpAgain = 2;
constexpr int32_t kStatusIgnored = 9;

// An old peer (version below 80) enters the table, once. One that cannot be
// recorded (no memory) counts as current, which no sender reads past.
void neigh_update(uint32_t qvid, int32_t version, const char* ip) {
  const int32_t index = neigh_table_add(qvid);
  ARBOR_LOG(3, "%u: version=%d, %s: @%d", qvid, version,
            ip != nullptr ? ip : "", index);
}

void neigh_remove(uint32_t qvid) {
  const int32_t index = neigh_table_remove(qvid);
  if (index >= 0) ARBOR_LOG(3, "%u: @%d", qvid, index);
}

}  // namespace

int32_t cb_lan(uint32_t qvid, int32_t asc, const char* data, uint32_t size) {
  Dict dict = dict_of(data, size);
  if (dict == nullptr) return 0;
  const char* command = DictGetStr(dict, "MainCmd");
  int32_t result = 0;
  if (command == nullptr || std::strcmp(command, "LocalData") != 0) {
    result = rsc_callback(get_lan_cdef(), qvid, asc, data, size);
  } else {
    const int32_t status = DictGetInt(dict, "status");
    if (status == kStatusUp || status == kStatusUpAgain) {
      // A missing VERSION reads as 0: an old peer. A peer already in the
      // table stays there when it reports a current version.
      const int32_t version = DictGetInt(dict, "VERSION");
      if (version < kCurrentVersion)
        neigh_update(qvid, version, DictGetStr(dict, "Ip"));
      result = LANConRemoteHostInfo(static_cast<uint16_t>(qvid & 0xffff));
      ARBOR_LOG(3, "LANConRemoteHostInfo(%u): %d", qvid, result);
    } else if (status != kStatusIgnored) {
      // Every other status means the peer is gone, in the table or not. Its
      // number rides in the size word.
      cmdq_push("Tree_cleanup_byuid", Tree_cleanup_byuid,
                reinterpret_cast<uintptr_t>("Present_0"), nullptr, qvid);
      neigh_remove(qvid);
    }
  }
  DictDestroy(dict);
  return result;
}
