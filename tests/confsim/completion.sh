#!/usr/bin/env bash
# Asks the completion of bash what it offers behind some beginnings of command lines.
# usage: completion.sh COMPLETIONS CONFSIM
set -euo pipefail
completions=$(realpath "$1")
PATH=$(dirname "$(realpath "$2")"):$PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir dir
touch dir/file.xml file.xml

# shellcheck source=/dev/null
source "$completions/confsim.bash"

# options SUBCOMMAND...: all that its page of help has.
options()
{
    confsim "$@" --help | grep -oE '^  (-.,)?--[a-z-]+' | tr ',' '\n' | tr -d ' ' | sort
}

# offers EXPECTED WORD...: what completion makes of the last word.
offers()
{
    local expected=$1 offered
    shift
    COMP_WORDS=(confsim "$@")
    COMP_CWORD=$#
    _confsim
    offered=$(printf '%s\n' "${COMPREPLY[@]}" | sort | xargs)
    if [[ $offered != "$expected" ]]; then
        printf 'bash, %s: offered "%s", expected "%s"\n' "${COMP_WORDS[*]}" "$offered" "$expected"
        exit 1
    fi
}

offers 'doctor run' ''
offers 'run' r
offers "$(options | xargs)" -
offers "$(options run | xargs)" run -
offers "$(options doctor | xargs)" doctor -
offers '--yang --yang-path' run --yang
offers 'dir' --store ''
offers 'dir file.xml' --config ''
offers 'dir/file.xml' run --config dir/f
offers '' --timeout ''
offers '--config' --timeout 5 --conf
offers 'file.xml' --config = f
offers 'file.xml' --report junit : f
offers 'doctor run' -D name = value ''
offers 'doctor run' --store run ''
offers 'confsim' run -- confsi
offers 'file.xml' run --trace -- confsim fi
offers '' doctor ''
