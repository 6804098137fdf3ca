/*
 * drivers/gst_common.c - the machinery behind gst.source, gst.sink and
 * gst.transform (see gst_common.h for the locks and the life of a device):
 *
 *   names       gst_common_add, checked against all three classes
 *   pipelines   building one from its description and finding its ends
 *   devices     the table, references, Open and Close
 *   data        taking bytes out of an appsink, pushing bytes into an appsrc
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "gst_common.h"

gst_class gst_source_state = {
    .label = "gst.source",
    .role = GST_ROLE_SOURCE,
    .object_info = "Type=gst;Role=source;",
    .lock = PTHREAD_MUTEX_INITIALIZER,
    .next_xfd = 1,
};
gst_class gst_sink_state = {
    .label = "gst.sink",
    .role = GST_ROLE_SINK,
    .object_info = "Type=gst;Role=sink;",
    .lock = PTHREAD_MUTEX_INITIALIZER,
    .next_xfd = 1,
};
gst_class gst_transform_state = {
    .label = "gst.transform",
    .role = GST_ROLE_TRANSFORM,
    .object_info = "Type=gst;Role=transform;",
    .lock = PTHREAD_MUTEX_INITIALIZER,
    .next_xfd = 1,
};

static pthread_mutex_t gst_names_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_mutex_t gst_bus_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t gst_once = PTHREAD_ONCE_INIT;
static int gst_usable;

static void gst_common_init_once(void) {
  GError* err = NULL;
  gst_usable = gst_init_check(NULL, NULL, &err);
  if (!gst_usable) {
    fprintf(stderr, "gst bridge: GStreamer cannot start: %s\n",
            err ? err->message : "unknown error");
    g_clear_error(&err);
  }
}

int gst_common_init(void) {
  pthread_once(&gst_once, gst_common_init_once);
  return gst_usable ? 0 : -1;
}

void gst_bridge_init(void) { gst_common_init(); }

/* ---------------------------------------------------------------- pipelines */

/* The appsrc or appsink in bin: the one named name, else the first (appsrc)
 * or last (appsink) in the description. A new reference, or NULL. */
static GstElement* find_end(GstElement* bin, const char* name, GType type) {
  GstElement* el = gst_bin_get_by_name(GST_BIN(bin), name);
  if (el && G_TYPE_CHECK_INSTANCE_TYPE(el, type)) return el;
  if (el) gst_object_unref(el);

  /* Bins list their children newest first, so the iteration meets the last
   * element of the description first. */
  GstElement* found = NULL;
  GstIterator* it = gst_bin_iterate_recurse(GST_BIN(bin));
  GValue item = G_VALUE_INIT;
  int want_last = type == GST_TYPE_APP_SINK;
  while (gst_iterator_next(it, &item) == GST_ITERATOR_OK) {
    GstElement* cand = g_value_get_object(&item);
    if (G_TYPE_CHECK_INSTANCE_TYPE(cand, type) && (!found || !want_last)) {
      if (found) gst_object_unref(found);
      found = gst_object_ref(cand);
    }
    g_value_reset(&item);
  }
  g_value_unset(&item);
  gst_iterator_free(it);
  return found;
}

/*
 * Builds the pipeline of description for role into dev (pipeline, appsink,
 * appsrc), not started. Returns 0, or -1 after one line on stderr with
 * nothing left behind.
 */
static int build(gst_dev* dev, gst_class* cls, const char* name,
                 const char* description) {
  GError* err = NULL;
  GstElement* el = gst_parse_launch(description, &err);
  if (!el || err) {
    fprintf(stderr, "%s '%s': bad pipeline description: %s\n", cls->label,
            name, err ? err->message : "nothing built");
    g_clear_error(&err);
    if (el) gst_object_unref(el);
    return -1;
  }
  if (!GST_IS_PIPELINE(el)) { /* a single element comes back bare */
    GstElement* pipe = gst_pipeline_new(NULL);
    gst_bin_add(GST_BIN(pipe), el);
    el = pipe;
  }
  int sink = cls->role != GST_ROLE_SINK, src = cls->role != GST_ROLE_SOURCE;
  GstElement* appsink = sink ? find_end(el, src ? "arbor-out" : "arbor",
                                        GST_TYPE_APP_SINK) : NULL;
  GstElement* appsrc = src ? find_end(el, sink ? "arbor-in" : "arbor",
                                      GST_TYPE_APP_SRC) : NULL;
  if ((sink && !appsink) || (src && !appsrc)) {
    fprintf(stderr, "%s '%s': the pipeline has no %s%s%s\n", cls->label, name,
            sink && !appsink ? "appsink" : "",
            sink && !appsink && src && !appsrc ? " and no " : "",
            src && !appsrc ? "appsrc" : "");
    if (appsink) gst_object_unref(appsink);
    if (appsrc) gst_object_unref(appsrc);
    gst_object_unref(el);
    return -1;
  }
  dev->pipeline = el;
  dev->appsink = appsink ? GST_APP_SINK(appsink) : NULL;
  dev->appsrc = appsrc ? GST_APP_SRC(appsrc) : NULL;
  return 0;
}

/* Sets the bounds and the behaviour the bridge relies on; see gst_bridge.h. */
static void configure(gst_dev* dev) {
  if (dev->appsink) {
    guint max = 0;
    g_object_get(dev->appsink, "max-buffers", &max, NULL);
    if (max == 0) /* unlimited, the default: bound it */
      g_object_set(dev->appsink, "max-buffers", GST_BRIDGE_SINK_BUFFERS, NULL);
    /* A transform's output is handed on, not played: holding it back until
     * its time would only add latency. */
    if (dev->cls->role == GST_ROLE_TRANSFORM)
      g_object_set(dev->appsink, "sync", FALSE, NULL);
  }
  if (dev->appsrc) {
    /* The description's own max-bytes stands, unless it left the default. */
    GParamSpec* spec = g_object_class_find_property(
        G_OBJECT_GET_CLASS(dev->appsrc), "max-bytes");
    guint64 max = 0;
    g_object_get(dev->appsrc, "max-bytes", &max, NULL);
    if (max == 0 || (spec && max == G_PARAM_SPEC_UINT64(spec)->default_value))
      max = GST_BRIDGE_SRC_BYTES;
    dev->src_max_bytes = max;
    /* Never block: a full appsrc drops instead (gst_common_push). Buffers
     * carry the running time at which they arrive, for muxers. */
    g_object_set(dev->appsrc, "max-bytes", max, "block", FALSE, "format",
                 GST_FORMAT_TIME, "is-live", TRUE, "do-timestamp", TRUE, NULL);
  }
}

/*
 * Runs on whichever thread posts a message. Records end of stream and the
 * first error, prints that error, and drops every message: nobody pops this
 * bus, so a message left on it would stay for the pipeline's life (and hold
 * a reference to the element that posted it). A handler that drops a
 * message must unref it. Touches the device only under gst_bus_lock (see
 * gst_common.h).
 */
static GstBusSyncReply on_bus(GstBus* bus, GstMessage* msg, gpointer data) {
  (void)bus;
  gst_dev* dev = data;
  GstMessageType type = GST_MESSAGE_TYPE(msg);
  if (type != GST_MESSAGE_EOS && type != GST_MESSAGE_ERROR) {
    gst_message_unref(msg);
    return GST_BUS_DROP;
  }
  pthread_mutex_lock(&gst_bus_lock);
  int first_error = type == GST_MESSAGE_ERROR && !dev->error;
  if (type == GST_MESSAGE_EOS) dev->eos = 1;
  else dev->error = 1;
  pthread_cond_broadcast(&dev->bus_changed);
  if (first_error && !atomic_load(&dev->closing)) {
    GError* err = NULL;
    gst_message_parse_error(msg, &err, NULL);
    fprintf(stderr, "%s '%s': pipeline error in %s: %s\n", dev->cls->label,
            dev->name, GST_MESSAGE_SRC_NAME(msg),
            err ? err->message : "unknown");
    g_clear_error(&err);
    pthread_mutex_lock(&dev->cls->lock);
    dev->cls->total.errors++;
    pthread_mutex_unlock(&dev->cls->lock);
  }
  pthread_mutex_unlock(&gst_bus_lock);
  gst_message_unref(msg);
  return GST_BUS_DROP;
}

/* ------------------------------------------------------------------- names */

/* 1 when name is acceptable as a resource name (gst_bridge.h, 2). */
static int name_ok(const char* name) {
  size_t n = strlen(name);
  if (n == 0 || n > GST_BRIDGE_MAX_NAME) return 0;
  for (size_t i = 0; i < n; i++)
    if ((unsigned char)name[i] < 0x20 || name[i] == 0x7f ||
        strchr(",;=\\", name[i]))
      return 0;
  return 1;
}

/* The name of any class that name collides with, or NULL. Call with
 * gst_names_lock held. */
static const char* name_clash(gst_class* cls, const char* name) {
  gst_class* all[] = {&gst_source_state, &gst_sink_state, &gst_transform_state};
  for (int c = 0; c < 3; c++)
    for (int i = 0; i < all[c]->nnames; i++) {
      const char* other = all[c]->names[i];
      if (strcmp(other, name) == 0 ||
          (all[c] != cls && (strstr(other, name) || strstr(name, other))))
        return other;
    }
  return NULL;
}

int gst_common_add(gst_class* cls, const char* name, const char* pipeline) {
  if (gst_common_init() != 0) return -1;
  if (!name || !name_ok(name)) {
    fprintf(stderr,
            "%s: resource name '%s' refused: 1 to %d characters, none of "
            "',;=\\' or control characters\n",
            cls->label, name ? name : "(null)", GST_BRIDGE_MAX_NAME);
    return -1;
  }
  if (!pipeline || strlen(pipeline) >= GST_BRIDGE_MAX_PIPELINE) {
    fprintf(stderr, "%s '%s': the pipeline description is %s\n", cls->label,
            name, pipeline ? "too long" : "missing");
    return -1;
  }
  /* Parse once now, so that a bad description fails here, not at a dial. */
  gst_dev probe = {.cls = cls};
  if (build(&probe, cls, name, pipeline) != 0) return -1;
  if (probe.appsink) gst_object_unref(probe.appsink);
  if (probe.appsrc) gst_object_unref(probe.appsrc);
  gst_object_unref(probe.pipeline);

  pthread_mutex_lock(&gst_names_lock);
  const char* clash = name_clash(cls, name);
  int n = cls->nnames;
  if (!clash && n < GST_BRIDGE_MAX_NAMES) {
    strcpy(cls->names[n], name);
    strcpy(cls->pipelines[n], pipeline);
    /* A new text each time, so a Retrieve reading the old one is never
     * disturbed; the old texts stay as they are. */
    char* text = cls->texts[n];
    text[0] = '\0';
    for (int i = 0; i <= n; i++) {
      if (i) strcat(text, ",");
      strcat(text, cls->names[i]);
    }
    cls->nnames = n + 1;
    atomic_store(&cls->list, text);
  }
  pthread_mutex_unlock(&gst_names_lock);

  if (clash)
    fprintf(stderr,
            "%s: resource name '%s' refused: it overlaps '%s', and the engine "
            "finds resources by part of their name; choose another\n",
            cls->label, name, clash);
  else if (n >= GST_BRIDGE_MAX_NAMES)
    fprintf(stderr, "%s: resource name '%s' refused: %d names already\n",
            cls->label, name, GST_BRIDGE_MAX_NAMES);
  return clash || n >= GST_BRIDGE_MAX_NAMES ? -1 : 0;
}

/* ----------------------------------------------------------------- devices */

/* Holds a place in a class's table while Open builds its device; its xfd,
 * 0, matches no descriptor. */
static gst_dev gst_placeholder;

static void dev_free(gst_dev* dev) {
  if (dev->pipeline) {
    /* Stopped, the pipeline has no thread left that could post. */
    gst_element_set_state(dev->pipeline, GST_STATE_NULL);
    GstBus* bus = gst_element_get_bus(dev->pipeline);
    gst_bus_set_sync_handler(bus, NULL, NULL, NULL);
    gst_object_unref(bus);
  }
  pthread_mutex_lock(&gst_bus_lock); /* after the handler's last touch */
  pthread_mutex_unlock(&gst_bus_lock);
  if (dev->appsink) gst_object_unref(dev->appsink);
  if (dev->appsrc) gst_object_unref(dev->appsrc);
  if (dev->pipeline) gst_object_unref(dev->pipeline);
  if (dev->rest) gst_buffer_unref(dev->rest);
  free(dev->out);
  pthread_mutex_destroy(&dev->io);
  pthread_cond_destroy(&dev->bus_changed);
  free(dev);
}

/*
 * Builds, configures and starts the pipeline of name. The device, holding
 * the table's reference, or NULL after one line on stderr.
 */
static gst_dev* open_device(gst_class* cls, const char* name,
                            const char* description) {
  gst_dev* dev = calloc(1, sizeof *dev);
  if (!dev) {
    fprintf(stderr, "%s '%s': out of memory\n", cls->label, name);
    return NULL;
  }
  dev->cls = cls;
  dev->refs = 1; /* the table's */
  strcpy(dev->name, name);
  pthread_mutex_init(&dev->io, NULL);
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&dev->bus_changed, &attr);
  pthread_condattr_destroy(&attr);
  if (build(dev, cls, name, description) != 0) {
    dev_free(dev);
    return NULL;
  }
  configure(dev);
  if (cls->role == GST_ROLE_TRANSFORM &&
      !(dev->out = malloc(GST_BRIDGE_MAX_CHUNK))) {
    fprintf(stderr, "%s '%s': out of memory\n", cls->label, name);
    dev_free(dev);
    return NULL;
  }
  pthread_mutex_lock(&gst_bus_lock); /* publish dev to the handler */
  pthread_mutex_unlock(&gst_bus_lock);
  GstBus* bus = gst_element_get_bus(dev->pipeline);
  gst_bus_set_sync_handler(bus, on_bus, dev, NULL);
  gst_object_unref(bus);

  if (gst_element_set_state(dev->pipeline, GST_STATE_PLAYING) ==
      GST_STATE_CHANGE_FAILURE) {
    pthread_mutex_lock(&gst_bus_lock);
    int told = dev->error; /* the bus handler has printed why */
    pthread_mutex_unlock(&gst_bus_lock);
    if (!told)
      fprintf(stderr, "%s '%s': the pipeline does not start; try it with "
              "gst-launch-1.0\n", cls->label, name);
    atomic_store(&dev->closing, 1);
    dev_free(dev);
    return NULL;
  }
  return dev;
}

int32_t gst_common_open(gst_class* cls, const char* name) {
  if (gst_common_init() != 0) return -1;
  char description[GST_BRIDGE_MAX_PIPELINE];
  int known = 0;
  pthread_mutex_lock(&gst_names_lock);
  for (int i = 0; i < cls->nnames && !known; i++)
    if (name && strcmp(cls->names[i], name) == 0) {
      strcpy(description, cls->pipelines[i]);
      known = 1;
    }
  pthread_mutex_unlock(&gst_names_lock);
  if (!known) {
    fprintf(stderr, "%s: no resource named '%s'; add it before registering\n",
            cls->label, name ? name : "(null)");
    return -1;
  }

  /* Take a place in the table first: a full table must not cost a pipeline
   * started and stopped (a filesink would have truncated its file). */
  int slot = -1;
  pthread_mutex_lock(&cls->lock);
  for (int i = 0; i < GST_BRIDGE_MAX_OPEN && slot < 0; i++)
    if (!cls->devs[i]) cls->devs[slot = i] = &gst_placeholder;
  pthread_mutex_unlock(&cls->lock);
  if (slot < 0) {
    fprintf(stderr, "%s: %d pipelines open already; close one first\n",
            cls->label, GST_BRIDGE_MAX_OPEN);
    return -1;
  }
  gst_dev* dev = open_device(cls, name, description);

  pthread_mutex_lock(&cls->lock);
  cls->devs[slot] = dev;
  int32_t xfd = -1;
  if (dev) {
    dev->xfd = xfd = cls->next_xfd++;
    cls->total.opens++;
  }
  pthread_mutex_unlock(&cls->lock);
  return xfd;
}

void gst_common_close(gst_class* cls, int32_t xfd) {
  gst_dev* dev = NULL;
  pthread_mutex_lock(&cls->lock);
  for (int i = 0; i < GST_BRIDGE_MAX_OPEN && !dev; i++)
    if (xfd > 0 && cls->devs[i] && cls->devs[i]->xfd == xfd) {
      dev = cls->devs[i];
      cls->devs[i] = NULL;
      cls->total.closes++;
    }
  pthread_mutex_unlock(&cls->lock);
  if (!dev) return;

  /* A sink's muxer finishes its file on end-of-stream: wait for it, within a
   * bound. A transform's end would wait on its appsink, which nobody pulls
   * any more: it is stopped at once. */
  if (cls->role == GST_ROLE_SINK &&
      gst_app_src_end_of_stream(dev->appsrc) == GST_FLOW_OK) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    uint64_t ns = (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec +
                  (uint64_t)GST_BRIDGE_EOS_WAIT_MS * 1000000u;
    struct timespec deadline = {.tv_sec = (time_t)(ns / 1000000000u),
                                .tv_nsec = (long)(ns % 1000000000u)};
    pthread_mutex_lock(&gst_bus_lock);
    int rc = 0;
    while (!dev->eos && !dev->error && rc == 0)
      rc = pthread_cond_timedwait(&dev->bus_changed, &gst_bus_lock, &deadline);
    int finished = dev->eos || dev->error;
    pthread_mutex_unlock(&gst_bus_lock);
    if (!finished)
      fprintf(stderr, "%s '%s': end of stream not through in %d ms; "
              "stopping anyway\n", cls->label, dev->name,
              GST_BRIDGE_EOS_WAIT_MS);
  }
  atomic_store(&dev->closing, 1);
  /* Stopping wakes a Read or Convert waiting on the appsink. */
  gst_element_set_state(dev->pipeline, GST_STATE_NULL);
  gst_common_release(dev);
}

gst_dev* gst_common_acquire(gst_class* cls, int32_t xfd) {
  gst_dev* dev = NULL;
  pthread_mutex_lock(&cls->lock);
  for (int i = 0; i < GST_BRIDGE_MAX_OPEN && !dev; i++)
    if (xfd > 0 && cls->devs[i] && cls->devs[i]->xfd == xfd) {
      dev = cls->devs[i];
      dev->refs++;
    }
  pthread_mutex_unlock(&cls->lock);
  return dev;
}

void gst_common_release(gst_dev* dev) {
  pthread_mutex_lock(&dev->cls->lock);
  int last = --dev->refs == 0;
  pthread_mutex_unlock(&dev->cls->lock);
  if (last) dev_free(dev);
}

int gst_common_ended(gst_dev* dev) {
  if (atomic_load(&dev->closing)) return 1;
  pthread_mutex_lock(&gst_bus_lock);
  int error = dev->error, eos = dev->eos;
  pthread_mutex_unlock(&gst_bus_lock);
  /* A source has ended only when its appsink has nothing left to give. */
  if (eos && dev->cls->role == GST_ROLE_SOURCE)
    eos = gst_app_sink_is_eos(dev->appsink);
  if (!error && !eos) return 0;
  if (atomic_exchange(&dev->reported, 1) == 0 && !atomic_load(&dev->closing)) {
    if (!error)
      fprintf(stderr, "%s '%s': end of stream\n", dev->cls->label, dev->name);
    pthread_mutex_lock(&dev->cls->lock);
    if (!error) dev->cls->total.ends++;
    pthread_mutex_unlock(&dev->cls->lock);
  }
  return 1;
}

/* -------------------------------------------------------------------- data */

uint32_t gst_common_take(gst_dev* dev, guint8* to, uint32_t cap,
                         GstClockTime wait_ns, int more) {
  uint32_t done = 0;
  uint64_t samples = 0;
  while (done < cap) {
    if (!dev->rest) {
      /* Wait only while there is nothing to hand on. */
      GstSample* sample =
          gst_app_sink_try_pull_sample(dev->appsink, done ? 0 : wait_ns);
      if (!sample) break;
      samples++;
      GstBuffer* buffer = gst_sample_get_buffer(sample);
      if (buffer && gst_buffer_get_size(buffer) > 0) {
        dev->rest = gst_buffer_ref(buffer);
        dev->rest_off = 0;
      }
      gst_sample_unref(sample);
      continue;
    }
    gsize left = gst_buffer_get_size(dev->rest) - dev->rest_off;
    gsize n = left < cap - done ? left : cap - done;
    gst_buffer_extract(dev->rest, dev->rest_off, to + done, n);
    done += (uint32_t)n;
    dev->rest_off += n;
    if (n == left) {
      gst_buffer_unref(dev->rest);
      dev->rest = NULL;
      if (!more) break;
    }
  }
  if (samples) {
    pthread_mutex_lock(&dev->cls->lock);
    dev->cls->total.samples += samples;
    pthread_mutex_unlock(&dev->cls->lock);
  }
  return done;
}

int gst_common_push(gst_dev* dev, const void* data, uint32_t size) {
  if (gst_app_src_get_current_level_bytes(dev->appsrc) + size >
      dev->src_max_bytes) {
    pthread_mutex_lock(&dev->cls->lock);
    dev->cls->total.dropped_chunks++;
    dev->cls->total.dropped_bytes += size;
    pthread_mutex_unlock(&dev->cls->lock);
    return 0;
  }
  GstBuffer* buffer = gst_buffer_new_memdup(data, size);
  return gst_app_src_push_buffer(dev->appsrc, buffer) == GST_FLOW_OK ? 1 : -1;
}

gst_bridge_totals gst_common_snapshot(gst_class* cls) {
  pthread_mutex_lock(&cls->lock);
  gst_bridge_totals copy = cls->total;
  pthread_mutex_unlock(&cls->lock);
  copy.open_devices = copy.opens - copy.closes;
  return copy;
}

void gst_common_count(gst_class* cls, uint64_t chunks, uint64_t bytes,
                      uint64_t out_bytes) {
  pthread_mutex_lock(&cls->lock);
  cls->total.chunks += chunks;
  cls->total.bytes += bytes;
  cls->total.out_bytes += out_bytes;
  pthread_mutex_unlock(&cls->lock);
}
