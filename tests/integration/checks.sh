# The checks shared by the tool scripts (sourced): each failure counts in $failures and
# prints one line; expect runs $tool.
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
