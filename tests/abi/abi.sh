#!/usr/bin/env bash
# Compares the binary interface with the one on record, abi/libconfsvc.so.1.abi, and prints what
# breaks programs that are there: by abidiff, for the layout on this machine.
# usage: abi.sh [--record] SOURCE_DIR    --record: writes what is there to the record, for a release
#
# What is compared is not the library, whose debug information knows types that the headers hide, and
# not those which only a caller uses. It is a library of the same symbols and version nodes, made of
# the headers: behind the name of each function or variable stands a pointer to its type.
set -euo pipefail
record=
if [[ $1 == --record ]]; then
    record=yes
    shift
fi
source_dir=$1
map=$source_dir/src/lib/libconfsvc.map
accepted=$source_dir/abi/libconfsvc.so.1.abi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The types of libxml2 are its own business.
mkdir "$work/libxml"
echo 'typedef struct _xmlNode xmlNode;' >"$work/libxml/tree.h"

{
    for header in "$source_dir"/include/*.h; do
        printf '#include "%s"\n' "${header##*/}"
    done
    sed -nE 's@/\*.*\*/@@; /^ .*;/p' "$map" | grep -oE '[A-Za-z_0-9]+' |
        sed 's/.*/__typeof__(\&&) abi_& __asm__("&");/'
    # Those that no function's type leads to.
    sed -nE 's/^(typedef )?(struct|enum|union)( __attribute__\(\(packed\)\))? ([A-Za-z_0-9]+) \{$/\2 \4 abi_type_\4;/p' \
        "$source_dir"/include/*.h
} >"$work/abi.c"
sed 's/local:/abi_type_*; local:/' "$map" >"$work/map"
gcc -std=gnu11 -g -fPIC -shared -I"$work" -I"$source_dir/include" "$work/abi.c" \
    -Wl,--version-script="$work/map" -Wl,-soname=libconfsvc.so.1 -o "$work/libconfsvc.so.1"

if [[ $record ]]; then
    abidw --no-corpus-path --no-comp-dir-path --no-show-locs "$work/libconfsvc.so.1" >"$accepted"
else
    # Additions break nobody.
    abidiff --no-added-syms --no-show-locs "$accepted" "$work/libconfsvc.so.1"
fi
