"""The case "distance": whole runs at the end of a long line, through the gateway and without it, side by side with
curl over the same media. bench/far_link.cpp makes the line: real TCP between two network namespaces.
"""

import contextlib
import json
import re
import subprocess
import sys
import time
import urllib.parse

from measure import KIB, MIB, alternate, milliseconds, ratios, spread
from oauthlib import oauth1

FAR = "127.77.0.2"  # where the service listens, at the other end
MEMORY = 128 * KIB  # KiB: the goal for the whole process
# What the service answers an hour; the gateway spends the first so many at full speed.
CALLS_PER_HOUR, CALLS_AT_ONCE = 3600, 3000


class Line:
    """The line and its two ends, of which each is a command that starts another one there."""

    def __init__(self, process):
        self.process = process
        self.near, self.far = (("nsenter", "--net=" + process.stdout.readline().strip()) for _ in range(2))

    def set(self, round_trip, megabits=0):
        """Milliseconds, and Mbit/s (0: any)."""
        self.process.stdin.write(f"{round_trip} {megabits}\n")
        self.process.stdin.flush()
        self.process.stdout.readline()


@contextlib.contextmanager
def line_of(bench):
    """A line, or nothing where namespaces cannot be had."""
    with subprocess.Popen([bench.program("far_link")], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True) as process:
        line = Line(process)
        if process.poll() is not None or not line.far[1].endswith(tuple("0123456789")):
            print("Left out: " + process.stderr.readline().strip(), flush=True)
            line = None
        yield line
        process.stdin.close()


class Today:
    """The service of today at the far end."""

    def __init__(self, line, plain, credentials):
        self.line, self.plain, self.credentials = line, plain, credentials
        pairs = (entry.split(" = ", 1) for entry in credentials.read_text().splitlines())
        self.file = dict(pairs)

    def fetch(self, url, *options):
        return subprocess.run([*self.line.near, "curl", "-sS", "--fail", "--cacert", self.file["ca"], *options, url],
                              stdout=subprocess.PIPE, text=True, check=True).stdout

    def ask(self, method, **parameters):
        client = oauth1.Client(self.file["api_key"], self.file["api_secret"], self.file["token"],
                               self.file["token_secret"])
        query = urllib.parse.urlencode({"method": method, "user_id": self.file["user_id"], **parameters})
        url, headers, _ = client.sign(f'{self.file["service"]}/services/rest/?{query}')
        return self.fetch(url, "--compressed", "-H", "Authorization: " + headers["Authorization"])

    def media(self):
        """The addresses of all files of the first set: each photo and its thumbnail."""
        one = re.search('<photoset id="([0-9]+)"', self.ask("flickr.photosets.getList"))[1]
        addresses, pages, page = [], 1, 1
        while page <= pages:
            answer = self.ask("flickr.photosets.getPhotos", photoset_id=one, per_page=500, page=page,
                              extras="url_o,url_t")
            pages = int(re.search(' pages="([0-9]+)"', answer)[1])
            addresses += re.findall(' url_[ot]="([^"]+)"', answer)
            page += 1
        return addresses

    def calls(self):
        """How many calls it has answered."""
        address, word = self.plain
        return json.loads(self.fetch(f"{address}sim/counts?word={word}"))["rest"]


@contextlib.contextmanager
def today(bench, line, *account):
    folder = bench.fresh("service")
    command = bench.account(*account, "--today", "--address", FAR, "--ca-file", folder / "ca.pem",
                            "--print-credentials-file", folder / "credentials", "--ready-file", folder / "ready",
                            within=line.far)
    with bench.started(*command) as process:
        while not (folder / "ready").exists():
            if process.poll() is not None:
                sys.exit("flickr-sim did not start at the far end.")
            time.sleep(0.05)
        address, word, _ = (folder / "ready").read_text().split()
        yield Today(line, (address.replace("services/rest/", ""), word), folder / "credentials")


def alone(bench, line, trip):
    """What the plug-in takes for an item of a first and of an unchanged run without the gateway, in seconds: the
    difference between two accounts."""
    few, many = (5, 15) if bench.quick else (10, 40)
    taken = {}
    # Without distance the line would still cost something; and more items let the difference stand out.
    near, far = (1, ("--address", FAR)) if trip else (20, ())
    there, here = (line.far, line.near) if trip else ((), ())
    line.set(trip)
    for size in (few * near, many * near):
        with bench.service(1, size, "--item-bytes", 100 * KIB, *far, within=there):
            # The least of some runs: a difference of two takes in every disturbance.
            rounds = range(1 if trip else 5)
            taken["first", size] = min(bench.first_backup("alone", size, within=here).wall for _ in rounds)
            taken["unchanged", size] = min(bench.backup(bench.directory / "alone", unchanged=size,
                                                        within=here).wall for _ in rounds)
    return {kind: (taken[kind, many * near] - taken[kind, few * near]) / ((many - few) * near)
            for kind in ("first", "unchanged")}


def first(bench, line, trip, megabits, items, size, rounds, goal, each_goal):
    """First backups of one set through the gateway against curl; gives seconds for an item."""
    line.set(trip, megabits)
    with today(bench, line, 1, items, "--item-bytes", size) as service:
        files = service.media()
        if len(files) != 2 * items:
            sys.exit(f"{len(files)} files for {items} items.")
        few = max(items // 5, 10)

        def curl(*options, files=files):
            return bench.curl(files, "--cacert", service.file["ca"], *options, within=line.near)

        runs = alternate(rounds,
                         ours=lambda: bench.first_backup("ours", items, credentials=service.credentials,
                                                         within=line.near),
                         four=lambda: curl("--parallel", "--parallel-max", 4),
                         one=lambda: curl(files=files[:2 * few]))
        bench.fresh("ours"), bench.fresh("curl")
    case = f"first backup, {items:,} photos of " + (f"{size // KIB} KiB" if size < MIB else f"{size / 1e6:.0f} MB")
    case += f" with thumbnails, {trip} ms" + (f", {megabits} Mbit/s" if megabits else "")
    figures = (f"for an item: ours {milliseconds(runs['ours'], items)}, "
               f"four curls {milliseconds(runs['four'], items)}, one curl {milliseconds(runs['one'], few)}")
    if megabits:
        figures += "; " + ", ".join(f"{name} {spread([size * items * 8 / r.wall / 1e6 for r in runs[key]])} Mbit/s"
                                    for name, key in (("ours", "ours"), ("four curls", "four")))
    bench.row(case, "curl --parallel-max 4", ratios(runs["ours"], runs["four"]), goal, figures)
    if each_goal:
        shares = [r.wall / items * 1000 / each_goal for r in runs["ours"]]
        bench.row(case + ": time for an item", f"{each_goal} ms", shares, 1.0, figures)
    peak(bench, case, runs["ours"])
    return min(r.wall for r in runs["ours"]) / items


def peak(bench, case, runs):
    bench.row(case + ": peak memory", "128 MiB", [r.peak / MEMORY for r in runs], 1.0,
              f"{max(r.peak for r in runs) / KIB:.0f} MiB")


def unchanged(bench, line, rounds):
    """Unchanged runs through the gateway, at 20 and at 100 ms; gives seconds for an item by round trip."""
    items = 1000 if bench.quick else 5000
    with today(bench, line, 1, items, "--item-bytes", 1) as service:
        how = {"credentials": service.credentials, "within": line.near}
        line.set(0)
        bench.first_backup("ours", items, **how)
        device, runs = bench.directory / "ours", {}
        for trip in (20, 100):
            line.set(trip)
            runs[trip] = [bench.backup(device, unchanged=items, **how) for _ in range(rounds)]
    for trip, goal in ((20, 1.0), (100, None)):
        case = f"unchanged run, {items:,} photos, {trip} ms"
        bench.row(case + ": time for an item", "0.6 ms", [r.wall / items * 1000 / 0.6 for r in runs[trip]], goal,
                  milliseconds(runs[trip], items))
        peak(bench, case, runs[trip])
    return {trip: min(r.wall for r in taken) / items for trip, taken in runs.items()}


def requests(bench, line):
    """What an unchanged run of a large account asks. The first run is made without the gateway, near the service:
    the hourly limit would draw it out."""
    sets, items, videos = (10, 200, 100) if bench.quick else (50, 2000, 5000)
    account = (sets, items, "--videos", videos, "--item-bytes", 1, "--video-bytes", 1)
    with bench.service(*account):
        bench.first_backup("ours", sets * items)
    with today(bench, line, *account) as service:
        line.set(20)
        taken = bench.backup(bench.directory / "ours", unchanged=sets * items, credentials=service.credentials,
                             within=line.near)
        calls = service.calls()
    bench.fresh("ours")
    case = f"unchanged run, {sets * items:,} items in {sets} sets, {videos:,} of them videos, 20 ms"
    bench.row(case + ": calls", "260", [calls / 260], 1.0, f"{calls} calls, {taken.wall:.1f} s")
    peak(bench, case, [taken])


def distance(bench):
    """whole runs over a long line, through the gateway and without, against curl; half an hour; device in memory"""
    with line_of(bench) as line:
        if line is None:
            return
        with bench.in_memory():
            without = {trip: alone(bench, line, trip) for trip in (0, 20, 100)}
            photos, large, rounds = (100, 20, 1) if bench.quick else (1000, 200, 3)
            through = {("first", 20): first(bench, line, 20, 0, photos, 100 * KIB, rounds, 1.15, 17),
                       ("first", 100): first(bench, line, 100, 0, photos, 100 * KIB, rounds, 1.15, 80)}
            first(bench, line, 20, 50, large, 3000000, rounds - 1 or 1, 1.03, None)
            for trip, taken in unchanged(bench, line, rounds).items():
                through["unchanged", trip] = taken
            requests(bench, line)
    bench.tables.append(accounts(without, through))
    print(bench.tables[-1], flush=True)


def accounts(without, through):
    """What whole accounts take, from the times for an item."""
    rows = [("account", "run", *(f"alone, {trip} ms" for trip in without), "alone, 20 ms, with the hourly limit",
             "gateway, 20 ms", "gateway, 100 ms", "gateway, 20 ms, with the hourly limit")]
    rows.append(("---",) * len(rows[0]))
    for size in (10000, 100000, 1000000):
        for kind in ("first", "unchanged"):
            # Alone, a call for each item's sizes and one for each page of 500; the limit or the run, whichever is
            # slower. Through the gateway the pages alone.
            calls = size * (1 + 1 / 500)
            late = max(size / 500 + 4 - CALLS_AT_ONCE, 0) / CALLS_PER_HOUR * 3600
            rows.append((f"{size:,} items", kind, *(duration(without[trip][kind] * size) for trip in without),
                         duration(max(calls / CALLS_PER_HOUR * 3600, without[20][kind] * size)),
                         *(duration(through[kind, trip] * size) for trip in (20, 100)),
                         duration(max(late, through[kind, 20] * size))))
    measured = "; ".join(
        f"{kind} run alone " + ", ".join(f"{without[trip][kind] * 1000:.1f} ms at {trip} ms" for trip in without) +
        ", through the gateway " + ", ".join(f"{through[kind, trip] * 1000:.2f} ms at {trip} ms" for trip in (20, 100))
        for kind in ("first", "unchanged"))
    table = "\n".join("| " + " | ".join(row) + " |" for row in rows)
    return (f"Time for a photo of 100 KiB with its thumbnail, by round trip: {measured}. From these, what whole "
            f"accounts take:\n\n{table}")


def duration(amount):
    for unit, name in ((86400, "days"), (3600, "h"), (60, "min")):
        if amount >= 2 * unit:
            return f"{amount / unit:.1f} {name}"
    return f"{amount:.0f} s"
