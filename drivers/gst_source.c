/*
 * drivers/gst_source.c - gst.source: a pipeline that ends in an appsink,
 * read by the engine's read thread (see gst_bridge.h for the pipelines and
 * gst_common.h for the life of a device).
 *
 * Each Read hands on the bytes of one sample, or as much of it as the
 * engine's buffer takes: the rest of a large sample waits in the device for
 * the following Reads, so chunks keep the order of the bytes and a small
 * sample always starts a chunk of its own.
 */
#define _POSIX_C_SOURCE 200809L

#include "gst_common.h"

/*
 * How long one Read waits for a sample. Read then returns 0, "nothing now",
 * and the engine calls again. Close does not depend on it: stopping the
 * pipeline wakes the wait at once.
 */
#define READ_WAIT_NS (100 * GST_MSECOND)

static gst_class* const cls = &gst_source_state;

/* SetCallback: called once, by SysRegisterDev, with the class mutex held.
 * Kept, as every driver should; the bridge pushes nothing of its own. */
static int32_t src_set_callback(DeviceCallback callback) {
  pthread_mutex_lock(&cls->lock);
  cls->callback = callback;
  pthread_mutex_unlock(&cls->lock);
  return 0;
}

/*
 * Retrieve: the names added with gst_bridge_add_source, comma-separated, or
 * NULL before the first. Called for every hop of every request with the
 * class mutex held: the text was made by the add, this only loads it.
 */
static const char* src_retrieve(void) { return atomic_load(&cls->list); }

/* GetObjectInfo: a dictionary text describing the class; Type names it. */
static const char* src_object_info(void) { return cls->object_info; }

/*
 * Open: called on the command thread with one of the names. Builds that
 * name's pipeline and sets it PLAYING; asks for a read thread. The option
 * is not read. Returns the descriptor, or -1 after one line on stderr.
 */
static int32_t src_open(const char* name, const char* option,
                        uint32_t* threading) {
  (void)option;
  int32_t xfd = gst_common_open(cls, name);
  if (xfd > 0) *threading = 1;
  return xfd;
}

/*
 * Close: called on the command thread or the timed queue's worker, maybe
 * while the read thread waits in Read: stopping the pipeline wakes it, and
 * it returns -1. The pipeline is freed by whichever finishes last.
 */
static int32_t src_close(int32_t xfd) {
  gst_common_close(cls, xfd);
  return 0;
}

/* DoEvent: commands and in-band events; a pipeline has no use for them. */
static int32_t src_do_event(const char* name, int32_t xfd, const char* text) {
  (void)name, (void)xfd, (void)text;
  return 0;
}

/*
 * Read: called on the read thread only. Returns the bytes copied into
 * buffer, 0 when no sample came within READ_WAIT_NS, or -1 once the
 * pipeline has ended (end of stream or an error, reported once on stderr)
 * or the device is closed.
 */
static int32_t src_read(int32_t xfd, void* buffer, uint32_t size,
                        uint32_t* flags) {
  (void)flags; /* plain media: the engine marks it as such */
  gst_dev* dev = gst_common_acquire(cls, xfd);
  if (!dev) return -1;
  uint32_t cap = size < GST_BRIDGE_MAX_CHUNK ? size : GST_BRIDGE_MAX_CHUNK;
  pthread_mutex_lock(&dev->io);
  int32_t n = (int32_t)gst_common_take(dev, buffer, cap, READ_WAIT_NS, 0);
  pthread_mutex_unlock(&dev->io);
  if (n == 0 && gst_common_ended(dev)) n = -1;
  if (n > 0) gst_common_count(cls, 1, (uint64_t)n, 0);
  gst_common_release(dev);
  return n;
}

/* The class record; the engine keeps its address while the library runs. */
static cdef src_class = {
    NULL,             /* Reserved */
    src_set_callback, /* SetCallback */
    src_retrieve,     /* Retrieve */
    src_object_info,  /* GetObjectInfo */
    src_open,         /* Open */
    src_close,        /* Close */
    src_do_event,     /* DoEvent */
    NULL,             /* Write: a source takes no data */
    src_read,         /* Read: required, since Open asks for threading */
    NULL,             /* Convert: not a transform */
};

cdef* gst_source_class(void) { return &src_class; }

int gst_bridge_add_source(const char* name, const char* pipeline) {
  return gst_common_add(cls, name, pipeline);
}

gst_bridge_totals gst_source_snapshot(void) {
  return gst_common_snapshot(cls);
}
