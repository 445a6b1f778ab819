#include "tests/docs/Replay.h"

#include <gtest/gtest.h>
#include <regex.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

const char kBetweenSessions[] = "\036\n";  // nothing that a command prints

// A part of the output that varies. Each pattern has three groups, and the second one is hidden.
struct Varying {
  const char* what;
  const char* pattern;
};

constexpr Varying kVarying[] = {
    {"times and rates in text", "()([0-9.]+)( ms| MB/s| records/s| s ago)"},
    {"times and rates in JSON", "(econds\"|Second\")(: ?[-+0-9.e]+)(,|)"},
    {"the time of a round in JSON", "(\"round\":[0-9]+,\"timeMs\":)([0-9]+)(,)"},
    {"the time of a round", "(, )([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2})(\n)"},
    {"an age in a table", "( -)( +[0-9]+ s)( )"},
    {"the name of an unfinished backup", "(\\.partial-)([A-Za-z0-9]{6})(:)"},
    {"the time of a backup", "(backups/|\n|\": \")([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}-[0-9]{2}-[0-9]{2}Z)()"},
    {"version and date of the build", R"(( version=\\?"| date=\\?")([-0-9./:]+)(\\?"))"},
    {"the name of a backup of the registry", R"((is kept in /etc/brollan/registry\.)([-0-9]+)(\.bak))"},
    {"the version of the module", "(loads: QXRemConXfer )([0-9.]+)()"},
    {"the working directory of a message", R"(()(/home/operator|/[^ ]*/qx-test-[A-Za-z0-9]{6})(/))"},
    {"the working directory", R"(("reportDirectory": ")(/[^"]*)("))"},
};

// (The regular expressions of the standard library do not compile without warnings under the sanitizers.)
std::string Hide(const std::string& text, const char* pattern) {
  regex_t compiled;
  EXPECT_EQ(regcomp(&compiled, pattern, REG_EXTENDED), 0) << pattern;
  std::string hidden;
  const char* rest = text.c_str();
  for (regmatch_t groups[4]; regexec(&compiled, rest, 4, groups, 0) == 0 && groups[0].rm_eo > 0;
       rest += groups[3].rm_so) {
    hidden.append(rest, static_cast<std::size_t>(groups[2].rm_so)).append("N");
  }
  regfree(&compiled);
  return hidden + rest;
}

bool NeedsMoreLines(const std::string& command) {
  return command.ends_with('\\') || command.find("<<") != std::string::npos;
}

// The shell text that shows the command as it was typed, runs it, and shows its exit code.
std::string Step(const std::string& shown, const std::string& command) {
  return "cat <<'EOF_OF_COMMAND'\n" + shown + "EOF_OF_COMMAND\n{ " + command + "} 2>&1 || echo \"exit code $?\"\n";
}

std::string ScriptOf(const Session& session) {
  std::string script;
  std::string shown;
  std::string command;
  std::istringstream lines(session.text);
  const auto finish = [&] {
    if (!shown.empty()) script += Step(shown, command);
    shown.clear();
    command.clear();
  };
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("$ ")) {
      finish();
    } else if (shown.empty() || !line.starts_with("> ") || !NeedsMoreLines(command.substr(0, command.size() - 1))) {
      continue;  // output
    }
    shown += line + "\n";
    command += line.substr(2) + "\n";
  }
  finish();
  return script;
}

Start FreshStart(const TempDir& directory) {
  const std::string path = std::filesystem::path(QxctlPath()).parent_path().string() + ":" + std::getenv("PATH");
  return {.directory = directory.Path(),
          .environment = {{"PATH", path}, {"QX_MODULE", ModulePath()}, {"NO_COLOR", ""}, {"LC_ALL", "C.UTF-8"}}};
}

// Makes a root of its own in the directory $1, in private namespaces, and runs the script $4 there. It has programs and
// devices of this machine, the module $2 where the suite installs it, qxctl $3 in the search path, the user root, and
// nothing else. It has its own processes, because an ordinary user may not check those of others.
const char kNewMachine[] = R"sh(
set -e
mount -t tmpfs -o mode=755 none "$1"
module=$2 qxctl=$3 script=$4
cd "$1"
provider=opt/norrlek/QuaxelSuite/KRX/Provider
mkdir -p usr proc dev etc root tools "$provider"
mkdir -m 1777 tmp
mount --rbind /usr usr
mount -t proc none proc 2>/dev/null || mount --rbind /proc proc
mount --rbind /dev dev
for name in bin sbin lib lib64; do
  if [ -L "/$name" ]; then
    ln -s "usr/$name" "$name"
  elif [ -d "/$name" ]; then
    mkdir "$name"
    mount --rbind "/$name" "$name"
  fi
done
echo 'root:x:0:0:root:/root:/bin/sh' >etc/passwd
echo 'root:x:0:' >etc/group
cp "$module" "$provider/QXRemConXfer.so"
cp "$qxctl" tools/qxctl
cp "$script" tools/script
exec chroot . /usr/bin/env -i PATH=/tools:/usr/bin:/bin HOME=/root NO_COLOR= LC_ALL=C.UTF-8 \
  /bin/bash -c 'umask 022; cd /root; exec timeout 120 /bin/bash /tools/script'
)sh";

Ran ReplayOnNewMachine(const std::string& script, const TempDir& directory) {
  std::vector<std::string> command = {"unshare", "--mount", "--pid", "--fork"};
  if (geteuid() != 0) command.insert(command.end(), {"--user", "--map-root-user"});
  command.insert(command.end(),
                 {"/bin/sh", "-c", kNewMachine, "sh", directory.Path(), ModulePath(), QxctlPath(), script});
  return Child(command, {.directory = "/"}).Wait();
}

}  // namespace

std::vector<std::string> Replay(const std::vector<Session>& sessions, bool on_new_machine) {
  std::string script;
  for (const Session& session : sessions) {
    if (session.not_run.empty()) script += ScriptOf(session);
    script += std::string("printf '") + "\\036\\n'\n";
  }
  const TempDir place;
  const TempDir directory;
  WriteFile(place.File("script"), script);
  const Ran ran = on_new_machine
                      ? ReplayOnNewMachine(place.File("script"), directory)
                      : Child({"timeout", "120", "bash", place.File("script")}, FreshStart(directory)).Wait();
  EXPECT_EQ(ran.err, "");
  EXPECT_NE(ran.code, 124) << "the sessions did not end";

  std::vector<std::string> printed;
  std::size_t at = 0;
  for (std::size_t end = ran.out.find(kBetweenSessions); end != std::string::npos;
       end = ran.out.find(kBetweenSessions, at)) {
    printed.push_back(ran.out.substr(at, end - at));
    at = end + sizeof kBetweenSessions - 1;
  }
  printed.resize(sessions.size());
  return printed;
}

// Records end with CR LF; a page shows only the LF.
std::string WithoutWhatVaries(std::string text) {
  std::erase(text, '\r');
  for (const Varying& varying : kVarying) text = Hide(text, varying.pattern);
  return text;
}

}  // namespace qx::test
