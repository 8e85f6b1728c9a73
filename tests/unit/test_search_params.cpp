/* Search parameters: comma lists parsed into the filter, presence filter and
 * attribute list, each with every allocation failing in turn. */
#include <tuple>

#include "cmp_ldap_internal.h"
#include "support.h"

#pragma GCC diagnostic ignored "-Wmissing-field-initializers" /* records zero-filled */

using Strings = std::vector<std::string>;
static const char *F = "filter", *P = "filter_present", *A = "attributes";

/* Runs the parser of the kind (a null a is the null argument) and returns its
 * entries as "attr=value" or "attr", or {"null"} when it gave null. */
static Strings parse(const char *kind, const char *a, const char *v)
{
    CMP_LDAP_FILTER f{2, 1};
    CMP_LDAP_FILTER_PRESENT fp{1};
    snprintf(f.cmp_ldap_attr, sizeof f.cmp_ldap_attr, "%s", a ? a : "");
    snprintf(f.cmp_ldap_value, sizeof f.cmp_ldap_value, "%s", v);
    memcpy(fp.attr, f.cmp_ldap_attr, sizeof fp.attr);
    Strings out;
    if (kind == F) {
        CMP_LDAP_SEARCH_FILTER *p = cmp_ldap_parse_search_filter(a ? &f : nullptr);
        if (p == nullptr) return {"null"};
        EXPECT_EQ(p->cmp_ldap_searchCond, a ? 1u : 0u);
        for (const CMP_LDAP_FILTER_ITEM &it : p->cmp_ldap_items) {
            if (&it - p->cmp_ldap_items == p->cmp_ldap_filter_count) break;
            EXPECT_EQ(it.cmp_ldap_filterCond, 2u);
            out.push_back(it.cmp_ldap_attr + ("=" + std::string(it.cmp_ldap_value)));
        }
        cmp_ldap_free_search_filter(p);
    } else if (kind == P) {
        CMP_LDAP_SEARCH_FILTER_PRESENT *p = cmp_ldap_parse_search_filter_present(a ? &fp : nullptr);
        if (p == nullptr) return {"null"};
        EXPECT_EQ(p->cmp_ldap_searchCond, a ? 1u : 0u);
        out.assign(p->attr, p->attr + p->cmp_ldap_filter_count);
        cmp_ldap_free_search_filter_present(p);
    } else {
        char **list = cmp_ldap_parse_search_attributes(a);
        if (list == nullptr) return {"null"};
        for (char **s = list; *s != nullptr; ++s)
            out.push_back(*s);
        cmp_ldap_free_search_attributes(list);
    }
    return out;
}

class SearchParams : public support::FakePortTest {};

/* Blanks (spaces only) around an entry are dropped, empty entries skipped, surplus
 * ones ignored. A failed allocation gives null, leaks nothing and logs only the
 * allocator's own line. */
TEST_F(SearchParams, ParsingAndEveryAllocationFailing)
{
    const std::string w(CMP_LDAP_TEXT_MAX, 'w'); /* a full-width entry, ended by the zero fill */
    /* the parser, the attribute and value lists given, the entries it gives */
    const std::tuple<const char *, const char *, const char *, Strings> rows[] = {
        {F, "cn, mail", "abc ,x", {"cn=abc", "mail=x"}},
        {F, "cn,,mail", "a,b,c", {"cn=a"}}, /* entry 2 is never looked at */
        {F, "cn", "", {}},
        {F, "a,b,c", "1,2,3", {"a=1", "b=2"}},
        {F, ",mail", "x,y", {"mail=y"}}, /* the second pair moves up */
        {F, "\tcn", "  v w  ", {"\tcn=v w"}},
        {F, w.c_str(), w.c_str(), {w + "=" + w}},
        {F, nullptr, "", {}},
        {P, "a,b,c,d", "", {"a", "b", "c"}},
        {P, " ,mail,\tobjectClass ,z", "", {"mail", "\tobjectClass"}},
        {P, nullptr, "", {}},
        {A, "cn,,mail", "", {"cn", "mail"}},
        {A, " , ", "", {}},
        {A, nullptr, "", {}},
        {A, "a,b,c,d,e,f,g,h,i", "", {"a", "b", "c", "d", "e", "f", "g", "h"}},
        {A, "  common name  ,\tx, cn\t ,a,", "", {"common name", "\tx", "cn\t", "a"}},
    };
    for (const auto &row : rows)
        support::sweep_alloc_failures([&](long k) {
            const auto &[kind, a, v, want] = row;
            fake::arm_alloc_failure(k);
            EXPECT_EQ(parse(kind, a, v), k ? Strings{"null"} : want) << (a ? a : "");
            std::string line = std::string("cmp_ldap_parse_search_") + kind +
                               "(): Failed to allocate(" +
                               std::to_string(fake::alloc_sizes().back()) + " btyes).\n";
            EXPECT_EQ(fake::log(), k ? support::uncoded({line}) : support::Log{});
        });
}
