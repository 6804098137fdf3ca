// cdef/lan_pipe.cc - LAN pipe numbers: the numbers 1024 to 65535 that this
// peer's LAN pipe nodes put where a control packet carries an AS code.
//
// Numbers are handed out in rising order from `next_pipe` and wrap from
// 65535 to 1024, so a freed number comes back only after the whole range has
// passed: a late packet of a closed pipe does not land in a new one.
//
// The table is used from the command queue's consumer (alloc and free) and
// from the timed queue's worker (free, when a timed check removes a branch),
// so one mutex guards all of it; nothing else is done under it.
//
// The numbers in use are kept in `lan_pipes`, an unordered array grown by 8
// and never freed, with a bitmap of the same numbers beside it. The bitmap
// answers "is this candidate taken?" in O(1); with the array alone a full
// range costs 64512 linear searches (4e9 comparisons) per failing call.
// Known cost: lan_pipe_free is O(numbers in use), a linear search of the
// array.
#include <cstdint>
#include <mutex>

#include "arbor/device_class.h"
#include "cdef/cdef_internal.h"

namespace {

constexpr uint16_t kLanPipeFirst = 1024;
constexpr uint32_t kLanPipeGrowth = 8;

struct LanPipeTable {
  std::mutex mutex;
  uint16_t next_pipe = kLanPipeFirst;  // set at load, by no init function
  uint32_t count = 0;
  uint32_t* pipes = nullptr;           // count numbers, no order
  uint64_t in_use[65536 / 64] = {};    // bit n set: n is in `pipes`
};

LanPipeTable lan_pipes_;

bool lan_pipe_taken(uint32_t n) {
  return n <= UINT16_MAX && ((lan_pipes_.in_use[n / 64] >> (n % 64)) & 1U);
}

void lan_pipe_mark(uint32_t n, bool taken) {
  const uint64_t bit = uint64_t{1} << (n % 64);
  if (taken) {
    lan_pipes_.in_use[n / 64] |= bit;
  } else {
    lan_pipes_.in_use[n / 64] &= ~bit;
  }
}

// The number after n: n + 1 in 16 bits, 0 becoming 1024.
uint16_t lan_pipe_step(uint16_t n) {
  const auto next = static_cast<uint16_t>(n + 1);
  return next == 0 ? kLanPipeFirst : next;
}

}  // namespace

extern "C" {

// On lack of memory for the table the result is 0 and the number stays
// free, but next_pipe has already moved past it. A full range gives 0 with
// nothing changed.
ARBOR_EXPORT uint32_t lan_pipe_alloc(void) {
  std::lock_guard<std::mutex> lock(lan_pipes_.mutex);
  const uint16_t first = lan_pipes_.next_pipe;
  uint16_t candidate = first;
  while (lan_pipe_taken(candidate)) {
    candidate = lan_pipe_step(candidate);
    if (candidate == first) return 0;
  }
  lan_pipes_.next_pipe = lan_pipe_step(candidate);
  if (lan_pipes_.count % kLanPipeGrowth == 0) {
    void* grown = cdef_realloc(
        lan_pipes_.pipes, (lan_pipes_.count + kLanPipeGrowth) * sizeof(uint32_t));
    if (grown == nullptr) return 0;
    lan_pipes_.pipes = static_cast<uint32_t*>(grown);
  }
  lan_pipes_.pipes[lan_pipes_.count++] = candidate;
  lan_pipe_mark(candidate, true);
  return candidate;
}

// A number not in use is ignored. The array keeps its memory.
ARBOR_EXPORT void lan_pipe_free(uint32_t number) {
  std::lock_guard<std::mutex> lock(lan_pipes_.mutex);
  if (!lan_pipe_taken(number)) return;
  for (uint32_t i = 0; i < lan_pipes_.count; ++i) {
    if (lan_pipes_.pipes[i] == number) {
      lan_pipes_.pipes[i] = lan_pipes_.pipes[--lan_pipes_.count];
      lan_pipe_mark(number, false);
      return;
    }
  }
}

}  // extern "C"

uint16_t lan_pipe_test_next() {
  std::lock_guard<std::mutex> lock(lan_pipes_.mutex);
  return lan_pipes_.next_pipe;
}

void lan_pipe_test_set_next(uint16_t next) {
  std::lock_guard<std::mutex> lock(lan_pipes_.mutex);
  lan_pipes_.next_pipe = next;
}

uint32_t lan_pipe_test_count() {
  std::lock_guard<std::mutex> lock(lan_pipes_.mutex);
  return lan_pipes_.count;
}
