#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reads every #include of a source tree and compares it with the allowed pairs.

includes.py library DIR INSTALLED...   DIR is service/src; INSTALLED are the installed headers
includes.py agent DIR                  only <sentrel/...> and its own files; each room sees the rooms
                                       below it, and parse and decide see neither bus nor system
includes.py cli DIR                    only <sentrel/SR_API.h>, <sentrel/SR_Status.h>,
                                       <sentrel/Arguments.h> and its own, and <sentrel/sentrel.h>
                                       in Control.cpp alone

Prints each include that is not allowed and ends with 1 when there is one.
"""
import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
SOURCES = {".h", ".hpp", ".c", ".cc", ".cpp"}

# Folder to the folders it may reach besides itself. The status is open to all.
ALLOWED = {
    "api": {"communication", "log", "status"},
    "communication": {"communication/dbus", "log", "status"},
    "communication/dbus": {"loop", "log", "status"},
    "loop": {"status"},
    "log": {"status"},
    "status": set(),
}
LIBDBUS = {"communication/dbus"}  # the folders that may include libdbus's header
# The agent's rooms, each with those that it may see. What lies above them sees all.
ROOMS = {
    "passage": {"rules", "gate", "answer", "run", "relay", "decide", "parse", "base"},
    "rules": {"decide", "parse", "base"},
    "gate": {"answer", "parse", "base"},
    "answer": {"relay", "base"},
    "run": {"relay", "base"},
    "relay": {"base"},
    "decide": {"parse", "base"},
    "parse": {"base"},
    "base": set(),
}
# Those that know neither the bus nor the system: of base, of the library and of the C library they
# may see what is named here, and of C++ everything but what opens files.
PURE = {"parse", "decide"}
PURE_BASE = {"Caller", "Operation", "Permit", "Result", "Text", "Tools"}
PURE_HEADERS = {"sentrel/SR_Status.h", "sys/types.h", "linux/mount.h", "re2/re2.h",
                "toml++/toml.h", "utf8.h", "fnmatch.h"}
IMPURE_HEADERS = {"filesystem", "fstream", "thread", "future"}
MOST_ARROWS = 30
UMBRELLA = "sentrel.h"  # exists to include every installed header, so it may reach every folder
# Arguments.h is header-only and stands on SR_API.h: with it, the command quotes words as any caller.
CLI_HEADERS = {"sentrel/SR_API.h", "sentrel/SR_Status.h", "sentrel/Arguments.h"}
CLI_BUS_FILE, CLI_BUS_HEADER = "Control.cpp", "sentrel/sentrel.h"


def read(root):
    """File (relative to root) -> [(line number, '<' or '"', name)]."""
    found = {}
    for path in sorted(root.rglob("*")):
        if path.suffix in SOURCES:
            lines = path.read_text(encoding="utf-8").splitlines()
            matches = ((number, INCLUDE.match(line)) for number, line in enumerate(lines, 1))
            found[path.relative_to(root)] = [(n, m[1], m[2]) for n, m in matches if m]
    return found


def family(path):
    """SR_X.h, SR_X.cpp and SR_XImpl.h are one family."""
    return path.stem[:-4] if path.stem.endswith("Impl") else path.stem


def check_library(root, installed):
    files = read(root)
    by_name = {path.name: path for path in files}
    faults, arrows, header_graph = [], set(), {}
    for missing in sorted(set(installed) - set(by_name)):
        faults.append(f"{missing}: installed, but not found")
    for path, includes in files.items():
        for line, kind, name in includes:
            where = f"{path}:{line}: {name}"
            source_layer = path.parent.as_posix()
            if name.startswith("dbus/") and source_layer not in LIBDBUS:
                faults.append(f"{where}: {source_layer} knows nothing of libdbus")
            if kind == "<":
                if name.startswith("sentrel/") or name in by_name:
                    faults.append(f"{where}: own headers are included in quotes, by name")
                continue
            if name not in by_name:
                faults.append(f"{where}: no such file in the library")
                continue
            target = by_name[name]
            target_layer = target.parent.as_posix()
            if source_layer not in ALLOWED:
                faults.append(f"{path}: a folder that is no layer")
            elif (source_layer != target_layer and path.name != UMBRELLA
                  and target_layer not in ALLOWED[source_layer]):
                faults.append(f"{where}: {source_layer} must not reach {target_layer}")
            if path.name in installed and name not in installed:
                faults.append(f"{where}: an installed header includes one that is not")
            if path.suffix == ".h":
                header_graph.setdefault(path.name, set()).add(name)
            if family(path) != family(target) and path.name != UMBRELLA:
                arrows.add((family(path), family(target), target_layer in ("log", "status")))
    faults += [f"{' -> '.join(circle)}: headers in a circle" for circle in circles(header_graph)]
    families = {family(path) for path in files}
    print(f"{len(arrows)} arrows between {len(families)} file families, "
          f"{sum(pebble for _, _, pebble in arrows)} of them to the log or the status")
    return faults


def circles(graph):
    """Each circle of headers found on a walk from every header."""
    found, done = [], set()

    def walk(node, trail):
        if node in trail:
            found.append(trail[trail.index(node):] + [node])
        elif node not in done:
            for target in sorted(graph.get(node, ())):
                walk(target, trail + [node])
            done.add(node)

    for start in sorted(graph):
        walk(start, [])
    return found


def check_outside(root, allowed):
    """`allowed` tells whether a file may include <name> of the library."""
    files = read(root)
    faults = []
    for path, includes in files.items():
        for line, kind, name in includes:
            if kind == "<":
                ours = name.startswith("sentrel/") or pathlib.PurePath(name).name.startswith("SR_")
                bad = ours and not allowed(path.as_posix(), name)
            else:
                target = next((p for p in (root / path.parent / name, root / name)
                               if p.is_file()), None)
                bad = target is None or root.resolve() not in target.resolve().parents
            if bad:
                faults.append(f"{path}:{line}: {name}: not open to this folder")
    print(f"{len(files)} files read")
    return faults


def check_agent(root):
    faults = check_outside(root, lambda _, name: name.startswith("sentrel/"))
    arrows, header_graph = set(), {}
    for path, includes in read(root).items():
        room = path.parent.as_posix()
        if room == ".":
            continue
        if room not in ROOMS:
            faults.append(f"{path}: a folder that is no room")
            continue
        for line, kind, name in includes:
            where = f"{path}:{line}: {name}"
            if kind == "<":
                if room in PURE and name not in PURE_HEADERS and (
                        "/" in name or "." in name or name in IMPURE_HEADERS):
                    faults.append(f"{where}: {room} knows neither the bus nor the system")
                continue
            own = (root / path.parent / name).is_file()
            target = path.parent / name if own else pathlib.PurePath(name)
            other = target.parent.as_posix()
            if path.suffix == ".h":
                header_graph.setdefault(path.as_posix(), set()).add(target.as_posix())
            if other == room:
                continue
            arrows.add((room, other))
            if other not in ROOMS[room]:
                faults.append(f"{where}: {room} must not see {other}")
            elif room in PURE and other == "base" and target.stem not in PURE_BASE:
                faults.append(f"{where}: {room} knows neither the bus nor the system")
    faults += [f"{' -> '.join(circle)}: headers in a circle" for circle in circles(header_graph)]
    print(f"{len(arrows)} arrows between {len(ROOMS)} rooms")
    if len(arrows) > MOST_ARROWS:
        faults.append(f"more than {MOST_ARROWS} arrows between the rooms")
    return faults


def main():
    mode, root = sys.argv[1], pathlib.Path(sys.argv[2])
    if mode == "library":
        faults = check_library(root, sys.argv[3:])
    elif mode == "agent":
        faults = check_agent(root)
    else:
        faults = check_outside(root, lambda path, name: name in CLI_HEADERS or (
            (path, name) == (CLI_BUS_FILE, CLI_BUS_HEADER)))
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
