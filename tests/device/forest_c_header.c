/* arbor/forest.h and arbor/inband.h as a C11 translation unit: the records,
 * the handler type and the exported calls are usable from C, and an in-band
 * record with its payload fits in one buffer. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "arbor/forest.h"
#include "arbor/inband.h"

static void handler(uintptr_t arg, const void* payload, uint32_t size) {
  (void)arg;
  (void)payload;
  (void)size;
}

int main(void) {
  CommandHandler fn = handler;
  TreeRequest request = {0};
  int32_t (*free_time)(void) = is_free_time;
  CommandHandler commands[] = {Tree_destroy_branch, Tree_cleanup_byuid,
                               Tree_cleanup_drv, Tree_inband, Tree_inflate};
  unsigned char buffer[sizeof(InbandRecord) + 8];
  InbandRecord head = {0};
  head.length = 8;
  memcpy(buffer, &head, sizeof head);
  memcpy(buffer + sizeof head, "event=x", 8);
  request.length = 1;
  if (fn == NULL || free_time == NULL || commands[0] == NULL ||
      commands[4] == NULL || sizeof request.sid != TREE_SID_SIZE) {
    return 1;
  }
  /* Before device_start the queue is closed: the push is refused. */
  if (cmdq_push("handler", fn, 0, &request, sizeof request) != NULL) return 1;
  puts("forest.h ok");
  return 0;
}
