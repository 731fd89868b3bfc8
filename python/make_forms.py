#!/usr/bin/env -S python3 -B
"""Prints plx/_forms.py: the form of every attribute's value, taken from the tables of docs/attributes.md."""
import os
import re

CLASSES = ("Controls", "Match fields", "Actions")


def main():
    document = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../docs/attributes.md")
    forms, words, cls = [{}, {}, {}], {}, None
    with open(document, encoding="utf-8") as lines:
        for line in lines:
            if line.startswith("## "):
                cls = next((i for i, title in enumerate(CLASSES) if line.startswith("## " + title)), None)
            cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
            if cls is not None and cells[0].startswith("`"):
                kind, _, number = cells[2].partition(" ")
                size = int(number) if number else int(cells[3].split()[0])
                forms[cls][cells[0].strip("`")] = (kind, size, cells[4] == "yes", cells[5])
            elif len(cells) == 2 and cells[1].startswith("`"):
                words[cells[0]] = {word: int(number, 0) for word, number in re.findall(r"`([^`]+)` (\w+)", cells[1])}
    print('"""Made by make_forms.py: form, bits or bytes, mask, and set of words of every attribute, by class and name."""')
    print("FORMS = (")
    for table in forms:
        print("    {")
        for name, form in table.items():
            print(f"        {name!r}: {form!r},")
        print("    },")
    print(")\nWORDS = {")
    for name, table in words.items():
        print(f"    {name!r}: {table!r},")
    print("}")


if __name__ == "__main__":
    main()
