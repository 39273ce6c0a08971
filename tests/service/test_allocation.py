"""After start-up the service allocates nothing but what opening a stream takes."""
import random

import pytest
from test_flood import requests
from voqtest import WORK, Key, com_info, log_on, preloaded, wait_for


@pytest.mark.parametrize("packing", [0, 1])
def test_nothing_is_allocated(start, packing):
    rng = random.Random(packing)
    service = start(com_info(pause=1, packing=packing), [Key(10 * i, 3, regid=3) for i in range(20)],
                    environment=preloaded("allocations"))
    service.send(log_on(Key(0, 1), 1))
    wait_for(lambda: service.sim.reads, "polling")
    (WORK / "armed").touch()
    wait_for(lambda: b"*armed*" in service.err(), "the allocator watched")
    streams = {client: requests(rng, client) for client in ("gui", "mek")}
    for n in range(200):
        client = rng.choice(("gui", "mek"))
        service.send(b"".join(next(streams[client]) for _ in range(rng.randrange(1, 40))), client)
        if n % 20 == 0:
            service.sim.fail(rng.choice((service.sim.TIMEOUT, service.sim.ERROR)), rng.randrange(1, 20))
    for client in streams:
        service.send_drained(b"", client)
    since = service.sim.logged
    wait_for(lambda: service.sim.logged > since + 10, "polling after the flood")
    assert b"alloc" not in service.err()
    service.send(b"\xfd\0\0" + com_info())  # the driver's own allocation, when it is restarted
    wait_for(lambda: b"alloc" in service.err(), "an allocation said")
