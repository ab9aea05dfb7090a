// Typed values as they stand on the command line and in the output, for RPC elements and the
// arguments of local calls alike.
#pragma once

#include "command.h"
#include "output.h"

namespace tarnctl
{

enum class value_kind
{
    null,
    boolean,
    signed_integer,
    unsigned_integer,
    real32,
    real64,
    bytes, ///< as many as the type has
    text,
    pair,  ///< 8 bytes and 4, and 4 of no meaning
    block, ///< what has children; not a value
};

/** One row of a table of types. */
struct value_type
{
    const char *name;
    uint8_t code; ///< in the library's table
    value_kind kind;
    uint8_t size; ///< bytes; 0: any
};

/** The row of a name or code; null when there is none. */
const value_type *find_type(std::span<const value_type> types, std::string_view name);
const value_type *find_type(std::span<const value_type> types, uint8_t code);
/** Names for messages: "null, bool, ... or string". */
std::string type_names(std::span<const value_type> types);

/** What the type takes, for messages. */
std::string takes(const value_type &type);

/** Reads a value. "0x" makes a hexadecimal number.
 *  @param bytes  out: in host order
 *  @return false when the text is no value of that type */
[[nodiscard]] bool read_value(const value_type &type, std::string_view text, std::string *bytes);

/** Reads pairs of hex digits. */
[[nodiscard]] bool read_hex(std::string_view text, std::string *bytes);
[[nodiscard]] bool read_unsigned(std::string_view text, uint64_t *out);

/** A value, from bytes in host order that may come from anywhere. */
std::string value_text(const value_type &type, std::string_view bytes);
/** Its members in an object that is open: "value", or "hex" for bytes that are no text. */
void add_value(json &into, const value_type &type, std::string_view bytes);

} // namespace tarnctl
