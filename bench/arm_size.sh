#!/usr/bin/env bash
# The core library's size on the devices' target: arm-linux-gnueabihf, Thumb-2, -Os, with
# the SASL bind and the connection test, per source file (arm-linux-gnueabihf-size).
#   bench/arm_size.sh      (BUILD_DIR default build-perf; builds in BUILD_DIR/bench-arm)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${BUILD_DIR:-$root/build-perf}/bench-arm
sysroot=$("$root/scripts/arm-sysroot.sh")
cmake -S "$root" -B "$out" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/arm-linux-gnueabihf.cmake" \
  -DTOVEISTROR_ARM_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=MinSizeRel \
  -DCMAKE_CXX_FLAGS="-mthumb -D_FILE_OFFSET_BITS=64" -DTOVEISTROR_TESTS=OFF -DTOVEISTROR_INTEGRATION=OFF \
  -DTOVEISTROR_TOOLS=OFF -DTOVEISTROR_EXAMPLES=OFF -DTOVEISTROR_SASL=ON >/dev/null
cmake --build "$out" --target cmp_ldap_objects -j2 >/dev/null
echo "Core library on arm-linux-gnueabihf (-Os -mthumb, SASL and connection test), bytes:"
printf '%-22s %8s %8s %8s %10s\n' source text data bss "text+data"
find "$out/cmp_ldap" -name '*.o' | sort | while read -r o; do
  arm-linux-gnueabihf-size -B "$o" | awk -v n="$(basename "$o" .cpp.o)" \
    'NR == 2 {printf "%-22s %8d %8d %8d %10d\n", n, $1, $2, $3, $1 + $2}'
done
find "$out/cmp_ldap" -name '*.o' -print0 | xargs -0 arm-linux-gnueabihf-size -B |
  awk 'NR > 1 {t += $1; d += $2; b += $3}
       END {printf "%-22s %8d %8d %8d %10d (%.1f KiB; goal 32 KiB)\n", "total", t, d, b, t + d, (t + d) / 1024}'
