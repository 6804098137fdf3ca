/*
 * support/dict.cc - the text dictionary: parsing, lookup and change.
 *
 * Every control message is parsed into a dictionary and most replies are
 * built in one, from many threads at once, so the code keeps no shared state
 * and few allocations. Parsing runs in two passes over the text: the first
 * checks the syntax and measures the pairs without touching memory, the
 * second decodes into a dictionary whose arena was sized by the first. A text
 * that fails the first pass therefore changes nothing, and a typical
 * DictCreate is a single malloc. The object layout is in dict_internal.h, the
 * encoders in dict_encode.cc.
 *
 * Exceptions stop here: the arena and the entry vector report lack of memory
 * with std::bad_alloc, which each exported function turns into its failure
 * result.
 */
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <system_error>

#include "dict_internal.h"

namespace {

// Room that a new dictionary keeps for keys set after it was made: enough
// for a few short pairs without going back to malloc.
constexpr size_t kDictSpareEntries = 8;
constexpr size_t kDictSpareText = 128;

// The longest key or value taken: its length must fit the entry's counters,
// and its escaped form an int32_t.
constexpr size_t kDictMaxString = std::numeric_limits<int32_t>::max() / 2;

struct DictDeleter {
  void operator()(DictObject* dict) const {
    dict->~DictObject();
    std::free(dict);
  }
};
using DictPtr = std::unique_ptr<DictObject, DictDeleter>;

// One pair as it stands in the text: raw (escaped) spans and decoded lengths.
struct DictRawPair {
  const char* key;
  size_t key_raw;
  size_t key_len;
  const char* value;
  size_t value_raw;
  size_t value_len;
};

// What the first pass measured: the number of pairs and the arena bytes
// their decoded strings take, terminators included.
struct DictTextStats {
  size_t pairs = 0;
  size_t bytes = 0;
};

// The end of the text: size bytes, or fewer when a NUL comes first.
const char* dict_text_end(const char* text, int32_t size) {
  if (size == 0) return text;
  const void* nul = std::memchr(text, '\0', static_cast<size_t>(size));
  return nul ? static_cast<const char*>(nul) : text + size;
}

// Scans one field from p up to an unescaped `stop` byte and returns the
// address of that byte, with the decoded length in *decoded. A key (stop is
// '=') must not meet an unescaped ';'. Null when the field is broken: the
// text ends inside it, or a '\' has nothing after it.
const char* dict_scan_field(const char* p, const char* end, char stop,
                            size_t* decoded) {
  size_t n = 0;
  while (p < end) {
    const char c = *p;
    if (c == '\\') {
      if (end - p < 2) return nullptr;
      p += 2;
    } else if (c == stop) {
      *decoded = n;
      return p;
    } else if (c == ';') {
      return nullptr;  // a pair without '='
    } else {
      ++p;
    }
    ++n;
  }
  return nullptr;
}

// Scans the pair that starts at p. Returns the address after its ';', or
// null when the text is not a well-formed pair (out is then undefined).
const char* dict_scan_pair(const char* p, const char* end, DictRawPair* out) {
  const char* eq = dict_scan_field(p, end, '=', &out->key_len);
  if (eq == nullptr || out->key_len == 0) return nullptr;
  out->key = p;
  out->key_raw = static_cast<size_t>(eq - p);
  const char* value = eq + 1;
  const char* semi = dict_scan_field(value, end, ';', &out->value_len);
  if (semi == nullptr) return nullptr;
  out->value = value;
  out->value_raw = static_cast<size_t>(semi - value);
  return semi + 1;
}

// The first pass. False when [p, end) is not dictionary text.
bool dict_check_text(const char* p, const char* end, DictTextStats* stats) {
  while (p < end) {
    DictRawPair pair;
    p = dict_scan_pair(p, end, &pair);
    if (p == nullptr) return false;
    ++stats->pairs;
    stats->bytes += pair.key_len + pair.value_len + 2;
  }
  return true;
}

// Copies len decoded bytes from raw (which holds raw_len escaped bytes) into
// a NUL-terminated arena string, counting in *specials the bytes that must
// be escaped again. Throws std::bad_alloc; then nothing is stored.
const char* dict_store(std::pmr::memory_resource& arena, const char* raw,
                       size_t raw_len, size_t len, uint32_t* specials) {
  char* out = static_cast<char*>(arena.allocate(len + 1, 1));
  const char* end = raw + raw_len;
  uint32_t count = 0;
  char* w = out;
  for (const char* p = raw; p < end; ++p) {
    if (*p == '\\') ++p;  // the first pass saw a byte after each '\'
    count += dict_is_special(*p) ? 1 : 0;
    *w++ = *p;
  }
  *w = '\0';
  *specials = count;
  return out;
}

// Copies len bytes of s verbatim into a NUL-terminated arena string, with
// dict_store's count. Throws std::bad_alloc; then nothing is stored.
const char* dict_copy(std::pmr::memory_resource& arena, const char* s,
                      size_t len, uint32_t* specials) {
  char* out = static_cast<char*>(arena.allocate(len + 1, 1));
  std::memcpy(out, s, len);
  out[len] = '\0';
  *specials = static_cast<uint32_t>(std::count_if(s, s + len, dict_is_special));
  return out;
}

DictEntry dict_decode_pair(std::pmr::memory_resource& arena,
                           const DictRawPair& raw) {
  DictEntry e{};
  e.key = dict_store(arena, raw.key, raw.key_raw, raw.key_len, &e.key_specials);
  e.value = dict_store(arena, raw.value, raw.value_raw, raw.value_len,
                       &e.value_specials);
  e.key_len = static_cast<uint32_t>(raw.key_len);
  e.value_len = static_cast<uint32_t>(raw.value_len);
  return e;
}

// Linear: O(entries) per lookup, which for message-sized dictionaries beats
// any index that would need building first.
DictEntry* dict_find(DictObject& dict, const char* key, size_t len) {
  for (DictEntry& e : dict.entries) {
    if (e.key_len == len && std::memcmp(e.key, key, len) == 0) return &e;
  }
  return nullptr;
}

// Makes room for `more` entries, doubling so that repeated growth wastes at
// most the current array in the arena. Throws std::bad_alloc, changing
// nothing.
void dict_reserve(DictObject& dict, size_t more) {
  const size_t need = dict.entries.size() + more;
  if (need > dict.entries.capacity()) {
    dict.entries.reserve(std::max(need, 2 * dict.entries.capacity()));
  }
}

// Adds e or replaces the value of its key. Cannot throw once dict_reserve
// made room for one more entry.
void dict_put(DictObject& dict, const DictEntry& e) {
  if (DictEntry* old = dict_find(dict, e.key, e.key_len)) {
    old->value = e.value;
    old->value_len = e.value_len;
    old->value_specials = e.value_specials;
  } else {
    dict.entries.push_back(e);
  }
}

// A dictionary whose arena holds `entries` entries and `text` string bytes,
// plus the spare room. Null when malloc fails.
DictPtr dict_new(size_t entries, size_t text) {
  entries += kDictSpareEntries;
  const size_t arena =
      entries * sizeof(DictEntry) + alignof(DictEntry) + text + kDictSpareText;
  void* block = std::malloc(sizeof(DictObject) + arena);
  if (block == nullptr) return nullptr;
  auto* buffer = static_cast<std::byte*>(block) + sizeof(DictObject);
  DictPtr dict(new (block) DictObject(buffer, arena));
  dict->entries.reserve(entries);  // served by the inline buffer
  return dict;
}

// Decodes every pair of checked text into dict, in order, so that a key
// given twice keeps its last value.
void dict_fill(DictObject& dict, const char* p, const char* end) {
  while (p < end) {
    DictRawPair raw;
    p = dict_scan_pair(p, end, &raw);
    dict_put(dict, dict_decode_pair(dict.arena, raw));
  }
}

// Reads a whole value as an int32_t: an optional sign and digits.
// Numbers travel as signed ("%d") and unsigned ("%u") decimal text: peer
// ids and flag words use all 32 bits. A value in [INT32_MIN, UINT32_MAX]
// is read and wrapped to 32 bits, so "4294967295" reads back as the same
// bits that were written. Leading blanks are skipped, as strtol would.
int32_t dict_parse_int(const char* s) {
  while (*s == ' ' || *s == '\t') ++s;
  const char* end = s + std::strlen(s);
  if (*s == '+' && s[1] != '-') ++s;  // from_chars takes '-' but not '+'
  int64_t v = 0;
  auto [ptr, ec] = std::from_chars(s, end, v);
  if (ec != std::errc() || ptr != end || ptr == s) return -1;
  if (v < INT32_MIN || v > int64_t{UINT32_MAX}) return -1;
  return static_cast<int32_t>(static_cast<uint32_t>(v));
}

}  // namespace

extern "C" {

/* Null for broken text, bad arguments or lack of memory; see support.h. */
ARBOR_EXPORT Dict DictCreate(const char* text, int32_t size) {
  if (size < 0 || (text == nullptr && size > 0)) return nullptr;
  const char* end = dict_text_end(text, size);
  DictTextStats stats;
  if (!dict_check_text(text, end, &stats)) return nullptr;
  try {
    DictPtr dict = dict_new(stats.pairs, stats.bytes);
    if (dict) dict_fill(*dict, text, end);
    return dict.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

/* Cannot fail. */
ARBOR_EXPORT void DictDestroy(Dict dict) {
  if (dict != nullptr) DictDeleter()(dict);
}

/* Null for an absent key, a null key or a null dict. Changes nothing. */
ARBOR_EXPORT const char* DictGetStr(Dict dict, const char* key) {
  if (dict == nullptr || key == nullptr) return nullptr;
  const DictEntry* e = dict_find(*dict, key, std::strlen(key));
  return e ? e->value : nullptr;
}

/* 0 when absent, -1 when not a 32-bit decimal number. Changes nothing. */
ARBOR_EXPORT int32_t DictGetInt(Dict dict, const char* key) {
  const char* value = DictGetStr(dict, key);
  return value ? dict_parse_int(value) : 0;
}

/*
 * -1, with nothing changed, for bad arguments or lack of memory. The old
 * value of a replaced key stays in the arena until DictDestroy, so a string
 * that DictGetStr returned earlier stays readable (and unchanged) until then,
 * and value may point into the dictionary itself.
 */
ARBOR_EXPORT int32_t DictSetStr(Dict dict, const char* key, const char* value) {
  if (dict == nullptr || key == nullptr || value == nullptr) return -1;
  const size_t key_len = std::strlen(key);
  const size_t value_len = std::strlen(value);
  if (key_len == 0 || key_len > kDictMaxString || value_len > kDictMaxString)
    return -1;
  try {
    DictEntry e{};
    if (const DictEntry* old = dict_find(*dict, key, key_len)) {
      e.key = old->key;  // dict_put matches it and keeps the stored key
    } else {
      dict_reserve(*dict, 1);
      e.key = dict_copy(dict->arena, key, key_len, &e.key_specials);
    }
    e.key_len = static_cast<uint32_t>(key_len);
    e.value = dict_copy(dict->arena, value, value_len, &e.value_specials);
    e.value_len = static_cast<uint32_t>(value_len);
    dict_put(*dict, e);
    return 0;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

/* DictSetStr's contract. */
ARBOR_EXPORT int32_t DictSetInt(Dict dict, const char* key, int32_t value) {
  char text[16];
  auto [end, ec] = std::to_chars(text, text + sizeof(text) - 1, value);
  (void)ec;  // 16 bytes hold any int32_t
  *end = '\0';
  return DictSetStr(dict, key, text);
}

/*
 * The number of pairs taken, or -1 with the dictionary unchanged for broken
 * text, bad arguments or lack of memory. The decoded pairs are staged in the
 * arena before any entry changes, so a failure half-way leaves no trace but
 * arena bytes (a known cost, paid only by the rare update).
 */
ARBOR_EXPORT int32_t DictUpdate(Dict dict, const char* text, int32_t size) {
  if (dict == nullptr || size < 0 || (text == nullptr && size > 0)) return -1;
  const char* end = dict_text_end(text, size);
  DictTextStats stats;
  if (!dict_check_text(text, end, &stats)) return -1;
  try {
    dict_reserve(*dict, stats.pairs);
    std::pmr::vector<DictEntry> staged(&dict->arena);
    staged.reserve(stats.pairs);
    for (const char* p = text; p < end;) {
      DictRawPair raw;
      p = dict_scan_pair(p, end, &raw);
      staged.push_back(dict_decode_pair(dict->arena, raw));
    }
    for (const DictEntry& e : staged) dict_put(*dict, e);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  return static_cast<int32_t>(stats.pairs);
}

}  // extern "C"
