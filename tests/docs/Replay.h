// Runs the sessions of a page as if a reader had typed them.
#pragma once

#include <string>
#include <vector>

#include "tests/docs/Page.h"

namespace qx::test {

// Runs the sessions, and returns the output of each in the form of the page: each command after "$ ", with its output
// on both streams below it, and "exit code N" if the code is not 0. One shell runs all sessions in one new directory,
// with qxctl in its PATH and the built module in QX_MODULE. A session that is marked as not run has an empty text.
//
// A command continues in the next line, after "> ", if it ends with a backslash or begins a here-document.
//
// With `on_new_machine`, the root directory has programs, the module in its place and qxctl, and nothing else; the
// working directory is /root.
std::vector<std::string> Replay(const std::vector<Session>& sessions, bool on_new_machine = false);

// The text with "N" in place of everything that differs from run to run.
std::string WithoutWhatVaries(std::string text);

}  // namespace qx::test
