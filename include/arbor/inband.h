/*
 * arbor/inband.h - what reaches a tree from outside its own read thread:
 * media and in-band text from a peer, from the service or from a local
 * driver, carried to the command queue's consumer in one record.
 *
 * Audience: engine internals: exported because the engine's design exports
 * them; hosts and drivers do not call them.
 *
 * Conventions:
 *  1. Layout. An InbandRecord is a head followed at once by length bytes of
 *     payload; the payload starts sizeof(InbandRecord) bytes after the
 *     head's start. A record travels as a command's payload: the pusher
 *     passes sizeof(InbandRecord) + length as the size, and the queue's copy
 *     is what the command reads.
 *  2. Keys. uid, device and xfd name the tree (a root's class, owner and
 *     descriptor). A record for no known tree is dropped.
 *  3. Texts. The payload of Tree_inband is a text whose NUL lies within
 *     length bytes; length counts it. A record without one is refused with
 *     a level-0 line before anything sees the text.
 *  4. Threads. Both commands run on the consumer, through cmdq_push; they
 *     take the tree's lock for reading and call driver slots (DoEvent,
 *     Write, Convert) and sendasc from the consumer.
 *  5. Failures are dropped records, never fatal: nothing comes back.
 */
#ifndef ARBOR_INBAND_H
#define ARBOR_INBAND_H

#include <stddef.h>
#include <stdint.h>

#include "arbor/cdef.h"
#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/*
 * The head of an incoming chunk or event.
 *  uid     the peer's uid for data from the LAN, else 0.
 *  device  the source's class: the LAN class, the WAN class or a driver's.
 *  xfd     the pipe for data from the network, else the driver's descriptor.
 *  flags   the flag word of sendasc as far as the source gave one; the
 *          command ORs in the packet type (4 media, 5 in-band text).
 *  length  payload bytes; for a text its NUL included.
 */
typedef struct InbandRecord {
  uint32_t uid;
  cdef* device;
  int32_t xfd;
  uint32_t flags;
  uint32_t length;
} InbandRecord;

#define ARBOR_INBAND_WORD sizeof(void*)
ARBOR_RECORD_ASSERT(offsetof(InbandRecord, uid) == 0, "InbandRecord.uid");
ARBOR_RECORD_ASSERT(offsetof(InbandRecord, device) == ARBOR_INBAND_WORD,
                    "InbandRecord.device");
ARBOR_RECORD_ASSERT(offsetof(InbandRecord, xfd) == 2 * ARBOR_INBAND_WORD,
                    "InbandRecord.xfd");
ARBOR_RECORD_ASSERT(offsetof(InbandRecord, flags) ==
                        2 * ARBOR_INBAND_WORD + 4,
                    "InbandRecord.flags");
ARBOR_RECORD_ASSERT(offsetof(InbandRecord, length) ==
                        2 * ARBOR_INBAND_WORD + 8,
                    "InbandRecord.length");
ARBOR_RECORD_ASSERT(sizeof(InbandRecord) ==
                        (2 * ARBOR_INBAND_WORD + 12 + ARBOR_INBAND_WORD - 1) /
                            ARBOR_INBAND_WORD * ARBOR_INBAND_WORD,
                    "InbandRecord size");
#undef ARBOR_INBAND_WORD

/*
 * Command: the payload of record (size bytes, head included) is an in-band
 * text for the tree it names. Devices of the tree get it through DoEvent,
 * LAN peers and the WAN as a packet of type 5, during the walk. A size no
 * larger than the head is dropped silently; an empty payload, one without
 * a NUL within length (or longer than the record), or no known tree logs
 * "Tree_inband: <length>: <text>" at level 0 and drops the record. arg is
 * unused.
 */
ARBOR_EXPORT void Tree_inband(uintptr_t arg, const void* record,
                              uint32_t size);

/*
 * Command: the payload of record is media for the tree it names, walked as
 * a chunk of the tree's own source (packet type 4); network writes go out
 * after the tree's lock is released. An empty payload, a payload longer
 * than the record, or no known tree drops the record silently. arg is
 * unused.
 */
ARBOR_EXPORT void Tree_inflate(uintptr_t arg, const void* record,
                               uint32_t size);

ARBOR_END_DECLS

#endif /* ARBOR_INBAND_H */
