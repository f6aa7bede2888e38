"""A person's way through the sign-in, in a real browser: the page of the simulated service, its buttons, the code
that it shows, and the address of the application to which it leads back.

    sim_today_page.py FLICKR-SIM

Status 77: there is no browser.
"""
import http.server
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse
import urllib.request
from pathlib import Path

import browser
from oauthlib import oauth1


class Application:
    """Something that wants a token, and the address to which the user comes back."""

    def __init__(self, folder):
        pairs = (line.split(" = ", 1) for line in (folder / "application").read_text().splitlines())
        self._file = dict(pairs)
        self._opener = urllib.request.build_opener(
            urllib.request.ProxyHandler({}),
            urllib.request.HTTPSHandler(context=ssl.create_default_context(cafile=self._file["ca"])))
        self.came_back = []
        came_back = self.came_back

        class Page(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                if "favicon" not in self.path:
                    came_back.append(dict(urllib.parse.parse_qsl(urllib.parse.urlsplit(self.path).query)))
                self.send_response(200)
                self.end_headers()
                self.wfile.write(b"<h1>Back at the application</h1>")

            def log_message(self, *_):
                pass

        self.server = http.server.HTTPServer(("127.0.0.1", 0), Page)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        self.address = f"http://127.0.0.1:{self.server.server_port}/back"

    def _ask(self, step, **signer):
        client = oauth1.Client(self._file["api_key"], client_secret=self._file["api_secret"], **signer)
        url, headers, _ = client.sign(self._file["service"] + "/services/oauth/" + step)
        with self._opener.open(urllib.request.Request(url, None, headers)) as answer:
            return dict(urllib.parse.parse_qsl(answer.read().decode()))

    def begin(self, callback):
        """The address of the page for the user."""
        self._asked = self._ask("request_token", callback_uri=callback)
        return self._file["service"] + "/services/oauth/authorize?perms=read&oauth_token=" + self._asked["oauth_token"]

    def finish(self, verifier):
        return self._ask("access_token", resource_owner_key=self._asked["oauth_token"],
                         resource_owner_secret=self._asked["oauth_token_secret"], verifier=verifier)


def sign_in(window, folder):
    application = Application(folder)
    for callback, button in (application.address, "deny"), (application.address, "allow"), ("oob", "allow"):
        window.open(application.begin(callback))
        assert window.text("h1") == "May this application see your photos?", window.text("h1")
        assert "as Sim Owner. The application asks for the permission \"read\"" in window.text("main p")
        window.press("#" + button)
        if callback == "oob":
            verifier = window.text("#code")
        else:
            assert window.text("h1") == "Back at the application", window.text("h1")
            answer = application.came_back.pop()
            verifier = answer.get("oauth_verifier")
            assert (answer.get("oauth_problem") == "permission_denied") == (button == "deny"), answer
        assert button == "deny" or application.finish(verifier)["username"] == "Sim Owner"
    application.server.shutdown()


def main():
    if browser.missing():
        print(f"There is no {browser.missing()}: the page was not tried in a browser.")
        sys.exit(77)
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        sim = subprocess.Popen([sys.argv[1], "--today", "--generate", "1x1", "--ca-file", folder / "ca.pem",
                                "--print-application-file", folder / "application", "--ready-file",
                                folder / "ready", "--exit-with-parent"], stdout=subprocess.DEVNULL)
        try:
            while not (folder / "ready").exists():
                assert sim.poll() is None, "the simulated service did not start"
                time.sleep(0.05)
            with browser.Browser() as window:
                sign_in(window, folder)
        finally:
            sim.terminate()
            sim.wait()


main()
