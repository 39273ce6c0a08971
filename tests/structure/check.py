#!/usr/bin/env python3
"""Walks the #include edges of the tree and fails on one that points up or out of its row, and on a circle of files.

Usage: check.py TREE. In service/ a layer includes only itself and what lies below; operating system headers are arch's
alone. Clients, tools and drivers stand beside the service and include nothing of it. A header and its source count as
one file: what a source includes, its header needs to work.
"""
import graphlib
import pathlib
import re
import sys

LAYERS = ["value", "arch", "state", "stats", "rdchgwr", "database", "list", "comm", "oper", "fileinit", "voq"]  # from the bottom
BESIDE = {  # folder: the rows it may include
    "include": {"include"},
    "value": {"include", "value"},
    "client/c": {"include", "client", "client/c"},
    "client": {"include", "value", "client"},
    "tools": {"include", "value", "client", "tools"},
    "web": {"include", "value", "client", "web"},
    "upstream": {"include", "value", "client", "upstream"},
    "drivers/sim": {"include", "drivers/sim"},
    "drivers/modbus": {"include", "drivers/modbus"},
    "examples/driver": {"include"},
    "examples/client": {"include"},
}
OS_HEADERS = {"thread", "mutex", "shared_mutex", "condition_variable", "future", "filesystem", "fstream", "iostream",
              "csignal"}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)


def row_of(tree, path):
    """The row a file of the tree belongs to, None for one outside all rows."""
    parts = path.relative_to(tree).parts
    if parts[0] == "service":
        return parts[1] if len(parts) > 2 else None
    return next((row for row in BESIDE if "/".join(parts).startswith(row + "/")), None)


def resolve(tree, source, name):
    """The file of the tree that an #include names; the ways a compiler of ours would look for it."""
    places = [source.parent, tree / "include", tree / "service", tree / "client", tree]
    found = [place / name for place in places if (place / name).is_file()]
    return found[0].resolve() if found else None


def check_rows(tree, sources):
    """What is wrong with the edges, and the edges between files without their endings."""
    wrong, edges = [], {}
    for source in sources:
        row = row_of(tree, source)
        allowed = BESIDE.get(row) or set(LAYERS[: LAYERS.index(row) + 1]) | {"include"}
        for bracket, name in INCLUDE.findall(source.read_text()):
            where = f"{source.relative_to(tree)} includes {name}"
            target = resolve(tree, source, name)
            if target is None:
                if bracket == '"':
                    wrong.append(f"{where}: no such file in the tree")
                elif row not in BESIDE and row != "arch" and (name.endswith(".h") or name in OS_HEADERS):
                    wrong.append(f"{where}: operating system headers belong to arch")
                continue
            to = row_of(tree, target)
            if to not in allowed:
                wrong.append(f"{where}: {row} must not reach {to}")
            edges.setdefault(source.with_suffix(""), set()).add(target.with_suffix(""))
    return wrong, edges


def main():
    tree = pathlib.Path(sys.argv[1]).resolve()
    folders = [tree / "service", *(tree / row for row in BESIDE)]
    sources = [p for folder in folders for p in sorted(folder.rglob("*")) if p.suffix in (".h", ".c", ".cpp")]
    wrong, edges = check_rows(tree, sources)
    try:
        graphlib.TopologicalSorter({file: targets - {file} for file, targets in edges.items()}).prepare()
    except graphlib.CycleError as circle:
        wrong.append("a circle: " + " < ".join(str(file.relative_to(tree)) for file in circle.args[1]))
    for line in wrong:
        print(line)
    count = sum(map(len, edges.values()))
    print(f"{count} edges, {len(wrong)} wrong")
    return 1 if wrong or count == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
