/*
 * The same address-book walk with OpenLDAP's libldap, the baseline of the side-by-side
 * benchmark (bench/side_by_side.sh):
 *
 *   walk_libldap MODE TLS HOST PORT BASE [OPENS]
 *
 * MODE: one (DN, every attribute, its value array), read (each message received and
 * released), open (OPENS opens and unbinds). TLS: plain, starttls, ldaps; the CA comes
 * from LDAPTLS_CACERT. Anonymous, one level, all attributes, as walk_toveistror; with
 * WALK_GSSAPI=MIN,MAX a GSSAPI bind from KRB5CCNAME first, its layer in that range.
 */
#include <lber.h>
#include <ldap.h>
#include <sasl/sasl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static long g_values = 0;

static int walk(LDAP *ld, LDAPMessage *entry)
{
    BerElement *ber = NULL;
    char *name;
    char *dn = ldap_get_dn(ld, entry);
    if (dn == NULL) return -1;
    ldap_memfree(dn);
    for (name = ldap_first_attribute(ld, entry, &ber); name != NULL;
         name = ldap_next_attribute(ld, entry, ber)) {
        struct berval **vals = ldap_get_values_len(ld, entry, name);
        if (vals == NULL) return -1;
        g_values += ldap_count_values_len(vals);
        ldap_value_free_len(vals);
        ldap_memfree(name);
    }
    if (ber != NULL) ber_free(ber, 0);
    return 0;
}

static LDAP *open_session(const char *tls, const char *host, int port)
{
    char uri[300];
    LDAP *ld = NULL;
    int version = LDAP_VERSION3;
    snprintf(uri, sizeof uri, "%s://%s:%d/", strcmp(tls, "ldaps") == 0 ? "ldaps" : "ldap", host,
             port);
    if (ldap_initialize(&ld, uri) != LDAP_SUCCESS) return NULL;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (strcmp(tls, "starttls") == 0 && ldap_start_tls_s(ld, NULL, NULL) != LDAP_SUCCESS)
        return NULL;
    /* Connect (and for ldaps handshake) now, as the other client's open does. */
    if (ldap_connect(ld) != LDAP_SUCCESS) return NULL;
    return ld;
}

/* GSSAPI asks nothing that the credential cache does not answer. */
static int no_prompts(LDAP *ld, unsigned flags, void *defaults, void *prompts)
{
    sasl_interact_t *p;
    (void)ld;
    (void)flags;
    (void)defaults;
    for (p = prompts; p->id != SASL_CB_LIST_END; ++p) {
        p->result = "";
        p->len = 0;
    }
    return LDAP_SUCCESS;
}

/* The GSSAPI bind WALK_GSSAPI asks for: 0 when bound (or not asked), -1 on failure. */
static int gssapi_bind(LDAP *ld)
{
    const char *range = getenv("WALK_GSSAPI");
    unsigned min_ssf = 0, max_ssf = 0;
    char props[64];
    if (range == NULL) return 0;
    if (sscanf(range, "%u,%u", &min_ssf, &max_ssf) != 2) return -1;
    snprintf(props, sizeof props, "minssf=%u,maxssf=%u", min_ssf, max_ssf);
    if (ldap_set_option(ld, LDAP_OPT_X_SASL_SECPROPS, props) != LDAP_SUCCESS) return -1;
    return ldap_sasl_interactive_bind_s(ld, NULL, "GSSAPI", NULL, NULL, LDAP_SASL_QUIET, no_prompts,
                                        NULL) == LDAP_SUCCESS
               ? 0
               : -1;
}

int main(int argc, char **argv)
{
    struct timeval wait = {30, 0};
    LDAPMessage *res = NULL;
    LDAP *ld;
    const char *mode;
    long entries = 0;
    int id, i, opens;

    if (argc < 6) {
        fprintf(stderr,
                "usage: walk_libldap one|read|open plain|starttls|ldaps HOST PORT BASE "
                "[OPENS]\n");
        return 2;
    }
    mode = argv[1];
    if (strcmp(mode, "open") == 0) {
        opens = argc > 6 ? atoi(argv[6]) : 1;
        for (i = 0; i < opens; ++i) {
            ld = open_session(argv[2], argv[3], atoi(argv[4]));
            if (ld == NULL) return 1;
            ldap_unbind_ext_s(ld, NULL, NULL);
        }
        printf("opens %d\n", opens);
        return 0;
    }
    ld = open_session(argv[2], argv[3], atoi(argv[4]));
    if (ld == NULL || gssapi_bind(ld) != 0) return 1;
    if (ldap_search_ext(ld, argv[5], LDAP_SCOPE_ONELEVEL, "(objectClass=*)", NULL, 0, NULL, NULL,
                        NULL, 0, &id) != LDAP_SUCCESS)
        return 1;
    for (;;) {
        int type = ldap_result(ld, id, LDAP_MSG_ONE, &wait, &res);
        if (type == LDAP_RES_SEARCH_RESULT) break;
        if (type != LDAP_RES_SEARCH_ENTRY) return 1;
        ++entries;
        if (mode[0] != 'r' && walk(ld, res) != 0) return 1;
        ldap_msgfree(res);
    }
    {
        int rc = LDAP_OTHER;
        if (ldap_parse_result(ld, res, &rc, NULL, NULL, NULL, NULL, 1) != LDAP_SUCCESS ||
            rc != LDAP_SUCCESS)
            return 1;
    }
    ldap_unbind_ext_s(ld, NULL, NULL);
    printf("entries %ld values %ld\n", entries, g_values);
    return 0;
}
