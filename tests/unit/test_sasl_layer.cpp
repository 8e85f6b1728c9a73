/* The SASL security layer a caller opts into: what the bind asks for and keeps, the
 * wrapped requests, the wrapped responses under the PDU reader (chunk boundaries,
 * hostile and cut buffers, failures of the SASL library) and the end at unbind. The
 * fake SASL library's layer is a 4-octet length and every octet XOR kLayerMask. */
#include <algorithm>
#include <utility>

#include "cmp_ldap_sasl_internal.h"
#include "fake_sasl.h"
#include "support.h"

using support::Bytes;
using support::cat;
using support::hex;
using support::tlv;
using Lines = std::vector<std::string>;

namespace {

constexpr int32_t kSock = 7;

Bytes wrap(const Bytes &plain)
{
    const uint32_t n = (uint32_t)plain.size();
    Bytes out = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
    for (uint8_t b : plain)
        out.push_back(uint8_t(b ^ fake_sasl::kLayerMask));
    return out;
}
Bytes slice(const Bytes &b, size_t from, size_t to)
{
    return Bytes(b.begin() + (long)from, b.begin() + (long)to);
}
/* A BindResponse of the default exchange: code, then serverSaslCreds. */
Bytes bind_response(uint8_t id, uint8_t code, const std::string &creds)
{
    Bytes result = cat(
        {hex("0A 01"), {code}, hex("04 00 04 00"), tlv(0x87, Bytes(creds.begin(), creds.end()))});
    return tlv(0x30, cat({tlv(0x02, {id}), tlv(0x61, result)}));
}
/* The SASL BindRequest of the default exchange's step with this id and credentials. */
Bytes bind_request(uint8_t id, const std::string &cred)
{
    Bytes sasl = tlv(0x04, Bytes{'G', 'S', 'S', 'A', 'P', 'I'});
    if (!cred.empty()) sasl = cat({sasl, tlv(0x04, Bytes(cred.begin(), cred.end()))});
    return tlv(0x30,
               cat({tlv(0x02, {id}), tlv(0x60, cat({hex("02 01 03 04 00"), tlv(0xA3, sasl)}))}));
}
/* A SearchResultDone for id 5: the PDU the reads below expect. */
const Bytes kDone = hex("30 0C 02 01 05 65 07 0A 01 00 04 00 04 00");
const std::string kCache = [] {
    std::string path = ::testing::TempDir() + "toveistror-layer-ccache";
    FILE *f = fopen(path.c_str(), "w");
    if (f != nullptr) fclose(f);
    return path;
}();

class Layer : public support::FakePortTest {
  protected:
    void SetUp() override
    {
        FakePortTest::SetUp();
        start(layered());
    }
    void TearDown() override
    {
        end();
        FakePortTest::TearDown();
    }
    static fake_sasl::Script layered()
    {
        fake_sasl::Script s;
        s.ssf = 56;
        s.maxoutbuf = 10;
        return s;
    }
    /* A session whose opted-in GSSAPI bind is over: its result, and the log cleared. */
    int start(const fake_sasl::Script &script, bool bind = true)
    {
        fake_sasl::reset(script);
        cmp_ldap_sasl_forget_mutex();
        cmp_ldap_cyrus_forget_init();
        ld_ = cmp_ldap_allocate_ldap_handler();
        ld_->ld_sockfd = kSock;
        ld_->ld_sock_timeout = 5000;
        EXPECT_EQ(cmp_ldap_set_sasl_ssf(ld_, 0, 256), 0);
        int rc = bind ? bind_default() : 0;
        sent_before_ = fake::sent().size();
        fake::clear_log();
        return rc;
    }
    /* The default exchange of three steps, the server's answers unwrapped. */
    int bind_default()
    {
        fake::peer_data(cat(
            {bind_response(1, 14, "srv1"), bind_response(2, 14, "srv2"), bind_response(3, 0, "")}));
        return cmp_ldap_sasl_interactive_bind_s(ld_, "u", "D", kCache.c_str());
    }
    /* Unbind ends the layer with the session (a second time when its own allocation
     * was the one made to fail). */
    void end()
    {
        if (ld_ == nullptr) return;
        if (cmp_ldap_unbind(ld_) == CMP_LDAP_NO_MEMORY) {
            fake::arm_alloc_failure(0);
            (void)cmp_ldap_unbind(ld_);
        }
        ld_ = nullptr;
        EXPECT_EQ(fake_sasl::live_connections(), 0);
    }
    Bytes sent_since() const { return slice(fake::sent(), sent_before_, fake::sent().size()); }
    static Lines errors()
    {
        Lines out;
        for (const fake::LogLine &l : fake::log())
            if (l.level == 0) out.push_back(support::whole(l));
        return out;
    }
    static std::string e(int32_t rc, const std::string &text)
    {
        return support::whole(support::err(rc, text));
    }
    static std::string pointer(const void *p)
    {
        char text[32];
        snprintf(text, sizeof text, "%p", p);
        return text;
    }
    CMP_LDAP *ld_ = nullptr;
    size_t sent_before_ = 0;
};

TEST_F(Layer, BindAsksForTheCallersStrengthAndKeepsTheLayer)
{
    EXPECT_EQ(fake_sasl::seen().secprops.min_ssf, 0u);
    EXPECT_EQ(fake_sasl::seen().secprops.max_ssf, 256u);
    EXPECT_EQ(fake_sasl::seen().secprops.maxbufsize, 65536u);
    EXPECT_EQ(ld_->cmp_ldap_ld_sasl_authctx, nullptr);
    EXPECT_EQ(fake_sasl::live_connections(), 1);
    ASSERT_NE(cmp_ldap_sasl_layer_on(ld_), nullptr);

    /* Negotiating no layer leaves the session unwrapped and keeps no context. */
    end();
    fake_sasl::Script none = layered();
    none.ssf = 0;
    EXPECT_EQ(start(none), 3);
    EXPECT_EQ(cmp_ldap_sasl_layer_on(ld_), nullptr);
    EXPECT_EQ(fake_sasl::live_connections(), 0);
}

TEST_F(Layer, ASecondBindTravelsThroughTheLayerAndReplacesIt)
{
    fake::peer_data(cat({wrap(bind_response(4, 14, "srv1")), wrap(bind_response(5, 14, "srv2")),
                         wrap(bind_response(6, 0, ""))}));
    EXPECT_EQ(cmp_ldap_sasl_interactive_bind_s(ld_, "u", "D", kCache.c_str()), 6);
    /* Each request in wrapped pieces of at most 10 plain octets, the layer's maximum. */
    Bytes want;
    for (const Bytes &pdu : {bind_request(4, "tok1"), bind_request(5, ""), bind_request(6, "tok3")})
        for (size_t at = 0; at < pdu.size(); at += 10)
            want = cat({want, wrap(slice(pdu, at, std::min(pdu.size(), at + 10)))});
    EXPECT_EQ(sent_since(), want);
    EXPECT_EQ(fake_sasl::live_connections(), 1);
    EXPECT_NE(cmp_ldap_sasl_layer_on(ld_), nullptr);
}

TEST_F(Layer, ALayerWithoutAMaximumBufferIsRefusedAndTheConnectionDropped)
{
    end();
    fake_sasl::Script script = layered();
    script.maxoutbuf = 0;
    start(script, false);
    EXPECT_EQ(bind_default(), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_SASL_ERROR);
    EXPECT_EQ(ld_->ld_sockfd, CMP_LDAP_DROPPED_SOCKET);
    EXPECT_EQ(cmp_ldap_sasl_layer_on(ld_), nullptr);
    EXPECT_EQ(fake_sasl::live_connections(), 0);
    EXPECT_TRUE(support::logged_whole(
        support::err(283, "cmp_ldap_sasl_layer_install(): no maximum output buffer (ssf=56).\n")));
}

TEST_F(Layer, SetterRefusesWhatIsNoRangeAndTheDefaultCostsNothing)
{
    EXPECT_EQ(cmp_ldap_set_sasl_ssf(nullptr, 0, 1), CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(cmp_ldap_set_sasl_ssf(ld_, 2, 1), CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(errors(), (Lines{e(264,
                                 "cmp_ldap_set_sasl_ssf(): parameter error (ld=(nil),min_ssf=0,"
                                 "max_ssf=1).\n"),
                               e(264, "cmp_ldap_set_sasl_ssf(): parameter error (ld=" +
                                          pointer(ld_) + ",min_ssf=2,max_ssf=1).\n")}));

    CMP_LDAP *fresh = cmp_ldap_allocate_ldap_handler();
    const long blocks = fake::live_blocks();
    EXPECT_EQ(cmp_ldap_set_sasl_ssf(fresh, 0, 0), 0);
    EXPECT_EQ(fake::live_blocks(), blocks);
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_set_sasl_ssf(fresh, 1, 1), CMP_LDAP_NO_MEMORY);
    EXPECT_EQ(fresh->ld_errno, CMP_LDAP_NO_MEMORY);
    EXPECT_EQ(fresh->ld_sasl_layer, nullptr);
    support::free_block(fresh);
}

TEST_F(Layer, RequestsLeaveWrappedInPiecesThePeerTakes)
{
    Bytes pdu;
    for (uint8_t i = 0; i < 25; ++i)
        pdu.push_back(i);
    CMP_LDAP_SEND_BUF sb{pdu.data(), (uint32_t)pdu.size()};
    EXPECT_EQ(cmp_ldap_send_berdata(ld_, &sb), 25);
    EXPECT_EQ(sent_since(),
              cat({wrap(slice(pdu, 0, 10)), wrap(slice(pdu, 10, 20)), wrap(slice(pdu, 20, 25))}));

    /* The second piece's write is cut short: the request fails as a short write does. */
    sent_before_ = fake::sent().size();
    fake::script_send({14, 5});
    EXPECT_EQ(cmp_ldap_send_berdata(ld_, &sb), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_SERVER_DOWN);

    end();
    fake_sasl::Script broken = layered();
    broken.encode = SASL_FAIL;
    start(broken);
    EXPECT_EQ(cmp_ldap_send_berdata(ld_, &sb), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_SASL_ERROR);
    EXPECT_EQ(errors(), Lines{e(283,
                                "cmp_ldap_sasl_layer_encode(): sasl_encode() error."
                                "saslrc=-1,errdetail=SASL(-1): generic failure: scripted.\n")});
    EXPECT_EQ(sent_since(), Bytes{});
}

struct ReadCase {
    const char *name;
    void (*peer)();
    int decode;       /* sasl_decode's outcome */
    int32_t ld_errno; /* after the read (0: success, or no code of its own) */
    std::string line; /* the one error line, whole text; "" for none */
    int32_t line_rc;
    int32_t sockfd; /* kSock, or -1 once the connection is dropped */
};

const Bytes kLargest = [] {
    Bytes pdu = hex("30 83 00 FF FB");
    pdu.resize(65536, 0x04);
    return pdu;
}();

TEST_F(Layer, ResponsesAreReadOneWrappedBufferAtATime)
{
    const ReadCase cases[] = {
        {"octet by octet", [] { fake::peer_data_bytewise(wrap(kDone)); }, SASL_OK, 0, "", 0, kSock},
        {"one PDU over two buffers",
         [] {
             fake::peer_data(cat({wrap(slice(kDone, 0, 3)), wrap(slice(kDone, 3, 14))}));
         },
         SASL_OK, 0, "", 0, kSock},
        {"the longest buffer taken", [] { fake::peer_data(wrap(kLargest)); }, SASL_OK, 0, "", 0,
         kSock},
        {"length 0", [] { fake::peer_data(hex("00 00 00 00")); }, SASL_OK, 2,
         "cmp_ldap_read_wrapped(): Illegal wrapped length.len=0,max=65536.\n", 2, -1},
        {"length over the most we take", [] { fake::peer_data(hex("00 01 00 01")); }, SASL_OK, 2,
         "cmp_ldap_read_wrapped(): Illegal wrapped length.len=65537,max=65536.\n", 2, -1},
        {"length all ones", [] { fake::peer_data(hex("FF FF FF FF")); }, SASL_OK, 2,
         "cmp_ldap_read_wrapped(): Illegal wrapped length.len=4294967295,max=65536.\n", 2, -1},
        {"length cut",
         [] {
             fake::peer_data_bytewise(hex("00 00"));
             fake::peer_data({});
         },
         SASL_OK, 2, "cmp_ldap_read_wrapped(): read illegal data. fieldLen=4,restLen=2.\n", 2, -1},
        {"buffer cut",
         [] {
             fake::peer_data(slice(wrap(kDone), 0, 15));
             fake::peer_data({});
         },
         SASL_OK, 2, "cmp_ldap_read_wrapped(): read illegal data. length=14,restLen=3.\n", 2, -1},
        {"time-out inside a buffer",
         [] {
             fake::peer_data(slice(wrap(kDone), 0, 6));
             fake::peer_timeout();
         },
         SASL_OK, 260, "cmp_ldap_recv_data(): cmp_netsock_recv_timeo() error.sizeRead=[-2]\n", -2,
         -1},
        {"time-out before a buffer", [] { fake::peer_timeout(); }, SASL_OK, 260,
         "cmp_ldap_recv_data(): cmp_netsock_recv_timeo() error.sizeRead=[-2]\n", -2, kSock},
        {"peer closes between buffers", [] { fake::peer_data({}); }, SASL_OK, 2, "", 0, kSock},
        {"garbage after unwrap", [] { fake::peer_data(wrap(hex("30 85 00 00 00 00 01"))); },
         SASL_OK, 0,
         "cmp_ldap_determine_record_size(): Length-field is over 32bit.fieldLen=0x05.\n", -1, -1},
        {"unwrap fails", [] { fake::peer_data(wrap(kDone)); }, SASL_BADMAC, 283,
         "cmp_ldap_sasl_layer_decode(): sasl_decode() error.saslrc=-9,errdetail=SASL(-1): generic "
         "failure: scripted.\n",
         283, -1},
    };
    for (const ReadCase &c : cases) {
        SCOPED_TRACE(c.name);
        end();
        fake_sasl::Script script = layered();
        script.decode = c.decode;
        ASSERT_EQ(start(script), 3);
        c.peer();
        CMP_LDAP_MESSAGE *msg = nullptr;
        const bool ok = c.ld_errno == 0 && c.line.empty();
        EXPECT_EQ(cmp_ldap_read_berdata(ld_, 5000, &msg), ok ? 0 : -1);
        EXPECT_EQ(ld_->ld_errno, c.ld_errno);
        EXPECT_EQ(ld_->ld_sockfd, c.sockfd);
        EXPECT_EQ(errors(), c.line.empty() ? Lines{} : Lines{e(c.line_rc, c.line)});
        if (ok && msg != nullptr) {
            const Bytes want = std::string(c.name) == "the longest buffer taken" ? kLargest : kDone;
            EXPECT_EQ(msg->cmp_ldap_total_size, (int32_t)want.size());
            EXPECT_EQ(Bytes(cmp_ldap_pdu(msg), cmp_ldap_pdu(msg) + want.size()), want);
        }
        support::free_block(msg);
    }
}

TEST_F(Layer, UnbindLeavesWrappedAndEndsTheLayer)
{
    EXPECT_EQ(cmp_ldap_unbind(std::exchange(ld_, nullptr)), 0);
    EXPECT_EQ(sent_since(), wrap(hex("30 05 02 01 04 42 00")));
    EXPECT_EQ(fake_sasl::live_connections(), 0);
    EXPECT_EQ(fake_sasl::calls().back(), "sasl_dispose");
}

TEST_F(Layer, EveryAllocationFailingInTurnLeavesNothing)
{
    end();
    long used = 0; /* by the bind and the read; unbind's own come after */
    long n = support::sweep_alloc_failures([&](long k) {
        start(layered(), false);
        fake::peer_data(cat({bind_response(1, 14, "srv1"), bind_response(2, 14, "srv2"),
                             bind_response(3, 0, ""), wrap(kDone)}));
        fake::arm_alloc_failure(k);
        int rc = cmp_ldap_sasl_interactive_bind_s(ld_, "u", "D", kCache.c_str());
        CMP_LDAP_MESSAGE *msg = nullptr;
        int read = rc == 3 ? cmp_ldap_read_berdata(ld_, 5000, &msg) : -1;
        if (k == 0) used = fake::allocs_since_arm();
        if (k == 0 || k > used) {
            EXPECT_EQ(rc, 3);
            EXPECT_EQ(read, 0);
        } else {
            EXPECT_EQ(read, -1) << "allocation " << k;
            EXPECT_NE(ld_->ld_errno, 0) << "allocation " << k;
        }
        support::free_block(msg);
        end();
    });
    EXPECT_GT(n, 20);
}

}  // namespace
