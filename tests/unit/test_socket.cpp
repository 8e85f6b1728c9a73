/* Connect, whole-PDU send and read on both paths, TLS start and end. */
#include "cmp_ldap_internal.h"
#include "support.h"

using namespace support;
constexpr int32_t kSame = 77; /* an ld_errno nothing here sets */
static const fake::Resolved v4a = fake::ipv4("192.0.2.1"), v4b = fake::ipv4("192.0.2.2"),
                            g6 = fake::ipv6("2001:db8::1"), ll = fake::ipv6("fe80::1");

class Socket : public FakePortTest {
  protected:
    CMP_LDAP ld{};
    CMP_LDAP_MESSAGE *msg = nullptr;
    void fresh(bool tls = false)
    {
        fake::reset();
        ld = CMP_LDAP{};
        ld.ld_sockfd = 9;
        ld.ld_sock_timeout = 7000;
        ld.ld_errno = kSame;
        if (!tls) return;
        OSL_SCR_SSL_WRP_SETTINGS settings{};
        ASSERT_EQ(osl_scr_ssl_wrp_init(&ld.ld_ssl_ctx), 0u);
        ASSERT_EQ(osl_scr_ssl_wrp_connect_timeo(ld.ld_ssl_ctx, &settings, &ld.ld_ssl_conn), 0u);
        fake::clear_log();
    }
    int connect() { return cmp_ldap_connect(&ld, "ldap.example", 389, 5000, 0, 0); }
    int read() { return cmp_ldap_read_berdata(&ld, 1234, &msg); }
    void expect_no_tls()
    {
        EXPECT_EQ(ld.ld_ssl_ctx, nullptr);
        EXPECT_EQ(ld.ld_ssl_conn, nullptr);
        EXPECT_EQ(fake::live_tls_contexts(), 0);
    }
};

TEST_F(Socket, ConnectTriesIpv4ThenGlobalThenLinkLocalWhateverTheResolverOrder)
{
    /* fe80::/10 covers febf:: but not fec0::. Records that do not hold their family's
     * address (none, too short, longer than the 128-octet area) are never tried. */
    fake::Resolved none = v4a, short4 = v4b, short6 = g6, long6 = g6, wide6 = fake::ipv6("::2");
    none.null_addr = true;
    short4.addrlen = 15;
    short6.addrlen = 27;
    long6.addrlen = 129;
    wide6.addrlen = 128;
    const fake::Resolved in[] = {ll,     g6,     {AF_UNIX, {1, 2}},     v4a,  fake::ipv6("febf::1"),
                                 short4, short6, fake::ipv6("fec0::1"), none, v4b,
                                 long6,  wide6,  {AF_UNIX, {1}, 200}};
    const size_t order[] = {3, 9, 1, 7, 11, 0, 4};
    const uint32_t length[] = {16, 16, 28, 28, 128, 28, 28};
    const int codes[] = {-1, -3, -4, -5, -6, -7, 0};
    fake::set_resolver(0, {std::begin(in), std::end(in)});
    fake::script_connect({std::begin(codes), std::end(codes)});
    ASSERT_EQ(connect(), 0);
    const auto &a = fake::connect_attempts();
    const auto sockets = fake::socket_calls();
    ASSERT_EQ(a.size(), 7u);
    ASSERT_EQ(sockets.size(), 7u);
    for (size_t i = 0; i < a.size(); ++i) { /* the scope is set for link-local ones only */
        EXPECT_EQ(std::tie(a[i].addr, a[i].port, a[i].timeout, a[i].addrlen, a[i].scope_id),
                  std::make_tuple(in[order[i]].addr, 389, 5000L, length[i], i >= 5 ? 7u : 0u));
        /* a stream socket of the candidate's family, protocol 0 */
        EXPECT_EQ(std::tie(sockets[i].family, sockets[i].type, sockets[i].protocol),
                  std::make_tuple(in[order[i]].family, SOCK_STREAM, 0));
    }
    Log failed; /* one line per failed attempt: the port's code and the address length */
    for (size_t i = 0; i + 1 < a.size(); ++i)
        failed.push_back(
            err(codes[i], "cmp_ldap_connect(): Connection failed (rc=" + std::to_string(codes[i]) +
                              ",len=" + std::to_string(length[i]) + ")\n"));
    EXPECT_EQ(fake::log(), failed);
    EXPECT_EQ(ld.ld_sockfd, a[6].sockfd);
    EXPECT_EQ(cmp_ldap_close_socket(ld.ld_sockfd), 0);
    /* one resolver call: the name, no service, hints for TCP over any family */
    const auto asked = fake::resolver_calls();
    ASSERT_EQ(asked.size(), 1u);
    const fake::ResolverCall &r = asked[0];
    EXPECT_EQ(std::tie(r.node, r.service, r.flags, r.family, r.socktype, r.protocol),
              std::make_tuple("ldap.example", "(null)", 0, AF_UNSPEC, SOCK_STREAM, IPPROTO_TCP));
}

TEST_F(Socket, ConnectFailures)
{
    /* no entries: the resolver fails; socket, scope: 0 is the default; a further connect works.
     * The last attempt decides 279 or 260; no socket or no scope stops at once. */
    fake::Resolved none = v4a, short6 = g6;
    none.null_addr = true;
    short6.addrlen = 27;
    /* last: the last line and the code it reports */
    using R =
        std::tuple<std::vector<fake::Resolved>, int, int, std::vector<int>, int, int, std::string>;
    const R cases[] = {
        {{}, 0, 0, {}, 277, -3, "Failed to cmp_netsock_getaddrinfo() (rc=-3)."},
        {{{AF_UNIX, {1}}, none, short6}, 0, 0, {}, 277, -1, "ipaddr illegal."},
        {{v4a, v4b}, 0, 0, {-2, -9}, 279, -9, "Connection failed (rc=-9,len=16)"},
        {{v4a, v4b}, 0, 0, {-9, -2}, 260, -2, "Connection failed (rc=-2,len=16)"},
        {{v4a, v4b}, -6, 0, {}, 278, -6, "Failed to create socket endpoint (rc=-6,ai_family=2)."},
        {{ll, v4a, ll}, 0, -5, {1}, 80, -5, "cmp_netsock_set_scope error (rc=-5)."},
    };
    for (const auto &[entries, socket, scope, connects, result, rc, last] : cases) {
        SCOPED_TRACE(last);
        fresh();
        fake::set_resolver(entries.empty() ? -3 : 0, entries);
        if (socket != 0) fake::script_socket({socket});
        fake::script_set_scope({scope});
        fake::script_connect(connects);
        EXPECT_EQ(connect(), result);
        EXPECT_EQ(fake::connect_attempts().size(), connects.size());
        EXPECT_EQ(fake::log().back(), err(rc, "cmp_ldap_connect(): " + last + "\n"));
        EXPECT_EQ(fake::open_sockets(), 0);
        EXPECT_EQ(fake::live_addrinfo(), 0);
        EXPECT_EQ(ld.ld_sockfd, result == 277 ? 9 : 0); /* no descriptor left behind */
    }
}

TEST_F(Socket, EveryAllocationOfConnectAndReadFailingLeaksNothing)
{
    const Log node = {err(-1, "cmp_ldap_add_addrinfo(): Failed to allocate(" +
                                  std::to_string(sizeof(CMP_LDAP_ADDR_NODE)) + " btyes).\n")};
    long n = sweep_alloc_failures([&](long k) {
        fresh();
        fake::set_resolver(0, {g6, v4a, ll}); /* allocations 1-3: candidates, 4: the message */
        fake::peer_data(hex("30 0C 02 01 01 61 07 0A 01 00 04 00 04 00"));
        fake::arm_alloc_failure(k);
        const int rc = connect();
        EXPECT_EQ(rc, k == 0 || k == 4 ? 0 : 265);
        EXPECT_EQ(fake::live_addrinfo(), 0);
        EXPECT_EQ(fake::log(), rc == 0 ? Log{} : node);
        if (rc != 0) return;
        EXPECT_EQ(read(), k == 0 ? 0 : -1);
        if (k == 0) return free_block(msg);
        EXPECT_EQ(ld.ld_errno, 265);
        EXPECT_EQ(fake::log(),
                  Log{err(-1, "cmp_ldap_read_berdata(): Failed to allocate(414 btyes).\n")});
    });
    EXPECT_EQ(n, 4);
}

TEST_F(Socket, ReadWholePdusInOneChunkOrByteByByte)
{
    const std::string size = "cmp_ldap_determine_record_size(): ", rd = "cmp_ldap_read_berdata(): ",
                      plain = "cmp_ldap_recv_data(): cmp_netsock_recv_timeo() error.sizeRead=",
                      tls = "cmp_ldap_recv_data(): osl_scr_ssl_wrp_read_timeo() error.ret=";
    auto no_memory = [&](const std::string &n) {
        return Log{err(-1, rd + "Failed to allocate(" + n + " btyes).\n")};
    };
    /* then: the peer closes (0), times out (-2; TLS 0x72010006) or fails; length: the PDU's */
    const std::tuple<std::string, int32_t, int, int32_t, uint32_t, Log> cases[] = {
        {"30 00", 0, 0, kSame, 2, {}},
        {"30 84 00000003 02 01 05", 0, 0, kSame, 9, {}},
        {"30 80 02 01 05", 0, 0, kSame, 2, {}}, /* 0x80 reads as no content; deliberate */
        {"", 0, -1, 2, 0, {}},
        {"30", 0, -1, kSame, 0, {}},
        {"30 85", 0, -1, kSame, 0, {err(-1, size + "Length-field is over 32bit.fieldLen=0x05.\n")}},
        {"3084 0000", 0, -1, 2, 0, {err(-1, size + "read illegal data. fieldLen=4,restLen=2.\n")}},
        {"30 05 02 01", 0, -1, 2, 7, {err(-1, rd + "read illegal data. length=5,restLen=3.\n")}},
        /* hostile lengths: nothing wrapping 32 bits or past INT32_MAX (6 + 0x7FFFFFF9) is asked */
        {"3084 FFFFFFFF", 0, -1, kSame, 0, {}}, /* 0xFFFFFFFF: refused, no code */
        {"3084 FFFFFFFE", 0, -1, 265, 0, no_memory("4294967700")},
        {"3084 7FFFFFFA", 0, -1, 265, 0, no_memory("2147484048")},
        {"3084 7FFFFFF9", 0, -1, 265, INT32_MAX, no_memory("2147484047")},
        {"", -2, -1, 260, 0, {err(-2, plain + "[-2]\n")}},
        {"30 82 01", -5, -1, 2, 0, {err(-5, plain + "[-5]\n")}},
        {"", 0x72010005, -1, 272, 0, {err(0x72010005, tls + "[72010005]\n")}},
        {"30 05 02", 0x72010006, -1, 260, 7, {err(0x72010006, tls + "[72010006]\n")}},
    };
    for (const auto &[peer, ev, result, err, length, log_lines] : cases) {
        for (bool bytewise : {false, true}) {
            SCOPED_TRACE(::testing::Message() << peer << " then " << ev << " " << bytewise);
            fresh(ev > 0);
            if (!peer.empty()) (bytewise ? fake::peer_data_bytewise : fake::peer_data)(hex(peer));
            if (ev) ev == -2 || ev == 0x72010006 ? fake::peer_timeout() : fake::peer_error(ev);
            fake::arm_alloc_failure(length > 0xFFFF ? 1 : 0); /* never really ask for 2 GiB */
            EXPECT_EQ(read(), result);
            EXPECT_EQ(ld.ld_errno, err);
            EXPECT_EQ(fake::alloc_sizes(), std::vector<uint32_t>(length ? 1 : 0, length + 400));
            EXPECT_EQ(fake::log(), log_lines);
            EXPECT_EQ(fake::recv_timeouts(), std::vector<long>(fake::recv_timeouts().size(), 1234));
            EXPECT_EQ(fake::recv_flags(),
                      std::vector<int>(ev > 0 ? 0 : fake::recv_timeouts().size(), 0));
            EXPECT_EQ(fake::live_blocks(), result == 0 ? 1 : 0);
            /* Once a PDU has begun, a failure takes the connection down for good. */
            const bool cut = result != 0 && !peer.empty();
            EXPECT_EQ(ld.ld_sockfd, cut ? CMP_LDAP_DROPPED_SOCKET : 9);
            EXPECT_EQ(fake::closed_sockets(), std::vector<int32_t>(cut ? 1 : 0, 9));
            EXPECT_EQ(ld.ld_ssl_conn == nullptr, cut || ev <= 0);
            if (ld.ld_ssl_conn != nullptr) cmp_ldap_tls_end(&ld);
            if (cut) { /* later transfers fail at once, each in its own name */
                fake::clear_log();
                unsigned char octet = 0;
                CMP_LDAP_SEND_BUF one{&octet, 1};
                EXPECT_EQ(cmp_ldap_recv_data(&ld, &octet, 1, 5), -1);
                EXPECT_EQ(cmp_ldap_send_berdata(&ld, &one), -1);
                EXPECT_EQ(ld.ld_errno, CMP_LDAP_SERVER_DOWN);
                const std::string dropped = "(): connection was dropped after a cut response.\n";
                EXPECT_EQ(fake::log(), (Log{support::err(256, "cmp_ldap_recv_data" + dropped),
                                            support::err(256, "cmp_ldap_send_data" + dropped)}));
            }
            if (msg == nullptr) continue;
            ASSERT_EQ(msg->cmp_ldap_total_size, (int32_t)length);
            EXPECT_EQ(memcmp(cmp_ldap_pdu(msg), hex(peer).data(), length), 0);
            free_block(msg);
        }
    }
    /* An empty chunk is one receive of 0 octets: a close before the tag, which leaves the
     * connection up, so the next read gets what follows. */
    fresh();
    fake::peer_data({});
    fake::peer_data(hex("30 00"));
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(ld.ld_errno, 2);
    EXPECT_EQ(read(), 0);
    free_block(msg);
    for (bool tls : {false, true}) { /* one receive gives -1 on a time-out, on either path */
        fresh(tls);
        fake::peer_timeout();
        unsigned char octet = 0;
        EXPECT_EQ(cmp_ldap_recv_data(&ld, &octet, 1, 5), -1);
        EXPECT_EQ(ld.ld_errno, CMP_LDAP_TIMEOUT);
        cmp_ldap_tls_end(&ld);
    }
}

TEST_F(Socket, SendsWholeOrFails)
{
    const Bytes pdu = hex("30 05 02 01 01 42 00");
    const std::string plain = "cmp_ldap_send_data(): cmp_netsock_send_timeo() error.sizeWritten=",
                      tls = "cmp_ldap_send_data(): osl_scr_ssl_wrp_write_timeo() error.ret=";
    /* send: what the transport takes, or its negative result; write: the TLS write's error */
    const std::tuple<bool, int32_t, uint32_t, int, int32_t, Log> cases[] = {
        {false, 7, 0, 7, kSame, {}},
        {true, 7, 0, 7, kSame, {}},
        {false, 3, 0, -1, 256, {}}, /* a short write is not resumed */
        {true, 3, 0, -1, 256, {}},
        {false, 0, 0, -1, 256, {}}, /* nothing taken: a short write too */
        {true, 0, 0, -1, 256, {}},
        {true, -2, 0, -2, kSame, {}}, /* a TLS negative count goes back as is; deliberate */
        {false, -2, 0, -1, 260, {err(-2, plain + "[-2]\n")}},
        {false, -5, 0, -1, 256, {err(-5, plain + "[-5]\n")}},
        {true, 7, 0x72010006, -1, 260, {err(0x72010006, tls + "[72010006]\n")}},
        {true, 7, 0x72010005, -1, 272, {err(0x72010005, tls + "[72010005]\n")}},
    };
    for (const auto &[over_tls, send, write, result, err, log_lines] : cases) {
        SCOPED_TRACE(::testing::Message() << over_tls << " " << send << " " << write);
        fresh(over_tls);
        fake::script_send({send});
        fake::set_tls({0, 0, 0, 0, 0, {write}});
        CMP_LDAP_SEND_BUF buf{pdu.data(), (uint32_t)pdu.size()};
        EXPECT_EQ(cmp_ldap_send_berdata(&ld, &buf), result);
        EXPECT_EQ(ld.ld_errno, err);
        EXPECT_EQ(fake::log(), log_lines);
        EXPECT_EQ(fake::sent(), Bytes(pdu.begin(), pdu.begin() + (write || send < 0 ? 0 : send)));
        EXPECT_EQ(fake::send_timeouts(), std::vector<long>(fake::send_timeouts().size(), 7000));
        EXPECT_EQ(fake::send_flags(), std::vector<int>(over_tls ? 0 : 1, 0));
        if (over_tls) cmp_ldap_tls_end(&ld);
    }
}

TEST_F(Socket, TlsStartAndEnd)
{
    CMP_LDAP_CONN_PARAM param{};
    param.ssl_version = 0x11;
    param.ssl_hash = 0x22;
    param.ssl_encrpt = 0x33;
    param.ssl_accepted_signature_algorithm = 0x44;
    const Log down = {
        err(0x72010005, "cmp_ldap_tls_end():osl_scr_ssl_wrp_shutdown() error.ret=[72010005].\n"),
        err(0x720100ff, "cmp_ldap_tls_end():osl_scr_ssl_wrp_term() error.ret=[720100ff].\n")};
    using Calls = std::vector<std::string>;
    for (uint8_t auth : {0, 1, 2, 3}) {
        SCOPED_TRACE((int)auth);
        fresh();
        param.ssl_auth = auth;
        EXPECT_EQ(cmp_ldap_tls_end(&ld), 0); /* without TLS: does nothing */
        ASSERT_EQ(cmp_ldap_tls_start(&ld, &param), 0);
        /* socket 9, time-out 7000, verify flag only for ssl_auth 1, the four masks, zeros */
        const auto *s = reinterpret_cast<const uint8_t *>(&fake::last_tls_settings());
        EXPECT_EQ(Bytes(s, s + 16), hex(auth == 1 ? "09000000 581B0000 01 11223344 000000"
                                                  : "09000000 581B0000 00 11223344 000000"));
        if (auth == 3) fake::set_tls({0, 0, 0, 0x72010005, 0x720100ff, {}}); /* logged, ignored */
        EXPECT_EQ(cmp_ldap_tls_end(&ld), 0);
        expect_no_tls();
        EXPECT_EQ(cmp_ldap_tls_end(&ld), 0); /* the second end does nothing */
        const Calls calls = auth == 2 ? Calls{"init", "set_verify", "connect", "shutdown", "term"}
                                      : Calls{"init", "connect", "shutdown", "term"};
        EXPECT_EQ(fake::tls_calls(), calls);
        EXPECT_EQ(fake::log(), auth == 3 ? down : Log{});
        EXPECT_TRUE(fake::closed_sockets().empty()); /* the socket is the caller's */
    }

    /* wrapper code as logged, then ld_errno when init, set_verify or the handshake returns it */
    const std::tuple<std::string, int32_t, int32_t, int32_t> rows[] = {
        {"72010002", 275, 275, 269}, {"72010003", 275, 275, 270}, {"72010004", 275, 275, 271},
        {"72010005", 275, 275, 272}, {"72010006", 275, 275, 260}, {"72010007", 267, 275, 275},
        {"72010008", 266, 275, 275}, {"7201000a", 273, 275, 275}, {"7201000b", 275, 275, 272},
        {"7201001d", 275, 275, 274}, {"72010009", 275, 268, 275}, {"720100ff", 275, 275, 275},
    };
    const std::string fn[] = {"init", "setverify", "connect_timeo"}; /* "setverify": as always */
    param.ssl_auth = 2;
    for (const auto &[text, init, verify, handshake] : rows) {
        for (int stage = 0; stage < 3; ++stage) {
            SCOPED_TRACE(text + " " + fn[stage]);
            fresh();
            uint32_t code[3] = {};
            code[stage] = std::stoul(text, nullptr, 16);
            fake::set_tls({code[0], code[1], code[2], 0, 0, {}});
            EXPECT_EQ(cmp_ldap_tls_start(&ld, &param), -1);
            EXPECT_EQ(ld.ld_errno, stage == 0 ? init : stage == 1 ? verify : handshake);
            EXPECT_EQ(fake::log(), Log{err((int32_t)code[stage],
                                           "cmp_ldap_tls_start(): osl_scr_ssl_wrp_" + fn[stage] +
                                               "() error.ret=[" + text + "]\n")});
            expect_no_tls(); /* no context left */
        }
    }
}
