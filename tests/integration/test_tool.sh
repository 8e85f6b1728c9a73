#!/usr/bin/env bash
# toveistror-search against a real slapd, compared with ldapsearch:
#   test_tool.sh TOOL STATE_DIR
# The LDIF (comments about the result left out) must be byte for byte what
# `ldapsearch -x -LLL -o ldif_wrap=76` prints for the same search, over plain
# LDAP, StartTLS and LDAPS; exit statuses and messages are checked for the
# failure cases.
set -uo pipefail

tool=${1:?usage: test_tool.sh TOOL STATE_DIR}
state=${2:?usage: test_tool.sh TOOL STATE_DIR}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
fixture=$here/../fixtures/slapd.sh

mkdir -p "$state"
work=$(mktemp -d "$state/tool.XXXXXX")
failures=0
checks=0
cleanup() {
  bash "$fixture" stop "$work/tls" || true
  bash "$fixture" stop "$work/plain" || true
  if [ "$failures" -eq 0 ]; then rm -rf "$work"; fi
}
trap cleanup EXIT

bash "$fixture" start "$work/tls" --owner $$ --shared "$state/shared" || exit 1
bash "$fixture" start "$work/plain" --no-tls --owner $$ --shared "$state/shared" || exit 1
# shellcheck source=/dev/null
. "$work/tls/env"
PLAIN_URI=$(sed -n "s/^LDAP_URI='\(.*\)'$/\1/p" "$work/plain/env")
export TOVEISTROR_CA_FILE=$CA_FILE LDAPTLS_CACERT=$CA_FILE
unset LDAPTLS_REQCERT TOVEISTROR_LDAP_PROTOCOL TOVEISTROR_CA_DIR
people="ou=people,$BASE_DN"

fail() {
  failures=$((failures + 1))
  echo "FAIL: $*"
}

# Drops the tool's own summary comments; search references stay, as in ldapsearch.
strip_summary() {
  grep -v -E '^# (result|numEntries|numReferences|matchedDN|text):' || true
}

# compare NAME URI_FOR_TOOL [TOOL_OPTIONS --] LDAPSEARCH_AND_TOOL_ARGS...
compare() {
  local name=$1 uri=$2
  shift 2
  local topts=()
  if [ "${1:-}" = "--topts" ]; then
    shift
    while [ "$1" != "--" ]; do
      topts+=("$1")
      shift
    done
    shift
  fi
  checks=$((checks + 1))
  local want got rc_want rc_got
  want=$(ldapsearch -x -LLL -o ldif_wrap=76 -H "$LDAP_URI" "$@" 2>/dev/null)
  rc_want=$?
  got=$("$tool" -x -H "$uri" "${topts[@]}" "$@" 2>"$work/stderr" | strip_summary)
  rc_got=${PIPESTATUS[0]}
  if [ "$rc_got" != "$rc_want" ]; then
    fail "$name: exit $rc_got, ldapsearch $rc_want; $(cat "$work/stderr")"
  elif [ "$got" != "$want" ]; then
    fail "$name: LDIF differs from ldapsearch"
    diff <(echo "$want") <(echo "$got") | head -20
  elif [ -z "$want" ] && [ "$rc_want" = 0 ]; then
    fail "$name: vacuous comparison (no output)"
  fi
}

# expect NAME STATUS PATTERN TOOL_ARGS...: exit status and a line of output
# (stdout and stderr) matching PATTERN.
expect() {
  local name=$1 status=$2 pattern=$3
  shift 3
  checks=$((checks + 1))
  local out rc
  out=$("$tool" "$@" 2>&1)
  rc=$?
  if [ "$rc" != "$status" ]; then
    fail "$name: exit $rc, expected $status; output: $out"
  elif ! grep -q -E -- "$pattern" <<<"$out"; then
    fail "$name: no line matching '$pattern' in: $out"
  fi
}

# --- the same LDIF as ldapsearch ---------------------------------------------
compare equality "$LDAP_URI" -b "$people" "(sn=Archer)"
compare any "$LDAP_URI" -b "$people" "(cn=*ar*)" cn sn
compare initial "$LDAP_URI" -b "$people" "(cn=B*)"
compare final "$LDAP_URI" -b "$people" "(mail=*@example.test)" mail
compare and "$LDAP_URI" -b "$people" "(&(sn=Archer)(givenName=Alice))"
compare or "$LDAP_URI" -b "$people" "(|(sn=Baker)(sn=Chen))"
compare presence "$LDAP_URI" -b "$people" "(jpegPhoto=*)"
compare three-presences "$LDAP_URI" -b "$people" "(&(mail=*)(telephoneNumber=*)(givenName=*))"
compare cmp-and-presence "$LDAP_URI" -b "$people" "(&(|(sn=Archer)(sn=Baker))(mail=*))"
compare bare-item "$LDAP_URI" -b "$people" "uid=carol"
compare escapes "$LDAP_URI" -b "$people" '(cn=Alice\20Archer)'
compare utf8-base64 "$LDAP_URI" -b "$people" "(sn=Unal)"
compare no-filter-sub "$LDAP_URI" -b "$people"
compare whole-tree-refs "$LDAP_URI" -b "$BASE_DN" "(objectClass=*)" cn ou
compare scope-one "$LDAP_URI" -b "$BASE_DN" -s one
compare scope-base "$LDAP_URI" -b "uid=alice,$people" -s base "(objectClass=*)"
compare attrsonly "$LDAP_URI" -b "$people" -A "(sn=Archer)"
compare deref-always "$LDAP_URI" -b "ou=aliases,$BASE_DN" -a always -s one
compare deref-never "$LDAP_URI" -b "ou=aliases,$BASE_DN" -a never -s one
compare big "$LDAP_URI" -b "ou=big,$BASE_DN" -s one "(cn=user1*)"
compare bound "$LDAP_URI" -D "$USER_DN" -w "$USER_PW" -b "uid=alice,$people" -s base
compare starttls "ldap://localhost:$LDAP_PORT/" --topts -ZZ -- -b "$people" "(sn=Archer)"
compare ldaps "ldaps://localhost:$LDAPS_PORT/" -b "$people" "(|(sn=Baker)(sn=Chen))"
compare ldaps-ip "$LDAPS_URI" -b "ou=big,$BASE_DN" -s one
compare sizelimit "$LDAP_URI" -b "ou=big,$BASE_DN" -s one -z 5 cn
compare no-such-object "$LDAP_URI" -b "ou=nowhere,$BASE_DN"

# --- summary lines, exit statuses and messages -------------------------------
expect result-line 0 '^# result: 0 Success$' -H "$LDAP_URI" -b "$people" "(sn=Archer)"
expect num-entries 0 '^# numEntries: 2$' -H "$LDAP_URI" -b "$people" "(sn=Archer)"
expect num-references 0 '^# numReferences: 1$' -H "$LDAP_URI" -b "$BASE_DN" "(ou=*)"
expect sizelimit-line 4 '^# result: 4 Size limit exceeded$' -H "$LDAP_URI" -b "ou=big,$BASE_DN" -z 5
expect matched-dn 32 '^# matchedDN: dc=example,dc=test$' -H "$LDAP_URI" -b "ou=nowhere,$BASE_DN"
expect wrong-password 49 'bind: Invalid credentials \(49\)' -H "$LDAP_URI" -D "$USER_DN" -w nope
echo -n "$USER_PW" >"$work/pw"
expect password-file 0 '^# result: 0 Success$' -H "$LDAP_URI" -D "$USER_DN" -y "$work/pw" -b "$people"
expect starttls-required 80 'StartTLS' -H "$PLAIN_URI" -ZZ -b "$people"
expect starttls-tried 0 'continuing without TLS' -H "$PLAIN_URI" -Z -b "$people" "(sn=Archer)"
expect closed-port 1 'Cannot connect to the server \(279\)' -H "ldap://127.0.0.1:1/"
expect unsupported-not 2 'not supported.*negation' -H "$LDAP_URI" "(!(cn=a))"
expect unsupported-approx 2 "not supported.*'~='" -H "$LDAP_URI" "(cn~=a)"
expect unsupported-mixed 2 'not supported.*different kinds' -H "$LDAP_URI" "(|(cn=a)(sn=b*))"
expect unsupported-or-mix 2 'not supported.*presence' -H "$LDAP_URI" "(|(cn=a)(sn=*))"
expect unsupported-comma 2 "not supported.*','" -H "$LDAP_URI" "(cn=a,b)"
expect unsupported-three 2 'not supported.*more than two' -H "$LDAP_URI" "(&(cn=a)(sn=b)(uid=c))"
expect unsupported-middle 2 'not supported.*more than one fixed part' -H "$LDAP_URI" "(cn=a*b)"
expect bad-filter 2 'bad search filter' -H "$LDAP_URI" "(cn=a"
expect bad-scope 2 "scope 'children' not supported" -H "$LDAP_URI" -s children
expect too-many-attrs 2 'at most 8' -H "$LDAP_URI" "(cn=a)" a b c d e f g h i
expect help 0 'usage: toveistror-search' --help

TOVEISTROR_CA_FILE=$OTHER_CA_FILE expect unknown-ca 1 'TLS handshake failed.*\(269\)' \
  -H "$LDAPS_URI" -b "$people"
TOVEISTROR_CA_FILE=$OTHER_CA_FILE LDAPTLS_REQCERT=never expect no-verify 0 '^# numEntries: 7$' \
  -H "$LDAPS_URI" -b "$people"
TOVEISTROR_LDAP_PROTOCOL=0 expect protocol-off 1 '\(276\)' -H "$LDAP_URI"

echo "test_tool: $checks checks, $failures failed"
[ "$failures" -eq 0 ]
