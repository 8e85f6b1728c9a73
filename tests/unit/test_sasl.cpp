/* SASL bind: one step with its BindResponse, the peer's name, the GSSAPI conversation
 * against the fake SASL library, the interactive bind task and the 0xa3 bind. Then the
 * security layer a caller opts into: what the bind asks for and keeps, the wrapped
 * requests, the wrapped responses under the PDU reader (chunk boundaries, hostile and cut
 * buffers, failures of the SASL library) and the end at unbind. The fake SASL library's
 * layer is fake_sasl::wrap(): a 4-octet length and every octet XOR kLayerMask. */
#include <stdio.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "cmp_ldap_sasl_internal.h"
#include "fake_sasl.h"
#include "support.h"

using fake_sasl::Script;
using fake_sasl::wrap;
using support::Bytes;
using support::cat;
using support::hex;
using support::octets;
using support::tlv;
using Lines = std::vector<std::string>;

namespace {

constexpr int32_t kSock = 7;

/* The SASL BindRequest the library must send: id, GSSAPI, credentials if any. */
Bytes request(uint8_t id, const std::string &cred)
{
    Bytes sasl = cat({octets("GSSAPI"), cred.empty() ? Bytes{} : octets(cred)});
    return tlv(0x30,
               cat({tlv(0x02, {id}), tlv(0x60, cat({hex("02 01 03 04 00"), tlv(0xA3, sasl)}))}));
}
/* A response: resultCode, empty matchedDN, errorMessage, then what follows (creds...). */
Bytes response(uint8_t id, uint8_t code, const Bytes &tail, const std::string &error = "",
               uint8_t op = 0x61)
{
    Bytes result = cat({hex("0A 01"), {code}, hex("04 00"), octets(error), tail});
    return tlv(0x30, cat({tlv(0x02, {id}), tlv(op, result)}));
}
Bytes creds(const std::string &s)
{
    return tlv(0x87, Bytes(s.begin(), s.end()));
}
/* The server side of the default exchange from this id: 14 with a token, 14, then 0. */
std::vector<Bytes> exchange(uint8_t first_id)
{
    return {response(first_id, 14, creds("srv1")), response(first_id + 1, 14, creds("srv2")),
            response(first_id + 2, 0, creds(""))};
}
/* These PDUs in one buffer, each wrapped when the layer is in force. */
Bytes joined(const std::vector<Bytes> &pdus, bool wrapped = false)
{
    Bytes out;
    for (const Bytes &pdu : pdus)
        out = cat({out, wrapped ? wrap(pdu) : pdu});
    return out;
}
Bytes slice(const Bytes &b, size_t from, size_t to)
{
    return Bytes(b.begin() + (long)from, b.begin() + (long)to);
}

const std::string kCache = [] {
    std::string path = ::testing::TempDir() + "toveistror-test-ccache";
    FILE *f = fopen(path.c_str(), "w");
    if (f != nullptr) fclose(f);
    return path;
}();
const std::string kNoCache = ::testing::TempDir() + "toveistror-no-such-ccache";
const std::string kDirCache = ::testing::TempDir();

/* The trace and the three requests of the default exchange (start, step, step). */
const support::Log kTrace = {
    support::trace("cmp_ldap_int_sasl_bind(): userid=u,domain=D.ccname=" + kCache + "\n"),
    support::trace("cmp_ldap_sasl_bind(): msgid=1\n"),
    support::trace("cmp_ldap_sasl_bind(): msgid=2\n"),
    support::trace("cmp_ldap_sasl_bind(): msgid=3\n")};
/* A SearchResultDone for id 5: the PDU the layer's reads expect. */
const Bytes kDone = hex("30 0C 02 01 05 65 07 0A 01 00 04 00 04 00");

/* The level-0 lines, whole (see support::whole): module, reserved 0, code, text. */
Lines errors()
{
    Lines out;
    for (const fake::LogLine &l : fake::log())
        if (l.level == 0) out.push_back(support::whole(l));
    return out;
}
/* An error line reporting rc, as errors() shows it. */
std::string e(int32_t rc, const std::string &text)
{
    return support::whole(support::err(rc, text));
}
Lines os_calls_but_exit()  // the task's exit races with the caller's wait
{
    Lines out;
    for (const std::string &c : fake::os_calls())
        if (c != "zelOSWExitTask") out.push_back(c);
    return out;
}

/* A fresh process as far as SASL goes, and a connected session, which each fixture
 * ends its own way. */
class Session : public support::FakePortTest {
  protected:
    void TearDown() override
    {
        end();
        FakePortTest::TearDown();
    }
    virtual void end() = 0;
    using Change = std::function<void(Script &)>;
    /* The fake SASL library plays this script, after this change to it. */
    void open(Script script, const Change &change = nullptr)
    {
        if (change) change(script);
        fake_sasl::reset(script);
        cmp_ldap_sasl_forget_mutex();
        cmp_ldap_cyrus_forget_init();
        ld_ = cmp_ldap_allocate_ldap_handler();
        ld_->ld_sockfd = kSock;
        ld_->ld_sock_timeout = 5000;
        fake::clear_log();
    }
    int bind(const std::string &ccname = kCache)
    {
        return cmp_ldap_sasl_interactive_bind_s(ld_, "u", "D", ccname.c_str());
    }
    CMP_LDAP *ld_ = nullptr;
};

class Sasl : public Session {
  protected:
    void SetUp() override
    {
        FakePortTest::SetUp();
        open(Script());
    }
    /* No SASL context survives a bind, whatever its outcome. */
    void end() override
    {
        if (ld_ == nullptr) return;
        EXPECT_EQ(ld_->cmp_ldap_ld_sasl_authctx, nullptr);
        EXPECT_EQ(fake_sasl::live_connections(), 0);
        cmp_ldap_free_text(&ld_->ld_error);
        cmp_ldap_free_text(&ld_->ld_matched);
        cmp_ldap_free_text(&ld_->ld_referral);
        support::free_block(std::exchange(ld_, nullptr));
    }
    /* A table's next row: the last one left no block, the fake port starts afresh and
     * the fake SASL library plays the default script with this change. */
    void restart(const Change &change = nullptr)
    {
        end();
        EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
        fake::reset();
        open(Script(), change);
    }
    static void serve_default(uint8_t first_id = 1)
    {
        for (const Bytes &pdu : exchange(first_id))
            fake::peer_data(pdu);
    }
};

TEST_F(Sasl, GssapiExchangeSendsEachTokenAndReturnsTheFinalId)
{
    serve_default();
    EXPECT_EQ(bind(), 3);
    EXPECT_EQ(fake::sent(), cat({request(1, "tok1"), request(2, ""), request(3, "tok3")}));
    EXPECT_EQ(ld_->ld_errno, 0);
    EXPECT_EQ(ld_->ld_sasl_msgid, 3);
    EXPECT_EQ(ld_->ld_sasl_rc, 0);
    EXPECT_EQ(fake::log(), kTrace);
    EXPECT_EQ(fake::recv_timeouts(), std::vector<long>(fake::recv_timeouts().size(), 5000));
    EXPECT_EQ(
        fake_sasl::calls(),
        (Lines{"getpeername", "getnameinfo", "sasl_version", "sasl_client_init",
               "sasl_client_new ldap localhost", "sasl_getprop 13",
               "gss_krb5_ccache_name " + kCache, "sasl_setprop 101", "sasl_client_start GSSAPI",
               "sasl_client_step 4 srv1", "sasl_client_step 4 srv2", "sasl_dispose"}));
    fake_sasl::Seen seen = fake_sasl::seen();
    EXPECT_EQ(seen.callback_ids,
              (std::vector<unsigned long>{0x4008, 0x4001, 0x4002, 0x4004, 0x4005, 0x4006, 0}));
    EXPECT_TRUE(seen.callback_procs_null);
    EXPECT_TRUE(seen.addresses_null);
    EXPECT_EQ(seen.flags, 0u);
    EXPECT_EQ(seen.secprops.min_ssf, 0u);
    EXPECT_EQ(seen.secprops.max_ssf, 0u);
    EXPECT_EQ(seen.secprops.maxbufsize, 65536u);
    EXPECT_EQ(seen.secprops.security_flags, 17u);
    EXPECT_EQ(seen.secprops.property_names, nullptr);
    EXPECT_EQ(seen.secprops.property_values, nullptr);
    EXPECT_EQ(seen.peer_len, 128);
    EXPECT_EQ(seen.host_len, 1025);
    EXPECT_TRUE(seen.serv_null);
    EXPECT_EQ(seen.name_flags, NI_NAMEREQD);
    EXPECT_EQ(os_calls_but_exit(),
              (Lines{"zelOSWLockTask", "zelOSWCreateMutexSem", "zelOSWUnlockTask",
                     "zelOSWRequestMutexSem", "zelOSWCreateJoinTask", "zelOSWWaitTask",
                     "zelOSWReleaseMutexSem"}));

    // The mutex and the SASL library are set up once per process.
    fake::clear_log();
    serve_default(4);
    EXPECT_EQ(bind(), 6);
    EXPECT_EQ(os_calls_but_exit().size(), 11u);
    EXPECT_EQ(fake_sasl::calls().at(12), "getpeername");
    EXPECT_EQ(fake_sasl::calls().at(14), "sasl_client_new ldap localhost");
}

/* Each row: how the fake SASL library and the server behave, and the outcome. */
struct Case {
    const char *name;
    std::function<void(Script &)> script;
    std::vector<Bytes> peer;
    int result;
    int32_t ld_errno;
    Lines errors;
    std::string ccname = kCache;
};

const std::string kDetail = "SASL(-1): generic failure: scripted";
const Bytes kFirst = response(1, 14, creds("srv1"));

TEST_F(Sasl, OutcomesOfTheConversation)
{
    const std::string b = "cmp_ldap_int_sasl_bind(): ";
    const std::string init = "cmp_ldap_int_sasl_init(): ";
    const std::string cc = "cmp_ldap_set_krb5_ccache_name(): kerberos 5 credential cache ";
    const std::string parse = "cmp_ldap_parse_sasl_bind_result(): ";
    const std::string start_err = b + "sasl_client_start() error.saslrc=";
    const std::string step_err = b + "sasl_client_step() error.saslrc=";
    auto version = [](int v) { return [v](Script &s) { s.version = v; }; };
    auto steps = [](std::vector<fake_sasl::Reply> r) { return [r](Script &s) { s.step = r; }; };
    const std::string no_name = "cmp_ldap_ber_get_tag(): Illegal position ";
    const Bytes early = response(1, 0, creds("srv1"));
    // clang-format off
    const Case cases[] = {
        {"2.1.23 accepted", version(0x02010017), exchange(1), 3, 0, {}},
        {"2.1.30 accepted", version(0x0201001e), exchange(1), 3, 0, {}},
        {"2.1.22 refused", version(0x02010016), {}, -1, 283,
         {e(283, init + "SASL library version mismatch: expected 2.1.23, got 2.1.22.\n")}},
        {"2.2.0 refused", version(0x02020000), {}, -1, 283,
         {e(283, init + "SASL library version mismatch: expected 2.1.23, got 2.2.0.\n")}},
        {"client_init fails", [](Script &s) { s.client_init = SASL_FAIL; }, {}, -1, 283,
         {e(283, init + "sasl_client_init() error.saslrc=-1.\n")}},
        {"client_new fails", [](Script &s) { s.client_new = SASL_NOMECH; }, {}, -1, 283,
         {e(283, "cmp_ldap_int_sasl_open(): sasl_client_new() error.saslrc=-4\n")}},
        {"peer has no reverse name", [](Script &s) { s.reverse_name = ""; }, {}, -1, 281, {}},
        {"no peer", [](Script &s) { s.peer = false; }, {}, -1, 281,
         {"cmp_ldap_host_connected_to(): getpeername() error.\n"}},
        {"missing cache", nullptr, {}, -1, 282,
         {e(282, cc + "error (ccname=" + kNoCache + ").\n")}, kNoCache},
        {"directory as cache keeps ld_errno", nullptr, {}, -1, 0,
         {e(0, cc + "mode error (ccname=" + kDirCache + ").\n")}, kDirCache},
        {"gss_krb5_ccache_name fails",
         [](Script &s) { s.gss_major = 0x000d0000, s.gss_minor = 0x96c73a9c; }, {}, -1, 283,
         {e(283, "cmp_ldap_set_krb5_ccache_name(): gss_krb5_ccache_name() maj_stat=0xd0000,"
          "min_stat=0x96c73a9c.\n")}},
        {"setprop fails", [](Script &s) { s.setprop = SASL_NOMEM; }, {}, -1, 265,
         {e(265, b + "sasl_setprop() error.saslrc=-2.\n")}},
        {"start fails", [](Script &s) { s.start = {{SASL_FAIL}}; }, {}, -1, 280,
         {e(280, start_err + "-1,errdetail=" + kDetail + ".\n")}},
        {"password asked",
         [](Script &s) { s.start = {{SASL_INTERACT, "", false, SASL_CB_PASS}}; }, {}, -1, 283,
         {e(283, b + "sasl_client_start() error. An interaction out of support (id=0x4004).\n"),
          e(283, start_err + "2,errdetail=" + kDetail + ".\n")}},
        {"step fails: bad server", steps({{SASL_BADSERV}}), {kFirst}, -1, 280,
         {e(280, step_err + "-10,errdetail=" + kDetail + ".\n")}},
        {"step asks for interaction", steps({{SASL_INTERACT, "", false, SASL_CB_USER}}), {kFirst}, -1, 283,
         {e(283, step_err + "2,errdetail=" + kDetail + ".\n")}},
        {"server done early, client agrees", steps({{SASL_OK, "tok2"}}), {early}, 1, 0, {}},
        {"server done early, client wants more", steps({{SASL_CONTINUE, "tok2"}}), {early}, -1, 283,
         {e(283, step_err + "1,errdetail=" + kDetail + ".\n")}},
        {"final response still has credentials", nullptr,
         {kFirst, response(2, 14, creds("srv2")), response(3, 0, creds("extra"))}, -1, 283,
         {e(283, b + "cmp_ldap_sasl_bind_s() error.rc=283,saslrc=0,len=5.\n")}},
        {"final response without credentials (as slapd sends it)", nullptr,
         {kFirst, response(2, 14, creds("srv2")), response(3, 0, {})}, 3, 0, {}},
        {"refusal without credentials keeps its code", nullptr, {response(1, 49, {}, "bad")}, -1, 49, {}},
        {"bind in progress without credentials", nullptr, {response(1, 14, {})}, -1, 284,
         {no_name + "(pos=14,mes->cmp_ldap_total_size=14).\n",
          e(284, parse + "Failed to get serverSaslCreds. tag=0xff,len=-1,nextPos=14,total_size=14.\n")}},
        {"search result done answers", nullptr, {response(1, 0, creds(""), "", 0x65)}, -1, 283,
         {e(283, parse + "Illegal message (application=5).\n")}},
        {"server refuses", nullptr, {response(1, 49, creds(""), "no")}, -1, 49, {}},
        {"referral skipped to the credentials", nullptr,
         {response(1, 10, cat({tlv(0xA3, octets("ldap://x/")), creds("")}))}, -1, 10, {}},
        {"referral cut short", nullptr, {response(1, 10, hex("A3"))}, -1, 284,
         {e(284, parse + "Failed to get referral. Illegal length (content size=16).\n")}},
        {"referral unreadable", nullptr, {response(1, 10, hex("A3 05 30 00 87 00"))}, -1, 284,
         {"cmp_ldap_ber_decode_string_stub(): It's not correct type (tag.type = 16).\n",
          e(284, parse + "Failed to get referral.\n")}},
        {"credentials beyond the end", nullptr, {response(1, 14, hex("87 05 00"))}, -1, 284,
         {e(284, parse + "Failed to get serverSaslCreds. tag=0x87,len=5,nextPos=14,total_size=17.\n")}},
        {"resultCode unreadable", nullptr, {tlv(0x30, hex("02 01 01 61 03 04 01 00"))}, -1, 284,
         {"cmp_ldap_ber_decode_number(): It's not correct type (tag.type = 4).\n",
          e(284, parse + "Failed to get resultCode.\n")}},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        restart(c.script);
        for (const Bytes &pdu : c.peer)
            fake::peer_data(pdu);
        EXPECT_EQ(bind(c.ccname), c.result);
        EXPECT_EQ(ld_->ld_errno, c.ld_errno);
        EXPECT_EQ(errors(), c.errors);
        if (!c.errors.empty() && c.errors.back().find("errdetail") != std::string::npos) {
            EXPECT_STREQ(ld_->ld_error, kDetail.c_str());
        }
    }
}

TEST_F(Sasl, UserPromptIsAnsweredWithAnEmptyName)
{
    restart([](Script &s) {
        s.start = {{SASL_INTERACT, "", false, SASL_CB_USER}, {SASL_CONTINUE, "tok1"}};
    });
    serve_default();
    EXPECT_EQ(bind(), 3);
    EXPECT_EQ(fake_sasl::seen().answers, Lines{"id=0x4001 result='' len=0 defresult=(null)"});
}

TEST_F(Sasl, BindStepWaitsTheSessionTimeOutAndHandsBackTheServerCredentials)
{
    const struct {
        long sock_timeout;
        bool want_creds;
        Bytes reply;
        int rc;
        long waited;
        const char *creds;  // what *servercredp holds afterwards, "(none)" for NULL
    } cases[] = {
        {1999, true, response(1, 0, creds("ab")), 0, 1000, "ab"},
        {-1, true, response(1, 14, creds("ab")), 14, -1, "ab"},
        {5000, false, response(1, 0, creds("ab")), 0, 5000, "(none)"},
        {5000, true, response(1, 0, {}), 0, 5000, "(none)"},
        {5000, true, response(1, 14, {}), 284, 5000, "(none)"},
        {5000, true, response(1, 49, creds("ab")), 49, 5000, "(none)"},
    };
    for (const auto &c : cases) {
        restart();
        ld_->ld_sock_timeout = c.sock_timeout;
        fake::peer_data(c.reply);
        CMP_LDAP_SASL_CRED *server = nullptr;
        int32_t msgid = 0;
        CMP_LDAP_SASL_CRED none{0, {0}};
        EXPECT_EQ(
            cmp_ldap_sasl_bind_s(ld_, "GSSAPI", &none, c.want_creds ? &server : nullptr, &msgid),
            c.rc);
        EXPECT_EQ(msgid, 1);
        EXPECT_EQ(fake::recv_timeouts().at(0), c.waited);
        EXPECT_EQ(fake::sent(), request(1, ""));
        EXPECT_EQ(server == nullptr
                      ? "(none)"
                      : std::string(reinterpret_cast<char *>(server->data), server->total_size),
                  c.creds);
        support::free_block(server);
    }
}

TEST_F(Sasl, BindStepFailuresBeforeTheResponse)
{
    struct {
        uint32_t total_size;
        unsigned char data[3];
    } three = {3, {'x', 'y', 'z'}};
    auto *cred = reinterpret_cast<CMP_LDAP_SASL_CRED *>(&three);
    int32_t msgid = 0;
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_sasl_bind_s(ld_, "GSSAPI", cred, nullptr, &msgid), 265);
    EXPECT_EQ(msgid, -1);
    EXPECT_EQ(ld_->ld_mid, 1);
    EXPECT_EQ(errors().front(), "cmp_ldap_sasl_bind(): Failed to allocate(27 btyes).\n");
    EXPECT_EQ(errors().back(),
              e(265, "cmp_ldap_sasl_bind(): mechanism=GSSAPI,cred.total_size=3.\n"));
    EXPECT_TRUE(fake::logged_containing("cmp_ldap_sasl_bind(): ld: ld_errno=265,"));

    fake::clear_log();
    EXPECT_EQ(cmp_ldap_sasl_bind_s(ld_, nullptr, cred, nullptr, &msgid), 264);
    EXPECT_EQ(msgid, -1);
    EXPECT_EQ(ld_->ld_mid, 1);
    EXPECT_EQ(
        errors(),
        Lines{e(264, "cmp_ldap_sasl_bind(): parameter error (either of mechanism, cred).\n")});
}

TEST_F(Sasl, HostConnectedToPrefersTheReverseName)
{
    const struct {
        bool peer;
        const char *name;
        const char *defhost;
        const char *want;
    } cases[] = {
        {true, "ldap.example", "dflt", "ldap.example"},
        {true, "", "dflt", "dflt"},
        {true, "", nullptr, nullptr},
        {false, "ldap.example", "dflt", nullptr},
    };
    for (const auto &c : cases) {
        Script s;
        s.peer = c.peer;
        s.reverse_name = c.name;
        fake_sasl::reset(s);
        char *host = cmp_ldap_host_connected_to(ld_, c.defhost);
        EXPECT_STREQ(host, c.want);  // NULL only equals NULL
        support::free_block(host);
    }
}

TEST_F(Sasl, EveryOsWrapperCallFailingInTurn)
{
    const struct {
        const char *function;
        std::function<void(Script &)> script;
        int result;
        int32_t ld_errno;
        std::string line;
    } cases[] = {
        {"zelOSWLockTask", nullptr, -1, 285,
         e(285, "cmp_ldap_sasl_init_mutex() zelOSWLockTask() Error: Error=5.\n")},
        {"zelOSWCreateMutexSem", nullptr, -1, 285,  // the fake knows no mutex 0
         e(285, "cmp_ldap_sasl_lock_mutex() zelOSWRequestMutexSem() Error: Error=3.\n")},
        {"zelOSWUnlockTask", nullptr, -1, 285,
         e(285, "cmp_ldap_sasl_init_mutex() zelOSWUnlockTask() Error: Error=5.\n")},
        {"zelOSWRequestMutexSem", nullptr, -1, 285,
         e(285, "cmp_ldap_sasl_lock_mutex() zelOSWRequestMutexSem() Error: Error=5.\n")},
        {"zelOSWCreateJoinTask", nullptr, -1, 275,
         e(275,
           "cmp_ldap_int_sasl_bind_task(): zelOSWCreateTask() error(rc=5).SASL thread not "
           "create.\n")},
        {"zelOSWWaitTask", nullptr, 3, 0,  // tried again: the task reads the caller's frame
         "cmp_ldap_int_sasl_bind_task() zelOSWWaitTask() Error: Error=5.\n"},
        {"zelOSWReleaseMutexSem", nullptr, -1, 285,
         e(285, "cmp_ldap_sasl_unlock_mutex() zelOSWReleaseMutexSem() Error: Error=5.\n")},
        {"zelOSWReleaseMutexSem", [](Script &s) { s.reverse_name = ""; }, -1, 281,
         e(285, "cmp_ldap_sasl_unlock_mutex() zelOSWReleaseMutexSem() Error: Error=5.\n")},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.function);
        restart(c.script);
        serve_default();
        fake::script_os(c.function, {5});
        EXPECT_EQ(bind(), c.result);
        EXPECT_EQ(ld_->ld_errno, c.ld_errno);
        EXPECT_EQ(errors(), Lines{c.line});
    }
}

TEST_F(Sasl, EveryAllocationFailingInTurnLeavesNothing)
{
    end();
    long n = support::sweep_alloc_failures([&](long k) {
        open(Script());
        serve_default();
        fake::arm_alloc_failure(k);
        int rc = bind();
        if (k == 0) {
            EXPECT_EQ(rc, 3);
        } else {
            EXPECT_EQ(rc, -1) << "allocation " << k;
            EXPECT_NE(ld_->ld_errno, 0) << "allocation " << k;
        }
        end();
    });
    EXPECT_GT(n, 20);
}

TEST_F(Sasl, BindMethodSaslRunsTheInteractiveBind)
{
    const std::string p = "cmp_ldap_bind(): parameter error (either of dn, domain ,ccname).\n";
    const struct {
        const char *dn, *domain, *ccname;
    } refused[] = {{nullptr, "D", "c"}, {"u", nullptr, "c"}, {"u", "D", nullptr}};
    for (const auto &r : refused) {
        fake::clear_log();
        EXPECT_EQ(cmp_ldap_bind(ld_, r.dn, "pw", r.domain, r.ccname, 0xa3), -1);
        EXPECT_EQ(ld_->ld_errno, 264);
        EXPECT_EQ(errors(), Lines{e(264, p)});
    }
    EXPECT_EQ(ld_->ld_mid, 0);

    ld_->ld_errno = 0;
    serve_default();
    EXPECT_EQ(cmp_ldap_bind(ld_, "u", nullptr, "D", kCache.c_str(), 0xa3), 3);
    // The SASL bind answers for its last id without reading.
    CMP_LDAP_MESSAGE *res = nullptr;
    EXPECT_EQ(cmp_ldap_result(ld_, 3, 0, nullptr, &res), CMP_LDAP_RES_BIND);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(cmp_ldap_result2error(ld_, nullptr, 1), 0);

    fake::clear_log();
    EXPECT_EQ(cmp_ldap_bind(ld_, "u", nullptr, "D", kNoCache.c_str(), 0xa3), -1);
    EXPECT_EQ(ld_->ld_errno, 282);
    EXPECT_TRUE(fake::logged_containing("cmp_ldap_bind(): ld: ld_errno=282,"));
}

class Layer : public Session {
  protected:
    void SetUp() override
    {
        FakePortTest::SetUp();
        start();
    }
    /* The last session ended, one whose opted-in GSSAPI bind is over: its result, and
     * the log cleared. The SASL library offers a layer (ssf 56, at most 10 octets a
     * buffer) but for this change. */
    int start(const Change &change = nullptr, bool bind = true)
    {
        end();
        Script layered;
        layered.ssf = 56;
        layered.maxoutbuf = 10;
        open(layered, change);
        EXPECT_EQ(cmp_ldap_set_sasl_ssf(ld_, 0, 256), 0);
        int rc = bind ? bind_default() : 0;
        sent_before_ = fake::sent().size();
        fake::clear_log();
        return rc;
    }
    /* The default exchange of three steps, the server's answers unwrapped in one buffer. */
    int bind_default()
    {
        fake::peer_data(joined(exchange(1)));
        return bind();
    }
    /* Unbind ends the layer with the session (a second time when its own allocation
     * was the one made to fail). */
    void end() override
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
    EXPECT_EQ(start([](Script &s) { s.ssf = 0; }), 3);
    EXPECT_EQ(cmp_ldap_sasl_layer_on(ld_), nullptr);
    EXPECT_EQ(fake_sasl::live_connections(), 0);
}

TEST_F(Layer, ASecondBindTravelsThroughTheLayerAndReplacesIt)
{
    fake::peer_data(joined(exchange(4), true));
    EXPECT_EQ(bind(), 6);
    /* Each request in wrapped pieces of at most 10 plain octets, the layer's maximum. */
    Bytes want;
    for (const Bytes &pdu : {request(4, "tok1"), request(5, ""), request(6, "tok3")})
        for (size_t at = 0; at < pdu.size(); at += 10)
            want = cat({want, wrap(slice(pdu, at, std::min(pdu.size(), at + 10)))});
    EXPECT_EQ(sent_since(), want);
    EXPECT_EQ(fake_sasl::live_connections(), 1);
    EXPECT_NE(cmp_ldap_sasl_layer_on(ld_), nullptr);
}

TEST_F(Layer, ALayerWithoutAMaximumBufferIsRefusedAndTheConnectionDropped)
{
    start([](Script &s) { s.maxoutbuf = 0; }, false);
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
    char pointer[32];
    snprintf(pointer, sizeof pointer, "%p", static_cast<void *>(ld_));
    EXPECT_EQ(errors(), (Lines{e(264,
                                 "cmp_ldap_set_sasl_ssf(): parameter error (ld=(nil),min_ssf=0,"
                                 "max_ssf=1).\n"),
                               e(264, "cmp_ldap_set_sasl_ssf(): parameter error (ld=" +
                                          std::string(pointer) + ",min_ssf=2,max_ssf=1).\n")}));

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

    start([](Script &s) { s.encode = SASL_FAIL; });
    EXPECT_EQ(cmp_ldap_send_berdata(ld_, &sb), -1);
    EXPECT_EQ(ld_->ld_errno, CMP_LDAP_SASL_ERROR);
    EXPECT_EQ(errors(), Lines{e(283,
                                "cmp_ldap_sasl_layer_encode(): sasl_encode() error."
                                "saslrc=-1,errdetail=SASL(-1): generic failure: scripted.\n")});
    EXPECT_EQ(sent_since(), Bytes{});
}

const Bytes kLargest = [] {
    Bytes pdu = hex("30 83 00 FF FB");
    pdu.resize(65536, 0x04);
    return pdu;
}();

TEST_F(Layer, ResponsesAreReadOneWrappedBufferAtATime)
{
    enum Then { kNothing, kClose, kTimeout };
    const std::string rw = "cmp_ldap_read_wrapped(): ";
    const std::string timed_out =
        "cmp_ldap_recv_data(): cmp_netsock_recv_timeo() error.sizeRead=[-2]\n";
    const struct {
        const char *name;
        Bytes data;       /* the peer's octets, if any, in one receive */
        bool bytewise;    /* ... or in one receive each */
        Then then;        /* what the peer does after them */
        int decode;       /* sasl_decode's outcome */
        const Bytes *pdu; /* the PDU read, or NULL when the read fails */
        int32_t ld_errno; /* after the read (0: success, or no code of its own) */
        std::string line; /* the one error line, whole text; "" for none */
        int32_t line_rc;
        int32_t sockfd; /* kSock, or -1 once the connection is dropped */
    } cases[] = {
        // clang-format off
        {"octet by octet", wrap(kDone), true, kNothing, SASL_OK, &kDone, 0, "", 0, kSock},
        {"one PDU over two buffers", cat({wrap(slice(kDone, 0, 3)), wrap(slice(kDone, 3, 14))}), false, kNothing,
         SASL_OK, &kDone, 0, "", 0, kSock},
        {"the longest buffer taken", wrap(kLargest), false, kNothing, SASL_OK, &kLargest, 0, "", 0, kSock},
        {"length 0", hex("00 00 00 00"), false, kNothing, SASL_OK, nullptr, 2,
         rw + "Illegal wrapped length.len=0,max=65536.\n", 2, -1},
        {"length over the most we take", hex("00 01 00 01"), false, kNothing, SASL_OK, nullptr, 2,
         rw + "Illegal wrapped length.len=65537,max=65536.\n", 2, -1},
        {"length all ones", hex("FF FF FF FF"), false, kNothing, SASL_OK, nullptr, 2,
         rw + "Illegal wrapped length.len=4294967295,max=65536.\n", 2, -1},
        {"length cut", hex("00 00"), true, kClose, SASL_OK, nullptr, 2,
         rw + "read illegal data. fieldLen=4,restLen=2.\n", 2, -1},
        {"buffer cut", slice(wrap(kDone), 0, 15), false, kClose, SASL_OK, nullptr, 2,
         rw + "read illegal data. length=14,restLen=3.\n", 2, -1},
        {"time-out inside a buffer", slice(wrap(kDone), 0, 6), false, kTimeout, SASL_OK, nullptr, 260,
         timed_out, -2, -1},
        {"time-out before a buffer", {}, false, kTimeout, SASL_OK, nullptr, 260, timed_out, -2, kSock},
        {"peer closes between buffers", {}, false, kClose, SASL_OK, nullptr, 2, "", 0, kSock},
        {"garbage after unwrap", wrap(hex("30 85 00 00 00 00 01")), false, kNothing, SASL_OK, nullptr, 0,
         "cmp_ldap_determine_record_size(): Length-field is over 32bit.fieldLen=0x05.\n", -1, -1},
        {"unwrap fails", wrap(kDone), false, kNothing, SASL_BADMAC, nullptr, 283,
         "cmp_ldap_sasl_layer_decode(): sasl_decode() error.saslrc=-9,errdetail=SASL(-1): generic "
         "failure: scripted.\n", 283, -1},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(start([&c](Script &s) { s.decode = c.decode; }), 3);
        if (c.bytewise) {
            fake::peer_data_bytewise(c.data);
        } else if (!c.data.empty()) {
            fake::peer_data(c.data);
        }
        if (c.then == kClose) fake::peer_data({});
        if (c.then == kTimeout) fake::peer_timeout();
        CMP_LDAP_MESSAGE *msg = nullptr;
        EXPECT_EQ(cmp_ldap_read_berdata(ld_, 5000, &msg), c.pdu != nullptr ? 0 : -1);
        EXPECT_EQ(ld_->ld_errno, c.ld_errno);
        EXPECT_EQ(ld_->ld_sockfd, c.sockfd);
        EXPECT_EQ(errors(), c.line.empty() ? Lines{} : Lines{e(c.line_rc, c.line)});
        if (c.pdu != nullptr) {
            ASSERT_NE(msg, nullptr);
            EXPECT_EQ(msg->cmp_ldap_total_size, (int32_t)c.pdu->size());
            EXPECT_EQ(Bytes(cmp_ldap_pdu(msg), cmp_ldap_pdu(msg) + c.pdu->size()), *c.pdu);
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
        start(nullptr, false);
        fake::peer_data(cat({joined(exchange(1)), wrap(kDone)}));
        fake::arm_alloc_failure(k);
        int rc = bind();
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
