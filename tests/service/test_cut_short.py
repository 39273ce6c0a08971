"""The real binary ended at changes of its files, and started on damaged ones. VOQ_TORTURE=long tries more places."""
import contextlib
import random

from test_cadence import traced
from voqtest import LONG, Key, com_info, figure, log_on, wait_for

PLACES = 200 if LONG else 5
RANGES = [Key(10 * i, 2, plcno=1 + i % 2) for i in range(1, 9)]


def registered(service):
    """Place of record and region by range, along the chain; index and maps name no other."""
    (_, offset, _), nodes = service.org()
    ranges, runs = {}, {}
    while offset:
        node = nodes[offset]
        ranges[node.key] = (offset, node.dataoffset)
        runs.setdefault(node.key.group, []).append((*node.key.place, offset))
        offset = node.next
    index = service.index()
    assert {group: first for group, (first, _) in index.items()} == {group: run[0][2] for group, run in runs.items()}
    for group, run in runs.items():  # a map may lag
        with contextlib.suppress(FileNotFoundError):
            listed = service.map(group)
            assert listed == [row for row in run if row in listed] and len(listed) == index[group][1]
    return ranges


def test_ended_while_clients_register(start):
    rng = random.Random(3)
    service, kept, mended = start(com_info(pause=0), RANGES), {}, 0
    for _ in range(PLACES):
        kept = registered(service) | kept
        service.stop()
        service = start(environment=traced() | {"VOQ_CUT_CLIENT": str(rng.randrange(1, 80))})
        keys = [Key(rng.randrange(1000), rng.randrange(1, 99), plcno=rng.randrange(1, 6)) for _ in range(8)]
        service.send(b"".join(log_on(key, i) for i, key in enumerate(keys)))
        served = ("*VOQ*Find list,", "*VOQ*Same req,")
        wait_for(lambda: service.process.poll() is not None or sum(map(service.count, served)) >= len(keys), "an end")
        if service.process.poll() is not None:
            assert service.process.returncode == 9
            service.hang_up()
            service = start()
            mended += service.count("*VOQ*register database mended:")
            assert service.count("*VOQ*register database ") == service.count("*VOQ*register database mended:") < 2
        assert kept.items() <= registered(service).items()
    figure("process death: the program, ended while clients register", f"{PLACES} ends, {mended} mended, nothing lost",
           "nothing lost", mended > 0)


def test_damaged_files(start):
    """A byte changed, then a file cut. A shorter org file is waited for, a shorter index starts the table over."""
    rng = random.Random(4)
    service, slowest = start(com_info(pause=0), RANGES), 0
    registered(service)
    service.stop()
    whole = {name: (service / name).read_bytes() for name in ("org", "index", "data")}
    for place in range(2 * PLACES):
        for name, raw in whole.items():
            (service / name).write_bytes(raw)
        name = rng.choice(["org", "index"])
        at, raw = rng.randrange(16 * (place % 2), len(whole[name])), bytearray(whole[name])
        raw[at] ^= rng.randrange(1, 256)
        (service / name).write_bytes(raw[:at] if place % 2 else raw)
        service = start()
        slowest = max(slowest, service.cpu())
        assert slowest < 1, (name, at)
        assert len(registered(service)) == len(RANGES), (name, at)
        service.send(log_on(Key(500, 1), 1))
        service.wait_out("*VOQ*Find list,")
        assert Key(500, 1) in registered(service)
        service.stop()
    figure("damage: the program on damaged files", f"{PLACES} bytes, {PLACES} lengths, all mended or built anew; a start took "
           f"{slowest:.2f} s", "all, < 1 s", True)
