#!/usr/bin/env -S python3 -B
"""clang-tidy finds nothing in app/, platform/, records/, plane/ and tools/.

Most of its time goes into the headers that files include, so files of one folder and one compile command are looked at one
behind the other, as a single text. What such a group is found guilty of counts only if a file of it is found guilty alone;
nor do files stay together that have the same name for things of their own.

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
ROOMS = ("app/", "platform/", "records/", "plane/", "tools/")
TIDY = "clang-tidy-14"
BYTES = 60_000  # of a group
INCLUDE = re.compile(r'^ *# *include .*$', re.MULTILINE)


def parts(name):
    """the files of ours that are compiled with this one: what is compiled together is looked at together"""
    if "/Unity/" not in name:
        return [name]
    root = os.getcwd() + os.sep
    text = pathlib.Path(name).read_text(encoding="utf-8")
    return [part.removeprefix(root) for part in re.findall(r'^#include "(.*)"$', text, re.MULTILINE)]


def entries():
    """(file, compile command) of everything that the rooms build; generated headers are there once it is built"""
    root = os.getcwd() + os.sep
    found = {}
    with open(f"{BUILD}/compile_commands.json", encoding="utf-8") as database:
        for entry in json.load(database):
            name = entry["file"].removeprefix(root)
            if all(part.startswith(ROOMS) for part in parts(name)):
                found.setdefault(name, entry["command"])  # tests compile some once more
    return sorted(found.items())


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
    for part in sorted(set().union(*(closure(part, edges) for part in parts(name)))):
        digest.update(pathlib.Path(part).read_bytes())
    return pathlib.Path(BUILD, "lint", digest.hexdigest())


def groups(jobs):
    """lists of (file, compile command, stamp), the largest first"""
    alike = collections.defaultdict(list)
    for job in jobs:
        name, command, _ = job
        alone = name if len(parts(name)) > 1 else None
        alike[os.path.dirname(name), os.path.splitext(name)[1], tuple(flags(command)), alone].append(job)
    found = []
    for together in alike.values():
        group, size = [], 0
        for job in together:
            if size > BYTES:
                found.append(group)
                group, size = [], 0
            group.append(job)
            size += os.path.getsize(job[0])
        found.append(group)
    weight = {id(group): sum(os.path.getsize(part) for job in group for part in parts(job[0])) for group in found}
    return sorted(found, key=lambda group: -weight[id(group)])


def tidy_alone(name):
    only = ["--checks=-bugprone-suspicious-include"] if len(parts(name)) > 1 else []
    return subprocess.run([TIDY, "-p", BUILD, "--quiet", *only, name], capture_output=True, text=True)


def passes_together(group):
    """The text stands, for clang-tidy, in the files' own folder, whose settings hold. What a file declares for itself shadows
    nothing of its neighbour's: that is the compiler's to tell, which sees each alone."""
    first, command, stamp = group[0]
    folder, suffix = os.path.dirname(os.path.abspath(first)), os.path.splitext(first)[1]
    text = stamp.absolute().with_suffix(suffix)
    text.write_text("\n".join(pathlib.Path(name).read_text(encoding="utf-8") for name, _, _ in group), encoding="utf-8")
    words, seen = [*flags(command), "-iquote", folder], f"{folder}/together{suffix}"
    overlay = stamp.with_suffix(".yaml").absolute()
    overlay.write_text(json.dumps({"version": 0, "roots": [
        {"type": "file", "name": seen, "external-contents": str(text)}]}), encoding="utf-8")
    compiler = "clang++-14" if suffix == ".cpp" else "clang-14"
    run = {"cwd": BUILD, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    passed = not subprocess.run([compiler, *words, "-w", "-fsyntax-only", text], **run).returncode and not subprocess.run(
        [TIDY, "--quiet", f"--vfsoverlay={overlay}", "--checks=-readability-duplicate-include", seen, "--", *words, "-Wno-shadow"],
        **run).returncode
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
    if subprocess.run(["scripts/clang-build", "plx_program"], stdout=subprocess.DEVNULL).returncode:
        return 1
    edges, _ = graph()
    version = subprocess.run([TIDY, "--version"], capture_output=True, check=True).stdout
    common = version + b"".join(pathlib.Path(p).read_bytes() for p in (".clang-tidy", "app/.clang-tidy", "platform/.clang-tidy"))
    os.makedirs(f"{BUILD}/lint", exist_ok=True)
    jobs = [(name, command, stamp_of(name, command, edges, common)) for name, command in entries()]
    fresh = groups(job for job in jobs if not job[2].exists())
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        bad = sum(pool.map(lint, fresh)) + included_twice(edges)
    print(f"lint: {sum(len(parts(name)) for name, _, _ in jobs)} files, {len(fresh)} groups to look at, {bad} with findings")
    return 1 if bad or not jobs else 0


if __name__ == "__main__":
    sys.exit(main())
