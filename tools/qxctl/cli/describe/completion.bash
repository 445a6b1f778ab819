# shellcheck shell=bash
# Completion of qxctl for bash, made by "qxctl completion bash".
#
# The tables hold what qxctl knows about its commands; their keys begin with the words of a command:
#   _qxctl_words      the words that may come next
#   _qxctl_options    the options of the command
#   _qxctl_values     "COMMAND OPTION": the kind of the option's value
#   _qxctl_arguments  the kinds of its arguments, in order; "..." after the last one says that it may be repeated
#
# The kinds:
#   @file @dir   a path               @store   a report's path
#   @either      @reports or @store   @traces  a file of the trace directory, or a path
#   @none        anything             a|b|c    one of these
#   @KIND        what "qxctl _offers KIND -- WORD WORDS-BEFORE" prints: a line each, after a tab comes its help
declare -gA _qxctl_words _qxctl_options _qxctl_values _qxctl_arguments
#@TABLES@

# Completes $2 as a value that "qxctl _offers $1" prints; $3 is the qxctl that is called, the others are the words before.
_qxctl_ask() {
  local found kind=$1 current=${2//[\\\'\"]/} qxctl=${3/#\~\//$HOME/}
  shift 3
  while IFS=$'\t' read -r found _; do
    [[ $found == "$current"* ]] && COMPREPLY+=("$found")
  done < <("$qxctl" _offers "$kind" -- "$current" "$@" 2>/dev/null)
  [[ ${COMPREPLY[0]-} == */ ]] && compopt -o nospace 2>/dev/null
  return 0
}

# Completes $2 as a value of kind $1; $3 is the qxctl that is called, the others are the words before.
_qxctl_offer() {
  local found
  case $1 in
    '' | @none) ;;
    @file) mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$2") ;;
    @dir) mapfile -t COMPREPLY < <(compgen -d -- "$2") ;;
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
      _qxctl_offer @reports "${@:2}"
      _qxctl_offer @store "${@:2}"
      ;;
    @traces)
      _qxctl_ask traces "${@:2}"
      _qxctl_offer @file "${@:2}"
      ;;
    @*) _qxctl_ask "${1#@}" "${@:2}" ;;
    *) mapfile -t COMPREPLY < <(compgen -W "${1//|/ }" -- "$2") ;;
  esac
  if [[ $1 == @* ]]; then
    COMPREPLY=("${COMPREPLY[@]/#-/./-}")  # a name that begins with "-" would be read as an option
    compopt -o filenames 2>/dev/null
  fi
  return 0
}

_qxctl() {
  local current=${COMP_WORDS[COMP_CWORD]} place=qxctl kind='' ended='' given=0 word i
  local -a kinds before
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
    before+=("${word//[\\\'\"]/}")
  done
  [[ -n $kind && $current == = ]] && current=''
  if [[ -n $kind ]]; then
    _qxctl_offer "$kind" "$current" "$1" "${before[@]}"
  elif [[ -z $ended && $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${_qxctl_options[$place]}" -- "$current")
  elif [[ -n ${_qxctl_words[$place]} ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${_qxctl_words[$place]}" -- "$current")
  else
    read -ra kinds <<<"${_qxctl_arguments[$place]}"
    kind=${kinds[given]:-}
    [[ -z $kind && ${#kinds[@]} -gt 0 && ${kinds[-1]} == *... ]] && kind=${kinds[-1]}
    _qxctl_offer "${kind%...}" "$current" "$1" "${before[@]}"
  fi
}

complete -F _qxctl qxctl
