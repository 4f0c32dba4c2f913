"""Shared by bench/run and bench/guard: servers, clients, the file that is sent."""

import json
import random
import subprocess

CLIENTS = ["raw", "reference", "library", "curl", "etpan", "gmime", "poco", "vmime"]
PERIOD = 912 * 256  # periodic_file.h
BODY_BYTES = 10000


def make_file(path, size):
    """A file whose content repeats, the same one in every run."""
    period = random.Random(8).randbytes(PERIOD)
    content = (period * (size // PERIOD + 1))[:size]
    path.write_bytes(content)
    return content


def mail_text(size):
    """mail_text.h, in Python."""
    lines = []
    length = 0
    while length < size:
        lines.append(
            b"%d The quick brown fox jumps over the lazy dog, then it sleeps.\r\n" % len(lines)
        )
        length += len(lines[-1])
    text = b"".join(lines)
    return text if length == size else text[: size - 2] + b"\r\n"


class Server:
    """A server that lives as long as the with statement; it ends when its input does."""

    def __init__(self, build, name, *options):
        self._command = [str(build / f"bench_{name}"), "--max-seconds", "120", *map(str, options)]

    def __enter__(self):
        self._process = subprocess.Popen(
            self._command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        self.port = int(self._process.stdout.readline())
        return self

    def __exit__(self, *_):
        output, _ = self._process.communicate(timeout=30)
        self.totals = json.loads(output) if output.strip() else None


def run_client(command, timeout, prefix=(), environment=None):
    """The client's figures; None for a task that is unsupported or too slow."""
    try:
        done = subprocess.run(
            [*prefix, *map(str, command)],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            timeout=timeout,
            env=environment,
            text=True,
            check=False,
        )
    except subprocess.TimeoutExpired:
        return None
    if done.returncode != 0:
        raise RuntimeError(f"{command[0]} {command[1]}: {done.stderr.strip()}")
    figures = json.loads(done.stdout)
    return None if "unknown" in figures else figures
