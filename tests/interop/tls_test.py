"""Whom tavmail trusts: a server in Python with each kind of certificate, protocol and misbehaviour.

    tls_test.py TAVMAIL

Each is tried with SMTP and POP3, from the first byte and after STARTTLS or STLS. Only a right
certificate gets a mail or a password, and tavmail says what was wrong with any other.
"""

import datetime
import os
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time
import warnings

from tavmail import TLS, Tavmail

# Old versions are here to be refused.
warnings.simplefilter("ignore", DeprecationWarning)

WAYS = [(protocol, mode) for protocol in ("smtp", "pop3") for mode in ("starttls", "tls")]
TIMEOUT = 3  # seconds that tavmail waits at each step

AUTHORITY = """[ca]
default_ca = all
[all]
new_certs_dir = .
database = index
rand_serial = yes
default_md = sha256
unique_subject = no
policy = any
copy_extensions = copy
[any]
commonName = supplied
[req]
distinguished_name = name
[name]
[issuer]
basicConstraints = critical,CA:TRUE
"""


class Certificates:
    """Certificates of "localhost", each with one thing wrong; "right" has none."""

    def __init__(self, folder):
        self.folder = folder
        with open(self.path("config"), "w") as file:
            file.write(AUTHORITY)
        open(self.path("index"), "w").close()
        self.openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out",
                     "key")
        for name in "ca", "other":
            self.openssl("req", "-x509", "-config", "config", "-extensions", "issuer",
                         "-key", "key", "-subj", f"/CN=Test {name}", "-days", "30",
                         "-out", f"{name}.pem")
        self.issue("right")
        self.issue("expired", -10, -1)
        self.issue("not yet valid", 1, 10)
        self.issue("wrong name", name="elsewhere.example")
        self.issue("unknown issuer", issuer="other")
        self.openssl("req", "-x509", "-config", "config", "-key", "key", "-subj", "/CN=localhost",
                     "-addext", "subjectAltName=DNS:localhost", "-out", "self-signed.pem")

    def path(self, name):
        return os.path.join(self.folder, name)

    def openssl(self, *arguments):
        subprocess.run(["openssl", *arguments], cwd=self.folder, check=True, capture_output=True)

    def issue(self, kind, first=-1, last=30, name="localhost", issuer="ca"):
        now = datetime.datetime.now(datetime.timezone.utc)
        begin, end = ((now + datetime.timedelta(days)).strftime("%Y%m%d%H%M%SZ")
                      for days in (first, last))
        self.openssl("req", "-new", "-config", "config", "-key", "key", "-subj", f"/CN={name}",
                     "-addext", f"subjectAltName=DNS:{name}", "-out", "request")
        self.openssl("ca", "-batch", "-config", "config", "-in", "request",
                     "-cert", f"{issuer}.pem", "-keyfile", "key", "-startdate", begin,
                     "-enddate", end, "-out", f"{kind}.pem")

    def context(self, kind, version=None):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.set_ciphers("ALL:@SECLEVEL=0")
        context.minimum_version = ssl.TLSVersion.TLSv1
        if version:
            context.minimum_version = context.maximum_version = version
        context.load_cert_chain(self.path(f"{kind}.pem"), self.path("key"))
        return context


# -- the server --

SMTP_REPLIES = {"EHLO": "250-here\r\n250 {offer}", "STARTTLS": "220 go", "MAIL": "250 ok",
                "RCPT": "250 ok", "DATA": "354 go", ".": "250 taken", "QUIT": "221 bye",
                "AUTH": "235 in"}
POP3_REPLIES = {"CAPA": "+OK\r\nSTLS\r\n.", "STLS": "+OK go", "USER": "+OK", "PASS": "+OK",
                "STAT": "+OK 0 0", "QUIT": "+OK bye"}


class Server:
    """Speaks with one client. `hello` takes the connection where TLS begins, and returns the one to
    go on with, or None to hang up; `appended` goes with the reply to STARTTLS and STLS."""

    def __init__(self, protocol, mode, hello, appended=b""):
        self.protocol, self.mode, self.hello, self.appended = protocol, mode, hello, appended
        self.commands = []  # as (is encrypted, verb)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.thread.join(30)
        assert not self.thread.is_alive(), "the server still waits"
        self.listener.close()

    def serve(self):
        self.listener.settimeout(20)
        connection, _ = self.listener.accept()
        connection.settimeout(20)
        try:
            if self.mode == "tls":
                connection = self.encrypted(connection)
            if connection:
                connection = self.talk(connection, self.mode == "tls", greets=True)
            if connection:
                self.talk(connection, True, greets=False)
        except OSError:  # ssl.SSLError too: the client has hung up
            pass
        finally:
            if connection:
                connection.close()

    def encrypted(self, connection):
        try:
            return self.hello(connection)
        except OSError:
            connection.close()
            return None

    def talk(self, connection, is_encrypted, greets):
        """Answers commands. Returns an encrypted connection when the client has asked for it."""
        replies = SMTP_REPLIES if self.protocol == "smtp" else POP3_REPLIES
        offer = "AUTH PLAIN" if is_encrypted else "STARTTLS"
        lines = connection.makefile("rb", buffering=0)
        if greets:
            connection.sendall(b"220 here\r\n" if self.protocol == "smtp" else b"+OK here\r\n")
        is_data = False
        while True:
            line = lines.readline()
            if not line:
                return None
            if is_data and line != b".\r\n":
                continue
            verb = line.split()[0].decode("latin-1").upper()
            self.commands.append((is_encrypted, verb))
            reply = replies.get(verb, "500 what?").format(offer=offer).encode() + b"\r\n"
            is_upgrade = verb in ("STARTTLS", "STLS")
            connection.sendall(reply + (self.appended if is_upgrade else b""))
            is_data = verb == "DATA"
            if is_upgrade:
                return self.encrypted(connection)

    def was_trusted(self):
        """Whether it got anything that only a server with a right certificate may get."""
        return bool({"AUTH", "MAIL", "USER", "PASS", "APOP"} & {verb for _, verb in self.commands})


def handshake(context):
    def hello(connection):
        return context.wrap_socket(connection, server_side=True)
    return hello


def dropping(connection):
    """Ends the connection behind the first message of the handshake."""
    connection.recv(65536)
    connection.close()


def resetting(connection):
    connection.recv(65536)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def half_hello(connection):
    """The beginning of an answer, and then the end."""
    connection.recv(65536)
    connection.sendall(b"\x16\x03\x03\x00\x7a\x02\x00\x00\x76\x03\x03")
    connection.close()


def silent(connection):
    connection.recv(65536)
    connection.recv(65536)  # until the client gives up
    connection.close()


def old_hello(connection):
    """TLS 1.0 or nothing: it chooses that though it was not offered."""
    connection.recv(65536)
    connection.sendall(b"\x16\x03\x01\0\x2a\x02\0\0\x26\x03\x01" + b"r" * 32 + b"\0\0\x2f\0")
    connection.recv(65536)
    connection.close()


def greeting(connection):
    """Clear text from the start, where TLS is expected."""
    connection.sendall(b"220 here\r\n")
    connection.recv(65536)
    connection.close()


def alert(connection):
    connection.recv(65536)
    connection.sendall(b"\x15\x03\x03\0\x02\x02\x28")
    connection.close()


def no_tls(connection):
    connection.recv(65536)
    connection.sendall(b"500 what?\r\n" * 20)
    connection.close()


# -- what tavmail does --


class Failures(list):
    def check(self, is_right, *what):
        if not is_right:
            self.append(" | ".join(map(str, what)))
            print("FAILED:", self[-1])


class Trial:
    def __init__(self, tool, certificates, failures):
        self.tool, self.certificates, self.failures = tool, certificates, failures

    def run(self, server, *arguments):
        login = self.tool.login("anna", "geheim 1")
        place = ["--server", f"localhost:{server.port}", "--tls", TLS[server.mode], "--ca-file",
                 self.certificates.path("ca.pem"), "--timeout", str(TIMEOUT), *login, *arguments]
        if server.protocol == "pop3":
            return self.tool.receive([*place, "--all"], 20)
        return self.tool.send([*place, "--from", "a@test.example", "--to", "b@test.example",
                               "--text", "x"], 20)

    def accepts(self, what, hello, *arguments):
        for protocol, mode in WAYS:
            with Server(protocol, mode, hello) as server:
                answer = self.run(server, *arguments)
            self.failures.check(answer.code == 0 and server.was_trusted(), what, protocol, mode,
                                answer)

    def refuses(self, what, hello, words, *arguments, ways=WAYS, appended=b"", seconds=2 * TIMEOUT):
        """No login, an end in time, and a message that says what it was."""
        for protocol, mode in ways:
            begin = time.monotonic()
            with Server(protocol, mode, hello, appended) as server:
                answer = self.run(server, *arguments)
            took = time.monotonic() - begin
            self.failures.check(answer.code != 0 and not server.was_trusted(), what, protocol, mode,
                                answer, server.commands)
            self.failures.check(took < seconds, what, protocol, mode, f"{took:.1f} s")
            told = answer.error, answer.document.get("problem", "")
            self.failures.check(all(word in text for word in words.split("|") for text in told),
                                what, protocol, mode, f"{words!r} not in {told!r}")
        print(f"{what}: refused; \"{answer.error.strip()}\"")


def check_certificates(trial, certificates):
    trial.accepts("a right certificate", handshake(certificates.context("right")))
    for kind, words in (("expired", "certificate of localhost|expired"),
                        ("not yet valid", "certificate of localhost|not yet valid|clock"),
                        ("self-signed", "certificate of localhost|self-signed"),
                        ("wrong name", "certificate of localhost|for elsewhere.example, not for "
                         "localhost"),
                        ("unknown issuer", "certificate of localhost|issuer is unknown")):
        hello = handshake(certificates.context(kind))
        trial.refuses(kind, hello, words)
        # A person may say that it does not matter.
        trial.accepts(f"{kind}, unchecked", hello, "--tls-no-check")
    print("right: accepted; all others only with --tls-no-check")


def check_versions(trial, certificates):
    def only(version):
        return handshake(certificates.context("right", version))

    trial.accepts("TLS 1.2", only(ssl.TLSVersion.TLSv1_2))
    trial.accepts("TLS 1.3", only(ssl.TLSVersion.TLSv1_3))
    trial.accepts("TLS 1.3 wanted", only(ssl.TLSVersion.TLSv1_3), "--tls-min", "1.3")
    trial.refuses("TLS 1.2 with 1.3 wanted", only(ssl.TLSVersion.TLSv1_2),
                  "no TLS with localhost|older than TLS 1.3; leave out --tls-min 1.3",
                  "--tls-min", "1.3")
    for name, hello in ("TLS 1.1", only(ssl.TLSVersion.TLSv1_1)), ("TLS 1.0 at once", old_hello):
        trial.refuses(name, hello, "no TLS with localhost|older than TLS 1.2; ask")
    print("TLS 1.2 and 1.3: accepted")


def check_misbehaviour(trial, certificates):
    upgraded, implicit = ([way for way in WAYS if way[1] == mode] for mode in ("starttls", "tls"))
    cut = "cut the connection in the handshake; ask"
    for hello, words, ways in (
            (dropping, cut, WAYS), (resetting, cut, WAYS), (half_hello, cut, WAYS),
            (alert, "handshake failure); the server may want", WAYS),
            (no_tls, "is no TLS; try --tls implicit", upgraded),
            (no_tls, "is no TLS; check the port, or try --tls starttls", implicit),
            (greeting, "; check the port, or try --tls starttls", implicit),
            (silent, "fell silent in the handshake; try again later", upgraded),
            (silent, "fell silent in the handshake; check the port", implicit)):
        for what, arguments in (hello.__name__, []), ("unchecked", ["--tls-no-check"]):
            trial.refuses(what, hello, f"no TLS with localhost|{words}", *arguments, ways=ways,
                          seconds=3 * TIMEOUT if hello == silent else 2 * TIMEOUT)
    good = handshake(certificates.context("right"))
    upgrades = {"smtp": b"250 here\r\n", "pop3": b"+OK\r\n"}
    for protocol, reply in upgrades.items():
        ways = [(protocol, "starttls")]
        for appended in reply, b"\x16", b"\r\n", reply * 100:
            trial.refuses(f"{appended[:12]} behind the reply", good,
                          "no TLS with localhost|more in clear text|; try --tls implicit",
                          ways=ways, appended=appended)


def main():
    failures = Failures()
    with tempfile.TemporaryDirectory() as folder:
        certificates = Certificates(folder)
        trial = Trial(Tavmail(os.path.abspath(sys.argv[1])), certificates, failures)
        check_certificates(trial, certificates)
        check_versions(trial, certificates)
        check_misbehaviour(trial, certificates)
    return 1 if failures else 0


sys.exit(main())
