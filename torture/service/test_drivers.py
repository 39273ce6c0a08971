"""A driver that crashes, hangs or answers nonsense in any of its commands: the files stay sound, no lock stays behind, and
whoever watches sees it."""
import contextlib
import fcntl
import signal

import pytest
from voqtest import (PROJECT, USER, Key, Service, Sim, com_info, empty_box, figure, install_driver, log_on, project, sound,
                     traced, voqctl, wait_for)

KEY, PROBE = Key(100, 4), "s1:a1:u16@0,flag=0x200"  # the probe is answered by the main loop without the driver
COMMANDS = {"RdOne": Sim.RDONE, "WrOne": Sim.WRONE, "Init": Sim.INIT, "Destroy": Sim.DESTROY, "Loop": Sim.LOOP}


def began(command, sim=None):
    mode = int(command == "Loop")
    install_driver("Service/Serial" if mode else "Serial")
    PROJECT.write_bytes(project([com_info(pause=1, mode=mode)], [KEY]))
    return Service(environment=traced(), sim=sim)


def polled(service):
    service.send(log_on(KEY, 1), "mek")
    wait_for(lambda: service.value(KEY) == service.sim.value(KEY) and service.node(KEY).state == 1, "a live value")


def lockable(path):
    with open(path, "r+b") as file, contextlib.suppress(OSError):
        fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        return True


def nothing_locked(service):
    """Another process gets every lock, at once between two operations."""
    for path in (*(service / name for name in ("org", "data", "index")), USER / "srw0.dat"):
        wait_for(lambda: lockable(path), f"a lock on {path}")


def crashed(service, command):
    assert service.process.wait(20) == -signal.SIGABRT
    assert voqctl("status", "--wait", 0.2).stdout.endswith("service     not running\n")
    service.hang_up()
    service.sim.fail(0)
    nothing_locked(service)
    return began(command, service.sim)


def hung(service, command):
    wait_for(lambda: service.sim.hanging, "a driver that hangs")
    nothing_locked(service)
    assert ", moving\n" in voqctl("status", "--wait", 1).stdout  # the watchdog is a thread of its own
    if command == "Loop":
        (service / "slaveno").write_bytes(b"\1\0")
    assert command == "Loop" or voqctl("read", PROBE, "--timeout", 0.5).returncode == 6
    service.sim.fail(0)
    wait_for(lambda: not (service / "slaveno").exists(), "the slave number taken over")
    return service


def talked_nonsense(service, command):
    if command == "RdOne":
        wait_for(lambda: service.node(KEY).state == 3 and (service / "comerror").exists(), "the error's signs")
    elif command == "WrOne":
        service.wait_out("*VOQ*ERROR timeout! mode:1 error:3\r\n")
    assert command == "Loop" or voqctl("read", PROBE).stdout == "0\n"
    service.sim.fail(0)
    return service


@pytest.mark.parametrize("what, failure, status", [
    (crashed, Sim.CRASH, 6), (hung, Sim.HANG, 6), (talked_nonsense, Sim.NONSENSE, 4)])
def test_bad_driver(what, failure, status):
    for command, code in COMMANDS.items():
        empty_box()
        service = began(command)
        if command != "Loop":
            polled(service)
        service.sim.fail(failure, command=code)
        if command == "WrOne":
            assert voqctl("write", "--byte-order", 0, "s1:a1:u16@7", 5, "--timeout", 0.3).returncode == status
        elif command in ("Init", "Destroy"):
            service.send(b"\xfd\0\0" + com_info(pause=1))
        service = what(service, command)
        if command != "Loop":
            polled(service)
            assert voqctl("read", PROBE).stdout == "0\n"
        nothing_locked(service)
        sound()
        assert service.count("register database") == 0
        service.stop()
    figure(f"drivers: {what.__name__.replace('_', ' ')} in {', '.join(COMMANDS)}",
           "5 of 5 seen by who watches, files sound, no lock left", "all", True)


@pytest.mark.sanitized
def test_to_the_last_byte(start):
    """The largest value there is, in one driver call."""
    widest = Key(0, 32896)
    service = start(com_info(word_limit=65535), [widest])
    wait_for(lambda: service.node(widest).state == 1, "the value")
    value = service.value(widest)  # no register is 0
    figure("drivers: buffer filled to its last byte", f"{len(value)} bytes stored", "all", 0 not in value)
