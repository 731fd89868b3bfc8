#!/usr/bin/env python3
"""bench_wire: policies on their way into the Linux kernel, beside nft(8) with the same rules in the same run.

    bench_wire [--entries N[,N...]]

Redis, a service node and the tool as processes; two network namespaces with a wire between them. 10,000 and 100,000
entries when not told otherwise. Needs root and nf_tables; says so and ends without a verdict otherwise. Fails when a
goal is missed by more than its margin.
"""
import json
import os
import re
import subprocess
import sys
import time

from stage import PLX, Goals, Stage, memory, option


def entries_of(count, other=None):
    for i in range(count):
        address = f"10.{i >> 16}.{i >> 8 & 255}.{i & 255}"
        yield i + 1, "192.0.2.1" if i == other else address


def write_policy(path, count, other=None):
    with open(path, "w") as out:
        out.write("application: wire\nacls:\n- id: 1\n  class: 1\n  entries:\n")
        for sn, address in entries_of(count, other):
            out.write(f"  - {{sn: {sn}, match: {{ipv4_src: {address}, ipv4_proto: tcp, dst_l4port: 80}}, "
                      "action: {fwd: deny}}\n")
        out.write("applies:\n- {acl: 1, port: 1, direction: in}\n")


def write_rules(path, count):
    with open(path, "w") as out:
        out.write('table netdev beside {\n chain entries {\n  type filter hook ingress device "wire0" priority 9;\n')
        for sn, address in entries_of(count):
            out.write(f'  ip saddr {address} tcp dport 80 counter drop comment "wire/1/{sn}"\n')
        out.write(" }\n}\n")


def run(arguments, output=subprocess.DEVNULL):
    """Seconds, and memory at most, in bytes."""
    begin = time.monotonic()
    child = subprocess.Popen(arguments, stdout=output)
    _, status, usage = os.wait4(child.pid, 0)
    if status != 0:
        sys.exit(f"bench_wire: {' '.join(arguments)} ended with {os.waitstatus_to_exitcode(status)}")
    return time.monotonic() - begin, usage.ru_maxrss * 1024


class Wire(Stage):
    """This namespace and another, a wire between them, a server, and a node that programs this end."""

    def __init__(self):
        super().__init__()
        far = self.start(["unshare", "--net", "sleep", "infinity"], "far")
        self.at_far = ["nsenter", "--net", "--target", str(far.pid)]
        own = os.readlink("/proc/self/ns/net")
        while os.readlink(f"/proc/{far.pid}/ns/net") == own:
            time.sleep(0.01)
        for command in ("ip link add wire0 type veth peer name wire1", f"ip link set wire1 netns {far.pid}",
                        "ip addr add 192.168.77.1/24 dev wire0", "ip link set wire0 up"):
            subprocess.run(command.split(), check=True)
        for command in ("ip addr add 192.168.77.2/24 dev wire1", "ip link set wire1 up"):
            subprocess.run(self.at_far + command.split(), check=True)
        self.address = self.local_store()
        self.node = self.start([PLX, "node", "--store", self.address, "--plane", "nftables", "--port", "1=wire0"], "node",
                               "ready")

    def apply(self, policy, *options):
        with open(self.path("outcomes"), "w", encoding="utf-8") as out:
            return run([PLX, "apply", "--store", self.address, "--json", *options, policy], out)[0]

    def outcome_us(self, entry):
        with open(self.path("outcomes"), encoding="utf-8") as lines:
            return next(line["took_us"] for line in map(json.loads, lines) if line.get("entry") == entry)

    def ping(self):
        ping = ["ping", "-i", "0.002", "-w", "600", "-q", "192.168.77.1"]
        return subprocess.Popen(self.at_far + ping, stdout=subprocess.PIPE, text=True)


def lost(ping):
    ping.send_signal(2)
    sent, came = re.search(r"(\d+) packets transmitted, (\d+) received", ping.communicate()[0]).groups()
    return int(sent), int(sent) - int(came)


def measure(goals, count):
    print(f"{count} entries", flush=True)
    with Wire() as wire:
        return rows(goals, wire, count)


def rows(goals, wire, count):
    rules, policy, changed = (wire.path(name) for name in ("rules", "policy.yaml", "changed.yaml"))
    write_rules(rules, count)
    write_policy(policy, count)
    write_policy(changed, count, other=count // 2)
    beside, nft_memory = run(["nft", "-f", rules])
    subprocess.run(["nft", "delete", "table", "netdev", "beside"], check=True)
    before = memory(wire.node)
    seconds = wire.apply(policy)
    node_memory = memory(wire.node) - before
    goals.row("nft -f", beside, "s")
    goals.row("plx apply, from its start to its end", seconds, "s")
    goals.row("plx apply beside nft -f", seconds / beside, "times", 1.5 if count >= 10_000 else None)
    goals.row("memory of the node beside that of nft", node_memory / nft_memory, "times", 0.2)
    wire.apply(changed, "--changes-only")
    goals.row("the first change of one entry, answered after", wire.outcome_us(f"acl 1 sn {count // 2 + 1}") / 1e3, "ms")
    wire.apply(policy, "--changes-only")
    goals.row("another", wire.outcome_us(f"acl 1 sn {count // 2 + 1}") / 1e3, "ms", 20)
    ping = wire.ping()
    wire.apply(changed)
    wire.apply(policy)
    sent, missing = lost(ping)
    goals.row(f"lost of {sent} pings while all is written twice", missing, "", 0)
    return seconds / count


def main():
    goals = Goals()
    sizes = [int(size) for size in option("--entries", "10000,100000").split(",")]
    written = [measure(goals, size) for size in sizes]
    if len(written) > 1:
        goals.row("an entry of the largest to one of the smallest", written[-1] / written[0], "times", 1.2)
    return 1 if goals.missed else 0


if os.environ.get("PLX_BENCH_INSIDE") is None:
    if subprocess.run(["unshare", "--net", "nft", "add", "table", "netdev", "probe"], stderr=subprocess.DEVNULL).returncode:
        print("bench_wire: needs root and nf_tables; skipped")
        sys.exit(0)
    os.environ["PLX_BENCH_INSIDE"] = "1"
    os.execvp("unshare", ["unshare", "--net", sys.executable, *sys.argv])
sys.exit(main())
