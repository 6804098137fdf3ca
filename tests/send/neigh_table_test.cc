// The table of old LAN peers: one entry per peer, removal by moving the last
// entry into the gap, growth past a multiple of 8 (ASan sees a write past a
// block that did not grow).
#include <gtest/gtest.h>

#include "rsc/neigh_table.h"

namespace {

TEST(NeighbourTable, HoldsAPeerOnceAndFillsAGapWithTheLastEntry) {
  EXPECT_EQ(neigh_index(20), -1);
  for (uint32_t qvid : {10u, 20u, 30u, 20u}) neigh_table_add(qvid);
  EXPECT_EQ(neigh_table_count(), 3);
  EXPECT_EQ(neigh_table_remove(10), 0);
  EXPECT_EQ(neigh_index(30), 0);
  EXPECT_EQ(neigh_index(20), 1);
  EXPECT_EQ(neigh_table_remove(10), -1);
  EXPECT_EQ(neigh_table_count(), 2);
}

TEST(NeighbourTable, GrowsPastEightAndKeepsEveryEntryAfterRemovals) {
  for (uint32_t qvid = 1; qvid <= 17; ++qvid)
    EXPECT_EQ(neigh_table_add(qvid), static_cast<int32_t>(qvid - 1));
  for (uint32_t qvid = 1; qvid <= 17; ++qvid)
    EXPECT_GE(neigh_index(qvid), 0) << qvid;
  // Removal never shrinks: adding again after removals reuses the room.
  EXPECT_EQ(neigh_table_remove(17), 16);
  EXPECT_EQ(neigh_table_remove(16), 15);
  EXPECT_EQ(neigh_table_add(99), 15);
  EXPECT_EQ(neigh_table_add(98), 16);
  EXPECT_EQ(neigh_table_add(97), 17);
  EXPECT_EQ(neigh_table_count(), 18);
}

}  // namespace
