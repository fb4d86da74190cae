#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The bash completion of the command.

completion_test.py --list                       the names of the cases
completion_test.py NAME COMPLETION PROGRAM      runs one of them

Most cases source the file in a bash and call its function; the last ones press the key in an
interactive one, on a terminal of their own.
"""
import inspect
import os
import pathlib
import pty
import re
import select
import subprocess
import sys
import tempfile

LIMIT = 30  # seconds
OPERATIONS = "mount umount mount-cifs umount-cifs mknod insmod rmmod systemctl".split()
OTHERS = "raw test status reload mounts doctor errors help version".split()

CALL = r"""
. "$1" || exit 9
shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
compopt() { echo "compopt $*"; }
_sentrel
for word in "${COMPREPLY[@]}"; do printf '%s\n' "$word"; done
"""


def run(completion, *words):
    """What bash prints: the words found, and 'compopt -o default' where it is for file names."""
    done = subprocess.run(["bash", "--noprofile", "--norc", "-c", CALL, "bash", completion,
                           "sentrel", *words], capture_output=True, text=True, timeout=LIMIT,
                          check=False)
    assert done.returncode == 0 and not done.stderr, done.stderr
    return done.stdout.splitlines()


def expect(found, *wanted):
    assert found == list(wanted), f"{found} is not {list(wanted)}"


FILES = "compopt -o default"


def TheFirstWordIsAnOperationOrACommand(completion, _):
    expect(run(completion, ""), *OPERATIONS, *OTHERS)
    expect(run(completion, "m"), "mount", "mount-cifs", "mknod", "mounts")
    expect(run(completion, "--json", "-q", "sys"), "systemctl")
    expect(run(completion, "nothing"))


def TheTablesAreThoseOfTheCommand(completion, program):
    text = subprocess.run([program, "--help"], capture_output=True, text=True, timeout=LIMIT,
                          check=True).stdout
    named = re.findall(r"^  ([a-z][\w-]*) +\S", text, re.M)
    assert sorted(named) == sorted(OPERATIONS + OTHERS), named
    helped = re.findall(r"^  (-[-a-z, ]*?)  ", text, re.M)
    options = [option for line in helped for option in line.split(", ")]
    assert len(options) == 8, options
    assert sorted(run(completion, "-")) == sorted(options), options


def OptionsOfOurOwnCommandsAreCompleted(completion, _):
    expect(run(completion, "status", "--js"), "--json")
    expect(run(completion, "status", ""))
    expect(run(completion, "doctor", "--json", "x"))


def RawAndTestTakeAnOperation(completion, _):
    expect(run(completion, "raw", ""), *OPERATIONS)
    expect(run(completion, "test", "--json", "um"), "umount", "umount-cifs")
    expect(run(completion, "raw", "mount", ""))
    expect(run(completion, "test", "mount", "-t", "vf"), "vfat")
    expect(run(completion, "test", "mount", "/"), FILES)


def OperationsTakeTheirOptionsAndFileNames(completion, _):
    expect(run(completion, "mount", "--ty"), "--types")
    expect(run(completion, "mount", "-t", "ext"), "ext2", "ext3", "ext4")
    expect(run(completion, "mount", "/de"), FILES)
    expect(run(completion, "insmod", ""), FILES)
    expect(run(completion, "umount", "--la"), "--lazy")
    expect(run(completion, "systemctl", "--no-b"), "--no-block")
    expect(run(completion, "systemctl", "try"), "try-restart", "try-reload-or-restart")
    expect(run(completion, "systemctl", "start", "x"))
    expect(run(completion, "mknod", "/d"), FILES)
    expect(run(completion, "mknod", "-m", "0660", "/dev/x", ""), "b", "c", "p", "u")
    expect(run(completion, "mknod", "/dev/x", ""), "b", "c", "p", "u")
    expect(run(completion, "mknod", "/dev/x", "c", ""))
    expect(run(completion, "rmmod", ""))
    expect(run(completion, "format", ""))


def WordsOnTheLineAreNeverRun(completion, _):
    with tempfile.TemporaryDirectory() as scratch:
        mark = pathlib.Path(scratch, "ran")
        for hostile in (f"$(touch {mark})", f"`touch {mark}`", f"x[$(touch {mark})]",
                        f"';touch {mark};'", f"a[0$(touch {mark})]=1", "*", "%s%n", "-n"):
            for words in ([hostile], [hostile, ""], ["mount", hostile], ["mount", hostile, ""],
                          ["test", hostile, ""], ["mknod", hostile, ""],
                          ["systemctl", hostile, ""]):
                run(completion, *words)
                assert not mark.exists(), words


class Terminal:
    """An interactive bash, in which `sentrel` prints its words, each in brackets."""

    def __init__(self, completion, folder):
        self.pid, self.master = pty.fork()
        if self.pid == 0:
            os.chdir(folder)
            os.execvpe("bash", ["bash", "--noprofile", "--norc", "-i"],
                       {"PATH": os.environ["PATH"], "PS1": "ready>", "TERM": "dumb", "HOME": folder,
                        "LC_ALL": "C.UTF-8", "INPUTRC": "/dev/null"})
        self.text = ""
        self.read("ready>")
        self.line(f". {completion}; sentrel() {{ printf '[%s]' \"$@\"; echo; }}")

    def read(self, end):
        """Everything up to that text."""
        while end not in self.text:
            assert select.select([self.master], [], [], LIMIT)[0], f"no {end!r}: {self.text!r}"
            self.text += os.read(self.master, 65536).decode()
        before, _, self.text = self.text.partition(end)
        return before

    def line(self, keys):
        """What a line typed so prints; the key's work is over before the line's end is read."""
        os.write(self.master, keys.encode() + b"\n")
        return self.read("ready>")

    def close(self):
        os.write(self.master, b"\x15exit\n")
        os.waitpid(self.pid, 0)
        os.close(self.master)


def AFileNameIsQuotedByTheKey(completion, _):
    with tempfile.TemporaryDirectory() as scratch:
        os.mkdir(f"{scratch}/d")
        hostile = "a $(touch ran) `touch ran`;touch ran"
        pathlib.Path(scratch, "d", hostile).write_text("")
        terminal = Terminal(completion, scratch)
        try:
            printed = terminal.line("sentrel mount d/a\t")
            assert f"[mount][d/{hostile}]" in printed, printed
            assert os.listdir(scratch) == ["d"], os.listdir(scratch)
        finally:
            terminal.close()


def AnOperationIsCompletedByTheKey(completion, _):
    with tempfile.TemporaryDirectory() as scratch:
        terminal = Terminal(completion, scratch)
        try:
            printed = terminal.line("sentrel sys\tresta\tx")
            assert "[systemctl][restart][x]" in printed, printed
        finally:
            terminal.close()


def main():
    cases = {name: case for name, case in globals().items()
             if inspect.isfunction(case) and name[0].isupper()}
    if sys.argv[1] == "--list":
        print(";".join(cases), end="")
        return
    cases[sys.argv[1]](*sys.argv[2:])


if __name__ == "__main__":
    main()
