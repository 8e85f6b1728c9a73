// toveistror-search: an ldapsearch-like command-line search over the toveistror
// library. It speaks only what the library speaks (simple bind, one search of
// the library's filter shape) and prints LDIF (RFC 2849).
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
#include <memory>
#include <string>
#include <vector>

#include "cmp_ldap.h"
#include "cmp_ldap_posix.h"

namespace {

const char *g_prog = "toveistror-search";

constexpr int kExitUsage = 2;

const char kUsage[] =
    "usage: toveistror-search [options] [filter [attributes...]]\n"
    "\n"
    "Searches an LDAP directory with the toveistror library and prints LDIF.\n"
    "\n"
    "  -H URI       ldap://host[:port] or ldaps://host[:port]\n"
    "               (default ldap://localhost:389; IPv6 as ldap://[::1]:389)\n"
    "  -Z           try StartTLS; if the server refuses it or the TLS handshake fails,\n"
    "               warn and go on over a new plain connection\n"
    "  -ZZ          require StartTLS: fail if it cannot be established\n"
    "  -x           simple authentication (the only kind this tool offers; optional)\n"
    "  -D binddn    bind DN; without -D the search runs anonymously\n"
    "  -w passwd    bind password\n"
    "  -W           prompt for the bind password\n"
    "  -y file      read the bind password from file (its whole contents, as is)\n"
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
    "LDAPTLS_REQCERT=never (or allow, try) turns the verification off.\n"
    "\n"
    "Exit status: the LDAP result code of the search (0 on success), 2 for a usage\n"
    "error, 1 for a failure of the library itself (its code is printed on stderr).\n";

[[noreturn]] void usage_error(const std::string &msg)
{
    std::fprintf(stderr, "%s: %s\n", g_prog, msg.c_str());
    std::fprintf(stderr, "Try '%s --help' for more information.\n", g_prog);
    std::exit(kExitUsage);
}

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
        case CMP_LDAP_TLS_HANDSHAKE_ERROR_D:
            return "TLS handshake failed";
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

int exit_status(int code)
{
    return (code >= 0 && code < 256) ? code : 1;
}

[[noreturn]] void fail(const std::string &what, int code)
{
    std::fprintf(stderr, "%s: %s: %s\n", g_prog, what.c_str(), code_text(code).c_str());
    std::exit(exit_status(code));
}

// ---------------------------------------------------------------------------
// Filters: RFC 4515 text to the library's two records
// ---------------------------------------------------------------------------

enum class Match { kPresent, kEqual, kAny, kInitial, kFinal };

struct Node {
    char op = 0;  // '&', '|' or 0 for an item
    std::vector<Node> children;
    std::string attr;
    Match match = Match::kEqual;
    std::string value;  // decoded
};

class FilterParser {
  public:
    explicit FilterParser(const std::string &text) : s_(text) {}

    Node parse()
    {
        Node n;
        if (!s_.empty() && s_[0] != '(') {
            // ldapsearch accepts a lone item without its parentheses.
            s_ = "(" + s_ + ")";
        }
        n = filter();
        skip_blanks();
        if (i_ != s_.size()) syntax("unexpected text after the filter");
        return n;
    }

  private:
    [[noreturn]] void syntax(const std::string &why)
    {
        usage_error("bad search filter at offset " + std::to_string(i_) + ": " + why);
    }
    [[noreturn]] void unsupported(const std::string &why)
    {
        usage_error("filter not supported by the library: " + why);
    }

    void skip_blanks()
    {
        while (i_ < s_.size() && s_[i_] == ' ')
            ++i_;
    }

    void expect(char c)
    {
        if (i_ >= s_.size() || s_[i_] != c) syntax(std::string("expected '") + c + "'");
        ++i_;
    }

    Node filter()
    {
        skip_blanks();
        expect('(');
        skip_blanks();
        if (i_ >= s_.size()) syntax("unexpected end");
        Node n;
        char c = s_[i_];
        if (c == '&' || c == '|') {
            ++i_;
            n.op = c;
            skip_blanks();
            while (i_ < s_.size() && s_[i_] == '(') {
                n.children.push_back(filter());
                skip_blanks();
            }
            if (n.children.empty()) {
                unsupported(std::string("an empty '") + c + "' set");
            }
        } else if (c == '!') {
            unsupported("negation '(!...)'");
        } else {
            n = item();
        }
        expect(')');
        return n;
    }

    static bool attr_char(char c)
    {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == ';' || c == '.' ||
               c == '_';
    }

    Node item()
    {
        Node n;
        size_t start = i_;
        while (i_ < s_.size() && attr_char(s_[i_]))
            ++i_;
        n.attr = s_.substr(start, i_ - start);
        if (i_ < s_.size() && s_[i_] == ':') unsupported("extensible match ':='");
        if (n.attr.empty()) syntax("attribute description expected");
        if (i_ + 1 < s_.size() && s_[i_ + 1] == '=' &&
            (s_[i_] == '~' || s_[i_] == '>' || s_[i_] == '<')) {
            unsupported(std::string("'") + s_[i_] + "=' matching in (" + n.attr + s_[i_] + "=...)");
        }
        expect('=');
        // Split the raw value at unescaped '*'; decode each part.
        std::vector<std::string> parts(1);
        while (i_ < s_.size() && s_[i_] != ')') {
            char c = s_[i_];
            if (c == '(') syntax("unescaped '(' in a value");
            if (c == '*') {
                parts.emplace_back();
                ++i_;
            } else if (c == '\\') {
                if (i_ + 2 >= s_.size() || !std::isxdigit(static_cast<unsigned char>(s_[i_ + 1])) ||
                    !std::isxdigit(static_cast<unsigned char>(s_[i_ + 2]))) {
                    syntax("'\\' must be followed by two hex digits");
                }
                parts.back() += static_cast<char>(std::stoi(s_.substr(i_ + 1, 2), nullptr, 16));
                i_ += 3;
            } else {
                parts.back() += c;
                ++i_;
            }
        }
        const std::string where = "(" + n.attr + "=...)";
        if (parts.size() == 1) {
            n.match = Match::kEqual;
            n.value = parts[0];
        } else if (parts.size() == 2 && parts[0].empty() && parts[1].empty()) {
            n.match = Match::kPresent;
            return n;
        } else if (parts.size() == 2 && parts[1].empty()) {
            n.match = Match::kInitial;
            n.value = parts[0];
        } else if (parts.size() == 2 && parts[0].empty()) {
            n.match = Match::kFinal;
            n.value = parts[1];
        } else if (parts.size() == 3 && parts[0].empty() && parts[2].empty() && !parts[1].empty()) {
            n.match = Match::kAny;
            n.value = parts[1];
        } else {
            unsupported("substring pattern with more than one fixed part in " + where);
        }
        check_value(n.value, where);
        return n;
    }

    void check_value(const std::string &v, const std::string &where)
    {
        // The library takes values as comma-separated lists and trims blanks.
        if (v.empty()) unsupported("empty value in " + where);
        if (v.find(',') != std::string::npos) unsupported("',' in the value of " + where);
        if (v.find('\0') != std::string::npos) unsupported("NUL in the value of " + where);
        if (v.front() == ' ' || v.back() == ' ') {
            unsupported("leading or trailing blank in the value of " + where);
        }
    }

    std::string s_;
    size_t i_ = 0;
};

struct LibraryFilter {
    bool has_filter = false;
    bool has_present = false;
    CMP_LDAP_FILTER filter{};
    CMP_LDAP_FILTER_PRESENT present{};
};

[[noreturn]] void unsupported_shape(const std::string &why)
{
    usage_error("filter not supported by the library: " + why);
}

uint32_t filter_cond(Match m)
{
    switch (m) {
        case Match::kAny:
            return CMP_LDAP_FILTER_COND_ANY;
        case Match::kInitial:
            return CMP_LDAP_FILTER_COND_INITIAL;
        case Match::kFinal:
            return CMP_LDAP_FILTER_COND_FINAL;
        default:
            return CMP_LDAP_FILTER_COND_EQUAL;
    }
}

void copy_field(char *dst, const std::string &src, const char *what)
{
    if (src.size() > CMP_LDAP_TEXT_MAX) {
        unsupported_shape(std::string(what) + " longer than " + std::to_string(CMP_LDAP_TEXT_MAX) +
                          " characters");
    }
    std::memcpy(dst, src.c_str(), src.size() + 1);
}

void set_comparisons(LibraryFilter &out, const std::vector<const Node *> &items, uint32_t cond)
{
    if (items.size() > 2) unsupported_shape("more than two comparisons");
    if (items.size() == 2 && items[0]->match != items[1]->match) {
        unsupported_shape("two comparisons of different kinds (both must be =v, =*v*, =v* or =*v)");
    }
    std::string attrs, values;
    for (const Node *n : items) {
        attrs += (attrs.empty() ? "" : ",") + n->attr;
        values += (values.empty() ? "" : ",") + n->value;
    }
    out.has_filter = true;
    out.filter.cmp_ldap_filterCond = filter_cond(items[0]->match);
    out.filter.cmp_ldap_searchCond = cond;
    copy_field(out.filter.cmp_ldap_attr, attrs, "the attributes of the comparisons");
    copy_field(out.filter.cmp_ldap_value, values, "the values of the comparisons");
}

void set_presences(LibraryFilter &out, const std::vector<const Node *> &items, uint32_t cond)
{
    if (items.size() > 3) unsupported_shape("more than three presence conditions");
    std::string attrs;
    for (const Node *n : items)
        attrs += (attrs.empty() ? "" : ",") + n->attr;
    out.has_present = true;
    out.present.cmp_ldap_searchCond = cond;
    copy_field(out.present.attr, attrs, "the attributes of the presence conditions");
}

// An OR set of plain items, all comparisons or all presences.
void set_or_group(LibraryFilter &out, const Node &group)
{
    std::vector<const Node *> cmp, pres;
    for (const Node &c : group.children) {
        if (c.op != 0) unsupported_shape("a set nested inside '|'");
        (c.match == Match::kPresent ? pres : cmp).push_back(&c);
    }
    if (!cmp.empty() && !pres.empty()) {
        unsupported_shape("'|' of a comparison and a presence condition");
    }
    if (!cmp.empty()) {
        if (out.has_filter) unsupported_shape("two sets of comparisons");
        set_comparisons(out, cmp, CMP_LDAP_SEARCH_COND_OR);
    } else {
        if (out.has_present) unsupported_shape("two sets of presence conditions");
        set_presences(out, pres, CMP_LDAP_SEARCH_COND_OR);
    }
}

void flatten_and(const Node &n, std::vector<const Node *> &items, std::vector<const Node *> &ors)
{
    for (const Node &c : n.children) {
        if (c.op == '&') {
            flatten_and(c, items, ors);
        } else if (c.op == '|') {
            ors.push_back(&c);
        } else {
            items.push_back(&c);
        }
    }
}

// The library sends (comparison set) AND (presence set), each set an AND or OR
// of its own members.
LibraryFilter to_library_filter(const Node &root)
{
    LibraryFilter out;
    if (root.op == 0) {
        std::vector<const Node *> one{&root};
        if (root.match == Match::kPresent) {
            set_presences(out, one, CMP_LDAP_SEARCH_COND_AND);
        } else {
            set_comparisons(out, one, CMP_LDAP_SEARCH_COND_AND);
        }
        return out;
    }
    if (root.op == '|') {
        set_or_group(out, root);
        return out;
    }
    std::vector<const Node *> items, ors, cmp, pres;
    flatten_and(root, items, ors);
    for (const Node *c : items)
        (c->match == Match::kPresent ? pres : cmp).push_back(c);
    if (!cmp.empty()) set_comparisons(out, cmp, CMP_LDAP_SEARCH_COND_AND);
    if (!pres.empty()) set_presences(out, pres, CMP_LDAP_SEARCH_COND_AND);
    for (const Node *g : ors)
        set_or_group(out, *g);
    return out;
}

// ---------------------------------------------------------------------------
// LDIF output
// ---------------------------------------------------------------------------

class Ldif {
  public:
    void line(const std::string &name, const unsigned char *v, size_t len)
    {
        std::string l = name;
        // Passwords are always encoded, as ldapsearch does, so that outputs compare.
        if (safe(v, len) && !always_encoded(name)) {
            l += ":";
            if (len > 0) {
                l += " ";
                l.append(reinterpret_cast<const char *>(v), len);
            }
        } else {
            l += ":: " + base64(v, len);
        }
        folded(l);
    }
    void line(const std::string &name, const std::string &v)
    {
        line(name, reinterpret_cast<const unsigned char *>(v.data()), v.size());
    }
    void raw(const std::string &text) { out_ += text; }
    void flush()
    {
        std::fwrite(out_.data(), 1, out_.size(), stdout);
        out_.clear();
    }

  private:
    static bool always_encoded(const std::string &name)
    {
        return strcasecmp(name.c_str(), "userPassword") == 0 || name == "2.5.4.35";
    }

    // SAFE-STRING of RFC 2849, and no trailing blank (which the RFC asks to encode).
    static bool safe(const unsigned char *v, size_t len)
    {
        if (len == 0) return true;
        if (v[0] == ' ' || v[0] == ':' || v[0] == '<' || v[len - 1] == ' ') return false;
        for (size_t i = 0; i < len; ++i) {
            if (v[i] == 0 || v[i] == '\n' || v[i] == '\r' || v[i] > 0x7f) return false;
        }
        return true;
    }

    static std::string base64(const unsigned char *v, size_t len)
    {
        static const char tab[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string s;
        s.reserve((len + 2) / 3 * 4);
        for (size_t i = 0; i < len; i += 3) {
            uint32_t n = static_cast<uint32_t>(v[i]) << 16;
            if (i + 1 < len) n |= static_cast<uint32_t>(v[i + 1]) << 8;
            if (i + 2 < len) n |= v[i + 2];
            s += tab[(n >> 18) & 63];
            s += tab[(n >> 12) & 63];
            s += i + 1 < len ? tab[(n >> 6) & 63] : '=';
            s += i + 2 < len ? tab[n & 63] : '=';
        }
        return s;
    }

    // Lines of at most 76 columns; a continuation line starts with one blank.
    void folded(const std::string &l)
    {
        constexpr size_t kWidth = 76;
        size_t pos = 0;
        size_t room = kWidth;
        while (l.size() - pos > room) {
            out_.append(l, pos, room);
            out_ += "\n ";
            pos += room;
            room = kWidth - 1;
        }
        out_.append(l, pos, std::string::npos);
        out_ += '\n';
    }

    std::string out_;
};

// ---------------------------------------------------------------------------
// Options
// ---------------------------------------------------------------------------

struct Options {
    std::string uri = "ldap://localhost:389";
    int starttls = 0;  // 1 try, 2 require
    std::string binddn;
    bool have_binddn = false;
    std::string password;
    bool have_password = false;
    bool prompt_password = false;
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
    while ((c = getopt_long(n, args.data(), ":hH:ZxD:w:Wy:b:s:a:z:l:o:Ad::L", longopts, nullptr)) !=
           -1) {
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
    return o;
}

struct Server {
    std::string host;
    int port = 389;
    bool ldaps = false;
    bool ipv6 = false;
};

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

uint8_t verification_mode()
{
    const char *req = std::getenv("LDAPTLS_REQCERT");
    if (req != nullptr && (std::strcmp(req, "never") == 0 || std::strcmp(req, "allow") == 0 ||
                           std::strcmp(req, "try") == 0)) {
        return 0;
    }
    return 1;
}

bool tls_failure(int code)
{
    return code >= CMP_LDAP_TLS_INIT_ERROR_A && code <= CMP_LDAP_TLS_ERROR;
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
    if (rc != 0 && o.starttls == 1 && (rc == CMP_LDAP_OTHER || tls_failure(rc))) {
        std::fprintf(stderr, "%s: StartTLS failed: %s; continuing without TLS\n", g_prog,
                     code_text(rc).c_str());
        param.tls_mod = CMP_LDAP_TLS_MOD_NONE;
        ld = nullptr;
        rc = cmp_ldap_open_with_timeout(&param, &ld);
    }
    if (rc != 0 || ld == nullptr) {
        fail(std::string(param.tls_mod == CMP_LDAP_TLS_MOD_STARTTLS ? "StartTLS to " : "open of ") +
                 o.uri,
             rc != 0 ? rc : CMP_LDAP_LOCAL_ERROR);
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

// Unbinds and exits with the failure of the last operation.
[[noreturn]] void fail_session(CMP_LDAP *ld, const std::string &what)
{
    int code = ld->ld_errno;
    cmp_ldap_unbind(ld);
    fail(what, code);
}

void simple_bind(CMP_LDAP *ld, const Options &o)
{
    int id = cmp_ldap_bind(ld, o.binddn.c_str(), o.password.c_str(), nullptr, nullptr,
                           CMP_LDAP_AUTH_SIMPLE);
    if (id < 0) fail_session(ld, "bind");
    auto tv = wait_time(o);
    CMP_LDAP_MESSAGE *msg = nullptr;
    int type = cmp_ldap_result(ld, id, 0, tv.get(), &msg);
    if (type < 0) fail_session(ld, "bind");
    if (type != CMP_LDAP_RES_BIND) {
        cmp_ldap_msgfree(msg);
        std::fprintf(stderr, "%s: bind: unexpected response type %d\n", g_prog, type);
        cmp_ldap_unbind(ld);
        std::exit(1);
    }
    int rc = cmp_ldap_result2error(ld, msg, 1);
    if (rc < 0) fail_session(ld, "bind");
    if (rc != 0) {
        std::string diag = ld->ld_error != nullptr ? ld->ld_error : "";
        cmp_ldap_unbind(ld);
        std::fprintf(stderr, "%s: bind: %s\n", g_prog, code_text(rc).c_str());
        if (!diag.empty()) std::fprintf(stderr, "\tadditional info: %s\n", diag.c_str());
        std::exit(exit_status(rc));
    }
}

void print_entry(CMP_LDAP *ld, CMP_LDAP_MESSAGE *msg, Ldif &out)
{
    char *dn = cmp_ldap_get_dn(ld, msg);
    if (dn == nullptr) fail_session(ld, "reading an entry's DN");
    out.line("dn", dn);
    cmp_ldap_dn_free(dn);

    void *cursor = nullptr;
    ld->ld_errno = 0;
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
    int id = cmp_ldap_search_tiny(ld, o.base.c_str(), o.scope, f.has_filter ? &f.filter : nullptr,
                                  f.has_present ? &f.present : nullptr, attrs.c_str(),
                                  o.attrsonly ? 1 : 0);
    if (id < 0) fail_session(ld, "search");

    Ldif out;
    long entries = 0, references = 0;
    auto tv = wait_time(o);
    for (;;) {
        CMP_LDAP_MESSAGE *msg = nullptr;
        int type = cmp_ldap_result(ld, id, 0, tv.get(), &msg);
        if (type < 0) {
            out.flush();
            fail_session(ld, "waiting for search results");
        }
        if (type == CMP_LDAP_RES_SEARCH_ENTRY) {
            print_entry(ld, msg, out);
            cmp_ldap_msgfree(msg);
            ++entries;
        } else if (type == CMP_LDAP_RES_SEARCH_REFERENCE) {
            print_reference(ld, msg, out);
            cmp_ldap_msgfree(msg);
            ++references;
        } else if (type == CMP_LDAP_RES_SEARCH_RESULT) {
            int rc = cmp_ldap_result2error(ld, msg, 1);
            if (rc < 0) {
                out.flush();
                fail_session(ld, "reading the search result");
            }
            if (ld->ld_matched != nullptr && ld->ld_matched[0] != '\0') {
                out.raw(std::string("# matchedDN: ") + ld->ld_matched + "\n");
            }
            if (ld->ld_error != nullptr && ld->ld_error[0] != '\0') {
                out.raw(std::string("# text: ") + ld->ld_error + "\n");
            }
            out.raw("# result: " + std::to_string(rc) + " " + cmp_ldap_err2string(rc) + "\n");
            out.raw("# numEntries: " + std::to_string(entries) + "\n");
            if (references > 0) out.raw("# numReferences: " + std::to_string(references) + "\n");
            out.flush();
            if (rc != 0) {
                std::fprintf(stderr, "%s: search: %s\n", g_prog, code_text(rc).c_str());
            }
            return rc;
        } else {
            cmp_ldap_msgfree(msg);  // not ours to show; keep waiting
        }
        if ((entries & 255) == 0) out.flush();
    }
}

}  // namespace

int main(int argc, char **argv)
{
    Options o = parse_options(argc, argv);
    Server srv = parse_uri(o.uri);
    if (srv.ldaps && o.starttls > 0) usage_error("-Z and -ZZ need an ldap:// URI, not ldaps://");
    LibraryFilter f;
    if (o.have_filter && !o.filter.empty()) f = to_library_filter(FilterParser(o.filter).parse());
    std::string attrs = join_attributes(o.attrs);

    cmp_dbglog_posix_set_level(o.log_level);
    take_ldaptls_environment();
    cmp_ldap_init();

    CMP_LDAP *ld = open_session(o, srv);
    if (o.have_binddn) simple_bind(ld, o);
    int rc = search(ld, o, f, attrs);
    cmp_ldap_unbind(ld);
    return exit_status(rc);
}
