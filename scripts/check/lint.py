#!/usr/bin/env -S python3 -B
"""clang-tidy finds nothing in app/, platform/, records/, plane/ and tools/.

A file that passed is not looked at again until it, a header of ours that it includes, its compile command, .clang-tidy,
one of a room or clang-tidy itself changes: build-clang/lint/ keeps a stamp for each.
"""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys

from includes import closure, graph

BUILD = "build-clang"
ROOMS = ("app/", "platform/", "records/", "plane/", "tools/")
TIDY = "clang-tidy-14"


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
    # The longest first.
    return sorted(found.items(), key=lambda job: -len(parts(job[0])))


def stamp_of(name, command, edges, common):
    digest = hashlib.sha256(common + command.encode())
    for part in sorted(set().union(*(closure(part, edges) for part in parts(name)))):
        digest.update(pathlib.Path(part).read_bytes())
    return pathlib.Path(BUILD, "lint", digest.hexdigest())


def lint(job):
    name, stamp = job
    if stamp.exists():
        return True
    only = ["--checks=-bugprone-suspicious-include"] if len(parts(name)) > 1 else []
    done = subprocess.run([TIDY, "-p", BUILD, "--quiet", *only, name], capture_output=True, text=True)
    if done.returncode == 0:
        stamp.touch()
        return True
    print(done.stdout, file=sys.stderr)
    return False


def main():
    if subprocess.run(["scripts/clang-build", "plx_program"], stdout=subprocess.DEVNULL).returncode:
        return 1
    edges, _ = graph()
    version = subprocess.run([TIDY, "--version"], capture_output=True, check=True).stdout
    common = version + b"".join(pathlib.Path(p).read_bytes() for p in (".clang-tidy", "app/.clang-tidy", "platform/.clang-tidy"))
    os.makedirs(f"{BUILD}/lint", exist_ok=True)
    jobs = [(name, stamp_of(name, command, edges, common)) for name, command in entries()]
    fresh = sum(not stamp.exists() for _, stamp in jobs)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        results = list(pool.map(lint, jobs))
    print(f"lint: {sum(len(parts(name)) for name, _ in jobs)} files, {fresh} runs, {results.count(False)} with findings")
    return 0 if jobs and all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
