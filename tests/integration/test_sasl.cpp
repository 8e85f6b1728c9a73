// SASL GSSAPI binds against a real MIT KDC and a slapd that accepts GSSAPI from it, both
// started by the fixtures on first use in this process and stopped at its end.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cmp_ldap.h"

namespace {

const std::string kFixtures = TOVEISTROR_SOURCE_DIR "/tests/fixtures/";
const std::string kState = TOVEISTROR_BINARY_DIR "/integ-slapd";
const std::string kPeople = "ou=people,dc=example,dc=test";
const std::string kAlice = "uid=alice," + kPeople;
const CMP_LDAP_TIMEVAL kWait = {10, 0};
using Env = std::map<std::string, std::string>;
using Ld = std::unique_ptr<CMP_LDAP, int (*)(CMP_LDAP *)>;

int sh(const std::string &cmd)
{
    int st = system(cmd.c_str());
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

Env read_env(const std::string &file)
{
    Env env;
    std::ifstream in(file);
    for (std::string k, v; std::getline(in, k, '=') && std::getline(in, v);)
        env[k] = v.substr(1, v.size() - 2);
    return env;
}

// The KDC and the slapd that trusts it; KRB5_CONFIG points this process at the KDC.
struct Servers {
    std::string dir = kState + "/" + std::to_string(getpid()) + "-sasl";
    Env kdc, ldap;
    Servers()
    {
        std::string owner = " --owner " + std::to_string(getpid());
        if (sh("bash " + kFixtures + "kdc.sh start " + dir + "/kdc" + owner) != 0 ||
            sh("bash " + kFixtures + "slapd.sh start " + dir + "/ldap" + owner + " --shared " +
               kState + "/shared --kdc " + dir + "/kdc") != 0)
            ADD_FAILURE() << "the KDC or slapd did not start, see " << dir;
        kdc = read_env(dir + "/kdc/env");
        ldap = read_env(dir + "/ldap/env");
        setenv("KRB5_CONFIG", kdc["KRB5_CONFIG"].c_str(), 1);
        setenv("TOVEISTROR_CA_FILE", ldap["CA_FILE"].c_str(), 1);
    }
    void stop(bool remove)
    {
        const std::string rm = remove ? " --remove" : "";
        sh("bash " + kFixtures + "slapd.sh stop " + dir + "/ldap" + rm + " >/dev/null 2>&1");
        sh("bash " + kFixtures + "kdc.sh stop " + dir + "/kdc" + rm + " >/dev/null 2>&1");
    }
    // The path of alice's credential cache, as the library takes it (no "FILE:").
    std::string ccache() const { return kdc.at("CCACHE").substr(5); }
    int port(const char *name) const { return atoi(ldap.at(name).c_str()); }
};
std::unique_ptr<Servers> g_servers;
Servers &servers()
{
    if (!g_servers) g_servers.reset(new Servers);
    return *g_servers;
}
class StopServers : public ::testing::Environment {
    void TearDown() override  // a failed run keeps the servers' directories to look at
    {
        if (g_servers) g_servers->stop(::testing::UnitTest::GetInstance()->Passed());
    }
};
::testing::Environment *const g_stop = ::testing::AddGlobalTestEnvironment(new StopServers);

Ld open_session(int portno, uint8_t tls_mod)
{
    std::string host = "localhost";
    CMP_LDAP_CONN_PARAM p{&host[0], portno, 10, 0, tls_mod, 2, 0, 0, 0, 0};
    CMP_LDAP *ld = nullptr;
    EXPECT_EQ(cmp_ldap_open_with_timeout(&p, &ld), 0);
    return Ld(ld, cmp_ldap_unbind);
}

int sasl_bind(CMP_LDAP *ld, const std::string &ccname)
{
    return cmp_ldap_bind(ld, "alice", nullptr, "TOVEISTROR.TEST", ccname.c_str(), 0xa3);
}

// Each entry under ou=people whose userPassword the session may read, as "dn: password".
// The fixture's ACL lets only the entry's own user (and the directory's root) read it.
std::vector<std::string> readable_passwords(CMP_LDAP *ld)
{
    std::vector<std::string> found;
    CMP_LDAP_FILTER_PRESENT present{CMP_LDAP_SEARCH_COND_AND, "userPassword"};
    int id = cmp_ldap_search_tiny(ld, kPeople.c_str(), 2, nullptr, &present, "userPassword", 0);
    CMP_LDAP_MESSAGE *m = nullptr;
    for (int type; id > 0 && (type = cmp_ldap_result(ld, id, 0, &kWait, &m)) > 0; m = nullptr) {
        if (type == CMP_LDAP_RES_SEARCH_RESULT) {
            EXPECT_EQ(cmp_ldap_result2error(ld, m, 1), 0);
            return found;
        }
        char *dn = cmp_ldap_get_dn(ld, m);
        char **v = cmp_ldap_get_values(ld, m, "userPassword");
        found.push_back(std::string(dn != nullptr ? dn : "?") + ": " +
                        (v != nullptr && v[0] != nullptr ? v[0] : "?"));
        cmp_ldap_value_free(v);
        cmp_ldap_dn_free(dn);
        cmp_ldap_msgfree(m);
    }
    ADD_FAILURE() << "search failed: ld_errno " << ld->ld_errno;
    return found;
}

TEST(Sasl, GssapiBindOnEveryTransportThenSearchesAsTheUser)
{
    const struct {
        const char *name;
        const char *port;
        uint8_t tls_mod;
    } modes[] = {
        {"plain", "LDAP_PORT", 0}, {"StartTLS", "LDAP_PORT", 1}, {"LDAPS", "LDAPS_PORT", 2}};
    for (const auto &m : modes) {
        SCOPED_TRACE(m.name);
        Ld ld = open_session(servers().port(m.port), m.tls_mod);
        ASSERT_NE(ld, nullptr);
        EXPECT_EQ(readable_passwords(ld.get()), std::vector<std::string>{});
        int id = sasl_bind(ld.get(), servers().ccache());
        // The id of the final BindRequest: the GSSAPI exchange takes three.
        EXPECT_EQ(id, ld->ld_mid) << "ld_errno " << ld->ld_errno;
        EXPECT_GE(id, 3);
        EXPECT_EQ(ld->cmp_ldap_ld_sasl_authctx, nullptr);
        CMP_LDAP_MESSAGE *res = nullptr;
        EXPECT_EQ(cmp_ldap_result(ld.get(), id, 0, &kWait, &res), CMP_LDAP_RES_BIND);
        EXPECT_EQ(cmp_ldap_result2error(ld.get(), res, 1), 0);
        EXPECT_EQ(readable_passwords(ld.get()),
                  std::vector<std::string>{kAlice + ": alice-secret"});
    }
}

TEST(Sasl, CredentialCacheFailures)
{
    const std::string dir = servers().dir + "/kdc";
    const std::string expired = dir + "/expired", other = dir + "/other";
    ASSERT_EQ(sh("bash " + kFixtures + "kdc.sh kinit " + dir + " " + expired +
                 " alice@TOVEISTROR.TEST 1s"),
              0);
    ASSERT_EQ(sh("bash " + kFixtures + "kdc.sh kinit " + dir + " " + other + " alice@OTHER.TEST"),
              0);
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    const struct {
        const char *name;
        std::string ccname;
        int32_t errno_before, ld_errno;
        const char *detail;  // in ld_error, from the SASL library's detail
    } cases[] = {
        {"missing", dir + "/missing", 0, CMP_LDAP_KRB5_CCACHE_ERROR, nullptr},
        {"directory", dir, 32, 32, nullptr},  // the earlier ld_errno stays
        {"expired", expired, 0, CMP_LDAP_SASL_AUTH_FAILED, "Ticket expired"},
        {"other realm", other, 0, CMP_LDAP_SASL_AUTH_FAILED, "not found in Kerberos database"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Ld ld = open_session(servers().port("LDAP_PORT"), 0);
        ASSERT_NE(ld, nullptr);
        ld->ld_errno = c.errno_before;
        EXPECT_EQ(sasl_bind(ld.get(), c.ccname), -1);
        EXPECT_EQ(ld->ld_errno, c.ld_errno);
        EXPECT_EQ(ld->cmp_ldap_ld_sasl_authctx, nullptr);
        if (c.detail != nullptr) {
            ASSERT_NE(ld->ld_error, nullptr);
            EXPECT_NE(strstr(ld->ld_error, c.detail), nullptr) << ld->ld_error;
        }
    }
}

// A listener that takes one connection, reads the first request, holds it for a while
// and closes: a bind against it keeps the SASL mutex that long.
struct StallingServer {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int port = 0;
    std::thread thread;
    explicit StallingServer(std::chrono::milliseconds hold)
    {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
        listen(fd, 1);
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
        port = ntohs(a.sin_port);
        thread = std::thread([this, hold] {
            int c = accept(fd, nullptr, nullptr);
            char buf[4096];
            (void)!read(c, buf, sizeof buf);
            std::this_thread::sleep_for(hold);
            close(c);
        });
    }
    ~StallingServer()
    {
        thread.join();
        close(fd);
    }
};

TEST(Sasl, BindsOfTwoSessionsRunOneAfterTheOther)
{
    using Clock = std::chrono::steady_clock;
    servers();
    StallingServer stall(std::chrono::milliseconds(1500));
    Ld stalled = open_session(stall.port, 0);
    Ld real = open_session(servers().port("LDAP_PORT"), 0);
    ASSERT_NE(stalled, nullptr);
    ASSERT_NE(real, nullptr);
    Clock::time_point stalled_end, real_start, real_end;
    int stalled_id = 0, real_id = 0;
    std::thread first([&] {
        stalled_id = sasl_bind(stalled.get(), servers().ccache());
        stalled_end = Clock::now();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the first holds the mutex
    std::thread second([&] {
        real_start = Clock::now();
        real_id = sasl_bind(real.get(), servers().ccache());
        real_end = Clock::now();
    });
    first.join();
    second.join();
    EXPECT_EQ(stalled_id, -1);
    EXPECT_NE(stalled->ld_errno, 0);
    EXPECT_EQ(real_id, real->ld_mid) << "ld_errno " << real->ld_errno;
    // The second bind, against a server that answers at once, ended only after the first.
    EXPECT_GT(real_end, stalled_end);
    EXPECT_GT(real_end - real_start, std::chrono::milliseconds(800));
}

// A second slapd on a copy of the first one's data that refuses binds without a security
// layer of strength 56 or more (sasl-secprops minssf=56).
struct SecuredSlapd {
    std::string dir = servers().dir + "/ldap-minssf";
    int port = 0;
    SecuredSlapd()
    {
        const std::string from = servers().dir + "/ldap", kdc = servers().dir + "/kdc";
        const std::string script =
            "set -e; FIXTURE=test_sasl; . " + kFixtures + "common.sh; d=" + dir + "; s=" + from +
            "; rm -rf $d; mkdir -p $d/run $d/db; cp --sparse=always $s/db/data.mdb $d/db/;"
            " sed -e \"s|$s/|$d/|g\" -e '/^sasl-realm/a sasl-secprops minssf=56'"
            " $s/slapd.conf >$d/slapd.conf; p=$(pick_port); echo $p >$d/port;"
            " KRB5_CONFIG=" +
            kdc + "/krb5.conf KRB5_KTNAME=" + kdc +
            "/ldap.keytab KRB5RCACHETYPE=none /usr/sbin/slapd -f $d/slapd.conf"
            " -h ldap://127.0.0.1:$p/ -d 0 >$d/slapd.log 2>&1 & echo $! >$d/pid;"
            " for i in $(seq 500); do ldapsearch -x -o nettimeout=2 -H ldap://127.0.0.1:$p/"
            " -b '' -s base >/dev/null 2>&1 && exit 0; sleep 0.02; done; exit 1";
        EXPECT_EQ(sh("bash -c " + quoted(script)), 0) << "see " << dir;
        port = atoi(first_line(dir + "/port").c_str());
    }
    ~SecuredSlapd() { sh("kill " + first_line(dir + "/pid") + " 2>/dev/null"); }
    static std::string first_line(const std::string &file)
    {
        std::ifstream in(file);
        std::string line;
        std::getline(in, line);
        return line;
    }
    static std::string quoted(const std::string &text)
    {
        std::string q = "'";
        for (char c : text)
            q += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return q + "'";
    }
};

// Every DN under ou=big, in the order the server sent them.
std::vector<std::string> big_dns(CMP_LDAP *ld)
{
    std::vector<std::string> dns;
    const std::string base = "ou=big,dc=example,dc=test";
    int id = cmp_ldap_search_tiny(ld, base.c_str(), 1, nullptr, nullptr, "cn", 0);
    CMP_LDAP_MESSAGE *m = nullptr;
    for (int type; id > 0 && (type = cmp_ldap_result(ld, id, 0, &kWait, &m)) > 0; m = nullptr) {
        if (type == CMP_LDAP_RES_SEARCH_RESULT) {
            EXPECT_EQ(cmp_ldap_result2error(ld, m, 1), 0);
            return dns;
        }
        char *dn = cmp_ldap_get_dn(ld, m);
        dns.push_back(dn != nullptr ? dn : "?");
        cmp_ldap_dn_free(dn);
        cmp_ldap_msgfree(m);
    }
    ADD_FAILURE() << "search failed: ld_errno " << ld->ld_errno;
    return dns;
}

// The same search by ldapsearch with its own GSSAPI bind (and its default layer).
std::vector<std::string> ldapsearch_big_dns(int port)
{
    const std::string out = servers().dir + "/ldapsearch-big.ldif";
    std::string cmd = "KRB5CCNAME=" + servers().kdc.at("CCACHE") +
                      " ldapsearch -LLL -Q -Y GSSAPI -o ldif_wrap=no -H ldap://localhost:" +
                      std::to_string(port) + "/ -b ou=big,dc=example,dc=test -s one 1.1 >" + out;
    EXPECT_EQ(sh(cmd), 0) << cmd;
    std::vector<std::string> dns;
    std::ifstream in(out);
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, 4, "dn: ") == 0) dns.push_back(line.substr(4));
    return dns;
}

TEST(Sasl, SecurityLayerSignAndSealThenSearchesWrapped)
{
    SecuredSlapd secured;
    const std::vector<std::string> reference = ldapsearch_big_dns(secured.port);
    ASSERT_EQ(reference.size(), 2000u);
    const struct {
        const char *name;
        int port;
        uint8_t tls_mod;
        uint32_t min_ssf, max_ssf;
    } cases[] = {
        {"sign", servers().port("LDAP_PORT"), 0, 1, 1},
        {"seal", servers().port("LDAP_PORT"), 0, 56, 256},
        {"seal inside StartTLS", servers().port("LDAP_PORT"), 1, 56, 256},
        {"seal where the server demands it", secured.port, 0, 0, 256},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Ld ld = open_session(c.port, c.tls_mod);
        ASSERT_NE(ld, nullptr);
        ASSERT_EQ(cmp_ldap_set_sasl_ssf(ld.get(), c.min_ssf, c.max_ssf), 0);
        int id = sasl_bind(ld.get(), servers().ccache());
        EXPECT_EQ(id, ld->ld_mid) << "ld_errno " << ld->ld_errno;
        EXPECT_EQ(ld->cmp_ldap_ld_sasl_authctx, nullptr);
        EXPECT_NE(ld->ld_sasl_layer, nullptr);
        EXPECT_EQ(readable_passwords(ld.get()),
                  std::vector<std::string>{kAlice + ": alice-secret"});
        EXPECT_EQ(big_dns(ld.get()), reference);
    }
}

TEST(Sasl, ServerDemandingALayerRefusesTheDefaultBindAndSigning)
{
    SecuredSlapd secured;
    const struct {
        const char *name;
        uint32_t min_ssf, max_ssf;
    } cases[] = {{"default", 0, 0}, {"sign only", 1, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Ld ld = open_session(secured.port, 0);
        ASSERT_NE(ld, nullptr);
        ASSERT_EQ(cmp_ldap_set_sasl_ssf(ld.get(), c.min_ssf, c.max_ssf), 0);
        EXPECT_EQ(sasl_bind(ld.get(), servers().ccache()), -1);
        // GSSAPI tells the server's offer of layers in its last token, so the client's SASL
        // library refuses it (SASL_TOOWEAK) before the server ever has to.
        EXPECT_EQ(ld->ld_errno, CMP_LDAP_SASL_ERROR);
        ASSERT_NE(ld->ld_error, nullptr);
        EXPECT_NE(strstr(ld->ld_error, "SASL(-15): mechanism too weak"), nullptr) << ld->ld_error;
        EXPECT_EQ(ld->cmp_ldap_ld_sasl_authctx, nullptr);
    }
}

}  // namespace
