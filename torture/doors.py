#!/usr/bin/env python3
"""Prepared devices and a hostile service: nothing outside the service folder is read, changed, made or removed, and
every call ends, by itself or when it is told to stop. The device belongs to the user who runs the program, and so does
what stands around it: only the program keeps it safe."""

import argparse
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import sqlite3
import stat
import struct
import subprocess
import tempfile
import threading
import time
from xml.sax.saxutils import escape

import rig
import service
from crash import Bench

PATIENCE = 6.0  # seconds after which a call is told to stop
MEMORY = 500 << 10  # KiB that a call may take
PRECIOUS = "precious 5b1f0c"
OWN = {"backup.db", "backup.db-wal", "backup.db-shm", ".backup.lock"}  # beside the service folder
FOLDER, RECORDS = rig.SERVICE, f"{rig.SERVICE}/{rig.RECORDS}"
LEDGER = f"{RECORDS}/.ledger.db"


def is_own(name):
    """What is the program's own, old databases among it."""
    return name in OWN or re.fullmatch(r"backup\.db\.(new|old(-[0-9]+)?)(-wal|-shm|-journal)?", name)


slowest_stop = 0.0


def peak(process):
    """The most memory that a process had so far, in KiB. What wait4() says counts what this one had at the fork."""
    try:
        found = re.search(r"VmHWM:\s*(\d+)", pathlib.Path(f"/proc/{process}/status").read_text())
    except OSError:
        return 0
    return int(found[1]) if found else 0


def call(program, *arguments, patience=PATIENCE):
    """Runs the program, tells it to stop when it does not end by itself, and looks at how it went."""
    global slowest_stop
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        process = subprocess.Popen([program.binary, *map(str, arguments)], stdin=subprocess.DEVNULL, stdout=out,
                                   stderr=err, env=program.environment())
        told, memory = None, 0
        began = time.monotonic()
        while process.poll() is None:
            memory = max(memory, peak(process.pid))
            now = time.monotonic()
            if told is None and now - began > patience:
                process.send_signal(signal.SIGINT)
                told = now
            if told is not None and now - told > service.STOP_LIMIT:
                process.kill()
            time.sleep(0.01)
        seconds = time.monotonic() - (told or began)
        out.seek(0), err.seek(0)
        run = rig.Run(process.returncode, out.read().decode(errors="replace"), err.read().decode(errors="replace"),
                      seconds)
    if told is not None:
        slowest_stop = max(slowest_stop, seconds)
        rig.require(seconds < service.STOP_LIMIT, f"{arguments[0]}: does not stop")
    # What only reads has nothing to end properly.
    ends = (0, 1, 2, 3, 130) if arguments[0] == "run" or told is None else (0, 1, 2, 3, 130, -signal.SIGINT)
    rig.require(run.status in ends, f"{arguments[0]}: no proper end: {run}")
    rig.require(run.status not in (1, 2, 3) or run.told() or run.out.strip(),
                f"{arguments[0]}: failed without a word: {run}")
    rig.require(memory < MEMORY, f"{arguments[0]}: takes {memory >> 10} MiB of memory")
    return run


class World:
    """A home with precious things, and a device beside it that somebody prepared."""

    def __init__(self, bench, prepare):
        self.root = bench.work / f"world-{next(tempfile._get_candidate_names())}"
        self.home, self.device = self.root / "home", self.root / "device"
        self.home.mkdir(parents=True)
        (self.home / "precious.txt").write_text(PRECIOUS)
        (self.home / "precious.xml").write_text(f"<media><ID>{PRECIOUS}</ID></media>")
        (self.home / "folder").mkdir()
        (self.home / "folder/inside.jpg").write_text(PRECIOUS)
        with sqlite3.connect(self.home / "user.db") as database:
            database.execute("CREATE TABLE parts (name TEXT)")
            database.execute("CREATE TABLE backupmetadata (name TEXT)")
            database.execute("INSERT INTO parts VALUES (?)", (PRECIOUS,))
        database.close()
        rig.copy_device(bench.first, self.device)
        (self.device / "holiday.txt").write_text("the user's own")
        prepare(self)
        self.before = self.snapshot()

    def snapshot(self):
        """Everything but what is below the service folder."""
        found = {}

        def look(path, relative):
            status = os.lstat(path)
            own = relative.startswith("device/") and (is_own(relative[7:]) or relative == f"device/{FOLDER}")
            if own:
                return
            if stat.S_ISDIR(status.st_mode):
                names = sorted(os.listdir(path))
                shown = [name for name in names
                         if relative != "device" or not (name == "Brightkettle" or is_own(name))]
                found[relative] = status.st_mode, shown if relative != "device/Brightkettle" else None
                for name in names:
                    look(f"{path}/{name}", f"{relative}/{name}" if relative else name)
            elif stat.S_ISREG(status.st_mode):
                content = rig.digest(path) if status.st_size < 1 << 20 else status.st_size
                found[relative] = status.st_mode, status.st_ino, status.st_mtime_ns, content
            elif stat.S_ISLNK(status.st_mode):
                found[relative] = os.readlink(path)
            else:
                found[relative] = status.st_mode, status.st_ino
        look(str(self.root), "")
        return found

    def require_untouched(self, after):
        now = self.snapshot()
        changed = sorted(path for path in self.before.keys() | now.keys() if self.before.get(path) != now.get(path))
        if after == "rebuild" and all(path.startswith("device/backup.db-journal") for path in changed[1:]):
            self.before, changed = now, []  # goes aside with its database, whatever it is
        rig.require(not changed, f"{after} changed outside the service folder: {changed}")

    def remove(self):
        shutil.rmtree(self.root, ignore_errors=True)


# The way of a backup on a prepared device, and that of somebody who has its databases made anew at once.
USUAL = [["status"], ["find", "one"], ["export", "--csv"], ["versions", "list"], ["verify"], ["run"], ["verify"]]
ANEW = [["rebuild"], ["run"], ["verify", "--repair"]]


def check_device(bench, prepare):
    for way in USUAL, ANEW:
        world = World(bench, prepare)
        try:
            for command in way:
                more = ["--credentials", bench.late.credentials, "--json"] if command == ["run"] else []
                run = call(bench.late, *command, "--device", world.device, *more)
                world.require_untouched(" ".join(command))
                # What is for programs holds characters as they are.
                shown = run.err if "--json" in more or command[0] == "export" else run.out + run.err
                rig.require(not re.search(r"[\x00-\x08\x0b-\x1f\x7f]", shown.replace("\r", "")),
                            f"{command[0]}: control characters shown: {shown!r}")
        finally:
            world.remove()


# Texts that stand for names; HOME is the way from the service folder to the precious things.
HOME = "../../../home"
HOSTILE = [f"{HOME}/precious.txt", f"{HOME}/folder", f"{HOME}/folder/inside.jpg", f"{HOME}/made", HOME, "..", ".", "",
           "Set/../../../../home/precious.txt", "out/precious.txt", "out", "a\0b", "\x1b[2J\x07", "/", "x" * 300,
           "y" * 1000000, b"\xff\xfe", ".records/.ledger.db", "../../holiday.txt", "ABSOLUTE/precious.txt", "-rf",
           "\n", None, 7]
NUMBERS = [-1, 0, 1, 2, 3, 2**62, -2**63, "text", None]


def open_database(world, name):
    return sqlite3.connect(world.device / name, isolation_level=None)


def each_text(name, table, column, key, value, variant):
    """Puts a value into a column of one row or of all, with what makes the next run look at it."""
    def prepare(world):
        text = value.replace("ABSOLUTE", str(world.home)) if isinstance(value, str) else value
        os.symlink(world.home, world.device / FOLDER / "out")
        database = open_database(world, name)
        # A file or folder that stands in the service folder itself: from there HOME leads out.
        first = {"files": "WHERE folder = 1", "folders": "WHERE parent = 1"}.get(table, "")
        only = f"WHERE ({key}) = (SELECT {key} FROM {table} {first} ORDER BY {key} LIMIT 1)"
        where = only if variant != "all" else ""
        try:
            if variant in ("pending", "stale") and table == "files":
                pending = {"pending": 1, "stale": 2}[variant]
                if variant == "pending" and column != "item":
                    database.execute("UPDATE files SET item = 'nobody_1'")
                database.execute(f"UPDATE files SET pending = {pending}")
            if variant in ("pending", "stale") and table == "folders":
                database.execute("UPDATE folders SET pending = 1 WHERE id > 1")
            database.execute(f"UPDATE OR REPLACE {table} SET {column} = ? {where}", (text,))
        except sqlite3.IntegrityError:
            pass  # a value that no row can have
        database.close()
    return prepare


def row_cases(bench):
    for name in LEDGER, "backup.db":
        database = sqlite3.connect(bench.first / name)
        named = database.execute("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name")
        tables = [row[0] for row in named]
        for table in tables:
            columns = list(database.execute(f"PRAGMA table_info({table})"))
            key = ", ".join(column[1] for column in columns if column[5])
            for column in columns:
                values = HOSTILE if column[2] == "TEXT" else NUMBERS
                for value in values:
                    for variant in ("one", "all") if name == "backup.db" else ("one", "pending", "stale"):
                        shown = value if not isinstance(value, (str, bytes)) or len(value) < 50 else value[:3]
                        yield f"{name.rpartition('/')[2]} {table}.{column[1]} {variant} {shown!r}", \
                            each_text(name, table, column[1], key, value, variant)
        database.close()


ENDLESS = "WITH RECURSIVE c (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c) SELECT count(*) FROM c"


def script(name, text):
    def prepare(world):
        database = open_database(world, name)
        database.executescript(text)
        database.close()
    return prepare


def schema_cases():
    for name, tables in (LEDGER, ("files", "folders", "state")), ("backup.db", ("backupmetadata", "containercounts")):
        short = name.rpartition("/")[2]
        for table in tables:
            for moment in "INSERT", "UPDATE", "DELETE":
                yield f"{short} trigger on {moment} of {table}", script(
                    name, f"CREATE TRIGGER x AFTER {moment} ON {table} BEGIN {ENDLESS}; END")
            yield f"{short} view for {table}", script(
                name, f"PRAGMA legacy_alter_table = 1; ALTER TABLE {table} RENAME TO was; "
                      f"CREATE VIEW {table} AS SELECT was.*, ({ENDLESS}) FROM was")
            yield f"{short} without {table}", script(name, f"DROP TABLE {table}")
            yield f"{short} {table} with a column more", script(
                name, f"ALTER TABLE {table} ADD COLUMN more TEXT DEFAULT 'x'")
            yield f"{short} {table} with an index on an expression", script(
                name, f"CREATE INDEX x ON {table} (abs(1))")
        yield f"{short} table parts", script(
            name, f"CREATE TABLE parts (name TEXT); INSERT INTO parts VALUES ('{PRECIOUS}')")
        yield f"{short} another version", script(name, "PRAGMA user_version = 99")
        yield f"{short} words of a virtual table", script(name, "CREATE VIRTUAL TABLE x USING fts4(a)")
        yield f"{short} super-journal", super_journal(name)
    yield "folders that are each other's parent", script(LEDGER, """
        INSERT INTO folders (id, parent, name, pending) VALUES (901, 902, 'a', 1), (902, 901, 'b', 1);
        INSERT INTO files VALUES (901, 'x.jpg', 'nobody', 1, '', '', 1)""")
    yield "folder that is its own parent", script(LEDGER, """
        INSERT INTO folders (id, parent, name, pending) VALUES (901, 901, 'a', 1);
        INSERT INTO files VALUES (901, 'x.jpg', 'nobody', 1, '', 'y.jpg', 1)""")
    yield "a million folders deep", script(LEDGER, """
        WITH RECURSIVE c (i) AS (SELECT 1000 UNION ALL SELECT i + 1 FROM c WHERE i < 101000)
        INSERT INTO folders (id, parent, name, pending) SELECT i + 1, i, 'a', 1 FROM c""")
    for size in 64, 512, 4096:
        for seed in range(3):
            yield f"rubbish of {size} bytes, {seed}", rubbish(size, seed)


def super_journal(name):
    """A journal to roll back that says that it belongs to a greater one: the library removes that file afterwards."""
    def prepare(world):
        database = open_database(world, name)
        database.execute("PRAGMA journal_mode = DELETE")
        pages, = database.execute("PRAGMA page_count").fetchone()
        size, = database.execute("PRAGMA page_size").fetchone()
        database.close()
        path = world.device / name
        other = os.fsencode(world.home / "precious.txt")
        magic = bytes.fromhex("d9d505f920a163d7")
        header = magic + struct.pack(">5I", 0, 0, pages, 512, size)
        total = sum(struct.unpack(f"{len(other)}b", other)) & 0xffffffff
        tail = struct.pack(">I", (1 << 30) // size + 1) + other + struct.pack(">2I", len(other), total) + magic
        path.with_name(f"{path.name}-journal").write_bytes(header.ljust(512, b"\0") + tail)
    return prepare


def rubbish(size, seed):
    def prepare(world):
        chance = random.Random(f"{size} {seed}")
        for name in LEDGER, "backup.db":
            data = bytearray((world.device / name).read_bytes())
            for _ in range(8):
                at = chance.randint(100, len(data) - size)
                data[at:at + size] = chance.randbytes(size)
            (world.device / name).write_bytes(data)
    return prepare


def put(path, kind):
    """Something else at the place of a file or a folder."""
    def prepare(world):
        place = world.device / path
        was_folder = place.is_dir()
        is_database = any(path.startswith(name) for name in ("backup.db", LEDGER))
        target = world.home / ("folder" if was_folder else "user.db" if is_database else
                               "precious.xml" if path.endswith(".xml") else "precious.txt")
        place.parent.mkdir(parents=True, exist_ok=True)
        if was_folder:
            shutil.rmtree(place)
        else:
            place.unlink(missing_ok=True)
        if kind == "link":
            os.symlink(target, place)
        elif kind == "link to nothing":
            os.symlink(world.home / "made", place)
        elif kind == "pipe":
            os.mkfifo(place)
        elif kind == "folder":
            (place / "inside").mkdir(parents=True)
            (place / "inside/file.txt").write_text("the user's own")
        elif kind == "hard link":
            os.link(world.home / "precious.txt" if was_folder else target, place)
        elif kind == "sparse file":
            with open(place, "wb") as file:
                file.truncate(3 << 30)
        elif kind == "socket":
            folder = os.open(place.parent, os.O_PATH)  # its own path is too long for an address
            with socket.socket(socket.AF_UNIX) as listener:
                listener.bind(f"/proc/self/fd/{folder}/{place.name}")
            os.close(folder)
        elif kind == "zeros without end":
            os.mknod(place, 0o666 | stat.S_IFCHR, os.makedev(1, 5))
    return prepare


def place_cases(bench):
    first, second = bench.states["first"].files, bench.states["second"].files
    places = list(first) + [path for path in second if path not in first]
    places += [rig.aside(path) for path in first if "." in pathlib.Path(path).name and rig.RECORDS not in path][:4]
    for name in "backup.db", LEDGER:
        places += [name, f"{name}-wal", f"{name}-shm", f"{name}-journal"]
    places += [".backup.lock", f"{RECORDS}/.part-folder", f"{FOLDER}/.part-folder"]
    kinds = ["link", "link to nothing", "pipe", "folder", "hard link", "sparse file", "socket"]
    # A device of the system's own can be made by root only, and is all that keeps a reader busy for ever.
    kinds += ["zeros without end"] if os.getuid() == 0 else []
    for path in dict.fromkeys(places):
        for kind in kinds:
            if kind != "socket" or len(pathlib.Path(path).name.encode()) < 100:
                yield f"{kind} at {path}", put(path, kind)


# ---- what the service sends


class Listener:
    """Somebody on the machine who takes every line for an order."""

    def __init__(self):
        self.heard, self.socket = b"", socket.create_server(("127.0.0.1", 0), backlog=64)
        self.address = "127.0.0.1:%d" % self.socket.getsockname()[1]
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        while True:
            try:
                connection, _ = self.socket.accept()
                with connection:
                    connection.settimeout(0.3)
                    try:
                        while data := connection.recv(65536):
                            self.heard += data
                    except OSError:
                        pass
            except OSError:
                return

    def lines(self):
        return [line.strip() for line in re.split(rb"[\r\n]", self.heard)]


ORDER = "SET pwned 1"
BREAKS = {"line feed": "&#10;", "return and line feed": "&#13;&#10;", "return": "&#13;",
          "encoded": "%0d%0a", "encoded twice": "%250a",
          "wide": "&#x10a;", "separator": "&#x2028;", "next line": "&#x85;", "white space": " HTTP/1.1&#10;"}
PARTS = {"query": "http://{0}/x?a={1}{2}{1}", "path": "http://{0}/{1}{2}{1}", "user": "http://a{1}{2}{1}@{0}/x",
         "host": "http://{0}{1}{2}{1}/x", "fragment": "http://{0}/x#a{1}{2}{1}", "port": "http://{0}{1}{2}/x",
         "scheme": "ht{1}{2}{1}tp://{0}/x"}


def check_address(work, build, case):
    part, line_break, kind = case
    stage = service.Stage(work, build, service.make_account())
    listener = Listener()
    try:
        address = PARTS[part].format(listener.address, BREAKS[line_break], ORDER)
        base = stage.service.base
        named = escape(address).replace("&amp;", "&")
        sizes = service.Account.sizes_xml(base, "1").replace(f'"{base}/{kind}/1"', f'"{named}"')
        sizes = service.http(sizes)
        stage.service.answer = lambda method, key, target: sizes if (method, key) == ("getSizes", "1") else None
        run = call_stage(stage)
        told = [line for line in listener.lines() if line.startswith(ORDER.split()[0].encode())]
        rig.require(not told, f"{told} reached the listener: {listener.heard}")
        requests = sum(line.startswith(b"GET ") for line in listener.lines())
        rig.require(requests <= listener.heard.count(b"\r\n\r\n"), f"half a request: {listener.heard}")
        rig.require(stage.items().keys() >= {"2_7", "5_8", "3_Anonymous"}, f"others are missing: {run}")
    finally:
        listener.socket.close()
        stage.close()


def call_stage(stage, patience=PATIENCE):
    run = call(stage.program, "run", "--device", stage.device, "--credentials", stage.program.credentials, "--json",
               "--new", patience=patience)
    stage.check_places()
    return run


HUGE = 20 << 20
HUGES = {
    "item's title": ("getPhotos", 'title="one"', lambda: f'title="{"x" * HUGE}"'),
    "item's tags": ("getPhotos", 'tags="a b"', lambda: f'tags="{"tag " * (HUGE // 4)}"'),
    "item's tag": ("getPhotos", 'tags="a b"', lambda: f'tags="{"x" * HUGE}"'),
    "item's description": ("getPhotos", ">d<", lambda: f'>{"x" * HUGE}<'),
    "item's id": ("getPhotos", 'id="1"', lambda: f'id="{"1" * HUGE}"'),
    "references": ("getPhotos", ">d<", lambda: f'>{"&amp;" * (HUGE // 5)}<'),
    "lines": ("getPhotos", ">d<", lambda: ">{}<".format("x\n" * (HUGE // 2))),
    "comment": ("getPhotos", "<photoset>", lambda: f'<photoset><!--{"x" * HUGE}-->'),
    "comments": ("getPhotos", "<photoset>", lambda: "<photoset>" + "<!-- -->" * (HUGE // 8)),
    "unclosed comment": ("getPhotos", "<photoset>", lambda: "<photoset><!--" + "x" * HUGE),
    "processing instruction": ("getPhotos", "<photoset>", lambda: f'<photoset><?x {"x" * HUGE}?>'),
    "CDATA": ("getPhotos", ">d<", lambda: f'><![CDATA[{"x" * HUGE}]]><'),
    "unclosed CDATA": ("getPhotos", ">d<", lambda: f'><![CDATA[{"x" * HUGE}'),
    "name of an element": ("getPhotos", "<photoset>", lambda: f'<photoset><{"x" * HUGE}/>'),
    "attributes": ("getPhotos", "<photoset>",
                   lambda: "<photoset " + " ".join(f'a{i}="b"' for i in range(HUGE // 12)) + ">"),
    "elements": ("getPhotos", "<photoset>", lambda: "<photoset>" + "<a/>" * (HUGE // 4)),
    "document type": ("getPhotos", "<rsp", lambda: f'<!DOCTYPE rsp [<!ENTITY a "{"x" * HUGE}">]><rsp'),
    "set's title": ("getList", "<title>Trip", lambda: f'<title>{"x" * HUGE}'),
    "set's id": ("getList", 'id="7"', lambda: f'id="{"7" * HUGE}"'),
    "address": ("getSizes", '/m/1"', lambda: f'/m/1{"x" * HUGE}"'),
}


def check_huge(work, build, name):
    """An answer of 20 MB; the run ends soon, or when it is told to."""
    point, old, make = HUGES[name]
    stage = service.Stage(work, build, service.make_account())
    try:
        wanted = {"getList": "", "getPhotos": "7", "getSizes": "1"}[point]
        good = {"getList": stage.service.account.sets_xml(), "getPhotos": stage.service.account.photos_xml("7"),
                "getSizes": service.Account.sizes_xml(stage.service.base, "1")}[point]
        rig.require(old in good, "nothing to replace")
        body = service.http(good.replace(old, make(), 1))
        stage.service.answer = lambda method, key, target: body if (method, key) == (point, wanted) else None
        call_stage(stage, patience=2)
        stage.require_complete()
    finally:
        stage.close()


IDS = ["methodflickr.photos.deletephoto_id123", "1&method=flickr.photos.delete",
       "1=2", "a b", "../x", "9;x", "é", "1+1", "%31",
       "x" * 5000 + ".", "'", "1\u202e", "1.2"]
# The service's own letters: nothing else is asked for.
PLAIN = re.compile(r"[A-Za-z0-9@_-]+")


def check_id(work, build, case):
    """An id with other characters is asked for nowhere, and told; all others are backed up."""
    kind, strange = case
    account = service.make_account()
    if kind == "set":
        account.sets[strange] = ("Strange", {"9": "nine"})
    elif kind == "item":
        account.sets["7"][1][strange] = "strange"
    stage = service.Stage(work, build, account)
    targets = []
    try:
        cover = service.http(account.sets_xml().replace('primary="1"', f"primary={service.quoteattr(strange)}", 1))

        def note(method, key, target):
            targets.append(target)
            return cover if (kind, method) == ("cover", "getList") else None
        stage.service.answer = note
        run = call_stage(stage)
        for target in targets:
            for name, value in service.urllib.parse.parse_qsl(service.urllib.parse.urlsplit(target).query):
                asked = name in ("photo_id", "photoset_id") and value
                rig.require(not asked or PLAIN.fullmatch(value), f"asked for: {value!r}")
        good = {"1_7", "2_7", "5_8", "3_Anonymous"}
        rig.require(stage.items().keys() >= good, f"others are missing: {sorted(stage.items())} {run}")
        rig.require(kind == "cover" or run.status == 1 and run.told(), f"not told: {run}")
        verified = stage.program.verify(stage.device)
        rig.require(verified.status == 0, f"verify: {verified}")
    finally:
        stage.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--cases", type=int, help="so many of each kind; all when left out")
    parser.add_argument("--only", default="", help="cases that hold this text")
    parser.add_argument("--kinds", default="rows,schemas,places,addresses,huge,ids", help="only these")
    options = parser.parse_args()

    counts, failures = {}, 0
    with rig.work_folder("doors") as work:
        bench = Bench(work, options.build)
        kinds = {
            "rows": (dict(row_cases(bench)), lambda case: check_device(bench, case)),
            "schemas": (dict(schema_cases()), lambda case: check_device(bench, case)),
            "places": (dict(place_cases(bench)), lambda case: check_device(bench, case)),
            "addresses": ({f"address {part}, {line}, {kind}": (part, line, kind)
                           for part in PARTS for line in BREAKS for kind in "mt"},
                          lambda case: check_address(work, options.build, case)),
            "huge": ({f"huge {name}": name for name in HUGES}, lambda case: check_huge(work, options.build, case)),
            "ids": ({f"id of {kind} {strange[:40]!r}": (kind, strange)
                     for kind in ("set", "item", "cover") for strange in IDS},
                    lambda case: check_id(work, options.build, case))}
        for kind in options.kinds.split(","):
            cases, check = kinds[kind]
            names = [name for name in cases if options.only in name]
            names = [names[i - 1] for i in rig.spread(len(names), options.cases)]
            failures += rig.each(names, lambda name, cases=cases, check=check: check(cases[name]))
            counts[kind] = len(names)
    rig.finish("doors", failures, **counts, slowest_stop_s=round(slowest_stop, 2))


if __name__ == "__main__":
    main()
