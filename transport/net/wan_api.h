// wan_api.h - what the rest of the C layer needs of the WAN's (wan_api.cc).
#ifndef ARBOR_NET_WAN_API_H
#define ARBOR_NET_WAN_API_H

#include <cstdint>

namespace arbor::net {

// Stops the process-wide WAN link if there is one (NetClose). 0, or -1
// (logged, nothing changed) on the link's own thread.
int32_t wan_close();

}  // namespace arbor::net

#endif  // ARBOR_NET_WAN_API_H
