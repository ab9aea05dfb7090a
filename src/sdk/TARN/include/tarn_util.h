/** @file
 *  Byte-level helpers: Base64, percent-encoding and query strings of URLs, UUID text, byte order,
 *  arrays of bits.
 *
 *  Texts are NUL-terminated byte strings, sizes are bytes. Texts and buffers handed out belong to
 *  the caller, who frees them with tarn_mem_free(); null comes back when memory ran out. Pointers
 *  handed in are borrowed for the call and need no alignment.
 *  Bit arrays: bit i is in byte i / 8 under the mask 0x80 >> (i % 8), so bit 0 is the most
 *  significant bit of the first byte.
 *  Threads: any; callers serialise access to a buffer. Works before tarn_init() as well. Nothing
 *  blocks but tarn_uuid_str_gen() and the printing, which read and write descriptors. */
#ifndef TARN_UTIL_H
#define TARN_UTIL_H

#include "tarn.h"

TARN_BEGIN_DECLS

/** Encode bytes as Base64: standard alphabet with '+' and '/', padded with '=', no line breaks.
 *  @param data     len bytes; may be null when len is 0
 *  @param out_len  receives the length of the text; may be null
 *  @return a new text of 4 characters per 3 bytes begun. */
TARN_API char *tarn_base64_encode(const void *data, size_t len, size_t *out_len);

/** Decode Base64. Nothing is rejected: '=' and every byte that is not of the alphabet, line breaks
 *  included, stand for six zero bits, and a last group that is not whole is filled up with them.
 *  @param text          input_length characters; a NUL is not needed and does not end it
 *  @param input_length  at least 2
 *  @param out_len       receives the number of bytes; may be null
 *  @return a new buffer with a NUL behind the last byte; null for a null or too short text. Its
 *          length is 3 bytes per 4 characters begun, less one if the last character is '=' and less
 *          one more if the last but one is '='. */
TARN_API uint8_t *tarn_base64_decode(const char *text, size_t input_length, size_t *out_len);

/** Percent-encode a text: letters, digits, '-', '_', '.' and '~' stay, a space becomes '+', every
 *  other byte '%' and two lower-case hex digits.
 *  @return a new text; null for null. */
TARN_API char *tarn_url_encode(const char *str);

/** Undo percent-encoding: '%' and two characters become the byte that they spell, '+' a space. A
 *  character that is no hex digit counts as 0; a '%' with fewer than two characters behind it is
 *  dropped. "%00" ends the text for whoever reads it as one.
 *  @return a new text; null for null. */
TARN_API char *tarn_url_decode(const char *str);

/** Cut a URL at its first '?' and take the query apart.
 *  @param url         the whole URL, not decoded
 *  @param query_out   receives a new copy of all that follows the '?'; may be null
 *  @param params_out  receives a new array name, value, name, value, ..., null: the decoded
 *                     parameters between the '&' of the query, each cut at its first '='; each
 *                     name and each value is a new text, never null; may be null
 *  @return a new copy of the URL up to the '?'; null for null.
 *  Without a '?' both outputs are left as they are; if any parameter lacks a '=', params_out is.
 *  The caller frees the result, the query, each name and value, and the array. */
TARN_API char *tarn_url_parse(const char *url, char **query_out, char ***params_out);

/** A new random UUID from the kernel, as 36 characters.
 *  @return a text that stays valid until the same thread calls again or ends, never null;
 *          "00000000-0000-0000-0000-000000000000" when the kernel gave none (ERROR). */
TARN_API const char *tarn_uuid_str_gen(void);

/* Byte order. In place; each returns the number of units handled: all, or 0 for null. */

/** Reverse the order of n bytes. */
TARN_API size_t tarn_util_reverse_bytes(void *buf, size_t n);

/** Swap the two bytes of each of count 16-bit words. */
TARN_API size_t tarn_util_swap16(void *buf, size_t count);

/** Reverse the four bytes of each of count 32-bit words. */
TARN_API size_t tarn_util_swap32(void *buf, size_t count);

/** Reverse the eight bytes of each of count 64-bit words. */
TARN_API size_t tarn_util_swap64(void *buf, size_t count);

/** Exchange the two 16-bit halves of each of count 32-bit words. */
TARN_API size_t tarn_util_swap_halves(void *buf, size_t count);

/** Reverse the order of count 16-bit words; the bytes of each keep their order. */
TARN_API size_t tarn_util_reverse_words(void *buf, size_t count);

/* Bit arrays. len is the size of the buffer in bytes; what lies behind it is never written. */

/** Set bit_count bits from bit_offset to 1.
 *  @return true; false for null. */
TARN_API bool tarn_bit_set_ones(void *buf, size_t len, uint64_t bit_offset, uint64_t bit_count);

/** Set bit_count bits from bit_offset to 1 when value is not 0, else to 0.
 *  @return true; false for null. */
TARN_API bool tarn_bit_fill(void *buf, size_t len, uint64_t bit_offset, uint64_t bit_count,
                            int value);

/** Copy bit_count bits. The ranges may overlap; the bits round the destination stay. Only bytes
 *  that hold a bit of a range are touched.
 *  @return true; false for null. */
TARN_API bool tarn_bit_copy(void *dst, uint64_t dst_bit, const void *src, uint64_t src_bit,
                            uint64_t bit_count);

/** Move all bits of a buffer n positions toward bit 0.
 *  @param n     any number: with 0 or 1 as fill, from the size of the array on every bit becomes
 *               fill; a rotation goes round as often as it takes
 *  @param fill  what the last n bits become: 0, 1 or, for any other value, the n bits that were
 *               shifted out at the front (a rotation)
 *  @return true; false for null, or when memory for a rotation ran out: nothing was moved then. */
TARN_API bool tarn_bit_shift_left(void *buf, size_t len, uint64_t n, int fill);

/** The mirror image: bits move n positions toward the end, the first n become fill. */
TARN_API bool tarn_bit_shift_right(void *buf, size_t len, uint64_t n, int fill);

/** Print bits as 0 and 1, through a duplicate of a descriptor.
 *  @param fd       stays open
 *  @param group    a space follows every group bits, the last one as well; 0: none
 *  @param newline  end with a line feed
 *  @return true when all was written; false for null, when fd cannot be duplicated (ERROR) or does
 *          not take it. */
TARN_API bool tarn_bit_print(int fd, const void *buf, uint64_t bit_offset, uint64_t bit_count,
                             uint32_t group, bool newline);

/** Print "[TITLE] len = LEN" and then, line by line, each byte as its index, its value in hex and
 *  its bits, through a duplicate of a descriptor.
 *  @param title  null counts as empty
 *  @param len    above INT_MAX the first INT_MAX bytes are printed
 *  @return as tarn_bit_print(). */
TARN_API bool tarn_bit_print_detail(int fd, const char *title, const void *buf, size_t len);

TARN_END_DECLS

#endif
