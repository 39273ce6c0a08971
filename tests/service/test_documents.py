"""The guides, followed to the letter: their commands are run, their frames sent, their files compared.

A document's fenced blocks in order: `sh` is run by one shell, `python` from it; `text` is all that the last `sh` printed;
`hex send` goes through the document's own `send`; `hex file PATH` is what the file comes to hold, "??" for any byte.
"""
import os
import pathlib
import re
import signal
import subprocess

import pytest
from voqtest import free_port, programs_folder, read_locked, wait_for

FENCE = re.compile(r"^```(sh|python|text|hex send|hex file)(?: (\S+))?\n(.*?)^```$", re.M | re.S)
COMMANDS = {"hex send": "send", "python": "/usr/bin/python3 -"}
END = "-- end of the block --"


@pytest.fixture
def shell():
    """shell(commands) returns what they print; the first command that fails ends everything."""
    process = subprocess.Popen(["timeout", "120", "bash", "-eu"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, cwd="/co", start_new_session=True)

    def run(commands):
        process.stdin.write(f"{commands}\necho '{END}'\n")
        process.stdin.flush()
        printed = ""
        for line in process.stdout:
            if line.strip() == END:
                return printed
            printed += line
        raise AssertionError(f"{commands}\nended early after printing:\n{printed}")

    yield run
    os.killpg(process.pid, signal.SIGKILL)
    process.wait()


def check_file(path, block):
    wanted = [b for line in block.splitlines() for b in line.split(";")[0].split()]
    pattern = re.compile(b"".join(b"." if b == "??" else re.escape(bytes.fromhex(b)) for b in wanted), re.S)
    wait_for(lambda: path.exists() and pattern.fullmatch(read_locked(path)), f"{path}: {' '.join(wanted)}")


@pytest.mark.parametrize("name", ["driver-guide", "client-guide", "operating", "voqctl", "sim"])
def test_document(shell, name):
    text = pathlib.Path(f"/co/docs/{name}.md").read_text()
    # The build under test, its driver too, in the place of what a reader builds.
    for written, here in (("build/release/bin", str(programs_folder())), ("build/release", "/b"),
                          ("build/line/line.so", "/b/drivers/line.so"), ("build/line", "/w/line"),
                          ("7000", str(free_port()))):
        text = text.replace(written, here)
    printed = None
    for kind, path, block in FENCE.findall(text):
        if kind == "sh":
            printed = shell(block)
        elif kind in COMMANDS:
            shell(f"{COMMANDS[kind]} <<'END'\n{block}END")
        elif kind == "text":
            assert printed == block
        else:
            check_file(pathlib.Path(path), block)
    assert printed is not None
