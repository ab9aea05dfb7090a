#!/usr/bin/env python3
"""A reader and writer of RPC message bytes that shares no code with the library.

    rpc_msg.py HEX    one line per element, then the message that these lines make, as HEX again

An element's line is its type, its id and its value: a number, the count of children of a begin
marker, or hexadecimal bytes for strings and bytes16.
"""
import struct
import sys

NAMES = {
    0: "null", 1: "object_begin", 2: "object_end", 3: "array_begin", 4: "array_end", 10: "handle",
    11: "bool", 20: "int8", 21: "int16", 22: "int32", 23: "int64", 30: "uint8", 31: "uint16",
    32: "uint32", 33: "uint64", 40: "float", 41: "double", 50: "bytes16", 60: "string",
}
CODES = {name: code for code, name in NAMES.items()}
NUMBERS = {1: "I", 3: "I", 10: "Q", 11: "B", 20: "b", 21: "h", 22: "i", 23: "q", 30: "B", 31: "H",
           32: "I", 33: "Q", 40: "f", 41: "d"}


def decode(data):
    while data:
        code, number = struct.unpack_from(">BH", data)
        data, value = data[3:], ""
        if code in NUMBERS:
            size = struct.calcsize(">" + NUMBERS[code])
            value = "%s" % struct.unpack(">" + NUMBERS[code], data[:size])
        elif code == 50:
            size = 16
            value = data[:size][::-1].hex()
        elif code == 60:
            size = 4 + struct.unpack_from(">I", data)[0] + 1
            value = data[4:size - 1].hex()
            assert data[size - 1] == 0, "a string ends with a 0 byte"
        else:
            size = 0
        data = data[size:]
        yield f"{NAMES[code]} {number} {value}".rstrip()


def encode(line):
    name, number, value = (line + " ").split(" ", 2)
    code, value = CODES[name], value.strip()
    if code in NUMBERS:
        body = struct.pack(">" + NUMBERS[code], float(value) if "." in value else int(value))
    elif code == 50:
        body = bytes.fromhex(value)[::-1]
    elif code == 60:
        body = struct.pack(">I", len(value) // 2) + bytes.fromhex(value) + b"\0"
    else:
        body = b""
    return struct.pack(">BH", code, int(number)) + body


lines = list(decode(bytes.fromhex(sys.argv[1])))
print("\n".join(lines))
print(b"".join(map(encode, lines)).hex())
