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
import signal
import subprocess
import sys
import time

from stage import Stage

PLX = os.path.join(os.path.abspath(sys.argv[1]), "plx")
ENTRIES = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
NAME = sys.argv[3] if len(sys.argv) > 3 else ""
LONGEST = 300
ROW = re.compile(r"acl (\d+) sn (\d+) +(\w+(?: out)?)")


class Drill(Stage):
    def __init__(self, options):
        super().__init__()
        self.address = self.local_store() + options
        self.nodes = [self.node(slot) for slot in (1, 2, 3)]
        self.reader = self.start([PLX, "monitor", "--store", self.address, "ace", "apply"], "reader", "watching", quiet=True)
        self.policy("policy", 2, ENTRIES // 2)

    def node(self, slot):
        refusing = ["--simulate", "refuse=drill/2"] if slot == 1 else []
        command = [PLX, "node", "--store", self.address, "--slot", str(slot), "--table-size", str(ENTRIES), *refusing]
        return self.start(command, f"node{slot}", "ready")

    def written(self):
        shown = subprocess.run(["redis-cli", "-s", self.path("s"), "ZCARD", "plx{8:ace}/index"],
                               capture_output=True, text=True, check=True)
        return int(shown.stdout)

    def run(self, happens):
        """What is wrong, or ''. `happens` when a third of the entries is written."""
        with open(self.path("outcomes"), "w", encoding="utf-8") as out:
            apply = subprocess.Popen([PLX, "apply", "--store", self.address, "--nodes", "3", self.path("policy")],
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
        with open(self.path("outcomes"), encoding="utf-8") as lines:
            rows = [found.groups() for found in map(ROW.match, lines) if found]
        for acl, _, outcome in rows:
            outcomes[acl, outcome] += 1
        once = len({row[:2] for row in rows}) == len(rows) == 2 * (ENTRIES // 2)
        right = outcomes == {("1", "programmed"): ENTRIES // 2, ("2", "failed"): ENTRIES // 2}
        return "" if once and right and code == 3 else f"{len(rows)} rows, {dict(outcomes)}, exit {code}"


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
    ("the store stands still for 3 s", "", lambda drill, apply: paused(drill.server, 3)),
    ("the application stands still, and answers are lost", SMALL_LOG, lambda drill, apply: paused(apply, 4)),
    ("a node stands still, and requests are lost", SMALL_LOG, lambda drill, apply: paused(drill.nodes[1], 4)),
]


def main():
    failed = 0
    for what, options, happens in DRILLS:
        if NAME not in what:
            continue
        begin = time.monotonic()
        with Drill(options) as drill:
            wrong = drill.run(happens)
        failed += wrong != ""
        print(f"{what}: {wrong or 'as it should be'} ({time.monotonic() - begin:.0f} s)", flush=True)
    return 1 if failed else 0


sys.exit(main())
