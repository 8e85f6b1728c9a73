/* Search: the parameter checks in order, the worked example on the wire, filters
 * that parse to nothing, traces, allocation and send failures. */
#include <functional>

#include "cmp_ldap_internal.h"
#include "support.h"

using support::Bytes;
using support::FakePortTest;
using support::hex;

namespace {

const char kCheck[] = "cmp_ldap_check_search_tiny_params";
const char kSearch[] = "cmp_ldap_search_tiny";

/* The worked example: id 1, dc=example, subtree, (cn=abc), attributes cn and mail. */
const char kExample[] =
    "30 39 02 01 01 63 34 04 0A 64 63 3D 65 78 61 6D 70 6C 65 0A 01 02 0A 01 00 02 01 00 02 01 00 "
    "01 01 00 A0 0B A3 09 04 02 63 6E 04 03 61 62 63 30 0A 04 02 63 6E 04 04 6D 61 69 6C";
/* The same search with no filter at all and no attributes: (objectClass=*). */
const char kNoFilter[] =
    "30 2F 02 01 01 63 2A 04 0A 64 63 3D 65 78 61 6D 70 6C 65 0A 01 02 0A 01 00 02 01 00 02 01 00 "
    "01 01 00 87 0B 6F 62 6A 65 63 74 43 6C 61 73 73 30 00";

/* Everything a search takes, preset to the worked example. */
struct Args {
    std::string base = "dc=example";
    bool base_null = false;
    uint32_t scope = 2;
    CMP_LDAP_FILTER filter{};
    bool with_filter = true;
    CMP_LDAP_FILTER_PRESENT present{};
    bool with_present = false;
    std::string attrs = "cn,mail";
    bool attrs_null = false;
    uint32_t attrsonly = 0;

    Args()
    {
        filter.cmp_ldap_filterCond = CMP_LDAP_FILTER_COND_EQUAL;
        strcpy(filter.cmp_ldap_attr, "cn");
        strcpy(filter.cmp_ldap_value, "abc");
        strcpy(present.attr, "mail");
    }
    int run(CMP_LDAP *ld) const
    {
        return cmp_ldap_search_tiny(
            ld, base_null ? nullptr : base.c_str(), scope, with_filter ? &filter : nullptr,
            with_present ? &present : nullptr, attrs_null ? nullptr : attrs.c_str(), attrsonly);
    }
};

class Search : public FakePortTest {
  protected:
    void SetUp() override
    {
        FakePortTest::SetUp();
        ld_ = cmp_ldap_allocate_ldap_handler();
        ld_->ld_sockfd = 3;
        fake::clear_log();
    }
    void TearDown() override
    {
        if (ld_ != nullptr) support::free_block(ld_);
        FakePortTest::TearDown();
    }
    CMP_LDAP *ld_ = nullptr;
};

}  // namespace

TEST_F(Search, WorkedExampleIsSentByteForByte)
{
    Args a;
    EXPECT_EQ(a.run(ld_), 1);
    EXPECT_EQ(support::to_hex(fake::sent()), support::to_hex(hex(kExample)));
    EXPECT_EQ(fake::sent_chunks().size(), 1u);
    EXPECT_EQ(fake::alloc_sizes().back(), 59u);
    EXPECT_EQ(ld_->ld_errno, 0);
    ASSERT_EQ(fake::log().size(), 2u);
    for (const auto &l : fake::log())
        EXPECT_EQ(l.level, 1);
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "cmp_ldap_search_tiny(): msgid=1,base=dc=example,scope=2,attrs=cn,mail,"
                           "attrsonly=0.\n",
                           "cmp_ldap_search_tiny(): filter: filterCond=3,searchCond=0,attr=cn,"
                           "value=abc.\n"}));
}

TEST_F(Search, PresenceFilterIsTracedToo)
{
    Args a;
    a.with_present = true;
    a.present.cmp_ldap_searchCond = 1;
    EXPECT_EQ(a.run(ld_), 1);
    EXPECT_EQ(lines().back(), "cmp_ldap_search_tiny(): filter_present: searchCond=1,attr=mail.\n");
    /* both given: AND of the filter's set and the presence set */
    EXPECT_NE(support::to_hex(fake::sent()).find("A0 15 A0 0B A3 09"), std::string::npos);
}

TEST_F(Search, FiltersThatParseToNothingAreLeftOut)
{
    /* no records at all, and records whose lists hold nothing usable, send the same */
    for (bool given : {false, true}) {
        size_t before = fake::sent().size();
        Args a;
        a.attrs = "";
        a.with_filter = given;
        a.with_present = given;
        strcpy(a.filter.cmp_ldap_value, "");
        strcpy(a.present.attr, " , ");
        ld_->ld_mid = 0;
        EXPECT_EQ(a.run(ld_), 1);
        EXPECT_EQ(support::to_hex(Bytes(fake::sent().begin() + (long)before, fake::sent().end())),
                  support::to_hex(hex(kNoFilter)));
    }
}

TEST_F(Search, ParameterChecksRunInOrderAndConsumeNoId)
{
    const std::string over(385, 'a');
    const struct {
        std::function<void(Args &, CMP_LDAP *)> change;
        std::string message; /* after "cmp_ldap_check_search_tiny_params(): parameter error " */
    } cases[] = {
        {[](Args &a, CMP_LDAP *) { a.base_null = true; }, "(base=NULL).\n"},
        {[](Args &a, CMP_LDAP *) { a.scope = 3; }, "(scope=3).\n"},
        {[](Args &a, CMP_LDAP *) { a.scope = 0xffffffffu; }, "(scope=-1).\n"},
        {[](Args &, CMP_LDAP *ld) { ld->ld_deref = 4; }, "(ld_deref=4).\n"},
        {[](Args &, CMP_LDAP *ld) { ld->ld_deref = -1; }, "(ld_deref=-1).\n"},
        {[](Args &, CMP_LDAP *ld) { ld->ld_sizelimit = -1; }, "(ld_sizelimit=-1).\n"},
        {[](Args &, CMP_LDAP *ld) { ld->ld_timelimit = -5; }, "(ld_timelimit=-5).\n"},
        {[](Args &a, CMP_LDAP *) { a.attrs_null = true; }, "(attrs=NULL).\n"},
        {[&](Args &a, CMP_LDAP *) { a.attrs = over; }, "(search attributes length=385).\n"},
        {[](Args &a, CMP_LDAP *) { a.attrsonly = 2; }, "(attrsonly=2).\n"},
        {[](Args &a, CMP_LDAP *) { a.filter.cmp_ldap_filterCond = 4; },
         "(filter->cmp_ldap_filterCond=4).\n"},
        {[](Args &a, CMP_LDAP *) { a.filter.cmp_ldap_searchCond = 2; },
         "(filter->cmp_ldap_searchCond=2).\n"},
        /* the caller's fixed fields need no terminator to be measured */
        {[](Args &a, CMP_LDAP *) { memset(a.filter.cmp_ldap_attr, 'a', 385); },
         "(filter->cmp_ldap_attr length=385).\n"},
        {[](Args &a, CMP_LDAP *) { memset(a.filter.cmp_ldap_value, 'v', 385); },
         "(filter->cmp_ldap_value length=385).\n"},
        {[](Args &a, CMP_LDAP *) {
             a.with_present = true;
             a.present.cmp_ldap_searchCond = 2;
         },
         "(filter_present->cmp_ldap_searchCond=2).\n"},
        {[](Args &a, CMP_LDAP *) {
             a.with_present = true;
             memset(a.present.attr, 'p', 385);
         },
         "(filter_present->attr length=385).\n"},
        /* several wrong at once: the first in order is the one reported */
        {[](Args &a, CMP_LDAP *ld) {
             a.attrsonly = 7;
             a.scope = 9;
             ld->ld_sizelimit = -1;
         },
         "(scope=9).\n"},
        {[](Args &a, CMP_LDAP *) {
             a.filter.cmp_ldap_searchCond = 5;
             a.with_present = true;
             a.present.cmp_ldap_searchCond = 5;
         },
         "(filter->cmp_ldap_searchCond=5).\n"},
    };
    for (const auto &c : cases) {
        fake::clear_log();
        memset(ld_, 0, sizeof *ld_);
        ld_->ld_sockfd = 3;
        Args a;
        c.change(a, ld_);
        size_t allocs = fake::alloc_sizes().size();
        EXPECT_EQ(a.run(ld_), -1) << c.message;
        EXPECT_EQ(ld_->ld_errno, CMP_LDAP_PARAM_ERROR) << c.message;
        EXPECT_EQ(ld_->ld_mid, 0) << c.message;
        EXPECT_EQ(fake::alloc_sizes().size(), allocs) << c.message;
        auto l = lines();
        ASSERT_EQ(l.size(), 6u) << c.message;
        EXPECT_EQ(l[0], std::string(kCheck) + "(): parameter error " + c.message);
        EXPECT_EQ(l[1].rfind(std::string(kSearch) + "(): ld: ld_mid=0,", 0), 0u);
        EXPECT_EQ(l[2].rfind(std::string(kSearch) + "(): ld: ld_errno=264,", 0), 0u);
        EXPECT_EQ(l[3].rfind(std::string(kSearch) + "(): base=", 0), 0u);
        EXPECT_EQ(l[4].rfind("cmp_ldap_gentrace_search_params(): filter", 0), 0u);
        EXPECT_EQ(l[5].rfind(std::string(kSearch) + "(): filter_present", 0), 0u);
    }
    EXPECT_TRUE(fake::sent().empty());
}

TEST_F(Search, NullHandleIsReportedAndDumped)
{
    Args a;
    EXPECT_EQ(a.run(nullptr), -1);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  std::string(kCheck) + "(): parameter error (ld=NULL).\n",
                  std::string(kSearch) + "(): ld=NULL\n",
                  std::string(kSearch) + "(): base=dc=example,scope=2,attrs=cn,mail,attrsonly=0.\n",
                  "cmp_ldap_gentrace_search_params(): filter: filterCond=3,searchCond=0,attr=cn,"
                  "value=abc.\n",
                  std::string(kSearch) + "(): filter_present=NULL.\n"}));
}

TEST_F(Search, TextsOf384AreAccepted)
{
    Args a;
    a.attrs = std::string(384, 'a');
    a.with_present = true;
    memset(a.filter.cmp_ldap_attr, 'b', 384);
    memset(a.filter.cmp_ldap_value, 'c', 384);
    memset(a.present.attr, 'd', 384);
    EXPECT_EQ(a.run(ld_), 1);
    EXPECT_FALSE(fake::sent().empty());
}

TEST_F(Search, EveryAllocationFailingInTurnGives265AndLeaksNothing)
{
    support::free_block(ld_); /* each run makes its own handle */
    ld_ = nullptr;
    long n = support::sweep_alloc_failures([](long k) {
        CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
        ld->ld_sockfd = 3;
        Args a;
        a.with_present = true;
        fake::arm_alloc_failure(k);
        int rc = a.run(ld);
        if (k == 0) {
            EXPECT_EQ(rc, 1);
        } else {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(ld->ld_errno, CMP_LDAP_NO_MEMORY) << "allocation " << k;
            EXPECT_EQ(ld->ld_mid, 1);
            EXPECT_TRUE(fake::logged_containing("cmp_ldap_search_tiny(): filter_present: "));
        }
        support::free_block(ld);
    });
    /* parsed filter, attribute array and its two strings, presence filter, request */
    EXPECT_EQ(n, 6);
}

TEST_F(Search, SendFailureKeepsTheTransfersCode)
{
    const struct {
        std::function<void()> script;
        bool tls;
        int expected;
    } cases[] = {
        {[] { fake::script_send({-1}); }, false, CMP_LDAP_SERVER_DOWN},
        {[] { fake::script_send({CMP_NETSOCK_TIMEOUT}); }, false, CMP_LDAP_TIMEOUT},
        {[] {
             fake::TlsScript t;
             t.write = {OSL_SCR_SSL_WRP_ERR_IO};
             fake::set_tls(t);
         },
         true, CMP_LDAP_TLS_IO_ERROR},
    };
    static int tls_object;
    for (const auto &c : cases) {
        fake::clear_log();
        c.script();
        ld_->ld_ssl_conn = c.tls ? &tls_object : nullptr;
        int32_t id = ld_->ld_mid + 1;
        Args a;
        EXPECT_EQ(a.run(ld_), -1);
        EXPECT_EQ(ld_->ld_errno, c.expected);
        EXPECT_EQ(ld_->ld_mid, id);
        EXPECT_EQ(fake::live_blocks(), 1); /* only the handle */
        auto l = lines();
        ASSERT_GE(l.size(), 5u);
        EXPECT_EQ(l[l.size() - 5].rfind(std::string(kSearch) + "(): ld: ld_mid=", 0), 0u);
        EXPECT_EQ(l.back(), std::string(kSearch) + "(): filter_present=NULL.\n");
    }
    ld_->ld_ssl_conn = nullptr;
}

TEST_F(Search, BaseTooLongToEncodeIsAParameterError)
{
    Args a;
    a.base.assign(1u << 24, 'b');
    EXPECT_EQ(a.run(ld_), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(ld_->ld_mid, 1);
    EXPECT_TRUE(fake::sent().empty());
    for (uint32_t size : fake::alloc_sizes())
        EXPECT_LT(size, 1u << 24); /* no request buffer was asked for */
    EXPECT_EQ(fake::live_blocks(), 1);
    EXPECT_TRUE(fake::logged_containing("cmp_ldap_search_tiny(): ld: ld_errno=264,"));
}
