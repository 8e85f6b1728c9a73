/* The two-pass BER encoder: worked PDUs byte for byte, and length == octets written
 * across every length-form boundary, checked by an independent BER walker. */
#include <algorithm>

#include "cmp_ldap_internal.h"
#include "support.h"

#pragma GCC diagnostic ignored "-Wmissing-field-initializers" /* records zero-filled */

using namespace support;

using Filter = CMP_LDAP_SEARCH_FILTER;
using Present = CMP_LDAP_SEARCH_FILTER_PRESENT;

/* Single-octet tags, definite minimal lengths, children tiling each constructed
 * element exactly. Returns the number of elements, -1 when malformed. */
static int walk(const uint8_t *p, size_t n)
{
    int count = 0;
    for (size_t h = 2, len; n > 0; ++count, p += h + len, n -= h + len, h = 2) {
        if (n < 2 || (p[0] & 0x1F) == 0x1F || p[1] == 0x80) return -1;
        len = p[1];
        if (len > 0x80) {
            h += len & 0x7F;
            if (h > 5 || n < h || p[2] == 0) return -1;
            for (size_t i = len = 0; i < h - 2; ++i)
                len = len << 8 | p[2 + i];
            if (len < 128) return -1;
        }
        if (len > n - h || ((p[0] & 0x20) && walk(p + h, len) < 0)) return -1;
    }
    return count;
}

/* Encodes into a block of exactly the computed size (AddressSanitizer sees one octet
 * too many) and checks it holds one BER SEQUENCE (an octet left unwritten keeps the fake
 * allocator's fill and breaks it). */
template <typename Write>
static Bytes encode(uint32_t n, Write write)
{
    if (n == 0) return ADD_FAILURE() << "length 0", Bytes{};
    auto *buf = static_cast<uint8_t *>(cmp_ldap_malloc("test", n));
    write(buf);
    Bytes out(buf, buf + n);
    free_block(buf);
    EXPECT_EQ(out[0], 0x30);
    EXPECT_EQ(walk(out.data(), n), 1) << to_hex(out).substr(0, 150);
    return out;
}

static Bytes bind(int32_t id, const std::string &dn, const std::string &pw)
{
    CMP_LDAP ld{id};
    const char *d = dn.c_str(), *p = pw.c_str();
    return encode(cmp_ldap_get_bind_request_message_length(&ld, d, p),
                  [&](uint8_t *b) { cmp_ldap_ber_encode_bind_request(&ld, d, p, b); });
}

static Bytes sasl(int32_t id, const std::string &mech, const Bytes &octets)
{
    CMP_LDAP ld{id};
    std::vector<uint32_t> store(2 + octets.size() / 4); /* count, then the octets */
    auto *cred = reinterpret_cast<CMP_LDAP_SASL_CRED *>(store.data());
    cred->total_size = (uint32_t)octets.size();
    std::copy(octets.begin(), octets.end(), cred->data);
    const char *m = mech.c_str();
    return encode(cmp_ldap_get_sasl_bind_request_message_length(&ld, m, cred),
                  [&](uint8_t *b) { cmp_ldap_ber_encode_sasl_bind_request(&ld, m, cred, b); });
}

static Bytes starttls(int32_t id)
{
    CMP_LDAP ld{id};
    return encode(cmp_ldap_get_extend_request_message_length(&ld),
                  [&](uint8_t *b) { cmp_ldap_ber_encode_extend_request(&ld, b); });
}

const Filter kEq{1, 0, {{3, "cn", "abc"}}};
static char kCn[] = "cn", kMail[] = "mail";

struct Search { /* defaults: the worked example */
    CMP_LDAP ld{1};
    const char *base = "dc=example";
    uint32_t scope = 2, types_only = 0;
    const Filter *filter = &kEq;
    const Present *present = nullptr;
    std::vector<char *> attrs = {kCn, kMail, nullptr};
};

static Bytes search(const std::function<void(Search &)> &set)
{
    Search s;
    set(s);
    char **a = s.attrs.data();
    return encode(cmp_ldap_get_search_request_message_length(&s.ld, s.base, s.filter, s.present, a),
                  [&](uint8_t *b) {
                      cmp_ldap_ber_encode_search_request(&s.ld, s.base, s.scope, s.filter,
                                                         s.present, a, s.types_only, b);
                  });
}

class Encode : public FakePortTest {};

/* Worked PDUs whole, and elements that must occur inside a PDU as given. */
TEST_F(Encode, Octets)
{
    static const Filter ab{1, 0, {{1, "cn", "ab"}}}, any{1, 0, {{0, "cn", "ab"}}};
    static const Filter fin{1, 0, {{2, "cn", "ab"}}};
    static const Filter two_or{2, 1, {{3, "cn", "abc"}, {3, "sn", "x"}}};
    static Filter v120{1, 0, {{1, "cn"}}}, v126{1, 0, {{1, "cn"}}};
    memset(v120.cmp_ldap_items[0].cmp_ldap_value, 'v', 120);
    memset(v126.cmp_ldap_items[0].cmp_ldap_value, 'v', 126);
    static const Present mail_cn{2, 0, {"mail", "cn"}}, mail_or{1, 1, {"mail"}};
    const std::string eq2 = " A3 09 04 02 63 6E 04 03 61 62 63 A3 07 04 02 73 6E 04 01 78";
    const std::pair<Bytes, std::string> rows[] = {
        /* a PDU, and octets it holds */
        {bind(1, "cn=a", "xyz"), "30 13 02 01 01 60 0E 02 01 03 04 04 63 6E 3D 61 80 03 78 79 7A"},
        {bind(1, "", ""), "30 0C 02 01 01 60 07 02 01 03 04 00 80 00"},
        {sasl(2, "GSSAPI", {}),
         "30 14 02 01 02 60 0F 02 01 03 04 00 A3 08 04 06 47 53 53 41 50 49"},
        {sasl(2, "GSSAPI", {1, 2, 3}),
         "30 19 02 01 02 60 14 02 01 03 04 00 A3 0D 04 06 47 53 53 41 50 49 04 03 01 02 03"},
        {sasl(1, "M", {0}), "30 12 02 01 01 60 0D 02 01 03 04 00 A3 06 04 01 4D 04 01 00"},
        {search([](Search &) {}),
         "30 39 02 01 01 63 34 04 0A 64 63 3D 65 78 61 6D 70 6C 65 0A 01 02 0A 01 00 02 01 00 02 "
         "01 00 01 01 00 A0 0B A3 09 04 02 63 6E 04 03 61 62 63 30 0A 04 02 63 6E 04 04 6D 61 69 "
         "6C"},
        {search([](Search &s) { s.filter = &ab; }), "A0 0C A4 0A 04 02 63 6E 30 04 80 02 61 62 30"},
        {starttls(1),
         "30 1D 02 01 01 77 18 80 16 31 2E 33 2E 36 2E 31 2E 34 2E 31 2E 31 34 36 36 2E "
         "32 30 30 33 37"},
        {starttls(128), "30 1E 02 02 00 80 77 18 80 16 31 2E"},
        {starttls(127), "30 1D 02 01 7F 77"},
        {starttls(255), "30 1E 02 02 00 FF 77"},
        {starttls(256), "30 1E 02 02 01 00 77"},
        {starttls(32768), "30 1F 02 03 00 80 00 77"},
        {starttls(65535), "30 1F 02 03 00 FF FF 77"},
        {search([](Search &s) { s.filter = nullptr; }), "87 0B 6F 62 6A 65 63 74 43 6C 61 73 73"},
        {search([](Search &s) { s.filter = nullptr, s.present = &mail_cn; }),
         "A0 0A 87 04 6D 61 69 6C 87 02 63 6E"},
        {search([](Search &s) { s.filter = &two_or; }), "A1 14" + eq2},
        {search([](Search &s) { s.filter = &two_or, s.present = &mail_or; }),
         "A0 1E A1 14" + eq2 + " A1 06 87 04 6D 61 69 6C"},
        {search([](Search &s) { s.filter = &any; }), "A4 0A 04 02 63 6E 30 04 81 02 61 62"},
        {search([](Search &s) { s.filter = &fin; }), "A4 0A 04 02 63 6E 30 04 82 02 61 62"},
        {search([](Search &s) { s.filter = &v120; }), "30 7A 80 78 76"},
        {search([](Search &s) { s.filter = &v126; }), "30 81 80 80 7E 76"},
        /* sizeLimit goes before timeLimit although the handle holds them the other way */
        {search([](Search &s) { s.ld.ld_sizelimit = 1000; }), "02 02 03 E8 02 01 00 01 01 00"},
        {search([](Search &s) { s.ld.ld_timelimit = 200; }), "02 01 00 02 02 00 C8 01 01 00"},
        /* a negative limit takes five octets; deliberate, and the search rejects it */
        {search([](Search &s) { s.ld.ld_sizelimit = -1; }), "02 05 FF FF FF FF FF 02 01 00"},
        {search([](Search &s) { s.scope = 1, s.ld.ld_deref = 3, s.types_only = 1; }),
         "0A 01 01 0A 01 03 02 01 00 02 01 00 01 01 FF"},
        {search([](Search &s) { s.attrs = {nullptr}; }), "04 03 61 62 63 30 00"},
    };
    for (const auto &[pdu, want] : rows) {
        Bytes w = hex(want);
        EXPECT_NE(std::search(pdu.begin(), pdu.end(), w.begin(), w.end()), pdu.end())
            << want << " not in " << to_hex(pdu).substr(0, 300);
    }
}

/* Every request kind with each string across the length-form boundaries, under
 * message ids at the INTEGER boundaries. */
TEST_F(Encode, LengthMatchesOctetsWritten)
{
    for (size_t b : {128, 256, 65536})
        for (size_t len = b - 90; len <= b + 2; ++len)
            for (int32_t id : {0, 1, 127, 128, 32767, 32768, 65535})
                for (bool swap : {false, true}) { /* one long string, one short */
                    std::string s(len, 'x'), t(len % 7, 'y'), a = swap ? t : s, c = swap ? s : t;
                    bind(id, a, c);
                    sasl(id, a, Bytes(c.begin(), c.end()));
                    Filter f{1, 1, {{uint32_t(len % 4), "cn"}}};
                    Present p{1, 0};
                    strcpy(f.cmp_ldap_items[0].cmp_ldap_value, (len > 384 ? t : a).c_str());
                    strcpy(p.attr[0], (len > 384 ? t : c).c_str());
                    search([&](Search &q) {
                        q.ld = {id, 0, 65535 - id, id}; /* limits cross the INTEGER sizes too */
                        q.base = a.c_str();
                        q.filter = &f;
                        q.present = &p;
                        q.attrs = {kCn, &c[0], nullptr};
                    });
                }
}

/* 0 means "cannot encode": a content length reaching 2^24. */
TEST_F(Encode, LengthZeroWhenTooLarge)
{
    CMP_LDAP ld{1};
    std::string dn(0xFFFFFF - 18, 'd'); /* outer content = dn + 18 with id 1, empty password */
    EXPECT_EQ(cmp_ldap_get_bind_request_message_length(&ld, dn.c_str(), ""), 0x1000004u);
    EXPECT_EQ(cmp_ldap_get_bind_request_message_length(&ld, (dn + "d").c_str(), ""), 0u);
}
