#!/usr/bin/env bash
# Runs every test of the project, from a fresh machine on:
#   1. installs what is missing (scripts/deps.sh);
#   2. checks formatting;
#   3. builds with GCC and runs all tests: unit tests (fake port) and integration
#      tests (POSIX port against real slapd servers started on loopback);
#   4. builds with Clang under AddressSanitizer + UndefinedBehaviorSanitizer and
#      runs every test again there, and replays the fuzz corpus;
#   5. builds with Clang under ThreadSanitizer and runs the unit and integration tests
#      there, among them a stress test of many sessions at once;
#   6. cross-builds the whole library (POSIX port, OpenSSL, SASL) for 32-bit ARM (the
#      devices' target) from a private sysroot of Debian's armhf packages, and runs the
#      unit and integration tests under qemu-arm against the servers on the host;
#   7. provisions a throwaway Samba Active Directory domain and runs the tools against it
#      (the GCC build, and the ASan build when there is one; needs root).
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)
all_stages=(gcc asan tsan arm ad)
stages=("${@:-${all_stages[@]}}")
for s in "${stages[@]}"; do
  case " ${all_stages[*]} " in *" $s "*) ;; *) echo "test.sh: unknown stage '$s' (${all_stages[*]})" >&2; exit 2 ;; esac
done

bash scripts/deps.sh || exit 1
scripts/format.sh --check || exit 1

passed=0
failed=0
broken=()
log=$(mktemp)
trap 'rm -f "$log"' EXIT

# Runs ctest with the given arguments and adds its counts to the totals. The tests labelled
# ad need the one domain controller a machine can run (root, fixed ports): only the ad
# stage runs them.
run_ctest() {
  local rc=0 labels=(-LE '^ad$')
  [ "${ad_stage:-0}" = 1 ] && labels=(-L '^ad$')
  ctest --output-on-failure -j"$jobs" "${labels[@]}" "$@" 2>&1 | tee "$log" || rc=1
  local line total bad
  line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -1)
  if [ -n "$line" ]; then
    bad=$(sed -E 's/.* ([0-9]+) tests? failed.*/\1/' <<<"$line")
    total=$(sed -E 's/.*out of ([0-9]+).*/\1/' <<<"$line")
    passed=$((passed + total - bad))
    failed=$((failed + bad))
  fi
  return $rc
}

configure_gcc() {
  cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVEISTROR_BENCH=ON >/dev/null
}

stage_gcc() {
  echo "== GCC build: unit and integration tests"
  configure_gcc &&
    cmake --build build -j"$jobs" &&
    run_ctest --test-dir build
}

stage_asan() {
  echo "== Clang build with AddressSanitizer and UndefinedBehaviorSanitizer: all tests, fuzz seeds"
  CC=clang CXX=clang++ cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DTOVEISTROR_SANITIZE=ON -DTOVEISTROR_FUZZ=ON >/dev/null &&
    cmake --build build-asan -j"$jobs" &&
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      run_ctest --test-dir build-asan
}

stage_tsan() {
  echo "== Clang build with ThreadSanitizer: unit and integration tests, stress test"
  CC=clang CXX=clang++ cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTOVEISTROR_TSAN=ON >/dev/null &&
    cmake --build build-tsan -j"$jobs" &&
    # The tools are single-threaded and their scripts run in every other stage.
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
      run_ctest --test-dir build-tsan -E '^tool\.'
}

stage_arm() {
  echo "== 32-bit ARM (arm-linux-gnueabihf) under qemu-arm: the whole library, all tests"
  # Debian's armhf OpenSSL, Cyrus SASL and Kerberos in a private sysroot, made once.
  local sysroot
  sysroot=$(bash scripts/arm-sysroot.sh) &&
    cmake -S . -B build-arm-full -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake -DTOVEISTROR_ARM_SYSROOT="$sysroot" \
      -DTOVEISTROR_GTEST_SOURCE=/usr/src/googletest >/dev/null &&
    cmake --build build-arm-full -j"$jobs" &&
    run_ctest --test-dir build-arm-full
}

stage_ad() {
  echo "== Active Directory: the tools against a throwaway Samba domain controller"
  if [ "$(id -u)" -ne 0 ]; then
    echo "== stage ad skipped: Samba's domain controller needs root"
    return 0
  fi
  # The gcc stage's build (nothing left to build after it) and, when the asan stage made
  # one, the ASan build; both take one provisioned domain.
  local ad_stage=1 dirs=(build) d rc=0
  [ -f build-asan/CMakeCache.txt ] && dirs+=(build-asan)
  local -x TOVEISTROR_AD_SHARED=$root/build/ad-domain
  configure_gcc || return 1
  for d in "${dirs[@]}"; do
    cmake --build "$d" -j"$jobs" &&
      ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        run_ctest --test-dir "$d" || rc=1
  done
  return $rc
}

for s in "${stages[@]}"; do
  start=$SECONDS
  before=$failed
  if ! "stage_$s"; then
    broken+=("$s")
    # A stage that failed before its tests ran (a build error) counts as one failure.
    [ "$failed" -eq "$before" ] && failed=$((failed + 1))
  fi
  echo "== stage $s: $((SECONDS - start)) s"
done

[ ${#broken[@]} -gt 0 ] && echo "test.sh: stages with failures: ${broken[*]}"
echo "total: $passed passed, $failed failed"
[ ${#broken[@]} -eq 0 ]
