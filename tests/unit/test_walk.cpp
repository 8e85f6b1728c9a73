/* Walking an entry: the values of each attribute asked for with the name buffer that
 * first/next_attribute filled are exactly those asked for with a copy of the name (the
 * first attribute of that name wins), whatever the types: repeated in other cases,
 * holding a NUL, too long to leave room after them, or many. */
#include <string>
#include <tuple>
#include <vector>

#include "cmp_ldap_internal.h"
#include "support.h"

using namespace support;

namespace {

Bytes attr(const std::string &type, const std::vector<std::string> &values)
{
    Bytes set;
    for (const std::string &v : values)
        set = set + octets(v);
    return tlv(0x30, octets(type) + tlv(0x31, set));
}

/* Every value array of an entry, as the walk reads them, or "null:<ld_errno>". */
std::vector<std::string> walk(CMP_LDAP_MESSAGE *m, bool with_copy)
{
    CMP_LDAP ld{};
    std::vector<std::string> seen;
    void *cursor = nullptr;
    for (char *name = cmp_ldap_first_attribute(&ld, m, &cursor); name != nullptr;
         name = cmp_ldap_next_attribute(&ld, m, cursor)) {
        const std::string copy(name);
        for (int binary = 0; binary < 2; ++binary) {
            ld.ld_errno = 0;
            void **vals = cmp_ldap_get_values_both(&ld, m, with_copy ? copy.c_str() : name, binary);
            std::string got = vals == nullptr ? "null:" + std::to_string(ld.ld_errno) : "";
            for (int i = 0; vals != nullptr && vals[i] != nullptr; ++i) {
                auto *v = static_cast<CMP_LDAP_BERVAL *>(vals[i]);
                got += binary ? std::string(reinterpret_cast<const char *>(v->data), v->total_size)
                              : std::string(static_cast<const char *>(vals[i]));
                got += "|";
            }
            if (vals != nullptr) cmp_ldap_value_free(reinterpret_cast<char **>(vals));
            seen.push_back(copy + "=" + got);
        }
    }
    return seen;
}

class Walk : public FakePortTest {};

TEST_F(Walk, TheBufferFindsWhatACopyOfTheNameFinds)
{
    const std::string nul("cn\0x", 4), longer(350, 'a');
    Bytes many;
    for (int i = 0; i < 70; ++i)
        many = many + attr("t" + std::to_string(i), {std::to_string(i)});
    /* what, the attributes, the walk's value arrays (empty: checked below) */
    const std::tuple<const char *, Bytes, std::vector<std::string>> cases[] = {
        {"repeated",
         attr("cn", {"a"}) + attr("mail", {"m"}) + attr("CN", {"b"}) + attr("Cn", {}),
         {"cn=a|", "cn=a|", "mail=m|", "mail=m|", "CN=a|", "CN=a|", "Cn=a|", "Cn=a|"}},
        {"nul", attr(nul, {"x"}) + attr("cn", {"y"}), {"cn=x|", "cn=x|", "cn=x|", "cn=x|"}},
        {"long",
         attr(longer, {"1"}) + attr("cn", {"2"}) + attr(longer, {"3"}),
         {longer + "=1|", longer + "=1|", "cn=2|", "cn=2|", longer + "=1|", longer + "=1|"}},
        {"many", many + attr("t3", {"again"}) + attr("T69", {"again"}), {}},
    };
    for (const auto &[what, attrs, want_first] : cases) {
        const Bytes pdu =
            tlv(0x30, Bytes{0x02, 0x01, 0x02} + tlv(0x64, octets("o=x") + tlv(0x30, attrs)));
        CMP_LDAP_MESSAGE *m = make_message(pdu);
        const std::vector<std::string> by_buffer = walk(m, false);
        const std::vector<std::string> by_copy = walk(m, true);
        EXPECT_EQ(by_buffer, by_copy) << what;
        if (!want_first.empty()) {
            EXPECT_EQ(by_buffer, want_first) << what;
        } else {
            /* 70 distinct names, then two that repeat earlier ones (t3, and t69 as T69). */
            ASSERT_EQ(by_buffer.size(), 144u);
            EXPECT_EQ(by_buffer[140], "t3=3|");
            EXPECT_EQ(by_buffer[142], "T69=69|");
        }
        cmp_ldap_msgfree(m);
    }
}

}  // namespace
