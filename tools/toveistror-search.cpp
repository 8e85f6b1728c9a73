// toveistror-search: an ldapsearch-like command-line search over the toveistror
// library. It speaks only what the library speaks (simple bind, one search of
// the library's filter shape) and prints LDIF (RFC 2849).
#include <strings.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "cmp_ldap.h"
#include "cmp_ldap_posix.h"
#include "toveistror-search.h"
#include "zelOSW.h"

namespace search_tool {

const char *const kProg = "toveistror-search";

namespace {

// ---------------------------------------------------------------------------
// Result codes
// ---------------------------------------------------------------------------

// Texts for the library's codes that cmp_ldap_err2string calls "Unknown error".
const char *library_code_text(int code)
{
    switch (code) {
        case CMP_LDAP_TLS_INIT_ERROR_A:
        case CMP_LDAP_TLS_INIT_ERROR_B:
        case CMP_LDAP_TLS_INIT_ERROR_C:
            return "TLS set-up failed";
        case CMP_LDAP_TLS_VERIFY_ERROR:
            return "TLS certificate verification could not be set up";
        case CMP_LDAP_TLS_HANDSHAKE_ERROR_A:
            return "TLS handshake failed (server certificate not verified?)";
        case CMP_LDAP_TLS_HANDSHAKE_ERROR_B:
        case CMP_LDAP_TLS_HANDSHAKE_ERROR_C:
            return "TLS handshake failed";
        case CMP_LDAP_TLS_HANDSHAKE_ERROR_D:
            return "TLS handshake failed (certificate not issued for this host name)";
        case CMP_LDAP_TLS_IO_ERROR:
            return "TLS I/O error";
        case CMP_LDAP_TLS_ERROR:
            return "TLS error";
        case CMP_LDAP_PROTOCOL_SETTING_ERROR:
            return "LDAP is switched off (TOVEISTROR_LDAP_PROTOCOL)";
        case CMP_LDAP_ADDRESS_ERROR:
            return "Cannot resolve the host name";
        case CMP_LDAP_SOCKET_ERROR:
            return "Cannot create a socket";
        case CMP_LDAP_CONNECT_ERROR:
            return "Cannot connect to the server";
        case CMP_LDAP_SASL_AUTH_FAILED:
            return "SASL authentication failed";
        case CMP_LDAP_SASL_NO_HOST:
            return "No host name for the server's address";
        case CMP_LDAP_KRB5_CCACHE_ERROR:
            return "No Kerberos credential cache";
        case CMP_LDAP_SASL_ERROR:
        case CMP_LDAP_SASL_RESULT_ERROR:
        case CMP_LDAP_SASL_TASK_ERROR:
            return "SASL bind failed";
        default:
            return nullptr;
    }
}

// The texts ldapsearch prints for the result codes; the library's own texts are
// its log's, some of them spelled its own way.
const char *result_text(int code)
{
    static const struct {
        int code;
        const char *text;
    } kTexts[] = {{0, "Success"},
                  {1, "Operations error"},
                  {2, "Protocol error"},
                  {3, "Time limit exceeded"},
                  {4, "Size limit exceeded"},
                  {5, "Compare False"},
                  {6, "Compare True"},
                  {7, "Authentication method not supported"},
                  {8, "Strong(er) authentication required"},
                  {9, "Partial results and referral received"},
                  {10, "Referral"},
                  {11, "Administrative limit exceeded"},
                  {12, "Critical extension is unavailable"},
                  {13, "Confidentiality required"},
                  {14, "SASL bind in progress"},
                  {16, "No such attribute"},
                  {17, "Undefined attribute type"},
                  {18, "Inappropriate matching"},
                  {19, "Constraint violation"},
                  {20, "Type or value exists"},
                  {21, "Invalid syntax"},
                  {32, "No such object"},
                  {33, "Alias problem"},
                  {34, "Invalid DN syntax"},
                  {35, "Entry is a leaf"},
                  {36, "Alias dereferencing problem"},
                  {47, "Proxy Authorization Failure (X)"},
                  {48, "Inappropriate authentication"},
                  {49, "Invalid credentials"},
                  {50, "Insufficient access"},
                  {51, "Server is busy"},
                  {52, "Server is unavailable"},
                  {53, "Server is unwilling to perform"},
                  {54, "Loop detected"},
                  {64, "Naming violation"},
                  {65, "Object class violation"},
                  {66, "Operation not allowed on non-leaf"},
                  {67, "Operation not allowed on RDN"},
                  {68, "Already exists"},
                  {69, "Cannot modify object class"},
                  {70, "Results too large"},
                  {71, "Operation affects multiple DSAs"},
                  {76, "Virtual List View error"},
                  {80, "Other (e.g., implementation specific) error"},
                  {113, "LCUP Resources Exhausted"},
                  {114, "LCUP Security Violation"},
                  {115, "LCUP Invalid Data"},
                  {116, "LCUP Unsupported Scheme"},
                  {117, "LCUP Reload Required"},
                  {118, "Cancelled"},
                  {119, "No Operation to Cancel"},
                  {120, "Too Late to Cancel"},
                  {121, "Cannot Cancel"},
                  {122, "Assertion Failed"},
                  {123, "Proxied Authorization Denied"}};
    for (const auto &t : kTexts) {
        if (t.code == code) return t.text;
    }
    return "Unknown error";
}

std::string code_text(int code)
{
    const char *t = library_code_text(code);
    if (t == nullptr) t = code < 256 ? result_text(code) : cmp_ldap_err2string(code);
    return std::string(t) + " (" + std::to_string(code) + ")";
}

// ldapsearch's status for a code: the server's own; for the library's codes 256
// to 265 (Server down to No memory) the negative API code they stand for, -1 to
// -10, as one byte; 255 (Server down) for the TLS and connection codes, 254
// (Local error) for the SASL ones; 255 when the library left no code at all.
int exit_status(int code)
{
    if (code >= 0 && code < 256) return code;
    if (code >= CMP_LDAP_SERVER_DOWN && code <= CMP_LDAP_NO_MEMORY) {
        return 256 - (code - CMP_LDAP_SERVER_DOWN + 1);
    }
    if (code >= CMP_LDAP_SASL_AUTH_FAILED) return 254;
    return kExitServerDown;
}

[[noreturn]] void fail(const std::string &what, int code, int status, const char *detail = "")
{
    std::fflush(stdout);
    std::string why = code != 0 ? code_text(code) : "failed without a result code";
    std::fprintf(stderr, "%s: %s: %s\n", kProg, what.c_str(), why.c_str());
    if (*detail != '\0') std::fprintf(stderr, "\t%s\n", detail);
    std::exit(status);
}

// ---------------------------------------------------------------------------
// The session
// ---------------------------------------------------------------------------

// The CAs of ldap.conf (or LDAPTLS_CACERT...) go to the port under its own names,
// unless those are set already.
void take_tls_settings(const Options &o)
{
    if (std::getenv("TOVEISTROR_CA_FILE") != nullptr ||
        std::getenv("TOVEISTROR_CA_DIR") != nullptr) {
        return;
    }
    if (!o.cacert.empty()) setenv("TOVEISTROR_CA_FILE", o.cacert.c_str(), 1);
    if (!o.cacertdir.empty()) setenv("TOVEISTROR_CA_DIR", o.cacertdir.c_str(), 1);
}

struct Attempt {
    CMP_LDAP *ld = nullptr;
    int rc = 0;
    uint8_t tls_mod = CMP_LDAP_TLS_MOD_NONE;
};

Attempt open_one(const Options &o, const Server &srv)
{
    CMP_LDAP_CONN_PARAM param{};
    std::vector<char> host(srv.host.begin(), srv.host.end());
    host.push_back('\0');
    param.cmp_ldap_hostname = host.data();
    param.portno = srv.port;
    param.timeout = o.nettimeout;
    param.ipv6 = srv.ipv6 ? 1 : 0;
    param.ssl_auth = o.verify ? 1 : 0;
    if (srv.ldaps) {
        param.tls_mod = CMP_LDAP_TLS_MOD_LDAPS;
    } else if (o.starttls > 0) {
        param.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
    } else {
        param.tls_mod = CMP_LDAP_TLS_MOD_NONE;
    }
    Attempt a;
    a.rc = cmp_ldap_open_with_timeout(&param, &a.ld);
    // The open answers 80 when the server refused StartTLS (or, before anything was
    // sent, when a link-local address has no scope; the plain attempt then fails the
    // same way). Only then may -Z go on in plain text, as ldapsearch -Z does: a failed
    // handshake or certificate check means somebody may be in the way, so the run ends
    // there, before a password could leave in clear.
    if (a.rc == CMP_LDAP_OTHER && o.starttls == 1) {
        std::fprintf(stderr, "%s: StartTLS refused by the server; continuing without TLS\n", kProg);
        param.tls_mod = CMP_LDAP_TLS_MOD_NONE;
        a.ld = nullptr;
        a.rc = cmp_ldap_open_with_timeout(&param, &a.ld);
    }
    a.tls_mod = param.tls_mod;
    return a;
}

// Each URI in turn until one opens. A failed StartTLS is status 1 as in ldapsearch
// (its start_tls step fails, not the connection), any other failure 255.
CMP_LDAP *open_session(const Options &o, const std::vector<Server> &servers)
{
    Attempt a;
    size_t i = 0;
    for (; i < servers.size(); ++i) {
        a = open_one(o, servers[i]);
        if (a.rc == 0 && a.ld != nullptr) return a.ld;
    }
    std::string what = "open of " + o.uris.back();
    int status = kExitServerDown;
    if (a.tls_mod == CMP_LDAP_TLS_MOD_STARTTLS) {
        what = "StartTLS to " + o.uris.back();
        if (a.rc == CMP_LDAP_OTHER) what += " refused by the server";
        status = kExitFailure;
    }
    // The port knows which names the certificate carries and why it was not trusted.
    fail(what, a.rc, status, cmp_ldap_posix_tls_failure_text());
}

std::unique_ptr<CMP_LDAP_TIMEVAL> wait_time(const Options &o)
{
    if (o.nettimeout < 0) return nullptr;
    auto tv = std::make_unique<CMP_LDAP_TIMEVAL>();
    tv->tv_sec = o.nettimeout;
    tv->tv_usec = 0;
    return tv;
}

// ld_referral is left to the handle's owner (the unbind does not free it): free it and
// clear the field, so that neither a later result nor the unbind meets a freed pointer.
void drop_referral(CMP_LDAP *ld)
{
    zelOSWOrgFreeMemPart(0, ld->ld_referral);
    ld->ld_referral = nullptr;
}

// Unbinds and exits with the failure of the last operation. ld_errno is written on
// failures only, so callers clear it before each call: what it holds here is that
// call's code, or 0 when the library gave none.
[[noreturn]] void fail_session(CMP_LDAP *ld, const std::string &what)
{
    int code = ld->ld_errno;
    drop_referral(ld);
    cmp_ldap_unbind(ld);
    fail(what, code, code != 0 ? exit_status(code) : kExitServerDown);
}

// The next response to id; any failure, a time-out included, ends the run.
int next_response(CMP_LDAP *ld, int id, const Options &o, CMP_LDAP_MESSAGE **msg,
                  const std::string &what)
{
    auto tv = wait_time(o);
    ld->ld_errno = 0;
    int type = cmp_ldap_result(ld, id, 0, tv.get(), msg);
    if (type < 0) fail_session(ld, what);
    return type;
}

// What a BindResponse or SearchResultDone says.
struct Outcome {
    int code = 0;
    std::string matched;
    std::string text;
    std::vector<std::string> referrals;
};

// Every URL of the result's referral ([3], after resultCode, matchedDN and
// diagnosticMessage). The library keeps only the first one, in ld_referral.
std::vector<std::string> referral_urls(const CMP_LDAP_MESSAGE *msg)
{
    std::vector<std::string> urls;
    CMP_LDAP_MESSAGE_REC rec{};
    if (cmp_ldap_ber_decode_ldap_message(msg, &rec) < 0) return urls;
    auto pos = static_cast<int32_t>(cmp_ldap_ber_get_content(msg, rec.pos));
    for (int skipped = 0; skipped < 3 && pos >= 0; ++skipped)
        pos = cmp_ldap_ber_get_next(msg, pos);
    if (pos < 0 || pos >= msg->cmp_ldap_total_size || cmp_ldap_ber_get_tag(msg, pos) != 0xa3) {
        return urls;
    }
    int32_t end = cmp_ldap_ber_get_next(msg, pos);
    auto at = static_cast<int32_t>(cmp_ldap_ber_get_content(msg, pos));
    while (at >= 0 && at < end) {
        char *url = nullptr;
        at = static_cast<int32_t>(cmp_ldap_ber_decode_string(msg, at, &url));
        if (url == nullptr) break;
        urls.emplace_back(url);
        zelOSWOrgFreeMemPart(0, url);
    }
    return urls;
}

// Reads a result and releases its message (whatever result2error did with it); a
// result that cannot be read ends the run.
Outcome take_result(CMP_LDAP *ld, CMP_LDAP_MESSAGE *msg, const std::string &what)
{
    ld->ld_errno = 0;
    int rc = cmp_ldap_result2error(ld, msg, 0);
    if (rc < 0) {
        if (msg != nullptr) cmp_ldap_msgfree(msg);
        fail_session(ld, what);
    }
    Outcome r;
    r.code = rc;
    if (ld->ld_matched != nullptr) r.matched = ld->ld_matched;
    if (ld->ld_error != nullptr) r.text = ld->ld_error;
    if (msg != nullptr) {
        r.referrals = referral_urls(msg);
        cmp_ldap_msgfree(msg);
    }
    drop_referral(ld);
    return r;
}

void print_failure(const char *what, const Outcome &r)
{
    std::fprintf(stderr, "%s: %s: %s\n", kProg, what, code_text(r.code).c_str());
    if (!r.matched.empty()) std::fprintf(stderr, "\tmatched DN: %s\n", r.matched.c_str());
    if (!r.text.empty()) std::fprintf(stderr, "\tadditional info: %s\n", r.text.c_str());
    for (const auto &url : r.referrals)
        std::fprintf(stderr, "\treferral: %s\n", url.c_str());
}

// Anonymous without -D, as ldapsearch binds (a password without a DN goes to the
// server as it stands, and it answers for it).
void simple_bind(CMP_LDAP *ld, const Options &o)
{
    ld->ld_errno = 0;
    int id = cmp_ldap_bind(ld, o.binddn.c_str(), o.password.c_str(), nullptr, nullptr,
                           CMP_LDAP_AUTH_SIMPLE);
    if (id < 0) fail_session(ld, "bind");
    CMP_LDAP_MESSAGE *msg = nullptr;
    int type = next_response(ld, id, o, &msg, "bind");
    if (type != CMP_LDAP_RES_BIND) {
        cmp_ldap_msgfree(msg);
        std::fprintf(stderr, "%s: bind: unexpected response type %d\n", kProg, type);
        cmp_ldap_unbind(ld);
        std::exit(exit_status(CMP_LDAP_DECODING_ERROR));
    }
    Outcome r = take_result(ld, msg, "bind");
    if (r.code != 0) {
        cmp_ldap_unbind(ld);
        print_failure("bind", r);
        std::exit(exit_status(r.code));
    }
}

// The whole GSSAPI exchange runs inside cmp_ldap_bind. The cache comes from
// KRB5CCNAME as ldapsearch users set it; the library takes a file's path.
void gssapi_bind(CMP_LDAP *ld, const Options &o)
{
    const char *env = std::getenv("KRB5CCNAME");
    std::string cache = env != nullptr ? env : "/tmp/krb5cc_" + std::to_string(getuid());
    if (cache.compare(0, 5, "FILE:") == 0) cache.erase(0, 5);
    if (cache.find(':') != std::string::npos && cache[0] != '/') {
        std::fprintf(stderr, "%s: bind: KRB5CCNAME must name a FILE: cache: %s\n", kProg,
                     cache.c_str());
        cmp_ldap_unbind(ld);
        std::exit(kExitUsage);
    }
    ld->ld_errno = 0;
    if (o.sasl_layer && cmp_ldap_set_sasl_ssf(ld, o.min_ssf, o.max_ssf) != 0)
        fail_session(ld, "bind");
    if (cmp_ldap_bind(ld, o.sasl_user.c_str(), nullptr, o.sasl_realm.c_str(), cache.c_str(),
                      CMP_LDAP_AUTH_SASL) >= 0)
        return;
    Outcome r;
    r.code = ld->ld_errno;
    if (ld->ld_error != nullptr) r.text = ld->ld_error;
    drop_referral(ld);
    cmp_ldap_unbind(ld);
    print_failure("bind", r);
    std::exit(exit_status(r.code));
}

// Counts of what a search returned, for the summary.
struct Tally {
    long entries = 0;
    long references = 0;
};

// The values of the attribute at pos, read in place. Only for a name that came
// before in the same entry: a lookup by name (cmp_ldap_get_values_binary) would
// answer with the earlier attribute's values, where ldapsearch writes each as
// sent. False for an attribute that is not well formed.
bool print_values_at(const CMP_LDAP_MESSAGE *m, int32_t pos, const char *name, Ldif &out)
{
    // The PDU runs past the record's declared array, to cmp_ldap_total_size octets.
    const unsigned char *pdu =
        reinterpret_cast<const unsigned char *>(m) + offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber);
    auto inside = [m](int32_t p) { return p >= 0 && p < m->cmp_ldap_total_size; };
    if (!inside(pos) || cmp_ldap_ber_get_tag(m, pos) != 0x30) return false;
    int32_t end = cmp_ldap_ber_get_next(m, pos);
    auto type = static_cast<int32_t>(cmp_ldap_ber_get_content(m, pos));
    if (end < 0 || !inside(type)) return false;
    int32_t set = cmp_ldap_ber_get_next(m, type);
    if (!inside(set) || set >= end || cmp_ldap_ber_get_tag(m, set) != 0x31) return false;
    int32_t set_end = cmp_ldap_ber_get_next(m, set);
    auto v = static_cast<int32_t>(cmp_ldap_ber_get_content(m, set));
    if (set_end < 0 || set_end > end || v < 0) return false;
    while (v < set_end) {
        if (cmp_ldap_ber_get_tag(m, v) != 0x04) return false;
        int32_t next = cmp_ldap_ber_get_next(m, v);
        auto at = static_cast<int32_t>(cmp_ldap_ber_get_content(m, v));
        if (next < 0 || next > set_end || at < 0 || at > next) return false;
        out.value(name, pdu + at, static_cast<size_t>(next - at));
        v = next;
    }
    return v == set_end;
}

// One entry, written as its values are read; nothing of it outlives the message.
// With -A only the names are written, whatever values the server sent along.
void print_entry(CMP_LDAP *ld, CMP_LDAP_MESSAGE *msg, const Options &o, Ldif &out)
{
    ld->ld_errno = 0;
    char *dn = cmp_ldap_get_dn(ld, msg);
    if (dn == nullptr) fail_session(ld, "reading an entry's DN");
    if (o.ldif_level < 2) out.comment(dn_to_ufn(dn));
    out.value("dn", dn);
    cmp_ldap_dn_free(dn);

    std::vector<std::string> seen;
    void *cursor = nullptr;
    char *a = cmp_ldap_first_attribute(ld, msg, &cursor);
    // Where the attribute just named starts: the first of the list, then the
    // cursor as it stood before each step.
    int32_t at = -1;
    if (a != nullptr) {
        at = static_cast<int32_t>(cmp_ldap_ber_get_content(msg, msg->cmp_ldap_attrs_pos));
    }
    while (a != nullptr) {
        std::string name = a;  // the buffer belongs to the message
        bool again = false;
        for (const auto &n : seen)
            again = again || strcasecmp(n.c_str(), name.c_str()) == 0;
        seen.push_back(name);
        if (o.attrsonly) {
            out.value(name.c_str(), "");
        } else if (again) {
            if (!print_values_at(msg, at, name.c_str(), out)) {
                ld->ld_errno = CMP_LDAP_DECODING_ERROR;
                fail_session(ld, "reading the values of " + name);
            }
        } else {
            // An attribute without values is written only with -A, as ldapsearch does.
            CMP_LDAP_BERVAL **vals = cmp_ldap_get_values_binary(ld, msg, name.c_str());
            if (vals == nullptr) fail_session(ld, "reading the values of " + name);
            for (CMP_LDAP_BERVAL **v = vals; *v != nullptr; ++v)
                out.value(name.c_str(), (*v)->data, (*v)->total_size);
            cmp_ldap_value_free_binary(vals);
        }
        at = msg->cmp_ldap_next_attr_pos;
        a = cmp_ldap_next_attribute(ld, msg, cursor);
    }
    if (ld->ld_errno != 0) fail_session(ld, "reading an entry's attributes");
    Ldif::raw("\n");
}

void print_reference(CMP_LDAP *ld, CMP_LDAP_MESSAGE *msg, const Options &o, Ldif &out)
{
    ld->ld_errno = 0;
    char **urls = cmp_ldap_get_referrals(ld, msg);
    if (urls == nullptr) fail_session(ld, "reading a search reference");
    if (o.ldif_level < 2) Ldif::raw("# search reference\n");
    for (char **u = urls; *u != nullptr; ++u) {
        if (o.ldif_level == 0) {
            out.value("ref", *u);
        } else {
            out.comment(*u, "ref");  // ldapsearch writes no blank between the two
        }
    }
    Ldif::raw("\n");
    cmp_ldap_value_free(urls);
}

const char *scope_name(uint32_t scope)
{
    if (scope == CMP_LDAP_SCOPE_BASE) return "baseObject";
    if (scope == CMP_LDAP_SCOPE_ONELEVEL) return "oneLevel";
    return "subtree";
}

// What ldapsearch writes before the first entry at each -L level.
void print_header(const Options &o)
{
    if (o.ldif_level == 0) Ldif::raw("# extended LDIF\n");
    if (o.ldif_level == 1 || o.ldif_level == 2) Ldif::raw("version: 1\n\n");
    if (o.ldif_level >= 2) return;
    std::string h = "#\n# LDAPv3\n# base <" + o.base + ">" + (o.base_given ? "" : " (default)") +
                    " with scope " + scope_name(o.scope) + "\n";
    Ldif::raw(h);
    Ldif::raw("# filter: " + (o.filter.empty() ? std::string("(objectclass=*)") : o.filter) + "\n");
    std::string req = "# requesting:";
    for (const auto &a : o.attrs)
        req += " " + a;
    Ldif::raw(req + (o.attrs.empty() ? " ALL\n" : " \n") + "#\n\n");
}

// The summary after the last response. A server text that would break the LDIF
// (a line break in it) is written in base64 like the other values.
void print_summary(const Options &o, int id, const Outcome &r, const Tally &t, Ldif &out)
{
    if (o.ldif_level >= 2) return;
    Ldif::raw("# search result\n");
    if (o.ldif_level == 0) {
        Ldif::raw("search: " + std::to_string(id) + "\nresult: " + std::to_string(r.code) + " " +
                  result_text(r.code) + "\n");
        if (!r.matched.empty()) out.value("matchedDN", r.matched);
        if (r.text.find_first_of("\r\n") != std::string::npos) {
            out.value("text", r.text);
        } else if (!r.text.empty()) {
            Ldif::raw("text: " + r.text + "\n");
        }
        for (const auto &url : r.referrals)
            out.value("ref", url);
    }
    std::string s = "\n# numResponses: " + std::to_string(t.entries + t.references + 1) + "\n";
    if (t.entries > 0) s += "# numEntries: " + std::to_string(t.entries) + "\n";
    if (t.references > 0) s += "# numReferences: " + std::to_string(t.references) + "\n";
    Ldif::raw(s);
}

int search(CMP_LDAP *ld, const Options &o, const LibraryFilter &f, const std::string &attrs)
{
    ld->ld_deref = o.deref;
    ld->ld_sizelimit = o.sizelimit;
    ld->ld_timelimit = o.timelimit;
    ld->ld_errno = 0;
    int id = cmp_ldap_search_tiny(ld, o.base.c_str(), o.scope, f.has_filter ? &f.filter : nullptr,
                                  f.has_present ? &f.present : nullptr, attrs.c_str(),
                                  o.attrsonly ? 1 : 0);
    if (id < 0) fail_session(ld, "search");

    Ldif out(o.wrap);
    Tally t;
    for (;;) {
        CMP_LDAP_MESSAGE *msg = nullptr;
        int type = next_response(ld, id, o, &msg, "waiting for search results");
        if (type == CMP_LDAP_RES_SEARCH_ENTRY) {
            print_entry(ld, msg, o, out);
            cmp_ldap_msgfree(msg);
            ++t.entries;
        } else if (type == CMP_LDAP_RES_SEARCH_REFERENCE) {
            print_reference(ld, msg, o, out);
            cmp_ldap_msgfree(msg);
            ++t.references;
        } else if (type == CMP_LDAP_RES_SEARCH_RESULT) {
            Outcome r = take_result(ld, msg, "reading the search result");
            print_summary(o, id, r, t, out);
            std::fflush(stdout);
            if (r.code != 0) print_failure("search", r);
            return r.code;
        } else {
            cmp_ldap_msgfree(msg);  // not ours to show; keep waiting
        }
    }
}

}  // namespace

}  // namespace search_tool

int main(int argc, char **argv)
{
    using namespace search_tool;
    Options o = parse_options(argc, argv);
    std::vector<Server> servers(o.uris.size());
    for (size_t i = 0; i < o.uris.size(); ++i) {
        if (!tool_uri::parse_ldap_uri(o.uris[i], servers[i])) {
            std::string all;
            for (const auto &u : o.uris)
                all += (all.empty() ? "" : " ") + u;
            std::fprintf(stderr, "%s: Could not parse LDAP URI(s)=%s\n", kProg, all.c_str());
            return kExitUsage;
        }
        if (servers[i].ldaps && o.starttls > 0) {
            usage_error("-Z and -ZZ need an ldap:// URI, not ldaps://");
        }
    }
    std::string attrs = join_attributes(o.attrs);

    cmp_dbglog_posix_set_level(o.log_level);
    take_tls_settings(o);
    cmp_ldap_init();

    CMP_LDAP *ld = open_session(o, servers);
    if (o.sasl_mech.empty()) {
        simple_bind(ld, o);
    } else {
        gssapi_bind(ld, o);
    }
    print_header(o);
    std::fflush(stdout);
    LibraryFilter f;
    if (!o.filter.empty()) f = parse_filter(o.filter);
    int rc = search(ld, o, f, attrs);
    cmp_ldap_unbind(ld);
    return exit_status(rc);
}
