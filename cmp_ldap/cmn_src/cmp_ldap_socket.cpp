#include "cmp_ldap_internal.h"
