/*
 * SASL bind: one BindRequest/BindResponse step over the session, the host name
 * of the connected peer for the SASL client, and the interactive bind that runs
 * a whole GSSAPI conversation on a task of its own, one bind at a time in the
 * process.
 */
#include <netdb.h>
#include <sasl/sasl.h>
#include <sys/socket.h>

#include <atomic>

#include "cmp_ldap_sasl_internal.h"

namespace {

constexpr uint8_t kTagServerSaslCreds = 0x87; /* [7], context, primitive */
constexpr uint32_t kResultReferral = 10;
constexpr int32_t kMinimumResponse = 6; /* octets of the smallest message worth decoding */
constexpr socklen_t kPeerAddressSize = 128;
constexpr socklen_t kHostSize = 1025;
constexpr uint32_t kTaskStack = 32768;
constexpr int32_t kTaskDefault = -1; /* the OS wrapper's default priority and options */

/* The bind mutex, created once under the task-switch lock and kept for the process.
 * The flag is read once without the lock, hence atomic. */
std::atomic<uint32_t> s_sasl_mutex_created{0};
uint32_t s_sasl_mutex_id = 0;

/* What the task reads. All of it lives in the waiting caller's frame, which
 * outlasts the task because the caller joins it. */
struct CMP_LDAP_SASL_AUTH_ARGS {
    CMP_LDAP *ld;
    sasl_security_properties_t secprops;
    const char *userid;
    const char *domain;
    const char *ccname;
    int32_t msgid; /* the final BindRequest's id, -1 until a bind succeeds */
};

/* Sends one SASL BindRequest; 0, or -1 with ld_errno as the failure left it. */
int cmp_ldap_sasl_send(CMP_LDAP *ld, int32_t msgid, const char *mechanism,
                       const CMP_LDAP_SASL_CRED *cred)
{
    static const char kName[] = "cmp_ldap_sasl_bind";
    uint32_t len = cmp_ldap_get_sasl_bind_request_message_length(ld, mechanism, cred);
    if (len == 0) {
        /* The encoder cannot carry credentials this long (16 MiB or more). */
        ld->ld_errno = CMP_LDAP_PARAM_ERROR;
        return -1;
    }
    auto *buf = static_cast<unsigned char *>(cmp_ldap_malloc(kName, len));
    if (buf == nullptr) {
        ld->ld_errno = CMP_LDAP_NO_MEMORY;
        return -1;
    }
    cmp_ldap_ber_encode_sasl_bind_request(ld, mechanism, cred, buf);
    CMP_LDAP_TRACE("%s(): msgid=%d\n", kName, msgid);
    CMP_LDAP_SEND_BUF sb;
    sb.data = buf;
    sb.len = len;
    int rc = cmp_ldap_send_berdata(ld, &sb);
    cmp_ldap_free(buf);
    return rc < 0 ? -1 : 0;
}

/* Reads the serverSaslCreds of a BindResponse into a new block (NULL when a final
 * response has none). Returns 0, or the failure's code for ld_errno. */
int cmp_ldap_parse_sasl_bind_result(const CMP_LDAP_MESSAGE *res, CMP_LDAP_SASL_CRED **creds)
{
    static const char kName[] = "cmp_ldap_parse_sasl_bind_result";
    const int32_t total = res->cmp_ldap_total_size;
    *creds = nullptr;
    if (total < kMinimumResponse) {
        CMP_LDAP_LOG(CMP_LDAP_SASL_RESULT_ERROR,
                     "%s(): total_size parameter error (total_size=%ld,res=%p,freeit=%d).\n", kName,
                     (long)total, (const void *)res, 0);
        return CMP_LDAP_SASL_RESULT_ERROR;
    }
    CMP_LDAP_MESSAGE_REC rec;
    if (cmp_ldap_ber_decode_ldap_message(res, &rec) < 0) {
        CMP_LDAP_LOG(CMP_LDAP_SASL_RESULT_ERROR, "%s(): Failed to get CMP_LDAP_MESSAGE.\n", kName);
        return CMP_LDAP_SASL_RESULT_ERROR;
    }
    if (rec.application != CMP_LDAP_RES_BIND) {
        CMP_LDAP_LOG(CMP_LDAP_SASL_ERROR, "%s(): Illegal message (application=%d).\n", kName,
                     rec.application);
        return CMP_LDAP_SASL_ERROR;
    }

    /* resultCode, then matchedDN and errorMessage, which only have to be readable. */
    const char *failed = nullptr;
    uint32_t code = 0;
    char *text = nullptr;
    uint32_t pos = cmp_ldap_ber_get_content(res, rec.pos);
    if (pos == CMP_LDAP_POS_ERROR) {
        failed = "%s(): Failed to get BindResponse.\n";
    } else if ((pos = cmp_ldap_ber_decode_enum(res, (int32_t)pos, &code)) == CMP_LDAP_POS_ERROR) {
        failed = "%s(): Failed to get resultCode.\n";
    } else if ((pos = cmp_ldap_ber_decode_string(res, (int32_t)pos, &text)) == CMP_LDAP_POS_ERROR) {
        failed = "%s(): Failed to get matchedDN.\n";
    } else {
        cmp_ldap_free(text);
        pos = cmp_ldap_ber_decode_string(res, (int32_t)pos, &text);
        if (pos == CMP_LDAP_POS_ERROR) failed = "%s(): Failed to get errorMessage.\n";
    }
    cmp_ldap_free(text);
    if (failed != nullptr) {
        CMP_LDAP_LOG(CMP_LDAP_SASL_RESULT_ERROR, failed, kName);
        return CMP_LDAP_SASL_RESULT_ERROR;
    }

    if (code == kResultReferral) {
        /* Only the first URL is consumed, and [3] must have a one-octet length:
         * deliberate limits of this reader. */
        int64_t first_url = (int64_t)pos + 2;
        if (first_url >= total) {
            CMP_LDAP_LOG(CMP_LDAP_SASL_RESULT_ERROR,
                         "%s(): Failed to get referral. Illegal length (content size=%ld).\n",
                         kName, (long)first_url);
            return CMP_LDAP_SASL_RESULT_ERROR;
        }
        pos = cmp_ldap_ber_decode_string(res, (int32_t)first_url, &text);
        cmp_ldap_free(text);
        if (pos == CMP_LDAP_POS_ERROR) {
            CMP_LDAP_LOG(CMP_LDAP_SASL_RESULT_ERROR, "%s(): Failed to get referral.\n", kName);
            return CMP_LDAP_SASL_RESULT_ERROR;
        }
    }

    /* A response that ends here has no serverSaslCreds. That is only wrong while the
     * bind is in progress: a final result may leave them out (slapd does, on every
     * success), and so may a refusal, whose code is worth more than a 284. */
    if ((int64_t)pos >= (int64_t)total && code != CMP_LDAP_SASL_BIND_IN_PROGRESS) return 0;
    uint8_t tag = cmp_ldap_ber_get_tag(res, (int32_t)pos);
    long shown_len = -1;
    if (tag == kTagServerSaslCreds) {
        uint32_t len = cmp_ldap_ber_get_content_length(res, (int32_t)pos);
        uint32_t content = cmp_ldap_ber_get_content(res, (int32_t)pos);
        shown_len = (long)(int32_t)len;
        if (len != CMP_LDAP_POS_ERROR && content != CMP_LDAP_POS_ERROR &&
            (int64_t)content + (int64_t)len <= (int64_t)total) {
            /* GSSAPI tokens are binary and read by their length: no text sentinel. */
            auto *c = static_cast<CMP_LDAP_SASL_CRED *>(
                cmp_ldap_malloc(kName, len + (uint32_t)sizeof(uint32_t)));
            if (c == nullptr) return CMP_LDAP_NO_MEMORY;
            c->total_size = len;
            memcpy(c->data, cmp_ldap_pdu(res) + content, len);
            *creds = c;
            return 0;
        }
    }
    CMP_LDAP_LOG(CMP_LDAP_SASL_RESULT_ERROR,
                 "%s(): Failed to get serverSaslCreds. tag=0x%02x,len=%ld,nextPos=%ld,"
                 "total_size=%ld.\n",
                 kName, (unsigned)tag, shown_len, (long)(int32_t)pos, (long)total);
    return CMP_LDAP_SASL_RESULT_ERROR;
}

/* ---- the bind mutex ---- */

int cmp_ldap_sasl_init_mutex(CMP_LDAP *ld)
{
    static const char kName[] = "cmp_ldap_sasl_init_mutex";
    if (s_sasl_mutex_created.load(std::memory_order_acquire) != 0) return 0;
    int32_t rc = zelOSWLockTask();
    if (rc != 0) {
        CMP_LDAP_LOG(CMP_LDAP_SASL_TASK_ERROR, "%s() zelOSWLockTask() Error: Error=%ld.\n", kName,
                     (long)rc);
        ld->ld_errno = CMP_LDAP_SASL_TASK_ERROR;
        return -1;
    }
    if (s_sasl_mutex_created.load(std::memory_order_relaxed) == 0) {
        /* Its result is deliberately not checked: a mutex that could not be made
         * shows when it is taken. */
        (void)zelOSWCreateMutexSem(&s_sasl_mutex_id, 0, 1);
        s_sasl_mutex_created.store(1, std::memory_order_release);
    }
    rc = zelOSWUnlockTask();
    if (rc != 0) {
        CMP_LDAP_LOG(CMP_LDAP_SASL_TASK_ERROR, "%s() zelOSWUnlockTask() Error: Error=%ld.\n", kName,
                     (long)rc);
        ld->ld_errno = CMP_LDAP_SASL_TASK_ERROR;
        return -1;
    }
    return 0;
}

int cmp_ldap_sasl_lock_mutex(CMP_LDAP *ld)
{
    static const char kName[] = "cmp_ldap_sasl_lock_mutex";
    int32_t rc = zelOSWRequestMutexSem(s_sasl_mutex_id, ZELOSW_WAIT_FOREVER);
    if (rc != 0) {
        CMP_LDAP_LOG(CMP_LDAP_SASL_TASK_ERROR, "%s() zelOSWRequestMutexSem() Error: Error=%ld.\n",
                     kName, (long)rc);
        ld->ld_errno = CMP_LDAP_SASL_TASK_ERROR;
        return -1;
    }
    return 0;
}

/* The result of the whole bind: its message id once the mutex is released. */
int cmp_ldap_sasl_unlock_mutex(CMP_LDAP *ld, int32_t msgid)
{
    static const char kName[] = "cmp_ldap_sasl_unlock_mutex";
    int32_t rc = zelOSWReleaseMutexSem(s_sasl_mutex_id);
    if (rc == 0) return msgid;
    CMP_LDAP_LOG(CMP_LDAP_SASL_TASK_ERROR, "%s() zelOSWReleaseMutexSem() Error: Error=%ld.\n",
                 kName, (long)rc);
    /* A failed bind keeps its own reason. */
    if (msgid != -1) ld->ld_errno = CMP_LDAP_SASL_TASK_ERROR;
    return -1;
}

/* Runs the bind on its task and waits for the task's end. */
void cmp_ldap_int_sasl_bind_task(CMP_LDAP_SASL_AUTH_ARGS *args)
{
    static const char kName[] = "cmp_ldap_int_sasl_bind_task";
    uint32_t task = 0;
    int32_t rc = zelOSWCreateJoinTask(
        &task, "CMP_LDAP_SASL", kTaskDefault, kTaskStack, cmp_ldap_sasl_bind_task_main,
        kTaskDefault, args->ld, &args->secprops, const_cast<char *>(args->userid),
        const_cast<char *>(args->domain), const_cast<char *>(args->ccname), &args->msgid, nullptr,
        nullptr, nullptr, nullptr);
    if (rc != 0) {
        /* The line names the plain create operation; log readers know it so. */
        CMP_LDAP_LOG(CMP_LDAP_TLS_ERROR,
                     "%s(): zelOSWCreateTask() error(rc=%lx).SASL thread not create.\n", kName,
                     (unsigned long)(uint32_t)rc);
        args->msgid = -1;
        args->ld->ld_errno = CMP_LDAP_TLS_ERROR;
        return;
    }
    /* The task reads the caller's frame until it ends, so a failed wait is tried
     * again rather than returning under its feet. */
    while ((rc = zelOSWWaitTask(task, ZELOSW_WAIT_FOREVER)) != 0) {
        CMP_LDAP_LOG(-1, "%s() zelOSWWaitTask() Error: Error=%ld.\n", kName, (long)rc);
    }
}

}  // namespace

/* ======================================================================
 * One bind step
 * ==================================================================== */

int cmp_ldap_sasl_bind_s(CMP_LDAP *ld, const char *mechanism, const CMP_LDAP_SASL_CRED *cred,
                         CMP_LDAP_SASL_CRED **servercredp, int32_t *msgidp)
{
    static const char kName[] = "cmp_ldap_sasl_bind";
    CMP_LDAP_ASSERT(nullptr != ld, "((void *)0) != ld", CMP_LDAP_SRC_SASL);
    CMP_LDAP_ASSERT(nullptr != msgidp, "((void *)0) != msgid", CMP_LDAP_SRC_SASL);
    if (servercredp != nullptr) *servercredp = nullptr;
    if (mechanism == nullptr || cred == nullptr) {
        /* Refused before an id is taken, like every request that fails its checks. */
        *msgidp = -1;
        ld->ld_errno = CMP_LDAP_PARAM_ERROR;
        CMP_LDAP_LOG(CMP_LDAP_PARAM_ERROR, "%s(): parameter error (either of mechanism, cred).\n",
                     kName);
        return CMP_LDAP_PARAM_ERROR;
    }

    int32_t msgid = cmp_ldap_get_new_message_id(ld);
    *msgidp = msgid;
    if (cmp_ldap_sasl_send(ld, msgid, mechanism, cred) != 0) {
        *msgidp = -1;
        msgid = -1;
        if (ld->ld_errno != 0) {
            (void)cmp_ldap_gentrace_ld(kName, ld);
            CMP_LDAP_LOG(ld->ld_errno, "%s(): mechanism=%.64s,cred.total_size=%ld.\n", kName,
                         mechanism, (long)cred->total_size);
            return ld->ld_errno;
        }
        /* A failed send that left no reason waits for any response; kept as it is. */
    }

    CMP_LDAP_TIMEVAL tv;
    tv.tv_sec = ld->ld_sock_timeout / 1000;
    tv.tv_usec = 0;
    CMP_LDAP_MESSAGE *res = nullptr;
    int type = cmp_ldap_result(ld, msgid, 0, ld->ld_sock_timeout < 0 ? nullptr : &tv, &res);
    if (type == -1 || res == nullptr) return ld->ld_errno;

    CMP_LDAP_SASL_CRED *creds = nullptr;
    if (servercredp != nullptr) {
        int rc = cmp_ldap_parse_sasl_bind_result(res, &creds);
        if (rc != 0) {
            ld->ld_errno = rc;
            cmp_ldap_free(res);
            return rc;
        }
    }

    int code = cmp_ldap_result2error(ld, res, 1);
    if (code != -1) {
        ld->ld_sasl_msgid = msgid;
        ld->ld_sasl_rc = code;
    }
    if (servercredp != nullptr &&
        (code == CMP_LDAP_SUCCESS || code == CMP_LDAP_SASL_BIND_IN_PROGRESS)) {
        *servercredp = creds;
    } else {
        cmp_ldap_free(creds);
    }
    return code;
}

char *cmp_ldap_host_connected_to(CMP_LDAP *ld, const char *defhost)
{
    static const char kName[] = "cmp_ldap_host_connected_to";
    unsigned char peer[kPeerAddressSize];
    memset(peer, 0, sizeof peer);
    socklen_t len = kPeerAddressSize;
    auto *sa = reinterpret_cast<struct sockaddr *>(peer);
    if (ld == nullptr || getpeername(ld->ld_sockfd, sa, &len) == -1) {
        CMP_LDAP_LOG(-1, "%s(): getpeername() error.\n", kName);
        return nullptr;
    }
    char host[kHostSize];
    host[0] = '\0';
    /* A name is required: a bare address would make a wrong service principal. */
    char *name = nullptr;
    if (getnameinfo(sa, len, host, kHostSize, nullptr, 0, NI_NAMEREQD) == 0 && host[0] != '\0')
        name = cmp_ldap_strdup(host);
    if (name == nullptr && defhost != nullptr) name = cmp_ldap_strdup(defhost);
    return name;
}

/* ======================================================================
 * The interactive bind and its task
 * ==================================================================== */

void cmp_ldap_sasl_bind_task_main(void *ld, void *secprops, void *userid, void *domain,
                                  void *ccname, void *msgidp, void *, void *, void *, void *)
{
    auto *session = static_cast<CMP_LDAP *>(ld);
    auto *msgid = static_cast<int32_t *>(msgidp);
    if (cmp_ldap_int_sasl_bind(session, static_cast<const sasl_security_properties_t *>(secprops),
                               static_cast<const char *>(userid), static_cast<const char *>(domain),
                               static_cast<const char *>(ccname), msgid) != 0 ||
        !cmp_ldap_sasl_layer_install(session))
        *msgid = -1;
    /* No SASL context outlives the bind but the security layer it put in force. */
    cmp_ldap_int_sasl_close(session);
    zelOSWExitTask(0);
}

int cmp_ldap_sasl_interactive_bind_s(CMP_LDAP *ld, const char *userid, const char *domain,
                                     const char *ccname)
{
    static const char kName[] = "cmp_ldap_sasl_interactive_bind_s";
    if (ld == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (ld=NULL).\n", kName);
        return -1;
    }
    if (cmp_ldap_sasl_init_mutex(ld) != 0 || cmp_ldap_sasl_lock_mutex(ld) != 0) return -1;

    CMP_LDAP_SASL_AUTH_ARGS args;
    args.ld = ld;
    args.userid = userid;
    args.domain = domain;
    args.ccname = ccname;
    args.msgid = -1;
    int rc = cmp_ldap_int_sasl_secprops(&args.secprops);
    const CMP_LDAP_SASL_LAYER *layer = cmp_ldap_sasl_layer(ld);
    if (rc == 0 && layer != nullptr) {
        args.secprops.min_ssf = layer->min_ssf;
        args.secprops.max_ssf = layer->max_ssf;
    }
    if (rc != 0) {
        ld->ld_errno = rc;
    } else {
        cmp_ldap_int_sasl_bind_task(&args);
    }
    return cmp_ldap_sasl_unlock_mutex(ld, args.msgid);
}

void cmp_ldap_sasl_forget_mutex(void)
{
    s_sasl_mutex_created.store(0);
    s_sasl_mutex_id = 0;
}
