/*
 * Public accessors over one received message: entries, attributes, values and
 * DNs; result codes with their texts and the transfer of a response's result
 * into the handle; message id, type and release; exploded DNs and referrals.
 *
 * Every reader walks the PDU in place through the decoding primitives, which do
 * all the bounds checking; nothing here touches the PDU bytes directly.
 */
#include "cmp_ldap_ber_quiet.h"
#include "cmp_ldap_internal.h"

namespace {

/* Positions travel as unsigned 32-bit values; all ones is failure. */
inline bool cmp_ldap_pos_failed(uint32_t pos)
{
    return pos == CMP_LDAP_POS_ERROR;
}

/* Size of a NULL-terminated array of count + 1 pointers, or 0 when that does
 * not fit the allocator's 32-bit size (never for a real PDU, but a 32-bit size
 * computation must not wrap). */
inline uint32_t cmp_ldap_pointer_array_size(uint32_t count)
{
    uint64_t bytes = ((uint64_t)count + 1u) * sizeof(void *);
    return bytes > 0xFFFFFFFFu ? 0u : (uint32_t)bytes;
}

/* Releases elements [0, count) from the last back to the first, then the array. */
template <typename T>
void cmp_ldap_release_array_backwards(T **array, uint32_t count)
{
    while (count > 0) {
        --count;
        cmp_ldap_free(array[count]);
    }
    cmp_ldap_free(array);
}

/* Reads the type of the PartialAttribute at pos into the message's name buffer and
 * gives the position after the attribute, when both read cleanly (otherwise the
 * caller takes its logging path), and leaves the walk's mark after the name when the
 * hash bits of the names before it are known (earlier not null). */
inline bool cmp_ldap_quiet_take_attribute(CMP_LDAP_MESSAGE *entry, int32_t end, int32_t pos,
                                          const uint64_t *earlier, int32_t *next)
{
    int32_t type = 0;
    uint32_t len = 0;
    if (!cmp_ldap_quiet_attr_type(entry, pos, &type, &len) ||
        !cmp_ldap_quiet_next(entry, pos, next))
        return false;
    memcpy(entry->cmp_ldap_attr_name, cmp_ldap_pdu(entry) + type, len);
    entry->cmp_ldap_attr_name[len] = '\0';
    if (earlier != nullptr)
        cmp_ldap_walk_mark_put(entry, *earlier, end, pos, *next, type + (int32_t)len, len);
    return true;
}

/* One value of a SET decoded at pos, into *record when binary, else into *text: the
 * position after it, or all ones. */
inline uint32_t cmp_ldap_decode_value(const CMP_LDAP_MESSAGE *entry, uint32_t pos, int binary,
                                      char **text, CMP_LDAP_BERVAL **record)
{
    int32_t content = 0;
    uint32_t len = 0;
    if (!cmp_ldap_quiet_string(entry, (int32_t)pos, &content, &len)) {
        /* Not a clean string: the decoder says why. */
        return binary ? cmp_ldap_ber_decode_string_len(entry, (int32_t)pos, record)
                      : cmp_ldap_ber_decode_string(entry, (int32_t)pos, text);
    }
    bool copied = false;
    if (binary)
        copied = (*record = cmp_ldap_copy_counted(entry, content, len)) != nullptr;
    else
        copied = (*text = cmp_ldap_copy_text(entry, content, len)) != nullptr;
    return copied ? (uint32_t)content + len : CMP_LDAP_POS_ERROR;
}

/* The objectName could not be copied. Memory or an undecodable name alike: reported
 * as memory. */
char *cmp_ldap_get_dn_failed(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry)
{
    static const char kName[] = "cmp_ldap_get_dn";
    ld->ld_errno = CMP_LDAP_NO_MEMORY;
    CMP_LDAP_LOG(-1, "%s(): Failed to retrieve objectName:STRING.mes=%p.\n", kName, (void *)entry);
    cmp_ldap_gentrace_ld(kName, ld);
    return nullptr;
}

}  // namespace

/* ------------------------------------------------------------------------
 * Entries: each SearchResultEntry arrives as a message of its own, so the
 * entry of a message is the message itself and there is never a next one.
 * ---------------------------------------------------------------------- */

CMP_LDAP_MESSAGE *cmp_ldap_first_entry(CMP_LDAP *ld, CMP_LDAP_MESSAGE *res)
{
    static const char kName[] = "cmp_ldap_first_entry";
    if (ld == nullptr || res == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (next either is NULL: ld,res) (res=%p).\n", kName,
                     (void *)res);
        cmp_ldap_gentrace_ld(kName, ld);
        return nullptr;
    }
    return res;
}

CMP_LDAP_MESSAGE *cmp_ldap_next_entry(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry)
{
    static const char kName[] = "cmp_ldap_next_entry";
    if (ld == nullptr || entry == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (next either is NULL: ld,entry) (entry=%p).\n",
                     kName, (void *)entry);
        cmp_ldap_gentrace_ld(kName, ld);
    }
    return nullptr;
}

int cmp_ldap_count_entries(CMP_LDAP *ld, CMP_LDAP_MESSAGE *res)
{
    static const char kName[] = "cmp_ldap_count_entries";
    if (ld == nullptr || res == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (next either is NULL: ld,res) (res=%p).\n", kName,
                     (void *)res);
        cmp_ldap_gentrace_ld(kName, ld);
        return 0;
    }
    /* Any message counts as one, even a SearchResultDone: it is never read. */
    return 1;
}

/* ------------------------------------------------------------------------
 * Attributes: the cursor lives in the message, so walking allocates nothing.
 * ---------------------------------------------------------------------- */

char *cmp_ldap_first_attribute(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry, void **ptr)
{
    static const char kName[] = "cmp_ldap_first_attribute";
    if (ld == nullptr || entry == nullptr || ptr == nullptr) {
        /* No blank after "NULL:" in this one line, deliberately. */
        CMP_LDAP_LOG(-1,
                     "%s(): parameter error (next either is NULL:ld,mes,ptr) (mes=%p,ptr=%p).\n",
                     kName, (void *)entry, (void *)ptr);
        cmp_ldap_gentrace_ld(kName, ld);
        return nullptr;
    }

    int32_t dn = 0, list = 0, first = 0, next = 0, end = 0;
    uint32_t list_len = 0;
    if (cmp_ldap_quiet_entry(entry, &dn, &list) &&
        cmp_ldap_quiet_header(entry, list, &first, &list_len)) {
        entry->cmp_ldap_attrs_pos = list;
        if (list_len == 0) {
            ld->ld_errno = CMP_LDAP_SUCCESS;
            return nullptr;
        }
        /* Without a readable end no lookup can succeed: no mark then. */
        const uint64_t none = 0;
        if (cmp_ldap_quiet_next(entry, list, &end) &&
            cmp_ldap_quiet_take_attribute(entry, end, first, &none, &next)) {
            entry->cmp_ldap_next_attr_pos = next;
            *ptr = entry;
            return entry->cmp_ldap_attr_name;
        }
    }

    list = cmp_ldap_ber_get_attr_pos_of_search_entry(entry);
    if (list == -1) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get attributes position.\n", kName);
    } else {
        entry->cmp_ldap_attrs_pos = list;
        if (cmp_ldap_ber_get_content_length(entry, list) == 0) {
            /* An entry without attributes: a clean end, not a failure. */
            ld->ld_errno = CMP_LDAP_SUCCESS;
            return nullptr;
        }
        uint32_t first = cmp_ldap_ber_get_content(entry, list);
        if (cmp_ldap_pos_failed(first)) {
            CMP_LDAP_LOG(-1, "%s(): Failed to get first attributes.\n", kName);
        } else if (cmp_ldap_pos_failed(cmp_ldap_ber_decode_attr_name_of_attribute(
                       entry, (int32_t)first, entry->cmp_ldap_attr_name, CMP_LDAP_TEXT_SIZE))) {
            CMP_LDAP_LOG(-1, "%s(): Failed to get attribute name.\n", kName);
        } else {
            int32_t next = cmp_ldap_ber_get_next(entry, (int32_t)first);
            if (next == -1) {
                CMP_LDAP_LOG(-1, "%s(): Failed to get next position.\n", kName);
            } else {
                entry->cmp_ldap_next_attr_pos = next;
                *ptr = entry;
                return entry->cmp_ldap_attr_name;
            }
        }
    }
    ld->ld_errno = CMP_LDAP_DECODING_ERROR;
    cmp_ldap_gentrace_ld(kName, ld);
    return nullptr;
}

char *cmp_ldap_next_attribute(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry, void *ptr)
{
    static const char kName[] = "cmp_ldap_next_attribute";
    if (ld == nullptr || entry == nullptr || ptr == nullptr) {
        CMP_LDAP_LOG(-1,
                     "%s(): parameter error (next either is NULL: ld,mes,ptr) (mes=%p,ptr=%p).\n",
                     kName, (void *)entry, ptr);
        cmp_ldap_gentrace_ld(kName, ld);
        return nullptr;
    }

    /* The cursor is trusted as first_attribute left it; nothing can check it. */
    int32_t end = 0, next = 0;
    if (cmp_ldap_quiet_next(entry, entry->cmp_ldap_attrs_pos, &end)) {
        const int32_t cur = entry->cmp_ldap_next_attr_pos;
        if (end <= cur) return nullptr;
        /* The mark of the attribute before carries on only if a lookup would have
         * stepped past it to this one. */
        CMP_LDAP_WALK_MARK prev;
        uint64_t earlier = 0;
        const bool chained = cmp_ldap_walk_mark_get(entry, &prev) && prev.next == cur &&
                             prev.end == end && prev.set < end &&
                             prev.set < entry->cmp_ldap_total_size;
        if (chained) earlier = cmp_ldap_walk_earlier(&prev);
        if (cmp_ldap_quiet_take_attribute(entry, end, cur, chained ? &earlier : nullptr, &next)) {
            entry->cmp_ldap_next_attr_pos = next;
            ld->ld_errno = CMP_LDAP_SUCCESS;
            return entry->cmp_ldap_attr_name;
        }
    }
    end = cmp_ldap_ber_get_next(entry, entry->cmp_ldap_attrs_pos);
    if (end == -1) {
        CMP_LDAP_LOG(-1, "%s(): Cannot get next attributes pos.\n", kName);
    } else if (end <= entry->cmp_ldap_next_attr_pos) {
        return nullptr; /* end of the list */
    } else if (cmp_ldap_pos_failed(cmp_ldap_ber_decode_attr_name_of_attribute(
                   entry, entry->cmp_ldap_next_attr_pos, entry->cmp_ldap_attr_name,
                   CMP_LDAP_TEXT_SIZE))) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get attribute name.\n", kName);
    } else {
        int32_t next = cmp_ldap_ber_get_next(entry, entry->cmp_ldap_next_attr_pos);
        if (next == -1) {
            CMP_LDAP_LOG(-1, "%s(): Failed to get next position.\n", kName);
        } else {
            entry->cmp_ldap_next_attr_pos = next;
            ld->ld_errno = CMP_LDAP_SUCCESS;
            return entry->cmp_ldap_attr_name;
        }
    }
    ld->ld_errno = CMP_LDAP_DECODING_ERROR;
    cmp_ldap_gentrace_ld(kName, ld);
    return nullptr;
}

/* ------------------------------------------------------------------------
 * Values
 * ---------------------------------------------------------------------- */

void **cmp_ldap_get_values_both(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry, const char *attr, int binary)
{
    static const char kName[] = "cmp_ldap_get_values_both";
    if (ld == nullptr || entry == nullptr || attr == nullptr) {
        CMP_LDAP_LOG(-1,
                     "%s(): parameter error (next either is NULL: ld,mes,attr) "
                     "(mes=%p,attr=%.64s,binary=%d).\n",
                     kName, (void *)entry, attr, binary);
        cmp_ldap_gentrace_ld(kName, ld);
        return nullptr;
    }

    int32_t code = CMP_LDAP_DECODING_ERROR;
    int32_t set = cmp_ldap_ber_lookup_attribute_on_search_entry(entry, attr);
    int32_t count = -1;
    int32_t first = -1;
    uint32_t pos = CMP_LDAP_POS_ERROR;
    if (set == -1) {
        CMP_LDAP_LOG(-1, "%s(): Failed to find the attribute.\n", kName);
    } else if (!cmp_ldap_quiet_count(entry, set, &count, &first) &&
               (count = cmp_ldap_ber_count_members(entry, set)) == -1) {
        CMP_LDAP_LOG(-1, "%s(): Failed to count number of values.\n", kName);
    } else if (cmp_ldap_pos_failed(pos = first != -1 ? (uint32_t)first
                                                     : cmp_ldap_ber_get_content(entry, set))) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get value content.\n", kName);
    } else {
        code = CMP_LDAP_NO_MEMORY;
        uint32_t n = (uint32_t)count;
        uint32_t size = cmp_ldap_pointer_array_size(n);
        void *block = size == 0 ? nullptr : cmp_ldap_malloc(kName, size);
        if (block != nullptr) {
            /* Each element is stored through the pointer type the caller reads it as. */
            char **texts = static_cast<char **>(block);
            CMP_LDAP_BERVAL **records = static_cast<CMP_LDAP_BERVAL **>(block);
            uint32_t i = 0;
            for (; i < n; ++i) {
                uint32_t value_pos = pos;
                pos = cmp_ldap_decode_value(entry, value_pos, binary, &texts[i], &records[i]);
                if (cmp_ldap_pos_failed(pos)) {
                    CMP_LDAP_LOG(-1, "%s(): Failed to get decode value string. currentPos=%ld.\n",
                                 kName, (long)(int32_t)value_pos);
                    break;
                }
            }
            if (i == n) {
                if (binary)
                    records[n] = nullptr;
                else
                    texts[n] = nullptr;
                return static_cast<void **>(block);
            }
            if (binary)
                cmp_ldap_release_array_backwards(records, i);
            else
                cmp_ldap_release_array_backwards(texts, i);
        }
    }
    ld->ld_errno = code;
    cmp_ldap_gentrace_ld(kName, ld);
    CMP_LDAP_LOG(-1, "%s(): mes=%p,attr=%.64s,binary=%d.\n", kName, (void *)entry, attr, binary);
    return nullptr;
}

char **cmp_ldap_get_values(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry, const char *attr)
{
    return reinterpret_cast<char **>(cmp_ldap_get_values_both(ld, entry, attr, 0));
}

CMP_LDAP_BERVAL **cmp_ldap_get_values_binary(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry,
                                             const char *attr)
{
    return reinterpret_cast<CMP_LDAP_BERVAL **>(cmp_ldap_get_values_both(ld, entry, attr, 1));
}

int cmp_ldap_count_values(char **vals)
{
    if (vals == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error.\n", "cmp_ldap_count_values");
        return 0;
    }
    int count = 0;
    while (vals[count] != nullptr)
        ++count;
    return count;
}

/* Text and binary arrays share one layout, so the binary variants are the same
 * operation (and log under the text variant's name). */
int cmp_ldap_count_values_binary(CMP_LDAP_BERVAL **vals)
{
    return cmp_ldap_count_values(reinterpret_cast<char **>(vals));
}

int cmp_ldap_value_free(char **vals)
{
    if (vals == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error.\n", "cmp_ldap_value_free");
        return 0;
    }
    int count = 0;
    while (vals[count] != nullptr) {
        cmp_ldap_free(vals[count]);
        ++count;
    }
    cmp_ldap_free(vals);
    return count;
}

int cmp_ldap_value_free_binary(CMP_LDAP_BERVAL **vals)
{
    return cmp_ldap_value_free(reinterpret_cast<char **>(vals));
}

/* ------------------------------------------------------------------------
 * DN of an entry
 * ---------------------------------------------------------------------- */

char *cmp_ldap_get_dn(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry)
{
    static const char kName[] = "cmp_ldap_get_dn";
    if (ld == nullptr || entry == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (next either is NULL: ld,mes) (mes=%p).\n", kName,
                     (void *)entry);
        cmp_ldap_gentrace_ld(kName, ld);
        return nullptr;
    }

    int32_t name_at = 0, list = 0, content = 0;
    uint32_t len = 0;
    if (cmp_ldap_quiet_entry(entry, &name_at, &list) &&
        cmp_ldap_quiet_string(entry, name_at, &content, &len)) {
        char *dn = cmp_ldap_copy_text(entry, content, len);
        return dn != nullptr ? dn : cmp_ldap_get_dn_failed(ld, entry);
    }

    CMP_LDAP_MESSAGE_REC rec;
    if (cmp_ldap_ber_decode_ldap_message(entry, &rec) == -1) {
        CMP_LDAP_LOG(-1, "%s(): Failed to extract CMP_LDAP_MESSAGE.\n", kName);
    } else if (rec.application != CMP_LDAP_RES_SEARCH_ENTRY) {
        CMP_LDAP_LOG(-1, "%s(): It's not CMP_LDAP_RES_SEARCH_ENTRY (application=%d).\n", kName,
                     (int)rec.application);
    } else {
        uint32_t name_pos = cmp_ldap_ber_get_content(entry, rec.pos);
        if (cmp_ldap_pos_failed(name_pos)) {
            CMP_LDAP_LOG(-1, "%s(): Failed to retrieve [APPLICATION 4] content.\n", kName);
        } else {
            char *dn = nullptr;
            if (cmp_ldap_pos_failed(cmp_ldap_ber_decode_string(entry, (int32_t)name_pos, &dn)))
                return cmp_ldap_get_dn_failed(ld, entry);
            return dn;
        }
    }
    ld->ld_errno = CMP_LDAP_DECODING_ERROR;
    cmp_ldap_gentrace_ld(kName, ld);
    return nullptr;
}

int cmp_ldap_dn_free(char *dn)
{
    if (dn == nullptr) {
        return CMP_LDAP_LOG(-1, "%s(): parameter error.\n", "cmp_ldap_dn_free");
    }
    return zelOSWOrgFreeMemPart(0, dn);
}

/* ------------------------------------------------------------------------
 * Result codes
 * ---------------------------------------------------------------------- */

namespace {

struct CmpLdapErrorText {
    int32_t code;
    const char *text;
};

/* The misspellings "Inappropariate" and "distingished" and the underscore in
 * "Insufficient_accessrights" are the table's own: log readers match them. */
constexpr CmpLdapErrorText kCmpLdapErrorTexts[] = {
    {CMP_LDAP_SUCCESS, "Success"},
    {CMP_LDAP_OPERATIONS_ERROR, "Operations error"},
    {CMP_LDAP_PROTOCOL_ERROR, "Protocol error"},
    {CMP_LDAP_TIMELIMIT_EXCEEDED, "Time limit exceeded"},
    {CMP_LDAP_SIZELIMIT_EXCEEDED, "Size limit exceeded"},
    {CMP_LDAP_COMPARE_FALSE, "Compare false"},
    {CMP_LDAP_COMPARE_TRUE, "Compare true"},
    {CMP_LDAP_AUTH_METHOD_NOT_SUPPORTED, "Authentication method not supported"},
    {CMP_LDAP_STRONG_AUTH_REQUIRED, "Strong authentication required"},
    {CMP_LDAP_REFERRAL, "Referral"},
    {CMP_LDAP_ADMINLIMIT_EXCEEDED, "Administration limit exceeded"},
    {CMP_LDAP_UNAVAILABLE_CRITICAL_EXTENSION, "Unavailable critical extension"},
    {CMP_LDAP_CONFIDENTIALITY_REQUIRED, "Confidentiality required"},
    {CMP_LDAP_SASL_BIND_IN_PROGRESS, "SASL bind in progress"},
    {CMP_LDAP_NO_SUCH_ATTRIBUTE, "No such attribute"},
    {CMP_LDAP_UNDEFINED_TYPE, "Undefined attribute type"},
    {CMP_LDAP_INAPPROPRIATE_MATCHING, "Inappropariate matching"},
    {CMP_LDAP_CONSTRAINT_VIOLATION, "Constraint violation"},
    {CMP_LDAP_TYPE_OR_VALUE_EXISTS, "Attribute or value exists"},
    {CMP_LDAP_INVALID_SYNTAX, "Invalid attribute syntax"},
    {CMP_LDAP_NO_SUCH_OBJECT, "No such object"},
    {CMP_LDAP_ALIAS_PROBLEM, "Alias problem"},
    {CMP_LDAP_INVALID_DN_SYNTAX, "Invalid distingished name syntax"},
    {CMP_LDAP_ALIAS_DEREF_PROBLEM, "Alias dereferencing problem"},
    {CMP_LDAP_INAPPROPRIATE_AUTH, "Inappropriate authentication"},
    {CMP_LDAP_INVALID_CREDENTIALS, "Invalid credentials"},
    {CMP_LDAP_INSUFFICIENT_ACCESS, "Insufficient_accessrights"},
    {CMP_LDAP_BUSY, "Busy"},
    {CMP_LDAP_UNAVAILABLE, "Unavailable"},
    {CMP_LDAP_UNWILLING_TO_PERFORM, "Unwilling to perform"},
    {CMP_LDAP_LOOP_DETECT, "Loop detect"},
    {CMP_LDAP_NAMING_VIOLATION, "Naming violation"},
    {CMP_LDAP_OBJECT_CLASS_VIOLATION, "Object class violation"},
    {CMP_LDAP_NOT_ALLOWED_ON_NONLEAF, "Not allowed on non leaf"},
    {CMP_LDAP_NOT_ALLOWED_ON_RDN, "Not allowed on rdn"},
    {CMP_LDAP_ALREADY_EXISTS, "Entry already exists"},
    {CMP_LDAP_NO_OBJECT_CLASS_MODS, "Object class mods prohibited"},
    {CMP_LDAP_AFFECTS_MULTIPLE_DSAS, "Affects multiple dsas"},
    {CMP_LDAP_OTHER, "Other"},
    {CMP_LDAP_SERVER_DOWN, "Server down"},
    {CMP_LDAP_LOCAL_ERROR, "Local error"},
    {CMP_LDAP_ENCODING_ERROR, "Encoding error"},
    {CMP_LDAP_DECODING_ERROR, "Decoding error"},
    {CMP_LDAP_TIMEOUT, "Timeout"},
    {CMP_LDAP_AUTH_UNKNOWN, "Auth unknown"},
    {CMP_LDAP_FILTER_ERROR, "Filter error"},
    {CMP_LDAP_USER_CANCELLED, "User cancelled"},
    {CMP_LDAP_PARAM_ERROR, "Param error"},
    {CMP_LDAP_NO_MEMORY, "No memory"},
    {-1, nullptr},
};
static_assert(sizeof(kCmpLdapErrorTexts) / sizeof(kCmpLdapErrorTexts[0]) == 50,
              "49 codes with a text and the terminator");

}  // namespace

const char *cmp_ldap_err2string(int32_t code)
{
    if (code == CMP_LDAP_SUCCESS) return kCmpLdapErrorTexts[0].text;
    /* The terminator's code is never compared, so -1 finds no text. */
    for (const CmpLdapErrorText *row = &kCmpLdapErrorTexts[1]; row->text != nullptr; ++row) {
        if (row->code == code) return row->text;
    }
    return "Unknown error";
}

int cmp_ldap_result2error(CMP_LDAP *ld, CMP_LDAP_MESSAGE *mes, int freeit)
{
    static const char kName[] = "cmp_ldap_result2error";
    if (ld == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (ld=NULL) (mes=%p,freeit=%d).\n", kName,
                     (void *)mes, freeit);
        return -1;
    }
    /* A SASL bind finished inside the library has left its result here; the
     * message (if any) is then neither read nor freed. */
    if (ld->ld_mid > 0 && ld->ld_mid == ld->ld_sasl_msgid) {
        int rc = ld->ld_sasl_rc;
        ld->ld_sasl_msgid = 0;
        ld->ld_sasl_rc = 0;
        return rc;
    }
    if (mes == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (mes=NULL) (freeit=%d).\n", kName, freeit);
        cmp_ldap_gentrace_ld(kName, ld);
        return -1;
    }
    if (mes->cmp_ldap_total_size < 6) {
        CMP_LDAP_LOG(-1, "%s(): total_size parameter error (total_size=%ld,mes=%p,freeit=%d).\n",
                     kName, (long)mes->cmp_ldap_total_size, (void *)mes, freeit);
        cmp_ldap_gentrace_ld(kName, ld);
        return -1;
    }

    CMP_LDAP_MESSAGE_REC rec;
    uint32_t pos;
    uint32_t code = 0;
    if (cmp_ldap_ber_decode_ldap_message(mes, &rec) == -1) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get CMP_LDAP_MESSAGE.\n", kName);
    } else if (rec.application != CMP_LDAP_RES_BIND &&
               rec.application != CMP_LDAP_RES_SEARCH_ENTRY &&
               rec.application != CMP_LDAP_RES_SEARCH_RESULT &&
               rec.application != CMP_LDAP_RES_SEARCH_REFERENCE &&
               rec.application != CMP_LDAP_RES_EXTENDED) {
        /* Entries and references pass here although they carry no LDAPResult;
         * the resultCode read below rejects them. Kept deliberately. */
        CMP_LDAP_LOG(-1, "%s(): Illegal message (application=%d).\n", kName, (int)rec.application);
    } else if (cmp_ldap_pos_failed(pos = cmp_ldap_ber_get_content(mes, rec.pos))) {
        /* The same words for every response type. */
        CMP_LDAP_LOG(-1, "%s(): Failed to get BindResponses.\n", kName);
    } else if (cmp_ldap_pos_failed(pos = cmp_ldap_ber_decode_enum(mes, (int32_t)pos, &code))) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get ResultCode.\n", kName);
    } else {
        ld->ld_errno = (int32_t)code;
        /* Both texts are cleared as they are released, so that no path can leave
         * a released pointer in the handle for the dump or the teardown to use. */
        cmp_ldap_free_text(&ld->ld_error);
        cmp_ldap_free_text(&ld->ld_matched);
        if (cmp_ldap_pos_failed(
                pos = cmp_ldap_ber_decode_string(mes, (int32_t)pos, &ld->ld_matched))) {
            ld->ld_matched = nullptr;
            CMP_LDAP_LOG(-1, "%s(): Failed to get ld_matched.\n", kName);
        } else if (cmp_ldap_pos_failed(
                       pos = cmp_ldap_ber_decode_string(mes, (int32_t)pos, &ld->ld_error))) {
            ld->ld_error = nullptr;
            CMP_LDAP_LOG(-1, "%s(): Failed to get ld_error.\n", kName);
        } else {
            if (code == CMP_LDAP_REFERRAL) {
                cmp_ldap_free_text(&ld->ld_referral);
                /* Skip the [3] tag and a one-octet length: only the first URL is
                 * kept, and a long-form length makes that decoding fail (NULL). */
                int64_t url = (int64_t)pos + 2;
                if (url < (int64_t)mes->cmp_ldap_total_size) {
                    if (cmp_ldap_pos_failed(
                            cmp_ldap_ber_decode_string(mes, (int32_t)url, &ld->ld_referral))) {
                        ld->ld_referral = nullptr;
                    }
                }
            }
            if (freeit) cmp_ldap_free(mes);
            return (int)code;
        }
    }

    CMP_LDAP_LOG(-1, "%s(): mes=%p,freeit=%d.\n", kName, (void *)mes, freeit);
    cmp_ldap_gentrace_ld(kName, ld);
    if (freeit) cmp_ldap_free(mes);
    ld->ld_errno = CMP_LDAP_DECODING_ERROR;
    return -1;
}

/* ------------------------------------------------------------------------
 * Message identity and release
 * ---------------------------------------------------------------------- */

namespace {

/* The envelope of a message for msgid and msgtype; false after logging why not. */
bool cmp_ldap_msg_envelope(const char *name, const CMP_LDAP_MESSAGE *mes, CMP_LDAP_MESSAGE_REC *rec)
{
    if (mes == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error.\n", name);
        return false;
    }
    if (cmp_ldap_ber_decode_ldap_message(mes, rec) == -1) {
        CMP_LDAP_LOG(-1, "%s(): Failed to extract CMP_LDAP_MESSAGE.\n", name);
        return false;
    }
    return true;
}

}  // namespace

int cmp_ldap_msgid(CMP_LDAP_MESSAGE *mes)
{
    CMP_LDAP_MESSAGE_REC rec;
    return cmp_ldap_msg_envelope("cmp_ldap_msgid", mes, &rec) ? rec.msgid : -1;
}

int cmp_ldap_msgtype(CMP_LDAP_MESSAGE *mes)
{
    CMP_LDAP_MESSAGE_REC rec;
    return cmp_ldap_msg_envelope("cmp_ldap_msgtype", mes, &rec) ? rec.application : -1;
}

int cmp_ldap_msgfree(CMP_LDAP_MESSAGE *mes)
{
    static const char kName[] = "cmp_ldap_msgfree";
    if (mes == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error.\n", kName);
        return -1;
    }
    CMP_LDAP_MESSAGE_REC rec;
    bool decoded = cmp_ldap_ber_decode_ldap_message(mes, &rec) != -1;
    cmp_ldap_free(mes); /* released whatever its envelope holds */
    if (!decoded) {
        /* "LDAPMessag" is the line's own spelling. */
        CMP_LDAP_LOG(-1, "%s(): Failed to extract LDAPMessag.\n", kName);
        return -1;
    }
    return rec.application;
}

/* ------------------------------------------------------------------------
 * Exploded DNs
 * ---------------------------------------------------------------------- */

char *cmp_ldap_substrcpy(const char *start, const char *end)
{
    static const char kName[] = "cmp_ldap_substrcpy";
    if (start == nullptr || end == nullptr || end < start) {
        CMP_LDAP_LOG(-1, "%s(): parameter error.\n", kName);
        return nullptr;
    }
    size_t len = (size_t)(end - start);
    if (len >= 0xFFFFFFFFu) return nullptr; /* the allocator's size is 32-bit */
    auto *copy = static_cast<char *>(cmp_ldap_malloc(kName, (uint32_t)(len + 1)));
    if (copy == nullptr) return nullptr;
    memcpy(copy, start, len);
    copy[len] = '\0';
    return copy;
}

char **cmp_ldap_explode_dn(const char *dn, int notypes)
{
    static const char kName[] = "cmp_ldap_explode_dn";
    if (dn == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (dn=NULL,notypes=%d).\n", kName, notypes);
        return nullptr;
    }

    uint32_t commas = 0;
    for (const char *p = dn; *p != '\0'; ++p) {
        if (*p == ',') ++commas;
    }
    /* commas + 1 components and the terminating NULL. */
    uint64_t bytes = ((uint64_t)commas + 2u) * sizeof(char *);
    if (bytes > 0xFFFFFFFFu) return nullptr;
    auto **parts = static_cast<char **>(cmp_ldap_malloc(kName, (uint32_t)bytes));
    if (parts == nullptr) return nullptr;
    for (uint32_t i = 0; i < commas + 2u; ++i)
        parts[i] = nullptr;

    /* A plain split at every comma: escapes, quotes, blanks and '+' get no special
     * treatment, deliberately, and empty components are kept. */
    const char *start = dn;
    for (uint32_t i = 0; i <= commas; ++i) {
        const char *end = strchr(start, ',');
        if (end == nullptr) end = start + strlen(start);
        const char *from = start;
        if (notypes) {
            /* Searched within the component only: a component without '=' must not
             * scan the rest of the DN, which made long DNs quadratic. */
            const void *eq = memchr(start, '=', (size_t)(end - start));
            if (eq != nullptr) from = static_cast<const char *>(eq) + 1;
        }
        parts[i] = cmp_ldap_substrcpy(from, end);
        if (parts[i] == nullptr) {
            /* Only the first `commas` slots can hold copies when one fails. */
            for (uint32_t j = 0; j < commas; ++j)
                cmp_ldap_free(parts[j]);
            cmp_ldap_free(parts);
            return nullptr;
        }
        start = end + 1;
    }
    return parts;
}

/* ------------------------------------------------------------------------
 * Referrals of a SearchResultReference
 * ---------------------------------------------------------------------- */

char **cmp_ldap_get_referrals(CMP_LDAP *ld, CMP_LDAP_MESSAGE *mes)
{
    static const char kName[] = "cmp_ldap_get_referrals";
    if (ld == nullptr || mes == nullptr) {
        CMP_LDAP_LOG(-1, "%s(): parameter error (next either is NULL: ld,mes) (mes=%p).\n", kName,
                     (void *)mes);
        cmp_ldap_gentrace_ld(kName, ld);
        return nullptr;
    }

    int32_t code = CMP_LDAP_DECODING_ERROR;
    CMP_LDAP_MESSAGE_REC rec;
    int32_t count = -1;
    uint32_t pos = CMP_LDAP_POS_ERROR;
    if (cmp_ldap_ber_decode_ldap_message(mes, &rec) == -1) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get CMP_LDAP_MESSAGE.\n", kName);
    } else if (rec.application != CMP_LDAP_RES_SEARCH_REFERENCE) {
        CMP_LDAP_LOG(-1, "%s(): This is not referral message (application=%d).\n", kName,
                     (int)rec.application);
    } else if ((count = cmp_ldap_ber_count_members(mes, rec.pos)) == -1) {
        CMP_LDAP_LOG(-1, "%s(): Failed to count number of referrals.\n", kName);
    } else if (cmp_ldap_pos_failed(pos = cmp_ldap_ber_get_content(mes, rec.pos))) {
        CMP_LDAP_LOG(-1, "%s(): Failed to get referral content.\n", kName);
    } else {
        code = CMP_LDAP_NO_MEMORY;
        uint32_t n = (uint32_t)count;
        uint32_t size = cmp_ldap_pointer_array_size(n);
        auto **urls = static_cast<char **>(size == 0 ? nullptr : cmp_ldap_malloc(kName, size));
        if (urls == nullptr) {
            CMP_LDAP_LOG(-1, "%s(): Failed to alloc referral-array.\n", kName);
        } else {
            uint32_t i = 0;
            for (; i < n; ++i) {
                uint32_t url_pos = pos;
                pos = cmp_ldap_ber_decode_string(mes, (int32_t)url_pos, &urls[i]);
                if (cmp_ldap_pos_failed(pos)) {
                    CMP_LDAP_LOG(-1,
                                 "%s(): Failed to get decode referral string. currentPos=%ld.\n",
                                 kName, (long)(int32_t)url_pos);
                    break;
                }
            }
            if (i == n) {
                urls[n] = nullptr;
                return urls;
            }
            cmp_ldap_release_array_backwards(urls, i);
        }
    }
    ld->ld_errno = code;
    cmp_ldap_gentrace_ld(kName, ld);
    return nullptr;
}
