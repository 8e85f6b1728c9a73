/* Name resolution and connect: address order, the last attempt's result, and
 * the failures that stop at once. */
#include "cmp_ldap_internal.h"
#include "support.h"

using support::FakePortTest;
using Lines = std::vector<std::string>;

class Connect : public FakePortTest {
  protected:
    CMP_LDAP ld{};
    int connect(long timeout = 5000)
    {
        return cmp_ldap_connect(&ld, "ldap.example", 389, timeout, 0, 0);
    }
};

TEST_F(Connect, TriesIpv4ThenGlobalThenLinkLocalWhateverTheResolverOrder)
{
    /* fe80::/10 covers febf:: but not fec0:: */
    fake::set_resolver(0, {fake::ipv6("fe80::1"), fake::ipv6("2001:db8::1"),
                           fake::Resolved{AF_UNIX, {1, 2}}, fake::ipv4("192.0.2.1"),
                           fake::ipv6("febf::1"), fake::ipv6("fec0::1"), fake::ipv4("192.0.2.2")});
    fake::script_connect({-1, -1, -1, -1, -1, 0});
    ASSERT_EQ(connect(), 0);

    const auto &a = fake::connect_attempts();
    const fake::Resolved expect[] = {fake::ipv4("192.0.2.1"),   fake::ipv4("192.0.2.2"),
                                     fake::ipv6("2001:db8::1"), fake::ipv6("fec0::1"),
                                     fake::ipv6("fe80::1"),     fake::ipv6("febf::1")};
    ASSERT_EQ(a.size(), 6u);
    for (size_t i = 0; i < a.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(a[i].family, expect[i].family);
        EXPECT_EQ(a[i].addr, expect[i].addr);
        EXPECT_EQ(a[i].port, 389);
        EXPECT_EQ(a[i].timeout, 5000);
        EXPECT_EQ(a[i].addrlen, expect[i].family == AF_INET ? 16u : 28u);
        /* set_scope runs for the link-local addresses only */
        EXPECT_EQ(a[i].scope_id, i >= 4 ? 7u : 0u);
    }
    EXPECT_EQ(ld.ld_sockfd, a[5].sockfd);
    const std::string v4 = "cmp_ldap_connect(): Connection failed (rc=-1,len=16)\n";
    const std::string v6 = "cmp_ldap_connect(): Connection failed (rc=-1,len=28)\n";
    EXPECT_EQ(lines(), (Lines{v4, v4, v6, v6, v6}));
    EXPECT_EQ(fake::log()[0].rc, -1);
    EXPECT_EQ(fake::open_sockets(), 1);
    EXPECT_EQ(cmp_ldap_close_socket(ld.ld_sockfd), 0);
    EXPECT_EQ(fake::open_sockets(), 0);
}

TEST_F(Connect, ResultIsThatOfTheLastAttempt)
{
    struct Case {
        std::vector<int> outcomes;
        int result;
    } cases[] = {{{-2, -1}, CMP_LDAP_CONNECT_ERROR}, {{-1, -2}, CMP_LDAP_TIMEOUT}};
    for (const Case &c : cases) {
        fake::reset();
        ld = CMP_LDAP{};
        fake::set_resolver(0, {fake::ipv4("192.0.2.1"), fake::ipv4("192.0.2.2")});
        fake::script_connect(c.outcomes);
        EXPECT_EQ(connect(-1), c.result);
        EXPECT_EQ(fake::connect_attempts().size(), 2u);
        EXPECT_EQ(fake::connect_attempts()[0].timeout, -1);
        EXPECT_EQ(fake::log()[1].rc, c.outcomes[1]);
        EXPECT_EQ(fake::open_sockets(), 0);
        EXPECT_EQ(fake::live_addrinfo(), 0);
        EXPECT_EQ(ld.ld_sockfd, 0);
    }
}

TEST_F(Connect, FailuresBeforeAnyConnect)
{
    struct Case {
        const char *name;
        int resolver_rc;
        std::vector<fake::Resolved> entries;
        std::vector<int> sockets, scopes;
        int result;
        size_t attempts;
        Lines log;
        int32_t log_rc;
    } cases[] = {
        {"resolver",
         -3,
         {},
         {},
         {},
         CMP_LDAP_ADDRESS_ERROR,
         0,
         {"cmp_ldap_connect(): Failed to cmp_netsock_getaddrinfo() (rc=-3).\n"},
         -3},
        {"no ip",
         0,
         {fake::Resolved{AF_UNIX, {1}}},
         {},
         {},
         CMP_LDAP_ADDRESS_ERROR,
         0,
         {"cmp_ldap_connect(): ipaddr illegal.\n"},
         -1},
        {"empty",
         0,
         {},
         {},
         {},
         CMP_LDAP_ADDRESS_ERROR,
         0,
         {"cmp_ldap_connect(): ipaddr illegal.\n"},
         -1},
        {"socket",
         0,
         {fake::ipv4("192.0.2.1"), fake::ipv4("192.0.2.2")},
         {-1},
         {},
         CMP_LDAP_SOCKET_ERROR,
         0,
         {"cmp_ldap_connect(): Failed to create socket endpoint (rc=-1,ai_family=2).\n"},
         -1},
        /* a refused IPv4 first; the scope failure then stops before the next address */
        {"scope",
         0,
         {fake::ipv6("fe80::1"), fake::ipv4("192.0.2.1"), fake::ipv6("fe80::2")},
         {},
         {-5},
         CMP_LDAP_OTHER,
         1,
         {"cmp_ldap_connect(): Connection failed (rc=1,len=16)\n",
          "cmp_ldap_connect(): cmp_netsock_set_scope error (rc=-5).\n"},
         -5},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fake::reset();
        ld = CMP_LDAP{};
        fake::set_resolver(c.resolver_rc, c.entries);
        fake::script_socket(c.sockets);
        fake::script_set_scope(c.scopes);
        fake::script_connect({1});
        EXPECT_EQ(connect(), c.result);
        EXPECT_EQ(fake::connect_attempts().size(), c.attempts);
        EXPECT_EQ(lines(), c.log);
        EXPECT_EQ(fake::log().back().rc, c.log_rc);
        EXPECT_EQ(fake::open_sockets(), 0);
        EXPECT_EQ(fake::live_addrinfo(), 0);
        EXPECT_EQ(ld.ld_sockfd, 0);
    }
}

TEST_F(Connect, EveryCandidateAllocationFailingLeaksNothing)
{
    long n = support::sweep_alloc_failures([&](long k) {
        ld = CMP_LDAP{};
        fake::set_resolver(
            0, {fake::ipv6("2001:db8::1"), fake::ipv4("192.0.2.1"), fake::ipv6("fe80::1")});
        fake::arm_alloc_failure(k);
        int rc = connect();
        EXPECT_EQ(fake::live_addrinfo(), 0);
        if (k == 0) {
            EXPECT_EQ(rc, 0);
            cmp_ldap_close_socket(ld.ld_sockfd);
            return;
        }
        EXPECT_EQ(rc, CMP_LDAP_NO_MEMORY);
        EXPECT_TRUE(fake::connect_attempts().empty());
        EXPECT_EQ(lines(), (Lines{"cmp_ldap_add_addrinfo(): Failed to allocate(" +
                                  std::to_string(sizeof(CMP_LDAP_ADDR_NODE)) + " btyes).\n"}));
    });
    EXPECT_EQ(n, 3);
}

TEST(ConnectDeathTest, NullHandleOrHostname)
{
    CMP_LDAP ld{};
    EXPECT_DEATH(cmp_ldap_connect(nullptr, "h", 389, 0, 0, 0), "ld != \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(cmp_ldap_connect(&ld, nullptr, 389, 0, 0, 0),
                 "cmp_ldap_socket.*cmp_ldap_connect.*hostname != \\(\\(void \\*\\)0\\)");
}
