"""What tavmail says of servers that are not as they should be, or not as it was told.

    tavmail_doctor_test.py TAVMAIL

A row of a table: what the server does; the command line; the exit code and the words of the output.
"""

import concurrent.futures
import os
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time

TAVMAIL = sys.argv[1]
GOOD, DATA, UNAVAILABLE, TEMPORARY, PROTOCOL, NO_PERMISSION, CONFIG = (
    0, 65, 69, 75, 76, 77, 78)
PASSWORD = "geheim"
SECRETS = (PASSWORD, "Z2VoZWlt", "AGFubmEAZ2VoZWlt")  # also in base64: alone, and as PLAIN has it
SILENT, CLOSE = object(), None

SMTP = {"": "220 here", "EHLO": "250-here\r\n250 AUTH PLAIN", "AUTH": "235 in", "QUIT": "221 bye",
        "*": "250 ok"}
POP3 = {"": "+OK here", "CAPA": "+OK\r\nUSER\r\nUIDL\r\n.", "STAT": "+OK 1 9",
        "UIDL": "+OK\r\n1 u1\r\n.", "UIDL 1": "+OK 1 u1",
        "LIST": "+OK\r\n1 9\r\n.", "LIST 1": "+OK 1 9", "*": "+OK"}


class Server:
    """Answers each verb, or first two words, with its reply, "*" any other, "" the connection.
    CLOSE ends it.

    `tls` is a context: with `implicit` from the first byte, else after STARTTLS or STLS.
    """

    def __init__(self, replies, tls=None, implicit=False):
        self.replies, self.tls, self.implicit, self.verbs = replies, tls, implicit, []
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            connection = self.socket.accept()[0]
            threading.Thread(target=self.session, args=(connection,), daemon=True).start()

    def secure(self, connection):
        connection = self.tls.wrap_socket(connection, server_side=True)
        return connection, connection.makefile("rwb", buffering=0)

    def session(self, connection):
        connection.settimeout(20)
        try:
            if self.implicit:
                connection, stream = self.secure(connection)
            else:
                stream = connection.makefile("rwb", buffering=0)
            verb, upgrades = "", self.tls and not self.implicit
            while self.reply(stream, verb):
                if verb == "DATA":
                    while stream.readline() not in (b".\r\n", b""):
                        pass
                    verb = "."
                    continue
                if verb in ("STARTTLS", "STLS") and upgrades:
                    connection, stream = self.secure(connection)
                line = stream.readline()
                if not line or verb == "QUIT":
                    break
                verb = self.verb_of(line.decode("latin-1").split())
        except OSError:
            pass
        finally:
            connection.close()

    def verb_of(self, words):
        self.verbs += words[:1]
        two = " ".join(words[:2])
        return two if two in self.replies else words[0] if words else "?"

    def reply(self, stream, verb):
        reply = self.replies.get(verb, self.replies.get("*", CLOSE))
        if reply is SILENT:
            return True
        if reply is not CLOSE:
            reply = reply if reply.endswith("\n") else reply + "\r\n"
            stream.write(reply.encode("latin-1"))
        return reply is not CLOSE


def smtp(**replies):
    return Server({**SMTP, **named(replies)})


def pop3(**replies):
    return Server({**POP3, **named(replies)})


def named(replies):
    """`greeting` for the verb "", `any` for "*"."""
    return {{"greeting": "", "any": "*"}.get(verb, verb): text for verb, text in replies.items()}


def free_port(connections=0):
    """A port that refuses connections; or one where only so many are taken, and further ones wait."""
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    if connections:
        listener.listen(0)
        for _ in range(connections):
            waiting = socket.socket()
            waiting.setblocking(False)
            waiting.connect_ex(listener.getsockname())
            KEPT.append(waiting)
    KEPT.append(listener)
    return listener.getsockname()[1]


KEPT = []  # sockets that stay open


class Certificates:
    """Servers of a small authority: an expired one, one for another name, ..."""

    def __init__(self, folder):
        self.folder = folder
        self.path = lambda name: os.path.join(folder, name)
        self.openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key", "-out",
                     "ca.pem", "-subj", "/CN=Test CA", "-days", "30")
        with open(self.path("config"), "w") as file:
            file.write("[ca]\ndefault_ca=c\n[c]\nnew_certs_dir=.\ndatabase=index\nserial=serial\n"
                       "default_md=sha256\npolicy=p\ncertificate=ca.pem\nprivate_key=ca.key\n"
                       "unique_subject=no\n[p]\ncommonName=supplied\n"
                       "[here]\nsubjectAltName=DNS:localhost,IP:127.0.0.1\n"
                       "[there]\nsubjectAltName=DNS:mail.example\n")
        for name, text in (("index", ""), ("serial", "01\n")):
            with open(self.path(name), "w") as file:
                file.write(text)
        self.make("good", "here", "20200101000000Z", "20991231000000Z")
        self.make("expired", "here", "20200101000000Z", "20210101000000Z")
        self.make("early", "here", "20980101000000Z", "20991231000000Z")
        self.make("other", "there", "20200101000000Z", "20991231000000Z")
        self.openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "self.key", "-out",
                     "self.pem", "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost")

    def openssl(self, *arguments):
        subprocess.run(["openssl", *arguments], cwd=self.folder, check=True, capture_output=True,
                       timeout=60)

    def make(self, name, names, start, end):
        self.openssl("req", "-newkey", "rsa:2048", "-nodes", "-keyout", name + ".key", "-out",
                     name + ".csr", "-subj", "/CN=" + name)
        self.openssl("ca", "-batch", "-notext", "-config", "config", "-in", name + ".csr", "-out",
                     name + ".pem", "-extensions", names, "-startdate", start, "-enddate", end)

    def context(self, name="good", newest=None, wants_client=False):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.path(name + ".pem"), self.path(name + ".key"))
        if newest:
            context.maximum_version = newest
        if wants_client:
            context.verify_mode = ssl.CERT_REQUIRED
            context.load_verify_locations(self.path("ca.pem"))
        return context


PLAIN = ["--tls", "none", "--protocol", "smtp"]
USER = ["-u", "anna", "--password-command", "echo " + PASSWORD]
LOGIN = [*PLAIN, *USER]
BOX = ["--tls", "none", "--protocol", "pop3", *USER]
STLS = ["--protocol", "pop3", *USER]
IMPLICIT = ["--tls", "implicit", "--protocol", "smtp"]


def clear_rows():
    """Of servers without TLS: the server, the options of doctor, the exit code, the words."""
    no_login = "250-here\r\n250-STARTTLS\r\n250 SIZE 9"
    return [
        (smtp(), PLAIN, GOOD, "postmaster@[127.0.0.1] is accepted|ready to send"),
        (smtp(), [*LOGIN, "-f", "A <a@b.c>", "-t", "x@y.z"], GOOD,
         "a@b.c is accepted|x@y.z is accepted|anna is logged in"),
        (smtp(greeting="SSH-2.0-OpenSSH_9.2p1"), PLAIN, PROTOCOL,
         "FAIL greeting|is an SSH server: SSH-2.0-OpenSSH_9.2p1|check server and port"),
        (Server({"": SILENT, "*": "HTTP/1.1 400 Bad Request"}), PLAIN, PROTOCOL, "is a web server"),
        (smtp(greeting="* OK [CAPABILITY IMAP4rev1] ready"), PLAIN, PROTOCOL,
         "is an IMAP server|sending has port 587"),
        (Server({"": "220 (vsFTPd 3.0.3)", "*": "530 Please login with USER and PASS."}), PLAIN,
         PROTOCOL, "is an FTP server|check server and port"),
        (smtp(greeting="421 busy"), PLAIN, TEMPORARY, "FAIL greeting|421 busy|try again later"),
        (smtp(greeting="421 busy"), [*PLAIN, "--json"], TEMPORARY,
         '"good": false|"text": "127.0.0.1 port|"remedy": "try again later"'),
        (smtp(greeting="554-no\r\n554 service"), PLAIN, UNAVAILABLE,
         "does not serve this machine: 554-no service|blocked"),
        (smtp(greeting="-ERR not here"), PLAIN, PROTOCOL, "is a POP3 server|sending has port"),
        (smtp(greeting="+OK hi"), PLAIN, PROTOCOL, "is a POP3 server: +OK hi|sending has port"),
        (smtp(greeting="J\x00\x00\x00 5.5.5-10.11.6-MariaDB"), PLAIN, PROTOCOL,
         "greets with what is no SMTP|MariaDB|check server and port"),
        (smtp(greeting="220 here\n"), PLAIN, PROTOCOL, "line feed alone: 220 here|CR LF"),
        (smtp(greeting=CLOSE), PLAIN, PROTOCOL, "closed the connection at the greeting|want TLS"),
        (Server({"": SILENT, "*": SILENT}), PLAIN, TEMPORARY, "fell silent at the greeting"),
        (smtp(), ["--protocol", "smtp"], PROTOCOL, "does not offer STARTTLS|--tls implicit"),
        (smtp(EHLO=no_login, STARTTLS="454 not now"), [], TEMPORARY, "STARTTLS|454 not now"),
        (smtp(EHLO=no_login, STARTTLS="502 no"), [], UNAVAILABLE, "STARTTLS|try --tls implicit"),
        (smtp(EHLO=no_login, STARTTLS="220 go\r\n250 more"), [], PROTOCOL,
         "TLS handshake|more in clear|--tls implicit"),
        (smtp(EHLO=no_login), LOGIN, UNAVAILABLE,
         "no login that works here without TLS|--tls starttls"),
        (smtp(EHLO="250 here"), LOGIN, UNAVAILABLE, "it has none|leave out --user|587"),
        (smtp(EHLO="250 AUTH GSSAPI NTLM"), LOGIN, UNAVAILABLE, "only GSSAPI NTLM|ask whoever"),
        (smtp(EHLO="250 AUTH XOAUTH2 OAUTHBEARER"), LOGIN, UNAVAILABLE, "XOAUTH2|app password"),
        (smtp(AUTH="535 no"), LOGIN, NO_PERMISSION,
         "login of anna: 535 no|check user and password"),
        (smtp(AUTH="454 later"), LOGIN, TEMPORARY, "FAIL login|454 later|try again"),
        (smtp(AUTH="538 encryption required"), LOGIN, UNAVAILABLE, "wants TLS|--tls starttls"),
        (smtp(EHLO="250 AUTH PLAIN LOGIN", AUTH="535-no\r\n535 x"), LOGIN, NO_PERMISSION,
         "refused the login of anna: 535-no x"),
        (smtp(EHLO="250 AUTH LOGIN", AUTH="334 VXNlciBOYW1lAA=="), LOGIN, UNAVAILABLE,
         "asks for the login in a way|PLAIN"),
        (smtp(EHLO="502 what", HELO="550 bad name"), [*PLAIN, "--helo", "x"], UNAVAILABLE,
         "to be greeted by \"x\": 550 bad name|--helo NAME"),
        (smtp(MAIL="530 5.7.0 Authentication required"), PLAIN, UNAVAILABLE,
         "FAIL sender|wants a login: 530|--user NAME"),
        (smtp(MAIL="530 Must issue a STARTTLS command first"), PLAIN, UNAVAILABLE,
         "wants TLS before a mail|--tls starttls"),
        (smtp(MAIL="550 no"), PLAIN, UNAVAILABLE, "FAIL sender|550 no|--user NAME|--from"),
        (smtp(MAIL="553 not yours"), [*LOGIN, "-f", "a@b.c"], UNAVAILABLE,
         "the sender a@b.c: 553 not yours|only send from its own"),
        (smtp(MAIL="553 not yours"), LOGIN, GOOD, "ok sender|553 not yours|guess|--from"),
        (smtp(MAIL="452 full"), PLAIN, TEMPORARY, "FAIL sender|452 full|try again later"),
        (smtp(RCPT="450 4.2.0 Greylisted"), PLAIN, TEMPORARY, "FAIL a recipient|in some minutes"),
        (smtp(RCPT="451-4.7.1 come\r\n451 back"), PLAIN, TEMPORARY,
         "451-4.7.1 come back|greylisting"),
        (smtp(RCPT="554 Relay access denied"), PLAIN, UNAVAILABLE, "FAIL recipient|wants a login"),
        (smtp(RCPT="550 who"), [*PLAIN, "-f", "a@b.c"], UNAVAILABLE,
         "the recipient a@b.c: 550 who|check the address"),
        (pop3(), BOX, GOOD, "capabilities USER, UIDL|1 mail|ready to receive"),
        (pop3(greeting="220 here"), BOX, PROTOCOL, "is an SMTP server: 220 here|POP3 has port 110"),
        (pop3(greeting="* OK here"), BOX, PROTOCOL, "is an IMAP server|IMAP is not spoken"),
        (pop3(greeting="SSH-2.0-x"), BOX, PROTOCOL, "is an SSH server"),
        (Server({"": SILENT, "*": "HTTP/1.1 400 Bad Request"}), BOX, PROTOCOL, "is a web server"),
        (pop3(greeting="421 busy"), BOX, PROTOCOL, "is an SMTP server: 421 busy"),
        (pop3(greeting="-ERR [SYS/TEMP] full"), BOX, TEMPORARY, "-ERR [SYS/TEMP] full|try again"),
        (pop3(greeting="-ERR not you"), BOX, UNAVAILABLE, "-ERR not you|ask whoever"),
        (pop3(**{"UIDL 1": "-ERR what"}), BOX, UNAVAILABLE,
         "FAIL UIDL|no unique ids (UIDL): -ERR|--all"),
        (pop3(STAT="+OK 0 0", CAPA="+OK\r\nUSER\r\n."), BOX, UNAVAILABLE, "FAIL unique ids|--all"),
        (pop3(USER="-ERR [AUTH] Plaintext disallowed on non-secure (SSL/TLS) connections."), BOX,
         UNAVAILABLE, "wants TLS before the login|--tls starttls"),
        (pop3(PASS="-ERR [IN-USE] locked"), BOX, TEMPORARY, "FAIL login|[IN-USE]|try again later"),
        (pop3(PASS="-ERR [SYS/TEMP] locked"), BOX, TEMPORARY, "FAIL login|try again later"),
        (pop3(PASS="-ERR no"), BOX, NO_PERMISSION,
         "login of anna: -ERR no|check user and password"),
        (pop3(USER="-ERR no", CAPA="+OK\r\nSASL XOAUTH2\r\n."), BOX, UNAVAILABLE,
         "offers OAuth only|app password"),
        (pop3(STAT="-ERR [SYS/TEMP] x"), BOX, TEMPORARY, "FAIL STAT|try again later"),
        (pop3(), [*BOX, "--apop"], UNAVAILABLE, "does not offer APOP|without --apop"),
        (pop3(greeting="+OK <1@x>", APOP="-ERR no"), [*BOX, "--apop"], NO_PERMISSION,
         "with APOP: -ERR no|leave out --apop"),
        (pop3(), STLS, PROTOCOL, "does not offer STLS|--tls implicit"),
        (pop3(CAPA="-ERR what"), STLS, PROTOCOL, "does not offer STLS|--tls implicit"),
        (pop3(CAPA="+OK\r\nSTLS\r\n.", STLS="-ERR no"), STLS, UNAVAILABLE,
         "STLS: -ERR no|implicit"),
    ]


def tls_rows(made):
    """The same of servers with TLS, and of TLS where there is none."""
    trusted = ["--ca-file", made.path("ca.pem")]
    old, offer = ssl.TLSVersion.TLSv1_2, "250-here\r\n250-STARTTLS\r\n250 AUTH PLAIN"
    upgraded = lambda context: Server({**SMTP, "EHLO": offer, "STARTTLS": "220 go"}, context)
    capable = "+OK\r\nUSER\r\nSTLS\r\nUIDL\r\n."
    stls = lambda context: Server({**POP3, "CAPA": capable}, context)
    over = lambda context, replies=SMTP: Server(replies, context, implicit=True)
    rows = [
        (over(made.context()), [*IMPLICIT, *trusted], GOOD, "ok tls|ok certificate|ready to send"),
        (upgraded(made.context()), [*trusted, *USER], GOOD, "ok tls|anna is logged in"),
        (stls(made.context()), [*STLS, *trusted], GOOD, "ok tls|ready to receive"),
        (over(made.context("expired")), [*IMPLICIT, *trusted], PROTOCOL,
         "FAIL certificate|has expired|renewed|clock"),
        (over(made.context("early")), [*IMPLICIT, *trusted], PROTOCOL,
         "not yet valid|set this machine"),
        (over(made.context("other")), [*IMPLICIT, *trusted], PROTOCOL,
         "it is for mail.example|what to do give --server the name"),
        (over(made.context("self")), [*IMPLICIT, *trusted], PROTOCOL,
         "self-signed|--ca-file FILE, the certificate itself"),
        (over(made.context()), [*IMPLICIT, "--ca-file", made.path("self.pem")], PROTOCOL,
         "issuer is unknown|trust its issuer with --ca-file"),
        (stls(made.context("other")), [*STLS, *trusted], PROTOCOL,
         "FAIL certificate|--server the name"),
        (over(made.context(), {**SMTP, "": "* OK IMAP"}), [*IMPLICIT, *trusted], PROTOCOL,
         "is an IMAP server"),
        (over(made.context(newest=old, wants_client=True)), [*IMPLICIT, *trusted], PROTOCOL,
         "FAIL TLS handshake|client certificate"),
        (over(made.context(wants_client=True)), [*IMPLICIT, *trusted], PROTOCOL,
         "client certificate"),
        (upgraded(made.context(wants_client=True)), trusted, PROTOCOL, "client certificate"),
        (smtp(), IMPLICIT, PROTOCOL, "FAIL tls|begins in clear text: 220 here|--tls starttls"),
        (smtp(greeting="SSH-2.0-x"), IMPLICIT, PROTOCOL, "is an SSH server"),
        (smtp(greeting=CLOSE), IMPLICIT, PROTOCOL, "TLS handshake|cut the connection|ask whoever"),
        (stls(made.context()), [*STLS, *trusted, "--apop"], UNAVAILABLE, "does not offer APOP"),
    ]
    for server in over(made.context(newest=old)), upgraded(made.context(newest=old)):
        mode = ["--tls", "implicit"] if server.implicit else []
        rows.append((server, [*mode, *trusted, "--tls-min", "1.3"], PROTOCOL,
                     "FAIL TLS handshake|older than TLS 1.3|leave out --tls-min 1.3"))
    rows.append((stls(made.context(newest=old)), [*STLS, *trusted, "--tls-min", "1.3"], PROTOCOL,
                 "older than TLS 1.3|leave out --tls-min 1.3"))
    rows.append((alert(40), [*IMPLICIT, "--tls-min", "1.3"], PROTOCOL, "leave out --tls-min 1.3"))
    rows.append((alert(40), IMPLICIT, PROTOCOL, "FAIL TLS handshake|client certificate"))
    # Of a login before sending, each line belongs to its protocol.
    before = [*LOGIN, "--auth", "pop+smtp", "--pop3-tls", "implicit", *trusted, "--pop3-port"]
    for name, code, words in (("good", GOOD, "ok pop3 tls|ok pop3 certificate|ok pop3 login|ok login"),
                              ("other", PROTOCOL, "FAIL pop3 certificate|--server the name")):
        box = over(made.context(name), POP3)
        rows.append((smtp(), [*before, str(box.port)], code, words))
    box = pop3(PASS="-ERR no")
    rows.append((smtp(), [*LOGIN, "--auth", "pop", "--pop3-tls", "none", "--pop3-port",
                          str(box.port)], NO_PERMISSION, "FAIL pop3 login|-ERR no"))
    return rows


def alert(code):
    """A server that ends the handshake with an alert."""
    return Server({"": SILENT, "*": "\x15\x03\x03\0\x02\x02" + chr(code)})


MAIL = [*PLAIN[:2], "-f", "a@b.c", "-t", "b@c.d;x@y.z", "-S", PASSWORD, "--text", "x", "--json", "-v"]
FETCH = ["--tls", "none", *USER, "--all", "--json", "-v"]


def cause_rows():
    """What the other commands make of a reply, whose first line counts. Nothing secret is shown."""
    login = {**SMTP, "EHLO": "250 AUTH PLAIN LOGIN", "AUTH PLAIN": "535 no"}
    tricky = {"AUTH LOGIN": "334-VXNlcm5hbWU6\r\n250 x", "YW5uYQ==": "334-UGFzc3dvcmQ6\r\n250 x",
              "Z2VoZWlt": "535-no Z2VoZWlt\r\n250 x"}
    headers = "my +OK\r\nSubject: x\r\nX-Y: geheim\r\n\r\n."
    return [
        ("send", Server({**SMTP, "DATA": "354-go\r\n250 x"}), MAIL, GOOD, '"delivered"'),
        ("send", Server({**SMTP, "DATA": "354 go", ".": "250-in\r\n550 x"}), MAIL, GOOD,
         '"delivered"'),
        ("send", Server({**SMTP, "DATA": "354 go", ".": "550-no\r\n250 fine"}), MAIL, UNAVAILABLE,
         '"outcome": "refused"|550-no fine'),
        ("send", Server({**SMTP, "DATA": "354 go", ".": "250-in"}), MAIL, TEMPORARY,
         '"outcome": "unknown"|may have been delivered'),
        ("send", smtp(MAIL="550 no"), MAIL, UNAVAILABLE, '"outcome": "refused"|sender a@b.c'),
        ("send", Server({**SMTP, "RCPT TO:<x@y.z>": "550-no\r\n250 x"}), MAIL, UNAVAILABLE,
         '"outcome": "refused"|"recipient": "x@y.z"|the recipient x@y.z'),
        ("send", Server({**login, "AUTH LOGIN": "334 VXNlciBOYW1lAA=="}), [*MAIL, *USER],
         NO_PERMISSION, "login of anna|the server said: 535 no"),
        ("send", Server({**login, **tricky}), [*MAIL, *USER], NO_PERMISSION, "535-no **** x"),
        ("send", smtp(MAIL="what"), MAIL, PROTOCOL, 
         "a reply that makes no sense at the sender|the server said: what"),
        ("send", Server({**SMTP, "DATA": "354 go", ".": "what\r\n250 x"}), MAIL, TEMPORARY,
         '"outcome": "unknown"|may have been delivered'),
        ("send", Server({**SMTP, "EHLO": "250 AUTH CRAM-MD5", "AUTH": "334 " + 1100 * "A"}),
         [*MAIL, *USER],
         UNAVAILABLE, "asks for the login in a way"),
        ("send", smtp(MAIL=CLOSE), MAIL, TEMPORARY,
         "closed the connection at the sender|try again"),
        ("receive", pop3(PASS="-ERR [IN-USE] locked"), FETCH, TEMPORARY,
         "[IN-USE]|try again later"),
        ("receive", pop3(PASS="-ERR no PASS geheim here"), FETCH, NO_PERMISSION,
         "no PASS **** here"),
        ("receive", pop3(), ["--tls", "none", "--all", "-u", "anna", "--password-command",
                               "printf %01020d 0"], DATA, "password or --helo is too long"),
        ("receive", pop3(greeting="my +OK", TOP=headers), FETCH, GOOD,
         "bytes of mail"),
    ]


def quick_rows(made):
    """The wrong TLS mode is told long before the time is over."""
    box = Server(POP3, made.context(), implicit=True)
    return [(Server(SMTP, made.context(), implicit=True), arguments, PROTOCOL,
             "FAIL tls|speaks TLS from the first byte|use --tls implicit")
            for arguments in ([], PLAIN)] + [
        (box, BOX, PROTOCOL, "speaks TLS from the first byte"),
        (smtp(), IMPLICIT, PROTOCOL, "begins in clear text"),
        (pop3(), [*BOX, "--tls", "implicit"][2:], PROTOCOL, "begins in clear text")]


def other_rows(made):
    """What has no server: its port, the options, the exit code, the words."""
    empty = made.path("config")
    return [
        (free_port(), PLAIN, UNAVAILABLE, "refuses the connection|is the port right"),
        (free_port(connections=3), PLAIN, TEMPORARY, "does not answer|firewall"),
        (1, ["--ca-file", empty], CONFIG, "holds no certificate"),
        (1, ["-u", "anna", "--password-command", "exit 3"], CONFIG, "--password-command failed"),
        (1, ["-u", "anna", "--password-file", made.path("marked")], CONFIG, "byte order mark"),
    ]


def run(arguments):
    start = time.monotonic()
    done = subprocess.run([TAVMAIL, *arguments], capture_output=True, timeout=60)
    shown = (done.stdout + done.stderr).decode()
    return done.returncode, shown, time.monotonic() - start


def check(command, peer, arguments, code, words, timeout=3, limit=25.0):
    """The faults of a row."""
    port = peer.port if isinstance(peer, Server) else peer
    line = [command, "-s", f"127.0.0.1:{port}", "--timeout", str(timeout), *arguments]
    returned, shown, seconds = run(line)
    text = " ".join(shown.split())
    faults = [f"no {word!r}" for word in words.split("|") if word not in text]
    if returned != code:
        faults.append(f"exit code {returned}, not {code}")
    if seconds > limit:
        faults.append(f"{seconds:.1f} s")
    if any(secret in shown for secret in SECRETS):
        faults.append("a secret")
    if command == "doctor":
        verbs = peer.verbs if isinstance(peer, Server) else []
        # The QUIT of the look at the port may come late.
        steps = [verb for verb in verbs if verb != "QUIT"]
        if "DATA" in verbs or (code == GOOD and "MAIL" in verbs and steps[-1] != "RSET"):
            faults.append(f"commands {verbs}")
        is_page = "tavmail: " not in shown and "--json" not in arguments
        if is_page and shown.count("  FAIL  ") != (code != GOOD):
            faults.append("not one FAIL")
        if is_page and max(map(len, shown.splitlines())) > 79:
            faults.append("a long line")
    return f"{' '.join(line)}: {', '.join(faults)}\n{shown}" if faults else ""


def main():
    with tempfile.TemporaryDirectory() as folder:
        os.environ["XDG_CONFIG_HOME"] = folder  # where no account is
        made = Certificates(folder)
        with open(made.path("marked"), "wb", opener=lambda p, f: os.open(p, f, 0o600)) as file:
            file.write(b"\xef\xbb\xbfgeheim\n")
        jobs = [("doctor", *row) for row in [*clear_rows(), *tls_rows(made), *other_rows(made)]]
        jobs += cause_rows()
        jobs += [("doctor", *row, 30, 10) for row in quick_rows(made)]
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            faults = [fault for fault in pool.map(lambda job: check(*job), jobs) if fault]
    print("\n".join(faults) or f"doctor: {len(jobs)} servers as expected")
    print(len(faults), "of", len(jobs))
    sys.exit(1 if faults else 0)


main()
