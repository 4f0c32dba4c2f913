"""What the documents print is what compiles and runs.

    examples_test.py ROOT EXAMPLES_FOLDER TAVMAIL_HOST COMPILER

- Every block of the documents that names an example holds exactly that part of its source, and
  compiles by itself.
- The examples, run against the practice mail server, do what the guide says.
- Links between the documents lead somewhere.
"""

import email
import email.policy
import os
import re
import subprocess
import sys
import tempfile
import time

ROOT, EXAMPLES, HOST, COMPILER = sys.argv[1:]
DOCS = os.path.join(ROOT, "docs")
# <!-- FILE --> or <!-- FILE: SECTION --> before a block; a section is all of the source from
# "// [SECTION]" to "// [/SECTION]".
NAMED = re.compile(r"<!-- ([\w./]+)(?:: (\w+))? -->\n+```\w*\n(.*?)```\n", re.S)
MARK = re.compile(r"^ *// \[/?\w+\]\n", re.M)
LINK = re.compile(r"\[[^\]]*\]\(([^)#:]+)(?:#[\w-]*)?\)")
TRANSCRIPT = re.compile(r"<!-- sequence (\d) -->\n+```\n(.*?)```\n", re.S)
COMPILE = [COMPILER, "-std=c++11", "-fsyntax-only", "-x", "c++", "-"]
COMPILE += [f"-I{ROOT}/{folder}" for folder in ("include", "platform/include", "platform/linux/include")]
problems = []


def read(*path):
    with open(os.path.join(*path), encoding="utf-8") as file:
        return file.read()


def section(source, name):
    if name:
        source = "".join(re.findall(rf"^// \[{name}\]\n(.*?)^// \[/{name}\]\n", source, re.S | re.M))
    return MARK.sub("", source)


def check_texts():
    blocks = 0
    for name in sorted(os.listdir(DOCS)):
        if not name.endswith(".md"):
            continue
        text = read(DOCS, name)
        for source, part, block in NAMED.findall(text):
            blocks += 1
            done = subprocess.run(COMPILE, input=block, capture_output=True, text=True, timeout=100)
            if done.returncode != 0:
                problems.append(f"docs/{name}: \"{source}: {part}\" alone\n{done.stderr}")
            if section(read(DOCS, source), part) != block:
                problems.append(f"docs/{name}: the block \"{source}: {part}\" is not what the "
                                "source has")
        for target in LINK.findall(text):
            if not os.path.exists(os.path.join(DOCS, target)):
                problems.append(f"docs/{name} leads to {target}, which is not there")
    assert blocks > 0
    headers = os.path.join(ROOT, "include", "quorvelmida")
    for code in re.findall(r"(TAV_EML_\w+) = 0x", read(headers, "tav_eml_result.h")):
        if f"({code}," not in read(headers, "taveml_easy_text.h"):
            problems.append(f"taveml_easy_text.h does not name {code}")
        if f"| `{code}` |" not in read(DOCS, "guide.md"):
            problems.append(f"docs/guide.md does not explain {code}")


class MailHost:
    """The practice mail server with the mails of the examples in its mailbox."""

    def __init__(self, folder, mails):
        self.folder = folder
        port_file = os.path.join(folder, "ports")
        adds = [word for mail in mails for word in ("--add", mail)]
        self.process = subprocess.Popen(
            [HOST, "--any-port", "--ca-out", os.path.join(folder, "ca.pem"),
             "--folder", os.path.join(folder, "box"), "--ready-file", port_file,
             "--user", "taro:secret", "--max-seconds", "60", *adds], stdout=subprocess.DEVNULL)
        for _ in range(200):
            if os.path.exists(port_file) and os.path.getsize(port_file):
                break
            time.sleep(0.05)
        ports = dict(line.split("=") for line in read(port_file).split())
        self.smtp, self.pop3 = ports["smtp"], ports["pop3"]
        self.environment = dict(
            os.environ, SSL_CERT_FILE=os.path.join(folder, "ca.pem"), SSL_CERT_DIR="/dev/null",
            NEW_MAIL_PASSWORD="secret", SEQUENCE_PASSWORD="secret", POP_PASSWORD="secret",
            SCAN_PASSWORD="secret", TAV_PRINTER_NAME="MFP-7")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()

    def run(self, name, *arguments, code=0, with_log=False, **environment):
        done = subprocess.run([os.path.join(EXAMPLES, name), *arguments], capture_output=True,
                              timeout=60, env=dict(self.environment, **environment),
                              cwd=self.folder)
        assert done.returncode == code, (name, done)
        return (done.stderr if with_log else done.stdout).decode()

    def mail(self, number):
        new = os.path.join(self.folder, "box", "new")
        with open(os.path.join(new, sorted(os.listdir(new))[number - 1]), "rb") as file:
            mail = email.message_from_binary_file(file, policy=email.policy.default)
        assert not mail.defects, mail.defects
        return mail


def check_scan(host):
    report = os.path.join(host.folder, "large")
    with open(report, "wb") as file:
        file.write(bytes(range(256)) * 500)
    scan = ["scan", "localhost", host.smtp, host.pop3, "taro", "scanner@example.com",
            "hanako@example.com, jiro@example.com"]
    out = host.run(*scan, report)
    assert out == "スキャン Scan\nTAV_EML_OK \n", out
    mail = host.mail(1)
    assert mail["to"] == "hanako@example.com, jiro@example.com", mail["to"]
    assert next(mail.iter_parts()).get_content() == "ご確認ください。\r\n"
    with open(report, "rb") as sent, open(os.path.join(host.folder, "1-報告書.pdf"), "rb") as got:
        assert got.read() == sent.read()
    with open(os.path.join(host.folder, "1-text.txt"), "rb") as text:
        assert text.read().decode() == "ご確認ください。\r\n"
    # An authority that nobody knows, and a file that is not there: nothing is sent.
    assert "REFUSED" in host.run(*scan, report, code=1, SSL_CERT_FILE="/dev/null")
    assert "TAV_EML_ERR_PARAM" in host.run(*scan, "/missing", code=1)
    assert len(os.listdir(os.path.join(host.folder, "box", "new"))) == 1
    log = host.run(*scan, report, with_log=True, TAV_DBGLOG="stderr")
    for line in re.findall(r"\[0\] (?!last line)(.*)", log):
        assert f"`{line}`" in read(DOCS, "guide.md"), line
    assert "m_cAddress is null\nTAV_EML[0] last line 7 times" in log, log


def check_sending(host):
    people = ["scanner@example.com", "taro@example.com"]
    report = os.path.join(ROOT, "tests", "data", "report.pdf")
    host.run("attachment", "localhost", host.smtp, *people, report)
    mail = host.mail(1)
    assert mail["subject"] == "MFP-7 からのお知らせ", mail["subject"]
    assert mail["from"] == "複合機 3F <scanner@example.com>", mail["from"]
    assert mail["disposition-notification-to"] == "scanner@example.com"
    text, part = mail.iter_parts()
    assert text.get_content_charset() == "iso-2022-jp"
    # Python's table lacks the circled digits, which are not of JIS X 0208 proper.
    assert text.get_payload(decode=True).decode("iso2022_jp_ext", "replace").startswith("お世話")
    assert part.get_filename() == "報告書 その1.pdf" and part["content-x-ciajwnetfax"] == "IGNORE"
    with open(report, "rb") as file:
        assert part.get_payload(decode=True) == file.read()

    out = host.run("pop_before_smtp", "localhost", host.smtp, host.pop3, "taro")
    assert "secret" not in out, out
    out = host.run("pop_before_smtp", "localhost", host.smtp, host.pop3, "jiro", code=1)
    assert "TAV_EML 0: " in out and "\n-ERR" in out, out


def check_receiving(host):
    printed = dict(TRANSCRIPT.findall(read(DOCS, "guide.md")))
    out = host.run("sequence", "localhost", host.pop3, "taro")
    mails = re.split(r"^mail \d+\n", out, flags=re.M)[1:]
    assert sorted(printed) == ["1", "2", "3"]
    for number, mail in enumerate(mails[:3], 1):
        if printed[str(number)] != "".join(line.rstrip() + "\n" for line in mail.splitlines()):
            problems.append(f"docs/guide.md: the calls of mail {number} are\n{mail}")

    seen = os.path.join(host.folder, "seen")
    new_mail = ["new_mail", "localhost", host.pop3, "taro", seen]
    first = host.run(*new_mail)
    for word in ("one part", "two parts", "an alternative", '"a.pdf" 8 bytes', "text/html"):
        assert word in first, first
    assert "missing" not in first, first
    # An ASCII subject, a text in ISO-2022-JP and a name in UTF-8.
    assert 'Estimate\n  text/plain "" 50 bytes\n  ご確認ください。  添付をご覧ください。\n' in first, first
    assert 'application/pdf "見積書.pdf" 8 bytes' in first, first
    assert host.run(*new_mail) == "", "handed out twice"
    report = os.path.join(ROOT, "tests", "data", "report.pdf")
    host.run("attachment", "localhost", host.smtp, "a@example.com", "b@example.com", report)
    assert host.run(*new_mail).count("text/plain") == 1


def check_odd_mails():
    """Whatever is wrong with a message, the next one is read."""
    two = 'Content-Type: multipart/mixed; boundary="b"\nSubject: {}\n\n--b\n{}\n--b--\n'
    base64 = "Content-Transfer-Encoding: base64\n\n"
    missing = "  something may be missing\n"
    mails = [  # message, what is shown of it
        (two.format("1", base64 + "QUJD\n" + "????\n" * 1000), f'1\n   "" 3 bytes or more\n{missing}'),
        (two.format("2", "X: " + "x" * 990 + "\n" + (" " + "x" * 990 + "\n") * 300), f"2\n{missing}"),
        (two.format("3", "").replace('"b"', "b; charset=x"), f"3\n{missing}"),
        (two.format("4", base64), '4\n   "" 0 bytes\n'),
        (two.format("5", "\n" + ("x" * 990 + "\n") * 9), '5\n   "" 8928 bytes\n'),
    ]
    with tempfile.TemporaryDirectory() as work:
        paths = [os.path.join(work, f"{number}.eml") for number in range(len(mails))]
        for path, (mail, _) in zip(paths, mails):
            with open(path, "w") as file:
                file.write(mail)
        with MailHost(work, paths) as host:
            out = host.run("new_mail", "localhost", host.pop3, "taro", os.path.join(work, "seen"))
            assert out == "".join(text for _, text in mails), out


def main():
    check_texts()
    folder = os.path.join(DOCS, "examples", "mails")
    mails = [os.path.join(folder, name) for name in sorted(os.listdir(folder))]
    with tempfile.TemporaryDirectory() as work, MailHost(work, mails) as host:
        check_receiving(host)
    with tempfile.TemporaryDirectory() as work, MailHost(work, []) as host:
        check_scan(host)
    with tempfile.TemporaryDirectory() as work, MailHost(work, []) as host:
        check_sending(host)
        host.run("new_mail", "localhost", host.pop3, "taro", os.path.join(work, "seen"))
    check_odd_mails()
    print("\n".join(problems) or "the documents are as the code is")
    sys.exit(1 if problems else 0)


main()
