"""The rules on what may include what: includes_test.py ROOT"""

import os
import re
import sys

ROOT = sys.argv[1]
SYSTEM = re.compile(r"#include <(sys/|netinet/|arpa/|openssl/|iconv|poll|fcntl|unistd|pthread)")
INCLUDE = re.compile(r'#include "([^"]+)"')
# The one clock that the standard library has no name for, and what tells a processor's units.
ALLOWED_SYSTEM = {("smtp/tav_eml_smtp_send_mail.cpp", "#include <sys/time.h>"),
                  ("mailutil/base64_kernel_neon.cpp", "#include <sys/auxv.h>")}
PRIVATE_OF = {"mailutil": ("mailutil",), "smtp": ("smtp", "mailutil"), "pop3": ("pop3", "mailutil"),
              "platform/linux": ("platform/linux",), "tool": ("tool",),
              "platform/include": (), "include/quorvelmida": (), "mailhost": ("mailhost",)}
TRANSPORT = "mailutil/tav_eml_mlutl_mail_net.cpp"
problems = []

for folder, private in PRIVATE_OF.items():
    may_see_library = not folder.startswith("platform") and folder != "mailhost"
    may_see_platform = folder != "mailhost"
    for name in sorted(os.listdir(os.path.join(ROOT, folder))):
        if not name.endswith((".h", ".cpp")):
            continue
        path = f"{folder}/{name}"
        with open(os.path.join(ROOT, path)) as file:
            text = file.read()
        for line in text.splitlines():
            if SYSTEM.match(line) and folder not in ("platform/linux", "tool", "mailhost"):
                if (path, line) not in ALLOWED_SYSTEM:
                    problems.append(f"{path}: {line}")
            found = INCLUDE.match(line)
            if not found:
                continue
            header = found[1]
            places = [f"{place}/{header}" for place in private]
            if may_see_platform:
                places.append(f"platform/include/{header}")
            if may_see_library:
                places.append(f"include/{header}")
            if not any(os.path.exists(os.path.join(ROOT, place)) for place in places):
                problems.append(f"{path} may not include {header}")
        if may_see_library and path != TRANSPORT and re.search(r"\b(tav_netsock_|tlsw_)\w+\(", text):
            problems.append(f"{path} calls the network; only {TRANSPORT} may")

print("\n".join(problems) or "every include is allowed")
sys.exit(1 if problems else 0)
