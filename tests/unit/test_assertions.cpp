/* Programmer errors (a null the caller must never pass, all other than 0) stop the
 * program through the C library's assertion failure, which names the source, the
 * function and the condition. One death test per assertion. */
#include <functional>
#include <regex>

#include "cmp_ldap_internal.h"
#include "support.h"

namespace {

const char kApi[] = "cmp_ldap/cmn_src/cmp_ldap_api", kSocket[] = "cmp_ldap/cmn_src/cmp_ldap_socket",
           kDecode[] = "cmp_ldap/cmn_src/cmp_ldap_decode";
const char kMes[] = "mes != ((void *)0)", kMesFirst[] = "((void *)0) != mes";
const char kMain[] = "cmp_ldap_open_with_timeout_main", kNumber[] = "cmp_ldap_ber_decode_number";

struct Row {
    std::function<void()> call;
    const char *function, *source, *text;
};

/* The assertion failure's line, "<source>:<line>: <function>: Assertion `<text>' failed",
 * as a pattern: the text's ( ) and * escaped. */
std::string failure(const Row &r)
{
    return std::string(r.source) + ":[0-9]+: " + r.function + ": Assertion `" +
           std::regex_replace(r.text, std::regex("[()*]"), "\\$&") + "' failed";
}

}  // namespace

/* A call, then the function it calls, in whose own name it must stop. */
#define CALL(function, ...) [&] { function(__VA_ARGS__); }, #function

TEST(AssertionDeathTest, NameSourceFunctionAndCondition)
{
    CMP_LDAP ld{};
    CMP_LDAP_CONN_PARAM p{}, named{};
    named.cmp_ldap_hostname = const_cast<char *>("h");
    CMP_LDAP *out = nullptr;
    CMP_LDAP_MESSAGE *res = nullptr;
    CMP_LDAP_TIMEVAL tv{0, 0};
    CMP_LDAP_MESSAGE_REC rec{};
    const CMP_LDAP_MESSAGE *const none = nullptr;
    uint32_t u = 0;
    char buf[8], *text = nullptr;
    CMP_LDAP_BERVAL *bv = nullptr;
    int32_t msgid = 0;
    CMP_LDAP_MESSAGE *msg = support::make_message(support::hex("30 03 02 01 01"));
    const Row rows[] = {
        {[&] { cmp_ldap_open_with_timeout(nullptr, &out); }, kMain, kApi, "param != ((void *)0)"},
        {[&] { cmp_ldap_open_with_timeout(&p, &out); }, kMain, kApi,
         "param->cmp_ldap_hostname != ((void *)0)"},
        {CALL(cmp_ldap_open_with_timeout_main, &named, nullptr, 0), kApi, "ldp != ((void *)0)"},
        {CALL(cmp_ldap_result, nullptr, 1, 0, &tv, &res), kApi, "((void *)0) != ld"},
        {CALL(cmp_ldap_result, &ld, 1, 1, &tv, &res), kApi, "0 == all"},
        {CALL(cmp_ldap_result, &ld, 1, 0, &tv, nullptr), kApi, "((void *)0) != res"},
        {CALL(cmp_ldap_connect, nullptr, "h", 389, -1, 0, 0), kSocket, "ld != ((void *)0)"},
        {CALL(cmp_ldap_connect, &ld, nullptr, 389, -1, 0, 0), kSocket, "hostname != ((void *)0)"},
        {CALL(cmp_ldap_ber_get_tag, none, 0), kDecode, kMes},
        {CALL(cmp_ldap_ber_get_content_length, none, 0), kDecode, kMes},
        {CALL(cmp_ldap_ber_get_length_length, none, 0), kDecode, kMes},
        {CALL(cmp_ldap_ber_get_content, none, 0), kDecode, kMes},
        {CALL(cmp_ldap_ber_decode_string_stub, none, 0, &u, &u), kDecode, kMes},
        {CALL(cmp_ldap_ber_decode_string_to, none, 0, buf, 8), kDecode, kMes},
        {CALL(cmp_ldap_ber_decode_string, none, 0, &text), kDecode, kMes},
        {CALL(cmp_ldap_ber_decode_string_len, none, 0, &bv), kDecode, kMes},
        {CALL(cmp_ldap_ber_decode_number, none, 0, &u, 2), kDecode, kMes},
        /* ENUMERATED and INTEGER are the number decoder's, which asserts */
        {[&] { cmp_ldap_ber_decode_enum(none, 0, &u); }, kNumber, kDecode, kMes},
        {[&] { cmp_ldap_ber_decode_integer(none, 0, &u); }, kNumber, kDecode, kMes},
        {[&] { cmp_ldap_ber_decode_integer(msg, 2, nullptr); }, kNumber, kDecode,
         "value != ((void *)0)"},
        {CALL(cmp_ldap_ber_decode_attr_name_of_attribute, none, 0, buf, 8), kDecode, kMesFirst},
        {CALL(cmp_ldap_ber_decode_attr_name_of_attribute, msg, 0, nullptr, 8), kDecode,
         "((void *)0) != attrName"},
        {CALL(cmp_ldap_ber_decode_ldap_message, none, &rec), kDecode, kMes},
        {CALL(cmp_ldap_ber_decode_ldap_message, msg, nullptr), kDecode, "rec != ((void *)0)"},
        {CALL(cmp_ldap_ber_get_next, none, 0), kDecode, kMes},
        {CALL(cmp_ldap_ber_count_members, none, 0), kDecode, kMes},
        {CALL(cmp_ldap_ber_get_attr_pos_of_search_entry, none), kDecode, kMes},
        {CALL(cmp_ldap_ber_lookup_attribute_on_search_entry, none, "cn"), kDecode, kMesFirst},
        {CALL(cmp_ldap_ber_lookup_attribute_on_search_entry, msg, nullptr), kDecode,
         "((void *)0) != attr"},
#if TOVEISTROR_TEST_SASL
        {CALL(cmp_ldap_sasl_bind_s, nullptr, "GSSAPI", nullptr, nullptr, &msgid),
         "cmp_ldap/cmn_src/cmp_ldap_sasl", "((void *)0) != ld"},
        {CALL(cmp_ldap_sasl_bind_s, &ld, "GSSAPI", nullptr, nullptr, nullptr),
         "cmp_ldap/cmn_src/cmp_ldap_sasl", "((void *)0) != msgid"},
#endif
    };
    for (const Row &r : rows)
        EXPECT_DEATH(r.call(), failure(r)) << r.function << ": " << r.text;
    support::free_block(msg);
}
