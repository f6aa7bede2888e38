#!/usr/bin/env python3
"""Opens the gallery of a backup in a real browser: gallery_browser.py APPLICATION_FOLDER FLICKR_SIM [SHOTS | firefox]

The account is served by the simulated service and backed up by real runs. The browser is Chromium, but with the word
"firefox"; exit status 77, with a word, where it cannot be had. SHOTS is a folder for pictures of the page; docs/ holds
three of them.
"""

import base64
import contextlib
import os
import pathlib
import re
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import urllib.request
import xml.sax.saxutils

import browser
import firefox

IN_FIREFOX = sys.argv[3:] == ["firefox"]
SHAPES = [(900, 600), (900, 675), (600, 900), (900, 506), (700, 700)]
SETS = ["Trip to the sea", "Été à Łódź", "海の写真", "Αθήνα", "שלום עולם", "Москва"]
TITLES = ["Harbour", "Straße", "東京タワー", "Οδός", "Ёлка", "Night"]
# Those in no set, too, and a film that is in two sets.
ITEMS = len(TITLES) * (len(SETS) + 1) + 2
HOSTILE = ["<img src=x onerror=\"window.owned=1\">", "</script><script>window.owned=1</script>",
           "javascript:window.owned=1", "\u202egpj.exe \u2028\u2029 x", "-->]]>{{7*7}}${owned=1}'\"", "long " * 800]

# A landscape of some hills, as a JPEG file.
DRAW = """
const [seed, w, h] = arguments;
let state = seed * 2654435761 % 4294967296;
const next = () => (state = (state * 1664525 + 1013904223) % 4294967296) / 4294967296;
const canvas = document.createElement('canvas'), pen = canvas.getContext('2d'), hue = next() * 360;
[canvas.width, canvas.height] = [w, h];
const sky = pen.createLinearGradient(0, 0, 0, h);
sky.addColorStop(0, `hsl(${hue} 60% ${30 + next() * 40}%)`);
sky.addColorStop(1, `hsl(${hue + 80} 70% 80%)`);
pen.fillStyle = sky;
pen.fillRect(0, 0, w, h);
for (let hill = 0; hill < 4; ++hill) {
  const [wave, turn] = [1 + next() * 3, next() * 6];
  pen.fillStyle = `hsl(${hue + 180 + hill * 12} 35% ${46 - hill * 11}%)`;
  pen.beginPath();
  pen.moveTo(0, h);
  for (let x = 0; x <= w + 8; x += 8) {
    pen.lineTo(x, h * (0.5 + hill * 0.12 + 0.08 * Math.sin(x / w * wave * 6 + turn)));
  }
  pen.lineTo(w, h);
  pen.fill();
}
return canvas.toDataURL('image/jpeg', 0.8).split(',')[1];
"""
# A film of a second.
FILM = """
const canvas = document.createElement('canvas'), pen = canvas.getContext('2d');
[canvas.width, canvas.height] = [320, 240];
const recorder = new MediaRecorder(canvas.captureStream(25)), parts = [];
recorder.ondataavailable = (event) => parts.push(event.data);
let hue = 0;
const clock = setInterval(() => { pen.fillStyle = `hsl(${hue += 9} 60% 50%)`; pen.fillRect(0, 0, 320, 240); }, 40);
recorder.start();
return new Promise((done) => {
  recorder.onstop = () => {
    const reader = new FileReader();
    reader.onload = () => done(reader.result.split('base64,')[1]);
    reader.readAsDataURL(new Blob(parts));
  };
  setTimeout(() => { clearInterval(clock); recorder.stop(); }, 1000);
});
"""


class Gallery(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.addClassCleanup(shutil.rmtree, work := tempfile.mkdtemp(prefix="gallery-test-"))
        cls.work = pathlib.Path(work)
        cls.browser = cls.enterClassContext((firefox if IN_FIREFOX else browser).Browser())
        cls.browser.open("about:blank")
        photos = cls.work / "photos"
        number = 0
        for folder in [*(photos / name for name in SETS), photos]:
            folder.mkdir(parents=True, exist_ok=True)
            for title in TITLES:
                number += 1
                path = folder / f"{title}.jpg"
                path.write_bytes(base64.b64decode(cls.browser.run(DRAW, number, *SHAPES[number % len(SHAPES)])))
                os.utime(path, (taken := 1200000000 + number * 900000, taken))
        (photos / SETS[0] / "Film.webm").write_bytes(base64.b64decode(cls.browser.run(FILM)))
        shutil.copytree(sys.argv[1], cls.work / "flickr-backup.app")
        cls.sim = subprocess.Popen(
            [sys.argv[2], "--photos", photos, "--exit-with-parent",
             "--print-credentials-file", cls.work / "served.ini",
             "--ready-file", cls.work / "ready"], stdout=subprocess.DEVNULL)
        cls.addClassCleanup(cls.sim.wait)
        cls.addClassCleanup(cls.sim.terminate)
        while not (cls.work / "ready").exists() or len((cls.work / "ready").read_text().split()) < 2:
            time.sleep(0.05)
        cls.url, cls.word = (cls.work / "ready").read_text().split()[:2]
        credentials = cls.work / "credentials.ini"
        credentials.write_bytes((cls.work / "served.ini").read_bytes())
        credentials.chmod(0o600)
        cls.flickr("configure", "--data-url", cls.url, "--credentials", credentials)
        listed = [line.split(None, 2) for line in cls.order("list").splitlines()]
        film = next(entry[1] for entry in listed if entry[0] == "video")
        cls.order("add-to-set", set=next(entry[1] for entry in listed if entry[-1] == SETS[2]), id=film)
        cls.device = cls.work / "device"
        cls.device.mkdir()
        cls.back_up()
        cls.page = next(cls.device.rglob("index.html")).as_uri()

    @classmethod
    def flickr(cls, *arguments):
        cls.browser.open("about:blank")  # an open page would miss what a new gallery removes
        program = cls.work / "flickr-backup.app" / "flickr-backup"
        done = subprocess.run([program, *arguments], capture_output=True, text=True,
                              env={**os.environ, "XDG_CONFIG_HOME": cls.work, "XDG_STATE_HOME": cls.work})
        if done.returncode:
            raise AssertionError(done.stdout + done.stderr)

    @classmethod
    def back_up(cls):
        cls.flickr("run", "--device", cls.device, "--credentials", cls.work / "credentials.ini")

    @classmethod
    def order(cls, name, **fields):
        query = urllib.parse.urlencode({**fields, "word": cls.word})
        with urllib.request.urlopen(cls.url.replace("/services/rest/", f"/sim/{name}?{query}")) as answer:
            return answer.read().decode().strip()

    def rows(self, query, *values):
        with contextlib.closing(sqlite3.connect(self.device / "backup.db")) as database:
            return database.execute(query, values).fetchall()

    def setUp(self):
        self.show("")

    def tearDown(self):
        self.assertEqual(self.browser.log(), [])

    def show(self, fields):
        """Opens the page anew."""
        self.browser.size(1280, 800)
        self.browser.open("about:blank")
        self.browser.open(f"{self.page}#{fields}")
        self.browser.wait("document.getElementById('summary').textContent")

    def text(self, selector):
        return self.browser.run("return document.querySelector(arguments[0])?.innerText", selector)

    def texts(self, selector):
        return self.browser.run("return [...document.querySelectorAll(arguments[0])].map((n) => n.textContent)",
                                selector)

    def summary(self, expected):
        self.browser.wait("document.getElementById('summary').textContent.startsWith(arguments[0])", expected)

    def test_counts_agree_with_the_database(self):
        items = self.rows("SELECT COUNT(*) FROM backupmetadata WHERE ItemType <> 'FlickrFolder'")[0][0]
        self.assertEqual(items, ITEMS)
        self.summary(f"{items - 1} items · {len(SETS)} sets · 20")  # the film once
        self.assertTrue(self.browser.run("""
            const [room, card] = ['#sets li', '#sets a'].map((n) => document.querySelector(n).getBoundingClientRect());
            return room.left <= card.left - 5 && room.top <= card.top - 5 && room.bottom >= card.bottom + 5"""),
                        "the mark of the focus is not cut off")
        cards = dict(zip(self.texts("#sets .name"), self.texts("#sets .count")))
        self.assertEqual(cards.pop("In no set"), f"{len(TITLES)} items")
        for title, count in self.rows("""SELECT ItemName, Items FROM backupmetadata JOIN containercounts
                                         ON Folder = DerivedItemName WHERE ItemId <> 'Anonymous'"""):
            self.assertEqual(cards.pop(title), f"{count} items")
        self.assertEqual(cards, {})
        if not IN_FIREFOX:
            self.browser.run("""  // far apart, so that most are out of sight
                for (const card of document.querySelectorAll('#sets li')) card.style.marginTop = '3000px';
                return new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(() => done())))""")
            nodes = self.browser.devtools("Accessibility.getFullAXTree")["nodes"]
            read = [node["name"]["value"] for node in nodes if node.get("role", {}).get("value") == "link"]
            for title in SETS:
                self.assertTrue(any(name.startswith(title) for name in read), f"out of sight, but told: {title}")
        self.show("view=all")
        self.browser.wait("document.querySelector('#rail .month.shown[aria-current]')")
        self.summary(f"{items - 1} items")
        counts = [int(re.search(r"\((\d+)\)", text)[1]) for text in self.texts("#jump option")]
        self.assertEqual(sum(counts), items - 1)
        for heading in self.texts("#grid h2"):
            self.assertRegex(heading, r"^\w+ 20\d\d \d+ items?$")
        seen, end = set(), False
        while not end:
            end = self.browser.run("""
                const end = scrollY + innerHeight >= document.documentElement.scrollHeight - 2;
                scrollBy(0, 500);
                return new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(() => done(end))))""")
            self.browser.wait("!document.querySelector('.waiting')")
            seen.update(self.browser.run("return [...document.querySelectorAll('.tile')].map((t) => t.dataset.item)"))
        self.assertEqual(len(seen), items - 1, "the film once")
        shapes = self.browser.run("""return [...document.querySelectorAll('.tile img')].filter((i) => i.naturalWidth)
            .map((i) => i.naturalWidth / i.naturalHeight - i.parentNode.clientWidth / i.parentNode.clientHeight)""")
        self.assertTrue(shapes)
        self.assertLess(max(map(abs, shapes)), 0.05, "tiles have the shape of their pictures")

    def test_search_in_four_scripts(self):
        for typed, count in [("STRASSE", len(SETS) + 1), ("lodz ete", len(TITLES)), ("東京 写真", 1), ("οδοσ αθηνα", 1),
                             ("елка", len(SETS) + 1), ("שלום", len(TITLES)), ("STRAẞE", len(SETS) + 1),
                             ("2008-01 hárbour", 1), ("sea jpg night", 1), ("nothing", 0)]:
            self.show("")
            self.browser.keys("/")
            self.browser.keys(*typed)
            self.summary(f"{count} item" if count else "No item")
            self.browser.wait("document.querySelectorAll('.tile').length === arguments[0]", count)
        self.browser.keys("Escape")
        self.browser.wait("document.getElementById('sets').children.length > 6")
        self.assertEqual(self.browser.run("return document.activeElement.id + document.activeElement.value"), "search")
        self.browser.step("back")
        self.browser.wait("document.querySelector('h1').textContent === '“nothing”'")
        self.browser.step("back")
        self.browser.wait("document.getElementById('sets').children.length > 6")

    def test_keys_large_view_and_back_button(self):
        self.browser.run("document.querySelector('#sets a').click()")
        self.browser.wait("document.querySelector('.tile')")
        title = self.text("h1")
        self.browser.run("document.querySelector('.tile').focus()")
        first = self.browser.run("return document.activeElement.dataset.item")
        self.browser.keys("ArrowRight", "Enter")
        self.browser.wait("document.querySelector('.stage img:not(.rough)')?.naturalWidth >= 600")
        second = self.browser.run("return new URLSearchParams(location.hash.slice(1)).get('item')")
        self.assertNotEqual(first, second)
        name, file = self.rows("SELECT ItemName, DerivedItemName FROM backupmetadata WHERE ItemId = ?", second)[0]
        self.assertEqual(self.text("#details h2"), name[:-4])
        details = self.text("#details dl")
        self.assertIn(file, details)
        self.assertIn(title, details)
        self.assertRegex(details, r"Taken\n\w+ \d+, 20\d\d")
        self.assertTrue(self.browser.run("return document.querySelector('#details a[target]').href").endswith(
            urllib.parse.quote(file)))
        self.browser.keys("ArrowLeft")
        self.browser.wait(f"location.hash.includes('{first}')")
        self.browser.keys("Escape")
        self.browser.wait("!document.getElementById('viewer').open")
        self.browser.wait(f"document.activeElement.dataset.item === '{first}'")
        self.browser.step("back")
        self.browser.wait("document.getElementById('sets').children.length > 6")
        self.browser.step("forward")
        self.browser.wait("document.querySelector('h1').textContent === arguments[0]", title)
        self.browser.wait("document.querySelector('.tile')")
        self.browser.run("document.querySelector('.tile').click()")
        self.browser.wait("document.getElementById('viewer').open")
        self.browser.keys("/")  # from the large view to the search, and by Escape from there to the sets
        self.browser.wait("!location.hash.includes('item=') && document.activeElement.id === 'search'")
        self.browser.keys("Escape")
        self.browser.wait("document.getElementById('sets').children.length > 6")
        self.show(f"set={second.split('_', 1)[1]}&item={second}")  # an address that was kept
        self.browser.wait("document.getElementById('viewer').open")

    def test_sort_orders(self):
        # Uploaded in the order of TITLES; taken in another one from here on.
        taken = [2, 0, 1, 5, 3, 4]
        for day, at in enumerate(taken):
            record = next(self.device.rglob(f"{SETS[1]}/.records/{TITLES[at]}.jpg.xml"))
            text, replaced = re.subn(r"<Taken>[^<]*", f"<Taken>2020-02-0{day + 1}T10:00:00Z", record.read_text())
            self.assertEqual(replaced, 1)
            record.write_text(text)
        titles = [*TITLES[:5], "éclair"]
        with contextlib.closing(sqlite3.connect(self.device / "backup.db")) as database, database:
            database.execute("UPDATE backupmetadata SET ItemName = 'éclair.jpg' WHERE ItemName = ? AND "
                             "ItemContainerName = ?", (TITLES[5] + ".jpg", SETS[1]))
        self.flickr("gallery", "--device", self.device, "--anew")
        lodz = self.rows("SELECT ItemId FROM backupmetadata WHERE ItemName = ?", SETS[1])[0][0]
        by_title = [5, 0, 1, 3, 4, 2]  # Latin, Greek, Cyrillic, Japanese
        for fields, order, expected in [
                (f"set={lodz}", "takenOldest", taken), (f"set={lodz}", "takenNewest", taken[::-1]),
                (f"set={lodz}", "uploadedOldest", [*range(6)]), (f"set={lodz}", "uploadedNewest", [*range(5, -1, -1)]),
                (f"set={lodz}", "byTitle", by_title), ("q=lodz", "byTitle", by_title),
                ("q=lodz", "takenOldest", taken), ("q=lodz", "takenNewest", taken[::-1])]:
            with self.subTest(fields, order=order):
                self.show(fields)
                self.browser.run("""const sort = document.getElementById('sort');
                    sort.value = arguments[0];
                    sort.dispatchEvent(new Event('change'))""", order)
                self.browser.wait("new URLSearchParams(location.hash.slice(1)).get('sort') === arguments[0]", order)
                self.browser.wait("document.querySelectorAll('.tile').length === 6")
                self.assertEqual(self.texts(".tile"), [titles[at] for at in expected])
        film = time.gmtime((self.work / "photos" / SETS[0] / "Film.webm").stat().st_mtime)
        for order, first in [("takenOldest", "January 2008"), ("takenNewest", time.strftime("%B %Y", film))]:
            self.show(f"view=all&sort={order}")
            self.assertTrue(self.texts("#grid h2")[0].startswith(first))

    def test_an_item_in_two_sets(self):
        both = [SETS[0], SETS[2]]
        for words in ["film", *(f"film {name}" for name in both)]:
            with self.subTest(words):
                self.show("q=" + urllib.parse.quote(words))
                self.summary("1 item")
                self.browser.wait("document.querySelectorAll('.tile').length === 1")
        rows = self.rows("SELECT ItemContainerName, ItemId, OriginalContainerId FROM backupmetadata "
                         "WHERE ItemType = 'FlickrVideo'")
        self.assertEqual(sorted(row[0] for row in rows), both)
        for name, item, folder in rows:
            for view in ("q=film", "view=all", f"set={folder}"):
                with self.subTest(name, view=view):
                    self.show(f"{view}&item={item}")
                    self.browser.wait("document.querySelectorAll('#details dd a bdi').length === 2")
                    other = both[not both.index(name)]
                    self.assertEqual(self.texts("#details dd a bdi"), [name, other])
        self.browser.run("document.querySelectorAll('#details dd a')[1].click()")
        self.browser.wait("document.querySelector('h1').textContent === arguments[0]", other)
        self.browser.wait("document.getElementById('viewer').open")

    def test_every_search_file_is_searched(self):
        self.browser.open("about:blank")
        shutil.copytree(self.device, device := self.work / "many")
        with contextlib.closing(sqlite3.connect(device / "backup.db")) as database, database:
            for folder, (name, path, item) in enumerate(database.execute(
                    "SELECT ItemName, DerivedItemName, ItemId FROM backupmetadata WHERE "
                    "ItemType = 'FlickrFolder' AND ItemId <> 'Anonymous'").fetchall()):
                for number in range(folder * 1000, folder * 1000 + 900):
                    file = f"many {number:04}.jpg"
                    database.execute(
                        "INSERT INTO backupmetadata VALUES (" + ", ".join("?" * 16) + ")",
                        (f"7{number:04}_{item}", file, name, file, path, f"7{number:04}", item, "2019-01-02 03:04:05",
                         "2020-01-02 03:04:05", "FlickrPhoto", "jpg", "", "", "", item, file))
        self.flickr("gallery", "--device", device)
        data = next(device.rglob("index-data"))
        files = [re.findall(r"many \d{4}", path.read_text())[-1] for path in data.glob("search-*.js")]
        self.assertGreater(len(files), 1)
        self.browser.open((data.parent / "index.html").as_uri())
        self.summary(f"{ITEMS - 1 + 900 * len(SETS):,} items")
        self.browser.keys("/")
        for words in files:
            self.browser.keys(*words)
            self.summary("1 item")
            self.browser.wait("document.querySelector('.tile')?.textContent === arguments[0]", words)
            self.browser.keys("Escape")
        self.browser.log()  # holds the made-up items' pictures

    @unittest.skipIf(IN_FIREFOX, "only Chromium is told to make touches")
    def test_swipes_turn_the_picture(self):
        self.show("view=all&sort=takenOldest")
        self.browser.wait("document.querySelectorAll('.tile').length > 4")
        shown = self.browser.run("return [...document.querySelectorAll('.tile')].map((tile) => tile.dataset.item)")
        self.browser.devtools("Emulation.setTouchEmulationEnabled", enabled=True)
        self.browser.run("document.querySelectorAll('.tile')[1].click()")
        self.browser.wait("document.querySelector('.stage img:not(.rough)')?.naturalWidth")
        for x, y, expected in [(-200, 10, 2), (-200, 0, 3), (200, -10, 2), (-30, 0, 2), (80, 120, 2), (0, 200, 2)]:
            with self.subTest(x=x, y=y):
                points = [{"x": 400 + x * part, "y": 300 + y * part} for part in (0, 0.5, 1)]
                for kind, point in zip(("touchStart", "touchMove", "touchMove"), points):
                    self.browser.devtools("Input.dispatchTouchEvent", type=kind, touchPoints=[point])
                self.browser.devtools("Input.dispatchTouchEvent", type="touchEnd", touchPoints=[])
                if expected != 2 or abs(x) > 100:
                    self.browser.wait("location.hash.includes(arguments[0])", f"item={shown[expected]}")
                self.assertIn(f"item={shown[expected]}", self.browser.run("return location.hash"))
        self.browser.devtools("Emulation.setTouchEmulationEnabled", enabled=False)

    @unittest.skipIf(IN_FIREFOX, "only Chromium changes its language while it runs")
    def test_speaks_the_readers_language(self):
        agent = self.browser.run("return navigator.userAgent")
        for languages, language, sets, search, summary in [
                ("de-AT,en", "de", "Alben", "Suchen", f"{ITEMS - 1} Objekte · {len(SETS)} Alben"),
                ("ja", "ja", "アルバム", "検索", f"{ITEMS - 1} 件 · アルバム {len(SETS)} 件"),
                ("xx,fr-CA", "fr", "Albums", "Rechercher", f"{ITEMS - 1} éléments · {len(SETS)} albums"),
                ("xx", "en", "Sets", "Search", f"{ITEMS - 1} items · {len(SETS)} sets")]:
            with self.subTest(languages):
                self.browser.devtools("Emulation.setUserAgentOverride", userAgent=agent, acceptLanguage=languages)
                self.show("")
                self.summary(summary)
                self.assertEqual([language, sets, search], self.browser.run("""return [document.documentElement.lang,
                    document.getElementById('toSets').textContent, document.getElementById('search').placeholder]"""))
        self.browser.devtools("Emulation.setUserAgentOverride", userAgent=agent, acceptLanguage="en")

    def test_video_plays(self):
        film = self.rows("SELECT ItemId FROM backupmetadata WHERE ItemType = 'FlickrVideo'")[0][0]
        self.show(f"item={film}")
        self.browser.wait("document.querySelector('video')?.readyState >= 2")
        self.browser.run("const film = document.querySelector('video'); film.muted = true; return film.play()")
        self.browser.wait("document.querySelector('video').currentTime > 0.2")

    def test_the_next_run_appears_and_hostile_texts_stay_texts(self):
        listed = [line.split(None, 2) for line in self.order("list").splitlines()]
        changed = next(entry[1] for entry in listed if entry[0] == "set" and entry[2] == SETS[5])
        items = [row[0] for row in self.rows(
            "SELECT OriginalItemId FROM backupmetadata WHERE OriginalContainerId = ? ORDER BY ItemName", changed)]
        self.order("rename-set", id=changed, title="Renamed")
        self.order("retitle", id=items[0], title="Retitled")
        self.order("edit", id=items[1])
        self.back_up()
        self.show(f"set={changed}")
        self.browser.wait("[...document.querySelectorAll('.tile')].some((tile) => tile.textContent === 'Retitled')")
        self.assertEqual(self.text("h1"), "Renamed")
        self.browser.run("location.hash += `&item=${arguments[0]}_${arguments[1]}`", items[1], changed)
        self.browser.wait("document.getElementById('viewer').open")
        edited = self.rows("SELECT ItemUpdatedOn FROM backupmetadata WHERE OriginalItemId = ?", items[1])[0][0]
        self.assertIn(f"Changed\n{time.strftime('%B', time.strptime(edited[:7], '%Y-%m'))}", self.text("#details dl"))
        self.assertIn("Older versions\nUntil ", self.text("#details dl"))
        version = self.browser.run("return [...document.querySelectorAll('#details dd a')].at(-1).href")
        self.assertTrue(pathlib.Path(urllib.parse.unquote(version.removeprefix("file://"))).is_file(), version)

        with contextlib.closing(sqlite3.connect(self.device / "backup.db")) as database, database:
            for item, title in zip(items, HOSTILE):
                database.execute("UPDATE backupmetadata SET ItemName = ? WHERE OriginalItemId = ?",
                                 (title + ".jpg", item))
            database.execute("UPDATE backupmetadata SET ItemName = ? WHERE ItemId = ?", (HOSTILE[1], changed))
        record = next(path for path in self.device.rglob(".records/*.xml")
                      if f"<ID>{items[0]}_{changed}<" in path.read_text())
        escaped = [xml.sax.saxutils.escape(text) for text in HOSTILE]
        record.write_text(record.read_text()
                          .replace("<Description>", "<Description>" + "\n".join(escaped))
                          .replace("<Tags>", "<Tags>" + "".join(f"<Tag>{text}</Tag>" for text in escaped[:5])))
        self.flickr("gallery", "--device", self.device)
        self.show(f"set={changed}")
        self.browser.wait("document.querySelectorAll('.tile').length === arguments[0]", len(HOSTILE))
        self.assertEqual(self.text("h1"), HOSTILE[1])
        self.assertEqual(set(self.texts(".tile")), set(HOSTILE))
        self.browser.run("location.hash += `&item=${arguments[0]}_${arguments[1]}`", items[0], changed)
        self.browser.wait("document.getElementById('viewer').open")
        self.assertEqual(self.texts("#details h2"), HOSTILE[:1])
        self.assertEqual(self.texts("#details .text"), ["\n".join(HOSTILE)])
        self.assertEqual(self.texts("#details .tags a"), HOSTILE[:5])
        self.assertEqual(self.browser.run("return [...new Set([...document.links].map((link) => link.protocol))]"),
                         ["file:"])
        self.browser.run("document.querySelectorAll('#details .tags a')[2].click()")
        self.browser.wait("document.querySelector('h1').textContent === `“${arguments[0]}”`", HOSTILE[2])
        self.summary("2 items")
        # Nothing ran, nothing came from elsewhere, and nothing could: not even what is put into the page.
        outside = self.browser.run("""
            return performance.getEntriesByType('resource').map((e) => e.name)
                .filter((n) => !n.startsWith('file:'))""")
        self.assertEqual(outside, [])
        refused = self.browser.run("""
            const refused = [];
            document.addEventListener('securitypolicyviolation', (event) => refused.push(event.effectiveDirective));
            const script = document.createElement('script');
            script.textContent = 'window.owned = 2';
            document.head.append(script);
            new Image().src = 'http://127.0.0.1:9/x.png';
            fetch('http://127.0.0.1:9/').catch(() => {});
            return new Promise((done) => setTimeout(() => done(refused), 500))""")
        self.assertEqual(sorted(refused), ["connect-src", "img-src", "script-src-elem"])
        self.assertIsNone(self.browser.run("return window.owned"))
        self.browser.log()  # holds the refusals

    def test_no_size_scrolls_sideways(self):
        for width, height in [(320, 640), (768, 1024), (1440, 900), (3840, 2160)]:
            for fields in ["", "view=all"]:
                self.show(fields)
                self.browser.size(width, height)
                self.browser.wait("document.documentElement.scrollWidth <= innerWidth")

    @unittest.skipUnless(sys.argv[3:] and not IN_FIREFOX, "no folder for pictures is named")
    def test_shots(self):
        for name, width, height, dark, fields in [
                ("sets", 1024, 640, False, ""), ("timeline", 1024, 640, True, "view=all"),
                ("item", 390, 780, False, "view=all"), ("sets-narrow", 320, 640, True, ""),
                ("timeline-4k", 3840, 2160, False, "view=all")]:
            self.browser.dark(dark)
            self.show(fields)
            self.browser.size(width, height)
            time.sleep(4)
            if name == "item":
                self.browser.run("document.querySelector('.tile:not(.film)').click()")
                self.browser.wait("document.querySelector('.stage img:not(.rough)')?.naturalWidth")
                self.browser.run("document.getElementById('info').click()")
                time.sleep(1)
            for form in ("jpg", "png"):
                self.browser.shot(f"{sys.argv[3]}/gallery-{name}.{form}")
        self.browser.dark(False)


if __name__ == "__main__":
    if lacks := (firefox if IN_FIREFOX else browser).missing():
        print(f"There is no {lacks}: the gallery was not tried in a browser.")
        sys.exit(77)
    unittest.main(argv=[sys.argv[0], "-v"])
