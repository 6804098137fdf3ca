/*
 * strutils/wire_text.h - the two guards that every door for outside text
 * needs. Sizes arrive as 32-bit unsigned or size_t; the dictionary parser
 * and "%.*s" take signed ints, and a size past their range must neither
 * wrap negative nor reach them.
 */
#ifndef ARBOR_SRC_STRUTILS_WIRE_TEXT_H
#define ARBOR_SRC_STRUTILS_WIRE_TEXT_H

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "arbor/support.h"

// A byte count as the precision of "%.*s": beyond INT_MAX the text prints
// short rather than, as a negative precision, up to the next NUL.
inline int log_precision(size_t size) {
  return static_cast<int>(std::min<size_t>(size, INT_MAX));
}

// DictCreate over size bytes of text; null (as for text that does not
// parse) for a size beyond the parser's int32_t.
inline Dict dict_of(const char* text, size_t size) {
  if (size > static_cast<size_t>(INT32_MAX)) return nullptr;
  return DictCreate(text, static_cast<int32_t>(size));
}

// dict_of over a zero-terminated text.
inline Dict dict_of(const char* text) {
  return text != nullptr ? dict_of(text, std::strlen(text)) : nullptr;
}

#endif  // ARBOR_SRC_STRUTILS_WIRE_TEXT_H
