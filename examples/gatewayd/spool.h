// Where files go that clients send.
#pragma once

#include <cstdint>
#include <string_view>

namespace gatewayd
{

/** The directory of received files, before any server runs; empty: files are refused. Borrowed. */
void set_spool(const char *directory);
bool has_spool();

/** 1 to 255 bytes that name a file in the spool, and nothing outside it: no separators, no "..", no
 *  control characters, no '.' at the beginning. */
bool is_file_name(std::string_view name);

/** Answers the layer's question where to store a file; see tarn_rpc_on_file_recv_begin. */
int choose_destination(const char *file_name, uint32_t file_size, const char **dst_path, void *);

} // namespace gatewayd
