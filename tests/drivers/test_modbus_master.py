"""The Modbus masters against stations that lie: what goes over the wire, and that no wrong answer is believed."""
import re
import socket
import struct
import subprocess
import sys
import time

import pytest
from plc_driver import Driver, Line, RtuStations, TcpStations, honest, with_crc
from voqtest import Key, free_port, libc, wait_for

TIMEOUT_MS = 250  # of a request; honest answers take less even on a busy machine


def words(*numbers):
    return struct.pack(f">{len(numbers)}H", *numbers)


def holding(n, count=1, unit=1, **key):
    return Key(n, count, regid=4, plcno=unit, **key)


@pytest.fixture
def said(capfd):
    """said() is what the driver printed since the last call."""
    def since():
        libc.fflush(None)
        return capfd.readouterr().out
    return since


@pytest.fixture
def tcp():
    server = TcpStations()
    driver = Driver("modbus_tcp", link=2, address=0x7F000001)
    driver.info.port, driver.info.timeout_ms = server.port, TIMEOUT_MS
    yield driver, server
    assert [driver.on_slot(command) for command in ("Init", "Fly", "Destroy", "Destroy")] == [0, 3, 0, 0]
    server.close()


def test_ranges_become_requests_of_the_protocols_size(tcp):
    driver, server = tcp
    byte_addresses = holding(2000, 300, 17, layout=0x02)  # register 1000
    assert driver.read(byte_addresses) == (0, words(*range(1000, 1300)))
    assert server.take_requests() == [bytes([17, 3]) + words(*part) for part in ((1000, 125), (1125, 125), (1250, 50))]
    double = Key(0, 63, regid=3, plcno=0, layout=0x24)  # two registers an element: never torn
    assert driver.read(double) == (0, words(*range(126)))
    assert server.take_requests() == [b"\0\4" + words(0, 124), b"\0\4" + words(124, 2)]
    assert driver.read(Key(3, 2001, regid=1, layout=0)) == (0, bytes(n % 3 == 0 for n in range(3, 2004)))
    assert server.take_requests() == [b"\1\2" + words(3, 2000), b"\1\2" + words(2003, 1)]

    coil = dict(regid=0, layout=0)
    for key, value in ((holding(65533, 3), b"\1\2\3\4\5\6"), (holding(9), b"\x12\x34"), (Key(2, 3, **coil), b"\1\0\7"),
                       (Key(2, 1, **coil), b"\1"), (holding(0, 124), bytes(248)), (Key(0, 1969, **coil), bytes(1969))):
        assert driver.write(key, value) == 0
    assert server.take_requests() == [
        b"\1\x10" + words(65533, 3) + b"\6\1\2\3\4\5\6", b"\1\6" + words(9, 0x1234), b"\1\x0f" + words(2, 3) + b"\1\5",
        b"\1\5" + words(2, 0xFF00), b"\1\x10" + words(0, 123) + b"\xf6" + bytes(246), b"\1\6" + words(123, 0),
        b"\1\x0f" + words(0, 1968) + b"\xf6" + bytes(246), b"\1\5" + words(1968, 0)]
    assert server.connections == 1

    refuse = lambda peer, raw: peer.send(raw[:2] + b"\0\0\0\3\1\x83\2")
    server.lies += [lambda peer, raw: peer.send(raw[:5] + b"\xfd" + honest(raw[6:])), refuse]
    assert driver.read(holding(0, 300)) == 5
    assert len(server.take_requests()) == 2  # stops at the first failure


def test_what_modbus_cannot_say_is_refused_unsent_and_named_once(tcp, said):
    driver, server = tcp
    keys = ((Key(0, regid=0), 2), (Key(0, regid=0x104), 2), (holding(0, 2, layout=0x11), 2),
            (holding(1, layout=0x02), 2), (holding(65535, 2), 4), (Key(65535, 2, regid=0, layout=0), 2),
            (holding(0, layout=0), 1), (holding(0x80000000), 2), (holding(0, 2), 2), (holding(0, 0), 0),
            (holding(0, layout=0x2F), 0), (holding(0, unit=250), 2),
            (holding(0xFFFFFFFF, 65535, layout=0xF8), 524280))
    for key, size in 2 * keys:
        assert driver.read(key, size) == 5, key
    assert driver.write(Key(0, regid=1, layout=0), b"\1") == 5
    assert driver.write(Key(0, regid=3), b"\1\2") == 5
    named = said()
    assert named.count("cannot serve") == len(keys) + 2 and named.count(" area 260 layout 0x22 address 0 count 1: reg") == 1
    assert [driver.read(Key(n, regid=9)) for n in range(100)] == 100 * [5]
    assert said().count("\n") < 70  # no project fills the log
    driver.info.address = 0
    assert driver.read(holding(5)) == 3
    assert server.connections == 0


WRONG, RIGHT = b"\0\0\0\5\1\3\2\xde\xad", b"\0\0\0\5\1\3\2\0\x64"
LIES = {  # what is sent for register 100, the result, whether the connection is given up, what is said of it
    "late": (lambda s, n: (time.sleep(0.4), s.send(n + WRONG)), 2, False, "no answer in time"),
    "trickling": (lambda s, n: all(s.send(bytes([b])) and not time.sleep(0.04) for b in n + WRONG), 2, True, "the answer did not end"),
    "exception": (lambda s, n: s.send(n + b"\0\0\0\3\1\x83\2"), 5, False, "exception 2, Illegal data address"),
    "other exception": (lambda s, n: s.send(n + b"\0\0\0\3\1\x83\4"), 3, False, "exception 4, "),
    "refused value": (lambda s, n: s.send(n + b"\0\0\0\3\1\x83\3"), 5, False, "exception 3, "),
    "wrong number": (lambda s, n: s.send(bytes([n[0], n[1] ^ 1]) + WRONG), 3, True, "answer with a wrong transaction number"),
    "wrong unit": (lambda s, n: s.send(n + WRONG[:4] + b"\2" + WRONG[5:]), 3, True, "answer of station 2"),
    "wrong function": (lambda s, n: s.send(n + WRONG[:5] + b"\4" + WRONG[6:]), 3, True, "answer to another"),
    "too few values": (lambda s, n: s.send(n + b"\0\0\0\3\1\3\0"), 3, True, "answer to another"),
    "too many values": (lambda s, n: s.send(n + b"\0\0\0\7\1\3\4\1\2\3\4"), 3, True, "answer to another"),
    "garbage": (lambda s, n: s.send(b"\xff" * 300), 3, True, "not Modbus"),
    "cut off": (lambda s, n: s.send(n + WRONG[:-1]) and False, 3, True, "connection failed"),
    "closed": (lambda s, n: False, 3, True, "connection failed, Connection reset"),
    "twice": (lambda s, n: s.send(n + RIGHT + n + WRONG), 0, True, ""),
    "closed after": (lambda s, n: s.send(n + RIGHT) and False, 0, True, ""),
}


@pytest.mark.parametrize("name", LIES)
def test_no_tcp_lie_is_believed(tcp, said, name):
    """A lie costs the call that it answers, with the right result in time, and never the next one."""
    driver, server = tcp
    lie, result, reconnects, message = LIES[name]
    assert driver.read(holding(1)) == (0, words(1))
    server.lies.append(lambda peer, raw: lie(peer, raw[:2]))
    began = time.monotonic()
    assert driver.read(holding(100)) == (result or (0, words(100)))
    assert time.monotonic() - began < (TIMEOUT_MS + 200) / 1000
    assert (f"station 1 function 3 address 100 count 1: {message}" if message else "") in said()
    time.sleep(0 if result else 0.02)
    assert driver.read(holding(200)) == (0, words(200))
    assert server.connections == 1 + reconnects
    assert name != "late" or re.search(r"station 1 is slow: function 3 address 100 count 1 answered after 4\d\d ms", said())


def test_single_writes_of_a_station_that_knows_only_many(tcp, said):
    driver, server = tcp
    unknown = lambda peer, raw: peer.send(raw[:4] + bytes([0, 3, raw[6], raw[7] | 0x80, 1]))
    for key, value, one, many in ((holding(9), b"\x12\x34", b"\6" + words(9, 0x1234), b"\x10" + words(9, 1) + b"\2\x12\x34"),
                                  (Key(2, regid=0, layout=0), b"\7", b"\5" + words(2, 0xFF00), b"\x0f" + words(2, 1) + b"\1\1")):
        server.lies.append(unknown)
        assert [driver.write(key, value) for _ in range(2)] == [0, 0]
        assert server.take_requests() == [b"\1" + one, b"\1" + many, b"\1" + many]
    server.lies += 2 * [unknown]
    assert driver.write(holding(9), b"\0\0") == 3  # knows neither
    assert len(server.take_requests()) == 2 and "single writes go with function 16" in said()


def test_a_plc_of_others(tcp, said):
    """A hole in the middle of a read, a slow unit and one that is missing, at a server that is not ours."""
    driver, _ = tcp
    driver.info.port = port = free_port()
    plc = subprocess.Popen([sys.executable, "/co/tests/drivers/foreign_plc.py", str(port)])
    try:
        wait_for(lambda: driver.read(holding(0, 7)) == (0, words(*range(7))), "the server")
        assert driver.read(holding(5, 10)) == 5 and driver.read(holding(7)) == 5 and driver.write(holding(7), b"\0\0") == 5
        assert driver.read(holding(8, 12)) == (0, words(*range(8, 20)))
        said()
        assert driver.read(holding(3, unit=2)) == 2 and driver.read(holding(4)) == (0, words(4))
        assert re.search(r"station 2 is slow: function 3 address 3 count 1 answered after [4-9]\d\d ms, time-out 250", said())
        assert [driver.read(holding(3, unit=3)) for _ in range(4)] == 4 * [2]
        assert "station 3 lost" in said()  # silent, or with exception 11
        assert driver.read(holding(8)) == (0, words(8))
    finally:
        plc.kill()
        plc.wait()


def test_connects_in_bounded_time_and_follows_the_parameters(tcp):
    driver, server = tcp
    assert driver.read(holding(1)) == (0, words(1))
    server.lies += 2 * [lambda peer, raw: True]  # not a word: the second time the connection may be the cause
    assert [driver.read(holding(1)) for _ in range(3)] == [2, 2, (0, words(1))] and server.connections == 2
    other = TcpStations()
    driver.info.port = other.port  # no new Init
    assert driver.read(holding(2)) == (0, words(2)) and len(other.requests) == 1
    other.close()
    assert [driver.read(holding(3)) for _ in range(2)] == [3, 3]  # the connection it had, a refused one
    other = TcpStations(other.port)
    assert driver.read(holding(4)) == (0, words(4))
    other.close()

    # A listener whose queue is full takes no notice of a caller.
    with socket.create_server(("127.0.0.1", 0), backlog=0) as full, socket.socket() as one, socket.socket() as two:
        for filler in (one, two):
            filler.setblocking(False)
            filler.connect_ex(full.getsockname())
        time.sleep(0.02)
        driver.info.port = full.getsockname()[1]
        began = time.monotonic()
        assert driver.read(holding(5)) == 2
        assert time.monotonic() - began < (TIMEOUT_MS + 200) / 1000


@pytest.fixture
def rtu():
    stations = RtuStations(Line())
    driver = Driver("modbus_rtu", address=115200)
    driver.info.timeout_ms = 200
    yield driver, stations
    stations.close()
    driver.on_slot("Destroy")


PLACE, TRUE = 0x1234, (0, words(0x1234, 0x1235))
LYING = b"\3\3\4\xde\xad\xbe\xef"


def test_no_rtu_lie_is_believed(rtu, said):
    driver, stations = rtu
    assert driver.write(holding(0, 100, 2), b"\r" * 200) == 0  # no byte means anything to the line
    for unit in (0, 248):  # no answer to a broadcast
        assert driver.read(holding(PLACE, 2, unit)) == 5
    assert stations.requests == 1
    spoilt = with_crc(LYING)[:-1] + bytes([with_crc(LYING)[-1] ^ 1])
    twice = with_crc(b"\3\3\4" + TRUE[1]) + with_crc(LYING)
    said()
    for lie, result in ((spoilt, 3), (with_crc(b"\4" + LYING[1:]), 3), (with_crc(b"\3\3\2\xde\xad"), 3),
                        (b"\xff" * 300, 3), (with_crc(b"\3\x83\2"), 5), (with_crc(b"\3\x83\x0b"), 2), (LYING[:4], 2),
                        (twice, TRUE), (b"", 2), *((with_crc(bytes([4, n, 255, 1, 0, 2])), 3) for n in (0, 3, 5, 6, 15, 16))):
        stations.lie = lie
        assert driver.read(holding(PLACE, 2, 3)) == result, lie
        assert driver.read(holding(PLACE, 2, 3)) == TRUE, lie
    printed = said()
    for reason in ("not Modbus", "answer of station 4", "answer to another", "exception 2, ", "did not end", "no answer"):
        assert len(re.findall(f"station 3 function 3 address 4660 count 2: .*{reason}", printed)) == 1, reason
    # A late answer fits the next request; that one's own answer gives it away.
    stations.late, stations.lie = 0.3, with_crc(LYING)
    said()
    assert [driver.read(holding(PLACE, 2, 3)) for _ in range(3)] == [2, 3, TRUE]
    slow = "station %d is slow: function 3 address 4660 count 2 answered after 3"
    assert slow % 3 in said()
    stations.late = 0.3  # into the time of another station, which does not suffer
    assert [driver.read(holding(PLACE, 2, unit)) for unit in (5, 2)] == [2, TRUE]
    assert slow % 5 in said()


def test_the_lines_speed_is_followed(rtu):
    driver, stations = rtu
    lines = (12345, 0, 1, 3), (9600, 3, 1, 3), (9600, 0, 3, 3), (9600, 1, 2, TRUE)
    for driver.info.address, driver.info.parity, driver.info.stop_bits, result in lines:
        assert driver.read(holding(PLACE, 2)) == result
    driver.info.address, driver.info.timeout_ms = 1200, 100  # the line's own time is no time-out
    assert driver.read(holding(PLACE, 2)) == TRUE
    stations.dead.add(2)
    began = time.monotonic()
    assert driver.read(holding(0, 100, 2)) == 2
    assert time.monotonic() - began >= (100 + 1700) / 1000
