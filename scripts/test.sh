#!/usr/bin/env bash
# Runs every test of the project, from a fresh machine on:
#   1. installs what is missing (scripts/deps.sh);
#   2. checks formatting;
#   3. builds with GCC and runs all tests: unit tests (fake port) and integration
#      tests (POSIX port against real slapd servers started on loopback);
#   4. builds with Clang under AddressSanitizer + UndefinedBehaviorSanitizer and
#      runs every test again there, and replays the fuzz corpus;
#   5. cross-builds the core and the unit tests for 32-bit ARM (the devices'
#      target) and runs them under qemu-arm.
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

echo "== 32-bit ARM (arm-linux-gnueabihf) under qemu-arm: unit tests"
# Without an armhf sysroot there are no armhf Cyrus SASL and Kerberos headers: no SASL here.
cmake -S . -B build-arm -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake -DTOVEISTROR_POSIX_PORT=OFF \
  -DTOVEISTROR_SASL=OFF \
  -DTOVEISTROR_GTEST_SOURCE=/usr/src/googletest >/dev/null
cmake --build build-arm -j"$jobs"
ctest --test-dir build-arm -L unit --output-on-failure -j"$jobs"
