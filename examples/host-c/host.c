/* This host in plain C loads the module, fetches a report like a remote client, and prints its records.
 *
 *   host REPORT [MODULE]
 */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "provider/ModuleExports.h"

/* Every call passes this block. It has the number of the calling thread (not 0), and an element in which the module
 * stores its data between the calls of this thread. */
static unsigned thread_number = 1;
static struct krx_element provider_data = {.index = kKrxProviderData, .type = kKrxTypePointer};
static struct krx_element thread_id = {.index = kKrxThreadId, .type = kKrxTypeUint32, .value = &thread_number};
static struct krx_element* elements[] = {&provider_data, &thread_id};
static const wcs_gendata block = {
    .version = 30400, .size = sizeof block, .tag = "KRX", .element_count = 2, .elements = elements};

static QxRequestFunction get_reports;
static QxThreadBeginFunction thread_begin;
static QxThreadEndFunction thread_end;
static QxFreeFunction free_reply;

/* Loading the module empties its log file. With a private trace directory, the log of a running service is not touched.
 */
static char trace_directory[] = "/tmp/host-XXXXXX";

static void* Find(void* module, const char* name) {
  void* const symbol = dlsym(module, name);
  if (symbol == NULL) fprintf(stderr, "host: the module exports no %s\n", name);
  return symbol;
}

static void* Load(const char* path) {
  void* const module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (module == NULL) {
    fprintf(stderr, "host: cannot load the module: %s\n", dlerror());
    return NULL;
  }
  *(void**)&get_reports = Find(module, "GetReports"); /* C cannot convert an object pointer to a function pointer */
  *(void**)&thread_begin = Find(module, "__threadbegin");
  *(void**)&thread_end = Find(module, "__threadend");
  *(void**)&free_reply = Find(module, "__free");
  return get_reports != NULL && thread_begin != NULL && thread_end != NULL && free_reply != NULL ? module : NULL;
}

/* The records are the content of the reply's CDATA sections; each one ends with CR LF. A real client uses an XML
 * parser. */
static void PrintRecords(const char* reply) {
  for (const char* at = reply; (at = strstr(at, "<![CDATA[")) != NULL;) {
    at += strlen("<![CDATA[");
    for (const char* const end = strstr(at, "]]>"); at < end; ++at) {
      if (*at != '\r') putchar(*at);
    }
  }
}

/* Fetches one chunk of records, from `start` on. Returns the next start index, 0 at the end, -1 after an error. */
static long FetchChunk(const char* report, long start) {
  char request[1024];
  char* reply = NULL;
  (void)snprintf(request, sizeof request, "<ReportData Name=\"%s\" StartIndex=\"%ld\"/>", report, start);
  const int result = get_reports(&block, request, &reply);
  long next = -1;
  if (result == 1) {
    next = 0; /* no more records */
  } else if (result == 0 && reply != NULL) {
    PrintRecords(reply);
    next = strtol(strstr(reply, "NextIndex=\"") + strlen("NextIndex=\""), NULL, 10);
  } else {
    fprintf(stderr, "host: result %d, %s\n", result, reply != NULL ? reply : "no reply");
  }
  free_reply(reply); /* only the module can free its memory; null is allowed */
  return next;
}

static int FetchReport(const char* report) {
  long next = 0;
  thread_begin();
  do next = FetchChunk(report, next);
  while (next > 0);
  thread_end(provider_data.value); /* once, after the last call of this thread */
  return next == 0 && fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3 || strlen(argv[1]) > 255 || strpbrk(argv[1], "&<>\"'") != NULL) {
    fprintf(stderr, "usage: host REPORT [MODULE]   (a name without & < > \" ', which would need escaping)\n");
    return 2;
  }
  if (mkdtemp(trace_directory) == NULL || setenv("QX_LOG_RINGBUF_DIR", trace_directory, 1) != 0) return EXIT_FAILURE;
  void* const module = Load(argc > 2 ? argv[2] : QX_MODULE_FILE);
  const int code = module != NULL ? FetchReport(argv[1]) : EXIT_FAILURE;
  if (module != NULL) (void)dlclose(module);
  if (chdir(trace_directory) == 0) (void)unlink("log.qxremconxfer");
  (void)rmdir(trace_directory);
  return code;
}
