#!/usr/bin/env bash
# This library beside OpenLDAP's libldap on the same work: a client walking an address
# book of 10,000 entries (7 attributes, 11 values each) from a throwaway slapd, over plain
# LDAP, StartTLS and LDAPS. Prints one table:
#   - client instructions per entry under callgrind, with the fixed cost removed (the
#     same walk over 5,000 and over 10,000 entries, the difference divided by 5,000),
#     for three walks: one value array per attribute; the text and the binary arrays
#     (this library only); read only (each message received and released);
#   - instructions of the first and of a later open in one process (callgrind, 0/1/2
#     opens);
#   - system calls per entry (strace -c: all calls of the 10,000-entry walk / 10,000; how
#     many entries one recv brings depends on timing, so a difference would be noise),
#     peak memory, wall and CPU of the same walk;
#   - with a throwaway KDC, instructions per entry of the one-array walk over plain LDAP
#     after a GSSAPI bind: no security layer, signing (SSF 1), sealing (SSF 56 to 256);
#   - the core library's size on arm-linux-gnueabihf (Thumb-2, -Os, with SASL and the
#     connection test), per source file.
#
#   bench/side_by_side.sh [--quick] [--no-arm] [--no-gssapi]
#
# BUILD_DIR (default build-perf) holds a build with -DTOVEISTROR_BENCH=ON and
# libldap-dev installed. --quick: plain and LDAPS only, no wall-time repeats. Takes a
# few minutes: not part of the test run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-perf}
ours=$build/bench/walk_toveistror
theirs=$build/bench/walk_libldap
quick=0 arm=1 gssapi=1
for a in "$@"; do
  case $a in
    --quick) quick=1 ;;
    --no-arm) arm=0 ;;
    --no-gssapi) gssapi=0 ;;
    *) echo "usage: $0 [--quick] [--no-arm] [--no-gssapi]" >&2; exit 2 ;;
  esac
done
for p in "$ours" "$theirs"; do
  [ -x "$p" ] || { echo "missing $p: build $build with -DTOVEISTROR_BENCH=ON (libldap-dev)" >&2; exit 1; }
done
if ! command -v valgrind >/dev/null || ! command -v strace >/dev/null; then
  echo "needs valgrind and strace" >&2
  exit 1
fi

work=$(mktemp -d)
stop_all() {
  "$root/tests/fixtures/slapd.sh" stop "$work/slapd" --remove >/dev/null 2>&1 || true
  [ $gssapi = 0 ] || "$root/tests/fixtures/kdc.sh" stop "$work/kdc" --remove >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap stop_all EXIT

# The address book: ou=half (5,000 people) and ou=book (10,000), the same shape.
base_dn="dc=example,dc=test"
book() { # OU COUNT
  printf 'dn: ou=%s,%s\nobjectClass: organizationalUnit\nou: %s\n\n' "$1" "$base_dn" "$1"
  awk -v ou="$1" -v n="$2" -v b="$base_dn" 'BEGIN {
    for (i = 1; i <= n; i++) {
      printf "dn: uid=p%05d,ou=%s,%s\n", i, ou, b
      printf "objectClass: top\nobjectClass: person\nobjectClass: organizationalPerson\n"
      printf "objectClass: inetOrgPerson\nuid: p%05d\ncn: Person %05d\nsn: Surname%05d\n", i, i, i
      printf "givenName: Given%05d\nmail: p%05d@book.example.test\n", i, i
      printf "telephoneNumber: +49 89 %07d\ntelephoneNumber: +49 170 %07d\n\n", i, i
    }
  }'
}
shared=$build/bench-slapd
mkdir -p "$shared"
{ book half 5000; book book 10000; } >"$shared/book.ldif.new"
cmp -s "$shared/book.ldif.new" "$shared/book.ldif" 2>/dev/null || mv "$shared/book.ldif.new" "$shared/book.ldif"
rm -f "$shared/book.ldif.new"
kdc=()
if [ $gssapi = 1 ]; then
  "$root/tests/fixtures/kdc.sh" start "$work/kdc" --owner $$ >/dev/null
  kdc=(--kdc "$work/kdc")
fi
"$root/tests/fixtures/slapd.sh" start "$work/slapd" --owner $$ --shared "$shared" \
  --extra "$shared/book.ldif" "${kdc[@]}" >/dev/null
# shellcheck disable=SC1091
. "$work/slapd/env"
export TOVEISTROR_CA_FILE="$CA_FILE" LDAPTLS_CACERT="$CA_FILE"
host=localhost

port_of() { [ "$1" = ldaps ] && echo "$LDAPS_PORT" || echo "$LDAP_PORT"; }

# instr CLIENT MODE TLS BASE [OPENS]: the client's instructions (callgrind's Ir)
instr() {
  local out
  out=$(valgrind --tool=callgrind --callgrind-out-file=/dev/null "$1" "$2" "$3" "$host" \
    "$(port_of "$3")" "$4" "${5:-}" 2>&1 >/dev/null) || { echo "failed: $*" >&2; echo "$out" >&2; exit 1; }
  echo "$out" | awk '/Collected :/ {print $NF}'
}
# per_entry CLIENT MODE TLS: instructions per entry, the fixed cost removed
per_entry() {
  local a b
  a=$(instr "$1" "$2" "$3" "ou=half,$base_dn")
  b=$(instr "$1" "$2" "$3" "ou=book,$base_dn")
  echo $(((b - a) / 5000))
}
# syscalls CLIENT TLS BASE: system calls of a one-array walk
syscalls() {
  strace -f -c -o "$work/strace" "$1" one "$2" "$host" "$(port_of "$2")" "$3" >/dev/null 2>&1
  awk '$NF == "total" {print ($4 ~ /^[0-9]+$/) ? $4 : $3}' "$work/strace"
}
# whole CLIENT TLS: "wall_ms cpu_ms peak_kib" of the 10,000-entry one-array walk (best of 3)
whole() {
  local best="" line
  for _ in $(seq $((quick ? 1 : 3))); do
    line=$(/usr/bin/time -f '%e %U %S %M' "$1" one "$2" "$host" "$(port_of "$2")" \
      "ou=book,$base_dn" 2>&1 >/dev/null | tail -1)
    line=$(echo "$line" | awk '{printf "%.0f %.0f %d", $1 * 1000, ($2 + $3) * 1000, $4}')
    if [ -z "$best" ] || [ "${line%% *}" -lt "${best%% *}" ]; then best=$line; fi
  done
  echo "$best"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2fx", a / b; else print "-" }'; }

check_same() { # both clients see the same entries and values
  local tls=$1 a b
  a=$("$ours" one "$tls" "$host" "$(port_of "$tls")" "ou=book,$base_dn")
  b=$("$theirs" one "$tls" "$host" "$(port_of "$tls")" "ou=book,$base_dn")
  [ "$a" = "$b" ] || { echo "clients disagree over $tls: '$a' / '$b'" >&2; exit 1; }
}

transports=(plain starttls ldaps)
[ $quick = 1 ] && transports=(plain ldaps)
echo "Address book: 10,000 entries of 7 attributes / 11 values; client $host, slapd on loopback"
echo "Instructions per entry (callgrind, 10,000 minus 5,000 entries, / 5,000):"
printf '%-9s %-34s %12s %12s %8s\n' transport walk libldap toveistror ratio
for t in "${transports[@]}"; do
  check_same "$t"
  l_one=$(per_entry "$theirs" one "$t")
  o_one=$(per_entry "$ours" one "$t")
  o_both=$(per_entry "$ours" both "$t")
  l_read=$(per_entry "$theirs" read "$t")
  o_read=$(per_entry "$ours" read "$t")
  printf '%-9s %-34s %12d %12d %8s\n' "$t" "DN, attributes, one value array" "$l_one" "$o_one" "$(ratio "$o_one" "$l_one")"
  printf '%-9s %-34s %12s %12d %8s\n' "$t" "text and binary arrays (vs one)" "$l_one" "$o_both" "$(ratio "$o_both" "$l_one")"
  printf '%-9s %-34s %12d %12d %8s\n' "$t" "read only (result + msgfree)" "$l_read" "$o_read" "$(ratio "$o_read" "$l_read")"
done

echo
echo "Opening a session (callgrind instructions; first = 1 open - none, later = 2 opens - 1):"
printf '%-9s %14s %14s %14s %14s\n' transport "libldap 1st" "libldap later" "ours 1st" "ours later"
for t in "${transports[@]}"; do
  row=()
  for c in "$theirs" "$ours"; do
    z=$(instr "$c" open "$t" x 0)
    one=$(instr "$c" open "$t" x 1)
    two=$(instr "$c" open "$t" x 2)
    row+=("$((one - z))" "$((two - one))")
  done
  printf '%-9s %14d %14d %14d %14d\n' "$t" "${row[@]}"
done

echo
echo "System calls per entry (strace -c), and the 10,000-entry one-array walk whole:"
printf '%-9s %-11s %10s %9s %9s %10s\n' transport client "calls/entry" "wall ms" "cpu ms" "peak KiB"
for t in "${transports[@]}"; do
  for c in libldap toveistror; do
    [ $c = libldap ] && p=$theirs || p=$ours
    b=$(syscalls "$p" "$t" "ou=book,$base_dn")
    read -r wall cpu peak < <(whole "$p" "$t")
    printf '%-9s %-11s %10s %9d %9d %10d\n' "$t" "$c" "$(awk -v b="$b" 'BEGIN {printf "%.3f", b / 10000}')" \
      "$wall" "$cpu" "$peak"
  done
done

if [ $gssapi = 1 ]; then
  # shellcheck disable=SC1091
  . "$work/kdc/env"
  export KRB5_CONFIG KRB5CCNAME=$CCACHE
  echo
  echo "Plain LDAP after a GSSAPI bind, one value array (instructions per entry, as above):"
  printf '%-9s %-34s %12s %12s %8s\n' layer "" libldap toveistror ratio
  for layer in none:0,0 signing:1,1 sealing:56,256; do
    export WALK_GSSAPI=${layer#*:}
    check_same plain
    l_one=$(per_entry "$theirs" one plain)
    o_one=$(per_entry "$ours" one plain)
    printf '%-9s %-34s %12d %12d %8s\n' "${layer%%:*}" "SSF ${WALK_GSSAPI/,/ to }" "$l_one" "$o_one" \
      "$(ratio "$o_one" "$l_one")"
  done
  unset WALK_GSSAPI
fi

if [ $arm = 1 ]; then
  echo
  "$root/bench/arm_size.sh"
fi
