/*
 * asc/asc_internal.h - what the two halves of the service tables share, and
 * what the rest of the engine may use beyond the exported calls.
 *
 * asc_wan.cc keeps the service table, asc_lan.cc the local table and
 * dispatch. Both tables are guarded by a std::shared_mutex of their own:
 * readers are lookup and dispatch, writers registration, renaming and
 * asc_uninit. The locks are leaves: while one is held nothing is called but
 * the allocator, so no lock order involves them, and a handler (always
 * called after the lock is released) may take any lock it likes.
 */
#ifndef ARBOR_SRC_ASC_ASC_INTERNAL_H
#define ARBOR_SRC_ASC_ASC_INTERNAL_H

#include <cstdint>

#include "arbor/asc.h"

// The service table's side of asdispatch: calls the handler of the first
// row whose AsCode is code, outside the lock. Returns the handler's result,
// or 0 when there is no such row or it has no handler.
int32_t asc_wan_dispatch(int32_t code, const char* data, uint32_t size);

// Frees every row, every name (retired ones included) and the row array,
// and leaves the service table empty. Rows handed out before are invalid.
void asc_wan_clear();

// A consistent copy of the first row named name, taken under the lock, for
// a caller that must not see a row half renamed (NetSend). The copy's
// AsName stays valid until asc_uninit. False, with *out unchanged, when
// there is no such row or name is null.
bool asc_copy_byname(const char* name, ServiceRow* out);

#endif  // ARBOR_SRC_ASC_ASC_INTERNAL_H
