#!/bin/sh
# Build the libFuzzer target with Clang (ASan + UBSan) and run it over a copy of
# the seed corpus for the given number of seconds (default 60).
#   fuzz/run.sh [seconds]
# FUZZ_BUILD_DIR picks the build directory (default build-fuzz in the tree);
# extra libFuzzer options can be given in FUZZ_OPTIONS.
set -eu

seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$root/build-fuzz}

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVEISTROR_FUZZ=ON \
    -DTOVEISTROR_TESTS=OFF -DTOVEISTROR_INTEGRATION=OFF -DTOVEISTROR_TOOLS=OFF >/dev/null
cmake --build "$build" --target fuzz_decode -j2

# The seeds stay untouched: the fuzzer grows a copy.
work="$build/fuzz/corpus-run"
artifacts="$build/fuzz/artifacts"
rm -rf "$work"
mkdir -p "$work" "$artifacts"
cp "$root"/fuzz/corpus/* "$work"/

echo "fuzz_decode: ${seconds}s over $work (crashes go to $artifacts/)"
# shellcheck disable=SC2086
exec "$build/fuzz/fuzz_decode" -max_total_time="$seconds" -max_len=4096 -timeout=10 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$artifacts/" \
    ${FUZZ_OPTIONS:-} "$work"
