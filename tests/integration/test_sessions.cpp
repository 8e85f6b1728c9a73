// Sessions against a real OpenLDAP slapd on loopback: open in every TLS mode,
// binds, every filter shape compared with ldapsearch, binary values, limits,
// abandon, and the failure codes of the open.
//
// ctest runs every TEST in a process of its own, so the servers are started
// lazily by the first test that needs one (certificates and data are made once
// per build tree by tests/fixtures/slapd.sh and shared) and stopped by the
// environment's TearDown; the fixture's watchdog stops them should this process
// die first.
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cmp_ldap.h"
#include "cmp_ldap_posix.h"

namespace {

const std::string kSourceDir = TOVEISTROR_SOURCE_DIR;
const std::string kStateDir = std::string(TOVEISTROR_BINARY_DIR) + "/integ-slapd";
const std::string kPeople = "ou=people,dc=example,dc=test";
const std::string kBig = "ou=big,dc=example,dc=test";
const std::string kSuffix = "dc=example,dc=test";

std::string quote(const std::string &s)
{
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs a shell command; returns its standard output and exit status.
std::pair<std::string, int> run(const std::string &cmd)
{
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) return {out, -1};
    char buf[8192];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    int st = pclose(p);
    return {out, WIFEXITED(st) ? WEXITSTATUS(st) : -1};
}

// ---------------------------------------------------------------------------
// The servers
// ---------------------------------------------------------------------------

class Slapd {
  public:
    explicit Slapd(bool tls) : tls_(tls)
    {
        dir_ = kStateDir + "/" + std::to_string(getpid()) + (tls ? "-tls" : "-plain");
    }

    bool start()
    {
        std::string cmd = "bash " + quote(kSourceDir + "/tests/fixtures/slapd.sh") + " start " +
                          quote(dir_) + (tls_ ? "" : " --no-tls") + " --owner " +
                          std::to_string(getpid()) + " --shared " + quote(kStateDir + "/shared") +
                          " 2>&1";
        started_ = true;  // a failed start may have left something for stop() to clean
        auto r = run(cmd);
        if (r.second != 0) {
            error_ = r.first;
            return false;
        }
        std::ifstream in(dir_ + "/env");
        std::string line;
        while (std::getline(in, line)) {
            size_t eq = line.find('=');
            if (eq == std::string::npos || line.size() < eq + 3) continue;
            env_[line.substr(0, eq)] = line.substr(eq + 2, line.size() - eq - 3);
        }
        return running();
    }

    bool running() const { return started_ && port() > 0; }

    void stop(bool remove)
    {
        if (!started_) return;
        run("bash " + quote(kSourceDir + "/tests/fixtures/slapd.sh") + " stop " + quote(dir_) +
            (remove ? " --remove" : "") + " >/dev/null 2>&1");
        started_ = false;
    }

    std::string operator[](const std::string &key) const
    {
        auto it = env_.find(key);
        return it == env_.end() ? std::string() : it->second;
    }
    int port() const { return std::atoi((*this)["LDAP_PORT"].c_str()); }
    int ldaps_port() const { return std::atoi((*this)["LDAPS_PORT"].c_str()); }
    const std::string &error() const { return error_; }

  private:
    bool tls_;
    bool started_ = false;
    std::string dir_;
    std::string error_;
    std::map<std::string, std::string> env_;
};

std::unique_ptr<Slapd> g_tls_server;
std::unique_ptr<Slapd> g_plain_server;

// The server with TLS (ldap:// with StartTLS, and ldaps://), or the one without
// any TLS configuration; each started on first use, once per process.
Slapd *server(bool tls = true)
{
    auto &slot = tls ? g_tls_server : g_plain_server;
    if (!slot) {
        slot = std::make_unique<Slapd>(tls);
        if (!slot->start()) ADD_FAILURE() << "slapd did not start: " << slot->error();
    }
    return slot->running() ? slot.get() : nullptr;
}

class ServersEnvironment : public ::testing::Environment {
  public:
    void TearDown() override
    {
        // A failed run keeps the server directories (slapd.log, slapd.conf) to look at.
        bool passed = ::testing::UnitTest::GetInstance()->Passed();
        if (g_tls_server) g_tls_server->stop(passed);
        if (g_plain_server) g_plain_server->stop(passed);
    }
};

::testing::Environment *const g_environment =
    ::testing::AddGlobalTestEnvironment(new ServersEnvironment);

// ---------------------------------------------------------------------------
// Sessions
// ---------------------------------------------------------------------------

struct Session {
    CMP_LDAP *ld = nullptr;
    Session() = default;
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session()
    {
        if (ld != nullptr) cmp_ldap_unbind(ld);
    }
};

struct Connection {
    std::string host = "127.0.0.1";
    int port = 0;
    uint8_t tls_mod = CMP_LDAP_TLS_MOD_NONE;
    uint8_t ssl_auth = 0;
    int timeout = 10;
};

int open_session(const Connection &c, CMP_LDAP **ld)
{
    std::vector<char> host(c.host.begin(), c.host.end());
    host.push_back('\0');
    CMP_LDAP_CONN_PARAM p{};
    p.cmp_ldap_hostname = host.data();
    p.portno = c.port;
    p.timeout = c.timeout;
    p.tls_mod = c.tls_mod;
    p.ssl_auth = c.ssl_auth;
    return cmp_ldap_open_with_timeout(&p, ld);
}

// Sets an environment variable for one scope.
class ScopedEnv {
  public:
    ScopedEnv(const char *name, const std::string &value) : name_(name)
    {
        const char *old = std::getenv(name);
        had_ = old != nullptr;
        if (had_) old_ = old;
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv()
    {
        if (had_) {
            setenv(name_, old_.c_str(), 1);
        } else {
            unsetenv(name_);
        }
    }

  private:
    const char *name_;
    bool had_ = false;
    std::string old_;
};

int open_fds()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    while (readdir(d) != nullptr)
        ++n;
    closedir(d);
    return n;
}

bool fd_is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

const CMP_LDAP_TIMEVAL kWait = {10, 0};

// Collects the BindResponse of `id` and returns its result code.
int bind_result(CMP_LDAP *ld, int id)
{
    CMP_LDAP_MESSAGE *msg = nullptr;
    int type = cmp_ldap_result(ld, id, 0, &kWait, &msg);
    if (type != CMP_LDAP_RES_BIND) {
        if (msg != nullptr) cmp_ldap_msgfree(msg);
        return -1000 - type;
    }
    return cmp_ldap_result2error(ld, msg, 1);
}

// ---------------------------------------------------------------------------
// Search results in one comparable form
// ---------------------------------------------------------------------------

struct Entry {
    std::string dn;
    std::vector<std::pair<std::string, std::vector<std::string>>> attrs;
    bool operator==(const Entry &o) const { return dn == o.dn && attrs == o.attrs; }
};

std::ostream &operator<<(std::ostream &os, const Entry &e)
{
    os << "\n  dn: " << e.dn;
    for (const auto &a : e.attrs) {
        os << "\n    " << a.first << " (" << a.second.size() << "):";
        for (const auto &v : a.second)
            os << " [" << v.size() << " bytes]";
    }
    return os;
}

struct Outcome {
    std::vector<Entry> entries;
    std::vector<std::string> refs;
    int rc = -1;
};

void sort_outcome(Outcome &o)
{
    std::sort(o.entries.begin(), o.entries.end(),
              [](const Entry &a, const Entry &b) { return a.dn < b.dn; });
    std::sort(o.refs.begin(), o.refs.end());
}

Entry read_entry(CMP_LDAP *ld, CMP_LDAP_MESSAGE *msg)
{
    Entry e;
    char *dn = cmp_ldap_get_dn(ld, msg);
    EXPECT_NE(dn, nullptr);
    if (dn == nullptr) return e;
    e.dn = dn;
    cmp_ldap_dn_free(dn);
    void *cursor = nullptr;
    for (char *a = cmp_ldap_first_attribute(ld, msg, &cursor); a != nullptr;
         a = cmp_ldap_next_attribute(ld, msg, cursor)) {
        std::string name = a;
        CMP_LDAP_BERVAL **vals = cmp_ldap_get_values_binary(ld, msg, name.c_str());
        EXPECT_NE(vals, nullptr) << name;
        if (vals == nullptr) break;
        std::vector<std::string> values;
        for (CMP_LDAP_BERVAL **v = vals; *v != nullptr; ++v) {
            values.emplace_back(reinterpret_cast<const char *>((*v)->data), (*v)->total_size);
        }
        EXPECT_EQ(cmp_ldap_value_free_binary(vals), static_cast<int>(values.size()));
        e.attrs.emplace_back(name, std::move(values));
    }
    return e;
}

// Runs one search and collects everything up to the SearchResultDone.
Outcome library_search(CMP_LDAP *ld, const std::string &base, uint32_t scope,
                       const CMP_LDAP_FILTER *f, const CMP_LDAP_FILTER_PRESENT *p,
                       const std::string &attrs = "", uint32_t attrsonly = 0)
{
    Outcome out;
    int id = cmp_ldap_search_tiny(ld, base.c_str(), scope, f, p, attrs.c_str(), attrsonly);
    EXPECT_GT(id, 0) << "ld_errno " << ld->ld_errno;
    if (id <= 0) return out;
    for (;;) {
        CMP_LDAP_MESSAGE *msg = nullptr;
        int type = cmp_ldap_result(ld, id, 0, &kWait, &msg);
        if (type == CMP_LDAP_RES_SEARCH_ENTRY) {
            out.entries.push_back(read_entry(ld, msg));
            EXPECT_EQ(cmp_ldap_msgfree(msg), CMP_LDAP_RES_SEARCH_ENTRY);
        } else if (type == CMP_LDAP_RES_SEARCH_REFERENCE) {
            char **urls = cmp_ldap_get_referrals(ld, msg);
            EXPECT_NE(urls, nullptr);
            for (char **u = urls; u != nullptr && *u != nullptr; ++u)
                out.refs.emplace_back(*u);
            cmp_ldap_value_free(urls);
            cmp_ldap_msgfree(msg);
        } else if (type == CMP_LDAP_RES_SEARCH_RESULT) {
            out.rc = cmp_ldap_result2error(ld, msg, 1);
            return out;
        } else {
            ADD_FAILURE() << "cmp_ldap_result gave " << type << ", ld_errno " << ld->ld_errno;
            if (msg != nullptr) cmp_ldap_msgfree(msg);
            return out;
        }
    }
}

std::string base64_decode(const std::string &in)
{
    auto val = [](char c) -> int {
        if (c >= 'A' && c <= 'Z') return c - 'A';
        if (c >= 'a' && c <= 'z') return c - 'a' + 26;
        if (c >= '0' && c <= '9') return c - '0' + 52;
        if (c == '+') return 62;
        if (c == '/') return 63;
        return -1;
    };
    std::string out;
    uint32_t acc = 0;
    int bits = 0;
    for (char c : in) {
        int v = val(c);
        if (v < 0) continue;
        acc = (acc << 6) | static_cast<uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((acc >> bits) & 0xff);
        }
    }
    return out;
}

// The same search through ldapsearch (unfolded LDIF), read into the same form.
Outcome ldapsearch(const Slapd &srv, const std::string &base, const std::string &scope,
                   const std::string &filter, const std::string &attrs = "", bool attrsonly = false)
{
    std::string cmd = "ldapsearch -x -LLL -o ldif_wrap=no -o nettimeout=10 -H " +
                      quote(srv["LDAP_URI"]) + " -b " + quote(base) + " -s " + scope +
                      (attrsonly ? " -A " : " ") + quote(filter);
    std::string a = attrs;
    for (size_t pos; !a.empty(); a = pos == std::string::npos ? "" : a.substr(pos + 1)) {
        pos = a.find(',');
        cmd += " " + quote(a.substr(0, pos));
    }
    auto r = run(cmd + " 2>/dev/null");
    Outcome out;
    out.rc = r.second;
    Entry cur;
    bool in_entry = false;
    size_t start = 0;
    const std::string &text = r.first;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        start = end + 1;
        if (line.empty()) {
            if (in_entry) out.entries.push_back(cur);
            cur = Entry();
            in_entry = false;
            continue;
        }
        if (line.compare(0, 5, "# ref") == 0) {
            out.refs.push_back(line.substr(5));
            continue;
        }
        if (line[0] == '#') continue;
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string name = line.substr(0, colon);
        std::string value;
        if (line.compare(colon, 2, "::") == 0) {
            value = base64_decode(line.substr(colon + 2));
        } else if (colon + 1 < line.size()) {
            value = line.substr(colon + 2);
        }
        if (name == "dn") {
            cur.dn = value;
            in_entry = true;
        } else if (!cur.attrs.empty() && cur.attrs.back().first == name) {
            cur.attrs.back().second.push_back(value);
        } else if (attrsonly) {
            cur.attrs.emplace_back(name, std::vector<std::string>());
        } else {
            cur.attrs.emplace_back(name, std::vector<std::string>{value});
        }
    }
    if (in_entry) out.entries.push_back(cur);
    return out;
}

CMP_LDAP_FILTER make_filter(uint32_t match, uint32_t combine, const char *attrs, const char *values)
{
    CMP_LDAP_FILTER f{};
    f.cmp_ldap_filterCond = match;
    f.cmp_ldap_searchCond = combine;
    std::snprintf(f.cmp_ldap_attr, sizeof f.cmp_ldap_attr, "%s", attrs);
    std::snprintf(f.cmp_ldap_value, sizeof f.cmp_ldap_value, "%s", values);
    return f;
}

CMP_LDAP_FILTER_PRESENT make_present(uint32_t combine, const char *attrs)
{
    CMP_LDAP_FILTER_PRESENT p{};
    p.cmp_ldap_searchCond = combine;
    std::snprintf(p.attr, sizeof p.attr, "%s", attrs);
    return p;
}

// ---------------------------------------------------------------------------
// Opening sessions
// ---------------------------------------------------------------------------

class SessionTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        srv_ = server();
        ASSERT_NE(srv_, nullptr);
    }

    Connection plain() const
    {
        Connection c;
        c.port = srv_->port();
        return c;
    }

    // An open plain session, bound as nobody.
    void open_plain(Session &s)
    {
        ASSERT_EQ(open_session(plain(), &s.ld), 0);
        ASSERT_NE(s.ld, nullptr);
    }

    Slapd *srv_ = nullptr;
};

TEST_F(SessionTest, OpenPlainHasNoTls)
{
    Session s;
    ASSERT_EQ(open_session(plain(), &s.ld), 0);
    ASSERT_NE(s.ld, nullptr);
    EXPECT_GT(s.ld->ld_sockfd, 0);
    EXPECT_EQ(s.ld->ld_ssl_ctx, nullptr);
    EXPECT_EQ(s.ld->ld_ssl_conn, nullptr);
    EXPECT_EQ(s.ld->ld_sock_timeout, 10000);
    Outcome o =
        library_search(s.ld, "uid=alice," + kPeople, CMP_LDAP_SCOPE_BASE, nullptr, nullptr, "uid");
    EXPECT_EQ(o.rc, 0);
    ASSERT_EQ(o.entries.size(), 1u);
    EXPECT_EQ(o.entries[0].dn, "uid=alice," + kPeople);
}

struct TlsCase {
    const char *name;
    uint8_t tls_mod;
    uint8_t ssl_auth;
};

void PrintTo(const TlsCase &c, std::ostream *os)
{
    *os << c.name;
}

class TlsOpenTest : public SessionTest, public ::testing::WithParamInterface<TlsCase> {};

TEST_P(TlsOpenTest, VerifiedAgainstTestCa)
{
    ScopedEnv ca("TOVEISTROR_CA_FILE", (*srv_)["CA_FILE"]);
    Connection c = plain();
    c.tls_mod = GetParam().tls_mod;
    c.ssl_auth = GetParam().ssl_auth;
    if (c.tls_mod == CMP_LDAP_TLS_MOD_LDAPS) c.port = srv_->ldaps_port();
    Session s;
    ASSERT_EQ(open_session(c, &s.ld), 0);
    ASSERT_NE(s.ld, nullptr);
    EXPECT_NE(s.ld->ld_ssl_ctx, nullptr);
    EXPECT_NE(s.ld->ld_ssl_conn, nullptr);

    // A bind and a search of some size go through TLS intact.
    const std::string dn = "uid=bob," + kPeople;
    int id = cmp_ldap_bind(s.ld, dn.c_str(), "bob-secret", nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE);
    EXPECT_EQ(bind_result(s.ld, id), CMP_LDAP_SUCCESS);
    Outcome o = library_search(s.ld, kBig, CMP_LDAP_SCOPE_ONELEVEL, nullptr, nullptr, "cn");
    EXPECT_EQ(o.rc, 0);
    EXPECT_EQ(o.entries.size(), 2000u);
}

INSTANTIATE_TEST_SUITE_P(Modes, TlsOpenTest,
                         ::testing::Values(TlsCase{"StartTlsVerifyFlag", 1, 1},
                                           TlsCase{"StartTlsSetVerify", 1, 2},
                                           TlsCase{"LdapsVerifyFlag", 2, 1},
                                           TlsCase{"LdapsSetVerify", 2, 2}),
                         [](const ::testing::TestParamInfo<TlsCase> &i) { return i.param.name; });

TEST_F(SessionTest, LdapsByHostNameLocalhost)
{
    ScopedEnv ca("TOVEISTROR_CA_FILE", (*srv_)["CA_FILE"]);
    Connection c = plain();
    c.host = "localhost";
    c.port = srv_->ldaps_port();
    c.tls_mod = CMP_LDAP_TLS_MOD_LDAPS;
    c.ssl_auth = 1;
    Session s;
    EXPECT_EQ(open_session(c, &s.ld), 0);
    EXPECT_NE(s.ld, nullptr);
}

TEST_F(SessionTest, LdapProtocolSwitchedOffGives276)
{
    ScopedEnv off("TOVEISTROR_LDAP_PROTOCOL", "0");
    CMP_LDAP *ld = nullptr;
    int fds = open_fds();
    EXPECT_EQ(open_session(plain(), &ld), CMP_LDAP_PROTOCOL_SETTING_ERROR);
    EXPECT_EQ(ld, nullptr);
    EXPECT_EQ(open_fds(), fds);
}

TEST_F(SessionTest, ClosedPortGives279)
{
    // A port that was free a moment ago: bind, read it back, close.
    int s = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(s, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    ASSERT_EQ(getsockname(s, reinterpret_cast<sockaddr *>(&a), &len), 0);
    close(s);

    Connection c = plain();
    c.port = ntohs(a.sin_port);
    CMP_LDAP *ld = nullptr;
    int fds = open_fds();
    EXPECT_EQ(open_session(c, &ld), CMP_LDAP_CONNECT_ERROR);
    EXPECT_EQ(ld, nullptr);
    EXPECT_EQ(open_fds(), fds);
}

TEST_F(SessionTest, StartTlsRefusedGives80AndClosesTheSocket)
{
    Slapd *no_tls = server(false);
    ASSERT_NE(no_tls, nullptr);
    Connection c = plain();
    c.port = no_tls->port();
    c.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
    c.ssl_auth = 1;
    CMP_LDAP *ld = nullptr;
    int fds = open_fds();
    EXPECT_EQ(open_session(c, &ld), CMP_LDAP_OTHER);
    EXPECT_EQ(ld, nullptr);
    EXPECT_EQ(open_fds(), fds);
}

struct UnknownCaCase {
    const char *name;
    uint8_t tls_mod;
    uint8_t ssl_auth;
    int expected;
};

void PrintTo(const UnknownCaCase &c, std::ostream *os)
{
    *os << c.name;
}

class UnknownCaTest : public SessionTest, public ::testing::WithParamInterface<UnknownCaCase> {};

TEST_P(UnknownCaTest, Open)
{
    // The client trusts only a CA that did not sign the server's certificate.
    ScopedEnv ca("TOVEISTROR_CA_FILE", (*srv_)["OTHER_CA_FILE"]);
    Connection c = plain();
    c.tls_mod = GetParam().tls_mod;
    c.ssl_auth = GetParam().ssl_auth;
    if (c.tls_mod == CMP_LDAP_TLS_MOD_LDAPS) c.port = srv_->ldaps_port();
    Session s;
    int fds = open_fds();
    EXPECT_EQ(open_session(c, &s.ld), GetParam().expected);
    if (GetParam().expected == 0) {
        ASSERT_NE(s.ld, nullptr);
        EXPECT_NE(s.ld->ld_ssl_conn, nullptr);
        Outcome o = library_search(s.ld, "uid=alice," + kPeople, CMP_LDAP_SCOPE_BASE, nullptr,
                                   nullptr, "uid");
        EXPECT_EQ(o.rc, 0);
        EXPECT_EQ(o.entries.size(), 1u);
    } else {
        EXPECT_EQ(s.ld, nullptr);  // no handle, so no TLS object or socket left over
        EXPECT_EQ(open_fds(), fds);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Verification, UnknownCaTest,
    ::testing::Values(UnknownCaCase{"LdapsVerifyFlagFails", 2, 1, CMP_LDAP_TLS_HANDSHAKE_ERROR_A},
                      UnknownCaCase{"LdapsSetVerifyFails", 2, 2, CMP_LDAP_TLS_HANDSHAKE_ERROR_A},
                      UnknownCaCase{"StartTlsVerifyFlagFails", 1, 1,
                                    CMP_LDAP_TLS_HANDSHAKE_ERROR_A},
                      UnknownCaCase{"LdapsWithoutVerificationSucceeds", 2, 0, 0},
                      UnknownCaCase{"StartTlsWithoutVerificationSucceeds", 1, 0, 0}),
    [](const ::testing::TestParamInfo<UnknownCaCase> &i) { return i.param.name; });

// ---------------------------------------------------------------------------
// Binds
// ---------------------------------------------------------------------------

TEST_F(SessionTest, SimpleBindWithTheRightPassword)
{
    Session s;
    open_plain(s);
    int id = cmp_ldap_bind(s.ld, ("uid=alice," + kPeople).c_str(), "alice-secret", nullptr, nullptr,
                           CMP_LDAP_AUTH_SIMPLE);
    ASSERT_EQ(id, 1);
    EXPECT_EQ(bind_result(s.ld, id), CMP_LDAP_SUCCESS);

    // Bound as alice, her own userPassword is readable; anonymously it is not.
    Outcome o = library_search(s.ld, "uid=alice," + kPeople, CMP_LDAP_SCOPE_BASE, nullptr, nullptr,
                               "userPassword");
    EXPECT_EQ(o.rc, 0);
    ASSERT_EQ(o.entries.size(), 1u);
    ASSERT_EQ(o.entries[0].attrs.size(), 1u);
    EXPECT_EQ(o.entries[0].attrs[0].second, std::vector<std::string>{"alice-secret"});
}

TEST_F(SessionTest, SimpleBindWithAWrongPasswordGives49)
{
    Session s;
    open_plain(s);
    int id = cmp_ldap_bind(s.ld, ("uid=alice," + kPeople).c_str(), "not-her-password", nullptr,
                           nullptr, CMP_LDAP_AUTH_SIMPLE);
    ASSERT_GT(id, 0);
    EXPECT_EQ(bind_result(s.ld, id), CMP_LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(s.ld->ld_errno, CMP_LDAP_INVALID_CREDENTIALS);
    EXPECT_STREQ(cmp_ldap_err2string(s.ld->ld_errno), "Invalid credentials");
}

TEST_F(SessionTest, AnonymousBind)
{
    Session s;
    open_plain(s);
    int id = cmp_ldap_bind(s.ld, "", "", nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE);
    ASSERT_GT(id, 0);
    EXPECT_EQ(bind_result(s.ld, id), CMP_LDAP_SUCCESS);
    Outcome o = library_search(s.ld, "uid=alice," + kPeople, CMP_LDAP_SCOPE_BASE, nullptr, nullptr,
                               "userPassword");
    EXPECT_EQ(o.rc, 0);
    ASSERT_EQ(o.entries.size(), 1u);
    EXPECT_TRUE(o.entries[0].attrs.empty());
}

// ---------------------------------------------------------------------------
// Every filter shape, entry for entry against ldapsearch
// ---------------------------------------------------------------------------

struct FilterCase {
    const char *name;
    const char *rfc4515;
    bool has_filter;
    CMP_LDAP_FILTER filter;
    bool has_present;
    CMP_LDAP_FILTER_PRESENT present;
    const char *base;
    size_t min_entries;  // guards against a vacuous comparison
};

FilterCase cmp_case(const char *name, const char *text, CMP_LDAP_FILTER f, size_t min)
{
    return FilterCase{name, text, true, f, false, {}, nullptr, min};
}

FilterCase present_case(const char *name, const char *text, CMP_LDAP_FILTER_PRESENT p, size_t min)
{
    return FilterCase{name, text, false, {}, true, p, nullptr, min};
}

std::vector<FilterCase> filter_cases()
{
    const uint32_t kAnd = CMP_LDAP_SEARCH_COND_AND, kOr = CMP_LDAP_SEARCH_COND_OR;
    std::vector<FilterCase> v = {
        cmp_case("Equality", "(sn=Archer)",
                 make_filter(CMP_LDAP_FILTER_COND_EQUAL, kAnd, "sn", "Archer"), 2),
        cmp_case("SubstringAny", "(cn=*ar*)",
                 make_filter(CMP_LDAP_FILTER_COND_ANY, kAnd, "cn", "ar"), 2),
        cmp_case("SubstringInitial", "(cn=B*)",
                 make_filter(CMP_LDAP_FILTER_COND_INITIAL, kAnd, "cn", "B"), 1),
        cmp_case("SubstringFinal", "(mail=*@example.test)",
                 make_filter(CMP_LDAP_FILTER_COND_FINAL, kAnd, "mail", "@example.test"), 5),
        cmp_case("AndOfTwoEqualities", "(&(sn=Archer)(givenName=Alice))",
                 make_filter(CMP_LDAP_FILTER_COND_EQUAL, kAnd, "sn,givenName", "Archer,Alice"), 1),
        cmp_case("OrOfTwoEqualities", "(|(sn=Baker)(sn=Chen))",
                 make_filter(CMP_LDAP_FILTER_COND_EQUAL, kOr, "sn, sn", "Baker, Chen"), 2),
        cmp_case("AndOfTwoInitials", "(&(cn=A*)(mail=a*))",
                 make_filter(CMP_LDAP_FILTER_COND_INITIAL, kAnd, "cn,mail", "A,a"), 1),
        cmp_case("OrOfTwoAnys", "(|(cn=*ave*)(mail=*baker*))",
                 make_filter(CMP_LDAP_FILTER_COND_ANY, kOr, "cn,mail", "ave,baker"), 2),
        cmp_case("OrOfTwoFinals", "(|(cn=*Chen)(sn=*son))",
                 make_filter(CMP_LDAP_FILTER_COND_FINAL, kOr, "cn,sn", "Chen,son"), 2),
        present_case("PresenceAlone", "(mail=*)", make_present(kAnd, "mail"), 5),
        present_case("AndOfThreePresences", "(&(mail=*)(telephoneNumber=*)(givenName=*))",
                     make_present(kAnd, "mail,telephoneNumber,givenName"), 2),
        present_case("OrOfTwoPresences", "(|(jpegPhoto=*)(telephoneNumber=*))",
                     make_present(kOr, "jpegPhoto,telephoneNumber"), 3),
    };
    FilterCase both{"EqualityAndPresence",
                    "(&(sn=Archer)(jpegPhoto=*))",
                    true,
                    make_filter(CMP_LDAP_FILTER_COND_EQUAL, kAnd, "sn", "Archer"),
                    true,
                    make_present(kAnd, "jpegPhoto"),
                    nullptr,
                    1};
    v.push_back(both);
    FilterCase or_and{"OrFilterAndOrPresence",
                      "(&(|(sn=Archer)(sn=Baker))(|(jpegPhoto=*)(mail=*)))",
                      true,
                      make_filter(CMP_LDAP_FILTER_COND_EQUAL, kOr, "sn,sn", "Archer,Baker"),
                      true,
                      make_present(kOr, "jpegPhoto,mail"),
                      nullptr,
                      3};
    v.push_back(or_and);
    FilterCase none{"NoFilter", "(objectClass=*)", false, CMP_LDAP_FILTER{}, false, {}, nullptr, 6};
    v.push_back(none);
    FilterCase whole{"NoFilterWholeTree",
                     "(objectClass=*)",
                     false,
                     CMP_LDAP_FILTER{},
                     false,
                     {},
                     "dc=example,dc=test",
                     2000};
    v.push_back(whole);
    return v;
}

void PrintTo(const FilterCase &c, std::ostream *os)
{
    *os << c.name;
}

class FilterTest : public SessionTest, public ::testing::WithParamInterface<FilterCase> {};

TEST_P(FilterTest, SameEntriesAsLdapsearch)
{
    const FilterCase &fc = GetParam();
    const std::string base = fc.base != nullptr ? fc.base : kPeople;
    Session s;
    open_plain(s);
    Outcome mine =
        library_search(s.ld, base, CMP_LDAP_SCOPE_SUBTREE, fc.has_filter ? &fc.filter : nullptr,
                       fc.has_present ? &fc.present : nullptr);
    Outcome ref = ldapsearch(*srv_, base, "sub", fc.rfc4515);
    sort_outcome(mine);
    sort_outcome(ref);
    EXPECT_EQ(mine.rc, 0);
    EXPECT_EQ(ref.rc, 0);
    EXPECT_GE(ref.entries.size(), fc.min_entries);
    EXPECT_EQ(mine.entries.size(), ref.entries.size());
    EXPECT_EQ(mine.entries, ref.entries);
    EXPECT_EQ(mine.refs, ref.refs);
}

INSTANTIATE_TEST_SUITE_P(Shapes, FilterTest, ::testing::ValuesIn(filter_cases()),
                         [](const ::testing::TestParamInfo<FilterCase> &i) {
                             return i.param.name;
                         });

TEST_F(SessionTest, AttributeListAndAttrsOnlyAsLdapsearch)
{
    Session s;
    open_plain(s);
    CMP_LDAP_FILTER f =
        make_filter(CMP_LDAP_FILTER_COND_FINAL, CMP_LDAP_SEARCH_COND_AND, "mail", "example.test");
    for (uint32_t attrsonly : {0u, 1u}) {
        SCOPED_TRACE(attrsonly);
        Outcome mine = library_search(s.ld, kPeople, CMP_LDAP_SCOPE_ONELEVEL, &f, nullptr,
                                      "cn,mail,jpegPhoto", attrsonly);
        Outcome ref = ldapsearch(*srv_, kPeople, "one", "(mail=*example.test)", "cn,mail,jpegPhoto",
                                 attrsonly != 0);
        sort_outcome(mine);
        sort_outcome(ref);
        EXPECT_EQ(mine.rc, 0);
        EXPECT_GE(ref.entries.size(), 5u);
        EXPECT_EQ(mine.entries, ref.entries);
    }
}

TEST_F(SessionTest, WholeTreeOverLdapsAsLdapsearch)
{
    ScopedEnv ca("TOVEISTROR_CA_FILE", (*srv_)["CA_FILE"]);
    Connection c = plain();
    c.port = srv_->ldaps_port();
    c.tls_mod = CMP_LDAP_TLS_MOD_LDAPS;
    c.ssl_auth = 1;
    Session s;
    ASSERT_EQ(open_session(c, &s.ld), 0);
    Outcome mine = library_search(s.ld, kSuffix, CMP_LDAP_SCOPE_SUBTREE, nullptr, nullptr);
    Outcome ref = ldapsearch(*srv_, kSuffix, "sub", "(objectClass=*)");
    sort_outcome(mine);
    sort_outcome(ref);
    EXPECT_EQ(mine.rc, 0);
    EXPECT_GT(mine.entries.size(), 2000u);
    EXPECT_EQ(mine.entries, ref.entries);
    ASSERT_EQ(mine.refs.size(), 1u);
    EXPECT_EQ(mine.refs, ref.refs);
}

// ---------------------------------------------------------------------------
// Values, limits, abandon, unbind
// ---------------------------------------------------------------------------

TEST_F(SessionTest, BinaryAttributeByteForByte)
{
    static const unsigned char kPhoto[] = {0xff, 0xd8, 0xff, 0xe0, 0x00, 0x10, 'J',  'F',
                                           'I',  'F',  0x00, 0x01, 0x01, 0x00, 0x00, 0x01,
                                           0x00, 0x01, 0x00, 0x00, 0x80, 0x7f, 0xfe, 0x00,
                                           0x0a, 0x0d, 0x20, 0x3a, 0x3c, 0xff, 0xd9};
    Session s;
    open_plain(s);
    CMP_LDAP_FILTER f =
        make_filter(CMP_LDAP_FILTER_COND_EQUAL, CMP_LDAP_SEARCH_COND_AND, "uid", "alice");
    int id = cmp_ldap_search_tiny(s.ld, kPeople.c_str(), CMP_LDAP_SCOPE_ONELEVEL, &f, nullptr,
                                  "jpegPhoto,mail", 0);
    ASSERT_GT(id, 0);
    CMP_LDAP_MESSAGE *msg = nullptr;
    ASSERT_EQ(cmp_ldap_result(s.ld, id, 0, &kWait, &msg), CMP_LDAP_RES_SEARCH_ENTRY);
    CMP_LDAP_BERVAL **vals = cmp_ldap_get_values_binary(s.ld, msg, "JPEGPHOTO");
    ASSERT_NE(vals, nullptr);
    ASSERT_EQ(cmp_ldap_count_values_binary(vals), 1);
    ASSERT_EQ(vals[0]->total_size, sizeof kPhoto);
    EXPECT_EQ(std::memcmp(vals[0]->data, kPhoto, sizeof kPhoto), 0);
    EXPECT_EQ(cmp_ldap_value_free_binary(vals), 1);

    char **text = cmp_ldap_get_values(s.ld, msg, "mail");
    ASSERT_NE(text, nullptr);
    ASSERT_EQ(cmp_ldap_count_values(text), 1);
    EXPECT_STREQ(text[0], "alice@example.test");
    EXPECT_EQ(cmp_ldap_value_free(text), 1);
    cmp_ldap_msgfree(msg);

    ASSERT_EQ(cmp_ldap_result(s.ld, id, 0, &kWait, &msg), CMP_LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(cmp_ldap_result2error(s.ld, msg, 1), 0);
}

TEST_F(SessionTest, MultiValuedMailInServerOrder)
{
    Session s;
    open_plain(s);
    Outcome o =
        library_search(s.ld, "uid=bob," + kPeople, CMP_LDAP_SCOPE_BASE, nullptr, nullptr, "mail");
    EXPECT_EQ(o.rc, 0);
    ASSERT_EQ(o.entries.size(), 1u);
    ASSERT_EQ(o.entries[0].attrs.size(), 1u);
    std::vector<std::string> want = {"bob@example.test", "bob.baker@example.test",
                                     "b.baker@mail.example.test"};
    EXPECT_EQ(o.entries[0].attrs[0].second, want);
}

TEST_F(SessionTest, HandleSizeLimitGivesSizeLimitExceeded)
{
    Session s;
    open_plain(s);
    s.ld->ld_sizelimit = 5;
    Outcome o = library_search(s.ld, kBig, CMP_LDAP_SCOPE_ONELEVEL, nullptr, nullptr, "cn");
    EXPECT_EQ(o.rc, CMP_LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(s.ld->ld_errno, CMP_LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(o.entries.size(), 5u);
}

TEST_F(SessionTest, NoSuchObjectGives32WithMatchedDn)
{
    Session s;
    open_plain(s);
    Outcome o =
        library_search(s.ld, "ou=nowhere," + kSuffix, CMP_LDAP_SCOPE_SUBTREE, nullptr, nullptr);
    EXPECT_EQ(o.rc, CMP_LDAP_NO_SUCH_OBJECT);
    ASSERT_NE(s.ld->ld_matched, nullptr);
    EXPECT_STREQ(s.ld->ld_matched, kSuffix.c_str());
}

TEST_F(SessionTest, AbandonPartWayThenSearchAgain)
{
    Session s;
    open_plain(s);
    int id = cmp_ldap_search_tiny(s.ld, kBig.c_str(), CMP_LDAP_SCOPE_ONELEVEL, nullptr, nullptr,
                                  "cn,sn,mail", 0);
    ASSERT_GT(id, 0);
    for (int i = 0; i < 10; ++i) {
        CMP_LDAP_MESSAGE *msg = nullptr;
        ASSERT_EQ(cmp_ldap_result(s.ld, id, 0, &kWait, &msg), CMP_LDAP_RES_SEARCH_ENTRY);
        cmp_ldap_msgfree(msg);
    }
    ASSERT_EQ(cmp_ldap_abandon(s.ld, id), 0);
    EXPECT_EQ(s.ld->ld_mid, id + 1);  // the abandon took an id of its own

    // Whatever the server still sends for the abandoned search is skipped.
    CMP_LDAP_FILTER f =
        make_filter(CMP_LDAP_FILTER_COND_EQUAL, CMP_LDAP_SEARCH_COND_AND, "uid", "carol");
    Outcome o = library_search(s.ld, kPeople, CMP_LDAP_SCOPE_ONELEVEL, &f, nullptr, "cn");
    EXPECT_EQ(o.rc, 0);
    ASSERT_EQ(o.entries.size(), 1u);
    EXPECT_EQ(o.entries[0].dn, "uid=carol," + kPeople);
}

TEST_F(SessionTest, UnbindClosesTheSocket)
{
    for (uint8_t tls_mod : {CMP_LDAP_TLS_MOD_NONE, CMP_LDAP_TLS_MOD_LDAPS}) {
        SCOPED_TRACE(static_cast<int>(tls_mod));
        ScopedEnv ca("TOVEISTROR_CA_FILE", (*srv_)["CA_FILE"]);
        Connection c = plain();
        c.tls_mod = tls_mod;
        c.ssl_auth = 1;
        if (tls_mod == CMP_LDAP_TLS_MOD_LDAPS) c.port = srv_->ldaps_port();
        CMP_LDAP *ld = nullptr;
        int fds = open_fds();
        ASSERT_EQ(open_session(c, &ld), 0);
        int fd = ld->ld_sockfd;
        ASSERT_TRUE(fd_is_open(fd));
        EXPECT_EQ(cmp_ldap_unbind(ld), 0);
        EXPECT_FALSE(fd_is_open(fd));
        EXPECT_EQ(open_fds(), fds);
    }
}

}  // namespace
