/*
 * drivers/sample_drivers.h - three small device classes a host can serve at
 * once: a file read in chunks, a file written chunk by chunk, and a sink
 * that only counts. Each is a complete cdef table in a file of its own
 * (file_source.c, file_sink.c, null_sink.c), in the static library
 * arbor-sample-drivers.
 *
 *  file.source  asks the engine for a read thread; Read returns the file's
 *               next chunk, and at the end of the file starts again from
 *               its beginning ("loop") or returns -1, which ends the
 *               sessions of the device. The hop's option:
 *                   <path>[|loop][|<chunk-bytes>][|<chunks-per-second>/s]
 *               e.g. "/srv/clip.h264|loop|4096|200/s". The fields after the
 *               path come in any order. Chunks default to SAMPLE_MAX_CHUNK
 *               bytes and to no pacing (as fast as the engine reads).
 *  file.sink    writes every chunk to the file named by the hop's option,
 *               created or truncated at Open, "<path>".
 *  null.sink    takes and counts every chunk; its option is not read.
 *
 * The option reaches Open from a dial's text, where ';' and '=' separate
 * the dictionary's fields: that is why the fields above are separated by
 * '|' and no field is written "key=value".
 *
 * Conventions:
 *  1. The class records live as long as the process; SysRegisterDev keeps
 *     their addresses.
 *  2. The snapshot calls may be made from any thread, at any time, also
 *     before registration; they never call into the engine.
 *  3. Each class serves at most SAMPLE_MAX_OPEN open devices at once; an
 *     Open beyond that fails with a line on stderr.
 *  4. Errors are one line on stderr. Informational lines (an Open, the end
 *     of a file) go to stderr too, unless sample_drivers_set_verbose(0).
 */
#ifndef ARBOR_DRIVERS_SAMPLE_DRIVERS_H
#define ARBOR_DRIVERS_SAMPLE_DRIVERS_H

#include <stdint.h>

#include "arbor/cdef.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The engine reads at most this many bytes at once (its read buffer). */
#define SAMPLE_MAX_CHUNK 63488
#define SAMPLE_MAX_OPEN 8

/* The counters of one class, since the process started. */
typedef struct sample_totals {
  uint64_t chunks;        /* chunks read (source) or taken (sinks) */
  uint64_t bytes;         /* their bytes */
  uint64_t failures;      /* Read or Write calls that returned -1 */
  uint32_t opens, closes; /* successful Opens; Closes that found a device */
  uint32_t open_devices;  /* opens - closes */
} sample_totals;

/* The three class records, for SysRegisterDev. Never null. */
cdef* file_source_class(void);
cdef* file_sink_class(void);
cdef* null_sink_class(void);

/* Copies of each class's counters, taken under the driver's lock. */
sample_totals file_source_snapshot(void);
sample_totals file_sink_snapshot(void);
sample_totals null_sink_snapshot(void);

/* Whether the drivers print informational lines (default 1). */
void sample_drivers_set_verbose(int verbose);

#ifdef __cplusplus
}
#endif

#endif /* ARBOR_DRIVERS_SAMPLE_DRIVERS_H */
