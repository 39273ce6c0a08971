#!/usr/bin/env python3
"""Walks the #include edges of the tree and fails on one that points up or out of its row.

Usage: check.py TREE. In service/ a layer includes only itself and what lies below; operating system headers are arch's
alone. Clients, tools and drivers stand beside the service and include no more of it than the row below names.
"""
import pathlib
import re
import sys

LAYERS = ["arch", "state", "rdchgwr", "list", "comm", "oper", "fileinit", "voq"]  # from the bottom
BESIDE = {  # folder: the rows it may include
    "client": {"include", "client", "rdchgwr"},
    "tools": {"include", "client", "tools", "rdchgwr"},
    "drivers/sim": {"include", "drivers/sim"},
    "drivers/modbus": {"include", "drivers/modbus"},
    "examples/driver": {"include"},
    "include": {"include"},
}
OS_HEADERS = {"thread", "mutex", "shared_mutex", "condition_variable", "future", "filesystem", "fstream", "iostream",
              "csignal"}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)


def row_of(tree, path):
    """The row a file of the tree belongs to, None for one outside all rows."""
    parts = path.relative_to(tree).parts
    if parts[0] == "service":
        return parts[1] if len(parts) > 2 else None
    for row in BESIDE:
        if "/".join(parts).startswith(row + "/"):
            return row
    return None


def resolve(tree, source, name):
    """The file of the tree that an #include names; the ways a compiler of ours would look for it."""
    places = [source.parent, tree / "include", tree / "service", tree / "client", tree]
    found = [place / name for place in places if (place / name).is_file()]
    return found[0].resolve() if found else None


def check(tree):
    wrong, edges = [], 0
    folders = [tree / "service"] + [tree / row for row in BESIDE]
    files = [p for folder in folders if folder.is_dir() for p in sorted(folder.rglob("*"))]
    sources = [p for p in files if p.suffix in (".h", ".c", ".cpp")]
    for source in sources:
        row = row_of(tree, source)
        for bracket, name in INCLUDE.findall(source.read_text()):
            where = f"{source.relative_to(tree)} includes {name}"
            target = resolve(tree, source, name)
            if target is None:
                if bracket == '"':
                    wrong.append(f"{where}: no such file in the tree")
                elif row in LAYERS and row != "arch" and (name.endswith(".h") or name in OS_HEADERS):
                    wrong.append(f"{where}: operating system headers belong to arch")
                continue
            edges += 1
            to = row_of(tree, target)
            allowed = set(LAYERS[: LAYERS.index(row) + 1]) | {"include"} if row in LAYERS else BESIDE[row]
            if to not in allowed:
                wrong.append(f"{where}: {row} must not reach {to}")
    return wrong, edges


def main():
    tree = pathlib.Path(sys.argv[1]).resolve()
    wrong, edges = check(tree)
    for line in wrong:
        print(line)
    print(f"{edges} edges, {len(wrong)} wrong")
    return 1 if wrong or edges == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
