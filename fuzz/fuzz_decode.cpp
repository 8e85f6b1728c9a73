/*
 * libFuzzer target: one input is one received PDU, held as the PDU reader holds it (PDU + 400)
 * and in a block ending at its last octet, where AddressSanitizer sees any read past it. It
 * drives every primitive at every position (tight copy), the envelope, get_next and counts through
 * every constructed element, the attribute walk with lookups and the public accessors, and
 * explodes the input as a DN. A position a decoder cannot return, a type the lookup misses or a
 * block left allocated aborts the run.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "cmp_ldap_internal.h"
#include "fake_port.h"

namespace {

constexpr uint32_t kFail = CMP_LDAP_POS_ERROR;
constexpr int kMaxDepth = 16, kMaxAttrs = 64;

#define CHECK(c, a, b) \
    ((c) ? (void)0     \
         : (fprintf(stderr, "fuzz_decode: %s (%ld, %ld)\n", #c, (long)(a), (long)(b)), abort()))

void primitives_at(const CMP_LDAP_MESSAGE *m, int32_t p)
{
    const int32_t total = m->cmp_ldap_total_size;
    if (p < 0 || p >= total) CHECK(cmp_ldap_ber_get_tag(m, p) == 255, p, 0);
    const uint32_t len = cmp_ldap_ber_get_content_length(m, p);
    const uint32_t len_len = cmp_ldap_ber_get_length_length(m, p);
    const uint32_t content = cmp_ldap_ber_get_content(m, p);
    CHECK(len_len == kFail ? content == kFail : len_len <= 128 && content == p + 1 + len_len, p,
          content);

    char *s = nullptr, buf[CMP_LDAP_TEXT_SIZE];
    CMP_LDAP_BERVAL *bv = nullptr;
    const uint32_t end = cmp_ldap_ber_decode_string(m, p, &s);
    CHECK(cmp_ldap_ber_decode_string_len(m, p, &bv) == end, p, end);
    CHECK(end == kFail ? s == nullptr && bv == nullptr
                       : (int32_t)end <= total && end == content + len && bv->total_size == len,
          p, end);
    cmp_ldap_free(s);
    cmp_ldap_free(bv);
    const uint32_t to = cmp_ldap_ber_decode_string_to(m, p, buf, (int32_t)sizeof buf);
    CHECK(to == kFail || (to == end && len < sizeof buf), p, to);

    uint32_t v;
    for (uint32_t n : {cmp_ldap_ber_decode_integer(m, p, &v), cmp_ldap_ber_decode_enum(m, p, &v)})
        CHECK(n == kFail || (int32_t)n < total, p, n);
    const uint32_t name = cmp_ldap_ber_decode_attr_name_of_attribute(m, p, buf, 385);
    CHECK(name == kFail || (int32_t)name <= total, p, name);
    const int32_t next = cmp_ldap_ber_get_next(m, p);
    CHECK(next == -1 || next > p, p, next);
}

/* The members of one constructed element, and theirs in turn. */
void walk(const CMP_LDAP_MESSAGE *m, int32_t pos, int32_t end, int depth)
{
    while (pos != -1 && pos < end && pos < m->cmp_ldap_total_size) {
        CHECK(cmp_ldap_ber_count_members(m, pos) <= m->cmp_ldap_total_size, pos, 0);
        const int32_t next = cmp_ldap_ber_get_next(m, pos);
        CHECK(next == -1 || next > pos, pos, next);
        const uint8_t tag = cmp_ldap_ber_get_tag(m, pos);
        const uint32_t inner = cmp_ldap_ber_get_content(m, pos);
        if ((tag & 0x20) != 0 && tag != 255 && depth < kMaxDepth && next != -1 && inner != kFail)
            walk(m, (int32_t)inner, next, depth + 1);
        pos = next;
    }
}

/* The attribute list of a search entry, stepped as the lookup steps it: every type met must be
 * found by a lookup, at its own place or at an earlier type equal but for case. */
void attributes(const CMP_LDAP_MESSAGE *m)
{
    for (const char *name : {"cn", "CN", "objectClass", "mail", "jpegPhoto;binary", ""})
        CHECK(cmp_ldap_ber_lookup_attribute_on_search_entry(m, name) <= m->cmp_ldap_total_size, 0,
              0);
    const int32_t list = cmp_ldap_ber_get_attr_pos_of_search_entry(m);
    CHECK(list == -1 || (list > 0 && list < m->cmp_ldap_total_size), list, 0);
    const int32_t end = list == -1 ? -1 : cmp_ldap_ber_get_next(m, list);
    uint32_t p = list == -1 ? kFail : cmp_ldap_ber_get_content(m, list);
    char name[CMP_LDAP_TEXT_SIZE];
    int32_t seen[kMaxAttrs];
    for (int n = 0; end != -1 && p != kFail && n < kMaxAttrs;) {
        const uint32_t set = cmp_ldap_ber_decode_attr_name_of_attribute(m, (int32_t)p, name, 385);
        if (set == kFail) break;
        seen[n++] = (int32_t)set;
        const int32_t found = cmp_ldap_ber_lookup_attribute_on_search_entry(m, name);
        CHECK(std::find(seen, seen + n, found) != seen + n, found, set);
        (void)cmp_ldap_ber_count_members(m, (int32_t)set);
        const int32_t next = cmp_ldap_ber_get_next(m, (int32_t)p);
        if (next == -1 || !((int32_t)set < end && (int32_t)set < m->cmp_ldap_total_size)) break;
        p = (uint32_t)next;
    }
}

CMP_LDAP_MESSAGE *hold(const uint8_t *data, size_t size, bool tight)
{
    const uint32_t block = tight ? (uint32_t)(offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber) + size)
                                 : (uint32_t)size + CMP_LDAP_MESSAGE_OVERHEAD;
    auto *m = static_cast<CMP_LDAP_MESSAGE *>(cmp_ldap_malloc("cmp_ldap_read_berdata", block));
    if (m == nullptr) return nullptr;
    m->cmp_ldap_total_size = (int32_t)size;
    if (size != 0) memcpy(cmp_ldap_pdu_mut(m), data, size);
    return m;
}

void explode(const char *text)
{
    for (int notypes : {0, 1})
        cmp_ldap_value_free(cmp_ldap_explode_dn(text, notypes));
}

/* The public accessors, as a caller runs them over a received message. */
void accessors(CMP_LDAP *ld, CMP_LDAP_MESSAGE *m, const uint8_t *data, size_t size, bool tight)
{
    (void)(cmp_ldap_msgid(m) + cmp_ldap_msgtype(m) + cmp_ldap_count_entries(ld, m));
    (void)cmp_ldap_next_entry(ld, cmp_ldap_first_entry(ld, m));
    char *dn = cmp_ldap_get_dn(ld, m);
    if (dn != nullptr) explode(dn);
    cmp_ldap_dn_free(dn);
    void *cursor = nullptr;
    int attrs = 0;
    for (char *a = cmp_ldap_first_attribute(ld, m, &cursor); a != nullptr && attrs < kMaxAttrs;
         a = cmp_ldap_next_attribute(ld, m, cursor), ++attrs) {
        CHECK(strlen(a) < CMP_LDAP_TEXT_SIZE, attrs, 0);
        char name[CMP_LDAP_TEXT_SIZE];
        memcpy(name, a, strlen(a) + 1);                 /* the name lives in the message */
        char **vals = cmp_ldap_get_values(ld, m, name); /* all three take null */
        (void)cmp_ldap_count_values(vals);
        cmp_ldap_value_free(vals);
        CMP_LDAP_BERVAL **bins = cmp_ldap_get_values_binary(ld, m, name);
        (void)cmp_ldap_count_values_binary(bins);
        cmp_ldap_value_free_binary(bins);
    }
    cmp_ldap_value_free(cmp_ldap_get_referrals(ld, m));

    CMP_LDAP_MESSAGE *copy = hold(data, size, tight);
    /* freeit 1 releases the copy, except below the six octets of the smallest response */
    if (copy != nullptr && cmp_ldap_result2error(ld, copy, 1) == -1 && size < 6)
        cmp_ldap_free(copy);
    (void)cmp_ldap_err2string(ld->ld_errno);
    copy = hold(data, size, tight);
    if (copy != nullptr) (void)cmp_ldap_msgfree(copy);
}

void exercise(CMP_LDAP_MESSAGE *m, const uint8_t *data, size_t size, bool tight)
{
    const int32_t total = m->cmp_ldap_total_size;
    for (int32_t p = -1; tight && p <= total + 1; ++p)
        primitives_at(m, p);
    CMP_LDAP_MESSAGE_REC rec{-7, -7, -7};
    const int32_t op = cmp_ldap_ber_decode_ldap_message(m, &rec);
    if (op == -1) CHECK(rec.msgid == -7 && rec.application == -7 && rec.pos == -7, rec.pos, op);
    if (op != -1) CHECK(op == rec.pos && op > 0 && op < total && rec.application <= 31, op, total);
    walk(m, 0, total, 0);
    attributes(m);
    CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
    if (ld == nullptr) return;
    accessors(ld, m, data, size, tight);
    for (char *text : {ld->ld_matched, ld->ld_error, ld->ld_referral})
        cmp_ldap_free(text);
    cmp_ldap_free(ld);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 20)) return 0;
    for (bool tight : {false, true}) {
        fake::reset(); /* the fake logger keeps every line; start each holding empty */
        CMP_LDAP_MESSAGE *m = hold(data, size, tight);
        if (m == nullptr) return 0;
        exercise(m, data, size, tight);
        cmp_ldap_free(m);
        if (!tight) explode(std::string(reinterpret_cast<const char *>(data), size).c_str());
        if (fake::live_blocks() == 0) continue;
        fprintf(stderr, "fuzz_decode: leak\n%s", fake::live_block_report().c_str());
        abort();
    }
    fake::reset();
    return 0;
}
