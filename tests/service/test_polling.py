"""Subscriptions and what the fast-list pass reads for them: exact driver reads, exact records, live values."""
import math
import random
import time
from dataclasses import replace

import pytest
from voqtest import SLOWEST, Key, com_info, log_off, log_on, wait_for


@pytest.mark.sanitized
@pytest.mark.parametrize("client", ["gui", "mek"])
def test_subscription(start, client):
    registered, fresh = Key(10, 8), Key(100, 4, regid=0x12, subaddr=7)
    service = start(com_info(), [registered])
    wait_for(lambda: service.node(registered).state == 1, "the org-list pass")

    service.send(log_on(fresh, 5), client)  # unknown: found or made through the org list
    wait_for(lambda: service.value(fresh) == service.sim.value(fresh), "a live value")
    node = service.node(fresh)
    assert (node.offset, node.logtimes, node.state, node.key) == (68, 1, 1, fresh)
    assert abs(node.stamp[0] - time.time()) < 30
    assert service.index()[fresh.group] == (68, 1) and service.map(fresh.group) == [(100, 4, 68)]
    assert service.count("*VOQ*Find list,Offset=44\r\n") == 1
    service.send(log_on(registered, 6, 12), client)  # known: straight to the fast list
    for n in range(3):
        for key in (fresh, registered):
            service.sim.set(key, bytes([n + 1]) * key.size)
            wait_for(lambda: service.value(key) == bytes([n + 1]) * key.size, "a changed value")
    assert service.node(registered).logtimes == 0 and service.node(fresh).stamp > node.stamp

    service.send(log_on(fresh, 7) + log_off(fresh, 7) + log_off(fresh, 99, 68), client)
    service.wait_out("*VOQ*del fast fileno=99 error!!!\r\n")
    assert service.count("*VOQ*Same req, LOGTIMES++ =2\r\n") == 1
    assert service.count("*VOQ*FILENO not find in list,FILENO=7\r\n*VOQ*del fast fileno=7 error!!!\r\n") == 1
    service.send(log_off(registered, 6, 12) + log_off(fresh, 5), client)
    wait_for(lambda: service.node(fresh).logtimes == 0, "log-off")
    service.sim.set(fresh, b"\x5a" * fresh.size)
    wait_for(lambda: service.value(fresh) == b"\x5a" * fresh.size, "one subscription is left")
    service.send(log_off(fresh, 5, 68), client)
    wait_for(service.sim.quiet, "the end of polling")
    service.sim.set(fresh, b"\x11" * fresh.size)
    assert service.sim.quiet() and service.value(fresh) == b"\x5a" * fresh.size


W = dict(word_limit=64, word_gap=10)
CASES = {  # limits, subscribed ranges as (addr, width), reads of one round; more of them at random below
    "gap of G - 1 is bridged": (W, 0x22, [(0, 10), (19, 1)], [(0, 20)]),
    "gap of G is not": (W, 0x22, [(0, 10), (20, 1)], [(0, 10), (20, 1)]),
    "gap 0 joins no neighbours": (dict(W, word_gap=0), 0x22, [(0, 10), (10, 10), (15, 10)], [(0, 10), (10, 15)]),
    "a range as wide as the limit stands alone": (W, 0x22, [(0, 2), (1, 64), (70, 2)], [(0, 2), (1, 64), (70, 2)]),
    "a range wider than the limit is cut": (W, 0x22, [(1000, 150)], [(1000, 64), (1064, 64), (1128, 22)]),
    "elements smaller than an address": (W, 0x21, [(0, 3), (1, 2), (8, 2), (8, 3)], [(0, 4), (8, 2), (8, 3)]),
    "bits": (dict(bit_limit=128, bit_gap=16), 0x00, [(0, 16), (31, 1), (48, 1), (63, 65)], [(0, 32), (48, 80)]),
    "the end of the address space": (W, 0x22, [(0, 2), (0xFFFFFFF0, 16)], [(0, 2), (0xFFFFFFF0, 16)]),
    "unpacked": (dict(W, packing=2), 0x22, [(0, 4), (4, 4), (4, 6)], [(0, 4), (4, 4), (4, 6)]),
}


@pytest.mark.parametrize("name", CASES)
def test_packing(start, name):
    limits, layout, places, reads = CASES[name]
    keys = [Key(addr, width, layout=layout) for addr, width in places]
    service = start(com_info(pause=1, **limits))
    order = keys[:]
    random.Random(name).shuffle(order)
    service.send(b"".join(log_on(key, i) for i, key in enumerate(order)))
    wait_for(lambda: all(service.node(key) for key in keys), "log-ons")
    cycle = service.sim.cycle(len(reads))
    turn = cycle.index(reads[0])
    assert cycle[turn:] + cycle[:turn] == reads
    assert all(service.node(key).state == 1 and service.value(key) == service.sim.value(key) for key in keys)
    if name == "unpacked":
        assert service.count("*VOQ*<OperFastList_NoPack>PlcOper ret=1,addrType=2 flag=10000\r\n") > 3


def test_records_inside_a_read(start):
    """Every record inside the read is refreshed, subscribed or not; one that reaches beyond it is left alone."""
    inside, beyond, other = Key(112, 2), Key(118, 4), Key(112, 2, regid=2)
    service = start(com_info())
    service.send(b"".join(log_off(key, 1) for key in (inside, beyond, other)))  # makes the records, subscribes nothing
    service.send(log_on(Key(100, 10), 2) + log_on(Key(115, 5), 3))
    wait_for(lambda: service.node(Key(115, 5)) and (100, 20) in service.sim.read_places(), "the packed read")
    wait_for(lambda: service.value(inside) == service.sim.value(inside), "a value by the way")
    since = service.sim.logged
    wait_for(lambda: service.sim.logged > since + 3, "more reads")
    assert service.node(inside).state == 1 and service.node(inside).logtimes == 0xFFFF
    for key in (beyond, other):
        assert service.node(key).state == 0 and not any(service.value(key))


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


def test_due_or_not(start):
    """Slow ranges come along only when due."""
    service = start(com_info(pause=1))
    slow, fast = Key(10, 2, flag=SLOWEST), [Key(0, 2), Key(20, 2)]
    begin = time.monotonic()
    service.send(b"".join(log_on(key, i) for i, key in enumerate([slow, *fast])))
    wait_for(lambda: (0, 22) in service.sim.read_places(), "the slow range read along with its neighbours")
    calls = [c for c in service.sim.calls() if c.command == service.sim.RDONE]
    assert {(c.addr, c.width) for c in calls} <= {(0, 2), (20, 2), (0, 12), (0, 22)}
    assert min(c.start for c in calls if c.width > 2) >= (begin + 1.99) * 1e6
    assert service.value(slow) == service.sim.value(slow) or service.node(slow).state == 0


def span(n, key):
    return n * key.elem // key.unit


def joint(keys, limit, gap):
    """The width of one read for these ranges, None when they cannot share one."""
    a, width = keys[0], keys[0].width
    for key in keys:
        end, most, reach = a.addr + span(width, a), a.addr + span(limit, a), key.addr + span(key.width, a)
        if (key.group != a.group or a.width >= limit or key.width >= limit or key.addr >= end + span(gap, a)
                or key.addr >= most or reach > most):
            return a.width if len(keys) == 1 else None
        width = max(width, -(-(max(end, reach) - a.addr) * a.unit // a.elem))
        if (key.addr - a.addr) * key.unit + key.size > width * a.elem:
            return None
    return width


def runs_of(keys, limit, gap):
    """Each run's first range and the width of its read, when every read takes in as many ranges as it may."""
    while keys:
        n = 1
        while n < len(keys) and joint(keys[: n + 1], limit, gap) is not None:
            n += 1
        yield keys[0], joint(keys[:n], limit, gap)
        keys = keys[n:]


def chunks(key, width, limit):
    """The ranges that the driver is asked for to read so many elements from the key's address."""
    step = limit - limit % (key.unit // math.gcd(key.elem, key.unit)) if key.layout & 15 and width > limit else limit
    return [replace(key, addr=key.addr + done // step * span(step, key), width=min(step, width - done))
            for done in range(0, width, step)]


def longest_runs(keys, limit, gap):
    """The reads of one round as (regid, addr, width); and how many runs they make."""
    runs = list(runs_of(keys, limit, gap))
    return [(c.regid, c.addr, c.width) for run in runs for c in chunks(*run, limit)], len(runs)


def fewest_runs(keys, limit, gap):
    """The smallest number of reads that any cut of this order into runs allows."""
    best = [0]
    for last in range(len(keys)):
        firsts = range(max(0, last - 40), last + 1)
        best.append(min(best[f] + 1 for f in firsts if joint(keys[f: last + 1], limit, gap) is not None))
    return best[-1]


SIZES = {0: 0x41, 1: 0x22, 2: 0x24, 3: 0x00, 4: 0x12}  # by regid: element and address unit
LAYOUTS = [(1, 64, 10, True), (2, 64, 10, False), (3, 16, 1, True), (4, 100, 0, False),
           (5, 7, 255, True), (6, 7, 255, False)]


@pytest.mark.sanitized
@pytest.mark.parametrize("seed, limit, gap, disjoint", LAYOUTS)
def test_random_layout(start, seed, limit, gap, disjoint):
    """500 ranges anywhere, some of them not subscribed: as few reads as the rules allow, every value right."""
    rng = random.Random(seed)
    service = start(com_info(word_limit=limit, bit_limit=limit, word_gap=gap, bit_gap=gap, pause=0))
    places, taken = set(), set()
    while len(places) < 500:
        regid, addr = rng.randrange(1 if disjoint else 0, 5), rng.randrange(2000)
        width = rng.choice((1, 1, 2, 3, 8, 20, limit - 1, limit, limit + 1))
        cells = {(regid, addr + i) for i in range(width)}
        if not (disjoint and taken & cells):
            taken |= cells
            places.add((regid, addr, width))
    keys = [Key(addr * max(1, span(1, Key(layout=SIZES[regid]))), width, regid, SIZES[regid])
            for regid, addr, width in places]
    subscribed = [key for key in keys if rng.random() < 0.9]
    service.send(b"".join((log_on if key in subscribed else log_off)(key, i) for i, key in enumerate(keys)))
    wait_for(lambda: len(service.org()[1]) == 500, "log-ons", 60)
    order = list(dict.fromkeys(key.regid for key in subscribed))
    subscribed.sort(key=lambda k: (order.index(k.regid), k.place))
    reads, runs = longest_runs(subscribed, limit, gap)
    assert runs < 450 and (not disjoint or runs == fewest_runs(subscribed, limit, gap))
    since = service.sim.logged
    wait_for(lambda: service.sim.logged > since + 2 * len(reads), "a round of reads", 60)
    cycle = service.sim.cycle(len(reads), lambda c: (c.regid, c.addr, c.width))
    turn = cycle.index(reads[0])
    assert cycle[turn:] + cycle[:turn] == reads
    data, skipped = (service / "data").read_bytes(), 0
    images = [(a, a.addr + span(width, a), b"".join(map(service.sim.value, chunks(a, width, limit))))
              for a, width in runs_of(subscribed, limit, gap)]
    for node in service.chain():
        key = node.key
        inside = [(image, (key.addr - a.addr) * key.unit) for a, end, image in images
                  if a.group == key.group and a.addr <= key.addr and key.addr + span(key.width, key) <= end]
        values = [image[at: at + key.size] for image, at in inside if at + key.size <= len(image)]
        assert node.state == (len(values) > 0), node
        assert data[node.dataoffset: node.dataoffset + key.size] in (values or [bytes(key.size)]), node
        skipped += not values
    assert 0 < skipped < 100
