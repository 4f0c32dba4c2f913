"""tavmail with a real server: what it sends arrives once and whole, what lies there it receives.

    servers_test.py exim|postfix|dovecot TAVMAIL
"""

import base64
import email.policy
import hmac
import itertools
import json
import os
import socket
import subprocess
import sys
import tempfile
import time
from contextlib import suppress
from pathlib import Path

import foreign_mails

SERVER, TAVMAIL = sys.argv[1], os.path.abspath(sys.argv[2])
HERE = Path(__file__).resolve().parent
REPORT = HERE.parent / "data" / "report.pdf"
ADDRESS = f"127.1.{os.getpid() // 250 % 250}.{os.getpid() % 250 + 1}"
TEXT = "本文です。表ソ能\n.\n..\nFrom here\n" + "長い" * 700 + "\n"
MAIL = {"--from": "anna@test.example", "--to": "bob@test.example", "--text": TEXT,
        "--subject": "件名 表ソ能" * 9, "--attach": REPORT, "--attach-name": "報告書 その1.pdf"}
NO_TLS, TLS = {"--tls": "none"}, {"--tls": "implicit"}
RIGHT, WRONG = ({"--user": "anna", "--password-file": each} for each in ("right", "wrong"))
STRANGER, TRUSTED, APOP = {**RIGHT, "--ca-file": None}, {**TLS, **RIGHT}, {"--apop": ""}
POP, FIRST = {"--to": "pop@test.example"}, {"--auth": "pop", "--pop3-port": "2110"}
# A command that prints one token, and another one after a refusal.
FRESH, LAPSED, EXPIRED, FOREIGN = (
    {"--user": "anna", "--token-command": f"cat tokens/{name}$TAVMAIL_TOKEN_REFUSED"}
    for name in ("fresh", "lapsed", "expired", "foreign"))
LOGIN, REFUSED = "refused the login", f"the certificate of {ADDRESS} was refused: it is "

# The port, the options, the exit code and words of the message.
SENDING = [
    (2025, {**NO_TLS, **RIGHT}, 0, ""),
    (2025, WRONG, 77, LOGIN),
    (2025, TRUSTED, 76, "check the port, or try --tls starttls"),
    (2025, STRANGER, 76, REFUSED + "self-signed"),
    (2465, {**TLS, **STRANGER}, 76, REFUSED + "self-signed"),
    (2465, TRUSTED, 0, ""),
    (2025, {**RIGHT, "--charset": "iso-2022-jp"}, 0, ""),
    (2025, {**RIGHT, "--charset": "shift_jis"}, 0, ""),
    (2025, {"--to": "open@test.example"}, 0, ""),
    (2025, {}, 69, "the recipient bob@test.example"),
    (2025, {**RIGHT, "--cc": "nobody@test.example"}, 69, "the recipient nobody@test.example"),
    (2025, {**RIGHT, "--to": "busy@test.example"}, 75, "busy@test.example for now"),
    (2025, {**RIGHT, "--text-file": os.__file__, "--text": None}, 69, "refused the mail")]
METHODS = [(port, {**tls, **login}, code, words) for port in (2101, 2102, 2103, 2104)
           for tls in (NO_TLS, {}) for login, code, words in ((RIGHT, 0, ""), (WRONG, 77, LOGIN))]
TOKENS = [
    (FRESH, 0, ""), (LAPSED, 0, ""), (EXPIRED, 77, "the token"), (FOREIGN, 77, "the token")]
EXIM = [(port, {**tls, **token}, code, words) for port, tls in ((2025, {}), (2465, TLS))
        for token, code, words in TOKENS]
EXIM += [
    (2025, POP, 69, "the recipient pop@test.example"),
    (2025, {**POP, **FIRST, **WRONG}, 77, LOGIN),
    (2025, {**POP, **FIRST, **RIGHT}, 0, "")]
CERTIFICATES = [
    (2201, {**TRUSTED, "--ca-file": "elsewhere.pem"}, 76, REFUSED + "for elsewhere.example, not"),
    (2201, {**TRUSTED, "--tls-no-check": ""}, 0, ""),
    (2202, {**TRUSTED, "--ca-file": "expired.pem"}, 76, "has expired"),
    (2211, TRUSTED, 76, "no TLS version in common"),
    (2212, TRUSTED, 0, ""),
    (2212, {**TRUSTED, "--tls-min": "1.3"}, 76, "no TLS version in common"),
    (2213, {**TRUSTED, "--tls-min": "1.3"}, 0, "")]
RECEIVING = [(2110, {**tls, **RIGHT, **apop}, 0, "") for tls in (NO_TLS, {}) for apop in ({}, APOP)]
RECEIVING += [
    (2995, TRUSTED, 0, ""),
    (2995, {**TLS, **STRANGER}, 76, REFUSED + "self-signed"),
    (2110, STRANGER, 76, REFUSED + "self-signed"),
    (2110, WRONG, 77, LOGIN),
    (2110, {**WRONG, **APOP}, 77, LOGIN)]
RECEIVING += [(port, token, code, words) for token, code, words in TOKENS for port in (2110, 2111)]
NUMBERS = itertools.count(10**9)


def make_tokens():
    """JSON Web Tokens (RFC 7519), and the key with which Dovecot checks them."""
    key, now = os.urandom(32), int(time.time())

    def token(**claims):
        parts = [{"alg": "HS256", "typ": "JWT"},
                 {"sub": "anna", "aud": "mail", "exp": now + 900, **claims}]
        text = b".".join(base64.urlsafe_b64encode(json.dumps(each).encode()).rstrip(b"=")
                         for each in parts)
        sign = hmac.digest(key, text, "sha256")
        return text + b"." + base64.urlsafe_b64encode(sign).rstrip(b"=")

    fresh, expired, foreign = token(), token(exp=now - 60), token(aud="elsewhere")
    files = {"tokens/fresh": fresh, "tokens/lapsed": expired, "tokens/lapsed1": fresh,
             "tokens/expired": expired, "tokens/expired1": token(exp=now - 30),
             "tokens/foreign": foreign, "tokens/foreign1": token(aud="nowhere"),
             "keys/default/HS256/default": base64.b64encode(key)}
    for name, content in files.items():
        Path(name).parent.mkdir(parents=True, exist_ok=True)
        Path(name).write_bytes(content)


def start():
    process = subprocess.Popen(["setpriv", "--pdeathsig", "TERM", f"{HERE}/start.sh", ADDRESS,
                                SERVER], start_new_session=True)
    for port in {"exim": (2025, 2110), "postfix": (2025,), "dovecot": (2110,)}[SERVER]:
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


def is_whole(raw):
    mail = email.message_from_bytes(raw, policy=email.policy.default)
    text, attached = mail.iter_parts()
    found = mail["Subject"], text.get_content().replace("\r\n", "\n"), attached.get_filename()
    return (found == (MAIL["--subject"], TEXT, MAIL["--attach-name"]) and
            attached.get_content() == REPORT.read_bytes())


def test_sending(rows):
    for number, (port, options, code, words) in enumerate(rows):
        found = tavmail("send", port, {**MAIL, "--message-id": f"<{number}@x>", **options})
        assert found[0] == code and words in found[1], (port, options, found)
    expected = sorted(f"<{number}@x>" for number, row in enumerate(rows) if row[2] == 0)
    for _ in range(200):  # They deliver a while after they have accepted.
        raws = [path.read_bytes() for path in Path("box").glob("new/*")]
        if len(raws) >= len(expected):
            break
        time.sleep(0.1)
    found = sorted(email.message_from_bytes(raw)["Message-ID"] for raw in raws)
    assert found == expected, (found, expected)
    for raw in raws:
        assert is_whole(raw), raw


def deliver(raws):
    """In place of all mails that are there."""
    for path in Path("mail").glob("*/*.M1.x*"):
        path.unlink()
    for raw in raws:
        Path(f"mail/new/{next(NUMBERS)}.M1.x").write_bytes(raw)


def test_receiving():
    text = b".\r\n..\r\n\r\n.dot\r\n" + "漢字\r\n".encode() + b"." * 998 + b"\r\n"
    for number, (port, options, code, words) in enumerate(RECEIVING):
        deliver([b"Subject: x\r\n\r\n" + text])
        saving = {"--all": "", "--delete": "", "--folder": f"got{number}"}
        found = tavmail("receive", port, {**options, **saving})
        assert found[0] == code and words in found[1], (port, options, found)
        saved = [path.read_bytes() for path in Path(f"got{number}").glob("*/*")]
        left = [*Path("mail").glob("*/*.M1.x*")]
        assert (saved, left) == ([text], []) if code == 0 else left and not saved, (port, options)


def test_foreign_mails():
    """Received in two runs over their unique ids; a third one finds only what cannot be saved."""
    mails = dict(enumerate(foreign_mails.mails(), 1))
    if not mails:
        return print("left out: no mails of others are installed")
    deliver(raw for _, raw in mails.values())
    half = len(mails) // 2
    runs = [tavmail("receive", 2110, {**RIGHT, "--folder": "saved", "--max": count})[2]
            for count in (str(half), None, None)]
    assert len(runs[0]) == half and all(each["problem"] for each in runs[2]), runs[2]
    found = {each["number"]: each for each in runs[0] + runs[1]}
    assert found.keys() == mails.keys(), found.keys()
    for number, (path, raw) in mails.items():
        differences = [*foreign_mails.compare(found[number], raw, "saved")]
        assert bool(differences) == path.endswith(foreign_mails.KNOWN), (path, differences)
    # All of them once more, whole.
    whole = {"--folder": "all", "--format": "eml", "--all": ""}
    assert tavmail("receive", 2110, {**RIGHT, **whole})[0] == 0
    wholes = [path.read_bytes() for path in sorted(Path("all").iterdir())]
    wrong = [path for (path, raw), whole in zip(mails.values(), wholes) if raw != whole]
    assert not wrong and len(wholes) == len(mails), wrong
    shown = tavmail("list", 2110, {**RIGHT, "--max": "3"})
    assert shown[0] == 0 and not shown[2][0]["new"] and shown[2][2]["uid"], shown
    assert tavmail("delete", 2110, {**RIGHT, "--uid": shown[2][2]["uid"]})[0] == 0
    assert tavmail("delete", 2110, {**RIGHT, "--uid": shown[2][2]["uid"]})[0] == 65
    return print(len(mails), "mails of others read")


with tempfile.TemporaryDirectory(prefix="taveml-interop-") as folder:
    os.chdir(folder)
    make_tokens()
    process = start()
    try:
        if SERVER == "dovecot":
            test_foreign_mails()
            test_receiving()
        else:
            more = EXIM if SERVER == "exim" else METHODS + CERTIFICATES
            test_sending(SENDING + more)
    except AssertionError:
        subprocess.run("tail -n 99 $(find log -type f)", shell=True)
        raise
    finally:
        process.terminate()
        process.wait(20)
