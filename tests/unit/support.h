/*
 * Shared helpers of the unit tests: the fixture that resets the fake port and
 * fails a test that leaks, hex byte strings, messages built the way the PDU
 * reader builds them, and the allocation-failure sweep.
 */
#ifndef TOVEISTROR_TEST_SUPPORT_H
#define TOVEISTROR_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "cmp_ldap.h"
#include "fake_port.h"

namespace support {

using Bytes = fake::Bytes;

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

/* A message held exactly as the PDU reader holds one: one block of PDU + 400
 * octets from the library's allocator, total size set, PDU copied to cmp_ldap_ber.
 * Release it with cmp_ldap_msgfree or zelOSWOrgFreeMemPart(0, m). */
inline CMP_LDAP_MESSAGE *make_message(const Bytes &pdu)
{
    auto *m = static_cast<CMP_LDAP_MESSAGE *>(cmp_ldap_malloc("test", (uint32_t)pdu.size() + 400));
    if (m == nullptr) return nullptr;
    m->cmp_ldap_total_size = (int32_t)pdu.size();
    if (!pdu.empty())
        memcpy(reinterpret_cast<unsigned char *>(m) + offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber),
               pdu.data(), pdu.size());
    return m;
}

/* A message whose block ends exactly at the end of the PDU: AddressSanitizer then
 * catches any read past it (the decoders must not rely on the 3 spare octets). */
inline CMP_LDAP_MESSAGE *make_tight_message(const Bytes &pdu)
{
    size_t size = offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber) + pdu.size();
    auto *m = static_cast<CMP_LDAP_MESSAGE *>(cmp_ldap_malloc("test", (uint32_t)size));
    m->cmp_ldap_total_size = (int32_t)pdu.size();
    if (!pdu.empty())
        memcpy(reinterpret_cast<unsigned char *>(m) + offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber),
               pdu.data(), pdu.size());
    return m;
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
        EXPECT_EQ(fake::live_addrinfo(), 0);
        EXPECT_EQ(fake::live_tls_contexts(), 0);
        EXPECT_EQ(fake::live_tls_connections(), 0);
        EXPECT_EQ(fake::bad_pool_frees(), 0);
        fake::reset();
    }

    /* The log lines written since the last clear, texts only. */
    std::vector<std::string> lines() { return fake::log_texts(); }
};

/* The fail-malloc sweep: scenario(k) sets up what it needs (its own allocations
 * are not counted), calls fake::arm_alloc_failure(k) right before the operation
 * under test, runs it and checks the outcome, releasing whatever it got. k = 0 is
 * the counting run with no failure; then k = 1..N fails each allocation in turn.
 * After every run nothing may be left allocated. Returns N. */
inline long sweep_alloc_failures(const std::function<void(long k)> &scenario)
{
    fake::reset();
    scenario(0);
    long n = fake::allocs_since_arm();
    EXPECT_EQ(fake::live_blocks(), 0) << "counting run leaked:\n" << fake::live_block_report();
    for (long k = 1; k <= n; ++k) {
        fake::reset();
        scenario(k);
        EXPECT_EQ(fake::live_blocks(), 0)
            << "leak with allocation " << k << " of " << n << " failing:\n"
            << fake::live_block_report();
    }
    return n;
}

}  // namespace support

#endif
