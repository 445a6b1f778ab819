# Completion of qxctl for fish, made by "qxctl completion fish".
#
# The tables hold what qxctl knows about its commands. Each is a function that prints the entry of its argument:
#   __qxctl_words      the words that may come next, lines "WORD<tab>HELP"
#   __qxctl_options    the options of the command, lines "NAME<tab>HELP"
#   __qxctl_values     "COMMAND OPTION": the kind of the option's value
#   __qxctl_arguments  the kinds of its arguments, in order; "..." after the last one says that it may be repeated
#
# The kinds:
#   @file @dir   a path               @store   a report's path
#   @either      @reports or @store   @traces  a file of the trace directory, or a path
#   @none        anything             a|b|c    one of these
#   @KIND        what "qxctl _offers KIND -- WORD WORDS-BEFORE" prints: a line each, after a tab comes its help
#@TABLES@

# Prints the paths that begin with $argv[1]; a directory ends with "/".
function __qxctl_paths
    set -l found $argv[1]*
    set -q found[1]; and command ls -dp -- $found
end

# Prints the values of kind $argv[1] for the word $argv[2]; $argv[3] is the qxctl that is called, the others are the
# words before.
function __qxctl_offer
    set -l kind $argv[1]
    set -l current $argv[2]
    switch $kind
        case '' @none
        case @file
            __qxctl_paths $current
        case @dir
            __qxctl_paths $current | string match '*/'
        case @store
            set -l found $current*.ind
            string replace -r '\.ind$' '' -- $found
            __qxctl_paths $current | string match '*/'
        case @either
            __qxctl_offer @reports $argv[2..-1]
            __qxctl_offer @store $argv[2..-1]
        case @traces
            $argv[3] _offers traces -- $current $argv[4..-1] 2>/dev/null
            __qxctl_offer @file $argv[2..-1]
        case '@*'
            $argv[3] _offers (string replace @ '' -- $kind) -- $current $argv[4..-1] 2>/dev/null
        case '*'
            string split '|' -- $kind
    end
end

# A name that begins with "-" would be read as an option.
function __qxctl_offer_safely
    if string match -q '@*' -- $argv[1]
        __qxctl_offer $argv | string replace -r '^-' './-'
    else
        __qxctl_offer $argv
    end
end

# The kind of the value of option $argv[2] of the command $argv[1]; nothing for an option without a value.
function __qxctl_kind_of_value
    set -l kind (__qxctl_values "$argv[1] $argv[2]")
    test -n "$kind"; or set kind (__qxctl_values "qxctl $argv[2]")
    echo $kind
end

function __qxctl_complete
    set -l before (commandline -opc)
    set -l qxctl $before[1]
    set -e before[1]
    set -l current (commandline -ct)
    set -l place qxctl
    set -l kind ''
    set -l ended ''
    set -l given 0
    for word in $before
        if test -n "$kind"
            set kind ''
        else if test -z "$ended" -a "$word" = --
            set ended 1
        else if test -z "$ended"; and string match -q -- '-?*' $word
            set kind (__qxctl_kind_of_value "$place" $word)
        else if test -z "$ended"; and __qxctl_words "$place" | string match -q -- "$word"\t'*'
            set place "$place $word"
        else
            set given (math $given + 1)
        end
    end
    if test -n "$kind"
        __qxctl_offer_safely $kind "$current" $qxctl $before
    else if test -z "$ended"; and string match -q -- '--*=*' "$current"
        set -l parts (string split -m 1 = -- $current)
        set kind (__qxctl_kind_of_value "$place" $parts[1])
        for value in (__qxctl_offer_safely "$kind" "$parts[2]" $qxctl $before)
            printf '%s\n' "$parts[1]=$value"
        end
    else if test -z "$ended"; and string match -q -- '-*' "$current"
        __qxctl_options "$place"
    else if __qxctl_words "$place" | string length -q
        __qxctl_words "$place"
    else
        set -l kinds (__qxctl_arguments "$place" | string split ' ')
        if test $given -lt (count $kinds)
            set kind $kinds[(math $given + 1)]
        else if string match -q '*...' -- "$kinds[-1]"
            set kind $kinds[-1]
        end
        __qxctl_offer_safely (string replace -r '\.\.\.$' '' -- "$kind") "$current" $qxctl $before
    end
end

complete -c qxctl -f -a '(__qxctl_complete)'
