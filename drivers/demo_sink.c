/*
 * drivers/demo_sink.c - demo.sink, a sink that writes, checks and counts the
 * chunks of demo.source.
 *
 * Open and Close run on the command thread, Write on the read thread of the
 * source's root (or the command thread, for a root fed from the network),
 * and a host reads the counters at any time: sink_lock guards it all.
 * sink_changed is signalled on every Write and Close, for hosts waiting.
 */
#define _POSIX_C_SOURCE 200809L

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "demo_drivers.h"
#include "demo_internal.h"

atomic_int demo_verbose = 1;

typedef struct sink_dev {
  int32_t xfd;  /* 0: slot free */
  int fd;       /* the file */
  int have_seq; /* a chunk has arrived, expected_seq is valid */
  uint64_t expected_seq;
} sink_dev;

static pthread_mutex_t sink_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t sink_once = PTHREAD_ONCE_INIT;
static pthread_cond_t sink_changed; /* monotonic clock: see sink_init */
static sink_dev sink_devs[DEMO_MAX_OPEN];
static int32_t sink_next_xfd = 1;
static demo_sink_totals sink_total;
static DeviceCallback sink_callback; /* kept, not used by this driver */

static void sink_init(void) { demo_monotonic_cond_init(&sink_changed); }

static sink_dev* sink_find(int32_t xfd) {
  for (int i = 0; i < DEMO_MAX_OPEN; i++)
    if (xfd > 0 && sink_devs[i].xfd == xfd) return &sink_devs[i];
  return NULL;
}

/* SetCallback, Retrieve, GetObjectInfo: as for demo.source. */
static int32_t sink_set_callback(DeviceCallback callback) {
  sink_callback = callback;
  return 0;
}
static const char* sink_retrieve(void) { return "demo.sink"; }
static const char* sink_object_info(void) { return "Type=demo;Role=sink;"; }

/*
 * Open: called on the command thread. option is the file to write (the
 * dial's opN text for this hop); without one the sink writes to
 * DEMO_SINK_DEFAULT_PATH. The file is created or truncated. No read thread:
 * a sink leaves *threading at 0. Returns the descriptor, or -1.
 */
static int32_t sink_open(const char* name, const char* option,
                         uint32_t* threading) {
  (void)threading;
  pthread_once(&sink_once, sink_init);
  const char* path = option && *option ? option : DEMO_SINK_DEFAULT_PATH;
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    fprintf(stderr, "demo.sink: cannot open %s: %s\n", path, strerror(errno));
    return -1;
  }

  int32_t xfd = -1;
  pthread_mutex_lock(&sink_lock);
  for (int i = 0; i < DEMO_MAX_OPEN; i++) {
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
  if (atomic_load(&demo_verbose))
    printf("demo.sink: Open(%s) -> %d: writing to %s\n", name, xfd, path);
  return xfd;
}

/*
 * Close: called on the command thread (or the timed queue's worker) when the
 * session ends. Closes the file and wakes waiting hosts.
 */
static int32_t sink_close(int32_t xfd) {
  pthread_once(&sink_once, sink_init);
  pthread_mutex_lock(&sink_lock);
  sink_dev* dev = sink_find(xfd);
  if (dev) {
    close(dev->fd);
    dev->xfd = 0;
    sink_total.closes++;
    pthread_cond_broadcast(&sink_changed);
  }
  pthread_mutex_unlock(&sink_lock);
  if (dev && atomic_load(&demo_verbose)) printf("demo.sink: Close(%d)\n", xfd);
  return 0;
}

/* DoEvent: as for demo.source, it shows what it gets. */
static int32_t sink_do_event(const char* name, int32_t xfd, const char* text) {
  if (atomic_load(&demo_verbose))
    printf("demo.sink: DoEvent(%s, %d): %s\n", name, xfd, text);
  return 0;
}

/*
 * Write: called once for each chunk. data belongs to the engine and is
 * valid for the call only. Returns the bytes taken, or -1 on failure; the
 * engine logs a failure and carries on.
 *
 * The first chunk a device sees sets the expected sequence; from then on any
 * other number than the next one counts as out of order (lost, repeated or
 * reordered).
 */
static int32_t sink_write(int32_t xfd, const void* data, uint32_t size,
                          uint32_t flags) {
  (void)flags;
  uint64_t arrived = demo_now_ns();
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
    if (size < sizeof(demo_chunk_header)) {
      sink_total.short_chunks++;
    } else {
      demo_chunk_header head;
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
    pthread_cond_broadcast(&sink_changed);
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

cdef* demo_sink_class(void) { return &sink_class; }

demo_sink_totals demo_sink_snapshot(void) {
  pthread_mutex_lock(&sink_lock);
  demo_sink_totals copy = sink_total;
  pthread_mutex_unlock(&sink_lock);
  return copy;
}

/* Waits up to ms while done() is false for the totals; 1 when it held. */
static int sink_wait(int (*done)(const demo_sink_totals*, uint64_t),
                     uint64_t arg, int ms) {
  pthread_once(&sink_once, sink_init);
  struct timespec deadline =
      demo_timespec(demo_now_ns() + (uint64_t)ms * 1000000u);
  pthread_mutex_lock(&sink_lock);
  int rc = 0;
  while (!done(&sink_total, arg) && rc == 0)
    rc = pthread_cond_timedwait(&sink_changed, &sink_lock, &deadline);
  int reached = done(&sink_total, arg);
  pthread_mutex_unlock(&sink_lock);
  return reached;
}

static int all_closed(const demo_sink_totals* t, uint64_t unused) {
  (void)unused;
  return t->closes >= t->opens;
}

static int enough_chunks(const demo_sink_totals* t, uint64_t chunks) {
  return t->chunks >= chunks;
}

int demo_sink_wait_closed(int ms) { return sink_wait(all_closed, 0, ms); }

int demo_sink_wait_chunks(uint64_t chunks, int ms) {
  return sink_wait(enough_chunks, chunks, ms);
}

void demo_drivers_set_verbose(int verbose) {
  atomic_store(&demo_verbose, verbose != 0);
}
