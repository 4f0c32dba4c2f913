"""tavmail with a real server: what it sends arrives once and whole, what lies there it receives.

    servers_test.py exim|postfix|dovecot TAVMAIL
"""

import email
import email.policy
import glob
import itertools
import json
import os
import random
import socket
import subprocess
import sys
import tempfile
import time
from contextlib import suppress

import corpus

SERVER, TAVMAIL = sys.argv[1], os.path.abspath(sys.argv[2])
HERE = os.path.dirname(os.path.abspath(__file__))
ADDRESS = f"127.{random.randrange(1, 255)}.{random.randrange(255)}.{random.randrange(1, 255)}"
MAIL = {"--from": "anna@test.example", "--to": "bob@test.example", "--subject": "件名 表ソ能" * 9,
        "--text": "本文です。表ソ能\n.\n..\nFrom here\n" + "長い" * 700 + "\n",
        "--attach": f"{HERE}/../data/report.pdf", "--attach-name": "報告書 その1.pdf"}
NO_TLS, TLS = {"--tls": "none"}, {"--tls": "implicit"}
RIGHT, WRONG = ({"--user": "anna", "--password-file": each} for each in ("right", "wrong"))
STRANGER, TRUSTED, APOP = {**RIGHT, "--ca-file": None}, {**TLS, **RIGHT}, {"--apop": ""}
POP, FIRST = {"--to": "pop@test.example"}, {"--auth": "pop", "--pop3-port": "2110"}
LOGIN, REFUSED = "refused the login", f"the certificate of {ADDRESS} was refused: it is "

# The port, the options, the exit code and words of the message.
METHODS = [2025, 2101, 2102, 2103, *[2104] * (SERVER == "postfix")]
SENDING = [(port, {**tls, **login}, code, words) for port in METHODS for tls in (NO_TLS, {})
           for login, code, words in ((RIGHT, 0, ""), (WRONG, 77, LOGIN))] + [
    (2465, TRUSTED, 0, ""),
    (2465, {**TLS, **WRONG}, 77, LOGIN),
    (2465, {**TLS, **STRANGER}, 76, REFUSED + "self-signed"),
    (2025, STRANGER, 76, REFUSED + "self-signed"),
    (2025, TRUSTED, 76, "it begins in clear text"),
    (2025, {**RIGHT, "--charset": "iso-2022-jp"}, 0, ""),
    (2025, {**RIGHT, "--charset": "shift_jis"}, 0, ""),
    (2025, {"--to": "open@test.example"}, 0, ""),
    (2025, {}, 69, "the recipient bob@test.example"),
    (2025, {**RIGHT, "--cc": "nobody@test.example"}, 69, "the recipient nobody@test.example"),
    (2025, {**RIGHT, "--to": "busy@test.example"}, 75, "busy@test.example for now"),
    (2025, {**RIGHT, "--attach": "large.pdf"}, 69, "refused the mail")]
POP_BEFORE_SMTP = [
    (2025, POP, 69, "the recipient pop@test.example"),
    (2025, {**POP, **FIRST, **WRONG}, 77, LOGIN),
    (2025, {**POP, **FIRST, **RIGHT}, 0, "")]
CERTIFICATES = [
    (2201, {**TRUSTED, "--ca-file": "elsewhere.pem"}, 76, REFUSED + "for elsewhere.example, not"),
    (2201, {**TRUSTED, "--tls-no-check": ""}, 0, ""),
    (2202, {**TRUSTED, "--ca-file": "expired.pem"}, 76, "has expired"),
    (2203, TRUSTED, 0, ""),
    (2203, {**TRUSTED, "--ca-file": "elsewhere.pem"}, 76, "its issuer is unknown"),
    (2211, TRUSTED, 76, "older than TLS 1.2"),
    (2212, TRUSTED, 0, ""),
    (2212, {**TRUSTED, "--tls-min": "1.3"}, 76, "older than TLS 1.3"),
    (2213, {**TRUSTED, "--tls-min": "1.3"}, 0, "")]
# The wrong passwords come last: Dovecot is slow with whoever gave one.
RECEIVING = [
    (2110, {**NO_TLS, **RIGHT}, 0, ""),
    (2110, {**NO_TLS, **RIGHT, **APOP}, 0, ""),
    (2110, RIGHT, 0, ""),
    (2110, {**RIGHT, **APOP}, 0, ""),
    (2995, TRUSTED, 0, ""),
    (2995, {**TLS, **STRANGER}, 76, REFUSED + "self-signed"),
    (2110, STRANGER, 76, REFUSED + "self-signed"),
    (2110, WRONG, 77, LOGIN),
    (2110, {**WRONG, **APOP}, 77, LOGIN)]
# Every new mail is saved once: the options of each run, and which of three mails it finds.
SAVE = {**RIGHT, "--folder": "saved"}
SEEN = [(RIGHT, "123"), (RIGHT, "123"), ({**SAVE, "--max": "1", "--delete": ""}, "1"), (SAVE, "23"),
        (SAVE, ""), ({**RIGHT, "--all": ""}, "23")]
NUMBERS = itertools.count(10**9)
failures = []


def check(is_right, *what):
    if not is_right:
        failures.append(what)
        print("FAILED:", *what)


def start(*servers):
    process = subprocess.Popen(["setpriv", "--pdeathsig", "TERM", f"{HERE}/start.sh", ADDRESS,
                                *servers], start_new_session=True)
    for port in (2110 if each == "dovecot" else 2025 for each in servers):
        for _ in range(400):
            with suppress(OSError), socket.create_connection((ADDRESS, port)):
                break
            if process.poll() is not None:
                sys.exit(process.returncode)
            time.sleep(0.05)
    return process


def tavmail(command, port, options):
    """An option of None is left out, and one of "" has no value."""
    options = {"--server": f"{ADDRESS}:{port}", "--ca-file": "server.pem", **options}
    words = [word for name, value in options.items() if value is not None
             for word in (name, value) if word]
    done = subprocess.run([TAVMAIL, command, "--json", *words], capture_output=True, text=True,
                          env={**os.environ, "XDG_STATE_HOME": os.getcwd()}, timeout=60)
    return done.returncode, done.stderr, json.loads(done.stdout).get("messages", [])


def contents(pattern):
    for path in sorted(glob.glob(pattern)):
        with open(path, "rb") as file:
            yield file.read()


def is_whole(raw):
    mail = email.message_from_bytes(raw, policy=email.policy.default)
    text, attached = mail.iter_parts()
    found = mail["Subject"], text.get_content().replace("\r\n", "\n"), attached.get_filename()
    return (found == (MAIL["--subject"], MAIL["--text"], MAIL["--attach-name"]) and
            [attached.get_content()] == [*contents(MAIL["--attach"])])


def test_sending(rows):
    for number, (port, options, code, words) in enumerate(rows):
        found = tavmail("send", port, {**MAIL, "--message-id": f"<{number}@x>", **options})
        check(found[0] == code and words in found[1], port, options, found)
    expected = sorted(f"<{number}@x>" for number, row in enumerate(rows) if row[2] == 0)
    for _ in range(200):  # They deliver a while after they have accepted.
        raws = [*contents("box/new/*")]
        if len(raws) >= len(expected):
            break
        time.sleep(0.1)
    found = sorted(email.message_from_bytes(raw)["Message-ID"] for raw in raws)
    check(found == expected, "arrived", found, "should be", expected)
    for raw in raws:
        check(is_whole(raw), raw)


def deliver(raws):
    """In place of all mails that are there."""
    for path in glob.glob("mail/*/*.M1.x*"):
        os.remove(path)
    for raw in raws:
        with open(f"mail/new/{next(NUMBERS)}.M1.x", "wb") as file:
            file.write(raw)


def test_receiving():
    text = b".\r\n..\r\n\r\n.dot\r\n" + "漢字\r\n".encode() + b"." * 998 + b"\r\n"
    for number, (port, options, code, words) in enumerate(RECEIVING):
        deliver([b"Subject: x\r\n\r\n" + text])
        found = tavmail("receive", port, {**options, "--all": "", "--delete": "", "--folder": f"got{number}"})
        check(found[0] == code and words in found[1], port, options, found)
        check([*contents(f"got{number}/*/*")] == [text] * (code == 0), port, options)
        check(len([*contents("mail/*/*.M1.x*")]) == (code != 0), port, options)


def test_seen():
    deliver(b"Subject: %d\r\n\r\n" % number for number in (1, 2, 3))
    for options, expected in SEEN:
        found = tavmail("receive", 2110, options)
        check("".join(each["subject"] for each in found[2]) == expected, options, found)


def test_corpus():
    mails = [*corpus.mails()]
    deliver(raw for _, raw in mails)
    code, error, found = tavmail("receive", 2110, {**RIGHT, "--folder": "corpus", "--all": "", "--delete": ""})
    check(code == 65 and len(found) == len(mails), code, error)
    for (path, raw), message in zip(mails, found):
        differences = [*corpus.compare(message, raw, "corpus")]
        check(bool(differences) == path.endswith(corpus.KNOWN), path, differences)
    print(f"{len(mails)} mails of others read")


with tempfile.TemporaryDirectory(prefix="taveml-interop-") as folder:
    os.chdir(folder)
    process = start(SERVER, *["dovecot"] * (SERVER == "exim"))
    try:
        if SERVER == "dovecot":
            test_seen()
            test_corpus()
            test_receiving()
        else:
            test_sending(SENDING + (POP_BEFORE_SMTP if SERVER == "exim" else CERTIFICATES))
    finally:
        process.terminate()
        process.wait()
    if failures:
        subprocess.run("tail -n 99 $(find log -type f)", shell=True)
        sys.exit(1)
