// Handles of the library that close themselves.
#pragma once

#include "tarn.h"

#include <memory>
#include <type_traits>

namespace tarnctl
{

template <auto Close>
struct closer
{
    template <typename T>
    void operator()(T *handle) const
    {
        (void)Close(handle);
    }
};

/** Owns a handle type such as TARN_RPC; Close is its destroy function. */
template <typename Handle, auto Close>
using owner = std::unique_ptr<std::remove_pointer_t<Handle>, closer<Close>>;

/** Owns memory that the library handed out. */
using text_owner = std::unique_ptr<char, closer<tarn_mem_free>>;

} // namespace tarnctl
