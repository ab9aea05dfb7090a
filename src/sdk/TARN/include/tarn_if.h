/** @file
 *  Network interfaces: which are physical, their hardware and IPv4 addresses, netmask and default
 *  gateway.
 *
 *  IPv4 addresses are uint32_t in network byte order; 0 stands for none. Interface names have at
 *  most 15 bytes; any other text is the name of no interface.
 *  Each call asks the system anew, except for the list of physical interfaces: it is built when it
 *  is first asked for and finds something, and stays as it is then.
 *  Threads: any. */
#ifndef TARN_IF_H
#define TARN_IF_H

#include "tarn.h"

TARN_BEGIN_DECLS

/** Hardware address of an Ethernet interface.
 *  @param mac  out: 6 bytes, written on success
 *  @return 1; 0 when there is no such interface or it is of another kind. */
TARN_API int tarn_if_get_hwaddr(const char *if_name, uint8_t *mac);

/** The same for an entry of the sorted list of physical interfaces.
 *  @param index  from 0 */
TARN_API int tarn_if_get_hwaddr_by_index(uint32_t index, uint8_t *mac);

/** IPv4 address of an interface. */
TARN_API uint32_t tarn_if_get_ip(const char *if_name);

/** IPv4 netmask of an interface. */
TARN_API uint32_t tarn_if_get_netmask(const char *if_name);

/** Gateway of an interface's default route. Blocks for a few seconds at most. */
TARN_API uint32_t tarn_if_get_gateway(const char *if_name);

/** Look whether an interface is physical: no line of "ls -l /sys/class/net/" that holds the name
 *  also holds "virtual". Deliberately as coarse as that: a name that is part of another's gets the
 *  other's answer too, and an unknown one counts as physical. Runs a shell for a name of letters,
 *  digits, '_', '.' and '-', never for any other text.
 *  @return 1 physical; 0 virtual, or not to be found out. */
TARN_API int tarn_if_is_physical(const char *if_name);

/** Name of the first physical interface in byte order. Only Ethernet-style names, which begin with
 *  'e', are in the list.
 *  @param if_name  in/out: null or a string of tarn_mem_alloc(), which is freed and replaced by a
 *                  copy on success; the caller frees the copy with tarn_mem_free()
 *  @return 0; TARN_ERRLN when there is none, for null and when memory ran out. */
TARN_API int tarn_if_first_physical_name_get(char **if_name);

/** Index of an interface.
 *  @return 1 or more; 0 when there is none of that name. */
TARN_API uint32_t tarn_if_name_to_index(const char *if_name);

/** Name of an interface.
 *  @param name       out: written and terminated on success
 *  @param name_size  of name, at least 16
 *  @return name; null when there is no interface of that index. */
TARN_API const char *tarn_if_index_to_name(uint32_t index, char *name, size_t name_size);

TARN_END_DECLS

#endif
