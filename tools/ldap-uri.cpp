// The tools' ldap:// and ldaps:// URIs.
#include "ldap-uri.h"

#include <strings.h>

#include <cstdlib>

namespace tool_uri {

bool parse_ldap_uri(const std::string &uri, LdapUri &out)
{
    LdapUri u;
    std::string rest;
    if (strncasecmp(uri.c_str(), "ldap://", 7) == 0) {
        rest = uri.substr(7);
    } else if (strncasecmp(uri.c_str(), "ldaps://", 8) == 0) {
        rest = uri.substr(8);
        u.ldaps = true;
        u.port = 636;
    } else {
        return false;
    }
    rest = rest.substr(0, rest.find('/'));
    std::string port;
    if (!rest.empty() && rest[0] == '[') {
        size_t close_br = rest.find(']');
        if (close_br == std::string::npos) return false;
        u.host = rest.substr(1, close_br - 1);
        u.ipv6 = true;
        if (close_br + 1 < rest.size()) {
            if (rest[close_br + 1] != ':') return false;
            port = rest.substr(close_br + 2);
        }
    } else {
        size_t colon = rest.find(':');
        u.host = rest.substr(0, colon);
        if (colon != std::string::npos) port = rest.substr(colon + 1);
    }
    if (u.host.empty()) u.host = "localhost";
    if (!port.empty()) {
        char *end = nullptr;
        long p = std::strtol(port.c_str(), &end, 10);
        if (*end != '\0' || p < 1 || p > 65535) return false;
        u.port = static_cast<int>(p);
    }
    out = u;
    return true;
}

}  // namespace tool_uri
