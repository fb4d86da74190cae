#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Installs a build into a prefix of its own, and uses it from there with nothing in the environment.

prefix_test.py own BUILD LIBDIR     a prefix beside which the bus's folder may not be written
prefix_test.py system BUILD LIBDIR  root, in a mount namespace: a prefix that the loader, the bus and
                                    systemd-sysusers know, mended line by line as the doctor says
"""
import contextlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "packaging"))
from support import private_bus, program, read_line, skip  # pylint: disable=wrong-import-position

NAME = "org.sentrel.sr_agent"
POLICY, ACTIVATION = f"system.d/{NAME}.conf", f"system-services/{NAME}.service"
UNIT, GROUP = "lib/systemd/system/sentrel-agent.service", "lib/sysusers.d/sentrel.conf"
BUS = pathlib.Path("/usr/share/dbus-1")
INSIDE = "SENTREL_TEST_NAMESPACE"


def run(*command, code=0, env=None, cwd=None):
    """What it said; it must end with this code, or with any for None."""
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True,
                          timeout=200, check=False, env=env, cwd=cwd)
    assert code is None or done.returncode == code, (
        f"{command} ended with {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout + done.stderr


def install(build, prefix):
    return run("cmake", "--install", build, "--prefix", prefix)


def in_a_namespace():
    """Goes on as root in a mount namespace, in which the system's folders can be replaced."""
    if os.environ.get(INSIDE):
        return
    if os.geteuid() != 0:
        skip("only root can replace the system's folders, in a mount namespace")
    if subprocess.run(["unshare", "-m", "true"], capture_output=True, check=False).returncode:
        skip("no mount namespace can be made here")
    os.environ[INSIDE] = "1"
    os.execvp("unshare", ["unshare", "-m", sys.executable, "-B", *sys.argv])


def copy_over(folder, scratch, *options):
    """From here on the folder is a copy of itself."""
    copy = scratch / folder.as_posix().strip("/").replace("/", "-")
    run("cp", "-a", folder, copy)
    run("mount", "--bind", copy, folder)
    if options:
        run("mount", "-o", ",".join(["remount", "bind", *options]), folder)


def holds(text, *parts):
    for part in parts:
        assert part in text, f"{part!r} is missing in {text}"


@contextlib.contextmanager
def agent(prefix, bus, rules):
    reader, writer = os.pipe()
    with program(prefix / "sbin/sentrel-agent", "--rules", rules, "--audit-stderr", stderr=writer,
                 env={"DBUS_SYSTEM_BUS_ADDRESS": bus}):
        os.close(writer)
        while "serving" not in read_line(reader, "the agent"):
            pass
        yield
    os.close(reader)


def strangers(prefix, library_folder, scratch):
    """Three programs of somebody else's, built as the manual says and run without an environment."""
    nowhere = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={scratch}/no-bus"}
    finder = {**os.environ, "PKG_CONFIG_PATH": f"{library_folder}/pkgconfig"}
    flags = run("pkg-config", "--cflags", "--libs", "sentrel-client", env=finder).split()
    c, cxx = os.environ.get("CC", "cc"), os.environ.get("CXX", "c++")
    for name, compiler in (("stranger.c", [c, "-std=c99"]), ("stranger.cpp", [cxx, "-std=c++17"])):
        run(*compiler, HERE / name, "-o", scratch / f"{name}.out", *flags,
            f"-Wl,-rpath,{library_folder}")
        run(scratch / f"{name}.out", env=nowhere)
    run("cmake", "-S", HERE / "package", "-B", scratch / "package", "-G", "Ninja",
        f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", scratch / "package")
    run(scratch / "package/stranger", env=nowhere)


def check_own(build, libdir):
    if os.geteuid() == 0:
        in_a_namespace()
    with tempfile.TemporaryDirectory(prefix="sentrel-prefix-") as folder:
        scratch, prefix = pathlib.Path(folder), pathlib.Path(folder, "opt")
        scratch.chmod(0o755)
        library_folder = prefix / libdir
        if os.geteuid() == 0 and BUS.exists():
            copy_over(BUS, scratch, "ro")
        said = install(build, prefix)
        print(said[said.find("-- The loader"):])
        share = prefix / "share/dbus-1"
        # What was made for this prefix, and the lines for what could not be put where it is read.
        holds(said, f"-Wl,-rpath,{library_folder}", f"{share}/{POLICY}", f"{share}/{ACTIVATION}",
              f"systemctl link {prefix}/{UNIT}\n", f"systemd-sysusers {prefix}/{GROUP} &&")
        holds((prefix / UNIT).read_text(), f"ExecStart={prefix}/sbin/sentrel-agent\n")
        holds((share / ACTIVATION).read_text(), f"Exec={prefix}/sbin/sentrel-agent\n")
        holds((library_folder / "pkgconfig/sentrel-client.pc").read_text(), f"prefix={prefix}\n")
        assert (share / POLICY).exists()

        holds(run(prefix / "bin/sentrel", "version", env={}), "interface v1.")
        (scratch / "rules").mkdir(mode=0o755)
        with private_bus() as bus, agent(prefix, bus, scratch / "rules"):
            environment = {"DBUS_SYSTEM_BUS_ADDRESS": bus}
            holds(run(prefix / "bin/sentrel", "status", env=environment), "rules")
            holds(run(prefix / "bin/sentrel", "mount", "-t", "tmpfs", "x", "/run/x", code=126,
                      env=environment), "RULE_NO_FOUND")
        strangers(prefix, library_folder, scratch)
        # A blank would end the path in these files.
        said = install(build, scratch / "a prefix")
        holds(" ".join(said.split()), "Not installed: sentrel-client.pc",
              "Not installed: sentrel-agent.service", f"Not installed: {NAME}.service")


def ask(prefix, *who):
    done = run(*who, prefix / "bin/sentrel", "--json", "doctor", code=None,
               env={"PATH": os.environ["PATH"]})
    steps = {step["step"]: step for step in json.loads(done)["steps"]}
    print(*who[1:2], {name: step["state"] for name, step in steps.items()})
    return steps


def obey(step, *expected):
    """Runs the doctor's lines, which begin so; and puts aside those that a person must do."""
    assert step["state"] == "failed", step
    lines = step["advice"]
    print("  ", *lines, sep="\n   ")
    assert len(lines) == len(expected), f"{lines} are not {expected}"
    for line, beginning in zip(lines, expected):
        assert line.startswith(beginning), f"{line} does not begin with {beginning}"
        if not line.startswith("log out"):
            run("sh", "-c", line)


@contextlib.contextmanager
def system_bus():
    with program("dbus-daemon", "--system", "--nofork", "--nopidfile", "--print-address=1",
                 stdout=subprocess.PIPE) as bus:
        read_line(bus.stdout.fileno(), "the system's bus")
        yield


@contextlib.contextmanager
def started(prefix, rules):
    """By the bus at the first call; or here, where the bus has no helper to start anything with."""
    helper = re.search(r"<servicehelper>(.*)</servicehelper>", (BUS / "system.conf").read_text())
    if not helper or not pathlib.Path(helper[1]).exists():
        print("the bus starts nothing here: the agent is started")
        with agent(prefix, "unix:path=/run/dbus/system_bus_socket", rules):
            yield
        return
    try:
        yield
    finally:
        said = run("dbus-send", "--system", "--print-reply=literal",
                   "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                   "org.freedesktop.DBus.GetConnectionUnixProcessID", f"string:{NAME}", code=None)
        if said.split()[-1].isdigit():
            run("kill", said.split()[-1])


def mend(prefix):
    """What the doctor finds after an installation, mended as it says; then with the policy aside."""
    nobody = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--init-groups")
    steps = ask(prefix)
    obey(steps["library"], "ldconfig")
    obey(steps["permission"], f"systemd-sysusers {prefix}/{GROUP}", "systemctl reload dbus")
    assert ask(prefix)["permission"]["state"] == "ok", "root may not send"

    obey(ask(prefix, *nobody)["permission"], "usermod -aG sentrel nobody", "log out")
    steps = ask(prefix, *nobody)
    assert [steps[name]["state"] for name in ("library", "permission", "answer")] == [
        "ok", "ok", "ok"], steps
    assert steps["rules"]["state"] == "failed", steps["rules"]

    # As if the bus's folder had not been there to write to.
    aside = prefix / "share/dbus-1" / POLICY
    aside.parent.mkdir(parents=True)
    shutil.move(BUS / POLICY, aside)
    run("systemctl", "reload", "dbus")
    obey(ask(prefix, *nobody)["permission"], f"install -D -m 644 {aside}", "systemctl reload dbus")
    assert ask(prefix, *nobody)["answer"]["state"] == "ok", "no answer"


def check_system(build, libdir):
    in_a_namespace()
    for needed in ("dbus-daemon", "systemd-sysusers", "ldconfig"):
        if not shutil.which(needed, path=f"{os.environ['PATH']}:/sbin:/usr/sbin"):
            skip(f"{needed} is not installed")
    if not (BUS / "system.conf").exists():
        skip("the system's bus has no configuration here")
    os.environ["PATH"] += ":/sbin:/usr/sbin"
    os.environ.pop("DBUS_SYSTEM_BUS_ADDRESS", None)
    with tempfile.TemporaryDirectory(prefix="sentrel-prefix-") as folder:
        scratch, prefix = pathlib.Path(folder), pathlib.Path(folder, "local")
        scratch.chmod(0o755)
        for place in (pathlib.Path("/etc"), BUS):
            copy_over(place, scratch)
        run("mount", "-t", "tmpfs", "-o", "mode=755", "run", "/run")
        pathlib.Path("/run/dbus").mkdir()
        for place in ("/usr/share/dbus-1", "/etc/dbus-1"):
            for left in pathlib.Path(place).glob(f"*/{NAME}*"):
                left.unlink()
        groups = pathlib.Path("/etc/group")
        groups.write_text(re.sub(r"(?m)^sentrel:.*\n", "", groups.read_text()))
        shutil.rmtree("/etc/sentrel", ignore_errors=True)
        # To the loader the prefix is what /usr/local is.
        library_folder = (prefix / libdir).resolve()
        pathlib.Path("/etc/ld.so.conf.d").mkdir(exist_ok=True)
        pathlib.Path("/etc/ld.so.conf.d/sentrel-test.conf").write_text(f"{library_folder}\n")
        # There is no systemd to reload the bus: the bus is asked itself.
        (scratch / "bin").mkdir()
        (scratch / "bin/systemctl").write_text(
            '#!/bin/sh\n[ "$*" = "reload dbus" ] && exec dbus-send --system --print-reply '
            '--dest=org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.ReloadConfig\n')
        (scratch / "bin/systemctl").chmod(0o755)
        os.environ["PATH"] = f"{scratch}/bin:{os.environ['PATH']}"

        (scratch / "rules").mkdir(mode=0o755)
        with system_bus():
            said = install(build, prefix)
            print(said[said.find("-- Left"):])
            holds(said, "\n     ldconfig\n",
                  f"systemd-sysusers {prefix}/{GROUP} && systemctl reload")
            holds((BUS / ACTIVATION).read_text(), f"Exec={prefix}/sbin/sentrel-agent\n")
            run("systemctl", "reload", "dbus")
            with started(prefix, scratch / "rules"):
                mend(prefix)


if __name__ == "__main__":
    {"own": check_own, "system": check_system}[sys.argv[1]](*sys.argv[2:])
