/* arbor/forest.h as a C11 translation unit: the records, the handler type
 * and the exported calls are usable from C. */
#include <stddef.h>
#include <stdio.h>

#include "arbor/forest.h"

static void handler(uintptr_t arg, const void* payload, uint32_t size) {
  (void)arg;
  (void)payload;
  (void)size;
}

int main(void) {
  CommandHandler fn = handler;
  TreeRequest request = {0};
  int32_t (*free_time)(void) = is_free_time;
  CommandHandler teardown[] = {Tree_destroy_branch, Tree_cleanup_byuid,
                               Tree_cleanup_drv};
  request.length = 1;
  if (fn == NULL || free_time == NULL || teardown[0] == NULL ||
      sizeof request.sid != TREE_SID_SIZE) {
    return 1;
  }
  /* Before device_start the queue is closed: the push is refused. */
  if (cmdq_push("handler", fn, 0, &request, sizeof request) != NULL) return 1;
  puts("forest.h ok");
  return 0;
}
