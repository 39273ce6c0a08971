"""The slave drivers with panel registers made up by the test: every function, every refusal, frames that are none."""
import contextlib
import ctypes
import os
import pathlib
import random
import socket
import struct
import time

import pytest
from plc_driver import PANEL_ACCESS, Driver, Line, adu, with_crc
from voqtest import free_port

UNUSABLE = 30000
EXCHANGES = [(bytes.fromhex(request), bytes.fromhex(answer)) for request, answer in (
    # Requests and their answers, function code first, in order.
    ("05 0003 ff00", "05 0003 ff00"),
    ("0f 0005 000a 02 8102", "0f 0005 000a"),
    ("01 0002 000d", "01 02 0a14"),  # 3, 5, 12, 14
    ("02 000e 0001", "02 01 01"),
    ("05 0003 0000", "05 0003 0000"),
    ("02 0003 0001", "02 01 00"),
    ("06 7fff 1234", "06 7fff 1234"),
    ("10 8000 0002 04 01020304", "10 8000 0002"),
    ("03 7ffe 0002", "03 04 00001234"),
    ("03 8000 0002", "03 04 01020304"),
    ("04 2710 0001", "04 02 abcd"),
    ("01 ffff 0002", "81 02"),
    ("03 7fff 0002", "83 02"),
    ("04 270f 0002", "84 02"),
    ("04 4e20 0001", "84 02"),
    ("01 0000 0000", "81 03"),
    ("01 0000 07d1", "81 03"),
    ("03 0000 007e", "83 03"),
    ("05 0003 1234", "85 03"),
    ("03 7530 0001", "83 04"),
    ("10 7530 0001 02 0000", "90 04"),
    ("2b 0e0100", "ab 01"),
)]


def waited_for_others():
    """Seconds that this thread has waited for a processor that others had."""
    return int(pathlib.Path("/proc/thread-self/schedstat").read_text().split()[1]) / 1e9


class Slave:
    """A slave driver, and the panel's files as it sees them."""

    def __init__(self, name, **settings):
        self.panel, self.random = {kind: bytearray(1 << 17) for kind in (b"LB", b"LW", b"RW", b"SRW")}, random.Random(1)
        self.panel[b"SRW"][20000:20002] = b"\xcd\xab"
        self.callbacks = PANEL_ACCESS(self.read), PANEL_ACCESS(self.write)
        pointers = (ctypes.cast(each, ctypes.c_void_p) for each in self.callbacks)
        self.oper = (ctypes.c_void_p * 3)(None, *pointers)
        self.driver = Driver(name, mode=1, **settings)
        self.driver.info.slave_no = 17

    def read(self, kind, addr, width, buffer, _):
        size = 1 if kind == b"LB" else 2
        if addr != UNUSABLE:
            ctypes.memmove(buffer, bytes(self.panel[kind][addr * size: (addr + width) * size]), width * size)
        return 3 if addr == UNUSABLE else 1

    def write(self, kind, addr, width, buffer, _):
        size = 1 if kind == b"LB" else 2
        if addr != UNUSABLE:
            self.panel[kind][addr * size: (addr + width) * size] = ctypes.string_at(buffer, width * size)
        return 3 if addr == UNUSABLE else 1

    def turn(self, turns=1):
        """The result of so many turns, the last one's; none of them holds the service up."""
        longest, others = 0, waited_for_others()
        for _ in range(turns):
            began = time.monotonic()
            result = self.driver.loop(self.oper)
            longest = max(longest, time.monotonic() - began)
        assert longest < 0.15 or longest - (waited_for_others() - others) < 0.15
        return result

    def noise(self, longest):
        """Noise, and requests with wrong lengths and counts behind the function code."""
        raw = self.random.randbytes(1 + self.random.randrange(longest))
        raw = bytes(17 if self.random.random() < 0.3 else byte for byte in raw)
        return raw if self.random.random() < 0.5 else bytes([self.random.randrange(24)]) + raw[1:]


def test_rtu_slave_serves_refuses_and_outlasts_noise():
    line = Line()
    slave = Slave("modbus_rtu_slave", address=115200)
    words = slave.panel[b"LW"]

    def ask(raw):
        line.send(raw)
        slave.turn(3)
        return line.receive(0)

    assert slave.turn() == 0
    for request, answer in EXCHANGES:
        assert ask(with_crc(b"\x11" + request)) == with_crc(b"\x11" + answer), request.hex()
    assert ask(with_crc(b"\0\6\0\x09\0\7")) == b"" and words[18:20] == b"\7\0"  # a broadcast
    assert ask(with_crc(b"\0\3\0\x09\0\1")) == b""

    request, answer = with_crc(b"\x11\3\0\x09\0\1"), with_crc(b"\x11\3\2\0\7")
    assert ask(request[:5] + bytes([request[5] ^ 1]) + request[6:]) == b""
    other, other_answer = with_crc(b"\x12\3\0\x09\0\1"), with_crc(b"\x12\3\4\x11\3\0\0")
    assert ask(other) == b""  # a dead station's: the next request is no answer of its
    assert ask(request) == answer
    assert ask(other + other_answer + request) == answer  # all in one turn

    def in_two_parts():
        line.send(request[:5])
        slave.turn()
        return ask(request[5:])

    assert any(in_two_parts() == answer for _ in range(20))  # a machine that stalls for long gives a part up
    assert ask(request + b"\1") == b""
    for n in range(60):
        line.send(with_crc(b"\x11" + slave.noise(250)) if n % 2 else slave.noise(700))
        assert slave.turn() == 0
    time.sleep(0.06)
    slave.turn()
    line.receive(0)
    words[18:20] = b"\7\0"
    slave.driver.info.slave_no = 18
    assert (ask(request), ask(other)) == (b"", with_crc(b"\x12\3\2\0\7"))
    slave.driver.info.slave_no = 0
    assert ask(with_crc(b"\0\6\0\x09\0\x08")) == b"" and words[18:20] == b"\7\0"
    began = time.monotonic()
    slave.turn()
    assert time.monotonic() - began >= 0.015  # an idle turn does not spin
    line, slave.driver.info.slave_no, slave.driver.info.address = Line(), 18, 57600  # another line, as its settings are
    assert slave.turn() == 0 and ask(other) == with_crc(b"\x12\3\2\0\7")
    os.close(line.fd)  # it is pulled out
    assert [slave.turn() for _ in range(2)] == [3, 3]
    assert [slave.driver.on_slot(command) for command in ("Init", "Fly", "Destroy", "Destroy")] == [0, 3, 0, 0]


class TcpSlave(Slave):
    """A slave that listens at 127.0.0.1, and its masters."""

    def __init__(self):
        self.port, self.masters = free_port(), []
        super().__init__("modbus_tcp_slave", link=2, address=0x7F000001, para=struct.pack("<H", self.port))
        assert self.turn() == 0

    def connect(self, place="127.0.0.1"):
        self.masters.append(socket.create_connection((place, self.port)))
        self.turn()
        return self.masters[-1]

    def ask(self, master, raw):
        """What comes back, None for a connection that is closed."""
        try:
            master.sendall(raw)
            self.turn(2)
            return master.recv(1000, socket.MSG_DONTWAIT) or None
        except BlockingIOError:
            return b""
        except OSError:
            return None


@pytest.fixture
def slave():
    slave = TcpSlave()
    yield slave
    slave.driver.on_slot("Destroy")
    for master in slave.masters:
        master.close()


REQUEST, ANSWER = adu(b"\xff\4" + b"\x27\x10\0\1"), adu(b"\xff\4\2\xab\xcd")


def test_tcp_slave_listens_at_its_address_only(slave, capfd):
    def at(address, result):
        slave.driver.info.address = address
        assert slave.turn() == result

    at(0x7F000002, 0)
    with pytest.raises(ConnectionRefusedError):
        slave.connect("127.0.0.1")
    master = slave.connect("127.0.0.2")
    assert slave.ask(master, REQUEST) == ANSWER
    for foreign in (0xCB007105, 0xE0000001, 0x00000105):  # of nobody, of a group, of no network
        at(foreign, 3)
    assert slave.ask(master, REQUEST) is None
    ctypes.CDLL(None).fflush(None)
    notice = (f"*MODBUS*203.0.113.5:{slave.port} cannot listen, give the port an address of this machine or 0: "
              "Cannot assign requested address (0 more since the last message)\r\n")
    assert notice in capfd.readouterr().out
    slave.driver.info.port = slave.port = free_port()
    at(0, 0)
    assert slave.ask(slave.connect(), adu(b"\0" + REQUEST[7:])) == adu(b"\0" + ANSWER[7:])
    assert [slave.ask(slave.connect(place), REQUEST) for place in ("127.0.0.1", "127.0.0.2")] == [ANSWER] * 2


def test_a_flood_of_connections_leaves_the_masters_that_ask(slave):
    asking = [slave.connect() for _ in range(7)]
    assert [slave.ask(master, REQUEST) for master in asking] == [ANSWER] * 7
    flood = [slave.connect() for _ in range(20)]
    assert [slave.ask(master, REQUEST) for master in asking[::-1]] == [ANSWER] * 7
    assert slave.ask(flood[-1], REQUEST[:9]) == b""
    slave.connect()
    assert slave.ask(flood[-1], REQUEST[9:]) is None  # half a request is none
    assert slave.ask(slave.masters[-1], REQUEST) == ANSWER  # now all have asked
    slave.connect()
    assert [slave.ask(master, REQUEST) for master in asking] == [ANSWER] * 6 + [None]


def test_tcp_slave_refuses_and_lets_no_master_hold_up_another(slave):
    connect, ask, request, answer = slave.connect, slave.ask, REQUEST, ANSWER
    eight = [connect() for _ in range(8)]
    assert [ask(master, request + request) for master in eight[1:]] == [answer + answer] * 7
    ninth = connect()
    assert ask(eight[0], b"") is None  # the silent one made room
    assert ask(eight[1], request[:9]) == b""
    assert ask(ninth, adu(b"\x12\4\x27\x10\0\1")) == adu(b"\x12\x84\x0b")
    assert ask(eight[1], request[9:]) == answer
    for refused, said in ((b"\4\x27\x10\0", b"\x84\3"), (b"\x10\0\0\0\2\4\1\2", b"\x90\3"),
                          (b"\x10\0\0\0\1\4\1\2", b"\x90\3")):
        assert ask(ninth, adu(b"\x11" + refused)) == adu(b"\x11" + said)
    for none in (b"\0\1\0\1\0\6\1\3", b"\0\1\0\0\0\1\1", b"\0\1\0\0\1\0\1\3"):
        assert ask(connect(), none) is None

    deaf = socket.socket()  # asks on and on and takes no answer
    deaf.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    deaf.connect(("127.0.0.1", slave.port))
    slave.turn()
    with pytest.raises(ConnectionError):
        for _ in range(500):
            with contextlib.suppress(BlockingIOError):
                deaf.send(adu(b"\x11\3\0\0\0\x7d") * 100, socket.MSG_DONTWAIT)
            slave.turn(100)
    for n in range(300):
        noise = slave.noise(250)
        connect().send(adu(b"\x11" + noise) if n % 2 else noise)
    assert ask(connect(), request) == answer
