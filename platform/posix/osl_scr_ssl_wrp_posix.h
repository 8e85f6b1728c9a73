/*
 * TLS wrapper of the POSIX port (OpenSSL 3): the meaning of the four mask
 * bytes of OSL_SCR_SSL_WRP_SETTINGS and of the codes the wrapper returns.
 *
 * A mask of 0 means "every secure choice": TLS 1.2 and 1.3, the AEAD cipher
 * suites (AES-GCM, ChaCha20-Poly1305) with ECDHE, and every signature
 * algorithm except the SHA-1 ones. Unknown bits are ignored.
 *
 * A TLS 1.2 suite is offered when both its cipher bit (ssl_encrpt) and its
 * MAC bit (ssl_hash) are set; TLS 1.3 suites are all AEAD, so ssl_hash only
 * needs the AEAD bit for them. A version whose suites are all excluded is
 * not offered. Key exchange is always ECDHE.
 */
#ifndef OSL_SCR_SSL_WRP_POSIX_H
#define OSL_SCR_SSL_WRP_POSIX_H

/* ---- ssl_version: protocol versions offered (0: TLS 1.2 and TLS 1.3) ---- */
#define OSL_SSL_POSIX_VERSION_TLS10 0x01u /* TLS 1.0; lowers OpenSSL's security level to 0 */
#define OSL_SSL_POSIX_VERSION_TLS11 0x02u /* TLS 1.1; lowers OpenSSL's security level to 0 */
#define OSL_SSL_POSIX_VERSION_TLS12 0x04u /* TLS 1.2 */
#define OSL_SSL_POSIX_VERSION_TLS13 0x08u /* TLS 1.3 */

/* ---- ssl_hash: message authentication (0: AEAD, SHA256, SHA384) ---- */
#define OSL_SSL_POSIX_HASH_SHA1 0x01u   /* HMAC-SHA1 of CBC suites (the only ones of TLS 1.0/1.1) */
#define OSL_SSL_POSIX_HASH_SHA256 0x02u /* HMAC-SHA256 of CBC suites (TLS 1.2) */
#define OSL_SSL_POSIX_HASH_SHA384 0x04u /* HMAC-SHA384 of CBC suites (TLS 1.2) */
#define OSL_SSL_POSIX_HASH_AEAD 0x08u   /* AEAD suites: GCM, ChaCha20-Poly1305, all of TLS 1.3 */

/* ---- ssl_encrpt: bulk ciphers (0: AES128-GCM, AES256-GCM, CHACHA20-POLY1305) ---- */
#define OSL_SSL_POSIX_CIPHER_AES128_GCM 0x01u        /* AES-128 in GCM */
#define OSL_SSL_POSIX_CIPHER_AES256_GCM 0x02u        /* AES-256 in GCM */
#define OSL_SSL_POSIX_CIPHER_CHACHA20_POLY1305 0x04u /* ChaCha20-Poly1305 */
#define OSL_SSL_POSIX_CIPHER_AES128_CBC 0x08u        /* AES-128 in CBC (TLS 1.0 to 1.2) */
#define OSL_SSL_POSIX_CIPHER_AES256_CBC 0x10u        /* AES-256 in CBC (TLS 1.0 to 1.2) */

/* ---- ssl_accepted_signature_algorithm: signature algorithms the client offers
 * and accepts for the server's handshake signature (with TLS 1.3 also for its
 * certificate) (0: all but SHA1_LEGACY). TLS 1.3 never signs a handshake with
 * RSA-PKCS1, so an RSA server needs RSA_PSS there. ---- */
#define OSL_SSL_POSIX_SIGALG_RSA_PKCS1 0x01u  /* RSA PKCS#1 v1.5 with SHA-256/384/512 */
#define OSL_SSL_POSIX_SIGALG_RSA_PSS 0x02u    /* RSA-PSS with SHA-256/384/512 (rsae and pss keys) */
#define OSL_SSL_POSIX_SIGALG_ECDSA_P256 0x04u /* ECDSA on P-256 with SHA-256 */
#define OSL_SSL_POSIX_SIGALG_ECDSA_P384 0x08u /* ECDSA on P-384 with SHA-384 */
#define OSL_SSL_POSIX_SIGALG_ECDSA_P521 0x10u /* ECDSA on P-521 with SHA-512 */
#define OSL_SSL_POSIX_SIGALG_ED25519 0x20u    /* Ed25519 */
#define OSL_SSL_POSIX_SIGALG_ED448 0x40u      /* Ed448 */
#define OSL_SSL_POSIX_SIGALG_SHA1_LEGACY \
    0x80u /* RSA PKCS#1 and ECDSA with SHA-1; security level 0 */

/*
 * Result codes (names in osl_scr_ssl_wrp.h):
 *   0x72010008  init: SSL_CTX_new failed
 *   0x72010007  init: the CA file/directory (TOVEISTROR_CA_FILE, TOVEISTROR_CA_DIR)
 *               or the system's default store could not be loaded
 *   0x7201000a  init: other context setup failed
 *   0x72010009  set_verify: no context to switch verification on
 *   0x72010002  handshake: the server's certificate did not verify
 *   0x72010003  handshake: no common protocol version (or none in ssl_version)
 *   0x72010004  handshake: no common cipher suite or signature algorithm (or
 *               the masks leave none)
 *   0x72010005  handshake, read, write: socket error
 *   0x72010006  handshake, read, write: time-out
 *   0x7201000b  handshake, read, write: the peer closed or reset the connection
 *               without close_notify (a read after close_notify returns 0 bytes)
 *   0x7201001d  handshake: the certificate does not name the host (DNS name, or
 *               IP address for an address literal); also when verification is
 *               on and the socket's host name is unknown
 *   0x720100ff  anything else (NULL arguments, TLS protocol errors)
 *
 * Host name: the name the socket was resolved from by cmp_netsock_getaddrinfo
 * on the thread that then created it with cmp_netsock_socket. It is sent as SNI
 * (not for address literals) and checked when verification is on, which is
 * when the settings' verify flag is 1 or set_verify was called on the context.
 *
 * Bytes that the plain read-ahead of cmp_netsock_recv_timeo still holds when
 * the handshake starts are fed to TLS first: they are the start of its stream.
 */

#endif
