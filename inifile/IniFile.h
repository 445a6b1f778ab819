// Reads and writes profile files: sections in brackets, lines of key=value. docs/ini-files.md describes the syntax for
// reads and for writes.
//
// There is no cache: every read opens the file, reads it once and closes it; every write edits the file in place. The
// static primitives follow the familiar private-profile calling conventions. The other members call these for the file
// name of the object. Nothing prevents two writers at the same time. Nothing is escaped: the file gets exactly the
// texts that a caller passes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

// One profile file.
//
// Threads: an object belongs to one thread at a time. Any number of threads may read the same file at the same time.
// While a thread writes a file, the callers must keep all other readers and writers of this file away. Owns: its copy
// of the file name and the two buffers to which it returns pointers. No file stays open between calls. Failure: while
// the object is not open or has no file name, every member except SetFilename, GetFileName, Open, IsOpen and Close does
// nothing and returns false, 0, the default or the empty string. Only regular files can be opened.
class CIniFile {
 public:
  CIniFile();
  ~CIniFile();
  CIniFile(const CIniFile&) = delete;
  CIniFile& operator=(const CIniFile&) = delete;

  // Reads one value, or a list of names, into the `size` bytes at `buf` and returns the number of characters written.
  //   section and key given   the value of the first such entry; if it is missing or empty: `def`
  //   key null                the section's keys in file order, each followed by NUL, the list by one more
  //   section null            likewise the names of all sections, whatever `key` is
  // A null `def` counts as empty; lists have no default. If a value was cut, the result is size - 1. If a list was cut,
  // it ends with two NULs and the result is size - 2. So after one of these results, call again with a larger buffer.
  // With size 2 nothing is searched, and `buf` gets the first character of `def`; with size 1 it gets the empty text.
  // With size 0, or if `buf` or `path` is null, nothing is written and the result is 0. [any thread]
  static unsigned GetPrivateProfileString(const char* section, const char* key, const char* def, char* buf,
                                          unsigned size, const char* path);

  // Writes `value` under `key`; a null `key` deletes the section, a null `value` the key. Creates the file with mode
  // 0644 if it is missing. False if an existing file does not have what is to be deleted, if `section` or `path` is
  // null, or if the file could not be opened or written. After an edit that fails half-way, the file may be partly
  // written. [any thread]
  [[nodiscard]] static bool WritePrivateProfileString(const char* section, const char* key, const char* value,
                                                      const char* path);

  // Replaces the bytes `from` up to `to` of `file` (open for reading and writing) by a line feed if `newlineFirst` is
  // true, and by the line key=value if both are given. The bytes from `to` on follow, and the file ends after them.
  // False when an offset is outside the file, `from` is after `to`, there is no space, or a stream call fails.
  // [any thread]
  [[nodiscard]] static bool WriteLines(FILE* file, unsigned from, unsigned to, const char* key, const char* value,
                                       bool newlineFirst);

  // Stores a copy of `name` as the file name; null clears it. The object stays open or closed as before. [owning
  // thread]
  void SetFilename(const char* name);

  // The name, or "" when none is set. Valid until the name is replaced. [owning thread]
  [[nodiscard]] const char* GetFileName() const;

  // Opens the object: true if it has a name, and, with `mustExist`, if the file can be opened for reading. No file
  // stays open. IsOpen returns the same result. [owning thread]
  bool Open(bool mustExist);
  bool Open(const char* name, bool mustExist);
  [[nodiscard]] bool IsOpen() const;
  void Close();

  // The number in the first 31 characters of the value: decimal, hexadecimal after 0x, or octal after a leading 0; cut
  // to 32 bits; 0 for a text without digits. `def` if there is no such entry or its value is empty. [owning thread]
  [[nodiscard]] unsigned GetNumber(const char* section, const char* key, unsigned def);

  // The value, or `def` when there is no such entry or its value is empty. If the text has more than 64,509 characters
  // (only a default can), `out` becomes `def` and the result is false. `out` is unchanged while the object is not open.
  // [owning thread]
  bool GetString(std::string& out, const char* section, const char* key, const char* def);

  // The same, but returns the text, which belongs to the object and is valid until the next call of this form. If the
  // text is too long, or memory runs out, the result is the pointer `def`. `key` and `def` may be texts that the object
  // has returned. [owning thread]
  const char* GetString(const char* section, const char* key, const char* def);

  // Returns the first key of the section; with a null `section`, the first section name. GetNextEnum returns the
  // following names, and "" after the last one. A list of more than 64,509 characters counts as empty. The names belong
  // to the object, and are valid until the next GetEnum, GetEnums, GetSections or CopySection. [owning thread]
  const char* GetEnum(const char* section);
  const char* GetNextEnum();

  // Appends the names up to the first empty one to `names`; true if there is at least one. [owning thread]
  bool GetSections(std::vector<std::string>& names);
  bool GetEnums(std::vector<std::string>& names, const char* section);

  // WritePrivateProfileString for the object's file. [owning thread]
  [[nodiscard]] bool SetString(const char* section, const char* key, const char* value);
  [[nodiscard]] bool SetNumber(const char* section, const char* key, unsigned number);
  [[nodiscard]] bool SetNumber(const char* section, const char* key, int number);
  [[nodiscard]] bool DeleteSection(const char* section);
  [[nodiscard]] bool DeleteKey(const char* section, const char* key);

  // Copies each key of section `from` with its value to section `to`. True if the object is open, even if a write
  // fails. If one of the names is null, nothing is written. [owning thread]
  [[nodiscard]] bool CopySection(const char* from, const char* to);

  // Only traces a warning if the object is open, because there is nothing to flush. [owning thread]
  void Flush();

 private:
  [[nodiscard]] bool IsUsable() const { return is_open_ && file_name_ != nullptr; }
  [[nodiscard]] const char* KeepString(const char* text, unsigned length);
  [[nodiscard]] bool IsKeptString(const char* text) const;
  void ForgetString();
  [[nodiscard]] bool AppendEnum(std::vector<std::string>& names, const char* section);

  // Order is interface: other code of the suite embeds this layout.
  std::unique_ptr<char[]> file_name_;
  std::unique_ptr<char[]> string_buffer_;  // of the last GetString that returned a pointer
  std::unique_ptr<char[]> enum_buffer_;    // names, each with a NUL after it, and then one more NUL
  const char* enum_cursor_ = nullptr;      // at the name returned last
  std::uint32_t string_size_ = 0;          // bytes of string_buffer_
  std::uint32_t enum_size_ = 0;            // bytes of enum_buffer_: the list with its last NUL
  bool is_open_ = false;
};
