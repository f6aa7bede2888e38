"""The case "gallery": the generator and the page with a backup of 100,000 items."""

import contextlib
import os
import pathlib
import resource
import shutil
import sqlite3
import statistics
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests"))
import browser  # noqa: E402

WORDS = "morning harbour light fog bridge market river birds café 東京 Straße sunset road forest snow Ёлка".split()
# Further words for descriptions, so that these are no repetition of a few.
MORE = [first + middle + last for first in ("ka", "lo", "mi", "stra", "ven", "dor", "gru", "pel", "ti", "wes")
        for middle in ("la", "rin", "to", "me", "bur", "ne", "shi", "va", "gel", "po")
        for last in ("n", "ra", "st", "lig", "den", "ko", "s", "mar", "ung", "tel")]
RECORD = """<?xml version="1.0" encoding="UTF-8"?>
<media>
  <ID>{id}</ID>
  <PhysicalFileName>{file}</PhysicalFileName>
  <DataXMLPath>My Flickr Items/Image</DataXMLPath>
  <FileName>{file}</FileName>
  <MediaType>photo</MediaType>
  <ThumbnailName>{thumbnail}</ThumbnailName>
  <Description>{description}</Description>
  <DateTaken>Thu, {day} {month} {year} 2:{minute:02}:00 AM</DateTaken>
  <DateUpdated>2020-01-02T03:04:05Z</DateUpdated>
  <Tags>
    <Tag>{tags[0]}</Tag>
    <Tag>{tags[1]}</Tag>
  </Tags>
</media>
"""
MONTHS = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split()


def make_backup(bench, sets, items):
    """A backup of one item, grown by rows and files to so many sets and items in each; gives its device."""
    device = bench.fresh("gallery", keep=True)
    with bench.service(1, 1, "--plain-titles", "--item-bytes", 100000):
        bench.backup(device, new=1)
    service = next(device.glob("Brightkettle/*"))
    media = next(path for path in service.glob("*/*.jpg"))
    small = next(service.glob("*/Thumbnail/*"))
    pool = device.parent / "pool"
    rows = []
    for number in range(sets):
        name, set_id = f"Album {number:04}", str(900000 + number)
        folder = service / name
        (folder / "Thumbnail").mkdir(parents=True)
        (folder / ".records").mkdir()
        # Links of one picture for each set: no file system takes 100,000 of one file.
        pool.mkdir(exist_ok=True)
        picture, thumbnail = shutil.copy(media, pool / f"{number}"), shutil.copy(small, pool / f"{number}t")
        rows.append((set_id, name, "Flickr", name, "Flickr", set_id, "Flickr_ID", "2020-01-01 00:00:00",
                     "2020-01-01 00:00:00", "FlickrFolder", "", "", "", "", "", name.lower()))
        for at in range(items):
            word = [WORDS[(number * 7 + at * k) % len(WORDS)] for k in (1, 3, 5, 11)]
            photo = f"{number * items + at + 1000000}"
            item_id, file = f"{photo}_{set_id}", f"{word[0]} {word[1]} {at}.jpg"
            small_name = f"Thumbnail/{file[:-4]}_{item_id}.jpg"
            told = word + [MORE[(number * 389 + at * 31 + k * 173) % len(MORE)] for k in range(12)]
            os.link(picture, folder / file)
            os.link(thumbnail, folder / small_name)
            (folder / ".records" / f"{file}.xml").write_text(RECORD.format(
                id=item_id, file=file, thumbnail=small_name, description=" ".join(told), tags=word[2:],
                day=1 + at % 28, month=MONTHS[(number + at // 90) % 12], year=2004 + number % 17, minute=at % 60))
            rows.append((item_id, file, name, file, name, photo, set_id, "2019-01-02 03:04:05", "2020-01-02 03:04:05",
                         "FlickrPhoto", "jpg", "", "", "", set_id, file.lower()))
    with contextlib.closing(sqlite3.connect(device / "backup.db")) as database, database:
        database.executemany("INSERT INTO backupmetadata VALUES (" + ", ".join("?" * 16) + ")", rows)
    return device


def generate(bench, device):
    """What the generator takes at first, with nothing changed and with one item of one set changed: seconds, and
    seconds of the processor, which other work of the machine leaves as they are."""
    def take():
        start, before = time.perf_counter(), resource.getrusage(resource.RUSAGE_CHILDREN)
        subprocess.run([bench.application, "gallery", "--device", device], check=True,
                       stdout=subprocess.DEVNULL)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return (time.perf_counter() - start,
                after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime)

    whole = take()
    unchanged = sorted(take() for _ in range(5))[2]
    changed = []
    for number in range(5):
        with contextlib.closing(sqlite3.connect(device / "backup.db")) as database, database:
            database.execute("UPDATE backupmetadata SET ItemUpdatedOn = ? WHERE OriginalItemId = '1000000'",
                             (f"2024-01-0{number + 1} 00:00:00",))
        changed.append(take())
    return whole, unchanged, sorted(changed)[2]


# Each frame scrolls on; a gap is a frame in which a part of the window shows neither a tile nor a heading.
SCROLL = """
const [frames, step] = arguments, times = [];
let gaps = 0, last = performance.now();
return new Promise((done) => {
  const frame = (now) => {
    times.push(now - last);
    last = now;
    gaps += [...document.querySelectorAll('.waiting')].some((node) => {
      const box = node.getBoundingClientRect();
      return box.bottom > 60 && box.top < innerHeight;
    });
    scrollBy(0, step);
    if (times.length < frames) requestAnimationFrame(frame);
    else done([times.slice(1).sort((a, b) => a - b), gaps]);
  };
  requestAnimationFrame(frame);
});
"""
# From a key to the frame that says how many were found, and to the one that shows the first of them, too; both the
# former when there are none.
SEARCH = """
const [words] = arguments, field = document.getElementById('search'), start = performance.now();
const tell = document.getElementById('summary');
tell.textContent = '';
field.focus();
field.value = words;
field.dispatchEvent(new Event('input'));
let counted = 0;
return new Promise((done) => {
  const frame = () => {
    const tiles = document.querySelector('.tile');
    const said = tell.textContent && !tell.textContent.includes('%');
    setTimeout(() => {
      const now = performance.now() - start;
      if (said) counted ||= now;
      if (said && (tiles || !/^[1-9]/.test(tell.textContent))) done([counted, now]);
      else requestAnimationFrame(frame);
    });
  };
  requestAnimationFrame(frame);
});
"""


def heap(window):
    window.devtools("HeapProfiler.collectGarbage")
    metrics = {entry["name"]: entry["value"] for entry in window.devtools("Performance.getMetrics")["metrics"]}
    return metrics["JSHeapUsedSize"] / (1 << 20)


def renderer_peak(window):
    """MiB that the largest of the browser's page processes held at its peak."""
    peaks = []
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            command = (process / "cmdline").read_bytes()
            if b"--type=renderer" in command and window.home.encode() in command:
                status = dict(line.split(":", 1) for line in (process / "status").read_text().splitlines())
                peaks.append(int(status["VmHWM"].split()[0]) / 1024)
    return max(peaks, default=float("nan"))


def look(page, rounds):
    """What the page takes in a browser; a table's rows."""
    with browser.Browser() as window:
        window.devtools("Performance.enable")
        window.size(1440, 900)
        opened, timeline = [], []
        for _ in range(rounds):
            for fields, times, ready in (("", opened, "document.querySelector('#sets img')"),
                                         ("view=all", timeline, "document.querySelector('.tile img')?.naturalWidth")):
                window.open("about:blank")
                window.open(f"{page}#{fields}")
                window.wait(ready)
                times.append(window.run("""
                    const page = performance.getEntriesByType('navigation')[0];
                    const paint = performance.getEntriesByName('first-contentful-paint')[0];
                    return Math.max(page.domContentLoadedEventEnd, paint?.startTime ?? 0);"""))
        at_start = heap(window)
        times, gaps = window.run(SCROLL, 600, 300)
        first = []
        for rest in (0, 3):
            window.open("about:blank")
            window.open(page)
            window.wait("document.querySelector('#sets img')")
            time.sleep(rest)
            first.append(window.run(SEARCH, "harbour"))
        counted, shown = zip(*(window.run(SEARCH, words) for words in
                               ("harbour l", "harbour light", "strasse", "東京", "елка snow", "album 0042", "e", "zzz")))
        after = heap(window)
        return [
            ("opening, the sets", f"{statistics.median(opened):.0f} ms", "1,500 ms"),
            ("opening, the timeline", f"{statistics.median(timeline):.0f} ms", "1,500 ms"),
            ("scrolling, 300 pixels a frame: frames in the middle, at the 95th of 100",
             f"{statistics.median(times):.0f} ms, {times[len(times) * 95 // 100]:.0f} ms", ""),
            ("frames of 600 with a gap in the window", f"{gaps}", "0"),
            ("the first search, in the moment in which the page is open: how many, and the first of them",
             f"{first[0][0]:.0f} ms, {first[0][1]:.0f} ms", "100 ms"),
            ("the first search, three seconds later: the same", f"{first[1][0]:.0f} ms, {first[1][1]:.0f} ms",
             "100 ms"),
            ("every further letter, how many: median, longest",
             f"{statistics.median(counted):.0f} ms, {max(counted):.0f} ms", "100 ms"),
            ("every further letter, with the first of them: median, longest",
             f"{statistics.median(shown):.0f} ms, {max(shown):.0f} ms", "100 ms"),
            ("script's memory, timeline opened; after the searches", f"{at_start:.0f} MiB, {after:.0f} MiB", ""),
            ("page process at its peak", f"{renderer_peak(window):.0f} MiB", ""),
        ]


def gallery(bench):
    """the gallery of 100,000 items: its generator, and the page in a headless browser"""
    sets, items = (40, 100) if bench.quick else (400, 250)
    # The quickest first run that there is: a service at no distance, and pictures of one byte; of a tenth of the sets.
    with bench.service(sets // 10, items, "--item-bytes", 1):
        first = 10 * bench.first_backup("gallery-first", sets // 10 * items).wall
    device = make_backup(bench, sets, items)
    print(f"{sets * items:,} items made", flush=True)
    whole, unchanged, changed = generate(bench, device)
    part = f"{first / 100:.2f} s: 1 % of a first run"
    rows = [("a first run of as many items of one byte, ten times that of a tenth", f"{first:.1f} s", "")]
    rows += [(f"generator, {name}: time, of the processor", f"{taken:.2f} s, {used:.2f} s", goal)
             for name, (taken, used), goal in (("everything", whole, ""), ("nothing changed", unchanged, part),
                                               ("one item changed", changed, part))]
    if not browser.missing():
        rows += look(next(device.rglob("index.html")).as_uri(), 2 if bench.quick else 5)
    else:
        print("No browser: scripts/packages-browser.txt names one.")
    table = "\n".join("| " + " | ".join(row) + " |" for row in [("what", "taken", "goal"), ("---",) * 3, *rows])
    bench.tables.append(f"A gallery of {sets * items:,} items in {sets} sets:\n\n{table}")
    print(bench.tables[-1], flush=True)
