/*
 * Shared between the POSIX port's own sources; not part of any interface.
 */
#ifndef POSIX_INTERNAL_H
#define POSIX_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

namespace posix_port {

/* A point in time for a whole operation; a negative time-out never expires. */
struct Deadline {
    bool infinite;
    int64_t end_ms; /* CLOCK_MONOTONIC */
};
Deadline deadline_after(long timeout_ms);

/* Waits until fd is ready for events or the deadline passes: 1 ready (errors and
 * hang-ups count as ready, the next call reports them), 0 time-out, -1 error. */
int wait_fd(int fd, short events, const Deadline &deadline);

/* recv() with the port's system-call counter. */
ssize_t counted_recv(int fd, void *buf, size_t len, int flags);

/* Hands out bytes the plain read-ahead of fd still holds (0 when none). The TLS
 * layer takes these first: they are the beginning of its record stream. */
size_t take_read_ahead(int fd, void *buf, size_t len);

/* Copies the host name fd was resolved from into out (empty when unknown);
 * false when the socket was not created by cmp_netsock_socket. */
bool socket_host(int fd, char *out, size_t out_size);

/* Environment values read by several sources. */
long env_long(const char *name, long fallback);

/* Forgets the cached log level (cmp_ldap_posix_reload_env). */
void reload_log_level();

}  // namespace posix_port

#endif
