/*
 * drivers/gst_transform.c - gst.transform: a pipeline from an appsrc
 * ("arbor-in") to an appsink ("arbor-out") in the middle of a chain, driven
 * through the Convert slot (see gst_bridge.h for the pipelines and the
 * latency, gst_common.h for the life of a device).
 *
 * The engine calls Convert twice per chunk: first with out NULL, to learn
 * how many bytes to allocate, then with a buffer of that size. The sizing
 * call does the work: it pushes the input, collects the output that is
 * ready into the device's own buffer (at most GST_BRIDGE_MAX_CHUNK bytes)
 * and reports its size; the second call copies it out. The input is always
 * taken whole: pushed, or dropped and counted when the appsrc is full. A
 * sizing call that finds no output reports 0, and the engine hands nothing
 * on for that chunk.
 */
#define _POSIX_C_SOURCE 200809L

#include <string.h>

#include "gst_common.h"

/* How long the sizing call waits for output of a pipeline that has none
 * ready: long enough for a quick element to finish the chunk just pushed,
 * short, since Convert runs under the tree's lock on the read thread. */
#define CONVERT_WAIT_NS (GST_BRIDGE_CONVERT_WAIT_MS * GST_MSECOND)

static gst_class* const cls = &gst_transform_state;

/* SetCallback, Retrieve, GetObjectInfo: as for gst.source, with the names
 * added by gst_bridge_add_transform. */
static int32_t tf_set_callback(DeviceCallback callback) {
  pthread_mutex_lock(&cls->lock);
  cls->callback = callback;
  pthread_mutex_unlock(&cls->lock);
  return 0;
}
static const char* tf_retrieve(void) { return atomic_load(&cls->list); }
static const char* tf_object_info(void) { return cls->object_info; }

/*
 * Open: called on the command thread with one of the names. Builds that
 * name's pipeline and sets it PLAYING. No read thread: data comes through
 * Convert. Returns the descriptor, or -1 after one line on stderr.
 */
static int32_t tf_open(const char* name, const char* option,
                       uint32_t* threading) {
  (void)option, (void)threading;
  return gst_common_open(cls, name);
}

/* Close: called on the command thread or the timed queue's worker; stops
 * the pipeline at once, losing what is still inside it. */
static int32_t tf_close(int32_t xfd) {
  gst_common_close(cls, xfd);
  return 0;
}

/* DoEvent: commands and in-band events; a pipeline has no use for them. */
static int32_t tf_do_event(const char* name, int32_t xfd, const char* text) {
  (void)name, (void)xfd, (void)text;
  return 0;
}

/*
 * Pushes in and adds the output that is ready to dev->out. Returns 0, or
 * -1 when the pipeline takes no more. Call with dev->io held.
 */
static int tf_run(gst_dev* dev, const void* in, uint32_t in_size) {
  if (in && in_size && gst_common_push(dev, in, in_size) < 0) return -1;
  if (in_size) gst_common_count(cls, 1, in_size, 0);
  dev->out_len += gst_common_take(dev, dev->out + dev->out_len,
                                  GST_BRIDGE_MAX_CHUNK - dev->out_len,
                                  CONVERT_WAIT_NS, 1);
  return 0;
}

/*
 * Convert: called on a read thread or the command thread, under the tree's
 * read lock. With out NULL: takes all of *in_size and sets *out_size to the
 * bytes ready. With out set: copies at most *out_size of them and sets
 * *out_size to the bytes copied; the input was taken by the sizing call
 * before (a caller that skips that call has its input taken now). *in_size
 * is left as it came: all input is consumed. *flags is not changed.
 * Returns 0, or -1 for an unknown descriptor and once the pipeline has
 * failed or is being closed.
 */
static int32_t tf_convert(int32_t xfd, const void* in, uint32_t* in_size,
                          void* out, uint32_t* out_size, uint32_t* flags) {
  (void)flags;
  gst_dev* dev = gst_common_acquire(cls, xfd);
  if (!dev) return -1;
  int32_t rc = gst_common_ended(dev) ? -1 : 0;
  pthread_mutex_lock(&dev->io);
  if (rc == 0 && (!out || !dev->sized))
    rc = tf_run(dev, in, in_size ? *in_size : 0);
  if (rc == 0 && !out) {
    dev->sized = 1;
    *out_size = dev->out_len;
  } else if (rc == 0) {
    uint32_t n = dev->out_len < *out_size ? dev->out_len : *out_size;
    memcpy(out, dev->out, n);
    memmove(dev->out, dev->out + n, dev->out_len - n);
    dev->out_len -= n;
    dev->sized = 0;
    *out_size = n;
    gst_common_count(cls, 0, 0, n);
  }
  pthread_mutex_unlock(&dev->io);
  gst_common_release(dev);
  return rc;
}

/* The class record; the engine keeps its address while the library runs. */
static cdef tf_class = {
    NULL,            /* Reserved */
    tf_set_callback, /* SetCallback */
    tf_retrieve,     /* Retrieve */
    tf_object_info,  /* GetObjectInfo */
    tf_open,         /* Open */
    tf_close,        /* Close */
    tf_do_event,     /* DoEvent */
    NULL,            /* Write: data comes through Convert */
    NULL,            /* Read: never read */
    tf_convert,      /* Convert */
};

cdef* gst_transform_class(void) { return &tf_class; }

int gst_bridge_add_transform(const char* name, const char* pipeline) {
  return gst_common_add(cls, name, pipeline);
}

gst_bridge_totals gst_transform_snapshot(void) {
  return gst_common_snapshot(cls);
}
