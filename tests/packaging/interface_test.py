#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The installed description of the interfaces is what the agent answers.

interface_test.py FILE AGENT
"""
import os
import pathlib
import subprocess
import sys
import xml.etree.ElementTree as tree

from support import private_bus, program, read_line

NAME = "org.sentrel.sr_agent"


def interfaces(text):
    """Each interface of ours as text in one form, by its name."""
    found = {}
    for interface in tree.fromstring(text).findall("interface"):
        if not interface.get("name").startswith("org.freedesktop."):
            members = [(member.tag, sorted(member.items()),
                        [sorted(argument.items()) for argument in member])
                       for member in interface]
            found[interface.get("name")] = sorted(members)
    return found


def ask(address, destination, path, member, *arguments):
    done = subprocess.run(["dbus-send", f"--bus={address}", "--print-reply=literal",
                           f"--dest={destination}", path, member, *arguments],
                          capture_output=True, text=True, timeout=60, check=True)
    return done.stdout.strip()


def main():
    path, agent = sys.argv[1:]
    shipped = interfaces(pathlib.Path(path).read_text(encoding="utf-8"))
    with private_bus() as address:
        reader, writer = os.pipe()
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": address}
        with program(agent, stderr=writer, env=environment):
            os.close(writer)
            while "serving" not in read_line(reader, "the agent"):
                pass
            answered = interfaces(ask(address, NAME, "/org/sentrel/sr_agent",
                                      "org.freedesktop.DBus.Introspectable.Introspect"))
            os.close(reader)
    print("answered:", *answered)
    assert NAME in answered, "the agent describes nothing"
    assert shipped == answered, f"the file has {shipped}, the agent {answered}"


if __name__ == "__main__":
    main()
