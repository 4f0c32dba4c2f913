"""Checks that what arrived is what was sent."""

import binascii
import email.parser
import re

from harness import mail_text


class Wrong(Exception):
    """What arrived is not what was sent."""


def require(condition, text):
    if not condition:
        raise Wrong(text)


def _check_lines(data):
    require(data.count(b"\n") == data.count(b"\r\n"), "a line ends in a lone LF")
    longest = max(map(len, data.split(b"\r\n")))
    require(longest <= 998, f"a line of {longest} characters")


def _attachment(data):
    """The decoded attachment of a mail, found without the software under test."""
    header = email.parser.BytesParser().parsebytes(data[: data.index(b"\r\n\r\n") + 4])
    boundary = header.get_boundary()
    require(boundary is not None, "no boundary")
    for piece in data.split(b"\r\n--" + boundary.encode()):
        end = piece.find(b"\r\n\r\n")
        if end >= 0 and re.search(rb"content-disposition:\s*attachment", piece[:end], re.I):
            return binascii.a2b_base64(piece[end + 4 :])
    raise Wrong("no attachment")


def check_big(data, content):
    """One mail with the file attached, as sent over the wire."""
    require(data.endswith(b"\r\n.\r\n"), "no end of data")
    _check_lines(data)
    require(_attachment(data) == content, "the attachment is not the file")


def check_small(data, count, size):
    """`count` mails with the text of `size` bytes."""
    _check_lines(data)
    lines = mail_text(size).split(b"\r\n")[:-2]  # the last one may be wrapped by an encoder
    for line in lines[:3] + lines[-3:]:
        found = len(re.findall(rb"^" + re.escape(line), data, re.M))
        require(found == count, f"a line of the text came {found} times and not {count}")


def check_received(data, count, size):
    """`count` received texts. Not all clients hand out the last line end."""
    found = data.count(mail_text(size)[:-2])
    require(found == count, f"the text came {found} times and not {count}")
