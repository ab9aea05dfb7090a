// Private: the parser of routing messages; for linux/tarn_if_route.cpp, its test and its fuzz
// target.
#ifndef TARN_IF_INTERNAL_H
#define TARN_IF_INTERNAL_H

#include <cstdint>
#include <span>

namespace tarn
{

/** One IPv4 route of the main table; 0 where the route does not say. */
struct route_record
{
    uint32_t destination; ///< network order, as all addresses here
    uint32_t preferred_source;
    uint32_t gateway;
    uint32_t if_index; ///< of the interface that it leads out of
};

/** Called for each route.
 *  @return true: enough. */
using route_visitor = bool (*)(const route_record &route, void *context);

enum class route_reading
{
    more,  ///< further datagrams follow
    done,  ///< that was the last one, or the visitor has enough
    broken ///< an error message, or bytes that are no messages
};

/** Read the messages of one datagram of a route dump. Messages of other kinds, families and tables
 *  are passed over.
 *  @param datagram         aligned as its messages are, to 4 bytes
 *  @param sequence,process the dump ends behind a message that has both */
route_reading read_route_datagram(std::span<const unsigned char> datagram, uint32_t sequence,
                                  uint32_t process, route_visitor visit, void *context);

} // namespace tarn

#endif
