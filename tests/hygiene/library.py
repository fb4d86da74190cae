#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the shared library shows to the outside.

library.py exports LIBRARY LIST    its defined dynamic symbols are the listed ones, as a set
library.py log LIBRARY             __dlog_print is open to a definition found earlier
library.py soname LIBRARY NAME     its soname
library.py interface LIBRARY MAJOR SR_ConfigInfo() speaks of the soname's version

To renew the list:
  nm -D --defined-only LIBRARY | awk '{print $3}' | LC_ALL=C sort -u > service/exports.txt
"""
import ctypes
import pathlib
import re
import subprocess
import sys


def symbols(library, *options):
    """Name -> nm's letters of the dynamic symbols."""
    output = subprocess.run(["nm", "-D", *options, library], capture_output=True, text=True,
                            check=True).stdout
    fields = [line.split() for line in output.splitlines()]
    return {words[-1]: words[-2] for words in fields if len(words) >= 2}


def check_exports(library, list_file):
    listed = pathlib.Path(list_file).read_text(encoding="ascii").splitlines()
    actual = set(symbols(library, "--defined-only"))
    faults = [f"not listed: {name}" for name in sorted(actual - set(listed))]
    faults += [f"not in the library: {name}" for name in sorted(set(listed) - actual)]
    if listed != sorted(set(listed)):
        faults.append("the list is not sorted, or names something twice")
    print(f"{len(actual)} symbols, {len(listed)} listed")
    return faults


def check_log(library):
    letter = symbols(library).get("__dlog_print", "absent")
    return [] if letter in {"U", "w", "v"} else [f"__dlog_print is {letter}, not undefined or weak"]


def check_soname(library, name):
    output = subprocess.run(["readelf", "-d", library], capture_output=True, text=True,
                            check=True).stdout
    found = re.findall(r"\(SONAME\).*\[(.*)\]", output)
    return [] if found == [name] else [f"soname {found}, not {name}"]


def check_interface(library, major):
    config_info = ctypes.CDLL(library).SR_ConfigInfo
    config_info.restype = ctypes.c_char_p
    text = config_info().decode("ascii")
    return [] if re.match(rf"v{major}\.\d+ ", text) else [f"{text!r} is not of version {major}"]


def main():
    checks = {"exports": check_exports, "log": check_log, "soname": check_soname,
              "interface": check_interface}
    faults = checks[sys.argv[1]](*sys.argv[2:])
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
