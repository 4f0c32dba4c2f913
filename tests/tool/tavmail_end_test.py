"""tavmail that is told to end, at every stage at which it waits: how soon, and what it says then.

    tavmail_end_test.py TAVMAIL
"""

import concurrent.futures
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

TAVMAIL = sys.argv[1]
INTERRUPTED, TIME_OVER = 130, 75
PATIENCE = 60  # what tavmail is given for each wait: nothing here may take as long


class SilentServer:
    """Gives the replies, one for each line that it gets, and then falls silent."""

    def __init__(self, replies):
        self.replies, self.is_silent = replies, threading.Event()
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            connection = self.socket.accept()[0]
            threading.Thread(target=self.talk, args=(connection,), daemon=True).start()

    def talk(self, connection):
        stream = connection.makefile("rwb", buffering=0)
        for number, reply in enumerate(self.replies, 1):
            stream.write(reply)
            # Without a line it was only a look at the address.
            if number < len(self.replies) and not self.take_line(stream, reply):
                return
        self.is_silent.set()
        time.sleep(PATIENCE)

    @staticmethod
    def take_line(stream, reply):
        line = stream.readline()
        while reply.startswith(b"354") and line not in (b"", b".\r\n"):
            line = stream.readline()
        return line


class FullServer:
    """Answers no connection, because nobody takes those that wait."""

    def __init__(self):
        self.socket = socket.create_server(("127.0.0.1", 0), backlog=0)
        self.port = self.socket.getsockname()[1]
        self.waiting = [socket.socket() for _ in range(4)]
        for each in self.waiting:
            each.setblocking(False)
            each.connect_ex(("127.0.0.1", self.port))
        self.is_silent = threading.Event()
        self.is_silent.set()


def lines(*texts):
    return [text.encode() + b"\r\n" for text in texts]


SMTP = ("220 hi", "250 AUTH PLAIN", "250 ok", "250 ok", "354 go")
POP3 = ("+OK hi", "+OK", "+OK", "+OK 1 100")
MAIL = "+OK\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\n" + 200 * "text\r\n"
USER = ["-u", "anna", "--password-command", "echo geheim"]
NOTHING, UNKNOWN = "nothing was delivered", "may have been delivered"


def cases(folder):
    """The command, the server's part of the dialogue, what is said, the outcome of a mail."""
    large = os.path.join(folder, "large.tif")
    with open(large, "wb") as file:
        file.truncate(20 << 20)
    text = ["--text", "x"]
    for count in range(5):
        yield ["send", *text], lines(*SMTP[:count]), NOTHING, "not sent"
    yield ["send", *text, "--tls", "implicit"], [], NOTHING, "not sent"
    yield ["send", *text, "--tls", "starttls"], lines("220 hi", "250 STARTTLS", "220 go"), NOTHING, (
        "not sent")
    yield ["send", *text, *USER], lines("220 hi", "250 AUTH PLAIN"), NOTHING, "not sent"
    yield ["send", *text, "-a", large], lines(*SMTP[:4], "354 go"), NOTHING, "not sent"
    yield ["send", *text], lines(*SMTP), UNKNOWN, "unknown"
    yield ["send", *text], None, NOTHING, "not sent"
    yield ["send", *text, "--auth", "pop", "--pop-wait", "60", *USER, "--pop3-tls", "none"], lines(
        "+OK hi", "+OK", "+OK", "+OK"), NOTHING, "not sent"
    for password in "exec sleep 60", "trap '' TERM; exec sleep 60":
        yield ["send", *text, "-u", "a", "--password-command", password], None, "", "not sent"
    yield ["send"], None, "", "not sent"  # a text that does not come
    receive = ["receive", *USER]
    for count in range(5):
        yield receive, lines(*POP3[:count]), "no mail was received", None
    listed = [*POP3, "+OK\r\n1 u\r\n.", "+OK\r\n1 100\r\n."]
    yield [*receive, "--all"], lines(*listed, MAIL), "no mail was received", None
    whole = [*listed, "+OK\r\nSubject: x\r\n\r\nx\r\n."]
    yield [*receive, "--all"], lines(*whole), "1 mail was received", None
    yield [*receive, "--all"], lines(*whole, "+OK"), "did not confirm", None
    for protocol in "smtp", "pop3":
        doctor = ["doctor", "--protocol", protocol, *USER]
        yield doctor, None, "", None
        yield doctor, [], "", None
        yield [*doctor, "--tls", "implicit"], [], "", None
    yield ["doctor", *USER], lines(*SMTP[:2]), "", None


def check_end(root, case, way):
    command, replies, words, outcome = case
    folder = tempfile.mkdtemp(dir=root)
    server = FullServer() if replies is None else SilentServer(replies)
    line = [TAVMAIL, *command, "--json", "--timeout", str(PATIENCE), "-s", f"127.0.0.1:{server.port}"]
    line += [] if "--tls" in command else ["--tls", "none"]
    line += ["-f", "a@b.c", "-t", "b@c.d"] if command[0] == "send" else []
    line += ["--pop3-server", f"127.0.0.1:{server.port}"] if "pop" in command else []
    line += ["--delete", "-d", os.path.join(folder, "box")] if command[0] == "receive" else []
    line += ["--seen", os.path.join(folder, "seen")] if command == ["receive", *USER] else []
    line += ["--max-time", "3"] if way == TIME_OVER else []
    process = subprocess.Popen(line, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE)
    begun = time.time()
    if way == INTERRUPTED:
        assert server.is_silent.wait(20), line
        time.sleep(1)  # and tavmail has come to wait
        begun = time.time()
        process.send_signal(signal.SIGINT)
    while process.poll() is None and time.time() < begun + 20:
        time.sleep(0.01)
    took = time.time() - begun
    process.kill()
    output, error = process.communicate()
    told = (line, process.returncode, took, output, error)
    assert process.returncode == way and took < 5, told
    document = json.loads(output)
    assert document["exit_code"] == way and document.get("outcome") == outcome, told
    reason = "interrupted" if way == INTERRUPTED else "the 3 s of --max-time are over"
    error = error.decode()
    assert error.startswith("tavmail: " + reason) and error.count("\n") == 1, told
    assert words in error and document["problem"] == error[9:-1], told
    left = [name for _, folders, _ in os.walk(folder) for name in folders if "part" in name]
    assert not left, (told, left)


def check_delivered():
    """Who is impatient with the goodbye only has sent his mail all the same."""
    server = SilentServer(lines(*SMTP, "250 taken"))
    process = subprocess.Popen([TAVMAIL, "send", "-s", f"127.0.0.1:{server.port}", "--tls", "none",
                                "-f", "a@b.c", "-t", "b@c.d", "--text", "x"],
                               stdout=subprocess.PIPE)
    assert server.is_silent.wait(20)
    time.sleep(1)  # and tavmail has read it
    process.send_signal(signal.SIGINT)
    output, _ = process.communicate(timeout=20)
    assert process.returncode == 0 and b"250 taken" in output, output


def check_unread_output():
    """Nobody takes what tavmail writes."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    try:
        while os.write(writer, b" " * 4096):
            pass
    except BlockingIOError:
        os.set_blocking(writer, True)
    code = subprocess.run([TAVMAIL, "send", "--json", "--max-time", "1", "-s", "localhost"],
                          stdout=writer, stdin=reader, timeout=20, check=False).returncode
    assert code == TIME_OVER, code


def main():
    with tempfile.TemporaryDirectory() as folder:
        check_unread_output()
        check_delivered()
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            runs = [pool.submit(check_end, folder, case, way) for case in cases(folder)
                    for way in (INTERRUPTED, TIME_OVER)]
        for run in runs:
            run.result()
    print("tavmail ends: all as expected")


main()
