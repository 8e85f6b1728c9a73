/*
 * Helpers shared by the port's sources: deadlines, waiting on a descriptor,
 * environment numbers.
 */
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <time.h>

#include "posix_internal.h"

namespace posix_port {

static int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

Deadline deadline_after(long timeout_ms)
{
    if (timeout_ms < 0) return Deadline{true, 0};
    return Deadline{false, now_ms() + timeout_ms};
}

int wait_fd(int fd, short events, const Deadline &deadline)
{
    for (;;) {
        int wait_ms = -1;
        if (!deadline.infinite) {
            int64_t left = deadline.end_ms - now_ms();
            if (left < 0) left = 0;
            wait_ms = left > INT_MAX ? INT_MAX : static_cast<int>(left);
        }
        pollfd p = {fd, events, 0};
        int n = poll(&p, 1, wait_ms);
        if (n > 0) return 1;
        if (n == 0) {
            /* poll may wake a little early, or the wait was clipped to INT_MAX. */
            if (!deadline.infinite && now_ms() >= deadline.end_ms) return 0;
            continue;
        }
        if (errno != EINTR) return -1;
    }
}

long env_long(const char *name, long fallback)
{
    const char *text = getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    char *end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0') return fallback;
    return value;
}

}  // namespace posix_port
