"""A POP3 server of a few lines that misbehaves on request."""

import re
import socket
import threading
import time


class Pop3Peer:
    """Serves `mails` to user anna with password geheim; deletions count with QUIT.

    A mail is bytes, or a function that is given the stream. `uids` None: no UIDL. `replies` maps a
    verb, or a whole command, to the reply that is given instead; None closes the connection.
    """

    def __init__(self, mails, uids=(), replies=(), slow=0.0, capabilities=("USER", "UIDL", "TOP")):
        self.mails = list(mails)
        self.uids = None if uids is None else list(uids) or [f"u{i + 1}" for i in range(len(mails))]
        self.replies, self.slow, self.capabilities = dict(replies), slow, capabilities
        self.commands, self.deleted = [], set()
        self.socket = socket.socket()
        self.socket.bind(("127.0.0.1", 0))
        self.socket.listen(5)
        self.port = self.socket.getsockname()[1]
        self.server = f"127.0.0.1:{self.port}"
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            connection = self.socket.accept()[0]
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            threading.Thread(target=self.session, args=(connection,), daemon=True).start()

    def session(self, connection):
        # Numbered anew in every session. Deletions are kept by the first number of a mail.
        here = [number for number in range(1, len(self.mails) + 1) if number not in self.deleted]
        deleted = set()
        try:
            stream = connection.makefile("rwb", buffering=0)
            stream.write(b"+OK ready\r\n")
            while line := stream.readline():
                command = line.decode("latin-1").strip()
                self.commands.append(command)
                verb = command.split(" ")[0]
                scripted = self.replies.get(command, self.replies.get(verb, ""))
                if scripted is None:
                    break
                if scripted:
                    stream.write(scripted)
                elif verb == "QUIT":
                    self.deleted |= deleted
                    stream.write(b"+OK bye\r\n")
                    break
                else:
                    self.answer(stream, verb, re.findall(r"\d+", command), here, deleted)
        except OSError:
            pass
        finally:
            connection.close()

    def answer(self, stream, verb, words, here, deleted):
        asked = int(words[0]) if words else 0
        number = here[asked - 1] if 0 < asked <= len(here) else 0
        if words and (number == 0 or number in deleted):
            stream.write(b"-ERR no such mail\r\n")
        elif verb == "CAPA":
            stream.write("\r\n".join(("+OK", *self.capabilities, ".", "")).encode())
        elif verb == "STAT":
            stream.write(b"+OK %d 1000\r\n" % len(here))
        elif verb == "UIDL" and self.uids is None:
            stream.write(b"-ERR what?\r\n")
        elif verb in ("LIST", "UIDL"):
            lines = [f"{place} {self.described(verb, each)}\r\n"
                     for place, each in enumerate(here, 1) if not words or each == number]
            reply = "+OK " + lines[0] if words else "".join(["+OK\r\n", *lines, ".\r\n"])
            stream.write(reply.encode("latin-1"))
        elif verb in ("RETR", "TOP"):
            self.send(stream, self.mails[number - 1], verb == "TOP")
        elif verb == "DELE":
            deleted.add(number)
            stream.write(b"+OK\r\n")
        elif verb == "PASS":
            stream.write(b"+OK\r\n" if self.commands[-1] == "PASS geheim" else b"-ERR no\r\n")
        else:
            stream.write(b"+OK\r\n" if verb in ("USER", "NOOP") else b"-ERR what?\r\n")

    def described(self, verb, number):
        mail = self.mails[number - 1]
        return self.uids[number - 1] if verb == "UIDL" else 100 if callable(mail) else len(mail)

    def send(self, stream, mail, header_only):
        stream.write(b"+OK\r\n")
        if callable(mail):
            mail(stream)
            return
        if header_only:
            mail = mail[:mail.find(b"\r\n\r\n") + 4]
        stuffed = mail.replace(b"\r\n.", b"\r\n..") + b".\r\n"
        for at in range(0, len(stuffed), 65536):
            stream.write(stuffed[at:at + 65536])
            time.sleep(self.slow)


def cut_off(stream):
    """A mail that breaks the connection in the middle of its second part."""
    stream.write(b"Subject: cut\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\none\r\n"
                 b"--b\r\n\r\ntw")
    raise OSError
