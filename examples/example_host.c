/*
 * example_host - a small host program that starts Arbor, shows its timed
 * queue at work and stops it again.
 *
 * It posts a few timed jobs out of order, waits until the due ones have run
 * (in time order, each reporting how late it ran), leaves one job due far in
 * the future, and calls SysExit, which runs that job at once, flushed, with a
 * positive "elapsed". The host callback prints whatever the library reports.
 *
 * Usage: example_host [log-level]   (log level 0-3, default 2)
 */
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "arbor/support.h"
#include "arbor/sys.h"
#include "arbor/timedq.h"

static pthread_mutex_t done_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t done_cond = PTHREAD_COND_INITIALIZER;
static int jobs_run;

static void on_host_event(int32_t code, const char* text, int32_t length) {
  printf("host callback: code %d: %.*s\n", code, text ? (int)length : 0,
         text ? text : "");
}

/* A timed job: prints its label and lateness, and counts itself. */
static void print_job(int32_t elapsed, uintptr_t arg, int32_t argc,
                      char** argv) {
  (void)arg;
  const char* label = argc > 0 ? argv[0] : "?";
  if (elapsed > 0)
    printf("  job '%s' flushed before its time (elapsed %d)\n", label, elapsed);
  else
    printf("  job '%s' ran %d ms late\n", label, -elapsed);
  pthread_mutex_lock(&done_lock);
  jobs_run++;
  pthread_cond_broadcast(&done_cond);
  pthread_mutex_unlock(&done_lock);
}

/* Waits until `count` jobs have run, for at most `seconds`. */
static int wait_for_jobs(int count, int seconds) {
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += seconds;
  pthread_mutex_lock(&done_lock);
  int rc = 0;
  while (jobs_run < count && rc == 0)
    rc = pthread_cond_timedwait(&done_cond, &done_lock, &deadline);
  int reached = jobs_run >= count;
  pthread_mutex_unlock(&done_lock);
  return reached;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0); /* keep our lines in order with the log's */
  LOG_SetLevel(argc > 1 ? atoi(argv[1]) : 2);

  SysVer("example-1.0", "host");
  SysInit(on_host_event);
  printf("Arbor started; posting four timed jobs out of order\n");

  tq_post_v(timedq_, 300, print_job, 0, "third (300 ms)", (const char*)NULL);
  tq_post_v(timedq_, 100, print_job, 0, "first (100 ms)", (const char*)NULL);
  tq_post_v(timedq_, 200, print_job, 0, "second (200 ms)", (const char*)NULL);
  tq_post_v(timedq_, 60000, print_job, 0, "last (60 s)", (const char*)NULL);

  if (!wait_for_jobs(3, 5)) {
    fprintf(stderr, "the timed jobs did not run in time\n");
    SysExit();
    return 1;
  }
  printf("three jobs ran in time order; stopping (the 60 s job is flushed)\n");
  SysExit();
  printf("Arbor stopped; %d jobs ran\n", jobs_run);
  return jobs_run == 4 ? 0 : 1;
}
