"""Writes docs/benchmarks.md and docs/benchmarks.svg from bench/results.json."""

import json
import pathlib

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
DOCS = HERE.parent / "docs"
NAMES = {
    "raw": "raw",
    "reference": "streaming reference",
    "library": "libtaveml",
    "curl": "libcurl",
    "etpan": "libetpan",
    "gmime": "GMime over a socket",
    "poco": "Poco",
    "vmime": "vmime",
}
YARDSTICKS = ("raw", "reference")

# What we aim at: task, figure of the library, limit, its unit.
AIMS = [
    ("send_big", "ratio_to_raw", 1.8, "times raw"),
    ("send_big", "cpu_ms_per_unit", 0.7, "CPU ms per MB"),
    ("send_big", "system_calls_per_unit", 15, "system calls per MB"),
    ("send_big", "peak_mib", 6, "MiB peak"),
    ("send_big", "heap_peak_kib", 256, "KiB of heap, the application's piece included"),
    ("receive_big", "ratio_to_raw", 2, "times raw"),
    ("receive_big", "cpu_ms_per_unit", 0.8, "CPU ms per MB"),
    ("receive_big", "peak_mib", 6, "MiB peak"),
    ("receive_big", "heap_peak_kib", 256, "KiB of heap"),
    ("send_small", "ratio_to_raw", 1.1, "times raw"),
    ("receive_small", "ratio_to_raw", 1.5, "times raw"),
    ("send_tls", "ratio_to_raw", 1.1, "times OpenSSL alone"),
    ("receive_tls", "ratio_to_raw", 1.1, "times OpenSSL alone"),
]

INTRODUCTION = """\
# Benchmarks

What sending and receiving costs with this library, with other mail libraries, and with no library
at all. Written by `bench/run`; do not edit.

## What is measured

Every client is a program of its own that does one task against a small server in another process,
over the loopback interface. The tasks:

- **send 64 MiB**: a mail with a short text and a file of 64 MiB as a base64 attachment, 92 MB on
  the wire with lines of 64 characters.
- **receive 64 MiB**: the same file in lines of 76 characters over POP3, decoded and dropped. MB are
  those on the wire.
- **send 2 KB mails, a connection each**, and **receive 10 KB mails, one session**.
- The two big ones over TLS.

The clients:

- **raw** holds the same conversation over a plain socket and moves the same bytes in pieces of
  64 KB: encoded before the clock starts, not decoded at all. Over TLS it is OpenSSL alone.
- The **streaming reference** is written by hand for the two big tasks and nothing else, with vector
  base64.
- **libtaveml** through its exported interface. The application reads the file in pieces, hands them
  over and takes the decoded blocks out.
- **libcurl**: its mime API; its POP3 with a decoder by table. **GMime** has no transport: its
  stream stands on a socket. **libetpan**, **Poco** and **vmime**: what each offers for the task.
  With the small mails the others hand over the text as it came; this library reads the header too.
  libetpan by itself does not wait for the reply to QUIT; here it does, as all do. The round trip
  that it saves otherwise would put it ahead in the row of the 2 KB mails (1.02 x raw).

Before anything is timed, one run of each client is checked: what was sent is taken apart by
Python's email package and compared with the file byte for byte, and so is what was received. The
count of mails and bytes is checked in every run. All clients take turns, round by round; **x raw**
is the median of the ratios to the raw client of the same round. CPU time is that of the client.
System calls are counted in a run of their own without those of starting and ending the program,
allocations and the peak of the heap in another one. **Peak** is the resident memory of the whole
process at its greatest, the shared libraries included.

To repeat it: `bench/run` on Debian 12. It installs what is missing. A client whose packages cannot
be had is left out, visibly.
"""

PROGRAMS = """\
### The programs

A process for each mail, from its start to its end, over a plain connection to the same server. A
message that is ready comes through the standard input, or for curl from its file. msmtp composes no
attachments."""


def number(value):
    if value is None:
        return "-"
    if value >= 100:
        return f"{value:,.0f}"
    if value >= 10:
        return f"{value:.1f}"
    return f"{value:.2f}"


def rounds_of(results):
    """A task that was measured again may have had more rounds than the others."""
    rounds = {task["clients"]["raw"]["rounds"] for task in results["tasks"].values()}
    return " or ".join(str(count) for count in sorted(rounds))


def describe_machine(results):
    machine = results["machine"]
    versions = ", ".join(
        f"{NAMES.get(name, name)} {version}"
        for name, version in results["versions"].items()
        if version
    )
    lines = [
        "## The machine",
        "",
        f"{machine['cpu']}, {machine['cores']} cores, {machine['memory_gib']} GiB, "
        f"Debian {machine['debian']}, Linux {machine['kernel']}; {machine['compiler']}, Release. "
        f"{versions}. Measured on {results['date']}, {rounds_of(results)} rounds, "
        f"load {machine['load']:.1f} at the start.",
    ]
    return "\n".join(lines)


def table(task):
    is_mail = task["unit"] == "mail"
    unit = task["unit"]
    cpu_head = "CPU µs per mail" if is_mail else "CPU ms per MB"
    lines = [
        f"### {task['title'][0].upper() + task['title'][1:]}",
        "",
        f"| | {'µs per mail' if is_mail else 'ms'} | x raw | {cpu_head} | system calls per {unit} "
        f"| allocations per {unit} | heap KiB | peak MiB |",
        "|---|--:|--:|--:|--:|--:|--:|--:|",
    ]
    for name, row in task["clients"].items():
        cells = [
            row["wall_us_per_mail"] if is_mail else row["wall_ms"],
            row["ratio_to_raw"],
            row["cpu_ms_per_unit"] * (1000 if is_mail else 1),
            row["system_calls_per_unit"],
            row["allocations_per_unit"],
            row["heap_peak_kib"],
            row["peak_mib"],
        ]
        mark = "**" if name == "library" else ""
        title = f"{mark}{NAMES[name]}{mark}"
        lines.append(f"| {title} | " + " | ".join(number(cell) for cell in cells) + " |")
    return "\n".join(lines)


def program_tables(results):
    lines = [PROGRAMS, f"Load {results['load']:.1f} at the end.", ""]
    for task in results["tasks"].values():
        lines += [f"| {task['title']} | ms | CPU ms |", "|---|--:|--:|"]
        for name, row in task["programs"].items():
            cells = [row["wall_ms"], row["cpu_ms"]]
            shown = f"**{name}**" if name.startswith("tavmail") else name
            lines.append(f"| {shown} | " + " | ".join(map(number, cells)) + " |")
        lines.append("")
    return lines


def verdict(task):
    """One sentence: where the library stands among the peers."""
    own = task["clients"]["library"]
    peers = {
        name: row
        for name, row in task["clients"].items()
        if name not in YARDSTICKS and name != "library"
    }
    if not peers:
        return f"The library takes {own['ratio_to_raw']:.2f} times what OpenSSL alone takes."
    ahead = [
        f"{NAMES[name]} ({row['ratio_to_raw']:.2f} x raw)"
        for name, row in sorted(peers.items(), key=lambda item: item[1]["ratio_to_raw"])
        if row["ratio_to_raw"] < own["ratio_to_raw"]
    ]
    if ahead:
        return f"Faster than the library here: {', '.join(ahead)}."
    best = min(peers, key=lambda name: peers[name]["ratio_to_raw"])
    factor = peers[best]["ratio_to_raw"] / own["ratio_to_raw"]
    return (
        f"No peer is faster. The next one, {NAMES[best]}, takes {factor:.2f} times as long "
        "as the library."
    )


def aims(results):
    lines = [
        "## Aims",
        "",
        "| Task | Aim | Measured | |",
        "|---|---|--:|---|",
    ]
    for task, figure, limit, unit in AIMS:
        if task not in results["tasks"]:
            continue
        value = results["tasks"][task]["clients"]["library"][figure]
        if value is None:
            continue
        met = "met" if value <= limit else "**missed**"
        title = results["tasks"][task]["title"]
        lines.append(f"| {title} | at most {limit} {unit} | {number(value)} | {met} |")
    size = results["library_bytes"] / 1024
    met = "met" if size <= 160 else "**missed**"
    lines.append(f"| libtaveml.so.3, stripped, x86-64 | at most 160 KiB | {number(size)} | {met} |")
    own = results["tasks"]
    allocations = " and ".join(
        f"{number(own[task]['clients']['library']['utl_allocations_per_unit'])} per {text} MB"
        for task, text in (("send_big", "sent"), ("receive_big", "received"))
        if task in own
    )
    lines += ["", f"Blocks that the library and its application ask `UtlOS` for: {allocations}."]
    return "\n".join(lines)


def plot(results):
    tasks = [task for task in results["tasks"].values() if len(task["clients"]) > 3]
    figure, axes = plt.subplots(2, 2, figsize=(10, 6.4), layout="constrained")
    for axis, task in zip(axes.flat, tasks):
        names = list(reversed([name for name in task["clients"] if name != "raw"]))
        values = [task["clients"][name]["ratio_to_raw"] for name in names]
        colors = [
            "#1b6ca8" if name == "library" else "#a9a9a9" if name in YARDSTICKS else "#d9a441"
            for name in names
        ]
        bars = axis.barh([NAMES[name] for name in names], values, color=colors)
        axis.bar_label(bars, [f" {value:.3g}" for value in values], fontsize=8)
        axis.set_xscale("log")
        axis.set_xlim(0.7, max(values) * 2.2)
        axis.axvline(1, color="#444444", linewidth=0.8)
        axis.set_title(task["title"], fontsize=10)
        axis.set_xlabel("times raw, shorter is better", fontsize=8)
        axis.tick_params(labelsize=8)
        axis.spines[["top", "right"]].set_visible(False)
    figure.savefig(DOCS / "benchmarks.svg", metadata={"Date": None})


def main():
    results = json.loads((HERE / "results.json").read_text(encoding="utf-8"))
    DOCS.mkdir(exist_ok=True)
    matplotlib.rcParams["svg.hashsalt"] = "benchmarks"
    plot(results)
    sections = [INTRODUCTION, describe_machine(results), "", "## Results", ""]
    sections += ["![Times raw, per task and client](benchmarks.svg)", ""]
    for task in results["tasks"].values():
        sections += [table(task), "", verdict(task), ""]
    if "programs" in results:
        sections += program_tables(results["programs"])
    sections += [aims(results), "", (HERE / "profile.md").read_text(encoding="utf-8")]
    sections.append(
        "Besides the times, `bench/guard` counts the instructions of small fixed runs under\n"
        "valgrind and fails when they exceed `bench/budget.json`; the test `bench_guard` runs it.\n"
        "`build/bench/bench/bench_kernels` measures the library's single loops.\n"
    )
    (DOCS / "benchmarks.md").write_text("\n".join(sections), encoding="utf-8")


if __name__ == "__main__":
    main()
