// toveistror-search: LDIF lines, folded and encoded as ldapsearch writes them,
// each piece written as it comes so that no value is held twice.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "toveistror-search.h"

namespace search_tool {

namespace {

// ldapsearch encodes these whatever their value.
bool always_encoded(const char *name)
{
    return strcasecmp(name, "userPassword") == 0 || std::strcmp(name, "2.5.4.35") == 0;
}

// SAFE-STRING of RFC 2849 without DEL and the other control characters, and no
// trailing blank.
bool safe(const unsigned char *v, size_t len)
{
    if (len == 0) return true;
    if (v[0] == ' ' || v[0] == ':' || v[0] == '<' || v[len - 1] == ' ') return false;
    for (size_t i = 0; i < len; ++i) {
        if (v[i] < 0x20 || v[i] >= 0x7f) return false;
    }
    return true;
}

char hex_digit(unsigned v)
{
    return "0123456789ABCDEF"[v & 15];
}

void append_hex(std::string &s, unsigned char c)
{
    s += '\\';
    s += hex_digit(c >> 4);
    s += hex_digit(c);
}

}  // namespace

void Ldif::put(const char *s, size_t n)
{
    while (n > 0) {
        if (wrap_ > 0 && col_ >= static_cast<size_t>(wrap_)) {
            std::fputs("\n ", stdout);
            col_ = 1;
        }
        size_t k = wrap_ > 0 ? std::min(n, static_cast<size_t>(wrap_) - col_) : n;
        std::fwrite(s, 1, k, stdout);
        col_ += k;
        s += k;
        n -= k;
    }
}

// The name and its colons are never folded (a narrow width folds the value only).
void Ldif::value(const char *name, const unsigned char *v, size_t len)
{
    bool text = safe(v, len) && !always_encoded(name);
    std::fputs(name, stdout);
    std::fputs(len == 0 ? ":" : text ? ": " : ":: ", stdout);
    col_ = std::strlen(name) + (len == 0 ? 1 : text ? 2 : 3);
    if (text) {
        put(reinterpret_cast<const char *>(v), len);
    } else {
        static const char tab[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        char buf[1024];
        size_t used = 0;
        for (size_t i = 0; i < len; i += 3) {
            uint32_t n = static_cast<uint32_t>(v[i]) << 16;
            if (i + 1 < len) n |= static_cast<uint32_t>(v[i + 1]) << 8;
            if (i + 2 < len) n |= v[i + 2];
            buf[used++] = tab[(n >> 18) & 63];
            buf[used++] = tab[(n >> 12) & 63];
            buf[used++] = i + 1 < len ? tab[(n >> 6) & 63] : '=';
            buf[used++] = i + 2 < len ? tab[n & 63] : '=';
            if (used == sizeof buf) {
                put(buf, used);
                used = 0;
            }
        }
        put(buf, used);
    }
    std::fputc('\n', stdout);
}

void Ldif::value(const char *name, const std::string &v)
{
    value(name, reinterpret_cast<const unsigned char *>(v.data()), v.size());
}

void Ldif::comment(const std::string &text, const char *head)
{
    std::string line;
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f) {
            append_hex(line, u);
        } else {
            line += c;
        }
    }
    bool bare = text.empty() && *head == '\0';
    std::fputs(bare ? "#" : "# ", stdout);
    std::fputs(head, stdout);
    col_ = (bare ? 1 : 2) + std::strlen(head);
    int wrap = wrap_;
    if (wrap_ > 0) ++wrap_;
    put(line.data(), line.size());
    wrap_ = wrap;
    std::fputc('\n', stdout);
}

void Ldif::raw(const std::string &text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
}

// ---------------------------------------------------------------------------
// The user friendly name
// ---------------------------------------------------------------------------

namespace {

struct Ava {
    std::string type;
    std::string value;  // unescaped
};

int hex_value(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Splits a DN of RFC 4514 into RDNs of AVAs; false for text that is not one.
bool split_dn(const std::string &dn, std::vector<std::vector<Ava>> &rdns)
{
    size_t i = 0;
    while (i < dn.size()) {
        std::vector<Ava> rdn;
        for (;;) {
            Ava a;
            size_t eq = dn.find('=', i);
            if (eq == std::string::npos || eq == i) return false;
            a.type = dn.substr(i, eq - i);
            if (a.type.find_first_of(",+\\") != std::string::npos) return false;
            i = eq + 1;
            while (i < dn.size() && dn[i] != ',' && dn[i] != '+') {
                if (dn[i] != '\\') {
                    a.value += dn[i++];
                    continue;
                }
                if (i + 1 >= dn.size()) return false;
                int hi = hex_value(dn[i + 1]);
                int lo = i + 2 < dn.size() ? hex_value(dn[i + 2]) : -1;
                if (hi >= 0 && lo >= 0) {
                    a.value += static_cast<char>(hi * 16 + lo);
                    i += 3;
                } else {
                    a.value += dn[i + 1];
                    i += 2;
                }
            }
            rdn.push_back(a);
            if (i >= dn.size() || dn[i] == ',') break;
            ++i;  // '+'
        }
        rdns.push_back(rdn);
        if (i < dn.size() && ++i == dn.size()) return false;  // a trailing ','
    }
    return true;
}

// A value as RFC 4514 escapes it, in hex, with every byte outside printable ASCII
// escaped too (control characters included, so that the comment stays one line).
std::string ufn_value(const std::string &v)
{
    std::string s;
    for (size_t i = 0; i < v.size(); ++i) {
        auto c = static_cast<unsigned char>(v[i]);
        bool edge_blank = c == ' ' && (i == 0 || i + 1 == v.size());
        if (std::strchr(",+\"\\<>;", c) != nullptr || c < 0x20 || c >= 0x7f || edge_blank ||
            (i == 0 && c == '#')) {
            append_hex(s, c);
        } else {
            s += static_cast<char>(c);
        }
    }
    return s;
}

bool is_dc(const std::vector<Ava> &rdn)
{
    return rdn.size() == 1 && strcasecmp(rdn[0].type.c_str(), "dc") == 0;
}

}  // namespace

std::string dn_to_ufn(const std::string &dn)
{
    std::vector<std::vector<Ava>> rdns;
    if (!split_dn(dn, rdns)) return "";
    std::string ufn;
    for (size_t r = 0; r < rdns.size(); ++r) {
        if (r > 0) ufn += is_dc(rdns[r]) && is_dc(rdns[r - 1]) ? "." : ", ";
        for (size_t a = 0; a < rdns[r].size(); ++a) {
            if (a > 0) ufn += " + ";
            ufn += ufn_value(rdns[r][a].value);
        }
    }
    return ufn;
}

}  // namespace search_tool
