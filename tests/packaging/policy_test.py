#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Who may send to the agent, and own its name, under the shipped policy.

policy_test.py POLICY SCRIPTED_AGENT

The bus has the rules of an ordinary system bus and the shipped file on top. The group is put into a
copy of the system's list, seen by that bus alone, in a mount namespace of its own.
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

from support import private_bus, scripted_agent, skip

GROUP = 64999
NOBODY = 65534
NAME = "org.sentrel.sr_agent"
SYSTEM = pathlib.Path("/usr/share/dbus-1/system.conf")


def system_policy(shipped):
    """The policies of the machine's own configuration, and the shipped file."""
    policies = re.findall(r"<policy.*?</policy>", SYSTEM.read_text(), re.S)
    assert len(policies) >= 2, "the system's configuration has no policy"
    return "\n".join(policies) + f"\n<include>{shipped}</include>"


def send(address, uid, groups, interface, member, *arguments):
    """The name of the error that came back, or the empty text."""
    command = ["setpriv", f"--reuid={uid}", f"--regid={uid}",
               f"--groups={groups}" if groups else "--clear-groups",
               "dbus-send", f"--bus={address}", "--print-reply", f"--dest={NAME}",
               "/org/sentrel/sr_agent", f"{interface}.{member}", *arguments]
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
    if done.returncode == 0:
        return ""
    return re.search(r"^Error (\S+?):", done.stderr, re.M)[1]


def own(address, uid):
    """The answer of the bus to a wish for the agent's name."""
    command = ["setpriv", f"--reuid={uid}", f"--regid={uid}", "--clear-groups", "dbus-send",
               f"--bus={address}", "--print-reply", "--dest=org.freedesktop.DBus",
               "/org/freedesktop/DBus", "org.freedesktop.DBus.RequestName", f"string:{NAME}",
               "uint32:4"]
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
    found = re.search(r"Error (\S+?):|uint32 (\d)", done.stdout + done.stderr)
    return found[1] or found[2]


def expect(what, found, wanted):
    print(f"{what}: {found or 'let through'}")
    if found != wanted:
        raise AssertionError(f"{what}: expected {wanted or 'to be let through'}")


def check(address, agent):
    denied = "org.freedesktop.DBus.Error.AccessDenied"
    call = (NAME, "CallCommand", "string:sr_mount", "string:", "int32:0")
    expect("root owns the name", own(address, 0), "1")
    expect("another user owns the name", own(address, NOBODY), denied)
    with scripted_agent(agent, address):
        expect("root calls", send(address, 0, "", *call), "")
        expect("the group calls", send(address, NOBODY, str(GROUP), *call), "")
        expect("the group asks the second interface",
               send(address, NOBODY, str(GROUP), f"{NAME}.Control1", "Status"), "")
        expect("somebody else calls", send(address, NOBODY, "", *call), denied)
        expect("somebody else asks the second interface",
               send(address, NOBODY, "", f"{NAME}.Control1", "Status"), denied)
        expect("the group calls another interface",
               send(address, NOBODY, str(GROUP), "org.example.Other", "Anything"), denied)
        expect("somebody else introspects",
               send(address, NOBODY, "", "org.freedesktop.DBus.Introspectable", "Introspect"), "")


def main():
    shipped, agent = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
    if os.geteuid() != 0:
        skip("only root can become somebody else")
    probe = subprocess.run(["unshare", "-m", "true"], capture_output=True, check=False)
    if probe.returncode != 0:
        skip("no mount namespace can be made here")
    with tempfile.TemporaryDirectory() as folder:
        groups = pathlib.Path(folder, "group")
        kept = re.sub(r"^sentrel:.*\n", "", pathlib.Path("/etc/group").read_text(), flags=re.M)
        groups.write_text(f"{kept}sentrel:x:{GROUP}:\n")
        groups.chmod(0o644)
        prefix = ("unshare", "-m", "--", "sh", "-c",
                  f'mount --bind "{groups}" /etc/group && exec "$@"', "sh")
        with private_bus(system_policy(shipped), prefix) as address:
            check(address, agent)


if __name__ == "__main__":
    main()
