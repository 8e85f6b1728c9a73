/*
 * Network sockets with time-outs. Time-outs are in milliseconds; -1 waits
 * without limit. Calls that can time out return -2 when they do.
 */
#ifndef CMP_NETSOCK_H
#define CMP_NETSOCK_H

#include <netdb.h>
#include <stdint.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CMP_NETSOCK_TIMEOUT (-2)

/* getaddrinfo contract; results are freed with cmp_netsock_freeaddrinfo. */
int cmp_netsock_getaddrinfo(const char *node, const char *service, const struct addrinfo *hints,
                            struct addrinfo **res);
void cmp_netsock_freeaddrinfo(struct addrinfo *res);

/* A socket of the given family and type (1 = stream); -1 on failure. */
int cmp_netsock_socket(int family, int type, int protocol);

/* Connects *sockfd to addr within timeout ms: 0, -2 on time-out, other non-zero on
 * failure. A failed connect closes the socket and leaves nothing open. */
int cmp_netsock_connect_timeo(int32_t *sockfd, const struct sockaddr *addr, uint32_t addrlen,
                              long timeout);

/* Fills in the interface (scope id) of a link-local IPv6 address; 0 on success. */
int cmp_netsock_set_scope(struct sockaddr *addr, uint32_t addrlen);

/* Byte count (0 from recv: peer closed), -2 on time-out, another negative on error. */
int32_t cmp_netsock_send_timeo(int32_t sockfd, const void *buf, uint32_t len, int flags,
                               long timeout);
int32_t cmp_netsock_recv_timeo(int32_t sockfd, void *buf, uint32_t len, int flags, long timeout);

int cmp_netsock_close(int32_t sockfd);

#ifdef __cplusplus
}
#endif

#endif
