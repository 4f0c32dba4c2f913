"""tavmail-host with clients that want too much, and with nobody to read: limits.py TAVMAIL HOST"""

import os
import pty
import smtplib
import socket
import ssl
import subprocess
import sys
import tempfile
import time

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tool"))
from runs import HOST, Host, environment, talk  # pylint: disable=wrong-import-position


def check_greedy_clients(folder):
    """Forty that say nothing and one that asks and does not listen leave room for another."""
    with open(os.path.join(folder, "mail"), "w") as file:
        file.write("line\n" * 30000)
    host = Host(folder, options=["--add", "mail"])
    idle = [socket.create_connection(("127.0.0.1", host.ports["smtps"])) for _ in range(40)]
    greedy = socket.create_connection(("127.0.0.1", host.ports["pop3"]), 0.5)
    greedy.sendall(b"USER anna\r\nPASS geheim\r\n")
    try:
        for _ in range(400):
            greedy.sendall(b"RETR 1\r\n" * 10000)
        assert False, "reads for ever"
    except socket.timeout:
        pass
    with open(f"/proc/{host.process.pid}/status") as status:
        taken = next(int(row.split()[1]) for row in status if row.startswith("VmRSS"))
    assert taken < 300_000, taken
    said = talk("127.0.0.1:" + host.ports["smtp"], "x" * 100000, patience=9)[1]
    assert "500 5.5.2 the line is too long" in said, said
    # A client that others wrote.
    with smtplib.SMTP("127.0.0.1", int(host.ports["smtp"])) as client:
        client.starttls(context=ssl.create_default_context(cafile=host.ca))
        client.login("anna", "geheim")
        client.sendmail("a@b.c", ["x@y.z"], "text")
    for client in idle + [greedy]:
        client.close()
    assert not host.stop()


def check_unread_output(folder):
    """Who starts it and does not read what it says still has a server, and can end it."""
    ready = os.path.join(folder, "unread")
    process = subprocess.Popen([HOST, "--any-port", "--ready-file", ready, "--max-seconds", "60"],
                               stdout=subprocess.PIPE)
    try:
        while not os.path.exists(ready):
            time.sleep(0.02)
        with open(ready) as file:
            port = file.readline().strip().split("=")[1]
        said = talk("127.0.0.1:" + port, *["NOOP"] * 3000, "QUIT", patience=9)[1]
        assert "221 2.0.0 bye" in said, said
        process.terminate()
        assert process.wait(timeout=20) == 0
    finally:
        process.kill()


def check_terminal(folder):
    """Colours on a terminal; Ctrl-C ends it and takes the private folder along."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execve(HOST, [HOST, "--any-port"], environment(folder, TERM="xterm"))
    shown = b""
    while b"  mails  " not in shown or not shown.endswith(b")\r\n"):
        shown += os.read(terminal, 1000)
    talk("127.0.0.1:" + shown.decode().split("smtp   ")[1].split()[0], "QUIT")
    while b"closed" not in shown:
        shown += os.read(terminal, 1000)
    assert b"\x1b[36mC: QUIT\x1b[0m" in shown and b"\x1b[32mS: 220" in shown, shown
    assert os.listdir(folder + "/tmp")
    os.write(terminal, b"\x03")
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 0
    assert not os.listdir(folder + "/tmp")


for check in check_greedy_clients, check_unread_output, check_terminal:
    with tempfile.TemporaryDirectory() as own:
        os.mkdir(os.path.join(own, "tmp"))
        check(own)
        print(check.__name__ + ": as expected")
