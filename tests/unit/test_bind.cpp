/* Simple bind, unbind and abandon: exact PDUs, id use, failure codes and lines. */
#include "cmp_ldap_internal.h"
#include "support.h"

using support::Bytes;
using support::FakePortTest;
using support::hex;

namespace {

/* A connected plain session without going through the open. */
CMP_LDAP *connected_handle()
{
    CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
    ld->ld_sockfd = cmp_netsock_socket(AF_INET, 1, 0);
    return ld;
}

class Session : public FakePortTest {
  protected:
    void SetUp() override
    {
        FakePortTest::SetUp();
        ld_ = connected_handle();
        fake::clear_log();
    }
    void TearDown() override
    {
        if (ld_ != nullptr) {
            cmp_ldap_close_connection(ld_);
            support::free_block(ld_);
        }
        EXPECT_EQ(fake::open_sockets(), 0);
        FakePortTest::TearDown();
    }
    /* Lines of a handle dump under a name start like this. */
    static std::string dump_start(const char *name) { return std::string(name) + "(): ld: "; }
    CMP_LDAP *ld_ = nullptr;
};

using Bind = Session;
using Unbind = Session;
using Abandon = Session;

}  // namespace

/* ---------------- bind ---------------- */

TEST_F(Bind, SimpleBindSendsTheRequestAndTracesIt)
{
    EXPECT_EQ(cmp_ldap_bind(ld_, "cn=a", "xyz", nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE), 1);
    EXPECT_EQ(fake::sent(), hex("30 13 02 01 01 60 0E 02 01 03 04 04 63 6E 3D 61 80 03 78 79 7A"));
    EXPECT_EQ(fake::sent_chunks().size(), 1u);
    EXPECT_EQ(fake::alloc_sizes().back(), 21u);
    ASSERT_EQ(fake::log().size(), 1u);
    EXPECT_EQ(fake::log()[0].level, 1);
    EXPECT_EQ(fake::log()[0].text, "cmp_ldap_simple_bind(): msgid=1,dn=cn=a,passwd=xyz.\n");
    EXPECT_EQ(ld_->ld_errno, 0);
}

TEST_F(Bind, MissingDnOrPasswordIsRefusedWithoutAnId)
{
    const char *pairs[][2] = {{nullptr, "xyz"}, {"cn=a", nullptr}, {nullptr, nullptr}};
    for (auto &p : pairs) {
        fake::clear_log();
        EXPECT_EQ(cmp_ldap_bind(ld_, p[0], p[1], "d", "c", CMP_LDAP_AUTH_SIMPLE), -1);
        EXPECT_EQ(ld_->ld_errno, CMP_LDAP_PARAM_ERROR);
        EXPECT_EQ(lines(), std::vector<std::string>{
                               "cmp_ldap_bind(): parameter error (either of dn, cred).\n"});
    }
    EXPECT_EQ(ld_->ld_mid, 0);
    EXPECT_TRUE(fake::sent().empty());
}

TEST_F(Bind, UnknownMethodIsRefused)
{
    EXPECT_EQ(cmp_ldap_bind(ld_, "cn=a", "xyz", nullptr, nullptr, 0x81), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(ld_->ld_mid, 0);
    EXPECT_EQ(lines(),
              std::vector<std::string>{"cmp_ldap_bind(): parameter error (method=0x81).\n"});
}

/* Changes when the SASL bind arrives: until then 0xa3 is refused like an unknown method. */
TEST_F(Bind, SaslMethodRefusedUntilSaslBindArrives)
{
    EXPECT_EQ(
        cmp_ldap_bind(ld_, "user", nullptr, "EXAMPLE.ORG", "FILE:/tmp/cc", CMP_LDAP_AUTH_SASL), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(ld_->ld_mid, 0);
    EXPECT_EQ(lines(),
              std::vector<std::string>{"cmp_ldap_bind(): parameter error (method=0xa3).\n"});
}

TEST_F(Bind, NullHandleIsLogged)
{
    EXPECT_EQ(cmp_ldap_bind(nullptr, "cn=a", "xyz", "dom", nullptr, 0x80), -1);
    EXPECT_EQ(lines(),
              std::vector<std::string>{"cmp_ldap_bind(): parameter error ld=NULL.dn=cn=a,cred=xyz,"
                                       "domain=dom,method=0x80.\n"});
}

TEST_F(Bind, NoMemoryUsesTheIdAndGives265)
{
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_bind(ld_, "cn=a", "xyz", nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_NO_MEMORY);
    EXPECT_EQ(ld_->ld_mid, 1);
    EXPECT_TRUE(fake::sent().empty());
    auto l = lines();
    ASSERT_EQ(l.size(), 4u);
    EXPECT_EQ(l[0], "cmp_ldap_simple_bind(): Failed to allocate(21 btyes).\n");
    EXPECT_EQ(l[1].rfind(dump_start("cmp_ldap_simple_bind") + "ld_mid=1,", 0), 0u);
    EXPECT_EQ(l[2].rfind(dump_start("cmp_ldap_simple_bind") + "ld_errno=265,", 0), 0u);
    EXPECT_EQ(l[3], "cmp_ldap_simple_bind(): dn=cn=a,passwd=xyz.\n");
}

TEST_F(Bind, SendFailureKeepsTheTransfersCode)
{
    const struct {
        int32_t send;
        int expected;
    } cases[] = {{-1, CMP_LDAP_SERVER_DOWN},
                 {CMP_NETSOCK_TIMEOUT, CMP_LDAP_TIMEOUT},
                 {5, CMP_LDAP_SERVER_DOWN}};
    for (const auto &c : cases) {
        fake::clear_log();
        fake::script_send({c.send});
        int32_t id = ld_->ld_mid + 1;
        EXPECT_EQ(cmp_ldap_bind(ld_, "cn=a", "xyz", nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE), -1);
        EXPECT_EQ(ld_->ld_errno, c.expected);
        EXPECT_EQ(ld_->ld_mid, id);
        EXPECT_EQ(fake::live_blocks(), 1); /* only the handle */
        EXPECT_TRUE(fake::logged("cmp_ldap_simple_bind(): msgid=" + std::to_string(id) +
                                 ",dn=cn=a,passwd=xyz.\n"));
        EXPECT_TRUE(fake::logged_containing(dump_start("cmp_ldap_simple_bind") + "ld_errno="));
        EXPECT_EQ(lines().back(), "cmp_ldap_simple_bind(): dn=cn=a,passwd=xyz.\n");
    }
}

/* ---------------- unbind ---------------- */

TEST_F(Unbind, SendsTheRequestAndTearsTheSessionDown)
{
    const struct {
        int32_t mid_before;
        const char *pdu;
    } cases[] = {
        {4, "30 05 02 01 05 42 00"},        {299, "30 06 02 02 01 2C 42 00"},
        {127, "30 05 02 01 80 42 00"},      {254, "30 05 02 01 FF 42 00"},
        {65534, "30 06 02 02 FF FF 42 00"}, {65535, "30 05 02 01 00 42 00"},
    };
    for (const auto &c : cases) {
        fake::reset();
        ld_ = connected_handle();
        ld_->ld_mid = c.mid_before;
        ld_->ld_error = cmp_ldap_strdup("diagnostic");
        ld_->ld_matched = cmp_ldap_strdup("dc=example");
        EXPECT_EQ(cmp_ldap_unbind(ld_), 0);
        ld_ = nullptr;
        EXPECT_EQ(fake::sent(), hex(c.pdu));
        EXPECT_EQ(fake::closed_sockets(), std::vector<int32_t>{3});
        EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
    }
}

TEST_F(Unbind, TlsIsEndedBeforeTheSocketCloses)
{
    CMP_LDAP_CONN_PARAM p{};
    ASSERT_EQ(cmp_ldap_tls_start(ld_, &p), 0);
    EXPECT_EQ(cmp_ldap_unbind(ld_), 0);
    ld_ = nullptr;
    EXPECT_EQ(fake::sent(), hex("30 05 02 01 01 42 00"));
    EXPECT_EQ(fake::tls_calls(), (std::vector<std::string>{"init", "connect", "shutdown", "term"}));
    EXPECT_EQ(fake::closed_sockets(), std::vector<int32_t>{3});
}

TEST_F(Unbind, NoMemoryLeavesTheSessionOpen)
{
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_unbind(ld_), CMP_LDAP_NO_MEMORY);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_NO_MEMORY);
    EXPECT_EQ(ld_->ld_mid, 1);
    EXPECT_TRUE(fake::closed_sockets().empty());
    EXPECT_EQ(fake::open_sockets(), 1);
    EXPECT_TRUE(fake::logged_containing(dump_start("cmp_ldap_unbind") + "ld_errno=265,"));
    /* still usable: a second unbind ends it */
    EXPECT_EQ(cmp_ldap_unbind(ld_), 0);
    ld_ = nullptr;
    EXPECT_EQ(fake::sent(), hex("30 05 02 01 02 42 00"));
}

TEST_F(Unbind, SendFailureIsReturnedAndTheSessionEndsAllTheSame)
{
    fake::script_send({-1});
    EXPECT_EQ(cmp_ldap_unbind(ld_), CMP_LDAP_SERVER_DOWN);
    ld_ = nullptr;
    EXPECT_EQ(fake::closed_sockets(), std::vector<int32_t>{3});
    EXPECT_TRUE(fake::logged_containing(dump_start("cmp_ldap_unbind") + "ld_errno=256,"));
    EXPECT_EQ(fake::live_blocks(), 0);
}

TEST_F(Unbind, NullHandle)
{
    EXPECT_EQ(cmp_ldap_unbind(nullptr), CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(lines(),
              std::vector<std::string>{"cmp_ldap_unbind(): parameter error (ld==NULL).\n"});
}

/* ---------------- abandon ---------------- */

TEST_F(Abandon, EachIdWidthGivesItsPdu)
{
    const struct {
        int32_t mid_before; /* n is one more */
        int32_t a;
        const char *pdu;
    } cases[] = {
        {4, 3, "30 06 02 01 05 50 01 03"},
        {255, 300, "30 08 02 02 01 00 50 02 01 2C"},
        {255, 254, "30 07 02 02 01 00 50 01 FE"},
        {4, 300, "30 07 02 01 05 50 02 01 2C"},
        {199, 255, "30 06 02 01 C8 50 01 FF"},
        /* n above 255 with a exactly 255 keeps only n's low octet, by design */
        {255, 255, "30 06 02 01 00 50 01 FF"},
        {299, 0, "30 07 02 02 01 2C 50 01 00"},
        {65534, 65535, "30 08 02 02 FF FF 50 02 FF FF"},
    };
    for (const auto &c : cases) {
        size_t before = fake::sent().size();
        ld_->ld_mid = c.mid_before;
        EXPECT_EQ(cmp_ldap_abandon(ld_, c.a), 0);
        EXPECT_EQ(ld_->ld_mid, c.mid_before + 1);
        EXPECT_EQ(Bytes(fake::sent().begin() + (long)before, fake::sent().end()), hex(c.pdu))
            << "n=" << c.mid_before + 1 << " a=" << c.a;
    }
    EXPECT_TRUE(fake::recv_timeouts().empty()); /* no response is awaited */
    EXPECT_TRUE(fake::log().empty());
}

TEST_F(Abandon, NegativeIdIsRefusedWithoutAnId)
{
    EXPECT_EQ(cmp_ldap_abandon(ld_, -1), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(ld_->ld_mid, 0);
    auto l = lines();
    ASSERT_EQ(l.size(), 3u);
    EXPECT_EQ(l[0], "cmp_ldap_abandon(): parameter error (msgid=-1).\n");
    EXPECT_EQ(l[1].rfind(dump_start("cmp_ldap_abandon"), 0), 0u);
    EXPECT_TRUE(fake::sent().empty());

    fake::clear_log();
    EXPECT_EQ(cmp_ldap_abandon(nullptr, 7), -1);
    EXPECT_EQ(lines(),
              std::vector<std::string>{"cmp_ldap_abandon(): parameter error (ld=NULL).msgid=7.\n"});
}

TEST_F(Abandon, NoMemoryAndSendFailure)
{
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_abandon(ld_, 1), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_NO_MEMORY);
    EXPECT_EQ(ld_->ld_mid, 1);
    EXPECT_TRUE(fake::logged("cmp_ldap_abandon(): Failed to allocate(8 btyes).\n"));
    EXPECT_TRUE(fake::logged_containing(dump_start("cmp_ldap_abandon") + "ld_errno=265,"));

    fake::clear_log();
    fake::script_send({CMP_NETSOCK_TIMEOUT});
    EXPECT_EQ(cmp_ldap_abandon(ld_, 1), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_TIMEOUT);
    EXPECT_EQ(ld_->ld_mid, 2);
    EXPECT_TRUE(fake::logged_containing(dump_start("cmp_ldap_abandon") + "ld_errno=260,"));
    EXPECT_EQ(fake::live_blocks(), 1); /* only the handle */
}

TEST_F(Bind, TextTooLongToEncodeIsAParameterError)
{
    /* The encoder carries no content of 16 MiB or more: refused before allocating. */
    const std::string dn(1u << 24, 'd');
    size_t allocs = fake::alloc_sizes().size();
    EXPECT_EQ(cmp_ldap_bind(ld_, dn.c_str(), "xyz", nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(ld_->ld_mid, 1);
    EXPECT_EQ(fake::alloc_sizes().size(), allocs);
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(lines().back(),
              "cmp_ldap_simple_bind(): dn=" + std::string(64, 'd') + ",passwd=xyz.\n");
}
