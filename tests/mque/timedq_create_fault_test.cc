// tq_create when its worker can't be started: this program puts its own
// pthread_create in front of the C library's, so the engine's call fails on
// demand. LeakSanitizer, in the sanitizer build, checks that nothing stayed.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>

#include "arbor/timedq.h"
#include "test_helpers.h"

namespace {
bool fail_thread_start = false;
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                              void* (*start)(void*), void* arg) {
  if (fail_thread_start) return EAGAIN;
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  return reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"))(thread, attr, start, arg);
}

TEST(TimedQueueCreate, FailedThreadStartGivesNullAndLogs) {
  {
    LogCapture errors(0);
    fail_thread_start = true;
    EXPECT_EQ(tq_create(), nullptr);
    fail_thread_start = false;
    EXPECT_TRUE(errors.Has("pthread_create: 11"));
  }
  // The next attempt works: nothing was left half made.
  TimedQueue* q = tq_create();
  ASSERT_NE(q, nullptr);
  tq_destroy(q);
}
