"""What the intake makes of the byte streams of its FIFOs, whole, split, damaged and hostile."""
import struct

import pytest
from voqtest import Key, com_info, frame, log_on, wait_for

pytestmark = pytest.mark.sanitized
LIMIT = 66048


def known(service, *keys):
    wait_for(lambda: all(service.node(key) for key in keys), "records of the log-ons")


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
        service.hang_up()  # writers come and go
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


@pytest.mark.parametrize("client", ["gui", "mek"])
def test_damaged_streams(start, client):
    service = start(com_info())
    good = iter(Key(10 * i, 2) for i in range(100))
    overflow = "gui fifo too long" if client == "gui" else "mekfifo too long"

    def served():
        key = next(good)
        service.send(log_on(key, 1), client)
        known(service, key)

    # What no frame begins like is dropped with all that is held, and the next frame is served: a length that no frame
    # has, and behind a served frame a byte that is no marker.
    lost, foreign = next(good), b"\xfd\1\2" + com_info() if client == "mek" else b"\0"
    for damage in [b"\xfe" + struct.pack("<H", n) + log_on(lost, 1)[3:] for n in (0, 1, 2, 24, 34)] + [foreign]:
        for before in (b"", log_on(next(good), 1)) if damage != foreign else (log_on(next(good), 1),):
            dropped = f"*VOQ*{client} fifo: no frame at byte {len(before)}, {len(damage) + 35} bytes dropped\r\n"
            times = service.count(dropped)
            service.send(before + damage + log_on(lost, 1), client)
            service.wait_out(dropped, times + 1)
            served()
    assert service.node(lost) is None and service.sim.inits <= 1

    # No marker at the start: kept until too long.
    for n, first in enumerate((b"xyz", b"\xfd" if client == "mek" else b"\xff"), 1):
        noise = first + log_on(lost, 1) + b"\xfe" * LIMIT
        for at in range(0, LIMIT, 4096):
            service.send_drained(noise[at: min(at + 4096, LIMIT)], client)
        assert service.count(overflow) == n - 1
        service.send(b"\0", client)
        service.wait_out(f"{overflow} index={LIMIT},nread=1\n", n)
        served()
        assert service.node(lost) is None
    # A frame as long as can be said, which the buffer holds.
    service.send(b"\xfe\xff\xff" + log_on(next(good), 1)[3:] + bytes(0xFFFF - 35), client)
    served()


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

    # Behind a served frame it waits for its end; what lies behind it is lost.
    service.send_drained(log_on(key, 1) + reload(0x0A000002, 78)[:20])
    wait_for(lambda: service.value(key) == service.sim.value(key), "a live value")
    assert service.count("reload cominfo") == 1
    service.send(reload(0x0A000002, 78)[20:] + log_on(Key(900), 1))
    service.wait_out("*VOQ*IP=0xa000002, PORT=78\r\n")
    for n in range(20):  # while the main loop reads
        service.send_drained(log_on(Key(200 + n, 1), n) + reload(n, n))
        service.wait_out("*VOQ*reload cominfo\r\n", n + 3)
    service.wait_out("*VOQ*Destroy PLC drv=", 21)
    wait_for(lambda: (service.sim.inits, service.sim.destroys) == (22, 21), "the last restart")
    assert service.node(Key(900)) is None
    service.sim.set(key, bytes(key.size))
    wait_for(lambda: service.value(key) == bytes(key.size), "polling after the restarts")

