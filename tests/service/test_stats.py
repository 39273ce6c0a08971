"""The statistics file of the real service against what the simulated PLC saw."""
import struct
from collections import Counter

import pytest
from voqtest import READ, USER, WORK, WRITE, Key, Sim, com_info, frame, log_off, log_on, wait_for

CALLS = struct.Struct("<8QII32Q")
OK, TIMEOUT, ERROR = 0, 2, 3
DRIVER, LOCK = 1, 2


class Stats:
    """The file as docs/files.md describes it."""

    def __init__(self, service):
        self.raw = (service / "stats").read_bytes()

    def at(self, form, offset):
        return struct.unpack_from("<" + form, self.raw, offset)

    pid = property(lambda self: self.at("I", 12)[0])
    main = property(lambda self: self.at("IQQQ", 124))  # wait, since, turns, turnMono
    locks = property(lambda self: self.at("2QI", 160))  # waits, time, longest
    slave_loops = property(lambda self: self.at("Q", 968 + 152)[0])
    file = property(lambda self: self.raw[120 + 88: 120 + 176].partition(b"\0")[0].decode())
    fast = property(lambda self: self.at("5QI", 968 + 56))
    org = property(lambda self: self.at("5QI", 968 + 104))
    real_time = property(lambda self: self.at("5QI", 968 + 8))
    answered = property(lambda self: self.at("3Q", 968 + 160))
    listed = property(lambda self: self.at("2I", 968 + 184))
    round = property(lambda self: self.at("Q6I", 968 + 192))

    def calls(self, number):
        """calls, ok, timeouts, errors, refused, elements, answerTime, lostTime, longest, -, answers..."""
        return CALLS.unpack_from(self.raw, 1200 + 328 * number)

    def intake(self, number):
        """longestQueue, frames, logOns, logOffs, listed, refused, refusedTimeout, reloads, droppedBytes"""
        return self.at("I8Q", 828 + 72 * number)

    def station(self, number):
        """calls, ok, timeouts, errors, refused, answerTime, lostTime, lastGood, lastBad, lastBadResult"""
        return self.at("7QqqI", 1864 + 88 * number)

    def ranges(self):
        """addr: (subscribers, readNumber, readRanges, readAddr, readWidth, readWanted, result, period)"""
        rows = [self.raw[24384 + 80 * n: 24464 + 80 * n] for n in range(2048)]
        return {Key.unpack(row[8:32]).addr: struct.unpack_from("<HHHIHHHxxqI", row, 38) for row in rows if row[4] & 1}


def quiet(service):
    wait_for(service.sim.quiet, "the end of all calls")
    turns = Stats(service).main[2]
    wait_for(lambda: Stats(service).main[2] > turns + 1, "a turn")
    return Stats(service)


@pytest.mark.sanitized
def test_counts_are_what_the_plc_saw(start):
    """Polling, one-shots of all kinds, time-outs, errors, refusals: every count, exactly."""
    service = start(com_info(pause=1, word_limit=8), [Key(300, 4), Key(304, 4)])
    sim = service.sim
    polled = [Key(0, 4), Key(6, 2), Key(40, 6, plcno=2), Key(0, 1, regid=3, plcno=3)]
    service.send(b"".join(log_on(key, n + 1) for n, key in enumerate(polled)))
    for station, failure in ((2, sim.TIMEOUT), (3, sim.ERROR)):
        wait_for(lambda: service.node(polled[3]) and all(service.node(key).state == 1 for key in polled), "polling")
        sim.fail(failure, 3, delay_us=2000, station=station)
        wait_for(lambda: sim.left_to_fail == 0, "failures")
        sim.fail(0)
    service.send(frame(READ, Key(100, 20), 50) + frame(READ, Key(120, 2), 51) + frame(WRITE, Key(200, 2), 52,
                 payload=b"abcd") + frame(WRITE, Key(200, 2), 53, payload=b"a"), "mek")
    wait_for(lambda: all((service / str(n)).exists() for n in range(50, 54)), "answers")
    sim.fail(sim.TIMEOUT, station=2)
    service.send(frame(READ, Key(1, 1, plcno=2), 54), "mek")
    wait_for(lambda: (service / "54").exists(), "an answer")
    sim.fail(0)
    service.send(b"".join(log_off(key, n + 1) for n, key in enumerate(polled)) + b"\xfe\1\0" + bytes(40))
    stats = quiet(service)

    calls = sim.calls()
    assert len(calls) == sim.logged < 4000
    for number, command in enumerate((sim.RDONE, sim.WRONE)):
        made = [c for c in calls if c.command == command]
        results = Counter(c.result for c in made)
        counted = stats.calls(number)
        assert counted[:6] == (len(made), results[OK], results[TIMEOUT], results[ERROR], 0, sum(c.width for c in made))
        assert sum(counted[10:]) == results[OK] and (counted[7] > 0) == (results[TIMEOUT] > 0)
    for station in range(5):
        made = [c for c in calls if c.command in (sim.RDONE, sim.WRONE) and c.plcno == station]
        results = Counter(c.result for c in made)
        counted = stats.station(station)
        assert counted[:5] == (len(made), results[OK], results[TIMEOUT], results[ERROR], 0)
        assert (bool(counted[7]), counted[9]) == (bool(made), {2: TIMEOUT, 3: ERROR}.get(station, 0))
    assert stats.intake(0)[1:] == (8, 4, 4, 0, 0, 0, 0, 43)
    assert stats.intake(1)[1:] == (5, 0, 0, 4, 1, 0, 0, 0) and stats.intake(1)[0] >= 1
    assert stats.answered == (3, 1, 0) and stats.listed == (0, 0) and stats.ranges() == {}
    assert stats.real_time[2] == 3 and stats.org[1] >= 1
    polls = [c for c in calls if c.command == sim.RDONE and not 100 <= c.addr < 300 and c.addr != 1]
    assert stats.fast[1] + stats.org[1] == len(polls) and stats.fast[4] + stats.org[4] == sum(c.width for c in polls)
    assert 0 < stats.fast[3] < stats.fast[4]  # two elements between 4 and 6 are a gap


def test_what_a_range_travels_in(start):
    service = start(com_info(pause=1))
    for n, key in enumerate((Key(0, 4), Key(6, 2), Key(100, 3))):
        service.send(log_on(key, n + 1) + log_on(key, n + 10) * (n == 1))
    rows = wait_for(lambda: (rows := Stats(service).ranges()) and len(rows) == 3 and all(r[-1] for r in rows.values()) and
                    rows[100][1] == 2 and rows, "three ranges read over and over")
    assert rows[0][:7] == (1, 1, 2, 0, 8, 6, 1)
    assert rows[6][:7] == (2, 1, 2, 0, 8, 6, 1)
    assert rows[100][:7] == (1, 2, 1, 100, 3, 3, 1)
    service.sim.fail(Sim.TIMEOUT, delay_us=3000)
    wait_for(lambda: Stats(service).round[5] >= 6000 and Stats(service).ranges()[0][6] == 2, "a round lost to time-outs")
    rounds, length, reads, ranges, spent, lost, station = Stats(service).round
    assert (reads, ranges, station) == (2, 3, 1) and 6000 <= lost == spent <= length and rounds > 1
    assert Stats(service).ranges()[100][-1] >= 1000


@pytest.mark.parametrize("what", ["folder", "link", "old"])
def test_what_lies_in_its_place(start, what):
    """A run that cannot make the file does without; one of an earlier run goes in any case."""
    (USER / "com_1").mkdir()
    place, target = USER / "com_1/stats", WORK / "target"
    target.write_bytes(b"theirs")
    {"folder": place.mkdir, "link": lambda: place.symlink_to(target), "old": lambda: place.write_bytes(b"x" * 188224)}[what]()
    service = start(com_info(pause=1))
    service.send(log_on(Key(), 1))
    wait_for(lambda: service.node(Key()) and service.node(Key()).state == 1, "polling")
    assert target.read_bytes() == b"theirs"
    assert service.count(f"*VOQ*{place} cannot be made, nobody sees the statistics\r\n") == (what != "old")
    assert (what == "old") == (place.is_file() and not place.is_symlink())
    assert what != "old" or Stats(service).raw[:4] == b"VOQS" and Stats(service).pid == service.process.pid
