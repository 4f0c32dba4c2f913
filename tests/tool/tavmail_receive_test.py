"""tavmail receive and doctor as a whole: hostile mails, broken connections, interrupted runs, full
disks, secrets, terminals.

    tavmail_receive_test.py TAVMAIL TAVMAIL_HOST
"""

import base64
import itertools
import json
import os
import pty
import resource
import select
import signal
import subprocess
import sys
import tempfile
import termios
import time
import unicodedata

from pop3_peer import Pop3Peer, cut_off

TAVMAIL, HOST = sys.argv[1:3]
USAGE, DATA, NO_INPUT, NO_HOST, UNAVAILABLE, CANNOT_CREATE, TEMPORARY, PROTOCOL, NO_PERMISSION = (
    64, 65, 66, 68, 69, 73, 75, 76, 77)
CONFIG = 78
SECRETS = (b"geheim", base64.b64encode(b"geheim"), base64.b64encode(b"\0anna\0geheim"))
ENVIRONMENT = dict(os.environ, TAV_DBGLOG="stderr", XDG_CONFIG_HOME="/nowhere",
                   ASAN_OPTIONS="quarantine_size_mb=1")
numbers = itertools.count(1)


def columns(line):
    return sum(0 if unicodedata.combining(c) else 1 + (unicodedata.east_asian_width(c) in "WF")
               for c in line)


def check_output(output, error):
    """No secret, no control character; what a person reads fits 80 columns; JSON is one document."""
    for secret in SECRETS:
        assert secret not in output + error, (output, error)
    assert not any(unicodedata.category(c) in ("Cc", "Cf") and c != "\n" for c in output.decode())
    if output.startswith(b"{"):
        return json.loads(output)
    for line in output.decode().splitlines():
        # A path is there to be used, so it is not cut.
        assert columns(line) <= 80 or line.startswith("    /"), line
    return None


def start(server, folder, *arguments, **options):
    login = ["--tls", "none", "-u", "anna", "--password-command", "echo geheim", "--timeout", "5"]
    seen = [] if "--all" in arguments else ["--seen", os.path.join(folder, "seen")]
    return subprocess.Popen([TAVMAIL, "receive", "-s", server, *login, *seen, *arguments],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=ENVIRONMENT,
                            **options)


def receive(peer, folder, *arguments, code=0, words="", **options):
    process = start(peer.server, folder, *arguments, **options)
    output, error = process.communicate(timeout=60)
    assert process.returncode == code, (arguments, process.returncode, output, error)
    for word in filter(None, words.split("|")):
        assert word.encode() in output + error, (word, output, error)
    return check_output(output, error) or output.decode()


def mail(subject, body=b"text\r\n"):
    return b"From: a@b.c\r\nSubject: " + subject.encode() + b"\r\n\r\n" + body


def files(folder):
    return sorted(os.path.relpath(os.path.join(path, name), folder)
                  for path, _, names in os.walk(folder) for name in names)


def check_list_fetch_delete(folder):
    peer = Pop3Peer([mail("one"), mail("two"), mail("three")])
    box = os.path.join(folder, "box")
    assert "3 new mails" in receive(peer, folder)
    assert "3 new mails" in receive(peer, folder), "listing changes nothing"
    assert "1 new mail;" in receive(peer, folder, "-d", box, "--max", "1")
    assert "2 new mails" in receive(peer, folder, "-d", box)
    assert "0 new mails" in receive(peer, folder, "-d", box)
    assert files(box) == ["0001/text.txt", "0002/text.txt", "0003/text.txt"] and not peer.deleted
    peer.mails.append(mail("=?utf-8?Q?Your_invoice?=\r\n =?iso-8859-1?Q?_caf=E9?="))
    peer.uids.append("u4")
    document = receive(peer, folder, "-d", box, "--delete", "--json")
    assert [message["subject"] for message in document["messages"]] == ["Your invoice café"]
    assert document["messages"][0]["deleted"] and peer.deleted == {4}, document
    assert receive(peer, folder, "-q", "-d", box) == ""
    assert "2 mails" in receive(peer, folder, "--all", "-n", "2")


def check_hostile_names(folder):
    names = ["../../etc/passwd", "..", "/", ".hidden", "CON", "-rf", "a\x1b[2Jb.txt", "", "  ",
             "=?utf-8?B?YeKArmdwai5leGU=?=", "=?utf-8?Q?..=2F..=2Fx=00y?=", "=?utf-8?Q?my_bill?=", "x" * 400 + ".pdf",
             "報告書" * 30 + ".txt", "same.txt", "same.txt", "same.txt", "<a>|b?.txt"]
    parts = "".join(f'--b\r\nContent-Disposition: attachment; filename="{name}"\r\n\r\ndata\r\n'
                    for name in names)
    hostile = ("Subject: =?utf-8?Q?evil=1B[2J=E2=80=AE=C2=9B?= " + "日本" * 200 + "\r\n"
               "From: \x1b]0;title\x07 <a@b.c>\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
               + parts + "--b--\r\n").encode()
    box = os.path.join(folder, "hostile")
    before = set(os.listdir(folder))
    document = receive(Pop3Peer([hostile]), folder, "--all", "-d", box, "--json")
    saved = [part["file"] for part in document["messages"][0]["parts"]]
    assert files(box) == sorted(saved) and len(set(saved)) == len(names), saved
    assert set(os.listdir(folder)) - before == {"hostile"}
    for name in (os.path.basename(path) for path in saved):
        assert len(name.encode()) <= 200 and name[0] not in ".-" and name != "CON", name
        assert not any(unicodedata.category(c) in ("Cc", "Cf") for c in name), name
    assert {"my bill", "passwd", "hidden", "_CON", "_-rf", "same.txt", "same-2.txt", "same-3.txt"} <= {
        os.path.basename(path) for path in saved}
    receive(Pop3Peer([hostile]), folder, "--all", "-d", box)


def check_hostile_forms(folder):
    levels = range(300)
    nested = b"".join(b"Content-Type: multipart/mixed; boundary=n%d\r\n\r\n--n%d\r\n" % (i, i)
                      for i in levels) + b"\r\ncore\r\n" + b"".join(
                          b"--n%d--\r\n" % i for i in reversed(levels))
    multipart = b"Content-Type: multipart/mixed; boundary=b\r\n\r\n"
    too_long = "longer than the library takes (4095 bytes)|another program"
    cases = [
        ("nested", nested, 0, "text/plain"),
        ("longest line", mail("x", b"x" * 4093 + b"\r\n"), 0, "2 new mails"),
        ("long line", mail("x", b"x" * 4094 + b"\r\n"), DATA, too_long),
        ("very long line", mail("x", b"x" * 100000 + b"\r\n"), DATA, too_long),
        ("long header line", b"X: " + b"x" * 5000 + b"\r\n" + mail("x"), DATA, too_long),
        ("long line in a part", multipart + b"--b\r\nX: " + b"x" * 5000 + b"\r\n\r\nx\r\n--b--\r\n",
         DATA, too_long),
        ("no parts", multipart + b"lost text\r\n", DATA, "nothing was saved"),
        ("no header", b"\r\n", 0, "2 new mails"),
        ("nothing", b"", 0, "2 new mails"),
        ("NUL", b"Subject: a\0b\r\n\r\nc\0d\r\n", 0, "2 new mails"),
        ("cut off", cut_off, TEMPORARY, "broke at a mail|not complete"),
    ]
    for name, hostile, code, words in cases:
        uid = f"hostile-{next(numbers)}"
        peer = Pop3Peer([hostile, mail("behind it")], [uid, uid + "b"])
        box = os.path.join(folder, name)
        output = receive(peer, folder, "-d", box, "--delete", code=code, words=words)
        assert "behind it" in output and 2 in peer.deleted, (name, output)
        assert (1 in peer.deleted) == (code == 0), (name, peer.deleted)
    own = os.path.join(folder, "hopeless")
    os.mkdir(own)
    peer = Pop3Peer([b"X: " + b"x" * 5000 + b"\r\n" + mail("x")])
    given_up = "mail 1 (5.0 kB) was given up after 3 tries|0 new mails"
    for words in too_long, too_long, "it is not tried again", given_up, given_up:
        receive(peer, own, "-d", os.path.join(own, "box"), code=DATA, words=words)
    document = receive(peer, own, "--json", code=DATA)
    told = [(each["number"], each["size"], each["given_up"]) for each in document["messages"]]
    assert told == [(1, len(peer.mails[0]), True)], told
    # What only looks like it: a reply that is no yes, though it begins like one.
    peer = Pop3Peer([mail("x")], replies={"RETR": b"+\r\n"})
    receive(peer, own, "--all", "-d", own + "/box", code=TEMPORARY, words="makes no sense")


def check_broken_connections(folder):
    """A mail that breaks the connection is tried three times and stands in nobody's way."""
    peer = Pop3Peer([mail("one"), cut_off, mail("three")])
    own = os.path.join(folder, "broken")
    os.mkdir(own)
    box = os.path.join(own, "box")
    for words, parts in (("three|not complete", 1), ("try again", 1), ("only --all fetches it", 0)):
        receive(peer, own, "-d", box, code=TEMPORARY, words=words)
        assert sum(".part/text.txt" in path for path in files(box)) == parts, files(box)
    receive(peer, own, "-d", box, code=DATA, words="mail 2 (100 B) was given up|0 new mails")
    assert peer.commands.count("RETR 2") == 3
    assert files(box) == ["0001/text.txt", "0003/text.txt"]
    document = receive(peer, own, "--all", "-d", box, "--json", code=TEMPORARY)
    assert [bool(message["problem"]) for message in document["messages"]] == [False, True, False]
    assert document["exit_code"] == TEMPORARY and document["stage"] == "a mail", document
    # What breaks costs the others one command each, and their numbers are not trusted.
    peer = Pop3Peer([cut_off if number % 5 == 2 else mail("x") for number in range(40)])
    own = os.path.join(folder, "many")
    os.mkdir(own)
    receive(peer, own, "-q", "-d", own + "/box", "--delete", code=TEMPORARY)
    assert len(peer.deleted) == 32, peer.deleted
    assert sum(command.startswith("UIDL") for command in peer.commands) < 40, peer.commands

    def renumber(stream):
        peer.deleted.add(1)
        cut_off(stream)
    peer = Pop3Peer([mail("one"), renumber, mail("three"), mail("four")], "abcd")
    receive(peer, own, "-d", own + "/four", "--delete", code=TEMPORARY, words="three|four|deleted")
    assert peer.deleted == {1, 3, 4} and peer.commands.count("RETR 3") == 1, peer.commands
    # A server that promises what it does not have.
    receive(Pop3Peer([], replies={"STAT": b"+OK 900000 1\r\n"}), own, "--all", code=TEMPORARY,
            words="no such mail")
    receive(Pop3Peer([], replies={"STAT": b"+OK 2000000000 1\r\n"}), own, code=PROTOCOL)
    receive(Pop3Peer([mail("x")], uids=None), own, code=UNAVAILABLE, words="UIDL|--all")
    assert "x" in receive(Pop3Peer([mail("x")], uids=None), own, "--all")
    receive(Pop3Peer([mail("x"), mail("y")], replies={"UIDL": b"+OK\r\n2 b\r\n.\r\n"}), own,
            code=UNAVAILABLE, words="1 of 2 mails no unique id|Subject: y")
    # What the server does not confirm is not called deleted.
    for reply in None, b"-ERR not deleted\r\n":
        peer = Pop3Peer([mail("x")], [f"q{next(numbers)}"], {"QUIT": reply})
        output = receive(peer, own, "-d", box, "--delete", code=TEMPORARY, words="did not confirm")
        assert "deleted on the server" not in output


def check_copies(folder):
    """Mails with one unique id are told apart by their numbers."""
    copies = [mail("first", b"1\r\n"), cut_off, mail("third", b"3\r\n"), mail("fourth", b"4\r\n")]
    cases = [  # the unique ids; a run before; what a run with --delete deletes
        ("uvuu", "", {1, 3, 4}),
        ("uuuu", "", {3, 4}),  # after the break nobody knows which one the first was
        ("uvuu", "-n1", {3, 4}),
        ("uuuu", "-n1", {3, 4}),
        ("uuuu", "-n1 --delete", {3, 4}),
    ]
    for uids, before, deleted in cases:
        own = os.path.join(folder, f"copies-{next(numbers)}")
        os.mkdir(own)
        peer = Pop3Peer(copies, uids)
        if before:
            receive(peer, own, "-d", own + "/box", *before.split())
        gone = set(peer.deleted)
        document = receive(peer, own, "-d", own + "/box", "--delete", "--json", code=TEMPORARY)
        assert peer.deleted - gone == deleted, (uids, before, peer.deleted)
        told = [each["number"] for each in document["messages"] if each["deleted"]]
        assert len(told) == len(deleted), (uids, before, document)
        assert sum(command.startswith("RETR") for command in peer.commands) == 4, peer.commands
        saved = []
        for path in files(own + "/box"):
            with open(os.path.join(own, "box", path)) as file:
                saved += [file.read()] if ".part" not in path else []
        assert sorted(saved) == ["1\n", "3\n", "4\n"], (uids, before, saved)


def check_default_list(folder):
    """Every mailbox has its own list; that of an older version is taken over once."""
    state = os.path.join(folder, "state", "tavmail")
    os.makedirs(state)
    with open(os.path.join(state, "anna@127.0.0.1.seen"), "w") as file:
        file.write("0 u1\n")
    login = ["--tls", "none", "--password-command", "echo geheim", "-q", "-d", folder + "/lists"]
    peers = [Pop3Peer([mail("x")]), Pop3Peer([mail("x")])]
    for peer, user, fetched in ((peers[0], "anna", 0), (peers[1], "anna", 1),
                                (peers[1], "CORP\\anna", 1), (peers[1], "SALES/anna", 1),
                                (peers[1], "anna", 0), (peers[1], "x" * 300, 1)):
        before = peer.commands.count("RETR 1")
        done = subprocess.run([TAVMAIL, "receive", "-s", peer.server, "-u", user, *login],
                              capture_output=True,
                              env=dict(ENVIRONMENT, XDG_STATE_HOME=os.path.dirname(state)))
        assert done.returncode == 0 and peer.commands.count("RETR 1") - before == fetched, user
    names = [name for name in os.listdir(state) if name.endswith(".seen")]
    assert len(names) == 5 and "anna@127.0.0.1.seen" not in names, names


def end_within(peer, command, kind, code, *arguments):
    """Sends the signal while the peer answers the command."""
    fetched = peer.commands.count(command)
    process = start(peer.server, *arguments)
    while peer.commands.count(command) == fetched:
        time.sleep(0.01)
    time.sleep(0.3)
    process.send_signal(kind)
    check_output(*process.communicate(timeout=30))
    assert process.returncode == code, process.returncode


def check_interrupts(folder):
    data = os.urandom(3 << 20)
    large = (b"Content-Type: application/pdf\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
             base64.encodebytes(data).replace(b"\n", b"\r\n"))
    for kind, code in ((signal.SIGINT, 130), (signal.SIGTERM, 143), (signal.SIGKILL, -9)):
        own = os.path.join(folder, f"interrupted-{code}")
        os.mkdir(own)
        box = os.path.join(own, "box")
        peer = Pop3Peer([mail("one"), large, mail("three")], slow=0.05)
        rounds = 2 if kind == signal.SIGKILL else 4  # only a killed run counts as a try
        for _ in range(rounds):
            end_within(peer, "RETR 2", kind, code, own, "-d", box, "--delete")
            assert not peer.deleted
        peer.slow = 0
        receive(peer, own, "-d", box, "--delete", words="1 earlier mail deleted|2 new mails")
        whole = [path for path in files(box) if ".part" not in path]
        assert len(whole) == 3 and peer.commands.count("RETR 1") == 1, files(box)
        assert sum(os.path.getsize(os.path.join(box, path)) == len(data) for path in whole) == 1
        assert kind == signal.SIGKILL or len(files(box)) == 3, files(box)
        assert peer.deleted == {1, 2, 3}, peer.deleted
    # Of a mail that three killed runs began nothing stays.
    peer = Pop3Peer([large], slow=0.05)
    own = os.path.join(folder, "killed")
    os.mkdir(own)
    for _ in range(3):
        end_within(peer, "RETR 1", signal.SIGKILL, -9, own, "-d", own + "/box")
    assert files(own + "/box")
    receive(peer, own, "-d", own + "/box", code=DATA, words="given up")
    assert os.listdir(own + "/box") == [], os.listdir(own + "/box")


def check_full_disk(folder):
    own = os.path.join(folder, "full")
    os.mkdir(own)
    peer = Pop3Peer([mail("small"), mail("large", b"line\r\n" * 50000)])
    box = os.path.join(own, "box")

    def limit():
        resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, 100_000))

    for _ in range(4):  # however often: it is not the mail's fault
        output = receive(peer, own, "-d", box, "--delete", code=CANNOT_CREATE,
                         words="cannot write|text.txt", preexec_fn=limit)
    assert not peer.deleted and files(box) == ["0001/text.txt"], files(box)
    assert "large" in receive(peer, own, "-d", box, "--delete") and peer.deleted == {1, 2}
    with open("/dev/full", "w") as full:
        process = subprocess.run([TAVMAIL, "completion", "bash"], stdout=full,
                                 stderr=subprocess.PIPE)
    assert process.returncode == 74 and b"standard output" in process.stderr, process


def check_usage(folder):
    """A script that asked for JSON gets one document whatever is wrong."""
    config = os.path.join(folder, "config.toml")
    with open(config, "w") as file:
        file.write('default = "a"\n[a.pop3]\nserver = "localhost"\nusr = "anna"\n')
    loop = os.path.join(folder, "loop")
    os.symlink(loop, loop)
    password = ["--password-command", "echo geheim"]
    cases = [
        (USAGE, "--server", ["receive", "-u", "anna"]),
        (USAGE, "--user", ["receive", "-s", "localhost"]),
        (USAGE, "--folder", ["receive", "-s", "localhost", "-u", "anna", "--delete"]),
        (USAGE, '"--server"', ["receive", "--sever", "x"]),
        (USAGE, "one of|none", ["receive", "-s", "x", "--tls", "ssl"]),
        (USAGE, "--user", ["doctor", "-s", "localhost:995"]),
        (USAGE, "nothing to examine", ["doctor"]),
        (USAGE, "--from", ["send", "-s", "x", "-t", "a@b.c", "--text", ""]),
        (CONFIG, 'config.toml:4: unknown key "usr"; did you mean "user"', [
            "receive", "--config", config]),
        (CONFIG, "config.toml:4", ["doctor", "--config", config]),
        (CONFIG, "no account", ["send", "--config", config, "-A", "b"]),
        (NO_INPUT, "symbolic links", ["send", "--config", loop]),
        (NO_INPUT, "too long", ["doctor", "--config", "x" * 300]),
        (NO_INPUT, "directory", ["receive", "--config", folder]),
        (NO_INPUT, "directory", ["receive", "-s", "x", "-u", "a", "--ca-file", folder]),
        (CANNOT_CREATE, "cannot make", ["receive", "-s", "x", "-u", "a", *password, "-d",
                                        config + "/x"]),
        (NO_HOST, "name", ["receive", "-s", "none.invalid", "-u", "a", *password, "--all"]),
        (CONFIG, "no password", ["receive", "-s", "x", "-u", "a", "--password-command", "true"]),
    ]
    for code, words, line in cases:
        done = subprocess.run([TAVMAIL, *line, "--json"], capture_output=True, timeout=60,
                              env=dict(ENVIRONMENT, TAV_DBGLOG=""))
        document = check_output(done.stdout, done.stderr)
        assert done.returncode == code == document["exit_code"], (line, done)
        for word in words.split("|")[:1]:
            assert word in document["problem"] and word in done.stderr.decode(), (word, done)


def check_memory(folder):
    line = base64.b64encode(bytes(57)) + b"\r\n"
    peaks = []

    def huge(stream):
        stream.write(b"Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n"
                     b"Content-Transfer-Encoding: base64\r\n"
                     b"Content-Disposition: attachment; filename=huge.bin\r\n\r\n")
        for _ in range(100):
            stream.write(line * (1048576 // 57 + 1))
        # From the kernel's view what a process took began before it became tavmail; this does not.
        with open(f"/proc/{process.pid}/status") as status:
            peaks.extend(int(row.split()[1]) for row in status if row.startswith("VmHWM"))
        stream.write(b"--b--\r\n.\r\n")

    process = start(Pop3Peer([huge]).server, folder, "--all", "-d", os.path.join(folder, "huge"))
    output, error = process.communicate(timeout=120)
    assert process.returncode == 0 and b"104.9 MB" in output, (output, error)
    # A sanitizer's shadow memory is not the tool's.
    with open(TAVMAIL, "rb") as binary:
        most = 400_000 if b"__asan_init" in binary.read() else 12_000
    assert peaks[0] < most, peaks


def places_of(secret, pid):
    """The parts of a process's memory that hold a text, one entry for each time."""
    found = []
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb", 0) as memory:
        for row in maps:
            begin, end = (int(number, 16) for number in row.split()[0].split("-"))
            if " rw" in row and end - begin < 1 << 30:  # a sanitizer's are larger
                memory.seek(begin)
                found += [row] * memory.read(end - begin).count(secret)
    return found


def check_secrets_in_memory(folder):
    """A password is in one place, wherever it came from, and however short it is."""
    def look(stream):
        places.append(places_of(secret.encode(), process.pid))
        stream.write(b"Subject: x\r\n\r\n.\r\n")

    config, file = (os.path.join(folder, name) for name in ("secret.toml", "secret"))
    for secret in "kurz+1a", "a password too long for any text to keep it within itself":
        peer = Pop3Peer([look], replies={"PASS": b"+OK\r\n"})
        for path, text in ((file, secret), (config, (
                f'[a.pop3]\nserver = "{peer.server}"\ntls = "none"\nuser = "anna"\n'
                f'password = "{secret}"\n'))):
            with open(path, "w") as out:
                out.write(text)
            os.chmod(path, 0o600)
        server = ["-s", peer.server, "--tls", "none", "-u", "anna"]
        for source in (["--config", config, "-A", "a"], [*server, "--password-file", file],
                       [*server, "--password-command", "cat " + file]):
            places = []
            process = subprocess.Popen([TAVMAIL, "receive", "--all", *source], env=ENVIRONMENT,
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            output, error = process.communicate(timeout=30)
            assert process.returncode == 0 and len(places[0]) == 1, (source, places, error)


def check_doctor(ports, ca):
    def doctor(code, words, port, *arguments, password="geheim", trusted=ca, protocol="pop3"):
        user = ["-u", "anna", "--password-command", "echo " + password] if protocol == "pop3" else []
        line = [TAVMAIL, "doctor", "--protocol", protocol, "-s", f"localhost:{ports[port]}",
                "--ca-file", trusted, *user, *arguments]
        for extra in [], ["--json"], ["-v"]:
            done = subprocess.run(line + extra, capture_output=True, timeout=60, env=ENVIRONMENT)
            assert done.returncode == code, (line, done)
            document = check_output(done.stdout, done.stderr)
            assert document is None or document["checkups"][0]["exit_code"] == code
            text = done.stdout.decode() if document is None else json.dumps(document)
            for word in words.split("|"):
                assert word in " ".join(text.split()), (word, text)

    doctor(0, "logged in|ready to receive|mailbox|TLSv1", "pop3")
    doctor(0, "logged in|ready to receive", "pop3", "--apop")
    doctor(0, "ready to receive", "pop3s", "--tls", "implicit")
    doctor(0, "ready to send|67108864 bytes", "smtp", protocol="smtp")
    for plain, inside, protocol in (("pop3", "pop3s", "pop3"),
                                    ("smtp", "smtps", "smtp")):
        doctor(PROTOCOL, "begins in clear text|use --tls starttls", plain, "--tls", "implicit",
               protocol=protocol)
        for mode in "starttls", "none":
            doctor(PROTOCOL, "speaks TLS from the first byte|use --tls implicit", inside, "--tls",
                   mode, "--timeout", "1", protocol=protocol)
    doctor(NO_PERMISSION, "refused the login of anna|check user and password", "pop3",
           password="falsch")


def on_terminal(line, *steps, timeout=30):
    """What a terminal of 80 columns shows, the exit code, and where it echoed: at each step and at
    the end. A step waits for a text and then sends keys or signals."""
    pid, terminal = pty.fork()
    if pid == 0:
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        os.execve(line[0], line, dict(ENVIRONMENT, TAV_DBGLOG="", PS1="$ "))
    shown, rest, steps, echoes, end = b"", b"", list(steps), [], time.time() + timeout

    def is_echoing():
        return bool(termios.tcgetattr(terminal)[3] & termios.ECHO)

    while time.time() < end:
        if select.select([terminal], [], [], 0.1)[0]:
            try:
                rest += os.read(terminal, 65536)
            except OSError:
                break
        if steps and steps[0][0] in rest:
            shown, rest = shown + rest, b""
            echoes.append(is_echoing())
            for action in steps.pop(0)[1:]:
                if isinstance(action, bytes):
                    os.write(terminal, action)
                else:
                    os.kill(pid, action)
    else:
        os.kill(pid, signal.SIGKILL)
    code = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    echoes.append(is_echoing())
    os.close(terminal)
    return (shown + rest).decode(), code, echoes


def check_terminal(folder):
    body = b"A line of a mail that is long enough to be seen.\r\n" * 40000
    peer = Pop3Peer([mail("slow", body)], slow=0.02)
    line = [TAVMAIL, "receive", "-s", peer.server, "-u", "anna", "--tls", "none", "--seen",
            os.path.join(folder, "terminal.seen"), "-d", os.path.join(folder, "terminal")]
    prompt = b"Password of anna at 127.0.0.1: "
    interrupted = "\r\ntavmail: interrupted\r\n"
    for end, expected, last in ((b"\x03", 130, interrupted), (signal.SIGTERM, 143, interrupted),
                                (signal.SIGHUP, 129, interrupted), (signal.SIGQUIT, -3, "\r\n")):
        shown, code, echoes = on_terminal(line, (prompt, b"gehei", end))
        assert code == expected and shown.endswith(last) and "gehei" not in shown, (code, shown)
        assert echoes == [False, True], (end, echoes)
    # Stopped and taken up again.
    shown, code, echoes = on_terminal(
        ["/bin/sh", "-i"], (b"$ ", " ".join(line).encode() + b" -n 1\r"), (prompt, b"gehei\x1a"),
        (b"$ ", b"fg\r"), (prompt, b"falsch\r"), (b"$ ", b"exit\r"))
    assert code == NO_PERMISSION and echoes == [True, False, True, False, True, True], (
        shown, echoes)
    assert "gehei" not in shown and "falsch" not in shown, shown
    shown, code, _ = on_terminal(line, (prompt, b"falsch\r"))
    assert code == NO_PERMISSION and "falsch" not in shown, shown
    assert all(columns(text) <= 80 for text in shown.splitlines()), shown
    shown, code, _ = on_terminal(line, (prompt, b"geheim\r"))
    assert code == 0 and "geheim" not in shown, (code, shown)
    bars = [bar for bar in shown.split("\r\x1b[K") if bar.startswith("Receiving mail 1 [")]
    assert len(bars) > 3 and all(columns(bar) < 80 and " % " in bar for bar in bars), shown
    for command in "send", "receive", "doctor", "completion":
        shown, _, _ = on_terminal([TAVMAIL, command, "--help"])
        assert all(columns(text) <= 80 for text in shown.splitlines()), shown


def main():
    with tempfile.TemporaryDirectory() as folder:
        authority, port_file = (os.path.join(folder, name) for name in ("ca.pem", "p"))
        host = subprocess.Popen(
            [HOST, "--any-port", "--ca-out", authority, "--ready-file", port_file, "--user",
             "anna:geheim", "--max-seconds", "170"], stdout=subprocess.DEVNULL)
        try:
            for check in (check_list_fetch_delete, check_hostile_names, check_hostile_forms,
                          check_broken_connections, check_copies, check_default_list,
                          check_interrupts, check_full_disk, check_usage, check_memory,
                          check_secrets_in_memory, check_terminal):
                check(folder)
            while not os.path.exists(port_file):
                time.sleep(0.05)
            with open(port_file) as file:
                ports = dict(line.strip().split("=") for line in file)
            check_doctor(ports, authority)
        finally:
            host.terminate()
            host.wait()
    print("tavmail receive: all as expected")


main()
