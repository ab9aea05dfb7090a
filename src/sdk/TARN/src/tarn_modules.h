// Private: the module table; for tarn.cpp, the modules and the tests.
//
// Each module has a start-up and a teardown function and a fixed place in the order. A start-up
// creates what is not there yet, a teardown accepts a module that never started: the roll-back of
// a failed start-up calls teardowns of modules that did not start and skips some that did.
#ifndef TARN_MODULES_H
#define TARN_MODULES_H

#include <array>
#include <cstddef>

/** Every module in start-up order. */
#define TARN_MODULE_LIST(X)                                                                        \
    X(mem)                                                                                         \
    X(critical_section)                                                                            \
    X(log)                                                                                         \
    X(ringbuf)                                                                                     \
    X(event)                                                                                       \
    X(file)                                                                                        \
    X(dir)                                                                                         \
    X(list)                                                                                        \
    X(shm)                                                                                         \
    X(shmx)                                                                                        \
    X(mutex)                                                                                       \
    X(rwlock)                                                                                      \
    X(semaphore)                                                                                   \
    X(serial)                                                                                      \
    X(socket)                                                                                      \
    X(sys)                                                                                         \
    X(thread)                                                                                      \
    X(thread_pool)                                                                                 \
    X(process)                                                                                     \
    X(timer)                                                                                       \
    X(str)                                                                                         \
    X(data)                                                                                        \
    X(ipc)                                                                                         \
    X(algorithm)                                                                                   \
    X(atomic)                                                                                      \
    X(regex)                                                                                       \
    X(hash)                                                                                        \
    X(mhash)                                                                                       \
    X(dll)                                                                                         \
    X(pipe)                                                                                        \
    X(util)                                                                                        \
    X(conn)                                                                                        \
    X(rpc)                                                                                         \
    X(md5)

extern "C"
{
#define TARN_DECLARE_MODULE(name)                                                                  \
    bool tarn_##name##_init(void);                                                                 \
    void tarn_##name##_uninit(void);
TARN_MODULE_LIST(TARN_DECLARE_MODULE)
#undef TARN_DECLARE_MODULE
}

namespace tarn
{

#define TARN_COUNT_MODULE(name) +1
inline constexpr size_t module_count = 0 TARN_MODULE_LIST(TARN_COUNT_MODULE);
#undef TARN_COUNT_MODULE
static_assert(module_count == 34);

using module_start = bool (*)();
using module_stop = void (*)();

/** The tables that tarn_init() and tarn_uninit() walk: start-up in order, teardown in reverse
 *  order. Writable so that a test can make any start-up fail. */
extern std::array<module_start, module_count> module_start_table;
extern std::array<module_stop, module_count> module_stop_table;

} // namespace tarn

#endif
