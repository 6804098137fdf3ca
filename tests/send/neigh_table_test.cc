// The table of old LAN peers: one entry per peer, removal by moving the last
// entry into the gap, growth past a multiple of 8 (ASan sees a write past a
// block that did not grow).
#include <gtest/gtest.h>

#include "rsc/neigh_table.h"

namespace {

TEST(NeighbourTable, HoldsAPeerOnceFillsAGapWithTheLastEntryAndGrowsPastEight) {
  for (uint32_t qvid : {10u, 20u, 30u, 20u}) neigh_table_add(qvid);
  EXPECT_EQ(neigh_table_count(), 3);
  EXPECT_EQ(neigh_table_remove(10), 0);
  EXPECT_EQ(neigh_index(30), 0);
  EXPECT_EQ(neigh_index(10), -1);
  EXPECT_EQ(neigh_table_remove(10), -1);
  for (uint32_t qvid = 100; qvid < 115; ++qvid)
    EXPECT_EQ(neigh_table_add(qvid), static_cast<int32_t>(qvid - 98));
  EXPECT_EQ(neigh_index(20), 1);
  EXPECT_EQ(neigh_index(114), 16);
  EXPECT_EQ(neigh_table_count(), 17);
}

}  // namespace
