// Processes of the local Linux system: starting and awaiting commands, finding processes, reading their figures from
// /proc, and the process's own working directory.
//
// This file stands alone: it traces nothing and keeps no state, because the trace facility itself asks it for the
// memory figure of its entry headers. There is no shell, no capture of output and no time limit on a wait.
#pragma once

#include <string>

// A set of static operations; no object of it is ever made.
//
// Threads: every operation may run on any thread. Running a command with a directory changes the working directory of
// the whole process while the command is started (and, for a synchronous one, until it ends), so callers that do so
// from several threads serialise themselves.
// Failure: `false`; unless a comment says otherwise, outputs are then as they were before the call.
class CProcess {
 public:
  CProcess() = delete;

  // Starts `cmd` and, unless `async`, waits for its end. The command line is split at white space: no quoting, no
  // escapes, no shell; the first word is looked up along PATH. Standard input, output and error are inherited; every
  // other descriptor only with `inherit_handles` (and then only if it is not close-on-exec).
  //
  // `dir`: the command's working directory; null, empty or the current one: none of its own. If it cannot be entered,
  // nothing is started. The unnamed bool is accepted and ignored.
  // `pid`: the child's id, or 0xFFFFFFFF when none was started.
  // `exit_code`: the exit status 0 to 255 of a synchronous command that ended by itself (255 also when the program
  // could not be started), else 0xFFFFFFFF.
  // Returns: synchronous, exit status 0; asynchronous, the child was started. False as well when the working directory
  // could not be changed back, and for a command without words. The caller reaps an asynchronous child (WaitForExit).
  // [any thread]
  [[nodiscard]] static bool execute_command(const char* cmd, unsigned& pid, unsigned& exit_code, const char* dir, bool,
                                            bool async, bool inherit_handles);

  // execute_command, synchronous. [any thread]
  [[nodiscard]] static bool ExecuteCmd(const char* cmd, const char* dir, bool, bool inherit_handles);
  [[nodiscard]] static bool ExecuteCmd(const char* cmd, unsigned& pid, unsigned& exit_code, const char* dir, bool,
                                       bool inherit_handles);

  // execute_command, asynchronous. Without a place for the id the child can only be reaped by waiting for any child.
  // [any thread]
  [[nodiscard]] static bool ExecuteCmdAsync(const char* cmd, const char* dir, bool, bool inherit_handles);
  [[nodiscard]] static bool ExecuteCmdAsync(const char* cmd, unsigned& pid, const char* dir, bool,
                                            bool inherit_handles);

  // Waits, without limit, for the child `pid`. True when it exited with status 0. `exit_code` is its exit status, or
  // 0xFFFFFFFF when it was killed or is no child of this process. `timeout` is ignored. Ids 0 and above INT_MAX name
  // groups of processes to the system and are refused. [any thread]
  [[nodiscard]] static bool WaitForExit(unsigned pid, unsigned& exit_code, unsigned timeout);

  // Kills `pid` at once (SIGKILL); true when the signal was delivered. `exit_code` is ignored. Ids 0 and above INT_MAX
  // would kill whole groups of processes and are refused. [any thread]
  [[nodiscard]] static bool TerminateProcess(unsigned pid, unsigned exit_code);

  // The first process, in the order of /proc, whose short name is exactly `name`. The system keeps 15 bytes of a name,
  // so a longer one never matches. No match: `pid` is 0xFFFFFFFF and the result false. [any thread]
  [[nodiscard]] static bool FindProcess(unsigned& pid, const char* name);

  // The short name of a process (at most 15 bytes). [any thread]
  [[nodiscard]] static bool GetProcessName(std::string& name, unsigned pid);

  // The path of a process's executable; needs the right to look into that process. [any thread]
  [[nodiscard]] static bool GetProcessPath(std::string& path, unsigned pid);

  // Name and path; the name is set even when the path cannot be read. [any thread]
  [[nodiscard]] static bool GetProcessInfo(unsigned pid, std::string& name, std::string& path);

  // The number on the line `key` (such as "VmSize:") of /proc/pid/status, in bytes shifted right by 10 bits `unit`
  // times: 0 bytes, 1 KiB, 2 MiB, 3 GiB, always rounded down. A line without a unit word counts as bytes. No such line
  // or no number on it: false. [any thread]
  [[nodiscard]] static bool GetProcessMemorySpecificInfo(unsigned pid, unsigned long* value, std::string key, int unit);

  // Memory figures in bytes: address space, its peak, swapped out, always 0, address space without libraries. All five
  // are set to 0 first, and a figure the system does not tell stays 0. True when size and peak are known. [any thread]
  [[nodiscard]] static bool GetProcessMemoryInfo(unsigned pid, unsigned long* vm_size, unsigned long* vm_peak,
                                                 unsigned long* vm_swap, unsigned long* reserved,
                                                 unsigned long* private_size);

  // Not available on this system: `count` is 1, the result false. [any thread]
  [[nodiscard]] static bool GetProcessHandleCount(unsigned pid, unsigned& count);

  // The working directory, as an absolute path. [any thread]
  [[nodiscard]] static bool GetCurrentDir(std::string& out);

  // Changes the working directory of the whole process; an empty path is refused. [any thread]
  [[nodiscard]] static bool SetCurrentDir(const char* path);

  // The first line of /proc/pid/file without its line feed, cut at 1 MiB. An empty file is a failure. [any thread]
  [[nodiscard]] static bool get_proc_file(int pid, const char* file, std::string& out);
};
