/* Uses the C interface in a C99 program, and prints the results: c_program PATH */
#include <stdio.h>
#include <string.h>

#include "sdk/qxreport.h"

static qxreport_error error;

static void Show(const char* what, int code) { printf("%s %d %s\n", what, code, code != 0 ? error.text : ""); }

static void Write(const char* path) {
  static const char* const texts[] = {"two", "three"};
  static const char* const bad[] = {"four", "fi\nve"};
  static const size_t sizes[] = {3, 5};
  static const size_t bad_sizes[] = {4, 5};
  qxreport_writer* writer = NULL;
  qxreport_writer* second = NULL;
  Show("ring of 0:", qxreport_open(path, 0, &writer, &error));
  Show("open:", qxreport_open(path, 10, &writer, &error));
  Show("second:", qxreport_open(path, 10, &second, NULL) == QXREPORT_OTHER_WRITER ? 0 : -1);
  Show("append:", qxreport_append(writer, "one", 3, &error));
  Show("many:", qxreport_append_many(writer, texts, sizes, 2, &error));
  Show("bad:", qxreport_append_many(writer, bad, bad_sizes, 2, &error));
  printf("record %d\n", (int)error.record);
  Show("null:", qxreport_append(writer, NULL, 3, &error));
  qxreport_close(writer);
  qxreport_close(NULL);
  Show("closed:", qxreport_append(NULL, "x", 1, &error));
}

static void Read(const char* path) {
  qxreport_reader* reader = NULL;
  qxreport_record record;
  char cursor[800] = "";
  int i;
  for (i = 0; i < 2; ++i) { /* the second reader continues where the first one stopped */
    Show("reader:", qxreport_open_reader(path, cursor, &reader, &error));
    Show("read:", qxreport_read(reader, 0, &record, &error));
    printf("%s %d %d %d\n", record.text, (int)record.size, record.state, record.event);
    strcpy(cursor, qxreport_cursor(reader));
    if (i == 1) {
      (void)qxreport_read(reader, 0, &record, &error);
      Show("end:", qxreport_read(reader, 5, &record, &error));
      printf("%s\n", record.text == NULL ? "no record" : record.text);
    }
    qxreport_close_reader(reader);
  }
  Show("bad cursor:", qxreport_open_reader(path, "x", &reader, &error));
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  Write(argv[1]);
  Read(argv[1]);
  return 0;
}
