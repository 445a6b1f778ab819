// Result codes, error numbers and exit codes.
#include "tools/qxctl/doctor/ExplanationTables.h"

namespace qx::ctl {

namespace {

constexpr Explanation kCodes[] = {
    {ExplainedKind::kResult, "0",
     "The request was carried out. A null reply with this result is a refusal of a caller without "
     "the privilege, an input of Reflect that is not well formed, or a names file of another version "
     "than 1",
     "The ordinary case",
     "Nothing, unless a reply was expected: then ask with `qxctl fetch` or `qxctl names`, which tell "
     "the cases apart"},
    {ExplainedKind::kResult, "1", "GetReports: there is no record at the start index or after it",
     "The end of every transfer; a report without records; a record of 1 MiB or more, which no reply "
     "can carry",
     "Nothing at the end of a transfer. `qxctl report verify` tells whether a record is too long"},
    {ExplainedKind::kResult, "12", "The request was refused, or the report or its names file could not be read",
     "The reply's Error element says which, and its LastError why", "Look up the reply's error number"},
    {ExplainedKind::kResult, "401",
     "The caller lacks the privilege AccessPerformanceMgr. It is the result of the request's check "
     "inside the module; the call goes on and its own result is another",
     "Security data without the privilege came with the request",
     "Give the user the privilege, or call without security data from a trusted place"},
    {ExplainedKind::kResult, "-1",
     "The block of the request cannot be worked with, or the operation could not be carried through",
     "A wrong tag, no elements or no thread id in the block; memory ran out",
     "Read the reply's Msg; `qxctl module record` keeps such a call as a file"},
    {ExplainedKind::kErrorNumber, "0", "No error; a reply leaves LastError out", "The end of a report", "Nothing"},
    {ExplainedKind::kErrorNumber, "1", "EPERM: the operation is not permitted",
     "A file with attributes or a mount that forbids it", "Look at the mount options and at lsattr of the file"},
    {ExplainedKind::kErrorNumber, "2",
     "ENOENT: there is no such file. For a report also: its name is empty or leads out of the report "
     "directory",
     "No such report or names file in the report directory, or another report directory than expected",
     "Run `qxctl doctor`, which prints the report directory and where it comes from"},
    {ExplainedKind::kErrorNumber, "4", "EINTR: a signal interrupted the call", "A signal that came again and again",
     "Repeat the request"},
    {ExplainedKind::kErrorNumber, "5", "EIO: reading or writing failed", "A damaged disk or a lost network file system",
     "Look at the kernel's log; save what can be read with `qxctl report salvage`"},
    {ExplainedKind::kErrorNumber, "9", "EBADF: the file is not open", "A fault of the program that closed it",
     "Report it to the program's maker, with the traces"},
    {ExplainedKind::kErrorNumber, "11", "EAGAIN: another process holds a lock, or a resource is short",
     "A second writer of a report, or a limit of processes or memory",
     "Stop one of the writers, or repeat the call later"},
    {ExplainedKind::kErrorNumber, "12", "ENOMEM: no memory", "A limit on the memory of the service",
     "Raise the limit; see `qxctl doctor`"},
    {ExplainedKind::kErrorNumber, "13",
     "A malformed request (in a reply of the request's check), or EACCES: permission denied (with the "
     "name of a report)",
     "A block or document that no service makes; a report file that the service's user may not read",
     "Read the reply's Msg. For a report: give the service's user the right to read its two files"},
    {ExplainedKind::kErrorNumber, "17", "EEXIST: there is a file of that name",
     "A leftover of a program that was killed, or two programs at work", "Remove the file if nobody uses it"},
    {ExplainedKind::kErrorNumber, "18", "EXDEV: the two names are on different file systems",
     "A mount in the middle of the directory", "Put both on one file system"},
    {ExplainedKind::kErrorNumber, "20", "ENOTDIR: part of the path is not a directory",
     "There is a file in the place of the report directory", "Correct ReportRoot or FileRoot in the registry"},
    {ExplainedKind::kErrorNumber, "21", "EISDIR: it is a directory", "A directory has the name of a report's file",
     "Move the directory away"},
    {ExplainedKind::kErrorNumber, "22",
     "EINVAL: a report's file is not a regular file, or a registry call was given something impossible",
     "A pipe, a device or a directory has the name of a report's file; an unknown type or an empty name of a value",
     "Move away what is not a regular file, or correct the caller"},
    {ExplainedKind::kErrorNumber, "23", "ENFILE: the system has too many open files", "A program that opens too many",
     "Raise fs.file-max, or stop that program"},
    {ExplainedKind::kErrorNumber, "24", "EMFILE: the process has too many open files",
     "Each thread in a transfer holds two files open; a limit too low for the number of threads",
     "Raise the limit of open files of the service"},
    {ExplainedKind::kErrorNumber, "27", "EFBIG: the file would become too large",
     "A limit of file sizes, or a file that cannot be a configuration", "Raise the limit of file sizes of the service"},
    {ExplainedKind::kErrorNumber, "28", "ENOSPC: the disk is full", "The disk or the quota of the directory is used up",
     "Free space on the disk"},
    {ExplainedKind::kErrorNumber, "30", "EROFS: the file system is mounted read-only",
     "A mount option, or an error that made the system stop writing", "Look at the kernel's log and at the mounts"},
    {ExplainedKind::kErrorNumber, "34", "ERANGE: a registry value does not fit the caller's buffer",
     "A value longer than its reader expects", "Shorten the value, or correct the reader"},
    {ExplainedKind::kErrorNumber, "36", "ENAMETOOLONG: a name or a path is too long",
     "A report name of more than 251 bytes, or a path of more than 259 in a restore",
     "Use a shorter name, or a report directory nearer to the root"},
    {ExplainedKind::kErrorNumber, "39", "ENOTEMPTY: the directory is not empty",
     "A program put a file there while it was removed", "Remove it again"},
    {ExplainedKind::kErrorNumber, "40",
     "ELOOP: a symbolic link is not followed: it belongs to a user who is not trusted, or the links have no end",
     "A link in the report directory that neither root, nor the service's user, nor the file's owner made; or links "
     "that "
     "lead to each other",
     "Make the link as root or as the service's user, or put the file itself in its place"},
    {ExplainedKind::kErrorNumber, "61", "ENODATA: there is no such value in the registry key",
     "A value that was never set", "Set the value with `qxctl registry`"},
    {ExplainedKind::kErrorNumber, "116", "ESTALE: the file is gone on the server of a network file system",
     "The file was replaced there", "Repeat the request"},
    {ExplainedKind::kErrorNumber, "122", "EDQUOT: the user's quota is used up", "The user's files fill the quota",
     "Remove files of this user, or raise the quota"},
    {ExplainedKind::kErrorNumber, "1313", "The caller lacks the privilege that the request needs",
     "Security data without AccessPerformanceMgr", "Give the user the privilege AccessPerformanceMgr"},
    {ExplainedKind::kExitCode, "0", "Done", "The ordinary case", "Nothing"},
    {ExplainedKind::kExitCode, "1", "Done, and something needs attention",
     "A finding, a difference, a record that no transfer can carry", "Read what was printed"},
    {ExplainedKind::kExitCode, "2", "The command line is wrong, and nothing was done",
     "An unknown option, a missing argument", "Run the command with --help"},
    {ExplainedKind::kExitCode, "3", "The report changed while it was read",
     "Its writer replaced records during the transfer", "Fetch the report again"},
    {ExplainedKind::kExitCode, "4", "Not found: no such report, module, file or key",
     "A wrong name, or another directory than expected", "Run `qxctl doctor`"},
    {ExplainedKind::kExitCode, "5", "Refused",
     "The caller lacks the privilege; the block is not valid; a file would be overwritten", "Read what was printed"},
    {ExplainedKind::kExitCode, "6", "A read, a write, a load or a close failed",
     "A full disk, a missing permission, a reader that went away", "Read what was printed"},
};

}  // namespace

std::span<const Explanation> CodeExplanations() { return kCodes; }

}  // namespace qx::ctl
