"""Both FIFOs full of requests of every kind while the main loop polls: nothing is lost that a fresh request needs."""
import pathlib
import random
import struct
import time

import pytest
from voqtest import (ALWAYS, CHANGE, LONG, MEDIUM, READ, SANITIZER, WRITE, Key, com_info, figure, frame, log_off, log_on,
                     retained_settings, wait_for)


def requests(rng, client):
    keys = [Key(addr, width, regid, layout, plcno, flag=flag) for addr in range(0, 60, 7) for width in (1, 4)
            for regid in (1, 2) for layout in (0x22, 0x00) for plcno in (1, 2) for flag in (0, ALWAYS, MEDIUM)]
    base = 1000 if client == "gui" else 3000
    while True:
        key, fileno = rng.choice(keys), base + rng.randrange(200)
        kind = rng.random()
        if kind < 0.45:
            yield log_on(key, fileno, rng.choice((0, 0, 12, 68, 70, 0xFFFFFFFF)))
        elif kind < 0.8:
            yield log_off(key, fileno, rng.choice((0, 12)))
        elif kind < 0.9:
            yield frame(READ, key, fileno)
        elif kind < 0.97:
            yield frame(WRITE, key, fileno, payload=rng.randbytes(key.size))
        else:
            change = struct.pack("<H", 8) + rng.randbytes(10)
            yield frame(CHANGE, key, fileno, subcmd=rng.choice((0, 0x20, 0x80, 0xA0)), payload=change)


@pytest.mark.sanitized
@pytest.mark.parametrize("packing", [0, 1])
def test_flood(start, packing):
    rng = random.Random(packing)
    service = start(com_info(pause=1, packing=packing), [Key(10 * i, 3, regid=3) for i in range(20)])
    streams = {client: requests(rng, client) for client in ("gui", "mek")}
    seconds, sent = 300 if LONG else 4, 0
    end = time.monotonic() + seconds
    retained_settings()
    while time.monotonic() < end:
        client, part = rng.choice(("gui", "mek")), rng.randrange(1, 40)
        service.send(b"".join(next(streams[client]) for _ in range(part)), client)
        service.trim_output()
        sent += part
        if rng.random() < 0.05:  # what is buffered behind a reload frame is lost, so it travels alone
            service.send_drained(b"")
            service.send_drained(b"\xfd\0\0" + com_info(address=rng.randrange(1 << 32)))
            pathlib.Path("/tmp/srb0.dat").write_bytes(b"\1" * 30)  # the operator has changed the settings
        if rng.random() < 0.02:
            service.sim.fail(rng.choice((service.sim.TIMEOUT, service.sim.ERROR)), rng.randrange(1, 20))
        assert service.process.poll() is None, service.err()
    service.sim.fail(0)
    fresh = {client: Key(500, 4, plcno=plcno) for plcno, client in enumerate(("gui", "mek"), 3)}
    for client, key in fresh.items():
        service.send_drained(log_on(key, 9000), client)
    for key in fresh.values():
        for value in (b"\x21", b"\x42"):
            service.sim.set(key, value * key.size)
            wait_for(lambda: service.value(key) == value * key.size, "a live value after the flood", 60)
    service.chain()
    service.stop()  # and there was no report
    if SANITIZER == "thread":
        figure(f"threads: {seconds} s of floods, packing {packing}",
               f"0 reports; {sent} requests, {service.sim.inits} driver restarts", "0 reports", True)
