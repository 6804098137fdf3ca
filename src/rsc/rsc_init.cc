// rsc/rsc_init.cc - start and stop of remote session control: the forest,
// the command queue that serialises every change to it, and the three
// built-in services through which control texts reach it.
#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "rsc/rsc_internal.h"

namespace {

template <typename Fn>
AsHandler as_handler(Fn fn) {
  return reinterpret_cast<AsHandler>(fn);
}

}  // namespace

extern "C" {

// The local table is walked from its last entry down, so a handler that the
// host enters later is offered a message before these two, and can keep it
// from them with a negative result.
ARBOR_EXPORT int32_t rsc_init(void) {
  device_initialize();
  device_start();
  SysRegistAS(kRscAsCode, rsc_wan_callback);
  SysRegistASLan_0(kRscAsCode, nullptr, as_handler(cb_lan));
  SysRegistASLan(kRscLanEventCode, nullptr, as_handler(rsc_lan_event));
  return 0;
}

ARBOR_EXPORT void rsc_uninit(void) {
  device_stop();  // returns once the queue has drained and the forest is swept
  device_exit();
  ARBOR_LOG(3, "%s:device_exit return", "rsc_uninit");
}

ARBOR_EXPORT CommandHandler rsc_wan_clean(void) {
  return cmdq_push("Tree_cleanup_drv", Tree_cleanup_drv,
                   reinterpret_cast<uintptr_t>(get_wan_cdef()), nullptr, 0);
}

}  // extern "C"
