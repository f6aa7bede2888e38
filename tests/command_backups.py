#!/usr/bin/env python3
"""What the commands that look at a backup, and those that mend one, make of it."""
import contextlib
import csv
import hashlib
import pathlib
import shutil
import signal
import sqlite3
import subprocess
import time
import unittest

from command_rig import Rig


def snapshot(device):
    """Everything on the device: kinds, modes, times and contents."""
    return {str(path): (path.lstat().st_mode, path.lstat().st_mtime_ns,
                        hashlib.sha256(path.read_bytes()).hexdigest() if path.is_file() else "")
            for path in [device, *device.rglob("*")]}


def service(device):
    return device.resolve() / "Brightkettle/My Flickr Items"


def media(device):
    """The contents of all files that are not the program's own, by path, without older versions."""
    return {path.relative_to(service(device)): path.read_bytes() for path in service(device).rglob("*.*")
            if path.is_file() and not {".records", ".versions"} & set(path.parts) and "index" not in str(path)}


class Backups(Rig):
    ACCOUNT = ["--generate", "2x30", "--videos", "1", "--loose", "2"]

    def leftovers(self):
        return list((self.work / "tmp").iterdir())

    def rows(self, device):
        """How many items the database and its log record, read from a copy of both."""
        copy = self.work / "copy.db"
        for ending in "", "-wal":
            source = device / ("backup.db" + ending)
            target = copy.with_name(copy.name + ending)
            target.write_bytes(source.read_bytes() if source.exists() else b"")
        with contextlib.closing(sqlite3.connect(copy)) as database:
            query = "SELECT COUNT(*) FROM backupmetadata WHERE ItemType <> 'FlickrFolder'"
            return database.execute(query).fetchone()[0]

    def killed_run(self, device, files=20):
        """A run that is killed when it has put so many files there."""
        with subprocess.Popen([self.program(), "run", "--device", device], env=self.environment(),
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as run:
            while run.poll() is None and len(list(device.rglob("*.jpg"))) < files:
                time.sleep(0.01)
            run.kill()
        self.assertEqual(run.returncode, -signal.SIGKILL)

    def test_reading_after_a_kill_changes_nothing(self):
        device = self.device("killed")
        self.killed_run(device)
        before = snapshot(device)
        status = self.check("status", self.call("status", "--device", device, "--json").stdout)
        self.assertGreater(status["items"], 5)
        self.assertEqual(status["items"], self.rows(device))
        verified = self.check("verify", self.call("verify", "--device", device, "--json").stdout)
        self.assertEqual(verified["items"], status["items"])
        self.assertEqual(verified["withoutChecksum"], 0)
        self.assertEqual(snapshot(device), before)
        (device / "backup.db").write_bytes(b"no database" * 1000)
        (device / "backup.db-wal").unlink()
        for command in "status", "verify":
            done = self.call(command, "--device", device)
            self.assertEqual(done.returncode, 3, done)
            self.assertIn(f"The database {device.resolve()}/backup.db is not a SQLite database", done.stderr)
        self.assertEqual(self.leftovers(), [])

    def dry_run(self, device, *options):
        """What a dry run tells; it may not change anything on the device, nor ask for media."""
        before, media_before = snapshot(device), self.order("counts")["media"]
        done = self.call("run", "--device", device, "--dry-run", "--json", *options)
        self.assertEqual((snapshot(device), self.order("counts")["media"]), (before, media_before))
        self.assertEqual(self.leftovers(), [])
        self.assertEqual(done.returncode, 0, done)
        told = self.check("run", done.stdout)
        self.assertTrue(told["dryRun"])
        return told

    def test_a_dry_run_tells_and_does_nothing(self):
        device = self.device("dry")
        told = self.dry_run(device)
        self.assertEqual((told["new"], told["edited"], len(told["plan"])), (62, 0, 62))
        self.killed_run(device)
        recorded = self.rows(device)
        told = self.dry_run(device)
        self.assertEqual((told["new"], told["unchanged"]), (62 - recorded, recorded))
        self.assertEqual(self.dry_run(device, "--media", "videos")["leftOutByKind"], 61)
        done = self.call("run", "--device", device, "--json")
        self.assertEqual(self.check("run", done.stdout)["new"], 62 - recorded)

        first = self.find(device)[0]
        self.order("edit", id=first["photoId"])
        self.order("rename-set", id=first["setId"], title="Reise")
        told = self.dry_run(device)
        self.assertEqual([(entry["id"], entry["replaces"]) for entry in told["plan"]], [(first["id"], True)])
        self.assertEqual((told["unchanged"], told["renamed"]), (61, [{"from": first["set"], "to": "Reise"}]))
        text = self.call("run", "--device", device, "--dry-run").stdout
        for words in "renamed    1 set", f"{first['set']} to Reise", f"  Reise/{first['title']}":
            self.assertIn(words, text)
        done = self.check("run", self.call("run", "--device", device, "--json").stdout)
        self.assertEqual((done["edited"], done["renamed"], done["dryRun"]), (1, told["renamed"], False))

    def all_rows(self, device):
        """What a run goes by, of each row."""
        with contextlib.closing(sqlite3.connect(device / "backup.db")) as database:
            return set(database.execute(
                "SELECT ItemId, ItemName, DerivedItemName, DerivedContainerName, OriginalItemId, "
                "OriginalContainerId, ItemType, ImageExtension, IIF(ItemType = 'FlickrFolder', '', CreatedOn), "
                "IIF(ItemType = 'FlickrFolder', '', ItemUpdatedOn) FROM backupmetadata"))

    def test_a_lost_database_is_made_anew(self):
        device = self.device("rebuilt")
        self.assertEqual(self.call("run", "--device", device).returncode, 0)
        whole, rows = media(device), self.all_rows(device)
        ledger = service(device) / ".records/.ledger.db"

        def garble(path):
            path.write_bytes(b"garbage" * 2000)

        def empty(path):
            path.write_bytes(b"")

        for spoil, ledger_too, new_checksums in [(pathlib.Path.unlink, False, 0), (garble, True, 124),
                                                 (empty, False, 0), (empty, True, 124)]:
            for path in [device / "backup.db", ledger] if ledger_too else [device / "backup.db"]:
                spoil(path)
            refused = self.call("run", "--device", device)
            self.assertEqual(refused.returncode, 3, refused)
            self.assertIn("rebuild", refused.stderr)
            done = self.call("rebuild", "--device", device, "--json")
            self.assertEqual(done.returncode, 0, done)
            made = self.check("rebuild", done.stdout)
            self.assertEqual((made["items"], made["sets"], made["newChecksums"]), (62, 2, new_checksums))
            self.assertEqual(self.all_rows(device), rows)
            self.assertEqual(self.call("verify", "--device", device).returncode, 0)
            told = self.check("run", self.call("run", "--device", device, "--json").stdout)
            self.assertEqual((told["new"], told["edited"], told["result"]), (0, 0, "success"))
            self.assertEqual(media(device), whole)
        self.assertEqual(sorted(path.name for path in device.glob("backup.db*")),
                         ["backup.db", "backup.db.old", "backup.db.old-2", "backup.db.old-3"])

        gone, copied = pathlib.Path(self.find(device)[0]["path"]), service(device) / "Copy of a set"
        shutil.copytree(gone.parent, copied)
        gone.unlink()
        next((service(device) / "Thumbnail").glob("sunset_*")).unlink()
        stranger = service(device) / "mine.jpg"
        stranger.write_bytes(b"mine")
        done = self.call("rebuild", "--device", device, "--json")
        self.assertEqual(done.returncode, 1, done)
        made = self.check("rebuild", done.stdout)
        self.assertEqual((made["items"], len(made["toFetchAgain"]), len(made["leftOut"])), (61, 1, 30))
        self.assertIn("mine.jpg", made["unrecorded"])
        shutil.rmtree(copied)
        self.assertEqual(self.check("run", self.call("run", "--device", device, "--json").stdout)["new"], 1)
        stranger.unlink()
        self.assertEqual(media(device), whole)

    def test_a_killed_run_whose_database_is_lost(self):
        device, twin = self.device("killed-and-lost"), self.device("twin")
        self.killed_run(device)
        # An edit was on its way.
        picture = sorted(path for path in media(device)
                         if "Thumbnail" not in path.parts and not path.name.startswith("."))[0]
        aside, records = picture.stem + "_Old" + picture.suffix, service(device) / picture.parent / ".records"
        (service(device) / picture).rename((service(device) / picture).with_name(aside))
        (records / (picture.name + ".xml")).rename(records / (aside + ".xml"))
        (service(device) / picture.parent / ".part-1-1").write_bytes(b"half")
        for path in [*device.glob("backup.db*"), *(service(device) / ".records").glob(".ledger.db*")]:
            path.unlink()
        self.assertIn(self.call("rebuild", "--device", device).returncode, (0, 1))
        self.assertTrue((service(device) / picture).exists())
        for each in device, twin:
            self.assertEqual(self.call("run", "--device", each).returncode, 0)
        self.assertEqual(media(device), media(twin))
        self.assertEqual(self.all_rows(device), self.all_rows(twin))
        self.assertEqual(self.call("verify", "--device", device).returncode, 0)

    def find(self, device, *arguments):
        done = self.call("find", "--device", device, *arguments, "--json")
        return self.check("find", done.stdout)["items"]

    def test_finds_and_exports_what_is_known(self):
        device = self.device("found")
        self.assertEqual(self.call("run", "--device", device).returncode, 0)
        everything = self.find(device)
        self.assertEqual(len(everything), 62)
        one = everything[0]
        for words, expected in [
                (["UBER den dachern"], lambda item: item["title"] == "Über den Dächern"),
                (["uber", "été"], lambda item: item["title"] == "Über den Dächern" and item["set"].startswith("Été")),
                (["закат"], lambda item: item["title"].startswith("Закат")),
                (["N0001"], lambda item: "n0001" in item["tags"]),
                (["taken & KEPT <here>"], lambda item: "<here>" in item["description"]),
                (["no such thing"], lambda item: False),
                ([one["photoId"]], lambda item: item["id"] == one["id"]),
                ([one["photoId"][:-1]], lambda item: False),
                ([one["setId"]], lambda item: item["setId"] == one["setId"]),
                (["--taken", "2017"], lambda item: True),
                (["--taken", "2017-07-13..2017-07-13"], lambda item: item["taken"].startswith("2017-07-13")),
                (["--taken", "2017-07-14.."], lambda item: item["taken"] >= "2017-07-14"),
                (["--taken", "..2016"], lambda item: False)]:
            self.assertEqual(self.find(device, *words), [item for item in everything if expected(item)], words)

        file = self.work / "table.csv"
        done = self.call("export", "--device", device, "--output", file, "--json")
        self.assertEqual(self.check("export", done.stdout)["items"], 62)
        self.assertEqual(self.call("export", "--device", device, "--csv", text=False).stdout, file.read_bytes())
        self.assertEqual(file.read_bytes().count(b"\r\n"), 63)
        with open(file, newline="", encoding="utf-8") as lines:
            table = list(csv.DictReader(lines))
        columns = {"id": "id", "photo_id": "photoId", "set": "set", "title": "title", "kind": "kind",
                   "taken": "taken", "description": "description"}
        for row, item in zip(table, everything):
            for column, member in columns.items():
                self.assertEqual(row[column], item[member])
            self.assertEqual((row["tags"], str(service(device) / row["file"])), (";".join(item["tags"]), item["path"]))
            self.assertEqual(int(row["size"]), (service(device) / row["file"]).stat().st_size)

        missing = pathlib.Path(one["path"])
        missing.unlink()
        paths = self.call("find", "--device", device, one["setId"], "--null").stdout
        others = {item["path"] for item in everything[1:] if item["setId"] == one["setId"]}
        self.assertEqual(set(paths.split("\0")), others | {""})
        self.assertIn(f"{missing} (missing on the device)", self.call("find", "--device", device, one["id"]).stdout)
        (device / "backup.db").unlink()
        self.assertEqual({item["id"] for item in self.find(device)}, {item["id"] for item in everything} - {one["id"]})
        for arguments in [["find", "--taken", "17"], ["find", "--taken", ".."], ["find", "--taken", "2017-13"],
                          ["find", "--taken", "2018..2017"], ["find", "--null", "--json"],
                          ["export", "--json"]]:
            self.assertEqual(self.call(*arguments, "--device", device).returncode, 2, arguments)
        self.assertEqual(self.leftovers(), [])


class Repair(Rig):
    """With a service that takes its time."""

    def verify(self, device, *options):
        done = self.call("verify", "--device", device, *options, "--json")
        found = self.check("verify", done.stdout)
        self.assertEqual(done.returncode, 0 if found["result"] == "success" else 1, done)
        return found

    def test_what_is_damaged_is_fetched_again(self):
        device = self.device("damaged")
        self.assertEqual(self.call("run", "--device", device).returncode, 0)
        whole = media(device)
        pictures = [path for path in sorted(whole) if "Thumbnail" not in path.parts]
        gone, cut, changed, described = pictures[:4]
        (service(device) / gone).unlink()
        (service(device) / cut).write_bytes(b"cut")
        (service(device) / changed).write_bytes(whole[changed][:-1] + b"?")
        (service(device) / described.parent / ".records" / (described.name + ".xml")).unlink()
        next((service(device) / pictures[4].parent / "Thumbnail").glob(pictures[4].stem + "_*")).unlink()
        for name in [".DS_Store", "._a.jpg", "Thumbs.db", "DESKTOP.INI", "@eaDir", "System Volume Information",
                     ".Trash-1"]:
            (service(device) / name).mkdir()
            (service(device) / name / "x").touch()

        found = self.verify(device)
        self.assertEqual((found["missing"][0], found["altered"]), (str(gone), [str(cut), str(changed)]))
        self.assertEqual((len(found["missing"]), len(found["descriptions"]), found["unrecorded"]), (2, 1, []))
        before = snapshot(device)
        self.assertEqual(self.call("verify", "--device", device).returncode, 1)
        self.assertEqual(snapshot(device), before)
        self.assertIn("missing on the device now", self.call("run", "--device", device).stdout)

        self.assertEqual(self.verify(device, "--repair")["marked"], 5)
        self.assertEqual(self.verify(device)["toFetchAgain"], [str(path) for path in pictures[:5]])
        self.assertEqual(media(device)[changed], whole[changed][:-1] + b"?")
        damaged = {path: (service(device) / path).read_bytes() for path in (cut, changed)}
        for _ in damaged:
            earlier = set(service(device).rglob("*_Old.*"))
            with subprocess.Popen([self.program(), "run", "--device", device], env=self.environment(),
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as run:
                while run.poll() is None and set(service(device).rglob("*_Old.*")) <= earlier:
                    time.sleep(0.002)
                run.kill()
            now = media(device)
            for path, content in damaged.items():
                aside = path.with_name(path.stem + "_Old" + path.suffix)
                self.assertTrue(content in (now.get(path), now.get(aside)) or now[path] == whole[path], path)
        done = self.call("run", "--device", device, "--json")
        self.assertEqual(self.check("run", done.stdout)["result"], "success")
        self.assertEqual(media(device), whole)
        versions = [path.read_bytes() for path in service(device).rglob(".versions/*") if path.is_file()]
        self.assertTrue(set(damaged.values()) <= set(versions))
        self.verify(device)
        self.assertEqual(self.check("run", self.call("run", "--device", device, "--json").stdout)["edited"], 0)

        # Older versions outlive the database, with their checksums.
        listed = self.call("versions", "list", "--device", device, "--json").stdout
        (device / "backup.db").unlink()
        self.assertEqual(self.call("rebuild", "--device", device).returncode, 0)
        self.assertEqual(self.call("versions", "list", "--device", device, "--json").stdout, listed)
        version = next(path for path in service(device).rglob(".versions/*.jpg"))
        version.write_bytes(version.read_bytes()[:-1] + b"!")
        self.assertEqual(self.verify(device)["altered"], [str(version.relative_to(service(device)))])


if __name__ == "__main__":
    unittest.main(verbosity=2)
