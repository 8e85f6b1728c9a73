/*
 * Test-side helpers of the message accessor tests: a tiny BER builder for the
 * responses a server sends, and small utilities over the handle and the log.
 */
#ifndef TOVEISTROR_TEST_MESSAGE_BER_H
#define TOVEISTROR_TEST_MESSAGE_BER_H

#include <stdio.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "cmp_ldap.h"
#include "support.h"

namespace ber {

using Bytes = support::Bytes;

/* tag, definite length (short or long form as small as fits), content */
inline Bytes tlv(uint8_t tag, const Bytes &content)
{
    Bytes out{tag};
    size_t n = content.size();
    if (n < 0x80) {
        out.push_back((uint8_t)n);
    } else if (n < 0x100) {
        out.push_back(0x81);
        out.push_back((uint8_t)n);
    } else {
        out.push_back(0x82);
        out.push_back((uint8_t)(n >> 8));
        out.push_back((uint8_t)n);
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

inline Bytes cat(const std::vector<Bytes> &parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

inline Bytes os(const std::string &s, uint8_t tag = 0x04)
{
    return tlv(tag, Bytes(s.begin(), s.end()));
}

inline Bytes small_int(uint8_t tag, uint8_t v)
{
    return Bytes{tag, 0x01, v};
}

/* LDAPMessage ::= SEQUENCE { messageID, protocolOp } */
inline Bytes message(uint8_t id, uint8_t op_tag, const Bytes &op_content)
{
    return tlv(0x30, cat({small_int(0x02, id), tlv(op_tag, op_content)}));
}

/* PartialAttribute ::= SEQUENCE { type, vals SET OF value } */
inline Bytes attribute(const std::string &type, const std::vector<std::string> &values)
{
    std::vector<Bytes> vals;
    for (const std::string &v : values)
        vals.push_back(os(v));
    return tlv(0x30, cat({os(type), tlv(0x31, cat(vals))}));
}

inline Bytes entry(uint8_t id, const std::string &dn, const std::vector<Bytes> &attributes)
{
    return message(id, 0x64, cat({os(dn), tlv(0x30, cat(attributes))}));
}

/* LDAPResult components, then whatever the response type adds. */
inline Bytes result(uint8_t id, uint8_t op_tag, uint8_t code, const std::string &matched,
                    const std::string &diagnostic, const Bytes &tail = {})
{
    return message(id, op_tag, cat({small_int(0x0a, code), os(matched), os(diagnostic), tail}));
}

inline Bytes reference(uint8_t id, const std::vector<std::string> &urls)
{
    std::vector<Bytes> parts;
    for (const std::string &u : urls)
        parts.push_back(os(u));
    return message(id, 0x73, cat(parts));
}

}  // namespace ber

namespace msgtest {

inline std::string ptr(const void *p)
{
    char buf[32];
    snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

/* The log lines written under one function's name, in order. */
inline std::vector<std::string> lines_of(const std::string &function)
{
    std::vector<std::string> out;
    const std::string head = function + "(): ";
    for (const std::string &l : fake::log_texts())
        if (l.compare(0, head.size(), head) == 0) out.push_back(l);
    return out;
}

/* The two dump lines the handle dump writes for this state (the dump's own
 * format is covered by the utility tests). */
inline std::vector<std::string> dump_of(const std::string &function, const CMP_LDAP *ld)
{
    size_t before = fake::log().size();
    cmp_ldap_gentrace_ld(function.c_str(), ld);
    std::vector<std::string> out;
    for (size_t i = before; i < fake::log().size(); ++i)
        out.push_back(fake::log()[i].text);
    return out;
}

inline std::vector<std::string> plus(std::vector<std::string> a, const std::vector<std::string> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/* Releases what result2error left in a handle kept on the stack. */
inline void release_texts(CMP_LDAP &ld)
{
    support::free_block(ld.ld_matched);
    support::free_block(ld.ld_error);
    support::free_block(ld.ld_referral);
    ld.ld_matched = ld.ld_error = ld.ld_referral = nullptr;
}

inline char *owned(const char *text)
{
    return cmp_ldap_strdup(text);
}

/* A zeroed handle on the stack; texts that result2error leaves are released. */
class HandleTest : public support::FakePortTest {
  protected:
    void SetUp() override
    {
        support::FakePortTest::SetUp();
        memset(&ld, 0, sizeof ld);
    }
    void TearDown() override
    {
        release_texts(ld);
        support::FakePortTest::TearDown();
    }
    CMP_LDAP ld;
};

}  // namespace msgtest

/* The log is read before the expectation is built: building it with dump_of
 * writes further lines. */
#define EXPECT_LOG(actual, expected)                  \
    do {                                              \
        std::vector<std::string> got_log_ = (actual); \
        EXPECT_EQ(got_log_, (expected));              \
    } while (0)

#endif
