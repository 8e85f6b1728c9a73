/* Message navigation: envelope, stepping, counting, the attribute list of an
 * entry and the attribute lookup; plus every truncated prefix of real responses. */
#include "cmp_ldap_internal.h"
#include "support.h"

using support::Bytes;
using support::FakePortTest;
using support::hex;
using Lines = std::vector<std::string>;

namespace {

constexpr uint32_t kFail = 0xFFFFFFFFu;

struct Msg {
    CMP_LDAP_MESSAGE *m;
    explicit Msg(const Bytes &pdu, bool tight = false)
        : m(tight ? support::make_tight_message(pdu) : support::make_message(pdu))
    {
    }
    ~Msg() { support::free_block(m); }
    operator const CMP_LDAP_MESSAGE *() const { return m; }
};

/* SearchResultEntry, id 2, "cn=Bob,o=x": cn {Bob, Robert}, objectClass {top,
 * person}, mail {bob@x}. Attribute list at 19; value SETs at 27, 57, 80. */
const Bytes kEntry =
    hex("30 57 02 01 02 64 52 04 0A 63 6E 3D 42 6F 62 2C 6F 3D 78 30 44"
        " 30 13 04 02 63 6E 31 0D 04 03 42 6F 62 04 06 52 6F 62 65 72 74"
        " 30 1C 04 0B 6F 62 6A 65 63 74 43 6C 61 73 73 31 0D 04 03 74 6F 70 04 06 70 65 72 73 6F 6E"
        " 30 0F 04 04 6D 61 69 6C 31 07 04 05 62 6F 62 40 78");

/* SearchResultDone, id 3, noSuchObject, matchedDN "o=x", text "no such entry". */
const Bytes kDone = hex(
    "30 1C 02 01 03 65 17 0A 01 20 04 03 6F 3D 78 04 0D 6E 6F 20 73 75 63 68 20 65 6E 74 72 79");

/* SearchResultReference, id 4, two URLs. */
const Bytes kReference =
    hex("30 31 02 01 04 73 2C 04 14 6C 64 61 70 3A 2F 2F 61 2E 65 78 61 6D 70 6C 65 2F 6F 3D 78"
        " 04 14 6C 64 61 70 3A 2F 2F 62 2E 65 78 61 6D 70 6C 65 2F 6F 3D 78");

/* Tiny BER builder for the generated vectors. */
Bytes tlv(uint8_t tag, const Bytes &content)
{
    Bytes out{tag};
    size_t n = content.size();
    if (n < 0x80) {
        out.push_back((uint8_t)n);
    } else if (n < 0x100) {
        out.insert(out.end(), {0x81, (uint8_t)n});
    } else {
        out.insert(out.end(), {0x82, (uint8_t)(n >> 8), (uint8_t)n});
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}
Bytes str(const std::string &s, uint8_t tag = 0x04)
{
    return tlv(tag, Bytes(s.begin(), s.end()));
}
Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes attribute(const std::string &type, std::initializer_list<std::string> values)
{
    Bytes set;
    for (const auto &v : values)
        set = cat({set, str(v)});
    return tlv(0x30, cat({str(type), tlv(0x31, set)}));
}
Bytes entry(std::initializer_list<Bytes> attributes, uint8_t list_tag = 0x30)
{
    Bytes list;
    for (const auto &a : attributes)
        list = cat({list, a});
    return tlv(0x30, cat({hex("02 01 07"), tlv(0x64, cat({str("o=x"), tlv(list_tag, list)}))}));
}

}  // namespace

class DecodeNavigation : public FakePortTest {};

TEST_F(DecodeNavigation, EnvelopeOfEachResponse)
{
    struct Case {
        const Bytes *pdu;
        int32_t msgid, application, pos;
    } cases[] = {{&kEntry, 2, 4, 5}, {&kDone, 3, 5, 5}, {&kReference, 4, 19, 5}};
    for (const auto &c : cases) {
        Msg msg(*c.pdu, true);
        CMP_LDAP_MESSAGE_REC rec{-9, -9, -9};
        EXPECT_EQ(cmp_ldap_ber_decode_ldap_message(msg, &rec), c.pos);
        EXPECT_EQ(rec.msgid, c.msgid);
        EXPECT_EQ(rec.application, c.application);
        EXPECT_EQ(rec.pos, c.pos);
    }
    /* Tag number 16 in any class or form passes as the SEQUENCE. */
    for (uint8_t first : {0x10, 0x70, 0xB0}) {
        Bytes pdu = kDone;
        pdu[0] = first;
        Msg msg(pdu);
        CMP_LDAP_MESSAGE_REC rec{};
        EXPECT_EQ(cmp_ldap_ber_decode_ldap_message(msg, &rec), 5) << (int)first;
    }
    /* A large message id, in four octets. */
    Msg big(hex("30 0A 02 04 00 01 00 00 42 00 04 00"));
    CMP_LDAP_MESSAGE_REC rec{};
    EXPECT_EQ(cmp_ldap_ber_decode_ldap_message(big, &rec), 8);
    EXPECT_EQ(rec.msgid, 65536);
    EXPECT_EQ(rec.application, 2);
    EXPECT_TRUE(lines().empty());
}

TEST_F(DecodeNavigation, EnvelopeFailures)
{
    struct Case {
        const char *pdu;
        Lines lines;
    } cases[] = {
        {"04 00",
         {"cmp_ldap_ber_decode_ldap_message(): First element is not SEQUENCE ? (tag.type = 4).\n"}},
        {"",
         {"cmp_ldap_ber_get_tag(): Illegal position (pos=0,mes->cmp_ldap_total_size=0).\n",
          "cmp_ldap_ber_decode_ldap_message(): First element is not SEQUENCE ? (tag.type = "
          "31).\n"}},
        {"30",
         {"cmp_ldap_ber_get_length_length(): Illegal position "
          "(pos=0,mes->cmp_ldap_total_size=1).\n",
          "cmp_ldap_ber_get_content(): decode error.\n",
          "cmp_ldap_ber_decode_ldap_message(): Failed to retrieve SEQUENCE content.\n"}},
        {"30 03 0A 01 01 64 00", /* ENUMERATED where the id belongs: no line of its own */
         {"cmp_ldap_ber_decode_number(): It's not correct type (tag.type = 10).\n"}},
        {"30 06 02 01 01 04 01 61",
         {"cmp_ldap_ber_decode_ldap_message(): Failed to retrieve APPLICATION tag (tag.type = "
          "4).\n"}},
        {"30 06 02 01 01 A3 01 61",
         {"cmp_ldap_ber_decode_ldap_message(): Failed to retrieve APPLICATION tag (tag.type = "
          "3).\n"}},
        {"30 03 02 01 01 FF", /* 255 reads as a failed tag */
         {"cmp_ldap_ber_decode_ldap_message(): Failed to retrieve APPLICATION tag (tag.type = "
          "31).\n"}},
        {"30 03 02 01 01 00",
         {"cmp_ldap_ber_decode_ldap_message(): Failed to retrieve APPLICATION tag (tag.type = "
          "0).\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.pdu);
        fake::clear_log();
        Msg msg(hex(c.pdu), true);
        CMP_LDAP_MESSAGE_REC rec{-9, -9, -9};
        EXPECT_EQ(cmp_ldap_ber_decode_ldap_message(msg, &rec), -1);
        EXPECT_EQ(lines(), c.lines);
        EXPECT_EQ(rec.msgid, -9); /* written on success only */
        EXPECT_EQ(rec.application, -9);
        EXPECT_EQ(rec.pos, -9);
        for (const auto &l : fake::log())
            EXPECT_EQ(l.rc, -1);
    }
    /* An id that is the last element cannot be followed by a protocolOp. */
    fake::clear_log();
    Msg msg(hex("30 03 02 01 01"), true);
    CMP_LDAP_MESSAGE_REC rec{};
    EXPECT_EQ(cmp_ldap_ber_decode_ldap_message(msg, &rec), -1);
    EXPECT_EQ(lines(), Lines{"cmp_ldap_ber_decode_number(): Illegal length.\n"});
}

TEST_F(DecodeNavigation, GetNextChainsAlongMembers)
{
    Msg msg(kEntry, true);
    EXPECT_EQ(cmp_ldap_ber_get_next(msg, 0), 89);
    EXPECT_EQ(cmp_ldap_ber_get_next(msg, 2), 5);
    EXPECT_EQ(cmp_ldap_ber_get_next(msg, 5), 89);
    EXPECT_EQ(cmp_ldap_ber_get_next(msg, 7), 19);
    EXPECT_EQ(cmp_ldap_ber_get_next(msg, 21), 42);
    EXPECT_EQ(cmp_ldap_ber_get_next(msg, 42), 72);
    EXPECT_EQ(cmp_ldap_ber_get_next(msg, 72), 89);
    EXPECT_TRUE(lines().empty());

    /* The result is not checked against the size; the next read reports that. */
    Msg over(hex("30 10 02 01 01"));
    EXPECT_EQ(cmp_ldap_ber_get_next(over, 0), 18);

    EXPECT_EQ(cmp_ldap_ber_get_next(msg, 88), -1);
    EXPECT_EQ(lines(),
              (Lines{"cmp_ldap_ber_get_length_length(): Illegal position "
                     "(pos=88,mes->cmp_ldap_total_size=89).\n",
                     "cmp_ldap_ber_get_content_length(): Illegal position "
                     "(pos=88,mes->total_size=89).\n",
                     "cmp_ldap_ber_get_next(): decode error (lenLen=-1,contentLen=-1).\n"}));
    fake::clear_log();
    Msg wide(hex("30 85 00 00 00 00 00"));
    EXPECT_EQ(cmp_ldap_ber_get_next(wide, 0), -1);
    EXPECT_EQ(lines(),
              (Lines{"cmp_ldap_ber_get_content_length(): Length > 32bits.fieldLen=0x05.\n",
                     "cmp_ldap_ber_get_next(): decode error (lenLen=6,contentLen=-1).\n"}));
    EXPECT_EQ(fake::log().back().rc, -1);
}

TEST_F(DecodeNavigation, CountMembers)
{
    Msg msg(kEntry, true);
    EXPECT_EQ(cmp_ldap_ber_count_members(msg, 0), 2);  /* id, protocolOp */
    EXPECT_EQ(cmp_ldap_ber_count_members(msg, 5), 2);  /* DN, attributes */
    EXPECT_EQ(cmp_ldap_ber_count_members(msg, 19), 3); /* three attributes */
    EXPECT_EQ(cmp_ldap_ber_count_members(msg, 27), 2); /* Bob, Robert */
    EXPECT_EQ(cmp_ldap_ber_count_members(msg, 80), 1);
    EXPECT_TRUE(lines().empty());

    Msg empty_set(hex("31 00 04 00"));
    EXPECT_EQ(cmp_ldap_ber_count_members(empty_set, 0), 0);
    Msg empty_at_end(hex("31 00"), true);
    EXPECT_EQ(cmp_ldap_ber_count_members(empty_at_end, 0), 0);
    /* A last member that overruns its parent still counts. */
    Msg overrun(hex("31 04 04 01 61 04 05 62 62 62 62 62"));
    EXPECT_EQ(cmp_ldap_ber_count_members(overrun, 0), 2);
    EXPECT_TRUE(lines().empty());

    /* Members that run off the end of the PDU. */
    Msg cut(hex("31 06 04 01 61 04"), true);
    EXPECT_EQ(cmp_ldap_ber_count_members(cut, 0), -1);
    EXPECT_EQ(
        lines(),
        (Lines{"cmp_ldap_ber_get_length_length(): Illegal position "
               "(pos=5,mes->cmp_ldap_total_size=6).\n",
               "cmp_ldap_ber_get_content_length(): Illegal position (pos=5,mes->total_size=6).\n",
               "cmp_ldap_ber_get_next(): decode error (lenLen=-1,contentLen=-1).\n",
               "cmp_ldap_ber_count_members(): Cannot get next attributes value pos.\n"}));
    fake::clear_log();
    EXPECT_EQ(cmp_ldap_ber_count_members(cut, 6), -1);
    EXPECT_TRUE(fake::logged("cmp_ldap_ber_count_members(): Cannot get value end pos.\n"));
    EXPECT_FALSE(fake::logged("cmp_ldap_ber_count_members(): Failed to get value content.\n"));
    for (const auto &l : fake::log())
        EXPECT_EQ(l.rc, -1);
}

TEST_F(DecodeNavigation, AttributeListOfSearchEntryOnly)
{
    Msg msg(kEntry, true);
    EXPECT_EQ(cmp_ldap_ber_get_attr_pos_of_search_entry(msg), 19);
    EXPECT_TRUE(lines().empty());

    struct Case {
        Bytes pdu;
        Lines lines;
    } cases[] = {
        {kDone,
         {"cmp_ldap_ber_get_attr_pos_of_search_entry(): It's not LDAP_RES_SEARCH_ENTRY "
          "(application=5).\n"}},
        {kReference,
         {"cmp_ldap_ber_get_attr_pos_of_search_entry(): It's not LDAP_RES_SEARCH_ENTRY "
          "(application=19).\n"}},
        {hex("30 04 02 01 01 64"), /* the protocolOp tag is the last octet */
         {"cmp_ldap_ber_get_length_length(): Illegal position "
          "(pos=5,mes->cmp_ldap_total_size=6).\n",
          "cmp_ldap_ber_get_content(): decode error.\n",
          "cmp_ldap_ber_get_attr_pos_of_search_entry(): Failed to retrieve [APPLICATION 4] "
          "conten.\n"}},
        {hex("30 06 02 01 01 64 01 04"), /* the DN tag is the last octet */
         {"cmp_ldap_ber_get_length_length(): Illegal position "
          "(pos=7,mes->cmp_ldap_total_size=8).\n",
          "cmp_ldap_ber_get_content_length(): Illegal position (pos=7,mes->total_size=8).\n",
          "cmp_ldap_ber_get_next(): decode error (lenLen=-1,contentLen=-1).\n",
          "cmp_ldap_ber_get_attr_pos_of_search_entry(): Failed to skip LDAPDN field.\n"}},
        {hex("30 07 02 01 01 64 02 02 00"),
         {"cmp_ldap_ber_get_attr_pos_of_search_entry(): Unexpected data type (tag.type = 2).\n"}},
        {hex("30 09 02 01 01 64 04 04 00 31 00"),
         {"cmp_ldap_ber_get_attr_pos_of_search_entry(): Unexpected format (tag.type = 17).\n"}},
        {hex("30 09 02 01 01 64 04 04 00 10 00"), /* SEQUENCE number, primitive form */
         {"cmp_ldap_ber_get_attr_pos_of_search_entry(): Unexpected format (tag.type = 16).\n"}},
        {hex("30 07 02 01 01 64 02 04 00"), /* no attribute list at all */
         {"cmp_ldap_ber_get_tag(): Illegal position (pos=9,mes->cmp_ldap_total_size=9).\n",
          "cmp_ldap_ber_get_attr_pos_of_search_entry(): Unexpected format (tag.type = 31).\n"}},
        {hex("30 08 02 01 01 64 03 04 85 00"),
         {"cmp_ldap_ber_get_content_length(): Length > 32bits.fieldLen=0x05.\n",
          "cmp_ldap_ber_get_next(): decode error (lenLen=6,contentLen=-1).\n",
          "cmp_ldap_ber_get_attr_pos_of_search_entry(): Failed to skip LDAPDN field.\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(support::to_hex(c.pdu));
        fake::clear_log();
        Msg m(c.pdu, true);
        EXPECT_EQ(cmp_ldap_ber_get_attr_pos_of_search_entry(m), -1);
        EXPECT_EQ(lines(), c.lines);
    }
    /* Any class of the list's SEQUENCE passes as long as it is constructed. */
    Msg ctx(entry({attribute("cn", {"x"})}, 0xB0));
    EXPECT_EQ(cmp_ldap_ber_get_attr_pos_of_search_entry(ctx), 12);
}

TEST_F(DecodeNavigation, LookupFoldsAsciiCaseOnly)
{
    Msg msg(kEntry, true);
    struct Case {
        const char *name;
        int32_t pos;
    } cases[] = {
        {"cn", 27},   {"CN", 27},   {"Cn", 27},    {"objectclass", 57}, {"OBJECTCLASS", 57},
        {"mail", 80}, {"MAIL", 80}, {"c", -1},     {"cname", -1},       {"cn;binary", -1},
        {"", -1},     {"mai", -1},  {"mail ", -1},
    };
    for (const auto &c : cases) {
        fake::clear_log();
        EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(msg, c.name), c.pos) << c.name;
        EXPECT_EQ(fake::live_blocks(), 1);
        EXPECT_EQ(fake::alloc_sizes().back(), 385u);
    }
    /* A name the entry lacks: the scan steps once past the list and fails there. */
    EXPECT_EQ(lines(), (Lines{"cmp_ldap_ber_get_length_length(): Illegal position "
                              "(pos=89,mes->cmp_ldap_total_size=89).\n",
                              "cmp_ldap_ber_get_content(): decode error.\n",
                              "cmp_ldap_ber_decode_attr_name_of_attribute(): Failed to get first "
                              "attributes.\n"}));

    Msg odd(entry({attribute("cn;binary", {"a"}), attribute("cname", {"b"}), attribute("", {"c"}),
                   attribute("CN", {"d"}), attribute("\xC3\xA9t\xC3\xA9", {"e"})}));
    struct Odd {
        const char *name;
        const char *first_value;
    } odd_cases[] = {{"cn", "d"},
                     {"cn;binary", "a"},
                     {"CN;BINARY", "a"},
                     {"cname", "b"},
                     {"", "c"},
                     {"\xC3\xA9T\xC3\xA9", "e"},
                     {"\xC3\x89T\xC3\x89", nullptr}};
    for (const auto &c : odd_cases) {
        int32_t set = cmp_ldap_ber_lookup_attribute_on_search_entry(odd, c.name);
        if (c.first_value == nullptr) {
            EXPECT_EQ(set, -1) << c.name;
            continue;
        }
        ASSERT_NE(set, -1) << c.name;
        char value[8];
        uint32_t first = cmp_ldap_ber_get_content(odd, set);
        EXPECT_NE(cmp_ldap_ber_decode_string_to(odd, (int32_t)first, value, sizeof value), kFail);
        EXPECT_STREQ(value, c.first_value) << c.name;
    }
}

TEST_F(DecodeNavigation, LookupStopsAtAnOverlongType)
{
    Msg msg(entry({attribute("cn", {"a"}), attribute(std::string(385, 't'), {"b"}),
                   attribute("mail", {"c"})}));
    EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(msg, "mail"), -1);
    EXPECT_EQ(lines(), Lines{"cmp_ldap_ber_decode_string_to(): String excess max length "
                             "(contentLen=385,max=385).\n"});
    EXPECT_NE(cmp_ldap_ber_lookup_attribute_on_search_entry(msg, "cn"), -1);

    Msg fits(entry({attribute(std::string(384, 't'), {"b"}), attribute("mail", {"c"})}));
    EXPECT_NE(cmp_ldap_ber_lookup_attribute_on_search_entry(fits, "mail"), -1);
    EXPECT_NE(cmp_ldap_ber_lookup_attribute_on_search_entry(fits, std::string(384, 'T').c_str()),
              -1);
}

TEST_F(DecodeNavigation, LookupFailurePaths)
{
    /* Before the buffer exists, the common exit still releases a null block. */
    Msg done(kDone);
    EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(done, "cn"), -1);
    EXPECT_TRUE(fake::freed_null_seen());
    EXPECT_EQ(fake::alloc_sizes().size(), 1u);

    fake::clear_log();
    Msg list_cut(hex("30 0A 02 01 01 64 05 04 00 30 85 00"));
    EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(list_cut, "cn"), -1);
    EXPECT_EQ(lines(),
              (Lines{"cmp_ldap_ber_get_content_length(): Length > 32bits.fieldLen=0x05.\n",
                     "cmp_ldap_ber_get_next(): decode error (lenLen=6,contentLen=-1).\n",
                     "cmp_ldap_ber_lookup_attribute_on_search_entry(): Cannot get next attributes "
                     "pos.\n"}));

    /* The type reads (content after six length octets) but the step over the
     * attribute cannot decode its length. */
    fake::clear_log();
    Msg bad_step(hex("30 15 02 01 01 64 10 04 00 30 0C 30 85 00 00 00 00 00 04 01 61 31 00"));
    EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(bad_step, "a"), 21);
    EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(bad_step, "b"), -1);
    EXPECT_EQ(lines(), (Lines{"cmp_ldap_ber_get_content_length(): Length > 32bits.fieldLen=0x05.\n",
                              "cmp_ldap_ber_get_next(): decode error (lenLen=6,contentLen=-1).\n",
                              "cmp_ldap_ber_lookup_attribute_on_search_entry(): Failed to get next "
                              "position.\n"}));

    fake::clear_log();
    Msg msg(kEntry);
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(msg, "cn"), -1);
    EXPECT_EQ(lines(), Lines{"cmp_ldap_ber_lookup_attribute_on_search_entry(): Failed to allocate("
                             "385 btyes).\n"});
}

/* Hostile lengths: a length that would wrap a position back into the PDU. */
TEST_F(DecodeNavigation, HugeLengthsDoNotWrapPositions)
{
    /* At position 10, 10 + 1 + 5 + 0xFFFFFFF0 is 0 in 32 bits. */
    Bytes pdu = hex("30 08 02 01 01 64 03 04 01 61 04 84 FF FF FF F0 00 00");
    Msg msg(pdu, true);
    EXPECT_EQ(cmp_ldap_ber_get_next(msg, 10), -1);
    EXPECT_EQ(lines(), Lines{"cmp_ldap_ber_get_next(): decode error (lenLen=5,contentLen=-16).\n"});
    EXPECT_EQ(cmp_ldap_ber_count_members(msg, 10), -1);

    /* Just fits a position: returned as is, and the next read rejects it. */
    Msg big(hex("31 84 7F FF FF F0 04 01 61 04 01 62"), true);
    EXPECT_EQ(cmp_ldap_ber_get_next(big, 0), 0x7FFFFFF6);
    EXPECT_EQ(cmp_ldap_ber_get_tag(big, 0x7FFFFFF6), 255);
    Msg over(hex("31 84 7F FF FF FA 00 00"), true);
    EXPECT_EQ(cmp_ldap_ber_get_next(over, 0), -1);
    fake::clear_log();
    EXPECT_EQ(cmp_ldap_ber_count_members(big, 0), -1); /* ends at the PDU's end, no hang */
    EXPECT_TRUE(
        fake::logged("cmp_ldap_ber_count_members(): Cannot get next attributes value pos.\n"));

    /* Attribute lists and attributes declaring about 4 GiB. */
    struct Case {
        const char *pdu;
        int32_t a;     /* lookup of "a" */
        int32_t count; /* members of the list */
    } cases[] = {
        {"30 0F 02 01 01 64 0A 04 00 30 84 FF FF FF F8 30 00", -1, -1}, /* list: 9 + 0x10000000B */
        {"30 14 02 01 01 64 0F 04 00 30 0B 30 84 FF FF FF F0 04 01 61 31 00", 20, -1},
        {"30 13 02 01 01 64 0E 04 00 30 0A 30 08 04 84 FF FF FF F4 31 00", -1, 1}, /* type */
    };
    for (const auto &c : cases) {
        Msg m(hex(c.pdu), true);
        EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(m, "zz"), -1) << c.pdu;
        EXPECT_EQ(cmp_ldap_ber_lookup_attribute_on_search_entry(m, "a"), c.a) << c.pdu;
        EXPECT_EQ(cmp_ldap_ber_count_members(m, 9), c.count) << c.pdu;
    }
    /* An envelope whose id declares a huge length. */
    Msg id(hex("30 0A 02 84 FF FF FF FB 01 64 00 00"), true);
    CMP_LDAP_MESSAGE_REC rec{};
    EXPECT_EQ(cmp_ldap_ber_decode_ldap_message(id, &rec), -1);
    EXPECT_TRUE(fake::logged("cmp_ldap_ber_decode_number(): Illegal length.\n"));
}

/* Every truncated prefix, in a block of PDU + 400 and in a block that ends at the
 * PDU: each call either fails cleanly or gives what it gives on the whole PDU. */
class DecodeTruncation : public FakePortTest,
                         public ::testing::WithParamInterface<std::pair<const char *, Bytes>> {};

namespace {

struct Results {
    std::vector<int> tag;
    std::vector<uint32_t> clen, llen, content, str, num;
    std::vector<std::string> text;
    std::vector<int32_t> next, count;
    int32_t envelope, list;
    std::vector<int32_t> lookups;
};

const char *const kNames[] = {"cn", "objectClass", "mail", "absent", "", "member", "jpegPhoto"};

Results run_all(const CMP_LDAP_MESSAGE *m, int32_t span)
{
    Results r;
    for (int32_t p = -1; p <= span + 1; ++p) {
        r.tag.push_back(cmp_ldap_ber_get_tag(m, p));
        r.clen.push_back(cmp_ldap_ber_get_content_length(m, p));
        r.llen.push_back(cmp_ldap_ber_get_length_length(m, p));
        r.content.push_back(cmp_ldap_ber_get_content(m, p));
        char *s = nullptr;
        uint32_t end = cmp_ldap_ber_decode_string(m, p, &s);
        r.str.push_back(end);
        r.text.push_back(s ? s : "<null>");
        support::free_block(s);
        CMP_LDAP_BERVAL *bv = nullptr;
        EXPECT_EQ(cmp_ldap_ber_decode_string_len(m, p, &bv), end);
        support::free_block(bv);
        char buf[CMP_LDAP_TEXT_SIZE];
        uint32_t to = cmp_ldap_ber_decode_string_to(m, p, buf, sizeof buf);
        EXPECT_TRUE(to == end || to == kFail); /* the buffer takes 384 octets at most */
        uint32_t v = 0, w = 0;
        uint32_t ni = cmp_ldap_ber_decode_integer(m, p, &v);
        uint32_t ne = cmp_ldap_ber_decode_enum(m, p, &w);
        r.num.push_back(ni != kFail ? ni : ne);
        EXPECT_EQ(cmp_ldap_ber_decode_attr_name_of_attribute(m, p, buf, sizeof buf) == kFail ||
                      strlen(buf) < sizeof buf,
                  true);
        r.next.push_back(cmp_ldap_ber_get_next(m, p));
        r.count.push_back(cmp_ldap_ber_count_members(m, p));
    }
    CMP_LDAP_MESSAGE_REC rec;
    r.envelope = cmp_ldap_ber_decode_ldap_message(m, &rec);
    r.list = cmp_ldap_ber_get_attr_pos_of_search_entry(m);
    for (const char *n : kNames)
        r.lookups.push_back(cmp_ldap_ber_lookup_attribute_on_search_entry(m, n));
    fake::clear_log(); /* keep the captured lines from piling up */
    return r;
}

}  // namespace

TEST_P(DecodeTruncation, EveryPrefixFailsCleanly)
{
    const Bytes &pdu = GetParam().second;
    const int32_t span = (int32_t)pdu.size();
    Results full;
    {
        Msg m(pdu, true);
        full = run_all(m, span);
    }
    EXPECT_NE(full.envelope, -1);
    for (int32_t n = 0; n <= span; ++n) {
        Bytes prefix(pdu.begin(), pdu.begin() + n);
        for (bool tight : {false, true}) {
            SCOPED_TRACE("prefix " + std::to_string(n) + (tight ? " tight" : " +400"));
            Msg m(prefix, tight);
            Results r = run_all(m, span);
            for (size_t i = 0; i < r.tag.size(); ++i) {
                int32_t p = (int32_t)i - 1;
                SCOPED_TRACE("pos " + std::to_string(p));
                EXPECT_EQ(r.tag[i], p >= 0 && p < n ? full.tag[i] : 255);
                /* A string decodes iff it did on the whole PDU and fits the prefix. */
                bool str_fits = full.str[i] != kFail && (int32_t)full.str[i] <= n;
                EXPECT_EQ(r.str[i], str_fits ? full.str[i] : kFail);
                EXPECT_EQ(r.text[i], str_fits ? full.text[i] : "<null>");
                bool num_fits = full.num[i] != kFail && (int32_t)full.num[i] < n;
                EXPECT_EQ(r.num[i], num_fits ? full.num[i] : kFail);
                for (auto pair : {std::make_pair(r.clen[i], full.clen[i]),
                                  std::make_pair(r.llen[i], full.llen[i]),
                                  std::make_pair(r.content[i], full.content[i])})
                    EXPECT_TRUE(pair.first == kFail || pair.first == pair.second);
                EXPECT_TRUE(r.next[i] == -1 || r.next[i] == full.next[i]);
                EXPECT_TRUE(r.count[i] == -1 || r.count[i] == full.count[i]);
            }
            EXPECT_TRUE(r.envelope == -1 || r.envelope == full.envelope);
            EXPECT_TRUE(r.list == -1 || r.list == full.list);
            for (size_t k = 0; k < r.lookups.size(); ++k) {
                /* Found iff found on the whole PDU and the type lies in the prefix. */
                bool found = full.lookups[k] != -1 && full.lookups[k] <= n;
                EXPECT_EQ(r.lookups[k], found ? full.lookups[k] : -1) << kNames[k];
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Responses, DecodeTruncation,
    ::testing::Values(
        std::make_pair("entry", kEntry), std::make_pair("done", kDone),
        std::make_pair("reference", kReference),
        /* long-form lengths at every level, a binary value and an empty one */
        std::make_pair("long_entry",
                       entry({attribute("member", {std::string(200, 'm'), std::string(300, 'n')}),
                              attribute("jpegPhoto", {std::string("\xFF\xD8\x00\x01", 4)}),
                              attribute("cn", {""})})),
        std::make_pair("indefinite", hex("30 80 02 01 09 65 80 0A 01 00 04 00 04 00"))),
    [](const ::testing::TestParamInfo<std::pair<const char *, Bytes>> &info) {
        return std::string(info.param.first);
    });

/* Null pointers the caller must never pass stop the program. */
TEST(DecodeAssertions, NullArgumentsAreProgrammingErrors)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Msg msg(kEntry);
    uint32_t v = 0;
    char buf[8];
    CMP_LDAP_MESSAGE_REC rec;
    const CMP_LDAP_MESSAGE *null = nullptr;
    EXPECT_DEATH(cmp_ldap_ber_get_tag(null, 0),
                 "cmp_ldap_decode.*Assertion `mes != \\(\\(void \\*\\)0\\)' failed");
    EXPECT_DEATH(cmp_ldap_ber_get_next(null, 0), "mes != \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(cmp_ldap_ber_decode_integer(null, 0, &v), "mes != \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(cmp_ldap_ber_decode_attr_name_of_attribute(null, 0, buf, 8),
                 "\\(\\(void \\*\\)0\\) != mes");
    EXPECT_DEATH(cmp_ldap_ber_lookup_attribute_on_search_entry(null, "cn"),
                 "\\(\\(void \\*\\)0\\) != mes");
    EXPECT_DEATH(cmp_ldap_ber_decode_number(msg, 2, nullptr, 2), "value != \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(cmp_ldap_ber_decode_integer(msg, 2, nullptr), "value != \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(cmp_ldap_ber_decode_attr_name_of_attribute(msg, 21, nullptr, 8),
                 "\\(\\(void \\*\\)0\\) != attrName");
    EXPECT_DEATH(cmp_ldap_ber_decode_ldap_message(msg, nullptr), "rec != \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(cmp_ldap_ber_lookup_attribute_on_search_entry(msg, nullptr),
                 "\\(\\(void \\*\\)0\\) != attr");
    (void)rec;
}
