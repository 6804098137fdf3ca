/*
 * arbor/net.h - what a host may set and read of the socket transport,
 * libarbor-net.so, beyond the twelve functions of arbor/transport.h.
 *
 * Audience: hosts that link libarbor-net.so. Transport implementers read the
 * table below: it is how this transport answers arbor/transport.h.
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
 * are not used. A value out of range makes InitLAN fail with a level-0 log
 * line that names it.
 *   listen=<address>        literal IPv4/IPv6 address to listen on; 0.0.0.0
 *   port=<0..65535>         TCP listen port; 0 (default) picks a free port,
 *                           which arbor_net_lan_port() tells
 *   io_threads=<1..16>      threads that run the sockets and the callbacks; 1
 *   budget=<65547..2^30>    bytes one peer's output queue may hold before
 *                           media frames are dropped; 4194304 (4 MiB)
 *   version=<0..65535>      the VERSION announced to peers; 100
 *   peer_timeout_ms=<100..3600000>  a peer with queued output that takes no
 *                           byte for this long is declared gone; 10000
 *   presence=<interface>    an interface name (eth0) or one of this host's
 *                           IPv4 addresses: announce this peer and hear the
 *                           others by UDP multicast on that interface only.
 *                           No default: without this key presence is off
 *                           and nothing is multicast
 *   presence_group=<IPv4 multicast address>  239.255.77.77 (site-local)
 *   presence_port=<1..65535>  UDP port of the group; 47477
 *   presence_interval_ms=<50..60000>  time between announcements; 1000
 *   presence_timeout_ms=<2 intervals..3600000>  a peer not heard for this
 *                           long is gone; 3 intervals + 500 (3500)
 *   key=<8..256 characters> the LAN key. With a key, every connection
 *                           starts with a mutual HMAC-SHA-256 challenge
 *                           over it, and a peer that fails it (or has no
 *                           key) is closed before any of its frames reaches
 *                           the engine. No default: without a key the LAN
 *                           is open to any host that reaches the port.
 *
 * Presence. Nothing is announced until the host gave a text (LanPresent,
 * which reaches LANReFlash); then the last text given goes out every
 * interval, and at once when it changes. Datagrams carry TTL 1 and never
 * leave the LAN. A peer heard for the first time (or again after it was
 * gone) reaches the engine as the LAN callback (from = its peer id, pipe 0,
 * type 3) with the text
 * "MainCmd=LocalData;status=1;VERSION=<n>;Ip=<address>;QVID=<id>;", its
 * size counting the terminating NUL, so that the engine connects to it;
 * status=2 the same way when its text or version changed. A peer not heard
 * for presence_timeout_ms, or that said it is leaving (its LAN stopped),
 * reaches it as "MainCmd=LocalData;status=0;QVID=<id>;": its connection is
 * closed without a further status 7, and an entry that presence made is
 * forgotten (its id is not given again before every other id was).
 *
 * The functions of arbor/transport.h, as libarbor-net answers them. "Any
 * thread" includes the transport's own threads inside the callbacks.
 *   NetOpen        any thread, once; never blocks. 0.
 *   NetClose       stops the WAN (as UnInitWAN) and the LAN (as UnInitLAN);
 *                  blocks until their threads are joined. 0, or -1 when
 *                  called on a transport thread (nothing stopped).
 *   InitWAN        starts the WAN's one I/O thread; never blocks. 0 (also
 *                  when already on), -1 for a null callback.
 *   ConRemoteHostInfo  any thread; returns at once, the outcome comes as a
 *                  status (9, 6, 8). 0; -1 with a level-0 line for a null
 *                  record, an unterminated host, port 0, a protocol other
 *                  than 3 or 14, trusted CAs that cannot be loaded, or the
 *                  WAN not initialised.
 *   NetWrite       any thread; never blocks, never waits for a callback.
 *                  size (also when a media frame was dropped over the
 *                  budget); -1 when the link is not up, the frame type is
 *                  not 3, 4 or 5, or the link had to be closed.
 *   UnInitWAN      waits up to 1 s for queued frames to leave, then closes
 *                  the link and joins the thread: no WAN callback runs after
 *                  it returns. 0; -1 on the WAN's own thread.
 *   InitLAN        listens and starts the LAN's threads (the first word is
 *                  the option text above). 0 (also when already on), -1
 *                  with a level-0 line saying what to do.
 *   UnInitLAN      announces the departure (presence), closes every peer
 *                  and joins the threads: no LAN callback runs after it
 *                  returns. Its words are not used. 0; -1 on a LAN thread.
 *   LANNetWrite    any thread; never blocks. To peer 0: to every connected
 *                  peer. size on success (also when media was dropped), -1
 *                  for an unknown or unconnected peer or the LAN off.
 *   LANReFlash     any thread; keeps a copy (at most 2048 bytes; longer: -1,
 *                  the old text kept) and announces it when presence is on.
 *   AddLANEP       first word a host text (name or address), second the
 *                  TCP port; finds or adds the peer. Its id, or -1 (logged)
 *                  for a bad host or port, the LAN off or a full table.
 *                  The text is kept as given, not resolved: one peer added
 *                  under two texts ("localhost", "127.0.0.1") is two
 *                  entries, and as both ends keep one connection per pair
 *                  of instances, dialling the second ends the first's link
 *                  (status 7). Add each peer under one text. A name is
 *                  looked up on each dial on a thread of its own, so that
 *                  UnInitLAN never waits for a slow name server.
 *   LANConRemoteHostInfo  any thread; returns at once, the outcome comes as
 *                  a status (9, 6, 8; 9 again at once when already up). 0,
 *                  or -1 for an unknown peer or the LAN off.
 */
#ifndef ARBOR_NET_H
#define ARBOR_NET_H

#include <stddef.h>
#include <stdint.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/* Statistics of one known LAN peer, 328 bytes. */
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
  uint16_t version;       /* the VERSION its hello or presence announced; 0: unknown */
  uint8_t found;          /* how it first became known: ARBOR_NET_FOUND_* */
  uint8_t present;        /* 1 while presence hears it, however it was found */
  uint8_t reserved2[4];   /* 0 */
} arbor_net_peer_info;

/* Values of arbor_net_peer_info.found. */
enum {
  ARBOR_NET_FOUND_ADDED = 1,    /* added by hand (AddLANEP) */
  ARBOR_NET_FOUND_ACCEPTED = 2, /* it connected to this peer */
  ARBOR_NET_FOUND_PRESENCE = 3  /* heard by presence */
};

ARBOR_RECORD_ASSERT(sizeof(arbor_net_peer_info) == 328, "arbor_net_peer_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_net_peer_info, link_up) == 4, "arbor_net_peer_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_net_peer_info, address) == 8, "arbor_net_peer_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_net_peer_info, frames_in) == 264, "arbor_net_peer_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_net_peer_info, reconnects) == 312, "arbor_net_peer_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_net_peer_info, version) == 320, "arbor_net_peer_info layout");
ARBOR_RECORD_ASSERT(offsetof(arbor_net_peer_info, present) == 323, "arbor_net_peer_info layout");

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

/* The presence text peer id announced last, so that a host can find a peer
 * by a name in it: up to capacity - 1 bytes of it, NUL-terminated, go to
 * text (nothing when capacity is 0). Returns the whole text's length (which
 * may exceed capacity - 1; at most 2048), 0 for a peer that announced
 * nothing, or -1 (nothing written) when the LAN is off, the id is unknown,
 * or text is null with a positive capacity. */
ARBOR_EXPORT int32_t arbor_net_peer_presence(uint16_t id, char* text, size_t capacity);

/* Presence datagrams dropped as malformed since the LAN started, or -1 while
 * presence is off. */
ARBOR_EXPORT int64_t arbor_net_presence_dropped(void);

/*
 * WAN options, dictionary text "key=value;" (null: all defaults), taken by
 * the next InitWAN; a link already made keeps its options.
 *   ca_file=<path>  PEM file of the CAs that may sign the service's
 *                   certificate
 *   ca_path=<dir>   a directory of CA certificates in OpenSSL's hashed layout
 *                   neither given: the system's trust store
 * The service link is TLS 1.3 unless SysLogin's options say Protocol=TCP:
 * the certificate must verify against these CAs and name the host that
 * SysLogin was given; a failed check is a failed connection (status 6),
 * never plain text. Plain TCP is for development against a local service.
 * 0, or -1 (logged, the options unchanged) for text that does not parse.
 */
ARBOR_EXPORT int32_t arbor_net_wan_options(const char* text);

/* Statistics of the service link (id 0; address and listen_port are the
 * target). 0, or -1 (nothing written) when there is no WAN or out is null. */
ARBOR_EXPORT int32_t arbor_net_wan_stats(arbor_net_peer_info* out);

ARBOR_END_DECLS

#endif /* ARBOR_NET_H */
