// toveistror-search: RFC 4515 filter text to the library's filter records.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "toveistror-search.h"

namespace search_tool {

namespace {

enum class Match { kPresent, kEqual, kAny, kInitial, kFinal };

struct Node {
    char op = 0;  // '&', '|' or 0 for an item
    std::vector<Node> children;
    std::string attr;
    Match match = Match::kEqual;
    std::string value;  // decoded
};

// What ldapsearch says of a filter it cannot read, with our reason; its status.
[[noreturn]] void filter_error(const std::string &why)
{
    std::fflush(stdout);
    std::fprintf(stderr, "%s: Bad search filter (-7): %s\n", kProg, why.c_str());
    std::exit(kExitFilter);
}

// Sets nested deeper than this are refused before they can exhaust the stack: each level
// is a frame of the recursive parser (and of the tree's destructor), and the library's
// shapes need no more than three.
constexpr int kMaxDepth = 100;

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
        n = filter(1);
        skip_blanks();
        if (i_ != s_.size()) syntax("unexpected text after the filter");
        return n;
    }

  private:
    [[noreturn]] void syntax(const std::string &why)
    {
        filter_error("at offset " + std::to_string(i_) + ": " + why);
    }
    [[noreturn]] void unsupported(const std::string &why)
    {
        filter_error("not supported by the library: " + why);
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

    Node filter(int depth)
    {
        skip_blanks();
        expect('(');
        skip_blanks();
        if (i_ >= s_.size()) syntax("unexpected end");
        Node n;
        char c = s_[i_];
        if (c == '&' || c == '|') {
            if (depth > kMaxDepth) {
                syntax("sets nested more than " + std::to_string(kMaxDepth) + " levels deep");
            }
            ++i_;
            n.op = c;
            skip_blanks();
            while (i_ < s_.size() && s_[i_] == '(') {
                n.children.push_back(filter(depth + 1));
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

[[noreturn]] void unsupported_shape(const std::string &why)
{
    filter_error("not supported by the library: " + why);
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

}  // namespace

LibraryFilter parse_filter(const std::string &text)
{
    return to_library_filter(FilterParser(text).parse());
}

}  // namespace search_tool
