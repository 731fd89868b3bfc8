#!/usr/bin/env python3
"""bench_scale: a policy of many entries on its way: the tool, a Redis server, and service nodes.

    bench_scale [--entries N[,N...]] [--nodes N[,N...]] [--applications N] [--durable]

The server keeps nothing on disk but with --durable: then every write is there before it is acknowledged, as with the
configuration that is shipped. Times are CPU time of whole processes, memory is resident memory, both for each entry.
10,000 and 100,000 entries when not told otherwise; a million takes minutes. What writing takes is compared with what the
same server and a client without this library (raw_writer) take in the same run for as many hashes, members of an index and
entries of a log of the same bytes, in a pipeline. With several numbers of nodes it is compared, too, what each node beyond
those of the first number adds to the server's part. With --applications so many processes write at once, each an
application of its own. Fails when a goal is missed by more than its margin.
"""
import json
import os
import subprocess
import sys
import time
from typing import NamedTuple

from stage import BIN, PLX, Goals, Stage, cpu, memory, option


# All processes and every answer were to take 25 us on the machine on which hash, index and log alone took 6.7 us, and a node
# that comes late to a million entries 6 s.
OVER_RAW = 25 / 6.7
LATE_OVER_RAW = 6 / 6.7
# The server's part was to grow by 4 us with each node there.
NODE_OVER_RAW = 4 / 6.7
# Ms by the server's clock that 999 of 1000 steps may take while many entries go. The clock runs on where another process has
# the CPU, so that the longest one of all says more of the machine.
LONGEST_STEP = 10


def policy(path, entries, application="scale"):
    with open(path, "w") as out:
        out.write(f"application: {application}\nacls:\n- id: 1\n  class: 1\n  entries:\n")
        for i in range(entries):
            out.write(f"  - {{sn: {i + 1}, priority: {i % 1000}, match: {{etype: ipv4, ipv4_src: "
                      f"{10 + (i >> 16)}.{i >> 8 & 255}.{i & 255}.0/24, ipv4_proto: tcp, "
                      f"dst_l4port: {i % 60000 + 1}}}, action: {{fwd: deny}}}}\n")
        out.write("applies:\n- {acl: 1, port: 1-4, direction: in}\n")


class Place(Stage):
    """A server and nodes, and the tool on them."""

    def __init__(self, entries, nodes):
        super().__init__()
        self.entries = entries
        durable = ["--appendonly", "yes", "--appendfsync", "always"] if "--durable" in sys.argv else []
        self.address = self.local_store("--hash-max-listpack-value", "256", *durable)
        self.alone = memory(self.server)
        self.nodes = []
        for _ in range(nodes):
            self.add_node()
        self.file = self.path("policy.yaml")
        policy(self.file, entries)
        self.settle()
        self.before = [memory(each) for each in (self.server, self.nodes[0])]

    def add_node(self):
        number = str(len(self.nodes) + 1)
        self.nodes.append(self.start([PLX, "node", "--store", self.address, "--id", number, "--table-size", "100000000"],
                                     "node" + number, "ready"))
        return self.nodes[-1]

    def ask_server(self, *command):
        return subprocess.run(["redis-cli", "-s", self.path("s"), *command], capture_output=True, errors="replace",
                              check=True).stdout

    def connections(self):
        return int(self.ask_server("INFO", "clients").split("connected_clients:")[1].split()[0])

    def sweep(self):
        """Until ten entries are in the place of all: seconds by the clock, ms that 999 of 1000 of the server's scripts took
        at most, and the longest command with its ms, where any took one."""
        few = self.path("few.yaml")
        policy(few, 10)
        self.ask_server("CONFIG", "SET", "slowlog-log-slower-than", "1000", "slowlog-max-len", "100000")
        self.ask_server("SLOWLOG", "RESET")
        self.ask_server("CONFIG", "RESETSTAT")
        begin = time.monotonic()
        subprocess.run([PLX, "apply", "--store", self.address, "--nodes", str(len(self.nodes)), few],
                       stdout=subprocess.DEVNULL, check=True)
        took = time.monotonic() - begin
        times = self.ask_server("INFO", "latencystats").split("latency_percentiles_usec_evalsha:")[1]
        logged = json.loads(self.ask_server("--json", "SLOWLOG", "GET", "-1"))
        longest = max(logged, key=lambda entry: entry[2], default=[0, 0, 0, ["none"]])
        return took, float(times.split("p99.9=")[1].split()[0]) / 1000, longest[3][0].lower(), longest[2] / 1000

    def settle(self):
        """Until server and nodes have done what they do a while after a start."""
        quiet = 0
        while quiet < 5:
            before = [cpu(each) for each in [self.server] + self.nodes]
            time.sleep(1)
            busy = max(cpu(each) - then for each, then in zip([self.server] + self.nodes, before))
            quiet = quiet + 1 if busy < 0.1 else 0

    def apply(self, *arguments):
        """CPU time for each entry of application, server and nodes, in us; the application's memory; seconds."""
        beside = [self.server] + self.nodes
        before = [cpu(each) for each in beside]
        begin = time.monotonic()
        command = [PLX, "apply", "--store", self.address, "--nodes", str(len(self.nodes)), *arguments, self.file]
        with open(self.path("outcomes"), "w") as out:
            child = subprocess.Popen(command, stdout=out)
            _, status, usage = os.wait4(child.pid, 0)
        if os.waitstatus_to_exitcode(status) != 0:
            print(f"  plx apply ended with {os.waitstatus_to_exitcode(status)}")
        seconds = time.monotonic() - begin
        used = [usage.ru_utime + usage.ru_stime] + [cpu(each) - then for each, then in zip(beside, before)]
        each = [1e6 * time_used / self.entries for time_used in used]
        return [each[0], each[1], sum(each[2:])], usage.ru_maxrss * 1024, seconds

    def write_raw(self):
        """CPU time for each entry of a client that only writes what there is of one, and of the server, in us."""
        before = cpu(self.server)
        model = "plx{8:ace}:scale,a1,a5"
        child = subprocess.Popen([os.path.join(BIN, "raw_writer"), self.path("s"), model, str(self.entries)])
        _, status, usage = os.wait4(child.pid, 0)
        if status != 0:
            raise RuntimeError("raw_writer failed")
        return 1e6 * (usage.ru_utime + usage.ru_stime + cpu(self.server) - before) / self.entries

    def apply_at_once(self, applications):
        """The same CPU times for so many processes, each with the policy of an application of its own."""
        files = [self.path(f"policy{i}") for i in range(applications)]
        for i, file in enumerate(files):
            policy(file, self.entries, f"scale{i}")
        beside = [self.server] + self.nodes
        before = [cpu(each) for each in beside]
        command = [PLX, "apply", "--store", self.address, "--nodes", str(len(self.nodes))]
        children = [subprocess.Popen(command + [file], stdout=subprocess.DEVNULL) for file in files]
        used = 0
        for child in children:
            _, status, usage = os.wait4(child.pid, 0)
            used += usage.ru_utime + usage.ru_stime
            if status != 0:
                print(f"  plx apply ended with {os.waitstatus_to_exitcode(status)}")
        times = [used] + [cpu(each) - then for each, then in zip(beside, before)]
        each = [1e6 * time_used / self.entries / applications for time_used in times]
        return [each[0], each[1], sum(each[2:])]


class Written(NamedTuple):
    """Us for each entry: of all processes, of the server, of hash, index and log alone."""
    together: float
    server: float
    raw: float


def cpu_rows(goals, what, used, goal=None):
    for who, time_used in zip(("application", "server", "nodes"), used):
        goals.row(f"{what}: {who}", time_used, "us")
    goals.row(f"{what}: together", sum(used), "us", goal)


def idle(place, seconds):
    beside = [place.server] + place.nodes
    place.settle()
    before = [cpu(each) for each in beside]
    time.sleep(seconds)
    return max(100 * (cpu(each) - then) / seconds for each, then in zip(beside, before))


def measure(goals, entries, nodes):
    print(f"{entries} entries, {nodes} nodes", flush=True)
    with Place(entries, nodes) as place:
        return rows(goals, place, entries, nodes)


def rows(goals, place, entries, nodes):
    used, application, seconds = place.apply()
    cpu_rows(goals, "written anew", used)
    goals.row("written anew, by the clock", seconds, "s")
    written, server = sum(used), used[1]
    goals.row("memory of the server, an entry", (memory(place.server) - place.before[0]) / entries, "bytes")
    goals.row("memory of a node, an entry", (memory(place.nodes[0]) - place.before[1]) / entries, "bytes")
    goals.row("memory of the application, an entry, at most", application / entries, "bytes")
    used, _, _ = place.apply("--changes-only")
    cpu_rows(goals, "again, --changes-only", used, written / 4 if entries == 100_000 else None)
    begin = time.monotonic()
    subprocess.run([PLX, "show", "ace", "--store", place.address, "--app", "scale", "--acl", "1", "--sn", "5"],
                   stdout=subprocess.DEVNULL, check=True)
    goals.row("one entry shown", 1000 * (time.monotonic() - begin), "ms", 50)
    begin = time.monotonic()
    late = place.add_node()
    ready = time.monotonic() - begin
    goals.row("a late node is ready", ready, "s")
    goals.row("its CPU time", cpu(late), "s")
    goals.row("busiest of server and nodes, idle", idle(place, 20), "%", 2)
    raw = place.write_raw()
    goals.row("hash, index and log alone: together", raw, "us")
    goals.row("written anew to that", written / raw, "times", OVER_RAW if entries == 100_000 and nodes == 1 else None)
    goals.row("a late node's time for an entry to that", 1e6 * ready / entries / raw, "times",
              LATE_OVER_RAW if entries >= 1_000_000 else None)
    took, step, command, longest = place.sweep()
    goals.row("ten entries in their place, by the clock", took, "s")
    goals.row("meanwhile: 999 of 1000 steps of the server", step, "ms", LONGEST_STEP)
    goals.row(f"meanwhile: its longest command, {command}", longest, "ms")
    return Written(written, server, raw)


def fleet_rows(goals, place):
    """What each node costs, before anybody writes."""
    nodes = len(place.nodes)
    goals.row("connections of a node", (place.connections() - 1) / nodes, "")
    goals.row("memory of the server, a node", (memory(place.server) - place.alone) / nodes / 1024, "KiB")
    goals.row("memory of a node", memory(place.nodes[0]) / 1024, "KiB")
    used = [cpu(each) for each in (place.server, *place.nodes)]
    time.sleep(20)
    spent = [cpu(each) - then for each, then in zip((place.server, *place.nodes), used)]
    goals.row("idle: server, a node of it", 1e3 * spent[0] / 20 / nodes, "1/1000 of a CPU")
    goals.row("idle: a node itself", 1e3 * sum(spent[1:]) / 20 / nodes, "1/1000 of a CPU")


def grown_rows(goals, sizes, fleets, written):
    """What a node more costs the server: the raw limit is that of both runs, as the machine was in them."""
    for size in sizes:
        few, many = written[size, fleets[0]], written[size, fleets[-1]]
        grown = (many.server - few.server) / (fleets[-1] - fleets[0])
        goals.row(f"{size} entries: server's part, each node more", grown, "us")
        goals.row("that to hash, index and log alone", 2 * grown / (few.raw + many.raw), "times", NODE_OVER_RAW)


def main():
    goals = Goals()
    applications = int(option("--applications", "0"))
    if applications > 0:
        with Place(int(option("--entries", "1000")), int(option("--nodes", "1"))) as place:
            fleet_rows(goals, place)
            cpu_rows(goals, f"{applications} applications at once", place.apply_at_once(applications))
        return 0
    sizes = [int(size) for size in option("--entries", "10000,100000").split(",")]
    fleets = [int(nodes) for nodes in option("--nodes", "1").split(",")]
    written = {(size, nodes): measure(goals, size, nodes) for size in sizes for nodes in fleets}
    if len(sizes) > 1:
        ends = [written[size, fleets[0]].together for size in (sizes[0], sizes[-1])]
        goals.row("an entry of the largest to one of the smallest", ends[1] / ends[0], "times", 1.2)
    if len(fleets) > 1:
        grown_rows(goals, sizes, fleets, written)
    return 1 if goals.missed else 0


sys.exit(main())
