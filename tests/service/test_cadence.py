"""When the main loop does what, seen from outside: a preloaded shim notes its sleeps, looks and opens (shim.c)."""
import itertools
import struct
from concurrent.futures import ThreadPoolExecutor

import pytest
from voqtest import (CHANGE, READ, SANITIZER, USER, WORK, Key, com_info, frame, log_off, log_on, read_locked, shim, traced,
                     wait_for)

PAUSE = 3
TURN_END = f"usleep {PAUSE * 1000}"
IDLE, CHECKS = "wait", "access /tmp/srb0.dat"
ORG_READ, ORG_WRITE = "open /u/com_1/org r", "open /u/com_1/org r+"


def turns():
    """What each whole turn of the main loop did, without its pause."""
    loop = (WORK / "trace").read_text().rpartition("access /home/tarn\n")[2]
    return [turn.splitlines() for turn in loop.split(TURN_END + "\n")[:-1]]


def more_turns(n):
    """n turns that begin after this call, with the number of the first."""
    first = len(turns()) + 1
    wait_for(lambda: len(turns()) >= first + n, "turns")
    return first, turns()[first: first + n]


def test_idle_turns_and_checks(start):
    service = start(com_info(pause=PAUSE), driver=None, environment=traced())
    wait_for(lambda: len(turns()) >= 65, "turns")
    for turn, events in enumerate(turns()[:65]):
        checks = [CHECKS, "access /disk/hmi/rcp/srw.dat"] if (turn + 1) % 20 == 0 else []
        assert events == [IDLE] + checks, turn
    service.send(log_on(Key(), 1))  # a subscription ends the idling, though the org list was empty at start-up
    wait_for(lambda: IDLE not in turns()[-1], "polling")
    first, polling = more_turns(25)
    for turn, events in enumerate(polling, first):
        assert events[:2] == [ORG_READ, ORG_WRITE] and IDLE not in events
        assert (CHECKS in events) == ((turn + 1) % 20 == 0)
    service.send(log_off(Key(), 1))
    wait_for(lambda: turns()[-1][:1] == [IDLE], "idling again")
    trace = (WORK / "trace").read_text()
    assert " wb+" in trace and f"open {USER}/srw0.dat wb+" not in trace  # it appears in its full size


def test_org_list_cadence(start):
    """As long as there are records that were never read, the pass reads one when it runs: it opens the org file."""
    keys = [Key(100 * n, 64, plcno=1 + n // 500) for n in range(3000)]
    service = start(com_info(pause=PAUSE), keys, environment=traced())
    logged_on = 0

    def settle(more):
        """Log-ons that count, undone by the other client so that nothing is subscribed."""
        service.send(log_on(keys[0], 9, 12) * more)
        wait_for(lambda: service.peek("LogOnAmount") == logged_on + more, "log-ons")
        service.send(log_off(keys[0], 9, 12) * more, "mek")
        wait_for(lambda: service.subscribed() == 0, "no polling")

    def runs_every(divisor, amount=45):
        first, seen = more_turns(amount)
        for turn, events in enumerate(seen, first):
            assert events.count(ORG_READ) == (turn % divisor == 0) and IDLE not in events, (turn, divisor)
            assert (CHECKS in events) == ((turn + 1) % 20 == 0)

    for more, divisor in ((0, 1), (4, 1), (1, 2), (4, 2), (3, 3), (8, 5)):
        settle(more)
        runs_every(divisor)
        logged_on += more
        assert divisor == logged_on // 5 + 1
    service.send_drained(log_on(keys[0], 9, 12) * 60, "mek")  # the mek's log-ons do not count
    service.send_drained(log_off(keys[0], 9, 12) * 40)  # more log-offs than log-ons do not stop the pass
    service.send(log_off(keys[0], 9, 12) * 60, "mek")
    wait_for(lambda: service.count("error!!!") == 40 and service.peek("LogOnAmount") < 0, "log-offs")
    runs_every(1, 20)
    assert service.chain()[-1].state == 0


def test_end_of_chain_stops_the_org_list_pass(start):
    """A widened read that reaches the end of the chain is the last of the pass: then the loop idles."""
    service = start(com_info(pause=PAUSE), [Key(0, 10), Key(10, 10), Key(20, 10)], environment=traced())
    wait_for(lambda: all(n.state == 1 for n in service.chain()), "first reads")
    _, seen = more_turns(20)
    assert all(events[:1] == [IDLE] and ORG_READ not in events for events in seen)


def answered(service, *numbers):
    """Waits for answers and takes them away."""
    for number in numbers:
        path = service.dir / str(number)
        wait_for(lambda: path.exists() and len(read_locked(path)) > 40, f"answer {number}")
        path.unlink()


@pytest.mark.sanitized
def test_a_request_ends_the_idle_wait(start):
    """Nothing but a request ends it here: one that is missed, or waited over, is never answered."""
    service = start(com_info(pause=0), environment={} if SANITIZER else shim(VOQ_ENDLESS="1"))

    def ask(client, base):
        for burst, number in itertools.product((1, 1, 13), range(base, base + 400, 20)):
            numbers = range(number, number + burst)
            service.send(b"".join(frame(READ, Key(100 * n), n) for n in numbers), client)
            answered(service, *numbers)

    ask("mek", 1000)
    with ThreadPoolExecutor() as both:  # at once
        list(both.map(ask, ("gui", "mek"), (2000, 3000)))


def test_a_running_pulse_does_not_end_the_idle_wait(start):
    service = start(com_info(pause=1), environment=traced())
    before = (WORK / "trace").read_text().count(IDLE)
    operand = struct.pack("<HHHBBHH", 8, 0, 12, 3, 0, 1, 10)  # a second
    service.send(frame(CHANGE, Key(8), 7, subcmd=0x20, payload=operand))
    answered(service, 7)
    trace = (WORK / "trace").read_text()
    assert trace.count(IDLE) - before > 15 and trace.count("usleep 1000\n") < 200
