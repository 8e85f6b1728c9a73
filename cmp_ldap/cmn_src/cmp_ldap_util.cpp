/*
 * Handle, memory helpers, message ids and the trace dumps of the debug log.
 */
#include <stdio.h>
#include <stdlib.h>

#include "cmp_ldap_internal.h"

#if defined(__GLIBC__)
/* Declared here because <assert.h> hides it under NDEBUG; our assertions stay on. */
extern "C" [[noreturn]] void __assert_fail(const char *assertion, const char *file,
                                           unsigned int line, const char *function) noexcept;
#endif

void cmp_ldap_assert_fail(const char *text, const char *source, unsigned line, const char *function)
{
#if defined(__GLIBC__)
    __assert_fail(text, source, line, function);
#else
    fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", source, line, function, text);
    abort();
#endif
}

void cmp_ldap_init(void)
{
    /* A library-wide start call for callers; there is nothing to prepare. */
}

void *cmp_ldap_malloc(const char *funcname, uint32_t size)
{
    void *block = zelOSWSubAllocMem(size);
    if (block == nullptr) {
        /* "btyes" is the message's own spelling; log readers search for it. */
        CMP_LDAP_LOG(-1, "%s(): Failed to allocate(%u btyes).\n", funcname, size);
    }
    return block;
}

CMP_LDAP *cmp_ldap_allocate_ldap_handler(void)
{
    static const char kName[] = "cmp_ldap_allocate_ldap_handler";
    auto *ld = static_cast<CMP_LDAP *>(cmp_ldap_malloc(kName, sizeof(CMP_LDAP)));
    if (ld == nullptr) {
        CMP_LDAP_LOG(-1, "%s():insufficient memory.\n", kName);
        return nullptr;
    }
    memset(ld, 0, sizeof(*ld));
    return ld;
}

int32_t cmp_ldap_get_new_message_id(CMP_LDAP *ld)
{
    /* Ids wrap to 0 after 65535 by design, although LDAP reserves 0. */
    int32_t next = ld->ld_mid + 1;
    if (next >= 0x10000) next = 0;
    ld->ld_mid = next;
    return next;
}

char *cmp_ldap_strdup(const char *s)
{
    if (s == nullptr) return nullptr;
    size_t len = strlen(s);
    auto *copy = static_cast<char *>(cmp_ldap_malloc("cmp_ldap_strdup", (uint32_t)(len + 1)));
    if (copy != nullptr) memcpy(copy, s, len + 1);
    return copy;
}

char *cmp_ldap_strdup_without_space(const char *s)
{
    if (s == nullptr) return nullptr;
    size_t len = strlen(s);
    /* Sized for the whole text; the copy may be shorter. */
    auto *copy =
        static_cast<char *>(cmp_ldap_malloc("cmp_ldap_strdup_without_space", (uint32_t)(len + 1)));
    if (copy == nullptr) return nullptr;
    char *out = copy;
    for (const char *p = s; *p != '\0'; ++p) {
        if (*p != ' ') *out++ = *p; /* only the blank goes; tabs stay */
    }
    *out = '\0';
    return copy;
}

int cmp_ldap_check_protocol_setting(void)
{
    uint8_t value = 0;
    int32_t rc = ent_set_get_status(ENT_SET_KEY1_ME_STC_U08_LDAP_PROTOCOL,
                                    ENT_SET_KEY2_ME_STC_U08_LDAP_PROTOCOL, &value);
    if (rc != 0) {
        CMP_LDAP_LOG(-1, "%s(): Cannot read ME_STC_U08_LDAP_PROTOCOL.retcode=0x%08lx.\n",
                     "cmp_ldap_check_protocol_setting", (unsigned long)(uint32_t)rc);
        return -1;
    }
    return value != 0 ? 0 : -1;
}

/* ---- trace dumps ---- */

#define CMP_LDAP_DUMP(...) cmp_dbglog_common_trace(CMP_LDAP_MODULE, 0, 0, -1, __VA_ARGS__)

int cmp_ldap_gentrace_ld(const char *funcname, const CMP_LDAP *ld)
{
    if (ld == nullptr) return CMP_LDAP_DUMP("%s(): ld=NULL\n", funcname);
    CMP_LDAP_DUMP(
        "%s(): ld: ld_mid=%d,ld_deref=%d,ld_timelimit=%d,ld_sizelimit=%d,ld_sockfd=%d,"
        "ld_sock_timeout=%ld,ld_ssl_ctx=%p,ld_ssl_conn=%p.\n",
        funcname, ld->ld_mid, ld->ld_deref, ld->ld_timelimit, ld->ld_sizelimit, ld->ld_sockfd,
        ld->ld_sock_timeout, ld->ld_ssl_ctx, ld->ld_ssl_conn);
    /* NULL texts go to the log as they are; the log prints them safely. */
    return CMP_LDAP_DUMP(
        "%s(): ld: ld_errno=%d,ld_matched=%.64s,ld_error=%.64s,"
        "ld_referral=%.64s.\n",
        funcname, ld->ld_errno, ld->ld_matched, ld->ld_error, ld->ld_referral);
}

int cmp_ldap_gentrace_param(const char *funcname, const CMP_LDAP_CONN_PARAM *param)
{
    if (param == nullptr) return CMP_LDAP_DUMP("%s(): param=NULL.\n", funcname);
    CMP_LDAP_DUMP("%s(): param: hostname=%.64s,portno=%d,timeout=%d,ipv6=%u,tls_mod=%u.\n",
                  funcname, param->cmp_ldap_hostname, param->portno, param->timeout,
                  (unsigned)param->ipv6, (unsigned)param->tls_mod);
    return CMP_LDAP_DUMP(
        "%s(): param: ssl_auth=%u,ssl_version=0x%02x,ssl_hash=0x%02x,"
        "ssl_encrpt=0x%02x,ssl_accepted_signature_algorithm=0x%02x.\n",
        funcname, (unsigned)param->ssl_auth, (unsigned)param->ssl_version,
        (unsigned)param->ssl_hash, (unsigned)param->ssl_encrpt,
        (unsigned)param->ssl_accepted_signature_algorithm);
}

int cmp_ldap_gentrace_search_params(const char *funcname, const char *base, int scope,
                                    const CMP_LDAP_FILTER *filter,
                                    const CMP_LDAP_FILTER_PRESENT *filter_present,
                                    const char *attrs, int attrsonly)
{
    /* The filter line always carries this function's own name, unlike the others. */
    static const char kSelf[] = "cmp_ldap_gentrace_search_params";
    CMP_LDAP_DUMP("%s(): base=%.128s,scope=%d,attrs=%.128s,attrsonly=%d.\n", funcname, base, scope,
                  attrs, attrsonly);
    if (filter != nullptr) {
        CMP_LDAP_DUMP("%s(): filter: filterCond=%d,searchCond=%d,attr=%.128s,value=%.128s.\n",
                      kSelf, (int)filter->cmp_ldap_filterCond, (int)filter->cmp_ldap_searchCond,
                      filter->cmp_ldap_attr, filter->cmp_ldap_value);
    } else {
        CMP_LDAP_DUMP("%s(): filter=NULL.\n", kSelf);
    }
    if (filter_present != nullptr) {
        return CMP_LDAP_DUMP("%s(): filter_present: searchCond=%d,attr=%.128s.\n", funcname,
                             (int)filter_present->cmp_ldap_searchCond, filter_present->attr);
    }
    return CMP_LDAP_DUMP("%s(): filter_present=NULL.\n", funcname);
}
