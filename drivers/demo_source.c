/*
 * drivers/demo_source.c - demo.source, a paced source of timestamped chunks.
 *
 * Open devices live in a small table guarded by source_lock. The engine
 * calls Open and Close on its command thread and Read on the read thread of
 * the root, so Read holds the lock only while it touches the table, never
 * while it sleeps. Descriptors are never reused (source_next_xfd only
 * grows), so a Read that races a Close finds its descriptor gone instead of
 * another device.
 */
#define _POSIX_C_SOURCE 200809L

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "demo_drivers.h"
#include "demo_internal.h"

#define DEFAULT_RATE 50    /* chunks per second */
#define DEFAULT_CHUNK 1024 /* bytes per chunk */
#define MAX_RATE 100000    /* chunks per second */

/*
 * After a stall longer than this the schedule starts afresh rather than
 * bursting to catch up.
 */
#define RESYNC_NS 100000000u

typedef struct source_dev {
  int32_t xfd;        /* 0: slot free */
  uint32_t chunk;     /* bytes per chunk */
  uint64_t period_ns; /* 1 s / rate */
  uint64_t next_due;  /* when the next chunk is due; 0 until the first Read */
  uint64_t seq;       /* sequence number of the next chunk */
} source_dev;

static pthread_mutex_t source_lock = PTHREAD_MUTEX_INITIALIZER;
static source_dev source_devs[DEMO_MAX_OPEN];
static int32_t source_next_xfd = 1;
static demo_source_totals source_total;
static DeviceCallback source_callback; /* kept, not used by this driver */

/* The device of descriptor xfd, or NULL. Call with source_lock held. */
static source_dev* source_find(int32_t xfd) {
  for (int i = 0; i < DEMO_MAX_OPEN; i++)
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
 * "demo.source". option is the dial's opN text for this hop,
 * "<chunks-per-second>/<chunk-bytes>", or NULL for the defaults. Setting
 * *threading asks the engine for a read thread that calls Read in a loop.
 * Returns the descriptor, or -1 (0 would also mean failure).
 */
static int32_t source_open(const char* name, const char* option,
                           uint32_t* threading) {
  unsigned rate = DEFAULT_RATE, chunk = DEFAULT_CHUNK;
  if (option && *option && sscanf(option, "%u/%u", &rate, &chunk) != 2) {
    fprintf(stderr, "demo.source: bad option '%s' (want <rate>/<bytes>)\n",
            option);
    return -1;
  }
  if (rate < 1 || rate > MAX_RATE || chunk < sizeof(demo_chunk_header) ||
      chunk > DEMO_MAX_CHUNK) {
    fprintf(stderr, "demo.source: option '%s' out of range\n",
            option ? option : "");
    return -1;
  }

  int32_t xfd = -1;
  pthread_mutex_lock(&source_lock);
  for (int i = 0; i < DEMO_MAX_OPEN; i++) {
    if (source_devs[i].xfd != 0) continue;
    source_dev* dev = &source_devs[i];
    memset(dev, 0, sizeof *dev);
    dev->xfd = xfd = source_next_xfd++;
    dev->chunk = chunk;
    dev->period_ns = 1000000000u / rate;
    source_total.opens++;
    break;
  }
  pthread_mutex_unlock(&source_lock);

  if (xfd < 0) {
    fprintf(stderr, "demo.source: too many open devices\n");
    return -1;
  }
  *threading = 1; /* read me on a thread of my own */
  if (atomic_load(&demo_verbose))
    printf("demo.source: Open(%s) -> %d: %u chunks/s of %u bytes\n", name,
           xfd, rate, chunk);
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
  uint64_t made = dev ? dev->seq : 0;
  if (dev) {
    dev->xfd = 0;
    source_total.closes++;
  }
  pthread_mutex_unlock(&source_lock);
  if (dev && atomic_load(&demo_verbose))
    printf("demo.source: Close(%d) after %" PRIu64 " chunks\n", xfd, made);
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
  if (atomic_load(&demo_verbose))
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
  /* A chunk that is a little late goes out at once, so the mean rate holds. */
  uint64_t now = demo_now_ns();
  if (dev->next_due == 0 || now > dev->next_due + RESYNC_NS)
    dev->next_due = now;
  uint64_t due = dev->next_due;
  dev->next_due += dev->period_ns;
  pthread_mutex_unlock(&source_lock);

  demo_sleep_until(due);

  pthread_mutex_lock(&source_lock);
  dev = source_find(xfd);
  if (!dev) { /* closed while we slept */
    pthread_mutex_unlock(&source_lock);
    return -1;
  }
  uint32_t n = dev->chunk < size ? dev->chunk : size;
  demo_chunk_header head = {.seq = dev->seq++, .made_ns = demo_now_ns()};
  source_total.produced++;
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

cdef* demo_source_class(void) { return &source_class; }

demo_source_totals demo_source_snapshot(void) {
  pthread_mutex_lock(&source_lock);
  demo_source_totals copy = source_total;
  pthread_mutex_unlock(&source_lock);
  return copy;
}
