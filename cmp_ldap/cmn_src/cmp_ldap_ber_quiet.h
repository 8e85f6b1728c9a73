/*
 * The decoders' success paths, inline and silent, for the readers that walk every
 * entry of a search (DN, attributes, values).
 *
 * Each helper answers true only where its logging counterpart in cmp_ldap_decode
 * succeeds with the same result; it may refuse more (then the caller runs the
 * counterpart, which decides and writes its own line). So a walk over well-formed
 * entries costs a few loads and compares per element, and a malformed one takes
 * exactly the path, log lines and result it always took.
 */
#ifndef CMP_LDAP_BER_QUIET_H
#define CMP_LDAP_BER_QUIET_H

#include "cmp_ldap_internal.h"

/* Size of the attribute-name buffers: 384 characters and a NUL. */
#define CMP_LDAP_ATTR_NAME_SIZE CMP_LDAP_TEXT_SIZE

/* The element at pos has a readable tag and length: *content is the position of its
 * content and *length its length (cmp_ldap_ber_get_content and
 * cmp_ldap_ber_get_content_length both succeed with these). */
static inline bool cmp_ldap_quiet_header(const CMP_LDAP_MESSAGE *mes, int32_t pos, int32_t *content,
                                         uint32_t *length)
{
    const int64_t total = mes->cmp_ldap_total_size;
    if (pos < 0 || (int64_t)pos + 2 > total) return false;
    const unsigned char *pdu = cmp_ldap_pdu(mes);
    const uint32_t first = pdu[pos + 1];
    if (first < 0x80u) {
        *content = pos + 2;
        *length = first;
        return true;
    }
    const uint32_t count = first & 0x7Fu;
    const int64_t start = (int64_t)pos + 2 + count;
    if (count > 4u || start > total) return false;
    uint32_t len = 0;
    for (uint32_t i = 0; i < count; ++i)
        len = (len << 8) | pdu[pos + 2 + (int32_t)i];
    if (len == CMP_LDAP_POS_ERROR) return false;
    *content = (int32_t)start;
    *length = len;
    return true;
}

/* cmp_ldap_ber_get_next. */
static inline bool cmp_ldap_quiet_next(const CMP_LDAP_MESSAGE *mes, int32_t pos, int32_t *next)
{
    int32_t content = 0;
    uint32_t length = 0;
    if (!cmp_ldap_quiet_header(mes, pos, &content, &length)) return false;
    const int64_t end = (int64_t)content + length;
    if (end > (int64_t)INT32_MAX) return false;
    *next = (int32_t)end;
    return true;
}

/* An OCTET STRING (any class) lying inside the PDU: cmp_ldap_ber_decode_string_stub. */
static inline bool cmp_ldap_quiet_string(const CMP_LDAP_MESSAGE *mes, int32_t pos, int32_t *content,
                                         uint32_t *length)
{
    if (pos < 0 || pos >= mes->cmp_ldap_total_size) return false;
    if ((cmp_ldap_pdu(mes)[pos] & 0x1Fu) != 4u) return false;
    if (!cmp_ldap_quiet_header(mes, pos, content, length)) return false;
    return (int64_t)*content + *length <= (int64_t)mes->cmp_ldap_total_size;
}

/* The type of the PartialAttribute at pos, as cmp_ldap_ber_decode_attr_name_of_attribute
 * reads it into a buffer of CMP_LDAP_ATTR_NAME_SIZE: *content and *length locate it. */
static inline bool cmp_ldap_quiet_attr_type(const CMP_LDAP_MESSAGE *mes, int32_t pos,
                                            int32_t *content, uint32_t *length)
{
    int32_t type_pos = 0;
    uint32_t unused = 0;
    return cmp_ldap_quiet_header(mes, pos, &type_pos, &unused) &&
           cmp_ldap_quiet_string(mes, type_pos, content, length) &&
           *length < (uint32_t)CMP_LDAP_ATTR_NAME_SIZE;
}

/* cmp_ldap_ber_decode_ldap_message: the envelope's message id, operation and its position. */
static inline bool cmp_ldap_quiet_envelope(const CMP_LDAP_MESSAGE *mes, CMP_LDAP_MESSAGE_REC *rec)
{
    const int32_t total = mes->cmp_ldap_total_size;
    const unsigned char *pdu = cmp_ldap_pdu(mes);
    int32_t id_pos = 0;
    int32_t id_content = 0;
    uint32_t id_len = 0;
    uint32_t unused = 0;
    if (total < 1 || (pdu[0] & 0x1Fu) != 16u) return false;
    if (!cmp_ldap_quiet_header(mes, 0, &id_pos, &unused)) return false;
    if (id_pos >= total || (pdu[id_pos] & 0x1Fu) != 2u) return false;
    if (!cmp_ldap_quiet_header(mes, id_pos, &id_content, &id_len)) return false;
    /* A number may not end the PDU, as in cmp_ldap_ber_decode_number. */
    const int64_t op = (int64_t)id_content + id_len;
    if (op >= (int64_t)total) return false;
    const unsigned char tag = pdu[op];
    if (tag == CMP_LDAP_TAG_ERROR || ((tag >> 6) & 3u) != 1u) return false;
    uint32_t msgid = 0;
    for (uint32_t i = 0; i < id_len; ++i)
        msgid = (msgid << 8) | pdu[id_content + (int32_t)i];
    rec->msgid = (int32_t)msgid;
    rec->application = (int32_t)(tag & 0x1Fu);
    rec->pos = (int32_t)op;
    return true;
}

/* The objectName of a SearchResultEntry (its content position and length) and the
 * position of the attribute list after it: cmp_ldap_ber_get_attr_pos_of_search_entry. */
static inline bool cmp_ldap_quiet_entry(const CMP_LDAP_MESSAGE *mes, int32_t *dn_pos, int32_t *list)
{
    CMP_LDAP_MESSAGE_REC rec;
    int32_t name = 0;
    uint32_t unused = 0;
    if (!cmp_ldap_quiet_envelope(mes, &rec) || rec.application != CMP_LDAP_RES_SEARCH_ENTRY)
        return false;
    if (!cmp_ldap_quiet_header(mes, rec.pos, &name, &unused)) return false;
    if (name >= mes->cmp_ldap_total_size || (cmp_ldap_pdu(mes)[name] & 0x1Fu) != 4u) return false;
    int32_t q = 0;
    if (!cmp_ldap_quiet_next(mes, name, &q) || q >= mes->cmp_ldap_total_size) return false;
    const unsigned char tag = cmp_ldap_pdu(mes)[q];
    if ((tag & 0x1Fu) != 16u || (tag & 0x20u) == 0) return false;
    *dn_pos = name;
    *list = q;
    return true;
}

/* cmp_ldap_ber_count_members: *count members, the first at *first. */
static inline bool cmp_ldap_quiet_count(const CMP_LDAP_MESSAGE *mes, int32_t pos, int32_t *count,
                                        int32_t *first)
{
    int32_t end = 0;
    int32_t p = 0;
    uint32_t unused = 0;
    if (!cmp_ldap_quiet_next(mes, pos, &end) || !cmp_ldap_quiet_header(mes, pos, &p, &unused))
        return false;
    *first = p;
    int32_t n = 0;
    while (p < end) {
        if (!cmp_ldap_quiet_next(mes, p, &p)) return false;
        ++n;
    }
    *count = n;
    return true;
}

/* ---- The walk's mark ----
 * A caller walking an entry asks for each attribute's values with the name that
 * first/next_attribute just put in the message's name buffer. The lookup must answer
 * the first attribute of that name, which is the current one unless an earlier
 * attribute bears it too. The walk leaves a mark at the end of the name buffer (when
 * the name leaves room for it): where the current attribute lies, and a
 * 64-bit set of the earlier names' hash bits. A lookup of the buffer's own name whose
 * bit the set lacks is answered from the mark after checking the current attribute in
 * the PDU; anything else scans as always. Every fact in a mark is a fact about the PDU,
 * so a mark left by an earlier walk of the same message is still true. */
struct CMP_LDAP_WALK_MARK {
    uint32_t check;      /* of everything below and the message's address and size */
    int32_t list;        /* the attribute list, as first_attribute found it */
    int32_t end;         /* the position after the list */
    int32_t cur;         /* the current PartialAttribute */
    int32_t next;        /* the position after it */
    int32_t set;         /* its value SET (after its type) */
    uint32_t bit;        /* hash bit of its name */
    uint32_t earlier_lo; /* hash bits of every name before it */
    uint32_t earlier_hi;
};

/* Hash bit of a name of len characters, case folded as the lookup compares. */
static inline uint32_t cmp_ldap_name_bit(const char *name, size_t len)
{
    if (len == 0) return 0;
    /* The length and three letters, folded coarser than the lookup folds. */
    const uint32_t a = (uint8_t)name[0] | 0x20u;
    const uint32_t m = (uint8_t)name[len / 2] | 0x20u;
    const uint32_t z = (uint8_t)name[len - 1] | 0x20u;
    const uint32_t x = (((uint32_t)len * 31u + a) * 31u + z) * 31u + m;
    return (x * 0x9E3779B1u) >> 26;
}

/* Tells a mark from whatever else the buffer's end may hold (a long name, or the
 * uncleared memory of a message never walked). */
static inline uint32_t cmp_ldap_walk_check(const CMP_LDAP_MESSAGE *mes, const CMP_LDAP_WALK_MARK *m)
{
    return ((uint32_t)(uintptr_t)mes ^ 0x5EED1E5u) +
           (uint32_t)mes->cmp_ldap_total_size * 0x9E3779B1u + (uint32_t)m->list * 0x85EBCA6Bu +
           (uint32_t)m->end * 0xC2B2AE35u + (uint32_t)m->cur * 0x27D4EB2Fu +
           (uint32_t)m->next * 0x165667B1u + (uint32_t)m->set * 0xD3A2646Du + m->bit * 0xFD7046C5u +
           m->earlier_lo * 0xB55A4F09u + m->earlier_hi * 0x2545F491u;
}

/* The mark sits at the end of the name buffer: names up to this long leave room. */
#define CMP_LDAP_WALK_MARK_AT \
    (sizeof(((CMP_LDAP_MESSAGE *)0)->cmp_ldap_attr_name) - sizeof(CMP_LDAP_WALK_MARK))

/* The mark at the end of the buffer, if one is there and intact. */
static inline bool cmp_ldap_walk_mark_get(const CMP_LDAP_MESSAGE *mes, CMP_LDAP_WALK_MARK *m)
{
    memcpy(m, mes->cmp_ldap_attr_name + CMP_LDAP_WALK_MARK_AT, sizeof *m);
    return m->list == mes->cmp_ldap_attrs_pos && m->check == cmp_ldap_walk_check(mes, m);
}

/* The hash bits of the names before the attribute after the one marked by prev. */
static inline uint64_t cmp_ldap_walk_earlier(const CMP_LDAP_WALK_MARK *prev)
{
    const uint64_t earlier = ((uint64_t)prev->earlier_hi << 32) | prev->earlier_lo;
    return earlier | ((uint64_t)1u << prev->bit);
}

/* first/next_attribute have just put the name of the attribute at cur (len octets
 * of type, value SET at set, followed by next) into the buffer; earlier: the hash bits
 * of the names before it. The hash is of the name up to its first NUL, as a lookup
 * compares it. */
static inline void cmp_ldap_walk_mark_put(CMP_LDAP_MESSAGE *mes, uint64_t earlier, int32_t end,
                                          int32_t cur, int32_t next, int32_t set, size_t len)
{
    if (len >= CMP_LDAP_WALK_MARK_AT) return; /* the name and its NUL reach the mark */
    CMP_LDAP_WALK_MARK m;
    m.list = mes->cmp_ldap_attrs_pos;
    m.end = end;
    m.cur = cur;
    m.next = next;
    m.set = set;
    m.bit = cmp_ldap_name_bit(mes->cmp_ldap_attr_name, strlen(mes->cmp_ldap_attr_name));
    m.earlier_lo = (uint32_t)earlier;
    m.earlier_hi = (uint32_t)(earlier >> 32);
    m.check = cmp_ldap_walk_check(mes, &m);
    memcpy(mes->cmp_ldap_attr_name + CMP_LDAP_WALK_MARK_AT, &m, sizeof m);
}

/* The copies a decoded value becomes, allocated under the decoders' own names: a text
 * (the octets and a NUL) or a counted block (a 32-bit count, then the octets). */
static inline char *cmp_ldap_copy_text(const CMP_LDAP_MESSAGE *mes, int32_t content, uint32_t len)
{
    /* len <= total_size < 2^31, so len + 1 cannot wrap. */
    auto *s = static_cast<char *>(cmp_ldap_malloc("cmp_ldap_ber_decode_string", len + 1u));
    if (s == nullptr) return nullptr;
    memcpy(s, cmp_ldap_pdu(mes) + content, len);
    s[len] = '\0';
    return s;
}
static inline CMP_LDAP_BERVAL *cmp_ldap_copy_counted(const CMP_LDAP_MESSAGE *mes, int32_t content,
                                                     uint32_t len)
{
    auto *block = static_cast<unsigned char *>(
        cmp_ldap_malloc("cmp_ldap_ber_decode_string_len", len + (uint32_t)sizeof(uint32_t)));
    if (block == nullptr) return nullptr;
    memcpy(block, &len, sizeof len);
    memcpy(block + sizeof len, cmp_ldap_pdu(mes) + content, len);
    return reinterpret_cast<CMP_LDAP_BERVAL *>(block);
}

#endif
