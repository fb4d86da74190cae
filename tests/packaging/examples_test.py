#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The examples of the guides, run.

examples_test.py serve PROGRAM SOURCE        it greets over a bus, and ends with the bus
examples_test.py first PROGRAM AGENT SOURCE  it sends what it says, and ends as it was told
examples_test.py quoted SOURCE GUIDE...      a guide that shows a program shows the compiled one
"""
import os
import pathlib
import subprocess
import sys

from support import private_bus, program, read_line, scripted_agent


def environment(address):
    return {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": address}


def check_serve(binary, source):
    lines = len(pathlib.Path(source).read_text(encoding="utf-8").splitlines())
    assert lines <= 50, f"{lines} lines are more than fifty"
    with private_bus() as address:
        with program(binary, stdout=subprocess.PIPE, env=environment(address)) as process:
            assert read_line(process.stdout.fileno(), "the program") == "ready"
            command = ["dbus-send", f"--bus={address}", "--print-reply=literal",
                       "--dest=org.example.Greeter", "/org/example/Greeter",
                       "org.example.Greeter.Greet"]
            done = subprocess.run([*command, "string:world"], capture_output=True, text=True,
                                  timeout=60, check=True)
            assert done.stdout.strip() == "Hello, world!", done.stdout
            done = subprocess.run([*command, "int32:1"], capture_output=True, text=True,
                                  timeout=60, check=False)
            assert "org.freedesktop.DBus.Error.InvalidArgs" in done.stderr, done.stderr


def check_first(binary, agent, source):
    assert "-t tmpfs" in pathlib.Path(source).read_text(encoding="utf-8")
    with private_bus() as address:
        with scripted_agent(agent, address, "--text", "0 32") as process:
            done = subprocess.run([binary], timeout=60, check=False, env=environment(address))
            report = read_line(process.stdout.fileno(), "the agent")
        assert report.endswith("| sr_mount | -t tmpfs -o size=1m none /run/media/x | 1"), report
        assert done.returncode == 32, done.returncode
        done = subprocess.run([binary], timeout=60, check=False, env=environment(address),
                              capture_output=True, text=True)
        assert done.returncode == 125, done.returncode
        assert done.stderr == "not mounted: status 5, COMM_NO_SERVICE\n", done.stderr


def check_quoted(source, *guides):
    code = pathlib.Path(source).read_text(encoding="utf-8")
    code = code[code.index("#include"):].strip()
    for guide in guides:
        assert code in pathlib.Path(guide).read_text(encoding="utf-8"), f"{guide} shows another"


if __name__ == "__main__":
    {"serve": check_serve, "first": check_first, "quoted": check_quoted}[sys.argv[1]](*sys.argv[2:])
