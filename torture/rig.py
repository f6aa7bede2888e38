"""What the torture tests have in common: the program, a simulated account, devices and how to compare them."""

import concurrent.futures
import contextlib
import copy
import hashlib
import json
import os
import pathlib
import random
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse
import urllib.request
import xml.dom.minidom

SERVICE = "Brightkettle/My Flickr Items"
TODAY = False  # services are those of today, so that runs go through the gateway
RECORDS = ".records"
VERSIONS = ".versions"


class Failed(Exception):
    """A promise that was not kept."""


def require(condition, message):
    if not condition:
        raise Failed(message)


class Run:
    """How one call of the program ended."""

    def __init__(self, status, out, err, seconds):
        self.status, self.out, self.err, self.seconds = status, out, err, seconds

    @property
    def killed(self):
        return self.status == -signal.SIGKILL

    @property
    def summary(self):
        try:
            return json.loads(self.out)
        except ValueError:
            return None

    def told(self):
        """Everything that the run says went wrong."""
        summary = self.summary
        if summary is None:
            return [self.err.strip()] if self.err.strip() else []
        if "error" in summary:  # not done at all
            return [summary["error"]]
        named = [f'{f["set"]}/{f["name"]}: {f["reason"]}' for f in summary["failures"]]
        return named + summary["errors"]

    def __str__(self):
        return f"status {self.status} after {self.seconds:.1f} s\n{self.out[-3000:]}{self.err[-3000:]}"


COPYING = threading.Lock()


def whole_application(work, build):
    """The work's own copy of the application, which a build meanwhile does not change."""
    whole = pathlib.Path(work) / "application"
    with COPYING:
        if not whole.exists():
            # By another process: a program that is written by this one cannot be started while any child, started
            # at that moment by another thread, still has the file open.
            subprocess.run(["cp", "-a", pathlib.Path(build) / "flickr-backup.app", whole], check=True)
    return whole


class Program:
    """An application folder of its own, configured for one address, that backs up to any number of devices. Without an
    address the credentials lead to the service of today."""

    def __init__(self, work, build, url, credentials, retries=2):
        self.folder = pathlib.Path(work) / f"{next(tempfile._get_candidate_names())}.app"
        # The files are links to those of one copy: hundreds of copies would fill the memory in which work lies.
        subprocess.run(["cp", "-al", whole_application(work, build), self.folder], check=True)
        self.binary = self.folder / "flickr-backup"
        self.faults = pathlib.Path(build) / "torture/libfaultfs.so"
        self.credentials, self.user = credentials, None
        self.state = self.folder / "state/flickr-backup"  # the user's, with the log
        if url is None:
            return
        done = self.call("configure", "--data-url", url, "--retries", str(retries), "--credentials", credentials)
        require(done.status == 0, f"configure: {done}")

    def for_user(self, work, user):
        """A copy of this program that runs as another user."""
        other = copy.copy(self)
        other.folder = pathlib.Path(work) / f"{self.folder.stem}-{user}.app"
        subprocess.run(["cp", "-a", self.folder, other.folder], check=True)
        other.binary, other.state = other.folder / "flickr-backup", other.folder / "state/flickr-backup"
        other.credentials = shutil.copy2(self.credentials, other.folder / "credentials.ini")
        subprocess.run(["chown", "-R", f"{user}:{user}", other.folder], check=True)
        os.chmod(work, 0o755)
        other.user = user
        return other

    def environment(self, **more):
        """With settings and a log of its own, whoever runs it."""
        return dict(os.environ, XDG_CONFIG_HOME=str(self.folder / "config"),
                    XDG_STATE_HOME=str(self.folder / "state"), **more)

    def start(self, *arguments, faults=None, env=None):
        for count in self.state.glob("requests-*"):  # more runs than an hour's calls are enough for
            count.unlink(missing_ok=True)
        environment = self.environment(**(env or {}))
        if faults:
            preload = [environment.get("LD_PRELOAD"), str(self.faults)]
            environment["LD_PRELOAD"] = ":".join(filter(None, preload))
            environment.update({f"FAULT_{key.upper()}": str(value) for key, value in faults.items()})
        return subprocess.Popen([self.binary, *map(str, arguments)], stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment, user=self.user,
                                group=self.user)

    def call(self, *arguments, faults=None, timeout=120, env=None):
        began = time.monotonic()
        process = self.start(*arguments, faults=faults, env=env)
        try:
            out, err = process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            out, err = process.communicate()
            raise Failed(f"still running after {timeout} s: {arguments}\n{err.decode(errors='replace')[-2000:]}")
        return Run(process.returncode, out.decode(errors="replace"), err.decode(errors="replace"),
                   time.monotonic() - began)

    # Without the gallery, which is tried by itself: it can be made anew at any time and follows the run. Devices
    # are made anew at the paths of others.
    def backup(self, device, **options):
        return self.call("run", "--device", device, "--credentials", self.credentials, "--json", "--no-gallery",
                         "--new", **options)

    def start_backup(self, device, **options):
        return self.start("run", "--device", device, "--credentials", self.credentials, "--json", "--no-gallery",
                          "--new", **options)

    def verify(self, device):
        return self.call("verify", "--device", device)

    def log(self):
        path = self.state / "NVHLDevLog.log"
        return path.read_text(errors="replace") if path.exists() else ""


class Sim:
    """A flickr-sim process, stopped with this one at the latest."""

    def __init__(self, work, build, *arguments):
        name = next(tempfile._get_candidate_names())
        self.credentials = pathlib.Path(work) / f"{name}.ini"
        ready = pathlib.Path(work) / f"{name}.url"
        self.process = subprocess.Popen(
            [pathlib.Path(build) / "sim/flickr-sim", "--exit-with-parent", "--ready-file", ready,
             "--print-credentials-file", self.credentials, *map(str, arguments),
             *(["--today", "--ca-file", self.credentials.with_suffix(".pem")] if TODAY else [])],
            stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        for _ in range(400):
            if ready.exists():
                break
            require(self.process.poll() is None, "flickr-sim does not start")
            time.sleep(0.025)
        url, self.word = ready.read_text().split()[:2]
        self.url, self.base = None if TODAY else url, url.replace("/services/rest/", "")

    def order(self, command, **parameters):
        query = urllib.parse.urlencode(dict(parameters, word=self.word))
        with urllib.request.urlopen(f"{self.base}/sim/{command}?{query}", timeout=20) as answer:
            return answer.read().decode().strip()

    def stop(self):
        self.process.terminate()
        self.process.wait()


def work_folder(name, on_disk=False):
    """A folder that is removed at the end, in memory unless it has to be on a disk."""
    base = "/dev/shm" if not on_disk and os.path.isdir("/dev/shm") else None
    return tempfile.TemporaryDirectory(prefix=f"torture-{name}-", dir=base, ignore_cleanup_errors=True)


def digest(path):
    return hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest()


def is_own(relative):
    """The stand-in's bookkeeping, which says the same in other bytes."""
    name = relative.name
    return name == ".backup.lock" or name.startswith("backup.db") or name.startswith(".ledger.db")


def files_of(device):
    """All that stands on a device, by relative path: a file's digest, "/" for a folder, or a link's target."""
    root, found = pathlib.Path(device), {}
    for folder, names, files in os.walk(root):
        here = pathlib.Path(folder)
        for name in names:
            path = here / name
            found[str(path.relative_to(root))] = f"-> {os.readlink(path)}" if path.is_symlink() else "/"
        for name in files:
            path = here / name
            if not is_own(path.relative_to(root)):
                found[str(path.relative_to(root))] = digest(path)
    return found


def query(path, statement):
    address = f"file:{urllib.parse.quote(str(path))}?mode=ro"
    with contextlib.closing(sqlite3.connect(address, uri=True)) as connection:
        connection.row_factory = sqlite3.Row
        return [dict(row) for row in connection.execute(statement)]


def rows_of(device):
    """The database's rows without the times at which a run wrote them; a folder's are all of that kind."""
    rows = []
    for row in query(f"{device}/backup.db", "SELECT * FROM backupmetadata ORDER BY ItemId"):
        row.pop("NameKey", None)
        if row["ItemType"] == "FlickrFolder":
            row.pop("CreatedOn"), row.pop("ItemUpdatedOn")
        rows.append(row)
    return rows


def ledger_of(device):
    """What the file service knows of its files, without what it keeps for its own recovery."""
    path = pathlib.Path(device) / SERVICE / RECORDS / ".ledger.db"
    return query(path, """
        WITH RECURSIVE paths (id, path, made) AS (SELECT id, '', made FROM folders WHERE parent = 0 UNION ALL
            SELECT folders.id, paths.path || folders.name || '/', folders.made FROM folders
            JOIN paths ON folders.parent = paths.id)
        SELECT path, name, item, size, checksum FROM paths JOIN files ON files.folder = paths.id
        UNION SELECT path, '', '', made, '' FROM paths ORDER BY 1, 2""")


def versions_of(device):
    """The ledger's older versions by path, each with the name that it has yet to leave."""
    path = pathlib.Path(device) / SERVICE / RECORDS / ".ledger.db"
    rows = query(path, """
        WITH RECURSIVE paths (id, path) AS (SELECT id, '' FROM folders WHERE parent = 0 UNION ALL
            SELECT folders.id, paths.path || folders.name || '/' FROM folders JOIN paths ON folders.parent = paths.id)
        SELECT path, name, aside FROM paths JOIN versions ON versions.folder = paths.id""")
    return {f"{SERVICE}/{row['path']}{VERSIONS}/{row['name']}": row["aside"] for row in rows}


def counts_of(device):
    return query(f"{device}/backup.db", "SELECT * FROM containercounts WHERE Items <> 0 ORDER BY Folder")


class State:
    """A device at rest, to be compared with another."""

    def __init__(self, device):
        self.files, self.rows = files_of(device), rows_of(device)
        self.ledger, self.counts = ledger_of(device), counts_of(device)
        self.current = {path: content for path, content in self.files.items() if VERSIONS not in path.split("/")}
        kept = {path for path, content in self.files.items() if pathlib.Path(path).parent.name == VERSIONS
                and content != "/"}
        rows = versions_of(device)
        require(rows == dict.fromkeys(kept, ""), f"the ledger's older versions are not those that are there: {rows}")
        self.kept = {self.files[path] for path in kept}

    def media(self):
        """The bytes of all items."""
        return {self.files[str(pathlib.Path(SERVICE, "" if row["OriginalContainerId"] == "Anonymous"
                                            else row["DerivedContainerName"], row["DerivedItemName"]))]
                for row in self.rows if row["ItemType"] != "FlickrFolder"}

    def require_equal(self, other):
        """Older versions may be there that the other device does not have: a run that was cut off may have put
        there what the next one replaced."""
        mine, theirs = self.current, other.current
        require(other.kept <= self.kept, f"{len(other.kept - self.kept)} older versions are missing")
        if mine != theirs:
            lines = [f"{'+' if path in theirs else '-'} {path}" for path in sorted(set(mine) ^ set(theirs))]
            lines += [f"! {path}" for path in sorted(set(mine) & set(theirs)) if mine[path] != theirs[path]]
            raise Failed("the device differs (+ only there, - missing, ! other bytes):\n" + "\n".join(lines))
        for name in "rows", "ledger", "counts":
            mine, theirs = getattr(self, name), getattr(other, name)
            different = [pair for pair in zip(mine, theirs) if pair[0] != pair[1]]
            require(mine == theirs, f"the {name} differ, {len(mine)} and {len(theirs)}: {different[:2]}")

    def contents(self):
        """For each item the bytes of its media and of its thumbnails, whatever their names."""
        held = {row["ItemId"]: set() for row in self.rows}
        for row in self.rows:
            folder = "" if row["OriginalContainerId"] == "Anonymous" else row["DerivedContainerName"]
            held[row["ItemId"]].add(self.files.get(str(pathlib.Path(SERVICE, folder, row["DerivedItemName"]))))
        for path, content in self.files.items():
            item = next((item for item in held if pathlib.Path(path).stem.endswith(f"_{item}")), None)
            if item and not {RECORDS, VERSIONS} & set(path.split("/")):
                held[item].add(content)
        return held

    def require_alike(self, other):
        """Equal but for the numbers that tell equal names apart: they go by the order in which items came."""
        require(self.contents() == other.contents(), "the items differ")
        require(other.kept <= self.kept, f"{len(other.kept - self.kept)} older versions are missing")
        mine, theirs = self.current, other.current
        more = {path for path in set(mine) ^ set(theirs) if path != f"{SERVICE}/Anonymous"}  # always empty
        require(sum(path in mine for path in more) * 2 == len(more), f"leftovers: {sorted(more)}")
        require(self.counts == other.counts, f"the counts differ: {self.counts} and {other.counts}")


def aside(name):
    base, dot, extension = name.rpartition(".")
    return f"{base}_Old.{extension}" if dot else f"{name}_Old"


def require_sound(device, states, folder_records=True):
    """What has to hold after a kill at any moment, before anything is put in order: the database is sound, no
    final name holds anything but a whole file, and every recorded item is there in some version, under its
    recorded name or on the way from or to it. The records of folders are not flushed: each run writes them again."""
    database = pathlib.Path(device) / "backup.db"
    root = pathlib.Path(device) / SERVICE
    whole = {digest for state in states for path, digest in state.files.items()}
    for path, content in files_of(device).items():
        name = pathlib.Path(path).name
        if content == "/" or name.startswith(".part-"):
            continue
        if name == ".folder.xml" and not folder_records:
            continue
        if name == ".account":  # tells nothing when it is not whole
            continue
        if f"/{RECORDS}/" in path:
            xml.dom.minidom.parse(str(pathlib.Path(device) / path))
        else:
            require(content in whole, f"no version of any file: {path}")
    if not database.exists():
        return
    require(query_writable(database, "PRAGMA integrity_check") == "ok", "the database is damaged")
    if not query_writable(database, "SELECT name FROM sqlite_master WHERE name = 'backupmetadata'"):
        return
    known = {}
    for rows in [state.rows for state in states]:
        for row in rows:
            known.setdefault(row["ItemId"], []).append(row)
    try:
        ledger = ledger_of(device)
    except sqlite3.OperationalError:  # it is just being made, so that nothing is kept by it yet
        ledger = []
    for row in rows_of(device):
        if row["ItemType"] == "FlickrFolder":
            continue
        places = set()
        for version in known.get(row["ItemId"], []) + [row]:
            for other in known.get(row["ItemId"], []) + [row]:
                folder = "" if other["OriginalContainerId"] == "Anonymous" else other["DerivedContainerName"]
                places |= {root / folder / version["DerivedItemName"],
                           root / folder / aside(version["DerivedItemName"])}
        # A version that was replaced is kept under a name of the file service's own, with its record, or, when the
        # power went between the two, with its row in the ledger, which is on the disk before.
        kept = [record for folder in {place.parent for place in places}
                for record in folder.glob(f"{RECORDS}/.kept-*.xml")
                if f"<ID>{row['ItemId']}</ID>" in record.read_text() and (folder / record.stem).is_file()]
        kept += [entry for entry in ledger if entry["item"] == row["ItemId"] and entry["name"].startswith(".kept-")
                 and (root / entry["path"] / entry["name"]).is_file()]
        require(kept or any(place.is_file() for place in places), f"no file of a recorded item: {row}")


def require_held(device, contents, moment):
    """No bytes that a user had are nowhere: under their name, aside, or as an older version."""
    lost = contents - set(files_of(device).values())
    require(not lost, f"{len(lost)} files are nowhere {moment}")


def query_writable(path, statement):
    """The first value, after SQLite's own recovery: on a copy, so that the program finds what the kill left."""
    with tempfile.TemporaryDirectory() as folder:
        for suffix in "", "-wal", "-journal":
            if os.path.exists(f"{path}{suffix}"):
                shutil.copy(f"{path}{suffix}", f"{folder}/copy{suffix}")
        connection = sqlite3.connect(f"{folder}/copy")
        try:
            row = connection.execute(statement).fetchone()
            return row[0] if row else None
        finally:
            connection.close()


def copy_device(source, target):
    subprocess.run(["cp", "-a", "--reflink=auto", source, target], check=True)
    return target


def change_account(sim):
    """Everything that can happen to an account between two runs, once."""
    listed = [line.split(maxsplit=2) for line in sim.order("list").splitlines()]
    sets = [entry[1] for entry in listed if entry[0] == "set"]
    items = [entry[1] for entry in listed if entry[0] in ("photo", "video")]
    videos = [entry[1] for entry in listed if entry[0] == "video"]
    sim.order("edit", id=items[0])
    sim.order("retitle", id=items[1], title="quite another title")
    sim.order("edit", id=items[-1])
    if videos:
        sim.order("edit", id=videos[0])
    sim.order("add", set=sets[0], title="new one")
    sim.order("add", set=sets[-1], title="new clip", media="video", bytes=30000)
    sim.order("add", set="none", title="loose and new")
    sim.order("rename-set", id=sets[-1], title="Renamed: a/set")
    added = sim.order("add-set", title="A set of today")
    sim.order("add", set=added, title="first")
    sim.order("add", set=added, title="first")


def spread(count, wanted, seed=1):
    """So many numbers from 1 to count, over the whole range, or all of them for None."""
    if not wanted or not count:
        return list(range(1, count + 1)) if wanted is None else []
    if wanted >= count:
        return list(range(1, count + 1))
    chance = random.Random(seed)
    step = count / wanted
    return sorted({min(count, 1 + int(i * step + chance.random() * step)) for i in range(wanted)})


def each(cases, check, workers=2):
    """Runs check(case) for all cases, some at a time; prints and counts those that fail."""
    failures = 0
    with concurrent.futures.ThreadPoolExecutor(workers) as pool:
        for case, future in [(case, pool.submit(check, case)) for case in cases]:
            try:
                future.result()
            except Exception as failure:  # A test's own mistake is a failure too.
                failures += 1
                print(f"FAILED {case}: {type(failure).__name__}: {failure}", flush=True)
    return failures


def finish(name, failures, **counts):
    text = ", ".join(f"{value} {key.replace('_', ' ')}" for key, value in counts.items())
    print(f"{name}: {text}, {failures} failed", flush=True)
    sys.exit(1 if failures else 0)
