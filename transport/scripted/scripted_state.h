// scripted_state.h - the shared state of the scripted transport, between the
// transport functions (scripted_transport.cc) and the test-control functions
// (scripted_control.cc).
//
// One mutex guards everything here. It is held only for short bookkeeping:
// never while a callback runs and never while logging, so a callback may
// call back into the transport and a log sink may be slow.
#ifndef ARBOR_SCRIPTED_STATE_H
#define ARBOR_SCRIPTED_STATE_H

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

#include "arbor/scripted_transport.h"

namespace scripted {

// One recorded call. call.data, call.text and call.host point into payload,
// whose buffer stays put when the Record is moved.
struct Record {
  scripted_call call{};
  std::vector<unsigned char> payload;  // the copied bytes, then one NUL
};

// A run of scripted results; times < 0 never runs out.
struct Run {
  int32_t result;
  int32_t times;
};
using Script = std::deque<Run>;

struct State {
  std::mutex mutex;
  std::condition_variable recorded;  // signalled on each append and reset

  // All guarded by mutex. records is a deque so that appending never moves
  // a Record; by_fn[fn] holds the indices into records of fn's calls.
  std::deque<Record> records;
  std::array<std::vector<size_t>, SCRIPTED_FN_COUNT> by_fn;
  std::array<Script, SCRIPTED_FN_COUNT> scripts;
  std::map<uint16_t, Script> peer_scripts;
  // The callbacks are set and cleared under mutex, but read without it:
  // an injected frame then costs the test transport no lock, as a frame
  // from a real transport's reader costs none, so that a benchmark of the
  // receiving road measures the engine and not this transport's records.
  std::atomic<WanCallback> wan{nullptr};
  std::atomic<LanCallback> lan{nullptr};
};

// The one instance. Created on first use and never destroyed, so a transport
// call from a thread that outlives static destruction still finds it.
State& state_get();

// True for a code that names one transport function.
inline bool fn_valid(scripted_fn fn) {
  return fn > SCRIPTED_ANY && fn < SCRIPTED_FN_COUNT;
}

// Takes the next result from script, or returns SCRIPTED_DEFAULT when the
// script is empty. Caller holds the mutex. Cannot fail.
int32_t script_take(Script& script);

}  // namespace scripted

#endif  // ARBOR_SCRIPTED_STATE_H
