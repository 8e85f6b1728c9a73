/*
 * What callers use beside the protocol: the version of the library they run
 * with, and the release of the blocks the library hands them.
 */
#include "cmp_ldap_internal.h"

uint32_t cmp_ldap_version(void)
{
    return (uint32_t)CMP_LDAP_VERSION_NUMBER;
}

void cmp_ldap_memfree(void *block)
{
    /* The same release as the library's own, so a port's allocator sees one pair. */
    cmp_ldap_free(block);
}
