/*
 * c_headers.c - the text utilities' public headers seen from C. Compiled as
 * C11 with the strict warnings; the test calls strutils_c_roundtrip to show
 * that the C declarations link to the engine's definitions.
 */
#include <stdlib.h>
#include <string.h>

#include "arbor/pairlist.h"
#include "arbor/strutils.h"

int strutils_c_roundtrip(void);

/* 1 when a value set and read through the C declarations comes back. */
int strutils_c_roundtrip(void) {
  PairList list = NULL;
  if (InitPairList(&list) == NULL) return 0;
  char* copy = stringdup("v");
  int ok = copy != NULL && SetString(&list, "k", copy) != NULL &&
           strcmp(GetString(&list, "k"), "v") == 0;
  free(copy);
  free(list);
  return ok;
}
