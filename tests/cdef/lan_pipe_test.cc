// Tests of LAN pipe numbers: rising order, no early reuse, the wrap at
// 65535, a full range, lack of memory, and frees of numbers not in use. Each
// case runs in a process of its own, so numbers start at 1024.
#include <gtest/gtest.h>

#include "arbor/device_class.h"
#include "cdef/cdef_internal.h"

TEST(LanPipe, FreedNumberIsNotReusedBeforeTheWrapAndUnknownFreeIsIgnored) {
  EXPECT_EQ(lan_pipe_alloc(), 1024u);
  EXPECT_EQ(lan_pipe_alloc(), 1025u);
  lan_pipe_free(1030);
  lan_pipe_free(1024);
  EXPECT_EQ(lan_pipe_test_count(), 1u);
  EXPECT_EQ(lan_pipe_alloc(), 1026u);
  // From 65535 the numbers wrap to 1024, passing those in use.
  lan_pipe_test_set_next(65535);
  EXPECT_EQ(lan_pipe_alloc(), 65535u);
  EXPECT_EQ(lan_pipe_alloc(), 1024u);
  lan_pipe_test_set_next(65535);
  EXPECT_EQ(lan_pipe_alloc(), 1027u);
}

TEST(LanPipe, FullRangeGivesZeroAndLeavesNextPipe) {
  for (uint32_t n = 1024; n <= 65535; ++n) ASSERT_EQ(lan_pipe_alloc(), n);
  const uint16_t next = lan_pipe_test_next();
  EXPECT_EQ(lan_pipe_alloc(), 0u);
  EXPECT_EQ(lan_pipe_test_next(), next);
  lan_pipe_free(40000);
  EXPECT_EQ(lan_pipe_alloc(), 40000u);
}

TEST(LanPipe, NoMemoryGivesZeroButMovesNextPipe) {
  for (int i = 0; i < 8; ++i) lan_pipe_alloc();  // 1024..1031, array full
  cdef_test_fail_allocs(0);
  EXPECT_EQ(lan_pipe_alloc(), 0u);
  cdef_test_fail_allocs(-1);
  EXPECT_EQ(lan_pipe_alloc(), 1033u);  // 1032 was passed, yet is free
}
