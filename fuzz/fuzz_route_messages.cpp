// Routing messages of the kernel: any bytes as one datagram.

#include "input.h"

#include "tarn_if_internal.h"

#include <span>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::unique_ptr<uint8_t[]> datagram(new uint8_t[size]);
    std::copy(data, data + size, datagram.get());
    size_t routes = 0;
    const auto count = [](const tarn::route_record &, void *context) {
        return ++*static_cast<size_t *>(context) == 1000;
    };
    (void)tarn::read_route_datagram({datagram.get(), size}, 1, 42, count, &routes);
    fuzz::require(routes * 28 <= size); // header and route message of each
    return 0;
}
