/** @file
 *  Strings: integer printing in any base, hexadecimal, XML and JSON escapes, duplication, trimming,
 *  splitting, case changes, and the C library's string functions under the layer's names.
 *
 *  Strings are NUL-terminated byte strings; lengths and sizes are in bytes, sizes include the NUL.
 *  Changes and comparisons of case are ASCII only, whatever the locale. A function that returns a
 *  new string or buffer leaves it to the caller, who frees it with tarn_mem_free(); it returns null
 *  when memory ran out. Functions that fill a caller's buffer never write past its size: an output
 *  that fills it to the last byte goes without NUL.
 *  Failures of such functions are -1 for the first argument missing, -2 for the second, and so on,
 *  as each function says. Nothing blocks.
 *  Threads: any, each on its own strings. All of it works before tarn_init(). */
#ifndef TARN_STR_H
#define TARN_STR_H

#include "tarn.h"

TARN_BEGIN_DECLS

/* ---- integers ------------------------------------------------------------------------------- */

/** Print an unsigned value, digits 0-9 then lower-case a-z.
 *  @param buf    out: as many leading digits as fit, and a NUL when size is larger than the number
 *                of digits; deliberately none in a buffer of exactly that many bytes. Null only
 *                with size 0
 *  @param size   of buf; 0 asks for the number of digits and writes nothing
 *  @param base   2 to 36
 *  @return characters copied, or the number of digits for size 0; TARN_ERRLN for another base, or
 *          for a null buf with a size. */
TARN_API int tarn_str_print_uint(char *buf, size_t size, uint64_t value, int base);

/** Print a signed value: a minus sign, where needed, and the magnitude as tarn_str_print_uint().
 *  @return as tarn_str_print_uint(), the sign counted; 0 for a negative value and size 1. */
TARN_API int tarn_str_print_int(char *buf, size_t size, int64_t value, int base);

/** New string with the value in decimal. */
TARN_API char *tarn_str_from_int(int32_t value);

/* ---- hexadecimal ---------------------------------------------------------------------------- */

/** Write two lower-case digits per byte, and a NUL behind the last pair.
 *  @param str      str_len bytes
 *  @param hex      out
 *  @param hex_len  size of hex, at least 2 * str_len; the NUL needs one byte more and is left out
 *                  without it
 *  @return 0; -1 when str is null; -2 when hex is null or too small. */
TARN_API int tarn_str_to_hex(const void *str, size_t str_len, char *hex, size_t hex_len);

/** Read pairs of digits, of either case, into bytes; writes no NUL.
 *  A digit without a second one behind it (the last of an odd number, or one before another
 *  character) is a value of its own; a pair that does not begin with a digit leaves its byte as it
 *  was.
 *  @param text     text_len characters; a NUL among them is no digit
 *  @param out      out: (text_len + 1) / 2 bytes
 *  @param out_len  size of out
 *  @return 0; -1 when text is null; -2 when out is null or text_len exceeds 2 * out_len. */
TARN_API int tarn_str_from_hex(const char *text, size_t text_len, void *out, size_t out_len);

/** New buffer with the bytes of a text of digit pairs, of either case, and a zero byte behind them.
 *  @return the buffer of length / 2 + 1 bytes; null for null, an empty text, an odd length or any
 *          other character. */
TARN_API char *tarn_str_from_hex2(const char *hex_str);

/* ---- XML: the entities &lt; &gt; &amp; &apos; &quot; ----------------------------------------- */

/** New string with the five characters replaced by their entities; null for null. */
TARN_API char *tarn_str_escape_xml(const char *str);

/** New string with the five entities replaced by their characters.
 *  @return null for null and when any '&' does not begin one of them. */
TARN_API char *tarn_str_unescape_xml(const char *xml_str);

/** Escape into a buffer.
 *  @param xml_str  out: a NUL follows unless the output fills it; what fitted, without NUL, on -4
 *  @param size     of xml_str, at least 1
 *  @return length of the output without the NUL, which may be size itself; -1 when str is null; -2
 *          when xml_str is null; -3 for size 0; -4 when the output is longer than size. */
TARN_API int64_t tarn_str_to_xml_str(const char *str, char *xml_str, size_t size);

/** Unescape into a buffer.
 *  @param xml_str  text with entities
 *  @param str      out: as in tarn_str_to_xml_str(), on -5 too
 *  @param size     of str, at least 1
 *  @return length of the output without the NUL; -1 when xml_str is null; -2 when str is null; -3
 *          for size 0; -4 when the output is longer than size; -5 at an '&' that begins none of the
 *          entities. */
TARN_API int64_t tarn_str_from_xml_str(const char *xml_str, char *str, size_t size);

/* ---- JSON ----------------------------------------------------------------------------------- */

/** New string with quote, backslash and all bytes below 32 escaped: \" \\ \b \t \n \f \r and \u00xx
 *  with lower-case digits. Other bytes stay, valid UTF-8 or not. No quotes are put around it.
 *  @param str  null counts as empty */
TARN_API char *tarn_str_escape_json(const char *str);

/** New string with the escapes \" \/ \\ \b \f \n \r \t and \uXXXX replaced, the last by UTF-8;
 *  surrogates must come as a pair, high before low. \u0000 gives the byte 0, which ends the string
 *  for its reader.
 *  @return the string, not longer than the input; null for null and for any other or broken
 *          escape. */
TARN_API char *tarn_str_unescape_json(const char *str);

/* ---- duplication, trimming, splitting, case --------------------------------------------------- */

/** New copy; null for null. */
TARN_API char *tarn_str_dup(const char *str);

/** New buffer with exactly n bytes of str, read past any NUL among them, and a NUL behind them;
 *  null for null. */
TARN_API char *tarn_str_ndup(const char *str, size_t n);

/** Remove leading and trailing white space (the C library's isspace) in place.
 *  @return str; null for null. */
TARN_API char *tarn_str_trim(char *str);

/** New trimmed copy; null for null. */
TARN_API char *tarn_str_trim_dup(const char *str);

/** True for null and for a string of only white space. */
TARN_API bool tarn_str_is_empty(const char *str);

/** Split at each run of a delimiter; leading and trailing delimiters give no empty pieces.
 *  @return new array of the pieces with a null pointer behind the last; one tarn_mem_free() of it
 *          releases the pieces too. Null for null and for a string of only white space. */
TARN_API char **tarn_str_split(const char *str, char delimiter);

/** Remove every occurrence of a character in place.
 *  @return str; null for null. */
TARN_API char *tarn_str_remove_char(char *str, char ch);

/** Change ASCII letters in place.
 *  @return str; null for null. */
TARN_API char *tarn_str_to_upper(char *str);
TARN_API char *tarn_str_to_lower(char *str);

/** True when both are the same pointer (two nulls as well) or have equal bytes. */
TARN_API bool tarn_str_equal(const char *a, const char *b);

/** The same with ASCII letters of either case taken as equal. */
TARN_API bool tarn_str_equal_nocase(const char *a, const char *b);

/* ---- the C library's functions: no check of any argument -------------------------------------- */

TARN_API char *tarn_str_ncpy(char *dst, const char *src, size_t n);    /**< strncpy */
TARN_API int tarn_str_cmp(const char *a, const char *b);               /**< strcmp */
TARN_API int tarn_str_casecmp(const char *a, const char *b);           /**< strcasecmp */
TARN_API char *tarn_str_str(const char *text, const char *searched);   /**< strstr */
TARN_API size_t tarn_str_len(const char *str);                         /**< strlen */
TARN_API char *tarn_str_chr(const char *str, int ch);                  /**< strchr */
TARN_API char *tarn_str_rchr(const char *str, int ch);                 /**< strrchr */
TARN_API char *tarn_str_tok(char *str, const char *set, char **state); /**< strtok_r */

/** strncat with size - 1: appends at most so many characters and a NUL, whatever dst holds already.
 *  The size bounds what is appended, not the total; 0 appends nothing. */
TARN_API char *tarn_str_ncat(char *dst, const char *src, size_t size);

/** vsnprintf.
 *  @return its result: the length of the whole output, which was cut when it is size or more. */
TARN_API int tarn_str_printf(char *buf, size_t size, const char *format, ...) TARN_PRINTF(3, 4);

/** vsscanf.
 *  @return its result: the number of values stored, or EOF. */
TARN_API int tarn_str_scanf(const char *str, const char *format, ...) TARN_SCANF(2, 3);

TARN_END_DECLS

#endif
