/*
 * The two-pass BER encoder of every request the library sends, and the parsing of
 * a caller's search parameters into the lists the search request encoder walks.
 *
 * Each request kind has a length function and an encoder. The length function
 * computes, bottom-up, the content length of every constructed element and returns
 * the PDU's total size; the caller allocates exactly that and the encoder writes the
 * PDU front to back, recomputing each nested content length with the same functions
 * when it writes that element's header. The encoder never checks the buffer's end:
 * the two passes agree to the octet.
 *
 * Length contract: a length function returns 0 when the request cannot be encoded,
 * that is when some element's content would reach 16,777,216 octets (2^24; the long
 * length form stops at three octets here) or when a parsed filter record is out of
 * range (a match type above 3, more items than its array holds). The encoder must
 * not be called then; no real PDU is 0 octets long. Internally the sizes saturate at
 * CMP_LDAP_BER_CANNOT_ENCODE, so no 32-bit sum can wrap on the way up.
 */
#include "cmp_ldap_internal.h"

namespace {

/* Largest content length an element may have: its length field is then 4 octets. */
constexpr uint32_t CMP_LDAP_BER_MAX_CONTENT = 0xFFFFFFu;
/* Any size above the maximum is "cannot encode"; this is the value it sticks at. */
constexpr uint32_t CMP_LDAP_BER_CANNOT_ENCODE = 0xFFFFFFFFu;

constexpr uint8_t CMP_LDAP_TAG_BOOLEAN = 0x01;
constexpr uint8_t CMP_LDAP_TAG_INTEGER = 0x02;
constexpr uint8_t CMP_LDAP_TAG_OCTET_STRING = 0x04;
constexpr uint8_t CMP_LDAP_TAG_ENUMERATED = 0x0A;
constexpr uint8_t CMP_LDAP_TAG_SEQUENCE = 0x30;
constexpr uint8_t CMP_LDAP_TAG_BIND_REQUEST = 0x60;
constexpr uint8_t CMP_LDAP_TAG_SEARCH_REQUEST = 0x63;
constexpr uint8_t CMP_LDAP_TAG_EXTENDED_REQUEST = 0x77;
constexpr uint8_t CMP_LDAP_TAG_SIMPLE = 0x80;       /* AuthenticationChoice simple */
constexpr uint8_t CMP_LDAP_TAG_SASL = 0xA3;         /* AuthenticationChoice sasl */
constexpr uint8_t CMP_LDAP_TAG_REQUEST_NAME = 0x80; /* ExtendedRequest requestName */
constexpr uint8_t CMP_LDAP_TAG_FILTER_AND = 0xA0;
constexpr uint8_t CMP_LDAP_TAG_FILTER_OR = 0xA1;
constexpr uint8_t CMP_LDAP_TAG_FILTER_EQUALITY = 0xA3;
constexpr uint8_t CMP_LDAP_TAG_FILTER_SUBSTRINGS = 0xA4;
constexpr uint8_t CMP_LDAP_TAG_FILTER_PRESENT = 0x87;

/* Substrings choice by match type 0 (any), 1 (initial), 2 (final). */
constexpr uint8_t CMP_LDAP_SUBSTRING_TAG[] = {0x81, 0x80, 0x82};

constexpr char CMP_LDAP_STARTTLS_OID[] = "1.3.6.1.4.1.1466.20037";
constexpr char CMP_LDAP_ALL_OBJECTS[] = "objectClass"; /* (objectClass=*) */

constexpr uint8_t CMP_LDAP_VERSION3[] = {CMP_LDAP_TAG_INTEGER, 0x01, 0x03};

/* Entries a search takes from each list; the attribute array has one more slot,
 * always null. */
constexpr uint32_t CMP_LDAP_MAX_FILTER_ITEMS = 2;
constexpr uint32_t CMP_LDAP_MAX_PRESENT_ATTRS = 3;
constexpr uint32_t CMP_LDAP_MAX_ATTRIBUTES = 8;

}  // namespace

/* ---- primitives ---- */

/* Octets of the length field for a content length; the long form is always minimal. */
static uint32_t cmp_ldap_ber_length_size(uint32_t len)
{
    if (len < 128) return 1;
    uint32_t k = 1; /* the 0x80 | count octet, then the octets of len */
    for (uint32_t rest = len; rest != 0; rest >>= 8)
        ++k;
    return k; /* 2 below 256, 3 below 65,536, 4 below 2^24; 5 never reaches the encoders */
}

static uint32_t cmp_ldap_ber_put_length(uint32_t len, uint32_t *pos, unsigned char *buf)
{
    uint32_t k = cmp_ldap_ber_length_size(len);
    if (k == 1) {
        buf[(*pos)++] = (unsigned char)len;
        return 1;
    }
    buf[(*pos)++] = (unsigned char)(0x80u | (k - 1));
    for (uint32_t i = k - 1; i-- > 0;)
        buf[(*pos)++] = (unsigned char)(len >> (8 * i));
    return k;
}

static void cmp_ldap_ber_put_header(uint8_t tag, uint32_t len, uint32_t *pos, unsigned char *buf)
{
    buf[(*pos)++] = tag;
    (void)cmp_ldap_ber_put_length(len, pos, buf);
}

static void cmp_ldap_ber_put_bytes(uint8_t tag, const void *data, uint32_t len, uint32_t *pos,
                                   unsigned char *buf)
{
    cmp_ldap_ber_put_header(tag, len, pos, buf);
    if (len != 0) memcpy(buf + *pos, data, len);
    *pos += len;
}

static void cmp_ldap_ber_put_tagged_string(uint8_t tag, const char *s, uint32_t *pos,
                                           unsigned char *buf)
{
    cmp_ldap_ber_put_bytes(tag, s, (uint32_t)strlen(s), pos, buf);
}

/* INTEGER content octets of a signed 32-bit field, examined as unsigned: 1 for
 * 0..127, 2 up to 32,767, 3 up to 8,388,607, 4 up to INT32_MAX, 5 with the top bit
 * set. Negative values thus take five octets led by 0xFF; that is deliberate and
 * only reached by values the operations reject. */
static inline uint32_t cmp_ldap_ber_integer_size(int32_t value)
{
    uint32_t x = (uint32_t)value;
    if (x < 128) return 1;
    uint32_t k = 2;
    for (x >>= 8; x >= 128; x >>= 8)
        ++k;
    return k;
}

static inline void cmp_ldap_ber_put_integer(int32_t value, uint32_t *pos, unsigned char *buf)
{
    uint32_t k = cmp_ldap_ber_integer_size(value);
    buf[(*pos)++] = CMP_LDAP_TAG_INTEGER;
    buf[(*pos)++] = (unsigned char)k;
    /* 64-bit so that the shift by 32 of a five-octet value gives the sign fill */
    for (uint32_t i = k; i-- > 0;)
        buf[(*pos)++] = (unsigned char)((int64_t)value >> (8 * i));
}

static inline void cmp_ldap_ber_put_enumerated(uint32_t value, uint32_t *pos, unsigned char *buf)
{
    buf[(*pos)++] = CMP_LDAP_TAG_ENUMERATED;
    buf[(*pos)++] = 0x01;
    buf[(*pos)++] = (unsigned char)value;
}

static inline void cmp_ldap_ber_put_boolean(uint32_t value, uint32_t *pos, unsigned char *buf)
{
    buf[(*pos)++] = CMP_LDAP_TAG_BOOLEAN;
    buf[(*pos)++] = 0x01;
    buf[(*pos)++] = value != 0 ? 0xFF : 0x00;
}

/* ---- saturating sizes of the length pass ---- */

static inline uint32_t cmp_ldap_ber_sum(uint32_t a, uint32_t b)
{
    /* Both at most 2^24 - 1, so the sum cannot wrap; anything larger sticks. */
    if (a > CMP_LDAP_BER_MAX_CONTENT || b > CMP_LDAP_BER_MAX_CONTENT)
        return CMP_LDAP_BER_CANNOT_ENCODE;
    return a + b;
}

/* Octets of a whole element (tag, length field, content) with this content length. */
static inline uint32_t cmp_ldap_ber_element_size(uint32_t content)
{
    if (content > CMP_LDAP_BER_MAX_CONTENT) return CMP_LDAP_BER_CANNOT_ENCODE;
    return 1 + cmp_ldap_ber_length_size(content) + content;
}

static inline uint32_t cmp_ldap_ber_string_size(const char *s)
{
    size_t len = strlen(s);
    return len > CMP_LDAP_BER_MAX_CONTENT ? CMP_LDAP_BER_CANNOT_ENCODE
                                          : cmp_ldap_ber_element_size((uint32_t)len);
}

/* LDAPMessage content: the message id INTEGER and the protocol operation. */
static uint32_t cmp_ldap_message_content(const CMP_LDAP *ld, uint32_t op_content)
{
    return cmp_ldap_ber_sum(2 + cmp_ldap_ber_integer_size(ld->ld_mid),
                            cmp_ldap_ber_element_size(op_content));
}

static uint32_t cmp_ldap_message_total(const CMP_LDAP *ld, uint32_t op_content)
{
    uint32_t total = cmp_ldap_ber_element_size(cmp_ldap_message_content(ld, op_content));
    return total == CMP_LDAP_BER_CANNOT_ENCODE ? 0 : total;
}

/* 0x30 M, the message id, and the operation's tag and length: common to all requests. */
static void cmp_ldap_ber_put_message_header(const CMP_LDAP *ld, uint8_t op_tag, uint32_t op_content,
                                            uint32_t *pos, unsigned char *buf)
{
    cmp_ldap_ber_put_header(CMP_LDAP_TAG_SEQUENCE, cmp_ldap_message_content(ld, op_content), pos,
                            buf);
    cmp_ldap_ber_put_integer(ld->ld_mid, pos, buf);
    cmp_ldap_ber_put_header(op_tag, op_content, pos, buf);
}

static void cmp_ldap_ber_put_version3(uint32_t *pos, unsigned char *buf)
{
    memcpy(buf + *pos, CMP_LDAP_VERSION3, sizeof CMP_LDAP_VERSION3);
    *pos += sizeof CMP_LDAP_VERSION3;
}

/* ---- simple bind ---- */

/* BindRequest content: version, name, simple password. */
static uint32_t cmp_ldap_bind_content(const char *dn, const char *passwd)
{
    return cmp_ldap_ber_sum(
        sizeof CMP_LDAP_VERSION3,
        cmp_ldap_ber_sum(cmp_ldap_ber_string_size(dn), cmp_ldap_ber_string_size(passwd)));
}

uint32_t cmp_ldap_get_bind_request_message_length(const CMP_LDAP *ld, const char *dn,
                                                  const char *passwd)
{
    return cmp_ldap_message_total(ld, cmp_ldap_bind_content(dn, passwd));
}

void cmp_ldap_ber_encode_bind_request(const CMP_LDAP *ld, const char *dn, const char *passwd,
                                      unsigned char *buf)
{
    uint32_t pos = 0;
    cmp_ldap_ber_put_message_header(ld, CMP_LDAP_TAG_BIND_REQUEST,
                                    cmp_ldap_bind_content(dn, passwd), &pos, buf);
    cmp_ldap_ber_put_version3(&pos, buf);
    cmp_ldap_ber_put_tagged_string(CMP_LDAP_TAG_OCTET_STRING, dn, &pos, buf);
    cmp_ldap_ber_put_tagged_string(CMP_LDAP_TAG_SIMPLE, passwd, &pos, buf);
}

/* ---- SASL bind ---- */

/* SaslCredentials content: the mechanism and, when there are any, the credentials. */
static uint32_t cmp_ldap_sasl_credentials_content(const char *mechanism,
                                                  const CMP_LDAP_SASL_CRED *cred)
{
    uint32_t s = cmp_ldap_ber_string_size(mechanism);
    if (cred->total_size == 0) return s;
    return cmp_ldap_ber_sum(s, cmp_ldap_ber_element_size(cred->total_size));
}

/* BindRequest content: version, empty name (2 octets), the [3] sasl element. */
static uint32_t cmp_ldap_sasl_bind_content(const char *mechanism, const CMP_LDAP_SASL_CRED *cred)
{
    return cmp_ldap_ber_sum(
        sizeof CMP_LDAP_VERSION3 + 2,
        cmp_ldap_ber_element_size(cmp_ldap_sasl_credentials_content(mechanism, cred)));
}

uint32_t cmp_ldap_get_sasl_bind_request_message_length(const CMP_LDAP *ld, const char *mechanism,
                                                       const CMP_LDAP_SASL_CRED *cred)
{
    return cmp_ldap_message_total(ld, cmp_ldap_sasl_bind_content(mechanism, cred));
}

void cmp_ldap_ber_encode_sasl_bind_request(const CMP_LDAP *ld, const char *mechanism,
                                           const CMP_LDAP_SASL_CRED *cred, unsigned char *buf)
{
    uint32_t pos = 0;
    cmp_ldap_ber_put_message_header(ld, CMP_LDAP_TAG_BIND_REQUEST,
                                    cmp_ldap_sasl_bind_content(mechanism, cred), &pos, buf);
    cmp_ldap_ber_put_version3(&pos, buf);
    cmp_ldap_ber_put_bytes(CMP_LDAP_TAG_OCTET_STRING, nullptr, 0, &pos, buf); /* empty DN */
    cmp_ldap_ber_put_header(CMP_LDAP_TAG_SASL, cmp_ldap_sasl_credentials_content(mechanism, cred),
                            &pos, buf);
    cmp_ldap_ber_put_tagged_string(CMP_LDAP_TAG_OCTET_STRING, mechanism, &pos, buf);
    if (cred->total_size != 0)
        cmp_ldap_ber_put_bytes(CMP_LDAP_TAG_OCTET_STRING, cred->data, cred->total_size, &pos, buf);
}

/* ---- search request and its filter ---- */

/* SubstringFilter.substrings content: the one choice holding the value. */
static inline uint32_t cmp_ldap_substrings_content(const CMP_LDAP_FILTER_ITEM *item)
{
    return cmp_ldap_ber_string_size(item->cmp_ldap_value);
}

/* Records given straight to the exported encoder are not checked by a search:
 * members past the record's own arrays and items whose match type is above
 * equality are not written, and not counted either, so that the length and the
 * bytes always agree and nothing is read or written out of bounds. */
static inline uint32_t cmp_ldap_filter_items_used(const CMP_LDAP_SEARCH_FILTER *filter)
{
    return filter->cmp_ldap_filter_count < CMP_LDAP_MAX_FILTER_ITEMS ? filter->cmp_ldap_filter_count
                                                                     : CMP_LDAP_MAX_FILTER_ITEMS;
}
static inline uint32_t cmp_ldap_presence_attrs_used(const CMP_LDAP_SEARCH_FILTER_PRESENT *fp)
{
    return fp->cmp_ldap_filter_count < CMP_LDAP_MAX_PRESENT_ATTRS ? fp->cmp_ldap_filter_count
                                                                  : CMP_LDAP_MAX_PRESENT_ATTRS;
}
static inline bool cmp_ldap_filter_item_written(const CMP_LDAP_FILTER_ITEM *item)
{
    return item->cmp_ldap_filterCond <= CMP_LDAP_FILTER_COND_EQUAL;
}

/* Content of one member of the attribute/value set (equality or substrings). */
static uint32_t cmp_ldap_filter_item_content(const CMP_LDAP_FILTER_ITEM *item)
{
    uint32_t attr = cmp_ldap_ber_string_size(item->cmp_ldap_attr);
    if (item->cmp_ldap_filterCond == CMP_LDAP_FILTER_COND_EQUAL)
        return cmp_ldap_ber_sum(attr, cmp_ldap_ber_string_size(item->cmp_ldap_value));
    return cmp_ldap_ber_sum(attr, cmp_ldap_ber_element_size(cmp_ldap_substrings_content(item)));
}

/* F: content of the attribute/value and/or set. */
static uint32_t cmp_ldap_filter_set_content(const CMP_LDAP_SEARCH_FILTER *filter)
{
    uint32_t f = 0;
    for (uint32_t i = 0; i < cmp_ldap_filter_items_used(filter); ++i) {
        const CMP_LDAP_FILTER_ITEM *item = &filter->cmp_ldap_items[i];
        if (cmp_ldap_filter_item_written(item))
            f = cmp_ldap_ber_sum(f, cmp_ldap_ber_element_size(cmp_ldap_filter_item_content(item)));
    }
    return f;
}

/* P: content of the presence and/or set. */
static uint32_t cmp_ldap_presence_set_content(const CMP_LDAP_SEARCH_FILTER_PRESENT *fp)
{
    uint32_t p = 0;
    for (uint32_t i = 0; i < cmp_ldap_presence_attrs_used(fp); ++i)
        p = cmp_ldap_ber_sum(p, cmp_ldap_ber_string_size(fp->attr[i]));
    return p;
}

/* Fl: content of the one Filter element of the request. */
static uint32_t cmp_ldap_filter_content(const CMP_LDAP_SEARCH_FILTER *filter,
                                        const CMP_LDAP_SEARCH_FILTER_PRESENT *fp)
{
    if (filter == nullptr && fp == nullptr) return sizeof CMP_LDAP_ALL_OBJECTS - 1;
    if (fp == nullptr) return cmp_ldap_filter_set_content(filter);
    if (filter == nullptr) return cmp_ldap_presence_set_content(fp);
    return cmp_ldap_ber_sum(cmp_ldap_ber_element_size(cmp_ldap_filter_set_content(filter)),
                            cmp_ldap_ber_element_size(cmp_ldap_presence_set_content(fp)));
}

/* A: content of the AttributeDescriptionList. */
static uint32_t cmp_ldap_attributes_content(char *const *attrs)
{
    uint32_t a = 0;
    for (; *attrs != nullptr; ++attrs)
        a = cmp_ldap_ber_sum(a, cmp_ldap_ber_string_size(*attrs));
    return a;
}

/* R: SearchRequest content. Scope, derefAliases and typesOnly are 3 octets each
 * whatever their values. */
static uint32_t cmp_ldap_search_content(const CMP_LDAP *ld, const char *base,
                                        const CMP_LDAP_SEARCH_FILTER *filter,
                                        const CMP_LDAP_SEARCH_FILTER_PRESENT *fp,
                                        char *const *attrs)
{
    uint32_t fixed = 3 + 3 + 2 + cmp_ldap_ber_integer_size(ld->ld_sizelimit) + 2 +
                     cmp_ldap_ber_integer_size(ld->ld_timelimit) + 3;
    uint32_t r = cmp_ldap_ber_sum(cmp_ldap_ber_string_size(base), fixed);
    r = cmp_ldap_ber_sum(r, cmp_ldap_ber_element_size(cmp_ldap_filter_content(filter, fp)));
    return cmp_ldap_ber_sum(r, cmp_ldap_ber_element_size(cmp_ldap_attributes_content(attrs)));
}

static void cmp_ldap_ber_put_filter_set(const CMP_LDAP_SEARCH_FILTER *filter, uint32_t *pos,
                                        unsigned char *buf)
{
    uint8_t tag = filter->cmp_ldap_searchCond == CMP_LDAP_SEARCH_COND_OR ? CMP_LDAP_TAG_FILTER_OR
                                                                         : CMP_LDAP_TAG_FILTER_AND;
    cmp_ldap_ber_put_header(tag, cmp_ldap_filter_set_content(filter), pos, buf);
    for (uint32_t i = 0; i < cmp_ldap_filter_items_used(filter); ++i) {
        const CMP_LDAP_FILTER_ITEM *item = &filter->cmp_ldap_items[i];
        if (!cmp_ldap_filter_item_written(item)) continue;
        uint32_t cond = item->cmp_ldap_filterCond;
        bool equality = cond == CMP_LDAP_FILTER_COND_EQUAL;
        cmp_ldap_ber_put_header(
            equality ? CMP_LDAP_TAG_FILTER_EQUALITY : CMP_LDAP_TAG_FILTER_SUBSTRINGS,
            cmp_ldap_filter_item_content(item), pos, buf);
        cmp_ldap_ber_put_tagged_string(CMP_LDAP_TAG_OCTET_STRING, item->cmp_ldap_attr, pos, buf);
        if (equality) {
            cmp_ldap_ber_put_tagged_string(CMP_LDAP_TAG_OCTET_STRING, item->cmp_ldap_value, pos,
                                           buf);
        } else {
            cmp_ldap_ber_put_header(CMP_LDAP_TAG_SEQUENCE, cmp_ldap_substrings_content(item), pos,
                                    buf);
            cmp_ldap_ber_put_tagged_string(CMP_LDAP_SUBSTRING_TAG[cond], item->cmp_ldap_value, pos,
                                           buf);
        }
    }
}

static void cmp_ldap_ber_put_presence_set(const CMP_LDAP_SEARCH_FILTER_PRESENT *fp, uint32_t *pos,
                                          unsigned char *buf)
{
    uint8_t tag = fp->cmp_ldap_searchCond == CMP_LDAP_SEARCH_COND_OR ? CMP_LDAP_TAG_FILTER_OR
                                                                     : CMP_LDAP_TAG_FILTER_AND;
    cmp_ldap_ber_put_header(tag, cmp_ldap_presence_set_content(fp), pos, buf);
    for (uint32_t i = 0; i < cmp_ldap_presence_attrs_used(fp); ++i)
        cmp_ldap_ber_put_tagged_string(CMP_LDAP_TAG_FILTER_PRESENT, fp->attr[i], pos, buf);
}

uint32_t cmp_ldap_get_search_request_message_length(
    const CMP_LDAP *ld, const char *base, const CMP_LDAP_SEARCH_FILTER *filter,
    const CMP_LDAP_SEARCH_FILTER_PRESENT *filter_present, char *const *attrs)
{
    return cmp_ldap_message_total(ld,
                                  cmp_ldap_search_content(ld, base, filter, filter_present, attrs));
}

void cmp_ldap_ber_encode_search_request(const CMP_LDAP *ld, const char *base, uint32_t scope,
                                        const CMP_LDAP_SEARCH_FILTER *filter,
                                        const CMP_LDAP_SEARCH_FILTER_PRESENT *filter_present,
                                        char *const *attrs, uint32_t attrsonly, unsigned char *buf)
{
    uint32_t pos = 0;
    cmp_ldap_ber_put_message_header(
        ld, CMP_LDAP_TAG_SEARCH_REQUEST,
        cmp_ldap_search_content(ld, base, filter, filter_present, attrs), &pos, buf);
    cmp_ldap_ber_put_tagged_string(CMP_LDAP_TAG_OCTET_STRING, base, &pos, buf);
    cmp_ldap_ber_put_enumerated(scope, &pos, buf);
    cmp_ldap_ber_put_enumerated((uint32_t)ld->ld_deref, &pos, buf);
    /* sizeLimit comes before timeLimit on the wire, unlike the handle's field order */
    cmp_ldap_ber_put_integer(ld->ld_sizelimit, &pos, buf);
    cmp_ldap_ber_put_integer(ld->ld_timelimit, &pos, buf);
    cmp_ldap_ber_put_boolean(attrsonly, &pos, buf);

    if (filter == nullptr && filter_present == nullptr) {
        cmp_ldap_ber_put_tagged_string(CMP_LDAP_TAG_FILTER_PRESENT, CMP_LDAP_ALL_OBJECTS, &pos,
                                       buf);
    } else if (filter_present == nullptr) {
        cmp_ldap_ber_put_filter_set(filter, &pos, buf);
    } else if (filter == nullptr) {
        cmp_ldap_ber_put_presence_set(filter_present, &pos, buf);
    } else {
        /* Both sets are always joined by AND, whatever their own searchCond. */
        cmp_ldap_ber_put_header(CMP_LDAP_TAG_FILTER_AND,
                                cmp_ldap_filter_content(filter, filter_present), &pos, buf);
        cmp_ldap_ber_put_filter_set(filter, &pos, buf);
        cmp_ldap_ber_put_presence_set(filter_present, &pos, buf);
    }

    cmp_ldap_ber_put_header(CMP_LDAP_TAG_SEQUENCE, cmp_ldap_attributes_content(attrs), &pos, buf);
    for (; *attrs != nullptr; ++attrs)
        cmp_ldap_ber_put_tagged_string(CMP_LDAP_TAG_OCTET_STRING, *attrs, &pos, buf);
}

/* ---- StartTLS extended request ---- */

/* ExtendedRequest content: the requestName only; no requestValue is ever sent. */
static inline uint32_t cmp_ldap_extend_content(void)
{
    return cmp_ldap_ber_element_size(sizeof CMP_LDAP_STARTTLS_OID - 1);
}

uint32_t cmp_ldap_get_extend_request_message_length(const CMP_LDAP *ld)
{
    return cmp_ldap_message_total(ld, cmp_ldap_extend_content());
}

void cmp_ldap_ber_encode_extend_request(const CMP_LDAP *ld, unsigned char *buf)
{
    uint32_t pos = 0;
    cmp_ldap_ber_put_message_header(ld, CMP_LDAP_TAG_EXTENDED_REQUEST, cmp_ldap_extend_content(),
                                    &pos, buf);
    cmp_ldap_ber_put_tagged_string(CMP_LDAP_TAG_REQUEST_NAME, CMP_LDAP_STARTTLS_OID, &pos, buf);
}

/* ---- search parameters ---- */

uint32_t cmp_ldap_ber_next_token(const char *s, uint32_t index, const char **start)
{
    *start = nullptr;
    if (s == nullptr) return 0;
    for (uint32_t i = 0; i < index; ++i) {
        s = strchr(s, ',');
        if (s == nullptr) return 0;
        ++s;
    }
    while (*s == ' ')
        ++s; /* blanks only: tabs and other white space belong to the entry */
    if (*s == '\0' || *s == ',') return 0;
    const char *end = s + strcspn(s, ",");
    while (end[-1] == ' ')
        --end; /* stops at s, which is not a blank */
    *start = s;
    return (uint32_t)(end - s);
}

/* Copies one entry into a fixed field whose zero fill terminates it. Entries of the
 * callers' checked records always fit; the clamp only keeps the field whole. */
static void cmp_ldap_copy_entry(char (&field)[CMP_LDAP_TEXT_SIZE], const char *start, uint32_t len)
{
    memcpy(field, start, len < CMP_LDAP_TEXT_MAX ? len : CMP_LDAP_TEXT_MAX);
}

template <typename T>
static T *cmp_ldap_alloc_zeroed(const char *funcname)
{
    auto *block = static_cast<T *>(cmp_ldap_malloc(funcname, sizeof(T)));
    if (block != nullptr) memset(static_cast<void *>(block), 0, sizeof(T));
    return block;
}

CMP_LDAP_SEARCH_FILTER *cmp_ldap_parse_search_filter(const CMP_LDAP_FILTER *filter)
{
    auto *parsed = cmp_ldap_alloc_zeroed<CMP_LDAP_SEARCH_FILTER>("cmp_ldap_parse_search_filter");
    if (parsed == nullptr || filter == nullptr) return parsed;
    /* Only the first two pairs count; a pair with either side empty is skipped and
     * the next one moves up. */
    for (uint32_t i = 0; i < CMP_LDAP_MAX_FILTER_ITEMS; ++i) {
        const char *attr, *value;
        uint32_t attr_len = cmp_ldap_ber_next_token(filter->cmp_ldap_attr, i, &attr);
        uint32_t value_len = cmp_ldap_ber_next_token(filter->cmp_ldap_value, i, &value);
        if (attr_len == 0 || value_len == 0) continue;
        CMP_LDAP_FILTER_ITEM *item = &parsed->cmp_ldap_items[parsed->cmp_ldap_filter_count++];
        item->cmp_ldap_filterCond = filter->cmp_ldap_filterCond;
        cmp_ldap_copy_entry(item->cmp_ldap_attr, attr, attr_len);
        cmp_ldap_copy_entry(item->cmp_ldap_value, value, value_len);
    }
    parsed->cmp_ldap_searchCond = filter->cmp_ldap_searchCond;
    return parsed;
}

void cmp_ldap_free_search_filter(CMP_LDAP_SEARCH_FILTER *filter)
{
    cmp_ldap_free(filter);
}

CMP_LDAP_SEARCH_FILTER_PRESENT *cmp_ldap_parse_search_filter_present(
    const CMP_LDAP_FILTER_PRESENT *filter_present)
{
    auto *parsed = cmp_ldap_alloc_zeroed<CMP_LDAP_SEARCH_FILTER_PRESENT>(
        "cmp_ldap_parse_search_filter_present");
    if (parsed == nullptr || filter_present == nullptr) return parsed;
    for (uint32_t i = 0; i < CMP_LDAP_MAX_PRESENT_ATTRS; ++i) {
        const char *attr;
        uint32_t len = cmp_ldap_ber_next_token(filter_present->attr, i, &attr);
        if (len != 0) cmp_ldap_copy_entry(parsed->attr[parsed->cmp_ldap_filter_count++], attr, len);
    }
    parsed->cmp_ldap_searchCond = filter_present->cmp_ldap_searchCond;
    return parsed;
}

void cmp_ldap_free_search_filter_present(CMP_LDAP_SEARCH_FILTER_PRESENT *fp)
{
    cmp_ldap_free(fp);
}

char **cmp_ldap_parse_search_attributes(const char *attrs)
{
    static const char kName[] = "cmp_ldap_parse_search_attributes";
    const uint32_t array_size = (CMP_LDAP_MAX_ATTRIBUTES + 1) * sizeof(char *);
    auto **list = static_cast<char **>(cmp_ldap_malloc(kName, array_size));
    if (list == nullptr) return nullptr;
    memset(static_cast<void *>(list), 0, array_size);
    uint32_t used = 0;
    for (uint32_t i = 0; i < CMP_LDAP_MAX_ATTRIBUTES; ++i) {
        const char *start;
        uint32_t len = cmp_ldap_ber_next_token(attrs, i, &start);
        if (len == 0) continue;
        auto *copy = static_cast<char *>(cmp_ldap_malloc(kName, len + 1));
        if (copy == nullptr) {
            cmp_ldap_free_search_attributes(list);
            return nullptr;
        }
        memcpy(copy, start, len);
        copy[len] = '\0';
        list[used++] = copy;
    }
    return list;
}

void cmp_ldap_free_search_attributes(char **attrs)
{
    if (attrs == nullptr) return;
    for (char **p = attrs; *p != nullptr; ++p)
        cmp_ldap_free(*p);
    cmp_ldap_free(attrs);
}
