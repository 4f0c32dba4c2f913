"""Mails that the library composed, read back by Python's email package.

    check_mails.py COMPOSE_MAIL

Every mail is held against what was put in, byte by byte, and its raw form against RFC 5322 (line
ends and lengths) and RFC 2047 (each encoded word at most 75 characters and decodable by itself).
"""

import email
import email.header
import email.policy
import os
import random
import re
import subprocess
import sys
import tempfile
import unicodedata

HALF_WIDTH = re.compile("[\uff61-\uff9f]+")


def decode(data, charset):
    """Text of bytes. Python's own codecs lack the vendor characters that real Japanese mail has."""
    if charset == "shift_jis":
        return data.decode("cp932")
    if charset != "iso-2022-jp":
        return data.decode(charset)
    text, kanji = "", False
    for piece in re.split(rb"(\x1b\$B|\x1b\(B)", data):
        if piece in (b"\x1b$B", b"\x1b(B"):
            kanji = piece == b"\x1b$B"
        elif kanji:
            text += "".join(jis_pair(*piece[i : i + 2]) for i in range(0, len(piece), 2))
        else:
            text += piece.decode("ascii")
    assert not kanji, "text does not end in ASCII"
    return text


def jis_pair(row, cell):
    lead = (row - 0x21) // 2 + (0x81 if row < 0x5F else 0xC1)
    trail = cell + (0x7E if row % 2 == 0 else 0x1F if cell < 0x60 else 0x20)
    return bytes([lead, trail]).decode("cp932")


def expected(text, charset):
    """What a text becomes in a character set: only ISO-2022-JP has no half-width katakana."""
    if charset == "iso-2022-jp":
        text = HALF_WIDTH.sub(lambda found: unicodedata.normalize("NFKC", found[0]), text)
    return text


WORD = re.compile(rb"=\?([^?]+)\?B\?([A-Za-z0-9+/=]*)\?=")


def decode_words(value, charset):
    """A header value with its encoded words decoded one by one, blanks between them dropped."""
    value = re.sub(rb"\?=\r\n[ \t]=\?", b"?==?", value)
    text, at = "", 0
    for word in WORD.finditer(value):
        assert len(word[0]) <= 75, word[0]
        assert word[1].decode() == charset
        text += value[at : word.start()].decode("ascii")
        text += decode(email.base64mime.decode(word[2].decode()), charset)
        at = word.end()
    return text + value[at:].decode("ascii")


def raw_header(raw, name):
    found = re.search(rb"^" + name + rb": ((?:.|\r\n[ \t])*)\r\n", raw, re.M)
    return found[1]


class Mail:
    def __init__(self, compose, fields):
        self.fields = fields
        with tempfile.TemporaryDirectory() as folder:
            for name, value in fields.items():
                with open(os.path.join(folder, name), "wb") as file:
                    file.write(value if isinstance(value, bytes) else str(value).encode())
            subprocess.run([compose, folder], check=True)
            with open(os.path.join(folder, "mail.eml"), "rb") as file:
                self.raw = file.read()

    def check(self):
        raw, fields, charset = self.raw, self.fields, self.fields["charset"]
        assert b"\n" not in raw.replace(b"\r\n", b"") and b"\r" not in raw.replace(b"\r\n", b"")
        assert all(len(line) <= 78 for line in raw.split(b"\r\n")), "a line is too long"
        mail = email.message_from_bytes(raw, policy=email.policy.SMTP)
        assert not mail.defects, mail.defects
        subject = decode_words(raw_header(raw, b"Subject"), charset)
        assert subject == expected(fields["subject"], charset), subject
        if charset == "utf-8":
            assert mail["subject"] == fields["subject"], mail["subject"]
        to = [address.addr_spec for address in mail["to"].addresses]
        assert to == re.findall(r"[\w.]+@[\w.]+", fields["to"]), to
        parts = list(mail.iter_parts()) if "name" in fields else [mail]
        text = parts[0]
        assert text.get_content_type() == "text/plain"
        assert text.get_content_charset() == charset
        body = decode(text.get_payload(decode=True), charset)
        assert body == expected(fields["body"], charset), (body, fields["body"])
        if "name" in fields:
            self.check_attachment(parts[1:], charset)

    def check_attachment(self, parts, charset):
        assert len(parts) == 1
        part = parts[0]
        assert part.get_content_type() == "application/pdf"
        assert part.get_content_disposition() == "attachment"
        assert part.get_payload(decode=True) == self.fields["data"]
        for parameter in rb'\r\n\tname="', rb'\r\n\tfilename="':
            value = re.search(parameter + rb'((?:[^"]|\r\n[ \t])*)"', self.raw)[1]
            assert decode_words(value, charset) == expected(self.fields["name"], charset)


def mails():
    vendor = "株式会社テスト①②③～㈱ ｶﾞｷﾞｸﾞｹﾞｺﾞ ﾊﾟﾋﾟﾌﾟ ソ表能 "
    subjects = ["plain ASCII", "日本語の件名", "a" * 40 + "あ" * 60, vendor * 6]
    subjects += ["x" * i + "日本語ｶﾞ漢字、かな交じり文です。" * 4 for i in range(12)]
    bodies = ["a", "あ", "ｶ", ".\r\n..\r\n本文\r\n", vendor * 200, "日a本b語c" * 50]
    random.seed(5)
    for charset in "utf-8", "iso-2022-jp", "shift_jis":
        for i, subject in enumerate(subjects):
            fields = {
                "charset": charset,
                "from": "device@printer.example",
                "to": "one@example.org, two.three@example.org",
                "subject": subject,
                "body": bodies[i % len(bodies)],
                "piece": [1, 2, 3, 7, 1000, 100000][(i * 5) % 6],
            }
            if i % 3 == 1:
                size = [0, 1, 2, 3, 100, 5000][(i // 3) % 6]
                fields["name"] = ["scan.pdf", "報告書 その1.pdf", "a b (c).pdf"][i // 3 % 3]
                fields["data"] = random.randbytes(size)
                if fields["name"].isascii() and len(fields["name"]) > 60:
                    continue
            # A sound mark joins its kana only when both come in the same piece.
            if charset == "iso-2022-jp" and HALF_WIDTH.search(fields["body"]):
                fields["piece"] = 100000
            yield fields


def main():
    count = 0
    for fields in mails():
        mail = Mail(sys.argv[1], fields)
        try:
            mail.check()
        except Exception:
            print(fields, mail.raw.decode("latin-1"), sep="\n")
            raise
        count += 1
    print(f"{count} mails read back")


main()
