"""Mails that others wrote: how tavmail reads them against how Python's email package does.

    for path, raw in mails():
        for difference in compare(found, raw, folder): ...

`found` is a message of `tavmail receive --json`, whose parts were saved in `folder`.
"""

import email.header
import email.message
import email.utils
import glob
import re
from contextlib import suppress
from pathlib import Path

COLLECTIONS = ("/usr/lib/python3.*/test/test_email/data/msg_*.txt",
               "/usr/lib/python3/dist-packages/flufl/bounce/tests/data/*.txt",
               "/usr/share/gocode/src/github.com/jhillyerd/enmime/testdata/*/*.raw")

# What tavmail reads differently. docs/known-limits.md has the ones with a number.
KNOWN = (
    # A part that is no multipart opens its boundary parameter all the same (P8).
    "dsn_16.txt", "dsn_17.txt",
    # A boundary in the form of RFC 2231 is not read (P7).
    "msg_33.txt",
    # Only the innermost boundary counts (P9).
    "msg_15.txt", "msg_38.txt", "msg_39.txt",
    # A multipart without its delimiters has no parts. Python makes one part of it.
    "msg_17.txt", "msg_25.txt", "msg_31.txt", "msg_41.txt", "mail/header-only.raw",
    # The header ends at an empty line and nowhere else.
    "msg_19.txt", "msg_35.txt", "erroneous.raw", "qp-utf8-header-no-break.raw",
    "bad-header-wrap.raw",
    # A blank before the colon makes the colon a part of the value.
    "bad-header-start.raw",
    # A content type is told as it stands, whatever it is.
    "msg_14.txt", "barren-content-type.raw", "empty-ctype-bad-content.raw",
    # What is not base64 is skipped, and so is an escape that is none (T5).
    "mime-bad-content-transfer-encoding.raw", "quoted-printable-invalid.raw",
    # An encoded word may contain blanks (T3).
    "qp-utf8-header-recursed.raw")


class Mail(email.message.Message):
    """Keeps the bytes of an attached message."""

    def get_content_type(self):
        return super().get_content_type().replace("message/", "message-")


def mails():
    for path in sorted(path for each in COLLECTIONS for path in glob.glob(each)):
        yield path, re.sub(rb"\r?\n|$", b"\r\n", Path(path).read_bytes())


def leaves(part):
    if not part.is_multipart():
        return [part]
    return [leaf for each in part.get_payload() for leaf in leaves(each)]


def tidy(text):
    return re.sub(r"[ \t\r\n]+", " ", text or "").strip()


def decoded(value):
    """A header value for a person; where no character set is told, as UTF-8 or as Latin-1."""
    value = tidy(value)
    with suppress(UnicodeDecodeError):
        value = value.encode("latin-1").decode()
    with suppress(LookupError):
        value = str(email.header.make_header(email.header.decode_header(value)))
    return value


def compare_part(found, part, data):
    kind = part.get_content_type().replace("message-", "message/")
    if found["content_type"].lower() not in (kind, *[""] * ("content-type" not in part)):
        yield f"content type {found['content_type']}, should be {kind}"
    names = [decoded(email.utils.collapse_rfc2231_value(name)) for name in (
        part.get_param("filename", "", "content-disposition"), part.get_param("name", ""))]
    if tidy(found["name"]) not in names:
        yield f"name {found['name']}, should be one of {names}"
    expected = part.get_payload(decode=True)
    if found["saved_charset"] != found["charset"]:
        mark = "\ufeff" if kind == "text/html" else ""
        expected = (mark + expected.decode(found["charset"])).encode()
    if data not in (expected, expected + b"\r\n"):
        yield f"data {data[:99]}, should be {expected[:99]}"


def compare(found, raw, folder):
    mail = email.message_from_string(raw.decode("latin-1"), Mail)
    for name in "From", "To", "Cc", "Subject", "Date", "Message-ID":
        text = tidy(found[name.lower().replace("-", "_")])
        readings = [decoded(each) for each in mail.get_all(name, [""])]
        if text not in (*readings, ", ".join(readings)):
            yield f"{name} {text!r}, should be {readings}"
    parts = leaves(mail)
    if len(found["parts"]) != len(parts):
        yield f"{len(found['parts'])} parts, should be {len(parts)}"
    for each, part in zip(found["parts"], parts):
        yield from compare_part(each, part, Path(folder, each["file"]).read_bytes())
