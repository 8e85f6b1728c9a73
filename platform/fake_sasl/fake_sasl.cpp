/*
 * The fake SASL/GSSAPI library behind fake_sasl.h. One lock guards all state:
 * the library calls it from the bind task while the test waits on another thread.
 */
#include "fake_sasl.h"

#include <gssapi/gssapi_krb5.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <mutex>
#include <set>
#include <utility>

namespace {

struct State {
    fake_sasl::Script script;
    size_t starts = 0, steps = 0;
    std::vector<std::string> calls;
    std::set<void *> conns;
    fake_sasl::Seen seen;
    std::string out;                       /* clientout stays valid until the next start or step */
    std::vector<uint8_t> encoded, decoded; /* valid until the next sasl_encode, sasl_decode */
    sasl_interact_t prompts[2]{};
};

std::mutex g_lock;
State &st()
{
    static State *s = new State(); /* never destroyed: outlives every static user */
    return *s;
}
using Guard = std::lock_guard<std::mutex>;

/* Every library call starts here: takes the lock for the call and logs it. */
std::unique_lock<std::mutex> enter(std::string call)
{
    std::unique_lock<std::mutex> lock(g_lock);
    st().calls.push_back(std::move(call));
    return lock;
}

/* Serves one scripted reply: rc, clientout and, for SASL_INTERACT, one prompt. */
int serve(const std::vector<fake_sasl::Reply> &replies, size_t *next, sasl_interact_t **prompt_need,
          const char **clientout, unsigned *clientoutlen)
{
    State &s = st();
    fake_sasl::Reply r =
        *next < replies.size() ? replies[(*next)++] : fake_sasl::Reply{SASL_FAIL, "", true, 0};
    s.out = r.out;
    if (clientout != nullptr) *clientout = r.null_out ? nullptr : s.out.c_str();
    if (clientoutlen != nullptr) *clientoutlen = r.null_out ? 0u : (unsigned)s.out.size();
    if (r.rc == SASL_INTERACT && prompt_need != nullptr) {
        s.prompts[0] = sasl_interact_t{r.prompt, "challenge", "prompt: ", "default", nullptr, 99};
        s.prompts[1] = sasl_interact_t{SASL_CB_LIST_END, nullptr, nullptr, nullptr, nullptr, 0};
        *prompt_need = s.prompts;
    }
    return r.rc;
}

/* An answered prompt, as the next call finds it. */
void note_answer()
{
    State &s = st();
    sasl_interact_t &p = s.prompts[0];
    if (p.id == 0) return;
    char line[128];
    snprintf(line, sizeof line, "id=0x%lx result='%s' len=%u defresult=%s", p.id,
             p.result != nullptr ? static_cast<const char *>(p.result) : "(null)", p.len,
             p.defresult != nullptr ? p.defresult : "(null)");
    s.seen.answers.emplace_back(line);
    p = sasl_interact_t{};
}

}  // namespace

namespace fake_sasl {

void reset(const Script &script)
{
    Guard g(g_lock);
    for (void *c : st().conns)
        delete static_cast<int *>(c);
    st() = State();
    st().script = script;
}

std::vector<std::string> calls()
{
    Guard g(g_lock);
    return st().calls;
}

long live_connections()
{
    Guard g(g_lock);
    return (long)st().conns.size();
}

Seen seen()
{
    Guard g(g_lock);
    return st().seen;
}

std::vector<uint8_t> wrap(const std::vector<uint8_t> &plain)
{
    const uint32_t n = (uint32_t)plain.size();
    std::vector<uint8_t> out = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
    for (uint8_t b : plain)
        out.push_back(uint8_t(b ^ kLayerMask));
    return out;
}

}  // namespace fake_sasl

extern "C" {

void sasl_version(const char **implementation, int *version)
{
    auto lock = enter("sasl_version");
    if (implementation != nullptr) *implementation = "fake";
    if (version != nullptr) *version = st().script.version;
}

int sasl_client_init(const sasl_callback_t *)
{
    auto lock = enter("sasl_client_init");
    return st().script.client_init;
}

int sasl_client_new(const char *service, const char *serverFQDN, const char *iplocalport,
                    const char *ipremoteport, const sasl_callback_t *prompt_supp, unsigned flags,
                    sasl_conn_t **pconn)
{
    auto lock = enter(std::string("sasl_client_new ") + service + " " + serverFQDN);
    State &s = st();
    s.seen.addresses_null = iplocalport == nullptr && ipremoteport == nullptr;
    s.seen.flags = flags;
    s.seen.callback_ids.clear();
    for (const sasl_callback_t *cb = prompt_supp; cb != nullptr; ++cb) {
        s.seen.callback_ids.push_back(cb->id);
        s.seen.callback_procs_null =
            s.seen.callback_procs_null && cb->proc == nullptr && cb->context == nullptr;
        if (cb->id == SASL_CB_LIST_END) break;
    }
    *pconn = nullptr;
    if (s.script.client_new != SASL_OK) return s.script.client_new;
    s.starts = s.steps = 0; /* every connection plays the script from its start */
    auto *conn = new int(0);
    s.conns.insert(conn);
    *pconn = reinterpret_cast<sasl_conn_t *>(conn);
    return SASL_OK;
}

int sasl_getprop(sasl_conn_t *, int propnum, const void **pvalue)
{
    auto lock = enter("sasl_getprop " + std::to_string(propnum));
    if (propnum == SASL_SSF) {
        *pvalue = &st().script.ssf;
    } else if (propnum == SASL_MAXOUTBUF) {
        *pvalue = &st().script.maxoutbuf;
    } else {
        *pvalue = "localhost";
    }
    return SASL_OK;
}

int sasl_encode(sasl_conn_t *, const char *input, unsigned inputlen, const char **output,
                unsigned *outputlen)
{
    auto lock = enter("sasl_encode " + std::to_string(inputlen));
    State &s = st();
    if (s.script.encode != SASL_OK) return s.script.encode;
    if (inputlen > s.script.maxoutbuf) return SASL_BADPARAM;
    s.encoded = fake_sasl::wrap(std::vector<uint8_t>(input, input + inputlen));
    *output = reinterpret_cast<const char *>(s.encoded.data());
    *outputlen = (unsigned)s.encoded.size();
    return SASL_OK;
}

int sasl_decode(sasl_conn_t *, const char *input, unsigned inputlen, const char **output,
                unsigned *outputlen)
{
    auto lock = enter("sasl_decode " + std::to_string(inputlen));
    State &s = st();
    if (s.script.decode != SASL_OK) return s.script.decode;
    const std::vector<uint8_t> in(input, input + inputlen);
    s.decoded.clear();
    for (size_t i = 4; i < in.size(); ++i)
        s.decoded.push_back(uint8_t(in[i] ^ fake_sasl::kLayerMask));
    /* Shorter than a length, or a length other than what follows it. */
    if (fake_sasl::wrap(s.decoded) != in) return SASL_BADPROT;
    *output = reinterpret_cast<const char *>(s.decoded.data());
    *outputlen = (unsigned)s.decoded.size();
    return SASL_OK;
}

int sasl_setprop(sasl_conn_t *, int propnum, const void *value)
{
    auto lock = enter("sasl_setprop " + std::to_string(propnum));
    if (propnum == SASL_SEC_PROPS)
        st().seen.secprops = *static_cast<const sasl_security_properties_t *>(value);
    return st().script.setprop;
}

int sasl_client_start(sasl_conn_t *, const char *mechlist, sasl_interact_t **prompt_need,
                      const char **clientout, unsigned *clientoutlen, const char **mech)
{
    auto lock = enter(std::string("sasl_client_start ") + mechlist);
    note_answer();
    if (mech != nullptr) *mech = "GSSAPI";
    return serve(st().script.start, &st().starts, prompt_need, clientout, clientoutlen);
}

int sasl_client_step(sasl_conn_t *, const char *serverin, unsigned serverinlen,
                     sasl_interact_t **prompt_need, const char **clientout, unsigned *clientoutlen)
{
    auto lock =
        enter("sasl_client_step " + (serverin == nullptr ? std::string("null")
                                                         : std::to_string(serverinlen) + " " +
                                                               std::string(serverin, serverinlen)));
    note_answer();
    return serve(st().script.step, &st().steps, prompt_need, clientout, clientoutlen);
}

const char *sasl_errdetail(sasl_conn_t *)
{
    auto lock = enter("sasl_errdetail");
    return st().script.errdetail.c_str();
}

void sasl_dispose(sasl_conn_t **pconn)
{
    auto lock = enter("sasl_dispose");
    if (pconn == nullptr || *pconn == nullptr) return;
    if (st().conns.erase(*pconn) == 1) delete reinterpret_cast<int *>(*pconn);
    *pconn = nullptr;
}

OM_uint32 KRB5_CALLCONV gss_krb5_ccache_name(OM_uint32 *minor_status, const char *name,
                                             const char **out_name)
{
    auto lock = enter(std::string("gss_krb5_ccache_name ") + name);
    if (out_name != nullptr) *out_name = nullptr;
    *minor_status = st().script.gss_minor;
    return st().script.gss_major;
}

int getpeername(int, __SOCKADDR_ARG addr, socklen_t *__restrict len) __THROW
{
    auto lock = enter("getpeername");
    st().seen.peer_len = (long)*len;
    if (!st().script.peer) return -1;
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(389);
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    memcpy(addr, &sin, sizeof sin);
    *len = sizeof sin;
    return 0;
}

int getnameinfo(const struct sockaddr *__restrict, socklen_t, char *__restrict host,
                socklen_t hostlen, char *__restrict serv, socklen_t, int flags)
{
    auto lock = enter("getnameinfo");
    st().seen.host_len = (long)hostlen;
    st().seen.serv_null = serv == nullptr;
    st().seen.name_flags = flags;
    const std::string &name = st().script.reverse_name;
    if (name.empty()) return EAI_NONAME;
    snprintf(host, hostlen, "%s", name.c_str());
    return 0;
}

}  // extern "C"
