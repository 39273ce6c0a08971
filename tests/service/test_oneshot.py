"""One-shot reads, writes, changes and pulses: exact driver calls, exact answers, none twice, nothing left behind."""
import contextlib
import fcntl
import itertools
import os
import re
import struct
from collections import Counter
from dataclasses import dataclass, replace

import pytest
from voqtest import (ALWAYS, CHANGE, READ, SLOW, SLOWEST, USER, WRITE, Key, com_info, frame, gateway, libc, log_off,
                     log_on, read_locked, wait_for)

URGENT, GROUP = ALWAYS | 1 << 23, ALWAYS | 1 << 9
PULSE, CHANGED, PLAIN = 0x20, 0x80, 0  # sub-codes of a change
ADD, XOR, SET_BIT, TIMED, BIT_FIELD = 1, 5, 11, 12, 0x1001
BEAT = Key(0, 1, regid=2, plcno=7)  # polled once a turn: marks the turns in the driver's log
TURNS = 3  # from one real-time pass to the next
IN_MODIFY, IN_CLOSE_WRITE, IN_CREATE, IN_DELETE = 2, 8, 0x100, 0x200


@dataclass(frozen=True)
class Request:
    cmd: int
    key: Key
    payload: bytes = b""
    subcmd: int = 0
    code: int = 1

    def frame(self, fileno):
        return frame(self.cmd, self.key, fileno, subcmd=self.subcmd, payload=self.payload)


def read(addr, width=1, code=1, **key):
    return Request(READ, Key(addr, width, **key), code=code)


def write(addr, *words, code=1, **key):
    return Request(WRITE, Key(addr, len(words), **key), struct.pack(f"<{len(words)}H", *words), code=code)


def change(subcmd, operation, key, operands=b"", bit=0, form=0, size=0, code=1):
    descriptor = struct.pack("<HBBHH", operation, bit, 0, form, size) + operands
    return Request(CHANGE, key, struct.pack("<HH", len(descriptor), 0) + descriptor, subcmd, code)


def flip(key):
    return change(CHANGED, XOR, key, b"\x21\x21", size=2)


def field(key, first, count):
    run = (0x123456789ABCDEF0 & (1 << count) - 1).to_bytes((count + 31) // 32 * 4, "little")
    return change(CHANGED, BIT_FIELD, key, struct.pack("<HH", first, count) + run)


def pulse(key, tenths, bit, value=1):
    return change(PULSE, TIMED, key, bit=bit, form=value, size=tenths)


def cut(request):
    """The same with a descriptor that is one byte too short: refused."""
    descriptor = request.payload[4:-1]
    return replace(request, payload=struct.pack("<HH", len(descriptor), 0) + descriptor, code=3)


class Client:
    """Posts requests, takes their answers away, and counts how often the service writes each result file."""

    def __init__(self, service, beat=True):
        self.service, self.sim = service, service.sim
        self.numbers, self.fences = itertools.count(100), itertools.count(60000)
        self.posted, self.answers, self.written = {}, {}, Counter()
        self.gone, self.early = set(), set()  # payload files removed; answers that appeared before that
        self.watch = os.fdopen(libc.inotify_init1(os.O_NONBLOCK), "rb", 0)
        events = IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE
        libc.inotify_add_watch(self.watch.fileno(), bytes(service.dir), events)
        if beat:
            service.send(log_on(BEAT, 1))
            wait_for(lambda: (node := service.node(BEAT)) and node.state == 1, "polling")

    def post(self, *requests, client="mek"):
        numbers = list(itertools.islice(self.numbers, len(requests)))
        self.posted.update(zip(numbers, requests))
        self.service.send(b"".join(r.frame(n) for n, r in zip(numbers, requests)), client)
        return numbers

    def fence(self, client="mek"):
        """Waits until everything sent so far has been dispatched: a log-off that finds nothing says so."""
        number = next(self.fences)
        self.service.send(log_off(BEAT, number, 12), client)
        self.service.wait_out(f"*VOQ*del fast fileno={number} error!!!\r\n")

    @contextlib.contextmanager
    def held(self):
        """Holds the main loop in a polling read, so that what is posted meanwhile is listed when the next pass begins."""
        self.sim.fail(self.sim.HANG)
        wait_for(lambda: self.sim.hanging, "a read that hangs")
        yield self.sim.logged
        self.fence("gui"), self.fence()
        self.sim.fail(0)

    def collect(self):
        """Takes the answers that are there, checks their 40 bytes and the length of what follows them."""
        with contextlib.suppress(BlockingIOError):
            while events := os.read(self.watch.fileno(), 1 << 16):
                while events:
                    mask, length = struct.unpack_from("<4xI4xI", events)
                    name, events = events[16: 16 + length].rstrip(b"\0"), events[16 + length:]
                    if mask & IN_DELETE and name.startswith(b"rtData"):
                        self.gone.add(int(name[6:]))
                    if mask & IN_CREATE and name.isdigit() and int(name) not in self.gone:
                        self.early.add(int(name))
                    if mask & IN_CLOSE_WRITE and name.isdigit():
                        self.written[int(name)] += 1
                        self.take(int(name))

    def take(self, fileno):
        request, path = self.posted[fileno], self.service / str(fileno)
        raw = read_locked(path)
        path.unlink()
        key, command, code, used, after, fileno_there, reserved, start = struct.unpack_from("<24sHBB2xHHHI", raw)
        expected = (request.key.pack(), request.cmd + request.subcmd * 256, 1, fileno, 0, 0)
        assert (key, command, used, fileno_there, reserved, start) == expected, (fileno, request)
        listed = code == 1 or after  # a number is free with its answer: the payload went before
        assert request.cmd == READ or not listed or fileno not in self.early, (fileno, request)
        value = raw[40:]
        assert len(value) == ({READ: request.key.size, CHANGE: 2, WRITE: 0}[request.cmd] if code == 1 else 0)
        assert request.cmd != CHANGE or code != 1 or value in (b"\1\0", b"\1\x40")
        self.answers[fileno] = code, value

    def answered(self, numbers, timeout=20):
        def all_there():
            self.collect()
            return self.answers.keys() >= set(numbers)

        wait_for(all_there, "answers", timeout)
        return [self.answers[n] for n in numbers]

    def served(self, *requests, client="mek"):
        return self.answered(self.post(*requests, client=client))

    def nothing_left(self, listed=()):
        """Every request was answered, and once; no file of one is there but the payloads of those still listed."""
        wait_for(lambda: self.left() == {f"rtData{n}" for n in listed}, f"no files but of {listed}: {self.left()}")
        self.collect()
        assert self.written == Counter(self.posted.keys() - set(listed))

    def left(self):
        return {name for name in os.listdir(self.service.dir) if re.fullmatch(r"(rtData)?\d+", name)}

    def passes(self, since):
        """What each real-time pass since then asked of the driver, as "w10x1 r20x4!3": address, width, failure."""
        passes, beats, now = [], TURNS, []
        for call in self.sim.calls(since):
            if call.plcno == BEAT.plcno:
                passes += [" ".join(now)] if now else []
                beats, now = 1 if now else beats + 1, []
            elif call.command in (self.sim.RDONE, self.sim.WRONE):
                assert now or not passes or beats == TURNS, (beats, passes)
                text = f"{'r' if call.command == self.sim.RDONE else 'w'}{call.addr}x{call.width}"
                now.append(text + (f"!{call.result}" if call.result else ""))
        return passes + ([" ".join(now)] if now else [])


L8 = dict(word_limit=8)
HOLED, BITS, DOUBLE, FAR = dict(regid=3), dict(layout=0x00), dict(layout=0x24), [1000 + 100 * i for i in range(10)]
CASES = {  # settings of the port, requests listed at once, driver calls of each pass
    "urgent ones go first, the latest before all": (
        {}, [write(1, 1), write(2, 2), write(3, 3, flag=URGENT), read(100), read(300, flag=URGENT),
             write(4, 4, flag=URGENT)], ["w4x1 w3x1 w1x1 w2x1 r300x1 r100x1"]),
    "four writes and four reads a pass": (
        {}, [r for i, far in enumerate(FAR) for r in (write(i, i), read(far))],
        [" ".join([f"w{i}x1" for i in part] + [f"r{FAR[i]}x1" for i in part])
         for part in (range(4), range(4, 8), range(8, 10))]),
    "equal writes": ({}, [write(5, 1), write(5, 1), write(6, 2), write(5, 1), write(5, 1, 2)], ["w5x1 w6x1 w5x2"]),
    "different writes": ({}, [write(5, 1), write(5, 1), write(5, 2), write(5, 1)], ["w5x1 w5x1 w5x1"]),
    "widened up and down over any gap": ({}, [read(100, 4), read(104, 4), read(50, 2)], ["r50x58"]),
    "up to the limit": (L8, [read(0, 4), read(4, 4), read(8, 4)], ["r0x8 r8x4"]),
    "down to the limit": (L8, [read(10, 4), read(5, 2), read(6, 2)], ["r6x8 r5x2"]),
    "covered by a read of its own width": ({}, [read(0, 70), read(3, 4), read(69)], ["r0x64 r64x6"]),
    "more than a buffer holds": (dict(word_limit=0xFFFF), [read(0, 4), read(40000)], ["r0x4 r40000x1"]),
    "double words on word addresses": (L8, [read(0, 2, **DOUBLE), read(6, 3, **DOUBLE)], ["r0x6"]),
    "bits": ({}, [read(100, 20, **BITS), read(0, 16, **BITS), read(128, **BITS)], ["r0x120 r128x1"]),
    "elements that fill no address": (
        dict(word_limit=6, bit_limit=2), [read(1000, 10, layout=0x02), read(20, 3, layout=0x21),
                                          read(20, 5, layout=0x21), read(20, 2, layout=0x21), read(50, 3, layout=0x20),
                                          read(90, 6, layout=0x41), read(70, 7, layout=0xF1, code=3)],
        ["r1000x6 r1012x4 r20x3 r20x5 r50x2 r52x1", "r90x6"]),
    "chunks end on an address": (
        dict(word_limit=125), [read(100, 200, layout=0x21), Request(WRITE, Key(500, 200, layout=0x21), bytes(range(200))),
                               read(900, 126, layout=0x81), read(950, 130, layout=0xF2)],
        ["w500x124 w562x76 r100x124 r162x76 r900x120 r915x6 r950x120 r966x10"]),
    "other areas": ({}, [read(0), read(1, regid=2), read(1, plcno=2), read(1, subaddr=1), read(1, layout=0x12),
                         read(2, subaddr=0x10000)], ["r0x3 r1x1 r1x1 r1x1", "r1x1"]),
    "group bit": ({}, [read(10), read(12, flag=GROUP), write(20, 7, flag=GROUP)], ["w20x1 r10x3"]),
    "joined over a hole": ({}, [read(10, **HOLED), read(20, 2, code=3, **HOLED), read(30, **HOLED), read(31, **HOLED)],
                           ["r10x22!5 r10x1 r20x2!5 r20x2!5 r20x2!5 r30x1", "r31x1"]),
    "unpacked": (dict(packing=1), [read(0), read(1), read(0)], ["r0x1 r1x1"]),
    "chunks": ({}, [read(1000, 150), write(1000, *range(150)), flip(Key(2000, 130))],
               ["w1000x64 w1064x64 w1128x22 r2000x64 r2064x64 r2128x2 w2000x64 w2064x64 w2128x2 "
                "r1000x64 r1064x64 r1128x22"]),
    "changes": ({}, [flip(Key(1)), Request(CHANGE, Key(2), b"\2\0\0\0\x55\x66", PLAIN),
                     change(PULSE, SET_BIT, Key(3), bit=9, form=1), change(PULSE, SET_BIT, Key(40, **BITS), form=1),
                     change(PULSE, SET_BIT, Key(4), bit=200, form=0)],
                ["r1x1 w1x1 w2x1 r3x1 w3x1 w40x1", "r4x1 w4x1"]),
    "bit fields": ({}, [field(Key(10, 3), 4, 40), field(Key(20), 4, 12), field(Key(30, 3), 4, 44),
                        field(Key(40, 2), 4, 20), field(Key(50, 3, **DOUBLE), 1, 70), field(Key(70, 3), 4, 45)],
                   ["r10x1 r12x1 w10x3 r20x1 w20x1 r30x1 w30x3 r40x2 w40x2", "r50x1 r54x1 w50x3 r70x3 w70x3"]),
    "refused untouched": (
        {}, [Request(WRITE, Key(0, 3), b"12345", code=3), Request(WRITE, Key(0), code=3),
             Request(CHANGE, Key(0), b"\0", CHANGED, 3), Request(CHANGE, Key(0), b"\x08\0\0\0" + bytes(7), CHANGED, 3),
             Request(CHANGE, Key(0, 2), b"\2\0\0\0\1\2", PLAIN, 3), change(PULSE, SET_BIT, Key(0, 3), code=3),
             change(CHANGED, XOR, Key(0, 2001), bytes(2), size=2, code=3), read(0, 0xFFFF, code=3, **DOUBLE),
             *(cut(change(subcmd, operation, Key(0, 4), operands, form=form, size=size))
               for subcmd, operation, operands, form, size in (
                   (PULSE, TIMED, b"", 1, 1), (CHANGED, ADD, bytes(6), 2, 2), (CHANGED, 2, bytes(24), 4, 8),
                   (CHANGED, XOR, bytes(4), 0, 4), (CHANGED, 0x101, b"\1\0", 2, 2), (CHANGED, 6, b"", 0, 0),
                   (CHANGED, 99, b"", 0, 0))), cut(field(Key(0, 4), 0, 8)), cut(field(Key(0, 4), 0, 33))], []),
}


@pytest.mark.sanitized
@pytest.mark.parametrize("name", CASES)
def test_driver_calls(start, name):
    settings, requests, passes = CASES[name]
    client = Client(start(com_info(pause=1, **settings)))
    sim = client.sim
    sim.dig(Key(21, **HOLED))
    values = {r.key: sim.value(r.key) for r in requests if r.key.size < 65536}
    with client.held() as since:
        numbers = client.post(*requests)
    answers = client.answered(numbers)
    client.nothing_left()
    assert client.passes(since) == passes
    assert [code for code, _ in answers] == [r.code for r in requests]
    for request, (code, value) in zip(requests, answers):
        if request.cmd == READ and code == 1:
            assert value == (bytes(request.key.size) if request.key.flag == GROUP else sim.value(request.key)), request
        elif code == 1 and request.subcmd == PLAIN:
            values[request.key] = request.payload[-request.key.size:]
        elif code == 1 and request.payload[6] < 8 * request.key.size:  # test_changes.py knows what becomes of the others
            del values[request.key]
    assert {key: sim.value(key) for key in values} == values
    assert client.service.count("*VOQ*write diffrent,break\r\n") == (2 if name == "different writes" else 0)


def test_gateway(start):
    """More than twenty listed requests: each phase of a pass serves a fifth of them and one more. For each request
    answered, ten entries are looked at for others that the same access answers."""
    gateway(com_info(pause=1))
    client = Client(start())

    def passes(*requests, listed=()):
        with client.held() as since:
            numbers = client.post(*requests)
        client.answered([n for n in numbers if client.posted[n] not in listed])
        return client.passes(since)

    sizes, left = [], 60
    while left:
        sizes.append(min(left, (left // 5 if left > 20 else 3) + 1))
        left -= sizes[-1]
    assert [text.count("w") for text in passes(*(write(i, i) for i in range(60)))] == sizes
    far, stays = [read(200 + i) for i in range(11)], change(PULSE, 13, Key(0))
    assert passes(write(5, 1), *far[:10], write(5, 1)) == ["w5x1 r200x10"]
    assert passes(write(5, 1), *far, write(5, 1)) == ["w5x1 w5x1 r200x11"]
    assert passes(read(5), *[stays] * 19, read(5), listed=[stays]) == ["r5x1"]
    assert passes(read(5), *[stays] * 20, read(5), listed=[stays]) == ["r5x1 r5x1"]


def test_pulses_and_writes_take_turns(start):
    """Five long pulses ahead of six writes: a pass tries four, and one more turn goes to whatever waits longest."""
    client = Client(start(com_info(pause=1)))
    with client.held() as since:
        pulses = client.post(*(pulse(Key(20 + i), 100, 0) for i in range(5)))
        writes = client.post(*(write(30 + i, i) for i in range(6)))
    client.answered(writes)
    assert client.passes(since) == [" ".join(f"r{n}x1 w{n}x1" for n in range(20, 25)), "w30x1", "w31x1 w32x1 w33x1",
                                    "w34x1", "w35x1"]
    client.nothing_left(listed=pulses)


def test_a_slot_that_is_taken_again(start):
    """A request that is listed in the slot of one just answered, while that read's others are, is not taken for it."""
    client = Client(start(com_info(pause=1)))
    service, last = client.service, read(9000)
    with client.held():
        for n, request in enumerate((read(105), read(5000), read(100, 10, flag=URGENT))):
            service.send(request.frame(n), "mek")
        blocked = os.open(service / "0", os.O_RDWR | os.O_CREAT)
        fcntl.lockf(blocked, fcntl.LOCK_EX)  # the first one's answer has to wait
    wait_for(lambda: service.peek("GuiListHead") & 0xFFFF == 2, "the urgent one gone")
    service.send(last.frame(3), "mek")
    client.fence()
    os.close(blocked)
    wait_for(lambda: (service / "3").exists() and len(read_locked(service / "3")) == 42, "the last answer")
    assert read_locked(service / "3")[40:] == client.sim.value(last.key)


def test_files_that_are_of_no_use(start):
    (USER / "com_1").mkdir()
    (USER / "com_1" / "rtData9").write_bytes(b"of an earlier run")
    client = Client(start(com_info(pause=1)))
    assert client.left() == set()
    service, first = client.service, next(client.numbers) + 2

    def place(n, prefix=""):
        return service / f"{prefix}{first + n}"

    place(-1, "rtData").write_bytes(b"of a write to come: a read removes no payload")
    assert client.served(read(1))[0][0] == 1 and client.left() == {place(-1, "rtData").name}
    place(-1, "rtData").unlink()
    place(0, "rtData").mkdir()  # the payload cannot be kept
    place(1).mkdir()            # the answer cannot be written: the request goes all the same
    with client.held() as since:
        numbers = client.post(write(0, 1, code=3), write(1, 1), write(2, 1, code=3), write(3, 1, code=3), write(4, 1),
                              write(4, 1, code=3), flip(Key(5)))
        client.fence()
        place(2, "rtData").unlink()
        for n, size in ((3, 1), (5, 1), (6, 7)):
            os.truncate(place(n, "rtData"), size)
    client.answered([n for n in numbers if n != first + 1])
    assert client.passes(since) == ["w1x1 w4x1"]
    assert [client.answers[n][0] for n in numbers if n != first + 1] == [3, 3, 3, 1, 3, 3]
    out = service.out().decode()
    for text in ("Rt write fileopen error\r\n", f"wr read {place(3, 'rtData')} ret=0,rtcount=",
                 f"infunc wr read {place(5, 'rtData')} ret=0\r\n", f"wdwr read {place(6, 'rtData')} 2 ret=0\r\n"):
        assert "*VOQ*" + text in out
    place(1).rmdir(), place(0, "rtData").rmdir()
    assert client.served(write(1, 2)) == [(1, b"")] and client.left() == set()


def test_attempts_and_markers(start):
    client = Client(start(com_info(pause=10)), beat=False)
    sim, service = client.sim, client.service

    def attempt(request, failure, count, code, calls, command=0):
        sim.fail(failure, count, command=command)
        since = sim.logged
        assert client.served(request)[0][0] == code
        assert client.passes(since) == [calls] and sim.left_to_fail in (0, 0xFFFFFFFF)
        tries = sim.calls(since)
        if request.cmd != CHANGE:  # with the port's pause in front of each further attempt
            assert all(b.start - a.start >= 10_000 for a, b in zip(tries, tries[1:]) if a.result)
        sim.fail(0)
        return {name for name in ("timeout", "comerror") if (service / name).exists()}

    three = "{0}!{1} {0}!{1} {0}!{1}"
    assert attempt(read(9), sim.TIMEOUT, 2, 1, "r9x1!2 r9x1!2 r9x1") == set()
    assert attempt(read(0, 150), sim.TIMEOUT, 3, 2, three.format("r0x64", 2)) == {"timeout"}
    assert attempt(write(7, 1), sim.ERROR, 3, 3, three.format("w7x1", 3)) == {"timeout"}
    assert attempt(flip(Key(5)), sim.ERROR, 1, 3, "r5x1!3") == {"timeout"}  # no second attempt before a change
    assert attempt(flip(Key(5)), sim.ERROR, 2, 1, "r5x1 w5x1!3 w5x1!3 w5x1", sim.WRONE) == set()
    assert attempt(write(7, 1), sim.ERROR, 3, 3, three.format("w7x1", 3)) == set()
    assert attempt(read(9), sim.ERROR, 3, 3, three.format("r9x1", 3)) == {"comerror"}
    assert service.count("*VOQ*ERROR timeout! mode:2 error:3\r\n") == 2
    assert service.count("*VOQ*ERROR timeout! mode:1 error:3\r\n") == 2
    client.nothing_left()


@pytest.mark.parametrize("failure, refusal", [(2, 4), (3, 3)])
def test_refusals(start, failure, refusal):
    client = Client(start(), beat=False)
    sim, service = client.sim, client.service
    sim.fail(failure, 3)
    assert client.served(read(0)) == [(failure, b"")]
    sim.fail(sim.HANG)
    listed = client.post(read(100))
    wait_for(lambda: sim.hanging, "a read that hangs")
    listed += client.post(read(200), write(1, 1))  # a third while no more than two are listed
    client.fence()
    assert client.served(read(300), write(2, 2), flip(Key(3))) == [(refusal, b"")] * 3
    listed += client.post(*[change(PULSE, SET_BIT, Key(4 + n), form=1) for n in range(5)])  # let in all the same
    client.fence()
    assert len(client.left()) == 6
    sim.fail(0)
    assert {code for code, _ in client.answered(listed)} == {1}

    sim.fail(sim.HANG)
    listed = client.post(read(0))
    wait_for(lambda: sim.hanging, "a read that hangs")
    listed += client.post(*(read(i % 5000) for i in range(500)), client="gui")
    client.fence("gui")
    listed += client.post(*(read(i) for i in range(500)))
    client.fence()
    refused = [read(9000), write(1, 1), change(PULSE, SET_BIT, Key(4), form=1)]
    assert client.served(*refused) == [(3, b"")] * 3
    assert service.count("*VOQ*rtDatafile too much,=1001\r\n") == 3
    sim.fail(0)
    assert all(answer == (1, sim.value(client.posted[n].key)) for n, answer in zip(listed, client.answered(listed, 60)))
    assert client.served(read(9000)) == [(1, sim.value(Key(9000)))]
    client.nothing_left()


@pytest.mark.parametrize("failed_reads", [0, 2])
def test_pulses(start, failed_reads):
    """Two pulses at once, writes going on; an unknown pulse that never ends holds up nothing."""
    client = Client(start(com_info(pause=1)))
    sim, since = client.sim, client.sim.logged
    word, bit = Key(10, plcno=2), Key(20, plcno=3, **BITS)
    sim.set(word, b"\x40\x15"), sim.set(bit, b"\1")
    endless = client.post(change(PULSE, 13, Key(0)))
    pulses = client.post(pulse(word, 2, 3), pulse(bit, 3, 0, value=0))
    wait_for(lambda: (sim.value(word), sim.value(bit)) == (b"\x48\x15", b"\0"), "both pulses")
    if failed_reads:
        sim.fail(sim.ERROR, failed_reads, station=word.plcno, command=sim.RDONE)
    writes = 0
    while not client.answers.keys() >= set(pulses):
        assert writes < 50_000 and client.served(write(5, writes)) == [(1, b"")]
        writes += 1
    assert [client.answers[n] for n in pulses] == [(1, b"\1\0")] * 2 and writes * SLOW > 10
    assert (sim.value(word), sim.value(bit)) == (b"\x40\x15", b"\1")
    assert client.service.count("*VOQ*Do Pluse Read failed\n") == failed_reads

    both = [sim.RDONE, sim.WRONE]
    for key, each, waits, width in (word, both, failed_reads, 200_000), (bit, both[1:], 0, 300_000):
        own = [c for c in sim.calls(since) if c.plcno == key.plcno]
        assert [c.command for c in own] == each + [sim.RDONE] * waits + each
        assert own[-1].start - own[0].start > width - 50_000  # to the millisecond: the pulse's own test
    client.nothing_left(listed=endless)


def test_subscribed_ranges(start):
    """A subscription that is polled every two seconds shows what one-shots write and read meanwhile."""
    slow = [Key(100, 4, flag=SLOWEST), Key(102, 1, flag=SLOWEST), Key(110, 2, flag=SLOWEST)]
    client = Client(start())
    sim, service, unread = client.sim, client.service, [Key(299, 1), Key(298, 2), Key(299, 2)]
    for i, key in enumerate(slow):
        service.send(log_on(key, 10 + i))
    service.send(b"".join(log_off(key, 9) for key in unread))  # records that nobody reads
    wait_for(lambda: all(service.node(k) and service.node(k).state == 1 for k in slow), "first values")
    wait_for(lambda: all(map(service.node, unread)), "records")

    def unpolled(act):
        """What happened between two looks at the log in which no poll was made; polls are due every two seconds."""
        for _ in range(50):
            since = sim.logged
            act()
            if not any(c.flag == SLOWEST for c in sim.calls(since)):
                return
        pytest.fail("a poll every time")

    def written():
        before, value, old = service.value(slow[0]), os.urandom(8), sim.value(slow[2])
        sim.fail(sim.ERROR, 3, command=sim.WRONE)
        assert client.served(Request(WRITE, Key(100, 4), value)) == [(3, b"")] and service.value(slow[0]) == before
        assert client.served(Request(WRITE, Key(100, 4), value), flip(Key(110, 2))) == [(1, b""), (1, b"\1\0")]
        wait_for(lambda: [service.value(k) for k in slow] == [value, value[4:6], sim.value(slow[2])], "the values written", 2)
        assert sim.value(slow[2]) != old

    def read_back():
        value = os.urandom(8)
        sim.set(slow[0], value)
        assert client.served(read(100, 12)) == [(1, sim.value(Key(100, 12)))]
        assert client.served(read(100, 4)) == [(1, value)]
        wait_for(lambda: [service.value(k) for k in slow] == [sim.value(k) for k in slow], "the value read", 2)

    for act in (written, read_back):
        unpolled(act)
    for request, states in ((read(297, 3), [0, 0, 0]), (write(297, 1, 2, 3), [1, 1, 0])):  # nothing is subscribed there
        assert client.served(request)[0][0] == 1
        assert [service.node(k).state for k in unread] == states
    assert service.value(unread[1]) == b"\2\0\3\0" and service.value(unread[2]) == bytes(4)
    client.nothing_left()
