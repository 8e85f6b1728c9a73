/*
 * Debug log. One call is one line: module tag, level (0 errors and dumps,
 * 1 request traces), a reserved 0, the result code being reported (or -1),
 * and a printf-style format with its arguments. A NULL %s argument must be
 * printed safely.
 */
#ifndef CMP_DBGLOG_H
#define CMP_DBGLOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int cmp_dbglog_common_trace(const char *module, int level, int reserved, int32_t rc,
                            const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 5, 6)))
#endif
    ;

#ifdef __cplusplus
}
#endif

#endif
