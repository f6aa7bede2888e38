#!/usr/bin/env python3
"""flickr-gateway as a program, over the service of today: what it refuses, what it tells, that its address answers
the plug-in's requests and no others, and how it ends.

    gateway_program.py FLICKR-GATEWAY FLICKR-SIM
"""
import hashlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import urllib.request

GATEWAY, SIM = sys.argv.pop(1), sys.argv.pop(1)


class Program(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        work = tempfile.TemporaryDirectory()
        cls.addClassCleanup(work.cleanup)
        cls.work = pathlib.Path(work.name)
        cls.credentials = cls.work / "credentials"
        sim = subprocess.Popen([SIM, "--today", "--generate", "2x1", "--ca-file", cls.work / "ca.pem",
                                "--print-credentials-file", cls.credentials, "--ready-file", cls.work / "ready",
                                "--exit-with-parent"], stdout=subprocess.DEVNULL)
        cls.addClassCleanup(sim.wait)
        cls.addClassCleanup(sim.terminate)
        while not (cls.work / "ready").exists():
            time.sleep(0.05)
        cls.credentials.chmod(0o600)

    def start(self, *arguments):
        environment = {**os.environ, "XDG_STATE_HOME": str(self.work / "state"),
                       "LSAN_OPTIONS": "print_suppressions=0"}
        program = subprocess.Popen([GATEWAY, *map(str, arguments)], env=environment, text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(program.communicate)
        self.addCleanup(program.kill)
        return program

    def refused(self, sentence, *arguments):
        program = self.start(*arguments)
        out, err = program.communicate(timeout=20)
        self.assertNotEqual(program.returncode, 0, out)
        self.assertRegex(err, sentence)

    def test_refuses_what_it_cannot_use(self):
        self.refused("--credentials is required")
        self.refused("cannot be read", "--credentials", self.work / "none")
        for text, mode, sentence in (("[x]\ntoken = 1\n", 0o600, "holds no sign-in; run \"flickr-backup login\""),
                                     (self.credentials.read_text(), 0o644, "is open to other users")):
            other = self.work / "other"
            other.write_text(text)
            other.chmod(mode)
            self.refused(sentence, "--credentials", other)
        for option, value, sentence in (("--limit-rate", "1023", "at least 1024 bytes"),
                                        ("--limit-rate", "fast", "fast"), ("--read-ahead", "much", "much"),
                                        ("--transfers", "9", "9")):
            self.refused(sentence, "--credentials", self.credentials, option, value)

    def test_serves_the_plug_in_until_a_signal(self):
        program = self.start("--credentials", self.credentials, "--limit-rate", "2MiB", "--read-ahead", "0")
        given = {}
        while "token" not in given:
            line = program.stdout.readline()
            self.assertTrue(line, "it ended before it told its address")
            name, _, value = line.partition(" = ")
            given[name] = value.strip()
        call = {"method": "flickr.photosets.getList", "api_key": given["api_key"], "auth_token": given["token"]}
        signed = given["api_secret"] + "".join(name + call[name] for name in sorted(call))
        call["api_sig"] = hashlib.md5(signed.encode()).hexdigest()
        for key, answer in (given["api_key"], '<photoset id="'), ("another", 'stat="fail"'):
            address = given["plugin.dataUrl"] + "?" + urllib.parse.urlencode({**call, "api_key": key})
            with urllib.request.urlopen(address, timeout=60) as response:
                self.assertIn(answer, response.read().decode())
        program.send_signal(signal.SIGTERM)
        out, err = program.communicate(timeout=60)
        self.assertEqual((program.returncode, out, err), (0, "", ""))
        self.assertTrue(list((self.work / "state").rglob("requests-*")), "what counts for the hour is kept")


if __name__ == "__main__":
    unittest.main()
