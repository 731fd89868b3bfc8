#!/usr/bin/env python3
"""drill.py BIN [ENTRIES [NAME]]: does every entry have the outcome that the nodes gave it, whatever happens to who reads?

Real processes around a Redis server: three service nodes, of which one refuses every entry of the second ACL, a monitor
that reads along, and one `plx apply` of two ACLs with half of the entries (20000) each. In each drill something is
stopped, killed or made slow while the entries are written; then every entry must have one outcome, programmed in the
first ACL and failed in the second. BIN is the folder of plx; NAME selects the drills that have it in theirs. Waits are
bounded; fails when a drill does.
"""
import collections
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

PLX = os.path.join(os.path.abspath(sys.argv[1]), "plx")
ENTRIES = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
NAME = sys.argv[3] if len(sys.argv) > 3 else ""
LONGEST = 300
ROW = re.compile(r"acl (\d+) sn (\d+) +(\w+(?: out)?)")


def policy(path):
    with open(path, "w", encoding="utf-8") as out:
        out.write("application: drill\nacls:\n")
        for acl in (1, 2):
            out.write(f"- id: {acl}\n  class: 1\n  entries:\n")
            for i in range(ENTRIES // 2):
                out.write(f"  - {{sn: {i + 1}, match: {{etype: ipv4, ipv4_src: "
                          f"{10 + (i >> 16)}.{i >> 8 & 255}.{i & 255}.0/24}}, action: {{fwd: deny}}}}\n")
        out.write("applies:\n- {acl: 1, port: 1, direction: in}\n- {acl: 2, port: 2, direction: in}\n")


class Drill:
    def __init__(self, options):
        self.directory = tempfile.mkdtemp(prefix="plx-drill-")
        self.store = f"unix:{self.directory}/s{options}"
        self.processes = []
        self.start(["redis-server", "--port", "0", "--unixsocket", self.directory + "/s", "--dir", self.directory,
                    "--save", ""], "server", "eady to accept")
        self.nodes = [self.node(slot) for slot in (1, 2, 3)]
        self.reader = self.start([PLX, "monitor", "--store", self.store, "ace", "apply"], "reader", "watching")
        policy(self.directory + "/policy")

    def start(self, command, name, ready):
        log = os.path.join(self.directory, name)
        with open(log, "w", encoding="utf-8") as out:
            process = subprocess.Popen(command, stdout=subprocess.DEVNULL if name == "reader" else out, stderr=out)
        self.processes.append(process)
        until = time.monotonic() + 30
        while ready not in open(log, encoding="utf-8").read():
            if process.poll() is not None or time.monotonic() > until:
                raise RuntimeError(f"{name} is not ready")
            time.sleep(0.02)
        return process

    def node(self, slot):
        refusing = ["--simulate", "refuse=drill/2"] if slot == 1 else []
        command = [PLX, "node", "--store", self.store, "--slot", str(slot), "--table-size", str(ENTRIES), *refusing]
        return self.start(command, f"node{slot}", "ready")

    def written(self):
        shown = subprocess.run(["redis-cli", "-s", self.directory + "/s", "ZCARD", "plx{8:ace}/index"],
                               capture_output=True, text=True, check=True)
        return int(shown.stdout)

    def run(self, happens):
        """What is wrong, or ''. `happens` when a third of the entries is written."""
        with open(self.directory + "/outcomes", "w", encoding="utf-8") as out:
            apply = subprocess.Popen([PLX, "apply", "--store", self.store, "--nodes", "3", self.directory + "/policy"],
                                     stdout=out, stderr=subprocess.DEVNULL)
        self.processes.append(apply)
        until = time.monotonic() + LONGEST
        while self.written() < ENTRIES // 3 and apply.poll() is None and time.monotonic() < until:
            time.sleep(0.01)
        happens(self, apply)
        try:
            code = apply.wait(LONGEST)
        except subprocess.TimeoutExpired:
            return "plx apply does not end"
        return self.judge(code)

    def judge(self, code):
        outcomes = collections.Counter()
        with open(self.directory + "/outcomes", encoding="utf-8") as lines:
            rows = [found.groups() for found in map(ROW.match, lines) if found]
        for acl, _, outcome in rows:
            outcomes[acl, outcome] += 1
        once = len({row[:2] for row in rows}) == len(rows) == 2 * (ENTRIES // 2)
        right = outcomes == {("1", "programmed"): ENTRIES // 2, ("2", "failed"): ENTRIES // 2}
        return "" if once and right and code == 3 else f"{len(rows)} rows, {dict(outcomes)}, exit {code}"

    def end(self):
        for process in reversed(self.processes):
            if process.poll() is None:
                process.send_signal(signal.SIGCONT)
                process.kill()
            process.wait()
        shutil.rmtree(self.directory)


def paused(process, seconds):
    process.send_signal(signal.SIGSTOP)
    time.sleep(seconds)
    process.send_signal(signal.SIGCONT)


def restarted(drill):
    drill.nodes[1].kill()
    drill.nodes[1].wait()
    drill.nodes[1] = drill.node(2)


def slowed(process):
    """Runs a tenth of its time until it ends, or for so long."""
    for _ in range(60):
        if process.poll() is not None:
            return
        paused(process, 0.09)
        time.sleep(0.01)


SMALL_LOG = "?log=1000&log-memory=0"
DRILLS = [
    ("nothing happens", "", lambda drill, apply: None),
    ("a reader is stopped and never goes on", "", lambda drill, apply: drill.reader.send_signal(signal.SIGSTOP)),
    ("a reader is killed", "", lambda drill, apply: drill.reader.kill()),
    ("the application stands still for 4 s", "", lambda drill, apply: paused(apply, 4)),
    ("the application is slow", "", lambda drill, apply: slowed(apply)),
    ("a node stands still for 4 s", "", lambda drill, apply: paused(drill.nodes[1], 4)),
    ("a node is slow", "", lambda drill, apply: slowed(drill.nodes[1])),
    ("a node is killed and comes back", "", lambda drill, apply: restarted(drill)),
    ("the application stands still, and answers are lost", SMALL_LOG, lambda drill, apply: paused(apply, 4)),
    ("a node stands still, and requests are lost", SMALL_LOG, lambda drill, apply: paused(drill.nodes[1], 4)),
]


def main():
    failed = 0
    for what, options, happens in DRILLS:
        if NAME not in what:
            continue
        begin = time.monotonic()
        drill = Drill(options)
        try:
            wrong = drill.run(happens)
        finally:
            drill.end()
        failed += wrong != ""
        print(f"{what}: {wrong or 'as it should be'} ({time.monotonic() - begin:.0f} s)", flush=True)
    return 1 if failed else 0


sys.exit(main())
