#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compiles the README's C program as C99, runs it without a bus and compares what it says.

readme_example.py README C_COMPILER INCLUDE_DIR LIBRARY EXPECTED
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile


def main():
    readme, compiler, include_dir, library, expected = sys.argv[1:]
    blocks = re.findall(r"^```c\n(.*?)^```", pathlib.Path(readme).read_text(encoding="utf-8"),
                        re.M | re.S)
    if len(blocks) != 1:
        print(f"{len(blocks)} C programs in {readme}")
        return 1
    folder = os.path.dirname(os.path.abspath(library))
    with tempfile.TemporaryDirectory() as scratch:
        program = os.path.join(scratch, "example")
        built = subprocess.run(
            [compiler, "-std=c99", "-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Werror",
             "-I", include_dir, "-x", "c", "-", "-o", program, "-L", folder,
             f"-Wl,-rpath,{folder}", "-lsentrel-client"],
            input=blocks[0], text=True, check=False)
        if built.returncode:
            return 1
        nowhere = f"unix:path={scratch}/no-bus"
        run = subprocess.run([program], capture_output=True, text=True, check=False, timeout=30,
                             env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": nowhere})
    print(f"exit {run.returncode}, says: {run.stdout}{run.stderr}")
    return 0 if run.returncode != 0 and expected in run.stdout + run.stderr else 1


if __name__ == "__main__":
    sys.exit(main())
