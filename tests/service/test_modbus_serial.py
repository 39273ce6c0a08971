"""Modbus over serial lines and in slave mode: dead stations, unplugging, an outside master and another process at once.

Run with arguments, this file is the other end: stations 1 to 4 of a PLC, "tcp PORT" or "rtu DEVICE". Station 4 gives no
answer while the file /w/dead exists.
"""
import asyncio
import fcntl
import os
import statistics
import struct
import subprocess
import sys
import threading
import time

import pytest
from pymodbus.client import ModbusSerialClient, ModbusTcpClient
from pymodbus.datastore import ModbusSequentialDataBlock, ModbusServerContext, ModbusSlaveContext
from pymodbus.register_read_message import ReadWriteMultipleRegistersRequest
from pymodbus.register_write_message import MaskWriteRegisterRequest
from pymodbus.server import StartAsyncSerialServer, StartAsyncTcpServer
from pymodbus.transaction import ModbusRtuFramer
from voqtest import RECIPE, USER, WORK, Key, com_info, free_port, install_driver, log_on, wait_for

DEAD = WORK / "dead"
BAUD = 115200


async def stations(kind, place):
    slaves = {n: ModbusSlaveContext(zero_mode=True, hr=ModbusSequentialDataBlock(0, [n] * 100)) for n in range(1, 5)}
    context = ModbusServerContext(slaves=dict(slaves), single=False)

    async def come_and_go():
        while True:
            if DEAD.exists() == (4 in context):
                if DEAD.exists():
                    del context[4]
                else:
                    context[4] = slaves[4]
            await asyncio.sleep(0.02)

    task = asyncio.create_task(come_and_go())
    if kind == "tcp":
        await StartAsyncTcpServer(context, address=("127.0.0.1", int(place)), ignore_missing_slaves=True)
    else:
        await StartAsyncSerialServer(context, framer=ModbusRtuFramer, port=place, baudrate=BAUD, timeout=0.005,
                                     ignore_missing_slaves=True)
    await task


class Processes:
    def __init__(self):
        self.running = []

    def start(self, *arguments):
        self.running.append(subprocess.Popen([str(a) for a in arguments], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        return self.running[-1]

    def line(self):
        """A serial line: the service's end, the other end, and its process."""
        ends = WORK / "ttyA", WORK / "ttyB"
        process = self.start("socat", *(f"pty,raw,echo=0,link={end}" for end in ends))
        wait_for(lambda: all(end.exists() for end in ends), "the line")
        return *ends, process

    def stations(self, kind, place):
        return self.start(sys.executable, __file__, kind, place)

    def end(self, process):
        process.terminate()
        process.wait()


@pytest.fixture
def processes():
    processes = Processes()
    yield processes
    for process in processes.running:
        processes.end(process)


KEYS = [Key(10, 2, regid=4, plcno=n) for n in range(1, 5)]


def refresh_period(service, keys, periods):
    """The middle time between two refreshes of the keys, in seconds."""
    stamps = {key: [] for key in keys}

    def enough():
        for key, seen in stamps.items():
            stamp = service.node(key).stamp
            if stamp not in seen[-1:]:
                seen.append(stamp)
        return min(map(len, stamps.values())) > periods
    wait_for(enough, "refreshes")
    return statistics.median((b[0] - a[0]) + (b[1] - a[1]) / 1e6 for seen in stamps.values() for a, b in zip(seen, seen[1:]))


@pytest.mark.parametrize("kind", ["tcp", "rtu"])
def test_dead_station(start, processes, kind):
    if kind == "tcp":
        port = free_port()
        server = processes.stations(kind, port)
        wait_for(lambda: ModbusTcpClient("127.0.0.1", port=port).connect(), "the stations")
        service = start(com_info(link=2, address=0x7F000001, para=struct.pack("<HH", port, 500), pause=10), driver="modbus_tcp",
                        directory=USER / "tcp_1")
    else:
        ours, theirs, line = processes.line()
        server = processes.stations(kind, theirs)
        service = start(com_info(address=BAUD, para=struct.pack("<HH", 0, 500), pause=10), driver="modbus_rtu",
                        environment={"VOQ_SERIAL_1": str(ours)})
    service.send(b"".join(log_on(key, i) for i, key in enumerate(KEYS)))

    def states(*wanted):
        return all(service.node(key) and service.node(key).state == state for key, state in zip(KEYS, wanted))

    wait_for(lambda: states(1, 1, 1, 1), "all stations")
    assert [service.value(key) for key in KEYS] == [bytes([0, n] * 2) for n in range(1, 5)]
    alive = refresh_period(service, KEYS[:3], 20)
    DEAD.touch()
    service.wait_out("station 4 lost")
    dead = refresh_period(service, KEYS[:3], 60)
    assert states(1, 1, 1, 2)
    print(f"{kind}: refreshed every {alive * 1000:.1f} ms, with one of four dead every {dead * 1000:.1f} ms")
    assert dead <= 1.2 * alive
    time.sleep(2)  # let the interval between probes grow
    DEAD.unlink()
    begin = time.monotonic()
    wait_for(lambda: states(1, 1, 1, 1), "the station back", 10)
    print(f"{kind}: back after {time.monotonic() - begin:.1f} s")
    service.wait_out("station 4 found again")
    if kind == "tcp":
        return
    processes.end(line)  # unplugged
    processes.end(server)
    wait_for(lambda: states(3, 3, 3, 3) and (service / "comerror").exists(), "the failures")
    processes.line()
    processes.stations(kind, theirs)
    wait_for(lambda: states(1, 1, 1, 1) and not (service / "comerror").exists(), "polling on")


CELLS, ROUNDS = 24, 96  # of the bits or words, the outside master's are the even ones, ours the odd ones


def bump_ours(path, base, form):
    """Another process's way: the whole block read, changed and written back under the file's lock."""
    size = struct.calcsize(form)
    with open(path, "r+b", buffering=0) as file:
        fcntl.lockf(file, fcntl.LOCK_EX)
        file.seek(size * base)
        cells = list(struct.unpack(f"<{CELLS}{form}", file.read(size * CELLS)))
        cells[1::2] = [cell % (256 ** size - 1) + 1 for cell in cells[1::2]]
        time.sleep(0.002)
        file.seek(size * base)
        file.write(struct.pack(f"<{CELLS}{form}", *cells))


def carried(value, form):
    return value if form == "H" else value // 12 % 2


def bump_theirs(master, base, unit, form, failures):
    """The outside master's: its own bits or words, each with a write of its own, and all of them read."""
    try:
        seen = 0
        for value in range(1, ROUNDS + 1):
            place, sent = value % 12 * 2, carried(value, form)
            if form == "H":
                assert not master.write_register(base + place, sent, slave=unit).isError()
                cells = master.read_holding_registers(base, CELLS, slave=unit).registers
            else:
                assert not master.write_coil(base + place, bool(sent), slave=unit).isError()
                cells = master.read_coils(base, CELLS, slave=unit).bits
            assert cells[place] == sent and len(set(cells[1::2])) == 1 and seen <= cells[1]
            seen = cells[1]
    except Exception as failure:
        failures.append(failure)


@pytest.mark.parametrize("kind", ["tcp", "rtu"])
def test_outside_master_and_another_process(start, processes, kind):
    if kind == "tcp":
        port = free_port()
        install_driver("Service/Ethernet", "modbus_tcp_slave")
        service = start(com_info(link=2, mode=1, address=0, para=struct.pack("<H", port)), directory=USER / "tcp_1")
        master = ModbusTcpClient("127.0.0.1", port=port)
    else:
        ours, theirs, _ = processes.line()
        install_driver("Service/Serial", "modbus_rtu_slave")
        service = start(com_info(address=BAUD, mode=1), environment={"VOQ_SERIAL_1": str(ours)})
        master = ModbusSerialClient(str(theirs), framer=ModbusRtuFramer, baudrate=BAUD, timeout=2)
    (service / "slaveno.new").write_bytes(struct.pack("<H", 5))
    os.rename(service / "slaveno.new", service / "slaveno")
    wait_for(lambda: not (service / "slaveno").exists(), "the slave number taken over")
    wait_for(master.connect, "a connection")

    # Tables, registers and files.
    assert not master.write_coils(65530, [True, False, True], slave=5).isError()
    assert (USER / "lb.dat").read_bytes()[65529:65534] == b"\0\1\0\1\0"
    assert master.read_discrete_inputs(65530, 3, slave=5).bits[:3] == [True, False, True]
    assert not master.write_registers(0x8000 + 40, [0x1234, 7], slave=5).isError()
    assert (RECIPE / "rw.dat").read_bytes()[78:86] == b"\0\0\x34\x12\7\0\0\0"
    system = bytearray(20000)
    system[19998:] = b"\x34\x12"
    (USER / "srw0.dat").write_bytes(system)
    assert master.read_input_registers(9999, 1, slave=5).registers == [0x1234]
    for request in (MaskWriteRegisterRequest(0, 0xFF, 1),
                    ReadWriteMultipleRegistersRequest(read_address=0, read_count=1, write_address=0, write_registers=[1])):
        request.unit_id = 5
        assert master.execute(request).exception_code == 1
    assert master.read_input_registers(20000, 1, slave=5).exception_code == 2

    assert not master.write_register(200, 0, slave=5).isError()  # the file is there
    for base, window, path, form in ((100, 100, USER / "lw.dat", "H"), (64, 0x8000 + 64, RECIPE / "rw.dat", "H"),
                                     (48, 48, USER / "lb.dat", "B")):
        failures = []
        thread = threading.Thread(target=bump_theirs, args=(master, window, 5, form, failures))
        thread.start()
        ours = 0
        while thread.is_alive() and ours < 60000:
            bump_ours(path, base, form)
            ours += 1
            time.sleep(0.001)
        assert not thread.is_alive() and not failures, failures
        size = struct.calcsize(form)
        cells = struct.unpack_from(f"<{CELLS}{form}", path.read_bytes(), size * base)
        assert set(cells[1::2]) == {(ours - 1) % (256 ** size - 1) + 1} and ours >= ROUNDS / 4
        last = {value % 12: value for value in range(1, ROUNDS + 1)}
        assert list(cells[::2]) == [carried(last[n], form) for n in range(12)]
    master.close()


if __name__ == "__main__":
    asyncio.run(stations(*sys.argv[1:]))
