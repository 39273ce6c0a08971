"""Clients that misbehave: one holds a lock, one floods and never takes its answers. The other one
is served, nothing is lost, and the service stays as small as it was."""
import fcntl
import multiprocessing
import os
import pathlib
import random
import time

from test_flood import flood
from test_oneshot import Client, flip, read, write
from voqtest import EMULATOR, LONG, Key, com_info, figure, log_off, log_on, read_locked, sound, wait_for

def test_lock_held(start):
    seconds, worst, ranges = 60 if LONG else 1, 0, [Key(10 * i, 4, regid=3) for i in range(9)]
    client = Client(start(com_info(pause=1), ranges[:5]))
    for number, name in enumerate(("org", "data", "index")):
        with open(client.service / name, "rb") as file:  # the test is a process of its own, and reads no other way
            fcntl.lockf(file, fcntl.LOCK_SH)
            time.sleep(seconds)
            client.collect()  # what polling did meanwhile: more would not be kept
            numbers = client.post(read(7), write(100, number), flip(Key(5)), write(50, number), client="gui")
            client.service.send(log_on(ranges[-1 - number], 2 + number))
            since, released = client.sim.reads, time.monotonic()
        assert [code for code, _ in client.answered(numbers)] == [1] * 4
        worst = max(worst, time.monotonic() - released)
        live = lambda: client.service.value(ranges[-1 - number]) == client.sim.value(ranges[-1 - number])  # noqa: E731
        wait_for(live, "the range logged on meanwhile")
        wait_for(lambda: client.sim.reads > since + 20, "polling")
    client.nothing_left()
    sound()
    figure(f"clients: read lock held {seconds} s on org, data, index", f"0 of 12 requests lost, all answered {worst:.1f} s "
           "after the release at the latest", "none lost", True)


def size_of(process):
    """Resident kB, descriptors, threads."""
    place = pathlib.Path(f"/proc/{process.pid}")
    resident = int((place / "statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024
    return resident, len(os.listdir(place / "fd")), len(os.listdir(place / "task"))


def test_soak(start):
    """One client floods and churns; the other logs on and off and writes. A tenth of the time passes unmeasured."""
    seconds = 3600 if LONG else 8
    service = start(com_info(pause=1), [Key(10 * i, 3, regid=3) for i in range(20)])
    endless = (service, random.Random(1), lambda _: True, ["gui"], 0, 0)  # never takes an answer
    flooder = multiprocessing.get_context("fork").Process(target=flood, args=endless, daemon=True)
    flooder.start()
    begin, rounds, refused, slowest, sizes = time.monotonic(), 0, 0, 0, []
    while (now := time.monotonic()) < begin + seconds:
        key, number = Key(10 * (rounds % 200), 4, regid=4), 30000 + rounds % 9000
        value, order = random.Random(rounds).randbytes(8), write(key.addr + 5, rounds % 9999, regid=4)
        service.sim.set(key, value)
        service.send(log_on(key, number), "mek")
        wait_for(lambda: service.value(key) == value, "a live value", 60)
        code, result = 3, service / "49000"
        while code == 3:  # refused: more than 1000 of the other client are waiting
            service.send(order.frame(49000), "mek")
            wait_for(lambda: result.exists() and result.stat().st_size >= 40, "an answer", 60)
            code = read_locked(result)[26]
            result.unlink()
            refused += code == 3
        assert code == 1
        assert service.sim.value(order.key) == order.payload
        service.send(log_off(key, number), "mek")
        rounds, slowest = rounds + 1, max(slowest, time.monotonic() - now)
        if now > begin + seconds / 10:
            sizes.append(size_of(service.process))
        service.trim_output()
    flooder.kill()
    flooder.join()
    lowest, highest = ([pick(column) for column in zip(*sizes)] for pick in (min, max))
    wait_for(lambda: service.peek("VoqFileOpenCount") == 0, "all files closed")
    sound()
    figure(f"clients: {seconds} s beside one that floods", f"{rounds} rounds of log-on, write, log-off, none lost; {refused} "
           f"refused and repeated; slowest {slowest:.2f} s", "none lost", rounds > 0)
    figure("clients: size meanwhile", "{}-{} kB, {}-{} descriptors, {}-{} threads".format(
        *(n for pair in zip(lowest, highest) for n in pair)), "flat",
        highest[0] - lowest[0] <= 256 and highest[1] - lowest[1] <= 4 and
        lowest[2] == highest[2] == 4 + bool(EMULATOR))
