/* A host in plain C that is linked with the module. It prints the results of the entry points. */
#include <stdio.h>
#include <string.h>

#include "provider/ModuleExports.h"

static unsigned thread_number = 77;
static struct krx_element thread_data = {.index = kKrxProviderData, .type = kKrxTypePointer};
static struct krx_element thread_id = {.index = kKrxThreadId, .type = kKrxTypeUint32, .value = &thread_number};
static struct krx_element* elements[] = {&thread_data, &thread_id};
static const wcs_gendata block = {
    .version = 30400, .size = sizeof block, .tag = "KRX", .element_count = 2, .elements = elements};

static void Request(const char* name, QxRequestFunction function, const char* input) {
  char* reply = NULL;
  const int result = function(&block, input, &reply);
  printf("%s %d %.*s\n", name, result, (int)(reply != NULL ? strcspn(reply + 1, "gv\n") + 1 : 0), reply);
  __free(reply);
}

int main(void) {
  CKrxAdapterModule* at_load = pAdapterModule;
  printf("load-time object %d\n", at_load != NULL);
  __threadbegin();
  Request("what", What, "");
  Request("reflect", Reflect, "<a/>");
  Request("reports", GetReports, "<ReportData Name=\"none\"/>");
  __threadend(thread_data.value);
  printf("version %d\n", __handle_version());
  __stoprequest();
  DeleteModule(); /* otherwise the object that was made at load time would be lost */
  printf("create %d\n", CreateModule((void*)DreQXObjectPath));
  at_load = pAdapterModule;
  pAdapterModule = ProviderClassFactory(NULL);
  printf("factory %d\n", pAdapterModule != NULL && pAdapterModule != at_load);
  DeleteModule();
  pAdapterModule = at_load;
  DeleteModule();
  printf("deleted %d\n", pAdapterModule == NULL);
  return 0;
}
