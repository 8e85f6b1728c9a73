#!/usr/bin/env bash
# Runs examples against a throwaway slapd and compares what each prints, whole, and its
# exit status with what a user should see:   run_example.sh search|conntest STATE_DIR EXE...
set -uo pipefail
kind=${1:?usage: run_example.sh search|conntest STATE_DIR EXE...}
state=${2:?} exe=''
shift 2
case $kind in
  search | conntest) ;;
  *) exit 2 ;;
esac
fixture=$(dirname "${BASH_SOURCE[0]}")/../tests/fixtures/slapd.sh
mkdir -p "$state"
work=$(mktemp -d "$state/example.XXXXXX")
failures=0
trap 'bash "$fixture" stop "$work/srv"; [ "$failures" -ne 0 ] || rm -rf "$work"' EXIT
bash "$fixture" start "$work/srv" --owner $$ --shared "$state/shared" || exit 1
# shellcheck source=/dev/null
. "$work/srv/env"
export TOVEISTROR_CA_FILE=$CA_FILE
host=127.0.0.1

# expect NAME STATUS WANT ARGS...: the whole standard output and the exit status.
expect() {
  local name=$1 status=$2 want=$3 got rc
  shift 3
  got=$("$exe" "$@" 2>"$work/stderr")
  rc=$?
  # A sanitizer's report fails the case even where the exit status is the expected one.
  if [ "$got" != "$want" ] || [ "$rc" != "$status" ] ||
    grep -qE 'Sanitizer|runtime error:' "$work/stderr"; then
    failures=$((failures + 1))
    echo "FAIL $exe $name: exit $rc (want $status)"
    diff <(echo "$want") <(echo "$got")
    cat "$work/stderr"
  fi
}

search_cases() {
  expect starttls-bound 0 "dn: uid=alice,ou=people,$BASE_DN
objectClass: inetOrgPerson
uid: alice
cn: Alice Archer
sn: Archer
givenName: Alice
mail: alice@example.test
telephoneNumber: +1 555 0100
userPassword: alice-secret
description: Works in sales
jpegPhoto: (31 octets)
dn: uid=erin,ou=people,$BASE_DN
objectClass: inetOrgPerson
uid: erin
cn: Erin Archer
sn: Archer
mail: erin@example.test
ref: ldap://127.0.0.1:9/ou=elsewhere,$BASE_DN??sub
result: 0 Success" -Z -D "$USER_DN" -w "$USER_PW" "$host" "$LDAP_PORT" "$BASE_DN" sn=Archer
  expect referral 1 "result: 10 Referral
referral: ldap://127.0.0.1:9/cn=x,ou=elsewhere,$BASE_DN??sub" \
    "$host" "$LDAP_PORT" "cn=x,ou=elsewhere,$BASE_DN"
  expect no-such-object 1 "result: 32 No such object" "$host" "$LDAP_PORT" "ou=nowhere,$BASE_DN"
  expect wrong-password 1 "bind: 49 Invalid credentials" \
    -D "$USER_DN" -w wrong "$host" "$LDAP_PORT" "$BASE_DN"
}

conntest_cases() {
  expect starttls 0 "result: 0x00000000 passed" -Z "$host" "$LDAP_PORT" "$USER_DN" "$USER_PW" \
    "$USER_DN"
  expect async 0 "result: 0x00000000 passed" --async "$host" "$LDAP_PORT" "$USER_DN" \
    "$USER_PW" "$USER_DN"
  expect async-wrong-password 1 "result: 0x51031102 invalid credentials" --async "$host" \
    "$LDAP_PORT" "$USER_DN" wrong "$USER_DN"
  expect no-base 1 "result: 0x51039182 the base entry was not found" "$host" "$LDAP_PORT" \
    "$USER_DN" "$USER_PW" "cn=nobody,$BASE_DN"
}

for exe in "$@"; do
  "${kind}_cases"
done
echo "$kind examples ($#): $failures failed"
[ "$failures" -eq 0 ]
