// toveistror-search: what its sources share. The command line (options), the
// filter text (filter), the LDIF writer (ldif) and the session (main) each live
// in a source of their own.
#ifndef TOVEISTROR_SEARCH_H
#define TOVEISTROR_SEARCH_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cmp_ldap.h"

namespace search_tool {

extern const char *const kProg;

// Exit statuses besides the server's result code.
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Prints the message and the hint to --help, exits with kExitUsage.
[[noreturn]] void usage_error(const std::string &msg);

// ---------------------------------------------------------------------------
// The command line
// ---------------------------------------------------------------------------

struct Options {
    std::string uri = "ldap://localhost:389";
    int starttls = 0;  // 1 try, 2 require
    std::string binddn;
    bool have_binddn = false;
    std::string password;
    bool have_password = false;
    bool prompt_password = false;
    std::string sasl_mech;  // -Y: GSSAPI only; -U and -R go to the library's trace
    std::string sasl_user;
    std::string sasl_realm;
    std::string base;
    uint32_t scope = CMP_LDAP_SCOPE_SUBTREE;
    int deref = CMP_LDAP_DEREF_NEVER;
    int sizelimit = 0;
    int timelimit = 0;
    int nettimeout = 30;  // seconds, -1 none
    bool attrsonly = false;
    int log_level = -1;
    std::string filter;
    bool have_filter = false;
    std::vector<std::string> attrs;
};

struct Server {
    std::string host;
    int port = 389;
    bool ldaps = false;
    bool ipv6 = false;
};

// Exit with a usage error on anything the tool does not take.
Options parse_options(int argc, char **argv);
Server parse_uri(const std::string &uri);
std::string join_attributes(const std::vector<std::string> &attrs);

// ---------------------------------------------------------------------------
// Filters: RFC 4515 text to the library's two records
// ---------------------------------------------------------------------------

struct LibraryFilter {
    bool has_filter = false;
    bool has_present = false;
    CMP_LDAP_FILTER filter{};
    CMP_LDAP_FILTER_PRESENT present{};
};

// Exits with a usage error for bad text and for shapes the library cannot send.
LibraryFilter parse_filter(const std::string &text);

// ---------------------------------------------------------------------------
// LDIF output (RFC 2849), written the way ldapsearch -LLL -o ldif_wrap=76 does
// ---------------------------------------------------------------------------

class Ldif {
  public:
    void line(const std::string &name, const unsigned char *v, size_t len);
    void line(const std::string &name, const std::string &v);
    void raw(const std::string &text) { out_ += text; }
    void flush();

  private:
    void folded(const std::string &l);

    std::string out_;
};

}  // namespace search_tool

#endif
