/* Many threads at once, each with a handle of its own, through whole sessions against one
 * slapd: open (plain, StartTLS or LDAPS, the certificate checked, by address or by name),
 * simple bind, two searches walked entry by entry, attribute by attribute and value by
 * value, unbind. Every walk must read exactly what one thread alone reads, and no
 * descriptor may stay open. Meanwhile two more threads race to start asynchronous
 * connection tests and cancel some: each accepted start reports exactly once. The test run
 * also builds this under ThreadSanitizer, where any state shared in the library or the
 * POSIX port shows up as a race. */
#include <atomic>
#include <chrono>
#include <thread>

#include "support.h"
#include "zelOSW.h"

namespace {

using namespace integ;

/* Under ThreadSanitizer the rounds fill about a minute on two cores; elsewhere (plain,
 * AddressSanitizer, qemu-arm) a few seconds of them show that the sessions stay apart. */
#if defined(__SANITIZE_THREAD__)
#define STRESS_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define STRESS_UNDER_TSAN 1
#endif
#endif
constexpr int kThreads = 8;
#ifdef STRESS_UNDER_TSAN
constexpr int kRounds = 500;
#else
constexpr int kRounds = 24;
#endif
const CMP_LDAP_TIMEVAL kLongWait = {30, 0};

/* One whole session bound as the fixture's user: what it read, or what went wrong. */
std::string session(const Env &s, const char *host, uint8_t tls_mod)
{
    int rc = -1;
    const char *port = tls_mod == CMP_LDAP_TLS_MOD_LDAPS ? "LDAPS_PORT" : "LDAP_PORT";
    Ld ld = open_session(host, port_of(s, port), tls_mod, 1, &rc, 30);
    if (rc != 0) return "open: " + std::to_string(rc);
    int bound = simple_bind(ld.get(), s.at("USER_DN"), s.at("USER_PW"), kLongWait);
    std::string out = "bind rc " + std::to_string(bound) + "\n";
    CMP_LDAP_FILTER first99{CMP_LDAP_FILTER_COND_INITIAL, CMP_LDAP_SEARCH_COND_AND, "cn", "user00"};
    uint32_t subtree = CMP_LDAP_SCOPE_SUBTREE;
    out += search(ld.get(), kPeople, subtree, nullptr, nullptr, "", kLongWait).text();
    out += search(ld.get(), kBig, subtree, &first99, nullptr, "", kLongWait).text();
    rc = cmp_ldap_unbind(ld.release());
    return rc == 0 ? out : out + "unbind: " + std::to_string(rc);
}

/* Asynchronous connection tests: accepted starts, reports, and reports that were neither
 * success nor a cancel. */
std::atomic<int> g_started{0}, g_reported{0}, g_bad_reports{0};

void on_test_result(uint32_t result)
{
    if (result != CMP_LDAP_TEST_OK && result != CMP_LDAP_TEST_CANCELLED) ++g_bad_reports;
    ++g_reported;
}

/* Starts tests until told to stop, cancels every third it started and waits for the end of
 * each; a start refused because the other thread's test runs is expected. What else went
 * wrong. */
std::string start_tests(const Env &s, const std::atomic<bool> &stop)
{
    std::string host = "127.0.0.1", dn = s.at("USER_DN"), pw = s.at("USER_PW"), base = kPeople;
    int port = port_of(s, "LDAP_PORT");
    CMP_LDAP_TEST_PARAM p{};
    p.connparam = {&host[0], port, 30, 0, CMP_LDAP_TLS_MOD_STARTTLS, 1, 0, 0, 0, 0};
    p.dn = &dn[0];
    p.cred = &pw[0];
    p.method = CMP_LDAP_AUTH_SIMPLE;
    p.base = &base[0];
    std::string wrong;
    for (int mine = 0; !stop;) {
        /* The caller's record comes from the OS wrapper: a failed start may release it. */
        auto *id = static_cast<CMP_LDAP_ASYNC_TEST_ID *>(
            zelOSWSubAllocMem(sizeof(CMP_LDAP_ASYNC_TEST_ID)));
        uint32_t rc = cmp_ldap_async_test(&p, on_test_result, id);
        if (rc == CMP_LDAP_TEST_OK) {
            ++g_started;
            if (++mine % 3 == 0 && cmp_ldap_async_test_cancel(id) != CMP_LDAP_TEST_OK)
                wrong += "cancel failed\n";
            if (zelOSWWaitTask(id->task_id, 60000) != 0) wrong += "task did not end\n";
        } else if (rc == CMP_LDAP_TEST_OTHER_ERROR) {
            /* Each refusal writes a log line: try again soon, not at once. */
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        } else {
            wrong += "start: " + std::to_string(rc) + "\n";
        }
        zelOSWOrgFreeMemPart(0, id);
    }
    return wrong;
}

TEST(Stress, ThreadsEachWithItsOwnHandleReadWhatOneReadsAlone)
{
    const Env s = start_slapd("stress");
    ASSERT_NE(port_of(s, "LDAPS_PORT"), 0);
    setenv("TOVEISTROR_CA_FILE", s.at("CA_FILE").c_str(), 1); /* before any thread reads it */
    unsetenv("TOVEISTROR_LDAP_PROTOCOL");
    const int fd = open_descriptors();
    const std::string want = session(s, "127.0.0.1", CMP_LDAP_TLS_MOD_NONE);
    ASSERT_EQ(want.compare(0, 10, "bind rc 0\n"), 0) << want;
    EXPECT_NE(want.find("userPassword: alice-secret\n"), std::string::npos); /* bound as alice */
    EXPECT_NE(want.find("dn: cn=user0099,ou=big"), std::string::npos);
    EXPECT_EQ(want.find("dn: cn=user0100,"), std::string::npos);
    EXPECT_EQ(want.substr(want.size() - 5), "rc 0\n");

    const char *hosts[] = {"127.0.0.1", "localhost"};
    const uint8_t modes[] = {CMP_LDAP_TLS_MOD_NONE, CMP_LDAP_TLS_MOD_STARTTLS,
                             CMP_LDAP_TLS_MOD_LDAPS};
    std::vector<std::vector<std::string>> wrong(kThreads);
    std::atomic<bool> stop{false};
    std::string starter_wrong[2];
    std::vector<std::thread> starters;
    for (std::string &w : starter_wrong)
        starters.emplace_back([&] { w = start_tests(s, stop); });
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int r = 0; r < kRounds; ++r) {
                const char *host = hosts[(t + r / 3) % 2];
                uint8_t mode = modes[(t + r) % 3];
                std::string got = session(s, host, mode);
                if (got != want)
                    wrong[t].push_back(std::string(host) + " mode " + std::to_string(mode) +
                                       " round " + std::to_string(r) + ":\n" + got);
            }
        });
    }
    for (std::thread &th : threads)
        th.join();
    stop = true;
    for (std::thread &th : starters)
        th.join();
    EXPECT_GT(g_started, 0);
    EXPECT_EQ(g_reported, g_started);
    EXPECT_EQ(g_bad_reports, 0);
    EXPECT_EQ(starter_wrong[0], "");
    EXPECT_EQ(starter_wrong[1], "");
    for (int t = 0; t < kThreads; ++t) {
        SCOPED_TRACE("thread " + std::to_string(t));
        EXPECT_EQ(wrong[t].size(), 0u) << (wrong[t].empty() ? "" : wrong[t][0].substr(0, 2000));
    }
    EXPECT_EQ(open_descriptors(), fd);
}

}  // namespace
