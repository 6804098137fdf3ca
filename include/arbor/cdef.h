/*
 * arbor/cdef.h - the device class record: the table of operations with which
 * a driver joins the engine, and the callback through which it speaks back.
 *
 * Audience: drivers, and the hosts that register them.
 *
 * Drivers are built against this record, so its layout is fixed: ten
 * pointer-sized words in the order below, never reordered, never grown.
 *
 * Conventions:
 *  1. The record stays the driver's. The engine keeps its address, never a
 *     copy, so a registered record must stay in place, unchanged, for as long
 *     as the library runs.
 *  2. Texts passed into a slot (name, option, text) are NUL-terminated and
 *     borrowed for the call. Texts a slot returns (Retrieve, GetObjectInfo)
 *     stay the driver's: the engine reads them at once and never frees them.
 *     Byte buffers (data, buffer, in, out) are the caller's.
 *  3. Slots are called from several threads (stated per slot below); a
 *     driver guards its own state. Slots never throw and never call
 *     SysRegisterDev or cdef_find_by_fullname while the class mutex is held.
 *  4. Results are signed 32-bit; each slot says which values mean failure.
 */
#ifndef ARBOR_CDEF_H
#define ARBOR_CDEF_H

#include <stddef.h>
#include <stdint.h>

#include "arbor/export.h"
#include "arbor/handles.h"

ARBOR_BEGIN_DECLS

/*
 * The callback a driver receives through SetCallback: callback(cls, var,
 * data, size).
 *  cls   the driver's own record; must not be null.
 *  var   a NUL-terminated dictionary text saying what the call is (keys
 *        MainCmd, subResource, event, FD, Flag); must not be null.
 *  data  the payload: for an event (or a subscription) a NUL-terminated
 *        dictionary text, read to its NUL; else media. Null ignores the
 *        call.
 *  size  bytes at data; 0 ignores the call. For an event it only says that
 *        there is a text: strlen(text) and strlen(text) + 1 both do.
 * May be called on any thread, at any time after SetCallback, also from
 * inside a slot (Read, DoEvent) and while the class mutex is held: it takes
 * no lock of the class table. It copies everything it needs before it
 * returns, so data and var may be reused at once. It has no result.
 */
typedef void (*DeviceCallback)(const cdef* cls, const char* var,
                               const void* data, uint32_t size);

/*
 * The contract of every slot. "Class mutex" is the mutex of the engine's
 * class table; "consumer" is the command queue's consumer thread; "read
 * thread" is the thread that the engine starts for a root whose Open asked
 * for threading. A read thread's stack is ARBOR_READ_THREAD_STACK bytes, not
 * the process's default: Read, and Write and Convert when they run there,
 * keep large buffers off the stack (and so does whatever they call at once:
 * an event emitted through the device callback reaches the host's local
 * handlers on the same stack).
 *
 * Write and Convert, when the consumer calls them for a frame received from
 * a peer, run under SCHED_BATCH if the thread that called SysInit ran under
 * SCHED_OTHER: the consumer must not preempt the thread that handed the
 * frame in. A thread started from there inherits that policy. Every other
 * slot called on the consumer, and every read thread, runs under the policy
 * of the thread that called SysInit.
 *
 * Reserved       Not a function. The engine neither reads nor writes it in a
 *                registered record. May be null.
 * SetCallback    SetCallback(callback): keep callback for later calls. Called
 *                once, by SysRegisterDev on the registering host thread, with
 *                the class mutex held. Result not used. Must not be null.
 * Retrieve       Retrieve(): the class's resources, their full names
 *                separated by commas, or null for none. Called on host,
 *                transport and consumer threads, with the class mutex held
 *                (and once without it, at registration), for every hop of
 *                every request: return a prepared text, do not build one.
 *                Must not be null.
 * GetObjectInfo  GetObjectInfo(): a dictionary text describing the class
 *                (its key Type names the class as a resource), or null.
 *                Called on host and transport threads. Must not be null.
 * Open           Open(name, option, &threading): open the device of resource
 *                name; option may be null. threading is 0 on entry; set it
 *                non-zero to have the engine read this device on a thread of
 *                its own. Result: the descriptor; -1 and 0 both mean failure.
 *                Called on the consumer. May be null only in a class that no
 *                chain names.
 * Close          Close(xfd): close a descriptor that Open gave. Result not
 *                used. Called on the consumer or the timed queue's worker.
 *                May be null as Open.
 * DoEvent        DoEvent(name, xfd, text): a command or an in-band event for
 *                the device, text a NUL-terminated dictionary text. Result
 *                not used. Called on the consumer, sometimes with a tree's
 *                read lock held. May be null: the callers test it.
 * Write          Write(xfd, data, size, flags): take size bytes of media;
 *                flags is the flag word of sendasc. Result: bytes taken,
 *                negative on failure. Called on a read thread or the
 *                consumer. May be null: a leaf's data is then dropped.
 * Read           Read(xfd, buffer, size, &flags): read at most size bytes
 *                into buffer and set flags for them. Result: bytes read, 0
 *                for nothing now, negative on failure. Called on the read
 *                thread only. May be null unless Open asks for threading.
 * Convert        Convert(xfd, in, &in_size, out, &out_size, &flags):
 *                transform in into out; the sizes are in-out byte counts.
 *                Result: negative on failure. Called on a read thread or the
 *                consumer. May be null: the input then passes unchanged.
 */
/* Bytes of stack of every read thread (256 KiB). */
#define ARBOR_READ_THREAD_STACK (256u * 1024u)

struct cdef {
  void* Reserved;
  int32_t (*SetCallback)(DeviceCallback callback);
  const char* (*Retrieve)(void);
  const char* (*GetObjectInfo)(void);
  int32_t (*Open)(const char* name, const char* option, uint32_t* threading);
  int32_t (*Close)(int32_t xfd);
  int32_t (*DoEvent)(const char* name, int32_t xfd, const char* text);
  int32_t (*Write)(int32_t xfd, const void* data, uint32_t size,
                   uint32_t flags);
  int32_t (*Read)(int32_t xfd, void* buffer, uint32_t size, uint32_t* flags);
  int32_t (*Convert)(int32_t xfd, const void* in, uint32_t* in_size,
                     void* out, uint32_t* out_size, uint32_t* flags);
};

#define ARBOR_CDEF_WORD(n) ((n) * sizeof(void*))
ARBOR_RECORD_ASSERT(sizeof(cdef) == ARBOR_CDEF_WORD(10), "cdef size");
ARBOR_RECORD_ASSERT(offsetof(cdef, Reserved) == ARBOR_CDEF_WORD(0),
                    "cdef.Reserved");
ARBOR_RECORD_ASSERT(offsetof(cdef, SetCallback) == ARBOR_CDEF_WORD(1),
                    "cdef.SetCallback");
ARBOR_RECORD_ASSERT(offsetof(cdef, Retrieve) == ARBOR_CDEF_WORD(2),
                    "cdef.Retrieve");
ARBOR_RECORD_ASSERT(offsetof(cdef, GetObjectInfo) == ARBOR_CDEF_WORD(3),
                    "cdef.GetObjectInfo");
ARBOR_RECORD_ASSERT(offsetof(cdef, Open) == ARBOR_CDEF_WORD(4), "cdef.Open");
ARBOR_RECORD_ASSERT(offsetof(cdef, Close) == ARBOR_CDEF_WORD(5),
                    "cdef.Close");
ARBOR_RECORD_ASSERT(offsetof(cdef, DoEvent) == ARBOR_CDEF_WORD(6),
                    "cdef.DoEvent");
ARBOR_RECORD_ASSERT(offsetof(cdef, Write) == ARBOR_CDEF_WORD(7),
                    "cdef.Write");
ARBOR_RECORD_ASSERT(offsetof(cdef, Read) == ARBOR_CDEF_WORD(8), "cdef.Read");
ARBOR_RECORD_ASSERT(offsetof(cdef, Convert) == ARBOR_CDEF_WORD(9),
                    "cdef.Convert");
#undef ARBOR_CDEF_WORD

ARBOR_END_DECLS

#endif /* ARBOR_CDEF_H */
