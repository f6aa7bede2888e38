"""What a backup costs on a disk where each flush takes its time, as on a USB disk or a card: the preloaded library of
the torture stand makes every flush on the device longer, and counts the waits for them."""

import os
import sqlite3
import statistics
import urllib.parse
import urllib.request

FLUSH_MS = 20


class Disk:
    """Lets programs of a bench run on a disk with slow flushes. Only the device is on it: the user's own files, the
    history of runs among them, are on the machine's."""

    def __init__(self, bench):
        self.notes = bench.directory / "waits"
        self.faults = str(bench.program("libfaultfs.so"))

    def run(self, delay, device, backup):
        """Runs a backup to the device; gives its seconds and its waits."""
        self.notes.unlink(missing_ok=True)
        settings = {"LD_PRELOAD": self.faults, "FAULT_UNDER": str(device.resolve()), "FAULT_WAITS": str(self.notes)}
        if delay:
            settings["FAULT_FLUSH_MS"] = str(delay)
        os.environ.update(settings)
        try:
            taken = backup()
        finally:
            for name in settings:
                del os.environ[name]
        return taken.wall, sum(int(line.split()[1]) for line in self.notes.read_text().splitlines())


def order(url, word, command, **parameters):
    query = urllib.parse.urlencode(dict(parameters, word=word))
    with urllib.request.urlopen(f"{url.replace('/services/rest/', '')}/sim/{command}?{query}", timeout=20) as answer:
        return answer.read()


def slow_disk(bench):
    """new, edited and unchanged items where a flush takes 20 ms, and the floor client there"""
    items, edits, unchanged, rounds = (100, 25, 500, 1) if bench.quick else (500, 100, 5000, 3)
    ready = bench.directory / "ready"
    disk = Disk(bench)
    with bench.service(1, items, "--item-bytes", 100 * 1024, "--ready-file", ready) as url:
        word = ready.read_text().split()[1]
        ours, floor, edited = {0: [], FLUSH_MS: []}, {0: [], FLUSH_MS: []}, []
        for _ in range(rounds):
            for delay in ours:
                device = bench.fresh("ours", keep=True)
                ours[delay].append(disk.run(delay, device, lambda: bench.backup(device, new=items)))
                plain = bench.fresh("floor")
                floor[delay].append(disk.run(delay, plain, lambda: bench.floor(url, plain)))
            with sqlite3.connect(device / "backup.db") as rows:
                ids = [row[0] for row in rows.execute("SELECT OriginalItemId FROM backupmetadata "
                                                      "WHERE ItemType = 'FlickrPhoto' LIMIT ?", (edits,))]
            for number in ids:
                order(url, word, "edit", id=number)
            edited.append(disk.run(FLUSH_MS, device,
                                   lambda: bench.backup(device, edited=edits, unchanged=items - edits)))
    with bench.service(1, unchanged, "--item-bytes", 1) as url:
        device = bench.fresh("unchanged", keep=True)
        bench.backup(device, new=unchanged)
        still = [disk.run(FLUSH_MS, device, lambda: bench.backup(device, unchanged=unchanged)) for _ in range(rounds)]

    def each(runs, count, index, factor=1):
        return [run[index] / count * factor for run in runs]

    def time_of(runs):
        return f"{statistics.median(each(runs, items, 0, 1000)):.1f} ms"

    case = f"a flush takes {FLUSH_MS} ms"
    figures = (f"an item {time_of(ours[FLUSH_MS])}, without delay {time_of(ours[0])}; the floor client "
               f"{time_of(floor[FLUSH_MS])} and {time_of(floor[0])}")
    bench.row(f"{case}: waits for each of {items} new items", "", each(ours[FLUSH_MS], items, 1), 2.2, figures)
    bench.row(f"{case}: milliseconds for each", "", each(ours[FLUSH_MS], items, 0, 1000), 48, figures)
    bench.row(f"{case}: waits for each of {edits} edited items", "", each(edited, edits, 1), 3.2,
              f"an item {statistics.median(each(edited, edits, 0, 1000)):.1f} ms")
    bench.row(f"{case}: waits of a run with {unchanged} unchanged items", "", each(still, 1, 1), 5,
              f"{statistics.median(run[0] for run in still):.2f} s")
    for delay in (FLUSH_MS, 0):
        bench.row(f"first backup of {items} photos of 100 KiB, {delay} ms for a flush", "floor client, flushed alike",
                  [a[0] / b[0] for a, b in zip(ours[delay], floor[delay])], None, figures)
