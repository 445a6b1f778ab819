/* Writes and reads reports from C and from other languages: the interface of libqxreport.so.0.
 *
 * The rules and errors are those of sdk/Writer.h and sdk/Reader.h. Every function that can fail returns QXREPORT_OK or
 * another code, and fills `error` unless it is null. Paths and texts are bytes.
 *
 * Threads: qxreport_append and qxreport_append_many may be called from several threads at the same time; the other
 * calls on one object belong to one thread at a time.
 */
#ifndef QX_SDK_QXREPORT_H
#define QX_SDK_QXREPORT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#ifdef __GNUC__
#pragma GCC visibility push(default)
#endif

#define QXREPORT_OK 0
#define QXREPORT_BAD_ARGUMENT 1 /* an empty path, a ring without slots, a text that is not a cursor */
#define QXREPORT_BAD_TEXT 2     /* a line feed, a NUL or a byte 0xFF, at which readers would end the record */
#define QXREPORT_TOO_LONG 3     /* a record that fits into no reply of the module */
#define QXREPORT_NOT_OPEN 4
#define QXREPORT_OTHER_WRITER 5 /* another writer has the report open */
#define QXREPORT_NOT_FOUND 6
#define QXREPORT_DAMAGED 7
#define QXREPORT_FULL 8   /* the data file has reached 4 GiB */
#define QXREPORT_SYSTEM 9 /* a system call failed; error->system_error is its error number */
#define QXREPORT_NO_MEMORY 10

typedef struct qxreport_error {
  int code;
  int system_error; /* the system's error number, where there is one */
  uint64_t record;  /* the text of a batch that the error is about, counted from 0 */
  char text[512];   /* for people, ends with a NUL; a longer text is cut */
} qxreport_error;

typedef struct qxreport_writer qxreport_writer;
typedef struct qxreport_reader qxreport_reader;

/* Writes into `path` the path of the report `name` in the report directory of this machine, for the calls below. */
int qxreport_path(const char* name, char* path, size_t path_size, qxreport_error* error);

/* Opens a report for writing, or creates it with space for `ring_size` records. *writer is null after an error. */
int qxreport_open(const char* path, uint32_t ring_size, qxreport_writer** writer, qxreport_error* error);

/* Appends one record of `size` bytes, without a line end. */
int qxreport_append(qxreport_writer* writer, const char* text, size_t size, qxreport_error* error);

/* Appends `count` records. All are checked before anything is written. After QXREPORT_FULL, QXREPORT_SYSTEM and
 * QXREPORT_NO_MEMORY the texts before error->record are stored, and no others. */
int qxreport_append_many(qxreport_writer* writer, const char* const* texts, const size_t* sizes, size_t count,
                         qxreport_error* error);

/* Closes the files and frees the writer; null is allowed. */
void qxreport_close(qxreport_writer* writer);

#define QXREPORT_WHOLE 0
#define QXREPORT_DAMAGED_RECORD 1     /* the text ends elsewhere than the record */
#define QXREPORT_OVERWRITTEN_RECORD 2 /* replaced or overwritten; there is no text */

#define QXREPORT_NO_EVENT 0
#define QXREPORT_GAP 1       /* the ring has overwritten records that were not read yet */
#define QXREPORT_AMBIGUOUS 2 /* the records repeat; some may be missing */
#define QXREPORT_STARTED_OVER 3

typedef struct qxreport_record {
  const char*
      text; /* without its line end; a NUL follows. Valid until the next call with this reader; null: no record */
  size_t size;
  int state;
  int event; /* what happened before this record */
} qxreport_record;

/* Opens a report for reading. It begins at the oldest record if `cursor` is null or empty, otherwise at the position
 * for which qxreport_cursor returned that text. */
int qxreport_open_reader(const char* path, const char* cursor, qxreport_reader** reader, qxreport_error* error);

/* Reads the next record; each record is read once. Waits up to `timeout_ms` milliseconds for it. If no record is
 * appended in time, record->text is null and the code is QXREPORT_OK. */
int qxreport_read(qxreport_reader* reader, uint32_t timeout_ms, qxreport_record* record, qxreport_error* error);

/* The position of the reader, as a line of text that can be saved. Valid until the next call with this reader; null if
 * memory runs out. */
const char* qxreport_cursor(qxreport_reader* reader);

/* Closes the files and frees the reader; null is allowed. */
void qxreport_close_reader(qxreport_reader* reader);

#ifdef __GNUC__
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif

#endif
