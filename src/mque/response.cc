// mque/response.cc - response lists: calls deferred until the caller has
// let go of a lock.
//
// The data path walks a session tree under the tree's lock, and network
// writes must not happen there. The walk appends one deferred call per
// network sink to a list held in a local variable; once the lock is released,
// respond runs them all in the order of appending, in the same thread. The
// array grows by 8 entries at a time, so an append costs a realloc only once
// in 8. A list has no lock: it never leaves its thread.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "arbor/timedq.h"
#include "init/assert.h"

namespace {

constexpr uint32_t kResponseGrowth = 8;

}  // namespace

extern "C" ARBOR_EXPORT int32_t append_response(ResponseList* respr,
                                                ResponseFn fn,
                                                const uintptr_t* payload) {
  ARBOR_ASSERT(respr, "respr");
  if (fn == nullptr) return 0;
  uint32_t index = respr->count;
  // The result is a signed index: a list stops growing before it could no
  // longer report one.
  if (index >= static_cast<uint32_t>(INT32_MAX)) return -1;
  if (index % kResponseGrowth == 0) {
    void* grown =
        std::realloc(respr->entries,
                     (size_t{index} + kResponseGrowth) * sizeof(ResponseEntry));
    if (grown == nullptr) return -1;
    respr->entries = static_cast<ResponseEntry*>(grown);
  }
  ResponseEntry& entry = respr->entries[index];
  entry.fn = fn;
  if (payload != nullptr)
    std::memcpy(entry.payload, payload, sizeof entry.payload);
  else
    std::memset(entry.payload, 0, sizeof entry.payload);
  respr->count = index + 1;
  return static_cast<int32_t>(index);
}

// count and entries are read anew at every step, so a deferred call may
// append to the list it runs from and its entry runs in the same pass. Each
// call gets a copy of its entry's words: an append inside the call may move
// the array, and the words it was handed must not move with it.
extern "C" ARBOR_EXPORT uint32_t respond(ResponseList* respr) {
  ARBOR_ASSERT(respr, "respr");
  if (respr->count == 0) return 0;
  uint32_t i = 0;
  for (; i < respr->count; ++i) {
    ResponseEntry entry = respr->entries[i];
    entry.fn(entry.payload);
  }
  std::free(respr->entries);
  respr->entries = nullptr;
  respr->count = 0;
  return i;
}
