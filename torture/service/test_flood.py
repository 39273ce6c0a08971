"""Both FIFOs full of requests of every kind while the main loop polls: nothing is lost that a fresh request needs, and
after start-up the service allocates nothing but what opening a stream takes."""
import pathlib
import random
import time

import pytest
from voqtest import (ALWAYS, CHANGE, LONG, MEDIUM, READ, SANITIZER, WORK, WRITE, Key, com_info, figure, frame, log_off, log_on,
                     retained_settings, shim, sound, wait_for)


def requests(rng, client):
    keys = [Key(addr, width, regid, layout, plcno, flag=flag) for addr in range(0, 60, 7) for width in (1, 4)
            for regid in (1, 2) for layout in (0x22, 0x00) for plcno in (1, 2) for flag in (0, ALWAYS, MEDIUM)]
    base = 1000 if client == "gui" else 3000
    kinds = (lambda key, number: log_on(key, number, rng.choice((0, 0, 12, 68, 70, 0xFFFFFFFF))),
             lambda key, number: log_off(key, number, rng.choice((0, 12))),
             lambda key, number: frame(READ, key, number),
             lambda key, number: frame(WRITE, key, number, payload=rng.randbytes(key.size)),
             lambda key, number: frame(CHANGE, key, number, subcmd=rng.choice((0, 0x20, 0x80, 0xA0)),
                                       payload=b"\x08\0" + rng.randbytes(10)))
    while True:
        kind, = rng.choices(kinds, (45, 35, 10, 7, 3))
        yield kind(rng.choice(keys), base + rng.randrange(200))


def flood(service, rng, goes_on, clients=("gui", "mek"), failures=0.02, restarts=0.05):
    """Sends requests as long as goes_on(their number), and returns that; how often the PLC fails and the driver is
    restarted, for each part sent."""
    streams, sent = {client: requests(rng, client) for client in clients}, 0
    while goes_on(sent):
        client, part = rng.choice(clients), rng.randrange(1, 40)
        service.send(b"".join(next(streams[client]) for _ in range(part)), client)
        service.trim_output()
        sent += part
        if rng.random() < restarts:  # what is buffered behind a reload frame is lost, so it travels alone
            service.send_drained(b"")
            service.send_drained(b"\xfd\0\0" + com_info(address=rng.randrange(1 << 32)))
            pathlib.Path("/tmp/srb0.dat").write_bytes(b"\1" * 30)  # the operator has changed the settings
        if rng.random() < failures:
            service.sim.fail(rng.choice((service.sim.TIMEOUT, service.sim.ERROR)), rng.randrange(1, 20))
    return sent


@pytest.mark.sanitized
@pytest.mark.parametrize("packing", [0, 1])
def test_flood(start, packing):
    rng = random.Random(packing)
    service = start(com_info(pause=1, packing=packing), [Key(10 * i, 3, regid=3) for i in range(20)],
                    environment={} if SANITIZER else shim())
    if not SANITIZER:  # which has an allocator of its own
        service.send(log_on(Key(0, 1), 1))
        wait_for(lambda: service.sim.reads, "polling")
        (WORK / "armed").touch()
        wait_for(lambda: b"*armed*" in service.err(), "the allocator watched")
        flood(service, rng, lambda sent: sent < 4000, failures=0.05, restarts=0)
        for client in ("gui", "mek"):
            service.send_drained(b"", client)
        since = service.sim.logged
        wait_for(lambda: service.sim.logged > since + 10, "polling after the flood")
        assert b"alloc" not in service.err()
    retained_settings()
    seconds = 300 if LONG else 4
    end = time.monotonic() + seconds
    sent = flood(service, rng, lambda _: time.monotonic() < end)
    service.sim.fail(0)
    assert SANITIZER or b"alloc" in service.err()  # the driver's own, when it is restarted
    for plcno, client in enumerate(("gui", "mek"), 3):
        key = Key(500, 4, plcno=plcno)
        service.send_drained(log_on(key, 9000), client)
        for value in (b"\x21" * key.size, b"\x42" * key.size):
            service.sim.set(key, value)
            wait_for(lambda: service.value(key) == value, "a live value after the flood", 60)
    sound()
    service.stop()  # and there was no report
    if SANITIZER == "thread":
        figure(f"threads: {seconds} s of floods, packing {packing}",
               f"0 reports; {sent} requests, {service.sim.inits} driver restarts", "0 reports", True)
