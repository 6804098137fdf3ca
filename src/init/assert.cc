// init/assert.cc - the one place an assertion ends the process, after saying
// why through the log.
#include "init/assert.h"

#include <cstdlib>

#include "arbor/support.h"

extern "C" void arbor_assert_fail(const char* text, const char* file,
                                  const char* function, int line) {
  LOG_Print(0, file, function, line, "assertion failed: %s", text);
  std::abort();
}
