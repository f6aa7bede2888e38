#!/usr/bin/env python3
"""A device of an older build is read and carried over.

devices/older.tar.xz was made by the build before temporary names left the ledger: seven items of an account as below,
and a run that was killed while it fetched an edit of IMG_0002 again. Its ledger has the table "parts" and knows no
sets' folders, its descriptions have no dates in ISO 8601, and nobody kept versions."""
import pathlib
import tarfile
import unittest

from command_rig import Rig

OLDER = pathlib.Path(__file__).parent / "devices/older.tar.xz"


class Upgrade(Rig):
    ACCOUNT = ["--generate", "2x3", "--videos", "1", "--loose", "1", "--item-bytes", "700", "--video-bytes", "900",
               "--plain-titles"]

    def files(self, device):
        """The media files' bytes, by their names without what stands aside."""
        service = device / "Brightkettle/My Flickr Items"
        return {str(path.relative_to(service)).replace("_Old", ""): path.read_bytes()
                for path in [*service.glob("*.jpg"), *service.glob("Set*/*.jpg"), *service.glob("Set*/*.mp4")]}

    def run_backup(self, device):
        done = self.call("run", "--device", device, "--json")
        self.assertEqual(done.returncode, 0, done)
        return self.check("run", done.stdout)

    def test_nothing_is_fetched_again_and_nothing_lost(self):
        device = self.device("older")
        with tarfile.open(OLDER) as archive:
            archive.extractall(device)
        before = self.files(device)
        self.assertEqual(len(before), 7)

        done = self.call("status", "--device", device, "--json")
        self.assertEqual(self.check("status", done.stdout)["items"], 7, "what was killed hides no row")
        summary = self.run_backup(device)
        self.assertEqual((summary["new"], summary["edited"], summary["unchanged"]), (0, 0, 7))
        self.assertEqual(self.files(device), before)
        self.assertEqual([path for path in device.rglob("*") if "_Old" in path.name or ".part-" in path.name], [])
        self.assertEqual(self.call("verify", "--device", device).returncode, 0)

        self.order("edit", id="53000000002")
        summary = self.run_backup(device)
        self.assertEqual((summary["new"], summary["edited"], summary["unchanged"]), (0, 1, 6))
        listed = self.check("versions", self.call("versions", "list", "--device", device, "--json").stdout)["versions"]
        self.assertEqual(len(listed), 1)
        kept = device / "Brightkettle/My Flickr Items" / listed[0]["version"]
        self.assertEqual(kept.read_bytes(), before["Set 0001/IMG_0002.jpg"])
        self.assertEqual(self.call("verify", "--device", device).returncode, 0)


if __name__ == "__main__":
    unittest.main()
