/*
 * The fake port behind fake_port.h. One lock guards all state, so that a test
 * may drive the library from more than one thread.
 */
#include "fake_port.h"

#include <arpa/inet.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "cmp_dbglog.h"
#include "cmp_netsock.h"
#include "ent_set.h"
#include "zelOSW.h"

namespace fake {
namespace {

struct Event {
    enum Kind { Data, Timeout, Error } kind;
    Bytes bytes;
    int32_t rc = 0;
    bool bytewise = false;
    size_t offset = 0;
};

struct State {
    long arm_at = 0, since_arm = 0, bad_pool = 0;
    bool every_after = false, freed_null = false;
    std::map<void *, uint32_t> blocks;
    std::vector<uint32_t> sizes;
    std::vector<LogLine> log;
    int resolver_rc = 0;
    std::vector<Resolved> resolved;
    std::deque<int> socket_results, connect_results, scope_results;
    int next_fd = 3;
    std::set<int32_t> open;
    std::vector<int32_t> closed;
    std::vector<ConnectAttempt> attempts;
    std::vector<ResolverCall> resolver_calls;
    std::vector<SocketCall> socket_calls;
    long live_ai = 0;
    std::deque<Event> events;
    std::vector<long> recv_timeouts, send_timeouts;
    std::vector<int> recv_flags, send_flags;
    std::deque<int32_t> send_results;
    Bytes sent;
    TlsScript tls;
    OSL_SCR_SSL_WRP_SETTINGS tls_settings{};
    long tls_ctx = 0, tls_conn = 0;
    std::vector<std::string> tls_calls;
    std::map<std::string, std::deque<int32_t>> os_results;
    std::vector<std::string> os_calls;
    uint32_t next_id = 1;
    std::map<uint32_t, std::thread> tasks;
    std::map<uint32_t, std::unique_ptr<std::timed_mutex>> mutexes;
    std::map<uint32_t, std::deque<Bytes>> queues;
    int32_t setting_rc = 0;
    uint8_t setting_value = 1;
    long setting_reads = 0;
};

std::recursive_mutex g_lock;
State &st()
{
    static State *s = new State(); /* never destroyed: outlives every static user */
    return *s;
}
using Guard = std::lock_guard<std::recursive_mutex>;
#define LOCKED(...)      \
    {                    \
        Guard g(g_lock); \
        __VA_ARGS__;     \
    }

template <class T>
T take_front(std::deque<T> &q, T dflt)
{
    if (q.empty()) return dflt;
    T v = q.front();
    q.pop_front();
    return v;
}

void push_event(Event e)
{
    Guard g(g_lock);
    st().events.push_back(std::move(e));
}

Resolved parse(int family, const char *text)
{
    Resolved r{family, Bytes(family == AF_INET ? 4 : 16)};
    if (inet_pton(family, text, r.addr.data()) != 1) abort();
    return r;
}

/* One receive from the scripted peer: the event's code, or 0 and *count (0: closed). */
int32_t serve_receive(void *buf, uint32_t len, long timeout, int32_t timeout_code, int32_t *count)
{
    State &s = st();
    s.recv_timeouts.push_back(timeout);
    *count = 0;
    if (s.events.empty()) return 0;
    Event &e = s.events.front();
    if (e.kind != Event::Data) {
        int32_t rc = e.kind == Event::Timeout ? timeout_code : e.rc;
        s.events.pop_front();
        return rc;
    }
    /* An empty chunk serves one receive of 0 octets: the peer's close, as the core sees it. */
    size_t n = std::min<size_t>(e.bytes.size() - e.offset, e.bytewise ? 1 : len);
    if (n > 0) memcpy(buf, e.bytes.data() + e.offset, n);
    e.offset += n;
    if (e.offset >= e.bytes.size()) s.events.pop_front();
    *count = (int32_t)n;
    return 0;
}

int32_t take_send(const void *buf, uint32_t len, long timeout)
{
    State &s = st();
    s.send_timeouts.push_back(timeout);
    int32_t n = std::min(take_front(s.send_results, (int32_t)len), (int32_t)len);
    if (n > 0) s.sent.insert(s.sent.end(), (const uint8_t *)buf, (const uint8_t *)buf + n);
    return n;
}

/* Records an OS wrapper call and returns its scripted result. */
int32_t os_call(const char *function)
{
    st().os_calls.emplace_back(function);
    return take_front(st().os_results[function], 0);
}

}  // namespace

void reset()
{
    std::map<uint32_t, std::thread> tasks;
    LOCKED(tasks.swap(st().tasks))
    for (auto &t : tasks)
        t.second.join(); /* outside the lock: a task may still log */
    Guard g(g_lock);
    for (auto &b : st().blocks)
        free(b.first);
    st() = State();
}

std::string live_block_report()
{
    Guard g(g_lock);
    std::ostringstream out;
    for (auto &b : st().blocks)
        out << b.second << " octets at " << b.first << "\n";
    return out.str();
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
    for (auto &t : log_texts())
        if (t == text) return true;
    return false;
}
bool logged_containing(const std::string &fragment)
{
    for (auto &t : log_texts())
        if (t.find(fragment) != std::string::npos) return true;
    return false;
}

/* One line per accessor and script call; LOCKED ones take the lock for their statement
 * (the references are read by a test once the library's threads are done). */
// clang-format off
void arm_alloc_failure(long n, bool every_after) LOCKED(st().arm_at = n, st().every_after = every_after, st().since_arm = 0)
long allocs_since_arm() LOCKED(return st().since_arm)
long live_blocks() LOCKED(return (long)st().blocks.size())
std::vector<uint32_t> alloc_sizes() LOCKED(return st().sizes)
bool freed_null_seen() LOCKED(return st().freed_null)
long bad_pool_frees() LOCKED(return st().bad_pool)
void clear_log() LOCKED(st().log.clear())
void set_resolver(int rc, std::vector<Resolved> entries) LOCKED(st().resolver_rc = rc, st().resolved = std::move(entries))
void script_socket(std::vector<int> r) LOCKED(st().socket_results.assign(r.begin(), r.end()))
void script_connect(std::vector<int> r) LOCKED(st().connect_results.assign(r.begin(), r.end()))
void script_set_scope(std::vector<int> r) LOCKED(st().scope_results.assign(r.begin(), r.end()))
std::vector<ResolverCall> resolver_calls() LOCKED(return st().resolver_calls)
std::vector<SocketCall> socket_calls() LOCKED(return st().socket_calls)
std::vector<int32_t> closed_sockets() LOCKED(return st().closed)
long live_addrinfo() LOCKED(return st().live_ai)
long open_sockets() LOCKED(return (long)st().open.size())
std::vector<long> recv_timeouts() LOCKED(return st().recv_timeouts)
std::vector<int> recv_flags() LOCKED(return st().recv_flags)
void script_send(std::vector<int32_t> r) LOCKED(st().send_results.assign(r.begin(), r.end()))
std::vector<long> send_timeouts() LOCKED(return st().send_timeouts)
std::vector<int> send_flags() LOCKED(return st().send_flags)
void set_tls(const TlsScript &script) LOCKED(st().tls = script)
long live_tls_contexts() LOCKED(return st().tls_ctx)
long live_tls_connections() LOCKED(return st().tls_conn)
std::vector<std::string> tls_calls() LOCKED(return st().tls_calls)
void script_os(const std::string &function, std::vector<int32_t> results) LOCKED(st().os_results[function].assign(results.begin(), results.end()))
std::vector<std::string> os_calls() LOCKED(return st().os_calls)
long live_queues() LOCKED(return (long)st().queues.size())
void set_setting(int32_t rc, uint8_t value) LOCKED(st().setting_rc = rc, st().setting_value = value)
long setting_reads() LOCKED(return st().setting_reads)
const std::vector<LogLine> &log() { return st().log; }
Resolved ipv4(const char *text) { return parse(AF_INET, text); }
Resolved ipv6(const char *text) { return parse(AF_INET6, text); }
const std::vector<ConnectAttempt> &connect_attempts() { return st().attempts; }
void peer_data(const Bytes &bytes) { push_event(Event{Event::Data, bytes}); }
void peer_data_bytewise(const Bytes &bytes) { push_event(Event{Event::Data, bytes, 0, true}); }
void peer_timeout() { push_event(Event{Event::Timeout, {}}); }
void peer_error(int32_t rc) { push_event(Event{Event::Error, {}, rc}); }
const Bytes &sent() { return st().sent; }
const OSL_SCR_SSL_WRP_SETTINGS &last_tls_settings() { return st().tls_settings; }
// clang-format on

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
    if (s.arm_at > 0 && (s.since_arm == s.arm_at || (s.every_after && s.since_arm > s.arm_at)))
        return nullptr;
    /* Exactly the size asked for, so AddressSanitizer sees one octet too many. */
    void *p = malloc(size == 0 ? 1 : size);
    if (p == nullptr) return nullptr;
    memset(p, fake::kFreshFill, size);
    s.blocks[p] = size;
    return p;
}

int32_t zelOSWOrgFreeMemPart(uint32_t pool, void *block)
{
    Guard g(g_lock);
    auto &s = st();
    s.bad_pool += pool != 0;
    if (block == nullptr) return s.freed_null = true, 0;
    auto it = s.blocks.find(block);
    if (it == s.blocks.end()) {
        fprintf(stderr, "fake port: free of unknown block %p\n", block);
        abort();
    }
    memset(block, fake::kFreedFill, it->second);
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
    if (getenv("FAKE_PORT_ECHO_LOG") != nullptr) fprintf(stderr, "[%d %d] %s", level, rc, line);
    return 0;
}

int cmp_netsock_getaddrinfo(const char *node, const char *service, const struct addrinfo *hints,
                            struct addrinfo **res)
{
    Guard g(g_lock);
    auto &s = st();
    auto text = [](const char *t) { return std::string(t != nullptr ? t : "(null)"); };
    s.resolver_calls.push_back(hints == nullptr
                                   ? fake::ResolverCall{text(node), text(service), -1, -1, -1, -1}
                                   : fake::ResolverCall{text(node), text(service), hints->ai_flags,
                                                        hints->ai_family, hints->ai_socktype,
                                                        hints->ai_protocol});
    *res = nullptr;
    if (s.resolver_rc != 0) return s.resolver_rc;
    struct addrinfo **tail = res;
    for (auto &r : s.resolved) {
        auto *ai = static_cast<struct addrinfo *>(calloc(1, sizeof(struct addrinfo)));
        ai->ai_family = r.family;
        ai->ai_socktype = SOCK_STREAM;
        ai->ai_protocol = IPPROTO_TCP;
        ai->ai_addrlen = r.addrlen >= 0         ? (socklen_t)r.addrlen
                         : r.family == AF_INET6 ? (socklen_t)sizeof(sockaddr_in6)
                                                : 16;
        if (!r.null_addr) {
            auto *ss = static_cast<sockaddr_storage *>(
                calloc(1, std::max<size_t>(ai->ai_addrlen, sizeof(sockaddr_storage))));
            ai->ai_addr = reinterpret_cast<struct sockaddr *>(ss);
            ss->ss_family = (sa_family_t)r.family;
            if (r.family == AF_INET)
                memcpy(&reinterpret_cast<sockaddr_in *>(ss)->sin_addr, r.addr.data(), 4);
            else if (r.family == AF_INET6)
                memcpy(&reinterpret_cast<sockaddr_in6 *>(ss)->sin6_addr, r.addr.data(), 16);
        }
        *tail = ai;
        tail = &ai->ai_next;
        s.live_ai++;
    }
    return 0;
}

void cmp_netsock_freeaddrinfo(struct addrinfo *res)
{
    Guard g(g_lock);
    for (struct addrinfo *next; res != nullptr; res = next) {
        next = res->ai_next;
        free(res->ai_addr);
        free(res);
        st().live_ai--;
    }
}

int cmp_netsock_socket(int family, int type, int protocol)
{
    Guard g(g_lock);
    auto &s = st();
    s.socket_calls.push_back(fake::SocketCall{family, type, protocol});
    int fd = fake::take_front(s.socket_results, s.next_fd);
    if (fd >= 0) {
        s.next_fd = std::max(s.next_fd, fd + 1);
        s.open.insert(fd);
    }
    return fd;
}

int cmp_netsock_connect_timeo(int32_t *sockfd, const struct sockaddr *addr, uint32_t addrlen,
                              long timeout)
{
    Guard g(g_lock);
    auto &s = st();
    fake::ConnectAttempt a{addr->sa_family, 0, {}, addrlen, timeout, *sockfd, 0};
    if (addr->sa_family == AF_INET) {
        auto *sin = reinterpret_cast<const sockaddr_in *>(addr);
        auto *p = reinterpret_cast<const uint8_t *>(&sin->sin_addr);
        a.port = ntohs(sin->sin_port);
        a.addr.assign(p, p + 4);
    } else if (addr->sa_family == AF_INET6) {
        auto *sin6 = reinterpret_cast<const sockaddr_in6 *>(addr);
        a.port = ntohs(sin6->sin6_port);
        a.scope_id = sin6->sin6_scope_id;
        a.addr.assign(sin6->sin6_addr.s6_addr, sin6->sin6_addr.s6_addr + 16);
    }
    s.attempts.push_back(a);
    int rc = fake::take_front(s.connect_results, 0);
    if (rc != 0) { /* none left open */
        s.open.erase(*sockfd);
        s.closed.push_back(*sockfd);
    }
    return rc;
}

int cmp_netsock_set_scope(struct sockaddr *addr, uint32_t)
{
    Guard g(g_lock);
    int rc = fake::take_front(st().scope_results, 0);
    if (rc == 0 && addr->sa_family == AF_INET6)
        reinterpret_cast<sockaddr_in6 *>(addr)->sin6_scope_id = 7;
    return rc;
}

int32_t cmp_netsock_send_timeo(int32_t, const void *buf, uint32_t len, int flags, long timeout)
{
    Guard g(g_lock);
    st().send_flags.push_back(flags);
    return fake::take_send(buf, len, timeout);
}

int32_t cmp_netsock_recv_timeo(int32_t, void *buf, uint32_t len, int flags, long timeout)
{
    Guard g(g_lock);
    st().recv_flags.push_back(flags);
    int32_t count;
    int32_t rc = fake::serve_receive(buf, len, timeout, CMP_NETSOCK_TIMEOUT, &count);
    return rc != 0 ? rc : count;
}

int cmp_netsock_close(int32_t sockfd)
{
    Guard g(g_lock);
    st().closed.push_back(sockfd);
    st().open.erase(sockfd);
    return 0;
}

/* ---- TLS wrapper: contexts and connections are addresses inside one object ---- */
static int g_tls_object;

uint32_t osl_scr_ssl_wrp_init(void **ctx)
{
    Guard g(g_lock);
    auto &s = st();
    s.tls_calls.emplace_back("init");
    *ctx = s.tls.init != 0 ? nullptr : &g_tls_object;
    if (s.tls.init == 0) s.tls_ctx++;
    return s.tls.init;
}

uint32_t osl_scr_ssl_wrp_set_verify(void *)
{
    Guard g(g_lock);
    st().tls_calls.emplace_back("set_verify");
    return st().tls.set_verify;
}

uint32_t osl_scr_ssl_wrp_connect_timeo(void *, const OSL_SCR_SSL_WRP_SETTINGS *settings,
                                       void **conn)
{
    Guard g(g_lock);
    auto &s = st();
    s.tls_calls.emplace_back("connect");
    s.tls_settings = *settings;
    *conn = s.tls.connect != 0 ? nullptr : reinterpret_cast<char *>(&g_tls_object) + 1;
    if (s.tls.connect == 0) s.tls_conn++;
    return s.tls.connect;
}

uint32_t osl_scr_ssl_wrp_read_timeo(void *, void *buf, uint32_t len, long timeout, int32_t *count)
{
    Guard g(g_lock);
    return (uint32_t)fake::serve_receive(buf, len, timeout, (int32_t)OSL_SCR_SSL_WRP_ERR_TIMEOUT,
                                         count);
}

uint32_t osl_scr_ssl_wrp_write_timeo(void *, const void *buf, uint32_t len, long timeout,
                                     int32_t *count)
{
    Guard g(g_lock);
    auto &w = st().tls.write;
    uint32_t rc = w.empty() ? 0 : w.front();
    if (!w.empty()) w.erase(w.begin());
    *count = rc != 0 ? 0 : fake::take_send(buf, len, timeout);
    return rc;
}

uint32_t osl_scr_ssl_wrp_shutdown(void *)
{
    Guard g(g_lock);
    st().tls_calls.emplace_back("shutdown");
    st().tls_conn--;
    return st().tls.shutdown;
}

uint32_t osl_scr_ssl_wrp_term(void *)
{
    Guard g(g_lock);
    st().tls_calls.emplace_back("term");
    st().tls_ctx--;
    return st().tls.term;
}

/* ---- OS wrapper ---- */
int32_t zelOSWCreateJoinTask(uint32_t *task_id, const char *, int32_t, uint32_t,
                             ZEL_OSW_TASK_ENTRY entry, int32_t, void *a1, void *a2, void *a3,
                             void *a4, void *a5, void *a6, void *a7, void *a8, void *a9, void *a10)
{
    Guard g(g_lock);
    if (int32_t rc = fake::os_call("zelOSWCreateJoinTask")) return rc;
    *task_id = st().next_id++;
    st().tasks[*task_id] = std::thread([=] { entry(a1, a2, a3, a4, a5, a6, a7, a8, a9, a10); });
    return 0;
}

int32_t zelOSWWaitTask(uint32_t task_id, int32_t)
{
    std::thread t;
    {
        Guard g(g_lock);
        if (int32_t rc = fake::os_call("zelOSWWaitTask")) return rc;
        auto it = st().tasks.find(task_id);
        if (it == st().tasks.end()) return 3;
        t = std::move(it->second);
        st().tasks.erase(it);
    }
    t.join();
    return 0;
}

/* The task body returns right after this call, which ends its thread. */
void zelOSWExitTask(int32_t)
{
    Guard g(g_lock);
    (void)fake::os_call("zelOSWExitTask");
}

int32_t zelOSWLockTask(void)
{
    Guard g(g_lock);
    return fake::os_call("zelOSWLockTask");
}

int32_t zelOSWUnlockTask(void)
{
    Guard g(g_lock);
    return fake::os_call("zelOSWUnlockTask");
}

int32_t zelOSWCreateMutexSem(uint32_t *mutex_id, uint32_t, uint32_t)
{
    Guard g(g_lock);
    if (int32_t rc = fake::os_call("zelOSWCreateMutexSem")) return rc;
    *mutex_id = st().next_id++;
    st().mutexes[*mutex_id] = std::make_unique<std::timed_mutex>();
    return 0;
}

static std::timed_mutex *fake_mutex(const char *function, uint32_t id, int32_t *rc)
{
    Guard g(g_lock);
    auto it = st().mutexes.find(id);
    *rc = fake::os_call(function);
    if (*rc == 0 && it == st().mutexes.end()) *rc = 3;
    return *rc == 0 ? it->second.get() : nullptr;
}

int32_t zelOSWRequestMutexSem(uint32_t mutex_id, int32_t)
{
    int32_t rc;
    if (std::timed_mutex *m = fake_mutex("zelOSWRequestMutexSem", mutex_id, &rc)) m->lock();
    return rc;
}

int32_t zelOSWReleaseMutexSem(uint32_t mutex_id)
{
    int32_t rc;
    if (std::timed_mutex *m = fake_mutex("zelOSWReleaseMutexSem", mutex_id, &rc)) m->unlock();
    return rc;
}

int32_t zelOSWCreateMsgQueue(uint32_t *queue_id, uint32_t, uint32_t, uint32_t)
{
    Guard g(g_lock);
    if (int32_t rc = fake::os_call("zelOSWCreateMsgQueue")) return rc;
    *queue_id = st().next_id++;
    st().queues[*queue_id];
    return 0;
}

int32_t zelOSWSendMsgQueue(uint32_t queue_id, const void *message, uint32_t size, int32_t, uint32_t)
{
    Guard g(g_lock);
    if (int32_t rc = fake::os_call("zelOSWSendMsgQueue")) return rc;
    auto it = st().queues.find(queue_id);
    if (it == st().queues.end()) return 3;
    if (!it->second.empty()) return 11; /* one slot */
    it->second.emplace_back((const uint8_t *)message, (const uint8_t *)message + size);
    return 0;
}

int32_t zelOSWReceiveMsgQueue(uint32_t queue_id, void *buffer, uint32_t size, int32_t)
{
    Guard g(g_lock);
    if (int32_t rc = fake::os_call("zelOSWReceiveMsgQueue")) return rc;
    auto it = st().queues.find(queue_id);
    if (it == st().queues.end()) return 3;
    if (it->second.empty()) return ZELOSW_NO_MESSAGE;
    fake::Bytes m = std::move(it->second.front());
    it->second.pop_front();
    memcpy(buffer, m.data(), std::min<size_t>(m.size(), size));
    return 0;
}

int32_t zelOSWDeleteMsgQueue(uint32_t queue_id)
{
    Guard g(g_lock);
    if (int32_t rc = fake::os_call("zelOSWDeleteMsgQueue")) return rc;
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
    if (s.setting_rc == 0) *static_cast<uint8_t *>(value) = s.setting_value;
    return s.setting_rc;
}

}  // extern "C"
