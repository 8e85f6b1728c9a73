#!/usr/bin/env bash
# toveistror-search -Y GSSAPI against a real KDC and slapd:   test_tool_gssapi.sh TOOL STATE_DIR
# Its output must be byte for byte what ldapsearch -Y GSSAPI -O maxssf=0 prints for the same
# search on the same transport (the library negotiates no security layer), with the same exit
# status; the failures give their status and message.
set -uo pipefail
tool=${1:?usage: test_tool_gssapi.sh TOOL STATE_DIR}
state=${2:?usage: test_tool_gssapi.sh TOOL STATE_DIR}
# shellcheck source=checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/checks.sh" test_tool_gssapi
start_server kdc.sh "$work/kdc" || exit 1
start_server slapd.sh "$work/srv" --shared "$state/shared" --kdc "$work/kdc" || exit 1
# shellcheck source=/dev/null
. "$work/srv/env"
KRB5_CONFIG=$work/kdc/krb5.conf
KRB5CCNAME=$(env_value "$work/kdc/env" CCACHE)
export KRB5_CONFIG KRB5CCNAME TOVEISTROR_CA_FILE=$CA_FILE LDAPTLS_CACERT=$CA_FILE
unset LDAPTLS_REQCERT TOVEISTROR_LDAP_PROTOCOL TOVEISTROR_CA_DIR
people="ou=people,$BASE_DN"
want_cmd=(ldapsearch -Y GSSAPI -O maxssf=0 -Q)
got_cmd=("$tool" -Y GSSAPI)

# Only its own user may read an entry's userPassword: the searches show who we are.
for conn in "-H $LDAP_URI" "-H ldap://localhost:$LDAP_PORT/ -ZZ" "-H ldaps://localhost:$LDAPS_PORT/"; do
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

finish
