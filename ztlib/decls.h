/* What every public header of the library opens and closes with: C linkage and default visibility
 * for all that is declared in between. */
#ifndef ZTLIB_DECLS_H
#define ZTLIB_DECLS_H

#ifdef __cplusplus
#define ZT_BEGIN_DECLS _Pragma("GCC visibility push(default)") extern "C" {
#define ZT_END_DECLS \
    }                \
    _Pragma("GCC visibility pop")
#else
#define ZT_BEGIN_DECLS _Pragma("GCC visibility push(default)")
#define ZT_END_DECLS _Pragma("GCC visibility pop")
#endif

/* Lets the compiler compare a format with its arguments. Both positions count from 1. */
#define ZT_PRINTF_LIKE(format_position, first_argument) \
    __attribute__((format(printf, format_position, first_argument)))

#endif
