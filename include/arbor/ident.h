/*
 * arbor/ident.h - generators of names: random text, guest user names,
 * unique ids and session ids (sids).
 *
 * Audience: hosts (GenerateSID for the sid of ExecDial, GetUUID and
 * GetGuestUser for names of their own). randseq and ipv4 are engine internals,
 * marked where they are declared.
 *
 * Conventions:
 *  1. The caller owns every buffer and gives its room as each call states;
 *     each call writes into it and returns it. Nothing is allocated.
 *  2. None of these calls blocks or needs the service. They mix the clock
 *     (time(), one-second resolution), a per-process 16-bit counter that
 *     wraps at 65536 and characters from the process's rand(), which they
 *     reseed with srand() on every call: a host that relies on its own rand()
 *     sequence loses it here.
 *  3. Thread safety: any thread may call, but the generator behind rand()
 *     is shared, so two threads in here at once can draw the same random
 *     characters; the time and counter digits still tell such ids apart.
 *  4. Generated characters come from "0-9a-zA-Z_.", which means nothing in
 *     dictionary text.
 */
#ifndef ARBOR_IDENT_H
#define ARBOR_IDENT_H

#include <stdint.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/* The seed's address term: always 0. Cannot fail. */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT uint32_t ipv4(void);

/*
 * Reseeds rand() with seed and writes n characters into buffer, from the
 * end backwards, three from each rand() value (its low 18 bits). Writes no
 * terminator, and nothing when n is 0 or negative. The same seed and n give
 * the same text. Returns buffer.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT char* randseq(char* buffer, int32_t n, uint32_t seed);

/*
 * Writes a 31-character guest name and its terminator: 4 hexadecimal digits
 * of the time, 18 random characters, 4 hexadecimal digits of the guest
 * counter and "@gust". size is the room in buffer; below 32 nothing is
 * written, but the counter still moves on. Returns buffer.
 */
ARBOR_EXPORT char* GetGuestUser(char* buffer, int32_t size);

/*
 * Writes a 32-character id and its terminator into buffer, which must hold
 * 33 bytes: text (null: empty) cut to 24 characters and right-aligned in 24
 * columns, the columns left of it filled with random characters, then 4
 * hexadecimal digits of the time and 4 of the uuid counter. Returns buffer.
 */
ARBOR_EXPORT char* GetUUID(char* buffer, const char* text);

/*
 * Writes a 14-character session id and its terminator into buffer, which
 * must hold 64 bytes: 6 random characters, 4 hexadecimal digits of the time
 * and 4 of the sid counter. Returns buffer.
 */
ARBOR_EXPORT char* GenerateSID(char* buffer);

ARBOR_END_DECLS

#endif /* ARBOR_IDENT_H */
