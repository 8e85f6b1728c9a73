/* BER decoding primitives: tags, lengths, strings, numbers, attribute names. */
#include "cmp_ldap_internal.h"
#include "support.h"

using support::Bytes;
using support::FakePortTest;
using support::hex;
using Lines = std::vector<std::string>;

namespace {

constexpr uint32_t kFail = 0xFFFFFFFFu;

/* Owns a message built like a received one (PDU + 400) or in a block that ends
 * exactly at the PDU's last octet. */
struct Msg {
    CMP_LDAP_MESSAGE *m;
    explicit Msg(const Bytes &pdu, bool tight = false)
        : m(tight ? support::make_tight_message(pdu) : support::make_message(pdu))
    {
    }
    ~Msg() { support::free_block(m); }
    operator const CMP_LDAP_MESSAGE *() const { return m; }
};

}  // namespace

class DecodePrimitives : public FakePortTest {
  protected:
    /* Every line of these functions reports -1 as its code. */
    void expect_all_rc_minus_one()
    {
        for (const auto &l : fake::log()) {
            EXPECT_EQ(l.rc, -1) << l.text;
            EXPECT_EQ(l.module, "CMP_LDAP");
            EXPECT_EQ(l.level, 0);
        }
    }
};

TEST_F(DecodePrimitives, TagAtEveryPositionAndPastTheEnd)
{
    Msg msg(hex("30 03 02 01 07"), true);
    EXPECT_EQ(cmp_ldap_ber_get_tag(msg, 0), 0x30);
    EXPECT_EQ(cmp_ldap_ber_get_tag(msg, 4), 0x07);
    EXPECT_TRUE(lines().empty());

    EXPECT_EQ(cmp_ldap_ber_get_tag(msg, 5), 255);
    EXPECT_EQ(cmp_ldap_ber_get_tag(msg, -1), 255);
    EXPECT_EQ(cmp_ldap_ber_get_tag(msg, INT32_MAX), 255);
    EXPECT_EQ(
        lines(),
        (Lines{"cmp_ldap_ber_get_tag(): Illegal position (pos=5,mes->cmp_ldap_total_size=5).\n",
               "cmp_ldap_ber_get_tag(): Illegal position (pos=-1,mes->cmp_ldap_total_size=5).\n",
               "cmp_ldap_ber_get_tag(): Illegal position (pos=2147483647,mes->cmp_ldap_total_"
               "size=5).\n"}));
    expect_all_rc_minus_one();
}

TEST_F(DecodePrimitives, LengthFunctionsNeedRoomForALengthOctet)
{
    Msg msg(hex("04 01 61 04"), true); /* the last octet is a tag with no length after it */
    EXPECT_EQ(cmp_ldap_ber_get_content_length(msg, 3), kFail);
    EXPECT_EQ(cmp_ldap_ber_get_length_length(msg, 3), kFail);
    EXPECT_EQ(cmp_ldap_ber_get_content(msg, 3), kFail);
    EXPECT_EQ(
        lines(),
        (Lines{"cmp_ldap_ber_get_content_length(): Illegal position (pos=3,mes->total_size=4).\n",
               "cmp_ldap_ber_get_length_length(): Illegal position "
               "(pos=3,mes->cmp_ldap_total_size=4).\n",
               "cmp_ldap_ber_get_length_length(): Illegal position "
               "(pos=3,mes->cmp_ldap_total_size=4).\n",
               "cmp_ldap_ber_get_content(): decode error.\n"}));
    expect_all_rc_minus_one();
    fake::clear_log();
    EXPECT_EQ(cmp_ldap_ber_get_content_length(msg, 0), 1u);
    EXPECT_EQ(cmp_ldap_ber_get_length_length(msg, 0), 1u);
    EXPECT_EQ(cmp_ldap_ber_get_content(msg, 0), 2u);
    EXPECT_EQ(cmp_ldap_ber_get_content_length(msg, -1), kFail);
    EXPECT_EQ(cmp_ldap_ber_get_length_length(msg, -2), kFail);
}

TEST_F(DecodePrimitives, LengthForms)
{
    struct Case {
        const char *pdu;
        uint32_t content_len, len_len, content;
        const char *line; /* of get_content_length, or null */
    } cases[] = {
        {"04 00 05 00", 0, 1, 2, nullptr},
        {"04 7F", 127, 1, 2, nullptr},
        {"04 80 05 00", 0, 1, 2, nullptr}, /* indefinite reads as empty */
        {"04 81 C8", 200, 2, 3, nullptr},
        {"04 82 01 00", 256, 3, 4, nullptr},
        {"04 83 01 02 03", 0x010203, 4, 5, nullptr},
        {"04 84 00 00 00 03 61 62 63", 3, 5, 6, nullptr},
        {"04 84 12 34 56 78", 0x12345678, 5, 6, nullptr}, /* not checked against the size */
        {"04 85 00 00 00 00 03", kFail, 6, 7,
         "cmp_ldap_ber_get_content_length(): Length > 32bits.fieldLen=0x05.\n"},
        {"04 FF 00", kFail, 128, 129,
         "cmp_ldap_ber_get_content_length(): Length > 32bits.fieldLen=0x7f.\n"},
        /* length octets cut off by the end of the PDU */
        {"04 84 00 00", kFail, 5, 6,
         "cmp_ldap_ber_get_content_length(): Illegal position (pos=5,mes->total_size=4).\n"},
        {"04 81", kFail, 2, 3,
         "cmp_ldap_ber_get_content_length(): Illegal position (pos=2,mes->total_size=2).\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.pdu);
        fake::clear_log();
        Msg msg(hex(c.pdu), true);
        EXPECT_EQ(cmp_ldap_ber_get_content_length(msg, 0), c.content_len);
        EXPECT_EQ(lines(), c.line ? Lines{c.line} : Lines{});
        EXPECT_EQ(cmp_ldap_ber_get_length_length(msg, 0), c.len_len);
        EXPECT_EQ(cmp_ldap_ber_get_content(msg, 0), c.content);
    }
}

TEST_F(DecodePrimitives, StringTagNumberOnlyIsChecked)
{
    for (int tag : {0x04, 0x24, 0x44, 0x64, 0x84, 0xA4}) {
        Bytes pdu = hex("00 02 61 62 05 00");
        pdu[0] = (uint8_t)tag;
        Msg msg(pdu);
        char *s = nullptr;
        EXPECT_EQ(cmp_ldap_ber_decode_string(msg, 0, &s), 4u) << tag;
        ASSERT_NE(s, nullptr);
        EXPECT_STREQ(s, "ab");
        support::free_block(s);
    }
    EXPECT_TRUE(lines().empty());

    Msg msg(hex("02 02 61 62 05 00"));
    size_t allocs = fake::alloc_sizes().size();
    char *s = reinterpret_cast<char *>(1);
    EXPECT_EQ(cmp_ldap_ber_decode_string(msg, 0, &s), kFail);
    EXPECT_EQ(s, nullptr);
    char buf[8];
    EXPECT_EQ(cmp_ldap_ber_decode_string_to(msg, 0, buf, sizeof buf), kFail);
    CMP_LDAP_BERVAL *bv = reinterpret_cast<CMP_LDAP_BERVAL *>(1);
    EXPECT_EQ(cmp_ldap_ber_decode_string_len(msg, 0, &bv), kFail);
    EXPECT_EQ(bv, nullptr);
    EXPECT_EQ(cmp_ldap_ber_decode_string(msg, 6, &s), kFail); /* past the end: type 31 */
    EXPECT_EQ(lines(),
              (Lines{
                  "cmp_ldap_ber_decode_string_stub(): It's not correct type (tag.type = 2).\n",
                  "cmp_ldap_ber_decode_string_stub(): It's not correct type (tag.type = 2).\n",
                  "cmp_ldap_ber_decode_string_stub(): It's not correct type (tag.type = 2).\n",
                  "cmp_ldap_ber_get_tag(): Illegal position "
                  "(pos=6,mes->cmp_ldap_total_size=6).\n",
                  "cmp_ldap_ber_decode_string_stub(): It's not correct type (tag.type = 31).\n",
              }));
    expect_all_rc_minus_one();
    EXPECT_EQ(fake::alloc_sizes().size(), allocs); /* no allocation on a failure path */
}

TEST_F(DecodePrimitives, StringMayEndThePduButNotOverrunIt)
{
    Msg fits(hex("04 03 61 62 63"), true);
    char *s = nullptr;
    EXPECT_EQ(cmp_ldap_ber_decode_string(fits, 0, &s), 5u);
    EXPECT_STREQ(s, "abc");
    support::free_block(s);

    Msg over(hex("04 04 61 62 63"), true);
    EXPECT_EQ(cmp_ldap_ber_decode_string(over, 0, &s), kFail);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(lines(),
              Lines{"cmp_ldap_ber_decode_string_stub(): Illegal length (content size=6).\n"});

    uint32_t len = 0, pos = 0;
    EXPECT_EQ(cmp_ldap_ber_decode_string_stub(fits, 0, &len, &pos), 0u);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(pos, 2u);
}

TEST_F(DecodePrimitives, EmptyStringIsOneNulOctet)
{
    Msg msg(hex("04 00 02 01 00"));
    char *s = nullptr;
    EXPECT_EQ(cmp_ldap_ber_decode_string(msg, 0, &s), 2u);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "");
    EXPECT_EQ(fake::alloc_sizes().back(), 1u);
    support::free_block(s);

    CMP_LDAP_BERVAL *bv = nullptr;
    EXPECT_EQ(cmp_ldap_ber_decode_string_len(msg, 0, &bv), 2u);
    ASSERT_NE(bv, nullptr);
    EXPECT_EQ(bv->total_size, 0u);
    EXPECT_EQ(fake::alloc_sizes().back(), 4u);
    support::free_block(bv);
}

TEST_F(DecodePrimitives, StringToBufferLimitCountsTheNul)
{
    Bytes pdu = hex("04 82 01 80");
    pdu.insert(pdu.end(), 384, 'x');
    Msg m384(pdu, true);
    char buf[CMP_LDAP_TEXT_SIZE];
    EXPECT_EQ(cmp_ldap_ber_decode_string_to(m384, 0, buf, CMP_LDAP_TEXT_SIZE), 388u);
    EXPECT_EQ(strlen(buf), 384u);

    pdu[3] = 0x81;
    pdu.push_back('y');
    Msg m385(pdu, true);
    memset(buf, 'z', sizeof buf);
    EXPECT_EQ(cmp_ldap_ber_decode_string_to(m385, 0, buf, CMP_LDAP_TEXT_SIZE), kFail);
    EXPECT_EQ(buf[0], 'z'); /* untouched */
    EXPECT_EQ(lines(), Lines{"cmp_ldap_ber_decode_string_to(): String excess max length "
                             "(contentLen=385,max=385).\n"});

    /* A zero or negative size fits nothing, not even the empty string. */
    Msg empty(hex("04 00"));
    EXPECT_EQ(cmp_ldap_ber_decode_string_to(empty, 0, buf, 1), 2u);
    EXPECT_EQ(cmp_ldap_ber_decode_string_to(empty, 0, buf, 0), kFail);
    EXPECT_EQ(cmp_ldap_ber_decode_string_to(empty, 0, buf, -5), kFail);
    EXPECT_TRUE(
        fake::logged("cmp_ldap_ber_decode_string_to(): String excess max length "
                     "(contentLen=0,max=-5).\n"));
}

TEST_F(DecodePrimitives, BinaryStringIsCountedBlock)
{
    Msg msg(hex("04 05 00 FF 00 0A 0D"), true);
    CMP_LDAP_BERVAL *bv = nullptr;
    EXPECT_EQ(cmp_ldap_ber_decode_string_len(msg, 0, &bv), 7u);
    ASSERT_NE(bv, nullptr);
    EXPECT_EQ(bv->total_size, 5u);
    EXPECT_EQ(Bytes(bv->data, bv->data + 5), hex("00 FF 00 0A 0D"));
    EXPECT_EQ(fake::alloc_sizes().back(), 9u);
    support::free_block(bv);
}

TEST_F(DecodePrimitives, StringAllocationFailure)
{
    Msg msg(hex("04 03 61 62 63"));
    char *s = reinterpret_cast<char *>(1);
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_ber_decode_string(msg, 0, &s), kFail);
    EXPECT_EQ(s, nullptr);
    CMP_LDAP_BERVAL *bv = reinterpret_cast<CMP_LDAP_BERVAL *>(1);
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_ber_decode_string_len(msg, 0, &bv), kFail);
    EXPECT_EQ(bv, nullptr);
    EXPECT_EQ(lines(), (Lines{"cmp_ldap_ber_decode_string(): Failed to allocate(4 btyes).\n",
                              "cmp_ldap_ber_decode_string_len(): Failed to allocate(7 btyes).\n"}));
}

TEST_F(DecodePrimitives, NumbersFoldWithoutSignOrLimit)
{
    struct Case {
        const char *content;
        uint32_t value;
    } cases[] = {
        {"", 0},
        {"00", 0},
        {"05", 5},
        {"FF", 255},
        {"01 00", 256},
        {"00 80", 128},
        {"FF FF", 65535},
        {"7F FF FF FF", 0x7FFFFFFF},
        {"FF FF FF FF", 0xFFFFFFFF},
        {"01 02 03 04 05", 0x02030405},
    };
    for (const auto &c : cases) {
        Bytes content = hex(c.content);
        for (uint8_t tag : {0x02, 0x0A}) {
            Bytes pdu{tag, (uint8_t)content.size()};
            pdu.insert(pdu.end(), content.begin(), content.end());
            pdu.push_back(0x05); /* something must follow a number */
            Msg msg(pdu, true);
            uint32_t v = 12345;
            uint32_t end = tag == 0x02 ? cmp_ldap_ber_decode_integer(msg, 0, &v)
                                       : cmp_ldap_ber_decode_enum(msg, 0, &v);
            EXPECT_EQ(end, 2 + content.size()) << c.content;
            EXPECT_EQ(v, c.value) << c.content;
        }
    }
    EXPECT_TRUE(lines().empty());
}

TEST_F(DecodePrimitives, NumberFailures)
{
    uint32_t v = 77;
    Msg enumerated(hex("0A 01 00 04 00"));
    EXPECT_EQ(cmp_ldap_ber_decode_integer(enumerated, 0, &v), kFail);
    Msg integer(hex("02 01 00 04 00"));
    EXPECT_EQ(cmp_ldap_ber_decode_enum(integer, 0, &v), kFail);
    Msg last(hex("02 01 05"), true); /* ends exactly at the end of the PDU */
    EXPECT_EQ(cmp_ldap_ber_decode_integer(last, 0, &v), kFail);
    Msg last_enum(hex("0A 01 05"), true);
    EXPECT_EQ(cmp_ldap_ber_decode_enum(last_enum, 0, &v), kFail);
    Msg too_wide(hex("02 85 00 00 00 00 01 05 00"));
    EXPECT_EQ(cmp_ldap_ber_decode_integer(too_wide, 0, &v), kFail);
    EXPECT_EQ(cmp_ldap_ber_decode_integer(integer, 5, &v), kFail);
    EXPECT_EQ(v, 77u);
    EXPECT_EQ(
        lines(),
        (Lines{"cmp_ldap_ber_decode_number(): It's not correct type (tag.type = 10).\n",
               "cmp_ldap_ber_decode_number(): It's not correct type (tag.type = 2).\n",
               "cmp_ldap_ber_decode_number(): Illegal length.\n",
               "cmp_ldap_ber_decode_number(): Illegal length.\n",
               "cmp_ldap_ber_get_content_length(): Length > 32bits.fieldLen=0x05.\n",
               "cmp_ldap_ber_get_tag(): Illegal position (pos=5,mes->cmp_ldap_total_size=5).\n",
               "cmp_ldap_ber_decode_number(): It's not correct type (tag.type = 31).\n"}));
    expect_all_rc_minus_one();
}

TEST_F(DecodePrimitives, AttributeNameOfPartialAttribute)
{
    /* SEQUENCE { type "mail", SET { "a@b" } } */
    Msg msg(hex("30 0D 04 04 6D 61 69 6C 31 05 04 03 61 40 62"), true);
    char name[CMP_LDAP_TEXT_SIZE];
    EXPECT_EQ(cmp_ldap_ber_decode_attr_name_of_attribute(msg, 0, name, sizeof name), 8u);
    EXPECT_STREQ(name, "mail");
    EXPECT_EQ(cmp_ldap_ber_decode_attr_name_of_attribute(msg, 0, name, 4), kFail);
    EXPECT_EQ(cmp_ldap_ber_decode_attr_name_of_attribute(msg, 14, name, sizeof name), kFail);
    EXPECT_EQ(lines(), (Lines{"cmp_ldap_ber_decode_string_to(): String excess max length "
                              "(contentLen=4,max=4).\n",
                              "cmp_ldap_ber_get_length_length(): Illegal position "
                              "(pos=14,mes->cmp_ldap_total_size=15).\n",
                              "cmp_ldap_ber_get_content(): decode error.\n",
                              "cmp_ldap_ber_decode_attr_name_of_attribute(): Failed to get first "
                              "attributes.\n"}));
}

/* Declared lengths near 4 GiB must fail, never wrap into a position inside the PDU. */
TEST_F(DecodePrimitives, HugeDeclaredLengthsNeverWrap)
{
    uint32_t v = 0;
    char *s = nullptr;
    char buf[16];
    CMP_LDAP_BERVAL *bv = nullptr;
    for (const char *len : {"FF FF FF F0", "FF FF FF FA", "FF FF FF FE", "80 00 00 00",
                            "7F FF FF FF", "7F FF FF FA"}) {
        SCOPED_TRACE(len);
        Bytes pdu = hex(std::string("04 84 ") + len + " 61 62 63 64 65 66 67 68 69 6A");
        Msg msg(pdu, true);
        EXPECT_EQ(cmp_ldap_ber_decode_string(msg, 0, &s), kFail);
        EXPECT_EQ(cmp_ldap_ber_decode_string_to(msg, 0, buf, sizeof buf), kFail);
        EXPECT_EQ(cmp_ldap_ber_decode_string_len(msg, 0, &bv), kFail);
        pdu[0] = 0x02;
        Msg num(pdu, true);
        EXPECT_EQ(cmp_ldap_ber_decode_integer(num, 0, &v), kFail);
        EXPECT_EQ(fake::live_blocks(), 2);
    }
    /* 6 + 0xFFFFFFFA is 0 in 32 bits: the log shows the wrapped sum, the test does not. */
    EXPECT_TRUE(
        fake::logged("cmp_ldap_ber_decode_string_stub(): Illegal length (content size=0).\n"));
}
