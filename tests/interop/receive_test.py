"""tavmail receive against Dovecot, with mail that a real server delivered and mail that others wrote.

    receive_test.py TAVMAIL
"""

import collections
import glob
import json
import os
import subprocess
import sys
import tempfile

import mail_compare
import servers

TAVMAIL = sys.argv[1]
USER, PASSWORD = "anna", "geheim 1"

# Test mails of other projects, where their packages are installed.
COLLECTIONS = {
    "Python": "/usr/lib/python3.*/test/test_email/data/msg_*.txt",
    "flufl.bounce": "/usr/lib/python3/dist-packages/flufl/bounce/tests/data/*",
    "enmime": "/usr/share/gocode/src/github.com/jhillyerd/enmime/testdata/*/*.raw",
}


class Client:
    def __init__(self, dovecot, exim):
        self.dovecot, self.exim = dovecot, exim
        self.home = tempfile.mkdtemp(prefix="taveml-receive-")
        self.password = self.password_file("password", PASSWORD)
        self.environment = dict(os.environ, XDG_STATE_HOME=self.home)

    def password_file(self, name, password):
        path = os.path.join(self.home, name)
        with open(os.open(path, os.O_CREAT | os.O_WRONLY | os.O_TRUNC, 0o600), "w") as file:
            file.write(password + "\n")
        return path

    def run(self, *arguments):
        return subprocess.run([TAVMAIL, *arguments, "--ca-file", self.dovecot.path("ca.pem")],
                              capture_output=True, timeout=300, env=self.environment)

    def receive(self, *arguments, tls="starttls", password=None):
        port = self.dovecot.ports["TLS" if tls == "implicit" else "PLAIN"]
        return self.run("receive", "--server", f"localhost:{port}", "--tls", tls, "--user", USER,
                        "--password-file", password or self.password, *arguments)

    def messages(self, *arguments, **options):
        done = self.receive("--json", *arguments, **options)
        document = json.loads(done.stdout)
        return document["messages"], document.get("problem", ""), done.returncode

    def send(self, *arguments):
        return self.run("send", "--server", f"localhost:{self.exim.ports['ALL']}",
                        "--from", "scanner@device.example", "--to", f"{USER}@test.example",
                        *arguments)


def check_logins(client):
    for tls in "none", "starttls", "implicit":
        for apop in [], ["--apop"]:
            with tempfile.TemporaryDirectory() as folder:
                client.dovecot.deliver(b"Subject: one\r\n\r\nbody\r\n")
                mails, problem, code = client.messages("--folder", folder, "--delete", *apop, tls=tls)
                assert code == 0 and len(mails) == 1 and mails[0]["deleted"], (tls, apop, problem)
                with open(os.path.join(folder, mails[0]["parts"][0]["file"]), "rb") as file:
                    assert file.read() == b"body\r\n"
            assert client.dovecot.mails() == [], "deleted mail is still there"
            wrong = client.password_file("wrong", "falsch")
            done = client.receive(*apop, tls=tls, password=wrong)
            assert done.returncode == 77 and b"refused the login" in done.stderr, done.stderr
            print(f"{tls}, {'APOP' if apop else 'USER/PASS'}: received and deleted; wrong password out")


def check_seen(client):
    """New mail is new once, whatever happens to the numbers."""
    with tempfile.TemporaryDirectory() as folder:
        for subject in "one", "two", "three":
            client.dovecot.deliver(f"Subject: {subject}\r\n\r\n{subject}\r\n".encode())
        listed, _, _ = client.messages()
        again, _, _ = client.messages()
        assert [mail["subject"] for mail in listed] == ["one", "two", "three"], listed
        assert listed == again, "looking at headers changed something"
        first, _, _ = client.messages("--folder", folder, "--max", "1", "--delete")
        rest, _, _ = client.messages("--folder", folder)
        client.dovecot.deliver(b"Subject: four\r\n\r\nfour\r\n")
        new, _, _ = client.messages("--folder", folder)
        subjects = [[mail["subject"] for mail in mails] for mails in (first, rest, new)]
        assert subjects == [["one"], ["two", "three"], ["four"]], subjects
    client.dovecot.clear()
    print("seen mail: what is new is received once")


def check_delivered(client):
    """A mail that the library sent and Exim delivered comes back byte for byte."""
    report = os.path.join(os.path.dirname(__file__), "..", "data", "report.pdf")
    subject = "件名：平成①号 ～ ｶﾞｲﾄﾞ " + "長い" * 30
    body = "本文です。\n.\n..\nFrom here\n半角ｶﾅ\n"
    for charset in "utf-8", "iso-2022-jp", "shift_jis":
        done = client.send("--subject", subject, "--text", body, "--attach", report,
                           "--attach-name", "報告書 その1.pdf", "--charset", charset,
                           "--tls", "starttls", "--user", USER, "--password-file", client.password)
        assert done.returncode == 0, done.stderr
        raw = client.dovecot.wait_for_mails(1)[0]
        with tempfile.TemporaryDirectory() as folder:
            mails, problem, code = client.messages("--folder", folder, "--delete")
            assert code == 0, problem
            differences = mail_compare.compare(mails[0], raw, folder)
            assert not differences, (charset, differences)
            parts = mails[0]["parts"]
            assert [part["name"] for part in parts] == ["", "報告書 その1.pdf"], parts
            with open(report, "rb") as sent, open(os.path.join(folder, parts[1]["file"]), "rb") as got:
                assert sent.read() == got.read()
        print(f"{charset}: sent over Exim, received from Dovecot, as Python reads it")


def check_pop_before_smtp(client):
    arguments = ["--subject", "relay", "--text", "x", "--tls", "starttls"]
    client.dovecot.clear()
    done = client.send(*arguments)
    assert done.returncode != 0 and b"log in over POP3 first" in done.stderr, done.stderr
    login = ["--pop3-server", f"localhost:{client.dovecot.ports['PLAIN']}", "--pop3-user", USER]
    wrong = client.password_file("wrong", "falsch")
    done = client.send(*arguments, "--auth", "pop", *login, "--pop3-password-file", wrong)
    assert done.returncode == 77 and b"refused the login" in done.stderr, done.stderr
    done = client.send(*arguments, "--auth", "pop", *login, "--pop3-password-file", client.password)
    assert done.returncode == 0, done.stderr
    client.dovecot.wait_for_mails(1)
    client.dovecot.clear()
    print("POP-before-SMTP: refused without, refused with a wrong password, sent after the login")


def check_collections(client):
    """Mails that others wrote, part by part against Python's reading."""
    unexplained = []
    for name, pattern in COLLECTIONS.items():
        paths = [path for path in sorted(glob.glob(pattern))
                 if os.path.isfile(path) and not path.endswith((".py", ".pyc"))]
        if not paths:
            print(f"{name}: not installed, skipped")
            continue
        for path in paths:
            with open(path, "rb") as file:
                client.dovecot.deliver(mail_compare.wire(file.read()))
        raws = client.dovecot.mails()
        with tempfile.TemporaryDirectory() as folder:
            mails, problem, _ = client.messages("--folder", folder, "--delete")
            assert len(mails) == len(paths), (name, len(mails), len(paths), problem)
            unexplained += report_collection(name, paths, mails, raws, folder)
        client.dovecot.clear()
    assert not unexplained, "\n" + "\n".join(unexplained)


def report_collection(name, paths, mails, raws, folder):
    parts = sum(len(mail["parts"]) for mail in mails)
    different = {}
    for path, mail, raw in zip(paths, mails, raws):
        differences = mail_compare.compare(mail, raw, folder)
        if differences:
            different[os.path.basename(path)] = differences
    print(f"{name}: {len(paths)} mails, {parts} parts; {len(paths) - len(different)} mails as "
          "Python reads them")
    unexplained = []
    reasons = collections.Counter()
    for mail, differences in different.items():
        reason = KNOWN.get(mail)
        reasons[reason] += 1
        if reason is None:
            unexplained.append(f"  {mail}: {differences}")
    for reason, count in reasons.items():
        if reason:
            print(f"  {count}: {reason}")
    return unexplained


# Mails that the library reads differently, and why.
KNOWN = {mail: reason for reason, mails in {
    "a part that is no multipart opens its boundary parameter all the same":
        "dsn_16.txt dsn_17.txt",
    "a boundary in the extended form of RFC 2231 is not read": "msg_33.txt",
    "a multipart without its delimiters has no parts; Python makes one part of it":
        "msg_17.txt msg_25.txt msg_31.txt msg_41.txt header-only.raw",
    "the header ends at an empty line and nowhere else":
        "msg_19.txt msg_35.txt erroneous.raw qp-utf8-header-no-break.raw",
    "only the innermost boundary counts":
        "msg_15.txt msg_38.txt msg_39.txt",
    "a blank in front of the colon makes the colon a part of the value": "bad-header-start.raw",
    "what is not base64 is skipped and not a reason to give up":
        "mime-bad-content-transfer-encoding.raw",
    "a header that is not one ends the header for Python": "bad-header-wrap.raw",
    "an escape that is none is dropped, not kept": "quoted-printable-invalid.raw",
}.items() for mail in mails.split()}


def main():
    servers.need("/usr/sbin/exim4", "/usr/sbin/dovecot", "saslpasswd2")
    with servers.Dovecot([(USER, PASSWORD)]) as dovecot:
        with servers.Exim([(USER, PASSWORD)], dovecot) as exim:
            client = Client(dovecot, exim)
            check_logins(client)
            check_seen(client)
            check_delivered(client)
            check_collections(client)
        with servers.Exim([(USER, PASSWORD)], dovecot, pop_seconds=60) as exim:
            check_pop_before_smtp(Client(dovecot, exim))


main()
