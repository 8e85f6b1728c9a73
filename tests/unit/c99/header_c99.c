/* Compiled as strict C99: the public header must need nothing else. */
#include "cmp_ldap.h"

int header_c99_uses(void);
int header_c99_uses(void)
{
    CMP_LDAP ld = {0};
    CMP_LDAP_CONN_PARAM param = {0};
    CMP_LDAP_FILTER filter = {0};
    (void)param;
    (void)filter;
    return ld.ld_mid + (int)sizeof(CMP_LDAP_MESSAGE) + CMP_LDAP_NO_MEMORY;
}
