"""Subscriptions and what the fast-list pass reads for them: exact driver reads, exact records, live values."""
import random
import time

import pytest
from voqtest import Key, Sim, com_info, log_off, log_on, wait_for


@pytest.mark.sanitized
@pytest.mark.parametrize("client", ["gui", "mek"])
def test_subscription(start, client):
    registered, fresh = Key(10, 8), Key(100, 4, regid=0x12, subaddr=7)
    service = start(com_info(), [registered])
    wait_for(lambda: service.node(registered).state == 1, "the org-list pass")

    service.send(log_on(registered, 6, 12) + log_on(fresh, 5), client)  # known: straight to the fast list
    wait_for(lambda: service.value(fresh) == service.sim.value(fresh), "a live value")
    node = service.node(fresh)
    assert (node.offset, node.logtimes, node.state, node.key) == (68, 1, 1, fresh)
    assert abs(node.stamp[0] - time.time()) < 30 and service.node(registered).logtimes == 0

    service.send(log_on(fresh, 7) + log_off(fresh, 7) + log_off(registered, 6, 12) + log_off(fresh, 5), client)
    wait_for(lambda: service.node(fresh).logtimes == 0, "log-off")
    assert service.count("*VOQ*Find list,Offset=44\r\n") == service.count("*VOQ*Same req, LOGTIMES++ =2\r\n") == 1
    assert service.count("*VOQ*FILENO not find in list,FILENO=7\r\n*VOQ*del fast fileno=7 error!!!\r\n") == 1
    service.sim.set(fresh, b"\x5a" * fresh.size)
    wait_for(lambda: service.value(fresh) == b"\x5a" * fresh.size, "one subscription is left")
    service.send(log_off(fresh, 5, 68), client)
    wait_for(service.sim.quiet, "the end of polling")


W = dict(word_limit=64, word_gap=10)
CASES = {  # limits, subscribed ranges as (addr, width), reads of one round; more of them at random below
    "gap of G - 1 is bridged": (W, 0x22, [(0, 10), (19, 1)], [(0, 20)]),
    "gap of G is not": (W, 0x22, [(0, 10), (20, 1)], [(0, 10), (20, 1)]),
    "gap 0 joins no neighbours": (dict(W, word_gap=0), 0x22, [(0, 10), (10, 10), (15, 10)], [(0, 10), (10, 15)]),
    "a range as wide as the limit stands alone": (W, 0x22, [(0, 2), (1, 64), (70, 2)], [(0, 2), (1, 64), (70, 2)]),
    "a range wider than the limit is cut": (W, 0x22, [(1000, 150)], [(1000, 64), (1064, 64), (1128, 22)]),
    "elements smaller than an address": (W, 0x21, [(0, 3), (1, 2), (8, 2), (8, 3)], [(0, 4), (8, 2), (8, 3)]),
    "elements that begin inside one": (W, 0x12, [(0, 1), (3, 1)], [(0, 3)]),
    "one that spans no address ends its own read": (dict(W, word_gap=0), 0x41, [(0, 1), (8, 1)], [(0, 1), (8, 1)]),
    "bits": (dict(bit_limit=128, bit_gap=16), 0x00, [(0, 16), (31, 1), (48, 1), (63, 65)], [(0, 32), (48, 80)]),
    "the end of the address space": (W, 0x22, [(0, 2), (0xFFFFFFF0, 16)], [(0, 2), (0xFFFFFFF0, 16)]),
    "records by the way": (W, 0x22, [(100, 10), (115, 5)], [(100, 20)]),
    "unpacked": (dict(W, packing=2), 0x22, [(0, 4), (4, 4), (4, 6)], [(0, 4), (4, 4), (4, 6)]),
}


@pytest.mark.parametrize("name", CASES)
def test_packing(start, name):
    limits, layout, places, reads = CASES[name]
    keys = [Key(addr, width, layout=layout) for addr, width in places]
    others = Key(112, 2, layout=layout), Key(118, 4, layout=layout), Key(112, 2, 2, layout)  # not subscribed
    service = start(com_info(pause=1, **limits))
    order = keys[:]
    random.Random(name).shuffle(order)
    service.send(b"".join(log_off(key, 99) for key in others) + b"".join(log_on(key, i) for i, key in enumerate(order)))
    wait_for(lambda: all(service.node(key) for key in keys), "log-ons")
    cycle = service.sim.cycle(len(reads))
    turn = cycle.index(reads[0])
    assert cycle[turn:] + cycle[:turn] == reads
    assert all(service.node(key).state == 1 and service.value(key) == service.sim.value(key) for key in keys)
    for key in others:  # refreshed when a read covers it
        covered = key.regid == 1 and any(addr <= key.addr and key.addr + key.width <= addr + width for addr, width in reads)
        assert service.node(key).state == covered and service.value(key) == (
            service.sim.value(key) if covered else bytes(key.size))


@pytest.mark.sanitized
def test_a_plc_with_holes(start):
    """What it refuses is one range's fault or nobody's: first reads, then polling, then the PLC is a new one."""
    sim, keys = Sim(), [Key(10 * n, 4) for n in range(16)]
    sim.dig(Key(52), Key(97))  # in a range, and between two
    service = start(com_info(pause=1, word_limit=200), keys, sim=sim)
    wait_for(lambda: all(n.state for n in service.chain()), "first reads")
    for subscribed in (False, True):
        assert [n.key.addr for n in service.chain() if n.state != 1] == [50] and not (service / "comerror").exists()
        assert all(service.value(key) == (sim.value(key) if key.addr != 50 else bytes(8)) for key in keys)
        if not subscribed:
            sim.set(Key(0, 160), bytes(range(1, 161)) * 2)
            service.send(b"".join(log_on(key, key.addr) for key in keys))
            assert sorted(sim.cycle(3)) == [(0, 44), (60, 34), (100, 54)]
    sim.dig()
    again = b"".join(log_off(key, key.addr) for key in keys) + b"".join(log_on(key, key.addr) for key in keys)
    service.send(again)
    wait_for(lambda: sim.cycle(1) == [(0, 154)], "one read for all")
    assert service.node(keys[5]).state == 1


def test_logged_off_in_the_middle_of_a_round(start):
    """A range that is next when it is logged off, the driver being at work on the one before, is not read again."""
    service, keys = start(com_info(pause=1, packing=1)), [Key(n) for n in range(3)]
    service.send(b"".join(log_on(key, key.addr) for key in keys))
    cut_off = set()
    while cut_off != {0, 1, 2}:
        service.sim.cycle(3)
        service.sim.fail(service.sim.HANG)
        wait_for(lambda: service.sim.hanging, "a read that hangs")
        since, following = service.sim.logged, (service.sim.calls()[-1].addr + 2) % 3
        served = service.count("fileno=99 error")
        service.send(log_off(keys[following], following, 12) + log_off(keys[0], 99, 12))
        service.wait_out("*VOQ*del fast fileno=99 error!!!\r\n", served + 1)
        service.sim.fail(0)
        wait_for(lambda: service.sim.logged >= since + 6, "more reads")
        assert following not in [c.addr for c in service.sim.calls(since)]
        service.send(log_on(keys[following], following))
        cut_off.add(following)


def test_entries_without_a_record_are_never_polled(start):
    service = start(com_info(pause=1), [Key(0, 2)])
    offsets = 12, 13, 12 + 56 * 2, 0xFFFFFFF0, 0xFFFFFFFF  # the first alone is on a record; the last says: none
    service.send(b"".join(log_on(Key(10 * n, 2), 90 + n, offset) for n, offset in enumerate(offsets)))
    assert service.sim.cycle(20) == [(0, 2)] * 20
    said = "*VOQ*fast list: no record at org offset {} of fileno {}, not polled\r\n"
    assert [service.count(said.format(offset, 90 + n)) for n, offset in enumerate(offsets)] == [0, 1, 1, 1, 0]


def reads_of(keys, limit, gap):
    """The smallest number of reads for these ranges, which lie apart and in order: a read takes in what is of one group,
    narrower than the limit, and nearer than the gap, up to the limit."""
    def together(m, n):
        first, last, run = keys[m], keys[n], keys[m: n + 1]
        per = first.elem // first.unit  # addresses of an element
        return last.group == first.group and max(k.width for k in run) < limit and (
            last.addr + last.width * per <= first.addr + limit * per) and all(
            b.addr < a.addr + (a.width + gap) * per for a, b in zip(run, run[1:]))

    best = [0]
    for n in range(len(keys)):
        best.append(1 + min(best[m] for m in range(max(0, n - 40), n + 1) if m == n or together(m, n)))
    return best[-1]


def some_ranges(rng, amount, limit):
    """Ranges that lie apart, of three layouts, by area and address."""
    taken, keys = set(), []
    while len(keys) < amount:
        kind, addr, width = rng.randrange(1, 4), rng.randrange(1500), min(limit, rng.choice((1, 2, 3, 8, limit - 1, limit)))
        cells = {(kind, addr + i) for i in range(width)}
        if not taken & cells:
            taken |= cells
            keys.append(Key(addr * (2 if kind == 2 else 1), width, kind, {1: 0x22, 2: 0x24, 3: 0x00}[kind], plcno=kind))
    return keys


@pytest.mark.sanitized
@pytest.mark.parametrize("seed, limit, gap", [(1, 64, 10), (3, 16, 1), (4, 100, 0), (5, 7, 255)])
def test_random_layout(start, seed, limit, gap):
    """Ranges anywhere, some of them not subscribed: the fewest reads that the rules allow, every value right."""
    rng = random.Random(seed)
    service = start(com_info(word_limit=limit, bit_limit=limit, word_gap=gap, bit_gap=gap, pause=0))
    keys = some_ranges(rng, 300, limit)
    subscribed = [key for key in keys if rng.random() < 0.9]
    service.send(b"".join((log_on if key in subscribed else log_off)(key, i) for i, key in enumerate(keys)))
    wait_for(lambda: len(service.org()[1]) == len(keys), "log-ons", 60)
    amount = reads_of(sorted(subscribed, key=lambda k: (k.regid, k.place)), limit, gap)
    assert amount < len(subscribed) or gap == 0
    reads = service.sim.cycle(amount, lambda c: (c.regid, c.addr, c.width))
    assert max(width for *_, width in reads) <= limit and len(set(reads)) == amount
    for key in subscribed:
        assert service.node(key).state == 1 and service.value(key) == service.sim.value(key), key
