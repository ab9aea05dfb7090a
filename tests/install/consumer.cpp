// A user's program in C++: what an installed libtarn must let it build, link and do.

#include "tarn.h"
#include "tarn_event.h"
#include "tarn_thread.h"

#include <cstdio>
#include <memory>
#include <string_view>

namespace
{

struct closer
{
    void operator()(TARN_EVENT event) const
    {
        TARN_CLOSE_HANDLE(event);
    }
};

// A loop thread sets an event that this thread waits for.
bool event_arrives_from_thread()
{
    const std::unique_ptr<tarn_event, closer> event(tarn_event_create(false, false));
    const auto ring = [](void *arg, void *) -> void * {
        tarn_event_set(static_cast<TARN_EVENT>(arg));
        return nullptr;
    };
    const TARN_THREAD thread = tarn_thread_start(ring, event.get(), nullptr, 10, "ring");
    if (thread == TARN_INVALID_HANDLE)
    {
        return false;
    }
    const bool arrived = tarn_event_wait(event.get(), 10000);
    tarn_thread_stop(thread);
    return arrived;
}

} // namespace

int main()
{
    if (std::string_view(tarn_version()) != TARN_VERSION_STRING || !tarn_init())
    {
        return 1;
    }
    const bool arrived = event_arrives_from_thread();
    tarn_uninit();
    std::printf("C++ consumer, library %s: %s\n", tarn_version(), arrived ? "ok" : "no event");
    return arrived ? 0 : 1;
}
