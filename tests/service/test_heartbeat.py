"""The main loop's heartbeat in the statistics: what voqctl and the package's watch make of it."""
import fcntl
import os
import subprocess

from test_stats import DRIVER, LOCK, Stats
from voqtest import (PROJECT, USER, Key, Sim, com_info, install_driver, log_on, programs_folder, project, voqctl,
                     wait_for)


def heartbeat(limit=150):
    done = voqctl("status", "--heartbeat", limit)
    return done.returncode, done.stdout + done.stderr


def watch(path):
    """The package's look at the port."""
    settings = {"VOQ_PROJECT": PROJECT, "VOQ_USER": USER, "VOQ_DRIVER_LIMIT": "0.2", "PATH": path}
    done = subprocess.run(["/co/packaging/watch", "0"], env=settings, capture_output=True, text=True)
    return done.returncode, done.stderr


def test_heartbeat(start):
    """A driver that hangs, a client that keeps a lock, and who is to blame."""
    service, path = start(com_info(pause=1)), f"{programs_folder()}:{os.environ['PATH']}"
    key = Key(5, 2)
    service.send(log_on(key, 1))
    wait_for(lambda: service.node(key) and service.node(key).state == 1, "polling")
    status, text = heartbeat()
    assert status == 0 and "main loop   turn " in text
    service.sim.fail(Sim.HANG)
    wait_for(lambda: service.sim.hanging and Stats(service).main[0] == DRIVER, "a driver that hangs")
    turn = Stats(service).main[2]
    assert heartbeat()[0] == 0  # not for long enough yet
    status, text = wait_for(lambda: (said := heartbeat(0.2))[0] and said, "the verdict")
    assert status == 1 and "hangs in the driver for " in text and "s1:a1:u16@5*2" in text
    assert Stats(service).main[2] == turn
    assert watch(path)[0] == 1 and "hangs in the driver" in watch(path)[1]
    service.sim.fail(0)
    with open(service / "org", "r+b") as org:
        fcntl.lockf(org, fcntl.LOCK_EX)
        wait_for(lambda: Stats(service).main[0] == LOCK, "the lock waited for")
        status, text = wait_for(lambda: (said := heartbeat(0.2))[0] and said, "the verdict")
        assert status == 8 and f"the lock on {service / 'org'} is waited for" in text
        assert f"held by process {os.getpid()} (" in text
        assert watch(path)[0] == 0 and f"held by process {os.getpid()} (" in watch(path)[1]
        turn = Stats(service).main[2]
    wait_for(lambda: Stats(service).main[2] > turn + 1, "the loop going on")
    assert Stats(service).locks[0] == 1 and Stats(service).file == "" and heartbeat(0.2)[0] == 0
    service.stop()
    assert "nothing known" in heartbeat()[1]


def test_slave(start):
    PROJECT.write_bytes(project([com_info(mode=1)]))
    install_driver("Service/Serial")
    service = start()
    wait_for(lambda: Stats(service).slave_loops > 10, "turns of a slave")
    assert Stats(service).slave_loops <= service.sim.loops and Stats(service).main[2] > 0
    service.sim.fail(Sim.HANG, command=Sim.LOOP)
    wait_for(lambda: service.sim.hanging, "a driver that hangs")
    wait_for(lambda: heartbeat(0.2)[0] == 1, "the verdict")
