/*
 * Settings store: the LDAP protocol switch comes from the environment and is
 * on unless TOVEISTROR_LDAP_PROTOCOL says "0" or "off".
 */
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "ent_set.h"

extern "C" int32_t ent_set_get_status(uint32_t key1, uint32_t key2, void *value)
{
    if (key1 != ENT_SET_KEY1_ME_STC_U08_LDAP_PROTOCOL ||
        key2 != ENT_SET_KEY2_ME_STC_U08_LDAP_PROTOCOL || value == nullptr)
        return -1;
    const char *text = getenv("TOVEISTROR_LDAP_PROTOCOL");
    bool off = text != nullptr && (strcmp(text, "0") == 0 || strcasecmp(text, "off") == 0);
    *static_cast<uint8_t *>(value) = off ? 0 : 1;
    return 0;
}
