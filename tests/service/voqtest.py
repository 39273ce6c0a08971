"""A box for the real service: its places, its project file, its clients' frames and files, written from scratch.

Nothing here waits for a time to pass: wait_for() looks again until its condition holds.
"""
import ctypes
import fcntl
import functools
import mmap
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import struct
import subprocess
import termios
import time
from collections import namedtuple
from dataclasses import dataclass

BUILD = pathlib.Path("/b")
USER, RECIPE, DRIVERS, WORK = (pathlib.Path(p) for p in ("/u", "/r", "/d", "/w"))
PROJECT = WORK / "ophmi.bin"
BUILT = (BUILD / "CMakeCache.txt").read_text()
LONG = os.environ.get("VOQ_TORTURE") == "long"
SANITIZER = re.search("-fsanitize=([a-z]+)|$", BUILT)[1]
ARM = "armhf.cmake" in BUILT
SYSTEM = pathlib.Path("/co/build/armhf-root" if ARM else "/")
EMULATOR = ["qemu-arm", "-L", SYSTEM] if ARM else []
TOOLS = "arm-linux-gnueabihf-" if ARM else ""
PROOT = "VOQ_PROOT" in os.environ  # the box is proot's (run): each call of the system takes several times as long
SLOW = (6 if SANITIZER else 2 if ARM else 1) * (4 if PROOT else 1)
ALWAYS, MEDIUM, SLOWEST = 1 << 16, 3 << 16, 10 << 16  # priority values in a key's flag
LOG_ON, LOG_OFF, READ, CHANGE, WRITE = 1, 2, 3, 6, 7
libc = ctypes.CDLL(None)


def program(name, *arguments):
    """The command line that runs a program of the build."""
    return [*EMULATOR, BUILD / "bin" / name, *map(str, arguments)]


def programs_folder():
    """Where a shell finds the programs of the build as it would start them."""
    if not EMULATOR:
        return BUILD / "bin"
    folder = WORK / "bin"
    folder.mkdir()
    for name in ("voq", "voqctl"):
        (folder / name).write_text(f'#!/bin/sh\nexec {" ".join(map(str, program(name)))} "$@"\n')
        (folder / name).chmod(0o755)
    return folder


def wait_for(condition, what="", timeout=20):
    end = time.monotonic() + timeout * SLOW
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < end, f"waited in vain: {what or condition}"
        time.sleep(0.004)


def figure(name, value, goal, ok):
    """A row of the table of scripts/torture; a miss fails the test."""
    print(f"\n{name} | {value} | {goal} | {'ok' if ok else 'MISS'}")
    assert ok, (name, value, goal)


def retained_settings():
    """What the panel keeps for serial port 1."""
    place = pathlib.Path("/disk/hmi/rcp")
    place.mkdir(parents=True, exist_ok=True)
    (place / "srw.dat").write_bytes(bytes(500) + struct.pack("<I4H", 9600, 8, 1, 0, 0) + bytes(88))


def empty_box():
    for place in (USER, RECIPE, DRIVERS, WORK, *map(pathlib.Path, ("/home", "/disk", "/tmp"))):
        for entry in place.iterdir():
            shutil.rmtree(entry) if entry.is_dir() and not entry.is_symlink() else entry.unlink()


def shim(**variables):
    """The environment that loads torture/service/shim.c into the service and tells it what to do."""
    library = pathlib.Path("/shim.so")
    if not library.exists():
        wide = ["-D_FILE_OFFSET_BITS=64", "-D_TIME_BITS=64"]
        subprocess.run([TOOLS + "gcc", "-O1", "-shared", "-fPIC", *wide, "-o", library, "/co/torture/service/shim.c"],
                       check=True)
    return {"LD_PRELOAD": str(library), **variables}


def traced():
    return shim(VOQ_TRACE=str(WORK / "trace"))


@dataclass(frozen=True)
class Key:
    addr: int = 0
    width: int = 1
    regid: int = 1
    layout: int = 0x22
    plcno: int = 1
    subaddr: int = 0
    flag: int = ALWAYS
    portno: int = 1
    convpara: int = 0

    def pack(self):
        return struct.pack("<IIHBBHHII", self.flag, self.convpara, self.portno, self.plcno, self.layout, self.regid,
                           self.width, self.addr, self.subaddr)

    @classmethod
    def unpack(cls, raw):
        flag, convpara, portno, plcno, layout, regid, width, addr, subaddr = struct.unpack("<IIHBBHHII", raw)
        return cls(addr, width, regid, layout, plcno, subaddr, flag, portno, convpara)

    elem = property(lambda self: self.layout & 15 or 1)
    unit = property(lambda self: self.layout >> 4 or 1)
    size = property(lambda self: self.width * self.elem)
    group = property(lambda self: (self.plcno, self.regid, self.layout, self.subaddr & 0xFFFF, self.flag >> 9 & 1))
    place = property(lambda self: (self.addr, self.width))


def com_info(link=0, port=1, mode=0, word_limit=64, bit_limit=128, word_gap=10, bit_gap=10, pause=3, packing=0,
             para=b"", address=9600, word=0):
    return struct.pack("<IB3xHHHBBIBB14sHHHBBB15x", packing << 17, link, port, 0, word, 8, 0, address, 1, mode, para, 0,
                       word_limit, bit_limit, word_gap, bit_gap, pause)


def project(ports, registers=()):
    """The project file, segments in an order of our own: system, communication, registers."""
    def offsets(amount, size, start):
        return struct.pack(f"<{amount}I", *range(start, start + amount * size, size))

    amount, many, comm = len(ports), len(registers), 128 + 40
    segment = comm + 4 + 64 * amount
    head = struct.pack("<20xI40x I28xI4xI20x 38xH", 64, 128, comm, segment, 0x1234)
    ports = struct.pack("<I", amount) + offsets(amount, 60, 4 + 4 * amount) + b"".join(ports)
    table = struct.pack(f"<II{4 * many}x", segment + 4, many) + offsets(many, 24, 4 + 8 * many)
    return (head + ports + table + b"".join(key.pack() for key in registers)).ljust(200, b"\0")


def frame(cmd, key, fileno, offset=0, subcmd=0, payload=b""):
    request = key.pack() + struct.pack("<BBHI", cmd, subcmd, fileno, offset)
    return b"\xfe" + struct.pack("<H", 35 + len(payload)) + request + payload


def log_on(key, fileno, offset=0):
    return frame(LOG_ON, key, fileno, offset)


def log_off(key, fileno, offset=0):
    return frame(LOG_OFF, key, fileno, offset)


def gateway(com):
    """Makes a gateway box of it, with the port as its first."""
    tarn = pathlib.Path("/home/tarn")
    tarn.mkdir()
    (tarn / "PortIndex").write_bytes(struct.pack("<5H", 2, 0, 7, 1, 8))
    (tarn / "com_7.con").write_bytes(com)
    return tarn


def install_driver(kind="Serial", name="sim", port=1):
    """Of this build, or any by its path."""
    place = DRIVERS / kind / f"drv_{port}.so"
    place.parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(name if os.sep in str(name) else BUILD / "drivers" / f"{name}.so", place)


@functools.cache
def symbols():
    listed = subprocess.run(["nm", BUILD / "bin/voq"], capture_output=True, text=True, check=True).stdout
    return {name: int(at, 16) for at, _, name in (line.split() for line in listed.splitlines() if line[0] != " ")}


def read_locked(path):
    with open(path, "rb") as file:
        fcntl.lockf(file, fcntl.LOCK_SH)
        return file.read()


Call = namedtuple("Call", "start addr regid width plcno layout command result sequence flag subaddr")


class Sim:
    """The simulated PLC: the file shared with its driver (drivers/sim/sim_control.h), registers no byte of them 0."""

    SIZE, CALLS, REGISTERS = 4329472, 4096, 135168
    TIMEOUT, ERROR, HANG, CRASH, NONSENSE = 2, 3, 4, 5, 6
    RDONE, WRONE, INIT, DESTROY, LOOP = 1, 2, 3, 4, 5

    def __init__(self):
        self.path = WORK / "sim"
        filled = random.Random(1).randbytes(self.SIZE - self.REGISTERS).replace(b"\0", b"\1")
        self.path.write_bytes(bytes(self.REGISTERS) + filled)
        with open(self.path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), 0)

    def word(self, offset):
        return struct.unpack_from("<I", self.memory, offset)[0]

    inits, destroys, loops, reads, writes, hanging, slave_no, logged = (
        property(lambda self, o=offset: self.word(o)) for offset in range(128, 160, 4))

    def fail(self, failure, count=0xFFFFFFFF, delay_us=0, station=0xFFFFFFFF, command=0):
        struct.pack_into("<IIIII", self.memory, 64, delay_us, 0, station, count, command)
        struct.pack_into("<I", self.memory, 68, failure)

    def dig(self, *holes):
        """Addresses that the PLC does not know, as keys; without any, it knows them all again."""
        struct.pack_into("<I", self.memory, 192, 0)
        for n, key in enumerate(holes):
            struct.pack_into("<IIII", self.memory, 196 + 16 * n, key.plcno, key.regid, key.addr, key.width)
        struct.pack_into("<I", self.memory, 192, len(holes))

    left_to_fail = property(lambda self: self.word(76))

    def at(self, key):
        area = self.REGISTERS + (key.plcno % 8 * 8 + key.regid % 8) * 65536
        return area + key.addr * (key.unit if key.layout & 15 else 1) % 65536

    def value(self, key):
        return self.memory[self.at(key): self.at(key) + key.size]

    def set(self, key, value):
        self.memory[self.at(key): self.at(key) + key.size] = value

    def calls(self, since=0):
        """The logged calls behind number `since`, as far as they are still held."""
        held = range(max(since, self.logged - 4000) + 1, self.logged + 1)
        calls = [Call(*struct.unpack_from("<QIHHBBBBIII", self.memory, 4096 + (n - 1) % self.CALLS * 32)) for n in held]
        return [c for c, n in zip(calls, held) if c.sequence == n]

    def cycle(self, length, view=lambda c: (c.addr, c.width), wanted=lambda c: True):
        """What is read over and over: `length` reads, seen twice in a row from now on."""
        since = self.logged

        def repeated():
            reads = [view(c) for c in self.calls(since) if c.command == self.RDONE and wanted(c)]
            whole = len(reads) >= 2 * length and reads[-length:] == reads[-2 * length: -length]
            return reads[-length:] if whole else None

        return wait_for(repeated, f"a cycle of {length} reads")

    def quiet(self):
        """True when no call was made for a while: called again and again until polling has ended."""
        before = self.logged
        time.sleep(0.15 * SLOW)
        return self.logged == before


Node = namedtuple("Node", "offset key stamp logtimes state dataoffset prev next")


class Service:
    """The running service: its process, its output, its two FIFOs, and its files as a client reads them."""

    def __init__(self, arguments=(), directory=USER / "com_1", environment=None, ready=True, sim=None):
        self.dir = pathlib.Path(directory)
        self.out_path, self.err_path = WORK / "out", WORK / "err"
        arguments = arguments or (PROJECT, 0, DRIVERS, USER, RECIPE)
        self.fifos = {}
        self.sim = sim or Sim()

        def prepare():
            libc.prctl(1, signal.SIGKILL)       # ends with the test run
            libc.personality(0x0040000)         # the sanitizers need a plain address space

        for path in (self.out_path, self.err_path):
            path.write_bytes(b"")
        with open(self.out_path, "ab") as out, open(self.err_path, "ab") as err:
            environment = {**os.environ, "VOQ_SIM": str(self.sim.path), **(environment or {})}
            if EMULATOR and "LD_PRELOAD" in environment:  # into the service, not into the emulator
                environment["QEMU_SET_ENV"] = "LD_PRELOAD=" + environment.pop("LD_PRELOAD")
            self.process = subprocess.Popen(program("voq", *arguments), stdout=out, stderr=err, cwd="/", env=environment,
                                            preexec_fn=prepare)
        if ready:
            wait_for(lambda: self.process.poll() is not None or b"GlobeWatchDogAddr" in self.out(), "start-up")
            assert self.process.poll() is None, self.out() + self.err()

    def out(self):
        return self.out_path.read_bytes()

    def err(self):
        return self.err_path.read_bytes()

    def count(self, text):
        return self.out().count(text.encode())

    def wait_out(self, text, times=1):
        wait_for(lambda: self.count(text) >= times, f"output {text!r} x {times}")

    def send(self, data, client="gui"):
        if client not in self.fifos:
            path = self.dir / f"{client}fifo"
            self.fifos[client] = wait_for(lambda: self._open(path), f"a reader of {path}")
        view = memoryview(data)
        while view:
            view = view[os.write(self.fifos[client], view):]

    def send_drained(self, data, client="gui"):
        """Sends and waits until the service has taken the bytes in."""
        self.send(data, client)
        unread = bytearray(4)
        wait_for(lambda: fcntl.ioctl(self.fifos[client], termios.FIONREAD, unread) == 0 and not any(unread), "intake")

    @staticmethod
    def _open(path):
        try:
            descriptor = os.open(path, os.O_WRONLY | os.O_NONBLOCK)
        except OSError:
            return None
        os.set_blocking(descriptor, True)
        return descriptor

    def hang_up(self):
        while self.fifos:
            os.close(self.fifos.popitem()[1])

    def peek(self, name):
        """A 32-bit number of the service, by its name."""
        maps = pathlib.Path(f"/proc/{self.process.pid}/maps").read_text()
        base = re.search(r"^(\w+)-.*/bin/voq$", maps, re.MULTILINE)[1]
        with open(f"/proc/{self.process.pid}/mem", "rb", 0) as memory:
            return struct.unpack("<i", os.pread(memory.fileno(), 4, int(base, 16) + symbols()[name]))[0]

    def subscribed(self):
        """The ranges that clients are subscribed to."""
        return self.peek("OrgFastListHead") & 0xFFFF

    def trim_output(self):
        if self.out_path.stat().st_size > 50_000_000:
            os.truncate(self.out_path, 0)

    def stop(self):
        """Ends the service; it must have been alive and well until now."""
        alive = self.process.poll() is None
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        self.hang_up()
        errors = self.err().decode(errors="replace")
        clean = alive and "Sanitizer" not in errors and "runtime error" not in errors
        assert clean, (self.process.returncode, errors, self.out()[-2000:])

    def __truediv__(self, name):
        return self.dir / name

    def org(self):
        """(count, head, tail), {offset: Node}"""
        raw = read_locked(self.dir / "org")
        nodes = {}
        for o in range(12, len(raw) - 55, 56):
            sec, usec, logtimes, state, dataoffset, prev, nxt = struct.unpack("<iiHxxBxxxxxxxIII", raw[o + 24: o + 56])
            nodes[o] = Node(o, Key.unpack(raw[o: o + 24]), (sec, usec), logtimes, state, dataoffset, prev, nxt)
        return struct.unpack("<III", raw[:12]), nodes

    def chain(self):
        """The records in chain order."""
        (count, o, _), nodes = self.org()
        chain = []
        while o:
            assert len(chain) < count
            chain.append(nodes[o])
            o = nodes[o].next
        return chain

    def node(self, key):
        if not (self.dir / "org").exists():
            return None
        (_, at, _), nodes = self.org()
        for _ in nodes:
            if at not in nodes or (nodes[at].key.group, nodes[at].key.place) == (key.group, key.place):
                return nodes.get(at)
            at = nodes[at].next

    def value(self, key):
        """The range's bytes in the data file, None while it has no record."""
        node = self.node(key)
        return node and read_locked(self.dir / "data")[node.dataoffset: node.dataoffset + key.size]


def on_port(command, *arguments):
    return program("voqctl", command, "--dir", USER, "--link", "serial", "--port", 1, *arguments)


def voqctl(command, *arguments):
    return subprocess.run(on_port(command, *arguments), capture_output=True, text=True, timeout=60 * SLOW)


def sound():
    """Every invariant of the register database."""
    done = voqctl("check", "--quiet")
    assert done.returncode == 0, done


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def listening(port):
    with socket.socket() as s:
        return s.connect_ex(("127.0.0.1", port)) == 0
