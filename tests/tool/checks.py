"""What no table of runs shows: checks.py TAVMAIL TAVMAIL_HOST

Names and headers as senders write them, terminals, and clients that want too much of the host."""

import base64
import contextlib
import json
import mailbox
import os
import pty
import re
import resource
import select
import shutil
import signal
import smtplib
import socket
import ssl
import subprocess
import tempfile
import termios
import time
from pathlib import Path

from provider import Provider
from runs import HOST, TAVMAIL, Host, columns, environment, faults_of, talk

# The name of a file in a mail, and that of the file that is saved.
NAMES = [
    ("report.pdf", "report.pdf"), ("報告 1.pdf", "報告 1.pdf"), ("../../etc/passwd", "passwd"),
    ("C:\\users\\a.txt", "a.txt"), ("a/", "text.txt"), ("..", "text-2.txt"), (" . ", "text-3.txt"),
    ("", "text-4.txt"), (".profile", "profile"), ("a.exe. .", "a.exe"), ("\r\n\x1b[2Jc", "[2Jc"),
    ("a\x9bb\xa0c", "a  b\xa0c"), ("co\u202ed.exe", "co   d.exe"), ("a\u200b\u2066z", "a   z"),
    ("<a>:\"b\"|c?*.txt", "_a___b__c__.txt"), ("CON", "_CON"), ("nul.tar.gz", "_nul.tar.gz"),
    ("Lpt1 .txt", "_Lpt1 .txt"), ("com10", "com10"), ("console.txt", "console.txt"),
    ("-rf", "_-rf"), ("same.txt", "same.txt"), ("same.txt", "same-2.txt"), ("x" * 300, "x" * 200),
    ("x" * 300 + ".pdf", "x" * 196 + ".pdf"), ("日" * 100 + ".tiff", "日" * 65 + ".tiff"),
    ("filename*=EUC-JP'ja'%C6%FC%CB%DC", "日本"), ("filename*=gb2312''%CE%E4", "武"),
    ("filename=\"=?KOI8-R?B?z8s=?= =?utf-8?Q?_?=\"", "ок"),
    ("filename*0*=UTF-8''%E6%97;\r\n filename*1*=%A5%zz; filename*2=\"%41.p\"", "日%zz%41.p"),
    ("filename*0=a; filename*1*=''b; filename*3=c", "a''b"),
]
# A subject, the character set that its mail names, and what is shown.
SUBJECTS = [
    (b"plain", "", "plain"), ("日本".encode(), "koi8-r", "日本"), (b"\x1b$BF|K\\\x1b(B", "", "日本"),
    (b"\x93\xfa\x96{\x87\x40", "", "日本①"), (b"\x93\xfa\x96{", "Windows-31J", "日本"),
    (b"caf\xe9", "no-such-set", "café"), (b"\xff\xfe\x80", "utf-8", "ÿþ"),
    (b"=?utf-8?q?a=5Fb=3f?=_c", "", "a_b?_c"), (b"=?utf-8?B?QV9C?= =?utf-8?Q?C_D?=", "", "A_BC D"),
    (b"=?utf-8?Q?one?=\t  =?utf-8?Q?two?= three =?utf-8?Q?four?=", "", "onetwo three four"),
    (b"=?iso-8859-1?Q?caf=E9?= =?iso-2022-jp?B?GyRCRnxLXBsoQg==?= =?KOI8-R?B?z8s=?=", "",
     "café日本ок"),
    (b"=?utf-8?Q?=E6=97?= =?UTF-8*ja?B?pQ==?=", "", "日"),
    (b"=?shift_jis?B?k/qWew==?=?", "", "日本?"), (b"=?../../x//y?Q?=E9?=", "", "é"),
    (b"Re: =?utf-8?Q?a b?= (=?utf-8?Q?c?=)", "", "Re: a b (c)"),
    (b"=?utf-8?Q?=C3=A4?= =?none?Q?=C3=A4?=", "", "ää"), (b"=?utf-8?Q?50=% =4?=", "", "50=% =4"),
    (b"=?utf-8?X?a?= =?utf-8?Q?b", "", "=?utf-8?X?a?= =?utf-8?Q?b"),
    (b"=?a?=? =?utf-8?Q?x_y?=", "", "=?a?=? x y"), (b"=?=?=?utf-8?Q?x?=", "", "=?=?x"),
    (b"a\x1b]0;x\x07b\xc2\x9bc", "", "a ]0;x b  c"), ("\u200bé".encode(), "", "\u200bé"),
    ("a\u202eb\u2066c\u2028d".encode(), "", "a   b   c   d"),
    ("日".encode() * 1200, "", "日" * 666),
    ("日本語の文 e\u0301 x ".encode() * 40, "", ("日本語の文 e\u0301 x " * 40)[:-1]),
]


# The type of a text, its bytes, and what is saved as UTF-8.
JAPANESE = "日本語の文①\n" * 20000 + "終"
TEXTS = [
    ("text/plain; charset=Shift_JIS", JAPANESE.encode("cp932"), JAPANESE),
    ("text/plain; charset=iso-2022-jp", JAPANESE.replace("①", "一").encode("iso-2022-jp"),
     JAPANESE.replace("①", "一")),
    ("text/plain", "本\n".encode("iso-2022-jp"), "本\n"), ("text/plain", "é\n".encode(), "é\n"),
    ("text/plain; charset=utf-16", ("é" * 50000).encode("utf-16"), "é" * 50000),
    ("text/plain; charset=GB2312", ("武a" * 50000).encode("gb2312"), "武a" * 50000),
    ("text/plain; charset=shift_jis", ("本a" * 50000).encode("cp932"), "本a" * 50000),
    ("text/html; charset=windows-1252", "<p>€</p>".encode("cp1252"), "\ufeff<p>€</p>"),
    # As they came: what cannot be read, what names its set itself, and files.
    ("text/plain; charset=shift_jis", b"a" * 70000 + b"\x93", b"a" * 70000 + b"\x93"),
    ("text/plain; charset=nobody", b"\xe9", b"\xe9"), ("text/plain; charset=gbk", b"", b""),
    ("text/xml; charset=koi8-r", b"\xcf", b"\xcf"),
    ("text/plain; charset=koi8-r; name=a.txt", b"\xcf", b"\xcf"),
]
# Mails that formats and readers could spoil.
WHOLE = [
    b"", b"\r\n", b"Subject: a\r\n\r\n.\r\n..\r\n.x\r\n\r\n", b"A: \0\xff\r\n\r\n" + b"x" * 99999,
    b"From x\r\nStatus: R\r\nX-STATUS: y\r\nContent-Length: 9\r\nSta: z\r\n\r\nStatus: x\r\n",
    b"Return-Path: <a@b>\r\n\r\n>From x\r\n>>>From\r\n" + b">" * 99999 + b"From x\r\nFrom\r\nFro",
    b"Return-Path: a b\r\nContent-Length: 99999\r\n\r\nlone\r return\r\r\n\rFrom x\r\n",
]


def login(host):
    return ["receive", "-s", "127.0.0.1:" + host.ports["pop3"], "--tls", "none", "-u", "anna"]


def receive(host, *arguments):
    line = [TAVMAIL, *login(host), "--password-command", "echo geheim", "--all", *arguments]
    done = subprocess.run(line, cwd=host.folder, env=environment(host.folder), timeout=30,
                          capture_output=True, check=True)
    assert not faults_of(done.stdout.decode()), faults_of(done.stdout.decode())
    return done.stdout.decode()


def host_with(folder, *mails, **more):
    adds = []
    for number, mail in enumerate(mails):
        adds += ["--add", f"mail{number}"]
        Path(folder, adds[-1]).write_bytes(mail)
    return Host(folder, options=adds, **more)


def check_names(folder):
    def parameter(name):
        word = base64.b64encode(name.encode()).decode()
        return name if name.startswith("filename") else f'filename="=?utf-8?B?{word}?="'
    mail = "Content-Type: multipart/mixed; boundary=b\r\n\r\n" + "".join(
        f"--b\r\nContent-Disposition: attachment; {parameter(name)}\r\n\r\nx\r\n"
        for name, _ in NAMES) + "--b--\r\n"
    host = host_with(folder, mail.encode())
    parts = json.loads(receive(host, "-d", "box", "--json"))["messages"][0]["parts"]
    saved = [os.path.basename(part["file"]) for part in parts]
    wrong = [(*row, name) for row, name in zip(NAMES, saved) if row[1] != name]
    assert not wrong and len(saved) == len(NAMES), wrong
    assert sorted(os.listdir(folder + "/box/0001")) == sorted(saved)
    return host


def check_subjects(folder):
    host = host_with(folder, *[
        b"Subject: %s\r\nContent-Type: text/plain; charset=%s\r\n\r\n" % (
            subject, char_set.encode()) for subject, char_set, _ in SUBJECTS])
    shown = [mail["subject"] for mail in json.loads(receive(host, "--json"))["messages"]]
    wrong = [(*row, text) for row, text in zip(SUBJECTS, shown) if row[2] != text]
    assert not wrong and len(shown) == len(SUBJECTS), wrong
    assert all(columns(line) <= 80 for line in receive(host).splitlines())
    return host


def check_texts(folder):
    """Texts are saved as UTF-8, in bounded memory, and the set that they came in is told."""
    host = host_with(folder, *[
        f"Content-Type: {kind}\r\nContent-Transfer-Encoding: base64\r\n\r\n".encode() +
        base64.encodebytes(text) for kind, text, _ in TEXTS])
    for box, option, wanted in (
            ("utf8", [], [text.encode() if isinstance(text, str) else text for *_, text in TEXTS]),
            ("kept", ["--original-charset"], [text for _, text, _ in TEXTS])):
        told = json.loads(receive(host, "-d", box, "--json", *option))["messages"]
        saved = [Path(folder, box, mail["parts"][0]["file"]).read_bytes() for mail in told]
        assert saved == wanted, [(kind, text[:50]) for (kind, *_), text in zip(TEXTS, saved)]
        assert told[0]["parts"][0]["charset"] == "Shift_JIS", told[0]
        assert [mail["parts"][0]["bytes"] for mail in told] == list(map(len, wanted))
    return host


def check_whole_mails(folder):
    """Every byte arrives, in pieces of any size, and each mail is one for another reader."""
    host = host_with(folder, *WHOLE, script="".join(
        f"RETR {number} drip 1ms\n" for number in (3, 5, 10, 12, 17, 19)))
    sent = [mail if mail.endswith(b"\n") or not mail else mail + b"\r\n" for mail in WHOLE]
    lines = [mail.replace(b"\r\n", b"\n") for mail in sent]
    receive(host, "-d", "eml", "--format", "eml")
    assert [Path(folder, f"eml/{n:04d}.eml").read_bytes() for n in range(1, 8)] == sent
    receive(host, "-d", "maildir", "--format", "maildir")
    found = [path.read_bytes() for path in Path(folder, "maildir/new").iterdir()]
    assert sorted(found) == sorted(lines) and len(mailbox.Maildir(folder + "/maildir")) == 7
    for _ in range(2):  # one is added to what is there
        receive(host, "-d", "mbox", "--format", "mbox")
    mails = [mailbox.mbox(folder + "/mbox").get_bytes(n, from_=False) for n in range(14)]
    assert [mail.count(b"\nOld-") for mail in mails] == [0, 0, 0, 0, 3, 0, 1] * 2, mails
    plain = [re.sub(rb"(?m)^>(?=>*From )", b"", mail.replace(b"Old-", b"")) for mail in mails]
    assert plain == lines * 2, plain
    begins = [mail.get_from().split()[0] for mail in mailbox.mbox(folder + "/mbox")]
    assert begins == (["MAILER-DAEMON"] * 5 + ["a@b", "MAILER-DAEMON"]) * 2, begins
    return host


def on_terminal(folder, line, *steps):
    """What a terminal of 80 columns shows, the exit code, and where it echoed: at each step and at
    the end. A step waits for a text and then sends keys or signals, or calls a function."""
    pid, terminal = pty.fork()
    if pid == 0:
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        os.chdir(folder)
        os.execve(line[0], line, environment(folder, TAV_DBGLOG="", PS1="$ ", TERM="xterm"))
    shown, rest, steps, echoes, end = b"", b"", list(steps), [], time.time() + 60

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
                elif callable(action):
                    action(shown.decode())
                else:
                    os.kill(pid, action)
    else:
        os.kill(pid, signal.SIGKILL)
    code = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    echoes.append(is_echoing())
    os.close(terminal)
    return (shown + rest).decode(), code, echoes


def check_terminal(folder):
    """The password is asked for without echo, which comes back however the run ends."""
    parts = b"--b\r\n\r\nA part of a mail.\r\n" * 20 + b"--b--"  # each may draw the bar anew
    mail = b"Content-Type: multipart/mixed; boundary=b\r\n\r\n" + parts
    host = host_with(folder, mail, script="RETR drip 2ms")
    line = [TAVMAIL, *login(host), "-d", "box"]
    prompt = b"Password of anna at 127.0.0.1: "
    interrupted = "\r\ntavmail: interrupted\r\n"
    for end, code, last in ((b"\x03", 130, interrupted), (signal.SIGTERM, 143, interrupted),
                            (signal.SIGHUP, 129, interrupted), (signal.SIGQUIT, -3, "\r\n")):
        shown, ended, echoes = on_terminal(folder, line, (prompt, b"gehei", end))
        assert ended == code and shown.endswith(last) and "gehei" not in shown, (ended, shown)
        assert echoes == [False, True], (end, echoes)
    # Stopped and taken up again.
    shown, code, echoes = on_terminal(
        folder, ["/bin/sh", "-i"], (b"$ ", " ".join(line).encode() + b" -n 1\r"),
        (prompt, b"gehei\x1a"), (b"$ ", b"fg\r"), (prompt, b"falsch\r"), (b"$ ", b"exit\r"))
    assert code == 77 and echoes == [True, False, True, False, True, True], (shown, echoes)
    assert "gehei" not in shown and "falsch" not in shown, shown
    shown, code, _ = on_terminal(folder, line, (prompt, b"geheim\r"))
    assert code == 0 and "geheim" not in shown, (code, shown)
    line = [TAVMAIL, "sendmail", "-s", "127.0.0.1:" + host.ports["smtp"], "--tls", "none", "a@b"]
    _, code, _ = on_terminal(folder, line, (b"", b"From: a@b\r\rx\r\x04"))
    assert code == 0, "the end of a mail is told once"
    bars = [bar for bar in shown.split("\r\x1b[K") if bar.startswith("Receiving mail 1 [")]
    assert len(bars) > 1 and all(columns(bar) < 80 and " % " in bar for bar in bars), shown
    return host


def check_completion(folder):
    """zsh completes the names of accounts; for other shells see runs.txt."""
    if not os.path.exists("/usr/bin/zsh"):
        return
    Path(folder, "config", "tavmail").mkdir(parents=True)
    Path(folder, "config", "tavmail", "config.toml").write_text("[home.pop3]\n[office.pop3]\n")
    begin = (f"autoload -U compinit; compinit -D -u; tavmail() {{ {TAVMAIL} $@ }};"
             " . <(tavmail completion zsh); echo rea''dy\r")
    # ^U, not ^C, empties the line: ^C would only end a completion that is still at work.
    shown, code, _ = on_terminal(
        folder, ["/usr/bin/zsh", "-f", "-i"], (b"$ ", begin.encode()),
        (b"ready", b"tavmail receive -A home,o\t"), (b"home,office", b"\x15exit 0\r"))
    assert code == 0, (code, shown)


def check_consent_on_terminal(folder):
    """A square to scan, and how long the code holds."""
    provider = Provider(folder)
    provider.words = ["device", "authorization_pending", "ok"]
    place = f"http://127.0.0.1:{provider.server_port}"
    Path(folder, "own").write_text(f"[a.oauth]\ndevice_endpoint = '{place}/device'\n"
                                   f"token_endpoint = '{place}/token'\nclient_id = 'tool'\n")
    shown, code, _ = on_terminal(folder, [TAVMAIL, "authorize", "a", "--config", "own"])
    square = re.findall("\x1b\\[30;107m([ ▀▄█]+)\x1b", shown)
    assert code == 0 and "the code holds for 0:5" in shown, shown
    assert len(square) == (len(square[0]) + 1) // 2 > 10 and len(set(map(len, square))) == 1, shown


def check_terminal_of_host(folder):
    """Colours on a terminal; Ctrl-C ends it and takes the private folder along."""
    def quit_at_once(shown):
        assert os.listdir(folder + "/tmp")
        talk("127.0.0.1:" + shown.split("smtp   ")[1].split()[0], "QUIT")
    shown, code, _ = on_terminal(folder, [HOST, "--any-port"], (b"  mails  ", quit_at_once),
                                 (b"closed", b"\x03"))
    assert "\x1b[36mC: QUIT\x1b[0m" in shown and "\x1b[32mS: 220" in shown, shown
    assert code == 0 and not os.listdir(folder + "/tmp"), code


def check_greedy_clients(folder):
    """Forty clients that say nothing, one that asks and does not listen, and nobody who reads what
    the host tells leave room for another client."""
    host = host_with(folder, b"line\n" * 30000, output=subprocess.PIPE)
    idle = [socket.create_connection(("127.0.0.1", host.ports["smtps"])) for _ in range(40)]
    greedy = socket.create_connection(("127.0.0.1", host.ports["pop3"]), 0.5)
    greedy.sendall(b"USER anna\r\nPASS geheim\r\n")
    with contextlib.suppress(socket.timeout):
        for _ in range(400):
            greedy.sendall(b"RETR 1\r\n" * 10000)
        assert False, "reads for ever"
    taken = Path(f"/proc/{host.process.pid}/status").read_text()
    assert int(re.search(r"VmRSS:\s+(\d+)", taken)[1]) < 300_000, taken
    for lines, answer in ((["x" * 100000], "500 5.5.2 the line is too long"),
                          (["NOOP"] * 3000 + ["QUIT"], "221 2.0.0 bye")):
        said = talk("127.0.0.1:" + host.ports["smtp"], *lines, patience=9)[1]
        assert answer in said, said
    # A client that others wrote.
    with smtplib.SMTP("127.0.0.1", int(host.ports["smtp"])) as client:
        client.starttls(context=ssl.create_default_context(cafile=host.ca))
        client.login("anna", "geheim")
        client.sendmail("a@b.c", ["x@y.z"], "text")
    for client in idle + [greedy]:
        client.close()
    return host


def check_modules(folder):
    """The tool starts without the libraries of its modules, and says what it cannot load."""
    needed = subprocess.run(["ldd", TAVMAIL], capture_output=True, text=True, check=True).stdout
    assert not re.search("curl|qrencode|gmime", needed), needed
    own = shutil.copy(TAVMAIL, folder)
    here = environment(folder, LD_LIBRARY_PATH=re.search("=> (.*)/libtaveml", needed)[1])
    Path(folder, "system.toml").write_text("a.oauth.device_endpoint = 'https://localhost/'")
    for module, line in ("authorize", "authorize a"), ("mime", "send -s x -f a@b -t a@b --html x"):
        run = subprocess.run([own, *line.split()], env=here, capture_output=True, text=True)
        said = re.search(f"cannot load .*/tavmail-{module}.so: .*; install ", run.stderr)
        assert said and run.returncode == os.EX_UNAVAILABLE, run


for check in (check_names, check_subjects, check_texts, check_whole_mails, check_terminal,
              check_completion, check_consent_on_terminal, check_terminal_of_host,
              check_greedy_clients, check_modules):
    with tempfile.TemporaryDirectory() as own:
        os.mkdir(os.path.join(own, "tmp"))
        used = check(own)
        faults = used.stop() if used else []
        assert not faults, faults
        print(check.__name__ + ": as expected")
