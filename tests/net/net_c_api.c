/* Proves that arbor/net.h and arbor/transport.h compile as C and that the
 * statistics record has the same layout there. */
#include <stddef.h>

#include "arbor/net.h"
#include "arbor/transport.h"

int net_c_smoke(void) {
  arbor_net_peer_info info;
  uint16_t ids[1];
  if (arbor_net_version() == NULL) return -1;
  if (sizeof info != 320 || offsetof(arbor_net_peer_info, reconnects) != 312) return -1;
  return arbor_net_peers(ids, 1) >= 0 && arbor_net_peer_stats(0, &info) == -1 ? 0 : -1;
}
