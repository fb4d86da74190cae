#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The systemd unit.

unit_test.py valid UNIT AGENT     systemd takes it without a word
unit_test.py mounts UNIT          nothing in it gives the agent a mount namespace or takes devices
unit_test.py reasons UNIT         each setting that is not used, of ours and of those that systemd
                                  rates, stands in a comment
unit_test.py calls UNIT AGENT_DIR each system call that the agent makes by number is let through
unit_test.py score UNIT LIMIT     its exposure, as systemd rates it, is not above LIMIT
"""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

from support import skip

# Each of these makes systemd give a service mounts of its own.
NAMESPACE = """PrivateTmp PrivateDevices PrivateMounts PrivateIPC PrivateNetwork ProtectSystem
    ProtectHome ProtectKernelTunables ProtectKernelModules ProtectKernelLogs ProtectControlGroups
    ProtectProc ProcSubset ReadOnlyPaths ReadWritePaths InaccessiblePaths ExecPaths NoExecPaths
    BindPaths BindReadOnlyPaths TemporaryFileSystem RootDirectory RootImage MountImages
    ExtensionImages LogNamespace""".split()
# These would stop mknod, openat2 or the way to a share's server.
HARMFUL = ["ProtectClock", "DeviceAllow", "RestrictSUIDSGID", "User", "DynamicUser", "PrivateUsers",
           "IPAddressDeny"]


def settings(unit):
    found = {}
    for line in pathlib.Path(unit).read_text().splitlines():
        match = re.match(r"(\w+)=(.*)", line)
        if match:
            found.setdefault(match[1], []).append(match[2])
    return found


def analyze(*arguments, **environment):
    if not shutil.which("systemd-analyze"):
        skip("systemd-analyze is not installed")
    return subprocess.run(["systemd-analyze", *arguments], capture_output=True, text=True,
                          timeout=60, check=False, env={**os.environ, **environment})


def check_valid(unit, agent):
    with tempfile.TemporaryDirectory() as folder:
        copy = pathlib.Path(folder, "sentrel-agent.service")
        copy.write_text(re.sub(r"(?m)^ExecStart=\S+", f"ExecStart={agent}",
                               pathlib.Path(unit).read_text()))
        # The unit of the bus belongs to another package, which need not be here.
        pathlib.Path(folder, "dbus.socket").write_text(
            "[Socket]\nListenStream=/run/dbus/system_bus_socket\n")
        pathlib.Path(folder, "dbus.service").write_text("[Service]\nExecStart=/bin/true\n")
        done = analyze("verify", "--man=no", str(copy), SYSTEMD_UNIT_PATH=f"{folder}:")
        said = [line for line in (done.stdout + done.stderr).splitlines()
                if "sentrel-agent.service" in line]
        assert done.returncode == 0 and not said, f"{done.returncode}: {said}"


def check_mounts(unit):
    used = settings(unit)
    assert used["Type"] == ["dbus"] and used["BusName"] == ["org.sentrel.sr_agent"]
    wrong = [name for name in NAMESPACE + HARMFUL if name in used]
    assert not wrong, f"these must not be used: {wrong}"


def check_reasons(unit):
    text = pathlib.Path(unit).read_text()
    comments = " ".join(line for line in text.splitlines() if line.startswith("#"))
    # Not set, or only in part; a setting that systemd sees no use for in this unit has no value.
    rated = analyze("security", "--offline=true", "--json=short", unit).stdout
    open_ones = {name for entry in json.loads(rated) if entry["set"] is False
                 for name in re.findall(r"(\w+)=", entry["name"])} - set(settings(unit))
    print("rated and not used:", *sorted(open_ones))
    assert len(open_ones) > 10, "systemd rated nothing"
    missing = [name for name in sorted(open_ones | set(NAMESPACE + HARMFUL))
               if not re.search(rf"\b{name}\b", comments)]
    assert not missing, f"no reason is given for leaving these out: {missing}"


def members(group, known):
    """The calls of a set of systemd's, the sets in it opened up."""
    for line in analyze("syscall-filter", group).stdout.splitlines():
        word = line.strip()
        if word.startswith("@") and word != group:
            members(word, known)
        elif word and not word.startswith(("#", "@")):
            known.add(word)
    return known


def check_calls(unit, agent_dir):
    allowed = set()
    for word in " ".join(settings(unit)["SystemCallFilter"]).split():
        allowed |= members(word, set()) if word.startswith("@") else {word}
    made = set()
    for path in pathlib.Path(agent_dir).rglob("*.*"):
        if path.suffix in {".h", ".cpp"}:
            made |= set(re.findall(r"\bSYS_(\w+)", path.read_text()))
    print("made:", *sorted(made))
    assert made and len(allowed) > 200, "nothing was read"
    assert made <= allowed, f"not let through: {sorted(made - allowed)}"


def check_score(unit, limit):
    done = analyze("security", "--offline=true", "--no-pager", unit)
    score = float(re.search(r"exposure level for \S+: ([\d.]+)", done.stdout)[1])
    print(f"exposure {score}")
    assert score <= float(limit), f"{score} is above {limit}"


if __name__ == "__main__":
    {"valid": check_valid, "mounts": check_mounts, "reasons": check_reasons, "calls": check_calls,
     "score": check_score}[sys.argv[1]](*sys.argv[2:])
