"""Runs of programs, and what they took."""

import os
import signal
import statistics
import subprocess
import sys
import tempfile
import time

KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30


class Run:
    """What one process took: seconds of wall time, KiB of memory at its peak; and what it printed."""

    def __init__(self, wall, peak, output):
        self.wall = wall
        self.peak = peak
        self.output = output


def run(*command):
    os.sync()  # what earlier runs left to be written is not to be waited for in this one
    with tempfile.TemporaryFile("w+", errors="replace") as output, tempfile.NamedTemporaryFile("r") as peak:
        # A process that this one starts itself would count this one's memory as its own.
        whole = ["/usr/bin/time", "-q", "-f", "%M", "-o", peak.name, *(str(word) for word in command)]
        start = time.perf_counter()
        process = subprocess.Popen(whole, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                   start_new_session=True)
        try:
            status = process.wait()
        except BaseException:
            os.killpg(process.pid, signal.SIGKILL)
            raise
        wall = time.perf_counter() - start
        output.seek(0)
        text = output.read()
        if status != 0:
            sys.exit(f"{command[0]} failed with status {status}:\n{text[-2000:]}")
        return Run(wall, int(peak.read()), text)


def alternate(rounds, **contenders):
    """Runs every contender once a round, each time another one first; gives the lists of their runs."""
    runs = {name: [] for name in contenders}
    names = list(contenders)
    for number in range(rounds):
        turn = number % len(names)
        for name in names[turn:] + names[:turn]:
            runs[name].append(contenders[name]())
    return runs


def ratios(ours, theirs, measure=lambda run: run.wall):
    return [measure(a) / measure(b) for a, b in zip(ours, theirs)]


def spread(values, form="{:.2f}"):
    show = form.format
    text = show(statistics.median(values))
    return text if len(values) == 1 else f"{text} ({show(min(values))}–{show(max(values))})"


def seconds(runs):
    return spread([r.wall for r in runs], "{:.2f}") + " s"


def named(runs):
    return ", ".join(f"{name.replace('_', ' ')} {seconds(taken)}" for name, taken in runs.items())


def milliseconds(runs, items):
    return spread([r.wall / items * 1000 for r in runs], "{:.2f}") + " ms"
