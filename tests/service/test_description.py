"""A description as its writer uses it: checked, built, run against a PLC, compared with what runs and applied to it."""
import subprocess
import sys

import pytest
from pymodbus.client import ModbusTcpClient
from voqtest import PROJECT, USER, WORK, free_port, install_driver, program, wait_for

PLANT = WORK / "plant.toml"
PLACE = ("--dir", USER, "--project", PLANT)


def ctl(*arguments, status=0):
    done = subprocess.run(program("voqctl", *arguments), capture_output=True, text=True, timeout=60)
    assert done.returncode == status, (arguments, done)
    return done.stdout


@pytest.fixture
def plant(start):
    """The example against a PLC of its own, the service running on it."""
    port = free_port()
    with open("/co/examples/plant.toml") as example:
        PLANT.write_text(example.read().replace("15020", str(port)))
    plc = subprocess.Popen([sys.executable, "/co/examples/plc.py", str(port)], stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
    assert " 60 register(s): 0 error(s), 0 warning(s)" in ctl("project", "check", PLANT, "--dir", USER)
    ctl("project", "build", PLANT, "-o", PROJECT)
    install_driver("Ethernet", "modbus_tcp")
    master = ModbusTcpClient("127.0.0.1", port=port)
    wait_for(master.connect, "the PLC")
    service = start(driver=None, directory="/u/tcp_1")
    service.send(b"", "mek")
    yield service, master
    master.close()
    plc.kill(), plc.wait()


def test_plant_runs_and_changes(plant):
    service, master = plant
    wait_for(lambda: ", ok 60" in ctl("status", *PLACE, "--wait", 0), "every range read")
    ctl("write", *PLACE, "boiler.curve", 1.5, 0, 0, 0, 0)  # 0x3FC00000
    ctl("write", *PLACE, "pump2.power", 1.5)
    ctl("write", *PLACE, "pump5.hours", 0x12345)
    assert master.read_holding_registers(110, count=2, slave=1).registers == [0x3FC0, 0]
    assert master.read_holding_registers(214, count=2, slave=2).registers == [0, 0x3FC0]
    assert master.read_holding_registers(246, count=2, slave=2).registers == [1, 0x2345]
    assert ctl("read", *PLACE, "pump2.power") == "1.5 W\n"

    against = ("project", "diff", PLANT, "--dir", USER, "--running", PROJECT)
    assert ctl(*against) == ""
    changed = PLANT.read_text().replace('"boiler.mode", address = 100', '"boiler.mode", address = 105')
    PLANT.write_text(changed.replace("count = 5\nstride = 4", "count = 6\nstride = 4").replace(
        "number = 1\ndriver", "number = 1\nword_gap = 3\ndriver"))
    difference = ctl(*against, status=1).splitlines()
    assert [line.split()[:2] for line in difference if line[0] in "+-!"] == [
        ["+", "boiler.mode"], ["+", "pump6.on"], ["+", "pump6.reset"], ["-", "p1:s1:a4:u16@100*1,flag=0xa0000"],
        ["!", "word_gap:"]]
    applied = ctl("project", "apply", PLANT, "--dir", USER, "--running", PROJECT)
    assert "3 range(s) registered" in applied and "restart the service" in applied
    assert "+" not in ctl(*against, status=1)
    assert ctl("check", *PLACE).endswith(": sound\n")
