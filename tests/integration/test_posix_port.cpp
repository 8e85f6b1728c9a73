/* The POSIX port on loopback only: sockets (whole PDUs among them), OS wrapper, log,
 * settings, and the TLS wrapper against an in-process OpenSSL server with certificates
 * made here. */
#include <fcntl.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <signal.h>

#include <array>
#include <chrono>
#include <numeric>
#include <thread>

#include "cmp_dbglog.h"
#include "cmp_ldap_posix.h"
#include "cmp_netsock.h"
#include "ent_set.h"
#include "osl_scr_ssl_wrp.h"
#include "support.h"
#include "zelOSW.h"

namespace {

using namespace std::literals;
using Clock = std::chrono::steady_clock;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
const auto ms_since = [](Clock::time_point t) { return (Clock::now() - t) / 1ms; };
using integ::Listener;

/* Sets (nullptr: unsets) one variable for the scope and makes the port read it again. */
struct ScopedEnv {
    const char *name;
    ScopedEnv(const char *n, const char *v) : name(n)
    {
        v ? setenv(n, v, 1) : unsetenv(n);
        cmp_ldap_posix_reload_env();
    }
    ~ScopedEnv()
    {
        unsetenv(name);
        cmp_ldap_posix_reload_env();
    }
};

/* Resolves the name and connects through the port, as the core does; -1 on failure. */
int port_connect(const char *name, int port)
{
    addrinfo hints{}, *res = nullptr;
    hints.ai_family = AF_INET;
    if (cmp_netsock_getaddrinfo(name, nullptr, &hints, &res) != 0) return -1;
    sockaddr_in sin = *(sockaddr_in *)res->ai_addr;
    cmp_netsock_freeaddrinfo(res);
    sin.sin_port = htons((uint16_t)port);
    int32_t fd = cmp_netsock_socket(AF_INET, 1, 0);
    return cmp_netsock_connect_timeo(&fd, (sockaddr *)&sin, sizeof(sin), 5000) == 0 ? fd : -1;
}

TEST(PosixSockets, CoreConnectResults)
{
    enum Peer { kListening, kClosed, kFull }; /* a backlog of 0 holds one, drops the next SYN */
    const std::tuple<const char *, Peer, int, std::string> rows[] = {
        {"127.0.0.1", kListening, 0, ""},
        {"::1", kListening, 0, ""},
        {"127.0.0.1", kClosed, 279, "rc=-1 cmp_ldap_connect(): Connection failed (rc=-1,len=16)\n"},
        {"127.0.0.1", kFull, 260, "rc=-2 cmp_ldap_connect(): Connection failed (rc=-2,len=16)\n"}};
    for (const auto &[host, peer, rc, log] : rows) {
        bool v6 = strchr(host, ':') != nullptr;
        auto l = std::make_unique<Listener>(peer == kFull ? 0 : 8, v6 ? AF_INET6 : AF_INET);
        int port = l->port, filler = peer == kFull ? port_connect(host, port) : -1;
        if (peer == kClosed) l.reset();
        int fds = integ::open_descriptors();
        CMP_LDAP ld{};
        auto start = Clock::now();
        CaptureStderr();
        EXPECT_EQ(cmp_ldap_connect(&ld, host, port, 200, v6, 0), rc) << host << " " << peer;
        EXPECT_EQ(GetCapturedStderr(), rc ? "CMP_LDAP[0] " + log : "");
        EXPECT_GE(ms_since(start), peer == kFull ? 190 : 0);
        if (rc == 0) close(l->accept_one());
        EXPECT_EQ(rc ? 0 : cmp_ldap_close_socket(ld.ld_sockfd), 0);
        EXPECT_EQ(integ::open_descriptors(), fds); /* a failed connect leaves no socket behind */
        cmp_netsock_close(filler);
    }
}

TEST(PosixSockets, ClosesOnlySocketsItCreated)
{
    /* Descriptor 0 (a handle that never connected holds it) and any other
     * descriptor of the process stay open; the port's own socket is closed. */
    int saved_stdin = dup(0);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    ASSERT_EQ(dup2(pair[0], 0), 0);
    for (int32_t fd : {0, pair[1]}) {
        SCOPED_TRACE(fd);
        CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
        ld->ld_sockfd = fd;
        cmp_ldap_unbind(ld);
        EXPECT_NE(fcntl(fd, F_GETFD), -1) << "descriptor " << fd << " was closed";
        EXPECT_EQ(cmp_netsock_close(fd), -1);
        EXPECT_NE(fcntl(fd, F_GETFD), -1);
    }
    int32_t own = cmp_netsock_socket(AF_INET, 1, 0);
    ASSERT_GE(own, 0);
    EXPECT_EQ(cmp_netsock_close(own), 0);
    EXPECT_EQ(fcntl(own, F_GETFD), -1);
    dup2(saved_stdin, 0);
    close(saved_stdin);
    close(pair[0]);
    close(pair[1]);
}

TEST(PosixSockets, TimeOutReadAheadPeerCloseAndReset)
{
    Listener l;
    int fd = port_connect("127.0.0.1", l.port), peer = l.accept_one();
    char c;
    auto start = Clock::now();
    EXPECT_EQ(cmp_netsock_recv_timeo(fd, &c, 1, 0, 150), -2);
    EXPECT_GE(ms_since(start), 140);
    std::string sent(3000, '\0'), got;
    std::iota(sent.begin(), sent.end(), '\0');
    EXPECT_EQ(send(peer, sent.data(), sent.size(), 0), (ssize_t)sent.size());
    shutdown(peer, SHUT_WR);
    uint64_t calls[2]; /* for 1500 one-byte reads without, then 1500 with read-ahead */
    for (int ahead : {0, 1}) {
        cmp_netsock_posix_set_read_ahead(ahead);
        uint64_t before = cmp_netsock_posix_recv_calls();
        while (got.size() < 1500u * (ahead + 1) && cmp_netsock_recv_timeo(fd, &c, 1, 0, 1000) == 1)
            got += c;
        calls[ahead] = cmp_netsock_posix_recv_calls() - before;
    }
    printf("[ read-ahead ] 1500 one-byte reads: %llu recv() calls with, %llu without\n",
           (unsigned long long)calls[1], (unsigned long long)calls[0]);
    EXPECT_LE(calls[1], 2u);
    EXPECT_EQ(got, sent);
    EXPECT_EQ(cmp_netsock_recv_timeo(fd, &c, 1, 0, 1000), 0); /* the peer closed */
    linger reset{1, 0};
    setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    close(peer);
    auto old = signal(SIGPIPE, SIG_DFL); /* a SIGPIPE ends the test binary */
    EXPECT_EQ(cmp_netsock_send_timeo(fd, "abc", 3, 0, 500), -1);
    signal(SIGPIPE, old);
    EXPECT_EQ(cmp_netsock_close(fd), 0);
}

/* A thread remembers the last socket it read from: reading two sockets in turn keeps
 * each one's buffered octets apart, and a descriptor number that comes back after a
 * close starts with nothing buffered, though the closed socket left an octet unread. */
TEST(PosixSockets, ReadAheadStaysWithItsSocket)
{
    cmp_netsock_posix_set_read_ahead(1);
    Listener l;
    int a = port_connect("127.0.0.1", l.port);
    int peer_a = l.accept_one();
    int b = port_connect("127.0.0.1", l.port);
    int peer_b = l.accept_one();
    ASSERT_EQ(send(peer_a, "AAAAA", 5, 0), 5);
    ASSERT_EQ(send(peer_b, "BBBB", 4, 0), 4);
    std::string got;
    char c;
    for (int round = 0; round < 3; round++) {
        for (int fd : {a, b}) {
            ASSERT_EQ(cmp_netsock_recv_timeo(fd, &c, 1, 0, 1000), 1);
            got += c;
        }
    }
    ASSERT_EQ(cmp_netsock_recv_timeo(a, &c, 1, 0, 1000), 1); /* a read last, one octet left */
    got += c;
    EXPECT_EQ(got, "ABABABA");
    EXPECT_EQ(cmp_netsock_close(a), 0);
    close(peer_a);
    int again = port_connect("127.0.0.1", l.port);
    int peer_again = l.accept_one();
    ASSERT_EQ(again, a); /* the lowest free descriptor */
    ASSERT_EQ(send(peer_again, "C", 1, 0), 1);
    ASSERT_EQ(cmp_netsock_recv_timeo(again, &c, 1, 0, 1000), 1);
    EXPECT_EQ(c, 'C');
    ASSERT_EQ(cmp_netsock_recv_timeo(b, &c, 1, 0, 1000), 1);
    EXPECT_EQ(c, 'B');
    EXPECT_EQ(cmp_netsock_close(again), 0);
    EXPECT_EQ(cmp_netsock_close(b), 0);
    close(peer_again);
    close(peer_b);
}

/* Back-to-back PDUs over a POSIX socket, split at every byte, are read whole. */
TEST(PduSocketpair, BackToBackPdusSplitAtEveryByteAreReadWhole)
{
    using Bytes = std::vector<unsigned char>;
    auto pdu = [](Bytes h, size_t n) {
        h.resize(h.size() + n, 0xA5);
        return h;
    };
    const std::vector<Bytes> pdus = {pdu({0x30, 3}, 3), pdu({0x30, 0}, 0),
                                     pdu({0x30, 0x81, 0x90}, 0x90), pdu({0x30, 0x82, 1, 0x2C}, 300),
                                     pdu({0x30, 0x84, 0, 0, 0, 3}, 3)};
    Bytes all;
    for (const Bytes &p : pdus)
        all.insert(all.end(), p.begin(), p.end());
    for (size_t split = 0; split <= all.size(); ++split) {
        SCOPED_TRACE(split);
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        std::thread writer([&] {
            EXPECT_EQ(write(fds[1], all.data(), split), (ssize_t)split);
            usleep(200); /* the reader runs dry at the split before the rest arrives */
            EXPECT_EQ(write(fds[1], all.data() + split, all.size() - split),
                      (ssize_t)(all.size() - split));
            close(fds[1]);
        });
        CMP_LDAP ld{};
        ld.ld_sockfd = fds[0];
        CMP_LDAP_MESSAGE *msg = nullptr;
        for (const Bytes &want : pdus) { /* short form, empty, 1, 2 and 4 length octets */
            EXPECT_EQ(cmp_ldap_read_berdata(&ld, 5000, &msg), 0);
            if (msg == nullptr) break;
            const auto *p = (unsigned char *)msg + offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber);
            EXPECT_EQ(Bytes(p, p + msg->cmp_ldap_total_size), want);
            zelOSWOrgFreeMemPart(0, msg);
        }
        EXPECT_EQ(cmp_ldap_read_berdata(&ld, 5000, &msg), -1); /* closed: no further tag */
        writer.join();
        close(fds[0]);
    }
}

TEST(PosixOsWrapper, QueueReportsEmptyWith110)
{
    uint32_t q = 0;
    char buf[8];
    ASSERT_EQ(zelOSWCreateMsgQueue(&q, 1, 8, 0), 0);
    EXPECT_EQ(zelOSWReceiveMsgQueue(q, buf, 8, 0), 110);
    EXPECT_EQ(zelOSWSendMsgQueue(q, "message.", 8, 0, 0), 0);
    EXPECT_EQ(zelOSWReceiveMsgQueue(q, buf, 8, 0), 0);
    EXPECT_EQ(std::string(buf, 8), "message.");
    EXPECT_EQ(zelOSWReceiveMsgQueue(q, buf, 8, 0), 110);
    EXPECT_EQ(zelOSWDeleteMsgQueue(q), 0);
}

std::array<void *, 10> g_args;
int32_t g_lock_rc;
void try_lock_task(void *a1, void *a2, void *a3, void *a4, void *a5, void *a6, void *a7, void *a8,
                   void *a9, void *a10)
{
    g_args = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    g_lock_rc = zelOSWRequestMutexSem(*(uint32_t *)a1, 100);
    if (g_lock_rc == 0) zelOSWReleaseMutexSem(*(uint32_t *)a1);
    zelOSWExitTask(0); /* the way the library's tasks end */
}

TEST(PosixOsWrapper, TaskGetsTenArgumentsIsJoinedAndMutexExcludesIt)
{
    uint32_t m = 0, id = 0;
    char a[10];
    ASSERT_EQ(zelOSWCreateMutexSem(&m, 0, 1), 0);
    ASSERT_EQ(zelOSWRequestMutexSem(m, -1), 0);
    for (bool held : {true, false}) {
        ASSERT_EQ(zelOSWCreateJoinTask(&id, "task", -1, 32768, try_lock_task, -1, &m, a + 1, a + 2,
                                       a + 3, a + 4, a + 5, a + 6, a + 7, a + 8, a + 9),
                  0);
        EXPECT_EQ(zelOSWWaitTask(id, -1), 0);
        EXPECT_EQ(g_lock_rc != 0, held);
        EXPECT_EQ(held ? zelOSWReleaseMutexSem(m) : 0, 0);
    }
    for (int i = 1; i < 10; ++i)
        EXPECT_EQ(g_args[i], a + i);
    EXPECT_NE(zelOSWWaitTask(id, -1), 0); /* joined once only */
}

/* A waiter hears of a task's end only when every per-thread destructor of the task's
 * thread has run (OpenSSL frees a thread's error queue in one): a program that exits
 * right after the wait leaves nothing of the task allocated. */
pthread_key_t g_late_key;
std::atomic<bool> g_late_done{false};
void late_destructor(void *)
{
    std::this_thread::sleep_for(50ms);
    g_late_done = true;
}
void task_without_state(void *, void *, void *, void *, void *, void *, void *, void *, void *,
                        void *)
{
}
void task_with_late_state(void *, void *, void *, void *, void *, void *, void *, void *, void *,
                          void *)
{
    pthread_setspecific(g_late_key, &g_late_key);
}
int32_t run_task(ZEL_OSW_TASK_ENTRY body)
{
    uint32_t id = 0;
    int32_t rc =
        zelOSWCreateJoinTask(&id, "state", -1, 32768, body, 0, nullptr, nullptr, nullptr, nullptr,
                             nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    return rc != 0 ? rc : zelOSWWaitTask(id, -1);
}

TEST(PosixOsWrapper, WaitReturnsAfterTheTasksThreadStateIsReleased)
{
    /* the port's own key first, so that ours runs after it in each round */
    ASSERT_EQ(run_task(task_without_state), 0);
    ASSERT_EQ(pthread_key_create(&g_late_key, late_destructor), 0);
    EXPECT_EQ(run_task(task_with_late_state), 0);
    EXPECT_TRUE(g_late_done.load());
    pthread_key_delete(g_late_key);
}

TEST(PosixOsWrapper, AllocationCap)
{
    ScopedEnv env("TOVEISTROR_MAX_ALLOC", "4096");
    void *p = zelOSWSubAllocMem(4096);
    EXPECT_NE(p, nullptr);
    EXPECT_EQ(zelOSWSubAllocMem(4097), nullptr);
    EXPECT_EQ(zelOSWOrgFreeMemPart(0, p), 0);
}

TEST(PosixLog, LevelsAndLineFormat)
{
    const std::string zs(3000, 'z'),
        err = "CMP_LDAP[0] rc=-1 connect(): ipaddr illegal.\n",
        trace = "CMP_LDAP[1] rc=-1 cmp_ldap_bind(): trace\n",
        rest = "CMP_LDAP[0] rc=277 f(): name=(null)\nM[0] rc=5 g(): " + zs + "\n";
    /* TOVEISTROR_LOG_LEVEL, level set by a tool (9: none), the output */
    const std::tuple<const char *, int, std::string> rows[] = {
        {nullptr, 9, err + rest}, {"0", 9, err + rest}, {"1", 9, err + trace + rest}, {"-1", 9, ""},
        {"off", 9, ""},           {"1", -1, ""},        {"-1", 1, err + trace + rest}};
    for (const auto &[level, set_level, out] : rows) {
        ScopedEnv env("TOVEISTROR_LOG_LEVEL", level);
        if (set_level != 9) cmp_dbglog_posix_set_level(set_level);
        const char *volatile no_text = nullptr; /* hidden from the format check */
        CaptureStderr();
        cmp_dbglog_common_trace("CMP_LDAP", 0, 0, -1, "%s(): ipaddr illegal.\n", "connect");
        cmp_dbglog_common_trace("CMP_LDAP", 1, 0, -1, "%s(): trace", "cmp_ldap_bind");
        cmp_dbglog_common_trace("CMP_LDAP", 0, 0, 277, "%s(): name=%.64s\n\n", "f", no_text);
        cmp_dbglog_common_trace("M", 0, 0, 5, "%s(): %s", "g", zs.c_str());
        EXPECT_EQ(GetCapturedStderr(), out) << (level ? level : "unset") << "/" << set_level;
    }
}

TEST(PosixLog, SecretsAreMaskedAtEveryLevelUnlessAskedFor)
{
    /* The core's own lines with a password or credentials in them: a bind without a
     * handle, and a simple bind whose send fails (its trace and its failure line). */
    auto run_core = [] {
        CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
        ld->ld_sockfd = -1; /* a dropped connection: the send fails at once */
        CaptureStderr();
        cmp_ldap_bind(nullptr, "cn=admin", "s3cret,pw", "dom", nullptr, 0x80);
        cmp_ldap_bind(ld, "cn=admin", "s3cret,pw", nullptr, nullptr, 0x80);
        cmp_dbglog_common_trace("CMP_LDAP", 0, 0, 7,
                                "%s(): cred=%s,n=%d,%%s,cred.total_size=%ld.\n", "f", "s3cret", 5,
                                12L);
        std::string out = GetCapturedStderr();
        cmp_ldap_unbind(ld);
        return out;
    };
    struct Row {
        const char *secrets;
        std::string password, credential;
    };
    const Row rows[] = {
        {nullptr, "***", "***"},
        {"0", "***", "***"},
        {"yes", "***", "***"},
        {"1", "s3cret,pw", "s3cret"},
    };
    ScopedEnv level("TOVEISTROR_LOG_LEVEL", "1");
    for (const Row &row : rows) {
        SCOPED_TRACE(row.secrets ? row.secrets : "unset");
        ScopedEnv env("TOVEISTROR_LOG_SECRETS", row.secrets);
        const std::string out = run_core();
        const std::string p = row.password;
        for (const std::string &line :
             {"CMP_LDAP[0] rc=-1 cmp_ldap_bind(): parameter error ld=NULL.dn=cn=admin,cred=" + p +
                  ",domain=dom,method=0x80.\n",
              "CMP_LDAP[1] rc=-1 cmp_ldap_simple_bind(): msgid=1,dn=cn=admin,passwd=" + p + ".\n",
              "CMP_LDAP[0] rc=256 cmp_ldap_simple_bind(): dn=cn=admin,passwd=" + p + ".\n",
              "CMP_LDAP[0] rc=7 f(): cred=" + row.credential + ",n=5,%s,cred.total_size=12.\n"})
            EXPECT_NE(out.find(line), std::string::npos) << line << " not in\n" << out;
        EXPECT_EQ(out.find("s3cret") != std::string::npos, row.password != "***") << out;
    }
}

TEST(PosixSettings, ProtocolSwitchFromEnvironment)
{
    const std::pair<const char *, uint8_t> rows[] = {{nullptr, 1}, {"1", 1},   {"on", 1},
                                                     {"0", 0},     {"off", 0}, {"OFF", 0}};
    for (const auto &[value, on] : rows) {
        ScopedEnv env("TOVEISTROR_LDAP_PROTOCOL", value);
        uint8_t v = 0xEE;
        EXPECT_EQ(ent_set_get_status(ENT_SET_KEY1_ME_STC_U08_LDAP_PROTOCOL,
                                     ENT_SET_KEY2_ME_STC_U08_LDAP_PROTOCOL, &v),
                  0);
        EXPECT_EQ(v, on) << (value ? value : "(unset)");
    }
}

enum Mode { kEcho, kHold, kClose };

/* A CA with a certificate for DNS:localhost and an unrelated CA, made once (one key signs
 * all), and a server for one connection: plain bytes, then TLS echo, silence or close. */
struct TlsPeer {
    static inline EVP_PKEY *key = EVP_EC_gen("P-256");
    static X509 *make(const char *cn, X509 *issuer, const char *ext, int nid)
    {
        X509 *x = X509_new();
        X509_set_version(x, 2);
        X509_gmtime_adj(X509_getm_notBefore(x), -3600);
        X509_gmtime_adj(X509_getm_notAfter(x), 86400);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                                   (const unsigned char *)cn, -1, -1, 0);
        X509_set_issuer_name(x, X509_get_subject_name(issuer ? issuer : x));
        X509_set_pubkey(x, key);
        X509_EXTENSION *e = X509V3_EXT_conf_nid(nullptr, nullptr, nid, ext);
        X509_add_ext(x, e, -1);
        X509_EXTENSION_free(e);
        X509_sign(x, key, EVP_sha256());
        return x;
    }
    static std::string pem(X509 *x) /* an unlinked file: nothing stays behind */
    {
        FILE *f = tmpfile();
        PEM_write_X509(f, x);
        fflush(f);
        return "/proc/self/fd/" + std::to_string(fileno(f));
    }
    static inline X509 *ca = make("ca", nullptr, "critical,CA:TRUE", NID_basic_constraints),
                       *other = make("other", nullptr, "critical,CA:TRUE", NID_basic_constraints),
                       *cert = make("server", ca, "DNS:localhost", NID_subject_alt_name);
    static inline const std::string ca_pem = pem(ca), other_pem = pem(other);

    Listener l;
    std::thread t;
    TlsPeer(Mode mode, const std::string &prefix) : t(&TlsPeer::serve, this, mode, prefix) {}
    ~TlsPeer() { t.join(); }
    void serve(Mode mode, std::string prefix)
    {
        sigset_t pipe; /* in this thread only, so that the port's own guard is tested */
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        int fd = l.accept_one(), n;
        send(fd, prefix.data(), prefix.size(), 0);
        if (mode == kClose) shutdown(fd, SHUT_WR);
        SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate(ctx, cert);
        SSL_CTX_use_PrivateKey(ctx, key);
        SSL *ssl = SSL_new(ctx);
        SSL_set_fd(ssl, fd);
        char b[4096];
        if (mode == kEcho && SSL_accept(ssl) == 1 && (n = SSL_read(ssl, b, sizeof(b))) > 0)
            SSL_write(ssl, b, n);
        while (recv(fd, b, sizeof(b), 0) > 0) { /* until the client leaves */
        }
        SSL_free(ssl);
        SSL_CTX_free(ctx);
        close(fd);
    }
};

TEST(PosixTls, HandshakeResultsAndIo)
{
    const std::string none, &ca = TlsPeer::ca_pem, &other = TlsPeer::other_pem;
    const std::tuple<const char *, const std::string &, Mode, std::string, int32_t, uint32_t>
        rows[] = {/* host, trusted CA (verification on with one), server, plain prefix, ... */
                  {"localhost", none, kEcho, "", 5000, 0},
                  {"localhost", ca, kEcho, "", 5000, 0},
                  {"localhost", other, kEcho, "", 5000, 0x72010002},
                  {"127.0.0.1", ca, kEcho, "", 5000, 0x7201001d}, /* no IP in the certificate */
                  {"localhost", none, kHold, "", 150, 0x72010006},
                  {"localhost", none, kClose, "", 5000, 0x7201000b},
                  /* 'X' read as plain text leaves an alert in the read-ahead for TLS */
                  {"localhost", none, kEcho, "X\x15\x03\x03\x00\x02\x02\x28"s, 5000, 0x72010004}};
    for (const auto &[host, trusted, mode, prefix, timeout, rc] : rows) {
        TlsPeer server(mode, prefix);
        void *ctx = nullptr, *conn = nullptr;
        ScopedEnv env("TOVEISTROR_CA_FILE", trusted.empty() ? nullptr : trusted.c_str());
        ASSERT_EQ(osl_scr_ssl_wrp_init(&ctx), 0u);
        int fd = port_connect(host, server.l.port), count = -1;
        char b[8];
        EXPECT_EQ(prefix.empty() ? 1 : cmp_netsock_recv_timeo(fd, b, 1, 0, 2000), 1);
        OSL_SCR_SSL_WRP_SETTINGS s{fd, timeout, !trusted.empty(), 0, 0, 0, 0, {}};
        auto start = Clock::now();
        EXPECT_EQ(osl_scr_ssl_wrp_connect_timeo(ctx, &s, &conn), rc) << host << " " << mode;
        EXPECT_GE(ms_since(start), timeout == 150 ? 140 : 0);
        EXPECT_EQ(conn != nullptr, rc == 0);
        if (conn != nullptr) {
            EXPECT_EQ(osl_scr_ssl_wrp_read_timeo(conn, b, sizeof(b), 150, &count), 0x72010006u);
            EXPECT_EQ(osl_scr_ssl_wrp_write_timeo(conn, "hello", 5, 2000, &count), 0u);
            EXPECT_EQ(osl_scr_ssl_wrp_read_timeo(conn, b, sizeof(b), 2000, &count), 0u);
            EXPECT_EQ(std::string(b, count), "hello");
            osl_scr_ssl_wrp_shutdown(conn);
        }
        EXPECT_EQ(osl_scr_ssl_wrp_term(ctx), 0u);
        cmp_netsock_close(fd);
    }
}

}  // namespace
