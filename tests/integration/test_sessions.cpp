// Sessions against a real slapd on loopback.
#include <arpa/inet.h>
#include <poll.h>

#include <atomic>
#include <thread>

#include "support.h"

namespace {

using namespace integ;

// The server with TLS (StartTLS and ldaps://) or the one without any TLS, started on first use.
const Env &server(bool tls = true)
{
    static Env env[2];
    if (env[tls].empty()) env[tls] = start_slapd(tls ? "tls" : "plain", tls ? "" : " --no-tls");
    return env[tls];
}

// Each test has a plain anonymous session to the server with TLS.
class Sessions : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_NE(port("LDAP_PORT"), 0);
        int rc = -1;
        ld = open_session("127.0.0.1", port("LDAP_PORT"), CMP_LDAP_TLS_MOD_NONE, 0, &rc);
        ASSERT_EQ(rc, 0);
    }
    static int port(const char *key, bool tls = true) { return port_of(server(tls), key); }
    Ld ld{nullptr, cmp_ldap_unbind};
};

// Every mode and every failure of the open. A success carries a bind and a 2,000-entry search
// and closes its socket at unbind; a failure leaves no handle, TLS object or descriptor.
TEST_F(Sessions, Open)
{
    const struct {
        const char *name, *host;
        bool tls;          // the server with TLS or the one without
        const char *port;  // key in the server's env; "" for a closed port
        uint8_t tls_mod, ssl_auth;
        const char *ca, *protocol;
        int rc;
    } rows[] = {
        {"Plain", "127.0.0.1", true, "LDAP_PORT", 0, 1, "CA_FILE", "1", 0},
        {"StartTls", "127.0.0.1", true, "LDAP_PORT", 1, 1, "CA_FILE", "1", 0},
        {"Ldaps", "127.0.0.1", true, "LDAPS_PORT", 2, 1, "CA_FILE", "1", 0},
        {"LdapsWrapperVerifies", "127.0.0.1", true, "LDAPS_PORT", 2, 2, "CA_FILE", "1", 0},
        {"LdapsByName", "localhost", true, "LDAPS_PORT", 2, 1, "CA_FILE", "1", 0},
        {"ProtocolOff", "127.0.0.1", true, "LDAP_PORT", 0, 0, "CA_FILE", "0", 276},
        {"ClosedPort", "127.0.0.1", true, "", 0, 0, "CA_FILE", "1", 279},
        {"StartTlsRefused", "127.0.0.1", false, "LDAP_PORT", 1, 1, "CA_FILE", "1", 80},
        {"UnknownCaLdaps", "127.0.0.1", true, "LDAPS_PORT", 2, 1, "OTHER_CA_FILE", "1", 269},
        {"UnknownCaStartTls", "127.0.0.1", true, "LDAP_PORT", 1, 1, "OTHER_CA_FILE", "1", 269},
        {"UnknownCaWrapper", "127.0.0.1", true, "LDAPS_PORT", 2, 2, "OTHER_CA_FILE", "1", 269},
        {"UnverifiedLdaps", "127.0.0.1", true, "LDAPS_PORT", 2, 0, "OTHER_CA_FILE", "1", 0},
        {"UnverifiedStartTls", "127.0.0.1", true, "LDAP_PORT", 1, 0, "OTHER_CA_FILE", "1", 0},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_NE(port("LDAP_PORT", r.tls), 0);
        setenv("TOVEISTROR_CA_FILE", server().at(r.ca).c_str(), 1);
        setenv("TOVEISTROR_LDAP_PROTOCOL", r.protocol, 1);
        int fd = open_descriptors(), rc = -1;
        Ld s = open_session(r.host, *r.port ? port(r.port, r.tls) : 1, r.tls_mod, r.ssl_auth, &rc);
        EXPECT_EQ(rc, r.rc);
        EXPECT_EQ(s != nullptr, r.rc == 0);
        if (s != nullptr) {
            EXPECT_EQ(s->ld_ssl_conn != nullptr, r.tls_mod != 0);
            EXPECT_EQ(simple_bind(s.get(), "uid=bob," + kPeople, "bob-secret"), 0);
            Found big = search(s.get(), kBig, CMP_LDAP_SCOPE_ONELEVEL, nullptr, nullptr, "cn");
            EXPECT_EQ(big.rc, 0);
            EXPECT_EQ(big.entries, 2000u);
            EXPECT_EQ(cmp_ldap_unbind(s.release()), 0);
        }
        EXPECT_EQ(open_descriptors(), fd);
    }
    unsetenv("TOVEISTROR_LDAP_PROTOCOL");
}

// Binds one after another on one session; each takes effect (alice may read her password).
TEST_F(Sessions, SimpleBind)
{
    const struct {
        std::string dn, pw, seen;
        int rc;  // also left in ld_errno by result2error
    } rows[] = {
        {kAlice, "alice-secret", "userPassword: alice-secret\n", 0},
        {kAlice, "not-her-password", "", 49},
        {"", "", "", 0},  // anonymous
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.pw);
        EXPECT_EQ(simple_bind(ld.get(), r.dn, r.pw), r.rc);
        EXPECT_EQ(ld->ld_errno, r.rc);
        Found f = search(ld.get(), kAlice, CMP_LDAP_SCOPE_BASE, nullptr, nullptr, "userPassword");
        EXPECT_EQ(f.items, std::vector<std::string>{"dn: " + kAlice + "\n" + r.seen});
    }
}

// Each filter shape gives over the whole tree what ldapsearch gives for its RFC 4515 form.
TEST_F(Sessions, FiltersAsLdapsearch)
{
    const uint32_t ANY = CMP_LDAP_FILTER_COND_ANY, INI = CMP_LDAP_FILTER_COND_INITIAL;
    const uint32_t FIN = CMP_LDAP_FILTER_COND_FINAL, EQ = CMP_LDAP_FILTER_COND_EQUAL;
    const uint32_t AND = CMP_LDAP_SEARCH_COND_AND, OR = CMP_LDAP_SEARCH_COND_OR;
    const struct {
        const char *rfc4515;
        uint32_t cond, comb;
        const char *attrs, *values;  // no attribute/value filter when attrs is empty
        uint32_t pcomb;
        const char *present;  // no presence filter when empty
    } rows[] = {
        {"(sn=Archer)", EQ, AND, "sn", "Archer", AND, ""},
        {"(cn=*ar*)", ANY, AND, "cn", "ar", AND, ""},
        {"(cn=B*)", INI, AND, "cn", "B", AND, ""},
        {"(mail=*@example.test)", FIN, AND, "mail", "@example.test", AND, ""},
        {"(&(sn=Archer)(givenName=Alice))", EQ, AND, "sn,givenName", "Archer,Alice", AND, ""},
        {"(|(sn=Baker)(sn=Chen))", EQ, OR, "sn, sn", "Baker, Chen", AND, ""},
        {"(&(cn=A*)(mail=a*))", INI, AND, "cn,mail", "A,a", AND, ""},
        {"(|(cn=*ave*)(mail=*baker*))", ANY, OR, "cn,mail", "ave,baker", AND, ""},
        {"(|(cn=*Chen)(sn=*son))", FIN, OR, "cn,sn", "Chen,son", AND, ""},
        {"(mail=*)", EQ, AND, "", "", AND, "mail"},
        {"(&(mail=*)(sn=*)(jpegPhoto=*))", EQ, AND, "", "", AND, "mail,sn,jpegPhoto"},
        {"(|(jpegPhoto=*)(givenName=*))", EQ, AND, "", "", OR, "jpegPhoto,givenName"},
        {"(&(sn=Archer)(jpegPhoto=*))", EQ, AND, "sn", "Archer", AND, "jpegPhoto"},
        {"(&(|(uid=bob)(uid=dave))(|(o=*)(mail=*)))", EQ, OR, "uid,uid", "bob,dave", OR, "o,mail"},
        {"(objectClass=*)", EQ, AND, "", "", AND, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.rfc4515);
        CMP_LDAP_FILTER f{r.cond, r.comb, {}, {}};
        CMP_LDAP_FILTER_PRESENT p{r.pcomb, {}};
        snprintf(f.cmp_ldap_attr, sizeof f.cmp_ldap_attr, "%s", r.attrs);
        snprintf(f.cmp_ldap_value, sizeof f.cmp_ldap_value, "%s", r.values);
        snprintf(p.attr, sizeof p.attr, "%s", r.present);
        Found mine = search(ld.get(), kSuffix, CMP_LDAP_SCOPE_SUBTREE, *r.attrs ? &f : nullptr,
                            *r.present ? &p : nullptr);
        Found ref = ldapsearch("-x -H " + server().at("LDAP_URI") + " -b " + kSuffix + " '" +
                               r.rfc4515 + "'");
        EXPECT_EQ(mine.rc, 0);
        EXPECT_EQ(ref.rc, 0);
        EXPECT_GT(ref.entries, 0u);
        EXPECT_EQ(ref.items.size(), ref.entries + 1);  // and the reference
        EXPECT_EQ(mine.sorted().items, ref.sorted().items);
    }
}

TEST_F(Sessions, BinaryAttributeByteForByte)
{
    const char kPhoto[] =
        "\xff\xd8\xff\xe0\x00\x10JFIF\x00\x01\x01\x00\x00\x01"
        "\x00\x01\x00\x00\x80\x7f\xfe\x00\x0a\x0d\x20\x3a\x3c\xff\xd9";
    Found f = search(ld.get(), kAlice, CMP_LDAP_SCOPE_BASE, nullptr, nullptr, "jpegPhoto");
    std::string want = "dn: " + kAlice + "\njpegPhoto: " + std::string(kPhoto, 31) + "\n";
    EXPECT_EQ(f.items, std::vector<std::string>{want});
}

TEST_F(Sessions, HandleSizeLimitGives4)
{
    ld->ld_sizelimit = 5;
    Found f = search(ld.get(), kBig, CMP_LDAP_SCOPE_ONELEVEL, nullptr, nullptr, "cn");
    EXPECT_EQ(f.rc, 4);
    EXPECT_EQ(ld->ld_errno, 4);
    EXPECT_EQ(f.entries, 5u);
}

TEST_F(Sessions, AbandonPartWayThenSearchAgain)
{
    int id = cmp_ldap_search_tiny(ld.get(), kBig.c_str(), CMP_LDAP_SCOPE_ONELEVEL, nullptr, nullptr,
                                  "cn,sn,mail", 0);
    ASSERT_GT(id, 0);
    for (int i = 0; i < 10; ++i) {
        CMP_LDAP_MESSAGE *m = nullptr;
        ASSERT_EQ(cmp_ldap_result(ld.get(), id, 0, &kWait, &m), CMP_LDAP_RES_SEARCH_ENTRY);
        cmp_ldap_msgfree(m);
    }
    ASSERT_EQ(cmp_ldap_abandon(ld.get(), id), 0);
    EXPECT_EQ(ld->ld_mid, id + 1);  // the abandon took an id of its own
    // Whatever the server still sends for the abandoned search is skipped.
    Found f = search(ld.get(), "uid=carol," + kPeople, CMP_LDAP_SCOPE_BASE, nullptr, nullptr, "sn");
    EXPECT_EQ(f.rc, 0);
    EXPECT_EQ(f.items, std::vector<std::string>{"dn: uid=carol," + kPeople + "\nsn: Chen\n"});
}

// A relay between the library and slapd that passes the server's first `hold_after` octets,
// then holds the rest back until released: a response cut off in the network.
class HoldingRelay {
  public:
    HoldingRelay(int server_port, size_t hold_after)
        : hold_after_(hold_after), thread_([this, server_port] { relay(server_port); })
    {
    }
    ~HoldingRelay()
    {
        release();
        shutdown(listener_.fd, SHUT_RDWR);
        thread_.join();
    }
    void release() { released_ = true; }
    int port() const { return listener_.port; }

  private:
    void relay(int server_port)
    {
        int client = listener_.accept_one();
        int server = connect_loopback(server_port);
        if (client < 0 || server < 0) {
            close(client);
            close(server);
            return;
        }
        std::string held;
        size_t passed = 0;
        char buf[4096];
        for (bool open = true; open;) {
            pollfd fds[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
            if (poll(fds, 2, 50) < 0) break;
            if (fds[0].revents != 0) {
                ssize_t n = read(client, buf, sizeof buf);
                open = n > 0 && write(server, buf, static_cast<size_t>(n)) == n;
            }
            if (open && fds[1].revents != 0) {
                ssize_t n = read(server, buf, sizeof buf);
                open = n > 0;
                if (open) held.append(buf, static_cast<size_t>(n));
            }
            size_t allowed = released_ ? held.size() : std::min(held.size(), hold_after_ - passed);
            if (allowed > 0 &&
                write(client, held.data(), allowed) == static_cast<ssize_t>(allowed)) {
                held.erase(0, allowed);
                passed += allowed;
            }
        }
        close(client);
        close(server);
    }
    size_t hold_after_;
    Listener listener_;
    std::atomic<bool> released_{false};
    std::thread thread_;
};

// A time-out in the middle of an entry drops the session: what arrives later is never read as
// a message of its own, every later call fails with "server down", and unbind still works.
TEST_F(Sessions, ResponseCutByATimeOutIsNeverReadFromItsMiddle)
{
    HoldingRelay relay(port("LDAP_PORT"), 3001);
    int rc = -1;
    Ld cut = open_session("127.0.0.1", relay.port(), CMP_LDAP_TLS_MOD_NONE, 0, &rc);
    ASSERT_EQ(rc, 0);
    int id = cmp_ldap_search_tiny(cut.get(), kBig.c_str(), CMP_LDAP_SCOPE_ONELEVEL, nullptr,
                                  nullptr, "cn,sn,mail,description", 0);
    ASSERT_GT(id, 0);
    const CMP_LDAP_TIMEVAL short_wait = {1, 0};
    int entries = 0;
    CMP_LDAP_MESSAGE *m = nullptr;
    int type = 0;
    while ((type = cmp_ldap_result(cut.get(), id, 0, &short_wait, &m)) ==
           CMP_LDAP_RES_SEARCH_ENTRY) {
        ++entries;
        cmp_ldap_msgfree(m);
    }
    EXPECT_EQ(type, -1);
    EXPECT_EQ(cut->ld_errno, CMP_LDAP_TIMEOUT);
    EXPECT_GT(entries, 5);
    EXPECT_LT(entries, 2000);
    relay.release();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(cmp_ldap_result(cut.get(), -1, 0, &short_wait, &m), -1);
        EXPECT_EQ(m, nullptr);
        EXPECT_EQ(cut->ld_errno, CMP_LDAP_SERVER_DOWN);
    }
    EXPECT_EQ(cmp_ldap_search_tiny(cut.get(), kBig.c_str(), 0, nullptr, nullptr, "", 0), -1);
    EXPECT_EQ(cmp_ldap_unbind(cut.release()), 0);
}

}  // namespace
