// The read-write lock (shared holders coexist and nest, an exclusive holder
// keeps others out) and the password digest.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>

#include "arbor/support.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Runs `take` (a QV*Lock function) on another thread, releasing at once.
// The future is ready once the lock was had.
std::future<void> TakeElsewhere(QVRWLock* lock, int (*take)(QVRWLock*)) {
  return std::async(std::launch::async, [lock, take] {
    take(lock);
    QVXUNLock(lock);
  });
}

std::string Md5(const char* text, int32_t size) {
  auto out = std::make_unique<char[]>(ARBOR_MD5_TEXT_SIZE);  // exact, for ASan
  EXPECT_EQ(MakeMD5Int64(text, size, out.get()), out.get());
  return out.get();
}

}  // namespace

TEST(RWLock, SharedHoldersCoexistAndNestWhileWriterWaitsExclusiveKeepsOthersOut) {
  QVRWLock lock;
  ASSERT_EQ(QVInitRWLock(&lock), 0);
  ASSERT_EQ(QVRLock(&lock), 0);
  EXPECT_EQ(TakeElsewhere(&lock, QVRLock).wait_for(seconds(10)),
            std::future_status::ready);

  std::future<void> writer = TakeElsewhere(&lock, QVWLock);
  EXPECT_EQ(writer.wait_for(milliseconds(50)), std::future_status::timeout);
  // The writer is (most likely) queued; a reader-preferring lock still lets
  // the shared holder in again instead of deadlocking.
  EXPECT_EQ(QVRLock(&lock), 0);
  EXPECT_EQ(QVXUNLock(&lock), 0);
  EXPECT_EQ(writer.wait_for(milliseconds(10)), std::future_status::timeout);
  EXPECT_EQ(QVXUNLock(&lock), 0);
  EXPECT_EQ(writer.wait_for(seconds(10)), std::future_status::ready);
  // An exclusive holder keeps readers out.
  ASSERT_EQ(QVWLock(&lock), 0);
  std::future<void> reader = TakeElsewhere(&lock, QVRLock);
  EXPECT_EQ(reader.wait_for(milliseconds(100)), std::future_status::timeout);
  EXPECT_EQ(QVXUNLock(&lock), 0);
  EXPECT_EQ(reader.wait_for(seconds(10)), std::future_status::ready);
  EXPECT_EQ(QVUNInitRWLock(&lock), 0);
}

TEST(MD5, KnownVectorsInLowerCaseHexAndSizeNotNulBoundsTheInput) {
  EXPECT_EQ(Md5("", 0), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(Md5("abc", 3), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Md5("abcdef", 3), Md5("abc", 3));
}
