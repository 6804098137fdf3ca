/*
 * arbor/strutils.h - small text functions shared by every part of the engine:
 * copies of ranges and strings, splitting, joining, and walking a
 * comma-separated list.
 *
 * Audience: engine internals: exported because the engine's design exports
 * them; hosts and drivers do not call them.
 *
 * Conventions:
 *  1. Every string or buffer returned here comes from malloc and belongs to
 *     the caller, who frees it with free(). Arguments are borrowed: nothing
 *     here keeps a pointer to them after returning. Only string_split
 *     changes its input, and only inside the string it was given.
 *  2. A range is given as (beg, end): the bytes from beg up to, not
 *     including, end, both pointing into the same buffer. It need not be
 *     NUL-terminated.
 *  3. A character argument (ch) is compared as a byte: both 'c' and the
 *     same value as unsigned char are accepted.
 *  4. No call blocks, none keeps state, and all may be called from any
 *     thread at once on different data.
 *  5. A failed allocation gives a null result and is logged at level 0;
 *     nothing is left allocated behind it.
 *  6. Arrays of strings are taken as const char* const*. C++ converts a
 *     char** to that by itself; C code holding a char** casts it.
 */
#ifndef ARBOR_STRUTILS_H
#define ARBOR_STRUTILS_H

#include <stddef.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/*
 * A new string holding the bytes from beg up to end and a NUL. beg equal to
 * end gives "". Null when beg is above end or memory runs out.
 */
ARBOR_EXPORT char* string_make(const char* beg, const char* end);

/*
 * string_make of the bytes from beg up to the first byte ch, or of the whole
 * range when there is none. Null when beg is not below end or memory runs
 * out.
 */
ARBOR_EXPORT char* string_split_one(int ch, const char* beg, const char* end);

/*
 * Splits str in place: out[0] is str, each byte ch becomes a NUL and the
 * byte behind it starts the next piece. Returns the number of pieces, at
 * least 1; a text without ch is 1 piece, a trailing ch gives an empty last
 * piece. max is the number of entries of out (callers give 512 and 32), and
 * no more are written: once max - 1 bytes ch are cut, the last entry keeps
 * the rest of the text unsplit, its bytes ch in place. str and out must not
 * be null and max must be at least 1 (assertion "str && out && max > 0").
 */
ARBOR_EXPORT int string_split(char* str, char** out, int max, int ch);

/* A copy of str, or null for a null str or when memory runs out. */
ARBOR_EXPORT char* stringdup(const char* str);

/*
 * A copy of the size bytes at src. Null when size is 0, src is null, or
 * memory runs out; in the last case nothing is copied and a level-0 line
 * says how many bytes were asked for.
 */
ARBOR_EXPORT void* memorydup(const void* src, size_t size);

/*
 * Writes strs[0], then sep and strs[i] for each further entry, into dst of
 * size bytes, and returns dst. The text is cut at the end of dst and is
 * always NUL-terminated when size is at least 1; size 0 writes nothing.
 * n is at least 1 (n below 1 writes an empty string); sep is not read when
 * n is 1. Entries must not be null.
 */
ARBOR_EXPORT char* string_join(char* dst, size_t size, const char* sep,
                               const char* const* strs, int n);

/* The sum of strlen of the n strings; 0 for n below 1. Null entries count 0. */
ARBOR_EXPORT size_t string_length_sum(const char* const* strs, int n);

/*
 * Frees each non-null entry of the n pointers. The array itself stays, and
 * its entries are not cleared. A null ptrs or n below 1 does nothing.
 */
ARBOR_EXPORT void free_pointers(void** ptrs, int n);

/*
 * Receives one token of a list: length bytes at token, not NUL-terminated,
 * pointing into the caller's string. Called on the calling thread, during
 * the str_list_each call.
 */
typedef void (*str_list_cb)(void* ctx, const char* token, size_t length);

/* str_list_each_d with ',' as the delimiter. */
ARBOR_EXPORT int str_list_each(const char* str, str_list_cb cb, void* ctx);

/*
 * Splits str at each byte ch, trims white space (isspace) from both ends of
 * each token, and calls cb for each token that is not empty then. Returns
 * the number of calls. str is not changed. str and cb must not be null
 * (a null str fails the assertion "beg").
 */
ARBOR_EXPORT int str_list_each_d(int ch, const char* str, str_list_cb cb,
                                 void* ctx);

/* How often the byte ch occurs in str; 0 for a null str and for ch 0. */
ARBOR_EXPORT unsigned string_count_chr(const char* str, int ch);

ARBOR_END_DECLS

#endif /* ARBOR_STRUTILS_H */
