"""What the service costs the panel: its size on the flash and the memory of its own, printed and held to their limits."""
import pathlib
import re
import subprocess

import pytest
from voqtest import ARM, BUILD, BUILT, READ, TOOLS, WORK, Key, frame, log_on, wait_for

BINARY_KIB, MEMORY_KIB = 200, 3072
GUEST = 1 << 32 if ARM else 0  # where the emulator is told to put the service's address space
SPACE = 1 << 32 if ARM else 1 << 64


def own_memory(pid):
    """KiB: the program's data and heap in full, then what the stacks and the libraries have touched of theirs.

    Mapped files are not counted, nor is the emulator, whose memory lies outside the service's address space.
    """
    total, ours = 0, False
    for line in pathlib.Path(f"/proc/{pid}/smaps").read_text(encoding="ascii").splitlines():
        if found := re.match(r"([0-9a-f]+)-\S+ (..)\S+ \S+ \S+ \d+ *(.*)", line):
            # Without a name: uninitialised data, and under the emulator the heap.
            ours = found[3].endswith("/bin/voq") or found[3] == "[heap]" or ours and not found[3]
            counted = GUEST <= int(found[1], 16) < GUEST + SPACE and found[2][0] == "r"
            field = "Size:" if ours and found[2] == "rw" else "Anonymous:"
        elif counted and line.startswith(field):
            total += int(line.split()[1])
    return total


@pytest.mark.skipif("CMAKE_BUILD_TYPE:STRING=Release" not in BUILT, reason="the limits are those of the release build")
def test_footprint(start, capsys):
    subprocess.run([TOOLS + "strip", "-o", WORK / "stripped", BUILD / "bin/voq"], check=True)
    binary = (WORK / "stripped").stat().st_size / 1024
    service = start(registers=[Key(3 * i, 2) for i in range(100)], environment={"QEMU_GUEST_BASE": hex(GUEST)})
    subscribed = [Key(1000 + 2 * i, 2) for i in range(300)]
    service.send(b"".join(log_on(key, i + 1) for i, key in enumerate(subscribed)))
    service.send(b"".join(frame(READ, key, 1000 + i) for i, key in enumerate(subscribed[:100])), "mek")
    wait_for(lambda: len(service.chain()) == 400 and all(n.state == 1 for n in service.chain()), "values")
    wait_for(lambda: (service / "1099").exists(), "the last answer")
    memory = own_memory(service.process.pid)
    with capsys.disabled():
        print(f"\nstripped binary {binary:.0f} KiB (limit {BINARY_KIB}); memory of its own {memory} KiB (limit {MEMORY_KIB})")
    assert binary <= BINARY_KIB and 500 < memory <= MEMORY_KIB
