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
    sizes = {"data and heap": 0, "stacks": 0, "libraries": 0}
    kind = None
    for line in pathlib.Path(f"/proc/{pid}/smaps").read_text(encoding="ascii").splitlines():
        if found := re.match(r"([0-9a-f]+)-\S+ (\S)(\S)\S+ \S+ \S+ \d+ *(.*)", line):
            address, readable, writable, name = int(found[1], 16), *found.groups()[1:]
            behind = not name and kind == "data and heap"  # uninitialised data, and under the emulator the heap
            kind = ("data and heap" if name.endswith("/bin/voq") or name == "[heap]" or behind else
                    "libraries" if name.startswith("/") else "stacks")
            counted = GUEST <= address < GUEST + SPACE and readable == "r"
        elif counted and line.startswith("Size:" if kind == "data and heap" and writable == "w" else "Anonymous:"):
            sizes[kind] += int(line.split()[1])
    return sizes


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
    sizes = own_memory(service.process.pid)
    with capsys.disabled():
        print(f"\nstripped binary {binary:.0f} KiB (limit {BINARY_KIB}); memory of its own {sum(sizes.values())} KiB (limit "
              f"{MEMORY_KIB}): {', '.join(f'{kind} {size}' for kind, size in sizes.items())}")
    assert binary <= BINARY_KIB and min(sizes.values()) > 0 and sum(sizes.values()) <= MEMORY_KIB
