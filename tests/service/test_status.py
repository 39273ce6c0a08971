"""voqctl status: what is wrong with a port and what to do about it; voqctl refresh."""
import json
import signal
import subprocess

from test_stats import LOCK, Stats
from voqtest import Key, Sim, com_info, log_off, log_on, on_port, voqctl, wait_for

HOLDER = """import fcntl, struct, sys
file = open(sys.argv[1], "r+b")
fcntl.fcntl(file, 37, struct.pack("hhqqi", fcntl.F_WRLCK, 0, 0, 0, 0))  # F_OFD_SETLK
print("held", flush=True)
sys.stdin.read()"""


def row():
    return json.loads(voqctl("status", "--wait", 0, "--json").stdout)


def problem(text):
    def seen():
        now = row()
        return now if text in "\n".join(now["problems"]) else None
    return wait_for(seen, text)


def test_problems(start):
    """A station that is away and one that refuses, a line without PLCs, and a client that keeps a lock."""
    keys = [Key(0, 2), Key(40), Key(0, plcno=2), Key(0, plcno=3)]
    service = start(com_info(pause=1), keys)
    wait_for(lambda: len(service.chain()) == 4 and all(n.state == 1 for n in service.chain()), "first values")
    service.sim.dig(Key(40))
    service.sim.fail(Sim.TIMEOUT, station=2)
    service.send(b"".join(log_on(key, n + 1) for n, key in enumerate(keys[:3])))
    problem("station 1 refuses 1 of its 2 subscribed range(s), p1:s1:a1:u16@40*1,")
    seen = problem("station 2 has not answered in time for ")
    assert (seen["subscribed"], seen["subscribed_ok"], seen["records"], seen["ok"]) == (3, 1, 4, 2)
    assert seen["stations_failing"] == [2] and seen["driver"] and seen["timeout_age_s"] is None and seen["running"]
    service.sim.fail(Sim.ERROR)
    seen = problem("none of the 2 stations can be reached at the other end of the line for ")
    assert seen["stations_failing"] == [1, 2] and wait_for(lambda: row()["comerror_age_s"], "a marker's age") > 0
    text = voqctl("status", "--wait", 0).stdout
    assert "comerror    set for " in text and "subscribed  3, " in text and "others      1, ok 1" in text
    service.sim.fail(0)
    wait_for(lambda: not row()["stations_failing"], "stations that answer")

    holder = subprocess.Popen(["/usr/bin/python3", "-c", HOLDER, service / "org"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    assert holder.stdout.readline() == b"held\n"
    wait_for(lambda: Stats(service).main[0] == LOCK, "the lock waited for")
    said = wait_for(lambda: (done := voqctl("status", "--heartbeat", 0.2)).returncode == 8 and done.stderr, "")
    assert f"held by process {holder.pid} (" in said
    holder.communicate()


def test_no_driver(start):
    start(driver=None)
    assert not problem("no driver is loaded")["driver"]


def test_refresh(start):
    """Every range once, whoever has subscribed it, and nothing of it stays."""
    others, keys = Key(600), [Key(addr, plcno=1 + addr % 2) for addr in range(0, 500)]
    service = start(com_info(pause=1), [*keys, others])
    wait_for(lambda: len(service.chain()) == 501 and all(n.state == 1 for n in service.chain()), "first values")
    service.send(log_on(others, 7))
    wait_for(lambda: others.addr in Stats(service).ranges(), "another client's log-on")
    for key in keys:
        service.sim.set(key, b"\5\6")
    done = voqctl("refresh")
    assert (done.returncode, done.stdout) == (0, "501 range(s): ok 501\n"), done
    assert all(service.value(key) == b"\5\6" for key in keys[::50])
    wait_for(lambda: list(Stats(service).ranges()) == [others.addr], "log-offs")
    assert Stats(service).ranges()[others.addr][0] == 1  # once, as before

    service.sim.fail(Sim.TIMEOUT, station=2)
    done = voqctl("refresh")
    assert done.returncode == 3 and done.stdout == "501 range(s): ok 251, time-out 250\n" and "and 230 more" in done.stderr
    service.sim.fail(Sim.HANG)
    done = voqctl("refresh", "--timeout", 0.3)
    assert done.returncode == 6 and "were not read within 0.3 s" in done.stderr
    before = Stats(service).intake(1)[3]
    running = subprocess.Popen(on_port("refresh"), stdout=subprocess.PIPE)
    wait_for(lambda: len(Stats(service).ranges()) > 1, "log-ons")
    running.send_signal(signal.SIGINT)
    assert running.wait(20) == 128 + signal.SIGINT
    service.sim.fail(0)
    wait_for(lambda: list(Stats(service).ranges()) == [others.addr], "log-offs")
    assert Stats(service).intake(1)[3] > before
    service.send(log_off(others, 7))
    wait_for(lambda: Stats(service).ranges() == {}, "the other client's log-off")
    service.stop()
    assert voqctl("refresh").returncode == 7
