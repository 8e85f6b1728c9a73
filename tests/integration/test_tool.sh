#!/usr/bin/env bash
# toveistror-search as a drop-in for ldapsearch:   test_tool.sh TOOL STATE_DIR [--rss]
# Against a slapd loaded with LDIF edge cases (and one without TLS), each case runs ldapsearch
# and the tool with the same arguments and environment: stdout must be the same bytes and the
# exit status the same. The failure cases give their status and message. --rss also checks
# that the tool's peak memory does not grow with the size of a search.
set -uo pipefail
tool=${1:?usage: test_tool.sh TOOL STATE_DIR [--rss]}
state=${2:?usage: test_tool.sh TOOL STATE_DIR [--rss]}
# shellcheck source=checks.sh
. "$(dirname "${BASH_SOURCE[0]}")/checks.sh" test_tool

# The edge cases of edge.ldif, values at every fold length (text and base64), 1,000
# values, and 60 entries of 200 KB.
edge="cn=folds,ou=edge,dc=example,dc=test"
{
  cat "$fixtures/edge.ldif"
  printf '\ndn: %s\nobjectClass: inetOrgPerson\ncn: folds\nsn: folds\n' "$edge"
  v=""
  for ((i = 1; i <= 240; i++)); do
    v="$v$((i % 10))"
    printf 'description: %s\n' "$v"
    b64[i]=$(printf '\001%s' "$v" | base64 -w0)
  done
  printf 'audio:: %s\n' "${b64[@]}"
  # Attributes repeated in one entry, as slapd sends them when they were loaded so.
  printf '\ndn: cn=repeated,ou=edge,dc=example,dc=test\nobjectClass: inetOrgPerson\ncn: repeated\n'
  printf 'sn: a\ndescription: one\nsn: b\nDescription: two\naudio:: AQ==\ndescription: three\n'
  printf '\ndn: cn=many,ou=edge,dc=example,dc=test\nobjectClass: inetOrgPerson\ncn: many\nsn: many\n'
  for ((i = 1; i <= 1000; i++)); do printf 'description: value %04d\n' "$i"; done
  heavy=$(head -c 204800 /dev/zero | tr '\0' '\252' | base64 -w0)
  printf '\ndn: ou=heavy,dc=example,dc=test\nobjectClass: organizationalUnit\nou: heavy\n'
  for ((i = 1; i <= 60; i++)); do
    printf '\ndn: cn=h%02d,ou=heavy,dc=example,dc=test\nobjectClass: inetOrgPerson\n' "$i"
    printf 'cn: h%02d\nsn: heavy\naudio:: %s\n' "$i" "$heavy"
  done
} >"$state/edge-extra.ldif"
edge_db=(--shared "$state/shared-edge" --extra "$state/edge-extra.ldif")
start_server slapd.sh "$work/srv" "${edge_db[@]}" || exit 1
start_server slapd.sh "$work/notls" --no-tls "${edge_db[@]}" || exit 1
NOTLS_URI=$(env_value "$work/notls/env" LDAP_URI)
# shellcheck source=/dev/null
. "$work/srv/env"
export HOME=$work/home
mkdir -p "$HOME" "$work/cwd"
cd "$work/cwd" || exit 1
printf 'URI %s\nBASE ou=edge,%s\n' "$LDAP_URI" "$BASE_DN" >"$work/conf"
printf 'BASE %s\n' "$edge" >"$work/cwd/myrc"
printf 'URI ldap://127.0.0.1:1/\nTLS_CACERT %s\n' "$CA_FILE" >"$HOME/.ldaprc"
printf 'SIZELIMIT 2\nNETWORK_TIMEOUT 5\n' >"$work/cwd/sizerc"
printf 'TLS_REQCERT never\n' >"$HOME/reqrc"
printf '%s' "$USER_PW" >"$work/pw"

# Scripted servers on 127.0.0.1 answer the bind, then the search with their frames.
odd_uri="" nl_uri="" uri="" # set by start_peer
# BER in hex: tlv TAG HEX, str TEXT (an OCTET STRING)
tlv() { printf '%s%s%s' "$1" "$(len $((${#2} / 2)))" "$2"; }
len() { if (($1 < 128)); then printf '%02x' "$1"; else printf '82%04x' "$1"; fi; }
str() { tlv 04 "$(printf '%s' "$1" | od -An -tx1 | tr -d ' \n')"; }
bind_ok=$(tlv 30 "020101$(tlv 61 "0a0100$(str '')$(str '')")")
frame() { tlv 30 "020102$1"; } # a response to the search, message id 2
done_ok=$(frame "$(tlv 65 "0a0100$(str '')$(str '')")")
# An entry with odd DN escapes, values the server sends although -A asked for none, and
# an attribute without values.
odd=$(frame "$(tlv 64 "$(str 'CN=A\2c+cn=b,OU=b\+,O=\#c \\\\,dc=x,ou=y,DC=z,dc=w')$(tlv 30 \
  "$(tlv 30 "$(str cn)$(tlv 31 "$(str '#x')$(str '-x')$(str 'x:')$(str '=')")")$(tlv 30 \
  "$(str userpassword)$(tlv 31 "$(str abc)")")$(tlv 30 "$(str b)3100")")")")
bogus=$(frame "$(tlv 64 "$(str bogus)3000")")
start_peer odd_uri answer 127.0.0.1 "$bind_ok" "$odd$bogus$done_ok"

# The table: NAME ARGS... (shell words; leading VAR=value words set the environment of
# both). Every run gets -x.
people="ou=people,$BASE_DN"
ldaps="ldaps://localhost:$LDAPS_PORT/"
rows=$(
  cat <<EOF
default -H $LDAP_URI -b ou=edge,$BASE_DN
one-level -H $LDAP_URI -b ou=edge,$BASE_DN -s one
level-1 -L -H $LDAP_URI -b ou=edge,$BASE_DN
level-2 -LL -H $LDAP_URI -b ou=edge,$BASE_DN
level-3 -LLL -H $LDAP_URI -b ou=edge,$BASE_DN
attrs -H $LDAP_URI -b ou=edge,$BASE_DN '(cn=values)' description audio jpegPhoto
names-only -A -H $LDAP_URI -b ou=edge,$BASE_DN -s one
names-only-3 -A -LLL -H $LDAP_URI -b ou=edge,$BASE_DN
wrap-no -o ldif_wrap=no -H $LDAP_URI -b ou=edge,$BASE_DN
wrap-0 -o ldif_wrap=0 -H $LDAP_URI -b $edge
wrap-2 -o ldif_wrap=2 -H $LDAP_URI -b ou=edge,$BASE_DN
wrap-3 -L -o ldif_wrap=3 -H $LDAP_URI -b ou=edge,$BASE_DN
wrap-20 -o ldif_wrap=20 -H $LDAP_URI -b ou=edge,$BASE_DN
wrap-76 -LLL -o ldif_wrap=76 -H $LDAP_URI -b ou=edge,$BASE_DN
wrap-bad -o ldif_wrap=abc -H $LDAP_URI
wrap-negative -o ldif_wrap=-5 -H $LDAP_URI
root-dse -H $LDAP_URI -b '' -s base
utf8-base -H $LDAP_URI -b 'cn=Zoë Ünal,ou=edge,$BASE_DN' -s base
large-value -H $LDAP_URI -b cn=h01,ou=heavy,$BASE_DN -s base
deref-always -a always -H $LDAP_URI -b ou=aliases,$BASE_DN -s one
deref-find -a find -H $LDAP_URI -b cn=alice-alias,ou=aliases,$BASE_DN -s base
limits -l 5 -z none -o nettimeout=5 -H $LDAP_URI -b $people -s one '(mail=*)' mail
password-file -D $USER_DN -y $work/pw -H $LDAP_URI -b $USER_DN -s base
bound -D $USER_DN -w $USER_PW -H $LDAP_URI -b $USER_DN -s base
wrong-password -D $USER_DN -w wrong -H $LDAP_URI
password-without-dn -w secret -H $LDAP_URI
referral -H $LDAP_URI -b cn=x,ou=away,ou=edge,$BASE_DN
referral-1 -L -H $LDAP_URI -b cn=x,ou=away,ou=edge,$BASE_DN
referral-3 -LLL -H $LDAP_URI -b cn=x,ou=away,ou=edge,$BASE_DN
no-such-object -H $LDAP_URI -b cn=x,ou=nowhere,$BASE_DN
no-such-object-1 -L -H $LDAP_URI -b cn=x,ou=nowhere,$BASE_DN
invalid-dn -H $LDAP_URI -b x
size-limit -H $LDAP_URI -b ou=big,$BASE_DN -s one -z 4 cn
size-limit-3 -LLL -H $LDAP_URI -b ou=big,$BASE_DN -s one -z 4 cn
filter-open -H $LDAP_URI '('
filter-empty -H $LDAP_URI '()'
filter-unclosed -H $LDAP_URI '(cn=a'
attribute-not-filter -H $LDAP_URI -b $edge -s base cn
help --help
h-host -h 127.0.0.1
bad-scope -s bogus -H $LDAP_URI
bad-uri -H foo://x
unreachable -H ldap://127.0.0.1:1/
uri-list -H 'ldap://127.0.0.1:1/ $LDAP_URI' -b $people '(sn=Archer)'
uri-comma -H 'ldap://127.0.0.1:1/,$LDAP_URI' -b $people '(sn=Archer)'
ldapuri LDAPURI=$LDAP_URI LDAPBASE=$people '(sn=Archer)'
ldapconf LDAPCONF=$work/conf -s one
ldaprc LDAPCONF=$work/conf LDAPRC=myrc -s base
cli-over-conf LDAPCONF=$work/conf LDAPBASE=$people -b $edge -s base cn
noinit LDAPNOINIT=1 LDAPCONF=$work/conf
rc-size-limit LDAPRC=sizerc LDAPURI=$LDAP_URI -b ou=big,$BASE_DN -s one cn
rc-reqcert LDAPRC=reqrc LDAPTLS_CACERT=$OTHER_CA_FILE -H $ldaps -b $USER_DN -s base
ldaps -H $ldaps -b $people '(sn=Archer)'
starttls -ZZ -H ldap://localhost:$LDAP_PORT/ -b $people '(sn=Archer)'
starttls-try -Z -LLL -H ldap://localhost:$LDAP_PORT/ -b $people '(sn=Archer)'
ldaps-other-ca LDAPTLS_CACERT=$OTHER_CA_FILE -H $ldaps
starttls-other-ca LDAPTLS_CACERT=$OTHER_CA_FILE -ZZ -H ldap://localhost:$LDAP_PORT/
reqcert-never LDAPTLS_REQCERT=never LDAPTLS_CACERT=$OTHER_CA_FILE -H $ldaps -b $USER_DN -s base
server-escapes -A -H $odd_uri
server-escapes-3 -LLL -H $odd_uri
EOF
)
# Result codes and their texts, from scripted servers.
for code in 1 8 15 47 80 123; do
  start_peer uri answer 127.0.0.1 "$bind_ok" \
    "$(frame "$(tlv 65 "0a01$(printf %02x $code)$(str '')$(str 'why')")")"
  rows+=$'\n'"code-$code -H $uri"
done
while read -r name line; do
  eval "words=($line)"
  envs=()
  while [[ ${words[0]:-} =~ ^[A-Z_]+= ]]; do
    envs+=("${words[0]}")
    words=("${words[@]:1}")
  done
  want_cmd=(env "${envs[@]}" ldapsearch -x)
  got_cmd=(env "${envs[@]}" "$tool" -x)
  same "$name" - - "${words[@]}"
done <<<"$rows"

# The searches and failures of the tool's own making, with the CA in the environment.
export TOVEISTROR_CA_FILE=$CA_FILE LDAPTLS_CACERT=$CA_FILE
want_cmd=(ldapsearch -x)
got_cmd=("$tool" -x)
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
for pdu in "length-ffffffff 30 84 ff ff ff ff" "length-of-5 30 85 01 00 00 00 00"; do
  start_peer uri answer 127.0.0.1 "$bind_ok" "${pdu#* }"
  expect "${pdu%% *}" 255 'search results: failed without a result code$' -H "$uri"
done
a=ldap://a.example/
b=ldap://b.example/
start_peer uri answer 127.0.0.1 "$bind_ok" \
  "3035020102 6530 0a010a 0400 0400 a38126 $(str $a) $(str $b)"
got=$("$tool" -H "$uri" 2>&1 | grep '^ref:')
[ "$got" = "$(printf 'ref: %s\nref: %s' "$a" "$b")" ] || fail "two-referrals: $got"

# Deliberate differences: server texts with line breaks stay inside their LDIF lines
# (ldapsearch writes them raw), and ldif_wrap=1 is refused (ldapsearch dies on it).
nl=$(frame "$(tlv 65 "0a0135$(str $'cn=x\ny')$(str $'line one\nline two')$(tlv a3 "$(str \
  $'ldap://a/\nb')")")")
ref=$(frame "$(tlv 73 "$(str $'ldap://r/\nx')")")
start_peer nl_uri answer 127.0.0.1 "$bind_ok" "$ref$nl"
for level in -LLL -L ""; do
  "$tool" $level -H "$nl_uri" >"$work/got" 2>/dev/null
  rc=$?
  [ "$rc" = 53 ] || fail "line breaks $level: exit $rc"
  ! grep -qE '^(line two|x|b)$' "$work/got" || fail "line breaks $level: $(cat "$work/got")"
done
grep -qx 'text:: bGluZSBvbmUKbGluZSB0d28=' "$work/got" || fail "text: not in base64"
expect wrap-1 1 'Unable to parse ldif_wrap="1"' -o ldif_wrap=1 -H "$LDAP_URI"

# Memory stays flat: the peak of 60 entries of 200 KB is that of 6, give or take 2 MB.
if [ "${3:-}" = --rss ]; then
  peak() { # ARGS...: the tool's peak resident set in KB
    /usr/bin/time -f %M -o "$work/rss" "$tool" -H "$LDAP_URI" -b "ou=heavy,$BASE_DN" \
      -s one "$@" >/dev/null 2>&1
    tail -1 "$work/rss"
  }
  small=$(peak -z 6)
  large=$(peak)
  echo "peak RSS: 6 entries ${small} KB, 60 entries ${large} KB"
  ((large - small < 2048)) || fail "memory grows with the search: $small KB, then $large KB"
fi

finish
