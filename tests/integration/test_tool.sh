#!/usr/bin/env bash
# toveistror-search against a real slapd:   test_tool.sh TOOL STATE_DIR
# Its LDIF, less the summary comments, must be byte for byte what ldapsearch prints for the
# same search, with the same exit status; the failure cases give their status and message.
set -uo pipefail
tool=${1:?usage: test_tool.sh TOOL STATE_DIR}
state=${2:?usage: test_tool.sh TOOL STATE_DIR}
fixture=$(dirname "${BASH_SOURCE[0]}")/../fixtures/slapd.sh
mkdir -p "$state"
work=$(mktemp -d "$state/tool.XXXXXX")
failures=0
trap 'bash "$fixture" stop "$work/srv"; [ "$failures" -ne 0 ] || rm -rf "$work"' EXIT
bash "$fixture" start "$work/srv" --owner $$ --shared "$state/shared" || exit 1
# shellcheck source=/dev/null
. "$work/srv/env"
export TOVEISTROR_CA_FILE=$CA_FILE LDAPTLS_CACERT=$CA_FILE
unset LDAPTLS_REQCERT TOVEISTROR_LDAP_PROTOCOL TOVEISTROR_CA_DIR
people="ou=people,$BASE_DN"
fail() {
  failures=$((failures + 1))
  echo "FAIL: $*"
}

# same NAME URI_FOR_TOOL TOOL_OPTION ARGS...: TOOL_OPTION ("" for none) goes to the tool only.
same() {
  local name=$1 uri=$2 opt=$3 want got rc_want rc_got
  shift 3
  want=$(ldapsearch -x -LLL -o ldif_wrap=76 -H "$LDAP_URI" "$@" 2>/dev/null)
  rc_want=$?
  "$tool" -x -H "$uri" ${opt:+"$opt"} "$@" >"$work/out" 2>"$work/err"
  rc_got=$?
  got=$(grep -vE '^# (result|numEntries|numReferences|matchedDN|text):' "$work/out")
  [ "$rc_got" = "$rc_want" ] || fail "$name: exit $rc_got, ldapsearch $rc_want: $(cat "$work/err")"
  [ "$got" = "$want" ] || fail "$name: LDIF differs: $(diff <(echo "$want") <(echo "$got") | head)"
  [ -n "$want" ] || [ "$rc_want" != 0 ] || fail "$name: vacuous (no output)"
}

# expect NAME STATUS PATTERN TOOL_ARGS...: the exit status, and a line matching PATTERN.
expect() {
  local name=$1 status=$2 pattern=$3 out rc
  shift 3
  out=$("$tool" "$@" 2>&1)
  rc=$?
  [ "$rc" = "$status" ] || fail "$name: exit $rc, expected $status: $out"
  grep -qE -- "$pattern" <<<"$out" || fail "$name: nothing matches '$pattern' in: $out"
}

same equality "$LDAP_URI" "" -b "$people" "(sn=Archer)"
same any-with-attrs "$LDAP_URI" "" -b "$people" "(cn=*ar*)" cn sn jpegPhoto
same or-and-presence "$LDAP_URI" "" -b "$people" "(&(|(sn=Archer)(sn=Baker))(mail=*))"
same whole-tree-refs "$LDAP_URI" "" -b "$BASE_DN" "(objectClass=*)" cn ou
same bound "$LDAP_URI" "" -D "$USER_DN" -w "$USER_PW" -b "$USER_DN" -s base
same sizelimit "$LDAP_URI" "" -b "ou=big,$BASE_DN" -s one -z 5 cn
same no-such-object "$LDAP_URI" "" -b "ou=nowhere,$BASE_DN"
same starttls "ldap://localhost:$LDAP_PORT/" -ZZ -b "$people" "(|(sn=Baker)(sn=Chen))"
same ldaps "ldaps://localhost:$LDAPS_PORT/" "" -b "ou=big,$BASE_DN" -s one

expect summary 0 '^# numEntries: 2$' -H "$LDAP_URI" -b "$people" "(sn=Archer)"
expect wrong-password 49 'bind: Invalid credentials \(49\)' -H "$LDAP_URI" -D "$USER_DN" -w no
expect closed-port 1 'Cannot connect to the server \(279\)' -H "ldap://127.0.0.1:1/"
expect not 2 'not supported.*negation' -H "$LDAP_URI" "(!(cn=a))"
expect mixed 2 'not supported.*different kinds' -H "$LDAP_URI" "(|(cn=a)(sn=b*))"
expect three 2 'not supported.*more than two' -H "$LDAP_URI" "(&(cn=a)(sn=b)(uid=c))"
TOVEISTROR_CA_FILE=$OTHER_CA_FILE expect unknown-ca 1 'TLS handshake failed.*\(269\)' \
  -H "$LDAPS_URI" -b "$people"
TOVEISTROR_LDAP_PROTOCOL=0 expect protocol-off 1 '\(276\)' -H "$LDAP_URI"

echo "test_tool: $failures failed"
[ "$failures" -eq 0 ]
