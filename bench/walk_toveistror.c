/*
 * The address-book walk with this library, as a device component would do it:
 *
 *   walk_toveistror MODE TLS HOST PORT BASE [OPENS]
 *
 * MODE: one (DN, every attribute, its text values), both (the text and the binary
 * values of every attribute), read (each message received and released, nothing
 * read from it), open (OPENS opens and unbinds, no search). TLS: plain, starttls,
 * ldaps; the server certificate is verified against TOVEISTROR_CA_FILE. With
 * WALK_GSSAPI=MIN,MAX the session binds with GSSAPI from the cache in KRB5CCNAME
 * first, asking for a security layer in that range (0,0: none). Prints the number of
 * entries and values seen, so both clients can be checked to do the same work. Valid C99.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cmp_ldap.h"

static long g_values = 0;

static int walk(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry, int both)
{
    void *cursor = NULL;
    char *name;
    char *dn = cmp_ldap_get_dn(ld, entry);
    if (dn == NULL) return -1;
    cmp_ldap_dn_free(dn);
    for (name = cmp_ldap_first_attribute(ld, entry, &cursor); name != NULL;
         name = cmp_ldap_next_attribute(ld, entry, cursor)) {
        char **vals = cmp_ldap_get_values(ld, entry, name);
        if (vals == NULL) return -1;
        g_values += cmp_ldap_count_values(vals);
        cmp_ldap_value_free(vals);
        if (both) {
            CMP_LDAP_BERVAL **bin = cmp_ldap_get_values_binary(ld, entry, name);
            if (bin == NULL) return -1;
            cmp_ldap_value_free_binary(bin);
        }
    }
    return 0;
}

static CMP_LDAP *open_session(const char *tls, const char *host, int port)
{
    CMP_LDAP_CONN_PARAM param;
    CMP_LDAP *ld = NULL;
    memset(&param, 0, sizeof param);
    param.cmp_ldap_hostname = (char *)host;
    param.portno = port;
    param.timeout = 30;
    if (strcmp(tls, "starttls") == 0) param.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
    if (strcmp(tls, "ldaps") == 0) param.tls_mod = CMP_LDAP_TLS_MOD_LDAPS;
    if (param.tls_mod != 0) param.ssl_auth = 1;
    if (cmp_ldap_open_with_timeout(&param, &ld) != 0) return NULL;
    return ld;
}

/* The GSSAPI bind WALK_GSSAPI asks for: 0 when bound (or not asked), -1 on failure. */
static int gssapi_bind(CMP_LDAP *ld)
{
    const char *range = getenv("WALK_GSSAPI");
    const char *cache = getenv("KRB5CCNAME");
    unsigned min_ssf = 0, max_ssf = 0;
    if (range == NULL) return 0;
    if (cache == NULL || sscanf(range, "%u,%u", &min_ssf, &max_ssf) != 2) return -1;
    if (strncmp(cache, "FILE:", 5) == 0) cache += 5;
    if (max_ssf != 0 && cmp_ldap_set_sasl_ssf(ld, min_ssf, max_ssf) != 0) return -1;
    return cmp_ldap_bind(ld, "", NULL, "", cache, CMP_LDAP_AUTH_SASL) < 0 ? -1 : 0;
}

int main(int argc, char **argv)
{
    CMP_LDAP_TIMEVAL wait = {30, 0};
    CMP_LDAP_MESSAGE *res = NULL;
    CMP_LDAP *ld;
    const char *mode;
    long entries = 0;
    int id, i, opens;

    if (argc < 6) {
        fprintf(stderr,
                "usage: walk_toveistror one|both|read|open plain|starttls|ldaps "
                "HOST PORT BASE [OPENS]\n");
        return 2;
    }
    mode = argv[1];
    if (strcmp(mode, "open") == 0) {
        opens = argc > 6 ? atoi(argv[6]) : 1;
        for (i = 0; i < opens; ++i) {
            ld = open_session(argv[2], argv[3], atoi(argv[4]));
            if (ld == NULL) return 1;
            cmp_ldap_unbind(ld);
        }
        printf("opens %d\n", opens);
        return 0;
    }
    ld = open_session(argv[2], argv[3], atoi(argv[4]));
    if (ld == NULL || gssapi_bind(ld) != 0) return 1;
    id = cmp_ldap_search_tiny(ld, argv[5], CMP_LDAP_SCOPE_ONELEVEL, NULL, NULL, "", 0);
    if (id < 0) return 1;
    for (;;) {
        int type = cmp_ldap_result(ld, id, 0, &wait, &res);
        if (type == CMP_LDAP_RES_SEARCH_RESULT) break;
        if (type != CMP_LDAP_RES_SEARCH_ENTRY) return 1;
        ++entries;
        if (mode[0] != 'r' && walk(ld, res, mode[0] == 'b') != 0) return 1;
        cmp_ldap_msgfree(res);
    }
    if (cmp_ldap_result2error(ld, res, 1) != CMP_LDAP_SUCCESS) return 1;
    cmp_ldap_unbind(ld);
    printf("entries %ld values %ld\n", entries, g_values);
    return 0;
}
