#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The manual pages.

manual_test.py functions HEADER MAN_DIR CMAKELISTS   each exported C function has its page or link
manual_test.py statuses HEADER PAGE...               each page or guide names each status
manual_test.py options PAGE PROGRAM SOURCE...        the page's options are the program's
manual_test.py operations PAGE PROGRAM               each operation in the help stands in the page
manual_test.py clean PAGE...                         mandoc and man have nothing to say
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys

from support import skip


def read(path):
    return pathlib.Path(path).read_text(encoding="utf-8")


def check_functions(header, folder, installed):
    functions = re.findall(r"^SR_EXPORT [^(]*?\b(SR_\w+)\(", read(header), re.M)
    assert len(functions) == 10, functions
    links = re.search(r"foreach\(name ([\w\s]+)\)", read(installed))[1].split()
    for function in functions:
        own = pathlib.Path(folder, f"{function}.3")
        page = own if own.exists() else pathlib.Path(folder, "SR_Mount.3")
        assert own.exists() or function[3:] in links, f"{function}: neither page nor link"
        text = read(page)
        names = text.split(".Sh NAME")[1].split(".Nd")[0]
        assert re.search(rf"\.Nm {function}\b", names), f"{function}: not under NAME of {page}"
        assert f".Fn {function} " in text.split(".Sh SYNOPSIS")[1], f"{function}: no synopsis"
        assert ".Sh RETURN VALUES" in text, f"{page}: no return values"


def check_statuses(header, *pages):
    codes = re.findall(r"^\s*SR_(\w+) = (\d+)", read(header), re.M)
    assert len(codes) == 11, codes
    for page in pages:
        text = read(page)
        for name, value in codes:
            row = re.search(rf"^(?:\.It|\|) {value} (?:Pq Dv SR_|Ta \"|`SR_|){name}\b", text, re.M)
            assert row, f"{page}: status {value}, {name}, is not there"


def long_options(sources):
    table = r'\{"([\w-]+)", (?:no|required|optional)_argument,'
    return {name for source in sources for name in re.findall(table, read(source))}


def check_options(page, program, *sources):
    done = subprocess.run([program, "--help"], capture_output=True, text=True, timeout=60,
                          check=True)
    helped = set(re.findall(r"^ +(?:-\w, )?--([a-z][\w-]*)", done.stdout, re.M))
    taken = long_options(sources)
    told = set(re.findall(r"^\.It Fl -([\w-]+)", read(page), re.M))
    print("taken:", *sorted(taken))
    assert taken, "no option was found in the sources"
    assert taken == helped, f"help and program differ: {sorted(taken ^ helped)}"
    assert told == taken, (f"not in the page: {sorted(taken - told)}; "
                           f"not in the program: {sorted(told - taken)}")


def check_operations(page, program):
    done = subprocess.run([program, "--help"], capture_output=True, text=True, timeout=60,
                          check=True)
    helped = set(re.findall(r"^  ([a-z][\w-]*) +\S", done.stdout, re.M))
    told = set(re.findall(r"^\.It Cm ([\w-]+)", read(page), re.M))
    print("operations:", *sorted(helped))
    assert len(helped) >= 10 and told == helped, sorted(told ^ helped)


def check_clean(*pages):
    for tool in ("mandoc", "man"):
        if not shutil.which(tool):
            skip(f"{tool} is not installed")
    # Pages that this machine lacks are not the page's fault.
    elsewhere = re.compile(r"referenced manual not found|outdated mandoc.db")
    for page in pages:
        done = subprocess.run(["mandoc", "-T", "lint", "-W", "style", page], capture_output=True,
                              text=True, timeout=60, check=False)
        said = [line for line in (done.stdout + done.stderr).splitlines()
                if not elsewhere.search(line)]
        assert not said, "\n".join(said)
        done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page],
                              capture_output=True, text=True, timeout=60, check=False,
                              env={**os.environ, "MANWIDTH": "80", "LC_ALL": "C.UTF-8"})
        assert done.returncode == 0 and not done.stderr, done.stderr
    assert pages, "no page was given"


if __name__ == "__main__":
    {"functions": check_functions, "statuses": check_statuses, "options": check_options,
     "operations": check_operations, "clean": check_clean}[sys.argv[1]](*sys.argv[2:])
