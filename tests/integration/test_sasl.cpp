// SASL GSSAPI binds against a real MIT KDC and a slapd that accepts GSSAPI from it, both
// started by the fixtures on first use in this process.
#include <chrono>
#include <cstring>
#include <thread>

#include "support.h"

namespace {

using namespace integ;

// The KDC and the slapd that trusts it; KRB5_CONFIG points this process at the KDC.
struct Servers {
    Env kdc = start_fixture("kdc.sh", "sasl-kdc");
    Env ldap = start_slapd("sasl-ldap", " --kdc " + kdc.at("DIR"));
    Servers()
    {
        setenv("KRB5_CONFIG", kdc["KRB5_CONFIG"].c_str(), 1);
        setenv("TOVEISTROR_CA_FILE", ldap["CA_FILE"].c_str(), 1);
    }
    // The path of alice's credential cache, as the library takes it (no "FILE:").
    std::string ccache() const { return kdc.at("CCACHE").substr(5); }
    int port(const char *name) const { return port_of(ldap, name); }
};
Servers &servers()
{
    static Servers s;
    return s;
}

Ld open_session(int port, uint8_t tls_mod)
{
    int rc = -1;
    Ld ld = integ::open_session("localhost", port, tls_mod, 2, &rc);
    EXPECT_EQ(rc, 0);
    return ld;
}

int sasl_bind(CMP_LDAP *ld, const std::string &ccname)
{
    return cmp_ldap_bind(ld, "alice", nullptr, "TOVEISTROR.TEST", ccname.c_str(), 0xa3);
}

// Each entry under ou=people whose userPassword the session may read. The fixture's ACL lets
// only the entry's own user (and the directory's root) read it.
std::vector<std::string> readable_passwords(CMP_LDAP *ld)
{
    CMP_LDAP_FILTER_PRESENT present{CMP_LDAP_SEARCH_COND_AND, "userPassword"};
    Found f = search(ld, kPeople, CMP_LDAP_SCOPE_SUBTREE, nullptr, &present, "userPassword");
    EXPECT_EQ(f.rc, 0);
    return f.items;
}
const std::vector<std::string> kAlicesOwn = {"dn: " + kAlice + "\nuserPassword: alice-secret\n"};

TEST(Sasl, CredentialCacheFailures)
{
    const std::string dir = servers().kdc.at("DIR"), kinit = "bash " + kFixtures + "kdc.sh kinit ";
    const std::string expired = dir + "/expired", other = dir + "/other";
    ASSERT_EQ(run(kinit + dir + " " + expired + " alice@TOVEISTROR.TEST 1s").second, 0);
    ASSERT_EQ(run(kinit + dir + " " + other + " alice@OTHER.TEST").second, 0);
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
    Listener l{1};
    std::thread thread;
    explicit StallingServer(std::chrono::milliseconds hold)
        : thread([this, hold] {
              int c = l.accept_one();
              char buf[4096];
              (void)!read(c, buf, sizeof buf);
              std::this_thread::sleep_for(hold);
              close(c);
          })
    {
    }
    ~StallingServer() { thread.join(); }
};

TEST(Sasl, BindsOfTwoSessionsRunOneAfterTheOther)
{
    using Clock = std::chrono::steady_clock;
    servers();
    StallingServer stall(std::chrono::milliseconds(1500));
    Ld stalled = open_session(stall.l.port, 0);
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
// layer of strength 56 or more (sasl-secprops minssf=56). It lives in the KDC's directory,
// which goes with the KDC.
struct SecuredSlapd {
    const std::string dir = servers().kdc.at("DIR") + "/ldap-minssf";
    int port = 0;
    SecuredSlapd()
    {
        const Env &kdc = servers().kdc;
        std::ofstream(dir + ".sh")
            << "set -e; FIXTURE=test_sasl; . " << kFixtures << "common.sh; d=" << dir
            << "; s=" << servers().ldap.at("DIR")
            << "; rm -rf $d; mkdir -p $d/run $d/db; cp --sparse=always $s/db/data.mdb $d/db/;"
               " sed -e \"s|$s/|$d/|g\" -e '/^sasl-realm/a sasl-secprops minssf=56'"
               " $s/slapd.conf >$d/slapd.conf; p=$(pick_port); echo \"PORT='$p'\" >$d/env;"
               " KRB5_CONFIG="
            << kdc.at("KRB5_CONFIG") << " KRB5_KTNAME=" << kdc.at("KEYTAB")
            << " KRB5RCACHETYPE=none /usr/sbin/slapd -f $d/slapd.conf"
               " -h ldap://127.0.0.1:$p/ -d 0 >$d/slapd.log 2>&1 & echo \"PID='$!'\" >>$d/env;"
               " for i in $(seq 500); do ldapsearch -x -o nettimeout=2 -H ldap://127.0.0.1:$p/"
               " -b '' -s base >/dev/null 2>&1 && exit 0; sleep 0.02; done; exit 1\n";
        auto r = run("bash " + dir + ".sh 2>&1");
        EXPECT_EQ(r.second, 0) << r.first << "see " << dir;
        port = port_of(read_env(dir + "/env"), "PORT");
    }
    ~SecuredSlapd() { run("kill " + read_env(dir + "/env")["PID"] + " 2>/dev/null"); }
};

// A GSSAPI bind on every transport, without a security layer (the handle's default), signing
// or sealing, also where the server demands a layer. Then the session reads what alice may
// read, and ou=big as ldapsearch does with its own GSSAPI bind (and its default layer).
TEST(Sasl, GssapiBindOnEveryTransportAndLayerThenSearchesAsTheUser)
{
    SecuredSlapd secured;
    const Found reference =
        ldapsearch("-Q -Y GSSAPI -H ldap://localhost:" + std::to_string(secured.port) + "/ -b " +
                       kBig + " -s one cn",
                   "KRB5CCNAME=" + servers().kdc.at("CCACHE"));
    ASSERT_EQ(reference.rc, 0);
    ASSERT_EQ(reference.entries, 2000u);
    const int ldap = servers().port("LDAP_PORT");
    const struct {
        const char *name;
        int port;
        uint8_t tls_mod;
        uint32_t min_ssf, max_ssf;  // none set when both are 0
    } cases[] = {
        {"plain", ldap, 0, 0, 0},
        {"StartTLS", ldap, 1, 0, 0},
        {"LDAPS", servers().port("LDAPS_PORT"), 2, 0, 0},
        {"sign", ldap, 0, 1, 1},
        {"seal", ldap, 0, 56, 256},
        {"seal inside StartTLS", ldap, 1, 56, 256},
        {"seal where the server demands it", secured.port, 0, 0, 256},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Ld ld = open_session(c.port, c.tls_mod);
        ASSERT_NE(ld, nullptr);
        EXPECT_EQ(readable_passwords(ld.get()), std::vector<std::string>{});
        ASSERT_EQ(c.max_ssf == 0 ? 0 : cmp_ldap_set_sasl_ssf(ld.get(), c.min_ssf, c.max_ssf), 0);
        int id = sasl_bind(ld.get(), servers().ccache());
        // The id of the final BindRequest: the GSSAPI exchange takes three.
        EXPECT_EQ(id, ld->ld_mid) << "ld_errno " << ld->ld_errno;
        EXPECT_GE(id, 3);
        EXPECT_EQ(ld->cmp_ldap_ld_sasl_authctx, nullptr);
        EXPECT_EQ(ld->ld_sasl_layer != nullptr, c.max_ssf != 0);
        CMP_LDAP_MESSAGE *res = nullptr;
        EXPECT_EQ(cmp_ldap_result(ld.get(), id, 0, &kWait, &res), CMP_LDAP_RES_BIND);
        EXPECT_EQ(cmp_ldap_result2error(ld.get(), res, 1), 0);
        EXPECT_EQ(readable_passwords(ld.get()), kAlicesOwn);
        Found big = search(ld.get(), kBig, CMP_LDAP_SCOPE_ONELEVEL, nullptr, nullptr, "cn");
        EXPECT_EQ(big.rc, 0);
        EXPECT_EQ(big.items, reference.items);
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
