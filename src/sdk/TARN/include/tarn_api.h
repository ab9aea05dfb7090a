/** @file
 *  Linkage and attribute macros that every public header uses; includes nothing. */
#ifndef TARN_API_H
#define TARN_API_H

#if defined(__GNUC__)
/** Marks a function or object that the library exports. */
#define TARN_API __attribute__((visibility("default")))
/** Lets the compiler check printf arguments: position of the format, of the first argument. */
#define TARN_PRINTF(format_pos, first_arg) __attribute__((format(printf, format_pos, first_arg)))
#define TARN_SCANF(format_pos, first_arg) __attribute__((format(scanf, format_pos, first_arg)))
#else
#define TARN_API
#define TARN_PRINTF(format_pos, first_arg)
#define TARN_SCANF(format_pos, first_arg)
#endif

#ifdef __cplusplus
#define TARN_BEGIN_DECLS                                                                           \
    extern "C"                                                                                     \
    {
#define TARN_END_DECLS }
#else
#define TARN_BEGIN_DECLS
#define TARN_END_DECLS
#endif

#endif
