/* The POSIX port on loopback: sockets with time-outs and read-ahead, the OS
 * wrapper, log, settings, and the TLS wrapper against an in-process OpenSSL
 * server with certificates made here. Nothing leaves the loopback interface. */
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cmp_dbglog.h"
#include "cmp_ldap.h"
#include "cmp_ldap_posix.h"
#include "cmp_netsock.h"
#include "ent_set.h"
#include "osl_scr_ssl_wrp.h"
#include "osl_scr_ssl_wrp_posix.h"
#include "zelOSW.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

long elapsed_ms(Clock::time_point since)
{
    return (long)std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since)
        .count();
}

int open_fds()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (d != nullptr && readdir(d) != nullptr)
        ++n;
    if (d != nullptr) closedir(d);
    return n;
}

/* Sets (or unsets, with nullptr) one variable for the scope and reloads the port. */
class ScopedEnv {
  public:
    ScopedEnv(const char *name, const char *value) : name_(name)
    {
        const char *old = getenv(name);
        had_ = old != nullptr;
        if (had_) old_ = old;
        if (value != nullptr) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
        cmp_ldap_posix_reload_env();
    }
    ~ScopedEnv()
    {
        if (had_) {
            setenv(name_.c_str(), old_.c_str(), 1);
        } else {
            unsetenv(name_.c_str());
        }
        cmp_ldap_posix_reload_env();
    }

  private:
    std::string name_, old_;
    bool had_ = false;
};

/* A listener on a loopback address and a free port. */
struct Listener {
    int fd = -1;
    int port = 0;
    Listener(int family, int backlog = 16)
    {
        fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_storage ss{};
        socklen_t len;
        if (family == AF_INET) {
            auto *sin = reinterpret_cast<sockaddr_in *>(&ss);
            sin->sin_family = AF_INET;
            sin->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            len = sizeof(*sin);
        } else {
            auto *sin6 = reinterpret_cast<sockaddr_in6 *>(&ss);
            sin6->sin6_family = AF_INET6;
            sin6->sin6_addr = in6addr_loopback;
            len = sizeof(*sin6);
        }
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0 ||
            listen(fd, backlog) != 0) {
            if (fd >= 0) close(fd);
            fd = -1;
            return;
        }
        getsockname(fd, reinterpret_cast<sockaddr *>(&ss), &len);
        port = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in *>(&ss)->sin_port
                                       : reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port);
    }
    ~Listener()
    {
        if (fd >= 0) close(fd);
    }
    int accept_one(int timeout_ms = 5000)
    {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) != 1) return -1;
        return accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    }
};

/* A port on which nothing listens. */
int closed_port()
{
    Listener l(AF_INET);
    return l.port; /* closed when l goes */
}

/* Resolve, create and connect through the port, as the core does; -1 on failure. */
int port_connect(const char *name, int port, int family = AF_INET, long timeout = 5000)
{
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *res = nullptr;
    if (cmp_netsock_getaddrinfo(name, nullptr, &hints, &res) != 0) return -1;
    sockaddr_storage ss{};
    memcpy(&ss, res->ai_addr, res->ai_addrlen);
    uint32_t len = (uint32_t)res->ai_addrlen;
    cmp_netsock_freeaddrinfo(res);
    if (family == AF_INET) {
        reinterpret_cast<sockaddr_in *>(&ss)->sin_port = htons((uint16_t)port);
    } else {
        reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port = htons((uint16_t)port);
    }
    int32_t fd = cmp_netsock_socket(family, 1, 0);
    if (fd < 0) return -1;
    if (cmp_netsock_connect_timeo(&fd, reinterpret_cast<sockaddr *>(&ss), len, timeout) != 0)
        return -1;
    return fd;
}

void write_all(int fd, const void *data, size_t n)
{
    const auto *p = static_cast<const unsigned char *>(data);
    while (n > 0) {
        ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
        if (w <= 0) return;
        p += w;
        n -= (size_t)w;
    }
}

std::string capture_stderr(const std::function<void()> &body)
{
    fflush(stderr);
    FILE *tmp = tmpfile();
    int saved = dup(STDERR_FILENO);
    dup2(fileno(tmp), STDERR_FILENO);
    body();
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text;
    rewind(tmp);
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), tmp)) > 0)
        text.append(buf, n);
    fclose(tmp);
    return text;
}

/* ------------------------------------------------------------------ sockets */

TEST(PosixSockets, CoreConnectReachesIpv4Listener)
{
    Listener l(AF_INET);
    ASSERT_GE(l.fd, 0);
    for (const char *name : {"127.0.0.1", "localhost"}) {
        SCOPED_TRACE(name);
        CMP_LDAP ld{};
        ASSERT_EQ(cmp_ldap_connect(&ld, name, l.port, 2000, 0, 0), 0);
        int peer = l.accept_one();
        EXPECT_GE(peer, 0);
        /* The socket is blocking again and usable. */
        EXPECT_EQ(fcntl(ld.ld_sockfd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(cmp_netsock_send_timeo(ld.ld_sockfd, "x", 1, 0, 1000), 1);
        EXPECT_EQ(cmp_ldap_close_socket(ld.ld_sockfd), 0);
        if (peer >= 0) close(peer);
    }
}

TEST(PosixSockets, CoreConnectReachesIpv6Listener)
{
    Listener l(AF_INET6);
    if (l.fd < 0) GTEST_SKIP() << "no IPv6 loopback";
    CMP_LDAP ld{};
    ASSERT_EQ(cmp_ldap_connect(&ld, "::1", l.port, 2000, 1, 0), 0);
    int peer = l.accept_one();
    EXPECT_GE(peer, 0);
    EXPECT_EQ(cmp_ldap_close_socket(ld.ld_sockfd), 0);
    if (peer >= 0) close(peer);
}

TEST(PosixSockets, ClosedPortGives279AndLeavesNoSocket)
{
    int port = closed_port();
    int before = open_fds();
    CMP_LDAP ld{};
    std::string log = capture_stderr(
        [&] { EXPECT_EQ(cmp_ldap_connect(&ld, "127.0.0.1", port, 2000, 0, 0), 279); });
    EXPECT_EQ(open_fds(), before);
    EXPECT_NE(log.find("CMP_LDAP[0] rc=-1 cmp_ldap_connect(): Connection failed (rc=-1,len=16)\n"),
              std::string::npos)
        << log;
}

TEST(PosixSockets, ConnectTimesOutOnFullBacklogAndClosesTheSocket)
{
    /* Backlog 0 holds one pending connection; the next SYN is dropped. */
    Listener l(AF_INET, 0);
    ASSERT_GE(l.fd, 0);
    int filler = port_connect("127.0.0.1", l.port);
    ASSERT_GE(filler, 0);

    int before = open_fds();
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sin.sin_port = htons((uint16_t)l.port);
    int32_t fd = cmp_netsock_socket(AF_INET, 1, 0);
    ASSERT_GE(fd, 0);
    auto start = Clock::now();
    EXPECT_EQ(cmp_netsock_connect_timeo(&fd, reinterpret_cast<sockaddr *>(&sin), sizeof(sin), 200),
              -2);
    long took = elapsed_ms(start);
    EXPECT_GE(took, 190);
    EXPECT_LT(took, 1500);
    EXPECT_EQ(open_fds(), before); /* the timed-out socket is closed */

    CMP_LDAP ld{};
    capture_stderr([&] { EXPECT_EQ(cmp_ldap_connect(&ld, "127.0.0.1", l.port, 200, 0, 0), 260); });
    EXPECT_EQ(open_fds(), before);
    cmp_netsock_close(filler);
}

TEST(PosixSockets, ReceiveTimesOutThenSeesPeerClose)
{
    Listener l(AF_INET);
    int fd = port_connect("127.0.0.1", l.port);
    ASSERT_GE(fd, 0);
    int peer = l.accept_one();
    ASSERT_GE(peer, 0);
    unsigned char b[4];
    auto start = Clock::now();
    EXPECT_EQ(cmp_netsock_recv_timeo(fd, b, sizeof(b), 0, 150), -2);
    EXPECT_GE(elapsed_ms(start), 140);
    close(peer);
    EXPECT_EQ(cmp_netsock_recv_timeo(fd, b, sizeof(b), 0, 1000), 0);
    EXPECT_EQ(cmp_netsock_close(fd), 0);
}

TEST(PosixSockets, SendTimesOutWhenThePeerDoesNotRead)
{
    Listener l(AF_INET);
    int fd = port_connect("127.0.0.1", l.port);
    ASSERT_GE(fd, 0);
    int peer = l.accept_one();
    ASSERT_GE(peer, 0);
    std::vector<unsigned char> big(64u << 20, 0x41); /* far more than the socket buffers */
    auto start = Clock::now();
    EXPECT_EQ(cmp_netsock_send_timeo(fd, big.data(), (uint32_t)big.size(), 0, 200), -2);
    EXPECT_LT(elapsed_ms(start), 2000);
    close(peer);
    /* Writing to a reset connection is an error, not a SIGPIPE. */
    int32_t rc = 0;
    for (int i = 0; i < 20 && rc >= 0; ++i)
        rc = cmp_netsock_send_timeo(fd, "abc", 3, 0, 500);
    EXPECT_EQ(rc, -1);
    cmp_netsock_close(fd);
}

TEST(PosixSockets, ReadAheadServesByteReadsFromOneRecv)
{
    Listener l(AF_INET);
    int fd = port_connect("127.0.0.1", l.port);
    ASSERT_GE(fd, 0);
    int peer = l.accept_one();
    ASSERT_GE(peer, 0);
    Bytes sent(3000);
    for (size_t i = 0; i < sent.size(); ++i)
        sent[i] = (unsigned char)(i * 7);
    write_all(peer, sent.data(), sent.size());
    close(peer);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));

    uint64_t calls = cmp_netsock_posix_recv_calls();
    Bytes got;
    unsigned char b;
    while (cmp_netsock_recv_timeo(fd, &b, 1, 0, 1000) == 1)
        got.push_back(b);
    EXPECT_EQ(got, sent);
    EXPECT_LE(cmp_netsock_posix_recv_calls() - calls, 3u); /* the data, then the close */
    EXPECT_EQ(cmp_netsock_close(fd), 0);
}

TEST(PosixSockets, SetScopeTakesTheNamedInterface)
{
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "fe80::1", &sin6.sin6_addr);
    {
        ScopedEnv env("TOVEISTROR_SCOPE_IF", "lo");
        EXPECT_EQ(cmp_netsock_set_scope(reinterpret_cast<sockaddr *>(&sin6), sizeof(sin6)), 0);
        EXPECT_EQ(sin6.sin6_scope_id, if_nametoindex("lo"));
    }
    {
        ScopedEnv env("TOVEISTROR_SCOPE_IF", "no-such-if0");
        EXPECT_NE(cmp_netsock_set_scope(reinterpret_cast<sockaddr *>(&sin6), sizeof(sin6)), 0);
    }
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    EXPECT_NE(cmp_netsock_set_scope(reinterpret_cast<sockaddr *>(&sin), sizeof(sin)), 0);
}

/* ---------------------------------------------------- read-ahead measurement */

/* recv() calls for reading n PDUs of 180 bytes (long-form length) with the
 * core's reader; the server writes all at once (burst) or one per request. */
uint64_t recv_calls_for_pdus(int n, bool read_ahead, bool lockstep)
{
    Bytes one = {0x30, 0x81, 177};
    one.resize(180, 0x04);
    Listener l(AF_INET);
    int fd = port_connect("127.0.0.1", l.port);
    int peer = l.accept_one();
    if (fd < 0 || peer < 0) return 0;
    std::thread server([&] {
        for (int i = 0; i < n; ++i) {
            if (lockstep && i > 0) {
                char ack;
                if (recv(peer, &ack, 1, 0) != 1) break;
            }
            if (lockstep || i == 0) {
                Bytes out;
                for (int k = 0; k < (lockstep ? 1 : n); ++k)
                    out.insert(out.end(), one.begin(), one.end());
                write_all(peer, out.data(), out.size());
            }
        }
    });
    cmp_netsock_posix_set_read_ahead(read_ahead);
    CMP_LDAP ld{};
    ld.ld_sockfd = fd;
    ld.ld_sock_timeout = 5000;
    uint64_t before = cmp_netsock_posix_recv_calls();
    int ok = 0;
    for (int i = 0; i < n; ++i) {
        CMP_LDAP_MESSAGE *msg = nullptr;
        if (cmp_ldap_read_berdata(&ld, 5000, &msg) != 0) break;
        ok += msg->cmp_ldap_total_size == 180;
        zelOSWOrgFreeMemPart(0, msg);
        if (lockstep && i + 1 < n) cmp_netsock_send_timeo(fd, "a", 1, 0, 1000);
    }
    uint64_t calls = cmp_netsock_posix_recv_calls() - before;
    cmp_netsock_posix_set_read_ahead(1);
    server.join();
    close(peer);
    cmp_netsock_close(fd);
    return ok == n ? calls : 0;
}

TEST(PosixReadAhead, RecvCallsPerPduThroughTheCoreReader)
{
    const int n = 500;
    uint64_t burst_on = recv_calls_for_pdus(n, true, false);
    uint64_t burst_off = recv_calls_for_pdus(n, false, false);
    uint64_t step_on = recv_calls_for_pdus(n, true, true);
    uint64_t step_off = recv_calls_for_pdus(n, false, true);
    printf(
        "[ read-ahead ] %d PDUs of 180 bytes, recv() calls: burst %llu with / %llu without, "
        "one PDU per request %llu with / %llu without\n",
        n, (unsigned long long)burst_on, (unsigned long long)burst_off, (unsigned long long)step_on,
        (unsigned long long)step_off);
    RecordProperty("burst_with", (int)burst_on);
    RecordProperty("burst_without", (int)burst_off);
    RecordProperty("lockstep_with", (int)step_on);
    RecordProperty("lockstep_without", (int)step_off);
    /* Without it: tag, length, length byte, content; with it about one per PDU. */
    EXPECT_GE(burst_off, 4u * n);
    EXPECT_GE(step_off, 4u * n);
    EXPECT_GT(burst_on, 0u);
    EXPECT_LE(burst_on, 2u * (n * 180 / 16384 + 1) + 8);
    EXPECT_GE(step_on, (uint64_t)n);
    EXPECT_LE(step_on, (uint64_t)n + n / 10);
}

/* -------------------------------------------------------------- OS wrapper */

TEST(PosixOsWrapper, QueueReportsEmptyWith110AndKeepsOrder)
{
    uint32_t q = 0;
    ASSERT_EQ(zelOSWCreateMsgQueue(&q, 1, 8, 0), 0);
    EXPECT_NE(q, 0u);
    unsigned char buf[8] = {0};
    EXPECT_EQ(zelOSWReceiveMsgQueue(q, buf, 8, 0), ZELOSW_NO_MESSAGE);
    const unsigned char msg[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(zelOSWSendMsgQueue(q, msg, 8, 0, 0), 0);
    EXPECT_NE(zelOSWSendMsgQueue(q, msg, 8, 0, 0), 0); /* one slot, full */
    EXPECT_NE(zelOSWSendMsgQueue(q, msg, 9, 0, 0), 0); /* larger than a message */
    EXPECT_EQ(zelOSWReceiveMsgQueue(q, buf, 8, 0), 0);
    EXPECT_EQ(memcmp(buf, msg, 8), 0);
    EXPECT_EQ(zelOSWReceiveMsgQueue(q, buf, 8, 0), ZELOSW_NO_MESSAGE);

    /* A waiting receive gets a message sent later from another thread. */
    std::thread sender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        zelOSWSendMsgQueue(q, msg, 8, 0, 0);
    });
    memset(buf, 0, sizeof(buf));
    EXPECT_EQ(zelOSWReceiveMsgQueue(q, buf, 8, 2000), 0);
    EXPECT_EQ(buf[7], 8);
    sender.join();

    EXPECT_EQ(zelOSWDeleteMsgQueue(q), 0);
    EXPECT_NE(zelOSWDeleteMsgQueue(q), 0);
    EXPECT_NE(zelOSWReceiveMsgQueue(q, buf, 8, 0), 0);
}

struct TaskRecord {
    std::atomic<int> runs{0};
    void *args[10] = {};
};

void record_task(void *a1, void *a2, void *a3, void *a4, void *a5, void *a6, void *a7, void *a8,
                 void *a9, void *a10)
{
    auto *r = static_cast<TaskRecord *>(a1);
    void *args[10] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    memcpy(r->args, args, sizeof(args));
    r->runs++;
    zelOSWExitTask(0); /* the way the library's tasks end */
}

TEST(PosixOsWrapper, TasksGetTheirTenArgumentsAndJoin)
{
    TaskRecord a, b;
    uint32_t ida = 0, idb = 0;
    int x;
    ASSERT_EQ(
        zelOSWCreateJoinTask(&ida, "cmpldaptestconnect", -1, 32768, record_task, -1, &a, &x,
                             nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &b),
        0);
    ASSERT_EQ(
        zelOSWCreateJoinTask(&idb, "CMP_LDAP_SASL", -1, 32768, record_task, 0, &b, nullptr, nullptr,
                             nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
        0);
    EXPECT_NE(ida, 0u);
    EXPECT_NE(idb, 0u);
    EXPECT_NE(ida, idb);
    EXPECT_EQ(zelOSWWaitTask(ida, -1), 0);
    EXPECT_EQ(zelOSWWaitTask(idb, -1), 0);
    EXPECT_EQ(a.runs.load(), 1);
    EXPECT_EQ(b.runs.load(), 1);
    EXPECT_EQ(a.args[1], &x);
    EXPECT_EQ(a.args[9], &b);
    EXPECT_NE(zelOSWWaitTask(ida, -1), 0); /* joined once only */
}

void counting_task(void *a1, void *, void *, void *, void *, void *, void *, void *, void *, void *)
{
    static_cast<std::atomic<int> *>(a1)->fetch_add(1);
    zelOSWExitTask(0);
}

void queue_waiting_task(void *a1, void *, void *, void *, void *, void *, void *, void *, void *,
                        void *)
{
    unsigned char buf[8];
    zelOSWReceiveMsgQueue(*static_cast<uint32_t *>(a1), buf, sizeof(buf), -1);
}

TEST(PosixOsWrapper, WaitTimesOutAndTasksNobodyWaitsForAreForgotten)
{
    uint32_t q = 0, id = 0;
    ASSERT_EQ(zelOSWCreateMsgQueue(&q, 1, 8, 0), 0);
    ASSERT_EQ(
        zelOSWCreateJoinTask(&id, "waiter", -1, 32768, queue_waiting_task, 0, &q, nullptr, nullptr,
                             nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
        0);
    EXPECT_EQ(zelOSWWaitTask(id, 50), 110);
    EXPECT_EQ(zelOSWSendMsgQueue(q, "12345678", 8, 0, 0), 0);
    EXPECT_EQ(zelOSWWaitTask(id, -1), 0);
    EXPECT_EQ(zelOSWDeleteMsgQueue(q), 0);

    /* Far more tasks than the table holds, none waited for, as the library's
     * asynchronous test does. */
    std::atomic<int> runs{0};
    int created = 0;
    for (int i = 0; i < 300; ++i) {
        created += zelOSWCreateJoinTask(&id, "cmpldaptestconnect", -1, 32768, counting_task, 0,
                                        &runs, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                        nullptr, nullptr, nullptr) == 0;
        if (i % 50 == 49) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(created, 300);
    for (int i = 0; i < 200 && runs.load() < created; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(runs.load(), created);
}

TEST(PosixOsWrapper, MutexExcludesOtherThreadsAndTimesOut)
{
    uint32_t m = 0;
    ASSERT_EQ(zelOSWCreateMutexSem(&m, 0, 1), 0);
    EXPECT_NE(m, 0u);
    ASSERT_EQ(zelOSWRequestMutexSem(m, -1), 0);
    int32_t other_timed = -1, other_release = -1, other_later = -1;
    std::thread t([&] {
        other_release = zelOSWReleaseMutexSem(m); /* not the owner */
        auto start = Clock::now();
        other_timed = zelOSWRequestMutexSem(m, 100);
        if (elapsed_ms(start) < 90) other_timed = 0;
        other_later = zelOSWRequestMutexSem(m, 5000);
        zelOSWReleaseMutexSem(m);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(zelOSWReleaseMutexSem(m), 0);
    t.join();
    EXPECT_NE(other_release, 0);
    EXPECT_NE(other_timed, 0);
    EXPECT_EQ(other_later, 0);

    /* The task-switch lock nests. */
    EXPECT_EQ(zelOSWLockTask(), 0);
    EXPECT_EQ(zelOSWLockTask(), 0);
    EXPECT_EQ(zelOSWUnlockTask(), 0);
    EXPECT_EQ(zelOSWUnlockTask(), 0);
}

TEST(PosixOsWrapper, AllocationCapRefusesLargerBlocks)
{
    {
        ScopedEnv env("TOVEISTROR_MAX_ALLOC", "4096");
        void *ok = zelOSWSubAllocMem(4096);
        EXPECT_NE(ok, nullptr);
        EXPECT_EQ(zelOSWSubAllocMem(4097), nullptr);
        EXPECT_EQ(zelOSWOrgFreeMemPart(0, ok), 0);
    }
    ScopedEnv env("TOVEISTROR_MAX_ALLOC", nullptr);
    EXPECT_EQ(zelOSWSubAllocMem((64u << 20) + 1), nullptr);
    void *zero = zelOSWSubAllocMem(0);
    EXPECT_NE(zero, nullptr);
    zelOSWOrgFreeMemPart(0, zero);
    EXPECT_EQ(zelOSWOrgFreeMemPart(0, nullptr), 0);
}

/* --------------------------------------------------------- log and settings */

void log_three_levels()
{
    const char *volatile no_text = nullptr; /* hidden from the compiler's format check */
    cmp_dbglog_common_trace("CMP_LDAP", 0, 0, -1, "%s(): ipaddr illegal.\n", "cmp_ldap_connect");
    cmp_dbglog_common_trace("CMP_LDAP", 1, 0, -1, "%s(): trace", "cmp_ldap_bind");
    cmp_dbglog_common_trace("CMP_LDAP", 0, 0, 277, "%s(): name=%.64s\n\n", "f", no_text);
}

TEST(PosixLog, OneLinePerCallFilteredByLevel)
{
    const std::string errors =
        "CMP_LDAP[0] rc=-1 cmp_ldap_connect(): ipaddr illegal.\n"
        "CMP_LDAP[0] rc=277 f(): name=(null)\n";
    const std::string trace = "CMP_LDAP[1] rc=-1 cmp_ldap_bind(): trace\n";
    {
        ScopedEnv env("TOVEISTROR_LOG_LEVEL", nullptr);
        EXPECT_EQ(capture_stderr(log_three_levels), errors);
    }
    {
        ScopedEnv env("TOVEISTROR_LOG_LEVEL", "1");
        EXPECT_EQ(capture_stderr(log_three_levels),
                  "CMP_LDAP[0] rc=-1 cmp_ldap_connect(): ipaddr illegal.\n" + trace +
                      "CMP_LDAP[0] rc=277 f(): name=(null)\n");
        cmp_dbglog_posix_set_level(-1); /* a tool's option beats the environment */
        EXPECT_EQ(capture_stderr(log_three_levels), "");
    }
    for (const char *off : {"-1", "off"}) {
        ScopedEnv env("TOVEISTROR_LOG_LEVEL", off);
        EXPECT_EQ(capture_stderr(log_three_levels), "");
    }
    std::string long_text(3000, 'z');
    EXPECT_EQ(capture_stderr([&] {
                  cmp_dbglog_common_trace("M", 0, 0, 5, "%s(): %s", "g", long_text.c_str());
              }),
              "M[0] rc=5 g(): " + long_text + "\n");
}

TEST(PosixSettings, ProtocolSwitchFromEnvironment)
{
    const struct {
        const char *value;
        uint8_t expect;
    } cases[] = {{nullptr, 1}, {"1", 1}, {"on", 1}, {"0", 0}, {"off", 0}, {"OFF", 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value == nullptr ? "(unset)" : c.value);
        ScopedEnv env("TOVEISTROR_LDAP_PROTOCOL", c.value);
        uint8_t v = 0xEE;
        EXPECT_EQ(ent_set_get_status(ENT_SET_KEY1_ME_STC_U08_LDAP_PROTOCOL,
                                     ENT_SET_KEY2_ME_STC_U08_LDAP_PROTOCOL, &v),
                  0);
        EXPECT_EQ(v, c.expect);
    }
    uint8_t v = 0;
    EXPECT_NE(ent_set_get_status(1, 2, &v), 0);
}

/* --------------------------------------------------------------------- TLS */

struct Identity {
    EVP_PKEY *key = nullptr;
    X509 *cert = nullptr;
    std::string pem_path;
    ~Identity()
    {
        X509_free(cert);
        EVP_PKEY_free(key);
        if (!pem_path.empty()) unlink(pem_path.c_str());
    }
};

/* A self-signed P-256 certificate (its own CA) with the given subjectAltName,
 * also written as PEM for TOVEISTROR_CA_FILE. */
void make_identity(Identity *id, const char *san)
{
    id->key = EVP_EC_gen("P-256");
    ASSERT_NE(id->key, nullptr);
    X509 *x = X509_new();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x),
                     (long)(Clock::now().time_since_epoch().count() & 0x7fffffff));
    X509_gmtime_adj(X509_getm_notBefore(x), -3600);
    X509_gmtime_adj(X509_getm_notAfter(x), 86400);
    X509_NAME *name = X509_get_subject_name(x);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>("toveistror test"), -1, -1,
                               0);
    X509_set_issuer_name(x, name);
    X509_set_pubkey(x, id->key);
    X509V3_CTX ctx;
    X509V3_set_ctx(&ctx, x, x, nullptr, nullptr, 0);
    const std::pair<int, const char *> exts[] = {{NID_basic_constraints, "critical,CA:TRUE"},
                                                 {NID_key_usage, "digitalSignature,keyCertSign"},
                                                 {NID_subject_alt_name, san}};
    for (const auto &e : exts) {
        X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, &ctx, e.first, e.second);
        ASSERT_NE(ext, nullptr);
        X509_add_ext(x, ext, -1);
        X509_EXTENSION_free(ext);
    }
    ASSERT_GT(X509_sign(x, id->key, EVP_sha256()), 0);
    id->cert = x;
    char path[] = "/tmp/toveistror-ca-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    FILE *f = fdopen(fd, "w");
    PEM_write_X509(f, x);
    fclose(f);
    id->pem_path = path;
}

/* One TLS connection on a loopback listener: optional plain bytes first, then
 * the handshake, then an echo until the client stops. */
class TlsServer {
  public:
    enum Mode { kEcho, kHold, kClose };
    TlsServer(const Identity &id, int max_version = 0, std::string plain_prefix = "",
              Mode mode = kEcho)
        : listener_(AF_INET)
    {
        ctx_ = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate(ctx_, id.cert);
        SSL_CTX_use_PrivateKey(ctx_, id.key);
        if (max_version != 0) SSL_CTX_set_max_proto_version(ctx_, max_version);
        thread_ =
            std::thread([this, prefix = std::move(plain_prefix), mode] { run(prefix, mode); });
    }
    ~TlsServer()
    {
        thread_.join();
        SSL_CTX_free(ctx_);
    }
    int port() const { return listener_.port; }

  private:
    void run(const std::string &prefix, Mode mode)
    {
        int fd = listener_.accept_one();
        if (fd < 0) return;
        timeval tv{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
        if (!prefix.empty()) write_all(fd, prefix.data(), prefix.size());
        if (mode != kEcho) {
            /* kHold answers nothing until the client gives up. */
            char b[512];
            while (mode == kHold && recv(fd, b, sizeof(b), 0) > 0) {
            }
            close(fd);
            return;
        }
        SSL *ssl = SSL_new(ctx_);
        SSL_set_fd(ssl, fd);
        if (SSL_accept(ssl) == 1) {
            char buf[4096];
            int n;
            while ((n = SSL_read(ssl, buf, sizeof(buf))) > 0)
                SSL_write(ssl, buf, n);
            SSL_shutdown(ssl);
        }
        SSL_free(ssl);
        close(fd);
    }
    Listener listener_;
    SSL_CTX *ctx_;
    std::thread thread_;
};

class PosixTls : public ::testing::Test {
  protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN); /* the test server writes with plain send() */
        make_identity(&server_id_, "DNS:localhost,IP:127.0.0.1");
        make_identity(&other_id_, "DNS:other.example");
    }
    void TearDown() override { stop(); }
    /* Client first, so that the server sees it leave. */
    void stop()
    {
        if (conn_ != nullptr) osl_scr_ssl_wrp_shutdown(conn_);
        if (ctx_ != nullptr) osl_scr_ssl_wrp_term(ctx_);
        if (fd_ >= 0) cmp_netsock_close(fd_);
        conn_ = ctx_ = nullptr;
        fd_ = -1;
        server_.reset();
    }
    void serve(const Identity &id, int max_version = 0, const char *prefix = "",
               TlsServer::Mode mode = TlsServer::kEcho)
    {
        stop();
        server_ = std::make_unique<TlsServer>(id, max_version, prefix, mode);
    }
    /* Connects to the server by name, then runs the handshake; the wrapper's code. */
    uint32_t handshake(const char *name, const Identity *ca, uint8_t verify,
                       bool set_verify = false, uint8_t versions = 0, uint8_t sigalgs = 0,
                       int32_t timeout = 5000)
    {
        ScopedEnv env("TOVEISTROR_CA_FILE", ca != nullptr ? ca->pem_path.c_str() : nullptr);
        EXPECT_EQ(osl_scr_ssl_wrp_init(&ctx_), 0u);
        if (set_verify) {
            EXPECT_EQ(osl_scr_ssl_wrp_set_verify(ctx_), 0u);
        }
        fd_ = port_connect(name, server_->port());
        EXPECT_GE(fd_, 0);
        OSL_SCR_SSL_WRP_SETTINGS s;
        memset(&s, 0, sizeof(s));
        s.sockfd = fd_;
        s.timeout = timeout;
        s.verify = verify;
        s.ssl_version = versions;
        s.ssl_accepted_signature_algorithm = sigalgs;
        return osl_scr_ssl_wrp_connect_timeo(ctx_, &s, &conn_);
    }
    Identity server_id_, other_id_;
    std::unique_ptr<TlsServer> server_;
    void *ctx_ = nullptr;
    void *conn_ = nullptr;
    int fd_ = -1;
};

TEST_F(PosixTls, VerifyOffHandshakeAndRoundTrip)
{
    serve(server_id_);
    ASSERT_EQ(handshake("localhost", nullptr, 0), 0u);
    ASSERT_NE(conn_, nullptr);
    int32_t count = -1;
    EXPECT_EQ(osl_scr_ssl_wrp_write_timeo(conn_, "hello", 5, 2000, &count), 0u);
    EXPECT_EQ(count, 5);
    char buf[16] = {0};
    int32_t got = 0;
    while (got < 5) {
        EXPECT_EQ(osl_scr_ssl_wrp_read_timeo(conn_, buf + got, 1, 2000, &count), 0u);
        if (count <= 0) break;
        got += count;
    }
    EXPECT_EQ(std::string(buf, 5), "hello");
}

TEST_F(PosixTls, ReadTimesOutAndTheConnectionStaysUsable)
{
    serve(server_id_);
    ASSERT_EQ(handshake("localhost", nullptr, 0), 0u);
    char buf[8];
    int32_t count = -1;
    auto start = Clock::now();
    EXPECT_EQ(osl_scr_ssl_wrp_read_timeo(conn_, buf, sizeof(buf), 150, &count),
              OSL_SCR_SSL_WRP_ERR_TIMEOUT);
    EXPECT_GE(elapsed_ms(start), 140);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(osl_scr_ssl_wrp_write_timeo(conn_, "ab", 2, 2000, &count), 0u);
    EXPECT_EQ(osl_scr_ssl_wrp_read_timeo(conn_, buf, 2, 2000, &count), 0u);
    EXPECT_GE(count, 1);
}

TEST_F(PosixTls, VerifyWithTheRightCaByNameAndByAddress)
{
    serve(server_id_);
    EXPECT_EQ(handshake("localhost", &server_id_, 1), 0u);
    serve(server_id_);
    EXPECT_EQ(handshake("127.0.0.1", &server_id_, 1), 0u); /* IP SAN */
}

TEST_F(PosixTls, WrongCaFailsVerification)
{
    serve(server_id_);
    EXPECT_EQ(handshake("localhost", &other_id_, 1), OSL_SCR_SSL_WRP_ERR_HANDSHAKE_A);
    EXPECT_EQ(conn_, nullptr);
    serve(server_id_);
    EXPECT_EQ(handshake("localhost", &other_id_, 0, true), OSL_SCR_SSL_WRP_ERR_HANDSHAKE_A);
}

TEST_F(PosixTls, HostNameMismatch)
{
    serve(other_id_); /* names only other.example */
    EXPECT_EQ(handshake("localhost", &other_id_, 1), OSL_SCR_SSL_WRP_ERR_HANDSHAKE_D);
}

TEST_F(PosixTls, MasksThatLeaveNothingInCommon)
{
    serve(server_id_, TLS1_2_VERSION);
    EXPECT_EQ(handshake("localhost", nullptr, 0, false, OSL_SSL_POSIX_VERSION_TLS13),
              OSL_SCR_SSL_WRP_ERR_HANDSHAKE_B);
    serve(server_id_); /* an ECDSA P-256 key */
    EXPECT_EQ(handshake("localhost", nullptr, 0, false, 0, OSL_SSL_POSIX_SIGALG_RSA_PSS),
              OSL_SCR_SSL_WRP_ERR_HANDSHAKE_C);
}

TEST_F(PosixTls, HandshakeTimeOutAndPeerClose)
{
    serve(server_id_, 0, "", TlsServer::kHold);
    auto start = Clock::now();
    EXPECT_EQ(handshake("localhost", nullptr, 0, false, 0, 0, 150), OSL_SCR_SSL_WRP_ERR_TIMEOUT);
    EXPECT_GE(elapsed_ms(start), 140);
    serve(server_id_, 0, "", TlsServer::kClose);
    EXPECT_EQ(handshake("localhost", nullptr, 0), OSL_SCR_SSL_WRP_ERR_CLOSED);
}

TEST_F(PosixTls, CoreTlsStartChecksTheNameTheCoreResolved)
{
    const unsigned char pdu[] = {0x30, 0x03, 0x02, 0x01, 0x05};
    for (const Identity *id : {&server_id_, &other_id_}) {
        serve(*id);
        ScopedEnv env("TOVEISTROR_CA_FILE", id->pem_path.c_str());
        CMP_LDAP ld{};
        ld.ld_sock_timeout = 5000;
        ASSERT_EQ(cmp_ldap_connect(&ld, "localhost", server_->port(), 5000, 0, 2), 0);
        fd_ = ld.ld_sockfd;
        CMP_LDAP_CONN_PARAM param{};
        param.ssl_auth = 1;
        if (id == &other_id_) {
            capture_stderr([&] { EXPECT_EQ(cmp_ldap_tls_start(&ld, &param), -1); });
            EXPECT_EQ(ld.ld_errno, 274); /* the certificate names other.example */
            continue;
        }
        ASSERT_EQ(cmp_ldap_tls_start(&ld, &param), 0);
        CMP_LDAP_SEND_BUF buf = {pdu, sizeof(pdu)};
        EXPECT_EQ(cmp_ldap_send_berdata(&ld, &buf), (int)sizeof(pdu));
        CMP_LDAP_MESSAGE *msg = nullptr;
        ASSERT_EQ(cmp_ldap_read_berdata(&ld, 5000, &msg), 0);
        EXPECT_EQ(msg->cmp_ldap_total_size, (int32_t)sizeof(pdu));
        zelOSWOrgFreeMemPart(0, msg);
        EXPECT_EQ(cmp_ldap_tls_end(&ld), 0);
    }
}

TEST_F(PosixTls, ReadAheadBytesGoToTls)
{
    /* Plain bytes the read-ahead holds belong to the TLS stream: here they are
     * no TLS record, so the handshake must fail rather than skip them. */
    serve(server_id_, 0, "XY");
    ASSERT_EQ(osl_scr_ssl_wrp_init(&ctx_), 0u);
    fd_ = port_connect("localhost", server_->port());
    ASSERT_GE(fd_, 0);
    char x = 0;
    ASSERT_EQ(cmp_netsock_recv_timeo(fd_, &x, 1, 0, 2000), 1);
    EXPECT_EQ(x, 'X');
    OSL_SCR_SSL_WRP_SETTINGS s;
    memset(&s, 0, sizeof(s));
    s.sockfd = fd_;
    s.timeout = 2000;
    EXPECT_NE(osl_scr_ssl_wrp_connect_timeo(ctx_, &s, &conn_), 0u);
    EXPECT_EQ(conn_, nullptr);
}

TEST(PosixTlsInit, CaLoadFailureAndNullArguments)
{
    void *ctx = nullptr;
    {
        ScopedEnv env("TOVEISTROR_CA_FILE", "/nonexistent/ca.pem");
        EXPECT_EQ(osl_scr_ssl_wrp_init(&ctx), OSL_SCR_SSL_WRP_ERR_INIT_B);
        EXPECT_EQ(ctx, nullptr);
    }
    EXPECT_EQ(osl_scr_ssl_wrp_set_verify(nullptr), OSL_SCR_SSL_WRP_ERR_VERIFY);
    ASSERT_EQ(osl_scr_ssl_wrp_init(&ctx), 0u);
    OSL_SCR_SSL_WRP_SETTINGS s;
    memset(&s, 0, sizeof(s));
    s.sockfd = -1;
    s.ssl_version = 0x10; /* no version this port knows */
    void *conn = nullptr;
    EXPECT_EQ(osl_scr_ssl_wrp_connect_timeo(ctx, &s, &conn), OSL_SCR_SSL_WRP_ERR_HANDSHAKE_B);
    s.ssl_version = 0;
    s.ssl_encrpt = OSL_SSL_POSIX_CIPHER_AES128_CBC;
    s.ssl_hash = OSL_SSL_POSIX_HASH_AEAD; /* CBC suites need an HMAC bit */
    EXPECT_EQ(osl_scr_ssl_wrp_connect_timeo(ctx, &s, &conn), OSL_SCR_SSL_WRP_ERR_HANDSHAKE_C);
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(osl_scr_ssl_wrp_term(ctx), 0u);
}

}  // namespace
