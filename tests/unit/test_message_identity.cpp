/* Message id, type and release; exploded DNs; referrals of a SearchResultReference. */
#include "cmp_ldap_internal.h"
#include "support.h"
#include "test_message_ber.h"

using msgtest::dump_of;
using msgtest::lines_of;
using msgtest::plus;
using msgtest::ptr;
using support::Bytes;
using support::hex;
using support::make_message;
using Lines = std::vector<std::string>;

namespace {

class MessageIdentity : public msgtest::HandleTest {};

Lines to_lines(char **array)
{
    Lines out;
    for (char **p = array; *p != nullptr; ++p)
        out.push_back(*p);
    return out;
}

TEST_F(MessageIdentity, IdTypeAndRelease)
{
    CMP_LDAP_MESSAGE *m = make_message(ber::result(300 % 256, 0x65, 0, "", ""));
    EXPECT_EQ(cmp_ldap_msgid(m), 44);
    EXPECT_EQ(cmp_ldap_msgtype(m), CMP_LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(cmp_ldap_msgfree(m), CMP_LDAP_RES_SEARCH_RESULT);

    m = make_message(ber::reference(7, {"ldap://x/"}));
    EXPECT_EQ(cmp_ldap_msgtype(m), CMP_LDAP_RES_SEARCH_REFERENCE);
    EXPECT_EQ(cmp_ldap_msgfree(m), CMP_LDAP_RES_SEARCH_REFERENCE);
    EXPECT_TRUE(lines().empty());
}

TEST_F(MessageIdentity, CorruptEnvelopeAndNullMessage)
{
    CMP_LDAP_MESSAGE *m = make_message(hex("30 05 02 01 07 04 00")); /* no APPLICATION tag */
    EXPECT_EQ(cmp_ldap_msgid(m), -1);
    EXPECT_EQ(cmp_ldap_msgtype(m), -1);
    EXPECT_EQ(cmp_ldap_msgfree(m), -1); /* and released all the same (leak check) */
    EXPECT_EQ(lines_of("cmp_ldap_msgid"),
              Lines{"cmp_ldap_msgid(): Failed to extract CMP_LDAP_MESSAGE.\n"});
    EXPECT_EQ(lines_of("cmp_ldap_msgtype"),
              Lines{"cmp_ldap_msgtype(): Failed to extract CMP_LDAP_MESSAGE.\n"});
    EXPECT_EQ(lines_of("cmp_ldap_msgfree"),
              Lines{"cmp_ldap_msgfree(): Failed to extract LDAPMessag.\n"});

    fake::clear_log();
    EXPECT_EQ(cmp_ldap_msgid(nullptr), -1);
    EXPECT_EQ(cmp_ldap_msgtype(nullptr), -1);
    EXPECT_EQ(cmp_ldap_msgfree(nullptr), -1);
    EXPECT_EQ(lines(), (Lines{"cmp_ldap_msgid(): parameter error.\n",
                              "cmp_ldap_msgtype(): parameter error.\n",
                              "cmp_ldap_msgfree(): parameter error.\n"}));
}

TEST_F(MessageIdentity, ExplodeDn)
{
    struct Case {
        const char *dn;
        int notypes;
        Lines parts;
    } cases[] = {
        {"cn=John,ou=People,dc=ex", 0, {"cn=John", "ou=People", "dc=ex"}},
        {"cn=John,ou=People,dc=ex", 1, {"John", "People", "ex"}},
        {"a,b=c", 1, {"a", "c"}},
        {"cn=x\\,y,o=z", 1, {"x\\", "y", "z"}}, /* escapes are not honoured */
        {"cn=x\\,y,o=z", 0, {"cn=x\\", "y", "o=z"}},
        {"cn=a, o=b", 0, {"cn=a", " o=b"}},
        {"cn=a, o=b", 1, {"a", "b"}},
        {"", 0, {""}},
        {"", 1, {""}},
        {"o=x", 1, {"x"}},
        {",,", 0, {"", "", ""}},
        {"cn=a=b+sn=c", 1, {"a=b+sn=c"}},
        {"x=,=y", 1, {"", "y"}},
    };
    for (const Case &c : cases) {
        char **parts = cmp_ldap_explode_dn(c.dn, c.notypes);
        ASSERT_NE(parts, nullptr) << c.dn;
        EXPECT_EQ(to_lines(parts), c.parts) << c.dn << " notypes=" << c.notypes;
        EXPECT_EQ(cmp_ldap_value_free(parts), (int)c.parts.size());
    }
    EXPECT_TRUE(lines().empty());

    EXPECT_EQ(cmp_ldap_explode_dn(nullptr, 1), nullptr);
    EXPECT_EQ(cmp_ldap_substrcpy(nullptr, "x"), nullptr);
    EXPECT_EQ(lines(), (Lines{"cmp_ldap_explode_dn(): parameter error (dn=NULL,notypes=1).\n",
                              "cmp_ldap_substrcpy(): parameter error.\n"}));
}

TEST_F(MessageIdentity, ExplodeDnSizesAndAllocationFailures)
{
    char **parts = cmp_ldap_explode_dn("cn=John,o=x", 1);
    EXPECT_EQ(fake::alloc_sizes(), (std::vector<uint32_t>{3 * sizeof(char *), 5, 2}));
    cmp_ldap_value_free(parts);

    for (const char *dn : {"cn=John,ou=People,dc=ex", "o=x", ""}) {
        long n = support::sweep_alloc_failures([&](long k) {
            fake::arm_alloc_failure(k);
            char **got = cmp_ldap_explode_dn(dn, 0);
            if (k == 0)
                EXPECT_NE(got, nullptr);
            else
                EXPECT_EQ(got, nullptr) << dn << " allocation " << k;
            if (got != nullptr) cmp_ldap_value_free(got);
        });
        EXPECT_GE(n, 2) << dn;
    }
}

TEST_F(MessageIdentity, ReferralsInReceivedOrder)
{
    CMP_LDAP_MESSAGE *m = make_message(ber::reference(9, {"ldap://h1/o=a??sub", "ldap://h2/o=b"}));
    ld.ld_errno = 77;
    char **urls = cmp_ldap_get_referrals(&ld, m);
    ASSERT_NE(urls, nullptr);
    EXPECT_EQ(to_lines(urls), (Lines{"ldap://h1/o=a??sub", "ldap://h2/o=b"}));
    EXPECT_EQ(cmp_ldap_value_free(urls), 2);
    EXPECT_EQ(ld.ld_errno, 77);
    support::free_block(m);

    m = make_message(ber::reference(9, {}));
    urls = cmp_ldap_get_referrals(&ld, m);
    ASSERT_NE(urls, nullptr);
    EXPECT_EQ(urls[0], nullptr);
    EXPECT_EQ(cmp_ldap_value_free(urls), 0);
    support::free_block(m);
    EXPECT_TRUE(lines().empty());
}

TEST_F(MessageIdentity, ReferralFailures)
{
    struct Case {
        const char *what;
        Bytes pdu;
        int32_t errno_after;
        std::string line; /* "%ld" stands for the failing URL's position */
    };
    const Bytes second_bad =
        ber::message(9, 0x73, ber::cat({ber::os("ldap://a/"), hex("02 01 05")}));
    const Case cases[] = {
        {"corrupt envelope", hex("31 03 02 01 09"), CMP_LDAP_DECODING_ERROR,
         "cmp_ldap_get_referrals(): Failed to get CMP_LDAP_MESSAGE.\n"},
        {"SearchResultDone", ber::result(9, 0x65, 0, "", ""), CMP_LDAP_DECODING_ERROR,
         "cmp_ldap_get_referrals(): This is not referral message (application=5).\n"},
        {"operation length unreadable", hex("30 0A 02 01 09 73 85 00 00 00 00 00"),
         CMP_LDAP_DECODING_ERROR,
         "cmp_ldap_get_referrals(): Failed to count number of referrals.\n"},
        {"second URL is an INTEGER", second_bad, CMP_LDAP_NO_MEMORY,
         "cmp_ldap_get_referrals(): Failed to get decode referral string. currentPos=" +
             std::to_string(second_bad.size() - 3) + ".\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        fake::clear_log();
        CMP_LDAP_MESSAGE *m = make_message(c.pdu);
        ld.ld_errno = 77;
        EXPECT_EQ(cmp_ldap_get_referrals(&ld, m), nullptr);
        EXPECT_EQ(ld.ld_errno, c.errno_after);
        EXPECT_LOG(lines_of("cmp_ldap_get_referrals"),
                   plus(Lines{c.line}, dump_of("cmp_ldap_get_referrals", &ld)));
        support::free_block(m);
    }

    fake::clear_log();
    ld.ld_errno = 77;
    EXPECT_EQ(cmp_ldap_get_referrals(&ld, nullptr), nullptr);
    EXPECT_EQ(cmp_ldap_get_referrals(nullptr, nullptr), nullptr);
    EXPECT_EQ(ld.ld_errno, 77);
    EXPECT_LOG(lines(),
               plus(plus(Lines{"cmp_ldap_get_referrals(): parameter error (next either is NULL: "
                               "ld,mes) (mes=(nil)).\n"},
                         dump_of("cmp_ldap_get_referrals", &ld)),
                    plus(Lines{"cmp_ldap_get_referrals(): parameter error (next either is NULL: "
                               "ld,mes) (mes=(nil)).\n"},
                         dump_of("cmp_ldap_get_referrals", nullptr))));
}

TEST_F(MessageIdentity, ReferralAllocationFailures)
{
    const Bytes pdu = ber::reference(9, {"ldap://h1/", "ldap://h2/"});
    long n = support::sweep_alloc_failures([&](long k) {
        CMP_LDAP h;
        memset(&h, 0, sizeof h);
        CMP_LDAP_MESSAGE *m = make_message(pdu);
        fake::arm_alloc_failure(k);
        char **urls = cmp_ldap_get_referrals(&h, m);
        if (k == 0) {
            ASSERT_NE(urls, nullptr);
            EXPECT_EQ(to_lines(urls), (Lines{"ldap://h1/", "ldap://h2/"}));
            cmp_ldap_value_free(urls);
        } else {
            EXPECT_EQ(urls, nullptr);
            EXPECT_EQ(h.ld_errno, CMP_LDAP_NO_MEMORY);
            EXPECT_TRUE(fake::logged(
                k == 1 ? std::string("cmp_ldap_get_referrals(): Failed to alloc referral-array.\n")
                       : "cmp_ldap_get_referrals(): Failed to get decode referral string. "
                         "currentPos=" +
                             std::to_string(k == 2 ? 7 : 19) + ".\n"));
        }
        support::free_block(m);
    });
    EXPECT_EQ(n, 3);
}

}  // namespace
