"""What others leave where the service works: a second service, links, FIFOs and directories in place of its files."""
import fcntl
import os
import pathlib
import time

import pytest
from test_cadence import traced
from test_operator import SRB, SRW, again
from voqtest import READ, USER, WORK, WRITE, Key, Service, com_info, frame, install_driver, log_on, wait_for

PORT = USER / "com_1"


@pytest.mark.sanitized
@pytest.mark.parametrize("mode", [0, 1])
def test_one_service_on_a_port(start, mode):
    install_driver("Service/Serial" if mode else "Serial")
    first = start(com_info(mode=mode), [Key()])
    second = Service(ready=False, sim=first.sim)
    assert second.process.wait(20) == 1
    assert second.out().endswith(b"*VOQ*/u/com_1/lock is held: another service serves this port\r\n")
    assert first.process.poll() is None and wait_for(lambda: first.peek("VoqFileOpenCount") == 0)
    first.process.kill()  # and the next one starts at once
    start(sim=first.sim)
    first.process.wait()


def test_files_that_are_none(start):
    """Links are not followed, FIFOs not waited for; the answer that cannot be written is said, the service goes on."""
    victim = WORK / "victim"
    victim.write_bytes(b"\7" * 60)
    for folder in (PORT / "3", SRW.parent):
        folder.mkdir(parents=True)
    for fifo in (SRW, PORT / "2"):
        os.mkfifo(fifo)
    for link in (SRB, *(PORT / name for name in ("1", "comerror", "timeout"))):
        link.symlink_to(victim)
    service = start(com_info(pause=0))
    (PORT / "rtData4").symlink_to(victim)
    service.send(b"".join(frame(READ, Key(n), n) for n in (1, 2, 3, 9)) + frame(WRITE, Key(4), 4, payload=b"ab"))
    wait_for((service / "9").exists, "the answer with a place of its own")
    service.send(log_on(Key(50), 50))
    for failure, text in ((2, "set timeout error\n"), (3, "set com error\n")):
        service.sim.fail(failure)
        service.wait_out(text)
    for name in ("1", "2", "3", "rtData4"):
        assert service.count(f"*VOQ*RW creat file /u/com_1/{name} error\n\r\n") == 1
    service.wait_out("*VOQ*RW open file /disk/hmi/rcp/srw.dat error\n\r\n")
    assert victim.read_bytes() == b"\7" * 60 and service.count("srb0.dat error") == 0
    service.stop()
    (PORT / "org").rename(victim)
    before = {path.name for path in PORT.iterdir()} - {"rtData4"}
    for end in (victim, WORK / "nowhere"):  # one that leads nowhere is not a missing file
        (PORT / "org").symlink_to(end)
        assert Service(ready=False).process.wait(20) == 1
        (PORT / "org").unlink()
        assert {path.name for path in PORT.iterdir()} == before and (PORT / "data").stat().st_size > 0


def test_fifo_paths_that_hold_something_else(start):
    for path in (PORT / "mekfifo.bad/full", WORK / "elsewhere"):  # a full one cannot be taken
        path.mkdir(parents=True)
    (PORT / "guififo").symlink_to(WORK / "elsewhere")
    (PORT / "mekfifo").touch()
    service = start(com_info())
    service.wait_out("*VOQ*/u/com_1/guififo was no FIFO, kept as /u/com_1/guififo.bad\r\n")
    service.wait_out("*VOQ*/u/com_1/mekfifo could not be kept as /u/com_1/mekfifo.bad\r\n")
    assert (PORT / "guififo").is_fifo() and not (PORT / "guififo").is_symlink() and (PORT / "guififo.bad").is_symlink()
    service.sim.fail(service.sim.HANG)
    service.send(log_on(Key(), 1))
    wait_for(lambda: service.sim.hanging, "the main loop out of the way")
    service.hang_up()

    def reads():
        return int(pathlib.Path(f"/proc/{service.process.pid}/io").read_text().split("syscr: ")[1].split()[0])

    before = reads()
    time.sleep(0.5)  # reading at an end of file without a pause makes a hundred thousand
    assert reads() - before < 100


def test_change_flags_of_somebody_else(start):
    """Not waited for, and passed over in silence until they are the service's own."""
    service = start(com_info(pause=1), environment=traced())
    with open(WORK / "theirs", "w+b", buffering=0) as theirs:
        theirs.write(b"\7" * 60)
        try:
            os.chown(WORK / "theirs", 12345, -1)
        except OSError:
            pytest.skip("no other user in this namespace")
        fcntl.lockf(theirs, fcntl.LOCK_EX)
        os.rename(WORK / "theirs", SRB)
        again(f"access {SRB}", 3)
    assert SRB.read_bytes() == b"\7" * 60 and service.count("srb0.dat error") == 0
    os.chown(SRB, os.geteuid(), -1)
    wait_for(lambda: SRB.read_bytes()[20] == 0, "the flag cleared")


@pytest.mark.parametrize("user", [USER, "/u/none"])
def test_slave_without_a_register_database(start, user):
    (PORT / "org").mkdir(parents=True)
    (USER / "srw0.dat").write_bytes(b"\5" * 100)
    install_driver("Service/Serial")
    service = start(com_info(mode=1), arguments=("/w/ophmi.bin", 0, "/d", user, "/r"))
    wait_for(lambda: service.sim.loops > 3, "turns of the slave")
    assert (USER / "srw0.dat").read_bytes() == b"\5" * 100  # a short one stays
