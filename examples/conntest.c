/*
 * The connection test: open, simple bind and a look-up of one entry, reported as one
 * device result (0, or 0x5103xxxx saying which step failed and why). Synchronously,
 * or with --async on the library's own task, the result arriving through a callback.
 *
 *   example_conntest [-Z] [--async] HOST PORT DN PASSWORD BASE
 *
 * Prints "result: 0x........" and exits 0 when the test passed. Valid C99 and C++.
 */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cmp_ldap.h"

/* The callback runs on the test's task: hand its result to the waiting main. */
static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_reported = PTHREAD_COND_INITIALIZER;
static int g_done = 0;
static uint32_t g_result = 0;

static void on_result(uint32_t result)
{
    pthread_mutex_lock(&g_lock);
    g_result = result;
    g_done = 1;
    pthread_cond_signal(&g_reported);
    pthread_mutex_unlock(&g_lock);
}

static uint32_t run_async(const CMP_LDAP_TEST_PARAM *param)
{
    uint32_t started;
    /* The record must be the library's memory (cmp_ldap_malloc): a start that fails
     * after copying the parameters releases it. It is freed here only after a test
     * ran, so a failed start may leave its 8 bytes, never free them twice. */
    CMP_LDAP_ASYNC_TEST_ID *id =
        (CMP_LDAP_ASYNC_TEST_ID *)cmp_ldap_malloc("example_conntest", sizeof *id);
    if (id == NULL) return CMP_LDAP_TEST_NO_MEMORY;
    started = cmp_ldap_async_test(param, on_result, id);
    if (started != CMP_LDAP_TEST_OK) return started;
    /* The test has its own copy of param; cmp_ldap_async_test_cancel(id) would stop it. */
    pthread_mutex_lock(&g_lock);
    while (!g_done)
        pthread_cond_wait(&g_reported, &g_lock);
    pthread_mutex_unlock(&g_lock);
    cmp_ldap_memfree(id);
    return g_result;
}

static const char *meaning(uint32_t result)
{
    switch (result) {
        case CMP_LDAP_TEST_OK:
            return "passed";
        case CMP_LDAP_TEST_ADDRESS_ERROR:
            return "host name not resolved";
        case CMP_LDAP_TEST_INVALID_CREDENTIALS:
            return "invalid credentials";
        case CMP_LDAP_TEST_TLS_HANDSHAKE_ERROR:
            return "TLS handshake or certificate check failed";
        case CMP_LDAP_TEST_CONNECT_ERROR:
            return "connection refused or failed";
        case CMP_LDAP_TEST_TIMEOUT:
            return "no response in time";
        case CMP_LDAP_TEST_NO_SUCH_OBJECT:
            return "the base entry was not found";
        default:
            return "see cmp_ldap.h";
    }
}

int main(int argc, char **argv)
{
    CMP_LDAP_TEST_PARAM param;
    int async = 0, i = 1;
    uint32_t result;

    memset(&param, 0, sizeof param);
    for (; i < argc && argv[i][0] == '-'; ++i) {
        if (strcmp(argv[i], "-Z") == 0) {
            param.connparam.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
            param.connparam.ssl_auth = 1;
        } else if (strcmp(argv[i], "--async") == 0) {
            async = 1;
        } else {
            break;
        }
    }
    if (argc - i != 5) {
        fprintf(stderr, "usage: example_conntest [-Z] [--async] HOST PORT DN PASSWORD BASE\n");
        return 2;
    }
    param.connparam.cmp_ldap_hostname = argv[i];
    param.connparam.portno = atoi(argv[i + 1]);
    param.connparam.timeout = 10;
    param.dn = argv[i + 2];
    param.cred = argv[i + 3];
    param.method = CMP_LDAP_AUTH_SIMPLE;
    param.base = argv[i + 4];

    result = async ? run_async(&param) : cmp_ldap_test(&param);
    printf("result: 0x%08lx %s\n", (unsigned long)result, meaning(result));
    return result == CMP_LDAP_TEST_OK ? 0 : 1;
}
