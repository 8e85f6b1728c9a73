/*
 * search.c in C++ with cmp_ldap.hpp: the same walk, arguments and output, with the
 * releases left to the owning objects. Builds without exceptions or RTTI.
 *
 *   example_search_hpp [-Z] [-D DN -w PASSWORD] HOST PORT BASE [ATTR=VALUE]
 */
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cmp_ldap.hpp"

namespace {

constexpr cmp_ldap::timeout kWait = std::chrono::seconds(10);

void print_value(std::string_view name, cmp_ldap::bytes v)
{
    for (unsigned char c : v) {
        if (c < 0x20 || c > 0x7e) {
            std::printf("%.*s: (%zu octets)\n", static_cast<int>(name.size()), name.data(),
                        v.size());
            return;
        }
    }
    std::printf("%.*s: %.*s\n", static_cast<int>(name.size()), name.data(),
                static_cast<int>(v.size()), reinterpret_cast<const char *>(v.data()));
}

cmp_ldap::status print_entry(const cmp_ldap::message &entry)
{
    auto [dn, st] = entry.dn();
    if (!st) return st;
    std::printf("dn: %s\n", dn.c_str());
    auto names = entry.attributes();
    for (std::string_view name : names) {
        auto [vals, got] = entry.binary_values(name);
        if (!got) return got;
        for (cmp_ldap::bytes v : vals)
            print_value(name, v);
    }
    return names.status();
}

cmp_ldap::status print_reference(const cmp_ldap::message &ref)
{
    auto [urls, st] = ref.referrals();
    for (std::string_view url : urls)
        std::printf("ref: %.*s\n", static_cast<int>(url.size()), url.data());
    return st;
}

int usage()
{
    std::fprintf(
        stderr, "usage: example_search_hpp [-Z] [-D DN -w PASSWORD] HOST PORT BASE [ATTR=VALUE]\n");
    return 2;
}

}  // namespace

int main(int argc, char **argv)
{
    uint8_t tls_mod = CMP_LDAP_TLS_MOD_NONE;
    const char *dn = nullptr;
    const char *password = nullptr;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        if (std::strcmp(argv[i], "-Z") == 0)
            tls_mod = CMP_LDAP_TLS_MOD_STARTTLS;
        else if (std::strcmp(argv[i], "-D") == 0 && i + 1 < argc)
            dn = argv[++i];
        else if (std::strcmp(argv[i], "-w") == 0 && i + 1 < argc)
            password = argv[++i];
        else
            return usage();
    }
    if (argc - i < 3 || argc - i > 4 || (dn == nullptr) != (password == nullptr)) return usage();

    CMP_LDAP_FILTER filter{};
    if (argc - i == 4) {
        std::string_view cond = argv[i + 3];
        size_t eq = cond.find('=');
        if (eq == cond.npos || eq > CMP_LDAP_TEXT_MAX || cond.size() - eq - 1 > CMP_LDAP_TEXT_MAX)
            return usage();
        filter.cmp_ldap_filterCond = CMP_LDAP_FILTER_COND_EQUAL;
        cond.copy(filter.cmp_ldap_attr, eq);
        cond.substr(eq + 1).copy(filter.cmp_ldap_value, cond.size() - eq - 1);
    }

    CMP_LDAP_CONN_PARAM param = cmp_ldap::conn_param(argv[i], std::atoi(argv[i + 1]), tls_mod);
    param.ssl_auth = tls_mod == CMP_LDAP_TLS_MOD_STARTTLS ? 1 : 0;
    auto [ses, st] = cmp_ldap::session::open(param);
    if (!st) {
        std::printf("open: %d %s\n", st.code(), st.text());
        return 1;
    }
    if (dn != nullptr && !(st = ses.bind_simple(dn, password, kWait))) {
        std::printf("bind: %d %s\n", st.code(), st.text());
        return 1;
    }
    auto found = ses.search(argv[i + 2], CMP_LDAP_SCOPE_SUBTREE, argc - i == 4 ? &filter : nullptr,
                            nullptr, "", kWait);
    for (cmp_ldap::message &m : found) {
        st = m.type() == CMP_LDAP_RES_SEARCH_ENTRY ? print_entry(m) : print_reference(m);
        if (!st) break;  // the search is abandoned as `found` goes
    }
    if (st) st = found.status();
    std::printf("result: %d %s\n", st.code(), st.text());
    if (cmp_ldap::text url = ses.take_referral()) std::printf("referral: %s\n", url.c_str());
    return st ? 0 : 1;
}
