/*
 * The accessors against what a server may get wrong: every truncated prefix of
 * valid responses, in a block of PDU + 400 and in a block that ends exactly at
 * the PDU (AddressSanitizer then sees any read past it), and every allocation
 * failing in turn. Each case must fail cleanly, with the right ld_errno, and
 * leak nothing.
 */
#include <algorithm>

#include "cmp_ldap_internal.h"
#include "support.h"
#include "test_message_ber.h"

using msgtest::release_texts;
using support::Bytes;
using support::hex;
using Lines = std::vector<std::string>;

namespace {

const std::string kDn = "cn=John,ou=People,dc=ex";

/* The attribute read in the prefix runs is the last one, so every prefix cuts it. */
Bytes entry_pdu()
{
    return ber::entry(2, kDn,
                      {
                          ber::attribute("objectClass", {"top", "person"}),
                          ber::attribute("cn;binary", {std::string("\x00\x01", 2)}),
                          ber::attribute("mail", {}),
                          ber::attribute("photo", {std::string("\x00", 1), ""}),
                          ber::attribute("sn", {"Doe", "X"}),
                      });
}
const Lines kEntryNames = {"objectClass", "cn;binary", "mail", "photo", "sn"};

/* The block just past the DN: prefixes at least this long still give the DN. */
size_t dn_end()
{
    Bytes pdu = entry_pdu();
    auto at = std::search(pdu.begin(), pdu.end(), kDn.begin(), kDn.end());
    return (size_t)(at - pdu.begin()) + kDn.size();
}

const Bytes kDone = ber::result(3, 0x65, 32, "ou=People,dc=ex", "no such entry");
const Bytes kBind = hex("30 0C 02 01 01 61 07 0A 01 00 04 00 04 00");
const Bytes kReference = ber::reference(9, {"ldap://h1/o=a", "ldap://h2/o=b"});
const Bytes kReferralResult =
    ber::result(4, 0x65, 10, "", "", ber::tlv(0xa3, ber::cat({ber::os("ldap://a/")})));
const size_t kReferralDiagEnd = kReferralResult.size() - 13; /* A3 0B 04 09 ldap://a/ */

using Maker = CMP_LDAP_MESSAGE *(*)(const Bytes &);
const struct {
    const char *name;
    Maker make;
} kMakers[] = {{"PDU + 400", support::make_message}, {"tight", support::make_tight_message}};

/* Runs check(m, len) over every proper prefix of pdu in both kinds of block.
 * check returns whether it released the message. */
void each_prefix(const Bytes &pdu, const std::function<bool(CMP_LDAP_MESSAGE *, size_t)> &check)
{
    for (const auto &maker : kMakers) {
        for (size_t len = 0; len < pdu.size(); ++len) {
            SCOPED_TRACE(std::string(maker.name) + " prefix " + std::to_string(len) + " of " +
                         std::to_string(pdu.size()));
            CMP_LDAP_MESSAGE *m = maker.make(Bytes(pdu.begin(), pdu.begin() + len));
            if (!check(m, len)) support::free_block(m);
            EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
        }
    }
}

class MessageRobust : public msgtest::HandleTest {};

void expect_clean_failure(const CMP_LDAP &ld)
{
    EXPECT_TRUE(ld.ld_errno == CMP_LDAP_DECODING_ERROR || ld.ld_errno == CMP_LDAP_NO_MEMORY)
        << ld.ld_errno;
}

TEST_F(MessageRobust, TheVectorsAreWholeResponses)
{
    CMP_LDAP_MESSAGE *m = support::make_tight_message(entry_pdu());
    char *dn = cmp_ldap_get_dn(&ld, m);
    EXPECT_STREQ(dn, kDn.c_str());
    cmp_ldap_dn_free(dn);
    char **sn = cmp_ldap_get_values(&ld, m, "sn");
    ASSERT_NE(sn, nullptr);
    EXPECT_EQ(cmp_ldap_value_free(sn), 2);
    support::free_block(m);
    EXPECT_EQ(entry_pdu()[dn_end() - 1], 'x'); /* last octet of the DN */
    EXPECT_EQ(kReferralResult[kReferralDiagEnd - 2], 0x04);
    EXPECT_EQ(kReferralResult[kReferralDiagEnd], 0xa3);
    EXPECT_TRUE(lines().empty());
}

TEST_F(MessageRobust, TruncatedEntryThroughValueGetters)
{
    for (int binary = 0; binary <= 1; ++binary) {
        each_prefix(entry_pdu(), [&](CMP_LDAP_MESSAGE *m, size_t) {
            ld.ld_errno = 77;
            void **vals = cmp_ldap_get_values_both(&ld, m, "sn", binary);
            EXPECT_EQ(vals, nullptr);
            if (vals != nullptr) cmp_ldap_value_free(reinterpret_cast<char **>(vals));
            expect_clean_failure(ld);
            return false;
        });
    }
}

TEST_F(MessageRobust, TruncatedEntryThroughGetDn)
{
    each_prefix(entry_pdu(), [&](CMP_LDAP_MESSAGE *m, size_t len) {
        ld.ld_errno = 77;
        char *dn = cmp_ldap_get_dn(&ld, m);
        if (len >= dn_end()) {
            EXPECT_STREQ(dn, kDn.c_str());
            EXPECT_EQ(ld.ld_errno, 77);
        } else {
            EXPECT_EQ(dn, nullptr);
            expect_clean_failure(ld);
        }
        if (dn != nullptr) cmp_ldap_dn_free(dn);
        return false;
    });
}

TEST_F(MessageRobust, TruncatedEntryThroughTheAttributeWalk)
{
    /* Names are read alone and an attribute is stepped over by its declared
     * length, so a cut inside the last value SET still walks every name. */
    const Bytes pdu = entry_pdu();
    const std::string last_type("\x04\x02sn", 4);
    const size_t last_name_end =
        (size_t)(std::search(pdu.begin(), pdu.end(), last_type.begin(), last_type.end()) -
                 pdu.begin()) +
        last_type.size();
    each_prefix(pdu, [&](CMP_LDAP_MESSAGE *m, size_t len) {
        void *it = nullptr;
        ld.ld_errno = 77;
        Lines names;
        for (char *a = cmp_ldap_first_attribute(&ld, m, &it); a != nullptr;
             a = cmp_ldap_next_attribute(&ld, m, it)) {
            names.push_back(a);
            if (names.size() > kEntryNames.size()) break;
        }
        EXPECT_LE(names.size(), kEntryNames.size());
        if (names.size() > kEntryNames.size()) return false;
        EXPECT_EQ(names, Lines(kEntryNames.begin(), kEntryNames.begin() + names.size()));
        if (len >= last_name_end) {
            EXPECT_EQ(names.size(), kEntryNames.size());
            EXPECT_EQ(ld.ld_errno, 0);
        } else {
            EXPECT_EQ(ld.ld_errno, CMP_LDAP_DECODING_ERROR);
        }
        return false;
    });
}

TEST_F(MessageRobust, TruncatedResponsesThroughResult2error)
{
    for (const Bytes *pdu : {&kDone, &kBind, &kReference}) {
        for (int freeit = 0; freeit <= 1; ++freeit) {
            each_prefix(*pdu, [&](CMP_LDAP_MESSAGE *m, size_t len) {
                ld.ld_errno = 77;
                EXPECT_EQ(cmp_ldap_result2error(&ld, m, freeit), -1);
                /* below 6 octets the message is refused before decoding */
                EXPECT_EQ(ld.ld_errno, len < 6 ? 77 : CMP_LDAP_DECODING_ERROR);
                release_texts(ld);
                return freeit && len >= 6;
            });
        }
    }
}

TEST_F(MessageRobust, TruncatedReferralResultLosesOnlyTheUrl)
{
    each_prefix(kReferralResult, [&](CMP_LDAP_MESSAGE *m, size_t len) {
        ld.ld_errno = 77;
        ld.ld_referral = cmp_ldap_strdup("ldap://old/");
        int rc = cmp_ldap_result2error(&ld, m, 1);
        if (len < 6) {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(ld.ld_errno, 77);
        } else if (len < kReferralDiagEnd) {
            EXPECT_EQ(rc, -1);
            EXPECT_EQ(ld.ld_errno, CMP_LDAP_DECODING_ERROR);
            EXPECT_STREQ(ld.ld_referral, "ldap://old/");
        } else {
            EXPECT_EQ(rc, 10);
            EXPECT_EQ(ld.ld_referral, nullptr); /* the URL is never whole in a prefix */
        }
        release_texts(ld);
        return len >= 6;
    });
}

TEST_F(MessageRobust, TruncatedReferenceThroughGetReferrals)
{
    each_prefix(kReference, [&](CMP_LDAP_MESSAGE *m, size_t) {
        ld.ld_errno = 77;
        char **urls = cmp_ldap_get_referrals(&ld, m);
        EXPECT_EQ(urls, nullptr);
        if (urls != nullptr) cmp_ldap_value_free(urls);
        expect_clean_failure(ld);
        return false;
    });
}

TEST_F(MessageRobust, TruncatedMessagesThroughIdentity)
{
    for (const Bytes *pdu : {&kDone, &kBind, &kReference}) {
        const int id = (*pdu)[4];
        const int type = (*pdu)[5] & 0x1f;
        each_prefix(*pdu, [&](CMP_LDAP_MESSAGE *m, size_t) {
            int got_id = cmp_ldap_msgid(m);
            int got_type = cmp_ldap_msgtype(m);
            EXPECT_TRUE(got_id == -1 || got_id == id) << got_id;
            EXPECT_TRUE(got_type == -1 || got_type == type) << got_type;
            EXPECT_EQ(cmp_ldap_msgfree(m), got_type);
            return true;
        });
    }
}

TEST_F(MessageRobust, ValueGettersWithEveryAllocationFailing)
{
    for (int binary = 0; binary <= 1; ++binary) {
        for (const char *attr : {"objectClass", "photo", "mail", "absent"}) {
            SCOPED_TRACE(std::string(attr) + (binary ? " binary" : ""));
            long n = support::sweep_alloc_failures([&](long k) {
                CMP_LDAP h;
                memset(&h, 0, sizeof h);
                CMP_LDAP_MESSAGE *m = support::make_message(entry_pdu());
                size_t setup = fake::alloc_sizes().size();
                fake::arm_alloc_failure(k);
                void **vals = cmp_ldap_get_values_both(&h, m, attr, binary);
                if (k == 0) {
                    EXPECT_EQ(vals == nullptr, strcmp(attr, "absent") == 0);
                } else {
                    EXPECT_EQ(vals, nullptr);
                    /* the lookup's name buffer fails as a lookup; the rest is memory */
                    bool lookup =
                        fake::alloc_sizes()[setup + k - 1] == CMP_LDAP_TEXT_SIZE && k == 1;
                    EXPECT_EQ(h.ld_errno, lookup ? CMP_LDAP_DECODING_ERROR : CMP_LDAP_NO_MEMORY)
                        << "allocation " << k;
                }
                if (vals != nullptr) cmp_ldap_value_free(reinterpret_cast<char **>(vals));
                support::free_block(m);
            });
            /* name buffer, array, values */
            int values = strcmp(attr, "mail") == 0 ? 0 : 2;
            EXPECT_EQ(n, strcmp(attr, "absent") == 0 ? 1 : 2 + values);
        }
    }
}

TEST_F(MessageRobust, GetDnWithEveryAllocationFailing)
{
    long n = support::sweep_alloc_failures([&](long k) {
        CMP_LDAP h;
        memset(&h, 0, sizeof h);
        CMP_LDAP_MESSAGE *m = support::make_message(entry_pdu());
        fake::arm_alloc_failure(k);
        char *dn = cmp_ldap_get_dn(&h, m);
        EXPECT_EQ(dn == nullptr, k != 0);
        EXPECT_EQ(h.ld_errno, k != 0 ? CMP_LDAP_NO_MEMORY : 0);
        if (dn != nullptr) cmp_ldap_dn_free(dn);
        support::free_block(m);
    });
    EXPECT_EQ(n, 1);
}

}  // namespace

namespace {

TEST_F(MessageRobust, LengthsThatOverflowAPositionFailCleanly)
{
    /* members whose declared lengths would carry a 32-bit position past 2 GiB */
    const Bytes huge_value = hex("04 84 7F FF FF F0 61 04 01 62");
    const Bytes huge_attribute = hex("30 84 7F FF FF F0 04 01 78 31 00");
    struct Case {
        const char *what;
        Bytes pdu;
    } cases[] = {
        {"value",
         ber::entry(2, "o=x",
                    {ber::tlv(0x30, ber::cat({ber::os("x"), ber::tlv(0x31, huge_value)}))})},
        {"attribute", ber::entry(2, "o=x", {huge_attribute, ber::attribute("x", {"a"})})},
        {"referral", ber::message(9, 0x73, huge_value)},
    };
    for (const Case &c : cases) {
        for (const auto &maker : kMakers) {
            SCOPED_TRACE(std::string(c.what) + " " + maker.name);
            CMP_LDAP_MESSAGE *m = maker.make(c.pdu);
            /* whatever each call makes of it, it is not a read out of the block */
            char **vals = cmp_ldap_get_values(&ld, m, "x");
            if (vals != nullptr) cmp_ldap_value_free(vals);
            char **urls = cmp_ldap_get_referrals(&ld, m);
            EXPECT_EQ(urls, nullptr); /* not a reference, or a URL past the end */
            if (urls != nullptr) cmp_ldap_value_free(urls);
            void *it = nullptr;
            int names = 0;
            for (char *a = cmp_ldap_first_attribute(&ld, m, &it); a != nullptr && names < 8;
                 a = cmp_ldap_next_attribute(&ld, m, it))
                ++names;
            EXPECT_LT(names, 8);
            support::free_block(m);
        }
    }
}

}  // namespace
