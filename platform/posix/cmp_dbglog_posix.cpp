/*
 * Debug log on stderr: one line per call, "MODULE[level] rc=N text", written
 * with a single write() so lines from several threads never interleave.
 * Level 1 carries every request's trace, so it is written only when asked for.
 * Some of the core's lines carry a secret (a simple bind's password as
 * "passwd=", its credentials as "cred="): those values are masked at every
 * level unless TOVEISTROR_LOG_SECRETS=1 asks for them in clear.
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

std::atomic<int> g_show_secrets{kUnread};

bool show_secrets()
{
    int show = g_show_secrets.load(std::memory_order_relaxed);
    if (show == kUnread) {
        show = posix_port::env_long("TOVEISTROR_LOG_SECRETS", 0) == 1 ? 1 : 0;
        g_show_secrets.store(show, std::memory_order_relaxed);
    }
    return show == 1;
}

/* Field names whose values are secrets, as the core's formats write them. */
constexpr const char *kSecretFields[] = {"passwd=", "cred="};
/* Consumes the argument, prints none of it. */
constexpr char kMaskedConversion[] = "%.0s***";

/* The length of a %s conversion (flags, width, precision) at p, or 0 when p holds
 * another conversion: only texts are masked, numbers say nothing secret. */
size_t text_conversion_length(const char *p)
{
    if (*p != '%') return 0;
    size_t n = 1;
    while (p[n] != '\0' && strchr("-+ #0123456789.", p[n]) != nullptr)
        ++n;
    return p[n] == 's' ? n + 1 : 0;
}

bool secret_field_ends_at(const char *format, const char *p)
{
    for (const char *field : kSecretFields) {
        size_t len = strlen(field);
        if ((size_t)(p - format) >= len && strncmp(p - len, field, len) == 0) return true;
    }
    return false;
}

/* Rewrites every secret field's %s into "%.0s***": the argument is still consumed,
 * so the rest of the line stays in step, but none of it is printed. Returns the
 * format to use: the original when it has nothing to mask, or out. */
const char *mask_secrets(const char *format, char *out, size_t out_size)
{
    size_t w = 0;
    bool masked = false;
    for (const char *p = format; *p != '\0';) {
        size_t conv = secret_field_ends_at(format, p) ? text_conversion_length(p) : 0;
        const char *piece = p;
        size_t piece_len = 1;
        if (conv != 0) {
            piece = kMaskedConversion;
            piece_len = sizeof kMaskedConversion - 1;
            masked = true;
        } else if (*p == '%' && p[1] == '%') {
            piece_len = 2; /* a literal percent sign is never the start of a field */
        }
        /* Too long to rewrite: say nothing rather than the secret. */
        if (w + piece_len + 1 > out_size) return "(line withheld: too long to mask)";
        memcpy(out + w, piece, piece_len);
        w += piece_len;
        p += conv != 0 ? conv : piece_len;
    }
    out[w] = '\0';
    return masked ? out : format;
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
    g_show_secrets.store(kUnread, std::memory_order_relaxed);
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
    char masked_format[512];
    if (!show_secrets()) format = mask_secrets(format, masked_format, sizeof masked_format);

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
