#!/usr/bin/env bash
# Does what README.md tells a newcomer to do: compiles its plugin with its command, runs its session,
# and compiles the plugin once more against an installed tree. Does the same with docs/guide.md, whose
# blocks of each language are a program in pieces, and runs the test of a callback in docs/testing.md.
# usage: readme.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1
build_dir=$2
readme=$source_dir/README.md
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
mkdir build
ln -s "$build_dir" build/release
ln -s "$source_dir/include" include

block "$readme" c 1 >hello.c
# The session, with what a newcomer is told to see in it.
block "$readme" text 1 >pasted
awk '
    $0 == "try commit" {print "fail commit\nexpect A greeting is needed."; next}
    {print}
    $0 == "commit" {print "expect committed"}
    $0 == "show" {print "expect <greeting>Hi</greeting>"}' pasted >session
[[ $(grep -c '^expect' session) == 3 ]]

block "$readme" sh 2 | sed 's/confsim run --/confsim run --script session --/' >commands
grep -q 'run --script' commands
sh -eux commands
# Pasted into a pipe as it stands, it goes on to its end.
build/release/tools/confsim/confsim run -- ./hello <pasted | tee printed
[[ $(tail -n 1 printed) == '> quit' ]]
grep -q '<greeting>Hi</greeting>' printed
# shellcheck disable=SC2046 # several options
cc -Wall -Wextra -Werror -fsyntax-only -Iinclude $(pkg-config --cflags libxml-2.0) hello.c

# The same in C++.
block "$readme" cpp 1 >hello.cpp
block "$readme" sh 3 | sed 's/^c++ /&-Wall -Wextra -Werror /; s/run --/run --script session --/' >commands
grep -q 'run --script' commands
sh -eux commands

guide=$source_dir/docs/guide.md
block "$guide" c all >door.c
block "$guide" cpp all >door.cpp
block "$guide" text 1 >door.confsim
block "$guide" sh 1 | sed '1s/^cc /cc -Wall -Wextra -Werror /' >commands
sh -eux commands
sed '1s/^cc /c++ -std=c++17 /; s/door\.c /door.cpp /; s/ -o door/ -o door-cpp/; s@\./door$@./door-cpp@' \
    commands >commands-cpp
grep -q 'door.cpp -o door-cpp' commands-cpp
sh -eux commands-cpp

install_tree "$build_dir"
block "$source_dir/docs/testing.md" c 1 >callback.c
# shellcheck disable=SC2046 # several options
cc -Wall -Wextra -Werror callback.c -o callback $(pkg-config --cflags --libs libconfsvc)
LD_LIBRARY_PATH=$(dirname "$PKG_CONFIG_PATH") ./callback
block "$readme" sh 4 | sed "s|=DIR|=$PWD/usr|g; s/-o hello/-o installed/" >commands
echo 'usr/bin/confsim run --script session -- ./installed' >>commands
sh -eux commands
