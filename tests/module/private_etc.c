/* private_etc PROGRAM ARGUMENT...: runs a program with an /etc and a /var/log of its own.
 *
 * The module reads and writes fixed system paths: /etc/norrlek (trace settings), /etc/brollan (registry) and
 * /var/log/brollan (trace output). In the program's private mount namespace /etc is a small file system in memory that
 * has links to all entries of the real /etc except these directories. They are empty at first and belong to the caller.
 * No other process sees this /etc, and it ends with the program. Works as root and as an ordinary user.
 *
 * Built without sanitizers: their helper threads would keep the process from entering a user namespace.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#define REAL_ETC "/var/log/.etc"

static void Fail(const char* what) {
  fprintf(stderr, "private_etc: %s: %s\n", what, strerror(errno));
  fprintf(stderr,
          "These tests need a mount namespace of their own. Allow one of: running as root with CAP_SYS_ADMIN; user\n"
          "namespaces for ordinary users (sysctl kernel.unprivileged_userns_clone=1 and user.max_user_namespaces > 0,\n"
          "on hosts with AppArmor also kernel.apparmor_restrict_unprivileged_userns=0); in a container also mount in\n"
          "its seccomp profile.\n");
  exit(1);
}

static void WriteText(const char* path, const char* text) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  if (file < 0 || write(file, text, strlen(text)) < 0) Fail(path);
  close(file);
}

/* For root, a mount namespace is enough; other users also get a user namespace, in which they keep their id. */
static void EnterNamespace(void) {
  char map[64];
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (user == 0 && unshare(CLONE_NEWNS) == 0) return;
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) Fail("unshare");
  WriteText("/proc/self/setgroups", "deny");
  snprintf(map, sizeof map, "%u %u 1", user, user);
  WriteText("/proc/self/uid_map", map);
  snprintf(map, sizeof map, "%u %u 1", group, group);
  WriteText("/proc/self/gid_map", map);
}

static void MakeDirectory(const char* path) {
  if (mkdir(path, 0755) != 0) Fail(path);
}

static int IsOurs(const char* name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0 || strcmp(name, "brollan") == 0 ||
         strcmp(name, "norrlek") == 0;
}

static void LinkRealEtc(void) {
  const struct dirent* entry;
  DIR* directory = opendir(REAL_ETC);
  if (directory == NULL) Fail(REAL_ETC);
  while ((entry = readdir(directory)) != NULL) {
    char from[300];
    char to[300];
    if (IsOurs(entry->d_name)) continue;
    snprintf(from, sizeof from, REAL_ETC "/%s", entry->d_name);
    snprintf(to, sizeof to, "/etc/%s", entry->d_name);
    if (symlink(from, to) != 0) Fail(to);
  }
  closedir(directory);
}

static void CoverSystemPaths(void) {
  if (mount("none", "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0) Fail("make mounts private");
  if (mount("tmpfs", "/var/log", "tmpfs", 0, "mode=755") != 0) Fail("mount /var/log");
  MakeDirectory(REAL_ETC);
  if (mount("/etc", REAL_ETC, NULL, MS_BIND | MS_REC, NULL) != 0) Fail("bind /etc");
  if (mount("tmpfs", "/etc", "tmpfs", 0, "mode=755") != 0) Fail("mount /etc");
  LinkRealEtc();
  MakeDirectory("/etc/brollan");
  MakeDirectory("/etc/norrlek");
  MakeDirectory("/etc/norrlek/QuaxelSuite");
  MakeDirectory("/etc/norrlek/QuaxelSuite/TraceConfig");
  MakeDirectory("/var/log/brollan");
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: private_etc PROGRAM ARGUMENT...\n");
    return 2;
  }
  EnterNamespace();
  CoverSystemPaths();
  setenv("QX_PRIVATE_ETC", "1", 1);
  execv(argv[1], argv + 1);
  Fail(argv[1]);
}
