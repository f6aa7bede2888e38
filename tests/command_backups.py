#!/usr/bin/env python3
"""What the commands that look at a backup, and those that mend one, make of it."""
import hashlib
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


class Backups(Rig):
    ACCOUNT = ["--generate", "2x30", "--videos", "1", "--loose", "2"]

    def service(self, device):
        return device / "Brightkettle/My Flickr Items"

    def leftovers(self):
        return list((self.work / "tmp").iterdir())

    def rows(self, device):
        """How many items the database and its log record, read from a copy of both."""
        copy = self.work / "copy.db"
        for ending in "", "-wal":
            source = device / ("backup.db" + ending)
            target = copy.with_name(copy.name + ending)
            target.write_bytes(source.read_bytes() if source.exists() else b"")
        with sqlite3.connect(copy) as database:
            return database.execute("SELECT COUNT(*) FROM backupmetadata WHERE ItemType <> 'FlickrFolder'").fetchone()[0]

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


if __name__ == "__main__":
    unittest.main(verbosity=2)
