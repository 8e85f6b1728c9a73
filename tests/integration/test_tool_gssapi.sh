#!/usr/bin/env bash
# toveistror-search -Y GSSAPI against a real KDC and slapd:   test_tool_gssapi.sh TOOL STATE_DIR
# Its output must be byte for byte what ldapsearch -Y GSSAPI -O maxssf=0 prints for the same
# search on the same transport (the library negotiates no security layer), with the same exit
# status; the failures give their status and message.
set -uo pipefail
tool=${1:?usage: test_tool_gssapi.sh TOOL STATE_DIR}
state=${2:?usage: test_tool_gssapi.sh TOOL STATE_DIR}
fixtures=$(dirname "${BASH_SOURCE[0]}")/../fixtures
mkdir -p "$state"
work=$(mktemp -d "$state/gssapi-tool.XXXXXX")
failures=0
trap 'bash "$fixtures/slapd.sh" stop "$work/srv"; bash "$fixtures/kdc.sh" stop "$work/kdc"
      [ "$failures" -ne 0 ] || rm -rf "$work"' EXIT
bash "$fixtures/kdc.sh" start "$work/kdc" --owner $$ || exit 1
bash "$fixtures/slapd.sh" start "$work/srv" --owner $$ --shared "$state/shared" \
  --kdc "$work/kdc" || exit 1
# shellcheck source=/dev/null
. "$work/srv/env"
KRB5_CONFIG=$work/kdc/krb5.conf
KRB5CCNAME=$(sed -n "s/^CCACHE='\(.*\)'\$/\1/p" "$work/kdc/env")
export KRB5_CONFIG KRB5CCNAME TOVEISTROR_CA_FILE=$CA_FILE LDAPTLS_CACERT=$CA_FILE
unset LDAPTLS_REQCERT TOVEISTROR_LDAP_PROTOCOL TOVEISTROR_CA_DIR
people="ou=people,$BASE_DN"
# shellcheck source=checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/checks.sh"

# same NAME URI_AND_TLS_OPTIONS ARGS...: the first argument goes to both as it stands (split).
same() {
  local name=$1 conn=$2 want got rc_want rc_got
  shift 2
  # shellcheck disable=SC2086
  want=$(ldapsearch -Y GSSAPI -O maxssf=0 -Q $conn "$@" 2>/dev/null)
  rc_want=$?
  # shellcheck disable=SC2086
  got=$("$tool" -Y GSSAPI $conn "$@" 2>"$work/err")
  rc_got=$?
  [ "$rc_got" = "$rc_want" ] || fail "$name: exit $rc_got, ldapsearch $rc_want: $(cat "$work/err")"
  [ "$got" = "$want" ] || fail "$name: LDIF differs: $(diff <(echo "$want") <(echo "$got") | head)"
  [ -n "$want" ] || [ "$rc_want" != 0 ] || fail "$name: vacuous (no output)"
}

# Only its own user may read an entry's userPassword: the searches show who we are.
for conn in "-H $LDAP_URI" "-H ldap://localhost:$LDAP_PORT/ -ZZ" "-H ldaps://localhost:$LDAPS_PORT/"; do
  same "as alice ($conn)" "$conn" -b "$people" "(userPassword=*)" uid userPassword
done
same "alice's own entry" "-H $LDAP_URI" -b "uid=alice,$people" -s base
same "big one level" "-H $LDAP_URI" -b "ou=big,$BASE_DN" -s one "(cn=user1*)" cn mail
same "no such object" "-H $LDAP_URI" -b "ou=nowhere,$BASE_DN"

bash "$fixtures/kdc.sh" kinit "$work/kdc" "$work/other" alice@OTHER.TEST || fail "kinit"
KRB5CCNAME=FILE:$work/missing expect missing-cache 254 'No Kerberos credential cache \(282\)' \
  -Y GSSAPI -H "$LDAP_URI"
KRB5CCNAME=FILE:$work/other expect other-realm 254 'SASL authentication failed \(280\)' \
  -Y GSSAPI -U alice -R OTHER.TEST -H "$LDAP_URI"
expect not-gssapi 1 'only SASL mechanism is GSSAPI' -Y DIGEST-MD5 -H "$LDAP_URI"

echo "test_tool_gssapi: $failures failed"
[ "$failures" -eq 0 ]
