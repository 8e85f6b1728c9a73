/* What a hostile server (or a caller passing raw records) can try: a response cut
 * off in its middle, a refused StartTLS carrying a huge referral, a DN of a
 * million components, filter records outside their contract. */
#include <string>
#include <tuple>
#include <utility>

#include "cmp_ldap_internal.h"
#include "support.h"

#pragma GCC diagnostic ignored "-Wmissing-field-initializers" /* records zero-filled */

using namespace support;

namespace {

/* A BindResponse success for id 2: the forgery hidden in an entry's value. */
const Bytes kForgedSuccess = hex("30 0C 02 01 02 61 07 0A 01 00 04 00 04 00");
/* A SearchResultEntry for id 1 whose one value begins with that forgery. */
const Bytes kEntry = tlv(
    0x30,
    hex("02 01 01") +
        tlv(0x64,
            octets("cn=x") +
                tlv(0x30, tlv(0x30, octets("description") +
                                        tlv(0x31, tlv(0x04, kForgedSuccess + Bytes(40, 'A')))))));
/* Where the value's content starts: everything before it is the cut response's head. */
const size_t kValueStart = kEntry.size() - 40 - kForgedSuccess.size();

class HostilePeer : public FakePortTest {
  protected:
    CMP_LDAP *ld_ = nullptr;
    CMP_LDAP_MESSAGE *res_ = nullptr;

    void connect(bool tls)
    {
        ld_ = cmp_ldap_allocate_ldap_handler();
        ASSERT_NE(ld_, nullptr);
        ld_->ld_sockfd = cmp_netsock_socket(AF_INET, 1, 0);
        ld_->ld_sock_timeout = 3000;
        if (tls) {
            CMP_LDAP_CONN_PARAM param{};
            ASSERT_EQ(cmp_ldap_tls_start(ld_, &param), 0);
        }
        fake::clear_log();
    }
    int result(int32_t msgid)
    {
        CMP_LDAP_TIMEVAL tv{1, 0};
        return cmp_ldap_result(ld_, msgid, 0, &tv, &res_);
    }
};

}  // namespace

TEST_F(HostilePeer, ACutResponseDropsTheConnectionSoNoForgeryIsEverRead)
{
    /* head: octets of the entry the peer sends before the failure */
    const std::tuple<const char *, size_t, bool, int> cases[] = {
        {"time-out inside a value", kValueStart, false, CMP_LDAP_TIMEOUT},
        {"time-out inside a value, TLS", kValueStart, true, CMP_LDAP_TIMEOUT},
        {"time-out after the tag", 1, false, CMP_LDAP_TIMEOUT},
        {"socket error inside the content", kValueStart, false, CMP_LDAP_PROTOCOL_ERROR},
        {"no memory for the PDU", 2, false, CMP_LDAP_NO_MEMORY},
    };
    for (const auto &[name, head, tls, fail_errno] : cases) {
        SCOPED_TRACE(name);
        fake::reset();
        connect(tls);
        const int32_t sockfd = ld_->ld_sockfd;
        fake::peer_data(Bytes(kEntry.begin(), kEntry.begin() + (long)head));
        fail_errno == CMP_LDAP_NO_MEMORY ? fake::arm_alloc_failure(1)
        : fail_errno == CMP_LDAP_TIMEOUT ? fake::peer_timeout()
                                         : fake::peer_error(-1);
        /* the rest of the entry, which a reader in step with nothing would take as a
         * new message: the forged BindResponse for id 2 */
        fake::peer_data(Bytes(kEntry.begin() + (long)head, kEntry.end()));

        EXPECT_EQ(result(1), -1);
        EXPECT_EQ(ld_->ld_errno, fail_errno);
        EXPECT_EQ(res_, nullptr);
        EXPECT_EQ(ld_->ld_sockfd, CMP_LDAP_DROPPED_SOCKET);
        EXPECT_EQ(ld_->ld_ssl_conn, nullptr);
        EXPECT_EQ(fake::closed_sockets(), std::vector<int32_t>{sockfd});
        EXPECT_EQ(fake::live_tls_connections(), 0);
        EXPECT_EQ(fake::live_tls_contexts(), 0);

        /* every later operation fails with "server down" and says why */
        ld_->ld_errno = 0;
        fake::clear_log();
        EXPECT_EQ(result(2), -1);
        EXPECT_EQ(res_, nullptr);
        EXPECT_EQ(ld_->ld_errno, CMP_LDAP_SERVER_DOWN);
        ASSERT_FALSE(fake::log().empty());
        EXPECT_EQ(fake::log().front(),
                  err(CMP_LDAP_SERVER_DOWN,
                      "cmp_ldap_recv_data(): connection was dropped after a cut response.\n"));

        fake::clear_log();
        EXPECT_EQ(cmp_ldap_bind(ld_, "cn=a", "secret", nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE), -1);
        EXPECT_EQ(ld_->ld_errno, CMP_LDAP_SERVER_DOWN);
        EXPECT_TRUE(
            fake::logged("cmp_ldap_send_data(): connection was dropped after a cut response.\n"));
        EXPECT_EQ(cmp_ldap_abandon(ld_, 1), -1);
        EXPECT_EQ(cmp_ldap_search_tiny(ld_, "o=x", 0, nullptr, nullptr, "", 0), -1);
        EXPECT_EQ(ld_->ld_errno, CMP_LDAP_SERVER_DOWN);
        EXPECT_TRUE(fake::sent().empty());

        /* unbind still ends the session cleanly: nothing sent, nothing closed twice */
        EXPECT_EQ(cmp_ldap_unbind(std::exchange(ld_, nullptr)), 0);
        EXPECT_TRUE(fake::sent().empty());
        EXPECT_EQ(fake::closed_sockets(), std::vector<int32_t>{sockfd});
        EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
    }
}

TEST_F(HostilePeer, ATimeOutBeforeAResponseBeginsKeepsTheSession)
{
    connect(false);
    fake::peer_timeout();
    fake::peer_data(hex("30 0C 02 01 01 61 07 0A 01 00 04 00 04 00"));
    EXPECT_EQ(result(1), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_TIMEOUT);
    EXPECT_NE(ld_->ld_sockfd, CMP_LDAP_DROPPED_SOCKET);
    EXPECT_EQ(result(1), CMP_LDAP_RES_BIND);
    cmp_ldap_msgfree(res_);
    EXPECT_EQ(cmp_ldap_unbind(std::exchange(ld_, nullptr)), 0);
    EXPECT_EQ(to_hex(fake::sent()), "30 05 02 01 01 42 00");
}

TEST_F(HostilePeer, ARefusedStartTlsWithAReferralLeavesNothingAllocated)
{
    for (size_t url_len : {21u, 300u, 60000u}) {
        SCOPED_TRACE(url_len);
        fake::reset();
        fake::set_resolver(0, {fake::ipv4("192.0.2.10")});
        const std::string url = "ldap://other.example/" + std::string(url_len - 21, 'x');
        fake::peer_data(tlv(0x30, hex("02 01 01") + tlv(0x78, hex("0A 01 0A 04 00 04 00") +
                                                                  tlv(0xA3, octets(url)))));
        CMP_LDAP_CONN_PARAM p{const_cast<char *>("ldap.example"), 389, 5, 0,
                              CMP_LDAP_TLS_MOD_STARTTLS};
        CMP_LDAP *ld = nullptr;
        EXPECT_EQ(cmp_ldap_open_with_timeout(&p, &ld), CMP_LDAP_OTHER);
        EXPECT_EQ(ld, nullptr);
        EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
        EXPECT_EQ(fake::open_sockets(), 0);
    }
}

TEST_F(HostilePeer, AMillionComponentDnExplodesInLinearTime)
{
    /* Components without '=' are where the type search once ran on to the end of
     * the whole DN; the test's time-out catches a return of that. */
    const size_t n = 1u << 20;
    std::string dn;
    for (size_t i = 0; i < n; ++i)
        dn += i % 2 ? "a," : "b,";
    dn += "c=d";
    char **parts = cmp_ldap_explode_dn(dn.c_str(), 1);
    ASSERT_NE(parts, nullptr);
    size_t count = 0;
    bool same = true;
    for (; parts[count] != nullptr; ++count) {
        const char *want = count == n ? "d" : count % 2 ? "a" : "b";
        same = same && strcmp(parts[count], want) == 0;
    }
    EXPECT_EQ(count, n + 1);
    EXPECT_TRUE(same);
    cmp_ldap_value_free(parts);
}

TEST_F(HostilePeer, OutOfContractFilterRecordsWriteAndCountNothingExtra)
{
    /* Raw records given straight to the exported encoder: a match type above
     * equality and counts above the record's arrays. Whatever is not written is not
     * counted, so the buffer of exactly the computed length is filled exactly. */
    CMP_LDAP ld{};
    ld.ld_mid = 1;
    CMP_LDAP_SEARCH_FILTER f{0, 1, {{7, "cn", "abc"}, {CMP_LDAP_FILTER_COND_EQUAL, "sn", "x"}}};
    CMP_LDAP_SEARCH_FILTER_PRESENT fp{0, 0, {"mail"}};
    char *attrs[] = {nullptr};
    /* the filter and presence counts, and the filter element written */
    const std::tuple<uint8_t, uint8_t, const char *> cases[] = {
        /* the match type 7 item is skipped, the equality item written */
        {2, 0, "A1 09 A3 07 04 02 73 6E 04 01 78"},
        /* 200 items claimed: only the two the record holds are looked at */
        {200, 0, "A1 09 A3 07 04 02 73 6E 04 01 78"},
        {1, 0, "A1 00"},
        /* a presence count of 255 reads the three attributes the record has (two empty) */
        {0, 255, "A0 0A 87 04 6D 61 69 6C 87 00 87 00"},
    };
    for (const auto &[filter_count, present_count, filter_element] : cases) {
        SCOPED_TRACE(filter_element);
        f.cmp_ldap_filter_count = filter_count;
        fp.cmp_ldap_filter_count = present_count;
        const CMP_LDAP_SEARCH_FILTER *filter = filter_count ? &f : nullptr;
        const CMP_LDAP_SEARCH_FILTER_PRESENT *present = present_count ? &fp : nullptr;
        const uint32_t len =
            cmp_ldap_get_search_request_message_length(&ld, "o=x", filter, present, attrs);
        ASSERT_GT(len, 0u);
        /* a guard octet after the computed length must stay untouched */
        Bytes buf(len + 1, 0xEE);
        cmp_ldap_ber_encode_search_request(&ld, "o=x", 0, filter, present, attrs, 0, buf.data());
        EXPECT_EQ(buf[len], 0xEE);
        const Bytes head = hex("04 03 6F 3D 78 0A 01 00 0A 01 00 02 01 00 02 01 00 01 01 00");
        const Bytes want = cat({hex("30"), Bytes{uint8_t(len - 2)}, hex("02 01 01 63"),
                                Bytes{uint8_t(len - 7)}, head, hex(filter_element), hex("30 00")});
        EXPECT_EQ(to_hex(Bytes(buf.begin(), buf.begin() + len)), to_hex(want));
    }
}
