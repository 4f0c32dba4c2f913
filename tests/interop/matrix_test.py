"""tavmail against all mail servers that Debian has: every way to log in, and mails hard to carry.

    matrix_test.py TAVMAIL [PAGE] [--write] [--only SERVER,...] [--send-text PROGRAM]

With PAGE the results are compared with that page; with --write they become it.
"""

import argparse
import difflib
import email.parser
import filecmp
import functools
import itertools
import os
import re
import subprocess
import sys
import tempfile
import time

import corpus
import mail_compare
import matrix
import pop3_servers
import servers
import smtp_servers
from tavmail import TLS, Tavmail

SENDER, RECIPIENT = "anna@test.example", "bob@test.example"
SIZE_LIMIT = 120_000
LARGE_SECONDS = 240
# The one SMTP server and the one POP3 server that a large mail goes over.
LARGE_SERVERS = (smtp_servers.Exim, pop3_servers.Dovecot)

# A file name ends at its first quote, also at one behind a backslash.
KNOWN = r"name 'a \\', should be"


def message_id(raw):
    return email.parser.BytesHeaderParser().parsebytes(raw)["Message-ID"]


class Client:
    """What matrix.run_all drives."""

    def __init__(self, program, text_sender):
        self.tool, self.text_sender = Tavmail(program), text_sender
        self.numbers = itertools.count(1)
        self.collected = []  # mails as the first SMTP server stored them

    # -- one mail --

    def place(self, attempt):
        return ["--server", f"{attempt.host}:{attempt.port}", "--tls", TLS[attempt.mode],
                "--ca-file", attempt.ca_file]

    def login(self, attempt):
        if attempt.method == smtp_servers.NO_LOGIN:
            return []
        if attempt.pop is None:
            return self.tool.login(attempt.user, attempt.password)
        return ["--auth", "pop", "--pop3-server", f"{attempt.host}:{attempt.pop.port}",
                "--pop3-tls", TLS[attempt.pop.mode],
                *self.tool.login(attempt.pop.user, attempt.pop.password, "pop3-")]

    def send_letter(self, attempt, letter, letter_id="<one@letters.example>"):
        return self.tool.send([*self.place(attempt), *self.login(attempt), "--message-id", letter_id,
                               *letter.arguments(self.tool.path("attached"))])

    def send(self, attempt):
        letter = corpus.Letter()
        answer = self.send_letter(attempt, letter)
        if answer.is_login_refused:
            raise matrix.LoginRefused(answer.error)
        if answer.code != 0 or answer.document["outcome"] != "delivered":
            raise RuntimeError(answer.error)
        return lambda raw: "; ".join(corpus.problems(letter, raw))

    def receive(self, attempt, mails):
        """Over the unique ids; the corpus is received over the numbers."""
        with tempfile.TemporaryDirectory() as seen:
            return self.receive_into(attempt, mails, "--seen", os.path.join(seen, "list"))

    def receive_into(self, attempt, mails, *arguments):
        with tempfile.TemporaryDirectory() as folder:
            answer = self.tool.receive(
                [*self.place(attempt), *self.tool.login(attempt.user, attempt.password),
                 "--folder", folder, "--delete", *arguments,
                 *(["--apop"] if attempt.method == "APOP" else [])])
            if answer.is_login_refused:
                raise matrix.LoginRefused(answer.error)
            if answer.code != 0:
                raise RuntimeError(answer.error)
            return "; ".join(differences(answer.document["messages"], mails, folder))

    # -- many mails, once for each server --

    def extras(self, server):
        smtp = type(server) in matrix.SMTP_SERVERS
        tried = {"mails": self.carry_letters, "text": self.carry_text,
                 "size limit": self.try_size_limit, "200 MB": self.send_large} if smtp else {
                     "mails": self.fetch_letters, "200 MB": self.fetch_large}
        if smtp and not self.text_sender:
            del tried["text"]
        if type(server) not in LARGE_SERVERS:
            del tried["200 MB"]
        return {name: functools.partial(function, server) for name, function in tried.items()}

    def attempt(self, server):
        """A way that the server offers, with TLS where there is one; for SMTP to the port that
        announces all login methods, as servers do."""
        cells = [cell for cell in matrix.cells(type(server)) if not cell.reason]
        cell = next((each for each in cells if each.mode in ("starttls", "stls") and
                     each.method in ("PLAIN", "USER/PASS")), cells[0])
        port = (server.port(cell.mode) if cell.method in ("PLAIN", *matrix.POP3_METHODS) else
                server.port(cell.mode, cell.method))
        return matrix.Attempt(port, cell.mode, cell.method, matrix.PASSWORD, server.path("ca.pem"))

    def deliver(self, server, letters):
        """The letters with what arrived of each, by their ids."""
        ids = {f"<{number}@letters.example>": letter for number, letter in enumerate(letters)}
        for letter_id, letter in ids.items():
            answer = self.send_letter(self.attempt(server), letter, letter_id)
            if answer.code != 0:
                raise RuntimeError(f"{letter.charset}, {letter.content_type}: {answer.error}")
        return [(letter, raw) for letter, raw in zip(letters, wait_for_ids(server, ids))]

    def carry_letters(self, server):
        wrong = []
        delivered = self.deliver(server, corpus.letters())
        for letter, raw in delivered:
            wrong += [f"{letter.charset}, {letter.content_type}, {len(letter.data)} bytes: {each}"
                      for each in corpus.problems(letter, raw)]
        self.collected = self.collected or [mail_compare.wire(raw) for _, raw in delivered]
        return "\n".join(wrong)

    def carry_text(self, server):
        """Bodies that are not encoded, through the library's interface."""
        wrong = []
        for charset, encoding, text in corpus.bare_texts():
            letter_id = f"<{next(self.numbers)}@texts.example>"
            port = server.port("plain", smtp_servers.NO_LOGIN)
            problem = self.text_sender(port, charset, encoding, letter_id, text)
            if not problem:
                [raw] = wait_for_ids(server, [letter_id])
                found = mail_compare.wire(raw).partition(b"\r\n\r\n")[2]
                # The library ends the mail with an empty line.
                problem = "" if found == text + b"\r\n" else mail_compare.describe_data(found, text)
            if problem:
                wrong.append(f"{charset}, {encoding}: {problem}")
        return "\n".join(wrong)

    def try_size_limit(self, server):
        """The longest mail that a small server takes arrives whole; one byte more is refused (where
        a server's count is exact), and tavmail says so."""
        with type(server)([(matrix.USER, matrix.PASSWORD)], size_limit=SIZE_LIMIT) as small:
            attempt = self.attempt(small)
            # Servers count line ends and their own header lines differently.
            taken, refused = SIZE_LIMIT - 8000, SIZE_LIMIT + 8000
            while refused - taken > 1:
                middle = (taken + refused) // 2
                if self.send_letter(attempt, sized(middle)).code == 0:
                    taken = middle
                else:
                    refused = middle
            if refused - SIZE_LIMIT == 8000:
                return f"takes mails of more than {SIZE_LIMIT} bytes"
            # Postfix counts its queue ids too, which are not all of one length.
            return self.at_limit(small, attempt, sized(taken - small.SIZE_VARIES),
                                 sized(refused + small.SIZE_VARIES))

    def at_limit(self, small, attempt, fits, exceeds):
        [(_, raw)] = self.deliver(small, [fits])
        wrong = corpus.problems(fits, raw)
        count = len(small.mails())
        answer = self.send_letter(attempt, exceeds)
        if answer.document.get("outcome") != "refused" or answer.document["reply"][:1] != "5":
            wrong.append(f"too large: {answer.document}")
        if len(small.mails()) != count:
            wrong.append("the mail that was refused arrived")
        print(f"  {type(small).NAME}: at a limit of {SIZE_LIMIT} bytes the longest mail has "
              f"{len(mail_compare.wire(raw))} as stored; {answer.document['reply']!r}")
        return "; ".join(wrong)

    def fetch_letters(self, server):
        """What arrived at an SMTP server, and mails that others wrote."""
        server.clear()
        for raw in [*self.collected, *corpus.foreign_mails()]:
            server.deliver(raw)
        wrong = self.receive_into(self.attempt(server), server.mails(), "--all")
        server.wait_until_left(0)
        return wrong

    # -- one large mail --

    def send_large(self, server):
        large = self.tool.path("large.tif")
        digest = corpus.write_large(large)
        before = set(servers.maildir_paths(server.path("mail")))
        try:
            answer = self.tool.send([*self.place(self.attempt(server)),
                                     *self.login(self.attempt(server)), "--from", SENDER, "--to",
                                     RECIPIENT, "--text", "large", "--attach", large],
                                    LARGE_SECONDS)
        finally:
            os.remove(large)
        if answer.code != 0:
            return answer.error
        path = wait_for_new(server.path("mail"), before)
        same = corpus.large_digest(path) == digest
        os.remove(path)
        return "" if same else "other bytes"

    def fetch_large(self, server):
        large = self.tool.path("large.bin")
        corpus.write_large(large)
        server.clear()
        try:
            server.deliver(corpus.large_mail(large))
            with tempfile.TemporaryDirectory() as folder:
                attempt = self.attempt(server)
                answer = self.tool.receive(
                    [*self.place(attempt), *self.tool.login(attempt.user, attempt.password),
                     "--folder", folder, "--all"], LARGE_SECONDS)
                if answer.code != 0:
                    return answer.error
                part = answer.document["messages"][0]["parts"][1]
                same = filecmp.cmp(large, os.path.join(folder, part["file"]), shallow=False)
                return "" if same else f"other bytes: {part}"
        finally:
            os.remove(large)
            server.clear()


def sized(count):
    """A letter of so many bytes on the wire, but for its other header lines: 48 characters of text
    become a line of 66, and the subject has what is missing."""
    lines, rest = divmod(count, 66)
    return corpus.Letter(text="x" * 48 * lines, subject="s" * (rest + 1))


def differences(found, mails, folder):
    """What is wrong with mails that tavmail received, in whatever order."""
    if len(found) != len(mails):
        return [f"{len(found)} mails, should be {len(mails)}"]
    by_id = {each["message_id"]: each for each in found}
    wrong = []
    for raw in mails:
        key = message_id(raw)
        if key not in by_id or not by_id[key]["deleted"]:
            wrong.append(f"{key} is missing, or not deleted: {by_id.get(key)}")
        else:
            wrong += [f"{key}: {each}" for each in mail_compare.compare(by_id[key], raw, folder)
                      if KNOWN not in each]
    return wrong


def wait_for_ids(server, ids, seconds=60):
    """The mails with these ids, once all of them have arrived."""
    deadline = time.monotonic() + seconds
    while True:
        arrived = {message_id(raw): raw for raw in server.mails()}
        if all(each in arrived for each in ids):
            return [arrived[each] for each in ids]
        if time.monotonic() > deadline:
            raise RuntimeError(f"not delivered: {set(ids) - set(arrived)}")
        time.sleep(0.2)


def wait_for_new(folder, before, seconds=60):
    """The path of the mail that is not one of those, once it is there."""
    deadline = time.monotonic() + seconds
    while True:
        new = set(servers.maildir_paths(folder)) - before
        if new:
            return new.pop()
        if time.monotonic() > deadline:
            raise RuntimeError("not delivered")
        time.sleep(0.1)


def text_sender(program):
    """Sends a body through the library as it is; returns what went wrong."""

    def send(port, charset, encoding, letter_id, text):
        done = subprocess.run([program, "localhost", str(port), charset, encoding, letter_id],
                              input=text, capture_output=True, timeout=60)
        return "" if done.returncode == 0 else f"{done.returncode} {done.stderr.decode()}"

    return send


def cells_of(page):
    """The tables of a page and the reasons below them."""
    return [line for line in page.splitlines() if re.match(r"\||\d+\.", line)]


def compare_page(path, results):
    with open(path, encoding="utf-8") as file:
        checked_in, made = cells_of(file.read()), cells_of(matrix.page(results))
    if checked_in == made:
        return 0
    print(f"{path} is not what this run has found; scripts/interop-page makes it anew:")
    print("\n".join(difflib.unified_diff(checked_in, made, "page", "run", lineterm="", n=0)))
    return 1


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("tavmail")
    parser.add_argument("page", nargs="?")
    parser.add_argument("--write", action="store_true")
    parser.add_argument("--only", help="names of servers, separated by commas")
    parser.add_argument("--send-text", help="the program that sends bodies as they are")
    options = parser.parse_args()
    wanted = options.only and options.only.lower().split(",")
    smtp, pop3 = ([each for each in offered if not wanted or each.NAME.lower() in wanted]
                  for offered in (matrix.SMTP_SERVERS, matrix.POP3_SERVERS))
    client = Client(os.path.abspath(options.tavmail),
                    options.send_text and text_sender(options.send_text))
    results = matrix.run_all(client, smtp, pop3)
    code = matrix.exit_code(results)
    if code == 0 and options.page and not wanted:
        if not options.write:
            return compare_page(options.page, results)
        with open(options.page, "w", encoding="utf-8") as file:
            file.write(matrix.page(results))
    return code


if __name__ == "__main__":
    sys.exit(main())
