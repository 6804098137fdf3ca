/*
 * arbor/pairlist.h - a key-value block: lines "key: value" in one heap block,
 * the shape of a mail or HTTP header.
 *
 * Audience: engine internals: exported because the engine's design exports
 * them; hosts and drivers do not call them.
 *
 * Each stored line ends in NUL and LF, so a value can be read in place as a
 * C string, and the whole block turns into plain text (lines ending in CR
 * and LF) in one pass. The block is laid out as a 32-bit unsigned length
 * (the bytes of all lines, their terminators included), the lines, and a
 * tail of NUL and LF. Its allocation is exactly length + 6 bytes, except for
 * a new block, which has 8: every change of size is one realloc.
 *
 * Conventions:
 *  1. A PairList is the pointer to the block. Every call takes the address
 *     of that pointer, because the block moves when it grows or shrinks.
 *  2. The block belongs to whoever made it with InitPairList. There is no
 *     destroy call: the owner frees it with free(*list).
 *  3. A pointer into the block (the results of GetString, the Set calls,
 *     RemoveKey and FinalString) is valid until the next call that changes
 *     the block. A key or value given to a Set call may itself point into
 *     the block: it is copied aside before the block moves.
 *  4. Strings given in are borrowed and copied; nothing keeps a pointer to
 *     them. List2String returns a malloc'd string that the caller frees.
 *  5. Keys are compared byte for byte, with case. A key is at least one byte
 *     and holds no ':', CR or LF; a value holds no CR, LF or NUL. The Set
 *     calls refuse other keys and values (null result, block unchanged).
 *  6. No call blocks or locks. A block belongs to one thread at a time;
 *     different blocks may be used from different threads at once.
 *  7. Calls other than InitPairList require a live block: list and *list
 *     not null (assertion "list && *list").
 */
#ifndef ARBOR_PAIRLIST_H
#define ARBOR_PAIRLIST_H

#include <stddef.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/* Handle of one key-value block; see above for its layout. */
typedef struct PairListBlock* PairList;

/*
 * Makes an empty block in *list (length 0, tail in place) and returns list.
 * Out of memory: returns null and *list is null too. A block that *list
 * held before is not freed. list must not be null (assertion "list").
 */
ARBOR_EXPORT PairList* InitPairList(PairList* list);

/* The length field: the bytes of all lines, without the tail. */
ARBOR_EXPORT unsigned GetStringLength(PairList* list);

/*
 * The value of key, a NUL-terminated string inside the block, or null when
 * the key is absent. key must not be null (assertion "key"). After
 * FinalString the value runs on to the end of the text.
 */
ARBOR_EXPORT const char* GetString(PairList* list, const char* key);

/*
 * The value of key read by strtol in base 10; 0 for an absent key (as for
 * a stored "0").
 */
ARBOR_EXPORT long GetInteger(PairList* list, const char* key);

/*
 * Sets key to the NUL-terminated val: a new key goes to the end, a present
 * key is replaced where it stands. Returns the stored value in the block,
 * or null (block unchanged) when the key or value is refused or memory runs
 * out. key and val must not be null (assertion "key && val").
 */
ARBOR_EXPORT char* SetString(PairList* list, const char* key, const char* val);

/*
 * SetString with a value of vallen bytes, which need not be NUL-terminated;
 * vallen 0 stores an empty value. The key must not be empty (assertion
 * "strlen(key) > 0").
 */
ARBOR_EXPORT char* SetStringL(PairList* list, const char* key, const char* val,
                              size_t vallen);

/* SetString of value written with "%ld". */
ARBOR_EXPORT char* SetInteger(PairList* list, const char* key, long value);

/*
 * Parses at most nlines lines (a negative nlines: no limit) of the len bytes
 * at beg, and sets each "key: value" line. A line ends at CR, LF or NUL; CR
 * LF and NUL LF count as one line end, LF LF as two. Blanks and tabs after
 * the colon are dropped, blanks at the end of the value stay. A line without
 * a colon, or beginning with one, is skipped and still counts. A line that
 * is empty or holds only white space ends the head.
 *
 * Returns a pointer into the input: to the blank line that ended the head,
 * or to the first line not read when nlines ran out; null when all the
 * input was used. A line whose Set fails for lack of memory is dropped. beg
 * and len must not be 0 (assertion "beg && len"); the input must not lie in
 * the block itself.
 */
ARBOR_EXPORT const char* SetBufferNL(PairList* list, const char* beg,
                                     size_t len, int nlines);

/* SetBufferNL with no limit on the lines. */
ARBOR_EXPORT const char* SetBuffer(PairList* list, const char* beg,
                                   size_t len);

/*
 * Takes the line of key out. Returns the position in the block of what
 * followed the line (the next line, or the tail), or null when the key is
 * absent (block unchanged). key must not be null (assertion "key").
 */
ARBOR_EXPORT char* RemoveKey(PairList* list, const char* key);

/*
 * Turns the block into plain text in place: every line then ends in CR and
 * LF, and a NUL follows the last. Returns the start of that text. The block
 * stays valid and its lines still parse, but GetString then gives a value
 * that runs on to the end of the text. Cannot fail.
 */
ARBOR_EXPORT char* FinalString(PairList* list);

/*
 * Copies the text, each line ending in CR and LF, into dst of size bytes:
 * at most size - 1 bytes and a NUL behind them. Returns the bytes copied.
 * With a null dst or size 0 it copies nothing and returns the length field:
 * the size to ask for, less the terminator. The block is not changed.
 */
ARBOR_EXPORT size_t List2Buffer(char* dst, size_t size, PairList* list);

/*
 * The text as List2Buffer gives it, in a new string that the caller frees.
 * Null when memory runs out.
 */
ARBOR_EXPORT char* List2String(PairList* list);

ARBOR_END_DECLS

#endif /* ARBOR_PAIRLIST_H */
