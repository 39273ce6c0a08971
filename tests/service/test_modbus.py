"""The service with its Modbus drivers: a PLC (examples/plc.py) and lines that come and go, a master beside a process."""
import fcntl
import os
import signal
import struct
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor

import pytest
from plc_driver import Line, RtuStations
from pymodbus.client import ModbusTcpClient
from voqtest import RECIPE, USER, WORK, Key, com_info, free_port, install_driver, log_on, wait_for

MOVING = Key(0, 1, regid=4), Key(0, 2, regid=3), Key(0, 9, regid=0, layout=0x00)  # counter, sine, coils


@pytest.fixture
def plc():
    port, running = free_port(), []

    def begin():
        running.append(subprocess.Popen([sys.executable, "/co/examples/plc.py", str(port)], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL))
        return running[-1]

    yield port, begin
    for process in running:
        process.kill()
        process.wait()


def test_plc_that_comes_and_goes(start, plc):
    port, begin = plc
    server, para = begin(), struct.pack("<HH", port, 200)  # TCP port, milliseconds to wait for an answer
    com = com_info(link=2, address=0x7F000001, para=para, pause=10)
    service = start(com, driver="modbus_tcp", directory="/u/tcp_1")
    service.send(b"".join(log_on(key, i) for i, key in enumerate(MOVING)))

    def follow():
        """Values that move, read from the device now."""
        seen = {key: set() for key in MOVING}

        def moved():
            for key, values in seen.items():
                values |= {service.value(key)} if service.node(key) and service.node(key).state == 1 else set()
            return all(len(values) > 1 for values in seen.values())
        wait_for(moved, "moving values", 60)

    def failing():
        wait_for(lambda: (state := service.node(MOVING[0]).state) in (2, 3) and
                 (service / ("timeout" if state == 2 else "comerror")).exists(), "the failure in record and marker", 60)

    follow()
    server.kill(), server.wait()
    failing()
    server = begin()
    follow()
    server.send_signal(signal.SIGSTOP)  # an answer that never comes, from a server that is there
    failing()
    server.send_signal(signal.SIGCONT)
    follow()
    assert not (service / "timeout").exists() and not (service / "comerror").exists()


def test_dead_station_and_an_unplugged_line(start):
    keys, port = [Key(10 * n, 2, regid=4, plcno=n) for n in range(1, 5)], WORK / "port"

    def plugged():
        line = Line()
        port.unlink(missing_ok=True)
        port.symlink_to(os.environ["VOQ_SERIAL_1"])
        return RtuStations(line)

    stations = plugged()
    service = start(com_info(address=115200, para=struct.pack("<HH", 0, 500), pause=10), driver="modbus_rtu",
                    environment={"VOQ_SERIAL_1": str(port)})
    service.send(b"".join(log_on(key, i) for i, key in enumerate(keys)))

    def states(*wanted):
        return all(service.node(key) and service.node(key).state == state for key, state in zip(keys, wanted))

    wait_for(lambda: states(1, 1, 1, 1), "all stations")
    assert [service.value(key) for key in keys] == [struct.pack(">HH", 10 * n, 10 * n + 1) for n in range(1, 5)]
    stations.dead.add(4)
    service.wait_out("station 4 lost")
    since = service.node(keys[0]).stamp
    wait_for(lambda: states(1, 1, 1, 2) and service.node(keys[0]).stamp > since, "the others polled")
    stations.dead.clear()
    wait_for(lambda: states(1, 1, 1, 1), "the station back")
    service.wait_out("station 4 found again")
    stations.close()
    os.close(stations.line.fd)
    wait_for(lambda: states(3, 3, 3, 3) and (service / "comerror").exists(), "the failures")
    stations = plugged()
    wait_for(lambda: states(1, 1, 1, 1) and not (service / "comerror").exists(), "polling on")
    stations.close()


CELLS, ROUNDS = 24, 96  # of the words, the outside master's are the even ones, ours the odd ones


def bump_ours(path, base):
    """Another process's way: the whole block read, changed and written back under the file's lock."""
    with open(path, "r+b", buffering=0) as file:
        fcntl.lockf(file, fcntl.LOCK_EX)
        cells = list(struct.unpack(f"<{CELLS}H", os.pread(file.fileno(), 2 * CELLS, 2 * base)))
        cells[1::2] = [cell + 1 for cell in cells[1::2]]
        time.sleep(0.002)
        os.pwrite(file.fileno(), struct.pack(f"<{CELLS}H", *cells), 2 * base)


def bump_theirs(master, base, unit):
    """The outside master's: its own words, each with a write of its own, and all of them read."""
    seen = 0
    for value in range(1, ROUNDS + 1):
        place = value % 12 * 2
        assert not master.write_register(base + place, value, slave=unit).isError()
        cells = master.read_holding_registers(base, count=CELLS, slave=unit).registers
        assert cells[place] == value and len(set(cells[1::2])) == 1 and seen <= cells[1]
        seen = cells[1]


def test_outside_master_and_another_process(start):
    port = free_port()
    install_driver("Service/Ethernet", "modbus_tcp_slave")
    service = start(com_info(link=2, mode=1, address=0, para=struct.pack("<H", port)), directory=USER / "tcp_1")
    master = ModbusTcpClient("127.0.0.1", port=port)
    (service / "slaveno.new").write_bytes(struct.pack("<H", 5))
    os.rename(service / "slaveno.new", service / "slaveno")
    wait_for(lambda: not (service / "slaveno").exists(), "the slave number taken over")
    wait_for(master.connect, "a connection")
    for base, window, path in (100, 100, USER / "lw.dat"), (64, 0x8000 + 64, RECIPE / "rw.dat"):
        assert not master.write_register(window + 100, 0, slave=5).isError()  # the file is there
        with ThreadPoolExecutor() as threads:
            theirs, ours = threads.submit(bump_theirs, master, window, 5), 0
            while not theirs.done() and ours < 60000:
                bump_ours(path, base)
                ours += 1
                time.sleep(0.001)
        theirs.result()
        cells = struct.unpack_from(f"<{CELLS}H", path.read_bytes(), 2 * base)
        assert set(cells[1::2]) == {ours} and ours >= ROUNDS / 4
        assert cells[::2] == (ROUNDS, *range(ROUNDS - 11, ROUNDS))
    assert not master.write_coil(48, True, slave=5).isError() and (USER / "lb.dat").read_bytes()[47:50] == b"\0\1\0"
    master.close()
