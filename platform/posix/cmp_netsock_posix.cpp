/*
 * Sockets with time-outs on POSIX: non-blocking connect and poll() for every
 * wait, so a time-out never depends on socket options.
 *
 * Per-socket state lives in a table indexed by descriptor: the host name the
 * socket was resolved from (for TLS name checks) and the read-ahead buffer.
 * The core reads a PDU header one or two bytes at a time; the read-ahead turns
 * that into about one recv() per PDU without changing what the core sees.
 * A socket is used by one thread at a time, so only the table itself is locked,
 * and each thread remembers the last socket it looked up until the table changes:
 * the header reads of one PDU then take no lock at all.
 */
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "cmp_ldap_posix.h"
#include "cmp_netsock.h"
#include "posix_internal.h"

namespace {

constexpr uint32_t kReadAheadSize = 16 * 1024;
constexpr size_t kHostSize = 256;

struct SockState {
    char host[kHostSize]; /* name given to the resolver before socket(); "" unknown */
    unsigned char *buf;   /* read-ahead, allocated on the first receive */
    uint32_t pos;         /* next unread byte in buf */
    uint32_t len;         /* bytes held in buf */
};

pthread_mutex_t g_table_lock = PTHREAD_MUTEX_INITIALIZER;
SockState **g_table = nullptr;
size_t g_table_size = 0;
/* Counts changes of the table's entries (a state attached or detached), always under
 * the lock. A thread's remembered look-up stays right while the count is unchanged:
 * no other thread can close a socket this thread is using, so only a change to some
 * entry can make it stale, and every such change is counted. */
std::atomic<uint64_t> g_table_changes{0};

struct LastLookup {
    int fd;
    SockState *state;
    uint64_t changes;
};
/* initial-exec: one load from the thread pointer instead of a __tls_get_addr call on
 * every receive; the cost is 24 octets of the static TLS block that a late dlopen()
 * of this library must find free. */
thread_local LastLookup t_last __attribute__((tls_model("initial-exec"))) = {-1, nullptr, 0};

std::atomic<uint64_t> g_recv_calls{0};
std::atomic<bool> g_read_ahead{true};

/* The core resolves a name, then creates and connects the socket on the same
 * thread; socket() attaches the last name resolved here to the new socket. */
thread_local char t_last_name[kHostSize];

struct TableLock {
    TableLock() { pthread_mutex_lock(&g_table_lock); }
    ~TableLock() { pthread_mutex_unlock(&g_table_lock); }
};

/* Out of line, so that a look-up this thread remembers pays for no lock call. */
__attribute__((noinline)) SockState *find_state_locked(int fd)
{
    TableLock lock;
    if (fd < 0 || static_cast<size_t>(fd) >= g_table_size) return nullptr;
    t_last = {fd, g_table[fd], g_table_changes.load(std::memory_order_relaxed)};
    return t_last.state;
}

inline SockState *find_state(int fd)
{
    const LastLookup &last = t_last;
    if (last.fd == fd && last.changes == g_table_changes.load(std::memory_order_acquire))
        return last.state;
    return find_state_locked(fd);
}

SockState *detach_state(int fd)
{
    TableLock lock;
    if (fd < 0 || static_cast<size_t>(fd) >= g_table_size) return nullptr;
    SockState *s = g_table[fd];
    g_table[fd] = nullptr;
    g_table_changes.fetch_add(1, std::memory_order_release);
    return s;
}

void release_state(SockState *s)
{
    if (s == nullptr) return;
    free(s->buf);
    free(s);
}

bool attach_state(int fd, SockState *s)
{
    SockState *stale = nullptr;
    {
        TableLock lock;
        if (static_cast<size_t>(fd) >= g_table_size) {
            size_t size = g_table_size < 16 ? 16 : g_table_size;
            while (size <= static_cast<size_t>(fd))
                size *= 2;
            auto *grown = static_cast<SockState **>(realloc(g_table, size * sizeof(*g_table)));
            if (grown == nullptr) return false;
            memset(grown + g_table_size, 0, (size - g_table_size) * sizeof(*grown));
            g_table = grown;
            g_table_size = size;
        }
        /* A descriptor closed behind our back may have left its state. */
        stale = g_table[fd];
        g_table[fd] = s;
        g_table_changes.fetch_add(1, std::memory_order_release);
    }
    release_state(stale);
    return true;
}

uint32_t serve_buffered(SockState *s, void *buf, uint32_t len)
{
    uint32_t n = s->len - s->pos;
    if (n > len) n = len;
    const unsigned char *from = s->buf + s->pos;
    /* The header reads take one or two octets: a loop is cheaper than the call. */
    if (n <= 8) {
        auto *to = static_cast<unsigned char *>(buf);
        for (uint32_t i = 0; i < n; i++)
            to[i] = from[i];
    } else {
        memcpy(buf, from, n);
    }
    s->pos += n;
    return n;
}

}  // namespace

namespace posix_port {

ssize_t counted_recv(int fd, void *buf, size_t len, int flags)
{
    g_recv_calls.fetch_add(1, std::memory_order_relaxed);
    return recv(fd, buf, len, flags);
}

size_t take_read_ahead(int fd, void *buf, size_t len)
{
    SockState *s = find_state(fd);
    if (s == nullptr || s->pos >= s->len) return 0;
    /* Never more than the buffer holds, so the cut to 32 bits is harmless. */
    return serve_buffered(s, buf,
                          len < kReadAheadSize ? static_cast<uint32_t>(len) : kReadAheadSize);
}

bool socket_host(int fd, char *out, size_t out_size)
{
    if (out_size == 0) return false;
    out[0] = '\0';
    SockState *s = find_state(fd);
    if (s == nullptr) return false;
    size_t n = strnlen(s->host, kHostSize - 1);
    if (n >= out_size) n = out_size - 1;
    memcpy(out, s->host, n);
    out[n] = '\0';
    return true;
}

}  // namespace posix_port

using posix_port::Deadline;
using posix_port::deadline_after;
using posix_port::wait_fd;

namespace {

/* The part of a receive that waits for the peer, apart so that a receive served
 * from the read-ahead pays for none of it. */
__attribute__((noinline)) int32_t receive_waiting(int32_t sockfd, SockState *s, void *buf,
                                                  uint32_t len, int flags, long timeout)
{
    Deadline deadline = deadline_after(timeout);
    for (;;) {
        int ready = wait_fd(sockfd, POLLIN, deadline);
        if (ready == 0) return CMP_NETSOCK_TIMEOUT;
        if (ready < 0) return -1;

        /* Large reads and flagged reads (MSG_PEEK and the like) go straight to
         * the caller's buffer. */
        bool ahead = s != nullptr && flags == 0 && len < kReadAheadSize && g_read_ahead.load();
        if (ahead && s->buf == nullptr) {
            s->buf = static_cast<unsigned char *>(malloc(kReadAheadSize));
            ahead = s->buf != nullptr;
        }
        ssize_t n = ahead ? posix_port::counted_recv(sockfd, s->buf, kReadAheadSize, MSG_DONTWAIT)
                          : posix_port::counted_recv(sockfd, buf, len, flags | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            return -1;
        }
        if (n == 0 || !ahead) return static_cast<int32_t>(n);
        s->pos = 0;
        s->len = static_cast<uint32_t>(n);
        return static_cast<int32_t>(serve_buffered(s, buf, len));
    }
}

}  // namespace

extern "C" {

uint64_t cmp_netsock_posix_recv_calls(void)
{
    return g_recv_calls.load(std::memory_order_relaxed);
}

void cmp_netsock_posix_set_read_ahead(int on)
{
    g_read_ahead.store(on != 0);
}

int cmp_netsock_getaddrinfo(const char *node, const char *service, const struct addrinfo *hints,
                            struct addrinfo **res)
{
    int rc = getaddrinfo(node, service, hints, res);
    if (rc == 0) {
        /* A name too long for DNS is remembered as unknown rather than cut. */
        size_t n = node == nullptr ? kHostSize : strnlen(node, kHostSize);
        if (n < kHostSize) {
            memcpy(t_last_name, node, n);
            t_last_name[n] = '\0';
        } else {
            t_last_name[0] = '\0';
        }
    }
    return rc;
}

void cmp_netsock_freeaddrinfo(struct addrinfo *res)
{
    if (res != nullptr) freeaddrinfo(res);
}

int cmp_netsock_socket(int family, int type, int protocol)
{
    /* The interface numbers a stream 1 whatever the platform's SOCK_STREAM is. */
    int sys_type = type == 1 ? SOCK_STREAM : type;
    int fd = socket(family, sys_type | SOCK_CLOEXEC, protocol);
    if (fd < 0) return -1;
    auto *s = static_cast<SockState *>(calloc(1, sizeof(SockState)));
    if (s == nullptr) {
        close(fd);
        return -1;
    }
    memcpy(s->host, t_last_name, kHostSize);
    if (!attach_state(fd, s)) {
        free(s);
        close(fd);
        return -1;
    }
    return fd;
}

int cmp_netsock_connect_timeo(int32_t *sockfd, const struct sockaddr *addr, uint32_t addrlen,
                              long timeout)
{
    if (sockfd == nullptr) return -1;
    int fd = *sockfd;
    int rc = -1;
    int flags = fcntl(fd, F_GETFL);
    if (addr != nullptr && flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0) {
        if (connect(fd, addr, addrlen) == 0) {
            rc = 0;
        } else if (errno == EINPROGRESS || errno == EINTR) {
            int ready = wait_fd(fd, POLLOUT, deadline_after(timeout));
            if (ready == 0) {
                rc = CMP_NETSOCK_TIMEOUT;
            } else if (ready > 0) {
                int err = 0;
                socklen_t err_len = sizeof(err);
                if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &err_len) == 0 && err == 0) rc = 0;
            }
        }
        /* Sends and receives wait with poll() and MSG_DONTWAIT; the socket
         * itself goes back to blocking for anyone else who uses it. */
        if (rc == 0 && fcntl(fd, F_SETFL, flags) != 0) rc = -1;
        /* Every request leaves in one write and then waits for its answer, so
         * Nagle's algorithm would only hold small writes (TLS records after the
         * handshake, say) for the peer's delayed ACK: about 40 ms each. */
        int one = 1;
        if (rc == 0 && (addr->sa_family == AF_INET || addr->sa_family == AF_INET6))
            (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    if (rc != 0) cmp_netsock_close(fd);
    return rc;
}

int cmp_netsock_set_scope(struct sockaddr *addr, uint32_t addrlen)
{
    sockaddr_in6 sin6;
    if (addr == nullptr || addrlen < sizeof(sin6)) return -1;
    memcpy(&sin6, addr, sizeof(sin6)); /* the caller's buffer need not be aligned */
    if (sin6.sin6_family != AF_INET6) return -1;

    unsigned index = 0;
    const char *wanted = getenv("TOVEISTROR_SCOPE_IF");
    if (wanted != nullptr && *wanted != '\0') {
        index = if_nametoindex(wanted);
    } else {
        ifaddrs *list = nullptr;
        if (getifaddrs(&list) != 0) return -1;
        for (ifaddrs *i = list; i != nullptr; i = i->ifa_next) {
            if (i->ifa_name != nullptr && (i->ifa_flags & IFF_UP) != 0 &&
                (i->ifa_flags & IFF_LOOPBACK) == 0) {
                index = if_nametoindex(i->ifa_name);
                if (index != 0) break;
            }
        }
        freeifaddrs(list);
    }
    if (index == 0) return -1;
    sin6.sin6_scope_id = index;
    memcpy(addr, &sin6, sizeof(sin6));
    return 0;
}

int32_t cmp_netsock_send_timeo(int32_t sockfd, const void *buf, uint32_t len, int flags,
                               long timeout)
{
    if (len == 0) return 0;
    if (buf == nullptr || len > INT32_MAX) return -1;
    const auto *p = static_cast<const unsigned char *>(buf);
    Deadline deadline = deadline_after(timeout);
    uint32_t done = 0;
    while (done < len) {
        int ready = wait_fd(sockfd, POLLOUT, deadline);
        if (ready == 0) return CMP_NETSOCK_TIMEOUT;
        if (ready < 0) return -1;
        ssize_t n = send(sockfd, p + done, len - done, flags | MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            return -1;
        }
        done += static_cast<uint32_t>(n);
    }
    return static_cast<int32_t>(done);
}

int32_t cmp_netsock_recv_timeo(int32_t sockfd, void *buf, uint32_t len, int flags, long timeout)
{
    if (len == 0) return 0;
    if (buf == nullptr) return -1;
    if (len > INT32_MAX) len = INT32_MAX;
    SockState *s = find_state(sockfd);
    if (s != nullptr && s->pos < s->len) return static_cast<int32_t>(serve_buffered(s, buf, len));
    return receive_waiting(sockfd, s, buf, len, flags, timeout);
}

int cmp_netsock_close(int32_t sockfd)
{
    /* Only a socket this port created is closed: a handle that never connected
     * holds descriptor 0, which is the process's standard input, not ours. */
    SockState *s = detach_state(sockfd);
    if (s == nullptr) return -1;
    release_state(s);
    return close(sockfd) == 0 ? 0 : -1;
}

}  // extern "C"
