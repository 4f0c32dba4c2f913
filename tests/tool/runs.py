"""Runs of the programs against the practice mail server. The form of the table: see runs.txt.

    runs.py TAVMAIL TAVMAIL_HOST TABLE [WORD]      WORD: only the rows that have it; !WORD: have not
"""

import base64
import concurrent.futures
import email
import email.policy
import glob
import json
import os
import re
import resource
import shlex
import shutil
import signal
import socket
import string
import subprocess
import sys
import tempfile
import threading
import time
import unicodedata
from pathlib import Path

from provider import ACCESS, DEVICE, REFRESH, Provider

TAVMAIL, HOST = sys.argv[1:3]
ONCE = 30  # seconds that no run may take
CODES = {0, 64, 65, 66, 68, 69, 70, 71, 73, 74, 75, 76, 77, 78, 130, 143}  # that are documented
SECRETS = ("geheim", base64.b64encode(b"geheim").decode(),
           base64.b64encode(b"\0anna\0geheim").decode(), ACCESS, REFRESH, DEVICE,
           # In base64, wherever the groups of a longer text begin.
           *(base64.b64encode(ACCESS[i:i + 9].encode()).decode() for i in range(3)))
OPENSSL = "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\n"
FILES = {"config": "config/tavmail/config.toml", "system": "system.toml"}
MEMORY = {"never": 0, "once": 1}  # how often it has a text
kept = []  # sockets and pipes that stay open


def columns(line):
    return sum(0 if unicodedata.combining(c) else 1 + (unicodedata.east_asian_width(c) in "WF")
               for c in line)


def faults_of(text):
    """What no output may have, whatever was run."""
    bad = (*SECRETS, "Sanitizer", "runtime error:", "Traceback")
    return [f"it says {word}" for word in bad if word in text] + [
        f"it has {c!r}" for c in set(text) - set("\n\u200b\ufeff")
        if unicodedata.category(c) in ("Cc", "Cf")]


def environment(folder, **more):
    own = {"HOME": folder, "TMPDIR": folder + "/tmp", "XDG_CONFIG_HOME": folder + "/config",
           "XDG_STATE_HOME": folder + "/state", "TAVMAIL_SYSTEM_CONFIG": folder + "/system.toml"}
    sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"
    return {**os.environ, **own, "ASAN_OPTIONS": sanitizer, "TAV_DBGLOG": "stderr", **more}


class Host:
    """The practice mail server: its ports, its mails, and what it tells."""

    def __init__(self, folder, script="", options=(), openssl="", output=None):
        self.folder = folder
        self.ca, self.log, ready = (os.path.join(folder, name) for name in ("ca", "log", "ready"))
        Path(folder, "script").write_text(script)
        Path(folder, "cnf").write_text(OPENSSL + openssl)
        with open(self.log, "w") as log:
            self.process = subprocess.Popen(
                [HOST, "--any-port", "--ready-file", ready, "--ca-out", self.ca, "--json", "--user",
                 "anna:geheim", "--folder", "mails", "--script", "script", "--max-seconds", "100",
                 *options], cwd=folder, stdout=output or log, stderr=log,
                env=environment(folder, OPENSSL_CONF=os.path.join(folder, "cnf")))
        while not os.path.exists(ready):
            assert self.process.poll() is None, self.told()
            time.sleep(0.01)
        self.ports = dict(line.split("=") for line in Path(ready).read_text().split())

    def told(self):
        return Path(self.log).read_text()

    def heard(self):
        events = [json.loads(line) for line in self.told().splitlines()]
        return [event["text"] for event in events if event.get("by") == "client"]

    def acted(self):
        """How often the script has said what to do."""
        return self.told().count('"script: ')

    def mails(self):
        return glob.glob(self.folder + "/mails/new/*") + glob.glob(self.folder + "/mails/cur/*")

    def stop(self):
        self.process.terminate()
        code = self.process.wait(ONCE)
        told = [line for line in self.told().splitlines()  # what its script says is no secret
                if not re.search('"by":"server"|"script: ', line)]
        return faults_of("\n".join(told)) + [f"the host ends with {code}"] * (code != 0)


def port(full):
    """One that takes no more connections, or one that refuses them."""
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    kept.append(listener)
    if full:
        listener.listen(0)
    for waiting in [socket.socket() for _ in range(3 * full)]:
        kept.append(waiting)
        waiting.setblocking(False)
        waiting.connect_ex(listener.getsockname())
    return "127.0.0.1:%d" % listener.getsockname()[1]


def talk(place, *lines, patience=0.7):
    """What is said in answer to the lines, and how it ends. The greeting may take long."""
    said, end = b"", "closed"
    address, number = place.split(":")
    try:
        with socket.create_connection((address, int(number)), ONCE) as client:
            client.sendall(b"".join(os.fsencode(line) + b"\r\n" for line in lines))
            while block := client.recv(65536):
                said += block
                client.settimeout(patience)
    except socket.timeout:
        end = "silent"
    except ConnectionResetError:
        end = "reset"
    return 0, said.decode("latin-1") + f" <{end}>", "", 0


def text_of(path):
    """A mail that was sent, decoded: its headers, its texts, the names of its files."""
    mail = email.message_from_bytes(Path(path).read_bytes(), policy=email.policy.default)
    assert not mail.defects, mail.defects
    return "\n".join([f"{name}: {' '.join(value.split())}" for name, value in mail.items()] +
                     [f"{part.get_filename('text')}: {part.get_content()}" for part in mail.walk()
                      if not part.is_multipart()])


def places_of(secret, pid):
    """How often a process's memory holds a text."""
    count = 0
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb", 0) as memory:
        for row in maps:
            begin, end = (int(number, 16) for number in row.split()[0].split("-"))
            if " rw" in row and end - begin < 1 << 30:  # a sanitizer's are larger
                for at in range(begin, end, 1 << 20):
                    memory.seek(at)
                    size = min((1 << 20) + len(secret) - 1, end - at)
                    count += memory.read(size).count(secret)
    return count


def catches_signals(pid):
    status = Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"SigCgt:\t(\w+)", status)[1], 16) & 1 << signal.SIGINT - 1


def unescaped(word):
    """With the bytes that "\\xNN", "\\r" and "\\n" stand for."""
    return os.fsdecode(re.sub(rb"\\x(..)|\\([rn])", lambda found: bytes.fromhex(
        (found[1] or {b"r": b"0d", b"n": b"0a"}[found[2]]).decode()), word.encode()))


class Row:
    def __init__(self, number, heading, text):
        self.where = f"{number}: {text}"
        scene, _, expected = text.partition("-> ")
        scene, _, arguments = (" " + scene).partition(" + ")
        for option in re.findall(r"(?:^| )(--?[a-z][a-z0-9-]* )", arguments):
            heading = re.sub(" " + option + r"(\"[^\"]*\"|\S+)(?= |$)", "", heading)
        self.scene = [item.strip() for item in scene.split(" ; ") if item.strip()]
        self.command = f"{heading} {arguments}"
        self.code, _, words = expected.strip().partition(" ")
        self.words = [word.strip() for word in f" {words} ".split(" | ") if word.strip()]


def each_of(line):
    """The rows that {a|b|c} makes: the first of each, the second of each, ..."""
    group = r"\{([^{}]*\|[^{}]*)\}"
    first = re.search(group, line)
    return [re.sub(group, lambda found, n=number: found[1].split("|")[n], line)
            for number in range(first[1].count("|") + 1 if first else 1)]


def read_table(path):
    """The rows, in lists of those that share a host."""
    jobs, latest, texts, heading, lines = [], [], {}, "", []
    for number, line in enumerate(Path(path).read_text().splitlines(), 1):
        if line.startswith("    "):
            lines[-1][1] += " " + line.strip()
        elif line.strip() and line[0] != "#":
            lines.append([number, line.rstrip()])
    for number, line in lines:
        line = string.Template(line).safe_substitute(texts)
        if line.startswith("let "):
            name, text = line[4:].split(" = ", 1)
            texts[name] = text
            continue
        if line[0] != " ":
            heading = line
            continue
        rows = [Row(number, heading, each) for each in each_of(line.strip())]
        if line.startswith("  then "):
            for job in latest:
                job += rows
        else:
            latest = [[row] for row in rows]
            jobs += latest
    return jobs


class Job:
    """Rows that share a host and a folder."""

    def __init__(self, rows, texts):
        self.rows, self.texts, self.host, self.most = rows, dict(texts), None, 0
        self.provider = None

    def run(self):
        faults = []
        with tempfile.TemporaryDirectory(prefix="runs-") as self.folder:
            os.mkdir(os.path.join(self.folder, "tmp"))
            try:
                for row in self.rows:
                    faults += [f"{row.where}\n    {fault}" for fault in self.faults_of(row)]
            except Exception as problem:
                faults.append(f"{row.where}\n    {problem!r}")
            finally:
                faults += [f"{row.where}\n    {fault}" for fault in self.host.stop()
                           ] if self.host else []
            if self.provider:
                self.provider.shutdown()
                self.provider.server_close()
            left = os.listdir(os.path.join(self.folder, "tmp"))
            return faults + [f"{row.where}\n    left in the temporary folder: {left}"] * bool(left)

    def fill(self, text):
        return string.Template(text).safe_substitute(self.texts)

    def shell(self, command):
        return subprocess.run(["bash", "-c", self.fill(command)], cwd=self.folder, timeout=30,
                              capture_output=True).returncode == 0

    def prepare(self, row):
        """The scene. Returns the most bytes of a file, or None."""
        items = [item.partition(" ")[::2] for item in row.scene]
        texts = {kind: rest for kind, rest in items}
        self.texts["tmp"] = self.folder
        if "provider" in texts:
            self.provider = self.provider or Provider(self.folder)
            self.provider.words = texts["provider"].split()
            self.texts["provider_port"] = str(self.provider.server_port)
            self.texts["provider"] = "127.0.0.1:" + self.texts["provider_port"]
        for kind, rest in items:
            assert kind != "sh" or self.shell(rest), rest
        files = {kind: texts[kind] for kind in FILES if kind in texts}
        if self.host is None and re.search(r"\$(smtp|pop3)", row.command + str(files)):
            self.host = Host(
                self.folder,
                "\n".join(f"{kind} {rest}" for kind, rest in items if kind[:2] != "--"
                          and kind not in ("sh", "disk", "openssl", "provider", *FILES)),
                shlex.split(self.fill(" ".join(item for item in row.scene if item[:2] == "--"))),
                "\n".join(rest for kind, rest in items if kind == "openssl"))
            for name, number in self.host.ports.items():
                self.texts.update({name: "127.0.0.1:" + number, name + "_port": number})
            self.texts["ca"] = self.host.ca
        for kind, text in files.items():
            mode, text = re.match(r"(\d* ?)(.*)", text).groups()
            path = Path(self.folder, FILES[kind])
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(self.fill(text).replace(" / ", "\n") + "\n")
            path.chmod(int(mode or "600", 8))
        return int(texts["disk"]) if "disk" in texts else None

    def faults_of(self, row):
        """The faults of a run."""
        disk = self.prepare(row)
        line = [unescaped(word) for word in shlex.split(self.fill(row.command))]
        if line[0] == "talk":
            code, output, error, most = talk(*line[1:])
        else:
            line[0] = {"tavmail": TAVMAIL, "tavmail-host": HOST}.get(line[0], line[0])
            code, output, error, most = self.start(row, line, disk)
        shown = [text for text in error.splitlines() if not re.match(r"[A-Z_]+\[\d\] ", text)]
        said = [text for text in shown if not re.match(r"[CS]: |\* ", text)]  # without dialogue
        faults = faults_of(output + error) if line[0] != "talk" else []
        faults += [f"exit code {code}"] * (
            code != int(row.code.split(":")[-1]) or code >= 0 and code not in CODES)
        if line[0] == TAVMAIL and code >= 0:
            faults += self.form_of(line, code, output, said)
        elif line[0] == HOST and code > 0:
            faults += ["not one line of advice"] * (len(said) != 1)
        text = " ".join((output + "\n".join(shown)).split())
        faults += [f"no {word}" for word in row.words if not self.has(self.fill(word), text, most)]
        if self.provider:
            faults += self.provider.faults + self.provider.words * (":" not in row.code)
            self.provider.faults = []
        self.most = most
        heard = self.host.heard() if self.host else []
        return faults + [f"said was {output}{error}", f"heard was {heard}"] if faults else []

    def start(self, row, line, disk):
        limits = (lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (disk, disk))) if disk else None
        acted, is_ended = self.host.acted() if self.host else 0, ":" in row.code
        # Whoever waits for a text is not told that there is none.
        waits = is_ended or "--max-time" in line
        with tempfile.TemporaryFile() as output, tempfile.TemporaryFile() as error:
            process = subprocess.Popen(line, cwd=self.folder, env=environment(self.folder),
                                       stdin=subprocess.PIPE if waits else subprocess.DEVNULL,
                                       stdout=output, stderr=error, preexec_fn=limits)
            kept.append(process.stdin)
            timer = threading.Timer(ONCE, process.kill)
            timer.start()
            if is_ended:
                until = time.monotonic() + ONCE / 2
                while time.monotonic() < until and not (
                        self.host.acted() > acted if self.host else catches_signals(process.pid)):
                    time.sleep(0.02)
                time.sleep(0.3)  # and the program has come to wait
                for word in row.words:
                    kind, _, secret = word.partition(" ")
                    if kind in MEMORY:
                        count = places_of(secret.encode(), process.pid)
                        assert count == MEMORY[kind], f"{count} times in memory: {secret}"
                os.kill(process.pid, getattr(signal, "SIG" + row.code.split(":")[0]))
            _, status, usage = os.wait4(process.pid, 0)
            timer.cancel()
            process.returncode = os.waitstatus_to_exitcode(status)
            texts = [file.seek(0) or file.read().decode("utf-8", "replace")
                     for file in (output, error)]
        return process.returncode, *texts, usage.ru_maxrss

    def form_of(self, line, code, output, said):
        """The faults in what every run of tavmail has to have."""
        faults, document, command = [], None, line[1] if line[1:] else ""
        if "--json" in line:
            document = json.loads(output)
            entry = (document.get("checkups") or [document])[-1]
            faults += [f"JSON says {entry.get('exit_code')}"] * (entry.get("exit_code", 0) != code)
            problem = [f"tavmail: {each['account'] + ': ' if 'account' in each else ''}"
                       + each["problem"] for each in document.get("accounts", [document])
                       if "problem" in each]
            faults += ["another problem than JSON"] * (said != problem)
        elif "-q" in line and code == 0:
            faults += ["not quiet"] * bool(output or said)
        elif command in ("send", "receive", "doctor"):
            faults += [f"a long line: {text}" for text in output.splitlines()
                       if columns(text) > 80 and not text.startswith("    /")]
        is_page = command == "doctor" and not said
        if is_page and document is None:
            faults += ["not one FAIL"] * (output.count("  FAIL  ") != (code != 0))
        elif not is_page and code > 0:
            faults += ["not one line of advice"] * (
                len(said) != 1 or not said[0].startswith("tavmail: "))
        if command == "doctor" and self.host:
            steps = [text.split(" ")[0] for text in self.host.heard() if text != "QUIT"]
            faults += ["a mail was sent"] * ("DATA" in steps)
            faults += ["no RSET"] * (code == 0 and "MAIL" in steps and steps[-1] != "RSET")
        parts = glob.glob(self.folder + "/box/*.part")
        return faults + [f"left {parts}"] * (bool(parts) and code in (130, 143))

    def has(self, word, text, most):
        kind, _, rest = word.partition(" ")
        if word[0] == "!":
            return not self.has(word[1:], text, most)
        if re.fullmatch(r"\d+x", kind):
            return sum(line.startswith(rest) for line in self.host.heard()) == int(kind[:-1])
        if kind == "left":
            return len(self.host.mails()) == int(rest)
        if kind == "box":
            box = Path(self.folder, "box")
            found = {str(path.relative_to(box)) for path in box.rglob("*") if path.is_file()}
            return found == set(rest.split())
        if kind == "mail":
            return any(unescaped(rest) in text_of(path) for path in self.host.mails())
        if kind == "grown":
            assert most < self.most + int(rest), f"{self.most}, then {most} kB"
            return True
        return self.shell(rest) if kind == "$" else kind in MEMORY or word in text


def main():
    jobs = [job for job in read_table(sys.argv[3])
            if all((word.strip("!") in job[0].where + job[0].command) == (word[0] != "!")
                   for word in sys.argv[4:])
            and (job[0].command[0] == "t" or shutil.which(job[0].command.split()[0]))]
    texts = {"tavmail": TAVMAIL, "root": Path(__file__).resolve().parents[2],
             "closed": port(full=False), "full": port(full=True)}
    with concurrent.futures.ThreadPoolExecutor(12) as pool:
        faults = sum(pool.map(lambda job: Job(job, texts).run(), jobs), [])
    print("\n".join(faults) or f"{sum(map(len, jobs))} runs as expected")
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
