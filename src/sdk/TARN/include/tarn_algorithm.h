/** @file
 *  Checksums and small algorithms.
 *
 *  Sizes in bytes. Buffers need no alignment and are borrowed for the call.
 *  Threads: any. Nothing blocks. */
#ifndef TARN_ALGORITHM_H
#define TARN_ALGORITHM_H

#include "tarn.h"

TARN_BEGIN_DECLS

/** CRC-16/MODBUS: reflected polynomial 0xA001, initial value 0xFFFF, no final XOR.
 *  @param data  may be null when len is 0
 *  @return the value, 0x4B37 for the digits "123456789"; on the wire its low byte goes first. */
TARN_API uint16_t tarn_algorithm_crc16(const void *data, uint16_t len);

/** Internet checksum (RFC 1071) over 16-bit words in host order.
 *  @param data  may be null when len is 0
 *  @return the checksum in the low 16 bits, to be stored in host order; the high bits are set.
 *  The words are summed in 32 bits: above 128 KiB carries may be lost, and with them the RFC's
 *  value. */
TARN_API uint32_t tarn_algorithm_checksum(const void *data, size_t len);

/** Greatest common divisor; when either value is 0, the other one. */
TARN_API uint64_t tarn_algorithm_gcd(uint64_t a, uint64_t b);

/** What tarn_algorithm_for_each_pair() calls. The items are borrowed for the call.
 *  @return above 0: the rest of the second list is left out; above 1: the walk ends. */
typedef int (*tarn_algorithm_pair_proc)(void *a, void *b, const char *item1, const char *item2,
                                        void *ctx);

/** Call fn for every pair of items of two lists, the first list in the outer loop.
 *  The items of a list stand between any number of commas, semicolons, vertical bars and spaces;
 *  there are no empty items. The lists are copied first, so fn may change or free them. Once the
 *  calling thread has been asked to stop, fn is not called again.
 *  @param a,b,ctx  handed through
 *  @param list1    null: fn is called once, with the two lists as given
 *  @param list2    null: fn is called once per item of list1, with null as the second item
 *  @return what the last call of fn returned; 0 when there was none; negative when fn is null or
 *          memory ran out. */
TARN_API int tarn_algorithm_for_each_pair(void *a, void *b, const char *list1, const char *list2,
                                          tarn_algorithm_pair_proc fn, void *ctx);

TARN_END_DECLS

#endif
