/*
 * Proves that every public header is valid C11, on its own and together, and
 * that the wire records have the same layout as seen from C.
 */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "arbor/asc.h"
#include "arbor/cdef.h"
#include "arbor/device_class.h"
#include "arbor/export.h"
#include "arbor/forest.h"
#include "arbor/host_callback.h"
#include "arbor/ident.h"
#include "arbor/pairlist.h"
#include "arbor/rsc.h"
#include "arbor/rsevents.h"
#include "arbor/send.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "arbor/timedq.h"
#include "arbor/transport.h"
#include "arbor/version.h"

_Static_assert(sizeof(PacketHeader) == 12, "PacketHeader");
_Static_assert(offsetof(PacketHeader, nLevel) == 10, "PacketHeader.nLevel");
_Static_assert(sizeof(ConnectTarget) == 772, "ConnectTarget");
_Static_assert(sizeof(cdef) == 10 * sizeof(void*), "cdef");

static void host_cb(int32_t code, const char* text, int32_t length) {
  (void)code;
  (void)text;
  (void)length;
}

int main(void) {
  /* Take the address of a function from each family, so the names resolve. */
  HostCallback cb = host_cb;
  typedef void (*any_fn)(void);
  any_fn fns[] = {(any_fn)SysInit,     (any_fn)DictCreate,
                  (any_fn)tq_post,     (any_fn)GetUUID,
                  (any_fn)string_make, (any_fn)InitPairList,
                  (any_fn)RsSubscribeEvent, (any_fn)SysRegisterDev,
                  (any_fn)SysRegistAS,  (any_fn)sendasc};
  (void)cb;
  /* The loaded engine is the one these headers were generated with. */
  if (!ARBOR_VERSION_MATCHES() || arbor_version() != ARBOR_VERSION_NUMBER ||
      strcmp(arbor_version_string(), ARBOR_VERSION_STRING) != 0) {
    printf("c headers: headers say %s, the engine says %s (%u)\n", ARBOR_VERSION_STRING,
           arbor_version_string(), (unsigned)arbor_version());
    return 1;
  }
  printf("c headers: %zu families linked, version %s\n", sizeof fns / sizeof fns[0],
         arbor_version_string());
  return 0;
}
