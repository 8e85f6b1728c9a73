#!/usr/bin/env bash
# Installs what the build, the tests and the demo need from Debian, non-interactively,
# and only what is missing. Never leaves a system slapd or krb5kdc running: service
# starts are refused by a policy-rc.d while we install (ours is removed afterwards).
set -euo pipefail

PKGS=(
  # build: compilers, CMake, and what the POSIX port (OpenSSL) and the SASL bind link
  build-essential cmake ninja-build pkg-config libssl-dev libsasl2-dev libkrb5-dev
  # demo (and tests): a throwaway slapd, openssl for its test CA, ldapsearch as reference
  slapd ldap-utils openssl
  # tests: GoogleTest, Clang for the sanitizers and fuzzing, clang-format, benchmarks,
  # a Kerberos KDC and GSSAPI for the SASL tests, python3 for scripted peers
  clang clang-format libclang-rt-dev libgtest-dev libgmock-dev googletest libbenchmark-dev
  krb5-kdc krb5-admin-server krb5-user libsasl2-modules-gssapi-mit
  python3
  # bench: OpenLDAP's libldap as the side-by-side baseline (bench/side_by_side.sh), with
  # valgrind (callgrind) and strace for its counts
  libldap-dev valgrind strace
  # the ad stage: a throwaway Samba AD domain controller (samba-ad-provision holds the
  # provisioning's .ldf files), ldbmodify for its bulk data
  samba samba-ad-dc samba-ad-provision winbind smbclient ldb-tools
  # cross: the 32-bit ARM build and the emulator its tests run under (the armhf OpenSSL,
  # SASL and Kerberos come into a private sysroot through scripts/arm-sysroot.sh)
  g++-arm-linux-gnueabihf qemu-user
)

missing=()
for p in "${PKGS[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && { echo "deps: all present"; exit 0; }

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"

created_policy=0
if [ ! -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 101\n' | $SUDO tee /usr/sbin/policy-rc.d >/dev/null
  $SUDO chmod 755 /usr/sbin/policy-rc.d
  created_policy=1
fi
cleanup() { if [ "$created_policy" = 1 ]; then $SUDO rm -f /usr/sbin/policy-rc.d; fi; }
trap cleanup EXIT

# No system database for slapd, no prompts for Kerberos.
$SUDO debconf-set-selections <<'SEL'
slapd slapd/no_configuration boolean true
krb5-config krb5-config/default_realm string TOVEISTROR.TEST
krb5-config krb5-config/kerberos_servers string 127.0.0.1
krb5-config krb5-config/admin_server string 127.0.0.1
krb5-config krb5-config/add_servers_realm string TOVEISTROR.TEST
krb5-config krb5-config/read_conf boolean true
krb5-admin-server krb5-admin-server/newrealm note
krb5-kdc krb5-kdc/debconf boolean false
samba-common samba-common/dhcp boolean false
SEL

echo "deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "deps: done"
