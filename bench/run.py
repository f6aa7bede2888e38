"""Runs the benchmarks on loopback and prints one table of ratios; started by scripts/bench, which builds first.

A case starts a simulated service and runs its contenders in turn, round after round, each into a directory of
its own. A ratio is taken within a round, so that what slows the machine down for a while slows both sides; the
table gives the median over the rounds and, in brackets, the least and the greatest.
"""

import argparse
import contextlib
import json
import os
import pathlib
import platform
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

from distance import distance
from fuse import fuse
from gallery import gallery
from measure import GIB, KIB, MIB, alternate, milliseconds, named, ratios, run, spread
from slow_disk import slow_disk

ROOT = pathlib.Path(__file__).resolve().parent.parent
# What the simulated service accepts.
KEY, SECRET, TOKEN = "demo0key0for0the0simulated0flickr", "demo0secret", "demo-token-1"


class Bench:
    """The directory and the processes of one call, and the table's rows."""

    def __init__(self, options):
        self.quick = options.quick
        self.build = pathlib.Path(options.build).resolve()
        self.disk = self.directory = pathlib.Path(tempfile.mkdtemp(prefix="flickr-bench-", dir=options.directory))
        self.memory = pathlib.Path(tempfile.mkdtemp(prefix="flickr-bench-", dir="/dev/shm"))
        self.rows = []
        self.kept = 0
        self.tables = []  # further Markdown, behind the table of ratios
        # A copy: what is configured in the build's own application is none of a benchmark's business.
        built = pathlib.Path(self.program("flickr-backup")).parent
        self.application = shutil.copytree(built, self.disk / built.name) / "flickr-backup"
        # The user's settings and what is kept from run to run stay out of it, too.
        os.environ.update(XDG_CONFIG_HOME=str(self.disk / "config"), XDG_STATE_HOME=str(self.disk / "state"))
        self.credentials = self.disk / "credentials.ini"
        self.credentials.touch(mode=0o600)
        self.credentials.write_text(f"api_key = {KEY}\napi_secret = {SECRET}\ntoken = {TOKEN}\n")

    def close(self):
        for directory in (self.disk, self.memory):
            shutil.rmtree(directory, ignore_errors=True)

    @contextlib.contextmanager
    def in_memory(self):
        """Directories are made in memory, where a flush costs nothing."""
        self.directory = self.memory
        try:
            yield
        finally:
            self.directory = self.disk

    def program(self, name):
        """A program of the build, wherever in it that is."""
        found = [path for path in self.build.rglob(name) if path.is_file() and os.access(path, os.X_OK)]
        if not found:
            sys.exit(f'{name} is not in {self.build}: build the preset "release" first, as scripts/bench does.')
        return str(found[0])

    def fresh(self, name, keep=False):
        """An empty directory; the former one of that name is removed. keep: only at the end, since some file systems
        look at every inode that was deleted of late before they give out one, and a run would pay for it."""
        path = self.directory / name
        if keep and self.directory is self.disk:
            self.kept += 1
            path = self.directory / f"{name}-{self.kept}"
        shutil.rmtree(path, ignore_errors=True)
        path.mkdir()
        return path

    def row(self, case, against, values, goal, figures):
        met = "" if goal is None else ("met" if statistics.median(values) <= goal else "missed")
        self.rows.append((case, against, spread(values), "" if goal is None else f"{goal:g}", met, figures))
        print(f"{case} | {against} | {spread(values)} | {goal if goal is not None else '-'} {met} | {figures}",
              flush=True)

    @contextlib.contextmanager
    def started(self, *command):
        """A server, ended with the block."""
        process = subprocess.Popen([str(word) for word in command], stdout=subprocess.PIPE, text=True)
        try:
            yield process
        finally:
            process.terminate()
            process.wait()

    def account(self, sets, items, *options, within=()):
        """The command for a simulated service on a generated account; within: the command that starts it."""
        if "--videos" not in options:
            options = ("--videos", 0, *options)
        return (*within, self.program("flickr-sim"), "--generate", f"{sets}x{items}", "--loose", 0,
                "--exit-with-parent", *options)

    @contextlib.contextmanager
    def service(self, *account, within=()):
        """Such a service, for which the plug-in is configured; gives its address."""
        with self.started(*self.account(*account, within=within)) as process:
            found = None
            while not found:
                line = process.stdout.readline()
                if not line:
                    sys.exit("flickr-sim did not start; with --https-port 443 that port has to be free.")
                found = re.search(r"http://[0-9.]+:[0-9]+/services/rest/", line)
            self.configure(found.group())
            yield found.group()

    def configure(self, url):
        run(self.application, "configure", "--data-url", url, "--credentials", self.credentials)

    def backup(self, device, new=0, edited=0, unchanged=0, credentials=None, within=()):
        """One run of the plug-in, which has to find so many items new, edited and unchanged."""
        result = run(*within, self.application, "run", "--device", device, "--credentials",
                     credentials or self.credentials, "--json", "--new")
        summary = json.loads(result.output[result.output.index("{"):])
        if (summary["new"], summary["edited"], summary["unchanged"]) != (new, edited, unchanged):
            sys.exit(f"The run did not do what it was measured for:\n{result.output}")
        return result

    def first_backup(self, name, items, **how):
        return self.backup(self.fresh(name, keep=items > 100), new=items, **how)

    def floor(self, url, device, *options, program="floor_client"):
        return run(self.program(program), url, KEY, SECRET, TOKEN, device, *options)

    def floor_rows(self, case, runs, figures):
        """What the libraries add to the floor, which the plug-in has to use, and what the plug-in adds to both."""
        self.row(case, "floor client", ratios(runs["ours"], runs["floor"]), 1.15, figures)
        self.row(case + ": the floor client over the libraries", "floor client",
                 ratios(runs["over_libraries"], runs["floor"]), None, figures)
        self.row(case, "floor client over the libraries", ratios(runs["ours"], runs["over_libraries"]), None, figures)

    def addresses(self, url, *options):
        """Every address that a run fetches, in its order."""
        notes = self.directory / "addresses"
        self.floor(url, self.fresh("floor"), "--addresses", notes, *options)
        return notes.read_text().split()

    def curl(self, addresses, *options, within=()):
        """One curl that fetches the addresses."""
        target = self.fresh("curl", keep=True)
        lines = [f'url = "{url}"\noutput = "{target}/{number}"' for number, url in enumerate(addresses)]
        config = self.directory / "curl.config"
        config.write_text("\n".join(lines))
        return run(*within, "curl", "-sS", "--fail-early", *options, "-K", config)

    def curl_one_by_one(self, addresses, *options):
        """The same, each over a connection of its own."""
        return self.curl(addresses, "-H", "Connection: close", *options)

    def wget(self, addresses):
        target = self.fresh("wget")
        listing = self.directory / "wget.list"
        listing.write_text("\n".join(addresses))
        return run("wget", "-q", "--no-http-keep-alive", "-i", listing, "-O", target / "all")


def first(bench):
    """first backup, against wget, curl and the floor, on disk and in memory"""
    items, rounds = (200, 3) if bench.quick else (2000, 5)
    for place, where in ((contextlib.nullcontext, ""), (bench.in_memory, ", device in memory")):
        with bench.service(1, items, "--item-bytes", 100 * KIB) as url, place():
            addresses = bench.addresses(url)

            def over_libraries(device):
                return bench.floor(url, device, "--database", device / "backup.db", program="library_floor")

            runs = alternate(rounds, ours=lambda: bench.first_backup("ours", items),
                             floor=lambda: bench.floor(url, bench.fresh("floor", keep=True)),
                             over_libraries=lambda: over_libraries(bench.fresh("libraries", keep=True)),
                             curl=lambda: bench.curl_one_by_one(addresses), wget=lambda: bench.wget(addresses))
        case = f"first backup, {items} photos of 100 KiB{where}"
        figures = named(runs)
        faster = min((runs["curl"], runs["wget"]), key=lambda taken: statistics.median(r.wall for r in taken))
        bench.row(case, "the faster of curl and wget", ratios(runs["ours"], faster), 1.0, figures)
        bench.row(case + ": the floor client", "the faster of curl and wget", ratios(runs["floor"], faster), None,
                  figures)
        bench.floor_rows(case, runs, figures)


def unchanged(bench):
    """second run, nothing changed, against the floor; device in memory"""
    items, rounds = (500, 3) if bench.quick else (5000, 5)
    with bench.service(1, items, "--item-bytes", 1) as url, bench.in_memory():
        bench.first_backup("ours", items)
        device = bench.directory / "ours"
        runs = alternate(rounds, ours=lambda: bench.backup(device, unchanged=items),
                         floor=lambda: bench.floor(url, bench.directory, "--list-only"),
                         over_libraries=lambda: bench.floor(url, bench.directory, "--list-only", "--database",
                                                            device / "backup.db", program="library_floor"))
    bench.floor_rows(f"second run, {items} items unchanged", runs, named(runs))


def video(bench):
    """one large video over HTTP and over HTTPS, against curl, on disk and in memory"""
    size, rounds = (GIB // 8, 3) if bench.quick else (GIB, 5)
    flushed = 'curl -sSk -o "$0" "$1" && sync "$0"'
    for scheme, options in (("HTTP", ()), ("HTTPS", ("--https-port", 443, "--https-media"))):
        with bench.service(1, 1, "--videos", 1, "--video-bytes", size, *options) as url:
            address = next(a for a in bench.addresses(url, "--list-only") if "/play/" in a)
            contenders = {
                "ours": lambda: bench.first_backup("ours", 1),
                "curl": lambda: run("curl", "-sSk", "-o", bench.fresh("curl") / "video", address),
                "flushed": lambda: run("sh", "-c", flushed, bench.fresh("curl") / "video", address)}
            runs = alternate(rounds, **contenders)
            with bench.in_memory():
                memory = alternate(rounds, ours=contenders["ours"], curl=contenders["curl"])
                bench.fresh("ours"), bench.fresh("curl")
        case = f"one video of {size // MIB} MiB over {scheme}"
        figures = named(runs)
        bench.row(case, "curl -o", ratios(runs["ours"], runs["curl"]), 1.05, figures)
        bench.row(case, "curl -o and sync", ratios(runs["ours"], runs["flushed"]), None, figures)
        bench.row(case + ", device in memory", "curl -o", ratios(memory["ours"], memory["curl"]), None,
                  named(memory))
        bench.row(case + ", peak memory", "40 MiB", [r.peak / KIB / 40 for r in runs["ours"]], 1.0,
                  f"{max(r.peak for r in runs['ours']) / KIB:.0f} MiB")


def redirects(bench):
    """items over HTTPS behind a redirect from HTTP, against curl, on disk and in memory"""
    items, rounds = (50, 3) if bench.quick else (200, 5)
    each = 'n=0; while read -r url; do n=$((n + 1)); curl -sSLk -o "$0/$n" "$url" || exit 1; done < "$1"'
    with bench.service(1, items, "--item-bytes", 20000, "--https-port", 443, "--redirect-to-https") as url:
        for place, where in ((contextlib.nullcontext, ""), (bench.in_memory, ", device in memory")):
            with place():
                addresses = bench.addresses(url, "--list-only")
                listing = bench.directory / "list"
                listing.write_text("\n".join(addresses) + "\n")
                runs = alternate(rounds, ours=lambda: bench.first_backup("ours", items),
                                 curl=lambda: run("sh", "-c", each, bench.fresh("curl"), listing),
                                 one_curl=lambda: bench.curl_one_by_one(addresses, "-L", "-k"))
            figures = named(runs)
            case = f"{items} items over HTTPS behind a redirect from HTTP{where}"
            bench.row(case, "curl, a process each", ratios(runs["ours"], runs["curl"]), 0.8, figures)
            bench.row(case, "one curl for all", ratios(runs["ours"], runs["one_curl"]), None, figures)


def scaling(bench):
    """one set of 1,000, 10,000 and 100,000 tiny items, first and unchanged run; device in memory"""
    sizes = (100, 1000, 10000) if bench.quick else (1000, 10000, 100000)
    small, _, large = sizes
    taken = {}
    for size in (small, large, small, sizes[1], small):
        with bench.service(1, size, "--item-bytes", 1), bench.in_memory():
            whole = (bench.first_backup("ours", size), bench.backup(bench.directory / "ours", unchanged=size))
            for kind, one in zip(("first", "unchanged"), whole):
                taken.setdefault((kind, size), []).append(one)
    for kind in ("first", "unchanged"):
        figures = ", ".join(f"{size}: {milliseconds(taken[kind, size], size)} and "
                            f"{taken[kind, size][0].peak / KIB:.0f} MiB" for size in sizes)
        values = [one.wall / large / (other.wall / small)
                  for one in taken[kind, large] for other in taken[kind, small]]
        bench.row(f"one set of tiny items, {kind} run: time per item at {large}", f"at {small}", values, 1.1,
                  figures)
        memory = [(one.peak - other.peak) / (large - small)
                  for one in taken[kind, large] for other in taken[kind, small]]
        bench.row(f"one set of tiny items, {kind} run: memory per listed item", "3 KiB",
                  [value / 3 for value in memory], 1.0, f"{spread(memory)} KiB")


def sets(bench):
    """many small sets, against few large ones; device in memory"""
    many, few, rounds = ((200, 5), (2, 500), 3) if bench.quick else ((2000, 5), (20, 500), 3)
    items = many[0] * many[1]

    def first_of(shape):
        with bench.service(*shape, "--item-bytes", 1), bench.in_memory():
            return bench.first_backup("ours", items)

    runs = alternate(rounds, many=lambda: first_of(many), few=lambda: first_of(few))
    bench.row(f"first backup of {many[0]} sets of {many[1]} tiny items", f"{few[0]} sets of {few[1]}",
              ratios(runs["many"], runs["few"]), 1.3,
              ", ".join(f"{name} {milliseconds(taken, items)} per item" for name, taken in runs.items()))


def micro(bench, name, time_kind, *options):
    """Runs a program of Google Benchmark; times in ns by case, each {contender: [times]}."""
    result = run(bench.program(name), *options, "--benchmark_format=json",
                 "--benchmark_enable_random_interleaving=true",
                 f"--benchmark_repetitions={3 if bench.quick else 5}")
    times = {}
    for entry in json.loads(result.output[result.output.index("{"):])["benchmarks"]:
        if entry["run_type"] == "iteration":
            case, contender = entry["name"].split("/")[:2]
            times.setdefault(case, {}).setdefault(contender, []).append(entry[time_kind])
    return times


def parsers(bench):
    """the readers of answers, against expat's own event loop"""
    for logged in (False, True):
        options = [f"--log={bench.directory / 'log'}"] if logged else []
        for case, times in micro(bench, "parsers", "cpu_time", *options).items():
            values = [a / b for a, b in zip(times["ours"], times["expat"])]
            figures = ", ".join(f"{name} {statistics.median(t) / 1e6:.2f} ms" for name, t in times.items())
            bench.row(f"reading {case}" + (", with the log" if logged else ""), "expat doing nothing", values,
                      None if logged else 3.0, figures)


def store(bench):
    """look-ups and updates in a database of a million rows, against prepared statements"""
    for case, times in micro(bench, "store", "real_time", bench.fresh("store")).items():
        values = [a / b for a, b in zip(times["ours"], times["prepared"])]
        figures = ", ".join(f"{name} {statistics.median(t) / 1e3:.1f} µs each" for name, t in times.items())
        bench.row(case, "prepared once, one connection", values, None, figures)


def instructions(bench):
    """instructions per item, counted by callgrind"""
    few, many = (50, 150) if bench.quick else (200, 600)
    counts = {}
    for size in (few, many):
        with bench.service(1, size, "--item-bytes", 20000) as url:
            device, files = bench.fresh("ours"), bench.fresh("floor")
            database = device / "backup.db"
            backup = (bench.application, "run", "--device", device, "--credentials", bench.credentials, "--new")
            floor, libraries = ((bench.program(name), url, KEY, SECRET, TOKEN, files)
                                for name in ("floor_client", "library_floor"))
            for name, command in (("ours first", backup), ("ours unchanged", backup),
                                  ("floor client first", floor), ("floor client unchanged", (*floor, "--list-only")),
                                  ("floor client over the libraries first", (*libraries, "--database", database)),
                                  ("floor client over the libraries unchanged",
                                   (*libraries, "--list-only", "--database", database))):
                counts[name, size] = count_instructions(bench, command)
    for kind in ("first", "unchanged"):
        for other in ("floor client", "floor client over the libraries"):
            ours, theirs = ((counts[f"{name} {kind}", many] - counts[f"{name} {kind}", few]) / (many - few)
                            for name in ("ours", other))
            bench.row(f"instructions per item, {kind} run", other, [ours / theirs], None,
                      f"{ours:,.0f} against {theirs:,.0f}")


def count_instructions(bench, command):
    counted = run("valgrind", "--tool=callgrind", "--trace-children=no", f"--callgrind-out-file={os.devnull}",
                  *command)
    return int(re.search(r"Collected : (\d+)", counted.output).group(1))


CASES = {case.__name__.replace("_", "-"): case for case in
         (first, unchanged, video, redirects, scaling, sets, parsers, store, distance, instructions, gallery,
          slow_disk, fuse)}


def machine():
    """The machine in one paragraph, without names or paths."""
    def output(*command):
        return subprocess.run(command, capture_output=True, text=True).stdout.split("\n")[0]

    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    memory = re.search(r"MemTotal:\s*(\d+)", pathlib.Path("/proc/meminfo").read_text())
    system = re.search(r'PRETTY_NAME="(.*)"', pathlib.Path("/etc/os-release").read_text())
    return (f"{os.cpu_count()} × {cpu.group(1) if cpu else platform.machine()}, "
            f"{int(memory.group(1)) / MIB:.0f} GiB of memory, {system.group(1)}, "
            f"Linux {'.'.join(platform.release().split('.')[:2])}, "
            f"{' '.join(output('curl', '--version').split()[:2])}, "
            f"{' '.join(output('wget', '--version').split()[:3])}, load before the start {os.getloadavg()[0]:.1f}")


def disk(bench):
    """What the disk takes for a small file with its flush, and for a large one."""
    directory = bench.fresh("disk")
    start = time.perf_counter()
    for number in range(200):
        with open(directory / str(number), "wb") as file:
            file.write(b"x" * 10000)
            file.flush()
            os.fsync(file.fileno())
    small = (time.perf_counter() - start) / 200
    start = time.perf_counter()
    with open(directory / "large", "wb") as file:
        for _ in range(256):
            file.write(b"x" * MIB)
        file.flush()
        os.fsync(file.fileno())
    return (f"disk: {small * 1e6:.0f} µs for a small file with its flush, "
            f"{256 / (time.perf_counter() - start):.0f} MiB/s with a flush at the end")


def markdown(bench, about):
    header = ("case", "measured against", "ratio: median (least–greatest)", "goal", "", "figures")
    rows = [header, ("---",) * len(header), *bench.rows]
    table = "\n".join("| " + " | ".join(row) + " |" for row in rows)
    return "\n\n".join([about, table, *bench.tables]) + "\n"


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter,
                                     epilog="cases:\n" + "\n".join(f"  {name:13} {case.__doc__}"
                                                                   for name, case in CASES.items()))
    parser.add_argument("cases", nargs="*", metavar="CASE", help="the cases to run; all when none is named")
    parser.add_argument("--quick", action="store_true", help="smaller cases and fewer rounds")
    parser.add_argument("--markdown", metavar="FILE", default=ROOT / "build-release" / "performance.md",
                        help="where the table is written as well (default: %(default)s)")
    parser.add_argument("--build", metavar="DIR", default=ROOT / "build-release",
                        help="where the programs are built (default: %(default)s)")
    parser.add_argument("--real-time", action="store_true",
                        help="measure before all other work of the machine (as root); for one that is not idle")
    parser.add_argument("--directory", metavar="DIR", help="the disk to measure on (default: the temporary one)")
    options = parser.parse_args()
    unknown = set(options.cases) - set(CASES)
    if unknown:
        parser.error(f"there is no case {', '.join(sorted(unknown))}; --help lists them")

    if options.real_time:
        os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    bench = Bench(options)
    try:
        about = machine() + "; " + disk(bench) + "."
        for name in options.cases or CASES:
            print(f"--- {name}: {CASES[name].__doc__}", flush=True)
            CASES[name](bench)
        text = markdown(bench, about)
        pathlib.Path(options.markdown).write_text(text)
        print("\n" + text)
    finally:
        bench.close()


main()
