/*
 * Shared by the library's sources only; never installed.
 *
 * The core reaches the outside world only through the platform interfaces
 * included here. Internal functions have external linkage (so that unit tests
 * linked with the static library can reach them) but hidden visibility, so
 * the shared library exports nothing but the public API.
 */
#ifndef CMP_LDAP_INTERNAL_H
#define CMP_LDAP_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "cmp_dbglog.h"
#include "cmp_ldap.h"
#include "cmp_netsock.h"
#include "ent_set.h"
#include "osl_scr_ssl_wrp.h"
#include "zelOSW.h"

#define CMP_LDAP_MODULE "CMP_LDAP"

/* Log levels: 0 errors and dumps, 1 the trace of each request sent. */
#define CMP_LDAP_LOG_ERROR 0
#define CMP_LDAP_LOG_TRACE 1

/* One log line. Every format begins with "%s(): " and the detecting function's name. */
#define CMP_LDAP_LOG(rc, ...) \
    cmp_dbglog_common_trace(CMP_LDAP_MODULE, CMP_LDAP_LOG_ERROR, 0, (int32_t)(rc), __VA_ARGS__)
#define CMP_LDAP_TRACE(...) \
    cmp_dbglog_common_trace(CMP_LDAP_MODULE, CMP_LDAP_LOG_TRACE, 0, -1, __VA_ARGS__)

/* Source names that assertion failures report. */
#define CMP_LDAP_SRC_API "cmp_ldap/cmn_src/cmp_ldap_api"
#define CMP_LDAP_SRC_SOCKET "cmp_ldap/cmn_src/cmp_ldap_socket"
#define CMP_LDAP_SRC_DECODE "cmp_ldap/cmn_src/cmp_ldap_decode"
#define CMP_LDAP_SRC_SASL "cmp_ldap/cmn_src/cmp_ldap_sasl"
#define CMP_LDAP_SRC_CYRUS "cmp_ldap/cmn_src/cmp_ldap_cyrus"

/* Assertions guard programmer errors only (a NULL the caller must never pass);
 * nothing a server sends may reach one. They are never compiled out. */
[[noreturn]] void cmp_ldap_assert_fail(const char *text, const char *source, unsigned line,
                                       const char *function);
#define CMP_LDAP_ASSERT(cond, text, source)                                      \
    do {                                                                         \
        if (!(cond)) cmp_ldap_assert_fail((text), (source), __LINE__, __func__); \
    } while (0)

/* Failure value of the decoders that return positions. */
#define CMP_LDAP_POS_ERROR 0xFFFFFFFFu
#define CMP_LDAP_TAG_ERROR 255u

/* A received message is allocated at PDU octets + this many. */
#define CMP_LDAP_MESSAGE_OVERHEAD 400u

/* Default socket values: a handle without a connection has sockfd 0. */
#define CMP_LDAP_NO_SOCKET 0
/* A connection taken down because a response was cut off in its middle (time-out,
 * error or no memory after its first octet): the rest of that PDU can never be told
 * apart from a new one, so nothing more is read or sent; only unbind remains. */
#define CMP_LDAP_DROPPED_SOCKET (-1)

/* The PDU bytes of a message, through a pointer so that reads past the three
 * octets the record declares are ordinary pointer arithmetic. */
static inline const unsigned char *cmp_ldap_pdu(const CMP_LDAP_MESSAGE *mes)
{
    return reinterpret_cast<const unsigned char *>(mes) + offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber);
}
static inline unsigned char *cmp_ldap_pdu_mut(CMP_LDAP_MESSAGE *mes)
{
    return reinterpret_cast<unsigned char *>(mes) + offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber);
}

/* Every block from cmp_ldap_malloc goes back through the OS wrapper, pool 0. */
static inline void cmp_ldap_free(void *block)
{
    (void)zelOSWOrgFreeMemPart(0, block);
}

/* Releases a text the handle owns and clears its field, so no released pointer
 * stays behind for a dump or a teardown. */
static inline void cmp_ldap_free_text(char **text)
{
    if (*text != nullptr) cmp_ldap_free(*text);
    *text = nullptr;
}

/* ---- internal functions shared between sources (hidden) ---- */

/* cmp_ldap_util */
int cmp_ldap_check_protocol_setting(void);

/* cmp_ldap_socket */
/* One connect candidate: a resolver result, in the order the connect tries them. */
typedef struct CMP_LDAP_ADDR_NODE {
    struct addrinfo *entry;
    struct CMP_LDAP_ADDR_NODE *next;
} CMP_LDAP_ADDR_NODE;
int cmp_ldap_add_addrinfo(struct addrinfo *entry, CMP_LDAP_ADDR_NODE **head,
                          CMP_LDAP_ADDR_NODE **tail);
int cmp_ldap_recv_data(CMP_LDAP *ld, unsigned char *buf, uint32_t len, long timeout);
/* true (with ld_errno 256 and a log line under name) once the connection was dropped. */
bool cmp_ldap_connection_dropped(CMP_LDAP *ld, const char *name);
/* Takes TLS and the socket down for good after a cut response. */
void cmp_ldap_drop_connection(CMP_LDAP *ld);

/* cmp_ldap_api */
int cmp_ldap_chg_starttls(CMP_LDAP *ld, const CMP_LDAP_CONN_PARAM *param);
void cmp_ldap_close_connection(CMP_LDAP *ld);
int cmp_ldap_check_search_tiny_params(CMP_LDAP *ld, const char *base, uint32_t scope,
                                      const CMP_LDAP_FILTER *filter,
                                      const CMP_LDAP_FILTER_PRESENT *filter_present,
                                      const char *attrs, uint32_t attrsonly);

/* cmp_ldap_encode */
uint32_t cmp_ldap_ber_next_token(const char *s, uint32_t index, const char **start);

/* cmp_ldap_decode */
uint32_t cmp_ldap_ber_decode_string_stub(const CMP_LDAP_MESSAGE *mes, int32_t pos,
                                         uint32_t *content_len, uint32_t *content_pos);
uint32_t cmp_ldap_ber_decode_number(const CMP_LDAP_MESSAGE *mes, int32_t pos, uint32_t *value,
                                    uint32_t expected_tag);
void **cmp_ldap_get_values_both(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry, const char *attr,
                                int binary);
char *cmp_ldap_substrcpy(const char *start, const char *end);

/* cmp_ldap_test */
/* Process-wide state of the asynchronous test, touched only with __atomic
 * builtins: 1 while no test runs, and the mutex that orders a cancel against a
 * test's end (0 until the first test creates it; never deleted). */
extern uint32_t s_async_test_idle;
extern uint32_t s_async_test_msem_id;
uint32_t cmp_ldap_test_device_result(int32_t code);
int cmp_ldap_test_check_search_result(CMP_LDAP *ld, int32_t msgid, const CMP_LDAP_TIMEVAL *timeout,
                                      const char *base, int32_t *entry_count);
void cmp_ldap_test_connection(CMP_LDAP_TEST_PARAM *param, CMP_LDAP_TEST_CALLBACK result_callback,
                              CMP_LDAP_ASYNC_TEST_ID *conninfo);
void cmp_ldap_test_connection_finish(CMP_LDAP_TEST_PARAM *param,
                                     CMP_LDAP_TEST_CALLBACK result_callback,
                                     CMP_LDAP_ASYNC_TEST_ID *conninfo, CMP_LDAP *ld,
                                     uint32_t result);
int cmp_ldap_test_connection_cancel_receive(const CMP_LDAP_ASYNC_TEST_ID *conninfo);

#endif
