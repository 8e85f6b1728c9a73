// What the C++ integration tests share: the fixtures' servers, loopback listeners, descriptor
// counts, sessions and whole searches in one comparable form. ctest runs each TEST in a
// process of its own, so a server starts on first use and stops at the end of the process (or
// by the fixture's watchdog should the process die).
#pragma once
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cmp_ldap.h"

namespace integ {

using Env = std::map<std::string, std::string>;
inline const std::string kFixtures = TOVEISTROR_SOURCE_DIR "/tests/fixtures/";
inline const std::string kState = TOVEISTROR_BINARY_DIR "/integ-slapd";
inline const std::string kSuffix = "dc=example,dc=test";
inline const std::string kPeople = "ou=people," + kSuffix;
inline const std::string kBig = "ou=big," + kSuffix;
inline const std::string kAlice = "uid=alice," + kPeople;
inline const CMP_LDAP_TIMEVAL kWait = {10, 0};

// Runs a shell command: its standard output and exit status.
inline std::pair<std::string, int> run(const std::string &cmd)
{
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    char buf[8192];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;)
        out.append(buf, n);
    int st = p != nullptr ? pclose(p) : -1;
    return {out, WIFEXITED(st) ? WEXITSTATUS(st) : -1};
}

// A fixture's env file (KEY='value' per line) as a map.
inline Env read_env(const std::string &file)
{
    Env env;
    std::ifstream in(file);
    for (std::string k, v; std::getline(in, k, '=') && std::getline(in, v);)
        env[k] = v.substr(1, v.size() - 2);
    return env;
}

// The fixtures this process started (script, directory), stopped in reverse order at its end:
// a slapd before the KDC it trusts. A failed run keeps their directories to look at.
inline std::vector<std::pair<std::string, std::string>> g_started;
class StopFixtures : public ::testing::Environment {
    void TearDown() override
    {
        const char *rm = ::testing::UnitTest::GetInstance()->Passed() ? " --remove" : "";
        for (auto s = g_started.rbegin(); s != g_started.rend(); ++s) {
            auto r = run("bash " + kFixtures + s->first + " stop " + s->second + rm + " 2>&1");
            EXPECT_EQ(r.second, 0) << s->first << " stop " << s->second << ": " << r.first;
        }
    }
};
inline ::testing::Environment *const g_stop_fixtures =
    ::testing::AddGlobalTestEnvironment(new StopFixtures);

// Starts tests/fixtures/<script> in kState/<pid>-<name>, owned by this process: its env file
// with DIR added (only DIR when it did not start).
inline Env start_fixture(const std::string &script, const std::string &name,
                         const std::string &args = "")
{
    const std::string pid = std::to_string(getpid()), dir = kState + "/" + pid + "-" + name;
    g_started.emplace_back(script, dir);
    auto r =
        run("bash " + kFixtures + script + " start " + dir + " --owner " + pid + args + " 2>&1");
    EXPECT_EQ(r.second, 0) << script << " did not start in " << dir << ": " << r.first;
    Env env = read_env(dir + "/env");
    env["DIR"] = dir;
    return env;
}

// A slapd on the certificates and template database all the tests share.
inline Env start_slapd(const std::string &name, const std::string &args = "")
{
    return start_fixture("slapd.sh", name, " --shared " + kState + "/shared" + args);
}

inline int port_of(const Env &env, const char *key)
{
    auto it = env.find(key);
    return it != env.end() ? atoi(it->second.c_str()) : 0;
}

// How many descriptors this process holds: a descriptor left open adds one.
inline int open_descriptors()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr)
        ++n;
    closedir(d);
    return n;
}

// A loopback listener on a free port, whose accept gives up after 5 s. A negative backlog
// leaves the socket bound but not listening, so that connects to it are refused.
struct Listener {
    int fd, port = 0;
    explicit Listener(int backlog = 8, int family = AF_INET) : fd(socket(family, SOCK_STREAM, 0))
    {
        sockaddr_in6 a{};  // the port sits at the same offset in a sockaddr_in
        a.sin6_family = static_cast<sa_family_t>(family);
        a.sin6_addr = in6addr_loopback;
        auto *a4 = reinterpret_cast<sockaddr_in *>(&a);
        if (family == AF_INET) a4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = family == AF_INET ? sizeof(sockaddr_in) : sizeof(a);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), len), 0);
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len), 0);
        port = ntohs(a.sin6_port);
        EXPECT_EQ(backlog < 0 ? 0 : listen(fd, backlog), 0);
        const timeval accept_limit{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &accept_limit, sizeof(accept_limit));
    }
    ~Listener() { close(fd); }
    int accept_one() { return accept(fd, nullptr, nullptr); }
};

// A socket connected to 127.0.0.1:port, -1 when the connect failed. With SOCK_NONBLOCK in
// flags the connect is only begun.
inline int connect_loopback(int port, int flags = 0)
{
    int fd = socket(AF_INET, SOCK_STREAM | flags, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 || flags != 0) return fd;
    close(fd);
    return -1;
}

using Ld = std::unique_ptr<CMP_LDAP, int (*)(CMP_LDAP *)>;

// Opens a session; rc gets the open's result.
inline Ld open_session(const char *host, int port, uint8_t tls_mod, uint8_t ssl_auth, int *rc,
                       int32_t timeout = 10)
{
    std::string h = host;
    CMP_LDAP_CONN_PARAM p{&h[0], port, timeout, 0, tls_mod, ssl_auth, 0, 0, 0, 0};
    CMP_LDAP *ld = nullptr;
    *rc = cmp_ldap_open_with_timeout(&p, &ld);
    return Ld(ld, cmp_ldap_unbind);
}

// Sends a simple bind: the result code of its response, or -1000 less what the wait gave.
inline int simple_bind(CMP_LDAP *ld, const std::string &dn, const std::string &pw,
                       const CMP_LDAP_TIMEVAL &wait = kWait)
{
    int id = cmp_ldap_bind(ld, dn.c_str(), pw.c_str(), nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE);
    CMP_LDAP_MESSAGE *msg = nullptr;
    int type = id > 0 ? cmp_ldap_result(ld, id, 0, &wait, &msg) : -1;
    return type == CMP_LDAP_RES_BIND ? cmp_ldap_result2error(ld, msg, 1) : -1000 - type;
}

// A search outcome in one comparable form, in the order the server sent it: each entry as
// "dn: X\n" plus "name: raw value\n" per value, each reference as "ref: URL\n" per URL. A
// search that could not be sent or whose results stopped coming adds an item that says so.
struct Found {
    std::vector<std::string> items;
    size_t entries = 0;
    int rc = -1;  // the SearchResultDone's; -1 when none came
    std::string text() const
    {
        std::string all;
        for (const std::string &i : items)
            all += i;
        return all + "rc " + std::to_string(rc) + "\n";
    }
    Found &sorted()
    {
        std::sort(items.begin(), items.end());
        return *this;
    }
};

inline Found search(CMP_LDAP *ld, const std::string &base, uint32_t scope, const CMP_LDAP_FILTER *f,
                    const CMP_LDAP_FILTER_PRESENT *p, const char *attrs = "",
                    const CMP_LDAP_TIMEVAL &wait = kWait)
{
    Found out;
    int id = cmp_ldap_search_tiny(ld, base.c_str(), scope, f, p, attrs, 0);
    if (id <= 0)
        out.items.push_back("search failed: ld_errno " + std::to_string(ld->ld_errno) + "\n");
    CMP_LDAP_MESSAGE *m = nullptr;
    for (int type = 0; id > 0; m = nullptr) {
        if ((type = cmp_ldap_result(ld, id, 0, &wait, &m)) <= 0) {
            out.items.push_back("result failed: ld_errno " + std::to_string(ld->ld_errno) + "\n");
            break;
        }
        if (type == CMP_LDAP_RES_SEARCH_RESULT) {
            out.rc = cmp_ldap_result2error(ld, m, 1);
            break;
        }
        std::string t = "message type " + std::to_string(type) + "\n";
        if (type == CMP_LDAP_RES_SEARCH_REFERENCE) {
            char **urls = cmp_ldap_get_referrals(ld, m);
            t.clear();
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
    return out;
}

inline std::string unbase64(const std::string &in)
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

// A search by ldapsearch (unfolded LDIF) in the same form, rc its exit status. env: variables
// for its command line.
inline Found ldapsearch(const std::string &args, const std::string &env = "")
{
    auto r =
        run(env + " ldapsearch -LLL -o ldif_wrap=no -o nettimeout=10 " + args + " 2>/dev/null");
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
    return out;
}

}  // namespace integ
