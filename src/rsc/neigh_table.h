/*
 * rsc/neigh_table.h - the table of LAN peers that speak the old encoding of
 * dictionaries.
 *
 * lansend reads it for every text it sends on the LAN; the LAN neighbour
 * handler, on the transport's thread, writes it as peers come and go. Order
 * has no meaning, a qvid stands in it at most once, and it lives as long as
 * the process. All four calls are safe from any thread at any time: the
 * table carries its own read-write lock, taken shared by readers and
 * exclusive by the two writers, and held only for the length of one call.
 * It is a leaf lock: nothing else is taken while it is held.
 */
#ifndef ARBOR_SRC_RSC_NEIGH_TABLE_H
#define ARBOR_SRC_RSC_NEIGH_TABLE_H

#include <cstdint>

// The index of qvid in the table, or -1 when it is not there. A linear
// search; the table stays small since only old peers enter it. Cannot fail.
int32_t neigh_index(uint32_t qvid);

// Puts qvid in the table unless it is there already, and returns its index,
// found or new. The array grows by 8 entries whenever the count is a
// multiple of 8 and never shrinks. Returns -1 with the table unchanged when
// it cannot grow: that peer then counts as current, which sends it texts in
// the current encoding, and no reader ever looks past the entries counted.
int32_t neigh_table_add(uint32_t qvid);

// Takes qvid out of the table: the entry that stood last moves into its slot.
// Returns the index qvid had, or -1 with nothing changed when it was not
// there. Cannot fail otherwise.
int32_t neigh_table_remove(uint32_t qvid);

// The number of entries. Cannot fail.
int32_t neigh_table_count(void);

#endif  // ARBOR_SRC_RSC_NEIGH_TABLE_H
