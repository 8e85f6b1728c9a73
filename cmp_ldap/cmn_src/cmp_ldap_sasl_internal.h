/*
 * Shared by the two SASL sources (and their unit tests) only; never installed.
 */
#ifndef CMP_LDAP_SASL_INTERNAL_H
#define CMP_LDAP_SASL_INTERNAL_H

#include "cmp_ldap_internal.h"

/* The body of the "CMP_LDAP_SASL" task, in the OS wrapper's entry shape: the
 * session, the security properties, userid, domain, ccname and the address of the
 * waiting caller's message id; the last four are unused. */
void cmp_ldap_sasl_bind_task_main(void *ld, void *secprops, void *userid, void *domain,
                                  void *ccname, void *msgidp, void *, void *, void *, void *);

/* The bind mutex and the SASL library's initialisation live for the process. These
 * make the next bind start as the first one in a process would (unit tests, whose
 * fake OS wrapper forgets its mutexes between cases); never called by the library. */
void cmp_ldap_sasl_forget_mutex(void);
void cmp_ldap_cyrus_forget_init(void);

#endif
