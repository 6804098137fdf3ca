// The frame pool: blocks come back to the next taker of their class, every
// block holds what was asked for, oversized sizes pass through to malloc,
// and takers on several threads never share a block.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "mque/frame_pool.h"

namespace {

TEST(FramePool, ABlockGoesBackToTheNextTakerOfItsClass) {
  for (const size_t size : {size_t{1}, size_t{188 + 20}, size_t{257}, size_t{1400 + 20},
                            size_t{4097}, size_t{16384}, size_t{16385}, size_t{63488 + 20}}) {
    void* first = frame_alloc(size);
    ASSERT_NE(first, nullptr);
    std::memset(first, 0x5a, size);  // the whole size is ours (ASan checks)
    frame_free(first, size);
    void* again = frame_alloc(size);
    EXPECT_EQ(again, first) << size;
    frame_free(again, size);
  }
  // Past the classes: plain malloc and free.
  for (const size_t size : {size_t{(72u << 10) + 1}, size_t{200000}}) {
    void* block = frame_alloc(size);
    ASSERT_NE(block, nullptr);
    std::memset(block, 1, size);
    frame_free(block, size);
  }
  EXPECT_EQ(frame_alloc(0), nullptr);
  frame_free(nullptr, 100);
  const char text[] = "a frame";
  void* copy = frame_dup(text, sizeof text);
  EXPECT_STREQ(static_cast<char*>(copy), text);
  frame_free(copy, sizeof text);
}

TEST(FramePool, TakersOnSeveralThreadsNeverShareABlock) {
  constexpr int kThreads = 4, kRounds = 2000, kHeld = 8;
  std::atomic<bool> shared{false};
  std::vector<std::thread> takers;
  for (int t = 0; t < kThreads; ++t) {
    takers.emplace_back([t, &shared] {
      for (int r = 0; r < kRounds; ++r) {
        unsigned char* held[kHeld];
        for (auto& block : held) {
          block = static_cast<unsigned char*>(frame_alloc(30000));
          std::memset(block, t, 30000);
        }
        for (auto* block : held) {
          if (block[0] != t || block[29999] != t) shared = true;
          frame_free(block, 30000);
        }
      }
    });
  }
  for (auto& taker : takers) taker.join();
  EXPECT_FALSE(shared.load());
}

}  // namespace
