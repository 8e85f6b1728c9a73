#!/usr/bin/env bash
# Checks the core's symbols: the shared library exports only cmp_ldap_*, and the
# core objects call no allocator, socket, thread or TLS function directly (those
# belong to the platform port).
set -euo pipefail
shared=$1 static=$2 nm=${3:-nm}
bad=$("$nm" -D --defined-only "$shared" | awk 'NF==3 {print $3}' | grep -v '^cmp_ldap_' || true)
if [ -n "$bad" ]; then echo "exported beyond cmp_ldap_*:"; echo "$bad"; exit 1; fi
forbidden='^(malloc|calloc|realloc|free|_Znw.*|_Zna.*|_Zdl.*|_Zda.*|socket|connect|send|recv|poll|select|close|getaddrinfo|freeaddrinfo|pthread_.*|SSL_.*|__cxa_throw|__gxx_personality_v0)$'
undef=$("$nm" -u "$static" | awk '{print $NF}' | sed 's/@.*//' | sort -u | grep -E "$forbidden" || true)
if [ -n "$undef" ]; then echo "core calls platform functions directly:"; echo "$undef"; exit 1; fi
echo "symbols ok: $("$nm" -D --defined-only "$shared" | grep -c ' cmp_ldap_') exported"
