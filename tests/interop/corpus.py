"""Mails that are hard to carry, and what may be wrong with them after the journey.

    for letter in letters():
        ... send letter ...
        found = problems(letter, raw)     # `raw` as a server stored it

Python's email package is the reader that nobody here wrote.
"""

import base64
import binascii
import email
import email.message
import email.policy
import email.utils
import hashlib
import random
import re
import unicodedata
from dataclasses import dataclass
from typing import Optional

import mail_compare

CHARSETS = ("utf-8", "iso-2022-jp", "shift_jis")

# All that an attachment can be; the second is what "application/x-pdf" is sent as.
CONTENT_TYPES = {each: each for each in (
    "text/plain", "text/html", "message/disposition-notification", "message/partial",
    "application/pdf", "application/postscript", "application/applefile", "image/tiff",
    "image/jpeg", "application/vnd.ms-xpsdocument", "application/oxps",
    "application/vnd.openxmlformats-officedocument.wordprocessingml.document",
    "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet",
    "application/vnd.openxmlformats-officedocument.presentationml.presentation")}
CONTENT_TYPES["application/x-pdf"] = "application/pdf"

# Circled digits, full-width tilde, half-width kana, characters whose Shift_JIS has a backslash.
HARD = "①②～ｶﾞｲﾄﾞ表ソ能㈱漢字"
TEXT = "\n".join((HARD, ".", "..", "...", "", " ", "blank ", "From here on", "長い" * 700, "x" * 1500,
                  "半角ｶﾅ ﾃﾞｽ｡", ".dot", "last"))
NAMES = ("報告書 その1.pdf", "two  blanks.pdf", 'a "quoted" name.pdf', "ｶﾀｶﾅ①～.pdf",
         "表ソ能.pdf", "semi;colon=.pdf", "it's 100%.pdf")


@dataclass(frozen=True)
class Letter:
    """A mail as its author means it."""
    charset: str = "utf-8"
    subject: str = "件名 " + HARD
    text: str = TEXT
    from_name: str = ""
    to_name: str = ""
    name: str = ""
    content_type: str = ""
    data: Optional[bytes] = None

    def arguments(self, attachment):
        """For tavmail. The path `attachment` gets the attached data."""
        given = ["--from", f"{self.from_name} <anna@test.example>", "--to",
                 f"{self.to_name} <bob@test.example>", "--subject", self.subject, "--charset",
                 self.charset, "--text", self.text]
        if self.data is None:
            return given
        with open(attachment, "wb") as file:
            file.write(self.data)
        return [*given, "--attach", attachment, "--attach-name", self.name, "--content-type",
                self.content_type]


def letters():
    """Every content type with an attachment of each size. Their headers hold the characters at
    every place where a long line may be cut. The addresses stay below 256 characters, where
    sendmail cuts them off."""
    noise = random.Random(1).randbytes(1_000_003)
    found, count = [], dict.fromkeys(CHARSETS, 0)
    for kind, content_type in enumerate(CONTENT_TYPES):
        for size, length in enumerate((0, 1, len(noise))):
            charset = CHARSETS[(kind + size) % len(CHARSETS)]
            shift = count[charset]
            count[charset] += 1
            text = TEXT + "\n" * (kind % 2)
            name = NAMES[kind % len(NAMES)] if size else "n" * (shift + 30) + HARD * 2 + ".pdf"
            found.append(Letter(charset, "s" * shift + HARD * 6, text,
                                "f" * shift + HARD, "t" * (shift + 15) + HARD,
                                name, content_type, noise[:length]))
    return found


# What Python complains of, and why it is right all the same.
DEFECTS = (
    # An encoded word in quotes is how mail programs in Japan send file names and read them.
    "encoded word inside quoted string", "missing trailing whitespace after encoded-word",
    # Its own Shift_JIS and ISO-2022-JP lack the vendors' characters; check_word() has them.
    "bytes not decodable using", "Non-ASCII characters found in header token")


def expected_text(text, charset):
    """ISO-2022-JP has no half-width kana; the full-width ones stand for them."""
    if charset != "iso-2022-jp":
        return text
    return re.sub("[\uff61-\uff9f]+", lambda kana: unicodedata.normalize("NFKC", kana[0]), text)


def expected_name(name):
    """As the name is sent: what may not stand in an encoded word is replaced."""
    return name if name.isascii() else name.replace('"', "'").replace("\\", "_")


# -- the raw message --


def check_word(word):
    """An encoded word has at most 75 characters and is a text of its own (RFC 2047)."""
    if len(word) > 75:
        yield f"an encoded word of {len(word)} characters: {word}"
    charset, encoding, text = word[2:-2].split("?")
    if encoding in "qQ":
        data = binascii.a2b_qp(text.encode(), header=True)
    else:
        data = base64.b64decode(text, validate=True)
    charset = charset.lower()
    if charset != "iso-2022-jp":
        try:
            data.decode(mail_compare.CODECS.get(charset, charset))
        except UnicodeDecodeError as error:
            yield f"{word}: {error}"
        return
    pieces = re.split(rb"(\x1b[$(]\S)", data)
    if len(pieces) > 1 and pieces[-2] != b"\x1b(B":
        yield f"{word} does not end in ASCII"
    for escape, piece in zip(pieces[1::2], pieces[2::2]):
        if escape[1:2] == b"$" and len(piece) % 2:
            yield f"{word} cuts a character"
    if "\ufffd" in mail_compare.jis_text(data):
        yield f"{word} is not ISO-2022-JP"


def check_lines(raw):
    bare = raw.replace(b"\r\n", b"").count(b"\n") if b"\r\n" in raw else 0
    if bare or b"\r" in raw.replace(b"\r\n", b""):
        yield "a CR or LF that stands alone"
    longest = max(len(line) for line in raw.replace(b"\r\n", b"\n").split(b"\n"))
    if longest > 998:
        yield f"a line of {longest} bytes"


def check_header(header):
    for line in header.split(b"\n"):
        if b"=?" in line and len(line) > 76:
            yield f"a line with encoded words of {len(line)} characters: {line}"
        if any(byte > 0x7E or byte < 0x20 and byte != 9 for byte in line):
            yield f"not a line of ASCII text: {line}"
    for word in re.findall(r"=\?[^?\s]+\?[bBqQ]\?[^?\s]*\?=", header.decode("latin-1")):
        yield from check_word(word)


def walk(part):
    """The parts of a mail, but not those of a mail attached to it: it may be of any bytes."""
    yield part
    if part.get_content_maintype() == "multipart":
        for each in part.iter_parts():
            yield from walk(each)


def check_mail(mail):
    for name in "From", "To", "Subject", "Date", "Message-ID", "MIME-Version":
        if len(mail.get_all(name, [])) != 1:
            yield f"{len(mail.get_all(name, []))} lines {name}"
    for part in walk(mail):
        yield from (f"{type(each).__name__}: {each}" for each in part.defects)
        for name, value in part.items():
            yield from (f"{name}: {each}" for each in value.defects
                        if not any(known in str(each) for known in DEFECTS))


def rfc_problems(raw):
    """What RFC 5322, 2045 and 2047 forbid."""
    lines = raw.replace(b"\r\n", b"\n")
    yield from check_lines(raw)
    yield from check_header(lines.partition(b"\n\n")[0])
    for part in re.findall(rb"\n--[^\n]+[^-]\n(.*?)\n\n", lines, re.S):
        yield from check_header(part)
    yield from check_mail(email.message_from_bytes(raw, policy=email.policy.default))


# -- what it says --


def exact_text(value):
    """A header value without its folds, with every blank where it stands."""
    line = re.sub(r"\r?\n", "", value)
    return mail_compare.ENCODED_WORDS.sub(mail_compare.decode_words, line)


def same_text(found, expected, charset):
    expected = expected_text(expected, charset)
    if charset != "utf-8":  # JIS has one character where Unicode has two
        found, expected = (each.translate(mail_compare.JIS_VARIANTS) for each in (found, expected))
    return found == expected


def check_headers(letter, mail):
    texts = [("Subject", mail["Subject"], letter.subject)]
    for name, display in ("From", letter.from_name), ("To", letter.to_name):
        [(found, address)] = email.utils.getaddresses([re.sub(r"\r?\n", "", mail[name])])
        texts.append((name, found, display))
        if address != ("anna" if name == "From" else "bob") + "@test.example":
            yield f"{name}: {address}"
    for name, found, expected in texts:
        if not same_text(exact_text(found), expected, letter.charset):
            yield f"{name}: {exact_text(found)!r}, should be {expected!r}"


def check_text(letter, leaf):
    found = mail_compare.to_text(leaf.payloads[0], letter.charset)
    expected = re.sub("\n", "\r\n", letter.text)
    if not same_text(found, expected, letter.charset):
        yield "text: " + mail_compare.describe_data(found.encode(), expected.encode())


def check_attachment(letter, part, leaf):
    if leaf.payloads[0] != letter.data:
        yield "attachment: " + mail_compare.describe_data(leaf.payloads[0], letter.data)
    if leaf.content_types[0] != CONTENT_TYPES[letter.content_type]:
        yield f"attachment: {leaf.content_types[0]}, should be {letter.content_type}"
    name = exact_text(re.sub(r"\\(.)", r"\1", part.get_filename() or ""))
    if not same_text(name, expected_name(letter.name), letter.charset):
        yield f"file name: {name!r}, should be {expected_name(letter.name)!r}"


def problems(letter, raw):
    """What is wrong with the mail that a server stored, as texts."""
    found = list(rfc_problems(raw))
    mail = mail_compare.parse(raw)
    found += check_headers(letter, mail)
    leaves = mail_compare.leaves(mail)
    if len(leaves) != (1 if letter.data is None else 2):
        return found + [f"{len(leaves)} parts"]
    found += check_text(letter, leaves[0])
    if letter.data is not None:
        found += check_attachment(letter, mail.get_payload()[1], leaves[1])
    return found


# -- mails that others wrote, for receiving --


def foreign(number, charset, encoding, text):
    codec = {"shift_jis": "cp932", "iso-2022-jp": "iso2022_jp_ext"}.get(charset, charset)
    subject = base64.b64encode("件名 表ソ能".encode(codec, "replace")).decode()
    head = (f"From: =?utf-8?B?5bGx55Sw?= <y@test.example>\r\nTo: bob@test.example\r\n"
            f"Subject: =?{charset}?B?{subject}?=\r\nDate: Thu, 1 Jan 2026 00:00:00 +0900\r\n"
            f"Message-ID: <foreign{number}@test.example>\r\nMIME-Version: 1.0\r\n"
            f"Content-Type: text/plain; charset={charset}\r\n"
            f"Content-Transfer-Encoding: {encoding}\r\n\r\n")
    data = text.replace("\n", "\r\n").encode(codec)
    if encoding == "quoted-printable":
        data = re.sub(rb"\r?\n", b"\r\n", binascii.b2a_qp(data))
    return head.encode() + data


def foreign_mails():
    """8-bit and 7-bit bodies, quoted-printable, lines of only dots and lines longer than 998."""
    text = "漢字 表ソ能\n.\n..\n...\n\n.dot\nFrom here on\nblank \n半角\n" + "長" * 320 + "\nlast\n"
    # A line of quoted-printable that begins with two dots is a known limit.
    quoted = text.replace("..\n...\n", "")
    return [foreign(1, "utf-8", "8bit", text), foreign(2, "shift_jis", "8bit", text),
            foreign(3, "iso-2022-jp", "7bit", text.replace("長" * 320, "長" * 80)),
            foreign(4, "utf-8", "quoted-printable", quoted),
            foreign(5, "shift_jis", "quoted-printable", quoted),
            foreign(6, "us-ascii", "7bit", "x" * 3500 + "\n" + "." * 998 + "\nlast\n"),
            foreign(7, "utf-8", "8bit", "")]


def bare_texts():
    """Bodies that go as they are: charset, transfer encoding and bytes."""
    hard = HARD + "\n.\n..\n...\n\n \n.dot\n\nFrom here on\nblank \n"
    for charset, encoding, text in (
            ("utf-8", "8bit", hard + "長" * 332), ("shift_jis", "8bit", hard + "長" * 499),
            ("iso-2022-jp", "7bit", "漢字\n.\n..\n平成"), ("utf-8", "7bit", "." * 998 + "\n."),
            ("utf-8", "7bit", "From\nFrom here\n\n.\n" + "x" * 998 + "\n\n\n")):
        codec = {"shift_jis": "cp932", "iso-2022-jp": "iso2022_jp"}.get(charset, charset)
        yield charset, encoding, (text + "\n").replace("\n", "\r\n").encode(codec)


# -- one that is large --

LARGE = 200_000_000


def write_large(path):
    """200 MB that no compression makes shorter. Returns their digest."""
    digest, noise = hashlib.sha256(), random.Random(2)
    with open(path, "wb") as file:
        for _ in range(LARGE // 1_000_000):
            piece = noise.randbytes(1_000_000)
            file.write(piece)
            digest.update(piece)
    return digest.hexdigest()


def large_digest(path):
    """The digest of the attachment of the mail at `path`, in bounded memory; what is wrong with a
    line is raised."""
    digest, delimiters, is_body = hashlib.sha256(), 0, False
    with open(path, "rb") as file:
        for line in file:
            text = line.rstrip(b"\r\n")
            if len(text) > 998 or b"\r" in text:
                raise ValueError(f"a line of {len(text)} bytes: {text[:80]}")
            if text.startswith(b"--"):
                delimiters, is_body = delimiters + 1, False
            elif delimiters == 2 and is_body:
                digest.update(binascii.a2b_base64(text))
            is_body = is_body or not text
    return digest.hexdigest()


def large_mail(path):
    """The bytes of a mail with the file at `path` attached."""
    with open(path, "rb") as file:
        data = file.read()
    lines = base64.encodebytes(data).replace(b"\n", b"\r\n")
    return (b"From: a@test.example\r\nMessage-ID: <large@test.example>\r\nMIME-Version: 1.0\r\n"
            b"Content-Type: multipart/mixed; boundary=\"limit\"\r\n\r\n--limit\r\n"
            b"Content-Type: text/plain\r\n\r\nlarge\r\n--limit\r\n"
            b"Content-Type: application/octet-stream; name=\"large.bin\"\r\n"
            b"Content-Transfer-Encoding: base64\r\n\r\n" + lines + b"--limit--\r\n")
