/*
 * strutils/wire_text.h - the guards that every door for outside text needs.
 * Sizes arrive as 32-bit unsigned or size_t; the dictionary parser and
 * "%.*s" take signed ints, and a size past their range must neither wrap
 * negative nor reach them. And a value that a peer or the service sent,
 * decoded from its dictionary, may later be pasted raw into a new
 * dictionary text by one of the engine's literal formats: it must not be
 * able to add keys there.
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

// True when value can be pasted raw into dictionary text as one value:
// it holds no ';' or '=' (which would end it or start another key), no '\\'
// (the escape) and no control character. Identifiers that outside parties
// give us (a sid, a peer's display name) must pass this before anything
// keeps them. A null value passes: there is nothing to paste.
inline bool wire_value_plain(const char* value) {
  if (value == nullptr) return true;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(value);
       *p != '\0'; ++p) {
    if (*p == ';' || *p == '=' || *p == '\\' || *p < 0x20 || *p == 0x7f)
      return false;
  }
  return true;
}

// MainCmd of a resource event.
constexpr int32_t kWireMainCmdEvent = 17;

// True when an event text that came from outside (a LAN peer's text under
// AS code 555, an in-band text from a peer or the service) may be emitted.
// The event tree hands its body to this host's subscribers, and the
// service's, the drivers' and the host's own subscriptions are delivered
// through the local table, where cb_lan sorts it like any control text: a
// MainCmd word there is a session command that this host itself sent. Only
// a resource event (MainCmd 17), which that road forwards or ignores, may
// take it; a sender's text with another MainCmd is refused at the door.
inline bool wire_event_text(Dict dict) {
  return DictGetInt(dict, "MainCmd") == kWireMainCmdEvent;
}

#endif  // ARBOR_SRC_STRUTILS_WIRE_TEXT_H
