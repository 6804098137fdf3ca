/*
 * arbor/handles.h - the types that more than one public header names.
 *
 * Audience: hosts, drivers and transports, through the headers that include it.
 *
 * C99 allows a typedef only once in a translation unit, so a type that two
 * headers need is declared here, once, and both include this file.
 */
#ifndef ARBOR_HANDLES_H
#define ARBOR_HANDLES_H

/* A device class's table of operations (arbor/cdef.h). */
typedef struct cdef cdef;

/* The library's timed queue and its worker (arbor/timedq.h). */
typedef struct TimedQueue TimedQueue;

#endif /* ARBOR_HANDLES_H */
