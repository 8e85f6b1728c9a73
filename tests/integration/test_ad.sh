#!/usr/bin/env bash
# The tools against Active Directory (a throwaway Samba domain controller):
#   test_ad.sh SEARCH_TOOL PROBE_TOOL STATE_DIR [--no-sasl]
# toveistror-search's output and exit status must be byte for byte ldapsearch's for the same
# search (simple binds over LDAPS and StartTLS, GSSAPI over both; the domain root with its
# search references, binary attributes, a ranged attribute, the global catalog, AD's
# refusals); toveistror-probe gives the device result of each case. First with
# `ldap server require strong auth = allow_sasl_over_tls`, then with Samba's default, which
# refuses GSSAPI without a security layer on every transport. The domain template is made
# once in TOVEISTROR_AD_SHARED (default STATE_DIR/ad-domain). Exit 77 (skipped) without root.
set -uo pipefail
tool=${1:?usage: test_ad.sh SEARCH_TOOL PROBE_TOOL STATE_DIR [--no-sasl]}
probe=${2:?usage: test_ad.sh SEARCH_TOOL PROBE_TOOL STATE_DIR [--no-sasl]}
state=${3:?usage: test_ad.sh SEARCH_TOOL PROBE_TOOL STATE_DIR [--no-sasl]}
sasl=1
[ "${4:-}" != --no-sasl ] || sasl=0
# shellcheck source=checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/checks.sh" test_ad
start() { # STRONG_AUTH
  start_server samba.sh "$work/dc" --shared "${TOVEISTROR_AD_SHARED:-$state/ad-domain}" \
    --strong-auth "$1"
}
start allow_sasl_over_tls
rc=$?
[ "$rc" = 0 ] || exit "$rc"
# shellcheck source=/dev/null
. "$work/dc/env"
ccache=${CCACHE#FILE:}
export KRB5_CONFIG TOVEISTROR_CA_FILE=$CA_FILE LDAPTLS_CACERT=$CA_FILE
# Both tools print LDIF only and take alice's cache (the probe only with -C); ldapsearch binds
# simply, or with GSSAPI without a security layer unless the case sets one.
want_cmd=(env KRB5CCNAME="$CCACHE" ldapsearch -LLL -x)
got_cmd=(env KRB5CCNAME="$CCACHE" "$tool" -LLL)

ldaps=(-H ldaps://localhost/)
starttls=(-H ldap://localhost/ -ZZ)
device=(-D "$BIND_DN" -w "$BIND_PW")
admin=(-D "Administrator@${REALM,,}" -w "$ADMIN_PW")

same "domain root, its references" 0 - "${ldaps[@]}" "${device[@]}" -b "$BASE_DN" \
  "(objectClass=organizationalUnit)" ou
same "contacts over StartTLS, UPN bind" 0 - "${starttls[@]}" -D "$BIND_UPN" -w "$BIND_PW" \
  -b "$CONTACTS_DN" -s one "(objectClass=contact)" cn sn mail telephoneNumber
same "size limit ignored" 0 - "${ldaps[@]}" "${device[@]}" -b "$CONTACTS_DN" -z 5 \
  "(cn=Contact 1*)" cn
same "binary attributes" 0 - "${ldaps[@]}" "${admin[@]}" -b "CN=Users,$BASE_DN" \
  "(objectClass=user)" objectGUID objectSid nTSecurityDescriptor
# Samba sends all 2,000 members at once, and ranges when asked for them.
same "ranged member" 0 - "${ldaps[@]}" "${device[@]}" -b "$CONTACTS_GROUP_DN" -s base \
  "(objectClass=group)" "member;range=1000-1099" "member;range=1990-*" cn
same "group, attributes only" 0 - "${starttls[@]}" "${device[@]}" -A -b "$GROUP_DN" -s base \
  "(objectClass=*)"
same "global catalog, StartTLS" 0 - -H ldap://localhost:3268/ -ZZ "${device[@]}" -b "$BASE_DN" \
  "(&(cn=Contact 19*)(mail=*))" mail
same "global catalog, LDAPS" 0 - -H ldaps://localhost:3269/ "${device[@]}" -b "" "(cn=Alice)" \
  userPrincipalName
same "the whole domain, every attribute" 0 - "${ldaps[@]}" "${admin[@]}" -b "$BASE_DN"
same "configuration partition, by its reference" 0 - "${starttls[@]}" "${admin[@]}" \
  -b "CN=Configuration,$BASE_DN" "(objectClass=*)" objectClass objectGUID
same "root DSE, anonymous" 0 - "${ldaps[@]}" -b "" -s base "(objectClass=*)" namingContexts \
  defaultNamingContext supportedSASLMechanisms supportedLDAPVersion
same "no such base" 32 'No such object \(32\)' "${ldaps[@]}" "${device[@]}" -b "OU=Nowhere,$BASE_DN"
same "anonymous" 1 'Operations error \(1\)' "${ldaps[@]}" -b "$BASE_DN" -s base
same "simple bind in clear" 8 'BindSimple: Transport encryption required\.' \
  -H ldap://localhost/ "${device[@]}" -b "$BASE_DN" -s base
same "wrong password" 49 'Invalid credentials \(49\)' "${ldaps[@]}" -D "$BIND_DN" -w wrong \
  -b "$BASE_DN" -s base

probe_device=(-D "$BIND_UPN" -w "$BIND_PW")
other="0x5103720f other error (StartTLS refused, another test running, ...)"
probe_says "LDAPS" "0x00000000 success" "${ldaps[@]}" "${probe_device[@]}" -b "$BASE_DN"
probe_says "StartTLS" "0x00000000 success" -H ldap://localhost/ -Z "${probe_device[@]}" \
  -b "$BASE_DN"
probe_says "global catalog" "0x00000000 success" -H ldaps://localhost:3269/ "${probe_device[@]}" \
  -b "$BASE_DN"
TOVEISTROR_CA_FILE=/etc/ssl/certs/ca-certificates.crt probe_says "another CA" \
  "0x51031132 TLS handshake failed (certificate not accepted?)" "${ldaps[@]}" "${probe_device[@]}"
probe_says "wrong password" "0x51031102 invalid credentials" "${ldaps[@]}" -D "$BIND_UPN" -w wrong \
  -b "$BASE_DN"
probe_says "no such base" "0x51039182 base entry not found" "${ldaps[@]}" "${probe_device[@]}" \
  -b "OU=Nowhere,$BASE_DN"
# AD names the domain root DC=example,DC=test; the test compares the DN case for case.
probe_says "base in lower case" "0x51039182 base entry not found" "${ldaps[@]}" \
  "${probe_device[@]}" -b "${BASE_DN,,}"
# strongerAuthRequired has no device result of its own, and an anonymous search's
# operationsError ends with no entry.
probe_says "simple bind in clear" "$other" -H ldap://localhost/ "${probe_device[@]}" -b "$BASE_DN"
probe_says "anonymous" "0x51039182 base entry not found" "${ldaps[@]}" -b "$BASE_DN"

if [ "$sasl" = 1 ]; then
  gssapi=(-Y GSSAPI -b "$USER_DN" -s base "(objectClass=user)" sAMAccountName memberOf)
  want_cmd=(env KRB5CCNAME="$CCACHE" ldapsearch -LLL -O maxssf=0 -Q)
  same "GSSAPI, StartTLS" 0 - "${starttls[@]}" "${gssapi[@]}"
  same "GSSAPI, LDAPS" 0 - "${ldaps[@]}" "${gssapi[@]}"
  same "GSSAPI in clear" 8 'SASL:\[GSSAPI\]: not allowed if TLS is used\.' -H ldap://localhost/ \
    "${gssapi[@]}"
  probe_says "GSSAPI, LDAPS" "0x00000000 success" "${ldaps[@]}" -Y GSSAPI -C "$ccache" -b "$BASE_DN"
  probe_says "GSSAPI, StartTLS" "0x00000000 success" "${starttls[@]}" -Y GSSAPI -C "$ccache" \
    -b "$BASE_DN"

  # Samba's default asks every GSSAPI bind for signing or sealing, even over TLS.
  bash "$fixtures/samba.sh" stop "$work/dc"
  start yes || exit 1
  for conn in "${starttls[*]}" "${ldaps[*]}"; do
    # shellcheck disable=SC2086
    same "GSSAPI, strong auth required ($conn)" 8 'SASL:\[GSSAPI\]: Sign or Seal are required\.' \
      $conn "${gssapi[@]}"
  done
  # With a security layer, signing or sealing, it takes GSSAPI over plain LDAP too.
  want_cmd=(env KRB5CCNAME="$CCACHE" ldapsearch -LLL -Q)
  for layer in maxssf=1 minssf=56; do
    same "GSSAPI with $layer in clear" 0 - -H ldap://localhost/ -O "$layer" "${gssapi[@]}"
  done
  probe_says "GSSAPI, strong auth required" "$other" "${ldaps[@]}" -Y GSSAPI -C "$ccache" \
    -b "$BASE_DN"
  for layer in maxssf=1 minssf=56; do
    probe_says "GSSAPI with $layer in clear" "0x00000000 success" -H ldap://localhost/ -O "$layer" \
      -Y GSSAPI -C "$ccache" -b "$BASE_DN"
  done
fi

finish
