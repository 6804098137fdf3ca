// strutils/pairlist.cc - the key-value block: "key: value" lines kept in one
// heap block that serves both as a table of C strings and as header text.
//
// Layout: a 32-bit length, `length` bytes of lines each ending in NUL LF, and
// a tail of NUL LF. The allocation is exactly length + 6 bytes (a new block:
// 8), so every change of size is one realloc and one memmove of everything
// behind the change. Known cost: lookups scan the lines from the start, O(n)
// in the size of the block; the blocks are header-sized, so no index is kept.
#include "arbor/pairlist.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "arbor/support.h"
#include "init/assert.h"

struct PairListBlock {
  uint32_t length;  // the lines follow at once, then the tail
};

namespace {

constexpr size_t kPairHead = sizeof(uint32_t);
constexpr size_t kPairTail = 2;           // NUL, LF
constexpr size_t kPairNewBlock = 8;       // a fresh block's allocation
constexpr size_t kPairMaxLength = UINT32_MAX - kPairHead - kPairTail;

PairListBlock* pair_block(PairList* list) {
  ARBOR_ASSERT(list && *list, "list && *list");
  return *list;
}

char* pair_text(PairListBlock* block) {
  return reinterpret_cast<char*>(block) + kPairHead;
}

bool pair_is_eol(char c) { return c == '\0' || c == '\r' || c == '\n'; }

// The first position from beg below end that holds NUL or a byte of set, or
// end if there is none; beg itself when beg is not below end. Cannot fail.
const char* span_until_any(const char* beg, const char* end, const char* set) {
  const char* p = beg;
  while (p < end && *p != '\0' && std::strchr(set, *p) == nullptr) ++p;
  return p;
}

// The length of the line at beg: up to CR, LF, NUL or end. Both must be set
// (assertion "beg && end"). Cannot fail.
size_t length_of_line(const char* beg, const char* end) {
  ARBOR_ASSERT(beg && end, "beg && end");
  return static_cast<size_t>(span_until_any(beg, end, "\r\n") - beg);
}

// The start of the first line among the size bytes at text that begins with
// key and ": ", or null when there is none. Cannot fail.
char* pair_find_line(char* text, size_t size, const char* key, size_t keylen) {
  if (size == 0) return nullptr;
  char* const end = text + size;
  char* line = text;
  for (;;) {
    char* eol = const_cast<char*>(span_until_any(line, end, "\r\n"));
    const size_t len = static_cast<size_t>(eol - line);
    if (len > keylen + 1 && std::memcmp(line, key, keylen) == 0 &&
        line[keylen] == ':' && line[keylen + 1] == ' ') {
      return line;
    }
    while (eol < end && pair_is_eol(*eol)) ++eol;
    if (eol >= end) return nullptr;
    line = eol;
  }
}

// Moves the bytes from `at` to the end of the tail by delta and changes the
// length by delta; returns at + delta in the block as it now stands.
//
// realloc failure: when growing, realloc comes first, so a failure leaves
// the block exactly as it was and the result is null (logged at level 0);
// the Set calls pass that null on. When shrinking, the bytes are already
// moved and the new length written when realloc is asked to give memory
// back; should that fail, the old, larger allocation is kept. The block is
// then valid and consistent, only no longer exact in size. Never fails on
// delta 0.
char* pair_resize(PairList* list, char* at, ptrdiff_t delta) {
  PairListBlock* block = *list;
  const size_t length = block->length;
  const size_t offset = static_cast<size_t>(at - pair_text(block));
  const size_t moved = length + kPairTail - offset;
  if (delta == 0) return at;
  if (delta > 0) {
    const size_t grow = static_cast<size_t>(delta);
    void* bigger = std::realloc(block, kPairHead + length + kPairTail + grow);
    if (bigger == nullptr) {
      ARBOR_LOG(0, "out of memory growing a pair list of %zu bytes by %zu",
                length, grow);
      return nullptr;
    }
    block = static_cast<PairListBlock*>(bigger);
    *list = block;
    char* from = pair_text(block) + offset;
    std::memmove(from + grow, from, moved);
    block->length = static_cast<uint32_t>(length + grow);
    return from + grow;
  }
  const size_t shrink = static_cast<size_t>(-delta);
  char* from = pair_text(block) + offset;
  std::memmove(from - shrink, from, moved);
  block->length = static_cast<uint32_t>(length - shrink);
  void* smaller =
      std::realloc(block, kPairHead + block->length + kPairTail);
  if (smaller != nullptr) {
    block = static_cast<PairListBlock*>(smaller);
    *list = block;
  }
  return pair_text(block) + offset - shrink;
}

// Stores key and value as a line: in place of the key's line if present,
// else at the end. Returns the value's position in the block, or null when
// keylen is 0, the block would outgrow its 32-bit length, or memory runs out;
// the block is unchanged then. key and val must not point into the block.
char* pair_set(PairList* list, const char* key, size_t keylen, const char* val,
               size_t vallen) {
  if (keylen == 0) return nullptr;
  PairListBlock* block = *list;
  char* const text = pair_text(block);
  const size_t length = block->length;
  if (keylen > kPairMaxLength || vallen > kPairMaxLength - keylen - 4 ||
      keylen + vallen + 4 > kPairMaxLength - length) {
    ARBOR_LOG(0, "pair list line of %zu bytes does not fit", keylen + vallen);
    return nullptr;
  }
  const size_t need = keylen + vallen + 4;
  char* line = pair_find_line(text, length, key, keylen);
  char* room_end;
  if (line != nullptr) {
    const size_t old = length_of_line(line, text + length) + 2;
    room_end = pair_resize(list, line + old,
                           static_cast<ptrdiff_t>(need) -
                               static_cast<ptrdiff_t>(old));
  } else {
    room_end = pair_resize(list, text + length, static_cast<ptrdiff_t>(need));
  }
  if (room_end == nullptr) return nullptr;
  char* p = room_end - need;
  std::memcpy(p, key, keylen);
  p[keylen] = ':';
  p[keylen + 1] = ' ';
  char* value = p + keylen + 2;
  if (vallen != 0) std::memcpy(value, val, vallen);
  value[vallen] = '\0';
  value[vallen + 1] = '\n';
  return value;
}

// Where the line after the one ending at eol begins: CR LF and NUL LF are
// one line end, LF LF two. Cannot fail.
const char* begin_next_line(const char* eol, const char* end) {
  const char* t = span_until_any(eol, end, "\r\n");
  if (t >= end) return t;
  const char* next = t + 1;
  if (next < end && *next == '\n' && *t != '\n') ++next;
  return next;
}

bool pair_line_is_blank(const char* beg, const char* end) {
  for (; beg < end; ++beg) {
    if (!std::isspace(static_cast<unsigned char>(*beg))) return false;
  }
  return true;
}

// Whether [p, p + n) lies inside the block's allocation. std::less gives a
// total order over unrelated pointers.
bool pair_overlaps(PairListBlock* block, const char* p, size_t n) {
  const char* lo = reinterpret_cast<const char*>(block);
  const char* hi = pair_text(block) + block->length + kPairTail;
  std::less<const char*> below;
  return n != 0 && below(p, hi) && below(lo, p + n);
}

}  // namespace

// Null (and *list null) when malloc fails; logged at level 0.
extern "C" PairList* InitPairList(PairList* list) {
  ARBOR_ASSERT(list, "list");
  auto* block = static_cast<PairListBlock*>(std::malloc(kPairNewBlock));
  *list = block;
  if (block == nullptr) {
    ARBOR_LOG(0, "out of memory for a new pair list");
    return nullptr;
  }
  block->length = 0;
  pair_text(block)[0] = '\0';
  pair_text(block)[1] = '\n';
  return list;
}

// Cannot fail.
extern "C" unsigned GetStringLength(PairList* list) {
  return pair_block(list)->length;
}

// Null for an absent key; the block is never changed.
extern "C" const char* GetString(PairList* list, const char* key) {
  PairListBlock* block = pair_block(list);
  ARBOR_ASSERT(key, "key");
  char* const text = pair_text(block);
  const char* line = pair_find_line(text, block->length, key, std::strlen(key));
  if (line == nullptr) return nullptr;
  // pair_find_line saw ": " inside this line, so a colon is there.
  const size_t rest = static_cast<size_t>(text + block->length - line);
  return static_cast<const char*>(std::memchr(line, ':', rest)) + 2;
}

// 0 for an absent key, as for a stored "0".
extern "C" long GetInteger(PairList* list, const char* key) {
  const char* value = GetString(list, key);
  return value ? std::strtol(value, nullptr, 10) : 0;
}

extern "C" char* SetString(PairList* list, const char* key, const char* val) {
  ARBOR_ASSERT(key && val, "key && val");
  return SetStringL(list, key, val, std::strlen(val));
}

// Null, block unchanged, for a refused key or value or lack of memory. Keys
// with ':', CR or LF and values with CR, LF or NUL are refused with a level-0
// line: stored, they would split or shift lines, and the line arithmetic of
// later calls would cut the wrong bytes. A key or value that points into the
// block is copied aside first, since the resize may move or overwrite it.
extern "C" char* SetStringL(PairList* list, const char* key, const char* val,
                            size_t vallen) {
  PairListBlock* block = pair_block(list);
  ARBOR_ASSERT(key && val, "key && val");
  const size_t keylen = std::strlen(key);
  ARBOR_ASSERT(keylen > 0, "strlen(key) > 0");
  if (std::strpbrk(key, ":\r\n") != nullptr) {
    ARBOR_LOG(0, "pair list key refused: \"%s\" holds ':', CR or LF", key);
    return nullptr;
  }
  for (size_t i = 0; i < vallen; ++i) {
    if (pair_is_eol(val[i])) {
      ARBOR_LOG(0, "pair list value of \"%s\" refused: holds CR, LF or NUL",
                key);
      return nullptr;
    }
  }
  if (!pair_overlaps(block, key, keylen) && !pair_overlaps(block, val, vallen))
    return pair_set(list, key, keylen, val, vallen);
  char* aside = static_cast<char*>(std::malloc(keylen + vallen + 1));
  if (aside == nullptr) {
    ARBOR_LOG(0, "out of memory copying a pair list line aside");
    return nullptr;
  }
  std::memcpy(aside, key, keylen);
  std::memcpy(aside + keylen, val, vallen);
  char* value = pair_set(list, aside, keylen, aside + keylen, vallen);
  std::free(aside);
  return value;
}

extern "C" char* SetInteger(PairList* list, const char* key, long value) {
  char text[24];
  std::snprintf(text, sizeof text, "%ld", value);
  return SetString(list, key, text);
}

// Lines are taken as they come; a line whose Set fails is dropped and the
// parse goes on, so the result never tells of a failed Set.
extern "C" const char* SetBufferNL(PairList* list, const char* beg, size_t len,
                                   int nlines) {
  pair_block(list);
  ARBOR_ASSERT(beg && len, "beg && len");
  const char* const end = beg + len;
  const char* cur = beg;
  while (nlines != 0) {
    if (cur >= end) return nullptr;
    const char* eol = cur + length_of_line(cur, end);
    if (pair_line_is_blank(cur, eol)) return cur;
    const void* colon =
        std::memchr(cur, ':', static_cast<size_t>(eol - cur));
    if (colon != nullptr && colon != cur) {
      const char* key_end = static_cast<const char*>(colon);
      const char* value = key_end + 1;
      while (value < eol && (*value == ' ' || *value == '\t')) ++value;
      pair_set(list, cur, static_cast<size_t>(key_end - cur), value,
               static_cast<size_t>(eol - value));
    }
    cur = begin_next_line(eol, end);
    if (nlines > 0) --nlines;
  }
  return cur < end ? cur : nullptr;
}

extern "C" const char* SetBuffer(PairList* list, const char* beg, size_t len) {
  return SetBufferNL(list, beg, len, -1);
}

// Null, block unchanged, for an absent key. Shrinking cannot fail.
extern "C" char* RemoveKey(PairList* list, const char* key) {
  PairListBlock* block = pair_block(list);
  ARBOR_ASSERT(key, "key");
  char* const text = pair_text(block);
  char* line = pair_find_line(text, block->length, key, std::strlen(key));
  if (line == nullptr) return nullptr;
  const size_t len = length_of_line(line, text + block->length);
  return pair_resize(list, line + len + 2,
                     -2 - static_cast<ptrdiff_t>(len));
}

// Cannot fail.
extern "C" char* FinalString(PairList* list) {
  PairListBlock* block = pair_block(list);
  char* const text = pair_text(block);
  for (uint32_t i = 0; i < block->length; ++i) {
    if (text[i] == '\0') text[i] = '\r';
  }
  text[block->length] = '\0';
  return text;
}

// Cannot fail; the block is only read.
extern "C" size_t List2Buffer(char* dst, size_t size, PairList* list) {
  PairListBlock* block = pair_block(list);
  if (dst == nullptr || size == 0) return block->length;
  const char* const text = pair_text(block);
  const size_t n = block->length < size - 1 ? block->length : size - 1;
  for (size_t i = 0; i < n; ++i) dst[i] = text[i] == '\0' ? '\r' : text[i];
  dst[n] = '\0';
  return n;
}

// Null when malloc fails (logged at level 0).
extern "C" char* List2String(PairList* list) {
  const size_t length = List2Buffer(nullptr, 0, list);
  char* out = static_cast<char*>(std::malloc(length + 1));
  if (out == nullptr) {
    ARBOR_LOG(0, "out of memory for pair list text of %zu bytes", length);
    return nullptr;
  }
  List2Buffer(out, length + 1, list);
  return out;
}
