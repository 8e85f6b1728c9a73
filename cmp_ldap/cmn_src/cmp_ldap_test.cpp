/*
 * The connection test: open, bind and a search of the base entry, reported as
 * one device result code. It runs on the caller's task (cmp_ldap_test) or on a
 * task of its own that reports through a callback and can be cancelled
 * (cmp_ldap_async_test).
 *
 * At most one asynchronous test runs at a time. Its state is process-wide and
 * shared between the caller's task, the test task and whoever cancels, so it is
 * read and written with the compiler's atomic builtins only.
 */
#include "cmp_ldap_internal.h"

uint32_t s_async_test_idle = 1;
uint32_t s_async_test_msem_id = 0;

namespace {

struct CMP_LDAP_TEST_RESULT_ROW {
    int32_t code;
    uint32_t device;
};

/* Searched from the top for the first equal code; the -1 row ends the search and
 * gives every other code. 280 stands after 282 on purpose, and the search stays
 * linear. */
constexpr CMP_LDAP_TEST_RESULT_ROW kResultMap[] = {
    {CMP_LDAP_SUCCESS, CMP_LDAP_TEST_OK},
    {CMP_LDAP_PROTOCOL_ERROR, CMP_LDAP_TEST_SERVER_ERROR},
    {CMP_LDAP_TIMELIMIT_EXCEEDED, CMP_LDAP_TEST_SERVER_ERROR},
    {CMP_LDAP_NO_SUCH_OBJECT, CMP_LDAP_TEST_NO_SUCH_OBJECT},
    {CMP_LDAP_INVALID_CREDENTIALS, CMP_LDAP_TEST_INVALID_CREDENTIALS},
    {CMP_LDAP_OTHER, CMP_LDAP_TEST_OTHER_ERROR},
    {CMP_LDAP_SERVER_DOWN, CMP_LDAP_TEST_SERVER_ERROR},
    {CMP_LDAP_DECODING_ERROR, CMP_LDAP_TEST_SERVER_ERROR},
    {CMP_LDAP_TIMEOUT, CMP_LDAP_TEST_TIMEOUT},
    {CMP_LDAP_USER_CANCELLED, CMP_LDAP_TEST_CANCELLED},
    {CMP_LDAP_PARAM_ERROR, CMP_LDAP_TEST_PARAM_ERROR},
    {CMP_LDAP_NO_MEMORY, CMP_LDAP_TEST_NO_MEMORY},
    {CMP_LDAP_TLS_INIT_ERROR_A, CMP_LDAP_TEST_TLS_INIT_ERROR},
    {CMP_LDAP_TLS_INIT_ERROR_B, CMP_LDAP_TEST_TLS_INIT_ERROR},
    {CMP_LDAP_TLS_VERIFY_ERROR, CMP_LDAP_TEST_TLS_HANDSHAKE_ERROR},
    {CMP_LDAP_TLS_HANDSHAKE_ERROR_A, CMP_LDAP_TEST_TLS_HANDSHAKE_ERROR},
    {CMP_LDAP_TLS_HANDSHAKE_ERROR_B, CMP_LDAP_TEST_TLS_HANDSHAKE_ERROR},
    {CMP_LDAP_TLS_HANDSHAKE_ERROR_C, CMP_LDAP_TEST_TLS_HANDSHAKE_ERROR},
    {CMP_LDAP_TLS_IO_ERROR, CMP_LDAP_TEST_TLS_IO_ERROR},
    {CMP_LDAP_TLS_INIT_ERROR_C, CMP_LDAP_TEST_TLS_INIT_ERROR},
    {CMP_LDAP_TLS_HANDSHAKE_ERROR_D, CMP_LDAP_TEST_TLS_HANDSHAKE_ERROR},
    {CMP_LDAP_TLS_ERROR, CMP_LDAP_TEST_TLS_HANDSHAKE_ERROR},
    {CMP_LDAP_ADDRESS_ERROR, CMP_LDAP_TEST_ADDRESS_ERROR},
    {CMP_LDAP_SOCKET_ERROR, CMP_LDAP_TEST_SOCKET_ERROR},
    {CMP_LDAP_CONNECT_ERROR, CMP_LDAP_TEST_CONNECT_ERROR},
    {CMP_LDAP_SASL_NO_HOST, CMP_LDAP_TEST_SASL_NO_HOST},
    {CMP_LDAP_KRB5_CCACHE_ERROR, CMP_LDAP_TEST_KRB5_CCACHE_ERROR},
    {CMP_LDAP_SASL_AUTH_FAILED, CMP_LDAP_TEST_INVALID_CREDENTIALS},
    {-1, CMP_LDAP_TEST_OTHER_ERROR},
};

const char kTaskName[] = "cmpldaptestconnect";
constexpr uint32_t kTaskStack = 32768;
constexpr int32_t kTaskPriority = -1;
/* The synchronous test opens with 0 and the task with its own value; only 1 would
 * consult the protocol setting, so a test runs whether LDAP is switched on or not. */
constexpr uint32_t kSyncOpen = 0;
constexpr uint32_t kTaskOpen = 2;
/* The probing search: the base entry itself, no attributes, at most one entry. */
const char kNoAttributes[] = "1.1";
constexpr int32_t kOneEntry = 1;

bool cmp_ldap_test_is_idle()
{
    return __atomic_load_n(&s_async_test_idle, __ATOMIC_ACQUIRE) != 0;
}

void cmp_ldap_test_set_idle()
{
    __atomic_store_n(&s_async_test_idle, 1u, __ATOMIC_RELEASE);
}

uint32_t cmp_ldap_test_mutex()
{
    return __atomic_load_n(&s_async_test_msem_id, __ATOMIC_ACQUIRE);
}

/* "name(): error. zelOSWxxx[0x0000000b]": an OS-wrapper call failed with rc. */
void cmp_ldap_test_os_error(const char *name, const char *call, int32_t rc)
{
    CMP_LDAP_LOG(rc, "%s(): error. %s[0x%08lx]\n", name, call,
                 static_cast<unsigned long>(static_cast<uint32_t>(rc)));
}

void cmp_ldap_test_delete_queue(const char *name, uint32_t msgq_id)
{
    int32_t rc = zelOSWDeleteMsgQueue(msgq_id);
    if (rc != 0) cmp_ldap_test_os_error(name, "zelOSWDeleteMsgQueue", rc);
}

/* Ends a session. When not even the UnbindRequest can be allocated, unbind leaves
 * the handle open; the connection is then taken down without it, so that a test
 * never leaves a connection behind. */
void cmp_ldap_test_close(CMP_LDAP *ld)
{
    if (ld == nullptr) return;
    if (cmp_ldap_unbind(ld) == CMP_LDAP_NO_MEMORY) {
        cmp_ldap_close_connection(ld);
        cmp_ldap_free(ld);
    }
}

/* A check point of the sequence: the synchronous test (no conninfo) is never
 * cancelled. */
int cmp_ldap_test_cancel_check(const CMP_LDAP_ASYNC_TEST_ID *conninfo)
{
    return conninfo == nullptr ? 0 : cmp_ldap_test_connection_cancel_receive(conninfo);
}

/* Whether the first entry of res has the base's DN, blanks aside (case counts):
 * 0, or the code for the result map. */
int cmp_ldap_test_check_entry(CMP_LDAP *ld, CMP_LDAP_MESSAGE *res, const char *base,
                              const char *name)
{
    CMP_LDAP_MESSAGE *entry = cmp_ldap_first_entry(ld, res);
    char *dn = entry == nullptr ? nullptr : cmp_ldap_get_dn(ld, entry);
    if (dn == nullptr) return CMP_LDAP_PROTOCOL_ERROR;
    char *found = cmp_ldap_strdup_without_space(dn);
    char *wanted = cmp_ldap_strdup_without_space(base);
    int rc = 0;
    if (found == nullptr || wanted == nullptr) {
        rc = CMP_LDAP_NO_MEMORY;
    } else if (strcmp(found, wanted) != 0) {
        CMP_LDAP_LOG(CMP_LDAP_NO_SUCH_OBJECT,
                     "%s(): CMP_LDAP_RES_SEARCH_ENTRY error.objname=%s,base=%s.\n", name, dn, base);
        rc = CMP_LDAP_NO_SUCH_OBJECT;
    }
    cmp_ldap_free(found);
    cmp_ldap_free(wanted);
    cmp_ldap_free(dn);
    return rc;
}

/* The sequence shared by both forms: open, bind, wait for the bind result, search
 * the base entry and check what comes back. Returns the device result and leaves
 * the session (NULL before a successful open) in *ldp for the caller to end.
 * conninfo is the task's identity in the asynchronous form, NULL otherwise. */
uint32_t cmp_ldap_test_run(const char *name, const CMP_LDAP_TEST_PARAM *param,
                           uint32_t check_protocol, const CMP_LDAP_ASYNC_TEST_ID *conninfo,
                           CMP_LDAP **ldp)
{
    *ldp = nullptr;
    int rc = cmp_ldap_test_cancel_check(conninfo);
    if (rc != 0) return cmp_ldap_test_device_result(rc);
    cmp_ldap_init();
    CMP_LDAP_CONN_PARAM connparam = {};
    connparam.cmp_ldap_hostname = param->connparam.cmp_ldap_hostname;
    connparam.portno = param->connparam.portno;
    connparam.timeout = param->connparam.timeout;
    connparam.ipv6 = param->connparam.ipv6;
    connparam.tls_mod = param->connparam.tls_mod;
    connparam.ssl_auth = param->connparam.ssl_auth;
    connparam.ssl_version = param->connparam.ssl_version;
    connparam.ssl_hash = param->connparam.ssl_hash;
    connparam.ssl_encrpt = param->connparam.ssl_encrpt;
    connparam.ssl_accepted_signature_algorithm = param->connparam.ssl_accepted_signature_algorithm;
    rc = cmp_ldap_open_with_timeout_main(&connparam, ldp, check_protocol);
    /* Not reaching the server in time is told apart from a later time-out. */
    if (rc == CMP_LDAP_TIMEOUT) return CMP_LDAP_TEST_CONNECT_TIMEOUT;
    if (rc != 0) return cmp_ldap_test_device_result(rc);
    CMP_LDAP *ld = *ldp;

    /* Every wait on a result takes the time-out in whole seconds; negative is none. */
    const int32_t timeout = param->connparam.timeout;
    const CMP_LDAP_TIMEVAL seconds = {timeout, 0};
    const CMP_LDAP_TIMEVAL *wait = timeout < 0 ? nullptr : &seconds;

    if ((rc = cmp_ldap_test_cancel_check(conninfo)) != 0) return cmp_ldap_test_device_result(rc);
    /* Only an asked-for layer touches the handle: the default path stays as it was. */
    if (param->method == CMP_LDAP_AUTH_SASL &&
        (param->sasl_min_ssf != 0 || param->sasl_max_ssf != 0)) {
        rc = cmp_ldap_set_sasl_ssf(ld, param->sasl_min_ssf, param->sasl_max_ssf);
        if (rc != 0) return cmp_ldap_test_device_result(rc);
    }
    int msgid =
        cmp_ldap_bind(ld, param->dn, param->cred, param->domain, param->ccname, param->method);
    if (msgid < 0) return cmp_ldap_test_device_result(ld->ld_errno);

    if ((rc = cmp_ldap_test_cancel_check(conninfo)) != 0) return cmp_ldap_test_device_result(rc);
    CMP_LDAP_MESSAGE *res = nullptr;
    if (cmp_ldap_result(ld, msgid, 0, wait, &res) < 0) {
        return cmp_ldap_test_device_result(ld->ld_errno);
    }
    /* The code stored in the handle is mapped, not the one returned; a failure
     * that left ld_errno 0 is therefore reported as success, by design. */
    if (cmp_ldap_result2error(ld, res, 1) != 0) return cmp_ldap_test_device_result(ld->ld_errno);

    if ((rc = cmp_ldap_test_cancel_check(conninfo)) != 0) return cmp_ldap_test_device_result(rc);
    if (param->base == nullptr || param->base[0] == '\0') return CMP_LDAP_TEST_OK;
    ld->ld_deref = CMP_LDAP_DEREF_ALWAYS;
    /* The server's time limit has no "none" below 0: a test without a time-out
     * asks for none (0) rather than being refused by the search's checks. */
    ld->ld_timelimit = timeout < 0 ? 0 : timeout;
    ld->ld_sizelimit = kOneEntry;
    msgid = cmp_ldap_search_tiny(ld, param->base, CMP_LDAP_SCOPE_BASE, nullptr, nullptr,
                                 kNoAttributes, 1);
    if (msgid < 0) return cmp_ldap_test_device_result(ld->ld_errno);

    if ((rc = cmp_ldap_test_cancel_check(conninfo)) != 0) {
        if (rc == CMP_LDAP_USER_CANCELLED) (void)cmp_ldap_abandon(ld, msgid);
        return cmp_ldap_test_device_result(rc);
    }
    int32_t entry_count = 0;
    rc = cmp_ldap_test_check_search_result(ld, msgid, wait, param->base, &entry_count);
    if (rc != 0) return cmp_ldap_test_device_result(rc);
    if (entry_count != kOneEntry) {
        CMP_LDAP_LOG(-1, "%s(): number of entries is not proper.entry_count=%d.\n", name,
                     (int)entry_count);
        return CMP_LDAP_TEST_NO_SUCH_OBJECT;
    }
    return CMP_LDAP_TEST_OK;
}

/* The task's entry: the parameter copy, the callback and the identity block. */
void cmp_ldap_test_connection_task(void *param, void *result_callback, void *conninfo, void *,
                                   void *, void *, void *, void *, void *, void *)
{
    cmp_ldap_test_connection(static_cast<CMP_LDAP_TEST_PARAM *>(param),
                             reinterpret_cast<CMP_LDAP_TEST_CALLBACK>(result_callback),
                             static_cast<CMP_LDAP_ASYNC_TEST_ID *>(conninfo));
}

}  // namespace

uint32_t cmp_ldap_test_device_result(int32_t code)
{
    const CMP_LDAP_TEST_RESULT_ROW *row = kResultMap;
    while (row->code != -1 && row->code != code)
        ++row;
    return row->device;
}

/* ------------------------------------------------------------------------
 * Parameters
 * ---------------------------------------------------------------------- */

CMP_LDAP_TEST_PARAM *cmp_ldap_test_copy_param(const CMP_LDAP_TEST_PARAM *param)
{
    static const char kName[] = "cmp_ldap_test_copy_param";
    if (param == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error.\n", kName);
        return nullptr;
    }
    auto *copy =
        static_cast<CMP_LDAP_TEST_PARAM *>(cmp_ldap_malloc(kName, sizeof(CMP_LDAP_TEST_PARAM)));
    if (copy == nullptr) return nullptr;
    memset(copy, 0, sizeof(*copy));

    /* A failed copy does not stop the others; the partial record is dropped at the end. */
    int rc = 0;
    auto dup = [&rc](const char *text, char **to) {
        if (text == nullptr) return;
        *to = cmp_ldap_strdup(text);
        if (*to == nullptr) rc = CMP_LDAP_NO_MEMORY;
    };
    dup(param->connparam.cmp_ldap_hostname, &copy->connparam.cmp_ldap_hostname);
    dup(param->dn, &copy->dn);
    dup(param->cred, &copy->cred);
    dup(param->domain, &copy->domain);
    dup(param->ccname, &copy->ccname);
    dup(param->base, &copy->base);

    copy->connparam.portno = param->connparam.portno;
    copy->connparam.timeout = param->connparam.timeout;
    copy->connparam.ipv6 = param->connparam.ipv6;
    copy->connparam.tls_mod = param->connparam.tls_mod;
    copy->connparam.ssl_auth = param->connparam.ssl_auth;
    copy->connparam.ssl_version = param->connparam.ssl_version;
    copy->connparam.ssl_hash = param->connparam.ssl_hash;
    copy->connparam.ssl_encrpt = param->connparam.ssl_encrpt;
    copy->connparam.ssl_accepted_signature_algorithm =
        param->connparam.ssl_accepted_signature_algorithm;
    copy->method = param->method;
    copy->sasl_min_ssf = param->sasl_min_ssf;
    copy->sasl_max_ssf = param->sasl_max_ssf;

    if (rc != 0) {
        cmp_ldap_test_free_param(copy);
        return nullptr;
    }
    return copy;
}

void cmp_ldap_test_free_param(CMP_LDAP_TEST_PARAM *param)
{
    if (param == nullptr) return;
    cmp_ldap_free(param->connparam.cmp_ldap_hostname);
    cmp_ldap_free(param->dn);
    cmp_ldap_free(param->cred);
    cmp_ldap_free(param->domain);
    cmp_ldap_free(param->ccname);
    cmp_ldap_free(param->base);
    cmp_ldap_free(param);
}

/* ------------------------------------------------------------------------
 * The sequence
 * ---------------------------------------------------------------------- */

uint32_t cmp_ldap_test(const CMP_LDAP_TEST_PARAM *param)
{
    static const char kName[] = "cmp_ldap_test";
    if (param == nullptr) {
        /* A library code, not a device result: kept so. */
        CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR, "%s(): parameter error.param=NULL.\n", kName);
        return CMP_LDAP_PARAM_ERROR;
    }
    CMP_LDAP *ld = nullptr;
    uint32_t result = cmp_ldap_test_run(kName, param, kSyncOpen, nullptr, &ld);
    /* Every path ends the session, a wrong number of entries too. */
    cmp_ldap_test_close(ld);
    return result;
}

int cmp_ldap_test_check_search_result(CMP_LDAP *ld, int32_t msgid, const CMP_LDAP_TIMEVAL *timeout,
                                      const char *base, int32_t *entry_count)
{
    static const char kName[] = "cmp_ldap_test_check_search_result";
    for (;;) {
        CMP_LDAP_MESSAGE *res = nullptr;
        int type = cmp_ldap_result(ld, msgid, 0, timeout, &res);
        if (type < 0) return ld->ld_errno;
        if (type == CMP_LDAP_RES_SEARCH_ENTRY && res == nullptr) {
            CMP_LDAP_LOG(CMP_LDAP_PROTOCOL_ERROR,
                         "%s(): CMP_LDAP_RES_SEARCH_ENTRY error.mes=NULL.\n", kName);
            return CMP_LDAP_PROTOCOL_ERROR;
        }
        int rc = 0;
        if (type == CMP_LDAP_RES_SEARCH_ENTRY) {
            rc = cmp_ldap_test_check_entry(ld, res, base, kName);
            if (rc == 0) ++*entry_count;
        } else if (type != CMP_LDAP_RES_SEARCH_RESULT && type != CMP_LDAP_RES_SEARCH_REFERENCE) {
            CMP_LDAP_LOG(CMP_LDAP_PROTOCOL_ERROR,
                         "%s(): cmp_ldap_result search other case.rc=%d.\n", kName, type);
            rc = CMP_LDAP_PROTOCOL_ERROR;
        }
        /* Every message goes back, whatever it held; a SearchResultDone ends the
         * search without its code being looked at. */
        if (res != nullptr) (void)cmp_ldap_msgfree(res);
        if (rc != 0 || type == CMP_LDAP_RES_SEARCH_RESULT) return rc;
    }
}

/* ------------------------------------------------------------------------
 * The asynchronous test
 * ---------------------------------------------------------------------- */

void cmp_ldap_test_connection(CMP_LDAP_TEST_PARAM *param, CMP_LDAP_TEST_CALLBACK result_callback,
                              CMP_LDAP_ASYNC_TEST_ID *conninfo)
{
    CMP_LDAP *ld = nullptr;
    uint32_t result =
        cmp_ldap_test_run("cmp_ldap_test_connection", param, kTaskOpen, conninfo, &ld);
    cmp_ldap_test_connection_finish(param, result_callback, conninfo, ld, result);
}

void cmp_ldap_test_connection_finish(CMP_LDAP_TEST_PARAM *param,
                                     CMP_LDAP_TEST_CALLBACK result_callback,
                                     CMP_LDAP_ASYNC_TEST_ID *conninfo, CMP_LDAP *ld,
                                     uint32_t result)
{
    static const char kName[] = "cmp_ldap_test_connection_finish";
    cmp_ldap_test_close(ld);
    /* Still counted as running: a test started from the callback is refused. */
    result_callback(result);

    uint32_t mutex = cmp_ldap_test_mutex();
    int32_t rc = zelOSWRequestMutexSem(mutex, ZELOSW_WAIT_FOREVER);
    if (rc != 0) {
        /* Without the mutex nothing orders this end against a cancel, nor against a
         * start still copying the task id out of the block freed below. */
        cmp_ldap_test_os_error(kName, "zelOSWRequestMutexSem", rc);
        cmp_ldap_test_set_idle();
    } else {
        /* Under the mutex a cancel sees either a running test with its queue or a
         * finished one, never a deleted queue. */
        cmp_ldap_test_delete_queue(kName, conninfo->msgq_id);
        cmp_ldap_test_set_idle();
        rc = zelOSWReleaseMutexSem(mutex);
        if (rc != 0) cmp_ldap_test_os_error(kName, "zelOSWReleaseMutexSem", rc);
    }
    cmp_ldap_test_free_param(param);
    cmp_ldap_free(conninfo);
    zelOSWExitTask(0);
}

int cmp_ldap_test_connection_cancel_receive(const CMP_LDAP_ASYNC_TEST_ID *conninfo)
{
    static const char kName[] = "cmp_ldap_test_connection_cancel_receive";
    CMP_LDAP_ASYNC_TEST_ID message = {0, 0};
    int32_t rc = zelOSWReceiveMsgQueue(conninfo->msgq_id, &message, sizeof(message), 0);
    if (rc == ZELOSW_NO_MESSAGE) return 0;
    if (rc == 0 && message.task_id == conninfo->task_id && message.msgq_id == conninfo->msgq_id) {
        return CMP_LDAP_USER_CANCELLED;
    }
    cmp_ldap_test_os_error(kName, "zelOSWReceiveMsgQueue", rc);
    return -1;
}

uint32_t cmp_ldap_async_test(const CMP_LDAP_TEST_PARAM *param,
                             CMP_LDAP_TEST_CALLBACK result_callback,
                             CMP_LDAP_ASYNC_TEST_ID *conninfo)
{
    static const char kName[] = "cmp_ldap_async_test";
    if (param == nullptr || result_callback == nullptr || conninfo == nullptr) {
        CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR,
                     "%s(): parameter error.param=%p,result_callback=%p,conninfo=%p.\n", kName,
                     (const void *)param, reinterpret_cast<void *>(result_callback),
                     (void *)conninfo);
        return CMP_LDAP_PARAM_ERROR;
    }
    /* Tested and set in one step, without a lock. */
    uint32_t idle = 1;
    if (!__atomic_compare_exchange_n(&s_async_test_idle, &idle, 0u, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE)) {
        CMP_LDAP_LOG(-1, "%s(): error. nts_cls_async_test is executing now.\n", kName);
        return CMP_LDAP_TEST_OTHER_ERROR;
    }
    int32_t rc = zelOSWCreateMsgQueue(&conninfo->msgq_id, 1, sizeof(*conninfo), 0);
    if (rc != 0) {
        cmp_ldap_test_os_error(kName, "zelOSWCreateMsgQueue", rc);
        cmp_ldap_test_set_idle();
        return CMP_LDAP_TEST_OTHER_ERROR;
    }

    const uint32_t queue = conninfo->msgq_id;
    CMP_LDAP_ASYNC_TEST_ID *block = nullptr;
    CMP_LDAP_TEST_PARAM *copy = nullptr;
    /* Once the parameters were to be copied, a failed start releases the caller's
     * record (which must therefore come from the OS wrapper's memory), as designed;
     * the task's own block is released as well. */
    auto fail = [&](uint32_t result, bool release_conninfo) {
        cmp_ldap_test_delete_queue(kName, queue);
        cmp_ldap_test_free_param(copy);
        if (release_conninfo) cmp_ldap_free(conninfo);
        cmp_ldap_free(block);
        cmp_ldap_test_set_idle();
        return result;
    };

    uint32_t mutex = cmp_ldap_test_mutex();
    if (mutex == 0) {
        rc = zelOSWCreateMutexSem(&mutex, 0, 1);
        if (rc != 0) {
            cmp_ldap_test_os_error(kName, "zelOSWCreateMutexSem", rc);
            return fail(CMP_LDAP_TEST_OTHER_ERROR, false);
        }
        __atomic_store_n(&s_async_test_msem_id, mutex, __ATOMIC_RELEASE);
    }
    block = static_cast<CMP_LDAP_ASYNC_TEST_ID *>(cmp_ldap_malloc(kName, sizeof(*block)));
    if (block == nullptr) return fail(CMP_LDAP_TEST_NO_MEMORY, false);
    *block = *conninfo;
    copy = cmp_ldap_test_copy_param(param);
    if (copy == nullptr) return fail(CMP_LDAP_TEST_NO_MEMORY, true);

    /* The task frees its block when it ends, which can be before this task runs
     * again; holding the mutex that the end takes first keeps the block alive
     * until its task id has been copied back. */
    rc = zelOSWRequestMutexSem(mutex, ZELOSW_WAIT_FOREVER);
    if (rc != 0) {
        cmp_ldap_test_os_error(kName, "zelOSWRequestMutexSem", rc);
        return fail(CMP_LDAP_TEST_OTHER_ERROR, true);
    }
    rc = zelOSWCreateJoinTask(&block->task_id, kTaskName, kTaskPriority, kTaskStack,
                              cmp_ldap_test_connection_task, 0, copy,
                              reinterpret_cast<void *>(result_callback), block, nullptr, nullptr,
                              nullptr, nullptr, nullptr, nullptr, nullptr);
    if (rc == 0) {
        *conninfo = *block;
    } else {
        cmp_ldap_test_os_error(kName, "zelOSWCreateJoinTask", rc);
    }
    int32_t released = zelOSWReleaseMutexSem(mutex);
    if (released != 0) cmp_ldap_test_os_error(kName, "zelOSWReleaseMutexSem", released);
    if (rc != 0) return fail(CMP_LDAP_TEST_OTHER_ERROR, true);
    return CMP_LDAP_TEST_OK;
}

uint32_t cmp_ldap_async_test_cancel(const CMP_LDAP_ASYNC_TEST_ID *conninfo)
{
    static const char kName[] = "cmp_ldap_async_test_cancel";
    if (conninfo == nullptr) {
        CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR, "%s(): parameter error.conninfo=NULL.\n", kName);
        return CMP_LDAP_PARAM_ERROR;
    }
    uint32_t mutex = cmp_ldap_test_mutex();
    if (mutex == 0) {
        CMP_LDAP_LOG(-1, "%s(): error. s_async_test_msem_id is NULL.\n", kName);
        return CMP_LDAP_TEST_OTHER_ERROR;
    }
    int32_t rc = zelOSWRequestMutexSem(mutex, ZELOSW_WAIT_FOREVER);
    if (rc != 0) {
        cmp_ldap_test_os_error(kName, "zelOSWRequestMutexSem", rc);
        return CMP_LDAP_TEST_OTHER_ERROR;
    }
    uint32_t result = CMP_LDAP_TEST_OK;
    /* A finished test has no queue any more: nothing is sent then. */
    if (!cmp_ldap_test_is_idle()) {
        rc = zelOSWSendMsgQueue(conninfo->msgq_id, conninfo, sizeof(*conninfo), 0, 0);
        if (rc != 0) {
            cmp_ldap_test_os_error(kName, "zelOSWSendMsgQueue", rc);
            result = CMP_LDAP_TEST_OTHER_ERROR;
        }
    }
    rc = zelOSWReleaseMutexSem(mutex);
    if (rc != 0) {
        cmp_ldap_test_os_error(kName, "zelOSWReleaseMutexSem", rc);
        result = CMP_LDAP_TEST_OTHER_ERROR;
    }
    return result;
}
