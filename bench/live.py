"""The real service and what stands beside it, as processes in a folder of their own, and what they cost.

Every process is started with `start` and ends with the `Place` it was started in.
"""
import os
import pathlib
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time

KEY_BYTES, NODE_BYTES, FIRST_RECORD = 24, 56, 12
STATE_AT = 36  # in a record
AREA = 4       # holding registers, an area of plain memory in the simulator
TRANSFER = 64  # words in one driver request


def key(i, groups=1, priority=1):
    """A one-word range of station 1, always due; with groups, dealt out to so many areas."""
    return struct.pack("<IIHBBHHII", priority << 16, 0, 1, 1, 0x22, AREA + i % groups, 1, i // groups, 0)


def project(registers, pause_ms, groups=1, plc_port=None, transfer=TRANSFER, priority=1):
    """Port number 1, serial or, with a PLC, on Ethernet, and registers side by side."""
    com = bytearray(60)
    struct.pack_into("<HHHBBB", com, 8, 1, 0, 0, 0, 0, 0)
    struct.pack_into("<HHBBB", com, 38, transfer, 256, 1, 16, pause_ms)
    if plc_port is not None:
        com[4] = 2
        struct.pack_into("<I", com, 16, 0x7F000001)
        struct.pack_into("<HH", com, 22, plc_port, 1000)
    file = bytearray(400)
    struct.pack_into("<I", file, 20, 24)
    for at, segment in ((24 + 32, 100), (24 + 40, 200)):
        struct.pack_into("<I", file, at, segment)
    struct.pack_into("<II", file, 100, 1, 8)
    file[108:168] = com
    struct.pack_into("<I", file, 200, 400)
    first = 4 + 8 * registers
    table = struct.pack("<I", registers) + bytes(4 * registers)
    table += b"".join(struct.pack("<I", first + KEY_BYTES * i) for i in range(registers))
    return bytes(file) + table + b"".join(key(i, groups, priority) for i in range(registers))


def cpu_seconds(process):
    """CPU time of all threads of a running process."""
    return time.clock_gettime(~process.pid << 3 | 2)


def status(process, name):
    """A number of the process's main thread: VmRSS in KiB, voluntary_ctxt_switches."""
    for line in pathlib.Path(f"/proc/{process.pid}/status").read_text().splitlines():
        if line.startswith(name + ":"):
            return int(line.split()[1])
    sys.exit(f"a process without {name}")


def wait_for(condition, what, seconds=60):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"waited in vain: {what}")
        time.sleep(0.01)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Place:
    """A folder on the memory file system, or in another parent, and the processes that work in it."""

    def __init__(self, build, parent="/dev/shm"):
        self.build = build
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="voq", dir=parent))
        self.port = self.folder / "u/com_1"
        self.processes = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in self.processes:
            process.kill()
        for process in self.processes:
            process.wait()
        shutil.rmtree(self.folder)

    def start(self, *command, output="log", **environment):
        with open(self.folder / output, "ab") as log:
            process = subprocess.Popen([str(word) for word in command], stdout=log, stderr=subprocess.STDOUT,
                                       stdin=subprocess.DEVNULL, env=os.environ | environment)
        self.processes.append(process)
        return process

    def stop(self, process):
        process.kill()
        process.wait()
        self.processes.remove(process)

    def plc(self, delay_us, changing=False):
        """A PLC on Modbus TCP, whose registers may change with each read; sets plc_port."""
        self.plc_port = free_port()
        self.counters = self.folder / "counters"
        process = self.start(self.build / "bin/bench_plc", self.plc_port, delay_us, self.counters,
                             *(["changing"] if changing else []))

        def listening():
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", self.plc_port)) == 0
        wait_for(listening, "the PLC")
        return process

    def registers_served(self):
        return struct.unpack("<QQ", self.counters.read_bytes())[1]

    def sim(self, delay_us):
        """The environment of a simulator with a delay."""
        settings = bytearray(4329472)
        struct.pack_into("<I", settings, 64, delay_us)
        (self.folder / "sim").write_bytes(settings)
        return {"VOQ_SIM": str(self.folder / "sim")}

    def service(self, registers=0, pause_ms=10, groups=1, modbus=False, transfer=TRANSFER, priority=1, **environment):
        """The service, started up; a second start finds the database of the first."""
        for name in ("d/Serial", "d/Ethernet", "u", "r"):
            (self.folder / name).mkdir(parents=True, exist_ok=True)
        for link, driver in (("Serial", "sim"), ("Ethernet", "modbus_tcp")):
            if not (self.folder / f"d/{link}/drv_1.so").exists():
                (self.folder / f"d/{link}/drv_1.so").symlink_to(self.build / f"drivers/{driver}.so")
        self.port = self.folder / ("u/tcp_1" if modbus else "u/com_1")
        (self.folder / "p").write_bytes(project(registers, pause_ms, groups, self.plc_port if modbus else None,
                                                transfer, priority))
        (self.folder / "log").write_bytes(b"")
        process = self.start(self.build / "bin/voq", self.folder / "p", 0, self.folder / "d", self.folder / "u",
                             self.folder / "r", **environment)

        def started():
            if process.poll() is not None:
                sys.exit(f"the service ended with {process.returncode}")
            return b"GlobeWatchDogAddr" in (self.folder / "log").read_bytes()
        wait_for(started, "the end of start-up", 300)
        return process

    def subscribe(self, ranges):
        """Log-ons of the first registers, by the offset of their records."""
        with open(self.port / "mekfifo", "wb", buffering=0) as fifo:
            for i in range(ranges):
                request = struct.pack("<BBHI", 1, 0, i + 1, FIRST_RECORD + NODE_BYTES * i)
                fifo.write(b"\xFE" + struct.pack("<H", 35) + key(i) + request)
        wait_for(lambda: set(self.states()[:ranges]) == {1}, "values of all ranges")

    def states(self):
        return (self.port / "org").read_bytes()[FIRST_RECORD + STATE_AT::NODE_BYTES]

    def mark_all_read(self):
        org = bytearray((self.port / "org").read_bytes())
        for at in range(FIRST_RECORD + STATE_AT, len(org), NODE_BYTES):
            org[at] = 1
        (self.port / "org").write_bytes(org)


def cpu_share(process, windows, seconds):
    """Percent of one core, and how often a second the main thread waits: once for each window."""
    shares, waits = [], []
    for _ in range(windows):
        start, used, waited = time.monotonic(), cpu_seconds(process), status(process, "voluntary_ctxt_switches")
        time.sleep(seconds)
        passed = time.monotonic() - start
        shares.append(100 * (cpu_seconds(process) - used) / passed)
        waits.append((status(process, "voluntary_ctxt_switches") - waited) / passed)
    return shares, waits


def block_device(folder):
    """Bytes written to the device below the folder so far, and the flushes that it was asked for."""
    device = os.stat(folder).st_dev
    fields = pathlib.Path(f"/sys/dev/block/{os.major(device)}:{os.minor(device)}/stat").read_text().split()
    return int(fields[6]) * 512, int(fields[15])
