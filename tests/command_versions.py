#!/usr/bin/env python3
"""What becomes of the files that an edit replaces."""
import os
import pathlib
import re
import shutil
import sqlite3
import unittest
import urllib.parse
import urllib.request

from command_rig import Rig

VERSIONS, RECORDS = ".versions", ".records"


class Versions(Rig):
    ACCOUNT = ["--generate", "1x3", "--videos", "0", "--loose", "1", "--plain-titles"]

    def setUp(self):
        self.base = self.url.removesuffix("/services/rest/")
        listed = [line.split(maxsplit=2) for line in self.order("list").splitlines()]
        self.set = next(entry[1:] for entry in listed if entry[0] == "set")
        self.items = [entry[1] for entry in listed if entry[0] == "photo"]
        self.mount = self.device(self.id().rsplit(".", 1)[1])
        self.service = self.mount / "Brightkettle/My Flickr Items"
        self.run_backup()

    def order(self, command, **parameters):
        word = (self.work / "ready").read_text().split()[1]
        query = urllib.parse.urlencode(dict(parameters, word=word))
        with urllib.request.urlopen(f"{self.base}/sim/{command}?{query}", timeout=20) as answer:
            return answer.read().decode().strip()

    def run_backup(self, *options, status=0):
        done = self.call("run", "--device", self.mount, "--json", *options)
        self.assertEqual(done.returncode, status, done)
        return self.check("run", done.stdout)

    def edit(self, *items):
        for item in items:
            self.order("edit", id=item)

    def path_of(self, item):
        """Of the item's current file."""
        with sqlite3.connect(self.mount / "backup.db") as database:
            folder, name, container = database.execute(
                "SELECT DerivedContainerName, DerivedItemName, OriginalContainerId FROM backupmetadata "
                "WHERE OriginalItemId = ?", (item,)).fetchone()
        return self.service / ("" if container == "Anonymous" else folder) / name

    def versions(self):
        """By path, with what is told of each."""
        done = self.call("versions", "list", "--device", self.mount, "--json")
        self.assertEqual(done.returncode, 0, done)
        return {entry["version"]: entry for entry in self.check("versions", done.stdout)["versions"]}

    def restore(self, version, status=0):
        done = self.call("versions", "restore", "--device", self.mount, version, "--json")
        self.assertEqual(done.returncode, status, done)
        return self.check("versions" if status == 0 else "refused", done.stdout)

    def assert_verifies(self, status=0):
        done = self.call("verify", "--device", self.mount, "--json")
        self.assertEqual(done.returncode, status, done)
        return self.check("verify", done.stdout)

    def test_keeps_restores_and_follows_a_rename(self):
        first, second, loose = self.items[0], self.items[1], self.items[-1]
        old = {item: self.path_of(item).read_bytes() for item in (first, second, loose)}
        self.edit(first, loose)
        self.order("retitle", id=second, title="another title")
        self.order("rename-set", id=self.set[0], title="Renamed")
        self.assertEqual(self.run_backup()["edited"], 3)
        versions = self.versions()
        self.assertEqual({(pathlib.Path(path).parent, (self.service / path).read_bytes()) for path in versions},
                         {(pathlib.Path("Renamed", VERSIONS), old[first]), (pathlib.Path(VERSIONS), old[loose])},
                         "what has its bytes still is not kept")
        for path, entry in versions.items():
            self.assertRegex(pathlib.Path(path).name, r"^\d{8}T\d{6}Z-IMG_")
            self.assertEqual(entry["bytes"], (self.service / path).stat().st_size)
            record = self.service / pathlib.Path(path).parent / RECORDS / (pathlib.Path(path).name + ".xml")
            self.assertIn(f"<ID>{entry['item']}</ID>", record.read_text())
        self.assertEqual(self.assert_verifies()["versions"], 2)

        version = next(path for path in versions if path.startswith("Renamed"))
        current, new = self.path_of(first), self.path_of(first).read_bytes()
        record = current.parent / RECORDS / (current.name + ".xml")
        formerly = re.search("<DateUpdated>.*", record.read_text())[0]
        self.assertEqual(self.service / self.restore(self.service / version)["restored"], current)
        self.assertEqual(current.read_bytes(), old[first])
        self.assertNotIn(formerly, record.read_text())
        self.assertIn(f"<PhysicalFileName>{current.name}<", record.read_text())
        kept = {(self.service / path).read_bytes() for path in self.versions()}
        self.assertEqual(kept, {new, old[loose]})
        self.assert_verifies()
        self.assertEqual(self.run_backup()["unchanged"], 4)
        self.assertEqual(current.read_bytes(), old[first])
        self.edit(first)
        self.run_backup()
        kept = {(self.service / path).read_bytes() for path in self.versions()}
        self.assertEqual(kept, {new, old[loose], old[first]})
        self.assertIn("3 older versions", self.call("versions", "list", "--device", self.mount).stdout)

        # The names and descriptions tell all but the checksums.
        for ledger in (self.service / RECORDS).glob(".ledger.db*"):
            ledger.unlink()
        self.run_backup()
        self.assertEqual(len(self.versions()), 3)
        self.assert_verifies()

    def test_age_alone_removes(self):
        self.edit(self.items[0], self.items[1])
        self.run_backup()
        aged, young = sorted(self.versions())
        folder, name = os.path.split(aged)
        old = "20200101T000000Z-" + name.split("-", 1)[1]
        for path, ending in (folder, ""), (f"{folder}/{RECORDS}", ".xml"):
            os.rename(self.service / path / (name + ending), self.service / path / (old + ending))
        with sqlite3.connect(self.service / RECORDS / ".ledger.db") as ledger:
            ledger.execute("UPDATE versions SET name = ? WHERE name = ?", (old, name))
        self.run_backup("--keep-versions", "36500")
        self.assertEqual(set(self.versions()), {young, f"{folder}/{old}"})
        foreign = self.service / folder / "20200101T000000Z-mine.jpg"
        foreign.write_bytes(b"mine")
        self.run_backup()
        self.assertEqual(set(self.versions()), {young})
        self.assertEqual({path.name for path in (self.service / folder).rglob("*")},
                         {RECORDS, os.path.basename(young), os.path.basename(young) + ".xml", foreign.name})
        self.assertEqual(self.assert_verifies(1)["unrecorded"], [str(foreign.relative_to(self.service))])
        foreign.unlink()
        self.edit(self.items[0])
        self.run_backup("--keep-versions", "0")
        self.assertEqual((self.versions(), list(self.service.rglob(VERSIONS))), ({}, []))
        self.assert_verifies()

    def test_a_place_that_is_no_folder_loses_nothing(self):
        place = self.path_of(self.items[0]).parent / VERSIONS
        outside = self.device("outside")
        for number, stand in enumerate([lambda: place.symlink_to(outside), lambda: os.mkfifo(place),
                                        lambda: place.write_bytes(b"mine")]):
            stand()
            old = self.path_of(self.items[0]).read_bytes()
            self.edit(self.items[0])
            told = self.run_backup()
            self.assertEqual(told["edited"], 1, number)
            self.assertTrue(any("older version cannot be moved" in warning for warning in told["warnings"]), told)
            aside = [path for path in place.parent.glob("*_Old.jpg") if path.read_bytes() == old]
            self.assertEqual(len(aside), 1, number)
            # A second edit finds the first one's still there.
            middle = self.path_of(self.items[0]).read_bytes()
            self.edit(self.items[0])
            self.assertEqual(self.run_backup()["edited"], 1)
            place.unlink()
            self.assertEqual(self.run_backup()["warnings"], [])
            kept = {(self.service / path).read_bytes() for path in self.versions()}
            self.assertLessEqual({old, middle}, kept, number)
            self.assertEqual(list(outside.iterdir()), [])
            self.assert_verifies()
            shutil.rmtree(place)

    def test_refuses_with_a_sentence(self):
        self.edit(self.items[0])
        self.run_backup()
        version = next(iter(self.versions()))
        path = self.service / version
        bytes_ = path.read_bytes()
        for status, sentence, arguments in [
                (2, "There is no older version", ["restore", "--device", self.mount, "x"]),
                (2, "There is no older version", ["restore", "--device", self.mount, "../../backup.db"]),
                (2, 'belongs list or restore', []), (2, "did you mean restore", ["retsore"]),
                (2, "did you mean --device", ["list", "--devise", self.mount]),
                (3, "", ["list", "--device", self.work])]:
            done = self.call("versions", *arguments, *(["--json"] if arguments else []))
            self.assertEqual(done.returncode, status, done)
            self.assertIn(sentence, done.stderr)
            if arguments:
                self.assertIn(sentence, self.check("refused", done.stdout)["error"])
        path.write_bytes(bytes_[:-1] + b"?")
        self.assertIn("is damaged", self.restore(version, 1)["error"])
        self.assertEqual(self.assert_verifies(1)["altered"], [version])
        path.unlink()
        self.assert_verifies()
        self.restore(version, 2)
        self.run_backup()
        with sqlite3.connect(self.service / RECORDS / ".ledger.db") as ledger:
            self.assertEqual(ledger.execute("SELECT COUNT(*) FROM versions").fetchone(), (0,))


if __name__ == "__main__":
    unittest.main(verbosity=2)
