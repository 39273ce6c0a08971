"""The service with its Modbus driver and a PLC that comes and goes (examples/plc.py)."""
import signal
import struct
import subprocess
import sys

import pytest
from voqtest import WRITE, Key, com_info, frame, free_port, log_on, wait_for

COUNTER, SINE, KEPT = Key(0, 1, regid=4), Key(0, 2, regid=3), Key(20, 3, regid=4)
COILS = Key(0, 9, regid=0, layout=0x00)


@pytest.fixture
def plc():
    port, running = free_port(), []

    def begin():
        running.append(subprocess.Popen([sys.executable, "/co/examples/plc.py", str(port)], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL))
        return running[-1]

    begin.port = port
    yield begin
    for process in running:
        process.kill()
        process.wait()


def test_plc_that_comes_and_goes(start, plc):
    server = plc()
    para = struct.pack("<HH", plc.port, 200)  # TCP port, milliseconds to wait for an answer
    com = com_info(link=2, address=0x7F000001, para=para, pause=10)
    service = start(com, driver="modbus_tcp", directory="/u/tcp_1")
    service.send(b"".join(log_on(key, i) for i, key in enumerate((COUNTER, SINE, KEPT, COILS))))

    def follow():
        """Values that move, read from the device now."""
        seen = set()

        def moved():
            if service.node(COUNTER) and service.node(COUNTER).state == 1:
                seen.add((service.value(COUNTER), service.value(SINE), service.value(COILS)))
            return len(seen) > 4 and len({c[1] for c in seen}) > 1 and len({c[2] for c in seen}) > 1
        wait_for(moved, "moving values", 60)

    follow()
    service.send(frame(WRITE, KEPT, 300, payload=b"\1\0\2\0\3\0"), "mek")
    wait_for(lambda: (service / "300").exists() and (service / "300").stat().st_size == 40, "the answer to a write")
    wait_for(lambda: service.value(KEPT) == b"\1\0\2\0\3\0", "the value read back")
    for stop, resume in ((lambda: (server.kill(), server.wait()), plc), (None, None)):
        if stop is None:  # an answer that never comes, from a server that is there
            server.send_signal(signal.SIGSTOP)
        else:
            stop()
        wait_for(lambda: service.node(COUNTER).state in (2, 3), "the failure in the record", 60)
        marker = service / ("timeout" if service.node(COUNTER).state == 2 else "comerror")
        wait_for(marker.exists, f"the marker {marker}", 60)
        if resume is None:
            server.send_signal(signal.SIGCONT)
        else:
            server = resume()
        wait_for(lambda: not marker.exists(), "the marker cleared", 60)
        follow()
