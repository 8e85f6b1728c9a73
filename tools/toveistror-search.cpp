// toveistror-search: an ldapsearch-like command-line search over the toveistror
// library. It speaks only what the library speaks (simple bind, one search of
// the library's filter shape) and prints LDIF (RFC 2849).
#include <strings.h>
#include <unistd.h>

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

std::string code_text(int code)
{
    const char *t = library_code_text(code);
    if (t == nullptr) t = cmp_ldap_err2string(code);
    return std::string(t) + " (" + std::to_string(code) + ")";
}

// A server's result code is the exit status (1 when it does not fit in one).
int exit_status(int code)
{
    if (code == 0) return 0;
    return code > 0 && code < 256 ? code : kExitFailure;
}

// Every failure of the library ends the run with status 1, also when it left no
// code behind: a refused length field, for one, fails a read without setting
// ld_errno.
[[noreturn]] void fail(const std::string &what, int code)
{
    std::string why = code != 0 ? code_text(code) : "failed without a result code";
    std::fprintf(stderr, "%s: %s: %s\n", kProg, what.c_str(), why.c_str());
    std::exit(kExitFailure);
}

// ---------------------------------------------------------------------------
// The session
// ---------------------------------------------------------------------------

void take_ldaptls_environment()
{
    // ldapsearch users have these set already; the port reads its own names.
    const char *cacert = std::getenv("LDAPTLS_CACERT");
    const char *cadir = std::getenv("LDAPTLS_CACERTDIR");
    if (std::getenv("TOVEISTROR_CA_FILE") == nullptr &&
        std::getenv("TOVEISTROR_CA_DIR") == nullptr) {
        if (cacert != nullptr) setenv("TOVEISTROR_CA_FILE", cacert, 1);
        if (cadir != nullptr) setenv("TOVEISTROR_CA_DIR", cadir, 1);
    }
}

// LDAPTLS_REQCERT as ldap.conf(5) reads it, in any case: never and allow take any
// certificate; try, demand and hard, like an unset or unknown value, refuse one that
// fails verification.
uint8_t verification_mode()
{
    const char *req = std::getenv("LDAPTLS_REQCERT");
    if (req != nullptr && (strcasecmp(req, "never") == 0 || strcasecmp(req, "allow") == 0)) {
        return 0;
    }
    return 1;
}

CMP_LDAP *open_session(const Options &o, const Server &srv)
{
    CMP_LDAP_CONN_PARAM param{};
    std::vector<char> host(srv.host.begin(), srv.host.end());
    host.push_back('\0');
    param.cmp_ldap_hostname = host.data();
    param.portno = srv.port;
    param.timeout = o.nettimeout;
    param.ipv6 = srv.ipv6 ? 1 : 0;
    param.ssl_auth = verification_mode();
    if (srv.ldaps) {
        param.tls_mod = CMP_LDAP_TLS_MOD_LDAPS;
    } else if (o.starttls > 0) {
        param.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
    } else {
        param.tls_mod = CMP_LDAP_TLS_MOD_NONE;
    }
    CMP_LDAP *ld = nullptr;
    int rc = cmp_ldap_open_with_timeout(&param, &ld);
    // The open answers 80 when the server refused StartTLS (or, before anything was
    // sent, when a link-local address has no scope; the plain attempt then fails the
    // same way). Only then may -Z go on in plain text, as ldapsearch -Z does: a failed
    // handshake or certificate check means somebody may be in the way, so the run ends
    // there, before a password could leave in clear.
    if (rc == CMP_LDAP_OTHER && o.starttls == 1) {
        std::fprintf(stderr, "%s: StartTLS refused by the server; continuing without TLS\n", kProg);
        param.tls_mod = CMP_LDAP_TLS_MOD_NONE;
        ld = nullptr;
        rc = cmp_ldap_open_with_timeout(&param, &ld);
    }
    if (rc != 0 || ld == nullptr) {
        std::string what = "open of " + o.uri;
        if (param.tls_mod == CMP_LDAP_TLS_MOD_STARTTLS) {
            what = "StartTLS to " + o.uri;
            if (rc == CMP_LDAP_OTHER) what += " refused by the server";
        }
        fail(what, rc);
    }
    return ld;
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
    fail(what, code);
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
        std::exit(kExitFailure);
    }
    Outcome r = take_result(ld, msg, "bind");
    if (r.code != 0) {
        cmp_ldap_unbind(ld);
        std::fprintf(stderr, "%s: bind: %s\n", kProg, code_text(r.code).c_str());
        if (!r.text.empty()) std::fprintf(stderr, "\tadditional info: %s\n", r.text.c_str());
        for (const auto &url : r.referrals)
            std::fprintf(stderr, "\treferral: %s\n", url.c_str());
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
        std::exit(kExitFailure);
    }
    ld->ld_errno = 0;
    if (cmp_ldap_bind(ld, o.sasl_user.c_str(), nullptr, o.sasl_realm.c_str(), cache.c_str(),
                      CMP_LDAP_AUTH_SASL) >= 0)
        return;
    int code = ld->ld_errno;
    std::string text = ld->ld_error != nullptr ? ld->ld_error : "";
    drop_referral(ld);
    cmp_ldap_unbind(ld);
    std::fprintf(stderr, "%s: bind: %s\n", kProg,
                 code != 0 ? code_text(code).c_str() : "failed without a result code");
    if (!text.empty()) std::fprintf(stderr, "\tadditional info: %s\n", text.c_str());
    std::exit(exit_status(code != 0 ? code : kExitFailure));
}

void print_entry(CMP_LDAP *ld, CMP_LDAP_MESSAGE *msg, Ldif &out)
{
    ld->ld_errno = 0;
    char *dn = cmp_ldap_get_dn(ld, msg);
    if (dn == nullptr) fail_session(ld, "reading an entry's DN");
    out.line("dn", dn);
    cmp_ldap_dn_free(dn);

    void *cursor = nullptr;
    for (char *a = cmp_ldap_first_attribute(ld, msg, &cursor); a != nullptr;
         a = cmp_ldap_next_attribute(ld, msg, cursor)) {
        std::string name = a;  // the buffer belongs to the message
        CMP_LDAP_BERVAL **vals = cmp_ldap_get_values_binary(ld, msg, name.c_str());
        if (vals == nullptr) fail_session(ld, "reading the values of " + name);
        if (vals[0] == nullptr) out.line(name, "");
        for (CMP_LDAP_BERVAL **v = vals; *v != nullptr; ++v) {
            out.line(name, (*v)->data, (*v)->total_size);
        }
        cmp_ldap_value_free_binary(vals);
    }
    if (ld->ld_errno != 0) fail_session(ld, "reading an entry's attributes");
    out.raw("\n");
}

void print_reference(CMP_LDAP *ld, CMP_LDAP_MESSAGE *msg, Ldif &out)
{
    ld->ld_errno = 0;
    char **urls = cmp_ldap_get_referrals(ld, msg);
    if (urls == nullptr) fail_session(ld, "reading a search reference");
    for (char **u = urls; *u != nullptr; ++u)
        out.raw(std::string("# ref") + *u + "\n");
    out.raw("\n");
    cmp_ldap_value_free(urls);
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

    Ldif out;
    long entries = 0, references = 0;
    for (;;) {
        out.flush();  // into stdio's buffer, so that a failure below still shows it
        CMP_LDAP_MESSAGE *msg = nullptr;
        int type = next_response(ld, id, o, &msg, "waiting for search results");
        if (type == CMP_LDAP_RES_SEARCH_ENTRY) {
            print_entry(ld, msg, out);
            cmp_ldap_msgfree(msg);
            ++entries;
        } else if (type == CMP_LDAP_RES_SEARCH_REFERENCE) {
            print_reference(ld, msg, out);
            cmp_ldap_msgfree(msg);
            ++references;
        } else if (type == CMP_LDAP_RES_SEARCH_RESULT) {
            Outcome r = take_result(ld, msg, "reading the search result");
            if (!r.matched.empty()) out.raw("# matchedDN: " + r.matched + "\n");
            if (!r.text.empty()) out.raw("# text: " + r.text + "\n");
            for (const auto &url : r.referrals)
                out.raw("# ref: " + url + "\n");
            out.raw("# result: " + std::to_string(r.code) + " " + cmp_ldap_err2string(r.code) +
                    "\n");
            out.raw("# numEntries: " + std::to_string(entries) + "\n");
            if (references > 0) out.raw("# numReferences: " + std::to_string(references) + "\n");
            out.flush();
            if (r.code != 0) {
                std::fprintf(stderr, "%s: search: %s\n", kProg, code_text(r.code).c_str());
            }
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
    Server srv = parse_uri(o.uri);
    if (srv.ldaps && o.starttls > 0) usage_error("-Z and -ZZ need an ldap:// URI, not ldaps://");
    LibraryFilter f;
    if (o.have_filter && !o.filter.empty()) f = parse_filter(o.filter);
    std::string attrs = join_attributes(o.attrs);

    cmp_dbglog_posix_set_level(o.log_level);
    take_ldaptls_environment();
    cmp_ldap_init();

    CMP_LDAP *ld = open_session(o, srv);
    if (o.have_binddn) simple_bind(ld, o);
    if (!o.sasl_mech.empty()) gssapi_bind(ld, o);
    int rc = search(ld, o, f, attrs);
    cmp_ldap_unbind(ld);
    return exit_status(rc);
}
