"""A provider of tokens for runs.py (RFC 6749, RFC 8628). What it answers to one request after the
other is a list of words: "device" begins a consent, "ok" gives tokens, "odd" gives what no client should
take, anything else is the name of an error. After a "+" stands how the answer differs.

Authlib gives the answers (oauth_library.py), but for those to "odd", where it is installed.
"""

import json
import os
import ssl
import threading
import time
from email.utils import formatdate
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs

try:
    from oauth_library import Library
except ImportError as missing:
    print(f"the provider is our own, without python3-authlib and python3-flask: {missing}")
    Library = None

ACCESS, REFRESH, DEVICE = "zugangswort", "auffrischwort", "geraetewort"  # a number follows
CHANGES = {
    "2": {"access_token": ACCESS + "2"}, "short": {"expires_in": 4}, "same": {"refresh_token": None}, "narrow": {"scope": "smtp"},
    "mac": {"token_type": "mac"}, "blank": {"access_token": "a b"}, "plain": {"user_code": "\x1b[2J"},
    "file": {"verification_uri": "file:///etc/passwd"},
    "endless": {"expires_in": 1e300, "interval": -1},
    "huge": {"x": "y" * 100000}, "bare": {"access_token": None, "device_code": None}}


class Provider(ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, folder):
        self.folder, self.words, self.faults, self.given = folder, [], [], 0
        self.accepted = {DEVICE}  # what may be exchanged for tokens
        self.library = Library and Library(
            lambda **_: ACCESS + "1", lambda **_: f"{REFRESH}{self.given}")
        super().__init__(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def finish_request(self, request, client_address):
        if os.path.exists(self.folder + "/provider.pem"):
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(self.folder + "/provider.pem")
            request = context.wrap_socket(request, server_side=True)
        super().finish_request(request, client_address)

    def handle_error(self, request, client_address):
        pass  # a client that does not trust it

    def answer(self, path, body):
        """The status, the document and how they differ."""
        form = {name: value[0] for name, value in parse_qs(body).items()}
        word, *changes = self.words.pop(0).split("+") if self.words else ["unexpected"]
        secret = form.get("device_code" if "device" in form.get("grant_type", "") else
                          "refresh_token", "")
        wanted = path == ("/device" if word == "device" else "/token") or word != "device"
        known = form.get("client_secret", "") == ("geheim" if "known" in changes else "")
        if form.get("client_id") != "tool" or not (wanted and known) or word == "unexpected":
            self.faults.append(f"the provider was asked {path} {form} for {word}")
        self.given += word == "ok"
        status, document = 200 if word in ("device", "ok", "odd") else 400, {"error": word}
        if self.library and word not in ("odd", "unexpected"):
            status, document = self.library.answer(
                word, "geheim" if "known" in changes else "", self.accepted, path, body)
        elif path == "/token" and secret not in self.accepted:
            status, document = 400, {"error": "invalid_grant"}
        elif word == "device":
            document = {"device_code": DEVICE, "user_code": "WDJB-MJHT", "interval": 1,
                        "verification_uri": "https://login.example.com/device", "expires_in": 60,
                        "verification_uri_complete": "https://login.example.com/device?c=WDJB"}
        elif word in ("ok", "odd"):
            document = {"access_token": ACCESS + "1", "token_type": "Bearer",
                        "refresh_token": f"{REFRESH}{self.given}", "expires_in": 3600}
        for change in changes:
            document.update(CHANGES.get(change, {}))
        if "echo" in changes:
            document["error_description"] = f"not {secret}"
        if word == "ok" and document.get("refresh_token"):
            self.accepted = {document["refresh_token"]}  # the one before is used up
        return status, document, changes


class Handler(BaseHTTPRequestHandler):
    def log_message(self, *_):
        pass

    def date_time_string(self, timestamp=None):
        return formatdate(time.time() + (-7200 if "late" in self.changes else 0), usegmt=True)

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"])).decode()
        status, document, self.changes = self.server.answer(self.path, body)
        text = "nonsense" if "nonsense" in self.changes else json.dumps(document)
        time.sleep(9 if "silent" in self.changes else 0)
        if "moved" in self.changes:
            self.send_response(307)
            self.send_header("Location", "/elsewhere")
        else:
            self.send_response(503 if "down" in self.changes else status)
        self.end_headers()
        self.wfile.write(text.encode())
