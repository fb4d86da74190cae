#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The Debian symbols file lists what the library exports: no more, no less.

symbols_test.py SYMBOLS EXPORTS
"""
import pathlib
import re
import subprocess
import sys


def main():
    symbols, exports = (pathlib.Path(path).read_text(encoding="utf-8") for path in sys.argv[1:])
    listed = set(re.findall(r'^ (?:\([^)]*\)"(.+)@Base"|(\w+)@Base) ', symbols, re.M))
    listed = {plain or name for name, plain in listed}
    names = "\n".join(line for line in exports.splitlines() if line and not line.startswith("#"))
    exported = set(subprocess.run(["c++filt"], input=names, capture_output=True, text=True,
                                  check=True).stdout.split("\n")) - {""}
    print(f"{len(listed)} listed, {len(exported)} exported")
    assert len(exported) > 100, "no symbols were read"
    assert listed == exported, (f"not in the file: {sorted(exported - listed)}; "
                                f"not exported: {sorted(listed - exported)}")


if __name__ == "__main__":
    main()
