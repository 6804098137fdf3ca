/*
 * arbor/device_class.h - the device class table, the engine's own classes
 * (WAN, LAN, null), LAN pipe numbers and the network classes' slots.
 *
 * Audience: hosts (SysRegisterDev, SysUnregisterDev) and drivers
 * (get_null_cdef). The other functions are engine internals, each marked where
 * it is declared.
 *
 * The host, or a driver it started, registers each driver's cdef record
 * with SysRegisterDev; from then on the session forest reaches devices only
 * through the record's slots, and finds the class of a resource by its full
 * name.
 *
 * Conventions:
 *  1. Records are the caller's and are never copied: a registered record
 *     must stay in place as long as the library runs (arbor/cdef.h). The
 *     records returned by get_wan_cdef and friends are the engine's; do not
 *     change them.
 *  2. Strings passed in are borrowed for the call. bemerge writes into the
 *     caller's buffer and nothing else.
 *  3. SysRegisterDev and cdef_find_by_fullname take the class mutex and call
 *     driver slots with it held: never call either from SetCallback,
 *     Retrieve or GetObjectInfo. Nothing else here blocks beyond a short
 *     lock, but for what a called slot or sendasc does.
 *  4. Any thread may call these functions while the library runs. cdef_init
 *     and cdef_uninit belong to start and stop and run while no driver is
 *     registered or calls back.
 *  5. Failures are results (0, -1 or null as stated); bad input from a
 *     driver or a message is refused, never fatal.
 */
#ifndef ARBOR_DEVICE_CLASS_H
#define ARBOR_DEVICE_CLASS_H

#include <stdint.h>

#include "arbor/cdef.h"
#include "arbor/export.h"

ARBOR_BEGIN_DECLS

/* ------------------------------------------------------- Class table */

/*
 * The engine's own records: the WAN class and the LAN class stand for the
 * two networks in a session tree, the null class does nothing (it is there
 * for drivers). Valid addresses at any time; their slots are filled by
 * cdef_init.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT cdef* get_wan_cdef(void);
/* Engine internal: hosts do not call. */
ARBOR_EXPORT cdef* get_lan_cdef(void);
ARBOR_EXPORT cdef* get_null_cdef(void);

/* 1 when cls is the WAN or the LAN class (by address), else 0; null gives 0. */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t is_network_dev(const cdef* cls);

/*
 * Fills the engine's own records and empties the class table. path names a
 * device directory and is not looked at: drivers come only through
 * SysRegisterDev. Returns 0; cannot fail.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t cdef_init(const char* path);

/*
 * Adds cls at the end of the class table (its position is its class number)
 * and gives it the device callback through SetCallback. A record registered
 * twice stands twice. Refused with a level-0 line, the table unchanged and
 * no slot called, for a null cls, a null SetCallback, Retrieve or
 * GetObjectInfo, or lack of memory. Blocks on the class mutex.
 */
ARBOR_EXPORT void SysRegisterDev(cdef* cls);

/*
 * Returns cls and does nothing else: a class stays registered until
 * cdef_uninit.
 */
ARBOR_EXPORT cdef* SysUnregisterDev(cdef* cls);

/*
 * The class whose Retrieve text holds fullname as a substring, the first
 * registered of several; null when none does, and null for a null or empty
 * fullname (such a name can come from a message). Blocks on the class mutex.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT cdef* cdef_find_by_fullname(const char* fullname);

/*
 * A command handler (arg, payload, size): hands a device command, a
 * dictionary text of size bytes with keys ftN (resource) and FD
 * (descriptor), to the DoEvent slot of the class owning ftN. Runs on the
 * command queue's consumer. A text that does not parse, lacks ftN, names no
 * class or a class without DoEvent ends silently. arg is not used.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT void cdef_res_control(uintptr_t arg, const void* text,
                                   uint32_t size);

/* Frees the class table and sets its count to 0. Returns 0. */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t cdef_uninit(void);

/* ------------------------------------------------------ LAN pipes */

/*
 * A free LAN pipe number (1024 to 65535), now in use; numbers come in rising
 * order and wrap from 65535 to 1024, so a freed number comes back only after
 * the whole range has passed. 0 when all are in use or memory runs out.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT uint32_t lan_pipe_alloc(void);

/* Gives a number back; one that is not in use is ignored. */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT void lan_pipe_free(uint32_t number);

/* ------------------------------------------------- Network classes */

/*
 * Writes into buffer (size bytes) the dictionary text base with the pairs of
 * the formatted text merged over it: a key in both takes the formatted
 * value. Returns the length of the text in buffer, or 0 on failure: base is
 * not dictionary text, the formatted text is empty or does not fit in size
 * bytes with its terminator (it is never cut), or the merged text does not
 * fit. base may lie in buffer.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t bemerge(char* buffer, uint32_t size, const char* base,
                             const char* format, ...) ARBOR_PRINTF(4, 5);

/*
 * Emits the dictionary text as a local resource event, at its subResource
 * under its event name. Returns what the emission returned, or 0 when text
 * is null, does not parse or lacks either key. cls is not used.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t net_emit_event(const cdef* cls, const char* text);

/*
 * The DoEvent slots of the WAN and LAN classes: an in-band event reaching a
 * network node becomes a local resource event (net_emit_event). Return 0.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t wan_do_event(const char* name, int32_t xfd,
                                  const char* text);
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t lan_do_event(const char* name, int32_t xfd,
                                  const char* text);

/*
 * The Write slot of the WAN class: sends media to the service on pipe xfd.
 * A flags word without a packet type (bits 16-23 zero) is sent as media
 * (type 4). Returns what sendasc returned.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t wan_write(int32_t xfd, const void* data, uint32_t size,
                               uint32_t flags);

/*
 * The Write slot of the LAN class. It does not return: it aborts the
 * process. LAN data travels by its own road, so no code may call this slot.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t lan_write(int32_t xfd, const void* data, uint32_t size,
                               uint32_t flags);

/* ------------------------------------------------- Resource announcement */

/*
 * Tells the service what this peer offers: for each registered class in
 * order, a MainCmd 17 "eventResOnline" message built over its object
 * information (which must name its Type, of at most 127 characters), then
 * one for each comma-separated name of its Retrieve list (at most 511
 * announced). Sent under AS code 100; the results are not looked at. Called
 * at each accepted sign-in, on the transport's thread, with the class mutex
 * held across the driver calls: GetObjectInfo and Retrieve must not wait for
 * anything that needs it.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT void cdef_resources_present(void);

/*
 * The hardware address of network interface `interface` as text
 * ("0:1a:2b:3c:4d:5e", as ether_ntoa writes it), or null when it cannot be
 * read. The text lives in one static buffer that the next call overwrites:
 * not reentrant.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT const char* get_mac_address(const char* interface);

ARBOR_END_DECLS

#endif /* ARBOR_DEVICE_CLASS_H */
