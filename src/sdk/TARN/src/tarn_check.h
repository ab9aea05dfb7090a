// Private: check macros whose log line differs from their source text; for the layer's own sources.
//
// The macros of tarn.h log the text of their arguments. Where the line shows another spelling (an
// expanded macro, a name of an earlier source), or where the returned value has to be read
// differently from how it is shown, these take the text that stands inside the line.
#ifndef TARN_CHECK_H
#define TARN_CHECK_H

#include "tarn.h"

#define RVON_TEXT(p, v, text)                                                                      \
    do                                                                                             \
    {                                                                                              \
        if (!(p))                                                                                  \
        {                                                                                          \
            TARN_CHECK_FAILED(text);                                                               \
            return v;                                                                              \
        }                                                                                          \
    } while (0)

#define RVOF_TEXT(cond, v, text) RVON_TEXT(cond, v, text)
#define RVOT_TEXT(cond, v, text) RVON_TEXT(!(cond), v, text)

#define BON_TEXT(p, text)                                                                          \
    if (!(p))                                                                                      \
    {                                                                                              \
        TARN_CHECK_FAILED(text);                                                                   \
        break;                                                                                     \
    }                                                                                              \
    else                                                                                           \
        (void)0

#define BOF_TEXT(cond, text) BON_TEXT(cond, text)

#endif
