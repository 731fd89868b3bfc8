#!/usr/bin/env -S python3 -B
"""The share of tests does not grow: a third of all other code is meant.

Counts the lines of C, C++, Python and shell in tests/ and fuzz/ over those of everything else that is code, prints the
share by room, and fails above BAR. What is data, such as transcripts and fuzz inputs, is not counted."""
import os
import subprocess
import sys

BAR = 33  # per cent
TESTS = ("tests", "fuzz")
CODE = ("app", "include", "platform", "plane", "records", "python", "tools", "examples", "bench", "scripts")
SUFFIXES = (".c", ".cpp", ".h", ".hpp", ".py", ".sh")


def lines_by_folder(rooms):
    """Lines of code by folder, two levels deep"""
    listing = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", *rooms], check=True,
                             capture_output=True, text=True)
    counts = {}
    for name in listing.stdout.splitlines():
        if name.endswith(SUFFIXES) and os.path.isfile(name):
            with open(name, "rb") as source:
                folder = "/".join(name.split("/")[:-1][:2])
                counts[folder] = counts.get(folder, 0) + source.read().count(b"\n")
    return counts


def main():
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
    tests, code = lines_by_folder(TESTS), lines_by_folder(CODE)
    for folder, count in sorted(tests.items(), key=lambda item: -item[1]):
        print(f"share: {count:6} {folder}")
    share = 100 * sum(tests.values()) / sum(code.values())
    print(f"share: {sum(tests.values())} lines of tests beside {sum(code.values())} of code: {share:.1f} %, "
          f"the bar is {BAR} %")
    return 1 if share > BAR else 0


if __name__ == "__main__":
    sys.exit(main())
