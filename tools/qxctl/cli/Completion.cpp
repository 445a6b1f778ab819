// Both scripts hold the table as associative arrays whose keys begin with the words of a command, and one function that
// walks the words before the cursor. What an option or argument takes is its kind:
//
//   @file @dir   a path               @report  a report of the report directory
//   @store       a report's path      @either  one of the two
//   @none        anything             a|b|c    one of these
//
// The kinds of a command's arguments stand in order; the last one has "..." behind it if it may be repeated.
#include "tools/qxctl/cli/Completion.h"

#include <algorithm>

namespace qx::ctl {

namespace {

std::string KindOf(const std::string& value, const std::vector<std::string>& choices, const CommandRow& row) {
  const bool is_about_reports = row.words.size() > 1 && row.words[1] == "report";
  if (!choices.empty()) return Joined(choices, "|");
  if (value == "NAME") return "@report";
  if (value == "NAME|PATH") return "@either";
  if (value == "DIR") return "@dir";
  if (value == "PATH") return is_about_reports ? "@store" : "@file";
  return value == "FILE" || value == "DIR|PATH" || value == "STATE" ? "@file" : "@none";
}

std::string KindsOfArguments(const CommandRow& row) {
  std::vector<std::string> kinds;
  for (const ArgumentRow& argument : row.arguments) {
    kinds.push_back(KindOf(argument.name, argument.choices, row) + (argument.is_repeatable ? "..." : ""));
  }
  return Joined(kinds);
}

bool IsOfQxctlAlone(const OptionRow& option) { return option.names.back() == "--version"; }

// The options of a command, those of every command included.
std::vector<OptionRow> OptionsOf(const CommandRow& row, const CommandRow& root) {
  std::vector<OptionRow> options = row.options;
  if (&row == &root) return options;
  for (const OptionRow& option : root.options) {
    const bool has_it = std::any_of(options.begin(), options.end(),
                                    [&](const OptionRow& each) { return each.names.back() == option.names.back(); });
    if (!has_it && !IsOfQxctlAlone(option)) options.push_back(option);
  }
  return options;
}

// 'it'\''s': a word of either shell
std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

struct Entry {
  std::string key;
  std::string value;
};

// The kinds of the values that options take, under "COMMAND OPTION".
std::vector<Entry> ValueEntries(const std::vector<CommandRow>& table) {
  std::vector<Entry> entries;
  for (const CommandRow& row : table) {
    for (const OptionRow& option : row.options) {
      for (const std::string& name : option.names) {
        if (option.value.empty()) continue;
        entries.push_back({Joined(row.words) + " " + name, KindOf(option.value, option.choices, row)});
      }
    }
  }
  return entries;
}

std::vector<Entry> ArgumentEntries(const std::vector<CommandRow>& table) {
  std::vector<Entry> entries;
  entries.reserve(table.size());
  for (const CommandRow& row : table) entries.push_back({Joined(row.words), KindsOfArguments(row)});
  return entries;
}

// --- bash

std::string BashArray(const std::string& name, const std::vector<Entry>& entries) {
  std::string text = "declare -gA " + name + "=(\n";
  for (const Entry& entry : entries) text += "  [" + Quoted(entry.key) + "]=" + Quoted(entry.value) + "\n";
  return text + ")\n";
}

std::vector<Entry> BashOptions(const std::vector<CommandRow>& table) {
  std::vector<Entry> entries;
  for (const CommandRow& row : table) {
    std::vector<std::string> names;
    for (const OptionRow& option : OptionsOf(row, table.front())) names.push_back(option.names.back());
    entries.push_back({Joined(row.words), Joined(names)});
  }
  return entries;
}

std::vector<Entry> BashWords(const std::vector<CommandRow>& table) {
  std::vector<Entry> entries;
  entries.reserve(table.size());
  for (const CommandRow& row : table) entries.push_back({Joined(row.words), Joined(row.subcommands)});
  return entries;
}

const char kBashFunctions[] = R"bash(
# Completes $2 as a value of kind $1; $3 is the qxctl that is called.
_qxctl_offer() {
  local found
  case $1 in
    '' | @none) ;;
    @file) mapfile -t COMPREPLY < <(compgen -f -- "$2") ;;
    @dir) mapfile -t COMPREPLY < <(compgen -d -- "$2") ;;
    @report)
      while IFS= read -r found; do
        [[ $found == "$2"* ]] && COMPREPLY+=("$found")
      done < <("${3/#\~\//$HOME/}" _reports 2>/dev/null)
      ;;
    @store)
      while IFS= read -r found; do
        if [[ $found == *.ind ]]; then
          COMPREPLY+=("${found%.ind}")
        elif [[ -d $found ]]; then
          COMPREPLY+=("$found")
        fi
      done < <(compgen -f -- "$2")
      ;;
    @either)
      [[ $2 == */* ]] || _qxctl_offer @report "$2" "$3"
      _qxctl_offer @store "$2" "$3"
      ;;
    *) mapfile -t COMPREPLY < <(compgen -W "${1//|/ }" -- "$2") ;;
  esac
  [[ $1 == @* ]] && compopt -o filenames 2>/dev/null
  return 0
}

_qxctl() {
  local current=${COMP_WORDS[COMP_CWORD]} place=qxctl kind='' ended='' given=0 word i
  local -a kinds
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ -n $kind && $word == = ]]; then  # --color=always comes as three words
      continue
    elif [[ -n $kind ]]; then
      kind=''
    elif [[ -z $ended && $word == -- ]]; then
      ended=1
    elif [[ -z $ended && $word == -?* ]]; then
      kind=${_qxctl_values["$place $word"]:-${_qxctl_values["qxctl $word"]}}
    elif [[ -z $ended && " ${_qxctl_words[$place]} " == *" $word "* ]]; then
      place+=" $word"
    else
      given=$((given + 1))
    fi
  done
  [[ -n $kind && $current == = ]] && current=''
  if [[ -n $kind ]]; then
    _qxctl_offer "$kind" "$current" "$1"
  elif [[ -z $ended && $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${_qxctl_options[$place]}" -- "$current")
  elif [[ -n ${_qxctl_words[$place]} ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${_qxctl_words[$place]}" -- "$current")
  else
    read -ra kinds <<<"${_qxctl_arguments[$place]}"
    kind=${kinds[given]:-}
    [[ -z $kind && ${#kinds[@]} -gt 0 && ${kinds[-1]} == *... ]] && kind=${kinds[-1]}
    _qxctl_offer "${kind%...}" "$current" "$1"
  fi
}

complete -F _qxctl qxctl
)bash";

// --- zsh

std::string ZshArray(const std::string& name, const std::vector<Entry>& entries) {
  std::string text = name + "=(\n";
  for (const Entry& entry : entries) text += "  " + Quoted(entry.key) + " " + Quoted(entry.value) + "\n";
  return text + ")\n";
}

// Lines "NAME:HELP", as _describe takes them.
std::vector<Entry> ZshOptions(const std::vector<CommandRow>& table) {
  std::vector<Entry> entries;
  for (const CommandRow& row : table) {
    std::vector<std::string> lines;
    for (const OptionRow& option : OptionsOf(row, table.front())) {
      lines.push_back(option.names.back() + ":" + option.help);
    }
    entries.push_back({Joined(row.words), Joined(lines, "\n")});
  }
  return entries;
}

std::vector<Entry> ZshWords(const std::vector<CommandRow>& table) {
  std::vector<Entry> entries;
  for (const CommandRow& row : table) {
    std::string lines;
    for (const CommandRow& below : table) {
      const bool is_below = below.words.size() == row.words.size() + 1 &&
                            std::equal(row.words.begin(), row.words.end(), below.words.begin());
      if (is_below) lines += (lines.empty() ? "" : "\n") + below.words.back() + ":" + below.help;
    }
    entries.push_back({Joined(row.words), lines});
  }
  return entries;
}

const char kZshFunctions[] = R"zsh(
# Completes a value of kind $1.
_qxctl_offer() {
  local -a found
  case $1 in
    '' | @none) return 1 ;;
    @file) _files ;;
    @dir) _path_files -/ ;;
    @report)
      found=(${(f)"$(${~words[1]} _reports 2>/dev/null)"})
      compadd -a found
      ;;
    @store)
      found=(${~PREFIX}*.ind(N:r))
      compadd -f -a found
      _path_files -/
      ;;
    @either)
      _qxctl_offer @report
      _qxctl_offer @store
      ;;
    *)
      found=(${(s:|:)1})
      compadd -a found
      ;;
  esac
}

_qxctl() {
  local current=${words[CURRENT]} place=qxctl kind='' ended='' word
  local -a kinds offers
  integer given=0 i
  for ((i = 2; i < CURRENT; i++)); do
    word=${words[i]}
    if [[ -n $kind ]]; then
      kind=''
    elif [[ -z $ended && $word == -- ]]; then
      ended=1
    elif [[ -z $ended && $word == -?* ]]; then
      kind=${_qxctl_values[$place $word]:-${_qxctl_values[qxctl $word]}}
    elif [[ -z $ended && $'\n'${_qxctl_words[$place]} == *$'\n'$word:* ]]; then
      place+=" $word"
    else
      given=$((given + 1))
    fi
  done
  if [[ -z $kind && -z $ended && $current == --*=* ]]; then
    word=${current%%=*}
    kind=${_qxctl_values[$place $word]:-${_qxctl_values[qxctl $word]}}
    compset -P '*='
  fi
  if [[ -n $kind ]]; then
    _qxctl_offer "$kind"
  elif [[ -z $ended && $current == -* ]]; then
    offers=("${(@f)_qxctl_options[$place]}")
    _describe -o option offers
  elif [[ -n ${_qxctl_words[$place]} ]]; then
    offers=("${(@f)_qxctl_words[$place]}")
    _describe command offers
  else
    kinds=(${=_qxctl_arguments[$place]})
    kind=${kinds[given + 1]:-}
    [[ -z $kind && ${kinds[-1]:-} == *... ]] && kind=${kinds[-1]}
    _qxctl_offer "${kind%...}"
  fi
}

if [[ ${funcstack[1]} == _qxctl ]]; then
  _qxctl "$@"
else
  compdef _qxctl qxctl
fi
)zsh";

}  // namespace

std::string BashCompletion(const std::vector<CommandRow>& table) {
  return "# Completion of qxctl for bash, made by \"qxctl completion bash\".\n" +
         BashArray("_qxctl_words", BashWords(table)) + BashArray("_qxctl_options", BashOptions(table)) +
         BashArray("_qxctl_values", ValueEntries(table)) + BashArray("_qxctl_arguments", ArgumentEntries(table)) +
         kBashFunctions;
}

std::string ZshCompletion(const std::vector<CommandRow>& table) {
  return "#compdef qxctl\n# Completion of qxctl for zsh, made by \"qxctl completion zsh\".\n"
         "typeset -gA _qxctl_words _qxctl_options _qxctl_values _qxctl_arguments\n" +
         ZshArray("_qxctl_words", ZshWords(table)) + ZshArray("_qxctl_options", ZshOptions(table)) +
         ZshArray("_qxctl_values", ValueEntries(table)) + ZshArray("_qxctl_arguments", ArgumentEntries(table)) +
         kZshFunctions;
}

}  // namespace qx::ctl
