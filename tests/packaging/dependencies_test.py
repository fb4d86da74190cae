#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Each library that the build asks for is in each list of what is needed to build.

dependencies_test.py ROOT

The lists are those of Debian's packages, of the scripts that install what is missing, of the cross
build, of the recipe and of the README. A library that the table below does not know is a fault too.
"""
import pathlib
import re
import sys

# As CMake or pkg-config knows it: Debian's package, the recipe, the README's word.
LIBRARIES = {
    "Boost": ("libboost-dev", "boost", "Boost"),
    "dbus-1": ("libdbus-1-dev", "dbus", "libdbus"),
    "libseccomp": ("libseccomp-dev", "libseccomp", "libseccomp"),
    "nlohmann_json": ("nlohmann-json3-dev", "nlohmann-json", "nlohmann-json"),
    "re2": ("libre2-dev", "re2", "RE2"),
    "tomlplusplus": ("libtomlplusplus-dev", "tomlplusplus", "toml++"),
    "utf8cpp": ("libutfcpp-dev", "utfcpp", "utf8cpp"),
}
NONE = {"Threads", "PkgConfig"}  # the compiler's, and a tool
SCRIPTS = ("scripts/test.sh", "scripts/demo.sh", "scripts/cross.sh")
FOLDERS = ("service", "agent", "cli")


def asked(root):
    """{library: the Debian package that the error names, or None}"""
    found = {}
    paths = [root / "CMakeLists.txt"]
    for folder in FOLDERS:
        paths += sorted((root / folder).rglob("CMakeLists.txt"))
    for path in paths:
        text = re.sub(r"#.*", "", path.read_text(encoding="utf-8"))
        for name in re.findall(r"\bfind_package\((\w+)", text):
            found.setdefault(name, None)
        for words in re.findall(r"\bpkg_check_modules\(\w+ ([^)]*)\)", text):
            for name in words.split():
                if name not in ("REQUIRED", "QUIET", "IMPORTED_TARGET"):
                    found.setdefault(re.split("[<>=]", name)[0], None)
        for name, package in re.findall(r"\bneed_library\((\w+) ([\w.+-]+)", text):
            found[name] = package
    return {name: package for name, package in found.items() if name not in NONE}


def lists(root):
    """{list: its text without comments, which Debian's package it names by, or another word}"""
    def read(name):
        text = (root / name).read_text(encoding="utf-8")
        return re.sub(r"(?m)^\s*#.*", "", text)

    control = read("debian/control")
    yield "debian/control", re.search(r"(?ms)^Build-Depends:(.*?)^\S", control)[1], 0
    for name in SCRIPTS:
        yield name, read(name), 0
    for path in sorted((root / "packaging/yocto").glob("*.bb")):
        wanted = re.findall(r'(?m)^(?:DEPENDS|PACKAGECONFIG\[\w+\]) = "([^"]*)"', path.read_text())
        yield path.name, "\n".join(wanted), 1
    yield "README.md", re.search(r"(?ms)^Needed are (.*?)^$", read("README.md"))[1], 2


def main():
    root = pathlib.Path(sys.argv[1])
    found = asked(root)
    faults = [f"{name}: not in the table of this test" for name in found if name not in LIBRARIES]
    for name in sorted(found.keys() & LIBRARIES.keys()):
        words = LIBRARIES[name]
        if found[name] not in (None, words[0]):
            faults.append(f"{name}: the error names {found[name]}")
        for place, text, which in lists(root):
            if not re.search(rf"(?<![\w+-]){re.escape(words[which])}(?![\w+-])", text):
                faults.append(f"{place}: {words[which]} is missing")
    print(f"{len(found)} libraries: {', '.join(sorted(found))}")
    print("\n".join(faults))
    assert len(found) >= 4, "the build's files were not read"
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
