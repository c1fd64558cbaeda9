#!/usr/bin/env bash
# Holds the manual pages against what they are about: the symbols of the library, the options and
# commands of confsim, the compiler. Says what mandoc has to say, too, where that is installed.
# usage: manual.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
shopt -s inherit_errexit
source_dir=$1
build_dir=$2
confsim=$build_dir/tools/confsim/confsim
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
install_tree "$build_dir"
man=$PWD/usr/share/man
status=0

# same TITLE WANTED ACTUAL: compares two lists, one name a line.
same()
{
    local difference
    if ! difference=$(diff <(sort -u <<<"$2") <(sort -u <<<"$3")); then
        printf '%s (< missing, > too much):\n%s\n' "$1" "$(grep '^[<>]' <<<"$difference")"
        status=1
    fi
}

# none TITLE FINDINGS
none()
{
    if [[ -n $2 ]]; then
        printf '%s:\n%s\n' "$1" "$2"
        status=1
    fi
}

# display PAGE NUMBER: the text of a literal display of the page's examples.
display()
{
    awk -v number="$2" '
        /^\.Ed/ {inside = 0}
        inside {gsub(/\\e/, "\\"); gsub(/\\&/, ""); print}
        /^\.Sh/ {examples = $2 == "EXAMPLES"}
        examples && /^\.Bd -literal/ && ++count == number {inside = 1}' "$1"
}

# A page for each call and variable; beside them only those of the headers.
exported=$(nm -D --defined-only "$build_dir/src/lib/libconfsvc.so" |
    awk '$2 != "A" {sub(/@.*/, "", $3); print $3}')
headers=$(basename -s .h "$source_dir"/include/*.h)
same "pages of section 3" "$exported"$'\n'"$headers" "$(basename -s .3 "$man"/man3/*)"

same "options in confsim(1)" \
    "$({ "$confsim" --help && "$confsim" run --help; } |
        grep -oE '^  -[-A-Za-z,]+' | tr -d ' ' | tr ',' '\n')" \
    "$(sed -nE 's/^\.It Fl ([^ ]+).*/-\1/p' "$man/man1/confsim.1")"
same "forms in confsim(1)" "$("$confsim" --help | sed -n '/^Sub/,$s/^  \([a-z]*\) .*/\1/p')" \
    "$(sed -n '/^\.Sh SYN/,/^\.Sh DESC/s/^\.Cm //p' "$man/man1/confsim.1")"
same "commands in confsim-script(5)" \
    "$(echo help | "$confsim" run -- true 2>/dev/null | sed -nE 's/^([a-z][-a-z]*) .*/\1/p')" \
    "$(sed -nE 's/^\.It Ic ([^ ]+).*/\1/p' "$man/man5/confsim-script.5")"

mapfile -t pages < <(grep -LE '^\.so ' "$man"/man*/*)
for title in NAME EXAMPLES 'SEE ALSO'; do
    none "no section $title in" "$(grep -L "^\\.Sh $title\$" "${pages[@]}" || true)"
done
# Beside ours only pages of the system that the text speaks of.
none "references to pages that are not there" \
    "$(sed -nE 's/^\.(It )?Xr ([^ ]+) ([1-9]).*/\2.\3/p' "${pages[@]}" | sort -u |
        grep -vxE 'fork\.2|explicit_bzero\.3' | while read -r page; do
            [[ -e $man/man${page##*.}/$page ]] || printf '%s\n' "$page"
        done)"
if command -v mandoc >/dev/null; then # it looks for references in the system only
    none "mandoc" "$(mandoc -T lint "${pages[@]}" 2>/dev/null |
        grep -v 'STYLE: referenced manual not found' || true)"
fi

# The examples: those of section 3 as they stand, the plugin with the session that goes with it.
read -ra flags < <(pkg-config --cflags --libs libconfsvc)
flags+=(-Wall -Wextra -Werror)
export LD_LIBRARY_PATH=${PKG_CONFIG_PATH%/pkgconfig}
for page in "$man"/man3/*; do
    display "$page" 1 >example.c
    if grep -q '^int main' example.c; then
        cc -o example example.c "${flags[@]}" &&
            echo expect-exit | "$confsim" run -- ./example
    elif [[ -s example.c ]]; then
        cc -c -o example.o example.c "${flags[@]}"
    fi || none "example of" "$page"
done
display "$man/man7/confsvc.7" 1 >hello.c
display "$man/man5/confsim-script.5" 1 >hello.confsim
display "$man/man7/confsvc.7" 2 >commands
display "$man/man1/confsim.1" 2 >>commands
PATH=$PWD/usr/bin:$PATH sh -eux commands
exit "$status"
