/*
 * drivers/gst_common.h - what the three classes of the GStreamer bridge
 * share: the table of names and pipeline descriptions, the table of open
 * devices with their reference counts, the building and tearing down of a
 * pipeline, and the taking of bytes out of an appsink.
 *
 * Locks (none is held across a call into GStreamer but io, and
 * gst_bus_lock in the bus handler, which parses its message under it):
 *  - gst_names_lock (gst_common.c) guards the names of all three classes,
 *    so that a name can be checked against every class at once.
 *  - gst_class.lock guards one class's device table, reference counts and
 *    counters.
 *  - gst_dev.io serialises the calls that move data through one device
 *    (Read, Write, Convert) and guards the bytes a device holds back. It is
 *    held across pushes and pulls, never while any other lock is taken.
 *  - gst_bus_lock (gst_common.c), one for all devices, guards what the bus
 *    handler records (end of stream, error), which it does on GStreamer's
 *    streaming threads. Being ours, it also publishes a device to those
 *    threads: Open takes it once after filling the device in, and the
 *    freeing of a device takes it once after the pipeline has stopped, so
 *    the handler's work is ordered between the two.
 * A thread holding io may take gst_bus_lock or a class lock, and one
 * holding gst_bus_lock may take a class lock; nothing else nests.
 *
 * A device lives while someone holds a reference: the table holds one from
 * Open to Close, and each Read, Write or Convert one for its call. Close
 * takes the device out of the table first, so no new call finds it, stops
 * the pipeline (which wakes a Read waiting for a sample) and drops the
 * table's reference; whoever drops the last one frees the device.
 */
#ifndef ARBOR_DRIVERS_GST_COMMON_H
#define ARBOR_DRIVERS_GST_COMMON_H

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <pthread.h>
#include <stdatomic.h>

#include "gst_bridge.h"

typedef enum gst_role {
  GST_ROLE_SOURCE,    /* an appsink the engine reads */
  GST_ROLE_SINK,      /* an appsrc the engine writes */
  GST_ROLE_TRANSFORM, /* both, through Convert */
} gst_role;

typedef struct gst_class gst_class;

typedef struct gst_dev {
  /* Set by Open, then read-only. */
  gst_class* cls;
  int32_t xfd;
  char name[GST_BRIDGE_MAX_NAME + 1];
  GstElement* pipeline;
  GstAppSink* appsink; /* source and transform; a reference of our own */
  GstAppSrc* appsrc;   /* sink and transform; a reference of our own */
  guint64 src_max_bytes; /* the appsrc's limit, for the drop test */

  int refs; /* guarded by cls->lock */

  /* Guarded by gst_bus_lock; set by the bus handler on streaming threads. */
  pthread_cond_t bus_changed; /* CLOCK_MONOTONIC, for bounded waits */
  int eos, error;

  atomic_int closing;  /* Close has begun: no end is reported any more */
  atomic_int reported; /* the end of the pipeline has been reported */

  /* Guarded by io. */
  pthread_mutex_t io;
  GstBuffer* rest;    /* the part of a sample not handed on yet */
  gsize rest_off;     /* where in rest the untaken bytes begin */
  guint8* out;        /* transform: output prepared by the sizing call */
  uint32_t out_len;
  int sized;          /* transform: a sizing call prepared out */
} gst_dev;

struct gst_class {
  const char* label; /* "gst.source", ... for messages and GetObjectInfo */
  gst_role role;
  const char* object_info;

  /* The names: guarded by gst_names_lock; list is Retrieve's text. */
  int nnames;
  char names[GST_BRIDGE_MAX_NAMES][GST_BRIDGE_MAX_NAME + 1];
  char pipelines[GST_BRIDGE_MAX_NAMES][GST_BRIDGE_MAX_PIPELINE];
  char texts[GST_BRIDGE_MAX_NAMES]
            [GST_BRIDGE_MAX_NAMES * (GST_BRIDGE_MAX_NAME + 1)];
  _Atomic(const char*) list; /* NULL, or one of texts, never rewritten */

  pthread_mutex_t lock;
  gst_dev* devs[GST_BRIDGE_MAX_OPEN];
  int32_t next_xfd;
  gst_bridge_totals total;
  DeviceCallback callback; /* kept; the bridge pushes nothing of its own */
};

/* The three classes, defined in gst_common.c. */
extern gst_class gst_source_state, gst_sink_state, gst_transform_state;

/* gst_init, once; 0 when GStreamer is usable, else -1 (reported once). */
int gst_common_init(void);

/* Adds name -> pipeline to cls; 0, or -1 after one line on stderr. */
int gst_common_add(gst_class* cls, const char* name, const char* pipeline);

/*
 * Open: builds the pipeline of name, sets it PLAYING and enters it in the
 * table. Returns the descriptor, or -1 after one line on stderr.
 */
int32_t gst_common_open(gst_class* cls, const char* name);

/* Close: see the top of the file. Sinks get end-of-stream first and up to
 * GST_BRIDGE_EOS_WAIT_MS to finish. Nothing happens for an unknown xfd. */
void gst_common_close(gst_class* cls, int32_t xfd);

/* The device of xfd with a reference for the caller, or NULL. */
gst_dev* gst_common_acquire(gst_class* cls, int32_t xfd);
/* Drops a reference; the last one frees the device. */
void gst_common_release(gst_dev* dev);

/*
 * 1 when the pipeline has ended (end of stream, error) and the caller must
 * fail; the first caller to see it prints one line and counts it. A device
 * being closed counts as ended, silently.
 */
int gst_common_ended(gst_dev* dev);

/*
 * Copies at most cap bytes of appsink output to to, starting with what
 * the last call held back. Waits up to wait_ns for a sample only while it
 * has nothing to copy. Without more, stops at the end of a sample; with
 * more, goes on with samples that are ready at once until cap is reached.
 * Keeps what did not fit for the next call. Returns the bytes copied (0:
 * nothing now). Call with dev->io held.
 */
uint32_t gst_common_take(gst_dev* dev, guint8* to, uint32_t cap,
                         GstClockTime wait_ns, int more);

/*
 * Pushes size bytes into the appsrc. Returns 1 when pushed, 0 when the
 * appsrc was full and the bytes were dropped and counted, -1 when the
 * pipeline takes no more (flushing, ended). Call with dev->io held.
 */
int gst_common_push(gst_dev* dev, const void* data, uint32_t size);

/* A copy of cls's counters, open_devices filled in. */
gst_bridge_totals gst_common_snapshot(gst_class* cls);

/* Adds to cls's counters under its lock. */
void gst_common_count(gst_class* cls, uint64_t chunks, uint64_t bytes,
                      uint64_t out_bytes);

#endif /* ARBOR_DRIVERS_GST_COMMON_H */
