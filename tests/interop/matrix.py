"""Which server works with which TLS mode and login method, and the page that tells it.

    results = matrix.run_all(client)
    matrix.page(results), matrix.exit_code(results)

Every cell is tried with a client, which has two methods:

    send(attempt)            sends a mail. Returns a function that takes the mail as the server
                             stored it, and returns what is wrong with it, or an empty text.
    receive(attempt, mails)  receives all mails and deletes them. Returns what is wrong with them,
                             compared with those in `mails` (whose order may be another), or an
                             empty text.

Both raise LoginRefused when the server does not want this login, and anything else when they fail.
What needs to be tried only once for each server, it may offer besides:

    extras(server)           functions by their names, each of which returns what is wrong.
"""

import sys
import time
from collections import Counter
from dataclasses import dataclass, replace
from typing import Optional

import pop3_servers
import smtp_servers
import unpacked

USER, PASSWORD, WRONG_PASSWORD = "anna", "geheim 1", "falsch"

SMTP_SERVERS = (smtp_servers.Exim, smtp_servers.Postfix, smtp_servers.Sendmail,
                smtp_servers.OpenSmtpd, smtp_servers.Aiosmtpd)
POP3_SERVERS = (pop3_servers.Dovecot, pop3_servers.Courier, pop3_servers.Mailutils,
                pop3_servers.SolidPop3, pop3_servers.Popa3d)
SMTP_METHODS = (smtp_servers.NO_LOGIN, *smtp_servers.METHODS, smtp_servers.POP_LOGIN)
POP3_METHODS = pop3_servers.METHODS

METHOD_NAMES = {smtp_servers.NO_LOGIN: "no login"}
MODE_NAMES = {"plain": "no TLS", "starttls": "STARTTLS", "stls": "STLS", "tls": "implicit TLS"}
POP3_MODES = {"plain": "plain", "starttls": "stls", "tls": "tls"}

# What mail programs get wrong: dots, lines like those of mailboxes, blanks at the end, escapes.
MAIL = b"\r\n".join((
    b"From: anna@test.example", b"To: bob@test.example", b"Subject: =?iso-2022-jp?B?GyRCJCIbKEI=?=",
    b"Date: Thu, 1 Jan 2026 00:00:00 +0000", b"Message-ID: <%d@test.example>", b"MIME-Version: 1.0",
    b"Content-Type: text/plain; charset=iso-2022-jp", b"", b"\x1b$B$\"\x1b(B", b".", b"..", b"...",
    b" ", b"blank ", b"From here on", b"x" * 990, b"", b"last", b""))


class LoginRefused(Exception):
    """The server does not take this user with this password."""


@dataclass(frozen=True)
class Attempt:
    """What a client is to try. `pop` is where it has to log in first, for POP-before-SMTP."""
    port: int
    mode: str
    method: str
    password: str
    ca_file: str
    user: str = USER
    host: str = "localhost"
    pop: Optional["Attempt"] = None


@dataclass(frozen=True)
class Cell:
    """A place in the table. `reason` tells why this server cannot do it; empty when it can."""
    server: type
    mode: str
    method: str

    @property
    def reason(self):
        return self.server.reason(self.mode, self.method)


@dataclass(frozen=True)
class Extra:
    """Something that was tried in one of the ways into a server."""
    server: type
    name: str
    reason = ""


def label(cell):
    if isinstance(cell, Extra):
        return cell.name
    return f"{MODE_NAMES[cell.mode]}, {cell.method}"


def cells(server):
    """The cells of one server, row by row."""
    smtp = server in SMTP_SERVERS
    modes, methods = ((smtp_servers.MODES, SMTP_METHODS) if smtp else
                      (pop3_servers.MODES, POP3_METHODS))
    return [Cell(server, mode, method) for mode in modes for method in methods]


# -- trying --


def refused(function, attempt, *arguments):
    """What is wrong when a wrong password is not refused."""
    try:
        function(attempt, *arguments)
    except LoginRefused:
        return ""
    return "a wrong password was taken"


def with_password(attempt, password):
    pop = attempt.pop and with_password(attempt.pop, password)
    return replace(attempt, password=password, pop=pop)


def try_smtp(cell, server, client, dovecot):
    attempt = Attempt(server.port(cell.mode, cell.method), cell.mode, cell.method, PASSWORD,
                      server.path("ca.pem"))
    if cell.method == smtp_servers.POP_LOGIN:
        # Only a login of this attempt may count.
        dovecot.clear()
        mode = POP3_MODES[cell.mode]
        attempt = replace(attempt, pop=Attempt(dovecot.port(mode), mode, "USER/PASS", PASSWORD,
                                               dovecot.path("ca.pem")))
    before = Counter(server.mails())
    if cell.method != smtp_servers.NO_LOGIN:
        wrong = refused(client.send, with_password(attempt, WRONG_PASSWORD))
        if wrong:
            return wrong
    check = client.send(attempt)
    after = Counter(server.wait_for_mails(sum(before.values()) + 1))
    # Not the last one: mails of the same second have no order.
    arrived = list((after - before).elements())
    return check(arrived[0]) if len(arrived) == 1 else f"arrived {len(arrived)} times"


def try_pop3(cell, server, client, _dovecot):
    attempt = Attempt(server.port(cell.mode), cell.mode, cell.method, PASSWORD,
                      server.path("ca.pem"))
    server.clear()
    for number in 1, 2:
        server.deliver(MAIL % number)
    mails = server.mails()
    wrong = refused(client.receive, with_password(attempt, WRONG_PASSWORD), mails)
    if wrong:
        return wrong
    wrong = client.receive(attempt, mails)
    server.wait_until_left(0)
    return wrong


def run_cell(cell, server, client, dovecot=None):
    """"ok", the reason why the server cannot, or what failed."""
    if cell.reason:
        return cell.reason
    if cell.method == smtp_servers.POP_LOGIN and dovecot is None:
        return "not run: needs Dovecot"
    attempt = try_smtp if cell.server in SMTP_SERVERS else try_pop3
    return outcome(attempt, cell, server, client, dovecot)


def outcome(function, *arguments):
    """"ok", or what failed."""
    try:
        wrong = function(*arguments)
    except Exception as error:  # Of whatever kind: the other cells are to be tried too.
        wrong = f"{type(error).__name__}: {error}"
    return f"FAILED: {wrong}" if wrong else "ok"


def run_server(server_class, client, dovecot=None):
    """The results of all cells of a server."""
    arguments = {"dovecot": dovecot} if server_class in SMTP_SERVERS else {}
    try:
        server = server_class([(USER, PASSWORD)], **arguments)
    except unpacked.Unavailable as reason:
        return {cell: cell.reason or f"not run: {reason}" for cell in cells(server_class)}
    results = {}
    with server:
        for cell in cells(server_class):
            results[cell] = run_cell(cell, server, client, dovecot)
            if results[cell].startswith("FAILED"):
                print(server.logs()[-4000:], file=sys.stderr)
        extras = client.extras(server) if hasattr(client, "extras") else {}
        for name, function in extras.items():
            results[Extra(server_class, name)] = outcome(function)
    return results


def run_all(client, smtp=SMTP_SERVERS, pop3=POP3_SERVERS):
    """The results of all cells of these servers."""
    results = {}

    def run_one(server_class, dovecot=None):
        begin = time.monotonic()
        found = run_server(server_class, client, dovecot)
        results.update(found)
        report(server_class, found, time.monotonic() - begin)

    try:
        dovecot = pop3_servers.Dovecot([(USER, PASSWORD)])
    except unpacked.Unavailable:
        dovecot = None
    try:
        for each in smtp:
            run_one(each, dovecot)
    finally:
        if dovecot:
            dovecot.__exit__()
    for each in pop3:
        run_one(each)
    return results


def report(server_class, results, seconds):
    ways = {cell: result for cell, result in results.items() if isinstance(cell, Cell)}
    good = sum(result == "ok" for result in ways.values())
    cannot = sum(bool(cell.reason) for cell in ways)
    print(f"{server_class.NAME}: {good} of {len(ways)} ways work, {cannot} it cannot do "
          f"({seconds:.0f} s)", flush=True)
    for cell, result in results.items():
        if isinstance(cell, Extra) or result != "ok" and not cell.reason:
            print(f"  {label(cell)}: {result}")


# -- the page --


class Reasons:
    """Numbered, as most stand in several cells."""

    def __init__(self):
        self.texts = []

    def number(self, text):
        if text not in self.texts:
            self.texts.append(text)
        return self.texts.index(text) + 1


def row(texts):
    return "| " + " | ".join(texts) + " |\n"


def table(results, server_classes, methods, reasons):
    names = [METHOD_NAMES.get(each, each) for each in methods]
    text = row(["Server", "TLS", *names]) + row(["---"] * (2 + len(methods)))
    for server_class in server_classes:
        found = {cell: result for cell, result in results.items()
                 if isinstance(cell, Cell) and cell.server == server_class}
        for mode in dict.fromkeys(cell.mode for cell in found):
            texts = [found[Cell(server_class, mode, method)] for method in methods]
            text += row([server_class.NAME, MODE_NAMES[mode],
                         *(each if each == "ok" else f"({reasons.number(each)})"
                           for each in texts)])
    return text


def extras_table(results, server_classes):
    names = list(dict.fromkeys(each.name for each in results if isinstance(each, Extra)))
    return row(["Server", *names]) + row(["---"] * (1 + len(names))) + "".join(
        row([each.NAME, *(results.get(Extra(each, name), "") for name in names)])
        for each in server_classes)


def versions(server_classes):
    for server_class in server_classes:
        package = server_class.PACKAGES[0]
        version = unpacked.version(package, *server_class.PACKAGES)
        yield f"- {server_class.NAME}: {package} {version}\n"


def page(results):
    """The page as text. A cell that is not "ok" has the number of its reason."""
    smtp = [each for each in SMTP_SERVERS if any(cell.server == each for cell in results)]
    pop3 = [each for each in POP3_SERVERS if any(cell.server == each for cell in results)]
    reasons = Reasons()
    sending = table(results, smtp, SMTP_METHODS, reasons)
    receiving = table(results, pop3, POP3_METHODS, reasons)
    numbered = "".join(f"{number}. {' '.join(text.split())}\n"
                       for number, text in enumerate(reasons.texts, 1))
    return f"""# Interoperability

Made by `scripts/interop-page` in a run against real servers, each started on loopback ports from
a configuration of its own. "ok": the right password was taken, a wrong one refused, and the mail
arrived as it was sent. A number: why not, below.

## Sending: SMTP

{sending}
## Receiving: POP3

{receiving}
## Mails

Through one of the ways into each server, with TLS where it has one. "mails": every content type
with attachments of 0 bytes, 1 byte and 1 MB; file names, subjects and display names in utf-8,
iso-2022-jp and shift_jis, cut at every place; bodies with lines of only dots, and long ones. What
arrived was read with Python's email package and checked against RFC 5322, 2045 and 2047; for POP3,
what was received was compared with what stands in the mailbox. "text": bodies that are not encoded.
"size limit": the longest mail that the server takes arrives whole, and one byte more is refused and
reported. "200 MB": one attachment of that size, with one server of each kind. Limits of libtaveml
stand in [known-limits.md](known-limits.md).

{extras_table(results, smtp + pop3)}
## Why not

{numbered or "Nothing."}
## Servers

{''.join(versions(smtp + pop3))}"""


def exit_code(results):
    """That of the test: skipped when a server could not be had."""
    not_run = sorted({result for result in results.values() if result.startswith("not run")})
    for each in not_run:
        print("skipped:", each)
    failed = any(result.startswith("FAILED") for result in results.values())
    return 1 if failed else unpacked.SKIPPED if not_run else 0
