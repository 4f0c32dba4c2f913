"""Where a newcomer stumbled: the command line, what is on the server, the exit code and the words.

    stumbles.py TAVMAIL TAVMAIL_HOST ROOT
"""

import os
import subprocess
import sys
import tempfile
import time

TAVMAIL, HOST, ROOT = map(os.path.abspath, sys.argv[1:])
SAMPLE = os.path.join(ROOT, "examples", "tavmail", "config.toml")
TO = ["-t", "b@example.com", "--text", "x"]
MISSING = ["-a", "missing"]

with tempfile.TemporaryDirectory() as work:
    os.chdir(work)
    os.environ.update(HOME=work, XDG_STATE_HOME=work, XDG_CONFIG_HOME=work)
    files = {"accounts": '[home.smtp]\nserver = "x"\n[work.pop3]\nserver = "x"\n',
             "right": "secret", "wrong": "falsch", "mail": "Subject: a\n\nb\n"}
    for name, text in files.items():
        with open(name, "w", opener=lambda path, flags: os.open(path, flags, 0o600)) as file:
            file.write(text)
    host = subprocess.Popen([HOST, "--any-port", "--ca-out", "ca", "--ready-file", "ports", "--add",
                             "mail", "--max-seconds", "60"], stdout=subprocess.DEVNULL)
    while not os.path.exists("ports") or not os.path.getsize("ports"):
        time.sleep(0.05)
    port = dict(line.split("=") for line in open("ports", encoding="ascii").read().split())
    smtp = ["--ca-file", "ca", "-s", "localhost:" + port["smtp"]]
    pop3 = ["--ca-file", "ca", "-s", "localhost:" + port["pop3"], "-u", "tavmail"]
    new, kept = "1 new mail; 1 on the server|so they stay new; --folder DIR", "!stay new"
    by_pop = [*smtp, "--auth", "pop", "--pop3-user", "tavmail", "--pop3-port", port["pop3"]]
    in_order = "pop3 login tavmail is logged in ok name localhost has|ready to send|!FAIL"
    rows = [
        (["send", *smtp, "-f", "a@example.com", *TO, *MISSING], 66, "attachment missing: No such"),
        (["receive", *pop3], 64, "use --password-file or --password-command"),
        (["send", "--config", "accounts", *TO], 64, "no default account; choose one|: home, work"),
        (["doctor", "--config", "accounts"], 64, "no default account; choose one|: home, work"),
        *[(["receive", *pop3, "--password-file", "right"], 0, new)] * 2,
        (["receive", *pop3, "--password-file", "right", "--folder", "f"], 0, "1 new mail|" + kept),
        (["doctor", *by_pop, "--pop3-password-file", "right"], 0, in_order),
        (["doctor", *pop3, "--protocol", "pop3", "--password-file", "wrong"], 77,
         'check user and password result not ready to receive: "login" failed'),
        *((["send", "--config", SAMPLE, "-A", name, *TO, *MISSING], 66, "attachment missing")
          for name in ("office", "tls", "provider", "relay")),
    ]
    problems, rows = [], [([TAVMAIL, *words], code, said) for words, code, said in rows]
    rows.append(([HOST, "--add", "Hello"], 66, "--add Hello: cannot read|TEXT:FILE, a text and"))
    for command, code, said in rows:
        done = subprocess.run(command, capture_output=True, text=True, timeout=60,
                              start_new_session=True)  # no terminal to ask for a password
        out = " ".join((done.stdout + done.stderr).split())
        if done.returncode != code or any((word[0] == "!") == (word.lstrip("!") in out)
                                          for word in said.split("|")):
            problems.append(f"{command[1:]}: {done.returncode}, {out}")
    host.terminate()
    host.wait()
print("\n".join(problems) or "nobody stumbles")
sys.exit(1 if problems else 0)
