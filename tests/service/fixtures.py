"""Every test finds an empty box; whatever it started is gone when it ends. conftest.py of each folder takes these over."""
import pytest
import voqtest
from voqtest import ARM, DRIVERS, PROJECT, PROOT

NOT_THROUGH_PROOT = {"test_plc_that_comes_and_goes": "a stop signal does not stop what it traces"}
if ARM:
    NOT_THROUGH_PROOT["test_screen_and_keys"] = "it knows no statx, by which a 32-bit program learns a file's time"


def pytest_collection_modifyitems(items):
    for item in items:
        if PROOT and item.originalname in NOT_THROUGH_PROOT:
            reason = f"{item.name}, through proot: {NOT_THROUGH_PROOT[item.originalname]}"
            item.add_marker(pytest.mark.skip(reason=reason))


@pytest.fixture(autouse=True)
def box():
    voqtest.empty_box()


@pytest.fixture
def start():
    """start(com_info, registers, ...) writes the project, installs the driver and runs the service."""
    running = []

    def begin(com=None, registers=(), driver="sim", **options):
        com = com or voqtest.com_info()
        if registers or not PROJECT.exists() or com != voqtest.com_info():
            PROJECT.write_bytes(voqtest.project([com], registers))
        if driver and not any(DRIVERS.rglob("*.so")):
            voqtest.install_driver("Ethernet" if com[4] == 2 else "Serial", driver, com[8])
        service = voqtest.Service(**options)
        running.append(service)
        return service

    yield begin
    for service in running:
        if service.process.returncode is None:
            service.stop()


def pytest_configure(config):
    config.addinivalue_line("markers", "sanitized: part of the selection for sanitizer builds")
