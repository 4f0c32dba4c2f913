"""The manual against the programs: manual.py TAVMAIL TAVMAIL_HOST ROOT

Every long option that a command's --help shows stands in its page, and no page names one that is
not there. The exit codes listed are those of the code, and the tests that a document names exist.
"""

import glob
import os
import re
import shutil
import subprocess
import sys

TAVMAIL, HOST, ROOT = sys.argv[1:4]
os.chdir(os.path.join(ROOT, "docs", "man"))  # where pages find each other
PAGES = {page[:-2]: [TAVMAIL, *page[:-2].split("-")[1:]] for page in glob.glob("tavmail*.1")}
PAGES["tavmail-host"] = [HOST]
problems, everywhere = [], set()


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


for name, command in PAGES.items():
    shown = subprocess.run([*command, "--help"], capture_output=True, check=True).stdout.decode()
    # Where an option is defined: at the start of its line, perhaps after a letter.
    known = set(re.findall(r"^ +(?:-\w, ?)?--([a-z0-9-]+)", shown, re.M))
    assert "help" in known, known
    everywhere |= known
    problems += [f"{name}: only one of --help and the page has --{option}"
                 for option in known ^ set(re.findall(r"\bFl -([a-z0-9-]+)", read(name + ".1")))]
keys = " ".join(re.findall(r"^\.It Cm (.*)", read("tavmail.toml.5"), re.M))
problems += [f"tavmail.toml names the key {key}" for key in re.findall(r"[a-z_]+", keys)
             if key != "password" and key.replace("_", "-") not in everywhere]

values = dict(re.findall(r"#define (EX_\w+)\s+(\d+)", read("/usr/include/sysexits.h")))
sources = "".join(map(read, glob.glob(os.path.join(ROOT, "tool", "*.[ch]*"))))
used = {values[name] for name in re.findall(r"\bEX_[A-Z]+\b", sources)} | {"130"}
section = read("tavmail.1").split(".Sh EXIT STATUS")[1].split(".Sh ")[0]
problems += [f"only one of the page and the code has the exit code {code}"
             for code in used ^ set(re.findall(r"^\.It (\d+)", section, re.M))]
# The texts that the page explains are those of the tool; "…" is where a name goes.
ported = map(read, glob.glob(os.path.join(ROOT, "platform", "*", "*.cpp")))
said = re.sub(r'"\s*\n\s*"', "", sources + "".join(ported)).replace('\\"', '"')
rows = re.findall(r"^\| ((?:[^|`]|`[^`]*`)*) \| (?:\d|\d\d `\w|\d\d \|)",
                  read(os.path.join(ROOT, "docs", "troubleshooting.md")), re.M)
assert len(rows) > 30, rows
problems += [f"troubleshooting.md explains \"{piece}\", which tavmail does not say"
             for row in rows for text in re.findall("`([^`]*)`", row)
             for piece in text.split("…") if len(piece) > 1 and piece not in said]
# The tests of the threat model, by the names that it gives them.
tests = {f"{suite}.{name}" for path in glob.glob(f"{ROOT}/tests/*/*.cpp")
         for suite, name in re.findall(r"^TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\)", read(path), re.M)}
for path in glob.glob(f"{ROOT}/tests/dialogue/*.cases"):
    table = os.path.basename(path).partition(".")[0].capitalize()
    tests |= {f"{table}." + re.sub(r"\W", "_", name)
              for name in re.findall(r"^(?:storm )?case (.*)", read(path), re.M)}
named = re.findall(r"`((?:[A-Z]\w*|storm)\.\w+)`", read(f"{ROOT}/docs/threat-model.md"))
assert len(named) > 30, named
problems += [f"threat-model.md names {name}, which is no test" for name in {*named} - tests]
# The examples come first, which mandoc has its doubts about.
problems += [f"{page} does not begin with examples" for page in os.listdir() if ".Sh DESCRIPTION"
             in read(page).partition(".Sh EXAMPLES\n")[0]]
if shutil.which("mandoc"):
    lint = subprocess.run(["mandoc", "-T", "lint", *sorted(os.listdir())], capture_output=True)
    problems += [line for line in lint.stdout.decode().splitlines()
                 if "out of conventional order: Sh DESCRIPTION" not in line]
print("\n".join(problems) or "the manual is as the tool is")
sys.exit(1 if problems else 0)
