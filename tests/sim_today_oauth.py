"""Asks the simulated service of today with signatures that another implementation (python3-oauthlib) makes.

    sim_today_oauth.py SERVICE CA-FILE KEY SECRET TOKEN TOKEN-SECRET

Ends with 0 when what is signed is accepted and what is altered is refused as it should be.
"""
import re
import ssl
import sys
import time
import urllib.error
import urllib.parse
import urllib.request

from oauthlib import oauth1

SERVICE, CA, KEY, SECRET, TOKEN, TOKEN_SECRET = sys.argv[1:]
REST = SERVICE + "/services/rest/"
OAUTH = SERVICE + "/services/oauth/"
FORM = {"Content-Type": "application/x-www-form-urlencoded"}


class Stay(urllib.request.HTTPRedirectHandler):
    def redirect_request(self, *_):
        return None


OPENER = urllib.request.build_opener(
    Stay(), urllib.request.ProxyHandler({}),
    urllib.request.HTTPSHandler(context=ssl.create_default_context(cafile=CA)))


def ask(url, headers=None, body=None, verb=None):
    """The status, the text and the headers of the answer."""
    request = urllib.request.Request(url, body.encode() if body else None, headers or {}, method=verb)
    try:
        answer = OPENER.open(request)
    except urllib.error.HTTPError as error:
        answer = error
    return answer.getcode(), answer.read().decode(), answer.headers


def client(**changed):
    values = dict(client_secret=SECRET, resource_owner_key=TOKEN, resource_owner_secret=TOKEN_SECRET)
    return oauth1.Client(**{"client_key": KEY, **values, **changed})


def check(name, answer, status, part):
    if answer[0] != status or part not in answer[1]:
        sys.exit(f"{name}: {answer[0]} {answer[1]!r} in place of {status} and {part!r}")
    return answer


def query(place=oauth1.SIGNATURE_TYPE_AUTH_HEADER, parameters="method=flickr.test.login", alter=lambda u: u,
          **changed):
    url, headers, _ = client(signature_type=place, **changed).sign(REST + "?" + parameters)
    return ask(alter(url), headers)


# What is signed is accepted, wherever the signature is and whatever the parameters hold.
ODD = "method=flickr.test.login&b=%3D%253D&b=a&c%40=&d=r%20b%2Bc&e=%C3%A4~!*'()"
for where in oauth1.SIGNATURE_TYPE_AUTH_HEADER, oauth1.SIGNATURE_TYPE_QUERY:
    for text in "method=flickr.test.login", ODD.replace("!*'()", "%21%2A%27%28%29"):
        check(f"{where} {text}", query(where, text), 200, '<rsp stat="ok">\n<user id="12345678@N00">')
for where in oauth1.SIGNATURE_TYPE_AUTH_HEADER, oauth1.SIGNATURE_TYPE_BODY:
    posted = client(signature_type=where).sign(REST, "POST", "method=flickr.test.login&x=a+b%2B&x=", FORM)
    check(f"form {where}", ask(posted[0], posted[1], posted[2]), 200, 'stat="ok"')

# What is altered is not.
for name, answer in {
        "another parameter": query(parameters="x=1&method=flickr.test.login",
                                   alter=lambda url: url.replace("x=1", "x=2")),
        "one parameter more": query(alter=lambda url: url + "&x=1"),
        "another secret": query(client_secret=SECRET + "x"),
        "another secret of the token": query(resource_owner_secret=TOKEN_SECRET + "x"),
        "another verb": ask(REST + "?method=flickr.test.login",
                            {**client().sign(REST + "?method=flickr.test.login")[1], **FORM}, verb="POST"),
        "another path": ask(OAUTH + "access_token?oauth_verifier=1",
                            client().sign(REST + "?oauth_verifier=1")[1])}.items():
    wanted = "token_rejected" if name == "another path" else "signature_invalid&debug_sbs="
    check(name, answer, 401, "oauth_problem=" + wanted)
BASE = urllib.parse.parse_qs(query(client_secret="x")[1])["debug_sbs"][0]
assert BASE.startswith("GET&" + urllib.parse.quote(REST, "") + "&method%3Dflickr.test.login%26oauth_"), BASE

# Times, nonces, tokens, keys, methods.
for offset, status, part in (-290, 200, 'stat="ok"'), (-3600, 401, "timestamp_refused"), (
        3600, 401, "timestamp_refused"):
    check(f"time {offset}", query(timestamp=str(int(time.time()) + offset)), status, part)
NOW = str(int(time.time()))
check("a nonce", query(nonce="once", timestamp=NOW), 200, 'stat="ok"')
check("a nonce again", query(nonce="once", timestamp=NOW), 401, "nonce_used")
check("another token", query(resource_owner_key="x"), 200, 'code="98"')
check("another key", query(client_key="x"), 200, 'code="100"')
check("no signature", ask(REST + "?method=flickr.test.login"), 200, 'code="100"')
check("half a signature", ask(REST + "?method=flickr.test.login&oauth_consumer_key=" + KEY), 400,
      "oauth_problem=parameter_absent&oauth_parameters_absent=oauth_token%26oauth_signature_method%26")
check("plain text", query(signature_method=oauth1.SIGNATURE_PLAINTEXT), 400, "signature_method_rejected")
check("another method", query(parameters="method=flickr.x"), 200, 'code="112"')


def request_token(callback):
    url, headers, _ = client(resource_owner_key=None, resource_owner_secret=None,
                             callback_uri=callback).sign(OAUTH + "request_token")
    text = check("request token", ask(url, headers), 200, "oauth_callback_confirmed=true&oauth_token=")[1]
    return {name: value[0] for name, value in urllib.parse.parse_qs(text).items()}


def access_token(token, verifier):
    url, headers, _ = client(resource_owner_key=token["oauth_token"],
                             resource_owner_secret=token["oauth_token_secret"],
                             verifier=verifier).sign(OAUTH + "access_token")
    return ask(url, headers)


def press(token, answer):
    """Opens the page and presses the button of that name."""
    page = check("page", ask(OAUTH + "authorize?perms=read&oauth_token=" + token["oauth_token"]), 200, "<form")
    fields = dict(re.findall(r'type="hidden" name="(\w+)" value="([^"]*)"', page[1]), answer=answer)
    return ask(SERVICE + re.search(r'action="([^"]*)"', page[1])[1], FORM, urllib.parse.urlencode(fields))


# The sign-in with a code and with an address.
asked = request_token("oob")
check("too early", access_token(asked, "123456789"), 401, "permission_denied")
code = re.search(r'id="code">(\d{3}-\d{3}-\d{3})<', check("code", press(asked, "allow"), 200, "code")[1])[1]
check("wrong code", access_token(asked, code[:-1] + str((int(code[-1]) + 1) % 10)), 401, "verifier_invalid")
given = check("access token", access_token(asked, code.replace("-", "")), 200,
              "&user_nsid=12345678%40N00&username=Sim%20Owner")[1]
given = {name: value[0] for name, value in urllib.parse.parse_qs(given).items()}
check("the new token", query(resource_owner_key=given["oauth_token"],
                             resource_owner_secret=given["oauth_token_secret"]), 200, 'stat="ok"')
check("code again", access_token(asked, code), 401, "token_rejected")
check("request token in place of one", query(resource_owner_key=asked["oauth_token"]), 200, 'code="98"')
check("page again", ask(OAUTH + "authorize?oauth_token=" + asked["oauth_token"]), 400, "no longer good")
asked = request_token("http://127.0.0.1:1/back?x=1")
back = check("address", press(asked, "allow"), 302, "")[2]["Location"]
verifier = re.fullmatch(re.escape("http://127.0.0.1:1/back?x=1&oauth_token=" + asked["oauth_token"]) +
                        r"&oauth_verifier=(\w{16})", back)[1]
check("by address", access_token(asked, verifier), 200, "oauth_token_secret=")
asked = request_token("oob")
check("not allowed", press(asked, "deny"), 200, "Not allowed")
check("after a refusal", access_token(asked, "1"), 401, "permission_denied")
