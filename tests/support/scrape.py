#!/usr/bin/python3
"""What a server of numbers says, read strictly by the rules of Prometheus' text format.

scrape.py ADDRESS [PREFIX...]           the values whose names begin so
scrape.py ADDRESS --ask TEXT [COUNT]    the status line to that request, and the body's first line; the last of so many
                                        connections, where the others ask and are gone
scrape.py ADDRESS --crowd COUNT         the same as with a prefix that nothing has, while so many say nothing
scrape.py ADDRESS --names ADDRESS FILE...  families of both that the page (FILE) lacks or has too much, and names in
                                        the other files that no family has
scrape.py ADDRESS --page                the page itself, once it was read
"""

import collections
import pathlib
import re
import socket
import sys

NAME = "[a-zA-Z_:][a-zA-Z0-9_:]*"
LABEL = r'([a-z_][a-z0-9_]*)="((?:[^"\\\n]|\\["\\n])*)"'
SAMPLE = re.compile(rf"({NAME})(?:\{{({LABEL}(?:,{LABEL})*)\}})? (?P<value>-?\d+(?:\.\d+)?)")
GET = "GET /metrics HTTP/1.1\r\nHost: plx\r\n\r\n"


def connect(address):
    is_path = address.startswith("unix:")
    guest = socket.socket(socket.AF_UNIX if is_path else socket.AF_INET, socket.SOCK_STREAM)
    guest.connect(address[5:] if is_path else ("127.0.0.1", int(address.rsplit(":")[-1])))
    guest.settimeout(60)
    return guest


def ask(address, text):
    guest = connect(address)
    guest.sendall(text.encode("latin-1"))
    try:
        answer = b"".join(iter(lambda: guest.recv(65536), b""))
    except ConnectionResetError:
        answer = b"reset"
    head, _, body = answer.partition(b"\r\n\r\n")
    return head.decode().split("\r\n"), body.decode()


def histogram(name, values):
    """Each with its buckets in order, cumulative, the last of all; a sum and a count."""
    groups = collections.defaultdict(dict)
    for (suffix, labels), value in values.items():
        bound = [float(text) for label, text in labels if label == "le"]
        groups[tuple(label for label in labels if label[0] != "le")][(suffix, *bound)] = value
    for labels, parts in groups.items():
        buckets = [(key[1], value) for key, value in parts.items() if key[0] == "_bucket"]
        assert buckets == sorted(buckets) and buckets[-1] == (float("inf"), parts["_count",]), (name, labels)
        assert [value for _, value in buckets] == sorted(value for _, value in buckets), (name, labels)
        assert parts["_sum",] >= 0 and len(parts) == len(buckets) + 2, (name, labels)


def families(page):
    """The lines of each family, once they are found in order."""
    assert page.endswith("\n")
    found, values, name, kind = {}, {}, None, None
    for line in [*page[:-1].split("\n"), "# HELP end the end"]:
        if help_text := re.fullmatch(rf"# HELP ({NAME}) \S.*", line):
            if kind == "histogram":
                histogram(name, values)
            name, kind, values = help_text[1], None, {}
            assert name not in found, f"twice: {name}"
            found[name] = []
        elif type_text := re.fullmatch(rf"# TYPE {name} (counter|gauge|histogram)", line):
            assert kind is None, line
            kind = type_text[1]
            assert (kind == "counter") == name.endswith("_total"), line
        else:
            sample = SAMPLE.fullmatch(line)
            assert sample and kind, line
            suffix, labels = sample[1].removeprefix(name), tuple(re.findall(LABEL, sample[2] or ""))
            assert suffix in (("_bucket", "_sum", "_count") if kind == "histogram" else ("",)), line
            assert (suffix, labels) not in values and len(dict(labels)) == len(labels), f"twice: {line}"
            values[suffix, labels] = float(sample["value"])
            found[name].append(line)
    del found["end"]
    return found


def scrape(address):
    head, page = ask(address, GET)
    assert head[0] == "HTTP/1.1 200 OK" and "Content-Type: text/plain; version=0.0.4; charset=utf-8" in head, head
    return families(page)


def names(served, page, *files):
    items = re.findall(r"^\.It Cm plx_.*", pathlib.Path(page).read_text(), re.M)
    told = re.findall("plx_[a-z_]+", "".join(items))
    yield from (f"{page} lacks {name}" for name in served if name not in told)
    yield from (f"{page} has {name}" for name in told if name not in served)
    for file in files:
        for name in sorted(set(re.findall(r"plx_\w+", pathlib.Path(file).read_text()))):
            if re.sub("_(bucket|sum|count)$", "", name) not in served:
                yield f"{file}: there is no {name}"


def main(address, *words):
    if words[:1] == ("--ask",):
        text = words[1].encode().decode("unicode_escape")
        for _ in range(int(*words[2:] or [1]) - 1):
            connect(address).sendall(text.encode("latin-1"))
        head, body = ask(address, text)
        print(head[0], body.split("\n")[0], sep="\n")
        return
    _crowd = [connect(address) for _ in range(int(words[1]))] if words[:1] == ("--crowd",) else []
    served = scrape(address)
    if words[:1] == ("--names",):
        print(*names({**served, **scrape(words[1])}, *words[2:]), sep="\n")
    if words[:1] == ("--page",):
        print(ask(address, GET)[1], end="")
    for lines in served.values():
        print(*(line + "\n" for line in lines if words[:1] != ("--crowd",) and line.startswith(words)), sep="", end="")


main(*sys.argv[1:])
