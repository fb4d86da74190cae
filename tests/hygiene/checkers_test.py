#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Shows of each checker in this folder that it accepts a good example and refuses a bad one.

checkers_test.py --list   the names of the cases
checkers_test.py NAME     runs one of them in a scratch folder of its own
"""
import inspect
import pathlib
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
SPDX = "// SPDX-License-Identifier: Apache-2.0\n"


def write(root, files):
    for name, text in files.items():
        path = root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")


def expect(code, word, checker, *arguments):
    """Runs the checker; its exit status and a word of its output must be as given."""
    run = subprocess.run([sys.executable, HERE / checker, *map(str, arguments)],
                         capture_output=True, text=True, check=False)
    if run.returncode != code or word not in run.stdout or run.stderr:
        sys.exit(f"{checker} {arguments}: exit {run.returncode}, not {code}, or {word!r} is missing"
                 f"\n{run.stdout}{run.stderr}")


# Includes ----------------------------------------------------------------------------------------

LAYERS = {
    "src/api/SR_API.h": '#include "SR_Status.h"\n',
    "src/api/SR_API.cpp": '#include "SR_API.h"\n#include "SR_Message.h"\n#include "SR_Log.h"\n',
    "src/communication/SR_Message.h": "",
    "src/loop/SR_MainLoop.h": "#include <poll.h>\n",
    "src/communication/dbus/SR_DBusProxy.h": '#include <dbus/dbus.h>\n#include "SR_MainLoop.h"\n',
    "src/log/SR_Log.h": '#include "SR_Status.h"\n',
    "src/log/SR_LogImpl.h": '#include "SR_Log.h"\n',
    "src/status/SR_Status.h": "",
}
INSTALLED = ["SR_API.h", "SR_Message.h", "SR_MainLoop.h", "SR_DBusProxy.h", "SR_Log.h",
             "SR_Status.h"]


def layers(root, code, word, changed=None):
    write(root, {**LAYERS, **(changed or {})})
    expect(code, word, "includes.py", "library", root / "src", *INSTALLED)


def AStairOfIncludesIsAccepted(root):
    layers(root, 0, "5 arrows between 6 file families")


def AnUpwardIncludeIsRefused(root):
    layers(root, 1, "log must not reach api", {"src/log/SR_Log.cpp": '#include "SR_API.h"\n'})


def AnIncludeThatSkipsAStepIsRefused(root):
    layers(root, 1, "api must not reach communication/dbus",
           {"src/api/SR_API.cpp": '#  include "SR_DBusProxy.h" // far down\n'})


def ALoopThatKnowsDBusIsRefused(root):
    layers(root, 1, "loop knows nothing of libdbus",
           {"src/loop/SR_MainLoop.cpp": "#include <dbus/dbus.h>\n"})
    layers(root, 1, "loop must not reach communication/dbus",
           {"src/loop/SR_MainLoop.cpp": '#include "SR_DBusProxy.h"\n'})
    layers(root, 1, "loop must not reach log",
           {"src/loop/SR_MainLoop.cpp": '#include "SR_Log.h"\n'})


def ALayerBesideTheBusLayerThatKnowsLibdbusIsRefused(root):
    layers(root, 1, "communication knows nothing of libdbus",
           {"src/communication/SR_Message.cpp": "#include <dbus/dbus.h>\n"})


def AnInstalledHeaderThatNeedsAnInnerOneIsRefused(root):
    layers(root, 1, "an installed header includes one that is not",
           {"src/communication/SR_Message.h": '#include "SR_LogImpl.h"\n'})


def HeadersInACircleAreRefused(root):
    layers(root, 1, "headers in a circle",
           {"src/loop/SR_MainLoop.h": '#include "SR_DBusProxy.h"\n'})


def AnIncludeOfNothingIsRefused(root):
    layers(root, 1, "no such file in the library", {"src/api/SR_API.cpp": '#include "SR_No.h"\n'})


def AnAgentThatReachesIntoTheLibraryIsRefused(root):
    write(root, {"agent/Options.h": "", "service/SR_Log.h": "",
                 "agent/main.cpp": '#include "Options.h"\n#include <sentrel/SR_DBusProxy.h>\n'})
    expect(0, "2 files read", "includes.py", "agent", root / "agent")
    for reach in ('"../service/SR_Log.h"', '"SR_LogImpl.h"', "<SR_DBusProxy.h>"):
        write(root, {"agent/bad.cpp": f"#include {reach}\n"})
        expect(1, "bad.cpp:1", "includes.py", "agent", root / "agent")


def rooms(root, code, word, files):
    write(root, {"agent/base/Text.h": "#include <poll.h>\n", "agent/base/Events.h": "",
                 "agent/decide/Rule.h": '#include "base/Text.h"\n#include <string>\n',
                 "agent/run/Child.h": '#include "base/Events.h"\n#include <sys/mount.h>\n',
                 **{f"agent/{name}": text for name, text in files.items()}})
    expect(code, word, "includes.py", "agent", root / "agent")


def RoomsThatLookDownTheStairAreAccepted(root):
    rooms(root, 0, "3 arrows between 9 rooms",
          {"passage/Requests.h": '#include "run/Child.h"\n'})


def ARoomThatSeesOneBesideOrAboveItIsRefused(root):
    rooms(root, 1, "run must not see decide", {"run/Child.cpp": '#include "decide/Rule.h"\n'})
    rooms(root, 1, "base must not see decide",
          {"run/Child.cpp": "", "base/Text.cpp": '#include "decide/Rule.h"\n'})


def AFolderOfTheAgentThatIsNoRoomIsRefused(root):
    rooms(root, 1, "a folder that is no room", {"more/Text.h": ""})


def ADecisionThatKnowsTheSystemIsRefused(root):
    for include in ("<sys/mount.h>", "<sentrel/SR_MainLoop.h>", "<unistd.h>", "<fstream>",
                    '"base/Events.h"'):
        rooms(root, 1, "decide knows neither the bus nor the system",
              {"decide/Decide.cpp": f"#include {include}\n"})


def RoomsWithHeadersInACircleAreRefused(root):
    rooms(root, 1, "headers in a circle",
          {"decide/Rule.h": '#include "Pattern.h"\n', "decide/Pattern.h": '#include "Rule.h"\n'})


def ACommandThatReachesPastTheCInterfaceIsRefused(root):
    write(root, {"cli/main.cpp": "#include <sentrel/SR_API.h>\n#include <sentrel/SR_Status.h>\n"
                                 "#include <sentrel/Arguments.h>\n"})
    expect(0, "1 files read", "includes.py", "cli", root / "cli")
    write(root, {"cli/main.cpp": "#include <sentrel/SR_DBusProxy.h>\n"})
    expect(1, "main.cpp:1", "includes.py", "cli", root / "cli")


def ACommandWhoseBusFileGrowsIsRefused(root):
    bus = "#include <sentrel/sentrel.h>\n"
    write(root, {"cli/Control.cpp": bus})
    expect(0, "1 files read", "includes.py", "cli", root / "cli")
    write(root, {"cli/Control.h": bus})
    expect(1, "Control.h:1", "includes.py", "cli", root / "cli")
    write(root, {"cli/Control.h": "", "cli/more/Control.cpp": bus})
    expect(1, "more/Control.cpp:1", "includes.py", "cli", root / "cli")
    write(root, {"cli/more/Control.cpp": "",
                 "cli/Control.cpp": "#include <sentrel/SR_DBusProxy.h>\n"})
    expect(1, "Control.cpp:1", "includes.py", "cli", root / "cli")


# Headers and the README's program ----------------------------------------------------------------

def headers(root, code, word, text):
    write(root, {"sentrel/SR_API.h": text, "sentrel/SR_DBusProxy.h": SPDX + "class Proxy;\n"})
    expect(code, word, "headers.py", "c++", "cc", root, "", "SR_API.h", "SR_DBusProxy.h")


def AHeaderThatStandsAloneIsAccepted(root):
    headers(root, 0, "3 compilations, 1 of them as C",
            "/* C */\n#ifndef H\n#define H\nint f(void);\n#endif\n")


def AHeaderThatNeedsAnotherIsRefused(root):
    headers(root, 1, "SR_API.h as c", "/* C */\nsize_t f(void);\n")


def AHeaderWithAWarningIsRefused(root):
    headers(root, 1, "SR_API.h as c", "/* C */\nstatic inline char f(int i) { return i; }\n")


def ACHeaderThatIsOnlyCppIsRefused(root):
    headers(root, 1, "SR_API.h as c:", "/* C */\nbool f();\n")


def AReadmeProgramThatDoesNotCompileIsRefused(root):
    write(root, {"sentrel/SR_API.h": "const char* SR_Say(void);\n",
                 "api.c": 'const char* SR_Say(void) { return "COMM_FAILED"; }\n'})
    library = root / "libsentrel-client.so"
    subprocess.run(["cc", "-shared", "-fPIC", root / "api.c", "-o", library], check=True)
    program = ("#include <stdio.h>\n#include <sentrel/SR_API.h>\n"
               "int main(void) { puts(SR_Say()); return %s; }\n")

    def readme(code, word, text):
        write(root, {"README.md": text})
        run = subprocess.run([sys.executable, HERE / "readme_example.py", root / "README.md", "cc",
                              root, library, "COMM_FAILED"], capture_output=True, text=True,
                             check=False)
        if run.returncode != code or word not in run.stdout + run.stderr:
            sys.exit(f"exit {run.returncode}, not {code}: {run.stdout}{run.stderr}")

    readme(0, "exit 1", f"```c\n{program % 1}```\n")
    readme(1, "exit 0", f"```c\n{program % 0}```\n")
    readme(1, "error", f"```c\n{program % 'missing'}```\n")
    readme(1, "0 C programs", "no program\n")


# The library -------------------------------------------------------------------------------------

def library(root, source, *flags):
    write(root, {"lib.c": source})
    subprocess.run(["cc", "-shared", "-fPIC", *flags, root / "lib.c", "-o", root / "lib.so"],
                   check=True)
    return root / "lib.so"


def ASymbolTooManyOrTooFewIsRefused(root):
    lib = library(root, "int one(void) { return 1; }\nint two(void) { return 2; }\n")
    for listed, code, word in (("one\ntwo\n", 0, "2 symbols"), ("one\n", 1, "not listed: two"),
                               ("one\nthree\ntwo\n", 1, "not in the library: three"),
                               ("two\none\n", 1, "not sorted")):
        write(root, {"list.txt": listed})
        expect(code, word, "library.py", "exports", lib, root / "list.txt")


def ALogThatTheLibraryKeepsToItselfIsRefused(root):
    call = "int f(void) { return __dlog_print(); }\n"
    expect(0, "", "library.py", "log", library(root, "int __dlog_print(void);\n" + call))
    expect(1, "is T", "library.py", "log",
           library(root, "int __dlog_print(void) { return 0; }\n" + call))
    expect(1, "is absent", "library.py", "log", library(root, "int f(void) { return 0; }\n"))


def AWrongSonameIsRefused(root):
    lib = library(root, "int one;\n", "-Wl,-soname,libone.so.1")
    expect(0, "", "library.py", "soname", lib, "libone.so.1")
    expect(1, "not libone.so.2", "library.py", "soname", lib, "libone.so.2")


def AnInterfaceTextOfAnotherVersionIsRefused(root):
    lib = library(root, 'const char* SR_ConfigInfo(void) { return "v1.0 abc"; }\n')
    expect(0, "", "library.py", "interface", lib, 1)
    expect(1, "not of version 2", "library.py", "interface", lib, 2)


# Texts -------------------------------------------------------------------------------------------

def AFileWithoutALicenceLineIsRefused(root):
    write(root, {"a.cpp": SPDX, "build/x.cpp": "", "LICENSE": ""})
    expect(0, "1 files read", "texts.py", "spdx", root)
    write(root, {"b.cpp": "int i;\n"})
    expect(1, "b.cpp: no SPDX line", "texts.py", "spdx", root)


def AVersionWrittenTwiceIsRefused(root):
    write(root, {"CMakeLists.txt": "project(x VERSION 1.2.3 LANGUAGES C)\n",
                 "CHANGELOG.md": "# Changes\n\n## 1.2.3\n\n## 1.2.2\n", "service/a.cpp": "1.2.30\n"})
    expect(0, "version 1.2.3", "texts.py", "version", root)
    write(root, {"service/a.cpp": '"1.2.3"\n'})
    expect(1, "service/a.cpp", "texts.py", "version", root)
    write(root, {"service/a.cpp": "", "CHANGELOG.md": "# Changes\n\n## 1.2.2\n"})
    expect(1, "does not open with 1.2.3", "texts.py", "version", root)


def APinOnATestThatDoesNotExistIsRefused(root):
    pin = '// Deliberate (pinned by ATest,\n// "One" and "%s").\n// Pinned by %s.\n'
    write(root, {"tests/a.cpp": "TEST(ATest, One) {}\nTEST_F(ATest,\n       Two) {}\n",
                 "src/a.cpp": pin % ("Two", "ATest")})
    expect(0, "3 pins, 2 tests", "texts.py", "pins", root / "src", root / "tests")
    write(root, {"src/a.cpp": pin % ("Three", "ATest")})
    expect(1, "no test ATest.Three", "texts.py", "pins", root / "src", root / "tests")
    write(root, {"src/a.cpp": pin % ("Two", "BTest")})
    expect(1, "no test suite BTest", "texts.py", "pins", root / "src", root / "tests")
    write(root, {"src/a.cpp": ""})
    expect(1, "no pin found", "texts.py", "pins", root / "src", root / "tests")


def ATableOfCodesThatDiffersIsRefused(root):
    write(root, {"h": "    SR_OK = 0, /* fine */\n    SR_FAIL = 1\n",
                 "m": "| 0 | `SR_OK` | a |\n| 1 | `SR_FAIL` | b |\n"})
    expect(0, "", "texts.py", "codes", root / "m", root / "h")
    write(root, {"m": "| 0 | `SR_OK` | a |\n| 2 | `SR_FAIL` | b |\n"})
    expect(1, "the table has", "texts.py", "codes", root / "m", root / "h")


def AShownLogLineThatStandsElsewhereIsRefused(root):
    write(root, {"docs/a.md": "`[SR] [A.cpp(Do() +2)][x]5`\n",
                 "src/A.cpp": 'void Do() {\n    SR_LOG(ERR, "[x]" << 5);\n}\n'})
    expect(0, "1 log lines shown", "texts.py", "lines", root / "docs", root / "src")
    for shown, word in (("A.cpp(Do() +3)][x]5", "no such statement in line 3"),
                        ("A.cpp(Do() +9)][x]5", "no such statement in line 9"),
                        ("A.cpp(Do() +2)][y]5", "no such statement in line 2"),
                        ("A.cpp(Undo() +2)][x]5", "has no Undo"),
                        ("B.cpp(Do() +2)][x]5", "B.cpp has no such statement")):
        write(root, {"docs/a.md": f"`[SR] [{shown}`\n"})
        expect(1, word, "texts.py", "lines", root / "docs", root / "src")
    write(root, {"docs/a.md": "nothing\n"})
    expect(1, "no log line found", "texts.py", "lines", root / "docs", root / "src")


# What runs where ---------------------------------------------------------------------------------

def where(root, code, word, listed, *tests, ran=None):
    """A build's tree as ctest reads it, with these tests; and the list."""
    write(root, {"list": listed, "tree/CTestTestfile.cmake": "".join(
        f'add_test({name} "true")\nset_tests_properties({name} PROPERTIES LABELS "{labels}")\n'
        for name, labels in tests)})
    if ran is None:
        expect(code, word, "../where.py", "registered", root / "list", root / "tree")
        return
    for build, names in ran.items():
        write(root, {f"logs/{build}.xml": "<testsuite>" + "".join(
            f'<testcase name="{name}" status="run"/>' for name in names) + "</testsuite>"})
    expect(code, word, "../where.py", "ran", root / "list", "everything", root / "logs",
           root / "tree")


def ATestOutsideOfTheListOfWhatRunsWhereIsRefused(root):
    listed = "# a comment\nunit debug release asan\nslow - -\n"
    where(root, 0, "2 labels in the list", listed, ("a", "unit"), ("b", "slow"))
    where(root, 1, "b: its labels are ['bus']", listed, ("a", "unit"), ("b", "bus"))
    where(root, 1, "b: its labels are ['slow', 'unit']", listed, ("a", "unit"), ("b", "unit;slow"))
    where(root, 1, "b: its labels are []", listed, ("a", "unit"), ("b", ""))
    where(root, 1, "bus: no test has it", listed + "bus debug asan\n", ("a", "unit"))


def AListByWhichQuickRunsMoreThanEverythingIsRefused(root):
    where(root, 1, "policy: quick runs what everything does not", "policy debug -\n",
          ("a", "policy"))


def ATestThatHasNotRunWhereTheListSaysIsRefused(root):
    listed, tests = "unit debug release asan\nslow - -\n", [("a", "unit"), ("b", "slow")]
    where(root, 0, "2 tests known", listed, *tests, ran={"release": ["a"], "asan": ["a"]})
    where(root, 1, "a (unit) has not run in asan", listed, *tests, ran={"asan": ["c"]})
    # A build that has run nothing, and one whose program was built nowhere.
    where(root, 1, "a (unit) has not run in tsan", "unit debug release tsan\nslow - -\n", *tests,
          ran={})
    where(root, 1, "Lost: built nowhere", listed, *tests, ("Lost_NOT_BUILT", ""), ran={})


def ASkippedTestIsCountedWithItsReason(root):
    write(root, {"x.xml": """<testsuite><testcase name="a" status="run"/>
<testcase name="b" status="notrun"><skipped message="SKIP_REGULAR_EXPRESSION_MATCHED"/>
<system-out>x.cpp:1: Skipped
this needs root

[  SKIPPED ] b</system-out></testcase>
<testcase name="c" status="notrun"><skipped message="SKIP_RETURN_CODE=77"/>
<system-out>skipped: this needs root</system-out></testcase>
<testcase name="d" status="fail"><failure message=""/></testcase>
<testcase name="e" status="notrun"><skipped message="Unable to find executable"/></testcase>
</testsuite>"""})
    expect(0, "1 2 2\nskipped 2: this needs root: b, c\n", "../where.py", "sum", root / "x.xml")


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
