"""A copy of the program, settings of its own, and a simulated service, for tests of what the command does.

Such a test is called with the application folder, flickr-sim and the schema of what is printed."""
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
import urllib.request

try:
    import jsonschema
except ImportError:
    sys.exit(77)

APP, SIM, SCHEMA = sys.argv.pop(1), sys.argv.pop(1), sys.argv.pop(1)


class Rig(unittest.TestCase):
    ACCOUNT = ["--generate", "2x3", "--videos", "0", "--loose", "2", "--fault", "kind=media,slow=20000/250"]

    @classmethod
    def setUpClass(cls):
        work = tempfile.TemporaryDirectory()
        cls.addClassCleanup(work.cleanup)
        cls.work = pathlib.Path(work.name)
        shutil.copytree(APP, cls.work / "flickr-backup.app")
        (cls.work / "tmp").mkdir()
        cls.sim = subprocess.Popen([SIM, *cls.ACCOUNT, "--exit-with-parent", "--ready-file", cls.work / "ready",
                                    "--print-credentials-file", cls.work / "c.ini"], stdout=subprocess.DEVNULL)
        cls.addClassCleanup(cls.sim.wait)
        cls.addClassCleanup(cls.sim.terminate)
        while not (cls.work / "ready").exists() or len((cls.work / "ready").read_text().split()) < 2:
            time.sleep(0.05)
        cls.url, cls.word = (cls.work / "ready").read_text().split()[:2]
        cls.schema = json.loads(pathlib.Path(SCHEMA).read_text())
        jsonschema.Draft7Validator.check_schema(cls.schema)
        assert cls.call("configure", "--data-url", cls.url, "--credentials", cls.work / "c.ini").returncode == 0

    @classmethod
    def environment(cls, **more):
        return {**os.environ, "XDG_CONFIG_HOME": str(cls.work / "config"), "XDG_STATE_HOME": str(cls.work / "state"),
                "TMPDIR": str(cls.work / "tmp"), "LSAN_OPTIONS": "print_suppressions=0", **more}

    @classmethod
    def program(cls):
        return cls.work / "flickr-backup.app/flickr-backup"

    @classmethod
    def call(cls, *arguments, **options):
        return subprocess.run([cls.program(), *map(str, arguments)], env=cls.environment(), stdin=subprocess.DEVNULL,
                              **{"text": True, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})

    @classmethod
    def order(cls, name, **parameters):
        """Has the service do something; see sim/Control.h."""
        query = urllib.parse.urlencode({"word": cls.word, **parameters})
        with urllib.request.urlopen(f"{urllib.parse.urljoin(cls.url, '/sim/')}{name}?{query}") as answer:
            text = answer.read().decode()
        return json.loads(text) if text.startswith("{") else text

    def device(self, name):
        path = self.work / name
        path.mkdir(exist_ok=True)
        return path

    def check(self, kind, line):
        return self.check_object(kind, json.loads(line))

    def check_object(self, kind, value):
        jsonschema.validate(value, {**self.schema, "$ref": "#/definitions/" + kind})
        jsonschema.validate(value, self.schema)
        return value
