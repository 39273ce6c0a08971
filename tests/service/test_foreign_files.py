"""What others leave where the service works: a second service, links, FIFOs and directories in place of its files."""
import fcntl
import os
import pathlib
import subprocess
import time

import pytest
from test_cadence import traced
from test_operator import SRB, SRW, again
from voqtest import DRIVERS, PROJECT, RECIPE, USER, WORK, Key, READ, Service, com_info, frame, install_driver, log_on
from voqtest import program, project, wait_for

PORT = USER / "com_1"


@pytest.mark.sanitized
@pytest.mark.parametrize("mode", [0, 1])
def test_one_service_on_a_port(start, mode):
    install_driver("Service/Serial" if mode else "Serial")
    first = start(com_info(mode=mode), [Key()])
    out = WORK / "first"
    first.out_path.rename(out)
    second = subprocess.run(program("voq", PROJECT, 0, DRIVERS, USER, RECIPE), capture_output=True, timeout=60)
    assert second.returncode == 1 and second.stdout.endswith(
        b"*VOQ*/u/com_1/lock is held: another service serves this port\r\n"), second
    assert first.process.poll() is None and b"held" not in out.read_bytes()
    assert wait_for(lambda: first.peek("VoqFileOpenCount") == 0)
    first.process.kill()  # and the next one starts at once
    assert start().count("*VOQ*masterSlaveMode=") == 1
    first.process.wait()


def test_files_that_are_none(start):
    """Links are not followed, FIFOs not waited for; the answer that cannot be written is said, the service goes on."""
    victim = WORK / "victim"
    victim.write_bytes(b"precious")
    PORT.mkdir()
    SRW.parent.mkdir(parents=True)
    os.mkfifo(SRW)
    os.mkfifo(PORT / "2")
    (PORT / "3").mkdir()
    for name in ("1", "comerror", "timeout", "rtData4"):
        (PORT / name).symlink_to(victim)
    service = start(com_info(pause=0), [Key(5)])
    service.send(b"".join(frame(READ, Key(n), n) for n in (1, 2, 3, 9)) + frame(7, Key(4), 4, payload=b"ab"))
    wait_for((service / "9").exists, "the answer with a place of its own")
    for name in ("1", "2", "3", "rtData4"):
        service.wait_out(f"*VOQ*RW creat file /u/com_1/{name} error\n\r\n")
    for failure, text in ((2, "set timeout error\n"), (3, "set com error\n")):
        service.send(log_on(Key(50), 50))
        service.sim.fail(failure)
        service.wait_out(text)
    service.sim.fail(0)
    service.wait_out("*VOQ*RW open file /disk/hmi/rcp/srw.dat error\n\r\n")
    assert victim.read_bytes() == b"precious"
    service.stop()
    (PORT / "org").rename(victim)
    (PORT / "org").symlink_to(victim)
    ended = Service(ready=False)
    assert ended.process.wait(20) == 1 and ended.count("*VOQ*RO open file /u/com_1/org error\r\n")


def test_fifo_paths_that_hold_something_else(start):
    PORT.mkdir()
    os.mkfifo(WORK / "elsewhere")
    (PORT / "guififo").symlink_to(WORK / "elsewhere")
    (PORT / "mekfifo").write_bytes(b"a file")
    service = start(com_info())
    for client in ("gui", "mek"):
        path = f"/u/com_1/{client}fifo"
        assert service.count(f"*VOQ*{path} was no FIFO, kept as {path}.bad\r\n") == 1
        assert pathlib.Path(path).is_fifo() and not pathlib.Path(path).is_symlink()
        service.send(log_on(Key(), 1), client)
    assert (PORT / "mekfifo.bad").read_bytes() == b"a file" and (PORT / "guififo.bad").is_symlink()
    wait_for(lambda: service.value(Key()) == service.sim.value(Key()), "both are served")
    service.stop()

    (PORT / "guififo").unlink()
    (PORT / "guififo").touch()  # cannot be moved: it is read, and ends at once
    (PORT / "guififo.bad").unlink()
    (PORT / "guififo.bad").mkdir()
    service = start()
    assert service.count("*VOQ*/u/com_1/guififo could not be kept as /u/com_1/guififo.bad\r\n") == 1

    def reads():
        return int(pathlib.Path(f"/proc/{service.process.pid}/io").read_text().split("syscr: ")[1].split()[0])

    service.send(log_on(Key(), 1), "mek")
    wait_for(lambda: service.sim.reads, "the other client is served")
    service.sim.fail(service.sim.HANG)
    wait_for(lambda: service.sim.hanging, "the main loop out of the way")
    before = reads()
    time.sleep(0.5)  # a busy loop makes a hundred thousand
    assert reads() - before < 100


def test_change_flags_of_somebody_else(start):
    """Neither waited for nor followed, in silence; the GUI's own are taken."""
    service = start(com_info(pause=1), environment=traced())
    victim = WORK / "victim"
    victim.write_bytes(b"\7" * 60)
    SRB.symlink_to(victim)
    again(f"access {SRB}", 3)
    assert victim.read_bytes() == b"\7" * 60
    SRB.unlink()
    with open(WORK / "theirs", "w+b", buffering=0) as theirs:
        theirs.write(b"\7" * 60)
        try:
            os.chown(WORK / "theirs", 12345, -1)
        except OSError:
            pytest.skip("no other user in this namespace")
        fcntl.lockf(theirs, fcntl.LOCK_EX)
        os.rename(WORK / "theirs", SRB)
        again(f"access {SRB}", 3)
        assert SRB.read_bytes() == b"\7" * 60
    assert service.count("srb0.dat error") == service.count("Cominfo need change") == 0
    os.chown(SRB, os.geteuid(), -1)
    wait_for(lambda: SRB.read_bytes()[20] == 0, "the flag cleared")


def test_user_directory_for_the_shell(start):
    """A prepared set is copied by the shell, which must find nothing to do in the directory's name."""
    prepared = pathlib.Path("/home/Bin/map/com_1")
    prepared.mkdir(parents=True)
    for name in ("org", "index", "data"):
        (prepared / name).write_bytes(b"")
    PROJECT.write_bytes(project([com_info()]))
    for user in ("/u/;>hit;", "/u/$(>hit)", "/u/a b", "/u/\x80", "/u/*"):
        pathlib.Path(user).mkdir()
        ended = subprocess.run(program("voq", PROJECT, 0, DRIVERS, user, RECIPE), capture_output=True, timeout=20, cwd=WORK)
        assert ended.returncode == 1 and ended.stdout == \
            b"*VOQ*user data directory: only letters, digits and . _ - / can be used: " + os.fsencode(user) + b"\r\n"
        assert not (WORK / "hit").exists() and not list(pathlib.Path(user).iterdir())


@pytest.mark.parametrize("broken", ["org", "index", "data", "/u/none"])
def test_slave_without_a_register_database(start, broken):
    """It needs none; a master ends and leaves everything as it is."""
    install_driver("Service/Serial")
    arguments = ()
    if broken[0] == "/":
        arguments = (PROJECT, 0, DRIVERS, broken, RECIPE)
    else:
        start(com_info(), [Key(1), Key(2)]).stop()
        (PORT / broken).unlink()
        (PORT / broken).mkdir()
        files = {p.name: p.read_bytes() for p in PORT.iterdir() if p.is_file()}
        assert Service(ready=False).process.wait(20) == 1
        assert files == {p.name: p.read_bytes() for p in PORT.iterdir() if p.is_file()}
    service = start(com_info(mode=1), [Key(1), Key(2)], arguments=arguments)
    wait_for(lambda: service.sim.loops > 3, "turns of the slave")


def test_short_system_words(start):
    (USER / "srw0.dat").write_bytes(b"\5" * 100)
    start(com_info())
    assert (USER / "srw0.dat").read_bytes() == b"\5" * 100
