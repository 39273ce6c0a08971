"""A driver library with one instance, called as the service calls it, and the far ends of its lines."""
import contextlib
import ctypes
import os
import select
import socket
import struct
import threading
import time
import tty
from ctypes import c_char_p, c_int, c_int32, c_uint16, c_uint32, c_void_p

import voqtest

PANEL_ACCESS = ctypes.CFUNCTYPE(c_int, c_char_p, c_uint32, c_uint16, c_void_p, c_int)


class Request(ctypes.Structure):
    _fields_ = [("key", c_void_p), ("length", c_int32), ("data", c_void_p)]


class Info(ctypes.LittleEndianStructure):
    """The fields of the communication parameters that tests change; the record begins as com_info() makes it."""
    _fields_ = [("head", ctypes.c_uint8 * 15), ("parity", ctypes.c_uint8), ("address", c_uint32),
                ("stop_bits", ctypes.c_uint8), ("mode", ctypes.c_uint8), ("port", c_uint16), ("timeout_ms", c_uint16),
                ("para", ctypes.c_uint8 * 10), ("slave_no", c_uint16), ("rest", ctypes.c_uint8 * 22)]


class Driver:
    def __init__(self, name, **settings):
        self.entry = ctypes.CDLL(str(voqtest.BUILD / f"drivers/{name}.so")).PlcDrvCmd
        self.entry.argtypes = c_char_p, c_void_p, c_void_p
        self.info = Info.from_buffer_copy(voqtest.com_info(**settings))
        self.instance = c_void_p()
        self.on_slot("Init")

    def call(self, command, target, *arguments):
        pointers = (c_void_p * 3)(*map(ctypes.addressof, arguments))
        return self.entry(command.encode(), target, pointers)

    def on_slot(self, command):
        return self.call(command, ctypes.addressof(self.instance), self.info)

    def loop(self, user_oper):
        return self.call("Loop", self.instance, self.info, user_oper)

    def _access(self, command, key, buffer):
        packed = ctypes.create_string_buffer(key.pack())
        request = Request(ctypes.addressof(packed), len(buffer), ctypes.addressof(buffer))
        return self.call(command, self.instance, request, self.info)

    def read(self, key, size=None):
        """The result, and the value when it is a success."""
        size = key.size if size is None else size
        buffer = ctypes.create_string_buffer(b"\xAA" * size, size)
        result = self._access("RdOne", key, buffer)
        return (result, buffer.raw) if result == 0 else result

    def write(self, key, value):
        return self._access("WrOne", key, ctypes.create_string_buffer(value, len(value)))


def honest(request):
    """The answer of a station to unit and PDU: register n reads as n, bit n is set when 3 divides n."""
    function, first, count = struct.unpack_from(">xBHH", request)
    if function > 4:
        return request[:6]
    if function > 2:
        values = struct.pack(f">{count}H", *range(first, first + count))
    else:
        values = sum(1 << i for i in range(count) if (first + i) % 3 == 0).to_bytes((count + 7) // 8, "little")
    return request[:2] + bytes([len(values)]) + values


class TcpStations:
    """A server that answers honestly unless told to lie: the next request is handed to lie(socket, its bytes), and the
    connection is closed unless that returns true."""

    def __init__(self, port=0):
        self.listener = socket.create_server(("127.0.0.1", port))
        self.port = self.listener.getsockname()[1]
        self.lies, self.requests, self.connections, self.sockets = [], [], 0, []
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                self.sockets.append(self.listener.accept()[0])
                self.connections += 1
                threading.Thread(target=self._serve, args=(self.sockets[-1],), daemon=True).start()

    def _serve(self, peer):
        with contextlib.suppress(OSError), peer:
            while len(head := peer.recv(6, socket.MSG_WAITALL)) == 6:
                request = peer.recv(int.from_bytes(head[4:], "big"), socket.MSG_WAITALL)
                self.requests.append(request)
                lie = self.lies.pop(0) if self.lies else lambda s, raw: s.send(adu(honest(request), raw[:2]))
                if not lie(peer, head + request):
                    break

    def take_requests(self):
        requests, self.requests = self.requests, []
        return requests

    def close(self):
        for each in (self.listener, *self.sockets):
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
            each.close()


def adu(body, number=b"\x55\xAA"):
    return number + struct.pack(">HH", 0, len(body)) + body


def with_crc(frame):
    crc = 0xFFFF
    for byte in frame:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0xA001 if crc & 1 else 0)
    return frame + struct.pack("<H", crc)


class Line:
    """The far end of a serial line; the driver finds the near one as port 1."""

    def __init__(self):
        self.fd, near = os.openpty()
        tty.setraw(near)
        os.environ["VOQ_SERIAL_1"] = os.ttyname(near)
        os.close(near)

    def send(self, raw):
        assert os.write(self.fd, raw) == len(raw)

    def receive(self, silent_ms):
        """What arrives until the line has been silent for so long."""
        raw = b""
        with contextlib.suppress(OSError):
            while select.select([self.fd], [], [], silent_ms / 1000)[0]:
                raw += os.read(self.fd, 512)
        return raw


class RtuStations:
    """Stations on a line, honest but for those in `dead` and for the answer in `lie`, which may also come late."""

    def __init__(self, line):
        self.line, self.requests, self.dead, self.lie, self.late, self.ended = line, 0, set(), None, 0, False
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while not self.ended:
            request = self.line.receive(3)
            if len(request) >= 8:
                self.requests += 1
                if with_crc(request[:-2]) == request and request[0] not in self.dead:
                    answer = with_crc(honest(request[:-2])) if self.lie is None else self.lie
                    time.sleep(self.late)
                    self.lie, self.late = None, 0
                    self.line.send(answer)

    def close(self):
        self.ended = True
        self.thread.join()
