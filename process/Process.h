// Starts commands and waits for them, finds processes, reads their figures from /proc, and reads and changes the
// working directory.
//
// The class traces nothing and has no state, because the trace facility calls it for the memory size in entry headers.
// It uses no shell, does not capture output, and waits without a time limit.
#pragma once

#include <string>

// A set of static operations; there are no objects of this class.
//
// Threads: every operation may run on any thread. A command with a directory changes the working directory of the whole
// process until the command is started; a synchronous one until it ends. Callers that do so from several threads must
// serialise these calls.
// Failure: `false`; then the outputs are unchanged, unless a comment says otherwise.
class CProcess {
 public:
  CProcess() = delete;

  // Starts `cmd`, and waits for its end if `async` is false. The command line is split at white space: no quoting, no
  // escapes, no shell. The first word is searched for along PATH. The child inherits standard input, output and error.
  // With `inherit_handles` it also inherits all other descriptors that are not close-on-exec.
  //
  // `dir`: the command's working directory. Null, empty or the current directory means no change. If the directory
  // cannot be entered, nothing is started. The unnamed bool is ignored.
  // `pid`: the child's id, or 0xFFFFFFFF if no child was started.
  // `exit_code`: the exit status 0 to 255 of a synchronous command that exited (255 also if the program could not be
  // started), otherwise 0xFFFFFFFF.
  // Returns: synchronous, true for exit status 0; asynchronous, true if the child was started. Also false if the
  // working directory could not be changed back, or if the command has no words. The caller must reap an asynchronous
  // child (WaitForExit). [any thread]
  [[nodiscard]] static bool execute_command(const char* cmd, unsigned& pid, unsigned& exit_code, const char* dir, bool,
                                            bool async, bool inherit_handles);

  // execute_command, synchronous. [any thread]
  [[nodiscard]] static bool ExecuteCmd(const char* cmd, const char* dir, bool, bool inherit_handles);
  [[nodiscard]] static bool ExecuteCmd(const char* cmd, unsigned& pid, unsigned& exit_code, const char* dir, bool,
                                       bool inherit_handles);

  // execute_command, asynchronous. After the form without `pid`, only a wait for any child can reap the child. [any
  // thread]
  [[nodiscard]] static bool ExecuteCmdAsync(const char* cmd, const char* dir, bool, bool inherit_handles);
  [[nodiscard]] static bool ExecuteCmdAsync(const char* cmd, unsigned& pid, const char* dir, bool,
                                            bool inherit_handles);

  // Waits, without limit, for the child `pid`. True if it exited with status 0. `exit_code` is its exit status, or
  // 0xFFFFFFFF if it was killed or is not a child of this process. `timeout` is ignored. Ids 0 and above INT_MAX are
  // refused, because for the system they mean groups of processes. [any thread]
  [[nodiscard]] static bool WaitForExit(unsigned pid, unsigned& exit_code, unsigned timeout);

  // Kills `pid` at once (SIGKILL); true if the signal was delivered. `exit_code` is ignored. Ids 0 and above INT_MAX
  // are refused, because they would kill groups of processes. [any thread]
  [[nodiscard]] static bool TerminateProcess(unsigned pid, unsigned exit_code);

  // The first process, in the order of /proc, whose short name is exactly `name`. The system keeps 15 bytes of a name,
  // so a longer one never matches. If no process matches, `pid` is 0xFFFFFFFF and the result is false. [any thread]
  [[nodiscard]] static bool FindProcess(unsigned& pid, const char* name);

  // The short name of a process (at most 15 bytes). [any thread]
  [[nodiscard]] static bool GetProcessName(std::string& name, unsigned pid);

  // The path of a process's executable. Needs permission to read the link /proc/PID/exe. [any thread]
  [[nodiscard]] static bool GetProcessPath(std::string& path, unsigned pid);

  // Reads name and path. If only the path cannot be read, the result is false, and `name` is set. If the name cannot be
  // read, neither is set. [any thread]
  [[nodiscard]] static bool GetProcessInfo(unsigned pid, std::string& name, std::string& path);

  // The number on the line `key` (such as "VmSize:") of /proc/pid/status, in the unit `unit`: 0 bytes, 1 KiB, 2 MiB,
  // 3 GiB, rounded down. A number without a unit word counts as bytes. False if there is no such line, or no number on
  // it. [any thread]
  [[nodiscard]] static bool GetProcessMemorySpecificInfo(unsigned pid, unsigned long* value, std::string key, int unit);

  // Memory figures in bytes: the address space, its peak, the swapped-out part, always 0, the address space without
  // libraries. A figure that the system does not show is 0, even if the result is false. True if size and peak are
  // known. [any thread]
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
