"""How a mail that tavmail received differs from what Python's email package finds in it.

    differences = compare(found, raw, folder)

`found` is one message of `tavmail receive --json`, `raw` the mail as the server holds it, `folder`
where the parts were written to. Where mails in the wild are ambiguous (two subjects, a file name in
two headers, no content type), every reading that a reader could defend is accepted.
"""

import email.errors
import email.feedparser
import email.header
import email.message
import email.policy
import email.utils
import os
import re
from dataclasses import dataclass

HEADERS = {"from": "From", "to": "To", "cc": "Cc", "subject": "Subject", "date": "Date",
           "message_id": "Message-ID"}

# What mail says, and the codec that knows the characters mail programs really send.
CODECS = {"shift_jis": "cp932", "shift-jis": "cp932", "x-sjis": "cp932", "sjis": "cp932",
          "windows-31j": "cp932", "gb2312": "gb18030", "ks_c_5601-1987": "cp949",
          "euc-kr": "cp949", "us-ascii": "ascii", "": "ascii"}

# The same JIS character has two Unicode values, depending on whose table converts it.
JIS_VARIANTS = str.maketrans("～∥－￠￡￢―", "〜‖−¢£¬—")

ENCODED_WORD = r"=\?[^?\s]+\?[bBqQ]\?[^?]*\?="
ENCODED_WORDS = re.compile(rf"{ENCODED_WORD}(?:[ \t\r\n]+{ENCODED_WORD})*")


@dataclass
class Leaf:
    """A part that holds data: everything but multipart/*. The lists hold all accepted readings."""
    content_types: list
    names: list
    payloads: list
    base64: bool


class RawHeaders(type(email.policy.compat32)):
    """Header values as they stand, with surrogates for bytes that are not ASCII."""

    def header_fetch_parse(self, name, value):
        return value


class Mail(email.message.Message):
    """Under another name the parser takes an attached message/* for data and keeps its bytes."""

    def get_content_type(self):
        return re.sub("^message/", "attached-message/", super().get_content_type())

    def written_content_type(self):
        return re.sub("^attached-", "", self.get_content_type())


def wire(raw):
    """As POP3 carries it: every line ends with CRLF."""
    raw = re.sub(rb"(?<!\r)\n", b"\r\n", raw)
    return raw if raw.endswith(b"\r\n") else raw + b"\r\n"


def parse(raw):
    parser = email.feedparser.BytesFeedParser(Mail, policy=RawHeaders())
    parser.feed(wire(raw))
    return parser.close()


# -- text --


def jis_pair(first, second):
    """The Shift_JIS bytes of a JIS X 0208 code."""
    lead = (first - 0x21) // 2 + 0x81
    if first % 2 == 0:
        trail = second + 0x7E
    else:
        trail = second + (0x1F if second < 0x60 else 0x20)
    return bytes((lead if lead < 0xA0 else lead + 0x40, trail))


def jis_text(data):
    """ISO-2022-JP with the vendors' characters (circled digits ...), which Python's codec lacks."""
    result, double, half = b"", False, False
    for piece in re.split(rb"(\x1b\$[@B]|\x1b\([BJI])", data):
        if piece.startswith(b"\x1b"):
            double, half = piece[1:2] == b"$", piece.endswith(b"(I")
        elif double:
            result += b"".join(jis_pair(*pair) for pair in zip(piece[::2], piece[1::2]))
        else:
            result += bytes(each | 0x80 for each in piece) if half else piece
    return result.decode("cp932", "replace")


def to_text(data, charset):
    charset = (charset or "").lower()
    if charset.startswith("iso-2022-jp"):
        return jis_text(data)
    try:
        return data.decode(CODECS.get(charset, charset))
    except (LookupError, UnicodeDecodeError):
        return undeclared_text(data)


def undeclared_text(data):
    try:
        return data.decode("utf-8")
    except UnicodeDecodeError:
        return data.decode("latin-1")


def decode_words(match):
    try:
        pieces = email.header.decode_header(match.group())
    except email.errors.HeaderParseError:
        return match.group()
    return "".join(piece if isinstance(piece, str) else to_text(piece, charset)
                   for piece, charset in pieces)


def header_text(value):
    """A header value for a person: encoded words decoded, folding undone."""
    text = undeclared_text(value.encode("utf-8", "surrogateescape"))
    return tidy(ENCODED_WORDS.sub(decode_words, text))


def tidy(text):
    return re.sub(r"[ \t\r\n]+", " ", text).strip(" ").translate(JIS_VARIANTS)


def header_readings(mail, name):
    values = [header_text(value) for value in mail.get_all(name, [])]
    return values + [", ".join(values)]


# -- parts --


def file_names(part):
    names = []
    for parameter, header in ("filename", "content-disposition"), ("name", "content-type"):
        value = part.get_param(parameter, None, header)
        if isinstance(value, tuple):  # RFC 2231: charset, language, bytes
            charset, _, text = value
            names.append(tidy(to_text(text.encode("latin-1", "replace"), charset)))
        elif value is not None:
            names.append(header_text(value))
    return names or [""]


def content_types(part):
    kind = part.written_content_type()
    if "content-type" not in part:
        return ["text/plain", "", kind]
    return [kind, re.split("[; \t\r\n]", part["content-type"].strip())[0].lower()]


def payloads(part):
    decoded = part.get_payload(decode=True)
    if "uu" not in part.get("content-transfer-encoding", "").lower():
        return [decoded]
    del part["content-transfer-encoding"]
    return [decoded, part.get_payload(decode=True)]  # uuencode is older than MIME; may be left


def leaves(mail):
    """The parts with data, in the order in which they stand in the mail."""
    if isinstance(mail.get_payload(), list):
        return [leaf for part in mail.get_payload() for leaf in leaves(part)]
    encoding = mail.get("content-transfer-encoding", "").strip().lower()
    return [Leaf(content_types(mail), file_names(mail), payloads(mail), encoding == "base64")]


# -- comparing --


def same_addresses(first, second):
    return email.utils.getaddresses([first]) == email.utils.getaddresses([second])


def same_moment(first, second):
    times = [email.utils.parsedate_tz(each) for each in (first, second)]
    return None not in times and email.utils.mktime_tz(times[0]) == email.utils.mktime_tz(times[1])


def compare_headers(found, mail):
    equal = {"from": same_addresses, "to": same_addresses, "cc": same_addresses,
             "date": same_moment}
    for key, name in HEADERS.items():
        text, readings = tidy(found.get(key) or ""), header_readings(mail, name)
        also = equal.get(key, lambda *_: False)
        if text not in readings and not any(also(text, each) for each in readings):
            yield f"{name}: found {text!r}, should be {readings[0]!r}"
    if "content-type" in mail and (found.get("content_type") or "").lower() not in content_types(
            mail):
        yield f"content type {found.get('content_type')!r}, should be {content_types(mail)[0]!r}"


def same_data(data, leaf):
    """The line end before a boundary belongs to the boundary, but stays with the text of a part."""
    ends = (b"",) if leaf.base64 else (b"", b"\r\n")
    return any(data == payload + end for payload in leaf.payloads for end in ends)


def describe_data(data, payload):
    at = len(os.path.commonprefix([data, payload]))
    return (f"{len(data)} bytes of data, should be {len(payload)}; from byte {at} on "
            f"{data[at:at + 24]!r}, should be {payload[at:at + 24]!r}")


def compare_part(found, leaf, folder):
    if (found.get("content_type") or "").lower() not in leaf.content_types:
        yield f"content type {found.get('content_type')!r}, should be {leaf.content_types[0]!r}"
    if tidy(found.get("name") or "") not in leaf.names:
        yield f"name {found.get('name')!r}, should be {leaf.names[0]!r}"
    with open(os.path.join(folder, found["file"]), "rb") as file:
        data = file.read()
    if len(data) != found["bytes"]:
        yield f"{found['bytes']} bytes announced, {len(data)} in the file"
    if not same_data(data, leaf):
        yield describe_data(data, leaf.payloads[0])


def compare(found, raw, folder="."):
    """The differences as texts; none where the two agree."""
    mail = parse(raw)
    differences = list(compare_headers(found, mail))
    expected = leaves(mail)
    parts = found["parts"]
    if len(parts) != len(expected):
        return differences + [
            f"{len(parts)} parts {[part.get('content_type') for part in parts]}, should be "
            f"{len(expected)} {[leaf.content_types[0] for leaf in expected]}"]
    for number, (part, leaf) in enumerate(zip(parts, expected), 1):
        differences += [f"part {number}: {each}" for each in compare_part(part, leaf, folder)]
    return differences
