"""tavmail-host as a program, against clients that others wrote.

    host_test.py TAVMAIL_HOST
"""

import base64
import email
import hashlib
import json
import mailbox
import os
import poplib
import pty
import signal
import smtplib
import socket
import ssl
import subprocess
import sys
import tempfile
import time

HOST = sys.argv[1]
os.environ["ASAN_OPTIONS"] = "quarantine_size_mb=1"
MAIL = b"From: a@b.c\r\nSubject: test\r\n\r\n.text\r\n" + b"line\r\n" * 20000


class Host:
    """The program with options, its ports, and what it said."""

    def __init__(self, folder, *arguments, script=""):
        self.ready, self.ca, self.log = (os.path.join(folder, name) for name in ("r", "ca", "log"))
        path = os.path.join(folder, "script")
        with open(path, "w") as file:
            file.write(script)
        if os.path.exists(self.ready):
            os.remove(self.ready)
        self.process = subprocess.Popen(
            [HOST, "--any-port", "--ready-file", self.ready, "--ca-out", self.ca, "--json",
             "--user", "u:geheim", "--script", path, "--max-seconds", "60", *arguments],
            stdout=open(self.log, "w"))
        while not os.path.exists(self.ready):
            assert self.process.poll() is None, "does not start"
            time.sleep(0.02)
        with open(self.ready) as file:
            self.ports = {name: int(port) for name, port in (line.split("=") for line in file)}
        self.tls = ssl.create_default_context(cafile=self.ca)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(timeout=10) == 0
        with open(self.log) as file:
            text = file.read()
        for secret in b"geheim", base64.b64encode(b"\0u\0geheim"), base64.b64encode(b"geheim"):
            assert secret.decode() not in text
        self.events = [json.loads(line) for line in text.splitlines()]

    def smtp(self):
        return smtplib.SMTP("127.0.0.1", self.ports["smtp"], timeout=5)

    def pop3(self):
        return poplib.POP3("127.0.0.1", self.ports["pop3"], timeout=5)

    def told(self, event, **values):
        found = [e for e in self.events if e["event"] == event]
        return [e for e in found if all(e[key] == value for key, value in values.items())]


def digest_md5(challenge):
    """The answer of RFC 2831, written apart from the host."""
    given = {key: value.strip('"') for key, value in
             (part.split("=", 1) for part in challenge.decode().split(","))}

    def md5(text):
        return hashlib.md5(text.encode() if isinstance(text, str) else text)

    uri, cnonce = "smtp/localhost", "abc"
    secret = md5(f"u:{given['realm']}:geheim").digest()
    a1 = md5(secret + f":{given['nonce']}:{cnonce}".encode()).hexdigest()

    def proof(verb):
        return md5(f"{a1}:{given['nonce']}:00000001:{cnonce}:auth:"
                   f"{md5(verb + ':' + uri).hexdigest()}").hexdigest()

    return proof(""), (f'username="u",realm="{given["realm"]}",nonce="{given["nonce"]}",'
                       f'nc=00000001,cnonce="{cnonce}",digest-uri="{uri}",qop=auth,'
                       f'response={proof("AUTHENTICATE")}')


def check_mail_and_logins(folder):
    box = os.path.join(folder, "box")
    data = os.path.join(folder, "ä.pdf")
    with open(data, "wb") as file:
        file.write(bytes(range(256)))
    with Host(folder, "--folder", box, "--add", f"Grüße: hier:{data}", "--login-required") as host:
        with host.smtp() as client:
            client.ehlo()
            assert client.mail("a@b.c")[0] == 530
            client.starttls(context=host.tls)
            client.login("u", "geheim")
            client.sendmail("a@b.c", ["x@y.z", "y@z.x"], MAIL)
        for method in "PLAIN", "LOGIN", "CRAM-MD5", "DIGEST-MD5":
            with smtplib.SMTP_SSL("localhost", host.ports["smtps"], context=host.tls) as client:
                client.ehlo()
                client.user = "u"
                for client.password in "falsch", "geheim":
                    if method == "DIGEST-MD5":
                        code, text = client.docmd("AUTH", method)
                        proof, answer = digest_md5(base64.b64decode(text))
                        if client.password == "falsch":
                            answer = answer.replace("qop=auth", "qop=auth-int")
                        code, text = client.docmd(base64.b64encode(answer.encode()).decode())
                        if code == 334:
                            assert base64.b64decode(text).decode() == "rspauth=" + proof
                            code, text = client.docmd("")
                        assert code == (235 if client.password == "geheim" else 535), text
                        continue
                    try:
                        call = getattr(client, "auth_" + method.lower().replace("-", "_"))
                        assert client.auth(method, call)[0] == 235
                    except smtplib.SMTPAuthenticationError:
                        assert client.password == "falsch"
        client = host.pop3()
        client.stls(context=host.tls)
        client.user("u")
        client.pass_("geheim")
        first, second = client.uidl()[1]
        assert client.stat()[0] == 2 and b"\r\n".join(client.retr(2)[1]) + b"\r\n" == MAIL
        made = email.message_from_bytes(b"\r\n".join(client.retr(1)[1]))
        text, part = made.get_payload()
        assert text.get_payload(decode=True).decode() == "Grüße: hier\r\n"
        assert part.get_filename() == "ä.pdf" and part.get_content_type() == "application/pdf"
        assert part.get_payload(decode=True) == bytes(range(256))
        client.dele(1)
        client.quit()
    assert [len(host.told("login", granted=granted)) for granted in (True, False)] == [6, 4]
    assert host.told("received")[0]["to"] == ["x@y.z", "y@z.x"]
    assert host.told("received")[0]["tls"] and host.told("deleted")
    assert [len(message.as_bytes()) for message in mailbox.Maildir(box, create=False)]
    # The unique id is that of the file, over restarts.
    with Host(folder, "--folder", box) as host:
        client = poplib.POP3_SSL("localhost", host.ports["pop3s"], context=host.tls)
        client.apop("u", "geheim")
        assert client.uidl()[1] == [second.replace(b"2 ", b"1 ", 1)], (first, second)


def check_pop_before_smtp(folder):
    with Host(folder, "--pop-before-smtp") as host, host.smtp() as client:
        client.ehlo()
        assert client.mail("a@b.c")[0] == 530
        other = host.pop3()
        other.user("u")
        other.pass_("geheim")
        assert client.mail("a@b.c")[0] == 250


def exchange(port, lines, timeout=5):
    """What a host says until it closes or falls silent, and how long that took."""
    begin, said = time.time(), b""
    try:
        with socket.create_connection(("127.0.0.1", port), timeout) as client:
            client.sendall(lines)
            while block := client.recv(65536):
                said += block
    except socket.timeout:
        said += b"<silence>"
    except ConnectionResetError:
        said += b"<reset>"
    return said, time.time() - begin


def check_script(folder):
    hello = b"EHLO x\r\n"
    long = b"USER u\r\nPASS geheim\r\nRETR 1\r\n"
    cases = [
        ("greeting close", "smtp", b"", b"", 0),
        ("greeting \"421 later\" reset", "smtp", b"", b"<reset>", 0),
        ("NOOP silence", "smtp", b"NOOP\r\n", b"ESMTP\r\n<silence>", 0.5),
        ("greeting delay 400ms \"421 x\" close", "smtp", b"", b"421 x\r\n", 0.4),
        ("every drip 20ms\nQUIT \"221 012345678\"", "smtp", b"QUIT\r\n", b"221 012345678\r\n", 0.3),
        ("NOOP \"2\" flood 200000\nQUIT close", "smtp", b"NOOP\r\nQUIT\r\n", b"2\r\n" * 200000, 0),
        ("RETR 1 cut 1000", "pop3", long, b"\r\n\r\n..text\r\nline\r\n", 0),
        ("STLS inject \"+OK x\"", "pop3", b"STLS\r\nQUIT\r\n", b"TLS\r\n+OK x\r\n<silence>", 0.5),
        ("", "smtps", b"EHLO x\r\n" * 4, b"", 0),
        ("EHLO \"250-x\" \"\\xff\\0\" close", "smtp", hello * 2, b"250-x\r\n\xff\0\r\n", 0),
    ]
    mail = os.path.join(folder, "mail")
    with open(mail, "wb") as file:
        file.write(MAIL)
    for script, door, lines, expected, seconds in cases:
        with Host(folder, "--add", mail, script=script) as host:
            said, took = exchange(host.ports[door], lines, timeout=0.6)
            assert expected in said and (expected or b"\r\n" not in said), (script, said[-300:])
            assert "cut" not in script or len(said.split(b"logged in\r\n")[1]) == 1000, said
            assert seconds <= took < seconds + 3, (script, took)
        if "flood" in script:
            assert len(host.told("line")) < 40, "a flood is not shown in full"
        assert bool(script) == any("script: " in e["text"] for e in host.told("note")), script
        assert host.told("closed"), script
    with Host(folder, script='STARTTLS "220 go"') as host, host.smtp() as client:
        client.starttls(context=host.tls)
        assert client.ehlo()[0] == 250, "goes on under TLS"


def check_bad_clients(folder):
    """Fifty that say nothing, and those that say too much, leave room for a good one."""
    with Host(folder, "--size-limit", "1000", "--add", os.path.join(folder, "mail")) as host:
        idle = [socket.create_connection(("127.0.0.1", host.ports["smtps"])) for _ in range(40)]
        greedy = socket.create_connection(("127.0.0.1", host.ports["pop3"]))
        greedy.settimeout(0.5)
        greedy.sendall(b"USER u\r\nPASS geheim\r\n")
        try:  # asks and does not listen: the host stops reading
            for _ in range(400):
                greedy.sendall(b"RETR 1\r\n" * 10000)
            assert False, "reads for ever"
        except socket.timeout:
            pass
        with open(f"/proc/{host.process.pid}/status") as status:
            peak = next(int(row.split()[1]) for row in status if row.startswith("VmRSS"))
        assert peak < 300_000, peak
        said, _ = exchange(host.ports["smtp"], b"x" * 100000)
        assert b"500 5.5.2 the line is too long" in said
        with host.smtp() as client:
            try:
                client.sendmail("a@b.c", "x@y.z", "x" * 2000)
                assert False, "too big"
            except smtplib.SMTPSenderRefused as refusal:
                assert refusal.smtp_code == 552
        with host.smtp() as client:  # one that does not know SIZE
            client.helo()
            client.mail("a@b.c")
            client.rcpt("x@y.z")
            assert client.data("x" * 2000)[0] == 552
        for client in idle + [greedy]:
            client.close()


def check_unread_output(folder):
    """Who starts it and does not read what it says still has a server, and can end it."""
    ready = os.path.join(folder, "unread")
    process = subprocess.Popen([HOST, "--any-port", "--ready-file", ready], stdout=subprocess.PIPE)
    while not os.path.exists(ready):
        time.sleep(0.02)
    with open(ready) as file:
        port = int(file.readline().split("=")[1])
    try:
        said, _ = exchange(port, b"NOOP\r\n" * 3000 + b"QUIT\r\n")
        assert said.endswith(b"221 2.0.0 bye\r\n"), said[-100:]
        process.terminate()
        assert process.wait(timeout=10) == 0
    finally:
        process.kill()
        process.communicate()


def check_certificates(folder):
    for kind, words in (("expired", "expired"), ("wrong-name", "mismatch"),
                        ("self-signed", "self")):
        with Host(folder, "--bad-certificate", kind) as host:
            try:
                smtplib.SMTP_SSL("localhost", host.ports["smtps"], context=host.tls)
                assert False, kind
            except ssl.SSLCertVerificationError as error:
                assert words in str(error), error
            for _ in range(100):
                with open(host.log) as file:
                    said = file.read()
                if "TLS failed" in said:
                    break
                time.sleep(0.02)
            assert "TLS failed: " in said, said


def check_terminal(folder):
    """Colours on a terminal; Ctrl-C ends it and takes the private folder along."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execve(HOST, [HOST, "--any-port"], dict(os.environ, TERM="xterm", TMPDIR=folder))
    shown = b""
    while b"  mails  " not in shown or not shown.endswith(b")\r\n"):
        shown += os.read(terminal, 1000)
    port = int(shown.split(b"smtp   ")[1].split()[0])
    exchange(port, b"QUIT\r\n")
    while b"closed" not in shown:
        shown += os.read(terminal, 1000)
    assert b"\x1b[36mC: QUIT\x1b[0m" in shown and b"\x1b[32mS: 220" in shown, shown
    assert [name for name in os.listdir(folder) if name.startswith("tavmail-host-")]
    os.write(terminal, b"\x03")
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 0
    assert not [name for name in os.listdir(folder) if name.startswith("tavmail-host-")]


def check_usage(folder):
    taken = socket.socket()
    taken.bind(("127.0.0.1", 0))
    taken.listen()
    script = os.path.join(folder, "bad")
    with open(script, "w") as file:
        file.write("# x\nELHO silence\n")
    for code, words, arguments in (
            (65, 'bad: line 2: "ELHO" is no point', ["--script", script]),
            (64, "--scrpt", ["--scrpt", script]),
            (64, "NAME:PASSWORD", ["--user", "anna"]),
            (64, "--key", ["--cert", script]),
            (64, "expired", ["--bad-certificate", "none"]),
            (64, "MD4", ["--auth", "MD4"]),
            (69, "in use; --any-port", ["--smtp", str(taken.getsockname()[1])]),
            (69, "no IP address", ["--listen", "here"]),
            (71, "cannot use", ["--any-port", "--cert", script, "--key", script]),
            (66, "cannot read the file", ["--any-port", "--add", "none"])):
        done = subprocess.run([HOST, *arguments], capture_output=True, timeout=20)
        error = done.stderr.decode()
        assert done.returncode == code and words in error, (arguments, done)
        assert error.startswith("tavmail-host: ") and error.count("\n") == 1, error


def main():
    with tempfile.TemporaryDirectory() as folder:
        for check in (check_mail_and_logins, check_pop_before_smtp, check_script, check_bad_clients,
                      check_unread_output, check_certificates, check_terminal, check_usage):
            check(folder)
    print("tavmail-host: all as expected")


main()
