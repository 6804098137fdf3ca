/*
 * support/dict_internal.h - the dictionary object, shared by the parser and
 * the setters (dict.cc) and the encoders (dict_encode.cc).
 *
 * A dictionary is one heap block: this object followed by an inline buffer
 * that backs a monotonic arena. Every key, value and the entry array live in
 * the arena, so a dictionary parsed from a message costs one allocation and
 * strings handed out by DictGetStr never move. Memory is given back only by
 * DictDestroy: a replaced value or an outgrown entry array stays in the arena
 * until then. Dictionaries live for one message, so that is the right trade.
 */
#ifndef ARBOR_SUPPORT_DICT_INTERNAL_H
#define ARBOR_SUPPORT_DICT_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <vector>

#include "arbor/support.h"

/*
 * One pair. Both strings are NUL-terminated copies in the arena, stored
 * decoded (without escapes). The *_specials counts are the bytes that the
 * current encoding must escape, counted once when the string is stored, so
 * that DictEncodedSize is a sum over entries rather than a scan of the text.
 */
struct DictEntry {
  const char* key;
  const char* value;
  uint32_t key_len;
  uint32_t value_len;
  uint32_t key_specials;
  uint32_t value_specials;
};

struct DictObject {
  DictObject(void* buffer, size_t size)
      : arena(buffer, size, std::pmr::new_delete_resource()), entries(&arena) {}

  // Declared first so that it is destroyed last: entries lives in it.
  std::pmr::monotonic_buffer_resource arena;
  // In order of first insertion; replacing a value keeps the place. Lookup
  // is a linear scan: dictionaries hold a handful of keys.
  std::pmr::vector<DictEntry> entries;
};

/* The bytes that the current encoding writes with a backslash in front. */
inline bool dict_is_special(char c) {
  return c == ';' || c == '=' || c == '\\';
}

#endif /* ARBOR_SUPPORT_DICT_INTERNAL_H */
