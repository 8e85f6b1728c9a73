#!/usr/bin/env bash
# toveistror-probe as a user runs it, and toveistror-search's GSSAPI binds:
#   test_probe.sh PROBE SEARCH_TOOL STATE_DIR [--no-sasl]
# Against slapd (and, unless --no-sasl, a KDC for GSSAPI): each probe case's exit status and
# its one line of output, the same synchronously and with --async; a cancel; --help; misuse.
# (Every outcome of the test itself is in test_conntest.cpp; here is what the tool prints.)
# With the KDC, toveistror-search -Y GSSAPI must print byte for byte what ldapsearch
# -Y GSSAPI -O maxssf=0 prints for the same search on the same transport (the library
# negotiates no security layer), with the same exit status; its failures give their status
# and message.
set -uo pipefail
probe=${1:?usage: test_probe.sh PROBE SEARCH_TOOL STATE_DIR [--no-sasl]}
tool=${2:?usage: test_probe.sh PROBE SEARCH_TOOL STATE_DIR [--no-sasl]}
state=${3:?usage: test_probe.sh PROBE SEARCH_TOOL STATE_DIR [--no-sasl]}
sasl=1
[ "${4:-}" != --no-sasl ] || sasl=0
# shellcheck source=checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/checks.sh" test_probe
kdc=()
if [ "$sasl" = 1 ]; then
  start_server kdc.sh "$work/kdc" >/dev/null || exit 1
  kdc=(--kdc "$work/kdc")
fi
start_server slapd.sh "$work/srv" --shared "$state/shared" "${kdc[@]}" || exit 1
# shellcheck source=/dev/null
. "$work/srv/env"
export TOVEISTROR_CA_FILE=$CA_FILE

admin=(-H "$LDAP_URI" -D "$BIND_DN" -w "$BIND_PW")
probe_says "base found" "0x00000000 success" "${admin[@]}" -b "$BASE_DN"
probe_says "other case" "0x51039182 base entry not found" "${admin[@]}" -b "DC=example,dc=test"
probe_says "wrong password" "0x51031102 invalid credentials" "${admin[@]}" -w wrong
probe_says "closed port" "0x51032101 cannot connect (refused)" -H ldap://127.0.0.1:1
if [ "$sasl" = 1 ]; then
  ccache=$(env_value "$work/kdc/env" CCACHE)
  ccache=${ccache#FILE:}
  KRB5_CONFIG=$(env_value "$work/kdc/env" KRB5_CONFIG)
  export KRB5_CONFIG
  probe_says "GSSAPI" "0x00000000 success" -H "$LDAP_URI" -Y GSSAPI -C "$ccache" -b "$BASE_DN"
  KRB5CCNAME=FILE:$ccache probe_says "GSSAPI, KRB5CCNAME" "0x00000000 success" -H "$LDAP_URI" \
    -Y GSSAPI -b "$BASE_DN"
  probe_says "GSSAPI, no cache" "0x51039183 Kerberos credential cache not usable" \
    -H "$LDAP_URI" -Y GSSAPI -C "$work/no-such-cache" -b "$BASE_DN"

  people="ou=people,$BASE_DN"
  krb=(env KRB5CCNAME="FILE:$ccache" LDAPTLS_CACERT="$CA_FILE")
  want_cmd=("${krb[@]}" ldapsearch -Y GSSAPI -O maxssf=0 -Q)
  got_cmd=("${krb[@]}" "$tool" -Y GSSAPI)
  # Only its own user may read an entry's userPassword: the searches show who we are.
  for conn in "-H $LDAP_URI" "-H ldap://localhost:$LDAP_PORT/ -ZZ" \
    "-H ldaps://localhost:$LDAPS_PORT/"; do
    # shellcheck disable=SC2086
    same "as alice ($conn)" 0 - $conn -b "$people" "(userPassword=*)" uid userPassword
  done
  same "alice's own entry" 0 - -H "$LDAP_URI" -b "uid=alice,$people" -s base
  same "big one level" 0 - -H "$LDAP_URI" -b "ou=big,$BASE_DN" -s one "(cn=user1*)" cn mail
  same "no such object" 32 'No such object \(32\)' -H "$LDAP_URI" -b "ou=nowhere,$BASE_DN"

  bash "$fixtures/kdc.sh" kinit "$work/kdc" "$work/other" alice@OTHER.TEST || fail "kinit"
  KRB5CCNAME=FILE:$work/missing expect missing-cache 254 'No Kerberos credential cache \(282\)' \
    -Y GSSAPI -H "$LDAP_URI"
  KRB5CCNAME=FILE:$work/other expect other-realm 254 'SASL authentication failed \(280\)' \
    -Y GSSAPI -U alice -R OTHER.TEST -H "$LDAP_URI"
  expect not-gssapi 1 'only SASL mechanism is GSSAPI' -Y DIGEST-MD5 -H "$LDAP_URI"
fi

# A cancel during the bind's wait is seen once the answer is in, before the search: a
# server that answers the bind after half a second, whatever the machine's load.
slow="" # set by start_peer
start_peer slow late 127.0.0.1 300c02010161070a010004000400
out=$("$probe" -H "$slow" -b "$BASE_DN" --async --cancel-after 100 2>&1)
[ "$?:$out" = "1:0x51035105 cancelled" ] || fail "cancel: '$out'"

# --help lists every code the probe prints; misuse exits 2 before any connection.
codes=$("$probe" --help | grep -cE '^  0x[0-9a-f]{8}  ')
[ "$codes" = 18 ] || fail "--help lists $codes codes, not 18"
for bad in "--cancel-after 5" "-Y PLAIN" "-H http://x" "-o nettimeout=-3" "extra"; do
  # shellcheck disable=SC2086
  "$probe" $bad >/dev/null 2>&1
  rc=$?
  [ "$rc" = 2 ] || fail "'$bad' exits $rc, not 2"
done
finish
