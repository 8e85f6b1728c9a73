#!/usr/bin/env bash
# The library as a user gets it: installs the build into a temporary prefix, builds the
# installed examples with the two consumers (the CMake package; pkg-config), in C and
# C++, and runs them against a throwaway slapd.   run.sh BUILD_DIR STATE_DIR VERSION
set -uo pipefail
build=${1:?usage: run.sh BUILD_DIR STATE_DIR VERSION}
state=${2:?} version=${3:?}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../integration/checks.sh
. "$here/../integration/checks.sh" install
# step NAME COMMAND...: runs it with its output in a log, shown only when it fails.
step() {
  local name=$1
  shift
  "$@" >"$work/$name.log" 2>&1 || {
    fail "$name"
    cat "$work/$name.log"
  }
}

prefix=$work/prefix
step install cmake --install "$build" --prefix "$prefix"
pc=$(find "$prefix" -name toveistror.pc)
libdir=$(dirname "$(dirname "$pc")")
examples=$prefix/share/doc/toveistror/examples
for f in include/cmp_ldap.h include/cmp_ldap_version.h include/cmp_ldap.hpp \
  include/toveistror/platform/zelOSW.h include/toveistror/osl_scr_ssl_wrp_posix.h \
  bin/toveistror-search bin/toveistror-probe share/doc/toveistror/PORTING.md; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
for f in libcmp_ldap.a libcmp_ldap_port_posix.a libcmp_ldap.so.$version; do
  [ -e "$libdir/$f" ] || fail "not installed: ${libdir#"$prefix"/}/$f"
done
soname=$(readelf -d "$libdir/libcmp_ldap.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libcmp_ldap.so.${version%%.*}" ] || fail "SONAME $soname"
export PKG_CONFIG_PATH=${pc%/*}
[ "$(pkg-config --modversion toveistror)" = "$version" ] || fail "pkg-config version"

step cmake-consumer cmake -S "$here/cmake" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DEXAMPLES="$examples" -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror"
step cmake-consumer-build cmake --build "$work/cmake"
mkdir -p "$work/pc"
step pkg-config-consumer make -C "$work/pc" -f "$here/pkgconfig/Makefile" EXAMPLES="$examples"

# The shared programs take the installed library, the static one none at all.
for exe in "$work/cmake/search" "$work/cmake/search_hpp" "$work/pc/search" "$work/pc/search_hpp"; do
  got=$(ldd "$exe" 2>&1 | sed -n 's/^\s*libcmp_ldap\.so\.[0-9]* => \(.*\) (.*/\1/p')
  [ "$(readlink -f "$got")" = "$(readlink -f "$libdir/libcmp_ldap.so.${version%%.*}")" ] ||
    fail "$exe takes libcmp_ldap from '$got'"
done
! ldd "$work/cmake/search_static" | grep -q cmp_ldap || fail "search_static needs libcmp_ldap.so"
IFS=. read -r major minor patch <<<"$version"
number=$(printf '0x%02x%02x%02x' "$major" "$minor" "$patch")
[ "$("$work/cmake/version")" = "$version $number $number" ] || fail "version: $("$work/cmake/version")"

bash "$here/../../examples/run_example.sh" search "$state" "$work/cmake/search" \
  "$work/cmake/search_hpp" "$work/cmake/search_static" "$work/pc/search" "$work/pc/search_hpp" ||
  failures=$((failures + 1))
finish
