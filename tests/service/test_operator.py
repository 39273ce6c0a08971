"""What an operator and a power cut do to a port: first reads, new line settings, stations off, whatever a start finds."""
import contextlib
import fcntl
import os
import pathlib
import random
import re
import shutil
import struct
import termios

import pytest
from test_polling import reads_of, some_ranges
from voqtest import (PROJECT, RECIPE, USER, WORK, Key, Sim, com_info, gateway, install_driver, log_off, log_on, project,
                     traced, wait_for)

SRB, SRW = pathlib.Path("/tmp/srb0.dat"), pathlib.Path("/disk/hmi/rcp/srw.dat")


def trace(pattern):
    return re.findall(pattern, (WORK / "trace").read_text(), re.M)


def again(what, times=2):
    """The service does it so many times from now on: with what came before, it is through."""
    before = len(trace(f"^{what}$"))
    wait_for(lambda: len(trace(f"^{what}$")) >= before + times, what)


@contextlib.contextmanager
def held(service, path, new=None):
    """Another process's lock on a file, kept until the service waits for it."""
    with open(new or path, "w+b" if new else "r+b", buffering=0) as file:
        fcntl.lockf(file, fcntl.LOCK_EX)
        if new:
            os.rename(new, path)
        waiting = re.compile(rf"-> POSIX +ADVISORY +\w+ +{service.process.pid} ")
        wait_for(lambda: waiting.search(pathlib.Path("/proc/locks").read_text()), f"the service waiting for {path}")
        yield file


@pytest.mark.sanitized
@pytest.mark.parametrize("seed, limit, gap, packing", [(1, 64, 10, 0), (2, 64, 1, 0), (3, 16, 30, 0), (4, 64, 10, 2)])
def test_first_reads(start, seed, limit, gap, packing):
    """Every registered range is read once, in the fewest reads; the station that fails keeps its code, unasked."""
    rng = random.Random(seed)
    keys = some_ranges(rng, 200, limit)
    sim = Sim()
    sim.fail(Sim.ERROR, station=2)
    service = start(com_info(word_limit=limit, bit_limit=limit, word_gap=gap, bit_gap=gap, pause=0, packing=packing), keys,
                    sim=sim)
    keys.sort(key=lambda k: (k.regid, k.place))
    amount = len(keys) if packing else reads_of(keys, limit, gap)
    wait_for(lambda: all(n.state for n in service.chain()), "a read of every range", 60)
    sim.fail(0)
    wait_for(sim.quiet, "the end of the first reads")
    assert len([c for c in sim.calls() if c.command == sim.RDONE]) == amount
    for node in service.chain():
        failed = node.key.plcno == 2
        assert node.state == (3 if failed else 1)
        assert service.value(node.key) == (bytes(node.key.size) if failed else sim.value(node.key)), node


EIGHT, SEVEN, ODD, EVEN, TWO = termios.CS8, termios.CS7, termios.PARENB | termios.PARODD, termios.PARENB, termios.CSTOPB
CHANGES = [  # bytes of the port's slot, its record, the line that the driver makes of it, the mode told to the device
    (12, (19200, 7, 2, 2, 2), (termios.B19200, SEVEN | EVEN | TWO), 2),
    (12, (9600, 9, 1, 2, 5), (termios.B9600, SEVEN | EVEN), 2),             # what is out of range stays as it was
    (12, (100, 6, 3, 3, 3), (termios.B9600, SEVEN | EVEN), 2),
    (12, (0, 8, 2, 0, 1), (termios.B9600, SEVEN | EVEN), None),             # no settings
    (None, (1200, 8, 2, 0, 1), (termios.B9600, SEVEN | EVEN), None),        # no file
    (12, (115200, 8, 0, 1, 1), (termios.B115200, EIGHT | ODD), 1),
    (0, (1200, 8, 2, 0, 2), (termios.B115200, EIGHT | ODD), None),          # the file ends before the slot, or in it
    (11, (1200, 8, 2, 0, 2), (termios.B115200, EIGHT | ODD), None),
    (12, (1200, 0, 1, 0xFFFF, 0), (termios.B1200, EIGHT | ODD), 0),
    (600, (57600, 8, 1, 0, 0xFFFF), (termios.B57600, EIGHT), 0),
]
REQUESTS = {0: (0x40020, 0x40028, 0x40024), 1: (0x4002C, 0x40034, 0x40030)}


@pytest.mark.parametrize("index, port", [(0, 1), (1, 0), (2, 2)])
def test_change_flag(start, index, port):
    """A raised flag: the driver's line and the box's device get what is in range, and the flag is cleared."""
    master, slave = os.openpty()
    SRW.parent.mkdir(parents=True)
    install_driver("Serial", "modbus_rtu", port)
    PROJECT.write_bytes(project([com_info(port=n, para=struct.pack("<HH", 0, 5), pause=2) for n in (1, 0, 2)]))
    (USER / "srw0.dat").write_bytes(bytes(9000))
    service = start(arguments=(PROJECT, 65536 + index, "/d", USER, RECIPE), directory=USER / f"com_{port}",
                    environment=traced() | {f"VOQ_SERIAL_{port}": os.ttyname(slave)})
    service.send(log_on(Key(regid=4), 1))

    def line():
        return [(int(speed), int(rest, 16)) for speed, rest in trace(r"^line (\d+) (\w+)$")][-1:]

    wait_for(lambda: line() == [(termios.B9600, EIGHT)], "the line as the project has it")
    at = 4 * (index + 515)
    system = wait_for(lambda: any((panel := (USER / "srw0.dat").read_bytes())[at: at + 4]) and panel, "the watchdog")
    assert len(system) == 9000 and not any(system[:at] + system[at + 4:])  # of the size that it had
    cleared, told = bytearray(b"\7" * 60), []
    cleared[20 + index] = cleared[20 + port] = 0
    SRB.write_bytes(bytes(20 + index))
    again(f"access {SRB}")  # too short for a flag
    for n, (size, record, expected, mode) in enumerate(CHANGES, 1):
        before = bytes(400 + 100 * port)
        SRW.write_bytes((before + struct.pack("<I4H", *record) + bytes(600))[: len(before) + (size or 0)])
        if size is None:
            SRW.unlink()
        with held(service, SRB) if n % 2 else open(SRB, "r+b", buffering=0) as file:
            file.write(b"\7" * 60)
        wait_for(lambda: SRB.read_bytes() == cleared, "the flag cleared")
        assert service.count(f"*VOQ*Cominfo need change!srb20=7,ftell={21 + index}\r\n") == n
        again("usleep 2000", 3)
        assert line() == [expected], record
        if mode is not None:
            told += ["open 2", *(f"{REQUESTS[port][mode]:x} 0" for _ in range(port < 2)), "closed"]
        assert trace("^misc (.*)$") == told, record
    os.close(master)
    os.close(slave)


def test_stations_switched_off_and_on(start):
    stations = (1, 2, 19, 255)
    service = start(com_info(pause=1, packing=1), [Key(0, 64)], environment=traced())
    service.send(b"".join(log_on(Key(10, 2, plcno=n), n) for n in stations))
    SRW.parent.mkdir(parents=True)

    def switch(off, size=1000):
        words = [sum(1 << n % 16 for n in off if n // 16 == word) for word in range(16)]
        SRW.touch()
        with held(service, SRW) as file:  # another process at work on it
            os.truncate(SRW, 0)
            file.write((bytes(520) + struct.pack("<16H", *words) + bytes(1000))[:size])

    def polled(*wanted):
        assert sorted(service.sim.cycle(len(wanted), lambda c: c.plcno, lambda c: c.addr == 10)) == sorted(wanted)

    polled(*stations)
    for off, size, wanted in (((2, 19), 1000, (1, 255)), ((), 519, (1, 255)), (None, 0, (1, 255)), ((), 522, (1, 2, 255)),
                              ((255,), 1000, (1, 2, 19)), ((), 1000, stations), ((1, 255), 552, (2, 19))):
        if off is None:
            SRW.unlink()
        else:
            switch(off, size)
        again(f"access {SRW}")
        polled(*wanted)

    # The pass that reads what was never read leaves such a station alone as well, and finds it when it is on again.
    ranges = [Key(200, 64, plcno=n) for n in stations]
    service.send(b"".join(log_off(key, 99) for key in ranges))
    wait_for(lambda: all(service.node(key) for key in ranges) and service.node(ranges[2]).state == 1, "first reads")
    assert [service.node(key).state for key in ranges] == [0, 1, 1, 0]
    switch(())
    wait_for(lambda: all(service.node(key).state == 1 for key in ranges), "the rest of the first reads")


def test_slave_mode(start):
    """A number whose file is locked, and empty at first; the watchdog and another process at work in one file."""
    PROJECT.write_bytes(project([com_info(mode=1)]))
    install_driver("Service/Serial")
    service = start(environment=traced())
    for text in ("mekfifo=/u/com_1/mekfifo\nSlaveNoName=/u/com_1/slaveno\n", "drv:/d/Service/Serial/drv_1, "):
        assert text in service.out().decode() and not list((service / "").glob("*fifo"))
    for content, number in ((b"\5\0", 5), (b"\7", 5), (b"\xff\xff", 0xFFFF)):
        with held(service, service / "slaveno", new=service / "new") as file:
            file.write(content)
        wait_for(lambda: not (service / "slaveno").exists(), "the number taken over")
        again("access /u/com_1/slaveno", 3)
        assert service.sim.slave_no == number
    counter = rounds = 0
    while counter < 300:
        with open(USER / "srw0.dat", "r+b", buffering=0) as file:
            fcntl.lockf(file, fcntl.LOCK_EX)
            *ours, low, high = struct.unpack("<12H", os.pread(file.fileno(), 24, 1030 * 2 - 20))
            assert ours == [rounds % 65536] * 10 and counter <= low + (high << 16) < counter + 40
            counter, rounds = low + (high << 16), rounds + 1
            os.pwrite(file.fileno(), struct.pack("<12H", *[rounds % 65536] * 10, low, high), 1030 * 2 - 20)
    assert service.count("PlcDrvThiz:: Init PLC drv thiz=") == 1 and service.sim.reads == 0


REGISTERS = [Key(20, 2), Key(10, 4), Key(5, 3, regid=2)]


def database(folder):
    """Everything of a register database, the stamps aside."""
    files = {p.name: p.read_bytes() for p in folder.iterdir() if re.match("(org|data|index|building|im.*)$", p.name)}
    org = bytearray(files.get("org", b""))
    for o in range(12, len(org), 56):
        org[o + 24: o + 32] = bytes(8)
    return files | {"org": bytes(org)}


def put(folder, files):
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    for name, content in files.items():
        (folder / name).write_bytes(content)


@pytest.mark.parametrize("kind", ["panel", "gateway"])
def test_whatever_a_start_finds(start, kind):
    """All combinations of the files of an earlier run and of a downloaded set."""
    sim = Sim()
    sim.fail(sim.HANG)  # in the first read: the files stay as start-up leaves them
    start(None, REGISTERS, sim=sim).stop()
    fresh = database(USER / "com_1")
    read = {"org": fresh["org"][:48] + b"\1" + fresh["org"][49:]}  # the first record has had a value
    old = fresh | read | {"data": b"\x55" * len(fresh["data"]), "im7_7_7_7": b""}
    new = fresh | read | {"data": b"\x77" * len(fresh["data"]), "im8_8_8_8": b""}
    download = pathlib.Path("/home/Bin/map/com_1")
    gateway(com_info())
    if kind == "panel":
        pathlib.Path("/home/tarn/PortIndex").unlink()
    for left in range(8):
        kept = {name for bit, name in enumerate(("org", "data", "index")) if left >> bit & 1}
        for missing in ("", "org", "data", "index", "org data index", "unreadable"):
            put(USER / "com_1", {n: c for n, c in old.items() if n in kept or n.startswith("im")})
            put(download, {n: c for n, c in new.items() if n not in missing.split()})
            if missing == "unreadable":
                (download / "org").unlink()
                (download / "org").mkdir()
            service = start(sim=sim)
            service.stop()
            copied = kind == "panel" and missing in ("", "unreadable")
            taken = copied and (not missing or "org" in kept)
            built = not taken and "org" not in kept and kind == "panel"
            expected = {n: c for n, c in old.items() if n in kept or n.startswith("im")}
            if copied:
                expected |= {n: c for n, c in new.items() if n != "org" or not missing}
            elif "org" in kept:  # values that were lost are zeros and read again
                expected |= {"index": b""} if "index" not in kept else {}
                expected |= {"org": fresh["org"], "data": fresh["data"]} if "data" not in kept else {}
            if not taken and "org" not in kept:
                expected = fresh if built else {"org": bytes(12), "data": b"", "index": b""}
            case = kind, sorted(kept), missing
            assert database(service / "") == expected, case
            printed = {"*VOQ*download orgfile find,cpy cmd=cp -f /home/Bin/map/com_1/* /u/com_1/\r\n": copied,
                       "*VOQ*ORG CPY FAILED?\r\n": copied and not taken, "*VOQ*load orglist=": taken,
                       "*VOQ*RegAmount=3\n\r\n": built}
            assert {text: service.count(text) for text in printed} == printed, case
            stamps = [struct.unpack_from("<i", (service / "org").read_bytes(), o + 24)[0]
                      for o in range(12, len(expected["org"]), 56)]
            assert all((stamp > 0) == (taken or built) for stamp in stamps), case
