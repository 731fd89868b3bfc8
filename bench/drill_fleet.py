#!/usr/bin/env -S python3 -B
"""drill_fleet.py BIN [KIND|KIND/SETTING]...: what the loss of a store's master costs a fleet, as it is installed.

For root, on request: hosts are network namespaces on two switches. On the left one stand the master, a sentinel, and an application that
writes; on the right one two replicas with a sentinel each, three service nodes and a second application. Servers have the configuration and
the users that are shipped. Both applications write 200 entries a second, each entry until the store has it; then something happens:

    killed    the master's process is killed, and started again later
    frozen    the master's process stands still (SIGSTOP), and goes on later
    vanished  the master's host, with its sentinel, hears and says nothing any more: no reset, no word that it is unreachable
    split     the wire between the switches is out for 20 s: the first application is left with the master
    moved     the master's host has another address from one moment to the next
    upgrade   one after the other: replicas stop and start again, one of them is made the master, the old master stops and starts
              again, and is made the master once more

SETTING is default, min-replicas (the servers' min-replicas-to-write 1) or wait (the addresses' wait=1). For each of the two applications a
line tells: for how long it had no write acknowledged; how long after the sentinels had made another master (in a split, for the first
application: after its own master has become a replica) its next write was acknowledged, and its next entry programmed by all three nodes; for
how long until then its loop stood still in calls; and how many of the writes that were acknowledged the new master does not
have. Then the fleet is whole again, applications that heard of a loss have written their policy anew, and `plx verify` compares file, store,
caches and nodes. Fails when that finds a difference, or a goal is missed. Nothing is left behind. BIN is the folder of plx.
"""
import os
import re
import shutil
import signal
import subprocess
import sys
import time

from stage import Stage

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
CONFIGURATION = os.path.join(ROOT, "packaging/redis")
LEFT, RIGHT = ["s1", "a1"], ["s2", "s3", "a2"]
SERVERS = ["s1", "s2", "s3"]
ADDRESS = {"s1": "10.92.0.1", "s2": "10.92.0.2", "s3": "10.92.0.3", "a1": "10.92.0.11", "a2": "10.92.0.12"}
MOVED = "10.92.0.9"
MACS = {host: f"02:00:00:00:00:{i:02x}" for i, host in enumerate(ADDRESS, 1)}
SETTINGS = ["default", "min-replicas", "wait"]
WORKS = 60  # seconds that anything may take
GOAL = 10  # seconds, over the sentinels' own time
APPLICATION = """
import ctypes, os, sys, time, plx
name, store, folder = sys.argv[1:]
out = open(os.path.join(folder, name), "w", buffering=1)
lost = False
def on_history(_):
    global lost
    lost = True
    print("h 0", time.time(), file=out)
told = ctypes.CFUNCTYPE(None, ctypes.c_void_p)(on_history)
def timed(call, meant):
    begin = time.time()
    result = call()
    stood = time.time() - begin - meant
    if stood > 0.02:
        print("s", stood, time.time(), file=out)
    return result
with plx.Application(name, store) as app:
    plx._c.library()._plx.plx_set_history_cb(told)
    plx._c.library()._plx.plx_register_debug_commands(app._context)
    app.wait_for_nodes(3, 30)
    app.set_acl(1)
    app.set_apply(1, 1)
    open_ = {}
    def put(sn):
        pending = timed(lambda: app.set_ace(1, sn, match={"etype": 2048}, action={"fwd": 0}), 0)
        if pending.outcome is not None and not pending.outcome.ok:
            return False
        open_[sn] = pending
        print("a", sn, time.time(), file=out)
        return True
    def turn(seconds):
        timed(lambda: app._run(lambda: False, seconds), seconds)
        for outcome in app._fresh:
            if outcome.kind == "ace" and outcome.ok and open_.pop(outcome.sn, None):
                print("o", outcome.sn, time.time(), file=out)
        app._fresh.clear()
    def until(done):
        while not done():
            turn(0.005)
    sn = 1
    while not os.path.exists(os.path.join(folder, "stop")):
        sn += put(sn)
        turn(0.005)
    until(lambda: os.path.exists(os.path.join(folder, "repair")))
    if lost:
        app.set_acl(1)
        app.set_apply(1, 1)
        for each in range(1, sn):
            until(lambda: put(each))
    until(lambda: not open_)
    print("e", sn - 1, time.time(), file=out)
    until(lambda: os.path.exists(os.path.join(folder, "end")))
"""


def run(*words, check=True):
    return subprocess.run(words, check=check, capture_output=True, text=True).stdout


def until(what, holds, pause=0.1):
    end = time.time() + WORKS
    while not holds():
        if time.time() > end:
            raise RuntimeError(f"not within {WORKS} s: {what}")
        time.sleep(pause)
    return time.time()


class Fleet(Stage):
    """The hosts, and all that runs on them."""

    def __init__(self, folder, setting):
        super().__init__()
        self.plx = os.path.join(folder, "plx")
        self.library = os.path.join(os.path.dirname(os.path.abspath(folder)), "lib")
        self.setting = setting
        self.servers, self.hosts = {}, []
        self.back = None  # when the old master was one no more, where that matters
        try:
            self.wire_up()
            self.configure()
        except BaseException:
            self.__exit__()
            raise

    def __exit__(self, *what):
        super().__exit__(*what)
        for host in self.hosts:
            run("ip", "netns", "del", self.host(host), check=False)
            shutil.rmtree(f"/etc/netns/{self.host(host)}", ignore_errors=True)

    def host(self, name):
        return f"plx-fleet-{os.getpid()}-{name}"

    # ---- the network

    def wire_up(self):
        for host in ("left", "right", *ADDRESS):
            run("ip", "netns", "add", self.host(host))
            self.hosts.append(host)
            self.link(host, "set", "lo", "up")
        for switch in ("left", "right"):
            self.link(switch, "add", "br0", "type", "bridge")
            self.link(switch, "set", "br0", "up")
        self.wire("left", "trunk", "right", "trunk")
        for switch, hosts in (("left", LEFT), ("right", RIGHT)):
            for host in hosts:
                self.wire(switch, host, host, "eth0")
                self.link(host, "set", "eth0", "address", MACS[host])
                run("ip", "-n", self.host(host), "addr", "add", ADDRESS[host] + "/24", "dev", "eth0")
        for host in ADDRESS:
            self.know_neighbours(host)

    def link(self, host, *words):
        run("ip", "-n", self.host(host), "link", *words)

    def wire(self, one, name, other, its_name):
        self.link(one, "add", name, "type", "veth", "peer", "name", its_name, "netns", self.host(other))
        for host, port in ((one, name), (other, its_name)):
            if host in ("left", "right"):
                self.link(host, "set", port, "master", "br0")
            self.link(host, "set", port, "up")

    def know_neighbours(self, host):
        """For good: as behind a router, a host that is gone is not told to be."""
        for other, address in [*ADDRESS.items(), ("s1", MOVED)]:
            if other != host:
                run("ip", "-n", self.host(host), "neigh", "replace", address, "lladdr", MACS[other], "dev", "eth0", "nud", "permanent")

    def inside(self, host, *words, log="log", **environment):
        return self.start(["ip", "netns", "exec", self.host(host), *words], log, **environment)

    # ---- servers

    def configure(self):
        shutil.copy(os.path.join(CONFIGURATION, "plx-store.acl"), self.path("users"))
        with open(os.path.join(CONFIGURATION, "plx-store.conf"), encoding="utf-8") as shipped, open(self.path("conf"), "w", encoding="utf-8") as out:
            out.writelines(line for line in shipped if line.split()[:1] not in (["dir"], ["unixsocket"], ["aclfile"]))
        for role in ("application", "node"):
            with open(self.path(role), "w", encoding="utf-8") as out:
                out.write(f"change-me-{role}\n")

    def start_server(self, host):
        os.makedirs(self.path(host), exist_ok=True)
        words = ["--port", "6379", "--bind", "0.0.0.0", "--unixsocket", self.path(host + ".sock"), "--dir", self.path(host), "--aclfile",
                 self.path("users"), "--masteruser", "plx-replica", "--masterauth", "change-me-replica", "--repl-diskless-sync-delay", "0"]
        if self.setting == "min-replicas":
            words += ["--min-replicas-to-write", "1"]
        if host != "s1" and host not in self.servers:
            words += ["--replicaof", ADDRESS["s1"], "6379"]
        self.servers[host] = self.inside(host, "redis-server", self.path("conf"), *words, log=host + ".log")
        until(f"{host} answers", lambda: "PONG" in self.ask(host, "PING"))

    def start_sentinel(self, host):
        with open(self.path(host + ".conf"), "w", encoding="utf-8") as out:
            out.write(f"sentinel monitor policy {ADDRESS['s1']} 6379 2\nsentinel auth-user policy plx-sentinel\n"
                      "sentinel auth-pass policy change-me-sentinel\nsentinel down-after-milliseconds policy 2000\n"
                      "sentinel failover-timeout policy 5000\n")
        self.inside(host, "redis-server", self.path(host + ".conf"), "--sentinel", "--port", "26379", "--protected-mode", "no", "--unixsocket",
                    self.path(f"{host}.sentinel"), log=host + ".sentinel.log")

    def ask(self, host, *words):
        return run("timeout", "2", "redis-cli", "-s", self.path(host + ".sock"), "--user", "plx-operator", "--pass", "change-me-operator",
                   "--no-auth-warning", *words, check=False)

    def ask_sentinel(self, host, *words):
        return run("redis-cli", "-s", self.path(host + ".sentinel"), *words, check=False)

    def master(self):
        """Where the right side's sentinels say that it is."""
        address = (self.ask_sentinel("s2", "SENTINEL", "get-master-addr-by-name", "policy").split() or [""])[0]
        return next((host for host, its in ADDRESS.items() if its == address), "")

    def is_replica(self, host):
        return "master_link_status:up" in self.ask(host, "INFO", "replication")

    def start_store(self):
        for host in SERVERS:
            self.start_server(host)
        for host in SERVERS[1:]:
            until(f"{host} is a replica", lambda host=host: self.is_replica(host))
        for host in SERVERS:
            self.start_sentinel(host)
        for host in SERVERS:
            until("the sentinels know all", lambda host=host: all(
                f"{what}\n2" in self.ask_sentinel(host, "SENTINEL", "MASTER", "policy") for what in ("num-slaves", "num-other-sentinels")))

    # ---- who uses them

    def store(self, role):
        options = f"?user=plx-{role}&password-file={self.path(role)}" + ("&wait=1" if self.setting == "wait" else "")
        return "sentinel://" + ",".join(ADDRESS[host] for host in SERVERS) + "/policy" + options

    def start_users(self):
        for slot in (1, 2, 3):
            self.inside("a2", self.plx, "node", "--slot", str(slot), "--table-size", "200000", log=f"node{slot}", PLX_STORE=self.store("node"))
        for slot in (1, 2, 3):
            self.says(f"node{slot}", "ready", 30)
        self.applications = [Application(self, name, host) for name, host in ((f"drill{os.getpid()}-1", "a1"), (f"drill{os.getpid()}-2", "a2"))]
        for each in self.applications:
            until(f"{each.name} writes", lambda each=each: len(each.read()["o"]) > 100)

    def signal(self, name):
        open(self.path(name), "w", encoding="utf-8").close()

    def verify(self, application, entries):
        policy = self.path(application + ".yaml")
        with open(policy, "w", encoding="utf-8") as out:
            out.write(f"application: {application}\nacls:\n- id: 1\n  class: 0\n  entries:\n")
            out.writelines(f"  - {{sn: {sn}, match: {{etype: ipv4}}, action: {{fwd: deny}}}}\n" for sn in range(1, entries + 1))
            out.write("applies:\n- {acl: 1, port: 1, direction: in}\n")
        shown = subprocess.run(["ip", "netns", "exec", self.host("a2"), self.plx, "verify", policy], capture_output=True, text=True, check=False,
                               env=os.environ | {"PLX_STORE": self.store("application"), "XDG_RUNTIME_DIR": self.folder})
        print("      " + (shown.stdout + shown.stderr).strip().replace("\n", "\n      "))
        return shown.returncode


class Application:
    """One that writes; what it has told so far."""

    def __init__(self, fleet, name, host):
        self.name, self.file = name, fleet.path(name)
        self.process = fleet.inside(host, sys.executable, "-B", "-c", APPLICATION, name, fleet.store("application"), fleet.folder, log=name + ".log",
                                    PYTHONPATH=os.path.join(ROOT, "python"), LD_LIBRARY_PATH=fleet.library, XDG_RUNTIME_DIR=fleet.folder)

    def read(self):
        """Of each kind of line, value and time."""
        told = {kind: [] for kind in "aohse"}
        if os.path.exists(self.file):
            with open(self.file, encoding="utf-8") as lines:
                for kind, value, when in (line.split() for line in lines if line.endswith("\n")):
                    told[kind].append((float(value), float(when)))
        return told

    def next_after(self, moment):
        """When the first write after it was acknowledged, and programmed; None while it is not."""
        told = self.read()
        written = {sn: when for sn, when in told["a"] if when > moment}
        programmed = [when for sn, when in told["o"] if written.get(sn, when) < when]
        return (min(written.values()), min(programmed)) if programmed else None

    def silence(self, begin, end):
        moments = [when for _, when in self.read()["a"]]
        return max((b - a for a, b in zip(moments, moments[1:]) if b > begin and a < end), default=0)

    def stood(self, begin, end):
        return sum(stood for stood, when in self.read()["s"] if begin < when <= end)


# ---- what happens; each tells when the fleet was whole again from then on, for either application

def switched(fleet):
    return until("the sentinels made another master", lambda: fleet.master() not in ("", "s1"), 0.02)


def killed(fleet):
    fleet.servers["s1"].kill()
    yield switched(fleet)
    fleet.start_server("s1")


def frozen(fleet):
    fleet.servers["s1"].send_signal(signal.SIGSTOP)
    yield switched(fleet)
    fleet.servers["s1"].send_signal(signal.SIGCONT)


def vanished(fleet):
    fleet.link("left", "set", "s1", "down")
    yield switched(fleet)
    fleet.link("left", "set", "s1", "up")


def moved(fleet):
    for words in (("del", ADDRESS["s1"]), ("add", MOVED)):
        run("ip", "-n", fleet.host("s1"), "addr", words[0], words[1] + "/24", "dev", "eth0")
    fleet.know_neighbours("s1")
    yield switched(fleet)
    fleet.ask("s1", "REPLICAOF", ADDRESS[fleet.master()], "6379")


def split(fleet):
    fleet.link("left", "set", "trunk", "down")
    begin = time.time()
    whole = switched(fleet)
    time.sleep(max(0, begin + 20 - time.time()))
    fleet.link("left", "set", "trunk", "up")
    fleet.back = until("the old master is a replica", lambda: "role:slave" in fleet.ask("s1", "INFO", "replication"), 0.02)
    yield whole


def restarted(fleet, host):
    """In place, as for another release of the server. One that has just copied all does not end before it is on its disk."""
    until(f"{host} ends", lambda: fleet.ask(host, "SHUTDOWN") is not None and fleet.servers[host].poll() is not None)
    fleet.start_server(host)
    until(f"{host} is a replica", lambda: fleet.is_replica(host))


def all_is_copied(fleet, master):
    told = fleet.ask(master, "INFO", "replication")
    offsets = re.findall(r"offset[=:](\d+)", told)  # of each replica, and its own
    return told.count("state=online") == 2 and len(set(offsets[:3])) == 1


def handed_over(fleet, to):
    """The sentinels choose; who is not meant may not be chosen. Nothing is written from when the replicas have all."""
    before = fleet.master()
    for host in SERVERS:
        fleet.ask(host, "CONFIG", "SET", "replica-priority", "1" if host == to else "0")
    until("the sentinels know", lambda: "slave-priority\n1\n" in fleet.ask_sentinel("s2", "SENTINEL", "REPLICAS", "policy"))
    fleet.ask(before, "CLIENT", "PAUSE", "20000", "WRITE")
    until("the replicas have all", lambda: all_is_copied(fleet, before), 0.01)
    until("the sentinels begin", lambda: "OK" in fleet.ask_sentinel("s2", "SENTINEL", "FAILOVER", "policy"))
    whole = until(f"{to} is the master", lambda: fleet.master() == to, 0.02)
    until("the old master is a replica", lambda: fleet.is_replica(before))
    fleet.ask(before, "CLIENT", "UNPAUSE")
    return whole


def upgrade(fleet):
    for host in ("s2", "s3"):
        restarted(fleet, host)
    handed_over(fleet, "s2")
    restarted(fleet, "s1")
    yield handed_over(fleet, "s1")


KINDS = {each.__name__: each for each in (killed, frozen, vanished, split, moved, upgrade)}


def whole_again(fleet):
    for host in SERVERS:
        if host != fleet.master():
            until(f"{host} is a replica", lambda host=host: fleet.is_replica(host))
    time.sleep(1)
    fleet.signal("stop")
    time.sleep(1)


def tell(fleet, kind, begin):
    happening = KINDS[kind](fleet)
    whole = next(happening)
    since = [fleet.back or whole, whole]
    for each, moment in zip(fleet.applications, since):
        until(f"{each.name} goes on", lambda each=each, moment=moment: each.next_after(moment))
    next(happening, None)
    whole_again(fleet)
    missed = 0
    for each, moment in zip(fleet.applications, since):
        written, programmed = each.next_after(moment)
        lost = missing(fleet, each)
        missed += max(written, programmed) - moment > GOAL or (lost > 0 and fleet.setting == "wait")
        print(f"  {kind + '/' + fleet.setting:<22} {each.name}: {each.silence(begin, written + 1):5.1f} s without a write; sentinels "
              f"{moment - begin:4.1f} s, then a write {written - moment:4.1f} s, programmed {programmed - moment:4.1f} s; loop stood "
              f"{each.stood(begin, programmed):4.1f} s; lost {lost} of {len(each.read()['a'])}", flush=True)
    return missed


def missing(fleet, application):
    keys = [f"plx{{8:ace}}:{application.name},a1,{chr(96 + len(sn))}{sn}" for sn in (str(int(sn)) for sn, _ in application.read()["a"])]
    return len(keys) - sum(int(fleet.ask(fleet.master(), "EXISTS", *keys[at:at + 500])) for at in range(0, len(keys), 500))


def converges(fleet):
    """How many comparisons find a difference."""
    fleet.signal("repair")
    for each in fleet.applications:
        until(f"all outcomes of {each.name} are there", lambda each=each: each.read()["e"])
    return sum(fleet.verify(each.name, int(each.read()["e"][0][0])) != 0 for each in fleet.applications)


def drill(folder, kind, setting):
    with Fleet(folder, setting) as fleet:
        fleet.start_store()
        fleet.start_users()
        begin = time.time()
        failed = tell(fleet, kind, begin) + converges(fleet)
    return failed


def main():
    if os.getuid() != 0 or len(sys.argv) < 2:
        sys.exit(__doc__)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # leaves nothing behind then either
    wanted = sys.argv[2:] or list(KINDS)
    failed = 0
    for each in wanted:
        kind, _, setting = each.partition("/")
        for one in [setting] if setting else SETTINGS:
            failed += drill(os.path.abspath(sys.argv[1]), kind, one)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
