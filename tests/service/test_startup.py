"""Start-up: command line, printed lines, files, and the combinations of what an earlier run may have left."""
import subprocess

import pytest
from voqtest import (DRIVERS, PROJECT, RECIPE, SYSTEM, USER, Key, com_info, gateway, install_driver, program, project,
                     retained_settings, sound, wait_for)

REGISTERS = [Key(20, 2), Key(10, 4), Key(5, 3, regid=2, layout=0x00), Key(10, 4), Key(7, portno=2),
             Key(8, convpara=0x10000), Key(10, 1, flag=0x10200)]
FAILED = b"Get cominfo failed. Need relanch. exit...\n"
NAMES = """DataDir=/u/com_1/|downloaddir=/home/Bin/map/com_1/|downOrg=/home/Bin/map/com_1/org
downindex=/home/Bin/map/com_1/index|downdatafile=/home/Bin/map/com_1/data|LBNAME=/u/lb.dat|LWNAME=/u/lw.dat
SRWNAME=/u/srw0.dat|SRBNAME=/u/srb0.dat|RWNAME=/r/rw.dat|vSRWNAME=/r/srw.dat|vSRBNAME=/r/srb.dat|orgfile=/u/com_1/org
datafile=/u/com_1/data|indexfile=/u/com_1/index|TimeoutName=/u/com_1/timeout|guififo=/u/com_1/guififo
mekfifo=/u/com_1/mekfifo""".replace("|", "\n") + "\n"


def run(*arguments):
    """Runs the binary to its end."""
    return subprocess.run(program("voq", *arguments), capture_output=True, timeout=60, cwd="/")


def refused(index, ending=b""):
    """The configuration is refused; the output ends as given."""
    done = run(PROJECT, index, DRIVERS, USER, RECIPE)
    assert (done.returncode, done.stderr) == (0, b"") and done.stdout.endswith(ending + FAILED), done


def overwritten(raw, at, number):
    return raw[:at] + number.to_bytes(4, "little") + raw[at + 4:]


@pytest.mark.sanitized
def test_command_line():
    for arguments in ([], ["a"], ["a", "0", "c", "d"], ["a", "0", "c", "d", "e", "f"]):
        done = run(*arguments)
        assert (done.returncode, done.stdout, done.stderr) == (255, b"voq command line error!\n", b"")
    long = "/u/" + 61 * "x"
    for arguments in ((PROJECT, 0, long, USER, RECIPE), (PROJECT, 0, DRIVERS, USER, long),
                      (PROJECT, 0, DRIVERS, "/u/" + 300 * "x", RECIPE), ("/" + 256 * "x", 0, DRIVERS, USER, RECIPE),
                      (PROJECT, 0, DRIVERS, "/u/" + 48 * "x", RECIPE),
                      *((PROJECT, digits + 40 * "x", DRIVERS, USER, RECIPE) for digits in ("", "0")),
                      (PROJECT, 0, DRIVERS, "/u;" + 40 * "x", RECIPE)):
        PROJECT.write_bytes(project([com_info()]))
        done = run(*arguments)
        assert done.returncode == 1 and 40 * "x" in done.stdout.decode().splitlines()[-1], done
    refused(70000, b"Port not find,ComPorts=1,ComSegIndex=4464\n")
    damaged = [overwritten(project([com_info()]), at, 0xFFFFFFF0) for at in (20, 64, 96)]  # where segments begin
    for raw, ending in ((project([com_info(link=3)]), b""), (bytes(199), b"ophmi.bin size <200 byte\n"),
                        *((raw, b" lies outside the file\r\n") for raw in damaged)):
        PROJECT.write_bytes(raw)
        refused(0, ending)
    PROJECT.unlink()
    refused(0, b"open ophmi.bin error\n")


FIRST_START = f"""input arg=6:/w/ophmi.bin 0 /d /u
*VOQ*sys byte oder=1234\r
*VOQ*Get bps form SRW:9600,8,1,0,0\r
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
    retained_settings()
    service = start(com_info(packing=3, pause=7), REGISTERS, driver=None)
    assert service.out().decode() == FIRST_START
    assert [(n.offset, n.key) for n in service.chain()] == [
        (offset, REGISTERS[n]) for offset, n in ((68, 1), (12, 0), (124, 2), (180, 6))]
    sound()
    assert sorted(p.name for p in (service / "").iterdir()) == sorted(
        ["data", "guififo", "im1_1_22_0", "im1_1_22_0_1", "im1_2_0_0", "index", "lock", "mekfifo", "org", "stats"])
    assert (USER / "srw0.dat").stat().st_size == 20000
    wait_for(lambda: all(n.state == 3 for n in service.chain() if not n.key.flag & 0x200), "reads without a driver")
    assert not (service / "comerror").exists()  # nor do they count as failures


@pytest.mark.parametrize("at, message", [(240, "65535 registers do not fit it"), (640, "offset 65775 lies outside")])
def test_damaged_register_table(start, at, message):
    """Nothing of it is registered."""
    PROJECT.write_bytes(overwritten(project([com_info()], 50 * [Key()]), at, 0xFFFF))
    service = start()
    assert message in service.out().decode() and (service / "org").read_bytes() == bytes(12)


def test_drivers_and_link_types(start):
    install_driver("Ethernet", next(SYSTEM.glob("lib/*/libm.so.6")), 4)  # no driver
    service = start(com_info(link=2, port=4), REGISTERS, directory=USER / "tcp_4")
    assert "*VOQ*dlsym(PlcDrvCmd) error(" in service.out().decode() and ", _cmd:(nil)\r\n" in service.out().decode()
    service.stop()
    service = start(com_info(link=1), directory=USER / "can_1")
    assert "*VOQ*dlopen(/ddrv_1) error(" in service.out().decode() and (service / "org").stat().st_size == 12


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
    tarn = gateway(com_info(pause=9))
    service = start()
    head = service.out().decode().split("DataDir=")[0]
    assert head.startswith("input arg=6:/w/ophmi.bin 0 /d /u\n*VOQ*tarn portindex find...loading...\r\n"
                           "*VOQ*Read config form /home/tarn/com_7.con\r\n*VOQ*-------")
    assert "RegAmount" not in service.out().decode() and (service / "org").read_bytes() == bytes(12)
    service.stop()
    refused(1)
    refused(2, b"Port not find,TarnPorts=2,ComSegIndex=2\n")
    (tarn / "com_7.con").unlink()
    refused(0, b"open /home/tarn/com_7.con error\n")
    for name, raw, ending in (("com_7.con", bytes(59), b"com_7.con is shorter than a port record\r\n"),
                              ("PortIndex", b"\2\0\3\0\7\0", b"port 0 has unknown link kind 3\r\n"),
                              ("PortIndex", b"\2\0\2\0\7\0", b"open /home/tarn/tcp_7.con error\n"),
                              ("PortIndex", b"\2\0\3\0", b"too short for port 0\r\n"),
                              ("PortIndex", b"\2", b"TarnPorts=0,ComSegIndex=0\n")):
        (tarn / name).write_bytes(raw)
        refused(0, ending)
