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
# Where the recipe has what a folder needs; the rest stands in DEPENDS.
RECIPE = {"agent": ["PACKAGECONFIG[agent]", "PACKAGECONFIG[re2]"], "cli": ["PACKAGECONFIG[cli]"]}


def asked(root):
    """(folder, library, the Debian package that the error names or None); "" is the root."""
    paths = [("", root / "CMakeLists.txt")]
    for folder in FOLDERS:
        paths += [(folder, path) for path in sorted((root / folder).rglob("CMakeLists.txt"))]
    for folder, path in paths:
        text = re.sub(r"#.*", "", path.read_text(encoding="utf-8"))
        names = re.findall(r"\bfind_package\((\w+)", text)
        for words in re.findall(r"\bpkg_check_modules\(\w+ ([^)]*)\)", text):
            names += [re.split("[<>=]", word)[0] for word in words.split()
                      if word not in ("REQUIRED", "QUIET", "IMPORTED_TARGET")]
        yield from ((folder, name, None) for name in names if name not in NONE)
        for name, package in re.findall(r"\bneed_library\((\w+) ([\w.+-]+)", text):
            yield folder, name, package


def read(path):
    """Without comments."""
    return re.sub(r"(?m)^\s*#.*", "", path.read_text(encoding="utf-8"))


def lists(root, folder):
    """(list, its text, which of the table's words it has), of what is needed for the folder."""
    control = read(root / "debian/control")
    yield "debian/control", re.search(r"(?ms)^Build-Depends:(.*?)^\S", control)[1], 0
    for name in SCRIPTS:
        yield name, read(root / name), 0
    for path in sorted((root / "packaging/yocto").glob("*.bb")):
        wanted = dict(re.findall(r'(?m)^(DEPENDS|PACKAGECONFIG\[\w+\]) = "([^"]*)"', read(path)))
        names = RECIPE.get(folder, ["DEPENDS"])
        yield path.name, "\n".join(wanted[name] for name in names), 1
    yield "README.md", re.search(r"(?ms)^Needed are (.*?)^$", read(root / "README.md"))[1], 2


def main():
    root = pathlib.Path(sys.argv[1])
    faults, found = [], set()
    for folder, name, package in asked(root):
        found.add(name)
        if name not in LIBRARIES:
            faults.append(f"{folder}: {name} is not in the table of this test")
            continue
        words = LIBRARIES[name]
        if package not in (None, words[0]):
            faults.append(f"{folder}: the error about {name} names {package}")
        for place, text, which in lists(root, folder):
            if not re.search(rf"(?<![\w+-]){re.escape(words[which])}(?![\w+-])", text):
                faults.append(f"{place}: {words[which]}, which {folder or 'the root'} asks for")
    print(f"{len(found)} libraries: {', '.join(sorted(found))}")
    print("\n".join(faults))
    assert len(found) >= 4, "the build's files were not read"
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
