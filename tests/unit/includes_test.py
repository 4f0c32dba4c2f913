"""The rules on what may include what: includes_test.py ROOT"""

import os
import re
import sys

ROOT = sys.argv[1]
SYSTEM = re.compile(r"#include <(sys/|netinet/|arpa/|openssl/|iconv|poll|fcntl|unistd|pthread)")
INCLUDE = re.compile(r'#include "([^"]+)"')
# The one clock that the standard library has no name for, and what tells a processor's units.
ALLOWED_SYSTEM = {"#include <sys/time.h>": "smtp", "#include <sys/auxv.h>": "mailutil/codec"}
# What a folder sees besides itself. The rooms of mailutil see those below them.
ROOMS = {"common": (), "transport": ("common",), "message": ("common",),
         "codec": ("common", "message"), "login": ("common", "codec"),
         "reception": ("common", "transport", "message", "codec")}
SEES = {f"mailutil/{room}": [f"mailutil/{below}" for below in rooms]
        for room, rooms in ROOMS.items()}
ALL_ROOMS = list(SEES)
SEES.update({"smtp": ALL_ROOMS, "pop3": ALL_ROOMS, "tool": ["platform/linux/include"],
             "platform/linux": ["platform/linux/include"], "platform/linux/include": [],
             "platform/include": [], "include/quorvelmida": [], "mailhost": []})
USES_THE_SYSTEM = ("platform/linux", "tool", "mailhost")
NETWORK = re.compile(r"\b(tav_netsock_|tlsw_)\w+\(")
TRANSPORT = "tav_eml_mlutl_mail_net.cpp"
problems = []


def folder_of(path):
    """The longest folder with rules that holds the path."""
    inside = [folder for folder in SEES if path.startswith(folder + "/")]
    return max(inside, key=len) if inside else None


def check_include(path, folder, header):
    roots = [os.path.dirname(path), folder, "mailutil", "include", "platform/include",
             "platform/linux/include"]
    found = [os.path.normpath(f"{root}/{header}") for root in roots]
    found = [place for place in found if os.path.exists(os.path.join(ROOT, place))]
    allowed = [folder, *SEES[folder]]
    if folder != "mailhost":  # an independent reading of the protocols
        allowed.append("platform/include")
        if not folder.startswith("platform"):
            allowed.append("include/quorvelmida")
    if not found or folder_of(found[0]) not in allowed:
        problems.append(f"{path} may not include {header}")


def check(path, folder):
    with open(os.path.join(ROOT, path)) as file:
        text = file.read()
    for line in text.splitlines():
        if SYSTEM.match(line) and folder not in USES_THE_SYSTEM:
            if not folder.startswith(ALLOWED_SYSTEM.get(line, "?")):
                problems.append(f"{path}: {line}")
        if found := INCLUDE.match(line):
            check_include(path, folder, found[1])
    if not folder.startswith("platform") and not path.endswith(TRANSPORT) and NETWORK.search(text):
        problems.append(f"{path} calls the network; only {TRANSPORT} may")


for top in ("mailutil", "smtp", "pop3", "tool", "platform", "include", "mailhost"):
    for place, _, names in os.walk(os.path.join(ROOT, top)):
        for name in sorted(names):
            path = os.path.relpath(os.path.join(place, name), ROOT)
            if not name.endswith((".h", ".cpp")):
                continue
            folder = folder_of(path)
            if folder is None:
                problems.append(f"{path} is in a folder without rules")
            else:
                check(path, folder)

print("\n".join(problems) or "every include is allowed")
sys.exit(1 if problems else 0)
