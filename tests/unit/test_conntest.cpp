/* The connection test: parameters, the result map, the sequence in both forms,
 * the asynchronous start, its check points and cancel, and every allocation and
 * OS-wrapper call failing. */
#include <atomic>
#include <functional>
#include <future>
#include <map>
#include <thread>

#include "cmp_ldap_internal.h"
#include "support.h"

using support::Bytes;
using support::err;
using support::hex;
using support::logged_whole;
using support::octets;
using support::operator+;
using support::tlv;
using Script = std::function<void()>;

namespace {

constexpr int32_t kOsError = 0x0b;
const char kBase[] = "dc=example,dc=test";

/* A response: id, then the protocolOp. */
Bytes pdu(uint8_t id, uint8_t op, const Bytes &content)
{
    return tlv(0x30, Bytes{0x02, 0x01, id} + tlv(op, content));
}
Bytes result(uint8_t id, uint8_t op, uint8_t code)
{
    return pdu(id, op, {0x0a, 0x01, code, 0x04, 0x00, 0x04, 0x00});
}
Bytes entry(const std::string &dn)
{
    return pdu(2, 0x64, octets(dn) + Bytes{0x30, 0x00});
}
Script peer(std::vector<Bytes> pdus)
{
    return [pdus] {
        for (const Bytes &b : pdus)
            fake::peer_data(b);
    };
}
const Bytes kBindOk = result(1, 0x61, 0);
const Bytes kDone = result(2, 0x65, 0);
/* A bind, then a search that finds the base entry. */
const std::vector<Bytes> kFound = {kBindOk, entry(kBase), kDone};

/* The requests the core sent, by their protocolOp: "bind search unbind". */
std::string ops(const Bytes &sent)
{
    static const std::map<uint8_t, std::string> names = {
        {0x60, "bind"}, {0x63, "search"}, {0x50, "abandon"}, {0x42, "unbind"}, {0x77, "starttls"}};
    std::string out;
    for (size_t pos = 0; pos + 4 < sent.size(); pos += 2u + sent[pos + 1]) {
        auto it = names.find(sent[pos + 4 + sent[pos + 3]]);
        out += (out.empty() ? "" : " ") + (it == names.end() ? "?" : it->second);
    }
    return out;
}

long errors()
{
    long n = 0;
    for (const fake::LogLine &l : fake::log())
        n += l.level == 0;
    return n;
}

std::atomic<uint32_t> g_result{0};
std::atomic<int> g_callbacks{0};
/* Set by a test that wants the callback to hold the test task until released. */
std::function<void()> g_in_callback;

void on_result(uint32_t result)
{
    g_result = result;
    ++g_callbacks;
    if (g_in_callback) g_in_callback();
}

class ConnTest : public support::FakePortTest {
  protected:
    void SetUp() override { start_afresh(); }
    /* A new port (all FakePortTest::SetUp does), process state as at load, default parameters. */
    void start_afresh()
    {
        fake::reset();
        s_async_test_idle = 1;
        s_async_test_msem_id = 0;
        g_result = 0xdeadbeef;
        g_callbacks = 0;
        g_in_callback = nullptr;
        fake::set_resolver(0, {fake::ipv4("192.0.2.10")});
        p_ = CMP_LDAP_TEST_PARAM{};
        p_.connparam.cmp_ldap_hostname = host_;
        p_.connparam.portno = 389;
        p_.connparam.timeout = 5;
        p_.dn = dn_;
        p_.cred = cred_;
        p_.method = CMP_LDAP_AUTH_SIMPLE;
        strcpy(base_, kBase);
        p_.base = base_;
    }
    /* The caller's identity record, from the OS wrapper's memory. */
    CMP_LDAP_ASYNC_TEST_ID *new_id()
    {
        return static_cast<CMP_LDAP_ASYNC_TEST_ID *>(zelOSWSubAllocMem(sizeof(*id_)));
    }
    /* Starts the asynchronous test; when it runs, waits for the task's end. */
    uint32_t run_async()
    {
        id_ = new_id();
        started_ = false;
        uint32_t started = cmp_ldap_async_test(&p_, on_result, id_);
        started_ = true;
        if (started == 0) {
            EXPECT_EQ(zelOSWWaitTask(id_->task_id, -1), 0);
        }
        return started;
    }
    void free_id() { zelOSWOrgFreeMemPart(0, std::exchange(id_, nullptr)); }
    /* The task body on this thread, its queue holding msg and its first checks
     * scripted to find nothing. */
    uint32_t run_task_here(int quiet_checks, CMP_LDAP_ASYNC_TEST_ID msg, int32_t receive_rc = 0)
    {
        s_async_test_idle = 0;
        EXPECT_EQ(zelOSWCreateMutexSem(&s_async_test_msem_id, 0, 1), 0);
        auto *id = static_cast<CMP_LDAP_ASYNC_TEST_ID *>(cmp_ldap_malloc("test", 8));
        EXPECT_EQ(zelOSWCreateMsgQueue(&id->msgq_id, 1, 8, 0), 0);
        id->task_id = 77;
        msg.msgq_id = msg.msgq_id == 0 ? id->msgq_id : msg.msgq_id;
        EXPECT_EQ(zelOSWSendMsgQueue(id->msgq_id, &msg, 8, 0, 0), 0);
        std::vector<int32_t> receives(quiet_checks, ZELOSW_NO_MESSAGE);
        receives.push_back(receive_rc);
        fake::script_os("zelOSWReceiveMsgQueue", receives);
        fake::clear_log();
        cmp_ldap_test_connection(cmp_ldap_test_copy_param(&p_), on_result, id);
        EXPECT_EQ(g_callbacks.load(), 1);
        return g_result;
    }

    char host_[16] = "ldap.example";
    char dn_[16] = "cn=admin";
    char cred_[8] = "pw";
    char base_[32] = "dc=example,dc=test";
    CMP_LDAP_TEST_PARAM p_{};
    CMP_LDAP_ASYNC_TEST_ID *id_ = nullptr;
    std::atomic<bool> started_{false}; /* run_async's start has returned */
};

}  // namespace

TEST_F(ConnTest, ResultMapRowsInOrderAndItsDefault)
{
    /* each result with the codes that map to it */
    const std::pair<uint32_t, std::vector<int32_t>> rows[] = {
        {0, {0}},
        {0x51033101, {2, 3, 256, 259}},
        {0x51039182, {32}},
        {0x51031102, {49, 280}},
        {0x5103720f, {80}},
        {0x51032203, {260}},
        {0x51035105, {263}},
        {0x51039181, {264}},
        {0x51037101, {265}},
        {0x51031131, {266, 267, 273}},
        {0x51031132, {268, 269, 270, 271, 274, 275}},
        {0x51032231, {272}},
        {0x51031101, {277}},
        {0x51037102, {278}},
        {0x51032101, {279}},
        {0x51039184, {281}},
        {0x51039183, {282}},
        /* absent codes, and -1 itself, take the default */
        {0x5103720f, {257, 258, 261, 262, 276, 283, 284, 285, 1, -1, -2}},
    };
    for (const auto &r : rows)
        for (int32_t code : r.second)
            EXPECT_EQ(cmp_ldap_test_device_result(code), r.first) << code;
}

TEST_F(ConnTest, CopyAndFreeParameters)
{
    CMP_LDAP_TEST_PARAM full = p_;
    full.domain = const_cast<char *>("EXAMPLE.TEST");
    full.ccname = const_cast<char *>("/tmp/cc");
    full.method = CMP_LDAP_AUTH_SASL;
    full.connparam.ssl_accepted_signature_algorithm = 0x81;
    full.sasl_min_ssf = 1;
    full.sasl_max_ssf = 256;
    CMP_LDAP_TEST_PARAM *copy = cmp_ldap_test_copy_param(&full);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy->dn, full.dn);
    EXPECT_STREQ(copy->connparam.cmp_ldap_hostname, "ldap.example");
    EXPECT_STREQ(copy->ccname, "/tmp/cc");
    EXPECT_STREQ(copy->base, kBase);
    EXPECT_EQ(copy->method, CMP_LDAP_AUTH_SASL);
    EXPECT_EQ(copy->connparam.ssl_accepted_signature_algorithm, 0x81);
    EXPECT_EQ(copy->sasl_min_ssf, 1u);
    EXPECT_EQ(copy->sasl_max_ssf, 256u);
    EXPECT_EQ(fake::alloc_sizes().size(), 7u);
    cmp_ldap_test_free_param(copy);

    CMP_LDAP_TEST_PARAM empty{};
    empty.connparam.portno = 636;
    copy = cmp_ldap_test_copy_param(&empty);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(memcmp(copy, &empty, sizeof empty), 0);
    cmp_ldap_test_free_param(copy);
    cmp_ldap_test_free_param(nullptr);
    EXPECT_TRUE(fake::log().empty());

    EXPECT_EQ(cmp_ldap_test_copy_param(nullptr), nullptr);
    EXPECT_TRUE(logged_whole(err(-1, "cmp_ldap_test_copy_param(): parameter error.\n")));

    /* A failed text does not stop the others: all seven allocations are tried. */
    long n = support::sweep_alloc_failures([&](long k) {
        fake::arm_alloc_failure(k);
        copy = cmp_ldap_test_copy_param(&full);
        EXPECT_EQ(copy == nullptr, k != 0);
        EXPECT_EQ(fake::allocs_since_arm(), k == 1 ? 1 : 7) << k;
        cmp_ldap_test_free_param(copy);
    });
    EXPECT_EQ(n, 7);
}

/* The same table through cmp_ldap_test and the asynchronous test: same result,
 * same requests, same log line (named after the form). */
TEST_F(ConnTest, SequenceGivesTheSameResultsInBothForms)
{
    const std::string count_line = "(): number of entries is not proper.entry_count=";
    struct Case {
        const char *what;
        Script peer; /* the peer's PDUs, served before whatever setup scripts */
        Script setup;
        uint32_t result;
        const char *ops;
        int32_t rc;
        std::string line; /* "" none; a line starting "(" is prefixed with the form's name */
    };
    const Case cases[] = {
        {"found", peer(kFound), [] {}, 0, "bind search unbind", 0, ""},
        {"empty base", peer({kBindOk}), [&] { base_[0] = '\0'; }, 0, "bind unbind", 0, ""},
        {"no base", peer({kBindOk}), [&] { p_.base = nullptr; }, 0, "bind unbind", 0, ""},
        {"blanks aside", peer(kFound), [&] { strcpy(base_, " dc=example, dc=test "); }, 0,
         "bind search unbind", 0, ""},
        {"case differs", peer({kBindOk, entry("DC=example,dc=test"), kDone}), [] {}, 0x51039182,
         "bind search unbind", 32,
         "cmp_ldap_test_check_search_result(): CMP_LDAP_RES_SEARCH_ENTRY "
         "error.objname=DC=example,dc=test,base=dc=example,dc=test.\n"},
        {"no entry", peer({kBindOk, result(2, 0x65, 32)}), [] {}, 0x51039182, "bind search unbind",
         -1, count_line + "0.\n"},
        {"two entries", peer({kBindOk, entry(kBase), entry(kBase), kDone}), [] {}, 0x51039182,
         "bind search unbind", -1, count_line + "2.\n"},
        {"reference passed over",
         peer({kBindOk, pdu(2, 0x73, octets("ldap://x/")), entry(kBase), kDone}), [] {}, 0,
         "bind search unbind", 0, ""},
        {"entry without its DN", peer({kBindOk, pdu(2, 0x64, {}), kDone}), [] {}, 0x51033101,
         "bind search unbind", 0, ""},
        {"search answered by a BindResponse", peer({kBindOk, result(2, 0x61, 0)}), [] {},
         0x51033101, "bind search unbind", 2,
         "cmp_ldap_test_check_search_result(): cmp_ldap_result search other case.rc=1.\n"},
        {"wrong password", peer({result(1, 0x61, 49)}), [] {}, 0x51031102, "bind unbind", 0, ""},
        {"bind response late", [] {}, [] { fake::peer_timeout(); }, 0x51032203, "bind unbind", 0,
         ""},
        {"search response late", peer({kBindOk}), [] { fake::peer_timeout(); }, 0x51032203,
         "bind search unbind", 0, ""},
        {"server gone", [] {}, [] {}, 0x51033101, "bind unbind", 0, ""},
        {"connect late", [] {}, [] { fake::script_connect({CMP_NETSOCK_TIMEOUT}); }, 0x51032102, "",
         0, ""},
        {"connect refused", [] {}, [] { fake::script_connect({-1}); }, 0x51032101, "", 0, ""},
        {"name unknown", [] {}, [] { fake::set_resolver(-2, {}); }, 0x51031101, "", 0, ""},
        {"no socket", [] {}, [] { fake::script_socket({-1}); }, 0x51037102, "", 0, ""},
        {"bad parameter", [] {}, [&] { p_.connparam.ipv6 = 2; }, 0x51039181, "", 0, ""},
        {"unknown method", [] {}, [&] { p_.method = 0x81; }, 0x51039181, "unbind", 0, ""},
        {"layer range upside down, before the bind", [] {},
         [&] {
             p_.method = CMP_LDAP_AUTH_SASL;
             p_.sasl_min_ssf = 57;
             p_.sasl_max_ssf = 56;
         },
         0x51039181, "unbind", 0, ""},
        {"simple bind ignores the layer", peer(kFound),
         [&] {
             p_.sasl_min_ssf = 57;
             p_.sasl_max_ssf = 56;
         },
         0, "bind search unbind", 0, ""},
        {"TLS refused", [] {},
         [&] {
             p_.connparam.tls_mod = 2;
             fake::set_tls({0, 0, OSL_SCR_SSL_WRP_ERR_HANDSHAKE_D, 0, 0, {}});
         },
         0x51031132, "", 0, ""},
        {"LDAP switched off", peer(kFound), [] { fake::set_setting(0, 0); }, 0,
         "bind search unbind", 0, ""},
    };
    for (const Case &c : cases) {
        for (bool async : {false, true}) {
            const std::string form = async ? "cmp_ldap_test_connection" : "cmp_ldap_test";
            SCOPED_TRACE(std::string(c.what) + " / " + form);
            start_afresh();
            c.peer();
            c.setup();
            uint32_t result = async ? run_async() : cmp_ldap_test(&p_);
            if (async) {
                EXPECT_EQ(result, 0u);
            }
            EXPECT_EQ(async ? g_result.load() : result, c.result);
            EXPECT_EQ(g_callbacks.load(), async ? 1 : 0);
            EXPECT_EQ(ops(fake::sent()), c.ops);
            std::string line = c.line[0] == '(' ? form + c.line : c.line;
            EXPECT_TRUE(line.empty() || logged_whole(err(c.rc, line))) << line;
            EXPECT_EQ(fake::setting_reads(), 0);
            EXPECT_EQ(fake::open_sockets(), 0);
            EXPECT_EQ(fake::live_queues(), 0);
            EXPECT_EQ(s_async_test_idle, 1u);
            if (async) free_id();
            EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
        }
    }
}

/* The requests of a test that finds its entry, octet for octet: the search is a
 * base-object lookup of the base entry, aliases always dereferenced, one entry at
 * most, the time-out as its time limit, attribute types only and no attributes. */
TEST_F(ConnTest, RequestsOfAFullTest)
{
    peer(kFound)();
    p_.connparam.timeout = 7;
    EXPECT_EQ(cmp_ldap_test(&p_), 0u);
    EXPECT_EQ(support::to_hex(fake::sent()),
              support::to_hex(hex("30 16 02 01 01 60 11 02 01 03 04 08 63 6E 3D 61 64 6D 69 6E "
                                  "80 02 70 77"
                                  "30 3C 02 01 02 63 37 04 12 64 63 3D 65 78 61 6D 70 6C 65 2C 64 "
                                  "63 3D 74 65 73 74 0A 01 00 0A 01 03 02 01 01 02 01 07 01 01 FF "
                                  "87 0B 6F 62 6A 65 63 74 43 6C 61 73 73 30 05 04 03 31 2E 31"
                                  "30 05 02 01 03 42 00")));
    EXPECT_EQ(fake::recv_timeouts(), std::vector<long>(fake::recv_timeouts().size(), 7000));

    /* without a time-out the waits are unlimited and the server's time limit is none */
    start_afresh();
    peer(kFound)();
    p_.connparam.timeout = -1;
    EXPECT_EQ(cmp_ldap_test(&p_), 0u);
    EXPECT_NE(support::to_hex(fake::sent()).find("02 01 01 02 01 00 01 01 FF"), std::string::npos);
    EXPECT_EQ(fake::recv_timeouts(), std::vector<long>(fake::recv_timeouts().size(), -1));

    start_afresh();
    EXPECT_EQ(cmp_ldap_test(nullptr), 264u);
    EXPECT_TRUE(logged_whole(err(264, "cmp_ldap_test(): parameter error.param=NULL.\n")));
}

/* A cancel found at each check point of the task; a queue that fails or holds a
 * stranger's message ends the test as well. */
TEST_F(ConnTest, CheckPointsOfTheTask)
{
    const std::string receive =
        "cmp_ldap_test_connection_cancel_receive(): error. "
        "zelOSWReceiveMsgQueue[0x0000000";
    struct Case {
        int quiet;
        CMP_LDAP_ASYNC_TEST_ID msg;
        int32_t receive_rc;
        uint32_t result;
        const char *ops;
        std::string line;
    };
    const Case cases[] = {
        {0, {77, 0}, 0, 0x51035105, "", ""},
        {1, {77, 0}, 0, 0x51035105, "unbind", ""},
        {2, {77, 0}, 0, 0x51035105, "bind unbind", ""},
        {3, {77, 0}, 0, 0x51035105, "bind unbind", ""},
        {4, {77, 0}, 0, 0x51035105, "bind search abandon unbind", ""},
        {5, {77, 0}, 0, 0, "bind search unbind", ""}, /* no check point after the search */
        {0, {78, 0}, 0, 0x5103720f, "", receive + "0]\n"},
        {4, {77, 0}, kOsError, 0x5103720f, "bind search unbind", receive + "b]\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.quiet);
        start_afresh();
        peer(kFound)();
        EXPECT_EQ(run_task_here(c.quiet, c.msg, c.receive_rc), c.result);
        EXPECT_EQ(ops(fake::sent()), c.ops);
        EXPECT_TRUE(c.line.empty() || logged_whole(err(c.receive_rc, c.line))) << c.line;
        EXPECT_EQ(errors(), c.line.empty() ? 0 : 1);
        EXPECT_EQ(s_async_test_idle, 1u);
        EXPECT_EQ(fake::live_queues(), 0);
        /* the abandon names the search: id 3 abandons id 2 */
        if (strstr(c.ops, "abandon") != nullptr) {
            EXPECT_NE(
                support::to_hex(fake::sent()).find("30 06 02 01 03 50 01 02 30 05 02 01 04 42"),
                std::string::npos);
        }
    }
}

TEST_F(ConnTest, StartAndCancel)
{
    /* a cancel before any test ever ran */
    CMP_LDAP_ASYNC_TEST_ID any{1, 2};
    EXPECT_EQ(cmp_ldap_async_test_cancel(&any), 0x5103720fu);
    EXPECT_TRUE(logged_whole(
        err(-1, "cmp_ldap_async_test_cancel(): error. s_async_test_msem_id is NULL.\n")));
    EXPECT_EQ(cmp_ldap_async_test_cancel(nullptr), 264u);
    EXPECT_TRUE(
        logged_whole(err(264, "cmp_ldap_async_test_cancel(): parameter error.conninfo=NULL.\n")));
    EXPECT_EQ(cmp_ldap_async_test(nullptr, on_result, &any), 264u);
    char line[160];
    snprintf(line, sizeof line,
             "cmp_ldap_async_test(): parameter error.param=%p,result_callback=%p,conninfo=%p.\n",
             nullptr, reinterpret_cast<void *>(on_result), (void *)&any);
    EXPECT_TRUE(logged_whole(err(264, line)));

    /* a cancel after the end sends nothing */
    peer(kFound)();
    ASSERT_EQ(run_async(), 0u);
    EXPECT_EQ(g_result.load(), 0u);
    EXPECT_EQ(id_->msgq_id != 0 && id_->task_id != 0 && id_->task_id != id_->msgq_id, true);
    fake::clear_log();
    EXPECT_EQ(cmp_ldap_async_test_cancel(id_), 0u);
    std::vector<std::string> calls = fake::os_calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "zelOSWSendMsgQueue"), 0);
    EXPECT_TRUE(fake::log().empty());
    free_id();

    /* while a test runs (held in its callback): a second start is refused and the
     * first goes on untouched; a cancel is sent, too late to matter */
    std::promise<void> entered, go;
    std::future<void> released = go.get_future();
    g_in_callback = [&] {
        entered.set_value();
        released.wait();
    };
    peer(kFound)();
    g_callbacks = 0;
    id_ = new_id();
    ASSERT_EQ(cmp_ldap_async_test(&p_, on_result, id_), 0u);
    entered.get_future().wait();
    CMP_LDAP_ASYNC_TEST_ID *second = new_id();
    EXPECT_EQ(cmp_ldap_async_test(&p_, on_result, second), 0x5103720fu);
    EXPECT_TRUE(logged_whole(
        err(-1, "cmp_ldap_async_test(): error. nts_cls_async_test is executing now.\n")));
    EXPECT_EQ(cmp_ldap_async_test_cancel(id_), 0u);
    calls = fake::os_calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "zelOSWSendMsgQueue"), 1);
    go.set_value();
    EXPECT_EQ(zelOSWWaitTask(id_->task_id, -1), 0);
    EXPECT_EQ(g_result.load(), 0u);
    EXPECT_EQ(g_callbacks.load(), 1);
    EXPECT_EQ(fake::live_queues(), 0);
    zelOSWOrgFreeMemPart(0, second);
    free_id();
}

/* Each OS-wrapper call of a start, a test task and a cancel failing in turn. */
TEST_F(ConnTest, OsWrapperCallsFailingInTurn)
{
    const char *const kReceiver = "cmp_ldap_test_connection_cancel_receive";
    const char *const kFinisher = "cmp_ldap_test_connection_finish";
    struct Case {
        const char *function;
        int nth;          /* the nth call of the function fails */
        uint32_t started; /* what the start returns */
        uint32_t result;  /* what the callback gets (none when the start failed) */
        const char *name; /* the function whose line reports it */
        long queues;      /* queues left behind */
        bool released;    /* the start released the caller's record */
    };
    const Case cases[] = {
        {"zelOSWCreateMsgQueue", 1, 0x5103720f, 0, "cmp_ldap_async_test", 0, false},
        {"zelOSWCreateMutexSem", 1, 0x5103720f, 0, "cmp_ldap_async_test", 0, false},
        {"zelOSWRequestMutexSem", 1, 0x5103720f, 0, "cmp_ldap_async_test", 0, true},
        {"zelOSWCreateJoinTask", 1, 0x5103720f, 0, "cmp_ldap_async_test", 0, true},
        {"zelOSWReleaseMutexSem", 1, 0, 0, "cmp_ldap_async_test", 0, false},
        {"zelOSWReceiveMsgQueue", 1, 0, 0x5103720f, kReceiver, 0, false},
        {"zelOSWReceiveMsgQueue", 4, 0, 0x5103720f, kReceiver, 0, false},
        {"zelOSWRequestMutexSem", 2, 0, 0, kFinisher, 1, false},
        {"zelOSWDeleteMsgQueue", 1, 0, 0, kFinisher, 1, false},
        {"zelOSWReleaseMutexSem", 2, 0, 0, kFinisher, 0, false},
        {"zelOSWExitTask", 1, 0, 0, "", 0, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.function) + " #" + std::to_string(c.nth));
        start_afresh();
        base_[0] = '\0';
        peer({kBindOk})();
        std::vector<int32_t> script(c.nth - 1, 0);
        script.push_back(kOsError);
        fake::script_os(c.function, script);
        id_ = new_id();
        bool held = c.started == 0 && c.name == std::string("cmp_ldap_async_test");
        /* the task waits in its callback until the start has returned: without the
         * mutex (a failed request) nothing else keeps it from ending first */
        g_in_callback = [&] {
            while (!started_)
                std::this_thread::yield();
        };
        started_ = false;
        EXPECT_EQ(cmp_ldap_async_test(&p_, on_result, id_), c.started);
        started_ = true;
        /* a start that kept the mutex: this task still owns it and lets the test end */
        if (held) {
            EXPECT_EQ(zelOSWReleaseMutexSem(s_async_test_msem_id), 0);
        }
        if (c.started == 0) {
            EXPECT_EQ(zelOSWWaitTask(id_->task_id, -1), 0);
            EXPECT_EQ(g_result.load(), c.result);
        }
        EXPECT_EQ(g_callbacks.load(), c.started == 0 ? 1 : 0);
        std::string line = std::string(c.name) + "(): error. " + c.function + "[0x0000000b]\n";
        EXPECT_TRUE(c.name[0] == '\0' || logged_whole(err(kOsError, line))) << line;
        EXPECT_EQ(s_async_test_idle, 1u);
        EXPECT_EQ(fake::live_queues(), c.queues);
        if (!c.released) free_id();
    }

    /* a cancel while the test runs, held in its callback */
    for (const char *function :
         {"zelOSWRequestMutexSem", "zelOSWSendMsgQueue", "zelOSWReleaseMutexSem"}) {
        SCOPED_TRACE(function);
        start_afresh();
        peer(kFound)();
        g_in_callback = [&] {
            /* the task may get here before the start has released the mutex */
            while (!started_)
                std::this_thread::yield();
            fake::script_os(function, {kOsError});
            EXPECT_EQ(cmp_ldap_async_test_cancel(id_), 0x5103720fu);
            /* a release that failed leaves the mutex with this task */
            if (strcmp(function, "zelOSWReleaseMutexSem") == 0) {
                EXPECT_EQ(zelOSWReleaseMutexSem(s_async_test_msem_id), 0);
            }
        };
        EXPECT_EQ(run_async(), 0u);
        EXPECT_TRUE(
            logged_whole(err(kOsError, std::string("cmp_ldap_async_test_cancel(): error. ") +
                                           function + "[0x0000000b]\n")));
        EXPECT_EQ(g_result.load(), 0u);
        free_id();
    }
}

/* Every allocation of a full test failing in turn, in both forms. What a failure
 * gives depends on who asked for the memory. */
TEST_F(ConnTest, AllocationsFailingInTurn)
{
    const std::map<std::string, uint32_t> by_requester = {
        {"cmp_ldap_ber_decode_string", 0x51033101}, /* the entry's DN: "no DN", by design */
        {"cmp_ldap_unbind", 0},                     /* the session is closed without it */
        {"cmp_ldap_async_test", 0x51037101},
        {"cmp_ldap_test_copy_param", 0x51037101},
        {"cmp_ldap_strdup", 0x51037101}};
    for (bool async : {false, true}) {
        SCOPED_TRACE(async ? "asynchronous" : "synchronous");
        std::map<std::string, int> seen;
        long n = support::sweep_alloc_failures([&](long k) {
            start_afresh();
            peer(kFound)();
            CMP_LDAP_ASYNC_TEST_ID *id = async ? new_id() : nullptr;
            fake::arm_alloc_failure(k);
            uint32_t started = async ? cmp_ldap_async_test(&p_, on_result, id) : 0;
            if (async && started == 0) {
                EXPECT_EQ(zelOSWWaitTask(id->task_id, -1), 0);
            }
            uint32_t result = !async         ? cmp_ldap_test(&p_)
                              : started != 0 ? started
                                             : g_result.load();
            std::string requester = "none";
            for (const fake::LogLine &l : fake::log()) {
                size_t end = l.text.find("(): Failed to allocate(");
                if (end != std::string::npos) requester = l.text.substr(0, end);
            }
            ++seen[requester];
            auto it = by_requester.find(requester);
            uint32_t want = k == 0 ? 0 : it == by_requester.end() ? 0x51037101 : it->second;
            EXPECT_EQ(result, want) << "allocation " << k << " by " << requester;
            EXPECT_EQ(fake::open_sockets(), 0) << k;
            bool released = started == 0x51037101 && requester != "cmp_ldap_async_test";
            if (async && !released) zelOSWOrgFreeMemPart(0, id);
        });
        EXPECT_EQ(seen.count("cmp_ldap_unbind"), 1u);
        EXPECT_EQ(seen.count("cmp_ldap_strdup_without_space"), 1u);
        EXPECT_GE(n, async ? 17 : 10);
    }
}
