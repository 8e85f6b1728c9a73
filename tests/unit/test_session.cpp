/* Sessions: open, result retrieval, simple bind, unbind, abandon and search. */
#include <stdio.h>

#include <functional>
#include <utility>

#include "cmp_ldap_internal.h"
#include "support.h"

using namespace support;
using Script = std::function<void()>;
using Op = std::function<int()>;

namespace {

const std::string kOpen = "cmp_ldap_open_with_timeout_main";
const char kStartTls1[] =  // ExtendedRequest id 1, OID 1.3.6.1.4.1.1466.20037
    "30 1D 02 01 01 77 18 80 16 31 2E 33 2E 36 2E 31 2E 34 2E 31 2E 31 34 36 36 2E 32 30 30 33 37";
const char kStartTlsOk[] = "30 0c 02 01 01 78 07 0a 01 00 04 00 04 00";
/* The worked search: id 1, dc=example, subtree, (cn=abc), attributes cn and mail. */
const char kExample[] =
    "30 39 02 01 01 63 34 04 0A 64 63 3D 65 78 61 6D 70 6C 65 0A 01 02 0A 01 00 02 01 00 02 01 00 "
    "01 01 00 A0 0B A3 09 04 02 63 6E 04 03 61 62 63 30 0A 04 02 63 6E 04 04 6D 61 69 6C";
/* The same with no usable filter and no attributes: (objectClass=*). */
const char kNoFilter[] =
    "30 2F 02 01 01 63 2A 04 0A 64 63 3D 65 78 61 6D 70 6C 65 0A 01 02 0A 01 00 02 01 00 02 01 00 "
    "01 01 00 87 0B 6F 62 6A 65 63 74 43 6C 61 73 73 30 00";
CMP_LDAP *const kUntouched = reinterpret_cast<CMP_LDAP *>(0x1234);
const Script kNoMemory = [] { fake::arm_alloc_failure(1); };
const Script kSendFails = [] { fake::script_send({-1}); };
const Script kSendTimesOut = [] { fake::script_send({CMP_NETSOCK_TIMEOUT}); };

const auto pdu = [](uint8_t id, uint8_t op) { return Bytes{0x30, 5, 2, 1, id, op, 0}; };
/* The handle dump of this function holding this code: its second line, level 0, no code. */
const auto dumped = [](const std::string &name, int code) {
    const std::string head = name + "(): ld: ld_errno=" + std::to_string(code) + ",";
    for (const fake::LogLine &l : fake::log())
        if (l.text.rfind(head, 0) == 0) return l == err(-1, l.text);
    return false;
};

class Session : public FakePortTest {
  protected:
    void SetUp() override
    {
        FakePortTest::SetUp();
        connect();
    }
    void TearDown() override
    {
        if (ld_ != nullptr && ld_ != kUntouched) end();
        FakePortTest::TearDown();
    }
    /* A connected plain session, a clean log, the search preset to the worked example. */
    void connect()
    {
        ld_ = cmp_ldap_allocate_ldap_handler();
        ld_->ld_sockfd = cmp_netsock_socket(AF_INET, 1, 0);
        fake::clear_log();
        preset();
    }
    void preset()
    {
        target = ld_;
        base = "dc=example";
        attrs = "cn,mail";
        scope = 2;
        only = 0;
        f = CMP_LDAP_FILTER{CMP_LDAP_FILTER_COND_EQUAL, 0, "cn", "abc"};
        pr = CMP_LDAP_FILTER_PRESENT{0, "mail"};
        filter = &f;
        present = nullptr;
        ld_->ld_deref = ld_->ld_sizelimit = ld_->ld_timelimit = ld_->ld_errno = 0;
    }
    int search() { return cmp_ldap_search_tiny(target, base, scope, filter, present, attrs, only); }
    void end()
    {
        cmp_ldap_close_connection(ld_);
        free_block(std::exchange(ld_, nullptr));
    }
    /* For the open: a fresh port; a StartTLS peer agrees unless the script answers first. */
    void start(uint8_t tls_mod, int32_t timeout = 5, const Script &script = nullptr)
    {
        fake::reset();
        fake::set_resolver(0, {fake::ipv4("192.0.2.10")});
        p_ = CMP_LDAP_CONN_PARAM{};
        p_.cmp_ldap_hostname = const_cast<char *>("ldap.example");
        p_.portno = 389;
        p_.timeout = timeout;
        p_.tls_mod = tls_mod;
        ld_ = kUntouched;
        if (script) script();
        if (tls_mod == 1) fake::peer_data(hex(kStartTlsOk));
    }
    void expect_nothing_left()
    {
        EXPECT_EQ(ld_, kUntouched);
        EXPECT_EQ(fake::open_sockets(), 0);
        EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
        EXPECT_EQ(fake::live_tls_contexts(), 0);
        EXPECT_EQ(fake::live_tls_connections(), 0);
    }
    CMP_LDAP_CONN_PARAM p_{};
    CMP_LDAP *ld_ = nullptr, *target = nullptr;
    CMP_LDAP_MESSAGE *res_ = nullptr;
    const char *base, *attrs;
    uint32_t scope, only;  // only: attrsonly
    CMP_LDAP_FILTER f, *filter;
    CMP_LDAP_FILTER_PRESENT pr, *present;
};

}  // namespace

TEST_F(Session, OpenFailuresPassThroughLogAndLeaveNothing)
{
    auto check = [&](uint8_t tls_mod, int rc, const Log &lines, const Script &script) {
        start(tls_mod, 5, script);
        EXPECT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), rc);
        expect_nothing_left();
        EXPECT_EQ(fake::setting_reads(), rc == 264 ? 0 : 1);
        EXPECT_EQ(fake::alloc_sizes().empty(), rc == 264 || rc == 276);
        for (const fake::LogLine &line : lines)
            EXPECT_TRUE(logged_whole(line));
        /* a handle made is dumped holding the code, except a connect's, which is only returned */
        EXPECT_EQ(dumped(kOpen, tls_mod ? rc : 0), !fake::alloc_sizes().empty()) << rc;
    };
    auto peer = [](const char *h) { return [h] { fake::peer_data(hex(h)); }; };
    const auto range = err(264, kOpen + "(): parameter error (illegal value: ipv6,tls_mod).\n");
    const auto off = err(276, kOpen + "(): protocol setting error.\n");
    const auto unread = err(-1,
                            "cmp_ldap_check_protocol_setting(): Cannot read "
                            "ME_STC_U08_LDAP_PROTOCOL.retcode=0x00000072.\n");
    check(0, 264, {range}, [&] { p_.ipv6 = 2; });
    check(3, 264, {range}, [] {});
    check(0, 276, {off}, [] { fake::set_setting(0, 0); });
    check(0, 276, {unread, off}, [] { fake::set_setting(0x72, 1); });
    check(0, 279, {}, [] { fake::script_connect({-1}); });
    check(1, 256, {}, kSendFails);
    check(1, 259, {}, peer("30 03 02 01 01"));  // envelope without a protocolOp
    check(1, 80, {}, peer("30 0f 02 01 01 78 0a 0a 01 02 04 00 04 03 62 61 64"));  // refused
    /* a BindResponse for the StartTLS id: ld_errno as it stands (0), deliberately */
    check(1, 0, {}, peer("30 0c 02 01 01 61 07 0a 01 00 04 00 04 00"));
    check(2, 266, {}, [] { fake::set_tls({OSL_SCR_SSL_WRP_ERR_INIT_A, 0, 0, 0, 0, {}}); });
    check(1, 274, {}, [] { fake::set_tls({0, 0, OSL_SCR_SSL_WRP_ERR_HANDSHAKE_D, 0, 0, {}}); });
    // only check_protocol 1 reads the setting
    start(0);
    fake::set_setting(0, 0);
    ASSERT_EQ(cmp_ldap_open_with_timeout_main(&p_, &ld_, 2), 0);
    end();
}

TEST_F(Session, OpenTakesTheTimeOutInMillisecondsAndStartsTls)
{
    auto check = [&](uint8_t tls_mod, int32_t timeout, long ms, uint8_t ipv6 = 0) {
        start(tls_mod, timeout);
        p_.ipv6 = ipv6;
        ASSERT_EQ(cmp_ldap_open_with_timeout(&p_, &ld_), 0);
        EXPECT_EQ(ld_->ld_sock_timeout, ms);
        EXPECT_EQ(fake::connect_attempts().at(0).timeout, ms);
        EXPECT_EQ(fake::sent(), tls_mod == 1 ? hex(kStartTls1) : Bytes{});
        EXPECT_EQ(fake::recv_timeouts(), std::vector<long>(fake::recv_timeouts().size(), ms));
        EXPECT_EQ(ld_->ld_ssl_conn != nullptr, tls_mod != 0);
        const std::string param =
            "(): param: hostname=ldap.example,portno=389,timeout=" + std::to_string(timeout) +
            ",ipv6=" + std::to_string(ipv6) + ",tls_mod=" + std::to_string(tls_mod) +
            ",ssl_auth=0,ssl_version=0x00,ssl_hash=0x00,ssl_encrpt=0x00.\n";
        EXPECT_EQ(fake::log(), Log{trace(kOpen + param)});
        end();
    };
    check(0, -1, -1);
    check(0, 0, 0);
    check(0, 4294968, 704);  // plain 32-bit wrap, deliberate
    check(1, 5, 5000);
    check(1, -1, -1);
    check(2, 5, 5000);
    check(0, 5, 5000, 1);
}

TEST_F(Session, OpenWithEveryAllocationFailingInTurnLeavesNothing)
{
    for (uint8_t tls_mod : {0, 1, 2}) {
        long n = sweep_alloc_failures([&](long k) {
            start(tls_mod);
            fake::arm_alloc_failure(k);
            int rc = cmp_ldap_open_with_timeout(&p_, &ld_);
            ASSERT_EQ(rc == 0, k == 0);
            if (k == 0) return end();
            /* a result text that cannot be copied makes the StartTLS answer unreadable */
            EXPECT_EQ(rc, tls_mod == 1 && rc == CMP_LDAP_OTHER ? rc : CMP_LDAP_NO_MEMORY);
            expect_nothing_left();
        });
        EXPECT_GE(n, tls_mod == 1 ? 4 : 2) << "tls_mod " << int(tls_mod);
    }
}

TEST_F(Session, ResultIdsTypesTimeOutsAndTheSaslShortCut)
{
    for (auto c : {std::make_pair(0x61, 1), {0x64, 4}, {0x65, 5}, {0x73, 19}, {0x78, 24}}) {
        fake::peer_data(pdu(42, c.first));  // -1 takes every accepted type whatever the id
        ASSERT_EQ(cmp_ldap_result(ld_, -1, 0, nullptr, &res_), c.second);
        free_block(res_);
    }
    const CMP_LDAP_TIMEVAL tv1{1, 999999}, tv0{0, 500}, tv2{0, 2000};  // id 1 is dropped
    for (auto c : {std::make_pair(&tv1, 1999L), {&tv0, 0L}, {&tv2, 2L}, {nullptr, -1L}}) {
        size_t seen = fake::recv_timeouts().size();
        fake::peer_data(pdu(1, 0x65));
        fake::peer_data(pdu(2, 0x61));
        ASSERT_EQ(cmp_ldap_result(ld_, 2, 0, c.first, &res_), 1);
        free_block(res_);
        auto waits = fake::recv_timeouts();
        for (size_t i = seen; i < waits.size(); ++i)
            EXPECT_EQ(waits[i], c.second);
    }
    /* a finished SASL bind answers for the last issued id without reading */
    for (auto m : {std::make_pair(4, 4), {1, 1}, {5, 4}, {0, 0}}) {
        ld_->ld_mid = m.first;
        ld_->ld_sasl_msgid = m.second;
        size_t before = fake::recv_timeouts().size();  // nothing scripted: a read finds no peer
        EXPECT_EQ(cmp_ldap_result(ld_, 99, 0, nullptr, &res_),
                  m.first == m.second && m.first ? 1 : -1);
        EXPECT_EQ(res_, nullptr);
        EXPECT_EQ(fake::recv_timeouts().size() == before, m.first == m.second && m.first);
    }
}

TEST_F(Session, ResultFailuresLeaveNoMessageAndLogTheCall)
{
    auto check = [&](Bytes peer, int32_t id, const CMP_LDAP_TIMEVAL *t, int code,
                     const char *head) {
        fake::clear_log();
        peer.empty() ? fake::peer_timeout() : fake::peer_data(peer);
        EXPECT_EQ(cmp_ldap_result(ld_, id, 0, t, &res_), -1);
        EXPECT_EQ(res_, nullptr);
        EXPECT_EQ(ld_->ld_errno, code);
        EXPECT_TRUE(dumped("cmp_ldap_result", code));
        char call[200];
        snprintf(call, sizeof call, "msgid=%d,all=0,timeout=%p,tv_sec=%ld,tv_usec=%ld,res=%p.\n",
                 id, (const void *)t, t ? t->tv_sec : 0L, t ? t->tv_usec : 0L, (void *)&res_);
        EXPECT_EQ(fake::log().back(), err(code, std::string("cmp_ldap_result(): ") + head + call));
    };
    const CMP_LDAP_TIMEVAL tv{2, 5000};
    check(pdu(3, 0x67), 3, &tv, 259, "Unexpected message.application=7 ");  // ModifyResponse
    check({}, 4, &tv, 260, "rc=-1 ");
    check(hex("30 03 02 01 01"), -1, nullptr, 259, "Failed to decode CMP_LDAP_MESSAGE.");
}

TEST_F(Session, SimpleBindSendsItsPduAndTracesIt)
{
    EXPECT_EQ(cmp_ldap_bind(ld_, "cn=a", "xyz", nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE), 1);
    EXPECT_EQ(fake::sent(), hex("30 13 02 01 01 60 0E 02 01 03 04 04 63 6E 3D 61 80 03 78 79 7A"));
    EXPECT_EQ(fake::log(), Log{trace("cmp_ldap_simple_bind(): msgid=1,dn=cn=a,passwd=xyz.\n")});
}

TEST_F(Session, RefusalsLogTheirCheckAndTakeNoId)
{
    auto check = [&](const std::string &line, size_t lines, const Op &op) {  // lines: all logged
        fake::clear_log();
        EXPECT_EQ(op(), -1) << line;
        const bool no_handle = line.find("ld=NULL") != std::string::npos;
        EXPECT_EQ(ld_->ld_errno, no_handle ? 0 : 264) << line;
        EXPECT_EQ(ld_->ld_mid, 0);
        EXPECT_EQ(fake::log().size(), lines) << line;
        EXPECT_EQ(fake::log().at(0), err(no_handle ? -1 : 264, line));
        preset();
    };
    const std::string b = "cmp_ldap_bind(): parameter error ",
                      a = "cmp_ldap_abandon(): parameter error ";
    auto bind = [&](CMP_LDAP *ld, const char *dn, const char *cred, uint32_t method) {
        return [=] { return cmp_ldap_bind(ld, dn, cred, "dom", nullptr, method); };
    };
    check(b + "ld=NULL.dn=a,cred=x,domain=dom,method=0x80.\n", 1, bind(nullptr, "a", "x", 0x80));
    check(a + "(ld=NULL).msgid=7.\n", 1, [] { return cmp_ldap_abandon(nullptr, 7); });
    check(b + "(either of dn, cred).\n", 1, bind(ld_, nullptr, "xyz", 0x80));
    check(b + "(either of dn, cred).\n", 1, bind(ld_, "cn=a", nullptr, 0x80));
    check(b + "(method=0x81).\n", 1, bind(ld_, "cn=a", "xyz", 0x81));
    check(a + "(msgid=-1).\n", 3, [&] { return cmp_ldap_abandon(ld_, -1); });
    const std::string over(385, 'a');
    auto s = [&](const std::string &message, const Script &change) {
        change();
        check("cmp_ldap_check_search_tiny_params(): parameter error " + message + ".\n",
              target ? 6 : 5, [&] { return search(); });
    };
    s("(ld=NULL)", [&] { target = nullptr; });
    s("(base=NULL)", [&] { base = nullptr; });
    s("(scope=3)", [&] { scope = 3; });
    s("(ld_deref=4)", [&] { ld_->ld_deref = 4; });
    s("(ld_deref=-1)", [&] { ld_->ld_deref = -1; });
    s("(ld_sizelimit=-1)", [&] { ld_->ld_sizelimit = -1; });
    s("(ld_timelimit=-5)", [&] { ld_->ld_timelimit = -5; });
    s("(attrs=NULL)", [&] { attrs = nullptr; });
    s("(search attributes length=385)", [&] { attrs = over.c_str(); });
    s("(attrsonly=2)", [&] { only = 2; });
    s("(filter->cmp_ldap_filterCond=4)", [&] { f.cmp_ldap_filterCond = 4; });
    s("(filter->cmp_ldap_searchCond=2)", [&] { f.cmp_ldap_searchCond = 2; });
    /* the caller's fixed fields need no terminator to be measured */
    s("(filter->cmp_ldap_attr length=385)", [&] { memset(f.cmp_ldap_attr, 'a', 385); });
    s("(filter->cmp_ldap_value length=385)", [&] { memset(f.cmp_ldap_value, 'v', 385); });
    s("(filter_present->cmp_ldap_searchCond=2)",
      [&] { present = &pr, pr.cmp_ldap_searchCond = 2; });
    s("(filter_present->attr length=385)", [&] { present = &pr, memset(pr.attr, 'p', 385); });
    s("(scope=9)", [&] { only = 7, scope = 9, ld_->ld_sizelimit = -1; });  // the first reported
    attrs = over.c_str() + 1;
    present = &pr;
    memset(f.cmp_ldap_attr, 'b', 384);
    memset(f.cmp_ldap_value, 'c', 384);
    memset(pr.attr, 'd', 384);
    f.cmp_ldap_searchCond = pr.cmp_ldap_searchCond = 1;
    EXPECT_EQ(search(), 1);  // 384 is the longest text taken, or the highest condition
}

TEST_F(Session, FailuresAfterTheIdKeepItFreeAllAndLogTheCall)
{
    static int tls_object;
    const std::string huge(1u << 24, 'b');
    const char *b = "cmp_ldap_simple_bind", *a = "cmp_ldap_abandon", *s = "cmp_ldap_search_tiny";
    /* last: the last line, which reports the code (bind) or ends a dump (no code) */
    auto check = [&](const char *name, std::string last, int code, Op op, Script setup) {
        preset();
        fake::clear_log();
        setup();
        int32_t id = ld_->ld_mid + 1;
        EXPECT_EQ(op(), -1);
        EXPECT_EQ(ld_->ld_errno, code) << name;
        EXPECT_EQ(ld_->ld_mid, id) << name;
        EXPECT_TRUE(dumped(name, code)) << name << " " << code;
        EXPECT_EQ(fake::log().back(), err(name == b ? code : -1, name + last));
        ld_->ld_ssl_conn = nullptr;
    };
    auto a_last = [](int code) {
        return "(): ld: ld_errno=" + std::to_string(code) +
               ",ld_matched=(null),ld_error=(null),ld_referral=(null).\n";
    };
    const std::string b_last = "(): dn=cn=a,passwd=xyz.\n", s_last = "(): filter_present=NULL.\n";
    Op bind = [&] { return cmp_ldap_bind(ld_, "cn=a", "xyz", nullptr, nullptr, 0x80); };
    Op abandon = [&] { return cmp_ldap_abandon(ld_, 1); }, find = [&] { return search(); };
    check(b, b_last, 265, bind, kNoMemory);
    check(b, b_last, 256, bind, kSendFails);
    check(a, a_last(265), 265, abandon, kNoMemory);
    check(a, a_last(260), 260, abandon, kSendTimesOut);
    check(s, s_last, 256, find, kSendFails);
    check(s, s_last, 260, find, kSendTimesOut);
    check(s, s_last, 272, find, [&] {
        ld_->ld_ssl_conn = &tls_object;
        fake::set_tls({0, 0, 0, 0, 0, {OSL_SCR_SSL_WRP_ERR_IO}});
    });
    check(s, s_last, 264, find, [&] { base = huge.c_str(); });  // too long to encode
    EXPECT_EQ(fake::live_blocks(), 1);                          // the handle
}

TEST_F(Session, UnbindSendsItsPduAndTearsTheSessionDown)
{
    auto check = [&](int32_t mid, bool tls, int32_t send, int rc, const char *pdu) {
        fake::reset();
        connect();
        ld_->ld_mid = mid;
        ld_->ld_error = cmp_ldap_strdup("diagnostic");
        ld_->ld_matched = cmp_ldap_strdup("dc=x");
        EXPECT_EQ(tls ? cmp_ldap_tls_start(ld_, &p_) : 0, 0);
        if (send != 0) fake::script_send({send});
        EXPECT_EQ(cmp_ldap_unbind(std::exchange(ld_, nullptr)), rc);
        EXPECT_EQ(to_hex(fake::sent()), to_hex(hex(pdu)));
        EXPECT_EQ(fake::tls_calls().size(), tls ? 4u : 0u);  // init, connect, shutdown, term
        EXPECT_EQ(fake::open_sockets(), 0);
        EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
        EXPECT_EQ(dumped("cmp_ldap_unbind", rc), rc != 0);
    };
    check(4, false, 0, 0, "30 05 02 01 05 42 00");
    check(299, false, 0, 0, "30 06 02 02 01 2C 42 00");
    check(127, false, 0, 0, "30 05 02 01 80 42 00");       // top bit set, one octet: deliberate
    check(65534, false, 0, 0, "30 06 02 02 FF FF 42 00");  // likewise two octets
    check(254, false, 0, 0, "30 05 02 01 FF 42 00");
    check(0, true, 0, 0, "30 05 02 01 01 42 00");
    check(0, false, -1, 256, "");  // a failed send still tears the session down
    // without memory it stays open and usable
    fake::reset();
    connect();
    kNoMemory();
    EXPECT_EQ(cmp_ldap_unbind(ld_), CMP_LDAP_NO_MEMORY);
    EXPECT_EQ(ld_->ld_errno, 265);
    EXPECT_EQ(fake::open_sockets(), 1);
    EXPECT_TRUE(dumped("cmp_ldap_unbind", 265));
    EXPECT_EQ(cmp_ldap_unbind(std::exchange(ld_, nullptr)), 0);
    EXPECT_EQ(fake::sent(), hex("30 05 02 01 02 42 00"));
    EXPECT_EQ(cmp_ldap_unbind(nullptr), CMP_LDAP_PARAM_ERROR);
    EXPECT_TRUE(logged_whole(err(264, "cmp_ldap_unbind(): parameter error (ld==NULL).\n")));
    const size_t closed = fake::closed_sockets().size();
    CMP_LDAP idle{}; /* never connected, then dropped: the teardown has nothing to close */
    cmp_ldap_close_connection(&idle);
    idle.ld_sockfd = CMP_LDAP_DROPPED_SOCKET;
    cmp_ldap_close_connection(&idle);
    EXPECT_EQ(fake::closed_sockets().size(), closed);
}

TEST_F(Session, AbandonWritesEachIdInItsWidth)
{
    auto check = [&](int32_t mid, int32_t a, const char *pdu) {
        size_t from = fake::sent().size();
        ld_->ld_mid = mid;
        EXPECT_EQ(cmp_ldap_abandon(ld_, a), 0);
        EXPECT_EQ(ld_->ld_mid, mid + 1);
        EXPECT_EQ(Bytes(fake::sent().begin() + (long)from, fake::sent().end()), hex(pdu));
    };
    check(4, 3, "30 06 02 01 05 50 01 03");
    check(255, 300, "30 08 02 02 01 00 50 02 01 2C");
    check(255, 254, "30 07 02 02 01 00 50 01 FE");
    check(4, 300, "30 07 02 01 05 50 02 01 2C");
    check(255, 255, "30 06 02 01 00 50 01 FF");  // n's low octet alone: deliberate quirk
    check(254, 0, "30 06 02 01 FF 50 01 00");
}

TEST_F(Session, SearchSendsTheWorkedExampleAndLeavesOutEmptyFilters)
{
    EXPECT_EQ(search(), 1);
    EXPECT_EQ(to_hex(fake::sent()), to_hex(hex(kExample)));
    EXPECT_EQ(fake::log(), (Log{trace("cmp_ldap_search_tiny(): msgid=1,base=dc=example,scope=2,"
                                      "attrs=cn,mail,attrsonly=0.\n"),
                                trace("cmp_ldap_search_tiny(): filter: filterCond=3,searchCond=0,"
                                      "attr=cn,value=abc.\n")}));
    for (bool given : {false, true}) {  // filters parsing to nothing are left out
        fake::reset();
        connect();
        filter = given ? &f : nullptr;
        present = given ? &pr : nullptr;
        f.cmp_ldap_value[0] = '\0';
        attrs = "";
        strcpy(pr.attr, " , ");
        EXPECT_EQ(search(), 1);
        EXPECT_EQ(to_hex(fake::sent()), to_hex(hex(kNoFilter)));
    }
}

TEST_F(Session, SearchWithEveryAllocationFailingInTurnLeavesNothing)
{
    long n = sweep_alloc_failures([&](long k) {
        connect();
        present = &pr;
        fake::arm_alloc_failure(k);
        EXPECT_EQ(search(), k ? -1 : 1);
        EXPECT_EQ(ld_->ld_errno, k ? 265 : 0) << k;
        EXPECT_EQ(ld_->ld_mid, 1) << k;
        end();
    });
    EXPECT_EQ(n, 6);  // parsed filter, attribute array and its 2 strings, presence filter, request
}
