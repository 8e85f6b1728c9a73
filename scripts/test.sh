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
#      unit and integration tests under qemu-arm against the servers on the host.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)

bash scripts/deps.sh
scripts/format.sh --check

echo "== GCC build: unit and integration tests"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVEISTROR_BENCH=ON >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

echo "== Clang build with AddressSanitizer and UndefinedBehaviorSanitizer: all tests, fuzz seeds"
CC=clang CXX=clang++ cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DTOVEISTROR_SANITIZE=ON -DTOVEISTROR_FUZZ=ON >/dev/null
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"

echo "== Clang build with ThreadSanitizer: unit and integration tests, stress test"
CC=clang CXX=clang++ cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTOVEISTROR_TSAN=ON >/dev/null
cmake --build build-tsan -j"$jobs"
# The tools are single-threaded and their scripts run in every other stage.
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build-tsan --output-on-failure -j"$jobs" -E '^tool\.'

echo "== 32-bit ARM (arm-linux-gnueabihf) under qemu-arm: the whole library, all tests"
# Debian's armhf OpenSSL, Cyrus SASL and Kerberos in a private sysroot, made once.
sysroot=$(bash scripts/arm-sysroot.sh)
cmake -S . -B build-arm-full -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake -DTOVEISTROR_ARM_SYSROOT="$sysroot" \
  -DTOVEISTROR_GTEST_SOURCE=/usr/src/googletest >/dev/null
cmake --build build-arm-full -j"$jobs"
ctest --test-dir build-arm-full --output-on-failure -j"$jobs"
