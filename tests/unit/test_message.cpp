/* The message accessors: entries, attributes, values, DNs, result codes and
 * result2error, identity, exploded DNs and referrals. */
#include <algorithm>
#include <tuple>
#include <utility>

#include "cmp_ldap_internal.h"
#include "support.h"

using namespace support;
using Lines = std::vector<std::string>;

namespace {

Bytes oss(std::initializer_list<std::string> texts) /* OCTET STRINGs in a row */
{
    Bytes out;
    for (const std::string &t : texts)
        out = out + octets(t);
    return out;
}
Bytes msg(uint8_t op, const Bytes &content, uint8_t id = 2)
{
    return tlv(0x30, Bytes{0x02, 0x01, id} + tlv(op, content));
}
Bytes attr(const std::string &type, std::initializer_list<std::string> values)
{
    return tlv(0x30, oss({type}) + tlv(0x31, oss(values)));
}
Bytes entry(const Bytes &attrs, const std::string &dn = "o=x")
{
    return msg(0x64, oss({dn}) + tlv(0x30, attrs));
}
Bytes result(uint8_t op, uint8_t code, const std::string &text, const Bytes &tail = {},
             const std::string &matched = "")
{
    return msg(op, Bytes{0x0a, 0x01, code} + oss({matched, text}) + tail);
}

const std::string kEntryDn = "cn=John,ou=People,dc=ex", kBinary("\x00\x01\x00\xff", 4);
const Lines kNames = {"objectClass", "cn;binary", "CN", "mail", "empty", "sn"};
/* The prefix runs read the last attribute, so every prefix cuts it. */
const Bytes kEntry = entry(attr("objectClass", {"top", "person"}) + attr("cn;binary", {kBinary}) +
                               attr("CN", {"John"}) + attr("mail", {}) + attr("empty", {""}) +
                               attr("sn", {"Doe", "X"}),
                           kEntryDn);
const Bytes kDone = result(0x65, 32, "no such entry", {}, "ou=People,dc=ex");
const Bytes kReferral = result(0x65, 10, "see", tlv(0xa3, oss({"ldap://a/", "ldap://b/"})));
const Bytes kReference = msg(0x73, oss({"ldap://h1/o=a??sub", "ldap://h2/o=b"}), 9);
const Bytes kBind = hex("30 0C 02 01 01 61 07 0A 01 00 04 00 04 00");

std::string str(const char *s)
{
    return s ? s : "(null)";
}
void release(CMP_LDAP &h)
{
    for (char **t : {&h.ld_matched, &h.ld_error, &h.ld_referral})
        free_block(std::exchange(*t, nullptr));
}

enum Op { kVal, kBin, kDn, kRefs, kR2e, kKeep, kWalk, kWalk2, kId, kType, kFree, kDns, kDns1 };
/* kKeep: result2error with freeit 0; kWalk2: a walk that fails in next_attribute;
 * kDns(1): explode_dn with notypes 0 (1) */
const char *const kFn[] = {
    "get_values_both", "get_values_both", "get_dn",         "get_referrals", "result2error",
    "result2error",    "first_attribute", "next_attribute", "msgid",         "msgtype",
    "msgfree",         "explode_dn",      "explode_dn"};
Lines g_out; /* what the last run() produced */

/* Runs one accessor, keeps a copy of its result in g_out and releases it: -1 for
 * null, else the item count (or code). m becomes null once the call released it. */
long run(Op op, CMP_LDAP &h, CMP_LDAP_MESSAGE *&m, const char *arg = "x")
{
    g_out.clear();
    void *it = nullptr;
    int32_t size = m ? m->cmp_ldap_total_size : 0; /* result2error releases it past 5 octets */
    if (op == kR2e || op == kKeep)
        return cmp_ldap_result2error(&h, op == kR2e && size >= 6 ? std::exchange(m, nullptr) : m,
                                     op == kR2e);
    if (op == kFree) return cmp_ldap_msgfree(std::exchange(m, nullptr));
    if (op == kId) return cmp_ldap_msgid(m);
    if (op == kType) return cmp_ldap_msgtype(m);
    if (op == kWalk || op == kWalk2) {
        for (char *a = cmp_ldap_first_attribute(&h, m, &it); a && g_out.size() < 9;
             a = cmp_ldap_next_attribute(&h, m, it))
            g_out.push_back(a);
        return (long)g_out.size();
    }
    if (op == kDn) {
        char *dn = cmp_ldap_get_dn(&h, m);
        g_out.assign(dn ? 1 : 0, str(dn));
        return dn ? cmp_ldap_dn_free(dn) + 1 : -1;
    }
    if (op == kBin) {
        CMP_LDAP_BERVAL **v = cmp_ldap_get_values_binary(&h, m, arg);
        for (CMP_LDAP_BERVAL **p = v; p && *p; ++p)
            g_out.emplace_back((const char *)(*p)->data, (*p)->total_size);
        if (v == nullptr) return -1;
        EXPECT_EQ(cmp_ldap_count_values_binary(v), (int)g_out.size());
        return cmp_ldap_value_free_binary(v);
    }
    char **texts = op == kVal    ? cmp_ldap_get_values(&h, m, arg)
                   : op == kRefs ? cmp_ldap_get_referrals(&h, m)
                                 : cmp_ldap_explode_dn(arg, op == kDns1);
    for (char **p = texts; p && *p; ++p)
        g_out.push_back(*p);
    if (texts == nullptr) return -1;
    EXPECT_EQ(cmp_ldap_count_values(texts), (int)g_out.size());
    return cmp_ldap_value_free(texts);
}

/* cmp_ldap_<fn>'s log since the last clear, lines whole (whole), without the
 * "cmp_ldap_<fn>(): " heads, a handle dump (the trace tests' business) as "[dump]", m as
 * "%p". Clears the log. */
std::string log_of(const std::string &fn, const void *m = nullptr)
{
    const std::string head = "cmp_ldap_" + fn + "(): ";
    char p[32];
    snprintf(p, sizeof p, "%p", m);
    std::string out;
    for (const fake::LogLine &line : fake::log()) {
        std::string l = whole(line);
        if (l.compare(0, head.size(), head) != 0 || l.find("(): ld: ld_errno=") != l.npos) continue;
        l.erase(0, head.size());
        if (m != nullptr && l.find(p) != l.npos) l.replace(l.find(p), strlen(p), "%p");
        out += l.compare(0, 11, "ld: ld_mid=") == 0 || l == "ld=NULL\n" ? "[dump]" : l;
    }
    fake::clear_log();
    return out;
}

class Message : public FakePortTest {
  protected:
    void TearDown() override
    {
        release(ld);
        FakePortTest::TearDown();
    }
    /* A parameter error: this result (null, 0 for counts), ld_errno untouched, this log. */
    template <typename T>
    void bad(T got, const char *fn, const std::string &log, T want = T{})
    {
        EXPECT_EQ(got, want) << fn;
        EXPECT_EQ(ld.ld_errno, 77) << fn;
        EXPECT_EQ(log_of(fn, mes), log);
    }
    /* run() on the handle: "<result>|<item>|<item>..." */
    std::string got(Op op, CMP_LDAP_MESSAGE *&m, const char *arg = "x")
    {
        std::string out = std::to_string(run(op, ld, m, arg));
        for (const std::string &item : g_out)
            out += "|" + item;
        return out;
    }
    CMP_LDAP ld{};
    CMP_LDAP_MESSAGE *mes = nullptr;
};

TEST_F(Message, ReadsWholeMessages)
{
    CMP_LDAP_MESSAGE *m = make_message(kEntry);
    EXPECT_EQ(cmp_ldap_first_entry(&ld, m), m);
    EXPECT_EQ(cmp_ldap_next_entry(&ld, m), nullptr);
    EXPECT_EQ(cmp_ldap_count_entries(&ld, m), 1); /* whatever the message */
    ld.ld_errno = 77;
    EXPECT_EQ(got(kWalk, m), "6|objectClass|cn;binary|CN|mail|empty|sn");
    EXPECT_EQ(ld.ld_errno, 0); /* set by every next_attribute; the end of the list leaves it */
    void *it = nullptr;
    ld.ld_errno = 77;
    EXPECT_STREQ(cmp_ldap_first_attribute(&ld, m, &it), "objectClass");
    EXPECT_EQ(it, m);
    auto sizes_since = [](size_t from) { /* what the last call allocated */
                                         const std::vector<uint32_t> all = fake::alloc_sizes();
                                         return std::vector<uint32_t>(all.begin() + (long)from,
                                                                      all.end());
    };
    const uint32_t ptr = sizeof(void *);
    size_t from = fake::alloc_sizes().size();
    EXPECT_EQ(got(kVal, m, "objectClass"), "2|top|person");
    EXPECT_EQ(sizes_since(from), (std::vector<uint32_t>{385, 3 * ptr, 4, 7})); /* name, array */
    EXPECT_EQ(got(kVal, m, "cn"), "1|John");                                   /* not cn;binary */
    EXPECT_EQ(got(kVal, m, "MAIL"), "0");
    EXPECT_EQ(got(kVal, m, "empty"), "1|");
    EXPECT_EQ(got(kBin, m, "CN;BINARY"), "1|" + kBinary);
    EXPECT_EQ(got(kBin, m, "empty"), "1|");
    EXPECT_EQ(got(kDn, m), "1|" + kEntryDn);
    from = fake::alloc_sizes().size();
    EXPECT_EQ(got(kDns, m, "cn=John,ou=People,dc=ex"), "3|cn=John|ou=People|dc=ex");
    EXPECT_EQ(sizes_since(from), (std::vector<uint32_t>{4 * ptr, 8, 10, 6}));
    EXPECT_EQ(got(kDns1, m, "cn=John,ou=People,dc=ex"), "3|John|People|ex");
    /* a plain split at every comma: no escapes, no trimming, deliberately */
    EXPECT_EQ(got(kDns1, m, "a,b=c"), "2|a|c");
    EXPECT_EQ(got(kDns1, m, "cn=x\\,y,o=z"), "3|x\\|y|z");
    EXPECT_EQ(got(kDns, m, ""), "1|");
    EXPECT_EQ(got(kDns, m, "cn=a, o=b"), "2|cn=a| o=b");
    EXPECT_EQ(run(kFree, ld, m), CMP_LDAP_RES_SEARCH_ENTRY);

    m = make_message(msg(0x65, hex("0A 01 00 04 00 04 00"), 44));
    EXPECT_EQ(run(kId, ld, m), 44);
    EXPECT_EQ(run(kType, ld, m), CMP_LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(run(kFree, ld, m), CMP_LDAP_RES_SEARCH_RESULT);
    m = make_message(kReference);
    EXPECT_EQ(got(kRefs, m), "2|ldap://h1/o=a??sub|ldap://h2/o=b");
    EXPECT_EQ(run(kFree, ld, m), CMP_LDAP_RES_SEARCH_REFERENCE);
    m = make_message(msg(0x73, {}));
    EXPECT_EQ(run(kRefs, ld, m), 0); /* an array holding only the terminator */
    free_block(m);
    EXPECT_EQ(ld.ld_errno, 77);
    EXPECT_TRUE(fake::log_texts().empty());

    m = make_message(entry({}));
    EXPECT_EQ(got(kWalk, m), "0"); /* no attributes: a clean end */
    EXPECT_EQ(ld.ld_errno, 0);
    m->cmp_ldap_attrs_pos = m->cmp_ldap_total_size; /* only a corrupted cursor gets there */
    EXPECT_EQ(cmp_ldap_next_attribute(&ld, m, m), nullptr);
    EXPECT_EQ(ld.ld_errno, CMP_LDAP_DECODING_ERROR);
    EXPECT_EQ(log_of("next_attribute"), "Cannot get next attributes pos.\n[dump]");
    free_block(m);
}

#define NUL "parameter error (next either is NULL: "

#define VALS "[dump]mes=%p,attr=x,binary=0.\n"
#define R2E "mes=%p,freeit=1.\n[dump]"

TEST_F(Message, FailuresLogAndSetErrno)
{
    const Bytes x = oss({"x"}), no_env = hex("30 05 02 01 07 04 00");
    const Bytes unsteppable = hex("30 85 00 00 00 00 06") + oss({"sn"}) + hex("31 00");
    const std::string ident = "Failed to extract CMP_LDAP_MESSAGE.\n";
    const std::tuple<Op, Bytes, int32_t, std::string> rows[] = {
        {kVal, kEntry, 259, "Failed to find the attribute.\n" VALS},
        {kBin, entry(tlv(0x30, x + hex("31 85 00 00 00 00 03") + x)), 259,
         "Failed to count number of values.\n[dump]mes=%p,attr=x,binary=1.\n"},
        {kVal, entry(tlv(0x30, x + tlv(0x31, x + hex("02 01 05")))), 265,
         "Failed to get decode value string. currentPos=24.\n" VALS},
        {kDn, hex("02 03 02 01 02"), 259, ident + "[dump]"},
        {kDn, kDone, 259, "It's not CMP_LDAP_RES_SEARCH_ENTRY (application=5).\n[dump]"},
        {kDn, hex("30 04 02 01 02 64"), 259, "Failed to retrieve [APPLICATION 4] content.\n[dump]"},
        {kDn, msg(0x64, hex("02 01 05 30 00")), 265,
         "Failed to retrieve objectName:STRING.mes=%p.\n[dump]"},
        {kWalk, kDone, 259, "Failed to get attributes position.\n[dump]"},
        {kWalk, hex("30 0C 02 01 02 64 07 04 03 6F 3D 78 30"), 259,
         "Failed to get first attributes.\n[dump]"},
        {kWalk, entry(attr(std::string(385, 'a'), {})), 259,
         "Failed to get attribute name.\n[dump]"},
        {kWalk, entry(unsteppable), 259, "Failed to get next position.\n[dump]"},
        {kWalk2, entry(attr("cn", {}) + hex("30 05 02 01 05 31 00")), 259,
         "Failed to get attribute name.\n[dump]"},
        {kWalk2, entry(attr("cn", {}) + unsteppable), 259, "Failed to get next position.\n[dump]"},
        {kRefs, hex("31 03 02 01 09"), 259, "Failed to get CMP_LDAP_MESSAGE.\n[dump]"},
        {kRefs, kDone, 259, "This is not referral message (application=5).\n[dump]"},
        {kRefs, hex("30 0A 02 01 09 73 85 00 00 00 00 00"), 259,
         "Failed to count number of referrals.\n[dump]"},
        {kRefs, msg(0x73, oss({"ldap://a/"}) + hex("02 01 05")), 265,
         "Failed to get decode referral string. currentPos=18.\n[dump]"},
        {kR2e, result(0x67, 0, ""), 259, "Illegal message (application=7).\n" R2E}, /* released */
        {kKeep, result(0x67, 0, ""), 259,
         "Illegal message (application=7).\nmes=%p,freeit=0.\n[dump]"},
        /* entries and references pass the type check and fail on the code, deliberately */
        {kR2e, kEntry, 259, "Failed to get ResultCode.\n" R2E},
        {kR2e, kReference, 259, "Failed to get ResultCode.\n" R2E},
        {kR2e, hex("02 04 02 01 06 65 00"), 259, "Failed to get CMP_LDAP_MESSAGE.\n" R2E},
        {kR2e, hex("30 04 02 01 06 65"), 259, "Failed to get BindResponses.\n" R2E},
        {kR2e, hex("30 0A 02 01 06 65 05 0A 01 00 04 05 61"), 259,
         "Failed to get ld_matched.\n" R2E},
        {kR2e, hex("30 0D 02 01 06 65 08 0A 01 00 04 00 02 01 05"), 259,
         "Failed to get ld_error.\n" R2E},
        {kId, no_env, 77, ident},
        {kType, no_env, 77, ident},
        {kFree, no_env, 77, "Failed to extract LDAPMessag.\n"}, /* released all the same */
        /* no message (an empty PDU here), or one too short: refused, ld_errno untouched */
        {kVal, {}, 77, NUL "ld,mes,attr) (mes=(nil),attr=x,binary=0).\n[dump]"},
        {kBin, {}, 77, NUL "ld,mes,attr) (mes=(nil),attr=x,binary=1).\n[dump]"},
        {kDn, {}, 77, NUL "ld,mes) (mes=(nil)).\n[dump]"},
        {kRefs, {}, 77, NUL "ld,mes) (mes=(nil)).\n[dump]"},
        {kKeep, {}, 77, "parameter error (mes=NULL) (freeit=0).\n[dump]"},
        {kR2e, hex("30 03 02 01 01"), 77,
         "total_size parameter error (total_size=5,mes=%p,freeit=1).\n[dump]"}, /* kept */
        {kId, {}, 77, "parameter error.\n"},
        {kType, {}, 77, "parameter error.\n"},
        {kFree, {}, 77, "parameter error.\n"},
    };
    for (const auto &[op, pdu, err, log] : rows) {
        SCOPED_TRACE(log);
        CMP_LDAP_MESSAGE *m = pdu.empty() ? nullptr : make_message(pdu), *was = m;
        fake::clear_log();
        ld.ld_errno = 77;
        EXPECT_EQ(run(op, ld, m), op == kWalk ? 0 : op == kWalk2 ? 1 : -1);
        EXPECT_EQ(ld.ld_errno, err);
        EXPECT_EQ(log_of(kFn[op], was), log);
        free_block(m); /* null when the call released it */
        release(ld);
    }
    /* parameter errors: null (or 0, or -1), ld_errno untouched */
    CMP_LDAP_MESSAGE *m = mes = make_message(kEntry);
    ld.ld_errno = 77;
    bad(cmp_ldap_first_entry(&ld, nullptr), "first_entry", NUL "ld,res) (res=(nil)).\n[dump]");
    bad(cmp_ldap_count_entries(nullptr, m), "count_entries", NUL "ld,res) (res=%p).\n[dump]");
    bad(cmp_ldap_next_entry(&ld, nullptr), "next_entry", NUL "ld,entry) (entry=(nil)).\n[dump]");
    bad(cmp_ldap_first_attribute(&ld, m, nullptr), "first_attribute", /* no blank, kept */
        "parameter error (next either is NULL:ld,mes,ptr) (mes=%p,ptr=(nil)).\n[dump]");
    bad(cmp_ldap_next_attribute(&ld, m, nullptr), "next_attribute",
        NUL "ld,mes,ptr) (mes=%p,ptr=(nil)).\n[dump]");
    bad(cmp_ldap_get_values(&ld, m, nullptr), "get_values_both",
        NUL "ld,mes,attr) (mes=%p,attr=(null),binary=0).\n[dump]");
    bad(cmp_ldap_get_referrals(nullptr, m), "get_referrals", NUL "ld,mes) (mes=%p).\n[dump]");
    bad(cmp_ldap_result2error(nullptr, m, 1), "result2error",
        "parameter error (ld=NULL) (mes=%p,freeit=1).\n", -1);
    bad(cmp_ldap_count_values(nullptr), "count_values", "parameter error.\n");
    bad(cmp_ldap_count_values_binary(nullptr), "count_values", "parameter error.\n");
    bad(cmp_ldap_value_free(nullptr), "value_free", "parameter error.\n");
    bad(cmp_ldap_value_free_binary(nullptr), "value_free", "parameter error.\n");
    bad(cmp_ldap_dn_free(nullptr), "dn_free", "parameter error.\n"); /* the log's 0, here */
    bad(cmp_ldap_explode_dn(nullptr, 1), "explode_dn", "parameter error (dn=NULL,notypes=1).\n");
    bad(cmp_ldap_substrcpy(nullptr, "x"), "substrcpy", "parameter error.\n");
    free_block(m);
}

TEST_F(Message, ResultCodesAndResult2error)
{
    const std::tuple<Bytes, int, int, const char *> rows[] = {
        {kDone, 1, 32, "ou=People,dc=ex|no such entry|old"}, /* the referral only for 10 */
        {kBind, 0, 0, "||old"},
        {result(0x78, 2, "unsupported", tlv(0x8a, {'1'})), 1, 2, "|unsupported|old"},
        {kReferral, 1, 10, "|see|ldap://a/"}, /* the first URL only, by design */
        {result(0x65, 10, "", hex("A3 81 0B") + oss({"ldap://a/"})), 1, 10, "||(null)"},
        {result(0x65, 10, ""), 1, 10, "||(null)"},
        {result(0x65, 10, "", hex("A3 00")), 1, 10, "||(null)"}, /* no URL: nothing decoded */
    };
    for (const auto &[pdu, freeit, rc, texts] : rows) {
        for (char **t : {&ld.ld_matched, &ld.ld_error, &ld.ld_referral})
            *t = cmp_ldap_strdup("old");
        CMP_LDAP_MESSAGE *m = make_message(pdu);
        EXPECT_EQ(cmp_ldap_result2error(&ld, m, freeit), rc);
        EXPECT_EQ(ld.ld_errno, rc);
        EXPECT_EQ(str(ld.ld_matched) + "|" + str(ld.ld_error) + "|" + str(ld.ld_referral), texts);
        if (!freeit) free_block(m); /* still ours */
        release(ld);
    }
    EXPECT_EQ(take_log(), /* only the long-form referral's, decoded at its length */
              "cmp_ldap_ber_decode_string_stub(): It's not correct type (tag.type = 11).\n");

    /* a SASL bind finished inside the library answers once, without the message */
    CMP_LDAP_MESSAGE *m = make_message(result(0x61, 49, ""));
    ld.ld_mid = ld.ld_sasl_msgid = 1;
    ld.ld_sasl_rc = 14;
    ld.ld_errno = 77;
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 1), 14);
    EXPECT_EQ(ld.ld_sasl_msgid, 0);
    EXPECT_EQ(ld.ld_sasl_rc, 0);
    EXPECT_EQ(ld.ld_errno, 77);
    EXPECT_EQ(cmp_ldap_result2error(&ld, m, 1), 49);

    std::string texts;
    for (int32_t code : {0, 1, 50, 265, 18, 34, 9, -1, 266, 285})
        texts += std::to_string(code) + "=" + cmp_ldap_err2string(code) + ";";
    /* the misspellings are the table's own; the terminator's -1 is never compared */
    EXPECT_EQ(texts,
              "0=Success;1=Operations error;50=Insufficient_accessrights;265=No "
              "memory;18=Inappropariate matching;"
              "34=Invalid distingished name syntax;9=Unknown error;-1=Unknown error;"
              "266=Unknown error;285=Unknown error;");
}

TEST_F(Message, EveryAllocationFailingInTurn)
{
    /* result and ld_errno with allocation k failing, k = 0 (none), 1, 2, ...; a failing
     * name buffer of the lookup fails the lookup */
    const std::tuple<Op, Bytes, const char *, std::vector<long>, std::vector<int>> rows[] = {
        {kVal, kEntry, "objectClass", {2, -1, -1, -1, -1}, {0, 259, 265, 265, 265}},
        {kBin, kEntry, "cn;binary", {1, -1, -1, -1}, {0, 259, 265, 265}},
        {kBin, kEntry, "mail", {0, -1, -1}, {0, 259, 265}},
        {kDn, kEntry, "", {1, -1}, {0, 265}},
        {kRefs, kReference, "", {2, -1, -1, -1}, {0, 265, 265, 265}},
        {kDns, {}, "cn=John,ou=People,dc=ex", {3, -1, -1, -1, -1}, {0, 0, 0, 0, 0}},
        {kR2e, kDone, "", {32, -1, -1}, {32, 259, 259}},
        {kR2e, kReferral, "", {10, -1, -1, 10}, {10, 259, 259, 10}}, /* a URL lost is no failure */
    };
    for (const auto &row : rows) {
        long n = sweep_alloc_failures([&](long k) {
            auto &[op, pdu, arg, rc, err] = row;
            CMP_LDAP h{};
            CMP_LDAP_MESSAGE *m = make_message(pdu);
            fake::arm_alloc_failure(k);
            EXPECT_EQ(run(op, h, m, arg), rc[k]) << kFn[op] << " " << arg << " failing " << k;
            EXPECT_EQ(h.ld_errno, err[k]) << kFn[op] << " " << arg << " failing " << k;
            EXPECT_EQ(bool(logged_whole(support::err(
                          -1, "cmp_ldap_get_referrals(): Failed to alloc referral-array.\n"))),
                      op == kRefs && k == 1); /* the one path only memory takes */
            free_block(m);
            release(h);
        });
        EXPECT_EQ(n + 1, (long)std::get<4>(row).size());
    }
}

/* Every proper prefix of real responses, in a block of PDU + 400 and in one that
 * ends at the PDU (AddressSanitizer sees any read past it), through every reader:
 * each fails cleanly unless the prefix still holds what it reads whole. */
TEST_F(Message, EveryTruncatedPrefix)
{
    auto end_of = [](const Bytes &b, const std::string &s) {
        return size_t(std::search(b.begin(), b.end(), s.begin(), s.end()) - b.begin()) + s.size();
    };
    const size_t dn_end = end_of(kEntry, kEntryDn), url_end = end_of(kReferral, "ldap://a/");
    for (const Bytes *pdu : {&kEntry, &kDone, &kReferral, &kReference, &kBind})
        for (auto make : {make_message, make_tight_message})
            for (size_t len = 0; len < pdu->size(); ++len)
                for (Op op : {kR2e, kKeep, kVal, kBin, kDn, kRefs, kWalk}) {
                    SCOPED_TRACE(testing::Message() << kFn[op] << " " << len << "/" << pdu->size());
                    CMP_LDAP_MESSAGE *m = make(Bytes(pdu->begin(), pdu->begin() + len));
                    ld.ld_errno = 77;
                    long rc = run(op, ld, m, "sn");
                    if (op == kR2e || op == kKeep) {
                        EXPECT_EQ(rc, pdu == &kReferral && rc == 10 ? 10 : -1);
                        EXPECT_EQ(ld.ld_errno, len < 6 ? 77 : rc == -1 ? 259 : 10);
                        EXPECT_EQ(str(ld.ld_referral),
                                  rc == 10 && len >= url_end ? "ldap://a/" : "(null)");
                    } else if (op == kWalk) {
                        ASSERT_LE(g_out.size(), kNames.size()); /* the names before the cut */
                        EXPECT_EQ(g_out, Lines(kNames.begin(), kNames.begin() + g_out.size()));
                        EXPECT_EQ(ld.ld_errno, rc == (long)kNames.size() ? 0 : 259);
                    } else if (op == kDn && pdu == &kEntry && len >= dn_end) {
                        EXPECT_EQ(g_out, Lines{kEntryDn});
                        EXPECT_EQ(ld.ld_errno, 77);
                    } else {
                        EXPECT_EQ(rc, -1);
                        EXPECT_TRUE(ld.ld_errno == 259 || ld.ld_errno == 265) << ld.ld_errno;
                    }
                    free_block(m);
                    release(ld);
                }
    /* declared lengths that would carry a 32-bit position past 2 GiB */
    const Bytes huge = hex("04 84 7F FF FF F0 61 04 01 62");
    for (const Bytes &pdu : {entry(tlv(0x30, oss({"x"}) + tlv(0x31, huge))), msg(0x73, huge),
                             entry(hex("30 84 7F FF FF F0 04 01 78 31 00") + attr("x", {"a"}))})
        for (auto make : {make_message, make_tight_message})
            for (Op op : {kVal, kBin, kRefs, kWalk}) {
                CMP_LDAP_MESSAGE *m = make(pdu);
                EXPECT_LE(run(op, ld, m), op == kWalk ? 2 : 0); /* an empty SET at most */
                free_block(m);
            }
}

}  // namespace
