/* Handle, memory helpers, message ids and trace dumps. */
#include <tuple>

#include "cmp_ldap_internal.h"
#include "support.h"

using namespace support;
class Util : public FakePortTest {};

TEST_F(Util, HandleMessageIdsAndAllocator)
{
    CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
    ASSERT_NE(ld, nullptr);
    static const CMP_LDAP zero{}; /* static: its padding is zero too */
    EXPECT_EQ(memcmp(ld, &zero, sizeof zero), 0);
    /* 1, 2, 3 on a new handle; 0 follows 65535 by design. */
    for (int32_t want : {1, 2, 3})
        EXPECT_EQ(cmp_ldap_get_new_message_id(ld), want);
    ld->ld_mid = 65534;
    for (int32_t want : {65535, 0, 1})
        EXPECT_EQ(cmp_ldap_get_new_message_id(ld), want);
    free_block(ld);

    void *p = cmp_ldap_malloc("zero", 0); /* passed to the OS wrapper as it stands */
    EXPECT_EQ(fake::alloc_sizes().back(), 0u);
    free_block(p);

    fake::arm_alloc_failure(1, true);
    EXPECT_EQ(cmp_ldap_malloc("some_caller", 1234), nullptr);
    EXPECT_EQ(cmp_ldap_allocate_ldap_handler(), nullptr);
    EXPECT_EQ(cmp_ldap_strdup_without_space("x y"), nullptr);
    EXPECT_EQ(fake::log(),
              uncoded({"some_caller(): Failed to allocate(1234 btyes).\n",
                       "cmp_ldap_allocate_ldap_handler(): Failed to allocate(" +
                           std::to_string(sizeof(CMP_LDAP)) + " btyes).\n",
                       "cmp_ldap_allocate_ldap_handler():insufficient memory.\n",
                       "cmp_ldap_strdup_without_space(): Failed to allocate(4 btyes).\n"}));
}

TEST_F(Util, StrdupVariants)
{
    const char *cases[][2] = {{" a b ", "ab"}, {"   ", ""}, {"", ""}, {"a\tb", "a\tb"}};
    for (auto &c : cases) {
        char *dup = cmp_ldap_strdup(c[0]);
        char *ws = cmp_ldap_strdup_without_space(c[0]);
        EXPECT_STREQ(dup, c[0]);
        EXPECT_STREQ(ws, c[1]) << "input '" << c[0] << "'";
        EXPECT_EQ(fake::alloc_sizes().back(), strlen(c[0]) + 1); /* sized for the whole input */
        free_block(dup);
        free_block(ws);
    }
    EXPECT_EQ(cmp_ldap_strdup(nullptr), nullptr);
    EXPECT_EQ(cmp_ldap_strdup_without_space(nullptr), nullptr);
}

TEST_F(Util, TraceDumps)
{
    CMP_LDAP ld{};
    std::string long_text(100, 'm');
    cmp_ldap_gentrace_ld("f", nullptr);
    cmp_ldap_gentrace_ld("f", &ld);
    ld.ld_mid = 7;
    ld.ld_errno = 49;
    ld.ld_sock_timeout = -1;
    ld.ld_matched = long_text.data();
    ld.ld_error = const_cast<char *>("bad");
    cmp_ldap_gentrace_ld("f", &ld);
    CMP_LDAP_CONN_PARAM p{
        const_cast<char *>("ldap.example"), 636, -1, 1, 2, 2, 0x0c, 0xff, 1, 0x10};
    cmp_ldap_gentrace_param("open", nullptr);
    cmp_ldap_gentrace_param("open", &p);
    CMP_LDAP_FILTER f{1, 1, "cn,sn", ""};
    memset(f.cmp_ldap_value, 'v', 200); /* cut at 128 */
    CMP_LDAP_FILTER_PRESENT fp{0, "mail"};
    cmp_ldap_gentrace_search_params("s", "dc=example", 2, nullptr, nullptr, "cn,mail", 0);
    cmp_ldap_gentrace_search_params("s", "o=x", 0, &f, &fp, "1.1", 1);
    /* The filter line carries the dump's own name, deliberately unlike the others. */
    EXPECT_EQ(
        fake::log(),
        uncoded({"f(): ld=NULL\n",
                 "f(): ld: ld_mid=0,ld_deref=0,ld_timelimit=0,ld_sizelimit=0,"
                 "ld_sockfd=0,ld_sock_timeout=0,ld_ssl_ctx=(nil),ld_ssl_conn=(nil).\n",
                 "f(): ld: ld_errno=0,ld_matched=(null),ld_error=(null),"
                 "ld_referral=(null).\n",
                 "f(): ld: ld_mid=7,ld_deref=0,ld_timelimit=0,ld_sizelimit=0,"
                 "ld_sockfd=0,ld_sock_timeout=-1,ld_ssl_ctx=(nil),ld_ssl_conn=(nil).\n",
                 "f(): ld: ld_errno=49,ld_matched=" + std::string(64, 'm') +
                     ",ld_error=bad,ld_referral=(null).\n",
                 "open(): param=NULL.\n",
                 "open(): param: hostname=ldap.example,portno=636,timeout=-1,ipv6=1,"
                 "tls_mod=2.\n",
                 "open(): param: ssl_auth=2,ssl_version=0x0c,ssl_hash=0xff,"
                 "ssl_encrpt=0x01,ssl_accepted_signature_algorithm=0x10.\n",
                 "s(): base=dc=example,scope=2,attrs=cn,mail,attrsonly=0.\n",
                 "cmp_ldap_gentrace_search_params(): filter=NULL.\n", "s(): filter_present=NULL.\n",
                 "s(): base=o=x,scope=0,attrs=1.1,attrsonly=1.\n",
                 "cmp_ldap_gentrace_search_params(): filter: filterCond=1,"
                 "searchCond=1,attr=cn,sn,value=" +
                     std::string(128, 'v') + ".\n",
                 "s(): filter_present: searchCond=0,attr=mail.\n"}));
}

TEST_F(Util, ProtocolSetting)
{
    /* the setting's read result and value, and the check's result */
    const std::tuple<int32_t, uint8_t, int> cases[] = {
        {0, 1, 0}, {0, 0, -1}, {0, 0xff, 0}, {5, 1, -1}};
    for (const auto &[rc, value, expected] : cases) {
        fake::reset();
        fake::set_setting(rc, value);
        EXPECT_EQ(cmp_ldap_check_protocol_setting(), expected);
        EXPECT_EQ(fake::log(), rc == 0 ? Log{}
                                       : uncoded({"cmp_ldap_check_protocol_setting(): Cannot "
                                                  "read ME_STC_U08_LDAP_PROTOCOL.retcode="
                                                  "0x00000005.\n"}));
    }
}
