/* The C++ header: ownership, the walks of a search, and failures as values. */
#include "cmp_ldap.hpp"

#include <netdb.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>

#include "support.h"

using namespace support;

namespace {

Bytes msg(uint8_t id, uint8_t op, const Bytes &content)
{
    return tlv(0x30, cat({{0x02, 0x01, id}, tlv(op, content)}));
}
Bytes done(uint8_t code, const Bytes &extra = {})
{
    return cat({{0x0a, 0x01, code}, octets(""), octets(""), extra});
}

/* A bind (id 1) and a search (id 2): one entry with a text and a binary attribute,
 * one reference with two URLs, and a referral as the final result. */
const Bytes kBindOk = msg(1, 0x61, done(0));
const Bytes kEntry = msg(
    2, 0x64,
    cat({octets("cn=a,dc=x"),
         tlv(0x30,
             cat({tlv(0x30, cat({octets("cn"), tlv(0x31, cat({octets("A"), octets("B")}))})),
                  tlv(0x30, cat({octets("jpegPhoto"), tlv(0x31, tlv(0x04, {0x00, 0xff}))}))}))}));
const Bytes kReference = msg(2, 0x73, cat({octets("ldap://a/"), octets("ldap://b/")}));
const Bytes kReferral = msg(2, 0x65, done(10, tlv(0xa3, octets("ldap://r/"))));
const std::string kWalk =
    "dn=cn=a,dc=x cn=A cn=B jpegPhoto=00 FF ref=ldap://a/ ref=ldap://b/ end=10 url=ldap://r/";

void connectable(const std::vector<Bytes> &peer)
{
    fake::set_resolver(0, {fake::ipv4("192.0.2.10")});
    for (const Bytes &b : peer)
        b.empty() ? fake::peer_timeout() : fake::peer_data(b);
}

/* Everything the header reports, in one line; a failure as "fail=CODE" where it
 * stopped the walk. */
std::string walk()
{
    std::string out;
    auto fail = [&](cmp_ldap::status st) { return out + "fail=" + std::to_string(st.code()); };
    auto [ses, st] = cmp_ldap::session::open(cmp_ldap::conn_param("ldap.example", 389));
    if (!st || !(st = ses.bind_simple("cn=me", "pw", std::chrono::seconds(5)))) return fail(st);
    auto found = ses.search("dc=x", CMP_LDAP_SCOPE_SUBTREE, nullptr, nullptr, "cn,jpegPhoto");
    for (cmp_ldap::message &m : found) {
        if (m.type() == CMP_LDAP_RES_SEARCH_REFERENCE) {
            auto urls = m.referrals();
            if (!urls) return fail(urls.status);
            for (std::string_view u : urls.value)
                out += "ref=" + std::string(u) + " ";
            continue;
        }
        auto dn = m.dn();
        if (!dn) return fail(dn.status);
        out += "dn=" + std::string(dn.value.view()) + " ";
        auto names = m.attributes();
        for (std::string_view name : names) {
            if (name == "jpegPhoto") {
                auto bin = m.binary_values(name);
                if (!bin) return fail(bin.status);
                for (cmp_ldap::bytes b : bin.value)
                    out += "jpegPhoto=" + to_hex(Bytes(b.begin(), b.end())) + " ";
                continue;
            }
            auto vals = m.values(name);
            if (!vals) return fail(vals.status);
            for (std::string_view v : vals.value)
                out += std::string(name) + "=" + std::string(v) + " ";
        }
        if (!names.status()) return fail(names.status());
    }
    out += "end=" + std::to_string(found.status().code());
    return out + " url=" + ses.take_referral().c_str();
}

class CppHeader : public FakePortTest {};

TEST_F(CppHeader, WalksASearchAndReleasesEverything)
{
    connectable({kBindOk, kEntry, kReference, kReferral});
    EXPECT_EQ(walk(), kWalk);
    /* the session's end: an UnbindRequest with the next id */
    const Bytes &sent = fake::sent();
    EXPECT_EQ(Bytes(sent.end() - 7, sent.end()), hex("30 05 02 01 03 42 00"));
}

TEST_F(CppHeader, FailuresComeBackAsValues)
{
    const Bytes kEntryNoAttrs = msg(2, 0x64, cat({octets("cn=a,dc=x"), tlv(0x30, {})}));
    const Bytes kEntryCut = msg(2, 0x64, cat({octets("cn=a,dc=x"), tlv(0x30, {0x30, 0x05, 0x04})}));
    /* what, the peer's answers (an empty one: a receive that times out), the walk */
    const std::tuple<const char *, std::vector<Bytes>, std::string> cases[] = {
        {"bind refused", {msg(1, 0x61, done(49))}, "fail=49"},
        {"no answer to the bind", {{}}, "fail=260"},
        {"silence amid the search", {kBindOk, kEntryNoAttrs, {}}, "dn=cn=a,dc=x end=260 url="},
        {"an entry whose attributes do not decode", {kBindOk, kEntryCut}, "dn=cn=a,dc=x fail=259"},
        {"a bind response for the search", {kBindOk, msg(2, 0x61, done(0))}, "end=259 url="},
        {"the server closes the connection", {kBindOk, kEntryNoAttrs}, "dn=cn=a,dc=x end=2 url="},
    };
    for (const auto &[what, peer, want] : cases) {
        SCOPED_TRACE(what);
        fake::reset();
        connectable(peer);
        EXPECT_EQ(walk(), want);
        EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
    }

    fake::reset();
    fake::set_resolver(EAI_NONAME, {});
    auto [ses, st] = cmp_ldap::session::open(cmp_ldap::conn_param("nowhere", 389));
    EXPECT_EQ(st.code(), CMP_LDAP_ADDRESS_ERROR);
    EXPECT_FALSE(ses);
    /* an empty session answers every call with a parameter error and touches nothing */
    EXPECT_EQ(ses.bind_simple("cn=me", "pw").code(), CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(ses.search("dc=x", 0, nullptr, nullptr, "").status().code(), CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(ses.last_error().code(), CMP_LDAP_PARAM_ERROR);
    EXPECT_FALSE(ses.take_referral());
    cmp_ldap::message none;
    EXPECT_EQ(none.dn().status.code(), CMP_LDAP_PARAM_ERROR);
    EXPECT_EQ(none.values("cn").status.code(), CMP_LDAP_PARAM_ERROR);
}

TEST_F(CppHeader, ASearchLeftRunningIsAbandoned)
{
    /* AbandonRequest id 3 for the search (2), then the UnbindRequest id 4 */
    const Bytes kAbandonThenUnbind = hex("30 06 02 01 03 50 01 02 30 05 02 01 04 42 00");
    for (bool timeout : {false, true}) {
        fake::reset();
        connectable({kBindOk, kEntry, timeout ? Bytes{} : kReferral});
        {
            auto [ses, st] = cmp_ldap::session::open(cmp_ldap::conn_param("ldap.example", 389));
            ASSERT_TRUE(st);
            ASSERT_TRUE(ses.bind_simple("cn=me", "pw"));
            auto found = ses.search("dc=x", CMP_LDAP_SCOPE_BASE, nullptr, nullptr, "cn");
            for (cmp_ldap::message &m : found) {
                cmp_ldap::message kept = std::move(m);  // the caller may keep a message
                EXPECT_EQ(kept.type(), CMP_LDAP_RES_SEARCH_ENTRY);
                if (!timeout) break;
            }
            EXPECT_EQ(found.status().code(), timeout ? CMP_LDAP_TIMEOUT : CMP_LDAP_SUCCESS);
        }
        const Bytes &sent = fake::sent();
        EXPECT_EQ(Bytes(sent.end() - 15, sent.end()), kAbandonThenUnbind) << timeout;
        EXPECT_EQ(fake::live_blocks(), 0) << fake::live_block_report();
    }
}

TEST_F(CppHeader, EveryAllocationFailingInTurnIsReportedAndLeaksNothing)
{
    std::vector<std::string> outcomes;
    long n = sweep_alloc_failures([&](long k) {
        connectable({kBindOk, kEntry, kReference, kReferral});
        fake::arm_alloc_failure(k);
        outcomes.push_back(walk());
    });
    ASSERT_GT(n, 20);
    EXPECT_EQ(outcomes[0], kWalk);
    /* Each run reports what it got up to the failure, then no memory (or, where the
     * library meets it while decoding a text, 259). The referral's URL and the unbind's
     * request fail quietly: the library drops the one, the session's end absorbs the other. */
    const std::string kQuiet[] = {kWalk.substr(0, kWalk.rfind("url=") + 4), kWalk};
    for (long k = 1; k <= n; ++k) {
        const std::string &got = outcomes[k];
        size_t at = std::min(got.rfind("fail="), got.rfind("end="));
        ASSERT_NE(at, std::string::npos) << "allocation " << k << ": " << got;
        EXPECT_EQ(kWalk.compare(0, at, got, 0, at), 0) << "allocation " << k << ": " << got;
        if (got == kQuiet[0] || got == kQuiet[1]) continue;
        std::string code = got.substr(got.find('=', at) + 1, 3);
        EXPECT_TRUE(code == "265" || code == "259") << "allocation " << k << ": " << got;
    }
}

}  // namespace
