// toveistror-search: the command line, read the way ldapsearch reads it.
#include <fcntl.h>
#include <getopt.h>
#include <strings.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "toveistror-search.h"

namespace search_tool {

namespace {

const char kUsage[] =
    "usage: toveistror-search [options] [filter [attributes...]]\n"
    "\n"
    "Searches an LDAP directory with the toveistror library and prints LDIF.\n"
    "\n"
    "  -H URI       ldap://host[:port] or ldaps://host[:port]\n"
    "               (default ldap://localhost:389; IPv6 as ldap://[::1]:389)\n"
    "  -Z           try StartTLS; only if the server refuses it, warn and go on over a\n"
    "               new plain connection (a failed handshake or certificate check ends\n"
    "               the run before anything else is sent)\n"
    "  -ZZ          require StartTLS: fail if it cannot be established\n"
    "  -x           simple authentication (optional)\n"
    "  -D binddn    bind DN; without -D the search runs anonymously\n"
    "  -w passwd    bind password\n"
    "  -W           prompt for the bind password\n"
    "  -y file      read the bind password from file (its whole contents, as is)\n"
    "  -Y GSSAPI    SASL GSSAPI bind with the Kerberos credential cache of KRB5CCNAME\n"
    "               (a FILE: cache; default /tmp/krb5cc_UID), no security layer\n"
    "  -U authcid, -R realm  accepted with -Y; they only appear in the library's trace\n"
    "  -b base      search base (default: the empty DN)\n"
    "  -s scope     base, one or sub (default sub)\n"
    "  -a deref     never, search, find or always (default never)\n"
    "  -z limit     size limit in entries (default 0, none)\n"
    "  -l limit     time limit in seconds (default 0, none)\n"
    "  -o nettimeout=N\n"
    "               seconds allowed for connecting, the TLS handshake and each wait\n"
    "               for a response (default 30; 0 or 'none' waits without limit)\n"
    "  -A           attribute names only, no values\n"
    "  -d [level]   library log on stderr: 0 errors, 1 (default) errors and request\n"
    "               traces (a trace shows the bind password)\n"
    "  -L, -LL, -LLL  accepted for ldapsearch compatibility; output is always LDIF\n"
    "  -h, --help   this text\n"
    "\n"
    "Filters use RFC 4515 syntax (\\XX escapes) in the shapes the library encodes:\n"
    "  (attr=value)  (attr=*value*)  (attr=value*)  (attr=*value)  (attr=*)\n"
    "  (&(..)(..)) or (|(..)(..)) of up to two comparisons of the same kind,\n"
    "  up to three presence conditions joined by & or |, and a comparison part\n"
    "  and a presence part joined by &, e.g. (&(|(sn=A*)(cn=B*))(mail=*)).\n"
    "  Values may not contain ',' or NUL, begin or end with a blank, or be empty.\n"
    "  Without a filter every entry matches, as with (objectClass=*).\n"
    "Up to 8 attribute names may follow the filter (default: all user attributes).\n"
    "\n"
    "TLS: ldaps:// and -Z/-ZZ verify the server certificate against\n"
    "TOVEISTROR_CA_FILE or TOVEISTROR_CA_DIR (LDAPTLS_CACERT and LDAPTLS_CACERTDIR\n"
    "are used when those are unset, else the system's CAs);\n"
    "LDAPTLS_REQCERT (any case) never or allow turns the verification off; try,\n"
    "demand and hard keep it.\n"
    "\n"
    "Exit status: the LDAP result code of the bind or search (0 on success), 2 for a\n"
    "usage error, 1 for any other failure (the library's code, if it gave one, is\n"
    "printed on stderr).\n";

int parse_int(const char *s, const char *what, int min)
{
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(s, &end, 10);
    if (errno != 0 || end == s || *end != '\0' || v < min || v > INT32_MAX) {
        usage_error(std::string("invalid ") + what + " '" + s + "'");
    }
    return static_cast<int>(v);
}

int parse_limit(const char *s, const char *what)
{
    if (std::strcmp(s, "none") == 0 || std::strcmp(s, "unlimited") == 0 ||
        std::strcmp(s, "max") == 0) {
        return 0;
    }
    return parse_int(s, what, 0);
}

std::string read_file(const char *path)
{
    FILE *f = std::fopen(path, "rb");
    if (f == nullptr) usage_error(std::string("cannot read ") + path + ": " + std::strerror(errno));
    std::string s;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
        s.append(buf, n);
    std::fclose(f);
    return s;
}

std::string prompt_password()
{
    int fd = open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (fd < 0) usage_error("-W needs a terminal");
    const char prompt[] = "Enter LDAP Password: ";
    (void)!write(fd, prompt, sizeof prompt - 1);
    termios old{};
    bool restore = tcgetattr(fd, &old) == 0;
    if (restore) {
        termios quiet = old;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    std::string pw;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n' && c != '\r')
        pw += c;
    if (restore) tcsetattr(fd, TCSAFLUSH, &old);
    (void)!write(fd, "\n", 1);
    close(fd);
    return pw;
}

bool is_integer(const char *s)
{
    if (*s == '-' || *s == '+') ++s;
    if (*s == '\0') return false;
    for (; *s != '\0'; ++s) {
        if (!std::isdigit(static_cast<unsigned char>(*s))) return false;
    }
    return true;
}

}  // namespace

[[noreturn]] void usage_error(const std::string &msg)
{
    std::fprintf(stderr, "%s: %s\n", kProg, msg.c_str());
    std::fprintf(stderr, "Try '%s --help' for more information.\n", kProg);
    std::exit(kExitUsage);
}

Options parse_options(int argc, char **argv)
{
    Options o;
    // "-d N" with a separate numeric level, as ldapsearch takes it, becomes
    // "-dN" so that a bare "-d" can stand before another option.
    std::vector<std::string> storage;
    std::vector<char *> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "-d") == 0 && i + 1 < argc && is_integer(argv[i + 1])) {
            storage.push_back(std::string("-d") + argv[++i]);
        } else {
            storage.emplace_back(argv[i]);
        }
    }
    for (auto &s : storage)
        args.push_back(&s[0]);
    args.push_back(nullptr);
    int n = static_cast<int>(storage.size());

    static const option longopts[] = {{"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    int c;
    opterr = 0;
    while ((c = getopt_long(n, args.data(), ":hH:ZxD:w:Wy:Y:U:R:b:s:a:z:l:o:Ad::L", longopts,
                            nullptr)) != -1) {
        switch (c) {
            case 'h':
                std::fputs(kUsage, stdout);
                std::exit(0);
            case 'H':
                o.uri = optarg;
                break;
            case 'Z':
                ++o.starttls;
                break;
            case 'x':
            case 'L':
                break;
            case 'D':
                o.binddn = optarg;
                o.have_binddn = true;
                break;
            case 'w':
                o.password = optarg;
                o.have_password = true;
                break;
            case 'W':
                o.prompt_password = true;
                break;
            case 'y':
                o.password = read_file(optarg);
                o.have_password = true;
                break;
            case 'Y':
                o.sasl_mech = optarg;
                break;
            case 'U':
                o.sasl_user = optarg;
                break;
            case 'R':
                o.sasl_realm = optarg;
                break;
            case 'b':
                o.base = optarg;
                break;
            case 's':
                if (std::strcmp(optarg, "base") == 0) {
                    o.scope = CMP_LDAP_SCOPE_BASE;
                } else if (std::strcmp(optarg, "one") == 0 ||
                           std::strcmp(optarg, "onelevel") == 0) {
                    o.scope = CMP_LDAP_SCOPE_ONELEVEL;
                } else if (std::strcmp(optarg, "sub") == 0 || std::strcmp(optarg, "subtree") == 0) {
                    o.scope = CMP_LDAP_SCOPE_SUBTREE;
                } else {
                    usage_error(std::string("scope '") + optarg +
                                "' not supported (base, one or sub)");
                }
                break;
            case 'a': {
                static const char *const names[] = {"never", "search", "find", "always"};
                int found = -1;
                for (int i = 0; i < 4; ++i) {
                    if (std::strcmp(optarg, names[i]) == 0) found = i;
                }
                if (found < 0) {
                    usage_error(std::string("invalid deref '") + optarg +
                                "' (never, search, find or always)");
                }
                o.deref = found;
                break;
            }
            case 'z':
                o.sizelimit = parse_limit(optarg, "size limit");
                break;
            case 'l':
                o.timelimit = parse_limit(optarg, "time limit");
                break;
            case 'o': {
                std::string opt = optarg;
                const std::string key = "nettimeout=";
                if (opt.compare(0, key.size(), key) != 0) {
                    usage_error("option -o " + opt + " not supported (only -o nettimeout=N)");
                }
                std::string v = opt.substr(key.size());
                if (v == "none" || v == "infinity" || v == "0") {
                    o.nettimeout = -1;
                } else {
                    o.nettimeout = parse_int(v.c_str(), "network time-out", 1);
                    if (o.nettimeout > 2147483) usage_error("network time-out too large");
                }
                break;
            }
            case 'A':
                o.attrsonly = true;
                break;
            case 'd':
                o.log_level = 1;
                if (optarg != nullptr) {
                    if (!is_integer(optarg)) usage_error(std::string("invalid -d level ") + optarg);
                    o.log_level = std::atoi(optarg) == 0 ? 0 : 1;
                }
                break;
            case ':':
                usage_error(std::string("option -") + static_cast<char>(optopt) +
                            " needs an argument");
            default:
                if (optopt != 0) {
                    usage_error(std::string("option -") + static_cast<char>(optopt) +
                                " not supported");
                }
                usage_error(std::string("option ") + args[optind - 1] + " not supported");
        }
    }
    if (o.starttls > 2) usage_error("-Z given more than twice");
    // As in ldapsearch, a first argument without '=' is an attribute, not a filter.
    if (optind < n && std::strchr(args[optind], '=') != nullptr) {
        o.filter = args[optind++];
        o.have_filter = true;
    }
    for (; optind < n; ++optind)
        o.attrs.emplace_back(args[optind]);
    if (o.prompt_password && !o.have_password) {
        o.password = prompt_password();
        o.have_password = true;
    }
    if (o.have_password && !o.have_binddn) usage_error("a password needs a bind DN (-D)");
    if (!o.sasl_mech.empty() && strcasecmp(o.sasl_mech.c_str(), "GSSAPI") != 0)
        usage_error("the only SASL mechanism is GSSAPI: '" + o.sasl_mech + "'");
    if (!o.sasl_mech.empty() && o.have_binddn) usage_error("-Y and -D exclude each other");
    return o;
}

Server parse_uri(const std::string &uri)
{
    Server s;
    std::string rest;
    if (uri.find_first_of(" \t,") != std::string::npos) {
        usage_error("only one URI is supported: '" + uri + "'");
    }
    auto lower = uri;
    for (auto &ch : lower)
        ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (lower.compare(0, 7, "ldap://") == 0) {
        rest = uri.substr(7);
    } else if (lower.compare(0, 8, "ldaps://") == 0) {
        rest = uri.substr(8);
        s.ldaps = true;
        s.port = 636;
    } else {
        usage_error("URI '" + uri + "' must start with ldap:// or ldaps://");
    }
    rest = rest.substr(0, rest.find('/'));
    std::string port;
    if (!rest.empty() && rest[0] == '[') {
        size_t close_br = rest.find(']');
        if (close_br == std::string::npos) usage_error("bad IPv6 address in '" + uri + "'");
        s.host = rest.substr(1, close_br - 1);
        s.ipv6 = true;
        if (close_br + 1 < rest.size()) {
            if (rest[close_br + 1] != ':') usage_error("bad URI '" + uri + "'");
            port = rest.substr(close_br + 2);
        }
    } else {
        size_t colon = rest.find(':');
        s.host = rest.substr(0, colon);
        if (colon != std::string::npos) port = rest.substr(colon + 1);
    }
    if (s.host.empty()) s.host = "localhost";
    if (!port.empty()) {
        s.port = parse_int(port.c_str(), "port", 1);
        if (s.port > 65535) usage_error("invalid port " + port);
    }
    return s;
}

std::string join_attributes(const std::vector<std::string> &attrs)
{
    if (attrs.size() > 8) usage_error("at most 8 attribute names are supported");
    std::string joined;
    for (const auto &a : attrs) {
        if (a.empty() || a.find_first_of(", \t") != std::string::npos) {
            usage_error("invalid attribute name '" + a + "'");
        }
        joined += (joined.empty() ? "" : ",") + a;
    }
    if (joined.size() > CMP_LDAP_TEXT_MAX) usage_error("attribute list too long");
    return joined;
}

}  // namespace search_tool
