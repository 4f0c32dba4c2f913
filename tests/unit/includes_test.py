"""The rules on what may include what that the build does not check: includes_test.py ROOT"""

import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1])
SYSTEM = re.compile(r"#include <(sys/|netinet/|arpa/|openssl/|iconv|poll|fcntl|unistd|pthread)")
# The one clock that the standard library has no name for, and what tells a processor's units.
ALLOWED_SYSTEM = {"#include <sys/time.h>": "smtp", "#include <sys/auxv.h>": "mailutil/codec"}
# The rooms of mailutil and those below them, which they see.
ROOMS = {"common": (), "transport": ("common",), "message": ("common",),
         "codec": ("common", "message"), "login": ("common", "codec", "transport"),
         "reception": ("common", "transport", "message", "codec")}
NETWORK = re.compile(r"\b(tav_netsock_|tlsw_)\w+\(")
TRANSPORT = "mailutil/transport/tav_eml_mlutl_mail_net.cpp"


def problems(path, text):
    room = re.match(r"mailutil/(\w+)/", path)
    if path.startswith("platform/posix/"):
        if re.search(r"#include <(openssl/|mbedtls/|iconv)", text):
            yield f"{path} is for every POSIX port: no TLS library and no iconv"
        return
    for line in re.findall(r"^#include .*", text, re.M):
        include = re.match(r'#include "(\w+)/', line)
        seen = include and include[1] in ROOMS and room and room[1] != include[1]
        if (SYSTEM.match(line) and not path.startswith(ALLOWED_SYSTEM.get(line, "?"))
                or '"..' in line or seen and include[1] not in ROOMS[room[1]]):
            yield f"{path} may not have {line}"
    if not path.startswith(("platform", TRANSPORT)) and NETWORK.search(text):
        yield f"{path} calls the network; only {TRANSPORT} may"


found = [problem for top in ("mailutil", "smtp", "pop3", "include", "platform/include",
                                   "platform/posix")
         for file in sorted((ROOT / top).rglob("*.*")) if file.suffix in (".h", ".cpp")
         for problem in problems(file.relative_to(ROOT).as_posix(), file.read_text())]
print("\n".join(found) or "every include is allowed")
sys.exit(1 if found else 0)
