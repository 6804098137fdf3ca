// init/ident.h - the internal part of the identifier generators: sids with a
// prefix, and the prefix this peer gives its own sids.
#ifndef ARBOR_SRC_INIT_IDENT_H
#define ARBOR_SRC_INIT_IDENT_H

#include "arbor/ident.h"

// Writes prefix right-aligned in 6 columns, 4 hexadecimal digits of the time
// and 4 of the sid counter, then overwrites the first 6 characters with
// random ones; a prefix longer than 6 characters thus keeps only its tail.
// buffer must hold 64 bytes. prefix must not be null and must be shorter
// than 50 characters (assertion "pfx && strlen(pfx) < 50"). Returns buffer.
char* generate_sid(char* buffer, const char* prefix);

// The prefix of this peer's sids: the empty string, never null (assertion
// "myid"). Nothing changes it.
const char* my_id(void);

#endif  // ARBOR_SRC_INIT_IDENT_H
