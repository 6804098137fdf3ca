// strutils/strutils.cc - the engine's small text functions: copies of ranges
// and strings, in-place splitting, joining, and walking a delimited list.
//
// Everything here is stateless and thread-safe. Memory handed out comes from
// malloc, because the callers are C code (and C callers of ours) that free it
// with free(); nothing here allocates with new.
#include "arbor/strutils.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arbor/support.h"
#include "init/assert.h"

namespace {

// The byte value of a character argument, so that both a plain (possibly
// signed) char and an unsigned char value name the same byte.
unsigned char str_byte(int ch) { return static_cast<unsigned char>(ch); }

bool str_is_space(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// The distance from beg to the first byte ch below end, or -1 when there is
// none. Both ends must be set (assertions "beg", "end"). Cannot fail.
ptrdiff_t length_of_d(const char* beg, const char* end, int ch) {
  ARBOR_ASSERT(beg, "beg");
  ARBOR_ASSERT(end, "end");
  if (beg >= end) return -1;
  const void* hit =
      std::memchr(beg, str_byte(ch), static_cast<size_t>(end - beg));
  if (hit == nullptr) return -1;
  return static_cast<const char*>(hit) - beg;
}

// Trims white space off both ends of [beg, end) and hands a non-empty rest to
// cb. Returns 1 when cb was called, else 0.
int str_emit_trimmed(const char* beg, const char* end, str_list_cb cb,
                     void* ctx) {
  while (beg < end && str_is_space(*beg)) ++beg;
  while (end > beg && str_is_space(end[-1])) --end;
  if (beg == end) return 0;
  cb(ctx, beg, static_cast<size_t>(end - beg));
  return 1;
}

}  // namespace

// Null for a reversed range or lack of memory; nothing is allocated then.
extern "C" char* string_make(const char* beg, const char* end) {
  if (beg > end) return nullptr;
  const size_t len = static_cast<size_t>(end - beg);
  char* out = static_cast<char*>(std::malloc(len + 1));
  if (out == nullptr) {
    ARBOR_LOG(0, "out of memory for a string of %zu bytes", len);
    return nullptr;
  }
  if (len != 0) std::memcpy(out, beg, len);
  out[len] = '\0';
  return out;
}

// Null for an empty or reversed range or lack of memory.
extern "C" char* string_split_one(int ch, const char* beg, const char* end) {
  if (beg >= end) return nullptr;
  const void* hit =
      std::memchr(beg, str_byte(ch), static_cast<size_t>(end - beg));
  return string_make(beg, hit ? static_cast<const char*>(hit) : end);
}

// Which pieces survive past max: the first max - 1 are cut as usual and the
// last entry keeps the rest unsplit, delimiters and all. So no text is lost
// and out[max - 1] is still a valid string; a caller that cares can see the
// overflow as a result equal to max holding ch. Cannot fail.
extern "C" int string_split(char* str, char** out, int max, int ch) {
  ARBOR_ASSERT(str && out && max > 0, "str && out && max > 0");
  const char delim = static_cast<char>(str_byte(ch));
  int count = 1;
  out[0] = str;
  if (delim == '\0') return count;  // the terminator is no delimiter
  for (char* p = str; *p != '\0' && count < max; ++p) {
    if (*p != delim) continue;
    *p = '\0';
    out[count++] = p + 1;
  }
  return count;
}

// Null for a null str or lack of memory.
extern "C" char* stringdup(const char* str) {
  if (str == nullptr) return nullptr;
  return static_cast<char*>(memorydup(str, std::strlen(str) + 1));
}

// When malloc fails nothing is copied: the failure is logged at level 0 and
// the result is null. Callers in the engine treat null like a dropped item
// (the one allocation fails, the process goes on); aborting here would let a
// short spell of memory pressure, which a peer can provoke, stop the device.
extern "C" void* memorydup(const void* src, size_t size) {
  if (size == 0 || src == nullptr) return nullptr;
  void* out = std::malloc(size);
  if (out == nullptr) {
    ARBOR_LOG(0, "out of memory for a copy of %zu bytes", size);
    return nullptr;
  }
  std::memcpy(out, src, size);
  return out;
}

// Cannot fail; the text is cut where dst ends.
extern "C" char* string_join(char* dst, size_t size, const char* sep,
                             const char* const* strs, int n) {
  if (size == 0) return dst;
  if (n < 1) {
    dst[0] = '\0';
    return dst;
  }
  int wrote = std::snprintf(dst, size, "%s", strs[0]);
  size_t used = wrote < 0 ? 0 : static_cast<size_t>(wrote);
  for (int i = 1; i < n && used < size; ++i) {
    wrote = std::snprintf(dst + used, size - used, "%s%s", sep, strs[i]);
    if (wrote < 0) break;
    used += static_cast<size_t>(wrote);
  }
  return dst;
}

// Cannot fail. Known cost: one strlen per entry.
extern "C" size_t string_length_sum(const char* const* strs, int n) {
  size_t sum = 0;
  for (int i = 0; i < n; ++i) {
    if (strs[i] != nullptr) sum += std::strlen(strs[i]);
  }
  return sum;
}

// Cannot fail; the entries keep their (now dangling) values.
extern "C" void free_pointers(void** ptrs, int n) {
  if (ptrs == nullptr) return;
  for (int i = 0; i < n; ++i) std::free(ptrs[i]);
}

extern "C" int str_list_each(const char* str, str_list_cb cb, void* ctx) {
  return str_list_each_d(',', str, cb, ctx);
}

// Returns the number of tokens handed to cb; str is never written. A null
// str fails the assertion "beg" in length_of_d.
extern "C" int str_list_each_d(int ch, const char* str, str_list_cb cb,
                               void* ctx) {
  const char* beg = str;
  const char* end = str ? str + std::strlen(str) : nullptr;
  int calls = 0;
  for (;;) {
    const ptrdiff_t len = length_of_d(beg, end, ch);
    if (len < 0) break;
    calls += str_emit_trimmed(beg, beg + len, cb, ctx);
    beg += len + 1;
  }
  if (beg < end) calls += str_emit_trimmed(beg, end, cb, ctx);
  return calls;
}

// Cannot fail. The terminator is not counted, so ch 0 gives 0.
extern "C" unsigned string_count_chr(const char* str, int ch) {
  if (str == nullptr) return 0;
  const char c = static_cast<char>(str_byte(ch));
  unsigned count = 0;
  for (; *str != '\0'; ++str) {
    if (*str == c) ++count;
  }
  return count;
}
