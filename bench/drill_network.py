#!/usr/bin/env -S python3 -B
"""drill_network.py BIN [cut|slow|names|big|split]...: what a network and a server can do to a policy store, done to this one.

For root, on request: network namespaces with a wire between them, real processes, a minute or two for each drill. Each tells what came
of it in a line; docs/reliability.md has the figures. Nothing is left behind. BIN is the folder of plx.

    cut     the wire is out for 25 s while a policy is written: how long after it is back has the node programmed it?
    slow    a node starts over 2,869 entries at the far end of a line of 1 Mbit/s: when is it there?
    names   the store's host has a name that nobody answers for: how long does a node that waits stand still?
    big     somebody appends a change of 300 MB to a table's log: how long until a node programs again?
    split   a master is cut off for 20 s with its writer, and sentinels make another one: how many acknowledged writes are lost?
"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from stage import Stage

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
NEAR, FAR = f"plx-drill-{os.getpid()}-near", f"plx-drill-{os.getpid()}-far"
ADDRESS = {NEAR: "10.91.0.1", FAR: "10.91.0.2"}
STORE = f"redis://{ADDRESS[NEAR]}:6379"
SHIPPED = ["--client-output-buffer-limit", "normal 256mb 64mb 60"]
WORKS = 120  # seconds that anything may take


def run(*words, check=True):
    return subprocess.run(words, check=check, capture_output=True, text=True).stdout


def until(what, holds):
    end = time.monotonic() + WORKS
    while not holds():
        if time.monotonic() > end:
            raise RuntimeError(f"not within {WORKS} s: {what}")
        time.sleep(0.1)


class Place(Stage):
    """The two namespaces, and all that runs in them."""

    def __init__(self, folder):
        super().__init__()
        self.plx = os.path.join(folder, "plx")
        for name in (NEAR, FAR):
            run("ip", "netns", "add", name)
        run("ip", "-n", NEAR, "link", "add", "eth0", "type", "veth", "peer", "name", "eth0", "netns", FAR)
        for name, address in ADDRESS.items():
            run("ip", "-n", name, "addr", "add", address + "/24", "dev", "eth0")
            for link in ("lo", "eth0"):
                run("ip", "-n", name, "link", "set", link, "up")

    def __exit__(self, *what):
        super().__exit__(*what)
        for name in (NEAR, FAR):
            run("ip", "netns", "del", name, check=False)

    def inside(self, where, *words, log="log", **environment):
        return self.start(["ip", "netns", "exec", where, *words], log, **environment)

    def store(self, where, *options):
        folder = tempfile.mkdtemp(dir=self.folder)
        self.inside(where, "redis-server", "--port", "6379", "--bind", "0.0.0.0", "--protected-mode", "no", "--save", "",
                    "--dir", folder, *SHIPPED, *options, log="store")
        until("the server answers", lambda: "PONG" in self.ask(where, "PING"))

    def ask(self, where, *words, port=6379):
        return run("ip", "netns", "exec", where, "redis-cli", "-p", str(port), *words, check=False)

    def wire(self, state):
        run("ip", "-n", NEAR, "link", "set", "eth0", state)

    def apply(self, name, entries, *options):
        return self.inside(NEAR, self.plx, "apply", *options, self.policy(name, 1, entries), log=name + ".out",
                           PLX_STORE="redis://127.0.0.1:6379")

    def node(self, slot=1, store=STORE):
        return self.inside(FAR, self.plx, "node", "--slot", str(slot), log=f"node{slot}", PLX_STORE=store)


def cut(place):
    place.store(NEAR)
    place.node()
    place.says("node1", "ready")
    place.apply("before", 100, "--nodes", "1").wait(WORKS)
    place.wire("down")
    begin = time.monotonic()
    written = place.apply("during", 200)
    time.sleep(25 - (time.monotonic() - begin))
    place.wire("up")
    healed = time.monotonic()
    until("the node has answered", lambda: place.ask(NEAR, "ZCARD", "plx{8:ace_psta}/index") == "200\n")
    took = time.monotonic() - healed
    return f"programmed {took:.1f} s after a cut of 25 s; plx apply ended with {written.wait(WORKS)}"


def slow(place):
    place.store(NEAR)
    place.apply("policy", 2869, "--timeout", "1").wait(WORKS)
    for name in (NEAR, FAR):
        run("tc", "-n", name, "qdisc", "add", "dev", "eth0", "root", "tbf", "rate", "1mbit", "burst", "16kb", "latency", "400ms")
    place.node()
    return f"ready {place.says('node1', 'ready'):.1f} s after its start"


def names(place):
    os.makedirs(f"/etc/netns/{FAR}", exist_ok=True)
    try:
        with open(f"/etc/netns/{FAR}/resolv.conf", "w", encoding="utf-8") as out:
            out.write("nameserver 10.91.0.99\n")
        longest = 0
        for attempt in range(8):
            node = place.node(attempt, "redis://store.drill")
            place.says(f"node{attempt}", "waiting")
            time.sleep(0.4 * attempt)
            begin = time.monotonic()
            node.send_signal(signal.SIGTERM)
            node.wait(WORKS)
            longest = max(longest, time.monotonic() - begin)
    finally:
        shutil.rmtree(f"/etc/netns/{FAR}")
    return f"ended {longest:.2f} s after it was asked to, at most, of 8 times"


def big(place):
    place.store(NEAR)
    place.node()
    place.says("node1", "ready")
    place.apply("before", 10, "--nodes", "1").wait(WORKS)
    words = [b"XADD", b"plx{8:ace}/log", b"0-*", b"k", b"drill,a1,a1", b"w", b"1", b"r", b"x" * 300_000_000]
    code = ("import socket,sys\ns = socket.create_connection(('127.0.0.1', 6379))\n"
            "s.sendall(sys.stdin.buffer.read())\nprint(s.recv(100))\n")
    text = b"*%d\r\n" % len(words) + b"".join(b"$%d\r\n%s\r\n" % (len(word), word) for word in words)
    subprocess.run(["ip", "netns", "exec", NEAR, sys.executable, "-c", code], input=text, check=True, stdout=subprocess.DEVNULL)
    begin = time.monotonic()
    code = place.apply("behind", 20, "--nodes", "1").wait(WORKS)
    return f"plx apply ended with {code} {time.monotonic() - begin:.1f} s after a change of 300 MB"


WRITER = """
import sys, time, plx
with plx.Application("drill", sys.argv[1]) as application, open(sys.argv[2], "w") as out:
    application.set_acl(1)
    sn = 0
    while not stop():
        sn += 1
        try:
            pending = application.set_ace(1, sn)
        except plx.Error:
            time.sleep(0.01)
            continue
        time.sleep(0.002)
        if pending.outcome is not None and pending.outcome.ok:
            print(sn, file=out, flush=True)
"""


def split_with(place, what, options, master):
    for where in (NEAR, FAR):
        place.store(where, *master, *(["--replicaof", ADDRESS[NEAR], "6379"] if where == FAR else []))
    until("the replica is there", lambda: "master_link_status:up" in place.ask(FAR, "INFO", "replication"))
    for where, port in ((NEAR, 26379), (FAR, 26379), (FAR, 26380)):
        conf = place.path(f"{where}{port}.conf")
        with open(conf, "w", encoding="utf-8") as out:
            out.write(f"sentinel monitor policy {ADDRESS[NEAR]} 6379 2\nsentinel down-after-milliseconds policy 2000\n"
                      "sentinel failover-timeout policy 5000\n")
        place.inside(where, "redis-server", conf, "--sentinel", "--port", str(port), "--protected-mode", "no", log="sentinel")
    until("the sentinels know each other",
          lambda: "num-other-sentinels\n2" in place.ask(FAR, "SENTINEL", "MASTER", "policy", port=26380))
    acknowledged = place.path("acknowledged")
    stop = place.path("stop")
    writer = place.inside(NEAR, sys.executable, "-B", "-c", "import os\nstop = lambda: os.path.exists(%r)\n" % stop + WRITER,
                         f"sentinel://{ADDRESS[NEAR]}:26379/policy?{options}", acknowledged, log="writer",
                         PYTHONPATH=os.path.join(ROOT, "python"), LD_LIBRARY_PATH=os.path.join(os.path.dirname(place.plx), "../lib"))
    time.sleep(3)
    place.wire("down")
    time.sleep(20)
    place.wire("up")
    until("the old master is a replica", lambda: "role:slave" in place.ask(NEAR, "INFO", "replication"))
    time.sleep(3)
    open(stop, "w", encoding="utf-8").close()
    writer.wait(WORKS)
    with open(acknowledged, encoding="utf-8") as told:
        keys = [f"plx{{8:ace}}:drill,a1,{chr(96 + len(sn))}{sn}" for sn in told.read().split()]
    there = 0
    for at in range(0, len(keys), 500):
        there += int(place.ask(FAR, "EXISTS", *keys[at:at + 500]))
    return f"{what}: {len(keys) - there} of {len(keys)} acknowledged writes lost"


def split(folder):
    lines = []
    for what, options, master in (("nothing set", "", []), ("min-replicas-to-write 1", "", ["--min-replicas-to-write", "1"]),
                                  ("wait=1", "wait=1", [])):
        with Place(folder) as place:
            lines.append(split_with(place, what, options, master))
    return "\n       ".join(lines)


def main():
    if os.getuid() != 0 or len(sys.argv) < 2:
        sys.exit(__doc__)
    folder = os.path.abspath(sys.argv[1])
    drills = {"cut": cut, "slow": slow, "names": names, "big": big}
    for name in sys.argv[2:] or [*drills, "split"]:
        if name == "split":
            print("split:", split(folder), flush=True)
            continue
        with Place(folder) as place:
            print(f"{name}:", drills[name](place), flush=True)


main()
