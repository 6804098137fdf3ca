/*
 * drivers/demo_internal.h - what the demo drivers and their hosts share: the
 * monotonic clock (nanoseconds now, absolute sleeps that do not drift,
 * condition variables whose timed waits use the same clock) and the
 * drivers' verbosity.
 */
#ifndef ARBOR_DRIVERS_DEMO_INTERNAL_H
#define ARBOR_DRIVERS_DEMO_INTERNAL_H

#include <errno.h>
#include <stdatomic.h>
#include <pthread.h>
#include <stdint.h>
#include <time.h>

static inline uint64_t demo_now_ns(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000000000u + (uint64_t)ts.tv_nsec;
}

static inline struct timespec demo_timespec(uint64_t ns) {
  struct timespec ts;
  ts.tv_sec = (time_t)(ns / 1000000000u);
  ts.tv_nsec = (long)(ns % 1000000000u);
  return ts;
}

/* Sleeps until the absolute CLOCK_MONOTONIC time ns. A deadline already
 * past returns without a system call: an unpaced source is always late. */
static inline void demo_sleep_until(uint64_t ns) {
  if (ns <= demo_now_ns()) return;
  struct timespec deadline = demo_timespec(ns);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, NULL) ==
         EINTR) {
  }
}

/* A condition variable whose timed waits use CLOCK_MONOTONIC. */
static inline void demo_monotonic_cond_init(pthread_cond_t* cond) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(cond, &attr);
  pthread_condattr_destroy(&attr);
}

/* Non-zero: Open, Close and DoEvent print a line (demo_drivers_set_verbose).
 * Defined in demo_sink.c. */
extern atomic_int demo_verbose;

#endif /* ARBOR_DRIVERS_DEMO_INTERNAL_H */
