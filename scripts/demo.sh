#!/usr/bin/env bash
# toveistror end to end: installs what is missing, builds the library and the
# toveistror-search tool, starts a throwaway OpenLDAP slapd on loopback with the
# sample data, and searches it over plain LDAP, StartTLS and LDAPS (certificate
# verified against the test CA), bound with a password and then with SASL GSSAPI
# (a throwaway MIT KDC, a credential cache from kinit). Prints the LDIF of one
# search of each kind and a summary line per mode; exits non-zero if any mode
# fails. Works from any directory.
#
# Environment: TOVEISTROR_DEMO_BUILD  build directory (default <repo>/build-demo)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${TOVEISTROR_DEMO_BUILD:-$root/build-demo}
jobs=$(nproc 2>/dev/null || echo 2)

step() { printf '\n== %s\n' "$*"; }
now_ms() { echo $(($(date +%s%N) / 1000000)); }

step "dependencies"
bash "$root/scripts/deps.sh"

step "build (Release: library and toveistror-search)"
t0=$(now_ms)
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DTOVEISTROR_TESTS=OFF -DTOVEISTROR_INTEGRATION=OFF -DTOVEISTROR_TOOLS=ON \
  -DTOVEISTROR_FUZZ=OFF -DTOVEISTROR_BENCH=OFF >/dev/null
cmake --build "$build" --target toveistror-search -j"$jobs" >/dev/null
tool=$build/tools/toveistror-search
[ -x "$tool" ] || {
  echo "demo: $tool was not built" >&2
  exit 1
}
echo "built $tool in $(($(now_ms) - t0)) ms"

step "throwaway slapd on loopback"
work=$(mktemp -d "${TMPDIR:-/tmp}/toveistror-demo.XXXXXX")
cleanup() {
  "$root/tests/fixtures/slapd.sh" stop "$work" || true
  "$root/tests/fixtures/kdc.sh" stop "$work/kdc" || true
  rm -rf "$work"
}
trap cleanup EXIT
"$root/tests/fixtures/kdc.sh" start "$work/kdc" --owner $$
"$root/tests/fixtures/slapd.sh" start "$work" --owner $$ --kdc "$work/kdc"
# shellcheck source=/dev/null
. "$work/env"
echo "slapd pid $SLAPD_PID: $LDAP_URI and $LDAPS_URI, base $BASE_DN"

people="ou=people,$BASE_DN"
filter="(|(sn=Archer)(sn=Baker))"
attrs=(cn mail jpegPhoto)
export TOVEISTROR_CA_FILE=$CA_FILE

# What ldapsearch prints for the same search, as the reference for our LDIF.
LDAPTLS_CACERT=$CA_FILE ldapsearch -x -LLL -o ldif_wrap=76 -H "$LDAP_URI" \
  -D "$USER_DN" -w "$USER_PW" -b "$people" "$filter" "${attrs[@]}" >"$work/reference.ldif"

failures=0
summary=()
first=1
run_mode() { # NAME URI [tool options...]
  local name=$1 uri=$2
  shift 2
  local out=$work/$name.ldif err=$work/$name.err rc t1 t2 t3 big_rc big_n n result same
  t1=$(now_ms)
  rc=0
  "$tool" -x -H "$uri" "$@" -D "$USER_DN" -w "$USER_PW" -b "$people" "$filter" "${attrs[@]}" \
    >"$out" 2>"$err" || rc=$?
  t2=$(now_ms)
  big_rc=0
  "$tool" -x -H "$uri" "$@" -b "ou=big,$BASE_DN" -s one "(cn=user*)" cn >"$work/$name-big.ldif" \
    2>>"$err" || big_rc=$?
  t3=$(now_ms)
  n=$(sed -n 's/^# numEntries: //p' "$out")
  big_n=$(sed -n 's/^# numEntries: //p' "$work/$name-big.ldif")
  result=$(sed -n 's/^# result: //p' "$out")
  if grep -v '^#' "$out" | cmp -s - "$work/reference.ldif"; then same=yes; else same=NO; fi
  if [ "$first" = 1 ]; then
    step "LDIF of $filter under $people (as alice, $name)"
    cat "$out"
    first=0
  fi
  if [ "$rc" -ne 0 ] || [ "$big_rc" -ne 0 ] || [ "$same" != yes ] || [ "${big_n:-0}" -ne 2000 ]; then
    failures=$((failures + 1))
    echo "demo: mode $name failed (exit $rc/$big_rc, LDIF as ldapsearch: $same):" >&2
    sed 's/^/  /' "$err" >&2
  fi
  summary+=("$(printf '%-9s %-32s entries %-4s result %-12s %4d ms   ou=big: %s entries %4d ms   same LDIF as ldapsearch: %s' \
    "$name" "$uri" "${n:-?}" "${result:-$rc}" $((t2 - t1)) "${big_n:-?}" $((t3 - t2)) "$same")")
}

run_mode plain "$LDAP_URI"
run_mode starttls "ldap://localhost:$LDAP_PORT/" -ZZ
run_mode ldaps "ldaps://localhost:$LDAPS_PORT/"

# SASL GSSAPI: alice's Kerberos ticket instead of a password. Only its own user may read
# an entry's userPassword, so the search shows who the server thinks we are.
kdc() { sed -n "s/^$1='\(.*\)'\$/\1/p" "$work/kdc/env"; } # its env would clash with slapd's
export KRB5_CONFIG KRB5CCNAME
KRB5_CONFIG=$(kdc KRB5_CONFIG)
KRB5CCNAME=$(kdc CCACHE)
echo "KDC pid $(kdc KDC_PID) on port $(kdc KDC_PORT), realm $(kdc REALM), cache $KRB5CCNAME"
gfilter="(userPassword=*)"
ldapsearch -Y GSSAPI -O maxssf=0 -Q -LLL -o ldif_wrap=76 -H "$LDAP_URI" -b "$people" "$gfilter" \
  uid userPassword >"$work/gssapi-reference.ldif"
gfirst=1
gssapi_mode() { # NAME URI [tool options...]
  local mode=$1 name=gssapi-$1 uri=$2 out rc t1 t2 same
  shift 2
  out=$work/$name.ldif
  t1=$(now_ms)
  rc=0
  "$tool" -Y GSSAPI -H "$uri" "$@" -b "$people" "$gfilter" uid userPassword >"$out" \
    2>"$work/$name.err" || rc=$?
  t2=$(now_ms)
  if grep -v '^#' "$out" | cmp -s - "$work/gssapi-reference.ldif"; then same=yes; else same=NO; fi
  if [ "$gfirst" = 1 ]; then
    step "LDIF of $gfilter under $people, bound with GSSAPI ($mode)"
    cat "$out"
    gfirst=0
  fi
  if [ "$rc" -ne 0 ] || [ "$same" != yes ] || ! grep -q "^dn: $USER_DN\$" "$out"; then
    failures=$((failures + 1))
    echo "demo: mode $name failed (exit $rc, LDIF as ldapsearch -Y GSSAPI: $same):" >&2
    sed 's/^/  /' "$work/$name.err" >&2
  fi
  summary+=("$(printf '%-9s %-32s entries %-4s bound with GSSAPI %4d ms   same LDIF as ldapsearch -Y GSSAPI: %s' \
    "$mode" "$uri" "$(sed -n 's/^# numEntries: //p' "$out")" $((t2 - t1)) "$same")")
}
gssapi_mode plain "$LDAP_URI"
gssapi_mode starttls "ldap://localhost:$LDAP_PORT/" -ZZ
gssapi_mode ldaps "ldaps://localhost:$LDAPS_PORT/"

step "summary (TLS modes verify the server certificate against the test CA)"
printf '%s\n' "${summary[@]}"

if [ "$failures" -ne 0 ]; then
  echo "demo: $failures mode(s) failed" >&2
  exit 1
fi
echo "demo: all modes passed"
