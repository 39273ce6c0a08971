"""The client library as its users meet it: through the module voq, and through a program in C."""
import asyncio
import contextlib
import ctypes
import fcntl
import os
import pathlib
import signal
import subprocess
import sys
import threading
import time

import pytest
from test_stats import Stats
from voqtest import ALWAYS, ARM, BUILD, SANITIZER, SLOW, Key, com_info, frame, log_on, program, wait_for

if not (SANITIZER or ARM):
    os.environ["VOQ_CLIENT_LIBRARY"] = str(BUILD / "lib/libvoq-client.so.0")
    sys.path.insert(0, "/co/client/python")
    import voq
    from voq import _library
PYTHON = pytest.mark.skipif(bool(SANITIZER or ARM), reason="Python itself is another build")
PLACE, LEVEL = "/u/com_1", "s1:a1:u16@0*2,priority=1"


def exercise(*arguments):
    done = subprocess.run(program("exercise", *arguments), capture_output=True, text=True, timeout=120 * SLOW)
    assert done.returncode == 0, done
    return done.stdout


def opened(**options):
    return voq.Port(PLACE, byte_order=0, **options)


def live(*ranges):
    """Polls until the service has read all of them since they were subscribed."""
    def look():
        ranges[0].port.poll(0.02)
        return all(r.reading.live for r in ranges)

    wait_for(look, "live values")


def kinds(port, wanted):
    """The kinds of events up to the wanted one, ranges left out."""
    seen = []

    def look():
        seen.extend(event.kind for event in port.poll(0.02) if event.kind != "changed")
        return wanted in seen

    wait_for(look, wanted)
    return seen


@PYTHON
def test_values_follow_and_one_shots(start):
    service = start(com_info(pause=1))
    with opened() as port:
        level, other = port[LEVEL].subscribe(), port["s1:a1:s16@0*2"].subscribe()  # the same registers: one subscription
        live(level, other)
        service.sim.set(Key(0, 2), b"\x01\x00\xfe\xff")
        wait_for(lambda: port.poll(1) and level.value == [1, 65534], "the change")
        assert other.value == [1, -2] and level.text == "1 65534" and level.reading.state == 1
        assert 0 <= level.reading.age < 60 and abs(level.reading.stamp - time.time()) < 60
        level.value = [7, 8]
        assert service.sim.value(Key(0, 2)) == b"\x07\0\x08\0" and port["s1:a1:u32@0"].value == 0x80007
        assert port["s1:a1:u16@0"].change("add 5 max 10 bounce") and level.read() == [10, 8]
        wait_for(lambda: port.poll(1) and level.value == [10, 8], "the change carried into the subscription")
        assert port["s1:a1:float@20,big_endian"].read() is not None and port["s1:a1:raw:3@30"].read()
        port["s1:a1:bit@9"].pulse(0.1)
        for wrong, text in (([1], "not as many values"), ([1, 70000], "70000 does not fit u16"), ([1, 2.5], "float")):
            with pytest.raises(voq.InvalidError, match=text):
                level.value = wrong
        for wrong in ("s1:a1:u16", "level", "p2:s1:a1:u16@0"):
            with pytest.raises(voq.InvalidError):
                port[wrong]
        status = port.status()
        assert status["running"] == 1 and status["subscribed"] == 1 and status["under_way"] == 0
        level.unsubscribe()
        assert level.reading is None and other.reading.live
    wait_for(lambda: service.subscribed() == 0, "the log-off")
    with pytest.raises(voq.InvalidError, match="closed"):
        level.read()
    with pytest.raises(voq.NoPortError):
        voq.Port("/u/com_2")


@PYTHON
def test_service_that_fails_and_restarts(start):
    service = start(com_info(pause=1))
    with opened() as port:
        level = port[LEVEL].subscribe()
        live(level)
        service.sim.fail(service.sim.TIMEOUT)
        wait_for(lambda: port.poll(1) and (level.reading.state, level.reading.live) == (2, False), "the time-out")
        with pytest.raises(voq.PlcTimeoutError):
            level.read()
        assert level.value is not None and kinds(port, "link_changed") and port.link == "timeout"
        service.sim.fail(service.sim.HANG)
        wait_for(lambda: service.sim.hanging, "the driver in a call")
        with pytest.raises(voq.NoAnswerError):
            level.read(timeout=0.05)
        failure = []

        def ask():
            with opened() as own, pytest.raises(voq.NoServiceError) as raised:
                own[LEVEL].read(timeout=20 * SLOW)
            failure.append(raised.value)

        thread = threading.Thread(target=ask)
        thread.start()
        wait_for(lambda: len(locked_numbers()) == 3, "the request of the other port")
        service.stop()
        thread.join()
        assert failure and kinds(port, "service_lost")[-1] == "service_lost" and not level.reading.live
        with pytest.raises(voq.NoServiceError):
            level.write([1, 2])
        service = start(com_info(pause=1), sim=service.sim)
        service.sim.fail(0)
        assert kinds(port, "service_back")[-1] == "service_back"
        live(level)
        assert port.status()["restarts"] == 1
    wait_for(lambda: service.subscribed() == 0, "the log-off")


def locked_numbers():
    """The request numbers that somebody holds."""
    with open(f"{PLACE}/claims", "rb") as claims:
        inode = os.fstat(claims.fileno()).st_ino
    rows = [row.split() for row in pathlib.Path("/proc/locks").read_text().splitlines()]
    spans = [row[-2:] for row in rows if row[1] == "OFDLCK" and row[-3].endswith(f":{inode}")]
    return [number for first, last in spans for number in range(int(first) // 32, int(last) // 32 + 1)]


@PYTHON
def test_held_lock_and_full_fifo(start):
    service = start(com_info(pause=1))
    with opened(lock_ms=50) as port:
        level = port[LEVEL].subscribe()
        live(level)
        with open(service / "org", "r+b") as org:
            fcntl.lockf(org, fcntl.LOCK_EX)
            begin = time.monotonic()
            with pytest.raises(voq.LockedError, match="org: locked by process"):
                port[LEVEL + ",subaddr=1"].subscribe()
                while True:
                    port.poll(1)
            assert time.monotonic() - begin < 20 * SLOW
        live(level)
        service.process.send_signal(signal.SIGSTOP)
        tasks = pathlib.Path(f"/proc/{service.process.pid}/task")
        wait_for(lambda: all("T (stopped)" in (t / "status").read_text() for t in tasks.iterdir()), "threads that stand")
        with contextlib.suppress(BlockingIOError):
            fifo = os.open(service / "mekfifo", os.O_WRONLY | os.O_NONBLOCK)
            while True:
                os.write(fifo, frame(3, Key(0), 100))
        with pytest.raises(voq.FullError):
            level.write([1, 2], timeout=0.1)
        late = port["s1:a1:u16@40,priority=1"].subscribe()
        port.poll(0.05)
        service.process.send_signal(signal.SIGCONT)
        os.close(fifo)
        live(late)


def subscriber(first, last):
    """A process that has subscribed LEVEL by a number from `first` to `last`."""
    script = (f"import voq\nport = voq.Port('{PLACE}', byte_order=0, first_number={first}, last_number={last})\n"
              f"r = port['{LEVEL}'].subscribe()\nwhile not r.reading.live: port.poll(1)\nprint('live', flush=True)\n")
    environment = {**os.environ, "PYTHONPATH": "/co/client/python"}
    child = subprocess.Popen([sys.executable, "-c", script + "input()"], env=environment, text=True,
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    assert child.stdout.readline() == "live\n"
    return child


@PYTHON
def test_numbers_are_claimed_and_given_back(start):
    service = start(com_info(pause=1))
    few = {"first_number": 700, "last_number": 701}
    child = subscriber(700, 701)
    assert service.subscribed() == 1
    with opened(**few) as port:
        port["s1:a1:u16@50,priority=1"].subscribe()
        with pytest.raises(voq.Error, match="no request number from 700 to 701 is free") as raised:
            port["s1:a1:u16@60"].subscribe()
        assert raised.value.code == _library.NO_NUMBER
        child.kill()
        child.wait()
        port["s1:a1:u16@60"].read()  # by the number of the dead
        wait_for(lambda: service.subscribed() == 1, "the subscription of the dead ended")
    wait_for(lambda: service.subscribed() == 0, "the log-off")

    # What is done in a child process is nothing to the parent's port.
    with opened(**few) as port:
        level = port[LEVEL].subscribe()
        live(level)
        child = os.fork()
        if child == 0:
            code = _library.library.port_dispatch(port._handle)
            port.close()
            os._exit(0 if code == _library.FORKED else 1)
        assert os.waitpid(child, 0)[1] == 0 and service.subscribed() == 1 and len(locked_numbers()) == 1
        stamp = level.reading.stamp
        wait_for(lambda: port.poll(0.1) is not None and level.reading.stamp > stamp, "the next value")


@PYTHON
def test_clients_share_a_range(start):
    """Each log-off takes one subscription away, whoever made the entry, and none that is not its own."""
    service = start(com_info(pause=1))

    def shared_by(count):
        wait_for(lambda: Stats(service).ranges().get(0, (0,))[0] == count, f"{count} log-ons")

    children = [subscriber(700, 700)]
    with opened(first_number=701, last_number=701) as second:
        live(second[LEVEL].subscribe())
        children.append(subscriber(702, 702))
        shared_by(3)
        for child in children:
            child.kill()
            child.wait()
        with opened(first_number=700, last_number=702) as third:
            third["s1:a1:u16@50"].read()  # by a number of the dead, who are logged off
        shared_by(1)
        # The service keeps the range under 700 still.
        with opened(first_number=700, last_number=700) as third, pytest.raises(voq.Error, match="no request number"):
            third["s1:a1:u16@50"].subscribe()
            third.poll(5)
    shared_by(0)

    # A client that slept through a restart has nothing to log off.
    with opened() as awake, opened() as asleep:
        for port in (awake, asleep):
            live(port[LEVEL].subscribe())
        service.stop()
        service = start(com_info(pause=1))
        live(awake[LEVEL].subscribe())
        asleep.close()
        awake["s1:a1:u16@50"].read()  # is taken after whatever that one sent
        shared_by(1)


@PYTHON
def test_asyncio(start):
    service = start(com_info(pause=1))
    service.send(b"", "mek")

    async def main(port):
        level = port[LEVEL].subscribe()

        async def follow():
            async for changed in port:
                if changed is level and changed.value == [5, 6]:
                    return True

        following = asyncio.create_task(follow())
        await asyncio.gather(level.write_async([5, 6]), port["s1:a1:u16@90"].write_async(1))
        assert await asyncio.wait_for(following, 20 * SLOW)
        assert await asyncio.gather(*(port["s1:a1:u16@90"].read_async() for _ in range(20))) == [1] * 20
        assert await port["s1:a1:u16@90"].change_async("add 1") is False
        service.sim.fail(service.sim.TIMEOUT)
        with pytest.raises(voq.PlcTimeoutError):
            await level.read_async()

    with opened() as port:
        asyncio.run(main(port))


@pytest.mark.sanitized
def test_threads_with_ports_of_their_own(start):
    service = start(com_info(pause=1))
    assert exercise("threads", PLACE, 2) == "done\n"
    if not (SANITIZER or ARM):
        wait_for(lambda: service.subscribed() == 0, "all log-offs")
        records = (_library.ErrorRecord, _library.EventRecord, _library.ReadingRecord, _library.MeaningRecord,
                   _library.StatusRecord, _library.CallsRecord, _library.StatisticsRecord)
        assert exercise("sizes").split() == [str(ctypes.sizeof(record)) for record in records]
        grown, descriptors = (int(word) for word in exercise("cycles", PLACE, 70).split()[::2])
        assert grown <= 64 and descriptors == 0
