#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Doxygen's input filter: turns a header's plain comments into Doxygen's.

The comment at the top becomes the file's, and that of each class that has none of its own: a header
is of one class family. A comment above a declaration becomes that declaration's, and that
of the declarations which follow it without a blank line. A comment behind a declaration on its line
becomes that declaration's.
"""
import re
import sys


def escape(text):
    """Doxygen must read words, not commands."""
    return re.sub(r"([\\@<>#%&])", r"\\\1", text)


def opening(lines):
    """The lines of the comment at the top, without its marks, and where the rest begins."""
    at, text = 0, []
    while at < len(lines) and re.match(r"\s*(//|/\*|\*)", lines[at]):
        text.append(re.sub(r"^\s*(?:/\*+|\*/|//|\*)\s?|\s*\*/\s*$", "", lines[at]))
        at += 1
    return [line for line in text if "SPDX-License" not in line], at


def is_comment(line):
    return re.match(r"\s*//", line)


def is_declaration(line):
    """A line on which a member or type may begin."""
    if re.match(r"#\s*define \w+\b.", line):
        return True
    return re.match(r"\s*[~A-Za-z_]", line) and not re.match(
        r"\s*(public|protected|private|friend|namespace|return|if|for|while|extern|typedef struct)\b",
        line)


class Filter:
    def __init__(self, lines):
        self.lines = lines
        self.out = []
        self.group = []  # the comment that holds for what follows without a blank line
        self.fresh = False

    def emit(self, indent, comment):
        self.out.append(indent + "/** " + " ".join(escape(line) for line in comment) + " */")

    def run(self, at, head):
        depth_open = False  # within a declaration of several lines
        while at < len(self.lines):
            line = self.lines[at]
            at += 1
            if is_comment(line):
                block = [re.sub(r"^\s*//\s?", "", line)]
                while at < len(self.lines) and is_comment(self.lines[at]):
                    block.append(re.sub(r"^\s*//\s?", "", self.lines[at]))
                    at += 1
                self.group = block
                continue
            one = re.match(r"(\s*)/\* (.*) \*/$", line)
            if one:
                self.group = [one[2]]
                continue
            if not line.strip():
                self.group = []
                self.out.append(line)
                continue
            trailing = re.match(r"(.*[;,{}]|.*\w)\s+(?://|/\*) ?(.*?)(?: \*/)?$", line)
            if trailing and not depth_open:
                self.out.append(f"{trailing[1]}  /**< {escape(trailing[2])} */")
                continue
            if is_declaration(line) and not depth_open:
                indent = re.match(r"\s*", line)[0]
                body = re.match(r"(?:template.*>\s*)?(class|struct)\b.*\{", line.strip())
                if self.group:
                    self.emit(indent, self.group)
                elif body:
                    self.emit(indent, head)
                if body:
                    self.group = []
                depth_open = not re.search(r"[;{}]\s*$", line) and not line.startswith("#")
                if line.strip().startswith("template"):
                    depth_open = False
                    self.group = []
            elif depth_open and re.search(r"[;{}]\s*$", line):
                depth_open = False
            self.out.append(line)
        return self.out


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        lines = file.read().splitlines()
    head, at = opening(lines)
    print("/** @file\n" + "\n".join(escape(line) for line in head) + "\n*/")
    print("\n".join(Filter(lines).run(at, head)))


if __name__ == "__main__":
    main()
