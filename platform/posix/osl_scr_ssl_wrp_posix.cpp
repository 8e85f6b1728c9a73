/*
 * TLS wrapper on OpenSSL 3. The connection runs over a BIO of our own on the
 * socket: it is non-blocking (every wait is a poll() bounded by the caller's
 * time-out) and it hands TLS the bytes the plain read-ahead still holds before
 * reading the socket, so nothing received before the handshake is lost.
 * Mask bits and codes: osl_scr_ssl_wrp_posix.h.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>

#include "cmp_ldap_posix.h"
#include "osl_scr_ssl_wrp.h"
#include "osl_scr_ssl_wrp_posix.h"
#include "posix_internal.h"

namespace {

/* Plaintext read above SSL: the core reads a PDU's header an octet or two at a time,
 * and each SSL_read_ex (with its error-queue clearing) costs far more than a copy. */
constexpr size_t kReadBuffer = 16384; /* one TLS record's plaintext */

struct TlsConn {
    SSL *ssl;
    int fd;
    bool eof;    /* the peer closed its side of the socket */
    size_t head; /* unread plaintext: buffer[head, tail) */
    size_t tail;
    unsigned char buffer[kReadBuffer];
    /* Received TLS records not yet taken by SSL: inbox[in_head, in_tail). One recv fills
     * it for many records, and SSL takes each header and body from it by exact size
     * (its own read-ahead would move every unread octet to the front of its buffer for
     * each record). */
    size_t in_head;
    size_t in_tail;
    unsigned char inbox[kReadBuffer];
};

/* What osl_scr_ssl_wrp_init hands out: an SSL_CTX shared by every open with the same
 * trust settings (see shared_context), and this open's verify switch, which must not
 * touch the shared context. */
struct TlsCtx {
    SSL_CTX *ssl_ctx; /* one reference */
    bool verify;
};

/* ---- the socket BIO ---- */

pthread_once_t g_bio_once = PTHREAD_ONCE_INIT;
BIO_METHOD *g_bio_method = nullptr;

int bio_write(BIO *bio, const char *data, size_t len, size_t *written)
{
    BIO_clear_retry_flags(bio);
    auto *c = static_cast<TlsConn *>(BIO_get_data(bio));
    *written = 0;
    ssize_t n = send(c->fd, data, len, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) {
        *written = static_cast<size_t>(n);
        return 1;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) BIO_set_retry_write(bio);
    return 0;
}

int bio_read(BIO *bio, char *data, size_t len, size_t *read_bytes)
{
    BIO_clear_retry_flags(bio);
    auto *c = static_cast<TlsConn *>(BIO_get_data(bio));
    *read_bytes = 0;
    if (c->in_head == c->in_tail) {
        *read_bytes = posix_port::take_read_ahead(c->fd, data, len);
        if (*read_bytes > 0) return 1;
        ssize_t n = posix_port::counted_recv(c->fd, c->inbox, sizeof c->inbox, MSG_DONTWAIT);
        if (n == 0) {
            c->eof = true;
            return 0;
        }
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) BIO_set_retry_read(bio);
            return 0;
        }
        c->in_head = 0;
        c->in_tail = static_cast<size_t>(n);
    }
    *read_bytes = std::min(len, c->in_tail - c->in_head);
    memcpy(data, c->inbox + c->in_head, *read_bytes);
    c->in_head += *read_bytes;
    return 1;
}

long bio_ctrl(BIO *bio, int cmd, long num, void *ptr)
{
    (void)num;
    (void)ptr;
    switch (cmd) {
        case BIO_CTRL_FLUSH:
            return 1;
        case BIO_CTRL_EOF:
            return static_cast<TlsConn *>(BIO_get_data(bio))->eof ? 1 : 0;
        default:
            return 0;
    }
}

void make_bio_method()
{
    BIO_METHOD *m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "cmp_netsock");
    if (m == nullptr) return;
    if (BIO_meth_set_write_ex(m, bio_write) != 1 || BIO_meth_set_read_ex(m, bio_read) != 1 ||
        BIO_meth_set_ctrl(m, bio_ctrl) != 1) {
        BIO_meth_free(m);
        return;
    }
    g_bio_method = m;
}

/* ---- what the masks allow ---- */

constexpr uint8_t kVersionAll = OSL_SSL_POSIX_VERSION_TLS10 | OSL_SSL_POSIX_VERSION_TLS11 |
                                OSL_SSL_POSIX_VERSION_TLS12 | OSL_SSL_POSIX_VERSION_TLS13;
constexpr uint8_t kVersionDefault = OSL_SSL_POSIX_VERSION_TLS12 | OSL_SSL_POSIX_VERSION_TLS13;
constexpr uint8_t kHashDefault =
    OSL_SSL_POSIX_HASH_AEAD | OSL_SSL_POSIX_HASH_SHA256 | OSL_SSL_POSIX_HASH_SHA384;
constexpr uint8_t kCipherDefault = OSL_SSL_POSIX_CIPHER_AES128_GCM |
                                   OSL_SSL_POSIX_CIPHER_AES256_GCM |
                                   OSL_SSL_POSIX_CIPHER_CHACHA20_POLY1305;
constexpr uint8_t kSigalgDefault = static_cast<uint8_t>(~OSL_SSL_POSIX_SIGALG_SHA1_LEGACY);

struct Suite {
    const char *name;
    uint8_t cipher;
    uint8_t mac;
    bool tls13;
};

constexpr uint8_t k128Gcm = OSL_SSL_POSIX_CIPHER_AES128_GCM;
constexpr uint8_t k256Gcm = OSL_SSL_POSIX_CIPHER_AES256_GCM;
constexpr uint8_t kChacha = OSL_SSL_POSIX_CIPHER_CHACHA20_POLY1305;
constexpr uint8_t k128Cbc = OSL_SSL_POSIX_CIPHER_AES128_CBC;
constexpr uint8_t k256Cbc = OSL_SSL_POSIX_CIPHER_AES256_CBC;
constexpr uint8_t kAead = OSL_SSL_POSIX_HASH_AEAD;

/* In order of preference. */
constexpr Suite kSuites[] = {
    {"TLS_AES_256_GCM_SHA384", k256Gcm, kAead, true},
    {"TLS_CHACHA20_POLY1305_SHA256", kChacha, kAead, true},
    {"TLS_AES_128_GCM_SHA256", k128Gcm, kAead, true},
    {"ECDHE-ECDSA-AES256-GCM-SHA384", k256Gcm, kAead, false},
    {"ECDHE-RSA-AES256-GCM-SHA384", k256Gcm, kAead, false},
    {"ECDHE-ECDSA-CHACHA20-POLY1305", kChacha, kAead, false},
    {"ECDHE-RSA-CHACHA20-POLY1305", kChacha, kAead, false},
    {"ECDHE-ECDSA-AES128-GCM-SHA256", k128Gcm, kAead, false},
    {"ECDHE-RSA-AES128-GCM-SHA256", k128Gcm, kAead, false},
    {"ECDHE-ECDSA-AES256-SHA384", k256Cbc, OSL_SSL_POSIX_HASH_SHA384, false},
    {"ECDHE-RSA-AES256-SHA384", k256Cbc, OSL_SSL_POSIX_HASH_SHA384, false},
    {"ECDHE-ECDSA-AES128-SHA256", k128Cbc, OSL_SSL_POSIX_HASH_SHA256, false},
    {"ECDHE-RSA-AES128-SHA256", k128Cbc, OSL_SSL_POSIX_HASH_SHA256, false},
    {"ECDHE-ECDSA-AES256-SHA", k256Cbc, OSL_SSL_POSIX_HASH_SHA1, false},
    {"ECDHE-RSA-AES256-SHA", k256Cbc, OSL_SSL_POSIX_HASH_SHA1, false},
    {"ECDHE-ECDSA-AES128-SHA", k128Cbc, OSL_SSL_POSIX_HASH_SHA1, false},
    {"ECDHE-RSA-AES128-SHA", k128Cbc, OSL_SSL_POSIX_HASH_SHA1, false},
};

struct Sigalgs {
    uint8_t bit;
    const char *names;
};

constexpr Sigalgs kSigalgs[] = {
    {OSL_SSL_POSIX_SIGALG_ECDSA_P256, "ecdsa_secp256r1_sha256"},
    {OSL_SSL_POSIX_SIGALG_ECDSA_P384, "ecdsa_secp384r1_sha384"},
    {OSL_SSL_POSIX_SIGALG_ECDSA_P521, "ecdsa_secp521r1_sha512"},
    {OSL_SSL_POSIX_SIGALG_ED25519, "ed25519"},
    {OSL_SSL_POSIX_SIGALG_ED448, "ed448"},
    {OSL_SSL_POSIX_SIGALG_RSA_PSS,
     "rsa_pss_rsae_sha256:rsa_pss_rsae_sha384:rsa_pss_rsae_sha512:"
     "rsa_pss_pss_sha256:rsa_pss_pss_sha384:rsa_pss_pss_sha512"},
    {OSL_SSL_POSIX_SIGALG_RSA_PKCS1, "rsa_pkcs1_sha256:rsa_pkcs1_sha384:rsa_pkcs1_sha512"},
    {OSL_SSL_POSIX_SIGALG_SHA1_LEGACY, "rsa_pkcs1_sha1:ecdsa_sha1"},
};

struct Versions {
    uint8_t bit;
    int version;
    uint64_t disable; /* SSL_OP_NO_* to leave a hole in the range */
};

constexpr Versions kVersions[] = {
    {OSL_SSL_POSIX_VERSION_TLS10, TLS1_VERSION, SSL_OP_NO_TLSv1},
    {OSL_SSL_POSIX_VERSION_TLS11, TLS1_1_VERSION, SSL_OP_NO_TLSv1_1},
    {OSL_SSL_POSIX_VERSION_TLS12, TLS1_2_VERSION, SSL_OP_NO_TLSv1_2},
    {OSL_SSL_POSIX_VERSION_TLS13, TLS1_3_VERSION, SSL_OP_NO_TLSv1_3},
};

void append(char *list, size_t size, const char *item)
{
    size_t used = strlen(list);
    snprintf(list + used, size - used, "%s%s", used > 0 ? ":" : "", item);
}

/* Applies the four masks to ssl; 0 or a handshake code. */
uint32_t apply_masks(SSL *ssl, const OSL_SCR_SSL_WRP_SETTINGS *settings)
{
    uint8_t versions = settings->ssl_version != 0 ? settings->ssl_version : kVersionDefault;
    uint8_t hashes = settings->ssl_hash != 0 ? settings->ssl_hash : kHashDefault;
    uint8_t ciphers = settings->ssl_encrpt != 0 ? settings->ssl_encrpt : kCipherDefault;
    uint8_t sigalgs = settings->ssl_accepted_signature_algorithm != 0
                          ? settings->ssl_accepted_signature_algorithm
                          : kSigalgDefault;
    versions &= kVersionAll;
    if (versions == 0) return OSL_SCR_SSL_WRP_ERR_HANDSHAKE_B;

    char tls12[512] = "";
    char tls13[128] = "";
    for (const Suite &s : kSuites) {
        if ((s.cipher & ciphers) == 0 || (s.mac & hashes) == 0) continue;
        append(s.tls13 ? tls13 : tls12, s.tls13 ? sizeof(tls13) : sizeof(tls12), s.name);
    }
    if (tls13[0] == '\0') versions &= static_cast<uint8_t>(~OSL_SSL_POSIX_VERSION_TLS13);
    if (tls12[0] == '\0') versions &= OSL_SSL_POSIX_VERSION_TLS13;
    if (versions == 0) return OSL_SCR_SSL_WRP_ERR_HANDSHAKE_C;

    int lowest = 0, highest = 0;
    uint64_t holes = 0;
    for (const Versions &v : kVersions) {
        if ((versions & v.bit) != 0) {
            if (lowest == 0) lowest = v.version;
            highest = v.version;
        } else if (lowest != 0) {
            holes |= v.disable; /* bits above the highest one cost nothing */
        }
    }
    char sigalg_list[512] = "";
    for (const Sigalgs &s : kSigalgs) {
        if ((s.bit & sigalgs) != 0) append(sigalg_list, sizeof(sigalg_list), s.names);
    }

    /* OpenSSL 3 refuses TLS below 1.2 and SHA-1 signatures above level 0. */
    bool legacy = (versions & (OSL_SSL_POSIX_VERSION_TLS10 | OSL_SSL_POSIX_VERSION_TLS11)) != 0 ||
                  (sigalgs & OSL_SSL_POSIX_SIGALG_SHA1_LEGACY) != 0;
    if (legacy) SSL_set_security_level(ssl, 0);
    SSL_set_options(ssl, holes);
    bool ok = SSL_set_min_proto_version(ssl, lowest) == 1 &&
              SSL_set_max_proto_version(ssl, highest) == 1 &&
              SSL_set_ciphersuites(ssl, tls13) == 1 &&
              (tls12[0] == '\0' || SSL_set_cipher_list(ssl, tls12) == 1) &&
              SSL_set1_sigalgs_list(ssl, sigalg_list) == 1;
    return ok ? OSL_SCR_SSL_WRP_OK : OSL_SCR_SSL_WRP_ERR_GENERAL;
}

/* Why the last handshake of this thread refused the server's certificate, for
 * cmp_ldap_posix_tls_failure_text: the codes alone cannot say which names the
 * certificate carries. */
thread_local char t_tls_failure[512];

/* Appends the certificate's names (subjectAltName DNS and IP entries, else the
 * subject's common name) to out, separated by ", ". */
void certificate_names(X509 *cert, char *out, size_t size)
{
    size_t used = strlen(out);
    const size_t start = used;
    auto add = [&](const char *name) {
        int n = snprintf(out + used, size - used, "%s%s", used > start ? ", " : "", name);
        if (n > 0) used = std::min(used + static_cast<size_t>(n), size - 1);
    };
    auto *names = static_cast<GENERAL_NAMES *>(
        X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME *g = sk_GENERAL_NAME_value(names, i);
        char text[INET6_ADDRSTRLEN + 1] = "";
        if (g->type == GEN_DNS) {
            const unsigned char *d = ASN1_STRING_get0_data(g->d.dNSName);
            int n = ASN1_STRING_length(g->d.dNSName);
            char dns[256];
            snprintf(dns, sizeof dns, "%.*s", n < 255 ? n : 255, reinterpret_cast<const char *>(d));
            add(dns);
        } else if (g->type == GEN_IPADD) {
            int n = ASN1_STRING_length(g->d.iPAddress);
            int family = n == 4 ? AF_INET : n == 16 ? AF_INET6 : 0;
            if (family != 0 &&
                inet_ntop(family, ASN1_STRING_get0_data(g->d.iPAddress), text, sizeof text))
                add(text);
        }
    }
    GENERAL_NAMES_free(names);
    if (used == start) {
        char cn[256] = "";
        X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, cn, sizeof cn);
        add(cn);
    }
}

/* The server's certificate when the chain check refused it (OpenSSL keeps no peer
 * certificate after a failed handshake); taken by note_verify_failure. */
thread_local X509 *t_refused_cert = nullptr;

int keep_refused_certificate(int ok, X509_STORE_CTX *ctx)
{
    if (ok == 0 && X509_STORE_CTX_get_error_depth(ctx) == 0 && t_refused_cert == nullptr) {
        X509 *cert = X509_STORE_CTX_get_current_cert(ctx);
        if (cert != nullptr && X509_up_ref(cert) == 1) t_refused_cert = cert;
    }
    return ok;
}

void drop_refused_certificate()
{
    X509_free(t_refused_cert);
    t_refused_cert = nullptr;
}

void note_verify_failure(const TlsConn *c, long result)
{
    X509 *cert = t_refused_cert;
    if ((result == X509_V_ERR_HOSTNAME_MISMATCH || result == X509_V_ERR_IP_ADDRESS_MISMATCH) &&
        cert != nullptr) {
        char host[256];
        posix_port::socket_host(c->fd, host, sizeof(host));
        snprintf(t_tls_failure, sizeof t_tls_failure, "the server's certificate is for ");
        certificate_names(cert, t_tls_failure, sizeof t_tls_failure);
        size_t used = strlen(t_tls_failure);
        snprintf(t_tls_failure + used, sizeof t_tls_failure - used, ", not for %s", host);
    } else {
        snprintf(t_tls_failure, sizeof t_tls_failure, "the server's certificate is not trusted: %s",
                 X509_verify_cert_error_string(result));
    }
    drop_refused_certificate();
}

/* An address literal (a zone "%eth0" is dropped) goes to out; false for names. */
bool address_literal(const char *host, char *out, size_t out_size)
{
    size_t n = strcspn(host, "%");
    if (n == 0 || n >= out_size) return false;
    memcpy(out, host, n);
    out[n] = '\0';
    unsigned char addr[sizeof(in6_addr)];
    return inet_pton(AF_INET, out, addr) == 1 || inet_pton(AF_INET6, out, addr) == 1;
}

/* Sets SNI and, when verifying, the name the certificate must carry. */
uint32_t apply_host(SSL *ssl, int fd, bool verify)
{
    char host[256];
    char literal[INET6_ADDRSTRLEN + 1];
    posix_port::socket_host(fd, host, sizeof(host));
    bool is_literal = address_literal(host, literal, sizeof(literal));
    if (host[0] != '\0' && !is_literal && SSL_set_tlsext_host_name(ssl, host) != 1)
        return OSL_SCR_SSL_WRP_ERR_GENERAL;
    if (!verify) {
        SSL_set_verify(ssl, SSL_VERIFY_NONE, nullptr);
        return OSL_SCR_SSL_WRP_OK;
    }
    /* Without a name there is nothing to match the certificate against. */
    if (host[0] == '\0') return OSL_SCR_SSL_WRP_ERR_HANDSHAKE_D;
    X509_VERIFY_PARAM *param = SSL_get0_param(ssl);
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    int ok = is_literal ? X509_VERIFY_PARAM_set1_ip_asc(param, literal)
                        : X509_VERIFY_PARAM_set1_host(param, host, 0);
    if (ok != 1) return OSL_SCR_SSL_WRP_ERR_GENERAL;
    SSL_set_verify(ssl, SSL_VERIFY_PEER, keep_refused_certificate);
    return OSL_SCR_SSL_WRP_OK;
}

/* The code for a failed SSL call; the reasons are looked up in the thread's
 * error queue, newest first. */
uint32_t failure_code(const TlsConn *c, int ssl_error, int saved_errno, bool verifying)
{
    if (verifying) {
        long result = SSL_get_verify_result(c->ssl);
        if (result != X509_V_OK) note_verify_failure(c, result);
        if (result == X509_V_ERR_HOSTNAME_MISMATCH || result == X509_V_ERR_IP_ADDRESS_MISMATCH)
            return OSL_SCR_SSL_WRP_ERR_HANDSHAKE_D;
        if (result != X509_V_OK) return OSL_SCR_SSL_WRP_ERR_HANDSHAKE_A;
    }
    unsigned long e;
    while ((e = ERR_get_error()) != 0) {
        if (ERR_GET_LIB(e) != ERR_LIB_SSL) continue;
        switch (ERR_GET_REASON(e)) {
            case SSL_R_UNSUPPORTED_PROTOCOL:
            case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
            case SSL_R_WRONG_VERSION_NUMBER:
            case SSL_R_NO_PROTOCOLS_AVAILABLE:
            case SSL_R_UNSUPPORTED_SSL_VERSION:
            case SSL_R_VERSION_TOO_LOW:
            case SSL_R_VERSION_TOO_HIGH:
                ERR_clear_error();
                return OSL_SCR_SSL_WRP_ERR_HANDSHAKE_B;
            case SSL_R_NO_SHARED_CIPHER:
            case SSL_R_NO_CIPHERS_AVAILABLE:
            case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
            case SSL_R_TLSV1_ALERT_INSUFFICIENT_SECURITY:
            case SSL_R_NO_SHARED_SIGNATURE_ALGORITHMS:
            case SSL_R_NO_SUITABLE_SIGNATURE_ALGORITHM:
            case SSL_R_WRONG_SIGNATURE_TYPE:
            case SSL_R_WRONG_CIPHER_RETURNED:
                ERR_clear_error();
                return OSL_SCR_SSL_WRP_ERR_HANDSHAKE_C;
            case SSL_R_CERTIFICATE_VERIFY_FAILED:
                ERR_clear_error();
                return OSL_SCR_SSL_WRP_ERR_HANDSHAKE_A;
            case SSL_R_UNEXPECTED_EOF_WHILE_READING:
                ERR_clear_error();
                return OSL_SCR_SSL_WRP_ERR_CLOSED;
            default:
                break;
        }
    }
    /* A reset is the peer closing too, only less politely. */
    if (ssl_error == SSL_ERROR_ZERO_RETURN || c->eof || saved_errno == ECONNRESET ||
        saved_errno == EPIPE)
        return OSL_SCR_SSL_WRP_ERR_CLOSED;
    if (ssl_error == SSL_ERROR_SYSCALL && saved_errno != 0) return OSL_SCR_SSL_WRP_ERR_IO;
    return OSL_SCR_SSL_WRP_ERR_GENERAL;
}

/* For a WANT_READ/WANT_WRITE result: 0 once the socket is ready, else a code. */
uint32_t wait_for(const TlsConn *c, int ssl_error, const posix_port::Deadline &deadline)
{
    short events = ssl_error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    int ready = posix_port::wait_fd(c->fd, events, deadline);
    if (ready > 0) return OSL_SCR_SSL_WRP_OK;
    return ready == 0 ? OSL_SCR_SSL_WRP_ERR_TIMEOUT : OSL_SCR_SSL_WRP_ERR_IO;
}

bool wants_io(int ssl_error)
{
    return ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE;
}

void conn_free(TlsConn *c)
{
    SSL_free(c->ssl); /* frees the BIO too; the socket stays the caller's */
    free(c);
}

/* ---- contexts shared between opens ----
 * Building a context loads the whole CA store (about 12 M instructions for the system
 * bundle), yet it depends only on where the CAs come from: every setting of an open
 * (masks, name, verification) goes on its own SSL. So a context is made once per CA
 * source and reused while that source is unchanged (same names, and for files and
 * directories the same identity, size and modification time). */
struct TrustSource {
    char file[512];
    char dir[512];
    struct stat file_stat;
    struct stat dir_stat;
};

struct SharedContext {
    TrustSource source;
    SSL_CTX *ssl_ctx; /* the cache's reference; null for a free slot */
    unsigned long used;
};

constexpr size_t kSharedContexts = 4;
pthread_mutex_t g_shared_lock = PTHREAD_MUTEX_INITIALIZER;
SharedContext g_shared[kSharedContexts];
unsigned long g_shared_clock = 0;

/* false when a name does not fit (such a source is never shared). */
bool describe_source(const char *file, const char *dir, TrustSource *out)
{
    memset(out, 0, sizeof *out);
    /* Without names OpenSSL's defaults apply, which its own variables can move. */
    if (file == nullptr && dir == nullptr) {
        file = getenv("SSL_CERT_FILE");
        dir = getenv("SSL_CERT_DIR");
    }
    if (file != nullptr) {
        if (strlen(file) >= sizeof out->file) return false;
        strcpy(out->file, file);
        if (stat(file, &out->file_stat) != 0) memset(&out->file_stat, 0, sizeof out->file_stat);
    }
    if (dir != nullptr) {
        if (strlen(dir) >= sizeof out->dir) return false;
        strcpy(out->dir, dir);
        if (stat(dir, &out->dir_stat) != 0) memset(&out->dir_stat, 0, sizeof out->dir_stat);
    }
    return true;
}

bool same_stat(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

bool same_source(const TrustSource &a, const TrustSource &b)
{
    return strcmp(a.file, b.file) == 0 && strcmp(a.dir, b.dir) == 0 &&
           same_stat(a.file_stat, b.file_stat) && same_stat(a.dir_stat, b.dir_stat);
}

/* A new context trusting file and/or dir (or OpenSSL's defaults): 0 or an init code. */
uint32_t make_context(const char *file, const char *dir, SSL_CTX **out)
{
    SSL_CTX *c = SSL_CTX_new(TLS_client_method());
    if (c == nullptr) return OSL_SCR_SSL_WRP_ERR_INIT_A;
    int loaded = file != nullptr || dir != nullptr ? SSL_CTX_load_verify_locations(c, file, dir)
                                                   : SSL_CTX_set_default_verify_paths(c);
    if (loaded != 1) {
        SSL_CTX_free(c);
        return OSL_SCR_SSL_WRP_ERR_INIT_B;
    }
    if (SSL_CTX_set_min_proto_version(c, TLS1_2_VERSION) != 1) {
        SSL_CTX_free(c);
        return OSL_SCR_SSL_WRP_ERR_INIT_C;
    }
    SSL_CTX_set_verify(c, SSL_VERIFY_NONE, nullptr);
    *out = c;
    return OSL_SCR_SSL_WRP_OK;
}

/* A context for this CA source with one reference for the caller: 0 or an init code. */
uint32_t shared_context(const char *file, const char *dir, SSL_CTX **out)
{
    TrustSource source;
    if (!describe_source(file, dir, &source)) return make_context(file, dir, out);
    pthread_mutex_lock(&g_shared_lock);
    SharedContext *slot = &g_shared[0];
    for (SharedContext &e : g_shared) {
        if (e.ssl_ctx != nullptr && same_source(e.source, source)) {
            e.used = ++g_shared_clock;
            SSL_CTX_up_ref(e.ssl_ctx);
            *out = e.ssl_ctx;
            pthread_mutex_unlock(&g_shared_lock);
            return OSL_SCR_SSL_WRP_OK;
        }
        if (slot->ssl_ctx != nullptr && (e.ssl_ctx == nullptr || e.used < slot->used)) slot = &e;
    }
    /* Made under the lock, so threads opening at once load the store only once. */
    SSL_CTX *made = nullptr;
    uint32_t rc = make_context(file, dir, &made);
    if (rc == OSL_SCR_SSL_WRP_OK) {
        SSL_CTX_free(slot->ssl_ctx); /* the least recently used source; a null slot is fine */
        slot->source = source;
        slot->ssl_ctx = made;
        slot->used = ++g_shared_clock;
        SSL_CTX_up_ref(made);
        *out = made;
    }
    pthread_mutex_unlock(&g_shared_lock);
    return rc;
}

}  // namespace

extern "C" {

uint32_t osl_scr_ssl_wrp_init(void **ctx)
{
    if (ctx == nullptr) return OSL_SCR_SSL_WRP_ERR_GENERAL;
    *ctx = nullptr;
    ERR_clear_error();
    auto *t = static_cast<TlsCtx *>(calloc(1, sizeof(TlsCtx)));
    if (t == nullptr) return OSL_SCR_SSL_WRP_ERR_INIT_A;

    const char *file = getenv("TOVEISTROR_CA_FILE");
    const char *dir = getenv("TOVEISTROR_CA_DIR");
    if (file != nullptr && *file == '\0') file = nullptr;
    if (dir != nullptr && *dir == '\0') dir = nullptr;
    uint32_t rc = shared_context(file, dir, &t->ssl_ctx);
    pthread_once(&g_bio_once, make_bio_method);
    if (rc == OSL_SCR_SSL_WRP_OK && g_bio_method == nullptr) rc = OSL_SCR_SSL_WRP_ERR_INIT_C;
    if (rc != OSL_SCR_SSL_WRP_OK) {
        SSL_CTX_free(t->ssl_ctx);
        free(t);
        ERR_clear_error();
        return rc;
    }
    *ctx = t;
    return OSL_SCR_SSL_WRP_OK;
}

uint32_t osl_scr_ssl_wrp_set_verify(void *ctx)
{
    if (ctx == nullptr) return OSL_SCR_SSL_WRP_ERR_VERIFY;
    static_cast<TlsCtx *>(ctx)->verify = true;
    return OSL_SCR_SSL_WRP_OK;
}

uint32_t osl_scr_ssl_wrp_connect_timeo(void *ctx, const OSL_SCR_SSL_WRP_SETTINGS *settings,
                                       void **conn)
{
    if (conn != nullptr) *conn = nullptr;
    if (ctx == nullptr || settings == nullptr || conn == nullptr)
        return OSL_SCR_SSL_WRP_ERR_GENERAL;
    auto *tctx = static_cast<TlsCtx *>(ctx);
    auto *sctx = tctx->ssl_ctx;
    ERR_clear_error();

    auto *c = static_cast<TlsConn *>(calloc(1, sizeof(TlsConn)));
    if (c == nullptr) return OSL_SCR_SSL_WRP_ERR_GENERAL;
    c->fd = settings->sockfd;
    c->ssl = SSL_new(sctx);
    BIO *bio = c->ssl != nullptr ? BIO_new(g_bio_method) : nullptr;
    if (bio == nullptr) {
        SSL_free(c->ssl);
        free(c);
        ERR_clear_error();
        return OSL_SCR_SSL_WRP_ERR_GENERAL;
    }
    BIO_set_data(bio, c);
    BIO_set_init(bio, 1);
    SSL_set_bio(c->ssl, bio, bio);
    SSL_set_connect_state(c->ssl);
    /* Partial writes let a write report how much went out before a time-out. */
    SSL_set_mode(c->ssl, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);

    t_tls_failure[0] = '\0';
    drop_refused_certificate();
    bool verifying = settings->verify != 0 || tctx->verify;
    uint32_t rc = apply_masks(c->ssl, settings);
    if (rc == OSL_SCR_SSL_WRP_OK) rc = apply_host(c->ssl, c->fd, verifying);

    posix_port::Deadline deadline = posix_port::deadline_after(settings->timeout);
    while (rc == OSL_SCR_SSL_WRP_OK) {
        errno = 0;
        int r = SSL_connect(c->ssl);
        if (r == 1) break;
        int saved_errno = errno;
        int e = SSL_get_error(c->ssl, r);
        rc = wants_io(e) ? wait_for(c, e, deadline) : failure_code(c, e, saved_errno, verifying);
    }
    if (rc != OSL_SCR_SSL_WRP_OK) {
        conn_free(c);
        ERR_clear_error();
        return rc;
    }
    *conn = c;
    return OSL_SCR_SSL_WRP_OK;
}

uint32_t osl_scr_ssl_wrp_read_timeo(void *conn, void *buf, uint32_t len, long timeout,
                                    int32_t *count)
{
    if (count != nullptr) *count = 0;
    if (conn == nullptr || count == nullptr || (buf == nullptr && len > 0))
        return OSL_SCR_SSL_WRP_ERR_GENERAL;
    if (len == 0) return OSL_SCR_SSL_WRP_OK;
    if (len > INT32_MAX) len = INT32_MAX;
    auto *c = static_cast<TlsConn *>(conn);
    if (c->head < c->tail) {
        size_t n = std::min(static_cast<size_t>(len), c->tail - c->head);
        memcpy(buf, c->buffer + c->head, n);
        c->head += n;
        *count = static_cast<int32_t>(n);
        return OSL_SCR_SSL_WRP_OK;
    }
    /* A read as large as the buffer goes straight to the caller's memory. */
    const bool direct = len >= kReadBuffer;
    ERR_clear_error();
    posix_port::Deadline deadline = posix_port::deadline_after(timeout);
    for (;;) {
        size_t n = 0;
        errno = 0;
        int r = direct ? SSL_read_ex(c->ssl, buf, len, &n)
                       : SSL_read_ex(c->ssl, c->buffer, kReadBuffer, &n);
        if (r == 1) {
            if (!direct) {
                c->tail = n;
                n = std::min(static_cast<size_t>(len), n);
                memcpy(buf, c->buffer, n);
                c->head = n;
            }
            *count = static_cast<int32_t>(n);
            return OSL_SCR_SSL_WRP_OK;
        }
        int saved_errno = errno;
        int e = SSL_get_error(c->ssl, r);
        /* After the peer's close_notify a read finds 0 bytes, as on a plain socket. */
        if (e == SSL_ERROR_ZERO_RETURN) return OSL_SCR_SSL_WRP_OK;
        uint32_t rc =
            wants_io(e) ? wait_for(c, e, deadline) : failure_code(c, e, saved_errno, false);
        if (rc != OSL_SCR_SSL_WRP_OK) {
            ERR_clear_error();
            return rc;
        }
    }
}

uint32_t osl_scr_ssl_wrp_write_timeo(void *conn, const void *buf, uint32_t len, long timeout,
                                     int32_t *count)
{
    if (count != nullptr) *count = 0;
    if (conn == nullptr || count == nullptr || (buf == nullptr && len > 0) || len > INT32_MAX)
        return OSL_SCR_SSL_WRP_ERR_GENERAL;
    auto *c = static_cast<TlsConn *>(conn);
    const auto *p = static_cast<const unsigned char *>(buf);
    ERR_clear_error();
    posix_port::Deadline deadline = posix_port::deadline_after(timeout);
    uint32_t done = 0;
    while (done < len) {
        size_t n = 0;
        errno = 0;
        int r = SSL_write_ex(c->ssl, p + done, len - done, &n);
        if (r == 1) {
            done += static_cast<uint32_t>(n);
            *count = static_cast<int32_t>(done);
            continue;
        }
        int saved_errno = errno;
        int e = SSL_get_error(c->ssl, r);
        uint32_t rc =
            wants_io(e) ? wait_for(c, e, deadline) : failure_code(c, e, saved_errno, false);
        if (rc != OSL_SCR_SSL_WRP_OK) {
            ERR_clear_error();
            return rc;
        }
    }
    return OSL_SCR_SSL_WRP_OK;
}

uint32_t osl_scr_ssl_wrp_shutdown(void *conn)
{
    if (conn == nullptr) return OSL_SCR_SSL_WRP_ERR_GENERAL;
    auto *c = static_cast<TlsConn *>(conn);
    /* One close_notify without waiting for the peer's: the socket is closed next. */
    SSL_shutdown(c->ssl);
    conn_free(c);
    ERR_clear_error();
    return OSL_SCR_SSL_WRP_OK;
}

uint32_t osl_scr_ssl_wrp_term(void *ctx)
{
    if (ctx == nullptr) return OSL_SCR_SSL_WRP_ERR_GENERAL;
    auto *t = static_cast<TlsCtx *>(ctx);
    SSL_CTX_free(t->ssl_ctx); /* the shared context lives on in the cache */
    free(t);
    return OSL_SCR_SSL_WRP_OK;
}

}  // extern "C"

extern "C" const char *cmp_ldap_posix_tls_failure_text(void)
{
    return t_tls_failure;
}
