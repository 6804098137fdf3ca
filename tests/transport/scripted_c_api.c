/*
 * Proves that scripted_transport.h is valid C11 and usable from C: one write
 * and its record read back. Returns 0 when all is as expected.
 */
#include <string.h>

#include "arbor/scripted_transport.h"

int scripted_c_smoke(void);

int scripted_c_smoke(void) {
  PacketHeader h;
  scripted_call c;
  memset(&h, 0, sizeof h);
  h.nPacketType = QVTP_CONTROL;
  if (NetWrite(&h, "\x64\x00q=1;", 6) != 6) return 1;
  if (scripted_call_get(SCRIPTED_NET_WRITE, 0, &c) != 0) return 2;
  if (c.asc != 100 || strcmp(c.text, "q=1;") != 0) return 3;
  return 0;
}
