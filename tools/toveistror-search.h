// toveistror-search: what its sources share. The command line and ldap.conf
// (options), the filter text (filter), the LDIF writer (ldif) and the session
// (main) each live in a source of their own.
#ifndef TOVEISTROR_SEARCH_H
#define TOVEISTROR_SEARCH_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cmp_ldap.h"
#include "ldap-uri.h"

namespace search_tool {

using Server = tool_uri::LdapUri;

extern const char *const kProg;

// Exit statuses as ldapsearch gives them besides the server's result code: 1 for
// a usage error, 255 (-1) when no server could be reached or TLS failed, 249 (-7)
// for a bad filter.
constexpr int kExitUsage = 1;
constexpr int kExitFailure = 1;
constexpr int kExitServerDown = 255;
constexpr int kExitFilter = 249;

// Prints the message and the usage text, exits with kExitUsage.
[[noreturn]] void usage_error(const std::string &msg);

// ---------------------------------------------------------------------------
// The command line, the environment and ldap.conf
// ---------------------------------------------------------------------------

struct Options {
    std::vector<std::string> uris;  // tried in turn
    int starttls = 0;               // 1 try, 2 require
    std::string binddn;
    std::string password;
    bool have_binddn = false;
    bool have_password = false;
    bool prompt_password = false;
    std::string sasl_mech;  // -Y: GSSAPI only; -U and -R go to the library's trace
    std::string sasl_user;
    std::string sasl_realm;
    bool sasl_layer = false;  // -O: a security layer from min_ssf to max_ssf
    uint32_t min_ssf = 0, max_ssf = 0;
    std::string base;
    bool base_given = false;  // -b, as opposed to BASE from ldap.conf or LDAPBASE
    uint32_t scope = CMP_LDAP_SCOPE_SUBTREE;
    int deref = CMP_LDAP_DEREF_NEVER;
    int sizelimit = 0;
    int timelimit = 0;
    int nettimeout = 30;  // seconds, -1 none
    bool attrsonly = false;
    int ldif_level = 0;  // how many -L
    int wrap = 78;       // -o ldif_wrap; 0 folds no line
    int log_level = -1;
    std::string filter;
    std::vector<std::string> attrs;
    std::string cacert, cacertdir;
    bool verify = true;  // TLS_REQCERT
};

// Exits with a usage error on anything the tool does not take.
Options parse_options(int argc, char **argv);
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

// Exits with kExitFilter for bad text and for shapes the library cannot send.
LibraryFilter parse_filter(const std::string &text);

// ---------------------------------------------------------------------------
// LDIF output (RFC 2849), written as ldapsearch writes it, straight to stdout
// ---------------------------------------------------------------------------

class Ldif {
  public:
    explicit Ldif(int wrap) : wrap_(wrap) {}
    // "name: value", or "name:: base64" for a value that is not safe as text;
    // folded. An empty value is "name:".
    void value(const char *name, const unsigned char *v, size_t len);
    void value(const char *name, const std::string &v);
    // "# text", folded one column later than values, as ldapsearch folds its
    // comments. A comment never carries a control character, so no server text
    // can start an uncommented line.
    // The head ("ref" before a reference's URL) is never folded.
    void comment(const std::string &text, const char *head = "");
    static void raw(const std::string &text);

  private:
    void put(const char *s, size_t n);

    int wrap_;
    size_t col_ = 0;
};

// The "user friendly" form of a DN that ldapsearch puts above each entry: values
// only, ", " between RDNs, " + " inside one, a run of dc RDNs joined by dots.
// Empty for a DN it cannot read.
std::string dn_to_ufn(const std::string &dn);

}  // namespace search_tool

#endif
