// asc/asc_lan.cc - the local service table, the dispatch of messages to
// both tables, local delivery by AS code, and the start and end of the
// service tables.
//
// The local table is a fixed array of ASC_MAX_LOCAL signed entries. A
// positive code serves that AS code alone; a negative one sees all traffic
// and is found by evt_local_asc under its absolute value; 0 sees all traffic
// and is never found. Registration appends; removal moves the last entry
// into the gap, so the entries keep no lasting order. Dispatch walks from
// the last entry down, so among entries registered since the last removal
// the newest is offered a message first, and a negative result from a
// handler keeps the message from every entry below it.
//
// Guard: a std::shared_mutex, taken shared by dispatch and exclusive by
// _as_regist. Dispatch copies the live entries (at most 32 pairs, 512 bytes
// of stack) under the lock and calls them after releasing it, so a handler
// may register, remove or dispatch itself; the price is convention 4 of
// asc.h (a dispatch sees the table as it stood when it began).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/support.h"
#include "asc/asc_internal.h"
#include "init/assert.h"
#include "strutils/wire_text.h"

namespace {

// One entry of the local table. handler is never null in a live entry; its
// shape follows code (see as_call_entry).
struct LocalServiceEntry {
  int32_t code;
  AsHandler handler;
};

// The live entries as one dispatch sees them.
struct LocalSnapshot {
  uint32_t count;
  LocalServiceEntry entries[ASC_MAX_LOCAL];
};

// Guards the two words below.
std::shared_mutex asc_local_lock_;
LocalServiceEntry asc_local_[ASC_MAX_LOCAL];
uint32_t asc_nlocal_ = 0;

// |code| without overflow: INT32_MIN has no 32-bit opposite.
int64_t asc_magnitude(int32_t code) {
  return code < 0 ? -int64_t{code} : int64_t{code};
}

// A handler's address, for the log.
const void* asc_fn_addr(AsHandler handler) {
  return reinterpret_cast<const void*>(handler);
}

// Copies the live entries under the lock, for a walk that calls them after
// it is released. Cannot fail.
LocalSnapshot asc_local_snapshot() {
  LocalSnapshot snap{};
  std::shared_lock lock(asc_local_lock_);
  snap.count = asc_nlocal_;
  for (uint32_t i = 0; i < asc_nlocal_; ++i) snap.entries[i] = asc_local_[i];
  return snap;
}

// The one function that changes the local table. Walks the entries from the
// first: each entry of the same absolute code takes code's sign, and the
// first of them whose handler is old_handler gets new_handler, or, when
// that is null, is removed (the last entry moves into its place). Without
// such an entry, new_handler is appended unless it is null or the table is
// full. Returns the count of entries afterwards, or 0 when nothing was added
// or replaced; a full table loses the registration with no more than the
// log line here.
int32_t _as_regist(int32_t code, AsHandler old_handler, AsHandler new_handler) {
  ARBOR_LOG(3, "%s: asc=%d, %p -> %p", "_as_regist", code,
            asc_fn_addr(old_handler), asc_fn_addr(new_handler));
  const int64_t magnitude = asc_magnitude(code);
  std::unique_lock lock(asc_local_lock_);
  for (uint32_t i = 0; i < asc_nlocal_; ++i) {
    LocalServiceEntry& entry = asc_local_[i];
    if (asc_magnitude(entry.code) != magnitude) continue;
    entry.code = code;
    if (entry.handler != old_handler) continue;
    if (new_handler != nullptr) {
      entry.handler = new_handler;
    } else {
      entry = asc_local_[--asc_nlocal_];
    }
    return static_cast<int32_t>(asc_nlocal_);
  }
  if (new_handler == nullptr || asc_nlocal_ == ASC_MAX_LOCAL) return 0;
  asc_local_[asc_nlocal_++] = LocalServiceEntry{code, new_handler};
  return static_cast<int32_t>(asc_nlocal_);
}

// Calls one entry in the shape that its own code selects: code 0 or below
// hears the sender and the message's code, 1 to ASC_LOCAL_CODE_BASE - 1 the
// sender, and from ASC_LOCAL_CODE_BASE on its own code instead of the
// sender. Returns the handler's result.
int32_t as_call_entry(const LocalServiceEntry& entry, uint32_t from,
                      int32_t code, const char* data, uint32_t size) {
  if (entry.code <= 0) {
    return reinterpret_cast<AsAnyHandler>(entry.handler)(from, code, data,
                                                         size);
  }
  if (entry.code < ASC_LOCAL_CODE_BASE) {
    return reinterpret_cast<AsPeerHandler>(entry.handler)(from, size, data);
  }
  return reinterpret_cast<AsCodeHandler>(entry.handler)(entry.code, size, data);
}

}  // namespace

extern "C" ARBOR_EXPORT int32_t asc_init(void) { return 0; }

// The table is emptied one first entry at a time through _as_regist, so
// each removal leaves its trace line like any other.
extern "C" ARBOR_EXPORT int32_t asc_uninit(void) {
  for (;;) {
    LocalServiceEntry first{};
    {
      std::shared_lock lock(asc_local_lock_);
      if (asc_nlocal_ == 0) break;
      first = asc_local_[0];
    }
    _as_regist(first.code, first.handler, nullptr);
  }
  asc_wan_clear();
  ARBOR_LOG(3, "%s:as_make_clean return", "asc_uninit");
  return 0;
}

// The caller (the host) promises a positive code: 0 or below would make a
// handler that sees all traffic, which is what SysRegistASLan_0 is for.
extern "C" ARBOR_EXPORT int32_t SysRegistASLan(int32_t asc,
                                               AsHandler old_handler,
                                               AsHandler new_handler) {
  ARBOR_ASSERT(asc > 0, "asc > 0");
  return _as_regist(asc, old_handler, new_handler);
}

// -asc is taken modulo 2^32, so INT32_MIN stays itself (still negative)
// rather than overflowing.
extern "C" ARBOR_EXPORT int32_t SysRegistASLan_0(int32_t asc,
                                                 AsHandler old_handler,
                                                 AsHandler new_handler) {
  const auto negated = static_cast<int32_t>(0u - static_cast<uint32_t>(asc));
  return _as_regist(negated, old_handler, new_handler);
}

// Both network classes are compared by address: the callers (the transport
// callbacks, local delivery) pass one of them, so any other class is an
// engine fault, not input from outside.
extern "C" ARBOR_EXPORT int32_t asdispatch(const cdef* cls, uint32_t from,
                                           int32_t code, const char* data,
                                           uint32_t size) {
  if (size == 0) return 0;
  const bool lan = cls == get_lan_cdef();
  ARBOR_LOG(3, "%s: %s: fr=%u, asc=%d, %.*s", "asdispatch", lan ? "lan" : "wan",
            from, code, log_precision(size),
            data);
  if (cls == get_wan_cdef()) return asc_wan_dispatch(code, data, size);
  ARBOR_ASSERT(lan, "cdef == get_lan_cdef()");

  const LocalSnapshot snap = asc_local_snapshot();
  for (uint32_t i = snap.count; i-- > 0;) {
    const LocalServiceEntry& entry = snap.entries[i];
    if (code != 0 && entry.code >= 1 && entry.code != code) continue;
    if (as_call_entry(entry, from, code, data, size) < 0) return 1;
  }
  return 0;
}

extern "C" ARBOR_EXPORT int32_t evt_local_asc(int32_t asc, const char* data,
                                              uint32_t size) {
  if (size == 0 || asc <= 0) return 0;
  const LocalSnapshot snap = asc_local_snapshot();
  for (uint32_t i = snap.count; i-- > 0;) {
    const LocalServiceEntry& entry = snap.entries[i];
    if (asc_magnitude(entry.code) != asc) continue;
    if (as_call_entry(entry, 0, asc, data, size) < 0) return 1;
  }
  return 0;
}
