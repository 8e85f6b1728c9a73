#!/usr/bin/env bash
# Whole-process comparison on the same work: toveistror-search and OpenLDAP's
# ldapsearch read all 2,000 entries of ou=big from a throwaway slapd, over plain
# LDAP and LDAPS, RUNS times each. Prints wall time and client CPU (user + sys)
# per run, and the sizes of the two client libraries.
#   bench/search_vs_ldapsearch.sh [RUNS]   (needs a built build/ or BUILD_DIR)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=${1:-20}
tool=${BUILD_DIR:-$root/build}/tools/toveistror-search
[ -x "$tool" ] || { echo "build the tool first (cmake --build build)" >&2; exit 1; }

work=$(mktemp -d)
trap '"$root/tests/fixtures/slapd.sh" stop "$work" --remove >/dev/null 2>&1 || true' EXIT
"$root/tests/fixtures/slapd.sh" start "$work" --owner $$ >/dev/null
# shellcheck disable=SC1091
. "$work/env"
export TOVEISTROR_CA_FILE="$CA_FILE" LDAPTLS_CACERT="$CA_FILE"

# measure NAME COMMAND...: average wall and CPU of RUNS runs, in ms
measure() {
  local name=$1; shift
  local t0 t1 c0 c1
  read -r c0 < <(awk '{print $14+$15+$16+$17}' /proc/$$/stat)
  t0=$(date +%s%N)
  for _ in $(seq "$runs"); do "$@" >/dev/null; done
  t1=$(date +%s%N)
  read -r c1 < <(awk '{print $14+$15+$16+$17}' /proc/$$/stat)
  local tick; tick=$(getconf CLK_TCK)
  printf '%-26s wall %6.1f ms   client cpu %6.1f ms\n' "$name" \
    "$(echo "($t1 - $t0) / 1000000 / $runs" | bc -l)" \
    "$(echo "($c1 - $c0) * 1000 / $tick / $runs" | bc -l)"
}

base="ou=big,$BASE_DN"
echo "2,000 entries, all attributes, $runs runs each"
for mode in plain ldaps; do
  if [ $mode = plain ]; then uri="ldap://127.0.0.1:$LDAP_PORT/"; else uri="ldaps://localhost:$LDAPS_PORT/"; fi
  measure "toveistror-search $mode" "$tool" -H "$uri" -x -b "$base" -s one "(objectClass=*)"
  measure "ldapsearch $mode" ldapsearch -H "$uri" -x -LLL -o ldif_wrap=76 -b "$base" -s one "(objectClass=*)"
done

lib=$(ls "$(dirname "$tool")"/../cmp_ldap/libcmp_ldap.so.* 2>/dev/null | head -1)
ldap=$(ldd "$(command -v ldapsearch)" | awk '/libldap/ {print $3}')
lber=$(ldd "$(command -v ldapsearch)" | awk '/liblber/ {print $3}')
echo "library text+data: libcmp_ldap $(size -B "$lib" | awk 'NR==2 {print $1+$2}') bytes;" \
  "libldap + liblber $(size -B "$ldap" "$lber" | awk 'NR>1 {s+=$1+$2} END {print s}') bytes"
