// Sessions against a real slapd on loopback. ctest runs each TEST in a process of its own, so
// servers start on first use and stop at the end (or by the fixture's watchdog should we die).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cmp_ldap.h"

namespace {

const std::string kFixture = TOVEISTROR_SOURCE_DIR "/tests/fixtures/slapd.sh";
const std::string kState = TOVEISTROR_BINARY_DIR "/integ-slapd";
const std::string kSuffix = "dc=example,dc=test";
const std::string kPeople = "ou=people," + kSuffix;
const std::string kBig = "ou=big," + kSuffix;
const std::string kAlice = "uid=alice," + kPeople;
const CMP_LDAP_TIMEVAL kWait = {10, 0};

// Runs a shell command; returns its standard output and exit status.
std::pair<std::string, int> run(const std::string &cmd)
{
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    char buf[8192];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;)
        out.append(buf, n);
    int st = p != nullptr ? pclose(p) : -1;
    return {out, WIFEXITED(st) ? WEXITSTATUS(st) : -1};
}

// The server with TLS (StartTLS and ldaps://) or the one without any TLS, started on first
// use: the fixture's env file as a map, or nullptr when it did not start.
std::map<std::string, std::string> g_env[2];
std::string g_dir[2];

const std::map<std::string, std::string> *server(bool tls = true)
{
    if (g_dir[tls].empty()) {
        g_dir[tls] = kState + "/" + std::to_string(getpid()) + (tls ? "-tls" : "-plain");
        auto r =
            run("bash " + kFixture + " start " + g_dir[tls] + (tls ? "" : " --no-tls") +
                " --owner " + std::to_string(getpid()) + " --shared " + kState + "/shared 2>&1");
        if (r.second != 0) ADD_FAILURE() << "slapd did not start: " << r.first;
        std::ifstream in(g_dir[tls] + "/env");
        for (std::string k, v; std::getline(in, k, '=') && std::getline(in, v);)
            g_env[tls][k] = v.substr(1, v.size() - 2);
    }
    return g_env[tls].count("LDAP_PORT") != 0 ? &g_env[tls] : nullptr;
}

class Servers : public ::testing::Environment {
    void TearDown() override  // a failed run keeps the servers' directories to look at
    {
        const char *rm = ::testing::UnitTest::GetInstance()->Passed() ? " --remove" : "";
        for (const std::string &d : g_dir)
            if (!d.empty()) run("bash " + kFixture + " stop " + d + rm + " >/dev/null 2>&1");
    }
};
::testing::Environment *const g_servers = ::testing::AddGlobalTestEnvironment(new Servers);

// The lowest free descriptor: a descriptor left open moves it.
int next_fd()
{
    int fd = dup(0);
    close(fd);
    return fd;
}

using Ld = std::unique_ptr<CMP_LDAP, int (*)(CMP_LDAP *)>;

Ld open_session(const char *host, int portno, uint8_t tls_mod, uint8_t ssl_auth, int *rc)
{
    std::string h = host;
    CMP_LDAP_CONN_PARAM p{&h[0], portno, 10, 0, tls_mod, ssl_auth, 0, 0, 0, 0};
    CMP_LDAP *ld = nullptr;
    *rc = cmp_ldap_open_with_timeout(&p, &ld);
    return Ld(ld, cmp_ldap_unbind);
}

// Sends a simple bind and returns the result code of its response.
int simple_bind(CMP_LDAP *ld, const std::string &dn, const std::string &pw)
{
    int id = cmp_ldap_bind(ld, dn.c_str(), pw.c_str(), nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE);
    CMP_LDAP_MESSAGE *msg = nullptr;
    int type = id > 0 ? cmp_ldap_result(ld, id, 0, &kWait, &msg) : -1;
    return type == CMP_LDAP_RES_BIND ? cmp_ldap_result2error(ld, msg, 1) : -1000 - type;
}

// A search outcome in one comparable form: each entry as "dn: X\n" plus "name: raw value\n"
// per value in server order, each reference as "ref: URL\n"; both sorted.
struct Found {
    std::vector<std::string> items;
    size_t entries = 0;
    int rc = -1;
};

Found search(CMP_LDAP *ld, const std::string &base, uint32_t scope, const CMP_LDAP_FILTER *f,
             const CMP_LDAP_FILTER_PRESENT *p, const char *attrs = "")
{
    Found out;
    int id = cmp_ldap_search_tiny(ld, base.c_str(), scope, f, p, attrs, 0);
    CMP_LDAP_MESSAGE *m = nullptr;
    for (int type; id > 0 && (type = cmp_ldap_result(ld, id, 0, &kWait, &m)) > 0; m = nullptr) {
        if (type == CMP_LDAP_RES_SEARCH_RESULT) {
            out.rc = cmp_ldap_result2error(ld, m, 1);
            break;
        }
        std::string t;
        if (type == CMP_LDAP_RES_SEARCH_REFERENCE) {
            char **urls = cmp_ldap_get_referrals(ld, m);
            for (char **u = urls; u != nullptr && *u != nullptr; ++u)
                t += "ref: " + std::string(*u) + "\n";
            cmp_ldap_value_free(urls);
        } else if (char *dn = cmp_ldap_get_dn(ld, m)) {
            t = "dn: " + std::string(dn) + "\n";
            cmp_ldap_dn_free(dn);
            void *cur = nullptr;
            for (char *a = cmp_ldap_first_attribute(ld, m, &cur); a != nullptr;
                 a = cmp_ldap_next_attribute(ld, m, cur)) {
                std::string name = a;
                CMP_LDAP_BERVAL **v = cmp_ldap_get_values_binary(ld, m, name.c_str());
                for (int i = 0; v != nullptr && v[i] != nullptr; ++i)
                    t += name + ": " +
                         std::string(reinterpret_cast<char *>(v[i]->data), v[i]->total_size) + "\n";
                cmp_ldap_value_free_binary(v);
            }
            ++out.entries;
        }
        out.items.push_back(t);
        cmp_ldap_msgfree(m);
    }
    EXPECT_GT(id, 0) << "ld_errno " << ld->ld_errno;
    std::sort(out.items.begin(), out.items.end());
    return out;
}

std::string unbase64(const std::string &in)
{
    static const std::string abc =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    uint32_t acc = 0, bits = 0;
    for (char c : in) {
        size_t v = abc.find(c);
        if (v == std::string::npos) continue;
        acc = acc << 6 | static_cast<uint32_t>(v);
        if ((bits += 6) >= 8) out += static_cast<char>(acc >> (bits -= 8));
    }
    return out;
}

// The same search of the whole tree through ldapsearch (unfolded LDIF), in the same form.
Found ldapsearch(const std::string &filter)
{
    auto r = run("ldapsearch -x -LLL -o ldif_wrap=no -o nettimeout=10 -H " +
                 server()->at("LDAP_URI") + " -b " + kSuffix + " '" + filter + "' 2>/dev/null");
    Found out;
    out.rc = r.second;
    std::string cur, line;
    for (size_t at = 0, nl; at <= r.first.size(); at = nl + 1) {
        nl = std::min(r.first.find('\n', at), r.first.size());
        line = r.first.substr(at, nl - at);
        size_t colon = line.find(':');
        if (line.compare(0, 5, "# ref") == 0) {
            out.items.push_back("ref: " + line.substr(5) + "\n");
        } else if (line.empty() && !cur.empty()) {
            out.items.push_back(cur);
            cur.clear();
            ++out.entries;
        } else if (line[0] != '#' && colon != std::string::npos) {
            bool b64 = line.compare(colon, 2, "::") == 0;
            std::string v = line.substr(std::min(colon + 2 + b64, line.size()));
            cur += line.substr(0, colon) + ": " + (b64 ? unbase64(v) : v) + "\n";
        }
    }
    std::sort(out.items.begin(), out.items.end());
    return out;
}

// Each test has a plain anonymous session to the server with TLS.
class Sessions : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_NE(server(), nullptr);
        int rc = -1;
        ld = open_session("127.0.0.1", port("LDAP_PORT"), CMP_LDAP_TLS_MOD_NONE, 0, &rc);
        ASSERT_EQ(rc, 0);
    }
    static int port(const char *key, bool tls = true) { return atoi(server(tls)->at(key).c_str()); }
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
        ASSERT_NE(server(r.tls), nullptr);
        setenv("TOVEISTROR_CA_FILE", server()->at(r.ca).c_str(), 1);
        setenv("TOVEISTROR_LDAP_PROTOCOL", r.protocol, 1);
        int fd = next_fd(), rc = -1;
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
        EXPECT_EQ(next_fd(), fd);
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
        Found ref = ldapsearch(r.rfc4515);
        EXPECT_EQ(mine.rc, 0);
        EXPECT_EQ(ref.rc, 0);
        EXPECT_GT(ref.entries, 0u);
        EXPECT_EQ(ref.items.size(), ref.entries + 1);  // and the reference
        EXPECT_EQ(mine.items, ref.items);
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
    HoldingRelay(int server_port, size_t hold_after) : hold_after_(hold_after)
    {
        listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        bind(listen_fd_, reinterpret_cast<sockaddr *>(&a), len);
        listen(listen_fd_, 1);
        getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&a), &len);
        port = ntohs(a.sin_port);
        thread_ = std::thread([this, server_port] { relay(server_port); });
    }
    ~HoldingRelay()
    {
        release();
        shutdown(listen_fd_, SHUT_RDWR);
        thread_.join();
        close(listen_fd_);
    }
    void release() { released_ = true; }
    int port = 0;

  private:
    void relay(int server_port)
    {
        int client = accept(listen_fd_, nullptr, nullptr);
        int server = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(server_port));
        if (client < 0 || connect(server, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
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
    int listen_fd_ = -1;
    std::atomic<bool> released_{false};
    std::thread thread_;
};

// A time-out in the middle of an entry drops the session: what arrives later is never read as
// a message of its own, every later call fails with "server down", and unbind still works.
TEST_F(Sessions, ResponseCutByATimeOutIsNeverReadFromItsMiddle)
{
    HoldingRelay relay(port("LDAP_PORT"), 3001);
    int rc = -1;
    Ld cut = open_session("127.0.0.1", relay.port, CMP_LDAP_TLS_MOD_NONE, 0, &rc);
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
