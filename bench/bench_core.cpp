/*
 * What one search entry costs the client once its PDU has arrived: the walk a
 * caller does (DN, every attribute name, every value array, release), and what
 * one request costs to size and encode. The PDU reader's own cost is system
 * calls; the whole-process runs in bench/search_vs_ldapsearch.sh measure that.
 */
#include <benchmark/benchmark.h>
#include <string.h>

#include <string>
#include <vector>

#include "cmp_ldap.h"
#include "cmp_ldap_posix.h"
#include "zelOSW.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes tlv(unsigned char tag, const Bytes &content)
{
    Bytes out{tag};
    size_t n = content.size();
    if (n >= 128) { /* 0x82 and two octets: every element here is below 64 KiB */
        out.push_back(0x82);
        out.push_back((unsigned char)(n >> 8));
    }
    out.push_back((unsigned char)n);
    out.insert(out.end(), content.begin(), content.end());
    return out;
}
Bytes str(unsigned char tag, const std::string &s)
{
    return tlv(tag, Bytes(s.begin(), s.end()));
}
Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes attribute(const std::string &type, std::initializer_list<std::string> values)
{
    Bytes set;
    for (const std::string &v : values)
        set = cat({set, str(0x04, v)});
    return tlv(0x30, cat({str(0x04, type), tlv(0x31, set)}));
}

/* A person as ou=big holds them, plus a 1 KiB photo. */
Bytes entry_pdu()
{
    Bytes attrs =
        cat({attribute("objectClass", {"top", "person", "organizationalPerson", "inetOrgPerson"}),
             attribute("uid", {"user1234"}), attribute("cn", {"User 1234"}),
             attribute("sn", {"Number1234"}),
             attribute("mail", {"user1234@example.test", "u1234@mail.example.test"}),
             attribute("jpegPhoto", {std::string(1024, '\xA5')})});
    Bytes op =
        tlv(0x64, cat({str(0x04, "uid=user1234,ou=big,dc=example,dc=test"), tlv(0x30, attrs)}));
    return tlv(0x30, cat({Bytes{0x02, 0x01, 0x02}, op}));
}

CMP_LDAP_MESSAGE *hold(const Bytes &pdu)
{
    auto *m = static_cast<CMP_LDAP_MESSAGE *>(cmp_ldap_malloc("bench", (uint32_t)pdu.size() + 400));
    m->cmp_ldap_total_size = (int32_t)pdu.size();
    memcpy(reinterpret_cast<unsigned char *>(m) + offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber),
           pdu.data(), pdu.size());
    return m;
}

void BM_WalkEntry(benchmark::State &state)
{
    cmp_dbglog_posix_set_level(-1);
    CMP_LDAP ld{};
    const Bytes pdu = entry_pdu();
    CMP_LDAP_MESSAGE *m = hold(pdu);
    for (auto _ : state) {
        char *dn = cmp_ldap_get_dn(&ld, m);
        void *cursor = nullptr;
        for (char *name = cmp_ldap_first_attribute(&ld, m, &cursor); name != nullptr;
             name = cmp_ldap_next_attribute(&ld, m, cursor)) {
            char **values = cmp_ldap_get_values(&ld, m, name);
            benchmark::DoNotOptimize(values);
            cmp_ldap_value_free(values);
        }
        cmp_ldap_dn_free(dn);
    }
    zelOSWOrgFreeMemPart(0, m);
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * (int64_t)pdu.size());
}
BENCHMARK(BM_WalkEntry);

/* The attribute names alone: what a walk costs before any value is copied. */
void BM_AttributeNames(benchmark::State &state)
{
    CMP_LDAP ld{};
    CMP_LDAP_MESSAGE *m = hold(entry_pdu());
    for (auto _ : state) {
        void *cursor = nullptr;
        for (char *name = cmp_ldap_first_attribute(&ld, m, &cursor); name != nullptr;
             name = cmp_ldap_next_attribute(&ld, m, cursor))
            benchmark::DoNotOptimize(name);
    }
    zelOSWOrgFreeMemPart(0, m);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AttributeNames);

/* Parse, size, allocate, encode and release one search request. */
void BM_EncodeSearch(benchmark::State &state)
{
    CMP_LDAP ld{};
    ld.ld_mid = 1;
    CMP_LDAP_FILTER f{CMP_LDAP_FILTER_COND_INITIAL, CMP_LDAP_SEARCH_COND_OR, "cn,mail", "us,user"};
    CMP_LDAP_FILTER_PRESENT p{CMP_LDAP_SEARCH_COND_AND, "objectClass"};
    for (auto _ : state) {
        CMP_LDAP_SEARCH_FILTER *pf = cmp_ldap_parse_search_filter(&f);
        CMP_LDAP_SEARCH_FILTER_PRESENT *pp = cmp_ldap_parse_search_filter_present(&p);
        char **attrs = cmp_ldap_parse_search_attributes("cn,mail,uid");
        uint32_t len = cmp_ldap_get_search_request_message_length(&ld, "ou=big,dc=example,dc=test",
                                                                  pf, pp, attrs);
        auto *buf = static_cast<unsigned char *>(cmp_ldap_malloc("bench", len));
        cmp_ldap_ber_encode_search_request(&ld, "ou=big,dc=example,dc=test", 2, pf, pp, attrs, 0,
                                           buf);
        benchmark::DoNotOptimize(buf);
        zelOSWOrgFreeMemPart(0, buf);
        cmp_ldap_free_search_attributes(attrs);
        cmp_ldap_free_search_filter_present(pp);
        cmp_ldap_free_search_filter(pf);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EncodeSearch);

}  // namespace

BENCHMARK_MAIN();
