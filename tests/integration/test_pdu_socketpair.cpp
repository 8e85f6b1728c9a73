/* Back-to-back PDUs over a POSIX socket, split at every byte, are read whole. */
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "cmp_ldap.h"
#include "zelOSW.h"

TEST(PduSocketpair, BackToBackPdusSplitAtEveryByteAreReadWhole)
{
    using Bytes = std::vector<unsigned char>;
    auto pdu = [](Bytes h, size_t n) {
        h.resize(h.size() + n, 0xA5);
        return h;
    };
    const std::vector<Bytes> pdus = {pdu({0x30, 3}, 3), pdu({0x30, 0}, 0),
                                     pdu({0x30, 0x81, 0x90}, 0x90), pdu({0x30, 0x82, 1, 0x2C}, 300),
                                     pdu({0x30, 0x84, 0, 0, 0, 3}, 3)};
    Bytes all;
    for (const Bytes &p : pdus)
        all.insert(all.end(), p.begin(), p.end());
    for (size_t split = 0; split <= all.size(); ++split) {
        SCOPED_TRACE(split);
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        std::thread writer([&] {
            EXPECT_EQ(write(fds[1], all.data(), split), (ssize_t)split);
            usleep(200); /* the reader runs dry at the split before the rest arrives */
            EXPECT_EQ(split + write(fds[1], all.data() + split, all.size() - split), all.size());
            close(fds[1]);
        });
        CMP_LDAP ld{};
        ld.ld_sockfd = fds[0];
        CMP_LDAP_MESSAGE *msg = nullptr;
        for (const Bytes &want : pdus) { /* short form, empty, 1, 2 and 4 length octets */
            EXPECT_EQ(cmp_ldap_read_berdata(&ld, 5000, &msg), 0);
            if (msg == nullptr) break;
            const auto *p = (unsigned char *)msg + offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber);
            EXPECT_EQ(Bytes(p, p + msg->cmp_ldap_total_size), want);
            zelOSWOrgFreeMemPart(0, msg);
        }
        EXPECT_EQ(cmp_ldap_read_berdata(&ld, 5000, &msg), -1); /* closed: no further tag */
        writer.join();
        close(fds[0]);
    }
}
