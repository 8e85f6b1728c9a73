/*
 * libFuzzer target: one input is one received PDU.
 *
 * The input is held exactly as the PDU reader holds a received message (one
 * block of PDU + 400 octets from cmp_ldap_malloc, total size set), and then once
 * more in a block that ends at the PDU's last octet, so that AddressSanitizer
 * sees any read past the PDU even where the reader's three spare octets would
 * hide it. Over the tight copy it drives the decoding primitives at every
 * position; over both copies, the envelope, the get_next chains through every
 * constructed element (counting members at each one), the attribute walk of a
 * search entry with lookups, and the public accessors.
 *
 * Besides the sanitizers, a few invariants abort the run: a position a decoder
 * returns must lie where it can, a lookup must find an attribute the walk saw,
 * and nothing may be left allocated.
 */
#include <stdio.h>
#include <stdlib.h>

#include "cmp_ldap_internal.h"
#include "fake_port.h"

namespace {

constexpr uint32_t kFail = CMP_LDAP_POS_ERROR;
constexpr int kMaxDepth = 16;
constexpr int kMaxLookups = 64;

[[noreturn]] void violated(const char *what, long a, long b)
{
    fprintf(stderr, "fuzz_decode: invariant violated: %s (%ld, %ld)\n", what, a, b);
    abort();
}

#define CHECK(cond, a, b)                                   \
    do {                                                    \
        if (!(cond)) violated(#cond, (long)(a), (long)(b)); \
    } while (0)

/* Every primitive at one position. */
void primitives_at(const CMP_LDAP_MESSAGE *m, int32_t p)
{
    const int32_t total = m->cmp_ldap_total_size;
    const bool inside = p >= 0 && p < total;

    uint8_t tag = cmp_ldap_ber_get_tag(m, p);
    if (!inside) CHECK(tag == 255, p, tag);

    uint32_t len = cmp_ldap_ber_get_content_length(m, p);
    uint32_t len_len = cmp_ldap_ber_get_length_length(m, p);
    uint32_t content = cmp_ldap_ber_get_content(m, p);
    if (len_len != kFail) {
        CHECK(len_len >= 1 && len_len <= 128, p, len_len);
        CHECK(content == (uint32_t)p + 1 + len_len, p, content);
    } else {
        CHECK(len == kFail && content == kFail, p, len);
    }

    char *s = nullptr;
    uint32_t end = cmp_ldap_ber_decode_string(m, p, &s);
    if (end == kFail) {
        CHECK(s == nullptr, p, 0);
    } else {
        CHECK(s != nullptr && (int32_t)end <= total && end == content + len, p, end);
        CHECK(strlen(s) <= len, p, len);
        cmp_ldap_free(s);
    }

    CMP_LDAP_BERVAL *bv = nullptr;
    uint32_t end_len = cmp_ldap_ber_decode_string_len(m, p, &bv);
    CHECK(end_len == end, p, end_len);
    if (bv != nullptr) {
        CHECK(bv->total_size == len, p, bv->total_size);
        cmp_ldap_free(bv);
    }

    char buf[CMP_LDAP_TEXT_SIZE];
    uint32_t end_to = cmp_ldap_ber_decode_string_to(m, p, buf, (int32_t)sizeof buf);
    CHECK(end_to == kFail || (end_to == end && len < sizeof buf), p, end_to);
    uint32_t small = cmp_ldap_ber_decode_string_to(m, p, buf, 1);
    CHECK(small == kFail || len == 0, p, small);

    uint32_t v = 0;
    uint32_t n = cmp_ldap_ber_decode_integer(m, p, &v);
    CHECK(n == kFail || (int32_t)n < total, p, n);
    n = cmp_ldap_ber_decode_enum(m, p, &v);
    CHECK(n == kFail || (int32_t)n < total, p, n);

    uint32_t name_end = cmp_ldap_ber_decode_attr_name_of_attribute(m, p, buf, (int32_t)sizeof buf);
    CHECK(name_end == kFail || (int32_t)name_end <= total, p, name_end);

    int32_t next = cmp_ldap_ber_get_next(m, p);
    CHECK(next == -1 || next > p, p, next);
}

/* The members of one constructed element, and theirs in turn. */
void walk(const CMP_LDAP_MESSAGE *m, int32_t pos, int32_t end, int depth)
{
    while (pos != -1 && pos < end && pos < m->cmp_ldap_total_size) {
        int32_t count = cmp_ldap_ber_count_members(m, pos);
        CHECK(count >= -1 && count <= m->cmp_ldap_total_size, pos, count);
        int32_t next = cmp_ldap_ber_get_next(m, pos);
        uint8_t tag = cmp_ldap_ber_get_tag(m, pos);
        if ((tag & 0x20) != 0 && tag != 255 && depth < kMaxDepth && next != -1) {
            uint32_t inner = cmp_ldap_ber_get_content(m, pos);
            if (inner != kFail) walk(m, (int32_t)inner, next, depth + 1);
        }
        CHECK(next == -1 || next > pos, pos, next);
        pos = next;
    }
}

/* The attribute list of a search entry, as a caller would walk it. */
void attributes(const CMP_LDAP_MESSAGE *m)
{
    static const char *const kNames[] = {
        "cn", "CN", "objectClass", "mail", "userPassword", "jpegPhoto;binary", "", "member"};
    int32_t list = cmp_ldap_ber_get_attr_pos_of_search_entry(m);
    CHECK(list == -1 || (list > 0 && list < m->cmp_ldap_total_size), list, 0);
    for (const char *name : kNames) {
        int32_t set = cmp_ldap_ber_lookup_attribute_on_search_entry(m, name);
        CHECK(set == -1 || (list != -1 && set > list && set <= m->cmp_ldap_total_size), set, list);
        if (set != -1) (void)cmp_ldap_ber_count_members(m, set);
    }
    if (list == -1) return;

    /* The same steps and stop test as the lookup's own scan, so every type seen
     * here must be found by a lookup, at its own place or at an earlier type
     * equal but for case. */
    int32_t end = cmp_ldap_ber_get_next(m, list);
    uint32_t p = cmp_ldap_ber_get_content(m, list);
    if (end == -1 || p == kFail) return;
    char name[CMP_LDAP_TEXT_SIZE];
    int32_t seen[kMaxLookups];
    int n = 0;
    for (;;) {
        uint32_t set =
            cmp_ldap_ber_decode_attr_name_of_attribute(m, (int32_t)p, name, (int32_t)sizeof name);
        if (set == kFail) break;
        seen[n++] = (int32_t)set;
        int32_t found = cmp_ldap_ber_lookup_attribute_on_search_entry(m, name);
        bool known = false;
        for (int i = 0; i < n; ++i)
            known = known || found == seen[i];
        CHECK(known, found, set);
        (void)cmp_ldap_ber_count_members(m, (int32_t)set);
        int32_t next = cmp_ldap_ber_get_next(m, (int32_t)p);
        if (next == -1) break;
        p = (uint32_t)next;
        if (!((int32_t)set < end && (int32_t)set < m->cmp_ldap_total_size)) break;
        if (n == kMaxLookups) break;
    }
}

/* =========================================================================
 * ACCESSORS: the public functions over a whole message (cmp_ldap_message).
 * ========================================================================= */
void accessors(CMP_LDAP_MESSAGE *m)
{
    CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
    if (ld == nullptr) return;

    (void)cmp_ldap_msgid(m);
    (void)cmp_ldap_msgtype(m);
    (void)cmp_ldap_count_entries(ld, m);
    (void)cmp_ldap_first_entry(ld, m);
    (void)cmp_ldap_next_entry(ld, m);

    char *dn = cmp_ldap_get_dn(ld, m);
    if (dn != nullptr) {
        char **parts = cmp_ldap_explode_dn(dn, 0);
        if (parts != nullptr) cmp_ldap_value_free(parts);
        parts = cmp_ldap_explode_dn(dn, 1);
        if (parts != nullptr) cmp_ldap_value_free(parts);
        cmp_ldap_dn_free(dn);
    }

    void *cursor = nullptr;
    int attrs = 0;
    for (char *a = cmp_ldap_first_attribute(ld, m, &cursor); a != nullptr && attrs < kMaxLookups;
         a = cmp_ldap_next_attribute(ld, m, cursor), ++attrs) {
        CHECK(strlen(a) < CMP_LDAP_TEXT_SIZE, attrs, 0);
        char name[CMP_LDAP_TEXT_SIZE];
        memcpy(name, a, strlen(a) + 1); /* the name lives in the message */
        char **vals = cmp_ldap_get_values(ld, m, name);
        if (vals != nullptr) {
            (void)cmp_ldap_count_values(vals);
            cmp_ldap_value_free(vals);
        }
        CMP_LDAP_BERVAL **bins = cmp_ldap_get_values_binary(ld, m, name);
        if (bins != nullptr) {
            (void)cmp_ldap_count_values_binary(bins);
            cmp_ldap_value_free_binary(bins);
        }
    }

    char **refs = cmp_ldap_get_referrals(ld, m);
    if (refs != nullptr) cmp_ldap_value_free(refs);

    (void)cmp_ldap_result2error(ld, m, 0);
    (void)cmp_ldap_err2string(ld->ld_errno);

    cmp_ldap_free(ld->ld_matched);
    cmp_ldap_free(ld->ld_error);
    cmp_ldap_free(ld->ld_referral);
    cmp_ldap_free(ld);
}

void exercise(CMP_LDAP_MESSAGE *m, bool every_position)
{
    const int32_t total = m->cmp_ldap_total_size;
    if (every_position)
        for (int32_t p = -1; p <= total + 1; ++p)
            primitives_at(m, p);

    CMP_LDAP_MESSAGE_REC rec{-7, -7, -7};
    int32_t op = cmp_ldap_ber_decode_ldap_message(m, &rec);
    if (op == -1) {
        CHECK(rec.msgid == -7 && rec.application == -7 && rec.pos == -7, rec.pos, op);
    } else {
        CHECK(op == rec.pos && op > 0 && op < total, op, total);
        CHECK(rec.application >= 0 && rec.application <= 31, rec.application, op);
    }

    walk(m, 0, total, 0);
    attributes(m);
    accessors(m);
}

CMP_LDAP_MESSAGE *hold(const uint8_t *data, size_t size, bool tight)
{
    uint32_t block = tight ? (uint32_t)(offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber) + size)
                           : (uint32_t)size + CMP_LDAP_MESSAGE_OVERHEAD;
    auto *m = static_cast<CMP_LDAP_MESSAGE *>(cmp_ldap_malloc("cmp_ldap_read_berdata", block));
    if (m == nullptr) return nullptr;
    m->cmp_ldap_total_size = (int32_t)size;
    if (size != 0) memcpy(cmp_ldap_pdu_mut(m), data, size);
    return m;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 20)) return 0;
    for (bool tight : {false, true}) {
        fake::reset(); /* the fake logger keeps every line; start empty */
        CMP_LDAP_MESSAGE *m = hold(data, size, tight);
        if (m == nullptr) return 0;
        /* The decoders read nothing but the PDU, so the per-position sweep (the
         * costly part) runs on the tight copy only, where any stray read shows. */
        exercise(m, tight);
        cmp_ldap_free(m);
        if (fake::live_blocks() != 0) {
            fprintf(stderr, "fuzz_decode: leak\n%s", fake::live_block_report().c_str());
            abort();
        }
    }
    fake::reset();
    return 0;
}
