/*
 * Session operations: open (with StartTLS), result retrieval, simple bind,
 * unbind, abandon and search.
 *
 * Every request follows the same road: parameter checks, a new message id,
 * exact length, one allocation, encode, one send, free, return the id. A
 * request refused by its checks consumes no id; any later failure does.
 */
#include "cmp_ldap_internal.h"
#if CMP_LDAP_WITH_SASL
#include "cmp_ldap_sasl_internal.h"
#endif

namespace {

/* Highest message id that fits one content octet in the hand-built PDUs. */
constexpr int32_t kOneOctetId = 255;

/* Writes tag, length and an id of one octet (its low octet) or two (high, low)
 * at pos of a hand-built PDU; returns the position after it. */
uint32_t cmp_ldap_put_id(unsigned char *pdu, uint32_t pos, unsigned char tag, int32_t id, bool wide)
{
    pdu[pos++] = tag;
    pdu[pos++] = wide ? 2 : 1;
    if (wide) pdu[pos++] = (unsigned char)(((uint32_t)id >> 8) & 0xFFu);
    pdu[pos++] = (unsigned char)((uint32_t)id & 0xFFu);
    return pos;
}

/* Sends one finished request buffer whole; the transfer sets ld_errno on failure. */
int cmp_ldap_send_request(CMP_LDAP *ld, const unsigned char *data, uint32_t len)
{
    CMP_LDAP_SEND_BUF sb;
    sb.data = data;
    sb.len = len;
    return cmp_ldap_send_berdata(ld, &sb) < 0 ? -1 : 0;
}

}  // namespace

/* ======================================================================
 * Opening a session
 * ==================================================================== */

void cmp_ldap_close_connection(CMP_LDAP *ld)
{
    if (ld->ld_ssl_conn != nullptr) (void)cmp_ldap_tls_end(ld);
    if (ld->ld_sockfd != CMP_LDAP_NO_SOCKET && ld->ld_sockfd != CMP_LDAP_DROPPED_SOCKET) {
        (void)cmp_ldap_close_socket(ld->ld_sockfd);
        ld->ld_sockfd = CMP_LDAP_NO_SOCKET;
    }
    cmp_ldap_free_text(&ld->ld_error);
    cmp_ldap_free_text(&ld->ld_matched);
    /* ld_referral is not ours to free: whoever stored it keeps ownership. */
}

int cmp_ldap_chg_starttls(CMP_LDAP *ld, const CMP_LDAP_CONN_PARAM *param)
{
    static const char kName[] = "cmp_ldap_chg_starttls";
    int32_t msgid = cmp_ldap_get_new_message_id(ld);

    uint32_t len = cmp_ldap_get_extend_request_message_length(ld);
    auto *buf = static_cast<unsigned char *>(cmp_ldap_malloc(kName, len));
    if (buf == nullptr) {
        ld->ld_errno = CMP_LDAP_NO_MEMORY;
        return -1;
    }
    cmp_ldap_ber_encode_extend_request(ld, buf);
    int sent = cmp_ldap_send_request(ld, buf, len);
    cmp_ldap_free(buf);
    if (sent != 0) return -1;

    CMP_LDAP_TIMEVAL tv;
    tv.tv_sec = param->timeout;
    tv.tv_usec = 0;
    CMP_LDAP_MESSAGE *msg = nullptr;
    int type = cmp_ldap_result(ld, msgid, 0, param->timeout == -1 ? nullptr : &tv, &msg);
    if (type != CMP_LDAP_RES_EXTENDED) {
        /* Another accepted type (a BindResponse, say) fails the exchange with
         * whatever ld_errno holds, deliberately; the message itself is released
         * here so that a misbehaving server cannot make the open leak. */
        cmp_ldap_free(msg);
        return -1;
    }
    if (cmp_ldap_result2error(ld, msg, 1) != CMP_LDAP_SUCCESS) {
        /* Any refusal, whatever code the server gave, reads as "other". */
        ld->ld_errno = CMP_LDAP_OTHER;
        return -1;
    }
    return 0;
}

int cmp_ldap_open_with_timeout(const CMP_LDAP_CONN_PARAM *param, CMP_LDAP **ldp)
{
    return cmp_ldap_open_with_timeout_main(param, ldp, 1);
}

int cmp_ldap_open_with_timeout_main(const CMP_LDAP_CONN_PARAM *param, CMP_LDAP **ldp,
                                    uint32_t check_protocol)
{
    static const char kName[] = "cmp_ldap_open_with_timeout_main";
    CMP_LDAP_ASSERT(param != nullptr, "param != ((void *)0)", CMP_LDAP_SRC_API);
    CMP_LDAP_ASSERT(param->cmp_ldap_hostname != nullptr, "param->cmp_ldap_hostname != ((void *)0)",
                    CMP_LDAP_SRC_API);
    CMP_LDAP_ASSERT(ldp != nullptr, "ldp != ((void *)0)", CMP_LDAP_SRC_API);

    if (param->ipv6 > 1 || param->tls_mod > CMP_LDAP_TLS_MOD_LDAPS) {
        CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR, "%s(): parameter error (illegal value: ipv6,tls_mod).\n",
                     kName);
        (void)cmp_ldap_gentrace_param(kName, param);
        return CMP_LDAP_PARAM_ERROR;
    }

    if (check_protocol == 1 && cmp_ldap_check_protocol_setting() != 0) {
        CMP_LDAP_LOG(CMP_LDAP_PROTOCOL_SETTING_ERROR, "%s(): protocol setting error.\n", kName);
        (void)cmp_ldap_gentrace_param(kName, param);
        return CMP_LDAP_PROTOCOL_SETTING_ERROR;
    }

    CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
    if (ld == nullptr) {
        (void)cmp_ldap_gentrace_param(kName, param);
        return CMP_LDAP_NO_MEMORY;
    }

    /* Plain 32-bit multiplication: time-outs above 4294967 s wrap, deliberately. */
    ld->ld_sock_timeout =
        param->timeout == -1 ? -1L : (long)(int32_t)((uint32_t)param->timeout * 1000u);

    CMP_LDAP_TRACE(
        "%s(): param: hostname=%.64s,portno=%d,timeout=%d,ipv6=%u,tls_mod=%u,ssl_auth=%u,"
        "ssl_version=0x%02x,ssl_hash=0x%02x,ssl_encrpt=0x%02x.\n",
        kName, param->cmp_ldap_hostname, param->portno, param->timeout, (unsigned)param->ipv6,
        (unsigned)param->tls_mod, (unsigned)param->ssl_auth, (unsigned)param->ssl_version,
        (unsigned)param->ssl_hash, (unsigned)param->ssl_encrpt);

    int rc = cmp_ldap_connect(ld, param->cmp_ldap_hostname, param->portno, ld->ld_sock_timeout,
                              param->ipv6, param->tls_mod);
    if (rc != 0) {
        /* The connect leaves no socket open when it fails. */
        (void)cmp_ldap_gentrace_param(kName, param);
        (void)cmp_ldap_gentrace_ld(kName, ld);
        cmp_ldap_free(ld);
        return rc;
    }

    int failed = 0;
    if (param->tls_mod == CMP_LDAP_TLS_MOD_STARTTLS) {
        failed = cmp_ldap_chg_starttls(ld, param) != 0 || cmp_ldap_tls_start(ld, param) != 0;
    } else if (param->tls_mod == CMP_LDAP_TLS_MOD_LDAPS) {
        failed = cmp_ldap_tls_start(ld, param) != 0;
    }
    if (failed) {
        /* The result is ld_errno as it stands, even 0 when the StartTLS id was
         * answered by another accepted response type; *ldp stays untouched, so
         * callers also look at *ldp. This is deliberate. */
        rc = ld->ld_errno;
        (void)cmp_ldap_gentrace_param(kName, param);
        (void)cmp_ldap_gentrace_ld(kName, ld);
        cmp_ldap_close_connection(ld);
        /* This handle never reaches a caller, so a referral a refused StartTLS left
         * in it (its size the server's choice) is released here. */
        cmp_ldap_free_text(&ld->ld_referral);
        cmp_ldap_free(ld);
        return rc;
    }

    *ldp = ld;
    return 0;
}

/* ======================================================================
 * Result retrieval
 * ==================================================================== */

int cmp_ldap_result(CMP_LDAP *ld, int32_t msgid, int32_t all, const CMP_LDAP_TIMEVAL *timeout,
                    CMP_LDAP_MESSAGE **res)
{
    static const char kName[] = "cmp_ldap_result";
    CMP_LDAP_ASSERT(nullptr != ld, "((void *)0) != ld", CMP_LDAP_SRC_API);
    CMP_LDAP_ASSERT(0 == all, "0 == all", CMP_LDAP_SRC_API);
    CMP_LDAP_ASSERT(nullptr != res, "((void *)0) != res", CMP_LDAP_SRC_API);

    /* A SASL bind completed inside the library answers for the last issued id
     * (not for msgid); this is intended. */
    if (ld->ld_mid > 0 && ld->ld_mid == ld->ld_sasl_msgid) {
        *res = nullptr;
        return CMP_LDAP_RES_BIND;
    }

    long tv_sec = timeout != nullptr ? timeout->tv_sec : 0;
    long tv_usec = timeout != nullptr ? timeout->tv_usec : 0;
    /* Unsigned arithmetic: an absurd time-out wraps instead of being undefined. */
    long ms = timeout == nullptr
                  ? -1L
                  : (long)((unsigned long)tv_sec * 1000ul + (unsigned long)(tv_usec / 1000));

    CMP_LDAP_MESSAGE *msg = nullptr;
    CMP_LDAP_MESSAGE_REC rec;
    for (;;) {
        int rc = cmp_ldap_read_berdata(ld, ms, &msg);
        if (rc != 0 || msg == nullptr) {
            *res = nullptr;
            (void)cmp_ldap_gentrace_ld(kName, ld);
            CMP_LDAP_LOG(ld->ld_errno,
                         "%s(): rc=%d msgid=%d,all=%d,timeout=%p,tv_sec=%ld,tv_usec=%ld,res=%p.\n",
                         kName, rc, msgid, all, (const void *)timeout, tv_sec, tv_usec,
                         (void *)res);
            return -1;
        }
        if (cmp_ldap_ber_decode_ldap_message(msg, &rec) < 0) {
            cmp_ldap_free(msg);
            *res = nullptr;
            ld->ld_errno = CMP_LDAP_DECODING_ERROR;
            (void)cmp_ldap_gentrace_ld(kName, ld);
            CMP_LDAP_LOG(CMP_LDAP_DECODING_ERROR,
                         "%s(): Failed to decode CMP_LDAP_MESSAGE.msgid=%d,all=%d,timeout=%p,"
                         "tv_sec=%ld,tv_usec=%ld,res=%p.\n",
                         kName, msgid, all, (const void *)timeout, tv_sec, tv_usec, (void *)res);
            return -1;
        }
        if (msgid == -1 || msgid == rec.msgid) break;
        /* No queue: a response for another id is dropped. */
        cmp_ldap_free(msg);
        msg = nullptr;
    }

    switch (rec.application) {
        case CMP_LDAP_RES_BIND:
        case CMP_LDAP_RES_SEARCH_ENTRY:
        case CMP_LDAP_RES_SEARCH_RESULT:
        case CMP_LDAP_RES_SEARCH_REFERENCE:
        case CMP_LDAP_RES_EXTENDED:
            *res = msg;
            return rec.application;
        default:
            break;
    }
    ld->ld_errno = CMP_LDAP_DECODING_ERROR;
    (void)cmp_ldap_gentrace_ld(kName, ld);
    CMP_LDAP_LOG(CMP_LDAP_DECODING_ERROR,
                 "%s(): Unexpected message.application=%d msgid=%d,all=%d,timeout=%p,tv_sec=%ld,"
                 "tv_usec=%ld,res=%p.\n",
                 kName, rec.application, msgid, all, (const void *)timeout, tv_sec, tv_usec,
                 (void *)res);
    cmp_ldap_free(msg);
    *res = nullptr;
    return -1;
}

/* ======================================================================
 * Bind, unbind, abandon
 * ==================================================================== */

namespace {

int cmp_ldap_simple_bind(CMP_LDAP *ld, const char *dn, const char *cred)
{
    static const char kName[] = "cmp_ldap_simple_bind";
    int32_t msgid = cmp_ldap_get_new_message_id(ld);

    unsigned char *buf = nullptr;
    uint32_t len = cmp_ldap_get_bind_request_message_length(ld, dn, cred);
    int ok = 0;
    if (len == 0) {
        /* The encoder cannot carry a text this long (16 MiB or more). */
        ld->ld_errno = CMP_LDAP_PARAM_ERROR;
    } else if ((buf = static_cast<unsigned char *>(cmp_ldap_malloc(kName, len))) == nullptr) {
        ld->ld_errno = CMP_LDAP_NO_MEMORY;
    } else {
        cmp_ldap_ber_encode_bind_request(ld, dn, cred, buf);
        /* The password goes to the level-1 trace in clear, by design of that trace. */
        CMP_LDAP_TRACE("%s(): msgid=%d,dn=%.64s,passwd=%.64s.\n", kName, msgid, dn, cred);
        ok = cmp_ldap_send_request(ld, buf, len) == 0;
    }
    cmp_ldap_free(buf);
    if (ok) return msgid;

    (void)cmp_ldap_gentrace_ld(kName, ld);
    CMP_LDAP_LOG(ld->ld_errno, "%s(): dn=%.64s,passwd=%.64s.\n", kName, dn, cred);
    return -1;
}

}  // namespace

int cmp_ldap_bind(CMP_LDAP *ld, const char *dn, const char *cred, const char *domain,
                  const char *ccname, uint32_t method)
{
    static const char kName[] = "cmp_ldap_bind";
    if (ld == nullptr) {
        CMP_LDAP_LOG(-1,
                     "%s(): parameter error ld=NULL.dn=%.64s,cred=%.64s,domain=%.64s,"
                     "method=0x%x.\n",
                     kName, dn, cred, domain, method);
        return -1;
    }
    if (method == CMP_LDAP_AUTH_SIMPLE) {
        if (dn == nullptr || cred == nullptr) {
            ld->ld_errno = CMP_LDAP_PARAM_ERROR;
            CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR, "%s(): parameter error (either of dn, cred).\n",
                         kName);
            return -1;
        }
        return cmp_ldap_simple_bind(ld, dn, cred);
    }
    if (method == CMP_LDAP_AUTH_SASL) {
        if (dn == nullptr || domain == nullptr || ccname == nullptr) {
            ld->ld_errno = CMP_LDAP_PARAM_ERROR;
            /* The blank before the comma is the line's own; log readers search for it. */
            CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR,
                         "%s(): parameter error (either of dn, domain ,ccname).\n", kName);
            return -1;
        }
#if CMP_LDAP_WITH_SASL
        int msgid = cmp_ldap_sasl_interactive_bind_s(ld, dn, domain, ccname);
        if (msgid == -1) (void)cmp_ldap_gentrace_ld(kName, ld);
        return msgid;
#else
        /* A build for devices without Kerberos has no SASL at all. */
        ld->ld_errno = CMP_LDAP_AUTH_UNKNOWN;
        CMP_LDAP_LOG(CMP_LDAP_AUTH_UNKNOWN, "%s(): SASL is not built in (method=0x%x).\n", kName,
                     method);
        return -1;
#endif
    }
    ld->ld_errno = CMP_LDAP_PARAM_ERROR;
    CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR, "%s(): parameter error (method=0x%x).\n", kName, method);
    return -1;
}

int cmp_ldap_unbind(CMP_LDAP *ld)
{
    static const char kName[] = "cmp_ldap_unbind";
    if (ld == nullptr) {
        CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR, "%s(): parameter error (ld==NULL).\n", kName);
        return CMP_LDAP_PARAM_ERROR;
    }

    /* After a cut response the connection is already down: there is nothing to
     * send or close, and the session still ends cleanly. */
    const bool dropped = ld->ld_sockfd == CMP_LDAP_DROPPED_SOCKET;
    int result = 0;
    unsigned char *buf = nullptr;
    if (!dropped) {
        int32_t n = cmp_ldap_get_new_message_id(ld);
        /* Fixed width: an id up to 255 takes one octet even when its top bit is set
         * (and 32768 up two octets), deliberately, as in abandon. */
        uint32_t len = n <= kOneOctetId ? 7u : 8u;
        buf = static_cast<unsigned char *>(cmp_ldap_malloc(kName, len));
        if (buf == nullptr) {
            /* Nothing is closed: the handle stays open and the caller's. */
            ld->ld_errno = CMP_LDAP_NO_MEMORY;
            (void)cmp_ldap_gentrace_ld(kName, ld);
            return CMP_LDAP_NO_MEMORY;
        }
        uint32_t i = cmp_ldap_put_id(buf, 2, 0x02, n, n > kOneOctetId);
        buf[i++] = 0x42; /* [APPLICATION 2], primitive, empty */
        buf[i++] = 0x00;
        buf[0] = 0x30;
        buf[1] = (unsigned char)(i - 2);
        if (cmp_ldap_send_request(ld, buf, len) != 0) {
            (void)cmp_ldap_gentrace_ld(kName, ld);
            result = ld->ld_errno;
        }
    }

    /* The session ends whatever the send did. */
    if (ld->ld_ssl_conn != nullptr) (void)cmp_ldap_tls_end(ld);
    if (!dropped) (void)cmp_ldap_close_socket(ld->ld_sockfd);
    cmp_ldap_free_text(&ld->ld_error);
    cmp_ldap_free_text(&ld->ld_matched);
#if CMP_LDAP_WITH_SASL
    /* A security layer lives with the session, so it ends here. */
    cmp_ldap_sasl_layer_free(ld);
#endif
    cmp_ldap_free(ld);
    cmp_ldap_free(buf);
    return result;
}

int cmp_ldap_abandon(CMP_LDAP *ld, int32_t msgid)
{
    static const char kName[] = "cmp_ldap_abandon";
    if (ld == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (ld=NULL).msgid=%d.\n", kName, msgid);
        return -1;
    }
    if (msgid < 0) {
        ld->ld_errno = CMP_LDAP_PARAM_ERROR;
        CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR, "%s(): parameter error (msgid=%d).\n", kName, msgid);
        (void)cmp_ldap_gentrace_ld(kName, ld);
        return -1;
    }

    int32_t n = cmp_ldap_get_new_message_id(ld);
    int32_t a = msgid;
    /* Each id takes one octet up to 255, else two. When n is above 255 and a is
     * exactly 255, n is still written as its low octet alone: a deliberate quirk
     * of the boundary test, kept as it is. */
    bool n_wide = n > kOneOctetId && a != kOneOctetId;
    bool a_wide = a > kOneOctetId;
    unsigned char pdu[10];
    uint32_t len = 2;
    len = cmp_ldap_put_id(pdu, len, 0x02, n, n_wide);
    len = cmp_ldap_put_id(pdu, len, 0x50, a, a_wide); /* [APPLICATION 16], primitive */
    pdu[0] = 0x30;
    pdu[1] = (unsigned char)(len - 2);

    auto *buf = static_cast<unsigned char *>(cmp_ldap_malloc(kName, len));
    if (buf == nullptr) {
        ld->ld_errno = CMP_LDAP_NO_MEMORY;
        (void)cmp_ldap_gentrace_ld(kName, ld);
        return -1;
    }
    memcpy(buf, pdu, len);
    int sent = cmp_ldap_send_request(ld, buf, len);
    cmp_ldap_free(buf);
    if (sent != 0) {
        (void)cmp_ldap_gentrace_ld(kName, ld);
        return -1;
    }
    return 0; /* no response is awaited */
}

/* ======================================================================
 * Search
 * ==================================================================== */

int cmp_ldap_check_search_tiny_params(CMP_LDAP *ld, const char *base, uint32_t scope,
                                      const CMP_LDAP_FILTER *filter,
                                      const CMP_LDAP_FILTER_PRESENT *filter_present,
                                      const char *attrs, uint32_t attrsonly)
{
    static const char kName[] = "cmp_ldap_check_search_tiny_params";
    const int rc = CMP_LDAP_PARAM_ERROR;
    if (ld == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (ld=NULL).\n", kName);
        return -1;
    }

    /* The caller's fixed text fields need not be terminated: an unterminated
     * field measures 385 and is refused without reading past it. */
    size_t len = 0;
    if (base == nullptr) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (base=NULL).\n", kName);
    } else if (scope > CMP_LDAP_SCOPE_SUBTREE) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (scope=%d).\n", kName, (int)scope);
    } else if ((uint32_t)ld->ld_deref > (uint32_t)CMP_LDAP_DEREF_ALWAYS) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (ld_deref=%d).\n", kName, ld->ld_deref);
    } else if (ld->ld_sizelimit < 0) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (ld_sizelimit=%d).\n", kName, ld->ld_sizelimit);
    } else if (ld->ld_timelimit < 0) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (ld_timelimit=%d).\n", kName, ld->ld_timelimit);
    } else if (attrs == nullptr) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (attrs=NULL).\n", kName);
    } else if ((len = strlen(attrs)) > CMP_LDAP_TEXT_MAX) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (search attributes length=%d).\n", kName, (int)len);
    } else if (attrsonly > 1) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (attrsonly=%d).\n", kName, (int)attrsonly);
    } else if (filter != nullptr && filter->cmp_ldap_filterCond > CMP_LDAP_FILTER_COND_EQUAL) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (filter->cmp_ldap_filterCond=%d).\n", kName,
                     (int)filter->cmp_ldap_filterCond);
    } else if (filter != nullptr && filter->cmp_ldap_searchCond > CMP_LDAP_SEARCH_COND_OR) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (filter->cmp_ldap_searchCond=%d).\n", kName,
                     (int)filter->cmp_ldap_searchCond);
    } else if (filter != nullptr &&
               (len = strnlen(filter->cmp_ldap_attr, CMP_LDAP_TEXT_SIZE)) > CMP_LDAP_TEXT_MAX) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (filter->cmp_ldap_attr length=%d).\n", kName,
                     (int)len);
    } else if (filter != nullptr &&
               (len = strnlen(filter->cmp_ldap_value, CMP_LDAP_TEXT_SIZE)) > CMP_LDAP_TEXT_MAX) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (filter->cmp_ldap_value length=%d).\n", kName,
                     (int)len);
    } else if (filter_present != nullptr &&
               filter_present->cmp_ldap_searchCond > CMP_LDAP_SEARCH_COND_OR) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (filter_present->cmp_ldap_searchCond=%d).\n", kName,
                     (int)filter_present->cmp_ldap_searchCond);
    } else if (filter_present != nullptr &&
               (len = strnlen(filter_present->attr, CMP_LDAP_TEXT_SIZE)) > CMP_LDAP_TEXT_MAX) {
        CMP_LDAP_LOG(rc, "%s(): parameter error (filter_present->attr length=%d).\n", kName,
                     (int)len);
    } else {
        return 0;
    }
    ld->ld_errno = CMP_LDAP_PARAM_ERROR;
    return -1;
}

namespace {

/* What a search has parsed and allocated so far; released on every path. */
struct CMP_LDAP_SEARCH_WORK {
    CMP_LDAP_SEARCH_FILTER *filter;
    CMP_LDAP_SEARCH_FILTER_PRESENT *present;
    char **attrs;
    unsigned char *buf;
};

/* Steps after the checks: parse, size, encode, trace, send. 0 or -1 with ld_errno set. */
int cmp_ldap_search_send(CMP_LDAP *ld, int32_t msgid, const char *base, uint32_t scope,
                         const CMP_LDAP_FILTER *filter,
                         const CMP_LDAP_FILTER_PRESENT *filter_present, const char *attrs,
                         uint32_t attrsonly, CMP_LDAP_SEARCH_WORK *w)
{
    static const char kName[] = "cmp_ldap_search_tiny";
    if (filter != nullptr) {
        w->filter = cmp_ldap_parse_search_filter(filter);
        if (w->filter == nullptr) {
            ld->ld_errno = CMP_LDAP_NO_MEMORY;
            return -1;
        }
        if (w->filter->cmp_ldap_filter_count == 0) {
            /* Nothing usable in it: the search goes on without a filter. */
            cmp_ldap_free_search_filter(w->filter);
            w->filter = nullptr;
        }
    }
    w->attrs = cmp_ldap_parse_search_attributes(attrs);
    if (w->attrs == nullptr) {
        ld->ld_errno = CMP_LDAP_NO_MEMORY;
        return -1;
    }
    if (filter_present != nullptr) {
        w->present = cmp_ldap_parse_search_filter_present(filter_present);
        if (w->present == nullptr) {
            ld->ld_errno = CMP_LDAP_NO_MEMORY;
            return -1;
        }
        if (w->present->cmp_ldap_filter_count == 0) {
            cmp_ldap_free_search_filter_present(w->present);
            w->present = nullptr;
        }
    }

    uint32_t len =
        cmp_ldap_get_search_request_message_length(ld, base, w->filter, w->present, w->attrs);
    if (len == 0) {
        /* The encoder cannot carry a text this long (16 MiB or more). */
        ld->ld_errno = CMP_LDAP_PARAM_ERROR;
        return -1;
    }
    w->buf = static_cast<unsigned char *>(cmp_ldap_malloc(kName, len));
    if (w->buf == nullptr) {
        ld->ld_errno = CMP_LDAP_NO_MEMORY;
        return -1;
    }
    cmp_ldap_ber_encode_search_request(ld, base, scope, w->filter, w->present, w->attrs, attrsonly,
                                       w->buf);

    CMP_LDAP_TRACE("%s(): msgid=%d,base=%.128s,scope=%d,attrs=%.64s,attrsonly=%d.\n", kName, msgid,
                   base, (int)scope, attrs, (int)attrsonly);
    if (filter != nullptr) {
        CMP_LDAP_TRACE("%s(): filter: filterCond=%d,searchCond=%d,attr=%.128s,value=%.128s.\n",
                       kName, (int)filter->cmp_ldap_filterCond, (int)filter->cmp_ldap_searchCond,
                       filter->cmp_ldap_attr, filter->cmp_ldap_value);
    }
    if (filter_present != nullptr) {
        CMP_LDAP_TRACE("%s(): filter_present: searchCond=%d,attr=%.128s.\n", kName,
                       (int)filter_present->cmp_ldap_searchCond, filter_present->attr);
    }
    return cmp_ldap_send_request(ld, w->buf, len);
}

}  // namespace

int cmp_ldap_search_tiny(CMP_LDAP *ld, const char *base, uint32_t scope,
                         const CMP_LDAP_FILTER *filter,
                         const CMP_LDAP_FILTER_PRESENT *filter_present, const char *attrs,
                         uint32_t attrsonly)
{
    static const char kName[] = "cmp_ldap_search_tiny";
    CMP_LDAP_SEARCH_WORK w = {nullptr, nullptr, nullptr, nullptr};
    int32_t msgid = -1;
    int rc = cmp_ldap_check_search_tiny_params(ld, base, scope, filter, filter_present, attrs,
                                               attrsonly);
    if (rc == 0) {
        /* Only a request that passed its checks consumes an id. */
        msgid = cmp_ldap_get_new_message_id(ld);
        rc = cmp_ldap_search_send(ld, msgid, base, scope, filter, filter_present, attrs, attrsonly,
                                  &w);
    }
    cmp_ldap_free(w.buf);
    cmp_ldap_free_search_filter(w.filter);
    cmp_ldap_free_search_attributes(w.attrs);
    cmp_ldap_free_search_filter_present(w.present);
    if (rc == 0) return msgid;

    (void)cmp_ldap_gentrace_ld(kName, ld);
    (void)cmp_ldap_gentrace_search_params(kName, base, (int)scope, filter, filter_present, attrs,
                                          (int)attrsonly);
    return -1;
}
