/** @file
 *  Regular expressions: a compiled pattern that counts or collects its matches in a text.
 *
 *  Patterns are those of PCRE2, through its POSIX-style interface: Perl syntax, '^' and '$' match at
 *  line ends as well. Text is taken as bytes unless the pattern begins with "(*UTF)"; a search then
 *  finds nothing when the rest is not valid UTF-8.
 *
 *  Matches are found one after the other. Each search starts where the match before it ended and
 *  looks only at the rest of the text, as if it began there: '^' and '\b' match at that place, a
 *  look-behind sees nothing before it. A match that is empty at the very start of the rest moves the
 *  next search on by one character; an empty one further on is found first there and then, by the
 *  next search, again at its start. At the end of the text one more search is made, of the empty
 *  rest.
 *
 *  A match fills slots: the whole match, then each capture group in order up to the first one that
 *  took no part. No more than max_matches slots are filled.
 *
 *  The steps of one search are bounded by PCRE2's match limit; a search that runs into it ends the
 *  matching as if nothing more were found. With "(*UTF)", and where case is ignored, a search may
 *  read the whole rest even when its match is near: bound the length of foreign texts.
 *  Threads: an object by one thread at a time. Nothing blocks. */
#ifndef TARN_REGEX_H
#define TARN_REGEX_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_regex *TARN_REGEX;

/** One filled slot of one match; belongs to the object, see tarn_regex_match_all(). */
typedef struct tarn_regex_result
{
    char *text;                     /**< copy of the matched bytes, NUL-terminated */
    struct tarn_regex_result *next; /**< the next filled slot; null at the end */
    uint64_t start;                 /**< byte offset from the start of the whole text */
    uint64_t end;                   /**< byte offset behind the last matched byte */
} tarn_regex_result;

/** Compile a pattern.
 *  @param pattern      not kept
 *  @param max_matches  slots of one match: 1 gives whole matches only, 0 never matches anything
 *  @return the handle, destroyed with tarn_regex_destroy(); TARN_INVALID_HANDLE for null, and after
 *          an ERROR line for an invalid pattern or when memory ran out. */
TARN_API TARN_REGEX tarn_regex_create_ex(const char *pattern, uint32_t max_matches);

/** Compile a pattern with 100 slots. */
TARN_API TARN_REGEX tarn_regex_create(const char *pattern);

/** Destroy an object with its results; null is ignored. */
TARN_API void tarn_regex_destroy(TARN_REGEX re);

/** Count the filled slots of all matches: a(b) counts 4 in "abab".
 *  @return the count; 0 also for null arguments and when memory ran out. */
TARN_API size_t tarn_regex_match(TARN_REGEX re, const char *text);

/** Collect the filled slots of all matches, in order.
 *  @return head of the list, valid until the next call on this object or its destruction; null when
 *          nothing matched, for null arguments (the list before is kept then) and when memory ran
 *          out. */
TARN_API const tarn_regex_result *tarn_regex_match_all(TARN_REGEX re, const char *text);

TARN_END_DECLS

#endif
