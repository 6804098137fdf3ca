// scripted_control.cc - the test-control side of the scripted transport:
// reading records back, waiting for them, scripting results, injecting
// frames and statuses into the registered callbacks, and reset.
//
// Injection reads the callback under the lock and calls it after releasing
// the lock, on the caller's thread. So a callback may call the transport, and
// a callback that UnInitWAN/UnInitLAN clears meanwhile still finishes the
// call in progress - the same late-callback race a real transport has, which
// the engine is built to survive.
#include <chrono>
#include <cstring>
#include <vector>

#include "arbor/support.h"
#include "scripted_state.h"
#include "arbor/scripted_transport.h"

namespace scripted {

State& state_get() {
  // Never destroyed: see the declaration.
  static State* const instance = new State;
  return *instance;
}

int32_t script_take(Script& script) {
  if (script.empty()) return SCRIPTED_DEFAULT;
  Run& run = script.front();
  const int32_t result = run.result;
  if (run.times > 0 && --run.times == 0) script.pop_front();
  return result;
}

}  // namespace scripted

namespace {

using scripted::State;

// The record of the index-th call of fn, or null. Caller holds the mutex.
const scripted::Record* record_find(State& st, scripted_fn fn, size_t index) {
  if (fn == SCRIPTED_ANY) return index < st.records.size() ? &st.records[index] : nullptr;
  if (!scripted::fn_valid(fn)) return nullptr;
  const std::vector<size_t>& indices = st.by_fn[fn];
  return index < indices.size() ? &st.records[indices[index]] : nullptr;
}

// Count of fn's calls; SCRIPTED_ANY counts all. Caller holds the mutex.
size_t count_of(const State& st, scripted_fn fn) {
  return fn == SCRIPTED_ANY ? st.records.size() : st.by_fn[fn].size();
}

// True for a run length that scripted_push_result accepts.
bool times_valid(int32_t times) { return times > 0 || times == SCRIPTED_ALWAYS; }

// Calls the registered WAN callback, read without the lock. -1 when none.
int32_t wan_deliver(uint32_t pipe, uint32_t type, uint32_t size, const void* data) {
  State& st = scripted::state_get();
  const WanCallback callback = st.wan.load();
  if (callback == nullptr) {
    ARBOR_LOG(3, "inject WAN pipe=%u type=%u size=%u: no callback", pipe, type, size);
    return -1;
  }
  ARBOR_LOG(3, "inject WAN pipe=%u type=%u size=%u", pipe, type, size);
  callback(pipe, type, size, data);
  return 0;
}

// Calls the registered LAN callback, read without the lock. -1 when none.
int32_t lan_deliver(uint32_t from, uint32_t pipe, uint32_t type, uint32_t size,
                    const void* data) {
  State& st = scripted::state_get();
  const LanCallback callback = st.lan.load();
  if (callback == nullptr) {
    ARBOR_LOG(3, "inject LAN from=%u pipe=%u type=%u size=%u: no callback", from, pipe,
              type, size);
    return -1;
  }
  if (LOG_GetLevel() >= 3)
    ARBOR_LOG(3, "inject LAN from=%u pipe=%u type=%u size=%u", from, pipe, type, size);
  callback(from, pipe, type, size, data);
  return 0;
}

}  // namespace

ARBOR_BEGIN_DECLS

// ------------------------------------------------------------------ Reading

size_t scripted_call_count(scripted_fn fn) {
  if (fn != SCRIPTED_ANY && !scripted::fn_valid(fn)) return 0;
  State& st = scripted::state_get();
  std::lock_guard lock(st.mutex);
  return count_of(st, fn);
}

int32_t scripted_call_get(scripted_fn fn, size_t index, scripted_call* out) {
  if (out == nullptr) return -1;
  State& st = scripted::state_get();
  std::lock_guard lock(st.mutex);
  const scripted::Record* rec = record_find(st, fn, index);
  if (rec == nullptr) return -1;
  *out = rec->call;
  return 0;
}

int32_t scripted_call_copy_data(scripted_fn fn, size_t index, void* buffer,
                                size_t capacity) {
  State& st = scripted::state_get();
  std::lock_guard lock(st.mutex);
  const scripted::Record* rec = record_find(st, fn, index);
  if (rec == nullptr || rec->call.data == nullptr) return -1;
  if (buffer == nullptr && capacity > 0) return -1;
  const size_t n = rec->call.size < capacity ? rec->call.size : capacity;
  if (n > 0) std::memcpy(buffer, rec->call.data, n);
  return static_cast<int32_t>(rec->call.size);
}

// Known cost: every append wakes every waiter, which rechecks its count. Tests
// have one or two waiters at most.
int scripted_wait_calls(scripted_fn fn, size_t count, uint32_t timeout_ms) {
  if (fn != SCRIPTED_ANY && !scripted::fn_valid(fn)) return 0;
  State& st = scripted::state_get();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  std::unique_lock lock(st.mutex);
  return st.recorded.wait_until(lock, deadline, [&] { return count_of(st, fn) >= count; })
             ? 1
             : 0;
}

const char* scripted_fn_name(scripted_fn fn) {
  switch (fn) {
    case SCRIPTED_ANY: return "any";
    case SCRIPTED_NET_OPEN: return "NetOpen";
    case SCRIPTED_NET_CLOSE: return "NetClose";
    case SCRIPTED_INIT_WAN: return "InitWAN";
    case SCRIPTED_UNINIT_WAN: return "UnInitWAN";
    case SCRIPTED_CON_REMOTE_HOST_INFO: return "ConRemoteHostInfo";
    case SCRIPTED_NET_WRITE: return "NetWrite";
    case SCRIPTED_INIT_LAN: return "InitLAN";
    case SCRIPTED_UNINIT_LAN: return "UnInitLAN";
    case SCRIPTED_LAN_NET_WRITE: return "LANNetWrite";
    case SCRIPTED_LAN_REFLASH: return "LANReFlash";
    case SCRIPTED_ADD_LANEP: return "AddLANEP";
    case SCRIPTED_LAN_CON_REMOTE_HOST_INFO: return "LANConRemoteHostInfo";
    case SCRIPTED_FN_COUNT: break;
  }
  return "?";
}

// ------------------------------------------------------------------ Results

int32_t scripted_push_result(scripted_fn fn, int32_t result, int32_t times) {
  if (!scripted::fn_valid(fn) || !times_valid(times)) return -1;
  State& st = scripted::state_get();
  std::lock_guard lock(st.mutex);
  st.scripts[fn].push_back({result, times});
  return 0;
}

int32_t scripted_set_result(scripted_fn fn, int32_t result) {
  if (!scripted::fn_valid(fn)) return -1;
  State& st = scripted::state_get();
  std::lock_guard lock(st.mutex);
  st.scripts[fn].assign(1, {result, SCRIPTED_ALWAYS});
  return 0;
}

int32_t scripted_push_peer_result(uint16_t peer, int32_t result, int32_t times) {
  if (!times_valid(times)) return -1;
  State& st = scripted::state_get();
  std::lock_guard lock(st.mutex);
  st.peer_scripts[peer].push_back({result, times});
  return 0;
}

void scripted_clear_results(scripted_fn fn) {
  State& st = scripted::state_get();
  std::lock_guard lock(st.mutex);
  if (fn == SCRIPTED_ANY) {
    for (scripted::Script& script : st.scripts) script.clear();
    st.peer_scripts.clear();
  } else if (scripted::fn_valid(fn)) {
    st.scripts[fn].clear();
  }
}

// ---------------------------------------------------------------- Injection

int32_t scripted_wan_status(uint32_t status) { return wan_deliver(0, status, 0, nullptr); }

int32_t scripted_wan_control(uint16_t asc, const char* text, int with_nul) {
  if (text == nullptr) text = "";
  const size_t length = std::strlen(text) + (with_nul ? 1 : 0);
  if (length > 65535 - 2) return -1;
  std::vector<unsigned char> frame(length + 2);
  frame[0] = static_cast<unsigned char>(asc & 0xFF);
  frame[1] = static_cast<unsigned char>(asc >> 8);
  std::memcpy(frame.data() + 2, text, length);  // with_nul copies the NUL too
  return wan_deliver(0, QVTP_CONTROL, static_cast<uint32_t>(frame.size()), frame.data());
}

int32_t scripted_wan_frame(uint32_t pipe, uint32_t type, const void* data, uint32_t size) {
  return wan_deliver(pipe, type, size, data);
}

int32_t scripted_lan_status(uint32_t from, uint32_t status) {
  return lan_deliver(from, 0, status, 0, nullptr);
}

int32_t scripted_lan_control(uint32_t from, uint32_t asc, const char* text, int with_nul) {
  if (text == nullptr) text = "";
  const size_t length = std::strlen(text) + (with_nul ? 1 : 0);
  return lan_deliver(from, asc, QVTP_CONTROL, static_cast<uint32_t>(length), text);
}

int32_t scripted_lan_frame(uint32_t from, uint32_t pipe, uint32_t type, const void* data,
                           uint32_t size) {
  return lan_deliver(from, pipe, type, size, data);
}

int scripted_has_wan_callback(void) {
  State& st = scripted::state_get();
  std::lock_guard lock(st.mutex);
  return st.wan != nullptr ? 1 : 0;
}

int scripted_has_lan_callback(void) {
  State& st = scripted::state_get();
  std::lock_guard lock(st.mutex);
  return st.lan != nullptr ? 1 : 0;
}

// -------------------------------------------------------------------- Reset

void scripted_reset(void) {
  State& st = scripted::state_get();
  {
    std::lock_guard lock(st.mutex);
    st.records.clear();
    for (std::vector<size_t>& indices : st.by_fn) indices.clear();
    for (scripted::Script& script : st.scripts) script.clear();
    st.peer_scripts.clear();
    st.wan = nullptr;
    st.lan = nullptr;
  }
  st.recorded.notify_all();
  ARBOR_LOG(3, "scripted transport reset");
}

ARBOR_END_DECLS
