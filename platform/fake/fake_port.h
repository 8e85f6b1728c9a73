/*
 * The fake port: a complete implementation of the platform interfaces for unit
 * tests, scripted from the test. Everything here is test code (STL allowed). A test
 * starts from reset() (support::FakePortTest does it), scripts the peer and the
 * platform's results, calls the library, then checks what it sent, logged and left.
 */
#ifndef FAKE_PORT_H
#define FAKE_PORT_H

#include <netinet/in.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "osl_scr_ssl_wrp.h"

namespace fake {

using Bytes = std::vector<uint8_t>;

/* Clears every script, counter, recording and captured log line. */
void reset();

/* ---- memory ---- */
/* New blocks are filled with kFreshFill and released ones with kFreedFill before they go
 * back, so that a read of memory never written, or of a block already released, shows
 * in every build and not only under the sanitizers. */
constexpr uint8_t kFreshFill = 0xA5;
constexpr uint8_t kFreedFill = 0xDD;
/* From now on, allocation number n (1 = the next one) fails; n = 0 disarms. With
 * every_after, that one and all later ones fail. Counting starts at the call. */
void arm_alloc_failure(long n, bool every_after = false);
long allocs_since_arm(); /* allocations attempted since the last arm (or reset) */
long live_blocks();      /* blocks allocated and not yet freed */
std::string live_block_report();
std::vector<uint32_t> alloc_sizes(); /* sizes requested since reset, in order */
bool freed_null_seen();              /* zelOSWOrgFreeMemPart got a NULL block */
/* A block whose pool argument was not 0 counts as an error. */
long bad_pool_frees();

/* ---- debug log ---- */
struct LogLine {
    std::string module;
    int level;
    int reserved;
    int32_t rc;
    std::string text; /* the formatted line, newline included */
};
const std::vector<LogLine> &log();
std::vector<std::string> log_texts();
bool logged(const std::string &text); /* an exact line was written */
bool logged_containing(const std::string &fragment);
void clear_log();

/* ---- resolver and connect ---- */
struct Resolved {
    int family; /* AF_INET, AF_INET6 or anything else */
    Bytes addr; /* 4 or 16 address octets (other families: anything) */
    /* Odd results a resolver may give: a declared address length other than the
     * family's own (-1: 16 for IPv4, 28 for IPv6, 16 otherwise; the zero-filled record
     * is as long as declared, at least a sockaddr_storage), or no record at all. */
    int32_t addrlen = -1;
    bool null_addr = false;
};
Resolved ipv4(const char *text);
Resolved ipv6(const char *text);
/* Next getaddrinfo returns rc and (when 0) these entries in this order. */
void set_resolver(int rc, std::vector<Resolved> entries);
void script_socket(std::vector<int> results);  /* each cmp_netsock_socket returns the next */
void script_connect(std::vector<int> results); /* each connect_timeo returns the next (default 0) */
void script_set_scope(std::vector<int> results);

struct ConnectAttempt {
    int family;
    uint16_t port; /* host order */
    Bytes addr;    /* 4 or 16 octets */
    uint32_t addrlen;
    long timeout;
    int32_t sockfd;
    uint32_t scope_id; /* IPv6 only */
};
const std::vector<ConnectAttempt> &connect_attempts();
/* What the core passed: the resolver's name, service and hints (no hints: all -1),
 * and each socket's family, type and protocol. */
struct ResolverCall {
    std::string node, service; /* "(null)" for a null pointer */
    int flags, family, socktype, protocol;
};
std::vector<ResolverCall> resolver_calls();
struct SocketCall {
    int family, type, protocol;
};
std::vector<SocketCall> socket_calls();
std::vector<int32_t> closed_sockets();
long open_sockets();  /* created and not closed (a failed connect closes its socket) */
long live_addrinfo(); /* resolver results not yet freed */

/* ---- the peer: what receives return, in order ---- */
/* Served across as many receives as it takes. An empty chunk is one receive that
 * returns 0 octets, which is how the core sees the peer close; whatever is scripted
 * after it is still served, so a test can check that nothing more is read. */
void peer_data(const Bytes &bytes);
void peer_data_bytewise(const Bytes &bytes); /* one receive per octet */
void peer_timeout();                         /* one receive returns -2 / 0x72010006 */
void peer_error(int32_t rc);                 /* plain: returns rc; TLS: returns (uint32_t)rc */
/* With nothing scripted left, a receive reports the peer closed. */
std::vector<long> recv_timeouts(); /* the time-out each receive was given */
std::vector<int> recv_flags();     /* the flags of each plain receive */

/* Sends: each entry scripts one send; >= 0 takes at most that many octets,
 * a negative value is returned as it stands. Unscripted sends take everything. */
void script_send(std::vector<int32_t> results);
const Bytes &sent(); /* every octet taken, plain and TLS alike */
std::vector<long> send_timeouts();
std::vector<int> send_flags(); /* the flags of each plain send */

/* ---- TLS wrapper ---- */
struct TlsScript {
    uint32_t init = 0, set_verify = 0, connect = 0, shutdown = 0, term = 0;
    std::vector<uint32_t> write; /* per write: non-zero is returned as the error */
};
void set_tls(const TlsScript &script);
const OSL_SCR_SSL_WRP_SETTINGS &last_tls_settings();
long live_tls_contexts();
long live_tls_connections();
std::vector<std::string> tls_calls(); /* "init", "set_verify", "connect", "shutdown", "term" */

/* ---- OS wrapper: tasks, mutexes, queues ---- */
/* Each call of the named zelOSW function returns the next scripted value (default 0);
 * a non-zero value is returned without doing anything. */
void script_os(const std::string &function, std::vector<int32_t> results);
std::vector<std::string> os_calls();
/* Tasks run on real threads; zelOSWWaitTask joins. Queues keep what is sent, and a
 * non-waiting receive on an empty one returns 110. */
long live_queues();

/* ---- settings store ---- */
void set_setting(int32_t rc, uint8_t value); /* ME_STC_U08_LDAP_PROTOCOL */
long setting_reads();

}  // namespace fake

#endif
