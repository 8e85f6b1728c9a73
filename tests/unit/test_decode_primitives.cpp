/* BER decoding primitives and message navigation, read in place from a received PDU. */
#include <functional>
#include <tuple>

#include "cmp_ldap_internal.h"
#include "support.h"

using namespace support;
using M = const CMP_LDAP_MESSAGE *;
template <class... T>
using Table = std::vector<std::tuple<T...>>;

namespace {

constexpr uint32_t kFail = 0xFFFFFFFFu;

/* Held tight (the block ends at the PDU, so ASan sees any read past it) or as received. */
struct Msg {
    CMP_LDAP_MESSAGE *m;
    explicit Msg(const Bytes &pdu, bool tight = true)
        : m(tight ? make_tight_message(pdu) : make_message(pdu))
    {
    }
    ~Msg() { free_block(m); }
    operator M() const { return m; }
};

/* A message id 1 whose protocolOp [APPLICATION 4] holds these octets. */
const auto op = [](const char *c) { return tlv(0x30, hex("02 01 01") + tlv(0x64, hex(c))); };

/* Entry id 2 "cn=Bob,o=x": cn {Bob, Robert}, objectClass {top, person}, mail {bob@x}.
 * Attribute list at 19, attributes at 21, 42, 72; their value SETs at 27, 57, 80. */
const Bytes kEntry =
    hex("30 57 02 01 02 64 52 04 0A 63 6E 3D 42 6F 62 2C 6F 3D 78 30 44"
        " 30 13 04 02 63 6E 31 0D 04 03 42 6F 62 04 06 52 6F 62 65 72 74"
        " 30 1C 04 0B 6F 62 6A 65 63 74 43 6C 61 73 73 31 0D 04 03 74 6F 70 04 06 70 65 72 73 6F 6E"
        " 30 0F 04 04 6D 61 69 6C 31 07 04 05 62 6F 62 40 78");
const Bytes kDone = hex("30 11 02 01 03 65 0C 0A 01 20 04 03 6F 3D 78 04 02 6E 6F"); /* "o=x" */
const Bytes kReference = /* id 4: two URLs */
    tlv(0x30, hex("02 01 04") + tlv(0x73, octets("ldap://a.example/o=x") + octets("ldap://b/o=x")));

/* One expected log line: "cmp_ldap_ber_" fn "(): " text ".\n", the text with up to two numbers. */
std::string ln(const char *fn, const char *fmt, long a = 0, long b = 0)
{
    char text[200];
    snprintf(text, sizeof text, fmt, a, b);
    return std::string("cmp_ldap_ber_") + fn + "(): " + text + ".\n";
}
const char *const kPos = "Illegal position (pos=%ld,mes->cmp_ldap_total_size=%ld)";
const char *const kPosCl = "Illegal position (pos=%ld,mes->total_size=%ld)"; /* sic */
const char *const kNext = "decode error (lenLen=%ld,contentLen=%ld)";
const auto tag_at = [](long p, long n) { return ln("get_tag", kPos, p, n); };
const auto ll_at = [](long p, long n) { return ln("get_length_length", kPos, p, n); };
const auto cl_at = [](long p, long n) { return ln("get_content_length", kPosCl, p, n); };
const auto next_err = [](long l, long c) { return ln("get_next", kNext, l, c); };
const auto at_end = [](long p, long n) { return ll_at(p, n) + cl_at(p, n) + next_err(-1, -1); };
const std::string kNoContent = ln("get_content", "decode error");
const std::string kNumLength = ln("decode_number", "Illegal length");
const char *const kType = "It's not correct type (tag.type = %ld)";

}  // namespace

class Decode : public support::FakePortTest {};

TEST_F(Decode, TagsAndLengths)
{
    auto no_len = [](int p, int n) { return cl_at(p, n) + ll_at(p, n) + ll_at(p, n) + kNoContent; };
    const Table<const char *, int32_t, int, uint32_t, uint32_t, uint32_t, std::string> rows = {
        {"04", 0, 4, kFail, kFail, kFail, no_len(0, 1)}, /* no room for a length octet */
        {"04", 1, 255, kFail, kFail, kFail, tag_at(1, 1) + no_len(1, 1)},
        {"04 80 00", 0, 4, 0, 1, 2, ""}, /* indefinite reads as empty, deliberately */
        {"04 84 12 34 56 78", 0, 4, 0x12345678, 5, 6, ""}, /* the decoders check the size */
        {"04 85", 0, 4, kFail, 6, 7, ln("get_content_length", "Length > 32bits.fieldLen=0x05")},
        {"04 84 00 00", 0, 4, kFail, 5, 6, cl_at(5, 4)}, /* length octets cut off */
        {"04 81 90", 0, 4, 0x90, 2, 3, ""},
    };
    for (const auto &[pdu, pos, tag, clen, llen, content, log] : rows) {
        SCOPED_TRACE(std::string(pdu) + " at " + std::to_string(pos));
        Msg msg(hex(pdu));
        EXPECT_EQ(cmp_ldap_ber_get_tag(msg, pos), tag);
        EXPECT_EQ(cmp_ldap_ber_get_content_length(msg, pos), clen);
        EXPECT_EQ(cmp_ldap_ber_get_length_length(msg, pos), llen);
        EXPECT_EQ(cmp_ldap_ber_get_content(msg, pos), content);
        EXPECT_EQ(take_log(), log);
    }
}

/* The three string decoders agree (log: of one); failures allocate nothing, null the output. */
TEST_F(Decode, Strings)
{
    auto stub = [](const char *fmt, long a) { return ln("decode_string_stub", fmt, a); };
    const Table<const char *, uint32_t, const char *, std::string> rows = {
        {"04 02 61 62", 4, "ab", ""}, /* a string may end the PDU */
        {"64 02 61 62", 4, "ab", ""}, /* only the tag number counts, deliberately */
        {"84 02 FF 0A", 4, "\xFF\n", ""},
        {"04 00", 2, "", ""},
        {"02 02 61 62", kFail, nullptr, stub(kType, 2)},
        {"04 04 61 62 63", kFail, nullptr, stub("Illegal length (content size=%ld)", 6)},
        /* 6 + 0xFFFFFFFA wraps in the log only */
        {"04 84 FF FF FF FA 61 62", kFail, nullptr, stub("Illegal length (content size=%ld)", 0)},
    };
    for (const auto &[pdu, end, text, log] : rows) {
        SCOPED_TRACE(pdu);
        Msg msg(hex(pdu));
        fake::arm_alloc_failure(0); /* count from here */
        char *s = reinterpret_cast<char *>(1), buf[CMP_LDAP_TEXT_SIZE];
        CMP_LDAP_BERVAL *bv = reinterpret_cast<CMP_LDAP_BERVAL *>(1);
        EXPECT_EQ(cmp_ldap_ber_decode_string(msg, 0, &s), end);
        EXPECT_EQ(cmp_ldap_ber_decode_string_len(msg, 0, &bv), end);
        EXPECT_EQ(cmp_ldap_ber_decode_string_to(msg, 0, buf, sizeof buf), end);
        EXPECT_EQ(take_log(), log + log + log);
        if (text == nullptr) {
            EXPECT_EQ(s, nullptr);
            EXPECT_EQ(bv, nullptr);
            EXPECT_EQ(fake::allocs_since_arm(), 0);
            continue;
        }
        ASSERT_NE(s, nullptr);
        ASSERT_NE(bv, nullptr);
        const uint32_t n = (uint32_t)strlen(text);
        const std::vector<uint32_t> sizes = fake::alloc_sizes(); /* with a NUL; a count, no NUL */
        ASSERT_EQ(fake::allocs_since_arm(), 2);
        EXPECT_EQ(std::vector<uint32_t>(sizes.end() - 2, sizes.end()),
                  (std::vector<uint32_t>{n + 1, n + 4}));
        EXPECT_STREQ(s, text);
        EXPECT_STREQ(buf, text);
        EXPECT_EQ(Bytes(bv->data, bv->data + bv->total_size), Bytes(text, text + n));
        free_block(s);
        free_block(bv);
    }
    char buf[CMP_LDAP_TEXT_SIZE], *s = buf; /* the size counts the NUL */
    CMP_LDAP_BERVAL *bv = reinterpret_cast<CMP_LDAP_BERVAL *>(buf);
    Msg fits(octets(std::string(384, 'x'))), over(octets(std::string(385, 'x')));
    EXPECT_EQ(cmp_ldap_ber_decode_string_to(fits, 0, buf, sizeof buf), 388u);
    EXPECT_EQ(cmp_ldap_ber_decode_string_to(over, 0, buf, sizeof buf), kFail);
    fake::arm_alloc_failure(1, true); /* every allocation fails from here */
    EXPECT_EQ(cmp_ldap_ber_decode_string(fits, 0, &s), kFail);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(cmp_ldap_ber_decode_string_len(fits, 0, &bv), kFail);
    EXPECT_EQ(bv, nullptr);
    EXPECT_EQ(take_log(),
              ln("decode_string_to", "String excess max length (contentLen=385,max=385)") +
                  ln("decode_string", "Failed to allocate(385 btyes)") +
                  ln("decode_string_len", "Failed to allocate(388 btyes)"));
}

/* The envelope. Its id is an INTEGER: octets folded without sign or limit, and never the last
 * element of a PDU (a string may be). The record is written on success only. */
TEST_F(Decode, Envelope)
{
    auto line = [](const char *fmt, long a = 0) { return ln("decode_ldap_message", fmt, a); };
    const Table<const char *, int32_t, int32_t, int32_t, std::string> rows = {
        {"30 06 02 02 01 00 64 00", 6, 256, 4, ""},
        {"30 06 02 02 00 80 61 00", 6, 128, 1, ""},
        {"30 06 02 02 FF FF 61 00", 6, 65535, 1, ""},
        {"30 09 02 05 01 02 03 04 05 61 00", 9, 0x02030405, 1, ""},
        {"10 05 02 01 01 61 00", 5, 1, 1, ""}, /* tag number 16 in any class or form */
        {"70 05 02 01 01 61 00", 5, 1, 1, ""},
        {"04 00", -1, -9, -9, line("First element is not SEQUENCE ? (tag.type = %ld)", 4)},
        {"30", -1, -9, -9, ll_at(0, 1) + kNoContent + line("Failed to retrieve SEQUENCE content")},
        {"30 03 0A 01 01 64 00", -1, -9, -9, ln("decode_number", kType, 10)}, /* no own line */
        {"30 03 02 01 01", -1, -9, -9, kNumLength},
        {"30 0A 02 84 FF FF FF FA 01 02 03 04", -1, -9, -9, kNumLength}, /* 8 + it wraps to 2 */
        {"30 06 02 01 01 A4 01 61", -1, -9, -9,
         line("Failed to retrieve APPLICATION tag (tag.type = %ld)", 4)},
    };
    for (const auto &[pdu, pos, msgid, application, log] : rows) {
        Msg msg(hex(pdu));
        CMP_LDAP_MESSAGE_REC rec{-9, -9, -9};
        EXPECT_EQ(cmp_ldap_ber_decode_ldap_message(msg, &rec), pos) << pdu;
        EXPECT_EQ(rec.msgid, msgid) << pdu;
        EXPECT_EQ(rec.application, application) << pdu;
        EXPECT_EQ(rec.pos, pos == -1 ? -9 : pos) << pdu;
        EXPECT_EQ(take_log(), log) << pdu;
    }
    uint32_t v = 7; /* ENUMERATED, by its own tag, alike */
    Msg fits(hex("0A 02 00 80 05")), last(hex("0A 01 05")), integer(hex("02 01 05 00"));
    EXPECT_EQ(cmp_ldap_ber_decode_enum(fits, 0, &v), 4u);
    EXPECT_EQ(v, 128u);
    EXPECT_EQ(cmp_ldap_ber_decode_enum(last, 0, &v), kFail);
    EXPECT_EQ(cmp_ldap_ber_decode_enum(integer, 0, &v), kFail);
    EXPECT_EQ(take_log(), kNumLength + ln("decode_number", kType, 2));
}

/* The next position is not checked against the size but never wraps back into the PDU. log: of
 * a failing get_next (count_members repeats it), else of the count. */
TEST_F(Decode, NextAndCount)
{
    const std::string no_step = ln("count_members", "Cannot get next attributes value pos");
    const std::string no_end = ln("count_members", "Cannot get value end pos");
    const Table<Bytes, int32_t, int32_t, int32_t, std::string> rows = {
        {kEntry, 19, 89, 3, ""},
        {hex("31 00"), 0, 2, 0, ""},
        {hex("31 04 04 01 61 04 05 62 62 62 62 62"), 0, 6, 2, ""}, /* an overrun still counts */
        {hex("30 10 02 01 01"), 0, 18, -1, at_end(5, 5) + no_step},
        {op("04 01 61 04 84 FF FF FF F0 00 00"), 10, -1, -1, next_err(5, -16)}, /* 10+6+it: 2^32 */
        {hex("31 84 7F FF FF F0 04 01 61"), 0, 0x7FFFFFF6, -1, at_end(9, 9) + no_step},
        {hex("31 84 7F FF FF F9 04 01 61"), 0, INT32_MAX, -1, at_end(9, 9) + no_step},
        {hex("31 84 7F FF FF FA 04 01 61"), 0, -1, -1, next_err(5, 0x7FFFFFFA)}, /* 2^31 */
    };
    for (const auto &[pdu, pos, next, count, log] : rows) {
        SCOPED_TRACE(to_hex(pdu) + " at " + std::to_string(pos));
        Msg msg(pdu);
        EXPECT_EQ(cmp_ldap_ber_get_next(msg, pos), next);
        EXPECT_EQ(cmp_ldap_ber_count_members(msg, pos), count);
        EXPECT_EQ(take_log(), next == -1 ? log + log + no_end : log);
    }
}

/* Lookups, and the search for the attribute list under them. value: the first value found. A
 * missing name steps once past the list and fails on what follows; deliberate. */
TEST_F(Decode, Lookup)
{
    auto list = [](const char *text) { return ln("get_attr_pos_of_search_entry", text); };
    auto look = [](const char *text) { return ln("lookup_attribute_on_search_entry", text); };
    const std::string types[] = {"zZ", "cn;binary",           "cname", "",
                                 "Cn", std::string(385, 't'), "mail"};
    Bytes attrs; /* attribute i holds the value "i" */
    for (int i = 0; i < 7; ++i)
        attrs = attrs + tlv(0x30, octets(types[i]) + tlv(0x31, octets(std::to_string(i))));
    const Bytes odd = tlv(0x30, hex("02 01 07") + tlv(0x64, octets("o=x") + tlv(0x30, attrs)));
    const Table<Bytes, const char *, const char *, std::string> rows = {
        {kEntry, "CN", "Bob", ""},
        {kEntry, "absent", "-1",
         ll_at(89, 89) + kNoContent +
             ln("decode_attr_name_of_attribute", "Failed to get first attributes")},
        {odd, "cn", "4", ""}, /* neither cn;binary nor cname */
        {odd, "", "3", ""},
        {odd, "Zz", "0", ""}, /* z folds too */
        {odd, "mail", "-1",
         ln("decode_string_to", "String excess max length (contentLen=385,max=385)")},
        {kDone, "cn", "-1", list("It's not LDAP_RES_SEARCH_ENTRY (application=5)")},
        {hex("04 00"), "a", "-1",
         ln("decode_ldap_message", "First element is not SEQUENCE ? (tag.type = %ld)", 4)},
        /* the scan ends once a type reaches the list's end or the message's */
        {op("04 00 30 05 30 03 04 01 61 04 00"), "b", "-1", ""},
        {op("04 00 30 07 30 03 04 01 61"), "b", "-1", ""},
        {hex("30 04 02 01 01 64"), "a", "-1",
         ll_at(5, 6) + kNoContent + list("Failed to retrieve [APPLICATION 4] conten")},
        {op("02 00"), "a", "-1", list("Unexpected data type (tag.type = 2)")},
        {op("04"), "a", "-1", at_end(7, 8) + list("Failed to skip LDAPDN field")},
        {op("04 00 10 00"), "", "-1", list("Unexpected format (tag.type = 16)")},
        {op("04 00 30 84 FF FF FF F8 30 00"), "", "-1",
         next_err(5, -8) + look("Cannot get next attributes pos")},
        {op("04 00 30 0E 30 84 FF FF FF F0 04 01 61 31 03 04 01 7A"), "b", "-1",
         next_err(5, -16) + look("Failed to get next position")},
        {op("04 00 30 0A 30 08 04 84 FF FF FF F4 31 00"), "a", "-1",
         ln("decode_string_stub", "Illegal length (content size=7)")},
    };
    for (const auto &[pdu, name, value, log] : rows) {
        Msg msg(pdu);
        const int32_t set = cmp_ldap_ber_lookup_attribute_on_search_entry(msg, name);
        EXPECT_EQ(take_log(), log) << name << " in " << to_hex(pdu);
        char got[8] = "-1";
        if (set != -1 && cmp_ldap_ber_decode_string_to(msg, set + 2, got, 8) == kFail) got[0] = '?';
        EXPECT_STREQ(got, value) << name;
    }
    EXPECT_TRUE(fake::freed_null_seen()); /* the early exits release the absent buffer */
    EXPECT_EQ(cmp_ldap_ber_get_attr_pos_of_search_entry(Msg(kEntry)), 19);
    fake::arm_alloc_failure(2); /* the first is the message's */
    EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(Msg(kEntry), "cn"), -1);
    EXPECT_EQ(take_log(), look("Failed to allocate(385 btyes)"));
}

/* Every prefix of three responses, held both ways: a result is the whole PDU's if all it reads
 * lies in the prefix (a number: and an octet after), else a failure; rows marked -1: either. */
TEST_F(Decode, EveryTruncatedPrefix)
{
    char buf[CMP_LDAP_TEXT_SIZE];
    uint32_t v;
    const Table<std::function<uint32_t(M, int32_t)>, int> calls = {
        {[](M m, int32_t p) { return cmp_ldap_ber_get_tag(m, p) == 255 ? kFail : p + 1u; }, 0},
        {[&](M m, int32_t p) { return cmp_ldap_ber_decode_string_to(m, p, buf, sizeof buf); }, 0},
        {[&](M m, int32_t p) { return cmp_ldap_ber_decode_integer(m, p, &v); }, 1},
        {[&](M m, int32_t p) { return cmp_ldap_ber_decode_enum(m, p, &v); }, 1},
        {cmp_ldap_ber_get_content, -1},
        {[](M m, int32_t p) { return (uint32_t)cmp_ldap_ber_get_next(m, p); }, -1},
        {[](M m, int32_t p) { return (uint32_t)cmp_ldap_ber_count_members(m, p); }, -1},
    };
    for (const Bytes *pdu : {&kEntry, &kDone, &kReference}) {
        Msg full(*pdu);
        for (uint32_t n = 0; n < pdu->size(); ++n)
            for (bool tight : {false, true}) {
                SCOPED_TRACE(std::to_string(n) + (tight ? " tight" : " +400"));
                Msg cut(Bytes(pdu->begin(), pdu->begin() + n), tight);
                for (int32_t p = -1; p <= (int32_t)pdu->size(); ++p)
                    for (const auto &[call, after] : calls) {
                        const uint32_t f = call(full, p), got = call(cut, p);
                        if (after < 0)
                            EXPECT_TRUE(got == f || got == kFail) << p;
                        else
                            EXPECT_EQ(got, f != kFail && f + after <= n ? f : kFail) << p;
                    }
                for (const char *name : {"cn", "objectClass", "mail", "absent"}) {
                    const int32_t f = cmp_ldap_ber_lookup_attribute_on_search_entry(full, name);
                    EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(cut, name),
                              f <= (int32_t)n ? f : -1);
                }
                fake::clear_log();
            }
    }
}
