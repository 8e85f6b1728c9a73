/*
 * The fake SASL/GSSAPI library of the unit tests: link-time stand-ins for the Cyrus
 * SASL client calls, gss_krb5_ccache_name and the peer look-ups getpeername and
 * getnameinfo, scripted from the test and recording every call. Test code (STL
 * allowed); it takes the place of libsasl2 and libgssapi_krb5 in the unit tests and
 * the fuzz target. A test sets a Script (the defaults play a two-step GSSAPI
 * exchange), calls reset() with it, runs the library and reads calls() and seen().
 */
#ifndef FAKE_SASL_H
#define FAKE_SASL_H

#include <sasl/sasl.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace fake_sasl {

/* One outcome of sasl_client_start or sasl_client_step. */
struct Reply {
    int rc = SASL_OK;
    std::string out{};        /* clientout */
    bool null_out = false;    /* clientout NULL (length 0) instead */
    unsigned long prompt = 0; /* with SASL_INTERACT: the id of the one prompt asked */
};

struct Script {
    int version = 0x0201001c; /* sasl_version: 2.1.28 */
    int client_init = SASL_OK;
    int client_new = SASL_OK;
    int setprop = SASL_OK;
    std::vector<Reply> start{{SASL_CONTINUE, "tok1"}}; /* past the end: SASL_FAIL */
    std::vector<Reply> step{{SASL_CONTINUE, ""}, {SASL_OK, "tok3"}};
    std::string errdetail = "SASL(-1): generic failure: scripted";
    uint32_t gss_major = 0;
    uint32_t gss_minor = 0;
    bool peer = true;                       /* getpeername answers 127.0.0.1:389 */
    std::string reverse_name = "localhost"; /* getnameinfo's name; empty: no name */
    /* The security layer: what sasl_getprop reports once the conversation is over,
     * and sasl_encode/_decode's outcome. The layer is wrap()'s; sasl_encode refuses
     * more than maxoutbuf octets and sasl_decode anything but one whole buffer. */
    unsigned ssf = 0;
    unsigned maxoutbuf = 4096;
    int encode = SASL_OK;
    int decode = SASL_OK;
};
constexpr uint8_t kLayerMask = 0x5A;
/* The fake layer's buffer for these octets: their length (4 octets, high first),
 * then every octet XOR kLayerMask. */
std::vector<uint8_t> wrap(const std::vector<uint8_t> &plain);

/* Starts afresh with this script: no calls, no connections. Each new connection
 * plays the start and step replies from their beginning. */
void reset(const Script &script = Script());
/* Every call in order, with what it was given:
 *   "sasl_version", "sasl_client_init", "sasl_client_new ldap localhost",
 *   "sasl_getprop 13", "sasl_setprop 101", "sasl_client_start GSSAPI",
 *   "sasl_client_step 4 srv1" (length, then the octets as text; "null" for none),
 *   "sasl_errdetail", "sasl_dispose", "gss_krb5_ccache_name /path",
 *   "getpeername", "getnameinfo", "sasl_encode 12", "sasl_decode 16" (input lengths). */
std::vector<std::string> calls();
long live_connections(); /* made by sasl_client_new and not disposed */

/* What the library handed over, for the details the call log leaves out. */
struct Seen {
    std::vector<unsigned long> callback_ids; /* sasl_client_new's list, up to LIST_END */
    bool callback_procs_null = true;
    bool addresses_null = false; /* no local or remote address given */
    unsigned flags = 99;
    sasl_security_properties_t secprops{};
    std::vector<std::string> answers; /* each answered prompt: "id=0x4001 result='' len=0" */
    long peer_len = -1;               /* getpeername's length argument on entry */
    long host_len = -1;               /* getnameinfo's host buffer size */
    bool serv_null = false;
    int name_flags = -1;
};
Seen seen();

}  // namespace fake_sasl

#endif
