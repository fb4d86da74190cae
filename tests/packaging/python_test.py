#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The Python module, against an agent on a private bus.

python_test.py LIBRARY SCRIPTED_AGENT SPLITTER HEADER

SPLITTER is a program that prints the words that the agent's splitter takes from its argument. libdbus
reads the bus's address once in a process, so all cases share one bus.
"""
import enum
import inspect
import os
import pathlib
import random
import re
import subprocess
import sys
import threading
import unittest

from support import private_bus, read_line, scripted_agent

OPERATIONS = ["mount", "umount", "mount_cifs", "umount_cifs", "mknod", "insmod", "rmmod",
              "systemctl"]


class PythonModule(unittest.TestCase):
    address = agent = splitter = header = ""

    def answering(self, *options):
        return scripted_agent(self.agent, self.address, *options)

    def split(self, text):
        done = subprocess.run([self.splitter, text], capture_output=True, timeout=60, check=True)
        return [word.decode() for word in done.stdout.split(b"\0")[:-1]]

    def testEachOperationSendsItsOwnNameAndItsWords(self):
        for name in OPERATIONS:
            with self.answering("--text", "0 3") as agent:
                outcome = getattr(sentrel, name)("a b", "", "it's", descriptor=0)
                report = read_line(agent.stdout.fileno(), "the agent")
            self.assertTrue(report.endswith(f"| sr_{name} | 'a b' '' 'it'\\''s' | 0"), report)
            self.assertEqual((3, b""), outcome)

    def testTheSplitterTakesAnyWordsBack(self):
        draw = random.Random(1)
        pieces = [" ", "'", '"', "\\", "$", "`", "-", "=", "a", "Z", "\u00e4", "\u6f22",
                  "\U0001f4be", "\u00a0", "*", "#", ";", "%", "/"]
        for _ in range(300):
            words = ["".join(draw.choices(pieces, k=draw.randrange(9)))
                     for _ in range(draw.randrange(1, 7))]
            self.assertEqual(words, self.split(sentrel.quote(*words)))

    def testWhatTheAgentWouldRefuseIsRefused(self):
        for word in ["\0", "a\nb", "\t", "\x7f", "\x85", "\ud800"]:
            with self.assertRaises(ValueError, msg=repr(word)):
                sentrel.quote("x", word)
        self.assertEqual(64, len(sentrel.quote(*["x"] * 64).split()))
        with self.assertRaises(ValueError):
            sentrel.quote(*["x"] * 65)
        self.assertEqual(8192, len(sentrel.quote("x" * 8192)))
        with self.assertRaises(ValueError):
            sentrel.quote("x" * 8193)

    def testEveryOtherStatusIsAnError(self):
        for status in [1, 2, 5, 6, 7, 8, 9, 10]:
            with self.answering("--text", f"{status} 0"):
                with self.assertRaises(sentrel.Error) as caught:
                    sentrel.rmmod("x")
            self.assertEqual(("rmmod", status),
                             (caught.exception.operation, caught.exception.status))
            self.assertIsInstance(caught.exception.status, sentrel.Status)
            self.assertIn(sentrel.Status(status).name, str(caught.exception))

    def testAnUnknownStatusStaysANumber(self):
        with self.answering("--text", "42 0"):
            with self.assertRaises(sentrel.Error) as caught:
                sentrel.rmmod("x")
        self.assertEqual(42, caught.exception.status)
        self.assertNotIsInstance(caught.exception.status, enum.IntEnum)
        self.assertIn("Unknown error", str(caught.exception))

    def testWithoutAnAgentTheStatusSaysSo(self):
        with self.assertRaises(sentrel.Error) as caught:
            sentrel.mount("none", "/x")
        self.assertEqual(sentrel.Status.COMM_NO_SERVICE, caught.exception.status)

    def testTheOutputIsCollectedOrGoesWhereTheCallerSays(self):
        # The agent's part is played here: whoever reads the number writes to it.
        for reply, wanted in (("0 0", b"the tool's words\n"), ("7 0", b"no rule allows this\n")):
            with self.answering("--text", reply, "--hold", "2") as agent:
                result = []
                caller = threading.Thread(target=self.collect, args=(result,))
                caller.start()
                report = read_line(agent.stdout.fileno(), "the agent")
                os.write(int(report.rsplit("|", 1)[1]), wanted)
                with self.assertRaises(sentrel.Error) if reply[0] != "0" else nothing():
                    sentrel.rmmod("second", descriptor=0)  # lets both answers go
                caller.join(30)
            self.assertFalse(caller.is_alive())
            if reply[0] == "0":
                self.assertEqual((0, wanted), result[0])
            else:
                self.assertEqual(wanted.decode().strip(), result[0].reason)

    def testNoDescriptorIsLeftOpen(self):
        before = os.listdir("/proc/self/fd")
        with self.answering():
            for _ in range(20):
                sentrel.umount("/x")
        self.assertEqual(before, os.listdir("/proc/self/fd"))

    def testTheCodesAreTheHeaders(self):
        declared = re.findall(r"^\s*SR_(\w+) = (\d+)", pathlib.Path(self.header).read_text(), re.M)
        self.assertEqual(dict((name, int(value)) for name, value in declared),
                         dict((code.name, code.value) for code in sentrel.Status))
        for code in sentrel.Status:
            self.assertEqual(code.name, sentrel.error_to_string(code))
        self.assertRegex(sentrel.config_info(), r"^v\d+\.\d+ [0-9a-f]{32}$")

    def testEverythingPublicIsDescribedAndTyped(self):
        for name in sentrel.__all__:
            item = getattr(sentrel, name)
            self.assertTrue(item.__doc__, name)
            if inspect.isfunction(item):
                signature = inspect.signature(item)
                self.assertIsNot(signature.return_annotation, inspect.Signature.empty, name)
                for parameter in signature.parameters.values():
                    self.assertIsNot(parameter.annotation, inspect.Parameter.empty, name)

    @staticmethod
    def collect(result):
        try:
            result.append(sentrel.umount("/first"))
        except sentrel.Error as error:
            result.append(error)


class nothing:
    def __enter__(self):
        return self

    def __exit__(self, *_):
        return False


def main():
    library, PythonModule.agent, PythonModule.splitter, PythonModule.header = sys.argv[1:5]
    with private_bus() as address:
        PythonModule.address = os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = address
        sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "python"))
        global sentrel
        import ctypes
        ctypes.CDLL(library)  # found again by its soname
        import sentrel
        result = unittest.main(argv=[sys.argv[0], "-v"], exit=False).result
    sys.exit(0 if result.wasSuccessful() and result.testsRun >= 10 else 1)


if __name__ == "__main__":
    main()
