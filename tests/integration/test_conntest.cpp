// The connection test against a real slapd with the POSIX port: every outcome in both
// forms, the cancel cases, and thousands of start/cancel races. ctest runs each TEST in a
// process of its own, so "before any test ran" holds for the first one here.
#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <thread>

#include "cmp_ldap_posix.h"
#include "support.h"
#include "zelOSW.h"

namespace {

using namespace integ;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
constexpr int32_t kTaskWaitMs = 20000; /* a test task that takes longer is stuck */

// One slapd with TLS for this process, started on first use.
const Env &slapd()
{
    static const Env env = start_slapd("conntest");
    return env;
}

// A listener whose backlog is full: connects to it hang until their time-out.
struct FullListener : Listener {
    int fill[3];
    FullListener() : Listener(0)
    {
        for (int &fd : fill)
            fd = connect_loopback(port, SOCK_NONBLOCK);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ~FullListener()
    {
        for (int fd : fill)
            close(fd);
    }
};

// What the result callback saw; one test at a time.
std::atomic<uint32_t> g_result{0};
std::atomic<int> g_callbacks{0};
void on_result(uint32_t result)
{
    g_result = result;
    ++g_callbacks;
}

struct Probe {
    std::string host = "127.0.0.1";
    int port = port_of(slapd(), "LDAP_PORT");
    uint8_t tls_mod = 0;
    int32_t timeout = 5;
    std::string dn = slapd().at("BIND_DN"), pw = slapd().at("BIND_PW"), base;

    CMP_LDAP_TEST_PARAM param()
    {
        CMP_LDAP_TEST_PARAM p{};
        p.connparam = CMP_LDAP_CONN_PARAM{&host[0], port, timeout, 0, tls_mod, 1, 0, 0, 0, 0};
        p.dn = &dn[0];
        p.cred = &pw[0];
        p.method = CMP_LDAP_AUTH_SIMPLE;
        p.base = &base[0];
        return p;
    }
};

// Starts the asynchronous test; conninfo must come from the OS wrapper's memory.
uint32_t start(const CMP_LDAP_TEST_PARAM &p, CMP_LDAP_ASYNC_TEST_ID *id)
{
    g_callbacks = 0;
    g_result = 0xdeadbeef;
    return cmp_ldap_async_test(&p, on_result, id);
}

// The result of one test in either form; the asynchronous one is waited for to its end.
uint32_t run_test(const CMP_LDAP_TEST_PARAM &p, bool async)
{
    if (!async) return cmp_ldap_test(&p);
    auto *id =
        static_cast<CMP_LDAP_ASYNC_TEST_ID *>(zelOSWSubAllocMem(sizeof(CMP_LDAP_ASYNC_TEST_ID)));
    uint32_t started = start(p, id);
    EXPECT_EQ(started, 0u);
    EXPECT_EQ(zelOSWWaitTask(id->task_id, kTaskWaitMs), 0);
    EXPECT_EQ(g_callbacks.load(), 1);
    zelOSWOrgFreeMemPart(0, id);
    return g_result;
}

// The count once it equals want, or after a second. A descriptor has been seen to
// appear for a moment after a test task ended (under qemu-arm only); a leaked one
// stays, and still fails the comparison.
int descriptors_settled_at(int want)
{
    int n = open_descriptors();
    for (int i = 0; i < 100 && n != want; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        n = open_descriptors();
    }
    return n;
}

TEST(ConnectionTest, CancelBeforeAnyTestASecondStartAndCancelAfterTheEnd)
{
    CMP_LDAP_ASYNC_TEST_ID none{1, 2};
    CaptureStderr();
    EXPECT_EQ(cmp_ldap_async_test_cancel(&none), 0x5103720fu);
    EXPECT_EQ(GetCapturedStderr(),
              "CMP_LDAP[0] rc=-1 cmp_ldap_async_test_cancel(): error. "
              "s_async_test_msem_id is NULL.\n");

    /* a server that never answers keeps the first test in its bind for a second */
    Listener silent(64);
    Probe p;
    p.port = silent.port;
    p.timeout = 1;
    CMP_LDAP_TEST_PARAM param = p.param();
    auto *first = static_cast<CMP_LDAP_ASYNC_TEST_ID *>(zelOSWSubAllocMem(8));
    auto *second = static_cast<CMP_LDAP_ASYNC_TEST_ID *>(zelOSWSubAllocMem(8));
    ASSERT_EQ(start(param, first), 0u);
    CaptureStderr();
    EXPECT_EQ(cmp_ldap_async_test(&param, on_result, second), 0x5103720fu);
    EXPECT_EQ(GetCapturedStderr(),
              "CMP_LDAP[0] rc=-1 cmp_ldap_async_test(): error. nts_cls_async_test is "
              "executing now.\n");
    ASSERT_EQ(zelOSWWaitTask(first->task_id, kTaskWaitMs), 0);
    EXPECT_EQ(g_callbacks.load(), 1);
    EXPECT_EQ(g_result.load(), 0x51032203u);
    CaptureStderr();
    EXPECT_EQ(cmp_ldap_async_test_cancel(first), 0u);
    EXPECT_EQ(GetCapturedStderr(), "");
    zelOSWOrgFreeMemPart(0, first);
    zelOSWOrgFreeMemPart(0, second);
}

TEST(ConnectionTest, OutcomesAreTheSameInBothForms)
{
    const std::string base = slapd().at("BASE_DN");
    const int ldap = port_of(slapd(), "LDAP_PORT"), ldaps = port_of(slapd(), "LDAPS_PORT");
    FullListener full;
    Listener silent(64), closed(-1);
    const struct {
        const char *what;
        int port;
        uint8_t tls_mod;
        int32_t timeout;
        std::string base;
        const char *pw;  // the admin's password when null; "" binds anonymously
        bool other_ca, ldap_off;
        uint32_t result;
    } cases[] = {
        {"base found", ldap, 0, 5, base, nullptr, 0, 0, 0},
        {"no base: no search", ldap, 0, 5, "", nullptr, 0, 0, 0},
        {"anonymous", ldap, 0, 5, base, "", 0, 0, 0},
        {"base with blanks", ldap, 0, 5, "ou=people, dc=example, dc=test", nullptr, 0, 0, 0},
        {"base in other case", ldap, 0, 5, "DC=example,dc=test", nullptr, 0, 0, 0x51039182},
        {"no such base", ldap, 0, 5, "ou=nowhere," + base, nullptr, 0, 0, 0x51039182},
        {"wrong password", ldap, 0, 5, "", "wrong", 0, 0, 0x51031102},
        {"StartTLS", ldap, 1, 5, base, nullptr, 0, 0, 0},
        {"LDAPS", ldaps, 2, 5, base, nullptr, 0, 0, 0},
        {"LDAPS, unknown CA", ldaps, 2, 5, "", nullptr, 1, 0, 0x51031132},
        {"port closed", closed.port, 0, 5, "", nullptr, 0, 0, 0x51032101},
        {"backlog full", full.port, 0, 1, "", nullptr, 0, 0, 0x51032102},
        {"no answer", silent.port, 0, 1, "", nullptr, 0, 0, 0x51032203},
        {"LDAP switched off", ldap, 0, 5, base, nullptr, 0, 1, 0},
    };
    for (const auto &c : cases) {
        setenv("TOVEISTROR_CA_FILE", slapd().at(c.other_ca ? "OTHER_CA_FILE" : "CA_FILE").c_str(),
               1);
        setenv("TOVEISTROR_LDAP_PROTOCOL", c.ldap_off ? "0" : "1", 1);
        for (bool async : {false, true}) {
            SCOPED_TRACE(std::string(c.what) + (async ? " / asynchronous" : " / synchronous"));
            Probe p;
            p.port = c.port;
            p.tls_mod = c.tls_mod;
            p.timeout = c.timeout;
            p.base = c.base;
            if (c.pw != nullptr) p.pw = c.pw;
            if (c.pw != nullptr && *c.pw == '\0') p.dn = "";
            int fds = open_descriptors();
            EXPECT_EQ(run_test(p.param(), async), c.result);
            EXPECT_EQ(descriptors_settled_at(fds), fds);
        }
    }
    /* the switch is really off: a plain open is refused */
    Probe probe;
    CMP_LDAP_TEST_PARAM p = probe.param();
    CMP_LDAP *ld = nullptr;
    CaptureStderr();
    EXPECT_EQ(cmp_ldap_open_with_timeout(&p.connparam, &ld), 276);
    GetCapturedStderr();
    unsetenv("TOVEISTROR_LDAP_PROTOCOL");
    unsetenv("TOVEISTROR_CA_FILE");
}

// True once the test task sits in a write to fd 2: blocked on its log.
bool task_writing_log()
{
    bool writing = false;
    DIR *d = opendir("/proc/self/task");
    while (dirent *e = readdir(d)) {
        std::string dir = std::string("/proc/self/task/") + e->d_name;
        std::string name, nr, fd;
        std::ifstream(dir + "/comm") >> name;
        std::ifstream(dir + "/syscall") >> nr >> fd;
        if (name == "cmpldaptestconn" && nr != "running" && fd == "0x2") writing = true;
    }
    closedir(d);
    return writing;
}

template <typename Pred>
bool wait_for(Pred pred, int ms)
{
    for (int i = 0; i < ms && !pred(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return pred();
}

// The search phase has one check point, between sending the search and reading its
// answer. To cancel exactly there, the task's request traces go to a pipe that is
// filled up once the bind has been traced: the trace of the search then blocks the
// task inside the search call, after the check point before it.
TEST(ConnectionTest, CancelInTheSearchPhaseAbandonsTheSearch)
{
    Probe probe;
    probe.base = slapd().at("BASE_DN");
    CMP_LDAP_TEST_PARAM param = probe.param();
    auto *id = static_cast<CMP_LDAP_ASYNC_TEST_ID *>(zelOSWSubAllocMem(8));
    bool done = false;
    for (int attempt = 1; attempt <= 10 && !done; ++attempt) {
        int p[2];
        ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
        int filler = open(("/proc/self/fd/" + std::to_string(p[1])).c_str(), O_WRONLY | O_NONBLOCK);
        std::atomic<bool> filled{false}, drain{false};
        std::string text;
        std::thread reader([&] {
            char buf[4096];
            for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;) {
                text.append(buf, static_cast<size_t>(n));
                if (!filled && text.find("cmp_ldap_simple_bind(): msgid=") != std::string::npos) {
                    const std::string dots(4096, '.');
                    while (write(filler, dots.data(), dots.size()) > 0) {
                    }
                    while (write(filler, ".", 1) == 1) {
                    }
                    filled = true;
                    while (!drain)
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            }
        });
        fflush(stderr);
        int saved = dup(2);
        dup2(p[1], 2);
        cmp_dbglog_posix_set_level(1);
        ASSERT_EQ(start(param, id), 0u);
        bool blocked = wait_for([&] { return filled.load(); }, 5000) &&
                       wait_for([] { return task_writing_log() || g_callbacks > 0; }, 5000) &&
                       g_callbacks == 0;
        uint32_t cancelled = blocked ? cmp_ldap_async_test_cancel(id) : 0u;
        drain = true;
        EXPECT_EQ(zelOSWWaitTask(id->task_id, kTaskWaitMs), 0);
        cmp_dbglog_posix_set_level(0);
        dup2(saved, 2);
        close(saved);
        close(p[1]);
        close(filler);
        reader.join();
        close(p[0]);
        if (!blocked) continue; /* the search went out before the pipe was full: again */
        done = true;
        EXPECT_EQ(cancelled, 0u);
        EXPECT_EQ(g_callbacks.load(), 1);
        EXPECT_EQ(g_result.load(), 0x51035105u);
        /* what the task was blocked on: the trace of the search it then abandoned */
        const std::string search = "CMP_LDAP[1] rc=-1 cmp_ldap_search_tiny(): msgid=2,";
        size_t bind = text.find('\n', text.find("cmp_ldap_simple_bind(): msgid="));
        size_t after = text.find_first_not_of('.', bind + 1);
        EXPECT_EQ(text.compare(after, search.size(), search), 0) << text.substr(bind + 1, 200);
    }
    EXPECT_TRUE(done) << "the task never blocked on the trace of its search";
    zelOSWOrgFreeMemPart(0, id);
}

// Start/cancel races: each test is cancelled after a random delay within its usual
// duration. Every one ends with exactly one callback, cancelled or complete, and
// nothing is left: no descriptor here, no queue (the port's table of 64 would fill),
// no block (LeakSanitizer in the sanitizer build). TOVEISTROR_STRESS_ROUNDS sets the
// number (default 2000, a few seconds; less under ThreadSanitizer).
TEST(ConnectionTest, StartCancelRaces)
{
    const char *env = std::getenv("TOVEISTROR_STRESS_ROUNDS");
    const int rounds = env != nullptr ? std::atoi(env) : 2000;
    Probe probe;
    probe.base = slapd().at("BASE_DN");
    CMP_LDAP_TEST_PARAM param = probe.param();
    auto *id = static_cast<CMP_LDAP_ASYNC_TEST_ID *>(zelOSWSubAllocMem(8));

    auto clock = std::chrono::steady_clock::now;
    auto t0 = clock();
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(run_test(param, true), 0u);
    const long span_us =
        std::chrono::duration_cast<std::chrono::microseconds>(clock() - t0).count() / 20;

    int fds = open_descriptors();
    std::mt19937 rng(20240611);
    std::map<uint32_t, int> outcomes;
    for (int i = 0; i < rounds; ++i) {
        ASSERT_EQ(start(param, id), 0u) << "round " << i;
        auto until = clock() + std::chrono::microseconds(rng() % (span_us * 3 / 2 + 1));
        while (clock() < until) {
        }
        ASSERT_EQ(cmp_ldap_async_test_cancel(id), 0u) << "round " << i;
        ASSERT_EQ(zelOSWWaitTask(id->task_id, kTaskWaitMs), 0) << "round " << i;
        ASSERT_EQ(g_callbacks.load(), 1) << "round " << i;
        ++outcomes[g_result];
    }
    EXPECT_EQ(descriptors_settled_at(fds), fds);
    EXPECT_EQ(outcomes[0] + outcomes[0x51035105], rounds);
    EXPECT_GT(outcomes[0x51035105], 0);
    std::printf("%d rounds of about %ld us: %d complete, %d cancelled\n", rounds, span_us,
                outcomes[0], outcomes[0x51035105]);
    zelOSWOrgFreeMemPart(0, id);
}

}  // namespace
