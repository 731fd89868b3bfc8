#!/usr/bin/env -S python3 -B
"""What the documents point at is there: relative links, and files of ours that they name in backticks."""
import os
import re
import subprocess
import sys

LINK = re.compile(r"\]\(([^)#]+)[^)]*\)")
NAMED = re.compile(r"`((?:app|bench|docs|examples|fuzz|include|packaging|plane|platform|proto|records|scripts|tests|tools)/[^`*<> ]*)(?=[` ])")


def missing(name):
    with open(name, encoding="utf-8") as text:
        for number, line in enumerate(text, 1):
            links = [link for link in LINK.findall(line) if "://" not in link]
            targets = [os.path.join(os.path.dirname(name), link) for link in links] + NAMED.findall(line)
            yield from (f"{name}:{number}: no {target}" for target in targets if not os.path.exists(target))


def main():
    listing = subprocess.run(["git", "-c", "safe.directory=*", "ls-files", "*.md"], check=True, capture_output=True,
                             text=True).stdout.split()
    faults = [fault for name in listing for fault in missing(name)]
    for fault in faults:
        print("links:", fault, file=sys.stderr)
    print(f"links: {len(listing)} documents, {len(faults)} faults")
    return 1 if faults or not listing else 0


if __name__ == "__main__":
    sys.exit(main())
