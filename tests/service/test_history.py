"""A long random history of log-ons and log-offs over both FIFOs against a model of the register table and the polling.
Each client has groups of its own, so the outcome does not depend on how the two streams interleave."""
import random
from collections import defaultdict

import pytest
from voqtest import ALWAYS, Key, com_info, log_off, log_on, sound, wait_for


class Model:
    """What one client's requests make of the register table and of the subscriptions."""

    def __init__(self):
        self.org = defaultdict(dict)    # group -> place -> log count
        self.subaddr = {}               # (group, place) -> second address word, as first registered
        self.fast = []                  # [rank of the group's run, place, key, fileno, count, polled], in list order
        self.ranks = 0

    def table(self, key, step):
        group = self.org[key.group]
        self.subaddr.setdefault((key.group, key.place), key.subaddr)
        group[key.place] = (group.get(key.place, 0) + step) % 65536

    def log_on(self, key, fileno, direct):
        if not direct:
            self.table(key, 1)
        run = [e for e in self.fast if e[2].group == key.group]
        same = [e for e in run if e[1] == key.place]
        if same:
            same[0][4] += 1
            return
        self.ranks += not run
        # A record of another second address word is not found; ranges without a width, or of the group bit, are read
        # without the driver.
        found = direct or self.subaddr[key.group, key.place] == key.subaddr
        self.fast.append([run[0][0] if run else self.ranks, key.place, key, fileno, 1,
                          found and key.width and not key.flag & 0x200])
        self.fast.sort(key=lambda e: e[:2])

    def log_off(self, key, fileno, direct):
        if not direct:
            self.table(key, -1)
        for entry in self.fast:
            if entry[3] == fileno:
                entry[4] -= 1
                if not entry[4]:
                    self.fast.remove(entry)
                return


@pytest.mark.sanitized
@pytest.mark.parametrize("seed", [1, 2])
def test_random_history(start, seed):
    rng = random.Random(seed)
    service = start(com_info(packing=1, pause=0))
    models = {"gui": Model(), "mek": Model()}
    keys = {name: [Key(addr, width, regid, layout, plcno, sub, flag) for plcno in (base, base + 1) for regid in (1, 300)
                   for layout in (0x22, 0x00) for sub in (0, 5, 0x10005) for flag in (ALWAYS, ALWAYS | 0x200)
                   for addr in range(0, 12, 3) for width in (0, 1, 2, 4)] for name, base in (("gui", 1), ("mek", 11))}

    def history(name, steps, offsets):
        for _ in range(steps):
            key, fileno = rng.choice(keys[name]), rng.randrange(40) + (1000 if name == "mek" else 0)
            offset = offsets.get((key.group, key.place), 0) if rng.random() < 0.4 else 0
            on = rng.random() < 0.6
            (models[name].log_on if on else models[name].log_off)(key, fileno, offset)
            yield (log_on if on else log_off)(key, fileno, offset)

    for phase in range(3):
        offsets = {(n.key.group, n.key.place): n.offset for n in service.chain()} if phase else {}
        streams = {name: b"".join(history(name, 700, offsets)) for name in models}
        last = {name: Key(500 + phase, 1, plcno=keys[name][0].plcno) for name in models}
        for name, model in models.items():
            model.log_on(last[name], 5000, 0)
            streams[name] += log_on(last[name], 5000)
        while any(streams.values()):
            name = rng.choice([n for n in streams if streams[n]])
            size = rng.choice((1, 20, 35, 300, 5000))
            service.send(streams[name][:size], name)
            streams[name] = streams[name][size:]
        wait_for(lambda: {(k.plcno, k.addr) for k in last.values()} <= {(c.plcno, c.addr) for c in service.sim.calls()},
                 "the last log-ons polled", 60)

        org = {**models["gui"].org, **models["mek"].org}
        found = defaultdict(dict)
        for node in service.chain():
            found[node.key.group][node.key.place] = node.logtimes
        assert {g: dict(p) for g, p in found.items()} == {g: p for g, p in org.items() if p}
        sound()

    for name, model in models.items():
        expected = [(e[2].plcno, e[2].regid, e[2].layout, e[2].subaddr & 0xFFFF, *e[1]) for e in model.fast if e[5]]
        assert len(expected) > 10
        own = {e[0] for e in expected}
        cycle = service.sim.cycle(len(expected), wanted=lambda c: c.plcno in own,
                                  view=lambda c: (c.plcno, c.regid, c.layout, c.subaddr & 0xFFFF, c.addr, c.width))
        turn = cycle.index(expected[0])
        assert cycle[turn:] + cycle[:turn] == expected, name
