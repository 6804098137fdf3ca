// init/lan.cc - the LAN side: switching it on and off, how this peer
// presents itself, peers added by hand, and the sorting of everything the
// LAN side of the transport reports.
//
// The pipe number decides the road: below 1024 it is an AS code and the
// text goes to the local service table, from 1024 on it is a session's data
// pipe. Link failures of a peer become a LocalData text offered to every
// entry of the local table, which is how the neighbour handler hears of a
// peer that is gone. on_lan_callback runs on the transport's thread, and
// every handler it reaches runs there too.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "arbor/transport.h"
#include "init/link.h"
#include "init/sys_state.h"
#include "strutils/wire_text.h"

namespace {

// Room for the presence text in the older encoding.
constexpr int32_t kPresenceBuffer = 2048;

}  // namespace

void on_lan_callback(uint32_t from, uint32_t pipe, uint32_t type,
                     uint32_t size, const void* data) {
  if (sys_.lan_state.load(std::memory_order_relaxed) < 0) {
    ARBOR_LOG(0, "on_lan_callback: lan not avaliable");
    return;
  }
  if (type == QVNETS_FAIL || type == QVNETS_DISCONNECT ||
      type == QVNETS_UNREACHABLE) {
    ARBOR_LOG(0, "lan-QVNETS: QVNETS_FAIL/QVNETS_DISCONNECT:type=%u: qvid=%u",
              type, from);
    char text[128];
    const int length = std::snprintf(
        text, sizeof text, "MainCmd=LocalData;status=10;QVID=%u;ErrorCode=%u;",
        from, type);
    // AS code 0 offers it to every entry; the size counts the NUL.
    asdispatch(get_lan_cdef(), from, 0, text, static_cast<uint32_t>(length) + 1);
    return;
  }
  if (type == QVNETS_SUCCESS) {
    ARBOR_LOG(3, "lan-QVNETS: QVNETS_SUCCESS: connect ok.");
    return;
  }
  if (size == 0 || data == nullptr) return;
  if (type != QVTP_RTP) {
    ARBOR_LOG(3, "%s(type=%u, from=%u, pipe=%u, size=%u: %.*s)",
              "on_lan_callback", type, from, pipe, size,
              log_precision(size),
              static_cast<const char*>(data));
  }
  if (pipe >= QV_FIRST_DATA_PIPE) {
    rsc_lan_data_incoming(from, pipe, type, data, size);
    return;
  }
  asdispatch(get_lan_cdef(), from, static_cast<int32_t>(pipe),
             static_cast<const char*>(data), size);
}

extern "C" {

// Nothing guards against switching on twice: the transport decides.
ARBOR_EXPORT int32_t LanNetworking(int32_t on, intptr_t a, intptr_t b,
                                   intptr_t c) {
  if (on != 0) {
    const int32_t state = InitLAN(on_lan_callback, a, b, c);
    sys_.lan_state.store(state, std::memory_order_relaxed);
    if (state < 0) ARBOR_LOG(0, "InitLAN error: %d", state);
    return state;
  }
  // Off before the transport hears of it, so a late callback finds the LAN
  // off and only logs.
  sys_.lan_state.store(-1, std::memory_order_relaxed);
  UnInitLAN(on_lan_callback, a, b, c);
  return -1;
}

// A text that cannot be encoded is not handed on: the length of a failed
// encoding is no length, and the transport would read past the buffer.
ARBOR_EXPORT int32_t LanPresent(const char* text, uint32_t size) {
  Dict dict = dict_of(text, size);
  if (dict == nullptr) return -1;
  if (const char* password = DictGetStr(dict, "Psw")) {
    char digest[256] = {};
    MakeMD5Int64(password, static_cast<int32_t>(std::strlen(password)),
                 digest);
    DictSetStr(dict, "Psw", digest);
  }
  char buffer[kPresenceBuffer];
  const int32_t length = DictEncodeOld(buffer, sizeof buffer, dict);
  DictDestroy(dict);
  if (length <= 0) {
    ARBOR_LOG(0, "%s: presence text refused: not for the older encoding or "
              "over %d bytes", "LanPresent", kPresenceBuffer);
    return -1;
  }
  return LANReFlash(buffer, static_cast<uint16_t>(length));
}

// The transport's result is not tested first: a negative id goes to the
// connect and back to the caller alike, who reads it as a failure.
ARBOR_EXPORT int16_t SysAddLanEP(intptr_t a, intptr_t b, intptr_t c,
                                 intptr_t d) {
  const auto id = static_cast<uint16_t>(AddLANEP(a, b, c, d));
  LANConRemoteHostInfo(id);
  return static_cast<int16_t>(id);
}

}  // extern "C"
