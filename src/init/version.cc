// The engine's own version, for hosts that check what they loaded against
// the headers they were built with (arbor/version.h).
#include "arbor/version.h"

extern "C" {

uint32_t arbor_version(void) { return ARBOR_VERSION_NUMBER; }

const char* arbor_version_string(void) { return ARBOR_VERSION_STRING; }

}  // extern "C"
