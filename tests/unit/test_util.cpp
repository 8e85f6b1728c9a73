/* Handle, memory helpers, message ids and trace dumps. */
#include "cmp_ldap_internal.h"
#include "support.h"

using support::FakePortTest;

class Util : public FakePortTest {};

TEST_F(Util, MessageIdsCountFromOneAndWrapToZeroAfter65535)
{
    CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
    ASSERT_NE(ld, nullptr);
    EXPECT_EQ(cmp_ldap_get_new_message_id(ld), 1);
    EXPECT_EQ(cmp_ldap_get_new_message_id(ld), 2);
    EXPECT_EQ(cmp_ldap_get_new_message_id(ld), 3);
    ld->ld_mid = 65534;
    EXPECT_EQ(cmp_ldap_get_new_message_id(ld), 65535);
    EXPECT_EQ(cmp_ldap_get_new_message_id(ld), 0);
    EXPECT_EQ(cmp_ldap_get_new_message_id(ld), 1);
    support::free_block(ld);
}

TEST_F(Util, NewHandleIsAllZerosAndFailureIsLogged)
{
    CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
    ASSERT_NE(ld, nullptr);
    CMP_LDAP zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(memcmp(ld, &zero, sizeof zero), 0);
    support::free_block(ld);

    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_allocate_ldap_handler(), nullptr);
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "cmp_ldap_allocate_ldap_handler(): Failed to allocate(" +
                               std::to_string(sizeof(CMP_LDAP)) + " btyes).\n",
                           "cmp_ldap_allocate_ldap_handler():insufficient memory.\n"}));
    EXPECT_TRUE(fake::logged("cmp_ldap_allocate_ldap_handler():insufficient memory.\n"));
    EXPECT_TRUE(fake::logged_containing("cmp_ldap_allocate_ldap_handler(): Failed to allocate("));
}

TEST_F(Util, MallocFailureLineKeepsItsSpellingAndZeroSizeIsPassedOn)
{
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_malloc("some_caller", 1234), nullptr);
    ASSERT_EQ(fake::log().size(), 1u);
    EXPECT_EQ(fake::log()[0].text, "some_caller(): Failed to allocate(1234 btyes).\n");
    EXPECT_EQ(fake::log()[0].module, "CMP_LDAP");
    EXPECT_EQ(fake::log()[0].level, 0);

    void *p = cmp_ldap_malloc("zero", 0);
    EXPECT_EQ(fake::alloc_sizes().back(), 0u);
    support::free_block(p);
    EXPECT_EQ(zelOSWOrgFreeMemPart(0, nullptr), 0); /* freeing NULL is harmless */
}

TEST_F(Util, StrdupVariants)
{
    struct Case {
        const char *in;
        const char *without_space;
    } cases[] = {
        {" a b ", "ab"}, {"   ", ""}, {"", ""}, {"a\tb", "a\tb"}, {"cn=x, o=y", "cn=x,o=y"},
    };
    for (const Case &c : cases) {
        char *dup = cmp_ldap_strdup(c.in);
        char *ws = cmp_ldap_strdup_without_space(c.in);
        ASSERT_NE(dup, nullptr);
        ASSERT_NE(ws, nullptr);
        EXPECT_STREQ(dup, c.in);
        EXPECT_STREQ(ws, c.without_space) << "input '" << c.in << "'";
        /* sized for the whole input even when the result is shorter */
        EXPECT_EQ(fake::alloc_sizes().back(), strlen(c.in) + 1);
        support::free_block(dup);
        support::free_block(ws);
    }
    EXPECT_EQ(cmp_ldap_strdup(nullptr), nullptr);
    EXPECT_EQ(cmp_ldap_strdup_without_space(nullptr), nullptr);
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_strdup_without_space("x y"), nullptr);
    EXPECT_TRUE(fake::logged("cmp_ldap_strdup_without_space(): Failed to allocate(4 btyes).\n"));
}

TEST_F(Util, TraceDumpOfHandles)
{
    cmp_ldap_gentrace_ld("caller", nullptr);
    EXPECT_EQ(lines(), std::vector<std::string>{"caller(): ld=NULL\n"});

    fake::clear_log();
    CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
    cmp_ldap_gentrace_ld("caller", ld);
    EXPECT_EQ(
        lines(),
        (std::vector<std::string>{
            "caller(): ld: ld_mid=0,ld_deref=0,ld_timelimit=0,ld_sizelimit=0,ld_sockfd=0,"
            "ld_sock_timeout=0,ld_ssl_ctx=(nil),ld_ssl_conn=(nil).\n",
            "caller(): ld: ld_errno=0,ld_matched=(null),ld_error=(null),ld_referral=(null).\n"}));

    fake::clear_log();
    std::string long_text(100, 'm');
    ld->ld_mid = 7;
    ld->ld_errno = 49;
    ld->ld_sock_timeout = -1;
    ld->ld_matched = long_text.data();
    ld->ld_error = const_cast<char *>("bad");
    cmp_ldap_gentrace_ld("f", ld);
    EXPECT_EQ(fake::log()[1].text, "f(): ld: ld_errno=49,ld_matched=" + std::string(64, 'm') +
                                       ",ld_error=bad,ld_referral=(null).\n");
    EXPECT_NE(fake::log()[0].text.find("ld_mid=7,"), std::string::npos);
    EXPECT_NE(fake::log()[0].text.find("ld_sock_timeout=-1,"), std::string::npos);
    for (const auto &l : fake::log()) {
        EXPECT_EQ(l.level, 0);
        EXPECT_EQ(l.rc, -1);
    }
    support::free_block(ld);
}

TEST_F(Util, TraceDumpOfParameters)
{
    cmp_ldap_gentrace_param("open", nullptr);
    EXPECT_EQ(lines(), std::vector<std::string>{"open(): param=NULL.\n"});
    fake::clear_log();
    CMP_LDAP_CONN_PARAM p{};
    p.cmp_ldap_hostname = const_cast<char *>("ldap.example");
    p.portno = 636;
    p.timeout = -1;
    p.ipv6 = 1;
    p.tls_mod = 2;
    p.ssl_auth = 2;
    p.ssl_version = 0x0c;
    p.ssl_hash = 0xff;
    p.ssl_encrpt = 1;
    p.ssl_accepted_signature_algorithm = 0x10;
    cmp_ldap_gentrace_param("open", &p);
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "open(): param: hostname=ldap.example,portno=636,timeout=-1,ipv6=1,"
                           "tls_mod=2.\n",
                           "open(): param: ssl_auth=2,ssl_version=0x0c,ssl_hash=0xff,"
                           "ssl_encrpt=0x01,ssl_accepted_signature_algorithm=0x10.\n"}));
}

TEST_F(Util, TraceDumpOfSearchParameters)
{
    cmp_ldap_gentrace_search_params("cmp_ldap_search_tiny", "dc=example", 2, nullptr, nullptr,
                                    "cn,mail", 0);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  "cmp_ldap_search_tiny(): base=dc=example,scope=2,attrs=cn,mail,attrsonly=0.\n",
                  "cmp_ldap_gentrace_search_params(): filter=NULL.\n",
                  "cmp_ldap_search_tiny(): filter_present=NULL.\n"}));

    fake::clear_log();
    CMP_LDAP_FILTER f{};
    f.cmp_ldap_filterCond = 1;
    f.cmp_ldap_searchCond = 1;
    strcpy(f.cmp_ldap_attr, "cn,sn");
    memset(f.cmp_ldap_value, 'v', 200); /* cut at 128 */
    CMP_LDAP_FILTER_PRESENT fp{};
    fp.cmp_ldap_searchCond = 0;
    strcpy(fp.attr, "mail");
    cmp_ldap_gentrace_search_params("s", "o=x", 0, &f, &fp, "1.1", 1);
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "s(): base=o=x,scope=0,attrs=1.1,attrsonly=1.\n",
                           "cmp_ldap_gentrace_search_params(): filter: filterCond=1,searchCond=1,"
                           "attr=cn,sn,value=" +
                               std::string(128, 'v') + ".\n",
                           "s(): filter_present: searchCond=0,attr=mail.\n"}));
}

TEST_F(Util, ProtocolSettingIsReadWithItsKeys)
{
    struct Case {
        int32_t rc;
        uint8_t value;
        int expected;
        bool logs;
    } cases[] = {{0, 1, 0, false}, {0, 0, -1, false}, {0, 0xff, 0, false}, {5, 1, -1, true}};
    for (const Case &c : cases) {
        fake::reset();
        fake::set_setting(c.rc, c.value);
        EXPECT_EQ(cmp_ldap_check_protocol_setting(), c.expected);
        EXPECT_EQ(fake::logged("cmp_ldap_check_protocol_setting(): Cannot read "
                               "ME_STC_U08_LDAP_PROTOCOL.retcode=0x00000005.\n"),
                  c.logs);
    }
}
