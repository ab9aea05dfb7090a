"""A peer that shares no code with the library: connects over TCP or to an abstract local socket,
sends requests and checks the replies. Prints "ok" when all was as it should be."""
import socket
import struct
import sys


def element(elm_id, text):
    return struct.pack(">BHI", 60, elm_id, len(text)) + text + b"\0"


def frame(seq, msg_id, flag, data=b""):
    return b"TrPC" + struct.pack(">IIIII", 16 + len(data), seq, msg_id, len(data), flag) + data


def exactly(sock, size):
    data = b""
    while len(data) < size:
        piece = sock.recv(size - len(data))
        if not piece:
            raise EOFError
        data += piece
    return data


def reply(sock):
    magic = exactly(sock, 4)
    assert magic == b"TrPC", magic
    body = exactly(sock, struct.unpack(">I", exactly(sock, 4))[0])
    seq, msg_id, size, code = struct.unpack(">IIIi", body[:16])
    assert msg_id & 0x80000000, hex(msg_id)
    assert len(body) == 16 + size
    return seq, msg_id & 0x7FFFFFFF, code, body[16:]


def main():
    if len(sys.argv) == 3:
        sock = socket.create_connection((sys.argv[1], int(sys.argv[2])))
    else:
        sock = socket.socket(socket.AF_UNIX)
        sock.connect("\0/tarn/sock/" + sys.argv[1])
    text = "gr\u00fc\u00dfe".encode()
    sock.sendall(frame(5, 1000, 1, element(1, text)))
    assert reply(sock) == (5, 1000, 7, element(1, text))
    sock.sendall(frame(6, 0x7FFFFFFF, 0, element(1, text)))
    assert reply(sock) == (6, 0x7FFFFFFF, 7, b"")
    sock.sendall(b"TrPC" + struct.pack(">I", 0) + frame(7, 1001, 1))
    assert reply(sock) == (7, 1001, 7, b"")
    print("ok")


main()
