/*
 * libFuzzer target: one input is what a server sends after a bind that put the fake SASL
 * library's security layer (fake_sasl::wrap()) in force. The first octet picks how the input
 * is served (0 whole, else in chunks of that many octets); PDUs are then read until one read
 * fails. Whatever the wrapped lengths say, nothing may be read out of bounds or left allocated
 * after unbind.
 * The PDUs inside may declare any length, which the reader allocates as on a plain socket:
 * fuzz with -malloc_limit_mb high enough for 2 GiB, or take such reports as expected.
 */
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "cmp_ldap_sasl_internal.h"
#include "fake_port.h"
#include "fake_sasl.h"

static constexpr int kMaxPdus = 64;

#define CHECK(c, a) \
    ((c) ? (void)0 : (fprintf(stderr, "fuzz_sasl_layer: %s (%ld)\n", #c, (long)(a)), abort()))

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    fake::reset();
    fake_sasl::Script script;
    script.ssf = 56;
    fake_sasl::reset(script);

    CMP_LDAP *ld = cmp_ldap_allocate_ldap_handler();
    ld->ld_sockfd = 7;
    ld->ld_sock_timeout = 1000;
    CHECK(cmp_ldap_set_sasl_ssf(ld, 0, 256) == 0, 0);
    sasl_conn_t *conn = nullptr;
    CHECK(sasl_client_new("ldap", "localhost", nullptr, nullptr, nullptr, 0, &conn) == SASL_OK, 0);
    ld->cmp_ldap_ld_sasl_authctx = conn;
    CHECK(cmp_ldap_sasl_layer_install(ld), 0);

    const fake::Bytes stream(data + 1, data + size);
    /* An empty stream queues nothing: the first receive reads as the peer's close. */
    const size_t chunk = data[0] == 0 ? stream.size() : data[0];
    for (size_t at = 0; at < stream.size(); at += chunk)
        fake::peer_data(fake::Bytes(stream.begin() + (long)at,
                                    stream.begin() + (long)std::min(stream.size(), at + chunk)));
    for (int i = 0; i < kMaxPdus; ++i) {
        CMP_LDAP_MESSAGE *msg = nullptr;
        if (cmp_ldap_read_berdata(ld, 1000, &msg) != 0) {
            CHECK(msg == nullptr, i);
            break;
        }
        CHECK(msg->cmp_ldap_total_size >= 2, msg->cmp_ldap_total_size);
        cmp_ldap_msgfree(msg);
    }
    CHECK(cmp_ldap_unbind(ld) == 0, 0);
    CHECK(fake::live_blocks() == 0, fake::live_blocks());
    CHECK(fake_sasl::live_connections() == 0, fake_sasl::live_connections());
    return 0;
}
