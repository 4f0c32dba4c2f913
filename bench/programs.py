"""Measures the programs themselves, a process for each mail: tavmail, msmtp, curl.

Part of measure.py; by itself it puts its rows into results.json and leaves the others as they are:

    programs.py BUILD [--rounds N]
"""

import argparse
import json
import os
import pathlib
import shutil
import statistics
import sys
import tempfile
import time

import check_mail
from harness import Server, mail_text, make_file

FILE_BYTES = 64 * 1024 * 1024
TEXT_BYTES = 2000
MAILS = 50  # of a round, for the small ones
HEADER = b"From: a@example.com\r\nTo: b@example.com\r\nSubject: Report\r\n\r\n"
ENVELOPE = ["a@example.com", "b@example.com"]


def commands(tavmail, port, work):
    """The tasks: title, how many mails in a row, and for each program the command and its input."""
    sender, recipient = ENVELOPE
    small, file, ready = work / "small", work / "file", work / "ready"
    tool = ["-s", f"127.0.0.1:{port}", "--tls", "none", "-q"]
    curl = ["curl", "--silent", f"smtp://127.0.0.1:{port}/bench", "--mail-from", sender,
            "--mail-rcpt", recipient]  # fmt: skip
    msmtp = ["msmtp", "--file=/dev/null", "--host=127.0.0.1", f"--port={port}", "--tls=off",
             "--auth=off", f"--from={sender}", recipient]  # fmt: skip
    addresses = ["-f", sender, "-t", recipient, "-S", "Report"]
    headers = [word for line in HEADER.decode().split("\r\n")[:3] for word in ("-H", line)]
    return {
        "program_small": ("a 2 KB mail", MAILS, {
            "tavmail": ([tavmail, "send", *tool, *addresses, "--text-file", work / "text"], None),
            "tavmail sendmail": ([tavmail, "sendmail", *tool[:-1], "-f", sender, recipient], small),
            "msmtp": (msmtp, small),
            "curl": ([*curl, "--upload-file", small], None),
        }),
        "program_big": ("a mail with a file of 64 MiB", 1, {
            "tavmail": ([tavmail, "send", *tool, *addresses, "--text", "Here it is.", "-a", file,
                         "--content-type", "image/tiff"], None),
            "curl": ([*curl, *headers, "-F", "=Here it is.;type=text/plain", "-F",
                      f"=@{file};type=image/tiff;encoder=base64"], None),
        }),
        "program_ready": ("a mail of 92 MB that is ready", 1, {
            "tavmail sendmail": ([tavmail, "sendmail", *tool[:-1], "-f", sender, recipient], ready),
            "msmtp": (msmtp, ready),
            "curl": ([*curl, "--upload-file", ready], None),
        }),
    }  # fmt: skip


def run(command, source):
    """Runs a process; returns its CPU time in ms."""
    with open(source or "/dev/null", "rb") as standard_input:
        pid = os.posix_spawn(shutil.which(command[0]), [str(word) for word in command], os.environ,
                             file_actions=[(os.POSIX_SPAWN_DUP2, standard_input.fileno(), 0)])
        _, status, usage = os.wait4(pid, 0)
    if status != 0:
        raise RuntimeError(f"{command[0]} ends with {status}")
    return (usage.ru_utime + usage.ru_stime) * 1e3


def measure_round(build, tavmail, work, name, program, keep=None):
    options = ["--spool", keep] if keep else []
    with Server(build, "sink", *options) as server:
        _, mails, programs = commands(tavmail, server.port, work)[name]
        begin = time.monotonic()
        cpu = [run(*programs[program]) for _ in range(mails)]
        wall = (time.monotonic() - begin) * 1e3 / mails
    if server.totals["mails"] != mails:
        raise check_mail.Wrong(f"{program}: the server took {server.totals['mails']} mails")
    return {"wall_ms": wall, "cpu_ms": statistics.mean(cpu)}


def check(build, tavmail, work, name, program, content):
    keep = work / "kept"
    measure_round(build, tavmail, work, name, program, keep)
    if name == "program_small":
        # A body that was encoded does not show its lines.
        data = keep.read_bytes()
        check_mail.require(data.count(b"\r\n.\r\n") == MAILS, f"{program}: not all mails came")
    else:
        check_mail.check_big(keep.read_bytes(), content)
    keep.unlink()


def ready_mail(build, tavmail, work):
    """What tavmail sends with the file, without dots doubled: base64 has none."""
    keep = work / "kept"
    measure_round(build, tavmail, work, "program_big", "tavmail", keep)
    (work / "ready").write_bytes(keep.read_bytes().removesuffix(b"\r\n.\r\n") + b"\r\n")
    keep.unlink()


def measure(build, work, rounds):
    """All programs take turns, as the clients of measure.py do."""
    tavmail = build.parent / "tool" / "tavmail"
    os.environ["XDG_CONFIG_HOME"] = os.environ["TAVMAIL_SYSTEM_CONFIG"] = str(work / "none")
    content = make_file(work / "file", FILE_BYTES)
    (work / "text").write_bytes(mail_text(TEXT_BYTES))
    (work / "small").write_bytes(HEADER + mail_text(TEXT_BYTES))
    ready_mail(build, tavmail, work)
    results = {}
    for name, (title, _, programs) in commands(tavmail, 0, work).items():
        there = [program for program, (command, _) in programs.items() if shutil.which(command[0])]
        for program in there:
            check(build, tavmail, work, name, program, content)
        runs = {program: [] for program in there}
        for _ in range(rounds):
            for program in there:
                runs[program].append(measure_round(build, tavmail, work, name, program))
        rows = {program: {figure: statistics.median(each[figure] for each in own)
                          for figure in own[0]} for program, own in runs.items()}  # fmt: skip
        for program, row in rows.items():
            print(f"  {title:30} {program:17} {row['wall_ms']:8.1f} ms {row['cpu_ms']:8.1f} CPU ms",
                  flush=True)  # fmt: skip
        results[name] = {"title": title, "programs": rows, "rounds": rounds}
    return {"load": os.getloadavg()[0], "tasks": results}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--rounds", type=int, default=7)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(dir="/dev/shm") as work:
        rows = measure(options.build.resolve() / "bench", pathlib.Path(work), options.rounds)
    path = pathlib.Path(__file__).parent / "results.json"
    results = json.loads(path.read_text(encoding="utf-8"))
    results["programs"] = rows
    path.write_text(json.dumps(results, indent=2) + "\n", encoding="utf-8")


if __name__ == "__main__":
    try:
        main()
    except (check_mail.Wrong, RuntimeError) as cause:
        sys.exit(str(cause))
