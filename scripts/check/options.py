#!/usr/bin/env python3
"""Every option of a command of plx is an item of its manual page, once, and the page has no item that is no option.

What is the plane's own of plx node is in plx-nftables(7); what all commands have, --help and --version, in plx(1).
The exit codes are those of plx(1), and a unit is not started again after those that a restart cannot mend.
"""

import collections
import pathlib
import re
import subprocess
import sys

PAGES = {"": ["plx.1"], "node": ["plx-node.1", "plx-nftables.7"]}
EVERYWHERE = {"-h", "--help"}
FINAL = {"node": ["EXIT_USAGE", "EXIT_TWIN"], "metrics": ["EXIT_USAGE"]}  # by the command that a unit starts


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


def wrong_with_codes():
    codes = dict(re.findall(r"(EXIT_\w+) = (\d+)", pathlib.Path("tools/plx/exit_codes.hpp").read_text()))
    section = pathlib.Path("docs/man/plx.1").read_text().partition(".Sh EXIT STATUS")[2].partition(".Sh ")[0]
    told = [code for item in re.findall(r"^\.It (.*)", section, re.M) for code in item.split(" , ")]
    if told != list(codes.values()):
        yield f"plx.1 tells the exit codes {told}, which are {list(codes.values())}"
    for unit in pathlib.Path("packaging/systemd").glob("*.in"):
        text = unit.read_text()
        command = re.search(r"^ExecStart=@bindir@/plx (\w+)", text, re.M)
        prevent = re.findall(r"^RestartPreventExitStatus=(.*)", text, re.M)
        final = [" ".join(codes[name] for name in FINAL[command[1]])] if command else []
        if prevent != final:
            yield f"{unit} is not started again after {prevent}, but is to be after all but {final}"


def main():
    if not pathlib.Path("build/bin/plx").exists():
        subprocess.run("scripts/configure release build && cmake --build build >/dev/null", shell=True, check=True)
    commands = ["", *completed("")]
    wrong = [fault for command in commands for fault in wrong_with(command)] + [*wrong_with_codes()]
    for fault in wrong:
        print("options:", fault, file=sys.stderr)
    sys.exit(bool(wrong))


main()
