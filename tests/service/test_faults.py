"""Every call of the system that can fail does, once and for ever, at every place in the service that makes it (faults.c):
nothing crashes, nothing answers success for what was not done, and every file is closed again."""
import contextlib
import fcntl
import os
import pathlib
import struct
import subprocess
import termios
import time

import pytest
from test_oneshot import CHANGED, PLAIN, PULSE, SET_BIT, Request, change, flip, pulse, read, write
from voqtest import (BUILD, CHANGE, LONG, PROJECT, READ, USER, WORK, WRITE, Key, Service, com_info, empty_box, figure,
                     install_driver, log_off, log_on, preloaded, project, retained_settings, voqctl)

GROUP = [Key(100, 4), Key(120, 4), Key(140, 4)]
KEPT = Key(7, 1, regid=3)
FRESH = [Key(900, 2), Key(20, 2), Key(30, 2, regid=4)]  # the end and the front of a group, a new group
LASTING = ("pthread_create", "dlopen", "mkdir", "mkfifo")  # what start-up does once is not done later
NEW = [Key(50, 2), Key(110, 4), Key(300, 2), Key(0, 4, regid=3), Key(0, 1, regid=2, layout=0x00)]
FIRST_PORT = com_info(pause=1)


def soon(condition, seconds=2):
    """As wait_for(), but what a fault prevents is given up."""
    end = time.monotonic() + seconds
    while not (there := condition()) and time.monotonic() < end:
        time.sleep(0.003)
    return there


class Faulty:
    """The service under one fault (None: none), and what it answered."""

    def __init__(self, fault=None, times=0):
        (WORK / "sites").unlink(missing_ok=True)
        self.passes = times == 1 and not fault.startswith(LASTING)
        fails = {"VOQ_FAULT": fault, "VOQ_TIMES": str(times)} if fault else {}
        self.service = Service(ready=False, environment=preloaded("faults") | {"VOQ_SITES": str(WORK / "sites")} | fails)
        self.process, self.sim, self.asked, self.wrong = self.service.process, self.service.sim, {}, []
        began = soon(lambda: self.process.poll() is not None or b"GlobeWatchDogAddr" in self.service.out()
                     or self.service.count("Start Read ORG file ret=0") > 9, 30)
        self.up = self.process.poll() is None and b"GlobeWatchDogAddr" in self.service.out()
        if not began:
            self.wrong.append("hangs at its start")

    def sites(self):
        return (WORK / "sites").read_text().splitlines() if (WORK / "sites").exists() else []

    def settled(self):
        """Everything sent is taken in, no request waits, no file is open: seen three times. Pulses may stay for ever when
        the PLC cannot be read."""
        unread, seen = bytearray(4), 0
        for attempt in range(2000):
            if self.process.poll() is not None:
                return
            for fifo in self.service.fifos.values():
                fcntl.ioctl(fifo, termios.FIONREAD, unread)
            waiting, files = self.service.peek("rtDataFileCount"), self.service.peek("VoqFileOpenCount")
            if attempt > 200:
                waiting -= sum((self.service / f"rtData{n}").exists() for n, (r, _) in self.asked.items() if r.subcmd == PULSE)
            seen = 0 if any(unread) or waiting or files else seen + 1
            if seen == 3:
                return
            time.sleep(0.002)
        self.wrong.append(f"stuck: {files} files open, {waiting} requests wait")

    def send(self, data, client="gui"):
        path = self.service / f"{client}fifo"
        if client not in self.service.fifos:
            descriptor = soon(lambda: path.exists() and Service._open(path), 0.5)
            if not descriptor:
                return
            self.service.fifos[client] = descriptor
        with contextlib.suppress(BrokenPipeError):
            os.write(self.service.fifos[client], data)

    def ask(self, *requests, client="gui"):
        first = 1000 + len(self.asked)
        before = [self.sim.value(r.key) for r in requests]
        self.asked |= dict(zip(range(first, 2000), zip(requests, before)))
        self.send(b"".join(r.frame(n) for n, r in enumerate(requests, first)), client)

    def work(self):
        """Something of everything that clients, operator and PLC make the service do."""
        sim, service = self.sim, self.service
        self.send(b"".join(log_on(key, 100 + n) for n, key in enumerate(GROUP + NEW[:3])))
        self.send(log_on(GROUP[0], 200) + log_on(NEW[3], 201) + log_on(NEW[4], 202) + log_on(GROUP[1], 203, 68), "mek")
        self.settled()
        self.ask(write(500, 1), write(500, 1), write(510, 1), write(510, 2), write(GROUP[0].addr, 1, 2, 3, 4),
                 flip(Key(520)), Request(CHANGE, Key(530), b"\2\0\0\0\x55\x66", PLAIN), read(600), read(602, 2),
                 read(GROUP[2].addr, 4), change(PULSE, SET_BIT, Key(540), bit=9, form=1), pulse(Key(550), 1, 5))
        self.ask(Request(WRITE, Key(0, 3), b"12345", code=3), read(604), pulse(Key(0, 1, layout=0x00), 1, 0),
                 client="mek")
        self.settled()
        for failure in (sim.TIMEOUT, sim.ERROR):
            sim.fail(failure, 6)
            soon(lambda: sim.left_to_fail == 0, 0.3)
        sim.fail(0)
        retained_settings()
        pathlib.Path("/tmp/srb0.dat").write_bytes(b"\1" * 100)
        self.send(b"\xfd\0\0" + FIRST_PORT)
        soon(lambda: not any(pathlib.Path("/tmp/srb0.dat").read_bytes()[20:22]), 0.3)
        self.send(log_off(GROUP[1], 101) + log_off(NEW[1], 9999) + log_off(Key(0, 2, regid=4), 9998) + log_on(NEW[2], 210))
        self.settled()
        changed = time.time()
        for key in GROUP + NEW[:4]:
            sim.set(key, bytes(b ^ 0xFF for b in sim.value(key)))
        soon(lambda: all(service.value(k) == sim.value(k) for k in (GROUP[0], NEW[0])), 0.5)
        self.settled()
        if self.process.poll() is None:
            self.judge(changed)
        if self.passes:  # a fault that is over leaves nothing behind: whoever subscribes again is served
            wanted = GROUP + NEW[:4] + FRESH
            numbers = (100, 101, 102, 103, 104, 105, 201, 301, 302, 303)
            self.send(b"".join(log_off(KEPT, n) for n in 2 * (200, 203, 210, *numbers)), "mek")
            self.settled()
            self.send(b"".join(log_on(key, n) for key, n in zip(wanted, numbers)), "mek")
            if not soon(lambda: all(service.value(key) == sim.value(key) for key in wanted), 15):
                self.wrong.append(f"not served again: {[k for k in wanted if service.value(k) != sim.value(k)]}")

    def judge(self, changed):
        sim, last = self.sim, {}
        for number, (request, before) in self.asked.items():
            path, now = self.service / str(number), sim.value(request.key)
            answer = path.read_bytes() if path.exists() else b""
            if len(answer) < 40 or answer[26] != 1:
                continue
            last[request.key] = number
            done = {READ: answer[40:] in (before, now), WRITE: True,
                    CHANGE: request.subcmd != CHANGED or now == bytes(b ^ 0x21 for b in before)}[request.cmd]
            if not done or answer[24] != request.cmd:
                self.wrong.append(f"success answered, not done: {request}")
        for key, number in last.items():  # the last write that says so, or a later one that does not
            later = [r.payload for n, (r, _) in self.asked.items() if n >= number and r.cmd == WRITE and r.key == key]
            if later and key not in GROUP and sim.value(key) not in later:
                self.wrong.append(f"success answered, not written: {key}")
        org, data = ((self.service / name).read_bytes() if (self.service / name).exists() else b"" for name in ("org", "data"))
        for node in self.service.org()[1].values() if len(org) % 56 == 12 else ():
            value, now = data[node.dataoffset: node.dataoffset + node.key.size], sim.value(node.key)
            fresh = node.stamp[0] + node.stamp[1] / 1e6 > changed + 0.05
            if node.state == 1 and value != now and (fresh or value != bytes(b ^ 0xFF for b in now)):
                self.wrong.append(f"state 1 without its value: {node}")

    def end(self, kept):
        """Faults the run itself shows, and what the next start, without faults, makes of its files."""
        code = self.process.poll()
        if code is not None and (self.up or code not in (0, 1)):
            self.wrong.append(f"ended with {code}: {self.service.err()[-300:]}")
        self.process.kill()
        self.process.wait()
        self.service.hang_up()
        again = Faulty()
        if not again.up:
            self.wrong.append(f"the next start failed: {again.service.out()[-300:]}")
        else:
            checked = voqctl("check")
            if kept and (not again.service.node(KEPT) or kept != again.service.node(KEPT).dataoffset):
                self.wrong.append("a registration was lost")
            again.send(log_on(GROUP[0], 1), "mek")
            if checked.returncode or not soon(lambda: again.service.value(GROUP[0]) == again.sim.value(GROUP[0]), 15):
                self.wrong.append(f"the next start does not serve: {checked.stdout}{checked.stderr}")
        again.process.kill()
        again.process.wait()
        again.service.hang_up()
        return self.wrong


def first():
    install_driver()
    PROJECT.write_bytes(project([FIRST_PORT], GROUP + [Key(0, 2, regid=2)]))


def lagging():
    """An insertion cut short: the header, a back link and the index lag, a map is missing."""
    kept_database()
    retained_settings()
    raw = bytearray((USER / "com_1/org").read_bytes())
    raw[0:4], raw[12 + 48:12 + 52] = b"\2\0\0\0", b"\xee\0\0\0"
    (USER / "com_1/org").write_bytes(raw)
    (USER / "com_1/index").write_bytes((USER / "com_1/index").read_bytes()[:16])


def refused():
    kept_database()
    (USER / "com_1/org").write_bytes((USER / "com_1/org").read_bytes()[:12] + bytes(56 * 3))


def cut_short():
    kept_database()
    (USER / "com_1/building").write_bytes(b"")


def downloaded():
    kept_database(pathlib.Path("/home/Bin/map/com_1"))


def kept_database(place=USER / "com_1"):
    first()
    PROJECT.write_bytes(project([FIRST_PORT], [*GROUP, Key(0, 2, regid=2), KEPT]))
    place.parent.mkdir(parents=True, exist_ok=True)
    subprocess.run([BUILD / "bin/voqctl", "project", "prepare", PROJECT, "--port-index", "0", "-o", place], check=True,
                   capture_output=True)
    first()


def slave():
    install_driver("Service/Serial")
    PROJECT.write_bytes(project([com_info(pause=1, mode=1)], GROUP))
    (USER / "com_1").mkdir()
    (USER / "com_1/slaveno").write_bytes(b"\7\0")


STARTS = [first, lagging, refused, cut_short, downloaded, slave]


def run(prepare, fault=None, times=0):
    """The sites reached, or "!" when the fault struck, and what is wrong."""
    empty_box()
    prepare()
    faulty = Faulty(fault, times)
    if faulty.up and prepare is slave:
        soon(lambda: faulty.sim.loops > 60)
    elif faulty.up:
        faulty.work()
    sites = faulty.sites()
    return sites, faulty.end(3 * 8 + 4 if prepare is lagging else 0) if prepare is not slave else []


def test_faults(start):
    todo = {}  # the first start that reaches a site
    for prepare in STARTS if LONG else STARTS[:1]:
        sites, wrong = run(prepare)
        assert not wrong, (prepare, wrong)
        for site in sites:
            todo.setdefault(site, prepare)
    ways = (1, 1 << 30)  # once and for ever
    chosen = [(site, times) for site in todo for times in ways]
    if not LONG:  # one site of each function, in turns once and for ever
        last = {site.split()[0]: site for site in todo}
        chosen = [(site, ways[n % 2]) for n, site in enumerate(last.values())]
    missed, found = 0, []
    for site, times in chosen:
        struck, wrong = run(todo[site], site, times)
        missed += "!" not in struck
        if wrong:
            found.append((todo[site].__name__, site, times, wrong))
            print(found[-1])
    figure(f"faults: {len(todo)} call sites, once and for ever", f"{len(chosen)} runs, {missed} did not reach theirs again, "
           f"{len(found)} wrong", "0 wrong", not found)
