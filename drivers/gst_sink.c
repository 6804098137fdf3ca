/*
 * drivers/gst_sink.c - gst.sink: a pipeline that starts with an appsrc, fed
 * by the engine (see gst_bridge.h for the pipelines and gst_common.h for the
 * life of a device).
 *
 * Each Write becomes one buffer, pushed in the order the chunks come; the
 * bytes are the stream, the chunk boundaries nothing. The appsrc never
 * blocks: a Write that finds it full drops the chunk and counts it, so a
 * pipeline that cannot keep up loses data instead of holding up the read
 * thread of the source, which feeds every other sink of that source too.
 */
#define _POSIX_C_SOURCE 200809L

#include "gst_common.h"

static gst_class* const cls = &gst_sink_state;

/* SetCallback, Retrieve, GetObjectInfo: as for gst.source, with the names
 * added by gst_bridge_add_sink. */
static int32_t sink_set_callback(DeviceCallback callback) {
  pthread_mutex_lock(&cls->lock);
  cls->callback = callback;
  pthread_mutex_unlock(&cls->lock);
  return 0;
}
static const char* sink_retrieve(void) { return atomic_load(&cls->list); }
static const char* sink_object_info(void) { return cls->object_info; }

/*
 * Open: called on the command thread with one of the names. Builds that
 * name's pipeline and sets it PLAYING. No read thread; the option is not
 * read. Returns the descriptor, or -1 after one line on stderr.
 */
static int32_t sink_open(const char* name, const char* option,
                         uint32_t* threading) {
  (void)option, (void)threading;
  return gst_common_open(cls, name);
}

/*
 * Close: called on the command thread or the timed queue's worker. Sends
 * end-of-stream and waits for it to reach the end of the pipeline, at most
 * GST_BRIDGE_EOS_WAIT_MS, so that a muxer writes its index and a file is
 * complete; then stops the pipeline. A Write still running finishes first
 * or fails.
 */
static int32_t sink_close(int32_t xfd) {
  gst_common_close(cls, xfd);
  return 0;
}

/* DoEvent: commands and in-band events; a pipeline has no use for them. */
static int32_t sink_do_event(const char* name, int32_t xfd, const char* text) {
  (void)name, (void)xfd, (void)text;
  return 0;
}

/*
 * Write: called on a read thread or the command thread; data is the
 * engine's, copied into a buffer of the pipeline's. Returns size, also for
 * a chunk dropped because the appsrc was full (counted in dropped_chunks),
 * or -1 for an unknown descriptor and once the pipeline has failed or is
 * being closed.
 */
static int32_t sink_write(int32_t xfd, const void* data, uint32_t size,
                          uint32_t flags) {
  (void)flags;
  gst_dev* dev = gst_common_acquire(cls, xfd);
  if (!dev) return -1;
  int pushed = -1;
  if (!gst_common_ended(dev)) {
    pthread_mutex_lock(&dev->io);
    pushed = size ? gst_common_push(dev, data, size) : 1;
    pthread_mutex_unlock(&dev->io);
  }
  if (pushed > 0) gst_common_count(cls, 1, size, 0);
  gst_common_release(dev);
  return pushed < 0 ? -1 : (int32_t)size;
}

/* The class record; the engine keeps its address while the library runs. */
static cdef sink_class = {
    NULL,              /* Reserved */
    sink_set_callback, /* SetCallback */
    sink_retrieve,     /* Retrieve */
    sink_object_info,  /* GetObjectInfo */
    sink_open,         /* Open */
    sink_close,        /* Close */
    sink_do_event,     /* DoEvent */
    sink_write,        /* Write */
    NULL,              /* Read: a sink is never read */
    NULL,              /* Convert: not a transform */
};

cdef* gst_sink_class(void) { return &sink_class; }

int gst_bridge_add_sink(const char* name, const char* pipeline) {
  return gst_common_add(cls, name, pipeline);
}

gst_bridge_totals gst_sink_snapshot(void) { return gst_common_snapshot(cls); }
