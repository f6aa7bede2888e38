#!/usr/bin/env python3
"""Cuts the power at any moment of a run, on paper: the run's calls on the device are recorded with their data, and
from the record come the states that a disk may be in when the power is back. Each is given to the next run.

What a disk may hold. At a cut before the call of number t, everything that was flushed is on the disk; of what the
calls before t did since, any part may be there and any may be missing. That is decided one by one

  for each block of 4 KiB of each file: the disk has what the block held at some moment between the file's last flush
  and the cut. A block is written whole or not at all.

  for each file's length: as the blocks, and without regard to them. Where a file is longer than what reached it, it
  holds zeros or, without a journal, whatever lay there.

  for each change of a name, which is one change: a file that is renamed has its old name or its new one, and one that
  took another's place leaves nobody without a file. Names are ordered by one of two models:

  journal    Names and cut files reach the disk in their order, so that the disk has all of them up to some moment:
             ext4, XFS, NTFS, APFS, HFS+. A flush of a file or of a folder takes with it what came before the last
             change of this very file or folder, and no more: a file that did not change since the journal was
             written last has nothing to wait for. fdatasync does so only for a file that was made or has grown.
  unordered  Each name by itself: exFAT, FAT, ext2. A change of names is safe once the folder of the new name was
             flushed; flushing a file keeps its bytes and not its name. One file's own changes keep their order. A
             name that was given away twice belongs to the later one if that change arrived, whether or not the
             earlier owner got another name before: then nothing leads to him any more.

sync_file_range begins a transfer and promises nothing, so it counts for nothing. SQLite's shared memory (-shm) is
made anew by whoever opens the database first, so its bytes do not matter.

A state has a case, (walk, model, cut before the call, seed); the seed decides what is missing. Two numbers more say
where the run that follows is cut, and what is missing then. --case repeats one; with TORTURE_KEEP set, a device that
fails is kept as it was cut and as the next run left it."""

import argparse
import copy
import functools
import hashlib
import os
import pathlib
import random
import shutil
import struct
import tempfile
import threading
import zlib

import rig
import service

MODELS = "journal", "unordered"
BLOCK = 4096
OLD = 10**9  # the time of files that no run has written since the cut, in seconds
NAMES = "make", "drop", "move"


class Node:
    """A file or a folder, whatever its name."""

    def __init__(self, is_folder, data=b""):
        self.is_folder, self.data, self.changes = is_folder, data, []  # changes: of a file's bytes, by index


class Event:
    """One call. node is what it is about; folder and name where it stands then, source and before where it stood."""

    def __init__(self, kind, node, folder=None, name="", source=None, before="", offset=0, data=b"", grows=False):
        self.kind, self.node, self.folder, self.name = kind, node, folder, name
        self.source, self.before = source, before
        self.offset, self.data, self.grows = offset, data, grows


class Record:
    """A run's calls, and the device that they were made on."""

    HEAD = struct.Struct("=Q5q")

    def __init__(self, path, device, start, after):
        """The record's path, the device as the calls name it, and copies of it from before and behind the run."""
        self.root, self.names, self.inodes, self.sizes = Node(True), {}, {}, {}
        self.device, self.events = str(device), []
        self.names[self.root] = {}
        self._load(self.root, pathlib.Path(start))
        self.start = {folder: dict(entries) for folder, entries in self.names.items()}
        text, at = path.read_bytes(), 0
        while at < len(text):
            inode, offset, size, flags, names, length = self.HEAD.unpack_from(text, at)
            at += self.HEAD.size
            call, path, source, _ = text[at:at + names].split(b"\0")
            self._add(call.decode(), inode, offset, size, flags, os.fsdecode(path), os.fsdecode(source),
                      text[at + names:at + names + length])
            at += names + length
        for index, event in enumerate(self.events):
            if event.kind in ("write", "cut"):
                event.node.changes.append(index)
        self._require_explained(after)

    def _load(self, folder, path):
        for entry in os.scandir(path):
            content = b"" if entry.is_dir() else pathlib.Path(entry).read_bytes()
            node = Node(entry.is_dir(follow_symlinks=False), content)
            self.names[folder][entry.name] = node
            self.sizes[node] = len(node.data)
            if node.is_folder:
                self.names[node] = {}
                self._load(node, entry.path)

    def _find(self, path):
        """The folder of a path, its name, and what stands there."""
        rig.require(path.startswith(self.device), f"recorded elsewhere: {path}")
        folder, name, node = None, "", self.root
        for part in filter(None, path[len(self.device):].split("/")):
            folder, name = node, part
            node = self.names[folder].get(name) if folder else None
        return folder, name, node

    def _add(self, call, inode, offset, size, flags, path, source, data):
        add = self.events.append
        call = call.removesuffix("64")
        if call in ("write", "pwrite", "ftruncate", "fallocate", "fsync", "fdatasync", "syncfs"):
            folder, name, node = self._find(path) if inode not in self.inodes else (None, "", self.inodes[inode])
            if node is None:
                return  # a file of no name any more
            if not node.is_folder:
                self.inodes[inode] = node
            if call in ("write", "pwrite"):
                add(Event("write", node, offset=offset, data=data, grows=offset + size > self.sizes[node]))
                self.sizes[node] = max(self.sizes[node], offset + size)
            elif call == "fallocate":
                rig.require(flags == 0, "fallocate with a mode")
                add(Event("write", node, offset=max(size, self.sizes[node]), grows=size > self.sizes[node]))
                self.sizes[node] = max(self.sizes[node], size)
            elif call == "ftruncate":
                self._cut(node, size)
            else:
                add(Event(call, node))
            return
        folder, name, node = self._find(path)
        if call in ("open", "openat"):
            rig.require(not flags & (os.O_SYNC | os.O_DSYNC), "writes that flush are not modelled")
            rig.require(flags & os.O_TMPFILE != os.O_TMPFILE, "files without a name are not modelled")
            if node is None and flags & os.O_CREAT:
                node = self._make(Node(False), folder, name)
            elif flags & os.O_TRUNC:
                self._cut(node, 0)
            self.inodes[inode] = node
        elif call in ("mkdir", "mkdirat"):
            self.names[self._make(Node(True), folder, name)] = {}
        elif call in ("unlink", "unlinkat", "remove", "rmdir"):
            add(Event("drop", self.names[folder].pop(name), folder, name))
        elif call in ("rename", "renameat", "renameat2"):
            source, before, node = self._find(source)
            add(Event("move", self.names[source].pop(before), folder, name, source, before))
            self.names[folder][name] = node
        else:
            raise rig.Failed(f"{call} is not modelled: {path}")

    def _make(self, node, folder, name):
        self.sizes[node] = 0
        self.names[folder][name] = node
        self.events.append(Event("make", node, folder, name))
        return node

    def _cut(self, node, size):
        if size != self.sizes[node]:
            self.events.append(Event("cut", node, offset=size, grows=True))
            self.sizes[node] = size

    def _require_explained(self, device):
        """The calls in the record have to lead to the device that the run left."""
        held = Cut(self, "journal", len(self.events), None).tree()
        held = {path: data for path, data in held.items() if not path.endswith("-shm")}
        seen = {}
        for path in pathlib.Path(device).rglob("*"):
            if not path.name.endswith("-shm"):
                seen[str(path.relative_to(device))] = None if path.is_dir() else path.read_bytes()
        different = [path for path in held.keys() | seen.keys() if held.get(path, 0) != seen.get(path, 0)]
        rig.require(not different, f"the record does not explain {sorted(different)}")


class Cut:
    """The disk after the power was cut before the event of number at. chance None: everything is there."""

    def __init__(self, record, model, at, chance):
        self.record, self.model, self.at, self.chance = record, model, at, chance
        self.flushed = {}  # for each node, the last flush of its bytes
        self.safe = self._safe_names()
        self.kept = self._keep_names(*self._mood())

    def _safe_names(self):
        """Numbers of those changes of names, and cuts, that are certain to be on the disk."""
        changed, grown, pending, safe, until = {}, {}, [], set(), -1
        for index, event in enumerate(self.record.events[:self.at]):
            if event.kind in NAMES or event.kind == "cut":
                pending.append(index)
            if event.kind in ("fsync", "fdatasync", "syncfs"):
                nodes = [event.node] if event.kind != "syncfs" else list(changed)
                for node in nodes:
                    self.flushed[node] = index
                    until = max(until, (grown if event.kind == "fdatasync" else changed).get(node, -1))
                if self.model == "unordered":
                    safe |= {i for i in pending if self.record.events[i].folder in nodes}
                    moved = {self.record.events[i].node for i in safe}
                    # What came before on the same file is overtaken.
                    last = {self.record.events[i].node: i for i in sorted(safe)}
                    safe |= {i for i in pending if self.record.events[i].node in moved
                             and i < last[self.record.events[i].node]}
                continue
            for node in event.node, event.folder, event.source:
                if node is not None:
                    changed[node] = index
            if event.grows or event.kind == "make":
                grown[event.node] = index
        return {i for i in pending if i <= until} if self.model == "journal" else safe

    def _mood(self):
        """How likely a name and a block are to have arrived; or that each file has its own moment."""
        if self.chance is None:
            return 1, 1
        moods = [(0, 0), (1, 1), (1, 0), (0, 1), (.5, .5), (.9, .9), (.1, .9), (.9, .1), (.95, 1), (1, .95)]
        self.by_moment = self.chance.random() < .4
        return self.chance.choice(moods)

    def _keep_names(self, names, blocks):
        self.blocks = blocks
        events = self.record.events
        doubtful = [i for i in range(self.at)
                    if (events[i].kind in NAMES or (events[i].kind == "cut" and self.model == "journal"))
                    and i not in self.safe]
        if self.chance is None:
            return self.safe | set(doubtful)
        if self.model == "journal":
            count = {0: 0, 1: len(doubtful)}.get(names, self.chance.randint(0, len(doubtful)))
            return self.safe | set(doubtful[:count])
        kept, stopped, moment = set(self.safe), set(), {}
        for i in doubtful:
            arrived = self.chance.random() < names
            if self.by_moment:
                arrived = i <= moment.setdefault(events[i].folder, self.chance.randint(doubtful[0] - 1, self.at))
            if not arrived:
                stopped.add(events[i].node)
            elif events[i].node not in stopped:
                kept.add(i)
        return kept

    def names(self):
        """The folders' entries."""
        found = {folder: dict(entries) for folder, entries in self.record.start.items()}
        for i in sorted(self.kept):
            event = self.record.events[i]
            if event.kind == "cut":
                continue
            if event.kind == "drop":
                if found.setdefault(event.folder, {}).get(event.name) is event.node:
                    del found[event.folder][event.name]
                continue
            if event.kind == "move" and found.setdefault(event.source, {}).get(event.before) is event.node:
                del found[event.source][event.before]
            found.setdefault(event.folder, {})[event.name] = event.node
        return found

    def data(self, node):
        """What a file holds."""
        changes = [i for i in node.changes if i < self.at]
        if not changes:
            return node.data
        flushed = self.flushed.get(node, -1)
        doubtful = [i for i in changes if i > flushed]
        moments = {}
        whole = self.chance.randint(flushed, self.at) if self.chance and self.by_moment and doubtful else None

        def moment(block):
            """The changes from which on have not reached this block. The length is the block None."""
            if self.chance is None or not doubtful:
                return self.at
            if whole is not None:
                return whole
            if block not in moments:
                arrived = self.chance.random() < self.blocks
                moments[block] = self.at if arrived else self.chance.choice([flushed + 1] + doubtful)
            return moments[block]

        text, size, lost = bytearray(node.data), len(node.data), []
        written = bytearray(b"\1" * len(text))
        for i in changes:
            event = self.record.events[i]
            if event.kind == "cut":
                arrived = i <= flushed or (i in self.kept if self.model == "journal" else i < moment(None))
                if arrived:
                    size = event.offset
                    del text[size:], written[size:]
                elif self.model == "journal":
                    lost.append(event.offset)  # what is written behind it lies in blocks that come later
                continue
            if i < moment(None):
                size = max(size, event.offset + len(event.data))
            at, end = event.offset, event.offset + len(event.data)
            while at < end:
                block = at // BLOCK
                piece = min(end, (block + 1) * BLOCK)
                if i < moment(block) and not any(at >= cut // BLOCK * BLOCK for cut in lost):
                    if len(text) < piece:
                        written += bytes(piece - len(text))
                        text += bytes(piece - len(text))
                    text[at:piece] = event.data[at - event.offset:piece - event.offset]
                    written[at:piece] = b"\1" * (piece - at)
                at = piece
        del text[size:], written[size:]
        hole = size - len(text)
        text += bytes(hole)
        written += bytes(hole)
        if self.model == "unordered" and self.chance and self.chance.random() < .5 and 0 in written:
            rubbish = self.chance.randbytes(size)
            text = bytearray(a if there else b for a, b, there in zip(text, rubbish, written))
        return bytes(text)

    def tree(self):
        """The bytes of each file that can be reached, and None for each folder, by path."""
        names, found = self.names(), {}

        def walk(folder, path):
            for name, node in sorted(names.get(folder, {}).items()):
                found[path + name] = None if node.is_folder else self.data(node)
                if node.is_folder:
                    walk(node, f"{path}{name}/")
        walk(self.record.root, "")
        return found


class Walk:
    """A recorded run: where it starts, the program, and the device that it should end with."""

    def __init__(self, work, name, start, program, early):
        self.name, self.program, self.start = name, program, start
        device = work / f"{name}-run"
        rig.copy_device(start, device)
        self.record = recorded_run(program, device, start)
        self.expected = rig.State(device)
        self.versions = [early, self.expected] if early else [self.expected]
        # What an item's row and the service agree on the run has no business with.
        times = {row["ItemId"]: row.get("ItemUpdatedOn", "a folder") for row in self.expected.rows}
        same = {row["ItemId"] for row in rig.rows_of(start) if times[row["ItemId"]] == row.get("ItemUpdatedOn")} \
            if early else set()
        held = rig.files_of(start)
        paths = [f"{rig.SERVICE}/{file['path']}{file['name']}"
                 for file in rig.ledger_of(start) if file["item"] in same] \
            if early else []
        self.held = early.media() if early else set()
        self.untouched = {path: held[path] for path in paths if held.get(path) in self.expected.files.values()}


def recorded_run(program, device, start):
    """Runs the program on a device that equals start."""
    path = device.with_name(f"record-{device.name}")
    succeed(program.backup(device, faults={"under": device, "record": path}))
    try:
        return Record(path, device, start, device)
    finally:
        path.unlink()


def succeed(run):
    rig.require(run.status == 0 and run.summary and run.summary["result"] == "success", f"{run}")


def png(colour):
    """A small picture of another format."""
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", 8, 8, 8, 0, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress((b"\0" + bytes([colour] * 8)) * 8)) + chunk(b"IEND", b""))


class Walks:
    """The accounts, and the runs that are cut. A walk is recorded when it is first asked for."""

    ALL = "first", "change", "format", "taken", "swap", "ring", "older", "older-killed", "many"

    def __init__(self, work, build):
        self.work, self.build = pathlib.Path(work), build
        self.lock = threading.RLock()
        self.early_sim, self.early_program = self.account()
        self.empty, self.backed = self.work / "empty", self.work / "backed"
        self.empty.mkdir()
        rig.copy_device(self.empty, self.backed)
        succeed(self.early_program.backup(self.backed))
        self.early = rig.State(self.backed)
        listed = [line.split(maxsplit=2) for line in self.early_sim.order("list").splitlines()]
        self.sets = [entry[1:] for entry in listed if entry[0] == "set"]

    def account(self, size="3x3", videos=1, loose=2):
        sim = rig.Sim(self.work, self.build, "--generate", size, "--videos", videos, "--loose", loose, "--item-bytes",
                      "5000", "--video-bytes", "40000", "--plain-titles")
        return sim, rig.Program(self.work, self.build, sim.url, sim.credentials)

    @functools.lru_cache(maxsize=None)
    def __getitem__(self, name):
        with self.lock:
            return getattr(self, name.replace("-", "_"))()

    def walk(self, name, start, program):
        return Walk(self.work, name, start, program, self.early)

    def first(self):
        return Walk(self.work, "first", self.empty, self.early_program, None)

    def many(self):
        """More new items than the ledger settles at a time: their rows go to the disk with those of the next one."""
        program = self.account("1x68", videos=0, loose=0)[1]
        return Walk(self.work, "many", self.empty, program, None)

    def change(self):
        sim, program = self.account()
        rig.change_account(sim)
        return self.walk("change", self.backed, program)

    def format(self):
        """Edited items whose thumbnails, or all of them, have another format.

        They come from a service of their own.
        """
        account = service.make_account()
        early, late = service.Stage(self.work, self.build, account), service.Stage(self.work, self.build, account)
        edited = service.http(account.photos_xml("7", 1800000000))
        answers = {("getPhotos", "7"): edited,
                   ("thumb", "1"): service.http(png(1)), ("media", "1"): service.http(png(2)),
                   ("thumb", "2"): service.http(png(3))}
        late.service.answer = lambda kind, key, target: answers.get((kind, key))
        succeed(early.program.backup(early.device))
        return Walk(self.work, "format", early.device, late.program, rig.State(early.device))

    def renamed(self, name, titles, added=None):
        """The sets get titles by number; then there is one more set."""
        sim, program = self.account()
        for number, title in titles.items():
            sim.order("rename-set", id=self.sets[number][0], title=title)
        if added:
            identity = sim.order("add-set", title=added)
            for item in "one", "two":
                sim.order("add", set=identity, title=item, bytes=5000)
        return self.walk(name, self.backed, program)

    def taken(self):
        return self.renamed("taken", {0: f"{self.sets[0][1]} 2019"}, self.sets[0][1])

    def swap(self):
        return self.renamed("swap", {0: self.sets[1][1], 1: self.sets[0][1]})

    def ring(self):
        return self.renamed("ring", {0: self.sets[1][1], 1: self.sets[2][1], 2: self.sets[0][1]})

    def older(self, killed=False):
        """A database of before the last change is put back, behind a run that came to its end or was killed."""
        change = self["change"]
        start = self.work / f"older-{killed}"
        rig.copy_device(self.backed, start)
        faults = {"under": start, "at": 600, "how": "before"} if killed else None
        run = change.program.backup(start, faults=faults)
        rig.require(run.killed == killed, f"{run}")
        for path in start.glob("backup.db*"):
            path.unlink()
        shutil.copy(self.backed / "backup.db", start)
        walk = self.walk("older-killed" if killed else "older", start, change.program)
        walk.expected.require_alike(change.expected)
        return walk

    def older_killed(self):
        return self.older(killed=True)


def write_tree(tree, device):
    device.mkdir()
    for path, data in tree.items():
        if data is None:
            (device / path).mkdir()
        else:
            (device / path).write_bytes(data)
            os.utime(device / path, (OLD, OLD))


def whole_rows(ledger):
    """A power cut may take a checksum with the row that held it; the file is there for it."""
    return [{key: value for key, value in row.items() if key != "checksum"} for row in ledger]


def require_untouched(walk, device, moment):
    found = {rig.digest(path) for path in device.rglob("*") if path.is_file() and int(path.stat().st_mtime) == OLD}
    missing = sorted(path for path, content in walk.untouched.items() if content not in found)
    rig.require(not missing, f"lost {moment}, and nothing had changed there: {missing}")


class Explorer:
    def __init__(self, work, build):
        self.walks, self.work = Walks(work, build), pathlib.Path(work)
        self.seen, self.twice = set(), 0

    def place(self):
        return self.work / f"device-{next(tempfile._get_candidate_names())}"

    def tree(self, case):
        name, model, at, seed = case[:4]
        record = self.walks[name].record
        rig.require(at <= len(record.events), f"there are {len(record.events)} calls")
        return Cut(record, model, at, random.Random(f"{model} {at} {seed}")).tree()

    def tree_again(self, case, walk, tree):
        """The run behind the cut is cut, too."""
        model, at, seed = case[1], case[4], case[5]
        start, device = self.place(), self.place()
        try:
            write_tree(tree, start)
            write_tree(tree, device)
            record = recorded_run(walk.program, device, start)
            at = 1 + at % len(record.events)
            return Cut(record, model, at, random.Random(f"{model} {at} {seed}")).tree()
        finally:
            shutil.rmtree(start, ignore_errors=True)
            shutil.rmtree(device, ignore_errors=True)

    def check(self, case):
        walk, device = self.walks[case[0]], self.place()
        tree = self.tree(case)
        if len(case) > 4:
            tree = self.tree_again(case, walk, tree)
        write_tree(tree, device)
        try:
            rig.require_sound(device, walk.versions, folder_records=False)
            require_untouched(walk, device, "by the cut")
            rig.require_held(device, walk.held, "after the cut")
            succeed(walk.program.backup(device))
            require_untouched(walk, device, "by the next run")
            rig.require_held(device, walk.held, "after the next run")
            state = rig.State(device)
            state.ledger = whole_rows(state.ledger)
            expected = copy.copy(walk.expected)
            expected.ledger = whole_rows(expected.ledger)
            state.require_equal(expected)
            verified = walk.program.verify(device)
            rig.require(verified.status == 0, f"verify: {verified}")
        except BaseException:
            if os.environ.get("TORTURE_KEEP"):
                before = pathlib.Path(tempfile.mkdtemp(prefix="powercut-", dir="/dev/shm"))
                write_tree(tree, before / "cut")
                os.rename(device, before / "next")
                print(f"kept {before}")
            raise
        finally:
            shutil.rmtree(device, ignore_errors=True)

    def cases(self, names, models, count, again, seed):
        """So many different states, spread over the walks, models and moments, and some that are cut again."""
        chance = random.Random(seed)
        plan = [(name, model) for name in names for model in models]
        for number in range(count * 3):
            if len(self.seen) >= count or not plan:
                return
            name, model = plan[number % len(plan)]
            case = name, model, chance.randint(1, len(self.walks[name].record.events)), chance.randint(1, 10**9)
            held = hashlib.sha256(repr(self.tree(case)).encode()).digest()
            if held not in self.seen:
                self.seen.add(held)
                yield case
                if self.twice < again:
                    self.twice += 1
                    yield (*case, chance.randint(1, 10**9), chance.randint(1, 10**9))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True)
    parser.add_argument("--states", type=int, default=4000, help="so many different ones")
    parser.add_argument("--again", type=int, default=1000, help="for so many of them the next run is cut, too")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--models", default=",".join(MODELS), help="only these")
    parser.add_argument("--walks", default=",".join(Walks.ALL), help="only these")
    parser.add_argument("--today", action="store_true", help="runs go through the gateway")
    parser.add_argument("--case", help="one state, as it is printed")
    options = parser.parse_args()
    rig.TODAY = options.today

    with rig.work_folder("powercut") as work:
        explorer = Explorer(work, options.build)
        if options.case:
            rig.finish("one state", rig.each([eval(options.case)], explorer.check))
        print(f"seed {options.seed}; a state that fails is repeated by --case with what stands behind FAILED",
              flush=True)
        names, failures = [], 0
        for name in options.walks.split(","):
            try:
                print(f"{name}: {len(explorer.walks[name].record.events)} calls", flush=True)
                names.append(name)
            except rig.Failed as failure:
                failures += 1
                print(f"FAILED the walk {name}, without any cut: {failure}", flush=True)
        cases = explorer.cases(names, options.models.split(","), options.states, options.again, options.seed)
        failures += rig.each(cases, explorer.check)
    rig.finish("power cuts" + ", through the gateway" * options.today, failures,
               states=len(explorer.seen), cut_again=explorer.twice, walks=len(names))


if __name__ == "__main__":
    main()
