#!/usr/bin/env bash
# Checks the library's symbols:   check_symbols.sh [--port] SHARED STATIC [NM]
#  - the shared library exports only cmp_ldap_* functions, each declared in cmp_ldap.h;
#  - the core objects (STATIC) call no allocator, socket, thread or TLS function directly
#    (those belong to the platform port); of Cyrus SASL and Kerberos only the calls of the
#    GSSAPI bind (getpeername, getnameinfo and stat are the C library's, and allowed);
#  - with --port, the shared library carries its port: no platform function is left
#    undefined in it, so that a program links it alone (-lcmp_ldap).
set -euo pipefail
port=0
if [ "${1:-}" = --port ]; then
  port=1
  shift
fi
shared=$1 static=$2 nm=${3:-nm}
header=$(dirname "${BASH_SOURCE[0]}")/../cmp_ldap/include/cmp_ldap.h
exported=$("$nm" -D --defined-only "$shared" | awk 'NF==3 {print $3}' | sed 's/@.*//' | sort -u)
bad=$(grep -v '^cmp_ldap_' <<<"$exported" || true)
if [ -n "$bad" ]; then echo "exported beyond cmp_ldap_*:"; echo "$bad"; exit 1; fi
declared=$(sed -n 's/^CMP_LDAP_API[^(]*[ *]\(cmp_ldap_[a-z0-9_]*\)(.*/\1/p' "$header" | sort -u)
bad=$(comm -23 <(echo "$exported") <(echo "$declared"))
if [ -n "$bad" ]; then echo "exported but not in cmp_ldap.h:"; echo "$bad"; exit 1; fi
forbidden='^(malloc|calloc|realloc|free|_Znw.*|_Zna.*|_Zdl.*|_Zda.*|socket|connect|send|recv|poll|select|close|getaddrinfo|freeaddrinfo|pthread_.*|SSL_.*|__cxa_throw|__gxx_personality_v0)$'
undef=$("$nm" -u "$static" | awk '{print $NF}' | sed 's/@.*//' | sort -u | grep -E "$forbidden" || true)
if [ -n "$undef" ]; then echo "core calls platform functions directly:"; echo "$undef"; exit 1; fi
sasl='^(sasl_(version|client_init|client_new|getprop|setprop|client_start|client_step|errdetail|dispose|encode|decode)|gss_krb5_ccache_name)$'
undef=$("$nm" -u "$static" | awk '{print $NF}' | sed 's/@.*//' | sort -u |
  grep -E '^(sasl_|_sasl|gss_|krb5_)' | grep -vE "$sasl" || true)
if [ -n "$undef" ]; then echo "core calls SASL or Kerberos beyond the GSSAPI bind:"; echo "$undef"; exit 1; fi
if [ "$port" = 1 ]; then
  platform='^(cmp_netsock_|osl_scr_ssl_wrp_|zelOSW|cmp_dbglog_|ent_set_)'
  missing=$("$nm" -D --undefined-only "$shared" | awk '{print $NF}' | grep -E "$platform" || true)
  if [ -n "$missing" ]; then echo "shared library without its port:"; echo "$missing"; exit 1; fi
fi
echo "symbols ok: $(wc -l <<<"$exported") exported$([ "$port" = 0 ] || echo ", port inside")"
