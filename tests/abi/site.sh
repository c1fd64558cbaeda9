#!/usr/bin/env bash
# Builds the documentation site and follows each of its links. Then it takes out a page, an anchor and a
# symbol, and puts in a picture from outside: each has to be found, or the check finds nothing at all.
# usage: site.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"

check()
{
    python3 -B "$source_dir/scripts/site/check.py" site "$source_dir/src/lib/libconfsvc.map"
}

# found FINDING: the check has to fail with it; then the site is whole again.
found()
{
    if check >findings || ! grep -qF "$1" findings; then
        printf 'not found: %s\n' "$1"
        exit 1
    fi
    rm -r site
    cp -r whole site
}

python3 -B "$source_dir/scripts/site/build.py" "$source_dir" site
check
python3 -B "$source_dir/scripts/site/build.py" "$source_dir" whole
diff -r site whole # the same each time

rm site/docs/json.html
found 'json.html leads to no file'
sed -i 's/ id="findings"//' site/docs/confsim.html
found 'confsim.html#findings leads to no anchor'
sed -i '/"t": "econf_plugin_run"/d' site/index.js
found 'econf_plugin_run is not found'
sed -i 's|</main>|<img src="https://example.org/a.png"></main>|' site/index.html
found 'a.png: comes from outside'
