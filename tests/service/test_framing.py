"""What the intake makes of the byte streams of its FIFOs, whole, split, damaged and hostile."""
import struct
import time

import pytest
from voqtest import Key, com_info, frame, log_off, log_on, wait_for

LIMIT = 66048


def known(service, *keys):
    wait_for(lambda: all(service.node(key) for key in keys), "records of the log-ons")


@pytest.mark.sanitized
@pytest.mark.parametrize("client", ["gui", "mek"])
def test_whole_and_split_frames(start, client):
    service = start(com_info())
    keys = [Key(10 * i, 2) for i in range(60)]
    service.send(b"".join(log_on(key, i) for i, key in enumerate(keys[:3])), client)
    known(service, *keys[:3])
    assert [node.offset for node in service.chain()] == [12, 68, 124]
    for cut in range(1, 35):
        bytes_of = log_on(keys[cut + 5], cut)
        service.send_drained(bytes_of[:cut], client)
        assert service.node(keys[cut + 5]) is None
        service.send(bytes_of[cut:], client)
        known(service, keys[cut + 5])
    # An incomplete last frame behind a whole one is kept; a frame may carry more than its request.
    long = bytearray(log_on(keys[51], 51) + b"\xfe" * 25)
    long[1:3] = struct.pack("<H", 60)
    service.send_drained(log_on(keys[50], 50) + long[:40], client)
    known(service, keys[50])
    service.send(bytes(long[40:]) + log_on(keys[52], 52), client)
    known(service, keys[51], keys[52])
    # Commands that do not exist are passed over.
    service.send(b"".join(frame(cmd, keys[53], 53) for cmd in (0, 4, 5, 8, 0x81, 255)) + log_on(keys[54], 54), client)
    known(service, keys[54])
    assert service.node(keys[53]) is None


@pytest.mark.sanitized
@pytest.mark.parametrize("client", ["gui", "mek"])
def test_damaged_streams(start, client):
    service = start(com_info())
    good = iter(Key(10 * i, 2) for i in range(100))
    overflow = "gui fifo too long" if client == "gui" else "mekfifo too long"

    def served():
        key = next(good)
        service.send(log_on(key, 1), client)
        known(service, key)

    for length in (0, 1, 2, 24, 34):  # no frame has such a length: what is held is dropped, the next frame is served
        lost = next(good)
        damaged = b"\xfe" + struct.pack("<H", length) + log_on(lost, 1)[3:]
        service.send_drained(damaged, client)
        served()
        service.send_drained(log_on(next(good), 1) + damaged + log_on(lost, 1), client)
        served()
        assert service.node(lost) is None
    lost = next(good)
    service.send_drained(log_on(next(good), 1) + b"\0" + log_on(lost, 1), client)  # no marker behind a served frame
    served()
    assert service.node(lost) is None

    # No marker at the start: kept until too long.
    for first, held in ((b"xyz", 3), (b"\xfd" if client == "mek" else b"\xff", 1)):
        lost = next(good)
        service.send_drained(first + log_on(lost, 1), client)
        before = service.count(overflow)
        held += 35
        while held + 4096 <= LIMIT:
            service.send_drained(b"\xfe" * 4096, client)
            held += 4096
        assert service.count(overflow) == before
        service.send(bytes(4096), client)
        service.wait_out(f"{overflow} index={held},nread=4096\n")
        served()
        assert service.node(lost) is None
    # A frame as long as can be said, which the buffer holds.
    service.send(b"\xfe\xff\xff" + log_on(next(good), 1)[3:] + bytes(0xFFFF - 35), client)
    served()


@pytest.mark.sanitized
def test_reload(start):
    key = Key(100, 4)
    service = start(com_info(link=0))

    def reload(address, port):
        image = bytearray(com_info(address=address))
        image[14], image[15] = port, 2
        return b"\xfd\0\0" + bytes(image)

    service.send(reload(0x0A000001, 77))
    service.wait_out("*VOQ*Init PLC drv thiz=")
    out = service.out().decode().partition("GlobeWatchDogAddr=1030\r\n")[2].splitlines()
    assert out[0:2] == ["*VOQ*reload cominfo", "*VOQ*IP=0xa000001, PORT=77"] and len(out) == 5, out
    assert out[2].startswith("*VOQ*PLC destroy!_cmd=") and out[2].endswith(" thiz=0")
    assert out[3].startswith("*VOQ*--==>PLC init!_cmd=") and out[3].endswith(" thiz=0")
    call = service.sim.calls()[-1]
    assert (call.command, call.addr, call.regid, call.layout) == (service.sim.INIT, 0x0A000001, 1, 77)

    service.send(log_on(key, 1))
    wait_for(lambda: service.value(key) == service.sim.value(key), "a live value")
    for n in range(20):  # while the main loop reads
        service.send_drained(log_on(Key(200 + n, 1), n) + reload(n, n))
        service.wait_out("*VOQ*reload cominfo\r\n", n + 2)
    service.wait_out("*VOQ*Destroy PLC drv=", 20)
    wait_for(lambda: (service.sim.inits, service.sim.destroys) == (21, 20), "the last restart")
    service.sim.set(key, bytes(key.size))
    wait_for(lambda: service.value(key) == bytes(key.size), "polling after the restarts")


def test_writers_come_and_go(start):
    service = start(com_info(pause=50))
    for n in range(5):
        for client in ("gui", "mek"):
            key = Key(10 * n, 1, plcno=1 + (client == "mek"))
            service.send(log_on(key, n + 1) + log_off(key, n + 1), client)
            known(service, key)
            service.hang_up()
    wait_for(service.sim.quiet, "the end of polling")
    before = service.cpu()
    time.sleep(1)
    assert service.cpu() - before < 0.3

