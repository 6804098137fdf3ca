/* Proves that arbor/net.h and arbor/transport.h compile as C and that the
 * statistics record has the same layout there. */
#include <stddef.h>

#include "arbor/net.h"
#include "arbor/transport.h"

int net_c_smoke(void) {
  arbor_net_peer_info info;
  uint16_t ids[1];
  if (arbor_net_version() == NULL) return -1;
  char text[8];
  if (sizeof info != 328 || offsetof(arbor_net_peer_info, reconnects) != 312 ||
      offsetof(arbor_net_peer_info, present) != 323 || ARBOR_NET_FOUND_PRESENCE != 3)
    return -1;
  if (arbor_net_peer_presence(0, text, sizeof text) != -1) return -1;
  return arbor_net_peers(ids, 1) >= 0 && arbor_net_peer_stats(0, &info) == -1 ? 0 : -1;
}
