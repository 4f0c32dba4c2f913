"""Mail servers whose Debian packages exclude each other, or one that is installed.

Their packages are downloaded and unpacked instead of installed, once, into a folder that is kept.
A server then runs in namespaces of its own, where its packages, its configuration and its accounts
lie over this machine's /etc, /usr and /var: it finds everything at the usual paths, and nobody else
sees it.
"""

import atexit
import contextlib
import functools
import os
import platform
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

import servers

CACHE = os.environ.get("TAVEML_INTEROP_CACHE") or os.path.join(
    os.path.dirname(os.path.abspath(__file__)), "..", "..", "build", "interop-packages")

# What Debian's packages hold below these, they mean to be below /usr.
MERGED = ("bin", "lib", "lib64", "sbin")

LAYERED = ("etc", "usr", "var")


SKIPPED = servers.SKIPPED


class Unavailable(Exception):
    """Why a server cannot be had on this machine: no network, not root, not allowed to mount."""


def or_skip(function, *arguments, **named):
    """What the function returns. Ends the test as skipped where a server cannot be had."""
    try:
        return function(*arguments, **named)
    except Unavailable as reason:
        print("skipped:", reason)
        sys.exit(SKIPPED)


class Offer:
    """What a table of results needs to know of a server.

    `capabilities` maps each TLS mode to the login methods that the server offers there. `REASONS`
    tells why it has no others, by TLS mode and method, by method or by TLS mode.
    """

    NAME = ""
    capabilities = {}
    REASONS = {}

    @classmethod
    def reason(cls, mode, method):
        """Why a client cannot log in this way; empty where it can."""
        if method in cls.capabilities.get(mode, ()):
            return ""
        for key in (mode, method), method, mode:
            if key in cls.REASONS:
                return cls.REASONS[key]
        return f"{cls.NAME} does not offer {method}"


# -- packages --


def run(*command, **named):
    environment = dict(os.environ, LC_ALL="C", DEBIAN_FRONTEND="noninteractive")
    try:
        return subprocess.run(command, capture_output=True, text=True, env=environment, **named)
    except subprocess.TimeoutExpired as error:
        return subprocess.CompletedProcess(command, 124, "", f"no end in {error.timeout:.0f} s")


def complaint(done):
    lines = [line for line in done.stderr.splitlines() if line.strip()]
    errors = [line for line in lines if line.startswith("E:")]
    return (errors or lines or [f"exit code {done.returncode}"])[-1].strip()


def missing_packages(packages):
    """The packages and what they depend on, without what is installed in any version.

    apt would remove conflicting packages, but here it only pretends to install.
    """
    done = run("apt-get", "-s", "--no-install-recommends", "install", *packages)
    if done.returncode != 0:
        raise Unavailable(f"apt-get cannot install {' '.join(packages)}: {complaint(done)}")
    lines = [line.split() for line in done.stdout.splitlines() if line.startswith("Inst ")]
    return [f"{words[1]}={words[2].strip('(')}" for words in lines if words[2].startswith("(")]


def download(packages, folder):
    if not packages:
        return
    # As root, apt would download as a user of its own, who may not write here.
    done = run("apt-get", "-qq", "-o", "APT::Sandbox::User=root", "-o", "Acquire::Retries=2",
               "-o", "Acquire::http::Timeout=20", "download", *packages, cwd=folder, timeout=600)
    if done.returncode != 0:
        raise Unavailable(f"cannot download {' '.join(packages)}: {complaint(done)}")


def fetch(packages, folder):
    """Downloads the missing packages. Lists of packages that are not there, or too old, are brought
    up to date first."""
    try:
        missing = missing_packages(packages)
        download(missing, folder)
    except Unavailable:
        if os.geteuid() != 0 or run("apt-get", "-qq", "update", timeout=600).returncode != 0:
            raise
        missing = missing_packages(packages)
        download(missing, folder)
    return missing


def extract(package, root):
    """Unpacks one package, with what is below /lib put below /usr/lib, as on the machine."""
    with tempfile.TemporaryDirectory(dir=os.path.dirname(root)) as folder:
        done = run("dpkg", "-x", package, folder)
        if done.returncode != 0:
            raise Unavailable(f"cannot unpack {os.path.basename(package)}: {complaint(done)}")
        for name in os.listdir(folder):
            into = os.path.join(root, "usr", name) if name in MERGED else os.path.join(root, name)
            os.makedirs(into, exist_ok=True)
            # With owners, modes and links as they are.
            subprocess.run(["cp", "-a", os.path.join(folder, name, "."), into], check=True)


def unpacked_folder(packages):
    return os.path.join(os.path.abspath(CACHE), f"{platform.machine()}-{'+'.join(packages)}")


def unpack(*packages):
    """The folder with the packages and their missing dependencies, of which "packages" is a list.

    Made once, for what is installed then; to be deleted where that has changed. Tests that run at
    the same time may both make it; one of the two is thrown away.
    """
    done = unpacked_folder(packages)
    if os.path.isdir(done):
        return done
    if shutil.which("apt-get") is None or shutil.which("dpkg") is None:
        raise Unavailable(f"needs apt-get and dpkg to unpack {' '.join(packages)}")
    os.makedirs(os.path.dirname(done), exist_ok=True)
    with tempfile.TemporaryDirectory(dir=os.path.dirname(done)) as folder:
        root, archives = os.path.join(folder, "root"), os.path.join(folder, "archives")
        os.mkdir(root)
        os.mkdir(archives)
        missing = fetch(packages, archives)
        for name in sorted(os.listdir(archives)):
            extract(os.path.join(archives, name), root)
        with open(os.path.join(root, "packages"), "w") as file:
            file.write("".join(f"{each}\n" for each in missing))
        os.chmod(root, 0o755)
        try:
            os.rename(root, done)
        except OSError:
            if not os.path.isdir(done):
                raise
    return done


def version(package, *together):
    """The version of a package, unpacked together with others or installed; empty when neither."""
    try:
        with open(os.path.join(unpacked_folder(together or (package,)), "packages")) as file:
            for line in file:
                if line.startswith(package + "="):
                    return line.strip().split("=", 1)[1]
    except OSError:
        pass
    done = run("dpkg-query", "-W", "-f", "${Version}", package)
    return done.stdout if done.returncode == 0 else ""


# -- namespaces --

# Ends with the test, however that ends; and all that runs inside with it. A host name of its own.
UNSHARE = ("setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--uts", "--pid", "--fork",
           "--kill-child", "--mount-proc")


@functools.lru_cache(maxsize=None)
def refusal():
    """Why this process may not make namespaces and mount in them; empty when it may."""
    missing = [name for name in ("unshare", "setpriv") if shutil.which(name) is None]
    if missing:
        return f"needs {' and '.join(missing)}"
    if os.geteuid() != 0:
        return "needs root to start mail servers"
    if os.path.realpath(tempfile.gettempdir()).split("/")[1] in (*LAYERED, "run"):
        return f"the folder for temporary files, {tempfile.gettempdir()}, would be covered"
    with tempfile.TemporaryDirectory() as folder:
        done = run(*UNSHARE, "mount", "-t", "overlay", "overlay", "-o", f"lowerdir={folder}:/etc",
                   "/etc")
    if done.returncode != 0:
        return f"may not mount in a namespace of its own: {complaint(done)}"
    return ""


def encrypted(password):
    """A password as /etc/shadow has it."""
    done = subprocess.run(["openssl", "passwd", "-6", "-stdin"], input=password.encode(),
                          check=True, capture_output=True)
    return done.stdout.decode().strip()


class UnpackedServer(servers.Server):
    """A server that runs in namespaces of its own, made from its PACKAGES.

    place() and place_folder() put files and folders at the paths where the server looks for them;
    both are for before start(). The end of the first process of the namespace ends all of them,
    also those that left their process group.
    """

    PACKAGES = ()

    def __init__(self):
        if refusal():
            raise Unavailable(f"{type(self).__name__}: {refusal()}")
        self.root = unpack(*self.PACKAGES)
        super().__init__("root")
        # Also where the rest of the constructor fails.
        atexit.register(shutil.rmtree, self.folder, ignore_errors=True)
        self.mounted = []
        self.records = {"root": (0, 0, "/root", "*"), "mail": (8, 8, "/", "*"),
                        "nobody": (65534, 65534, "/", "*")}

    def place(self, path, text, mode=0o644, uid=0):
        """A file at an absolute path."""
        file_path = self.path("layer") + path
        os.makedirs(os.path.dirname(file_path), exist_ok=True)
        with open(file_path, "wb") as file:
            file.write(text.encode() if isinstance(text, str) else text)
        os.chmod(file_path, mode)
        os.chown(file_path, uid, uid)

    def place_folder(self, path, uid=0, mode=0o755):
        """A folder in which the server may write. Returns where it is for everybody else."""
        os.makedirs(self.path("layer") + path, exist_ok=True)
        outside = self.path("data") + path
        os.makedirs(outside, exist_ok=True)
        os.chown(outside, uid, uid)
        os.chmod(outside, mode)
        self.mounted.append(path)
        return outside

    def add_user(self, name, uid, home="/", password=None):
        """An account of the machine, as the server sees it, and a group of the same name."""
        secret = "*" if password is None else encrypted(password)
        self.records[name] = (uid, uid, home, secret)

    def place_users(self):
        lines = sorted(self.records.items())
        self.place("/etc/passwd", "".join(f"{name}:x:{uid}:{gid}::{home}:/bin/sh\n"
                                          for name, (uid, gid, home, _) in lines))
        self.place("/etc/group", "".join(f"{name}:x:{gid}:\n" for name, (_, gid, _, _) in lines))
        self.place("/etc/shadow", "".join(f"{name}:{secret}:19000:0:99999:7:::\n"
                                          for name, (_, _, _, secret) in lines), 0o600)

    def layers(self):
        """The commands that lay the server's files over this machine's."""
        for name in LAYERED:
            above = [os.path.join(each, name) for each in (self.path("layer"), self.root)]
            above = [each for each in above if os.path.isdir(each)]
            if above:
                yield f"mount -t overlay overlay -o lowerdir={':'.join(above)}:/{name} /{name}"
        yield "mount -t tmpfs -o mode=755 tmpfs /run"
        for path in self.mounted:
            yield f"mkdir -p {path}"
            yield f"mount --bind {self.path('data')}{path} {path}"

    def inside(self, *command):
        """The command as one that runs it in new namespaces."""
        # The shell stays as the first process. unshare ends it when it ends itself, which would not
        # work with a server that changes its user.
        script = "\n".join(["set -e", *self.layers(), '"$@"', "exit 0"])
        return [*UNSHARE, "sh", "-c", script, "sh", *command]

    def run_inside(self, *command, data=""):
        """Runs a command among the server's files to its end, and returns what it writes."""
        self.place_users()
        done = run(*self.inside(*command), input=data, timeout=60)
        if done.returncode != 0:
            raise RuntimeError(f"{command[0]}: {done.stdout}{done.stderr}")
        return done.stdout

    def start(self, command, *ports):
        self.place_users()
        try:
            super().start(self.inside(*command), ports[0])
        except RuntimeError as error:
            raise RuntimeError(f"{type(self).__name__} {error}") from None
        deadline = time.monotonic() + 20
        for port in ports[1:]:
            self.wait_for_port(port, deadline)

    def wait_for_port(self, port, deadline):
        while True:
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                return
            except OSError:
                if time.monotonic() > deadline or self.process.poll() is not None:
                    logs = self.logs()
                    self.__exit__()
                    raise RuntimeError(f"{type(self).__name__} does not start: {logs}") from None
                time.sleep(0.05)

    def end_process(self):
        try:
            with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children") as file:
                first = [int(each) for each in file.read().split()]
        except OSError:
            first = []
        # unshare ends after its child, and this one after all others of its namespace.
        for pid in first:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        try:
            self.process.wait(5 if first else 0)
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
