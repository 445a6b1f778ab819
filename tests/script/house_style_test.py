#!/usr/bin/env python3
"""Tests what script/house_style.py refuses: file calls outside the seam, errno as an argument, and too many files in a folder."""
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "script"))
sys.dont_write_bytecode = True

import house_style

FILE_CALL = "goes through base/File.h"
ERRNO = house_style.ERRNO_ARGUMENT[1]

#   file, line, what is refused
ROWS = [
    ("reportfile/Any.cpp", "const int fd = open(path, O_RDONLY);", FILE_CALL),
    ("reportfile/Any.cpp", "const int fd = ::openat(directory, path, O_RDONLY);", FILE_CALL),
    ("tools/qxctl/cli/Any.cpp", "FILE* f = std::fopen(path, mode);", FILE_CALL),
    ("tools/qxctl/cli/Any.cpp", "FILE* f = fdopen(fd, mode);", FILE_CALL),
    ("reportfile/StoreIo.cpp", "FILE* f = fdopen(fd, mode);", None),
    ("reportfile/StoreIo.cpp", "FILE* f = fopen(path, mode);", FILE_CALL),
    ("tools/qxctl/cli/Any.cpp", "std::ofstream file(path);", FILE_CALL),
    ("tools/qxctl/cli/Any.cpp", "std::basic_ifstream<char> file(path);", FILE_CALL),
    ("tools/qxctl/cli/Any.cpp", "fs::copy_file(from, to);", FILE_CALL),
    ("tools/qxctl/cli/Any.cpp", "std::filesystem::rename(from, to);", FILE_CALL),
    ("base/Any.cpp", "syscall(SYS_openat2, directory, path);", FILE_CALL),
    ("base/Any.cpp", "(void)ftruncate(fd, 0);", FILE_CALL),
    ("base/Any.cpp", "return copy_file_range(from, nullptr, to, nullptr, size, 0);", FILE_CALL),
    ("base/Any.cpp", "return sendfile(to, from, nullptr, size);", FILE_CALL),
    ("base/Any.cpp", "return mkstemp(name);", FILE_CALL),
    ("base/FileCalls.cpp", "return ::copy_file_range(from, nullptr, to, nullptr, size, 0);", None),
    ("base/Any.cpp", "store.open(path); file->rename(to); Reopen(); // open(path)", None),
    ("base/Any.cpp", 'Print("open(%s) failed", path);', None),
    ("base/Any.cpp", "std::istringstream lines(text);", None),
    ("tools/qxctl/cli/Any.cpp", 'return Status::Io("cannot open " + path, errno);', ERRNO),
    ("tools/qxctl/cli/Any.cpp", "return Failed(errno, path);", ERRNO),
    ("tools/qxctl/cli/Any.cpp", "    errno);", ERRNO),
    ("tools/qxctl/cli/Any.cpp", "const int error = errno;", None),
    ("tools/qxctl/cli/Any.cpp", "while (Wait(a, b) < 0 && errno == EINTR) continue;", None),
    ("tools/qxctl/cli/Any.cpp", "      error_(errno) {}", None),
]

#   folder, sources and headers in it, findings
FOLDERS = [
    ("tools/qxctl/cli", house_style.FOLDER_FILES_MAX, 0),
    ("tools/qxctl/cli", house_style.FOLDER_FILES_MAX + 1, 1),
    ("reportfile/tools", house_style.FOLDER_FILES_MAX + 1, 1),
    ("debug", house_style.FOLDER_FILES_MAX + 1, 1),
    ("markup", house_style.FOLDER_FILES_MAX + 1, 0),
]


def main():
    failures = 0
    for file, line, expected in ROWS:
        found = sorted({why for _, why in house_style.check_lines(pathlib.Path(file), [line])})
        if found != ([expected] if expected else []):
            print(f"{file}: {line}\n  expected {expected}, found {found}")
            failures += 1
    for folder, count, findings in FOLDERS:
        found = list(house_style.check_folders([pathlib.Path(f"{folder}/{i}.h") for i in range(count)]))
        if len(found) != findings:
            print(f"{folder} with {count} files: expected {findings} findings, found {found}")
            failures += 1
    print(f"{len(ROWS)} lines, {len(FOLDERS)} folders, {failures} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
