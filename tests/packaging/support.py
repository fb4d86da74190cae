# SPDX-License-Identifier: Apache-2.0
"""What the tests of the packaging share: skips, and programs that a test starts and ends."""
import contextlib
import os
import pathlib
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile

SKIPPED = 77  # what ctest is told to take for a skip


def skip(reason):
    """Ends the test as skipped, or as failed where nothing may be skipped."""
    print(f"skipped: {reason}")
    sys.exit(1 if os.environ.get("SENTREL_MUST_RUN") == "1" else SKIPPED)


def end(process):
    """Ends a program that a test has started, and waits for it."""
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
    for stream in (process.stdout, process.stderr, process.stdin):
        if stream:
            stream.close()


@contextlib.contextmanager
def program(*command, **options):
    process = subprocess.Popen([str(word) for word in command], **options)
    try:
        yield process
    finally:
        end(process)


@contextlib.contextmanager
def for_everybody(binary):
    """A copy of a program where each user can start it, whoever may enter the build; and its
    environment, by which it finds copies of the libraries that were built with it."""
    said = subprocess.run(["ldd", binary], capture_output=True, text=True, timeout=60, check=True)
    with tempfile.TemporaryDirectory(prefix="sentrel-copy-") as folder:
        os.chmod(folder, 0o755)
        for path in [str(binary), *re.findall(r"=> (/\S+/libsentrel\S+) ", said.stdout)]:
            shutil.copy(path, folder)
        yield pathlib.Path(folder, pathlib.Path(binary).name), {**os.environ,
                                                                "LD_LIBRARY_PATH": folder}


def read_line(descriptor, what, limit=30):
    """One line of a pipe; fails when it does not come in time."""
    line = b""
    while not line.endswith(b"\n"):
        if not select.select([descriptor], [], [], limit)[0]:
            raise AssertionError(f"{what}: nothing came within {limit} s")
        byte = os.read(descriptor, 1)
        if not byte:
            raise AssertionError(f"{what}: it ended")
        line += byte
    return line.decode().strip()


CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={folder}/bus</listen>
  <auth>EXTERNAL</auth>
{policy}
</busconfig>
"""
OPEN = """  <policy context="default">
    <allow user="*"/> <allow own="*"/> <allow send_type="method_call"/>
    <allow send_type="signal"/> <allow receive_type="signal"/> <allow receive_type="method_call"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_return"/> <allow receive_type="error"/>
  </policy>"""


@contextlib.contextmanager
def private_bus(policy=OPEN, prefix=()):
    """A bus of its own; gives its address. `prefix` is a command to start it through."""
    with tempfile.TemporaryDirectory(prefix="sentrel-bus-") as folder:
        os.chmod(folder, 0o755)
        configuration = pathlib.Path(folder, "bus.conf")
        configuration.write_text(CONFIGURATION.format(folder=folder, policy=policy))
        reader, writer = os.pipe()
        with program(*prefix, "dbus-daemon", "--nofork", "--nopidfile",
                     f"--config-file={configuration}", f"--print-address={writer}",
                     pass_fds=[writer]):
            os.close(writer)
            read_line(reader, "the bus")
            os.close(reader)
            yield f"unix:path={folder}/bus"


@contextlib.contextmanager
def scripted_agent(binary, address, *options):
    """The tests' own agent, once it owns its name."""
    reader, writer = os.pipe()
    with program(binary, "--address", address, "--ready", writer, *options, pass_fds=[writer],
                 stdout=subprocess.PIPE) as process:
        os.close(writer)
        assert read_line(reader, "the agent") == "ready"
        os.close(reader)
        yield process
