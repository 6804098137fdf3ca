/*
 * drivers/demo_drivers.h - two sample device classes for hosts and tests:
 * a paced source of timestamped chunks and a sink that checks and counts
 * them. Both are complete cdef tables, written slot by slot in their own
 * files (demo_source.c, demo_sink.c), and are meant to be read by a device
 * maker writing a first driver.
 *
 *  demo.source  asks the engine for a read thread; Read paces chunks at a
 *               rate given by the hop's option "<chunks-per-second>/<bytes>"
 *               (default 50/1024). Each chunk begins with a
 *               demo_chunk_header: a sequence number per opened device and
 *               the CLOCK_MONOTONIC time it was made.
 *  demo.sink    writes every chunk to the file named by the hop's option
 *               (default DEMO_SINK_DEFAULT_PATH; "/dev/null" to only count),
 *               counts chunks and bytes, checks the sequence and measures
 *               the latency from the chunk's stamp (meaningful on one
 *               machine only, where both clocks are the same).
 *
 * Conventions:
 *  1. The class records live as long as the process; SysRegisterDev keeps
 *     their addresses.
 *  2. The snapshot and wait calls may be made from any thread; the wait
 *     calls block the caller up to their time limit and never call into the
 *     engine.
 *  3. Each class serves at most DEMO_MAX_OPEN open devices at once.
 */
#ifndef ARBOR_DRIVERS_DEMO_DRIVERS_H
#define ARBOR_DRIVERS_DEMO_DRIVERS_H

#include <stdint.h>

#include "arbor/cdef.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The engine reads at most this many bytes at once (its read buffer). */
#define DEMO_MAX_CHUNK 63488
#define DEMO_MAX_OPEN 4
#define DEMO_SINK_DEFAULT_PATH "/tmp/arbor-demo-sink.bin"

/* Every chunk begins with this header, in host byte order. */
typedef struct demo_chunk_header {
  uint64_t seq;     /* 0, 1, 2, ... per opened source device */
  uint64_t made_ns; /* CLOCK_MONOTONIC time at which Read made the chunk */
} demo_chunk_header;

typedef struct demo_source_totals {
  uint64_t produced;      /* chunks handed to the engine */
  uint32_t opens, closes; /* successful Open calls; Close calls that found one */
} demo_source_totals;

typedef struct demo_sink_totals {
  uint64_t chunks, bytes, out_of_order, short_chunks;
  uint64_t latency_sum_ns, latency_max_ns;
  uint32_t opens, closes;
} demo_sink_totals;

/* The two class records, for SysRegisterDev. Never null. */
cdef* demo_source_class(void);
cdef* demo_sink_class(void);

/* Copies of the counters, taken under the driver's lock. */
demo_source_totals demo_source_snapshot(void);
demo_sink_totals demo_sink_snapshot(void);

/* Waits up to ms for every opened sink device to be closed (at once when
 * none is open). 1 when that happened, 0 on time-out. */
int demo_sink_wait_closed(int ms);

/* Waits up to ms until at least chunks chunks have reached the sink.
 * 1 when they did, 0 on time-out. */
int demo_sink_wait_chunks(uint64_t chunks, int ms);

/* Whether the drivers print a line for Open, Close and DoEvent (default 1). */
void demo_drivers_set_verbose(int verbose);

#ifdef __cplusplus
}
#endif

#endif /* ARBOR_DRIVERS_DEMO_DRIVERS_H */
