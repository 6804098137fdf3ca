/*
 * arbor/rsc.h - remote session control: the layer between control messages
 * and the session forest.
 *
 * Conventions:
 *  1. rsc_init and rsc_uninit are steps of SysInit and SysExit; a host does
 *     not call them itself.
 *  2. rsc_uninit blocks until every command accepted before it has run and
 *     the forest is swept empty; it must not run on the command queue's
 *     consumer thread, a timed-queue handler or a driver operation.
 */
#ifndef ARBOR_RSC_H
#define ARBOR_RSC_H

#include <stdint.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/*
 * Starts the forest and its command queue's consumer thread. Returns 0; a
 * failed start is logged, and the queue then refuses every command.
 */
ARBOR_EXPORT int32_t rsc_init(void);

/*
 * Stops the command queue (every command accepted before runs to its end)
 * and sweeps the forest empty, telling the owner of each session still
 * open. Returns 0.
 */
ARBOR_EXPORT int32_t rsc_uninit(void);

ARBOR_END_DECLS

#endif /* ARBOR_RSC_H */
