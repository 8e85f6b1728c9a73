/* TLS start and end over the wrapper: code mapping, verification choices and
 * the handshake settings record. */
#include "cmp_ldap_internal.h"
#include "support.h"

using support::FakePortTest;
using Lines = std::vector<std::string>;
using Calls = std::vector<std::string>;

class Tls : public FakePortTest {
  protected:
    CMP_LDAP ld{};
    CMP_LDAP_CONN_PARAM param{};
    void SetUp() override
    {
        FakePortTest::SetUp();
        fresh();
    }
    void fresh()
    {
        fake::reset();
        ld = CMP_LDAP{};
        ld.ld_sockfd = 9;
        ld.ld_sock_timeout = 7000;
        param = CMP_LDAP_CONN_PARAM{};
        param.ssl_version = 0x11;
        param.ssl_hash = 0x22;
        param.ssl_encrpt = 0x33;
        param.ssl_accepted_signature_algorithm = 0x44;
    }
    void expect_no_tls()
    {
        EXPECT_EQ(ld.ld_ssl_ctx, nullptr);
        EXPECT_EQ(ld.ld_ssl_conn, nullptr);
        EXPECT_EQ(fake::live_tls_contexts(), 0);
        EXPECT_EQ(fake::live_tls_connections(), 0);
    }
};

TEST_F(Tls, StartsWithTheSettingsRecordAndEndsOnce)
{
    struct Case {
        uint8_t ssl_auth;
        uint8_t verify_flag;
        Calls calls;
    } cases[] = {{0, 0, {"init", "connect"}},
                 {1, 1, {"init", "connect"}},
                 {2, 0, {"init", "set_verify", "connect"}},
                 {3, 0, {"init", "connect"}}};
    for (const Case &c : cases) {
        SCOPED_TRACE((int)c.ssl_auth);
        fresh();
        param.ssl_auth = c.ssl_auth;
        ASSERT_EQ(cmp_ldap_tls_start(&ld, &param), 0);
        EXPECT_NE(ld.ld_ssl_ctx, nullptr);
        EXPECT_NE(ld.ld_ssl_conn, nullptr);
        EXPECT_EQ(fake::tls_calls(), c.calls);

        const unsigned char expect[16] = {9,
                                          0,
                                          0,
                                          0,
                                          0x58,
                                          0x1B,
                                          0,
                                          0, /* 9, 7000 (LE) */
                                          c.verify_flag,
                                          0x11,
                                          0x22,
                                          0x33,
                                          0x44,
                                          0,
                                          0,
                                          0};
        OSL_SCR_SSL_WRP_SETTINGS s = fake::last_tls_settings();
        ASSERT_EQ(sizeof s, 16u);
        EXPECT_EQ(memcmp(&s, expect, 16), 0);
        EXPECT_TRUE(lines().empty());

        EXPECT_EQ(cmp_ldap_tls_end(&ld), 0);
        expect_no_tls();
        EXPECT_EQ(cmp_ldap_tls_end(&ld), 0); /* the second end does nothing */
        Calls all = c.calls;
        all.insert(all.end(), {"shutdown", "term"});
        EXPECT_EQ(fake::tls_calls(), all);
        EXPECT_EQ(fake::open_sockets(), 0);
        EXPECT_TRUE(fake::closed_sockets().empty()); /* the socket is the caller's */
    }
}

TEST_F(Tls, WrapperCodesMapByStage)
{
    struct Row {
        uint32_t code;
        int32_t init, handshake;
    } rows[] = {
        {0x72010002, 275, 269}, {0x72010003, 275, 270}, {0x72010004, 275, 271},
        {0x72010005, 275, 272}, {0x72010006, 275, 260}, {0x72010007, 267, 275},
        {0x72010008, 266, 275}, {0x7201000a, 273, 275}, {0x7201000b, 275, 272},
        {0x7201001d, 275, 274}, {0x72010009, 275, 275}, {0x720100ff, 275, 275},
        {0x00000001, 275, 275},
    };
    char text[128];
    for (const Row &r : rows) {
        SCOPED_TRACE(r.code);
        fresh();
        fake::TlsScript init;
        init.init = r.code;
        fake::set_tls(init);
        EXPECT_EQ(cmp_ldap_tls_start(&ld, &param), -1);
        EXPECT_EQ(ld.ld_errno, r.init);
        snprintf(text, sizeof text, "cmp_ldap_tls_start(): osl_scr_ssl_wrp_init() error.ret=[%x]\n",
                 r.code);
        ASSERT_EQ(lines(), Lines{text});
        EXPECT_EQ(fake::log()[0].rc, (int32_t)r.code);
        EXPECT_EQ(fake::tls_calls(), Calls{"init"});
        expect_no_tls();

        fresh();
        fake::TlsScript handshake;
        handshake.connect = r.code;
        fake::set_tls(handshake);
        EXPECT_EQ(cmp_ldap_tls_start(&ld, &param), -1);
        EXPECT_EQ(ld.ld_errno, r.handshake);
        snprintf(text, sizeof text,
                 "cmp_ldap_tls_start(): osl_scr_ssl_wrp_connect_timeo() error.ret=[%x]\n", r.code);
        EXPECT_EQ(lines(), Lines{text});
        EXPECT_EQ(fake::tls_calls(), (Calls{"init", "connect", "term"}));
        expect_no_tls();
    }
}

TEST_F(Tls, RefusedVerificationTerminatesTheContext)
{
    for (uint32_t code : {0x72010009u, 0x72010005u}) {
        fresh();
        param.ssl_auth = 2;
        fake::TlsScript script;
        script.set_verify = code;
        fake::set_tls(script);
        EXPECT_EQ(cmp_ldap_tls_start(&ld, &param), -1);
        EXPECT_EQ(ld.ld_errno,
                  code == 0x72010009u ? CMP_LDAP_TLS_VERIFY_ERROR : CMP_LDAP_TLS_ERROR);
        char text[96];
        snprintf(text, sizeof text,
                 "cmp_ldap_tls_start(): osl_scr_ssl_wrp_setverify() error.ret=[%x]\n", code);
        EXPECT_EQ(lines(), Lines{text});
        EXPECT_EQ(fake::tls_calls(), (Calls{"init", "set_verify", "term"}));
        expect_no_tls();
    }
}

TEST_F(Tls, EndWithoutTlsDoesNothingAndFailuresAreOnlyLogged)
{
    EXPECT_EQ(cmp_ldap_tls_end(&ld), 0);
    EXPECT_TRUE(fake::tls_calls().empty());

    ASSERT_EQ(cmp_ldap_tls_start(&ld, &param), 0);
    fake::TlsScript failing;
    failing.shutdown = 0x72010005;
    failing.term = 0x720100ff;
    fake::set_tls(failing);
    EXPECT_EQ(cmp_ldap_tls_end(&ld), 0);
    expect_no_tls();
    EXPECT_EQ(lines(),
              (Lines{"cmp_ldap_tls_end():osl_scr_ssl_wrp_shutdown() error.ret=[72010005].\n",
                     "cmp_ldap_tls_end():osl_scr_ssl_wrp_term() error.ret=[720100ff].\n"}));
    EXPECT_EQ(fake::log()[1].rc, (int32_t)0x720100ff);
}
