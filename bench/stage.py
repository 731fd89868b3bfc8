"""What drills, and benchmarks of whole processes, share: a folder of their own, the processes in it, what these say and take, policies of
as many entries as are asked for, and goals."""
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

BIN = os.path.dirname(os.path.abspath(__file__))  # of a benchmark, which is built beside the program
PLX = os.path.join(BIN, "plx")
TICK = os.sysconf("SC_CLK_TCK")
MARGIN = 1.10


def option(name, default):
    return sys.argv[sys.argv.index(name) + 1] if name in sys.argv else default


def cpu(process):
    """Seconds that it took so far."""
    with open(f"/proc/{process.pid}/stat", encoding="utf-8") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def memory(process):
    """Resident, in bytes."""
    with open(f"/proc/{process.pid}/status", encoding="utf-8") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS")) * 1024


class Stage:
    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="plx-stage-")
        self.processes = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in reversed(self.processes):
            if process.poll() is None:
                process.send_signal(signal.SIGCONT)
                process.kill()
            process.wait()
        shutil.rmtree(self.folder)

    def path(self, name):
        return os.path.join(self.folder, name)

    def start(self, command, log, ready=None, quiet=False, **environment):
        """A process whose output goes to that log, quiet: its errors alone; once it says that it is ready."""
        with open(self.path(log), "a", encoding="utf-8") as out:
            before = out.tell()
            process = subprocess.Popen(command, stdout=subprocess.DEVNULL if quiet else out, stderr=out,
                                       env=os.environ | environment)
        self.processes.append(process)
        if ready is not None:
            self.says(log, ready, 30, process, before)
        return process

    def says(self, log, text, seconds=300, process=None, behind=0):
        """How long it took until the log has the text. It must, and the process must live until then."""
        begin = time.monotonic()
        while text not in open(self.path(log), encoding="utf-8").read()[behind:]:
            if time.monotonic() > begin + seconds or (process is not None and process.poll() is not None):
                raise RuntimeError(f"{log} does not say '{text}'")
            time.sleep(0.02)
        return time.monotonic() - begin

    def local_store(self, *options):
        """A server on a socket of its own that keeps nothing on disk unless told; its address."""
        self.server = self.start(["redis-server", "--port", "0", "--unixsocket", self.path("s"), "--dir", self.folder,
                                  "--save", "", *options], "server", "eady to accept")
        return f"unix:{self.path('s')}"

    def policy(self, name, acls, entries):
        """A file of so many ACLs with so many entries each, every one applied to a port of its own."""
        with open(self.path(name), "w", encoding="utf-8") as out:
            out.write("application: drill\nacls:\n")
            for acl in range(1, acls + 1):
                out.write(f"- id: {acl}\n  class: 1\n  entries:\n")
                for i in range(entries):
                    out.write(f"  - {{sn: {i + 1}, match: {{etype: ipv4, ipv4_src: "
                              f"{10 + (i >> 16)}.{i >> 8 & 255}.{i & 255}.0/24}}, action: {{fwd: deny}}}}\n")
            out.write("applies:\n")
            out.writelines(f"- {{acl: {acl}, port: {acl}, direction: in}}\n" for acl in range(1, acls + 1))
        return self.path(name)


class Goals:
    missed = 0

    def row(self, what, figure, unit, goal=None):
        """A figure; with a goal, which it may miss by the margin."""
        verdict = ""
        if goal is not None:
            reached = figure <= goal
            verdict = f"  goal {goal:g}: " + ("reached" if reached else
                                             "within margin" if figure <= goal * MARGIN else "MISSED")
            Goals.missed += figure > goal * MARGIN
        print(f"  {what:<46}{figure:>10.2f} {unit}{verdict}", flush=True)
