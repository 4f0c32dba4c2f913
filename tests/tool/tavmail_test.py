"""tavmail as a whole, against the practice mail server: exit codes, messages, memory, secrets.

    tavmail_test.py TAVMAIL TAVMAIL_HOST
"""

import email
import email.policy
import os
import socket
import subprocess
import sys
import tempfile
import threading
import time

TAVMAIL, HOST = sys.argv[1:3]
USAGE, DATA, NO_INPUT, NO_HOST, UNAVAILABLE, TEMPORARY, PROTOCOL, NO_PERMISSION, CONFIG = (
    64, 65, 66, 68, 69, 75, 76, 77, 78)


def tavmail(*arguments, text=b"", **options):
    return subprocess.run([TAVMAIL, *arguments], input=text, capture_output=True, timeout=60,
                          **options)


def expect(code, words, *arguments, **options):
    """The exit code, and one line of advice that has the words."""
    done = tavmail(*arguments, **options)
    error = done.stderr.decode()
    assert done.returncode == code, (arguments, done.returncode, error)
    assert error.startswith("tavmail: ") and error.count("\n") == 1, error
    for word in words.split("|"):
        assert word in error, (word, error)


class Peer:
    """A server that sends the given replies, one for each line it gets, and then acts."""

    def __init__(self, replies, silent=False):
        self.socket = socket.socket()
        self.socket.bind(("127.0.0.1", 0))
        self.socket.listen(1)
        self.replies, self.silent = replies, silent
        self.port = self.socket.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        connection = self.socket.accept()[0]
        stream = connection.makefile("rwb", buffering=0)
        for reply in self.replies:
            stream.write(reply)
            line = stream.readline()
            while reply.startswith(b"354") and line and line != b".\r\n":
                line = stream.readline()
        if self.silent:
            time.sleep(20)
        connection.close()


def check_bad_input(folder, send):
    others = os.path.join(folder, "password")
    with open(others, "w") as file:
        file.write("geheim\n")
    os.chmod(others, 0o644)
    cases = [
        (USAGE, "no recipient|--to", []),
        (USAGE, "koi8|utf-8", ["-t", "b@c.d", "--charset", "koi8"]),
        (USAGE, "--content-type", ["-t", "b@c.d", "-a", TAVMAIL]),
        (USAGE, "message ids", ["-t", "b@c.d", "--in-reply-to", "abc"]),
        (DATA, "NAME@DOMAIN", ["-t", "nobody"]),
        (DATA, "line break", ["-t", "b@c.d", "-S", "a\r\nBcc: x@y.z"]),
        (DATA, "shift_jis|utf-8", ["-t", "b@c.d", "-S", "\U0001f600", "--charset", "shift_jis"]),
        (DATA, "not UTF-8", ["-t", "b@c.d", "-S", b"\xff\xfe"]),
        (NO_INPUT, "No such file", ["-t", "b@c.d", "-a", os.path.join(folder, "none.pdf")]),
        (NO_INPUT, "directory", ["-t", "b@c.d", "-a", folder, "--content-type", "image/tiff"]),
        (CONFIG, "chmod", ["-t", "b@c.d", "-u", "anna", "--password-file", others]),
        (CONFIG, "no password", ["-t", "b@c.d", "-u", "anna", "--password-command", "true"]),
        (CONFIG, "failed", ["-t", "b@c.d", "-u", "anna", "--password-command", "exit 3"]),
        (CONFIG, "byte order mark", ["-t", "b@c.d", "-u", "anna", "--password-command",
                                     "printf '\\357\\273\\277x'"]),
        (CONFIG, "zero byte", ["-t", "b@c.d", "-u", "anna", "--password-command", "printf 'a\\0b'"]),
    ]
    for code, words, extra in cases:
        expect(code, words, *send, "--text", "x", *extra)
    expect(NO_INPUT, "--ca-file", *send[:5], "-t", "b@c.d", "--ca-file", "/none", "--text", "x")
    for text in b"\xff", b"a\0b":
        expect(DATA, "not UTF-8", *send, "-t", "b@c.d", text=text)


def check_servers():
    closed = socket.socket()
    closed.bind(("127.0.0.1", 0))

    def send(port, *extra):
        return ["send", "-s", f"127.0.0.1:{port}", "-f", "a@b.c", "-t", "b@c.d", "--text", "x",
                "--timeout", "2", *extra]

    plain = ["--tls", "none"]
    expect(UNAVAILABLE, "refuses connections", *send(closed.getsockname()[1]))
    expect(NO_HOST, "name", "send", "-s", "no-such-host.invalid", "-f", "a@b.c", "-t", "b@c.d",
           "--text", "x")
    expect(TEMPORARY, "silent|implicit", *send(Peer([], silent=True).port))
    expect(UNAVAILABLE, "554 go away", *send(Peer([b"554 go away\r\n"]).port))
    expect(TEMPORARY, "421 later", *send(Peer([b"421 later\r\n"]).port))
    expect(PROTOCOL, "STARTTLS", *send(Peer([b"220 hi\r\n", b"250 hi\r\n"], True).port))
    expect(UNAVAILABLE, "the recipient b@c.d|550 who", *send(
        Peer([b"220 hi\r\n", b"250 hi\r\n", b"250 ok\r\n", b"550 who\x1b[2J\r\n"], True).port, *plain))
    ready = [b"220 hi\r\n", b"250 hi\r\n", b"250 ok\r\n", b"250 ok\r\n", b"354 go\r\n"]
    expect(TEMPORARY, "may have been delivered", *send(Peer(ready).port, *plain))
    expect(UNAVAILABLE, "552 too big", *send(Peer(ready + [b"552 too big\r\n"]).port, *plain))
    user = ["-u", "anna", "--password-command", "echo geheim", *plain]
    for code, words, offer, verdict in (
            (NO_PERMISSION, "login of anna|password|535 no", b"PLAIN", b"535 no\r\n"),
            (TEMPORARY, "454 later", b"PLAIN", b"454 later\r\n"),
            (UNAVAILABLE, "offers no login", b"GSSAPI", b"")):
        peer = Peer([b"220 hi\r\n", b"250 AUTH " + offer + b"\r\n", verdict], True)
        expect(code, words, *send(peer.port, *user))
    # Accepted is accepted, also when the goodbye fails.
    done = tavmail(*send(Peer(ready + [b"250 taken\r\n"]).port, *plain))
    assert done.returncode == 0 and b"250 taken" in done.stdout, done


def check_mail(folder, host, send):
    data = os.urandom(300_001)
    path = os.path.join(folder, "scan.pdf")
    with open(path, "wb") as file:
        file.write(data)
    many = [f"n{number}@example.org" for number in range(200)]
    done = tavmail(*send, "-t", "山田 <y@example.org>; z@example.org", "--bcc", "hidden@example.org",
                   "--bcc", ",".join(many), "--cc", ",".join(many), "--references", "<r@x>" * 300,
                   "-S", "件名", "--charset", "iso-2022-jp", "-a", path, "--attach-name", 'a "1".pdf',
                   "--in-reply-to", "<1@x>", "--mdn", "a@b.c", text="本文\n.\n".encode())
    assert done.returncode == 0, done
    assert done.stdout.startswith(b"sent") and not done.stderr, done
    name, = os.listdir(os.path.join(host, "new"))
    with open(os.path.join(host, "new", name), "rb") as file:
        raw = file.read()
    mail = email.message_from_bytes(raw, policy=email.policy.default)
    assert mail["subject"] == "件名" and b"hidden" not in raw
    assert [address.addr_spec for address in mail["cc"].addresses] == many
    assert mail["references"].count("<r@x>") == 20, mail["references"]
    assert mail["in-reply-to"] == "<1@x>" and mail["disposition-notification-to"] == "a@b.c"
    text, part = mail.iter_parts()
    assert text.get_content() == "本文\r\n.\r\n", text.get_content()
    assert part.get_filename() == 'a "1".pdf' and part.get_payload(decode=True) == data


def peak_memory(send, path, size):
    """Kilobytes that sending a file of so many bytes took at the most."""
    with open(path, "wb") as file:
        file.truncate(size)
    environment = dict(os.environ, ASAN_OPTIONS="quarantine_size_mb=1")
    process = subprocess.Popen([TAVMAIL, *send, "-t", "b@c.d", "--text", "x", "-a", path, "-q"],
                               stderr=subprocess.PIPE, env=environment)
    error = process.stderr.read()
    _, status, usage = os.wait4(process.pid, 0)
    assert status == 0, error
    return usage.ru_maxrss


def check_memory(folder, send):
    path = os.path.join(folder, "large.tif")
    small, large = (peak_memory(send, path, size << 20) for size in (1, 40))
    assert large < small + 8_000, (small, large)


def main():
    with tempfile.TemporaryDirectory() as folder:
        box, authority, ports = (os.path.join(folder, name) for name in ("b", "ca.pem", "p"))
        host = subprocess.Popen([HOST, "--any-port", "--ca-out", authority, "--folder", box,
                                 "--ready-file", ports, "--max-seconds", "90"],
                                stdout=subprocess.DEVNULL)
        try:
            while not os.path.exists(ports) or not os.path.getsize(ports):
                time.sleep(0.05)
            with open(ports) as file:
                port = dict(line.strip().split("=") for line in file)["smtp"]
            send = ["send", "-s", f"localhost:{port}", "-f", "a@b.c", "--ca-file", authority]
            check_bad_input(folder, send)
            check_servers()
            check_mail(folder, box, send)
            check_memory(folder, send)
            untrusted = [*send[:5], "-t", "b@c.d", "--text", "x"]
            expect(PROTOCOL, "certificate|issuer", *untrusted)
        finally:
            host.terminate()
            host.wait()
    print("tavmail: all as expected")


main()
