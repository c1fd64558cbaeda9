#!/usr/bin/env bash
# The rules of this house that no compiler checks, over every file of the project. They are listed,
# with their reasons, in CONTRIBUTING.md. Patterns are written so that they do not match themselves.
set -euo pipefail
shopt -s inherit_errexit
cd "$(dirname "$0")/.."

# report RULE: prints the findings on standard input, if any, under the name of the rule.
report()
{
    local findings
    findings=$(cat)
    if [[ -n $findings ]]; then
        printf '%s:\n%s\n\n' "$1" "$findings"
    fi
}

# search FLAGS PATTERN FILE...: like grep, but nothing found and nothing to search is no error.
search()
{
    local flags=$1 pattern=$2
    shift 2
    (($# == 0)) || grep -HnI "$flags" -e "$pattern" -- "$@" || (($? == 1))
}

# The lines of standard input that match; none is no error.
matching()
{
    grep -E -e "$1" || (($? == 1))
}

# The lines of standard input that are not of a makefile and begin with a tab, as its commands have to.
without_recipes()
{
    grep -vP '^(debian/rules|packaging/.*Makefile):\d+:\t+[^\t]*[^ \t]$' || (($? == 1))
}

# C and C++ without comments, text and character literals, each line after "FILE:NUMBER:".
code_of()
{
    local file
    for file in "$@"; do
        sed -E 's/"([^"\\]|\\.)*"/""/g; s@//.*@@; s@/\*.*\*/@@; /^ *\/\*/,/\*\//s/.*//' "$file" |
            awk -v file="$file" '{print file ":" NR ":" $0}'
    done
}

list=scripts/list-sources.sh
mapfile -t all < <($list '*' | grep -v '^tests/fuzz/corpus/')
mapfile -t c_files < <($list '*.c' '*.cpp' '*.h' '*.hpp')
mapfile -t scripts < <($list 'dev' '.ci/run' '*.sh')
mapfile -t library < <($list 'src/lib/*.cpp' 'src/lib/*.h')
mapfile -t public < <($list 'include/*.h')

check_all()
{
    search -wE '[T]ODO|[F]IXME|[X]XX|[H]ACK' "${all[@]}" | report "unfinished work"
    search -P '\t|[ \t\r]+$' "${all[@]}" | without_recipes |
        report "tabs and blanks at the end of a line"

    for file in "${c_files[@]}" "${scripts[@]}"; do
        lines=$(wc -l <"$file")
        if ((lines > 450)); then
            printf '%s: %d lines\n' "$file" "$lines"
        fi
    done | report "files of more than 450 lines"

    for file in "${c_files[@]}"; do
        head -n 1 "$file" | grep -qE '^(//|/\*)' || printf '%s\n' "$file"
    done | report "sources that do not open with a comment on what they are for"
    for file in "${scripts[@]}"; do
        sed -n 2p "$file" | grep -q '^# ' || printf '%s\n' "$file"
    done | report "scripts that do not open with a comment on what they are for"

    # The library runs without the C++ runtime, and copies with a bound only.
    code=$(code_of "${library[@]}")
    runtime='\b(throw|try|catch|dynamic_cast|typeid)\b|\bnew +[A-Za-z_(]|\bdelete +[A-Za-z_*(\[]'
    matching "$runtime" <<<"$code" | report "C++ that needs its runtime"
    containers='string|vector|map|set|list|deque|function|thread|mutex|make_unique|shared_ptr'
    containers+='|make_shared|unordered_[a-z]+|[io]?[fs]?stream'
    checked='(\.|->)(at|substr|starts_with|ends_with)\('
    matching "\\bstd::($containers)\\b|$checked" <<<"$code" | report "what allocates or throws"
    matching '\b(strcpy|strcat|stpcpy|sprintf|vsprintf|gets|strtok|alloca)\(' <<<"$code" |
        report "C functions without a bound"

    # A paragraph of a public header that declares functions begins with a comment or carries one.
    awk 'BEGIN {RS = ""} /(^|\n)[a-z][^\n;{}]*[ *][A-Za-z_0-9]+\([^{}]*;/ && !/\/\*/ && !/^typedef/ {
        print FILENAME ": " $0}' "${public[@]}" | report "public functions without a comment"
}

findings=$(check_all)
if [[ -n $findings ]]; then
    printf '%s\n' "$findings"
    exit 1
fi
printf '%d files follow the rules\n' "${#all[@]}"
