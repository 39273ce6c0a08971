"""Pulses that end as they should not: their bits are back as soon as the PLC answers."""
import functools
import pathlib
import struct

from test_oneshot import BITS, Client, pulse, write
from voqtest import Key, com_info, wait_for

WORD, BIT = Key(10, plcno=2), Key(20, plcno=3, **BITS)
REST, DRIVEN = (b"\x40\x15", b"\1"), (b"\x48\x15", b"\0")


def note(key, bit, value):
    raw = key.pack() + bytes([bit, value, 1, 0])
    check = functools.reduce(lambda sum, byte: (sum ^ byte) * 0x01000193 & 0xFFFFFFFF, raw, 0x811C9DC5)
    return raw + struct.pack("<I", check)


def switched_off(*stations):
    settings = pathlib.Path("/disk/hmi/rcp/srw.dat")
    settings.parent.mkdir(parents=True, exist_ok=True)
    settings.write_bytes(bytes(520) + struct.pack("<16H", sum(1 << n for n in stations), *bytes(15)))


def test_killed(start):
    """A start tries the bits of its predecessor's pulses in turn, one attempt a second, and believes only sound notes."""
    service = start()
    sim, client = service.sim, Client(service, beat=False)
    both = lambda: (sim.value(WORD), sim.value(BIT))
    asked = lambda since: [c for c in sim.calls(since) if c.command in (sim.RDONE, sim.WRONE)]
    sim.set(WORD, REST[0]), sim.set(BIT, REST[1])
    client.post(pulse(WORD, 6000, 3), pulse(BIT, 6000, 0, value=0))
    wait_for(lambda: both() == DRIVEN, "both pulses")
    service.stop()

    switched_off(WORD.plcno)
    sim.fail(sim.TIMEOUT)
    since, service = sim.logged, start(sim=sim)
    wait_for(lambda: len(asked(since)) >= 2, "attempts")
    assert {c.plcno for c in asked(since)} == {BIT.plcno} and service.peek("GlobeTimeout") == 0  # nobody asked for them
    switched_off()
    wait_for(lambda: {c.plcno for c in asked(since)} == {WORD.plcno, BIT.plcno}, "an attempt each")
    attempts = asked(since)
    assert all(b.start - a.start > 900_000 for a, b in zip(attempts, attempts[1:])) and both() == DRIVEN
    sim.fail(0)
    wait_for(lambda: both() == REST, "the bits back")
    wait_for(lambda: (service / "pulses").read_bytes() == bytes(1024 * 32), "no note")
    service.stop()

    torn = bytearray(note(Key(30, plcno=2), 3, 0))
    torn[16] ^= 1
    (service / "pulses").write_bytes(torn + note(Key(40, 4000, plcno=2), 3, 0) + note(WORD, 6, 0) + b"\1" * 40)
    since, service = sim.logged, start(sim=sim)
    service.wait_out("*VOQ*pulse ended: bit 6 is back, plcno=2, regid=1, addr=10\r\n")
    assert service.count("*VOQ*pulses cut short: 1, their bits are put back\r\n") == 1
    assert sim.quiet() and [c.addr for c in asked(since)] == [10, 10] and sim.value(WORD) == b"\0\x15"


def test_last_write_fails(start):
    """Answered as it is; the bit comes back later, but not in the midst of another pulse of the same bit."""
    service = start(com_info(pause=1))
    sim, client = service.sim, Client(service, beat=False)
    sim.set(WORD, REST[0])

    def failed(tenths, writes):
        numbers = client.post(pulse(WORD, tenths, 3))
        wait_for(lambda: sim.value(WORD) == DRIVEN[0], "the pulse")
        sim.fail(sim.ERROR, writes, station=WORD.plcno, command=sim.WRONE)
        assert client.answered(numbers) == [(3, b"")] and sim.value(WORD) == DRIVEN[0]

    failed(5, 5)
    wait_for(lambda: sim.value(WORD) == REST[0], "the bit back")
    assert service.count("*VOQ*Do Pluse write ret=3\r\n") == 3 and sim.left_to_fail == 0
    failed(5, 3)
    assert client.served(pulse(WORD, 20, 3)) == [(1, b"\1\0")] and sim.value(WORD) == REST[0]
    calls = [c for c in sim.calls() if c.plcno == WORD.plcno][-4:]
    assert [c.command for c in calls] == 2 * [sim.RDONE, sim.WRONE] and calls[2].start - calls[0].start > 1_500_000
    failed(5, 3)
    assert client.served(write(WORD.addr, 0x1548, plcno=WORD.plcno)) == [(1, b"")]  # settles it
    assert (service / "pulses").read_bytes() == bytes(1024 * 32) and sim.value(WORD) == DRIVEN[0]
    client.nothing_left()


def test_not_noted(start):
    """A pulse that cannot be noted does not reach the PLC."""
    client = Client(start(), beat=False)
    (client.service / "pulses").mkdir()
    assert client.served(pulse(WORD, 1, 3)) == [(3, b"")] and client.sim.reads == client.sim.writes == 0
    client.nothing_left()
