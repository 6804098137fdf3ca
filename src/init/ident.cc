// init/ident.cc - the generators of names: random text, guest user names,
// unique ids and session ids.
//
// Each name mixes the clock, a per-process counter and characters drawn from
// rand(), so that two names made in the same second differ and no service is
// needed. The counters are 16-bit and wrap at 65536. They are atomics only so
// that concurrent callers are well defined; each call takes its counter value
// once, at the start. The generator behind rand() is the process's and is
// reseeded on every call, without a lock: concurrent callers may draw the
// same random characters, and the time and counter digits tell them apart.
#include "init/ident.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "init/assert.h"

namespace {

// 64 characters, indexed by 6 bits; none means anything in dictionary text.
constexpr char kIdentAlphabet[] =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_.";
static_assert(sizeof kIdentAlphabet == 64 + 1, "alphabet of 64 characters");

std::atomic<uint16_t> guest_counter_{0x0F0F};
std::atomic<uint16_t> uuid_counter_{0x0FF0};
std::atomic<uint16_t> sid_counter_{0x7FFF};

const char* const my_id_ = "";

// Takes the counter's value for this call and moves it on, wrapping.
uint16_t ident_take(std::atomic<uint16_t>& counter) {
  return counter.fetch_add(1, std::memory_order_relaxed);
}

unsigned ident_low16(time_t now) {
  return static_cast<unsigned>(now) & 0xFFFFu;
}

}  // namespace

extern "C" ARBOR_EXPORT uint32_t ipv4(void) { return 0; }

extern "C" ARBOR_EXPORT char* randseq(char* buffer, int32_t n, uint32_t seed) {
  std::srand(seed);
  int32_t left = n;
  while (left > 0) {
    unsigned value = static_cast<unsigned>(std::rand());
    for (int k = 0; k < 3 && left > 0; ++k) {
      buffer[--left] = kIdentAlphabet[value & 63u];
      value >>= 6;
    }
  }
  return buffer;
}

extern "C" ARBOR_EXPORT char* GetGuestUser(char* buffer, int32_t size) {
  uint16_t counter = ident_take(guest_counter_);
  if (size < 32) return buffer;
  time_t now = std::time(nullptr);
  std::snprintf(buffer, 5, "%04x", ident_low16(now));
  randseq(
      buffer + 4, 18,
      static_cast<uint32_t>((static_cast<uint32_t>(now) ^ ipv4()) + counter));
  std::snprintf(buffer + 22, 10, "%04x@gust", static_cast<unsigned>(counter));
  return buffer;
}

extern "C" ARBOR_EXPORT char* GetUUID(char* buffer, const char* text) {
  uint16_t counter = ident_take(uuid_counter_);
  time_t now = std::time(nullptr);
  if (text == nullptr) text = "";
  int n = std::snprintf(buffer, 33, "%24.24s%04x%04x", text, ident_low16(now),
                        static_cast<unsigned>(counter));
  ARBOR_ASSERT(n <= 32, "n <= 32");
  size_t length = strnlen(text, 24);
  if (length < 24) {
    randseq(
        buffer, static_cast<int32_t>(24 - length),
        static_cast<uint32_t>((ipv4() ^ static_cast<uint32_t>(now)) + counter));
  }
  return buffer;
}

// Note the OR in the seed, where the other generators mix with XOR and
// addition: sids of one second differ in their counter digits, not
// necessarily in their random characters.
char* generate_sid(char* buffer, const char* prefix) {
  ARBOR_ASSERT(prefix && std::strlen(prefix) < 50, "pfx && strlen(pfx) < 50");
  uint16_t counter = ident_take(sid_counter_);
  time_t now = std::time(nullptr);
  int n = std::snprintf(buffer, 64, "%6s%04x%04x", prefix, ident_low16(now),
                        static_cast<unsigned>(counter));
  ARBOR_ASSERT(n < 64, "n < 64");
  randseq(buffer, 6, ipv4() | counter | static_cast<uint32_t>(now));
  return buffer;
}

const char* my_id(void) {
  ARBOR_ASSERT(my_id_, "myid");
  return my_id_;
}

extern "C" ARBOR_EXPORT char* GenerateSID(char* buffer) {
  return generate_sid(buffer, my_id());
}
