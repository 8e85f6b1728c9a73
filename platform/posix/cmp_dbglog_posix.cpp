/*
 * Debug log on stderr: one line per call, "MODULE[level] rc=N text", written
 * with a single write() so lines from several threads never interleave.
 * Level 1 carries every request's trace, including a simple bind's password,
 * so it is written only when asked for.
 */
#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>

#include "cmp_dbglog.h"
#include "cmp_ldap_posix.h"
#include "posix_internal.h"

namespace {

constexpr int kUnread = INT_MIN;
std::atomic<int> g_max_level{kUnread};

int read_level()
{
    const char *text = getenv("TOVEISTROR_LOG_LEVEL");
    if (text != nullptr && strcasecmp(text, "off") == 0) return -1;
    long level = posix_port::env_long("TOVEISTROR_LOG_LEVEL", 0);
    if (level < -1) return -1;
    return level > 99 ? 99 : static_cast<int>(level);
}

int max_level()
{
    int level = g_max_level.load(std::memory_order_relaxed);
    if (level == kUnread) {
        level = read_level();
        g_max_level.store(level, std::memory_order_relaxed);
    }
    return level;
}

void write_all(const char *p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(STDERR_FILENO, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
}

}  // namespace

void posix_port::reload_log_level()
{
    g_max_level.store(kUnread, std::memory_order_relaxed);
}

extern "C" {

void cmp_dbglog_posix_set_level(int max_level)
{
    g_max_level.store(max_level < -1 ? -1 : max_level, std::memory_order_relaxed);
}

/* A NULL %s argument prints as "(null)" (glibc's printf), cut by any precision. */
int cmp_dbglog_common_trace(const char *module, int level, int reserved, int32_t rc,
                            const char *format, ...)
{
    (void)reserved;
    int limit = max_level();
    if (limit < 0 || level > limit || format == nullptr) return 0;

    char small[512];
    int prefix = snprintf(small, sizeof(small), "%s[%d] rc=%d ",
                          module != nullptr ? module : "(null)", level, static_cast<int>(rc));
    if (prefix < 0) return 0;
    if (static_cast<size_t>(prefix) >= sizeof(small) - 2) prefix = sizeof(small) - 2;

    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    int body = vsnprintf(small + prefix, sizeof(small) - prefix, format, args);
    va_end(args);
    if (body < 0) {
        body = 0;
        small[prefix] = '\0';
    }

    char *line = small;
    size_t total = static_cast<size_t>(prefix) + static_cast<size_t>(body);
    if (total + 2 > sizeof(small)) {
        /* Too long for the stack buffer: format again into one of the right
         * size, or keep the cut line when even that is not possible. */
        char *big = static_cast<char *>(malloc(total + 2));
        if (big != nullptr) {
            memcpy(big, small, static_cast<size_t>(prefix));
            vsnprintf(big + prefix, static_cast<size_t>(body) + 1, format, again);
            line = big;
        } else {
            total = sizeof(small) - 2;
        }
    }
    va_end(again);

    /* Exactly one newline, whether the format brought none, one or several. */
    while (total > 0 && line[total - 1] == '\n')
        --total;
    line[total++] = '\n';
    write_all(line, total);
    if (line != small) free(line);
    return 0;
}

}  // extern "C"
