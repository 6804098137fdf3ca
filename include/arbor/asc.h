/*
 * arbor/asc.h - application services: the two tables that map AS codes to
 * handlers, and the dispatch of incoming messages to them.
 *
 * Audience: hosts (SysRegistAS, SysRegistASLan, SysRegistASLan_0 and the
 * handler types). The other functions are engine internals, each marked where
 * it is declared.
 *
 * Every message that arrives outside a data pipe carries an AS code, the
 * number of the service it is for. The service table serves the link to the
 * service: its rows are named and numbered by the sign-in reply, and a
 * message from the service goes to the one handler of the first row with its
 * code. The local table serves the LAN and local delivery: at most
 * ASC_MAX_LOCAL signed entries, and a message is offered to several of them,
 * the last registered first, until one takes it.
 *
 * Conventions:
 *  1. Ownership. Message data handed to a handler is borrowed for the call
 *     only and need not be NUL-terminated: size counts its bytes. Names
 *     passed in are copied. A ServiceRow returned by asc_get_byname belongs
 *     to the library and stays at its address, with every name it has ever
 *     carried, until asc_uninit (SysExit).
 *  2. Threads. Any thread may call these functions between SysInit and
 *     SysExit. A handler runs on the thread that dispatches: a transport
 *     thread for incoming messages, or whichever thread delivers locally
 *     (sendasc to code 0 or below, emitted events, session notices). A
 *     handler reached by an event emission runs with the event lock held and
 *     must not subscribe or emit.
 *  3. Locks and blocking. Each table has a read-write lock, held only while
 *     it is searched or changed and never while a handler runs, so a handler
 *     may register, rename or dispatch. Nothing here blocks beyond that short
 *     lock; dispatch lasts as long as its handlers, which must return
 *     quickly.
 *  4. A dispatch works on the table as it stood when the dispatch began: a
 *     handler that another thread removes meanwhile may still be called
 *     once, and one added meanwhile is not.
 *  5. A row's fields change under the table's lock, each with one atomic
 *     store, while a caller may hold the row: the sign-in reply renames rows
 *     on the transport's thread. A caller that reads a row while that may
 *     happen reads each field with an atomic load (__atomic_load_n); it sees
 *     each field old or new, not necessarily a matching pair.
 *  6. Failures are results: 0 or null, with the tables unchanged. A bad AS
 *     code given to SysRegistASLan is the caller's fault and aborts
 *     (assertion "asc > 0").
 */
#ifndef ARBOR_ASC_H
#define ARBOR_ASC_H

#include <stdint.h>

#include "arbor/export.h"
#include "arbor/handles.h"

ARBOR_BEGIN_DECLS

/* Most entries of the local table. */
#define ASC_MAX_LOCAL 32

/*
 * First code of the local subscribers of device classes (28672 + position
 * of the class). An entry of that code or above is told its own code, not
 * the sender (AsCodeHandler).
 */
#define ASC_LOCAL_CODE_BASE 28672

/*
 * Handler of a service row: size bytes of message data, size first. Called
 * on a transport thread for a message from the service; the result is not
 * looked at.
 */
typedef int32_t (*ServiceHandler)(uint32_t size, const char* data);

/*
 * One row of the service table.
 *  AsType   the local, fixed number of the service: the row's key.
 *  AsCode   the number the service uses on the wire; dispatch matches it.
 *           Equal to AsType until the sign-in reply says otherwise.
 *  AsName   the name the sign-in reply gave, "" until then. Never null.
 *  handler  null while no one has registered for the row: the service is
 *           then known but not ready.
 */
typedef struct ServiceRow {
  int32_t AsType;
  int32_t AsCode;
  char* AsName;
  ServiceHandler handler;
} ServiceRow;

/*
 * Handlers of the local table come in three shapes; the entry's own code
 * decides which one it is called with:
 *  code 0 or below              AsAnyHandler(from, code, data, size):
 *                               sees all traffic; code is the message's.
 *  1 to ASC_LOCAL_CODE_BASE-1   AsPeerHandler(from, size, data).
 *  ASC_LOCAL_CODE_BASE or above AsCodeHandler(entry's code, size, data).
 * from is the sender's peer id, 0 for local delivery or the service. A
 * negative result takes the message: no entry after it is offered it. They
 * are registered as AsHandler, cast by the caller.
 */
typedef int32_t (*AsAnyHandler)(uint32_t from, int32_t code, const char* data,
                                uint32_t size);
typedef int32_t (*AsPeerHandler)(uint32_t from, uint32_t size,
                                 const char* data);
typedef int32_t (*AsCodeHandler)(int32_t code, uint32_t size,
                                 const char* data);
typedef void (*AsHandler)(void);

/* Does nothing: the tables start empty. Returns 0. */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t asc_init(void);

/*
 * Empties both tables and frees every row and name. Rows returned by
 * asc_get_byname are invalid from here on. Returns 0, which means nothing.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t asc_uninit(void);

/*
 * Sets the handler of the service row of type, null included (which makes
 * the service not ready). Returns 0 when the row existed. Otherwise, with a
 * handler, makes the row (code = type, no name) and returns 1; with a null
 * handler, or when memory runs out, returns 0 and changes nothing.
 */
ARBOR_EXPORT int32_t SysRegistAS(int32_t type, ServiceHandler handler);

/*
 * Gives the service row of type (made if absent, with no handler) the wire
 * code and a copy of name; its handler stays. Called for each row of the
 * sign-in reply. The name it replaces stays readable until asc_uninit.
 * Returns 0, whatever happens; a null name or lack of memory leaves the
 * table unchanged, with a level-0 line.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t asc_put_code_name(int32_t type, int32_t code,
                                       const char* name);

/*
 * The first row, in the order rows were made, named exactly name; null when
 * there is none or name is null. Valid until asc_uninit (convention 5).
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT ServiceRow* asc_get_byname(const char* name);

/*
 * Local table, one AS code (asc 1 or more, else the assertion "asc > 0"):
 * with old null, adds new_handler for asc; with old set, replaces old by
 * new_handler, or removes old when new_handler is null (the last entry then
 * moves into its place). Entries of the same code turn positive on the way.
 * Returns the number of entries afterwards, or 0 when nothing was added or
 * replaced (old not found with new_handler null, or a full table: the
 * registration is lost). A removal that empties the table also returns 0.
 */
ARBOR_EXPORT int32_t SysRegistASLan(int32_t asc, AsHandler old_handler,
                                    AsHandler new_handler);

/*
 * As SysRegistASLan for a handler that sees all traffic of the local table:
 * the entry's code is -asc, and evt_local_asc finds it under asc. Any asc is
 * accepted; with 0 the entry sees all traffic and evt_local_asc never finds
 * it. Entries of the same absolute code turn negative on the way.
 */
ARBOR_EXPORT int32_t SysRegistASLan_0(int32_t asc, AsHandler old_handler,
                                      AsHandler new_handler);

/*
 * Hands size bytes of data, sent by peer from (0: the service, or local)
 * under AS code `code`, to the handlers. cls is get_wan_cdef() (the service
 * table: the first row with that wire code; returns its handler's result,
 * or 0 without one) or get_lan_cdef() (the local table from the last entry
 * down; code 0 offers the message to every entry, another code to entries
 * of that code and those of code 0 or below; returns 1 when a handler took
 * it with a negative result, else 0). Any other cls is the caller's fault
 * (assertion "cdef == get_lan_cdef()"). size 0 returns 0 and calls nobody.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t asdispatch(const cdef* cls, uint32_t from, int32_t code,
                                const char* data, uint32_t size);

/*
 * Delivers data locally to the entries whose code is asc or -asc, the last
 * registered first, with from 0. Returns 1 when a handler took it with a
 * negative result, else 0; 0 at once, calling nobody, for size 0 or asc 0
 * or below.
 */
/* Engine internal: hosts do not call. */
ARBOR_EXPORT int32_t evt_local_asc(int32_t asc, const char* data,
                                   uint32_t size);

ARBOR_END_DECLS

#endif /* ARBOR_ASC_H */
