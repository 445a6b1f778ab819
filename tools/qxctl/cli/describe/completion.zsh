#compdef qxctl
# Completion of qxctl for zsh, made by "qxctl completion zsh".
#
# The tables hold what qxctl knows about its commands; their keys begin with the words of a command:
#   _qxctl_words      the words that may come next, lines "WORD:HELP"
#   _qxctl_options    the options of the command, lines "NAME:HELP"
#   _qxctl_values     "COMMAND OPTION": the kind of the option's value
#   _qxctl_arguments  the kinds of its arguments, in order; "..." after the last one says that it may be repeated
#
# The kinds:
#   @file @dir   a path               @store   a report's path
#   @either      @reports or @store   @traces  a file of the trace directory, or a path
#   @none        anything             a|b|c    one of these
#   @KIND        what "qxctl _offers KIND -- WORD WORDS-BEFORE" prints: a line each, after a tab comes its help
typeset -gA _qxctl_words _qxctl_options _qxctl_values _qxctl_arguments
#@TABLES@

# Names in the working directory that begin with "-", with "./" in front: they would be read as options. $1 is a glob
# qualifier.
_qxctl_dashed() {
  local -a found
  found=(./-*(N${~1}))
  compadd -f -a found
}

# Completes a value that "qxctl _offers $1" prints. $before are the words before it.
_qxctl_ask() {
  local -a lines found shown
  lines=(${(f)"$(${~words[1]} _offers $1 -- "${(Q)PREFIX}" "${(@)before}" 2>/dev/null)"})
  found=(${lines%%$'\t'*})
  found=(${found/#-/./-})
  shown=(${lines/$'\t'/  -- })
  if [[ ${found[1]-} == */ ]]; then
    compadd -S '' -a found
  else
    compadd -l -d shown -a found
  fi
}

# Completes a value of kind $1.
_qxctl_offer() {
  local -a found
  case $1 in
    '' | @none) return 1 ;;
    @file)
      _qxctl_dashed ''
      _files -F '(-*)'
      ;;
    @dir)
      _qxctl_dashed /
      _path_files -/ -F '(-*)'
      ;;
    @store)
      found=(${~PREFIX}*.ind(N:r))
      found=(${found/#-/./-})
      compadd -f -a found
      _path_files -/ -F '(-*)'
      ;;
    @either)
      _qxctl_ask reports
      _qxctl_offer @store
      ;;
    @traces)
      _qxctl_ask traces
      _qxctl_offer @file
      ;;
    @*) _qxctl_ask ${1#@} ;;
    *)
      found=(${(s:|:)1})
      compadd -a found
      ;;
  esac
}

_qxctl() {
  local current=${words[CURRENT]} place=qxctl kind='' ended='' word
  local -a kinds offers before
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
    before+=("${(Q)word}")
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
