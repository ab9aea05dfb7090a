// Private: a seam in the allocator; for tarn_mem.cpp and the tests.
#ifndef TARN_MEM_INTERNAL_H
#define TARN_MEM_INTERNAL_H

#include <atomic>
#include <cstddef>

namespace tarn
{

/** Asked before every allocation and growth while it is set; true makes that one fail. */
extern std::atomic<bool (*)(size_t size)> mem_fail_hook;

} // namespace tarn

#endif
