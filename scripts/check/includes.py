"""The project's include graph: which of our files includes which. Used by the checks beside this file.

A quoted or angled include is ours when it names a tracked file, seen from the including file's folder or from one of
the folders that the build gives the compiler. A generated header counts as the schema that it is made from. What is left is the
system's, except that a quoted include must be ours.
"""
import os
import re
import subprocess

SOURCES = (".c", ".cpp", ".h", ".hpp")
SCHEMA = ".proto"
ROOTS = ("include", "platform/include", "app", "tools/plx", "tests", "bench", "")
GENERATED = ".pb-c.h"
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]', re.MULTILINE)


def tracked():
    listing = subprocess.run(["git", "-c", "safe.directory=*", "ls-files"], check=True, capture_output=True, text=True)
    return [name for name in listing.stdout.splitlines() if name.endswith(SOURCES + (SCHEMA,)) and os.path.exists(name)]


def resolve(including, text, quoted, ours):
    """The tracked file behind an include, or None when it is the system's."""
    if text.endswith(GENERATED):
        schema = os.path.basename(text).removesuffix(GENERATED) + SCHEMA
        return next((name for name in ours if os.path.basename(name) == schema), None)
    folders = ([os.path.dirname(including)] if quoted else []) + list(ROOTS)
    for folder in folders:
        name = os.path.normpath(os.path.join(folder, text))
        if name in ours:
            return name
    # A target with an include folder of its own, as some tests have.
    ends = [name for name in ours if name.endswith("/" + text)] if quoted else []
    return ends[0] if len(ends) == 1 else None


def graph():
    """(file -> files of ours that it includes, list of quoted includes that name none)"""
    ours = set(tracked())
    edges, lost = {}, []
    for name in sorted(ours):
        edges[name] = []
        with open(name, encoding="utf-8") as source:
            found = INCLUDE.findall(source.read()) if name.endswith(SOURCES) else []
        for mark, text in found:
            target = resolve(name, text, mark == '"', ours)
            if target is not None:
                edges[name].append(target)
            elif mark == '"':
                lost.append((name, text))
    return edges, lost


def closure(name, edges):
    """A file and everything of ours that it includes, however far."""
    seen, todo = set(), [name]
    while todo:
        current = todo.pop()
        if current not in seen:
            seen.add(current)
            todo.extend(edges.get(current, ()))
    return seen
