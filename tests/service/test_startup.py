"""Start-up: command line, printed lines, files, and the combinations of what an earlier run may have left."""
import pathlib
import shutil
import struct
import subprocess

import pytest
from voqtest import DRIVERS, PROJECT, RECIPE, SYSTEM, USER, Key, com_info, program, project, wait_for

REGISTERS = [Key(20, 2), Key(10, 4), Key(5, 3, regid=2, layout=0x00), Key(10, 4), Key(7, portno=2),
             Key(8, convpara=0x10000), Key(10, 1, flag=0x10200)]
GROUPS = {REGISTERS[0].group: [(10, 4), (20, 2)], REGISTERS[2].group: [(5, 3)], REGISTERS[6].group: [(10, 1)]}
FAILED = b"Get cominfo failed. Need relanch. exit...\n"
NAMES = """DataDir=/u/com_1/|downloaddir=/home/Bin/map/com_1/|downOrg=/home/Bin/map/com_1/org
downindex=/home/Bin/map/com_1/index|downdatafile=/home/Bin/map/com_1/data|LBNAME=/u/lb.dat|LWNAME=/u/lw.dat
SRWNAME=/u/srw0.dat|SRBNAME=/u/srb0.dat|RWNAME=/r/rw.dat|vSRWNAME=/r/srw.dat|vSRBNAME=/r/srb.dat|orgfile=/u/com_1/org
datafile=/u/com_1/data|indexfile=/u/com_1/index|TimeoutName=/u/com_1/timeout|guififo=/u/com_1/guififo
mekfifo=/u/com_1/mekfifo""".replace("|", "\n") + "\n"


def run(*arguments):
    """Runs the binary to its end."""
    return subprocess.run(program("voq", *arguments), capture_output=True, timeout=60, cwd="/")


def refused(raw, *ending):
    """The project file is refused as a configuration failure; the output ends as given."""
    PROJECT.write_bytes(raw)
    done = run(PROJECT, 0, DRIVERS, USER, RECIPE)
    assert (done.returncode, done.stderr) == (0, b"") and done.stdout.endswith(b"".join(ending) + FAILED), done
    return done.stdout


@pytest.mark.sanitized
def test_command_line():
    for arguments in ([], ["a", "0", "c", "d"], ["a", "0", "c", "d", "e", "f"]):
        done = run(*arguments)
        assert (done.returncode, done.stdout, done.stderr) == (255, b"voq command line error!\n", b"")
    long = "/u/" + 61 * "x"
    for arguments in ((PROJECT, 0, long, USER, RECIPE), (PROJECT, 0, DRIVERS, USER, long),
                      (PROJECT, 0, DRIVERS, "/u/" + 300 * "x", RECIPE), ("/" + 256 * "x", 0, DRIVERS, USER, RECIPE),
                      (PROJECT, 0, DRIVERS, "/u/" + 48 * "x", RECIPE),
                      (PROJECT, 0, DRIVERS, "/u;" + 40 * "x", RECIPE)):
        PROJECT.write_bytes(project([com_info()]))
        done = run(*arguments)
        assert done.returncode == 1 and 40 * "x" in done.stdout.decode().splitlines()[-1], done
    done = run(PROJECT, 70000, DRIVERS, USER, RECIPE)
    assert b"input arg=6:/w/ophmi.bin 4464 /d /u\n" in done.stdout
    assert done.returncode == 0 and done.stdout.endswith(b"Port not find,ComPorts=1,ComSegIndex=4464\n" + FAILED)


FIRST_START = f"""input arg=6:/w/ophmi.bin 0 /d /u
*VOQ*sys byte oder=1234\r
*VOQ*-----------------------------&&&&&&&&&&&pack=3\r
*VOQ*dlopen(/d/Serial/drv_1) error(/d/Serial/drv_1.so: cannot open shared object file: No such file or directory)\r
{NAMES}*VOQ*No download orgfile find,build one\r
*VOQ*RegAmount=7
\r
*VOQ*############i=0,mapPcs=2\r
*VOQ*############i=1,mapPcs=1\r
*VOQ*############i=2,mapPcs=1\r
*VOQ*comIntervals=7\r
*VOQ*masterSlaveMode=0\r
*VOQ*/u/srw0.dat not find,build one \r
*VOQ*---------------->GlobeWatchDogAddr=1030\r
"""


@pytest.mark.sanitized
def test_first_start(start):
    """The whole output, byte for byte, and everything a first start leaves on the disk."""
    service = start(com_info(packing=3, pause=7), REGISTERS, driver=None)
    assert service.out().decode() == FIRST_START
    chain = service.chain()
    assert [(n.key.group, n.key.place) for n in chain] == [(g, p) for g, places in GROUPS.items() for p in places]
    assert [n.offset for n in chain] == [68, 12, 124, 180] and {n.logtimes for n in chain} == {0}
    assert (service / "data").read_bytes() == bytes(sum(n.key.size for n in chain))
    assert service.index() == {chain[0].key.group: (68, 2), chain[2].key.group: (124, 1), chain[3].key.group: (180, 1)}
    assert [service.map(g) for g in GROUPS] == [[(10, 4, 68), (20, 2, 12)], [(5, 3, 124)], [(10, 1, 180)]]
    assert sorted(p.name for p in (service / "").iterdir()) == sorted(
        ["data", "guififo", "im1_1_22_0", "im1_1_22_0_1", "im1_2_0_0", "index", "lock", "mekfifo", "org"])
    srw = (USER / "srw0.dat").read_bytes()
    assert len(srw) == 20000 and not any(srw[:2060] + srw[2064:])
    wait_for(lambda: all(n.state == 3 for n in service.chain() if not n.key.flag & 0x200), "reads without a driver")
    assert not (service / "comerror").exists()  # nor do they count as failures


def test_drivers_and_link_types(start):
    (DRIVERS / "Ethernet").mkdir()
    (DRIVERS / "Ethernet/drv_4.so").write_bytes(b"not a library")
    service = start(com_info(link=2, port=4), REGISTERS, directory=USER / "tcp_4")
    assert service.count("*VOQ*dlopen(/d/Ethernet/drv_4) error(") == service.count("DataDir=/u/tcp_4/\n") == 1
    service.stop()
    shutil.copy(next(SYSTEM.glob("lib/*/libm.so.6")), DRIVERS / "Ethernet/drv_4.so")  # no driver
    service = start(directory=USER / "tcp_4")
    assert "*VOQ*dlsym(PlcDrvCmd) error(" in service.out().decode() and ", _cmd:(nil)\r\n" in service.out().decode()
    service.stop()
    service = start(com_info(link=1), directory=USER / "can_1")
    assert "*VOQ*dlopen(/ddrv_1) error(" in service.out().decode() and (service / "org").stat().st_size == 12
    refused(project([com_info(link=3)]))


def test_damaged_project():
    whole = project([com_info(), com_info(port=2)], REGISTERS[:2])
    done = run(PROJECT, 0, DRIVERS, USER, RECIPE)
    assert done.returncode == 0 and done.stdout.endswith(b"open ophmi.bin error\n" + FAILED)
    refused(whole[:199], b"ophmi.bin size <200 byte\n")


def test_waits_for_an_org_header(start):
    (USER / "com_1").mkdir()
    for name, raw in (("org", bytes(5)), ("data", b""), ("index", b"")):
        (USER / "com_1" / name).write_bytes(raw)
    service = start(com_info(), ready=False)
    service.wait_out("*VOQ*Start Read ORG file ret=0\r\n", 3)
    assert service.count("comIntervals") == 0
    with open(service / "org", "r+b") as file:
        file.write(bytes(12))
    service.wait_out("GlobeWatchDogAddr=1030\r\n")


def test_gateway(start):
    tarn = pathlib.Path("/home/tarn")
    tarn.mkdir()
    (tarn / "PortIndex").write_bytes(struct.pack("<5H", 2, 0, 7, 1, 8))
    (tarn / "com_7.con").write_bytes(com_info(port=1, pause=9))
    service = start()
    head = service.out().decode().split("DataDir=")[0]
    assert head.startswith("input arg=6:/w/ophmi.bin 0 /d /u\n*VOQ*tarn portindex find...loading...\r\n"
                           "*VOQ*Read config form /home/tarn/com_7.con\r\n*VOQ*-------")
    assert "RegAmount" not in service.out().decode() and (service / "org").read_bytes() == bytes(12)
    service.stop()
    for index, ending in ((1, b""), (2, b"Port not find,TarnPorts=2,ComSegIndex=2\n")):
        done = run(PROJECT, index, DRIVERS, USER, RECIPE)
        assert done.returncode == 0 and done.stdout.endswith(ending + FAILED)
    (tarn / "com_7.con").unlink()
    done = run(PROJECT, 0, DRIVERS, USER, RECIPE)
    assert done.stdout.endswith(b"open /home/tarn/com_7.con error\n" + FAILED)


def test_retained_settings(start):
    settings = pathlib.Path("/disk/hmi/rcp/srw.dat")
    settings.parent.mkdir(parents=True)
    for size, baud, printed in ((500, 19200, 0), (512, 19200, 1), (512, 0, 1)):
        settings.write_bytes((bytes(500) + struct.pack("<I4H", baud, 9, 1, 2, 1))[:size])
        service = start(com_info())
        assert service.count(f"*VOQ*Get bps form SRW:{baud},9,1,2,1\r\n") == printed
        service.stop()
