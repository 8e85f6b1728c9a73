/*
 * toveistror: a compact LDAP version 3 client library.
 *
 * This header is the whole public surface of the library. It is valid C99 and C++,
 * and every symbol it declares carries the cmp_ldap_ / CMP_LDAP_ prefix.
 *
 * Conventions:
 *  - Request operations return a message id, or -1 with the reason in ld_errno.
 *  - ld_errno is written on failure only; a success does not reset it.
 *  - Every block the library hands out is released with cmp_ldap_memfree(p) or with
 *    the matching cmp_ldap_*_free function.
 *  - The version macros (CMP_LDAP_VERSION_*) come from cmp_ldap_version.h, which the
 *    build generates and installs beside this header.
 */
#ifndef CMP_LDAP_H
#define CMP_LDAP_H

#include <stdint.h>

#include "cmp_ldap_version.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#define CMP_LDAP_API
#else
#define CMP_LDAP_API __attribute__((visibility("default")))
#endif

/* ------------------------------------------------------------------------
 * Result codes
 * ---------------------------------------------------------------------- */

/* LDAP resultCode values (RFC 4511) */
#define CMP_LDAP_SUCCESS 0
#define CMP_LDAP_OPERATIONS_ERROR 1
#define CMP_LDAP_PROTOCOL_ERROR 2
#define CMP_LDAP_TIMELIMIT_EXCEEDED 3
#define CMP_LDAP_SIZELIMIT_EXCEEDED 4
#define CMP_LDAP_COMPARE_FALSE 5
#define CMP_LDAP_COMPARE_TRUE 6
#define CMP_LDAP_AUTH_METHOD_NOT_SUPPORTED 7
#define CMP_LDAP_STRONG_AUTH_REQUIRED 8
#define CMP_LDAP_REFERRAL 10
#define CMP_LDAP_ADMINLIMIT_EXCEEDED 11
#define CMP_LDAP_UNAVAILABLE_CRITICAL_EXTENSION 12
#define CMP_LDAP_CONFIDENTIALITY_REQUIRED 13
#define CMP_LDAP_SASL_BIND_IN_PROGRESS 14
#define CMP_LDAP_NO_SUCH_ATTRIBUTE 16
#define CMP_LDAP_UNDEFINED_TYPE 17
#define CMP_LDAP_INAPPROPRIATE_MATCHING 18
#define CMP_LDAP_CONSTRAINT_VIOLATION 19
#define CMP_LDAP_TYPE_OR_VALUE_EXISTS 20
#define CMP_LDAP_INVALID_SYNTAX 21
#define CMP_LDAP_NO_SUCH_OBJECT 32
#define CMP_LDAP_ALIAS_PROBLEM 33
#define CMP_LDAP_INVALID_DN_SYNTAX 34
#define CMP_LDAP_ALIAS_DEREF_PROBLEM 36
#define CMP_LDAP_INAPPROPRIATE_AUTH 48
#define CMP_LDAP_INVALID_CREDENTIALS 49
#define CMP_LDAP_INSUFFICIENT_ACCESS 50
#define CMP_LDAP_BUSY 51
#define CMP_LDAP_UNAVAILABLE 52
#define CMP_LDAP_UNWILLING_TO_PERFORM 53
#define CMP_LDAP_LOOP_DETECT 54
#define CMP_LDAP_NAMING_VIOLATION 64
#define CMP_LDAP_OBJECT_CLASS_VIOLATION 65
#define CMP_LDAP_NOT_ALLOWED_ON_NONLEAF 66
#define CMP_LDAP_NOT_ALLOWED_ON_RDN 67
#define CMP_LDAP_ALREADY_EXISTS 68
#define CMP_LDAP_NO_OBJECT_CLASS_MODS 69
#define CMP_LDAP_AFFECTS_MULTIPLE_DSAS 71
#define CMP_LDAP_OTHER 80

/* The library's own codes, with a text in cmp_ldap_err2string */
#define CMP_LDAP_SERVER_DOWN 256
#define CMP_LDAP_LOCAL_ERROR 257
#define CMP_LDAP_ENCODING_ERROR 258
#define CMP_LDAP_DECODING_ERROR 259
#define CMP_LDAP_TIMEOUT 260
#define CMP_LDAP_AUTH_UNKNOWN 261
#define CMP_LDAP_FILTER_ERROR 262
#define CMP_LDAP_USER_CANCELLED 263
#define CMP_LDAP_PARAM_ERROR 264
#define CMP_LDAP_NO_MEMORY 265

/* The library's own codes without a text ("Unknown error") */
#define CMP_LDAP_TLS_INIT_ERROR_A 266      /* TLS init: wrapper 0x72010008 */
#define CMP_LDAP_TLS_INIT_ERROR_B 267      /* TLS init: wrapper 0x72010007 */
#define CMP_LDAP_TLS_VERIFY_ERROR 268      /* set_verify: wrapper 0x72010009 */
#define CMP_LDAP_TLS_HANDSHAKE_ERROR_A 269 /* handshake: 0x72010002 */
#define CMP_LDAP_TLS_HANDSHAKE_ERROR_B 270 /* handshake: 0x72010003 */
#define CMP_LDAP_TLS_HANDSHAKE_ERROR_C 271 /* handshake: 0x72010004 */
#define CMP_LDAP_TLS_IO_ERROR 272          /* handshake 0x72010005/0x7201000b, TLS read/write */
#define CMP_LDAP_TLS_INIT_ERROR_C 273      /* TLS init: wrapper 0x7201000a */
#define CMP_LDAP_TLS_HANDSHAKE_ERROR_D 274 /* handshake: 0x7201001d */
#define CMP_LDAP_TLS_ERROR 275             /* any other TLS wrapper failure */
#define CMP_LDAP_PROTOCOL_SETTING_ERROR 276
#define CMP_LDAP_ADDRESS_ERROR 277
#define CMP_LDAP_SOCKET_ERROR 278
#define CMP_LDAP_CONNECT_ERROR 279
#define CMP_LDAP_SASL_AUTH_FAILED 280
#define CMP_LDAP_SASL_NO_HOST 281
#define CMP_LDAP_KRB5_CCACHE_ERROR 282
#define CMP_LDAP_SASL_ERROR 283
#define CMP_LDAP_SASL_RESULT_ERROR 284
#define CMP_LDAP_SASL_TASK_ERROR 285

/* ------------------------------------------------------------------------
 * Message types: the APPLICATION tag number of a response's protocolOp
 * ---------------------------------------------------------------------- */
#define CMP_LDAP_RES_BIND 1
#define CMP_LDAP_RES_SEARCH_ENTRY 4
#define CMP_LDAP_RES_SEARCH_RESULT 5
#define CMP_LDAP_RES_MODIFY 7
#define CMP_LDAP_RES_SEARCH_REFERENCE 19
#define CMP_LDAP_RES_EXTENDED 24

/* Bind methods: the context tags of AuthenticationChoice */
#define CMP_LDAP_AUTH_SIMPLE 0x80u
#define CMP_LDAP_AUTH_SASL 0xa3u

/* Search scopes, alias dereferencing, filter conditions */
#define CMP_LDAP_SCOPE_BASE 0u
#define CMP_LDAP_SCOPE_ONELEVEL 1u
#define CMP_LDAP_SCOPE_SUBTREE 2u
#define CMP_LDAP_DEREF_NEVER 0
#define CMP_LDAP_DEREF_SEARCHING 1
#define CMP_LDAP_DEREF_FINDING 2
#define CMP_LDAP_DEREF_ALWAYS 3
#define CMP_LDAP_FILTER_COND_ANY 0u     /* *value* */
#define CMP_LDAP_FILTER_COND_INITIAL 1u /* value* */
#define CMP_LDAP_FILTER_COND_FINAL 2u   /* *value */
#define CMP_LDAP_FILTER_COND_EQUAL 3u   /* value */
#define CMP_LDAP_SEARCH_COND_AND 0u
#define CMP_LDAP_SEARCH_COND_OR 1u

/* TLS modes of CMP_LDAP_CONN_PARAM.tls_mod */
#define CMP_LDAP_TLS_MOD_NONE 0u
#define CMP_LDAP_TLS_MOD_STARTTLS 1u
#define CMP_LDAP_TLS_MOD_LDAPS 2u

/* Longest text of a filter field or attribute list, without its terminator */
#define CMP_LDAP_TEXT_MAX 384
#define CMP_LDAP_TEXT_SIZE 385

/* ------------------------------------------------------------------------
 * Records
 * ---------------------------------------------------------------------- */

/* The session handle. A new handle is all zeros. The caller may set ld_deref,
 * ld_timelimit and ld_sizelimit directly between open and search. */
typedef struct CMP_LDAP {
    int32_t ld_mid;                 /* last message id issued; 1..65535, then 0 */
    int32_t ld_deref;               /* derefAliases of searches, 0..3 */
    int32_t ld_timelimit;           /* search time limit in seconds, 0 = none */
    int32_t ld_sizelimit;           /* search size limit, 0 = none */
    int32_t ld_errno;               /* result code of the last failure */
    char *ld_matched;               /* matchedDN of the last result (owned) */
    char *ld_error;                 /* diagnosticMessage of the last result (owned) */
    char *ld_referral;              /* first referral URL of the last result */
    int32_t ld_sockfd;              /* connected socket, 0 when none */
    long ld_sock_timeout;           /* every send/receive time-out in ms, -1 = none */
    void *ld_ssl_ctx;               /* TLS context, NULL without TLS */
    void *ld_ssl_conn;              /* TLS connection; non-NULL selects the TLS path */
    void *cmp_ldap_ld_sasl_authctx; /* SASL client connection */
    int32_t ld_sasl_msgid;          /* id of the last SASL bind completed inside the library */
    int32_t ld_sasl_rc;             /* its result code */
    void *ld_sasl_layer;            /* SASL security layer (cmp_ldap_set_sasl_ssf); library's */
} CMP_LDAP;

/* What the caller says about the server. Read only by the library. */
typedef struct CMP_LDAP_CONN_PARAM {
    char *cmp_ldap_hostname; /* host name or numeric address */
    int32_t portno;          /* TCP port, host order */
    int32_t timeout;         /* seconds for connect, I/O and handshake; -1 = none */
    uint8_t ipv6;            /* 0 or 1 */
    uint8_t tls_mod;         /* CMP_LDAP_TLS_MOD_* */
    uint8_t ssl_auth;        /* 2: wrapper verifies; 1: verify flag; else neither */
    uint8_t ssl_version;     /* bit masks passed to the TLS wrapper as they are */
    uint8_t ssl_hash;
    uint8_t ssl_encrpt;
    uint8_t ssl_accepted_signature_algorithm;
} CMP_LDAP_CONN_PARAM;

/* One received PDU in one allocation of (PDU octets + 400): the fixed fields
 * below take 397 octets and the PDU follows from cmp_ldap_ber on, with three
 * spare octets after it. Positions are byte indices into cmp_ldap_ber. */
typedef struct CMP_LDAP_MESSAGE {
    int32_t cmp_ldap_total_size;                 /* PDU octets held: tag, length octets, content */
    int32_t cmp_ldap_attrs_pos;                  /* attribute list of a search entry */
    int32_t cmp_ldap_next_attr_pos;              /* cursor of first/next_attribute */
    char cmp_ldap_attr_name[CMP_LDAP_TEXT_SIZE]; /* current attribute name */
    unsigned char cmp_ldap_ber[3];               /* the PDU; really cmp_ldap_total_size octets */
} CMP_LDAP_MESSAGE;

/* The decoded envelope of a message. */
typedef struct CMP_LDAP_MESSAGE_REC {
    int32_t msgid;       /* messageID */
    int32_t application; /* tag number of the protocolOp */
    int32_t pos;         /* position of the protocolOp's tag */
} CMP_LDAP_MESSAGE_REC;

/* A counted byte block: total_size octets follow the count in one allocation. */
typedef struct CMP_LDAP_SASL_CRED {
    uint32_t total_size;
    unsigned char data[1]; /* really total_size octets */
} CMP_LDAP_SASL_CRED;

/* A binary value as cmp_ldap_get_values_binary returns it: same layout. */
typedef CMP_LDAP_SASL_CRED CMP_LDAP_BERVAL;

/* An attribute/value filter: up to two comma-separated pairs. */
typedef struct CMP_LDAP_FILTER {
    uint32_t cmp_ldap_filterCond;            /* CMP_LDAP_FILTER_COND_*, the same for every pair */
    uint32_t cmp_ldap_searchCond;            /* CMP_LDAP_SEARCH_COND_AND or _OR */
    char cmp_ldap_attr[CMP_LDAP_TEXT_SIZE];  /* "cn, mail" */
    char cmp_ldap_value[CMP_LDAP_TEXT_SIZE]; /* "abc, x" */
} CMP_LDAP_FILTER;

/* A presence filter: up to three comma-separated attribute descriptions. */
typedef struct CMP_LDAP_FILTER_PRESENT {
    uint32_t cmp_ldap_searchCond;
    char attr[CMP_LDAP_TEXT_SIZE];
} CMP_LDAP_FILTER_PRESENT;

/* Parsed forms of the filters, made and freed by the library. */
typedef struct CMP_LDAP_FILTER_ITEM {
    uint32_t cmp_ldap_filterCond;
    char cmp_ldap_attr[CMP_LDAP_TEXT_SIZE];
    char cmp_ldap_value[CMP_LDAP_TEXT_SIZE];
} CMP_LDAP_FILTER_ITEM;

typedef struct CMP_LDAP_SEARCH_FILTER {
    uint8_t cmp_ldap_filter_count; /* items in use, 0..2 */
    uint32_t cmp_ldap_searchCond;
    CMP_LDAP_FILTER_ITEM cmp_ldap_items[2];
} CMP_LDAP_SEARCH_FILTER;

typedef struct CMP_LDAP_SEARCH_FILTER_PRESENT {
    uint8_t cmp_ldap_filter_count; /* attributes in use, 0..3 */
    uint32_t cmp_ldap_searchCond;
    char attr[3][CMP_LDAP_TEXT_SIZE];
} CMP_LDAP_SEARCH_FILTER_PRESENT;

/* A time-out of seconds and microseconds for cmp_ldap_result. */
typedef struct CMP_LDAP_TIMEVAL {
    long tv_sec;
    long tv_usec;
} CMP_LDAP_TIMEVAL;

/* ------------------------------------------------------------------------
 * Handle, memory and message ids
 * ---------------------------------------------------------------------- */
CMP_LDAP_API void cmp_ldap_init(void);
CMP_LDAP_API CMP_LDAP *cmp_ldap_allocate_ldap_handler(void);
CMP_LDAP_API int32_t cmp_ldap_get_new_message_id(CMP_LDAP *ld);
CMP_LDAP_API void *cmp_ldap_malloc(const char *funcname, uint32_t size);
CMP_LDAP_API char *cmp_ldap_strdup(const char *s);
CMP_LDAP_API char *cmp_ldap_strdup_without_space(const char *s);
/* Releases a block the library handed out that has no free function of its own:
 * a text taken from ld_referral, SASL server credentials. NULL is harmless. */
CMP_LDAP_API void cmp_ldap_memfree(void *block);
/* The version of the library in use, in the form of CMP_LDAP_VERSION_NUMBER:
 * compare the two to check at run time what the headers promised at build time. */
CMP_LDAP_API uint32_t cmp_ldap_version(void);

/* ------------------------------------------------------------------------
 * Sessions
 * ---------------------------------------------------------------------- */
CMP_LDAP_API int cmp_ldap_open_with_timeout(const CMP_LDAP_CONN_PARAM *param, CMP_LDAP **ldp);
CMP_LDAP_API int cmp_ldap_open_with_timeout_main(const CMP_LDAP_CONN_PARAM *param, CMP_LDAP **ldp,
                                                 uint32_t check_protocol);
CMP_LDAP_API int cmp_ldap_unbind(CMP_LDAP *ld);
CMP_LDAP_API int cmp_ldap_connect(CMP_LDAP *ld, const char *hostname, int32_t portno, long timeout,
                                  uint8_t ipv6, uint8_t tls_mod);
CMP_LDAP_API int cmp_ldap_close_socket(int32_t sockfd);
CMP_LDAP_API int cmp_ldap_tls_start(CMP_LDAP *ld, const CMP_LDAP_CONN_PARAM *param);
CMP_LDAP_API int cmp_ldap_tls_end(CMP_LDAP *ld);

/* ------------------------------------------------------------------------
 * Operations
 * ---------------------------------------------------------------------- */
CMP_LDAP_API int cmp_ldap_bind(CMP_LDAP *ld, const char *dn, const char *cred, const char *domain,
                               const char *ccname, uint32_t method);
CMP_LDAP_API int cmp_ldap_abandon(CMP_LDAP *ld, int32_t msgid);
CMP_LDAP_API int cmp_ldap_search_tiny(CMP_LDAP *ld, const char *base, uint32_t scope,
                                      const CMP_LDAP_FILTER *filter,
                                      const CMP_LDAP_FILTER_PRESENT *filter_present,
                                      const char *attrs, uint32_t attrsonly);
CMP_LDAP_API int cmp_ldap_result(CMP_LDAP *ld, int32_t msgid, int32_t all,
                                 const CMP_LDAP_TIMEVAL *timeout, CMP_LDAP_MESSAGE **res);

/* Whole PDUs: a send buffer and one read. */
typedef struct CMP_LDAP_SEND_BUF {
    const unsigned char *data;
    uint32_t len;
} CMP_LDAP_SEND_BUF;
CMP_LDAP_API int cmp_ldap_send_berdata(CMP_LDAP *ld, const CMP_LDAP_SEND_BUF *buf);
CMP_LDAP_API int cmp_ldap_read_berdata(CMP_LDAP *ld, long timeout, CMP_LDAP_MESSAGE **msg);

/* ------------------------------------------------------------------------
 * Encoders: each length function gives the exact PDU size its encoder writes.
 * The encoders read the message id from ld->ld_mid.
 * ---------------------------------------------------------------------- */
CMP_LDAP_API uint32_t cmp_ldap_get_bind_request_message_length(const CMP_LDAP *ld, const char *dn,
                                                               const char *passwd);
CMP_LDAP_API void cmp_ldap_ber_encode_bind_request(const CMP_LDAP *ld, const char *dn,
                                                   const char *passwd, unsigned char *buf);
CMP_LDAP_API uint32_t cmp_ldap_get_sasl_bind_request_message_length(const CMP_LDAP *ld,
                                                                    const char *mechanism,
                                                                    const CMP_LDAP_SASL_CRED *cred);
CMP_LDAP_API void cmp_ldap_ber_encode_sasl_bind_request(const CMP_LDAP *ld, const char *mechanism,
                                                        const CMP_LDAP_SASL_CRED *cred,
                                                        unsigned char *buf);
CMP_LDAP_API uint32_t cmp_ldap_get_search_request_message_length(
    const CMP_LDAP *ld, const char *base, const CMP_LDAP_SEARCH_FILTER *filter,
    const CMP_LDAP_SEARCH_FILTER_PRESENT *filter_present, char *const *attrs);
CMP_LDAP_API void cmp_ldap_ber_encode_search_request(
    const CMP_LDAP *ld, const char *base, uint32_t scope, const CMP_LDAP_SEARCH_FILTER *filter,
    const CMP_LDAP_SEARCH_FILTER_PRESENT *filter_present, char *const *attrs, uint32_t attrsonly,
    unsigned char *buf);
CMP_LDAP_API uint32_t cmp_ldap_get_extend_request_message_length(const CMP_LDAP *ld);
CMP_LDAP_API void cmp_ldap_ber_encode_extend_request(const CMP_LDAP *ld, unsigned char *buf);

/* ------------------------------------------------------------------------
 * Search parameters
 * ---------------------------------------------------------------------- */
CMP_LDAP_API CMP_LDAP_SEARCH_FILTER *cmp_ldap_parse_search_filter(const CMP_LDAP_FILTER *filter);
CMP_LDAP_API void cmp_ldap_free_search_filter(CMP_LDAP_SEARCH_FILTER *filter);
CMP_LDAP_API CMP_LDAP_SEARCH_FILTER_PRESENT *cmp_ldap_parse_search_filter_present(
    const CMP_LDAP_FILTER_PRESENT *filter_present);
CMP_LDAP_API void cmp_ldap_free_search_filter_present(CMP_LDAP_SEARCH_FILTER_PRESENT *fp);
CMP_LDAP_API char **cmp_ldap_parse_search_attributes(const char *attrs);
CMP_LDAP_API void cmp_ldap_free_search_attributes(char **attrs);

/* ------------------------------------------------------------------------
 * Decoding primitives and navigation. Positions are byte indices into
 * mes->cmp_ldap_ber; 0xFFFFFFFF (-1) is failure, 255 for a tag.
 * ---------------------------------------------------------------------- */
CMP_LDAP_API uint8_t cmp_ldap_ber_get_tag(const CMP_LDAP_MESSAGE *mes, int32_t pos);
CMP_LDAP_API uint32_t cmp_ldap_ber_get_content_length(const CMP_LDAP_MESSAGE *mes, int32_t pos);
CMP_LDAP_API uint32_t cmp_ldap_ber_get_length_length(const CMP_LDAP_MESSAGE *mes, int32_t pos);
CMP_LDAP_API uint32_t cmp_ldap_ber_get_content(const CMP_LDAP_MESSAGE *mes, int32_t pos);
CMP_LDAP_API uint32_t cmp_ldap_ber_decode_string_to(const CMP_LDAP_MESSAGE *mes, int32_t pos,
                                                    char *buf, int32_t size);
CMP_LDAP_API uint32_t cmp_ldap_ber_decode_string(const CMP_LDAP_MESSAGE *mes, int32_t pos,
                                                 char **out);
CMP_LDAP_API uint32_t cmp_ldap_ber_decode_string_len(const CMP_LDAP_MESSAGE *mes, int32_t pos,
                                                     CMP_LDAP_BERVAL **out);
CMP_LDAP_API uint32_t cmp_ldap_ber_decode_enum(const CMP_LDAP_MESSAGE *mes, int32_t pos,
                                               uint32_t *value);
CMP_LDAP_API uint32_t cmp_ldap_ber_decode_integer(const CMP_LDAP_MESSAGE *mes, int32_t pos,
                                                  uint32_t *value);
CMP_LDAP_API uint32_t cmp_ldap_ber_decode_attr_name_of_attribute(const CMP_LDAP_MESSAGE *mes,
                                                                 int32_t pos, char *attrName,
                                                                 int32_t size);
CMP_LDAP_API int32_t cmp_ldap_ber_decode_ldap_message(const CMP_LDAP_MESSAGE *mes,
                                                      CMP_LDAP_MESSAGE_REC *rec);
CMP_LDAP_API int32_t cmp_ldap_ber_get_next(const CMP_LDAP_MESSAGE *mes, int32_t pos);
CMP_LDAP_API int32_t cmp_ldap_ber_count_members(const CMP_LDAP_MESSAGE *mes, int32_t pos);
CMP_LDAP_API int32_t cmp_ldap_ber_get_attr_pos_of_search_entry(const CMP_LDAP_MESSAGE *mes);
CMP_LDAP_API int32_t cmp_ldap_ber_lookup_attribute_on_search_entry(const CMP_LDAP_MESSAGE *mes,
                                                                   const char *attr);

/* ------------------------------------------------------------------------
 * Message access
 * ---------------------------------------------------------------------- */
CMP_LDAP_API CMP_LDAP_MESSAGE *cmp_ldap_first_entry(CMP_LDAP *ld, CMP_LDAP_MESSAGE *res);
CMP_LDAP_API CMP_LDAP_MESSAGE *cmp_ldap_next_entry(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry);
CMP_LDAP_API int cmp_ldap_count_entries(CMP_LDAP *ld, CMP_LDAP_MESSAGE *res);
CMP_LDAP_API char *cmp_ldap_first_attribute(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry, void **ptr);
CMP_LDAP_API char *cmp_ldap_next_attribute(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry, void *ptr);
CMP_LDAP_API char **cmp_ldap_get_values(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry, const char *attr);
CMP_LDAP_API CMP_LDAP_BERVAL **cmp_ldap_get_values_binary(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry,
                                                          const char *attr);
CMP_LDAP_API int cmp_ldap_count_values(char **vals);
CMP_LDAP_API int cmp_ldap_count_values_binary(CMP_LDAP_BERVAL **vals);
CMP_LDAP_API int cmp_ldap_value_free(char **vals);
CMP_LDAP_API int cmp_ldap_value_free_binary(CMP_LDAP_BERVAL **vals);
CMP_LDAP_API char *cmp_ldap_get_dn(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry);
CMP_LDAP_API int cmp_ldap_dn_free(char *dn);
CMP_LDAP_API char **cmp_ldap_explode_dn(const char *dn, int notypes);
CMP_LDAP_API char **cmp_ldap_get_referrals(CMP_LDAP *ld, CMP_LDAP_MESSAGE *mes);
CMP_LDAP_API int cmp_ldap_msgid(CMP_LDAP_MESSAGE *mes);
CMP_LDAP_API int cmp_ldap_msgtype(CMP_LDAP_MESSAGE *mes);
CMP_LDAP_API int cmp_ldap_msgfree(CMP_LDAP_MESSAGE *mes);
CMP_LDAP_API const char *cmp_ldap_err2string(int32_t code);
CMP_LDAP_API int cmp_ldap_result2error(CMP_LDAP *ld, CMP_LDAP_MESSAGE *mes, int freeit);

/* ------------------------------------------------------------------------
 * SASL GSSAPI bind with a Kerberos 5 credential cache (Cyrus SASL 2.1.23 or a
 * later 2.1 release). cmp_ldap_bind with CMP_LDAP_AUTH_SASL is the usual way in.
 * A build without SASL (TOVEISTROR_SASL=OFF) has none of these functions.
 * ---------------------------------------------------------------------- */
/* Cyrus SASL's sasl_security_properties_t; include <sasl/sasl.h> to fill one. */
struct sasl_security_properties;

/* The whole bind, one at a time in the process: the id of the final BindRequest,
 * or -1 with the reason in ld_errno. userid and domain go to the trace only. */
CMP_LDAP_API int cmp_ldap_sasl_interactive_bind_s(CMP_LDAP *ld, const char *userid,
                                                  const char *domain, const char *ccname);
/* One step: sends a SASL BindRequest and reads its BindResponse. Returns its result
 * code (14: go on) or a library code; *servercredp (when given) then holds the
 * server's credentials, released with cmp_ldap_memfree(p). */
CMP_LDAP_API int cmp_ldap_sasl_bind_s(CMP_LDAP *ld, const char *mechanism,
                                      const CMP_LDAP_SASL_CRED *cred,
                                      CMP_LDAP_SASL_CRED **servercredp, int32_t *msgidp);
/* The peer's host name (its reverse name), else a copy of defhost, else NULL. */
CMP_LDAP_API char *cmp_ldap_host_connected_to(CMP_LDAP *ld, const char *defhost);
/* The conversation itself: no security layer, no plain text or anonymous mechanisms. */
CMP_LDAP_API int cmp_ldap_int_sasl_secprops(struct sasl_security_properties *secprops);
CMP_LDAP_API int cmp_ldap_int_sasl_bind(CMP_LDAP *ld,
                                        const struct sasl_security_properties *secprops,
                                        const char *userid, const char *domain, const char *ccname,
                                        int32_t *msgidp);
CMP_LDAP_API void cmp_ldap_int_sasl_close(CMP_LDAP *ld);
/* Opt-in security layer for the later GSSAPI binds of this handle. By default
 * (0, 0) a bind negotiates none and the traffic stays as it is. Otherwise the bind
 * asks for a strength factor from min_ssf to max_ssf: 1 is integrity (signing),
 * 56 and more confidentiality (sealing) as well; a server that cannot meet min_ssf
 * fails the bind. Once a bind has negotiated a layer, every later request and
 * response of the session travels wrapped (4-octet length, then the SASL library's
 * encoding), and the layer lasts until cmp_ldap_unbind. Returns 0,
 * CMP_LDAP_PARAM_ERROR (no handle, min_ssf above max_ssf) or CMP_LDAP_NO_MEMORY. Unlike
 * the functions above it is in every build: without SASL it takes only the default and
 * refuses a layer with CMP_LDAP_AUTH_UNKNOWN. */
CMP_LDAP_API int cmp_ldap_set_sasl_ssf(CMP_LDAP *ld, uint32_t min_ssf, uint32_t max_ssf);

/* ------------------------------------------------------------------------
 * Trace dumps to the debug log. The first argument names the caller.
 * ---------------------------------------------------------------------- */
CMP_LDAP_API int cmp_ldap_gentrace_ld(const char *funcname, const CMP_LDAP *ld);
CMP_LDAP_API int cmp_ldap_gentrace_param(const char *funcname, const CMP_LDAP_CONN_PARAM *param);
CMP_LDAP_API int cmp_ldap_gentrace_search_params(const char *funcname, const char *base, int scope,
                                                 const CMP_LDAP_FILTER *filter,
                                                 const CMP_LDAP_FILTER_PRESENT *filter_present,
                                                 const char *attrs, int attrsonly);

/* ------------------------------------------------------------------------
 * Connection test: open, bind and a search of the base entry, reported as one
 * device result code (0 on success, otherwise 0x5103xxxx).
 * ---------------------------------------------------------------------- */
#define CMP_LDAP_TEST_OK 0x00000000u
#define CMP_LDAP_TEST_ADDRESS_ERROR 0x51031101u       /* host name not resolved */
#define CMP_LDAP_TEST_INVALID_CREDENTIALS 0x51031102u /* also a refused SASL authentication */
#define CMP_LDAP_TEST_TLS_INIT_ERROR 0x51031131u
#define CMP_LDAP_TEST_TLS_HANDSHAKE_ERROR 0x51031132u /* handshake or certificate check */
#define CMP_LDAP_TEST_CONNECT_ERROR 0x51032101u       /* connection refused or failed */
#define CMP_LDAP_TEST_CONNECT_TIMEOUT 0x51032102u     /* no connection in time */
#define CMP_LDAP_TEST_TIMEOUT 0x51032203u             /* no response in time */
#define CMP_LDAP_TEST_TLS_IO_ERROR 0x51032231u
#define CMP_LDAP_TEST_SERVER_ERROR 0x51033101u /* protocol error, server down, bad response */
#define CMP_LDAP_TEST_CANCELLED 0x51035105u
#define CMP_LDAP_TEST_NO_MEMORY 0x51037101u
#define CMP_LDAP_TEST_SOCKET_ERROR 0x51037102u
#define CMP_LDAP_TEST_OTHER_ERROR 0x5103720fu /* also: another test is running */
#define CMP_LDAP_TEST_PARAM_ERROR 0x51039181u
#define CMP_LDAP_TEST_NO_SUCH_OBJECT 0x51039182u /* the base entry was not found as given */
#define CMP_LDAP_TEST_KRB5_CCACHE_ERROR 0x51039183u
#define CMP_LDAP_TEST_SASL_NO_HOST 0x51039184u

/* Everything a test needs. A record from cmp_ldap_test_copy_param owns its six
 * texts; a null or empty base skips the search. */
typedef struct CMP_LDAP_TEST_PARAM {
    CMP_LDAP_CONN_PARAM connparam;
    char *dn;        /* bind DN (simple) or SASL user name */
    char *cred;      /* password of a simple bind */
    char *domain;    /* SASL domain (realm) */
    char *ccname;    /* Kerberos 5 credential cache */
    uint32_t method; /* CMP_LDAP_AUTH_SIMPLE or CMP_LDAP_AUTH_SASL */
    char *base;      /* DN of the entry the test looks up */
    /* Security layer of a SASL bind, as cmp_ldap_set_sasl_ssf takes it; 0, 0 asks
     * for none. A simple bind ignores both. */
    uint32_t sasl_min_ssf;
    uint32_t sasl_max_ssf;
} CMP_LDAP_TEST_PARAM;

/* The identity of a running asynchronous test; its 8 bytes are also the cancel
 * message. The caller provides it from the library's memory (cmp_ldap_malloc):
 * a start that fails after copying the parameters releases it. */
typedef struct CMP_LDAP_ASYNC_TEST_ID {
    uint32_t task_id;
    uint32_t msgq_id;
} CMP_LDAP_ASYNC_TEST_ID;

/* Receives the device result on the test's own task. */
typedef void (*CMP_LDAP_TEST_CALLBACK)(uint32_t result);

CMP_LDAP_API CMP_LDAP_TEST_PARAM *cmp_ldap_test_copy_param(const CMP_LDAP_TEST_PARAM *param);
CMP_LDAP_API void cmp_ldap_test_free_param(CMP_LDAP_TEST_PARAM *param);
/* The device result; CMP_LDAP_PARAM_ERROR (264, a library code) for a NULL param. */
CMP_LDAP_API uint32_t cmp_ldap_test(const CMP_LDAP_TEST_PARAM *param);
/* 0 when the test task runs (the callback then gets the result exactly once),
 * otherwise a device result or 264, and the callback is not called. */
CMP_LDAP_API uint32_t cmp_ldap_async_test(const CMP_LDAP_TEST_PARAM *param,
                                          CMP_LDAP_TEST_CALLBACK result_callback,
                                          CMP_LDAP_ASYNC_TEST_ID *conninfo);
/* Asks the running test to stop at its next step (it then reports
 * CMP_LDAP_TEST_CANCELLED); 0 also when no test runs. Does not wait. */
CMP_LDAP_API uint32_t cmp_ldap_async_test_cancel(const CMP_LDAP_ASYNC_TEST_ID *conninfo);

#ifdef __cplusplus
}
#endif

#endif /* CMP_LDAP_H */
