# Completes the command line of confsim in bash. The options, the kinds of their values and the
# subcommands are those of its own --help, so this file knows none of them.

# Reads a page of help into the caller's `values` (of each option; empty: takes none) and
# `subcommands`. usage: _confsim_read PROGRAM [SUBCOMMAND]
_confsim_read()
{
    local short long value
    local line='^  ((-.),)?(--[a-z-]+)( ([^ ]+))?(  |$)'
    values=()
    subcommands=()
    while IFS= read -r; do
        if [[ $REPLY =~ $line ]]; then
            short=${BASH_REMATCH[2]} long=${BASH_REMATCH[3]} value=${BASH_REMATCH[5]}
            values[$long]=$value
            [[ -z $short ]] || values[$short]=$value
        elif [[ $REPLY =~ ^'  '([a-z]+)'  ' ]]; then
            subcommands+=("${BASH_REMATCH[1]}")
        fi
    done < <("$@" --help 2>/dev/null)
}

# Offers names of files (-f), directories (-d) or commands (-c) that begin with the caller's `word`.
_confsim_names()
{
    compopt -o filenames 2>/dev/null || true # fails where no completion is going on
    mapfile -t COMPREPLY < <(compgen "$1" -- "$word")
}

_confsim()
{
    local program=${COMP_WORDS[0]/#\~/$HOME} word=${COMP_WORDS[COMP_CWORD]} subcommand='' value='' i each
    local -A values
    local -a subcommands known
    COMPREPLY=()
    _confsim_read "$program"
    known=("${subcommands[@]}")

    # What is expected at the cursor. Bash takes "=" and ":" for words of their own.
    for ((i = 1; i < COMP_CWORD; ++i)); do
        each=${COMP_WORDS[i]}
        if [[ -n $value && $each == = ]]; then
            continue
        elif [[ -n $value && ${COMP_WORDS[i + 1]} == [:=] ]]; then
            value=${value#*[:=]}
            i=$((i + 1))
        elif [[ -n $value ]]; then
            value=''
        elif [[ $each == -- && $((i + 1)) == "$COMP_CWORD" ]]; then
            _confsim_names -c
            return
        elif [[ $each == -- || ($subcommand == run && $each != -*) ]]; then
            _confsim_names -f
            return
        elif [[ -z $subcommand && " ${known[*]} " == *" $each "* ]]; then
            subcommand=$each
            _confsim_read "$program" "$subcommand"
        else
            value=${values[$each]-}
        fi
    done
    [[ $word != [:=] ]] || word=''

    case $value/$subcommand in
        DIR/*) _confsim_names -d ;;
        FILE/* | 'FILE|DIR/'* | SOCKET/*) _confsim_names -f ;;
        ?*/*) ;; # nobody but the user knows
        */*)
            if [[ $word == -* ]]; then
                mapfile -t COMPREPLY < <(compgen -W "${!values[*]}" -- "$word")
            elif [[ -z $subcommand ]]; then
                mapfile -t COMPREPLY < <(compgen -W "${known[*]}" -- "$word")
            elif [[ $subcommand == run ]]; then
                _confsim_names -c
            fi
            ;;
    esac
}
complete -F _confsim confsim
