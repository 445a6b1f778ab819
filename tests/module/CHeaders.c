/* Uses the two C headers in a C program. */
#include "provider/KrxGenData.h"
#include "provider/ModuleExports.h"

const char* CheckHeadersFromC(void);

/* Returns what is wrong with a block that is built in C, or "". */
const char* CheckHeadersFromC(void) {
  unsigned thread = 77;
  struct krx_element element = {.index = kKrxThreadId, .type = kKrxTypeUint32, .value = &thread};
  struct krx_element* elements[] = {&element};
  const wcs_gendata block = {.version = 30400, .size = 24, .tag = "KRX", .element_count = 1, .elements = elements};
  const QxRequestFunction no_function = NULL;
  if (no_function != NULL) return "function type";
  if (block.tag[3] != '\0') return "tag";
  if (block.elements[0]->index != 2) return "index";
  return "";
}
