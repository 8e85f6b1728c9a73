/*
 * The connection: name resolution and connect with a time-out, whole-PDU send
 * and read over the plain socket or the TLS connection, and TLS start and end.
 * This is the only source that moves data to or from the server.
 */
#include "cmp_ldap_internal.h"
#if CMP_LDAP_WITH_SASL
#include "cmp_ldap_sasl_internal.h"
#endif

namespace {

/* Families and stream type as the socket interface numbers them. */
constexpr int kFamilyIpv4 = 2;
constexpr int kFamilyIpv6 = 10;
constexpr int kSockStream = 1;
constexpr int kProtoTcp = 6;

/* Every candidate address is copied into an area of this size before use. */
constexpr uint32_t kAddrBufSize = 128;
static_assert(sizeof(struct sockaddr_storage) >= kAddrBufSize, "address area too small");

/* Tag, first length octet and at most four further length octets. */
constexpr uint32_t kHeaderMax = 6;
constexpr uint32_t kMaxLengthOctets = 4;

enum CandidatePass { kPassIpv4, kPassIpv6Global, kPassIpv6LinkLocal, kPassCount, kPassNone };

bool cmp_ldap_is_link_local(const struct sockaddr_in6 *sin6)
{
    /* fe80::/10 */
    const unsigned char *a = sin6->sin6_addr.s6_addr;
    return a[0] == 0xFE && (a[1] & 0xC0) == 0x80;
}

/* Which pass of the candidate list takes this resolver result. Entries whose
 * address record is missing or does not fit their family are never tried. */
CandidatePass cmp_ldap_candidate_pass(const struct addrinfo *ai)
{
    if (ai->ai_addr == nullptr || ai->ai_addrlen > kAddrBufSize) return kPassNone;
    if (ai->ai_family == kFamilyIpv4) {
        return ai->ai_addrlen >= sizeof(struct sockaddr_in) ? kPassIpv4 : kPassNone;
    }
    if (ai->ai_family == kFamilyIpv6 && ai->ai_addrlen >= sizeof(struct sockaddr_in6)) {
        const auto *sin6 = reinterpret_cast<const struct sockaddr_in6 *>(ai->ai_addr);
        return cmp_ldap_is_link_local(sin6) ? kPassIpv6LinkLocal : kPassIpv6Global;
    }
    return kPassNone;
}

void cmp_ldap_free_addr_list(CMP_LDAP_ADDR_NODE *node)
{
    while (node != nullptr) {
        CMP_LDAP_ADDR_NODE *next = node->next;
        cmp_ldap_free(node);
        node = next;
    }
}

/* The port as it goes into a socket address, high octet first. */
uint16_t cmp_ldap_port_to_net(int32_t portno)
{
    const unsigned char octets[2] = {(unsigned char)((portno >> 8) & 0xFF),
                                     (unsigned char)(portno & 0xFF)};
    uint16_t net;
    memcpy(&net, octets, sizeof net);
    return net;
}

/* TLS wrapper codes and what they mean at init and at the handshake. */
struct CMP_LDAP_TLS_CODE {
    uint32_t wrapper;
    int32_t init;
    int32_t handshake;
};

constexpr CMP_LDAP_TLS_CODE kTlsCodes[] = {
    {OSL_SCR_SSL_WRP_ERR_HANDSHAKE_A, CMP_LDAP_TLS_ERROR, CMP_LDAP_TLS_HANDSHAKE_ERROR_A},
    {OSL_SCR_SSL_WRP_ERR_HANDSHAKE_B, CMP_LDAP_TLS_ERROR, CMP_LDAP_TLS_HANDSHAKE_ERROR_B},
    {OSL_SCR_SSL_WRP_ERR_HANDSHAKE_C, CMP_LDAP_TLS_ERROR, CMP_LDAP_TLS_HANDSHAKE_ERROR_C},
    {OSL_SCR_SSL_WRP_ERR_IO, CMP_LDAP_TLS_ERROR, CMP_LDAP_TLS_IO_ERROR},
    {OSL_SCR_SSL_WRP_ERR_TIMEOUT, CMP_LDAP_TLS_ERROR, CMP_LDAP_TIMEOUT},
    {OSL_SCR_SSL_WRP_ERR_INIT_B, CMP_LDAP_TLS_INIT_ERROR_B, CMP_LDAP_TLS_ERROR},
    {OSL_SCR_SSL_WRP_ERR_INIT_A, CMP_LDAP_TLS_INIT_ERROR_A, CMP_LDAP_TLS_ERROR},
    {OSL_SCR_SSL_WRP_ERR_INIT_C, CMP_LDAP_TLS_INIT_ERROR_C, CMP_LDAP_TLS_ERROR},
    {OSL_SCR_SSL_WRP_ERR_CLOSED, CMP_LDAP_TLS_ERROR, CMP_LDAP_TLS_IO_ERROR},
    {OSL_SCR_SSL_WRP_ERR_HANDSHAKE_D, CMP_LDAP_TLS_ERROR, CMP_LDAP_TLS_HANDSHAKE_ERROR_D},
};

enum TlsStage { kTlsInit, kTlsHandshake };

int32_t cmp_ldap_tls_code(uint32_t wrapper, TlsStage stage)
{
    for (const CMP_LDAP_TLS_CODE &row : kTlsCodes) {
        if (row.wrapper == wrapper) return stage == kTlsInit ? row.init : row.handshake;
    }
    return CMP_LDAP_TLS_ERROR;
}

/* Log lines print wrapper codes with %lx and carry them as the line's result code. */
inline unsigned long cmp_ldap_ret(uint32_t ret)
{
    return (unsigned long)ret;
}

}  // namespace

/* ------------------------------------------------------------------------
 * Socket connection
 * ---------------------------------------------------------------------- */

int cmp_ldap_add_addrinfo(struct addrinfo *entry, CMP_LDAP_ADDR_NODE **head,
                          CMP_LDAP_ADDR_NODE **tail)
{
    auto *node = static_cast<CMP_LDAP_ADDR_NODE *>(
        cmp_ldap_malloc("cmp_ldap_add_addrinfo", sizeof(CMP_LDAP_ADDR_NODE)));
    if (node == nullptr) {
        cmp_ldap_free_addr_list(*head);
        *head = nullptr;
        *tail = nullptr;
        return CMP_LDAP_NO_MEMORY;
    }
    node->entry = entry;
    node->next = nullptr;
    if (*tail == nullptr) {
        *head = node;
    } else {
        (*tail)->next = node;
    }
    *tail = node;
    return 0;
}

int cmp_ldap_connect(CMP_LDAP *ld, const char *hostname, int32_t portno, long timeout, uint8_t ipv6,
                     uint8_t tls_mod)
{
    static const char kName[] = "cmp_ldap_connect";
    CMP_LDAP_ASSERT(ld != nullptr, "ld != ((void *)0)", CMP_LDAP_SRC_SOCKET);
    CMP_LDAP_ASSERT(hostname != nullptr, "hostname != ((void *)0)", CMP_LDAP_SRC_SOCKET);
    /* Neither the IPv6 switch nor the TLS mode changes which addresses are tried. */
    (void)ipv6;
    (void)tls_mod;

    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = 0;
    hints.ai_socktype = kSockStream;
    hints.ai_protocol = kProtoTcp;
    struct addrinfo *results = nullptr;
    int rc = cmp_netsock_getaddrinfo(hostname, nullptr, &hints, &results);
    if (rc != 0) {
        CMP_LDAP_LOG(rc, "%s(): Failed to cmp_netsock_getaddrinfo() (rc=%d).\n", kName, rc);
        return CMP_LDAP_ADDRESS_ERROR;
    }

    /* IPv4 first, then global IPv6, then link-local IPv6, each in the resolver's order. */
    CMP_LDAP_ADDR_NODE *head = nullptr;
    CMP_LDAP_ADDR_NODE *tail = nullptr;
    for (int pass = kPassIpv4; pass < kPassCount; ++pass) {
        for (struct addrinfo *ai = results; ai != nullptr; ai = ai->ai_next) {
            if (cmp_ldap_candidate_pass(ai) != pass) continue;
            if (cmp_ldap_add_addrinfo(ai, &head, &tail) != 0) {
                cmp_netsock_freeaddrinfo(results);
                return CMP_LDAP_NO_MEMORY;
            }
        }
    }
    if (head == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): ipaddr illegal.\n", kName);
        cmp_netsock_freeaddrinfo(results);
        return CMP_LDAP_ADDRESS_ERROR;
    }

    const uint16_t port = cmp_ldap_port_to_net(portno);
    struct sockaddr_storage addr;
    int result = CMP_LDAP_CONNECT_ERROR;
    for (CMP_LDAP_ADDR_NODE *node = head; node != nullptr; node = node->next) {
        const struct addrinfo *ai = node->entry;
        const uint32_t addrlen = (uint32_t)ai->ai_addrlen;
        memset(&addr, 0, kAddrBufSize);
        memcpy(&addr, ai->ai_addr, addrlen);
        if (ai->ai_family == kFamilyIpv4) {
            reinterpret_cast<struct sockaddr_in *>(&addr)->sin_port = port;
        } else {
            auto *sin6 = reinterpret_cast<struct sockaddr_in6 *>(&addr);
            sin6->sin6_port = port;
            if (cmp_ldap_is_link_local(sin6)) {
                rc = cmp_netsock_set_scope(reinterpret_cast<struct sockaddr *>(&addr), addrlen);
                if (rc != 0) {
                    /* Unlike a refused connect, this ends the whole connect. */
                    CMP_LDAP_LOG(rc, "%s(): cmp_netsock_set_scope error (rc=%d).\n", kName, rc);
                    result = CMP_LDAP_OTHER;
                    break;
                }
            }
        }
        ld->ld_sockfd = cmp_netsock_socket(ai->ai_family, kSockStream, 0);
        if (ld->ld_sockfd < 0) {
            CMP_LDAP_LOG(ld->ld_sockfd,
                         "%s(): Failed to create socket endpoint (rc=%d,ai_family=%d).\n", kName,
                         ld->ld_sockfd, ai->ai_family);
            result = CMP_LDAP_SOCKET_ERROR;
            break;
        }
        rc = cmp_netsock_connect_timeo(&ld->ld_sockfd, reinterpret_cast<struct sockaddr *>(&addr),
                                       addrlen, timeout);
        if (rc == 0) {
            result = 0;
            break;
        }
        CMP_LDAP_LOG(rc, "%s(): Connection failed (rc=%d,len=%d)\n", kName, rc, (int)addrlen);
        /* The last attempt's outcome is the result. */
        result = rc == CMP_NETSOCK_TIMEOUT ? CMP_LDAP_TIMEOUT : CMP_LDAP_CONNECT_ERROR;
    }

    cmp_ldap_free_addr_list(head);
    cmp_netsock_freeaddrinfo(results);
    /* The port has closed a failed socket; keep no stale descriptor in the handle. */
    if (result != 0) ld->ld_sockfd = CMP_LDAP_NO_SOCKET;
    return result;
}

int cmp_ldap_close_socket(int32_t sockfd)
{
    return cmp_netsock_close(sockfd);
}

/* ------------------------------------------------------------------------
 * PDU transfer
 * ---------------------------------------------------------------------- */

bool cmp_ldap_connection_dropped(CMP_LDAP *ld, const char *name)
{
    if (ld->ld_sockfd != CMP_LDAP_DROPPED_SOCKET) return false;
    CMP_LDAP_LOG(CMP_LDAP_SERVER_DOWN, "%s(): connection was dropped after a cut response.\n",
                 name);
    ld->ld_errno = CMP_LDAP_SERVER_DOWN;
    return true;
}

void cmp_ldap_drop_connection(CMP_LDAP *ld)
{
    /* The security layer's reader may have dropped it already, deeper down. */
    if (ld->ld_sockfd == CMP_LDAP_DROPPED_SOCKET) return;
    /* Only a read that got past the first octet gets here, so the socket is still open. */
    (void)cmp_ldap_tls_end(ld);
    (void)cmp_ldap_close_socket(ld->ld_sockfd);
    ld->ld_sockfd = CMP_LDAP_DROPPED_SOCKET;
}

/* Sends octets whole over TLS or the plain socket: the count, or -1. */
static int cmp_ldap_send_raw(CMP_LDAP *ld, const unsigned char *data, uint32_t len)
{
    static const char kName[] = "cmp_ldap_send_data";
    int32_t count = 0;
    if (ld->ld_ssl_conn != nullptr) {
        uint32_t ret =
            osl_scr_ssl_wrp_write_timeo(ld->ld_ssl_conn, data, len, ld->ld_sock_timeout, &count);
        if (ret != OSL_SCR_SSL_WRP_OK) {
            CMP_LDAP_LOG((int32_t)ret, "%s(): osl_scr_ssl_wrp_write_timeo() error.ret=[%lx]\n",
                         kName, cmp_ldap_ret(ret));
            ld->ld_errno =
                ret == OSL_SCR_SSL_WRP_ERR_TIMEOUT ? CMP_LDAP_TIMEOUT : CMP_LDAP_TLS_IO_ERROR;
            return -1;
        }
        /* A negative count from the wrapper goes back as it stands, deliberately. */
        if (count < 0) return count;
    } else {
        count = cmp_netsock_send_timeo(ld->ld_sockfd, data, len, 0, ld->ld_sock_timeout);
        if (count < 0) {
            CMP_LDAP_LOG(count, "%s(): cmp_netsock_send_timeo() error.sizeWritten=[%d]\n", kName,
                         count);
            ld->ld_errno = count == CMP_NETSOCK_TIMEOUT ? CMP_LDAP_TIMEOUT : CMP_LDAP_SERVER_DOWN;
            return -1;
        }
    }
    /* A PDU goes out whole or not at all: a short write is not resumed. */
    if ((uint32_t)count != len) {
        ld->ld_errno = CMP_LDAP_SERVER_DOWN;
        return -1;
    }
    return count;
}

/* One receive from TLS or the plain socket, as cmp_ldap_recv_data describes it. */
static int cmp_ldap_recv_raw(CMP_LDAP *ld, unsigned char *buf, uint32_t len, long timeout)
{
    static const char kName[] = "cmp_ldap_recv_data";
    if (ld->ld_ssl_conn != nullptr) {
        int32_t count = 0;
        uint32_t ret = osl_scr_ssl_wrp_read_timeo(ld->ld_ssl_conn, buf, len, timeout, &count);
        if (ret != OSL_SCR_SSL_WRP_OK) {
            CMP_LDAP_LOG((int32_t)ret, "%s(): osl_scr_ssl_wrp_read_timeo() error.ret=[%lx]\n",
                         kName, cmp_ldap_ret(ret));
            ld->ld_errno =
                ret == OSL_SCR_SSL_WRP_ERR_TIMEOUT ? CMP_LDAP_TIMEOUT : CMP_LDAP_TLS_IO_ERROR;
            return -1;
        }
        return count;
    }
    int32_t count = cmp_netsock_recv_timeo(ld->ld_sockfd, buf, len, 0, timeout);
    if (count < 0) {
        CMP_LDAP_LOG(count, "%s(): cmp_netsock_recv_timeo() error.sizeRead=[%d]\n", kName, count);
        /* A socket error reads as a protocol error here, unlike on the send side; deliberate. */
        ld->ld_errno = count == CMP_NETSOCK_TIMEOUT ? CMP_LDAP_TIMEOUT : CMP_LDAP_PROTOCOL_ERROR;
        return -1;
    }
    return count;
}

#if CMP_LDAP_WITH_SASL
/* With a SASL security layer every request leaves as wrapped buffers, each carrying
 * at most the plain octets the peer takes in one (SASL_MAXOUTBUF). */
static int cmp_ldap_send_wrapped(CMP_LDAP *ld, const CMP_LDAP_SASL_LAYER *layer,
                                 const CMP_LDAP_SEND_BUF *buf)
{
    uint32_t done = 0;
    do {
        uint32_t piece = buf->len - done < layer->maxout ? buf->len - done : layer->maxout;
        const unsigned char *out = nullptr;
        uint32_t outlen = 0;
        int rc = cmp_ldap_sasl_layer_encode(ld, buf->data + done, piece, &out, &outlen);
        if (rc != 0) {
            ld->ld_errno = rc;
            return -1;
        }
        if (cmp_ldap_send_raw(ld, out, outlen) < 0) return -1;
        done += piece;
    } while (done < buf->len);
    return (int)buf->len;
}

/* The receive failed inside a wrapped buffer: its end is lost and with it every
 * later one, so the connection goes down as after a cut response. */
static int cmp_ldap_wrapped_cut(CMP_LDAP *ld)
{
    cmp_ldap_drop_connection(ld);
    return -1;
}

/* Reads one wrapped buffer and unwraps it: 1, 0 when the peer closed before its
 * first octet (as between two PDUs on a plain socket), or -1. The length is checked
 * before anything is read into the buffer, which has room for the longest we take. */
static int cmp_ldap_read_wrapped(CMP_LDAP *ld, CMP_LDAP_SASL_LAYER *layer, long timeout)
{
    static const char kName[] = "cmp_ldap_read_wrapped";
    unsigned char *w = layer->wrapped;
    uint32_t got = 0;
    while (got < CMP_LDAP_SASL_LAYER_PREFIX) {
        int n = cmp_ldap_recv_raw(ld, w + got, CMP_LDAP_SASL_LAYER_PREFIX - got, timeout);
        if (n <= 0 && got == 0) return n;
        if (n == 0) {
            CMP_LDAP_LOG(CMP_LDAP_PROTOCOL_ERROR,
                         "%s(): read illegal data. fieldLen=%u,restLen=%u.\n", kName,
                         CMP_LDAP_SASL_LAYER_PREFIX, CMP_LDAP_SASL_LAYER_PREFIX - got);
            ld->ld_errno = CMP_LDAP_PROTOCOL_ERROR;
        }
        if (n <= 0) return cmp_ldap_wrapped_cut(ld);
        got += (uint32_t)n;
    }
    const uint32_t len = (uint32_t)w[0] << 24 | (uint32_t)w[1] << 16 | (uint32_t)w[2] << 8 | w[3];
    if (len == 0 || len > CMP_LDAP_SASL_LAYER_MAXBUF) {
        CMP_LDAP_LOG(CMP_LDAP_PROTOCOL_ERROR, "%s(): Illegal wrapped length.len=%lu,max=%u.\n",
                     kName, (unsigned long)len, CMP_LDAP_SASL_LAYER_MAXBUF);
        ld->ld_errno = CMP_LDAP_PROTOCOL_ERROR;
        return cmp_ldap_wrapped_cut(ld);
    }
    got = 0;
    while (got < len) {
        int n = cmp_ldap_recv_raw(ld, w + CMP_LDAP_SASL_LAYER_PREFIX + got, len - got, timeout);
        if (n == 0) {
            CMP_LDAP_LOG(CMP_LDAP_PROTOCOL_ERROR,
                         "%s(): read illegal data. length=%ld,restLen=%u.\n", kName, (long)len,
                         len - got);
            ld->ld_errno = CMP_LDAP_PROTOCOL_ERROR;
        }
        if (n <= 0) return cmp_ldap_wrapped_cut(ld);
        got += (uint32_t)n;
    }
    int rc = cmp_ldap_sasl_layer_decode(ld, w, CMP_LDAP_SASL_LAYER_PREFIX + len);
    if (rc != 0) {
        ld->ld_errno = rc;
        return cmp_ldap_wrapped_cut(ld);
    }
    return 1;
}

/* Serves unwrapped octets to the PDU reader, which reads them as from a socket. */
static int cmp_ldap_recv_unwrapped(CMP_LDAP *ld, CMP_LDAP_SASL_LAYER *layer, unsigned char *buf,
                                   uint32_t len, long timeout)
{
    /* A buffer that unwraps to nothing (allowed) is followed by the next one. */
    while (layer->plain_len == 0) {
        int rc = cmp_ldap_read_wrapped(ld, layer, timeout);
        if (rc <= 0) return rc;
    }
    uint32_t n = len < layer->plain_len ? len : layer->plain_len;
    memcpy(buf, layer->plain, n);
    layer->plain += n;
    layer->plain_len -= n;
    return (int)n;
}
#endif

int cmp_ldap_send_berdata(CMP_LDAP *ld, const CMP_LDAP_SEND_BUF *buf)
{
    static const char kName[] = "cmp_ldap_send_data";
    if (cmp_ldap_connection_dropped(ld, kName)) return -1;
#if CMP_LDAP_WITH_SASL
    if (const CMP_LDAP_SASL_LAYER *layer = cmp_ldap_sasl_layer_on(ld))
        return cmp_ldap_send_wrapped(ld, layer, buf);
#endif
    return cmp_ldap_send_raw(ld, buf->data, buf->len);
}

int cmp_ldap_recv_data(CMP_LDAP *ld, unsigned char *buf, uint32_t len, long timeout)
{
    static const char kName[] = "cmp_ldap_recv_data";
    if (cmp_ldap_connection_dropped(ld, kName)) return -1;
#if CMP_LDAP_WITH_SASL
    if (CMP_LDAP_SASL_LAYER *layer = cmp_ldap_sasl_layer_on(ld))
        return cmp_ldap_recv_unwrapped(ld, layer, buf, len, timeout);
#endif
    return cmp_ldap_recv_raw(ld, buf, len, timeout);
}

/* Reads the length octets that follow the tag in header[0] into header[1..]:
 * 0 with the header and content lengths, or -1. */
static int cmp_ldap_determine_record_size(CMP_LDAP *ld, long timeout, unsigned char *header,
                                          uint32_t *header_len, uint32_t *content_len)
{
    static const char kName[] = "cmp_ldap_determine_record_size";
    /* A peer that closes here leaves ld_errno as it was; deliberate. */
    if (cmp_ldap_recv_data(ld, header + 1, 1, timeout) != 1) return -1;
    const uint32_t first = header[1];
    if (first < 0x80) {
        *header_len = 2;
        *content_len = first;
        return 0;
    }
    const uint32_t field_len = first & 0x7F;
    if (field_len > kMaxLengthOctets) {
        CMP_LDAP_LOG(-1, "%s(): Length-field is over 32bit.fieldLen=0x%02x.\n", kName, field_len);
        return -1;
    }
    /* The indefinite form (0x80) deliberately reads as an empty content. */
    uint32_t got = 0;
    while (got < field_len) {
        int n = cmp_ldap_recv_data(ld, header + 2 + got, field_len - got, timeout);
        if (n == 0) {
            CMP_LDAP_LOG(-1, "%s(): read illegal data. fieldLen=%u,restLen=%u.\n", kName, field_len,
                         field_len - got);
            ld->ld_errno = CMP_LDAP_PROTOCOL_ERROR;
            return -1;
        }
        if (n < 0) return -1;
        got += (uint32_t)n;
    }
    uint32_t length = 0;
    for (uint32_t i = 0; i < field_len; ++i)
        length = (length << 8) | header[2 + i];
    /* All ones is the failure value of a length; refused without a code. */
    if (length == 0xFFFFFFFFu) return -1;
    *header_len = 2 + field_len;
    *content_len = length;
    return 0;
}

/* Everything of a PDU after its tag octet: the length and the content. */
static int cmp_ldap_read_pdu_rest(CMP_LDAP *ld, long timeout, unsigned char *header,
                                  CMP_LDAP_MESSAGE **msg)
{
    static const char kName[] = "cmp_ldap_read_berdata";
    int n = 0;
    uint32_t header_len = 0;
    uint32_t content_len = 0;
    if (cmp_ldap_determine_record_size(ld, timeout, header, &header_len, &content_len) != 0) {
        return -1;
    }

    /* The server chooses the length: size the block in 64 bits, and refuse what a
     * 32-bit allocation or an int32 position cannot hold as if memory ran out. */
    const uint64_t total = (uint64_t)header_len + content_len;
    const uint64_t size = total + CMP_LDAP_MESSAGE_OVERHEAD;
    if (total > (uint64_t)INT32_MAX || size > (uint64_t)UINT32_MAX) {
        CMP_LDAP_LOG(-1, "%s(): Failed to allocate(%llu btyes).\n", kName,
                     (unsigned long long)size);
        ld->ld_errno = CMP_LDAP_NO_MEMORY;
        return -1;
    }
    auto *mes = static_cast<CMP_LDAP_MESSAGE *>(cmp_ldap_malloc(kName, (uint32_t)size));
    if (mes == nullptr) {
        ld->ld_errno = CMP_LDAP_NO_MEMORY;
        return -1;
    }
    mes->cmp_ldap_total_size = (int32_t)total;
    unsigned char *pdu = cmp_ldap_pdu_mut(mes);
    memcpy(pdu, header, header_len);

    uint32_t got = 0;
    while (got < content_len) {
        n = cmp_ldap_recv_data(ld, pdu + header_len + got, content_len - got, timeout);
        if (n == 0) {
            CMP_LDAP_LOG(-1, "%s(): read illegal data. length=%ld,restLen=%u.\n", kName,
                         (long)content_len, content_len - got);
            cmp_ldap_free(mes);
            ld->ld_errno = CMP_LDAP_PROTOCOL_ERROR;
            return -1;
        }
        if (n < 0) {
            cmp_ldap_free(mes);
            return -1;
        }
        got += (uint32_t)n;
    }
    *msg = mes;
    return 0;
}

int cmp_ldap_read_berdata(CMP_LDAP *ld, long timeout, CMP_LDAP_MESSAGE **msg)
{
    *msg = nullptr;

    unsigned char header[kHeaderMax];
    int n = cmp_ldap_recv_data(ld, header, 1, timeout);
    if (n == 0) {
        ld->ld_errno = CMP_LDAP_PROTOCOL_ERROR;
        return -1;
    }
    /* Nothing of a PDU consumed yet: the stream is intact and a later read may go on. */
    if (n < 0) return -1;
    if (cmp_ldap_read_pdu_rest(ld, timeout, header, msg) == 0) return 0;
    /* The rest of this PDU is still on its way and its end unknown: reading on would
     * take the middle of a value for a new message (a forged result, say). The
     * failure itself is already logged where it was found; the drop is logged when
     * a later operation meets it. */
    cmp_ldap_drop_connection(ld);
    return -1;
}

/* ------------------------------------------------------------------------
 * TLS layer
 * ---------------------------------------------------------------------- */

int cmp_ldap_tls_start(CMP_LDAP *ld, const CMP_LDAP_CONN_PARAM *param)
{
    static const char kName[] = "cmp_ldap_tls_start";
    void *ctx = nullptr;
    uint32_t ret = osl_scr_ssl_wrp_init(&ctx);
    if (ret != OSL_SCR_SSL_WRP_OK) {
        CMP_LDAP_LOG((int32_t)ret, "%s(): osl_scr_ssl_wrp_init() error.ret=[%lx]\n", kName,
                     cmp_ldap_ret(ret));
        ld->ld_errno = cmp_ldap_tls_code(ret, kTlsInit);
        return -1;
    }

    OSL_SCR_SSL_WRP_SETTINGS settings;
    memset(&settings, 0, sizeof settings);
    if (param->ssl_auth == 2) {
        ret = osl_scr_ssl_wrp_set_verify(ctx);
        if (ret != OSL_SCR_SSL_WRP_OK) {
            /* "setverify" is how this line has always been spelled. */
            CMP_LDAP_LOG((int32_t)ret, "%s(): osl_scr_ssl_wrp_setverify() error.ret=[%lx]\n", kName,
                         cmp_ldap_ret(ret));
            ld->ld_errno =
                ret == OSL_SCR_SSL_WRP_ERR_VERIFY ? CMP_LDAP_TLS_VERIFY_ERROR : CMP_LDAP_TLS_ERROR;
            (void)osl_scr_ssl_wrp_term(ctx);
            return -1;
        }
    } else if (param->ssl_auth == 1) {
        settings.verify = 1;
    }
    settings.sockfd = ld->ld_sockfd;
    settings.timeout = (int32_t)ld->ld_sock_timeout;
    settings.ssl_version = param->ssl_version;
    settings.ssl_hash = param->ssl_hash;
    settings.ssl_encrpt = param->ssl_encrpt;
    settings.ssl_accepted_signature_algorithm = param->ssl_accepted_signature_algorithm;

    void *conn = nullptr;
    ret = osl_scr_ssl_wrp_connect_timeo(ctx, &settings, &conn);
    if (ret != OSL_SCR_SSL_WRP_OK) {
        CMP_LDAP_LOG((int32_t)ret, "%s(): osl_scr_ssl_wrp_connect_timeo() error.ret=[%lx]\n", kName,
                     cmp_ldap_ret(ret));
        ld->ld_errno = cmp_ldap_tls_code(ret, kTlsHandshake);
        (void)osl_scr_ssl_wrp_term(ctx);
        return -1;
    }
    ld->ld_ssl_ctx = ctx;
    ld->ld_ssl_conn = conn;
    return 0;
}

int cmp_ldap_tls_end(CMP_LDAP *ld)
{
    static const char kName[] = "cmp_ldap_tls_end";
    /* Failures on the way down are logged only: the session is ending either way. */
    if (ld->ld_ssl_conn != nullptr) {
        uint32_t ret = osl_scr_ssl_wrp_shutdown(ld->ld_ssl_conn);
        if (ret != OSL_SCR_SSL_WRP_OK) {
            CMP_LDAP_LOG((int32_t)ret, "%s():osl_scr_ssl_wrp_shutdown() error.ret=[%lx].\n", kName,
                         cmp_ldap_ret(ret));
        }
        ld->ld_ssl_conn = nullptr;
    }
    if (ld->ld_ssl_ctx != nullptr) {
        uint32_t ret = osl_scr_ssl_wrp_term(ld->ld_ssl_ctx);
        if (ret != OSL_SCR_SSL_WRP_OK) {
            CMP_LDAP_LOG((int32_t)ret, "%s():osl_scr_ssl_wrp_term() error.ret=[%lx].\n", kName,
                         cmp_ldap_ret(ret));
        }
        ld->ld_ssl_ctx = nullptr;
    }
    /* The socket stays open; closing it is the caller's. */
    return 0;
}

#if !CMP_LDAP_WITH_SASL
/* Without SASL no bind can negotiate a layer: only the default is taken. */
int cmp_ldap_set_sasl_ssf(CMP_LDAP *ld, uint32_t min_ssf, uint32_t max_ssf)
{
    static const char kName[] = "cmp_ldap_set_sasl_ssf";
    int32_t code = ld == nullptr || min_ssf > max_ssf ? CMP_LDAP_PARAM_ERROR
                   : max_ssf != 0                     ? CMP_LDAP_AUTH_UNKNOWN
                                                      : 0;
    if (code == 0) return 0;
    CMP_LDAP_LOG(code, "%s(): parameter error (ld=%p,min_ssf=%u,max_ssf=%u).\n", kName, (void *)ld,
                 (unsigned)min_ssf, (unsigned)max_ssf);
    if (ld != nullptr) ld->ld_errno = code;
    return code;
}
#endif
