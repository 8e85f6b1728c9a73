/* Many threads at once, each with a handle of its own, through whole sessions against one
 * slapd: open (plain, StartTLS or LDAPS, the certificate checked, by address or by name),
 * simple bind, two searches walked entry by entry, attribute by attribute and value by
 * value, unbind. Every walk must read exactly what one thread alone reads, and no
 * descriptor may stay open. Meanwhile two more threads race to start asynchronous
 * connection tests and cancel some: each accepted start reports exactly once. The test run
 * also builds this under ThreadSanitizer, where any state shared in the library or the
 * POSIX port shows up as a race. */
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "cmp_ldap.h"
#include "zelOSW.h"

namespace {

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
const CMP_LDAP_TIMEVAL kWait = {30, 0};
const std::string kPeople = "ou=people,dc=example,dc=test";
const std::string kBig = "ou=big,dc=example,dc=test";

/* A slapd of this process's own, stopped at the end of the test (its directory stays
 * for a look when the test failed). */
class Slapd {
  public:
    Slapd()
    {
        const std::string state = TOVEISTROR_BINARY_DIR "/integ-slapd";
        dir_ = state + "/stress-" + std::to_string(getpid());
        std::string start = fixture_ + " start " + dir_ + " --owner " + std::to_string(getpid()) +
                            " --shared " + state + "/shared";
        if (system(start.c_str()) != 0) return;
        std::ifstream in(dir_ + "/env");
        for (std::string k, v; std::getline(in, k, '=') && std::getline(in, v);)
            env_[k] = v.substr(1, v.size() - 2);
    }
    ~Slapd()
    {
        const char *rm = ::testing::Test::HasFailure() ? "" : " --remove";
        EXPECT_EQ(system((fixture_ + " stop " + dir_ + rm).c_str()), 0);
    }
    bool up() const { return env_.count("LDAPS_PORT") != 0; }
    std::string operator[](const char *key) const { return env_.at(key); }

  private:
    const std::string fixture_ = "bash " TOVEISTROR_SOURCE_DIR "/tests/fixtures/slapd.sh";
    std::string dir_;
    std::map<std::string, std::string> env_;
};

/* The lowest free descriptor: a descriptor left open moves it. */
int next_fd()
{
    int fd = dup(0);
    close(fd);
    return fd;
}

/* A whole search in one comparable text: per entry its DN, then "name: value" per value in
 * server order, per reference its URLs, and the result code of the SearchResultDone. */
std::string walk(CMP_LDAP *ld, const std::string &base, const CMP_LDAP_FILTER *filter)
{
    int id = cmp_ldap_search_tiny(ld, base.c_str(), CMP_LDAP_SCOPE_SUBTREE, filter, nullptr, "", 0);
    if (id <= 0) return "search failed: ld_errno " + std::to_string(ld->ld_errno);
    std::string out;
    CMP_LDAP_MESSAGE *m = nullptr;
    for (int type; (type = cmp_ldap_result(ld, id, 0, &kWait, &m)) > 0; m = nullptr) {
        if (type == CMP_LDAP_RES_SEARCH_RESULT)
            return out + "rc " + std::to_string(cmp_ldap_result2error(ld, m, 1)) + "\n";
        if (type == CMP_LDAP_RES_SEARCH_REFERENCE) {
            char **urls = cmp_ldap_get_referrals(ld, m);
            for (char **u = urls; u != nullptr && *u != nullptr; ++u)
                out += "ref: " + std::string(*u) + "\n";
            cmp_ldap_value_free(urls);
        }
        char *dn = type == CMP_LDAP_RES_SEARCH_ENTRY ? cmp_ldap_get_dn(ld, m) : nullptr;
        if (dn != nullptr) out += "dn: " + std::string(dn) + "\n";
        void *cursor = nullptr;
        for (char *a = dn != nullptr ? cmp_ldap_first_attribute(ld, m, &cursor) : nullptr;
             a != nullptr; a = cmp_ldap_next_attribute(ld, m, cursor)) {
            std::string name = a;
            CMP_LDAP_BERVAL **v = cmp_ldap_get_values_binary(ld, m, name.c_str());
            for (int i = 0; v != nullptr && v[i] != nullptr; ++i)
                out += name + ": " + std::string((char *)v[i]->data, v[i]->total_size) + "\n";
            cmp_ldap_value_free_binary(v);
        }
        if (dn != nullptr) cmp_ldap_dn_free(dn);
        cmp_ldap_msgfree(m);
    }
    return out + "result failed: ld_errno " + std::to_string(ld->ld_errno) + "\n";
}

/* One whole session bound as the fixture's user: what it read, or what went wrong. */
std::string session(const Slapd &s, const char *host, uint8_t tls_mod)
{
    std::string name = host;
    int port = atoi(s[tls_mod == CMP_LDAP_TLS_MOD_LDAPS ? "LDAPS_PORT" : "LDAP_PORT"].c_str());
    CMP_LDAP_CONN_PARAM p{&name[0], port, 30, 0, tls_mod, 1, 0, 0, 0, 0};
    CMP_LDAP *ld = nullptr;
    int rc = cmp_ldap_open_with_timeout(&p, &ld);
    if (rc != 0) return "open: " + std::to_string(rc);
    std::string out;
    int id = cmp_ldap_bind(ld, s["USER_DN"].c_str(), s["USER_PW"].c_str(), nullptr, nullptr,
                           CMP_LDAP_AUTH_SIMPLE);
    CMP_LDAP_MESSAGE *m = nullptr;
    if (id <= 0 || cmp_ldap_result(ld, id, 0, &kWait, &m) != CMP_LDAP_RES_BIND)
        out = "bind failed: ld_errno " + std::to_string(ld->ld_errno) + "\n";
    else
        out = "bind rc " + std::to_string(cmp_ldap_result2error(ld, m, 1)) + "\n";
    CMP_LDAP_FILTER first99{CMP_LDAP_FILTER_COND_INITIAL, CMP_LDAP_SEARCH_COND_AND, "cn", "user00"};
    out += walk(ld, kPeople, nullptr);
    out += walk(ld, kBig, &first99);
    rc = cmp_ldap_unbind(ld);
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
std::string start_tests(const Slapd &s, const std::atomic<bool> &stop)
{
    std::string host = "127.0.0.1", dn = s["USER_DN"], pw = s["USER_PW"], base = kPeople;
    int port = atoi(s["LDAP_PORT"].c_str());
    CMP_LDAP_TEST_PARAM p{{&host[0], port, 30, 0, CMP_LDAP_TLS_MOD_STARTTLS, 1, 0, 0, 0, 0},
                          &dn[0],
                          &pw[0],
                          nullptr,
                          nullptr,
                          CMP_LDAP_AUTH_SIMPLE,
                          &base[0],
                          0,
                          0};
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
    Slapd s;
    ASSERT_TRUE(s.up());
    setenv("TOVEISTROR_CA_FILE", s["CA_FILE"].c_str(), 1); /* before any thread reads it */
    unsetenv("TOVEISTROR_LDAP_PROTOCOL");
    const int fd = next_fd();
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
    EXPECT_EQ(next_fd(), fd);
}

}  // namespace
