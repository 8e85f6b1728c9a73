#!/usr/bin/env bash
# toveistror-probe as a user runs it:   test_probe.sh PROBE STATE_DIR [--no-sasl]
# Against slapd (and, unless --no-sasl, a KDC for GSSAPI): each case's exit status and its
# one line of output, the same synchronously and with --async; a cancel; --help; misuse.
# (Every outcome of the test itself is in test_conntest.cpp; here is what the tool prints.)
set -uo pipefail
probe=${1:?usage: test_probe.sh PROBE STATE_DIR [--no-sasl]}
state=${2:?usage: test_probe.sh PROBE STATE_DIR [--no-sasl]}
sasl=1
[ "${3:-}" != --no-sasl ] || sasl=0
fixtures=$(dirname "${BASH_SOURCE[0]}")/../fixtures
mkdir -p "$state"
work=$(mktemp -d "$state/probe.XXXXXX")
failures=0
trap 'bash "$fixtures/slapd.sh" stop "$work/srv"; bash "$fixtures/kdc.sh" stop "$work/kdc"
  [ "$failures" -ne 0 ] || rm -rf "$work"' EXIT
kdc=()
if [ "$sasl" = 1 ]; then
  bash "$fixtures/kdc.sh" start "$work/kdc" --owner $$ >/dev/null || exit 1
  kdc=(--kdc "$work/kdc")
fi
bash "$fixtures/slapd.sh" start "$work/srv" --owner $$ --shared "$state/shared" "${kdc[@]}" ||
  exit 1
# shellcheck source=/dev/null
. "$work/srv/env"
export TOVEISTROR_CA_FILE=$CA_FILE
unset LDAPTLS_REQCERT LDAPTLS_CACERT TOVEISTROR_LDAP_PROTOCOL TOVEISTROR_CA_DIR KRB5CCNAME
# shellcheck source=checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/checks.sh"

# check NAME STATUS LINE ARGS...: the exit status and the whole output, in both forms.
check() {
  local name=$1 status=$2 line=$3 form out rc
  shift 3
  for form in --sync --async; do
    out=$("$probe" "$@" ${form/--sync/} 2>/dev/null)
    rc=$?
    [ "$rc:$out" = "$status:$line" ] || fail "$name $form: exit $rc '$out', not $status '$line'"
  done
}

admin=(-H "$LDAP_URI" -D "$BIND_DN" -w "$BIND_PW")
check "base found" 0 "0x00000000 success" "${admin[@]}" -b "$BASE_DN"
check "other case" 1 "0x51039182 base entry not found" "${admin[@]}" -b "DC=example,dc=test"
check "wrong password" 1 "0x51031102 invalid credentials" "${admin[@]}" -w wrong
check "closed port" 1 "0x51032101 cannot connect (refused)" -H ldap://127.0.0.1:1
if [ "$sasl" = 1 ]; then
  ccache=$(sed -n "s/^CCACHE='FILE:\(.*\)'$/\1/p" "$work/kdc/env")
  KRB5_CONFIG=$(sed -n "s/^KRB5_CONFIG='\(.*\)'$/\1/p" "$work/kdc/env")
  export KRB5_CONFIG
  check "GSSAPI" 0 "0x00000000 success" -H "$LDAP_URI" -Y GSSAPI -C "$ccache" -b "$BASE_DN"
  KRB5CCNAME=FILE:$ccache check "GSSAPI, KRB5CCNAME" 0 "0x00000000 success" -H "$LDAP_URI" \
    -Y GSSAPI -b "$BASE_DN"
  check "GSSAPI, no cache" 1 "0x51039183 Kerberos credential cache not usable" \
    -H "$LDAP_URI" -Y GSSAPI -C "$work/no-such-cache" -b "$BASE_DN"
fi

# A cancel during the bind's wait is seen once the answer is in, before the search: a
# server that answers the bind after half a second, whatever the machine's load.
python3 -c '
import socket, sys, time
lsn = socket.socket()
lsn.bind(("127.0.0.1", 0))
lsn.listen(1)
print(lsn.getsockname()[1], flush=True)
conn, _ = lsn.accept()
conn.recv(1024)
time.sleep(0.5)
conn.sendall(bytes.fromhex("300c02010161070a010004000400"))
conn.recv(1024)
' >"$work/slow.port" &
slow=$!
for _ in $(seq 100); do [ -s "$work/slow.port" ] && break || sleep 0.05; done
out=$("$probe" -H "ldap://127.0.0.1:$(cat "$work/slow.port")" -b "$BASE_DN" --async \
  --cancel-after 100 2>&1)
[ "$?:$out" = "1:0x51035105 cancelled" ] || fail "cancel: '$out'"
kill "$slow" 2>/dev/null

# --help lists every code the probe prints; misuse exits 2 before any connection.
codes=$("$probe" --help | grep -cE '^  0x[0-9a-f]{8}  ')
[ "$codes" = 18 ] || fail "--help lists $codes codes, not 18"
for bad in "--cancel-after 5" "-Y PLAIN" "-H http://x" "-o nettimeout=-3" "extra"; do
  # shellcheck disable=SC2086
  "$probe" $bad >/dev/null 2>&1
  rc=$?
  [ "$rc" = 2 ] || fail "'$bad' exits $rc, not 2"
done
echo "toveistror-probe: $failures failures"
[ "$failures" -eq 0 ]
