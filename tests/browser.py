"""A headless Chromium, driven over the WebDriver protocol (https://www.w3.org/TR/webdriver2/)."""
import base64
import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # the protocol's name for a reference to an element
KEYS = {"Escape": "\ue00c", "Enter": "\ue007", "ArrowLeft": "\ue012", "ArrowUp": "\ue013", "ArrowRight": "\ue014",
        "ArrowDown": "\ue015"}
DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def missing():
    """The program that is not there; none when a browser can be had."""
    return next((name for name in ("chromedriver", "chromium") if not shutil.which(name)), None)


class Browser:
    """One window; ends with the "with" block. Certificates of any authority are taken."""

    def __enter__(self):
        self._folder = tempfile.TemporaryDirectory()
        self.home = self._folder.name
        self._driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, text=True,
                                        env={**os.environ, "HOME": self.home, "TMPDIR": self.home})
        port = next(filter(None, (re.search(r"successfully on port (\d+)", line) for line in self._driver.stdout)))
        self._url = f"http://127.0.0.1:{port[1]}/session"
        arguments = ["--headless=new", "--disable-gpu", "--disable-dev-shm-usage", "--no-proxy-server",
                     "--disable-background-networking", "--disable-quic", "--no-first-run",
                     "--disable-component-update", "--disable-sync", "--accept-lang=en",
                     "--force-device-scale-factor=1", "--user-data-dir=" + self.home + "/profile",
                     # It starts neither for root nor in a changed root without; it shows pages of the tests only.
                     "--no-sandbox"]
        try:
            session = self._ask("", {"capabilities": {"alwaysMatch": {
                "acceptInsecureCerts": True,
                "timeouts": {"implicit": 30000, "script": 300000},
                "goog:loggingPrefs": {"browser": "ALL"},
                "goog:chromeOptions": {"binary": shutil.which("chromium"), "args": arguments}}}})
        except BaseException:
            self._end()  # a driver that goes on would keep the test's output open
            raise
        self._url += "/" + session["sessionId"]
        return self

    def __exit__(self, *_):
        try:
            self._ask("", verb="DELETE")
        finally:
            self._end()

    def _end(self):
        self._driver.terminate()
        self._driver.wait()
        self._driver.stdout.close()
        self._folder.cleanup()

    def _ask(self, path, body=None, verb=None):
        request = urllib.request.Request(self._url + path, None if body is None else json.dumps(body).encode(),
                                         {"Content-Type": "application/json"}, method=verb)
        with DIRECT.open(request, timeout=120) as answer:
            return json.load(answer)["value"]

    def open(self, address):
        self._ask("/url", {"url": address})

    def address(self):
        return self._ask("/url")

    def text(self, selector):
        """What the first element that fits shows; waits until there is one."""
        return self._ask(f"/element/{self._find(selector)}/text")

    def press(self, selector):
        """Presses what leads to another page, and waits for that."""
        element = self._find(selector)
        self._ask(f"/element/{element}/click", {})
        for _ in range(200):
            try:
                self._ask(f"/element/{element}/name")
            except urllib.error.HTTPError as error:
                if error.code == 404:  # the element is gone, and its page with it
                    return
                if error.code != 500:  # what the driver says in the moment between two pages
                    raise
            time.sleep(0.05)
        raise AssertionError(f"{selector} leads nowhere")

    def _find(self, selector):
        return self._ask("/element", {"using": "css selector", "value": selector})[ELEMENT]

    def run(self, script, *arguments):
        """What the script returns; for a promise, what it comes to."""
        return self._ask("/execute/sync", {"script": script, "args": arguments})

    def wait(self, expression, *arguments):
        """Waits until the expression is true, at most a minute, and gives its value."""
        for _ in range(1200):
            if value := self.run(f"return {expression}", *arguments):
                return value
            time.sleep(0.05)
        raise AssertionError(f"never came true: {expression}")

    def keys(self, *keys):
        """Presses keys one after the other: letters, and names of KEYS."""
        actions = [{"type": kind, "value": KEYS.get(key, key)} for key in keys for kind in ("keyDown", "keyUp")]
        self._ask("/actions", {"actions": [{"type": "key", "id": "keyboard", "actions": actions}]})

    def step(self, direction):
        """Presses the "back" or the "forward" button."""
        self._ask("/" + direction, {})

    def devtools(self, command, **parameters):
        return self._ask("/goog/cdp/execute", {"cmd": command, "params": parameters})

    def size(self, width, height, scale=1):
        """Makes the window a screen of so many pixels, a small one that of a telephone."""
        self.devtools("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=scale,
                      mobile=width < 500)

    def dark(self, on):
        self.devtools("Emulation.setEmulatedMedia",
                      features=[{"name": "prefers-color-scheme", "value": "dark" if on else "light"}])

    def shot(self, path):
        """Writes what the window shows as a PNG or JPEG file."""
        form = {"format": "png"} if path.endswith(".png") else {"format": "jpeg", "quality": 70}
        taken = self.devtools("Page.captureScreenshot", **form)
        with open(path, "wb") as file:
            file.write(base64.b64decode(taken["data"]))

    def log(self):
        """What pages and browser have complained of since the last time."""
        return [entry["message"] for entry in self._ask("/se/log", {"type": "browser"})]
