#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the scripts share: installing what is missing, and showing how far a long step is.

scripts_test.py --list   the names of the cases
scripts_test.py NAME     runs one of them

Nothing is installed here: apt-get, sudo and id are stand-ins that write down how they are called.
dpkg-query is the machine's own.
"""
import inspect
import os
import pathlib
import pty
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
NOBODY_KNOWS = "sentrel-package-that-nobody-knows"


def put(folder, name, text):
    path = folder / name
    path.write_text(f"#!/bin/sh\n{text}\n")
    path.chmod(0o755)


def script(folder, text, *path, shell="sh", **environment):
    """Runs it in the tree under `set -eu`, as the scripts do."""
    return subprocess.run([shutil.which(shell), "-c", f"set -eu\n{text}"], cwd=ROOT, text=True,
                          capture_output=True, timeout=60, check=False,
                          env={"PATH": ":".join(map(str, [folder, *path])), "LC_ALL": "C.UTF-8",
                               "CALLS": str(folder / "calls"), **environment})


def packages(folder, words, uid=0, apt='echo "$*" >>"$CALLS"', sudo=True, sleep="exit 1"):
    """need_packages, for a user; without the folders in which the machine may have a sudo."""
    if not shutil.which("dpkg-query"):
        print("skipped: this is no Debian: there is no dpkg-query")
        sys.exit(1 if os.environ.get("SENTREL_MUST_RUN") == "1" else 77)
    put(folder, "apt-get", apt)
    put(folder, "id", f"echo {uid}")
    put(folder, "sleep", sleep)
    if sudo:
        put(folder, "sudo", 'echo "sudo" >>"$CALLS"; exec "$@"')
    for tool in ("dpkg-query", "grep", "mktemp", "cat", "rm", "env"):
        os.symlink(shutil.which(tool), folder / tool)
    done = script(folder, f". scripts/packages.sh\nneed_packages {words}\necho went on")
    calls = folder / "calls"
    return done, calls.read_text().splitlines() if calls.exists() else []


def holds(text, *parts):
    for part in parts:
        assert part in text, f"{part!r} is missing in {text!r}"


def APackageThatNobodyKnowsIsAskedForByName(folder):
    done, calls = packages(folder, f"dpkg {NOBODY_KNOWS}")
    assert (done.returncode, done.stderr) == (0, ""), done
    assert done.stdout == f"installing: {NOBODY_KNOWS}\nwent on\n", done.stdout
    assert [line.split()[4:] for line in calls] == [
        ["update"], ["install", "--no-install-recommends", NOBODY_KNOWS]], calls


def APackageThatCannotBeHadEndsTheScriptWithAWord(folder):
    done, _ = packages(folder, NOBODY_KNOWS, apt='echo "E: Unable to locate it" >&2; exit 100')
    assert done.returncode != 0 and "went on" not in done.stdout, done
    holds(done.stderr, "Unable to locate it", f"not installed: {NOBODY_KNOWS}")


def WhatIsInstalledIsLeftAlone(folder):
    done, calls = packages(folder, "dpkg")
    assert (done.returncode, done.stdout, done.stderr, calls) == (0, "went on\n", "", []), done


def AnOrdinaryUserInstallsThroughSudo(folder):
    done, calls = packages(folder, NOBODY_KNOWS, uid=1000)
    assert done.returncode == 0, done
    assert [line.split()[0] for line in calls] == ["sudo", "-q"] * 2, calls


def WithoutRootAndSudoItSaysWhatToInstall(folder):
    done, calls = packages(folder, f"dpkg {NOBODY_KNOWS} two", uid=1000, sudo=False)
    assert done.returncode != 0 and calls == [], done
    holds(done.stderr, "no sudo",
          f"apt-get install --no-install-recommends {NOBODY_KNOWS} two\n")


def AnotherAptIsWaitedFor(folder):
    # The stand-in's lock is free again once it has been waited for twice.
    done, calls = packages(folder, NOBODY_KNOWS, sleep='echo waited >>"$CALLS"', apt="""
        echo "$*" >>"$CALLS"
        [ "$(grep -c waited "$CALLS")" -ge 2 ] || {
            echo "E: Could not get lock /var/lib/apt/lists/lock." >&2
            exit 100
        }""")
    assert done.returncode == 0, done
    assert [line.split()[-1] for line in calls] == ["update", "waited"] * 2 + [
        "update", NOBODY_KNOWS], calls


def a_step_of(output, exit_status=0):
    """A step in bash whose output ends so."""
    return (f". scripts/progress.sh\nwork() {{ printf '{output}'; return {exit_status}; }}\n"
            'step "the build" "$LOG" work && echo "went on" || echo "ended with $?"\n')


def AStepThatFailsShowsTheEndOfItsOutput(folder):
    done = script(folder, a_step_of("[1/2] one\\nerror: two\\n", 3), "/usr/bin", "/bin",
                  shell="bash", LOG=str(folder / "log"))
    assert done.stdout == "ended with 3\n", done
    holds(done.stderr, "error: two\n", f"FAILED: the build (all of it: {folder}/log)")
    assert (folder / "log").read_text() == "[1/2] one\nerror: two\n"


def AStepThatIsFineSaysNothing(folder):
    done = script(folder, a_step_of("[2/2] two\\n"), "/usr/bin", "/bin", shell="bash",
                  LOG=str(folder / "log"))
    assert (done.stdout, done.stderr) == ("went on\n", ""), done


def HowFarItIsIsReadFromTheToolsOwnLines(folder):
    for text, far in (
            ("[12/345] Building CXX object a/b.dir/SR_API.cpp.o", "12 of 345, 0 s, at SR_API.cpp.o"),
            (" 7/990 Test  #12: LogTest.IsKept ..   Passed  0.01 sec",
             "7 of 990, 0 s, at LogTest.IsKept"),
            ("3/40 files checked 7% done", "3 of 40, 0 s, at files"),
            ("no such line", "0 s")):
        (folder / "log").write_text(f"before\n{text}\nbehind it\n")
        done = script(folder, '. scripts/progress.sh\nsay_progress work "$LOG" "$SECONDS" ""',
                      "/usr/bin", "/bin", shell="bash", LOG=str(folder / "log"))
        assert done.stdout == f"   work: {far}\n", done


def ATerminalGetsABarThatGoesAgain(folder):
    reader, writer = pty.openpty()
    # The step ends when its bar has been seen, which is when this test says so.
    os.mkfifo(folder / "seen")
    text = (". scripts/progress.sh\n"
            "work() { echo '[1/2] a/one.o'; read -r _ <\"$SEEN\"; }\n"
            'step "the build" "$LOG" work; echo "went on"')
    with subprocess.Popen([shutil.which("bash"), "-c", text], cwd=ROOT, stdin=subprocess.DEVNULL,
                          stdout=writer,
                          env={"PATH": "/usr/bin:/bin", "TERM": "xterm",
                               "LOG": str(folder / "log"), "SEEN": str(folder / "seen")}) as process:
        os.close(writer)
        said = ""
        while "one.o" not in said:
            said += os.read(reader, 1000).decode()
        (folder / "seen").write_text("\n")
        while "went on" not in said:
            said += os.read(reader, 1000).decode()
        assert process.wait(30) == 0
    os.close(reader)
    holds(said, "[##########          ] 1 of 2, ")
    # Wiped, so that what comes next stands alone in its line.
    assert re.search(r"\r {79}\rwent on", said), repr(said)


def main():
    cases = {name: case for name, case in globals().items()
             if inspect.isfunction(case) and name[0].isupper()}
    if sys.argv[1] == "--list":
        print(";".join(cases), end="")
        return
    with tempfile.TemporaryDirectory() as scratch:
        cases[sys.argv[1]](pathlib.Path(scratch))


if __name__ == "__main__":
    main()
