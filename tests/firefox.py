"""A headless Firefox, driven over WebDriver BiDi (https://www.w3.org/TR/webdriver-bidi/), as far as tests/browser.py
does the same with Chromium: what the two have in common is written for either.
"""
import importlib.util
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile

import browser

PREFERENCES = """user_pref("intl.accept_languages", "en");
user_pref("media.autoplay.default", 0);
"""


def missing():
    """The program that is not there; none when a browser can be had."""
    if not shutil.which("firefox-esr"):
        return "firefox-esr"
    return None if importlib.util.find_spec("websocket") else "python3-websocket"


class Browser:
    """One window; ends with the "with" block."""

    def __enter__(self):
        import websocket
        self._folder = tempfile.TemporaryDirectory()
        self.home = self._folder.name
        pathlib.Path(self.home, "user.js").write_text(PREFERENCES)
        self._program = subprocess.Popen(
            ["firefox-esr", "--headless", "--no-remote", "--profile", self.home, "--remote-debugging-port", "0"],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, env={**os.environ, "HOME": self.home})
        self._orders, self._log = 0, []
        try:
            found = (re.search(r"BiDi listening on (ws://\S+)", line) for line in self._program.stderr)
            self._socket = websocket.create_connection(next(filter(None, found))[1] + "/session", timeout=120,
                                                       suppress_origin=True, http_no_proxy=["127.0.0.1"])
            self._ask("session.new", capabilities={})
            self._window = self._ask("browsingContext.getTree")["contexts"][0]["context"]
            self._ask("session.subscribe", events=["log.entryAdded"])
        except BaseException:
            self._end()
            raise
        return self

    def __exit__(self, *_):
        self._socket.close()
        self._end()

    def _end(self):
        self._program.terminate()
        self._program.wait()
        self._program.stderr.close()
        self._folder.cleanup()

    def _ask(self, order, **fields):
        self._orders += 1
        self._socket.send(json.dumps({"id": self._orders, "method": order, "params": fields}))
        while (answer := json.loads(self._socket.recv())).get("id") != self._orders:
            if answer.get("method") == "log.entryAdded" and answer["params"]["level"] in ("warn", "error"):
                self._log.append(answer["params"]["text"])
        if answer["type"] == "error":
            raise AssertionError(answer)
        return answer["result"]

    def open(self, address):
        self._ask("browsingContext.navigate", context=self._window, url=address, wait="complete")

    def run(self, script, *arguments):
        """What the script returns, for a promise what it comes to; true for an element."""
        told = "JSON.stringify(await answer, (_, value) => value instanceof Node || value)"
        call = (f"(async () => {{ const answer = (function () {{ {script}\n}}).apply(null, {json.dumps(arguments)});"
                f" return {told}; }})()")
        answer = self._ask("script.evaluate", expression=call, target={"context": self._window}, awaitPromise=True,
                           userActivation=True)
        if answer["type"] != "success":
            raise AssertionError(answer["exceptionDetails"]["text"])
        return json.loads(answer["result"].get("value", "null"))

    wait = browser.Browser.wait

    def keys(self, *keys):
        """Presses keys one after the other: letters, and names of KEYS."""
        actions = [{"type": kind, "value": browser.KEYS.get(key, key)}
                   for key in keys for kind in ("keyDown", "keyUp")]
        self._ask("input.performActions", context=self._window,
                  actions=[{"type": "key", "id": "keyboard", "actions": actions}])

    def step(self, direction):
        """Presses the "back" or the "forward" button."""
        self._ask("browsingContext.traverseHistory", context=self._window, delta=-1 if direction == "back" else 1)

    def size(self, width, height):
        self._ask("browsingContext.setViewport", context=self._window, viewport={"width": width, "height": height})

    def log(self):
        """Warnings and errors since the last call, as the browser words them."""
        self.run("")  # takes in what has come
        entries, self._log = self._log, []
        return entries
