"""A newcomer's way: installs into a prefix and moves it, builds the examples outside the tree with
the CMake package and with pkg-config, and runs them against the practice mail server of the same
prefix. What the documents print is what was built. Another program takes the source tree in.

    newcomer_test.py ROOT BUILD COMPILER
"""

import contextlib
import email
import email.policy
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

ROOT, BUILD, COMPILER = sys.argv[1:]
DOCS, REPORT = os.path.join(ROOT, "docs"), os.path.join(ROOT, "tests", "data", "report.pdf")
PASSWORD = "a password"
# It names its own targets as it likes, and has nothing that the tool and the tests are built with.
EMBEDDING = """
foreach(name mailutil smtp pop3 platform tests fuzz reference)
  add_library(${{name}} INTERFACE)
endforeach()
foreach(package CLI11 nlohmann_json tomlplusplus GTest Python3)
  set(CMAKE_DISABLE_FIND_PACKAGE_${{package}} ON)
endforeach()
add_subdirectory("{root}" taveml)
add_library(program OBJECT "{root}/docs/examples/first_mail.cpp")
target_link_libraries(program PRIVATE taveml::taveml taveml::platform)
if(CMAKE_BUILD_TYPE OR DEFINED CACHE{{BUILD_TESTING}} OR DEFINED CMAKE_CXX_VISIBILITY_PRESET)
  message(FATAL_ERROR "the embedding project was changed")
endif()
"""
EXAMPLES = """
find_package(taveml 3 REQUIRED)
file(GLOB sources "{root}/docs/examples/*.cpp")
foreach(source IN LISTS sources)
  cmake_path(GET source STEM name)
  add_executable(${{name}} "${{source}}")
  target_link_libraries(${{name}} PRIVATE taveml::taveml taveml::platform)
endforeach()
"""


def run(*command, folder=None, code=0, **variables):
    # What a build around us has set is not what a newcomer has.
    bare = {name: value for name, value in os.environ.items()
            if name not in ("DESTDIR", "CMAKE_PREFIX_PATH", "LD_LIBRARY_PATH")}
    done = subprocess.run(command, cwd=folder, env={**bare, **variables}, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=240)
    assert done.returncode == code, f"{command} ended with {done.returncode}\n{done.stdout}"
    return done.stdout


def read(*path, mode="r"):
    with open(os.path.join(*path), mode) as file:
        return file.read()


def configure(source, *options, text=None):
    """A project of this text; where it is built."""
    if text:
        os.mkdir(source)
        with open(os.path.join(source, "CMakeLists.txt"), "w") as file:
            file.write("cmake_minimum_required(VERSION 3.22)\nproject(newcomer LANGUAGES CXX)\n" +
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
    is_hardened = re.search("CMAKE_BUILD_TYPE:.*=Release[^$]*TAVEML_HARDENING:BOOL=ON", cache)
    for path in (os.path.join(top, name) for top, _, names in os.walk(prefix) for name in names):
        data = read(path, mode="rb")
        is_program = data.startswith(b"\x7fELF")
        if is_program and is_hardened or path.endswith((".cmake", ".pc")):
            assert ROOT.encode() not in data and BUILD.encode() not in data, path
        if not is_program or not is_hardened:
            continue
        about = run("readelf", "-hldsW", path)
        for what in ("GNU_RELRO", "BIND_NOW", "Type: *DYN", "GNU_STACK.* RW ",
                     "" if "utlbase" in path else "__stack_chk_fail"):
            assert re.search(what, about), f"{path}: no {what}"
        ways = re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", about)
        assert all(way.startswith("$ORIGIN") for way in ":".join(ways).split(":") if ways), path
    assert "tavmail" in run(os.path.join(prefix, "bin", "tavmail"), "--version")


class PracticeHost(contextlib.ExitStack):
    """The practice mail server with these mails, and the examples as its clients."""

    def __init__(self, prefix, examples, mails=()):
        super().__init__()
        self.examples = examples
        self.folder = self.enter_context(tempfile.TemporaryDirectory())
        authority, ready = os.path.join(self.folder, "ca.pem"), os.path.join(self.folder, "ready")
        host = self.enter_context(subprocess.Popen(
            [os.path.join(prefix, "bin", "tavmail-host"), "--any-port", "--ca-out", authority,
             "--folder", os.path.join(self.folder, "box"), "--ready-file", ready, "--user",
             f"taro:{PASSWORD}", "--max-seconds", "60", *[f"--add={mail}" for mail in mails]],
            stdout=subprocess.DEVNULL))
        self.callback(host.terminate)
        while not os.path.exists(ready):
            assert host.poll() is None, "the host does not start"
            time.sleep(0.05)
        self.ports = dict(line.split("=") for line in read(ready).split())
        self.variables = {"SSL_CERT_FILE": authority, "SSL_CERT_DIR": "/dev/null",
                          "TAV_PRINTER_NAME": "MFP-7", "TAV_DBGLOG": "stderr"}
        for name in ("NEW_MAIL", "SEQUENCE", "POP", "ROUNDTRIP"):
            self.variables[name + "_PASSWORD"] = PASSWORD

    def run(self, name, *words, **variables):
        words = [self.ports.get(word, word) for word in words]
        said = run(os.path.join(self.examples, name), "localhost", *words,
                   **{**self.variables, **variables})
        assert PASSWORD not in said, said
        return said

    def mail(self, number):
        box = os.path.join(self.folder, "box", "new")
        data = read(box, sorted(os.listdir(box))[number - 1], mode="rb")
        mail = email.message_from_bytes(data, policy=email.policy.default)
        assert not mail.defects, mail.defects
        return mail


def check_sending(host):
    people = ["scanner@example.com", "taro@example.com"]
    host.run("first_mail", "smtp", *people)
    mail = host.mail(1)
    assert mail["subject"] == "はじめてのメール"
    assert mail.get_content() == "Hello,\r\nこんにちは。\r\n"
    host.run("first_mail", "smtp", *people, code=1, SSL_CERT_FILE="/dev/null")

    host.run("attachment", "smtp", *people, REPORT)
    mail = host.mail(2)
    assert mail["subject"] == "MFP-7 からのお知らせ", mail["subject"]
    assert mail["from"] == "複合機 3F <scanner@example.com>", mail["from"]
    text, part = mail.iter_parts()
    assert text.get_content_charset() == "iso-2022-jp"
    # Python's table lacks the circled digits, which are not of JIS X 0208 proper.
    assert text.get_payload(decode=True).decode("iso2022_jp_ext", "replace").startswith("お世話")
    assert part.get_filename() == "報告書 その1.pdf" and part["content-x-ciajwnetfax"] == "IGNORE"
    assert part.get_payload(decode=True) == read(REPORT, mode="rb")

    host.run("pop_before_smtp", "smtp", "pop3", "taro")
    assert "TAV_EML 0: " in host.run("pop_before_smtp", "smtp", "pop3", "jiro", code=1)


def check_receiving(host):
    printed = re.findall(r"<!-- sequence \d -->\n+```\n(.*?)```\n", read(DOCS, "guide.md"), re.S)
    calls = re.sub(r" +$", "", host.run("sequence", "pop3", "taro", TAV_DBGLOG=""), flags=re.M)
    assert re.split(r"^mail \d+\n", calls, flags=re.M)[1:] == printed, calls

    new_mail = ["new_mail", "pop3", "taro", os.path.join(host.folder, "seen")]
    first = host.run(*new_mail)
    for word in ("one part", "two parts", "an alternative", '"a.pdf" 8 bytes', "text/html"):
        assert word in first, first
    assert "missing" not in first, first
    assert host.run(*new_mail, TAV_DBGLOG="") == "", "handed out twice"
    host.run("first_mail", "smtp", "a@example.com", "b@example.com")
    assert host.run(*new_mail).count("text/plain") == 1


def check_texts():
    """A block that names a part of an example holds exactly that part, and links lead somewhere."""
    for name in [name for name in os.listdir(DOCS) if name.endswith(".md")]:
        text = read(DOCS, name)
        for source, part, block in re.findall(
                r"<!-- ([\w./]+): (\w+) -->\n+```\w*\n(.*?)```\n", text, re.S):
            marks = rf"^( *)// \[{part}\]\n(.*?)^ *// \[/{part}\]\n"
            indent, lines = re.search(marks, read(DOCS, source), re.S | re.M).groups()
            assert re.sub(f"^{indent}", "", lines, flags=re.M) == block, f"{name}: {source} {part}"
        for target in re.findall(r"\[[^\]]*\]\(([^)#:]+)(?:#[\w-]*)?\)", text):
            assert os.path.exists(os.path.join(DOCS, target)), f"{name} leads to {target}"


def main(work):
    check_texts()
    check_embedding(work)
    prefix = os.path.join(work, "moved")
    run("cmake", "--install", BUILD, "--prefix", os.path.join(work, "first"))
    os.rename(os.path.join(work, "first"), prefix)
    check_installation(prefix)

    own = f"-DCMAKE_PREFIX_PATH={prefix}"
    examples = configure(os.path.join(work, "examples"), own, text=EXAMPLES)
    roundtrip = os.path.join(work, "roundtrip")
    shutil.copytree(os.path.join(ROOT, "examples", "roundtrip"), roundtrip)
    strict = "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Wconversion -Werror"
    for binary in (examples, configure(roundtrip, own, strict)):
        run("cmake", "--build", binary)
    libraries = os.path.dirname(next(top for top, _, names in os.walk(prefix)
                                     if "taveml.pc" in names))
    run("make", f"CXX={COMPILER}", folder=roundtrip,
        PKG_CONFIG_PATH=os.path.join(libraries, "pkgconfig"))

    with PracticeHost(prefix, examples) as host:
        for program in (os.path.join(roundtrip, "build", "roundtrip"),
                        os.path.join(roundtrip, "roundtrip")):
            assert "bytes, as they were sent" in host.run(
                program, "smtp", "pop3", "taro", "taro@example.com", REPORT,
                LD_LIBRARY_PATH=libraries)
    with PracticeHost(prefix, examples) as host:
        check_sending(host)
        host.run("new_mail", "pop3", "taro", os.path.join(host.folder, "seen"))
    mails = os.path.join(DOCS, "examples", "mails")
    with PracticeHost(prefix, examples,
                      [os.path.join(mails, name) for name in sorted(os.listdir(mails))]) as host:
        check_receiving(host)


with tempfile.TemporaryDirectory() as temporary:
    main(temporary)
