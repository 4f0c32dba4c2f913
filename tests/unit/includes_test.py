"""The rules on what may include what: includes_test.py ROOT"""

import os
import re
import sys

ROOT = sys.argv[1]
SYSTEM = re.compile(r"#include <(sys/|netinet/|arpa/|openssl/|iconv|poll|fcntl|unistd|pthread)")
# The one clock that the standard library has no name for, and what tells a processor's units.
ALLOWED_SYSTEM = {"#include <sys/time.h>": "smtp", "#include <sys/auxv.h>": "mailutil/codec"}
# What a folder sees besides itself. The rooms of mailutil see those below them.
ROOMS = {"common": (), "transport": ("common",), "message": ("common",),
         "codec": ("common", "message"), "reception": ("common", "transport", "message", "codec")}
SEES = {f"mailutil/{room}": [f"mailutil/{below}" for below in rooms]
        for room, rooms in ROOMS.items()}
ALL_ROOMS = list(SEES)
SEES.update({"smtp": ALL_ROOMS, "pop3": ALL_ROOMS, "tool": ["platform/linux/include"],
             "platform/linux": ["platform/linux/include"], "platform/linux/include": [],
             "platform/include": [], "include/quorvelmida": [], "mailhost": []})
NETWORK = re.compile(r"\b(tav_netsock_|tlsw_)\w+\(")
TRANSPORT = "tav_eml_mlutl_mail_net.cpp"


def folder_of(path):
    """The longest folder with rules that holds the path."""
    return max((folder for folder in SEES if path.startswith(folder + "/")), key=len, default=None)


def may_include(path, folder, header):
    roots = [os.path.dirname(path), folder, "mailutil", "include", "platform/include",
             "platform/linux/include"]
    places = [os.path.normpath(f"{root}/{header}") for root in roots]
    found = [place for place in places if os.path.exists(os.path.join(ROOT, place))]
    allowed = [folder, *SEES[folder]]
    if folder != "mailhost":  # an independent reading of the protocols
        allowed.append("platform/include")
        if not folder.startswith("platform"):
            allowed.append("include/quorvelmida")
    return found and folder_of(found[0]) in allowed


def problems(path, folder):
    if folder is None:
        yield "is in a folder without rules"
        return
    with open(os.path.join(ROOT, path)) as file:
        text = file.read()
    for line in re.findall(r"^#include .*", text, re.M):
        if SYSTEM.match(line) and not folder.startswith(
                ("platform/linux", "tool", "mailhost", ALLOWED_SYSTEM.get(line, "?"))):
            yield f"may not have {line}"
        if line[9] == '"' and not may_include(path, folder, line.split('"')[1]):
            yield f"may not have {line}"
    if not folder.startswith("platform") and not path.endswith(TRANSPORT) and NETWORK.search(text):
        yield f"calls the network; only {TRANSPORT} may"


paths = [os.path.relpath(os.path.join(place, name), ROOT)
         for top in ("mailutil", "smtp", "pop3", "tool", "platform", "include", "mailhost")
         for place, _, names in os.walk(os.path.join(ROOT, top)) for name in sorted(names)]
found = [f"{path} {problem}" for path in paths if path.endswith((".h", ".cpp"))
         for problem in problems(path, folder_of(path))]
print("\n".join(found) or "every include is allowed")
sys.exit(1 if found else 0)
