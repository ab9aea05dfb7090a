/** @file
 *  RPC messages: a buffer of typed, numbered elements, built by a sender and walked by a receiver.
 *
 *  A message is a flat sequence of elements. Each has a type, an id that the two sides agree on (1
 *  to 65535, several elements may share one) and a value. Objects and arrays are a begin and an end
 *  marker with their children in between; a walk steps through them, not over them, and a lookup
 *  by id finds an element at any depth.
 *  Nothing of a message is trusted when it is read: an element that is cut off by the end of the
 *  data is still met by the walk, as its last element, but its value cannot be taken.
 *
 *  Bytes of an element: type (1), id (2), value; every number big-endian. A begin marker's value is
 *  its count of children (4), a string's its length (4), its bytes and one 0 byte.
 *
 *  Lengths and offsets in bytes. Results are 0, or negative as stated per function; outputs are
 *  written on success only. A null handle is a failure, and logged at DEBUG.
 *  Ownership: a message is counted. Who creates one or takes a reference gives it back with
 *  tarn_rpc_msg_release(); the last one frees it. An open iterator holds a reference of its own.
 *  tarn_close_handle() does nothing to messages and iterators.
 *  Threads: the count may be changed by any thread at any time; building and reading one message is
 *  for one thread at a time (several may read one that nobody builds any more, each with an
 *  iterator of its own). Nothing blocks. */
#ifndef TARN_RPC_MSG_H
#define TARN_RPC_MSG_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_rpc_msg *TARN_RPC_MSG;
typedef struct tarn_rpc_msg_iter *TARN_RPC_MSG_ITER;

/** The id that no element has. */
#define TARN_RPC_INVALID_ELEM_ID 0

/** Element types. Any other code is an element without a value. */
enum
{
    MSG_ELM_TYPE_NULL = 0, /**< no value */
    MSG_ELM_TYPE_OBJECT_BEGIN = 1,
    MSG_ELM_TYPE_OBJECT_END = 2,
    MSG_ELM_TYPE_ARRAY_BEGIN = 3, /**< children of one type */
    MSG_ELM_TYPE_ARRAY_END = 4,
    MSG_ELM_TYPE_HANDLE = 10, /**< uint64_t, a token of the size of a pointer */
    MSG_ELM_TYPE_BOOL = 11,   /**< uint8_t, 0 or 1; a peer may send any byte: read no bool */
    MSG_ELM_TYPE_INT8 = 20,
    MSG_ELM_TYPE_INT16 = 21,
    MSG_ELM_TYPE_INT32 = 22,
    MSG_ELM_TYPE_INT64 = 23,
    MSG_ELM_TYPE_UINT8 = 30,
    MSG_ELM_TYPE_UINT16 = 31,
    MSG_ELM_TYPE_UINT32 = 32,
    MSG_ELM_TYPE_UINT64 = 33,
    MSG_ELM_TYPE_FLOAT = 40,
    MSG_ELM_TYPE_DOUBLE = 41,
    MSG_ELM_TYPE_BYTES16 = 50, /**< 16 bytes, turned round as one 128-bit number on the wire */
    MSG_ELM_TYPE_STRING = 60   /**< text, or any bytes */
};

/* ---- creation and lifetime -------------------------------------------------------------------- */

/** Create an empty message with one reference and room for 65,536 bytes.
 *  @return the message, given back with tarn_rpc_msg_release(); TARN_INVALID_HANDLE when memory ran
 *          out. */
TARN_API TARN_RPC_MSG tarn_rpc_msg_create(void);

/** Take one more reference.
 *  @return the new count; negative for null. */
TARN_API int32_t tarn_rpc_msg_add_ref(TARN_RPC_MSG msg_h);

/** Give a reference back; the last one frees the message, whether its objects are closed or not.
 *  @return the new count, 0 when the message is gone; negative for null. */
TARN_API int32_t tarn_rpc_msg_release(TARN_RPC_MSG msg_h);

/* ---- accessors -------------------------------------------------------------------------------- */

/** The element bytes, tarn_rpc_msg_data_len() of them; valid until the next write or the last
 *  release. Null for null. */
TARN_API const uint8_t *tarn_rpc_msg_data(TARN_RPC_MSG msg_h);

/** Count of element bytes; 0 for null. */
TARN_API uint32_t tarn_rpc_msg_data_len(TARN_RPC_MSG msg_h);

/** The millisecond tick (tarn_tick_ms()) that was kept with the message; the layer itself leaves it
 *  0, which is no tick. 0 for null. */
TARN_API uint32_t tarn_rpc_msg_time_stamp(TARN_RPC_MSG msg_h);

/** Keep a millisecond tick with the message. */
TARN_API void tarn_rpc_msg_set_time_stamp(TARN_RPC_MSG msg_h, uint32_t tick_ms);

/** Milliseconds since the time stamp, over a wrap-around of the tick too; of no meaning when none
 *  was set. 0 for null. */
TARN_API uint32_t tarn_rpc_msg_elapsed_ms(TARN_RPC_MSG msg_h);

/** The value that was attached to the message, 0 at first; 0 for null. */
TARN_API uint64_t tarn_rpc_msg_user_value(TARN_RPC_MSG msg_h);

/** Attach a value to the message; the layer never looks at it. */
TARN_API void tarn_rpc_msg_set_user_value(TARN_RPC_MSG msg_h, uint64_t value);

/** Sequence number and message id of the frame that carried a received message, 0 in others and for
 *  null. Both pass the number through a network-to-host conversion although it is in host order
 *  already, and that is kept: on a little-endian host its bytes come reversed. Take the numbers
 *  from the arguments of the callback that received the message. */
TARN_API uint32_t tarn_rpc_msg_seq_no(TARN_RPC_MSG msg_h);
TARN_API uint32_t tarn_rpc_msg_id(TARN_RPC_MSG msg_h);

/* ---- writing ---------------------------------------------------------------------------------- */

/* All of these append. A refused element leaves the message as it was. The buffer grows in steps of
 * 64 KiB, to 4 GiB less one step; a write that does not fit, or for which memory runs out, gives
 * -1. A received message can be written to as well. */

/** Append an element with a value.
 *  @param elm_id     1 to 65535
 *  @param elm_type   any type but the four markers
 *  @param value      in; the value in host order, of any alignment, not inside this message's own
 *                    data; null allowed for types without a value
 *  @param value_len  the size of the value; 0 stands for the size of the type, for a string for the
 *                    length of the NUL-terminated text at value
 *  @return 0; -1 for a marker type, a length that is not the type's, a type that differs from those
 *          of the children before it in an array, a missing value; -2 for id 0. */
TARN_API int tarn_rpc_msg_write_element_value(TARN_RPC_MSG msg_h, uint16_t elm_id, uint8_t elm_type,
                                              const void *value, uint32_t value_len);

/** Begin an object; elements that are written until its end are its children, of any type. Up to
 *  four objects and arrays can be open at a time without a further allocation; there is no limit.
 *  @return 0; -1 for id 0 and in an array whose children are not objects. */
TARN_API int tarn_rpc_msg_write_object_begin(TARN_RPC_MSG msg_h, uint16_t elm_id);

/** End the object that was begun last, and store its count of children: those of a nested object
 *  are not counted, the nested object is. Sent without its end, it counts 0 children.
 *  @return 0; -1 when the innermost open one is not an object. */
TARN_API int tarn_rpc_msg_write_object_end(TARN_RPC_MSG msg_h);

/** Begin an array: as an object, but its first child fixes the type of all.
 *  @return 0; -1 for id 0 and in an array whose children are not arrays. */
TARN_API int tarn_rpc_msg_write_array_begin(TARN_RPC_MSG msg_h, uint16_t elm_id);

/** End the array that was begun last.
 *  @return 0; -1 when the innermost open one is not an array. */
TARN_API int tarn_rpc_msg_write_array_end(TARN_RPC_MSG msg_h);

/* ---- reading with an iterator ----------------------------------------------------------------- */

/** Open an iterator at the first element (at the end, when there is none).
 *  @param it  out; closed by the tarn_rpc_msg_read_next() that reaches the end, or with
 *             tarn_rpc_msg_read_end()
 *  @return 0; -1 when memory ran out or an argument is null. */
TARN_API int tarn_rpc_msg_read_begin(TARN_RPC_MSG msg_h, TARN_RPC_MSG_ITER *it);

/** Go on to the next element; at the end, close the iterator.
 *  @param itor  in/out; set to null when the end is reached
 *  @return 0 at an element; negative when the end is reached, for null, and for an iterator that is
 *          at the end already (an empty message, or after tarn_rpc_msg_next_element()): that one
 *          stays open. */
TARN_API int tarn_rpc_msg_read_next(TARN_RPC_MSG_ITER *itor);

/** Close an iterator before its end; sets it to null. Null, and a pointer to null, is ignored. */
TARN_API void tarn_rpc_msg_read_end(TARN_RPC_MSG_ITER *itor);

/** Go on to the next element, never closing.
 *  @return 0 at an element; -2 when the end is reached; -1 when it was there already. */
TARN_API int tarn_rpc_msg_next_element(TARN_RPC_MSG_ITER it);

/** Id of the current element; TARN_RPC_INVALID_ELEM_ID at the end and where it is cut off. */
TARN_API uint16_t tarn_rpc_msg_element_id(TARN_RPC_MSG_ITER it);

/** Type of the current element, any byte; MSG_ELM_TYPE_NULL at the end. */
TARN_API uint8_t tarn_rpc_msg_element_type(TARN_RPC_MSG_ITER it);

/** Count of children that a begin marker tells (a peer may tell any number); 0 for any other
 *  element, at the end and where it is cut off. */
TARN_API uint32_t tarn_rpc_msg_element_child_count(TARN_RPC_MSG_ITER it);

/** Find the current element's value where it stands, in wire order.
 *  @param elm_value      out; into the message's data: valid as tarn_rpc_msg_data(). A string has
 *                        a 0 byte behind it when its writer kept to the format: go by the length.
 *                        The byte behind a received message's data is 0
 *  @param elm_value_len  out; its size, without a string's 0 byte
 *  @return 0; -1 for a marker, for a value that is cut off and at the end; -2 for null elm_value;
 *          -3 for null elm_value_len. */
TARN_API int tarn_rpc_msg_element_value_ptr(TARN_RPC_MSG_ITER it, const void **elm_value,
                                            uint32_t *elm_value_len);

/** Copy the current element's value, in host order; no 0 byte is added to a string.
 *  @param elm_value      out; of any alignment
 *  @param elm_value_len  in/out; size of the buffer, then size of the value
 *  @return 0; -1 for a marker, for a value that is cut off and at the end; -2 for null elm_value
 *          and for a buffer that is too small; -3 for null elm_value_len. */
TARN_API int tarn_rpc_msg_element_value(TARN_RPC_MSG_ITER it, void *elm_value,
                                        uint32_t *elm_value_len);

/* ---- reading by id ---------------------------------------------------------------------------- */

/** Copy the value of the first element with this id, as tarn_rpc_msg_element_value().
 *  @param elm_type   the type that it must have
 *  @param buffer     out; buffer_len bytes
 *  @param value_len  out; size of the value; may be null
 *  @return 0; -1880 for a null message; -1884 when there is none (or for id 0); -1891 when it is of
 *          another type; -1902 when its value cannot be taken. */
TARN_API int tarn_rpc_msg_read_element(TARN_RPC_MSG msg_h, uint16_t elm_id, uint8_t elm_type,
                                       void *buffer, uint32_t buffer_len, uint32_t *value_len);

/** Find the value of the first element with this id, as tarn_rpc_msg_element_value_ptr().
 *  @param len  out; size of the value; may be null
 *  @return 0; -1933 for a null message; -1937 when there is none (or for id 0); -1944 when it is of
 *          another type; -1960 when its value cannot be taken. */
TARN_API int tarn_rpc_msg_get_element_ptr(TARN_RPC_MSG msg_h, uint16_t elm_id, uint8_t elm_type,
                                          const void **ptr, uint32_t *len);

TARN_END_DECLS

#endif
