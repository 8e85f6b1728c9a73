/* Result codes, their texts, and moving a response's LDAPResult into the handle. */
#include "cmp_ldap_internal.h"
#include "support.h"
#include "test_message_ber.h"

using msgtest::dump_of;
using msgtest::lines_of;
using msgtest::owned;
using msgtest::plus;
using msgtest::ptr;
using msgtest::release_texts;
using support::Bytes;
using support::hex;
using support::make_message;
using Lines = std::vector<std::string>;

namespace {

class MessageResult : public msgtest::HandleTest {};

TEST_F(MessageResult, ErrorTexts)
{
    struct Case {
        int32_t code;
        const char *text;
    } cases[] = {
        {0, "Success"},
        {1, "Operations error"},
        {8, "Strong authentication required"},
        {10, "Referral"},
        {14, "SASL bind in progress"},
        {18, "Inappropariate matching"},
        {32, "No such object"},
        {34, "Invalid distingished name syntax"},
        {50, "Insufficient_accessrights"},
        {71, "Affects multiple dsas"},
        {80, "Other"},
        {256, "Server down"},
        {259, "Decoding error"},
        {265, "No memory"},
        {9, "Unknown error"},
        {15, "Unknown error"},
        {-1, "Unknown error"}, /* the terminator's code is never matched */
        {81, "Unknown error"},
        {255, "Unknown error"},
        {266, "Unknown error"},
        {285, "Unknown error"},
        {INT32_MIN, "Unknown error"},
    };
    for (const Case &c : cases)
        EXPECT_STREQ(cmp_ldap_err2string(c.code), c.text) << c.code;

    /* 49 codes carry a text of their own */
    int with_text = 0;
    for (int32_t code = -2; code < 300; ++code)
        if (strcmp(cmp_ldap_err2string(code), "Unknown error") != 0) ++with_text;
    EXPECT_EQ(with_text, 49);
    EXPECT_TRUE(lines().empty());
}

TEST_F(MessageResult, SearchResultDoneFillsTheHandleAndIsReleased)
{
    ld.ld_matched = owned("old matched");
    ld.ld_error = owned("old error");
    ld.ld_referral = owned("ldap://kept/");
    CMP_LDAP_MESSAGE *m = make_message(ber::result(3, 0x65, 32, "ou=People,dc=ex", ""));
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 1), 32);
    EXPECT_EQ(ld.ld_errno, 32);
    EXPECT_STREQ(ld.ld_matched, "ou=People,dc=ex");
    EXPECT_STREQ(ld.ld_error, "");
    EXPECT_STREQ(ld.ld_referral, "ldap://kept/"); /* only a referral result replaces it */
    EXPECT_TRUE(lines().empty());
    /* the old texts and the message are gone: the fixture checks for leaks */
}

TEST_F(MessageResult, BindAndExtendedResponsesWithoutFreeit)
{
    CMP_LDAP_MESSAGE *m = make_message(hex("30 0C 02 01 01 61 07 0A 01 00 04 00 04 00"));
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 0), 0);
    EXPECT_STREQ(ld.ld_matched, "");
    EXPECT_STREQ(ld.ld_error, "");
    EXPECT_EQ(cmp_ldap_msgfree(m), CMP_LDAP_RES_BIND); /* still ours */

    /* ExtendedResponse with a responseName after the LDAPResult */
    m = make_message(ber::result(1, 0x78, 2, "", "unsupported", ber::os("1.2.3", 0x8a)));
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 1), 2);
    EXPECT_EQ(ld.ld_errno, 2);
    EXPECT_STREQ(ld.ld_error, "unsupported");
}

TEST_F(MessageResult, ReferralResultKeepsTheFirstUrl)
{
    const Bytes refs = ber::tlv(0xa3, ber::cat({ber::os("ldap://a/"), ber::os("ldap://b/")}));
    ld.ld_referral = owned("ldap://old/");
    CMP_LDAP_MESSAGE *m = make_message(ber::result(4, 0x65, 10, "", "see there", refs));
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 1), 10);
    EXPECT_STREQ(ld.ld_referral, "ldap://a/");
    EXPECT_STREQ(ld.ld_error, "see there");

    /* a long-form referral length cannot be skipped: no URL is kept */
    Bytes long_form = hex("A3 81 0B");
    Bytes url = ber::os("ldap://a/");
    long_form.insert(long_form.end(), url.begin(), url.end());
    m = make_message(ber::result(4, 0x65, 10, "", "", long_form));
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 1), 10);
    EXPECT_EQ(ld.ld_referral, nullptr);

    /* a referral result without the referral element: the old text is released */
    ld.ld_referral = owned("ldap://old/");
    m = make_message(ber::result(4, 0x65, 10, "", ""));
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 1), 10);
    EXPECT_EQ(ld.ld_referral, nullptr);
}

TEST_F(MessageResult, SavedSaslResultIsAnsweredWithoutTheMessage)
{
    CMP_LDAP_MESSAGE *m = make_message(ber::result(5, 0x61, 49, "", ""));
    ld.ld_mid = 5;
    ld.ld_sasl_msgid = 5;
    ld.ld_sasl_rc = 14;
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 1), 14);
    EXPECT_EQ(ld.ld_sasl_msgid, 0);
    EXPECT_EQ(ld.ld_sasl_rc, 0);
    EXPECT_EQ(ld.ld_errno, 0);
    EXPECT_EQ(ld.ld_error, nullptr);
    /* consumed: the next call reads the message, which is still there */
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 1), 49);

    /* id 0 never matches */
    ld.ld_mid = 0;
    ld.ld_sasl_msgid = 0;
    ld.ld_sasl_rc = 7;
    ld.ld_errno = 77;
    EXPECT_EQ(cmp_ldap_result2error(&ld, nullptr, 1), -1);
    EXPECT_EQ(ld.ld_sasl_rc, 7);
    EXPECT_EQ(ld.ld_errno, 77);
    EXPECT_TRUE(fake::logged("cmp_ldap_result2error(): parameter error (mes=NULL) (freeit=1).\n"));
}

TEST_F(MessageResult, ParameterErrorsNeitherFreeNorTouchErrno)
{
    CMP_LDAP_MESSAGE *m = make_message(hex("30 03 02 01 01"));
    EXPECT_EQ(cmp_ldap_result2error(nullptr, m, 1), -1);
    EXPECT_LOG(lines(), (Lines{"cmp_ldap_result2error(): parameter error (ld=NULL) (mes=" + ptr(m) +
                               ",freeit=1).\n"}));

    fake::clear_log();
    ld.ld_errno = 77;
    EXPECT_EQ(cmp_ldap_result2error(&ld, nullptr, 0), -1);
    EXPECT_LOG(lines(),
               plus(Lines{"cmp_ldap_result2error(): parameter error (mes=NULL) (freeit=0).\n"},
                    dump_of("cmp_ldap_result2error", &ld)));

    fake::clear_log();
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 1), -1); /* 5 octets */
    EXPECT_LOG(lines(), plus(Lines{"cmp_ldap_result2error(): total_size parameter error "
                                   "(total_size=5,mes=" +
                                   ptr(m) + ",freeit=1).\n"},
                             dump_of("cmp_ldap_result2error", &ld)));
    EXPECT_EQ(ld.ld_errno, 77);
    support::free_block(m); /* not freed by the refusals */
}

TEST_F(MessageResult, ResponsesWithoutAnLdapResultFailWithDecodingError)
{
    struct Case {
        const char *what;
        Bytes pdu;
        std::string line;
        bool past_code; /* the code was stored and the old texts released */
    };
    const Case cases[] = {
        {"ModifyResponse", ber::result(6, 0x67, 0, "", ""),
         "cmp_ldap_result2error(): Illegal message (application=7).\n", false},
        {"SearchResultEntry", ber::entry(6, "o=x", {}),
         "cmp_ldap_result2error(): Failed to get ResultCode.\n", false},
        {"SearchResultReference", ber::reference(6, {"ldap://x/"}),
         "cmp_ldap_result2error(): Failed to get ResultCode.\n", false},
        {"first tag not a SEQUENCE", hex("02 04 02 01 06 65 00"),
         "cmp_ldap_result2error(): Failed to get CMP_LDAP_MESSAGE.\n", false},
        {"operation tag is the last octet", hex("30 04 02 01 06 65"),
         "cmp_ldap_result2error(): Failed to get BindResponses.\n", false},
        {"matchedDN cut short", hex("30 0A 02 01 06 65 05 0A 01 00 04 05 61"),
         "cmp_ldap_result2error(): Failed to get ld_matched.\n", true},
        {"diagnostic is an INTEGER", hex("30 0D 02 01 06 65 08 0A 01 00 04 00 02 01 05"),
         "cmp_ldap_result2error(): Failed to get ld_error.\n", true},
    };
    for (const Case &c : cases) {
        for (int freeit = 0; freeit <= 1; ++freeit) {
            SCOPED_TRACE(std::string(c.what) + (freeit ? " freeit" : ""));
            fake::clear_log();
            ld.ld_errno = 77;
            ld.ld_error = owned("old");
            CMP_LDAP_MESSAGE *m = make_message(c.pdu);
            EXPECT_EQ(cmp_ldap_result2error(&ld, m, freeit), -1);
            EXPECT_EQ(ld.ld_errno, CMP_LDAP_DECODING_ERROR);
            /* the dump shows ld_errno as it stood before the failure was stored */
            CMP_LDAP at_dump = ld;
            at_dump.ld_errno = c.past_code ? 0 : 77; /* the dump precedes the 259 */
            EXPECT_LOG(lines_of("cmp_ldap_result2error"),
                       plus(Lines{c.line, "cmp_ldap_result2error(): mes=" + ptr(m) +
                                              ",freeit=" + std::to_string(freeit) + ".\n"},
                            dump_of("cmp_ldap_result2error", &at_dump)));
            EXPECT_EQ(ld.ld_error == nullptr, c.past_code);
            if (!freeit)
                support::free_block(m); /* a wrong release shows as a leak or a double free */
            release_texts(ld);
        }
    }
}

TEST_F(MessageResult, EveryAllocationFailingInTurn)
{
    const Bytes done = ber::result(3, 0x65, 32, "ou=People,dc=ex", "no such entry");
    const Bytes referral =
        ber::result(4, 0x65, 10, "", "", ber::tlv(0xa3, ber::cat({ber::os("ldap://a/")})));
    long n = support::sweep_alloc_failures([&](long k) {
        CMP_LDAP h;
        memset(&h, 0, sizeof h);
        CMP_LDAP_MESSAGE *m = make_message(done);
        fake::arm_alloc_failure(k);
        int rc = cmp_ldap_result2error(&h, m, 1);
        if (k == 0) {
            EXPECT_EQ(rc, 32);
            EXPECT_STREQ(h.ld_error, "no such entry");
        } else {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(h.ld_errno, CMP_LDAP_DECODING_ERROR);
        }
        release_texts(h);
    });
    EXPECT_EQ(n, 2);

    n = support::sweep_alloc_failures([&](long k) {
        CMP_LDAP h;
        memset(&h, 0, sizeof h);
        CMP_LDAP_MESSAGE *m = make_message(referral);
        fake::arm_alloc_failure(k);
        int rc = cmp_ldap_result2error(&h, m, 1);
        if (k == 0 || k == 3) {
            EXPECT_EQ(rc, 10);
            /* a URL lost to memory is no failure */
            EXPECT_STREQ(h.ld_referral, k == 0 ? "ldap://a/" : nullptr);
        } else {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(h.ld_errno, CMP_LDAP_DECODING_ERROR);
        }
        release_texts(h);
    });
    EXPECT_EQ(n, 3);
}

}  // namespace
