/*
 * arbor/support.h - the support library: text dictionary, log, read-write
 * lock and password digest.
 *
 * Audience: hosts, drivers and transports (dictionary text; logging,
 * LOG_SetLevel and LOG_SetSink for hosts), and whoever replaces libarbor-
 * support.so, which exports every name here.
 *
 * The engine imports these names from libarbor-support.so. A device maker may
 * link a support library of their own in its place; it must export these
 * names with these shapes, and the engine (and every transport) logs only
 * through LOG_Print, so such a library sees every line.
 *
 * Conventions:
 *  1. Sizes are signed 32-bit byte counts. Text passed with a size need not
 *     be NUL-terminated; a NUL inside the size ends the text early.
 *  2. A Dict belongs to the thread that created it and is destroyed by that
 *     thread with DictDestroy. Strings returned by DictGetStr belong to the
 *     dictionary: valid until DictDestroy or until the same key is set again.
 *  3. Every function here may be called from any thread at any time, also
 *     with locks held. None of them blocks, but for the QV*Lock functions.
 *  4. Nothing here reports errors through errno. Failures are the results
 *     documented per function; "cannot fail" means exactly that.
 *
 * Dictionary text. A dictionary is written as a run of pairs "key=value;",
 * the last one also ending in ';' - the outer syntax of every control
 * message. Keys are non-empty and compared byte for byte, with case.
 *
 *  - Escapes (current encoding, DictEncode): inside a key or a value the
 *    bytes ';', '=' and '\' are written as "\;", "\=" and "\\". The parser
 *    turns '\' followed by any byte into that byte. This is what lets a value
 *    hold a whole dictionary text, as the nested rows of a sign-in reply do,
 *    to any depth.
 *  - The parser is tolerant where no ambiguity arises: an unescaped '=' inside
 *    a value is taken literally (only ';' ends a value). It is strict where a
 *    message could be misread: a pair without '=', an empty key, a final pair
 *    without its ';', a lone '\' at the end, or bytes after the last ';' make
 *    DictCreate fail. A key given twice keeps the last value.
 *  - Older encoding (DictEncodeOld), spoken to peers that predate escapes:
 *    the same pairs with no escapes at all, and the terminating NUL counted
 *    in the returned length, since those peers read a frame as a C string.
 *    A dictionary whose keys or values hold ';', '=' or '\' cannot be written
 *    in it, and the encoder fails rather than send text that such a peer
 *    would misread. Whatever DictEncodeOld writes, DictCreate reads back to
 *    the same dictionary.
 */
#ifndef ARBOR_SUPPORT_H
#define ARBOR_SUPPORT_H

#include <stddef.h>
#include <stdint.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/* ---------------------------------------------------------------- Dict */

/* Opaque handle of one dictionary; null means none. */
typedef struct DictObject* Dict;

/*
 * Parses size bytes of dictionary text. (null, 0) and any text whose first
 * byte inside the size is NUL give an empty dictionary: that call cannot fail
 * short of memory. The text is not changed and not kept. Null when the text
 * is not dictionary text (see above), when size is negative, when text is
 * null with a positive size, or when memory runs out.
 */
ARBOR_EXPORT Dict DictCreate(const char* text, int32_t size);

/* Frees the dictionary and every string it handed out. Accepts null. */
ARBOR_EXPORT void DictDestroy(Dict dict);

/* The value of key, or null when the key is absent or dict is null. */
ARBOR_EXPORT const char* DictGetStr(Dict dict, const char* key);

/*
 * The value of key read as a decimal number. 0 for an absent key or a null
 * dict. Signed and unsigned 32-bit text both read back: a value from
 * INT32_MIN to UINT32_MAX is taken and wrapped to 32 bits (cast the result to
 * uint32_t for "%u" values). -1 for a value that is not wholly optional
 * blanks, an optional sign and decimal digits in that range, so a named value
 * is told from a positive number by a result below 1.
 */
ARBOR_EXPORT int32_t DictGetInt(Dict dict, const char* key);

/*
 * Adds key, or replaces its value. The value is copied at once. Returns 0, or
 * -1 (nothing changed) for a null dict, a null or empty key, a null value or
 * lack of memory. Callers in the engine ignore the result.
 */
ARBOR_EXPORT int32_t DictSetStr(Dict dict, const char* key, const char* value);

/* DictSetStr with value written in decimal. Same result. */
ARBOR_EXPORT int32_t DictSetInt(Dict dict, const char* key, int32_t value);

/*
 * Parses size bytes of dictionary text and adds its pairs; a key already
 * present takes the new value. The text is not kept. Returns the number of
 * pairs taken, or -1 when the text does not parse, in which case the
 * dictionary is unchanged.
 */
ARBOR_EXPORT int32_t DictUpdate(Dict dict, const char* text, int32_t size);

/*
 * The length of the current encoding of dict, without a terminator: the size
 * to give DictEncode for the whole text. 0 for an empty or null dictionary,
 * -1 for one whose text would not fit in an int32_t.
 */
ARBOR_EXPORT int32_t DictEncodedSize(Dict dict);

/*
 * Writes the current encoding of dict into buffer, never more than size
 * bytes, and returns its length without the terminator. A NUL follows the
 * text when there is room for it. When the whole text does not fit, nothing
 * but an empty string (if size > 0) is written and the result is 0, which
 * every sender refuses as "nothing to send": a cut-off message is never sent.
 * Note the order of the arguments: buffer first, dict last.
 */
ARBOR_EXPORT int32_t DictEncode(char* buffer, int32_t size, Dict dict);

/*
 * Writes dict in the older encoding (see above) and returns its length
 * including the terminating NUL. Returns -1, having written at most an empty
 * string, when the text and its terminator do not fit in size bytes, when a
 * key or value holds ';', '=' or '\', or when dict or buffer is null. An
 * empty dictionary gives 1: the terminator alone.
 */
ARBOR_EXPORT int32_t DictEncodeOld(char* buffer, int32_t size, Dict dict);

/* ----------------------------------------------------------------- Log */

/*
 * Writes one line: "<date time.usec> L<level> [<kernel tid>] <file>:<line>
 * <function>: <message>", the time in UTC, e.g. "2024-05-01 12:00:00.123456
 * L2 [4711] sys.cc:80 SysInit: ...". One call is one line: a message that
 * ends in a newline loses it, and a long message is not cut. Levels: 0
 * errors and refused input, 1 read threads, 2 steps of start, stop and
 * sign-in, 3 tracing. A line is written when level is at or below the
 * threshold, which starts as the value of the environment variable
 * ARBOR_LOG_LEVEL (default 0; read once, at the first call that needs it)
 * and can be changed with LOG_SetLevel. A filtered call costs one relaxed
 * atomic load. By default a line goes to standard error in one write(2), so
 * lines of several threads never interleave. Returns 1 when the line was
 * written, 0 when filtered.
 */
ARBOR_EXPORT int LOG_Print(int level, const char* file, const char* function,
                           int line, const char* format, ...)
    ARBOR_PRINTF(5, 6);

/*
 * Logs with the calling file, function and line filled in. The engine, the
 * transports and the sample drivers log only through this macro.
 */
#if defined(__FILE_NAME__)
#define ARBOR_LOG(level, ...) \
  LOG_Print((level), __FILE_NAME__, __func__, __LINE__, __VA_ARGS__)
#else
#define ARBOR_LOG(level, ...) \
  LOG_Print((level), __FILE__, __func__, __LINE__, __VA_ARGS__)
#endif

/* Sets the threshold; returns the previous one. Cannot fail. */
ARBOR_EXPORT int LOG_SetLevel(int level);

/* The current threshold. */
ARBOR_EXPORT int LOG_GetLevel(void);

/*
 * A host's log sink: receives each line that passes the threshold, without a
 * line end (but NUL-terminated), with its level. Calls are serialised by the
 * support library, so a sink needs no lock of its own; it must not call
 * LOG_Print or LOG_SetSink (should it do so, the line goes to standard error
 * and the new sink is ignored). The line is valid only during the call.
 */
typedef void (*LOG_Sink)(void* context, int level, const char* line,
                         size_t length);

/* Installs sink with its context; null restores standard error. */
ARBOR_EXPORT void LOG_SetSink(LOG_Sink sink, void* context);

/* ------------------------------------------------------ Read-write lock */

/*
 * Storage of a read-write lock, embedded in the record it guards and
 * initialised in place. Shared holders may nest (a thread that holds the lock
 * shared may take it shared again); exclusive holders may not.
 */
typedef union QVRWLock {
  unsigned char storage[64];
  long long align_;
} QVRWLock;

/*
 * Each returns 0. A caller's misuse that the system detects (a null lock, an
 * exclusive holder taking the lock again) is logged at level 0 and returned
 * as the nonzero POSIX error number, without the lock having changed.
 */
/* Prepares the storage. */
ARBOR_EXPORT int QVInitRWLock(QVRWLock* lock);
/* Releases the storage; the lock must not be held. */
ARBOR_EXPORT int QVUNInitRWLock(QVRWLock* lock);
/* Takes the lock shared; blocks while it is held exclusive. */
ARBOR_EXPORT int QVRLock(QVRWLock* lock);
/* Takes the lock exclusive; blocks while it is held. */
ARBOR_EXPORT int QVWLock(QVRWLock* lock);
/* Releases the lock, however it was taken. */
ARBOR_EXPORT int QVXUNLock(QVRWLock* lock);

/* -------------------------------------------------------------- Digest */

/* Room that MakeMD5Int64 needs in out, terminator included. */
#define ARBOR_MD5_TEXT_SIZE 33

/*
 * Writes the MD5 digest of the size bytes at text into out as 32 lower-case
 * hexadecimal digits and a NUL (the form the service compares), and returns
 * out. out must hold ARBOR_MD5_TEXT_SIZE bytes; callers give 72. A null text
 * or a size below 1 is the empty password. Cannot fail; only where the crypto
 * library refuses MD5 (a FIPS-only setup) is out an empty string, logged.
 */
ARBOR_EXPORT char* MakeMD5Int64(const char* text, int32_t size, char* out);

ARBOR_END_DECLS

#endif /* ARBOR_SUPPORT_H */
