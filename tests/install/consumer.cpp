// A user's program in C++17: what an installed libtarn must let it build, link and do, through the
// C headers and through tarn.hpp.

#include "tarn.hpp"

#include <cstdio>
#include <string_view>

namespace
{

// A loop thread sets an event that this thread waits for.
bool event_arrives_from_thread()
{
    const tarn::event event = tarn::event::auto_reset();
    const tarn::thread thread = tarn::thread::start(10, "ring", [&event] { event.set(); });
    return thread && event.wait(10000);
}

// The same through the C interface.
bool event_arrives_from_c_thread()
{
    const tarn::event event(tarn_event_create(false, false));
    const auto ring = [](void *arg, void *) -> void * {
        tarn_event_set(static_cast<TARN_EVENT>(arg));
        return nullptr;
    };
    const tarn::thread thread(tarn_thread_start(ring, event.get(), nullptr, 10, "ring"));
    return thread && event.wait(10000);
}

} // namespace

int main()
{
    const tarn::layer layer;
    if (std::string_view(tarn_version()) != TARN_VERSION_STRING || !layer)
    {
        return 1;
    }
    const bool arrived = event_arrives_from_thread() && event_arrives_from_c_thread();
    std::printf("C++ consumer, library %s: %s\n", tarn_version(), arrived ? "ok" : "no event");
    return arrived ? 0 : 1;
}
