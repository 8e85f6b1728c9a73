/*
 * Shared helpers of the unit tests: the fixture that resets the fake port and
 * fails a test that leaks, whole log lines, hex byte strings, messages built the
 * way the PDU reader builds them, and the allocation-failure sweep.
 */
#ifndef TOVEISTROR_TEST_SUPPORT_H
#define TOVEISTROR_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <initializer_list>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "cmp_ldap.h"
#include "fake_port.h"
#include "zelOSW.h"

namespace fake {

/* Log lines compare whole and print whole when a check fails. */
inline bool operator==(const LogLine &a, const LogLine &b)
{
    return a.module == b.module && a.level == b.level && a.reserved == b.reserved && a.rc == b.rc &&
           a.text == b.text;
}
inline void PrintTo(const LogLine &l, std::ostream *os)
{
    *os << "{" << l.module << ", level " << l.level << ", " << l.reserved << ", rc " << l.rc
        << ", \"" << l.text.substr(0, l.text.find_last_not_of('\n') + 1) << "\"}";
}

}  // namespace fake

namespace support {

using Bytes = fake::Bytes;
using Log = std::vector<fake::LogLine>;

/* One whole line as the core writes it: module "CMP_LDAP", a level (0 errors and
 * dumps, 1 the trace of a request), the reserved 0, the result code it reports
 * (-1: none) and the text. */
inline fake::LogLine err(int32_t rc, const std::string &text)
{
    return fake::LogLine{"CMP_LDAP", 0, 0, rc, text};
}
inline fake::LogLine trace(const std::string &text)
{
    return fake::LogLine{"CMP_LDAP", 1, 0, -1, text};
}

/* Lines at level 0 that report no code, as dumps, decoders and accessors write them. */
inline Log uncoded(const std::vector<std::string> &texts)
{
    Log out;
    for (const std::string &t : texts)
        out.push_back(err(-1, t));
    return out;
}

inline ::testing::AssertionResult logged_whole(const fake::LogLine &want)
{
    for (const fake::LogLine &l : fake::log())
        if (l == want) return ::testing::AssertionSuccess();
    ::testing::AssertionResult r = ::testing::AssertionFailure();
    r << "not logged: " << ::testing::PrintToString(want) << "\nthe log:";
    for (const fake::LogLine &l : fake::log())
        r << "\n  " << ::testing::PrintToString(l);
    return r;
}

/* A line as a text for the decoders' and accessors' tables: a line at level 0 that
 * reports no code (all those write) is its text alone, any other is preceded by
 * "[module level reserved rc] ". */
inline std::string whole(const fake::LogLine &l)
{
    if (l == err(-1, l.text)) return l.text;
    return "[" + l.module + " " + std::to_string(l.level) + " " + std::to_string(l.reserved) + " " +
           std::to_string(l.rc) + "] " + l.text;
}

/* The log since the last clear as one text of whole() lines; clears it. */
inline std::string take_log()
{
    std::string out;
    for (const fake::LogLine &l : fake::log())
        out += whole(l);
    fake::clear_log();
    return out;
}

/* "30 05 02 01 05" -> bytes; blanks are optional. */
inline Bytes hex(const std::string &text)
{
    Bytes out;
    std::string digits;
    for (char c : text)
        if (!isspace((unsigned char)c)) digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back((uint8_t)strtoul(digits.substr(i, 2).c_str(), nullptr, 16));
    return out;
}

inline std::string to_hex(const Bytes &b)
{
    std::string out;
    char buf[4];
    for (size_t i = 0; i < b.size(); ++i) {
        snprintf(buf, sizeof buf, i ? " %02X" : "%02X", b[i]);
        out += buf;
    }
    return out;
}

/* Byte strings join with + (built by appending: GCC 12 on 32-bit ARM misreads
 * vector::insert of a short range as out of bounds). */
inline Bytes operator+(Bytes a, const Bytes &b)
{
    for (uint8_t c : b)
        a.push_back(c);
    return a;
}
/* Hand-built BER: tag, definite length (short, 81 or 82 form) and content. */
inline Bytes tlv(uint8_t tag, const Bytes &content)
{
    Bytes out{tag};
    const size_t n = content.size();
    if (n >= 0x80) out.push_back(n >= 0x100 ? 0x82 : 0x81);
    if (n >= 0x100) out.push_back(uint8_t(n >> 8));
    out.push_back(uint8_t(n));
    return out + content;
}
inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out = std::move(out) + p;
    return out;
}
/* An OCTET STRING holding s. */
inline Bytes octets(const std::string &s)
{
    return tlv(0x04, Bytes(s.begin(), s.end()));
}

/* A message held as the PDU reader holds one: one block of `size` octets from the
 * library's allocator, total size set, PDU copied to cmp_ldap_ber. Release it with
 * cmp_ldap_msgfree or zelOSWOrgFreeMemPart(0, m). */
inline CMP_LDAP_MESSAGE *message_in_block(const Bytes &pdu, size_t size)
{
    auto *m = static_cast<CMP_LDAP_MESSAGE *>(cmp_ldap_malloc("test", (uint32_t)size));
    if (m == nullptr) return nullptr;
    m->cmp_ldap_total_size = (int32_t)pdu.size();
    if (!pdu.empty())
        memcpy(reinterpret_cast<unsigned char *>(m) + offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber),
               pdu.data(), pdu.size());
    return m;
}
/* As the reader sizes it: PDU + 400 octets. */
inline CMP_LDAP_MESSAGE *make_message(const Bytes &pdu)
{
    return message_in_block(pdu, pdu.size() + 400);
}
/* A block that ends exactly at the end of the PDU: AddressSanitizer then catches
 * any read past it (the decoders must not rely on the 3 spare octets). */
inline CMP_LDAP_MESSAGE *make_tight_message(const Bytes &pdu)
{
    return message_in_block(pdu, offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber) + pdu.size());
}

inline void free_block(void *p)
{
    zelOSWOrgFreeMemPart(0, p);
}

/* Every test starts from a clean fake port and fails if it leaks a block,
 * a socket, a resolver result or a TLS object. */
class FakePortTest : public ::testing::Test {
  protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override
    {
        EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
        EXPECT_EQ(fake::open_sockets(), 0);
        EXPECT_EQ(fake::live_addrinfo(), 0);
        EXPECT_EQ(fake::live_tls_contexts(), 0);
        EXPECT_EQ(fake::live_tls_connections(), 0);
        EXPECT_EQ(fake::bad_pool_frees(), 0);
        fake::reset();
    }
};

/* The fail-malloc sweep: scenario(k) sets up what it needs (its own allocations
 * are not counted), calls fake::arm_alloc_failure(k) right before the operation
 * under test, runs it and checks the outcome, releasing whatever it got. k = 0 is
 * the counting run with no failure; then k = 1..N fails each allocation in turn.
 * After every run nothing may be left allocated. Returns N. */
inline long sweep_alloc_failures(const std::function<void(long k)> &scenario)
{
    long n = 0;
    for (long k = 0; k <= n; ++k) {
        fake::reset();
        scenario(k);
        if (k == 0) n = fake::allocs_since_arm();
        EXPECT_EQ(fake::live_blocks(), 0)
            << "leak with allocation " << k << " of " << n << " failing (0: the counting run):\n"
            << fake::live_block_report();
    }
    return n;
}

}  // namespace support

#endif
