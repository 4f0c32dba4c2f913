"""Measures every client at every task and writes results.json."""

import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import check_mail
import programs
from harness import BODY_BYTES, CLIENTS, Server, make_file, mail_text, run_client

FILE_BYTES = 64 * 1024 * 1024
TEXT_BYTES = 2000
BASE64_LINES = {"send": (48, 66), "receive": (57, 78)}  # bytes and characters of a line
PACKAGES = {
    "curl": "libcurl3-gnutls",
    "etpan": "libetpan20",
    "gmime": "libgmime-3.0-0",
    "poco": "libpoconet80",
    "vmime": "libvmime1",
    "OpenSSL": "libssl3",
}
CLIENT_SECONDS = 12  # for all rounds of a client at a task; what is slower gets fewer rounds
RUN_SECONDS = 60


def wire_bytes(direction):
    line_bytes, line_text = BASE64_LINES[direction]
    return FILE_BYTES / line_bytes * line_text


class Task:
    """A task and the check of its result. Figures are given per `unit`."""

    def __init__(self, name, title, direction, count=0, tls=False, clients=None):
        self.name = name
        self.title = title
        self.direction = direction
        self.count = count
        self.tls = tls
        self.clients = clients or CLIENTS
        self.command = f"{direction}_{'small' if count else 'big'}"

    def units(self, count):
        return count if self.count else wire_bytes(self.direction) / 1e6


TASKS = [
    Task("send_big", "send 64 MiB", "send"),
    Task("receive_big", "receive 64 MiB", "receive"),
    Task("send_small", "send 2 KB mails, a connection each", "send", count=500),
    Task("receive_small", "receive 10 KB mails, one session", "receive", count=1000),
    Task("send_tls", "send 64 MiB over TLS", "send", tls=True, clients=["raw", "library"]),
    Task("receive_tls", "receive 64 MiB over TLS", "receive", tls=True, clients=["raw", "library"]),
]


def read_perf(report):
    return int(re.search(r"^(\d+),", report, re.M).group(1))


def read_strace(report):
    lines = re.findall(r"^\s*(\d+)\s+(\w+)\s*$", report, re.M)
    return sum(int(calls) for calls, name in lines if name != "total")


def pick_counter():
    """perf hardly slows the program down; strace is for machines where perf is not allowed."""
    perf = ["perf", "stat", "-x", ",", "-e", "raw_syscalls:sys_enter"]
    strace = ["strace", "-f", "-c", "-U", "calls,name"]
    for prefix, read in ((perf, read_perf), (strace, read_strace)):
        if shutil.which(prefix[0]) is None:
            continue
        done = subprocess.run([*prefix, "-o", "/dev/stdout", "true"], capture_output=True,
                              text=True, check=False)  # fmt: skip
        if done.returncode == 0 and re.search(r"^\s*\d", done.stdout, re.M):
            return prefix, read
    print("system calls are not counted: neither perf nor strace works here")
    return None


COUNTER = pick_counter()


class Bench:
    def __init__(self, build, work, rounds):
        self.build = build
        self.work = work
        self.rounds = rounds
        self.file = work / "file"
        self.content = make_file(self.file, FILE_BYTES)
        self.certificate = work / "server.pem"
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
             "-nodes", "-days", "2", "-subj", "/CN=localhost", "-addext",
             "subjectAltName=IP:127.0.0.1", "-keyout", self.certificate, "-out", work / "cert"],
            check=True, capture_output=True)  # fmt: skip
        with open(self.certificate, "a", encoding="ascii") as pem:
            pem.write((work / "cert").read_text(encoding="ascii"))

    def server(self, task, count, spool=None):
        tls = ["--certificate", self.certificate] if task.tls else []
        if task.direction == "send":
            return Server(self.build, "sink", *tls, *(["--spool", spool] if spool else []))
        box = ["--mails", count, "--size", BODY_BYTES] if task.count else ["--file", self.file]
        return Server(self.build, "source", *tls, *box)

    def run(self, task, client, count, keep=None, prefix=(), environment=None):
        """Runs once against a new server; returns the figures with the sink's totals."""
        is_send = task.direction == "send"
        server = self.server(task, count, keep if is_send else None)
        with server:
            command = [self.build / f"bench_{client}", task.command, "--port", server.port,
                       "--tls", int(task.tls)]  # fmt: skip
            if task.count:
                command += ["--count", count, "--size", TEXT_BYTES]
            elif is_send:
                command += ["--file", self.file]
            if keep and not is_send:
                command += ["--keep", keep]
            figures = run_client(command, RUN_SECONDS, prefix, environment)
        if figures is not None and is_send:
            require_mails(server.totals, max(count, 1), client)
            figures["received"] = server.totals["bytes"]
        return figures

    def check(self, task, client, count):
        """A run whose every byte is checked; returns its figures."""
        keep = self.work / "kept"
        figures = self.run(task, client, count, keep=keep)
        if figures is None:
            return None
        data = keep.read_bytes()
        keep.unlink()
        if task.direction == "send" and task.count:
            check_mail.check_small(data, count, TEXT_BYTES)
        elif task.direction == "send":
            check_mail.check_big(data, self.content)
        elif task.count:
            check_mail.check_received(data, count, BODY_BYTES)
        elif client == "raw":
            check_mail.require(len(data) > wire_bytes("receive"), "too few bytes")
        else:
            check_mail.require(data == self.content, "the attachment is not the file")
        return figures

    def system_calls(self, task, client, count):
        """Calls of the task alone: those of an idle run are subtracted."""
        if COUNTER is None:
            return None
        prefix, read = COUNTER
        report = self.work / "calls"
        prefix = [*prefix, "-o", str(report)]
        run_client([self.build / f"bench_{client}", "idle"], RUN_SECONDS, prefix)
        idle = read(report.read_text())
        if self.run(task, client, count, prefix=prefix) is None:
            return None
        return max(read(report.read_text()) - idle, 0)

    def heap(self, task, client, count):
        environment = dict(os.environ, LD_PRELOAD=str(self.build / "libbench_heap_count.so"))
        return self.run(task, client, count, environment=environment)


def require_mails(totals, count, client):
    if totals is None or totals["mails"] != count:
        raise check_mail.Wrong(f"{client}: the server took {totals} and not {count} mails")


def pick_count(bench, task, client):
    """Fewer mails for a client that would take minutes. Also checks them."""
    few = min(task.count, 50)
    try:
        figures = bench.check(task, client, few)
    except check_mail.Wrong as cause:
        raise check_mail.Wrong(f"{client}, {task.name}: {cause}") from cause
    if figures is None:
        return None, None
    is_slow = task.count and figures["wall_ms"] / few > 5
    return (few if is_slow else task.count), figures["received"] / max(few, 1)


def time_clients(bench, task, counts, sizes):
    """All clients take turns, so that a disturbance of the machine affects all of them."""
    runs = {client: [] for client in counts}
    spent = dict.fromkeys(counts, 0.0)
    # The cost of one small mail depends on how the system wakes processes: take more rounds.
    for number in range(bench.rounds * (4 if task.count else 1)):
        for client, count in counts.items():
            if spent[client] > CLIENT_SECONDS and number >= 3:
                continue
            begin = time.monotonic()
            figures = bench.run(task, client, count)
            spent[client] += time.monotonic() - begin
            if figures is None:
                continue
            off = abs(figures["received"] - sizes[client] * max(count, 1))
            if off > 4096 + 0.01 * figures["received"]:
                raise check_mail.Wrong(f"{client} {task.name}: {figures['received']} bytes")
            runs[client].append(figures)
    return runs


def summary(bench, task, client, count, runs, raw_runs):
    units = task.units(count)
    raw_units = task.units(task.count)
    walls = [run["wall_ms"] for run in runs]
    ratios = [
        (run["wall_ms"] / units) / (raw["wall_ms"] / raw_units) for run, raw in zip(runs, raw_runs)
    ]
    calls = bench.system_calls(task, client, count)
    heap = bench.heap(task, client, count)
    return {
        "rounds": len(runs),
        "wall_ms": statistics.median(walls),
        "wall_ms_best": min(walls),
        "wall_us_per_mail": statistics.median(walls) * 1e3 / count if task.count else None,
        "ratio_to_raw": statistics.median(ratios),
        "cpu_ms_per_unit": statistics.median(run["cpu_ms"] for run in runs) / units,
        "system_calls_per_unit": None if calls is None else calls / units,
        "peak_mib": statistics.median(run["peak_kib"] for run in runs) / 1024,
        "allocations_per_unit": heap["allocations"] / units,
        "utl_allocations_per_unit": heap["utl_allocations"] / units,
        "heap_peak_kib": heap["heap_peak"] / 1024,
    }


def measure(bench, task):
    print(f"{task.name}:", flush=True)
    counts = {}
    sizes = {}
    for client in task.clients:
        if not (bench.build / f"bench_{client}").exists():
            print(f"  {client}: skipped, it was not built", flush=True)
            continue
        count, size = pick_count(bench, task, client)
        if count is None:
            print(f"  {client}: skipped, it does not know the task", flush=True)
            continue
        counts[client] = count
        sizes[client] = size
    runs = time_clients(bench, task, counts, sizes)
    rows = {}
    for client, count in counts.items():
        rows[client] = summary(bench, task, client, count, runs[client], runs["raw"])
        row = rows[client]
        print(
            f"  {client:10} {row['wall_ms']:9.1f} ms  {row['ratio_to_raw']:6.2f} x raw  "
            f"{row['cpu_ms_per_unit']:8.4f} CPU ms  {row['system_calls_per_unit'] or 0:8.1f} calls  "
            f"{row['peak_mib']:6.1f} MiB  {row['allocations_per_unit']:8.1f} allocations",
            flush=True,
        )
    return {"title": task.title, "unit": "mail" if task.count else "MB", "clients": rows}


def version_of(package):
    done = subprocess.run(
        ["dpkg-query", "-W", "-f=${Version}", package], capture_output=True, text=True, check=False
    )
    return done.stdout.strip() or None


def machine():
    model = re.search(r"^model name\s*:\s*(.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    compiler = subprocess.run(["c++", "--version"], capture_output=True, text=True, check=False)
    return {
        "cpu": model.group(1) if model else platform.machine(),
        "cores": os.cpu_count(),
        "memory_gib": round(os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / 2**30),
        "kernel": platform.release(),
        "debian": pathlib.Path("/etc/debian_version").read_text().strip(),
        "compiler": compiler.stdout.splitlines()[0],
        "load": os.getloadavg()[0],
    }


def stripped_size(build, work):
    library = next(build.parent.glob("**/libtaveml.so.3.*"))
    subprocess.run(["strip", "-o", work / "stripped", library], check=True)
    return (work / "stripped").stat().st_size


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--task", action="append", help="only this one, without writing results")
    options = parser.parse_args()
    build = options.build.resolve() / "bench"
    with tempfile.TemporaryDirectory(dir="/dev/shm") as work:
        bench = Bench(build, pathlib.Path(work), options.rounds)
        results = {
            "date": datetime.date.today().isoformat(),
            "machine": machine(),
            "rounds": options.rounds,
            "versions": {name: version_of(package) for name, package in PACKAGES.items()},
            "library_bytes": stripped_size(build, pathlib.Path(work)),
            "tasks": {
                task.name: measure(bench, task)
                for task in TASKS
                if not options.task or task.name in options.task
            },
        }
        if not options.task:
            results["programs"] = programs.measure(build, pathlib.Path(work), options.rounds)
    if options.task:
        return
    path = pathlib.Path(__file__).parent / "results.json"
    path.write_text(json.dumps(results, indent=2) + "\n", encoding="utf-8")


if __name__ == "__main__":
    try:
        main()
    except (check_mail.Wrong, RuntimeError) as cause:
        sys.exit(str(cause))
