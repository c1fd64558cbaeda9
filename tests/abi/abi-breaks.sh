#!/usr/bin/env bash
# The comparison with the binary interface on record finds breaks of each kind, says what broke, and
# lets additions pass.
# usage: abi-breaks.sh SOURCE_DIR
set -euo pipefail
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
source_dir=$1

# compare TITLE FILE SED_SCRIPT: of a copy of the interface, after that change of one of its files.
compare()
{
    printf '=== %s\n' "$1"
    rm -rf tree
    mkdir -p tree/src/lib
    cp -r "$source_dir/include" "$source_dir/abi" tree
    cp "$source_dir/src/lib/libconfsvc.map" tree/src/lib
    sed -i -E "$3" "tree/$2"
    if cmp -s "tree/$2" "$source_dir/$2"; then
        printf 'nothing was changed\n'
        exit 1
    fi
    "$source_dir/tests/abi/abi.sh" tree >report 2>&1
}

while IFS='|' read -r title file script report; do
    if compare "$title" "$file" "$script"; then
        printf 'was not found\n'
        exit 1
    fi
    cat report
    grep -qE "$report" report
done <<'END'
a member added to a record|include/conf_api.h|s/^\} econf_operate_cb_info_t;/int added;\n&/|'int added'
a member of another type|include/conf_hash.h|s/u32_t seed;/int seed;/|u32_t seed
an argument of another type|include/conf_api.h|s/^int econf_plugin_init\(const char \*/&*/|econf_plugin_init
one argument more|include/conf_supervisor.h|s/^void econf_supervisor_stop\(/&int, /|econf_supervisor_stop
another result|include/conf_vec.h|s/^int conf_vector_size\(/long long conf_vector_size(/|conf_vector_size
an argument of a callback|include/conf_api.h|s/\(\*econf_config_cb_t\)\(int /&*/|econf_config_cb_t
a symbol removed|src/lib/libconfsvc.map|s/ conf_strip;//|conf_strip@@CONFSVC_1
a symbol in another node|src/lib/libconfsvc.map|s/ conf_strip;//; s/ econf_path_key;/ conf_strip;&/|conf_strip@@CONFSVC_1
an enumerator renumbered|include/conf_debug.h|s/DBG_MSG = 6/DBG_MSG = 9/|DBG_MSG
an enumerator of no argument|include/conf_api.h|s/ACTIVATE_WITH_SMOOTH = 2/ACTIVATE_WITH_SMOOTH = 3/|ACTIVATE_WITH_SMOOTH
END

compare 'an addition' include/conf_vec.h 's/^int conf_vector_size\(/int conf_added(void);\n&/'
printf 'CONFSVC_1.2 {\nglobal:\n    conf_added;\n} CONFSVC_1.1;\n' >>tree/src/lib/libconfsvc.map
"$source_dir/tests/abi/abi.sh" tree
