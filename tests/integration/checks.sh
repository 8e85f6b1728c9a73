# The checks shared by the tool scripts, sourced as ". checks.sh NAME" once $state is set:
# a work directory $work in $state, kept when a check failed. Each failure counts in
# $failures and prints one line; expect and same run $tool; the peers of start_peer and the
# servers of start_server end with the script.
fixtures=$(cd "$(dirname "${BASH_SOURCE[0]}")/../fixtures" && pwd)
FIXTURE=$1
# shellcheck source=../fixtures/common.sh
. "$fixtures/common.sh"
# The caller's settings for the tools, ldapsearch and Kerberos stay out; each script sets its own.
unset LDAPTLS_REQCERT LDAPTLS_CACERT LDAPTLS_CACERTDIR TOVEISTROR_LDAP_PROTOCOL TOVEISTROR_CA_DIR \
  TOVEISTROR_CA_FILE KRB5CCNAME LDAPNOINIT LDAPURI LDAPBASE LDAPCONF LDAPRC
mkdir -p "$state"
work=$(mktemp -d "$state/$1.XXXXXX")
failures=0
peers=""
servers=()
on_exit() {
  local s
  # shellcheck disable=SC2086
  kill $peers 2>/dev/null
  for s in "${servers[@]}"; do bash "$fixtures/${s%% *}" stop "${s#* }"; done
  [ "$failures" -ne 0 ] || rm -rf "$work"
}
trap on_exit EXIT

# start_server SCRIPT DIR ARGS...: tests/fixtures/SCRIPT start DIR, owned by this script and
# stopped at its end (the last started first).
start_server() {
  servers=("$1 $2" "${servers[@]}")
  bash "$fixtures/$1" start "$2" --owner $$ "${@:3}"
}

fail() {
  failures=$((failures + 1))
  echo "FAIL: $*"
}

finish() { # the last line: the number of failures, and the script's status
  echo "$FIXTURE: $failures failed"
  [ "$failures" -eq 0 ]
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

# same NAME STATUS PATTERN ARGS...: "${want_cmd[@]}" ARGS (ldapsearch) and "${got_cmd[@]}" ARGS
# (the tool) exit alike, with STATUS unless it is -, and print the same bytes, not nothing when
# they succeed; unless PATTERN is -, a line of the tool's stderr matches PATTERN.
same() {
  local name=$1 status=$2 pattern=$3 rc_want rc_got
  shift 3
  "${want_cmd[@]}" "$@" >"$work/want" 2>/dev/null
  rc_want=$?
  "${got_cmd[@]}" "$@" >"$work/got" 2>"$work/err"
  rc_got=$?
  [ "$status" = - ] || [ "$rc_want" = "$status" ] ||
    fail "$name: ldapsearch exits $rc_want, not $status"
  [ "$rc_got" = "$rc_want" ] ||
    fail "$name: exit $rc_got, ldapsearch $rc_want: $(head -c 300 "$work/err")"
  cmp -s "$work/want" "$work/got" ||
    fail "$name: stdout differs: $(diff "$work/want" "$work/got" | head -8)"
  [ -s "$work/want" ] || [ "$rc_want" != 0 ] || fail "$name: vacuous (no output)"
  [ "$pattern" = - ] || grep -qE -- "$pattern" "$work/err" ||
    fail "$name: nothing matches '$pattern' in: $(cat "$work/err")"
}

# probe_says NAME LINE ARGS...: $probe's whole output, synchronously and with --async, and its
# exit status: 0 for success, 1 for any other result.
probe_says() {
  local name=$1 line=$2 status=1 form out rc
  shift 2
  [ "${line%% *}" != 0x00000000 ] || status=0
  for form in --sync --async; do
    out=$("$probe" "$@" ${form/--sync/} 2>/dev/null)
    rc=$?
    [ "$rc:$out" = "$status:$line" ] || fail "$name $form: exit $rc '$out', not $status '$line'"
  done
}

# A scripted peer on a loopback address (python3), in the background:
#   relay HOST PORT CAPTURE  forwards each connection to 127.0.0.1:PORT and appends what the
#                            client sends to CAPTURE
#   answer HOST HEX...       answers the requests of each connection with the bytes HEX, one
#                            argument per request
#   late HOST HEX...         the same, each answer half a second after its request
peer_py='
import socket, sys, threading, time
mode, host = sys.argv[1], sys.argv[2]
lsn = socket.socket()
lsn.bind((host, 0))
lsn.listen(8)
print(lsn.getsockname()[1], flush=True)

def pump(src, dst, capture):
    try:
        while True:
            data = src.recv(65536)
            if not data:
                break
            if capture:
                with open(capture, "ab") as f:
                    f.write(data)
            dst.sendall(data)
    except OSError:
        pass
    for s in (src, dst):
        try:
            s.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

def answer(conn, replies, delay):
    for reply in replies:
        conn.recv(65536)
        time.sleep(delay)
        conn.sendall(reply)
    while conn.recv(65536):
        pass
    conn.close()

while True:
    conn, _ = lsn.accept()
    if mode == "relay":
        up = socket.create_connection(("127.0.0.1", int(sys.argv[3])))
        threading.Thread(target=pump, args=(conn, up, sys.argv[4]), daemon=True).start()
        threading.Thread(target=pump, args=(up, conn, None), daemon=True).start()
    else:
        replies = [bytes.fromhex(r) for r in sys.argv[3:]]
        delay = 0.5 if mode == "late" else 0
        threading.Thread(target=answer, args=(conn, replies, delay), daemon=True).start()
'
# start_peer VAR MODE HOST ARGS...: starts a peer, ldap://HOST:PORT/ in VAR. It keeps none of
# our output open.
start_peer() {
  local var=$1 portfile
  shift
  portfile=$(mktemp "$work/peer.XXXXXX")
  python3 -c "$peer_py" "$@" </dev/null >"$portfile" 2>>"$work/peers.log" &
  peers="$peers $!"
  retry 500 0.01 test -s "$portfile"
  printf -v "$var" 'ldap://%s:%s/' "$2" "$(cat "$portfile")"
}
