// The ldap:// and ldaps:// URIs the tools take (-H): scheme, host and port; the
// DN, attributes and the rest after the first '/' are ignored, as both tools
// take those from their own options.
#ifndef TOVEISTROR_LDAP_URI_H
#define TOVEISTROR_LDAP_URI_H

#include <string>

namespace tool_uri {

struct LdapUri {
    std::string host = "localhost";  // an empty host means localhost
    int port = 389;                  // 636 for ldaps://
    bool ldaps = false;
    bool ipv6 = false;  // written [addr]
};

// False for anything else: another scheme, an unclosed '[', a bad port.
bool parse_ldap_uri(const std::string &uri, LdapUri &out);

}  // namespace tool_uri

#endif
