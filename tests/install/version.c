/* The installed headers and the library a program runs with are the same release. */
#include <stdio.h>

#include "cmp_ldap.h"

#if !CMP_LDAP_VERSION_AT_LEAST(0, 1, 0) || CMP_LDAP_VERSION_AT_LEAST(99, 0, 0)
#error "the version macros do not compare"
#endif

int main(void)
{
    unsigned long running = cmp_ldap_version();
    printf("%s 0x%06lx 0x%06lx\n", CMP_LDAP_VERSION_STRING, (unsigned long)CMP_LDAP_VERSION_NUMBER,
           running);
    return running == CMP_LDAP_VERSION_NUMBER ? 0 : 1;
}
