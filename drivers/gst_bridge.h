/*
 * drivers/gst_bridge.h - three device classes that join GStreamer pipelines
 * to the engine: gst.source (a pipeline ending in an appsink, read by the
 * engine), gst.sink (a pipeline starting with an appsrc, fed by the engine)
 * and gst.transform (appsrc to appsink in the middle of a chain, through
 * the Convert slot). In the static library arbor-gst-bridge, built when
 * pkg-config finds gstreamer-1.0 and gstreamer-app-1.0; its users see the
 * compile definition ARBOR_HAVE_GST=1.
 *
 * A host names its resources before it registers the classes: each name
 * maps to a pipeline description in gst-launch-1.0 syntax, and one class
 * serves all the names added to it. Open builds a fresh pipeline from the
 * description and sets it PLAYING; Close tears it down.
 *
 *  gst.source     gst_bridge_add_source("cam", "videotestsrc is-live=true !
 *                 x264enc tune=zerolatency ! h264parse config-interval=-1 !
 *                 video/x-h264,stream-format=byte-stream,alignment=au !
 *                 appsink name=arbor"). Read takes the samples of the
 *                 appsink named "arbor" (else of the last appsink in the
 *                 description). A sample larger than the engine's buffer
 *                 (GST_BRIDGE_MAX_CHUNK) goes out in consecutive chunks.
 *                 At the end of the stream, or on a pipeline error, Read
 *                 returns -1 (one line on stderr), which ends the sessions.
 *  gst.sink       gst_bridge_add_sink("rec", "appsrc name=arbor
 *                 caps=video/x-h264,stream-format=byte-stream ! h264parse !
 *                 matroskamux ! filesink location=/tmp/rec.mkv"). Write
 *                 pushes each chunk, in order, as one buffer into the appsrc
 *                 named "arbor" (else the first appsrc), stamped with the
 *                 pipeline's running time. Chunk boundaries mean nothing:
 *                 for a byte stream such as H.264 byte-stream with
 *                 h264parse downstream, the bytes in order are enough, and
 *                 the parser finds the frames again. Caps on the appsrc
 *                 are optional, and must not claim an alignment for that
 *                 reason. Close sends end-of-stream first and waits for it
 *                 (GST_BRIDGE_EOS_WAIT_MS at most), so that muxers finish
 *                 their files.
 *  gst.transform  gst_bridge_add_transform("dec", "appsrc name=arbor-in
 *                 caps=... ! ... ! appsink name=arbor-out"). Convert pushes
 *                 its input into arbor-in and hands on whatever arbor-out
 *                 has ready then: output lags input by the pipeline's own
 *                 latency (an encoder's look-ahead, a decoder's reordering),
 *                 so the output for one chunk usually comes out of a later
 *                 Convert, and what is still inside when the session ends
 *                 is lost. The appsink is not synchronised to the clock:
 *                 output goes on as soon as it is ready. Convert waits at
 *                 most GST_BRIDGE_CONVERT_WAIT_MS for output, and hands on
 *                 at most GST_BRIDGE_MAX_CHUNK bytes per call; the rest
 *                 comes out with later calls.
 *
 * Memory stays bounded whatever the two ends do: the appsinks hold at most
 * GST_BRIDGE_SINK_BUFFERS samples (then the pipeline waits for the engine
 * to read), and the appsrcs at most GST_BRIDGE_SRC_BYTES bytes: a Write or
 * Convert that finds its appsrc full drops the chunk and counts it, so a
 * slow pipeline never stalls the engine's data path.
 *
 * Conventions:
 *  1. gst_bridge_init calls gst_init once; later calls do nothing. The add
 *     functions and the classes' Open call it too, so a host that already
 *     initialised GStreamer need not.
 *  2. Names are added before the classes are registered, from any thread.
 *     A name holds 1 to GST_BRIDGE_MAX_NAME bytes, none of them ',', ';',
 *     '=', '\' or a control character, and is unique across the three
 *     classes; since the engine finds a class by a substring of its list of
 *     names, a name that is part of a name of another class is refused too.
 *  3. The add functions return 0, or -1 after one line on stderr (bad
 *     pipeline description, missing appsink or appsrc, name refused, table
 *     full), and then nothing has changed.
 *  4. Each class serves at most GST_BRIDGE_MAX_OPEN open devices at once.
 *  5. The snapshot calls may be made from any thread at any time.
 */
#ifndef ARBOR_DRIVERS_GST_BRIDGE_H
#define ARBOR_DRIVERS_GST_BRIDGE_H

#include <stdint.h>

#include "arbor/cdef.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The engine reads at most this many bytes at once (its read buffer). */
#define GST_BRIDGE_MAX_CHUNK 63488
#define GST_BRIDGE_MAX_NAMES 16 /* names per class */
#define GST_BRIDGE_MAX_NAME 63  /* bytes per name */
#define GST_BRIDGE_MAX_PIPELINE 4096 /* bytes per pipeline description */
#define GST_BRIDGE_MAX_OPEN 8
#define GST_BRIDGE_SINK_BUFFERS 16        /* samples an appsink holds */
#define GST_BRIDGE_SRC_BYTES (4u << 20)   /* bytes an appsrc holds */
#define GST_BRIDGE_EOS_WAIT_MS 3000       /* Close of a sink: EOS wait */
#define GST_BRIDGE_CONVERT_WAIT_MS 2      /* Convert: wait for output */

/* The counters of one class, since the process started. */
typedef struct gst_bridge_totals {
  uint64_t chunks;          /* chunks read (source), written (sink), or
                               converted (transform: chunks of input) */
  uint64_t bytes;           /* their bytes */
  uint64_t samples;         /* samples taken from an appsink */
  uint64_t out_bytes;       /* transform: bytes handed on */
  uint64_t dropped_chunks;  /* Write or Convert found its appsrc full */
  uint64_t dropped_bytes;
  uint32_t opens, closes;   /* successful Opens; Closes that found a device */
  uint32_t open_devices;    /* opens - closes */
  uint32_t errors;          /* pipelines that posted an error */
  uint32_t ends;            /* source pipelines that reached their end */
} gst_bridge_totals;

/* Calls gst_init once (see convention 1). */
void gst_bridge_init(void);

/* Map a resource name to a pipeline description (see the top of the file
 * and conventions 2 and 3). */
int gst_bridge_add_source(const char* name, const char* pipeline);
int gst_bridge_add_sink(const char* name, const char* pipeline);
int gst_bridge_add_transform(const char* name, const char* pipeline);

/* The class records, for SysRegisterDev. Never null. */
cdef* gst_source_class(void);
cdef* gst_sink_class(void);
cdef* gst_transform_class(void);

/* Copies of each class's counters. */
gst_bridge_totals gst_source_snapshot(void);
gst_bridge_totals gst_sink_snapshot(void);
gst_bridge_totals gst_transform_snapshot(void);

#ifdef __cplusplus
}
#endif

#endif /* ARBOR_DRIVERS_GST_BRIDGE_H */
