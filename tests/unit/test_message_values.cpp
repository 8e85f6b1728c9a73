/* Entries, attributes, values and the DN of a SearchResultEntry. */
#include "cmp_ldap_internal.h"
#include "support.h"
#include "test_message_ber.h"

using msgtest::dump_of;
using msgtest::lines_of;
using msgtest::plus;
using msgtest::ptr;
using support::Bytes;
using support::hex;
using support::make_message;
using Lines = std::vector<std::string>;

namespace {

const std::string kDn = "cn=John,ou=People,dc=ex";
const std::string kBinary("\x00\x01\x00\xff", 4);

Bytes full_entry()
{
    return ber::entry(2, kDn,
                      {
                          ber::attribute("objectClass", {"top", "person"}),
                          ber::attribute("cn;binary", {kBinary}),
                          ber::attribute("CN", {"John"}),
                          ber::attribute("mail", {}),
                          ber::attribute("empty", {""}),
                      });
}

class MessageValues : public msgtest::HandleTest {};

TEST_F(MessageValues, BuilderWritesTheBytesOfAHandWrittenEntry)
{
    EXPECT_EQ(ber::entry(2, "o=x", {}), hex("30 0C 02 01 02 64 07 04 03 6F 3D 78 30 00"));
    EXPECT_EQ(ber::attribute("cn", {"a"}), hex("30 09 04 02 63 6E 31 03 04 01 61"));
    EXPECT_EQ(ber::tlv(0x04, Bytes(200, 'x')).size(), 203u); /* 04 81 C8 ... */
}

TEST_F(MessageValues, EntriesAreTheMessageItself)
{
    CMP_LDAP_MESSAGE *m = make_message(ber::result(3, 0x65, 0, "", ""));
    EXPECT_EQ(cmp_ldap_first_entry(&ld, m), m);
    EXPECT_EQ(cmp_ldap_next_entry(&ld, m), nullptr);
    EXPECT_EQ(cmp_ldap_count_entries(&ld, m), 1); /* even a SearchResultDone */
    EXPECT_TRUE(lines().empty());

    EXPECT_EQ(cmp_ldap_first_entry(&ld, nullptr), nullptr);
    EXPECT_EQ(cmp_ldap_count_entries(nullptr, m), 0);
    EXPECT_EQ(cmp_ldap_next_entry(&ld, nullptr), nullptr);
    Lines got = lines();
    Lines want = plus(Lines{"cmp_ldap_first_entry(): parameter error (next either is NULL: ld,res) "
                            "(res=(nil)).\n"},
                      dump_of("cmp_ldap_first_entry", &ld));
    want = plus(want, Lines{"cmp_ldap_count_entries(): parameter error (next either is NULL: "
                            "ld,res) (res=" +
                            ptr(m) + ").\n"});
    want = plus(want, dump_of("cmp_ldap_count_entries", nullptr));
    want = plus(want, Lines{"cmp_ldap_next_entry(): parameter error (next either is NULL: "
                            "ld,entry) (entry=(nil)).\n"});
    want = plus(want, dump_of("cmp_ldap_next_entry", &ld));
    EXPECT_EQ(got, want);
    support::free_block(m);
}

TEST_F(MessageValues, WalkingAttributesYieldsEveryNameThenNull)
{
    CMP_LDAP_MESSAGE *m = make_message(full_entry());
    void *it = nullptr;
    ld.ld_errno = 77;
    char *name = cmp_ldap_first_attribute(&ld, m, &it);
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, "objectClass");
    EXPECT_EQ(name, m->cmp_ldap_attr_name); /* the name lives in the message */
    EXPECT_EQ(it, m);
    EXPECT_EQ(ld.ld_errno, 77); /* first_attribute leaves it on success */

    Lines names;
    for (;;) {
        ld.ld_errno = 77;
        name = cmp_ldap_next_attribute(&ld, m, it);
        if (name == nullptr) break;
        names.push_back(name);
        EXPECT_EQ(ld.ld_errno, 0) << name;
    }
    EXPECT_EQ(names, (Lines{"cn;binary", "CN", "mail", "empty"}));
    EXPECT_EQ(ld.ld_errno, 77); /* the end of the list is no failure */
    EXPECT_EQ(cmp_ldap_next_attribute(&ld, m, it), nullptr);

    /* first_attribute starts over */
    EXPECT_STREQ(cmp_ldap_first_attribute(&ld, m, &it), "objectClass");
    EXPECT_STREQ(cmp_ldap_next_attribute(&ld, m, it), "cn;binary");
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(cmp_ldap_msgfree(m), CMP_LDAP_RES_SEARCH_ENTRY);
}

TEST_F(MessageValues, EntryWithoutAttributesEndsAtOnceWithErrnoZero)
{
    CMP_LDAP_MESSAGE *m = make_message(ber::entry(2, "o=x", {}));
    void *it = nullptr;
    ld.ld_errno = 77;
    EXPECT_EQ(cmp_ldap_first_attribute(&ld, m, &it), nullptr);
    EXPECT_EQ(ld.ld_errno, 0);
    EXPECT_EQ(it, nullptr);
    EXPECT_TRUE(lines().empty());
    support::free_block(m);
}

TEST_F(MessageValues, AttributeParameterErrorsLeaveErrnoAlone)
{
    CMP_LDAP_MESSAGE *m = make_message(full_entry());
    void *it = nullptr;
    ld.ld_errno = 77;
    EXPECT_EQ(cmp_ldap_first_attribute(&ld, m, nullptr), nullptr);
    EXPECT_LOG(lines(), plus(Lines{"cmp_ldap_first_attribute(): parameter error (next either is "
                                   "NULL:ld,mes,ptr) (mes=" +
                                   ptr(m) + ",ptr=(nil)).\n"},
                             dump_of("cmp_ldap_first_attribute", &ld)));
    fake::clear_log();
    EXPECT_EQ(cmp_ldap_next_attribute(nullptr, m, &it), nullptr);
    EXPECT_LOG(lines(), plus(Lines{"cmp_ldap_next_attribute(): parameter error (next either is "
                                   "NULL: ld,mes,ptr) (mes=" +
                                   ptr(m) + ",ptr=" + ptr(&it) + ").\n"},
                             dump_of("cmp_ldap_next_attribute", nullptr)));
    fake::clear_log();
    EXPECT_EQ(cmp_ldap_get_values(&ld, m, nullptr), nullptr);
    EXPECT_LOG(lines(), plus(Lines{"cmp_ldap_get_values_both(): parameter error (next either is "
                                   "NULL: ld,mes,attr) (mes=" +
                                   ptr(m) + ",attr=(null),binary=0).\n"},
                             dump_of("cmp_ldap_get_values_both", &ld)));
    fake::clear_log();
    EXPECT_EQ(cmp_ldap_get_values_binary(&ld, nullptr, "cn"), nullptr);
    EXPECT_EQ(lines_of("cmp_ldap_get_values_both")[0],
              "cmp_ldap_get_values_both(): parameter error (next either is NULL: ld,mes,attr) "
              "(mes=(nil),attr=cn,binary=1).\n");
    fake::clear_log();
    EXPECT_EQ(cmp_ldap_get_dn(&ld, nullptr), nullptr);
    EXPECT_LOG(lines(), plus(Lines{"cmp_ldap_get_dn(): parameter error (next either is NULL: "
                                   "ld,mes) (mes=(nil)).\n"},
                             dump_of("cmp_ldap_get_dn", &ld)));
    EXPECT_EQ(ld.ld_errno, 77);
    support::free_block(m);
}

TEST_F(MessageValues, ValuesOfTextAttributes)
{
    CMP_LDAP_MESSAGE *m = make_message(full_entry());
    char **vals = cmp_ldap_get_values(&ld, m, "objectClass");
    ASSERT_NE(vals, nullptr);
    EXPECT_STREQ(vals[0], "top");
    EXPECT_STREQ(vals[1], "person");
    EXPECT_EQ(vals[2], nullptr);
    EXPECT_EQ(cmp_ldap_count_values(vals), 2);
    EXPECT_EQ(cmp_ldap_value_free(vals), 2);

    /* cn matches CN, not the earlier cn;binary */
    vals = cmp_ldap_get_values(&ld, m, "cn");
    ASSERT_NE(vals, nullptr);
    EXPECT_STREQ(vals[0], "John");
    EXPECT_EQ(cmp_ldap_count_values(vals), 1);
    EXPECT_EQ(cmp_ldap_value_free(vals), 1);

    /* an empty SET is an array holding only the terminator */
    vals = cmp_ldap_get_values(&ld, m, "MAIL");
    ASSERT_NE(vals, nullptr);
    EXPECT_EQ(vals[0], nullptr);
    EXPECT_EQ(cmp_ldap_count_values(vals), 0);
    EXPECT_EQ(cmp_ldap_value_free(vals), 0);

    vals = cmp_ldap_get_values(&ld, m, "empty");
    ASSERT_NE(vals, nullptr);
    EXPECT_STREQ(vals[0], "");
    EXPECT_EQ(vals[1], nullptr);
    EXPECT_EQ(cmp_ldap_value_free(vals), 1);
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(ld.ld_errno, 0);
    support::free_block(m);
}

TEST_F(MessageValues, BinaryValuesKeepEveryOctet)
{
    CMP_LDAP_MESSAGE *m = make_message(full_entry());
    CMP_LDAP_BERVAL **vals = cmp_ldap_get_values_binary(&ld, m, "CN;BINARY");
    ASSERT_NE(vals, nullptr);
    ASSERT_EQ(vals[0]->total_size, 4u);
    EXPECT_EQ(std::string((const char *)vals[0]->data, 4), kBinary);
    EXPECT_EQ(vals[1], nullptr);
    EXPECT_EQ(cmp_ldap_count_values_binary(vals), 1);
    EXPECT_EQ(cmp_ldap_value_free_binary(vals), 1);

    vals = cmp_ldap_get_values_binary(&ld, m, "empty");
    ASSERT_NE(vals, nullptr);
    EXPECT_EQ(vals[0]->total_size, 0u);
    EXPECT_EQ(vals[1], nullptr);
    EXPECT_EQ(cmp_ldap_value_free_binary(vals), 1);

    /* the array is sized exactly: values + 1 pointers */
    fake::reset();
    CMP_LDAP_MESSAGE *m2 = make_message(full_entry());
    vals = cmp_ldap_get_values_binary(&ld, m2, "objectClass");
    std::vector<uint32_t> sizes = fake::alloc_sizes();
    ASSERT_GE(sizes.size(), 3u);
    EXPECT_EQ(sizes[sizes.size() - 3], 3 * sizeof(void *));
    EXPECT_EQ(sizes[sizes.size() - 2], 4u + 3u); /* "top" */
    EXPECT_EQ(sizes[sizes.size() - 1], 4u + 6u); /* "person" */
    EXPECT_EQ(cmp_ldap_value_free_binary(vals), 2);
    support::free_block(m2);
}

TEST_F(MessageValues, CountAndFreeOfNullLogTheParameterError)
{
    EXPECT_EQ(cmp_ldap_count_values(nullptr), 0);
    EXPECT_EQ(cmp_ldap_value_free(nullptr), 0);
    EXPECT_EQ(cmp_ldap_count_values_binary(nullptr), 0);
    EXPECT_EQ(cmp_ldap_value_free_binary(nullptr), 0);
    EXPECT_EQ(lines(), (Lines{"cmp_ldap_count_values(): parameter error.\n",
                              "cmp_ldap_value_free(): parameter error.\n",
                              "cmp_ldap_count_values(): parameter error.\n",
                              "cmp_ldap_value_free(): parameter error.\n"}));
    fake::clear_log();
    cmp_ldap_dn_free(nullptr);
    EXPECT_EQ(lines(), Lines{"cmp_ldap_dn_free(): parameter error.\n"});
}

TEST_F(MessageValues, AbsentAttributeFailsWithDecodingError)
{
    CMP_LDAP_MESSAGE *m = make_message(full_entry());
    ld.ld_errno = 77;
    EXPECT_EQ(cmp_ldap_get_values(&ld, m, "sn"), nullptr);
    EXPECT_EQ(ld.ld_errno, CMP_LDAP_DECODING_ERROR);
    EXPECT_LOG(lines_of("cmp_ldap_get_values_both"),
               plus(plus(Lines{"cmp_ldap_get_values_both(): Failed to find the attribute.\n"},
                         dump_of("cmp_ldap_get_values_both", &ld)),
                    Lines{"cmp_ldap_get_values_both(): mes=" + ptr(m) + ",attr=sn,binary=0.\n"}));
    support::free_block(m);
}

TEST_F(MessageValues, UndecodableValueIsReportedAsMemoryAndEarlierValuesAreReleased)
{
    /* second member of the SET is an INTEGER */
    Bytes pdu = ber::entry(
        2, "o=x",
        {ber::tlv(0x30, ber::cat({ber::os("x"),
                                  ber::tlv(0x31, ber::cat({ber::os("a"), hex("02 01 05")}))}))});
    CMP_LDAP_MESSAGE *m = make_message(pdu);
    EXPECT_EQ(cmp_ldap_get_values(&ld, m, "x"), nullptr);
    EXPECT_EQ(ld.ld_errno, CMP_LDAP_NO_MEMORY);
    /* 30 len 02 01 02 64 len 04 03 o=x 30 len 30 len 04 01 x 31 len 04 01 a | 02 */
    long bad = (long)pdu.size() - 3;
    EXPECT_LOG(lines_of("cmp_ldap_get_values_both"),
               plus(plus(Lines{"cmp_ldap_get_values_both(): Failed to get decode value string. "
                               "currentPos=" +
                               std::to_string(bad) + ".\n"},
                         dump_of("cmp_ldap_get_values_both", &ld)),
                    Lines{"cmp_ldap_get_values_both(): mes=" + ptr(m) + ",attr=x,binary=0.\n"}));
    support::free_block(m);
}

TEST_F(MessageValues, ValueSetWithUnreadableLengthCannotBeCounted)
{
    /* the SET's length field claims five octets */
    Bytes pdu = ber::entry(
        2, "o=x",
        {ber::tlv(0x30, ber::cat({ber::os("x"), hex("31 85 00 00 00 00 03"), ber::os("a")}))});
    CMP_LDAP_MESSAGE *m = make_message(pdu);
    EXPECT_EQ(cmp_ldap_get_values(&ld, m, "x"), nullptr);
    EXPECT_EQ(ld.ld_errno, CMP_LDAP_DECODING_ERROR);
    EXPECT_EQ(lines_of("cmp_ldap_get_values_both")[0],
              "cmp_ldap_get_values_both(): Failed to count number of values.\n");
    support::free_block(m);
}

TEST_F(MessageValues, ArrayAllocationFailureLogsTheAllocatorLine)
{
    CMP_LDAP_MESSAGE *m = make_message(full_entry());
    fake::arm_alloc_failure(2); /* 1: the lookup's name buffer, 2: the array */
    EXPECT_EQ(cmp_ldap_get_values(&ld, m, "cn"), nullptr);
    EXPECT_EQ(ld.ld_errno, CMP_LDAP_NO_MEMORY);
    EXPECT_LOG(lines_of("cmp_ldap_get_values_both"),
               plus(plus(Lines{"cmp_ldap_get_values_both(): Failed to allocate(" +
                               std::to_string(2 * sizeof(void *)) + " btyes).\n"},
                         dump_of("cmp_ldap_get_values_both", &ld)),
                    Lines{"cmp_ldap_get_values_both(): mes=" + ptr(m) + ",attr=cn,binary=0.\n"}));
    support::free_block(m);
}

TEST_F(MessageValues, AttributeWalkFailures)
{
    struct Case {
        const char *what;
        Bytes pdu;
        bool fails_in_first; /* else first succeeds and next fails */
        std::string line;
    };
    const Bytes done = ber::result(2, 0x65, 0, "", "");
    Bytes list_tag_last = ber::entry(2, "o=x", {});
    list_tag_last.pop_back(); /* ends with the attribute list's tag */
    const Bytes long_name = ber::entry(2, "o=x", {ber::attribute(std::string(385, 'a'), {})});
    const Bytes first_unsteppable = ber::entry(
        2, "o=x", {ber::cat({hex("30 85 00 00 00 00 06"), ber::os("cn"), hex("31 00")})});
    const Bytes second_not_string =
        ber::entry(2, "o=x", {ber::attribute("cn", {}), hex("30 05 02 01 05 31 00")});
    const Bytes second_unsteppable =
        ber::entry(2, "o=x",
                   {ber::attribute("cn", {}),
                    ber::cat({hex("30 85 00 00 00 00 06"), ber::os("sn"), hex("31 00")})});
    const Case cases[] = {
        {"not an entry", done, true,
         "cmp_ldap_first_attribute(): Failed to get attributes position.\n"},
        {"list tag is the last octet", list_tag_last, true,
         "cmp_ldap_first_attribute(): Failed to get first attributes.\n"},
        {"name of 385 characters", long_name, true,
         "cmp_ldap_first_attribute(): Failed to get attribute name.\n"},
        {"first attribute's length unreadable", first_unsteppable, true,
         "cmp_ldap_first_attribute(): Failed to get next position.\n"},
        {"second type is an INTEGER", second_not_string, false,
         "cmp_ldap_next_attribute(): Failed to get attribute name.\n"},
        {"second attribute's length unreadable", second_unsteppable, false,
         "cmp_ldap_next_attribute(): Failed to get next position.\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        fake::clear_log();
        CMP_LDAP_MESSAGE *m = make_message(c.pdu);
        void *it = nullptr;
        ld.ld_errno = 77;
        char *first = cmp_ldap_first_attribute(&ld, m, &it);
        const char *fn = c.fails_in_first ? "cmp_ldap_first_attribute" : "cmp_ldap_next_attribute";
        if (c.fails_in_first) {
            EXPECT_EQ(first, nullptr);
        } else {
            EXPECT_STREQ(first, "cn");
            EXPECT_EQ(cmp_ldap_next_attribute(&ld, m, it), nullptr);
        }
        EXPECT_EQ(ld.ld_errno, CMP_LDAP_DECODING_ERROR);
        EXPECT_LOG(lines_of(fn), plus(Lines{c.line}, dump_of(fn, &ld)));
        support::free_block(m);
    }
}

TEST_F(MessageValues, NextAttributeWithAListPositionOutsideTheMessage)
{
    CMP_LDAP_MESSAGE *m = make_message(full_entry());
    void *it = nullptr;
    ASSERT_NE(cmp_ldap_first_attribute(&ld, m, &it), nullptr);
    m->cmp_ldap_attrs_pos = m->cmp_ldap_total_size;
    EXPECT_EQ(cmp_ldap_next_attribute(&ld, m, it), nullptr);
    EXPECT_EQ(ld.ld_errno, CMP_LDAP_DECODING_ERROR);
    EXPECT_LOG(lines_of("cmp_ldap_next_attribute"),
               plus(Lines{"cmp_ldap_next_attribute(): Cannot get next attributes pos.\n"},
                    dump_of("cmp_ldap_next_attribute", &ld)));
    support::free_block(m);
}

TEST_F(MessageValues, DnOfAnEntry)
{
    CMP_LDAP_MESSAGE *m = make_message(full_entry());
    ld.ld_errno = 77;
    char *dn = cmp_ldap_get_dn(&ld, m);
    ASSERT_NE(dn, nullptr);
    EXPECT_EQ(dn, kDn);
    EXPECT_EQ(fake::alloc_sizes().back(), kDn.size() + 1);
    cmp_ldap_dn_free(dn);
    EXPECT_EQ(ld.ld_errno, 77);
    EXPECT_TRUE(lines().empty());
    support::free_block(m);
}

TEST_F(MessageValues, DnFailures)
{
    struct Case {
        const char *what;
        Bytes pdu;
        int32_t errno_after;
        std::string line; /* "%p" stands for the message */
    };
    const Case cases[] = {
        {"corrupt envelope", hex("02 03 02 01 02"), CMP_LDAP_DECODING_ERROR,
         "cmp_ldap_get_dn(): Failed to extract CMP_LDAP_MESSAGE.\n"},
        {"SearchResultDone", ber::result(2, 0x65, 0, "", ""), CMP_LDAP_DECODING_ERROR,
         "cmp_ldap_get_dn(): It's not CMP_LDAP_RES_SEARCH_ENTRY (application=5).\n"},
        {"operation tag is the last octet", hex("30 04 02 01 02 64"), CMP_LDAP_DECODING_ERROR,
         "cmp_ldap_get_dn(): Failed to retrieve [APPLICATION 4] content.\n"},
        {"objectName is an INTEGER",
         ber::message(2, 0x64, ber::cat({hex("02 01 05"), hex("30 00")})), CMP_LDAP_NO_MEMORY,
         "cmp_ldap_get_dn(): Failed to retrieve objectName:STRING.mes=%p.\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        fake::clear_log();
        CMP_LDAP_MESSAGE *m = make_message(c.pdu);
        ld.ld_errno = 77;
        EXPECT_EQ(cmp_ldap_get_dn(&ld, m), nullptr);
        EXPECT_EQ(ld.ld_errno, c.errno_after);
        std::string line = c.line;
        size_t at = line.find("%p");
        if (at != std::string::npos) line.replace(at, 2, ptr(m));
        EXPECT_LOG(lines_of("cmp_ldap_get_dn"), plus(Lines{line}, dump_of("cmp_ldap_get_dn", &ld)));
        support::free_block(m);
    }
    /* an allocation failure takes the objectName path as well */
    CMP_LDAP_MESSAGE *m = make_message(full_entry());
    fake::arm_alloc_failure(1);
    EXPECT_EQ(cmp_ldap_get_dn(&ld, m), nullptr);
    EXPECT_EQ(ld.ld_errno, CMP_LDAP_NO_MEMORY);
    support::free_block(m);
}

}  // namespace
