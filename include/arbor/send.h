/*
 * arbor/send.h - the one road out: every frame the library sends, to the
 * service, to a LAN peer or to its own service handlers, passes sendasc.
 *
 * Audience: hosts (sendasc, NetSend, NetSendLan). lansend and wansend are
 * engine internals, marked where they are declared.
 *
 * Conventions:
 *  1. Ownership. Data is borrowed for the call only: nothing here keeps a
 *     pointer to it, and the caller frees or reuses it on return. Names are
 *     read during the call only. A PacketHeader passed to lansend / wansend is
 *     the caller's (normally on sendasc's stack); both write its nPipe.
 *  2. Blocking. Nothing here takes a lock of the library's but the short
 *     shared lock of the table of old LAN peers; a call blocks only for as
 *     long as the transport's NetWrite / LANNetWrite does, or, for local
 *     delivery, as long as the service handlers run.
 *  3. Threads. Every function here may be called from any thread at any
 *     time: host threads, the timed queue's worker, the command queue's
 *     consumer, read threads, the transport's callbacks.
 *  4. Widths. The transport takes 16-bit sizes and 16-bit LAN peer ids: a
 *     size or a qvid on the LAN is cut to its low 16 bits on the way, so a
 *     frame of 65536 bytes or more goes out short. Control text to the
 *     service holds at most 65532 bytes and is refused above that.
 *  5. Results: 0 or more is success, negative is failure (-1 from the library
 *     itself, or what the transport returned). Failures are logged at level 0
 *     by sendasc; no road retries.
 *  6. Stack. A text for a LAN peer that needs the old encoding is re-encoded
 *     in a 4096-byte buffer on the stack of the sending thread.
 */
#ifndef ARBOR_SEND_H
#define ARBOR_SEND_H

#include <stdint.h>

#include "arbor/export.h"
#include "arbor/transport.h"

ARBOR_BEGIN_DECLS

/* The flags word of sendasc: bits 0-7 boat type, 8-15 level, 16-23 packet
 * type (0 stands for QVTP_CONTROL), 24-31 ignored. */
#define ARBOR_SEND_CONTROL 0x30000u

/* The largest control text that the service road carries: the 2-byte AS code
 * and the text must fit a 16-bit frame, with room to spare. */
#define ARBOR_SEND_WAN_CONTROL_MAX 65532u

/*
 * Sends size bytes of data to peer qvid (0: the service) under AS code or
 * pipe asc, with the packet type, level and boat type of flags. The road:
 * qvid non-zero goes to the LAN (lansend), qvid 0 with asc 1 or more to the
 * service (wansend), qvid 0 with asc 0 or less to the local service handlers
 * on the calling thread, which gives 0 whatever they answer. Returns what the
 * road gave; -1 for null data, size 0, a link that is down, or control text
 * for the service above ARBOR_SEND_WAN_CONTROL_MAX bytes. Every failure is
 * logged as "send error: qvid=..., asc=...: <result>".
 */
ARBOR_EXPORT int32_t sendasc(uint32_t qvid, int32_t asc, const void* data,
                             uint32_t size, uint32_t flags);

/*
 * The LAN road: sends to peer qvid with nPipe set to asc. Trailing NUL bytes
 * are not text: a frame made of nothing else (or empty) is refused with -1,
 * whatever its type. Media (QVTP_RTP) and texts to current peers go out as
 * they came, NULs and full size included; a text to a peer that speaks the
 * old encoding is decoded and encoded anew, and -1 comes back when that
 * fails or does not fit 4096 bytes. Otherwise the result of LANNetWrite.
 * Does not look at lan_state: that is sendasc's test.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t lansend(uint32_t qvid, int32_t asc, PacketHeader* header,
                             const void* data, uint32_t size);

/*
 * The WAN road; qvid is not used. Media and in-band frames go out as they
 * came, with nPipe set to asc. Control text is packed: asc in two bytes, low
 * byte first, then the text, with nPipe 0; -1 with nothing written for size
 * 0, no memory, or size above ARBOR_SEND_WAN_CONTROL_MAX. Control text of
 * 65535 bytes or more is a caller's fault and aborts (sendasc refuses it
 * before it gets here). Otherwise the result of NetWrite. Does not look at
 * wan_state: that is sendasc's test.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t wansend(uint32_t qvid, int32_t asc, PacketHeader* header,
                             const void* data, uint32_t size);

/*
 * Sends control text to the service under the service named name: the first
 * row of that name in the service table gives the AS code. -1 when no row
 * bears the name or the row has no handler yet; otherwise as sendasc.
 */
ARBOR_EXPORT int32_t NetSend(const char* name, const void* data,
                             uint32_t size);

/*
 * Sends control text on the LAN under AS code asc, which must be below 1000:
 * to peer qvid as sendasc does, or for qvid 0 straight to LANNetWrite with
 * peer id 0, with neither the NUL strip, the old encoding nor a log line.
 * Returns 0 without sending when LAN networking is off; -1, logged, for an
 * asc of 1000 or more; -1 for null data with a non-zero size to peer id 0;
 * otherwise what sendasc or LANNetWrite gave.
 */
ARBOR_EXPORT int32_t NetSendLan(uint32_t qvid, int32_t asc, const void* data,
                                uint32_t size);

ARBOR_END_DECLS

#endif /* ARBOR_SEND_H */
