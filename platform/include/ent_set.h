/*
 * Device settings store. Reads one setting, named by two 32-bit keys, into
 * the caller's storage; 0 on success.
 */
#ifndef ENT_SET_H
#define ENT_SET_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ME_STC_U08_LDAP_PROTOCOL: one byte, non-zero when LDAP is switched on. */
#define ENT_SET_KEY1_ME_STC_U08_LDAP_PROTOCOL 0x04050300u
#define ENT_SET_KEY2_ME_STC_U08_LDAP_PROTOCOL 0x85004860u

int32_t ent_set_get_status(uint32_t key1, uint32_t key2, void *value);

#ifdef __cplusplus
}
#endif

#endif
