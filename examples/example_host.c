/*
 * example_host - a small host program that runs one local session: a
 * synthetic source streams timestamped chunks through the engine into a
 * file sink, for a few seconds, and then hangs up.
 *
 * It is meant as a sample for device makers. The two drivers it registers
 * are the sample classes of drivers/ (demo_drivers.h), each a complete cdef
 * table written slot by slot:
 *
 *  demo.source  asks the engine for a read thread and produces chunks at a
 *               fixed rate; each chunk starts with a sequence number and the
 *               time it was made.
 *  demo.sink    appends every chunk it is given to a file, counts chunks and
 *               bytes, checks that the sequence numbers come in order, and
 *               measures how long each chunk took from source to sink.
 *
 * main() starts the library, registers both drivers, dials the chain
 * "demo.source -> demo.sink" locally (a dial text without an `id` is served
 * on this peer), prints a line of progress each second, hangs up, waits for
 * the sink to be closed, stops the library and prints a final report.
 *
 * Usage: example_host [seconds] [chunks-per-second] [chunk-bytes] [log-level]
 *        defaults:     3         50                  1024          1
 * The log level goes to LOG_SetLevel: 0 errors, 1 read threads' start and
 * end, 2 start and stop, 3 tracing.
 * Exit status 0 when at least one chunk arrived, all in order, and the sink
 * was closed after the hang-up; 1 otherwise.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "demo_drivers.h"
#include "demo_internal.h"

/* The session's AS code: its notices come to our handler under this code. */
#define DEMO_ASC 200

#define DEFAULT_SECONDS 3
#define DEFAULT_RATE 50    /* chunks per second */
#define DEFAULT_CHUNK 1024 /* bytes per chunk */
#define DEFAULT_LOG_LEVEL 1

/* ============================================================== Host */

/* The host callback: the service link and account replies. Just shown. */
static void on_host_event(int32_t code, const char* text, int32_t length) {
  printf("host callback: code %d: %.*s\n", code, text ? (int)length : 0,
         text ? text : "");
}

/*
 * The notices of our session (SessionStart, RUN_FAIL, SessionDelete) come
 * through the local service table under the dial's AS code, on the
 * engine's threads. data need not be NUL-terminated. The result is 0, not
 * negative, so that the notice goes on to the engine's own session handler
 * too: for a local session it is that handler which acts on SessionStart.
 */
static int32_t on_session_notice(uint32_t from, uint32_t size,
                                 const char* data) {
  printf("session notice (from %u): %.*s\n", from, (int)size, data);
  return 0;
}

/* Reads argument i as a number in [lo, hi], or def when absent. */
static int arg_number(int argc, char** argv, int i, long lo, long hi, long def,
                      long* out) {
  if (argc <= i) {
    *out = def;
    return 1;
  }
  char* end;
  errno = 0;
  long v = strtol(argv[i], &end, 10);
  if (errno || end == argv[i] || *end || v < lo || v > hi) {
    fprintf(stderr, "bad argument '%s' (expected %ld..%ld)\n", argv[i], lo, hi);
    return 0;
  }
  *out = v;
  return 1;
}

int main(int argc, char** argv) {
  long seconds, rate, chunk, level;
  if (argc > 5 ||
      !arg_number(argc, argv, 1, 1, 3600, DEFAULT_SECONDS, &seconds) ||
      !arg_number(argc, argv, 2, 1, 10000, DEFAULT_RATE, &rate) ||
      !arg_number(argc, argv, 3, (long)sizeof(demo_chunk_header),
                  DEMO_MAX_CHUNK,
                  DEFAULT_CHUNK, &chunk) ||
      !arg_number(argc, argv, 4, 0, 3, DEFAULT_LOG_LEVEL, &level)) {
    fprintf(stderr,
            "usage: %s [seconds] [chunks-per-second] [chunk-bytes] "
            "[log-level]\n",
            argv[0]);
    return 1;
  }

  setvbuf(stdout, NULL, _IOLBF, 0); /* keep our lines in order with the log's */
  LOG_SetLevel((int)level);

  /* Start the library, then hand it the drivers and our notice handler. */
  SysInit(on_host_event);
  SysRegisterDev(demo_source_class());
  SysRegisterDev(demo_sink_class());
  SysRegistASLan(DEMO_ASC, NULL, (AsHandler)on_session_notice);

  /*
   * Dial the chain. Without an `id` the engine serves it here: it opens the
   * source (which starts a read thread) and the sink, and since every hop is
   * local the session is active at once. The sid is our handle to hang up.
   */
  char dial[256];
  snprintf(dial, sizeof dial,
           "ftN0=demo.source;opN0=%ld/%ld;ftN1=demo.sink;opN1=%s;", rate, chunk,
           DEMO_SINK_DEFAULT_PATH);
  char sid[RSC_SID_SLOT] = "";
  printf("dialling: %s\n", dial);
  RSCDial(DEMO_ASC, sid, dial, (const char*)NULL);
  int ok = sid[0] != '\0';
  if (!ok) fprintf(stderr, "the dial was refused\n");

  /* Stream, with a line of progress each second. */
  uint64_t start = demo_now_ns();
  for (long s = 1; ok && s <= seconds; s++) {
    demo_sleep_until(start + (uint64_t)s * 1000000000u);
    demo_sink_totals t = demo_sink_snapshot();
    printf("%2lds: %" PRIu64 " chunks, %" PRIu64 " bytes at the sink, %s\n", s,
           t.chunks, t.bytes, t.out_of_order ? "OUT OF ORDER" : "in order");
  }

  /* Hang up, and give the engine a moment to take the branch down. */
  int closed = 0;
  if (ok) {
    printf("hanging up %s\n", sid);
    RSCHangup(0, sid);
    closed = demo_sink_wait_closed(3000);
    if (!closed) fprintf(stderr, "the sink was not closed within 3 s\n");
  }

  SysExit(); /* joins the read thread: no driver call after this */

  demo_sink_totals t = demo_sink_snapshot();
  demo_source_totals source = demo_source_snapshot();
  uint64_t produced = source.produced;
  uint32_t source_opened = source.opens, source_closed = source.closes;

  /*
   * A chunk that the source made while the hang-up was under way is dropped
   * by the engine, so "produced" may exceed "written" by one.
   */
  uint64_t with_time = t.chunks - t.short_chunks;
  printf("report:\n");
  printf("  chunks produced   %" PRIu64 "\n", produced);
  printf("  chunks written    %" PRIu64 " (%" PRIu64 " bytes, to %s)\n",
         t.chunks, t.bytes, DEMO_SINK_DEFAULT_PATH);
  printf("  out of order      %" PRIu64 "\n", t.out_of_order);
  if (with_time)
    printf("  latency           mean %.1f us, max %.1f us\n",
           (double)t.latency_sum_ns / (double)with_time / 1000.0,
           (double)t.latency_max_ns / 1000.0);
  printf("  opened/closed     source %u/%u, sink %u/%u\n", source_opened,
         source_closed, t.opens, t.closes);

  int success =
      ok && closed && t.opens > 0 && t.chunks > 0 && t.out_of_order == 0;
  printf("%s\n", success ? "OK" : "FAILED");
  return success ? 0 : 1;
}
