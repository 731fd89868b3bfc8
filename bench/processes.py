"""What benchmarks of whole processes share: where the program is, what runs beside, and goals."""
import os
import subprocess
import sys
import time

BIN = os.path.dirname(os.path.abspath(__file__))
PLX = os.path.join(BIN, "plx")
TICK = os.sysconf("SC_CLK_TCK")
MARGIN = 1.10


def option(name, default):
    return sys.argv[sys.argv.index(name) + 1] if name in sys.argv else default


class Process:
    """A program that runs beside, with its CPU time and its memory."""

    def __init__(self, arguments, log):
        self.log = log
        self.process = subprocess.Popen(arguments, stdout=subprocess.DEVNULL, stderr=open(log, "w"))

    def cpu(self):
        with open(f"/proc/{self.process.pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / TICK

    def memory(self):
        with open(f"/proc/{self.process.pid}/status") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS")) * 1024

    def wait_for(self, text):
        while text not in open(self.log).read():
            if self.process.poll() is not None:
                sys.exit(f"bench: {open(self.log).read()}")
            time.sleep(0.02)

    def end(self):
        self.process.terminate()
        self.process.wait()


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
