/*
 * example_host - a small host program that runs one local session: a
 * synthetic source streams timestamped chunks through the engine into a
 * file sink, for a few seconds, and then hangs up.
 *
 * It is meant as a sample for device makers. The two drivers below are
 * complete device classes, each a cdef record filled slot by slot:
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
#include <fcntl.h>
#include <inttypes.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "arbor/asc.h"
#include "arbor/cdef.h"
#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "arbor/support.h"
#include "arbor/sys.h"

/* ------------------------------------------------------------- Helpers */

/* The session's AS code: its notices come to our handler under this code. */
#define DEMO_ASC 200

#define DEFAULT_SECONDS 3
#define DEFAULT_RATE 50    /* chunks per second */
#define DEFAULT_CHUNK 1024 /* bytes per chunk */
#define DEFAULT_LOG_LEVEL 1
#define DEFAULT_SINK_PATH "/tmp/arbor-demo-sink.bin"

/* The engine reads at most this many bytes at once (its read buffer). */
#define MAX_CHUNK 63488

/* Every chunk begins with this header, in host byte order. */
typedef struct chunk_header {
  uint64_t seq;     /* 0, 1, 2, ... per opened source */
  uint64_t made_ns; /* CLOCK_MONOTONIC time at which Read made the chunk */
} chunk_header;

/* Each driver can have a few devices open at once (several sessions). */
#define MAX_OPEN 4

static uint64_t now_ns(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000000000u + (uint64_t)ts.tv_nsec;
}

static struct timespec ns_to_timespec(uint64_t ns) {
  struct timespec ts;
  ts.tv_sec = (time_t)(ns / 1000000000u);
  ts.tv_nsec = (long)(ns % 1000000000u);
  return ts;
}

/* Sleeps until the absolute CLOCK_MONOTONIC time ns (at once if past). */
static void sleep_until(uint64_t ns) {
  struct timespec deadline = ns_to_timespec(ns);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, NULL) ==
         EINTR) {
  }
}

/* A condition variable whose timed waits use CLOCK_MONOTONIC. */
static void monotonic_cond_init(pthread_cond_t* cond) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(cond, &attr);
  pthread_condattr_destroy(&attr);
}

/* ======================================================= demo.source */

/*
 * Open devices of the source. The engine calls Open and Close on its command
 * thread and Read on the read thread of the root, so the table is guarded
 * by source_lock; Read holds the lock only while it touches the table, never
 * while it sleeps.
 *
 * Descriptors are never reused (source_next_xfd only grows), so a Read that
 * races a Close finds its descriptor gone instead of another device.
 */
typedef struct source_dev {
  int32_t xfd;        /* 0: slot free */
  uint32_t rate;      /* chunks per second */
  uint32_t chunk;     /* bytes per chunk */
  uint64_t period_ns; /* 1 s / rate */
  uint64_t next_due;  /* when the next chunk is due; 0 until the first Read */
  uint64_t seq;       /* sequence number of the next chunk */
} source_dev;

static pthread_mutex_t source_lock = PTHREAD_MUTEX_INITIALIZER;
static source_dev source_devs[MAX_OPEN];
static int32_t source_next_xfd = 1;
static uint64_t source_produced;       /* chunks handed to the engine */
static uint32_t source_opens;          /* successful Open calls */
static uint32_t source_closes;         /* Close calls that found a device */
static DeviceCallback source_callback; /* kept, not used by this driver */

/* The device of descriptor xfd, or NULL. Call with source_lock held. */
static source_dev* source_find(int32_t xfd) {
  for (int i = 0; i < MAX_OPEN; i++)
    if (xfd > 0 && source_devs[i].xfd == xfd) return &source_devs[i];
  return NULL;
}

/*
 * SetCallback: called once, by SysRegisterDev on the registering thread,
 * with the engine's class mutex held. The callback is how a driver reports
 * events or pushes data of its own; this source has no use for it but keeps
 * it, as every driver should.
 */
static int32_t source_set_callback(DeviceCallback callback) {
  source_callback = callback;
  return 0;
}

/*
 * Retrieve: the full names of the resources of this class, separated by
 * commas. Called for every hop of every request, with the class mutex held:
 * return a constant, never build the text.
 */
static const char* source_retrieve(void) { return "demo.source"; }

/* GetObjectInfo: a dictionary text describing the class; Type names it. */
static const char* source_object_info(void) { return "Type=demo;Role=source;"; }

/*
 * Open: called on the engine's command thread when a chain names
 * "demo.source". option is the dial's opN text for this hop, here
 * "<chunks-per-second>/<chunk-bytes>", or NULL for the defaults. Setting
 * *threading asks the engine for a read thread that calls Read in a loop.
 * Returns the descriptor, or -1 (0 would also mean failure).
 */
static int32_t source_open(const char* name, const char* option,
                           uint32_t* threading) {
  unsigned rate = DEFAULT_RATE, chunk = DEFAULT_CHUNK;
  if (option && *option && sscanf(option, "%u/%u", &rate, &chunk) != 2) {
    fprintf(stderr, "demo.source: bad option '%s'\n", option);
    return -1;
  }
  if (rate < 1 || rate > 10000 || chunk < sizeof(chunk_header) ||
      chunk > MAX_CHUNK) {
    fprintf(stderr, "demo.source: option '%s' out of range\n",
            option ? option : "");
    return -1;
  }

  int32_t xfd = -1;
  pthread_mutex_lock(&source_lock);
  for (int i = 0; i < MAX_OPEN; i++) {
    if (source_devs[i].xfd != 0) continue;
    source_dev* dev = &source_devs[i];
    memset(dev, 0, sizeof *dev);
    dev->xfd = xfd = source_next_xfd++;
    dev->rate = rate;
    dev->chunk = chunk;
    dev->period_ns = 1000000000u / rate;
    source_opens++;
    break;
  }
  pthread_mutex_unlock(&source_lock);

  if (xfd < 0) {
    fprintf(stderr, "demo.source: too many open devices\n");
    return -1;
  }
  *threading = 1; /* read me on a thread of my own */
  printf("demo.source: Open(%s) -> %d: %u chunks/s of %u bytes\n", name, xfd,
         rate, chunk);
  return xfd;
}

/*
 * Close: called on the command thread (or the timed queue's worker) when the
 * last session using the device has ended. The read thread may be inside
 * Read at this moment; once the slot is free its next look finds the
 * descriptor gone and Read fails, which ends the thread.
 */
static int32_t source_close(int32_t xfd) {
  pthread_mutex_lock(&source_lock);
  source_dev* dev = source_find(xfd);
  if (dev) {
    printf("demo.source: Close(%d) after %" PRIu64 " chunks\n", xfd, dev->seq);
    dev->xfd = 0;
    source_closes++;
  }
  pthread_mutex_unlock(&source_lock);
  return 0;
}

/*
 * DoEvent: a command or an in-band event for the device. Called on the
 * command thread, sometimes with a tree lock held: never wait here for the
 * engine. "MainCmd=24;" says that a session has started to use the device;
 * it can come more than once for one session, so treat it as idempotent.
 * This driver only shows what it gets.
 */
static int32_t source_do_event(const char* name, int32_t xfd,
                               const char* text) {
  printf("demo.source: DoEvent(%s, %d): %s\n", name, xfd, text);
  return 0;
}

/*
 * Read: called on the read thread only, in a loop, while the session is
 * active. It paces the stream itself: it sleeps until the next chunk is due
 * (an absolute deadline, so the rate does not drift), then writes the chunk
 * into buffer. Returns the chunk's size, or -1 when the device is closed.
 * A Close takes effect at the next deadline, at most one period later.
 */
static int32_t source_read(int32_t xfd, void* buffer, uint32_t size,
                           uint32_t* flags) {
  (void)flags; /* plain media: the engine marks it as such */

  pthread_mutex_lock(&source_lock);
  source_dev* dev = source_find(xfd);
  if (!dev) {
    pthread_mutex_unlock(&source_lock);
    return -1;
  }
  /*
   * A chunk that is a little late (the thread woke late, or the engine took
   * long over the last one) goes out at once, so the mean rate holds; after
   * a stall of more than 100 ms the schedule starts afresh rather than
   * bursting to catch up.
   */
  uint64_t now = now_ns();
  if (dev->next_due == 0 || now > dev->next_due + 100000000u)
    dev->next_due = now;
  uint64_t due = dev->next_due;
  dev->next_due += dev->period_ns;
  pthread_mutex_unlock(&source_lock);

  sleep_until(due);

  pthread_mutex_lock(&source_lock);
  dev = source_find(xfd);
  if (!dev) { /* closed while we slept */
    pthread_mutex_unlock(&source_lock);
    return -1;
  }
  uint32_t n = dev->chunk < size ? dev->chunk : size;
  chunk_header head = {.seq = dev->seq++, .made_ns = now_ns()};
  source_produced++;
  pthread_mutex_unlock(&source_lock);

  memset(buffer, (int)(head.seq & 0xff), n); /* a recognisable filling */
  memcpy(buffer, &head, sizeof head);
  return (int32_t)n;
}

/*
 * The source's class record. It must stay in place, unchanged, while the
 * library runs: the engine keeps its address.
 */
static cdef source_class = {
    NULL,                /* Reserved: not used by the engine */
    source_set_callback, /* SetCallback */
    source_retrieve,     /* Retrieve */
    source_object_info,  /* GetObjectInfo */
    source_open,         /* Open */
    source_close,        /* Close */
    source_do_event,     /* DoEvent */
    NULL,                /* Write: a source takes no data */
    source_read,         /* Read: required, since Open asks for threading */
    NULL,                /* Convert: not a transform */
};

/* ========================================================= demo.sink */

/*
 * Open devices of the sink and what arrived at them. Open and Close run on
 * the command thread, Write on the read thread of the source's root, and the
 * host reads the counters each second: sink_lock guards it all. sink_closed
 * is signalled on every Close, for the host waiting after its hang-up.
 */
typedef struct sink_dev {
  int32_t xfd;  /* 0: slot free */
  int fd;       /* the file */
  int have_seq; /* a chunk has arrived, expected_seq is valid */
  uint64_t expected_seq;
} sink_dev;

typedef struct sink_totals {
  uint64_t chunks, bytes, out_of_order, short_chunks;
  uint64_t latency_sum_ns, latency_max_ns;
  uint32_t opens, closes;
} sink_totals;

static pthread_mutex_t sink_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t sink_closed; /* initialised in main: monotonic clock */
static sink_dev sink_devs[MAX_OPEN];
static int32_t sink_next_xfd = 1;
static sink_totals sink_total;
static DeviceCallback sink_callback; /* kept, not used by this driver */

static sink_dev* sink_find(int32_t xfd) {
  for (int i = 0; i < MAX_OPEN; i++)
    if (xfd > 0 && sink_devs[i].xfd == xfd) return &sink_devs[i];
  return NULL;
}

/* A copy of the counters, taken under the lock. */
static sink_totals sink_snapshot(void) {
  pthread_mutex_lock(&sink_lock);
  sink_totals copy = sink_total;
  pthread_mutex_unlock(&sink_lock);
  return copy;
}

/* SetCallback, Retrieve, GetObjectInfo: as for the source. */
static int32_t sink_set_callback(DeviceCallback callback) {
  sink_callback = callback;
  return 0;
}
static const char* sink_retrieve(void) { return "demo.sink"; }
static const char* sink_object_info(void) { return "Type=demo;Role=sink;"; }

/*
 * Open: called on the command thread. option is the file to write (the
 * dial's opN text for this hop); without one the sink writes to
 * DEFAULT_SINK_PATH. The file is created or truncated. No read thread: a
 * sink leaves *threading at 0. Returns the descriptor, or -1.
 */
static int32_t sink_open(const char* name, const char* option,
                         uint32_t* threading) {
  (void)threading;
  const char* path = option && *option ? option : DEFAULT_SINK_PATH;
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    fprintf(stderr, "demo.sink: cannot open %s: %s\n", path, strerror(errno));
    return -1;
  }

  int32_t xfd = -1;
  pthread_mutex_lock(&sink_lock);
  for (int i = 0; i < MAX_OPEN; i++) {
    if (sink_devs[i].xfd != 0) continue;
    sink_devs[i] = (sink_dev){.xfd = sink_next_xfd++, .fd = fd};
    xfd = sink_devs[i].xfd;
    sink_total.opens++;
    break;
  }
  pthread_mutex_unlock(&sink_lock);

  if (xfd < 0) {
    fprintf(stderr, "demo.sink: too many open devices\n");
    close(fd);
    return -1;
  }
  printf("demo.sink: Open(%s) -> %d: writing to %s\n", name, xfd, path);
  return xfd;
}

/*
 * Close: called on the command thread (or the timed queue's worker) when the
 * session ends. Closes the file and wakes the host.
 */
static int32_t sink_close(int32_t xfd) {
  pthread_mutex_lock(&sink_lock);
  sink_dev* dev = sink_find(xfd);
  if (dev) {
    close(dev->fd);
    dev->xfd = 0;
    sink_total.closes++;
    pthread_cond_broadcast(&sink_closed);
  }
  pthread_mutex_unlock(&sink_lock);
  if (dev) printf("demo.sink: Close(%d)\n", xfd);
  return 0;
}

/* DoEvent: as for the source, it shows what it gets. */
static int32_t sink_do_event(const char* name, int32_t xfd, const char* text) {
  printf("demo.sink: DoEvent(%s, %d): %s\n", name, xfd, text);
  return 0;
}

/*
 * Write: called on the read thread of the source's root (or the command
 * thread, for a root fed without one), once for each chunk. data belongs to
 * the engine and is valid for the call only. Returns the bytes taken, or -1
 * on failure; the engine logs a failure and carries on.
 *
 * The first chunk a device sees sets the expected sequence; from then on any
 * other number than the next one counts as out of order (lost, repeated or
 * reordered).
 */
static int32_t sink_write(int32_t xfd, const void* data, uint32_t size,
                          uint32_t flags) {
  (void)flags;
  uint64_t arrived = now_ns();
  int32_t result = (int32_t)size;

  pthread_mutex_lock(&sink_lock);
  sink_dev* dev = sink_find(xfd);
  if (!dev) {
    result = -1;
  } else if (write(dev->fd, data, size) != (ssize_t)size) {
    result = -1;
  } else {
    sink_total.chunks++;
    sink_total.bytes += size;
    if (size < sizeof(chunk_header)) {
      sink_total.short_chunks++;
    } else {
      chunk_header head;
      memcpy(&head, data, sizeof head); /* data need not be aligned */
      if (dev->have_seq && head.seq != dev->expected_seq)
        sink_total.out_of_order++;
      dev->have_seq = 1;
      dev->expected_seq = head.seq + 1;
      uint64_t latency = arrived - head.made_ns;
      sink_total.latency_sum_ns += latency;
      if (latency > sink_total.latency_max_ns)
        sink_total.latency_max_ns = latency;
    }
  }
  pthread_mutex_unlock(&sink_lock);
  return result;
}

/* The sink's class record; like the source's, it lives as long as the app. */
static cdef sink_class = {
    NULL,              /* Reserved */
    sink_set_callback, /* SetCallback */
    sink_retrieve,     /* Retrieve */
    sink_object_info,  /* GetObjectInfo */
    sink_open,         /* Open */
    sink_close,        /* Close */
    sink_do_event,     /* DoEvent */
    sink_write,        /* Write */
    NULL,              /* Read: the sink is never read */
    NULL,              /* Convert: not a transform */
};

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

/*
 * Waits, for at most ms, until every sink device that was opened has been
 * closed. Returns 1 when that happened (at once when none was opened).
 */
static int wait_for_sinks_closed(int ms) {
  struct timespec deadline = ns_to_timespec(now_ns() + (uint64_t)ms * 1000000u);
  pthread_mutex_lock(&sink_lock);
  int rc = 0;
  while (sink_total.closes < sink_total.opens && rc == 0)
    rc = pthread_cond_timedwait(&sink_closed, &sink_lock, &deadline);
  int reached = sink_total.closes >= sink_total.opens;
  pthread_mutex_unlock(&sink_lock);
  return reached;
}

int main(int argc, char** argv) {
  long seconds, rate, chunk, level;
  if (argc > 5 ||
      !arg_number(argc, argv, 1, 1, 3600, DEFAULT_SECONDS, &seconds) ||
      !arg_number(argc, argv, 2, 1, 10000, DEFAULT_RATE, &rate) ||
      !arg_number(argc, argv, 3, (long)sizeof(chunk_header), MAX_CHUNK,
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
  monotonic_cond_init(&sink_closed);

  /* Start the library, then hand it the drivers and our notice handler. */
  SysInit(on_host_event);
  SysRegisterDev(&source_class);
  SysRegisterDev(&sink_class);
  SysRegistASLan(DEMO_ASC, NULL, (AsHandler)on_session_notice);

  /*
   * Dial the chain. Without an `id` the engine serves it here: it opens the
   * source (which starts a read thread) and the sink, and since every hop is
   * local the session is active at once. The sid is our handle to hang up.
   */
  char dial[256];
  snprintf(dial, sizeof dial,
           "ftN0=demo.source;opN0=%ld/%ld;ftN1=demo.sink;opN1=%s;", rate, chunk,
           DEFAULT_SINK_PATH);
  char sid[RSC_SID_SLOT] = "";
  printf("dialling: %s\n", dial);
  RSCDial(DEMO_ASC, sid, dial, (const char*)NULL);
  int ok = sid[0] != '\0';
  if (!ok) fprintf(stderr, "the dial was refused\n");

  /* Stream, with a line of progress each second. */
  uint64_t start = now_ns();
  for (long s = 1; ok && s <= seconds; s++) {
    sleep_until(start + (uint64_t)s * 1000000000u);
    sink_totals t = sink_snapshot();
    printf("%2lds: %" PRIu64 " chunks, %" PRIu64 " bytes at the sink, %s\n", s,
           t.chunks, t.bytes, t.out_of_order ? "OUT OF ORDER" : "in order");
  }

  /* Hang up, and give the engine a moment to take the branch down. */
  int closed = 0;
  if (ok) {
    printf("hanging up %s\n", sid);
    RSCHangup(0, sid);
    closed = wait_for_sinks_closed(3000);
    if (!closed) fprintf(stderr, "the sink was not closed within 3 s\n");
  }

  SysExit(); /* joins the read thread: no driver call after this */

  sink_totals t = sink_snapshot();
  pthread_mutex_lock(&source_lock);
  uint64_t produced = source_produced;
  uint32_t source_opened = source_opens, source_closed = source_closes;
  pthread_mutex_unlock(&source_lock);

  /*
   * A chunk that the source made while the hang-up was under way is dropped
   * by the engine, so "produced" may exceed "written" by one.
   */
  uint64_t with_time = t.chunks - t.short_chunks;
  printf("report:\n");
  printf("  chunks produced   %" PRIu64 "\n", produced);
  printf("  chunks written    %" PRIu64 " (%" PRIu64 " bytes, to %s)\n",
         t.chunks, t.bytes, DEFAULT_SINK_PATH);
  printf("  out of order      %" PRIu64 "\n", t.out_of_order);
  if (with_time)
    printf("  latency           mean %.1f us, max %.1f us\n",
           (double)t.latency_sum_ns / (double)with_time / 1000.0,
           (double)t.latency_max_ns / 1000.0);
  printf("  opened/closed     source %u/%u, sink %u/%u\n", source_opened,
         source_closed, t.opens, t.closes);

  pthread_cond_destroy(&sink_closed);
  int success =
      ok && closed && t.opens > 0 && t.chunks > 0 && t.out_of_order == 0;
  printf("%s\n", success ? "OK" : "FAILED");
  return success ? 0 : 1;
}
