/*
 * arbor/transport.h - the transport interface: what the engine imports from a
 * transport library, the two callbacks it hands to it, and the records that
 * cross between them.
 *
 * Audience: transports: whoever implements these functions. The engine calls
 * them; a host never does, it links one transport beside the engine.
 *
 * libarbor.so calls these functions by name and never defines them; the host
 * links one transport beside it (libarbor-transport-scripted.so for tests, a
 * socket transport in production, or a device maker's own).
 *
 * Conventions:
 *  1. Records cross by address and are read during the call only; the
 *     transport keeps no pointer to a PacketHeader, a ConnectTarget or a data
 *     buffer after returning. Data is borrowed: the caller frees or reuses it
 *     on return.
 *  2. Integers are in the host's byte order. Sizes and LAN peer ids are 16
 *     bits wide: the engine cuts larger values to their low 16 bits.
 *  3. NetWrite, LANNetWrite and LANConRemoteHostInfo are called concurrently
 *     from host threads, the timed queue's worker, the command queue's
 *     consumer, read threads and from inside the callbacks themselves. They
 *     must be safe for that and must never wait for a callback to return.
 *  4. The transport calls the callbacks on threads of its own; a WAN and a
 *     LAN callback may run at the same time, and while any other thread is
 *     inside the engine. Callback data is valid only during the call.
 *  5. Results are signed 32-bit; negative means failure where a result is
 *     looked at at all.
 */
#ifndef ARBOR_TRANSPORT_H
#define ARBOR_TRANSPORT_H

#include <stddef.h>
#include <stdint.h>

#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/* ---------------------------------------------------------- Frame types */

/* Values of PacketHeader.nPacketType and of a callback's type argument. */
enum {
  QVTP_CONTROL = 3, /* control text: a dictionary; the sender's default */
  QVTP_RTP = 4,     /* media data on a session pipe */
  QVTP_INBAND = 5   /* in-band event text on a session pipe */
};

/*
 * Link statuses, passed in the same type argument. 5, 11 and 12 on the WAN
 * with pipe 0 need no action. 6 to 8 are failures as a group: on the WAN 6
 * and 8 are a failed connection attempt and 7 a link that went down (also
 * the state the WAN starts in); on the LAN all three mean the link to a peer
 * failed.
 */
enum {
  QVNETS_FAIL = 6,        /* connection attempt failed */
  QVNETS_DISCONNECT = 7,  /* link down */
  QVNETS_UNREACHABLE = 8, /* connection attempt failed: peer not reached */
  QVNETS_SUCCESS = 9      /* link connected */
};

/* ConnectTarget.protocol values. */
enum {
  QV_PROTOCOL_TCP = 3,
  QV_PROTOCOL_DEFAULT = 14 /* the transport's own protocol */
};

/* First LAN pipe number: below it a pipe is an AS code. */
#define QV_FIRST_DATA_PIPE 1024

/* ------------------------------------------------------------- Records */

/*
 * Header of one outgoing frame, 12 bytes, built on the sender's stack and
 * read by NetWrite / LANNetWrite during the call.
 */
typedef struct PacketHeader {
  uint16_t nReserved;   /* always 0 */
  uint16_t nBoatType;   /* bits 0-7 of the sender's flags word */
  uint32_t nPipe;       /* AS code or pipe; 0 for WAN control frames */
  uint16_t nPacketType; /* QVTP_CONTROL, QVTP_RTP or QVTP_INBAND */
  uint16_t nLevel;      /* bits 8-15 of the sender's flags word */
} PacketHeader;

/* Where ConRemoteHostInfo connects, 772 bytes; the sender zeroes it first. */
typedef struct ConnectTarget {
  char host[256];           /* host name or address, NUL-terminated */
  uint16_t port;            /* port */
  uint16_t protocol;        /* QV_PROTOCOL_TCP or QV_PROTOCOL_DEFAULT */
  unsigned char zero[512];  /* reserved for the transport; all zero */
} ConnectTarget;

ARBOR_RECORD_ASSERT(sizeof(PacketHeader) == 12, "PacketHeader is a wire record");
ARBOR_RECORD_ASSERT(offsetof(PacketHeader, nBoatType) == 2, "PacketHeader layout");
ARBOR_RECORD_ASSERT(offsetof(PacketHeader, nPipe) == 4, "PacketHeader layout");
ARBOR_RECORD_ASSERT(offsetof(PacketHeader, nPacketType) == 8, "PacketHeader layout");
ARBOR_RECORD_ASSERT(offsetof(PacketHeader, nLevel) == 10, "PacketHeader layout");
ARBOR_RECORD_ASSERT(sizeof(ConnectTarget) == 772, "ConnectTarget is a wire record");
ARBOR_RECORD_ASSERT(offsetof(ConnectTarget, port) == 256, "ConnectTarget layout");
ARBOR_RECORD_ASSERT(offsetof(ConnectTarget, protocol) == 258, "ConnectTarget layout");
ARBOR_RECORD_ASSERT(offsetof(ConnectTarget, zero) == 260, "ConnectTarget layout");

/* ----------------------------------------------------------- Callbacks */

/*
 * WAN callback, called on a transport thread. pipe 0: a status (type is a
 * QVNETS_ code, no data) or a control frame whose first two bytes are the AS
 * code, low byte first, followed by the dictionary text. pipe non-zero: a
 * session data frame, type QVTP_RTP or QVTP_INBAND.
 */
typedef void (*WanCallback)(uint32_t pipe, uint32_t type, uint32_t size,
                            const void* data);

/*
 * LAN callback, called on a transport thread. from is the peer id. pipe below
 * QV_FIRST_DATA_PIPE is an AS code (0: for every handler); from it on, a
 * session data pipe. type is a frame type or a QVNETS_ status.
 */
typedef void (*LanCallback)(uint32_t from, uint32_t pipe, uint32_t type,
                            uint32_t size, const void* data);

/* ----------------------------------------------------------- Functions */

/* Prepares the transport. Called once by SysInit. Result ignored. */
ARBOR_EXPORT int32_t NetOpen(void);

/* Releases the transport. Called once by SysExit, last. Result ignored. */
ARBOR_EXPORT int32_t NetClose(void);

/* Registers the WAN callback (SysLogin). Negative on failure. */
ARBOR_EXPORT int32_t InitWAN(WanCallback callback);

/* Ends the WAN link (SysLogout). Result ignored. */
ARBOR_EXPORT int32_t UnInitWAN(void);

/*
 * Starts connecting to the service. The outcome arrives later through the
 * WAN callback: QVNETS_SUCCESS, or QVNETS_FAIL / QVNETS_UNREACHABLE. The
 * result is passed on as SysLogin's.
 */
ARBOR_EXPORT int32_t ConRemoteHostInfo(const ConnectTarget* target);

/* Sends one frame to the service. Negative on failure. */
ARBOR_EXPORT int32_t NetWrite(const PacketHeader* header, const void* data,
                              uint16_t size);

/*
 * Switches LAN networking on. a, b and c come from LanNetworking unseen.
 * A non-negative value on success (kept by the engine), negative on failure.
 */
ARBOR_EXPORT int32_t InitLAN(LanCallback callback, intptr_t a, intptr_t b,
                             intptr_t c);

/*
 * Switches LAN networking off. Must not depend on its arguments: SysExit
 * passes nothing meaningful. Result ignored.
 */
ARBOR_EXPORT int32_t UnInitLAN(LanCallback callback, intptr_t a, intptr_t b,
                               intptr_t c);

/* Sends one frame to peer `peer` (0 only from NetSendLan). Negative on failure. */
ARBOR_EXPORT int32_t LANNetWrite(uint16_t peer, const PacketHeader* header,
                                 const void* data, uint16_t size);

/* Takes this peer's presence text (LanPresent). Result ignored. */
ARBOR_EXPORT int32_t LANReFlash(const char* text, uint16_t size);

/* Adds a peer end point from SysAddLanEP's words; the peer id is in the low
 * 16 bits of the result. */
ARBOR_EXPORT int32_t AddLANEP(intptr_t a, intptr_t b, intptr_t c, intptr_t d);

/* Connects to a known peer. Negative on failure. */
ARBOR_EXPORT int32_t LANConRemoteHostInfo(uint16_t peer);

ARBOR_END_DECLS

#endif /* ARBOR_TRANSPORT_H */
