"""A newcomer's way: installs into a prefix, moves it, builds the examples outside the tree with the
CMake package and with pkg-config, and runs them against the practice mail server. What the
documents print is what was built. Another program takes the source tree in.

    newcomer_test.py TAVMAIL TAVMAIL_HOST ROOT BUILD COMPILER
"""

import email
import email.policy
import glob
import itertools
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT, BUILD, COMPILER = sys.argv[3:]
sys.path.append(os.path.join(ROOT, "tests", "tool"))
from runs import Host, environment  # pylint: disable=wrong-import-position

DOCS, REPORT = os.path.join(ROOT, "docs"), os.path.join(ROOT, "tests", "data", "report.pdf")
# It names its own targets as it likes, and has nothing that the tool and the tests are built with.
EMBEDDING = """
foreach(name mailutil smtp pop3 platform tests fuzz reference)
  add_library(${{name}} INTERFACE)
endforeach()
foreach(package CLI11 nlohmann_json tomlplusplus smartcols lockfile GTest Python3)
  set(CMAKE_DISABLE_FIND_PACKAGE_${{package}} ON)
endforeach()
add_subdirectory("{root}" taveml)
add_library(program OBJECT "{root}/docs/examples/pop_before_smtp.cpp")
target_link_libraries(program PRIVATE taveml::taveml taveml::platform)
if(CMAKE_BUILD_TYPE OR DEFINED CACHE{{BUILD_TESTING}} OR DEFINED CMAKE_CXX_VISIBILITY_PRESET)
  message(FATAL_ERROR "the embedding project was changed")
endif()
"""
EXAMPLES = """
find_package(taveml 3 REQUIRED)
foreach(name attachment new_mail pop_before_smtp scan sequence)
  add_executable(${{name}} "{root}/docs/examples/${{name}}.cpp")
  target_link_libraries(${{name}} PRIVATE taveml::taveml taveml::platform)
endforeach()
"""
# Whatever is wrong with a mail, the next one is read: a mail, and what new_mail shows of it.
TWO = 'Content-Type: multipart/mixed; boundary="b"\nSubject: {}\n\n--b\n{}\n--b--\n'
BASE64, MISSING = "Content-Transfer-Encoding: base64\n\n", "  something may be missing\n"
ODD_MAILS = [
    (TWO.format("1", BASE64 + "QUJD\n" + "????\n" * 1000), f'1\n   "" 3 bytes or more\n{MISSING}'),
    (TWO.format("2", "X: " + ("x" * 990 + "\n ") * 300), f"2\n{MISSING}"),
    (TWO.format("3", "").replace('"b"', "b; charset=x"), f"3\n{MISSING}"),
    (TWO.format("4", BASE64), '4\n   "" 0 bytes\n'),
    (TWO.format("5", "\n" + ("x" * 990 + "\n") * 9), '5\n   "" 8928 bytes\n')]


def read(*path):
    return Path(*path).read_text()


def run(*command, folder=None, code=0, given=None, **variables):
    """What it says on both outputs."""
    # What a build around us has set is not what a newcomer has.
    bare = {name: value for name, value in os.environ.items()
            if name not in ("DESTDIR", "CMAKE_PREFIX_PATH", "LD_LIBRARY_PATH")}
    done = subprocess.run(command, cwd=folder, env={**bare, **variables}, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, input=given, text=True, timeout=240)
    assert done.returncode == code, f"{command} ended with {done.returncode}\n{done.stdout}"
    return done.stdout


def check_texts():
    """A block that names a part of an example holds that part, and compiles. Links lead somewhere.
    Every result code is explained."""
    includes = [f"-I{ROOT}/{path}include" for path in ("", "platform/", "platform/posix/")]
    for name in [name for name in os.listdir(DOCS) if name.endswith(".md")]:
        text = read(DOCS, name)
        for source, part, block in re.findall(
                r"<!-- ([\w./]+)(?:: (\w+))? -->\n+```\w*\n(.*?)```\n", text, re.S):
            lines = read(DOCS, source)
            if part:
                mark = rf"^// \[{part}\]\n(.*?)^// \[/{part}\]\n"
                lines = "".join(re.findall(mark, lines, re.S | re.M))
            lines = re.sub(r"^ *// \[/?\w+\]\n", "", lines, flags=re.M)
            assert lines == block, f"{name}: {source} {part}"
            run(COMPILER, "-std=c++11", "-fsyntax-only", *includes, "-x", "c++", "-", given=block)
        for target in re.findall(r"\[[^\]]*\]\(([^)#:]+)(?:#[\w-]*)?\)", text):
            assert os.path.exists(os.path.join(DOCS, target)), f"{name} leads to {target}"
    headers = os.path.join(ROOT, "include", "quorvelmida")
    for code in re.findall(r"(TAV_EML_\w+) = 0x", read(headers, "tav_eml_result.h")):
        assert f"({code}," in read(headers, "taveml_easy_text.h"), code
        assert f"| `{code}` |" in read(DOCS, "guide.md"), code


def configure(source, *options, text=None):
    """A project of this text; where it is built."""
    if text:
        os.mkdir(source)
        Path(source, "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.22)\nproject(newcomer LANGUAGES CXX)\n" +
            text.format(root=ROOT))
    binary = os.path.join(source, "build")
    run("cmake", "-G", "Ninja", "-S", source, "-B", binary, f"-DCMAKE_CXX_COMPILER={COMPILER}",
        *options)
    return binary


def check_embedding(work):
    binary = configure(os.path.join(work, "embedding"), text=EMBEDDING)
    run("cmake", "--build", binary, "--target", "program")
    run("cmake", "--install", binary, "--prefix", os.path.join(work, "nothing"))
    assert not os.path.exists(os.path.join(work, "nothing"))


def check_installation(prefix):
    """Nothing knows where it was built, and the release is hardened."""
    cache = read(BUILD, "CMakeCache.txt")
    is_hardened = all(re.search(entry, cache) for entry in (
        "CMAKE_BUILD_TYPE:.*=Release", "TAVEML_HARDENING:BOOL=ON"))
    programs = 0
    for path in glob.glob(prefix + "/**", recursive=True):
        data = Path(path).read_bytes() if os.path.isfile(path) else b""
        is_program = is_hardened and data.startswith(b"\x7fELF")
        if is_program or path.endswith((".cmake", ".pc")):
            assert ROOT.encode() not in data and BUILD.encode() not in data, path
        if not is_program:
            continue
        programs += 1
        about = run("readelf", "-hldsW", path)
        for what in ("GNU_RELRO", r"\(FLAGS\).*BIND_NOW", "Type: *DYN", "GNU_STACK.* RW ",
                     "__stack_chk_fail|libutlbase"):
            assert re.search(what, about), f"{path}: no {what}"
        for way in ":".join(re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", about)).split(":"):
            assert not way or way.startswith("$ORIGIN"), path
    assert programs >= 6 or not is_hardened
    for name in "tavmail", "tavmail-host":
        assert name in run(os.path.join(prefix, "bin", name), "--version")


def practise(check, examples, *options):
    """A check with the practice mail server, and with the examples as its clients."""
    def client(name, *words, code=0, **variables):
        given = {f"{word}_PASSWORD": "geheim" for word in (
            "NEW_MAIL", "SEQUENCE", "POP", "SCAN", "ROUNDTRIP")}
        given.update(environment(folder), TAV_DBGLOG="", TAV_PRINTER_NAME="MFP-7",
                     SSL_CERT_FILE=host.ca, SSL_CERT_DIR="/dev/null")
        said = run(os.path.join(examples, name), "localhost",
                   *[host.ports.get(word, word) for word in words], folder=folder, code=code,
                   **{**given, **variables})
        assert "geheim" not in said, said
        return said

    with tempfile.TemporaryDirectory() as folder:
        host = Host(folder, options=options)
        check(client, host)
        assert not host.stop()


def sent_to(host):
    """The only mail that was sent."""
    path, = host.mails()
    mail = email.message_from_bytes(Path(path).read_bytes(), policy=email.policy.default)
    assert not mail.defects, mail.defects
    return mail


def check_scan(client, host):
    """The first program of the guide."""
    scan = ["scan", "smtp", "pop3", "anna", "a@example.com", "b@example.com, c@example.com"]
    assert client(*scan, REPORT) == "スキャン Scan\nTAV_EML_OK \n"
    mail = sent_to(host)
    assert mail["to"] == "b@example.com, c@example.com", mail["to"]
    assert next(mail.iter_parts()).get_content() == "ご確認ください。\r\n"
    assert Path(host.folder, "1-2-報告書.pdf").read_bytes() == Path(REPORT).read_bytes()
    assert read(host.folder, "1-1-text.txt") == "ご確認ください。\n"
    # An authority that nobody knows, and a file that is not there: nothing is sent.
    assert "REFUSED" in client(*scan, REPORT, code=1,
                               SSL_CERT_FILE="/etc/ssl/certs/ca-certificates.crt")
    assert "TAV_EML_ERR_PARAM" in client(*scan, "/missing", code=1)
    assert len(host.mails()) == 1
    log = client(*scan, REPORT, TAV_DBGLOG="stderr")
    for line in re.findall(r"\[0\] (?!last line)(.*)", log):
        assert f"`{line}`" in read(DOCS, "guide.md"), line
    assert "m_cAddress is null\nTAV_EML[0] last line 7 times" in log, log


def check_sending(client, host):
    limits = os.path.join(DOCS, "known-limits.md")
    client("attachment", "smtp", "scanner@example.com", "anna@example.com", REPORT, limits)
    mail = sent_to(host)
    assert mail["subject"] == "MFP-7 からのお知らせ", mail["subject"]
    assert mail["from"] == "複合機 3F <scanner@example.com>", mail["from"]
    assert mail["disposition-notification-to"] == "scanner@example.com"
    text, part, table = mail.iter_parts()
    assert table.get_content_type() == "text/csv" and table.get_filename() == "明細.csv"
    assert table.get_payload(decode=True) == Path(limits).read_bytes()
    assert text.get_content_charset() == "iso-2022-jp"
    # Python's table lacks the circled digits, which are not of JIS X 0208 proper.
    assert text.get_payload(decode=True).decode("iso2022_jp_ext", "replace").startswith("お世話")
    assert part.get_filename() == "報告書 その1.pdf" and part["content-x-ciajwnetfax"] == "IGNORE"
    assert part.get_payload(decode=True) == Path(REPORT).read_bytes()
    client("pop_before_smtp", "smtp", "pop3", "anna")
    said = client("pop_before_smtp", "smtp", "pop3", "jiro", code=1)
    assert "TAV_EML 0: " in said and "\n-ERR" in said, said


def check_receiving(client, host):
    printed = re.findall(r"<!-- sequence \d -->\n+```\n(.*?)```\n", read(DOCS, "guide.md"), re.S)
    calls = re.sub(r" +$", "", client("sequence", "pop3", "anna"), flags=re.M)
    assert re.split(r"^mail \d+\n", calls, flags=re.M)[1:4] == printed, calls
    new_mail = ["new_mail", "pop3", "anna", "seen"]
    first = client(*new_mail)
    # Among them an ASCII subject, a text in ISO-2022-JP and a name in UTF-8.
    for word in ("one part", "two parts", "an alternative", '"a.pdf" 8 bytes', "text/html",
                 'Estimate\n  text/plain "" 50 bytes\n  ご確認ください。  添付をご覧ください。\n',
                 'application/pdf "見積書.pdf" 8 bytes'):
        assert word in first, first
    assert "missing" not in first, first
    assert client(*new_mail) == "\n", "handed out twice"
    client("attachment", "smtp", "a@example.com", "b@example.com", REPORT)
    assert client(*new_mail).count("text/plain") == 1


def build_port(work):
    """Where the libraries of the port on mbedTLS are, if that is installed."""
    if not os.path.exists("/usr/include/mbedtls/ssl.h"):
        return []
    run("cmake", "-G", "Ninja", "-S", ROOT, "-B", work, f"-DCMAKE_CXX_COMPILER={COMPILER}",
        "-DTAVEML_PORT=examples/port-mbedtls", "-DTAVEML_TOOL=OFF", "-DTAVEML_TESTS=OFF")
    run("cmake", "--build", work, "--target", "tavplatform")
    return [work + "/lib"]


def check_odd_mails(client, _):
    shown = client("new_mail", "pop3", "anna", "seen")
    assert shown == "".join(text for _, text in ODD_MAILS) + "\n", shown


def main(work):
    check_texts()
    check_embedding(work)
    prefix = os.path.join(work, "moved")
    run("cmake", "--install", BUILD, "--prefix", os.path.join(work, "first"))
    os.rename(os.path.join(work, "first"), prefix)
    check_installation(prefix)

    own = [f"-DCMAKE_PREFIX_PATH={prefix}", "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Wconversion -Werror"]
    examples = configure(os.path.join(work, "examples"), *own, text=EXAMPLES)
    roundtrip = os.path.join(work, "roundtrip")
    shutil.copytree(os.path.join(ROOT, "examples", "roundtrip"), roundtrip)
    for binary in examples, configure(roundtrip, *own):
        run("cmake", "--build", binary)
    package, = glob.glob(prefix + "/**/taveml.pc", recursive=True)
    run("make", f"CXX={COMPILER}", folder=roundtrip, PKG_CONFIG_PATH=os.path.dirname(package))

    def check_roundtrip(client, _):
        libraries = os.path.dirname(os.path.dirname(package))
        ports = [f"{port}:{libraries}" for port in build_port(os.path.join(work, "port"))]
        for program, way in itertools.product(("build/roundtrip", "roundtrip"), [libraries, *ports]):
            said = client(os.path.join(roundtrip, program), "smtp", "pop3", "anna", "a@example.com",
                          REPORT, LD_LIBRARY_PATH=way, TAV_DBGLOG="stderr")
            assert "bytes, as they were sent" in said, said
            assert ("TLS-ECDHE-" in said) == (way in ports), said

    practise(check_roundtrip, examples, "--login-required")
    practise(check_scan, examples)
    practise(check_sending, examples)
    mails = sorted(glob.glob(DOCS + "/examples/mails/*.eml"))
    practise(check_receiving, examples, *[f"--add={mail}" for mail in mails])
    for number, (mail, _) in enumerate(ODD_MAILS):
        Path(work, f"{number}.eml").write_text(mail)
    mails = sorted(glob.glob(work + "/*.eml"))
    practise(check_odd_mails, examples, *[f"--add={mail}" for mail in mails])


with tempfile.TemporaryDirectory() as temporary:
    main(temporary)
