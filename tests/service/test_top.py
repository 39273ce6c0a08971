"""voqctl top on a terminal of its own: what its screen shows and what its keys do, against the real service."""
import fcntl
import os
import pathlib
import pty
import select
import signal
import struct
import subprocess
import termios

import pyte
import pytest
from voqtest import SLOW, USER, WORK, WRITE, Key, com_info, frame, log_on, program, voqctl, wait_for

PORTS = """port = [{link = "serial", number = 1}, {link = "ethernet", number = 2}]
register = [{name = "level", port = 1, station = 1, area = 1, type = "u16", address = 0}]\n"""
HELP = "q quit  p stations  s r sort  f filter  / find  Tab port  t off  + - interval"
RETAINED = pathlib.Path("/disk/hmi/rcp/srw.dat")


class Terminal:
    def __init__(self, kind):
        self.screen, self.sent = pyte.Screen(80, 24), 0
        self.stream = pyte.ByteStream(self.screen)
        self.master, slave = pty.openpty()
        self.modes = termios.tcgetattr(self.master)
        (WORK / "ports.toml").write_text(PORTS)
        command = program("voqctl", "top", "--dir", USER, "--project", WORK / "ports.toml", "--interval", 200)
        self.process = subprocess.Popen(command, stdin=slave, stdout=slave, stderr=slave, env={**os.environ, "TERM": kind})

    def resize(self, lines, columns):
        self.screen.resize(lines, columns)
        termios.tcsetwinsize(self.master, (lines, columns))
        self.process.send_signal(signal.SIGWINCH)

    def __str__(self):
        while select.select([self.master], [], [], 0)[0]:
            data = os.read(self.master, 65536)
            self.sent += len(data)
            self.stream.feed(data)
        return "\n".join(line.rstrip() for line in self.screen.display)

    def shows(self, *texts, keys="", without="\0"):
        """Types the keys and waits until the texts are on the screen, in this order."""
        def found():
            rest = ["", "", text := str(self)]
            return without not in text and all((rest := rest[2].partition(text))[1] for text in texts)
        os.write(self.master, keys.encode())
        wait_for(found, self)

    def ended(self, status=0):
        assert self.process.wait(20) == status and termios.tcgetattr(self.master) == self.modes, str(self)
        assert str(self) and (self.screen.cursor.y, self.screen.cursor.hidden) == (self.screen.lines - 1, False)


@pytest.mark.sanitized
def test_screen_and_keys(start):
    level, other = Key(0), Key(0, plcno=2)
    service = start(com_info(pause=1), [level, other, Key(7, 2, plcno=3)])
    sim, top = service.sim, Terminal("vt100")
    service.send(log_on(level, 1) + log_on(other, 2))
    top.shows("com_1 ", "ok 3  subscribed 2: slowest <400 ms", "tcp_2 ", "no such directory", ">com_1     1     level ",
              " com_1     2     s2:a1:u16@0", " com_1     3     s3:", HELP)
    for value in 12345, 7:
        before = top.sent
        sim.set(level, struct.pack("<H", value))
        top.shows(f"<400 ms <400 ms  {value}")
        assert top.sent - before < 100 * SLOW  # the clock and an age may move too
    top.shows("3 ranges  sort oldest", ">com_1     3     s3:", " level ", keys="s")
    top.shows("reversed", ">com_1     2     s2", "s3:", keys="r")
    top.shows("2 ranges", "filter subscribed", keys="f", without="s3:")
    top.shows("1 ranges", "com_1 ", ">com_1     2     s2", keys="\t/s2\r", without="tcp_2")
    for size in (10, 60), (2, 9), (24, 80):
        top.resize(*size)
        wait_for(lambda: (text := str(top))[2:3] == ":" and text.endswith("\n" + HELP[:size[1]].rstrip()), top)
    top.stream.feed(b"\x1b[2J")
    top.shows("1 ranges", "com_1", "VALUE", HELP, keys="\f")

    top.shows("Switch station 2 of com_1 off? y/n", keys="t")
    top.shows(f"{RETAINED}: No such file or directory", keys="y")
    RETAINED.parent.mkdir(parents=True)
    top.shows(HELP, keys="tn")
    assert not RETAINED.exists()
    top.shows("off: 2", "2 off s2", "Switched station 2 of com_1 off", keys="ty")
    assert RETAINED.read_bytes() == bytes(520) + b"\4" + bytes(20000 - 521)
    wait_for(lambda: {c.plcno for c in sim.calls()[-50:]} == {1}, "station 2 left alone")
    top.shows("Switched station 2 of com_1 on", keys="ty")
    assert RETAINED.read_bytes() == bytes(20000)

    top.shows("3 stations", " turns/s", "round ", "one-shots 0 ok", "T-OUT", ">com_1     1 ", " com_1     2 ", "never",
              "q quit  p ranges", keys="p")
    top.shows("com_1 ", ">com_1     2 ", "Switch station 2 of com_1 off? y/n", keys="\x1bOBt")
    top.shows("1 ranges", HELP, keys="np")
    sim.fail(sim.TIMEOUT)
    top.shows("link TIME-OUT", "time-out 2", ">com_1     2     s2", "time-out", keys="f")
    sim.fail(sim.HANG)
    wait_for(lambda: sim.hanging, "the driver in a read")
    service.send(b"".join(frame(WRITE, Key(20), i, payload=b"\0\0") for i in (3, 4)))
    top.shows("one-shots 2, <400 ms")
    assert "one-shots   2 write(s) and change(s) waiting, the oldest" in voqctl("status", "--wait", 0).stdout
    sim.fail(0)
    top.shows("0 ranges", "filter not ok", "link ok  one-shots 0", "ok 3")
    with open(service / "org", "r+b") as file:
        fcntl.lockf(file, fcntl.LOCK_EX)
        top.shows(f"org: locked by process {os.getpid()}")
    os.write(top.master, b"q")
    top.ended()
    top = Terminal("linux")  # a signal restores it as q does
    top.shows("watchdog", "level")
    top.process.send_signal(signal.SIGTERM)
    top.ended()
    assert Terminal("dumb").process.wait(20) == voqctl("top").returncode == 2
