/* Opening a session: parameter and setting checks, time-outs, connect failures,
 * the StartTLS exchange, TLS failures and allocation failures. */
#include "cmp_ldap_internal.h"
#include "support.h"

using support::Bytes;
using support::FakePortTest;
using support::hex;

namespace {

const char kOpen[] = "cmp_ldap_open_with_timeout_main";
/* The StartTLS request of message id 1. */
const char kStartTls1[] =
    "30 1D 02 01 01 77 18 80 16 31 2E 33 2E 36 2E 31 2E 34 2E 31 2E 31 34 36 36 2E 32 30 30 33 37";
/* ExtendedResponse, id 1, success, empty matchedDN and diagnostic. */
const char kStartTlsOk[] = "30 0c 02 01 01 78 07 0a 01 00 04 00 04 00";

CMP_LDAP *const kUntouched = reinterpret_cast<CMP_LDAP *>(0x1234);

class Open : public FakePortTest {
  protected:
    void SetUp() override
    {
        FakePortTest::SetUp();
        fake::set_resolver(0, {fake::ipv4("192.0.2.10")});
        p_.cmp_ldap_hostname = const_cast<char *>("ldap.example");
        p_.portno = 389;
        p_.timeout = 5;
    }
    void TearDown() override
    {
        EXPECT_EQ(fake::open_sockets(), 0);
        FakePortTest::TearDown();
    }
    /* Ends a session without the unbind's allocation, so sweeps count the open only. */
    static void drop(CMP_LDAP *ld)
    {
        cmp_ldap_close_connection(ld);
        support::free_block(ld);
    }
    std::vector<std::string> param_dump() const
    {
        return {std::string(kOpen) + "(): param: hostname=ldap.example,portno=389,timeout=" +
                    std::to_string(p_.timeout) + ",ipv6=" + std::to_string(p_.ipv6) +
                    ",tls_mod=" + std::to_string(p_.tls_mod) + ".\n",
                std::string(kOpen) +
                    "(): param: ssl_auth=0,ssl_version=0x00,ssl_hash=0x00,ssl_encrpt=0x00,"
                    "ssl_accepted_signature_algorithm=0x00.\n"};
    }
    CMP_LDAP_CONN_PARAM p_{};
    CMP_LDAP *ld_ = kUntouched;
};

}  // namespace

TEST_F(Open, OutOfRangeFlagsAreRefusedBeforeTheSettingAndAnyAllocation)
{
    const uint8_t cases[][2] = {{2, 0}, {0, 3}, {255, 1}, {1, 255}};
    for (const auto &c : cases) {
        fake::reset();
        p_.ipv6 = c[0];
        p_.tls_mod = c[1];
        EXPECT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), CMP_LDAP_PARAM_ERROR);
        EXPECT_EQ(fake::setting_reads(), 0);
        EXPECT_TRUE(fake::alloc_sizes().empty());
        EXPECT_EQ(ld_, kUntouched);
        std::vector<std::string> want{std::string(kOpen) +
                                      "(): parameter error (illegal value: ipv6,tls_mod).\n"};
        for (auto &l : param_dump())
            want.push_back(l);
        EXPECT_EQ(lines(), want);
    }
}

TEST_F(Open, ProtocolSettingOffOrUnreadableGives276AndAllocatesNothing)
{
    fake::set_setting(0, 0);
    EXPECT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), CMP_LDAP_PROTOCOL_SETTING_ERROR);
    EXPECT_TRUE(fake::alloc_sizes().empty());
    EXPECT_EQ(ld_, kUntouched);
    std::vector<std::string> want{std::string(kOpen) + "(): protocol setting error.\n"};
    for (auto &l : param_dump())
        want.push_back(l);
    EXPECT_EQ(lines(), want);

    fake::reset();
    fake::set_setting(0x72, 1);
    EXPECT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), CMP_LDAP_PROTOCOL_SETTING_ERROR);
    EXPECT_TRUE(fake::alloc_sizes().empty());
    want.insert(want.begin(),
                "cmp_ldap_check_protocol_setting(): Cannot read "
                "ME_STC_U08_LDAP_PROTOCOL.retcode=0x00000072.\n");
    EXPECT_EQ(lines(), want);
}

TEST_F(Open, OnlyCheckProtocolOneConsultsTheSetting)
{
    fake::set_setting(0, 0);
    for (uint32_t check : {0u, 2u}) {
        ld_ = kUntouched;
        ASSERT_EQ(cmp_ldap_open_with_timeout_main(&p_, &ld_, check), 0);
        ASSERT_NE(ld_, kUntouched);
        drop(ld_);
    }
    EXPECT_EQ(fake::setting_reads(), 0);
}

TEST_F(Open, PlainOpenConnectsAndTracesTheParameters)
{
    p_.ssl_auth = 2;
    p_.ssl_version = 0x0c;
    p_.ssl_hash = 0xff;
    p_.ssl_encrpt = 1;
    ASSERT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), 0);
    ASSERT_NE(ld_, kUntouched);
    EXPECT_EQ(fake::setting_reads(), 1);
    ASSERT_EQ(fake::connect_attempts().size(), 1u);
    EXPECT_EQ(fake::connect_attempts()[0].port, 389);
    EXPECT_EQ(ld_->ld_sockfd, fake::connect_attempts()[0].sockfd);
    EXPECT_EQ(ld_->ld_ssl_conn, nullptr);
    EXPECT_EQ(ld_->ld_mid, 0);
    EXPECT_TRUE(fake::sent().empty());
    ASSERT_EQ(fake::log().size(), 1u);
    EXPECT_EQ(fake::log()[0].level, 1);
    EXPECT_EQ(fake::log()[0].text,
              std::string(kOpen) +
                  "(): param: hostname=ldap.example,portno=389,timeout=5,ipv6=0,tls_mod=0,"
                  "ssl_auth=2,ssl_version=0x0c,ssl_hash=0xff,ssl_encrpt=0x01.\n");
    drop(ld_);
}

TEST_F(Open, TimeoutBecomesMillisecondsWithMinusOneForNoLimit)
{
    const struct {
        int32_t seconds;
        long ms;
    } cases[] = {{-1, -1}, {0, 0}, {5, 5000}, {4294968, 704} /* plain 32-bit wrap */};
    for (const auto &c : cases) {
        fake::reset();
        fake::set_resolver(0, {fake::ipv4("192.0.2.10")});
        p_.timeout = c.seconds;
        ASSERT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), 0);
        EXPECT_EQ(ld_->ld_sock_timeout, c.ms);
        EXPECT_EQ(fake::connect_attempts().at(0).timeout, c.ms);
        drop(ld_);
    }
}

TEST_F(Open, ConnectFailuresPassThroughAndLeaveNothing)
{
    const struct {
        int resolver_rc;
        int connect_rc;
        int expected;
    } cases[] = {{-2, 0, CMP_LDAP_ADDRESS_ERROR},
                 {0, -1, CMP_LDAP_CONNECT_ERROR},
                 {0, CMP_NETSOCK_TIMEOUT, CMP_LDAP_TIMEOUT}};
    for (const auto &c : cases) {
        fake::reset();
        fake::set_resolver(c.resolver_rc, {fake::ipv4("192.0.2.10")});
        fake::script_connect({c.connect_rc});
        EXPECT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), c.expected);
        EXPECT_EQ(ld_, kUntouched);
        EXPECT_EQ(fake::live_blocks(), 0);
        EXPECT_EQ(fake::open_sockets(), 0);
        /* parameters, then the handle, under the open's name */
        auto l = lines();
        ASSERT_GE(l.size(), 4u);
        EXPECT_EQ(l[l.size() - 4], param_dump()[0]);
        EXPECT_EQ(l[l.size() - 2].rfind(std::string(kOpen) + "(): ld: ld_mid=0,", 0), 0u);
    }
}

TEST_F(Open, StartTlsSendsTheRequestThenStartsTls)
{
    for (int32_t seconds : {5, -1}) {
        fake::reset();
        fake::set_resolver(0, {fake::ipv4("192.0.2.10")});
        p_.timeout = seconds;
        p_.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
        fake::peer_data(hex(kStartTlsOk));
        ASSERT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), 0);
        EXPECT_EQ(fake::sent(), hex(kStartTls1));
        EXPECT_EQ(fake::tls_calls(), (std::vector<std::string>{"init", "connect"}));
        EXPECT_NE(ld_->ld_ssl_conn, nullptr);
        EXPECT_EQ(ld_->ld_errno, 0);
        /* the answer is awaited with the open's time-out, none at all for -1 */
        auto waits = fake::recv_timeouts();
        ASSERT_FALSE(waits.empty());
        for (long w : waits)
            EXPECT_EQ(w, seconds == -1 ? -1 : 5000);
        drop(ld_);
    }
}

TEST_F(Open, StartTlsRefusedGives80AndClosesTheSocket)
{
    p_.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
    /* resultCode 2 with a diagnostic, which the teardown must release */
    fake::peer_data(hex("30 0f 02 01 01 78 0a 0a 01 02 04 00 04 03 62 61 64"));
    EXPECT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), CMP_LDAP_OTHER);
    EXPECT_EQ(ld_, kUntouched);
    EXPECT_EQ(fake::closed_sockets(), std::vector<int32_t>{3});
    EXPECT_TRUE(fake::tls_calls().empty());
    EXPECT_TRUE(fake::logged_containing(std::string(kOpen) + "(): ld: ld_errno=80,"));
}

TEST_F(Open, StartTlsAnsweredByAnotherTypeFailsWithTheCurrentErrno)
{
    /* A BindResponse for the StartTLS id: the open ends with ld_errno as it stands
     * (0 on a fresh handle) and leaves *ldp alone; the response is released. */
    p_.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
    fake::peer_data(hex("30 0c 02 01 01 61 07 0a 01 00 04 00 04 00"));
    EXPECT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), 0);
    EXPECT_EQ(ld_, kUntouched);
    EXPECT_TRUE(fake::tls_calls().empty());
    EXPECT_EQ(fake::closed_sockets(), std::vector<int32_t>{3});
}

TEST_F(Open, StartTlsTransferFailuresPassThrough)
{
    const struct {
        std::function<void()> script;
        int expected;
    } cases[] = {
        {[] { fake::script_send({-1}); }, CMP_LDAP_SERVER_DOWN},
        {[] { fake::script_send({CMP_NETSOCK_TIMEOUT}); }, CMP_LDAP_TIMEOUT},
        {[] { fake::peer_timeout(); }, CMP_LDAP_TIMEOUT},
        {[] { fake::peer_close(); }, CMP_LDAP_PROTOCOL_ERROR},
        /* an envelope without a protocolOp */
        {[] { fake::peer_data(hex("30 03 02 01 01")); }, CMP_LDAP_DECODING_ERROR},
    };
    for (const auto &c : cases) {
        fake::reset();
        fake::set_resolver(0, {fake::ipv4("192.0.2.10")});
        p_.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
        c.script();
        EXPECT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), c.expected);
        EXPECT_EQ(ld_, kUntouched);
        EXPECT_EQ(fake::open_sockets(), 0);
        EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
    }
}

TEST_F(Open, TlsFailuresPassThroughAndLeaveNoTlsObjectOrSocket)
{
    const struct {
        uint8_t tls_mod;
        fake::TlsScript tls;
        int expected;
    } cases[] = {
        {2, {OSL_SCR_SSL_WRP_ERR_INIT_A, 0, 0, 0, 0, {}}, CMP_LDAP_TLS_INIT_ERROR_A},
        {2, {0, 0, OSL_SCR_SSL_WRP_ERR_HANDSHAKE_A, 0, 0, {}}, CMP_LDAP_TLS_HANDSHAKE_ERROR_A},
        {2, {0, 0, OSL_SCR_SSL_WRP_ERR_TIMEOUT, 0, 0, {}}, CMP_LDAP_TIMEOUT},
        {1, {0, 0, OSL_SCR_SSL_WRP_ERR_HANDSHAKE_D, 0, 0, {}}, CMP_LDAP_TLS_HANDSHAKE_ERROR_D},
    };
    for (const auto &c : cases) {
        fake::reset();
        fake::set_resolver(0, {fake::ipv4("192.0.2.10")});
        fake::set_tls(c.tls);
        p_.tls_mod = c.tls_mod;
        if (c.tls_mod == 1) fake::peer_data(hex(kStartTlsOk));
        EXPECT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), c.expected);
        EXPECT_EQ(ld_, kUntouched);
        EXPECT_EQ(fake::open_sockets(), 0);
        EXPECT_EQ(fake::live_tls_contexts(), 0);
        EXPECT_EQ(fake::live_tls_connections(), 0);
        EXPECT_EQ(fake::live_blocks(), 0);
    }
}

TEST_F(Open, EveryAllocationFailingInTurnLeavesNothing)
{
    for (uint8_t tls_mod : {0, 1, 2}) {
        long n = support::sweep_alloc_failures([&](long k) {
            fake::set_resolver(0, {fake::ipv4("192.0.2.10")});
            if (tls_mod == 1) fake::peer_data(hex(kStartTlsOk));
            p_.tls_mod = tls_mod;
            CMP_LDAP *ld = kUntouched;
            fake::arm_alloc_failure(k);
            int rc = cmp_ldap_open_with_timeout(&p_, &ld);
            if (k == 0) {
                ASSERT_EQ(rc, 0);
                drop(ld);
                return;
            }
            /* A result text that cannot be copied makes the StartTLS answer unreadable. */
            if (!(tls_mod == 1 && rc == CMP_LDAP_OTHER)) {
                EXPECT_EQ(rc, CMP_LDAP_NO_MEMORY);
            }
            EXPECT_EQ(ld, kUntouched);
            EXPECT_EQ(fake::open_sockets(), 0);
            EXPECT_EQ(fake::live_tls_contexts(), 0);
        });
        EXPECT_GE(n, tls_mod == 1 ? 4 : 2) << "tls_mod " << int(tls_mod);
    }
}

using OpenDeathTest = Open;

TEST_F(OpenDeathTest, NullArgumentsAreProgrammerErrors)
{
    CMP_LDAP *ld = nullptr;
    EXPECT_DEATH(cmp_ldap_open_with_timeout(nullptr, &ld), "param != \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(cmp_ldap_open_with_timeout(&p_, nullptr), "ldp != \\(\\(void \\*\\)0\\)");
    p_.cmp_ldap_hostname = nullptr;
    EXPECT_DEATH(
        cmp_ldap_open_with_timeout(&p_, &ld),
        "cmp_ldap/cmn_src/cmp_ldap_api.*param->cmp_ldap_hostname != \\(\\(void \\*\\)0\\)");
}
