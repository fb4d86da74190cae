#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What runs where, by the list in where.txt beside this file; MODE is `quick` or `everything`.

where.py labels MODE BUILD         a pattern for ctest's -L: what runs in this build
where.py registered LIST TREE      each test of a build's tree has one label, which the list has
where.py sum JUNIT                 prints "PASSED FAILED SKIPPED", and the skipped ones with why
where.py ran LIST MODE LOGS TREE...  each test of these trees has run in each build that the list
                                   names; LOGS has a file BUILD.xml of each run
"""
import collections
import json
import pathlib
import re
import subprocess
import sys
import xml.etree.ElementTree as tree

LIST = pathlib.Path(__file__).resolve().parent / "where.txt"
UNBUILT = "_NOT_BUILT"  # what stands for all tests of a program that is not built


def read(path):
    """{label: {mode: [build]}}"""
    where = {}
    for line in pathlib.Path(path).read_text(encoding="utf-8").splitlines():
        if line.strip() and not line.startswith("#"):
            label, quick, *everything = line.split()
            assert label not in where and everything, f"not a line of the list: {line}"
            where[label] = {"quick": [name for name in [quick] if name != "-"],
                            "everything": [name for name in everything if name != "-"]}
    return where


def tests(build):
    """Name, labels and program of each registered test."""
    done = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], check=True,
                          capture_output=True, text=True, timeout=300)
    for test in json.loads(done.stdout)["tests"]:
        labels = [value for field in test.get("properties", []) if field["name"] == "LABELS"
                  for value in field["value"]]
        yield test["name"], labels, pathlib.Path(test.get("command", ["?"])[0]).name


def cases(junit):
    return tree.parse(junit).getroot().iter("testcase")


def plain(name):
    """A name with each run of blanks made one: XML keeps no others in it."""
    return " ".join(name.split())


def check_registered(path, build):
    where, faults, seen, unbuilt = read(path), [], set(), 0
    for label, modes in where.items():
        if modes["quick"] and not modes["everything"]:
            faults.append(f"{label}: quick runs what everything does not")
    for name, labels, _ in tests(build):
        if name.endswith(UNBUILT):
            unbuilt += 1
            continue
        seen |= set(labels)
        if len(labels) != 1 or labels[0] not in where:
            faults.append(f"{name}: its labels are {sorted(labels)}, not one of the list")
    if not unbuilt:
        faults += [f"{label}: no test has it" for label, modes in where.items()
                   if modes["everything"] and label not in seen]
    print(f"{len(where)} labels in the list, {len(seen)} in use, {unbuilt} programs not built")
    return faults if seen else ["no test found"]


def check_ran(path, mode, logs, *builds):
    where, known, programs, unbuilt = read(path), {}, {}, {}
    there = collections.defaultdict(set)  # names and programs by build
    for build in builds:
        for name, labels, program in tests(build):
            if name.endswith(UNBUILT):
                unbuilt[name[:-len(UNBUILT)]] = build
            else:
                known[plain(name)] = labels
                programs[program] = programs[plain(name)] = program
                there[pathlib.Path(build).name] |= {plain(name), program}
    faults = [f"{program}: built nowhere, but known in {build}"
              for program, build in unbuilt.items() if program not in programs]
    ran = {}
    for name, labels in sorted(known.items()):
        label = labels[0] if len(labels) == 1 else None
        if label not in where:
            faults.append(f"{name}: its labels are {sorted(labels)}, not one of the list")
            continue
        for build in where[label][mode]:
            if build not in ran:
                junit = pathlib.Path(logs, f"{build}.xml")
                ran[build] = ({plain(case.get("name")) for case in cases(junit)}
                              if junit.exists() else set())
            # A program may have more tests in one build than in another.
            has_fewer = programs[name] in there[build] and name not in there[build]
            if name not in ran[build] and not has_fewer:
                faults.append(f"{name} ({label}) has not run in {build}")
    print(f"{len(known)} tests known, " +
          ", ".join(f"{len(names)} run in {build}" for build, names in ran.items()))
    return faults if known else ["no test found"]


def reason(case):
    """Why a test says that it was skipped."""
    text = case.findtext("system-out") or ""
    found = (re.search(r"^skipped: (.+)$", text, re.M) or
             re.search(r": Skipped\n(.+(?:\n(?!\[|\n).+)*)", text))
    return " ".join(found[1].split()) if found else "it does not say why"


def sum_up(junit):
    """Skipped is only what is switched off or said so itself; what could not be run has failed."""
    passed = failed = 0
    skipped = collections.defaultdict(list)
    for case in cases(junit):
        mark = case.find("skipped")
        text = "" if mark is None else mark.get("message", "")
        if case.get("status") == "run" and case.find("failure") is None:
            passed += 1
        elif case.get("status") == "disabled":
            skipped["it is switched off"].append(case.get("name"))
        elif text.startswith("SKIP_"):
            skipped[reason(case)].append(case.get("name"))
        else:
            failed += 1
    print(passed, failed, sum(map(len, skipped.values())))
    for why, names in skipped.items():
        shown = ", ".join(names[:3]) + (f" and {len(names) - 3} more" if len(names) > 3 else "")
        print(f"skipped {len(names)}: {why}: {shown}")


def main():
    what, *arguments = sys.argv[1:]
    if what == "labels":
        mode, build = arguments
        print("^(" + "|".join(label for label, modes in read(LIST).items()
                              if build in modes[mode]) + ")$")
        return 0
    if what == "sum":
        sum_up(*arguments)
        return 0
    faults = {"registered": check_registered, "ran": check_ran}[what](*arguments)
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
