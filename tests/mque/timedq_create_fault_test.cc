// tq_create when its worker can't be started: this program puts its own
// pthread_create in front of the C library's, so the engine's call fails on
// demand. LeakSanitizer, in the sanitizer build, checks that nothing stayed.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <string>
#include <vector>

#include "arbor/support.h"
#include "arbor/timedq.h"

namespace {

bool fail_thread_start = false;
std::vector<std::string> errors;

void KeepErrors(void*, int level, const char* line, size_t length) {
  if (level == 0) errors.emplace_back(line, length);
}

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                              void* (*start)(void*), void* arg) {
  if (fail_thread_start) return EAGAIN;
  using Create =
      int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  auto real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  return real(thread, attr, start, arg);
}

TEST(TimedQueueCreate, FailedThreadStartGivesNullAndLogs) {
  LOG_SetSink(KeepErrors, nullptr);
  fail_thread_start = true;
  EXPECT_EQ(tq_create(), nullptr);
  fail_thread_start = false;
  LOG_SetSink(nullptr, nullptr);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_NE(errors[0].find("pthread_create: 11"), std::string::npos);
  // The next attempt works: nothing was left half made.
  TimedQueue* q = tq_create();
  ASSERT_NE(q, nullptr);
  tq_destroy(q);
}
