/*
 * drivers/null_sink.c - null.sink, which takes every chunk and keeps only
 * its count: the cheapest possible end of a chain, for measuring what
 * reaches a peer. Also home of the sample drivers' shared verbosity.
 *
 * Open and Close run on the command thread, Write on a read thread or the
 * command thread, snapshots on any thread; nsink_lock guards it all and is
 * held only to touch the table and the counters.
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>

#include "sample_drivers.h"
#include "sample_internal.h"

atomic_int sample_verbose = 1;

static pthread_mutex_t nsink_lock = PTHREAD_MUTEX_INITIALIZER;
static int32_t nsink_open_xfd[SAMPLE_MAX_OPEN]; /* 0: slot free */
static int32_t nsink_next_xfd = 1;
static sample_totals nsink_total;
static DeviceCallback nsink_callback; /* kept, not used by this driver */

/* The slot of descriptor xfd, or NULL. Call with nsink_lock held. */
static int32_t* nsink_find(int32_t xfd) {
  for (int i = 0; i < SAMPLE_MAX_OPEN; i++)
    if (xfd > 0 && nsink_open_xfd[i] == xfd) return &nsink_open_xfd[i];
  return NULL;
}

/* SetCallback, Retrieve, GetObjectInfo: as for file.source. */
static int32_t nsink_set_callback(DeviceCallback callback) {
  nsink_callback = callback;
  return 0;
}
static const char* nsink_retrieve(void) { return "null.sink"; }
static const char* nsink_object_info(void) { return "Type=null;Role=sink;"; }

/* Open: called on the command thread; the option is not read. No read
 * thread. Returns the descriptor, or -1 when the table is full. */
static int32_t nsink_open(const char* name, const char* option,
                          uint32_t* threading) {
  (void)option, (void)threading;
  int32_t xfd = -1;
  pthread_mutex_lock(&nsink_lock);
  int32_t* slot = NULL;
  for (int i = 0; i < SAMPLE_MAX_OPEN && !slot; i++)
    if (nsink_open_xfd[i] == 0) slot = &nsink_open_xfd[i];
  if (slot) {
    *slot = xfd = nsink_next_xfd++;
    nsink_total.opens++;
  }
  pthread_mutex_unlock(&nsink_lock);
  if (xfd < 0)
    fprintf(stderr, "null.sink: %d devices open already; close one first\n",
            SAMPLE_MAX_OPEN);
  else if (atomic_load(&sample_verbose))
    fprintf(stderr, "null.sink: Open(%s) -> %d\n", name, xfd);
  return xfd;
}

/* Close: called on the command thread or the timed queue's worker. */
static int32_t nsink_close(int32_t xfd) {
  pthread_mutex_lock(&nsink_lock);
  int32_t* slot = nsink_find(xfd);
  if (slot) {
    *slot = 0;
    nsink_total.closes++;
  }
  pthread_mutex_unlock(&nsink_lock);
  return 0;
}

/* DoEvent: commands and in-band events are taken and forgotten. */
static int32_t nsink_do_event(const char* name, int32_t xfd,
                              const char* text) {
  (void)name, (void)xfd, (void)text;
  return 0;
}

/* Write: counts the chunk. Returns size, or -1 for an unknown descriptor. */
static int32_t nsink_write(int32_t xfd, const void* data, uint32_t size,
                           uint32_t flags) {
  (void)data, (void)flags;
  pthread_mutex_lock(&nsink_lock);
  int known = nsink_find(xfd) != NULL;
  if (known) {
    nsink_total.chunks++;
    nsink_total.bytes += size;
  }
  pthread_mutex_unlock(&nsink_lock);
  return known ? (int32_t)size : -1;
}

/* The class record; the engine keeps its address while the library runs. */
static cdef nsink_class = {
    NULL,               /* Reserved */
    nsink_set_callback, /* SetCallback */
    nsink_retrieve,     /* Retrieve */
    nsink_object_info,  /* GetObjectInfo */
    nsink_open,         /* Open */
    nsink_close,        /* Close */
    nsink_do_event,     /* DoEvent */
    nsink_write,        /* Write */
    NULL,               /* Read: a sink is never read */
    NULL,               /* Convert: not a transform */
};

cdef* null_sink_class(void) { return &nsink_class; }

sample_totals null_sink_snapshot(void) {
  pthread_mutex_lock(&nsink_lock);
  sample_totals copy = nsink_total;
  pthread_mutex_unlock(&nsink_lock);
  copy.open_devices = copy.opens - copy.closes;
  return copy;
}

void sample_drivers_set_verbose(int verbose) {
  atomic_store(&sample_verbose, verbose != 0);
}
