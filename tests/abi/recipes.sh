#!/usr/bin/env bash
# Compares debian/ and the recipes in packaging/ with the sources and with what is installed: each file belongs to
# one package, and each pattern that is meant to match does. The steps of OpenWrt's Makefile are run,
# with stand-ins for the files that it includes; of Yocto's recipe the lists are read.
# usage: recipes.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
# shellcheck source=tests/abi/scratch.sh
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
recipe=$(echo "$1"/packaging/yocto/confsvc_*.bb)
makefile=$1/packaging/openwrt/Makefile
install_tree "$2"
find usr ! -type d | sort >installed

# same TITLE WANTED ACTUAL
same()
{
    printf '%s: ' "$1"
    diff <(printf '%s\n' "$2") <(printf '%s\n' "$3") && echo same
}

version=$(sed -nE 's/^project\(confsvc VERSION ([0-9.]+) .*/\1/p' "$1/CMakeLists.txt")
same 'version of the recipe' "$version" "$(basename "$recipe" .bb | cut -d_ -f2)"
same 'version of the Makefile' "$version" "$(sed -n 's/^PKG_VERSION:=//p' "$makefile")"
same 'sum of the licence' "$(md5sum <"$1/LICENSE" | cut -d' ' -f1)" \
    "$(sed -n 's/^LIC_FILES_CHKSUM.*md5=\([0-9a-f]*\)"$/\1/p' "$recipe")"
options=$(sed -nE 's/^option\((CONFSVC_[A-Z]+) .*/\1/p' "$1/CMakeLists.txt" | sort)
same 'options that are there' '' "$(comm -23 <(grep -ohE 'DCONFSVC_[A-Z]+' "$recipe" "$makefile" |
    cut -c2- | sort -u) <(printf '%s\n' "$options"))"

# What every Debian system for building has is not named there.
packages=$(sed -n '/^build_packages=(/,/)/{s/^.*(//; s/)//; p}' "$1/dev" | tr -s ' ' '\n' |
    grep -vxE 'g\+\+|binutils' | sort)
same 'packages for building in debian/control' "$packages" \
    "$(sed -n '/^Build-Depends:/,/^[^ B]/{s/^Build-Depends:.*//; s/^ *\([^ ,:]*\)[^ ,]*,*$/\1/p}' \
        "$1/debian/control" | grep . | sort)"

# Packages take files in the order of PACKAGES, those of "=+" in front.
variables='s@\$\{PN\}@confsvc@g; s@\$\{(lib|include|bin)dir\}@usr/\1@g; s@\$\{docdir\}@usr/share/doc@g
    s@\$\{mandir\}@usr/share/man@g; s@\$\{datadir\}@usr/share@g'
sed -nE "$variables; s/^FILES:([a-z-]+) = \"(.*)\"\$/\1 \2/p" "$recipe" >files
for package in confsim confsvc-examples confsvc confsvc-dev confsvc-doc; do
    read -ra patterns < <(sed -n "s/^$package //p" files)
    cp installed left
    for pattern in "${patterns[@]}"; do
        pattern=${pattern//./\\.}
        grep -vE "^${pattern//\*/.*}(/|\$)" left >rest || true
        mv rest left
    done
    if cmp -s installed left; then
        printf 'the package %s of the recipe is empty\n' "$package"
        exit 1
    fi
    comm -12 installed left >rest
    mv rest installed
done
same 'files that no package of the recipe has' '' "$(cat installed)"

# The install steps do all that Package/.../install and Build/InstallDev do on a real build.
touch rules.mk cmake.mk
sed 's@^    @\t@' >package.mk <<'MAKE'
SHELL:=/bin/bash
INSTALL_DIR:=mkdir -p
CP:=cp -fpR
define BuildPackage
all:
    $(call Package/$(1)/install,device)
    $(call Build/InstallDev,staging)
    @echo $(CMAKE_OPTIONS) >options
endef
MAKE
make -s -f "$makefile" TOPDIR=. INCLUDE_DIR=. PKG_INSTALL_DIR=.
same 'files on the device' "$(find usr -name 'libconfsvc.so.*' | sort)" \
    "$(cd device && find usr ! -type d | sort)"
same 'files of the staging directory' "$(find usr/include usr/lib ! -type d ! -path '*python*' ! -path '*/confsim/*' | sort)" \
    "$(cd staging && find usr ! -type d | sort)"
# They build what they say, on the machine that is here.
read -ra options <options
cmake -S "$1" -B build "${options[@]}" >/dev/null
