// RPC messages as text: elements of the command line to a message, a message to a tree.
#pragma once

#include "rpc.h"

namespace tarnctl
{

inline constexpr char element_takes[] =
    "elements as ID:TYPE=VALUE, ID:{ ... } for an object, ID:[ ... ] for an array";

/** Writes the elements of the command line into a message.
 *  @return status_ok, or status_usage after a message */
int write_elements(std::span<const char *const> texts, TARN_RPC_MSG msg);

/** Prints a message as a tree; null has no elements. */
void print_elements(TARN_RPC_MSG msg);

/** Adds the array of a message's elements; null has none. */
void add_elements(class json &into, TARN_RPC_MSG msg);

} // namespace tarnctl
