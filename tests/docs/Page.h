// Reads the pages of docs/, README.md and examples/ for tests: their sessions, links and headings.
#pragma once

#include <string>
#include <vector>

namespace qx::test {

// A console session of a page, without its fences.
struct Session {
  int line = 0;         // of the opening fence, from 1
  std::string text;     // each line with its line feed
  std::string not_run;  // the reason, if a line "<!-- not run: REASON -->" is before it
};

// A link [text](target) outside of code.
struct Link {
  int line = 0;
  std::string target;  // as written
};

struct Page {
  std::string name;  // path below the source tree, such as "docs/qxctl.md"
  std::vector<Session> sessions;
  bool is_of_new_machine = false;  // a line "<!-- sessions: on a new machine -->": they run in an empty root
  std::vector<Link> links;
  std::vector<std::string> anchors;  // of its headings, as links have them after "#"
};

// Every page that a reader may open, in the order of names: README.md, CONTRIBUTING.md, CHANGELOG.md and all *.md below
// docs/ and examples/.
std::vector<std::string> PageNames();

Page ReadPage(const std::string& name);

}  // namespace qx::test
