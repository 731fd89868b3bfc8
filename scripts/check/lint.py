#!/usr/bin/env -S python3 -B
"""clang-tidy finds nothing in app/, platform/, records/, plane/ and tools/.

Most of its time goes into the headers that files include, so the files that the build compiles together are looked at one
behind the other, as a single text. What such a group is found guilty of counts only if a file of it is found guilty alone.

A file that passed is not looked at again until it, a header of ours that it includes, its compile command, .clang-tidy,
one of a room or clang-tidy itself changes: build-clang/lint/ keeps a stamp for each.
"""
import collections
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

from includes import closure, graph

BUILD = "build-clang"
TOGETHER = "build"
ROOMS = ("app/", "platform/", "records/", "plane/", "tools/")
TIDY = "clang-tidy-14"
INCLUDE = re.compile(r'^ *# *include .*$', re.MULTILINE)


def database(build):
    """(file from here, compile command) of everything that is built there"""
    root = os.getcwd() + os.sep
    with open(f"{build}/compile_commands.json", encoding="utf-8") as file:
        return [(entry["file"].removeprefix(root), entry["command"]) for entry in json.load(file)]


def entries():
    """(file, compile command) of everything that the rooms build; generated headers are there once it is built"""
    found = {}
    for name, command in database(BUILD):
        if name.startswith(ROOMS):
            found.setdefault(name, command)  # tests compile some once more
    return sorted(found.items())


def units():
    """file -> the text that includes it, of those that are compiled together"""
    root = os.getcwd() + os.sep
    return {part.removeprefix(root): name for name, _ in database(TOGETHER) if "/Unity/" in name
            for part in re.findall(r'^#include "(.*)"$', pathlib.Path(name).read_text(encoding="utf-8"), re.MULTILINE)}


def flags(command):
    """of a compile command: without launcher, compiler, file and output"""
    words = shlex.split(command)
    words = words[next(i for i, word in enumerate(words) if os.path.basename(word).startswith("clang")) + 1 :]
    for option in ("-o", "-c"):
        if option in words:
            del words[words.index(option) : words.index(option) + 2]
    return words


def stamp_of(name, command, edges, common):
    digest = hashlib.sha256(common + command.encode())
    for part in sorted(closure(name, edges)):
        digest.update(pathlib.Path(part).read_bytes())
    return pathlib.Path(BUILD, "lint", digest.hexdigest())


def groups(jobs):
    """lists of (file, compile command, stamp), the largest first"""
    together, unit = collections.defaultdict(list), units()
    for job in jobs:
        name, command, _ = job
        together[unit.get(name, name), tuple(flags(command))].append(job)
    return sorted(together.values(), key=lambda group: -sum(os.path.getsize(name) for name, _, _ in group))


def tidy_alone(name):
    return subprocess.run([TIDY, "-p", BUILD, "--quiet", name], capture_output=True, text=True)


def passes_together(group):
    """The text stands, for clang-tidy, in the first file's own folder, whose settings hold. What a file declares for itself shadows
    nothing of its neighbour's: that is the compiler's to tell, which sees each alone."""
    first, command, stamp = group[0]
    folders = list(dict.fromkeys(os.path.dirname(os.path.abspath(name)) for name, _, _ in group))
    suffix = os.path.splitext(first)[1]
    text = stamp.absolute().with_suffix(suffix)
    text.write_text("\n".join(pathlib.Path(name).read_text(encoding="utf-8") for name, _, _ in group), encoding="utf-8")
    seen, overlay = f"{folders[0]}/together{suffix}", stamp.with_suffix(".yaml").absolute()
    overlay.write_text(json.dumps({"version": 0, "roots": [
        {"type": "file", "name": seen, "external-contents": str(text)}]}), encoding="utf-8")
    quoted = [word for folder in folders for word in ("-iquote", folder)]
    passed = not subprocess.run(
        [TIDY, "--quiet", f"--vfsoverlay={overlay}", "--checks=-readability-duplicate-include", seen, "--", *flags(command), *quoted,
         "-Wno-shadow"], cwd=BUILD, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode
    text.unlink()
    overlay.unlink()
    return passed


def lint(group):
    """how many files have findings"""
    if len(group) > 1:
        half = len(group) // 2
        if not passes_together(group):
            return lint(group[:half]) + lint(group[half:])
    else:
        done = tidy_alone(group[0][0])
        if done.returncode:
            print(done.stdout, file=sys.stderr)
            return 1
    for _, _, stamp in group:
        stamp.touch()
    return 0


def included_twice(edges):
    """of the files of the rooms; groups cannot tell"""
    found = [name for name in edges if name.startswith(ROOMS)
             and max(collections.Counter(INCLUDE.findall(pathlib.Path(name).read_text(encoding="utf-8"))).values(), default=1) > 1]
    for name in found:
        print(f"{name}: includes a header twice", file=sys.stderr)
    return len(found)


def main():
    for command in ["scripts/configure", "release", TOGETHER], ["scripts/clang-build", "plx_program"]:
        if subprocess.run(command, stdout=subprocess.DEVNULL).returncode:
            return 1
    edges, _ = graph()
    version = subprocess.run([TIDY, "--version"], capture_output=True, check=True).stdout
    common = version + b"".join(pathlib.Path(p).read_bytes() for p in (".clang-tidy", "app/.clang-tidy", "platform/.clang-tidy"))
    os.makedirs(f"{BUILD}/lint", exist_ok=True)
    jobs = [(name, command, stamp_of(name, command, edges, common)) for name, command in entries()]
    fresh = groups(job for job in jobs if not job[2].exists())
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        bad = sum(pool.map(lint, fresh)) + included_twice(edges)
    print(f"lint: {len(jobs)} files, {len(fresh)} groups to look at, {bad} with findings")
    return 1 if bad or not jobs else 0


if __name__ == "__main__":
    sys.exit(main())
