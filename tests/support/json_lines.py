#!/usr/bin/python3
"""json_lines.py SCHEMAS plx COMMAND... [AND plx COMMAND...]: runs each, and tells what kinds of lines it printed, and how
many of each.

All that it prints on standard output must be lines as the installed schemas describe them, without anything that they do
not name; the first alone has the schema, the last alone is the summary, with the exit code that it ends with; beside a
number above 2^53 stands its text; and standard error stays empty. Notes go there as they come, so that one can wait for
them.
"""

import collections
import ctypes
import functools
import itertools
import json
import pathlib
import signal
import subprocess
import sys

import jsonschema

SCHEMAS = {path.name: json.loads(path.read_text()) for path in pathlib.Path(sys.argv[1]).glob("*.json")}


def strict(schema, branch=True):
    """The schema without room for additions. A line is one of several kinds: it is closed where they come together."""
    if isinstance(schema, list):
        return [strict(one, branch) for one in schema]
    if not isinstance(schema, dict):
        return schema
    closed = {
        key: {name: strict(one, False) for name, one in value.items()}
        if key == "properties"
        else {name: strict(one) for name, one in value.items()} if key == "$defs" else strict(value, branch)
        for key, value in schema.items()
    }
    if "oneOf" in closed or ("properties" in closed and not branch):
        closed["unevaluatedProperties"] = False
    return closed


def without_texts(value):
    """The value without the texts that stand beside its long numbers."""
    if isinstance(value, list):
        return [without_texts(one) for one in value]
    if not isinstance(value, dict):
        return value
    texts = {name + "_text": str(one) for name, one in value.items() if type(one) is int and abs(one) > 2**53}
    missing = [name for name, text in texts.items() if value.get(name) != text]
    assert not missing, f"no text beside a long number: {missing}"
    return {name: without_texts(one) for name, one in value.items() if name not in texts}


@functools.cache
def validator(name):
    file = name.replace("/", "-") + ".json"
    store = {name: strict(schema) for name, schema in SCHEMAS.items()}
    resolver = jsonschema.RefResolver(file, store[file], store=store)
    return jsonschema.Draft202012Validator(store[file], resolver=resolver)


def check(line, number, valid):
    row = without_texts(json.loads(line))
    assert ("schema" in row) == (number == 0), "the first line alone has the schema"
    valid = valid or validator(row["schema"])
    for error in valid.iter_errors(row):
        raise AssertionError(jsonschema.exceptions.best_match([error]).message)
    if row["type"] == "note":
        print(row["text"], file=sys.stderr, flush=True)
    return row, valid


def run(words):
    # The command ends with this, however this ends: 1 is PR_SET_PDEATHSIG.
    command = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                               preexec_fn=lambda: ctypes.CDLL(None).prctl(1, signal.SIGTERM))
    signal.signal(signal.SIGTERM, lambda number, frame: command.send_signal(number))
    counts, rows, valid = collections.Counter(), [], None
    for number, line in enumerate(command.stdout):
        try:
            row, valid = check(line, number, valid)
        except (AssertionError, ValueError, KeyError) as wrong:
            sys.exit(f"line {number + 1}: {wrong}: {line}")
        counts[row["type"]] += row["type"] != "note"
        rows = [*rows[:1], row]
    errors, code = command.communicate()[1], command.returncode
    assert rows, f"no line, but {errors}"
    assert not errors, f"on standard error: {errors}"
    assert rows[-1]["type"] == "summary" and counts["summary"] == 1, "the last line alone is the summary"
    assert rows[-1]["exit_code"] == code, f"it ends with {code}: {rows[-1]}"
    told = [f"{kind} {count}" for kind, count in sorted(counts.items()) if count and kind != "summary"]
    print(rows[0]["schema"] + ": " + ", ".join([*told, f"exit code {code}"]), flush=True)


for separates, words in itertools.groupby(sys.argv[2:], "AND".__eq__):
    if not separates:
        run(list(words))
