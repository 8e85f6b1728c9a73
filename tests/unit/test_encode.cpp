/* The two-pass BER encoder: worked PDUs byte for byte, and length == octets written
 * over sweeps that cross every length-form boundary, each PDU encoded into a block of
 * exactly the computed size and checked by an independent BER walker. */
#include <limits.h>

#include <set>

#include "cmp_ldap_internal.h"
#include "support.h"

using support::Bytes;
using support::FakePortTest;
using support::hex;
using support::to_hex;

namespace {

/* ---- an independent BER walker: every nested length must add up ---- */

struct Node {
    uint8_t tag = 0;
    size_t at = 0, hdr = 0;
    uint32_t len = 0;
    std::vector<Node> kids;
    const Node &operator[](size_t i) const { return kids.at(i); }
};

bool walk(const Bytes &b, size_t begin, size_t end, std::vector<Node> &out, std::string &why)
{
    while (begin < end) {
        Node n;
        n.at = begin;
        n.tag = b[begin];
        if ((n.tag & 0x1F) == 0x1F) return why = "multi-octet tag", false;
        if (end - begin < 2) return why = "truncated header", false;
        uint8_t first = b[begin + 1];
        uint64_t len = first;
        n.hdr = 2;
        if (first == 0x80) return why = "indefinite length", false;
        if (first > 0x80) {
            size_t count = first & 0x7F;
            if (count > 4 || end - begin < 2 + count) return why = "bad long form", false;
            len = 0;
            for (size_t i = 0; i < count; ++i)
                len = len << 8 | b[begin + 2 + i];
            if (len < 128 || b[begin + 2] == 0) return why = "long form not minimal", false;
            n.hdr += count;
        }
        if (len > end - begin - n.hdr) return why = "content runs past its parent", false;
        n.len = (uint32_t)len;
        const uint8_t *c = &b[begin + n.hdr];
        if (n.tag == 0x02 && (len == 0 || (len > 1 && c[0] == 0 && !(c[1] & 0x80))))
            return why = "INTEGER not minimal", false;
        if (n.tag & 0x20) {
            if (!walk(b, begin + n.hdr, begin + n.hdr + len, n.kids, why)) return false;
        }
        begin += n.hdr + len;
        out.push_back(std::move(n));
    }
    return true;
}

Node parse_pdu(const Bytes &pdu)
{
    std::vector<Node> top;
    std::string why;
    EXPECT_TRUE(walk(pdu, 0, pdu.size(), top, why)) << why << ": " << to_hex(pdu).substr(0, 200);
    EXPECT_EQ(top.size(), 1u);
    if (top.size() != 1) return Node{};
    EXPECT_EQ(top[0].tag, 0x30);
    return top[0];
}

Bytes raw(const Bytes &pdu, const Node &n)
{
    return Bytes(pdu.begin() + n.at, pdu.begin() + n.at + n.hdr + n.len);
}

int64_t integer_value(const Bytes &pdu, const Node &n)
{
    int64_t v = (int8_t)pdu[n.at + n.hdr];
    for (size_t i = 1; i < n.len; ++i)
        v = v * 256 + pdu[n.at + n.hdr + i];
    return v;
}

void collect_lengths(const Node &n, std::set<uint32_t> &seen)
{
    seen.insert(n.len);
    for (const Node &k : n.kids)
        collect_lengths(k, seen);
}

/* Encodes into a block of exactly the computed size (AddressSanitizer catches one
 * octet too many), twice over different fills (a gap left unwritten shows as a
 * difference), then checks the PDU is whole BER carrying the handle's message id. */
template <typename Length, typename Write>
Bytes encode(const CMP_LDAP &ld, Length length, Write write)
{
    uint32_t n = length();
    EXPECT_GT(n, 0u);
    if (n == 0) return {};
    auto *buf = static_cast<unsigned char *>(cmp_ldap_malloc("test", n));
    memset(buf, 0xA5, n);
    write(buf);
    Bytes first(buf, buf + n);
    memset(buf, 0x5A, n);
    write(buf);
    Bytes second(buf, buf + n);
    support::free_block(buf);
    EXPECT_EQ(first, second) << "octets left unwritten";
    Node root = parse_pdu(first);
    if (!root.kids.empty()) {
        EXPECT_EQ(root[0].tag, 0x02);
        EXPECT_EQ(integer_value(first, root[0]), ld.ld_mid);
    }
    return first;
}

CMP_LDAP handle(int32_t mid)
{
    CMP_LDAP ld;
    memset(&ld, 0, sizeof ld);
    ld.ld_mid = mid;
    return ld;
}

Bytes bind_pdu(const CMP_LDAP &ld, const std::string &dn, const std::string &pw)
{
    return encode(
        ld, [&] { return cmp_ldap_get_bind_request_message_length(&ld, dn.c_str(), pw.c_str()); },
        [&](unsigned char *b) {
            cmp_ldap_ber_encode_bind_request(&ld, dn.c_str(), pw.c_str(), b);
        });
}

/* A counted block: the count, then the octets, in one piece of storage. */
std::vector<uint32_t> cred_block(const Bytes &octets)
{
    std::vector<uint32_t> store(2 + octets.size() / 4);
    auto *cred = reinterpret_cast<CMP_LDAP_SASL_CRED *>(store.data());
    cred->total_size = (uint32_t)octets.size();
    if (!octets.empty())
        memcpy(reinterpret_cast<uint8_t *>(cred) + offsetof(CMP_LDAP_SASL_CRED, data),
               octets.data(), octets.size());
    return store;
}

Bytes sasl_pdu(const CMP_LDAP &ld, const std::string &mech, const Bytes &octets)
{
    std::vector<uint32_t> store = cred_block(octets);
    auto *cred = reinterpret_cast<const CMP_LDAP_SASL_CRED *>(store.data());
    return encode(
        ld, [&] { return cmp_ldap_get_sasl_bind_request_message_length(&ld, mech.c_str(), cred); },
        [&](unsigned char *b) {
            cmp_ldap_ber_encode_sasl_bind_request(&ld, mech.c_str(), cred, b);
        });
}

Bytes extend_pdu(const CMP_LDAP &ld)
{
    return encode(
        ld, [&] { return cmp_ldap_get_extend_request_message_length(&ld); },
        [&](unsigned char *b) { cmp_ldap_ber_encode_extend_request(&ld, b); });
}

struct Search {
    CMP_LDAP ld = handle(1);
    std::string base = "dc=example";
    uint32_t scope = 2, attrsonly = 0;
    const CMP_LDAP_SEARCH_FILTER *filter = nullptr;
    const CMP_LDAP_SEARCH_FILTER_PRESENT *present = nullptr;
    std::vector<std::string> attrs;
};

Bytes search_pdu(const Search &s)
{
    std::vector<char *> list;
    for (const std::string &a : s.attrs)
        list.push_back(const_cast<char *>(a.c_str()));
    list.push_back(nullptr);
    return encode(
        s.ld,
        [&] {
            return cmp_ldap_get_search_request_message_length(&s.ld, s.base.c_str(), s.filter,
                                                              s.present, list.data());
        },
        [&](unsigned char *b) {
            cmp_ldap_ber_encode_search_request(&s.ld, s.base.c_str(), s.scope, s.filter, s.present,
                                               list.data(), s.attrsonly, b);
        });
}

CMP_LDAP_SEARCH_FILTER filter_of(uint32_t cond, uint32_t search_cond,
                                 const std::vector<std::pair<std::string, std::string>> &items)
{
    CMP_LDAP_SEARCH_FILTER f;
    memset(&f, 0, sizeof f);
    f.cmp_ldap_searchCond = search_cond;
    for (const auto &item : items) {
        CMP_LDAP_FILTER_ITEM &it = f.cmp_ldap_items[f.cmp_ldap_filter_count++];
        it.cmp_ldap_filterCond = cond;
        snprintf(it.cmp_ldap_attr, sizeof it.cmp_ldap_attr, "%s", item.first.c_str());
        snprintf(it.cmp_ldap_value, sizeof it.cmp_ldap_value, "%s", item.second.c_str());
    }
    return f;
}

CMP_LDAP_SEARCH_FILTER_PRESENT present_of(uint32_t search_cond, const std::vector<std::string> &a)
{
    CMP_LDAP_SEARCH_FILTER_PRESENT p;
    memset(&p, 0, sizeof p);
    p.cmp_ldap_searchCond = search_cond;
    for (const std::string &s : a)
        snprintf(p.attr[p.cmp_ldap_filter_count++], sizeof p.attr[0], "%s", s.c_str());
    return p;
}

/* The SearchRequest's members: base, scope, deref, sizeLimit, timeLimit, typesOnly,
 * filter, attributes. */
enum { BASE, SCOPE, DEREF, SIZE_LIMIT, TIME_LIMIT, TYPES_ONLY, FILTER, ATTRIBUTES };

Bytes search_member(const Search &s, int member)
{
    Bytes pdu = search_pdu(s);
    Node root = parse_pdu(pdu);
    return root.kids.size() < 2 ? Bytes{} : raw(pdu, root[1].kids.at(member));
}

class Encode : public FakePortTest {};

}  // namespace

TEST_F(Encode, WorkedPdusByteForByte)
{
    const CMP_LDAP_SEARCH_FILTER eq = filter_of(3, 0, {{"cn", "abc"}});
    const CMP_LDAP_SEARCH_FILTER initial = filter_of(1, 0, {{"cn", "ab"}});
    Search plain, prefix;
    plain.filter = &eq;
    plain.attrs = {"cn", "mail"};
    prefix = plain;
    prefix.filter = &initial;
    const char *starttls_oid =
        "80 16 31 2E 33 2E 36 2E 31 2E 34 2E 31 2E 31 34 36 36 2E 32 30 30 33 37";

    struct {
        const char *name;
        Bytes pdu;
        std::string expected;
    } cases[] = {
        {"simple bind", bind_pdu(handle(1), "cn=a", "xyz"),
         "30 13 02 01 01 60 0E 02 01 03 04 04 63 6E 3D 61 80 03 78 79 7A"},
        {"sasl bind", sasl_pdu(handle(2), "GSSAPI", {}),
         "30 14 02 01 02 60 0F 02 01 03 04 00 A3 08 04 06 47 53 53 41 50 49"},
        {"sasl bind with credentials", sasl_pdu(handle(2), "GSSAPI", {1, 2, 3}),
         "30 19 02 01 02 60 14 02 01 03 04 00 A3 0D 04 06 47 53 53 41 50 49 04 03 01 02 03"},
        {"search", search_pdu(plain),
         "30 39 02 01 01 63 34 04 0A 64 63 3D 65 78 61 6D 70 6C 65 0A 01 02 0A 01 00 02 01 00 02 "
         "01 00 01 01 00 A0 0B A3 09 04 02 63 6E 04 03 61 62 63 30 0A 04 02 63 6E 04 04 6D 61 69 "
         "6C"},
        {"search cn=ab*", search_pdu(prefix),
         "30 3A 02 01 01 63 35 04 0A 64 63 3D 65 78 61 6D 70 6C 65 0A 01 02 0A 01 00 02 01 00 02 "
         "01 00 01 01 00 A0 0C A4 0A 04 02 63 6E 30 04 80 02 61 62 30 0A 04 02 63 6E 04 04 6D 61 "
         "69 6C"},
        {"starttls", extend_pdu(handle(1)), std::string("30 1D 02 01 01 77 18 ") + starttls_oid},
        {"starttls id 128", extend_pdu(handle(128)),
         std::string("30 1E 02 02 00 80 77 18 ") + starttls_oid},
    };
    for (const auto &c : cases)
        EXPECT_EQ(to_hex(c.pdu), to_hex(hex(c.expected))) << c.name;
    EXPECT_EQ(cases[0].pdu.size(), 21u);
    EXPECT_EQ(cases[1].pdu.size(), 22u);
    EXPECT_EQ(cases[2].pdu.size(), 27u);
    EXPECT_EQ(cases[3].pdu.size(), 59u);
    EXPECT_EQ(cases[5].pdu.size(), 31u);
    EXPECT_EQ(cases[6].pdu.size(), 32u);
}

TEST_F(Encode, SearchMembers)
{
    const auto two_eq_or = filter_of(3, 1, {{"cn", "abc"}, {"sn", "x"}});
    const auto two_eq_and = filter_of(3, 0, {{"cn", "abc"}, {"sn", "x"}});
    const auto any = filter_of(0, 0, {{"cn", "ab"}});
    const auto final_ = filter_of(2, 0, {{"cn", "ab"}});
    const auto mail_cn = present_of(0, {"mail", "cn"});
    const auto mail_or = present_of(1, {"mail"});
    const auto empty_present = present_of(0, {});

    struct {
        const char *name;
        void (*setup)(Search &);
        const CMP_LDAP_SEARCH_FILTER *filter;
        const CMP_LDAP_SEARCH_FILTER_PRESENT *present;
        int member;
        const char *expected;
    } cases[] = {
        {"no filter", nullptr, nullptr, nullptr, FILTER, "87 0B 6F 62 6A 65 63 74 43 6C 61 73 73"},
        {"presence only", nullptr, nullptr, &mail_cn, FILTER,
         "A0 0A 87 04 6D 61 69 6C 87 02 63 6E"},
        {"empty presence set", nullptr, nullptr, &empty_present, FILTER, "A0 00"},
        {"two items OR", nullptr, &two_eq_or, nullptr, FILTER,
         "A1 14 A3 09 04 02 63 6E 04 03 61 62 63 A3 07 04 02 73 6E 04 01 78"},
        {"two items AND", nullptr, &two_eq_and, nullptr, FILTER,
         "A0 14 A3 09 04 02 63 6E 04 03 61 62 63 A3 07 04 02 73 6E 04 01 78"},
        {"both sets OR are joined by AND", nullptr, &two_eq_or, &mail_or, FILTER,
         "A0 1E A1 14 A3 09 04 02 63 6E 04 03 61 62 63 A3 07 04 02 73 6E 04 01 78 "
         "A1 06 87 04 6D 61 69 6C"},
        {"substrings any", nullptr, &any, nullptr, FILTER,
         "A0 0C A4 0A 04 02 63 6E 30 04 81 02 61 62"},
        {"substrings final", nullptr, &final_, nullptr, FILTER,
         "A0 0C A4 0A 04 02 63 6E 30 04 82 02 61 62"},
        {"size limit 1000", [](Search &s) { s.ld.ld_sizelimit = 1000; }, nullptr, nullptr,
         SIZE_LIMIT, "02 02 03 E8"},
        {"time limit 200", [](Search &s) { s.ld.ld_timelimit = 200; }, nullptr, nullptr, TIME_LIMIT,
         "02 02 00 C8"},
        {"negative limit", [](Search &s) { s.ld.ld_sizelimit = -1; }, nullptr, nullptr, SIZE_LIMIT,
         "02 05 FF FF FF FF FF"},
        {"most negative limit", [](Search &s) { s.ld.ld_timelimit = INT_MIN; }, nullptr, nullptr,
         TIME_LIMIT, "02 05 FF 80 00 00 00"},
        {"largest limit", [](Search &s) { s.ld.ld_timelimit = INT_MAX; }, nullptr, nullptr,
         TIME_LIMIT, "02 04 7F FF FF FF"},
        {"scope", [](Search &s) { s.scope = 1; }, nullptr, nullptr, SCOPE, "0A 01 01"},
        {"deref", [](Search &s) { s.ld.ld_deref = 3; }, nullptr, nullptr, DEREF, "0A 01 03"},
        {"types only", [](Search &s) { s.attrsonly = 1; }, nullptr, nullptr, TYPES_ONLY,
         "01 01 FF"},
        {"all attributes", nullptr, nullptr, nullptr, ATTRIBUTES, "30 00"},
        {"empty base", [](Search &s) { s.base = ""; }, nullptr, nullptr, BASE, "04 00"},
    };
    for (const auto &c : cases) {
        Search s;
        s.filter = c.filter;
        s.present = c.present;
        if (c.setup) c.setup(s);
        EXPECT_EQ(to_hex(search_member(s, c.member)), to_hex(hex(c.expected))) << c.name;
    }
}

TEST_F(Encode, LengthFieldForms)
{
    /* the substrings SEQUENCE around a long value, and the forms of a DN's length */
    struct {
        size_t value_len;
        const char *header;
    } seqs[] = {{120, "30 7A"}, {126, "30 81 80"}};
    for (const auto &c : seqs) {
        const auto f = filter_of(1, 0, {{"cn", std::string(c.value_len, 'v')}});
        Search s;
        s.filter = &f;
        Bytes pdu = search_pdu(s);
        const Node seq = parse_pdu(pdu)[1][FILTER][0][1];
        EXPECT_EQ(to_hex(Bytes(pdu.begin() + seq.at, pdu.begin() + seq.at + seq.hdr)), c.header);
    }
    struct {
        size_t dn_len;
        const char *header;
    } dns[] = {
        {0, "04 00"},         {127, "04 7F"},         {128, "04 81 80"},        {255, "04 81 FF"},
        {256, "04 82 01 00"}, {65535, "04 82 FF FF"}, {65536, "04 83 01 00 00"}};
    for (const auto &c : dns) {
        Bytes pdu = bind_pdu(handle(1), std::string(c.dn_len, 'd'), "");
        const Node dn = parse_pdu(pdu)[1][1];
        EXPECT_EQ(to_hex(Bytes(pdu.begin() + dn.at, pdu.begin() + dn.at + dn.hdr)), c.header);
    }
    Bytes empty = bind_pdu(handle(1), "", "");
    EXPECT_EQ(to_hex(raw(empty, parse_pdu(empty)[1])), "60 07 02 01 03 04 00 80 00");
    EXPECT_EQ(bind_pdu(handle(1), std::string(128, 'd'), "").size(),
              bind_pdu(handle(1), std::string(127, 'd'), "").size() + 2);
    Bytes one = sasl_pdu(handle(1), "GSSAPI", {0});
    EXPECT_EQ(to_hex(raw(one, parse_pdu(one)[1][2])), "A3 0B 04 06 47 53 53 41 50 49 04 01 00");
}

TEST_F(Encode, MessageIdsAndStartTlsSizes)
{
    struct {
        int32_t id;
        const char *expected;
    } ids[] = {{0, "02 01 00"},        {1, "02 01 01"},           {127, "02 01 7F"},
               {128, "02 02 00 80"},   {255, "02 02 00 FF"},      {256, "02 02 01 00"},
               {32767, "02 02 7F FF"}, {32768, "02 03 00 80 00"}, {65535, "02 03 00 FF FF"}};
    for (const auto &c : ids) {
        Bytes pdu = bind_pdu(handle(c.id), "", "");
        EXPECT_EQ(to_hex(raw(pdu, parse_pdu(pdu)[0])), c.expected) << c.id;
    }
    /* every id a session can issue; the request name and nothing else follows */
    for (int32_t id = 0; id <= 65535; ++id) {
        CMP_LDAP ld = handle(id);
        uint32_t expected = id < 128 ? 31 : id < 32768 ? 32 : 33;
        ASSERT_EQ(cmp_ldap_get_extend_request_message_length(&ld), expected) << id;
        if (id % 251 != 0 && id != 127 && id != 128 && id != 32767 && id != 32768) continue;
        Bytes pdu = extend_pdu(ld);
        Node root = parse_pdu(pdu);
        ASSERT_EQ(root[1].kids.size(), 1u);
        EXPECT_EQ(root[1].tag, 0x77);
        EXPECT_EQ(root[1][0].tag, 0x80);
    }
}

/* Length == octets written for every request kind, over string and credential
 * lengths around each length-form boundary and message ids at the INTEGER
 * boundaries; the sweep checks it really produced every boundary content length. */
TEST_F(Encode, LengthMatchesEncodingAcrossBoundaries)
{
    const int32_t ids[] = {0, 1, 127, 128, 32767, 32768, 65535};
    std::vector<size_t> lens;
    for (size_t b : {128u, 256u, 65536u})
        for (size_t l = b - 90; l <= b + 2; ++l)
            lens.push_back(l);
    const std::set<uint32_t> boundaries = {127, 128, 255, 256, 65535, 65536};

    auto check = [&](const char *kind, const std::function<Bytes(int32_t, size_t, int)> &make,
                     int variants, bool small_only) {
        std::set<uint32_t> outer, all;
        for (int v = 0; v < variants; ++v)
            for (size_t len : lens) {
                if (small_only && len > 384) continue;
                for (int32_t id : ids) {
                    Bytes pdu = make(id, len, v);
                    Node root = parse_pdu(pdu);
                    outer.insert(root.len);
                    collect_lengths(root, all);
                }
            }
        for (uint32_t b : boundaries) {
            if (small_only && b > 384) continue;
            EXPECT_TRUE(outer.count(b)) << kind << ": outer content " << b << " never produced";
            EXPECT_TRUE(all.count(b)) << kind << ": content " << b << " never produced";
        }
    };

    check(
        "bind",
        [](int32_t id, size_t len, int v) {
            std::string s(len, 'a');
            return v == 0 ? bind_pdu(handle(id), s, "pw") : bind_pdu(handle(id), "cn=a", s);
        },
        2, false);
    check(
        "sasl",
        [](int32_t id, size_t len, int v) {
            return v == 0 ? sasl_pdu(handle(id), std::string(len, 'M'), {})
                          : sasl_pdu(handle(id), "GSSAPI", Bytes(len, 0x00));
        },
        2, false);

    const auto both = present_of(1, {"mail", "cn", "sn"});
    const auto eq = filter_of(3, 1, {{"cn", "abc"}, {"sn", "x"}});
    check(
        "search base and attributes",
        [&](int32_t id, size_t len, int v) {
            Search s;
            s.ld = handle(id);
            s.ld.ld_sizelimit = id; /* limits cross the INTEGER sizes with the ids */
            s.ld.ld_timelimit = 65535 - id;
            s.filter = &eq;
            s.present = &both;
            if (v == 0) s.base = std::string(len, 'b');
            if (v == 1) s.attrs = {std::string(len, 'a')};
            if (v == 2) s.attrs = {"cn", "mail", "sn", "o", "ou", "c", "l", std::string(len, 'a')};
            return search_pdu(s);
        },
        3, false);
    check(
        "search filters",
        [&](int32_t id, size_t len, int v) {
            /* v: match type 0..3 x searchCond x presence set or not, then presence alone */
            std::string value(len, 'v');
            auto f = filter_of(v % 4, (v / 4) % 2, {{"cn", value}});
            auto p = present_of(v % 2, {std::string(len, 'p')});
            Search s;
            s.ld = handle(id);
            s.filter = v < 16 ? &f : nullptr;
            s.present = v >= 8 ? &p : nullptr;
            return search_pdu(s);
        },
        17, true);
}

/* 0 means "cannot encode": an element reaching 2^24 octets, or a filter record out
 * of range. The largest encodable PDU still encodes. */
TEST_F(Encode, LengthZeroWhenRequestCannotBeEncoded)
{
    CMP_LDAP ld = handle(1);
    /* outer content = DN length + 18 with an empty password and id 1 */
    std::string dn(0xFFFFFF - 18, 'd');
    EXPECT_EQ(cmp_ldap_get_bind_request_message_length(&ld, dn.c_str(), ""), 0x1000004u);
    Bytes pdu = bind_pdu(ld, dn, "");
    EXPECT_EQ(parse_pdu(pdu).len, 0xFFFFFFu);
    dn += 'd';
    EXPECT_EQ(cmp_ldap_get_bind_request_message_length(&ld, dn.c_str(), ""), 0u);
    EXPECT_EQ(cmp_ldap_get_bind_request_message_length(&ld, "", dn.c_str()), 0u);

    for (uint32_t size : {0x1000000u, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
        CMP_LDAP_SASL_CRED cred = {size, {0}}; /* the length pass never reads the octets */
        EXPECT_EQ(cmp_ldap_get_sasl_bind_request_message_length(&ld, "GSSAPI", &cred), 0u);
    }
    CMP_LDAP_SASL_CRED no_cred = {0, {0}};
    EXPECT_EQ(cmp_ldap_get_sasl_bind_request_message_length(&ld, dn.c_str(), &no_cred), 0u);

    char *no_attrs[] = {nullptr};
    std::string half(0x800000, 'a'); /* two of them make the attribute list too long */
    char *halves[] = {&half[0], &half[0], nullptr};
    auto bad_cond = filter_of(4, 0, {{"cn", "x"}});
    auto too_many = filter_of(3, 0, {{"cn", "x"}});
    too_many.cmp_ldap_filter_count = 3;
    auto present = present_of(0, {"mail"});
    auto present_too_many = present;
    present_too_many.cmp_ldap_filter_count = 4;
    struct {
        const char *name;
        const char *base;
        const CMP_LDAP_SEARCH_FILTER *filter;
        const CMP_LDAP_SEARCH_FILTER_PRESENT *present;
        char **attrs;
    } cases[] = {
        {"base", dn.c_str(), nullptr, nullptr, no_attrs},
        {"attributes", "", nullptr, nullptr, halves},
        {"match type 4", "", &bad_cond, nullptr, no_attrs},
        {"match type 4 with presence", "", &bad_cond, &present, no_attrs},
        {"three items", "", &too_many, nullptr, no_attrs},
        {"four presence attributes", "", nullptr, &present_too_many, no_attrs},
    };
    for (const auto &c : cases)
        EXPECT_EQ(
            cmp_ldap_get_search_request_message_length(&ld, c.base, c.filter, c.present, c.attrs),
            0u)
            << c.name;
}
