// toveistror-search: LDIF lines, folded and encoded as ldapsearch writes them.
#include <strings.h>

#include <cstdio>

#include "toveistror-search.h"

namespace search_tool {

namespace {

bool always_encoded(const std::string &name)
{
    return strcasecmp(name.c_str(), "userPassword") == 0 || name == "2.5.4.35";
}

// SAFE-STRING of RFC 2849, and no trailing blank (which the RFC asks to encode).
bool safe(const unsigned char *v, size_t len)
{
    if (len == 0) return true;
    if (v[0] == ' ' || v[0] == ':' || v[0] == '<' || v[len - 1] == ' ') return false;
    for (size_t i = 0; i < len; ++i) {
        if (v[i] == 0 || v[i] == '\n' || v[i] == '\r' || v[i] > 0x7f) return false;
    }
    return true;
}

std::string base64(const unsigned char *v, size_t len)
{
    static const char tab[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
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

}  // namespace

void Ldif::line(const std::string &name, const unsigned char *v, size_t len)
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

void Ldif::line(const std::string &name, const std::string &v)
{
    line(name, reinterpret_cast<const unsigned char *>(v.data()), v.size());
}

void Ldif::flush()
{
    if (out_.empty()) return;
    std::fwrite(out_.data(), 1, out_.size(), stdout);
    out_.clear();
}

// Lines of at most 76 columns; a continuation line starts with one blank.
void Ldif::folded(const std::string &l)
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

}  // namespace search_tool
