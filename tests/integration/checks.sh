# The checks shared by the tool scripts (sourced): each failure counts in $failures and
# prints one line; expect runs $tool; start_peer keeps its files in $work and its PIDs in
# $peers.
fail() {
  failures=$((failures + 1))
  echo "FAIL: $*"
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

# A scripted peer on a loopback address (python3), in the background:
#   relay HOST PORT CAPTURE  forwards each connection to 127.0.0.1:PORT and appends what the
#                            client sends to CAPTURE
#   answer HOST HEX...       answers the requests of each connection with the bytes HEX, one
#                            argument per request
peer_py='
import socket, sys, threading
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

def answer(conn, replies):
    for reply in replies:
        conn.recv(65536)
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
        threading.Thread(target=answer, args=(conn, replies), daemon=True).start()
'
# start_peer VAR ARGS...: starts a peer, its port in VAR. It keeps none of our output open.
start_peer() {
  local var=$1 portfile i
  shift
  portfile=$(mktemp "$work/peer.XXXXXX")
  python3 -c "$peer_py" "$@" </dev/null >"$portfile" 2>>"$work/peers.log" &
  peers="$peers $!"
  for ((i = 0; i < 500; i++)); do
    [ -s "$portfile" ] && break
    sleep 0.01
  done
  printf -v "$var" '%s' "$(cat "$portfile")"
}
