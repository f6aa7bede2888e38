#!/usr/bin/env python3
"""A service that answers whatever a case says: the program must neither crash nor hang nor leave its folder, must
name what it could not back up, and must complete the backup once the service behaves."""

import argparse
import os
import pathlib
import re
import signal
import socket
import threading
import time
import urllib.parse
import zlib
from xml.sax.saxutils import quoteattr

import rig

STOP_LIMIT = 3.0  # seconds from the request to the end, on a busy machine; what was seen is printed


def media(seed, size=3000):
    """Bytes that begin like a picture and repeat nowhere."""
    words = (zlib.crc32(b"%d %d" % (seed, i)).to_bytes(4, "big") for i in range(size // 4))
    return b"\xff\xd8\xff\xe0" + b"".join(words)


def http(body, status="200 OK", *headers, length=None):
    """A whole answer."""
    body = body.encode() if isinstance(body, str) else body
    length = [str(len(body))] if length is None else length
    lines = [f"HTTP/1.1 {status}", *headers, *(f"Content-Length: {value}" for value in length), "", ""]
    return "\r\n".join(lines).encode("utf-8", "surrogateescape") + body


class Account:
    """Sets of items: {set id: (title, {item id: title})}; "" for the items in no set."""

    def __init__(self, sets):
        self.sets = sets

    def sets_xml(self):
        text = "".join(f'<photoset id={quoteattr(i)} primary={quoteattr(next(iter(items), ""))} photos="{len(items)}" '
                       f'videos="0"><title>{quoteattr(title)[1:-1]}</title><description/></photoset>'
                       for i, (title, items) in self.sets.items() if i)
        return f'<?xml version="1.0"?><rsp stat="ok"><photosets>{text}</photosets></rsp>'

    def photos_xml(self, set_id, updated=1700000000):
        text = "".join(f'<photo id={quoteattr(i)} title={quoteattr(title)} dateupload="1700000000" '
                       f'lastupdate="{updated}" datetaken="2023-11-14 22:13:20" media="photo" tags="a b">'
                       f'<description>d</description></photo>'
                       for i, title in self.sets.get(set_id, ("", {}))[1].items())
        return f'<?xml version="1.0"?><rsp stat="ok"><photoset>{text}</photoset></rsp>'

    @staticmethod
    def sizes_xml(base, photo):
        quoted = urllib.parse.quote(photo, safe="")
        return (f'<?xml version="1.0"?><rsp stat="ok"><sizes>'
                f'<size label="Thumbnail" width="1" height="1" source="{base}/t/{quoted}"/>'
                f'<size label="Original" width="2" height="2" source="{base}/m/{quoted}"/></sizes></rsp>')


class Service:
    """Answers from an account, but for the requests that a case takes: answer(kind, key, target) gives the bytes,
    a sequence of bytes and pauses (numbers, in seconds), or none for the account's own. kind is the REST method's
    last part, "media" or "thumb"."""

    def __init__(self, account):
        self.account, self.answer = account, lambda kind, key, target: None
        self.reached = threading.Event()  # a case's own answer has begun
        self.socket = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.base = "http://127.0.0.1:%d" % self.socket.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                connection, _ = self.socket.accept()
            except OSError:
                return
            threading.Thread(target=self.serve, args=(connection,), daemon=True).start()

    def serve(self, connection):
        with connection:
            try:
                head = b""
                while b"\r\n\r\n" not in head:
                    data = connection.recv(65536)
                    if not data:
                        return
                    head += data
                target = head.split(b" ")[1].decode(errors="replace")
                url = urllib.parse.urlsplit(target)
                parameters = dict(urllib.parse.parse_qsl(url.query))
                if url.path.startswith(("/m/", "/t/")):
                    kind, key = {"m": "media", "t": "thumb"}[url.path[1]], urllib.parse.unquote(url.path[3:])
                else:
                    kind = parameters.get("method", "").rpartition(".")[2] or "other"
                    key = parameters.get("photo_id") or parameters.get("photoset_id") or ""
                special = self.answer(kind, key, target)
                if special is not None:
                    self.reached.set()
                parts = [special] if isinstance(special, bytes) else special
                for part in parts or [self.regular(kind, key, parameters)]:
                    if isinstance(part, (int, float)):
                        time.sleep(part)
                    else:
                        connection.sendall(part)
                connection.shutdown(socket.SHUT_WR)
                while connection.recv(65536):
                    pass
            except OSError:
                pass

    def regular(self, kind, key, parameters):
        if kind == "getList":
            return http(self.account.sets_xml())
        if kind in ("getPhotos", "getNotInSet"):
            return http(self.account.photos_xml(key))
        if kind == "getSizes":
            return http(self.account.sizes_xml(self.base, key))
        if kind in ("media", "thumb"):
            return http(media(zlib.crc32((kind + key).encode())))
        return http("no such thing", "404 Not Found")

    def close(self):
        self.socket.close()


def content(kind, item):
    return media(zlib.crc32((kind + item).encode()))


def forever(first, block, pause=0.02):
    yield first
    while True:
        yield pause
        yield block


def chunked(*parts):
    return b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + b"".join(parts)


ENTITY_BOMB = "<!DOCTYPE r [" + '<!ENTITY a0 "ha">' + "".join(
    f'<!ENTITY a{i} "{f"&a{i - 1};" * 10}">' for i in range(1, 12)) + "]><rsp stat=\"ok\"><photosets><photoset " \
    "id=\"9\"><title>&a11;</title></photoset></photosets></rsp>"
OUTSIDE_ENTITY = '<!DOCTYPE r [<!ENTITY x SYSTEM "file:///etc/hostname">' \
                 '<!ENTITY % y SYSTEM "http://127.0.0.1:1/">%y;' \
    ']><rsp stat="ok"><photosets><photoset id="9"><title>&x;</title></photoset></photosets></rsp>'


def xml_cases():
    """Bodies where XML is expected. All are failures of what was asked for."""
    good = Account({"7": ("Trip", {"1": "one"})}).photos_xml("7")
    yield "no-body", http("")
    yield "no-xml", http("<html><body>Sign in</body>")
    yield "zeros", http(b"\0" * 4096)
    yield "invalid-utf8", http(good.replace("one", "o\udcff\udcfe").encode(errors="surrogateescape"))
    yield "nul-in-xml", http(good.replace("one", "o\0ne"))
    yield "entity-bomb", http(ENTITY_BOMB)
    yield "outside-entity", http(OUTSIDE_ENTITY)
    yield "deep", http("<a>" * 200000 + "</a>" * 200000)
    yield "unclosed-deep", http("<a>" * 2000000)
    doubled = good.replace("<photo ", '<photo id="1" ').replace("<photoset", '<photoset a="1" a="1"')
    yield "doubled-attribute", http(doubled)
    yield "huge-attribute", http(good.replace("one", "x" * 3000000))
    yield "huge-text", http(good.replace(">d<", ">" + "x" * 3000000 + "<"))
    yield "long-attribute", http(good.replace("one", "x" * 5000000)[:-40])
    yield "fail", http('<rsp stat="fail"><err code="105" msg="Service currently unavailable"/></rsp>')
    yield "status-500", http("<rsp/>", "500 Internal Server Error")
    yield "status-999", b"HTTP/1.1 999 What\r\n\r\n"
    yield "status-text", b"HTTP/1.1 OK\r\n\r\n"
    yield "not-http", b"220 ftp.example.com ready\r\n"
    yield "redirect", http("", "302 Found", "Location: /elsewhere")
    yield "many-headers", http(good, "200 OK", *(f"X-{i}: y" for i in range(5000)))
    yield "endless-header", lambda: forever(b"HTTP/1.1 200 OK\r\nX-Long: ", b"x" * 65536, 0)
    yield "endless-body", lambda: forever(b"HTTP/1.1 200 OK\r\n\r\n" + good[:-30].encode(), b" " * 65536, 0)
    for length in "-1", "99999999999999999999", "18446744073709551616", "0x10", "1e3", "":
        yield f"length {length!r}", http(good, length=[length])
    yield "two-lengths", http(good, length=["5", str(len(good))])
    for size in range(0, len(good), 23):
        yield f"cut-{size}", http(good)[:len(http(good)) - len(good) + size]
    whole = http(good)
    for size in range(0, len(whole) - len(good), 9):
        yield f"cut-header-{size}", whole[:size]


# Answers that contradict themselves only in numbers are warned of: the service's own counts are not always right.
ONLY_WARNED = {'id="2" as id="1"', "one item of two", "no items", "no list"}
# Answers that nobody can tell from those of an account with other sets.
UNSEEN = {"a set twice"}


def odd_cases():
    """Well-formed answers with something missing, doubled or out of place: (point, name, answer)."""
    account, base = make_account(), "http://127.0.0.1:1"
    photos = account.photos_xml("7")
    for attribute in ' id="1"', ' title="one"', ' media="photo"', ' lastupdate="1700000000"', \
            ' datetaken="2023-11-14 22:13:20"', \
            ' dateupload="1700000000"', ' tags="a b"':
        yield "getPhotos", f"without{attribute}", photos.replace(attribute, "", 1)
    for old, new in {'media="photo"': 'media="audio"', 'id="1"': 'id=""',
                     'title="one"': 'title="two"', 'id="2"': 'id="1"',
                     '1700000000"': '-1"', 'lastupdate="1700000000"': 'lastupdate="soon"',
                     "2023-11-14": "never"}.items():
        yield "getPhotos", f"{old} as {new}", photos.replace(old, new, 1)
    yield "getPhotos", "one item of two", photos[:photos.index("<photo id")] + photos[photos.rindex("<photo id"):]
    yield "getPhotos", "no items", photos[:photos.index("<photo id")] + "</photoset></rsp>"
    yield "getPhotos", "no list", '<rsp stat="ok"/>'
    yield "getPhotos", "tags without end", photos.replace('tags="a b"', f'tags="{"x " * 100000}"', 1)
    yield "getPhotos", "attributes turned round", re.sub(
        r"<photo ([^>]*)>",
        lambda tag: "<photo " + " ".join(reversed(re.findall(r'\w+="[^"]*"', tag[1]))) + ">", photos)
    sizes = account.sizes_xml(base, "1")
    for name, text in {"no sizes": '<rsp stat="ok"><sizes/></rsp>',
                       "no sources": re.sub(r'source="[^"]*"', 'source=""', sizes),
                       "no labels": re.sub(r'label="[^"]*"', "", sizes),
                       "no thumbnail": sizes.replace("Thumbnail", "Square"),
                       "width of no number": sizes.replace('width="2"', 'width="wide"'), "no list": '<rsp stat="ok"/>',
                       "source is no address": re.sub(r'source="[^"]*"', 'source="../../etc/passwd"', sizes),
                       "source of another kind": re.sub(r'source="[^"]*"', 'source="file:///etc/passwd"',
                                                        sizes)}.items():
        yield "getSizes", name, text
    sets = account.sets_xml()
    yield "getList", "a set's id is missing", sets.replace('id="7" ', "")
    yield "getList", "id that signs another call", sets.replace('id="7"', 'id="methodflickr.photos.deletephoto_id1"')
    yield "getPhotos", "id that signs another call", photos.replace('id="1"', 'id="1methodflickr.photos.delete"')
    lines = 'source="http://127.0.0.1:1/?x&#13;&#10;SET pwned 1"'
    yield "getSizes", "address with lines", re.sub(r'source="[^"]*"', lines, sizes)
    yield "getList", "a set twice", sets.replace('id="8"', 'id="7"')
    yield "getList", "counts are no numbers", sets.replace('photos="2"', 'photos="many"')
    huge = sets.replace('photos="2"', 'photos="2147483647" ').replace('videos="0"', 'videos="2147483647"', 1)
    yield "getList", "counts are huge", huge
    yield "getList", "counts are negative", sets.replace('photos="2"', 'photos="-5"')


def media_cases():
    """Bodies where a picture is expected, by item 1: (name, answer, what it is worth). "good": a whole file, as far
    as can be told; "bad": none."""
    body = content("media", "1")
    half = body[:len(body) // 2]
    yield "short", http(half, length=[str(len(body))]), "bad"
    yield "one-byte-short", http(body[:-1], length=[str(len(body))]), "bad"
    yield "status-404", http(body, "404 Not Found"), "bad"
    yield "no-answer", b"", "bad"
    yield "nothing-but-a-status", b"HTTP/1.1 200 OK", "bad"
    for length in "-1", "-5", "99999999999999999999", "9223372036854775808", "0x10", "1e3", "3 3", "\u0663":
        yield f"length {length!r}", http(body, length=[length]), "bad"
    yield "two-lengths", http(body, length=["5", str(len(body))]), "bad"
    yield "huge-length", http(body, length=["9223372036854775807"]), "bad"
    yield "longer-than-said", http(body + b"more", length=[str(len(body))]), "good"
    for name, parts in {
            "cut-chunk": [b"1000\r\n", half], "no-last-chunk": [b"%x\r\n" % len(body), body, b"\r\n"],
            "negative-chunk": [b"-5\r\nhello\r\n0\r\n\r\n"], "huge-chunk": [b"ffffffffffffffff\r\n", body],
            "word-chunk": [b"hello\r\n", body], "short-chunk": [b"5\r\n", body, b"\r\n0\r\n\r\n"],
            "endless-extension": [b"5;", b"x" * 100000, b"\r\nhello\r\n0\r\n\r\n"],
            "empty-size": [b"\r\n\r\n\r\n"]}.items():
        yield name, chunked(*parts), "bad"
    second = b"\r\n%X ;a=b\r\n" % (len(body) - 1)
    yield "chunks", chunked(b"1\r\n", body[:1], second, body[1:], b"\r\n0\r\nX: y\r\n\r\n"), "good"
    yield "single-bytes", chunked(*(b"1\r\n%c\r\n" % byte for byte in body), b"0\r\n\r\n"), "good"
    for location in ("ftp://127.0.0.1/x", "file:///etc/passwd", "javascript:alert(1)", "//", "http://", "http:///x",
                     "http://127.0.0.1:1/", "http://a%0d%0aX:%20y/", "http://127.0.0.1:99999/",
                     "https://127.0.0.1:1/x", "http://[::1", "",
                     "data:,x", "http://\u0000/", "http://256.1.1.1/", "http://a b/", "?" * 20000):
        yield f"redirect {location[:30]!r}", http("", "302 Found", f"Location: {location}"), "bad"
    yield "redirect-without-location", http("", "302 Found"), "bad"
    yield "two-locations", http("", "302 Found", "Location: /m/2", "Location: ftp://x/"), "any"
    yield "relative-redirect", http("", "302 Found", "Location: ../../../../t/9?x=../../y#z"), "any"
    yield "header-nul", b"HTTP/1.1 200 OK\r\nX: \0\r\nContent-Length: %d\r\n\r\n" % len(body) + body, "any"
    yield "folded-length", b"HTTP/1.1 200 OK\r\nContent-Length:\r\n %d\r\n\r\n" % len(body) + body, "any"
    yield "bare-line-feeds", b"HTTP/1.1 200 OK\nContent-Length: %d\n\n" % len(body) + body, "any"
    yield "gzip", http(body, "200 OK", "Transfer-Encoding: gzip", length=[]), "bad"
    yield "lengths in a list", http(body, length=[f"{len(body)}, {len(body)}"]), "good"
    yield "hints first", b"HTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n" + http(body), "good"
    yield "continue-first", b"HTTP/1.1 100 Continue\r\n\r\n" + http(body), "any"
    yield "continues", b"HTTP/1.1 100 Continue\r\n\r\n" * 50 + http(body), "any"
    yield "many-headers", http(body, "200 OK", *(f"X-{i}: y" for i in range(5000))), "any"
    yield "long-header", http(body, "200 OK", "X: " + "y" * 1000000), "any"
    yield "switching", b"HTTP/1.1 101 Switching Protocols\r\n\r\n" + body, "bad"
    for size in range(0, len(body), max(1, len(body) // 40)):
        yield f"cut-{size}", http(body[:size], length=[str(len(body))]), "bad"


kept = []  # sockets that stay open as they are


def silent_tls():
    """The address of one that accepts connections for port 443 and says nothing."""
    address = "127.77.%d.%d" % divmod(len(kept) + os.getpid() % 60000, 256)
    kept.append(socket.create_server((address, 443), backlog=64))
    return address


def tls_port_is_ours():
    """Whether this user may listen on the port that redirects to https lead to."""
    try:
        socket.create_server(("127.0.0.1", 443)).close()
    except PermissionError:
        return False
    except OSError:
        pass  # somebody else listens there; other addresses of loopback are free
    return True


def full_listener():
    """The address of one whose queue is full, so that connecting to it takes for ever."""
    listener = socket.create_server(("127.0.0.1", 0), backlog=0)
    kept.append(listener)
    for _ in range(3):
        client = socket.socket()
        client.setblocking(False)
        client.connect_ex(listener.getsockname())
        kept.append(client)
    return "127.0.0.1:%d" % listener.getsockname()[1]


def endless_cases():
    """What goes on until the user stops it: the point, and the answer."""
    header = b"HTTP/1.1 200 OK\r\nContent-Length: 1000000000\r\n\r\n"

    def loop(kind, key, target):
        return http("", "302 Found", f"Location: {target}")

    def chain(kind, key, target):
        return http("", "302 Found", f"Location: /m/1?{time.monotonic_ns()}")

    yield "slow media", "media", lambda *_: forever(header + media(1, 100), b"x", 0.3)
    yield "slow chunks", "media", lambda *_: forever(chunked(), b"1\r\nx\r\n", 0.3)
    yield "slow chunk size", "media", lambda *_: forever(chunked(b"1;"), b"y", 0.3)
    yield "slow thumbnail", "thumb", lambda *_: forever(header, b"x", 0.3)
    yield "endless media", "media", lambda *_: forever(b"HTTP/1.1 200 OK\r\n\r\n" + media(1, 100), b"x" * 65536, 0.01)
    yield "redirect to itself", "media", loop
    yield "endless redirects", "media", chain
    yield "slow header", "media", lambda *_: forever(b"HTTP/1.1 200 OK\r\n", b"X: y\r\n", 0.7)
    yield "slow header line", "media", lambda *_: forever(b"HTTP/1.1 200 OK\r\nX: ", b"y", 0.3)
    yield "silent media", "media", lambda *_: [50, b""]
    yield "media falls silent", "media", lambda *_: [header + media(1, 100), 50]
    yield "silent TLS", "media", lambda *_: http("", "302 Found", f"Location: https://{silent_tls()}/")
    yield "no connection", "media", lambda *_: http("", "302 Found", f"Location: http://{full_listener()}/")
    for method in "getList", "getPhotos", "getSizes", "getNotInSet":
        yield f"slow {method}", method, lambda *_: forever(b"HTTP/1.1 200 OK\r\n\r\n<rsp>", b" ", 0.3)
        yield f"silent {method}", method, lambda *_: [50, b""]
        yield f"slow header of {method}", method, lambda *_: forever(b"HTTP/1.1 200 OK\r\nX: ", b"y", 0.3)


AWKWARD = [
    "../escape", "../../../../escape", "/etc/escape", "..", ".", "", "C:\\escape", "\\\\host\\share", "a/../../escape",
    "x" * 4000, "\u65e5" * 1500, "abc\u202egpj.exe", "same", "SAME", "Same", "caf\u00e9", "cafe\u0301", "a", "a_Old",
    "a_old", "a_Old_Old", "_Old", "a.jpg", "Thumbnail", "thumbnail", "Anonymous",
    ".records", ".part-1", ".backup.lock",
    "backup.db", "CON", "nul.jpg", "a. ", "trailing.", "tab\there", "line\nfeed", "\ufeff", "\u0000".strip("\0"),
    "%2e%2e%2fescape", "same", "\u0130", "i\u0307", "\u00df", "ss", "-rf", "$(touch escape)",
    "'; DROP TABLE backupmetadata; --"]
AWKWARD_IDS = ["../x", "/etc/x", "..", "9/../../x", "C:x", "\u202e1", "a b", "'", "x" * 150,
               "\u65e5", "1", "CON", "a\tb", "%2e"]


def make_account():
    return Account({"7": ("Trip", {"1": "one", "2": "two"}), "8": ("Other", {"5": "five"}), "": ("", {"3": "three"})})


class Stage:
    """A service, a program that is configured for it, and a device."""

    def __init__(self, work, build, account):
        self.service = Service(account)
        credentials = pathlib.Path(work) / "hostile.ini"
        if not credentials.exists():
            credentials.write_text("api_key = key-0123456789\napi_secret = secret-0123456789\n"
                                   "token = token-0123456789\n")
            credentials.chmod(0o600)
        self.program = rig.Program(work, build, f"{self.service.base}/services/rest/", credentials)
        self.outer = pathlib.Path(work) / f"outer-{self.program.folder.name}"
        self.device = self.outer / "device"
        self.device.mkdir(parents=True)
        (self.outer / "victim").write_text("precious")

    def backup(self, **options):
        """A run that may end in any proper way but has to tell whatever is missing afterwards."""
        self.service.reached.clear()
        run = self.program.backup(self.device, **options)
        rig.require(run.status in (0, 1, 3) and run.summary is not None, f"no proper end: {run}")
        rig.require(run.status == 0 or run.told(), f"failed without a word: {run}")
        self.check_places()
        return run

    def check_places(self):
        """Only the service's folder and the stand-in's own files were touched."""
        rig.require(sorted(path.name for path in self.outer.iterdir()) == ["device", "victim"],
                    "something beside the device")
        rig.require((self.outer / "victim").read_text() == "precious", "a file beside the device changed")
        names = {path.name for path in self.device.iterdir()}
        rig.require(names <= {"Brightkettle", ".backup.lock", "backup.db", "backup.db-wal", "backup.db-shm"},
                    f"beside the service's folder: {names}")

    def items(self):
        """Recorded items and the bytes of their media."""
        found = {}
        for row in rig.query(self.device / "backup.db",
                             "SELECT * FROM backupmetadata WHERE ItemType != 'FlickrFolder'"):
            folder = "" if row["OriginalContainerId"] == "Anonymous" else row["DerivedContainerName"]
            path = self.device / rig.SERVICE / folder / row["DerivedItemName"]
            found[row["ItemId"]] = path.read_bytes() if path.is_file() else None
        return found

    def expected(self):
        return {f"{item}_{set_id or 'Anonymous'}": content("media", item)
                for set_id, (_, items) in self.service.account.sets.items() for item in items}

    def require_complete(self):
        self.service.answer = lambda *_: None
        run = self.backup()
        rig.require(run.status == 0, f"the service behaves again: {run}")
        rig.require(self.items() == self.expected(), f"not complete: {sorted(self.items())}")
        verified = self.program.verify(self.device)
        rig.require(verified.status == 0, f"verify: {verified}")

    def close(self):
        self.service.close()


def bytes_of(answer):
    return answer() if callable(answer) else answer


def check_xml(work, build, case):
    point, name, answer = case
    stage = Stage(work, build, make_account())
    try:
        wanted = {"getList": "", "getPhotos": "7", "getNotInSet": "", "getSizes": "1"}[point]
        stage.service.answer = lambda kind, key, target: bytes_of(answer) if (kind, key) == (point, wanted) else None
        run = stage.backup(timeout=60)
        rig.require(stage.service.reached.is_set(), "the case was not reached")
        missing = {key: value for key, value in stage.expected().items() if stage.items().get(key) != value} \
            if (stage.device / "backup.db").exists() else stage.expected()
        rig.require(not missing or run.status in (1, 3) or name in UNSEEN
                    or name in ONLY_WARNED and run.summary["warnings"],
                    f"missing and not told: {sorted(missing)}\n{run}")
        spoilt = {"getList": 4, "getPhotos": 2, "getNotInSet": 1, "getSizes": 1}[point]
        rig.require(len(missing) <= spoilt, f"others are missing too: {sorted(missing)}\n{run}")
        if name not in UNSEEN:
            stage.require_complete()
    finally:
        stage.close()


def check_media(work, build, case):
    point, name, answer, worth = case
    stage = Stage(work, build, make_account())
    try:
        stage.service.answer = lambda kind, key, target: bytes_of(answer) if (kind, key) == (point, "1") else None
        run = stage.backup(timeout=60)
        rig.require(stage.service.reached.is_set(), "the case was not reached")
        items, expected = stage.items(), stage.expected()
        others = {key: value for key, value in expected.items() if key != "1_7"}
        rig.require(all(items.get(key) == value for key, value in others.items()),
                    f"others are missing: {sorted(items)}")
        if worth == "bad":
            rig.require("1_7" not in items and run.status == 1, f"taken for a whole file: {run}")
        if worth == "good":
            rig.require(items.get("1_7") == expected["1_7"] or point == "thumb", f"refused: {run}")
        if run.status == 1:
            rig.require(any("one" in text for text in run.told()), f"not named: {run}")
            stage.require_complete()
    finally:
        stage.close()


def check_edit(work, build, case):
    """The same for an item that is backed up and was edited: its old version has to stay."""
    point, name, answer, worth = case
    stage = Stage(work, build, make_account())
    try:
        stage.require_complete()
        before = rig.State(stage.device)
        photos = http(stage.service.account.photos_xml("7", 1800000000).replace('id="2"', 'id="2" x=""'))
        stage.service.answer = lambda kind, key, target: photos if (kind, key) == ("getPhotos", "7") else \
            bytes_of(answer) if (kind, key) == (point, "1") else None
        run = stage.backup(timeout=60)
        if run.status == 1:
            rig.require(any("one" in text for text in run.told()), f"not named: {run}")
            rig.require(stage.items() == stage.expected(), f"the old version is gone: {run}")
            after = rig.State(stage.device)
            gone = {path for path in before.files if path not in after.files}
            rig.require(not gone, f"gone: {gone}")
        verified = stage.program.verify(stage.device)
        rig.require(verified.status == 0, f"verify: {verified}")
    finally:
        stage.close()


slowest_stop = 0.0


def check_stop(work, build, case):
    global slowest_stop
    name, point, answer = case
    stage = Stage(work, build, make_account())
    try:
        key = {"getPhotos": "7", "getSizes": "1", "media": "1", "thumb": "1"}.get(point, "")
        stage.service.answer = lambda *request: answer(*request) if request[:2] == (point, key) else None
        process = stage.program.start_backup(stage.device)
        if not stage.service.reached.wait(60):
            process.kill()
            raise rig.Failed(f"the case was not reached: {process.communicate()}")
        time.sleep(1)
        began = time.monotonic()
        process.send_signal(signal.SIGINT)
        try:
            out, err = process.communicate(timeout=30)
        except Exception:
            process.kill()
            process.communicate()
            raise rig.Failed("does not stop")
        seconds = time.monotonic() - began
        slowest_stop = max(slowest_stop, seconds)
        rig.require(process.returncode == 130, f"status {process.returncode}: {out} {err}")
        rig.require(seconds < STOP_LIMIT, f"stopped after {seconds:.1f} s only")
        stage.check_places()
        stage.require_complete()
    finally:
        stage.close()


def check_names(work, build, case):
    """Titles and ids made to escape, to collide and to pass for what the system writes itself."""
    titles = case
    items = dict(zip((f"{i}" for i in range(1, 999)), titles))
    account = Account({"7": ("Trip", items), "": ("", {f"9{i}": title for i, title in items.items()})})
    account.sets.update({f"20{i}": (title, {f"3{i}": title}) for i, title in items.items()})
    account.sets.update({name: (name, {name: name}) for name in AWKWARD_IDS})
    stage = Stage(work, build, account)
    # The service's ids hold few characters. A set with another one, or that cannot be asked for, is named instead.
    refused = {f"{name}_{name}" for name in AWKWARD_IDS if re.search("[^A-Za-z0-9@_-]", name) or len(name) > 100}
    expected = {key: value for key, value in stage.expected().items() if key not in refused}

    def require_all(run):
        rig.require(stage.items() == expected, f"not complete: {sorted(set(expected) ^ set(stage.items()))}\n{run}")
        told = " ".join(run.told() + run.summary["warnings"])
        rig.require(run.status == 1, f"not told: {run}")
        for name in AWKWARD_IDS:
            title = re.sub("[/:]", "_", name).rpartition("\t")[2]  # of a title, what stands behind a reference counts
            rig.require(f"{name}_{name}" not in refused or title[:90] in told, f"{name!r} is not told: {run}")
        verified = stage.program.verify(stage.device)
        rig.require(verified.status == 0, f"verify: {verified}")

    try:
        require_all(stage.backup(timeout=300))
        folder = stage.device / rig.SERVICE
        keys = [str(path.relative_to(folder)).casefold() for path in folder.rglob("*")]
        rig.require(len(keys) == len(set(keys)), "names that are equal but for their case")
        # Every one is edited: each then has an "_Old" beside it for a while.
        edited = {name: http(account.photos_xml(name, 1800000000)) for name in account.sets}
        stage.service.answer = lambda kind, key, target: (
            edited.get(key) if kind in ("getPhotos", "getNotInSet") else None)
        require_all(stage.backup(timeout=300))
    finally:
        stage.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--cases", type=int, help="so many of each kind; all when left out")
    parser.add_argument("--only", default="", help="cases that hold this text")
    options = parser.parse_args()

    def chosen(cases):
        cases = [case for case in cases if options.only in " ".join(map(str, case))]
        return [cases[i - 1] for i in rig.spread(len(cases), options.cases)]

    odd = [(point, name, http(text)) for point, name, text in odd_cases()]
    points = ("getList", "getPhotos", "getNotInSet", "getSizes")
    xml = chosen(odd + [(point, *case) for point in points for case in xml_cases()])
    bodies = chosen([(point, *case) for point in ("media", "thumb") for case in media_cases()])
    edits = chosen([(point, *case) for point in ("media", "thumb") for case in media_cases()])
    stops = list(endless_cases())
    if not tls_port_is_ours():
        print("skipped: silent TLS, because only root can listen on port 443 here")
        stops = [case for case in stops if case[0] != "silent TLS"]
    stops = chosen(stops)
    failures = 0
    with rig.work_folder("service") as work:
        for check, cases in (check_xml, xml), (check_media, bodies), (check_edit, edits):
            named = {" ".join(map(str, (case[0], case[1]))): case for case in cases}
            failures += rig.each(named, lambda name, check=check, named=named: check(work, options.build, named[name]))
        named = {case[0]: case for case in stops}
        failures += rig.each(named, lambda name: check_stop(work, options.build, named[name]), workers=4)
        if not options.only or options.only == "names":
            failures += rig.each(["awkward names"], lambda case: check_names(work, options.build, AWKWARD))
    rig.finish("hostile service", failures, answers=len(xml) + len(bodies) + len(edits), stops=len(stops),
               slowest_stop_s=round(slowest_stop, 2))


if __name__ == "__main__":
    main()
