/*
 * The fake port behind fake_port.h. One lock guards all state, because the OS
 * wrapper runs task bodies on real threads.
 */
#include "fake_port.h"

#include <arpa/inet.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "cmp_dbglog.h"
#include "cmp_netsock.h"
#include "ent_set.h"
#include "zelOSW.h"

namespace fake {
namespace {

enum class EventKind { Data, Timeout, Error, Close };
struct Event {
    EventKind kind;
    Bytes bytes;
    size_t offset = 0;
    int32_t rc = 0;
    bool bytewise = false;
};

struct Queue {
    uint32_t max_messages = 1;
    uint32_t message_size = 0;
    std::deque<Bytes> messages;
};

struct State {
    // memory
    long arm_at = 0;
    bool every_after = false;
    long since_arm = 0;
    std::map<void *, uint32_t> blocks;
    std::vector<uint32_t> sizes;
    bool freed_null = false;
    long bad_pool = 0;
    // log
    std::vector<LogLine> log;
    // network
    int resolver_rc = 0;
    std::vector<Resolved> resolved;
    std::deque<int> socket_results;
    std::deque<int> connect_results;
    std::deque<int> scope_results;
    int next_fd = 3;
    std::map<int32_t, bool> sockets;  // fd -> open
    std::vector<int32_t> closed;
    std::vector<ConnectAttempt> attempts;
    long live_ai = 0;
    std::deque<Event> events;
    std::vector<long> recv_timeouts;
    std::vector<uint32_t> recv_sizes;
    std::deque<int32_t> send_results;
    Bytes sent;
    std::vector<Bytes> chunks;
    std::vector<long> send_timeouts;
    // TLS
    TlsScript tls;
    OSL_SCR_SSL_WRP_SETTINGS tls_settings{};
    long tls_ctx = 0, tls_conn = 0;
    std::vector<std::string> tls_calls;
    // OS
    std::map<std::string, std::deque<int32_t>> os_results;
    std::vector<std::string> os_calls;
    uint32_t next_id = 1;
    std::map<uint32_t, std::thread> tasks;
    std::map<uint32_t, std::unique_ptr<std::timed_mutex>> mutexes;
    std::map<uint32_t, Queue> queues;
    // settings
    int32_t setting_rc = 0;
    uint8_t setting_value = 1;
    long setting_reads = 0;
};

std::recursive_mutex g_lock;
State &st()
{
    static State *s = new State();  // never destroyed: tasks may outlive main's statics
    return *s;
}
using Guard = std::lock_guard<std::recursive_mutex>;

int32_t next_os_result(const char *function)
{
    State &s = st();
    s.os_calls.emplace_back(function);
    auto it = s.os_results.find(function);
    if (it == s.os_results.end() || it->second.empty()) return 0;
    int32_t rc = it->second.front();
    it->second.pop_front();
    return rc;
}

int take_front(std::deque<int> &q, int dflt)
{
    if (q.empty()) return dflt;
    int v = q.front();
    q.pop_front();
    return v;
}

}  // namespace

void reset()
{
    std::map<uint32_t, std::thread> tasks;
    {
        Guard g(g_lock);
        tasks.swap(st().tasks);
    }
    for (auto &t : tasks) {
        if (t.second.joinable()) t.second.join();
    }
    Guard g(g_lock);
    State &s = st();
    for (auto &b : s.blocks)
        free(b.first);
    s = State();
}

void arm_alloc_failure(long n, bool every_after)
{
    Guard g(g_lock);
    st().arm_at = n;
    st().every_after = every_after;
    st().since_arm = 0;
}
long allocs_since_arm()
{
    Guard g(g_lock);
    return st().since_arm;
}
long live_blocks()
{
    Guard g(g_lock);
    return (long)st().blocks.size();
}
std::string live_block_report()
{
    Guard g(g_lock);
    std::ostringstream out;
    for (auto &b : st().blocks)
        out << b.second << " octets at " << b.first << "\n";
    return out.str();
}
std::vector<uint32_t> alloc_sizes()
{
    Guard g(g_lock);
    return st().sizes;
}
bool freed_null_seen()
{
    Guard g(g_lock);
    return st().freed_null;
}
long bad_pool_frees()
{
    Guard g(g_lock);
    return st().bad_pool;
}

const std::vector<LogLine> &log()
{
    return st().log;
}
std::vector<std::string> log_texts()
{
    Guard g(g_lock);
    std::vector<std::string> out;
    for (auto &l : st().log)
        out.push_back(l.text);
    return out;
}
bool logged(const std::string &text)
{
    Guard g(g_lock);
    for (auto &l : st().log)
        if (l.text == text) return true;
    return false;
}
bool logged_containing(const std::string &fragment)
{
    Guard g(g_lock);
    for (auto &l : st().log)
        if (l.text.find(fragment) != std::string::npos) return true;
    return false;
}
void clear_log()
{
    Guard g(g_lock);
    st().log.clear();
}

Resolved ipv4(const char *text)
{
    Resolved r{AF_INET, Bytes(4)};
    if (inet_pton(AF_INET, text, r.addr.data()) != 1) abort();
    return r;
}
Resolved ipv6(const char *text)
{
    Resolved r{AF_INET6, Bytes(16)};
    if (inet_pton(AF_INET6, text, r.addr.data()) != 1) abort();
    return r;
}
void set_resolver(int rc, std::vector<Resolved> entries)
{
    Guard g(g_lock);
    st().resolver_rc = rc;
    st().resolved = std::move(entries);
}
void script_socket(std::vector<int> results)
{
    Guard g(g_lock);
    st().socket_results.assign(results.begin(), results.end());
}
void script_connect(std::vector<int> results)
{
    Guard g(g_lock);
    st().connect_results.assign(results.begin(), results.end());
}
void script_set_scope(std::vector<int> results)
{
    Guard g(g_lock);
    st().scope_results.assign(results.begin(), results.end());
}
const std::vector<ConnectAttempt> &connect_attempts()
{
    return st().attempts;
}
std::vector<int32_t> closed_sockets()
{
    Guard g(g_lock);
    return st().closed;
}
long open_sockets()
{
    Guard g(g_lock);
    long n = 0;
    for (auto &s : st().sockets)
        n += s.second ? 1 : 0;
    return n;
}
long live_addrinfo()
{
    Guard g(g_lock);
    return st().live_ai;
}

void peer_data(const Bytes &bytes)
{
    Guard g(g_lock);
    st().events.push_back(Event{EventKind::Data, bytes});
}
void peer_data_bytewise(const Bytes &bytes)
{
    Guard g(g_lock);
    Event e{EventKind::Data, bytes};
    e.bytewise = true;
    st().events.push_back(e);
}
void peer_timeout()
{
    Guard g(g_lock);
    st().events.push_back(Event{EventKind::Timeout, {}});
}
void peer_error(int32_t rc)
{
    Guard g(g_lock);
    Event e{EventKind::Error, {}};
    e.rc = rc;
    st().events.push_back(e);
}
void peer_close()
{
    Guard g(g_lock);
    st().events.push_back(Event{EventKind::Close, {}});
}
std::vector<long> recv_timeouts()
{
    Guard g(g_lock);
    return st().recv_timeouts;
}
std::vector<uint32_t> recv_sizes()
{
    Guard g(g_lock);
    return st().recv_sizes;
}
void script_send(std::vector<int32_t> results)
{
    Guard g(g_lock);
    st().send_results.assign(results.begin(), results.end());
}
const Bytes &sent()
{
    return st().sent;
}
std::vector<Bytes> sent_chunks()
{
    Guard g(g_lock);
    return st().chunks;
}
std::vector<long> send_timeouts()
{
    Guard g(g_lock);
    return st().send_timeouts;
}

void set_tls(const TlsScript &script)
{
    Guard g(g_lock);
    st().tls = script;
}
const OSL_SCR_SSL_WRP_SETTINGS &last_tls_settings()
{
    return st().tls_settings;
}
long live_tls_contexts()
{
    Guard g(g_lock);
    return st().tls_ctx;
}
long live_tls_connections()
{
    Guard g(g_lock);
    return st().tls_conn;
}
std::vector<std::string> tls_calls()
{
    Guard g(g_lock);
    return st().tls_calls;
}

void script_os(const std::string &function, std::vector<int32_t> results)
{
    Guard g(g_lock);
    st().os_results[function].assign(results.begin(), results.end());
}
std::vector<std::string> os_calls()
{
    Guard g(g_lock);
    return st().os_calls;
}
long live_tasks()
{
    Guard g(g_lock);
    return (long)st().tasks.size();
}
long live_queues()
{
    Guard g(g_lock);
    return (long)st().queues.size();
}
void set_setting(int32_t rc, uint8_t value)
{
    Guard g(g_lock);
    st().setting_rc = rc;
    st().setting_value = value;
}
long setting_reads()
{
    Guard g(g_lock);
    return st().setting_reads;
}

/* One receive from the scripted peer: the count, 0 for closed, or the event's code.
 * timeout_code is what a time-out returns on this path. */
static int32_t serve_receive(uint8_t *buf, uint32_t len, long timeout, int32_t timeout_code,
                             bool *is_error)
{
    State &s = st();
    s.recv_timeouts.push_back(timeout);
    s.recv_sizes.push_back(len);
    *is_error = false;
    if (s.events.empty()) return 0;
    Event &e = s.events.front();
    switch (e.kind) {
        case EventKind::Data: {
            size_t left = e.bytes.size() - e.offset;
            size_t n = left < len ? left : len;
            if (e.bytewise && n > 1) n = 1;
            memcpy(buf, e.bytes.data() + e.offset, n);
            e.offset += n;
            if (e.offset >= e.bytes.size()) s.events.pop_front();
            return (int32_t)n;
        }
        case EventKind::Timeout:
            s.events.pop_front();
            *is_error = true;
            return timeout_code;
        case EventKind::Error: {
            int32_t rc = e.rc;
            s.events.pop_front();
            *is_error = true;
            return rc;
        }
        case EventKind::Close:
            s.events.pop_front();
            return 0;
    }
    return 0;
}

static int32_t take_send(const void *buf, uint32_t len, long timeout)
{
    State &s = st();
    s.send_timeouts.push_back(timeout);
    int32_t n = (int32_t)len;
    if (!s.send_results.empty()) {
        n = s.send_results.front();
        s.send_results.pop_front();
        if (n > (int32_t)len) n = (int32_t)len;
    }
    if (n > 0) {
        const auto *p = static_cast<const uint8_t *>(buf);
        s.sent.insert(s.sent.end(), p, p + n);
        s.chunks.emplace_back(p, p + n);
    }
    return n;
}

}  // namespace fake

using fake::g_lock;
using fake::Guard;
using fake::st;

/* ================= platform interfaces ================= */

extern "C" {

void *zelOSWSubAllocMem(uint32_t size)
{
    Guard g(g_lock);
    auto &s = st();
    s.sizes.push_back(size);
    s.since_arm++;
    if (s.arm_at > 0 && (s.since_arm == s.arm_at || (s.every_after && s.since_arm > s.arm_at))) {
        return nullptr;
    }
    /* Exactly the size asked for, so AddressSanitizer sees one octet too many. */
    void *p = malloc(size == 0 ? 1 : size);
    if (p != nullptr) s.blocks[p] = size;
    return p;
}

int32_t zelOSWOrgFreeMemPart(uint32_t pool, void *block)
{
    Guard g(g_lock);
    auto &s = st();
    if (pool != 0) s.bad_pool++;
    if (block == nullptr) {
        s.freed_null = true;
        return 0;
    }
    auto it = s.blocks.find(block);
    if (it == s.blocks.end()) {
        fprintf(stderr, "fake port: free of unknown block %p\n", block);
        abort();
    }
    s.blocks.erase(it);
    free(block);
    return 0;
}

int cmp_dbglog_common_trace(const char *module, int level, int reserved, int32_t rc,
                            const char *format, ...)
{
    char line[4096];
    va_list ap;
    va_start(ap, format);
    vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    Guard g(g_lock);
    st().log.push_back(fake::LogLine{module ? module : "(null)", level, reserved, rc, line});
    if (getenv("FAKE_PORT_ECHO_LOG") != nullptr)
        fprintf(stderr, "[%s %d %d] %s", module, level, rc, line);
    return 0;
}

int cmp_netsock_getaddrinfo(const char *node, const char *service, const struct addrinfo *hints,
                            struct addrinfo **res)
{
    (void)node;
    (void)service;
    (void)hints;
    Guard g(g_lock);
    auto &s = st();
    *res = nullptr;
    if (s.resolver_rc != 0) return s.resolver_rc;
    struct addrinfo *head = nullptr, **tail = &head;
    for (auto &r : s.resolved) {
        auto *ai = static_cast<struct addrinfo *>(calloc(1, sizeof(struct addrinfo)));
        auto *ss =
            static_cast<struct sockaddr_storage *>(calloc(1, sizeof(struct sockaddr_storage)));
        ai->ai_family = r.family;
        ai->ai_socktype = SOCK_STREAM;
        ai->ai_protocol = IPPROTO_TCP;
        ai->ai_addr = reinterpret_cast<struct sockaddr *>(ss);
        if (r.family == AF_INET) {
            auto *sin = reinterpret_cast<struct sockaddr_in *>(ss);
            sin->sin_family = AF_INET;
            memcpy(&sin->sin_addr, r.addr.data(), 4);
            ai->ai_addrlen = sizeof(struct sockaddr_in);
        } else if (r.family == AF_INET6) {
            auto *sin6 = reinterpret_cast<struct sockaddr_in6 *>(ss);
            sin6->sin6_family = AF_INET6;
            memcpy(&sin6->sin6_addr, r.addr.data(), 16);
            ai->ai_addrlen = sizeof(struct sockaddr_in6);
        } else {
            ss->ss_family = (sa_family_t)r.family;
            ai->ai_addrlen = 16;
        }
        *tail = ai;
        tail = &ai->ai_next;
        s.live_ai++;
    }
    *res = head;
    return 0;
}

void cmp_netsock_freeaddrinfo(struct addrinfo *res)
{
    Guard g(g_lock);
    while (res != nullptr) {
        struct addrinfo *next = res->ai_next;
        free(res->ai_addr);
        free(res);
        st().live_ai--;
        res = next;
    }
}

int cmp_netsock_socket(int family, int type, int protocol)
{
    (void)family;
    (void)type;
    (void)protocol;
    Guard g(g_lock);
    auto &s = st();
    int fd = fake::take_front(s.socket_results, s.next_fd);
    if (fd >= 0) {
        if (fd >= s.next_fd) s.next_fd = fd + 1;
        s.sockets[fd] = true;
    }
    return fd;
}

int cmp_netsock_connect_timeo(int32_t *sockfd, const struct sockaddr *addr, uint32_t addrlen,
                              long timeout)
{
    Guard g(g_lock);
    auto &s = st();
    fake::ConnectAttempt a{};
    a.family = addr->sa_family;
    a.addrlen = addrlen;
    a.timeout = timeout;
    a.sockfd = *sockfd;
    if (addr->sa_family == AF_INET) {
        auto *sin = reinterpret_cast<const struct sockaddr_in *>(addr);
        a.port = ntohs(sin->sin_port);
        a.addr.assign(reinterpret_cast<const uint8_t *>(&sin->sin_addr),
                      reinterpret_cast<const uint8_t *>(&sin->sin_addr) + 4);
    } else if (addr->sa_family == AF_INET6) {
        auto *sin6 = reinterpret_cast<const struct sockaddr_in6 *>(addr);
        a.port = ntohs(sin6->sin6_port);
        a.addr.assign(sin6->sin6_addr.s6_addr, sin6->sin6_addr.s6_addr + 16);
        a.scope_id = sin6->sin6_scope_id;
    }
    s.attempts.push_back(a);
    int rc = fake::take_front(s.connect_results, 0);
    if (rc != 0) {
        /* A failed connect leaves no socket open. */
        s.sockets[*sockfd] = false;
        s.closed.push_back(*sockfd);
    }
    return rc;
}

int cmp_netsock_set_scope(struct sockaddr *addr, uint32_t addrlen)
{
    (void)addrlen;
    Guard g(g_lock);
    int rc = fake::take_front(st().scope_results, 0);
    if (rc == 0 && addr->sa_family == AF_INET6) {
        reinterpret_cast<struct sockaddr_in6 *>(addr)->sin6_scope_id = 7;
    }
    return rc;
}

int32_t cmp_netsock_send_timeo(int32_t sockfd, const void *buf, uint32_t len, int flags,
                               long timeout)
{
    (void)sockfd;
    (void)flags;
    Guard g(g_lock);
    return fake::take_send(buf, len, timeout);
}

int32_t cmp_netsock_recv_timeo(int32_t sockfd, void *buf, uint32_t len, int flags, long timeout)
{
    (void)sockfd;
    (void)flags;
    Guard g(g_lock);
    bool is_error = false;
    return fake::serve_receive(static_cast<uint8_t *>(buf), len, timeout, CMP_NETSOCK_TIMEOUT,
                               &is_error);
}

int cmp_netsock_close(int32_t sockfd)
{
    Guard g(g_lock);
    auto &s = st();
    s.closed.push_back(sockfd);
    auto it = s.sockets.find(sockfd);
    if (it != s.sockets.end()) it->second = false;
    return 0;
}

/* ---- TLS wrapper ---- */
static int g_tls_object;  // contexts and connections are addresses inside this

uint32_t osl_scr_ssl_wrp_init(void **ctx)
{
    Guard g(g_lock);
    auto &s = st();
    s.tls_calls.emplace_back("init");
    *ctx = nullptr;
    if (s.tls.init != 0) return s.tls.init;
    s.tls_ctx++;
    *ctx = &g_tls_object;
    return 0;
}

uint32_t osl_scr_ssl_wrp_set_verify(void *ctx)
{
    (void)ctx;
    Guard g(g_lock);
    st().tls_calls.emplace_back("set_verify");
    return st().tls.set_verify;
}

uint32_t osl_scr_ssl_wrp_connect_timeo(void *ctx, const OSL_SCR_SSL_WRP_SETTINGS *settings,
                                       void **conn)
{
    (void)ctx;
    Guard g(g_lock);
    auto &s = st();
    s.tls_calls.emplace_back("connect");
    s.tls_settings = *settings;
    *conn = nullptr;
    if (s.tls.connect != 0) return s.tls.connect;
    s.tls_conn++;
    *conn = reinterpret_cast<char *>(&g_tls_object) + 1;
    return 0;
}

uint32_t osl_scr_ssl_wrp_read_timeo(void *conn, void *buf, uint32_t len, long timeout,
                                    int32_t *count)
{
    (void)conn;
    Guard g(g_lock);
    bool is_error = false;
    int32_t n = fake::serve_receive(static_cast<uint8_t *>(buf), len, timeout,
                                    (int32_t)OSL_SCR_SSL_WRP_ERR_TIMEOUT, &is_error);
    if (is_error) {
        *count = 0;
        return (uint32_t)n;
    }
    *count = n;
    return 0;
}

uint32_t osl_scr_ssl_wrp_write_timeo(void *conn, const void *buf, uint32_t len, long timeout,
                                     int32_t *count)
{
    (void)conn;
    Guard g(g_lock);
    auto &s = st();
    if (!s.tls.write.empty()) {
        uint32_t rc = s.tls.write.front();
        s.tls.write.erase(s.tls.write.begin());
        if (rc != 0) {
            *count = 0;
            return rc;
        }
    }
    *count = fake::take_send(buf, len, timeout);
    return 0;
}

uint32_t osl_scr_ssl_wrp_shutdown(void *conn)
{
    (void)conn;
    Guard g(g_lock);
    auto &s = st();
    s.tls_calls.emplace_back("shutdown");
    s.tls_conn--;
    return s.tls.shutdown;
}

uint32_t osl_scr_ssl_wrp_term(void *ctx)
{
    (void)ctx;
    Guard g(g_lock);
    auto &s = st();
    s.tls_calls.emplace_back("term");
    s.tls_ctx--;
    return s.tls.term;
}

/* ---- OS wrapper: tasks, mutexes, queues ---- */

int32_t zelOSWCreateJoinTask(uint32_t *task_id, const char *name, int32_t priority,
                             uint32_t stack_size, ZEL_OSW_TASK_ENTRY entry, int32_t options,
                             void *a1, void *a2, void *a3, void *a4, void *a5, void *a6, void *a7,
                             void *a8, void *a9, void *a10)
{
    (void)name;
    (void)priority;
    (void)stack_size;
    (void)options;
    Guard g(g_lock);
    int32_t rc = fake::next_os_result("zelOSWCreateJoinTask");
    if (rc != 0) return rc;
    uint32_t id = st().next_id++;
    *task_id = id;
    st().tasks[id] = std::thread([=] { entry(a1, a2, a3, a4, a5, a6, a7, a8, a9, a10); });
    return 0;
}

int32_t zelOSWWaitTask(uint32_t task_id, int32_t timeout)
{
    (void)timeout;
    std::thread t;
    {
        Guard g(g_lock);
        int32_t rc = fake::next_os_result("zelOSWWaitTask");
        if (rc != 0) return rc;
        auto it = st().tasks.find(task_id);
        if (it == st().tasks.end()) return 3;
        t = std::move(it->second);
        st().tasks.erase(it);
    }
    if (t.joinable()) t.join();
    return 0;
}

void zelOSWExitTask(int32_t code)
{
    (void)code;
    Guard g(g_lock);
    (void)fake::next_os_result("zelOSWExitTask");
    /* The task body returns right after this call; returning ends the thread. */
}

int32_t zelOSWLockTask(void)
{
    Guard g(g_lock);
    return fake::next_os_result("zelOSWLockTask");
}

int32_t zelOSWUnlockTask(void)
{
    Guard g(g_lock);
    return fake::next_os_result("zelOSWUnlockTask");
}

int32_t zelOSWCreateMutexSem(uint32_t *mutex_id, uint32_t options, uint32_t initial)
{
    (void)options;
    (void)initial;
    Guard g(g_lock);
    int32_t rc = fake::next_os_result("zelOSWCreateMutexSem");
    if (rc != 0) return rc;
    uint32_t id = st().next_id++;
    st().mutexes[id] = std::make_unique<std::timed_mutex>();
    *mutex_id = id;
    return 0;
}

int32_t zelOSWRequestMutexSem(uint32_t mutex_id, int32_t timeout)
{
    (void)timeout;
    std::timed_mutex *m = nullptr;
    {
        Guard g(g_lock);
        int32_t rc = fake::next_os_result("zelOSWRequestMutexSem");
        if (rc != 0) return rc;
        auto it = st().mutexes.find(mutex_id);
        if (it == st().mutexes.end()) return 3;
        m = it->second.get();
    }
    m->lock();
    return 0;
}

int32_t zelOSWReleaseMutexSem(uint32_t mutex_id)
{
    Guard g(g_lock);
    int32_t rc = fake::next_os_result("zelOSWReleaseMutexSem");
    if (rc != 0) return rc;
    auto it = st().mutexes.find(mutex_id);
    if (it == st().mutexes.end()) return 3;
    it->second->unlock();
    return 0;
}

int32_t zelOSWCreateMsgQueue(uint32_t *queue_id, uint32_t max_messages, uint32_t message_size,
                             uint32_t options)
{
    (void)options;
    Guard g(g_lock);
    int32_t rc = fake::next_os_result("zelOSWCreateMsgQueue");
    if (rc != 0) return rc;
    uint32_t id = st().next_id++;
    fake::Queue q;
    q.max_messages = max_messages;
    q.message_size = message_size;
    st().queues[id] = q;
    *queue_id = id;
    return 0;
}

int32_t zelOSWSendMsgQueue(uint32_t queue_id, const void *message, uint32_t size, int32_t timeout,
                           uint32_t priority)
{
    (void)timeout;
    (void)priority;
    Guard g(g_lock);
    int32_t rc = fake::next_os_result("zelOSWSendMsgQueue");
    if (rc != 0) return rc;
    auto it = st().queues.find(queue_id);
    if (it == st().queues.end()) return 3;
    if (it->second.messages.size() >= it->second.max_messages) return 11;
    const auto *p = static_cast<const uint8_t *>(message);
    it->second.messages.emplace_back(p, p + size);
    return 0;
}

int32_t zelOSWReceiveMsgQueue(uint32_t queue_id, void *buffer, uint32_t size, int32_t timeout)
{
    (void)timeout;
    Guard g(g_lock);
    int32_t rc = fake::next_os_result("zelOSWReceiveMsgQueue");
    if (rc != 0) return rc;
    auto it = st().queues.find(queue_id);
    if (it == st().queues.end()) return 3;
    if (it->second.messages.empty()) return ZELOSW_NO_MESSAGE;
    fake::Bytes m = it->second.messages.front();
    it->second.messages.pop_front();
    memcpy(buffer, m.data(), m.size() < size ? m.size() : size);
    return 0;
}

int32_t zelOSWDeleteMsgQueue(uint32_t queue_id)
{
    Guard g(g_lock);
    int32_t rc = fake::next_os_result("zelOSWDeleteMsgQueue");
    if (rc != 0) return rc;
    return st().queues.erase(queue_id) == 1 ? 0 : 3;
}

int32_t ent_set_get_status(uint32_t key1, uint32_t key2, void *value)
{
    Guard g(g_lock);
    auto &s = st();
    s.setting_reads++;
    if (key1 != ENT_SET_KEY1_ME_STC_U08_LDAP_PROTOCOL ||
        key2 != ENT_SET_KEY2_ME_STC_U08_LDAP_PROTOCOL)
        return 2;
    if (s.setting_rc != 0) return s.setting_rc;
    *static_cast<uint8_t *>(value) = s.setting_value;
    return 0;
}

}  // extern "C"
