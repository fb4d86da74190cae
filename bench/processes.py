# SPDX-License-Identifier: Apache-2.0
"""The processes of a run: the private bus, the agent, the peers. Each dies with this process, and
is ended and waited for by close()."""

import ctypes
import json
import os
import pathlib
import select
import signal
import subprocess

LIMIT = 1800  # seconds that any single answer may take

BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>custom</type>
  <listen>unix:path={path}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
    <allow user="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">134217728</limit>
  <limit name="max_completed_connections">100000</limit>
  <limit name="max_incomplete_connections">100000</limit>
  <limit name="max_connections_per_user">100000</limit>
  <limit name="max_match_rules_per_connection">100000</limit>
  <limit name="max_replies_per_connection">100000</limit>
  <limit name="max_names_per_connection">100000</limit>
</busconfig>
"""

_libc = ctypes.CDLL(None)


def _die_with_parent():
    _libc.prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG


class Process:
    """A program that answers on its standard output, a line at a time."""

    def __init__(self, *command, environment=None, errors=None):
        self.command = [str(word) for word in command]
        self.process = subprocess.Popen(
            self.command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0,
            stderr=errors, env=dict(os.environ, **(environment or {})), preexec_fn=_die_with_parent)
        self.rest = b""

    @property
    def pid(self):
        return self.process.pid

    def line(self):
        while b"\n" not in self.rest:
            if not select.select([self.process.stdout], [], [], LIMIT)[0]:
                raise TimeoutError(f"{self.command[0]} does not answer")
            part = os.read(self.process.stdout.fileno(), 1 << 20)
            if not part:
                raise RuntimeError(f"{self.command[0]} has ended")
            self.rest += part
        line, self.rest = self.rest.split(b"\n", 1)
        return line.decode()

    def expect(self, text):
        line = self.line()
        if line != text:
            raise RuntimeError(f"{self.command[0]} said {line!r}")
        return self

    def ask(self, line):
        self.process.stdin.write(f"{line}\n".encode())
        return json.loads(self.line())

    def close(self):
        self.process.stdin.close()
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


class Bus:
    """A private bus and the agent that answers on it. While it stands, it is the system bus of
    every process started with its environment."""

    def __init__(self, programs, directory):
        path = pathlib.Path(directory) / "bus"
        configuration = pathlib.Path(directory) / "bus.conf"
        configuration.write_text(BUS_CONFIGURATION.format(path=path))
        with open(pathlib.Path(directory) / "bus.log", "wb") as log:
            self.daemon = Process("dbus-daemon", f"--config-file={configuration}", "--nofork",
                                  "--nopidfile", "--print-address=1", errors=log)
        self.daemon.line()
        self.environment = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={path}"}
        self.agent = self.start(programs / "serve_floor", "org.sentrel.sr_agent").expect("ready")

    def start(self, *command, environment=None):
        return Process(*command, environment=dict(self.environment, **(environment or {})))

    def run(self, *command, environment=None):
        """Runs a program to its end; its outputs. Raises when it fails."""
        return subprocess.run([str(word) for word in command], check=True, capture_output=True,
                              text=True, stdin=subprocess.DEVNULL, preexec_fn=_die_with_parent,
                              env=dict(os.environ, **self.environment, **(environment or {})))

    def close(self):
        self.agent.close()
        self.daemon.close()

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.close()
