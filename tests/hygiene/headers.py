#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compiles each installed header alone, the C ones as C99 too, without a single warning.

headers.py COMPILER C_COMPILER INCLUDE_DIR FLAGS HEADER...   FLAGS: of the libraries below, one text
"""
import concurrent.futures
import os
import pathlib
import shlex
import subprocess
import sys

WARNINGS = "-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror".split()


def is_c(path):
    """The C headers open with a C comment, the C++ ones with //."""
    return path.read_text(encoding="utf-8").startswith("/*")


def compile_alone(command, language, name):
    # Twice, for the guard; and C wants one declaration.
    source = f"#include <sentrel/{name}>\n#include <sentrel/{name}>\ntypedef int Declared;\n"
    result = subprocess.run(command + ["-fsyntax-only", "-x", language, "-"], input=source,
                            capture_output=True, text=True, check=False)
    return name, language, result.returncode, result.stderr


def main():
    cxx, cc, include_dir, flags, *headers = sys.argv[1:]
    include = pathlib.Path(include_dir)
    common = WARNINGS + ["-I", str(include)] + shlex.split(flags)
    jobs = []
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for name in headers:
            jobs.append(pool.submit(compile_alone, [cxx, "-std=c++17"] + common, "c++", name))
            if is_c(include / "sentrel" / name):
                jobs.append(pool.submit(compile_alone, [cc, "-std=c99"] + common, "c", name))
    results = [job.result() for job in jobs]
    for name, language, code, text in results:
        if code:
            print(f"{name} as {language}:\n{text}")
    c_count = sum(language == "c" for _, language, _, _ in results)
    print(f"{len(results)} compilations, {c_count} of them as C")
    return 1 if not c_count or any(code for _, _, code, _ in results) else 0


if __name__ == "__main__":
    sys.exit(main())
