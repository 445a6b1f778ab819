// Runs the sessions of a page as if a reader typed them.
#pragma once

#include <string>
#include <vector>

#include "tests/docs/Page.h"

namespace qx::test {

// What the sessions print, one text for each, in the form of the page: each command after "$ ",
// with its output on both streams below it, and "exit code N" if that is not 0. One shell runs all of them in one fresh
// directory, with qxctl in its PATH and the built module in QX_MODULE. Those marked as not run are left out (empty).
//
// A command continues in the next line, after "> ", if it ends with a backslash or begins a here-document.
//
// On a new machine the root has programs, the module in its place and qxctl, and nothing else; the directory is /root.
std::vector<std::string> Replay(const std::vector<Session>& sessions, bool on_new_machine = false);

// `text` with "N" in the place of everything that differs from run to run.
std::string WithoutWhatVaries(std::string text);

}  // namespace qx::test
