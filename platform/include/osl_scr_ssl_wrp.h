/*
 * TLS wrapper. Every call returns 0 on success or a code of the 0x7201xxxx family.
 * The meaning of the single bits of the four masks is the port's own; see the
 * port's documentation (platform/posix/osl_scr_ssl_wrp_posix.h for the POSIX port).
 */
#ifndef OSL_SCR_SSL_WRP_H
#define OSL_SCR_SSL_WRP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define OSL_SCR_SSL_WRP_OK 0x00000000u
#define OSL_SCR_SSL_WRP_ERR_HANDSHAKE_A 0x72010002u
#define OSL_SCR_SSL_WRP_ERR_HANDSHAKE_B 0x72010003u
#define OSL_SCR_SSL_WRP_ERR_HANDSHAKE_C 0x72010004u
#define OSL_SCR_SSL_WRP_ERR_IO 0x72010005u
#define OSL_SCR_SSL_WRP_ERR_TIMEOUT 0x72010006u
#define OSL_SCR_SSL_WRP_ERR_INIT_B 0x72010007u
#define OSL_SCR_SSL_WRP_ERR_INIT_A 0x72010008u
#define OSL_SCR_SSL_WRP_ERR_VERIFY 0x72010009u
#define OSL_SCR_SSL_WRP_ERR_INIT_C 0x7201000au
#define OSL_SCR_SSL_WRP_ERR_CLOSED 0x7201000bu
#define OSL_SCR_SSL_WRP_ERR_HANDSHAKE_D 0x7201001du
#define OSL_SCR_SSL_WRP_ERR_GENERAL 0x720100ffu

/* Handshake settings, 16 bytes, built fresh and zeroed for every handshake. */
typedef struct OSL_SCR_SSL_WRP_SETTINGS {
    int32_t sockfd;      /* connected TCP socket */
    int32_t timeout;     /* milliseconds, -1 = no limit */
    uint8_t verify;      /* 1: verify the server certificate */
    uint8_t ssl_version; /* mask of allowed TLS versions, 0 = the port's default */
    uint8_t ssl_hash;    /* mask of allowed MAC/hash algorithms */
    uint8_t ssl_encrpt;  /* mask of allowed ciphers */
    uint8_t ssl_accepted_signature_algorithm; /* mask of certificate signature algorithms */
    uint8_t reserved[3];
} OSL_SCR_SSL_WRP_SETTINGS;

uint32_t osl_scr_ssl_wrp_init(void **ctx);
uint32_t osl_scr_ssl_wrp_set_verify(void *ctx);
uint32_t osl_scr_ssl_wrp_connect_timeo(void *ctx, const OSL_SCR_SSL_WRP_SETTINGS *settings,
                                       void **conn);
/* *count receives the bytes moved; 0x72010006 on time-out. */
uint32_t osl_scr_ssl_wrp_read_timeo(void *conn, void *buf, uint32_t len, long timeout,
                                    int32_t *count);
uint32_t osl_scr_ssl_wrp_write_timeo(void *conn, const void *buf, uint32_t len, long timeout,
                                     int32_t *count);
uint32_t osl_scr_ssl_wrp_shutdown(void *conn);
uint32_t osl_scr_ssl_wrp_term(void *ctx);

#ifdef __cplusplus
}
#endif

#endif
