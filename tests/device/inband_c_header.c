/* arbor/inband.h as a C11 translation unit: the record and both commands
 * are usable from C, and a record with its payload fits in one buffer. */
#include <stdio.h>
#include <string.h>

#include "arbor/forest.h"
#include "arbor/inband.h"

int main(void) {
  unsigned char buffer[sizeof(InbandRecord) + 8];
  InbandRecord head = {0};
  CommandHandler commands[] = {Tree_inband, Tree_inflate};
  head.length = 8;
  memcpy(buffer, &head, sizeof head);
  memcpy(buffer + sizeof head, "event=x", 8);
  if (commands[0] == NULL || commands[1] == NULL) return 1;
  puts("inband.h ok");
  return 0;
}
