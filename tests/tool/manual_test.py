"""The manual of the programs against them: manual_test.py TAVMAIL TAVMAIL_HOST ROOT

Every long option that a command's --help shows stands in its page, and no page names one that is
not there. The exit codes listed are those of the code.
"""

import os
import re
import shutil
import subprocess
import sys

TAVMAIL, HOST, ROOT = sys.argv[1:4]
MAN = os.path.join(ROOT, "docs", "man")
PAGES = {"tavmail.1": [TAVMAIL], "tavmail-send.1": [TAVMAIL, "send"],
         "tavmail-receive.1": [TAVMAIL, "receive"], "tavmail-doctor.1": [TAVMAIL, "doctor"],
         "tavmail-host.1": [HOST]}
INTERRUPTED = 130
problems = []


def read(*path):
    with open(os.path.join(*path), encoding="utf-8") as file:
        return file.read()


def options_of(command):
    text = subprocess.run([*command, "--help"], capture_output=True, timeout=30,
                          check=True).stdout.decode()
    # Where an option is defined: at the start of its line, perhaps behind a letter.
    return set(re.findall(r"^ +(?:-\w, ?)?--([a-z0-9-]+)", text, re.M))


def options_in(page):
    return set(re.findall(r"\bFl -([a-z0-9-]+)", page))


def check_options():
    everywhere = set()
    for name, command in PAGES.items():
        known, named = options_of(command), options_in(read(MAN, name))
        assert "help" in known, known
        everywhere |= known
        problems.extend(f"{name} lacks --{option}" for option in sorted(known - named))
        problems.extend(f"{name} names --{option}, which {' '.join(command)} does not have"
                        for option in sorted(named - known))
    page = read(MAN, "tavmail.toml.5")
    keys = set(re.findall(r"[a-z_]+", " ".join(re.findall(r"^\.It Cm (.*)", page, re.M))))
    problems.extend(f"tavmail.toml.5 names the key {key}" for key in sorted(keys)
                    if key != "password" and key.replace("_", "-") not in everywhere)


def check_exit_codes():
    values = dict(re.findall(r"#define (EX_\w+)\s+(\d+)", read("/usr/include/sysexits.h")))
    tool = os.path.join(ROOT, "tool")
    used = {name for file in os.listdir(tool) if file.endswith((".cpp", ".h"))
            for name in re.findall(r"\bEX_[A-Z]+\b", read(tool, file))}
    expected = {int(values[name]) for name in used} | {INTERRUPTED}
    section = read(MAN, "tavmail.1").split(".Sh EXIT STATUS")[1].split(".Sh ")[0]
    listed = {int(code) for code in re.findall(r"^\.It (\d+)", section, re.M)}
    if listed != expected:
        problems.append(f"tavmail.1 lists the exit codes {sorted(listed)}, "
                        f"the code has {sorted(expected)}")


def check_troubleshooting():
    """The texts that the page explains are those of the tool; "…" is where a name goes."""
    folders = [os.path.join(ROOT, "tool"), os.path.join(ROOT, "platform", "linux")]
    said = "".join(read(folder, file) for folder in folders for file in sorted(os.listdir(folder))
                   if file.endswith(".cpp"))
    said = re.sub(r'"\s*\n\s*"', "", said).replace('\\"', '"')  # a text over several lines
    rows = re.findall(r"^\| ((?:[^|`]|`[^`]*`)*) \| (?:\d|\d\d `\w|\d\d \|)",
                      read(ROOT, "docs", "troubleshooting.md"), re.M)
    assert len(rows) > 30, rows
    problems.extend(f"troubleshooting.md explains \"{piece}\", which tavmail does not say"
                    for row in rows for text in re.findall("`([^`]*)`", row)
                    for piece in text.split("…") if len(piece) > 1 and piece not in said)


def check_form():
    pages = sorted(os.listdir(MAN))
    assert len(pages) >= 5, pages
    if shutil.which("mandoc"):  # in their folder, where they find each other
        said = subprocess.run(["mandoc", "-T", "lint", *pages], capture_output=True, timeout=60,
                              cwd=MAN)
        problems.extend(said.stdout.decode().splitlines())


check_options()
check_exit_codes()
check_troubleshooting()
check_form()
print("\n".join(problems) or "the manual is as the tool is")
sys.exit(1 if problems else 0)
