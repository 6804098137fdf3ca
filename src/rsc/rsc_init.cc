// rsc/rsc_init.cc - start and stop of remote session control: the forest and
// the command queue that serialises every change to it.
#include "arbor/rsc.h"

#include "arbor/forest.h"

extern "C" ARBOR_EXPORT int32_t rsc_init(void) {
  device_initialize();
  device_start();
  return 0;
}

extern "C" ARBOR_EXPORT int32_t rsc_uninit(void) {
  device_stop();  // returns once the queue has drained and the forest is swept
  device_exit();
  return 0;
}
