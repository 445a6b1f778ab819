#!/usr/bin/env python3
"""Writes one source that includes others: script/join_sources.py OUTPUT SOURCE...

The compiler then reads the common headers only once; reading them is most of the work of compiling one source. The
names in the unnamed namespace of each source get a number, so that they do not conflict with those of another source.
"""
import pathlib
import re
import sys

INCLUDE = re.compile(r'^[ ]*#[ ]*include[ ]+[<"].*?[>"]', re.MULTILINE)
OWN_INCLUDE = re.compile(r'^#include "(.*?)"', re.MULTILINE)
UNNAMED_NAMESPACE = re.compile(r"^namespace \{$(.*?)^\}  // namespace$", re.MULTILINE | re.DOTALL)
# A type, an alias, a constant or a function of one source, at the beginning of a line. Members ("Class::Name") are left
# out.
DEFINITION = re.compile(r"^(?:(?:struct|class|enum class|enum|union)\s+(?P<type>\w+)|using\s+(?P<alias>\w+)\s*=|"
                        r"(?!using\b|namespace\b|extern\b)\w[\w:<>,*& \[\]]*[ *&](?P<name>\w+) ?[({=;\[])", re.MULTILINE)


def definitions(text):
    """The names in the unnamed namespaces of a source: its types; and its functions and constants."""
    own = "".join(UNNAMED_NAMESPACE.findall(text))
    matches = list(DEFINITION.finditer(own))
    return {match["type"] or match["alias"] for match in matches} - {None}, {match["name"] for match in matches} - {None}


def header_words(text, root, seen):
    """The words of the project's headers that a source includes, directly or not."""
    words = set()
    for header in OWN_INCLUDE.findall(text):
        if header not in seen and (root / header).exists():
            seen.add(header)
            content = (root / header).read_text()
            words |= set(re.findall(r"\w+", content)) | header_words(content, root, seen)
    return words


def numbered_names(texts, root):
    """For each text, the names that get a number.

    A macro adds the number, at each place where the name occurs. So two kinds of names keep their form: a name that the text also
    uses from another scope ("file::Name", "value.Name"), but only in the first text that does so; and the name of a function
    that a header of the text also contains, because it may be an overload.
    """
    kept = set()
    for text in texts:
        types, others = definitions(text)
        scoped = set(re.findall(r"(?:::|\.|->)(\w+)", text)) - kept
        kept_here = (types | others) & scoped | others & header_words(text, root, set())
        kept |= kept_here
        yield (types | others) - kept_here


def joined(sources, root):
    """One source that includes the others, after all of their headers."""
    texts = [(root / source).read_text() for source in sources]
    lines = sorted({include for text in texts for include in INCLUDE.findall(text)})
    for number, (source, names) in enumerate(zip(sources, numbered_names(texts, root))):
        lines += [f"#define {name} {name}_{number}" for name in sorted(names)]
        lines.append(f'#include "{source}"  // NOLINT(bugprone-suspicious-include)')
        lines += [f"#undef {name}" for name in sorted(names)]
    return "\n".join(lines) + "\n"


def main():
    output, *sources = sys.argv[1:]
    path = pathlib.Path(output)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(joined(sources, pathlib.Path()))


if __name__ == "__main__":
    main()
