#!/usr/bin/env python3
"""Every option of a command of plx is an item of its manual page, once, and the page has no item that is no option.

What is the plane's own of plx node is in plx-nftables(7); what all commands have, --help and --version, in plx(1).
"""

import collections
import pathlib
import subprocess
import sys

PAGES = {"": ["plx.1"], "node": ["plx-node.1", "plx-nftables.7"]}
EVERYWHERE = {"-h", "--help"}


def completed(*words):
    told = subprocess.run(["build/bin/plx", "__complete", *words], capture_output=True, text=True, check=True)
    return told.stdout.split()


def options(command):
    """The command's, and those of the commands below it."""
    if not command:
        return set(completed("-"))
    return set(completed(command, "-")).union(*(completed(command, word, "-") for word in completed(command, "")))


def items(command):
    found = collections.Counter()
    for page in PAGES.get(command, [f"plx-{command}.1"]):
        for line in pathlib.Path("docs/man", page).read_text().splitlines():
            macro, words = None, line.split()
            if words[:1] != [".It"]:
                continue
            for word in words[1:]:
                if word in ("Fl", "Ar", "Cm", "Ns", "Nm", "Pa", "Xr"):
                    macro = word
                elif macro == "Fl" and word.strip("-").replace("-", "").isalnum():
                    found["-" + word] += 1
    return found


def wrong_with(command):
    has, told = options(command), items(command)
    if command:
        has -= EVERYWHERE
    where = f"plx {command}".strip()
    for option in sorted(has - set(told)):
        yield f"{where} {option} is no item of its page"
    for option, count in sorted(told.items()):
        if option not in has:
            yield f"{where} has no option {option}, but its page has"
        elif count > 1:
            yield f"{where} {option} is an item of its page {count} times"


def main():
    if not pathlib.Path("build/bin/plx").exists():
        subprocess.run("scripts/configure release build && cmake --build build >/dev/null", shell=True, check=True)
    commands = ["", *completed("")]
    wrong = [fault for command in commands for fault in wrong_with(command)]
    for fault in wrong:
        print("options:", fault, file=sys.stderr)
    sys.exit(bool(wrong))


main()
