/* Search parameters: list splitting, the parsed filter, presence filter and
 * attribute list, and every allocation failing in turn. */
#include "cmp_ldap_internal.h"
#include "support.h"

using support::FakePortTest;

namespace {

using Strings = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

class SearchParams : public FakePortTest {};

CMP_LDAP_FILTER caller_filter(const char *attr, const char *value, uint32_t cond = 3,
                              uint32_t search_cond = 1)
{
    CMP_LDAP_FILTER f;
    memset(&f, 0, sizeof f);
    f.cmp_ldap_filterCond = cond;
    f.cmp_ldap_searchCond = search_cond;
    snprintf(f.cmp_ldap_attr, sizeof f.cmp_ldap_attr, "%s", attr);
    snprintf(f.cmp_ldap_value, sizeof f.cmp_ldap_value, "%s", value);
    return f;
}

Pairs items_of(const CMP_LDAP_SEARCH_FILTER *p)
{
    Pairs out;
    for (int i = 0; i < p->cmp_ldap_filter_count; ++i)
        out.emplace_back(p->cmp_ldap_items[i].cmp_ldap_attr, p->cmp_ldap_items[i].cmp_ldap_value);
    return out;
}

Strings attrs_of(char **list)
{
    Strings out;
    for (; *list != nullptr; ++list)
        out.emplace_back(*list);
    return out;
}

}  // namespace

TEST_F(SearchParams, NextToken)
{
    struct {
        const char *s;
        uint32_t index;
        const char *entry; /* nullptr: absent or empty */
    } cases[] = {
        {"cn, mail", 0, "cn"},
        {"cn, mail", 1, "mail"},
        {"cn, mail", 2, nullptr},
        {"abc ,x", 0, "abc"},
        {"abc ,x", 1, "x"},
        {"cn,,mail", 1, nullptr},
        {"cn,,mail", 2, "mail"},
        {" , ", 0, nullptr},
        {" , ", 1, nullptr},
        {"", 0, nullptr},
        {"   ", 0, nullptr},
        {"a,", 1, nullptr},
        {"\tcn", 0, "\tcn"},
        {"cn\t ,x", 0, "cn\t"},
        {"  common name  ", 0, "common name"},
        {"x,  common name  ,y", 1, "common name"},
    };
    for (const auto &c : cases) {
        const char *start = "sentinel";
        uint32_t len = cmp_ldap_ber_next_token(c.s, c.index, &start);
        if (c.entry == nullptr) {
            EXPECT_EQ(len, 0u) << "'" << c.s << "' #" << c.index;
            EXPECT_EQ(start, nullptr) << "'" << c.s << "' #" << c.index;
            continue;
        }
        ASSERT_NE(start, nullptr) << "'" << c.s << "' #" << c.index;
        /* a view into the caller's text, nothing copied */
        EXPECT_TRUE(start >= c.s && start + len <= c.s + strlen(c.s));
        EXPECT_EQ(std::string(start, len), c.entry) << "'" << c.s << "' #" << c.index;
    }
}

TEST_F(SearchParams, Filter)
{
    struct {
        const char *attr, *value;
        Pairs items;
    } cases[] = {
        {"cn, mail", "abc ,x", {{"cn", "abc"}, {"mail", "x"}}},
        {"cn,,mail", "a,b,c", {{"cn", "a"}}}, /* entry 2 is never looked at */
        {"cn", "", {}},
        {"a,b,c", "1,2,3", {{"a", "1"}, {"b", "2"}}},
        {",mail", "x,y", {{"mail", "y"}}}, /* the second pair moves up */
        {"\tcn", " v ", {{"\tcn", "v"}}},
        {"  common name  ", "x", {{"common name", "x"}}},
        {" , ", " , ", {}},
    };
    for (const auto &c : cases) {
        CMP_LDAP_FILTER in = caller_filter(c.attr, c.value, 2, 1);
        CMP_LDAP_SEARCH_FILTER *p = cmp_ldap_parse_search_filter(&in);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(items_of(p), c.items) << "'" << c.attr << "' / '" << c.value << "'";
        EXPECT_EQ(p->cmp_ldap_searchCond, 1u);
        for (int i = 0; i < 2; ++i) { /* unused items stay zero-filled */
            EXPECT_EQ(p->cmp_ldap_items[i].cmp_ldap_filterCond,
                      i < p->cmp_ldap_filter_count ? 2u : 0u);
        }
        cmp_ldap_free_search_filter(p);
    }

    /* a full-width entry is copied whole and terminated by the zero fill */
    std::string wide(CMP_LDAP_TEXT_MAX, 'w');
    CMP_LDAP_FILTER in = caller_filter(wide.c_str(), wide.c_str());
    CMP_LDAP_SEARCH_FILTER *p = cmp_ldap_parse_search_filter(&in);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(items_of(p), (Pairs{{wide, wide}}));
    cmp_ldap_free_search_filter(p);

    p = cmp_ldap_parse_search_filter(nullptr);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->cmp_ldap_filter_count, 0);
    EXPECT_EQ(p->cmp_ldap_searchCond, 0u);
    cmp_ldap_free_search_filter(p);
    EXPECT_EQ(fake::alloc_sizes().back(), sizeof(CMP_LDAP_SEARCH_FILTER));
}

TEST_F(SearchParams, PresenceFilter)
{
    struct {
        const char *attr;
        Strings attrs;
    } cases[] = {
        {"a,b,c,d", {"a", "b", "c"}},
        {" , mail", {"mail"}},
        {"x,,y", {"x", "y"}},
        {"", {}},
        {"\tobjectClass ", {"\tobjectClass"}},
    };
    for (const auto &c : cases) {
        CMP_LDAP_FILTER_PRESENT in;
        memset(&in, 0, sizeof in);
        in.cmp_ldap_searchCond = 1;
        snprintf(in.attr, sizeof in.attr, "%s", c.attr);
        CMP_LDAP_SEARCH_FILTER_PRESENT *p = cmp_ldap_parse_search_filter_present(&in);
        ASSERT_NE(p, nullptr);
        Strings got(p->attr, p->attr + p->cmp_ldap_filter_count);
        EXPECT_EQ(got, c.attrs) << "'" << c.attr << "'";
        EXPECT_EQ(p->cmp_ldap_searchCond, 1u);
        cmp_ldap_free_search_filter_present(p);
    }
    CMP_LDAP_SEARCH_FILTER_PRESENT *p = cmp_ldap_parse_search_filter_present(nullptr);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->cmp_ldap_filter_count, 0);
    cmp_ldap_free_search_filter_present(p);
}

TEST_F(SearchParams, Attributes)
{
    struct {
        const char *in;
        Strings out;
    } cases[] = {
        {"cn,,mail", {"cn", "mail"}},
        {" , ", {}},
        {"", {}},
        {nullptr, {}},
        {"a,b,c,d,e,f,g,h,i", {"a", "b", "c", "d", "e", "f", "g", "h"}},
        {"  common name  ,\tx", {"common name", "\tx"}},
    };
    for (const auto &c : cases) {
        size_t before = fake::alloc_sizes().size();
        char **list = cmp_ldap_parse_search_attributes(c.in);
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(attrs_of(list), c.out) << (c.in ? c.in : "(null)");
        /* nine zeroed slots, then one block of length + 1 per entry */
        std::vector<uint32_t> sizes = {9 * sizeof(char *)};
        for (const std::string &s : c.out)
            sizes.push_back((uint32_t)s.size() + 1);
        std::vector<uint32_t> all = fake::alloc_sizes();
        EXPECT_EQ(std::vector<uint32_t>(all.begin() + before, all.end()), sizes);
        for (size_t i = c.out.size(); i < 9; ++i)
            EXPECT_EQ(list[i], nullptr);
        cmp_ldap_free_search_attributes(list);
    }
    cmp_ldap_free_search_attributes(nullptr);
    cmp_ldap_free_search_filter(nullptr);
    cmp_ldap_free_search_filter_present(nullptr);
}

TEST_F(SearchParams, EveryAllocationFailingInTurn)
{
    /* each failure gives null, leaks nothing, and logs only the allocator's own line,
     * named after the parser */
    auto expect_failure_line = [](long k, const char *name) {
        if (k == 0) return;
        ASSERT_EQ(fake::log().size(), 1u);
        EXPECT_EQ(fake::log()[0].text, std::string(name) + "(): Failed to allocate(" +
                                           std::to_string(fake::alloc_sizes().back()) +
                                           " btyes).\n");
    };
    long n = support::sweep_alloc_failures([&](long k) {
        fake::arm_alloc_failure(k);
        char **list = cmp_ldap_parse_search_attributes("a, b,c,,d,e,f,g,h,i");
        EXPECT_EQ(list == nullptr, k != 0);
        /* entry 3 is empty; entries 8 and 9 are beyond the list */
        if (list != nullptr) {
            EXPECT_EQ(attrs_of(list).size(), 7u);
        }
        cmp_ldap_free_search_attributes(list);
        expect_failure_line(k, "cmp_ldap_parse_search_attributes");
    });
    EXPECT_EQ(n, 8);

    CMP_LDAP_FILTER filter = caller_filter("cn,sn", "a,b");
    n = support::sweep_alloc_failures([&](long k) {
        fake::arm_alloc_failure(k);
        CMP_LDAP_SEARCH_FILTER *p = cmp_ldap_parse_search_filter(&filter);
        EXPECT_EQ(p == nullptr, k != 0);
        cmp_ldap_free_search_filter(p);
        expect_failure_line(k, "cmp_ldap_parse_search_filter");
    });
    EXPECT_EQ(n, 1);

    CMP_LDAP_FILTER_PRESENT present;
    memset(&present, 0, sizeof present);
    snprintf(present.attr, sizeof present.attr, "mail");
    n = support::sweep_alloc_failures([&](long k) {
        fake::arm_alloc_failure(k);
        CMP_LDAP_SEARCH_FILTER_PRESENT *p = cmp_ldap_parse_search_filter_present(&present);
        EXPECT_EQ(p == nullptr, k != 0);
        cmp_ldap_free_search_filter_present(p);
        expect_failure_line(k, "cmp_ldap_parse_search_filter_present");
    });
    EXPECT_EQ(n, 1);
}
