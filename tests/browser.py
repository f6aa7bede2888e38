"""A headless Chromium, driven over the WebDriver protocol (https://www.w3.org/TR/webdriver2/)."""
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
DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def missing():
    """The program that is not there; none when a browser can be had."""
    return next((name for name in ("chromedriver", "chromium") if not shutil.which(name)), None)


class Browser:
    """One window; ends with the "with" block. Certificates of any authority are taken."""

    def __enter__(self):
        self._home = tempfile.TemporaryDirectory()
        self._driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, text=True,
                                        env={**os.environ, "HOME": self._home.name, "TMPDIR": self._home.name})
        port = next(filter(None, (re.search(r"successfully on port (\d+)", line) for line in self._driver.stdout)))
        self._url = f"http://127.0.0.1:{port[1]}/session"
        arguments = ["--headless=new", "--disable-gpu", "--disable-dev-shm-usage", "--no-proxy-server",
                     "--disable-background-networking", "--user-data-dir=" + self._home.name + "/profile"]
        if os.geteuid() == 0:
            arguments.append("--no-sandbox")  # it does not start for root otherwise
        self._url += "/" + self._ask("", {"capabilities": {"alwaysMatch": {
            "acceptInsecureCerts": True,
            "timeouts": {"implicit": 30000},
            "goog:chromeOptions": {"binary": shutil.which("chromium"), "args": arguments}}}})["sessionId"]
        return self

    def __exit__(self, *_):
        try:
            self._ask("", verb="DELETE")
        finally:
            self._driver.terminate()
            self._driver.wait()
            self._driver.stdout.close()
            self._home.cleanup()

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
        try:
            while self._ask(f"/element/{element}/name"):
                time.sleep(0.05)
        except urllib.error.HTTPError as error:  # the element is gone, and its page with it
            if error.code != 404:
                raise

    def _find(self, selector):
        return self._ask("/element", {"using": "css selector", "value": selector})[ELEMENT]
