/* Result retrieval: id matching, accepted types, time-out conversion, the SASL
 * short cut and the failure lines. */
#include <stdio.h>

#include "cmp_ldap_internal.h"
#include "support.h"

using support::Bytes;
using support::FakePortTest;
using support::hex;

namespace {

/* An LDAPMessage with an empty protocolOp of the given tag. */
Bytes pdu(uint8_t id, uint8_t op_tag)
{
    return {0x30, 0x05, 0x02, 0x01, id, op_tag, 0x00};
}

std::string ptr(const void *p)
{
    char buf[32];
    snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

class Result : public FakePortTest {
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
        support::free_block(ld_);
        FakePortTest::TearDown();
    }
    CMP_LDAP *ld_ = nullptr;
    CMP_LDAP_MESSAGE *res_ = reinterpret_cast<CMP_LDAP_MESSAGE *>(0x1);
};

}  // namespace

TEST_F(Result, AcceptedTypesAreHandedOverWhateverTheIdWithMinusOne)
{
    const struct {
        uint8_t tag;
        int type;
    } cases[] = {{0x61, 1}, {0x64, 4}, {0x65, 5}, {0x73, 19}, {0x78, 24}};
    for (const auto &c : cases) {
        fake::peer_data(pdu(42, c.tag));
        ASSERT_EQ(cmp_ldap_result(ld_, -1, 0, nullptr, &res_), c.type);
        ASSERT_NE(res_, nullptr);
        EXPECT_EQ(res_->cmp_ldap_total_size, 7);
        EXPECT_EQ(Bytes(cmp_ldap_pdu(res_), cmp_ldap_pdu(res_) + 7), pdu(42, c.tag));
        support::free_block(res_);
    }
    EXPECT_TRUE(fake::log().empty());
}

TEST_F(Result, ResponsesForOtherIdsAreDroppedAndTheWaitGoesOn)
{
    fake::peer_data(pdu(7, 0x65));
    fake::peer_data(pdu(9, 0x64));
    fake::peer_data(pdu(8, 0x61));
    ASSERT_EQ(cmp_ldap_result(ld_, 8, 0, nullptr, &res_), 1);
    EXPECT_EQ(cmp_ldap_pdu(res_)[4], 8);
    support::free_block(res_);
    EXPECT_EQ(fake::live_blocks(), 1); /* only the handle: the dropped ones are freed */
}

TEST_F(Result, UnsupportedTypeForTheAwaitedIdIsADecodingError)
{
    CMP_LDAP_TIMEVAL tv{2, 0};
    fake::peer_data(pdu(3, 0x67)); /* ModifyResponse */
    EXPECT_EQ(cmp_ldap_result(ld_, 3, 0, &tv, &res_), -1);
    EXPECT_EQ(res_, nullptr);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_DECODING_ERROR);
    auto l = lines();
    ASSERT_EQ(l.size(), 3u);
    EXPECT_EQ(l[0].rfind("cmp_ldap_result(): ld: ld_mid=0,", 0), 0u);
    EXPECT_EQ(l[1].rfind("cmp_ldap_result(): ld: ld_errno=259,", 0), 0u);
    EXPECT_EQ(l[2], "cmp_ldap_result(): Unexpected message.application=7 msgid=3,all=0,timeout=" +
                        ptr(&tv) + ",tv_sec=2,tv_usec=0,res=" + ptr(&res_) + ".\n");
}

TEST_F(Result, TimeoutIsConvertedToMillisecondsOnceForEveryRead)
{
    const struct {
        long sec, usec, ms;
    } cases[] = {{1, 999999, 1999}, {0, 500, 0}, {5, 0, 5000}, {0, 1000, 1}};
    /* the handle lives across the cases, so only the new waits are looked at */
    size_t seen = 0;
    for (const auto &c : cases) {
        fake::peer_data(pdu(1, 0x61));
        fake::peer_data(pdu(2, 0x61));
        CMP_LDAP_TIMEVAL tv{c.sec, c.usec};
        ASSERT_EQ(cmp_ldap_result(ld_, 2, 0, &tv, &res_), 1);
        support::free_block(res_);
        auto waits = fake::recv_timeouts();
        ASSERT_GE(waits.size(), seen + 2);
        for (size_t i = seen; i < waits.size(); ++i)
            EXPECT_EQ(waits[i], c.ms) << c.sec << " s " << c.usec << " us";
        seen = waits.size();
    }
    fake::peer_data(pdu(1, 0x61));
    ASSERT_EQ(cmp_ldap_result(ld_, 1, 0, nullptr, &res_), 1);
    support::free_block(res_);
    auto waits = fake::recv_timeouts();
    ASSERT_GT(waits.size(), seen);
    for (size_t i = seen; i < waits.size(); ++i)
        EXPECT_EQ(waits[i], -1);
}

TEST_F(Result, CompletedSaslBindAnswersWithoutReading)
{
    ld_->ld_mid = 4;
    ld_->ld_sasl_msgid = 4;
    EXPECT_EQ(cmp_ldap_result(ld_, 99, 0, nullptr, &res_), 1);
    EXPECT_EQ(res_, nullptr);
    EXPECT_TRUE(fake::recv_timeouts().empty());

    /* another id issued since: a normal read again */
    ld_->ld_mid = 5;
    fake::peer_data(pdu(5, 0x65));
    EXPECT_EQ(cmp_ldap_result(ld_, 5, 0, nullptr, &res_), 5);
    support::free_block(res_);

    /* id 0 never takes the short cut */
    ld_->ld_mid = 0;
    ld_->ld_sasl_msgid = 0;
    res_ = reinterpret_cast<CMP_LDAP_MESSAGE *>(0x1);
    EXPECT_EQ(cmp_ldap_result(ld_, 0, 0, nullptr, &res_), -1);
    EXPECT_EQ(res_, nullptr);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_PROTOCOL_ERROR); /* nothing scripted: peer closed */
}

TEST_F(Result, ReadFailureKeepsTheReadersCodeAndLogsTheCall)
{
    CMP_LDAP_TIMEVAL tv{2, 5000};
    fake::peer_timeout();
    EXPECT_EQ(cmp_ldap_result(ld_, 4, 0, &tv, &res_), -1);
    EXPECT_EQ(res_, nullptr);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_TIMEOUT);
    auto l = lines();
    ASSERT_GE(l.size(), 3u);
    EXPECT_EQ(l[l.size() - 3].rfind("cmp_ldap_result(): ld: ld_mid=0,", 0), 0u);
    EXPECT_EQ(l.back(), "cmp_ldap_result(): rc=-1 msgid=4,all=0,timeout=" + ptr(&tv) +
                            ",tv_sec=2,tv_usec=5000,res=" + ptr(&res_) + ".\n");

    /* without a time-out the seconds and microseconds print as 0 */
    fake::clear_log();
    EXPECT_EQ(cmp_ldap_result(ld_, -1, 0, nullptr, &res_), -1);
    EXPECT_EQ(fake::log_texts().back(),
              "cmp_ldap_result(): rc=-1 msgid=-1,all=0,timeout=" + ptr(nullptr) +
                  ",tv_sec=0,tv_usec=0,res=" + ptr(&res_) + ".\n");
}

TEST_F(Result, UndecodableEnvelopeIsFreedAndReported)
{
    fake::peer_data(hex("30 03 02 01 01")); /* no protocolOp */
    EXPECT_EQ(cmp_ldap_result(ld_, -1, 0, nullptr, &res_), -1);
    EXPECT_EQ(res_, nullptr);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_DECODING_ERROR);
    auto l = lines();
    ASSERT_GE(l.size(), 3u);
    EXPECT_EQ(l[l.size() - 2].rfind("cmp_ldap_result(): ld: ld_errno=259,", 0), 0u);
    EXPECT_EQ(l.back(),
              "cmp_ldap_result(): Failed to decode CMP_LDAP_MESSAGE.msgid=-1,all=0,timeout=" +
                  ptr(nullptr) + ",tv_sec=0,tv_usec=0,res=" + ptr(&res_) + ".\n");
}

using ResultDeathTest = Result;

TEST_F(ResultDeathTest, NullHandleNonZeroAllAndNullResultAreProgrammerErrors)
{
    EXPECT_DEATH(cmp_ldap_result(nullptr, 1, 0, nullptr, &res_),
                 "cmp_ldap/cmn_src/cmp_ldap_api.*\\(\\(void \\*\\)0\\) != ld");
    EXPECT_DEATH(cmp_ldap_result(ld_, 1, 1, nullptr, &res_), "0 == all");
    EXPECT_DEATH(cmp_ldap_result(ld_, 1, 0, nullptr, nullptr), "\\(\\(void \\*\\)0\\) != res");
}
