/*
 * POSIX port: controls that only this port has. Tools and tests include it
 * beside cmp_ldap.h; a device build never sees it.
 *
 * Environment read by the port:
 *   TOVEISTROR_LOG_LEVEL     -1 or "off": no log; 0 (default): errors and dumps;
 *                            1: also the trace of every request (which includes
 *                            a simple bind's password)
 *   TOVEISTROR_MAX_ALLOC     largest single block zelOSWSubAllocMem hands out,
 *                            in bytes (default 64 MiB); larger requests fail
 *   TOVEISTROR_LDAP_PROTOCOL "0" or "off" switches LDAP off (default on)
 *   TOVEISTROR_SCOPE_IF      interface for link-local IPv6 addresses (default:
 *                            the first interface that is up and not loopback)
 *   TOVEISTROR_CA_FILE, TOVEISTROR_CA_DIR
 *                            trusted CAs for TLS (default: the system's store)
 * The log level and the allocation cap are read once, on first use.
 *
 * A socket from cmp_netsock_socket carries state in the port (its host name
 * and read-ahead); close it with cmp_netsock_close, never with close().
 */
#ifndef CMP_LDAP_POSIX_H
#define CMP_LDAP_POSIX_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Highest log level written from now on: -1 nothing, 0 errors, 1 traces.
 * Overrides TOVEISTROR_LOG_LEVEL. */
void cmp_dbglog_posix_set_level(int max_level);

/* Reads TOVEISTROR_LOG_LEVEL and TOVEISTROR_MAX_ALLOC again (dropping a level
 * set with cmp_dbglog_posix_set_level). For tests and tools that change them. */
void cmp_ldap_posix_reload_env(void);

/* recv() system calls made by the port since the process started (plain and
 * TLS alike); differences of two readings measure the read-ahead. */
uint64_t cmp_netsock_posix_recv_calls(void);

/* Switches the per-socket read-ahead of cmp_netsock_recv_timeo on (default)
 * or off. Off, every receive is one recv() call of the caller's size. */
void cmp_netsock_posix_set_read_ahead(int on);

/* Why the last TLS handshake of the calling thread refused the server's
 * certificate ("the server's certificate is for localhost, 127.0.0.1, not for
 * 127.0.0.2", "the server's certificate is not trusted: <OpenSSL's reason>"),
 * or "" when it did not. The library's codes (269, 274) say only that it did. */
const char *cmp_ldap_posix_tls_failure_text(void);

#ifdef __cplusplus
}
#endif

#endif
