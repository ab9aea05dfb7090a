/** @file
 *  Typed data values: one value of one of fifteen types, alone or in a list, converted to and from
 *  the plain C types and shipped between processes as bytes that describe themselves.
 *
 *  A value owns its string or pair. A list is owned through its first value, its head: destroying a
 *  value destroys every value behind it too. Values of a list are reached with
 *  tarn_data_get_next(); only the head is destroyed, or appended to. A value's type never changes,
 *  but a null value takes the type of what is copied into it.
 *  Strings are bytes with a length, in bytes: they may hold NULs and need not end with one. A
 *  string that was set from text has its NUL counted in its length. Where a string is read as text,
 *  it ends at its first NUL or at its length.
 *  A handle or an output that is null is a failure, and logged at DEBUG, unless said otherwise.
 *  Outputs are written on success only.
 *  Nothing blocks. Threads: any, but one at a time per list. */
#ifndef TARN_DATA_H
#define TARN_DATA_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_data *TARN_DATA;

/** Types. The numbers are those of the byte form, where 0 ends a list. */
enum
{
    TARN_DATA_TYPE_NULL = 1,
    TARN_DATA_TYPE_BOOLEAN = 2, /**< uint8_t, 0 or 1 */
    TARN_DATA_TYPE_UINT8 = 3,
    TARN_DATA_TYPE_UINT16 = 4,
    TARN_DATA_TYPE_UINT32 = 5,
    TARN_DATA_TYPE_UINT64 = 6,
    TARN_DATA_TYPE_INT8 = 7,
    TARN_DATA_TYPE_INT16 = 8,
    TARN_DATA_TYPE_INT32 = 9,
    TARN_DATA_TYPE_INT64 = 10,
    TARN_DATA_TYPE_FLOAT = 11,
    TARN_DATA_TYPE_DOUBLE = 12,
    TARN_DATA_TYPE_POINTER = 13, /**< uint64_t, whatever the size of the host's pointers */
    TARN_DATA_TYPE_PAIR = 14,    /**< tarn_data_pair */
    TARN_DATA_TYPE_STRING = 15   /**< bytes with a uint32_t length */
};

/** What a TARN_DATA_TYPE_PAIR holds: 16 bytes, the last four of no meaning. */
typedef struct tarn_data_pair
{
    uint64_t major_part;
    uint32_t minor_part;
} tarn_data_pair;

/* ---- creation and raw access ------------------------------------------------------------------ */

/** Create a value by itself.
 *  @param type    a TARN_DATA_TYPE_*
 *  @param param1  the raw value, copied: 1, 2, 4 or 8 bytes (8 for a pointer), a tarn_data_pair, or
 *                 a string's bytes; not used for a null value
 *  @param param2  a string's length, at least 1; not used for other types
 *  @return the value, destroyed with tarn_data_destroy(); TARN_INVALID_HANDLE for another type, a
 *          string without length (not logged) and when memory ran out. */
TARN_API TARN_DATA tarn_data_alloc(uint8_t type, const void *param1, const uint32_t *param2);

/** Destroy a value and every value behind it in its list; null is ignored. */
TARN_API void tarn_data_destroy(TARN_DATA data);

/** Set the raw value; param1 and param2 as in tarn_data_alloc(), param1 may lie in the value's own
 *  string.
 *  @return false for a string without length and when memory ran out; a string then has its new
 *          length but no buffer. */
TARN_API bool tarn_data_set_value(TARN_DATA data, const void *param1, const uint32_t *param2);

/** Get the raw value.
 *  @param param1  out: as many bytes as in tarn_data_alloc(); not touched for a null value. Null
 *                 asks for the length of a string
 *  @param param2  in: room at param1, out: the string's length; not used for other types
 *  @return false when the room is too small, or the value has no pair or buffer. */
TARN_API bool tarn_data_get_value(TARN_DATA data, void *param1, uint32_t *param2);

/** A string's length in bytes; 0 for another type (logged). */
TARN_API uint32_t tarn_data_get_str_len(TARN_DATA data);

/** A string's own bytes, valid until the value is set or destroyed; null for a string without any
 *  and for another type (logged). */
TARN_API char *tarn_data_get_str_buffer(TARN_DATA data);

/** A TARN_DATA_TYPE_*; 0 for null. */
TARN_API uint8_t tarn_data_get_type(TARN_DATA data);

/** Copy a value, not its list. A pair that dst has already stays as it is, deliberately.
 *  @param dst  a null value, which takes the type of src, or a value of the same type
 *  @return false for values of different types, when src has no pair or buffer, or when memory ran
 *          out: a dst that was a string then has no buffer, any other is as it was. */
TARN_API bool tarn_data_copy(TARN_DATA dst, TARN_DATA src);

/** New value with a copy of one value, by itself; TARN_INVALID_HANDLE on failure. */
TARN_API TARN_DATA tarn_data_dup(TARN_DATA data);

/** New list with copies of a value and all behind it; TARN_INVALID_HANDLE on failure. */
TARN_API TARN_DATA tarn_data_dup_list(TARN_DATA head);

/* ---- lists ------------------------------------------------------------------------------------ */

/** Append a value, or the list that it heads, which is then owned by the head of this list. Takes
 *  the same time for a list of any length.
 *  @param data_handle       a head, or a value by itself
 *  @param tail_data_handle  the same, of another list
 *  @return false, and nothing changed, when either is further down a list, or both are the same
 *          (not logged for the second). */
TARN_API bool tarn_data_add_tail(TARN_DATA data_handle, TARN_DATA tail_data_handle);

/** Detach the first value of a list; both parts are the caller's.
 *  @param old_head  a head; a value by itself again afterwards
 *  @return the new head; null when the list had one value, and when old_head is further down a
 *          list, which then is as it was. */
TARN_API TARN_DATA tarn_data_remove_head(TARN_DATA old_head);

/** Number of values of a list; counted from a value further down, those from it to the end. */
TARN_API uint32_t tarn_data_count(TARN_DATA data);

/** The value behind this one, owned by its list; null for the last, and for null. */
TARN_API TARN_DATA tarn_data_get_next(TARN_DATA data);

/** The value n places behind this one (0: itself), owned by its list; null when the list ends
 *  before, and for null. */
TARN_API TARN_DATA tarn_data_get_at(TARN_DATA data, uint32_t n);

/* ---- conversions ------------------------------------------------------------------------------
 *
 * Getters give the value as another type, setters put a value of another type into it; the type of
 * the value stays. What cannot be converted is a failure and changes nothing.
 *
 * integers  are cut to the narrower type's low bits and extended to the wider one's as their own
 *           sign says
 * float and double to an integer: towards zero. Setting from a double rounds, half away from zero
 *           (0.5 is added, or taken off, and the rest cut); setting from a float does not.
 *           Through 64 bits: a number beyond -2^63 .. 2^63 - 1 (2^64 - 1 for uint64) gives the
 *           nearest of these limits and NaN gives 0, cut to the narrower type like any other
 * boolean   anything but zero is true, NaN is true; a boolean itself keeps its byte
 * null      gets 0, and "nil"; cannot be set
 * pointer   gets as the low 32 bits, signed; set from uint64 and int64 it takes their low 32 bits,
 *           signed; from float and double cut to 32 bits signed, never rounded (beyond: the nearest
 *           limit, NaN: 0)
 * pair      gets as its major part, as boolean whether there is one; cannot be set
 * string    to boolean: "true" or "false" in any case, nothing else. To an integer: a decimal,
 *           0x hexadecimal or 0 octal number at the start of the text, of which 32 bits are taken;
 *           uint64 and int64 get them without sign, int64 is set with the sign, and uint64 alone is
 *           set with 64 bits. A number beyond -2^63 .. 2^64 - 1 counts as the nearest of these
 *           limits. To float and double: a number of the C library at the start of the text, in its
 *           first 511 characters behind white space, of single precision; only setting a double
 *           takes double precision. To pointer: a hexadecimal number, or "(nil)"
 * as text   true or false, %u, %d, %f, %p, MAJOR,MINOR; uint64 and int64 their low 32 bits and the
 *           letter l (5l), double %f and the letter l; at most 99 characters, cut there
 *
 * A string without buffer makes every getter fail. */

TARN_API bool tarn_data_get_as_boolean(TARN_DATA data, uint8_t *value);
TARN_API bool tarn_data_get_as_uint8(TARN_DATA data, uint8_t *value);
TARN_API bool tarn_data_get_as_uint16(TARN_DATA data, uint16_t *value);
TARN_API bool tarn_data_get_as_uint32(TARN_DATA data, uint32_t *value);
TARN_API bool tarn_data_get_as_uint64(TARN_DATA data, uint64_t *value);
TARN_API bool tarn_data_get_as_int8(TARN_DATA data, int8_t *value);
TARN_API bool tarn_data_get_as_int16(TARN_DATA data, int16_t *value);
TARN_API bool tarn_data_get_as_int32(TARN_DATA data, int32_t *value);
TARN_API bool tarn_data_get_as_int64(TARN_DATA data, int64_t *value);
TARN_API bool tarn_data_get_as_float(TARN_DATA data, float *value);
TARN_API bool tarn_data_get_as_double(TARN_DATA data, double *value);

/** Get the value as text of at most 99 characters; a longer string is cut.
 *  @param buffer  out: the text, its NUL, and NULs for the rest of the room
 *  @param len     in: room in the buffer, out: length of the text with its NUL
 *  @return false, len unchanged, when the room is too small or there is no text. */
TARN_API bool tarn_data_get_as_string(TARN_DATA data, char *buffer, int32_t *len);

/* Into a string, these write the text as a getter gives it, in a buffer of its size; when memory
 * ran out the string is left with the new length but no buffer. */
TARN_API bool tarn_data_set_as_boolean(TARN_DATA data, uint8_t value);
TARN_API bool tarn_data_set_as_uint8(TARN_DATA data, uint8_t value);
TARN_API bool tarn_data_set_as_uint16(TARN_DATA data, uint16_t value);
TARN_API bool tarn_data_set_as_uint32(TARN_DATA data, uint32_t value);
TARN_API bool tarn_data_set_as_uint64(TARN_DATA data, uint64_t value);
TARN_API bool tarn_data_set_as_int8(TARN_DATA data, int8_t value);
TARN_API bool tarn_data_set_as_int16(TARN_DATA data, int16_t value);
TARN_API bool tarn_data_set_as_int32(TARN_DATA data, int32_t value);
TARN_API bool tarn_data_set_as_int64(TARN_DATA data, int64_t value);
TARN_API bool tarn_data_set_as_float(TARN_DATA data, float value);
TARN_API bool tarn_data_set_as_double(TARN_DATA data, double value);

/** Set the value from text.
 *  A string keeps its length, deliberately: the text is cut to it, without NUL then, or filled up
 *  with NULs. For a longer string create a new value.
 *  @param value  may be the value's own buffer
 *  @return false when the text is no value of that type; when memory ran out, a string then has no
 *          buffer. */
TARN_API bool tarn_data_set_as_string(TARN_DATA data, const char *value);

/* ---- byte form ---------------------------------------------------------------------------------
 *
 * Per value its type, one byte, and: nothing for null; 1, 2, 4 or 8 bytes for the plain types,
 * float and double as their IEEE bits; the low 32 bits of a pointer, which does not survive the
 * trip; 8 + 4 bytes for a pair; for a string its length in 4 bytes and its bytes. All numbers are
 * big-endian. The values of a list follow each other; a zero byte, or the end, ends it. */

/** Write a value and all behind it in its list. No zero byte is written behind them.
 *  @param buf      out: undefined when the call fails
 *  @param buf_len  room at buf, at least 1
 *  @return bytes written; 0 when they do not fit or a string or pair lacks its bytes. */
TARN_API uint32_t tarn_data_write_to_buf(TARN_DATA data_handle, void *buf, uint32_t buf_len);

/** Read values from bytes of any origin. What is malformed is logged at ERROR and gives no list at
 *  all. The list takes at most 64 times the memory of the bytes it was read from.
 *  @param buf      borrowed for the call
 *  @param buf_len  at least 1
 *  @param used     out: bytes read without the zero byte; may be null. Written (0) also when there
 *                  is no value before the zero byte
 *  @return the head of a new list; TARN_INVALID_HANDLE when there is no value, one is malformed or
 *          memory ran out. */
TARN_API TARN_DATA tarn_data_alloc_from_buf(const void *buf, uint32_t buf_len, uint32_t *used);

TARN_END_DECLS

#endif
