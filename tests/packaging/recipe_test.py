#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The Yocto recipe agrees with the tree.

recipe_test.py syntax RECIPE                  each line is one that BitBake reads
recipe_test.py facts RECIPE ROOT VERSION      version, licence, options, group and unit are ours
recipe_test.py files RECIPE BUILD PREFIX LIB  each file of an installation has its package

BitBake itself is not needed: the recipe has assignments, `inherit`, and one shell function.
"""
import ast
import fnmatch
import hashlib
import os
import pathlib
import re
import subprocess
import sys
import tempfile

ASSIGNMENT = re.compile(
    r'([A-Z][A-Z_]*(?:\[\w+\])?(?::[\w${}-]+)*)\s*(\?\?=|\?=|\+=|=\+|=)\s*"([^"]*)"$')
# Where bitbake.conf and the classes put what the recipe does not name, in the order of PACKAGES.
CLASSES = [("${PN}-dev", "${includedir} ${libdir}/lib*.so ${libdir}/pkgconfig ${libdir}/cmake"),
           ("${PN}-doc", "${docdir} ${mandir}"),
           ("${PN}", "${bindir}/* ${sbindir}/* ${libdir}/lib*.so.* ${sysconfdir}"),
           ("${PN}-bash-completion", "${datadir}/bash-completion")]
WANTED = {"sbin/sentrel-agent": "${PN}-agent", "bin/sentrel": "${PN}-cli",
          "dbus-1/system.d/org.sentrel.sr_agent.conf": "${PN}-agent",
          "sentrel-agent.service": "${PN}-agent", "libsentrel-client.so.1": "${PN}",
          "libsentrel-client.so": "${PN}-dev", "include/sentrel/SR_API.h": "${PN}-dev",
          "man1/sentrel.1": "${PN}-doc", "completions/sentrel": "${PN}-bash-completion"}


def parse(recipe):
    """The assignments by name, and the shell functions by name."""
    text = pathlib.Path(recipe).read_text(encoding="utf-8")
    lines = iter(text.replace("\\\n", "").splitlines())
    values, functions = {}, {}
    for line in lines:
        if not line.strip() or line.startswith(("#", "inherit ")):
            continue
        if re.fullmatch(r"do_\w+(:append|:prepend)?\(\) \{", line):
            body = []
            for inner in lines:
                if inner == "}":
                    break
                body.append(inner)
            else:
                raise AssertionError(f"{line} has no end")
            functions[line.split("(")[0]] = "\n".join(body)
            continue
        match = ASSIGNMENT.match(line)
        assert match, f"not a line of a recipe: {line}"
        name, _, value = match.groups()
        values[name] = value
    return values, functions


def check_syntax(recipe):
    values, functions = parse(recipe)
    assert len(values) > 15 and functions, "nothing was read"
    inline = re.compile(r"\$\{@(.+?)\}")
    count = 0
    for text in [*values.values(), *functions.values()]:
        text = re.sub(r"\$\{\w+\}", "X", text)  # BitBake puts variables in first
        for expression in inline.findall(text):
            ast.parse(expression, mode="eval")
            count += 1
        assert "${@" not in inline.sub("", text), f"an expression without its end: {text}"
    assert count, "no expression was read"
    for name, body in functions.items():
        shell = inline.sub("true", re.sub(r"\$\{\w+\}", "X", body))
        done = subprocess.run(["sh", "-n"], input=shell, text=True, capture_output=True, timeout=60,
                              check=False)
        assert done.returncode == 0, f"{name}: {done.stderr}"


def declared(root):
    """The options that the build knows."""
    found = set()
    for path in [root / "CMakeLists.txt", *root.glob("*/CMakeLists.txt")]:
        text = path.read_text(encoding="utf-8")
        found |= set(re.findall(r"(?:option|find_library)\((SENTREL_\w+)", text))
        found |= set(re.findall(r"set\((SENTREL_\w+) [^)]*CACHE", text))
    return found


def check_facts(recipe, root, version):
    root = pathlib.Path(root)
    values, _ = parse(recipe)
    name = pathlib.Path(recipe).stem
    short = ".".join(version.split(".")[:2])
    assert name == f"sentrel_{short}", f"{name} is not of {version}"
    assert values["PV"].split("+")[0] == version, f"PV is {values['PV']}"
    file, digest = re.fullmatch(r"file://(\S+);md5=(\w+)", values["LIC_FILES_CHKSUM"]).groups()
    found = hashlib.md5((root / file).read_bytes()).hexdigest()
    assert digest == found, f"{file} has {found}"
    used = {option for value in values.values() for option in re.findall(r"-D(\w+)=", value)}
    assert len(used) >= 6 and used <= declared(root), f"unknown: {sorted(used - declared(root))}"
    group = values["GROUPADD_PARAM:${PN}-agent"].split()[-1]
    packaging = root / "packaging"
    assert re.search(rf"^g {group} ", (packaging / "sysusers.conf").read_text(), re.M), group
    assert f'<policy group="{group}">' in (packaging / "org.sentrel.sr_agent.conf").read_text()
    assert (packaging / (values["SYSTEMD_SERVICE:${PN}-agent"] + ".in")).exists()
    guide = (packaging / "yocto/README.md").read_text()
    switches = {name[len("PACKAGECONFIG["):-1] for name in values
                if name.startswith("PACKAGECONFIG[")}
    told = set(re.findall(r"^\| `([a-z]\w*)` \|", guide, re.M))
    assert switches == told, f"the guide differs: {sorted(switches ^ told)}"
    assert pathlib.Path(recipe).name in guide


def packages(values):
    listed = [(package, values[f"FILES:{package}"])
              for package in values["PACKAGES"].split()] + CLASSES
    places = {"bindir": "/usr/bin", "sbindir": "/usr/sbin", "libdir": "/usr/lib",
              "nonarch_libdir": "/usr/lib", "includedir": "/usr/include", "datadir": "/usr/share",
              "docdir": "/usr/share/doc", "mandir": "/usr/share/man", "sysconfdir": "/etc",
              "systemd_system_unitdir": "/usr/lib/systemd/system", "SOLIBS": ".so.*"}
    for package, patterns in listed:
        yield package, re.sub(r"\$\{(\w+)\}", lambda match: places[match[1]], patterns).split()


def owner(path, listed):
    for package, patterns in listed:
        for pattern in patterns:
            if fnmatch.fnmatchcase(path, pattern) or path.startswith(pattern + "/"):
                return package
    return None


def check_files(recipe, build, prefix, library_folder):
    values, _ = parse(recipe)
    listed = list(packages(values))
    with tempfile.TemporaryDirectory() as stage:
        subprocess.run(["cmake", "--install", build], capture_output=True, timeout=100, check=True,
                       env={**os.environ, "DESTDIR": stage})
        paths = [f"/{path.relative_to(stage).as_posix()}" for path in pathlib.Path(stage).rglob("*")
                 if not path.is_dir()]
    # The bus's files may stand beside the prefix.
    names = [path.removeprefix(f"/{prefix.strip('/')}/").removeprefix("/usr/") for path in paths]
    owners = {}
    for name in names:
        usual = re.sub(rf"^{re.escape(library_folder)}/(?=lib|pkgconfig|cmake)", "lib/", name)
        owners[name] = owner(f"/usr/{usual}", listed)
    print(len(owners), "files")
    lost = sorted(name for name, package in owners.items() if package is None)
    assert len(owners) > 40 and not lost, f"in no package: {lost}"
    for end, package in WANTED.items():
        found = {owners[name] for name in names if f"/{name}".endswith(f"/{end}")}
        assert found == {package}, f"{end} is in {found}"


if __name__ == "__main__":
    {"syntax": check_syntax, "facts": check_facts, "files": check_files}[sys.argv[1]](*sys.argv[2:])
