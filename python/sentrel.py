# SPDX-License-Identifier: Apache-2.0
"""Operations that need root, carried out by the agent on the system bus.

    import sentrel

    outcome = sentrel.mount("-t", "tmpfs", "-o", "size=1m", "none", "/run/media/x")
    if outcome.exit_code != 0:
        print(outcome.output.decode(errors="replace"))

Each operation takes the words of the standard tool, without the tool's name, and returns an
Outcome when the tool ran, whether it succeeded or not. Every other end is an exception, Error, with
the status that says why. What no rule of the agent allows is refused with Status.RULE_NO_FOUND.

The words are quoted, so that the agent sees exactly these; one that it would refuse is refused here
by ValueError. A call blocks its thread, and releases the interpreter while it does. Any thread may
call.
"""
from __future__ import annotations

import ctypes
import enum
import os
import re
import threading
from typing import NamedTuple, Optional

__all__ = ["Error", "Outcome", "Status", "config_info", "error_to_string", "insmod", "mknod",
           "mount", "mount_cifs", "quote", "rmmod", "systemctl", "umount", "umount_cifs"]

LIBRARY = "libsentrel-client.so.1"
MOST_WORDS = 64
MOST_BYTES = 8192


class Status(enum.IntEnum):
    """The status codes of an operation."""

    OK = 0
    FAIL = 1
    INVALID_REGEX = 2
    COMM_OK = 3
    COMM_SERVICE_EXISTS = 4
    COMM_NO_SERVICE = 5
    COMM_FAILED = 6
    RULE_NO_FOUND = 7
    WAITPID_FAILED = 8
    FORK_FAILED = 9
    FEATURE_ISNT_IMPLEMENTED = 10


class Outcome(NamedTuple):
    """What a tool that ran has left."""

    exit_code: int
    """The tool's own; 128 and the signal's number when a signal ended it."""
    output: bytes
    """What it wrote; empty when the caller gave a descriptor of its own."""


class Error(Exception):
    """The operation was refused, failed, or did not reach the agent.

    `operation` is the name of the function that was called, such as "mount_cifs".
    `status` is a Status, or an int when the agent answered with a value that is none. `reason` is
    the agent's own line about it, when there is one.
    """

    def __init__(self, operation: str, status: int, reason: str = "") -> None:
        self.operation = operation
        self.status: int = _status(status)
        self.reason = reason
        text = f"{operation}: status {status}, {error_to_string(status)}"
        super().__init__(f"{text}: {reason}" if reason else text)


def _status(code: int) -> int:
    try:
        return Status(code)
    except ValueError:
        return code


def _load() -> ctypes.CDLL:
    library = ctypes.CDLL(LIBRARY)
    for name in ("Mount", "Umount", "Mount_Cifs", "Umount_Cifs", "Mknod", "Insmod", "Rmmod",
                 "Systemctl"):
        function = getattr(library, f"SR_{name}")
        function.argtypes = [ctypes.c_char_p, ctypes.c_uint, ctypes.c_int,
                             ctypes.POINTER(ctypes.c_int)]
        function.restype = ctypes.c_int
    library.SR_ConfigInfo.argtypes = []
    library.SR_ConfigInfo.restype = ctypes.c_char_p
    library.SR_ErrorToString.argtypes = [ctypes.c_int]
    library.SR_ErrorToString.restype = ctypes.c_char_p
    return library


_library = _load()
_PLAIN = re.compile(r"[A-Za-z0-9_\-+=.,:/@%]+")
_CONTROL = re.compile("[\x00-\x1f\x7f-\x9f]")


def quote(*words: str) -> str:
    """The words as one argument text, from which the agent takes exactly these words back.

    Raises ValueError for a word that is not text (a lone surrogate), that holds a control
    character, NUL included, and for more than the agent takes.
    """
    for word in words:
        if _CONTROL.search(word):
            raise ValueError("a word holds a control character")
    text = " ".join(word if _PLAIN.fullmatch(word) else "'" + word.replace("'", "'\\''") + "'"
                    for word in words)
    if len(words) > MOST_WORDS or len(_encode(text)) > MOST_BYTES:
        raise ValueError("there are too many words")
    return text


def _encode(text: str) -> bytes:
    try:
        return text.encode("utf-8")
    except UnicodeEncodeError:
        raise ValueError("a word is not valid text") from None


class _Collector:
    """Takes the tool's output from a pipe while the call is under way.

    The agent has its own copy of the pipe's end, which may close a moment after its answer, or, when
    a tool cannot be ended, not at all: what has come is then taken for everything.
    """

    _PATIENCE = 2  # seconds after the answer

    def __init__(self) -> None:
        self._reader, self.writer = os.pipe()
        self._parts: list[bytes] = []
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self) -> None:
        while part := os.read(self._reader, 65536):
            self._parts.append(part)
        os.close(self._reader)

    def finish(self) -> bytes:
        os.close(self.writer)
        self._thread.join(self._PATIENCE)
        return b"".join(self._parts)


def _call(operation: str, words: tuple[str, ...], descriptor: Optional[int]) -> Outcome:
    text = _encode(quote(*words))
    result = ctypes.c_int(0)
    collector = _Collector() if descriptor is None else None
    number = collector.writer if collector else descriptor
    output = b""
    try:
        status = getattr(_library, f"SR_{operation}")(text, len(text), number,
                                                      ctypes.byref(result))
    finally:
        if collector:
            output = collector.finish()
    if status != Status.OK:
        raise Error(operation.lower(), status, output.decode("utf-8", "replace").strip())
    return Outcome(result.value, output)


def mount(*words: str, descriptor: Optional[int] = None) -> Outcome:
    """Mount a file system: [-rwB] [-t TYPE] [-o OPTION,...] SOURCE TARGET.

    As for every operation here: with `descriptor`, the number of an open descriptor, the tool's
    output goes there instead of into the Outcome; 0 drops it. Raises Error and ValueError.
    """
    return _call("Mount", words, descriptor)


def umount(*words: str, descriptor: Optional[int] = None) -> Outcome:
    """Unmount a file system: [-fld] TARGET. See mount."""
    return _call("Umount", words, descriptor)


def mount_cifs(*words: str, descriptor: Optional[int] = None) -> Outcome:
    """Mount a network share: [-rw] [-o OPTION,...] //HOST/SHARE TARGET. See mount."""
    return _call("Mount_Cifs", words, descriptor)


def umount_cifs(*words: str, descriptor: Optional[int] = None) -> Outcome:
    """Unmount a network share: [-fld] TARGET. See mount."""
    return _call("Umount_Cifs", words, descriptor)


def mknod(*words: str, descriptor: Optional[int] = None) -> Outcome:
    """Make a device node or a named pipe: [-m MODE] PATH b|c|p [MAJOR MINOR]. See mount."""
    return _call("Mknod", words, descriptor)


def insmod(*words: str, descriptor: Optional[int] = None) -> Outcome:
    """Load a kernel module: FILE [PARAMETER=VALUE ...]. See mount."""
    return _call("Insmod", words, descriptor)


def rmmod(*words: str, descriptor: Optional[int] = None) -> Outcome:
    """Unload a kernel module: MODULE. See mount."""
    return _call("Rmmod", words, descriptor)


def systemctl(*words: str, descriptor: Optional[int] = None) -> Outcome:
    """Drive the service manager: [OPTION ...] VERB UNIT ... See mount."""
    return _call("Systemctl", words, descriptor)


def config_info() -> str:
    """The version of the C interface, and the build with which it was fixed."""
    return _library.SR_ConfigInfo().decode("ascii")


def error_to_string(code: int) -> str:
    """The text of a status code; "Unknown error" for a value outside Status."""
    return _library.SR_ErrorToString(code).decode("ascii")
