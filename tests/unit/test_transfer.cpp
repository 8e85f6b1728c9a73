/* Whole-PDU send and read over the plain socket and the TLS connection. */
#include "cmp_ldap_internal.h"
#include "support.h"

using support::Bytes;
using support::FakePortTest;
using support::hex;
using Lines = std::vector<std::string>;

namespace {
int g_tls_conn; /* any non-NULL connection selects the TLS path */
constexpr int32_t kUntouched = 77;
}  // namespace

class Transfer : public FakePortTest {
  protected:
    CMP_LDAP ld{};
    CMP_LDAP_MESSAGE *msg = nullptr;
    void SetUp() override
    {
        FakePortTest::SetUp();
        fresh(false);
    }
    void fresh(bool tls)
    {
        fake::reset();
        ld = CMP_LDAP{};
        ld.ld_sockfd = 5;
        ld.ld_sock_timeout = 3000;
        ld.ld_errno = kUntouched;
        ld.ld_ssl_conn = tls ? &g_tls_conn : nullptr;
    }
    int read() { return cmp_ldap_read_berdata(&ld, 1234, &msg); }
    Bytes pdu_of(const CMP_LDAP_MESSAGE *m)
    {
        const unsigned char *p = cmp_ldap_pdu(m);
        return Bytes(p, p + m->cmp_ldap_total_size);
    }
};

TEST_F(Transfer, OneChunkAndBytewiseGiveTheSameMessage)
{
    Bytes content(200, 0x41);
    Bytes long_form = hex("30 81 C8");
    long_form.insert(long_form.end(), content.begin(), content.end());
    const Bytes pdus[] = {hex("30 0C 02 01 01 61 07 0A 01 00 04 00 04 00"), hex("30 00"),
                          hex("30 84 00 00 00 03 02 01 05"), long_form};
    for (const Bytes &pdu : pdus) {
        for (bool bytewise : {false, true}) {
            SCOPED_TRACE(support::to_hex(pdu) + (bytewise ? " bytewise" : ""));
            fresh(false);
            bytewise ? fake::peer_data_bytewise(pdu) : fake::peer_data(pdu);
            ASSERT_EQ(read(), 0);
            EXPECT_EQ(msg->cmp_ldap_total_size, (int32_t)pdu.size());
            EXPECT_EQ(pdu_of(msg), pdu);
            EXPECT_EQ(fake::alloc_sizes(), std::vector<uint32_t>{(uint32_t)pdu.size() + 400});
            for (long t : fake::recv_timeouts())
                EXPECT_EQ(t, 1234);
            EXPECT_EQ(ld.ld_errno, kUntouched);
            support::free_block(msg);
        }
    }
    /* The indefinite form counts as an empty content and the PDU ends with its header. */
    fresh(false);
    fake::peer_data(hex("30 80 02 01 05"));
    ASSERT_EQ(read(), 0);
    EXPECT_EQ(pdu_of(msg), hex("30 80"));
    support::free_block(msg);
}

TEST_F(Transfer, RefusedHeadersAndEarlyCloses)
{
    struct Case {
        const char *peer; /* then the peer closes */
        int32_t err;
        std::vector<uint32_t> allocs;
        Lines log;
    } cases[] = {
        {"", CMP_LDAP_PROTOCOL_ERROR, {}, {}},
        {"30", kUntouched, {}, {}},
        {"30 85 00 00 00 00 01",
         kUntouched,
         {},
         {"cmp_ldap_determine_record_size(): Length-field is over 32bit.fieldLen=0x05.\n"}},
        {"30 84 00 00",
         CMP_LDAP_PROTOCOL_ERROR,
         {},
         {"cmp_ldap_determine_record_size(): read illegal data. fieldLen=4,restLen=2.\n"}},
        {"30 05 02 01",
         CMP_LDAP_PROTOCOL_ERROR,
         {407},
         {"cmp_ldap_read_berdata(): read illegal data. length=5,restLen=3.\n"}},
        /* hostile lengths: nothing that wraps 32 bits or an int32 position is allocated */
        {"30 84 FF FF FF FF", kUntouched, {}, {}},
        {"30 84 FF FF FF FE",
         CMP_LDAP_NO_MEMORY,
         {},
         {"cmp_ldap_read_berdata(): Failed to allocate(4294967700 btyes).\n"}},
        {"30 84 7F FF FF FA",
         CMP_LDAP_NO_MEMORY,
         {},
         {"cmp_ldap_read_berdata(): Failed to allocate(2147484048 btyes).\n"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.peer);
        fresh(false);
        if (*c.peer != '\0') fake::peer_data(hex(c.peer));
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(msg, nullptr);
        EXPECT_EQ(ld.ld_errno, c.err);
        EXPECT_EQ(fake::alloc_sizes(), c.allocs);
        EXPECT_EQ(lines(), c.log);
    }
}

TEST_F(Transfer, LargestPositionableLengthIsStillAllocated)
{
    /* header 6 + content 0x7FFFFFF9 is exactly INT32_MAX: the allocator is asked (and fails). */
    fake::peer_data(hex("30 84 7F FF FF F9"));
    fake::arm_alloc_failure(1);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(ld.ld_errno, CMP_LDAP_NO_MEMORY);
    EXPECT_EQ(fake::alloc_sizes(), std::vector<uint32_t>{0x7FFFFFFFu + 400});
}

TEST_F(Transfer, ReceiveTimeoutsAndErrorsOnBothPaths)
{
    struct Case {
        bool tls;
        bool timeout;
        int32_t error;
        int32_t err;
        const char *line;
        int32_t rc;
    } cases[] = {
        {false, true, 0, CMP_LDAP_TIMEOUT,
         "cmp_ldap_recv_data(): cmp_netsock_recv_timeo() error.sizeRead=[-2]\n", -2},
        {false, false, -1, CMP_LDAP_PROTOCOL_ERROR,
         "cmp_ldap_recv_data(): cmp_netsock_recv_timeo() error.sizeRead=[-1]\n", -1},
        {true, true, 0, CMP_LDAP_TIMEOUT,
         "cmp_ldap_recv_data(): osl_scr_ssl_wrp_read_timeo() error.ret=[72010006]\n", 0x72010006},
        {true, false, 0x72010005, CMP_LDAP_TLS_IO_ERROR,
         "cmp_ldap_recv_data(): osl_scr_ssl_wrp_read_timeo() error.ret=[72010005]\n", 0x72010005},
    };
    /* before the tag, inside the length octets, inside the content */
    for (const char *before : {"", "30 82 01", "30 05 02"}) {
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(before) + (c.tls ? " tls " : " plain ") + c.line);
            fresh(c.tls);
            if (*before != '\0') fake::peer_data(hex(before));
            c.timeout ? fake::peer_timeout() : fake::peer_error(c.error);
            EXPECT_EQ(read(), -1);
            EXPECT_EQ(msg, nullptr);
            EXPECT_EQ(ld.ld_errno, c.err);
            ASSERT_EQ(lines(), Lines{c.line});
            EXPECT_EQ(fake::log()[0].rc, c.rc);
            EXPECT_EQ(fake::live_blocks(), 0);
        }
    }
}

TEST_F(Transfer, SendsWholeOrFails)
{
    const Bytes pdu = hex("30 05 02 01 01 42 00");
    struct Case {
        bool tls;
        std::vector<int32_t> sends;
        std::vector<uint32_t> tls_writes;
        int result;
        int32_t err;
        Lines log;
    } cases[] = {
        {false, {}, {}, 7, kUntouched, {}},
        {true, {}, {}, 7, kUntouched, {}},
        {false, {3}, {}, -1, CMP_LDAP_SERVER_DOWN, {}},
        {true, {3}, {}, -1, CMP_LDAP_SERVER_DOWN, {}},
        {false,
         {-2},
         {},
         -1,
         CMP_LDAP_TIMEOUT,
         {"cmp_ldap_send_data(): cmp_netsock_send_timeo() error.sizeWritten=[-2]\n"}},
        {false,
         {-1},
         {},
         -1,
         CMP_LDAP_SERVER_DOWN,
         {"cmp_ldap_send_data(): cmp_netsock_send_timeo() error.sizeWritten=[-1]\n"}},
        {true,
         {},
         {0x72010006},
         -1,
         CMP_LDAP_TIMEOUT,
         {"cmp_ldap_send_data(): osl_scr_ssl_wrp_write_timeo() error.ret=[72010006]\n"}},
        {true,
         {},
         {0x72010005},
         -1,
         CMP_LDAP_TLS_IO_ERROR,
         {"cmp_ldap_send_data(): osl_scr_ssl_wrp_write_timeo() error.ret=[72010005]\n"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << (c.tls ? "tls " : "plain ") << c.result << " " << c.err);
        fresh(c.tls);
        fake::script_send(c.sends);
        fake::TlsScript tls;
        tls.write = c.tls_writes;
        fake::set_tls(tls);
        CMP_LDAP_SEND_BUF buf{pdu.data(), (uint32_t)pdu.size()};
        EXPECT_EQ(cmp_ldap_send_berdata(&ld, &buf), c.result);
        EXPECT_EQ(ld.ld_errno, c.err);
        EXPECT_EQ(lines(), c.log);
        /* what the transport took: all, the short part, or nothing */
        size_t taken = c.result == 7 ? 7 : (!c.sends.empty() && c.sends[0] > 0 ? 3 : 0);
        EXPECT_EQ(fake::sent(), Bytes(pdu.begin(), pdu.begin() + taken));
        EXPECT_EQ(fake::send_timeouts().size(), c.tls_writes.empty() ? 1u : 0u);
        for (long t : fake::send_timeouts())
            EXPECT_EQ(t, 3000);
    }
}

TEST_F(Transfer, EveryAllocationFailingLeaksNothing)
{
    long n = support::sweep_alloc_failures([&](long k) {
        fresh(false);
        fake::peer_data(hex("30 0C 02 01 01 61 07 0A 01 00 04 00 04 00"));
        fake::arm_alloc_failure(k);
        int rc = read();
        if (k == 0) {
            EXPECT_EQ(rc, 0);
            support::free_block(msg);
            return;
        }
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(msg, nullptr);
        EXPECT_EQ(ld.ld_errno, CMP_LDAP_NO_MEMORY);
        EXPECT_EQ(lines(), Lines{"cmp_ldap_read_berdata(): Failed to allocate(414 btyes).\n"});
    });
    EXPECT_EQ(n, 1);
}
