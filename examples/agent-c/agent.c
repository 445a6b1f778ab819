/* This agent in C appends each argument as one record to the report "example".
 *
 *   agent TEXT...
 */
#include <sdk/qxreport.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  char path[4096];
  qxreport_error error;
  qxreport_writer* report = NULL;
  int i;
  int code = qxreport_path("example", path, sizeof path, &error);
  if (code == QXREPORT_OK) code = qxreport_open(path, 100, &report, &error); /* the directory must exist */
  for (i = 1; i < argc && code == QXREPORT_OK; ++i) code = qxreport_append(report, argv[i], strlen(argv[i]), &error);
  if (code != QXREPORT_OK) fprintf(stderr, "agent: %s\n", error.text);
  qxreport_close(report);
  return code == QXREPORT_OK ? 0 : 1;
}
