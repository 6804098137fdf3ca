/*
 * arbor/net.h - what a host may set and read of the socket transport,
 * libarbor-net.so, beyond the twelve functions of arbor/transport.h.
 *
 * Conventions:
 *  1. Threads. Every function here may be called from any thread at any
 *     time, also from inside the transport's callbacks. None of them blocks
 *     beyond a short internal lock.
 *  2. Ownership. Records and arrays are the caller's; the transport fills
 *     them during the call and keeps no pointer to them.
 *  3. Failures are results: -1 with nothing written, as each function says.
 *  4. Counters are read one by one with relaxed loads: a record is a recent
 *     picture, not one instant across all its fields.
 *
 * LAN options. InitLAN's first word is a pointer to option text in the
 * dictionary form "key=value;" (or 0 for all defaults); the other two words
 * are not used. A value out of range, or a key of a feature this build does
 * not have yet, makes InitLAN fail with a level-0 log line that names it.
 *   listen=<address>        literal IPv4/IPv6 address to listen on; 0.0.0.0
 *   port=<0..65535>         TCP listen port; 0 (default) picks a free port,
 *                           which arbor_net_lan_port() tells
 *   io_threads=<1..16>      threads that run the sockets and the callbacks; 1
 *   budget=<65547..2^30>    bytes one peer's output queue may hold before
 *                           media frames are dropped; 4194304 (4 MiB)
 *   version=<0..65535>      the VERSION announced to peers; 100
 *   peer_timeout_ms=<100..3600000>  a peer with queued output that takes no
 *                           byte for this long is declared gone; 10000
 * Not yet supported, refused: key (LAN key), presence, presence_group,
 * presence_port, presence_interval_ms.
 */
#ifndef ARBOR_NET_H
#define ARBOR_NET_H

#include <stddef.h>
#include <stdint.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/* Statistics of one known LAN peer, 320 bytes. */
typedef struct arbor_net_peer_info {
  uint16_t id;            /* the peer id the engine sees as "from" */
  uint16_t listen_port;   /* the port this peer is dialled on; 0: unknown */
  uint8_t link_up;        /* 1 while a connection to it is open */
  uint8_t reserved[3];    /* 0 */
  char address[256];      /* host text as added, or the remote address; NUL-terminated */
  uint64_t frames_in;     /* frames received */
  uint64_t bytes_in;      /* payload bytes received */
  uint64_t frames_out;    /* frames sent or queued */
  uint64_t bytes_out;     /* payload bytes sent or queued */
  uint64_t media_dropped; /* media frames dropped over the budget */
  uint64_t queue_bytes;   /* bytes waiting in the output queue now */
  uint64_t reconnects;    /* links made after the first one */
} arbor_net_peer_info;

ARBOR_RECORD_ASSERT(sizeof(arbor_net_peer_info) == 320, "arbor_net_peer_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_net_peer_info, link_up) == 4, "arbor_net_peer_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_net_peer_info, address) == 8, "arbor_net_peer_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_net_peer_info, frames_in) == 264, "arbor_net_peer_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_net_peer_info, reconnects) == 312, "arbor_net_peer_info layout");

/* The library's version and wire version as static text, e.g.
 * "arbor-net 0.1.0 wire 1". Cannot fail. */
ARBOR_EXPORT const char* arbor_net_version(void);

/* The TCP port the LAN listens on, or -1 while the LAN is off. */
ARBOR_EXPORT int32_t arbor_net_lan_port(void);

/* Fills *out for peer id. 0, or -1 (nothing written) when the LAN is off,
 * the id is unknown or out is null. */
ARBOR_EXPORT int32_t arbor_net_peer_stats(uint16_t id, arbor_net_peer_info* out);

/* Writes up to capacity ids of known peers, in increasing order, into ids
 * and returns how many peers are known (which may exceed capacity). 0 while
 * the LAN is off; -1 when ids is null with a positive capacity. */
ARBOR_EXPORT int32_t arbor_net_peers(uint16_t* ids, int32_t capacity);

ARBOR_END_DECLS

#endif /* ARBOR_NET_H */
