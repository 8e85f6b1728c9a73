#!/usr/bin/env bash
# toveistror-search against a real slapd:   test_tool.sh TOOL STATE_DIR
# Its output must be byte for byte what ldapsearch prints for the same search, with the same
# exit status; the failure cases give their status and message. test_tool_ldif.sh has the
# LDIF edge cases and ldapsearch's options.
set -uo pipefail
tool=${1:?usage: test_tool.sh TOOL STATE_DIR}
state=${2:?usage: test_tool.sh TOOL STATE_DIR}
# shellcheck source=checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/checks.sh" test_tool
start_server slapd.sh "$work/srv" --shared "$state/shared" || exit 1
start_server slapd.sh "$work/notls" --no-tls --shared "$state/shared" || exit 1
NOTLS_URI=$(env_value "$work/notls/env" LDAP_URI)
# shellcheck source=/dev/null
. "$work/srv/env"
export TOVEISTROR_CA_FILE=$CA_FILE LDAPTLS_CACERT=$CA_FILE
unset LDAPTLS_REQCERT TOVEISTROR_LDAP_PROTOCOL TOVEISTROR_CA_DIR
people="ou=people,$BASE_DN"
want_cmd=(ldapsearch -x)
got_cmd=("$tool" -x)

hex() { printf '%s' "$1" | od -An -tx1 | tr -d ' \n'; }

same equality 0 - -H "$LDAP_URI" -b "$people" "(sn=Archer)"
same any-with-attrs 0 - -H "$LDAP_URI" -b "$people" "(cn=*ar*)" cn sn jpegPhoto
same or-and-presence 0 - -H "$LDAP_URI" -b "$people" "(&(|(sn=Archer)(sn=Baker))(mail=*))"
same whole-tree-refs 0 - -H "$LDAP_URI" -b "$BASE_DN" "(objectClass=*)" cn ou
same starttls 0 - -H "ldap://localhost:$LDAP_PORT/" -ZZ -b "$people" "(|(sn=Baker)(sn=Chen))"

expect wrong-password 49 'bind: Invalid credentials \(49\)' -H "$LDAP_URI" -D "$USER_DN" -w no
expect closed-port 255 'Cannot connect to the server \(279\)' -H "ldap://127.0.0.1:1/"
expect not 249 'not supported.*negation' -H "$LDAP_URI" "(!(cn=a))"
expect mixed 249 'not supported.*different kinds' -H "$LDAP_URI" "(|(cn=a)(sn=b*))"
expect three 249 'not supported.*more than two' -H "$LDAP_URI" "(&(cn=a)(sn=b)(uid=c))"
TOVEISTROR_CA_FILE=$OTHER_CA_FILE expect unknown-ca 255 'TLS handshake failed.*\(269\)' \
  -H "$LDAPS_URI" -b "$people"
TOVEISTROR_LDAP_PROTOCOL=0 expect protocol-off 255 '\(276\)' -H "$LDAP_URI"

deep=$(printf '(&%.0s' {1..100})"(sn=Archer)"$(printf ')%.0s' {1..100})
same nested-100 0 - -H "$LDAP_URI" -b "$people" "$deep" cn
deep=$(printf '(&%.0s' {1..20000})"(sn=Archer)"$(printf ')%.0s' {1..20000})
expect nested-20000 249 'nested more than 100 levels deep' -H "$LDAP_URI" "$deep"

# StartTLS refused by the server: -Z goes on in plain text, -ZZ stops. Only the tool gets -Z
# (with it, ldapsearch's search would have message id 3, the tool's 2).
got_cmd=("$tool" -x -Z)
same starttls-refused 0 - -H "$NOTLS_URI" -b "$people" "(sn=Archer)" cn
got_cmd=("$tool" -x)
expect starttls-refused-zz 1 'StartTLS to .* refused by the server' -H "$NOTLS_URI" -ZZ

# A certificate that fails our checks ends the run, -Z or -ZZ, before the password leaves
# in clear: every byte the tool sends goes through a relay that keeps them. The server is
# reached through 127.0.0.1 with a CA that did not sign its certificate, and through
# 127.0.0.2, a name its certificate does not carry. ldapsearch gives the same statuses.
capture=$work/capture
ca_uri="" name_uri="" uri="" # set by start_peer
start_peer ca_uri relay 127.0.0.1 "$LDAP_PORT" "$capture"
start_peer name_uri relay 127.0.0.2 "$LDAP_PORT" "$capture"
# tls_case NAME STATUS PATTERN CA_FILE URI TOOL_ARGS...
tls_case() {
  local name=$1 status=$2 pattern=$3 ca=$4 uri=$5 rc_want
  shift 5
  LDAPTLS_CACERT=$ca ldapsearch -x -LLL -H "$uri" "$@" >/dev/null 2>&1
  rc_want=$?
  [ "$rc_want" = "$status" ] || fail "$name: ldapsearch exits $rc_want, not $status"
  TOVEISTROR_CA_FILE=$ca expect "$name" "$status" "$pattern" -H "$uri" "$@"
}
bound=(-D "$USER_DN" -w "$USER_PW" -b "$USER_DN" -s base)
tls_case other-ca-z 1 'StartTLS .*\(269\)$' "$OTHER_CA_FILE" "$ca_uri" -Z "${bound[@]}"
tls_case other-ca-zz 1 "certificate is not trusted: " "$OTHER_CA_FILE" "$ca_uri" -ZZ "${bound[@]}"
tls_case wrong-name-z 1 'StartTLS .*\(274\)$' "$CA_FILE" "$name_uri" -Z "${bound[@]}"
tls_case wrong-name-zz 1 'certificate is for localhost, 127\.0\.0\.1, ::1.* not for 127\.0\.0\.2$' \
  "$CA_FILE" "$name_uri" -ZZ "${bound[@]}"
# LDAPTLS_REQCERT as ldap.conf(5): only never and allow take the unverified certificate.
for req in never ALLOW; do
  LDAPTLS_REQCERT=$req tls_case "reqcert-$req" 0 '^result: 0 Success$' "$OTHER_CA_FILE" \
    "$ca_uri" -ZZ "${bound[@]}"
done
for req in try Demand hard; do
  LDAPTLS_REQCERT=$req tls_case "reqcert-$req" 1 '\(269\)$' "$OTHER_CA_FILE" "$ca_uri" -ZZ \
    "${bound[@]}"
done
grep -qaF "1.3.6.1.4.1.1466.20037" "$capture" || fail "relay: no StartTLS request went through it"
! grep -qaF "$USER_PW" "$capture" || fail "the password went out in clear"

# A hostile server: a read the library refuses is a failure of the run (255, the connection
# is lost) even when it leaves no code in ld_errno; a referral's URLs are all shown, also in
# a long-form element. Each answers the bind first.
bind_ok=300c02010161070a010004000400
for pdu in "length-ffffffff 30 84 ff ff ff ff" "length-of-5 30 85 01 00 00 00 00"; do
  start_peer uri answer 127.0.0.1 "$bind_ok" "${pdu#* }"
  expect "${pdu%% *}" 255 'search results: failed without a result code$' -H "$uri"
done
a=ldap://a.example/
b=ldap://b.example/
start_peer uri answer 127.0.0.1 "$bind_ok" \
  "3035020102 6530 0a010a 0400 0400 a38126 0411$(hex $a) 0411$(hex $b)"
got=$("$tool" -H "$uri" 2>&1 | grep '^ref:')
[ "$got" = "$(printf 'ref: %s\nref: %s' "$a" "$b")" ] || fail "two-referrals: $got"

finish
