#!/usr/bin/env bash
# A private sysroot of Debian's armhf OpenSSL, Cyrus SASL and MIT Kerberos, so the whole
# library (POSIX port, SASL code, tools, integration tests) cross-builds for
# arm-linux-gnueabihf and runs under qemu-arm:
#
#   arm-sysroot.sh [DIR]      prints the sysroot's path (default build-cache/arm-sysroot)
#
# The .deb files come from the machine's apt sources through a private apt state (armhf
# package lists of its own), and are unpacked with dpkg-deb -x: no foreign architecture is
# added to dpkg, so nothing on the host changes. Idempotent: a sysroot made by this
# version of the script is reused as it is.
#
# The sysroot is also the root qemu-arm runs programs in (qemu-arm -L DIR): the cross
# toolchain's C and C++ run-time libraries are linked into lib/, so the programs find every
# library where Debian puts it, without LD_LIBRARY_PATH or SASL_PATH leaking into the
# native programs (slapd, kinit) that the tests start. Cyrus SASL lists its plugin
# directory with readdir, which fails with EOVERFLOW for a 32-bit guest on ext4 (64-bit
# directory offsets): the plugins live on tmpfs, and usr/lib/.../sasl2 points there.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-${TOVEISTROR_ARM_SYSROOT:-$root/build-cache/arm-sysroot}}
triple=arm-linux-gnueabihf
cross=/usr/$triple

PKGS=(
  libssl-dev libssl3
  libsasl2-dev libsasl2-2 libsasl2-modules libsasl2-modules-gssapi-mit libsasl2-modules-db
  libdb5.3
  libkrb5-dev krb5-multidev libkrb5-3 libgssapi-krb5-2 libk5crypto3 libkrb5support0
  libcom-err2 comerr-dev libkeyutils1 libgssrpc4 libkadm5clnt-mit12 libkadm5srv-mit12
  libkdb5-10
)

die() {
  echo "arm-sysroot.sh: $*" >&2
  exit 1
}

mkdir -p "$(dirname "$dir")"
dir=$(cd "$(dirname "$dir")" && pwd)/$(basename "$dir")
stamp=$(sha256sum "$0" | cut -d' ' -f1)

# The plugins' copy on tmpfs, one per sysroot and user, remade when missing (after a reboot).
plugins=""
for t in /dev/shm /run/shm "${TMPDIR:-/tmp}"; do
  if [ -d "$t" ] && [ -w "$t" ] && [ "$(stat -f -c %T "$t" 2>/dev/null)" = tmpfs ]; then
    plugins="$t/toveistror-sasl2-$(id -u)-$(echo "$dir" | sha256sum | cut -c1-12)"
    break
  fi
done

sasl_plugins() { # SYSROOT: points usr/lib/TRIPLE/sasl2 at a tmpfs copy of sasl2-plugins/
  local s=$1 link="$1/usr/lib/$triple/sasl2"
  if [ -z "$plugins" ]; then # no tmpfs here: the plugins stay on disk, fewer may load
    ln -sfn ../../../sasl2-plugins "$link"
    return 0
  fi
  if [ ! -e "$plugins/.complete" ]; then
    rm -rf "$plugins"
    mkdir -p "$plugins"
    cp -a "$s/sasl2-plugins/." "$plugins/"
    touch "$plugins/.complete"
  fi
  [ "$(readlink "$link" 2>/dev/null)" = "$plugins" ] || ln -sfn "$plugins" "$link"
}

if [ "$(cat "$dir/.stamp" 2>/dev/null || true)" = "$stamp" ]; then
  sasl_plugins "$dir"
  echo "$dir"
  exit 0
fi

command -v apt-get >/dev/null && command -v dpkg-deb >/dev/null || die "needs apt-get and dpkg-deb"
[ -e "$cross/lib/ld-linux-armhf.so.3" ] || die "$cross missing (apt-get install g++-$triple)"
exec 9>"$dir.lock"
flock 9
if [ "$(cat "$dir/.stamp" 2>/dev/null || true)" = "$stamp" ]; then # made while we waited
  sasl_plugins "$dir"
  echo "$dir"
  exit 0
fi

# Package lists for armhf in a state directory of our own. An index that fails to download
# (a mirror in sync, say) is only fatal when the packages cannot be found without it.
apt="$dir.apt"
mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial"
: >"$apt/status"
opts=(-q -o APT::Architecture=armhf -o APT::Architectures::=armhf
  -o Dir::State::Lists="$apt/lists" -o Dir::State::status="$apt/status"
  -o Dir::Cache="$apt/cache" -o Debug::NoLocking=1 -o APT::Sandbox::User="$(id -un)")
apt-get "${opts[@]}" update >"$apt/update.log" 2>&1 || echo "arm-sysroot.sh: apt-get update" \
  "reported errors (see $apt/update.log), trying with what it fetched" >&2
rm -rf "$dir.debs" "$dir.new"
mkdir -p "$dir.debs" "$dir.new"
(cd "$dir.debs" && apt-get "${opts[@]}" download "${PKGS[@]/%/:armhf}" >"$apt/download.log" 2>&1) ||
  die "apt-get download failed, see $apt/download.log"
for deb in "$dir.debs"/*.deb; do
  dpkg-deb -x "$deb" "$dir.new"
done

# Absolute symbolic links (libcom_err.so) would point into the host: make them relative.
while IFS= read -r link; do
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$dir.new$(readlink "$link")")" "$link"
done < <(find "$dir.new" -type l -lname '/*')

# The run-time root for qemu-arm: the cross toolchain's loader and libraries in lib/.
mkdir -p "$dir.new/lib"
for f in "$cross"/lib/ld-linux-armhf.so.3 "$cross"/lib/*.so.[0-9]*; do
  ln -sfn "$f" "$dir.new/lib/$(basename "$f")"
done
mv "$dir.new/usr/lib/$triple/sasl2" "$dir.new/sasl2-plugins"
echo "$stamp" >"$dir.new/.stamp"

rm -rf "$dir" "$dir.debs"
mv "$dir.new" "$dir"
rm -f "$plugins/.complete"
sasl_plugins "$dir"
echo "$dir"
