"""The PLC simulator itself: what the whole-process tests do not already lean on."""
import os

from plc_driver import Driver
from voqtest import Key, Sim


def test_registers_lie_where_they_should_and_hostile_ranges_are_safe():
    sim = Sim()
    os.environ["VOQ_SIM"] = str(sim.path)
    driver = Driver("sim")
    sim.set(Key(65535, regid=0, plcno=2, layout=0), b"\7")
    sim.set(Key(0, 2, regid=0, plcno=2, layout=0), b"\x08\x09")
    assert driver.read(Key(65535, 3, regid=0, plcno=2, layout=0)) == (0, b"\7\x08\x09")  # over the end of its area
    for layout in (0x00, 0x11, 0x22, 0x48, 0xF8, 0x03):
        for regid in range(65528, 65536):
            key = Key(0xFFFFFFFF, 65535, regid, layout, 255)
            result, value = driver.read(key)
            assert (result, driver.write(key, value)) == (0, 0 if regid < 65534 else 3)
            assert driver.read(key, key.size - 1) == 3
    assert driver.read(Key(layout=0x0F), 1) == 3

    assert sim.calls()[-1].sequence == sim.logged == sim.reads + sim.writes + 1
    assert [driver.on_slot(command) for command in ("Init", "Fly", "Destroy", "Destroy")] == [0, 3, 0, 0] and sim.destroys == 1
    sim.path.write_text("not a simulator file")
    assert driver.on_slot("Init") != 0 and not driver.instance
