/*
 * drivers/sample_internal.h - what the sample drivers (file.source,
 * file.sink, null.sink) share: their verbosity and the splitting of an
 * option text into '|'-separated fields. The clock helpers come from
 * demo_internal.h; they are inline and need nothing of the demo library.
 */
#ifndef ARBOR_DRIVERS_SAMPLE_INTERNAL_H
#define ARBOR_DRIVERS_SAMPLE_INTERNAL_H

#include <stdatomic.h>
#include <string.h>

/* Non-zero: informational lines go to stderr (sample_drivers_set_verbose).
 * Defined in null_sink.c. */
extern atomic_int sample_verbose;

/* The longest option text the sample drivers accept. */
#define SAMPLE_MAX_OPTION 1024

/*
 * Splits text, in place, at each '|' into at most max fields; returns how
 * many. Empty fields are kept, so "a||b" gives three. A text with more than
 * max fields gives max + 1, which callers treat as an error.
 */
static inline int sample_split(char* text, char** fields, int max) {
  int n = 0;
  for (char* p = text;; p++) {
    if (n == max) return max + 1;
    fields[n++] = p;
    p = strchr(p, '|');
    if (!p) return n;
    *p = '\0';
  }
}

#endif /* ARBOR_DRIVERS_SAMPLE_INTERNAL_H */
