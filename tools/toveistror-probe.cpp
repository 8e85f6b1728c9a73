// toveistror-probe: the device's connection test from the command line. Opens a
// session, binds, looks up the base entry and prints the one device result code
// the test gives, with its meaning. Exit status 0 only on success.
#include <getopt.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cmp_ldap.h"
#include "cmp_ldap_posix.h"
#include "ldap-uri.h"
#include "sasl-props.h"
#include "zelOSW.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

struct Meaning {
    uint32_t code;
    const char *text;
};

// Every result the probe can print: the connection test's and those of a refused start.
constexpr Meaning kMeanings[] = {
    {CMP_LDAP_TEST_OK, "success"},
    {CMP_LDAP_TEST_ADDRESS_ERROR, "host name not resolved"},
    {CMP_LDAP_TEST_INVALID_CREDENTIALS, "invalid credentials"},
    {CMP_LDAP_TEST_TLS_INIT_ERROR, "TLS set-up failed (CA file?)"},
    {CMP_LDAP_TEST_TLS_HANDSHAKE_ERROR, "TLS handshake failed (certificate not accepted?)"},
    {CMP_LDAP_TEST_CONNECT_ERROR, "cannot connect (refused)"},
    {CMP_LDAP_TEST_CONNECT_TIMEOUT, "no connection in time"},
    {CMP_LDAP_TEST_TIMEOUT, "no response in time"},
    {CMP_LDAP_TEST_TLS_IO_ERROR, "TLS I/O error"},
    {CMP_LDAP_TEST_SERVER_ERROR, "protocol error or server down"},
    {CMP_LDAP_TEST_CANCELLED, "cancelled"},
    {CMP_LDAP_TEST_NO_MEMORY, "out of memory"},
    {CMP_LDAP_TEST_SOCKET_ERROR, "cannot create a socket"},
    {CMP_LDAP_TEST_OTHER_ERROR, "other error (StartTLS refused, another test running, ...)"},
    {CMP_LDAP_TEST_PARAM_ERROR, "parameter error"},
    {CMP_LDAP_TEST_NO_SUCH_OBJECT, "base entry not found"},
    {CMP_LDAP_TEST_KRB5_CCACHE_ERROR, "Kerberos credential cache not usable"},
    {CMP_LDAP_TEST_SASL_NO_HOST, "server host name unknown to SASL"},
};

const char kUsage[] =
    "usage: toveistror-probe [options]\n"
    "\n"
    "Runs the device's LDAP connection test (open, bind, look up the base entry)\n"
    "and prints its result code with a one-line meaning. Exit status 0 on success,\n"
    "1 for any other result, 2 for a usage error.\n"
    "\n"
    "  -H URI       ldap://host[:port] or ldaps://host[:port] (default ldap://localhost)\n"
    "  -Z, -ZZ      StartTLS; the probe tests the one transport asked for, so there is\n"
    "               no fallback to plain LDAP and -Z means the same as -ZZ\n"
    "  -x           simple authentication (the default; optional)\n"
    "  -D binddn    bind DN (default: anonymous, the empty DN)\n"
    "  -w passwd    bind password\n"
    "  -Y GSSAPI    SASL GSSAPI with the Kerberos credential cache of KRB5CCNAME\n"
    "               (a FILE: cache) or of -C\n"
    "  -C file      Kerberos credential cache file for -Y GSSAPI\n"
    "  -U user      SASL user name for -Y GSSAPI (default: the cache's)\n"
    "  -R realm     SASL realm for -Y GSSAPI\n"
    "  -O minssf=N,maxssf=N\n"
    "               a security layer for -Y of strength N to N (as soon as -O is\n"
    "               given: minssf=0,maxssf=2147483647; maxssf=1 signs, minssf=56 seals)\n"
    "  -b base      entry the test looks up; it must exist and its DN must match,\n"
    "               blanks aside (default: none, the test ends after the bind)\n"
    "  -o nettimeout=N\n"
    "               seconds for connecting and for each response (default 10;\n"
    "               'none' waits without limit)\n"
    "  --async      run the test on its own task and take the result from its callback\n"
    "  --cancel-after MS\n"
    "               with --async: cancel the test after MS milliseconds\n"
    "  -d [level]   library log on stderr: 0 errors, 1 (default) also request traces\n"
    "  -h, --help   this text\n"
    "\n"
    "TLS: the server certificate is verified against TOVEISTROR_CA_FILE or\n"
    "TOVEISTROR_CA_DIR (else LDAPTLS_CACERT, LDAPTLS_CACERTDIR, else the system's CAs);\n"
    "LDAPTLS_REQCERT=never turns the verification off.\n"
    "\n"
    "Result codes:\n";

struct Options {
    std::string host = "localhost";
    int32_t port = 389;
    uint8_t ipv6 = 0;
    uint8_t tls_mod = CMP_LDAP_TLS_MOD_NONE;
    int starttls = 0;
    std::string dn, password, realm, ccache;
    bool sasl = false;
    uint32_t min_ssf = 0, max_ssf = 0;  // -O; 0, 0 is no layer
    std::string base;
    int32_t timeout = 10;
    bool async = false;
    long cancel_after = -1;
    int log_level = -1;
};

[[noreturn]] void usage_error(const std::string &msg)
{
    std::fprintf(stderr, "toveistror-probe: %s\nTry 'toveistror-probe --help'.\n", msg.c_str());
    std::exit(kExitUsage);
}

long number(const std::string &text, long min, long max, const char *what)
{
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0' || v < min || v > max) {
        usage_error(std::string("invalid ") + what + " '" + text + "'");
    }
    return v;
}

// ldap://host[:port] or ldaps://host[:port], an IPv6 address in brackets.
void parse_uri(const std::string &uri, Options &o)
{
    tool_uri::LdapUri u;
    if (!tool_uri::parse_ldap_uri(uri, u)) {
        usage_error("URI '" + uri + "' is not ldap://host[:port] or ldaps://host[:port]");
    }
    o.host = u.host;
    o.port = u.port;
    o.ipv6 = u.ipv6 ? 1 : 0;
    if (u.ldaps) o.tls_mod = CMP_LDAP_TLS_MOD_LDAPS;
}

Options parse_options(int argc, char **argv)
{
    enum { kAsync = 256, kCancelAfter };
    static const option longopts[] = {{"help", no_argument, nullptr, 'h'},
                                      {"async", no_argument, nullptr, kAsync},
                                      {"cancel-after", required_argument, nullptr, kCancelAfter},
                                      {nullptr, 0, nullptr, 0}};
    Options o;
    std::string uri = "ldap://localhost";
    bool secprops = false;
    opterr = 0;
    for (int c;
         (c = getopt_long(argc, argv, ":hH:ZxD:w:Y:C:U:R:O:b:o:d::", longopts, nullptr)) != -1;) {
        std::string arg = optarg != nullptr ? optarg : "";
        switch (c) {
            case 'h':
                std::fputs(kUsage, stdout);
                for (const Meaning &m : kMeanings)
                    std::printf("  0x%08x  %s\n", static_cast<unsigned>(m.code), m.text);
                std::exit(0);
            case 'H':
                uri = arg;
                break;
            case 'Z':
                ++o.starttls;
                break;
            case 'x':
                break;
            case 'D':
            case 'U':
                o.dn = arg;
                break;
            case 'w':
                o.password = arg;
                break;
            case 'Y':
                if (strcasecmp(arg.c_str(), "GSSAPI") != 0)
                    usage_error("only -Y GSSAPI is offered");
                o.sasl = true;
                break;
            case 'C':
                o.ccache = arg;
                break;
            case 'R':
                o.realm = arg;
                break;
            case 'O': {
                if (!secprops) o.max_ssf = INT32_MAX;  // ldapsearch's default: the strongest
                secprops = true;
                std::string bad;
                if (!tool_sasl::parse_secprops(arg, o.min_ssf, o.max_ssf, bad))
                    usage_error("option -O " + bad + " not supported (only minssf=N and maxssf=N)");
                break;
            }
            case 'b':
                o.base = arg;
                break;
            case 'o':
                if (arg.compare(0, 11, "nettimeout=") != 0) usage_error("only -o nettimeout=N");
                arg = arg.substr(11);
                o.timeout = arg == "none"
                                ? -1
                                : static_cast<int32_t>(number(arg, 0, 2147483, "network time-out"));
                break;
            case 'd':
                o.log_level = arg.empty() ? 1 : static_cast<int>(number(arg, 0, 1, "log level"));
                break;
            case kAsync:
                o.async = true;
                break;
            case kCancelAfter:
                o.cancel_after = number(arg, 0, 3600000, "--cancel-after time");
                break;
            case ':':
                usage_error(std::string("option -") + static_cast<char>(optopt) +
                            " needs an argument");
            default:
                usage_error(std::string("option ") + argv[optind - 1] + " not supported");
        }
    }
    if (optind < argc) usage_error(std::string("unexpected argument '") + argv[optind] + "'");
    if (o.starttls > 2) usage_error("-Z given more than twice");
    if (o.cancel_after >= 0 && !o.async) usage_error("--cancel-after needs --async");
    if (o.min_ssf > o.max_ssf) usage_error("-O minssf above maxssf");
    parse_uri(uri, o);
    if (o.starttls > 0) {
        if (o.tls_mod == CMP_LDAP_TLS_MOD_LDAPS) usage_error("-Z does not go with ldaps://");
        o.tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
    }
    if (o.sasl) {
        const char *env = std::getenv("KRB5CCNAME");
        if (o.ccache.empty() && env != nullptr) o.ccache = env;
        if (o.ccache.compare(0, 5, "FILE:") == 0) o.ccache = o.ccache.substr(5);
        if (o.ccache.empty()) usage_error("-Y GSSAPI needs a credential cache (KRB5CCNAME or -C)");
    }
    return o;
}

// The CA settings of ldapsearch users serve the port's own names.
void take_ldaptls_environment()
{
    if (std::getenv("TOVEISTROR_CA_FILE") != nullptr || std::getenv("TOVEISTROR_CA_DIR")) return;
    if (const char *file = std::getenv("LDAPTLS_CACERT")) setenv("TOVEISTROR_CA_FILE", file, 1);
    if (const char *dir = std::getenv("LDAPTLS_CACERTDIR")) setenv("TOVEISTROR_CA_DIR", dir, 1);
}

std::atomic<uint32_t> g_result{0};
std::atomic<int> g_callbacks{0};

void on_result(uint32_t result)
{
    g_result.store(result);
    g_callbacks.fetch_add(1);
}

// The asynchronous form: start, optionally cancel, wait for the test task's end.
uint32_t run_async(const CMP_LDAP_TEST_PARAM &param, long cancel_after)
{
    // The record comes from the OS wrapper's memory: a start that fails after
    // copying the parameters releases it, so it is only freed after a test ran.
    auto *id =
        static_cast<CMP_LDAP_ASYNC_TEST_ID *>(zelOSWSubAllocMem(sizeof(CMP_LDAP_ASYNC_TEST_ID)));
    if (id == nullptr) return CMP_LDAP_TEST_NO_MEMORY;
    uint32_t started = cmp_ldap_async_test(&param, on_result, id);
    if (started != CMP_LDAP_TEST_OK) return started;
    if (cancel_after >= 0) {
        usleep(static_cast<useconds_t>(cancel_after) * 1000u);
        uint32_t rc = cmp_ldap_async_test_cancel(id);
        if (rc != CMP_LDAP_TEST_OK) {
            std::fprintf(stderr, "toveistror-probe: cancel failed: 0x%08x\n",
                         static_cast<unsigned>(rc));
        }
    }
    int32_t waited = zelOSWWaitTask(id->task_id, ZELOSW_WAIT_FOREVER);
    zelOSWOrgFreeMemPart(0, id);
    if (waited != 0 || g_callbacks.load() != 1) {
        std::fprintf(stderr, "toveistror-probe: the test task did not report once\n");
        return CMP_LDAP_TEST_OTHER_ERROR;
    }
    return g_result.load();
}

}  // namespace

int main(int argc, char **argv)
{
    Options o = parse_options(argc, argv);
    take_ldaptls_environment();
    const char *reqcert = std::getenv("LDAPTLS_REQCERT");
    bool verify = reqcert == nullptr ||
                  (std::strcmp(reqcert, "never") != 0 && std::strcmp(reqcert, "allow") != 0 &&
                   std::strcmp(reqcert, "try") != 0);
    cmp_dbglog_posix_set_level(o.log_level);

    CMP_LDAP_TEST_PARAM param{};
    param.connparam.cmp_ldap_hostname = &o.host[0];
    param.connparam.portno = o.port;
    param.connparam.timeout = o.timeout;
    param.connparam.ipv6 = o.ipv6;
    param.connparam.tls_mod = o.tls_mod;
    param.connparam.ssl_auth = verify ? 1 : 0;
    param.dn = &o.dn[0];
    param.cred = o.sasl ? nullptr : &o.password[0];
    param.domain = o.sasl ? &o.realm[0] : nullptr;
    param.ccname = o.sasl ? &o.ccache[0] : nullptr;
    param.method = o.sasl ? CMP_LDAP_AUTH_SASL : CMP_LDAP_AUTH_SIMPLE;
    param.base = &o.base[0];
    param.sasl_min_ssf = o.min_ssf;
    param.sasl_max_ssf = o.max_ssf;

    uint32_t result = o.async ? run_async(param, o.cancel_after) : cmp_ldap_test(&param);
    const char *meaning = "unknown result";
    for (const Meaning &m : kMeanings) {
        if (m.code == result) meaning = m.text;
    }
    std::printf("0x%08x %s\n", static_cast<unsigned>(result), meaning);
    return result == CMP_LDAP_TEST_OK ? 0 : kExitFailure;
}
