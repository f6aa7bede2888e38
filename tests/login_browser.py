"""A person's way through the sign-in, in a real browser: the page of the simulated service, its buttons, and the
page to which it leads back.

    login_browser.py FLICKR-BACKUP FLICKR-SIM

Status 77: there is no browser.
"""
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import browser

BACKUP, SIM = sys.argv[1:]
SKIPPED = 77


def wait_for(file, program):
    """The text of a file that the program is about to write."""
    while not file.exists():
        if program.poll() is not None:
            sys.exit(f"{program.args[0]} ended with {program.returncode} before it wrote {file.name}")
        time.sleep(0.05)
    return file.read_text()


def sign_in(window, folder, button):
    """Signs in with that button pressed: the end of the command, its output, the page that is shown last."""
    opened = folder / ("opened-" + button)
    opener = folder / "xdg-open"
    opener.write_text(f'#!/bin/sh\nprintf %s "$1" >"{opened}.part" && mv "{opened}.part" "{opened}"\n')
    opener.chmod(0o700)
    login = subprocess.Popen([BACKUP, "login", "--credentials", folder / "credentials"], text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                             env={**os.environ, "PATH": f"{folder}:{os.environ['PATH']}", "DISPLAY": ":0"})
    try:
        window.open(wait_for(opened, login))
        assert window.text("h1") == "May this application see your photos?", window.text("h1")
        assert "Sim Owner" in window.text("main p")
        window.press("#" + button)
        output = login.communicate(timeout=120)[0]
    finally:
        login.kill()
    assert window.address().startswith("http://127.0.0.1:") or "localhost" in window.address(), window.address()
    return login.returncode, output, window.text("body")


def sign_in_by_code(window, folder):
    """Signs in with the code that the page shows."""
    with subprocess.Popen([BACKUP, "login", "--no-browser", "--credentials", folder / "credentials"], text=True,
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as login:
        window.open(login.stdout.readline().strip())
        window.press("#allow")
        output = login.communicate(window.text("#code") + "\n", timeout=120)[0]
        assert login.returncode == 0 and "Sim Owner" in output, output


def main():
    if browser.missing():
        print(f"There is no {browser.missing()}: the sign-in was not tried in a browser.")
        sys.exit(SKIPPED)
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        credentials = folder / "credentials"
        sim = subprocess.Popen([SIM, "--today", "--generate", "1x1", "--ca-file", folder / "ca.pem",
                                "--print-application-file", credentials, "--ready-file", folder / "ready",
                                "--exit-with-parent"], stdout=subprocess.DEVNULL)
        try:
            wait_for(folder / "ready", sim)
            before = credentials.read_text()
            with browser.Browser() as window:
                status, output, page = sign_in(window, folder, "deny")
                assert status != 0 and page and credentials.read_text() == before, (status, output, page)
                status, output, page = sign_in(window, folder, "allow")
                sign_in_by_code(window, folder)
            assert status == 0 and "Sim Owner" in output + page, (status, output, page)
            after = credentials.read_text()
            assert "token_secret" in after and "12345678@N00" in after, after
            assert credentials.stat().st_mode & 0o777 == 0o600
        finally:
            sim.terminate()
            sim.wait()


main()
