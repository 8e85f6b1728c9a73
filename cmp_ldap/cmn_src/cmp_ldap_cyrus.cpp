/*
 * The SASL client conversation over Cyrus SASL 2.1 with the GSSAPI mechanism and
 * a Kerberos 5 credential cache named by the caller. It runs only on the task of
 * the interactive bind, whose mutex keeps the SASL library's process-wide state
 * to one bind at a time.
 */
/* 64-bit file offsets and inode numbers even on 32-bit devices: stat must not
 * refuse a cache on a file system with large inode numbers. */
#define _FILE_OFFSET_BITS 64

#include <gssapi/gssapi_krb5.h>
#include <sasl/sasl.h>
#include <stdio.h>
#include <sys/stat.h>

#include "cmp_ldap_sasl_internal.h"

namespace {

constexpr char kService[] = "ldap";
constexpr char kMechanism[] = "GSSAPI";

/* Release 2.1.23 or any later 2.1 release: major and minor in the upper half of
 * sasl_version's number, the step in the lower half. */
constexpr uint32_t kMajorMinor = 0x0201u;
constexpr uint32_t kNewestRefusedStep = 22u;

/* No security layer unless the caller opts in (cmp_ldap_set_sasl_ssf): after the
 * bind the session's traffic stays as it is. The buffer size is also the longest
 * wrapped buffer the layer's reader takes. */
constexpr sasl_ssf_t kMaxSsf = 0;
constexpr unsigned kMaxBufSize = CMP_LDAP_SASL_LAYER_MAXBUF;
constexpr unsigned kSecurityFlags = SASL_SEC_NOPLAINTEXT | SASL_SEC_NOANONYMOUS;

/* The SASL library asks for everything through interactions: no procedures. */
const sasl_callback_t kCallbacks[] = {
    {SASL_CB_GETREALM, nullptr, nullptr},   {SASL_CB_USER, nullptr, nullptr},
    {SASL_CB_AUTHNAME, nullptr, nullptr},   {SASL_CB_PASS, nullptr, nullptr},
    {SASL_CB_ECHOPROMPT, nullptr, nullptr}, {SASL_CB_NOECHOPROMPT, nullptr, nullptr},
    {SASL_CB_LIST_END, nullptr, nullptr},
};

/* SASL codes -16 (SASL_ENCRYPT) to 2 (SASL_INTERACT), indexed by code + 16. */
constexpr int kFirstMappedCode = -16;
constexpr int32_t kSaslCodeMap[] = {
    CMP_LDAP_SASL_ERROR,       CMP_LDAP_SASL_ERROR, CMP_LDAP_SASL_ERROR, /* -16..-14 */
    CMP_LDAP_SASL_ERROR,       CMP_LDAP_SASL_ERROR, CMP_LDAP_SASL_ERROR, /* -13..-11 */
    CMP_LDAP_SASL_AUTH_FAILED,                                           /* -10 BADSERV */
    CMP_LDAP_SASL_ERROR,       CMP_LDAP_SASL_ERROR, CMP_LDAP_SASL_ERROR, /* -9..-7 */
    CMP_LDAP_SASL_ERROR,       CMP_LDAP_SASL_ERROR, CMP_LDAP_SASL_ERROR, /* -6..-4 */
    CMP_LDAP_SASL_ERROR,                                                 /* -3 BUFOVER */
    CMP_LDAP_NO_MEMORY,                                                  /* -2 NOMEM */
    CMP_LDAP_SASL_AUTH_FAILED,                                           /* -1 FAIL */
    CMP_LDAP_SUCCESS,                                                    /* 0 OK */
    CMP_LDAP_SASL_ERROR,       CMP_LDAP_SASL_ERROR,                      /* CONTINUE, INTERACT */
};

/* Set once sasl_client_init has succeeded; the library is never finalised. Only
 * touched under the bind mutex. */
int s_sasl_initialised = 0;

int32_t cmp_ldap_sasl_code(int saslrc)
{
    int index = saslrc - kFirstMappedCode;
    if (index < 0 || index >= (int)(sizeof kSaslCodeMap / sizeof kSaslCodeMap[0]))
        return CMP_LDAP_SASL_ERROR;
    return kSaslCodeMap[index];
}

/* The SASL library's own failure of sasl_client_start or _step: the mapped code,
 * and its detail as the session's error text. */
int cmp_ldap_sasl_failed(CMP_LDAP *ld, sasl_conn_t *conn, int saslrc, bool starting)
{
    static const char kName[] = "cmp_ldap_int_sasl_bind";
    ld->ld_errno = cmp_ldap_sasl_code(saslrc);
    cmp_ldap_free_text(&ld->ld_error);
    ld->ld_error = cmp_ldap_strdup(sasl_errdetail(conn));
    if (starting) {
        CMP_LDAP_LOG(ld->ld_errno, "%s(): sasl_client_start() error.saslrc=%d,errdetail=%s.\n",
                     kName, saslrc, ld->ld_error);
    } else {
        CMP_LDAP_LOG(ld->ld_errno, "%s(): sasl_client_step() error.saslrc=%d,errdetail=%s.\n",
                     kName, saslrc, ld->ld_error);
    }
    return ld->ld_errno;
}

/* The version check and sasl_client_init, once per process. */
bool cmp_ldap_int_sasl_init(CMP_LDAP *ld)
{
    static const char kName[] = "cmp_ldap_int_sasl_init";
    if (s_sasl_initialised == 1) return true;
    const char *implementation = nullptr;
    int version = 0;
    sasl_version(&implementation, &version);
    uint32_t v = (uint32_t)version;
    if ((v >> 16) != kMajorMinor || (v & 0xFFFFu) <= kNewestRefusedStep) {
        char text[32];
        snprintf(text, sizeof text, "%u.%d.%d", v >> 24, (int)((v >> 16) & 0xFFu),
                 (int)(v & 0xFFFFu));
        CMP_LDAP_LOG(CMP_LDAP_SASL_ERROR,
                     "%s(): SASL library version mismatch: expected 2.1.23, got %s.\n", kName,
                     text);
        ld->ld_errno = CMP_LDAP_SASL_ERROR;
        return false;
    }
    int saslrc = sasl_client_init(nullptr);
    if (saslrc != SASL_OK) {
        CMP_LDAP_LOG(CMP_LDAP_SASL_ERROR, "%s(): sasl_client_init() error.saslrc=%d.\n", kName,
                     saslrc);
        ld->ld_errno = CMP_LDAP_SASL_ERROR;
        return false;
    }
    s_sasl_initialised = 1;
    return true;
}

/* A new SASL connection for the peer, kept in the handle. */
bool cmp_ldap_int_sasl_open(CMP_LDAP *ld, const char *host)
{
    static const char kName[] = "cmp_ldap_int_sasl_open";
    CMP_LDAP_ASSERT(nullptr == ld->cmp_ldap_ld_sasl_authctx,
                    "((void *)0) == ld->cmp_ldap_ld_sasl_authctx", CMP_LDAP_SRC_CYRUS);
    if (!cmp_ldap_int_sasl_init(ld)) return false;
    sasl_conn_t *conn = nullptr;
    int saslrc = sasl_client_new(kService, host, nullptr, nullptr, kCallbacks, 0, &conn);
    if (saslrc != SASL_OK) {
        CMP_LDAP_LOG(CMP_LDAP_SASL_ERROR, "%s(): sasl_client_new() error.saslrc=%d\n", kName,
                     saslrc);
        ld->ld_errno = CMP_LDAP_SASL_ERROR;
        return false;
    }
    const void *fqdn = nullptr;
    (void)sasl_getprop(conn, SASL_SERVERFQDN, &fqdn);
    ld->cmp_ldap_ld_sasl_authctx = conn;
    return true;
}

/* Points GSSAPI at the caller's credential cache, for this task only. */
bool cmp_ldap_set_krb5_ccache_name(CMP_LDAP *ld, const char *ccname)
{
    static const char kName[] = "cmp_ldap_set_krb5_ccache_name";
    struct stat st;
    if (ccname == nullptr || stat(ccname, &st) != 0) {
        ld->ld_errno = CMP_LDAP_KRB5_CCACHE_ERROR;
        CMP_LDAP_LOG(CMP_LDAP_KRB5_CCACHE_ERROR,
                     "%s(): kerberos 5 credential cache error (ccname=%.128s).\n", kName, ccname);
        return false;
    }
    if ((st.st_mode & S_IFMT) != S_IFREG) {
        /* ld_errno is deliberately left as it stands (even 0): the bind then ends
         * without a request and without a reason of its own. */
        CMP_LDAP_LOG(ld->ld_errno,
                     "%s(): kerberos 5 credential cache mode error (ccname=%.128s).\n", kName,
                     ccname);
        return false;
    }
    OM_uint32 minor = 0;
    OM_uint32 major = gss_krb5_ccache_name(&minor, ccname, nullptr);
    if ((major & 0xFFFF0000u) != 0) { /* a calling or routine error */
        ld->ld_errno = CMP_LDAP_SASL_ERROR;
        CMP_LDAP_LOG(CMP_LDAP_SASL_ERROR,
                     "%s(): gss_krb5_ccache_name() maj_stat=0x%x,min_stat=0x%x.\n", kName,
                     (unsigned)major, (unsigned)minor);
        return false;
    }
    return true;
}

/* A credentials block of the client's output; NULL (ld_errno 265) without memory. */
CMP_LDAP_SASL_CRED *cmp_ldap_sasl_cred(CMP_LDAP *ld, const char *out, unsigned outlen)
{
    uint32_t len = out == nullptr ? 0u : outlen;
    auto *cred = static_cast<CMP_LDAP_SASL_CRED *>(
        cmp_ldap_malloc("cmp_ldap_int_sasl_bind", len + (uint32_t)sizeof(uint32_t)));
    if (cred == nullptr) {
        ld->ld_errno = CMP_LDAP_NO_MEMORY;
        return nullptr;
    }
    cred->total_size = len;
    if (len != 0) memcpy(cred->data, out, len);
    return cred;
}

/* Failures of the layer itself: only a lack of memory has a code of its own. */
int32_t cmp_ldap_sasl_layer_code(int saslrc)
{
    return saslrc == SASL_NOMEM ? CMP_LDAP_NO_MEMORY : CMP_LDAP_SASL_ERROR;
}

/* One unsigned property of the layer's connection; false when it has none. */
bool cmp_ldap_sasl_layer_prop(sasl_conn_t *conn, int propnum, unsigned *value)
{
    const void *p = nullptr;
    if (sasl_getprop(conn, propnum, &p) != SASL_OK || p == nullptr) return false;
    *value = *static_cast<const unsigned *>(p);
    return true;
}

}  // namespace

int cmp_ldap_set_sasl_ssf(CMP_LDAP *ld, uint32_t min_ssf, uint32_t max_ssf)
{
    static const char kName[] = "cmp_ldap_set_sasl_ssf";
    if (ld == nullptr || min_ssf > max_ssf) {
        CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR, "%s(): parameter error (ld=%p,min_ssf=%u,max_ssf=%u).\n",
                     kName, (void *)ld, (unsigned)min_ssf, (unsigned)max_ssf);
        if (ld != nullptr) ld->ld_errno = CMP_LDAP_PARAM_ERROR;
        return CMP_LDAP_PARAM_ERROR;
    }
    CMP_LDAP_SASL_LAYER *layer = cmp_ldap_sasl_layer(ld);
    if (layer == nullptr) {
        /* The default needs no record: a handle that never opts in stays as it was. */
        if (max_ssf == 0) return 0;
        layer = static_cast<CMP_LDAP_SASL_LAYER *>(cmp_ldap_malloc(kName, sizeof *layer));
        if (layer == nullptr) {
            ld->ld_errno = CMP_LDAP_NO_MEMORY;
            return CMP_LDAP_NO_MEMORY;
        }
        memset(layer, 0, sizeof *layer);
        ld->ld_sasl_layer = layer;
    }
    layer->min_ssf = min_ssf;
    layer->max_ssf = max_ssf;
    return 0;
}

bool cmp_ldap_sasl_layer_install(CMP_LDAP *ld)
{
    static const char kName[] = "cmp_ldap_sasl_layer_install";
    CMP_LDAP_SASL_LAYER *layer = cmp_ldap_sasl_layer(ld);
    auto *conn = static_cast<sasl_conn_t *>(ld->cmp_ldap_ld_sasl_authctx);
    if (layer == nullptr || conn == nullptr) return true;
    unsigned ssf = 0;
    unsigned maxout = 0;
    if (!cmp_ldap_sasl_layer_prop(conn, SASL_SSF, &ssf)) ssf = 0;
    /* No layer negotiated: one already in force stays so, as RFC 4422 has it. */
    if (ssf == 0) return true;
    int32_t code = CMP_LDAP_SASL_ERROR;
    if (!cmp_ldap_sasl_layer_prop(conn, SASL_MAXOUTBUF, &maxout) || maxout == 0) {
        CMP_LDAP_LOG(code, "%s(): no maximum output buffer (ssf=%u).\n", kName, ssf);
    } else if (layer->wrapped == nullptr &&
               (layer->wrapped = static_cast<unsigned char *>(cmp_ldap_malloc(
                    kName, CMP_LDAP_SASL_LAYER_PREFIX + CMP_LDAP_SASL_LAYER_MAXBUF))) == nullptr) {
        code = CMP_LDAP_NO_MEMORY;
    } else {
        if (layer->conn != nullptr) {
            auto *old = static_cast<sasl_conn_t *>(layer->conn);
            sasl_dispose(&old);
        }
        layer->conn = conn;
        layer->maxout = maxout;
        layer->plain = nullptr;
        layer->plain_len = 0;
        ld->cmp_ldap_ld_sasl_authctx = nullptr;
        CMP_LDAP_TRACE("%s(): ssf=%u,maxout=%u\n", kName, ssf, maxout);
        return true;
    }
    /* The server wraps from now on and we cannot: nothing more can be read. */
    ld->ld_errno = code;
    cmp_ldap_drop_connection(ld);
    return false;
}

int cmp_ldap_sasl_layer_encode(CMP_LDAP *ld, const unsigned char *in, uint32_t len,
                               const unsigned char **out, uint32_t *outlen)
{
    static const char kName[] = "cmp_ldap_sasl_layer_encode";
    auto *conn = static_cast<sasl_conn_t *>(cmp_ldap_sasl_layer(ld)->conn);
    const char *o = nullptr;
    unsigned olen = 0;
    int saslrc = sasl_encode(conn, reinterpret_cast<const char *>(in), len, &o, &olen);
    if (saslrc != SASL_OK || o == nullptr) {
        int32_t code = cmp_ldap_sasl_layer_code(saslrc);
        CMP_LDAP_LOG(code, "%s(): sasl_encode() error.saslrc=%d,errdetail=%s.\n", kName, saslrc,
                     sasl_errdetail(conn));
        return code;
    }
    *out = reinterpret_cast<const unsigned char *>(o);
    *outlen = olen;
    return 0;
}

int cmp_ldap_sasl_layer_decode(CMP_LDAP *ld, const unsigned char *in, uint32_t len)
{
    static const char kName[] = "cmp_ldap_sasl_layer_decode";
    CMP_LDAP_SASL_LAYER *layer = cmp_ldap_sasl_layer(ld);
    auto *conn = static_cast<sasl_conn_t *>(layer->conn);
    const char *o = nullptr;
    unsigned olen = 0;
    int saslrc = sasl_decode(conn, reinterpret_cast<const char *>(in), len, &o, &olen);
    if (saslrc != SASL_OK) {
        int32_t code = cmp_ldap_sasl_layer_code(saslrc);
        CMP_LDAP_LOG(code, "%s(): sasl_decode() error.saslrc=%d,errdetail=%s.\n", kName, saslrc,
                     sasl_errdetail(conn));
        return code;
    }
    /* The octets stay the SASL library's until the next sasl_decode. */
    layer->plain = olen != 0 ? reinterpret_cast<const unsigned char *>(o) : nullptr;
    layer->plain_len = layer->plain != nullptr ? olen : 0u;
    return 0;
}

void cmp_ldap_sasl_layer_free(CMP_LDAP *ld)
{
    CMP_LDAP_SASL_LAYER *layer = cmp_ldap_sasl_layer(ld);
    if (layer == nullptr) return;
    if (layer->conn != nullptr) {
        auto *conn = static_cast<sasl_conn_t *>(layer->conn);
        sasl_dispose(&conn);
    }
    cmp_ldap_free(layer->wrapped);
    cmp_ldap_free(layer);
    ld->ld_sasl_layer = nullptr;
}

int cmp_ldap_int_sasl_secprops(sasl_security_properties_t *secprops)
{
    if (secprops == nullptr) return CMP_LDAP_PARAM_ERROR;
    secprops->min_ssf = 0;
    secprops->max_ssf = kMaxSsf;
    secprops->maxbufsize = kMaxBufSize;
    secprops->security_flags = kSecurityFlags;
    secprops->property_names = nullptr;
    secprops->property_values = nullptr;
    return 0;
}

void cmp_ldap_int_sasl_close(CMP_LDAP *ld)
{
    if (ld == nullptr || ld->cmp_ldap_ld_sasl_authctx == nullptr) return;
    auto *conn = static_cast<sasl_conn_t *>(ld->cmp_ldap_ld_sasl_authctx);
    sasl_dispose(&conn);
    ld->cmp_ldap_ld_sasl_authctx = nullptr;
}

int cmp_ldap_int_sasl_bind(CMP_LDAP *ld, const sasl_security_properties_t *secprops,
                           const char *userid, const char *domain, const char *ccname,
                           int32_t *msgidp)
{
    static const char kName[] = "cmp_ldap_int_sasl_bind";
    if (ld == nullptr || secprops == nullptr || msgidp == nullptr) {
        CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR,
                     "%s(): parameter error (either of ld, secprops, msgidp).\n", kName);
        if (ld != nullptr) ld->ld_errno = CMP_LDAP_PARAM_ERROR;
        return CMP_LDAP_PARAM_ERROR;
    }
    *msgidp = -1;
    /* userid and domain only go to the trace: the identity is the cache's. */
    CMP_LDAP_TRACE("%s(): userid=%s,domain=%s.ccname=%s\n", kName, userid, domain, ccname);
    cmp_ldap_int_sasl_close(ld);

    char *host = cmp_ldap_host_connected_to(ld, nullptr);
    if (host == nullptr) {
        ld->ld_errno = CMP_LDAP_SASL_NO_HOST;
        return CMP_LDAP_SASL_NO_HOST;
    }
    bool opened = cmp_ldap_int_sasl_open(ld, host);
    cmp_ldap_free(host);
    if (!opened || !cmp_ldap_set_krb5_ccache_name(ld, ccname)) return ld->ld_errno;

    auto *conn = static_cast<sasl_conn_t *>(ld->cmp_ldap_ld_sasl_authctx);
    int saslrc = sasl_setprop(conn, SASL_SEC_PROPS, secprops);
    if (saslrc != SASL_OK) {
        ld->ld_errno = cmp_ldap_sasl_code(saslrc);
        CMP_LDAP_LOG(ld->ld_errno, "%s(): sasl_setprop() error.saslrc=%d.\n", kName, saslrc);
        return ld->ld_errno;
    }

    sasl_interact_t *prompts = nullptr;
    const char *out = nullptr;
    unsigned outlen = 0;
    const char *mech = nullptr;
    while ((saslrc = sasl_client_start(conn, kMechanism, &prompts, &out, &outlen, &mech)) ==
           SASL_INTERACT) {
        /* Only the authorization identity is ever asked for here, and it stays
         * empty: the identity is the credential cache's. */
        if (prompts == nullptr || prompts->id != SASL_CB_USER) {
            CMP_LDAP_LOG(CMP_LDAP_SASL_ERROR,
                         "%s(): sasl_client_start() error. An interaction out of support "
                         "(id=0x%lx).\n",
                         kName, prompts != nullptr ? prompts->id : 0ul);
            return cmp_ldap_sasl_failed(ld, conn, SASL_INTERACT, true);
        }
        prompts->result = "";
        prompts->defresult = nullptr;
        prompts->len = 0;
    }
    if (saslrc != SASL_OK && saslrc != SASL_CONTINUE)
        return cmp_ldap_sasl_failed(ld, conn, saslrc, true);

    CMP_LDAP_SASL_CRED *cred = cmp_ldap_sasl_cred(ld, out, outlen);
    if (cred == nullptr) return CMP_LDAP_NO_MEMORY;
    for (;;) {
        CMP_LDAP_SASL_CRED *server = nullptr;
        int rc = cmp_ldap_sasl_bind_s(ld, mech, cred, &server, msgidp);
        cmp_ldap_free(cred);
        if (rc != CMP_LDAP_SUCCESS && rc != CMP_LDAP_SASL_BIND_IN_PROGRESS) {
            cmp_ldap_free(server);
            return ld->ld_errno;
        }
        if (rc == CMP_LDAP_SUCCESS && saslrc == SASL_OK) {
            /* Both sides are done: the server has nothing left to say. */
            uint32_t left = server != nullptr ? server->total_size : 0u;
            cmp_ldap_free(server);
            if (left == 0) return 0;
            ld->ld_errno = CMP_LDAP_SASL_ERROR;
            CMP_LDAP_LOG(CMP_LDAP_SASL_ERROR,
                         "%s(): cmp_ldap_sasl_bind_s() error.rc=%d,saslrc=%d,len=%ld.\n", kName,
                         CMP_LDAP_SASL_ERROR, saslrc, (long)left);
            return CMP_LDAP_SASL_ERROR;
        }

        saslrc =
            sasl_client_step(conn, server != nullptr ? (const char *)server->data : nullptr,
                             server != nullptr ? server->total_size : 0u, &prompts, &out, &outlen);
        cmp_ldap_free(server);
        if (saslrc != SASL_OK && saslrc != SASL_CONTINUE)
            return cmp_ldap_sasl_failed(ld, conn, saslrc, false);
        cred = cmp_ldap_sasl_cred(ld, out, outlen);
        if (cred == nullptr) return CMP_LDAP_NO_MEMORY;
        if (rc == CMP_LDAP_SASL_BIND_IN_PROGRESS) continue;

        /* The server accepted already; the client must agree. */
        cmp_ldap_free(cred);
        if (saslrc == SASL_OK) return 0;
        return cmp_ldap_sasl_failed(ld, conn, saslrc, false);
    }
}

void cmp_ldap_cyrus_forget_init(void)
{
    s_sasl_initialised = 0;
}
