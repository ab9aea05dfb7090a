// The gate that every request of a client passes: it counts, and at the end of the daemon it lets no
// more in and waits for those that are inside.
#pragma once

#include "points.h"

#include "tarn_event.h"

#include <atomic>
#include <cstdint>

namespace gatewayd
{

/** What a client is told of a set, as a code of protocol.h. */
int code_of(set_result result);

class work_gate
{
public:
    work_gate() = default;
    work_gate(const work_gate &) = delete;
    work_gate &operator=(const work_gate &) = delete;
    ~work_gate()
    {
        tarn_event_destroy(empty_);
    }

    bool open();
    /** From now on nobody is let in; waits for those inside, and until their answers are out. */
    void close();
    [[nodiscard]] bool is_closed() const
    {
        return closed_;
    }

    /** A way through the gate, for its scope. */
    class pass
    {
    public:
        explicit pass(work_gate &gate) : gate_(gate), inside_(gate.enter()) {}
        pass(const pass &) = delete;
        pass &operator=(const pass &) = delete;
        ~pass()
        {
            gate_.leave();
        }
        /** False: the request is to be refused. */
        [[nodiscard]] bool is_inside() const
        {
            return inside_;
        }

    private:
        work_gate &gate_;
        bool inside_;
    };

    void count_connection(int64_t change)
    {
        connections_ += change;
    }
    [[nodiscard]] uint64_t connections() const
    {
        return static_cast<uint64_t>(connections_.load());
    }
    [[nodiscard]] uint64_t requests() const
    {
        return requests_;
    }
    [[nodiscard]] uint64_t uptime_ms() const;

private:
    bool enter();
    void leave();

    TARN_EVENT empty_ = TARN_INVALID_HANDLE; ///< set by the last to leave a closed gate
    uint64_t start_ns_ = 0;
    std::atomic<bool> closed_{false};
    std::atomic<uint32_t> inside_{0};
    std::atomic<int64_t> connections_{0};
    std::atomic<uint64_t> requests_{0};
};

} // namespace gatewayd
