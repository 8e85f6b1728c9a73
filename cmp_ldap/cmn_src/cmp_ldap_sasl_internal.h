/*
 * Shared by the two SASL sources (and their unit tests) only; never installed.
 */
#ifndef CMP_LDAP_SASL_INTERNAL_H
#define CMP_LDAP_SASL_INTERNAL_H

#include "cmp_ldap_internal.h"

/* The body of the "CMP_LDAP_SASL" task, in the OS wrapper's entry shape: the
 * session, the security properties, userid, domain, ccname and the address of the
 * waiting caller's message id; the last four are unused. */
void cmp_ldap_sasl_bind_task_main(void *ld, void *secprops, void *userid, void *domain,
                                  void *ccname, void *msgidp, void *, void *, void *, void *);

/* The bind mutex and the SASL library's initialisation live for the process. These
 * make the next bind start as the first one in a process would (unit tests, whose
 * fake OS wrapper forgets its mutexes between cases); never called by the library. */
void cmp_ldap_sasl_forget_mutex(void);
void cmp_ldap_cyrus_forget_init(void);

/* The security layer of a session (ld_sasl_layer): what the caller asked for, and
 * once a bind has negotiated a layer, its SASL connection and the receive state. */
#define CMP_LDAP_SASL_LAYER_MAXBUF 65536u /* longest wrapped buffer we accept */
#define CMP_LDAP_SASL_LAYER_PREFIX 4u     /* its length, high octet first */
typedef struct CMP_LDAP_SASL_LAYER {
    uint32_t min_ssf;
    uint32_t max_ssf;
    void *conn;                 /* sasl_conn_t of the layer in force; NULL: none yet */
    uint32_t maxout;            /* most plain octets one wrapped buffer may carry */
    unsigned char *wrapped;     /* one wrapped buffer with its prefix */
    const unsigned char *plain; /* unwrapped octets not yet read (the SASL library's) */
    uint32_t plain_len;
} CMP_LDAP_SASL_LAYER;

static inline CMP_LDAP_SASL_LAYER *cmp_ldap_sasl_layer(const CMP_LDAP *ld)
{
    return static_cast<CMP_LDAP_SASL_LAYER *>(ld->ld_sasl_layer);
}
/* The layer in force, or NULL while the traffic is unwrapped. */
static inline CMP_LDAP_SASL_LAYER *cmp_ldap_sasl_layer_on(const CMP_LDAP *ld)
{
    CMP_LDAP_SASL_LAYER *layer = cmp_ldap_sasl_layer(ld);
    return layer != nullptr && layer->conn != nullptr ? layer : nullptr;
}
/* After a successful bind: puts the bind's SASL connection in force when it
 * negotiated a layer. false (ld_errno set) when the layer cannot be kept. */
bool cmp_ldap_sasl_layer_install(CMP_LDAP *ld);
/* Wraps len octets (at most maxout) into *out, prefix included: 0 or a code. */
int cmp_ldap_sasl_layer_encode(CMP_LDAP *ld, const unsigned char *in, uint32_t len,
                               const unsigned char **out, uint32_t *outlen);
/* Unwraps one whole wrapped buffer (prefix included) into plain: 0 or a code. */
int cmp_ldap_sasl_layer_decode(CMP_LDAP *ld, const unsigned char *in, uint32_t len);
/* Disposes the layer and its record; the handle's teardown. */
void cmp_ldap_sasl_layer_free(CMP_LDAP *ld);

#endif
