// toveistror-search: the command line, read the way ldapsearch reads it.
#include <fcntl.h>
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
#include <utility>
#include <vector>

#include "sasl-props.h"
#include "toveistror-search.h"

namespace search_tool {

namespace {

const char kUsage[] =
    "usage: toveistror-search [options] [filter [attributes...]]\n"
    "\n"
    "Searches an LDAP directory with the toveistror library and prints LDIF as\n"
    "ldapsearch does.\n"
    "\n"
    "  -H URI...    ldap://host[:port] or ldaps://host[:port], several separated by\n"
    "               blanks or commas, tried in turn (IPv6 as ldap://[::1]:389)\n"
    "  -Z           try StartTLS; only if the server refuses it, warn and go on over a\n"
    "               new plain connection (a failed handshake or certificate check ends\n"
    "               the run before anything else is sent)\n"
    "  -ZZ          require StartTLS: fail if it cannot be established\n"
    "  -x           simple authentication (the default)\n"
    "  -D binddn    bind DN; without it the bind is anonymous\n"
    "  -w passwd    bind password\n"
    "  -W           prompt for the bind password\n"
    "  -y file      read the bind password from file (its whole contents, as is)\n"
    "  -Y GSSAPI    SASL GSSAPI bind with the Kerberos credential cache of KRB5CCNAME\n"
    "               (a FILE: cache; default /tmp/krb5cc_UID), no security layer unless -O\n"
    "  -U authcid, -R realm  accepted with -Y; they only appear in the library's trace\n"
    "  -O minssf=N,maxssf=N  a security layer for -Y of strength N to N (as soon as -O is\n"
    "               given: minssf=0,maxssf=2147483647; maxssf=1 signs, minssf=56 seals)\n"
    "  -Q           accepted (SASL binds are always quiet)\n"
    "  -b base      search base (default: BASE of ldap.conf, else the empty DN)\n"
    "  -s scope     base, one or sub (default sub)\n"
    "  -a deref     never, search, find or always (default never)\n"
    "  -z limit     size limit in entries (default 0, none)\n"
    "  -l limit     time limit in seconds (default 0, none)\n"
    "  -o nettimeout=N  seconds allowed for connecting, the TLS handshake and each\n"
    "               wait for a response (default 30; 0 or 'none' waits without limit)\n"
    "  -o ldif_wrap=N|no  fold LDIF lines at N columns (default 78) or not at all\n"
    "  -A           attribute names only, no values\n"
    "  -L           LDIF version 1 with comments; -LL without comments; -LLL without\n"
    "               the version line either\n"
    "  -d [level]   library log on stderr: 0 errors, 1 (default) errors and request\n"
    "               traces (a trace shows the bind password)\n"
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
    "ldap.conf(5) is read as ldapsearch reads it (/etc/ldap/ldap.conf, ldaprc,\n"
    ".ldaprc, LDAPCONF, LDAPRC, LDAPNOINIT and the LDAP<key> variables) for URI, BASE,\n"
    "TLS_CACERT, TLS_CACERTDIR, TLS_REQCERT, NETWORK_TIMEOUT, TIMELIMIT and SIZELIMIT;\n"
    "TOVEISTROR_CA_FILE and TOVEISTROR_CA_DIR, when set, name the CAs instead.\n"
    "\n"
    "Exit status as ldapsearch's: the LDAP result code of the bind or search, 1 for a\n"
    "usage error, 249 for a filter the tool cannot send, 255 when no server could be\n"
    "reached or TLS failed.\n";

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

int parse_nettimeout(const std::string &v)
{
    if (v == "none" || v == "infinity" || v == "0") return -1;
    int t = parse_int(v.c_str(), "network time-out", 1);
    if (t > 2147483) usage_error("network time-out too large");
    return t;
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

// ---------------------------------------------------------------------------
// ldap.conf(5): the files and variables in the order that page gives, later
// ones overriding earlier ones; the command line overrides them all.
// ---------------------------------------------------------------------------

// The keys the tool uses; others are ignored, as unknown keys are by ldapsearch.
const char *const kConfKeys[] = {"URI",           "BASE",        "TLS_CACERT",
                                 "TLS_CACERTDIR", "TLS_REQCERT", "NETWORK_TIMEOUT",
                                 "TIMELIMIT",     "SIZELIMIT"};

using Conf = std::vector<std::pair<std::string, std::string>>;

void conf_set(Conf &conf, const std::string &key, const std::string &value)
{
    for (const char *k : kConfKeys) {
        if (strcasecmp(k, key.c_str()) != 0) continue;
        for (auto &kv : conf) {
            if (kv.first == k) {
                kv.second = value;
                return;
            }
        }
        conf.emplace_back(k, value);
    }
}

void read_conf_file(Conf &conf, const std::string &path)
{
    FILE *f = std::fopen(path.c_str(), "r");
    if (f == nullptr) return;
    char buf[4096];
    while (std::fgets(buf, sizeof buf, f) != nullptr) {
        std::string line = buf;
        size_t b = line.find_first_not_of(" \t");
        if (b == std::string::npos || line[b] == '#') continue;
        size_t e = line.find_first_of(" \t\r\n", b);
        if (e == std::string::npos) continue;
        size_t v = line.find_first_not_of(" \t", e);
        size_t ve = line.find_last_not_of(" \t\r\n");
        if (v == std::string::npos || ve < v) continue;
        conf_set(conf, line.substr(b, e - b), line.substr(v, ve - v + 1));
    }
    std::fclose(f);
}

Conf read_conf()
{
    Conf conf;
    if (std::getenv("LDAPNOINIT") != nullptr) return conf;
    read_conf_file(conf, "/etc/ldap/ldap.conf");
    const char *home_env = std::getenv("HOME");
    std::string home = home_env != nullptr ? std::string(home_env) + "/" : "";
    if (!home.empty()) {
        read_conf_file(conf, home + "ldaprc");
        read_conf_file(conf, home + ".ldaprc");
    }
    read_conf_file(conf, "ldaprc");
    if (const char *c = std::getenv("LDAPCONF")) read_conf_file(conf, c);
    if (const char *rc = std::getenv("LDAPRC")) {
        if (!home.empty()) {
            read_conf_file(conf, home + rc);
            read_conf_file(conf, home + "." + rc);
        }
        read_conf_file(conf, rc);
    }
    for (const char *k : kConfKeys) {
        if (const char *v = std::getenv((std::string("LDAP") + k).c_str())) conf_set(conf, k, v);
    }
    return conf;
}

// URIs separated by blanks or commas.
std::vector<std::string> split_uris(const std::string &list)
{
    std::vector<std::string> uris;
    size_t i = 0;
    while ((i = list.find_first_not_of(" \t,", i)) != std::string::npos) {
        size_t e = list.find_first_of(" \t,", i);
        uris.push_back(list.substr(i, e - i));
        i = e;
    }
    return uris;
}

void apply_conf(Options &o, const Conf &conf)
{
    for (const auto &kv : conf) {
        const std::string &k = kv.first;
        const char *v = kv.second.c_str();
        if (k == "URI") {
            o.uris = split_uris(v);
        } else if (k == "BASE") {
            o.base = v;
        } else if (k == "TLS_CACERT") {
            o.cacert = v;
        } else if (k == "TLS_CACERTDIR") {
            o.cacertdir = v;
        } else if (k == "TLS_REQCERT") {
            // never and allow take any certificate; try, demand and hard, like an
            // unknown value, refuse one that fails verification.
            o.verify = strcasecmp(v, "never") != 0 && strcasecmp(v, "allow") != 0;
        } else if (k == "NETWORK_TIMEOUT") {
            o.nettimeout = parse_nettimeout(v);
        } else if (k == "TIMELIMIT") {
            o.timelimit = parse_limit(v, "TIMELIMIT");
        } else if (k == "SIZELIMIT") {
            o.sizelimit = parse_limit(v, "SIZELIMIT");
        }
    }
}

// -o name=value: the generic options of ldapsearch the tool has.
void extended_option(Options &o, const std::string &opt)
{
    size_t eq = opt.find('=');
    std::string name = opt.substr(0, eq);
    std::string v = eq == std::string::npos ? "" : opt.substr(eq + 1);
    if (name == "nettimeout") {
        o.nettimeout = parse_nettimeout(v);
    } else if (name == "ldif_wrap") {
        // 1 leaves no room for a folded line's text (ldapsearch dies on it).
        char *end = nullptr;
        errno = 0;
        long w = std::strtol(v.c_str(), &end, 10);
        if (v == "no") {
            o.wrap = 0;
        } else if (v == "0") {
            o.wrap = 78;  // ldapsearch's default, as it takes 0
        } else if (v.empty() || errno != 0 || *end != '\0' || w < 0 || w == 1 || w > INT32_MAX) {
            std::fprintf(stderr, "Unable to parse ldif_wrap=\"%s\"\n", v.c_str());
            std::exit(kExitUsage);
        } else {
            o.wrap = static_cast<int>(w);
        }
    } else {
        usage_error("option -o " + opt + " not supported (only nettimeout and ldif_wrap)");
    }
}

// -O: the SASL security properties, of which the strength range is taken.
void sasl_secprops(Options &o, const std::string &list)
{
    if (!o.sasl_layer) {
        o.sasl_layer = true;
        o.min_ssf = 0;
        o.max_ssf = INT32_MAX;  // ldapsearch's default: the strongest layer offered
    }
    std::string bad;
    if (!tool_sasl::parse_secprops(list, o.min_ssf, o.max_ssf, bad))
        usage_error("option -O " + bad + " not supported (only minssf=N and maxssf=N)");
    if (o.min_ssf > o.max_ssf) usage_error("-O minssf above maxssf");
}

}  // namespace

[[noreturn]] void usage_error(const std::string &msg)
{
    std::fprintf(stderr, "%s: %s\n", kProg, msg.c_str());
    std::fputs(kUsage, stderr);
    std::exit(kExitUsage);
}

Options parse_options(int argc, char **argv)
{
    Options o;
    apply_conf(o, read_conf());
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

    int c;
    opterr = 0;
    while ((c = getopt(n, args.data(), ":H:ZxD:w:Wy:Y:U:R:O:Qb:s:a:z:l:o:Ad::L")) != -1) {
        switch (c) {
            case 'H':
                o.uris = split_uris(optarg);
                break;
            case 'Z':
                ++o.starttls;
                break;
            case 'x':
            case 'Q':
                break;
            case 'L':
                ++o.ldif_level;
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
            case 'O':
                sasl_secprops(o, optarg);
                break;
            case 'b':
                o.base = optarg;
                o.base_given = true;
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
            case 'o':
                extended_option(o, optarg);
                break;
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
                if (optopt == 'h' || optopt == 'p') {
                    usage_error(std::string("option -") + static_cast<char>(optopt) +
                                " not supported (give the server with -H ldap://host:port)");
                }
                if (optopt != 0) {
                    usage_error(std::string("option -") + static_cast<char>(optopt) +
                                " not supported");
                }
                usage_error(std::string("option ") + args[optind - 1] + " not supported");
        }
    }
    if (o.starttls > 2) usage_error("-Z given more than twice");
    if (o.ldif_level > 3) o.ldif_level = 3;
    // As in ldapsearch, a first argument with neither '=' nor a leading '(' is an
    // attribute, not a filter.
    if (optind < n && (std::strchr(args[optind], '=') != nullptr || args[optind][0] == '(')) {
        o.filter = args[optind++];
    }
    for (; optind < n; ++optind)
        o.attrs.emplace_back(args[optind]);
    if (o.uris.empty()) o.uris.emplace_back("ldap://localhost");
    if (o.prompt_password && !o.have_password) {
        o.password = prompt_password();
        o.have_password = true;
    }
    if (!o.sasl_mech.empty() && strcasecmp(o.sasl_mech.c_str(), "GSSAPI") != 0)
        usage_error("the only SASL mechanism is GSSAPI: '" + o.sasl_mech + "'");
    if (!o.sasl_mech.empty() && o.have_binddn) usage_error("-Y and -D exclude each other");
    return o;
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
