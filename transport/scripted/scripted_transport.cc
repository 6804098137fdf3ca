// scripted_transport.cc - the twelve functions of arbor/transport.h, as the
// scripted transport answers them.
//
// Each function copies what it was given into a Record outside the lock (so
// concurrent writers copy in parallel), then, under the lock, settles its
// result from the test's script or the default, applies its effect on the
// registered callbacks, and appends the Record; the order of appends is the
// order of the calls. It logs at level 3 after releasing the lock and never
// waits for anything else, so it may be called from inside a callback.
#include <cinttypes>
#include <cstring>
#include <utility>

#include "arbor/support.h"
#include "arbor/transport.h"
#include "scripted_state.h"
#include "arbor/scripted_transport.h"

namespace {

using scripted::Record;
using scripted::State;

// Copies size bytes of data into the record's payload with one NUL behind
// and points call.data at it. Cannot fail short of memory.
void record_payload(Record& rec, const void* data, size_t size) {
  rec.payload.resize(size + 1);
  if (size > 0) std::memcpy(rec.payload.data(), data, size);
  rec.payload[size] = 0;
  rec.call.data = rec.payload.data();
  rec.call.size = static_cast<uint32_t>(size);
}

// A record of fn with its payload-less fields at their "not applicable"
// values. Cannot fail.
Record record_make(scripted_fn fn) {
  Record rec;
  rec.call.fn = fn;
  rec.call.asc = -1;
  return rec;
}

// The next scripted result of fn, or fallback when the script is empty or
// its run says SCRIPTED_DEFAULT. Caller holds the mutex. Cannot fail.
int32_t result_take(State& st, scripted_fn fn, int32_t fallback) {
  const int32_t r = scripted::script_take(st.scripts[fn]);
  return r == SCRIPTED_DEFAULT ? fallback : r;
}

// Appends rec with the result that settle(State&) returns; settle runs under
// the lock, before the append, and may change the callbacks. Wakes waiters.
// Returns that result. Cannot fail short of memory.
template <typename Settle>
int32_t record_append(Record rec, Settle settle) {
  State& st = scripted::state_get();
  int32_t result;
  {
    std::lock_guard lock(st.mutex);
    result = settle(st);
    rec.call.result = result;
    rec.call.order = st.records.size();
    st.by_fn[rec.call.fn].push_back(st.records.size());
    st.records.push_back(std::move(rec));
  }
  st.recorded.notify_all();
  return result;
}

// Appends a call with no argument and no effect: result from the script or 0.
int32_t record_plain(scripted_fn fn) {
  return record_append(record_make(fn),
                       [fn](State& st) { return result_take(st, fn, 0); });
}

// Fills the header and payload of a NetWrite or LANNetWrite record. Returns
// false when the call must be refused (null header, or null data with a
// non-zero size); the record then holds what could be copied.
bool record_frame(Record& rec, const PacketHeader* header, const void* data,
                  uint16_t size) {
  if (header != nullptr) {
    rec.call.has_header = 1;
    std::memcpy(&rec.call.header, header, sizeof(PacketHeader));
  }
  if (data == nullptr && size > 0) {
    rec.call.size = size;
    return false;
  }
  record_payload(rec, data, size);
  return header != nullptr;
}

}  // namespace

ARBOR_BEGIN_DECLS

int32_t NetOpen(void) {
  const int32_t result = record_plain(SCRIPTED_NET_OPEN);
  ARBOR_LOG(3, "NetOpen(): %d", result);
  return result;
}

// Releasing the transport ends both links: no callback can follow it.
int32_t NetClose(void) {
  const int32_t result = record_append(record_make(SCRIPTED_NET_CLOSE), [](State& st) {
    st.wan = nullptr;
    st.lan = nullptr;
    return result_take(st, SCRIPTED_NET_CLOSE, 0);
  });
  ARBOR_LOG(3, "NetClose(): %d", result);
  return result;
}

int32_t InitWAN(WanCallback callback) {
  Record rec = record_make(SCRIPTED_INIT_WAN);
  rec.call.wan_callback = callback;
  const int32_t result = record_append(std::move(rec), [callback](State& st) {
    const int32_t r = result_take(st, SCRIPTED_INIT_WAN, 0);
    if (r >= 0) st.wan = callback;
    return r;
  });
  ARBOR_LOG(3, "InitWAN(callback %s): %d", callback ? "set" : "null", result);
  return result;
}

int32_t UnInitWAN(void) {
  const int32_t result = record_append(record_make(SCRIPTED_UNINIT_WAN), [](State& st) {
    st.wan = nullptr;
    return result_take(st, SCRIPTED_UNINIT_WAN, 0);
  });
  ARBOR_LOG(3, "UnInitWAN(): %d", result);
  return result;
}

int32_t ConRemoteHostInfo(const ConnectTarget* target) {
  Record rec = record_make(SCRIPTED_CON_REMOTE_HOST_INFO);
  if (target != nullptr) {
    // The host may lack its terminator; the copy never reads past the field.
    record_payload(rec, target->host, strnlen(target->host, sizeof target->host - 1));
    rec.call.host = reinterpret_cast<const char*>(rec.call.data);
    rec.call.data = nullptr;
    rec.call.size = 0;
    rec.call.port = target->port;
    rec.call.protocol = target->protocol;
    rec.call.reserved_zero = 1;
    for (unsigned char byte : target->zero) {
      if (byte != 0) rec.call.reserved_zero = 0;
    }
  }
  const bool refused = target == nullptr;
  const int32_t result = record_append(std::move(rec), [refused](State& st) {
    return refused ? -1 : result_take(st, SCRIPTED_CON_REMOTE_HOST_INFO, 0);
  });
  if (refused) {
    ARBOR_LOG(3, "ConRemoteHostInfo(null): %d", result);
  } else {
    ARBOR_LOG(3, "ConRemoteHostInfo(%.255s, port=%u, protocol=%u): %d", target->host,
              target->port, target->protocol, result);
  }
  return result;
}

int32_t NetWrite(const PacketHeader* header, const void* data, uint16_t size) {
  Record rec = record_make(SCRIPTED_NET_WRITE);
  const bool ok = record_frame(rec, header, data, size);
  if (ok && header->nPacketType == QVTP_CONTROL && size >= 2) {
    rec.call.asc = rec.payload[0] | (rec.payload[1] << 8);
    rec.call.text = reinterpret_cast<const char*>(rec.payload.data() + 2);
    rec.call.text_size = size - 2u;
  }
  const PacketHeader h = rec.call.header;
  const int32_t result = record_append(std::move(rec), [ok, size](State& st) {
    return ok ? result_take(st, SCRIPTED_NET_WRITE, size) : -1;
  });
  ARBOR_LOG(3, "NetWrite(pipe=%" PRIu32 ", type=%u, boat=%u, level=%u, size=%u): %d",
            h.nPipe, h.nPacketType, h.nBoatType, h.nLevel, size, result);
  return result;
}

int32_t InitLAN(LanCallback callback, intptr_t a, intptr_t b, intptr_t c) {
  Record rec = record_make(SCRIPTED_INIT_LAN);
  rec.call.lan_callback = callback;
  rec.call.words[0] = a;
  rec.call.words[1] = b;
  rec.call.words[2] = c;
  const int32_t result = record_append(std::move(rec), [callback](State& st) {
    const int32_t r = result_take(st, SCRIPTED_INIT_LAN, 0);
    if (r >= 0) st.lan = callback;
    return r;
  });
  ARBOR_LOG(3, "InitLAN(callback %s, %" PRIdPTR ", %" PRIdPTR ", %" PRIdPTR "): %d",
            callback ? "set" : "null", a, b, c, result);
  return result;
}

// The arguments are recorded but play no part: SysExit passes nothing
// meaningful, and the LAN is switched off all the same.
int32_t UnInitLAN(LanCallback callback, intptr_t a, intptr_t b, intptr_t c) {
  Record rec = record_make(SCRIPTED_UNINIT_LAN);
  rec.call.lan_callback = callback;
  rec.call.words[0] = a;
  rec.call.words[1] = b;
  rec.call.words[2] = c;
  const int32_t result = record_append(std::move(rec), [](State& st) {
    st.lan = nullptr;
    return result_take(st, SCRIPTED_UNINIT_LAN, 0);
  });
  ARBOR_LOG(3, "UnInitLAN(%" PRIdPTR ", %" PRIdPTR ", %" PRIdPTR "): %d", a, b, c, result);
  return result;
}

// Peer 0 is recorded like any other peer; the scripted transport gives it no
// meaning of its own.
int32_t LANNetWrite(uint16_t peer, const PacketHeader* header, const void* data,
                    uint16_t size) {
  Record rec = record_make(SCRIPTED_LAN_NET_WRITE);
  rec.call.peer = peer;
  const bool ok = record_frame(rec, header, data, size);
  if (ok && header->nPacketType == QVTP_CONTROL) {
    rec.call.asc = static_cast<int32_t>(header->nPipe);
    rec.call.text = reinterpret_cast<const char*>(rec.payload.data());
    rec.call.text_size = size;
  }
  const PacketHeader h = rec.call.header;
  const int32_t result = record_append(std::move(rec), [ok, peer, size](State& st) {
    if (!ok) return -1;
    auto it = st.peer_scripts.find(peer);
    if (it == st.peer_scripts.end() || it->second.empty())
      return result_take(st, SCRIPTED_LAN_NET_WRITE, size);
    const int32_t r = scripted::script_take(it->second);
    return r == SCRIPTED_DEFAULT ? int32_t{size} : r;
  });
  ARBOR_LOG(3, "LANNetWrite(peer=%u, pipe=%" PRIu32 ", type=%u, boat=%u, level=%u, size=%u): %d",
            peer, h.nPipe, h.nPacketType, h.nBoatType, h.nLevel, size, result);
  return result;
}

int32_t LANReFlash(const char* text, uint16_t size) {
  Record rec = record_make(SCRIPTED_LAN_REFLASH);
  const bool ok = text != nullptr || size == 0;
  if (ok) {
    record_payload(rec, text, size);
    rec.call.text = reinterpret_cast<const char*>(rec.payload.data());
    rec.call.text_size = size;
  } else {
    rec.call.size = size;
  }
  const int32_t result = record_append(std::move(rec), [ok](State& st) {
    return ok ? result_take(st, SCRIPTED_LAN_REFLASH, 0) : -1;
  });
  ARBOR_LOG(3, "LANReFlash(%.*s): %d", ok ? static_cast<int>(size) : 0, ok ? text : "",
            result);
  return result;
}

int32_t AddLANEP(intptr_t a, intptr_t b, intptr_t c, intptr_t d) {
  Record rec = record_make(SCRIPTED_ADD_LANEP);
  rec.call.words[0] = a;
  rec.call.words[1] = b;
  rec.call.words[2] = c;
  rec.call.words[3] = d;
  const int32_t result = record_append(std::move(rec), [](State& st) {
    const auto ordinal = static_cast<int32_t>(st.by_fn[SCRIPTED_ADD_LANEP].size() + 1);
    return result_take(st, SCRIPTED_ADD_LANEP, ordinal);
  });
  ARBOR_LOG(3, "AddLANEP(%" PRIdPTR ", %" PRIdPTR ", %" PRIdPTR ", %" PRIdPTR "): %d", a, b,
            c, d, result);
  return result;
}

int32_t LANConRemoteHostInfo(uint16_t peer) {
  Record rec = record_make(SCRIPTED_LAN_CON_REMOTE_HOST_INFO);
  rec.call.peer = peer;
  const int32_t result = record_append(std::move(rec), [](State& st) {
    return result_take(st, SCRIPTED_LAN_CON_REMOTE_HOST_INFO, 0);
  });
  ARBOR_LOG(3, "LANConRemoteHostInfo(%u): %d", peer, result);
  return result;
}

ARBOR_END_DECLS
