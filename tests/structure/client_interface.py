#!/usr/bin/env python3
"""Compares what the client library exports with what was released and what is written of it: client_interface.py TREE NM
LIBRARY.

What is exported, with its version, is what client/c/symbols lists, the calls of voq/client.h and those of the manual
page; the Python module names no other. A symbol of the list is never taken out or given another version while the
library's name stays: programs that are installed need it.
"""
import pathlib
import re
import subprocess
import sys


def main():
    tree, nm, library = pathlib.Path(sys.argv[1]), *sys.argv[2:]
    exported = subprocess.run([nm, "-D", "--defined-only", "--with-symbol-versions", library], capture_output=True,
                              text=True, check=True).stdout
    symbols = {line.split()[-1] for line in exported.splitlines() if " A " not in line}
    calls = {symbol.partition("@")[0] for symbol in symbols}
    header = re.sub(r"/\*.*?\*/", "", (tree / "include/voq/client.h").read_text(), flags=re.S)
    page = (tree / "packaging/man/libvoq-client.3").read_text()
    python = (tree / "client/python/voq/_library.py").read_text()
    wrong = [f"{where}: {name}" for where, names in {
        "the library lacks a symbol of client/c/symbols":
            set((tree / "client/c/symbols").read_text().split()) - symbols,
        "client/c/symbols lacks": symbols - set((tree / "client/c/symbols").read_text().split()),
        "client.h and the library differ in": set(re.findall(r"\b(voq_\w+)\(", header)) ^ calls,
        "the manual page and the library differ in": set(re.findall(r"^\.BI? .*?\b(voq_\w+)\(", page, re.M)) ^ calls,
        "voq/_library.py calls": {"voq_" + name for name in re.findall(r'^    "(\w+)": \(', python, re.M)} - calls,
        "voq/_library.py uses without its types": set(re.findall(r"\blibrary\.(\w+)\(", "".join(
            file.read_text() for file in (tree / "client/python/voq").glob("*.py")))) -
            set(re.findall(r'^    "(\w+)": \(', python, re.M)),
    }.items() for name in sorted(names)]
    print("\n".join([*wrong, f"{len(calls)} calls, {len(wrong)} wrong"]))
    return 1 if wrong or not calls else 0


if __name__ == "__main__":
    sys.exit(main())
