#!/usr/bin/env bash
# Does what README.md and docs/guide.md tell a newcomer to do, against an installed tree, and runs the
# test of a callback in docs/testing.md and the programs of docs/guide/.
# usage: readme.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1
build_dir=$2
readme=$source_dir/README.md
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
install_tree "$build_dir"
# As `eval "$(./dev env)"` does it.
environment=$("$source_dir/scripts/environment.sh" usr)
eval "$environment"
[[ $(command -v confsim) == "$PWD/usr/bin/confsim" ]]
[[ -e ${MANPATH%%:*}/man1/confsim.1 ]]
python3 -c 'import confsvc_test'

follow_readme "$readme"
follow_guide "$source_dir/docs/guide.md"

block "$source_dir/docs/testing.md" c 1 >callback.c
# shellcheck disable=SC2046 # several options
cc -Wall -Wextra -Werror callback.c -o callback $(pkg-config --cflags --libs libconfsvc)
./callback

# The programs of the guides, by the commands and scripts that stand beside them.
# guide PAGE BLOCK_OF_C=PROGRAM... BLOCK_OF_TEXT=SCRIPT...: then does what the first block of sh says.
guide()
{
    local page=$source_dir/docs/guide/$1 file language
    shift
    for file; do
        [[ $file == *.confsim ]] && language=text || language=c
        block "$page" "$language" "${file%%=*}" >"${file#*=}"
    done
    follow "$page" 1
}
guide older-interface.md 1=before.c 2=after.c 1=banner.confsim 2=restart.confsim
confsim run --strict --script restart.confsim -- ./after
guide agents.md 1=agent.c 2=request.c 1=agent.confsim
guide inside-the-daemon.md 1=local.c 2=daemon.c 2=daemon.confsim
guide secrets.md 1=apply.c 2=mask.c
# shellcheck disable=SC2046 # several options
cc -Wall -Wextra -Werror -fsyntax-only request.c apply.c $(pkg-config --cflags libconfsvc)

# Texts that the page says are seen, "..." being what differs, stand in the sources to the letter.
awk -F'`' '/^## Connecting/ {of_ours = 1} of_ours && /^\| `/ && $2 !~ /\(\)$/ {print $2}' \
    "$source_dir/docs/guide/troubleshooting.md" | sed 's/\.\.\./\n/g' | grep -E '.{9}' >texts
[[ $(wc -l <texts) -gt 20 ]]
while read -r text; do
    grep -rqF -- "$text" "$source_dir/src/lib" "$source_dir/tools" || {
        printf 'troubleshooting.md has a text that nothing prints: %s\n' "$text"
        exit 1
    }
done <texts
