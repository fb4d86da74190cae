#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the texts of the tree promise.

texts.py spdx ROOT            every file names its licence
texts.py version ROOT         the version is written once, and the changelog opens with it
texts.py pins SOURCES TESTS   each "pinned by SUITE, "NAME"" in SOURCES names a test in TESTS
texts.py codes README HEADER  the README's table of status codes is the header's
texts.py lines DOCS SOURCES   a log line shown in DOCS comes from that very line of SOURCES
"""
import os
import pathlib
import re
import sys

LICENCE = re.compile(r"SPDX-License-Identifier: Apache-2\.0\b")
# Files of a form that has no comments, and the licence itself. Everything else carries the line.
NO_COMMENTS = {"LICENSE", "CMakePresets.json", "service/exports.txt", "packaging/debian/changelog",
               "packaging/debian/source/format", "debian/changelog", "debian/source/format"}
NO_COMMENT_FOLDERS = ("tests/fuzz/corpus/",)


def tree(root):
    """The files that belong to the project, as paths relative to root."""
    for folder, folders, names in os.walk(root):
        top = pathlib.Path(folder) == root
        folders[:] = sorted(name for name in folders if name not in {".git", "__pycache__"}
                            and not (top and re.match(r"build(-|$)", name)))
        for name in sorted(names):
            if not name.endswith(".pyc") and name != ".git":  # a file in a linked worktree
                yield (pathlib.Path(folder) / name).relative_to(root)


def check_spdx(root):
    root, faults, count = pathlib.Path(root), [], 0
    for path in tree(root):
        name = path.as_posix()
        if name in NO_COMMENTS or name.startswith(NO_COMMENT_FOLDERS):
            continue
        count += 1
        head = (root / path).read_text(encoding="utf-8", errors="replace").splitlines()[:5]
        if not any(LICENCE.search(line) for line in head):
            faults.append(f"{name}: no SPDX line among its first five")
    print(f"{count} files read")
    return faults if count else ["no file found"]


def check_version(root):
    root = pathlib.Path(root)
    text = (root / "CMakeLists.txt").read_text(encoding="utf-8")
    version = re.search(r"^project\(\S+ VERSION (\S+)", text, re.M)[1]
    faults = []
    if text.count(version) != 1:
        faults.append(f"CMakeLists.txt: {version} is written {text.count(version)} times")
    literal = re.compile(rf"(?<![\d.]){re.escape(version)}(?!\d|\.\d)")
    for path in tree(root):
        if path.parts[0] in {"service", "agent", "cli", "cmake"}:
            source = (root / path).read_text(encoding="utf-8", errors="replace")
            if literal.search(source):
                faults.append(f"{path}: {version} is written here too")
    changelog = (root / "CHANGELOG.md").read_text(encoding="utf-8")
    newest = re.search(r"^## (\S+)", changelog, re.M)
    if not newest or newest[1] != version:
        faults.append(f"CHANGELOG.md does not open with {version}")
    for name in ("packaging/debian/changelog", "debian/changelog"):
        if (root / name).exists():
            entry = re.match(r"\S+ \(([^)-]+)", (root / name).read_text(encoding="utf-8"))
            if not entry or entry[1] != version:
                faults.append(f"{name} does not open with {version}")
    print(f"version {version}")
    return faults


def sources(root):
    return [path for path in sorted(pathlib.Path(root).rglob("*"))
            if path.suffix in {".h", ".c", ".cpp"}]


def check_pins(source_root, test_root):
    tests, suites, faults, count = set(), set(), [], 0
    for path in sources(test_root):
        text = path.read_text(encoding="utf-8")
        for suite, name in re.findall(r"\bTEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", text):
            tests.add((suite, name))
            suites.add(suite)
    for path in sources(source_root):
        # Comments may break the sentence anywhere: read it without line ends and leaders.
        text = re.sub(r"\s*\n\s*(?://|\*)?\s*", " ", path.read_text(encoding="utf-8"))
        for suite, names in re.findall(r'[Pp]inned by (\w+)((?:,? (?:and )?"\w+")*)', text):
            named = re.findall(r'"(\w+)"', names)
            count += max(1, len(named))
            if not named and suite not in suites:
                faults.append(f"{path}: no test suite {suite}")
            faults += [f"{path}: no test {suite}.{name}" for name in named
                       if (suite, name) not in tests]
    print(f"{count} pins, {len(tests)} tests")
    return faults if count else ["no pin found"]


def check_codes(readme, header):
    declared = re.findall(r"^\s*SR_(\w+) = (\d+)", pathlib.Path(header).read_text(encoding="utf-8"),
                          re.M)
    rows = re.findall(r"^\| (\d+) \| `SR_(\w+)`", pathlib.Path(readme).read_text(encoding="utf-8"),
                      re.M)
    table = [(name, value) for value, name in rows]
    if not declared or table != declared:
        return [f"the header has {declared}", f"the table has {table}"]
    return []


def check_lines(docs, source_root):
    """A shown line is "[SR] [FILE(FUNCTION() +LINE)]BODY"; its statement is SR_LOG(LEVEL, "BODY."""
    by_name, faults, count = {path.name: path for path in sources(source_root)}, [], 0
    shown = re.compile(r"\[SR\] \[([\w.]+)\((~?\w+)\(\) \+(\d+)\)\]([^`\n]*)")
    for path in sorted(pathlib.Path(docs).rglob("*.md")):
        for file, function, line, body in shown.findall(path.read_text(encoding="utf-8")):
            count += 1
            text = by_name[file].read_text(encoding="utf-8") if file in by_name else ""
            here = text.splitlines()[int(line) - 1:int(line)]
            statement = re.search(r'SR_LOG\(\w+, "([^"]*)"', here[0] if here else "")
            if not statement or not body.startswith(statement[1]):
                faults.append(f"{path}: {file} has no such statement in line {line}")
            elif not re.search(rf"(?<!\w){re.escape(function)}\(", text):
                faults.append(f"{path}: {file} has no {function}")
    print(f"{count} log lines shown")
    return faults if count else ["no log line found"]


def main():
    checks = {"spdx": check_spdx, "version": check_version, "pins": check_pins,
              "codes": check_codes, "lines": check_lines}
    faults = checks[sys.argv[1]](*sys.argv[2:])
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
