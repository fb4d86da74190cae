#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The shipped policy: how it is written, who may send to the agent under it, and own its name.

policy_test.py form POLICY ACTIVATION       names its destination in every rule, denies nothing
policy_test.py bus POLICY AGENT COMMAND     who is let through, by the bus and by the agent
policy_test.py doctor POLICY AGENT COMMAND  what the command says to whom it does not let through
policy_test.py start POLICY AGENT ACTIVATION  the bus starts the agent at the first call

The bus has the rules of an ordinary system bus and the shipped file on top. The group is put into a
copy of the system's list, seen by that bus and its callers alone, in a mount namespace of its own.
"""
import contextlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as tree

from support import for_everybody, private_bus, program, read_line, skip

GROUP = 64999
NOBODY = 65534
NAME = "org.sentrel.sr_agent"
CONTROL = f"{NAME}.Control1"
SYSTEM = pathlib.Path("/usr/share/dbus-1/system.conf")

WHO = {"root": (0, ""), "the group": (NOBODY, str(GROUP)), "somebody else": (NOBODY, "")}
PASSED, BUS, AGENT = "let through", "denied by the bus", "denied by the agent"
# Interface, member, arguments; and what becomes of it for each of WHO.
CALLS = [
    ((NAME, "CallCommand", "string:sr_rmmod", "string:x", "int32:0"), (PASSED, PASSED, BUS)),
    ((CONTROL, "Test", "string:sr_rmmod", "string:x"), (PASSED, PASSED, BUS)),
    ((CONTROL, "Status"), (PASSED, PASSED, BUS)),
    ((CONTROL, "Mounts"), (PASSED, PASSED, BUS)),
    ((CONTROL, "Reload"), (PASSED, AGENT, BUS)),
    (("org.freedesktop.DBus.Introspectable", "Introspect"), (PASSED, PASSED, BUS)),
    (("org.freedesktop.DBus.Peer", "Ping"), (PASSED, PASSED, BUS)),
    (("org.freedesktop.DBus.Properties", "GetAll", f"string:{NAME}"), (None, BUS, BUS)),
    (("org.example.Other", "Anything"), (None, BUS, BUS)),
]


def system_policy(shipped):
    """The policies of the machine's own configuration, and the shipped file."""
    policies = re.findall(r"<policy.*?</policy>", SYSTEM.read_text(), re.S)
    assert len(policies) >= 2, "the system's configuration has no policy"
    return "\n".join(policies) + f"\n<include>{shipped}</include>"


@contextlib.contextmanager
def system_with_the_group():
    """A command's beginning that runs the rest where the group exists."""
    if os.geteuid() != 0:
        skip("only root can become somebody else")
    if subprocess.run(["unshare", "-m", "true"], capture_output=True, check=False).returncode:
        skip("no mount namespace can be made here")
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        groups = pathlib.Path(folder, "group")
        kept = re.sub(r"^sentrel:.*\n", "", pathlib.Path("/etc/group").read_text(), flags=re.M)
        groups.write_text(f"{kept}sentrel:x:{GROUP}:\n")
        groups.chmod(0o644)
        yield ("unshare", "-m", "--", "sh", "-c",
               f'mount --bind "{groups}" /etc/group && exec "$@"', "sh")


@contextlib.contextmanager
def agent_without_rules(binary, address):
    with tempfile.TemporaryDirectory() as rules:
        reader, writer = os.pipe()
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": address}
        with program(binary, "--rules", rules, "--audit-stderr", stderr=writer, env=environment):
            os.close(writer)
            while "serving" not in read_line(reader, "the agent"):
                pass
            yield
        os.close(reader)


def as_who(who):
    uid, groups = WHO[who]
    return ["setpriv", f"--reuid={uid}", f"--regid={uid}",
            f"--groups={groups}" if groups else "--clear-groups"]


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, timeout=60, check=False,
                          **options)


def send(address, who, interface, member, *arguments):
    done = run(*as_who(who), "dbus-send", f"--bus={address}", "--print-reply", f"--dest={NAME}",
               "/org/sentrel/sr_agent", f"{interface}.{member}", *arguments)
    if done.returncode == 0:
        return PASSED
    error, text = re.search(r"^Error (\S+?): (.*)", done.stderr, re.M).groups()
    if error != "org.freedesktop.DBus.Error.AccessDenied":
        return error
    return BUS if text.startswith("Rejected send message") else AGENT


def own(address, who):
    """The answer of the bus to a wish for the agent's name."""
    done = run(*as_who(who), "dbus-send", f"--bus={address}", "--print-reply",
               "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
               "org.freedesktop.DBus.RequestName", f"string:{NAME}", "uint32:4")
    found = re.search(r"Error (\S+?):|uint32 (\d)", done.stdout + done.stderr)
    return found[1] or found[2]


def expect(what, found, wanted):
    print(f"{what}: {found}")
    assert found == wanted, f"{what}: expected '{wanted}', found '{found}'"


def check_form(policy, activation):
    root = tree.parse(policy).getroot()
    assert root.tag == "busconfig" and pathlib.Path(policy).name == f"{NAME}.conf"
    assert {part.tag for part in root} == {"policy"}, "something else than policies"
    rules = [(part, rule) for part in root for rule in part]
    owners = [part.attrib for part, rule in rules if "own" in rule.attrib]
    expect("owners of the name", owners, [{"user": "root"}])
    for part, rule in rules:
        assert rule.tag == "allow", f"{rule.tag} in {part.attrib}"
        ours = rule.get("own") or rule.get("send_destination")
        assert ours == NAME, f"{rule.attrib} names no destination"
        assert set(rule.attrib) <= {"own", "send_destination", "send_interface"}, rule.attrib
        assert part.get("user") == "root" or "send_interface" in rule.attrib, rule.attrib
    fields = dict(re.findall(r"^(\w+)=(.*)", pathlib.Path(activation).read_text(), re.M))
    expect("the activation file", pathlib.Path(activation).name, f"{fields['Name']}.service")
    expect("it starts", (fields["Name"], fields["User"], fields["SystemdService"]),
           (NAME, "root", "sentrel-agent.service"))


def check_bus(policy, agent):
    with system_with_the_group() as prefix, private_bus(system_policy(policy), prefix) as address:
        expect("root owns the name", own(address, "root"), "1")
        for who in ("the group", "somebody else"):
            expect(f"{who} owns the name", own(address, who),
                   "org.freedesktop.DBus.Error.AccessDenied")
        with agent_without_rules(agent, address):
            for call, outcomes in CALLS:
                for who, wanted in zip(WHO, outcomes):
                    if wanted:
                        expect(f"{who}: {call[0]}.{call[1]}", send(address, who, *call), wanted)


def check_doctor(policy, agent, command):
    def ask(address, prefix, who):
        with for_everybody(command) as (copy, environment):
            done = run(*prefix, *as_who(who), copy, "--json", "doctor",
                       env={**environment, "DBUS_SYSTEM_BUS_ADDRESS": address})
        return {step["step"]: step for step in json.loads(done.stdout)["steps"]}

    with system_with_the_group() as prefix:
        with private_bus(system_policy(policy), prefix) as address, \
                agent_without_rules(agent, address):
            for who in ("root", "the group"):
                steps = ask(address, prefix, who)
                expect(f"{who}: permission", steps["permission"]["state"], "ok")
                # There are none; that it says so needs the second interface.
                expect(f"{who}: rules", steps["rules"]["state"], "failed")
            step = ask(address, prefix, "somebody else")["permission"]
            expect("somebody else: permission", step["state"], "failed")
            assert "usermod -aG sentrel nobody" in step["advice"], step["advice"]

        # A policy that forgets the group, and the same with the line that the doctor then gives.
        own_policies = re.findall(r"<policy.*?</policy>", SYSTEM.read_text(), re.S)
        rest = "\n".join(own_policies) + (
            f'<policy user="root"><allow own="{NAME}"/>'
            f'<allow send_destination="{NAME}"/></policy>')
        with private_bus(rest, prefix) as address, agent_without_rules(agent, address):
            step = ask(address, prefix, "the group")["permission"]
            expect("a policy without the group", step["state"], "failed")
            advice = re.search(r"<policy.*</policy>", " ".join(step["advice"]))[0]
        with private_bus(f"{rest}\n{advice}", prefix) as address, \
                agent_without_rules(agent, address):
            expect("with the doctor's line", ask(address, prefix, "the group")["permission"]["state"],
                   "ok")


def check_start(policy, agent, activation):
    """The agent gets the test's bus and a folder without rules, and nothing of the machine's."""
    with system_with_the_group() as prefix, tempfile.TemporaryDirectory() as folder:
        line = (f"Exec=/bin/sh -c 'DBUS_SYSTEM_BUS_ADDRESS=$DBUS_STARTER_ADDRESS exec {agent} "
                f"--rules {folder} --audit-stderr'")
        text, count = re.subn(r"(?m)^Exec=.*", lambda _: line, pathlib.Path(activation).read_text())
        assert count == 1, "the file has no Exec"
        # Here the bus itself is the one that starts it: there is no systemd to ask.
        pathlib.Path(folder, f"{NAME}.service").write_text(
            re.sub(r"(?m)^SystemdService=.*\n", "", text))
        bus = f"{system_policy(policy)}\n<servicedir>{folder}</servicedir>"
        with private_bus(bus, prefix) as address:
            expect("the first call", send(address, "the group", *CALLS[0][0]), PASSED)
            expect("the next", send(address, "the group", CONTROL, "Status"), PASSED)


def main():
    checks = {"form": check_form, "bus": check_bus, "doctor": check_doctor, "start": check_start}
    checks[sys.argv[1]](*[pathlib.Path(argument).resolve() for argument in sys.argv[2:]])


if __name__ == "__main__":
    main()
