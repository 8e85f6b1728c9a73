/* The PDU reader over the POSIX port's sockets: back-to-back PDUs written in two
 * parts, split at every byte boundary, come out as the same whole messages. */
#include <gtest/gtest.h>
#include <stddef.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "cmp_ldap.h"
#include "zelOSW.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes pdu(std::initializer_list<unsigned char> header, size_t content_len, unsigned char fill)
{
    Bytes b(header);
    b.insert(b.end(), content_len, fill);
    return b;
}

Bytes pdu_of(const CMP_LDAP_MESSAGE *m)
{
    const auto *p =
        reinterpret_cast<const unsigned char *>(m) + offsetof(CMP_LDAP_MESSAGE, cmp_ldap_ber);
    return Bytes(p, p + m->cmp_ldap_total_size);
}

void write_all(int fd, const unsigned char *p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        ASSERT_GT(w, 0);
        p += w;
        n -= (size_t)w;
    }
}

}  // namespace

TEST(PduSocketpair, BackToBackPdusSplitAtEveryByteAreReadWhole)
{
    const std::vector<Bytes> pdus = {
        {0x30, 0x0C, 0x02, 0x01, 0x01, 0x61, 0x07, 0x0A, 0x01, 0x00, 0x04, 0x00, 0x04, 0x00},
        {0x30, 0x00},
        pdu({0x30, 0x81, 0x90}, 0x90, 0x5A),
        pdu({0x30, 0x82, 0x01, 0x2C}, 300, 0xA5),
        pdu({0x30, 0x84, 0x00, 0x00, 0x00, 0x03}, 3, 0x07),
    };
    Bytes stream;
    for (const Bytes &p : pdus)
        stream.insert(stream.end(), p.begin(), p.end());

    for (size_t split = 0; split <= stream.size(); ++split) {
        SCOPED_TRACE(split);
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        std::thread writer([&] {
            write_all(fds[1], stream.data(), split);
            /* let the reader run dry at the split before the rest arrives */
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            write_all(fds[1], stream.data() + split, stream.size() - split);
            close(fds[1]);
        });

        CMP_LDAP ld{};
        ld.ld_sockfd = fds[0];
        ld.ld_sock_timeout = 5000;
        for (const Bytes &expect : pdus) {
            CMP_LDAP_MESSAGE *msg = nullptr;
            ASSERT_EQ(cmp_ldap_read_berdata(&ld, 5000, &msg), 0) << "ld_errno " << ld.ld_errno;
            EXPECT_EQ(msg->cmp_ldap_total_size, (int32_t)expect.size());
            EXPECT_EQ(pdu_of(msg), expect);
            zelOSWOrgFreeMemPart(0, msg);
        }
        /* The writer has closed: the next read finds no tag. */
        CMP_LDAP_MESSAGE *msg = nullptr;
        EXPECT_EQ(cmp_ldap_read_berdata(&ld, 5000, &msg), -1);
        EXPECT_EQ(ld.ld_errno, CMP_LDAP_PROTOCOL_ERROR);
        EXPECT_EQ(msg, nullptr);
        writer.join();
        close(fds[0]);
    }
}
