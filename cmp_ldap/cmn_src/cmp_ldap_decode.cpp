/*
 * BER decoding primitives and message navigation.
 *
 * A received LDAPMessage is never parsed into a tree: every reader walks the
 * PDU in place, passing byte positions from one call to the next. Positions are
 * signed 32-bit indices into the PDU; the decoders return 0xFFFFFFFF (-1) on
 * failure, the tag reader 255.
 *
 * Everything here reads bytes a server sent, so every read is checked against
 * the PDU's size before it happens, and every position sum is formed in 64 bits:
 * a declared length near 4 GiB must never wrap back into a "valid" position.
 */
#include "cmp_ldap_ber_quiet.h"
#include "cmp_ldap_internal.h"

namespace {

/* Size of the name buffer of the attribute lookup: 384 characters and a NUL. */
constexpr int32_t kAttrNameSize = CMP_LDAP_TEXT_SIZE;

/* Tag numbers used by the navigation. */
constexpr uint32_t kTagInteger = 2;
constexpr uint32_t kTagOctetString = 4;
constexpr uint32_t kTagEnumerated = 10;
constexpr uint32_t kTagSequence = 16;
constexpr uint8_t kConstructed = 0x20;
constexpr uint32_t kClassApplication = 1;

inline uint32_t tag_number(uint8_t tag)
{
    return tag & 0x1Fu;
}

/* A tag that could not be read (255) reports as type 31 simply because its low
 * five bits are all set. */
inline int tag_type(uint8_t tag)
{
    return (int)tag_number(tag);
}

/* True when [pos, pos + count) lies inside the PDU. */
inline bool in_pdu(const CMP_LDAP_MESSAGE *mes, int64_t pos, int64_t count)
{
    return pos >= 0 && pos + count <= (int64_t)mes->cmp_ldap_total_size;
}

/* Signed view of a 32-bit decoder result, for the "%ld" fields of the log. */
inline long as_long(uint32_t v)
{
    return (long)(int32_t)v;
}

/* A position formed from a base and lengths, or -1 when it would not fit a
 * signed 32-bit position. Lengths are unsigned: adding them as signed values
 * would let 0xFFFFFFF0 step backwards. */
inline int64_t position_sum(int64_t base, int64_t a, int64_t b)
{
    int64_t sum = base + a + b;
    return sum > (int64_t)INT32_MAX ? -1 : sum;
}

/* ASCII-only upper casing: attribute types compare without any locale. */
inline char fold(char c)
{
    return (c >= 'a' && c <= 'z') ? (char)(c - 'a' + 'A') : c;
}

bool same_attribute_type(const char *wanted, const char *name)
{
    for (;; ++wanted, ++name) {
        if (fold(*wanted) != fold(*name)) return false;
        if (*wanted == '\0') return true;
    }
}

/* The same comparison against a type still in the PDU, read as the C string its copy
 * would be (ending at its first NUL). */
bool same_attribute_type_at(const char *wanted, const unsigned char *type, uint32_t len)
{
    for (uint32_t i = 0;; ++i, ++wanted) {
        const char c = i < len ? (char)type[i] : '\0';
        if (*wanted != c && fold(*wanted) != fold(c)) return false;
        if (*wanted == '\0') return true;
    }
}

}  // namespace

/* ---------------------------------------------------------------------------
 * Tags and lengths
 * ------------------------------------------------------------------------- */

uint8_t cmp_ldap_ber_get_tag(const CMP_LDAP_MESSAGE *mes, int32_t pos)
{
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    if (!in_pdu(mes, pos, 1)) {
        CMP_LDAP_LOG(-1, "%s(): Illegal position (pos=%ld,mes->cmp_ldap_total_size=%ld).\n",
                     "cmp_ldap_ber_get_tag", (long)pos, (long)mes->cmp_ldap_total_size);
        /* 255 doubles as the failure value; every caller treats it as one. */
        return (uint8_t)CMP_LDAP_TAG_ERROR;
    }
    return cmp_ldap_pdu(mes)[pos];
}

uint32_t cmp_ldap_ber_get_content_length(const CMP_LDAP_MESSAGE *mes, int32_t pos)
{
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    /* This line names the field "total_size", unlike its siblings; deliberate,
     * log readers search for both texts. */
    if (!in_pdu(mes, pos, 2)) {
        CMP_LDAP_LOG(-1, "%s(): Illegal position (pos=%ld,mes->total_size=%ld).\n",
                     "cmp_ldap_ber_get_content_length", (long)pos, (long)mes->cmp_ldap_total_size);
        return CMP_LDAP_POS_ERROR;
    }
    const unsigned char *pdu = cmp_ldap_pdu(mes);
    uint32_t first = pdu[pos + 1];
    if (first < 0x80u) return first;

    uint32_t count = first & 0x7Fu;
    if (count > 4u) {
        CMP_LDAP_LOG(-1, "%s(): Length > 32bits.fieldLen=0x%02x.\n",
                     "cmp_ldap_ber_get_content_length", count);
        return CMP_LDAP_POS_ERROR;
    }
    /* The indefinite form is deliberately read as an empty content. */
    if (count == 0u) return 0u;

    /* The length octets themselves must be inside the PDU: a header cut short
     * at the end of a message would otherwise read past it. */
    if (!in_pdu(mes, (int64_t)pos + 2, count)) {
        CMP_LDAP_LOG(-1, "%s(): Illegal position (pos=%ld,mes->total_size=%ld).\n",
                     "cmp_ldap_ber_get_content_length", (long)((int64_t)pos + 1 + count),
                     (long)mes->cmp_ldap_total_size);
        return CMP_LDAP_POS_ERROR;
    }
    uint32_t length = 0;
    for (uint32_t i = 0; i < count; ++i)
        length = (length << 8) | pdu[pos + 2 + (int32_t)i];
    return length;
}

uint32_t cmp_ldap_ber_get_length_length(const CMP_LDAP_MESSAGE *mes, int32_t pos)
{
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    if (!in_pdu(mes, pos, 2)) {
        CMP_LDAP_LOG(-1, "%s(): Illegal position (pos=%ld,mes->cmp_ldap_total_size=%ld).\n",
                     "cmp_ldap_ber_get_length_length", (long)pos, (long)mes->cmp_ldap_total_size);
        return CMP_LDAP_POS_ERROR;
    }
    uint32_t first = cmp_ldap_pdu(mes)[pos + 1];
    return first < 0x80u ? 1u : (first & 0x7Fu) + 1u;
}

uint32_t cmp_ldap_ber_get_content(const CMP_LDAP_MESSAGE *mes, int32_t pos)
{
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    uint32_t len_len = cmp_ldap_ber_get_length_length(mes, pos);
    if (len_len == CMP_LDAP_POS_ERROR) {
        CMP_LDAP_LOG(CMP_LDAP_POS_ERROR, "%s(): decode error.\n", "cmp_ldap_ber_get_content");
        return CMP_LDAP_POS_ERROR;
    }
    /* pos < total_size and len_len <= 128, so this fits as long as the size does. */
    int64_t content = position_sum(pos, 1, len_len);
    if (content < 0) {
        CMP_LDAP_LOG(CMP_LDAP_POS_ERROR, "%s(): decode error.\n", "cmp_ldap_ber_get_content");
        return CMP_LDAP_POS_ERROR;
    }
    return (uint32_t)content;
}

/* ---------------------------------------------------------------------------
 * OCTET STRING
 * ------------------------------------------------------------------------- */

uint32_t cmp_ldap_ber_decode_string_stub(const CMP_LDAP_MESSAGE *mes, int32_t pos,
                                         uint32_t *content_len, uint32_t *content_pos)
{
    static const char kName[] = "cmp_ldap_ber_decode_string_stub";
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    /* Only the tag number counts, so context- and application-tagged strings
     * ([4], [APPLICATION 4]) read with the same call; deliberate. */
    uint8_t tag = cmp_ldap_ber_get_tag(mes, pos);
    if (tag_number(tag) != kTagOctetString) {
        CMP_LDAP_LOG(-1, "%s(): It's not correct type (tag.type = %i).\n", kName, tag_type(tag));
        return CMP_LDAP_POS_ERROR;
    }
    *content_len = cmp_ldap_ber_get_content_length(mes, pos);
    if (*content_len == CMP_LDAP_POS_ERROR) return CMP_LDAP_POS_ERROR;
    *content_pos = cmp_ldap_ber_get_content(mes, pos);
    if (*content_pos == CMP_LDAP_POS_ERROR) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get content.\n", kName);
        return CMP_LDAP_POS_ERROR;
    }
    /* A string may end exactly at the end of the PDU. */
    int64_t end = (int64_t)*content_pos + (int64_t)*content_len;
    if (end > (int64_t)mes->cmp_ldap_total_size) {
        CMP_LDAP_LOG(-1, "%s(): Illegal length (content size=%ld).\n", kName,
                     (long)(int32_t)(uint32_t)end);
        return CMP_LDAP_POS_ERROR;
    }
    return 0;
}

uint32_t cmp_ldap_ber_decode_string_to(const CMP_LDAP_MESSAGE *mes, int32_t pos, char *buf,
                                       int32_t size)
{
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    uint32_t len = 0, content = 0;
    if (cmp_ldap_ber_decode_string_stub(mes, pos, &len, &content) != 0) return CMP_LDAP_POS_ERROR;
    /* The size counts the terminating NUL. */
    if ((int64_t)len >= (int64_t)size) {
        CMP_LDAP_LOG(-1, "%s(): String excess max length (contentLen=%ld,max=%d).\n",
                     "cmp_ldap_ber_decode_string_to", as_long(len), (int)size);
        return CMP_LDAP_POS_ERROR;
    }
    memcpy(buf, cmp_ldap_pdu(mes) + content, len);
    buf[len] = '\0';
    return content + len;
}

uint32_t cmp_ldap_ber_decode_string(const CMP_LDAP_MESSAGE *mes, int32_t pos, char **out)
{
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    uint32_t len = 0, content = 0;
    *out = nullptr;
    if (cmp_ldap_ber_decode_string_stub(mes, pos, &len, &content) != 0) return CMP_LDAP_POS_ERROR;
    *out = cmp_ldap_copy_text(mes, (int32_t)content, len);
    return *out == nullptr ? CMP_LDAP_POS_ERROR : content + len;
}

uint32_t cmp_ldap_ber_decode_string_len(const CMP_LDAP_MESSAGE *mes, int32_t pos,
                                        CMP_LDAP_BERVAL **out)
{
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    uint32_t len = 0, content = 0;
    *out = nullptr;
    if (cmp_ldap_ber_decode_string_stub(mes, pos, &len, &content) != 0) return CMP_LDAP_POS_ERROR;
    /* The count, then the octets; no terminator. */
    *out = cmp_ldap_copy_counted(mes, (int32_t)content, len);
    return *out == nullptr ? CMP_LDAP_POS_ERROR : content + len;
}

/* ---------------------------------------------------------------------------
 * INTEGER and ENUMERATED
 * ------------------------------------------------------------------------- */

uint32_t cmp_ldap_ber_decode_number(const CMP_LDAP_MESSAGE *mes, int32_t pos, uint32_t *value,
                                    uint32_t expected_tag)
{
    static const char kName[] = "cmp_ldap_ber_decode_number";
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    CMP_LDAP_ASSERT(value != nullptr, "value != ((void *)0)", CMP_LDAP_SRC_DECODE);
    uint8_t tag = cmp_ldap_ber_get_tag(mes, pos);
    if (tag_number(tag) != expected_tag) {
        CMP_LDAP_LOG(-1, "%s(): It's not correct type (tag.type = %i).\n", kName, tag_type(tag));
        return CMP_LDAP_POS_ERROR;
    }
    uint32_t len = cmp_ldap_ber_get_content_length(mes, pos);
    if (len == CMP_LDAP_POS_ERROR) return CMP_LDAP_POS_ERROR;
    uint32_t content = cmp_ldap_ber_get_content(mes, pos);
    if (content == CMP_LDAP_POS_ERROR) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get content.\n", kName);
        return CMP_LDAP_POS_ERROR;
    }
    /* Unlike a string, a number may not end the PDU: in every LDAPMessage some
     * element follows one. The stricter test is deliberate. */
    if ((int64_t)content + (int64_t)len >= (int64_t)mes->cmp_ldap_total_size) {
        CMP_LDAP_LOG(-1, "%s(): Illegal length.\n", kName);
        return CMP_LDAP_POS_ERROR;
    }
    /* No sign extension and no octet limit: only the last four octets survive. */
    const unsigned char *octets = cmp_ldap_pdu(mes) + content;
    uint32_t v = 0;
    for (uint32_t i = 0; i < len; ++i)
        v = (v << 8) | octets[i];
    *value = v;
    return content + len;
}

uint32_t cmp_ldap_ber_decode_enum(const CMP_LDAP_MESSAGE *mes, int32_t pos, uint32_t *value)
{
    return cmp_ldap_ber_decode_number(mes, pos, value, kTagEnumerated);
}

uint32_t cmp_ldap_ber_decode_integer(const CMP_LDAP_MESSAGE *mes, int32_t pos, uint32_t *value)
{
    return cmp_ldap_ber_decode_number(mes, pos, value, kTagInteger);
}

uint32_t cmp_ldap_ber_decode_attr_name_of_attribute(const CMP_LDAP_MESSAGE *mes, int32_t pos,
                                                    char *attrName, int32_t size)
{
    CMP_LDAP_ASSERT(nullptr != mes, "((void *)0) != mes", CMP_LDAP_SRC_DECODE);
    CMP_LDAP_ASSERT(nullptr != attrName, "((void *)0) != attrName", CMP_LDAP_SRC_DECODE);
    /* The PartialAttribute SEQUENCE's own tag is not checked; its first member
     * is the type. */
    uint32_t type_pos = cmp_ldap_ber_get_content(mes, pos);
    if (type_pos == CMP_LDAP_POS_ERROR) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get first attributes.\n",
                     "cmp_ldap_ber_decode_attr_name_of_attribute");
        return CMP_LDAP_POS_ERROR;
    }
    return cmp_ldap_ber_decode_string_to(mes, (int32_t)type_pos, attrName, size);
}

/* ---------------------------------------------------------------------------
 * Navigation
 * ------------------------------------------------------------------------- */

int32_t cmp_ldap_ber_decode_ldap_message(const CMP_LDAP_MESSAGE *mes, CMP_LDAP_MESSAGE_REC *rec)
{
    static const char kName[] = "cmp_ldap_ber_decode_ldap_message";
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    CMP_LDAP_ASSERT(rec != nullptr, "rec != ((void *)0)", CMP_LDAP_SRC_DECODE);
    if (cmp_ldap_quiet_envelope(mes, rec)) return rec->pos;

    /* Only the tag number is examined: 0x10 and 0x70 pass as the SEQUENCE too. */
    uint8_t tag = cmp_ldap_ber_get_tag(mes, 0);
    if (tag_number(tag) != kTagSequence) {
        CMP_LDAP_LOG(-1, "%s(): First element is not SEQUENCE ? (tag.type = %i).\n", kName,
                     tag_type(tag));
        return -1;
    }
    uint32_t pos = cmp_ldap_ber_get_content(mes, 0);
    if (pos == CMP_LDAP_POS_ERROR) {
        CMP_LDAP_LOG(-1, "%s(): Failed to retrieve SEQUENCE content.\n", kName);
        return -1;
    }
    uint32_t msgid = 0;
    pos = cmp_ldap_ber_decode_integer(mes, (int32_t)pos, &msgid);
    if (pos == CMP_LDAP_POS_ERROR) return -1;

    tag = cmp_ldap_ber_get_tag(mes, (int32_t)pos);
    if (tag == CMP_LDAP_TAG_ERROR || ((tag >> 6) & 3u) != kClassApplication) {
        CMP_LDAP_LOG(-1, "%s(): Failed to retrieve APPLICATION tag (tag.type = %i).\n", kName,
                     tag_type(tag));
        return -1;
    }
    rec->msgid = (int32_t)msgid;
    rec->application = (int32_t)tag_number(tag);
    rec->pos = (int32_t)pos;
    return (int32_t)pos;
}

int32_t cmp_ldap_ber_get_next(const CMP_LDAP_MESSAGE *mes, int32_t pos)
{
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    int32_t quick = 0;
    if (cmp_ldap_quiet_next(mes, pos, &quick)) return quick;
    uint32_t len_len = cmp_ldap_ber_get_length_length(mes, pos);
    uint32_t content_len = cmp_ldap_ber_get_content_length(mes, pos);
    /* The next position is not checked against the size (the next read at it
     * reports that), but it must be a position: a declared length near 4 GiB
     * would otherwise wrap it back into the PDU. */
    int64_t next = -1;
    if (len_len != CMP_LDAP_POS_ERROR && content_len != CMP_LDAP_POS_ERROR)
        next = position_sum(pos, 1 + (int64_t)len_len, content_len);
    if (next < 0) {
        CMP_LDAP_LOG(-1, "%s(): decode error (lenLen=%ld,contentLen=%ld).\n",
                     "cmp_ldap_ber_get_next", as_long(len_len), as_long(content_len));
        return -1;
    }
    return (int32_t)next;
}

int32_t cmp_ldap_ber_count_members(const CMP_LDAP_MESSAGE *mes, int32_t pos)
{
    static const char kName[] = "cmp_ldap_ber_count_members";
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    int32_t quick = 0, first = 0;
    if (cmp_ldap_quiet_count(mes, pos, &quick, &first)) return quick;
    int32_t end = cmp_ldap_ber_get_next(mes, pos);
    if (end == -1) {
        CMP_LDAP_LOG(-1, "%s(): Cannot get value end pos.\n", kName);
        return -1;
    }
    uint32_t content = cmp_ldap_ber_get_content(mes, pos);
    if (content == CMP_LDAP_POS_ERROR) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get value content.\n", kName);
        return -1;
    }
    int32_t p = (int32_t)content;
    if (end <= p) return 0;
    /* Every step advances by at least two octets, and a step past the PDU fails,
     * so this ends. A last member overrunning its parent still counts. */
    int32_t count = 0;
    for (;;) {
        p = cmp_ldap_ber_get_next(mes, p);
        ++count;
        if (p == -1) {
            CMP_LDAP_LOG(-1, "%s(): Cannot get next attributes value pos.\n", kName);
            return -1;
        }
        if (p >= end) return count;
    }
}

int32_t cmp_ldap_ber_get_attr_pos_of_search_entry(const CMP_LDAP_MESSAGE *mes)
{
    static const char kName[] = "cmp_ldap_ber_get_attr_pos_of_search_entry";
    CMP_LDAP_ASSERT(mes != nullptr, "mes != ((void *)0)", CMP_LDAP_SRC_DECODE);
    int32_t dn = 0, list = 0;
    if (cmp_ldap_quiet_entry(mes, &dn, &list)) return list;
    CMP_LDAP_MESSAGE_REC rec;
    if (cmp_ldap_ber_decode_ldap_message(mes, &rec) == -1) return -1;
    if (rec.application != CMP_LDAP_RES_SEARCH_ENTRY) {
        CMP_LDAP_LOG(-1, "%s(): It's not LDAP_RES_SEARCH_ENTRY (application=%d).\n", kName,
                     (int)rec.application);
        return -1;
    }
    uint32_t p = cmp_ldap_ber_get_content(mes, rec.pos);
    if (p == CMP_LDAP_POS_ERROR) {
        /* "conten" is the line's own spelling; kept deliberately. */
        CMP_LDAP_LOG(-1, "%s(): Failed to retrieve [APPLICATION 4] conten.\n", kName);
        return -1;
    }
    uint8_t tag = cmp_ldap_ber_get_tag(mes, (int32_t)p);
    if (tag_number(tag) != kTagOctetString) {
        CMP_LDAP_LOG(-1, "%s(): Unexpected data type (tag.type = %i).\n", kName, tag_type(tag));
        return -1;
    }
    int32_t q = cmp_ldap_ber_get_next(mes, (int32_t)p);
    if (q == -1) {
        CMP_LDAP_LOG(-1, "%s(): Failed to skip LDAPDN field.\n", kName);
        return -1;
    }
    tag = cmp_ldap_ber_get_tag(mes, q);
    if (tag_number(tag) != kTagSequence || (tag & kConstructed) == 0) {
        CMP_LDAP_LOG(-1, "%s(): Unexpected format (tag.type = %i).\n", kName, tag_type(tag));
        return -1;
    }
    return q;
}

namespace {

const char kLookupName[] = "cmp_ldap_ber_lookup_attribute_on_search_entry";

/* The lookup's scan from the PartialAttribute at p on, with the name buffer allocated
 * (and released here on every path). */
int32_t cmp_ldap_lookup_scan(const CMP_LDAP_MESSAGE *mes, const char *attr, char *name, uint32_t p,
                             int32_t end)
{
    for (;;) {
        uint32_t r =
            cmp_ldap_ber_decode_attr_name_of_attribute(mes, (int32_t)p, name, kAttrNameSize);
        if (r == CMP_LDAP_POS_ERROR) break;
        if (same_attribute_type(attr, name)) {
            cmp_ldap_free(name);
            return (int32_t)r; /* the value SET follows the type */
        }
        int32_t next = cmp_ldap_ber_get_next(mes, (int32_t)p);
        if (next == -1) {
            CMP_LDAP_LOG(-1, "%s(): Failed to get next position.\n", kLookupName);
            break;
        }
        p = (uint32_t)next;
        /* The test is on r, the end of the type just read, not on the new p;
         * deliberate: a missing name steps once past the list and fails on the
         * decode of whatever follows it. */
        if (!((int32_t)r < end && (int32_t)r < mes->cmp_ldap_total_size)) break;
    }
    cmp_ldap_free(name);
    return -1;
}

/* The same scan over well-formed attributes, comparing each type where it lies; the
 * first attribute it cannot read silently goes to the scan above. */
int32_t cmp_ldap_lookup_scan_quiet(const CMP_LDAP_MESSAGE *mes, const char *attr, char *name,
                                   int32_t p, int32_t end)
{
    for (;;) {
        int32_t type = 0, next = 0;
        uint32_t len = 0;
        if (!cmp_ldap_quiet_attr_type(mes, p, &type, &len) || !cmp_ldap_quiet_next(mes, p, &next))
            return cmp_ldap_lookup_scan(mes, attr, name, (uint32_t)p, end);
        const int32_t r = type + (int32_t)len;
        if (same_attribute_type_at(attr, cmp_ldap_pdu(mes) + type, len)) {
            cmp_ldap_free(name);
            return r;
        }
        if (!(r < end && r < mes->cmp_ldap_total_size)) {
            cmp_ldap_free(name);
            return -1;
        }
        p = next;
    }
}

/* A lookup of the name that the walk has just put in the buffer, answered from the
 * walk's mark: the current attribute, when no earlier name can be the same and the
 * attribute in the PDU still is where the mark says and bears that name. */
bool cmp_ldap_lookup_marked(const CMP_LDAP_MESSAGE *mes, int32_t *set)
{
    CMP_LDAP_WALK_MARK m;
    if (!cmp_ldap_walk_mark_get(mes, &m)) return false;
    /* A name equal to the current one has its hash bit. */
    const uint64_t earlier = ((uint64_t)m.earlier_hi << 32) | m.earlier_lo;
    if ((earlier >> m.bit) & 1u) return false;
    int32_t type = 0, next = 0;
    uint32_t type_len = 0;
    if (!cmp_ldap_quiet_attr_type(mes, m.cur, &type, &type_len) ||
        type + (int32_t)type_len != m.set || !cmp_ldap_quiet_next(mes, m.cur, &next) ||
        next != m.next ||
        !same_attribute_type_at(mes->cmp_ldap_attr_name, cmp_ldap_pdu(mes) + type, type_len))
        return false;
    *set = m.set;
    return true;
}

}  // namespace

int32_t cmp_ldap_ber_lookup_attribute_on_search_entry(const CMP_LDAP_MESSAGE *mes, const char *attr)
{
    static const char *const kName = kLookupName;
    CMP_LDAP_ASSERT(nullptr != mes, "((void *)0) != mes", CMP_LDAP_SRC_DECODE);
    CMP_LDAP_ASSERT(nullptr != attr, "((void *)0) != attr", CMP_LDAP_SRC_DECODE);
    char *name = nullptr;
    int32_t end = -1;
    uint32_t p = CMP_LDAP_POS_ERROR;

    int32_t dn = 0, list = 0, first = 0;
    uint32_t unused = 0;
    if (attr == mes->cmp_ldap_attr_name && cmp_ldap_lookup_marked(mes, &first)) {
        /* The name buffer is allocated and released as by the scan it stands in for. */
        name = static_cast<char *>(cmp_ldap_malloc(kName, (uint32_t)kAttrNameSize));
        if (name == nullptr) return -1;
        cmp_ldap_free(name);
        return first;
    }
    if (cmp_ldap_quiet_entry(mes, &dn, &list) && cmp_ldap_quiet_next(mes, list, &end) &&
        cmp_ldap_quiet_header(mes, list, &first, &unused)) {
        name = static_cast<char *>(cmp_ldap_malloc(kName, (uint32_t)kAttrNameSize));
        if (name == nullptr) return -1;
        return cmp_ldap_lookup_scan_quiet(mes, attr, name, first, end);
    }

    list = cmp_ldap_ber_get_attr_pos_of_search_entry(mes);
    if (list == -1) goto fail;
    end = cmp_ldap_ber_get_next(mes, list);
    if (end == -1) {
        CMP_LDAP_LOG(-1, "%s(): Cannot get next attributes pos.\n", kName);
        goto fail;
    }
    p = cmp_ldap_ber_get_content(mes, list);
    if (p == CMP_LDAP_POS_ERROR) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get first attribute.\n", kName);
        goto fail;
    }

    name = static_cast<char *>(cmp_ldap_malloc(kName, (uint32_t)kAttrNameSize));
    if (name == nullptr) return -1;
    return cmp_ldap_lookup_scan(mes, attr, name, p, end);

fail:
    /* Nothing is allocated yet; the release still runs, with a null block. */
    cmp_ldap_free(name);
    return -1;
}
