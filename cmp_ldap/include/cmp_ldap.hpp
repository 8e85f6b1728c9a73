/*
 * toveistror for C++ callers: ownership and iteration over the C API of cmp_ldap.h.
 *
 * C++17, header only. Nothing here throws, so it builds with -fno-exceptions and
 * -fno-rtti, and it allocates nothing of its own: every block is the C library's,
 * and the object that owns it releases it with the matching free function.
 * Failures come back as values: a cmp_ldap::status (the library's result code) or a
 * cmp_ldap::result<T> (an object and a status).
 *
 *   CMP_LDAP_CONN_PARAM p = cmp_ldap::conn_param("ldap.example.com", 389);
 *   auto [ses, st] = cmp_ldap::session::open(p);
 *   if (!st || !(st = ses.bind_simple(dn, password))) return st;
 *   auto found = ses.search(base, CMP_LDAP_SCOPE_SUBTREE, nullptr, nullptr, "cn,mail");
 *   for (cmp_ldap::message &m : found) {
 *       if (m.type() != CMP_LDAP_RES_SEARCH_ENTRY) continue;   // a reference
 *       for (std::string_view name : m.attributes())
 *           for (std::string_view v : m.values(name).value) use(name, v);
 *   }
 *   return found.status();   // the code of the final result, or why the walk stopped
 *
 * Views (std::string_view, cmp_ldap::bytes) point into the object they came from and
 * live as long as it; an attribute name lives until the walk takes the next one.
 */
#ifndef CMP_LDAP_HPP
#define CMP_LDAP_HPP

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "cmp_ldap.h"

namespace cmp_ldap {

/* A result code: CMP_LDAP_SUCCESS, an LDAP result code or one of the library's own. */
class [[nodiscard]] status {
  public:
    constexpr status() noexcept = default;
    constexpr explicit status(int code) noexcept : code_(code) {}
    constexpr int code() const noexcept { return code_; }
    constexpr bool ok() const noexcept { return code_ == CMP_LDAP_SUCCESS; }
    constexpr explicit operator bool() const noexcept { return ok(); }
    /* The library's text for the code ("Unknown error" for codes without one). */
    const char *text() const noexcept { return cmp_ldap_err2string(code_); }
    friend constexpr bool operator==(status a, status b) noexcept { return a.code_ == b.code_; }
    friend constexpr bool operator!=(status a, status b) noexcept { return a.code_ != b.code_; }

  private:
    int code_ = CMP_LDAP_SUCCESS;
};

/* An object and the status of the call that made it; the object is empty unless the
 * status is ok. Unpacks with structured bindings: auto [value, st] = ... */
template <class T>
struct [[nodiscard]] result {
    T value;
    cmp_ldap::status status;
    explicit operator bool() const noexcept { return status.ok(); }
};

/* How long a call waits for a response; negative: without limit. */
using timeout = std::chrono::milliseconds;
inline constexpr timeout wait_forever{-1};

namespace detail {

/* Sole owner of one block of the C library, released with Free. */
template <class T, auto Free>
class owner {
  public:
    owner() noexcept = default;
    explicit owner(T *p) noexcept : p_(p) {}
    owner(owner &&other) noexcept : p_(other.release()) {}
    owner &operator=(owner &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    owner(const owner &) = delete;
    owner &operator=(const owner &) = delete;
    ~owner() { reset(); }

    T *get() const noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    /* Hands the block to the caller, who then releases it. */
    T *release() noexcept { return std::exchange(p_, nullptr); }
    void reset(T *p = nullptr) noexcept
    {
        T *old = std::exchange(p_, p);
        if (old != nullptr) (void)Free(old);
    }

  private:
    T *p_ = nullptr;
};

/* Iterates a null-terminated pointer array, turning each element into View. */
template <class Elem, class View, View (*Make)(const Elem *)>
class array_iterator {
  public:
    explicit array_iterator(Elem *const *p) noexcept : p_(p) {}
    View operator*() const noexcept { return Make(*p_); }
    array_iterator &operator++() noexcept
    {
        ++p_;
        return *this;
    }
    bool operator==(const array_iterator &o) const noexcept { return at_end() == o.at_end(); }
    bool operator!=(const array_iterator &o) const noexcept { return !(*this == o); }

  private:
    /* Every iterator at the terminator (or over no array) is the end. */
    bool at_end() const noexcept { return p_ == nullptr || *p_ == nullptr; }
    Elem *const *p_;
};

inline std::string_view make_text(const char *s) noexcept
{
    return s;
}

/* Runs an accessor that returns null on failure, with the reason in ld_errno. An
 * accessor that also returns null at a clean end (cmp_ldap_next_attribute) is told
 * apart by clearing ld_errno first, as each of its own successes does. */
template <class F>
auto accessor(CMP_LDAP *ld, status *st, F call, bool clear = false) noexcept
{
    if (clear) ld->ld_errno = CMP_LDAP_SUCCESS;
    auto p = call();
    if (p == nullptr && ld->ld_errno != CMP_LDAP_SUCCESS) *st = status(ld->ld_errno);
    return p;
}

inline void free_text(char *s) noexcept
{
    cmp_ldap_memfree(s);
}

/* Ends a session. Without memory for the UnbindRequest the unbind leaves the handle
 * open; a destructor cannot wait for memory, so it then ends the session without the
 * request, the way the unbind does after sending it. */
inline int end_session(CMP_LDAP *ld) noexcept
{
    int rc = cmp_ldap_unbind(ld);
    if (rc != CMP_LDAP_NO_MEMORY) return rc;
    if (ld->ld_ssl_conn != nullptr) (void)cmp_ldap_tls_end(ld);
    (void)cmp_ldap_close_socket(ld->ld_sockfd);
    cmp_ldap_memfree(ld->ld_error);
    cmp_ldap_memfree(ld->ld_matched);
    cmp_ldap_memfree(ld);
    return rc;
}

}  // namespace detail

/* A text the library allocated (a DN, a referral URL). */
class text : public detail::owner<char, detail::free_text> {
  public:
    using owner::owner;
    std::string_view view() const noexcept
    {
        return get() != nullptr ? std::string_view(get()) : std::string_view();
    }
    const char *c_str() const noexcept { return get() != nullptr ? get() : ""; }
};

/* The octets of one binary value, in the manner of std::span<const unsigned char>. */
class bytes {
  public:
    constexpr bytes() noexcept = default;
    constexpr bytes(const unsigned char *data, std::size_t size) noexcept : data_(data), size_(size)
    {
    }
    constexpr const unsigned char *data() const noexcept { return data_; }
    constexpr std::size_t size() const noexcept { return size_; }
    constexpr bool empty() const noexcept { return size_ == 0; }
    constexpr const unsigned char *begin() const noexcept { return data_; }
    constexpr const unsigned char *end() const noexcept { return data_ + size_; }
    constexpr unsigned char operator[](std::size_t i) const noexcept { return data_[i]; }

  private:
    const unsigned char *data_ = nullptr;
    std::size_t size_ = 0;
};

namespace detail {

inline bytes make_bytes(const CMP_LDAP_BERVAL *v) noexcept
{
    return bytes(v->data, v->total_size);
}

/* A null-terminated array of owned elements (released by Free), seen as View each. */
template <class Elem, int (*Free)(Elem **), class View, View (*Make)(const Elem *)>
class pointer_array : public owner<Elem *, Free> {
  public:
    using owner<Elem *, Free>::owner;
    using iterator = array_iterator<Elem, View, Make>;
    iterator begin() const noexcept { return iterator(this->get()); }
    iterator end() const noexcept { return iterator(nullptr); }
    std::size_t size() const noexcept
    {
        std::size_t n = 0;
        while (this->get() != nullptr && this->get()[n] != nullptr)
            ++n;
        return n;
    }
    bool empty() const noexcept { return size() == 0; }
    View operator[](std::size_t i) const noexcept { return Make(this->get()[i]); }
};

}  // namespace detail

/* The values of one attribute as texts (also: the URLs of a search reference). */
class values
    : public detail::pointer_array<char, cmp_ldap_value_free, std::string_view, detail::make_text> {
  public:
    using pointer_array::pointer_array;
};

/* The values of one attribute as octets, for binary attributes. */
class binary_values : public detail::pointer_array<CMP_LDAP_BERVAL, cmp_ldap_value_free_binary,
                                                   bytes, detail::make_bytes> {
  public:
    using pointer_array::pointer_array;
};

/* The attribute names of one entry, in the order the server sent them. The cursor
 * lives in the message, so one walk at a time per message. */
class attribute_names {
  public:
    attribute_names(CMP_LDAP *ld, CMP_LDAP_MESSAGE *entry) noexcept : ld_(ld), entry_(entry) {}

    class iterator {
      public:
        explicit iterator(attribute_names *walk) noexcept : walk_(walk) {}
        std::string_view operator*() const noexcept { return walk_->name_; }
        iterator &operator++() noexcept
        {
            walk_->step();
            return *this;
        }
        bool operator!=(const iterator &end) const noexcept
        {
            return walk_ != end.walk_ && walk_->name_ != nullptr;
        }

      private:
        attribute_names *walk_;
    };
    iterator begin() noexcept
    {
        if (ld_ == nullptr || entry_ == nullptr)
            status_ = cmp_ldap::status(CMP_LDAP_PARAM_ERROR);
        else
            name_ = detail::accessor(
                ld_, &status_, [this] { return cmp_ldap_first_attribute(ld_, entry_, &cursor_); });
        return iterator(this);
    }
    iterator end() noexcept { return iterator(nullptr); }
    /* After the walk: ok, or why it stopped early (259: the entry is not decodable). */
    cmp_ldap::status status() const noexcept { return status_; }

  private:
    void step() noexcept
    {
        name_ = detail::accessor(
            ld_, &status_, [this] { return cmp_ldap_next_attribute(ld_, entry_, cursor_); }, true);
    }
    CMP_LDAP *ld_;
    CMP_LDAP_MESSAGE *entry_;
    void *cursor_ = nullptr;
    const char *name_ = nullptr;
    cmp_ldap::status status_;
};

/* One received message: a search entry, a search reference, or a final result. */
class message : public detail::owner<CMP_LDAP_MESSAGE, cmp_ldap_msgfree> {
  public:
    message() noexcept = default;
    message(CMP_LDAP *ld, CMP_LDAP_MESSAGE *m) noexcept : owner(m), ld_(ld) {}

    /* CMP_LDAP_RES_SEARCH_ENTRY, CMP_LDAP_RES_SEARCH_REFERENCE, ...; -1 if undecodable. */
    int type() const noexcept { return cmp_ldap_msgtype(get()); }
    int id() const noexcept { return cmp_ldap_msgid(get()); }

    /* Of an entry. */
    result<text> dn() const noexcept
    {
        status st = usable();
        text dn(st ? detail::accessor(ld_, &st, [this] { return cmp_ldap_get_dn(ld_, get()); })
                   : nullptr);
        return {std::move(dn), st};
    }
    attribute_names attributes() const noexcept { return attribute_names(ld_, get()); }
    /* An attribute the entry does not hold is a failure (259), as in the C API. */
    result<cmp_ldap::values> values(std::string_view attr) const noexcept
    {
        char name[CMP_LDAP_TEXT_SIZE];
        status st = copy_name(attr, name);
        cmp_ldap::values v(
            st ? detail::accessor(ld_, &st, [&] { return cmp_ldap_get_values(ld_, get(), name); })
               : nullptr);
        return {std::move(v), st};
    }
    result<cmp_ldap::binary_values> binary_values(std::string_view attr) const noexcept
    {
        char name[CMP_LDAP_TEXT_SIZE];
        status st = copy_name(attr, name);
        cmp_ldap::binary_values v(
            st ? detail::accessor(ld_, &st,
                                  [&] { return cmp_ldap_get_values_binary(ld_, get(), name); })
               : nullptr);
        return {std::move(v), st};
    }

    /* Of a search reference: its URLs. */
    result<cmp_ldap::values> referrals() const noexcept
    {
        status st = usable();
        cmp_ldap::values v(
            st ? detail::accessor(ld_, &st, [this] { return cmp_ldap_get_referrals(ld_, get()); })
               : nullptr);
        return {std::move(v), st};
    }

  private:
    status usable() const noexcept
    {
        return status(ld_ != nullptr && get() != nullptr ? CMP_LDAP_SUCCESS : CMP_LDAP_PARAM_ERROR);
    }
    /* The C API takes names as terminated texts; an attribute name is never longer. */
    status copy_name(std::string_view attr, char (&name)[CMP_LDAP_TEXT_SIZE]) const noexcept
    {
        if (attr.size() > CMP_LDAP_TEXT_MAX || attr.find('\0') != std::string_view::npos)
            return status(CMP_LDAP_PARAM_ERROR);
        attr.copy(name, attr.size());
        name[attr.size()] = '\0';
        return usable();
    }
    CMP_LDAP *ld_ = nullptr;
};

namespace detail {

/* Waits for the next response to msgid; -1 with the reason in ld_errno. */
inline int next_response(CMP_LDAP *ld, int msgid, timeout wait, message *out) noexcept
{
    CMP_LDAP_TIMEVAL tv = {static_cast<long>(wait.count() / 1000),
                           static_cast<long>(wait.count() % 1000) * 1000};
    CMP_LDAP_MESSAGE *m = nullptr;
    int type = cmp_ldap_result(ld, msgid, 0, wait.count() < 0 ? nullptr : &tv, &m);
    *out = message(ld, m);
    return type;
}

}  // namespace detail

/* The responses of one search, read as the walk goes: entries and references. The
 * final result ends the walk; status() then gives its code (a referral, 10, leaves
 * its URL for session::take_referral). A walk left early, or ended by a time-out,
 * abandons the search when the object goes. */
class search {
  public:
    /* A search that was sent as msgid; with a negative msgid, one that failed. */
    search(CMP_LDAP *ld, int msgid, timeout wait, cmp_ldap::status failed = {}) noexcept
        : ld_(ld), msgid_(msgid), wait_(wait), status_(failed), done_(msgid < 0)
    {
    }
    search(search &&other) noexcept
        : ld_(other.ld_),
          msgid_(std::exchange(other.msgid_, -1)),
          wait_(other.wait_),
          current_(std::move(other.current_)),
          status_(other.status_),
          started_(other.started_),
          done_(std::exchange(other.done_, true))
    {
    }
    search &operator=(search &&) = delete;
    search(const search &) = delete;
    /* A search still running on the server (left early, or out of time) is abandoned. */
    ~search()
    {
        if (msgid_ >= 0 && (!done_ || status_.code() == CMP_LDAP_TIMEOUT))
            (void)cmp_ldap_abandon(ld_, msgid_);
    }

    class iterator {
      public:
        explicit iterator(search *s) noexcept : s_(s) {}
        message &operator*() const noexcept { return s_->current_; }
        message *operator->() const noexcept { return &s_->current_; }
        iterator &operator++() noexcept
        {
            s_->next();
            return *this;
        }
        bool operator!=(const iterator &end) const noexcept { return s_ != end.s_ && !s_->done_; }

      private:
        search *s_;
    };
    iterator begin() noexcept
    {
        if (!started_) {
            started_ = true;
            next();
        }
        return iterator(this);
    }
    iterator end() noexcept { return iterator(nullptr); }

    int msgid() const noexcept { return msgid_; }
    /* The final result's code once the walk is over, or why it stopped. */
    cmp_ldap::status status() const noexcept { return status_; }

  private:
    void next() noexcept
    {
        if (done_) return;
        int type = detail::next_response(ld_, msgid_, wait_, &current_);
        if (type == CMP_LDAP_RES_SEARCH_ENTRY || type == CMP_LDAP_RES_SEARCH_REFERENCE) return;
        done_ = true;
        if (type == CMP_LDAP_RES_SEARCH_RESULT) {
            status_ = cmp_ldap::status(cmp_ldap_result2error(ld_, current_.release(), 1));
            if (status_.code() == -1) status_ = cmp_ldap::status(ld_->ld_errno);
        } else if (type < 0) {
            status_ = cmp_ldap::status(ld_->ld_errno);
        } else {
            current_.reset();  // a response no search has: the server is confused
            status_ = cmp_ldap::status(CMP_LDAP_DECODING_ERROR);
        }
    }
    CMP_LDAP *ld_;
    int msgid_;
    timeout wait_;
    message current_;
    cmp_ldap::status status_;
    bool started_ = false;
    bool done_;
};

/* A CMP_LDAP_CONN_PARAM for host and port; set the TLS fields as needed. The library
 * only reads the host name, so a constant text is safe here. */
inline CMP_LDAP_CONN_PARAM conn_param(const char *host, int32_t port,
                                      uint8_t tls_mod = CMP_LDAP_TLS_MOD_NONE,
                                      int32_t timeout_seconds = 10) noexcept
{
    CMP_LDAP_CONN_PARAM p{};
    p.cmp_ldap_hostname = const_cast<char *>(host);
    p.portno = port;
    p.timeout = timeout_seconds;
    p.tls_mod = tls_mod;
    return p;
}

/* One session; the destructor unbinds it. */
class session {
  public:
    session() noexcept = default;

    static result<session> open(const CMP_LDAP_CONN_PARAM &param) noexcept
    {
        CMP_LDAP *ld = nullptr;
        cmp_ldap::status st(cmp_ldap_open_with_timeout(&param, &ld));
        return {session(ld), st};
    }

    CMP_LDAP *get() const noexcept { return ld_.get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(ld_); }

    /* The result code of the bind: a request sent, its response awaited. */
    cmp_ldap::status bind_simple(const char *dn, const char *password,
                                 timeout wait = wait_forever) noexcept
    {
        return bind(dn, password, nullptr, nullptr, CMP_LDAP_AUTH_SIMPLE, wait);
    }
    /* SASL GSSAPI with the Kerberos credential cache ccname (builds with SASL only). */
    cmp_ldap::status bind_sasl(const char *user, const char *domain, const char *ccname,
                               timeout wait = wait_forever) noexcept
    {
        return bind(user, nullptr, domain, ccname, CMP_LDAP_AUTH_SASL, wait);
    }
    /* A security layer for the later SASL binds: (1, 1) signs, (56, 256) also seals
     * (cmp_ldap_set_sasl_ssf; without SASL only the default, 0 and 0). */
    cmp_ldap::status set_sasl_ssf(uint32_t min_ssf, uint32_t max_ssf) noexcept
    {
        return cmp_ldap::status(cmp_ldap_set_sasl_ssf(ld_.get(), min_ssf, max_ssf));
    }

    /* Sends the search; walk the returned object for its responses. */
    cmp_ldap::search search(const char *base, uint32_t scope, const CMP_LDAP_FILTER *filter,
                            const CMP_LDAP_FILTER_PRESENT *present, const char *attrs,
                            timeout wait = wait_forever, bool attrsonly = false) noexcept
    {
        CMP_LDAP *ld = ld_.get();
        if (ld == nullptr) return cmp_ldap::search(ld, -1, wait, no_session());
        int id = cmp_ldap_search_tiny(ld, base, scope, filter, present, attrs, attrsonly ? 1 : 0);
        return cmp_ldap::search(ld, id, wait, cmp_ldap::status(id < 0 ? ld->ld_errno : 0));
    }

    /* Takes the referral URL of the last result out of the handle: it is then the
     * caller's, and the handle no longer knows it (the unbind does not free it). */
    text take_referral() noexcept
    {
        return text(ld_ ? std::exchange(ld_.get()->ld_referral, nullptr) : nullptr);
    }
    /* matchedDN and diagnostic text of the last result; the handle keeps them. */
    std::string_view matched() const noexcept
    {
        return view(ld_ ? ld_.get()->ld_matched : nullptr);
    }
    std::string_view diagnostic() const noexcept
    {
        return view(ld_ ? ld_.get()->ld_error : nullptr);
    }
    /* The code of the last failure (ld_errno). */
    cmp_ldap::status last_error() const noexcept
    {
        return ld_ ? cmp_ldap::status(ld_.get()->ld_errno) : no_session();
    }

  private:
    explicit session(CMP_LDAP *ld) noexcept : ld_(ld) {}
    static cmp_ldap::status no_session() noexcept { return cmp_ldap::status(CMP_LDAP_PARAM_ERROR); }
    static std::string_view view(const char *s) noexcept
    {
        return s != nullptr ? std::string_view(s) : std::string_view();
    }
    cmp_ldap::status bind(const char *dn, const char *cred, const char *domain, const char *ccname,
                          uint32_t method, timeout wait) noexcept
    {
        CMP_LDAP *ld = ld_.get();
        if (ld == nullptr) return no_session();
        int id = cmp_ldap_bind(ld, dn, cred, domain, ccname, method);
        if (id < 0) return cmp_ldap::status(ld->ld_errno);
        message reply;
        if (detail::next_response(ld, id, wait, &reply) < 0) return cmp_ldap::status(ld->ld_errno);
        /* A SASL bind has finished inside the library: no message, its code is kept. */
        int rc = cmp_ldap_result2error(ld, reply.release(), 1);
        return cmp_ldap::status(rc == -1 ? ld->ld_errno : rc);
    }
    detail::owner<CMP_LDAP, detail::end_session> ld_;
};

}  // namespace cmp_ldap

#endif
