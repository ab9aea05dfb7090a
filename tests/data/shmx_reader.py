"""Reads a shared heap from its System V segment, knowing nothing but the layout.

Arguments: name, data zone size, meta zone size, max_user_count, pid of the visitor that has user
id 1, offset of a manual-reset event that is set. Prints what is wrong and exits with 1.
"""
import ctypes
import os
import struct
import sys

name, data_size, meta_size, users, visitor, event = sys.argv[1], *map(int, sys.argv[2:7])
path = "/dev/shm/TARN_SHM_" + name
status = os.stat(path)
total = data_size + meta_size + 16 * (users + 134) + 4096
wrong = []


def check(what, actual, expected):
    if actual != expected:
        wrong.append(f"{what}: {actual} instead of {expected}")


check("file size", status.st_size, total + 1)
libc = ctypes.CDLL(None, use_errno=True)
libc.shmat.restype = ctypes.c_void_p
key = libc.ftok(path.encode(), 82)
segment = libc.shmget(key, ctypes.c_size_t(status.st_size), 0)
address = libc.shmat(segment, None, 0o10000)
if segment < 0 or address in (None, ctypes.c_void_p(-1).value):
    sys.exit("cannot attach")
content = ctypes.string_at(address, total + 8)


def word(at):
    return struct.unpack_from("<I", content, at)[0]


check("object flag", word(0), 0x80106513)
check("object size", word(4), total)
header = 8
check("fourcc", content[header:header + 4], bytes((0x11, 0x52, 0x39, 0x10)))
check("header lock", content[header + 4:header + 16], bytes(12))
check("reserved", content[header + 16:header + 40], bytes(24))
check("user table size", word(header + 40), 16 * (users + 1))
check("meta zone size", word(header + 44), meta_size)
check("data zone size", word(header + 48), data_size)
check("max_user_count", word(header + 52), users)
for i in range(100):
    check(f"slot {i}", content[header + 128 + 20 * i:header + 148 + 20 * i], bytes(20))

table = header + 2128
for i in range(users + 1):
    displacement, low, high, pid = struct.unpack_from("<IIII", content, table + 16 * i)
    check(f"user {i}", (displacement, low & 0x3FFFFFFF, high, pid),
          (0, visitor, 0, visitor) if i == 1 else (0, 0, 0, 0))

meta = table + 16 * (users + 1)
check("meta zone", content[meta:meta + meta_size], b"M" * meta_size)

# Eight blocks of 72 bytes, one of 532, one of 152 for the event, from the first aligned place on.
data = meta + meta_size
first = 64 - (address + data) % 4
blocks = [first + 72 * i for i in range(8)]
large = first + 8 * 72
check("event block", event, large + 532)
check("spare offset", word(header + 124), event + 152)
lists = [word(header + 56 + 4 * i) for i in range(17)]
check("lists", lists, [0, 0, blocks[5]] + [0] * 13 + [large])
freed = 0xFFFFFFFF
chain = {5: blocks[3], 3: blocks[1], 1: 0}
for i, at in enumerate(blocks):
    fields = struct.unpack_from("<IIIIIII", content, data + at)
    check(f"block {i}", fields, (chain.get(i, 0), 72, 40, freed if i in chain else 0, 0, 0, 0))
    check(f"data {i}", content[data + at + 28:data + at + 36], b"pattern\0")
check("large block", struct.unpack_from("<IIII", content, data + large), (0, 532, 500, freed))
check("event header", struct.unpack_from("<IIII", content, data + event), (0, 152, 113, 0))
record = data + event + 28
check("event fourcc", word(record), 0x65130128)
check("event flags", tuple(content[record + 96:record + 98]), (1, 1))
check("event displacement", content[record + 112], 0)

print("\n".join(wrong))
sys.exit(1 if wrong else 0)
