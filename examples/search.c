/*
 * Opens a session, binds, searches and walks everything the server returns: entries
 * with their attributes and values, search references, and the final result, which
 * may be a referral. Every block the library hands out is released.
 *
 *   example_search [-Z] [-D DN -w PASSWORD] HOST PORT BASE [ATTR=VALUE]
 *
 * -Z: StartTLS with the server certificate verified (CAs from TOVEISTROR_CA_FILE or
 * the system's store). Without ATTR=VALUE every entry under BASE matches. Exits 0
 * when the search ends with success, 1 otherwise. Valid C99 and C++.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cmp_ldap.h"

/* Prints one value as text when it is printable, else as its length. */
static void print_value(const char *name, const CMP_LDAP_BERVAL *v)
{
    uint32_t i;
    for (i = 0; i < v->total_size; ++i) {
        if (v->data[i] < 0x20 || v->data[i] > 0x7e) {
            printf("%s: (%lu octets)\n", name, (unsigned long)v->total_size);
            return;
        }
    }
    printf("%s: %.*s\n", name, (int)v->total_size, (const char *)v->data);
}

/* One entry: its DN, then every attribute with its values. */
static int print_entry(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry)
{
    void *cursor = NULL;
    char *name;
    char *dn = cmp_ldap_get_dn(ld, entry);
    if (dn == NULL) return -1;
    printf("dn: %s\n", dn);
    cmp_ldap_dn_free(dn);
    /* A walk that ends early leaves its reason in ld_errno; clear it to tell. */
    ld->ld_errno = CMP_LDAP_SUCCESS;
    for (name = cmp_ldap_first_attribute(ld, entry, &cursor); name != NULL;
         name = cmp_ldap_next_attribute(ld, entry, cursor)) {
        /* The name lives in the message; the values are ours to release. */
        CMP_LDAP_BERVAL **vals = cmp_ldap_get_values_binary(ld, entry, name);
        int i;
        if (vals == NULL) return -1;
        for (i = 0; vals[i] != NULL; ++i)
            print_value(name, vals[i]);
        cmp_ldap_value_free_binary(vals);
    }
    return ld->ld_errno == CMP_LDAP_SUCCESS ? 0 : -1;
}

/* A search reference: the URLs where the rest of the search continues. */
static int print_reference(CMP_LDAP *ld, CMP_LDAP_MESSAGE *ref)
{
    char **urls = cmp_ldap_get_referrals(ld, ref);
    int i;
    if (urls == NULL) return -1;
    for (i = 0; urls[i] != NULL; ++i)
        printf("ref: %s\n", urls[i]);
    cmp_ldap_value_free(urls);
    return 0;
}

/* Sends the search and reads its responses to the end: the final result's code, or
 * -1 with the reason in ld_errno. */
static int walk_search(CMP_LDAP *ld, const char *base, const CMP_LDAP_FILTER *filter)
{
    CMP_LDAP_TIMEVAL wait = {10, 0};
    CMP_LDAP_MESSAGE *res = NULL;
    int id = cmp_ldap_search_tiny(ld, base, CMP_LDAP_SCOPE_SUBTREE, filter, NULL, "", 0);
    if (id < 0) return -1;
    for (;;) {
        int type = cmp_ldap_result(ld, id, 0, &wait, &res);
        int ok;
        if (type == CMP_LDAP_RES_SEARCH_RESULT) return cmp_ldap_result2error(ld, res, 1);
        if (type == CMP_LDAP_RES_SEARCH_ENTRY)
            ok = print_entry(ld, res);
        else if (type == CMP_LDAP_RES_SEARCH_REFERENCE)
            ok = print_reference(ld, res);
        else
            ok = type; /* -1: time-out, connection lost, ... (ld_errno) */
        if (res != NULL) cmp_ldap_msgfree(res);
        if (ok != 0) return -1;
    }
}

/* Binds with a DN and password: the BindResponse's code, or -1 (ld_errno). */
static int bind_simple(CMP_LDAP *ld, const char *dn, const char *password)
{
    CMP_LDAP_TIMEVAL wait = {10, 0};
    CMP_LDAP_MESSAGE *res = NULL;
    int id = cmp_ldap_bind(ld, dn, password, NULL, NULL, CMP_LDAP_AUTH_SIMPLE);
    if (id < 0 || cmp_ldap_result(ld, id, 0, &wait, &res) != CMP_LDAP_RES_BIND) return -1;
    return cmp_ldap_result2error(ld, res, 1);
}

static int usage(void)
{
    fprintf(stderr, "usage: example_search [-Z] [-D DN -w PASSWORD] HOST PORT BASE [ATTR=VALUE]\n");
    return 2;
}

int main(int argc, char **argv)
{
    CMP_LDAP_CONN_PARAM param;
    CMP_LDAP_FILTER filter;
    CMP_LDAP *ld = NULL;
    const char *dn = NULL, *password = NULL;
    char *eq;
    int i = 1, rc;

    memset(&param, 0, sizeof param);
    memset(&filter, 0, sizeof filter);
    param.timeout = 10; /* seconds for connecting, each response and the handshake */
    for (; i < argc && argv[i][0] == '-'; ++i) {
        if (strcmp(argv[i], "-Z") == 0) {
            param.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
            param.ssl_auth = 1; /* verify the server's certificate and name */
        } else if (strcmp(argv[i], "-D") == 0 && i + 1 < argc) {
            dn = argv[++i];
        } else if (strcmp(argv[i], "-w") == 0 && i + 1 < argc) {
            password = argv[++i];
        } else {
            return usage();
        }
    }
    if (argc - i < 3 || argc - i > 4 || (dn == NULL) != (password == NULL)) return usage();
    param.cmp_ldap_hostname = argv[i];
    param.portno = atoi(argv[i + 1]);
    if (argc - i == 4) {
        /* ATTR=VALUE: an equality filter; the library takes the texts as they are. */
        eq = strchr(argv[i + 3], '=');
        if (eq == NULL || (size_t)(eq - argv[i + 3]) > CMP_LDAP_TEXT_MAX ||
            strlen(eq + 1) > CMP_LDAP_TEXT_MAX)
            return usage();
        filter.cmp_ldap_filterCond = CMP_LDAP_FILTER_COND_EQUAL;
        filter.cmp_ldap_searchCond = CMP_LDAP_SEARCH_COND_AND;
        memcpy(filter.cmp_ldap_attr, argv[i + 3], (size_t)(eq - argv[i + 3]));
        strcpy(filter.cmp_ldap_value, eq + 1);
    }

    rc = cmp_ldap_open_with_timeout(&param, &ld);
    if (rc != 0) {
        /* No handle: the open has released whatever it made. */
        printf("open: %d %s\n", rc, cmp_ldap_err2string(rc));
        return 1;
    }
    rc = dn != NULL ? bind_simple(ld, dn, password) : CMP_LDAP_SUCCESS;
    if (rc == CMP_LDAP_SUCCESS) {
        rc = walk_search(ld, argv[i + 2], argc - i == 4 ? &filter : NULL);
        if (rc < 0) rc = ld->ld_errno;
        printf("result: %d %s\n", rc, cmp_ldap_err2string(rc));
        if (rc == CMP_LDAP_REFERRAL && ld->ld_referral != NULL) {
            /* The referral's URL is not the handle's: take it, clear the field, free it. */
            char *url = ld->ld_referral;
            ld->ld_referral = NULL;
            printf("referral: %s\n", url);
            cmp_ldap_memfree(url);
        }
    } else {
        if (rc < 0) rc = ld->ld_errno;
        printf("bind: %d %s\n", rc, cmp_ldap_err2string(rc));
    }
    cmp_ldap_unbind(ld);
    return rc == CMP_LDAP_SUCCESS ? 0 : 1;
}
