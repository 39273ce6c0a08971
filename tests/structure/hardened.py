#!/usr/bin/env python3
"""Looks for the defences in built files: hardened.py READELF FILE..."""
import re
import subprocess
import sys


def missing(text):
    def found(pattern):
        return re.search(pattern, text) is not None

    program = found(r"\bINTERP\b")
    return [what for what, there in {
        "position-independent code": found(r"Type:\s+DYN") and (not program or found(r"\(FLAGS_1\).*\bPIE\b")),
        "no relocation of text": not found(r"\(TEXTREL\)"),
        "read-only relocations": found(r"\bGNU_RELRO\b") and found(r"\(FLAGS_1\).*\bNOW\b"),
        "stack that cannot be run": found(r"\bGNU_STACK\b.* RW +0x") and not found(r"\bLOAD\b.* RWE "),
        "stack protector": found(r"UND __stack_chk_fail"),
        "checked buffer functions": found(r"UND __(?!stack)\w+_chk\b"),
    }.items() if not there]


def main():
    readelf, *files = sys.argv[1:]
    wrong = 0
    for file in files:
        text = subprocess.run([readelf, "-hldW", "--dyn-syms", file], capture_output=True, text=True, check=True).stdout
        for what in missing(text):
            wrong += 1
            print(f"{file}: no {what}")
    print(f"{len(files)} files, {wrong} defences missing")
    return 1 if wrong or not files else 0


if __name__ == "__main__":
    sys.exit(main())
