/*
 * support/dict_encode.cc - writing a dictionary back as text.
 *
 * Two encodings. The current one escapes ';', '=' and '\' with a '\', so any
 * key or value survives, nested dictionary texts included. The older one is
 * for LAN peers that predate escapes: the bare pairs, NUL-terminated, and it
 * refuses a dictionary that it could not write faithfully. Both write pairs
 * in the dictionary's order (first insertion) and both refuse, rather than
 * cut, a text that does not fit: a truncated message would parse as a
 * different, shorter one.
 *
 * Each entry carries the count of bytes to escape, so sizing is a sum over
 * entries; writing is one pass over the strings.
 */
#include <cstring>
#include <limits>

#include "dict_internal.h"

namespace {

constexpr int64_t kDictMaxText = std::numeric_limits<int32_t>::max();

// The length of the current encoding, without terminator. Cannot fail.
int64_t dict_current_size(const DictObject& dict) {
  int64_t n = 0;
  for (const DictEntry& e : dict.entries) {
    n += int64_t{e.key_len} + e.key_specials + e.value_len + e.value_specials +
         2;
  }
  return n;
}

// Writes len bytes of s at out, escaped unless the string has no specials.
// Returns the address after them.
char* dict_write_escaped(char* out, const char* s, size_t len,
                         uint32_t specials) {
  if (specials == 0) {
    std::memcpy(out, s, len);
    return out + len;
  }
  for (const char* end = s + len; s < end; ++s) {
    if (dict_is_special(*s)) *out++ = '\\';
    *out++ = *s;
  }
  return out;
}

// The first byte of a refused encoding: an empty string where there is room.
void dict_write_empty(char* buffer, int32_t size) {
  if (buffer != nullptr && size > 0) buffer[0] = '\0';
}

}  // namespace

extern "C" {

/*
 * 0 for a null or empty dictionary, -1 for one whose text would not fit in
 * an int32_t. Changes nothing.
 */
ARBOR_EXPORT int32_t DictEncodedSize(Dict dict) {
  if (dict == nullptr) return 0;
  const int64_t n = dict_current_size(*dict);
  return n > kDictMaxText ? -1 : static_cast<int32_t>(n);
}

/*
 * The length written, without terminator. 0 when nothing was written: an
 * empty or null dictionary, a null buffer, a negative size, or a text longer
 * than size; buffer[0] is then '\0' if size allows. Never writes past size.
 */
ARBOR_EXPORT int32_t DictEncode(char* buffer, int32_t size, Dict dict) {
  if (buffer == nullptr || size < 0) return 0;
  const int64_t total = dict ? dict_current_size(*dict) : 0;
  if (total == 0 || total > size) {
    dict_write_empty(buffer, size);
    return 0;
  }
  char* out = buffer;
  for (const DictEntry& e : dict->entries) {
    out = dict_write_escaped(out, e.key, e.key_len, e.key_specials);
    *out++ = '=';
    out = dict_write_escaped(out, e.value, e.value_len, e.value_specials);
    *out++ = ';';
  }
  if (total < size) *out = '\0';
  return static_cast<int32_t>(total);
}

/*
 * The length written, terminator included (1 for an empty dictionary). -1
 * when nothing was written: a null dictionary or buffer, a key or value that
 * holds ';', '=' or '\', or a text and terminator longer than size; buffer[0]
 * is then '\0' if size allows. Never writes past size.
 */
ARBOR_EXPORT int32_t DictEncodeOld(char* buffer, int32_t size, Dict dict) {
  if (buffer == nullptr || dict == nullptr) {
    dict_write_empty(buffer, size);
    return -1;
  }
  int64_t total = 1;
  bool plain = true;
  for (const DictEntry& e : dict->entries) {
    plain = plain && e.key_specials == 0 && e.value_specials == 0;
    total += int64_t{e.key_len} + e.value_len + 2;
  }
  if (!plain || total > size) {
    dict_write_empty(buffer, size);
    return -1;
  }
  char* out = buffer;
  for (const DictEntry& e : dict->entries) {
    std::memcpy(out, e.key, e.key_len);
    out += e.key_len;
    *out++ = '=';
    std::memcpy(out, e.value, e.value_len);
    out += e.value_len;
    *out++ = ';';
  }
  *out = '\0';
  return static_cast<int32_t>(total);
}

}  // extern "C"
