#!/usr/bin/env python3
"""What the command prints: on terminals of several widths, into pipes as under cron, and as JSON by its schema.

Called with the application folder, flickr-sim and the schema."""
import fcntl
import json
import os
import pty
import re
import signal
import struct
import subprocess
import sys
import termios
import time
import unittest

from command_rig import Rig

QUOTES = "''"  # an empty word


class Output(Rig):
    def on_terminal(self, columns, *arguments, **environment):
        """What the terminal gets, by exit status."""
        ours, theirs = pty.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        process = subprocess.Popen([self.program(), *map(str, arguments)], stdin=theirs,
                                   stdout=theirs, stderr=theirs, env=self.environment(**environment))
        os.close(theirs)
        text = b""
        while True:
            try:
                block = os.read(ours, 65536)
            except OSError:  # the other end is closed
                block = b""
            if not block:
                break
            text += block
        os.close(ours)
        return process.wait(), text.decode()

    def test_progress_fits_the_terminal(self):
        for columns in 30, 80, 200:
            status, text = self.on_terminal(columns, "run", "--device", self.device(f"c{columns}"), TERM="xterm")
            self.assertEqual(status, 0, text)
            shown = re.findall(r"\r\x1b\[K([^\r\x1b\n]*)", text)
            self.assertTrue(any(re.search("Listing|(/| of )8", line) for line in shown), shown)
            self.assertTrue(all(len(line) < columns for line in shown), shown)
            self.assertRegex(text, r"\r\x1b\[KBackup complete after ")
        for more in {"TERM": "dumb"}, {"TERM": "xterm", "NO_COLOR": "1"}:
            status, text = self.on_terminal(80, "run", "--device", self.device("dumb" + str(len(more))), **more)
            self.assertRegex(text, r"(?s)^[^\x1b]*items[^\x1b]*Backup complete[^\x1b]*$")

    def test_a_secret_is_typed_unseen(self):
        ours, theirs = pty.openpty()

        def echoes():
            return bool(termios.tcgetattr(theirs)[3] & termios.ECHO)

        process = subprocess.Popen([self.program(), "login", "--credentials", str(self.work / "none yet")],
                                   stdin=theirs, stdout=theirs, stderr=theirs, env=self.environment())
        text = ""
        for question, echo, answer in ("Key: ", True, b"a key\n"), ("Secret: ", False, b"\n"):
            while not text.endswith(question):
                text += os.read(ours, 4096).decode().replace("\r", "")
            self.assertEqual(echoes(), echo, question)
            os.write(ours, answer)
        self.assertEqual(process.wait(), 2)
        self.assertTrue(echoes(), "the terminal is as it was")
        os.close(theirs)
        os.close(ours)

    def test_is_silent_where_nobody_looks(self):
        device = self.device("cron")
        done = self.call("run", "--device", device)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        status, text = self.on_terminal(80, "run", "--device", device, "--quiet", TERM="xterm")
        self.assertEqual((status, text), (0, ""))
        log = self.work / "state/flickr-backup/NVHLDevLog.log"
        before = log.stat().st_size
        self.assertEqual(self.call("run", "--device", device).returncode, 0)
        unchanged = log.read_text()[before:]
        self.assertIn("Flickr Backup Started.", unchanged)
        self.assertNotRegex(unchanged, "sunset|Photo Started|/build")
        verbose = self.call("run", "--device", device, "--verbose")
        self.assertIn("Backup complete", verbose.stdout)
        for path in device.rglob("sunset.jpg"):
            path.unlink()
        for quiet in [], ["--quiet"]:
            done = self.call("run", "--device", device, *quiet)
            self.assertEqual(done.returncode, 1)
            self.assertIn("missing on the device now", done.stdout)
        # A reader who has gone, and a full disk.
        with open("/dev/full", "w") as full:
            for command in ["info"], ["status", "--device", device], ["run", "--device", device, "--json"], ["--help"]:
                done = self.call(*command, stdout=full)
                self.assertIn("The output cannot be written: No space left on device.", done.stderr, command)
                self.assertNotEqual(done.returncode, 0)
        closed = subprocess.run(["sh", "-c", 'exec "$0" info >&-', self.program()],
                                env=self.environment(), stderr=subprocess.PIPE, text=True)
        self.assertEqual(closed.returncode, 1, closed.stderr)

    def test_json_follows_the_schema(self):
        device = self.device("json")
        for status, kind, command in [
                (0, "configure", ["configure", "--check"]), (0, "run", ["run", "--device", device]),
                (0, "status", ["status", "--device", device]), (0, "verify", ["verify", "--device", device]),
                (0, "gallery", ["gallery", "--device", device]), (0, "info", ["info"]),
                (0, "logout", ["logout", "--profile", "x"]),
                (3, "refused", ["run", "--device", device / "none"]), (2, "refused", ["run", "--nothing"]),
                (2, "refused", ["rnu"]), (3, "refused", ["status", "--device", self.work]),
                (2, "refused", ["configure", "--data-url", "x"]),
                (2, "refused", ["login", "--credentials", self.work / "new.ini"]),
                (3, "run", ["run", "--device", device, "--config", self.broken()])]:
            done = self.call(*command, "--json")
            self.assertEqual(done.returncode, status, done)
            self.assertEqual(done.stdout.count("\n"), 1, done)
            self.check(kind, done.stdout)

        status = json.loads(self.call("status", "--device", device, "--json").stdout)
        self.assertEqual([run["result"] for run in status["runs"]], ["success", "failed"])
        self.assertEqual(status["runs"][0]["new"], 8)
        sizes = {}
        for path in device.rglob("*.jpg"):
            folder = path.parent.parent if path.parent.name == "Thumbnail" else path.parent
            sizes[folder.name] = sizes.get(folder.name, 0) + path.stat().st_size
        self.assertEqual(status["bytes"], sum(sizes.values()))
        self.assertEqual(sorted(entry["bytes"] for entry in status["sets"]), sorted(sizes.values()))
        for path in device.rglob("sunset.jpg"):
            path.unlink()
        for command in "status", "verify":
            self.check(command, self.call(command, "--device", device, "--json").stdout)
        (device / "b").mkdir()
        lines = self.call("run", "--device", device / "b", "--json-progress").stdout.splitlines()
        events = [self.check("event", line) for line in lines[:-1]]
        self.assertEqual({event["event"] for event in events}, {"progress", "item"})
        self.assertEqual(sum(event["event"] == "item" for event in events), 8)
        self.assertEqual(self.check("run", lines[-1])["event"], "summary")
        with subprocess.Popen([self.program(), "run", "--device", self.device("c"), "--json-progress"], text=True,
                              env=self.environment(), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as stopped:
            stopped.stdout.readline()
            stopped.send_signal(signal.SIGINT)
            *lines, last = stopped.stdout.read().splitlines()
        self.assertIn("message", [self.check("event", line)["event"] for line in lines])
        self.assertEqual(self.check("run", last)["result"], "stopped")

    def broken(self):
        """A configuration that leads nowhere."""
        folder = self.work / "broken"
        self.call("configure", "--config", folder, "--data-url", "http://127.0.0.1:1/services/rest/", "--credentials",
                  self.work / "c.ini")
        return folder

    def test_shells_complete_what_the_command_knows(self):
        script = self.call("completion", "bash").stdout
        for words, expected in [("ru", "run"), ("run --dev", "--device"), ("run --media vid", "videos"),
                                ("status --ve", ""), ("run --log-level a", "all"), ("completion f", "fish"),
                                ("versions re", "restore"), ("versions list --d", "--device"),
                                ("", "login logout configure")]:
            done = subprocess.run(["bash", "-c", script + f"COMP_WORDS=(flickr-backup {words or QUOTES}); "
                                   "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _flickr_backup; echo ${COMPREPLY[@]}"],
                                  capture_output=True, text=True)
            self.assertEqual(done.stderr, "")
            self.assertTrue(done.stdout.startswith(expected), (words, done.stdout))
        self.assertIn("-l log-level -x -a 'failures normal all'", self.call("completion", "fish").stdout)
        self.assertIn("'--device[Directory that holds the backup]:DIR:_directories'",
                      self.call("completion", "zsh").stdout)
        self.assertRegex(self.call("--version").stdout, r"^flickr-backup \d+\.\d+\.\d+\nwith POCO .*SQLite 3\..*curl")

    def test_status_knows_the_run_that_goes_on(self):
        device = self.device("going")
        with subprocess.Popen([self.program(), "run", "--device", device],
                              env=self.environment()) as run:
            while not list(device.rglob("*.jpg")):
                time.sleep(0.05)
            status = json.loads(self.call("status", "--device", device, "--json").stdout)
            text = self.call("status", "--device", device).stdout
            run.kill()
        self.assertEqual((status["running"], status["inUse"], status["result"]), (True, True, "success"))
        self.assertIn("A backup is going on", text)
        self.assertRegex(self.call("status", "--device", device).stdout, "was cut off before its end")
        self.assertEqual(self.call("run", "--device", device).returncode, 0)


unittest.main(argv=sys.argv[:1], verbosity=2)
