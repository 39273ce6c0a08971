#!/usr/bin/env python3
"""Compares the documents with the sources: check_documents.py TREE.

Every message text of the service stands in docs/operating.md, every one of the Modbus drivers in docs/modbus.md, and the
texts there in the sources; the record tables of docs/files.md say what the layouts assert; the tables of voqctl's exit
statuses have those of the tool; every link of a document leads to a file and a heading.
"""
import pathlib
import re
import sys

LITERAL = r'"((?:[^"\\\n]|\\.)*)"'


def bare(text):
    """Without the line's end."""
    return re.sub(r"(\\[rn]|\s)+$", "", text).strip()


def literals(folder):
    """All string literals of the folder, and those that are texts: of several words, with a line's end or a value, or
    handed to a printing function."""
    every, texts = set(), set()
    for path in sorted(folder.rglob("*.[ch]*")):
        code = re.sub(r"^\s*#.*$|//.*$", "", path.read_text(), flags=re.M)
        code = re.sub(r'"\s*\n\s*"', "", code)
        every |= {bare(text) for text in re.findall(LITERAL, code)}
        texts |= {bare(text) for text in re.findall(LITERAL, code) if re.search(r"\w\s\S|^\s\w|\\n|\\r|\*VOQ\*", text)}
        texts |= {bare(text) for text in re.findall(rf"\b(?:puts|printf|PrintSystemError)\({LITERAL}", code)}
    return every, {text for text in texts if re.search(r"\w", re.sub(r"%\w+", "", text))}  # values alone are none


def check_messages(tree, sources, document):
    every, texts = literals(tree / sources)
    section = (tree / "docs" / document).read_text().partition("\n## Messages\n")[2].partition("\n## ")[0]
    rows = re.findall(r"^\| (`.*?`) \| ", section, re.M)
    listed = [text.strip() for row in rows for text in re.findall("`([^`]+)`", row)]
    yield from (f"{document} lacks the message {text!r}" for text in sorted(texts - set(listed)))
    yield from (f"{document} lists {text!r}, which {sources} does not print" for text in listed if text not in every)


def check_records(tree):
    asserts = "".join(p.read_text() for p in (tree / "include").rglob("*.h"))
    for name, size, table in re.findall(r"`(\w+)`, (\d+) bytes.*\n(?:.+\n)*?\n((?:\|.*\n)+)",
                                        (tree / "docs/files.md").read_text()):
        rows = re.findall(r"^\| (\d+) \| (\d+) \| `(\w+)` \|", table, re.M)
        facts = [f"sizeof({name}) == {size}"] + [f"offsetof({name}, {field}) == {at}" for at, _, field in rows[1:]]
        yield from (f"files.md: no layout asserts {fact}" for fact in facts if not re.search(re.escape(fact) + r"\b", asserts))
        if [0] + [int(at) + int(length) for at, length, _ in rows] != [int(at) for at, _, _ in rows] + [int(size)]:
            yield f"files.md: the fields of {name} do not follow one another to {size}"


def check_statuses(tree):
    """voqctl's exit statuses: the documents' tables have those that the tool knows, signals apart."""
    known = set(re.findall(r"^inline constexpr int Exit\w+ = (\d+);", (tree / "tools/commands.h").read_text(), re.M))
    for name, section, row in (("docs/voqctl.md", r"^## Exit status$(.*?)^(?=\w)", r"^\| (\d+)(?: \+ N)? \|"),
                               ("packaging/man/voqctl.1", r"^\.SH EXIT STATUS$(.*?)^\.SH", r"^\.(?:B|RI) (\d+)")):
        listed = set(re.findall(row, re.search(section, (tree / name).read_text(), re.M | re.S)[1], re.M))
        yield from (f"{name}: exit status {status} is only in one of it and tools/commands.h" for status in known ^ listed)


def headings(path):
    return {re.sub(r"[^\w\- ]", "", line.lstrip("# ")).strip().lower().replace(" ", "-")
            for line in path.read_text().splitlines() if line.startswith("#")}


def check_links(tree):
    for document in [tree / "README.md", *sorted((tree / "docs").glob("*.md"))]:
        for link in re.findall(r"\]\(([^)]+)\)", document.read_text()):
            name, _, heading = link.partition("#")
            target = document.parent / name if name else document
            if "://" not in link and (not target.exists() or heading and heading not in headings(target)):
                yield f"{document.name}: no {link}"


def main():
    tree = pathlib.Path(sys.argv[1]).resolve()
    checks = (check_messages(tree, "service", "operating.md"), check_messages(tree, "drivers/modbus", "modbus.md"),
              check_records(tree), check_statuses(tree), check_links(tree))
    wrong = [line for check in checks for line in check]
    print("\n".join(wrong + [f"{len(wrong)} wrong"]))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
